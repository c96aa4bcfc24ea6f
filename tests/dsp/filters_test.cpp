// The high-pass and de-pop filters, on blocks of every length, alignment and kind of number.
#include "bits.h"
#include "dsp_reference.h"
#include "fixture.h"
#include "in_place.h"
#include "signals.h"

#include <limits>

using testing::Each;
using testing::ElementsAre;

namespace {

using signals::infinity;
using signals::nan;

class high_pass : public with_fakes {
protected:
    static std::vector<float> filtered(std::vector<float> samples) {
        wrapper_audio_hpf_process(nullptr, samples.data(), static_cast<int32_t>(samples.size()));
        return samples;
    }
};

TEST_F(high_pass, says_at_each_init_what_it_was_given) {
    wrapper_audio_hpf_init(100.0F, 0.707F);
    wrapper_audio_hpf_init(79.5F, 1.0006F);
    wrapper_audio_hpf_init(-8000.25F, nan);
    EXPECT_EQ(log(), "[dsp] HPF инициализирован: cutoff=100 Hz, Q=0.707\n"
                     "[dsp] HPF инициализирован: cutoff=80 Hz, Q=1.001\n"
                     "[dsp] HPF инициализирован: cutoff=-8000 Hz, Q=nan\n");
    EXPECT_THAT(calls(), testing::SizeIs(3));
}

TEST_F(high_pass, of_no_cutoff_returns_its_input) {
    std::mt19937 random(1);
    wrapper_audio_hpf_init(0.0F, 0.707F);
    const auto in = signals::noise(random, 1000);
    EXPECT_EQ(filtered(in), in);
}

TEST_F(high_pass, of_half_the_design_rate_returns_nothing) {
    std::mt19937 random(2);
    wrapper_audio_hpf_init(8000.0F, 0.707F);
    EXPECT_THAT(filtered(signals::noise(random, 1000)), Each(0.0F));
}

TEST_F(high_pass, takes_a_constant_away) {
    wrapper_audio_hpf_init(100.0F, 0.707F);
    const auto out = filtered(std::vector<float>(16000, 0.5F));
    EXPECT_NEAR(out[0], 0.5F * 0.9726099F, 1e-6);
    EXPECT_LT(std::fabs(out[1000]), 1e-3F);
    EXPECT_LT(std::fabs(out[15999]), 1e-9F);
}

TEST_F(high_pass, with_a_q_of_0_gives_two_zeros_and_then_nan) {
    wrapper_audio_hpf_init(100.0F, 0.0F);
    const auto out = filtered({0.5F, -0.25F, 0.125F, 1.0F});
    EXPECT_EQ(out[0], 0.0F);
    EXPECT_EQ(out[1], 0.0F);
    EXPECT_TRUE(std::isnan(out[2]));
    EXPECT_TRUE(std::isnan(out[3]));
}

TEST_F(high_pass, filters_two_blocks_as_one_signal) {
    std::mt19937 random(3);
    for (const size_t cut : {1U, 2U, 3U, 160U, 479U}) {
        const auto in = signals::noise(random, 480);
        wrapper_audio_hpf_init(120.0F, 0.9F);
        const auto whole = filtered(in);
        wrapper_audio_hpf_init(120.0F, 0.9F);
        int one = 0;
        auto pieces = in;
        wrapper_audio_hpf_process(&one, pieces.data(), static_cast<int32_t>(cut));
        wrapper_audio_hpf_process(nullptr, pieces.data() + cut, static_cast<int32_t>(480 - cut));
        EXPECT_EQ(pieces, whole);
        wrapper_audio_hpf_init(120.0F, 0.9F); // an init in between puts the filter at rest
        EXPECT_EQ(filtered(in), whole);
    }
}

TEST_F(high_pass, leaves_its_state_alone_when_there_is_nothing_to_filter) {
    std::mt19937 random(4);
    auto in = signals::noise(random, 100);
    wrapper_audio_hpf_init(120.0F, 0.9F);
    const auto whole = filtered(in);
    wrapper_audio_hpf_init(120.0F, 0.9F);
    wrapper_audio_hpf_process(nullptr, in.data(), 50);
    const auto half = in;
    wrapper_audio_hpf_process(nullptr, nullptr, 50);
    wrapper_audio_hpf_process(nullptr, in.data() + 50, 0);
    wrapper_audio_hpf_process(nullptr, in.data() + 50, -1);
    wrapper_audio_hpf_process(nullptr, in.data() + 50, std::numeric_limits<int32_t>::min());
    EXPECT_EQ(in, half);
    wrapper_audio_hpf_process(nullptr, in.data() + 50, 50);
    EXPECT_EQ(in, whole);
}

TEST_F(high_pass, is_spoilt_by_a_sample_that_is_not_finite_until_the_next_init) {
    for (const float poison : {nan, infinity, -infinity}) {
        wrapper_audio_hpf_init(100.0F, 0.707F);
        filtered({0.5F, poison, 0.5F});
        EXPECT_THAT(filtered(std::vector<float>(100, 0.25F)), Each(testing::Truly([](float x) { return x != x; })));
        wrapper_audio_hpf_init(100.0F, 0.707F);
        EXPECT_TRUE(std::isfinite(filtered({0.25F})[0]));
    }
}

TEST_F(high_pass, equals_the_reference_bit_for_bit) {
    std::mt19937 random(5);
    const std::pair<float, float> designs[] = {{100.0F, 0.707F}, {80.0F, 0.5F},   {7999.0F, 4.0F},
                                               {300.0F, -0.7F},  {9000.0F, 1.0F}, {1e-3F, 1e3F}};
    for (const auto& [cutoff, q] : designs) {
        for (const size_t length : signals::lengths()) {
            const float amplitude = signals::amplitudes()[random() % signals::amplitudes().size()];
            const auto in = signals::mixed(random, length, amplitude);
            reference::high_pass expected(cutoff, q);
            const auto once = expected(in);
            const auto twice = expected(in);
            for (const guard side : {guard::behind, guard::before}) {
                wrapper_audio_hpf_init(cutoff, q);
                for (const auto* block : {&once, &twice}) {
                    const auto out = in_place(in, side, random() % 4, [](float* samples, int32_t count) {
                        wrapper_audio_hpf_process(nullptr, samples, count);
                    });
                    EXPECT_TRUE(same(out.data(), *block)) << cutoff << ", " << q << ", " << length;
                }
            }
        }
    }
}

TEST_F(high_pass, runs_down_through_the_denormals_like_the_reference) {
    wrapper_audio_hpf_init(100.0F, 0.707F);
    reference::high_pass expected(100.0F, 0.707F);
    std::vector<float> in(65536, 0.0F);
    in[0] = 1e-30F;
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(same(filtered(in).data(), expected(in)));
        in[0] = -0.0F;
    }
}

class depop : public with_fakes {
protected:
    static std::vector<float> filtered(std::vector<float> samples, float coef) {
        wrapper_audio_depop_process(nullptr, samples.data(), static_cast<int32_t>(samples.size()), coef);
        return samples;
    }
};

TEST_F(depop, subtracts_a_share_of_the_sample_before) {
    EXPECT_THAT(filtered({1.0F, 1.0F, 1.0F}, 1.0F), ElementsAre(1.0F, 0.0F, 0.0F));
    EXPECT_THAT(filtered({1.0F, 0.5F, -1.0F}, 0.5F), ElementsAre(1.0F, 0.0F, -1.25F));
}

TEST_F(depop, of_less_than_two_samples_does_nothing) {
    float samples[2] = {0.5F, 0.25F};
    for (const int32_t count : {1, 0, -1, std::numeric_limits<int32_t>::min()}) {
        wrapper_audio_depop_process(nullptr, samples, count, 0.9F);
        EXPECT_THAT(samples, ElementsAre(0.5F, 0.25F));
    }
    wrapper_audio_depop_process(nullptr, nullptr, 100, 0.9F);
}

TEST_F(depop, with_a_coefficient_of_0_leaves_finite_samples_as_they_are) {
    std::mt19937 random(6);
    const auto in = signals::noise(random, 1000);
    EXPECT_EQ(filtered(in, 0.0F), in);
}

TEST_F(depop, lets_the_formula_decide_even_for_a_coefficient_of_0) {
    const auto out = filtered({nan, 1.0F, infinity, 1.0F, 1.0F}, 0.0F);
    EXPECT_TRUE(std::isnan(out[1]));
    EXPECT_EQ(out[2], infinity);
    EXPECT_TRUE(std::isnan(out[3]));
    EXPECT_EQ(out[4], 1.0F);
    const auto zeros = filtered({-1.0F, -0.0F, 1.0F, -0.0F}, 0.0F);
    EXPECT_FALSE(std::signbit(zeros[1])); // -0.0 - -0.0 = +0.0
    EXPECT_TRUE(std::signbit(zeros[3]));  // -0.0 - +0.0 = -0.0
}

TEST_F(depop, forgets_the_last_sample_of_a_call) {
    const std::vector<float> in{1.0F, 1.0F, 1.0F, 1.0F};
    auto pieces = in;
    wrapper_audio_depop_process(nullptr, pieces.data(), 2, 0.5F);
    wrapper_audio_depop_process(nullptr, pieces.data() + 2, 2, 0.5F);
    EXPECT_THAT(pieces, ElementsAre(1.0F, 0.5F, 1.0F, 0.5F));
    EXPECT_THAT(filtered(in, 0.5F), ElementsAre(1.0F, 0.5F, 0.5F, 0.5F));
}

TEST_F(depop, equals_the_reference_bit_for_bit) {
    std::mt19937 random(7);
    for (const float coef : {0.95F, 0.0F, -0.0F, 1.0F, -3.5F, 1e-40F, 1e30F, nan, infinity}) {
        for (const size_t length : signals::lengths()) {
            const float amplitude = signals::amplitudes()[random() % signals::amplitudes().size()];
            const auto in = signals::mixed(random, length, amplitude);
            for (const guard side : {guard::behind, guard::before}) {
                const auto out = in_place(in, side, random() % 4, [coef](float* samples, int32_t count) {
                    wrapper_audio_depop_process(nullptr, samples, count, coef);
                });
                EXPECT_TRUE(same(out.data(), reference::depopped(in, coef))) << coef << ", " << length;
            }
        }
    }
}

TEST_F(depop, says_nothing) {
    filtered({1.0F, 2.0F}, 0.5F);
    EXPECT_THAT(calls(), testing::IsEmpty());
}

} // namespace
