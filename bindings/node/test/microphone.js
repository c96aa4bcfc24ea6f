'use strict';
// What the tests share: the sound that the microphone of run.sh hears, and programs that run beside.

const { execFile } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');

const ROOT = path.join(__dirname, '..', '..', '..');
const SPEECH = path.join(ROOT, 'tests', 'data', 'speech_in_noise_48k.raw');

const bytes = fs.readFileSync(SPEECH);
const spoken = new Int16Array(bytes.buffer, bytes.byteOffset, bytes.length / 2);

/** The file's samples as a recorder at 48000 Hz returns them: once a share of 32768, then of 32767, toward zero. */
const heard = Int16Array.from(spoken, (sample) => Math.fround((sample / 32768) * 32767));

function bytesOf({ buffer, byteOffset, byteLength }) {
  return Buffer.from(buffer, byteOffset, byteLength);
}

function concatenated(blocks) {
  return bytesOf(Int16Array.from(blocks.flatMap((block) => [...block])));
}

/** Sets variables of tests/tool/scripted_microphone.cpp, which reads them at each call, until the test is over. */
function script(test, variables) {
  Object.assign(process.env, variables);
  test.after(() => Object.keys(variables).forEach((name) => delete process.env[name]));
}

/** Runs a program of JavaScript text in this folder: { code, signal, stdout, stderr }. */
function run(program, { options = [], env = {}, cwd = path.join(__dirname, '..') } = {}) {
  return new Promise((resolve) => {
    const child = ['--input-type=module', ...options, '-e', program];
    execFile(
      process.execPath,
      child,
      { cwd, env: { ...process.env, ...env }, timeout: 30000 },
      (error, stdout, stderr) =>
        resolve({ code: error ? error.code : 0, signal: error ? error.signal : null, stdout, stderr }),
    );
  });
}

module.exports = { ROOT, SPEECH, bytesOf, concatenated, heard, run, script };
