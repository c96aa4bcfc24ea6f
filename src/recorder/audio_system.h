// PortAudio as a table of devices, and the core's contexts on any of them.
#pragma once

#include "failure.h"
#include "log.h"
#include "wrapper_audio.h"

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace recorder {

constexpr int32_t denoiser_rate = 48000;

// PortAudio does not lock its tables or its list of streams. Whoever opens or closes holds this lock; a call into
// PortAudio that never returns holds it for ever.
class audio_system_lock {
public:
    audio_system_lock();
    // Throws AUDIO_SYSTEM_STUCK if the lock cannot be acquired in that time.
    explicit audio_system_lock(std::chrono::milliseconds patience);
    ~audio_system_lock();
    audio_system_lock(const audio_system_lock&) = delete;
    audio_system_lock& operator=(const audio_system_lock&) = delete;
};

// One initialisation of PortAudio, during which its table of devices does not change. Needs the lock at both ends.
class audio_system {
public:
    audio_system(); // throws NO_AUDIO_SYSTEM
    ~audio_system();
    audio_system(const audio_system&) = delete;
    audio_system& operator=(const audio_system&) = delete;
};

struct device {
    int index = 0; // PortAudio's
    std::string id;
    std::string name;
    std::string host_api;
    std::string alsa_name; // empty if it belongs to another audio API
    int32_t default_rate = 0;
    int32_t input_channels = 0;
    int32_t output_channels = 0;
    bool is_default = false;
    bool is_server_source = false;
    bool is_system = false; // what the computer plays
};

// The devices of an initialisation, each with a unique id.
std::vector<device> read_devices();

// Whether an input device records mono floats at 48000 Hz by itself.
bool runs_at_48000(const device& device);

// The candidates of a choice that failed, each on a line of its own.
std::string candidates(const std::vector<const device*>& devices);

// A device that records. Needs the lock at both ends of its life.
class microphone {
public:
    // Opens the device with that id, or the default one for "". It runs at its default rate if that is the best, or
    // else at 48000 Hz if the device supports it, or else at its default rate. Throws a failure.
    microphone(const std::string& id, int32_t best_rate, log::scope& log);

    const recorder::device& device() const { return device_; }
    int32_t rate() const { return rate_; }
    std::chrono::steady_clock::time_point opened_at() const { return opened_at_; }

    // Waits for the core's next block. Returns how many samples arrived. Throws DEVICE_FAILED.
    int32_t read(std::vector<int16_t>& samples, log::scope& log);

    // PortAudio 19.6 garbles the sound of JACK devices in blocks of any other length, and no other device needs one.
    static constexpr int32_t block_ms = 30;

private:
    struct release {
        void operator()(wrapper_audio_ctx* context) const { wrapper_audio_free(context); }
    };
    bool open(int32_t rate, const log::scope& log);
    bool is_gone() const;

    audio_system system_;
    recorder::device device_;
    std::unique_ptr<wrapper_audio_ctx, release> context_;
    int32_t rate_ = 0;
    std::chrono::steady_clock::time_point opened_at_; // before the first sample could come
};

} // namespace recorder
