/**
 * Microphone capture as mono samples at the rate you want, with neural noise suppression on every device, a level
 * meter, a device list, and signal processors for your own buffers.
 *
 *     const recorder = await Recorder.open({ rate: 16000, denoise: true });
 *     for await (const block of recorder.blocks({ seconds: 5 })) console.log(block.length, recorder.peak);
 *     await recorder.close();
 *
 * 16-bit samples go from -32767 to 32767, and floats have full scale 1.0, which is the same. Levels are linear
 * amplitudes from 0 to 1, rates are in Hz, lengths in samples, times in milliseconds. An argument out of range is a
 * RangeError.
 *
 * The library records on threads of its own. Whatever may wait runs on a thread of Node's pool, a fifth of a second at
 * most where it waits for sound, and gives a promise; the event loop goes on meanwhile. Nothing is printed.
 */

import type { Readable } from 'node:stream';

export {}; // what is not marked so stays inside

/** The base of all errors of this package. The message is English, with the audio system's own words. */
export class AudioError extends Error {
  /** What went wrong, for programs; '' where it was not the library that said so. */
  readonly status: Status;
  /** The line that the capture library logged about it, or ''. */
  readonly logLine: string;
}
/** The shared library cannot be loaded, or is another one. */
export class LibraryError extends AudioError {}
/** There is no audio system or no microphone, or the device refuses. */
export class OpenError extends AudioError {}
/** No device has this id. The message lists those that there are. */
export class UnknownDeviceError extends OpenError {}
/** Several devices match. The message lists them. */
export class AmbiguousDeviceError extends OpenError {}
/** The device failed or delivers nothing ('NO_DATA', after which a read may succeed), or was never opened. */
export class ReadError extends AudioError {}
/** The object has been closed. */
export class ClosedError extends AudioError {}

export type Status =
  | '' | 'INVALID_STATE' | 'OUT_OF_MEMORY' | 'NO_AUDIO_SYSTEM' | 'NO_INPUT_DEVICE' | 'UNKNOWN_DEVICE'
  | 'AMBIGUOUS_DEVICE' | 'NOT_AN_INPUT' | 'DEVICE_REFUSED' | 'DEVICE_FAILED' | 'NO_DATA' | 'AUDIO_SYSTEM_STUCK';

/**
 * Loads the shared library; without a call of yours the first object does. It is looked for at `file`, at the
 * environment variable WRAPPER_AUDIO_LIBRARY, beside this package's index.js, and where the system has its libraries.
 * One that is named, by `file` or by the variable, is the only one tried.
 *
 * @throws {LibraryError} with all that was tried and what to install; or another one is loaded already
 */
export function load(file?: string): void;

// ---- Devices ----

/** How a device is denoised: at its own 48000 Hz, converted to 48000 Hz, or not. */
export type Denoising = 'native' | 'converted' | 'off';

/** One audio device of the machine. */
export interface Device {
  /** Names the device for Recorder and Meter. A byte that is no UTF-8 stands in it as U+DC00 and the byte. */
  id: string;
  /** The name for people. */
  name: string;
  /** The part of the system it belongs to, such as 'ALSA'. */
  hostApi: string;
  /** 'input' when the device can capture, otherwise 'output'. */
  kind: 'input' | 'output';
  /** Whether it is the default input device. */
  isDefault: boolean;
  defaultRate: number;
  inputChannels: number;
  outputChannels: number;
  /** What recording with denoise would do. */
  denoising: Denoising;
}

/** Lists the audio devices, outputs too. They are looked for anew only while nothing in the process records. */
export function devices(): Promise<Device[]>;

/** Finds the one input device whose id is this or, where none is, has this in it, in capitals or not. */
export function findDevice(wanted: string): Promise<Device>;

/** Whether capture is possible at all: PortAudio does not start, no device can capture, or one can. */
export const Capability: { readonly NO_PORTAUDIO: 0; readonly NO_INPUT: 1; readonly INPUT: 3 };
export type Capability = (typeof Capability)[keyof typeof Capability];
export function capability(): Promise<Capability>;

// ---- Recording ----

/** How rates are converted: so that nothing aliases, or by means and linear interpolation, quick and without delay. */
export type Conversion = 'clean' | 'linear';

export interface RecorderOptions<Format extends SampleFormat = SampleFormat> {
  /** A device or its id; null or '' is the default input device. */
  device?: Device | string | null;
  /** Rate of the samples returned, 100 to 768000 Hz; 16000 if not given. The device runs at a rate of its own. */
  rate?: number;
  /** Neural noise suppression: true, or the share of the noise to take away, from 0 to 1. */
  denoise?: boolean | number;
  /** Tells the probability of speech also where nothing is denoised. */
  speech?: boolean;
  converter?: Conversion;
  /** 'int16' if not given, for an Int16Array; 'float32' for a Float32Array, which may exceed full scale. */
  format?: Format;
  /** Length of a block; 30 if not given. */
  blockMs?: number;
  /** Sound that is kept for a program that reads late, 100 to 60000; 5000 if not given. */
  bufferMs?: number;
  /** A device that delivers nothing for so long, before its first sound twice, is an error: 100 to 60000; 1500. */
  stallMs?: number;
  /** Leaves the microphone alone until open(). */
  armed?: boolean;
}

export type SampleFormat = 'int16' | 'float32';
type SamplesOf<Format extends SampleFormat> = Format extends 'float32' ? Float32Array : Int16Array;

export interface BlockOptions {
  /** How much to record; without a number, until the recorder is stopped or closed. */
  seconds?: number;
}

/**
 * A microphone. Reads run one after the other, in the order in which they were asked for.
 *
 * Close it, also before a worker ends: the process would keep the device otherwise.
 */
export class Recorder<Samples extends Int16Array | Float32Array = Int16Array> implements AsyncIterable<Samples> {
  private constructor();

  /** Takes the microphone. */
  static open<Format extends SampleFormat = 'int16'>(
    options?: RecorderOptions<Format>,
  ): Promise<Recorder<SamplesOf<Format>>>;

  readonly closed: boolean;
  readonly blockMs: number;
  /** Rate of the samples returned. */
  readonly rate: number;
  /** Rate that the device runs at; 0 before it was opened. */
  readonly deviceRate: number;
  readonly denoising: Denoising;
  /** Samples by which the last one lags behind the device at most. */
  readonly delay: number;
  /** Samples that a read would return at once. */
  readonly available: number;
  /** Samples that were lost so far, because the program read too late. */
  readonly dropped: number;
  /** When the first sample was captured, on the clock of process.hrtime.bigint(); null before it has come. */
  readonly firstSampleTime: bigint | null;

  // Of the block read last:
  /** Its first sample, counted from the opening; those that were lost count too. */
  readonly position: number;
  /** Samples of the device that were at full scale. */
  readonly clipped: number;
  readonly rms: number;
  readonly peak: number;
  /** The levels before noise suppression. */
  readonly capturedRms: number;
  readonly capturedPeak: number;
  /** The largest in the block, 0 to 1; -1 when it is not known. */
  readonly speechProbability: number;

  /** Takes out the probabilities of speech, one for each 10 ms that was read, oldest first. */
  speechProbabilities(): Float32Array;

  /** Takes the microphone, also again after stop(): it begins anew, and what had not been read is lost. */
  open(): Promise<void>;
  /**
   * Gives the microphone back, within a second. What was recorded before can still be read.
   *
   * @throws {AudioError} 'AUDIO_SYSTEM_STUCK' when the device hangs and its thread was left behind
   */
  stop(): Promise<void>;

  /**
   * Waits until `count` samples have come; without a count, a block of `blockMs`. It returns fewer when the time runs
   * out, the recorder is stopped or closed, or the device fails. Once everything before a stop has been read, it
   * returns none; once everything before a failure has, it throws.
   *
   * @throws {ReadError}
   */
  read(count?: number, options?: { timeout?: number }): Promise<Samples>;

  /** Iterates over blocks; the last may be shorter. Ends without an error when the recorder is stopped or closed. */
  blocks(options?: BlockOptions): AsyncGenerator<Samples, void, void>;
  [Symbol.asyncIterator](): AsyncGenerator<Samples, void, void>;

  /**
   * The samples as a stream of bytes, little endian. It reads a block or two ahead of who takes them, and then waits.
   * Destroying it leaves the recorder open.
   */
  stream(options?: BlockOptions): Readable;

  /** Gives the device back and ends a read that waits, within about a second. May be called again. */
  close(): Promise<void>;
  [Symbol.asyncDispose](): Promise<void>;
}

/** Linear amplitudes from 0 to 1 (full scale), and how many samples were at full scale. */
export interface Level {
  peak: number;
  rms: number;
  clipped: number;
}

/** The level of a microphone, as the device gives it, every 30 ms. Close it as a recorder. */
export class Meter implements AsyncIterable<Level> {
  private constructor();
  static open(options?: Pick<RecorderOptions, 'device'>): Promise<Meter>;
  readonly closed: boolean;
  read(): Promise<Level>;
  /** Goes on until the meter is closed. */
  [Symbol.asyncIterator](): AsyncGenerator<Level, void, void>;
  close(): Promise<void>;
  [Symbol.asyncDispose](): Promise<void>;
}

/** Threads that this process has left behind in devices that hang, and that still hang there. */
export function abandonedThreads(): number;

/** Takes out what the capture library and PortAudio wrote, oldest first, and what it means where that is known. */
export function logLines(): { line: string; english: string | null }[];
/** Has such lines go to standard error as well. */
export function logEcho(on?: boolean): void;

// ---- Signal processors ----

/**
 * A processor takes a stream of samples, full scale 1.0, in blocks of any length and gives a stream back. It works on
 * the thread that calls it: put minutes of sound into a worker.
 */
declare abstract class Processor {
  /** The most samples that it may keep inside before it gives them. */
  readonly delay: number;
  /** Takes a block and gives what is ready. */
  process(block: Float32Array): Float32Array;
  /** Ends the stream and gives the rest; the processor is as new then. */
  flush(): Float32Array;
  /** Forgets everything that was put in. */
  reset(): void;
  /** Frees it. May be called again. */
  close(): void;
  [Symbol.dispose](): void;
}

/** Converts rates, 100 to 768000 Hz. In all it gives in * outRate / inRate samples; the delay is taken out. */
export class Converter extends Processor {
  constructor(inRate: number, outRate: number, options?: { converter?: Conversion });
}

/** Suppresses noise, at any rate; `strength` is the share of the noise that goes, 1 if not given. */
export class Denoiser extends Processor {
  constructor(rate: number, options?: { outRate?: number; strength?: number; converter?: Conversion });
  /** Takes out the probabilities of speech, one for each 10 ms. */
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
 * Steers the RMS level towards -60 to 0 dB against full scale (-20 if not given), by 20 dB at most, with a time
 * constant of 0 to 60000 ms (100). There is no limiter: the result may exceed 1.
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

/** Subtracts from each sample a share, 0 to 1, of the one before it: y[i] = x[i] - coef * x[i - 1]. */
export class DePop extends Processor {
  constructor(coef: number);
}

/** 16-bit samples as floats: each divided by 32767. */
export function toFloat32(block: Int16Array): Float32Array;
/** Floats as 16-bit samples: times 32767, rounded to the nearest, limited; NaN becomes 0. */
export function toInt16(block: Float32Array): Int16Array;
