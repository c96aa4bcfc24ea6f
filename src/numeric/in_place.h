// Stateless operations on a block, in place and in single precision.
#pragma once

#include <stdint.h>

namespace numeric {

namespace plain {

// y[i] = x[i] - coef * x[i - 1], with the input before filtering. The first sample stays as it is.
inline void subtract_previous(float* samples, int32_t count, float coef) {
    float previous = samples[0];
    for (int32_t i = 1; i < count; ++i) {
        const float current = samples[i];
        samples[i] = current - previous * coef;
        previous = current;
    }
}

} // namespace plain

// From the end to the start no input is overwritten before it has been used, and the compiler makes vectors of it.
inline void subtract_previous(float* samples, int32_t count, float coef) {
    for (int32_t i = count - 1; i > 0; --i) {
        samples[i] = samples[i] - samples[i - 1] * coef;
    }
}

inline void multiply(float* samples, int32_t count, float gain) {
    for (int32_t i = 0; i < count; ++i) {
        samples[i] *= gain;
    }
}

} // namespace numeric
