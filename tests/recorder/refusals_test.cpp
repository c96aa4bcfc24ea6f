// Why a device does not open or fails, as far as ALSA says so.
#include "sound_server.h"
#include "with_recorder.h"

#include <cerrno>

using fake::device;
using fake::server;
using fake::world;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

struct answer {
    int alsas;
    wrapper_audio_status status;
    const char* sentence;
};

constexpr const char* busy = "another program is using the device";
constexpr const char* forbidden = "this user may not use the device";
constexpr const char* gone = "the device is not there any more";

class refusals : public with_recorder {
protected:
    void SetUp() override {
        with_recorder::SetUp();
        fake::reset_server();
        world().host_apis = {{.name = "ALSA"}, {.name = "OSS", .type = paOSS}};
    }

    void TearDown() override {
        EXPECT_EQ(server().held, 0) << "something of ALSA's was not given back";
        fake::reset_server();
        with_recorder::TearDown();
    }

    wrapper_audio_status open(const char* id = nullptr) {
        server().opened.clear();
        const wrapper_audio_status status = wrapper_audio_recorder_open(recorder, id);
        if (status == WRAPPER_AUDIO_OK) {
            EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_OK);
        } else {
            EXPECT_TRUE(no_device_is_held()) << "after a failed open";
        }
        return status;
    }

    wrapper_audio_status open_refused(const char* id = nullptr) {
        fail_next("Pa_OpenStream", paBadIODeviceCombination);
        return open(id);
    }
};

TEST_F(refusals, are_told_apart) {
    create({});
    for (const char* const function : {"Pa_OpenStream", "Pa_StartStream"}) {
        for (const auto& [alsas, status, sentence] :
             {answer{-EBUSY, WRAPPER_AUDIO_DEVICE_BUSY, busy},
              answer{-EACCES, WRAPPER_AUDIO_DEVICE_FORBIDDEN, forbidden},
              answer{-EPERM, WRAPPER_AUDIO_DEVICE_FORBIDDEN, forbidden},
              answer{-ENODEV, WRAPPER_AUDIO_DEVICE_GONE, gone}, answer{-ENOENT, WRAPPER_AUDIO_DEVICE_GONE, gone}}) {
            fail_next(function, paBadIODeviceCombination);
            server().answers["Mic"] = alsas;
            EXPECT_EQ(open(), status) << alsas;
            EXPECT_STREQ(wrapper_audio_status_text(status), sentence);
            EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), std::string("ALSA:Mic did not open: ") + sentence);
            EXPECT_THAT(text(WRAPPER_AUDIO_TEXT_LOG_LINE), StartsWith("[audio_wrapper] open_input_stream ОШИБКА: "));
            EXPECT_THAT(server().opened, ElementsAre("Mic"));
        }
        for (const int alsas : {0, -EIO, -EINVAL, -ECONNREFUSED, -ENOMEM, -EBUSY - 1, -EPERM + 1}) {
            fail_next(function, paBadIODeviceCombination);
            server().answers["Mic"] = alsas;
            EXPECT_EQ(open(), WRAPPER_AUDIO_DEVICE_REFUSED) << alsas;
            EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON),
                      "ALSA:Mic did not open: " + fake::error_text(paBadIODeviceCombination) + " (rate=48000)");
        }
    }
    server().answers["Mic"] = -EBUSY;
    EXPECT_EQ(open(), WRAPPER_AUDIO_OK) << "what PortAudio opens is open";
    EXPECT_THAT(server().opened, IsEmpty());
}

TEST_F(refusals, are_asked_for_by_the_name_that_alsa_has) {
    const std::pair<const char*, const char*> names[] = {{"USB: Audio (hw:1,0)", "hw:1,0"},
                                                         {"A (B): C (plughw:12,3)", "plughw:12,3"},
                                                         {"default", "default"},
                                                         {"hw:1,0", "hw:1,0"},
                                                         {"hw:)", "hw:)"},
                                                         {"hw: (mine)", "hw: (mine)"},
                                                         {"(hw:1,0) mine", "(hw:1,0) mine"},
                                                         {"", ""}};
    for (const auto& [portaudios, alsas] : names) {
        world().devices = {device{portaudios}};
        create({});
        server().answers = {{alsas, -EBUSY}};
        const bool is_asked = *portaudios != '\0';
        EXPECT_EQ(open_refused(), is_asked ? WRAPPER_AUDIO_DEVICE_BUSY : WRAPPER_AUDIO_DEVICE_REFUSED);
        EXPECT_EQ(server().opened, is_asked ? std::vector<std::string>{alsas} : std::vector<std::string>{});
    }
}

TEST_F(refusals, of_other_audio_systems_have_no_reason) {
    world().devices = {device{.name = "Mic", .host_api = 1}, device{.name = "Mic", .host_api = 7},
                       device{.name = std::nullopt}};
    server().answers = {{"Mic", -EBUSY}, {"", -EBUSY}};
    create({});
    for (const char* const id : {"OSS:Mic", "?:Mic", "ALSA:"}) {
        EXPECT_EQ(open_refused(id), WRAPPER_AUDIO_DEVICE_REFUSED) << id;
        EXPECT_THAT(server().opened, IsEmpty());
    }
}

TEST_F(refusals, at_one_of_two_rates_are_none) {
    world().devices = {device{.name = "Mic", .rate = 44100, .rates = {48000}}};
    create({.denoise = 1.0F});
    server().answers["Mic"] = -EBUSY;
    EXPECT_EQ(open_refused(), WRAPPER_AUDIO_OK);
    EXPECT_THAT(server().opened, IsEmpty());
    world().results["Pa_OpenStream"] = {paInvalidSampleRate, paBadIODeviceCombination};
    EXPECT_EQ(open(), WRAPPER_AUDIO_DEVICE_BUSY);
    EXPECT_THAT(server().opened, ElementsAre("Mic"));
}

TEST_F(refusals, come_behind_a_lack_of_memory) {
    create({});
    world().denoiser_refused = true;
    server().answers["Mic"] = -EBUSY;
    EXPECT_EQ(open(), WRAPPER_AUDIO_OUT_OF_MEMORY);
}

// PortAudio opens each device when it lists them, and leaves out those that it cannot open.
TEST_F(refusals, of_devices_that_are_not_listed_are_told_too) {
    world().devices = {device{.name = "Line (hw:0,0)", .inputs = 0, .outputs = 2}};
    world().default_input = paNoDevice;
    const std::pair<const char*, const char*> missing[] = {
        {"", "default"}, {"ALSA:Line (hw:0,0)", "hw:0,0"}, {"ALSA:USB (hw:1,0)", "hw:1,0"}, {"ALSA:mine", "mine"}};
    for (const bool is_alone : {true, false}) {
        if (!is_alone) world().devices.push_back(device{"another one"});
        create({});
        for (const auto& [id, name] : missing) {
            const std::string who = *id == '\0' ? "the default input device" : id;
            server().answers = {{name, -EBUSY}};
            EXPECT_EQ(open(id), WRAPPER_AUDIO_DEVICE_BUSY) << id;
            EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), who + " did not open: " + busy);
            EXPECT_THAT(server().opened, ElementsAre(name));
            server().answers = {{name, -EACCES}};
            EXPECT_EQ(open(id), WRAPPER_AUDIO_DEVICE_FORBIDDEN) << id;
            EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), who + " did not open: " + forbidden);
            for (const int alsas : {0, -ENOENT, -ENODEV, -EIO}) {
                server().answers = {{name, alsas}};
                EXPECT_EQ(open(id), is_alone || *id == '\0'                 ? WRAPPER_AUDIO_NO_INPUT_DEVICE
                                    : std::string(name).starts_with("hw:0") ? WRAPPER_AUDIO_NOT_AN_INPUT
                                                                            : WRAPPER_AUDIO_UNKNOWN_DEVICE)
                    << id;
            }
        }
        EXPECT_LT(open("OSS:Mic"), WRAPPER_AUDIO_OK);
        EXPECT_THAT(server().opened, IsEmpty()) << "it is not ALSA's";
    }
}

// ---- While it records ----

TEST_F(refusals, of_a_device_that_failed_mean_that_it_is_gone) {
    world().devices = {device{"USB \xFF (hw:1,0)"}};
    microphone.fail_after(4800);
    const std::string words = fake::error_text(paUnanticipatedHostError);
    for (const auto& [alsas, status, sentence] :
         {answer{-ENODEV, WRAPPER_AUDIO_DEVICE_GONE, gone}, answer{-ENOENT, WRAPPER_AUDIO_DEVICE_GONE, gone},
          answer{-EBUSY, WRAPPER_AUDIO_DEVICE_FAILED, words.c_str()}, // its own
          answer{-EACCES, WRAPPER_AUDIO_DEVICE_FAILED, words.c_str()},
          answer{0, WRAPPER_AUDIO_DEVICE_FAILED, words.c_str()}}) {
        server().answers = {{"hw:1,0", alsas}};
        record({.rate = 48000});
        const reading got = read_to_end();
        EXPECT_EQ(got.status, status) << alsas;
        EXPECT_EQ(got.pcm.size(), 4800U - 4800U % 1440U) << "everything before it has been read";
        EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), std::string("ALSA:USB \uFFFD (hw:1,0) failed: ") + sentence);
        EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_LOG_LINE), "[audio_wrapper] Pa_ReadStream ОШИБКА: " + words);
        EXPECT_TRUE(soon(no_device_is_held));
    }
    EXPECT_EQ(server().opened.size(), 5U);
}

TEST_F(refusals, are_not_waited_for_where_another_device_hangs) {
    world().devices = {device{"A"}, device{"B"}};
    server().answers = {{"A", -ENODEV}};
    microphone.hang_after(1440);
    microphone.fail_after(1440);
    record({.rate = 48000}, "ALSA:A");
    ASSERT_TRUE(has_captured(1440));
    gate place;
    before_each([&](const std::string& function) {
        if (function == "Pa_OpenStream") place.pass();
    });
    wrapper_audio_recorder* other = nullptr;
    ASSERT_EQ(wrapper_audio_recorder_create(&other, nullptr), WRAPPER_AUDIO_OK);
    std::thread opener([&] { EXPECT_EQ(wrapper_audio_recorder_open(other, "ALSA:B"), WRAPPER_AUDIO_OK); });
    place.wait_for_somebody();
    microphone.go_on();
    ASSERT_TRUE(soon([] { return test_clock::waiting() == 2; })) << "the opener, and who wants to ask ALSA";
    test_clock::skip(std::chrono::milliseconds(1000));
    EXPECT_EQ(read_to_end().status, WRAPPER_AUDIO_DEVICE_FAILED);
    EXPECT_THAT(server().opened, IsEmpty());
    before_each(nullptr);
    place.open();
    opener.join();
    wrapper_audio_recorder_free(other);
    EXPECT_TRUE(soon(no_device_is_held));
}

} // namespace
