/**
 * Standard error: what the program says there.
 */
#ifndef CONSOLE_H
#define CONSOLE_H

#include <string>

namespace console {

enum class loudness { quiet, normal, verbose };

/** From here on --quiet and --verbose hold. With the latter the audio system's own lines are shown at once. */
void begin(loudness wanted);

bool is_quiet();
bool is_verbose();

/** Writes everything, or drops what cannot be written: there is nobody left to tell. */
void write_all(int to, const std::string& text);

/** A sentence for the user, unless he asked for quiet. */
void note(const std::string& sentence);

/** A sentence that --quiet does not silence. */
void error(const std::string& sentence);

} // namespace console

#endif
