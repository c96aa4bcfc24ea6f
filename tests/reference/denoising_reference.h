// What RNNoise makes of a sound at 48000 Hz, frame by frame, put where it belongs; and whether somebody near speaks in
// it, written down as it is defined, with everything there at once.
#pragma once

#include <rnnoise.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

namespace reference {

struct denoised_sound {
    std::vector<float> samples;
    std::vector<float> speech; // probability of each frame
};

// The last of them.
template <typename T>
std::vector<T> last(const std::vector<T>& all, std::size_t most) {
    return {all.end() - static_cast<std::ptrdiff_t>(std::min(all.size(), most)), all.end()};
}

// The variance of so many frames up to this one.
inline double power(const std::vector<float>& sound, std::size_t frame, std::size_t frames = 1) {
    double count = 0.0;
    double sum = 0.0;
    double squares = 0.0;
    for (std::size_t each = frame < frames ? 0 : frame + 1 - frames; each <= frame; ++each) {
        double frame_sum = 0.0;
        double frame_squares = 0.0;
        for (std::size_t i = each * 480; i < (each + 1) * 480; ++i) {
            const auto x = static_cast<double>(sound[i]);
            frame_sum += x;
            frame_squares += x * x;
        }
        count += 480.0;
        sum += frame_sum;
        squares += frame_squares;
    }
    const double variance = squares / count - sum / count * (sum / count);
    return variance > 0.0 ? variance : 0.0;
}

// `in` is two frames longer than there are probabilities.
inline std::vector<float> near_speech(const std::vector<float>& in, const std::vector<float>& denoised,
                                      const std::vector<float>& probabilities) {
    std::vector<double> background(25, -100.0);
    std::vector<double> weights;
    std::vector<int> voices; // of each frame: 0, or 1 if there is one, or 2 if most of it was removed
    std::vector<float> near;
    int loud = 0; // frames since the last that was taken for background
    for (std::size_t frame = 0; frame < probabilities.size(); ++frame) {
        std::vector<double> sorted = last(background, 1000);
        const auto fifth = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() * 20 / 100);
        std::nth_element(sorted.begin(), fifth, sorted.end());
        const double now = 10.0 * std::log10(power(in, frame + 2, 10) + 1e-10);
        const double above = now - *fifth;
        weights.push_back(above < 4.0 ? 0.0 : above > 10.0 ? 1.0 : (above - 4.0) / 6.0);
        const std::vector<double> held = last(weights, 31);
        const double weighed = static_cast<double>(probabilities[frame]) * *std::max_element(held.begin(), held.end());
        const bool is_loud = static_cast<float>(weighed) >= 0.9F;
        loud = is_loud ? loud + 1 : 0;
        if (loud % 4 == 0) background.push_back(now);
        const bool is_voice = probabilities[frame] >= 0.9F;
        voices.push_back(!is_voice ? 0 : power(denoised, frame) < 0.3 * power(in, frame) ? 2 : 1);
        std::size_t some = 0;
        std::size_t removed = 0;
        const std::vector<int> lately = last(voices, 1000);
        for (const int each : lately) {
            some += each > 0 ? 1U : 0U;
            removed += each > 1 ? 1U : 0U;
        }
        const bool is_background = 2 * some >= lately.size() && 2 * removed >= some;
        near.push_back(is_background ? static_cast<float>(weighed) : probabilities[frame]);
    }
    return near;
}

// RNNoise gives a frame when it takes the second one behind it; silence follows the sound. Only frames that have begun.
inline denoised_sound denoised_at_48000(std::vector<float> in) {
    const std::size_t length = in.size();
    const std::size_t frames = (length + 479) / 480;
    in.resize((frames + 2) * 480);
    const std::unique_ptr<DenoiseState, void (*)(DenoiseState*)> state(rnnoise_create(nullptr), rnnoise_destroy);
    denoised_sound out;
    for (std::size_t frame = 0; frame < frames + 2; ++frame) {
        float block[480];
        for (std::size_t i = 0; i < 480; ++i)
            block[i] = in[frame * 480 + i] * 32767.0F;
        const float speech = rnnoise_process_frame(state.get(), block, block);
        if (frame < 2) continue;
        for (const float x : block)
            out.samples.push_back(x / 32767.0F);
        out.speech.push_back(speech);
    }
    out.speech = near_speech(in, out.samples, out.speech);
    out.samples.resize(length);
    return out;
}

} // namespace reference
