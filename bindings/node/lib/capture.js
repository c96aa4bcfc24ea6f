'use strict';
// Microphones: the list of devices, recording, and the level meter.

const koffi = require('koffi');
const { Readable } = require('node:stream');
const { checkRate } = require('./blocks');
const { AudioError, ClosedError, OpenError, ReadError } = require('./errors');
const { exclusively } = require('./exclusively');
const { loaded } = require('./library');
const { overheard } = require('./log');

const LONGEST_READ_MS = 100; // the library reads no more at once
const DENOISED_MS = 10; // and denoises in frames of this length

/** Runs a function of the library on a thread of Node's pool. */
function onThread(call, ...values) {
  return new Promise((resolve, reject) => {
    call.async(...values, (error, result) => (error ? reject(error) : resolve(result)));
  });
}

// ---- Devices ----

const Capability = Object.freeze({ NO_PORTAUDIO: 0, NO_INPUT: 1, INPUT: 3 });

async function capability() {
  return onThread(loaded().capabilities);
}

async function devices() {
  const library = loaded();
  const text = await onThread(library.list_devices_json);
  if (!text) throw new AudioError('no memory for the device list');
  const listed = koffi.decode.string(text);
  library.free_text(text);
  try {
    return JSON.parse(listed);
  } catch (cause) {
    throw new AudioError('the device list cannot be read; it is cut at 65535 bytes', { cause });
  }
}

function deviceId(device) {
  const id = device?.id ?? device ?? null;
  if (id !== null && typeof id !== 'string') throw new TypeError('a device is one of devices(), or its id');
  if (id?.includes('\0')) throw new TypeError('a device id has no NUL');
  return id;
}

// ---- What a recorder and a meter share ----

const ours = Symbol('made by open()');
const inTurn = Symbol('inTurn');

function free(release, pointer) {
  return exclusively(() => onThread(release, pointer));
}

const forgotten = new FinalizationRegistry(({ noun, release, pointer }) => {
  process.emitWarning(`a ${noun} was not closed`, 'ResourceWarning');
  free(release, pointer).catch(() => {});
});

/** A handle of the library. Calls on it run one after the other, in the order in which they were made. */
class Stream {
  #noun;
  #release;
  #pointer;
  #last = Promise.resolve();
  #closing = null;

  constructor(key, noun, release, pointer) {
    if (key !== ours) throw new TypeError(`a ${noun} is made by open()`);
    this.#noun = noun;
    this.#release = release;
    this.#pointer = pointer;
    forgotten.register(this, { noun, release, pointer }, this);
  }

  get closed() {
    return this.#closing !== null;
  }

  [inTurn](task) {
    const result = this.#last.then(() => {
      if (this.closed) throw new ClosedError(`the ${this.#noun} is closed`);
      return task(this.#pointer);
    });
    this.#last = result.catch(() => {});
    return result;
  }

  close() {
    if (this.#closing === null) {
      forgotten.unregister(this);
      this.#closing = this.#last.then(() => free(this.#release, this.#pointer));
    }
    return this.#closing;
  }
}

if (Symbol.asyncDispose) Stream.prototype[Symbol.asyncDispose] = Stream.prototype.close;

async function make(create, ...values) {
  const [pointer, reason] = await exclusively(() => overheard(() => onThread(create, ...values)));
  if (!pointer) throw new OpenError(reason ?? 'no stream opens; the reason was not heard and is on standard error');
  return pointer;
}

/** Until the stream is closed, which is a good end and no error. */
async function* untilClosed(stream, count = Infinity) {
  for (let done = 0; done < count; ++done) {
    let value;
    try {
      value = await stream.read();
    } catch (error) {
      if (error instanceof ClosedError) return;
      throw error;
    }
    yield value;
  }
}

// ---- The recorder ----

class Recorder extends Stream {
  #library;
  #rate;
  #denoise;
  #blockMs;
  #capturing;
  #mayBeStopped = false;
  #rms = new Float32Array(1);
  #peak = new Float32Array(1);
  #levels = { rms: 0, peak: 0 };

  static async open({ device = null, rate = 16000, denoise = false, blockMs = 30, armed = false } = {}) {
    checkRate(rate);
    Recorder.#checkLength(blockMs, denoise);
    const id = deviceId(device);
    const library = loaded();
    const pointer = await make(armed ? library.arm : library.init, rate, denoise ? 1 : 0, id);
    return new Recorder(ours, library, pointer, { rate, denoise, blockMs, armed });
  }

  constructor(key, library, pointer, { rate, denoise, blockMs, armed } = {}) {
    super(key, 'recorder', library?.free, pointer);
    this.#library = library;
    this.#rate = rate;
    this.#denoise = denoise;
    this.#blockMs = blockMs;
    this.#capturing = !armed;
  }

  static #checkLength(ms, denoise) {
    if (!Number.isInteger(ms) || ms < 1 || ms > LONGEST_READ_MS) {
      throw new RangeError(`the block is ${ms} ms long; it must be a whole number from 1 to ${LONGEST_READ_MS}`);
    }
    if (denoise && ms % DENOISED_MS !== 0) {
      throw new RangeError(`the block is ${ms} ms long; a denoised one must be a multiple of ${DENOISED_MS}`);
    }
  }

  get rate() {
    return this.#rate;
  }

  get blockMs() {
    return this.#blockMs;
  }

  get rms() {
    return this.#levels.rms;
  }

  get peak() {
    return this.#levels.peak;
  }

  open() {
    return this[inTurn]((pointer) =>
      exclusively(async () => {
        // Opened as it is, a stopped context would lose its stream.
        if (this.#mayBeStopped) await onThread(this.#library.release_stream, pointer);
        this.#mayBeStopped = false;
        const [result, reason] = await overheard(() => onThread(this.#library.open, pointer));
        if (result !== 0) throw new OpenError(reason ?? 'the device refuses; the reason is on standard error');
        this.#capturing = true;
      }),
    );
  }

  stop() {
    return this[inTurn](async (pointer) => {
      this.#capturing = false;
      this.#mayBeStopped = true;
      await onThread(this.#library.stop, pointer);
    });
  }

  release() {
    return this[inTurn]((pointer) =>
      exclusively(async () => {
        this.#capturing = false;
        await onThread(this.#library.release_stream, pointer);
        this.#mayBeStopped = false;
      }),
    );
  }

  async read(ms = this.#blockMs) {
    Recorder.#checkLength(ms, this.#denoise);
    return this[inTurn](async (pointer) => {
      if (!this.#capturing) throw new AudioError('the recorder has no microphone at the moment: open() takes it');
      // The thread writes into these arrays, which this function and the recorder keep until it has done so. None is
      // the caller's, who could hand its memory to a worker meanwhile.
      const block = new Int16Array(Math.max(1, Math.floor((this.#rate * ms) / 1000)));
      const [rms, peak] = [this.#rms, this.#peak];
      const count = await onThread(this.#library.read, pointer, ms, block, block.length, rms, peak);
      if (count < 0) throw new ReadError('the device failed: it went away or stopped; standard error has the reason');
      this.#levels = { rms: rms[0], peak: peak[0] };
      return count < block.length ? block.slice(0, count) : block;
    });
  }

  blocks({ seconds = Infinity } = {}) {
    if (!(seconds >= 0)) throw new RangeError(`seconds is ${seconds}; it must be 0 or more`);
    return untilClosed(this, Math.ceil((seconds * 1000) / this.#blockMs));
  }

  [Symbol.asyncIterator]() {
    return this.blocks();
  }

  /** The samples as bytes, little endian. It reads no further than one block ahead of who takes them. */
  stream(options) {
    const blocks = this.blocks(options);
    async function* bytes() {
      for await (const { buffer, byteOffset, byteLength } of blocks) yield Buffer.from(buffer, byteOffset, byteLength);
    }
    const highWaterMark = Math.max(1, Math.floor((this.#rate * this.#blockMs) / 1000)) * 2;
    return Readable.from(bytes(), { objectMode: false, highWaterMark });
  }
}

// ---- The meter ----

class Meter extends Stream {
  #library;
  #peak = new Float32Array(1);
  #rms = new Float32Array(1);

  static async open({ device = null } = {}) {
    const id = deviceId(device);
    const library = loaded();
    return new Meter(ours, library, await make(library.meter_open, id));
  }

  constructor(key, library, pointer) {
    super(key, 'meter', library?.meter_close, pointer);
    this.#library = library;
  }

  read() {
    return this[inTurn](async (pointer) => {
      const count = await onThread(this.#library.meter_read, pointer, this.#peak, this.#rms);
      if (count < 0) throw new ReadError('the device failed: it went away or stopped; standard error has the reason');
      return { peak: this.#peak[0], rms: this.#rms[0] };
    });
  }

  [Symbol.asyncIterator]() {
    return untilClosed(this);
  }
}

module.exports = { Capability, Meter, Recorder, capability, devices };
