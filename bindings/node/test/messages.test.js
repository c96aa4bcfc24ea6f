'use strict';
// What a person sees of an error: English, with advice. The capture library's own line, partly in Russian, is a
// property of the error only.
const assert = require('node:assert');
const fs = require('node:fs');
const path = require('node:path');
const { test } = require('node:test');
const { Converter, HighPass, Meter, Recorder, findDevice, load, toInt16 } = require('..');
const { advice, check } = require('../lib/library');
const { enums } = require('../lib/interface');
const { run, script } = require('./microphone');

const CYRILLIC = /[\u0400-\u052f]/;
const AT_LEAST_FOUR_WORDS = /\w+ \S+ \S+ \S+/;
const failures = Object.keys(enums.Status).filter((name) => enums.Status[name] < 0);

/** The error of a call that has to fail with this class and status. */
async function told(expected, action) {
  const error = await (async () => action())().then(
    () => assert.fail(`no ${expected}`),
    (reason) => reason,
  );
  assert.strictEqual(`${error.name} ${error.status ?? ''}`.trim(), expected, error.message);
  assert.doesNotMatch(error.message, CYRILLIC);
  assert.match(error.message, AT_LEAST_FOUR_WORDS);
  const separator = error.message.includes('\n  ALSA:') ? '\n' : '. ';
  if (error.status) assert(error.message.endsWith(separator + advice(enums.Status[error.status])), error.message);
  return error;
}

test('messages about devices and arguments are English, with advice', async () => {
  await told('UnknownDeviceError UNKNOWN_DEVICE', () => Recorder.open({ device: 'nowhere' }));
  await told('AmbiguousDeviceError AMBIGUOUS_DEVICE', () => findDevice('alsa'));
  await told('RangeError', () => Recorder.open({ rate: 99 }));
  await told('RangeError', () => Recorder.open({ rate: 1e30 }));
  await told('RangeError', () => Recorder.open({ blockMs: 0 }));
  await told('RangeError', () => Recorder.open({ format: 'int8' }));
  await told('TypeError', () => Recorder.open({ denoise: 'yes' }));
  await told('TypeError', () => Recorder.open({ device: 7 }));
  await told('TypeError', () => Recorder.open({ device: 'a\0b' }));
  await told('RangeError', () => new Converter(16000, 8000, { converter: 'best' }));
  await told('RangeError', () => new HighPass(-1));
  await told('TypeError', () => toInt16([0]));
  await told('TypeError', () => new Meter());
  const mic = await Recorder.open({ armed: true });
  await told('ReadError INVALID_STATE', () => mic.read());
  await mic.open();
  await told('OpenError INVALID_STATE', () => mic.open());
  await told('RangeError', () => mic.read(-1));
  await told('RangeError', () => mic.read(1, { timeout: -1 }));
  await told('RangeError', () => mic.blocks({ seconds: -1 }).next());
  await mic.close();
  await told('ClosedError', () => mic.read());
  await told('LibraryError', () => load('/elsewhere.so'));
});

test('messages about a system without a device or a library are English, with advice', async () => {
  const configuration = path.join(path.dirname(process.env.ALSA_CONFIG_PATH), 'no_device.conf');
  fs.writeFileSync(configuration, 'pcm.nothing { type hw card 99 }\n');
  const program = "import { Recorder } from 'wrapper-audio'; await Recorder.open().catch((e) => console.log(e.message));";
  for (const [env, expected] of [
    [{ ALSA_CONFIG_PATH: configuration }, `. ${advice(enums.Status.NO_INPUT_DEVICE)}\n`],
    [{ WRAPPER_AUDIO_LIBRARY: '/nowhere.so' }, 'Install the package'],
    [{ WRAPPER_AUDIO_LIBRARY: 'libc.so.6' }, 'Name the right file'],
  ]) {
    const { stdout } = await run(program, { env });
    assert(stdout.includes(expected), stdout);
    assert.doesNotMatch(stdout, CYRILLIC);
  }
});

test('a device that refuses or fails: the line of the log is a property alone', async (t) => {
  script(t, { MICROPHONE_REFUSES: '1' });
  const refused = await told('OpenError DEVICE_REFUSED', () => Recorder.open());
  delete process.env.MICROPHONE_REFUSES;
  script(t, { MICROPHONE_FAILS_AFTER: '0' });
  const mic = await Recorder.open();
  const failed = await told('ReadError DEVICE_FAILED', () => mic.read());
  await mic.close();
  for (const { message, logLine } of [refused, failed]) {
    assert.match(logLine, CYRILLIC);
    assert(message.includes(logLine.split(': ')[1]), `PortAudio's words are missing: ${message}`);
  }
});

test('messages about a device that delivers nothing are English, with advice', async (t) => {
  script(t, { MICROPHONE_STALLS_AFTER: '0' });
  const mic = await Recorder.open({ stallMs: 200 });
  t.after(() => mic.close());
  await told('ReadError NO_DATA', () => mic.read());
  await told('AudioError AUDIO_SYSTEM_STUCK', () => mic.stop());
});

test('every failure of the library has a message in English', () => {
  assert(failures.length > 10);
  const message = /^[ -~]{12,}\. [A-Za-z][ -~]{12,}$/;
  for (const name of failures) assert.throws(() => check(enums.Status[name]), { message }, name);
  assert.throws(() => check(-99), { message: 'unknown status' });
});

test('the source has English texts only', () => {
  const folder = path.join(__dirname, '..');
  const files = ['index.js', 'index.d.ts', ...fs.readdirSync(path.join(folder, 'lib')).map((name) => `lib/${name}`)];
  assert(files.length > 5);
  for (const file of files) assert.doesNotMatch(fs.readFileSync(path.join(folder, file), 'utf8'), CYRILLIC, file);
});
