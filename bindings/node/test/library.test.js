'use strict';
const assert = require('node:assert');
const fs = require('node:fs');
const path = require('node:path');
const { test } = require('node:test');
const { run, temporary } = require('./microphone');

const folder = path.join(__dirname, '..');
const read = (...names) => fs.readFileSync(path.join(...names), 'utf8');

const TRY = `import { load } from 'wrapper-audio';
             try { load(); console.log('found'); }
             catch (error) { console.log(error.name + '\\n' + error.message); }`;

test('the types declare what the module has', () => {
  const declared = [...read(folder, 'index.d.ts').matchAll(/^export (?:class|function|const) (\w+)/gm)].map(
    ([, name]) => name,
  );
  assert.deepStrictEqual(declared.sort(), Object.keys(require('..')).sort());
});

test('the package file names no server', () => {
  const lock = JSON.parse(read(folder, 'package-lock.json'));
  for (const [name, entry] of Object.entries(lock.packages)) {
    assert.strictEqual(entry.resolved, undefined, name);
    if (name !== '') assert.match(entry.integrity, /^sha512-/, name);
  }
});

test('a library that is named is the only one tried', async () => {
  const { stdout } = await run(TRY, { env: { WRAPPER_AUDIO_LIBRARY: '/nowhere/lib.so' } });
  assert.match(
    stdout,
    /^LibraryError\nthe library wrapper_audio_recorder was not found. Tried:\n {2}\/nowhere\/lib\.so: .*No such file/,
  );
  assert.match(stdout, /libwrapper-audio1[^]*WRAPPER_AUDIO_LIBRARY=[^]*libsoxr0/);
  assert.doesNotMatch(stdout, / libwrapper_audio_recorder\.so\.1:/);
});

test('otherwise it is looked for in the package that carries it, beside this one and in the system', async (t) => {
  const copy = temporary(t);
  for (const name of ['package.json', 'index.js', 'lib'])
    fs.cpSync(path.join(folder, name), path.join(copy, name), { recursive: true });
  fs.symlinkSync(path.join(folder, 'node_modules'), path.join(copy, 'node_modules'));

  const env = { WRAPPER_AUDIO_LIBRARY: '' };
  const library = fs.realpathSync(process.env.WRAPPER_AUDIO_LIBRARY);
  const install = (place) => {
    for (const name of ['libwrapper_audio_recorder.so.1', 'libwrapper_audio.so.1'])
      fs.copyFileSync(path.join(path.dirname(library), name), path.join(place, name));
  };
  const system = path.join(copy, 'system');
  fs.mkdirSync(system);
  install(system);
  assert.strictEqual((await run(TRY, { env: { ...env, LD_LIBRARY_PATH: system }, cwd: copy })).stdout, 'found\n');

  install(copy);
  assert.strictEqual((await run(TRY, { env, cwd: copy })).stdout, 'found\n');

  const beside = path.join(copy, 'libwrapper_audio_recorder.so.1');
  fs.writeFileSync(beside, 'no library');
  const { stdout } = await run(TRY, { env: { ...env, LD_LIBRARY_PATH: '' }, cwd: copy });
  if (stdout === 'found\n') return t.diagnostic('the system has the library installed');
  for (const tried of [`${beside}: `, ' libwrapper_audio_recorder.so.1: ']) {
    assert(stdout.includes(tried), `${tried} is not in ${stdout}`);
  }

  const carrying = path.join(copy, 'lib', 'node_modules', `wrapper-audio-${process.platform}-${process.arch}`);
  fs.mkdirSync(carrying, { recursive: true });
  install(carrying);
  assert.strictEqual((await run(TRY, { env: { ...env, LD_LIBRARY_PATH: '' }, cwd: copy })).stdout, 'found\n');
  fs.writeFileSync(path.join(carrying, 'libwrapper_audio_recorder.so.1'), 'no library');
  const [, first] = /Tried:\n {2}(.*?): /.exec((await run(TRY, { env, cwd: copy })).stdout);
  assert.strictEqual(first, path.join(carrying, 'libwrapper_audio_recorder.so.1'));
});

test('load() names a library, once', async () => {
  const { code, stdout } = await run(
    `import { load, abandonedThreads } from 'wrapper-audio';
     try { load('libc.so.6'); } catch (error) { console.log(String(error)); }
     load(process.argv[1]);
     load();
     load(process.argv[1]);
     console.log(abandonedThreads());
     try { load('/another.so'); } catch (error) { console.log(String(error)); }`.replaceAll(
      'process.argv[1]',
      JSON.stringify(process.env.WRAPPER_AUDIO_LIBRARY),
    ),
    { env: { WRAPPER_AUDIO_LIBRARY: '/nowhere' } },
  );
  assert.strictEqual(code, 0);
  assert.deepStrictEqual(stdout.split('\n'), [
    'LibraryError: libc.so.6 is not libwrapper_audio_recorder.so.1: it lacks wrapper_audio_status_text.' +
      ' Name the right file',
    '0',
    `LibraryError: ${process.env.WRAPPER_AUDIO_LIBRARY} is already loaded, so /another.so cannot be.` +
      ' Call load() before anything else',
    '',
  ]);
});

test('a program that has used koffi before may still denoise', async () => {
  const { code, signal, stdout, stderr } = await run(
    `import { createRequire } from 'node:module';
     const koffi = createRequire(process.cwd() + '/')('koffi'); // import would give a koffi with settings of its own
     koffi.load('libc.so.6');
     koffi.struct('wrapper_audio_block', { count: 'int' });
     const { Recorder } = await import('wrapper-audio');
     const mic = await Recorder.open({ denoise: true });
     for await (const block of mic.blocks({ seconds: 1 })) console.log(block.length);
     await mic.close();`,
  );
  assert.deepStrictEqual([code, signal, stdout], [0, null, `${'480\n'.repeat(33)}160\n`], stderr);
});

test('nothing is printed, and the log is there for who wants it', async () => {
  const program = `import { Meter, Recorder, devices, logEcho, logLines } from 'wrapper-audio';
    if (process.env.ECHO) logEcho();
    await devices();
    const mic = await Recorder.open({ denoise: true });
    await mic.read();
    await mic.stop();
    await mic.close();
    await Recorder.open({ device: 'nobody' }).catch(() => {});
    const meter = await Meter.open();
    await meter.close();
    process.env.MICROPHONE_REFUSES = '1';
    await Recorder.open().catch(() => {});
    console.log(JSON.stringify([logLines(), logLines()]));`;
  const { code, stdout, stderr } = await run(program);
  assert.deepStrictEqual([code, stderr], [0, '']);
  const [lines, none] = JSON.parse(stdout);
  assert.deepStrictEqual(none, []);
  const refused = lines.find(({ line }) => line.startsWith('[audio_wrapper] open_input_stream ОШИБКА: '));
  assert.match(refused.english, /^[\x20-\x7e]+$/);
  assert(lines.every(({ line, english }) => line.startsWith('[audio_wrapper]') === (english !== null)), stdout);

  const echoed = await run(program, { env: { ECHO: '1' } });
  assert(echoed.stderr.includes(`${refused.line}\n`), echoed.stderr);
});
