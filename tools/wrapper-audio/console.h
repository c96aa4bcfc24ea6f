/**
 * Standard error: what the program says there itself, and what it keeps away from the user.
 *
 * PortAudio's back ends write about a hundred lines to file descriptor 2 when they look for devices, and more when a
 * device misbehaves. From begin() on that descriptor leads into memory; only this file knows the way to the user.
 */
#ifndef CONSOLE_H
#define CONSOLE_H

#include <string>
#include <vector>

namespace console {

enum class loudness { quiet, normal, verbose };

/** Takes descriptor 2 away. Whatever was written there and not shown is shown should the program crash. */
void begin(loudness wanted);

/** Gives descriptor 2 back. */
void end();

bool is_quiet();
bool is_verbose();

/** The user's standard error, which is no longer descriptor 2. */
int descriptor();

/** Writes everything, or drops what cannot be written: there is nobody left to tell. */
void write_all(int to, const std::string& text);

/** A sentence for the user, unless he asked for quiet. */
void note(const std::string& sentence);

/** A sentence that --quiet does not silence. */
void error(const std::string& sentence);

/** What was written to descriptor 2 since the last call, in whole lines. Shown at once with --verbose. */
std::string collect();

/** Shows the library's own lines, those that have not been shown yet: the reason of a failure is among them. */
void show_library_lines();

/** The lines of PortAudio's back ends, as far as they have been collected; at most a thousand. */
const std::vector<std::string>& back_end_lines();

/** Runs `action` and returns what was written to descriptor 2 meanwhile. */
template <class Action>
std::string listen_to(Action action) {
    collect();
    action();
    return collect();
}

} // namespace console

#endif
