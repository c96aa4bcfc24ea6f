'use strict';
// Signal processors for blocks of floats, each with its own state, and conversion between 16-bit samples and floats.

const { types } = require('node:util');
const { ClosedError } = require('./errors');
const lib = require('./library');

const forgotten = new FinalizationRegistry((pointer) => lib.call('processor_free', pointer));

function demandFloat32(block) {
  if (!types.isFloat32Array(block)) throw new TypeError('the block must be a Float32Array');
}

function toFloat32(block) {
  if (!types.isInt16Array(block)) throw new TypeError('the block must be an Int16Array');
  const floats = new Float32Array(block.length);
  lib.check(lib.call('s16_to_f32', block, block.length, floats));
  return floats;
}

function toInt16(block) {
  demandFloat32(block);
  const samples = new Int16Array(block.length);
  lib.check(lib.call('f32_to_s16', block, block.length, samples));
  return samples;
}

class Processor {
  #pointer;
  #ratio;

  constructor(pointer, ratio = 1) {
    this.#pointer = pointer;
    this.#ratio = ratio;
    forgotten.register(this, pointer, this);
  }

  get #open() {
    if (this.#pointer === null) throw new ClosedError('the processor is closed; create a new one');
    return this.#pointer;
  }

  get delay() {
    return lib.call('processor_delay', this.#open);
  }

  process(block) {
    demandFloat32(block);
    return this.#taken(Math.ceil(block.length * this.#ratio), 'processor_process', block, block.length);
  }

  flush() {
    return this.#taken(0, 'processor_flush');
  }

  /** What a function returns: at most what it held back and what the input yields. */
  #taken(expected, name, ...input) {
    const out = new Float32Array(expected + this.delay + 1);
    const count = [0];
    lib.check(lib.call(name, this.#open, ...input, out, out.length, count));
    return out.slice(0, count[0]);
  }

  reset() {
    lib.check(lib.call('processor_reset', this.#open));
  }

  speechProbabilities() {
    return lib.speechTaken('processor_take_speech', this.#open);
  }

  close() {
    if (this.#pointer === null) return;
    forgotten.unregister(this);
    lib.call('processor_free', this.#pointer);
    this.#pointer = null;
  }
}

if (Symbol.dispose) Processor.prototype[Symbol.dispose] = Processor.prototype.close;

/** The chain of a recorder, of which these two are parts. */
class Voice extends Processor {
  constructor(inRate, outRate, denoise, speech, converter = 'clean') {
    lib.demandWholeNumbers({ inRate, outRate });
    lib.demandNumbers({ strength: denoise });
    const options = { inRate, outRate, denoise, speech, conversion: lib.conversion(converter) };
    super(lib.make('voice_create', options), outRate / inRate);
  }
}

class Converter extends Voice {
  constructor(inRate, outRate, { converter } = {}) {
    super(inRate, outRate, 0, 0, converter);
  }
}

class Denoiser extends Voice {
  constructor(rate, { outRate = rate, strength = 1, converter } = {}) {
    super(rate, outRate, strength, 1, converter);
  }
}

class HighPass extends Processor {
  constructor(cutoffHz, q = 0.707, { rate = 16000 } = {}) {
    lib.demandWholeNumbers({ rate });
    super(lib.make('high_pass_create', rate, cutoffHz, q));
  }
}

class GainControl extends Processor {
  constructor(targetDb = -20, releaseMs = 100, { rate = 16000 } = {}) {
    lib.demandWholeNumbers({ rate });
    super(lib.make('gain_control_create', rate, targetDb, releaseMs));
  }
}

class Limiter extends Processor {
  constructor(ceilingDb = -1, releaseMs = 100, { rate = 16000 } = {}) {
    lib.demandWholeNumbers({ rate });
    super(lib.make('limiter_create', rate, ceilingDb, releaseMs));
  }
}

class DePop extends Processor {
  constructor(coef) {
    super(lib.make('depop_create', coef));
  }
}

module.exports = { Converter, DePop, Denoiser, GainControl, HighPass, Limiter, toFloat32, toInt16 };
