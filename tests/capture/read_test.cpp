// Reading: what is refused, what PortAudio and the denoiser are asked, and every number against the plain reference.
#include "bits.h"
#include "fixture.h"
#include "guarded_buffer.h"
#include "read_reference.h"
#include "signals.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>

using fake::world;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using signals::infinity;
using signals::nan;
constexpr int32_t int_max = std::numeric_limits<int32_t>::max();

// Something that a denoiser might do: nonlinear, and different for each position in the frame.
void bend(float* frame) {
    for (int j = 0; j < 480; ++j)
        frame[j] = frame[j] * 0.75F + static_cast<float>(j % 7) - 3.0F;
}

class read : public with_fakes {
protected:
    // A context at these rates whose microphone delivers `samples` at each read.
    static wrapper_audio_ctx* listening(double capture_rate, int output_rate, const std::vector<float>& samples,
                                        int denoise = 0) {
        world().devices[0].rate = capture_rate;
        world().microphone = [samples](float* buffer, unsigned long count) {
            for (unsigned long i = 0; i < count; ++i)
                buffer[i] = i < samples.size() ? samples[i] : 0.0F;
        };
        world().denoiser = bend;
        wrapper_audio_ctx* ctx = wrapper_audio_init(output_rate, denoise, nullptr);
        forget();
        return ctx;
    }

    struct outcome {
        int32_t count;
        std::vector<int16_t> pcm;
        float rms;
        float peak;
    };

    // A read into a buffer that ends, or every other time begins, at a guard page. Only elements that were returned may
    // have been written.
    static outcome read_once(wrapper_audio_ctx* ctx, int32_t ms, int32_t capacity) {
        static int reads = 0;
        guarded_buffer<int16_t> pcm(static_cast<size_t>(capacity), ++reads % 2 == 0 ? guard::before : guard::behind);
        std::fill_n(pcm.data(), capacity, int16_t{-32768});
        outcome result{0, {}, -7.0F, -7.0F};
        result.count = wrapper_audio_read(ctx, ms, pcm.data(), capacity, &result.rms, &result.peak);
        const int32_t written = std::max(result.count, 0);
        result.pcm.assign(pcm.data(), pcm.data() + written);
        for (int32_t i = written; i < capacity; ++i) {
            if (pcm[static_cast<size_t>(i)] != -32768) ADD_FAILURE() << "element " << i << " was touched";
        }
        return result;
    }

    static std::vector<int16_t> pcm_of(const std::vector<float>& samples) {
        wrapper_audio_ctx* ctx = listening(16000, 16000, samples);
        const outcome result = read_once(ctx, 10, static_cast<int32_t>(samples.size()));
        wrapper_audio_free(ctx);
        return result.pcm;
    }
};

void expect_same(const reference::block& expected, int32_t count, const std::vector<int16_t>& pcm, float rms,
                 float peak, const std::string& what) {
    ASSERT_EQ(count, static_cast<int32_t>(expected.pcm.size())) << what;
    EXPECT_EQ(pcm, expected.pcm) << what;
    EXPECT_TRUE(same(rms, expected.rms)) << what;
    EXPECT_TRUE(same(peak, expected.peak)) << what;
}

// ---- Refusals ----

TEST_F(read, refuses_without_reading_or_writing) {
    wrapper_audio_ctx* ctx = listening(48000, 16000, {});
    int16_t pcm[4] = {1, 2, 3, 4};
    float rms = -7.0F;
    float peak = -8.0F;
    EXPECT_EQ(wrapper_audio_read(ctx, 10, nullptr, 4, &rms, &peak), -1);
    EXPECT_EQ(wrapper_audio_read(ctx, 10, pcm, 0, &rms, &peak), -1);
    EXPECT_EQ(wrapper_audio_read(ctx, 10, pcm, -1, &rms, &peak), -1);
    EXPECT_EQ(wrapper_audio_read(nullptr, 10, pcm, 4, &rms, &peak), -1);
    EXPECT_EQ(wrapper_audio_read(ctx, -1, pcm, 4, &rms, &peak), -1);
    EXPECT_EQ(wrapper_audio_read(ctx, std::numeric_limits<int32_t>::min(), pcm, 4, &rms, &peak), -1);
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(pcm, ElementsAre(1, 2, 3, 4));
    EXPECT_EQ(rms, -7.0F);
    EXPECT_EQ(peak, -8.0F);
    wrapper_audio_free(ctx);
}

TEST_F(read, refuses_a_duration_whose_product_with_the_rate_leaves_32_bits) {
    wrapper_audio_ctx* ctx = listening(48000, 16000, {});
    EXPECT_EQ(read_once(ctx, 44739, 2000).count, 1600); // 2147472000 fits
    EXPECT_THAT(calls(), ElementsAre("Pa_ReadStream(1, 4800)"));
    EXPECT_EQ(read_once(ctx, 44740, 2000).count, -1);
    EXPECT_EQ(read_once(ctx, int_max, 2000).count, -1);
    EXPECT_THAT(calls(), IsEmpty());
    wrapper_audio_free(ctx);

    ctx = listening(1, 1, {}); // the largest product that fits, and one more
    EXPECT_EQ(read_once(ctx, int_max, 2000).count, 480);
    wrapper_audio_free(ctx);
    ctx = listening(2, 2, {});
    EXPECT_EQ(read_once(ctx, int_max / 2, 2000).count, 480);
    EXPECT_EQ(read_once(ctx, int_max / 2 + 1, 2000).count, -1);
    wrapper_audio_free(ctx);
}

TEST_F(read, refuses_a_negative_duration_even_when_the_rate_rounds_to_0) {
    wrapper_audio_ctx* ctx = listening(0.25, 16000, {});
    EXPECT_EQ(read_once(ctx, -1, 4).count, -1);
    const outcome none = read_once(ctx, int_max, 4);
    EXPECT_EQ(none.count, 0);
    EXPECT_EQ(none.rms, 0.0F);
    EXPECT_EQ(none.peak, 0.0F);
    wrapper_audio_free(ctx);
}

TEST_F(read, refuses_unless_the_context_is_capturing) {
    wrapper_audio_ctx* ctx = wrapper_audio_arm(16000, 0, nullptr);
    forget();
    EXPECT_EQ(read_once(ctx, 10, 160).count, -1);
    wrapper_audio_open(ctx);
    EXPECT_EQ(read_once(ctx, 10, 160).count, 160);
    wrapper_audio_stop(ctx);
    forget();
    EXPECT_EQ(read_once(ctx, 10, 160).count, -1);
    wrapper_audio_release_stream(ctx);
    forget();
    const outcome refused = read_once(ctx, 10, 160);
    EXPECT_EQ(refused.count, -1);
    EXPECT_EQ(refused.rms, -7.0F);
    EXPECT_EQ(refused.peak, -7.0F);
    EXPECT_THAT(calls(), IsEmpty());
    wrapper_audio_free(ctx);
}

// ---- What is asked of PortAudio ----

TEST_F(read, asks_for_whole_samples_and_never_for_more_than_100_ms) {
    const auto asked = [](double rate, int32_t ms) {
        wrapper_audio_ctx* ctx = listening(rate, 16000, {});
        read_once(ctx, ms, 20000);
        const std::string call = calls().front();
        wrapper_audio_free(ctx);
        return call.rfind("Pa_ReadStream", 0) == 0 ? std::stoi(call.substr(call.find(", ") + 2)) : -1;
    };
    EXPECT_EQ(asked(44100, 7), 308);
    EXPECT_EQ(asked(48000, 25), 1200);
    EXPECT_EQ(asked(48000, 100), 4800);
    EXPECT_EQ(asked(48000, 101), 4800);
    EXPECT_EQ(asked(48000, 150), 4800);
    EXPECT_EQ(asked(44100, 1000), 4410);
    EXPECT_EQ(asked(1000, 1000), 480);
    EXPECT_EQ(asked(48000, 0), 0);
}

TEST_F(read, of_no_duration_gives_nothing_and_levels_of_0) {
    wrapper_audio_ctx* ctx = listening(48000, 16000, {1.0F});
    const outcome none = read_once(ctx, 0, 16);
    EXPECT_EQ(none.count, 0);
    EXPECT_EQ(none.rms, 0.0F);
    EXPECT_EQ(none.peak, 0.0F);
    wrapper_audio_free(ctx);
}

TEST_F(read, too_short_for_one_output_sample_gives_nothing_and_levels_of_0) {
    wrapper_audio_ctx* ctx = listening(48000, 100, {1.0F, 1.0F}); // groups of 480
    outcome none = read_once(ctx, 9, 16);
    EXPECT_EQ(none.count, 0);
    EXPECT_EQ(none.rms, 0.0F);
    EXPECT_EQ(none.peak, 0.0F);
    wrapper_audio_free(ctx);
    ctx = listening(44100, 101, {1.0F, 1.0F}); // 396 of 44100 are less than one of 101
    none = read_once(ctx, 9, 16);
    EXPECT_EQ(none.count, 0);
    EXPECT_EQ(none.rms, 0.0F);
    wrapper_audio_free(ctx);
}

TEST_F(read, tolerates_an_overflow_in_silence) {
    wrapper_audio_ctx* ctx = listening(16000, 16000, std::vector<float>(160, 0.5F));
    fail_next("Pa_ReadStream", paInputOverflowed);
    const outcome result = read_once(ctx, 10, 160);
    EXPECT_EQ(result.count, 160);
    EXPECT_THAT(result.pcm, Each(16383));
    EXPECT_EQ(log(), "");
    wrapper_audio_free(ctx);
}

TEST_F(read, reports_every_failure_and_keeps_capturing) {
    wrapper_audio_ctx* ctx = listening(16000, 16000, {});
    world().results["Pa_ReadStream"] = {paUnanticipatedHostError, paUnanticipatedHostError, 1};
    for (const char* error : {"-9999", "-9999", "1"}) {
        const outcome failed = read_once(ctx, 10, 160);
        EXPECT_EQ(failed.count, -1);
        EXPECT_EQ(failed.rms, -7.0F);
        EXPECT_EQ(failed.peak, -7.0F);
        EXPECT_EQ(log(), std::string("[audio_wrapper] Pa_ReadStream ОШИБКА: error ") + error + "\n");
        EXPECT_THAT(calls(), ElementsAre("Pa_ReadStream(1, 160)", std::string("Pa_GetErrorText(") + error + ")",
                                         std::string("log [audio_wrapper] Pa_ReadStream ОШИБКА: error ") + error));
    }
    EXPECT_EQ(read_once(ctx, 10, 160).count, 160);
    wrapper_audio_free(ctx);
}

TEST_F(read, allocates_nothing_and_calls_nothing_but_the_read_and_the_denoiser) {
    wrapper_audio_ctx* ctx = listening(48000, 44100, std::vector<float>(4800, 0.25F), 1);
    read_once(ctx, 25, 5000);
    EXPECT_THAT(calls(), ElementsAre("Pa_ReadStream(1, 1200)", "rnnoise_process_frame", "rnnoise_process_frame"));
    wrapper_audio_free(ctx);
}

TEST_F(read, writes_only_the_levels_that_have_a_place) {
    const std::vector<float> samples{0.5F, -0.25F, 0.0F, 0.0F};
    wrapper_audio_ctx* ctx = listening(1000, 1000, samples);
    int16_t pcm[4];
    float rms = -7.0F;
    float peak = -7.0F;
    EXPECT_EQ(wrapper_audio_read(ctx, 4, pcm, 4, &rms, nullptr), 4);
    EXPECT_EQ(rms, reference::rms(samples));
    EXPECT_EQ(wrapper_audio_read(ctx, 4, pcm, 4, nullptr, &peak), 4);
    EXPECT_EQ(peak, 0.5F);
    EXPECT_EQ(wrapper_audio_read(ctx, 4, pcm, 4, nullptr, nullptr), 4);
    EXPECT_EQ(wrapper_audio_read(ctx, 0, pcm, 4, nullptr, nullptr), 0);
    float both = -7.0F;
    EXPECT_EQ(wrapper_audio_read(ctx, 4, pcm, 4, &both, &both), 4);
    EXPECT_EQ(both, 0.5F) << "the peak is written last";
    wrapper_audio_free(ctx);
}

// ---- Denoising ----

std::vector<float> ramp(size_t count) {
    std::vector<float> samples(count);
    for (size_t i = 0; i < count; ++i)
        samples[i] = static_cast<float>(i % 997) / 1000.0F - 0.4F;
    return samples;
}

TEST_F(read, denoises_whole_frames_and_passes_the_tail_through) {
    for (const auto& [ms, frames] : std::vector<std::pair<int, size_t>>{{5, 0}, {10, 1}, {25, 2}, {99, 9}, {150, 10}}) {
        const auto samples = ramp(static_cast<size_t>(std::min(ms, 100)) * 48);
        wrapper_audio_ctx* ctx = listening(48000, 48000, samples, 2);
        const outcome result = read_once(ctx, ms, 4800);
        EXPECT_EQ(calls().size(), 1 + frames);
        expect_same(reference::measured(reference::denoised(samples, bend)), result.count, result.pcm, result.rms,
                    result.peak, std::to_string(ms) + " ms");
        wrapper_audio_free(ctx);
    }
}

TEST_F(read, begins_a_new_frame_with_every_read) {
    wrapper_audio_ctx* ctx = listening(48000, 16000, ramp(4800), 1);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(read_once(ctx, 15, 1024).count, 240);
        EXPECT_THAT(calls(), ElementsAre("Pa_ReadStream(1, 720)", "rnnoise_process_frame"));
    }
    wrapper_audio_free(ctx);
}

TEST_F(read, hands_the_denoiser_samples_in_the_16_bit_range) {
    wrapper_audio_ctx* ctx = listening(48000, 48000, {1.0F, -0.5F, 1.5F}, 1);
    std::vector<float> seen;
    world().denoiser = [&seen](float* frame) { seen.assign(frame, frame + 4); };
    read_once(ctx, 10, 480);
    EXPECT_THAT(seen, ElementsAre(32767.0F, -16383.5F, 49150.5F, 0.0F));
    wrapper_audio_free(ctx);
}

TEST_F(read, skips_denoising_without_a_word_unless_it_is_on_and_the_rate_is_48000) {
    for (const auto& [rate, denoise] :
         std::vector<std::pair<double, int>>{{44100, 1}, {47999, 1}, {96000, 1}, {48000, 0}}) {
        const auto samples = ramp(static_cast<size_t>(rate / 50));
        wrapper_audio_ctx* ctx = listening(rate, static_cast<int>(rate), samples, denoise);
        const outcome result = read_once(ctx, 20, 5000);
        expect_same(reference::measured(samples), result.count, result.pcm, result.rms, result.peak, "");
        EXPECT_EQ(calls().size(), 1U);
        EXPECT_EQ(log(), "");
        wrapper_audio_free(ctx);
    }
}

TEST_F(read, worked_example_25_ms_at_48000_to_16000) {
    const auto samples = ramp(1200);
    for (const int32_t capacity : {1024, 400, 399, 300, 1}) {
        wrapper_audio_ctx* ctx = listening(48000, 16000, samples, 1);
        const outcome result = read_once(ctx, 25, capacity);
        EXPECT_EQ(result.count, std::min(capacity, 400));
        expect_same(reference::measured(reference::at_rate(reference::denoised(samples, bend), 48000, 16000, capacity)),
                    result.count, result.pcm, result.rms, result.peak, std::to_string(capacity));
        wrapper_audio_free(ctx);
    }
}

// ---- Rate conversion ----

TEST_F(read, interpolates_44100_to_16000) {
    std::vector<float> samples = ramp(882);
    samples[2] = 0.8F;
    samples[3] = -0.4F;
    wrapper_audio_ctx* ctx = listening(44100, 16000, samples);
    const outcome result = read_once(ctx, 20, 1024);
    EXPECT_EQ(result.count, 320);
    const double expected = static_cast<double>(0.8F) * 0.24375 + 0.75625 * static_cast<double>(-0.4F);
    EXPECT_NEAR(result.pcm[1], expected * 32767.0, 1.0);
    wrapper_audio_free(ctx);
}

TEST_F(read, counts_in_integers) {
    wrapper_audio_ctx* ctx = listening(48000, 44100, ramp(480));
    EXPECT_EQ(read_once(ctx, 10, 1024).count, 441);
    wrapper_audio_free(ctx);
}

TEST_F(read, leans_on_the_last_sample_of_the_block_when_upsampling) {
    wrapper_audio_ctx* ctx = listening(16000, 48000, ramp(160));
    const outcome result = read_once(ctx, 10, 1024);
    ASSERT_EQ(result.count, 480);
    const int16_t last = reference::quantised(ramp(160)[159]);
    EXPECT_THAT(std::vector<int16_t>(result.pcm.end() - 3, result.pcm.end()), Each(last));
    EXPECT_NE(result.pcm[476], last);
    wrapper_audio_free(ctx);
}

TEST_F(read, equal_rates_copy_up_to_the_capacity) {
    wrapper_audio_ctx* ctx = listening(16000, 16000, ramp(160));
    EXPECT_EQ(read_once(ctx, 10, 160).count, 160);
    EXPECT_EQ(read_once(ctx, 10, 161).count, 160);
    EXPECT_EQ(read_once(ctx, 10, 159).count, 159);
    wrapper_audio_free(ctx);
}

TEST_F(read, a_group_of_negative_zeros_has_a_positive_mean) {
    wrapper_audio_ctx* ctx = listening(48000, 16000, std::vector<float>(480, -0.0F));
    const outcome result = read_once(ctx, 10, 160);
    EXPECT_FALSE(std::signbit(result.rms));
    EXPECT_FALSE(std::signbit(result.peak));
    EXPECT_THAT(result.pcm, Each(0));
    wrapper_audio_free(ctx);
}

TEST_F(read, does_not_divide_by_a_rate_of_2147483647) {
    wrapper_audio_ctx* ctx = listening(480, int_max, ramp(48));
    const outcome result = read_once(ctx, 100, 5000);
    EXPECT_EQ(result.count, 5000);
    expect_same(reference::measured(reference::at_rate(ramp(48), 480, int_max, 5000)), result.count, result.pcm,
                result.rms, result.peak, "");
    wrapper_audio_free(ctx);
}

// ---- 16-bit samples and levels ----

TEST_F(read, converts_to_16_bits_toward_zero_and_symmetrically) {
    EXPECT_THAT(pcm_of({0.5F, -0.25F, 1.0F, -1.0F, 1.2F, -1.2F, 0.00003F, -0.00003F}),
                ElementsAre(16383, -8191, 32767, -32767, 32767, -32767, 0, 0));
    EXPECT_THAT(pcm_of({infinity, -infinity, nan, -nan, 0.0F, -0.0F, std::nextafter(1.0F, 2.0F),
                        std::nextafter(1.0F, 0.0F), std::nextafter(-1.0F, -2.0F), 1e30F}),
                ElementsAre(32767, -32767, 0, 0, 0, 0, 32767, 32766, -32767, 32767));
}

TEST_F(read, never_produces_minus_32768) {
    std::vector<float> samples;
    for (int i = -200; i <= 200; ++i)
        samples.push_back(std::nextafter(-1.0F, static_cast<float>(i)) + static_cast<float>(i) * 1e-6F);
    EXPECT_THAT(pcm_of(std::vector<float>(samples.begin() + 120, samples.begin() + 280)), Each(testing::Ge(-32767)));
}

TEST_F(read, levels_stop_at_1) {
    wrapper_audio_ctx* ctx = listening(16000, 16000, std::vector<float>(160, 1.5F));
    const outcome result = read_once(ctx, 10, 160);
    EXPECT_EQ(result.rms, 1.0F);
    EXPECT_EQ(result.peak, 1.0F);
    EXPECT_THAT(result.pcm, Each(32767));
    wrapper_audio_free(ctx);
}

TEST_F(read, a_nan_spoils_the_rms_but_not_the_peak) {
    for (const size_t place : {size_t{0}, size_t{77}, size_t{159}}) {
        std::vector<float> samples(160, -0.25F);
        samples[place] = nan;
        wrapper_audio_ctx* ctx = listening(16000, 16000, samples);
        const outcome result = read_once(ctx, 10, 160);
        EXPECT_TRUE(std::isnan(result.rms));
        EXPECT_EQ(result.peak, 0.25F);
        EXPECT_EQ(result.pcm[place], 0);
        wrapper_audio_free(ctx);
    }
}

// ---- Everything against the reference ----

class read_at_rates : public read, public testing::WithParamInterface<int> {};

TEST_P(read_at_rates, equals_the_reference_bit_for_bit) {
    const int capture_rate = GetParam();
    std::mt19937 random(20240117U + static_cast<unsigned>(capture_rate));
    for (const int output_rate : {8000, 11025, 16000, 22050, 24000, 32000, 44100, 48000, 96000, 192000}) {
        for (int round = 0; round < 12; ++round) {
            const int32_t ms = round == 0 ? 100 : static_cast<int32_t>(random() % 100 + 1);
            const auto samples = signals::mixed(random, static_cast<size_t>(int64_t{capture_rate} * ms / 1000));
            const int denoise = static_cast<int>(random() % 2);
            const int32_t capacity = round < 4 ? 20000 : static_cast<int32_t>(random() % 5000 + 1);
            wrapper_audio_ctx* ctx = listening(capture_rate, output_rate, samples, denoise);
            const outcome result = read_once(ctx, ms, capacity);
            const auto clean = denoise != 0 && capture_rate == 48000 ? reference::denoised(samples, bend) : samples;
            expect_same(reference::measured(reference::at_rate(clean, capture_rate, output_rate, capacity)),
                        result.count, result.pcm, result.rms, result.peak,
                        std::to_string(capture_rate) + " to " + std::to_string(output_rate) + ", " +
                            std::to_string(ms) + " ms, capacity " + std::to_string(capacity));
            wrapper_audio_free(ctx);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(usual, read_at_rates,
                         testing::Values(8000, 11025, 16000, 22050, 24000, 32000, 44100, 48000, 96000, 192000));

// ---- A back end that writes twice what it was asked for ----

TEST_F(read, has_room_for_twice_the_samples_that_it_asks_for) {
    world().doubled_reads = true; // the sanitizer, or the allocator's own checks, find what has no room
    wrapper_audio_ctx* ctx = listening(48000, 16000, ramp(4800), 1);
    EXPECT_EQ(read_once(ctx, 100, 1600).count, 1600);
    wrapper_audio_free(ctx);
    wrapper_audio_meter* meter = wrapper_audio_meter_open(nullptr);
    EXPECT_EQ(wrapper_audio_meter_read(meter, nullptr, nullptr), 1440);
    wrapper_audio_meter_close(meter);
}

// ---- Any capacity, on a small stack ----

struct small_stack_read {
    wrapper_audio_ctx* ctx;
    int16_t* pcm;
    int32_t capacity;
    int32_t count;
};

TEST_F(read, of_any_capacity_fits_on_a_stack_of_64_kib) {
    guarded_buffer<int16_t> pcm(19200);
    for (const int32_t capacity : {4800, 19200, int_max}) {
        const bool denoise = capacity == 4800; // what RNNoise itself needs comes on top
        wrapper_audio_ctx* ctx = denoise ? listening(48000, 48000, ramp(4800), 1) : listening(8000, 192000, ramp(800));
        small_stack_read job{ctx, pcm.data(), capacity, 0};
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        const auto least = static_cast<size_t>(sysconf(_SC_THREAD_STACK_MIN)); // 128 KiB on arm64
        ASSERT_EQ(pthread_attr_setstacksize(&attributes, std::max(size_t{64} * 1024, least)), 0);
        pthread_t thread;
        ASSERT_EQ(pthread_create(
                      &thread, &attributes,
                      [](void* argument) -> void* {
                          auto* work = static_cast<small_stack_read*>(argument);
                          work->count = wrapper_audio_read(work->ctx, 100, work->pcm, work->capacity, nullptr, nullptr);
                          return nullptr;
                      },
                      &job),
                  0);
        pthread_join(thread, nullptr);
        pthread_attr_destroy(&attributes);
        const auto expected =
            denoise ? reference::denoised(ramp(4800), bend) : reference::at_rate(ramp(800), 8000, 192000, 19200);
        EXPECT_EQ(job.count, static_cast<int32_t>(expected.size()));
        EXPECT_EQ(std::vector<int16_t>(pcm.data(), pcm.data() + expected.size()), reference::measured(expected).pcm);
        wrapper_audio_free(ctx);
    }
}

TEST_F(read, of_a_single_sample_gives_it) {
    wrapper_audio_ctx* ctx = listening(1000, 1000, {-0.5F});
    const outcome result = read_once(ctx, 1, 4);
    EXPECT_EQ(result.pcm, std::vector<int16_t>{-16383});
    EXPECT_EQ(result.rms, 0.5F);
    EXPECT_EQ(result.peak, 0.5F);
    wrapper_audio_free(ctx);
}

} // namespace
