// Comparing floats as bits: -0.0 differs from 0.0, and a NaN equals a NaN whatever its sign and payload.
#pragma once

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <vector>

inline bool same_bits(float a, float b) {
    if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b);
    return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b);
}

inline bool same_bits(double a, double b) {
    if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b);
    return std::bit_cast<std::uint64_t>(a) == std::bit_cast<std::uint64_t>(b);
}

template <typename Number>
testing::AssertionResult same(Number actual, Number expected) {
    if (same_bits(actual, expected)) return testing::AssertionSuccess();
    return testing::AssertionFailure() << actual << " is not " << expected;
}

// The first difference between a buffer and what it should hold.
inline testing::AssertionResult same(const float* actual, const std::vector<float>& expected) {
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (!same_bits(actual[i], expected[i])) {
            return testing::AssertionFailure()
                   << "sample " << i << " of " << expected.size() << " is " << actual[i] << ", not " << expected[i];
        }
    }
    return testing::AssertionSuccess();
}
