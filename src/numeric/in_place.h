// Stateless operations on a block, in place and in single precision.
#pragma once

#include <emmintrin.h>
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

// From the end to the start no input is overwritten before it has been used.
inline void subtract_previous(float* samples, int32_t count, float coef) {
    const __m128 coefs = _mm_set1_ps(coef);
    int32_t left = count;
    for (; left > 8; left -= 8) {
        float* last = samples + left - 8;
        const __m128 low = _mm_mul_ps(_mm_loadu_ps(last - 1), coefs);
        const __m128 high = _mm_mul_ps(_mm_loadu_ps(last + 3), coefs);
        _mm_storeu_ps(last, _mm_sub_ps(_mm_loadu_ps(last), low));
        _mm_storeu_ps(last + 4, _mm_sub_ps(_mm_loadu_ps(last + 4), high));
    }
    plain::subtract_previous(samples, left, coef);
}

// The compiler makes vectors of this one by itself.
inline void multiply(float* samples, int32_t count, float gain) {
    for (int32_t i = 0; i < count; ++i) {
        samples[i] *= gain;
    }
}

} // namespace numeric
