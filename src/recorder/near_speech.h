// Whether it is somebody near who speaks. RNNoise knows voices from noise, but a cafe is full of voices.
//
// A near voice stands out from what is heard between its words. Far ones do not: they are the background, but only where
// they hardly ever pause. Otherwise the pauses are, and whoever speaks is near.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <deque>
#include <span>
#include <vector>

namespace recorder {

class near_speech {
public:
    // The next 10 ms of sound, not denoised.
    void hear(std::span<const float> samples) {
        moments next{.count = static_cast<double>(samples.size())};
        for (const double sample : samples) {
            next.sum += sample;
            next.squares += sample * sample;
        }
        keep(sound_, next, averaged);
    }

    // The probability that somebody near speaks. RNNoise's is about the sound that was heard 20 ms before the last: so
    // the weight rises before the voice does.
    float weigh(float probability) {
        const double now = level();
        const double above = now - sorted_[sorted_.size() / 5]; // the level that a fifth of the background is below
        keep(weights_, std::clamp((above - 4.0) / 6.0, 0.0, 1.0), held + 1);
        const double weight = *std::max_element(weights_.begin(), weights_.end());
        const auto near = static_cast<float>(static_cast<double>(probability) * weight);
        keep(voiced_, probability >= voiced, remembered);
        // Where it gets louder for good, that becomes the background; slowly, as a near voice does pause in the end.
        if (near < voiced || ++passed_over_ == 4) remember(now);
        const auto count = static_cast<std::size_t>(std::count(voiced_.begin(), voiced_.end(), true));
        return 2 * count >= voiced_.size() ? near : probability;
    }

private:
    static constexpr float voiced = 0.9F;
    static constexpr double silence = -100.0;   // dB
    static constexpr std::size_t averaged = 10; // of 10 ms each, as all of these
    static constexpr std::size_t held = 30;
    static constexpr std::size_t remembered = 1000;

    struct moments {
        double count = 0.0;
        double sum = 0.0;
        double squares = 0.0;
    };

    template <typename T>
    static void keep(std::deque<T>& latest, T next, std::size_t most) {
        if (latest.size() == most) latest.pop_front();
        latest.push_back(next);
    }

    // Of what was heard last, in dB. A constant offset is nothing to hear.
    double level() const {
        moments all;
        for (const moments& each : sound_) {
            all.count += each.count;
            all.sum += each.sum;
            all.squares += each.squares;
        }
        const double mean = all.sum / all.count;
        return 10.0 * std::log10(std::max(0.0, all.squares / all.count - mean * mean) + 1e-10);
    }

    void remember(double level) {
        passed_over_ = 0;
        if (background_.size() == remembered)
            sorted_.erase(std::lower_bound(sorted_.begin(), sorted_.end(), background_.front()));
        keep(background_, level, remembered);
        sorted_.insert(std::lower_bound(sorted_.begin(), sorted_.end(), level), level);
    }

    // Oldest first.
    std::deque<moments> sound_;
    std::deque<double> weights_;
    std::deque<bool> voiced_;
    // Levels: some silence, so that whoever speaks is near until more is known.
    std::deque<double> background_ = std::deque<double>(25, silence);
    std::vector<double> sorted_ = std::vector<double>(25, silence); // the same
    int passed_over_ = 0;
};

} // namespace recorder
