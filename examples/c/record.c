/*
 * Records from a microphone until Ctrl-C, or for a number of seconds.
 *
 *   record [-n] [-d DEVICE] [-r RATE] [-s SECONDS] FILE
 *
 * FILE is a WAV file if its name ends in .wav; any other contains only the samples (signed 16-bit, little endian), and
 * "-" is standard output. -n denoises. DEVICE is an id or a part of one. RATE is 16000 Hz if not given.
 *
 * cc -std=c99 record.c $(pkg-config --cflags --libs wrapper_audio_recorder) -o record
 */
#define _POSIX_C_SOURCE 200809L
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <wrapper_audio_recorder.h>

enum { READ_MS = 200, MAX_RATE = 192000, WAV_HEADER = 44 };

static volatile sig_atomic_t interrupted;

static void interrupt(int signal)
{
    (void)signal;
    interrupted = 1;
}

/* The library runs only on x86-64, whose byte order is that of WAV. No member of this struct needs padding. */
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

/* Says what went wrong, and why if that is known. */
static void complain(wrapper_audio_recorder *recorder, wrapper_audio_status status)
{
    char reason[2000] = "";
    fprintf(stderr, "record: %s\n", wrapper_audio_status_text(status));
    if (wrapper_audio_recorder_get_text(recorder, WRAPPER_AUDIO_TEXT_REASON, reason, sizeof reason) > 0)
        fprintf(stderr, "record: %s\n", reason);
}

/* Opens the one device that is meant, and never another one instead. */
static wrapper_audio_status open_device(wrapper_audio_recorder *recorder, const char *wanted)
{
    if (wanted == NULL)
        return wrapper_audio_recorder_open(recorder, NULL);
    char reason[2000] = "";
    size_t index = 0;
    wrapper_audio_device_list *list;
    wrapper_audio_status status = wrapper_audio_device_list_create(&list);
    if (status == WRAPPER_AUDIO_OK)
        status = wrapper_audio_device_list_find(list, wanted, &index, reason, sizeof reason);
    if (status == WRAPPER_AUDIO_OK)
        status = wrapper_audio_recorder_open(recorder, wrapper_audio_device_list_get(list, index)->id);
    else
        fprintf(stderr, "record: %s\n", reason);
    wrapper_audio_device_list_free(list);
    return status;
}

/* Adds the number of samples recorded and written to `*written`. On a write error, `file` has its error flag set. */
static wrapper_audio_status record(wrapper_audio_recorder *recorder, FILE *file, uint32_t rate, uint32_t wanted,
                                   uint32_t *written)
{
    static int16_t pcm[MAX_RATE / 1000 * READ_MS];
    const uint32_t most = rate * READ_MS / 1000;
    wrapper_audio_status status = WRAPPER_AUDIO_OK;
    while (*written < wanted && status >= 0 && status != WRAPPER_AUDIO_STOPPED && !ferror(file)) {
        const uint32_t left = wanted - *written;
        wrapper_audio_block block;
        if (interrupted) /* what has been recorded so far can still be read */
            wrapper_audio_recorder_stop(recorder);
        /* The timeout lets Ctrl-C be noticed even when the microphone delivers nothing. */
        status = wrapper_audio_recorder_read_s16(recorder, pcm, left < most ? left : most, READ_MS, &block);
        *written += (uint32_t)fwrite(pcm, sizeof *pcm, block.count, file);
        if (block.dropped > 0)
            fprintf(stderr, "record: %u samples were lost\n", (unsigned)block.dropped);
    }
    return status;
}

int main(int argc, char **argv)
{
    wrapper_audio_recorder_options options = {.rate = 16000};
    int option, seconds = 0, usable = 1;
    const char *device = NULL;
    while ((option = getopt(argc, argv, "nd:r:s:")) != -1)
        switch (option) {
        case 'n': options.denoise = 1; break;
        case 'd': device = optarg; break;
        case 'r': usable &= (options.rate = atoi(optarg)) >= 8000 && options.rate <= MAX_RATE; break;
        case 's': usable &= (seconds = atoi(optarg)) >= 1 && seconds <= 10000; break;
        default: usable = 0;
        }
    if (!usable || argc - optind != 1) {
        fputs("usage: record [-n] [-d DEVICE] [-r 8000...192000] [-s 1...10000] FILE\n", stderr);
        return 2;
    }
    const char *name = argv[optind], *ending = strrchr(name, '.');
    const int wav = ending != NULL && strcmp(ending, ".wav") == 0;
    const uint32_t rate = (uint32_t)options.rate;
    const uint32_t wanted = seconds ? rate * (uint32_t)seconds : (UINT32_MAX - WAV_HEADER) / 2;

    /* The microphone first: if there is none, an existing file stays as it is. */
    wrapper_audio_recorder *recorder;
    wrapper_audio_status status = wrapper_audio_recorder_create(&recorder, &options);
    if (status == WRAPPER_AUDIO_OK)
        status = open_device(recorder, device);
    if (status != WRAPPER_AUDIO_OK) {
        complain(recorder, status);
        wrapper_audio_recorder_free(recorder);
        return 1;
    }
    FILE *file = strcmp(name, "-") == 0 ? stdout : fopen(name, "wb");
    int writable = file != NULL && (!wav || write_wav_header(file, rate, 0));
    /* The read or write under way is finished first; a second Ctrl-C ends the program at once. */
    struct sigaction on_signal = {.sa_handler = interrupt, .sa_flags = SA_RESTART | (int)SA_RESETHAND};
    sigaction(SIGINT, &on_signal, NULL);
    sigaction(SIGTERM, &on_signal, NULL);

    uint32_t written = 0;
    if (writable)
        status = record(recorder, file, rate, wanted, &written);
    if (status < 0)
        complain(recorder, status);
    wrapper_audio_recorder_free(recorder);
    if (writable && wav) /* the length is known now */
        writable = fseek(file, 0, SEEK_SET) == 0 && write_wav_header(file, rate, written);
    if (file != NULL) {
        writable &= !ferror(file);
        writable &= fclose(file) == 0;
    }
    if (!writable)
        fprintf(stderr, "record: cannot write %s\n", name);
    fprintf(stderr, "record: %s: %.2f s\n", name, (double)written / rate);
    return status < 0 || !writable;
}
