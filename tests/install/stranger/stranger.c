/* A host that knows the installed library alone: a second of denoised speech as raw samples on standard output. */
#include <stdio.h>
#include <wrapper_audio.h>

int main(void) {
    int16_t pcm[1600];
    float rms, peak;
    int i;
    wrapper_audio_ctx* mic = wrapper_audio_init(16000, 1, NULL);
    if (mic == NULL) return 1;
    for (i = 0; i < 10; ++i) {
        int n = wrapper_audio_read(mic, 100, pcm, 1600, &rms, &peak);
        if (n != 1600 || fwrite(pcm, sizeof *pcm, 1600, stdout) != 1600) return 1;
    }
    wrapper_audio_free(mic);
    return 0;
}
