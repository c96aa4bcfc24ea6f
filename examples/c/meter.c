/*
 * Shows the level of a microphone as a bar until Ctrl-C, or for a number of seconds: does it work, and is it too loud?
 *
 *   meter [-d DEVICE] [-s SECONDS]
 *
 * DEVICE is an id. In a terminal, a single line is redrawn; elsewhere each reading is a line of its own.
 *
 * cc -std=c99 meter.c $(pkg-config --cflags --libs wrapper_audio_recorder) -lm -o meter
 */
#define _POSIX_C_SOURCE 200809L
#include <math.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>
#include <wrapper_audio_recorder.h>

enum { READ_MS = 30, RATE = 16000, READ = RATE * READ_MS / 1000, WIDTH = 30 };
static const double floor_db = -60;

static volatile sig_atomic_t interrupted;

static void interrupt(int signal)
{
    (void)signal;
    interrupted = 1;
}

/* Linear level to dB relative to full scale. Silence has no logarithm and is shown as the floor. */
static double decibels(float level)
{
    const double db = level > 0 ? 20 * log10((double)level) : floor_db;
    return db < floor_db ? floor_db : db;
}

static int column(double db)
{
    return (int)lround((db - floor_db) * (double)WIDTH / -floor_db);
}

/* The bar is the RMS, which is what you hear; the mark is the peak, which is what clips. */
static void draw(double rms, double peak, int clipped)
{
    char bar[WIDTH + 2] = "";
    for (int i = 0; i <= WIDTH; ++i)
        bar[i] = i == column(peak) ? '|' : i < column(rms) ? '=' : ' ';
    printf("[%s] RMS %5.1f peak %5.1f dBFS%s", bar, rms, peak, clipped ? " CLIPPED" : "");
    fputs(isatty(STDOUT_FILENO) ? "\033[K\r" : "\n", stdout);
    fflush(stdout);
}

/* Runs until it is interrupted, has shown `readings` (0: no limit), or the device fails. */
static wrapper_audio_status show(wrapper_audio_recorder *recorder, int readings)
{
    wrapper_audio_status status = WRAPPER_AUDIO_OK;
    for (int i = 0; !interrupted && status >= 0 && (readings == 0 || i < readings);) {
        float samples[READ];
        wrapper_audio_block block;
        status = wrapper_audio_recorder_read_f32(recorder, samples, READ, 200, &block);
        if (status == WRAPPER_AUDIO_NO_DATA) { /* no sound for now: it may come back */
            fputs("meter: the microphone is open but delivers nothing\n", stderr);
            status = WRAPPER_AUDIO_TIMEOUT;
        }
        if (block.count == 0)
            continue;
        /* The levels as captured, before conversion: that is where it clips. */
        draw(decibels(block.captured_rms), decibels(block.captured_peak), block.clipped > 0);
        ++i;
    }
    return status;
}

int main(int argc, char **argv)
{
    int option, seconds = 0, usable = 1;
    const char *device = NULL;
    while ((option = getopt(argc, argv, "d:s:")) != -1)
        switch (option) {
        case 'd': device = optarg; break;
        case 's': usable &= (seconds = atoi(optarg)) >= 1 && seconds <= 10000; break;
        default: usable = 0;
        }
    if (!usable || optind != argc) {
        fputs("usage: meter [-d DEVICE] [-s 1...10000]\n", stderr);
        return 2;
    }

    struct sigaction on_signal = {.sa_handler = interrupt, .sa_flags = SA_RESTART | (int)SA_RESETHAND};
    sigaction(SIGINT, &on_signal, NULL);
    sigaction(SIGTERM, &on_signal, NULL);
    const wrapper_audio_recorder_options options = {.rate = RATE};
    wrapper_audio_recorder *recorder;
    wrapper_audio_status status = wrapper_audio_recorder_create(&recorder, &options);
    if (status == WRAPPER_AUDIO_OK)
        status = wrapper_audio_recorder_open(recorder, device);
    if (status == WRAPPER_AUDIO_OK) {
        status = show(recorder, (1000 * seconds + READ_MS - 1) / READ_MS);
        if (isatty(STDOUT_FILENO))
            putchar('\n');
    }
    if (status < 0) {
        char reason[2000] = "";
        wrapper_audio_recorder_get_text(recorder, WRAPPER_AUDIO_TEXT_REASON, reason, sizeof reason);
        fprintf(stderr, "meter: %s\nmeter: %s\n", wrapper_audio_status_text(status), reason);
    }
    wrapper_audio_recorder_free(recorder);
    return status < 0;
}
