// One second-order filter section in transposed direct form II, in double precision.
#pragma once

#include <math.h>
#include <stdint.h>

namespace numeric {

// Normalised so that a0 is 1 and need not be kept; a1 and a2 have the signs of the denominator and are subtracted.
struct biquad {
    double b0;
    double b1;
    double b2;
    double a1;
    double a2;
    double z1;
    double z2;
};

// The high-pass of the Audio EQ Cookbook, at rest. Nothing is checked: any number gives what the formulas give.
inline biquad high_pass(double cutoff_hz, double q, double rate_hz) {
    const double w0 = (cutoff_hz * 6.283185307179586) / rate_hz;
    double sine = 0.0;
    double cosine = 0.0;
    sincos(w0, &sine, &cosine);
    const double alpha = sine / (q + q);
    const double a0 = alpha + 1.0;
    return {
        .b0 = (0.5 * (cosine + 1.0)) / a0,
        .b1 = -(cosine + 1.0) / a0,
        .b2 = (0.5 * (cosine + 1.0)) / a0,
        .a1 = (cosine * -2.0) / a0,
        .a2 = (1.0 - alpha) / a0,
        .z1 = 0.0,
        .z2 = 0.0,
    };
}

// Filters in place; only the output is rounded to single precision.
inline void filter(biquad& section, float* samples, int32_t count) {
    const auto [b0, b1, b2, a1, a2, first, second] = section;
    double z1 = first;
    double z2 = second;
    for (int32_t i = 0; i < count; ++i) {
        const auto x = static_cast<double>(samples[i]);
        const double y = b0 * x + z1;
        z1 = (b1 * x - a1 * y) + z2;
        z2 = b2 * x - a2 * y;
        samples[i] = static_cast<float>(y);
    }
    section.z1 = z1;
    section.z2 = z2;
}

} // namespace numeric
