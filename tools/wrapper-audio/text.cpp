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

} // namespace

std::string utf8_from_latin1(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        if (value < 0x80) {
            text += byte;
        } else {
            text += static_cast<char>(0xC0 | (value >> 6));
            text += static_cast<char>(0x80 | (value & 0x3F));
        }
    }
    return text;
}

std::string latin1_from_utf8(const std::string& text) {
    std::string bytes;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto value = static_cast<unsigned char>(text[at]);
        if (value < 0x80 || at + 1 == text.size())
            bytes += text[at];
        else
            bytes += static_cast<char>((value & 0x03) << 6 | (static_cast<unsigned char>(text[++at]) & 0x3F));
    }
    return bytes;
}

std::string printable(const std::string& text) {
    std::string shown;
    for_each_character(text, [&](wchar_t wide, const std::string& bytes) {
        shown += wide != 0 && std::iswprint(static_cast<std::wint_t>(wide)) != 0 ? bytes : "?";
    });
    return shown;
}

void disarm(char* text, std::size_t length) {
    int to_follow = 0; // bytes of a character that has begun
    unsigned char last = 0;
    for (std::size_t at = 0; at < length; ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        const bool is_control = (byte < 0x20 && byte != '\n' && byte != '\t') || byte == 0x7F;
        const bool is_upper_control = byte >= 0x80 && byte < 0xA0 && (to_follow == 0 || last == 0xC2);
        if (is_control || is_upper_control) text[at] = '?';
        if (is_upper_control && to_follow > 0) text[at - 1] = '?';
        if (byte >= 0xC0)
            to_follow = byte < 0xE0 ? 1 : byte < 0xF0 ? 2 : 3;
        else
            to_follow = byte >= 0x80 && to_follow > 0 ? to_follow - 1 : 0;
        last = byte;
    }
}

std::string disarmed(std::string text) {
    disarm(text.data(), text.size());
    return text;
}

int columns(const std::string& text) {
    int count = 0;
    for_each_character(text, [&](wchar_t wide, const std::string&) { count += std::max(wcwidth(wide), 0); });
    return count;
}

std::string folded(const std::string& text) {
    std::string result;
    for_each_character(text, [&](wchar_t wide, const std::string& bytes) {
        char lower[16]; // MB_CUR_MAX is 6 at most
        std::mbstate_t state{};
        const auto folded_wide = static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(wide)));
        const std::size_t length = wide == 0 ? 0 : std::wcrtomb(lower, folded_wide, &state);
        result += length == 0 || length > sizeof lower ? bytes : std::string(lower, length);
    });
    return result;
}
