/*
 * Cleans sound as it comes in: removes rumble, softens pops, removes noise, converts the rate, evens out the level.
 *
 *   process [-n] IN_RATE OUT_RATE [FILE] >out.raw
 *
 * FILE, or else standard input, contains mono signed 16-bit samples without a header, and so does the output. Rates
 * are in Hz. -n removes noise.
 *
 * cc -std=c99 process.c $(pkg-config --cflags --libs wrapper_audio_recorder) -lm -o process
 */
#define _POSIX_C_SOURCE 200809L
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>
#include <wrapper_audio_recorder.h>

/* Any size will do: each processor has a state of its own, and samples that do not fit wait. */
enum { BLOCK = 4096, STAGES = 4 };

struct level {
    double squares, peak;
    long long count, beyond; /* samples, and how many of them are beyond full scale */
};

static void add_level(struct level *level, const float *samples, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        const double x = fabs((double)samples[i]);
        level->squares += x * x;
        level->peak = fmax(level->peak, x);
        level->beyond += x > 1;
    }
    level->count += (long long)count;
}

static void print_level(const char *what, const struct level *level)
{
    fprintf(stderr, "%s: %lld samples, RMS %.4f, peak %.4f, %lld beyond full scale\n", what, level->count,
            level->count > 0 ? sqrt(level->squares / (double)level->count) : 0, level->peak, level->beyond);
}

static wrapper_audio_status make_chain(wrapper_audio_processor *chain[STAGES], int32_t in_rate, int32_t out_rate,
                                       int denoise)
{
    const wrapper_audio_voice_options voice = {.in_rate = in_rate, .out_rate = out_rate, .denoise = denoise ? 1 : 0};
    wrapper_audio_status status =
        wrapper_audio_high_pass_create(&chain[0], in_rate, 100, 0.707f); /* corner at 100 Hz */
    if (status == WRAPPER_AUDIO_OK)
        status = wrapper_audio_depop_create(&chain[1], 0.3f);
    if (status == WRAPPER_AUDIO_OK)
        status = wrapper_audio_voice_create(&chain[2], &voice);
    if (status == WRAPPER_AUDIO_OK)
        status = wrapper_audio_gain_control_create(&chain[3], out_rate, -30, 200); /* towards -30 dB RMS, in 200 ms */
    return status;
}

/* Passes samples through the stages from `first` on, and writes what comes out. With `ending`, the first one returns
   what it still has inside, and then the ones after it do. */
static wrapper_audio_status run(wrapper_audio_processor *chain[STAGES], int first, const float *in, size_t count,
                                int ending, struct level *after)
{
    if (first == STAGES) {
        int16_t pcm[BLOCK];
        add_level(after, in, count);
        wrapper_audio_f32_to_s16(in, count, pcm); /* the gain control has no limiter; this limits */
        fwrite(pcm, sizeof *pcm, count, stdout);
        return WRAPPER_AUDIO_OK;
    }
    float out[BLOCK];
    size_t given = BLOCK;
    wrapper_audio_status status = WRAPPER_AUDIO_OK;
    for (int fed = 0; status == WRAPPER_AUDIO_OK && given == BLOCK; fed = 1) {
        status = ending ? wrapper_audio_processor_flush(chain[first], out, BLOCK, &given)
                        : wrapper_audio_processor_process(chain[first], in, fed ? 0 : count, out, BLOCK, &given);
        if (status == WRAPPER_AUDIO_OK && given > 0)
            status = run(chain, first + 1, out, given, 0, after);
    }
    if (status == WRAPPER_AUDIO_OK && ending && first + 1 < STAGES)
        status = run(chain, first + 1, NULL, 0, 1, after);
    return status;
}

static wrapper_audio_status process(wrapper_audio_processor *chain[STAGES], FILE *file)
{
    struct level before = {0}, after = {0};
    int16_t pcm[BLOCK];
    float samples[BLOCK];
    size_t count;
    wrapper_audio_status status = WRAPPER_AUDIO_OK;
    while (status == WRAPPER_AUDIO_OK && (count = fread(pcm, sizeof *pcm, BLOCK, file)) > 0) {
        wrapper_audio_s16_to_f32(pcm, count, samples);
        add_level(&before, samples, count);
        status = run(chain, 0, samples, count, 0, &after);
    }
    if (status == WRAPPER_AUDIO_OK)
        status = run(chain, 0, NULL, 0, 1, &after);
    print_level("before", &before);
    print_level("after", &after);
    return status;
}

int main(int argc, char **argv)
{
    int option, denoise = 0, usable = 1;
    while ((option = getopt(argc, argv, "n")) != -1)
        option == 'n' ? (denoise = 1) : (usable = 0);
    argc -= optind;
    argv += optind;
    const int32_t in_rate = argc > 1 ? atoi(argv[0]) : 0, out_rate = argc > 1 ? atoi(argv[1]) : 0;
    if (!usable || argc > 3 || in_rate < 8000 || in_rate > 192000 || out_rate < 8000 || out_rate > 192000) {
        fputs("usage: process [-n] 8000...192000 8000...192000 [FILE] >out.raw\n", stderr);
        return 2;
    }
    FILE *file = argc == 3 ? fopen(argv[2], "rb") : stdin;
    wrapper_audio_processor *chain[STAGES] = {NULL};
    wrapper_audio_status status = make_chain(chain, in_rate, out_rate, denoise);
    if (status == WRAPPER_AUDIO_OK && file != NULL)
        status = process(chain, file);
    for (int i = 0; i < STAGES; ++i)
        wrapper_audio_processor_free(chain[i]);
    const int readable = file != NULL && !ferror(file), written = fflush(stdout) == 0 && !ferror(stdout);
    if (status != WRAPPER_AUDIO_OK)
        fprintf(stderr, "process: %s\n", wrapper_audio_status_text(status));
    if (!readable)
        fputs("process: cannot read the input\n", stderr);
    if (!written)
        fputs("process: cannot write to standard output\n", stderr);
    return status != WRAPPER_AUDIO_OK || !readable || !written;
}
