// Stateless operations on a block, in place and in single precision.
#pragma once

#include "lanes.h"

#include <stdint.h>

#include <cstddef>

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

inline void multiply(float* samples, int32_t count, float gain) {
    for (int32_t i = 0; i < count; ++i) {
        samples[i] *= gain;
    }
}

} // namespace plain

// From the end to the start no input is overwritten before it has been used.
inline void subtract_previous(float* samples, int32_t count, float coef) {
    int32_t left = count;
    for (; left > 16; left -= 16) {
        float* last = samples + left - 16;
        float4 filtered[4];
        for (std::ptrdiff_t i = 0; i < 4; ++i)
            filtered[i] = load<float4>(last + 4 * i) - load<float4>(last + 4 * i - 1) * coef;
        for (std::ptrdiff_t i = 0; i < 4; ++i)
            store(last + 4 * i, filtered[i]);
    }
    plain::subtract_previous(samples, left, coef);
}

inline void multiply(float* samples, int32_t count, float gain) {
    int32_t first = 0;
    for (; count - first >= 16; first += 16) {
        for (std::ptrdiff_t i = 0; i < 4; ++i) {
            float* next = samples + first + 4 * i;
            store(next, load<float4>(next) * gain);
        }
    }
    plain::multiply(samples + first, count - first, gain);
}

} // namespace numeric
