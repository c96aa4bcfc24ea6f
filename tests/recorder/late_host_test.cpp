// Hosts that come late.
#include "with_recorder.h"

using fake::device;
using fake::world;
using std::chrono::milliseconds;

namespace {

class late_host : public with_recorder {
protected:
    void SetUp() override {
        with_recorder::SetUp();
        world().devices = {device{.name = "A", .rate = 16000}};
        microphone.sound = [](uint64_t n) { return static_cast<float>(n % 30011) / 32767.0F + 1e-5F; };
    }

    // The device delivers up to this sample, in its own time, and all of it is captured.
    void deliver(uint64_t end) {
        microphone.hang_after(end);
        ASSERT_TRUE(has_captured(end));
    }

    // The device goes on only once the host waits for it: before, there might be no room.
    reading read_while_it_delivers(std::size_t count, uint64_t end) {
        std::thread device([&] {
            EXPECT_TRUE(soon([] { return test_clock::waiting() > 0; }));
            microphone.hang_after(end);
        });
        const reading got = read(count);
        device.join();
        return got;
    }
};

// Reads until the recording is over: sample by sample where each stands, and how many were lost.
struct account {
    uint64_t position = 0;
    uint64_t dropped = 0;
    uint64_t read = 0;
};

TEST_F(late_host, loses_samples_of_a_device_and_learns_which) {
    microphone.keeps_time = true;
    microphone.hang_after(0);
    record({.rate = 16000, .buffer_ms = 100});
    deliver(16320);
    const uint64_t kept = info().available;
    EXPECT_GE(kept, 1600U) << "100 ms are kept at least";
    EXPECT_LE(kept, 1600U + 2 * 480U);

    const reading first = read(kept - 10);
    EXPECT_EQ(first.status, WRAPPER_AUDIO_OK);
    EXPECT_EQ(first.pcm, microphone.expected(0, kept - 10));
    EXPECT_EQ(first.block.position, 0U);
    EXPECT_EQ(first.block.dropped, 0U) << "the loss is behind it";
    EXPECT_EQ(info().dropped, 0U);

    const reading across = read_while_it_delivers(500, 16320 + 960);
    EXPECT_EQ(across.status, WRAPPER_AUDIO_OK);
    EXPECT_EQ(across.block.position, kept - 10);
    EXPECT_EQ(across.block.dropped, 16320 - kept);
    EXPECT_EQ(across.block.dropped_at, 10U);
    auto expected = microphone.expected(kept - 10, 10);
    const auto behind = microphone.expected(16320, 490);
    expected.insert(expected.end(), behind.begin(), behind.end());
    EXPECT_EQ(across.pcm, expected);
    EXPECT_EQ(info().dropped, 16320 - kept);
    EXPECT_EQ(info().read, kept + 490);

    const reading next = read(100);
    EXPECT_EQ(next.block.position, 16810U);
    EXPECT_EQ(next.block.dropped, 0U);
    EXPECT_EQ(next.pcm, microphone.expected(16810, 100));
}

TEST_F(late_host, learns_of_a_loss_before_the_first_sample_of_a_read) {
    microphone.keeps_time = true;
    microphone.hang_after(0);
    record({.rate = 16000, .buffer_ms = 100});
    deliver(16320);
    const uint64_t kept = info().available;
    read(kept);
    const reading late = read(1, 0);
    EXPECT_EQ(late.status, WRAPPER_AUDIO_TIMEOUT);
    EXPECT_EQ(late.block.count, 0U);
    EXPECT_EQ(late.block.dropped, 16320 - kept);
    EXPECT_EQ(late.block.dropped_at, 0U);
    EXPECT_EQ(late.block.position, 16320U);
    microphone.hang_after(16800);
    const reading next = read(480);
    EXPECT_EQ(next.block.position, 16320U);
    EXPECT_EQ(next.block.dropped, 0U);
    EXPECT_EQ(next.pcm, microphone.expected(16320, 480));
}

TEST_F(late_host, learns_where_the_first_of_two_losses_was) {
    microphone.keeps_time = true;
    microphone.hang_after(0);
    record({.rate = 16000, .buffer_ms = 100});
    deliver(16320);
    const uint64_t kept = info().available;
    read(1000);
    deliver(25920);
    const uint64_t stored = info().available - (kept - 1000);
    ASSERT_GT(stored, 0U);
    const reading across = read_while_it_delivers(kept - 1000 + stored + 100, 25920 + 960);
    EXPECT_EQ(across.status, WRAPPER_AUDIO_OK);
    EXPECT_EQ(across.block.position, 1000U);
    EXPECT_EQ(across.block.dropped, 25920 - kept - stored) << "both";
    EXPECT_EQ(across.block.dropped_at, kept - 1000);
}

TEST_F(late_host, accounts_for_every_sample_over_many_losses) {
    microphone.keeps_time = true;
    microphone.hang_after(0);
    record({.rate = 16000, .buffer_ms = 100});
    account all;
    for (int i = 1; i <= 100; ++i) {
        deliver(4800 * static_cast<uint64_t>(i));
        const reading got = read(700);
        ASSERT_EQ(got.status, WRAPPER_AUDIO_OK);
        ASSERT_EQ(got.block.position, all.position + (got.block.dropped_at == 0 ? got.block.dropped : 0));
        if (got.block.dropped == 0) {
            ASSERT_EQ(got.pcm, microphone.expected(got.block.position, 700));
        }
        all.read += got.block.count;
        all.dropped += got.block.dropped;
        all.position = all.read + all.dropped;
    }
    EXPECT_GT(all.dropped, 100000U);
    wrapper_audio_recorder_info told = info();
    EXPECT_EQ(told.read, all.read);
    EXPECT_EQ(told.dropped, all.dropped);
    const reading rest = read(told.available);
    EXPECT_EQ(all.position + rest.block.count + rest.block.dropped + read(1, 0).block.dropped, 480000U);
}

TEST_F(late_host, is_told_the_levels_and_the_speech_of_what_it_reads) {
    world().devices = {device{.name = "A", .rate = 48000}};
    // Every second has a level of its own, and a sample at full scale.
    microphone.sound = [](uint64_t n) {
        const uint64_t second = n / 48000;
        return n % 48000 == 0 ? 1.0F : static_cast<float>(second + 1) / 100.0F;
    };
    microphone.keeps_time = true;
    microphone.hang_after(0);
    record({.rate = 48000, .buffer_ms = 100});
    deliver(667 * block);
    read(info().available);
    microphone.hang_after(669 * block);
    const reading got = read(480);
    ASSERT_EQ(got.block.position, 667 * block);
    EXPECT_GT(got.block.dropped, 900000U);
    EXPECT_LE(got.block.clipped, 20U) << "samples that were lost are counted once at most";
    const reading next = read(480);
    EXPECT_EQ(next.block.clipped, 0U);
    EXPECT_NEAR(next.block.captured_peak, 0.21, 1e-4);
}

// Every second has a level of its own.
TEST_F(late_host, is_told_the_levels_of_everything_that_waited) {
    world().devices = {device{.name = "A", .rate = 8000}};
    microphone.sound = [](uint64_t n) { return static_cast<float>(n / 8000 % 90 + 1) / 100.0F; };
    microphone.keeps_time = true;
    microphone.hang_after(0);
    record({.rate = 8000, .buffer_ms = 5000});
    deliver(uint64_t{167} * 240);
    for (int i = 0; i < 500; ++i) {
        const reading got = read(80);
        ASSERT_EQ(got.status, WRAPPER_AUDIO_OK);
        ASSERT_FLOAT_EQ(got.block.captured_peak, got.block.peak) << "10 ms " << i;
    }
}

TEST_F(late_host, is_told_the_levels_of_a_long_recording) {
    world().devices = {device{.name = "A", .rate = 8000}};
    microphone.sound = [](uint64_t n) { return static_cast<float>(n / 8000 % 90 + 1) / 100.0F; };
    record({.rate = 8000, .buffer_ms = 100});
    for (int second = 0; second < 230; ++second) {
        const reading got = read(8000);
        ASSERT_EQ(got.status, WRAPPER_AUDIO_OK);
        ASSERT_FLOAT_EQ(got.block.captured_peak, got.block.peak) << "second " << second;
    }
}

TEST_F(late_host, loses_nothing_of_a_file) {
    for (const int32_t buffer_ms : {100, 60000}) {
        for (const float denoise : {0.0F, 1.0F}) {
            record({.rate = 16000, .denoise = denoise, .buffer_ms = buffer_ms});
            const auto kept = static_cast<uint64_t>(buffer_ms) * 16;
            ASSERT_TRUE(soon([&] { return info().available >= kept; }));
            uint64_t captured = 0;
            ASSERT_TRUE(soon([&] { return std::exchange(captured, info().captured) == info().captured; }));
            uint64_t position = 0;
            for (int i = 0; i < 10; ++i) {
                const reading got = read(static_cast<std::size_t>(kept / 7 + 1));
                ASSERT_EQ(got.status, WRAPPER_AUDIO_OK);
                ASSERT_EQ(got.block.position, position);
                ASSERT_EQ(got.block.dropped, 0U);
                if (denoise == 0.0F) {
                    ASSERT_EQ(got.pcm, microphone.expected(position, got.pcm.size()));
                }
                position += got.block.count;
            }
            wrapper_audio_recorder_stop(recorder);
            const reading rest = read_to_end(50000);
            EXPECT_EQ(rest.status, WRAPPER_AUDIO_STOPPED);
            EXPECT_EQ(position + rest.pcm.size(), info().captured);
            EXPECT_EQ(info().dropped, 0U);
        }
    }
}

TEST_F(late_host, has_no_stall_while_a_file_waits_for_it) {
    record({.rate = 16000, .buffer_ms = 100, .stall_ms = 100});
    ASSERT_TRUE(soon([&] { return info().available >= 1600; }));
    test_clock::skip(milliseconds(5000));
    EXPECT_EQ(read(1600).status, WRAPPER_AUDIO_OK);
    EXPECT_EQ(read(1600).status, WRAPPER_AUDIO_OK);
}

TEST_F(late_host, loses_nothing_of_a_file_on_a_machine_that_pauses) {
    world().devices = {device{.name = "A", .rate = 48000}};
    microphone.hang_after(300 * block); // 9 s at once
    record({.rate = 48000, .buffer_ms = 60000});
    ASSERT_TRUE(has_captured(300 * block));
    microphone.keeps_time = true;
    test_clock::skip(milliseconds(1000));
    deliver(500 * block);
    const reading all = read(500 * block);
    EXPECT_EQ(all.block.count, 500 * block);
    EXPECT_EQ(all.block.dropped, 0U);
}

// A ramp of a second tells which time the levels and the speech are of.
TEST_F(late_host, is_told_the_levels_and_the_speech_behind_a_loss_inside_the_system) {
    world().devices = {device{.name = "A", .rate = 48000}};
    microphone.sound = [](uint64_t n) { return static_cast<float>(n % 48000) / 48000.0F; };
    world().speech = [](const float* frame) { return frame[0] / 32767.0F; };
    microphone.keeps_time = true;
    microphone.hang_after(70 * block);
    record({.rate = 48000, .speech = 1});
    ASSERT_EQ(read(60 * block).status, WRAPPER_AUDIO_OK);
    test_clock::skip(milliseconds(500));
    microphone.hang_after(200 * block);
    uint64_t dropped = 0;
    for (int i = 0; i < 80; ++i)
        dropped += read(block).block.dropped;
    EXPECT_NEAR(static_cast<double>(dropped), 24000.0, 300.0);
    for (int i = 0; i < 20; ++i) {
        const reading got = read(block);
        ASSERT_NEAR(got.block.captured_peak, got.block.peak, 0.05) << i;
        const float spoken = got.block.speech_probability;
        ASSERT_NEAR(spoken, got.block.peak, 0.08) << i;
    }
}

TEST_F(late_host, learns_of_what_was_lost_inside_the_system) {
    microphone.keeps_time = true;
    microphone.hang_after(32640);
    record({.rate = 16000});
    ASSERT_EQ(read(32000).status, WRAPPER_AUDIO_OK);
    test_clock::skip(milliseconds(500)); // nobody will ever hear these
    uint64_t dropped = 0;
    microphone.hang_after(65280);
    for (int i = 0; i < 20; ++i)
        dropped += read(1600).block.dropped;
    EXPECT_NEAR(static_cast<double>(dropped), 8000.0, 100.0);
    EXPECT_EQ(info().dropped, dropped);
    EXPECT_EQ(info().read, 64000U);
}

} // namespace
