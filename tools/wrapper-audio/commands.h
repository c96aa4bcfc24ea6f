/**
 * The commands: what each may be told, and the function that does it.
 */
#ifndef COMMANDS_H
#define COMMANDS_H

#include "effects.h"
#include "failure.h"

#include <optional>
#include <string>

struct devices_options {
    bool json = false;
    bool ids = false;
    bool all = false;
};

struct meter_options {
    std::string device;
    std::optional<double> seconds;
};

struct record_options {
    std::string path;
    std::string device;
    int rate = 16000;
    bool denoise = false;
    std::optional<double> seconds;
    std::optional<int> block_ms;
    effect_options effects;
};

struct process_options {
    std::string in;
    std::string out;
    std::optional<int> rate;
    effect_options effects;
};

struct doctor_options {
    std::string device;
};

exit_code list_devices(const devices_options& wanted);
exit_code show_meter(const meter_options& wanted);
exit_code record(const record_options& wanted);
exit_code process(const process_options& wanted);
exit_code examine(const doctor_options& wanted);

/** Prints a result on standard output. Throws a failure when it cannot be written. */
void print(const std::string& text);

#endif
