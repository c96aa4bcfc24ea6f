// Ids come from the host's user and names from whatever is plugged in. Wherever they are shown, they are shown and no
// more: they direct no formatting, end no JSON string and overflow no buffer. In lines they stand byte for byte.
#include "fixture.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <random>
#include <string>

using fake::device;
using fake::host_api;
using fake::world;

namespace {

std::string repeated(const std::string& piece, size_t bytes) {
    std::string text;
    while (text.size() + piece.size() <= bytes)
        text += piece;
    return text;
}

std::string every_control_byte() {
    std::string text;
    for (char c = 1; c < 0x20; ++c)
        text += c;
    return text + "\x7f";
}

// None is empty, which would be the default device, and none holds a NUL, which would end it.
const std::vector<std::string>& hostile_texts() {
    static const std::vector<std::string> texts{
        "%s%s%s%s%n%n%p%x%99999999d%*d%1$s",
        "100 %",
        "'; quotes \" and ' and `",
        "back\\slash \\n \\u0041 \\",
        "\\\"",
        "\"}],\"id\":\"x",
        "name' (idx=99, requested='y') capture_rate=1 output_rate=1 denoise=1",
        "line\nfeed",
        "\n[audio_wrapper] open_input_stream ОШИБКА: forged (rate=1)\n",
        "return\rto the start",
        "\ttab\vtab\bback\fpage\a",
        every_control_byte(),
        "\x1b[31mred\x1b[2J\x1b]0;title\x07\x1b]52;c;ZWNobw==\x07",
        "\xc2\x9b[31m C1 as UTF-8",
        "\x9b[31m C1 as a byte",
        "\xff\xfe\x80 no UTF-8",
        "cut \xd0",
        "\xc0\xaf overlong, \xed\xa0\x80 surrogate, \xf4\x90\x80\x80 beyond the last",
        "\xe2\x80\xae turns text around, \xe2\x80\xa8 ends a line",
        "Микрофон 麦克风 🎤",
        repeated("n", 10000),
        repeated("\"", 10000),
        repeated("\\", 10000),
        repeated("%s%n", 10000),
        repeated("\n", 10000),
        repeated("\xd0\x9e", 10000),
        repeated("\xff", 10000),
        repeated("'", 10000),
    };
    return texts;
}

std::string random_text(std::mt19937& random) {
    std::string text(1 + random() % 300, ' ');
    std::generate(text.begin(), text.end(), [&] { return static_cast<char>(1 + random() % 255); });
    return text;
}

std::string without_control_bytes(std::string text) {
    std::erase_if(text, [](char c) { return static_cast<unsigned char>(c) < 0x20; });
    return text;
}

// Bytes as the characters of their numbers, so that JSON which is no UTF-8 can be looked into as well.
std::string as_utf8(const std::string& bytes) {
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

// gtest would take minutes to show how two texts of 10 000 lines differ.
void expect_text(const std::string& seen, const std::string& wanted) {
    if (seen == wanted) return;
    const auto at =
        static_cast<size_t>(std::mismatch(seen.begin(), seen.end(), wanted.begin(), wanted.end()).first - seen.begin());
    ADD_FAILURE() << "different from byte " << at << " on: " << testing::PrintToString(seen.substr(at, 80))
                  << "\n  instead of " << testing::PrintToString(wanted.substr(at, 80));
}

const std::string mark = "[audio_wrapper] ";

class untrusted_text : public with_fakes {
protected:
    static std::string warning(const std::string& id) {
        return mark + "WARN device_id '" + id + "' не найден, fallback на default input\n";
    }

    static std::string ctx_create(const std::string& name, int index, const std::string& id) {
        return mark + "ctx_create device='" + name + "' (idx=" + std::to_string(index) + ", requested='" + id +
               "') capture_rate=48000 output_rate=16000 denoise=0\n";
    }

    static std::string meter_open(const std::string& id, int index) {
        return mark + "meter_open device='" + id + "' (idx=" + std::to_string(index) + ") rate=48000 frames=1440\n";
    }

    static constexpr const char* opened = "[audio_wrapper] init: поток открыт (capture_rate=48000)\n";
    static constexpr const char* armed = "[audio_wrapper] arm: микрофон свободен до open (capture_rate=48000)\n";

    // What is written when each call that takes an id gets this one.
    static std::string lines_of_init(const std::string& id) {
        log();
        wrapper_audio_ctx* ctx = wrapper_audio_init(16000, 0, id.c_str());
        const std::string lines = log();
        wrapper_audio_free(ctx);
        return lines;
    }
    static std::string lines_of_arm(const std::string& id) {
        log();
        wrapper_audio_ctx* ctx = wrapper_audio_arm(16000, 0, id.c_str());
        const std::string lines = log();
        wrapper_audio_free(ctx);
        return lines;
    }
    static std::string lines_of_meter(const std::string& id) {
        log();
        wrapper_audio_meter* meter = wrapper_audio_meter_open(id.c_str());
        const std::string lines = log();
        wrapper_audio_meter_close(meter);
        return lines;
    }

    // The list as it is written, which is looked into before it is given back.
    static std::string list() {
        log();
        char* text = wrapper_audio_list_devices_json();
        const std::string copy = text;
        wrapper_audio_free_text(text);
        EXPECT_EQ(log(), mark + "list_devices: " + std::to_string(world().devices.size()) + " устройств\n");
        EXPECT_LE(copy.size(), 65535U);
        expect_text(copy, without_control_bytes(copy));
        return copy;
    }

    static void expect_lines_with_unknown(const std::string& id) {
        expect_text(lines_of_init(id), warning(id) + ctx_create("Mic", 0, id) + opened);
        expect_text(lines_of_arm(id), warning(id) + ctx_create("Mic", 0, id) + armed);
        expect_text(lines_of_meter(id), warning(id) + meter_open(id, 0));
    }

    static void expect_lines_with_name(const std::string& name) {
        world().devices = {device{name}};
        const std::string id = "Host:" + name;
        const bool found = id.size() <= 255;
        const std::string warned = found ? "" : warning(id);
        expect_text(lines_of_init(""), ctx_create(name, 0, "") + opened);
        expect_text(lines_of_init(id), warned + ctx_create(name, 0, id) + opened);
        expect_text(lines_of_arm(id), warned + ctx_create(name, 0, id) + armed);
        expect_text(lines_of_meter(id), warned + meter_open(id, 0));
    }

    // Exactly two devices come out, with their four members each and nothing smuggled in.
    static void expect_list_with(const std::string& api, const std::string& name) {
        world().host_apis = {host_api{api}, host_api{"Host"}};
        world().devices = {device{name}, device{"after", 48000, 0, 2, 1}};
        const auto json = nlohmann::json::parse(as_utf8(list()), nullptr, false);
        ASSERT_TRUE(json.is_array());
        ASSERT_EQ(json.size(), 2U);
        EXPECT_TRUE(json[0] == (nlohmann::json{{"id", as_utf8(without_control_bytes(api + ":" + name))},
                                               {"name", as_utf8(without_control_bytes(name))},
                                               {"kind", "input"},
                                               {"isDefault", true}}));
        EXPECT_EQ(json[1]["id"], "Host:after");
    }
};

TEST_F(untrusted_text, an_unknown_id_stands_in_its_lines_byte_for_byte) {
    for (const std::string& id : hostile_texts()) {
        SCOPED_TRACE(id.substr(0, 60));
        expect_lines_with_unknown(id);
    }
}

TEST_F(untrusted_text, a_device_name_and_its_id_stand_in_their_lines_byte_for_byte) {
    for (const std::string& name : hostile_texts()) {
        SCOPED_TRACE(name.substr(0, 60));
        expect_lines_with_name(name);
    }
}

TEST_F(untrusted_text, a_name_is_no_part_of_the_lines_about_failures) {
    for (const std::string& name : hostile_texts()) {
        world().devices = {device{name}};
        wrapper_audio_ctx* ctx = wrapper_audio_arm(16000, 0, nullptr);
        log();
        fail_next("Pa_OpenStream", paDeviceUnavailable);
        EXPECT_EQ(wrapper_audio_open(ctx), -1);
        EXPECT_EQ(log(), mark + "open_input_stream ОШИБКА: error -9985 (rate=48000)\n");
        wrapper_audio_free(ctx);
        log();
        fail_next("Pa_OpenStream", paDeviceUnavailable);
        EXPECT_EQ(wrapper_audio_meter_open(""), nullptr);
        EXPECT_EQ(log(), mark + "meter_open: open_input_stream ОШИБКА: error -9985\n");
    }
}

// How the header tells a host to read the numbers, whatever the name and the id hold.
TEST_F(untrusted_text, the_numbers_of_a_line_follow_its_last_quote) {
    for (const std::string& text : hostile_texts()) {
        world().devices = {device{text, 44100}};
        const std::string lines = lines_of_arm(text);
        const std::string before = "') capture_rate=";
        const auto at = lines.rfind(before);
        ASSERT_NE(at, std::string::npos);
        EXPECT_EQ(lines.substr(at), "') capture_rate=44100 output_rate=16000 denoise=0\n"
                                    "[audio_wrapper] arm: микрофон свободен до open (capture_rate=44100)\n");
    }
}

TEST_F(untrusted_text, no_name_leaves_its_string_in_the_list) {
    for (const std::string& text : hostile_texts()) {
        SCOPED_TRACE(text.substr(0, 60));
        expect_list_with("Host", text);
        expect_list_with(text.substr(0, 5000), "Mic");
        expect_list_with(text.substr(0, 5000), text.substr(0, 5000));
    }
}

// What the list lets through: all but the bytes below 32. A quote and a backslash get a backslash.
TEST_F(untrusted_text, the_list_shows_every_other_byte_as_it_is) {
    world().host_apis = {host_api{"H"}};
    for (int value = 1; value < 256; ++value) {
        const std::string byte(1, static_cast<char>(value));
        world().devices = {device{"<" + byte + ">"}};
        const std::string shown = value < 0x20 ? "" : byte == "\"" || byte == "\\" ? "\\" + byte : byte;
        EXPECT_EQ(list(), "[{\"id\":\"H:<" + shown + ">\",\"name\":\"<" + shown +
                              ">\",\"kind\":\"input\",\"isDefault\":true}]");
    }
}

TEST_F(untrusted_text, a_list_that_must_be_cut_is_cut_and_no_more) {
    for (const std::string& text : hostile_texts()) {
        for (const std::string& name : {text, repeated(text, 10000)}) {
            world().devices.assign(10, device{name});
            list();
        }
    }
}

// An id out of the list leads back to its device, unless bytes were left out of it or it is too long.
TEST_F(untrusted_text, an_id_out_of_the_list_leads_back_to_its_device) {
    for (const std::string& name : hostile_texts()) {
        world().devices = {device{"Mic"}, device{name}};
        const std::string id = "Host:" + without_control_bytes(name);
        const bool found = id == "Host:" + name && id.size() <= 255;
        expect_text(lines_of_arm(id),
                    (found ? ctx_create(name, 1, id) : warning(id) + ctx_create("Mic", 0, id)) + armed);
    }
}

TEST_F(untrusted_text, of_any_bytes_does_no_harm) {
    std::mt19937 random(8);
    for (int i = 0; i < 500; ++i) {
        SCOPED_TRACE(i);
        world().host_apis = {host_api{"Host"}};
        world().devices = {device{"Mic"}};
        expect_lines_with_unknown(random_text(random));
        expect_lines_with_name(random_text(random));
        expect_list_with(random_text(random), random_text(random));
    }
}

} // namespace
