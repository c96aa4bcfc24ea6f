'use strict';
const assert = require('node:assert');
const { test } = require('node:test');
const { Worker } = require('node:worker_threads');
const { Recorder } = require('..');
const { bytesOf, concatenated, heard, run } = require('./microphone');

function worker(program, workerData) {
  return new Worker(`const { parentPort, workerData } = require('node:worker_threads'); (async () => {${program}})()`, {
    eval: true,
    workerData: { folder: require.resolve('..'), ...workerData },
  });
}

test('three workers and the main thread record at once, and open and close meanwhile', async () => {
  const program = `
    const { Recorder } = require(workerData.folder);
    for (let round = 0; round < 3; ++round) {
      const mic = await Recorder.open({ rate: 48000, blockMs: 100 });
      const blocks = [];
      for await (const block of mic.blocks({ seconds: 0.5 })) blocks.push(block);
      await mic.close();
      parentPort.postMessage(blocks);
    }`;
  const workers = [1, 2, 3].map(() => worker(program));
  const received = [];
  const ended = workers.map((each) => {
    each.on('message', (blocks) => received.push(concatenated(blocks.map((block) => Int16Array.from(block)))));
    return new Promise((resolve, reject) => each.on('exit', resolve).on('error', reject));
  });
  const mic = await Recorder.open({ rate: 48000, blockMs: 100 });
  const ours = [];
  for await (const block of mic.blocks({ seconds: 0.5 })) ours.push(block);
  await mic.close();
  assert.deepStrictEqual(await Promise.all(ended), [0, 0, 0]);
  assert.strictEqual(received.length, 9);
  for (const sound of [concatenated(ours), ...received]) assert(sound.equals(bytesOf(heard.slice(0, 24000))));
});

// In processes of their own, which end by a signal where something is freed under a thread.
const MICROPHONE = `
  import { readFileSync, readdirSync, readlinkSync } from 'node:fs';
  import { Recorder } from 'wrapper-audio';
  import { setTimeout as wait } from 'node:timers/promises';
  import { Worker } from 'node:worker_threads';
  const reading = () => new Promise((resolve) => new Worker(\`
    const { parentPort } = require('node:worker_threads');
    require('wrapper-audio').Recorder.open({ blockMs: 100 }).then((mic) => {
      mic.read();
      parentPort.postMessage('reading');
    })\`, { eval: true, execArgv: [] }).once('message', function () { resolve(this); }));`;

test('a worker may be ended while it reads, and the library stays', async () => {
  const { code, signal, stdout, stderr } = await run(
    `${MICROPHONE}
     for (let i = 0; i < 3; ++i) await (await reading()).terminate();
     console.log(readFileSync('/proc/self/maps', 'utf8').includes('libwrapper_audio_recorder.so'));
     const mic = await Recorder.open();
     console.log((await mic.read()).length);
     await mic.close();`,
    { env: { MICROPHONE_PACED: '1' } },
  );
  assert.deepStrictEqual([code, signal, stdout], [0, null, 'true\n480\n'], stderr);
});

test('the process may end while a read is under way', async () => {
  for (const end of ['process.exit(3)', 'throw new Error("out")']) {
    const { code, signal, stderr } = await run(
      `${MICROPHONE}
       const mic = await Recorder.open({ blockMs: 100 });
       mic.read();
       await wait(20);
       ${end};`,
      { env: { MICROPHONE_PACED: '1' } },
    );
    assert.deepStrictEqual([code, signal], [end === 'process.exit(3)' ? 3 : 1, null], stderr);
  }
});

test('a recorder that is forgotten is closed with a warning', async () => {
  const { code, stdout, stderr } = await run(
    `${MICROPHONE}
     await (async () => void (await Recorder.open()))();
     for (let i = 0; i < 100 && !globalThis.warned; ++i) {
       process.once('warning', () => (globalThis.warned = true));
       gc();
       await wait(10);
     }
     await wait(500);
     const target = (fd) => { try { return readlinkSync('/proc/self/fd/' + fd); } catch { return ''; } };
     console.log(readdirSync('/proc/self/fd').filter((fd) => target(fd).endsWith('/microphone.f32')).length);`,
    { options: ['--expose-gc'] },
  );
  assert.deepStrictEqual([code, stdout], [0, '0\n'], stderr);
  assert.match(stderr, /ResourceWarning: a recorder was not closed/);
});
