// Conversion between 16-bit samples and floats, at the core's full scale. A round trip preserves every 16-bit sample.
#pragma once

#include "numeric/pcm16.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace recorder {

inline float from_s16(int16_t sample) {
    return static_cast<float>(sample) / numeric::pcm16_scale;
}

inline float to_full_scale(float sample) {
    if (std::isnan(sample)) return 0.0F;
    return std::max(-1.0F, std::min(sample, 1.0F));
}

// Rounded to the nearest, where the core rounds toward zero: what was a 16-bit sample becomes the same one again.
inline int16_t to_s16(float sample) {
    return static_cast<int16_t>(std::lrintf(to_full_scale(sample) * numeric::pcm16_scale));
}

} // namespace recorder
