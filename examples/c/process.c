/*
 * Cleans a sound: takes away rumble, softens pops, evens out the level, and converts the rate.
 *
 *   process IN_RATE OUT_RATE [FILE] >out.raw
 *
 * FILE, or else standard input, holds mono signed 16-bit samples without a header, and so does what is written.
 *
 * cc -std=c99 process.c $(pkg-config --cflags --libs wrapper_audio) -lm -o process
 */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <wrapper_audio.h>

/* The whole sound in memory: the resampler begins every block anew, so that a sound is best converted in one piece. */
static float *read_all(FILE *file, int32_t *count)
{
    int16_t pcm[4096];
    float *samples = NULL;
    size_t n;
    *count = 0;
    while ((n = fread(pcm, sizeof *pcm, 4096, file)) > 0) {
        float *more = *count <= 50000000 ? realloc(samples, ((size_t)*count + n) * sizeof *samples) : NULL;
        if (more == NULL) {
            free(samples);
            return NULL;
        }
        samples = more;
        for (size_t i = 0; i < n; ++i)
            samples[(*count)++] = (float)pcm[i] / 32768;
    }
    if (ferror(file) || *count == 0) {
        free(samples);
        return NULL;
    }
    return samples;
}

/* The library's own metrics have nothing that feeds them yet, so that a host that wants figures counts itself. */
static void print_metrics(const char *what, const float *samples, int32_t count)
{
    double squares = 0, peak = 0;
    int beyond = 0;
    for (int32_t i = 0; i < count; ++i) {
        const double level = fabs((double)samples[i]);
        squares += level * level;
        peak = fmax(peak, level);
        beyond += level > 1;
    }
    fprintf(stderr, "%s: %d samples, RMS %.4f, peak %.4f, %d beyond full scale\n", what, (int)count,
            sqrt(squares / count), peak, beyond);
}

static void process(float *samples, int32_t count, int32_t rate)
{
    wrapper_audio_hpf_init(100.0f * 16000 / (float)rate, 0.707f); /* designed for 16000 Hz: 100 Hz at any rate */
    wrapper_audio_hpf_process(NULL, samples, count);
    wrapper_audio_depop_process(NULL, samples, count, 0.3f); /* in one piece: nothing is carried to another call */
    wrapper_audio_agc_init(-30.0f, 200.0f);                  /* towards -30 dB RMS, in 200 ms */
    const int32_t block = rate / 100;                        /* whose times hold for blocks of 10 ms */
    for (int32_t at = 0; at < count; at += block)
        wrapper_audio_agc_process(NULL, samples + at, count - at < block ? count - at : block);
}

static int write_all(const float *samples, int32_t count)
{
    for (int32_t i = 0; i < count; ++i) {
        const float limited = fmaxf(-1, fminf(1, samples[i])); /* the gain control has no limiter */
        const int16_t pcm = (int16_t)lrintf(limited * 32767);
        fwrite(&pcm, sizeof pcm, 1, stdout);
    }
    return fflush(stdout) == 0 && !ferror(stdout);
}

int main(int argc, char **argv)
{
    const int32_t in_rate = argc > 2 ? atoi(argv[1]) : 0, out_rate = argc > 2 ? atoi(argv[2]) : 0;
    if (argc > 4 || in_rate < 8000 || in_rate > 192000 || out_rate < 8000 || out_rate > 192000) {
        fputs("usage: process 8000...192000 8000...192000 [FILE] >out.raw\n", stderr);
        return 2;
    }
    int32_t count = 0;
    FILE *file = argc == 4 ? fopen(argv[3], "rb") : stdin;
    float *samples = file != NULL ? read_all(file, &count) : NULL;
    if (samples == NULL) {
        fputs("process: no sound, or too much of it, to read\n", stderr);
        return 1;
    }
    print_metrics("before", samples, count);
    process(samples, count, in_rate);

    const int32_t room = (int32_t)((int64_t)count * out_rate / in_rate) + 1;
    float *converted = malloc((size_t)room * sizeof *converted);
    wrapper_audio_resampler *resampler = wrapper_audio_resampler_init(in_rate, out_rate, 0);
    const int32_t n = converted != NULL ? wrapper_audio_resample(resampler, samples, count, converted, room) : 0;
    wrapper_audio_resampler_free(resampler);
    if (n > 0)
        print_metrics("after", converted, n);
    fprintf(stderr, "metrics: signal-to-noise ratio %.1f dB, clipped %.4f\n", (double)wrapper_audio_snr(),
            (double)wrapper_audio_clipping_ratio());
    const int written = n > 0 && write_all(converted, n);
    free(converted);
    free(samples);
    if (!written)
        fputs("process: cannot convert or write\n", stderr);
    return !written;
}
