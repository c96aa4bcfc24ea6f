// Devices that hang.
#include "with_recorder.h"

#include <unistd.h>

#include <fstream>

using fake::device;
using fake::world;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::HasSubstr;

namespace {

class hanging_device : public with_recorder {
protected:
    void SetUp() override {
        with_recorder::SetUp();
        microphone.sound = [](uint64_t n) { return static_cast<float>(n % 30011) / 32767.0F + 1e-5F; };
    }

    void TearDown() override {
        microphone.go_on();
        place.open();
        with_recorder::TearDown();
    }

    // A call of this function hangs until `place` is opened.
    void hang_in(const std::string& function) {
        before_each([=, this](const std::string& called) {
            if (called == function) place.pass();
        });
    }

    static bool sleeps(pid_t thread) {
        std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
        const std::string told{std::istreambuf_iterator<char>(file), {}};
        return told.find(") S ") != std::string::npos;
    }

    gate place;
};

TEST_F(hanging_device, is_left_behind_by_a_stop_within_a_second) {
    for (const float denoise : {0.0F, 1.0F}) {
        microphone.hang_after(3 * block);
        record({.rate = 16000, .denoise = denoise});
        ASSERT_TRUE(has_captured(3 * block));
        const auto before = steady_clock::now();
        test_clock::let_waits_pass(true);
        EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK);
        EXPECT_LE(steady_clock::now() - before, milliseconds(1000));
        EXPECT_GE(steady_clock::now() - before, milliseconds(500)) << "there was hope";
        EXPECT_EQ(wrapper_audio_abandoned_threads(), 1U);
        EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_INVALID_STATE);
        EXPECT_EQ(wrapper_audio_abandoned_threads(), 1U);
        const reading got = read_to_end();
        EXPECT_EQ(got.status, WRAPPER_AUDIO_STOPPED);
        EXPECT_EQ(got.pcm.size(), 3 * block / 3) << "what was inside is flushed";
        EXPECT_FALSE(no_device_is_held());
        test_clock::let_waits_pass(false);
        test_clock::skip(milliseconds(3000));
        EXPECT_NE(signal(), WRAPPER_AUDIO_SIGNAL_NO_DATA) << "nobody waits any more";
        microphone.go_on();
        EXPECT_TRUE(soon([] { return wrapper_audio_abandoned_threads() == 0; }));
        EXPECT_TRUE(soon(no_device_is_held));
        EXPECT_EQ(info().captured, 3 * block) << "what came after the stop is not part of it";
        EXPECT_EQ(read(1).status, WRAPPER_AUDIO_STOPPED);
    }
}

TEST_F(hanging_device, is_left_behind_by_a_free) {
    microphone.hang_after(block);
    record({});
    ASSERT_TRUE(has_captured(block));
    const auto before = steady_clock::now();
    test_clock::let_waits_pass(true);
    wrapper_audio_recorder_free(std::exchange(recorder, nullptr));
    EXPECT_LE(steady_clock::now() - before, milliseconds(1000));
    EXPECT_EQ(wrapper_audio_abandoned_threads(), 1U);
    microphone.go_on();
    EXPECT_TRUE(soon([] { return wrapper_audio_abandoned_threads() == 0; }));
    EXPECT_TRUE(soon(no_device_is_held));
}

TEST_F(hanging_device, that_fails_after_all_is_no_failure_any_more) {
    microphone.hang_after(block);
    microphone.fail_after(block);
    record({});
    ASSERT_TRUE(has_captured(block));
    test_clock::let_waits_pass(true);
    EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK);
    microphone.go_on();
    EXPECT_TRUE(soon(no_device_is_held));
    EXPECT_EQ(read_to_end().status, WRAPPER_AUDIO_STOPPED);
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), "");
}

TEST_F(hanging_device, does_not_keep_the_recorder_from_another_device) {
    world().devices = {device{"A"}, device{"B"}};
    std::atomic<bool> hangs{true};
    world().device_read = [&](const fake::stream& from, float* samples, unsigned long count) {
        if (from.device == 0 && hangs) place.pass();
        return microphone(from, samples, count);
    };
    record({}, "Host:A");
    test_clock::let_waits_pass(true);
    place.wait_for_somebody();
    EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK);
    test_clock::let_waits_pass(false);
    EXPECT_EQ(wrapper_audio_recorder_open(recorder, "Host:B"), WRAPPER_AUDIO_OK);
    EXPECT_EQ(read(100).status, WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_abandoned_threads(), 1U);
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_DEVICE_ID), "Host:B");
    hangs = false;
}

TEST_F(hanging_device, may_hang_while_it_is_given_back) {
    for (const char* function : {"Pa_StopStream", "Pa_CloseStream"}) {
        record({});
        read(100);
        hang_in(function);
        std::thread other([&] {
            place.wait_for_somebody();
            test_clock::let_waits_pass(true);
        });
        EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK);
        other.join();
        EXPECT_EQ(wrapper_audio_abandoned_threads(), 1U);
        EXPECT_EQ(read_to_end().status, WRAPPER_AUDIO_STOPPED);
        EXPECT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK);
        wrapper_audio_device_list* list = nullptr;
        EXPECT_EQ(wrapper_audio_device_list_create(&list), WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK);
        EXPECT_EQ(list, nullptr);
        test_clock::let_waits_pass(false);
        before_each(nullptr);
        place.open();
        EXPECT_TRUE(soon([] { return wrapper_audio_abandoned_threads() == 0; }));
        EXPECT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK);
        wrapper_audio_recorder_stop(recorder);
        place.close();
    }
}

TEST_F(hanging_device, that_does_not_open_is_left_behind_after_10_seconds) {
    world().devices = {device{"A"}, device{"B"}};
    wrapper_audio_recorder* other = nullptr;
    ASSERT_EQ(wrapper_audio_recorder_create(&other, nullptr), WRAPPER_AUDIO_OK);
    ASSERT_EQ(wrapper_audio_recorder_open(other, "Host:B"), WRAPPER_AUDIO_OK);
    wrapper_audio_recorder_info there{};
    ASSERT_TRUE(soon([&] { return wrapper_audio_recorder_get_info(other, &there), there.available >= 4800; }));
    create({});
    hang_in("Pa_OpenStream");
    const auto before = steady_clock::now();
    test_clock::let_waits_pass(true);
    EXPECT_EQ(wrapper_audio_recorder_open(recorder, "Host:A"), WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK);
    EXPECT_GE(steady_clock::now() - before, milliseconds(10000));
    EXPECT_LE(steady_clock::now() - before, milliseconds(11000));
    EXPECT_THAT(text(WRAPPER_AUDIO_TEXT_REASON), HasSubstr("10 seconds"));
    place.wait_for_somebody();
    EXPECT_EQ(wrapper_audio_abandoned_threads(), 1U);
    EXPECT_EQ(read(1).status, WRAPPER_AUDIO_INVALID_STATE);

    test_clock::let_waits_pass(false);
    int16_t pcm[4800];
    wrapper_audio_block told;
    EXPECT_EQ(wrapper_audio_recorder_read_s16(other, pcm, 4800, -1, &told), WRAPPER_AUDIO_OK) << "others go on";
    test_clock::let_waits_pass(true);
    EXPECT_EQ(wrapper_audio_recorder_open(recorder, "Host:B"), WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK);
    EXPECT_EQ(wrapper_audio_recorder_stop(other), WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK) << "PortAudio is taken";
    wrapper_audio_recorder_free(other);

    test_clock::let_waits_pass(false);
    before_each(nullptr);
    place.open();
    EXPECT_TRUE(soon([] { return wrapper_audio_abandoned_threads() == 0; }));
    EXPECT_TRUE(soon(no_device_is_held)) << "a device that opens too late is given back";
    EXPECT_EQ(wrapper_audio_recorder_open(recorder, "Host:A"), WRAPPER_AUDIO_OK);
}

TEST_F(hanging_device, that_opens_late_can_be_stopped_by_another_thread) {
    create({});
    hang_in("Pa_OpenStream");
    wrapper_audio_status opened = WRAPPER_AUDIO_OK;
    std::thread opener([&] { opened = wrapper_audio_recorder_open(recorder, nullptr); });
    place.wait_for_somebody();
    EXPECT_EQ(read(1, 0).status, WRAPPER_AUDIO_INVALID_STATE);
    EXPECT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_INVALID_STATE);
    EXPECT_EQ(info().device_rate, 0);
    EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_UNKNOWN);
    float probability = 0.0F;
    EXPECT_EQ(wrapper_audio_recorder_take_speech(recorder, &probability, 1), 0U);
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_DEVICE_ID), "");
    std::thread stopper([&] { EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_OK); });
    ASSERT_TRUE(soon([] { return test_clock::waiting() == 2; }));
    place.open();
    stopper.join();
    opener.join();
    EXPECT_EQ(opened, WRAPPER_AUDIO_STOPPED);
    EXPECT_TRUE(soon(no_device_is_held));
    before_each(nullptr);
    EXPECT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK);
}

TEST_F(hanging_device, that_does_not_open_can_be_stopped_by_another_thread) {
    create({});
    hang_in("Pa_OpenStream");
    const auto before = steady_clock::now();
    wrapper_audio_status opened = WRAPPER_AUDIO_OK;
    std::thread opener([&] { opened = wrapper_audio_recorder_open(recorder, nullptr); });
    place.wait_for_somebody();
    std::thread stopper([&] { EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK); });
    ASSERT_TRUE(soon([] { return test_clock::waiting() == 2; }));
    test_clock::skip(milliseconds(950));
    stopper.join();
    EXPECT_EQ(wrapper_audio_abandoned_threads(), 1U);
    EXPECT_EQ(read(1, 0).status, WRAPPER_AUDIO_INVALID_STATE) << "it never was open";
    opener.join();
    EXPECT_EQ(opened, WRAPPER_AUDIO_STOPPED);
    EXPECT_LE(steady_clock::now() - before, milliseconds(1000));
    EXPECT_EQ(wrapper_audio_abandoned_threads(), 1U) << "counted once";
}

TEST_F(hanging_device, that_does_not_open_is_left_behind_once_by_an_open_and_a_stop) {
    create({});
    hang_in("Pa_OpenStream");
    wrapper_audio_status opened = WRAPPER_AUDIO_OK;
    std::thread opener([&] { opened = wrapper_audio_recorder_open(recorder, nullptr); });
    place.wait_for_somebody();
    ASSERT_TRUE(soon([] { return test_clock::waiting() == 1; })) << "its time runs from here";
    test_clock::skip(milliseconds(10500));
    std::thread stopper([&] { EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK); });
    ASSERT_TRUE(soon([] { return test_clock::waiting() == 2; }));
    test_clock::skip(milliseconds(500));
    opener.join();
    EXPECT_EQ(opened, WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK);
    EXPECT_EQ(wrapper_audio_abandoned_threads(), 1U);
    test_clock::skip(milliseconds(500));
    stopper.join();
    EXPECT_EQ(wrapper_audio_abandoned_threads(), 1U) << "counted once";
}

TEST_F(hanging_device, that_hangs_while_devices_are_listed_is_left_behind_and_listed_later) {
    hang_in("Pa_Initialize");
    wrapper_audio_device_list* list = nullptr;
    wrapper_audio_status listed = WRAPPER_AUDIO_OK;
    const auto before = steady_clock::now();
    std::thread lister([&] { listed = wrapper_audio_device_list_create(&list); });
    place.wait_for_somebody();
    ASSERT_TRUE(soon([] { return test_clock::waiting() == 1; }));
    test_clock::skip(milliseconds(11000));
    lister.join();
    EXPECT_EQ(listed, WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK);
    EXPECT_EQ(list, nullptr);
    EXPECT_LE(steady_clock::now() - before, milliseconds(11000));
    EXPECT_EQ(wrapper_audio_abandoned_threads(), 1U);

    before_each(nullptr);
    place.open();
    EXPECT_TRUE(soon([] { return wrapper_audio_abandoned_threads() == 0; }));
    EXPECT_TRUE(soon(no_device_is_held));
    EXPECT_EQ(wrapper_audio_device_list_create(&list), WRAPPER_AUDIO_OK);
    EXPECT_GT(wrapper_audio_device_list_count(list), 0U);
    wrapper_audio_device_list_free(list);
}

TEST_F(hanging_device, that_is_given_back_while_another_is_opened_ends_with_a_free) {
    microphone.fail_after(block);
    hang_in("Pa_CloseStream");
    record({});
    place.wait_for_somebody();
    wrapper_audio_status opened = WRAPPER_AUDIO_OK;
    std::thread opener([&] { opened = wrapper_audio_recorder_open(recorder, nullptr); });
    ASSERT_TRUE(soon([] { return test_clock::waiting() == 1; })) << "it waits for the first one's end";
    std::atomic<pid_t> closing_thread{0};
    std::thread closer([&] {
        closing_thread = gettid();
        wrapper_audio_recorder_free(recorder);
    });
    ASSERT_TRUE(soon([&] { return closing_thread != 0 && sleeps(closing_thread); })) << "it waits for the other call";
    place.open();
    opener.join();
    closer.join();
    recorder = nullptr;
    EXPECT_EQ(opened, WRAPPER_AUDIO_INVALID_STATE);
    EXPECT_EQ(calls_of("Pa_OpenStream").size(), 1U);
}

} // namespace
