/*
 * The smallest host of the core alone, without the recorder layer: denoised speech at 16000 Hz from the default
 * microphone, as raw signed 16-bit samples on standard output.
 *
 *   core SECONDS >speech.raw
 *
 * cc -std=c99 core.c $(pkg-config --cflags --libs wrapper_audio) -o core
 */
#include <stdio.h>
#include <stdlib.h>
#include <wrapper_audio.h>

enum { RATE = 16000, READ_MS = 30, READ = RATE * READ_MS / 1000 }; /* whole frames for the denoiser */

int main(int argc, char **argv)
{
    const int seconds = argc == 2 ? atoi(argv[1]) : 0;
    if (seconds < 1 || seconds > 10000) {
        fputs("usage: core 1...10000 >speech.raw\n", stderr);
        return 2;
    }
    wrapper_audio_ctx *mic = wrapper_audio_init(RATE, 1, NULL);
    if (mic == NULL) /* the library has said why, as it does when a read fails */
        return 1;
    int32_t n = 0, left = RATE * seconds;
    while (left > 0) {
        int16_t pcm[READ];
        n = wrapper_audio_read(mic, READ_MS, pcm, READ, NULL, NULL);
        if (n > left)
            n = left;
        if (n < 1 || fwrite(pcm, sizeof *pcm, (size_t)n, stdout) != (size_t)n)
            break;
        left -= n;
    }
    wrapper_audio_free(mic);
    if (fflush(stdout) != 0 || left > 0) {
        fputs(n < 1 ? "core: the microphone stopped delivering\n" : "core: cannot write to standard output\n", stderr);
        return 1;
    }
    return 0;
}
