// Stateless operations on a block, in place and in single precision.
#pragma once

#include <stdint.h>

namespace numeric {

// y[i] = x[i] - coef * x[i - 1], with the input before filtering. The first sample stays as it is.
inline void subtract_previous(float* samples, int32_t count, float coef) {
    float previous = samples[0];
    for (int32_t i = 1; i < count; ++i) {
        const float current = samples[i];
        samples[i] = current - previous * coef;
        previous = current;
    }
}

inline void multiply(float* samples, int32_t count, float gain) {
    for (int32_t i = 0; i < count; ++i) {
        samples[i] *= gain;
    }
}

} // namespace numeric
