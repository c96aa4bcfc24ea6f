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
 * - Every capture call that takes a handle accepts NULL: it then does nothing, and returns -1 if it returns an int.
 * - There is no error code to query. When PortAudio or a device refuses something, the library writes one line to
 *   standard error that begins with "[audio_wrapper] " and carries PortAudio's own message. It writes nothing about
 *   refused arguments, or when there is no memory for a small record. PortAudio's back ends write there too, about a
 *   hundred lines whenever they look for devices, without that prefix.
 * - The library's lines contain device names and ids byte for byte, line feeds and escape sequences included: replace
 *   control characters before you display one. In the "ctx_create" line, the numbers follow the last
 *   "') capture_rate=", since a name may look like the fields before it. Lines about failures contain no names.
 *
 * ## Threads
 *
 * - The library starts no threads. A read blocks the thread that calls it.
 * - A context or a meter belongs to one thread at a time: make no call on it before the previous one has returned. In
 *   particular, no stop, release, close or free while a read is blocked.
 * - Different contexts and meters may be read on different threads at the same time.
 * - PortAudio does not lock its list of open streams. The host must therefore serialise the calls that open or close a
 *   stream (init, open, release_stream, free of a context with a stream, meter_open, meter_close), even on different
 *   handles. The library itself serialises PortAudio's initialisation.
 * - Everything else may run at the same time: reads and stops of other handles, arm and free of contexts without a
 *   stream, the device list, the capabilities and the signal functions.
 *
 * ## Devices that come and go
 *
 * PortAudio looks for devices when the first context, meter or query of the process begins, and not again until the
 * last one has ended. To see a device that has been plugged in since, free every context and close every meter first.
 * A device that another program is using at that moment may be missing from the list. Opening a busy device is retried
 * for about a second before it fails. PortAudio never frees the stream of a device that was unplugged.
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
 * Creates a context and opens the microphone at once: wrapper_audio_arm() and wrapper_audio_open() in one. The device
 * is opened in mono at its own default rate; wrapper_audio_read() converts.
 *
 * Pitfall: denoising works only on a device whose default rate, rounded, is exactly 48000 Hz. On any other device it is
 * silently skipped. The line "ctx_create ... capture_rate=" on standard error shows the rate.
 *
 * @param output_rate  the rate of the samples that wrapper_audio_read() returns, in Hz; below 1: 16000
 * @param denoise      0: off; anything else: on
 * @param device_id    an "id" from wrapper_audio_list_devices_json(), compared byte for byte; NULL or "": the default
 *                     input device. An id that matches no device is reported on standard error, and the default
 *                     input device is used instead. The string is read during the call only.
 * @return a capturing context, to be released with wrapper_audio_free(); NULL on failure (no input device, no memory,
 *         PortAudio or the device refuses), with nothing left to release
 *
 * Thread: any; serialise with other calls that open or close a stream.
 */
wrapper_audio_ctx *wrapper_audio_init(int output_rate, int denoise, const char *device_id) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Creates a context but does not open the microphone until wrapper_audio_open(). The device is chosen, and its rate
 * determined, now.
 *
 * @param output_rate  as for wrapper_audio_init()
 * @param denoise      as for wrapper_audio_init()
 * @param device_id    as for wrapper_audio_init()
 * @return an armed context, to be released with wrapper_audio_free(); NULL on failure, with nothing left to release
 *
 * Thread: any.
 */
wrapper_audio_ctx *wrapper_audio_arm(int output_rate, int denoise, const char *device_id) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Opens the microphone and starts capturing. Does nothing on a context that is already capturing.
 *
 * Pitfall: call wrapper_audio_release_stream() on a stopped context before you open it again. Opening it directly
 * leaks the stopped stream, which then stays open on the device until the process terminates PortAudio.
 *
 * @param ctx  a context or NULL
 * @return 0 when capturing; -1 when the device refuses (the context stays armed and may be opened again) or for NULL
 *
 * Thread: the context's; serialise with other calls that open or close a stream.
 */
int wrapper_audio_open(wrapper_audio_ctx *ctx) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Waits for `ms` milliseconds of sound and returns it: captured, denoised where that applies, converted to the output
 * rate, measured and rounded to 16 bits toward zero.
 *
 * Call it in a loop. Between two calls PortAudio buffers at least 30 ms of what arrives; what it drops because the host
 * is late is lost silently. A read allocates nothing. It takes less than 8 KiB of stack, whatever the capacity, but
 * RNNoise takes 66 KiB: a thread that reads with denoising needs a stack of 128 KiB or more.
 *
 * The number of samples returned, where n = ms * device rate / 1000, rounded down, at most 100 ms:
 * - equal rates: n;
 * - the device rate is an integer multiple of the output rate: n / ratio, each the mean of `ratio` samples;
 * - otherwise: n * output rate / device rate, by linear interpolation.
 *
 * Each is rounded down and limited to `capacity`. Samples beyond the capacity are lost.
 *
 * Pitfalls:
 * - Denoising works in frames of 10 ms that start afresh in each read. Samples after the last whole frame of a read
 *   are passed through undenoised, so read multiples of 10 ms.
 * - The mean over integer ratios (48000 to 16000, 48000 to 8000) is the only anti-aliasing filter. At other ratios
 *   (44100 to 16000), everything above half the output rate aliases.
 * - No sample is carried over from one read to the next. Choose ms so that the counts are whole numbers.
 * - A read is at most 100 ms long, whatever `ms` says (480 samples on devices below 4800 Hz).
 * - PortAudio 19.6 garbles the sound of JACK devices unless each read is 30 ms long.
 * - A device that stops delivering without an error keeps the read waiting. So does an ALSA device that is unplugged
 *   when none of its sound is left to deliver; PortAudio 19.6 then also keeps a processor busy. A host that must
 *   detect this has to watch its reading thread from another one.
 *
 * @param ctx       a context that is capturing
 * @param ms        duration, 0 or more, in milliseconds
 * @param pcm       receives the samples; nothing is written past those returned
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
 * Releases the microphone but keeps the context armed: wrapper_audio_open() opens it again.
 *
 * @param ctx  a context or NULL
 *
 * Thread: the context's; serialise with other calls that open or close a stream.
 */
void wrapper_audio_release_stream(wrapper_audio_ctx *ctx) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Stops capturing but keeps the device open. To resume, call wrapper_audio_release_stream() and then
 * wrapper_audio_open().
 *
 * @param ctx  a context or NULL
 *
 * Thread: the context's; never while a read is blocked.
 */
void wrapper_audio_stop(wrapper_audio_ctx *ctx) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Destroys a context in any state and releases everything it holds. The pointer is invalid afterwards.
 *
 * @param ctx  a context or NULL
 *
 * Thread: the context's; serialise with other calls that open or close a stream.
 */
void wrapper_audio_free(wrapper_audio_ctx *ctx) WRAPPER_AUDIO_NOEXCEPT;

/* The two functions below accept any arguments: an empty list in C before C23, an ellipsis in C++ and C23. */
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
 * otherwise "output"; "isDefault" is true for the default input device. If PortAudio does not start, the list is
 * "[]".
 *
 * Pitfalls:
 * - Two devices may share an id, which then means the first of them.
 * - Control bytes are left out of names. An id that lost one, or is longer than 255 bytes, matches no device.
 * - The text is silently cut at 65535 bytes, and is then not valid JSON.
 * - All other bytes of names are as they came from the system. They need not be UTF-8: decode with replacement, or as
 *   Latin-1 if an id is to be passed back byte for byte. Before you display a name, replace DEL and U+0080 to U+009F.
 *
 * @return a NUL-terminated text, to be released with wrapper_audio_free_text(); NULL only when there is no memory
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
 * Reports whether capture is possible at all. Writes no line of the library's own.
 *
 * @return 0: PortAudio does not start; 1: it does, but no device can capture; 3: at least one device can
 *
 * Thread: any.
 */
int wrapper_audio_capabilities(void) WRAPPER_AUDIO_NOEXCEPT;

/** @} */

/** @name Level meter */ /** @{ */

/** A lightweight second way to listen to a microphone, for its level only, with a stream of its own. */
typedef struct wrapper_audio_meter wrapper_audio_meter;

/**
 * Opens a device and starts measuring, 30 ms (at least 64 samples) at a time. A capture context may be open as well;
 * whether both can use the same device is up to the device.
 *
 * @param device_id  as for wrapper_audio_init()
 * @return a meter, to be closed with wrapper_audio_meter_close(); NULL on failure, with nothing left to release
 *
 * Thread: any; serialise with other calls that open or close a stream.
 */
wrapper_audio_meter *wrapper_audio_meter_open(const char *device_id) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Waits for the next 30 ms of sound and measures it at the device's own rate.
 *
 * A failed read leaves the meter usable; of several failures in a row, only the first writes a line.
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
 * Closes a meter and releases its device. The pointer is invalid afterwards.
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
 * These work on the host's own buffers of mono 32-bit floats, full scale 1.0; all but the resampler work in place. They
 * allocate nothing but resamplers, and touch neither a device nor the thread's floating-point control settings.
 *
 * A process has one high-pass filter, one gain control and one set of metrics, shared by all callers and not locked:
 * the host must serialise the init and process calls of each. The `handle` that several functions take as their first
 * argument is never read; it may be NULL.
 * @{
 */

/** A pair of sample rates to convert between. */
typedef struct wrapper_audio_resampler wrapper_audio_resampler;

/**
 * Creates a converter from one sample rate to another, by linear interpolation. Each creation writes a line to standard
 * error that says so.
 *
 * @param in_rate   rate of the samples to convert, in Hz; not checked
 * @param out_rate  rate of the samples wanted, in Hz; not checked
 * @param extra     kept and never used; pass 0
 * @return a converter, to be released with wrapper_audio_resampler_free(); NULL when there is no memory
 *
 * Thread: any.
 */
wrapper_audio_resampler *wrapper_audio_resampler_init(int32_t in_rate, int32_t out_rate,
                                                      int32_t extra) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Converts one block: output sample i is interpolated at position i * in_rate / out_rate of the input.
 *
 * Pitfalls:
 * - Nothing is filtered, so converting to a lower rate aliases: 48000 to 16000 returns exactly every third sample.
 * - Every block starts at position 0, and its last sample stands in for the one after it. A stream converted block by
 *   block therefore differs from the same stream converted in one piece.
 * - The count is in_count / (in_rate / out_rate), divided in floating point and rounded down, so it can be one short:
 *   480 samples from 48000 to 44100 give 440.
 *
 * @param resampler  a converter or NULL
 * @param in         the samples to convert; only read
 * @param in_count   how many there are
 * @param out        receives the converted samples; must not overlap `in`
 * @param max_out    how many fit in `out`
 * @return the number of samples written, at most `max_out`. 0 when a pointer is NULL or there is nothing to convert.
 *         Below 0, with nothing written, for a negative `max_out` or count; -2147483648 when 32 bits cannot hold the
 *         count (in_rate 0, for example).
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
 * Thread: any, once no other thread uses the converter.
 */
void wrapper_audio_resampler_free(wrapper_audio_resampler *resampler) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Designs the process's high-pass filter, a second-order section against rumble and DC, and clears its state. The
 * formulas are those of the high-pass in Robert Bristow-Johnson's Audio EQ Cookbook, in double precision.
 *
 * Pitfall: the filter is designed for 16000 Hz. At another rate its corner is at cutoff_hz * rate / 16000, so pass the
 * corner you want times 16000 / rate.
 *
 * @param cutoff_hz  corner frequency in Hz, useful between 0 and 8000; not checked
 * @param q          quality factor, above 0 (0.707: no peak at the corner); not checked. With 0 the
 *                   output is NaN from the third sample on.
 *
 * Thread: serialise with the filter's other calls.
 */
void wrapper_audio_hpf_init(float cutoff_hz, float q) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Filters a block in place, as the continuation of the previous block, whoever passed that. Does nothing before the
 * first wrapper_audio_hpf_init(). An infinite or NaN sample corrupts all later output until the next init.
 *
 * @param handle   never read
 * @param samples  the block, or NULL
 * @param count    its length; below 1 does nothing
 *
 * Thread: serialise with the filter's other calls.
 */
void wrapper_audio_hpf_process(const void *handle, float *samples, int32_t count) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Subtracts from each sample a fraction of the previous one, in place: y[i] = x[i] - coef * x[i - 1].
 *
 * Pitfall: no state is kept between calls, so the first sample of every block passes unchanged.
 *
 * @param handle   never read
 * @param samples  the block, or NULL
 * @param count    its length; below 2 does nothing
 * @param coef     the fraction, usually between 0 and 1; not checked
 *
 * Thread: any, on distinct blocks.
 */
void wrapper_audio_depop_process(const void *handle, float *samples, int32_t count, float coef) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Sets up the process's gain control and resets its gain to 1.
 *
 * @param target_db   target RMS level in dB relative to full scale (-20 is an amplitude of 0.1); not checked
 * @param release_ms  time constant of the gain, up and down alike, in ms; 0 makes the gain jump; not checked. A
 *                    negative one makes it run away.
 *
 * Thread: serialise with the gain control's other calls.
 */
void wrapper_audio_agc_init(float target_db, float release_ms) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Measures a block, moves the gain towards the value that would bring it to the target (at most 20 dB up or down), and
 * multiplies the whole block by the new gain, in place. Does nothing before the first wrapper_audio_agc_init().
 *
 * Pitfalls:
 * - The time constant holds for blocks of 10 ms (160 samples at 16000 Hz); it scales with the length of the block.
 * - A block below -120 dB passes unchanged, without the gain. There is no limiter: the result may exceed 1.0.
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
 * Pitfall: nothing feeds the metrics today, so this is always -10.0.
 *
 * @return the ratio in dB, -10.0 to 60.0
 *
 * Thread: any; serialise with wrapper_audio_update_noise_profile() for a consistent answer.
 */
float wrapper_audio_snr(void) WRAPPER_AUDIO_NOEXCEPT;

/**
 * The fraction of clipped samples, those with a magnitude above 0.95.
 *
 * Pitfall: nothing feeds the metrics today, so this is always 0.0.
 *
 * @return the fraction, 0.0 to 1.0
 *
 * Thread: any; serialise with wrapper_audio_update_noise_profile() for a consistent answer.
 */
float wrapper_audio_clipping_ratio(void) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Freezes the estimate of the noise floor, or resumes it, which also resets the clipping statistics.
 *
 * @param handle  never read
 * @param freeze  0: resume; anything else: freeze
 *
 * Thread: serialise with the other calls on the metrics.
 */
void wrapper_audio_update_noise_profile(const void *handle, int32_t freeze) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Denoising statistics, of which there are none: always 0.
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
