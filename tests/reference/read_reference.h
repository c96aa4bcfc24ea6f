// What a read does to a block, written down plainly and in one piece: the yardstick for the library's pipeline.
#pragma once

#include <cmath>
#include <cstdint>
#include <functional>
#include <vector>

namespace reference {

struct block {
    std::vector<std::int16_t> pcm;
    float rms = 0.0F;
    float peak = 0.0F;
};

// Whole 10 ms frames at 48000 Hz through `denoise`, which works in place in the 16-bit range; the rest as it is.
inline std::vector<float> denoised(std::vector<float> samples, const std::function<void(float*)>& denoise) {
    for (std::size_t start = 0; start + 480 <= samples.size(); start += 480) {
        for (std::size_t j = 0; j < 480; ++j)
            samples[start + j] = samples[start + j] * 32767.0F;
        denoise(&samples[start]);
        for (std::size_t j = 0; j < 480; ++j)
            samples[start + j] = samples[start + j] / 32767.0F;
    }
    return samples;
}

inline std::vector<float> at_rate(const std::vector<float>& in, std::int64_t in_rate, std::int64_t out_rate,
                                  std::int64_t capacity) {
    const auto n = static_cast<std::int64_t>(in.size());
    std::vector<float> out;
    if (out_rate == in_rate) {
        out.assign(in.begin(), in.begin() + std::min(n, capacity));
    } else if (out_rate < in_rate && in_rate % out_rate == 0) {
        const std::int64_t ratio = in_rate / out_rate;
        for (std::int64_t i = 0; i < std::min(n / ratio, capacity); ++i) {
            float sum = 0.0F;
            for (std::int64_t j = i * ratio; j < (i + 1) * ratio; ++j)
                sum = sum + in.at(static_cast<std::size_t>(j));
            out.push_back(sum / static_cast<float>(ratio));
        }
    } else {
        const double step = static_cast<double>(in_rate) / static_cast<double>(out_rate);
        for (std::int64_t i = 0; i < std::min(out_rate * n / in_rate, capacity); ++i) {
            const double position = static_cast<double>(i) * step;
            const double whole = std::trunc(position);
            const double fraction = position - whole;
            const auto left = static_cast<std::size_t>(whole);
            const std::size_t right = left + 1 < in.size() ? left + 1 : in.size() - 1;
            const double near = static_cast<double>(in.at(left)) * (1.0 - fraction);
            const double far = fraction * static_cast<double>(in.at(right));
            out.push_back(static_cast<float>(near + far));
        }
    }
    return out;
}

inline std::int16_t quantised(float x) {
    if (x != x) return 0;
    if (x > 1.0F) return 32767;
    if (x < -1.0F) return -32767;
    const float scaled = x * 32767.0F;
    return static_cast<std::int16_t>(std::trunc(scaled));
}

inline float rms(const std::vector<float>& samples) {
    double sum = 0.0;
    for (const float x : samples) {
        const float square = x * x;
        sum = sum + static_cast<double>(square);
    }
    const auto level = static_cast<float>(std::sqrt(sum / static_cast<double>(samples.size())));
    return level > 1.0F ? 1.0F : level;
}

inline float peak(const std::vector<float>& samples) {
    float peak = 0.0F;
    for (const float x : samples) {
        if (std::fabs(x) > peak) peak = std::fabs(x);
    }
    return peak > 1.0F ? 1.0F : peak;
}

// Levels and 16-bit samples of a block at the output rate.
inline block measured(const std::vector<float>& samples) {
    block result;
    if (samples.empty()) return result;
    for (const float x : samples)
        result.pcm.push_back(quantised(x));
    result.rms = rms(samples);
    result.peak = peak(samples);
    return result;
}

} // namespace reference
