/**
 * The command line, as text and as what it asks for.
 */
#ifndef COMMAND_LINE_H
#define COMMAND_LINE_H

#include "commands.h"
#include "console.h"

#include <variant>

struct command_line {
    console::loudness loudness = console::loudness::normal;
    std::variant<devices_options, meter_options, record_options, dictate_options, process_options, doctor_options>
        command;
};

/** Fills `wanted`. Otherwise, for help, the version and mistakes, says so and returns the exit code. */
std::optional<exit_code> parse(int argc, char** argv, command_line& wanted);

#endif
