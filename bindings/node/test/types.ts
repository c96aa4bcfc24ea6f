// Compiled, never run: what a program in TypeScript may write, and what it may not.
import {
  AudioError,
  Capability,
  Converter,
  Denoiser,
  DePop,
  type Denoising,
  type Device,
  GainControl,
  Limiter,
  HighPass,
  type Level,
  Meter,
  OpenError,
  Recorder,
  type Signal,
  UnknownDeviceError,
  abandonedThreads,
  capability,
  devices,
  findDevice,
  load,
  logEcho,
  logLines,
  systemDevice,
  toFloat32,
  toInt16,
} from 'wrapper-audio';
import wrapperAudio = require('wrapper-audio');
import type { Readable } from 'node:stream';

export async function record(): Promise<number> {
  load();
  load('/path/libwrapper_audio_recorder.so.1');
  const microphone: Device | undefined = (await devices()).find(({ isDefault }) => isDefault);
  const recorder: Recorder = await Recorder.open({
    device: microphone ?? (await findDevice('usb')) ?? (await systemDevice()),
    rate: 16000,
    denoise: 0.9,
    undenoised: true,
    speech: true,
    converter: 'clean',
    blockMs: 20,
    bufferMs: 1000,
    stallMs: 1000,
    reconnect: true,
    onSignal: (signal) => console.log(signal === 'lost'),
    armed: true,
  });
  await recorder.open();
  let total = 0;
  for await (const block of recorder.blocks({ seconds: 1 })) total += block[0] ?? 0;
  for await (const block of recorder) {
    const samples: Int16Array = block;
    total += toInt16(new DePop(0.9).process(toFloat32(samples))).length + recorder.rms + recorder.peak;
    total += recorder.clipped + recorder.capturedPeak + recorder.speechProbability + recorder.position;
    break;
  }
  for await (const { samples, start, end } of recorder.utterances({ preRollMs: 200, beginThreshold: 0.7 })) {
    const spoken: Int16Array = samples;
    total += spoken.length / (end - start);
  }
  const { denoised, undenoised } = await recorder.readBoth(100, { timeout: 10 });
  const both: [Int16Array, Int16Array] = [denoised, undenoised];
  total += both.length;
  const speech: Float32Array = recorder.speechProbabilities();
  const bytes: Readable = recorder.stream();
  bytes.destroy();
  const began: bigint | null = recorder.firstSampleTime;
  const how: Denoising = recorder.denoising;
  const heard: Signal = recorder.signal;
  await recorder.stop();
  await recorder.open();
  const block: Int16Array = await recorder.read(320, { timeout: 100 });
  await recorder.close();
  total += recorder.dropped + recorder.deviceRate + (how === 'off' || heard === 'no-data' ? 0 : 1) + Number(began);
  return total + block.length + speech.length;
}

export async function floats(): Promise<Float32Array> {
  const recorder = await Recorder.open({ format: 'float32', denoise: true });
  const alike: Recorder<Float32Array> = recorder;
  for await (const block of alike) if (block instanceof Float32Array) return block;
  return recorder.read();
}

export async function measure(): Promise<Level> {
  const meter = await Meter.open();
  for await (const { peak, rms } of meter) if (peak > rms) break;
  try {
    return await meter.read();
  } catch (error) {
    if (error instanceof UnknownDeviceError && error.status === 'UNKNOWN_DEVICE') console.error(error.logLine);
    if (error instanceof OpenError || error instanceof AudioError) console.error(error.message);
    throw error;
  } finally {
    await meter.close();
  }
}

export async function dispose(): Promise<void> {
  await using recorder = await Recorder.open();
  using converter = new Converter(48000, 16000, { converter: 'linear' });
  using denoiser = new Denoiser(44100, { outRate: 16000, strength: 0.8 });
  const filtered: Float32Array = new HighPass(100, undefined, { rate: 48000 }).process(new Float32Array(10));
  converter.process(filtered);
  converter.reset();
  denoiser.flush();
  console.log(denoiser.speechProbabilities().length, denoiser.delay, recorder.closed, abandonedThreads());
  new GainControl().process(new Limiter(-3).process(toFloat32(await recorder.read())));
  logEcho(false);
  for (const { line, english } of logLines()) console.log(line, english?.length);
}

export const able: Promise<boolean> = capability().then((found) => found === Capability.INPUT);
export const alike: typeof Recorder = wrapperAudio.Recorder;

// @ts-expect-error: made by open()
new Recorder();
// @ts-expect-error: no integers
new DePop(0.9).process(new Int16Array(1));
// @ts-expect-error: no such option
void Recorder.open({ channels: 2 });
// @ts-expect-error: no such format
void Recorder.open({ format: 'int8' });
// @ts-expect-error: floats
export const integers: Promise<Recorder> = Recorder.open({ format: 'float32' });
// @ts-expect-error: the level is read only
export const set = (recorder: Recorder) => (recorder.peak = 1);
// @ts-expect-error: 2 is no answer
export const odd: Capability = 2;
// @ts-expect-error: only its kinds
export const Base = wrapperAudio.Processor;
