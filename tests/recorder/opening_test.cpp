// Which device a recorder takes, at which rate, and what is left when it does not open.
#include "with_recorder.h"

using fake::device;
using fake::world;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr wrapper_audio_recorder_options denoised{.denoise = 1.0F};

class opening : public with_recorder {
protected:
    // The device and the rate of each stream that was asked for since the last look.
    static std::vector<std::pair<int, int>> tried() {
        std::vector<std::pair<int, int>> all;
        for (const std::string& call : calls_of("Pa_OpenStream")) {
            int index = -1;
            int rate = 0;
            std::sscanf(call.c_str(), "Pa_OpenStream(device=%d", &index);
            std::sscanf(call.c_str() + call.find("rate="), "rate=%d", &rate);
            all.emplace_back(index, rate);
        }
        return all;
    }

    wrapper_audio_status open(const char* id) {
        const wrapper_audio_status status = wrapper_audio_recorder_open(recorder, id);
        if (status != WRAPPER_AUDIO_OK) {
            EXPECT_TRUE(no_device_is_held()) << "after a failed open";
            EXPECT_THAT(text(WRAPPER_AUDIO_TEXT_REASON), Not(IsEmpty()));
            EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_INVALID_STATE);
            EXPECT_EQ(read(1).status, WRAPPER_AUDIO_INVALID_STATE);
        }
        return status;
    }

    // PortAudio's table as it stands now.
    static std::vector<std::pair<const char*, double>> table() {
        std::vector<std::pair<const char*, double>> all;
        for (const PaDeviceInfo& info : world().device_infos)
            all.emplace_back(info.name, info.defaultSampleRate);
        return all;
    }

    // The table as it is when PortAudio is asked to open a stream.
    static void watch_table() {
        before_each([](const std::string& function) {
            if (function != "Pa_OpenStream") return;
            for (std::size_t i = 0; i < world().devices.size(); ++i) {
                const auto& name = world().devices[i].name;
                if (world().device_infos[i].name != (name ? name->c_str() : nullptr) ||
                    world().device_infos[i].defaultSampleRate != world().devices[i].rate)
                    world().violations.push_back("PortAudio's table is changed while a stream opens");
            }
        });
    }
};

TEST_F(opening, takes_the_default_device_for_no_id) {
    world().devices = {device{"A"}, device{"B"}, device{"C"}};
    world().default_input = 2;
    create({});
    EXPECT_EQ(open(nullptr), WRAPPER_AUDIO_OK);
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_DEVICE_ID), "Host:C");
    wrapper_audio_recorder_stop(recorder);
    EXPECT_EQ(open(""), WRAPPER_AUDIO_OK);
    EXPECT_THAT(tried(), ElementsAre(std::pair(2, 48000), std::pair(2, 48000)));
}

TEST_F(opening, takes_exactly_the_device_of_an_id) {
    world().devices = {device{"X"}, device{.name = "X", .rate = 44100}, device{"X#2"},
                       device{.name = "X", .rate = 8000}};
    create({});
    watch_table();
    for (const char* id : {"Host:X", "Host:X#2", "Host:X#2#2", "Host:X#3"}) {
        EXPECT_EQ(open(id), WRAPPER_AUDIO_OK);
        EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_DEVICE_ID), id);
        EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), "");
        wrapper_audio_recorder_stop(recorder);
    }
    EXPECT_THAT(tried(),
                ElementsAre(std::pair(0, 48000), std::pair(1, 44100), std::pair(2, 48000), std::pair(3, 8000)));
}

TEST_F(opening, takes_a_device_with_a_name_of_any_bytes) {
    const std::string bytes = "M\xE4\xFF\x01\x1B[31m\n'\"%s%n";
    const std::string much(300, 'n');
    world().devices = {device{"A"},          device{bytes}, device{much + "1"}, device{much + "2"},
                       device{std::nullopt}, device{much},  device{much}};
    create({});
    watch_table();
    for (const std::string& id : {"Host:" + bytes, "Host:" + much + "2", "Host:" + much + "1", std::string("Host:"),
                                  "Host:" + much, "Host:" + much + "#2"}) {
        EXPECT_EQ(open(id.c_str()), WRAPPER_AUDIO_OK);
        EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_DEVICE_ID), id);
        wrapper_audio_recorder_stop(recorder);
    }
    EXPECT_THAT(tried(), ElementsAre(std::pair(1, 48000), std::pair(3, 48000), std::pair(2, 48000), std::pair(4, 48000),
                                     std::pair(5, 48000), std::pair(6, 48000)));
    EXPECT_THAT(take_log(), Not(HasSubstr("WARN"))) << "the core took the default device";
}

TEST_F(opening, says_no_more_than_that_when_the_core_would_use_another_device) {
    world().devices = {device{"A"}, device{"X: \xFF"}};
    create({});
    forget();
    EXPECT_EQ(open("Host:X: \xFF"), WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_OK);
    const auto& calls = world().journal;
    // The core searches once it has its denoiser.
    const auto at =
        static_cast<std::size_t>(std::find(calls.begin(), calls.end(), "rnnoise_create") - calls.begin()) + 1;
    ASSERT_LT(at, calls.size());
    ASSERT_EQ(calls[at], "Pa_GetDeviceCount");
    forget();
    world().faults[at] = 0;
    EXPECT_EQ(open("Host:X: \xFF"), WRAPPER_AUDIO_DEVICE_REFUSED);
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), "Host:X: \uFFFD did not open");
    EXPECT_THAT(text(WRAPPER_AUDIO_TEXT_LOG_LINE), HasSubstr("WARN"));
}

TEST_F(opening, takes_a_device_of_an_unknown_host_api) {
    world().devices = {device{"A"}, device{.name = "B", .host_api = 5}};
    record({}, "?:B");
    EXPECT_THAT(tried(), ElementsAre(std::pair(1, 48000)));
}

// The core finds a device by its name, and so a name that is made up must not be another device's.
TEST_F(opening, is_not_misled_by_names_like_those_it_makes_up) {
    world().devices = {device{"X'"}, device{"X"}, device{"X"}, device{"X''"}};
    record({}, "Host:X#2");
    EXPECT_THAT(tried(), ElementsAre(std::pair(2, 48000)));
}

TEST_F(opening, names_a_device_for_people) {
    world().devices = {device{"Mic\n\xFF"}};
    record({});
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_DEVICE_ID), "Host:Mic\n\xFF");
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_DEVICE_NAME), "Mic\uFFFD\uFFFD");
}

TEST_F(opening, leaves_portaudios_table_as_it_was) {
    world().devices = {device{.name = "X", .rate = 44100, .rates = {48000}}, device{"X"}};
    create(denoised);
    Pa_Initialize(); // so that the table stays
    const auto before = table();
    watch_table();
    EXPECT_EQ(open("Host:X"), WRAPPER_AUDIO_OK);
    EXPECT_EQ(table(), before);
    wrapper_audio_recorder_stop(recorder);
    for (const char* function : {"Pa_OpenStream", "Pa_StartStream"}) {
        world().results[function] = {paDeviceUnavailable, paDeviceUnavailable};
        EXPECT_EQ(wrapper_audio_recorder_open(recorder, "Host:X"), WRAPPER_AUDIO_DEVICE_REFUSED);
        EXPECT_EQ(table(), before) << function;
    }
    world().denoiser_refused = true;
    EXPECT_EQ(wrapper_audio_recorder_open(recorder, "Host:X"), WRAPPER_AUDIO_OUT_OF_MEMORY);
    EXPECT_EQ(table(), before);
    Pa_Terminate();
}

TEST_F(opening, is_strict_about_the_id) {
    world().devices = {device{"Front"}, device{.name = "Loud", .inputs = 0, .outputs = 2}, device{"Rear\n"}};
    create({});
    for (const char* id : {"Host:front", "Front", "Host:Fron", "Host:Front ", "Host:Front#2", " "}) {
        EXPECT_EQ(open(id), WRAPPER_AUDIO_UNKNOWN_DEVICE) << id;
        EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON),
                  "no device has the id '" + std::string(id) + "'. There are:\n  Host:Front\n  Host:Rear\uFFFD");
        EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_LOG_LINE), "");
    }
    EXPECT_EQ(open("Host:Loud"), WRAPPER_AUDIO_NOT_AN_INPUT);
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), "'Host:Loud' cannot record");
    EXPECT_THAT(tried(), IsEmpty());
    EXPECT_EQ(open("Host:Front"), WRAPPER_AUDIO_OK);
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), "") << "of an earlier failure";
}

TEST_F(opening, fails_without_a_default_device) {
    world().devices = {device{.name = "Loud", .inputs = 0}, device{"Mic"}};
    world().default_input = paNoDevice;
    create({});
    EXPECT_EQ(open(nullptr), WRAPPER_AUDIO_NO_INPUT_DEVICE);
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), "there is no default input device. There are:\n  Host:Mic");
    EXPECT_EQ(open("Host:Mic"), WRAPPER_AUDIO_OK);
}

TEST_F(opening, fails_without_an_input_device) {
    world().devices = {device{.name = "Loud", .inputs = 0}};
    create({});
    for (const char* id : {"", "Host:Loud", "Host:Mic"}) {
        EXPECT_EQ(open(id), WRAPPER_AUDIO_NO_INPUT_DEVICE) << id;
        EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), "there is no input device");
    }
}

TEST_F(opening, fails_without_an_audio_system) {
    create({});
    fail_next("Pa_Initialize", paInternalError);
    EXPECT_EQ(open(nullptr), WRAPPER_AUDIO_NO_AUDIO_SYSTEM);
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), "PortAudio does not start: " + fake::error_text(paInternalError));
    EXPECT_EQ(open(nullptr), WRAPPER_AUDIO_OK);
}

TEST_F(opening, tells_why_a_device_refuses) {
    world().devices = {device{"Mic \xFF"}};
    create({});
    for (const char* function : {"Pa_OpenStream", "Pa_StartStream"}) {
        fail_next(function, paDeviceUnavailable);
        EXPECT_EQ(open(nullptr), WRAPPER_AUDIO_DEVICE_REFUSED);
        const std::string words = fake::error_text(paDeviceUnavailable) + " (rate=48000)";
        EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), "Host:Mic \uFFFD did not open: " + words);
        EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_LOG_LINE), "[audio_wrapper] open_input_stream ОШИБКА: " + words);
        EXPECT_THAT(take_log(), HasSubstr("[audio_wrapper] open_input_stream ОШИБКА: " + words + "\n"));
    }
    EXPECT_EQ(open(nullptr), WRAPPER_AUDIO_OK);
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), "");
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_LOG_LINE), "");
}

TEST_F(opening, refuses_rates_that_cannot_be_converted) {
    create({});
    for (const double rate : {99.0, 768001.0, 0.4}) {
        world().devices = {device{.name = "A", .rate = rate}};
        EXPECT_EQ(open(nullptr), WRAPPER_AUDIO_DEVICE_REFUSED);
        EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON),
                  "the device runs at " + std::to_string(std::lround(rate)) + " Hz, which cannot be converted");
    }
    for (const double rate : {100.0, 768000.0}) {
        world().devices = {device{.name = "A", .rate = rate}};
        EXPECT_EQ(open(nullptr), WRAPPER_AUDIO_OK);
        wrapper_audio_recorder_stop(recorder);
    }
}

// ---- Rates ----

TEST_F(opening, opens_at_the_default_rate_where_nothing_is_to_be_converted) {
    world().devices = {device{.name = "A", .rate = 44100, .rates = {48000}}};
    record({.rate = 44100});
    EXPECT_THAT(tried(), ElementsAre(std::pair(0, 44100)));
    EXPECT_EQ(info().device_rate, 44100);
    EXPECT_EQ(info().rate, 44100);
    EXPECT_EQ(info().denoising, WRAPPER_AUDIO_DENOISING_OFF);
}

TEST_F(opening, opens_at_48000_for_conversion_where_the_device_can) {
    world().devices = {device{.name = "A", .rate = 44100, .rates = {48000}}, device{.name = "B", .rate = 44100},
                       device{.name = "C", .rate = 16000, .rates = {48000}}};
    for (const int rate : {16000, 48000}) {
        record({.rate = rate}, "Host:A");
        EXPECT_THAT(tried(), ElementsAre(std::pair(0, 48000)));
        EXPECT_EQ(info().rate, rate);
        EXPECT_EQ(info().denoising, WRAPPER_AUDIO_DENOISING_OFF);
        record({.rate = rate}, "Host:B");
        EXPECT_THAT(tried(), ElementsAre(std::pair(1, 44100)));
        record({.rate = rate}, "Host:C");
        EXPECT_THAT(tried(), ElementsAre(std::pair(2, 16000)));
    }
}

TEST_F(opening, opens_at_48000_for_denoising_where_the_device_can) {
    world().devices = {device{.name = "A", .rate = 44100, .rates = {48000}}};
    record(denoised);
    EXPECT_THAT(tried(), ElementsAre(std::pair(0, 48000)));
    EXPECT_EQ(info().device_rate, 48000);
    EXPECT_EQ(info().denoising, WRAPPER_AUDIO_DENOISING_NATIVE);
    record({.speech = 1});
    EXPECT_THAT(tried(), ElementsAre(std::pair(0, 48000)));
    EXPECT_EQ(info().denoising, WRAPPER_AUDIO_DENOISING_OFF) << "only its speech is looked for";
}

TEST_F(opening, falls_back_to_the_default_rate_when_48000_is_refused_after_all) {
    world().devices = {device{.name = "A", .rate = 44100, .rates = {48000}}};
    fail_next("Pa_OpenStream", paInvalidSampleRate);
    record(denoised);
    EXPECT_THAT(tried(), ElementsAre(std::pair(0, 48000), std::pair(0, 44100)));
    EXPECT_EQ(info().device_rate, 44100);
    EXPECT_EQ(info().denoising, WRAPPER_AUDIO_DENOISING_CONVERTED);
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), "");
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_LOG_LINE), "");
}

TEST_F(opening, tells_of_the_last_rate_when_both_are_refused) {
    world().devices = {device{.name = "A", .rate = 44100, .rates = {48000}}};
    world().results["Pa_OpenStream"] = {paInvalidSampleRate, paDeviceUnavailable};
    create(denoised);
    EXPECT_EQ(open(nullptr), WRAPPER_AUDIO_DEVICE_REFUSED);
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON),
              "Host:A did not open: " + fake::error_text(paDeviceUnavailable) + " (rate=44100)");
}

TEST_F(opening, converts_for_denoising_where_the_device_cannot) {
    for (const int rate : {8000, 16000, 44100, 96000, 192000}) {
        world().devices = {device{.name = "A", .rate = static_cast<double>(rate)}};
        if (rate != 44100) world().devices[0].rates = {48000};
        record(denoised);
        EXPECT_THAT(tried(), ElementsAre(std::pair(0, rate)));
        EXPECT_EQ(info().device_rate, rate);
        EXPECT_EQ(info().denoising, WRAPPER_AUDIO_DENOISING_CONVERTED);
    }
}

TEST_F(opening, asks_for_mono_floats_in_blocks_of_30_ms) {
    world().devices = {device{.name = "A", .rate = 44100, .low_latency = 0.125}};
    record({});
    read(100);
    int reads = 0;
    for (const std::string& call : calls()) {
        if (call.starts_with("Pa_OpenStream")) {
            EXPECT_EQ(call, "Pa_OpenStream(device=0, channels=1, paFloat32, latency=0.125, rate=44100, frames=1323, "
                            "paClipOff)");
        }
        if (!call.starts_with("Pa_ReadStream")) continue;
        EXPECT_EQ(call, "Pa_ReadStream(1, 1323)");
        ++reads;
    }
    EXPECT_GT(reads, 0);
}

// ---- Once more ----

TEST_F(opening, is_possible_once_at_a_time) {
    create({});
    EXPECT_EQ(read(1).status, WRAPPER_AUDIO_INVALID_STATE);
    EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_INVALID_STATE);
    EXPECT_EQ(open(nullptr), WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_INVALID_STATE);
    EXPECT_EQ(wrapper_audio_recorder_open(recorder, "Host:unknown"), WRAPPER_AUDIO_INVALID_STATE);
    EXPECT_EQ(tried().size(), 1U);
    EXPECT_EQ(read(100).status, WRAPPER_AUDIO_OK) << "it goes on all the same";
    EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_OK);
    EXPECT_TRUE(soon(no_device_is_held));
    EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_INVALID_STATE);
}

TEST_F(opening, begins_anew_after_a_stop_on_any_device) {
    world().devices = {device{"A"}, device{.name = "B", .rate = 16000}};
    microphone.sound = [](uint64_t n) { return static_cast<float>(n % 1000) / 1000.0F; };
    record({.rate = 16000, .conversion = WRAPPER_AUDIO_CONVERSION_LINEAR}, "Host:A");
    read(1000);
    wrapper_audio_recorder_stop(recorder);
    EXPECT_EQ(open("Host:B"), WRAPPER_AUDIO_OK);
    EXPECT_EQ(info().read, 0U);
    EXPECT_EQ(info().device_rate, 16000);
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_DEVICE_NAME), "B");
    const reading got = read(500);
    EXPECT_EQ(got.block.position, 0U);
    EXPECT_EQ(got.pcm, microphone.expected(0, 500));
}

TEST_F(opening, is_possible_after_the_device_failed) {
    world().devices = {device{"A"}, device{"B"}};
    microphone.fail_after(4800);
    record({}, "Host:A");
    EXPECT_EQ(read_to_end().status, WRAPPER_AUDIO_DEVICE_FAILED);
    microphone.fail_after(UINT64_MAX);
    EXPECT_EQ(open("Host:B"), WRAPPER_AUDIO_OK);
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), "");
    EXPECT_EQ(read(100).status, WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_OK);
    EXPECT_EQ(world().lost_streams, 0);
}

TEST_F(opening, that_fails_leaves_nothing_to_read) {
    record({});
    read(100);
    wrapper_audio_recorder_stop(recorder);
    EXPECT_EQ(open("Host:unknown"), WRAPPER_AUDIO_UNKNOWN_DEVICE);
    EXPECT_EQ(info().available, 0U);
    EXPECT_EQ(info().rate, 16000);
    EXPECT_EQ(open(nullptr), WRAPPER_AUDIO_OK);
}

TEST_F(opening, keeps_what_the_core_says_in_the_log) {
    record({});
    wrapper_audio_recorder_stop(recorder);
    const std::string log = take_log();
    EXPECT_THAT(log, StartsWith("[audio_wrapper] ctx_create device='Mic' (idx=0, requested='Host:Mic')"));
    EXPECT_THAT(log, HasSubstr("[audio_wrapper] open: микрофон захвачен (capture_rate=48000)\n"));
    EXPECT_THAT(log, testing::EndsWith("[audio_wrapper] Ресурсы освобождены\n"));
}

} // namespace
