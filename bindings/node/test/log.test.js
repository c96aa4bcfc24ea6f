'use strict';
const assert = require('node:assert');
const koffi = require('koffi');
const { test } = require('node:test');
const { overheard } = require('../lib/log');
const { run } = require('./microphone');

const program = koffi.load(null);
const fputs = program.func('int fputs(const char *text, void *stream)');
const stream = () => koffi.decode(program.symbol('stderr'), 'void *');
const say = (...lines) => overheard(async () => (lines.forEach((line) => fputs(`${line}\n`, stream())), 'done'));

test("the last line is heard if it is the library's, and only in its own call", async () => {
  const heard = ['done', '[audio_wrapper] нет'];
  assert.deepStrictEqual(await say('[audio_wrapper] a longer line before', '[audio_wrapper] нет'), heard);
  for (let i = 0; i < 3; ++i) assert.deepStrictEqual(await say(), ['done', null]);
  assert.deepStrictEqual(await say('[audio_wrapper] mine', 'somebody else'), ['done', null]);
  assert.deepStrictEqual(await say(`[audio_wrapper] ${'long '.repeat(2000)}`), ['done', null]);
  assert.deepStrictEqual(await say('[audio_wrapper] нет'), heard);
});

test("a task that fails leaves C's stderr as it was", async () => {
  const before = stream();
  await assert.rejects(
    overheard(() => Promise.reject(new Error(`other: ${stream() !== before}`))),
    /other: true/,
  );
  assert.strictEqual(stream(), before);
});

test('what is printed meanwhile arrives at once and in order, also when the process aborts', async () => {
  const { signal, stderr } = await run(
    `import koffi from 'koffi';
     import { overheard } from '../lib/log.js';
     const program = koffi.load(null);
     const fputs = program.func('int fputs(const char *, void *)');
     const say = (line) => fputs(line, koffi.decode(program.symbol('stderr'), 'void *'));
     const abort = program.func('void abort()');
     await overheard(async () => say('half a line, '));
     console.error('zero');
     overheard(async () => { say('one\\n'); console.error('two'); say('three\\n'); abort(); });`,
    { cwd: __dirname },
  );
  assert.strictEqual(signal, 'SIGABRT');
  assert.strictEqual(stderr, 'half a line, zero\none\ntwo\nthree\n');
});
