/**
 * Text from outside, such as device names, on its way to the terminal.
 */
#ifndef TEXT_H
#define TEXT_H

#include <string>

/** With a question mark for every control character and every byte that the user's locale cannot show. */
std::string printable(const std::string& text);

/** The same, with its line feeds. */
std::string printable_lines(const std::string& text);

/** How many columns a printable text takes. */
int columns(const std::string& text);

#endif
