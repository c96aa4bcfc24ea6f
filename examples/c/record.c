/*
 * Records the microphone until Ctrl-C, or for a number of seconds.
 *
 *   record [-n] [-d DEVICE] [-r RATE] [-s SECONDS] FILE
 *
 * FILE is a WAV file if its name ends in .wav; any other holds the samples alone (signed 16-bit, little endian), and
 * "-" is standard output. -n denoises. RATE is 16000 Hz if not given.
 *
 * cc -std=c99 record.c $(pkg-config --cflags --libs wrapper_audio) -o record
 */
#define _POSIX_C_SOURCE 200809L
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <wrapper_audio.h>

/* 30 ms hold whole frames for the denoiser, and are what JACK devices need. */
enum { READ_MS = 30, MAX_RATE = 192000, WAV_HEADER = 44 };

static volatile sig_atomic_t stopped;

static void stop(int signal)
{
    (void)signal;
    stopped = 1;
}

/* The library runs on x86-64 alone, whose byte order is that of WAV. No member of this needs padding. */
static int write_wav_header(FILE *file, uint32_t rate, uint32_t samples)
{
    const struct {
        char riff[4];
        uint32_t riff_bytes;
        char wave_fmt[8];
        uint32_t fmt_bytes;
        uint16_t format, channels;
        uint32_t rate, bytes_a_second;
        uint16_t frame_bytes, sample_bits;
        char data[4];
        uint32_t data_bytes;
    } header = {"RIFF", WAV_HEADER - 8 + 2 * samples, "WAVEfmt ", 16, 1, 1, rate, 2 * rate, 2, 16, "data", 2 * samples};
    return fwrite(&header, WAV_HEADER, 1, file) == 1;
}

/* Returns how many samples were recorded; `*trouble` says what ended it before its time, if anything did. */
static uint32_t record(wrapper_audio_ctx *mic, FILE *file, int rate, uint32_t wanted, const char **trouble)
{
    static int16_t pcm[MAX_RATE / 1000 * READ_MS];
    uint32_t written = 0;
    while (!stopped && *trouble == NULL && written < wanted) {
        int32_t n = wrapper_audio_read(mic, READ_MS, pcm, rate * READ_MS / 1000, NULL, NULL);
        if (n > 0 && (uint32_t)n > wanted - written)
            n = (int32_t)(wanted - written);
        if (n < 1)
            *trouble = stopped ? NULL : "the microphone gives no more";
        else if (fwrite(pcm, sizeof *pcm, (size_t)n, file) != (size_t)n)
            *trouble = "cannot write";
        else
            written += (uint32_t)n;
    }
    return written;
}

int main(int argc, char **argv)
{
    int option, denoise = 0, rate = 16000, seconds = 0, usable = 1;
    const char *device = NULL, *trouble = NULL;
    while ((option = getopt(argc, argv, "nd:r:s:")) != -1)
        switch (option) {
        case 'n': denoise = 1; break;
        case 'd': device = optarg; break;
        case 'r': usable &= (rate = atoi(optarg)) >= 8000 && rate <= MAX_RATE; break;
        case 's': usable &= (seconds = atoi(optarg)) >= 1 && seconds <= 10000; break;
        default: usable = 0;
        }
    if (!usable || argc - optind != 1) {
        fputs("usage: record [-n] [-d DEVICE] [-r 8000...192000] [-s 1...10000] FILE\n", stderr);
        return 2;
    }
    const char *name = argv[optind], *ending = strrchr(name, '.');
    const int wav = ending != NULL && strcmp(ending, ".wav") == 0;
    const uint32_t wanted = seconds ? (uint32_t)rate * (uint32_t)seconds : (UINT32_MAX - WAV_HEADER) / 2;

    /* The microphone first: where there is none, an older file stays as it is. The library has said why. */
    wrapper_audio_ctx *mic = wrapper_audio_init(rate, denoise, device);
    if (mic == NULL)
        return 1;
    FILE *file = strcmp(name, "-") == 0 ? stdout : fopen(name, "wb");
    /* What is being read or written is finished first; a second Ctrl-C ends the program at once. */
    struct sigaction on_signal = {.sa_handler = stop, .sa_flags = SA_RESTART | (int)SA_RESETHAND};
    sigaction(SIGINT, &on_signal, NULL);
    sigaction(SIGTERM, &on_signal, NULL);

    if (file == NULL || (wav && !write_wav_header(file, (uint32_t)rate, 0)))
        trouble = "cannot write";
    const uint32_t samples = trouble ? 0 : record(mic, file, rate, wanted, &trouble);
    wrapper_audio_free(mic);
    /* Now the length is known. */
    if (file != NULL && wav && (fseek(file, 0, SEEK_SET) != 0 || !write_wav_header(file, (uint32_t)rate, samples)))
        trouble = "cannot write";
    if (file != NULL && fclose(file) != 0)
        trouble = "cannot write";
    fprintf(stderr, "record: %s: %.2f s%s%s\n", name, (double)samples / rate, trouble ? ": " : "",
            trouble ? trouble : "");
    return trouble != NULL;
}
