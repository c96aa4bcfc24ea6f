// The gain control from outside, and the getters that nothing feeds yet.
#include "bits.h"
#include "dsp_reference.h"
#include "fixture.h"
#include "in_place.h"
#include "signals.h"

#include <limits>

using testing::Each;

namespace {

using signals::infinity;
using signals::nan;

class gain_control : public with_fakes {
protected:
    static std::vector<float> processed(std::vector<float> samples) {
        wrapper_audio_agc_process(nullptr, samples.data(), static_cast<int32_t>(samples.size()));
        return samples;
    }

    // The gain that the last block got, seen through a block of its own that is too loud or soft to be silent.
    static float gain_on(float level) { return processed(std::vector<float>(160, level))[0] / level; }
};

TEST_F(gain_control, says_at_each_init_what_it_was_given) {
    wrapper_audio_agc_init(-20.0F, 100.0F);
    wrapper_audio_agc_init(0.05F, 49.6F);
    wrapper_audio_agc_init(-infinity, nan);
    EXPECT_EQ(log(), "[dsp] AGC инициализирован: target=-20.0 dB (0.1000 lin), release=100 ms\n"
                     "[dsp] AGC инициализирован: target=0.1 dB (1.0058 lin), release=50 ms\n"
                     "[dsp] AGC инициализирован: target=-inf dB (0.0000 lin), release=nan ms\n");
}

TEST_F(gain_control, worked_example) {
    wrapper_audio_agc_init(-20.0F, 100.0F);
    const auto out = processed(std::vector<float>(160, 0.01F));
    EXPECT_NEAR(out[0], 0.018564632, 1e-9);
    EXPECT_THAT(out, Each(out[0]));
}

TEST_F(gain_control, aims_at_most_20_db_up_or_down) {
    wrapper_audio_agc_init(-20.0F, 0.0F); // no smoothing: the gain is where it aims
    EXPECT_FLOAT_EQ(gain_on(0.05F), 2.0F);
    EXPECT_FLOAT_EQ(gain_on(0.001F), 10.0F);
    EXPECT_FLOAT_EQ(gain_on(0.5F), 0.2F);
    EXPECT_FLOAT_EQ(gain_on(20.0F), 0.1F);
}

TEST_F(gain_control, approaches_its_aim_block_by_block) {
    wrapper_audio_agc_init(-20.0F, 100.0F);
    float gain = 1.0F;
    for (int block = 0; block < 100; ++block) {
        const float next = gain_on(0.05F);
        EXPECT_GE(next, gain * 0.999999F);
        gain = next;
    }
    EXPECT_NEAR(gain, 2.0F, 1e-3);
}

TEST_F(gain_control, passes_silence_as_it_is_and_keeps_its_gain) {
    wrapper_audio_agc_init(-20.0F, 0.0F);
    EXPECT_FLOAT_EQ(gain_on(0.001F), 10.0F);
    for (const float quiet : {0.0F, 9.99e-7F, -1e-20F}) {
        const std::vector<float> silence(160, quiet);
        EXPECT_EQ(processed(silence), silence);
    }
    wrapper_audio_agc_init(-20.0F, 1e9F); // hardly moves from 1
    EXPECT_NE(processed(std::vector<float>(160, 1.001e-6F))[0], 0.0F);
}

TEST_F(gain_control, has_no_limiter) {
    wrapper_audio_agc_init(6.0F, 0.0F);
    EXPECT_THAT(processed(std::vector<float>(160, 1.0F)), Each(testing::Gt(1.9F)));
}

TEST_F(gain_control, starts_again_from_1_at_an_init) {
    wrapper_audio_agc_init(-20.0F, 0.0F);
    gain_on(0.001F);
    wrapper_audio_agc_init(-20.0F, infinity); // keeps the gain for ever
    EXPECT_EQ(gain_on(0.001F), 1.0F);
}

TEST_F(gain_control, does_nothing_without_samples) {
    wrapper_audio_agc_init(-20.0F, 0.0F);
    float samples[2] = {0.5F, 0.5F};
    for (const int32_t count : {0, -1, std::numeric_limits<int32_t>::min()}) {
        wrapper_audio_agc_process(nullptr, samples, count);
        EXPECT_THAT(samples, Each(0.5F));
    }
    wrapper_audio_agc_process(nullptr, nullptr, 2);
    EXPECT_THAT(samples, Each(0.5F));
    EXPECT_FLOAT_EQ(gain_on(0.5F), 0.2F) << "the gain was left alone too";
}

TEST_F(gain_control, is_spoilt_by_nan_until_the_next_init_but_not_by_infinity) {
    wrapper_audio_agc_init(-20.0F, 0.0F);
    EXPECT_EQ(processed({infinity, 1.0F})[1], 0.1F);
    processed({nan, 1.0F});
    EXPECT_TRUE(std::isnan(gain_on(0.5F)));
    EXPECT_EQ(processed({0.0F})[0], 0.0F); // silence still passes
    wrapper_audio_agc_init(-20.0F, 0.0F);
    EXPECT_FLOAT_EQ(gain_on(0.5F), 0.2F);
}

TEST_F(gain_control, runs_away_with_a_negative_time) {
    wrapper_audio_agc_init(-20.0F, -10.0F);
    float gain = 1.0F;
    for (int block = 0; block < 10; ++block)
        gain = gain_on(0.05F);
    EXPECT_LT(gain, -1000.0F);
}

TEST_F(gain_control, equals_the_reference_bit_for_bit) {
    std::mt19937 random(8);
    const std::pair<float, float> settings[] = {{-20.0F, 100.0F}, {-3.0F, 10.0F}, {0.0F, 0.0F},    {-40.0F, 1e4F},
                                                {6.0F, -50.0F},   {-20.0F, nan},  {-20.0F, 30.0F}, {-20.0F, 7.0F}};
    for (const auto& [target, release] : settings) {
        for (const guard side : {guard::behind, guard::before}) {
            wrapper_audio_agc_init(target, release);
            reference::gain_control expected(target, release);
            for (const size_t length : signals::lengths()) {
                const float amplitude = signals::amplitudes()[random() % signals::amplitudes().size()];
                const bool fresh = random() % 8 == 0; // a NaN would hide all that follows
                if (fresh) {
                    wrapper_audio_agc_init(target, release);
                    expected = reference::gain_control(target, release);
                }
                const auto in = signals::mixed(random, length, amplitude);
                const auto out = in_place(in, side, random() % 4, [](float* samples, int32_t count) {
                    wrapper_audio_agc_process(nullptr, samples, count);
                });
                EXPECT_TRUE(same(out.data(), expected(in))) << target << ", " << release << ", " << length;
            }
        }
    }
}

// ---- Metrics that nothing feeds ----

class metrics : public with_fakes {
protected:
    static void expect_first_answers() {
        EXPECT_EQ(wrapper_audio_snr(), -10.0F);
        EXPECT_EQ(wrapper_audio_clipping_ratio(), 0.0F);
    }
};

TEST_F(metrics, keep_their_first_answers_whatever_is_called) {
    expect_first_answers();
    wrapper_audio_ctx* ctx = wrapper_audio_init(16000, 1, nullptr);
    int16_t pcm[1600];
    fake::world().microphone = [](float* samples, unsigned long count) { std::fill_n(samples, count, 0.99F); };
    wrapper_audio_read(ctx, 100, pcm, 1600, nullptr, nullptr);
    wrapper_audio_free(ctx);
    std::vector<float> loud(480, 0.99F);
    wrapper_audio_hpf_init(100.0F, 0.7F);
    wrapper_audio_hpf_process(nullptr, loud.data(), 480);
    wrapper_audio_depop_process(nullptr, loud.data(), 480, 0.5F);
    wrapper_audio_agc_init(-20.0F, 100.0F);
    wrapper_audio_agc_process(nullptr, loud.data(), 480);
    wrapper_audio_resampler* resampler = wrapper_audio_resampler_init(1, 1, 0);
    std::vector<float> out(480);
    wrapper_audio_resample(resampler, loud.data(), 480, out.data(), 480);
    wrapper_audio_resampler_free(resampler);
    expect_first_answers();
    for (const int32_t freeze : {1, 0, -5, 0}) {
        wrapper_audio_update_noise_profile(nullptr, freeze);
        expect_first_answers();
    }
}

TEST_F(metrics, have_no_denoise_statistics) {
    int32_t slots[2] = {0x12345678, 77};
    EXPECT_EQ(wrapper_audio_denoise_stats(nullptr, slots), 1);
    EXPECT_EQ(slots[0], 0);
    EXPECT_EQ(slots[1], 77);
    EXPECT_EQ(wrapper_audio_denoise_stats(slots, nullptr), 1);
    EXPECT_EQ(slots[1], 77);
    EXPECT_THAT(calls(), testing::IsEmpty());
}

} // namespace
