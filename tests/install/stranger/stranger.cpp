// A host that knows the installed library alone: a second of denoised speech as raw samples on standard output.
#include <cstdio>
#include <memory>
#include <vector>
#include <wrapper_audio.h>

int main() {
    const std::unique_ptr<wrapper_audio_ctx, void (*)(wrapper_audio_ctx*)> mic(wrapper_audio_init(16000, 1, nullptr),
                                                                               &wrapper_audio_free);
    if (!mic) return 1;
    std::vector<int16_t> pcm(1600);
    for (int i = 0; i < 10; ++i) {
        float rms, peak;
        if (wrapper_audio_read(mic.get(), 100, pcm.data(), 1600, &rms, &peak) != 1600) return 1;
        if (std::fwrite(pcm.data(), sizeof pcm[0], pcm.size(), stdout) != pcm.size()) return 1;
    }
}
