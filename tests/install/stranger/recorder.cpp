// A host that knows the installed recorder layer alone: a second of denoised speech as raw samples on standard output.
#include <cstdio>
#include <memory>
#include <vector>
#include <wrapper_audio_recorder.h>

int main() {
    wrapper_audio_recorder_options options{};
    options.denoise = 1.0F;
    wrapper_audio_recorder* made = nullptr;
    wrapper_audio_status status = wrapper_audio_recorder_create(&made, &options);
    const std::unique_ptr<wrapper_audio_recorder, void (*)(wrapper_audio_recorder*)> recorder(
        made, &wrapper_audio_recorder_free);
    if (status == WRAPPER_AUDIO_OK) status = wrapper_audio_recorder_open(recorder.get(), nullptr);
    std::vector<int16_t> pcm(16000);
    wrapper_audio_block block{};
    if (status == WRAPPER_AUDIO_OK) {
        status = wrapper_audio_recorder_read_s16(recorder.get(), pcm.data(), pcm.size(), 5000, &block);
    }
    if (status != WRAPPER_AUDIO_OK) std::fprintf(stderr, "%s\n", wrapper_audio_status_text(status));
    return status != WRAPPER_AUDIO_OK || std::fwrite(pcm.data(), sizeof pcm[0], pcm.size(), stdout) != pcm.size();
}
