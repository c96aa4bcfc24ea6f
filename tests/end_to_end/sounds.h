// Sounds for the microphones of the tests, the same ones each time.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <numbers>
#include <random>
#include <vector>

// Half a second of each: a gliding voice in noise, noise, silence with clicks, and full scale without mercy. The length
// is chosen so that no read ends where the sound does.
inline std::vector<int16_t> hostile_speech(int rate) {
    const auto half_second = static_cast<std::size_t>(rate / 2);
    std::minstd_rand random(20);
    const auto noise = [&random](double amplitude) {
        return amplitude * (static_cast<double>(random()) / 1073741824.0 - 1.0);
    };
    std::vector<int16_t> sound;
    double phase = 0.0;
    for (std::size_t i = 0; i < half_second; ++i) {
        const double t = static_cast<double>(i) / rate;
        phase += 2.0 * std::numbers::pi * (140.0 + 60.0 * std::sin(9.0 * t)) / rate;
        double voice = 0.0;
        for (int harmonic = 1; harmonic <= 12; ++harmonic)
            voice += std::sin(harmonic * phase) / (1.0 + std::abs(harmonic - 4));
        const double syllable = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * 4.0 * t);
        sound.push_back(static_cast<int16_t>(7000.0 * syllable * voice + noise(900.0)));
    }
    for (std::size_t i = 0; i < half_second; ++i)
        sound.push_back(static_cast<int16_t>(noise(3000.0)));
    for (std::size_t i = 0; i < half_second; ++i)
        sound.push_back(i % 1777 == 0 ? int16_t{32767} : i % 2503 == 0 ? int16_t{-32768} : int16_t{0});
    for (std::size_t i = 0; i < half_second; ++i) {
        const bool high = i / (1 + i / 997) % 2 == 0; // a square wave that falls from half the rate
        sound.push_back(high ? int16_t{32767} : int16_t{-32768});
    }
    sound.insert(sound.end(), 123, int16_t{-32768});
    return sound;
}

// As hosts get them from PortAudio.
inline std::vector<float> as_floats(const std::vector<int16_t>& sound) {
    std::vector<float> samples;
    for (const int16_t sample : sound)
        samples.push_back(static_cast<float>(sample) / 32768.0F);
    return samples;
}

// What a microphone hears of a sound and the silence behind it.
class playing {
public:
    explicit playing(const std::vector<int16_t>& sound) : samples_(as_floats(sound)) {}

    std::vector<float> next(std::size_t count) {
        std::vector<float> block(count, 0.0F);
        const std::size_t left = std::min(count, samples_.size() - position_);
        std::copy_n(samples_.begin() + static_cast<std::ptrdiff_t>(position_), left, block.begin());
        position_ += left;
        return block;
    }

    bool ended() const { return position_ == samples_.size(); }

private:
    std::vector<float> samples_;
    std::size_t position_ = 0;
};
