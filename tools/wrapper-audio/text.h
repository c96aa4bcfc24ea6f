/**
 * Text from outside, such as device names, on its way to the terminal.
 */
#ifndef TEXT_H
#define TEXT_H

#include <cstddef>
#include <string>

/** Every byte as the Unicode character of its number, and back: a way through UTF-8 that loses no byte. */
std::string utf8_from_latin1(const std::string& bytes);
std::string latin1_from_utf8(const std::string& text);

/** With a question mark for every byte that the user's locale cannot show. */
std::string printable(const std::string& text);

/**
 * Replaces in place what a terminal obeys by question marks: control characters but line feed and tab, those from
 * U+0080 to U+009F as well. Everything else stays, whatever the locale. Signal handlers may call it.
 */
void disarm(char* text, std::size_t length);

/** The same of a copy. */
std::string disarmed(std::string text);

/** How many columns a printable text takes. */
int columns(const std::string& text);

/** In lower case, for comparisons. */
std::string folded(const std::string& text);

#endif
