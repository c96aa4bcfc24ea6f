'use strict';
const assert = require('node:assert');
const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { Writable } = require('node:stream');
const { pipeline } = require('node:stream/promises');
const { test } = require('node:test');
const { setTimeout: wait } = require('node:timers/promises');
const { AudioError, ClosedError, Meter, OpenError, ReadError, Recorder } = require('..');
const { bytesOf, concatenated, heard, script } = require('./microphone');

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

test('a read returns the samples that were spoken, and their levels', async (t) => {
  const mic = await recorder(t, { rate: 48000, blockMs: 100 });
  const first = await mic.read();
  assert(first instanceof Int16Array);
  assert.deepStrictEqual(first, heard.slice(0, 4800));
  const peak = Math.max(...first.map(Math.abs)) / 32767;
  assert(Math.abs(mic.peak - peak) < 1 / 32767, `${mic.peak} is not ${peak}`);
  const rms = Math.sqrt(first.reduce((sum, sample) => sum + sample ** 2, 0) / first.length) / 32767;
  assert(Math.abs(mic.rms - rms) < 1 / 32767, `${mic.rms} is not ${rms}`);
  assert.deepStrictEqual(await mic.read(10), heard.slice(4800, 5280));
});

test('blocks have the length and the rate asked for, 30 ms at 16000 Hz by default', async (t) => {
  const mic = await recorder(t);
  assert.deepStrictEqual([mic.rate, mic.blockMs, (await mic.read()).length], [16000, 30, 480]);
  const odd = await recorder(t, { rate: 11025, blockMs: 7 });
  assert.strictEqual((await odd.read()).length, 77);
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
  assert.strictEqual(blocks.length, 6);
  assert.deepStrictEqual(concatenated(blocks), bytesOf(heard.slice(0, 28800)));
});

test('for await ends when the recorder is closed', async (t) => {
  const mic = await recorder(t);
  let count = 0;
  for await (const _ of mic) if (++count === 5) mic.close();
  assert.strictEqual(count, 5);
});

test('a stream into a file has every byte of the sound', async (t) => {
  const folder = fs.mkdtempSync(path.join(os.tmpdir(), 'wrapper audio '));
  t.after(() => fs.rmSync(folder, { recursive: true }));
  const mic = await recorder(t, { rate: 48000 });
  await pipeline(mic.stream({ seconds: 6 }), fs.createWriteStream(path.join(folder, 'speech.raw')));
  assert(fs.readFileSync(path.join(folder, 'speech.raw')).equals(bytesOf(heard)), 'the file is another sound');
});

test('denoised and at another rate it gives what the command-line host gives', async (t) => {
  const options = ['record', '--denoise', '--rate', '16000', '--seconds', '3', '-'];
  const expected = execFileSync(process.env.HOST, options, { stdio: ['ignore', 'pipe', 'ignore'] });
  const mic = await recorder(t, { rate: 16000, denoise: true, blockMs: 100 });
  const chunks = [];
  for await (const chunk of mic.stream({ seconds: 3 })) chunks.push(chunk);
  assert.strictEqual(expected.length, 96000);
  assert(Buffer.concat(chunks).equals(expected), 'the sounds differ');
});

test('a stream reads only a little further than its consumer', async (t) => {
  const mic = await recorder(t, { rate: 48000, blockMs: 10 });
  let reads = 0;
  const read = mic.read;
  mic.read = (ms) => (++reads, read.call(mic, ms));
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
  const begin = performance.now();
  for await (const block of mic.blocks({ seconds: 1 })) assert.strictEqual(block.length, 1600);
  const elapsed = performance.now() - begin;
  clearInterval(clock);
  t.diagnostic(`${elapsed.toFixed(0)} ms of reads: ${ticks} ticks, the longest pause ${longest.toFixed(1)} ms`);
  assert(elapsed > 950, `the reads took only ${elapsed} ms`);
  assert(ticks > 50, `only ${ticks} ticks of 5 ms, the longest ${longest} ms`);
});

test('closing waits for the read that is under way and turns the others away', async (t) => {
  script(t, { MICROPHONE_PACED: '1' });
  const mic = await recorder(t, { rate: 48000, blockMs: 100 });
  const order = [];
  const reads = [mic.read(), mic.read()];
  reads.forEach((read, index) =>
    read.then(
      () => order.push(`read ${index}`),
      () => order.push(`refused ${index}`),
    ),
  );
  await wait(30);
  const closing = mic.close().then(() => order.push('closed'));
  assert.strictEqual(mic.closed, true);
  assert.strictEqual(mic.close(), mic.close());
  assert.deepStrictEqual(await settled([...reads, closing, mic.read()]), [
    heard.slice(0, 4800),
    ClosedError,
    3,
    ClosedError,
  ]);
  assert.deepStrictEqual(order, ['read 0', 'refused 1', 'closed']);
});

test('stop, release and open again, in any order', async (t) => {
  const mic = await recorder(t, { rate: 48000, blockMs: 10, armed: true });
  await assert.rejects(mic.read(), new AudioError('the recorder has no microphone at the moment: open() takes it'));
  for (const pause of [() => mic.stop(), () => mic.release(), () => mic.stop().then(() => mic.release())]) {
    await mic.open();
    await mic.open();
    assert.deepStrictEqual(await mic.read(), heard.slice(0, 480), 'the file begins anew');
    assert.strictEqual(streams(), 1);
    await pause();
    await assert.rejects(mic.read(), AudioError);
  }
  assert.strictEqual(streams(), 0);
  await mic.open();
  await mic.close();
  assert.strictEqual(streams(), 0);
  assert.deepStrictEqual(await settled([mic.open(), mic.stop(), mic.release()]), Array(3).fill(ClosedError));
});

test("a device that refuses is an OpenError with the library's line", async (t) => {
  const mic = await recorder(t, { armed: true });
  script(t, { MICROPHONE_REFUSES: '1' });
  const line = '[audio_wrapper] open_input_stream ОШИБКА: Device unavailable (rate=48000)';
  await assert.rejects(Recorder.open(), new OpenError(line));
  await assert.rejects(mic.open(), new OpenError(line));
  await assert.rejects(
    Meter.open(),
    new OpenError('[audio_wrapper] meter_open: open_input_stream ОШИБКА: Device unavailable'),
  );
  delete process.env.MICROPHONE_REFUSES;
  await mic.open();
  assert.strictEqual((await mic.read()).length, 480);
});

test('a device that fails is a ReadError, and may recover', async (t) => {
  const mic = await recorder(t);
  const meter = await Meter.open();
  t.after(() => meter.close());
  script(t, { MICROPHONE_FAILS_AFTER: '0' });
  await assert.rejects(mic.read(), ReadError);
  await assert.rejects(mic.blocks().next(), ReadError);
  await assert.rejects(mic.stream().toArray(), ReadError);
  await assert.rejects(meter.read(), ReadError);
  delete process.env.MICROPHONE_FAILS_AFTER;
  assert.strictEqual((await mic.read()).length, 480);
  assert(await meter.read());
});

test('wrong arguments are refused before anything opens', async (t) => {
  for (const options of [
    { rate: 0 },
    { rate: 16000.5 },
    { rate: 1e9 },
    { blockMs: 0 },
    { blockMs: 101 },
    { blockMs: NaN },
  ]) {
    await assert.rejects(Recorder.open(options), RangeError, JSON.stringify(options));
  }
  await assert.rejects(Recorder.open({ denoise: true, blockMs: 25 }), RangeError);
  await assert.rejects(Recorder.open({ device: 7 }), TypeError);
  await assert.rejects(Recorder.open({ device: 'a\0b' }), TypeError);
  assert.throws(() => new Recorder(), TypeError);
  assert.throws(() => new Meter(), TypeError);
  const mic = await recorder(t);
  await assert.rejects(mic.read(101), RangeError);
  assert.throws(() => mic.blocks({ seconds: -1 }), RangeError);
});

test('a meter measures 30 ms at a time', async () => {
  const meter = await Meter.open({ device: 'ALSA:default' });
  const levels = [];
  for await (const level of meter) {
    levels.push(level);
    if (levels.length === 10) meter.close();
  }
  assert.strictEqual(levels.length, 10);
  levels.forEach(({ peak, rms }, index) => {
    const spoken = heard.slice(index * 1440, (index + 1) * 1440);
    assert(Math.abs(peak - Math.max(...spoken.map(Math.abs)) / 32767) < 1 / 16384, `block ${index}: ${peak}`);
    assert(rms > 0 && rms < peak, `block ${index}: ${rms}`);
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
