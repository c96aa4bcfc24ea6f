'use strict';
// What a program of somebody else's meets: the types, the installed package, the README.
const assert = require('node:assert');
const { execFile } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const { test } = require('node:test');
const { promisify } = require('node:util');
const { temporary } = require('./microphone');

const folder = path.join(__dirname, '..');
const execute = promisify(execFile);

test('the types are right, strictly', async () => {
  const compiler = path.join(folder, 'node_modules', 'typescript', 'bin', 'tsc');
  const options = '--noEmit --strict --module node16 --target es2022 --lib es2022,esnext.disposable --types node';
  const files = [path.join(__dirname, 'types.ts'), path.join(folder, 'index.d.ts')];
  await execute(process.execPath, [compiler, ...options.split(' '), ...files], { cwd: folder }).catch(({ stdout }) =>
    assert.fail(stdout),
  );
});

test('the README installs it, and its program and that of the whole project record five seconds', async (t) => {
  const project = temporary(t);
  const readme = fs.readFileSync(path.join(folder, 'README.md'), 'utf8');
  const [, install] = /^ {4}(npm install .*) \.\/bindings\/node$/m.exec(readme);
  const [, program] = /```js\n([^]*?)```/.exec(readme);
  assert(program.trim().split('\n').filter(Boolean).length <= 10, 'the program has more than ten lines');

  fs.writeFileSync(path.join(project, 'package.json'), '{ "type": "module" }');
  const [npm, ...options] = install.split(' ');
  await execute(npm, [...options, folder, '--prefer-offline', '--no-audit', '--no-fund'], { cwd: project });
  const installed = path.join(project, 'node_modules', 'wrapper-audio');
  assert.deepStrictEqual(
    fs
      .readdirSync(installed)
      .filter((name) => name !== 'node_modules')
      .sort(),
    ['README.md', 'index.d.ts', 'index.js', 'lib', 'package.json'],
  );

  const [, shorter] = /```js\n([^]*?)```/.exec(fs.readFileSync(path.join(folder, '..', '..', 'README.md'), 'utf8'));
  for (const [source, devices] of [[program, ' {2}ALSA:filemic native\n\\* ALSA:default native\n'], [shorter, '']]) {
    fs.writeFileSync(path.join(project, 'program.js'), source);
    const { stdout } = await execute(process.execPath, ['program.js'], { cwd: project });
    assert.match(stdout, new RegExp(`^${devices}peak of the last block 0\\.\\d+\n$`));
    const speech = fs.readFileSync(path.join(project, 'speech.raw'));
    assert.strictEqual(speech.length, 5 * 16000 * 2);
    assert(speech.filter((byte) => byte !== 0).length > speech.length / 2, 'the speech is mostly zeros');
    fs.unlinkSync(path.join(project, 'speech.raw'));
  }

  fs.writeFileSync(path.join(project, 'required.cjs'), "console.log(typeof require('wrapper-audio').Recorder.open)");
  assert.strictEqual((await execute(process.execPath, ['required.cjs'], { cwd: project })).stdout, 'function\n');
});
