// How clean the clean conversion is, and that the linear one is what it says, to the last bit.
#include "processors.h"

#include "bits.h"
#include "conversion_reference.h"
#include "signals.h"

#include <cmath>
#include <numbers>
#include <random>

namespace {

constexpr double turn = 2.0 * std::numbers::pi;

std::vector<float> tone(double hz, int32_t rate, double seconds, double amplitude) {
    std::vector<float> samples(static_cast<std::size_t>(seconds * rate));
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<float>(amplitude * std::sin(turn * hz * static_cast<double>(i) / rate));
    return samples;
}

std::vector<float> clean(int32_t in_rate, int32_t out_rate, const std::vector<float>& in) {
    return whole_stream({in_rate, out_rate, 0.0F, 0, WRAPPER_AUDIO_CONVERSION_CLEAN}, in);
}

// Without the quarters at both ends, where a tone that begins and stops is no pure one.
std::span<const float> middle(const std::vector<float>& samples) {
    return std::span(samples).subspan(samples.size() / 4, samples.size() / 2);
}

double power(std::span<const float> samples) {
    double sum = 0.0;
    for (const float x : samples)
        sum += static_cast<double>(x) * static_cast<double>(x);
    return sum / static_cast<double>(samples.size());
}

double db(double power_ratio) {
    return 10.0 * std::log10(power_ratio);
}

struct found_tone {
    double amplitude = 0.0;
    double noise = 0.0;   // the power of everything else
    double seconds = 0.0; // how much later than sin(2 pi f t), within half a period
};

// Least squares, with a cosine window against what leaks from the ends.
found_tone find_tone(std::span<const float> samples, std::size_t first, double hz, int32_t rate) {
    double ss = 0.0;
    double sc = 0.0;
    double cc = 0.0;
    double sx = 0.0;
    double cx = 0.0;
    const auto angle = [&](std::size_t i) { return turn * hz * static_cast<double>(first + i) / rate; };
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double s = std::sin(angle(i));
        const double c = std::cos(angle(i));
        const auto x = static_cast<double>(samples[i]);
        ss += s * s;
        sc += s * c;
        cc += c * c;
        sx += s * x;
        cx += c * x;
    }
    const double determinant = ss * cc - sc * sc;
    const double a = (sx * cc - cx * sc) / determinant;
    const double b = (cx * ss - sx * sc) / determinant;
    found_tone found{.amplitude = std::hypot(a, b), .noise = 0.0, .seconds = -std::atan2(b, a) / (turn * hz)};
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double rest = static_cast<double>(samples[i]) - a * std::sin(angle(i)) - b * std::cos(angle(i));
        found.noise += rest * rest;
    }
    found.noise /= static_cast<double>(samples.size());
    return found;
}

struct rate_pair {
    int32_t in_rate;
    int32_t out_rate;
};

constexpr rate_pair usual_pairs[] = {{44100, 16000}, {48000, 16000}, {48000, 44100},  {44100, 48000},
                                     {16000, 48000}, {8000, 48000},  {48000, 8000},   {96000, 48000},
                                     {11025, 16000}, {22050, 8000},  {192000, 16000}, {16000, 44100}};

// ---- Clean conversion ----

// The bounds are what was measured, less a few dB: soxr's next lower quality misses both.
TEST(clean_conversion, nothing_above_the_new_nyquist_frequency_comes_through) {
    for (const auto& [in_rate, out_rate] : {rate_pair{44100, 16000}, rate_pair{48000, 16000}, rate_pair{48000, 44100},
                                            rate_pair{96000, 48000}, rate_pair{48000, 8000}}) {
        const double from = out_rate / 2.0 + 5.0;
        const double to = in_rate / 2.0 - 5.0;
        double worst = -1000.0;
        double worst_hz = 0.0;
        for (int step = 0; step <= 60; ++step) {
            const double hz = from + (to - from) * step * step / 3600.0; // densest where the filter begins to stop
            const auto in = tone(hz, in_rate, 0.4, 1.0);
            const auto out = clean(in_rate, out_rate, in);
            const double rejection = db(power(middle(out)) / power(middle(in)));
            if (rejection > worst) {
                worst = rejection;
                worst_hz = hz;
            }
        }
        EXPECT_LT(worst, -120.0) << in_rate << " to " << out_rate << " at " << worst_hz << " Hz";
    }
}

TEST(clean_conversion, the_pass_band_is_flat_and_tones_stay_clean) {
    for (const auto& [in_rate, out_rate] : usual_pairs) {
        const double edge = 0.9 * std::min(in_rate, out_rate) / 2.0;
        double worst_noise = -1000.0;
        double worst_level = 0.0;
        for (const double share : {0.02, 0.1, 0.31, 0.5, 0.77, 0.93, 1.0}) {
            const double hz = edge * share;
            const auto out = clean(in_rate, out_rate, tone(hz, in_rate, 0.4, 0.5));
            const auto found = find_tone(middle(out), out.size() / 4, hz, out_rate);
            worst_level = std::max(worst_level, std::abs(db(found.amplitude * found.amplitude / 0.25)));
            worst_noise = std::max(worst_noise, db(found.noise / (found.amplitude * found.amplitude / 2.0)));
        }
        EXPECT_LT(worst_level, 0.1) << in_rate << " to " << out_rate;
        EXPECT_LT(worst_noise, -125.0) << in_rate << " to " << out_rate;
    }
}

// A pulse without anything near the Nyquist frequencies.
std::vector<float> pulse(double at_seconds, int32_t rate, double seconds) {
    const double width = 4.0 / 8000.0;
    std::vector<float> samples(static_cast<std::size_t>(seconds * rate));
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double t = (static_cast<double>(i) / rate - at_seconds) / width;
        samples[i] = static_cast<float>(std::exp(-t * t));
    }
    return samples;
}

double centre(const std::vector<float>& samples) {
    double sum = 0.0;
    double moment = 0.0;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        sum += static_cast<double>(samples[i]);
        moment += static_cast<double>(samples[i]) * static_cast<double>(i);
    }
    return moment / sum;
}

TEST(clean_conversion, every_sample_lies_at_its_time) {
    for (const auto& [in_rate, out_rate] : usual_pairs) {
        for (const double at : {0.05, 0.123456, 0.25}) {
            const auto out = clean(in_rate, out_rate, pulse(at, in_rate, 0.3));
            EXPECT_NEAR(centre(out), at * out_rate, 0.01) << in_rate << " to " << out_rate;
        }
    }
}

TEST(linear_conversion, every_sample_lies_at_its_time) {
    for (const auto& [in_rate, out_rate] : usual_pairs) {
        const auto out =
            whole_stream({in_rate, out_rate, 0.0F, 0, WRAPPER_AUDIO_CONVERSION_LINEAR}, pulse(0.1, in_rate, 0.3));
        // A mean stands at the first of its samples and so is early by half of the others.
        const double ratio = static_cast<double>(in_rate) / out_rate;
        const double early = in_rate % out_rate == 0 ? (ratio - 1.0) / ratio / 2.0 : 0.0;
        EXPECT_NEAR(centre(out), 0.1 * out_rate - early, 0.01) << in_rate << " to " << out_rate;
    }
}

TEST(clean_conversion, the_ends_of_a_sound_are_kept) {
    for (const auto& [in_rate, out_rate] : usual_pairs) {
        const auto in = tone(500.0, in_rate, 0.2, 0.5);
        const auto out = clean(in_rate, out_rate, in);
        // Half a period before the end, which only what was flushed holds.
        const auto last = std::span(out).last(static_cast<std::size_t>(out_rate / 1000));
        EXPECT_NEAR(std::sqrt(power(last)), 0.5 / std::numbers::sqrt2, 0.02) << in_rate << " to " << out_rate;
        const auto first = std::span(out).first(static_cast<std::size_t>(out_rate / 1000));
        EXPECT_NEAR(std::sqrt(power(first)), 0.5 / std::numbers::sqrt2, 0.02) << in_rate << " to " << out_rate;
    }
}

TEST(conversion, at_equal_rates_changes_no_bit) {
    std::mt19937 random(5);
    const auto in = signals::noise(random, 5000, 3.0F);
    for (const int32_t conversion : {WRAPPER_AUDIO_CONVERSION_CLEAN, WRAPPER_AUDIO_CONVERSION_LINEAR}) {
        const auto out = whole_stream({44100, 44100, 0.0F, 0, conversion}, in);
        ASSERT_EQ(out.size(), in.size());
        EXPECT_TRUE(same(out.data(), in));
    }
}

// ---- Linear conversion ----

TEST(linear_conversion, is_the_reference_to_the_last_bit) {
    constexpr int32_t rates[] = {100, 101, 8000, 11025, 16000, 22050, 44100, 47999, 48000, 96000, 768000};
    std::mt19937 random(6);
    for (const int32_t in_rate : rates) {
        for (const int32_t out_rate : rates) {
            const std::size_t most = out_rate / in_rate > 100 ? 20 : 3000;
            for (const std::size_t length : {std::size_t{1}, std::size_t{2}, std::size_t{3}, most, most + 7919}) {
                if (length > most && out_rate > 10 * in_rate) continue;
                const auto in = signals::noise(random, length);
                const auto expected = reference::linear_stream(in, in_rate, out_rate);
                const auto processor = voice({in_rate, out_rate, 0.0F, 0, WRAPPER_AUDIO_CONVERSION_LINEAR});
                const auto out = in_pieces(processor, in, [&] { return random() % 1000; });
                ASSERT_EQ(out.size(), expected.size()) << in_rate << " to " << out_rate << ", " << length;
                EXPECT_TRUE(same(out.data(), expected)) << in_rate << " to " << out_rate << ", " << length;
            }
        }
    }
}

TEST(linear_conversion, loses_no_precision_in_a_long_stream) {
    // The position reaches millions; the fraction is still exact.
    std::mt19937 random(7);
    const auto in = signals::noise(random, 3000000);
    const auto expected = reference::linear_stream(in, 47999, 8001);
    const auto out = whole_stream({47999, 8001, 0.0F, 0, WRAPPER_AUDIO_CONVERSION_LINEAR}, in);
    ASSERT_EQ(out.size(), expected.size());
    EXPECT_TRUE(same(out.data(), expected));
}

TEST(linear_conversion, by_hand) {
    const wrapper_audio_voice_options thirds{48000, 16000, 0.0F, 0, WRAPPER_AUDIO_CONVERSION_LINEAR};
    EXPECT_EQ(whole_stream(thirds, std::vector{0.0F, 3.0F, 6.0F, 1.0F, 1.0F}), (std::vector{3.0F, 1.0F}));
    EXPECT_EQ(whole_stream(thirds, std::vector{0.0F, 3.0F, 6.0F, 1.0F}), (std::vector{3.0F}));
    const wrapper_audio_voice_options twice{8000, 16000, 0.0F, 0, WRAPPER_AUDIO_CONVERSION_LINEAR};
    EXPECT_EQ(whole_stream(twice, std::vector{1.0F, 2.0F, 4.0F}), (std::vector{1.0F, 1.5F, 2.0F, 3.0F, 4.0F, 4.0F}));
    const wrapper_audio_voice_options two_thirds{300, 200, 0.0F, 0, WRAPPER_AUDIO_CONVERSION_LINEAR};
    EXPECT_EQ(whole_stream(two_thirds, std::vector{1.0F, 2.0F, 4.0F, 8.0F}), (std::vector{1.0F, 3.0F, 8.0F}));
}

} // namespace
