/**
 * @file wrapper_audio_recorder.h
 * Recording from any microphone on Linux: on a thread of its own, with errors as values, clean conversion to any rate,
 * and noise suppression whatever rate the device runs at. This layer is what most programs want; it is built on the
 * core, wrapper_audio.h.
 *
 * A complete program: three seconds of denoised speech at 16000 Hz, as raw signed 16-bit samples on standard output.
 *
 * @code
 * #include <stdio.h>
 * #include <wrapper_audio_recorder.h>
 *
 * int main(void)
 * {
 *     wrapper_audio_recorder_options options = {.rate = 16000, .denoise = 1.0f};
 *     wrapper_audio_recorder *recorder;
 *     wrapper_audio_status status = wrapper_audio_recorder_create(&recorder, &options);
 *     if (status == WRAPPER_AUDIO_OK)
 *         status = wrapper_audio_recorder_open(recorder, NULL);         // the default microphone
 *     for (int i = 0; status == WRAPPER_AUDIO_OK && i < 30; ++i) {
 *         int16_t pcm[1600];                                            // 100 ms
 *         wrapper_audio_block block;
 *         status = wrapper_audio_recorder_read_s16(recorder, pcm, 1600, 5000, &block);
 *         fwrite(pcm, sizeof *pcm, block.count, stdout);
 *         fprintf(stderr, "\rpeak %.3f", block.peak);
 *     }
 *     if (status != WRAPPER_AUDIO_OK)
 *         fprintf(stderr, "%s\n", wrapper_audio_status_text(status));
 *     wrapper_audio_recorder_free(recorder);
 *     return status != WRAPPER_AUDIO_OK;
 * }
 * @endcode
 *
 * ## Conventions
 *
 * - Samples are mono. Floats have full scale 1.0; 16-bit samples go from -32767 to 32767, which is the same full
 *   scale. Levels are linear amplitudes from 0.0 to 1.0, rates are in Hz, lengths in samples, times in milliseconds.
 * - A call that can fail returns a status. It fills its outputs on success, and on failure as its description says.
 * - Bad arguments do not crash: NULL, a number out of range or NaN returns WRAPPER_AUDIO_INVALID_ARGUMENT. Only a
 *   pointer to something else, or a handle that has been freed, cannot be detected.
 * - Text that is copied out is always terminated, and truncated if it does not fit. The function returns the length of
 *   the whole text, without the terminator.
 *
 * ## Threads
 *
 * - Any function may be called on any thread unless it says otherwise, even on one handle from several threads at once.
 *   Opening and closing are serialised internally. Free a handle once, and do not use it afterwards.
 * - Each recorder has a thread that talks to the device, with all signals blocked. If a device hangs so that its thread
 *   cannot be ended, the thread is abandoned, and wrapper_audio_abandoned_threads() counts it.
 * - A host that also calls the opening and closing functions of the core must not do so while one of
 *   wrapper_audio_recorder_open(), _stop(), _free() or wrapper_audio_device_list_create() is running.
 *
 * ## Standard error
 *
 * The core and PortAudio's back ends write to standard error. While the recorder layer calls them, what they write goes
 * to wrapper_audio_log_take() instead. To do this, the layer points C's variable `stderr`, once, to a stream that can
 * tell which thread is writing; whatever the host itself writes there arrives as before.
 */
#ifndef WRAPPER_AUDIO_RECORDER_H
#define WRAPPER_AUDIO_RECORDER_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define WRAPPER_AUDIO_NOEXCEPT noexcept
extern "C" {
#else
#define WRAPPER_AUDIO_NOEXCEPT
#endif

#pragma GCC visibility push(default)

/** @name Status */ /** @{ */

/**
 * The outcome of a call. The numbers never change; those below 0 are failures, of which a later version may have more.
 */
typedef enum wrapper_audio_status {
    WRAPPER_AUDIO_OK = 0,                   /**< success */
    WRAPPER_AUDIO_TIMEOUT = 1,              /**< the time ran out before everything had arrived */
    WRAPPER_AUDIO_STOPPED = 2,              /**< the recorder was stopped, and every sample has been read */
    WRAPPER_AUDIO_INVALID_ARGUMENT = -1,    /**< an argument is NULL, NaN or out of range */
    WRAPPER_AUDIO_INVALID_STATE = -2,       /**< not possible now: the recorder is already open, or never was */
    WRAPPER_AUDIO_OUT_OF_MEMORY = -3,       /**< no memory, or no more threads */
    WRAPPER_AUDIO_NO_AUDIO_SYSTEM = -4,     /**< PortAudio does not start */
    WRAPPER_AUDIO_NO_INPUT_DEVICE = -5,     /**< there is no device to record from */
    WRAPPER_AUDIO_UNKNOWN_DEVICE = -6,      /**< no device has this id */
    WRAPPER_AUDIO_AMBIGUOUS_DEVICE = -7,    /**< several devices match */
    WRAPPER_AUDIO_NOT_AN_INPUT = -8,        /**< the device cannot record */
    WRAPPER_AUDIO_DEVICE_REFUSED = -9,      /**< the device did not open, and it is not known why */
    WRAPPER_AUDIO_DEVICE_FAILED = -10,      /**< the device failed while recording */
    WRAPPER_AUDIO_NO_DATA = -11,            /**< the device is open but delivers nothing */
    WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK = -12, /**< the audio system does not respond */
    WRAPPER_AUDIO_DEVICE_BUSY = -13,        /**< the device did not open: another program has it */
    WRAPPER_AUDIO_DEVICE_FORBIDDEN = -14,   /**< the device did not open: this user may not use it */
    WRAPPER_AUDIO_DEVICE_GONE = -15,        /**< the device is not there any more: it was unplugged */
    WRAPPER_AUDIO_NO_SYSTEM_SOUND = -16     /**< no device records what the computer plays */
} wrapper_audio_status;

/**
 * Returns an English sentence about a status, without a full stop.
 *
 * @param status  a wrapper_audio_status
 * @return a constant text, even for numbers that are not a status
 */
const char *wrapper_audio_status_text(int32_t status) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Returns an English sentence that says what a person can do about a status, without a full stop. It suits a message
 * behind the text of the status or the recorder's reason, whose list of devices it refers to.
 *
 * @param status  a wrapper_audio_status
 * @return a constant text; "" where there is nothing to say, and for numbers that are not a status
 */
const char *wrapper_audio_status_advice(int32_t status) WRAPPER_AUDIO_NOEXCEPT;

/** @} */

/** @name Devices */ /** @{ */

/** How a device can be denoised. */
typedef enum wrapper_audio_denoising {
    WRAPPER_AUDIO_DENOISING_OFF = 0,      /**< not at all: the device cannot record, or denoising was not requested */
    WRAPPER_AUDIO_DENOISING_NATIVE = 1,   /**< the device runs at 48000 Hz, the rate of the noise suppression */
    WRAPPER_AUDIO_DENOISING_CONVERTED = 2 /**< the device runs at another rate: its sound is converted to 48000 Hz */
} wrapper_audio_denoising;

/** One device. The texts belong to the list. */
typedef struct wrapper_audio_device {
    const char *id;          /**< what wrapper_audio_recorder_open() takes: bytes in any encoding, unique within the
                                  list */
    const char *name;        /**< for display: valid UTF-8 without control characters */
    const char *host_api;    /**< the audio API it belongs to, such as "ALSA", or the sound server: "PulseAudio" or
                                  "PipeWire"; valid UTF-8 */
    int32_t default_rate;    /**< in Hz */
    int32_t input_channels;  /**< 0: it cannot record */
    int32_t output_channels; /**< 0: it cannot play */
    int32_t is_default;      /**< 1 for the default input device, otherwise 0 */
    int32_t denoising;       /**< a wrapper_audio_denoising: what recording with denoising would do */
} wrapper_audio_device;

/** A snapshot of the devices. It never changes. */
typedef struct wrapper_audio_device_list wrapper_audio_device_list;

/**
 * Lists the machine's audio devices, outputs included, as PortAudio sees them, and each source of the PulseAudio or
 * PipeWire server that the user's programs use: its microphones, and the monitors of what it plays. These need libpulse
 * and ALSA's plug-in for PulseAudio; with the plug-in for PipeWire alone there are its microphones. PortAudio looks for
 * devices when its first user in the process begins, and not again while a recorder is open, or once it has found a
 * JACK server.
 *
 * @param list  receives the list, to be released with wrapper_audio_device_list_free(); NULL on failure
 * @return OK, even for a list without devices; NO_AUDIO_SYSTEM, AUDIO_SYSTEM_STUCK (after 10 s), OUT_OF_MEMORY,
 *         INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_device_list_create(wrapper_audio_device_list **list) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Counts the devices of a list.
 *
 * @param list  a list or NULL
 * @return how many there are; 0 for NULL
 */
size_t wrapper_audio_device_list_count(const wrapper_audio_device_list *list) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Returns a device of a list.
 *
 * @param list   a list or NULL
 * @param index  from 0
 * @return the device, valid as long as the list is; NULL when there is no such index
 */
const wrapper_audio_device *wrapper_audio_device_list_get(const wrapper_audio_device_list *list,
                                                          size_t index) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Finds the one input device that a user means: by its id or, if none is the same, by its id without the audio API and
 * the colon or, again if none is the same, by a part of its id. The latter two ignore case.
 *
 * @param list      a list
 * @param wanted    an id or a part of one; bytes
 * @param index     receives the index of the device
 * @param reason    receives, on failure, a sentence and the candidates, each on a line of its own; may be NULL
 * @param capacity  bytes that fit in `reason`
 * @return OK, NO_INPUT_DEVICE, UNKNOWN_DEVICE, AMBIGUOUS_DEVICE, OUT_OF_MEMORY, INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_device_list_find(const wrapper_audio_device_list *list, const char *wanted,
                                                    size_t *index, char *reason,
                                                    size_t capacity) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Finds the device that records what the computer plays: the monitor of the output that programs play into unless they
 * choose another. Only PulseAudio and PipeWire have one, where all their sources are listed.
 *
 * @param list   a list
 * @param index  receives the index of the device
 * @return OK, NO_SYSTEM_SOUND, INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_device_list_find_system(const wrapper_audio_device_list *list,
                                                           size_t *index) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Releases a list and the texts in it.
 *
 * @param list  a list or NULL
 */
void wrapper_audio_device_list_free(wrapper_audio_device_list *list) WRAPPER_AUDIO_NOEXCEPT;

/** @} */

/** @name Recorder */ /** @{ */

/** How sample rates are converted. */
typedef enum wrapper_audio_conversion {
    WRAPPER_AUDIO_CONVERSION_CLEAN = 0, /**< soxr's high quality: whatever would alias is more than 90 dB down */
    WRAPPER_AUDIO_CONVERSION_LINEAR = 1 /**< the core's method: means at integer ratios, otherwise linear interpolation;
                                             fast and without delay, but it aliases */
} wrapper_audio_conversion;

/** Options of a recorder. Zeros are the defaults; leave the rest zero. */
typedef struct wrapper_audio_recorder_options {
    int32_t rate;         /**< of the samples returned, 100 to 768000 Hz; 0: 16000 */
    float denoise;        /**< strength of the noise suppression, from 0.0 (off) to 1.0 (full); in between, that share
                               of the noise is removed */
    int32_t speech;       /**< 1: report the probability of speech even without denoising; see
                               wrapper_audio_processor_take_speech() for its definition */
    int32_t conversion;   /**< a wrapper_audio_conversion */
    int32_t buffer_ms;    /**< how much sound is kept for a host that reads late, 100 to 60000; 0: 5000 */
    int32_t stall_ms;     /**< how long a device may deliver nothing before NO_DATA, 100 to 60000; 0: 1500 */
    int32_t undenoised;   /**< 1: also keep the samples as they are without denoising, for
                               wrapper_audio_recorder_read_both_f32(); needs `denoise` above 0.0 */
    int32_t reconnect;    /**< 1: a device that fails or is unplugged while recording does not end the recording. It is
                               waited for, or opened as the default input device, whichever that is then; the time
                               in between counts as dropped samples. So does one that has delivered nothing for 5 s,
                               or for `stall_ms` if that is longer. Reads time out meanwhile: only those without a
                               timeout return NO_DATA. */
    int32_t reserved[8];  /**< must be 0 */
} wrapper_audio_recorder_options;

/** What a read returned. */
typedef struct wrapper_audio_block {
    uint64_t position;        /**< of the first sample, in samples since the recorder was opened, dropped ones
                                   included */
    uint32_t count;           /**< samples returned */
    uint32_t dropped;         /**< samples that were lost before `count` was reached: because reads came too late, or
                                   inside the system. The latter are detected by the clock, half a second later, and
                                   only if they last 0.1 s or more. */
    uint32_t dropped_at;      /**< how many of the samples returned came before the loss */
    uint32_t clipped;         /**< samples from the device that were at full scale in this time */
    float rms;                /**< root mean square of the samples returned */
    float peak;               /**< their largest magnitude */
    float captured_rms;       /**< root mean square of what the device delivered in this time, before denoising */
    float captured_peak;      /**< its largest magnitude */
    float speech_probability; /**< largest probability of speech among the 10 ms that begin in this block, 0.0 to 1.0;
                                   -1.0 if unknown */
} wrapper_audio_block;

/** The state of a recorder. */
typedef struct wrapper_audio_recorder_info {
    int32_t rate;              /**< of the samples returned, in Hz */
    int32_t device_rate;       /**< the rate that the device runs at, in Hz; 0 before the first open */
    int32_t denoising;         /**< a wrapper_audio_denoising */
    int32_t delay;             /**< the most samples by which the output lags behind the device: what conversion and
                                    noise suppression hold back */
    uint64_t captured;         /**< samples that the device has delivered, at its rate */
    uint64_t available;        /**< samples that a read would return at once */
    uint64_t read;             /**< samples that reads have returned */
    uint64_t dropped;          /**< samples that were lost up to the current read position */
    int64_t first_sample_time; /**< when the first sample was captured, in ns of CLOCK_MONOTONIC; accurate to the
                                    latency of the device; 0 until it has arrived */
} wrapper_audio_recorder_info;

/** Texts of a recorder. */
typedef enum wrapper_audio_recorder_text_kind {
    WRAPPER_AUDIO_TEXT_DEVICE_ID = 0,   /**< of the device that was opened last; bytes */
    WRAPPER_AUDIO_TEXT_DEVICE_NAME = 1, /**< its name for display, valid UTF-8 */
    WRAPPER_AUDIO_TEXT_REASON = 2,      /**< one or more English sentences about the last failure, with the audio
                                             system's message and, for an unknown device, the candidates; valid UTF-8 */
    WRAPPER_AUDIO_TEXT_LOG_LINE = 3     /**< the line that the core logged about it, if any; bytes */
} wrapper_audio_recorder_text_kind;

/** One microphone, and the thread that reads it. */
typedef struct wrapper_audio_recorder wrapper_audio_recorder;

/**
 * Creates a recorder. No device is touched yet.
 *
 * @param recorder  receives the recorder, to be released with wrapper_audio_recorder_free(); NULL on failure
 * @param options   its options; NULL for the defaults. Read during the call only.
 * @return OK, INVALID_ARGUMENT, OUT_OF_MEMORY
 */
wrapper_audio_status wrapper_audio_recorder_create(wrapper_audio_recorder **recorder,
                                                   const wrapper_audio_recorder_options *options)
    WRAPPER_AUDIO_NOEXCEPT;

/**
 * Opens a microphone and starts recording. A device is opened at its default rate if that is the rate of the samples
 * returned and neither `denoise` nor `speech` is set; otherwise at 48000 Hz if it can, or else at its default rate. A
 * stopped recorder may be opened again, on any device: it starts afresh, and what has not been read is lost.
 *
 * @param recorder   a recorder that is not open
 * @param device_id  the `id` of a wrapper_audio_device, compared byte for byte; NULL or "": the default input device
 * @return OK; STOPPED if another thread stopped it meanwhile; INVALID_STATE if it is already open; NO_AUDIO_SYSTEM,
 *         NO_INPUT_DEVICE, UNKNOWN_DEVICE, NOT_AN_INPUT, DEVICE_REFUSED, AUDIO_SYSTEM_STUCK (after 10 s),
 *         OUT_OF_MEMORY, INVALID_ARGUMENT; of devices of ALSA, which gives reasons, DEVICE_BUSY, DEVICE_FORBIDDEN and
 *         DEVICE_GONE. After a failure the recorder is not open and does not hold the device.
 */
wrapper_audio_status wrapper_audio_recorder_open(wrapper_audio_recorder *recorder,
                                                 const char *device_id) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Waits for `count` samples and returns them. It returns fewer when the time runs out, the recorder is stopped or the
 * device fails: `block` then says how many, and the status why.
 *
 * @param recorder    a recorder
 * @param samples     receives the samples, rounded to the nearest 16-bit value and limited to full scale
 * @param count       how many are wanted; 0 returns at once
 * @param timeout_ms  how long to wait at most; 0: not at all; below 0: as long as the device delivers
 * @param block       receives the number of samples and what is known about them; always filled
 * @return OK; TIMEOUT; STOPPED, once everything before the stop has been read; DEVICE_FAILED, or DEVICE_GONE where ALSA
 *         says so, once everything before the failure has been read; NO_DATA when nothing has arrived in `stall_ms` of
 *         waiting (a later read may return sound again); OUT_OF_MEMORY when the recorder's thread found none;
 *         INVALID_STATE before the first open; INVALID_ARGUMENT
 *
 * Allocates nothing. Reads on several threads divide the samples among them.
 */
wrapper_audio_status wrapper_audio_recorder_read_s16(wrapper_audio_recorder *recorder, int16_t *samples, size_t count,
                                                     int32_t timeout_ms,
                                                     wrapper_audio_block *block) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Like wrapper_audio_recorder_read_s16(), with floats.
 *
 * @param recorder    a recorder
 * @param samples     receives the samples; full scale is 1.0, which they may exceed
 * @param count       how many are wanted
 * @param timeout_ms  how long to wait at most
 * @param block       receives the number of samples and what is known about them
 * @return as wrapper_audio_recorder_read_s16()
 */
wrapper_audio_status wrapper_audio_recorder_read_f32(wrapper_audio_recorder *recorder, float *samples, size_t count,
                                                     int32_t timeout_ms,
                                                     wrapper_audio_block *block) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Like wrapper_audio_recorder_read_f32(), and returns the same samples without denoising, too: one capture for listeners
 * and for recognisers, which often do better with the raw sound. Both are of the same times, whatever is lost. All
 * other reads return the denoised samples only, and those without denoising are gone with them.
 *
 * @param recorder    a recorder with `undenoised`
 * @param denoised    receives the samples
 * @param undenoised  receives as many samples: those that a recorder with `speech` and without `denoise` returns
 * @param count       how many of each are wanted
 * @param timeout_ms  how long to wait at most
 * @param block       receives the number of samples of each and what is known about the denoised ones
 * @return as wrapper_audio_recorder_read_s16(); INVALID_ARGUMENT also for a recorder without `undenoised`
 */
wrapper_audio_status wrapper_audio_recorder_read_both_f32(wrapper_audio_recorder *recorder, float *denoised,
                                                          float *undenoised, size_t count, int32_t timeout_ms,
                                                          wrapper_audio_block *block) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Returns and removes the probabilities of speech: one for each 10 ms that began in the samples read so far, oldest
 * first. Those that are not taken are dropped after `buffer_ms`.
 *
 * @param recorder       a recorder with `denoise` above 0.0 or `speech`
 * @param probabilities  receives them, 0.0 to 1.0
 * @param capacity       how many fit
 * @return how many were taken
 */
size_t wrapper_audio_recorder_take_speech(wrapper_audio_recorder *recorder, float *probabilities,
                                          size_t capacity) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Returns the state of a recorder.
 *
 * @param recorder  a recorder
 * @param info      receives it
 * @return OK, INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_recorder_get_info(wrapper_audio_recorder *recorder,
                                                     wrapper_audio_recorder_info *info) WRAPPER_AUDIO_NOEXCEPT;

/** What a recorder hears. */
typedef enum wrapper_audio_signal {
    WRAPPER_AUDIO_SIGNAL_UNKNOWN = 0, /**< too little has been read to tell */
    WRAPPER_AUDIO_SIGNAL_SOUND = 1,   /**< none of those below: a peak of 0.001 or more in the last 2.5 s */
    WRAPPER_AUDIO_SIGNAL_NO_DATA = 2, /**< the device has delivered nothing for 2.5 s */
    WRAPPER_AUDIO_SIGNAL_ZEROS = 3,   /**< each sample of the last 2.5 s was exactly 0: muted, or the wrong device */
    WRAPPER_AUDIO_SIGNAL_HISS = 4,    /**< each peak of the last 2.5 s was below 0.001, 60 dB below full scale: an
                                           analogue input that is muted, or has nothing plugged in. A microphone that is
                                           set up for speech makes the noise of a quiet room louder than that; if it is
                                           not, its level is too low to record anybody well. */
    WRAPPER_AUDIO_SIGNAL_CLIPPING = 5, /**< in each tenth of the last 2.5 s one sample in a hundred, or more, was at full
                                            scale */
    WRAPPER_AUDIO_SIGNAL_LOST = 6      /**< with `reconnect`: the device has failed, hangs or is gone, and has not
                                            delivered anything since. It takes 0.5 s at least. */
} wrapper_audio_signal;

/**
 * Says what a recorder hears, so that a host can tell a microphone that is dead from a room that is quiet. It is judged
 * by what the device delivered in the time of the samples that reads have returned, before denoising; samples that were
 * lost do not count, nor what is older than `buffer_ms` and 2 s when a long read returns. It is known 2.5 s after the
 * first of them, or with the first sound. NO_DATA and LOST do not wait for reads.
 *
 * @param recorder  a recorder
 * @param signal    receives a wrapper_audio_signal; UNKNOWN before the first open
 * @return OK, INVALID_ARGUMENT
 *
 * Allocates nothing.
 */
wrapper_audio_status wrapper_audio_recorder_get_signal(wrapper_audio_recorder *recorder,
                                                       int32_t *signal) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Returns an English sentence about a signal, without a full stop.
 *
 * @param signal  a wrapper_audio_signal
 * @return a constant text, even for numbers that are not a signal
 */
const char *wrapper_audio_signal_text(int32_t signal) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Returns an English sentence that says what a person can do about a signal, without a full stop.
 *
 * @param signal  a wrapper_audio_signal
 * @return a constant text; "" where there is nothing to do, and for numbers that are not a signal
 */
const char *wrapper_audio_signal_advice(int32_t signal) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Copies one of the recorder's texts.
 *
 * @param recorder  a recorder
 * @param kind      a wrapper_audio_recorder_text_kind
 * @param text      receives the text; may be NULL when `capacity` is 0
 * @param capacity  bytes that fit, the terminator included
 * @return the length of the whole text; 0 when there is none
 */
size_t wrapper_audio_recorder_get_text(wrapper_audio_recorder *recorder, int32_t kind, char *text,
                                       size_t capacity) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Stops recording and releases the device, within a second: a device that hangs is left to its thread. Samples recorded
 * before can still be read; waiting reads return what there is.
 *
 * @param recorder  a recorder that is open
 * @return OK; AUDIO_SYSTEM_STUCK if the thread had to be abandoned; INVALID_STATE if it is not open; INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_recorder_stop(wrapper_audio_recorder *recorder) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Stops a recorder, waits for calls on it to return, and releases it.
 *
 * @param recorder  a recorder or NULL
 */
void wrapper_audio_recorder_free(wrapper_audio_recorder *recorder) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Counts the threads that this process has abandoned in hanging devices, and that still hang there.
 *
 * @return how many there are
 */
uint32_t wrapper_audio_abandoned_threads(void) WRAPPER_AUDIO_NOEXCEPT;

/** @} */

/**
 * @name Signal processors
 *
 * A processor takes a stream of samples in pieces of any size and returns a stream. Each has a state of its own.
 * Infinite and NaN samples count as silence, and others are limited to a magnitude of 100, 40 dB above full scale, so
 * that no input can corrupt later output.
 * @{
 */

/** A converter, denoiser, filter, gain control or limiter. */
typedef struct wrapper_audio_processor wrapper_audio_processor;

/** Options of a voice chain. Zeros are the defaults of `denoise`, `speech` and `conversion`. */
typedef struct wrapper_audio_voice_options {
    int32_t in_rate;    /**< 100 to 768000 Hz */
    int32_t out_rate;   /**< 100 to 768000 Hz */
    float denoise;      /**< as in wrapper_audio_recorder_options; 0.0: the chain only converts the rate */
    int32_t speech;     /**< 1: report the probability of speech even without denoising */
    int32_t conversion; /**< a wrapper_audio_conversion */
} wrapper_audio_voice_options;

/**
 * Creates the same chain as a recorder has: conversion to 48000 Hz, noise suppression, conversion to another rate; only
 * the steps that are needed. Output sample i belongs to the time i / out_rate of the input: the delay is compensated.
 * In all, it returns in * out_rate / in_rate samples, rounded to the nearest.
 *
 * @param processor  receives the chain; NULL on failure
 * @param options    its options
 * @return OK, INVALID_ARGUMENT, OUT_OF_MEMORY
 */
wrapper_audio_status wrapper_audio_voice_create(wrapper_audio_processor **processor,
                                                const wrapper_audio_voice_options *options) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Creates a high-pass filter against rumble and DC: a second-order section by the formulas of Robert Bristow-Johnson's
 * Audio EQ Cookbook, in double precision. It returns one sample per input sample, without delay.
 *
 * @param processor  receives the filter; NULL on failure
 * @param rate       of the samples, 100 to 768000 Hz
 * @param cutoff_hz  corner frequency, above 0 and below rate / 2
 * @param q          quality factor, 0.05 to 50; 0.707 has no peak at the corner
 * @return OK, INVALID_ARGUMENT, OUT_OF_MEMORY
 */
wrapper_audio_status wrapper_audio_high_pass_create(wrapper_audio_processor **processor, int32_t rate, float cutoff_hz,
                                                    float q) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Creates a first-order filter against pops: y[i] = x[i] - coef * x[i - 1], where x[-1] is 0. It returns one sample per
 * input sample, without delay.
 *
 * @param processor  receives the filter; NULL on failure
 * @param coef       0.0 to 1.0
 * @return OK, INVALID_ARGUMENT, OUT_OF_MEMORY
 */
wrapper_audio_status wrapper_audio_depop_create(wrapper_audio_processor **processor,
                                                float coef) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Creates an automatic gain control: it measures 10 ms, moves the gain towards the value that would bring them to the
 * target, at most 20 dB up or down, and multiplies them by it. Silence below -120 dB passes unchanged. There is no
 * limiter: the result may exceed full scale, so put a limiter behind it.
 *
 * @param processor   receives the gain control; NULL on failure
 * @param rate        of the samples, 100 to 768000 Hz
 * @param target_db   target RMS level, -60 to 0 dB relative to full scale
 * @param release_ms  time constant of the gain, up and down alike, 0 to 60000
 * @return OK, INVALID_ARGUMENT, OUT_OF_MEMORY
 */
wrapper_audio_status wrapper_audio_gain_control_create(wrapper_audio_processor **processor, int32_t rate,
                                                       float target_db, float release_ms) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Creates a peak limiter that looks 5 ms ahead: no sample exceeds the ceiling, the gain falls to what a peak needs in the
 * 5 ms before it and recovers exponentially, and what needs no limiting passes bit for bit. With N samples in 5 ms,
 * sample i needs n[i] = min(1, ceiling / |x[i]|); r[i] is the least of n[i - N] to n[i] and of r[i - 1] +
 * (1 - r[i - 1]) * (1 - exp(-1 / (release * rate))); the gain of sample i is the mean of r[i + 1] to r[i + N]. Gains are
 * multiples of 2^-40, those needed rounded down and those recovered rounded up. In double precision.
 *
 * @param processor   receives the limiter; NULL on failure
 * @param rate        of the samples, 100 to 768000 Hz
 * @param ceiling_db  the largest magnitude, -60 to 0 dB relative to full scale
 * @param release_ms  time constant of the recovery, 0 to 60000
 * @return OK, INVALID_ARGUMENT, OUT_OF_MEMORY
 */
wrapper_audio_status wrapper_audio_limiter_create(wrapper_audio_processor **processor, int32_t rate, float ceiling_db,
                                                  float release_ms) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Takes all of the input, and returns as many samples as are ready and fit. The rest waits for the next call, which may
 * have no input.
 *
 * @param processor  a processor; one call on it at a time
 * @param in         the samples; may be NULL when `in_count` is 0
 * @param in_count   how many there are
 * @param out        receives samples; may be `in`, or NULL when `capacity` is 0
 * @param capacity   how many fit
 * @param out_count  receives how many were returned
 * @return OK; INVALID_STATE after a flush that has not returned everything yet; OUT_OF_MEMORY; INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_processor_process(wrapper_audio_processor *processor, const float *in,
                                                     size_t in_count, float *out, size_t capacity,
                                                     size_t *out_count) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Ends the stream and returns the samples still inside. Call it until it returns fewer than fit; the processor is then
 * ready for a new stream.
 *
 * @param processor  a processor; one call on it at a time
 * @param out        receives samples; may be NULL when `capacity` is 0
 * @param capacity   how many fit
 * @param out_count  receives how many were returned
 * @return OK, OUT_OF_MEMORY, INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_processor_flush(wrapper_audio_processor *processor, float *out, size_t capacity,
                                                   size_t *out_count) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Returns and removes the probabilities of speech, one for each 10 ms of sound processed, oldest first. Those that are
 * not taken are dropped after an hour.
 *
 * They are RNNoise's, which tells voices from noise, but not near voices from far ones. So where voices hardly ever pause
 * and most of them is removed, as in a cafe, only one that stands out counts: if 0.9 was reached in at least half of the
 * last 10 s, or of what there is, and denoising left less than 0.3 of the power in at least half of these 10 ms, each
 * probability is multiplied by the largest weight of its 10 ms and the 300 ms before. The weight is (L - F - 4) / 6,
 * limited to 0.0 to 1.0. L is 10 * log10(P + 10^-10), where P is the power before denoising in the 100 ms that end 20 ms
 * after its 10 ms. F is the value a fifth of the way up the last 1000 background levels: they start as 25 of -100 dB, and
 * every L joins them, but only every fourth while the product with the weight is 0.9 or more. Powers are without the
 * mean.
 *
 * @param processor      a voice chain with `denoise` above 0.0 or `speech`
 * @param probabilities  receives them, 0.0 to 1.0
 * @param capacity       how many fit
 * @return how many were taken
 */
size_t wrapper_audio_processor_take_speech(wrapper_audio_processor *processor, float *probabilities,
                                           size_t capacity) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Returns how far the output of a processor may lag behind its input.
 *
 * @param processor  a processor or NULL
 * @return the most samples, at the output rate, that it may hold back; 0 for NULL
 */
size_t wrapper_audio_processor_delay(const wrapper_audio_processor *processor) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Resets a processor to its initial state and discards the samples inside.
 *
 * @param processor  a processor; one call on it at a time
 * @return OK, OUT_OF_MEMORY, INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_processor_reset(wrapper_audio_processor *processor) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Releases a processor.
 *
 * @param processor  a processor or NULL
 */
void wrapper_audio_processor_free(wrapper_audio_processor *processor) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Converts 16-bit samples to floats: each divided by 32767. The buffers must not overlap.
 *
 * @param in     the samples; may be NULL when `count` is 0
 * @param count  how many
 * @param out    receives as many floats
 * @return OK, INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_s16_to_f32(const int16_t *in, size_t count, float *out) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Converts floats to 16-bit samples: times 32767, rounded to the nearest, limited to full scale; NaN becomes 0.
 *
 * @param in     the samples; may be NULL when `count` is 0
 * @param count  how many
 * @param out    receives as many 16-bit samples
 * @return OK, INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_f32_to_s16(const float *in, size_t count, int16_t *out) WRAPPER_AUDIO_NOEXCEPT;

/** @} */

/**
 * @name Speech detection
 *
 * A speech gate takes a stream of samples and the probability of speech of each 10 ms of it, and returns the samples
 * of utterances only, bit for bit. The samples need not be the denoised ones: a recorder with `speech` and without
 * `denoise` delivers the raw sound with the probabilities.
 *
 * The 10 ms number i are the samples from i * rate / 100, rounded up, on. They are voiced if their probability is
 * `begin_threshold` or more, or if the 10 ms before are voiced and it is `end_threshold` or more. M and H are
 * `min_speech_ms` and `hang_over_ms` in units of 10 ms, rounded up; M is at least 1.
 *
 * - Speech begins with the first of M voiced 10 ms in a row, or with the earliest of up to 20 preceding 10 ms that all
 *   have a probability of 0.3 or more and do not belong to the utterance before. It ends H times 10 ms after its last
 *   voiced 10 ms, when as many, and at least one, that are not voiced have followed; or with the last 10 ms whose
 *   probability is known.
 * - An utterance begins `pre_roll_ms` before speech does, but not before the stream, the end of the utterance before
 *   it, or the end of a loss of samples before that speech. It ends when speech does, or with the stream.
 * - It is cut where samples were lost and after each `max_ms`: the next utterance begins with the next sample.
 *
 * The utterances do not depend on the pieces in which samples and probabilities arrive.
 * @{
 */

/** Options of a speech gate. wrapper_audio_speech_defaults() fills in the defaults. */
typedef struct wrapper_audio_speech_options {
    int32_t rate;          /**< of the samples, 100 to 768000 Hz; by default 16000 */
    float begin_threshold; /**< the probability that speech has to reach, `end_threshold` to 1.0; by default 0.95 */
    float end_threshold;   /**< below this probability it ends, 0.0 to 1.0; by default 0.9 */
    int32_t min_speech_ms; /**< what is shorter is not speech, 0 to 10000; by default 100 */
    int32_t hang_over_ms;  /**< how long a pause must last to end an utterance, of which it remains a part, 0 to 60000;
                                by default 500 */
    int32_t pre_roll_ms;   /**< how much sound before speech belongs to an utterance, 0 to 60000; by default 300 */
    int32_t max_ms;        /**< the longest utterance, 100 to 3600000; 0, the default: no limit */
    int32_t reserved[9];   /**< must be 0 */
} wrapper_audio_speech_options;

/** What was taken from a speech gate: samples of one utterance. */
typedef struct wrapper_audio_speech_piece {
    uint64_t position; /**< of the first sample, in samples since the beginning of the stream, lost ones included */
    uint32_t count;    /**< samples returned; 0: none is ready, or `ends` is all there is to say */
    int32_t begins;    /**< 1: the utterance begins with the first of them; otherwise 0 */
    int32_t ends;      /**< 1: the utterance ends behind the last of them, or at `position` if there are none; otherwise
                            0 */
} wrapper_audio_speech_piece;

/** The samples and probabilities from which no utterance has been taken yet. */
typedef struct wrapper_audio_speech_gate wrapper_audio_speech_gate;

/**
 * Fills in the defaults.
 *
 * @param options  receives them; NULL is ignored
 */
void wrapper_audio_speech_defaults(wrapper_audio_speech_options *options) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Creates a speech gate.
 *
 * @param gate     receives the gate, to be released with wrapper_audio_speech_gate_free(); NULL on failure
 * @param options  its options; NULL for the defaults
 * @return OK, INVALID_ARGUMENT, OUT_OF_MEMORY
 */
wrapper_audio_status wrapper_audio_speech_gate_create(wrapper_audio_speech_gate **gate,
                                                      const wrapper_audio_speech_options *options)
    WRAPPER_AUDIO_NOEXCEPT;

/**
 * Adds the next samples of the stream and its next probabilities, as wrapper_audio_processor_take_speech() returns
 * them. Each kind continues where its last ones ended, and may run ahead of the other. What may belong to an utterance
 * is kept until it is taken, at least `pre_roll_ms`.
 *
 * @param gate               a speech gate; one call on it at a time
 * @param samples            the samples; may be NULL when `count` is 0
 * @param count              how many there are
 * @param probabilities      the probabilities; may be NULL when `probability_count` is 0. NaN is 0.0.
 * @param probability_count  how many there are
 * @return OK; INVALID_STATE after a flush; OUT_OF_MEMORY, after which the gate is good for nothing but a reset;
 *         INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_speech_gate_add(wrapper_audio_speech_gate *gate, const float *samples, size_t count,
                                                   const float *probabilities,
                                                   size_t probability_count) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Says that samples were lost: those added next follow so many later. The probabilities go on without a gap.
 *
 * @param gate   a speech gate; one call on it at a time
 * @param count  how many samples are missing, up to 2^62
 * @return OK; INVALID_STATE after a flush, or beyond sample 2^62; INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_speech_gate_skip(wrapper_audio_speech_gate *gate,
                                                    uint64_t count) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Reads a recorder like wrapper_audio_recorder_read_f32(), into a speech gate: samples, losses and probabilities, each
 * in its place. What other reads returned meanwhile counts as lost.
 *
 * @param recorder    a recorder with `denoise` above 0.0 or `speech`
 * @param gate        a speech gate of the same rate; one call on it at a time. After each open it needs a reset.
 * @param count       how many samples are wanted
 * @param timeout_ms  how long to wait at most
 * @param block       receives the number of samples and what is known about them
 * @return as wrapper_audio_recorder_read_f32(); INVALID_STATE also after a flush of the gate, or when it is ahead of
 *         the recorder; OUT_OF_MEMORY also when the gate found none
 */
wrapper_audio_status wrapper_audio_recorder_read_gate(wrapper_audio_recorder *recorder,
                                                      wrapper_audio_speech_gate *gate, size_t count, int32_t timeout_ms,
                                                      wrapper_audio_block *block) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Takes samples of the oldest utterance, as many as are ready and fit. Call it until it returns none and `ends` is 0.
 * Samples are ready as soon as it is known that they belong to an utterance.
 *
 * @param gate      a speech gate; one call on it at a time
 * @param samples   receives the samples; may be NULL when `capacity` is 0
 * @param capacity  how many fit
 * @param piece     receives what was taken; filled in any case
 * @return OK, INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_speech_gate_take(wrapper_audio_speech_gate *gate, float *samples, size_t capacity,
                                                    wrapper_audio_speech_piece *piece) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Ends the stream. Then the rest can be taken.
 *
 * @param gate  a speech gate; one call on it at a time
 * @return OK, INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_speech_gate_flush(wrapper_audio_speech_gate *gate) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Resets a gate to its initial state, for a new stream.
 *
 * @param gate  a speech gate; one call on it at a time
 * @return OK, INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_speech_gate_reset(wrapper_audio_speech_gate *gate) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Releases a speech gate.
 *
 * @param gate  a speech gate or NULL
 */
void wrapper_audio_speech_gate_free(wrapper_audio_speech_gate *gate) WRAPPER_AUDIO_NOEXCEPT;

/** @} */

/**
 * @name Alignment
 *
 * Two recorders, such as a microphone and what the computer plays, have clocks that drift apart, by a second in some
 * hours, and neither begins or loses sound when the other does. An aligner takes samples of both with the times at which
 * they were captured, and returns as many of each, of the same times.
 *
 * - The first stream passes bit for bit, and its clock is the one that counts. The second is resampled, by a share that
 *   changes so slowly that nobody hears it.
 * - Of the times, those that arrive most punctually count: they may be late, as the system is.
 * - What was lost on either side, 15 ms or more, is silence there, in its place. If the second stream delivers nothing,
 *   as a monitor may while nobody plays, it is silence after 5 s.
 * - Samples are ready a second after they were added, when it is known that the next ones are not merely late.
 * @{
 */

/** Samples of two streams on their way to the same time. */
typedef struct wrapper_audio_aligner wrapper_audio_aligner;

/**
 * Creates an aligner.
 *
 * @param aligner  receives the aligner, to be released with wrapper_audio_aligner_free(); NULL on failure
 * @param rate     of the samples of both streams, 100 to 768000 Hz
 * @return OK, INVALID_ARGUMENT, OUT_OF_MEMORY
 */
wrapper_audio_status wrapper_audio_aligner_create(wrapper_audio_aligner **aligner, int32_t rate) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Adds the next samples of a stream, in pieces of 100 ms at most, without those that were lost before them. They are kept
 * until they are taken.
 *
 * @param aligner  an aligner; one call on it at a time
 * @param side     0: the first stream; 1: the second
 * @param samples  the samples; may be NULL when `count` is 0
 * @param count    how many there are
 * @param time     when the last of them was captured, in ns of a clock that both streams have in common, or later
 * @return OK; INVALID_STATE after a flush; OUT_OF_MEMORY, after which the aligner is good for nothing but its release;
 *         INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_aligner_add(wrapper_audio_aligner *aligner, int32_t side, const float *samples,
                                               size_t count, int64_t time) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Reads a recorder like wrapper_audio_recorder_read_f32(), into an aligner, with the times at which the device delivered
 * the samples. What conversion and noise suppression hold back makes no difference.
 *
 * @param recorder    a recorder
 * @param aligner     an aligner of the same rate; one call on it at a time
 * @param side        0: the recorder is its first stream; 1: its second
 * @param count       how many samples are wanted
 * @param timeout_ms  how long to wait at most
 * @param block       receives the number of samples and what is known about them
 * @return as wrapper_audio_recorder_read_f32(); INVALID_STATE also after a flush of the aligner; OUT_OF_MEMORY also when
 *         the aligner found none
 */
wrapper_audio_status wrapper_audio_recorder_read_aligner(wrapper_audio_recorder *recorder,
                                                         wrapper_audio_aligner *aligner, int32_t side, size_t count,
                                                         int32_t timeout_ms,
                                                         wrapper_audio_block *block) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Takes samples of both streams, as many as are ready and fit. Call it until it returns fewer than fit.
 *
 * @param aligner   an aligner; one call on it at a time
 * @param first     receives samples of the first stream; may be NULL when `capacity` is 0
 * @param second    receives as many of the second
 * @param capacity  how many of each fit
 * @param count     receives how many of each were taken
 * @return OK, INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_aligner_take(wrapper_audio_aligner *aligner, float *first, float *second,
                                                size_t capacity, size_t *count) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Ends both streams. Then the rest can be taken: up to the end of the first stream.
 *
 * @param aligner  an aligner; one call on it at a time
 * @return OK, OUT_OF_MEMORY, INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_aligner_flush(wrapper_audio_aligner *aligner) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Releases an aligner.
 *
 * @param aligner  an aligner or NULL
 */
void wrapper_audio_aligner_free(wrapper_audio_aligner *aligner) WRAPPER_AUDIO_NOEXCEPT;

/** @} */

/** @name Log */ /** @{ */

/**
 * Returns and removes the oldest lines that the core and PortAudio's back ends wrote, as many whole ones as fit; each
 * ends with a line feed. The last 1000 are kept, each up to 1000 bytes. They are raw bytes and contain names from
 * outside: replace control characters before you display them.
 *
 * @param text      receives the lines
 * @param capacity  bytes that fit, the terminator included
 * @return how many bytes were taken, without the terminator; 0 when there is no line
 */
size_t wrapper_audio_log_take(char *text, size_t capacity) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Says in English what a line of the core's log means.
 *
 * @param line      the line
 * @param text      receives the sentence
 * @param capacity  bytes that fit, the terminator included
 * @return the length of the sentence; 0 if the line is not the core's
 */
size_t wrapper_audio_log_in_english(const char *line, char *text, size_t capacity) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Turns copying of these lines to standard error on or off.
 *
 * @param on  1: on, with control characters replaced; 0: off, as at the start
 */
void wrapper_audio_log_echo(int32_t on) WRAPPER_AUDIO_NOEXCEPT;

/** @} */
#pragma GCC visibility pop
#undef WRAPPER_AUDIO_NOEXCEPT

#ifdef __cplusplus
}
#endif

#endif
