/**
 * @file wrapper_audio.h
 * Microphone capture as mono 16-bit samples at the rate you want, with optional neural noise suppression, a level
 * meter, a device list, and signal functions for your own buffers.
 *
 * A complete program: three seconds of denoised speech at 16000 Hz, as raw signed 16-bit samples on standard output.
 *
 * @code
 * #include <stdio.h>
 * #include <wrapper_audio.h>
 *
 * int main(void)
 * {
 *     int16_t pcm[1600];                                            // 100 ms at 16000 Hz
 *     float rms, peak;
 *     wrapper_audio_ctx *mic = wrapper_audio_init(16000, 1, NULL);  // denoised, default microphone
 *     if (mic == NULL)
 *         return 1;                                                 // the reason is on standard error
 *     for (int i = 0; i < 30; ++i) {
 *         int n = wrapper_audio_read(mic, 100, pcm, 1600, &rms, &peak);
 *         if (n < 0)
 *             break;
 *         fwrite(pcm, sizeof *pcm, (size_t)n, stdout);
 *         fprintf(stderr, "\rpeak %.3f", peak);
 *     }
 *     wrapper_audio_free(mic);
 *     return 0;
 * }
 * @endcode
 *
 * ## Conventions
 *
 * - Samples handed out are signed 16-bit, mono, from -32767 to 32767. Levels are linear amplitudes from 0.0 to 1.0
 *   (full scale). Rates are in Hz, durations in milliseconds.
 * - Every capture call that takes a handle accepts NULL and then does nothing, and returns -1 where it returns an int.
 * - There is no error code to fetch. What PortAudio or a device refuses writes one line to standard error that begins
 *   with "[audio_wrapper] " and ends with PortAudio's words. Refused arguments and lack of memory for a small record
 *   write nothing. PortAudio's own back ends also write there, about a hundred lines when they look for devices; those
 *   lines carry no such prefix.
 * - Device names and ids stand in those lines byte for byte, line feeds and escape sequences too: replace control
 *   characters before you show a line. The numbers of the "ctx_create" line stand behind its last "') capture_rate=",
 *   since a name may look like the fields before it. No name is part of a line about a failure.
 *
 * ## Threads
 *
 * - The library starts none. A read blocks the thread that calls it.
 * - A context or a meter belongs to one thread at a time: nothing may run on it while another call on it has not
 *   returned. In particular no stop, release, close or free while a read is blocked.
 * - Different contexts and meters may be read on different threads at once.
 * - PortAudio keeps its list of open streams without a lock. Calls that open or close a stream on different handles
 *   (init, open, release_stream, free of a context with a stream, meter_open, meter_close) must therefore be
 *   serialised by the host. PortAudio's initialisation itself is serialised by the library.
 * - Everything else may run beside them: reads and stops of other handles, arm and free of contexts without a stream,
 *   the device list, the capabilities and the signal functions.
 *
 * ## Devices that come and go
 *
 * PortAudio looks for devices when the first context, meter or query of the process begins, and not again before the
 * last one has ended. To see a device that has been plugged in since, free every context and close every meter first.
 * A device that another program holds at that moment may be missing from the list. One that is busy when it is opened
 * is tried for about a second before the open fails. PortAudio never frees the stream of a device that was unplugged.
 */
#ifndef WRAPPER_AUDIO_H
#define WRAPPER_AUDIO_H

#include <stdint.h>

#ifdef __cplusplus
#define WRAPPER_AUDIO_NOEXCEPT noexcept
extern "C" {
#else
#define WRAPPER_AUDIO_NOEXCEPT
#endif

#pragma GCC visibility push(default)

/** @name Capture */ /** @{ */

/** One microphone, from creation to wrapper_audio_free(). It is armed (no stream), capturing, or stopped. */
typedef struct wrapper_audio_ctx wrapper_audio_ctx;

/**
 * Creates a context and takes the microphone at once: wrapper_audio_arm() and wrapper_audio_open() in one. The device
 * is opened mono at its own default rate; wrapper_audio_read() converts.
 *
 * Trap: denoising runs only on a device whose default rate, rounded, is exactly 48000 Hz. On any other device it is
 * skipped and nothing says so. The line "ctx_create ... capture_rate=" on standard error tells the rate.
 *
 * @param output_rate  the rate of the samples that wrapper_audio_read() returns, in Hz; below 1: 16000
 * @param denoise      0: off; anything else: on
 * @param device_id    an "id" of wrapper_audio_list_devices_json(), compared byte for byte; NULL or "": the default
 *                     input device. An id that matches no device is reported on standard error, and the default
 *                     input device is taken instead. Read during the call only.
 * @return a context that is capturing, to be given to wrapper_audio_free(); NULL on failure (no input device, no
 *         memory, PortAudio or the device refuses), with nothing left behind
 *
 * Thread: any; serialise with other calls that open or close a stream.
 */
wrapper_audio_ctx *wrapper_audio_init(int output_rate, int denoise, const char *device_id) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Creates a context but leaves the microphone alone until wrapper_audio_open(). The device is chosen, and its rate
 * learned, now.
 *
 * @param output_rate  as for wrapper_audio_init()
 * @param denoise      as for wrapper_audio_init()
 * @param device_id    as for wrapper_audio_init()
 * @return an armed context, to be given to wrapper_audio_free(); NULL on failure, with nothing left behind
 *
 * Thread: any.
 */
wrapper_audio_ctx *wrapper_audio_arm(int output_rate, int denoise, const char *device_id) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Takes the microphone and starts to capture. On a context that is capturing already it changes nothing.
 *
 * Trap: a stopped context must be released with wrapper_audio_release_stream() before it is opened again. Opening it
 * directly loses the stopped stream, which then stays open on the device until the process ends PortAudio.
 *
 * @param ctx  a context or NULL
 * @return 0 when capturing; -1 when the device refuses (the context stays armed and may be opened again) or for NULL
 *
 * Thread: the context's; serialise with other calls that open or close a stream.
 */
int wrapper_audio_open(wrapper_audio_ctx *ctx) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Waits for `ms` milliseconds of sound and returns them: captured, denoised where that applies, converted to the
 * output rate, measured and rounded to 16 bits toward zero.
 *
 * Call it again and again. Between two calls PortAudio keeps what arrives, at least 30 ms of it; what it had to drop
 * because the host came late is lost without a word. A read allocates nothing. Whatever the capacity, it takes less
 * than 8 KiB of stack, but RNNoise takes 66 KiB: a thread that reads with denoising needs a stack of 128 KiB or more.
 *
 * How many samples a read gives, with n = ms * device rate / 1000 rounded down, at most 100 ms:
 * - equal rates: n;
 * - the device rate is a whole multiple of the output rate: n / ratio, each the mean of `ratio` samples;
 * - otherwise: n * output rate / device rate, by linear interpolation.
 *
 * Each is rounded down and at most `capacity`. What lies beyond the capacity is lost.
 *
 * Traps:
 * - Denoising works in frames of 10 ms that begin anew in each read. Samples beyond the last whole 10 ms of a read
 *   are passed through undenoised, so read multiples of 10 ms.
 * - The mean over whole ratios (48000 to 16000, 48000 to 8000) is the only anti-aliasing filter. Other ratios
 *   (44100 to 16000) alias what lies above half the output rate.
 * - No sample is carried from one read to the next. Choose ms so that the counts come out whole.
 * - A read is at most 100 ms long, whatever `ms` says (480 samples on devices below 4800 Hz).
 * - PortAudio 19.6 garbles the sound of JACK devices unless each read takes 30 ms.
 * - A device that falls silent without an error keeps the read waiting. PortAudio 19.6 also waits, and keeps a
 *   processor busy, when an ALSA device is unplugged while nothing of its sound is left to deliver. A host that must
 *   notice watches its reading thread from another one.
 *
 * @param ctx       a context that is capturing
 * @param ms        duration, 0 or more, in milliseconds
 * @param pcm       receives the samples; nothing is written behind those returned
 * @param capacity  how many samples fit in `pcm`, 1 or more
 * @param rms       receives the root mean square of the returned samples before clipping, 0.0 to 1.0; may be NULL
 * @param peak      receives their largest magnitude, 0.0 to 1.0; may be NULL
 * @return the number of samples written, 0 (then both levels are 0.0) or more; -1 with nothing written when `pcm` is
 *         NULL, `capacity` is below 1, `ctx` is NULL or not capturing, `ms` is negative or too long for 32-bit
 *         arithmetic (above 44739 ms at 48000 Hz), or the device failed. After a failure the context is still
 *         capturing: read again, or release the stream.
 *
 * Thread: the context's; different contexts may read at once.
 */
int32_t wrapper_audio_read(wrapper_audio_ctx *ctx, int32_t ms, int16_t *pcm, int32_t capacity, float *rms,
                           float *peak) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Gives the microphone back but keeps the context armed: wrapper_audio_open() takes it again.
 *
 * @param ctx  a context or NULL
 *
 * Thread: the context's; serialise with other calls that open or close a stream.
 */
void wrapper_audio_release_stream(wrapper_audio_ctx *ctx) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Stops capturing but keeps the device. To go on afterwards, call wrapper_audio_release_stream() and then
 * wrapper_audio_open().
 *
 * @param ctx  a context or NULL
 *
 * Thread: the context's; never while a read is blocked.
 */
void wrapper_audio_stop(wrapper_audio_ctx *ctx) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Ends a context in any state and releases all it holds. The pointer is invalid afterwards.
 *
 * @param ctx  a context or NULL
 *
 * Thread: the context's; serialise with other calls that open or close a stream.
 */
void wrapper_audio_free(wrapper_audio_ctx *ctx) WRAPPER_AUDIO_NOEXCEPT;

/* The two calls below accept any arguments. C before C23 says that with an empty list, C++ and C23 with an ellipsis. */
#if defined(__cplusplus) || (defined(__STDC_VERSION__) && __STDC_VERSION__ >= 202311L)
#define WRAPPER_AUDIO_ANY_ARGUMENTS ...
#else
#define WRAPPER_AUDIO_ANY_ARGUMENTS
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wstrict-prototypes"
#endif

/**
 * A placeholder: the library has no control over the input volume. Reads no argument.
 *
 * @return -1.0 always
 *
 * Thread: any.
 */
float wrapper_audio_input_volume_get(WRAPPER_AUDIO_ANY_ARGUMENTS) WRAPPER_AUDIO_NOEXCEPT;

/**
 * A placeholder: the library has no control over the input volume. Reads no argument.
 *
 * @return -1 always
 *
 * Thread: any.
 */
int wrapper_audio_input_volume_set(WRAPPER_AUDIO_ANY_ARGUMENTS) WRAPPER_AUDIO_NOEXCEPT;

#if !defined(__cplusplus) && (!defined(__STDC_VERSION__) || __STDC_VERSION__ < 202311L)
#pragma GCC diagnostic pop
#endif
#undef WRAPPER_AUDIO_ANY_ARGUMENTS

/** @} */

/** @name Devices */ /** @{ */

/**
 * Lists the machine's audio devices as JSON, for a device picker:
 *
 *     [{"id":"ALSA:USB Mic","name":"USB Mic","kind":"input","isDefault":true}, ...]
 *
 * without white space between the tokens. "id" is what wrapper_audio_init(), wrapper_audio_arm() and
 * wrapper_audio_meter_open() take, once JSON escapes are decoded; "kind" is "input" for a device that can capture,
 * otherwise "output"; "isDefault" is true for the default input device. When PortAudio does not start the list is
 * "[]".
 *
 * Traps:
 * - Two devices may share an id; it then means the first of them.
 * - Control bytes are left out of names. An id that lost one, or that is longer than 255 bytes, matches no device.
 * - The text is cut at 65535 bytes, without a mark; it is no valid JSON then.
 * - All other bytes of names stand as they came from the system. They need not be UTF-8: decode with replacement, or as
 *   Latin-1 where an id is to be given back byte for byte. Before you show a name, replace DEL and U+0080 to U+009F.
 *
 * @return a NUL-terminated text to be given to wrapper_audio_free_text(); NULL only when there is no memory
 *
 * Thread: any.
 */
char *wrapper_audio_list_devices_json(void) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Releases a text that wrapper_audio_list_devices_json() returned, and no other.
 *
 * @param text  the text or NULL
 *
 * Thread: any.
 */
void wrapper_audio_free_text(char *text) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Tells whether capture is possible at all. Writes no line of the library's own.
 *
 * @return 0: PortAudio does not start; 1: it does, but no device can capture; 3: at least one device can
 *
 * Thread: any.
 */
int wrapper_audio_capabilities(void) WRAPPER_AUDIO_NOEXCEPT;

/** @} */

/** @name Level meter */ /** @{ */

/** A light second way to listen to a microphone, for its level only, with a stream of its own. */
typedef struct wrapper_audio_meter wrapper_audio_meter;

/**
 * Opens a device and starts to measure, 30 ms (at least 64 samples) at a time. A capture context may be open as
 * well; whether both may be on the same device is up to the device.
 *
 * @param device_id  as for wrapper_audio_init()
 * @return a meter, to be given to wrapper_audio_meter_close(); NULL on failure, with nothing left behind
 *
 * Thread: any; serialise with other calls that open or close a stream.
 */
wrapper_audio_meter *wrapper_audio_meter_open(const char *device_id) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Waits for the next 30 ms of sound and measures them at the device's own rate.
 *
 * A failed read leaves the meter usable; of several failures in a row only the first writes a line.
 *
 * @param meter     a meter or NULL
 * @param peak_out  receives the largest magnitude, 0.0 to 1.0; may be NULL
 * @param rms_out   receives the root mean square, 0.0 to 1.0; may be NULL
 * @return the number of samples measured; -1, with nothing written, when the device failed or for NULL
 *
 * Thread: the meter's; different meters may read at once.
 */
int wrapper_audio_meter_read(wrapper_audio_meter *meter, float *peak_out, float *rms_out) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Ends a meter and releases its device. The pointer is invalid afterwards.
 *
 * @param meter  a meter or NULL
 *
 * Thread: the meter's; serialise with other calls that open or close a stream.
 */
void wrapper_audio_meter_close(wrapper_audio_meter *meter) WRAPPER_AUDIO_NOEXCEPT;

/** @} */

/**
 * @name Signal functions
 *
 * These work on buffers of mono 32-bit floats that belong to the host, full scale 1.0. All but the resampler work in
 * place. They never allocate, and touch neither the floating-point control of the thread nor a device.
 *
 * There is one high-pass filter, one gain control and one set of metrics in the process, shared by all callers and
 * not locked: the host serialises each one's init and process calls. The `handle` that several calls take first is
 * never read; it may be NULL.
 * @{
 */

/** A pair of sample rates to convert between. */
typedef struct wrapper_audio_resampler wrapper_audio_resampler;

/**
 * Creates a converter from one sample rate to another, by linear interpolation. Each creation says so in a line on
 * standard error.
 *
 * @param in_rate   rate of the samples to convert, in Hz; not checked
 * @param out_rate  rate of the samples wanted, in Hz; not checked
 * @param extra     kept and never used; pass 0
 * @return a converter, to be given to wrapper_audio_resampler_free(); NULL when there is no memory
 *
 * Thread: any.
 */
wrapper_audio_resampler *wrapper_audio_resampler_init(int32_t in_rate, int32_t out_rate,
                                                      int32_t extra) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Converts one block: output i lies at position i * in_rate / out_rate of the input, between its two neighbours.
 *
 * Traps:
 * - Nothing is filtered, so converting to a lower rate aliases: 48000 to 16000 gives exactly every third sample.
 * - Every block starts at position 0, and its last outputs lean on its own last sample. A stream converted in blocks
 *   is therefore not the stream converted in one piece.
 * - The count is in_count / (in_rate / out_rate), divided in floating point and rounded down, so that it can be one
 *   short: 480 samples from 48000 to 44100 give 440.
 *
 * @param resampler  a converter or NULL
 * @param in         the samples to convert; only read
 * @param in_count   how many
 * @param out        receives the converted samples; must not overlap `in`
 * @param max_out    how many fit there
 * @return the number of samples written, at most `max_out`. 0 when a pointer is NULL or there is nothing to convert.
 *         Below 0, with nothing written, for a negative `max_out` or count; -2147483648 when the count is not a
 *         number that 32 bits hold (in_rate 0, for example).
 *
 * Thread: any; one converter may serve several threads at once, as long as their outputs do not overlap.
 */
int32_t wrapper_audio_resample(const wrapper_audio_resampler *resampler, const float *in, int32_t in_count, float *out,
                               int32_t max_out) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Releases a converter.
 *
 * @param resampler  a converter or NULL
 *
 * Thread: any, when no other is using the converter.
 */
void wrapper_audio_resampler_free(wrapper_audio_resampler *resampler) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Designs the process's high-pass filter, a second-order section against rumble and DC, and puts it at rest. The
 * formulas are those of the high-pass in Robert Bristow-Johnson's Audio EQ Cookbook, in double precision.
 *
 * Trap: the design is for 16000 Hz. On buffers at another rate the corner lands at cutoff_hz * rate / 16000, so pass
 * cutoff * 16000 / rate to have it where you want it.
 *
 * @param cutoff_hz  corner frequency in Hz, useful between 0 and 8000; not checked
 * @param q          quality factor, above 0 (0.707: no bump at the corner); not checked. With 0 the
 *                   output is NaN from the third sample on.
 *
 * Thread: serialise with the filter's other calls.
 */
void wrapper_audio_hpf_init(float cutoff_hz, float q) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Filters a block in place, as the continuation of the block before, whoever passed that. Does nothing before the
 * first wrapper_audio_hpf_init(). An infinite or NaN sample spoils all later output until the next init.
 *
 * @param handle   never read
 * @param samples  the block, or NULL
 * @param count    its length; below 1 does nothing
 *
 * Thread: serialise with the filter's other calls.
 */
void wrapper_audio_hpf_process(const void *handle, float *samples, int32_t count) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Subtracts from each sample a share of the one before it, in place: y[i] = x[i] - coef * x[i - 1].
 *
 * Trap: nothing is remembered from call to call, so the first sample of every block passes as it is.
 *
 * @param handle   never read
 * @param samples  the block, or NULL
 * @param count    its length; below 2 does nothing
 * @param coef     the share, usually between 0 and 1; not checked
 *
 * Thread: any, on distinct blocks.
 */
void wrapper_audio_depop_process(const void *handle, float *samples, int32_t count, float coef) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Sets up the process's gain control and puts its gain back to 1.
 *
 * @param target_db   the RMS level to steer towards, in dB against full scale (-20 is an amplitude of 0.1); not checked
 * @param release_ms  time constant of the gain, up and down alike, in ms; 0 lets the gain jump; not checked. A
 *                    negative one lets it run away.
 *
 * Thread: serialise with the gain control's other calls.
 */
void wrapper_audio_agc_init(float target_db, float release_ms) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Measures a block, moves the gain towards what would bring it to the target (at most 20 dB up or down), and multiplies
 * the whole block by the new gain, in place. Does nothing before the first wrapper_audio_agc_init().
 *
 * Traps:
 * - The time constant holds for blocks of 10 ms (160 samples at 16000 Hz); it grows and shrinks with the block.
 * - A block below -120 dB passes as it is, without the gain. There is no limiter: the result may exceed 1.0.
 * - A NaN sample makes the gain NaN until the next init.
 *
 * @param handle   never read
 * @param samples  the block, or NULL
 * @param count    its length; below 1 does nothing
 *
 * Thread: serialise with the gain control's other calls.
 */
void wrapper_audio_agc_process(const void *handle, float *samples, int32_t count) WRAPPER_AUDIO_NOEXCEPT;

/**
 * The signal-to-noise ratio.
 *
 * Trap: nothing feeds the metrics today, so this is -10.0 always.
 *
 * @return the ratio in dB, -10.0 to 60.0
 *
 * Thread: any; serialise with wrapper_audio_update_noise_profile() for a consistent answer.
 */
float wrapper_audio_snr(void) WRAPPER_AUDIO_NOEXCEPT;

/**
 * The share of clipped samples, those with a magnitude above 0.95.
 *
 * Trap: nothing feeds the metrics today, so this is 0.0 always.
 *
 * @return the share, 0.0 to 1.0
 *
 * Thread: any; serialise with wrapper_audio_update_noise_profile() for a consistent answer.
 */
float wrapper_audio_clipping_ratio(void) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Freezes the estimate of the noise floor, or lets it go on; that also restarts the clipping statistics.
 *
 * @param handle  never read
 * @param freeze  0: go on; anything else: freeze
 *
 * Thread: serialise with the other calls on the metrics.
 */
void wrapper_audio_update_noise_profile(const void *handle, int32_t freeze) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Denoise statistics, of which there are none: always 0.
 *
 * @param handle  never read
 * @param out     receives 0; may be NULL
 * @return 1 always
 *
 * Thread: any.
 */
int32_t wrapper_audio_denoise_stats(const void *handle, int32_t *out) WRAPPER_AUDIO_NOEXCEPT;

/** @} */
#pragma GCC visibility pop
#undef WRAPPER_AUDIO_NOEXCEPT

#ifdef __cplusplus
}
#endif

#endif
