// The device list as text, its bounds to the byte, and the capability query.
#include "fixture.h"

#include <nlohmann/json.hpp>

#include <cstring>
#include <string>

using fake::device;
using fake::host_api;
using fake::world;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class device_list : public with_fakes {
protected:
    static std::string list() {
        char* text = wrapper_audio_list_devices_json();
        std::string copy = text;
        wrapper_audio_free_text(text);
        return copy;
    }

    static std::string list_with_name(const std::string& name) {
        world().devices = {device{name}};
        return list();
    }
};

constexpr const char* example = R"([{"id":"Host:Mic 1","name":"Mic 1","kind":"input","isDefault":true},)"
                                R"({"id":"Host:Speakers","name":"Speakers","kind":"output","isDefault":false}])";

TEST_F(device_list, is_a_json_array_without_white_space) {
    world().devices = {device{"Mic 1"}, device{"Speakers", 48000, 0, 2}};
    EXPECT_EQ(list(), example);
    EXPECT_EQ(log(), "[audio_wrapper] list_devices: 2 устройств\n");
}

TEST_F(device_list, asks_in_this_order) {
    world().devices = {device{"Mic 1"}, device{"Speakers", 48000, 0, 2, 5}};
    char* text = wrapper_audio_list_devices_json();
    EXPECT_THAT(calls(), ElementsAre("malloc(65536)", "lock", "Pa_Initialize", "unlock", "Pa_GetDeviceCount",
                                     "Pa_GetDefaultInputDevice", "Pa_GetDeviceInfo(0)", "Pa_GetHostApiInfo(0)",
                                     "Pa_GetDeviceInfo(1)", "Pa_GetHostApiInfo(5)", "lock", "Pa_Terminate", "unlock",
                                     "log [audio_wrapper] list_devices: 2 устройств"));
    EXPECT_EQ(world().initialisations, 0);
    wrapper_audio_free_text(text);
    EXPECT_THAT(calls(), ElementsAre("free(65536)"));
}

TEST_F(device_list, of_a_machine_without_devices_is_empty_and_the_count_is_logged_as_it_came) {
    for (const int count : {0, -1, -9996}) {
        world().device_count = count;
        EXPECT_EQ(list(), "[]");
        EXPECT_EQ(log(), "[audio_wrapper] list_devices: " + std::to_string(count) + " устройств\n");
    }
}

TEST_F(device_list, is_empty_and_silent_when_portaudio_does_not_start) {
    fail_next("Pa_Initialize", paInternalError);
    EXPECT_EQ(list(), "[]");
    EXPECT_THAT(calls(), ElementsAre("malloc(65536)", "lock", "Pa_Initialize", "unlock", "free(65536)"));
}

TEST_F(device_list, is_null_without_memory_before_anything_else) {
    world().failing_allocations = {1};
    EXPECT_EQ(wrapper_audio_list_devices_json(), nullptr);
    EXPECT_THAT(calls(), ElementsAre("malloc(65536)"));
}

TEST_F(device_list, leaves_out_devices_without_information_and_their_commas) {
    world().devices = {device{"A"}, device{"B"}, device{"C"}, device{"D"}};
    world().devices[0].has_info = false;
    world().devices[2].has_info = false;
    world().default_input = paNoDevice;
    EXPECT_EQ(list(), R"([{"id":"Host:B","name":"B","kind":"input","isDefault":false},)"
                      R"({"id":"Host:D","name":"D","kind":"input","isDefault":false}])");
    EXPECT_EQ(log(), "[audio_wrapper] list_devices: 4 устройств\n");
}

TEST_F(device_list, marks_exactly_the_default_input) {
    world().devices = {device{"A"}, device{"B"}, device{"C"}};
    for (const int chosen : {-1, 0, 1, 2}) {
        world().default_input = chosen;
        const auto json = nlohmann::json::parse(list());
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(json[static_cast<size_t>(i)]["isDefault"], i == chosen);
    }
}

TEST_F(device_list, tells_the_kind_by_input_channels_alone) {
    world().devices = {device{"both", 48000, 2, 2}, device{"none", 48000, 0, 0}, device{"out", 48000, 0, 8},
                       device{"in", 48000, 1, 0}, device{"odd", 48000, -1, 0}};
    std::vector<std::string> kinds;
    for (const auto& entry : nlohmann::json::parse(list()))
        kinds.push_back(entry["kind"]);
    EXPECT_THAT(kinds, ElementsAre("input", "output", "output", "input", "output"));
}

TEST_F(device_list, escapes_quotes_and_backslashes_and_drops_control_bytes) {
    world().host_apis = {host_api{"H\"\\\n"}};
    std::string controls;
    for (char c = 1; c < 0x20; ++c)
        controls += c;
    world().devices = {device{"a\"b\\c\td" + controls + "\x7f Микрофон \xff"}};
    EXPECT_EQ(list(),
              "[{\"id\":\"H\\\"\\\\:a\\\"b\\\\cd\x7f Микрофон \xff\",\"name\":\"a\\\"b\\\\cd\x7f Микрофон \xff\","
              "\"kind\":\"input\",\"isDefault\":true}]");
}

TEST_F(device_list, has_ids_for_devices_without_host_api_record_or_names) {
    world().host_apis = {host_api{"Host"}, host_api{std::nullopt}};
    world().devices = {device{"Stray", 48000, 1, 0, 9}, device{std::nullopt}, device{"Bare", 48000, 1, 0, 1},
                       device{""}};
    world().default_input = paNoDevice;
    EXPECT_EQ(list(), R"([{"id":"?:Stray","name":"Stray","kind":"input","isDefault":false},)"
                      R"({"id":"Host:","name":"","kind":"input","isDefault":false},)"
                      R"({"id":":Bare","name":"Bare","kind":"input","isDefault":false},)"
                      R"({"id":"Host:","name":"","kind":"input","isDefault":false}])");
}

TEST_F(device_list, gives_ids_that_lead_back_to_their_devices) {
    world().host_apis = {host_api{"ALSA"}, host_api{"J\"A\\CK"}, host_api{std::nullopt}};
    world().devices = {device{"Mic"},
                       device{"q\"uote\\"},
                       device{std::nullopt},
                       device{"Микрофон"},
                       device{"x", 48000, 1, 0, 1},
                       device{"y", 48000, 1, 0, 2},
                       device{"z", 48000, 1, 0, 3},
                       device{"%s%d"}};
    const auto json = nlohmann::json::parse(list());
    ASSERT_EQ(json.size(), world().devices.size());
    for (size_t i = 0; i < json.size(); ++i) {
        log();
        wrapper_audio_ctx* ctx = wrapper_audio_arm(16000, 0, json[i]["id"].get<std::string>().c_str());
        EXPECT_THAT(world().log, HasSubstr("(idx=" + std::to_string(i) + ","));
        EXPECT_THAT(world().log, testing::Not(HasSubstr("WARN")));
        wrapper_audio_free(ctx);
    }
}

TEST_F(device_list, gives_an_id_that_does_not_lead_back_when_the_name_holds_a_control_byte) {
    world().devices = {device{"Mic"}, device{"tab\tbed"}};
    const auto json = nlohmann::json::parse(list());
    EXPECT_EQ(json[1]["id"], "Host:tabbed");
    wrapper_audio_free(wrapper_audio_arm(16000, 0, "Host:tabbed"));
    EXPECT_THAT(world().log, HasSubstr("WARN device_id 'Host:tabbed'"));
    EXPECT_THAT(world().log, HasSubstr("(idx=0,"));
}

// ---- The limit of 65535 bytes ----

constexpr size_t limit = 65535;
const std::string head = R"([{"id":"Host:)"; // before the name in the id
const std::string middle = R"(","name":")";  // between the two names
const std::string tail = R"(","kind":"input","isDefault":true}])";

TEST_F(device_list, fills_its_block_to_the_last_byte) {
    const size_t room = limit - head.size() - middle.size() - tail.size();
    // Twice the name, and one byte in the host API's name to even the number out.
    const std::string api = room % 2 == 0 ? "Host" : "Hosts";
    world().host_apis = {host_api{api}};
    const std::string text = list_with_name(std::string(room / 2, 'x'));
    EXPECT_EQ(text.size(), limit);
    EXPECT_EQ(nlohmann::json::parse(text)[0]["name"].get<std::string>().size(), room / 2);
}

TEST_F(device_list, loses_its_last_bracket_first) {
    const size_t room = limit - head.size() - middle.size() - tail.size();
    const std::string api = room % 2 == 0 ? "Hosts" : "Hosts!"; // one byte more than fits
    world().host_apis = {host_api{api}};
    const std::string text = list_with_name(std::string(room / 2, 'x'));
    EXPECT_EQ(text.size(), limit);
    EXPECT_THAT(text, testing::EndsWith(R"("isDefault":true})"));
}

TEST_F(device_list, cuts_a_name_one_byte_early_and_fills_the_byte_with_the_next_piece) {
    // The name in the id runs into the limit: names stop at 65534 bytes, the quote behind takes the last.
    const std::string text = list_with_name(std::string(70000, 'x'));
    EXPECT_EQ(text, head + std::string(limit - 1 - head.size(), 'x') + "\"");
    EXPECT_EQ(log(), "[audio_wrapper] list_devices: 1 устройств\n");
}

TEST_F(device_list, at_65533_bytes_one_more_byte_of_a_name_or_one_escape_fits) {
    // The first name ends the text at 65533 bytes less the middle piece, so that the second name starts at 65533.
    const size_t length = limit - 2 - head.size() - middle.size();
    for (const auto& [first, end] : std::vector<std::pair<std::string, std::string>>{
             {"a", "a\""}, {"\"", "\\\""}, {"\\", "\\\\"}, {"\t\n\"", "\\\""}, {"\ta", "a\""}}) {
        size_t shown = 0;
        for (const char c : first)
            shown += c < ' ' ? 0 : (c == '"' || c == '\\') ? 2 : 1;
        const std::string text = list_with_name(first + std::string(length - shown, 'x'));
        ASSERT_EQ(text.size(), limit);
        EXPECT_EQ(text.substr(limit - 2), end);
    }
}

TEST_F(device_list, at_65534_bytes_a_name_writes_nothing_and_the_next_piece_one_byte) {
    const size_t length = limit - 1 - head.size() - middle.size();
    for (const std::string first : {"a", "\"", "\t"}) {
        const size_t shown = first == "a" ? 1 : first == "\"" ? 2 : 0;
        const std::string text = list_with_name(first + std::string(length - shown, 'x'));
        ASSERT_EQ(text.size(), limit);
        EXPECT_EQ(text.substr(limit - 1 - middle.size()), middle + "\"");
    }
}

TEST_F(device_list, at_65534_bytes_after_a_host_api_the_colon_still_lands) {
    world().host_apis = {host_api{std::string(70000, 'h')}};
    const std::string text = list_with_name("x");
    const std::string start = R"([{"id":")";
    EXPECT_EQ(text, start + std::string(limit - 1 - start.size(), 'h') + ":");
}

TEST_F(device_list, keeps_trying_later_devices_and_never_exceeds_the_limit) {
    world().devices.assign(2000, device{std::string(100, 'n')});
    char* text = wrapper_audio_list_devices_json();
    EXPECT_EQ(std::strlen(text), limit);
    EXPECT_EQ(calls().size(), 2 * 2000 + 10U); // every device was looked at
    wrapper_audio_free_text(text);
    EXPECT_EQ(log(), "[audio_wrapper] list_devices: 2000 устройств\n");
}

TEST_F(device_list, free_text_accepts_null) {
    wrapper_audio_free_text(nullptr);
    EXPECT_THAT(calls(), testing::IsEmpty());
}

// ---- Capabilities ----

class capabilities : public with_fakes {};

TEST_F(capabilities, are_0_when_portaudio_does_not_start) {
    fail_next("Pa_Initialize", paInternalError);
    EXPECT_EQ(wrapper_audio_capabilities(), 0);
    fail_next("Pa_Initialize", 1); // anything but no error
    EXPECT_EQ(wrapper_audio_capabilities(), 0);
    calls();
    fail_next("Pa_Initialize", paInternalError);
    EXPECT_EQ(wrapper_audio_capabilities(), 0);
    EXPECT_THAT(calls(), ElementsAre("lock", "Pa_Initialize", "unlock"));
}

TEST_F(capabilities, are_1_when_no_device_can_capture) {
    for (const auto& devices : std::vector<std::vector<device>>{
             {}, {device{"out", 48000, 0, 2}}, {device{"odd", 48000, -1}, device{"none", 48000, 0}}}) {
        world().devices = devices;
        EXPECT_EQ(wrapper_audio_capabilities(), 1);
    }
    world().devices = {device{}};
    world().devices[0].has_info = false;
    EXPECT_EQ(wrapper_audio_capabilities(), 1);
    world().devices[0].has_info = true;
    world().device_count = -5;
    EXPECT_EQ(wrapper_audio_capabilities(), 1);
    EXPECT_EQ(log(), "");
}

TEST_F(capabilities, are_3_as_soon_as_one_device_can) {
    world().devices = {device{"out", 48000, 0, 2}, device{"hidden"}, device{"in"}, device{"more"}};
    world().devices[1].has_info = false;
    EXPECT_EQ(wrapper_audio_capabilities(), 3);
    EXPECT_THAT(calls(), ElementsAre("lock", "Pa_Initialize", "unlock", "Pa_GetDeviceCount", "Pa_GetDeviceInfo(0)",
                                     "Pa_GetDeviceInfo(1)", "Pa_GetDeviceInfo(2)", "lock", "Pa_Terminate", "unlock"));
}

} // namespace
