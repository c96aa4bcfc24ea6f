// A recording: the thread that reads the device, and what the host reads.
#pragma once

#include "audio_system.h"
#include "captured_sound.h"
#include "voice.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

namespace recorder {

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

    wrapper_audio_status read(std::size_t wanted, const captured_sound::destination& to, int32_t timeout_ms,
                              wrapper_audio_block& block);
    std::size_t take_speech(float* probabilities, std::size_t capacity);
    wrapper_audio_status stop();
    bool has_ended() const;
    wrapper_audio_recorder_info info() const;
    wrapper_audio_signal signal() const;
    failure last_failure() const;
    recorder::device device() const;

private:
    using clock = captured_sound::clock;
    using milliseconds = std::chrono::milliseconds;

    void join(std::unique_lock<std::mutex>& hold);
    void start_reader(bool takes_over);
    void run(bool takes_over) noexcept;
    void open_device(std::optional<microphone>& opened, log::scope& log, milliseconds patience);
    void begin(const microphone& opened);
    bool listen(microphone& opened, log::scope& log);
    bool may_read();
    void keep(std::span<const int16_t> pcm);
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
    std::thread watchdog_;                     // with `reconnect`
    std::condition_variable over_;             // for the watchdog: stopped, or ended
    std::optional<clock::time_point> request_; // of the reader to the device, unanswered
    uint32_t replaced_readers_ = 0;            // which still hang
    bool ended_ = false;
    bool stop_requested_ = false;
    bool stopped_ = false;
    bool thread_gone_ = false;
    bool left_behind_ = false;
    failure ended_by_;
    failure lost_by_; // the device, the last time
    recorder::device device_;
    wrapper_audio_recorder_info info_{};
    std::optional<captured_sound> sound_;          // once a device has opened
    std::optional<clock::time_point> waits_since_; // the host, for the device
};

} // namespace recorder
