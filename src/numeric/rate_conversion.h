// Sample rate conversion of one block: copy, means of whole groups, or linear interpolation.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <stdint.h>

namespace numeric {

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

inline bool is_whole_decimation(int32_t in_rate, int32_t out_rate) {
    return out_rate < in_rate && in_rate % out_rate == 0;
}

// How many samples at `out_rate` a block of `in_count` at `in_rate` gives, at most `capacity`. Both rates are at least
// 1. What a group or a step leaves over at the block's end is dropped.
inline int32_t converted_count(int32_t in_rate, int32_t out_rate, int32_t in_count, int32_t capacity) {
    const int64_t count = is_whole_decimation(in_rate, out_rate) ? in_count / (in_rate / out_rate)
                                                                 : int64_t{out_rate} * in_count / in_rate;
    return static_cast<int32_t>(std::min<int64_t>(count, capacity));
}

// Outputs `first` to `first + count - 1` of the converted block, in as many pieces as the caller likes.
//
// Interpolation stays inside the block: before rounding the last position is at most in_count - step, and rounding
// moves it by less than in_count * 2^-51. A step is never shorter than in_rate * 2^-31, which is more than that for
// every block of at most 480 samples or a second.
inline void convert_rate(int32_t in_rate, int32_t out_rate, const float* in, int32_t in_count, int32_t first,
                         float* out, int32_t count) {
    if (in_rate == out_rate) {
        std::copy_n(in + first, count, out);
    } else if (is_whole_decimation(in_rate, out_rate)) {
        const int32_t ratio = in_rate / out_rate;
        group_means(in + static_cast<std::ptrdiff_t>(first) * ratio, ratio, out, count);
    } else {
        const double step = static_cast<double>(in_rate) / static_cast<double>(out_rate);
        interpolate_linear(in, in_count, step, first, out, count);
    }
}

// The same for the stand-alone resampler, which may be given any numbers: the quotient in_count / step decides, and
// where no 32-bit integer holds it the result is -2147483648. It may fall one short of the exact count.
//
// With count positions 0 to (count - 1) * step, interpolation stays inside the block: the last one is at most
// in_count - step before rounding, and rounding moves it by less than in_count * 2^-51. As the count fits in 31 bits,
// the step is at least in_count * 2^-31, which is more.
inline int32_t resampled_count(int32_t in_count, double step, int32_t capacity) {
    const double quotient = static_cast<double>(in_count) / step;
    if (!(std::fabs(quotient) < 2147483648.0)) return std::numeric_limits<int32_t>::min();
    return std::min(static_cast<int32_t>(quotient), capacity);
}

} // namespace numeric
