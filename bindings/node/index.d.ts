/**
 * Microphone capture as mono samples at the rate you want, with neural noise suppression on every device, a level
 * meter, a device list, and signal processors for your own buffers.
 *
 *     const recorder = await Recorder.open({ rate: 16000, denoise: true });
 *     for await (const block of recorder.blocks({ seconds: 5 })) console.log(block.length, recorder.peak);
 *     await recorder.close();
 *
 * 16-bit samples go from -32767 to 32767, and floats have full scale 1.0, which is the same. Levels are linear
 * amplitudes from 0 to 1, rates are in Hz, lengths in samples, times in milliseconds. An argument out of range throws a
 * RangeError.
 *
 * The library records on its own threads. Whatever may wait returns a promise and runs on a thread of Node's pool, for
 * at most a fifth of a second while it waits for sound; the event loop continues meanwhile. Nothing is printed.
 */

import type { Readable } from 'node:stream';

export {}; // what is not marked so stays private

/** The base of all errors of this package. The message says in English what happened and what to do. */
export class AudioError extends Error {
  /** The library's status, for programs; '' if the error is not the library's. */
  readonly status: Status;
  /** The line that the capture library logged about it, partly in Russian, or ''. */
  readonly logLine: string;
}
/** The shared library cannot be loaded, or is not the right one. */
export class LibraryError extends AudioError {}
/**
 * There is no audio system or no microphone, or the device refuses: another program has it ('DEVICE_BUSY'), this user may
 * not use it ('DEVICE_FORBIDDEN'), it was unplugged ('DEVICE_GONE'), or nobody knows ('DEVICE_REFUSED').
 * Or no device records what the computer plays ('NO_SYSTEM_SOUND').
 */
export class OpenError extends AudioError {}
/** No device has this id. The message lists the devices available. */
export class UnknownDeviceError extends OpenError {}
/** Several devices match. The message lists them. */
export class AmbiguousDeviceError extends OpenError {}
/** The device failed, is gone ('DEVICE_GONE') or delivers nothing ('NO_DATA', after which a read may succeed), or was never opened. */
export class ReadError extends AudioError {}
/** The object has been closed. */
export class ClosedError extends AudioError {}

export type Status =
  | '' | 'INVALID_STATE' | 'OUT_OF_MEMORY' | 'NO_AUDIO_SYSTEM' | 'NO_INPUT_DEVICE' | 'UNKNOWN_DEVICE'
  | 'AMBIGUOUS_DEVICE' | 'NOT_AN_INPUT' | 'DEVICE_REFUSED' | 'DEVICE_FAILED' | 'NO_DATA' | 'AUDIO_SYSTEM_STUCK'
  | 'DEVICE_BUSY' | 'DEVICE_FORBIDDEN' | 'DEVICE_GONE' | 'NO_SYSTEM_SOUND';

/**
 * Loads the shared library; if you do not call this, the first object does. The library is looked for at `file`, at the
 * path in the environment variable WRAPPER_AUDIO_LIBRARY, next to this package's index.js, and where the system keeps
 * its libraries. If `file` or the variable names one, no other is tried.
 *
 * @throws {LibraryError} with everything that was tried and what to install, or if a different one is already loaded
 */
export function load(file?: string): void;

// ---- Devices ----

/** How a device is denoised: at its own 48000 Hz, converted to 48000 Hz, or not at all. */
export type Denoising = 'native' | 'converted' | 'off';

/**
 * What a recorder hears: sound; or what nobody can be recorded with, exact zeros, a faint hiss below 0.001 of full scale,
 * or clipping all the time; or nothing, because the device delivers none, or is lost and waited for with `reconnect`. At
 * first it is unknown.
 */
export type Signal = 'unknown' | 'sound' | 'no-data' | 'zeros' | 'hiss' | 'clipping' | 'lost';

/** One audio device of the machine. */
export interface Device {
  /** What Recorder and Meter take. A byte that is not valid UTF-8 appears as U+DC00 plus the byte. */
  id: string;
  /** The name for display. */
  name: string;
  /** The audio API it belongs to, such as 'ALSA'. */
  hostApi: string;
  /** 'input' when the device can capture, otherwise 'output'. */
  kind: 'input' | 'output';
  /** Whether it is the default input device. */
  isDefault: boolean;
  defaultRate: number;
  inputChannels: number;
  outputChannels: number;
  /** How recording with denoise would work. */
  denoising: Denoising;
}

/** Lists the audio devices, outputs included. They are looked for again only while nothing in the process records. */
export function devices(): Promise<Device[]>;

/** Finds the one input device with this id or, if there is none, with this as a part of its id, ignoring case. */
export function findDevice(wanted: string): Promise<Device>;

/**
 * Finds the device that records what the computer plays: on PulseAudio and PipeWire, the monitor of the output that
 * programs play into unless they choose another.
 */
export function systemDevice(): Promise<Device>;

/** Whether capture is possible at all: PortAudio does not start, no device can capture, or one can. */
export const Capability: { readonly NO_PORTAUDIO: 0; readonly NO_INPUT: 1; readonly INPUT: 3 };
export type Capability = (typeof Capability)[keyof typeof Capability];
export function capability(): Promise<Capability>;

// ---- Recording ----

/** How rates are converted: without aliasing, or by means and linear interpolation, fast and without delay. */
export type Conversion = 'clean' | 'linear';

export interface RecorderOptions<Format extends SampleFormat = SampleFormat> {
  /** A device or its id; null or '' is the default input device. */
  device?: Device | string | null;
  /** Rate of the samples returned, 100 to 768000 Hz; 16000 if not given. The device runs at a rate of its own. */
  rate?: number;
  /** Neural noise suppression: true, or the share of the noise to remove, from 0 to 1. */
  denoise?: boolean | number;
  /** Keeps the sound as it is without denoising, too, for readBoth(). */
  undenoised?: boolean;
  /** Reports the probability of speech even without denoising. */
  speech?: boolean;
  converter?: Conversion;
  /** 'int16' if not given, for an Int16Array; 'float32' for a Float32Array, which may exceed full scale. */
  format?: Format;
  /** Length of a block; 30 if not given. */
  blockMs?: number;
  /** How much sound is kept for a program that reads late, 100 to 60000; 5000 if not given. */
  bufferMs?: number;
  /** How long a device may deliver nothing, twice that at first, before a read fails: 100 to 60000; 1500. */
  stallMs?: number;
  /**
   * Waits for a device that fails or is unplugged while recording, and goes on: what it did not deliver counts as dropped,
   * `signal` is 'lost' meanwhile, and reads wait or time out.
   */
  reconnect?: boolean;
  /**
   * Called when a read finds that `signal` has changed, while it waits every 0.2 s. What it throws, the read throws
   * instead of its samples.
   */
  onSignal?: (signal: Signal) => void;
  /** Does not open the microphone until open(). */
  armed?: boolean;
}

export type SampleFormat = 'int16' | 'float32';
type SamplesOf<Format extends SampleFormat> = Format extends 'float32' ? Float32Array : Int16Array;

export interface BlockOptions {
  /** How much to record; if not given, until the recorder is stopped or closed. */
  seconds?: number;
}

/** What counts as speech; wrapper_audio_recorder.h has the defaults. */
export interface SpeechOptions {
  /** The probability of speech with which an utterance begins. */
  beginThreshold?: number;
  /** Below this probability speech ends; 0 to beginThreshold. */
  endThreshold?: number;
  /** What is shorter is not speech; 0 to 10000. */
  minSpeechMs?: number;
  /** How long a pause must last to end an utterance, of which it remains a part; 0 to 60000. */
  hangOverMs?: number;
  /** How much sound before speech belongs to an utterance; 0 to 60000. */
  preRollMs?: number;
  /** The longest utterance, 100 to 3600000; 0: no limit. */
  maxMs?: number;
}

/** What somebody said, with the pause before and behind it; times are in seconds since the recorder was opened. */
export interface Utterance<Samples extends Int16Array | Float32Array = Int16Array> {
  samples: Samples;
  start: number;
  end: number;
}

/**
 * A microphone. Reads run one after the other, in the order in which they were called.
 *
 * Close it, also before a worker ends: otherwise the process keeps the device.
 */
export class Recorder<Samples extends Int16Array | Float32Array = Int16Array> implements AsyncIterable<Samples> {
  private constructor();

  /** Opens the microphone. */
  static open<Format extends SampleFormat = 'int16'>(
    options?: RecorderOptions<Format>,
  ): Promise<Recorder<SamplesOf<Format>>>;

  readonly closed: boolean;
  readonly blockMs: number;
  /** Rate of the samples returned. */
  readonly rate: number;
  /** Rate that the device runs at; 0 before it is opened. */
  readonly deviceRate: number;
  readonly denoising: Denoising;
  /** What has been heard in the last 2.5 s that were read. */
  readonly signal: Signal;
  /** The most samples by which the output lags behind the device. */
  readonly delay: number;
  /** Samples that a read would return at once. */
  readonly available: number;
  /** Samples lost so far, because the program read too late or in the system. */
  readonly dropped: number;
  /** When the first sample was captured, on the clock of process.hrtime.bigint(); null until it has arrived. */
  readonly firstSampleTime: bigint | null;

  // About the last block read:
  /** Position of its first sample since the opening, lost samples included. */
  readonly position: number;
  /** Samples from the device that were at full scale. */
  readonly clipped: number;
  readonly rms: number;
  readonly peak: number;
  /** The levels before noise suppression. */
  readonly capturedRms: number;
  readonly capturedPeak: number;
  /** The largest in the block, 0 to 1; -1 if unknown. */
  readonly speechProbability: number;

  /** Returns the probabilities of speech since the last call, one for each 10 ms read, oldest first. */
  speechProbabilities(): Float32Array;

  /** Opens the microphone, also after stop(): recording starts afresh, and what has not been read is lost. */
  open(): Promise<void>;
  /**
   * Releases the microphone, within a second. What was recorded before can still be read.
   *
   * @throws {AudioError} 'AUDIO_SYSTEM_STUCK' if the device hangs and its thread was abandoned
   */
  stop(): Promise<void>;

  /**
   * Waits for `count` samples, by default a block of `blockMs`, and returns them. It returns fewer when the time runs
   * out, the recorder is stopped or closed, or the device fails. Once everything before a stop has been read, it
   * returns none; once everything before a failure has been read, it throws.
   *
   * @throws {ReadError}
   */
  read(count?: number, options?: { timeout?: number }): Promise<Samples>;

  /**
   * Like read(), and returns the same samples without denoising, too: listeners want the first, and recognisers often
   * do better with the second. All other reads return denoised samples only. The recorder needs `undenoised`.
   *
   * @throws {ReadError}
   */
  readBoth(count?: number, options?: { timeout?: number }): Promise<{ denoised: Samples; undenoised: Samples }>;

  /** Iterates over blocks; the last may be shorter. Ends without an error if the recorder is stopped or closed. */
  blocks(options?: BlockOptions): AsyncGenerator<Samples, void, void>;
  [Symbol.asyncIterator](): AsyncGenerator<Samples, void, void>;

  /**
   * Iterates over what is spoken, until the recorder is stopped or closed; needs `speech`, for raw sound, or `denoise`.
   * What is read otherwise meanwhile is missing in the utterances.
   *
   * @throws {ReadError} after the utterance in which the device failed
   */
  utterances(options?: SpeechOptions): AsyncGenerator<Utterance<Samples>, void, void>;

  /**
   * The samples as a stream of bytes, little endian. It reads a block or two ahead of its consumer, and then waits.
   * Destroying it leaves the recorder open.
   */
  stream(options?: BlockOptions): Readable;

  /** Releases the device and ends a waiting read, within about a second. May be called again. */
  close(): Promise<void>;
  [Symbol.asyncDispose](): Promise<void>;
}

/** Linear amplitudes from 0 to 1 (full scale), and how many samples were at full scale. */
export interface Level {
  peak: number;
  rms: number;
  clipped: number;
}

/** The level of a microphone as captured, every 30 ms. Close it like a recorder. */
export class Meter implements AsyncIterable<Level> {
  private constructor();
  static open(options?: Pick<RecorderOptions, 'device'>): Promise<Meter>;
  readonly closed: boolean;
  readonly signal: Signal;
  read(): Promise<Level>;
  /** Continues until the meter is closed. */
  [Symbol.asyncIterator](): AsyncGenerator<Level, void, void>;
  close(): Promise<void>;
  [Symbol.asyncDispose](): Promise<void>;
}

/** Counts the threads that this process has abandoned in hanging devices, and that still hang there. */
export function abandonedThreads(): number;

/** Returns what the capture library and PortAudio logged since the last call, and what it means in English if known. */
export function logLines(): { line: string; english: string | null }[];
/** Turns copying of such lines to standard error on or off. */
export function logEcho(on?: boolean): void;

// ---- Signal processors ----

/**
 * A processor takes a stream of samples, full scale 1.0, in blocks of any length and returns a stream. It works on the
 * calling thread: for minutes of sound, use a worker.
 */
declare abstract class Processor {
  /** The most samples that it may hold back. */
  readonly delay: number;
  /** Takes a block and returns the samples that are ready. */
  process(block: Float32Array): Float32Array;
  /** Ends the stream and returns the samples still inside. The next block starts a new stream. */
  flush(): Float32Array;
  /** Discards everything inside and starts a new stream. */
  reset(): void;
  /** Frees it. May be called again. */
  close(): void;
  [Symbol.dispose](): void;
}

/** Converts rates, 100 to 768000 Hz. In all, it returns in * outRate / inRate samples; the delay is compensated. */
export class Converter extends Processor {
  constructor(inRate: number, outRate: number, options?: { converter?: Conversion });
}

/** Suppresses noise, at any rate; `strength` is the share of the noise to remove, 1 if not given. */
export class Denoiser extends Processor {
  constructor(rate: number, options?: { outRate?: number; strength?: number; converter?: Conversion });
  /** Returns the probabilities of speech since the last call, one for each 10 ms processed. */
  speechProbabilities(): Float32Array;
}

/** The rate of the samples, in Hz; 16000 if not given. */
export interface BlockRate {
  rate?: number;
}

/** A second-order section against rumble and DC: corner frequency below rate / 2; quality 0.05 to 50, 0.707 is flat. */
export class HighPass extends Processor {
  constructor(cutoffHz: number, q?: number, options?: BlockRate);
}

/**
 * Steers the RMS level towards -60 to 0 dB relative to full scale (-20 if not given), by 20 dB at most, with a time
 * constant of 0 to 60000 ms (100 if not given). There is no limiter: the result may exceed 1.
 */
export class GainControl extends Processor {
  constructor(targetDb?: number, releaseMs?: number, options?: BlockRate);
}

/**
 * Keeps peaks below a ceiling of -60 to 0 dB against full scale (default: -1). It looks 5 ms ahead, recovers with a time
 * constant of 0 to 60000 ms (default: 100), and passes what needs no limiting unchanged.
 */
export class Limiter extends Processor {
  constructor(ceilingDb?: number, releaseMs?: number, options?: BlockRate);
}

/** Subtracts from each sample a fraction, 0 to 1, of the previous one: y[i] = x[i] - coef * x[i - 1]. */
export class DePop extends Processor {
  constructor(coef: number);
}

/** 16-bit samples as floats: each divided by 32767. */
export function toFloat32(block: Int16Array): Float32Array;
/** Floats as 16-bit samples: times 32767, rounded to the nearest, limited; NaN becomes 0. */
export function toInt16(block: Float32Array): Int16Array;
