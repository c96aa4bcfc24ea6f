'use strict';
const assert = require('node:assert');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { test } = require('node:test');
const { PROTOTYPES } = require('../lib/library');
const { ROOT, run } = require('./microphone');

const folder = path.join(__dirname, '..');
const read = (...names) => fs.readFileSync(path.join(...names), 'utf8');

const TRY = `import { depop } from 'wrapper-audio';
             try { depop(new Float32Array(1), 1); console.log('found'); }
             catch (error) { console.log(error.name + '\\n' + error.message); }`;

test("every signature is the header's", () => {
  const header = read(ROOT, 'wrapper_audio.h').replace(/\/\*[^]*?\*\//g, '');
  const declared = header.match(/^[a-z][^;{}#]*\bwrapper_audio_\w+\([^;]*\)\s*WRAPPER_AUDIO_NOEXCEPT;/gm).map((text) =>
    text
      .replace(/\s*WRAPPER_AUDIO_NOEXCEPT;/, '')
      .replace('WRAPPER_AUDIO_ANY_ARGUMENTS', '')
      .replace(/\s+/g, ' '),
  );
  assert.strictEqual(declared.length, 27);
  assert.deepStrictEqual(declared, PROTOTYPES);
});

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
    /^LibraryError\nthe library wrapper_audio was not found. Tried:\n {2}\/nowhere\/lib\.so: .*No such file/,
  );
  assert.match(stdout, /libwrapper-audio1[^]*WRAPPER_AUDIO_LIBRARY=[^]*librnnoise0/);
  assert.doesNotMatch(stdout, /libwrapper_audio\.so:/);
});

test('otherwise it is looked for beside the package and in the system', async (t) => {
  const copy = fs.mkdtempSync(path.join(os.tmpdir(), 'wrapper audio '));
  t.after(() => fs.rmSync(copy, { recursive: true }));
  for (const name of ['package.json', 'index.js', 'lib'])
    fs.cpSync(path.join(folder, name), path.join(copy, name), { recursive: true });
  fs.symlinkSync(path.join(folder, 'node_modules'), path.join(copy, 'node_modules'));

  const env = { WRAPPER_AUDIO_LIBRARY: '' };
  const library = fs.realpathSync(process.env.WRAPPER_AUDIO_LIBRARY);
  const system = path.join(copy, 'system');
  fs.mkdirSync(system);
  fs.copyFileSync(library, path.join(system, 'libwrapper_audio.so.1'));
  assert.strictEqual((await run(TRY, { env: { ...env, LD_LIBRARY_PATH: system }, cwd: copy })).stdout, 'found\n');

  fs.writeFileSync(path.join(copy, 'libwrapper_audio.so.1'), 'no library');
  fs.copyFileSync(library, path.join(copy, 'libwrapper_audio.so'));
  assert.strictEqual((await run(TRY, { env, cwd: copy })).stdout, 'found\n');

  fs.rmSync(path.join(copy, 'libwrapper_audio.so'));
  const { stdout } = await run(TRY, { env: { ...env, LD_LIBRARY_PATH: '' }, cwd: copy });
  if (stdout === 'found\n') return t.diagnostic('the system has the library installed');
  for (const tried of [
    `${copy}/libwrapper_audio.so.1: `,
    `${copy}/libwrapper_audio.so: `,
    ' libwrapper_audio.so.1: ',
    ' libwrapper_audio.so: ',
  ])
    assert(stdout.includes(tried), `${tried} is not in ${stdout}`);
});

test('load() names a library, once', async () => {
  const { code, stdout } = await run(
    `import { load, snr } from 'wrapper-audio';
     try { load('libc.so.6'); } catch (error) { console.log(String(error)); }
     load(process.argv[1]);
     load();
     load(process.argv[1]);
     console.log(snr());
     try { load('/another.so'); } catch (error) { console.log(String(error)); }`.replaceAll(
      'process.argv[1]',
      JSON.stringify(process.env.WRAPPER_AUDIO_LIBRARY),
    ),
    { env: { WRAPPER_AUDIO_LIBRARY: '/nowhere' } },
  );
  assert.strictEqual(code, 0);
  assert.deepStrictEqual(stdout.split('\n'), [
    'LibraryError: libc.so.6 is not wrapper_audio 1: it has no wrapper_audio_init',
    '-10',
    `LibraryError: ${process.env.WRAPPER_AUDIO_LIBRARY} is loaded already, so /another.so cannot be`,
    '',
  ]);
});

test('a program that has used koffi before may still denoise', async () => {
  const { code, signal, stdout, stderr } = await run(
    `import { createRequire } from 'node:module';
     const koffi = createRequire(process.cwd() + '/')('koffi'); // import would give a koffi with settings of its own
     koffi.load('libc.so.6');
     const { Recorder } = await import('wrapper-audio');
     const mic = await Recorder.open({ denoise: true });
     for await (const block of mic.blocks({ seconds: 1 })) console.log(block.length);
     await mic.close();
     console.log(koffi.config().async_stack_size);`,
  );
  assert.deepStrictEqual([code, signal, stdout], [0, null, `${'480\n'.repeat(34)}131072\n`], stderr);
});

test('less stack for calls on threads than a denoised read needs is refused', async () => {
  const { stdout } = await run(
    `import { createRequire } from 'node:module';
     const koffi = createRequire(process.cwd() + '/')('koffi');
     koffi.config({ async_stack_size: 65536 });
     koffi.load('libc.so.6');
     await import('wrapper-audio').then(({ load }) => load()).catch((error) => console.log(String(error)));`,
  );
  assert.strictEqual(stdout, 'LibraryError: koffi.config() gives calls on threads less than 128 KiB of stack\n');
});
