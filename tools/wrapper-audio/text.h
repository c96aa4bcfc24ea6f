/**
 * Text from outside, such as device names, on its way to the terminal.
 */
#ifndef TEXT_H
#define TEXT_H

#include <string>

/** Every byte as the Unicode character of its number, and back: a way through UTF-8 that loses no byte. */
std::string utf8_from_latin1(const std::string& bytes);
std::string latin1_from_utf8(const std::string& text);

/** With a question mark for every byte that the user's locale cannot show. */
std::string printable(const std::string& text);

/** How many columns a printable text takes. */
int columns(const std::string& text);

/** In lower case, for comparisons. */
std::string folded(const std::string& text);

#endif
