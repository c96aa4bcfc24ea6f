// What RNNoise makes of a sound at 48000 Hz, frame by frame, put where it belongs.
#pragma once

#include <rnnoise.h>

#include <memory>
#include <vector>

namespace reference {

struct denoised_sound {
    std::vector<float> samples;
    std::vector<float> speech; // probability of each frame
};

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
    out.samples.resize(length);
    return out;
}

} // namespace reference
