// What is known about each 10 ms of a recording: its level as captured, and whether it is speech.
#pragma once

#include "signal_watch.h"
#include "speech_gate.h"
#include "wrapper_audio_recorder.h"

#include <cmath>
#include <cstdint>
#include <span>
#include <vector>

namespace recorder {

inline uint64_t divided_up(uint64_t a, uint64_t b) {
    return a / b + (a % b != 0 ? 1 : 0);
}

inline float root_mean_square(double squares, uint64_t count) {
    return count == 0 ? 0.0F : static_cast<float>(std::sqrt(squares / static_cast<double>(count)));
}

// What the device delivered in some time.
struct captured_levels {
    float peak = 0.0F;
    double squares = 0.0;
    int32_t count = 0;
    uint32_t clipped = 0;
};

// Levels and probabilities of speech for each 10 ms of the recording, as long as they may be needed. Not locked.
class history {
public:
    history() = default;
    history(std::size_t length, bool hears_speech) : levels_(length), speech_(hears_speech ? length : 0) {}

    // What follows comes from a device at this rate.
    void begin(int32_t device_rate);
    // Without a device: nothing is known of the time until then, in units of 10 ms.
    void skip_to(uint64_t end);

    void add_captured(std::span<const int16_t> pcm);
    void add_speech(std::span<const float> probabilities);
    void add_lost(uint64_t count); // of the device's samples: silence

    // Reports what began since the last call and before `end`, in units of 10 ms.
    void report(uint64_t end, wrapper_audio_block& block);

    // Of what was reported.
    wrapper_audio_signal signal() const { return signal_watch_.signal(); }

    // Takes the probabilities of what was reported, oldest first.
    std::size_t take_speech(float* probabilities, std::size_t capacity);

    // Adds what the gate does not have yet of the probabilities of what was reported; 0.0 for those no longer kept.
    void add_speech_to(speech_gate& gate) const;

private:
    uint64_t known() const { return begin_ + divided_up(captured_ * 100, static_cast<uint64_t>(rate_)); }
    void pad_speech(uint64_t count);

    int32_t rate_ = 1;
    std::vector<captured_levels> levels_; // rings
    std::vector<float> speech_;
    captured_levels last_;
    signal_watch signal_watch_;
    uint64_t begin_ = 0;    // of the present device's sound, in units of 10 ms
    uint64_t captured_ = 0; // of it
    uint64_t speech_count_ = 0;
    uint64_t reported_ = 0;
    uint64_t speech_taken_ = 0;
};

} // namespace recorder
