// Texts from outside, and texts handed out.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace recorder {

// With U+FFFD for every control character and every byte that is not valid UTF-8.
std::string valid_utf8(std::string_view bytes);

// In lower case, whatever the locale of the process; bytes that are not valid UTF-8 are kept.
std::string folded(std::string_view bytes);

// Copies a text into a host's memory, cut to fit and terminated. Returns the length of the whole text.
std::size_t copy_out(std::string_view from, char* text, std::size_t capacity);

} // namespace recorder
