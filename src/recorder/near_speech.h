// Whether it is somebody near who speaks. RNNoise tells voices from noise, but a cafe is full of voices.
//
// Far voices are background where they hardly ever pause and RNNoise, which hears them as voices, still removes most of
// them. There a near voice is one that stands out. Anywhere else whoever speaks is near.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <deque>
#include <iterator>
#include <span>
#include <vector>

namespace recorder {

class near_speech {
public:
    near_speech() {
        sorted_.reserve(remembered);
        sorted_.assign(background_.begin(), background_.end());
    }

    // The next 10 ms of sound.
    void hear(std::span<const float> samples) { keep(sound_, moments_of(samples), averaged); }

    // The probability that somebody near speaks, by RNNoise's, about sound of which this is left. It was heard 20 ms
    // before the last: so the weight rises before the voice does.
    float weigh(float probability, std::span<const float> sound, std::span<const float> denoised) {
        const double now = level();
        const double above = now - sorted_[sorted_.size() / 5]; // the level that a fifth of the background is below
        keep(weights_, std::clamp((above - 4.0) / 6.0, 0.0, 1.0), held + 1);
        const double weight = *std::max_element(weights_.begin(), weights_.end());
        const auto near = static_cast<float>(static_cast<double>(probability) * weight);
        // When the sound stays louder, that becomes the background, but slowly, as a near voice pauses in the end.
        if (near < voiced || ++passed_over_ == 4) remember(now);

        const bool is_removed = power(moments_of(denoised)) < 0.3 * power(moments_of(sound));
        keep(voices_, !(probability >= voiced) ? voice::none : is_removed ? voice::removed : voice::left, remembered);
        const auto count = [&](voice kind) { return std::count(voices_.begin(), voices_.end(), kind); };
        const auto removed = count(voice::removed);
        const auto left = count(voice::left);
        const bool is_background = removed >= left && 2 * (removed + left) >= std::ssize(voices_);
        return is_background ? near : probability;
    }

private:
    static constexpr float voiced = 0.9F;
    static constexpr double silence = -100.0;   // dB
    static constexpr std::size_t averaged = 10; // of 10 ms each, as all of these
    static constexpr std::size_t held = 30;
    static constexpr std::size_t remembered = 1000;

    enum class voice { none, removed, left };

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

    template <typename T>
    static void keep(std::deque<T>& latest, T next, std::size_t most) {
        if (latest.size() == most) latest.pop_front();
        latest.push_back(next);
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
    std::deque<voice> voices_;
    // Levels: some silence, so that whoever speaks is near until more is known.
    std::deque<double> background_ = std::deque<double>(25, silence);
    std::vector<double> sorted_; // the same
    int passed_over_ = 0;
};

} // namespace recorder
