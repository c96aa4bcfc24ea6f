/**
 * The commands: what each may be told, and the function that does it.
 */
#ifndef COMMANDS_H
#define COMMANDS_H

#include "effects.h"
#include "failure.h"
#include "output.h"
#include "speech.h"

#include <wrapper_audio_recorder.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct devices_options {
    bool json = false;
    bool ids = false;
    bool all = false;
    bool watch = false;
};

struct meter_options {
    std::string device;
    std::optional<double> seconds;
    bool json = false;
};

/** Rate conversion and noise suppression. */
struct voice_options {
    std::optional<float> denoise; // strength
    bool must_denoise = false;
    wrapper_audio_conversion conversion = WRAPPER_AUDIO_CONVERSION_CLEAN;
};

struct record_options {
    std::string path;
    std::string device;
    bool system = false; // instead: what the computer plays
    bool both = false;   // as well, in a second channel
    int rate = 16000;
    voice_options voice;
    std::optional<double> seconds;
    std::optional<double> max_file_time; // seconds, after which another file begins
    effect_options effects;
    output_options output;
    bool fill_gaps = false;
    bool reconnect = false;
    bool split_gaps = false; // where the device was away another file begins
    std::string undenoised;  // a second file; "" is none
    speech_options speech;
    bool for_a_command = false; // nothing is said on standard output, and nobody_spoke is a result
};

/** One utterance, which a command is given. */
struct dictate_options {
    record_options recording; // without a path: into a temporary file
    std::vector<std::string> command;
};

constexpr int mixed_channels = 0;
constexpr int every_channel = -1;

struct process_options {
    std::string in;
    std::string out;
    std::optional<int> raw_rate; // of the input, which has no header then
    int raw_channels = 1;
    sample_size raw_bits = sample_size::bits_16;
    int channel = mixed_channels; // counted from 1
    std::optional<int> rate;
    voice_options voice;
    effect_options effects;
    std::optional<float> loudness; // in LUFS
    output_options output;
    speech_options speech;
};

struct doctor_options {
    std::string device;
};

exit_code list_devices(const devices_options& wanted);
exit_code show_meter(const meter_options& wanted);
exit_code record(const record_options& wanted);
/** At most so many samples of each side. */
exit_code record_both(const record_options& wanted, std::uint64_t limit);
/** Returns the exit code of the command. */
int dictate(const dictate_options& wanted);
exit_code process(const process_options& wanted);
exit_code examine(const doctor_options& wanted);

/** Prints a result on standard output. Throws a failure when it cannot be written. */
void print(const std::string& text);

#endif
