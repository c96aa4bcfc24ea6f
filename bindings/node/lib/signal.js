'use strict';
// Signal functions for Float32Arrays of mono samples, full scale 1.0. All but Resampler work in place.

const { checkRate, demandFloat32 } = require('./blocks');
const { AudioError, ClosedError, ReplacedError } = require('./errors');
const { loaded } = require('./library');

const DESIGN_RATE = 16000; // Hz; what the library's high-pass takes every buffer for

function checkFinite(name, value) {
  if (!Number.isFinite(value)) throw new RangeError(`${name} is ${value}; it must be a number`);
}

// ---- Resampler ----

const forgotten = new FinalizationRegistry((pointer) => loaded().resampler_free(pointer));

class Resampler {
  #pointer;
  #ratio;

  constructor(inRate, outRate) {
    checkRate(inRate);
    checkRate(outRate);
    this.#ratio = inRate / outRate;
    this.#pointer = loaded().resampler_init(inRate, outRate, 0);
    if (!this.#pointer) throw new AudioError('no memory for a resampler');
    forgotten.register(this, this.#pointer, this);
  }

  process(block) {
    demandFloat32(block);
    if (this.#pointer === null) throw new ClosedError('the resampler is closed');
    const converted = new Float32Array(Math.floor(block.length / this.#ratio) + 1);
    const count = loaded().resample(this.#pointer, block, block.length, converted, converted.length);
    if (count < 0) throw new RangeError(`${block.length} samples at a ratio of ${this.#ratio} are too many (${count})`);
    return converted.slice(0, count);
  }

  close() {
    if (this.#pointer === null) return;
    forgotten.unregister(this);
    loaded().resampler_free(this.#pointer);
    this.#pointer = null;
  }
}

if (Symbol.dispose) Resampler.prototype[Symbol.dispose] = Resampler.prototype.close;

// ---- Of these the process has one ----

let filterOwner = null;

class HighPass {
  constructor(cutoffHz, q = 0.707, { rate = 16000 } = {}) {
    checkRate(rate);
    if (!(cutoffHz > 0 && cutoffHz < rate / 2)) {
      throw new RangeError(`the corner is at ${cutoffHz} Hz; it must be above 0 and below ${rate / 2}`);
    }
    checkFinite('q', q);
    if (q <= 0) throw new RangeError(`q is ${q}; it must be above 0`);
    loaded().hpf_init((cutoffHz * DESIGN_RATE) / rate, q);
    filterOwner = this;
  }

  process(block) {
    demandFloat32(block);
    if (filterOwner !== this) {
      throw new ReplacedError('a newer HighPass took over the filter, of which the process has one');
    }
    loaded().hpf_process(null, block, block.length);
  }
}

let gainOwner = null;

class GainControl {
  #step;

  constructor(targetDb = -20, releaseMs = 100, { rate = 16000 } = {}) {
    checkRate(rate);
    if (rate < 100) throw new RangeError(`the rate is ${rate} Hz; it must be 100 or more`);
    checkFinite('targetDb', targetDb);
    checkFinite('releaseMs', releaseMs);
    if (releaseMs < 0) throw new RangeError(`releaseMs is ${releaseMs}; it must be 0 or more`);
    this.#step = Math.floor(rate / 100);
    loaded().agc_init(targetDb, releaseMs);
    gainOwner = this;
  }

  process(block) {
    demandFloat32(block);
    if (gainOwner !== this) {
      throw new ReplacedError('a newer GainControl took over the gain, of which the process has one');
    }
    for (let start = 0; start < block.length; start += this.#step) {
      const step = block.subarray(start, start + this.#step);
      loaded().agc_process(null, step, step.length);
    }
  }
}

function depop(block, coef) {
  demandFloat32(block);
  loaded().depop_process(null, block, block.length, coef);
}

// ---- The process's metrics ----

function snr() {
  return loaded().snr();
}

function clippingRatio() {
  return loaded().clipping_ratio();
}

function freezeNoiseProfile(freeze = true) {
  loaded().update_noise_profile(null, freeze ? 1 : 0);
}

function denoiseStatistics() {
  const answer = new Int32Array(1);
  loaded().denoise_stats(null, answer);
  return answer[0];
}

module.exports = {
  GainControl,
  HighPass,
  Resampler,
  clippingRatio,
  denoiseStatistics,
  depop,
  freezeNoiseProfile,
  snr,
};
