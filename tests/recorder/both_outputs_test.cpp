// Recorders that return what they record denoised and undenoised: each as a recorder that does only that returns it,
// whatever happens meanwhile.
#include "with_recorder.h"

#include <random>

using fake::device;
using fake::world;
using std::chrono::milliseconds;

namespace {

// What reads returned, one after the other.
struct both_reads {
    std::vector<float> denoised; // or all there is
    std::vector<float> undenoised;
    std::vector<std::pair<uint64_t, uint64_t>> places; // of each read, and how many samples are lost in it
    std::vector<float> levels;
    wrapper_audio_status status = WRAPPER_AUDIO_OK;
};

class both_outputs : public with_recorder {
protected:
    void SetUp() override {
        with_recorder::SetUp();
        microphone.sound = [](uint64_t n) { return static_cast<float>(n * 7919 % 20011) / 32767.0F - 0.3F; };
        world().denoiser = [](float* frame) {
            std::for_each_n(frame, 480, [last = 0.0F](float& x) mutable { x = last = 0.5F * x + 0.25F * last; });
        };
    }

    void use(int32_t device_rate) {
        world().devices = {device{.name = "A", .rate = static_cast<double>(device_rate)}};
        block_ = static_cast<uint64_t>(device_rate) * 30 / 1000;
    }

    wrapper_audio_status read_more(both_reads& all, std::size_t count, int32_t timeout_ms = -1) const {
        std::vector<float> denoised(count);
        std::vector<float> undenoised(count);
        wrapper_audio_block told;
        all.status = keeps_both_ ? wrapper_audio_recorder_read_both_f32(recorder, denoised.data(), undenoised.data(),
                                                                        count, timeout_ms, &told)
                                 : wrapper_audio_recorder_read_f32(recorder, denoised.data(), count, timeout_ms, &told);
        all.denoised.insert(all.denoised.end(), denoised.begin(), denoised.begin() + told.count);
        if (keeps_both_)
            all.undenoised.insert(all.undenoised.end(), undenoised.begin(), undenoised.begin() + told.count);
        all.places.emplace_back(told.position, told.dropped);
        all.levels.insert(all.levels.end(), {told.rms, told.peak, told.captured_peak, told.speech_probability});
        return all.status;
    }

    both_reads read_all() const {
        both_reads all;
        std::mt19937 random(1);
        while (read_more(all, random() % 1500 + 1) == WRAPPER_AUDIO_OK) {
        }
        return all;
    }

    // Up to this block, in the device's own time.
    void deliver(uint64_t blocks) {
        microphone.hang_after(blocks * block_);
        ASSERT_TRUE(has_captured(blocks * block_));
    }

    using scenario = std::function<both_reads()>;

    both_reads run(wrapper_audio_recorder_options options, const scenario& record_it) {
        keeps_both_ = options.undenoised != 0;
        create(options);
        both_reads all = record_it();
        test_clock::let_waits_pass(false);
        microphone.fail_after(UINT64_MAX);
        microphone.go_on();
        wrapper_audio_recorder_free(std::exchange(recorder, nullptr));
        EXPECT_TRUE(soon(no_device_is_held));
        return all;
    }

    void expect_those_of_two(const wrapper_audio_recorder_options& denoising, const scenario& record_it) {
        wrapper_audio_recorder_options both = denoising;
        both.undenoised = 1;
        wrapper_audio_recorder_options listening = denoising;
        listening.denoise = 0.0F;
        listening.speech = 1;
        const both_reads found = run(both, record_it);
        const both_reads denoised = run(denoising, record_it);
        const both_reads undenoised = run(listening, record_it);
        EXPECT_GT(found.denoised.size(), 100U);
        EXPECT_EQ(found.denoised, denoised.denoised);
        EXPECT_EQ(found.undenoised, undenoised.denoised);
        EXPECT_NE(found.denoised, found.undenoised);
        EXPECT_EQ(found.places, denoised.places);
        EXPECT_EQ(found.places, undenoised.places);
        EXPECT_EQ(found.levels, denoised.levels);
        EXPECT_EQ(found.status, denoised.status);
    }

    // With any rates, conversions and strengths.
    void expect_those_of_two(const scenario& record_it) {
        for (const int32_t device_rate : {8000, 16000, 44100, 48000}) {
            for (const int32_t rate : {8000, 16000, 44100, 48000}) {
                SCOPED_TRACE(std::to_string(device_rate) + " to " + std::to_string(rate));
                use(device_rate);
                expect_those_of_two({.rate = rate, .denoise = 1.0F, .buffer_ms = 500}, record_it);
                expect_those_of_two(
                    {.rate = rate, .denoise = 0.3F, .conversion = WRAPPER_AUDIO_CONVERSION_LINEAR, .buffer_ms = 500},
                    record_it);
                if (HasFailure()) return;
            }
        }
    }

    void open() const { ASSERT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK); }

    uint64_t block_ = 0;
    bool keeps_both_ = false;
};

TEST_F(both_outputs, are_those_of_two_recorders_when_the_device_fails) {
    expect_those_of_two([&] {
        microphone.fail_after(50 * block_);
        open();
        return read_all();
    });
}

TEST_F(both_outputs, are_those_of_two_recorders_after_a_stop) {
    expect_those_of_two([&] {
        microphone.hang_after(10 * block_);
        open();
        EXPECT_TRUE(has_captured(10 * block_));
        std::thread device([&] { // which delivers one more block
            EXPECT_TRUE(soon([] { return test_clock::waiting() > 0; }));
            microphone.go_on();
        });
        EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_OK);
        device.join();
        EXPECT_EQ(info().captured, 11 * block_);
        both_reads all = read_all();
        EXPECT_EQ(all.status, WRAPPER_AUDIO_STOPPED);
        return all;
    });
}

TEST_F(both_outputs, are_those_of_two_recorders_when_the_device_hangs) {
    expect_those_of_two([&] {
        microphone.hang_after(10 * block_);
        open();
        EXPECT_TRUE(has_captured(10 * block_));
        test_clock::let_waits_pass(true);
        EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK);
        return read_all();
    });
}

TEST_F(both_outputs, are_those_of_two_recorders_when_reads_come_late) {
    microphone.keeps_time = true;
    expect_those_of_two([&] {
        microphone.hang_after(0);
        open();
        both_reads all;
        for (const uint64_t blocks : {80U, 85U, 160U, 163U}) {
            deliver(blocks);
            read_more(all, static_cast<std::size_t>(info().rate / 3), 0);
        }
        EXPECT_GT(info().dropped, static_cast<uint64_t>(info().rate));
        return all;
    });
}

TEST_F(both_outputs, are_those_of_two_recorders_when_the_system_loses_sound) {
    microphone.keeps_time = true;
    use(44100);
    expect_those_of_two({.rate = 16000, .denoise = 1.0F}, [&] {
        microphone.hang_after(0);
        open();
        both_reads all;
        deliver(70);
        test_clock::skip(milliseconds(500));
        deliver(110);
        for (int i = 0; i < 20; ++i)
            read_more(all, 2400, 0);
        EXPECT_NEAR(static_cast<double>(info().dropped), 8000.0, 100.0);
        return all;
    });
}

TEST_F(both_outputs, stay_in_step_with_every_other_read) {
    record({.rate = 48000, .denoise = 1.0F, .undenoised = 1});
    keeps_both_ = true;
    wrapper_audio_speech_options wanted;
    wrapper_audio_speech_defaults(&wanted);
    wanted.rate = 48000;
    wrapper_audio_speech_gate* gate = nullptr;
    ASSERT_EQ(wrapper_audio_speech_gate_create(&gate, &wanted), WRAPPER_AUDIO_OK);
    uint64_t position = 0;
    for (const std::size_t count : {1U, 511U, 512U, 513U, 3000U}) {
        std::vector<float> floats(count);
        wrapper_audio_block told;
        EXPECT_EQ(read(count).status, WRAPPER_AUDIO_OK);
        EXPECT_EQ(wrapper_audio_recorder_read_f32(recorder, floats.data(), count, -1, &told), WRAPPER_AUDIO_OK);
        EXPECT_EQ(wrapper_audio_recorder_read_gate(recorder, gate, count, -1, &told), WRAPPER_AUDIO_OK);
        position += 3 * count;
        both_reads both;
        EXPECT_EQ(read_more(both, count), WRAPPER_AUDIO_OK);
        EXPECT_EQ(both.places.front().first, position);
        std::vector<int16_t> pcm(count);
        wrapper_audio_f32_to_s16(both.undenoised.data(), count, pcm.data());
        EXPECT_EQ(pcm, microphone.expected(position, count));
        position += count;
    }
    wrapper_audio_speech_gate_free(gate);
}

TEST_F(both_outputs, need_denoising) {
    wrapper_audio_recorder* made = nullptr;
    for (const int32_t undenoised : {INT32_MIN, -1, 1, 2, INT32_MAX}) {
        for (const float strength : {0.0F, 1e-30F, 1.0F}) {
            const wrapper_audio_recorder_options options{.denoise = strength, .speech = 1, .undenoised = undenoised};
            EXPECT_EQ(wrapper_audio_recorder_create(&made, &options),
                      undenoised == 1 && strength > 0.0F ? WRAPPER_AUDIO_OK : WRAPPER_AUDIO_INVALID_ARGUMENT);
            wrapper_audio_recorder_free(made);
        }
    }
}

TEST_F(both_outputs, are_read_with_good_arguments) {
    float denoised[10];
    float undenoised[10];
    wrapper_audio_block told;
    const auto read_both = [&](float* one, float* other, std::size_t count) {
        told.count = 99;
        return wrapper_audio_recorder_read_both_f32(recorder, one, other, count, -1, &told);
    };
    EXPECT_EQ(read_both(denoised, undenoised, 10), WRAPPER_AUDIO_INVALID_ARGUMENT) << "no recorder";
    record({.denoise = 1.0F});
    EXPECT_EQ(read_both(denoised, undenoised, 10), WRAPPER_AUDIO_INVALID_ARGUMENT) << "it does not keep them";
    EXPECT_EQ(told.count, 0U) << "filled in any case";
    create({.denoise = 1.0F, .undenoised = 1});
    EXPECT_EQ(read_both(denoised, undenoised, 10), WRAPPER_AUDIO_INVALID_STATE) << "not open yet";
    open();
    EXPECT_EQ(read_both(nullptr, undenoised, 10), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(read_both(denoised, nullptr, 10), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_recorder_read_both_f32(recorder, denoised, undenoised, 10, -1, nullptr),
              WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(info().read, 0U);
    EXPECT_EQ(read_both(nullptr, nullptr, 0), WRAPPER_AUDIO_OK);
    EXPECT_EQ(read_both(denoised, undenoised, 10), WRAPPER_AUDIO_OK);
    EXPECT_EQ(told.count, 10U);
}

} // namespace
