'use strict';
const assert = require('node:assert');
const { test } = require('node:test');
const { ClosedError, Converter, DePop, Denoiser, GainControl, HighPass, Limiter, toFloat32, toInt16 } = require('..');

const f = Math.fround;
const hum = (count) => Float32Array.from({ length: count }, (_, i) => 0.3 * Math.sin(i / 7) + 0.05 * Math.cos(i * 1.3));

function joined(...blocks) {
  return Float32Array.from(blocks.flatMap((block) => [...block]));
}

function assertNear(actual, expected, limit = 1e-6) {
  assert.strictEqual(actual.length, expected.length);
  const worst = Math.max(...Array.from(actual, (sample, i) => Math.abs(sample - expected[i])));
  assert(worst <= limit, `they differ by ${worst}`);
}

test("the high-pass is the cookbook's, at the rate of the blocks, and each has a state of its own", () => {
  const w0 = (2 * Math.PI * 120) / 48000;
  const alpha = Math.sin(w0) / (2 * 0.707);
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
  const filters = [1, 2].map(() => new HighPass(120, 0.707, { rate: 48000 }));
  const firsts = filters.map((filter) => filter.process(block.subarray(0, 333)));
  const seconds = filters.map((filter) => filter.process(block.subarray(333)));
  for (const i of [0, 1]) assertNear(joined(firsts[i], seconds[i]), expected);
  assert.deepStrictEqual(block, hum(960), 'the input stays');
  filters[0].reset();
  assert.deepStrictEqual(filters[0].process(block.subarray(0, 333)), firsts[0]);
  assert.strictEqual(filters[0].delay, 0);
});

test('the gain control works in steps of 10 ms, wherever the blocks end', () => {
  const release = Math.exp(-0.1);
  let gain = 1;
  const expected = Array.from({ length: 3 }, (_, step) => {
    const block = hum(480).subarray(step * 160, (step + 1) * 160);
    const rms = Math.sqrt(block.reduce((sum, x) => sum + x * x, 0) / 160);
    gain = gain * release + (1 - release) * (0.1 / rms);
    return Array.from(block, (x) => x * gain);
  }).flat();
  const control = new GainControl(-20, 100);
  const outputs = [0, 100, 250].map((begin, i) => control.process(hum(480).subarray(begin, [100, 250, 480][i])));
  assertNear(joined(...outputs, control.flush()), expected, 1e-5);
  assert(control.delay >= 159 && control.delay <= 160);
});

test('a limiter keeps peaks below its ceiling', () => {
  const peak = (samples) => samples.reduce((most, x) => Math.max(most, Math.abs(x)), 0);
  const limiter = new Limiter(-40, 50);
  const loud = joined(limiter.process(hum(4800)), limiter.flush());
  assertNear([peak(loud)], [0.01], 1e-4);
  assert.strictEqual(loud.length, 4800);
  assert.strictEqual(limiter.delay, 80);
});

test('de-pop subtracts a share of the sample before, also of the block before', () => {
  const depop = new DePop(0.97);
  const actual = joined(depop.process(hum(33)), depop.process(hum(100).subarray(33)), depop.flush());
  assertNear(actual, Array.from(hum(100), (x, i) => (i === 0 ? x : x - f(0.97) * hum(100)[i - 1])));
});

test('a converter gives the samples that the rates ask for, in blocks or in one piece', () => {
  for (const [inRate, outRate] of [[48000, 16000], [44100, 16000], [8000, 48000], [16000, 16000]]) {
    for (const converter of ['clean', 'linear']) {
      const make = () => new Converter(inRate, outRate, { converter });
      const sound = hum(inRate);
      const [whole, parts] = [make(), make()];
      const expected = joined(whole.process(sound), whole.flush());
      assert.strictEqual(expected.length, outRate, `${converter} from ${inRate} to ${outRate}`);
      const blocks = Array.from({ length: 48 }, (_, i) => parts.process(sound.subarray(i * 1000, (i + 1) * 1000)));
      assertNear(joined(...blocks, parts.flush()), expected, 1e-6);
      assert.strictEqual(whole.process(new Float32Array(0)).length, 0);
    }
  }
});

test('what would alias is gone', () => {
  const rms = (samples) => Math.sqrt(samples.reduce((sum, x) => sum + x * x, 0) / samples.length);
  for (const inRate of [44100, 48000]) {
    const tone = Float32Array.from({ length: inRate }, (_, i) => Math.sin((2 * Math.PI * 11000 * i) / inRate));
    const converter = new Converter(inRate, 16000);
    const rest = 20 * Math.log10(rms(joined(converter.process(tone), converter.flush()).slice(1600, -1600)));
    assert(rest < -90, `${rest} dB of 11 kHz are left at 16 kHz from ${inRate}`);
  }
});

test('a closed processor says so', () => {
  for (const processor of [new Converter(8000, 16000), new Denoiser(48000), new HighPass(80), new DePop(0.9)]) {
    processor.close();
    processor.close();
    assert.throws(() => processor.process(hum(10)), ClosedError);
    assert.throws(() => processor.flush(), ClosedError);
    assert.throws(() => processor.reset(), ClosedError);
    assert.throws(() => processor.delay, ClosedError);
  }
});

test('samples become floats and come back', () => {
  assert.deepStrictEqual(toFloat32(Int16Array.of(-32767, 0, 100, 32767)), Float32Array.of(-1, 0, 100 / 32767, 1));
  const floats = Float32Array.of(-2, -1, -0.5, NaN, 0.99999, Infinity);
  assert.deepStrictEqual(toInt16(floats), Int16Array.of(-32767, -32767, -16384, 0, 32767, 32767));
  const all = Int16Array.from({ length: 65535 }, (_, i) => i - 32767);
  assert.deepStrictEqual(toInt16(toFloat32(all)), all);
  assert.strictEqual(toFloat32(new Int16Array(0)).length, 0);
});

test('wrong arguments are refused', () => {
  for (const block of [[0, 1], new Float64Array(2), new Int16Array(2), null]) {
    for (const processor of [new DePop(0.9), new Converter(8000, 16000), new HighPass(100), new GainControl()]) {
      assert.throws(() => processor.process(block), TypeError);
    }
    assert.throws(() => toInt16(block), TypeError);
  }
  assert.throws(() => toFloat32(new Float32Array(1)), TypeError);
  for (const make of [
    () => new Converter(0, 16000),
    () => new Converter(48000, NaN),
    () => new Converter(48000, '16000'),
    () => new Converter(48000, 16000, { converter: 'best' }),
    () => new Denoiser(48000, { strength: 1.5 }),
    () => new Denoiser(48000, { strength: NaN }),
    () => new HighPass(8000),
    () => new HighPass(100, 0),
    () => new GainControl(NaN),
    () => new GainControl(-20, -1),
    () => new Limiter(0.1),
    () => new DePop(2),
  ])
    assert.throws(make, RangeError, String(make));
  assert.throws(() => new DePop('0.9'), TypeError);
  assert.throws(() => new HighPass(), TypeError);
});
