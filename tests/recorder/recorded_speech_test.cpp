// Recordings that are read into a speech gate.
#include "with_recorder.h"

using fake::device;
using fake::world;

namespace {

constexpr uint64_t ten_ms = 480;

struct utterance {
    uint64_t begin = 0;
    uint64_t end = 0;

    bool operator==(const utterance&) const = default;
};

// A sample tells its number: 16 bits hold it as long as a test lasts.
class recorded_speech : public with_recorder {
protected:
    void SetUp() override {
        with_recorder::SetUp();
        world().devices = {device{.name = "A", .rate = 48000}};
        microphone.sound = [](uint64_t n) { return static_cast<float>(n % 30011) / 32767.0F + 1e-5F; };
    }

    void TearDown() override {
        wrapper_audio_speech_gate_free(gate_);
        with_recorder::TearDown();
    }

    // Somebody speaks in these 10 ms.
    static void speak(std::vector<std::pair<int, int>> times) {
        world().speech = [times = std::move(times), frame = -2](const float* /*samples*/) mutable {
            const int now = frame++;
            return std::any_of(times.begin(), times.end(),
                               [&](const auto& time) { return now >= time.first && now < time.second; })
                       ? 1.0F
                       : 0.0F;
        };
    }

    void listen(int32_t rate = 48000) {
        wrapper_audio_speech_options options;
        wrapper_audio_speech_defaults(&options);
        options.rate = rate;
        options.min_speech_ms = 20;
        options.hang_over_ms = 100;
        options.pre_roll_ms = 50;
        wrapper_audio_speech_gate_free(gate_);
        ASSERT_EQ(wrapper_audio_speech_gate_create(&gate_, &options), WRAPPER_AUDIO_OK);
    }

    wrapper_audio_status read_gate(std::size_t count, int32_t timeout_ms = -1) {
        const auto status = wrapper_audio_recorder_read_gate(recorder, gate_, count, timeout_ms, &last_);
        take();
        return status;
    }

    // The samples of an utterance follow each other, and are those that the microphone delivered there.
    void take() {
        std::vector<float> samples(1000);
        for (wrapper_audio_speech_piece piece{.count = 1}; piece.count > 0 || piece.ends != 0;) {
            wrapper_audio_speech_gate_take(gate_, samples.data(), samples.size(), &piece);
            if (piece.begins != 0) found_.push_back({piece.position, piece.position});
            if (piece.count == 0) continue;
            ASSERT_EQ(found_.back().end, piece.position);
            found_.back().end += piece.count;
            std::vector<int16_t> pcm(piece.count);
            wrapper_audio_f32_to_s16(samples.data(), piece.count, pcm.data());
            ASSERT_EQ(pcm, microphone.expected(piece.position, piece.count));
        }
    }

    wrapper_audio_speech_gate* gate_ = nullptr;
    wrapper_audio_block last_{};
    std::vector<utterance> found_;
};

TEST_F(recorded_speech, is_found_in_reads_of_any_length) {
    for (const std::size_t count : {1U, 479U, 4800U, 100000U}) {
        create({.rate = 48000, .speech = 1});
        speak({{50, 80}, {150, 160}});
        found_.clear();
        listen();
        ASSERT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK);
        for (std::size_t left = 96000; left > 0; left -= last_.count)
            ASSERT_EQ(read_gate(std::min(left, count)), WRAPPER_AUDIO_OK);
        EXPECT_EQ(found_, (std::vector<utterance>{{45 * ten_ms, 90 * ten_ms}, {145 * ten_ms, 170 * ten_ms}})) << count;
    }
}

TEST_F(recorded_speech, comes_with_the_same_block_as_other_reads) {
    create({.rate = 48000, .speech = 1});
    speak({{10, 20}});
    listen();
    ASSERT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK);
    ASSERT_EQ(read_gate(9600), WRAPPER_AUDIO_OK);
    EXPECT_EQ(last_.count, 9600U);
    EXPECT_EQ(last_.speech_probability, 1.0F);
    EXPECT_FLOAT_EQ(last_.peak, last_.captured_peak);
    EXPECT_GT(last_.rms, 0.0F);
    ASSERT_EQ(read_gate(480), WRAPPER_AUDIO_OK);
    EXPECT_EQ(last_.position, 9600U);
}

// A host so late that neither the samples nor the probabilities of that time are kept.
TEST_F(recorded_speech, keeps_its_place_over_losses_of_any_length) {
    microphone.keeps_time = true;
    microphone.hang_after(0);
    create({.rate = 48000, .speech = 1, .buffer_ms = 100});
    speak({{30, 40}, {2000, 2030}});
    listen();
    ASSERT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK);
    const auto deliver = [&](uint64_t end) {
        microphone.hang_after(end);
        ASSERT_TRUE(has_captured(end));
    };
    for (uint64_t at = block; at <= 20 * block; at += block) { // 0.6 s
        deliver(at);
        ASSERT_NE(read_gate(info().available, 0), WRAPPER_AUDIO_INVALID_STATE);
    }
    ASSERT_EQ(found_, (std::vector<utterance>{{25 * ten_ms, 50 * ten_ms}}));
    deliver(660 * block); // 19.8 s
    for (uint64_t at = 661; at <= 700; ++at) {
        read_gate(info().available, 0);
        deliver(at * block);
    }
    EXPECT_GT(info().dropped, 18U * 48000);
    ASSERT_EQ(found_.size(), 2U);
    EXPECT_EQ(found_[1], (utterance{1995 * ten_ms, 2040 * ten_ms}));
}

TEST_F(recorded_speech, is_cut_where_samples_were_lost) {
    microphone.keeps_time = true;
    microphone.hang_after(0);
    create({.rate = 48000, .speech = 1, .buffer_ms = 100});
    speak({{0, 1000}});
    listen();
    ASSERT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK);
    const auto deliver = [&](uint64_t end) {
        microphone.hang_after(end);
        ASSERT_TRUE(has_captured(end));
    };
    deliver(20 * block);
    const uint64_t kept = info().available;
    const uint64_t held_back = 2 * ten_ms; // in the noise suppression
    ASSERT_LT(kept, 20 * block - held_back);
    read_gate(kept - 7, 0);
    deliver(21 * block);
    read_gate(500, 0);
    ASSERT_EQ(found_.size(), 2U);
    EXPECT_EQ(found_[0], (utterance{0, kept}));
    EXPECT_EQ(found_[1].begin, 20 * block - held_back);
}

TEST_F(recorded_speech, misses_what_other_reads_returned) {
    create({.rate = 48000, .speech = 1});
    speak({{0, 1000}});
    listen();
    ASSERT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK);
    read(1000);
    read_gate(4800);
    read(2000);
    read_gate(4800);
    ASSERT_EQ(found_.size(), 2U);
    EXPECT_EQ(found_[0], (utterance{1000, 5800}));
    EXPECT_EQ(found_[1].begin, 7800U);
}

TEST_F(recorded_speech, ends_with_the_recording) {
    create({.rate = 48000, .speech = 1});
    speak({{20, 100000}});
    listen();
    microphone.fail_after(10 * block);
    ASSERT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK);
    EXPECT_EQ(read_gate(1000000), WRAPPER_AUDIO_DEVICE_FAILED);
    wrapper_audio_speech_gate_flush(gate_);
    take();
    EXPECT_EQ(found_, (std::vector<utterance>{{15 * ten_ms, 10 * block}}));
    EXPECT_EQ(read_gate(1), WRAPPER_AUDIO_INVALID_STATE) << "after a flush";
    // A new recording needs a new beginning.
    microphone.fail_after(UINT64_MAX);
    listen();
    ASSERT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK);
    read_gate(480);
    wrapper_audio_speech_gate_skip(gate_, 1);
    EXPECT_EQ(read_gate(480), WRAPPER_AUDIO_INVALID_STATE) << "the gate is ahead";
    EXPECT_EQ(last_.count, 0U);
    wrapper_audio_speech_gate_reset(gate_);
    EXPECT_EQ(read_gate(480), WRAPPER_AUDIO_OK);
    EXPECT_EQ(last_.position, 480U);
}

TEST_F(recorded_speech, needs_a_recorder_that_tells_of_it_and_a_gate_that_fits) {
    record({.rate = 48000});
    listen();
    EXPECT_EQ(read_gate(480), WRAPPER_AUDIO_INVALID_ARGUMENT) << "it does not tell of speech";
    for (const auto& options : {wrapper_audio_recorder_options{.rate = 48000, .speech = 1},
                                wrapper_audio_recorder_options{.rate = 48000, .denoise = 0.5F}}) {
        create(options);
        listen();
        EXPECT_EQ(read_gate(480), WRAPPER_AUDIO_INVALID_STATE) << "not open yet";
        EXPECT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK);
        EXPECT_EQ(read_gate(480), WRAPPER_AUDIO_OK);
    }
    wrapper_audio_block told{.count = 99};
    EXPECT_EQ(wrapper_audio_recorder_read_gate(nullptr, gate_, 1, -1, &told), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(told.count, 0U) << "filled in any case";
    EXPECT_EQ(wrapper_audio_recorder_read_gate(recorder, nullptr, 1, -1, &told), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_recorder_read_gate(recorder, gate_, 1, -1, nullptr), WRAPPER_AUDIO_INVALID_ARGUMENT);
    listen(16000);
    EXPECT_EQ(read_gate(480), WRAPPER_AUDIO_INVALID_ARGUMENT) << "another rate";
    EXPECT_EQ(info().read, 480U);
}

// The quickest hour: the doubles denoise it, and hardly anything comes out.
TEST_F(recorded_speech, that_nobody_takes_from_a_processor_is_dropped_after_an_hour) {
    constexpr float step = 0x1p-20F; // so that no number is a probable one
    world().speech = [frame = -2](const float* /*samples*/) mutable { return step * static_cast<float>(frame++); };
    wrapper_audio_processor* chain = nullptr;
    const wrapper_audio_voice_options options{
        .in_rate = 48000, .out_rate = 100, .speech = 1, .conversion = WRAPPER_AUDIO_CONVERSION_LINEAR};
    ASSERT_EQ(wrapper_audio_voice_create(&chain, &options), WRAPPER_AUDIO_OK);
    constexpr std::size_t hour = 360000; // of 10 ms
    const std::vector<float> minute(6000 * ten_ms);
    std::vector<float> out(minute.size());
    std::size_t given = 0;
    for (int i = 0; i < 61; ++i)
        wrapper_audio_processor_process(chain, minute.data(), minute.size(), out.data(), out.size(), &given);
    wrapper_audio_processor_process(chain, minute.data(), ten_ms, out.data(), out.size(), &given);
    std::vector<float> told(2 * hour);
    told.resize(wrapper_audio_processor_take_speech(chain, told.data(), told.size()));
    wrapper_audio_processor_free(chain);
    ASSERT_GE(told.size(), hour);
    ASSERT_LE(told.size(), hour + 1);
    EXPECT_EQ(told.back(), step * (61 * 6000 + 1 - 1 - 2)) << "the last one";
    EXPECT_EQ(told.front(), told.back() - step * static_cast<float>(told.size() - 1));
}

} // namespace
