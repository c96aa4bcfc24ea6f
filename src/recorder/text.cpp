#include "text.h"

#include <locale.h>
#include <wctype.h>

#include <algorithm>
#include <cstdint>

namespace recorder {

namespace {

struct character {
    char32_t code = 0; // 0 for a byte that is not valid UTF-8
    std::size_t length = 1;
};

// The first character of a text that is not empty, by the table of well-formed UTF-8 in the Unicode standard.
character first_character(std::string_view text) {
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) return {lead, 1};
    const std::size_t length = lead >= 0xC2 && lead < 0xE0 ? 2 : lead >= 0xE0 && lead < 0xF0 ? 3 : 4;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return {};
    char32_t code = lead & (0xFFU >> (length + 1));
    for (std::size_t at = 1; at < length; ++at) {
        if ((byte(at) & 0xC0) != 0x80) return {};
        code = code << 6 | (byte(at) & 0x3FU);
    }
    const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
    const bool surrogate = code >= 0xD800 && code < 0xE000;
    if (overlong || surrogate || code > 0x10FFFF) return {};
    return {code, length};
}

void append_utf8(std::string& text, char32_t code) {
    const auto put = [&](char32_t byte) { text += static_cast<char>(byte); };
    if (code < 0x80) {
        put(code);
    } else if (code < 0x800) {
        put(0xC0 | code >> 6);
        put(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        put(0xE0 | code >> 12);
        put(0x80 | (code >> 6 & 0x3F));
        put(0x80 | (code & 0x3F));
    } else {
        put(0xF0 | code >> 18);
        put(0x80 | (code >> 12 & 0x3F));
        put(0x80 | (code >> 6 & 0x3F));
        put(0x80 | (code & 0x3F));
    }
}

bool is_control(char32_t code) {
    return code < 0x20 || (code >= 0x7F && code < 0xA0);
}

char32_t lower(char32_t code) {
    // GCOVR_EXCL_BR_START: whichever thread comes first
    static const locale_t unicode = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    // GCOVR_EXCL_BR_STOP
    if (code < 0x80 || unicode == nullptr) return code >= 'A' && code <= 'Z' ? code + ('a' - 'A') : code;
    return static_cast<char32_t>(towlower_l(static_cast<wint_t>(code), unicode));
}

} // namespace

std::string valid_utf8(std::string_view bytes) {
    std::string text;
    while (!bytes.empty()) {
        const auto [code, length] = first_character(bytes);
        append_utf8(text, is_control(code) ? char32_t{0xFFFD} : code);
        bytes.remove_prefix(length);
    }
    return text;
}

std::string folded(std::string_view bytes) {
    std::string text;
    while (!bytes.empty()) {
        const auto [code, length] = first_character(bytes);
        if (code == 0)
            text += bytes.front();
        else
            append_utf8(text, lower(code));
        bytes.remove_prefix(length);
    }
    return text;
}

namespace {

// How many bytes at the end belong to a truncated character.
std::size_t begun_character(std::string_view text) {
    for (std::size_t back = 1; back <= std::min<std::size_t>(3, text.size()); ++back) {
        const auto byte = static_cast<unsigned char>(text[text.size() - back]);
        const std::size_t length = byte < 0xC0 ? 1 : byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
        if ((byte & 0xC0) != 0x80) return length > back ? back : 0;
    }
    return 0;
}

} // namespace

std::size_t copy_out(std::string_view from, char* text, std::size_t capacity) {
    if (text != nullptr && capacity > 0) {
        std::size_t fits = std::min(from.size(), capacity - 1);
        if (fits < from.size()) fits -= begun_character(from.substr(0, fits));
        *std::copy_n(from.begin(), fits, text) = '\0';
    }
    return from.size();
}

} // namespace recorder
