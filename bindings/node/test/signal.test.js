'use strict';
const assert = require('node:assert');
const { test } = require('node:test');
const {
  ClosedError,
  GainControl,
  HighPass,
  ReplacedError,
  Resampler,
  clippingRatio,
  denoiseStatistics,
  depop,
  freezeNoiseProfile,
  snr,
  toFloat32,
  toInt16,
} = require('..');

const f = Math.fround;
const hum = (count) => Float32Array.from({ length: count }, (_, i) => 0.3 * Math.sin(i / 7) + 0.05 * Math.cos(i * 1.3));

// Both sides as floats of single precision, compared by their bits.
function assertSameBits(actual, expected) {
  assert.deepStrictEqual(new Uint32Array(actual.slice().buffer), new Uint32Array(Float32Array.from(expected).buffer));
}

test("the high-pass is the cookbook's, at the rate of the blocks", () => {
  const w0 = (2 * Math.PI * f(120 / 3)) / 16000;
  const alpha = Math.sin(w0) / (2 * f(0.707));
  const a0 = 1 + alpha;
  const [b0, b1] = [(0.5 * (Math.cos(w0) + 1)) / a0, -(Math.cos(w0) + 1) / a0];
  const [a1, a2] = [(-2 * Math.cos(w0)) / a0, (1 - alpha) / a0];
  let [z1, z2] = [0, 0];
  const expected = Array.from(hum(960), (x) => {
    const y = b0 * x + z1;
    z1 = b1 * x - a1 * y + z2;
    z2 = b0 * x - a2 * y;
    return y;
  });
  const block = hum(960);
  const filter = new HighPass(120, 0.707, { rate: 48000 });
  filter.process(block.subarray(0, 333));
  filter.process(block.subarray(333));
  assertSameBits(block, expected);
});

test('the gain control works in steps of 10 ms', () => {
  const release = f(Math.exp(-0.1));
  let gain = 1;
  const expected = Array.from({ length: 3 }, (_, step) => {
    const block = hum(480).subarray(step * 160, (step + 1) * 160);
    const rms = f(Math.sqrt(block.reduce((sum, x) => sum + f(x * x), 0) / 160));
    gain = f(f(gain * release) + f(f(1 - release) * f(f(0.1) / rms)));
    return Array.from(block, (x) => f(x * gain));
  }).flat();
  const block = hum(480);
  new GainControl(-20, 100).process(block);
  assertSameBits(block, expected);
});

test('de-pop subtracts a share of the sample before', () => {
  const block = hum(100);
  depop(block, 0.97);
  assertSameBits(
    block,
    Array.from(hum(100), (x, i) => (i === 0 ? x : x - f(f(0.97) * hum(100)[i - 1]))),
  );
});

test('the resampler interpolates', () => {
  const resampler = new Resampler(44100, 16000);
  const ratio = 44100 / 16000;
  const input = hum(441);
  const expected = Array.from({ length: 160 }, (_, i) => {
    const left = Math.floor(i * ratio);
    const share = i * ratio - left;
    return input[left] * (1 - share) + share * input[Math.min(left + 1, 440)];
  });
  assertSameBits(resampler.process(input), expected);
  assert.strictEqual(resampler.process(new Float32Array(0)).length, 0);
  assertSameBits(
    new Resampler(16000, 48000).process(Float32Array.of(0, 3)),
    [0, 1, 2, 3, 3, 3].map((x) => f(x)),
  );
  resampler.close();
  resampler.close();
  assert.throws(() => resampler.process(input), ClosedError);
});

test('an older filter or gain says that a newer one took over', () => {
  for (const kind of [() => new HighPass(100), () => new GainControl()]) {
    const older = kind();
    const newer = kind();
    const block = hum(160);
    assert.throws(() => older.process(block), ReplacedError);
    assertSameBits(block, hum(160));
    newer.process(block);
    assert.notDeepStrictEqual(block, hum(160));
  }
});

test('samples become floats and come back', () => {
  assertSameBits(toFloat32(Int16Array.of(-32767, 0, 100, 32767)), [-1, 0, 100 / 32767, 1]);
  const floats = Float32Array.of(-2, -1, -0.5, NaN, 0.99999, Infinity);
  assert.deepStrictEqual(toInt16(floats), Int16Array.of(-32767, -32767, -16383, 0, 32766, 32767));
});

test('the metrics are what nothing feeds', () => {
  freezeNoiseProfile();
  freezeNoiseProfile(false);
  assert.deepStrictEqual([snr(), clippingRatio(), denoiseStatistics()], [-10, 0, 0]);
});

test('wrong arguments are refused', () => {
  for (const block of [[0, 1], new Float64Array(2), new Int16Array(2), null]) {
    assert.throws(() => depop(block, 0.9), TypeError);
    assert.throws(() => new Resampler(1, 2).process(block), TypeError);
    assert.throws(() => new HighPass(100).process(block), TypeError);
    assert.throws(() => new GainControl().process(block), TypeError);
    assert.throws(() => toInt16(block), TypeError);
  }
  assert.throws(() => toFloat32(new Float32Array(1)), TypeError);
  assert.throws(() => new Resampler(0, 16000), RangeError);
  assert.throws(() => new HighPass(8000), RangeError);
  assert.throws(() => new HighPass(100, 0), RangeError);
  assert.throws(() => new GainControl(NaN), RangeError);
  assert.throws(() => new GainControl(-20, -1), RangeError);
});
