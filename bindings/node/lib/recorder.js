'use strict';
// Recording, and the level meter.

const { Readable } = require('node:stream');
const { idOf } = require('./devices');
const { ClosedError, OpenError, ReadError } = require('./errors');
const { enums } = require('./interface');
const lib = require('./library');

const WAIT_MS = 200; // at most, so that files and other recorders get Node's threads meanwhile

const FORMATS = {
  int16: { Samples: Int16Array, read: 'recorder_read_s16' },
  float32: { Samples: Float32Array, read: 'recorder_read_f32' },
};

const NO_LEVELS = { clipped: 0, rms: 0, peak: 0, capturedRms: 0, capturedPeak: 0, speechProbability: -1 };
const NOTHING = { position: 0, count: 0, ...NO_LEVELS };

const forgotten = new FinalizationRegistry((pointer) => {
  process.emitWarning('a recorder was not closed; call its close()', 'ResourceWarning');
  lib.callOnThread('recorder_free', pointer).catch(() => {});
});

/** What is known about two consecutive pieces. */
function joined(a, b) {
  if (a.count === 0) return b;
  const count = a.count + b.count;
  const mean = (name) => Math.sqrt((a.count * a[name] ** 2 + b.count * b[name] ** 2) / count);
  const largest = (name) => Math.max(a[name], b[name]);
  return {
    position: a.position,
    count,
    clipped: a.clipped + b.clipped,
    rms: mean('rms'),
    peak: largest('peak'),
    capturedRms: mean('capturedRms'),
    capturedPeak: largest('capturedPeak'),
    speechProbability: largest('speechProbability'),
  };
}

/** Floats as a block of this kind. */
function fitted(floats, Samples) {
  if (Samples === Float32Array) return floats;
  const samples = new Samples(floats.length);
  lib.check(lib.call('f32_to_s16', floats, floats.length, samples));
  return samples;
}

const HEARING = [enums.Status.OK, enums.Status.TIMEOUT];

/** The utterances in a speech gate. */
class Spoken {
  #gate;
  #rate;
  #Samples;
  #pieces = []; // of the utterance that is being spoken
  #begin = 0;

  constructor(gate, rate, Samples) {
    this.#gate = gate;
    this.#rate = rate;
    this.#Samples = Samples;
  }

  /** Those that have ended. */
  *taken() {
    const room = new Float32Array(4096);
    for (let piece = { count: 1 }; piece.count > 0 || piece.ends; ) {
      piece = {};
      lib.call('speech_gate_take', this.#gate, room, room.length, piece);
      if (piece.begins) this.#begin = piece.position;
      this.#pieces.push(room.slice(0, piece.count));
      if (piece.ends) yield this.#whole(piece.position + piece.count);
    }
  }

  #whole(end) {
    const floats = new Float32Array(end - this.#begin);
    let at = 0;
    for (const piece of this.#pieces.splice(0)) {
      floats.set(piece, at);
      at += piece.length;
    }
    return { samples: fitted(floats, this.#Samples), start: this.#begin / this.#rate, end: end / this.#rate };
  }
}

class Recorder {
  #pointer;
  #hears;
  #keepsUndenoised;
  #id;
  #format;
  #blockMs;
  #info = {};
  #signal = new Int32Array(1);
  #onSignal;
  #told = 'unknown';
  #block = NOTHING;
  #failed = enums.Status.OK; // or why the last read returned fewer samples, which the next one throws
  #last = Promise.resolve();
  #closing = null;

  static async open({ armed = false, ...options } = {}) {
    const recorder = new Recorder(options);
    try {
      if (!armed) await recorder.open();
      return recorder;
    } catch (error) {
      await recorder.close();
      throw error;
    }
  }

  constructor({ device, rate = 16000, denoise = 0, speech = false, converter = 'clean', ...others } = {}) {
    const { format = 'int16', blockMs = 30, bufferMs = 0, stallMs = 0, undenoised = false, reconnect = false } = others;
    this.#onSignal = others.onSignal;
    lib.demandWholeNumbers({ rate, bufferMs, stallMs });
    if (!(blockMs > 0 && blockMs <= 60000)) {
      throw new RangeError(`blockMs is ${blockMs}; it must be above 0 and at most 60000`);
    }
    if (!Object.hasOwn(FORMATS, format)) throw new RangeError(`format is ${format}; it must be 'int16' or 'float32'`);
    const strength = typeof denoise === 'boolean' ? Number(denoise) : denoise;
    lib.demandNumbers({ denoise: strength });
    if (undenoised && strength === 0) throw new RangeError('undenoised needs denoise');
    this.#hears = strength > 0 || Boolean(speech);
    this.#keepsUndenoised = Boolean(undenoised);
    this.#id = idOf(device);
    this.#format = FORMATS[format];
    this.#blockMs = blockMs;
    this.#pointer = lib.make('recorder_create', {
      rate,
      denoise: strength,
      speech: Number(Boolean(speech)),
      conversion: lib.conversion(converter),
      bufferMs,
      stallMs,
      undenoised: Number(this.#keepsUndenoised),
      reconnect: Number(Boolean(reconnect)),
    });
    forgotten.register(this, this.#pointer, this);
  }

  // ---- Its state ----

  /** The library's info, and after close() the last one. */
  get #state() {
    if (!this.closed) lib.call('recorder_get_info', this.#pointer, this.#info);
    return this.#info;
  }

  get closed() { return this.#closing !== null; }
  get blockMs() { return this.#blockMs; }
  get rate() { return this.#state.rate; }
  get deviceRate() { return this.#state.deviceRate; }
  get denoising() { return lib.nameOf('Denoising', this.#state.denoising).toLowerCase(); }
  get signal() {
    if (!this.closed) lib.call('recorder_get_signal', this.#pointer, this.#signal);
    return lib.nameOf('Signal', this.#signal[0]).toLowerCase().replace('_', '-');
  }
  get delay() { return this.#state.delay; }
  get available() { return this.#state.available; }
  get dropped() { return this.#state.dropped; }
  get firstSampleTime() { return BigInt(this.#state.firstSampleTime) || null; }

  // ---- The last block read ----

  get position() { return this.#block.position; }
  get clipped() { return this.#block.clipped; }
  get rms() { return this.#block.rms; }
  get peak() { return this.#block.peak; }
  get capturedRms() { return this.#block.capturedRms; }
  get capturedPeak() { return this.#block.capturedPeak; }
  get speechProbability() { return this.#block.speechProbability; }

  speechProbabilities() {
    this.#demandOpen();
    return lib.speechTaken('recorder_take_speech', this.#pointer);
  }

  // ---- Recording ----

  #demandOpen() {
    if (this.closed) throw new ClosedError('the recorder is closed; create a new one');
  }

  /** Runs a task after those before it. */
  #inTurn(task) {
    const result = this.#last.then(() => {
      this.#demandOpen();
      return task();
    });
    this.#last = result.catch(() => {});
    return result;
  }

  #check(status, Kind) {
    const text = (kind) => lib.copied('recorder_get_text', this.#pointer, enums.RecorderTextKind[kind]);
    const failed = status < 0 && !['INVALID_STATE', 'INVALID_ARGUMENT'].includes(lib.nameOf('Status', status));
    return lib.check(status, failed ? { Kind, reason: text('REASON'), logLine: text('LOG_LINE') } : { Kind });
  }

  open() {
    return this.#inTurn(async () => {
      this.#failed = enums.Status.OK;
      const status = await lib.callOnThread('recorder_open', this.#pointer, this.#id);
      if (this.#check(status, OpenError) === 'STOPPED') {
        throw new ClosedError('the recorder was stopped while it was opening; call open() again');
      }
    });
  }

  async stop() {
    this.#demandOpen();
    const stopping = lib.callOnThread('recorder_stop', this.#pointer);
    this.#last = Promise.allSettled([this.#last, stopping]);
    const status = await stopping;
    if (status !== enums.Status.INVALID_STATE) this.#check(status);
  }

  async read(count = this.#blockLength, { timeout = Infinity } = {}) {
    const [samples] = await this.#read(this.#format.read, [this.#format.Samples], count, timeout);
    return samples;
  }

  async readBoth(count = this.#blockLength, { timeout = Infinity } = {}) {
    if (!this.#keepsUndenoised) throw new RangeError('readBoth() needs a recorder with undenoised');
    const both = await this.#read('recorder_read_both_f32', [Float32Array, Float32Array], count, timeout);
    const [denoised, undenoised] = both.map((floats) => fitted(floats, this.#format.Samples));
    return { denoised, undenoised };
  }

  /** Reads into blocks of these kinds, of the same length. */
  #read(name, kinds, count, timeout) {
    lib.demandWholeNumbers({ count });
    if (count < 0) throw new RangeError(`count is ${count}; it must be 0 or more`);
    if (typeof timeout !== 'number' || !(timeout >= 0)) {
      throw new RangeError(`timeout is ${timeout}; it must be 0 or more`);
    }
    return this.#inTurn(async () => {
      const before = this.#failed;
      this.#failed = enums.Status.OK;
      this.#check(before, ReadError);
      const blocks = kinds.map((Samples) => new Samples(count));
      const parts = (from, to) => blocks.map((block) => block.subarray(from, to));
      const end = performance.now() + timeout;
      let read = NOTHING;
      let status;
      do {
        const piece = {};
        const wait = Math.ceil(Math.max(0, Math.min(WAIT_MS, end - performance.now())));
        // The thread writes into our own memory; the caller could transfer his to a worker meanwhile.
        const rests = parts(read.count);
        status = await lib.callOnThread(name, this.#pointer, ...rests, rests[0].length, wait, piece);
        read = joined(read, piece);
        this.#tellSignal();
      } while (status === enums.Status.TIMEOUT && performance.now() < end && !this.closed);
      if (read.count === 0 && count > 0) {
        this.#demandOpen();
        this.#check(status, ReadError);
        return kinds.map((Samples) => new Samples(0));
      }
      if (status < 0) this.#failed = status;
      this.#block = read;
      return read.count < count ? blocks.map((block) => block.slice(0, read.count)) : blocks;
    });
  }

  #tellSignal() {
    const { signal } = this;
    if (signal === this.#told) return;
    this.#told = signal;
    this.#onSignal?.(signal);
  }

  get #blockLength() {
    return Math.max(1, Math.round((this.rate * this.#blockMs) / 1000));
  }

  async *blocks({ seconds = Infinity } = {}) {
    if (!(seconds >= 0)) throw new RangeError(`seconds is ${seconds}; it must be 0 or more`);
    for (let left = Math.round(seconds * this.rate), block; left > 0; left -= block.length) {
      try {
        block = await this.read(Math.min(left, this.#blockLength));
      } catch (error) {
        if (error instanceof ClosedError) return; // a normal end
        throw error;
      }
      if (block.length === 0) return;
      yield block;
    }
  }

  [Symbol.asyncIterator]() {
    return this.blocks();
  }

  async *utterances({ beginThreshold, endThreshold, minSpeechMs, hangOverMs, preRollMs, maxMs } = {}) {
    const options = {};
    lib.call('speech_defaults', options);
    const given = (values) => Object.fromEntries(Object.entries(values).filter(([, value]) => value !== undefined));
    const times = given({ minSpeechMs, hangOverMs, preRollMs, maxMs });
    const thresholds = given({ beginThreshold, endThreshold });
    lib.demandWholeNumbers(times);
    lib.demandNumbers(thresholds);
    this.#demandOpen();
    if (!this.#hears) throw new RangeError('utterances() needs a recorder with speech or denoise');
    const { rate } = this;
    const gate = lib.make('speech_gate_create', { ...options, rate, ...times, ...thresholds });
    try {
      const spoken = new Spoken(gate, rate, this.#format.Samples);
      for (let status = enums.Status.OK; HEARING.includes(status); ) {
        status = await this.#listen(gate, Math.ceil(rate / 10));
        if (!HEARING.includes(status)) lib.call('speech_gate_flush', gate);
        yield* spoken.taken();
        this.#check(status, ReadError);
      }
    } finally {
      lib.call('speech_gate_free', gate);
    }
  }

  /** Reads a little into a speech gate. A recorder that was closed counts as stopped, since this is a normal end. */
  async #listen(gate, count) {
    const block = {};
    try {
      const read = () => lib.callOnThread('recorder_read_gate', this.#pointer, gate, count, WAIT_MS, block);
      const status = await this.#inTurn(read);
      if (block.count > 0) this.#block = block;
      this.#tellSignal();
      return status;
    } catch (error) {
      if (error instanceof ClosedError) return enums.Status.STOPPED;
      throw error;
    }
  }

  /** The samples as bytes, little endian. It reads no more than one block ahead of its consumer. */
  stream(options) {
    const blocks = this.blocks(options);
    async function* bytes() {
      for await (const { buffer, byteOffset, byteLength } of blocks) yield Buffer.from(buffer, byteOffset, byteLength);
    }
    const highWaterMark = this.#blockLength * this.#format.Samples.BYTES_PER_ELEMENT;
    return Readable.from(bytes(), { objectMode: false, highWaterMark });
  }

  close() {
    void this.#state;
    void this.signal;
    this.#closing ??= this.#release();
    return this.#closing;
  }

  async #release() {
    forgotten.unregister(this);
    await lib.callOnThread('recorder_stop', this.#pointer); // a waiting read returns
    await this.#last;
    await lib.callOnThread('recorder_free', this.#pointer);
  }
}

class Meter {
  #recorder;

  static async open({ device } = {}) {
    return new Meter(await Recorder.open({ device, converter: 'linear' }));
  }

  constructor(recorder) {
    if (!(recorder instanceof Recorder)) throw new TypeError('use Meter.open() to create a meter');
    this.#recorder = recorder;
  }

  get closed() { return this.#recorder.closed; }
  get signal() { return this.#recorder.signal; }

  get #level() {
    const { capturedPeak: peak, capturedRms: rms, clipped } = this.#recorder;
    return { peak, rms, clipped };
  }

  async read() {
    await this.#recorder.read();
    return this.#level;
  }

  async *[Symbol.asyncIterator]() {
    for await (const _ of this.#recorder) yield this.#level;
  }

  close() {
    return this.#recorder.close();
  }
}

for (const { prototype } of [Recorder, Meter]) {
  if (Symbol.asyncDispose) prototype[Symbol.asyncDispose] = prototype.close;
}

module.exports = { Meter, Recorder };
