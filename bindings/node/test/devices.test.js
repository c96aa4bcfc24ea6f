'use strict';
const assert = require('node:assert');
const fs = require('node:fs');
const path = require('node:path');
const { test } = require('node:test');
const { Capability, Recorder, capability, devices } = require('..');
const { heard, run } = require('./microphone');

test('the list has the two devices of the file microphone', async () => {
  assert.deepStrictEqual(await devices(), [
    { id: 'ALSA:filemic', name: 'filemic', kind: 'input', isDefault: false },
    { id: 'ALSA:default', name: 'default', kind: 'input', isDefault: true },
  ]);
  assert.strictEqual(await capability(), Capability.INPUT);
});

test('a device is chosen by its id or by its entry; an unknown one gives the default', async () => {
  const chosen = (await devices()).find(({ isDefault }) => isDefault);
  for (const device of [chosen, chosen.id, '', null, undefined, 'ALSA:nobody']) {
    const mic = await Recorder.open({ device, rate: 48000, blockMs: 10 });
    assert.deepStrictEqual(await mic.read(), heard.slice(0, 480), `for ${JSON.stringify(device)}`);
    await mic.close();
  }
});

test('without an input device nothing opens, and the text says so', async () => {
  const configuration = path.join(path.dirname(process.env.ALSA_CONFIG_PATH), 'nothing.conf');
  fs.writeFileSync(configuration, 'pcm.nothing { type hw card 99 }\n');
  const { code, stdout, stderr } = await run(
    `import { Meter, Recorder, capability, devices } from 'wrapper-audio';
     console.log(await capability(), JSON.stringify(await devices()));
     for (const kind of [Recorder, Meter]) await kind.open().catch((error) => console.log(String(error)));`,
    { env: { ALSA_CONFIG_PATH: configuration } },
  );
  assert.strictEqual(code, 0, stderr);
  assert.deepStrictEqual(stdout.split('\n'), [
    '1 []',
    'OpenError: [audio_wrapper] нет устройства ввода (resolve → paNoDevice)',
    'OpenError: [audio_wrapper] meter_open: нет устройства ввода',
    '',
  ]);
  assert.match(
    stderr,
    /\[audio_wrapper\] нет устройства ввода \(resolve → paNoDevice\)\n/,
    'the line appears as always',
  );
});
