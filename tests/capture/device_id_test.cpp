// From a device id to a device: which one an id means, and what the journal of the search looks like.
#include "fixture.h"

#include <string>

using fake::device;
using fake::host_api;
using fake::world;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::Not;

namespace {

class device_id : public with_fakes {
protected:
    // The index of the device that an id leads to, -1 when no context could be made.
    static int chosen(const char* id) {
        log();
        wrapper_audio_ctx* ctx = wrapper_audio_arm(16000, 0, id);
        const std::string lines = world().log;
        wrapper_audio_free(ctx);
        const auto at = lines.find("(idx=");
        return at == std::string::npos ? -1 : std::stoi(lines.substr(at + 5));
    }

    static std::string warning(const std::string& id) {
        return "[audio_wrapper] WARN device_id '" + id + "' не найден, fallback на default input\n";
    }

    static bool warned() { return world().log.find("WARN") != std::string::npos; }
};

TEST_F(device_id, null_and_empty_ids_mean_the_default_input_without_a_search_or_a_message) {
    world().devices = {device{"A"}, device{"B"}, device{"C"}};
    world().default_input = 2;
    for (const char* id : {static_cast<const char*>(nullptr), ""}) {
        calls();
        EXPECT_EQ(chosen(id), 2);
        EXPECT_FALSE(warned());
        EXPECT_THAT(calls(), Not(testing::Contains("Pa_GetDeviceCount")));
    }
}

TEST_F(device_id, is_the_host_api_name_a_colon_and_the_device_name) {
    world().host_apis = {host_api{"ALSA"}, host_api{"JACK"}};
    world().devices = {device{"Mic"}, device{"Mic", 48000, 1, 0, 1}, device{"Line"}};
    EXPECT_EQ(chosen("JACK:Mic"), 1);
    EXPECT_FALSE(warned());
    EXPECT_EQ(chosen("ALSA:Line"), 2);
    EXPECT_FALSE(warned());
}

TEST_F(device_id, that_two_devices_share_means_the_first_of_them) {
    world().devices = {device{"Other"}, device{"Twin"}, device{"Twin"}};
    EXPECT_EQ(chosen("Host:Twin"), 1);
}

TEST_F(device_id, is_compared_byte_for_byte) {
    world().devices = {device{"Mic"}, device{"Камера"}};
    EXPECT_EQ(chosen("Host:Камера"), 1);
    for (const char* id : {"host:Mic", "Host:mic", "Host:Mic ", " Host:Mic", "Host:Mi", "Mic"}) {
        EXPECT_EQ(chosen(id), 0);
        EXPECT_THAT(world().log, HasSubstr(warning(id)));
    }
}

TEST_F(device_id, of_a_device_without_host_api_record_begins_with_a_question_mark) {
    world().devices = {device{"Mic"}, device{"Stray", 48000, 1, 0, 7}};
    EXPECT_EQ(chosen("?:Stray"), 1);
    EXPECT_FALSE(warned());
}

TEST_F(device_id, treats_null_names_as_empty_ones) {
    world().host_apis = {host_api{"Host"}, host_api{std::nullopt}};
    world().devices = {device{"Mic"}, device{std::nullopt}, device{"Bare", 48000, 1, 0, 1}};
    EXPECT_EQ(chosen("Host:"), 1);
    EXPECT_EQ(chosen(":Bare"), 2);
    EXPECT_FALSE(warned());
}

TEST_F(device_id, that_names_an_output_device_chooses_it_all_the_same) {
    world().devices = {device{"Mic"}, device{"Speakers", 48000, 0, 2}};
    EXPECT_EQ(chosen("Host:Speakers"), 1);
    EXPECT_FALSE(warned());
}

TEST_F(device_id, compares_only_the_first_255_bytes_of_a_long_name) {
    const std::string name(300, 'n');
    world().devices = {device{"Mic"}, device{name}};
    const std::string whole = "Host:" + name;
    EXPECT_EQ(chosen(whole.substr(0, 255).c_str()), 1);
    EXPECT_FALSE(warned());
    for (const size_t length : {size_t{254}, size_t{256}, whole.size()}) {
        EXPECT_EQ(chosen(whole.substr(0, length).c_str()), 0) << length;
        EXPECT_TRUE(warned());
    }
}

TEST_F(device_id, of_exactly_255_bytes_matches_and_of_256_never) {
    world().devices = {device{"Mic"}, device{std::string(250, 'a')}, device{std::string(251, 'b')}};
    EXPECT_EQ(chosen(("Host:" + std::string(250, 'a')).c_str()), 1);
    EXPECT_EQ(chosen(("Host:" + std::string(251, 'b')).c_str()), 0);
    EXPECT_EQ(chosen(("Host:" + std::string(250, 'b')).c_str()), 2);
}

TEST_F(device_id, skips_devices_without_information) {
    world().devices = {device{"Mic"}, device{"Twin"}, device{"Twin"}};
    world().devices[1].has_info = false;
    EXPECT_EQ(chosen("Host:Twin"), 2);
}

TEST_F(device_id, searches_in_index_order_and_stops_at_the_match) {
    world().devices = {device{"A"}, device{"B", 48000, 1, 0, 3}, device{"C"}, device{"D"}};
    wrapper_audio_ctx* ctx = wrapper_audio_arm(16000, 0, "Host:C");
    const auto journal = calls();
    wrapper_audio_free(ctx);
    const auto first = std::find(journal.begin(), journal.end(), "Pa_GetDeviceCount");
    ASSERT_NE(first, journal.end());
    EXPECT_THAT(std::vector<std::string>(first, std::find(first, journal.end(), "calloc(9600, 4)")),
                ElementsAre("Pa_GetDeviceCount", "Pa_GetDeviceInfo(0)", "Pa_GetHostApiInfo(0)", "Pa_GetDeviceInfo(1)",
                            "Pa_GetHostApiInfo(3)", "Pa_GetDeviceInfo(2)", "Pa_GetHostApiInfo(0)",
                            "Pa_GetDeviceInfo(2)"));
}

TEST_F(device_id, that_is_unknown_is_reported_and_replaced_by_the_default_input) {
    world().devices = {device{"A"}, device{"B"}};
    world().default_input = 1;
    EXPECT_EQ(chosen("Host:Z"), 1);
    EXPECT_THAT(world().log, testing::StartsWith(warning("Host:Z")));
}

TEST_F(device_id, finds_nothing_when_there_are_no_devices_or_their_count_is_an_error) {
    for (const int count : {0, -1, -10000}) {
        world().device_count = count;
        calls();
        EXPECT_EQ(chosen("Host:Mic"), 0); // the default
        EXPECT_THAT(world().log, testing::StartsWith(warning("Host:Mic")));
        EXPECT_THAT(calls(), Not(testing::Contains("Pa_GetHostApiInfo(0)")));
    }
}

TEST_F(device_id, with_format_directives_is_printed_as_it_is) {
    chosen("%s%n%d");
    EXPECT_THAT(world().log, testing::StartsWith(warning("%s%n%d")));
}

TEST_F(device_id, without_any_input_device_yields_no_context_after_the_warning) {
    world().devices.clear();
    world().default_input = paNoDevice;
    EXPECT_EQ(wrapper_audio_arm(16000, 0, "Host:Mic"), nullptr);
    EXPECT_EQ(log(), warning("Host:Mic") + "[audio_wrapper] нет устройства ввода (resolve → paNoDevice)\n");
}

} // namespace
