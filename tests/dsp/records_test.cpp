// The process-wide records and the metrics update that no export reaches, driven by including the source.
#include "bits.h"
#include "dsp_reference.h"
#include "signals.h"

#include "../../src/dsp_extensions.cpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <limits>
#include <type_traits>

namespace {

using signals::infinity;
using signals::nan;
constexpr int32_t int_max = std::numeric_limits<int32_t>::max();
constexpr int32_t int_min = std::numeric_limits<int32_t>::min();

// What the records hold when the library is loaded, read before anything can have changed them.
const struct at_load {
    numeric::biquad hpf = g_hpf;
    int32_t hpf_initialized = g_hpf_initialized;
    agc gain = g_agc;
    int32_t agc_initialized = g_agc_initialized;
    int32_t clipping_count = g_clipping_count;
    int32_t total_samples = g_total_samples;
    float signal_power = g_signal_power;
    float noise_power = g_noise_power;
    int32_t frozen = g_noise_profile_frozen;
} g_at_load;

class records : public testing::Test {
protected:
    void SetUp() override {
        g_hpf = g_at_load.hpf;
        g_hpf_initialized = g_at_load.hpf_initialized;
        g_agc = g_at_load.gain;
        g_agc_initialized = g_at_load.agc_initialized;
        g_clipping_count = g_at_load.clipping_count;
        g_total_samples = g_at_load.total_samples;
        g_signal_power = g_at_load.signal_power;
        g_noise_power = g_at_load.noise_power;
        g_noise_profile_frozen = g_at_load.frozen;
    }
};

TEST_F(records, hold_these_values_when_the_library_is_loaded) {
    const numeric::biquad rest{};
    EXPECT_EQ(std::memcmp(&g_at_load.hpf, &rest, sizeof rest), 0);
    const agc silent{};
    EXPECT_EQ(std::memcmp(&g_at_load.gain, &silent, sizeof silent), 0);
    EXPECT_EQ(g_at_load.hpf_initialized, 0);
    EXPECT_EQ(g_at_load.agc_initialized, 0);
    EXPECT_EQ(g_at_load.clipping_count, 0);
    EXPECT_EQ(g_at_load.total_samples, 0);
    EXPECT_EQ(g_at_load.signal_power, 0.0F);
    EXPECT_EQ(std::bit_cast<uint32_t>(g_at_load.noise_power), 0x3A83126FU); // the float nearest to 0.001
    EXPECT_EQ(g_at_load.frozen, 0);
}

TEST_F(records, have_their_fields_in_order) {
    std::array<double, 7> filter{};
    g_hpf = {1, 2, 3, 4, 5, 6, 7};
    static_assert(sizeof g_hpf == sizeof filter);
    std::memcpy(filter.data(), &g_hpf, sizeof filter);
    EXPECT_THAT(filter, testing::ElementsAre(g_hpf.b0, g_hpf.b1, g_hpf.b2, g_hpf.a1, g_hpf.a2, g_hpf.z1, g_hpf.z2));
    EXPECT_THAT(filter, testing::ElementsAre(1, 2, 3, 4, 5, 6, 7));
    std::array<float, 3> gain{};
    g_agc = {.target_lin = 1, .release_coef = 2, .gain = 3};
    static_assert(sizeof g_agc == sizeof gain);
    std::memcpy(gain.data(), &g_agc, sizeof gain);
    EXPECT_THAT(gain, testing::ElementsAre(1, 2, 3));
    static_assert(std::is_same_v<decltype(g_hpf_initialized), int32_t>);
    static_assert(std::is_same_v<decltype(g_agc_initialized), int32_t>);
}

TEST_F(records, of_a_resampler_keep_its_arguments) {
    wrapper_audio_resampler* resampler = wrapper_audio_resampler_init(-5, int_max, 77);
    std::array<int32_t, 4> fields{};
    static_assert(sizeof *resampler == sizeof fields);
    std::memcpy(fields.data(), resampler, sizeof fields);
    EXPECT_THAT(fields, testing::ElementsAre(-5, int_max, 77, 0));
    const float in[2] = {1.0F, 2.0F};
    float out[2];
    wrapper_audio_resample(resampler, in, 2, out, 2);
    EXPECT_EQ(std::memcmp(fields.data(), resampler, sizeof fields), 0) << "converting changed the record";
    wrapper_audio_resampler_free(resampler);
}

// ---- Filters and gain before and after their init ----

TEST_F(records, without_an_init_processing_leaves_blocks_and_state_as_they_are) {
    const std::vector<float> in{0.5F, nan, -0.0F, 1e-45F, infinity};
    auto samples = in;
    wrapper_audio_hpf_process(nullptr, samples.data(), 5);
    wrapper_audio_agc_process(nullptr, samples.data(), 5);
    EXPECT_TRUE(same(samples.data(), in));
    EXPECT_EQ(g_hpf.z1, 0.0);
    EXPECT_EQ(g_agc.gain, 0.0F);
}

TEST_F(records, of_the_high_pass_hold_the_documented_coefficients) {
    wrapper_audio_hpf_init(100.0F, 0.707F);
    EXPECT_EQ(g_hpf_initialized, 1);
    EXPECT_NEAR(g_hpf.b0, 0.9726099313, 5e-11);
    EXPECT_NEAR(g_hpf.b1, -1.945219863, 5e-10);
    EXPECT_EQ(g_hpf.b2, g_hpf.b0);
    EXPECT_NEAR(g_hpf.a1, -1.944469726, 5e-10);
    EXPECT_NEAR(g_hpf.a2, 0.9459699987, 5e-11);
    wrapper_audio_hpf_init(0.0F, 0.707F);
    EXPECT_EQ(g_hpf.b0, 1.0);
    EXPECT_EQ(g_hpf.b1, -2.0);
    EXPECT_EQ(g_hpf.b2, 1.0);
    EXPECT_EQ(g_hpf.a1, -2.0);
    EXPECT_EQ(g_hpf.a2, 1.0);
    wrapper_audio_hpf_init(8000.0F, 0.707F);
    EXPECT_EQ(g_hpf.b0, 0.0);
    EXPECT_EQ(g_hpf.b1, 0.0);
    EXPECT_EQ(g_hpf.b2, 0.0);
}

TEST_F(records, of_the_high_pass_equal_the_cookbook_bit_for_bit) {
    std::mt19937 random(9);
    std::uniform_real_distribution<float> cutoff(-20000.0F, 20000.0F);
    std::uniform_real_distribution<float> q(-2.0F, 5.0F);
    for (int round = 0; round < 20000; ++round) {
        const float hz = cutoff(random);
        const float quality = q(random);
        const auto designed = numeric::high_pass(static_cast<double>(hz), static_cast<double>(quality), 16000.0);
        const reference::high_pass expected(hz, quality);
        EXPECT_TRUE(same(designed.b0, expected.b0) && same(designed.b1, expected.b1) &&
                    same(designed.b2, expected.b2) && same(designed.a1, expected.a1) && same(designed.a2, expected.a2))
            << hz << ", " << quality;
    }
}

TEST_F(records, of_the_high_pass_keep_the_state_between_calls_and_lose_it_at_an_init) {
    wrapper_audio_hpf_init(100.0F, 0.707F);
    float samples[3] = {0.5F, -0.25F, 0.75F};
    reference::high_pass expected(100.0F, 0.707F);
    expected({0.5F, -0.25F, 0.75F});
    wrapper_audio_hpf_process(nullptr, samples, 3);
    EXPECT_TRUE(same(g_hpf.z1, expected.z1));
    EXPECT_TRUE(same(g_hpf.z2, expected.z2));
    EXPECT_NE(g_hpf.z1, 0.0);
    wrapper_audio_hpf_init(100.0F, 0.707F);
    EXPECT_EQ(g_hpf.z1, 0.0);
    EXPECT_EQ(g_hpf.z2, 0.0);
}

TEST_F(records, of_the_gain_control_hold_target_coefficient_and_gain) {
    wrapper_audio_agc_init(-20.0F, 100.0F);
    EXPECT_EQ(g_agc_initialized, 1);
    EXPECT_EQ(g_agc.target_lin, 0.1F);
    EXPECT_EQ(g_agc.release_coef, std::exp(-0.1F));
    EXPECT_NEAR(g_agc.release_coef, 0.9048374, 5e-8);
    EXPECT_EQ(g_agc.gain, 1.0F);
    std::vector<float> samples(160, 0.01F);
    wrapper_audio_agc_process(nullptr, samples.data(), 160);
    EXPECT_NEAR(g_agc.gain, 1.856463, 5e-7);
    std::vector<float> silence(160, 5e-7F);
    const float kept = g_agc.gain;
    wrapper_audio_agc_process(nullptr, silence.data(), 160);
    EXPECT_EQ(g_agc.gain, kept);
    wrapper_audio_agc_process(nullptr, samples.data(), -160);
    EXPECT_EQ(g_agc.gain, kept);
}

TEST_F(records, of_the_gain_control_with_no_time_hold_the_aim) {
    wrapper_audio_agc_init(-20.0F, 0.0F);
    EXPECT_EQ(g_agc.release_coef, 0.0F);
    std::vector<float> samples(160, 0.05F);
    wrapper_audio_agc_process(nullptr, samples.data(), 160);
    EXPECT_EQ(g_agc.gain, 0.1F / 0.05F);
    wrapper_audio_agc_init(-20.0F, -10.0F);
    EXPECT_GT(g_agc.release_coef, 1.0F);
}

TEST_F(records, of_the_gain_control_limit_the_aim_upper_bound_first) {
    EXPECT_EQ(limit_gain(10.0F), 10.0F);
    EXPECT_EQ(limit_gain(std::nextafter(10.0F, 11.0F)), 10.0F);
    EXPECT_EQ(limit_gain(std::nextafter(10.0F, 9.0F)), std::nextafter(10.0F, 9.0F));
    EXPECT_EQ(limit_gain(0.1F), 0.1F);
    EXPECT_EQ(limit_gain(std::nextafter(0.1F, 0.0F)), 0.1F);
    EXPECT_EQ(limit_gain(infinity), 10.0F);
    EXPECT_EQ(limit_gain(-1.0F), 0.1F);
    EXPECT_TRUE(std::isnan(limit_gain(nan)));
}

TEST_F(records, of_the_gain_control_treat_exactly_1e_minus_6_as_sound) {
    wrapper_audio_agc_init(-20.0F, 0.0F);
    std::vector<float> samples(4, 1e-6F);
    const auto rms = static_cast<float>(std::sqrt(reference::mean_square(samples)));
    wrapper_audio_agc_process(nullptr, samples.data(), 4);
    EXPECT_EQ(g_agc.gain, rms < 1e-6F ? 1.0F : 10.0F);
    g_agc.gain = 1.0F;
    std::vector<float> lower(4, std::nextafter(std::nextafter(1e-6F, 0.0F), 0.0F));
    wrapper_audio_agc_process(nullptr, lower.data(), 4);
    EXPECT_EQ(g_agc.gain, 1.0F);
}

// ---- Metrics ----

class metrics_update : public records {
protected:
    static void feed(const std::vector<float>& samples) {
        dsp_update_metrics(samples.data(), static_cast<int32_t>(samples.size()));
    }
};

TEST_F(metrics_update, of_a_loud_block) {
    feed(std::vector<float>(100, 0.5F));
    EXPECT_EQ(g_clipping_count, 0);
    EXPECT_EQ(g_total_samples, 100);
    EXPECT_EQ(g_signal_power, 0.1F * 0.25F);
    EXPECT_FLOAT_EQ(g_signal_power, 0.025F);
    EXPECT_EQ(g_noise_power, 0.001F);
    EXPECT_NEAR(wrapper_audio_snr(), 13.979, 5e-4);
}

TEST_F(metrics_update, of_a_quiet_block_moves_the_noise_floor_unless_frozen) {
    for (const int32_t frozen : {0, 1, -3}) {
        SetUp();
        wrapper_audio_update_noise_profile(nullptr, frozen);
        EXPECT_EQ(g_noise_profile_frozen, frozen);
        feed(std::vector<float>(100, 0.01F));
        EXPECT_NEAR(g_noise_power, frozen == 0 ? 0.000955 : 0.001, 1e-9);
        EXPECT_NEAR(g_signal_power, 0.00001, 1e-11);
    }
}

TEST_F(metrics_update, ignores_nothing_and_no_samples) {
    const float sample = 1.0F;
    dsp_update_metrics(nullptr, 5);
    dsp_update_metrics(&sample, 0);
    EXPECT_EQ(g_total_samples, 0);
    EXPECT_EQ(g_signal_power, 0.0F);
}

TEST_F(metrics_update, takes_a_negative_count_back_and_lets_both_powers_decay) {
    feed(std::vector<float>(100, 0.5F));
    const float signal = g_signal_power;
    dsp_update_metrics(&signal, -30);
    EXPECT_EQ(g_total_samples, 70);
    EXPECT_EQ(g_clipping_count, 0);
    EXPECT_EQ(g_signal_power, 0.9F * signal);
    EXPECT_EQ(g_noise_power, 0.95F * 0.001F);
}

TEST_F(metrics_update, counts_magnitudes_strictly_above_0_95) {
    feed({0.95F, -0.95F, 0.9500001F, -0.96F, nan, infinity, -infinity, 0.0F});
    EXPECT_EQ(g_clipping_count, 4);
    EXPECT_EQ(g_total_samples, 8);
    EXPECT_EQ(wrapper_audio_clipping_ratio(), 0.5F);
}

TEST_F(metrics_update, calls_a_block_quiet_strictly_below_a_mean_square_of_0_001) {
    // Two samples whose mean square is exactly the threshold, found among the neighbours of its root.
    std::vector<float> exact;
    const float root = std::sqrt(0.001F);
    for (float a = root * 0.99999F; a < root * 1.00001F && exact.empty(); a = std::nextafter(a, 1.0F)) {
        for (float b = a; b < root * 1.00001F; b = std::nextafter(b, 1.0F)) {
            if (static_cast<float>(reference::mean_square({a, b})) == 0.001F) exact = {a, b};
        }
    }
    ASSERT_FALSE(exact.empty());
    feed(exact);
    EXPECT_EQ(g_noise_power, 0.001F);
    g_noise_power = 0.5F; // visible whichever way it moves
    feed(exact);
    EXPECT_EQ(g_noise_power, 0.5F);
    exact[0] *= 0.9999F;
    feed(exact);
    EXPECT_LT(g_noise_power, 0.5F);
}

TEST_F(metrics_update, wraps_its_counters_around) {
    g_total_samples = int_max - 1;
    g_clipping_count = int_max;
    feed({1.0F, 0.0F, 0.0F});
    EXPECT_EQ(g_total_samples, int_min + 1);
    EXPECT_EQ(g_clipping_count, int_min);
    const float sample = 0.0F;
    g_total_samples = int_min;
    dsp_update_metrics(&sample, -1);
    EXPECT_EQ(g_total_samples, int_max);
    dsp_update_metrics(&sample, int_min);
    EXPECT_EQ(g_total_samples, -1);
}

TEST_F(metrics_update, equals_the_reference_bit_for_bit) {
    std::mt19937 random(10);
    float signal = 0.0F;
    float noise = 0.001F;
    int clipped = 0;
    int total = 0;
    for (int round = 0; round < 400; ++round) {
        const auto length = round < 70 ? static_cast<size_t>(round + 1) : random() % 5000 + 1;
        const float amplitude = signals::amplitudes()[random() % 8];
        const auto in = signals::noise(random, length, amplitude);
        const auto frozen = static_cast<int32_t>(random() % 2);
        g_noise_profile_frozen = frozen;
        feed(in);
        for (const float x : in)
            clipped += std::fabs(x) > 0.95F ? 1 : 0;
        total += static_cast<int>(length);
        const auto mean_square = static_cast<float>(reference::mean_square(in));
        signal = 0.9F * signal + 0.1F * mean_square;
        if (frozen == 0 && mean_square < 0.001F) noise = 0.95F * noise + 0.05F * mean_square;
        ASSERT_EQ(g_clipping_count, clipped);
        ASSERT_EQ(g_total_samples, total);
        ASSERT_TRUE(same(g_signal_power, signal));
        ASSERT_TRUE(same(g_noise_power, noise));
        ASSERT_EQ(wrapper_audio_clipping_ratio(), static_cast<float>(clipped) / static_cast<float>(total));
    }
    EXPECT_NE(noise, 0.001F);
}

TEST_F(metrics_update, a_nan_block_spoils_the_signal_power_and_shows_in_the_snr) {
    feed({nan, 0.5F});
    EXPECT_TRUE(std::isnan(g_signal_power));
    EXPECT_EQ(g_noise_power, 0.001F);
    EXPECT_TRUE(std::isnan(wrapper_audio_snr()));
}

TEST_F(metrics_update, the_snr_is_limited_to_minus_10_and_60_db) {
    const auto snr = [](float signal, float noise) {
        g_signal_power = signal;
        g_noise_power = noise;
        return wrapper_audio_snr();
    };
    EXPECT_EQ(snr(0.0F, 0.001F), -10.0F);
    EXPECT_EQ(snr(0.00001F, 0.001F), -10.0F);
    EXPECT_EQ(snr(0.00009F, 0.001F), -10.0F) << "barely below";
    EXPECT_EQ(snr(0.001F, 0.001F), 0.0F);
    EXPECT_EQ(snr(1050.0F, 0.001F), 60.0F) << "barely above";
    EXPECT_FLOAT_EQ(snr(0.1F, 0.001F), 20.0F);
    EXPECT_EQ(snr(1e10F, 0.001F), 60.0F);
    EXPECT_EQ(snr(infinity, 0.001F), 60.0F);
    EXPECT_EQ(snr(0.0F, 0.9e-10F), 60.0F);
    EXPECT_EQ(snr(nan, 0.0F), 60.0F);
    EXPECT_EQ(snr(1e-10F, 1e-10F), 0.0F) << "exactly the least noise power is not below it";
    for (const float signal : {0.5F, 0.002F, 0.003F, 0.016F}) {
        EXPECT_EQ(snr(signal, 0.001F), 10.0F * std::log10(signal / 0.001F)) << signal;
    }
    EXPECT_TRUE(std::isnan(snr(-1.0F, 0.001F)));
}

TEST_F(metrics_update, the_clipping_ratio_divides_signed_counts) {
    g_clipping_count = 1;
    g_total_samples = 3;
    EXPECT_EQ(wrapper_audio_clipping_ratio(), 1.0F / 3.0F);
    g_clipping_count = 16777371; // neither count is a float
    g_total_samples = 33554697;
    EXPECT_EQ(wrapper_audio_clipping_ratio(), static_cast<float>(16777371) / static_cast<float>(33554697));
    g_clipping_count = 1;
    g_total_samples = -2;
    EXPECT_EQ(wrapper_audio_clipping_ratio(), -0.5F);
    g_total_samples = 0;
    EXPECT_EQ(wrapper_audio_clipping_ratio(), 0.0F);
}

TEST_F(metrics_update, releasing_the_freeze_restarts_the_counters_and_freezing_does_not) {
    feed(std::vector<float>(10, 0.99F));
    const float signal = g_signal_power;
    for (const int32_t frozen : {5, -5}) {
        wrapper_audio_update_noise_profile(nullptr, frozen);
        EXPECT_EQ(wrapper_audio_clipping_ratio(), 1.0F);
    }
    wrapper_audio_update_noise_profile(nullptr, 0);
    EXPECT_EQ(g_clipping_count, 0);
    EXPECT_EQ(g_total_samples, 0);
    EXPECT_EQ(wrapper_audio_clipping_ratio(), 0.0F);
    EXPECT_EQ(g_signal_power, signal);
    EXPECT_EQ(g_noise_power, 0.001F);
    feed({0.99F, 0.1F});
    EXPECT_EQ(wrapper_audio_clipping_ratio(), 0.5F);
}

} // namespace
