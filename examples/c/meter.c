/*
 * Shows the level of a microphone as a bar until Ctrl-C, or for a number of seconds: is it alive, and is it too loud?
 *
 *   meter [-d DEVICE] [-s SECONDS]
 *
 * In a terminal one line is redrawn; elsewhere each reading is a line of its own.
 *
 * cc -std=c99 meter.c $(pkg-config --cflags --libs wrapper_audio) -lm -o meter
 */
#define _POSIX_C_SOURCE 200809L
#include <math.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>
#include <wrapper_audio.h>

enum { READ_MS = 30, WIDTH = 30, FLOOR_DB = -60 };

static volatile sig_atomic_t stopped;

static void stop(int signal)
{
    (void)signal;
    stopped = 1;
}

/* Linear level to dB against full scale. Silence has no logarithm and is shown as the floor. */
static double decibels(float level)
{
    const double db = level > 0 ? 20 * log10((double)level) : FLOOR_DB;
    return db < FLOOR_DB ? FLOOR_DB : db;
}

static int column(double db)
{
    return (int)lround((db - FLOOR_DB) * WIDTH / -FLOOR_DB);
}

/* The bar is the RMS, which is what is heard; the mark is the peak, which is what clips. */
static void draw(double rms, double peak, int clipped)
{
    char bar[WIDTH + 2] = "";
    for (int i = 0; i <= WIDTH; ++i)
        bar[i] = i == column(peak) ? '|' : i < column(rms) ? '=' : ' ';
    printf("[%s] RMS %5.1f peak %5.1f dBFS%s", bar, rms, peak, clipped ? " CLIPPED" : "");
    fputs(isatty(STDOUT_FILENO) ? "\033[K\r" : "\n", stdout);
    fflush(stdout);
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

    wrapper_audio_meter *meter = wrapper_audio_meter_open(device);
    if (meter == NULL) /* the library has said why */
        return 1;
    struct sigaction on_signal = {.sa_handler = stop, .sa_flags = SA_RESTART | (int)SA_RESETHAND};
    sigaction(SIGINT, &on_signal, NULL);
    sigaction(SIGTERM, &on_signal, NULL);

    /* A device that fails once may come back, so the meter goes on; one that does not come back is given up. */
    int failures = 0;
    for (int ms = 0; !stopped && failures < 10 && (seconds == 0 || ms < 1000 * seconds); ms += READ_MS) {
        float peak, rms;
        if (wrapper_audio_meter_read(meter, &peak, &rms) < 0) {
            ++failures;
            nanosleep(&(struct timespec){.tv_nsec = READ_MS * 1000000L}, NULL);
            continue;
        }
        failures = 0;
        draw(decibels(rms), decibels(peak), peak >= 1.0f);
    }
    wrapper_audio_meter_close(meter);
    if (isatty(STDOUT_FILENO))
        putchar('\n');
    if (failures > 0)
        fputs("meter: the microphone gives no more\n", stderr);
    return failures > 0;
}
