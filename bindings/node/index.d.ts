/**
 * Microphone capture as mono blocks at the rate you want, with neural noise suppression, a level meter and a device
 * list, and signal functions for your own buffers.
 *
 *     const recorder = await Recorder.open({ rate: 16000, denoise: true });
 *     for await (const block of recorder.blocks({ seconds: 5 })) console.log(block.length, recorder.peak);
 *     await recorder.close();
 *
 * Levels are linear amplitudes from 0 to 1 (full scale), rates are in Hz, durations in milliseconds where nothing else
 * is said.
 *
 * Whatever waits for a device runs on a thread of Node's pool and gives a promise; the event loop goes on meanwhile.
 * The pool has four threads unless UV_THREADPOOL_SIZE says otherwise, and files and name look-ups need it too: a
 * recorder or meter that is being read takes one of them.
 */

import type { Readable } from 'node:stream';

/** The base of all errors of this package. Where the library was heard to give its reason, the text is its log line. */
export class AudioError extends Error {}

/** The shared library cannot be loaded, or is another one. */
export class LibraryError extends AudioError {}

/** There is no such device, or PortAudio or the device refuses. */
export class OpenError extends AudioError {}

/** The device failed during a read. The object is still open: read again, or close it. */
export class ReadError extends AudioError {}

/** The object has been closed. */
export class ClosedError extends AudioError {}

/** The process has one of these, and a newer object took it over. */
export class ReplacedError extends AudioError {}

/**
 * Loads the shared library; without a call of yours the first object does.
 *
 * It is looked for at `file`, at the environment variable WRAPPER_AUDIO_LIBRARY, beside this package's index.js, and
 * where the system has its libraries. One that is named, by `file` or by the variable, is the only one tried.
 *
 * @throws {LibraryError} with all that was tried and what to install; or another one is loaded already
 */
export function load(file?: string): void;

// ---- Devices ----

/** One audio device of the machine. */
export interface Device {
  /** Names the device for Recorder and Meter. It may change when devices are plugged differently. */
  id: string;
  /** The name for people. */
  name: string;
  /** 'input' when the device can capture, otherwise 'output'. */
  kind: 'input' | 'output';
  /** Whether it is the default input device. */
  isDefault: boolean;
}

/**
 * Lists the machine's audio devices, outputs too.
 *
 * PortAudio looks for devices when the first object of the process opens and keeps the list until the last one is
 * closed. Bytes of a name that are no UTF-8 are replaced, and an id that had such bytes matches no device.
 */
export function devices(): Promise<Device[]>;

/** Whether capture is possible at all. */
export const Capability: {
  /** PortAudio does not start. */
  readonly NO_PORTAUDIO: 0;
  /** It does, but no device can capture. */
  readonly NO_INPUT: 1;
  /** At least one device can capture. */
  readonly INPUT: 3;
};
export type Capability = (typeof Capability)[keyof typeof Capability];

/** Tells whether PortAudio starts, and whether any device can capture. */
export function capability(): Promise<Capability>;

// ---- Recording ----

export interface RecorderOptions {
  /**
   * A device or its id; null or '' is the default input device. An id that matches none is reported on standard
   * error, and the default device is taken.
   */
  device?: Device | string | null;
  /**
   * Rate of the samples returned, in Hz; 16000 if not given. The device runs at its own default rate. Whole ratios such
   * as 48000 to 16000 are averaged, others interpolated, which aliases.
   */
  rate?: number;
  /** Neural noise suppression. The library skips it on devices whose default rate is not 48000 Hz. */
  denoise?: boolean;
  /**
   * Length of a block in milliseconds, 1 to 100, with denoise a multiple of 10. The default of 30 suits every host API;
   * PortAudio 19.6 garbles JACK devices at any other length.
   */
  blockMs?: number;
  /** Only chooses the microphone; open() takes it then. */
  armed?: boolean;
}

export interface BlockOptions {
  /** How much to record, rounded up to whole blocks; without a number, until the recorder is closed. */
  seconds?: number;
}

/**
 * A microphone: blocks of mono 16-bit samples, -32767 to 32767, at the rate you want.
 *
 * Calls on a recorder run one after the other, in the order in which they were made, so that a second read waits for
 * the first. Read without long pauses: PortAudio keeps at least 30 ms, and what it had to drop is lost without a word.
 *
 * Close it, also before a worker ends: the process would keep the device otherwise.
 */
export class Recorder implements AsyncIterable<Int16Array> {
  private constructor();

  /**
   * Takes the microphone. That may last a second, and longer while another stream of the process opens or closes.
   *
   * @throws {OpenError} with the library's reason
   */
  static open(options?: RecorderOptions): Promise<Recorder>;

  /** Rate of the samples returned, in Hz. */
  readonly rate: number;
  /** Length of a block in milliseconds. */
  readonly blockMs: number;
  /** Root mean square of the block read last, before clipping. */
  readonly rms: number;
  /** Largest magnitude in the block read last. */
  readonly peak: number;
  /** Whether close() has been called. */
  readonly closed: boolean;

  /** Takes the microphone, also after stop() or release(). After an OpenError it may be tried again. */
  open(): Promise<void>;
  /** Stops capturing but keeps the device; open() goes on. */
  stop(): Promise<void>;
  /** Gives the microphone back; open() takes it again. */
  release(): Promise<void>;

  /**
   * Waits for the next block of sound.
   *
   * @param ms  its length as for blockMs, which it is if not given
   * @throws {ReadError} when the device fails
   */
  read(ms?: number): Promise<Int16Array>;

  /** Iterates over blocks. Ends without an error when the recorder is closed meanwhile. */
  blocks(options?: BlockOptions): AsyncGenerator<Int16Array, void, void>;
  [Symbol.asyncIterator](): AsyncGenerator<Int16Array, void, void>;

  /**
   * The samples as a stream of bytes: signed 16-bit, little endian, mono. It reads a block or two ahead of who takes
   * them, and then waits. Destroying it leaves the recorder open.
   */
  stream(options?: BlockOptions): Readable;

  /**
   * Gives the device back once the read that is under way is over; reads that have not begun are rejected with
   * ClosedError. May be called again. It would wait for ever on a device that delivers nothing.
   */
  close(): Promise<void>;
  [Symbol.asyncDispose](): Promise<void>;
}

/** Linear amplitudes from 0 to 1 (full scale). */
export interface Level {
  peak: number;
  rms: number;
}

/** A light second way to listen to a microphone, for its level only. Close it as a recorder. */
export class Meter implements AsyncIterable<Level> {
  private constructor();

  /**
   * Opens a device, chosen as for Recorder, and starts to measure.
   *
   * @throws {OpenError} with the library's reason
   */
  static open(options?: Pick<RecorderOptions, 'device'>): Promise<Meter>;

  /** Whether close() has been called. */
  readonly closed: boolean;

  /** Waits for the next 30 ms of sound and measures them. After a ReadError the meter stays usable. */
  read(): Promise<Level>;
  /** Goes on until the meter is closed. */
  [Symbol.asyncIterator](): AsyncGenerator<Level, void, void>;

  /** As Recorder.close(). */
  close(): Promise<void>;
  [Symbol.asyncDispose](): Promise<void>;
}

// ---- Signal functions ----
//
// A block is a Float32Array of mono samples, full scale 1.0. All but Resampler work in place, and all return when they
// are done: they take microseconds.

/**
 * Converts blocks from one sample rate to another, by linear interpolation.
 *
 * Nothing is filtered, so that a lower rate aliases: 48000 to 16000 gives every third sample. Each block starts anew,
 * so that a stream converted in blocks is not the stream converted in one piece.
 */
export class Resampler {
  /** Rates in Hz, 1 to 768000. */
  constructor(inRate: number, outRate: number);
  /** Returns the block converted. The count is block.length * outRate / inRate, rounded down, or one less. */
  process(block: Float32Array): Float32Array;
  /** Frees it. May be called again. */
  close(): void;
  [Symbol.dispose](): void;
}

export interface BlockRate {
  /** Rate of the blocks, in Hz; 16000 if not given. */
  rate?: number;
}

/**
 * THE high-pass filter of the process, a second-order section against rumble and DC.
 *
 * The library has one, with one memory. Making a HighPass takes it over and puts it at rest; an older HighPass is then
 * of no use any more and throws ReplacedError. Workers share it too, and no lock keeps them apart: use it in one of
 * them.
 */
export class HighPass {
  /**
   * @param cutoffHz  corner frequency in Hz, above 0 and below rate / 2
   * @param q         quality factor, above 0; 0.707, the default, has no bump at the corner
   */
  constructor(cutoffHz: number, q?: number, options?: BlockRate);
  /** Filters a block in place, as the continuation of the block before. A NaN spoils all that follow. */
  process(block: Float32Array): void;
}

/**
 * THE automatic gain control of the process: steers the RMS level towards a target.
 *
 * The library has one, with one gain. Making a GainControl takes it over and puts the gain back to 1; an older
 * GainControl then throws ReplacedError. Workers share it as they share the high-pass.
 */
export class GainControl {
  /**
   * @param targetDb   the RMS level wanted, in dB against full scale; -20, the default, is an amplitude of 0.1
   * @param releaseMs  time constant of the gain, up and down alike, in milliseconds; 100 if not given, 0 lets it jump
   * @param options    a rate of 100 or more
   */
  constructor(targetDb?: number, releaseMs?: number, options?: BlockRate);
  /**
   * Multiplies a block by the gain, in place and in steps of 10 ms, for which the time constant holds.
   *
   * At most 20 dB up or down. Silence below -120 dB passes as it is. There is no limiter: the result may exceed 1. A
   * shorter rest counts as a step, so pass whole multiples of 10 ms.
   */
  process(block: Float32Array): void;
}

/**
 * Subtracts from each sample a share of the one before it, in place: y[i] = x[i] - coef * x[i - 1].
 *
 * @param coef  usually between 0 and 1. Nothing is remembered: the first sample of every block passes as it is.
 */
export function depop(block: Float32Array, coef: number): void;

/** 16-bit samples as floats: each divided by 32767. */
export function toFloat32(block: Int16Array): Float32Array;

/** Floats as 16-bit samples, as the library does it: times 32767, limited, rounded toward zero; NaN becomes 0. */
export function toInt16(block: Float32Array): Int16Array;

/** The process's signal-to-noise ratio in dB. Nothing feeds it in the library today, so it is -10 always. */
export function snr(): number;

/** The process's share of clipped samples. Nothing feeds it in the library today, so it is 0 always. */
export function clippingRatio(): number;

/** Freezes the process's estimate of the noise floor, or lets it go on and restarts the clipping statistics. */
export function freezeNoiseProfile(freeze?: boolean): void;

/** The library has no denoise statistics: always 0. */
export function denoiseStatistics(): number;
