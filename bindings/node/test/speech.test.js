'use strict';
// Utterances, on a microphone that hears a voice from 0.8 s to 5.3 s.
const assert = require('node:assert');
const { test } = require('node:test');
const { ReadError, Recorder, toInt16 } = require('..');
const { heard, script } = require('./microphone');

async function recorder(t, options) {
  const opened = await Recorder.open(options);
  t.after(() => opened.close());
  return opened;
}

async function first(utterances) {
  for await (const utterance of utterances) return utterance;
  return undefined;
}

const near = (actual, expected) => assert(Math.abs(actual - expected) < 0.05, `${actual}, ${expected}`);

test('the first utterance has the raw samples of its time', async (t) => {
  for (const format of ['int16', 'float32']) {
    const mic = await recorder(t, { rate: 48000, speech: true, format });
    const { samples, start, end } = await first(mic.utterances({ hangOverMs: 500 }));
    near(start, 0.53);
    near(end, 5.78);
    const spoken = format === 'int16' ? samples : toInt16(samples);
    assert.deepStrictEqual(spoken, heard.slice(Math.round(start * 48000), Math.round(end * 48000)));
    assert(mic.position > 5 * 48000);
    await mic.close();
  }
});

test('denoised utterances are found at any rate', async (t) => {
  const mic = await recorder(t, { rate: 11025, denoise: true });
  const { samples, start, end } = await first(mic.utterances({ preRollMs: 100, hangOverMs: 500 }));
  near(start, 0.73);
  near(end, 5.78);
  assert.strictEqual(samples.length, Math.round((end - start) * 11025));
});

test('long utterances are cut without losing a sample, and a stop ends them with what was said', async (t) => {
  const mic = await recorder(t, { speech: true });
  const found = [];
  for await (const utterance of mic.utterances({ maxMs: 1000 })) {
    if (found.push(utterance) === 3) await mic.stop();
  }
  assert(found.length > 3);
  assert.deepStrictEqual(found.slice(0, 3).map(({ samples }) => samples.length), [16000, 16000, 16000]);
  for (let i = 1; i < 4; i++) assert.strictEqual(found[i].start, found[i - 1].end);
});

test('closing ends utterances without an error', async (t) => {
  const mic = await recorder(t, { speech: true });
  const utterances = mic.utterances({ maxMs: 1000 });
  const { value } = await utterances.next();
  const next = utterances.next();
  await mic.close();
  const { value: last } = await next;
  assert.strictEqual(last?.start ?? value.end, value.end);
  for await (const _ of utterances);
});

test('a failure comes after what was said', async (t) => {
  script(t, { MICROPHONE_FAILS_AFTER: '0' }); // reads of the whole process are counted
  const mic = await recorder(t, { speech: true });
  await assert.rejects(first(mic.utterances()), ReadError);
});

test('options that make no sense are refused', async (t) => {
  const deaf = await recorder(t);
  await assert.rejects(first(deaf.utterances()), /needs a recorder with speech or denoise/);
  const mic = await recorder(t, { speech: true, armed: true });
  for (const options of [
    { beginThreshold: 1.1 },
    { beginThreshold: 0.2, endThreshold: 0.3 },
    { endThreshold: NaN },
    { hangOverMs: -1 },
    { preRollMs: 60001 },
    { maxMs: 99 },
    { minSpeechMs: 1.5 },
  ]) {
    await assert.rejects(first(mic.utterances(options)), RangeError, JSON.stringify(options));
  }
  await assert.rejects(first(mic.utterances({ beginThreshold: '1' })), TypeError);
  await assert.rejects(first(mic.utterances()), { status: 'INVALID_STATE' });
});
