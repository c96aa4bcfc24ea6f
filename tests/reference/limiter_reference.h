// The look-ahead limiter, written down as its formulas: no running sums, no queue.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace reference {

inline std::vector<float> limited(const std::vector<float>& in, int rate, float ceiling_db, float release_ms) {
    const auto length = static_cast<std::ptrdiff_t>(std::max(1L, std::lround(rate * 0.005)));
    const float ceiling = std::pow(10.0F, ceiling_db / 20.0F);
    const double recovery = release_ms > 0 ? 1 - std::exp(-1000.0 / (static_cast<double>(release_ms) * rate)) : 1;
    const double steps = std::exp2(40.0);
    const auto count = std::ssize(in);

    std::vector<double> needed; // by each sample alone
    for (const float sample : in) {
        const double magnitude = std::fabs(static_cast<double>(sample));
        needed.push_back(magnitude > static_cast<double>(ceiling)
                             ? std::floor(static_cast<double>(ceiling) / magnitude * steps) / steps
                             : 1.0);
    }
    std::vector<double> gain; // before it is smoothed
    for (std::ptrdiff_t i = 0; i < count + length; ++i) {
        const double before = i == 0 ? 1.0 : gain[static_cast<std::size_t>(i - 1)];
        double value = std::min(1.0, std::ceil((before + (1.0 - before) * recovery) * steps) / steps);
        for (std::ptrdiff_t j = std::max<std::ptrdiff_t>(0, i - length); j <= std::min(i, count - 1); ++j)
            value = std::min(value, needed[static_cast<std::size_t>(j)]);
        gain.push_back(value);
    }
    std::vector<float> out;
    for (std::ptrdiff_t i = 0; i < count; ++i) {
        double sum = 0.0;
        for (std::ptrdiff_t j = i + 1; j <= i + length; ++j)
            sum += gain[static_cast<std::size_t>(j)];
        const double mean = sum / static_cast<double>(length);
        const auto sample = static_cast<float>(static_cast<double>(in[static_cast<std::size_t>(i)]) * mean);
        out.push_back(std::clamp(sample, -ceiling, ceiling));
    }
    return out;
}

} // namespace reference
