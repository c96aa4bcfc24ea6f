// What processors refuse, and in which state they are afterwards; and samples in the two formats.
#include "processors.h"

#include "bits.h"
#include "signals.h"

#include <cmath>
#include <limits>

namespace {

using signals::infinity;
using signals::nan;
constexpr float tiny = std::numeric_limits<float>::denorm_min();
constexpr int32_t int_max = std::numeric_limits<int32_t>::max();
constexpr int32_t int_min = std::numeric_limits<int32_t>::min();

float above(float x) {
    return std::nextafter(x, infinity);
}

float below(float x) {
    return std::nextafter(x, -infinity);
}

// ---- Limits ----

// Makes a processor; where it is refused, no pointer may be left behind.
template <typename Create>
bool accepted(Create create) {
    auto* const something = reinterpret_cast<wrapper_audio_processor*>(&create);
    wrapper_audio_processor* processor = something;
    const wrapper_audio_status status = create(&processor);
    const processor_holder holder{processor == something ? nullptr : processor};
    EXPECT_TRUE(status == WRAPPER_AUDIO_OK || status == WRAPPER_AUDIO_INVALID_ARGUMENT) << status;
    EXPECT_NE(processor, something);
    EXPECT_EQ(status == WRAPPER_AUDIO_OK, processor != nullptr);
    return status == WRAPPER_AUDIO_OK;
}

bool voice_accepted(const wrapper_audio_voice_options& options) {
    return accepted([&](auto** processor) { return wrapper_audio_voice_create(processor, &options); });
}

bool high_pass_accepted(int32_t rate, float cutoff_hz, float q) {
    return accepted([&](auto** processor) { return wrapper_audio_high_pass_create(processor, rate, cutoff_hz, q); });
}

bool depop_accepted(float coef) {
    return accepted([&](auto** processor) { return wrapper_audio_depop_create(processor, coef); });
}

bool gain_control_accepted(int32_t rate, float target_db, float release_ms) {
    return accepted(
        [&](auto** processor) { return wrapper_audio_gain_control_create(processor, rate, target_db, release_ms); });
}

bool limiter_accepted(int32_t rate, float ceiling_db, float release_ms) {
    return accepted(
        [&](auto** processor) { return wrapper_audio_limiter_create(processor, rate, ceiling_db, release_ms); });
}

constexpr int32_t rates_inside[] = {100, 101, 48000, 767999, 768000};
constexpr int32_t rates_outside[] = {99, 768001, 0, -1, -48000, int_max, int_min};

TEST(limits, of_a_voice_chain) {
    for (const int32_t rate : rates_inside) {
        EXPECT_TRUE(voice_accepted({rate, rate, 0.0F, 0, 0})) << rate;
        EXPECT_TRUE(voice_accepted({48000, rate, 0.0F, 0, 1})) << rate;
        EXPECT_TRUE(voice_accepted({rate, 48000, 0.0F, 0, 1})) << rate;
    }
    for (const int32_t rate : rates_outside) {
        EXPECT_FALSE(voice_accepted({rate, 48000, 0.0F, 0, 0})) << rate;
        EXPECT_FALSE(voice_accepted({48000, rate, 0.0F, 0, 0})) << rate;
        EXPECT_FALSE(voice_accepted({rate, rate, 0.0F, 0, 0})) << rate;
    }
    for (const float denoise : {0.0F, -0.0F, tiny, 0.5F, 1.0F})
        EXPECT_TRUE(voice_accepted({48000, 48000, denoise, 0, 0})) << denoise;
    for (const float denoise : {-tiny, above(1.0F), -1.0F, 2.0F, nan, -nan, infinity, -infinity})
        EXPECT_FALSE(voice_accepted({48000, 48000, denoise, 0, 0})) << denoise;
    for (const int32_t flag : {0, 1}) {
        EXPECT_TRUE(voice_accepted({48000, 48000, 0.0F, flag, 0}));
        EXPECT_TRUE(voice_accepted({48000, 48000, 0.0F, 0, flag}));
    }
    for (const int32_t flag : {-1, 2, int_max, int_min}) {
        EXPECT_FALSE(voice_accepted({48000, 48000, 0.0F, flag, 0})) << flag;
        EXPECT_FALSE(voice_accepted({48000, 48000, 0.0F, 0, flag})) << flag;
    }
    EXPECT_FALSE(accepted([](auto** processor) { return wrapper_audio_voice_create(processor, nullptr); }));
    const wrapper_audio_voice_options options{48000, 48000, 0.0F, 0, 0};
    EXPECT_EQ(wrapper_audio_voice_create(nullptr, &options), WRAPPER_AUDIO_INVALID_ARGUMENT);
}

TEST(limits, of_a_high_pass) {
    for (const int32_t rate : rates_inside)
        EXPECT_TRUE(high_pass_accepted(rate, 20.0F, 0.707F)) << rate;
    for (const int32_t rate : rates_outside)
        EXPECT_FALSE(high_pass_accepted(rate, 20.0F, 0.707F)) << rate;
    for (const float cutoff : {tiny, 1.0F, 7999.0F, below(8000.0F)})
        EXPECT_TRUE(high_pass_accepted(16000, cutoff, 0.707F)) << cutoff;
    for (const float cutoff : {0.0F, -0.0F, -tiny, -100.0F, 8000.0F, above(8000.0F), nan, infinity, -infinity})
        EXPECT_FALSE(high_pass_accepted(16000, cutoff, 0.707F)) << cutoff;
    EXPECT_TRUE(high_pass_accepted(101, below(50.5F), 1.0F));
    EXPECT_FALSE(high_pass_accepted(101, 50.5F, 1.0F));
    for (const float q : {0.05F, above(0.05F), below(50.0F), 50.0F})
        EXPECT_TRUE(high_pass_accepted(16000, 80.0F, q)) << q;
    for (const float q : {below(0.05F), above(50.0F), 0.0F, -1.0F, nan, infinity, -infinity})
        EXPECT_FALSE(high_pass_accepted(16000, 80.0F, q)) << q;
    EXPECT_EQ(wrapper_audio_high_pass_create(nullptr, 16000, 80.0F, 0.707F), WRAPPER_AUDIO_INVALID_ARGUMENT);
}

TEST(limits, of_a_depop) {
    for (const float coef : {0.0F, -0.0F, tiny, 0.5F, below(1.0F), 1.0F})
        EXPECT_TRUE(depop_accepted(coef)) << coef;
    for (const float coef : {-tiny, above(1.0F), -1.0F, nan, infinity, -infinity})
        EXPECT_FALSE(depop_accepted(coef)) << coef;
    EXPECT_EQ(wrapper_audio_depop_create(nullptr, 0.5F), WRAPPER_AUDIO_INVALID_ARGUMENT);
}

// Gain control and limiter.
void expect_limits_of_a_level(bool (*is_accepted)(int32_t rate, float level_db, float release_ms)) {
    for (const int32_t rate : rates_inside)
        EXPECT_TRUE(is_accepted(rate, -20.0F, 100.0F)) << rate;
    for (const int32_t rate : rates_outside)
        EXPECT_FALSE(is_accepted(rate, -20.0F, 100.0F)) << rate;
    for (const float level_db : {-60.0F, above(-60.0F), -20.0F, -tiny, 0.0F})
        EXPECT_TRUE(is_accepted(16000, level_db, 100.0F)) << level_db;
    for (const float level_db : {below(-60.0F), tiny, 1.0F, -100.0F, nan, infinity, -infinity})
        EXPECT_FALSE(is_accepted(16000, level_db, 100.0F)) << level_db;
    for (const float release_ms : {0.0F, -0.0F, tiny, 60000.0F, below(60000.0F)})
        EXPECT_TRUE(is_accepted(16000, -20.0F, release_ms)) << release_ms;
    for (const float release_ms : {-tiny, -1.0F, above(60000.0F), nan, infinity, -infinity})
        EXPECT_FALSE(is_accepted(16000, -20.0F, release_ms)) << release_ms;
}

TEST(limits, of_a_gain_control) {
    expect_limits_of_a_level(gain_control_accepted);
    EXPECT_EQ(wrapper_audio_gain_control_create(nullptr, 16000, -20.0F, 100.0F), WRAPPER_AUDIO_INVALID_ARGUMENT);
}

TEST(limits, of_a_limiter) {
    expect_limits_of_a_level(limiter_accepted);
    EXPECT_EQ(wrapper_audio_limiter_create(nullptr, 16000, -20.0F, 100.0F), WRAPPER_AUDIO_INVALID_ARGUMENT);
}

// ---- Calls without a pointer ----

class calls : public testing::Test {
protected:
    const processor_holder processor = voice({48000, 16000, 0.0F, 0, 1});
    std::vector<float> samples = std::vector<float>(480, 0.5F);
    std::size_t count = 77;

    wrapper_audio_status process_into(std::size_t capacity) {
        return wrapper_audio_processor_process(processor.get(), samples.data(), 480, samples.data(), capacity, &count);
    }
    wrapper_audio_status flush_into(std::size_t capacity) {
        return wrapper_audio_processor_flush(processor.get(), samples.data(), capacity, &count);
    }
};

TEST_F(calls, without_a_pointer_that_they_need_are_refused_and_give_nothing) {
    const auto refused = [&](wrapper_audio_processor* p, const float* in, std::size_t in_count, float* out,
                             std::size_t capacity) {
        count = 77;
        EXPECT_EQ(wrapper_audio_processor_process(p, in, in_count, out, capacity, &count),
                  WRAPPER_AUDIO_INVALID_ARGUMENT);
        EXPECT_EQ(count, 0U);
        EXPECT_EQ(wrapper_audio_processor_process(p, in, in_count, out, capacity, nullptr),
                  WRAPPER_AUDIO_INVALID_ARGUMENT);
    };
    float* const data = samples.data();
    refused(nullptr, data, 480, data, 480);
    refused(processor.get(), nullptr, 1, data, 480);
    refused(processor.get(), data, 480, nullptr, 1);
    EXPECT_EQ(wrapper_audio_processor_process(processor.get(), data, 480, data, 480, nullptr),
              WRAPPER_AUDIO_INVALID_ARGUMENT);
    count = 77;
    EXPECT_EQ(wrapper_audio_processor_flush(nullptr, data, 480, &count), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(count, 0U);
    count = 77;
    EXPECT_EQ(wrapper_audio_processor_flush(processor.get(), nullptr, 1, &count), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(wrapper_audio_processor_flush(processor.get(), data, 480, nullptr), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_processor_reset(nullptr), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_processor_delay(nullptr), 0U);
    EXPECT_EQ(wrapper_audio_processor_take_speech(nullptr, data, 480), 0U);
    wrapper_audio_processor_free(nullptr);
    // Nothing of it has gone in, and no refused flush has ended the stream.
    EXPECT_EQ(process_into(480), WRAPPER_AUDIO_OK);
    EXPECT_EQ(count, 160U);
    EXPECT_EQ(flush_into(480), WRAPPER_AUDIO_OK);
    EXPECT_EQ(count, 0U);
}

TEST_F(calls, may_leave_out_what_they_do_not_need) {
    EXPECT_EQ(wrapper_audio_processor_process(processor.get(), nullptr, 0, nullptr, 0, &count), WRAPPER_AUDIO_OK);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(wrapper_audio_processor_process(processor.get(), samples.data(), 480, nullptr, 0, &count),
              WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_processor_process(processor.get(), nullptr, 0, samples.data(), 480, &count),
              WRAPPER_AUDIO_OK);
    EXPECT_EQ(count, 160U);
}

TEST_F(calls, taking_speech_into_nothing_loses_none) {
    const auto listening = voice({48000, 48000, 0.0F, 1, 0});
    whole_stream(listening, samples);
    EXPECT_EQ(wrapper_audio_processor_take_speech(listening.get(), nullptr, 10), 0U);
    EXPECT_EQ(take_speech(listening).size(), 1U);
}

TEST_F(calls, in_the_middle_of_a_flush_only_go_on_with_it) {
    EXPECT_EQ(process_into(0), WRAPPER_AUDIO_OK);
    samples.assign(480, 0.5F);
    EXPECT_EQ(flush_into(100), WRAPPER_AUDIO_OK);
    EXPECT_EQ(count, 100U);
    EXPECT_EQ(process_into(100), WRAPPER_AUDIO_INVALID_STATE);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(flush_into(60), WRAPPER_AUDIO_OK);
    EXPECT_EQ(count, 60U);
    EXPECT_EQ(process_into(100), WRAPPER_AUDIO_INVALID_STATE) << "it has not given fewer than fit";
    EXPECT_EQ(flush_into(0), WRAPPER_AUDIO_OK);
    EXPECT_EQ(process_into(100), WRAPPER_AUDIO_INVALID_STATE);
    EXPECT_EQ(flush_into(1), WRAPPER_AUDIO_OK);
    EXPECT_EQ(count, 0U);
    samples.assign(480, 0.5F);
    EXPECT_EQ(process_into(480), WRAPPER_AUDIO_OK);
    EXPECT_EQ(count, 160U);
}

// ---- 16-bit samples ----

TEST(formats, every_16_bit_sample_comes_back) {
    std::vector<int16_t> all;
    for (int32_t x = -32768; x <= 32767; ++x)
        all.push_back(static_cast<int16_t>(x));
    std::vector<float> floats(all.size());
    ASSERT_EQ(wrapper_audio_s16_to_f32(all.data(), all.size(), floats.data()), WRAPPER_AUDIO_OK);
    for (std::size_t i = 0; i < all.size(); ++i)
        ASSERT_TRUE(same(floats[i], static_cast<float>(all[i]) / 32767.0F));
    std::vector<int16_t> back(all.size());
    ASSERT_EQ(wrapper_audio_f32_to_s16(floats.data(), floats.size(), back.data()), WRAPPER_AUDIO_OK);
    all.front() = -32767; // which is full scale already
    EXPECT_EQ(back, all);
}

int16_t to_s16(float sample) {
    int16_t result = 12345;
    EXPECT_EQ(wrapper_audio_f32_to_s16(&sample, 1, &result), WRAPPER_AUDIO_OK);
    return result;
}

TEST(formats, floats_are_limited_to_full_scale) {
    for (const float x : {1.0F, above(1.0F), 1.5F, 1e10F, std::numeric_limits<float>::max(), infinity}) {
        EXPECT_EQ(to_s16(x), 32767) << x;
        EXPECT_EQ(to_s16(-x), -32767) << x;
    }
    EXPECT_EQ(to_s16(nan), 0);
    EXPECT_EQ(to_s16(-nan), 0);
    EXPECT_EQ(to_s16(-0.0F), 0);
    EXPECT_EQ(to_s16(tiny), 0);
}

TEST(formats, floats_are_rounded_to_the_nearest) {
    for (int32_t x = 0; x < 32767; x += 7) {
        const auto between = static_cast<float>((x + 0.49) / 32767.0);
        EXPECT_EQ(to_s16(between), x);
        EXPECT_EQ(to_s16(-between), -x);
        const auto beyond = static_cast<float>((x + 0.51) / 32767.0);
        EXPECT_EQ(to_s16(beyond), x + 1);
        EXPECT_EQ(to_s16(-beyond), -x - 1);
    }
    // Halves that a float holds exactly: to the even neighbour.
    for (int32_t x = 0; x < 32767; ++x) {
        const float half = static_cast<float>(x + 0.5) / 32767.0F;
        if (half * 32767.0F != static_cast<float>(x) + 0.5F) continue;
        EXPECT_EQ(to_s16(half), x + x % 2);
        EXPECT_EQ(to_s16(-half), -x - x % 2);
    }
}

TEST(formats, no_samples_need_no_memory) {
    int16_t pcm = 1;
    float sample = 0.5F;
    EXPECT_EQ(wrapper_audio_s16_to_f32(nullptr, 0, nullptr), WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_f32_to_s16(nullptr, 0, nullptr), WRAPPER_AUDIO_OK);
    EXPECT_EQ(wrapper_audio_s16_to_f32(nullptr, 1, &sample), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_s16_to_f32(&pcm, 1, nullptr), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_f32_to_s16(nullptr, 1, &pcm), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(wrapper_audio_f32_to_s16(&sample, 1, nullptr), WRAPPER_AUDIO_INVALID_ARGUMENT);
    EXPECT_EQ(pcm, 1);
    EXPECT_EQ(sample, 0.5F);
}

} // namespace
