// Sample blocks to test with: ordinary ones, and ones with the numbers that break careless arithmetic.
#pragma once

#include <cmath>
#include <cstddef>
#include <limits>
#include <random>
#include <vector>

namespace signals {

inline constexpr float nan = std::numeric_limits<float>::quiet_NaN();
inline constexpr float infinity = std::numeric_limits<float>::infinity();

inline std::vector<float> noise(std::mt19937& random, std::size_t count, float amplitude = 1.1F) {
    std::uniform_real_distribution<float> uniform(-1.0F, 1.0F);
    std::vector<float> samples(count);
    for (float& x : samples)
        x = uniform(random) * amplitude;
    return samples;
}

// Strews NaN, infinities, signed zeros, denormals and huge numbers in, about one in 30.
inline std::vector<float> hostile(std::mt19937& random, std::size_t count, float amplitude = 1.1F) {
    constexpr float strange[] = {nan,   infinity, -infinity, 1.0F,  -1.0F, 0.0F,
                                 -0.0F, 1e-40F,   -1e-45F,   1e20F, 3e38F, -3e38F};
    std::vector<float> samples = noise(random, count, amplitude);
    for (float& x : samples) {
        const auto face = random() % 360;
        if (face < std::size(strange)) x = strange[face];
    }
    return samples;
}

// Mostly ordinary blocks, every third one hostile.
inline std::vector<float> mixed(std::mt19937& random, std::size_t count, float amplitude = 1.1F) {
    return random() % 3 == 0 ? hostile(random, count, amplitude) : noise(random, count, amplitude);
}

// From denormal to huge.
inline const std::vector<float>& amplitudes() {
    static const std::vector<float> all{1e-44F, 1e-38F, 1e-20F, 1e-7F, 1e-3F, 0.1F, 1.0F, 30.0F, 1e10F, 1e20F};
    return all;
}

// Every length around a vector's width, around a frame, and long ones.
inline std::vector<std::size_t> lengths() {
    std::vector<std::size_t> all;
    for (std::size_t n = 1; n <= 70; ++n)
        all.push_back(n);
    all.insert(all.end(), {479, 480, 481, 4800, 65536});
    return all;
}

} // namespace signals
