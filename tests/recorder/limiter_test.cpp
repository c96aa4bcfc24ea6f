// The limiter: to the last bit what the formulas give, whatever the pieces; and what people want of it.
#include "processors.h"

#include "bits.h"
#include "limiter_reference.h"
#include "signals.h"

#include <cmath>
#include <random>

namespace {

processor_holder limiter(int32_t rate, float ceiling_db, float release_ms) {
    wrapper_audio_processor* processor = nullptr;
    EXPECT_EQ(wrapper_audio_limiter_create(&processor, rate, ceiling_db, release_ms), WRAPPER_AUDIO_OK);
    return processor_holder{processor};
}

float peak(const std::vector<float>& samples) {
    float largest = 0.0F;
    for (const float sample : samples)
        largest = std::max(largest, std::fabs(sample));
    return largest;
}

// Quiet, with peaks of all sizes that are alone, close together and as long as the look-ahead.
std::vector<float> peaks(std::size_t count, uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<float> samples = signals::noise(random, count, 0.5F);
    for (std::size_t at = 0; at < count; at += 1 + random() % 900)
        for (std::size_t length = 1 + random() % (random() % 3 == 0 ? 300 : 2); length > 0 && at < count; --length)
            samples[at++] *= static_cast<float>(random() % 1000) / 100.0F;
    return samples;
}

TEST(limiter, equals_the_reference_bit_for_bit) {
    for (const int32_t rate : {100, 8000, 44100, 48000}) {
        for (const float release_ms : {0.0F, 0.1F, 50.0F, 60000.0F}) {
            for (const float ceiling_db : {0.0F, -1.0F, -60.0F}) {
                const auto in = peaks(6000, static_cast<uint32_t>(rate));
                const auto expected = reference::limited(in, rate, ceiling_db, release_ms);
                const auto processor = limiter(rate, ceiling_db, release_ms);
                std::mt19937 random(1);
                for (int round = 0; round < 3; ++round) {
                    const auto out = round == 0 ? whole_stream(processor, in)
                                                : in_pieces(processor, in, [&] { return random() % 700; });
                    ASSERT_EQ(out.size(), in.size());
                    EXPECT_TRUE(same(out.data(), expected)) << rate << " Hz, " << release_ms << " ms, round " << round;
                }
                process(processor, in, in.size());
                EXPECT_EQ(wrapper_audio_processor_reset(processor.get()), WRAPPER_AUDIO_OK);
                EXPECT_TRUE(same(whole_stream(processor, in).data(), expected)) << "after a reset";
            }
        }
    }
}

TEST(limiter, lets_nothing_beyond_the_ceiling) {
    for (const float ceiling_db : {0.0F, -1.0F, -20.0F}) {
        const float ceiling = std::pow(10.0F, ceiling_db / 20.0F);
        for (uint32_t seed = 0; seed < 20; ++seed) {
            const float largest = peak(whole_stream(limiter(16000, ceiling_db, 30.0F), peaks(20000, seed)));
            EXPECT_LE(largest, ceiling);
            EXPECT_GT(largest, 0.99F * ceiling) << "and not needlessly far below it";
        }
    }
}

TEST(limiter, passes_what_needs_none_bit_for_bit_also_behind_a_peak) {
    std::mt19937 random(3);
    auto in = signals::noise(random, 48000, 0.8F);
    in[1000] = 40.0F;
    const auto out = whole_stream(limiter(48000, -1.0F, 5.0F), in);
    const std::size_t touched = 1000 - 240;
    EXPECT_TRUE(same(out.data(), std::vector<float>(in.begin(), in.begin() + touched)));
    EXPECT_NE(out[touched], in[touched]) << "5 ms before the peak the gain begins to fall";
    EXPECT_TRUE(same(out.data() + 24000, std::vector<float>(in.begin() + 24000, in.end()))) << "and is 1 again later";
}

TEST(limiter, recovers_in_its_time) {
    std::vector<float> in(48000, 0.25F);
    in[1000] = 5.0F; // the gain falls to a fifth
    const auto out = whole_stream(limiter(48000, 0.0F, 100.0F), in);
    EXPECT_NEAR(out[1000], 1.0F, 1e-6F);
    const std::size_t time_constant = 1000 + 4800 + 120; // from the middle of the 5 ms that the mean is taken over
    EXPECT_NEAR(out[time_constant] / 0.25F, 1.0F - 0.8F * std::exp(-1.0F), 0.01F);
}

TEST(limiter, looks_5_ms_ahead_and_at_least_a_sample) {
    for (const auto& [rate, samples] : {std::pair{100, 1U}, {8000, 40U}, {44100, 221U}, {768000, 3840U}})
        EXPECT_EQ(wrapper_audio_processor_delay(limiter(rate, 0.0F, 10.0F).get()), samples) << rate;
    EXPECT_EQ(process(limiter(8000, 0.0F, 10.0F), std::vector<float>(100, 0.5F)).size(), 60U);
}

TEST(limiter, is_spoilt_by_no_number) {
    const float hostile[] = {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(), 3e38F};
    const auto processor = limiter(16000, 0.0F, 10.0F);
    for (const float sample : hostile) {
        std::vector<float> in(16000, 0.5F);
        in[100] = sample;
        const auto out = whole_stream(processor, in);
        EXPECT_LE(peak(out), 1.0F);
        EXPECT_FLOAT_EQ(out.back(), 0.5F);
    }
}

} // namespace
