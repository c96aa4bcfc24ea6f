// What a host reads: the samples, their positions and levels, and how long it waits for them.
#include "with_recorder.h"

using fake::device;
using fake::world;
using std::chrono::milliseconds;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// A whole number as the core's 16-bit sample.
float as_float(int value) {
    return (static_cast<float>(value) + (value > 0 ? 0.25F : value < 0 ? -0.25F : 0.0F)) / 32767.0F;
}

double rms_of(const std::vector<int16_t>& pcm) {
    double sum = 0.0;
    for (const int16_t sample : pcm)
        sum += sample / 32767.0 * (sample / 32767.0);
    return std::sqrt(sum / static_cast<double>(pcm.size()));
}

double peak_of(const std::vector<int16_t>& pcm) {
    double peak = 0.0;
    for (const int16_t sample : pcm)
        peak = std::max(peak, std::fabs(sample / 32767.0));
    return peak;
}

class reading_samples : public with_recorder {
protected:
    void SetUp() override {
        with_recorder::SetUp();
        microphone.sound = [](uint64_t n) { return as_float(static_cast<int>(n * 7919 % 20001) - 10000); };
    }

    uint64_t due(int32_t rate) const {
        const double exact = static_cast<double>(info().captured) * rate / info().device_rate;
        return static_cast<uint64_t>(std::floor(exact + 0.5));
    }
};

// ---- Samples ----

TEST_F(reading_samples, gives_every_16_bit_value_of_the_core_as_it_is) {
    microphone.sound = [](uint64_t n) { return as_float(static_cast<int>(n % 65535) - 32767); };
    record({.rate = 48000});
    const reading got = read(65535);
    EXPECT_EQ(got.status, WRAPPER_AUDIO_OK);
    ASSERT_EQ(got.pcm.size(), 65535U);
    EXPECT_EQ(got.pcm.front(), -32767);
    EXPECT_EQ(got.pcm.back(), 32767);
    EXPECT_EQ(got.pcm, microphone.expected(0, 65535));
}

TEST_F(reading_samples, gives_floats_of_the_same_full_scale) {
    record({.rate = 48000});
    std::vector<float> floats(3000);
    wrapper_audio_block told;
    ASSERT_EQ(wrapper_audio_recorder_read_f32(recorder, floats.data(), floats.size(), -1, &told), WRAPPER_AUDIO_OK);
    const auto pcm = microphone.expected(0, 3000);
    for (std::size_t i = 0; i < floats.size(); ++i)
        ASSERT_EQ(floats[i], static_cast<float>(pcm[i]) / 32767.0F) << i;
    EXPECT_NEAR(told.rms, rms_of(pcm), 1e-6);
    EXPECT_NEAR(told.peak, peak_of(pcm), 1e-6);
}

TEST_F(reading_samples, is_the_same_in_pieces_of_any_size) {
    for (const wrapper_audio_recorder_options& options :
         {wrapper_audio_recorder_options{.rate = 48000}, wrapper_audio_recorder_options{.rate = 16000},
          wrapper_audio_recorder_options{.rate = 44100, .denoise = 1.0F}}) {
        record(options);
        const reading whole = read(14400);
        ASSERT_EQ(whole.pcm.size(), 14400U);
        for (const std::size_t size : {1U, 7U, 479U, 480U, 4801U}) {
            record(options);
            std::vector<int16_t> pcm;
            while (pcm.size() + size <= 14400) {
                const reading got = read(size);
                ASSERT_EQ(got.status, WRAPPER_AUDIO_OK);
                ASSERT_EQ(got.block.position, pcm.size());
                ASSERT_EQ(got.block.count, size);
                ASSERT_EQ(got.block.dropped, 0U);
                ASSERT_NEAR(got.block.rms, rms_of(got.pcm), 1e-4);
                ASSERT_NEAR(got.block.peak, peak_of(got.pcm), 1e-4);
                pcm.insert(pcm.end(), got.pcm.begin(), got.pcm.end());
                ASSERT_EQ(info().read, pcm.size());
            }
            ASSERT_TRUE(std::equal(pcm.begin(), pcm.end(), whole.pcm.begin())) << size;
        }
    }
}

TEST_F(reading_samples, gives_as_many_in_all_as_belong_to_what_was_captured) {
    for (const int32_t device_rate : {8000, 44100, 48000, 96000}) {
        for (const int32_t rate : {8000, 16000, 44100, 48000}) {
            for (const float denoise : {0.0F, 1.0F}) {
                world().devices = {device{.name = "A", .rate = static_cast<double>(device_rate)}};
                record({.rate = rate, .denoise = denoise, .buffer_ms = 200});
                const std::size_t before = read(1000).pcm.size();
                wrapper_audio_recorder_stop(recorder);
                const reading rest = read_to_end();
                EXPECT_EQ(rest.status, WRAPPER_AUDIO_STOPPED);
                EXPECT_EQ(before + rest.pcm.size(), due(rate)) << device_rate << " to " << rate;
                EXPECT_EQ(info().read, due(rate));
                EXPECT_EQ(info().dropped, 0U);
                EXPECT_EQ(info().available, 0U);
            }
        }
    }
}

TEST_F(reading_samples, of_none_returns_at_once) {
    microphone.hang_after(0);
    record({});
    const reading got = read(0);
    EXPECT_EQ(got.status, WRAPPER_AUDIO_OK);
    EXPECT_EQ(got.block.position, 0U);
    EXPECT_EQ(got.block.speech_probability, -1.0F);
    wrapper_audio_block told;
    EXPECT_EQ(wrapper_audio_recorder_read_s16(recorder, nullptr, 0, -1, &told), WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_recorder_read_f32(recorder, nullptr, 0, -1, &told), WRAPPER_AUDIO_OK);
    microphone.go_on();
    EXPECT_EQ(read(100).status, WRAPPER_AUDIO_OK);
    EXPECT_EQ(read(0).block.position, 100U);
}

TEST_F(reading_samples, tells_what_there_is) {
    world().devices = {device{.name = "A", .rate = 16000}};
    microphone.hang_after(960);
    microphone.keeps_time = true;
    create({.rate = 16000});
    EXPECT_EQ(info().device_rate, 0);
    EXPECT_EQ(info().first_sample_time, 0);
    const auto before = std::chrono::steady_clock::now();
    ASSERT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK);
    ASSERT_TRUE(has_captured(960));
    ASSERT_TRUE(soon([&] { return info().available == 960; }));
    read(100);
    EXPECT_EQ(info().captured, 960U);
    EXPECT_EQ(info().available, 860U);
    EXPECT_EQ(info().read, 100U);
    EXPECT_EQ(info().delay, 0);
    const auto first = std::chrono::nanoseconds(before.time_since_epoch()).count();
    EXPECT_EQ(info().first_sample_time, first) << "30 ms before the first block was there";
    microphone.go_on();
}

TEST_F(reading_samples, tells_the_delay_of_conversion_and_denoising) {
    world().devices = {device{.name = "A", .rate = 44100}};
    record({.rate = 44100, .denoise = 1.0F});
    const int32_t delay = info().delay;
    EXPECT_GT(delay, 44100 * 2 / 100);
    EXPECT_LT(delay, 44100 / 5);
    wrapper_audio_processor* chain = nullptr;
    const wrapper_audio_voice_options same{.in_rate = 44100, .out_rate = 44100, .denoise = 1.0F};
    ASSERT_EQ(wrapper_audio_voice_create(&chain, &same), WRAPPER_AUDIO_OK);
    EXPECT_EQ(static_cast<std::size_t>(delay), wrapper_audio_processor_delay(chain));
    wrapper_audio_processor_free(chain);
}

TEST_F(reading_samples, converts_as_the_voice_chain_does) {
    world().devices = {device{.name = "A", .rate = 44100}};
    world().denoiser = [](float* frame) { std::for_each_n(frame, 480, [](float& x) { x *= 0.5F; }); };
    for (const int32_t conversion : {WRAPPER_AUDIO_CONVERSION_CLEAN, WRAPPER_AUDIO_CONVERSION_LINEAR}) {
        record({.rate = 16000, .denoise = 0.75F, .conversion = conversion});
        const reading got = read(3000);
        std::vector<float> captured;
        for (const int16_t sample : microphone.expected(0, 44100))
            captured.push_back(static_cast<float>(sample) / 32767.0F);
        wrapper_audio_processor* chain = nullptr;
        const wrapper_audio_voice_options same{
            .in_rate = 44100, .out_rate = 16000, .denoise = 0.75F, .conversion = conversion};
        ASSERT_EQ(wrapper_audio_voice_create(&chain, &same), WRAPPER_AUDIO_OK);
        std::vector<float> floats(16000);
        std::size_t count = 0;
        wrapper_audio_processor_process(chain, captured.data(), captured.size(), floats.data(), 16000, &count);
        wrapper_audio_processor_free(chain);
        ASSERT_GT(count, 3000U);
        std::vector<int16_t> pcm(3000);
        wrapper_audio_f32_to_s16(floats.data(), 3000, pcm.data());
        EXPECT_EQ(got.pcm, pcm);
    }
}

// ---- Levels and speech ----

TEST_F(reading_samples, tells_the_levels_of_what_it_returns) {
    world().denoiser = [](float* frame) { std::for_each_n(frame, 480, [](float& x) { x *= 4.0F; }); };
    microphone.sound = [](uint64_t n) { return n % 2 == 0 ? 0.5F : -0.5F; };
    record({.rate = 48000, .denoise = 1.0F});
    const reading got = read(960);
    EXPECT_THAT(got.pcm, Each(testing::AnyOf(32767, -32767)));
    EXPECT_EQ(got.block.peak, 1.0F);
    EXPECT_EQ(got.block.rms, 1.0F);
    EXPECT_EQ(got.block.clipped, 0U) << "the device is at half of full scale";
    float floats[960];
    wrapper_audio_block told;
    ASSERT_EQ(wrapper_audio_recorder_read_f32(recorder, floats, 960, -1, &told), WRAPPER_AUDIO_OK);
    EXPECT_NEAR(told.peak, 2.0F, 1e-3F) << "floats are not limited";
    EXPECT_NEAR(told.rms, 2.0F, 1e-3F);
}

TEST_F(reading_samples, tells_the_levels_before_and_after_denoising) {
    world().denoiser = [](float* frame) { std::fill_n(frame, 480, 0.0F); };
    // 20 ms at half of full scale, then 10 ms at a quarter, in turn.
    microphone.sound = [](uint64_t n) { return n / 480 % 3 < 2 ? 0.5F : -0.25F; };
    record({.rate = 48000, .denoise = 1.0F});
    const reading loud = read(960);
    EXPECT_THAT(loud.pcm, Each(0));
    EXPECT_EQ(loud.block.rms, 0.0F);
    EXPECT_EQ(loud.block.peak, 0.0F);
    EXPECT_NEAR(loud.block.captured_rms, 0.5, 1e-4);
    EXPECT_NEAR(loud.block.captured_peak, 0.5, 1e-4);
    const reading soft = read(480);
    EXPECT_NEAR(soft.block.captured_rms, 0.25, 1e-4);
    EXPECT_NEAR(soft.block.captured_peak, 0.25, 1e-4);
    const reading both = read(1440);
    EXPECT_NEAR(both.block.captured_rms, std::sqrt((2 * 0.25 + 0.0625) / 3), 1e-4);
    EXPECT_NEAR(both.block.captured_peak, 0.5, 1e-4);
}

TEST_F(reading_samples, repeats_the_levels_of_the_10_ms_that_a_short_read_lies_in) {
    microphone.sound = [](uint64_t n) { return n < 480 ? 0.5F : 0.25F; };
    record({.rate = 48000});
    EXPECT_NEAR(read(1).block.captured_peak, 0.5, 1e-4);
    EXPECT_NEAR(read(478).block.captured_peak, 0.5, 1e-4);
    EXPECT_NEAR(read(1).block.captured_peak, 0.5, 1e-4);
    EXPECT_NEAR(read(1).block.captured_peak, 0.25, 1e-4);
}

TEST_F(reading_samples, tells_levels_where_10_ms_are_no_whole_number_of_samples) {
    world().devices = {device{.name = "A", .rate = 11025}};
    // 10 ms number k begin at the sample 110.25 * k, rounded up.
    microphone.sound = [](uint64_t n) {
        const uint64_t number = n * 100 / 11025;
        return static_cast<float>(number + 1) / 200.0F;
    };
    record({.rate = 8000});
    for (int number = 1; number <= 150; ++number) {
        const reading got = read(80);
        ASSERT_NEAR(got.block.captured_peak, number / 200.0, 1e-4) << number;
        ASSERT_NEAR(got.block.captured_rms, number / 200.0, 1e-4) << number;
    }
}

TEST_F(reading_samples, counts_what_is_at_full_scale_on_either_side) {
    microphone.sound = [](uint64_t n) {
        const uint64_t at = n % 4800;
        if (at == 481) return as_float(32766); // the largest sample of a 16-bit device
        if (at == 482) return as_float(-32765);
        return at == 10 ? 1.0F : at == 479 ? -1.5F : at == 480 ? -1.0F : 0.5F;
    };
    record({.rate = 48000, .denoise = 1.0F});
    EXPECT_EQ(read(480).block.clipped, 2U);
    EXPECT_EQ(read(480).block.clipped, 2U);
    EXPECT_EQ(read(3840).block.clipped, 0U);
    EXPECT_EQ(read(1).block.clipped, 2U) << "the 10 ms have begun";
    EXPECT_EQ(read(479).block.clipped, 0U);
    EXPECT_EQ(read(480).block.clipped, 2U);
    EXPECT_EQ(read(3840 + 960).block.clipped, 4U) << "in several 10 ms";
}

TEST_F(reading_samples, does_not_know_of_speech_unless_it_is_asked) {
    record({.rate = 48000});
    EXPECT_EQ(read(4800).block.speech_probability, -1.0F);
    float probabilities[10];
    EXPECT_EQ(wrapper_audio_recorder_take_speech(recorder, probabilities, 10), 0U);
    EXPECT_THAT(calls_of("rnnoise_process_frame"), IsEmpty());
}

TEST_F(reading_samples, tells_the_speech_of_each_10_ms) {
    // The denoiser gives a frame two frames late; what it says is about that one.
    for (const bool denoise : {false, true}) {
        create({.rate = 16000, .denoise = denoise ? 1.0F : 0.0F, .speech = denoise ? 0 : 1});
        int frame = -2;
        world().speech = [frame](const float* /*samples*/) mutable {
            return static_cast<float>(frame++ % 50) / 100.0F;
        };
        ASSERT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK);
        EXPECT_EQ(read(160).block.speech_probability, 0.0F);
        EXPECT_EQ(read(160).block.speech_probability, 0.01F);
        EXPECT_EQ(read(480).block.speech_probability, 0.04F) << "the largest one";
        EXPECT_EQ(read(1).block.speech_probability, 0.05F);
        EXPECT_EQ(read(159).block.speech_probability, -1.0F) << "no 10 ms begin";
        float probabilities[10] = {};
        EXPECT_EQ(wrapper_audio_recorder_take_speech(recorder, probabilities, 4), 4U);
        EXPECT_EQ(wrapper_audio_recorder_take_speech(recorder, probabilities + 4, 6), 2U);
        for (int i = 0; i < 6; ++i)
            EXPECT_EQ(probabilities[i], static_cast<float>(i) / 100.0F);
        EXPECT_EQ(wrapper_audio_recorder_take_speech(recorder, probabilities, 10), 0U);
        EXPECT_EQ(wrapper_audio_recorder_take_speech(recorder, probabilities, 0), 0U);
    }
}

TEST_F(reading_samples, tells_the_largest_speech_wherever_it_stands) {
    create({.rate = 16000, .speech = 1});
    world().speech = [frame = -2](const float* /*samples*/) mutable { return frame++ % 5 == 1 ? 0.75F : 0.25F; };
    ASSERT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK);
    EXPECT_EQ(read(800).block.speech_probability, 0.75F);
    EXPECT_EQ(read(160).block.speech_probability, 0.25F);
    EXPECT_EQ(read(640).block.speech_probability, 0.75F);
    EXPECT_EQ(read(160).block.speech_probability, 0.25F);
}

TEST_F(reading_samples, tells_the_speech_to_the_end) {
    world().devices = {device{.name = "A", .rate = 44100}};
    record({.rate = 8000, .denoise = 1.0F, .buffer_ms = 500});
    read(1000);
    wrapper_audio_recorder_stop(recorder);
    read_to_end();
    std::vector<float> probabilities(10000);
    const std::size_t count = wrapper_audio_recorder_take_speech(recorder, probabilities.data(), probabilities.size());
    EXPECT_EQ(count, (info().captured * 100 + 44099) / 44100) << "the 10 ms that have begun";
}

TEST_F(reading_samples, forgets_speech_that_nobody_takes) {
    world().speech = [frame = -2](const float* /*samples*/) mutable { return static_cast<float>(frame++) / 4096.0F; };
    record({.rate = 16000, .denoise = 1.0F, .buffer_ms = 100});
    for (int i = 0; i < 100; ++i)
        read(1600);
    std::vector<float> probabilities(1000);
    const std::size_t count = wrapper_audio_recorder_take_speech(recorder, probabilities.data(), 1000);
    EXPECT_GE(count, 10U);
    ASSERT_LT(count, 500U);
    for (std::size_t i = 0; i < count; ++i)
        ASSERT_EQ(probabilities[i], static_cast<float>(1000 - count + i) / 4096.0F);
}

// ---- Waiting ----

TEST_F(reading_samples, returns_what_there_is_when_the_time_runs_out) {
    microphone.hang_after(block);
    record({.rate = 48000});
    ASSERT_TRUE(soon([&] { return info().available == block; }));
    const auto before = std::chrono::steady_clock::now();
    const reading none = read(2000, 0);
    EXPECT_EQ(none.status, WRAPPER_AUDIO_TIMEOUT);
    EXPECT_EQ(none.pcm, microphone.expected(0, block));
    EXPECT_EQ(none.block.position, 0U);
    EXPECT_EQ(std::chrono::steady_clock::now(), before) << "it has waited";
    test_clock::let_waits_pass(true);
    const reading late = read(100, 250);
    EXPECT_EQ(late.status, WRAPPER_AUDIO_TIMEOUT);
    EXPECT_EQ(late.block.count, 0U);
    EXPECT_EQ(late.block.position, block);
    EXPECT_EQ(late.block.rms, 0.0F);
    EXPECT_EQ(std::chrono::steady_clock::now() - before, milliseconds(250));
    test_clock::let_waits_pass(false);
    microphone.go_on();
    EXPECT_EQ(read(100).status, WRAPPER_AUDIO_OK);
}

TEST_F(reading_samples, tells_that_no_data_come_over_any_number_of_reads) {
    record({.rate = 48000, .stall_ms = 1000});
    read(100);
    wrapper_audio_recorder_stop(recorder);
    read_to_end();
    microphone.hang_after(block);
    ASSERT_EQ(wrapper_audio_recorder_open(recorder, nullptr), WRAPPER_AUDIO_OK);
    ASSERT_EQ(read(block).status, WRAPPER_AUDIO_OK);
    test_clock::let_waits_pass(true);
    for (int time = 0; time < 2; ++time) {
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(read(1, 300).status, WRAPPER_AUDIO_TIMEOUT) << time << ", " << i;
        const auto before = std::chrono::steady_clock::now();
        EXPECT_EQ(read(1, 300).status, WRAPPER_AUDIO_NO_DATA) << time;
        EXPECT_EQ(std::chrono::steady_clock::now() - before, milliseconds(100));
    }
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), "") << "the recording goes on";
    test_clock::let_waits_pass(false);
    microphone.go_on();
    const reading again = read(100);
    EXPECT_EQ(again.status, WRAPPER_AUDIO_OK);
    EXPECT_EQ(again.block.position, block);
    EXPECT_EQ(again.pcm, microphone.expected(block, 100));
}

TEST_F(reading_samples, waits_twice_as_long_for_the_very_first_sound) {
    microphone.hang_after(0);
    record({.stall_ms = 1000});
    test_clock::let_waits_pass(true);
    const auto before = std::chrono::steady_clock::now();
    const reading got = read(100);
    EXPECT_EQ(got.status, WRAPPER_AUDIO_NO_DATA);
    EXPECT_EQ(got.block.count, 0U);
    EXPECT_EQ(std::chrono::steady_clock::now() - before, milliseconds(2000));
    EXPECT_EQ(info().first_sample_time, 0);
    microphone.go_on();
}

TEST_F(reading_samples, gives_what_there_is_with_no_data) {
    microphone.hang_after(block);
    record({.rate = 48000});
    test_clock::let_waits_pass(true);
    ASSERT_TRUE(soon([&] { return info().available == block; }));
    const reading got = read(block + 1);
    EXPECT_EQ(got.status, WRAPPER_AUDIO_NO_DATA);
    EXPECT_EQ(got.block.count, block);
    microphone.go_on();
}

TEST_F(reading_samples, that_waits_ends_with_what_there_is_when_another_thread_stops) {
    world().devices = {device{.name = "A", .rate = 16000}};
    microphone.hang_after(480);
    record({.rate = 16000});
    reading got;
    std::thread reader([&] { got = read(1000000); });
    ASSERT_TRUE(soon([&] { return info().read == 480; }));
    std::atomic<bool> stopped = false;
    std::thread stopper([&] {
        EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_OK);
        stopped = true;
    });
    uint64_t delivered = 480;
    EXPECT_TRUE(soon([&] {
        microphone.hang_after(delivered += 480);
        return stopped.load();
    }));
    reader.join();
    stopper.join();
    EXPECT_EQ(got.status, WRAPPER_AUDIO_STOPPED);
    EXPECT_EQ(got.block.count, info().read);
    EXPECT_EQ(got.pcm, microphone.expected(0, got.block.count));
    EXPECT_EQ(info().read, info().captured);
    const reading after = read(10);
    EXPECT_EQ(after.status, WRAPPER_AUDIO_STOPPED);
    EXPECT_EQ(after.block.count, 0U);
    EXPECT_EQ(after.block.position, info().captured);
    EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), "") << "nothing has failed";
}

TEST_F(reading_samples, tells_of_a_failure_behind_the_samples_before_it) {
    world().devices = {device{"Mic \xFF"}};
    for (const float denoise : {0.0F, 1.0F}) {
        microphone.fail_after(10 * block);
        record({.rate = 48000, .denoise = denoise});
        EXPECT_EQ(read(480).status, WRAPPER_AUDIO_OK);
        ASSERT_TRUE(soon(no_device_is_held)) << "the device is given back by itself";
        const reading rest = read(20 * block);
        EXPECT_EQ(rest.status, WRAPPER_AUDIO_DEVICE_FAILED);
        EXPECT_EQ(rest.pcm.size(), 10 * block - 480);
        if (denoise == 0.0F) {
            EXPECT_EQ(rest.pcm, microphone.expected(480, 10 * block - 480));
        }
        EXPECT_EQ(read(1, 0).status, WRAPPER_AUDIO_DEVICE_FAILED);
        const std::string words = fake::error_text(paUnanticipatedHostError);
        EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), "Host:Mic \uFFFD failed: " + words);
        EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_LOG_LINE), "[audio_wrapper] Pa_ReadStream ОШИБКА: " + words);
        EXPECT_EQ(wrapper_audio_recorder_stop(recorder), WRAPPER_AUDIO_OK);
        EXPECT_EQ(read(1).status, WRAPPER_AUDIO_DEVICE_FAILED) << "the reason stays";
        EXPECT_EQ(text(WRAPPER_AUDIO_TEXT_REASON), "Host:Mic \uFFFD failed: " + words);
    }
}

TEST_F(reading_samples, does_not_mind_an_overflow) {
    world().results["Pa_ReadStream"] = {paInputOverflowed, paInputOverflowed};
    world().device_read = nullptr;
    world().microphone = [](float* samples, unsigned long count) { std::fill_n(samples, count, 0.5F); };
    record({.rate = 48000});
    const reading got = read(4800);
    EXPECT_EQ(got.status, WRAPPER_AUDIO_OK);
    EXPECT_THAT(got.pcm, Each(16383));
}

} // namespace
