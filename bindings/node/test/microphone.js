'use strict';
// What the tests share: the sound that the microphone of run.sh hears, others of other rates, and programs that run
// beside.

const { execFile, execFileSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
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

/** RMS in dB against full scale of a part of a sound, which begins and ends at these seconds. */
function level(samples, rate, begin, end) {
  const part = samples.slice(begin * rate, end * rate);
  return 10 * Math.log10(part.reduce((sum, sample) => sum + (sample / 32767) ** 2, 0) / part.length);
}

/** Sets variables of tests/tool/scripted_microphone.cpp, which reads them at each call, until the test is over. */
function script(test, variables) {
  Object.assign(process.env, variables);
  test.after(() => Object.keys(variables).forEach((name) => delete process.env[name]));
}

/** The environment in which the default microphone hears these samples, at this rate. */
function microphone(test, samples, rate) {
  const folder = fs.mkdtempSync('/tmp/wrapper-audio.'); // ALSA_CONFIG_PATH takes neither space nor colon
  test.after(() => fs.rmSync(folder, { recursive: true }));
  const raw = path.join(folder, 'sound.raw');
  fs.writeFileSync(raw, bytesOf(samples));
  const written = execFileSync(path.join(ROOT, 'scripts', 'file-microphone'), [raw, folder, String(rate)]);
  return { ALSA_CONFIG_PATH: written.toString().trim() };
}

/** A new folder that is gone after the test. */
function temporary(test) {
  const folder = fs.mkdtempSync(path.join(os.tmpdir(), 'wrapper audio '));
  test.after(() => fs.rmSync(folder, { recursive: true }));
  return folder;
}

/** Runs a program of JavaScript text in this folder: { code, signal, stdout, stderr }. */
function run(program, { options = [], env = {}, cwd = path.join(__dirname, '..') } = {}) {
  return new Promise((resolve) => {
    const child = ['--input-type=module', ...options, '-e', program];
    const settings = { cwd, env: { ...process.env, ...env }, timeout: 30000, maxBuffer: 1 << 26 };
    execFile(process.execPath, child, settings, (error, stdout, stderr) =>
      resolve({ code: error ? error.code : 0, signal: error ? error.signal : null, stdout, stderr }),
    );
  });
}

module.exports = { ROOT, SPEECH, bytesOf, concatenated, heard, level, microphone, run, script, spoken, temporary };
