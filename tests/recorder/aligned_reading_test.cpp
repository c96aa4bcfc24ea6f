// A recorder that is read into an aligner.
#include "with_recorder.h"

using fake::device;
using fake::world;
using std::chrono::milliseconds;

namespace {

constexpr int32_t device_rate = 48000;

// Samples that tell their number: 15 bits of it, which is 0.7 ms exact.
float numbered(uint64_t n) {
    return static_cast<float>(n) / 1048576.0F;
}

class aligned_reading : public with_recorder {
protected:
    void SetUp() override {
        with_recorder::SetUp();
        world().devices = {device{.name = "A", .rate = device_rate}};
        microphone.sound = numbered;
        microphone.keeps_time = true;
        microphone.hang_after(0);
        ASSERT_EQ(wrapper_audio_aligner_create(&aligner, device_rate), WRAPPER_AUDIO_OK);
    }
    void TearDown() override {
        wrapper_audio_aligner_free(aligner);
        with_recorder::TearDown();
    }

    // The device delivers its next block, and the other side hears as much.
    void deliver() {
        delivered_ += block;
        microphone.hang_after(delivered_);
        ASSERT_TRUE(has_captured(delivered_));
        hear();
    }
    void hear() {
        std::vector<float> samples;
        for (std::size_t i = 0; i < block; ++i)
            samples.push_back(numbered(heard_++));
        const auto now = std::chrono::steady_clock::now().time_since_epoch();
        ASSERT_EQ(wrapper_audio_aligner_add(aligner, 1, samples.data(), samples.size(),
                                            std::chrono::nanoseconds(now).count()),
                  WRAPPER_AUDIO_OK);
    }
    void lose(int blocks) { // of the device
        for (int i = 0; i < blocks; ++i) {
            test_clock::skip(milliseconds(30));
            hear();
        }
    }

    wrapper_audio_status read(std::size_t count = block, int32_t side = 0) {
        return wrapper_audio_recorder_read_aligner(recorder, aligner, side, count, -1, &got);
    }

    void take_all() {
        ASSERT_EQ(wrapper_audio_aligner_flush(aligner), WRAPPER_AUDIO_OK);
        first.resize(1000000);
        second.resize(first.size());
        std::size_t count = 0;
        ASSERT_EQ(wrapper_audio_aligner_take(aligner, first.data(), second.data(), first.size(), &count),
                  WRAPPER_AUDIO_OK);
        first.resize(count);
        second.resize(count);
    }

    wrapper_audio_aligner* aligner = nullptr;
    wrapper_audio_block got{};
    std::vector<float> first;
    std::vector<float> second;

private:
    uint64_t delivered_ = 0;
    uint64_t heard_ = 0;
};

TEST_F(aligned_reading, tells_when_samples_came_and_not_when_they_were_read) {
    record({.rate = device_rate});
    constexpr int late = 10; // blocks
    for (int i = 0; i < 100; ++i) {
        deliver();
        if (i < late) continue;
        ASSERT_EQ(read(), WRAPPER_AUDIO_OK);
        EXPECT_EQ(got.count, block);
        EXPECT_EQ(got.position, static_cast<uint64_t>(i - late) * block);
        EXPECT_GT(got.peak, 0.0F);
    }
    take_all();
    ASSERT_EQ(first.size(), 90 * block);
    for (std::size_t i = 100; i + 100 < first.size(); ++i)
        ASSERT_NEAR(first[i], second[i], numbered(48)) << i << ": more than 1 ms";
}

TEST_F(aligned_reading, has_silence_where_the_system_lost_samples) {
    record({.rate = device_rate});
    for (int i = 0; i < 100; ++i) {
        deliver();
        if (i == 40) lose(20);
        ASSERT_EQ(read(), WRAPPER_AUDIO_OK);
    }
    EXPECT_NEAR(static_cast<double>(info().dropped), 20.0 * block, 1.0)
        << "the recorder has learned of it, too, and half a second later";
    take_all();
    ASSERT_NEAR(static_cast<double>(first.size()), 120.0 * block, 48.0);
    const std::size_t loss = 41 * block;
    for (std::size_t i = 100; i + 100 < first.size(); ++i) {
        if (i >= loss && i < loss + 20 * block - 48) {
            ASSERT_EQ(first[i], 0.0F) << i;
        } else if (i < loss || i > loss + 20 * block + 48) {
            const float missed = i < loss ? 0.0F : numbered(20 * block);
            ASSERT_NEAR(first[i] + missed, second[i], numbered(96)) << i;
        }
    }
}

TEST_F(aligned_reading, converts_first) {
    record({.rate = 16000});
    EXPECT_EQ(read(), WRAPPER_AUDIO_INVALID_ARGUMENT) << "the aligner has another rate";
    wrapper_audio_aligner_free(aligner);
    ASSERT_EQ(wrapper_audio_aligner_create(&aligner, 16000), WRAPPER_AUDIO_OK);
    microphone.hang_after(20 * block);
    ASSERT_TRUE(has_captured(20 * block));
    const auto available = info().available;
    EXPECT_LT(available, 20 * block / 3);
    ASSERT_EQ(read(available), WRAPPER_AUDIO_OK);
    take_all();
    ASSERT_EQ(first.size(), available);
    for (std::size_t i = 100; i + 100 < first.size(); ++i)
        ASSERT_NEAR(first[i], numbered(3 * i), numbered(48)) << i;
}

TEST_F(aligned_reading, refuses_what_makes_no_sense) {
    record({.rate = device_rate});
    deliver();
    EXPECT_EQ(read(block, 2), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(read(block, -1), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_recorder_read_aligner(nullptr, aligner, 0, 1, 0, &got), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_recorder_read_aligner(recorder, nullptr, 0, 1, 0, &got), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_recorder_read_aligner(recorder, aligner, 0, 1, 0, nullptr), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(read(100, 1), WRAPPER_AUDIO_OK);
    ASSERT_EQ(wrapper_audio_aligner_flush(aligner), WRAPPER_AUDIO_OK);
    EXPECT_EQ(read(100), WRAPPER_AUDIO_INVALID_STATE);
    EXPECT_EQ(got.count, 0U);
    EXPECT_EQ(info().read, 100U) << "nothing was lost by it";
}

} // namespace
