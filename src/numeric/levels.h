// Peak and RMS of a block, on linear amplitudes against full scale 1.0.
#pragma once

#include <cmath>
#include <stdint.h>

namespace numeric {

// What one pass over the samples gathers. Passes over the pieces of a block add up to the same bits as one over all.
struct level_sums {
    float peak = 0.0F;
    double squares = 0.0;
};

// Squares are formed in single precision and summed in double, in index order. A NaN never becomes the peak.
inline void add_levels(level_sums& sums, const float* samples, int32_t count) {
    for (int32_t i = 0; i < count; ++i) {
        const float x = samples[i];
        const float magnitude = std::fabs(x);
        if (magnitude > sums.peak) {
            sums.peak = magnitude;
        }
        sums.squares += static_cast<double>(x * x);
    }
}

// Root of the mean of `squares` over `count` samples, which must not be 0.
inline float root_mean_square(double squares, int32_t count) {
    return static_cast<float>(std::sqrt(squares / static_cast<double>(count)));
}

// How many samples have a magnitude above the threshold. A NaN never does.
inline int32_t count_beyond(const float* samples, int32_t count, float threshold) {
    int32_t beyond = 0;
    for (int32_t i = 0; i < count; ++i) {
        beyond += std::fabs(samples[i]) > threshold ? 1 : 0;
    }
    return beyond;
}

// A NaN stays a NaN.
inline float limit_to_full_scale(float level) {
    return level > 1.0F ? 1.0F : level;
}

} // namespace numeric
