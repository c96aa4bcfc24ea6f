// Whether it is somebody near who speaks. RNNoise tells voices from noise, but a cafe is full of voices.
//
// Far voices are background where they hardly ever pause and RNNoise, which hears them as voices, still removes most of
// them. There a near voice is one that stands out. Anywhere else whoever speaks is near.
//
// All memory is allocated at construction.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <span>
#include <vector>

namespace recorder {

// The last `most` values, oldest first.
template <typename T>
class window {
public:
    explicit window(std::size_t most) : most_(most) { values_.reserve(most); }

    bool is_full() const { return values_.size() == most_; }
    std::size_t size() const { return values_.size(); }
    auto begin() const { return values_.begin(); }
    auto end() const { return values_.end(); }

    void keep(T next) {
        if (is_full()) values_.erase(values_.begin());
        values_.push_back(next);
    }

private:
    const std::size_t most_;
    std::vector<T> values_;
};

// How loud the background is, by its last levels.
class background_level {
public:
    explicit background_level(std::size_t most) : levels_(most) { sorted_.reserve(most); }

    void keep(double level) {
        if (levels_.is_full()) sorted_.erase(std::lower_bound(sorted_.begin(), sorted_.end(), *levels_.begin()));
        levels_.keep(level);
        sorted_.insert(std::lower_bound(sorted_.begin(), sorted_.end(), level), level);
    }

    // The level that a fifth of them are below.
    double fifth() const { return sorted_[sorted_.size() / 5]; }

private:
    window<double> levels_;
    std::vector<double> sorted_;
};

class near_speech {
public:
    near_speech() {
        constexpr double silence = -100.0;
        for (int i = 0; i < 25; ++i) // so that whoever speaks is near until more is known
            background_.keep(silence);
    }

    // The next 10 ms of sound.
    void hear(std::span<const float> samples) { sound_.keep(moments_of(samples)); }

    // The probability that somebody near speaks, by RNNoise's, about sound of which this is left. It was heard 20 ms
    // before the last: so the weight rises before the voice does.
    float weigh(float probability, std::span<const float> sound, std::span<const float> denoised) {
        const double now = level();
        weights_.keep(std::clamp((now - background_.fifth() - 4.0) / 6.0, 0.0, 1.0));
        const double weight = *std::max_element(weights_.begin(), weights_.end());
        const auto near = static_cast<float>(static_cast<double>(probability) * weight);
        // When the sound stays louder, that becomes the background, but slowly, as a near voice pauses in the end.
        if (near < voiced || ++passed_over_ == 4) {
            passed_over_ = 0;
            background_.keep(now);
        }

        const bool is_removed = power(moments_of(denoised)) < 0.3 * power(moments_of(sound));
        voices_.keep(!(probability >= voiced) ? voice::none : is_removed ? voice::removed : voice::left);
        const auto count = [&](voice kind) {
            return static_cast<std::size_t>(std::count(voices_.begin(), voices_.end(), kind));
        };
        const std::size_t removed = count(voice::removed);
        const std::size_t left = count(voice::left);
        const bool is_background = removed >= left && 2 * (removed + left) >= voices_.size();
        return is_background ? near : probability;
    }

private:
    static constexpr float voiced = 0.9F;
    // In steps of 10 ms.
    static constexpr std::size_t averaged = 10;
    static constexpr std::size_t held = 30;
    static constexpr std::size_t remembered = 1000;

    enum class voice : unsigned char { none, removed, left };

    struct moments {
        double count = 0.0;
        double sum = 0.0;
        double squares = 0.0;
    };

    static moments moments_of(std::span<const float> samples) {
        moments all{.count = static_cast<double>(samples.size())};
        for (const double sample : samples) {
            all.sum += sample;
            all.squares += sample * sample;
        }
        return all;
    }

    // A constant offset is nothing to hear.
    static double power(const moments& of) {
        const double mean = of.sum / of.count;
        return std::max(0.0, of.squares / of.count - mean * mean);
    }

    // Of what was heard last, in dB.
    double level() const {
        moments all;
        for (const moments& each : sound_) {
            all.count += each.count;
            all.sum += each.sum;
            all.squares += each.squares;
        }
        return 10.0 * std::log10(power(all) + 1e-10);
    }

    window<moments> sound_{averaged};
    window<double> weights_{held + 1};
    window<voice> voices_{remembered};
    background_level background_{remembered};
    int passed_over_ = 0;
};

} // namespace recorder
