/**
 * What happens while sound comes in, one JSON object per line, for status bars and scripts.
 */
#ifndef EVENTS_H
#define EVENTS_H

#include "level.h"

#include <wrapper_audio_recorder.h>

#include <cstdint>
#include <span>
#include <string>

class event_log {
public:
    /** Into the file, or standard output for "-"; "" is for nobody. Throws a failure when the file cannot be created. */
    event_log(const std::string& path, int rate);
    event_log(const event_log&) = delete;
    event_log& operator=(const event_log&) = delete;
    ~event_log();

    /** Positions are in samples since the beginning. */
    void speech(bool starts, std::uint64_t position);
    void dropped(std::uint64_t position, std::uint64_t samples);
    void device_lost(std::uint64_t position, const std::string& reason);
    void device_back(std::uint64_t position);

    /** What the input delivers. It is said when it changes. */
    void signal(std::uint64_t position, wrapper_audio_signal now);

    /** Says the level of each tenth of a second. */
    void listen(std::uint64_t position, std::span<const float> samples);

    /** Whether something could not be written. It is said once; the recording goes on. */
    bool failed() const { return failed_; }

private:
    void write(const char* event, std::uint64_t position, const std::string& rest = "");

    const int rate_;
    const std::string name_;
    int descriptor_ = -1;
    level level_;
    wrapper_audio_signal signal_ = WRAPPER_AUDIO_SIGNAL_UNKNOWN;
    bool failed_ = false;
};

#endif
