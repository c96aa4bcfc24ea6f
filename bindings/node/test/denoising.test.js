'use strict';
// Denoised recordings on devices of several rates, each in a process of its own, as ALSA reads its configuration once.
const assert = require('node:assert');
const { test } = require('node:test');
const { Converter, Denoiser, Recorder, toFloat32, toInt16 } = require('..');
const { heard, level, microphone, run, spoken } = require('./microphone');

const PAUSE = [5.35, 5.9]; // seconds in which nobody speaks
const SPEECH = [1, 5];
const RATE = 16000;

const samplesOf = (bytes) => new Int16Array(new Uint8Array(bytes).buffer);

/** A processor's whole output, for input in blocks of any length. */
function all(processor, samples) {
  const output = [];
  for (let i = 0; i < samples.length; i += 1000) output.push(...processor.process(samples.subarray(i, i + 1000)));
  return Float32Array.from([...output, ...processor.flush()]);
}

function assertDenoised(plain, denoised, rate) {
  const [before, after] = [plain, denoised].map((samples) => level(samples, rate, ...PAUSE));
  assert(after <= before - 30, `the pause is ${after.toFixed(1)} dB, and ${before.toFixed(1)} dB without denoising`);
  const [spoke, speaks] = [plain, denoised].map((samples) => level(samples, rate, ...SPEECH));
  assert(Math.abs(speaks - spoke) < 1.5, `the speech is ${speaks.toFixed(1)} dB, and was ${spoke.toFixed(1)} dB`);
}

for (const [rate, denoising] of [[48000, 'native'], [44100, 'converted'], [16000, 'converted']]) {
  test(`a pause is 30 dB down on a device of ${rate} Hz, ${denoising}`, async (t) => {
    const sound = rate === 48000 ? spoken : toInt16(all(new Converter(48000, rate), toFloat32(spoken)));
    const { code, stdout, stderr } = await run(
      `import { Recorder, devices } from 'wrapper-audio';
       const device = (await devices()).find(({ isDefault }) => isDefault);
       const record = async (denoise) => {
         const mic = await Recorder.open({ device, rate: ${RATE}, denoise });
         const chunks = await mic.stream({ seconds: 6 }).toArray();
         console.log(JSON.stringify([mic.deviceRate, mic.denoising, mic.dropped]));
         console.log(Buffer.concat(chunks).toString('base64'));
         await mic.close();
       };
       console.log(device.denoising);
       await record(false);
       await record(true);`,
      { env: microphone(t, sound, rate) },
    );
    assert.deepStrictEqual([code, stderr], [0, '']);
    const [told, off, first, on, second] = stdout.split('\n');
    const [plain, denoised] = [first, second].map((text) => samplesOf(Buffer.from(text, 'base64')));
    assert.strictEqual(told, denoising);
    assert.deepStrictEqual(JSON.parse(off), [rate, 'off', 0]);
    assert.deepStrictEqual(JSON.parse(on), [rate, denoising, 0]);
    assert.deepStrictEqual([plain.length, denoised.length], [6 * RATE, 6 * RATE]);
    assertDenoised(plain, denoised, RATE);
  });
}

test('one capture comes denoised and undenoised', async (t) => {
  const open = async (options) => {
    const mic = await Recorder.open({ rate: 44100, ...options });
    t.after(() => mic.close());
    return mic;
  };
  for (const format of ['int16', 'float32']) {
    const denoised = await (await open({ denoise: true, format })).read(44100);
    const raw = await (await open({ speech: true, format })).read(44100);
    const mic = await open({ denoise: true, undenoised: true, format });
    const first = await mic.readBoth(10);
    await mic.read(90);
    const rest = await mic.readBoth(44000, { timeout: 20000 });
    assert.strictEqual(mic.position, 100);
    assert.deepStrictEqual([first.denoised, rest.denoised], [denoised.slice(0, 10), denoised.slice(100)]);
    assert.deepStrictEqual([first.undenoised, rest.undenoised], [raw.slice(0, 10), raw.slice(100)]);
    assert.strictEqual((await mic.readBoth(0)).undenoised.length, 0);
    assert.strictEqual((await mic.readBoth()).undenoised.length, 1323);
    await mic.stop();
    while ((await mic.readBoth(44100)).denoised.length > 0);
  }
});

test('undenoised sound has to be asked for, with denoise', async (t) => {
  await assert.rejects(Recorder.open({ undenoised: true }), /RangeError: undenoised needs denoise/);
  const mic = await Recorder.open({ denoise: true });
  t.after(() => mic.close());
  await assert.rejects(mic.readBoth(), /RangeError: readBoth\(\) needs a recorder with undenoised/);
});

test("a recording is what the host's own chain makes of the sound", async () => {
  const mic = await Recorder.open({ denoise: true, blockMs: 100 });
  const chunks = await mic.stream({ seconds: 3 }).toArray();
  await mic.close();
  const recorded = samplesOf(Buffer.concat(chunks));
  const chain = toInt16(all(new Denoiser(48000, { outRate: 16000 }), toFloat32(heard)));
  assert.strictEqual(recorded.length, 48000);
  assert(recorded.every((sample, i) => Math.abs(sample - chain[i]) <= 1), 'the chain makes another sound');
});

for (const rate of [48000, 44100, 8000]) {
  test(`a denoiser quietens the pauses of a buffer at ${rate} Hz, by the share that is wanted`, () => {
    const plain = all(new Converter(48000, rate), toFloat32(spoken));
    const denoiser = new Denoiser(rate);
    const denoised = all(denoiser, plain);
    assert.strictEqual(denoised.length, plain.length);
    assertDenoised(toInt16(plain), toInt16(denoised), rate);
    assert(Math.abs(denoiser.speechProbabilities().length - 600) <= 1);
    const half = toInt16(all(new Denoiser(rate, { strength: 0.5 }), plain));
    const share = level(half, rate, ...PAUSE) - level(toInt16(plain), rate, ...PAUSE);
    assert(share < -5 && share > -7, `half of the noise is ${share.toFixed(1)} dB`);
  });
}
