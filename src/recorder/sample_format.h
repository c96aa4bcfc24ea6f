// 16-bit samples and floats, at the core's full scale. Both ways keep every 16-bit sample as it is.
#pragma once

#include "numeric/pcm16.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace recorder {

inline float from_s16(int16_t sample) {
    return static_cast<float>(sample) / numeric::pcm16_scale;
}

// Rounded to the nearest, where the core rounds toward zero: what was a 16-bit sample before becomes the same one.
inline int16_t to_s16(float sample) {
    if (std::isnan(sample)) return 0;
    return static_cast<int16_t>(std::lrintf(std::clamp(sample, -1.0F, 1.0F) * numeric::pcm16_scale));
}

} // namespace recorder
