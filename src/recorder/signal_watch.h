// What kind of sound a device delivers, judged by the levels of its last 2.5 s: so it is known within 3 s of the start,
// the time that a device needs to deliver its first sample included.
#pragma once

#include "wrapper_audio_recorder.h"

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace recorder {

class signal_watch {
public:
    static constexpr std::chrono::milliseconds window{2500};

    // The next 10 ms. Nobody knows what was in those that were lost, which have no samples.
    void add(float peak, uint32_t clipped, int32_t count) {
        if (count == 0) return;
        zeros_ = peak > 0.0F ? 0 : std::min(zeros_ + 1, most);
        quiet_ = peak >= hiss ? 0 : std::min(quiet_ + 1, most);
        is_heard_ = is_heard_ || quiet_ == 0;
        tenth_clipped_ += clipped;
        tenth_count_ += static_cast<uint32_t>(count);
        if (++tenth_length_ < 10) return;
        clipping_ = tenth_clipped_ * clipped_share >= tenth_count_ ? std::min(clipping_ + 10, most) : 0;
        tenth_clipped_ = tenth_count_ = 0;
        tenth_length_ = 0;
    }

    wrapper_audio_signal signal() const {
        if (zeros_ == most) return WRAPPER_AUDIO_SIGNAL_ZEROS;
        if (quiet_ == most) return WRAPPER_AUDIO_SIGNAL_HISS;
        if (clipping_ == most) return WRAPPER_AUDIO_SIGNAL_CLIPPING;
        return is_heard_ ? WRAPPER_AUDIO_SIGNAL_SOUND : WRAPPER_AUDIO_SIGNAL_UNKNOWN;
    }

private:
    static constexpr int most = window.count() / 10;
    static constexpr float hiss = 0.001F;
    // Voices clip in every period of the vocal folds, which is up to 16 ms long: so tenths of a second are judged. Loud
    // music reaches full scale too, with less than one sample in a hundred.
    static constexpr uint64_t clipped_share = 100;

    int zeros_ = 0; // 10 ms in a row, up to now
    int quiet_ = 0;
    int clipping_ = 0;
    bool is_heard_ = false;
    uint64_t tenth_clipped_ = 0;
    uint64_t tenth_count_ = 0;
    int tenth_length_ = 0;
};

} // namespace recorder
