/*
 * The signal functions of the core: removes rumble, evens out the level, and converts the rate, block by block.
 *
 *   filter <in.raw >out.raw
 *
 * Standard input contains mono signed 16-bit samples at 48000 Hz without a header, standard output the same at
 * 16000 Hz. The core's resampler does not filter, so sounds above 8000 Hz come out as aliases: process.c converts
 * cleanly, with the recorder layer.
 *
 * cc -std=c99 filter.c $(pkg-config --cflags --libs wrapper_audio) -lm -o filter
 */
#include <math.h>
#include <stdio.h>
#include <wrapper_audio.h>

enum { RATE = 48000, BLOCK = RATE / 100 }; /* 10 ms, as the gain control expects */

static void filter(const wrapper_audio_resampler *to_16000)
{
    int16_t pcm[BLOCK];
    float samples[BLOCK], converted[BLOCK];
    size_t count;
    while ((count = fread(pcm, sizeof *pcm, BLOCK, stdin)) > 0) {
        for (size_t i = 0; i < count; ++i)
            samples[i] = (float)pcm[i] / 32767;
        wrapper_audio_hpf_process(NULL, samples, (int32_t)count);
        wrapper_audio_agc_process(NULL, samples, (int32_t)count);
        const int32_t left = wrapper_audio_resample(to_16000, samples, (int32_t)count, converted, BLOCK);
        for (int32_t i = 0; i < left; ++i) /* limited, as the gain control may exceed full scale */
            pcm[i] = (int16_t)lrintf(fmaxf(-1, fminf(1, converted[i])) * 32767);
        fwrite(pcm, sizeof *pcm, (size_t)left, stdout);
    }
}

int main(int argc, char **argv)
{
    (void)argv;
    if (argc != 1) {
        fputs("usage: filter <in.raw >out.raw\n", stderr);
        return 2;
    }
    wrapper_audio_hpf_init(120.0f * 16000 / RATE, 0.707f); /* made for 16000 Hz: here its corner is at 120 Hz */
    wrapper_audio_agc_init(-20, 100);                      /* towards -20 dB RMS, in 100 ms */
    wrapper_audio_resampler *to_16000 = wrapper_audio_resampler_init(RATE, 16000, 0);
    if (to_16000 == NULL) {
        fputs("filter: out of memory\n", stderr);
        return 1;
    }
    filter(to_16000);
    wrapper_audio_resampler_free(to_16000);
    const int readable = !ferror(stdin), written = fflush(stdout) == 0 && !ferror(stdout);
    if (!readable)
        fputs("filter: cannot read standard input\n", stderr);
    if (!written)
        fputs("filter: cannot write to standard output\n", stderr);
    return !readable || !written;
}
