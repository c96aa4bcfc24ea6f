// Between floats at full scale 1.0 and the 16-bit range.
#pragma once

#include "levels.h"

#include <stdint.h>

#include <cmath>
#include <limits>

namespace numeric {

inline constexpr float pcm16_scale = 32767.0F;

namespace plain {

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

} // namespace plain

// Eight samples whose magnitudes are below 65536.
inline short8 to_pcm16(float4 x, float4 y) {
    return to_shorts(x * pcm16_scale, y * pcm16_scale);
}

// Levels and 16-bit samples in one pass. Samples are taken to be ordinary; should the levels then tell that one was
// NaN or 65536 and above, the 16-bit samples are made again.
inline void measure_to_pcm16(level_sums& sums, const float* in, int32_t count, int16_t* out) {
    float4 peaks = float4{} + sums.peak;
    const int32_t done = add_squares(sums.squares, in, count, [&](int32_t i, float4 x, float4 y) {
        peaks = raise_peak(raise_peak(peaks, x), y);
        store(out + i, to_pcm16(x, y));
    });
    sums.peak = largest(peaks);
    plain::add_levels(sums, in + done, count - done);
    const bool ordinary = sums.peak < 65536.0F && !std::isnan(sums.squares);
    const int32_t kept = ordinary ? done : 0;
    plain::to_pcm16(in + kept, count - kept, out + kept);
}

// Floats in the 16-bit range are what RNNoise works on. The compiler makes vectors of these two by itself.
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
