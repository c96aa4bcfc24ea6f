// The list of devices, and finding the one that a person means.
#include "with_recorder.h"

#include <sstream>

using fake::device;
using fake::world;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

class device_list : public with_recorder {
protected:
    void TearDown() override {
        wrapper_audio_device_list_free(list);
        with_recorder::TearDown();
    }

    void look() {
        wrapper_audio_device_list_free(list);
        ASSERT_EQ(wrapper_audio_device_list_create(&list), WRAPPER_AUDIO_OK);
        if (recorder == nullptr) {
            EXPECT_TRUE(no_device_is_held()) << "a list holds PortAudio";
        }
    }

    const wrapper_audio_device& at(std::size_t index) const { return *wrapper_audio_device_list_get(list, index); }

    static std::string everything_of(const wrapper_audio_device& device) {
        std::ostringstream told;
        told << device.id << ", " << device.name << ", " << device.host_api << ", " << device.default_rate << " Hz, "
             << device.input_channels << " in, " << device.output_channels << " out, default " << device.is_default
             << ", denoising " << device.denoising;
        return told.str();
    }

    std::vector<std::string> ids() const {
        std::vector<std::string> all;
        for (std::size_t i = 0; i < wrapper_audio_device_list_count(list); ++i)
            all.emplace_back(at(i).id);
        return all;
    }

    struct finding {
        wrapper_audio_status status = WRAPPER_AUDIO_OK;
        std::size_t index = 99;
        std::string reason;
    };

    finding find(const char* wanted) const {
        finding result;
        char reason[1000] = "not touched";
        result.status = wrapper_audio_device_list_find(list, wanted, &result.index, reason, sizeof reason);
        result.reason = reason;
        return result;
    }

    // Which index is found, or the status.
    long found(const char* wanted) const {
        const finding result = find(wanted);
        return result.status == WRAPPER_AUDIO_OK ? static_cast<long>(result.index) : long{result.status};
    }

    // What recording with denoising does on a device of this default rate and these others.
    int32_t denoising(double rate, std::set<double> others = {}, int inputs = 1) {
        world().devices = {device{.name = "A", .rate = rate, .inputs = inputs, .rates = std::move(others)}};
        look();
        return at(0).denoising;
    }

    wrapper_audio_device_list* list = nullptr;
};

TEST_F(device_list, tells_everything_about_inputs_and_outputs) {
    world().devices = {device{.name = "Speaker", .rate = 44100.4, .inputs = 0, .outputs = 6},
                       device{.name = "Mic", .rate = 16000, .inputs = 2, .outputs = 1, .host_api = 1}};
    world().host_apis = {fake::host_api{"ALSA"}, fake::host_api{"JACK"}};
    world().default_input = 1;
    look();
    ASSERT_EQ(wrapper_audio_device_list_count(list), 2U);
    EXPECT_EQ(everything_of(at(0)), "ALSA:Speaker, Speaker, ALSA, 44100 Hz, 0 in, 6 out, default 0, denoising 0");
    EXPECT_EQ(everything_of(at(1)), "JACK:Mic, Mic, JACK, 16000 Hz, 2 in, 1 out, default 1, denoising 2");
    EXPECT_EQ(wrapper_audio_device_list_get(list, 2), nullptr);
}

TEST_F(device_list, of_no_devices_is_empty) {
    world().devices.clear();
    world().default_input = paNoDevice;
    look();
    EXPECT_EQ(wrapper_audio_device_list_count(list), 0U);
    EXPECT_EQ(wrapper_audio_device_list_get(list, 0), nullptr);
    const finding result = find("x");
    EXPECT_EQ(result.status, WRAPPER_AUDIO_NO_INPUT_DEVICE);
    EXPECT_EQ(result.reason, "there is no input device");
}

TEST_F(device_list, fails_without_an_audio_system) {
    fail_next("Pa_Initialize", paInternalError);
    list = reinterpret_cast<wrapper_audio_device_list*>(&list);
    EXPECT_EQ(wrapper_audio_device_list_create(&list), WRAPPER_AUDIO_NO_AUDIO_SYSTEM);
    EXPECT_EQ(list, nullptr);
    look();
    EXPECT_EQ(wrapper_audio_device_list_count(list), 1U);
}

TEST_F(device_list, gives_each_device_an_id_of_its_own) {
    world().devices = {device{"X"}, device{"X"}, device{"X#2"}, device{"X"}, device{.name = "X", .host_api = 1}};
    world().host_apis = {fake::host_api{"H"}, fake::host_api{"I"}};
    look();
    EXPECT_THAT(ids(), ElementsAre("H:X", "H:X#2", "H:X#2#2", "H:X#3", "I:X"));
    EXPECT_STREQ(at(1).name, "X") << "the number is part of the id alone";
}

TEST_F(device_list, has_names_for_people_and_ids_of_any_bytes) {
    const std::string latin1 = "M\xE4uschen\x1B[31m\n";
    world().devices = {device{latin1}, device{std::nullopt}, device{std::string(300, 'n')}};
    world().host_apis = {fake::host_api{"H\xFF"}};
    look();
    EXPECT_EQ(at(0).id, "H\xFF:" + latin1);
    EXPECT_STREQ(at(0).name, "M\uFFFDuschen\uFFFD[31m\uFFFD");
    EXPECT_STREQ(at(0).host_api, "H\uFFFD");
    EXPECT_STREQ(at(1).id, "H\xFF:");
    EXPECT_STREQ(at(1).name, "");
    EXPECT_EQ(at(2).name, std::string(300, 'n'));
}

TEST_F(device_list, survives_what_portaudio_does_not_know) {
    world().devices = {device{.name = "A", .host_api = 7},
                       device{.name = "B", .host_api = 1},
                       device{"C"},
                       device{.name = "D", .rate = 0.0},
                       device{.name = "E", .rate = std::nan("")},
                       device{.name = "F", .rate = 1e12},
                       device{.name = "G", .rate = 2147483646.6}};
    world().host_apis = {fake::host_api{"H"}, fake::host_api{std::nullopt}};
    world().devices[2].has_info = false;
    look();
    EXPECT_THAT(ids(), ElementsAre("?:A", ":B", "H:D", "H:E", "H:F", "H:G"));
    EXPECT_EQ(at(2).default_rate, 48000);
    EXPECT_EQ(at(3).default_rate, 48000);
    EXPECT_EQ(at(4).default_rate, 48000);
    EXPECT_EQ(at(5).default_rate, 2147483647);
}

TEST_F(device_list, prefers_a_whole_name_to_a_part_of_others) {
    world().devices = {device{.name = "pulse", .host_api = 0}, device{.name = "mic of pulse", .host_api = 1},
                       device{.name = "Yeti", .host_api = 1}, device{.name = "yeti", .host_api = 0}, device{"Mic"}};
    world().host_apis = {fake::host_api{"ALSA"}, fake::host_api{"PulseAudio"}};
    look();
    EXPECT_EQ(found("pulse"), 0);
    EXPECT_EQ(found("Pulse"), 0);
    EXPECT_EQ(found("mic"), 4);
    EXPECT_EQ(found("mic of"), 1);
    EXPECT_EQ(find("YETI").reason, "'YETI' may mean any of:\n  PulseAudio:Yeti\n  ALSA:yeti");
    EXPECT_EQ(found("ALSA:yeti"), 3);
}

TEST_F(device_list, stays_as_it_is_when_the_devices_change) {
    look();
    world().devices = {device{"Another"}};
    wrapper_audio_device_list* second = nullptr;
    ASSERT_EQ(wrapper_audio_device_list_create(&second), WRAPPER_AUDIO_OK);
    EXPECT_STREQ(at(0).id, "Host:Mic");
    EXPECT_STREQ(wrapper_audio_device_list_get(second, 0)->id, "Host:Another");
    wrapper_audio_device_list_free(second);
}

TEST_F(device_list, tells_which_devices_are_denoised_at_their_own_rate) {
    EXPECT_EQ(denoising(48000), WRAPPER_AUDIO_DENOISING_NATIVE);
    EXPECT_THAT(calls_of("Pa_IsFormatSupported"), IsEmpty()) << "nothing to ask";
    EXPECT_EQ(denoising(44100), WRAPPER_AUDIO_DENOISING_CONVERTED);
    EXPECT_EQ(denoising(44100, {48000}), WRAPPER_AUDIO_DENOISING_NATIVE);
    EXPECT_EQ(denoising(40200, {48000}), WRAPPER_AUDIO_DENOISING_NATIVE);
    EXPECT_EQ(denoising(40199, {48000}), WRAPPER_AUDIO_DENOISING_CONVERTED);
    EXPECT_EQ(denoising(47999, {48000}), WRAPPER_AUDIO_DENOISING_NATIVE);
    EXPECT_EQ(denoising(48001, {48000}), WRAPPER_AUDIO_DENOISING_CONVERTED);
    EXPECT_EQ(denoising(16000, {48000}), WRAPPER_AUDIO_DENOISING_CONVERTED);
    EXPECT_EQ(denoising(96000, {48000}), WRAPPER_AUDIO_DENOISING_CONVERTED);
    EXPECT_EQ(denoising(48000, {}, 0), WRAPPER_AUDIO_DENOISING_OFF);
    EXPECT_EQ(denoising(44100, {48000}, 0), WRAPPER_AUDIO_DENOISING_OFF);
}

TEST_F(device_list, asks_for_what_would_be_opened) {
    world().devices[0].low_latency = 0.25;
    denoising(44100);
    EXPECT_THAT(calls_of("Pa_IsFormatSupported"),
                ElementsAre("Pa_IsFormatSupported(device=0, channels=1, paFloat32, latency=0.01, rate=48000)"));
}

TEST_F(device_list, is_had_while_a_recorder_is_open) {
    record({});
    look();
    EXPECT_EQ(wrapper_audio_device_list_count(list), 1U);
}

// The end of PortAudio's last user would end the process when a JACK server has ended before.
TEST_F(device_list, leaves_portaudio_running_where_there_is_jack) {
    world().devices = {device{"A"}, device{.name = "B", .host_api = 1}};
    world().host_apis = {fake::host_api{"ALSA"}, fake::host_api{.name = "JACK", .type = paJACK}};
    ASSERT_EQ(wrapper_audio_device_list_create(&list), WRAPPER_AUDIO_OK);
    EXPECT_GT(world().initialisations, 0);
    ASSERT_NO_FATAL_FAILURE(record({}, "ALSA:A"));
    ASSERT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_OK);
    EXPECT_GT(world().initialisations, 0);
    EXPECT_THAT(world().open_streams, IsEmpty()) << "devices are given back all the same";
    while (world().initialisations > 0)
        Pa_Terminate();
}

TEST_F(device_list, finds_by_an_id_or_a_part_of_it_in_any_case) {
    world().devices = {device{"Front Mic"}, device{"Rear Mic"}, device{.name = "Loud", .inputs = 0, .outputs = 2},
                       device{"Front Mic of the \u00C4rger"}, device{"Line"}};
    look();
    EXPECT_EQ(found("Host:Front Mic"), 0) << "an id wins over parts";
    EXPECT_EQ(found("host:front mic"), WRAPPER_AUDIO_AMBIGUOUS_DEVICE);
    EXPECT_EQ(found("REAR"), 1);
    EXPECT_EQ(found("rear mic"), 1);
    EXPECT_EQ(found("\u00E4rGER"), 3);
    EXPECT_EQ(found("ne"), 4);
    EXPECT_EQ(found("Mic"), WRAPPER_AUDIO_AMBIGUOUS_DEVICE);
    EXPECT_EQ(found(""), WRAPPER_AUDIO_AMBIGUOUS_DEVICE);
    EXPECT_EQ(found("Loud"), WRAPPER_AUDIO_UNKNOWN_DEVICE);
    EXPECT_EQ(found("Host:Loud"), WRAPPER_AUDIO_UNKNOWN_DEVICE) << "it cannot record";
    EXPECT_EQ(found("xyz"), WRAPPER_AUDIO_UNKNOWN_DEVICE);
}

TEST_F(device_list, tells_the_candidates_when_it_finds_none_or_several) {
    world().devices = {device{"Front"}, device{.name = "Loud", .inputs = 0}, device{"Rear \xFF"}, device{"Fritz"}};
    look();
    EXPECT_EQ(find("xyz\n").reason, "no input device matches 'xyz\uFFFD'. There are:\n"
                                    "  Host:Front\n  Host:Rear \uFFFD\n  Host:Fritz");
    EXPECT_EQ(find(":fr").reason, "':fr' may mean any of:\n  Host:Front\n  Host:Fritz");
    EXPECT_EQ(find("xyz").index, 99U);
    EXPECT_EQ(find("Front").reason, "");
}

TEST_F(device_list, cuts_a_reason_that_does_not_fit) {
    look();
    std::size_t index = 0;
    char reason[10] = "untouched";
    EXPECT_EQ(wrapper_audio_device_list_find(list, "x", &index, reason, 5), WRAPPER_AUDIO_UNKNOWN_DEVICE);
    EXPECT_STREQ(reason, "no i");
    EXPECT_STREQ(reason + 5, "ched") << "written behind the end";
    reason[0] = 'u';
    EXPECT_EQ(wrapper_audio_device_list_find(list, "x", &index, reason, 0), WRAPPER_AUDIO_UNKNOWN_DEVICE);
    EXPECT_EQ(reason[0], 'u');
    EXPECT_EQ(wrapper_audio_device_list_find(list, "x", &index, nullptr, 100), WRAPPER_AUDIO_UNKNOWN_DEVICE);
}

TEST_F(device_list, refuses_missing_arguments) {
    look();
    std::size_t index = 7;
    char reason[20] = "old";
    EXPECT_EQ(wrapper_audio_device_list_create(nullptr), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_device_list_find(nullptr, "x", &index, reason, 20), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_STREQ(reason, "");
    EXPECT_EQ(wrapper_audio_device_list_find(list, nullptr, &index, nullptr, 0), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_device_list_find(list, "x", nullptr, nullptr, 0), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_device_list_find_system(nullptr, &index), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_device_list_find_system(list, nullptr), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(index, 7U);
    EXPECT_EQ(wrapper_audio_device_list_count(nullptr), 0U);
    EXPECT_EQ(wrapper_audio_device_list_get(nullptr, 0), nullptr);
    EXPECT_EQ(wrapper_audio_device_list_get(list, SIZE_MAX), nullptr);
    wrapper_audio_device_list_free(nullptr);
}

} // namespace
