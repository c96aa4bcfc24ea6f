// Between floats at full scale 1.0 and the 16-bit range.
#pragma once

#include <cmath>
#include <stdint.h>

namespace numeric {

inline constexpr float pcm16_scale = 32767.0F;

// Truncates toward zero, as the range is symmetric: -32768 is never produced. NaN gives 0.
inline int16_t to_pcm16(float x) {
    if (x > 1.0F) return 32767;
    if (x < -1.0F) return -32767;
    return std::isnan(x) ? int16_t{0} : static_cast<int16_t>(x * pcm16_scale);
}

inline void to_pcm16(const float* in, int32_t count, int16_t* out) {
    for (int32_t i = 0; i < count; ++i) {
        out[i] = to_pcm16(in[i]);
    }
}

// Floats in the 16-bit range are what RNNoise works on.
inline void scale_to_pcm16_range(const float* in, int32_t count, float* out) {
    for (int32_t i = 0; i < count; ++i) {
        out[i] = in[i] * pcm16_scale;
    }
}

inline void scale_from_pcm16_range(const float* in, int32_t count, float* out) {
    for (int32_t i = 0; i < count; ++i) {
        out[i] = in[i] / pcm16_scale;
    }
}

} // namespace numeric
