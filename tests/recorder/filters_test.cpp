// High-pass, de-pop and gain control as processors: to the last bit what the formulas give, whatever the pieces.
#include "processors.h"

#include "bits.h"
#include "dsp_reference.h"
#include "signals.h"
#include "wrapper_audio.h"

#include <cmath>
#include <fstream>
#include <limits>
#include <random>

namespace {

using signals::infinity;
using signals::nan;

processor_holder high_pass(int32_t rate, float cutoff_hz, float q) {
    wrapper_audio_processor* processor = nullptr;
    EXPECT_EQ(wrapper_audio_high_pass_create(&processor, rate, cutoff_hz, q), WRAPPER_AUDIO_OK);
    return processor_holder{processor};
}

processor_holder depop(float coef) {
    wrapper_audio_processor* processor = nullptr;
    EXPECT_EQ(wrapper_audio_depop_create(&processor, coef), WRAPPER_AUDIO_OK);
    return processor_holder{processor};
}

processor_holder gain_control(int32_t rate, float target_db, float release_ms) {
    wrapper_audio_processor* processor = nullptr;
    EXPECT_EQ(wrapper_audio_gain_control_create(&processor, rate, target_db, release_ms), WRAPPER_AUDIO_OK);
    return processor_holder{processor};
}

// Twice through one processor, in one piece and in many: the second stream must not know of the first.
void expect_stream(const processor_holder& processor, const std::vector<float>& in,
                   const std::vector<float>& expected) {
    std::mt19937 random(1);
    for (int round = 0; round < 3; ++round) {
        const auto out =
            round == 0 ? whole_stream(processor, in) : in_pieces(processor, in, [&] { return random() % 700; });
        ASSERT_EQ(out.size(), expected.size());
        EXPECT_TRUE(same(out.data(), expected)) << "round " << round;
    }
    process(processor, in, in.size() / 2);
    EXPECT_EQ(wrapper_audio_processor_reset(processor.get()), WRAPPER_AUDIO_OK);
    const auto out = whole_stream(processor, in);
    ASSERT_EQ(out.size(), expected.size());
    EXPECT_TRUE(same(out.data(), expected)) << "after a reset";
}

std::vector<float> loud_noise(std::size_t count, float amplitude = 1.1F) {
    std::mt19937 random(2);
    return signals::noise(random, count, amplitude);
}

// ---- High-pass ----

TEST(high_pass, is_the_reference_at_the_rate_of_the_samples) {
    const auto in = loud_noise(5000);
    for (const int32_t rate : {100, 8000, 16000, 44100, 48000, 768000}) {
        for (const float q : {0.05F, 0.707F, 50.0F}) {
            const float cutoff = static_cast<float>(rate) / 40.0F;
            expect_stream(high_pass(rate, cutoff, q), in, reference::high_pass(cutoff, q, rate)(in));
        }
    }
}

TEST(high_pass, takes_rumble_away_and_leaves_the_rest) {
    const auto level = [](double hz) {
        std::vector<float> in(48000);
        for (std::size_t i = 0; i < in.size(); ++i)
            in[i] = static_cast<float>(std::sin(6.283185307179586 * hz * static_cast<double>(i) / 48000.0));
        const auto out = whole_stream(high_pass(48000, 80.0F, 0.707F), in);
        return std::sqrt(2.0 * reference::mean_square({out.begin() + 24000, out.end()}));
    };
    EXPECT_LT(level(8.0), 0.0105); // 40 dB, a decade below the corner
    EXPECT_NEAR(level(80.0), 0.707, 0.001);
    EXPECT_NEAR(level(1000.0), 1.0, 0.001);
}

TEST(high_pass, gives_each_sample_at_once) {
    const auto processor = high_pass(48000, 80.0F, 0.707F);
    EXPECT_EQ(wrapper_audio_processor_delay(processor.get()), 0U);
    EXPECT_EQ(process(processor, loud_noise(1)).size(), 1U);
    EXPECT_TRUE(flush(processor).empty());
    EXPECT_TRUE(take_speech(processor).empty());
}

// ---- De-pop ----

TEST(depop, goes_on_from_call_to_call) {
    const auto in = loud_noise(5000);
    for (const float coef : {0.0F, 0.3F, 0.95F, 1.0F})
        expect_stream(depop(coef), in, reference::depopped(in, coef));
    EXPECT_EQ(wrapper_audio_processor_delay(depop(0.5F).get()), 0U);
}

TEST(depop, by_hand) {
    const auto processor = depop(0.5F);
    EXPECT_EQ(process(processor, std::vector{1.0F}), (std::vector{1.0F}));
    EXPECT_EQ(process(processor, std::vector<float>{}), (std::vector<float>{}));
    EXPECT_EQ(process(processor, std::vector{1.0F, 0.0F}), (std::vector{0.5F, -0.5F}));
    EXPECT_EQ(process(processor, std::vector{2.0F}), (std::vector{2.0F}));
    EXPECT_TRUE(flush(processor).empty());
    EXPECT_EQ(process(processor, std::vector{4.0F}), (std::vector{4.0F}));
}

// ---- Gain control ----

// Sounds from -130 dB to beyond full scale, so that every bound of the gain is reached.
std::vector<float> loud_and_quiet(std::size_t count) {
    auto samples = loud_noise(count);
    constexpr float amplitudes[] = {1.0F, 0.001F, 0.3F, 1e-7F, 5.0F, 0.05F, 0.0F, 0.2F};
    for (std::size_t i = 0; i < count; ++i)
        samples[i] *= amplitudes[i * std::size(amplitudes) / count];
    return samples;
}

// By the core, which has one gain control for the whole process.
std::vector<float> in_blocks_by_the_core(std::vector<float> samples, std::size_t block, float target_db,
                                         float release_ms) {
    testing::internal::CaptureStderr(); // it writes a line
    wrapper_audio_agc_init(target_db, release_ms);
    testing::internal::GetCapturedStderr();
    for (std::size_t at = 0; at < samples.size(); at += block) {
        const auto count = static_cast<int32_t>(std::min(block, samples.size() - at));
        wrapper_audio_agc_process(nullptr, samples.data() + at, count);
    }
    return samples;
}

TEST(gain_control, is_the_core_on_blocks_of_10_ms) {
    for (const int32_t rate : {100, 8000, 16000, 44100, 48000}) {
        for (const float target_db : {-60.0F, -20.0F, 0.0F}) {
            for (const float release_ms : {0.0F, 10.0F, 500.0F, 60000.0F}) {
                const auto in =
                    loud_and_quiet(static_cast<std::size_t>(rate) / 2 + static_cast<std::size_t>(rate) / 300);
                const auto block = static_cast<std::size_t>(rate / 100);
                expect_stream(gain_control(rate, target_db, release_ms), in,
                              in_blocks_by_the_core(in, block, target_db, release_ms));
            }
        }
    }
}

TEST(gain_control, takes_the_nearest_length_to_10_ms) {
    const std::pair<int32_t, std::size_t> blocks[] = {{11025, 110}, {150, 2}, {149, 1}, {47999, 480}, {768000, 7680}};
    for (const auto& [rate, block] : blocks) {
        const auto in = loud_and_quiet(block * 20 + block / 2);
        const auto processor = gain_control(rate, -20.0F, 100.0F);
        EXPECT_EQ(wrapper_audio_processor_delay(processor.get()), block - 1) << rate;
        expect_stream(processor, in, in_blocks_by_the_core(in, block, -20.0F, 100.0F));
    }
}

TEST(gain_control, gives_10_ms_when_they_are_full) {
    const auto processor = gain_control(16000, -20.0F, 0.0F);
    EXPECT_TRUE(process(processor, std::vector<float>(159, 0.5F)).empty());
    const auto out = process(processor, std::vector<float>(1, 0.5F));
    ASSERT_EQ(out.size(), 160U);
    EXPECT_FLOAT_EQ(out[159], 0.1F);
    EXPECT_EQ(process(processor, std::vector<float>(321, 0.5F)).size(), 320U);
    EXPECT_EQ(flush(processor).size(), 1U);
    EXPECT_TRUE(flush(processor).empty());
}

TEST(gain_control, lets_silence_below_120_db_pass) {
    for (const float quiet : {0.99e-6F, -0.5e-6F, 0.0F}) {
        const std::vector<float> in(160, quiet);
        EXPECT_EQ(whole_stream(gain_control(16000, -20.0F, 0.0F), in), in);
    }
    const auto out = whole_stream(gain_control(16000, -20.0F, 0.0F), std::vector<float>(160, 1.01e-6F));
    EXPECT_FLOAT_EQ(out[0], 1.01e-5F); // 20 dB up, which is the most
}

TEST(gain_control, a_release_of_minus_0_is_one_of_0) {
    const auto in = loud_noise(1000);
    EXPECT_EQ(whole_stream(gain_control(16000, -20.0F, -0.0F), in),
              whole_stream(gain_control(16000, -20.0F, 0.0F), in));
}

// ---- Any processor ----

std::vector<processor_holder> one_of_each() {
    std::vector<processor_holder> all;
    all.push_back(voice({44100, 44100, 0.0F, 0, 0}));
    all.push_back(voice({44100, 16000, 0.0F, 0, 0}));
    all.push_back(voice({16000, 48000, 0.0F, 0, 1}));
    all.push_back(voice({48000, 16000, 0.0F, 0, 1}));
    all.push_back(voice({48000, 48000, 1.0F, 0, 0}));
    all.push_back(voice({48000, 48000, 0.0F, 1, 0}));
    all.push_back(voice({44100, 16000, 1.0F, 0, 0}));
    all.push_back(voice({8000, 11025, 0.5F, 0, 1}));
    all.push_back(high_pass(48000, 80.0F, 0.707F));
    all.push_back(depop(0.95F));
    all.push_back(gain_control(16000, -20.0F, 100.0F));
    return all;
}

// What `in` gives is, to the last bit, what `plain` gives.
void expect_same_output(const std::vector<float>& in, const std::vector<float>& plain) {
    for (const auto& processor : one_of_each()) {
        const auto out = whole_stream(processor, in);
        const auto speech = take_speech(processor);
        const auto expected = whole_stream(processor, plain);
        ASSERT_EQ(out.size(), expected.size());
        EXPECT_TRUE(same(out.data(), expected));
        EXPECT_EQ(speech, take_speech(processor));
        EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](float x) { return std::isfinite(x); }));
    }
}

TEST(strange_samples, those_that_are_no_number_count_as_silence) {
    std::mt19937 random(8);
    auto in = loud_noise(9000, 0.5F);
    auto silenced = in;
    const float strange[] = {nan, -nan, infinity, -infinity};
    for (std::size_t i = 0; i < in.size(); i += random() % 300 + 1) {
        in[i] = strange[random() % 4];
        silenced[i] = 0.0F;
    }
    in.back() = nan; // the one that lines are drawn on from
    silenced.back() = 0.0F;
    expect_same_output(in, silenced);
}

TEST(strange_samples, huge_ones_are_limited_to_40_db_above_full_scale) {
    auto in = loud_noise(9000, 0.5F);
    auto limited = in;
    const float huge[] = {
        100.5F, -101.0F, 1e10F, -1e20F, std::numeric_limits<float>::max(), std::numeric_limits<float>::lowest()};
    for (std::size_t i = 0; i < std::size(huge); ++i) {
        in[500 * i] = huge[i];
        limited[500 * i] = huge[i] > 0.0F ? 100.0F : -100.0F;
    }
    expect_same_output(in, limited);
    const auto untouched = std::vector{100.0F, -100.0F, 99.9F, 1.5F, -0.0F};
    EXPECT_TRUE(same(whole_stream(voice({48000, 48000, 0.0F, 0, 0}), untouched).data(), untouched));
}

TEST(strange_samples, noise_suppression_recovers_from_the_loudest) {
    auto in = loud_noise(96000, 0.05F);
    std::fill(in.begin() + 20000, in.begin() + 20100, 3e38F);
    for (const int32_t rate : {48000, 44100}) {
        const auto out = whole_stream({rate, 48000, 1.0F, 0, 0}, in);
        for (std::size_t i = out.size() - 24000; i < out.size(); ++i)
            ASSERT_LT(std::abs(out[i]), 0.05F) << rate;
    }
}

TEST(strange_samples, denormal_ones_and_full_scale_squares_give_ordinary_numbers) {
    std::vector<float> in(9000, std::numeric_limits<float>::denorm_min());
    for (const auto& processor : one_of_each()) {
        for (const float x : whole_stream(processor, in))
            ASSERT_LE(std::abs(x), 1e-6F);
    }
    for (std::size_t i = 0; i < in.size(); ++i)
        in[i] = i / 37 % 2 == 0 ? 1.0F : -1.0F;
    for (const auto& processor : one_of_each()) {
        for (const float x : whole_stream(processor, in))
            ASSERT_LE(std::abs(x), 2.0F);
    }
}

TEST(any_processor, may_write_over_its_input) {
    const auto in = loud_noise(4800, 0.5F);
    for (const auto& processor : one_of_each()) {
        const auto expected = process(processor, in, 4800);
        EXPECT_EQ(wrapper_audio_processor_reset(processor.get()), WRAPPER_AUDIO_OK);
        auto buffer = in;
        std::size_t count = 0;
        EXPECT_EQ(wrapper_audio_processor_process(processor.get(), buffer.data(), 4800, buffer.data(), 4800, &count),
                  WRAPPER_AUDIO_OK);
        ASSERT_EQ(count, expected.size());
        EXPECT_TRUE(same(buffer.data(), expected));
    }
}

std::size_t resident_bytes() {
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    return pages * 4096;
}

TEST(any_processor, stays_small_when_the_host_is_always_a_sample_behind) {
    const auto processor = depop(0.5F);
    std::vector<float> samples(480);
    std::size_t count = 0;
    wrapper_audio_processor_process(processor.get(), samples.data(), 480, samples.data(), 479, &count);
    const std::size_t before = resident_bytes();
    for (int i = 0; i < 60000; ++i) { // 115 MB of samples
        wrapper_audio_processor_process(processor.get(), samples.data(), 480, samples.data(), 480, &count);
        ASSERT_EQ(count, 480U);
    }
    EXPECT_LT(resident_bytes(), before + 50000000);
}

} // namespace
