// The sound of a recording: what the host has not read yet, and where all of it stands in time.
#pragma once

#include "aligner.h"
#include "arrival_times.h"
#include "history.h"
#include "loss_watch.h"
#include "numeric/levels.h"
#include "sample_buffer.h"

#include <chrono>
#include <optional>

namespace recorder {

// Whether it makes probabilities of speech, which the denoiser does.
inline bool hears_speech(const wrapper_audio_recorder_options& options) {
    return options.denoise > 0.0F || options.speech != 0;
}

// Not locked. Devices follow one another in it, and times without one; these count as lost.
class captured_sound {
public:
    using clock = std::chrono::steady_clock; // CLOCK_MONOTONIC

    // `delay`: of the chain from the device to here, in samples.
    captured_sound(const wrapper_audio_recorder_options& options, std::size_t delay, clock::time_point begin);

    void begin_device(int32_t rate, clock::time_point opened_at);
    void lose_device() { is_lost_ = true; }
    void lose_until(clock::time_point time); // without a device

    // What a device delivered, and then what the chain made of it.
    void add_captured(std::span<const int16_t> pcm, clock::time_point now);
    void add(std::span<const float> processed, std::span<const float> undenoised, std::span<const float> speech);

    // Whether a device that was lost has not delivered anything since.
    bool is_lost() const { return is_lost_; }
    // Whether the device runs ahead of the clock, as only a file does: it waits for room.
    bool runs_ahead(clock::time_point now);
    bool is_file() const { return is_file_; } // whether it ever did
    // For as much as comes from the device at once, and the last samples.
    bool has_room() const { return buffer_.room() >= largest_step_; }
    bool has_captured() const { return captured_ > 0; }

    // Where samples go that are read: one of these.
    struct destination {
        std::span<float> floats = {};
        std::span<float> undenoised = {}; // as many, with `floats` and if the recording keeps them
        std::span<int16_t> pcm = {};
        speech_gate* gate = nullptr;
        recorder::aligner* aligner = nullptr;
        std::size_t side = 0; // of the aligner
    };
    struct reading {
        const std::size_t wanted = 0;
        const destination& to;
        wrapper_audio_block& block;
        std::size_t done = 0;
        numeric::level_sums sums = {};
    };
    bool can_take(const destination& to) const;
    void take(reading& continued); // what there is
    void finish(reading& finished);

    std::size_t take_speech(float* probabilities, std::size_t capacity) {
        return history_.take_speech(probabilities, capacity);
    }
    void add_to(wrapper_audio_recorder_info& info) const;
    wrapper_audio_signal signal() const { return history_.signal(); }

private:
    std::size_t in_samples(int32_t ms) const;
    void lose(uint64_t count);

    const int32_t rate_;
    const std::size_t largest_step_; // the most samples that come out at once, the last ones included
    sample_buffer buffer_;
    std::optional<sample_buffer> undenoised_; // in step with the other: as many samples, and the same losses
    history history_;
    arrival_times arrivals_;
    clock::time_point told_until_; // what came before was delivered, or lost
    uint64_t captured_ = 0;        // the devices' samples
    int64_t first_sample_time_ = 0;
    bool is_lost_ = false;

    // Of the present device.
    int32_t device_rate_ = 1;
    std::optional<loss_watch> loss_watch_;
    clock::time_point began_;
    uint64_t captured_before_ = 0; // by others
    uint64_t placed_before_ = 0;   // the position of its first sample
    uint64_t lost_in_system_ = 0;  // of its samples
    bool is_file_ = false;
};

} // namespace recorder
