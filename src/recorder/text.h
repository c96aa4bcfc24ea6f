// Texts from outside, and on their way out.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace recorder {

// With U+FFFD for every control character and every byte that is no UTF-8.
std::string valid_utf8(std::string_view bytes);

// In lower case, whatever the locale of the process; bytes that are no UTF-8 stay.
std::string folded(std::string_view bytes);

// Copies a text into a host's memory, cut to fit and terminated. Returns the length of the whole text.
std::size_t copy_out(std::string_view from, char* text, std::size_t capacity);

} // namespace recorder
