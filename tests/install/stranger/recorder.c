/* A host that knows the installed recorder layer alone: a second of denoised speech as raw samples on standard output. */
#include <stdio.h>
#include <wrapper_audio_recorder.h>

int main(void) {
    int16_t pcm[16000];
    wrapper_audio_recorder_options options = {0};
    wrapper_audio_recorder* recorder;
    wrapper_audio_block block;
    wrapper_audio_status status;
    options.denoise = 1;
    status = wrapper_audio_recorder_create(&recorder, &options);
    if (status == WRAPPER_AUDIO_OK) status = wrapper_audio_recorder_open(recorder, NULL);
    if (status == WRAPPER_AUDIO_OK) status = wrapper_audio_recorder_read_s16(recorder, pcm, 16000, 5000, &block);
    wrapper_audio_recorder_free(recorder);
    if (status != WRAPPER_AUDIO_OK) fprintf(stderr, "%s\n", wrapper_audio_status_text(status));
    return status != WRAPPER_AUDIO_OK || fwrite(pcm, sizeof *pcm, 16000, stdout) != 16000;
}
