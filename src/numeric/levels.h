// Peak and RMS of a block, on linear amplitudes against full scale 1.0, and the 16-bit samples that go with them.
#pragma once

#include "lanes.h"

#include <stdint.h>

#include <algorithm>
#include <bit>
#include <cmath>

namespace numeric {

// What one pass over the samples gathers. Passes over the pieces of a block add up to the same bits as one over all.
struct level_sums {
    float peak = 0.0F;
    double squares = 0.0;
};

namespace plain {

// Squares are formed in single precision and summed in double, in index order. A NaN never becomes the peak.
inline void add_levels(level_sums& sums, const float* samples, int32_t count) {
    for (int32_t i = 0; i < count; ++i) {
        const float x = samples[i];
        const float magnitude = std::fabs(x);
        if (magnitude > sums.peak) sums.peak = magnitude;
        sums.squares += static_cast<double>(x * x);
    }
}

// How many samples have a magnitude above the threshold. A NaN never does.
inline int32_t count_beyond(const float* samples, int32_t count, float threshold) {
    int32_t beyond = 0;
    for (int32_t i = 0; i < count; ++i) {
        beyond += std::fabs(samples[i]) > threshold ? 1 : 0;
    }
    return beyond;
}

} // namespace plain

// The sum of squares is one long chain of additions, each waiting for the one before. What else there is to do with the
// samples fits into the waiting: `meanwhile(i, x, y)` gets samples i to i + 3 and i + 4 to i + 7. Returns how many
// samples were taken, the largest multiple of 8. Inline, so that what `meanwhile` gathers stays in registers.
template <typename Meanwhile>
[[gnu::always_inline]] inline int32_t add_squares(double& sum, const float* samples, int32_t count,
                                                  Meanwhile meanwhile) {
    const int32_t whole = count > 0 ? count & ~7 : 0;
    double running = sum;
    for (int32_t i = 0; i < whole; i += 8) {
        const float4 vectors[2] = {load<float4>(samples + i), load<float4>(samples + i + 4)};
        meanwhile(i, vectors[0], vectors[1]);
        for (const float4 x : vectors) {
            const float4 squares = x * x;
            for (const double2 two :
                 {to_doubles(squares), to_doubles(__builtin_shufflevector(squares, squares, 2, 3, 2, 3))}) {
                running += two[0];
                running += two[1];
            }
        }
    }
    sum = running;
    return whole;
}

inline float4 magnitudes(float4 x) {
    return std::bit_cast<float4>(std::bit_cast<int4>(x) & 0x7FFFFFFF);
}

// A NaN leaves the peak alone.
inline float4 raise_peak(float4 peaks, float4 x) {
    const float4 all = magnitudes(x);
    return all > peaks ? all : peaks;
}

inline float largest(float4 x) {
    return std::max({x[0], x[1], x[2], x[3]});
}

inline void add_levels(level_sums& sums, const float* samples, int32_t count) {
    float4 peaks = float4{} + sums.peak;
    const int32_t done = add_squares(sums.squares, samples, count,
                                     [&](int32_t, float4 x, float4 y) { peaks = raise_peak(raise_peak(peaks, x), y); });
    sums.peak = largest(peaks);
    plain::add_levels(sums, samples + done, count - done);
}

// The sum of squares alone.
inline double sum_of_squares(const float* samples, int32_t count) {
    level_sums sums;
    const int32_t done = add_squares(sums.squares, samples, count, [](int32_t, float4, float4) {});
    plain::add_levels(sums, samples + done, count - done);
    return sums.squares;
}

// The sum of squares, and how many magnitudes lie above the threshold.
inline double sum_of_squares(const float* samples, int32_t count, float threshold, int32_t& beyond) {
    level_sums sums;
    int4 counts{};
    const int32_t done = add_squares(sums.squares, samples, count, [&](int32_t, float4 x, float4 y) {
        counts -= magnitudes(x) > threshold; // a lane that is above is -1
        counts -= magnitudes(y) > threshold;
    });
    beyond =
        counts[0] + counts[1] + counts[2] + counts[3] + plain::count_beyond(samples + done, count - done, threshold);
    plain::add_levels(sums, samples + done, count - done);
    return sums.squares;
}

// Root of the mean of `squares` over `count` samples, which must not be 0.
inline float root_mean_square(double squares, int32_t count) {
    return static_cast<float>(std::sqrt(squares / static_cast<double>(count)));
}

// A NaN stays a NaN.
inline float limit_to_full_scale(float level) {
    return level > 1.0F ? 1.0F : level;
}

} // namespace numeric
