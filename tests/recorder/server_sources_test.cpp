// The microphones and monitors of a sound server, as devices.
#include "sound_server.h"
#include "with_recorder.h"

#include <sstream>

using fake::device;
using fake::server;
using fake::server_source;
using fake::world;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

namespace {

class server_sources : public with_recorder {
protected:
    void SetUp() override {
        with_recorder::SetUp();
        fake::reset_server();
        server().is_there = true;
        server().sources = {server_source{"yeti"}, server_source{.name = "yeti.monitor", .is_monitor = true}};
        world().devices = {device{"default"}};
        // PortAudio lists what ALSA knows.
        before_each([](const std::string& function) {
            if (function != "Pa_Initialize") return;
            world().devices.resize(1);
            for (const auto& [name, definition] : server().devices)
                world().devices.push_back(
                    device{.name = name, .rate = 44100, .inputs = 32, .outputs = 32, .rates = {48000}});
        });
    }

    void TearDown() override {
        EXPECT_EQ(server().held, 0) << "something of libpulse's or ALSA's was not given back";
        fake::reset_server();
        with_recorder::TearDown();
    }

    static std::vector<std::string> devices() {
        wrapper_audio_device_list* list = nullptr;
        EXPECT_EQ(wrapper_audio_device_list_create(&list), WRAPPER_AUDIO_OK);
        std::vector<std::string> found;
        for (std::size_t i = 0; i < wrapper_audio_device_list_count(list); ++i) {
            const wrapper_audio_device& each = *wrapper_audio_device_list_get(list, i);
            std::ostringstream told;
            told << each.id << ", " << each.name << ", " << each.host_api << ", " << each.default_rate << " Hz, "
                 << each.input_channels << " in, " << each.output_channels << " out, denoising " << each.denoising;
            found.push_back(told.str());
        }
        wrapper_audio_device_list_free(list);
        return found;
    }

    // Without what tells nothing about the server.
    static std::vector<std::string> listed() {
        std::vector<std::string> found = devices();
        EXPECT_TRUE(found.front().starts_with("Host:default, "));
        found.erase(found.begin());
        for (std::string& each : found)
            each.resize(each.find(','));
        return found;
    }

    // The id of the one that records what the computer plays; "" where there is none.
    static std::string system() {
        wrapper_audio_device_list* list = nullptr;
        EXPECT_EQ(wrapper_audio_device_list_create(&list), WRAPPER_AUDIO_OK);
        std::size_t index = 7;
        const wrapper_audio_status status = wrapper_audio_device_list_find_system(list, &index);
        EXPECT_TRUE(status == WRAPPER_AUDIO_OK || (status == WRAPPER_AUDIO_NO_SYSTEM_SOUND && index == 7));
        const std::string id = status == WRAPPER_AUDIO_OK ? wrapper_audio_device_list_get(list, index)->id : "";
        wrapper_audio_device_list_free(list);
        return id;
    }

    static std::map<std::string, std::string> defined() { return server().devices; }
};

TEST_F(server_sources, are_devices_with_the_servers_own_names) {
    server().sources = {{.name = "alsa_input.usb-yeti", .description = "Yeti \xFF", .rate = 44100, .channels = 2},
                        {.name = "out.monitor", .description = std::nullopt, .is_monitor = true}};
    EXPECT_THAT(devices(),
                ElementsAre("Host:default, default, Host, 48000 Hz, 1 in, 0 out, denoising 1",
                            "PulseAudio:alsa_input.usb-yeti, Yeti \uFFFD, PulseAudio, 44100 Hz, 2 in, 0 out, "
                            "denoising 2",
                            "PulseAudio:out.monitor, out.monitor, PulseAudio, 48000 Hz, 1 in, 0 out, "
                            "denoising 1"));
    EXPECT_THAT(defined(), ElementsAre(Pair("server_source_0", "pulse device=alsa_input.usb-yeti"),
                                       Pair("server_source_1", "pulse device=out.monitor")));
}

TEST_F(server_sources, tell_the_name_of_their_server) {
    server().name = "PulseAudio (on PipeWire 0.3.65)";
    EXPECT_THAT(listed(), ElementsAre("PipeWire:yeti", "PipeWire:yeti.monitor"));
}

TEST_F(server_sources, are_pulseaudios_where_the_server_does_not_say) {
    server().name = std::nullopt;
    EXPECT_THAT(listed(), ElementsAre("PulseAudio:yeti", "PulseAudio:yeti.monitor"));
    server().failing = {"server info"};
    EXPECT_THAT(listed(), ElementsAre("PulseAudio:yeti", "PulseAudio:yeti.monitor"));
}

TEST_F(server_sources, tell_which_of_them_records_what_the_computer_plays) {
    server().sources = {server_source{"hdmi"},
                        {.name = "hdmi.monitor", .is_monitor = true},
                        {.name = "heard", .is_monitor = true, .output = "speakers"}};
    server().default_output = "speakers";
    EXPECT_EQ(system(), "PulseAudio:heard");
    server().name = "PulseAudio (on PipeWire 1.4.2)";
    server().default_output = "hdmi";
    EXPECT_EQ(system(), "PipeWire:hdmi.monitor");
}

TEST_F(server_sources, may_all_record_something_else) {
    for (const auto& output : {std::optional<std::string>("usb"), std::optional<std::string>()}) {
        server().default_output = output;
        EXPECT_EQ(system(), "");
    }
    server().default_output = "yeti";
    server().sources = {server_source{"yeti"}, {.name = "monitor", .is_monitor = true, .output = std::nullopt}};
    EXPECT_EQ(system(), "");
    server().failing = {"server info"};
    EXPECT_EQ(system(), "");
    server().is_there = false;
    EXPECT_EQ(system(), "");
}

TEST_F(server_sources, record_at_the_servers_rate) {
    server().sources = {{.name = "headset", .rate = 16000}};
    world().default_input = 0;
    ASSERT_NO_FATAL_FAILURE(record({.rate = 48000, .denoise = 1.0F}, "PulseAudio:headset"));
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_DEVICE_ID), "PulseAudio:headset");
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_DEVICE_NAME), "headset");
    EXPECT_EQ(info().device_rate, 16000) << "the server would convert to 48000 Hz";
    EXPECT_EQ(info().denoising, WRAPPER_AUDIO_DENOISING_CONVERTED);
    EXPECT_EQ(read(480).status, WRAPPER_AUDIO_OK);
}

TEST_F(server_sources, come_and_go_with_each_look) {
    EXPECT_THAT(listed(), ElementsAre("PulseAudio:yeti", "PulseAudio:yeti.monitor"));
    server().sources = {server_source{"headset"}};
    EXPECT_THAT(listed(), ElementsAre("PulseAudio:headset"));
    EXPECT_THAT(defined(), ElementsAre(Pair("server_source_0", "pulse device=headset")));
    server().is_there = false;
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_THAT(defined(), IsEmpty());
}

TEST_F(server_sources, stay_while_portaudio_runs) {
    ASSERT_NO_FATAL_FAILURE(record({}, "PulseAudio:yeti"));
    server().sources = {server_source{"headset"}};
    EXPECT_THAT(listed(), ElementsAre("PulseAudio:yeti", "PulseAudio:yeti.monitor"))
        << "PortAudio's own list has not changed";
    ASSERT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_OK);
    EXPECT_THAT(listed(), ElementsAre("PulseAudio:headset"));
}

TEST_F(server_sources, are_read_again_after_portaudio_did_not_start) {
    fail_next("Pa_Initialize", paInternalError);
    wrapper_audio_device_list* list = nullptr;
    EXPECT_EQ(wrapper_audio_device_list_create(&list), WRAPPER_AUDIO_NO_AUDIO_SYSTEM);
    server().sources = {server_source{"headset"}};
    EXPECT_THAT(listed(), ElementsAre("PulseAudio:headset"));
}

TEST_F(server_sources, are_microphones_alone_where_alsa_has_pipewires_plug_in_only) {
    server().name = "PulseAudio (on PipeWire 1.4.2)";
    server().plugins = {"pipewire"};
    EXPECT_THAT(listed(), ElementsAre("PipeWire:yeti"));
    EXPECT_THAT(defined(), ElementsAre(Pair("server_source_0", "pipewire capture_node=yeti")));
}

TEST_F(server_sources, of_pulseaudio_are_none_where_alsa_lacks_its_plug_in) {
    server().plugins = {"pipewire"};
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_THAT(defined(), IsEmpty());
}

TEST_F(server_sources, are_none_where_nobody_answers) {
    server().is_there = false;
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_THAT(server().opened, IsEmpty());
    server().is_there = true;
    for (const char* step : {"pa_mainloop_new", "pa_context_new", "login", "snd_config_update"}) {
        SCOPED_TRACE(step);
        server().failing = {step};
        EXPECT_THAT(listed(), IsEmpty());
    }
}

TEST_F(server_sources, are_none_where_the_server_hangs_up_or_refuses) {
    server().hangs_up = true;
    EXPECT_THAT(listed(), IsEmpty());
    server().hangs_up = false;
    server().refuses_lists = true;
    server().sources.clear();
    EXPECT_THAT(listed(), IsEmpty());
}

TEST_F(server_sources, are_waited_for_a_second_in_all) {
    using std::chrono::steady_clock;
    server().is_silent = true;
    server().each_round = [] { test_clock::skip(std::chrono::milliseconds(100)); };
    const auto begun = steady_clock::now();
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_EQ(steady_clock::now() - begun, std::chrono::milliseconds(1100));
    server().is_silent = false;
    server().failing = {"welcome"};
    EXPECT_THAT(listed(), IsEmpty());
    server().failing = {"pa_context_get_server_info", "pa_context_get_source_info_list"};
    EXPECT_THAT(listed(), IsEmpty()) << "questions that cannot be asked are not answered";
}

TEST_F(server_sources, that_alsa_does_not_take_are_left_out) {
    for (const char* function :
         {"snd_config_search", "snd_config_make_compound", "snd_config_imake_string", "snd_config_add"}) {
        SCOPED_TRACE(function);
        server().failing = {function};
        EXPECT_THAT(listed(), IsEmpty());
    }
    server().failing.clear();
    for (const int nth : {4, 5, 6}) { // of the second: its type, its source, and the device itself
        SCOPED_TRACE(nth);
        server().failing_once = {{"snd_config_add", nth}};
        EXPECT_THAT(listed(), ElementsAre("PulseAudio:yeti"));
    }
}

} // namespace
