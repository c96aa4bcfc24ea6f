'use strict';
const assert = require('node:assert');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { Writable } = require('node:stream');
const { pipeline } = require('node:stream/promises');
const { test } = require('node:test');
const { setTimeout: wait } = require('node:timers/promises');
const { AudioError, ClosedError, Meter, OpenError, ReadError, Recorder, abandonedThreads, toFloat32 } = require('..');
const { bytesOf, concatenated, heard, microphone, run, script, temporary } = require('./microphone');

const settled = (promises) =>
  Promise.allSettled(promises).then((all) => all.map(({ value, reason }) => reason?.constructor ?? value));

/** How many streams of this process are open on the microphone. */
function streams() {
  const links = fs.readdirSync('/proc/self/fd').map((fd) => {
    try {
      return fs.readlinkSync(`/proc/self/fd/${fd}`);
    } catch {
      return ''; // the descriptor of the directory itself
    }
  });
  return links.filter((link) => link.endsWith('/microphone.f32')).length;
}

async function recorder(t, options) {
  const opened = await Recorder.open(options);
  t.after(() => opened.close());
  return opened;
}

async function took(task) {
  const begin = performance.now();
  await task();
  return performance.now() - begin;
}

const near = (actual, expected, text) => assert(Math.abs(actual - expected) < 1e-4, `${text}: ${actual}, ${expected}`);

test('a read returns the samples that were spoken, and their levels', async (t) => {
  const mic = await recorder(t, { rate: 48000, blockMs: 100 });
  const first = await mic.read();
  assert(first instanceof Int16Array);
  assert.deepStrictEqual(first, heard.slice(0, 4800));
  near(mic.peak, Math.max(...first.map(Math.abs)) / 32767, 'peak');
  near(mic.rms, Math.sqrt(first.reduce((sum, sample) => sum + sample ** 2, 0) / first.length) / 32767, 'rms');
  assert.strictEqual(mic.position, 0);
  assert.deepStrictEqual(await mic.read(481), heard.slice(4800, 5281));
  assert.strictEqual(mic.position, 4800);
  assert.deepStrictEqual(await mic.read(1), heard.slice(5281, 5282));
  assert.deepStrictEqual(await mic.read(0), new Int16Array(0));
});

test('a read that takes several pieces has the levels of the whole', async (t) => {
  script(t, { MICROPHONE_PACED: '1' });
  const mic = await recorder(t, { rate: 48000 });
  const sound = await mic.read(60000); // 1.25 s, in pieces of 0.2 s
  assert.deepStrictEqual(sound, heard.slice(0, 60000));
  near(mic.peak, sound.reduce((peak, sample) => Math.max(peak, Math.abs(sample)), 0) / 32767, 'peak');
  near(mic.rms, Math.sqrt(sound.reduce((sum, sample) => sum + sample ** 2, 0) / sound.length) / 32767, 'rms');
  near(mic.capturedPeak, mic.peak, 'captured peak');
  assert(Math.abs(mic.capturedRms / mic.rms - 1) < 0.1, `${mic.capturedRms} is far from ${mic.rms}`);
  assert.deepStrictEqual([mic.position, mic.dropped, mic.clipped, mic.speechProbability], [0, 0, 0, -1]);
});

test('blocks have the length and the rate asked for, 30 ms at 16000 Hz by default', async (t) => {
  const mic = await recorder(t);
  assert.deepStrictEqual([mic.rate, mic.blockMs, (await mic.read()).length], [16000, 30, 480]);
  const odd = await recorder(t, { rate: 11025, blockMs: 7.5 });
  assert.strictEqual((await odd.read()).length, 83);
});

test('it tells what it is doing', async (t) => {
  const mic = await recorder(t, { armed: true, denoise: true });
  assert.deepStrictEqual([mic.rate, mic.deviceRate, mic.firstSampleTime, mic.closed], [16000, 0, null, false]);
  const before = process.hrtime.bigint();
  await mic.open();
  await mic.read();
  assert.deepStrictEqual([mic.deviceRate, mic.denoising, mic.dropped], [48000, 'native', 0]);
  assert(mic.delay > 0 && mic.delay < 3200, `a delay of ${mic.delay}`);
  assert(mic.available >= 0);
  const after = process.hrtime.bigint();
  assert(before - 1_000_000_000n < mic.firstSampleTime && mic.firstSampleTime < after);
  await mic.close();
  assert.deepStrictEqual([mic.rate, mic.deviceRate, mic.denoising], [16000, 48000, 'native'], 'also afterwards');
});

for (const [signal, samples] of [['zeros', [0]], ['hiss', [33, -33]], ['sound', [34, -34]], ['clipping', [32767]]]) {
  test(`it tells what it hears: ${signal}`, async (t) => {
    const { code, stdout, stderr } = await run(
      `import { Meter, Recorder } from 'wrapper-audio';
       const mic = await Recorder.open({ armed: true });
       const told = [mic.signal];
       await mic.open();
       for (let i = 0; i < 249; ++i) await mic.read(160);
       told.push(mic.signal);
       await mic.read(160);
       told.push(mic.signal);
       await mic.close();
       told.push(mic.signal);
       const meter = await Meter.open();
       for (let i = 0; i < 84; ++i) await meter.read();
       told.push(meter.signal);
       await meter.close();
       console.log(JSON.stringify(told));`,
      { env: microphone(t, Int16Array.from({ length: 240000 }, (_, i) => samples[i % samples.length]), 48000) },
    );
    assert.deepStrictEqual([code, stderr], [0, '']);
    const before = signal === 'zeros' || signal === 'hiss' ? 'unknown' : 'sound';
    assert.deepStrictEqual(JSON.parse(stdout), ['unknown', before, signal, signal, signal]);
  });
}

test('floats are the same samples', async (t) => {
  const mic = await recorder(t, { rate: 48000, format: 'float32' });
  const floats = await mic.read(4800);
  assert(floats instanceof Float32Array);
  const expected = toFloat32(heard.slice(0, 4800));
  assert(floats.every((sample, i) => Math.abs(sample - expected[i]) < 1.01 / 32767));
  const [chunk] = await mic.stream().take(1).toArray();
  assert.strictEqual(chunk.length % 4, 0);
});

test('the probability of speech is told, one for each 10 ms', async (t) => {
  const mic = await recorder(t, { rate: 16000, denoise: 0.5 });
  const largest = [];
  for await (const _ of mic.blocks({ seconds: 3 })) largest.push(mic.speechProbability);
  const all = mic.speechProbabilities();
  assert(Math.abs(all.length - 300) <= 3, `${all.length} in 3 s`);
  assert(all.every((probability) => probability >= 0 && probability <= 1));
  near(Math.max(...largest), Math.max(...all), 'the largest');
  assert(Math.max(...all) > 0.8, 'somebody speaks');
  assert.strictEqual(mic.speechProbabilities().length, 0);
});

test('reads that are asked for at once come one after the other', async (t) => {
  const mic = await recorder(t, { rate: 48000, blockMs: 20 });
  const blocks = await Promise.all(Array.from({ length: 20 }, () => mic.read()));
  assert.deepStrictEqual(concatenated(blocks), bytesOf(heard.slice(0, 19200)));
});

test('for await goes through the sound, and leaving it leaves the recorder open', async (t) => {
  const mic = await recorder(t, { rate: 48000, blockMs: 100 });
  const blocks = [];
  for await (const block of mic) if (blocks.push(block) === 3) break;
  for await (const block of mic.blocks({ seconds: 0.25 })) blocks.push(block);
  assert.deepStrictEqual(blocks.map(({ length }) => length), [4800, 4800, 4800, 4800, 4800, 2400]);
  assert.deepStrictEqual(concatenated(blocks), bytesOf(heard.slice(0, 26400)));
});

test('for await ends when the recorder is closed, and when it is stopped with the rest', async (t) => {
  const mic = await recorder(t);
  let count = 0;
  for await (const _ of mic) if (++count === 5) mic.close();
  assert.strictEqual(count, 5);

  const stopped = await recorder(t, { rate: 48000, blockMs: 10 });
  await stopped.read();
  await stopped.stop();
  const rest = [];
  for await (const block of stopped) rest.push(block);
  const sound = concatenated(rest);
  assert(sound.equals(bytesOf(heard).subarray(960, 960 + sound.length)), 'the rest is another sound');
  assert.strictEqual((await stopped.read()).length, 0);
});

test('a stream into a file has every byte of the sound', async (t) => {
  const file = path.join(temporary(t), 'speech.raw');
  const mic = await recorder(t, { rate: 48000 });
  await pipeline(mic.stream({ seconds: 6 }), fs.createWriteStream(file));
  assert(fs.readFileSync(file).equals(bytesOf(heard)), 'the file is another sound');
});

test('a stream reads only a little further than its consumer', async (t) => {
  const mic = await recorder(t, { rate: 48000, blockMs: 10 });
  let reads = 0;
  const read = mic.read;
  mic.read = (count) => (++reads, read.call(mic, count));
  let taken = 0;
  const slow = new Writable({
    highWaterMark: 1,
    write(chunk, _, done) {
      taken += 1;
      setTimeout(done, 10);
    },
  });
  const stream = mic.stream();
  const ended = pipeline(stream, slow).catch((error) => error.code);
  await wait(500);
  assert(taken >= 5, `${taken} blocks were taken`);
  assert(reads <= taken + 4, `${reads} reads for ${taken} blocks`);
  stream.destroy();
  assert.strictEqual(await ended, 'ERR_STREAM_PREMATURE_CLOSE');
  assert.strictEqual((await mic.read()).length, 480, 'the recorder is still open');
});

test('the event loop goes on during a second of reads', async (t) => {
  script(t, { MICROPHONE_PACED: '1' });
  const mic = await recorder(t, { blockMs: 100 });
  let ticks = 0;
  let longest = 0;
  let last = performance.now();
  const clock = setInterval(() => {
    ticks += 1;
    longest = Math.max(longest, performance.now() - last);
    last = performance.now();
  }, 5);
  const elapsed = await took(async () => {
    for await (const block of mic.blocks({ seconds: 1 })) assert.strictEqual(block.length, 1600);
  });
  clearInterval(clock);
  t.diagnostic(`${elapsed.toFixed(0)} ms of reads: ${ticks} ticks, the longest pause ${longest.toFixed(1)} ms`);
  assert(elapsed > 900, `the reads took only ${elapsed} ms`);
  assert(ticks > 50, `only ${ticks} ticks of 5 ms, the longest ${longest} ms`);
});

test('more recorders than Node has threads leave room for files', async (t) => {
  script(t, { MICROPHONE_STALLS_AFTER: '0' });
  const mics = await Promise.all(Array.from({ length: 6 }, () => recorder(t, { stallMs: 60000 })));
  const reads = mics.map((mic) => mic.read(1600, { timeout: 2500 }));
  const elapsed = await took(() => fs.promises.stat('/'));
  assert(elapsed < 1500, `a file waited ${elapsed} ms`);
  assert.deepStrictEqual((await Promise.all(reads)).map(({ length }) => length), Array(6).fill(0));
  delete process.env.MICROPHONE_STALLS_AFTER;
  const closing = await took(() => Promise.all(mics.map((mic) => mic.close())));
  assert(closing < 4000, `closing took ${closing} ms`); // in two rounds on four threads
  assert(abandonedThreads() > 0, 'the threads hang in the device');
});

test('a read returns what has come when its time runs out', async (t) => {
  script(t, { MICROPHONE_PACED: '1' });
  const mic = await recorder(t, { rate: 48000 });
  let some;
  const elapsed = await took(async () => (some = await mic.read(480000, { timeout: 500 })));
  assert(elapsed > 490 && elapsed < 1500, `it took ${elapsed} ms`);
  assert(some.length > 9600 && some.length < 48000, `${some.length} samples`);
  assert.deepStrictEqual(some, heard.slice(0, some.length));
  const more = await mic.read(480000, { timeout: 0 });
  assert.deepStrictEqual(more, heard.slice(some.length, some.length + more.length));
});

test('a device that delivers nothing is an error after a while', async (t) => {
  script(t, { MICROPHONE_STALLS_AFTER: '0' });
  const mic = await recorder(t, { stallMs: 500 });
  const elapsed = await took(() =>
    assert.rejects(mic.read(), (error) => error instanceof ReadError && error.status === 'NO_DATA'),
  );
  assert(elapsed < 1500, `it took ${elapsed} ms`);
});

test('a device that falls silent gives what came before, and is an error then', async (t) => {
  script(t, { MICROPHONE_PACED: '1' });
  const mic = await recorder(t, { rate: 48000, stallMs: 1000 });
  const reading = mic.read(480000);
  await wait(300);
  script(t, { MICROPHONE_STALLS_AFTER: '0' });
  const some = await reading;
  assert(some.length > 4800 && some.length < 48000, `${some.length} samples`);
  assert.deepStrictEqual(some, heard.slice(0, some.length));
  const silent = (error) => error instanceof ReadError && error.status === 'NO_DATA';
  assert((await took(() => assert.rejects(mic.read(), silent))) < 200, 'the next read tells at once');
  assert((await took(() => assert.rejects(mic.read(), silent))) > 800, 'and the one after waits anew');
});

test('a device that comes back is recorded on if that is wanted', async (t) => {
  script(t, { MICROPHONE_PACED: '1' });
  const told = [];
  const onSignal = (signal) => told.push(signal);
  const mic = await recorder(t, { rate: 48000, reconnect: true, stallMs: 100, onSignal });
  await mic.read(48000);
  script(t, { MICROPHONE_FAILS_AFTER: '0' });
  for (let blocks = 0; mic.signal !== 'lost'; ++blocks) {
    assert(blocks < 100, 'it goes on');
    await wait(10);
  }
  assert((await mic.read(480000, { timeout: 300 })).length < 48000, 'what came before');
  const before = mic.dropped;
  delete process.env.MICROPHONE_FAILS_AFTER;
  assert.strictEqual((await mic.read(4800)).length, 4800);
  assert.notStrictEqual(mic.signal, 'lost');
  assert(mic.dropped > before && mic.dropped >= 48000 * 0.4, `${mic.dropped} are missing`);
  assert.deepStrictEqual(told, ['sound', 'lost', 'sound']);
});

test('closing ends a read that waits and turns the others away', async (t) => {
  script(t, { MICROPHONE_PACED: '1' });
  const mic = await recorder(t, { rate: 48000 });
  const reads = settled([mic.read(480000), mic.read()]);
  await wait(300);
  const elapsed = await took(async () => {
    const closing = mic.close();
    assert.strictEqual(mic.closed, true);
    assert.strictEqual(mic.close(), closing);
    await closing;
  });
  assert(elapsed < 1200, `it took ${elapsed} ms`);
  const [some, ...others] = [...(await reads), ...(await settled([mic.read(), mic.open(), mic.stop()]))];
  assert(some.length > 4800 && some.length < 48000, `${some.length} samples`);
  assert.deepStrictEqual(some, heard.slice(0, some.length));
  assert.deepStrictEqual(others, Array(4).fill(ClosedError));
  assert.throws(() => mic.speechProbabilities(), ClosedError);
});

test('a device that hangs holds nobody up', async (t) => {
  script(t, { MICROPHONE_STALLS_AFTER: '0' });
  const mic = await recorder(t);
  const reading = settled([mic.read()]);
  await wait(100);
  const closing = await took(() => mic.close());
  assert(closing < 1500, `closing took ${closing} ms`);
  assert.deepStrictEqual(await reading, [ClosedError]);

  const other = await recorder(t);
  const before = abandonedThreads();
  await wait(100);
  const stopping = await took(() => assert.rejects(other.stop(), { name: 'AudioError', status: 'AUDIO_SYSTEM_STUCK' }));
  assert(stopping < 1500, `stopping took ${stopping} ms`);
  assert.strictEqual(abandonedThreads(), before + 1);
});

test('stop and open again, in any order', async (t) => {
  const mic = await recorder(t, { rate: 48000, blockMs: 10, armed: true });
  await assert.rejects(mic.read(), (error) => error instanceof ReadError && error.status === 'INVALID_STATE');
  const before = streams(); // that hang
  for (let round = 0; round < 3; ++round) {
    await mic.open();
    await assert.rejects(mic.open(), (error) => error instanceof OpenError && error.status === 'INVALID_STATE');
    assert.deepStrictEqual(await mic.read(), heard.slice(0, 480), 'the file begins anew');
    assert.strictEqual(streams(), before + 1);
    await mic.stop();
    await mic.stop();
    assert.strictEqual(streams(), before);
  }
  await mic.open();
  await mic.close();
  assert.strictEqual(streams(), before);
});

test("a device that refuses is an OpenError, in English, with the capture library's line", async (t) => {
  const mic = await recorder(t, { armed: true });
  script(t, { MICROPHONE_REFUSES: '1' });
  for (const open of [() => Recorder.open(), () => mic.open(), () => Meter.open()]) {
    await assert.rejects(open(), (error) => {
      assert(error instanceof OpenError && error instanceof AudioError);
      assert.deepStrictEqual([error.name, error.status], ['OpenError', 'DEVICE_REFUSED']);
      assert.match(error.message, /^[\x20-\x7e\n]*Device unavailable[\x20-\x7e\n]*$/);
      assert.strictEqual(
        error.logLine,
        '[audio_wrapper] open_input_stream ОШИБКА: Device unavailable (rate=48000)',
      );
      return true;
    });
  }
  delete process.env.MICROPHONE_REFUSES;
  await mic.open();
  assert.strictEqual((await mic.read()).length, 480);
});

test('why a device refuses or fails is its status', async (t) => {
  for (const [code, status, advice] of [
    ['EBUSY', 'DEVICE_BUSY', /Close the other program/],
    ['EACCES', 'DEVICE_FORBIDDEN', /Let this user have it/],
    ['ENODEV', 'DEVICE_GONE', /Connect it/],
  ]) {
    script(t, { MICROPHONE_ANSWER: String(os.constants.errno[code]) });
    await assert.rejects(Recorder.open(), { name: 'OpenError', status, message: advice });
  }
  script(t, { MICROPHONE_FAILS_AFTER: '0' });
  const mic = await recorder(t);
  await assert.rejects(mic.read(), { name: 'ReadError', status: 'DEVICE_GONE', message: /Connect it/ });
});

test('a device that fails is a ReadError, after all that came before it', async (t) => {
  script(t, { MICROPHONE_FAILS_AFTER: '0' });
  const mic = await recorder(t);
  const meter = await Meter.open();
  t.after(() => meter.close());
  const failed = (error) => error instanceof ReadError && error.status === 'DEVICE_FAILED' && error.message !== '';
  await assert.rejects(mic.read(), failed);
  await assert.rejects(mic.blocks().next(), failed);
  await assert.rejects(mic.stream().toArray(), failed);
  await assert.rejects(meter.read(), failed);
  delete process.env.MICROPHONE_FAILS_AFTER;
  await mic.stop();
  await mic.open();
  assert.strictEqual((await mic.read()).length, 480);
});

test('wrong arguments are refused before anything opens', async (t) => {
  const wrong = [
    { rate: 0.5 },
    { rate: 99 },
    { rate: 16000.5 },
    { rate: 1e9 },
    { rate: 1e30 },
    { rate: '16000' },
    { blockMs: 0 },
    { blockMs: NaN },
    { denoise: -0.1 },
    { denoise: NaN },
    { bufferMs: 99 },
    { stallMs: 60001 },
    { converter: 'best' },
    { format: 'int8' },
    { format: 'toString' },
  ];
  await assert.rejects(Recorder.open({ rate: 99 }), /^RangeError: an argument is out of range: \{ rate: 99, /);
  for (const options of wrong) await assert.rejects(Recorder.open(options), RangeError, JSON.stringify(options));
  await assert.rejects(Recorder.open({ denoise: 'yes' }), TypeError);
  await assert.rejects(Recorder.open({ device: 7 }), TypeError);
  await assert.rejects(Recorder.open({ device: 'a\0b' }), TypeError);
  assert.throws(() => new Meter(), TypeError);
  const mic = await recorder(t, { armed: true });
  for (const count of [-1, 1.5, NaN, '10']) await assert.rejects(mic.read(count), RangeError, String(count));
  for (const timeout of [-1, NaN, '10']) await assert.rejects(mic.read(1, { timeout }), RangeError, String(timeout));
  await assert.rejects(mic.blocks({ seconds: -1 }).next(), RangeError);
});

test('a meter measures 30 ms at a time', async () => {
  const meter = await Meter.open({ device: 'ALSA:default' });
  const levels = [];
  for await (const level of meter) {
    levels.push(level);
    if (levels.length === 10) meter.close();
  }
  assert.strictEqual(levels.length, 10);
  levels.forEach(({ peak, rms, clipped }, index) => {
    const part = heard.slice(index * 1440, (index + 1) * 1440);
    near(peak, Math.max(...part.map(Math.abs)) / 32767, `peak of block ${index}`);
    near(rms, Math.sqrt(part.reduce((sum, sample) => sum + sample ** 2, 0) / 1440) / 32767, `rms of block ${index}`);
    assert.strictEqual(clipped, 0);
  });
  await meter.close();
  await assert.rejects(meter.read(), ClosedError);
});

test(
  'objects dispose of themselves',
  { skip: Symbol.asyncDispose ? false : 'this Node has no Symbol.asyncDispose' },
  async () => {
    const mic = await Recorder.open();
    await mic[Symbol.asyncDispose]();
    assert.strictEqual(mic.closed, true);
  },
);
