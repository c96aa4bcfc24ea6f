// What the conversion of a stream gives, written down plainly for the stream in one piece.
#pragma once

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <vector>

namespace reference {

// count * out_rate / in_rate to the nearest, halves up.
inline std::size_t stream_count(std::uint64_t count, std::int32_t in_rate, std::int32_t out_rate) {
    const auto in = static_cast<std::uint64_t>(in_rate);
    const auto doubled = 2 * count * static_cast<std::uint64_t>(out_rate);
    std::uint64_t halves = doubled / in; // rounded down: halves that are full
    return static_cast<std::size_t>(halves / 2 + halves % 2);
}

// Means over whole ratios, else straight lines from sample to sample. Behind its end the stream stays at its last
// sample.
inline std::vector<float> linear_stream(const std::vector<float>& in, std::int32_t in_rate, std::int32_t out_rate) {
    const auto at = [&](std::uint64_t i) { return i < in.size() ? in[static_cast<std::size_t>(i)] : in.back(); };
    const std::size_t count = stream_count(in.size(), in_rate, out_rate);
    std::vector<float> out;
    if (in_rate % out_rate == 0) {
        const auto ratio = static_cast<std::uint64_t>(in_rate / out_rate);
        for (std::uint64_t first = 0; out.size() < count; first += ratio) {
            float sum = 0.0F;
            for (std::uint64_t i = first; i < first + ratio; ++i)
                sum = sum + at(i);
            out.push_back(ratio == 1 ? at(first) : sum / static_cast<float>(ratio));
        }
        return out;
    }
    const std::int32_t common = std::gcd(in_rate, out_rate);
    const std::int32_t step = in_rate / common;
    const std::int32_t parts = out_rate / common; // of the way from one sample to the next
    std::uint64_t left = 0;
    for (std::int32_t part = 0; out.size() < count; part += step) {
        left += static_cast<std::uint64_t>(part / parts);
        part %= parts;
        const double fraction = static_cast<double>(part) / static_cast<double>(parts);
        const double near = static_cast<double>(at(left)) * (1.0 - fraction);
        const double far = fraction * static_cast<double>(at(left + 1));
        out.push_back(static_cast<float>(near + far));
    }
    return out;
}

} // namespace reference
