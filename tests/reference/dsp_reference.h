// The signal functions written down plainly: the yardstick for the library's.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

namespace reference {

// ---- Resampler ----

inline std::int32_t resampled_count(std::int32_t in_rate, std::int32_t out_rate, std::int32_t in_count,
                                    std::int32_t max_out) {
    const double ratio = static_cast<double>(in_rate) / static_cast<double>(out_rate);
    const double quotient = std::trunc(static_cast<double>(in_count) / ratio);
    if (std::isnan(quotient) || quotient < -2147483648.0 || quotient > 2147483647.0) return -2147483647 - 1;
    const double limited = std::min(quotient, static_cast<double>(max_out));
    if (limited > 0.0 && in_count < 0) return in_count;
    return static_cast<std::int32_t>(limited);
}

inline std::vector<float> resampled(std::int32_t in_rate, std::int32_t out_rate, const std::vector<float>& in,
                                    std::int32_t max_out) {
    const double ratio = static_cast<double>(in_rate) / static_cast<double>(out_rate);
    const std::int32_t count = resampled_count(in_rate, out_rate, static_cast<std::int32_t>(in.size()), max_out);
    std::vector<float> out;
    for (std::int32_t i = 0; i < count; ++i) {
        const double position = static_cast<double>(i) * ratio;
        const double whole = std::floor(position);
        const double fraction = position - whole;
        const auto left = static_cast<std::size_t>(whole);
        const std::size_t right = std::min(left + 1, in.size() - 1);
        const double near = static_cast<double>(in.at(left)) * (1.0 - fraction);
        const double far = fraction * static_cast<double>(in.at(right));
        out.push_back(static_cast<float>(near + far));
    }
    return out;
}

// ---- Filters ----

struct high_pass {
    double b0, b1, b2, a1, a2;
    double z1 = 0.0, z2 = 0.0;

    high_pass(float cutoff_hz, float q, double rate = 16000.0) {
        const double angle = static_cast<double>(cutoff_hz) * 6.283185307179586 / rate;
        const double s = std::sin(angle);
        const double c = std::cos(angle);
        const double alpha = s / (2.0 * static_cast<double>(q));
        const double a0 = 1.0 + alpha;
        b0 = (1.0 + c) / 2.0 / a0;
        b1 = -(1.0 + c) / a0;
        b2 = b0;
        a1 = -2.0 * c / a0;
        a2 = (1.0 - alpha) / a0;
    }

    std::vector<float> operator()(std::vector<float> samples) {
        for (float& sample : samples) {
            const auto x = static_cast<double>(sample);
            const double forward = b0 * x;
            const double y = forward + z1;
            const double first = b1 * x - a1 * y;
            z1 = first + z2;
            z2 = b2 * x - a2 * y;
            sample = static_cast<float>(y);
        }
        return samples;
    }
};

inline std::vector<float> depopped(const std::vector<float>& in, float coef) {
    std::vector<float> out = in;
    for (std::size_t i = 1; i < in.size(); ++i) {
        const float share = in[i - 1] * coef;
        out[i] = in[i] - share;
    }
    return out;
}

// ---- Gain control and metrics ----

inline double mean_square(const std::vector<float>& samples) {
    double sum = 0.0;
    for (const float x : samples) {
        const float square = x * x;
        sum = sum + static_cast<double>(square);
    }
    return sum / static_cast<double>(samples.size());
}

struct gain_control {
    float target, keep, gain = 1.0F;

    gain_control(float target_db, float release_ms)
        : target(std::pow(10.0F, target_db / 20.0F)), keep(std::exp(-10.0F / release_ms)) {}

    std::vector<float> operator()(std::vector<float> samples) {
        const auto level = static_cast<float>(std::sqrt(mean_square(samples)));
        if (level < 1e-6F) return samples;
        float desired = target / level;
        if (desired > 10.0F) {
            desired = 10.0F;
        } else if (desired < 0.1F) {
            desired = 0.1F;
        }
        const float old_share = gain * keep;
        const float new_share = (1.0F - keep) * desired;
        gain = old_share + new_share;
        for (float& x : samples)
            x = x * gain;
        return samples;
    }
};

} // namespace reference
