// speexdsp's noise suppression of sound at 16000 Hz with its own defaults, as a peer. Reads and writes floats.
#include <speex/speex_preprocess.h>

#include <array>
#include <cmath>
#include <cstdio>

int main() {
    SpeexPreprocessState* state = speex_preprocess_state_init(160, 16000);
    std::array<float, 160> block{};
    std::array<spx_int16_t, 160> pcm{};
    while (std::fread(block.data(), sizeof(float), block.size(), stdin) == block.size()) {
        for (std::size_t i = 0; i < block.size(); ++i)
            pcm[i] = static_cast<spx_int16_t>(std::lround(std::fmax(-1.0F, std::fmin(1.0F, block[i])) * 32767.0F));
        speex_preprocess_run(state, pcm.data());
        for (std::size_t i = 0; i < block.size(); ++i)
            block[i] = static_cast<float>(pcm[i]) / 32767.0F;
        std::fwrite(block.data(), sizeof(float), block.size(), stdout);
    }
    speex_preprocess_state_destroy(state);
    return std::fflush(stdout);
}
