// Sample rate conversion of one block: copy, means of whole groups, or linear interpolation.
#pragma once

#include "lanes.h"

#include <stdint.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

namespace numeric {

namespace plain {

// Output `i` is the mean of the `ratio` inputs from `i * ratio` on, summed in single precision from 0.0 in index order,
// so that a group of negative zeros gives a positive one.
inline void group_means(const float* in, int32_t ratio, float* out, int32_t count) {
    for (int32_t i = 0; i < count; ++i) {
        float sum = 0.0F;
        for (int32_t j = 0; j < ratio; ++j) {
            sum += *in++;
        }
        out[i] = sum / static_cast<float>(ratio);
    }
}

// Outputs `first` to `first + count - 1` of the interpolation that reads `in` at the positions 0, step, 2 * step, …
// Positions must stay below `in_count`; only the right-hand neighbour of the last input is clamped to it. The formula
// decides also where the fraction is 0: a neighbour that is infinite or NaN makes the output NaN.
inline void interpolate_linear(const float* in, int32_t in_count, double step, int32_t first, float* out,
                               int32_t count) {
    for (int32_t i = 0; i < count; ++i) {
        const double position = static_cast<double>(first + i) * step;
        const auto left = static_cast<int32_t>(position);
        const double fraction = position - static_cast<double>(left);
        const int32_t right = left + 1 < in_count ? left + 1 : in_count - 1;
        out[i] = static_cast<float>(static_cast<double>(in[left]) * (1.0 - fraction) +
                                    fraction * static_cast<double>(in[right]));
    }
}

} // namespace plain

// Four floats that lie `stride` apart.
inline float4 strided(const float* in, std::ptrdiff_t stride) {
    return float4{in[0], in[stride], in[2 * stride], in[3 * stride]};
}

// Two floats each from two places that lie `stride` apart.
inline float4 strided_pairs(const float* in, std::ptrdiff_t stride) {
    return __builtin_shufflevector(load<float2>(in), load<float2>(in + stride), 0, 1, 2, 3);
}

// Four groups at a time, one in each lane, taken two inputs at a time.
inline void group_means_in_lanes(const float* in, int32_t ratio, float* out, int32_t count) {
    const std::ptrdiff_t stride = ratio;
    const auto divisor = static_cast<float>(ratio);
    for (int32_t i = 0; i < count; i += 4) {
        float4 sum{};
        int32_t j = 0;
        for (; j + 1 < ratio; j += 2) {
            const float4 groups01 = strided_pairs(in + j, stride);
            const float4 groups23 = strided_pairs(in + j + 2 * stride, stride);
            sum += __builtin_shufflevector(groups01, groups23, 0, 2, 4, 6);
            sum += __builtin_shufflevector(groups01, groups23, 1, 3, 5, 7);
        }
        if (j < ratio) sum += strided(in + j, stride);
        store(out + i, sum / divisor);
        in += 4 * stride;
    }
}

// The same for groups of three, which three vectors hold exactly four of: a0 b0 c0 a1, b1 c1 a2 b2, c2 a3 b3 c3.
inline void means_of_three(const float* in, float* out, int32_t count) {
    for (int32_t i = 0; i < count; i += 4) {
        const auto v0 = load<float4>(in);
        const auto v1 = load<float4>(in + 4);
        const auto v2 = load<float4>(in + 8);
        const float4 bcbc01 = __builtin_shufflevector(v0, v1, 1, 2, 4, 5);
        const float4 abab23 = __builtin_shufflevector(v1, v2, 2, 3, 5, 6);
        const float4 a = __builtin_shufflevector(v0, abab23, 0, 3, 4, 6);
        const float4 b = __builtin_shufflevector(bcbc01, abab23, 0, 2, 5, 7);
        const float4 c = __builtin_shufflevector(bcbc01, v2, 1, 3, 4, 7);
        store(out + i, (0.0F + a + b + c) / 3.0F);
        in += 12;
    }
}

// The usual ratios are told to the compiler, which then unrolls them.
inline void group_means(const float* in, int32_t ratio, float* out, int32_t count) {
    const int32_t whole = count & ~3;
    switch (ratio) {
    case 2:
        group_means_in_lanes(in, 2, out, whole);
        break;
    case 3:
        means_of_three(in, out, whole);
        break;
    case 4:
        group_means_in_lanes(in, 4, out, whole);
        break;
    case 6:
        group_means_in_lanes(in, 6, out, whole);
        break;
    default:
        group_means_in_lanes(in, ratio, out, whole);
    }
    plain::group_means(in + static_cast<std::ptrdiff_t>(whole) * ratio, ratio, out + whole, count - whole);
}

// Where the step is a whole number the fraction is exactly 0, and x0 * 1 + 0 * x1 gives the same bits in single
// precision. Returns how many outputs, from the first of the block, are done. Of the `in_count / step` outputs at most
// only the last of them all can be without a neighbour, at a step of 1.
inline int32_t interpolate_at_whole_steps(const float* in, int32_t in_count, int32_t step, float* out, int32_t count) {
    const int32_t whole = std::min(count, in_count - 1) & ~3;
    for (int32_t i = 0; i < whole; i += 4) {
        const float* left = in + static_cast<std::ptrdiff_t>(i) * step;
        auto x0 = load<float4>(left);
        auto x1 = load<float4>(left + 1);
        if (step > 1) {
            const float4 pairs01 = strided_pairs(left, step);
            const float4 pairs23 = strided_pairs(left + 2 * static_cast<std::ptrdiff_t>(step), step);
            x0 = __builtin_shufflevector(pairs01, pairs23, 0, 2, 4, 6);
            x1 = __builtin_shufflevector(pairs01, pairs23, 1, 3, 5, 7);
        }
        store(out + i, x0 + 0.0F * x1);
    }
    return whole;
}

// Two outputs at a time until the right-hand neighbour is past the end.
inline void interpolate_linear(const float* in, int32_t in_count, double step, int32_t first, float* out,
                               int32_t count) {
    double2 index = {static_cast<double>(first), static_cast<double>(first) + 1.0};
    int32_t i = 0;
    for (; i + 1 < count; i += 2) {
        const double2 position = index * step;
        const whole_numbers left = truncate(position);
        if (left.second + 1 >= in_count) break;
        const double2 fraction = position - left.both;
        const double2 pair0 = load_doubles(in + left.first);
        const double2 pair1 = load_doubles(in + left.second);
        const double2 near = __builtin_shufflevector(pair0, pair1, 0, 2) * (1.0 - fraction);
        const double2 far = fraction * __builtin_shufflevector(pair0, pair1, 1, 3);
        store_floats(out + i, near + far);
        index += 2.0;
    }
    plain::interpolate_linear(in, in_count, step, first + i, out + i, count - i);
}

inline bool is_whole_decimation(int32_t in_rate, int32_t out_rate) {
    return out_rate < in_rate && in_rate % out_rate == 0;
}

// How many samples at `out_rate` a block of `in_count` at `in_rate` gives, at most `capacity`. Both rates are at least
// 1. What a group or a step leaves over at the block's end is dropped.
inline int32_t converted_count(int32_t in_rate, int32_t out_rate, int32_t in_count, int32_t capacity) {
    return static_cast<int32_t>(std::min<int64_t>(int64_t{out_rate} * in_count / in_rate, capacity));
}

// Makes outputs `first` to `first + count - 1` of the converted block, in as many pieces as the caller likes, and returns
// where they are: in `room`, or where the rates are equal in the input itself.
//
// Interpolation stays inside the block: before rounding the last position is at most in_count - step, and rounding
// moves it by less than in_count * 2^-51. A step is never shorter than in_rate * 2^-31, which is more than that for
// every block of at most 480 samples or a second.
inline const float* convert_rate(int32_t in_rate, int32_t out_rate, const float* in, int32_t in_count, int32_t first,
                                 float* room, int32_t count) {
    if (in_rate == out_rate) return in + first;
    if (is_whole_decimation(in_rate, out_rate)) {
        const int32_t ratio = in_rate / out_rate;
        group_means(in + static_cast<std::ptrdiff_t>(first) * ratio, ratio, room, count);
    } else {
        const double step = static_cast<double>(in_rate) / static_cast<double>(out_rate);
        interpolate_linear(in, in_count, step, first, room, count);
    }
    return room;
}

// How many samples the stand-alone resampler gives. It may be asked for any numbers: the quotient in_count / step
// decides, and where no 32-bit integer holds it the result is -2147483648. It may fall one short of the exact count.
//
// With count positions 0 to (count - 1) * step, interpolation stays inside the block: the last one is at most
// in_count - step before rounding, and rounding moves it by less than in_count * 2^-51. As the count fits in 31 bits,
// the step is at least in_count * 2^-31, which is more.
inline int32_t resampled_count(int32_t in_count, double step, int32_t capacity) {
    const double quotient = static_cast<double>(in_count) / step;
    if (!(std::fabs(quotient) < 2147483648.0)) return std::numeric_limits<int32_t>::min();
    return std::min(static_cast<int32_t>(quotient), capacity);
}

// The block that the stand-alone resampler makes of that count, interpolated from position 0.
inline void resample(const float* in, int32_t in_count, double step, float* out, int32_t count) {
    const auto stride = static_cast<int32_t>(step);
    const bool whole_steps = static_cast<double>(stride) == step;
    const int32_t done = whole_steps ? interpolate_at_whole_steps(in, in_count, stride, out, count) : 0;
    interpolate_linear(in, in_count, step, done, out + done, count - done);
}

} // namespace numeric
