// Texts from outside: bytes of any kind, which must come out as valid UTF-8 or as they were.
#include "recorder/text.h"

#include <gmock/gmock.h>

#include <array>
#include <clocale>
#include <string>
#include <vector>

namespace {

using namespace std::string_literals;
using recorder::copy_out;
using recorder::folded;
using recorder::valid_utf8;

const std::string replacement = "\xEF\xBF\xBD"; // U+FFFD

// The Unicode standard's table of well-formed sequences: for each kind, the lowest and highest byte at each place.
struct row {
    std::size_t length;
    std::array<std::array<unsigned char, 2>, 4> bytes;
};

constexpr row well_formed[] = {
    {1, {{{0x00, 0x7F}}}},
    {2, {{{0xC2, 0xDF}, {0x80, 0xBF}}}},
    {3, {{{0xE0, 0xE0}, {0xA0, 0xBF}, {0x80, 0xBF}}}},
    {3, {{{0xE1, 0xEC}, {0x80, 0xBF}, {0x80, 0xBF}}}},
    {3, {{{0xED, 0xED}, {0x80, 0x9F}, {0x80, 0xBF}}}},
    {3, {{{0xEE, 0xEF}, {0x80, 0xBF}, {0x80, 0xBF}}}},
    {4, {{{0xF0, 0xF0}, {0x90, 0xBF}, {0x80, 0xBF}, {0x80, 0xBF}}}},
    {4, {{{0xF1, 0xF3}, {0x80, 0xBF}, {0x80, 0xBF}, {0x80, 0xBF}}}},
    {4, {{{0xF4, 0xF4}, {0x80, 0x8F}, {0x80, 0xBF}, {0x80, 0xBF}}}},
};

// The length of the character that begins here; 0 when none does.
std::size_t character_length(std::string_view bytes) {
    for (const auto& [length, ranges] : well_formed) {
        bool fits = bytes.size() >= length;
        for (std::size_t i = 0; fits && i < length; ++i) {
            const auto byte = static_cast<unsigned char>(bytes[i]);
            fits = byte >= ranges[i][0] && byte <= ranges[i][1];
        }
        if (fits) return length;
    }
    return 0;
}

bool is_control(std::string_view character) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(character[i]); };
    return (character.size() == 1 && (byte(0) < 0x20 || byte(0) == 0x7F)) ||
           (character.size() == 2 && byte(0) == 0xC2 && byte(1) < 0xA0);
}

std::string expected_utf8(std::string_view bytes) {
    std::string text;
    while (!bytes.empty()) {
        const std::size_t length = character_length(bytes);
        const auto character = bytes.substr(0, length);
        text += length == 0 || is_control(character) ? replacement : std::string(character);
        bytes.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return text;
}

std::string utf8(char32_t code) {
    const auto byte = [](char32_t bits) { return static_cast<char>(bits); };
    if (code < 0x80) return {byte(code)};
    if (code < 0x800) return {byte(0xC0 + code / 64), byte(0x80 + code % 64)};
    if (code < 0x10000) return {byte(0xE0 + code / 4096), byte(0x80 + code / 64 % 64), byte(0x80 + code % 64)};
    return {byte(0xF0 + code / 262144), byte(0x80 + code / 4096 % 64), byte(0x80 + code / 64 % 64),
            byte(0x80 + code % 64)};
}

std::string every_character() {
    std::string all;
    for (char32_t code = 0; code <= 0x10FFFF; ++code) {
        if (code < 0xD800 || code > 0xDFFF) all += utf8(code);
    }
    return all;
}

// ---- Valid UTF-8 ----

TEST(valid_utf8, keeps_every_character_but_the_control_ones) {
    std::string expected;
    for (char32_t code = 0; code <= 0x10FFFF; ++code) {
        if (code >= 0xD800 && code <= 0xDFFF) continue;
        expected += code < 0x20 || (code >= 0x7F && code < 0xA0) ? replacement : utf8(code);
    }
    EXPECT_TRUE(valid_utf8(every_character()) == expected); // too long to be printed
}

// Four bytes of each kind in each order, alone and with something behind them.
TEST(valid_utf8, follows_the_table_of_well_formed_sequences) {
    constexpr unsigned char kinds[] = {0x00, 0x1F, 0x20, 0x41, 0x7E, 0x7F, 0x80, 0x8F, 0x90, 0x9F,
                                       0xA0, 0xBF, 0xC0, 0xC1, 0xC2, 0xDF, 0xE0, 0xE1, 0xEC, 0xED,
                                       0xEE, 0xEF, 0xF0, 0xF1, 0xF3, 0xF4, 0xF5, 0xFF};
    for (const unsigned char a : kinds) {
        for (const unsigned char b : kinds) {
            for (const unsigned char c : kinds) {
                for (const unsigned char d : kinds) {
                    const char bytes[] = {static_cast<char>(a), static_cast<char>(b), static_cast<char>(c),
                                          static_cast<char>(d)};
                    const std::string_view text(bytes, 4);
                    ASSERT_EQ(valid_utf8(text), expected_utf8(text));
                }
                const char bytes[] = {static_cast<char>(a), static_cast<char>(b), static_cast<char>(c)};
                ASSERT_EQ(valid_utf8({bytes, 3}), expected_utf8({bytes, 3}));
                ASSERT_EQ(valid_utf8({bytes, 2}), expected_utf8({bytes, 2}));
                ASSERT_EQ(valid_utf8({bytes, 1}), expected_utf8({bytes, 1}));
            }
        }
    }
}

TEST(valid_utf8, by_hand) {
    EXPECT_EQ(valid_utf8(""), "");
    EXPECT_EQ(valid_utf8("Mikrofon für Grüße"), "Mikrofon für Grüße");
    EXPECT_EQ(valid_utf8("a\nb\tc\x1B[31m"), "a" + replacement + "b" + replacement + "c" + replacement + "[31m");
    EXPECT_EQ(valid_utf8("\xC0\x80"), replacement + replacement) << "overlong";
    EXPECT_EQ(valid_utf8("\xE0\x9F\xBF"), replacement + replacement + replacement) << "overlong";
    EXPECT_EQ(valid_utf8("\xED\xA0\x80"), replacement + replacement + replacement) << "surrogate";
    EXPECT_EQ(valid_utf8("\xF4\x90\x80\x80"), replacement + replacement + replacement + replacement) << "too high";
    EXPECT_EQ(valid_utf8("\xC2\x9B"), replacement) << "a control character beyond ASCII";
    EXPECT_EQ(valid_utf8("caf\xE9"), "caf" + replacement) << "Latin-1";
    EXPECT_EQ(valid_utf8("a\xE2\x82"), "a" + replacement + replacement) << "cut off";
    EXPECT_EQ(valid_utf8("a\0b"s), "a" + replacement + "b");
}

// ---- Lower case ----

TEST(folded, is_lower_case_in_every_locale) {
    for (const char* const locale : {"C", "C.UTF-8"}) {
        ASSERT_NE(std::setlocale(LC_ALL, locale), nullptr);
        EXPECT_EQ(folded("@AZ[`az{ 09"), "@az[`az{ 09");
        EXPECT_EQ(folded("GRÜẞE, ÉTÉ"), "grüße, été");
        EXPECT_EQ(folded("МИКРОФОН Ё"), "микрофон ё");
        EXPECT_EQ(folded("ΜΙΚΡΌΦΩΝΟ"), "μικρόφωνο");
        EXPECT_EQ(folded("マイク 麦克风"), "マイク 麦克风");
        EXPECT_EQ(folded("\U00010400"), "\U00010428"); // Deseret: four bytes
    }
    std::setlocale(LC_ALL, "C");
}

TEST(folded, leaves_bytes_that_are_no_utf8) {
    EXPECT_EQ(folded("CAF\xC9 \xFF\x80X"), "caf\xC9 \xFF\x80x");
    EXPECT_EQ(folded("\xED\xA0\x80Y"), "\xED\xA0\x80y");
    EXPECT_EQ(folded("A\0B"s), "a\0b"s);
    EXPECT_EQ(folded("\n\x7F\xC2\x9B"), "\n\x7F\xC2\x9B") << "control characters are no concern of it";
    EXPECT_EQ(folded(""), "");
}

TEST(folded, keeps_every_character_a_character) {
    const std::string once = folded(every_character());
    EXPECT_TRUE(folded(once) == once);
    std::size_t characters = 0;
    for (std::string_view rest = once; !rest.empty(); ++characters) {
        ASSERT_GT(character_length(rest), 0U);
        rest.remove_prefix(character_length(rest));
    }
    EXPECT_EQ(characters, 0x110000U - 0x800U);
}

// ---- Into a host's memory ----

TEST(copy_out, never_cuts_a_character) {
    const std::string text = "aä€😀 z€€߿अẞ\uFFFD\U0010FFFF!";
    for (std::size_t capacity = 1; capacity <= text.size() + 3; ++capacity) {
        std::string out(capacity + 1, '#');
        EXPECT_EQ(copy_out(text, out.data(), capacity), text.size());
        EXPECT_EQ(out[capacity], '#') << "it wrote too far";
        const std::string copied = out.substr(0, out.find('\0'));
        EXPECT_EQ(copied, text.substr(0, copied.size()));
        EXPECT_EQ(valid_utf8(copied), copied);
        // No more is cut than must be: the next character would not have fitted.
        const std::size_t next = character_length(std::string_view(text).substr(copied.size()));
        EXPECT_TRUE(copied == text || copied.size() + next + 1 > capacity) << capacity;
    }
}

TEST(copy_out, cuts_bytes_that_are_no_utf8_anywhere) {
    const std::string bytes(40, '\xA0');
    char out[21];
    EXPECT_EQ(copy_out(bytes, out, 21), 40U);
    EXPECT_EQ(out, bytes.substr(0, 20));
}

TEST(copy_out, copies_all_of_what_fits_whatever_it_is) {
    char out[6];
    for (const std::string bytes : {"caf\xE9", "\xE2\x82", "caf\xF0\x9F", "\xFF\xFF\xFF\xFF\xFF"}) {
        EXPECT_EQ(copy_out(bytes, out, sizeof out), bytes.size());
        EXPECT_EQ(out, bytes);
    }
}

TEST(copy_out, needs_no_memory_to_tell_the_length) {
    EXPECT_EQ(copy_out("abc", nullptr, 0), 3U);
    EXPECT_EQ(copy_out("abc", nullptr, 10), 3U);
    char out[] = "###";
    EXPECT_EQ(copy_out("abc", out, 0), 3U);
    EXPECT_STREQ(out, "###");
    EXPECT_EQ(copy_out("abc", out, 1), 3U);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(copy_out({}, out, 3), 0U);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(copy_out("abc", out, 4), 3U);
    EXPECT_STREQ(out, "abc");
}

} // namespace
