// What a recorder says about the sound that its device delivers.
#include "with_recorder.h"

#include <set>

using fake::device;
using fake::world;
using std::chrono::milliseconds;

namespace {

// A sample that the core delivers as this 16-bit number.
float sample(int number) {
    return (static_cast<float>(number) + (number < 0 ? -0.5F : 0.5F)) / 32767.0F;
}

class signals : public with_recorder {
protected:
    // What is said when so much has been read of a microphone that hears only this.
    wrapper_audio_signal heard(std::size_t ms, std::function<float(uint64_t n)> sound) {
        wrapper_audio_recorder_stop(recorder); // which still hears it
        microphone.sound = std::move(sound);
        record({.rate = 48000});
        read_ten_ms(ms / 10);
        return signal();
    }

    // In reads of 10 ms, as a file goes on while a long one lasts, and only the levels of 7 s are kept.
    void read_ten_ms(std::size_t times) const {
        const auto count = static_cast<std::size_t>(info().rate / 100);
        for (; times > 0; --times)
            EXPECT_EQ(read(count).block.count, count);
    }
};

TEST_F(signals, are_told_apart) {
    EXPECT_EQ(heard(2500, [](uint64_t /*n*/) { return 0.0F; }), WRAPPER_AUDIO_SIGNAL_ZEROS);
    EXPECT_EQ(heard(2500, [](uint64_t n) { return n == 119999 ? sample(-1) : 0.0F; }), WRAPPER_AUDIO_SIGNAL_HISS);
    EXPECT_EQ(heard(2500, [](uint64_t n) { return n % 2 == 0 ? sample(-32) : sample(32); }), WRAPPER_AUDIO_SIGNAL_HISS);
    for (const int loud : {-33, 33}) // 0.001007; 32 are 0.000977
        EXPECT_EQ(heard(2500, [loud](uint64_t n) { return n == 7 ? sample(loud) : 0.0F; }), WRAPPER_AUDIO_SIGNAL_SOUND);
    for (const float full : {-1.0F, 1.0F, sample(-32766), sample(32766)})
        EXPECT_EQ(heard(2500, [full](uint64_t n) { return n % 100 == 99 ? full : 0.0F; }),
                  WRAPPER_AUDIO_SIGNAL_CLIPPING);
    for (const int loud : {-32765, 32765})
        EXPECT_EQ(heard(2500, [loud](uint64_t /*n*/) { return sample(loud); }), WRAPPER_AUDIO_SIGNAL_SOUND);
    EXPECT_EQ(heard(2500, [](uint64_t n) { return n % 101 == 0 ? 1.0F : 0.0F; }), WRAPPER_AUDIO_SIGNAL_SOUND);
}

TEST_F(signals, are_known_after_two_and_a_half_seconds_of_what_was_read) {
    for (const auto& [sound, result] :
         {std::pair(0.0F, WRAPPER_AUDIO_SIGNAL_ZEROS), std::pair(sample(20), WRAPPER_AUDIO_SIGNAL_HISS)}) {
        EXPECT_EQ(heard(0, [sound = sound](uint64_t /*n*/) { return sound; }), WRAPPER_AUDIO_SIGNAL_UNKNOWN);
        ASSERT_TRUE(soon([&] { return info().available > 192000; })) << "whatever has not been read yet";
        EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_UNKNOWN);
        read_ten_ms(249);
        EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_UNKNOWN);
        read(1);
        EXPECT_EQ(signal(), result) << "the 10 ms have begun";
    }
    EXPECT_EQ(heard(10, [](uint64_t /*n*/) { return 0.01F; }), WRAPPER_AUDIO_SIGNAL_SOUND) << "at once";
}

TEST_F(signals, are_those_of_the_last_two_and_a_half_seconds) {
    // 1 s of sound, 3 s of zeros, and sound again.
    const auto sound = [](uint64_t n) { return n < 48000 || n >= 192000 ? 0.1F : 0.0F; };
    EXPECT_EQ(heard(3490, sound), WRAPPER_AUDIO_SIGNAL_SOUND);
    read(480);
    EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_ZEROS);
    read_ten_ms(50);
    EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_ZEROS);
    read(480);
    EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_SOUND);
}

TEST_F(signals, are_the_same_at_any_rate) {
    for (const double rate : {100.0, 8000.0, 11025.0, 44100.0, 192000.0, 768000.0}) {
        world().devices = {device{.name = "A", .rate = rate}};
        for (const float silence : {0.0F, sample(32)}) {
            wrapper_audio_recorder_stop(recorder); // which still hears it
            microphone.sound = [silence](uint64_t /*n*/) { return silence; };
            record({.rate = 16000, .conversion = WRAPPER_AUDIO_CONVERSION_LINEAR});
            read_ten_ms(249);
            EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_UNKNOWN) << rate;
            read_ten_ms(1);
            EXPECT_EQ(signal(), silence == 0.0F ? WRAPPER_AUDIO_SIGNAL_ZEROS : WRAPPER_AUDIO_SIGNAL_HISS) << rate;
        }
    }
}

TEST_F(signals, are_judged_before_denoising) {
    world().denoiser = [](float* frame) { std::fill_n(frame, 480, 0.0F); };
    microphone.sound = [](uint64_t /*n*/) { return 0.1F; };
    record({.rate = 48000, .denoise = 1.0F});
    EXPECT_EQ(read(480).block.peak, 0.0F);
    read_ten_ms(249);
    EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_SOUND);
}

TEST_F(signals, are_missing_where_nothing_comes) {
    for (const uint64_t before : {0U, 1440U}) { // from the start, and later
        wrapper_audio_recorder_stop(recorder);  // which still hears it
        microphone.sound = [](uint64_t /*n*/) { return 0.1F; };
        microphone.hang_after(before);
        record({.rate = 48000, .stall_ms = 1000});
        ASSERT_TRUE(has_captured(before));
        EXPECT_EQ(read(before).status, WRAPPER_AUDIO_OK);
        const auto expected = before == 0 ? WRAPPER_AUDIO_SIGNAL_UNKNOWN : WRAPPER_AUDIO_SIGNAL_SOUND;
        test_clock::skip(milliseconds(2499));
        EXPECT_EQ(signal(), expected);
        EXPECT_EQ(read(1, 0).status, WRAPPER_AUDIO_NO_DATA);
        test_clock::skip(milliseconds(1));
        EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_NO_DATA) << "a read that says so does not begin it anew";
        test_clock::skip(milliseconds(100000));
        EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_NO_DATA);
        microphone.hang_after(before + 1440);
        ASSERT_TRUE(has_captured(before + 1440));
        EXPECT_EQ(read(480).status, WRAPPER_AUDIO_OK);
        EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_SOUND);
        microphone.go_on();
        EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_OK);
    }
}

TEST_F(signals, are_not_missing_while_a_file_waits_for_the_host) {
    wrapper_audio_recorder_stop(recorder); // which still hears it
    microphone.sound = [](uint64_t /*n*/) { return 0.1F; };
    record({.rate = 48000, .buffer_ms = 100});
    ASSERT_TRUE(soon([&] { return info().available >= 4800; }));
    EXPECT_EQ(read(480).status, WRAPPER_AUDIO_OK);
    ASSERT_TRUE(soon([&] {
        const uint64_t before = info().captured;
        const timespec pause{0, 20000000};
        nanosleep(&pause, nullptr);
        return info().captured == before;
    }));
    test_clock::skip(milliseconds(10000));
    EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_SOUND);
}

TEST_F(signals, remain_when_it_is_over_and_begin_anew) {
    create({.rate = 48000});
    EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_UNKNOWN) << "never opened";
    EXPECT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK);
    read_ten_ms(250);
    wrapper_audio_recorder_stop(recorder);
    EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_ZEROS);
    test_clock::skip(milliseconds(10000));
    EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_ZEROS);
    EXPECT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK);
    EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_UNKNOWN);
    microphone.fail_after(0);
    wrapper_audio_recorder_stop(recorder);
    EXPECT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK);
    EXPECT_EQ(read_to_end().status, WRAPPER_AUDIO_DEVICE_FAILED);
    test_clock::skip(milliseconds(10000));
    EXPECT_EQ(signal(), WRAPPER_AUDIO_SIGNAL_UNKNOWN) << "it is not waited for any more";
}

TEST_F(signals, want_a_recorder_and_a_place) {
    int32_t told = 99;
    EXPECT_EQ(wrapper_audio_recorder_get_signal(nullptr, &told), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(told, 99);
    record({});
    EXPECT_EQ(wrapper_audio_recorder_get_signal(recorder, nullptr), WRAPPER_AUDIO_INVALID_ARGUMENT);
}

TEST(signal_texts, are_a_sentence_each) {
    std::set<std::string> sentences;
    for (int32_t signal = 0; signal <= 6; ++signal) {
        const std::string sentence = wrapper_audio_signal_text(signal);
        EXPECT_GT(sentence.size(), 10U);
        EXPECT_NE(sentence.back(), '.');
        EXPECT_TRUE(sentences.insert(sentence).second) << "twice: " << sentence;
        const std::string advice = wrapper_audio_signal_advice(signal);
        EXPECT_EQ(advice.size() > 10, signal >= WRAPPER_AUDIO_SIGNAL_NO_DATA) << advice;
        EXPECT_FALSE(advice.ends_with('.'));
    }
    for (const int32_t signal : {-1, 7, 1000, INT32_MIN, INT32_MAX}) {
        EXPECT_STREQ(wrapper_audio_signal_text(signal), "unknown signal");
        EXPECT_STREQ(wrapper_audio_signal_advice(signal), "");
    }
}

} // namespace
