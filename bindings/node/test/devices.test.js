'use strict';
const assert = require('node:assert');
const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const { test } = require('node:test');
const {
  AmbiguousDeviceError,
  Capability,
  OpenError,
  Recorder,
  UnknownDeviceError,
  capability,
  devices,
  findDevice,
  systemDevice,
} = require('..');
const { decode, encode } = require('../lib/library');
const { heard, run, script } = require('./microphone');

const FIELDS = 'defaultRate denoising hostApi id inputChannels isDefault kind name outputChannels'.split(' ');

test('the list has the two devices of the file microphone', async () => {
  const found = await devices();
  assert.deepStrictEqual(
    found.map(({ id, name, kind, hostApi, isDefault, denoising }) => [id, name, kind, hostApi, isDefault, denoising]),
    [
      ['ALSA:filemic', 'filemic', 'input', 'ALSA', false, 'native'],
      ['ALSA:default', 'default', 'input', 'ALSA', true, 'native'],
    ],
  );
  assert.strictEqual(found[1].defaultRate, 48000);
  assert(found.every(({ inputChannels, outputChannels }) => inputChannels > 0 && outputChannels >= 0));
  assert.deepStrictEqual(Object.keys(found[0]).sort(), FIELDS);
  assert.strictEqual(await capability(), Capability.INPUT);
});

test('a device is chosen by its record or its id', async () => {
  const chosen = (await devices()).find(({ isDefault }) => isDefault);
  for (const device of [chosen, chosen.id, '', null, undefined]) {
    const mic = await Recorder.open({ device, rate: 48000, blockMs: 10 });
    assert.deepStrictEqual(await mic.read(), heard.slice(0, 480), `for ${JSON.stringify(device)}`);
    await mic.close();
  }
});

test('a machine without a sound server has no device that records what it plays', async () => {
  await assert.rejects(systemDevice(), (error) => {
    assert(error instanceof OpenError);
    assert.strictEqual(error.status, 'NO_SYSTEM_SOUND');
    assert.match(error.message, /^no device records what the computer plays\. Start PipeWire or PulseAudio/);
    return true;
  });
});

test('an unknown id is refused with the candidates, and a part of one finds a device', async () => {
  for (const device of ['ALSA:nobody', 'ALSA:DEFAULT', { id: 'default' }]) {
    await assert.rejects(Recorder.open({ device }), (error) => {
      assert(error instanceof UnknownDeviceError && error instanceof OpenError);
      assert.strictEqual(error.status, 'UNKNOWN_DEVICE');
      assert.match(error.message, /ALSA:filemic[^]*ALSA:default/);
      return true;
    });
  }
  assert.strictEqual((await findDevice('FILE')).id, 'ALSA:filemic');
  assert.strictEqual((await findDevice('ALSA:default')).isDefault, true);
  await assert.rejects(findDevice('nobody'), UnknownDeviceError);
  await assert.rejects(findDevice('alsa'), (error) => {
    assert(error instanceof AmbiguousDeviceError);
    assert.match(error.message, /ALSA:filemic[^]*ALSA:default/);
    return true;
  });
  await assert.rejects(findDevice(7), TypeError);
});

test('two devices with one id are told apart', async (t) => {
  script(t, { MICROPHONE_NAME: 'filemic' });
  const found = (await devices()).map(({ id, defaultRate }) => [id, defaultRate]);
  assert.deepStrictEqual(found, [
    ['ALSA:filemic', 44100],
    ['ALSA:filemic#2', 48000],
  ]);
  for (const device of await devices()) {
    const mic = await Recorder.open({ device, rate: device.defaultRate, blockMs: 10 });
    assert.deepStrictEqual(await mic.read(), heard.slice(0, device.defaultRate / 100), device.id);
    assert.strictEqual(mic.deviceRate, device.defaultRate); // in which these two differ
    await mic.close();
  }
});

test('any bytes go through a string and come back', () => {
  const all = Buffer.from(Array.from({ length: 255 }, (_, i) => i + 1));
  const valid = ['é€😀', '\u{10ffff}', '\ufeff', '\ufffd', ''].map((text) => Buffer.from(text));
  const invalid = ['c080', 'eda080', 'f4908080', 'e282', 'f09f98', 'ff', 'e2c3a9'];
  for (const bytes of [all, ...valid, ...invalid.map((hex) => Buffer.from(hex, 'hex'))]) {
    assert.deepStrictEqual(encode(decode(bytes)), Buffer.concat([bytes, Buffer.of(0)]), bytes.toString('hex'));
  }
  assert.strictEqual(decode(Buffer.from('mic é')), 'mic é');
  assert.strictEqual(decode(Buffer.from('mic\xff', 'latin1')), 'mic\udcff');
});

test('a device opens whatever bytes its name has, also by way of JSON', () => {
  const program = `
    const { Recorder, devices } = require('.');
    (async () => {
      const { id, name } = (await devices()).find(({ isDefault }) => isDefault);
      console.log(JSON.stringify([id, name]));
      const mic = await Recorder.open({ device: JSON.parse(JSON.stringify(id)) });
      console.log((await mic.read()).length);
      await mic.close();
    })();`;
  const shell = "MICROPHONE_NAME=$'USB\\xff \\xc3\\xa9\\n' exec node -e \"$0\"";
  const stdout = execFileSync('bash', ['-c', shell, program], { cwd: path.join(__dirname, '..'), encoding: 'utf8' });
  const [[id, name], count] = stdout.trim().split('\n').map((line) => JSON.parse(line));
  assert.deepStrictEqual([id, count], ['ALSA:USB\udcff é\n', 480]);
  assert.match(name, /^USB[^\0-\x1f]+ é[^\0-\x1f]*$/);
});

test('without an input device nothing opens, and the text says so', async () => {
  const configuration = path.join(path.dirname(process.env.ALSA_CONFIG_PATH), 'nothing.conf');
  fs.writeFileSync(configuration, 'pcm.nothing { type hw card 99 }\n');
  const { code, stdout, stderr } = await run(
    `import { Meter, Recorder, capability, devices, findDevice } from 'wrapper-audio';
     console.log(await capability(), JSON.stringify(await devices()));
     const told = ({ name, status }) => console.log(name, status);
     for (const kind of [Recorder, Meter]) await kind.open().catch(told);
     await findDevice('mic').catch(told);`,
    { env: { ALSA_CONFIG_PATH: configuration } },
  );
  assert.deepStrictEqual([code, stderr], [0, '']);
  const failed = 'OpenError NO_INPUT_DEVICE';
  assert.deepStrictEqual(stdout.split('\n'), ['1 []', failed, failed, failed, '']);
});
