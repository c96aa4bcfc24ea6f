// Reads 100 ms, 48000 to 16000, so many times and nothing else: for counting the library's instructions.
//   count_reads READS DENOISE      DENOISE 0: off, 1: on, with a denoiser that does nothing
#include "memory_microphone.h"
#include "wrapper_audio.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    std::vector<float> samples(4800);
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<float>(i % 200) / 250.0F - 0.4F;
    bench::set_microphone(48000, samples, true);
    bench::set_denoiser(false);
    wrapper_audio_ctx* ctx = wrapper_audio_init(16000, std::atoi(argv[2]), nullptr);
    std::int16_t pcm[1600];
    float rms = 0.0F;
    float peak = 0.0F;
    for (int i = 0; i < std::atoi(argv[1]); ++i) {
        if (wrapper_audio_read(ctx, 100, pcm, 1600, &rms, &peak) != 1600) return 1;
    }
    wrapper_audio_free(ctx);
    return peak > 0.3F ? 0 : 1;
}
