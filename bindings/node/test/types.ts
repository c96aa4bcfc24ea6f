// Compiled, never run: what a program in TypeScript may write, and what it may not.
import {
  AudioError,
  Capability,
  type Device,
  GainControl,
  HighPass,
  type Level,
  Meter,
  OpenError,
  Recorder,
  Resampler,
  capability,
  depop,
  devices,
  load,
  toFloat32,
  toInt16,
} from 'wrapper-audio';
import wrapperAudio = require('wrapper-audio');
import type { Readable } from 'node:stream';

export async function record(): Promise<number> {
  load();
  load('/path/libwrapper_audio.so.1');
  const microphone: Device | undefined = (await devices()).find(({ isDefault }) => isDefault);
  const recorder: Recorder = await Recorder.open({ device: microphone ?? null, rate: 16000, denoise: true });
  let total = 0;
  for await (const block of recorder.blocks({ seconds: 1 })) total += block[0] ?? 0;
  for await (const block of recorder) {
    const floats: Float32Array = toFloat32(block);
    depop(floats, 0.9);
    total += toInt16(floats).length + recorder.rms + recorder.peak;
    break;
  }
  const bytes: Readable = recorder.stream();
  bytes.destroy();
  await recorder.stop();
  await recorder.release();
  await recorder.open();
  const block: Int16Array = await recorder.read(20);
  await recorder.close();
  return total + block.length;
}

export async function measure(): Promise<Level> {
  const meter = await Meter.open();
  for await (const { peak, rms } of meter) if (peak > rms) break;
  try {
    return await meter.read();
  } catch (error) {
    if (error instanceof OpenError || error instanceof AudioError) console.error(error.message);
    throw error;
  } finally {
    await meter.close();
  }
}

export async function dispose(): Promise<void> {
  await using recorder = await Recorder.open();
  using resampler = new Resampler(48000, 16000);
  new HighPass(100, undefined, { rate: 48000 }).process(resampler.process(new Float32Array(10)));
  new GainControl().process(toFloat32(await recorder.read()));
}

export const able: Promise<boolean> = capability().then((found) => found === Capability.INPUT);
export const alike: typeof Recorder = wrapperAudio.Recorder;

// @ts-expect-error: made by open()
new Recorder();
// @ts-expect-error: not in place on integers
depop(new Int16Array(1), 1);
// @ts-expect-error: no such option
void Recorder.open({ channels: 2 });
// @ts-expect-error: the level is read only
export const set = (recorder: Recorder) => (recorder.peak = 1);
// @ts-expect-error: 2 is no answer
export const odd: Capability = 2;
