/**
 * @file wrapper_audio_recorder.h
 * Recording from any microphone on Linux: a thread of its own, errors as values, clean conversion to every rate, and
 * noise suppression whatever rate the device runs at. It stands above wrapper_audio.h and is what most programs want.
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
 * - A call that can fail returns a status. What it was to fill is filled on success, and as told where it fails.
 * - No bad argument crashes: a NULL, a number out of range or a NaN gives WRAPPER_AUDIO_INVALID_ARGUMENT. What cannot
 *   be checked is a pointer to something else, or a handle that has been freed.
 * - A text that is copied out is always terminated, and cut if it does not fit. The function returns the length that
 *   the whole text has, without the terminator.
 *
 * ## Threads
 *
 * - Any function may be called on any thread unless it says otherwise, also on one handle from several threads at once.
 *   Opening and closing are serialised inside. A handle is freed once, and not used afterwards.
 * - A recorder has a thread that talks to the device, and blocks all signals there. When a device hangs so that its
 *   thread cannot be ended, the thread is left behind, and wrapper_audio_abandoned_threads() counts it.
 * - A host that calls the opening and closing functions of wrapper_audio.h as well must not do so while one of
 *   wrapper_audio_recorder_open(), _stop(), _free() or wrapper_audio_device_list_create() runs.
 *
 * ## Standard error
 *
 * wrapper_audio.h and PortAudio's back ends write to standard error. While the recorder layer calls them, what they
 * write goes to wrapper_audio_log_take() instead. To that end the variable `stderr` of C is pointed, once, to a stream
 * that tells apart which thread is writing; whatever the host itself writes there arrives as before.
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

/** How a call went. The numbers never change; those below 0 are failures. */
typedef enum wrapper_audio_status {
    WRAPPER_AUDIO_OK = 0,                 /**< everything is fine */
    WRAPPER_AUDIO_TIMEOUT = 1,            /**< the time ran out before everything had come */
    WRAPPER_AUDIO_STOPPED = 2,            /**< the recorder was stopped, and every sample has been read */
    WRAPPER_AUDIO_INVALID_ARGUMENT = -1,  /**< an argument is NULL, NaN or out of range */
    WRAPPER_AUDIO_INVALID_STATE = -2,     /**< not now: the recorder is open already, or never was */
    WRAPPER_AUDIO_OUT_OF_MEMORY = -3,     /**< no memory, or no further thread */
    WRAPPER_AUDIO_NO_AUDIO_SYSTEM = -4,   /**< PortAudio does not start */
    WRAPPER_AUDIO_NO_INPUT_DEVICE = -5,   /**< there is no device to record from */
    WRAPPER_AUDIO_UNKNOWN_DEVICE = -6,    /**< no device has this id */
    WRAPPER_AUDIO_AMBIGUOUS_DEVICE = -7,  /**< several devices match */
    WRAPPER_AUDIO_NOT_AN_INPUT = -8,      /**< the device cannot record */
    WRAPPER_AUDIO_DEVICE_REFUSED = -9,    /**< the device did not open */
    WRAPPER_AUDIO_DEVICE_FAILED = -10,    /**< the device failed while it was recording: it is gone */
    WRAPPER_AUDIO_NO_DATA = -11,          /**< the device is open but delivers nothing */
    WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK = -12 /**< the audio system does not answer */
} wrapper_audio_status;

/**
 * An English sentence about a status, without a full stop.
 *
 * @param status  a wrapper_audio_status
 * @return a constant text, also for numbers that are no status
 */
const char *wrapper_audio_status_text(int32_t status) WRAPPER_AUDIO_NOEXCEPT;

/** @} */

/** @name Devices */ /** @{ */

/** How a device can be denoised. */
typedef enum wrapper_audio_denoising {
    WRAPPER_AUDIO_DENOISING_OFF = 0,      /**< not at all: the device cannot record, or nobody asked for it */
    WRAPPER_AUDIO_DENOISING_NATIVE = 1,   /**< the device runs at 48000 Hz, the rate of the noise suppression */
    WRAPPER_AUDIO_DENOISING_CONVERTED = 2 /**< the device runs at another rate: its sound is converted to 48000 Hz */
} wrapper_audio_denoising;

/** One device. The texts belong to the list. */
typedef struct wrapper_audio_device {
    const char *id;          /**< what wrapper_audio_recorder_open() takes: bytes of any encoding, and no other device
                                  has them */
    const char *name;        /**< for people: valid UTF-8 without control characters */
    const char *host_api;    /**< the part of the system it belongs to, such as "ALSA"; valid UTF-8 */
    int32_t default_rate;    /**< in Hz */
    int32_t input_channels;  /**< 0: it cannot record */
    int32_t output_channels; /**< 0: it cannot play */
    int32_t is_default;      /**< 1 for the default input device, otherwise 0 */
    int32_t denoising;       /**< a wrapper_audio_denoising: what recording with denoising would do */
} wrapper_audio_device;

/** The devices of a moment. It never changes. */
typedef struct wrapper_audio_device_list wrapper_audio_device_list;

/**
 * Lists the machine's audio devices, outputs too, as PortAudio sees them. PortAudio looks for devices when the first
 * user in the process begins, and not again while a recorder is open, nor after it has found a JACK server.
 *
 * @param list  receives the list, to be given to wrapper_audio_device_list_free(); NULL on failure
 * @return OK, also for a list without devices; NO_AUDIO_SYSTEM, AUDIO_SYSTEM_STUCK, OUT_OF_MEMORY, INVALID_ARGUMENT
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
 * Finds the one input device that a person means: by its id or, when no id is the same, by a part of its id, in
 * capitals or not.
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
 * Releases a list and the texts in it.
 *
 * @param list  a list or NULL
 */
void wrapper_audio_device_list_free(wrapper_audio_device_list *list) WRAPPER_AUDIO_NOEXCEPT;

/** @} */

/** @name Recorder */ /** @{ */

/** How sample rates are converted. */
typedef enum wrapper_audio_conversion {
    WRAPPER_AUDIO_CONVERSION_CLEAN = 0, /**< by soxr's high quality: whatever would alias is more than 90 dB down */
    WRAPPER_AUDIO_CONVERSION_LINEAR = 1 /**< means over whole ratios, else linear interpolation, as wrapper_audio.h has
                                             it; quick, without delay, and it aliases */
} wrapper_audio_conversion;

/** What a recorder is to do. Zeros are the defaults; leave the rest zero. */
typedef struct wrapper_audio_recorder_options {
    int32_t rate;         /**< of the samples returned, 100 to 768000 Hz; 0: 16000 */
    float denoise;        /**< strength of the noise suppression, from 0.0, off, to 1.0, all of it; between them that
                               share of the noise is taken away */
    int32_t speech;       /**< 1: tell the probability of speech also where nothing is denoised */
    int32_t conversion;   /**< a wrapper_audio_conversion */
    int32_t buffer_ms;    /**< sound that is kept for a host that comes late, 100 to 60000; 0: 5000 */
    int32_t stall_ms;     /**< a device that delivers nothing for so long has NO_DATA, 100 to 60000; 0: 1500 */
    int32_t reserved[10]; /**< must be 0 */
} wrapper_audio_recorder_options;

/** What a read returned. */
typedef struct wrapper_audio_block {
    uint64_t position;        /**< of the first sample, in samples since the recorder was opened; those that were
                                   dropped count too */
    uint32_t count;           /**< samples returned */
    uint32_t dropped;         /**< samples that were lost before `count` was full: because reads came too late, or
                                   inside the system. The latter shows by the clock, half a second later and from
                                   0.1 s on. */
    uint32_t dropped_at;      /**< how many of the samples returned came before the loss */
    uint32_t clipped;         /**< samples of the device that were at full scale in this time */
    float rms;                /**< root mean square of the samples returned */
    float peak;               /**< their largest magnitude */
    float captured_rms;       /**< the same of what the device gave in this time, before noise suppression */
    float captured_peak;      /**< and their largest magnitude */
    float speech_probability; /**< largest probability of speech in the 10 ms that begin in this block, 0.0 to 1.0;
                                   -1.0 when it is not known */
} wrapper_audio_block;

/** What a recorder is doing. */
typedef struct wrapper_audio_recorder_info {
    int32_t rate;              /**< of the samples returned, in Hz */
    int32_t device_rate;       /**< that the device runs at, in Hz; 0 before the first open */
    int32_t denoising;         /**< a wrapper_audio_denoising */
    int32_t delay;             /**< samples by which the last sample lags behind the device at most: what conversion
                                    and noise suppression keep inside */
    uint64_t captured;         /**< samples that the device has delivered, at its rate */
    uint64_t available;        /**< samples that a read would return at once */
    uint64_t read;             /**< samples that reads have returned */
    uint64_t dropped;          /**< samples that were lost, as far as reads have come */
    int64_t first_sample_time; /**< when the first sample was captured, in ns of CLOCK_MONOTONIC; accurate to the
                                    latency of the device; 0 before it has come */
} wrapper_audio_recorder_info;

/** Texts of a recorder. */
typedef enum wrapper_audio_recorder_text_kind {
    WRAPPER_AUDIO_TEXT_DEVICE_ID = 0,   /**< of the device that was opened last; bytes */
    WRAPPER_AUDIO_TEXT_DEVICE_NAME = 1, /**< its name for people, valid UTF-8 */
    WRAPPER_AUDIO_TEXT_REASON = 2,      /**< one or more English sentences about the last failure, with the words of the
                                             audio system and, for an unknown device, the candidates; valid UTF-8 */
    WRAPPER_AUDIO_TEXT_LOG_LINE = 3     /**< the line that wrapper_audio.h wrote about it, if it did; bytes */
} wrapper_audio_recorder_text_kind;

/** One microphone, and the thread that reads it. */
typedef struct wrapper_audio_recorder wrapper_audio_recorder;

/**
 * Makes a recorder. No device is touched yet.
 *
 * @param recorder  receives the recorder, to be given to wrapper_audio_recorder_free(); NULL on failure
 * @param options   what it is to do; NULL for the defaults. Read during the call only.
 * @return OK, INVALID_ARGUMENT, OUT_OF_MEMORY
 */
wrapper_audio_status wrapper_audio_recorder_create(wrapper_audio_recorder **recorder,
                                                   const wrapper_audio_recorder_options *options)
    WRAPPER_AUDIO_NOEXCEPT;

/**
 * Takes a microphone and begins to record. A device is opened at its default rate if that is the rate of the samples
 * returned and there is no denoising or speech; otherwise at 48000 Hz if it can, or else at its default rate. A
 * recorder that was stopped may be opened again, on any device: it begins anew, and what had not been read is lost.
 *
 * @param recorder   a recorder that is not open
 * @param device_id  the `id` of a wrapper_audio_device, compared byte for byte; NULL or "": the default input device
 * @return OK; STOPPED when another thread stopped it meanwhile; INVALID_STATE when it is open; NO_AUDIO_SYSTEM,
 *         NO_INPUT_DEVICE, UNKNOWN_DEVICE, NOT_AN_INPUT, DEVICE_REFUSED, AUDIO_SYSTEM_STUCK (after 10 s),
 *         OUT_OF_MEMORY, INVALID_ARGUMENT. After a failure the recorder is not open, and nothing of the device is held.
 */
wrapper_audio_status wrapper_audio_recorder_open(wrapper_audio_recorder *recorder,
                                                 const char *device_id) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Waits until `count` samples have come and returns them. It returns fewer when the time runs out, the recorder is
 * stopped or the device fails: `block` then tells how many, and the status why.
 *
 * @param recorder    a recorder
 * @param samples     receives the samples: 16-bit ones rounded to the nearest and limited to full scale
 * @param count       how many are wanted; 0 returns at once
 * @param timeout_ms  how long to wait at most; 0: not at all; below 0: as long as the device delivers
 * @param block       receives how many samples came, and what there is to know of them; filled in any case
 * @return OK; TIMEOUT; STOPPED, once everything before the stop has been read; DEVICE_FAILED, once everything before
 *         the failure has been read; NO_DATA when nothing has come for `stall_ms` of waiting (a later read may have
 *         sound again); OUT_OF_MEMORY when the recorder's thread found none; INVALID_STATE before the first open;
 *         INVALID_ARGUMENT
 *
 * Allocates nothing. Reads on several threads share the samples out among them.
 */
wrapper_audio_status wrapper_audio_recorder_read_s16(wrapper_audio_recorder *recorder, int16_t *samples, size_t count,
                                                     int32_t timeout_ms,
                                                     wrapper_audio_block *block) WRAPPER_AUDIO_NOEXCEPT;

/**
 * As wrapper_audio_recorder_read_s16(), with floats.
 *
 * @param recorder    a recorder
 * @param samples     receives the samples, of full scale 1.0, which they may exceed
 * @param count       how many are wanted
 * @param timeout_ms  how long to wait at most
 * @param block       receives how many samples came, and what there is to know of them
 * @return as wrapper_audio_recorder_read_s16()
 */
wrapper_audio_status wrapper_audio_recorder_read_f32(wrapper_audio_recorder *recorder, float *samples, size_t count,
                                                     int32_t timeout_ms,
                                                     wrapper_audio_block *block) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Takes out the probabilities of speech: one for each 10 ms that began in the samples read so far, oldest first. Those
 * that nobody takes are dropped after `buffer_ms`.
 *
 * @param recorder       a recorder with `denoise` above 0.0 or `speech`
 * @param probabilities  receives them, 0.0 to 1.0
 * @param capacity       how many fit
 * @return how many were taken
 */
size_t wrapper_audio_recorder_take_speech(wrapper_audio_recorder *recorder, float *probabilities,
                                          size_t capacity) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Tells what a recorder is doing.
 *
 * @param recorder  a recorder
 * @param info      receives it
 * @return OK, INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_recorder_get_info(wrapper_audio_recorder *recorder,
                                                     wrapper_audio_recorder_info *info) WRAPPER_AUDIO_NOEXCEPT;

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
 * Ends the recording and gives the device back, within a second: a device that hangs is left to its thread. The samples
 * recorded before can still be read; reads that wait return what there is.
 *
 * @param recorder  a recorder that is open
 * @return OK; AUDIO_SYSTEM_STUCK when the thread had to be left behind; INVALID_STATE when it is not open;
 *         INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_recorder_stop(wrapper_audio_recorder *recorder) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Stops a recorder, waits for calls on it to return, and releases it.
 *
 * @param recorder  a recorder or NULL
 */
void wrapper_audio_recorder_free(wrapper_audio_recorder *recorder) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Counts the threads that this process has left behind in devices that hang, and that still hang there.
 *
 * @return how many there are
 */
uint32_t wrapper_audio_abandoned_threads(void) WRAPPER_AUDIO_NOEXCEPT;

/** @} */

/**
 * @name Signal processors
 *
 * A processor takes a stream of samples in pieces of any size and gives a stream back. Each has a state of its own.
 * Samples that are infinite or no number count as silence, and others are limited to a magnitude of 100, 40 dB above
 * full scale, so that nothing a host puts in can spoil what comes later.
 * @{
 */

/** A converter, denoiser, filter, gain control or limiter. */
typedef struct wrapper_audio_processor wrapper_audio_processor;

/** What a voice chain is to do. Zeros are the defaults of `denoise`, `speech` and `conversion`. */
typedef struct wrapper_audio_voice_options {
    int32_t in_rate;    /**< 100 to 768000 Hz */
    int32_t out_rate;   /**< 100 to 768000 Hz */
    float denoise;      /**< as in wrapper_audio_recorder_options; 0.0: the chain is a converter of rates */
    int32_t speech;     /**< 1: tell the probability of speech also where nothing is denoised */
    int32_t conversion; /**< a wrapper_audio_conversion */
} wrapper_audio_voice_options;

/**
 * Makes the chain that a recorder has: conversion to 48000 Hz, noise suppression, conversion to another rate; of these
 * what is needed. Output sample i belongs to the time i / out_rate of the input: the delay is taken out. In all it
 * gives in * out_rate / in_rate samples, rounded to the nearest.
 *
 * @param processor  receives the chain; NULL on failure
 * @param options    what it is to do
 * @return OK, INVALID_ARGUMENT, OUT_OF_MEMORY
 */
wrapper_audio_status wrapper_audio_voice_create(wrapper_audio_processor **processor,
                                                const wrapper_audio_voice_options *options) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Makes a high-pass filter against rumble and DC: a second-order section by the formulas of Robert Bristow-Johnson's
 * Audio EQ Cookbook, in double precision. It gives a sample for each sample, without delay.
 *
 * @param processor  receives the filter; NULL on failure
 * @param rate       of the samples, 100 to 768000 Hz
 * @param cutoff_hz  corner frequency, above 0 and below rate / 2
 * @param q          quality factor, 0.05 to 50; 0.707 has no bump at the corner
 * @return OK, INVALID_ARGUMENT, OUT_OF_MEMORY
 */
wrapper_audio_status wrapper_audio_high_pass_create(wrapper_audio_processor **processor, int32_t rate, float cutoff_hz,
                                                    float q) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Makes a first-order filter against pops: y[i] = x[i] - coef * x[i - 1], where x[-1] is 0. It gives a sample for each
 * sample, without delay.
 *
 * @param processor  receives the filter; NULL on failure
 * @param coef       0.0 to 1.0
 * @return OK, INVALID_ARGUMENT, OUT_OF_MEMORY
 */
wrapper_audio_status wrapper_audio_depop_create(wrapper_audio_processor **processor,
                                                float coef) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Makes an automatic gain control: it measures 10 ms, moves the gain towards what would bring them to the target, at
 * most 20 dB up or down, and multiplies them by it. Silence below -120 dB passes as it is. Nothing is limited: the
 * result may exceed full scale, so put a limiter behind it.
 *
 * @param processor   receives the gain control; NULL on failure
 * @param rate        of the samples, 100 to 768000 Hz
 * @param target_db   the RMS level to steer towards, -60 to 0 dB against full scale
 * @param release_ms  time constant of the gain, up and down alike, 0 to 60000
 * @return OK, INVALID_ARGUMENT, OUT_OF_MEMORY
 */
wrapper_audio_status wrapper_audio_gain_control_create(wrapper_audio_processor **processor, int32_t rate,
                                                       float target_db, float release_ms) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Makes a peak limiter that looks 5 ms ahead: no sample exceeds the ceiling, the gain falls to what a peak needs in the
 * 5 ms before it and recovers exponentially, and what needs no limiting passes bit for bit. With N samples in 5 ms, sample
 * i needs n[i] = min(1, ceiling / |x[i]|); r[i] is the least of n[i - N] to n[i] and of r[i - 1] + (1 - r[i - 1]) *
 * (1 - exp(-1 / (release * rate))); the gain of sample i is the mean of r[i + 1] to r[i + N]. Gains are multiples of
 * 2^-40, those needed rounded down and those recovered rounded up. In double precision.
 *
 * @param processor   receives the limiter; NULL on failure
 * @param rate        of the samples, 100 to 768000 Hz
 * @param ceiling_db  the largest magnitude, -60 to 0 dB against full scale
 * @param release_ms  time constant of the recovery, 0 to 60000
 * @return OK, INVALID_ARGUMENT, OUT_OF_MEMORY
 */
wrapper_audio_status wrapper_audio_limiter_create(wrapper_audio_processor **processor, int32_t rate, float ceiling_db,
                                                  float release_ms) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Takes all of the input, and gives as much as is ready and fits. What does not fit waits for the next call, which may
 * have no input.
 *
 * @param processor  a processor; one call on it at a time
 * @param in         the samples; may be NULL when `in_count` is 0
 * @param in_count   how many
 * @param out        receives samples; may be `in`, or NULL when `capacity` is 0
 * @param capacity   how many fit
 * @param out_count  receives how many were given
 * @return OK; INVALID_STATE after a flush that has not given everything yet; OUT_OF_MEMORY; INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_processor_process(wrapper_audio_processor *processor, const float *in,
                                                     size_t in_count, float *out, size_t capacity,
                                                     size_t *out_count) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Ends the stream and gives what is still inside. Call it until it gives fewer samples than fit; the processor is as
 * new then.
 *
 * @param processor  a processor; one call on it at a time
 * @param out        receives samples; may be NULL when `capacity` is 0
 * @param capacity   how many fit
 * @param out_count  receives how many were given
 * @return OK, OUT_OF_MEMORY, INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_processor_flush(wrapper_audio_processor *processor, float *out, size_t capacity,
                                                   size_t *out_count) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Takes out the probabilities of speech, one for each 10 ms of sound that was given, oldest first. Those that nobody
 * takes are dropped after an hour.
 *
 * @param processor      a voice chain with `denoise` above 0.0 or `speech`
 * @param probabilities  receives them, 0.0 to 1.0
 * @param capacity       how many fit
 * @return how many were taken
 */
size_t wrapper_audio_processor_take_speech(wrapper_audio_processor *processor, float *probabilities,
                                           size_t capacity) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Tells how far the output of a processor may lag behind its input.
 *
 * @param processor  a processor or NULL
 * @return the most samples, at the output's rate, that it may keep inside before it gives them; 0 for NULL
 */
size_t wrapper_audio_processor_delay(const wrapper_audio_processor *processor) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Forgets everything that was put in.
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
 * Makes floats of 16-bit samples: each divided by 32767. The buffers must not overlap.
 *
 * @param in     the samples; may be NULL when `count` is 0
 * @param count  how many
 * @param out    receives as many floats
 * @return OK, INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_s16_to_f32(const int16_t *in, size_t count, float *out) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Makes 16-bit samples of floats: times 32767, rounded to the nearest, limited to full scale; NaN becomes 0.
 *
 * @param in     the samples; may be NULL when `count` is 0
 * @param count  how many
 * @param out    receives as many 16-bit samples
 * @return OK, INVALID_ARGUMENT
 */
wrapper_audio_status wrapper_audio_f32_to_s16(const float *in, size_t count, int16_t *out) WRAPPER_AUDIO_NOEXCEPT;

/** @} */

/** @name Log */ /** @{ */

/**
 * Takes out the oldest lines that wrapper_audio.h and PortAudio's back ends wrote, as many whole ones as fit; each ends
 * with a line feed. The last 1000 are kept, each up to 1000 bytes. They are bytes, and names from outside are in them:
 * replace control characters before you show them.
 *
 * @param text      receives the lines
 * @param capacity  bytes that fit, the terminator included
 * @return how many bytes were taken, without the terminator; 0 when there is no line
 */
size_t wrapper_audio_log_take(char *text, size_t capacity) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Tells in English what a line of wrapper_audio.h says.
 *
 * @param line      the line
 * @param text      receives the sentence
 * @param capacity  bytes that fit, the terminator included
 * @return the length of the sentence; 0 when the line is not one of wrapper_audio.h
 */
size_t wrapper_audio_log_in_english(const char *line, char *text, size_t capacity) WRAPPER_AUDIO_NOEXCEPT;

/**
 * Lets the lines go to standard error as well, from now on.
 *
 * @param on  1: they do, with control characters replaced; 0: they do not, as in the beginning
 */
void wrapper_audio_log_echo(int32_t on) WRAPPER_AUDIO_NOEXCEPT;

/** @} */
#pragma GCC visibility pop
#undef WRAPPER_AUDIO_NOEXCEPT

#ifdef __cplusplus
}
#endif

#endif
