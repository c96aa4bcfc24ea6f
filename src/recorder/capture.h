// A recording: the thread that reads the device, and the buffer that the host reads.
#pragma once

#include "aligner.h"
#include "arrival_times.h"
#include "audio_system.h"
#include "history.h"
#include "loss_watch.h"
#include "sample_buffer.h"
#include "voice.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

namespace recorder {

// Whether it makes probabilities of speech, which the denoiser does.
inline bool hears_speech(const wrapper_audio_recorder_options& options) {
    return options.denoise > 0.0F || options.speech != 0;
}

// Shared by the host's handle and the thread, which outlives the handle when the device hangs.
class capture : public std::enable_shared_from_this<capture> {
public:
    // In these options, zeros no longer stand for defaults.
    capture(const wrapper_audio_recorder_options& options, std::string device_id)
        : options_(options), device_id_(std::move(device_id)) {}
    ~capture();
    capture(const capture&) = delete;
    capture& operator=(const capture&) = delete;

    void open(); // throws a failure; STOPPED if another thread stopped it meanwhile

    // Where samples go that are read: one of these.
    struct destination {
        std::span<float> floats = {};
        std::span<float> undenoised = {}; // as many, with `floats` and if the recording keeps them
        std::span<int16_t> pcm = {};
        speech_gate* gate = nullptr;
        recorder::aligner* aligner = nullptr;
        std::size_t side = 0; // of the aligner
    };
    wrapper_audio_status read(std::size_t wanted, const destination& to, int32_t timeout_ms,
                              wrapper_audio_block& block);
    std::size_t take_speech(float* probabilities, std::size_t capacity);
    wrapper_audio_status stop();
    bool has_ended() const;
    wrapper_audio_recorder_info info() const;
    wrapper_audio_signal signal() const;
    failure last_failure() const;
    recorder::device device() const;

private:
    using clock = std::chrono::steady_clock; // CLOCK_MONOTONIC
    using milliseconds = std::chrono::milliseconds;

    void join(std::unique_lock<std::mutex>& hold);
    void start_reader(bool takes_over);
    void run(bool takes_over) noexcept;
    void open_device(std::optional<microphone>& opened, log::scope& log, milliseconds patience);
    void begin(const microphone& opened);
    bool listen(microphone& opened, log::scope& log);
    bool may_read();
    void keep(std::span<const int16_t> pcm);
    void lose(uint64_t count);
    void lose_until(clock::time_point time);
    void store();
    void flush();
    void end(failure reason);
    void lose_device(failure reason);
    bool find_device(std::optional<microphone>& opened, log::scope& log);
    bool waits_for_device();
    void watch();
    void replace_reader();
    bool is_replaced() const;
    void leave_behind();
    bool runs_ahead(bool has_room) const;
    std::optional<clock::time_point> stalls_at(bool has_limit) const; // for a read

    const wrapper_audio_recorder_options options_;
    const std::string device_id_;

    // The chain belongs to whoever holds this: the thread, or whoever ends the recording while the thread hangs.
    std::mutex chain_mutex_;
    std::unique_ptr<voice_chain> chain_;
    std::vector<float> captured_;
    std::vector<float> processed_;
    std::vector<float> undenoised_; // as many as are processed, if the options say so

    mutable std::mutex mutex_; // protects all that follows
    std::condition_variable changed_;
    std::thread thread_; // which reads the device
    std::thread::id reader_;
    std::thread watchdog_;         // with `reconnect`
    std::condition_variable over_; // for the watchdog: stopped, or ended
    bool is_reading_ = false;
    uint32_t replaced_readers_ = 0; // which still hang
    bool ended_ = false;
    bool stop_requested_ = false;
    bool stopped_ = false;
    bool thread_gone_ = false;
    bool left_behind_ = false;
    failure ended_by_;
    failure lost_by_; // the device, the last time
    recorder::device device_;
    wrapper_audio_recorder_info info_{};
    std::optional<sample_buffer> buffer_;
    std::optional<sample_buffer> undenoised_buffer_; // in step with the other: as many samples, and the same losses
    std::size_t largest_step_ = 0;                   // the most samples that come out at once, the last ones included
    history history_;
    std::optional<loss_watch> loss_watch_;
    std::optional<arrival_times> arrivals_;
    uint64_t lost_in_system_ = 0; // the device's samples
    clock::time_point began_;
    std::optional<clock::time_point> waits_since_; // for the device
    clock::time_point last_request_;               // of the thread to the device
    bool is_file_ = false;
    bool is_lost_ = false;         // the device, until it delivers again
    uint64_t captured_before_ = 0; // by the devices before the present one
    uint64_t placed_before_ = 0;   // the position of its first sample
    clock::time_point told_until_; // what came before was delivered, or lost
};

} // namespace recorder
