#include "text.h"

#include <algorithm>
#include <cwchar>
#include <cwctype>

namespace {

/** Calls `on_character(wide, bytes)`, with a wide 0 for what is no character of the locale. */
template <class Action>
void for_each_character(const std::string& text, Action on_character) {
    std::mbstate_t state{};
    for (std::size_t at = 0; at < text.size();) {
        wchar_t wide = 0;
        std::size_t length = std::mbrtowc(&wide, text.data() + at, text.size() - at, &state);
        if (length == 0 || length > text.size() - at) { // a NUL, an error, or the beginning of a character
            wide = 0;
            length = 1;
            state = {};
        }
        on_character(wide, text.substr(at, length));
        at += length;
    }
}

std::string shown(const std::string& text, bool keeps_line_feeds) {
    std::string result;
    for_each_character(text, [&](wchar_t wide, const std::string& bytes) {
        const bool stays = std::iswprint(static_cast<std::wint_t>(wide)) != 0 || (wide == L'\n' && keeps_line_feeds);
        result += stays ? bytes : "?";
    });
    return result;
}

} // namespace

std::string printable(const std::string& text) {
    return shown(text, false);
}

std::string printable_lines(const std::string& text) {
    return shown(text, true);
}

int columns(const std::string& text) {
    int count = 0;
    for_each_character(text, [&](wchar_t wide, const std::string&) { count += std::max(wcwidth(wide), 0); });
    return count;
}
