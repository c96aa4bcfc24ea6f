'use strict';
// The list of devices, and the audio system's log.

const { OpenError } = require('./errors');
const { call, callOnThread, check, decode, encode, nameOf, structAt } = require('./library');

const MOST_BYTES = 1 << 16; // of a text

/** Lists the devices, and passes the list to a function while it exists. */
async function listed(use) {
  const list = [null];
  check(await callOnThread('device_list_create', list), { Kind: OpenError });
  try {
    return use(list[0]);
  } finally {
    call('device_list_free', list[0]);
  }
}

function deviceAt(list, index) {
  const { isDefault, denoising, ...found } = structAt(call('device_list_get', list, index), 'wrapper_audio_device');
  const kind = found.inputChannels > 0 ? 'input' : 'output';
  return { ...found, kind, isDefault: isDefault === 1, denoising: nameOf('Denoising', denoising).toLowerCase() };
}

function devices() {
  return listed((list) => Array.from({ length: call('device_list_count', list) }, (_, index) => deviceAt(list, index)));
}

async function findDevice(wanted) {
  const id = idOf(wanted);
  return listed((list) => {
    const index = [0];
    const reason = Buffer.alloc(MOST_BYTES);
    const status = call('device_list_find', list, id, index, reason, reason.length);
    check(status, { Kind: OpenError, reason: decode(reason.subarray(0, reason.indexOf(0))) });
    return deviceAt(list, index[0]);
  });
}

function systemDevice() {
  return listed((list) => {
    const index = [0];
    check(call('device_list_find_system', list, index), { Kind: OpenError });
    return deviceAt(list, index[0]);
  });
}

/** A device's id as C expects it; null for the default device. */
function idOf(device) {
  const id = device?.id ?? device ?? null;
  if (id === null) return null;
  if (typeof id !== 'string') throw new TypeError('device must be one of devices(), or its id');
  if (id.includes('\0')) throw new TypeError('a device id must not contain NUL; pass one from devices()');
  return encode(id);
}

const Capability = Object.freeze({ NO_PORTAUDIO: 0, NO_INPUT: 1, INPUT: 3 });

async function capability() {
  try {
    return (await devices()).some(({ kind }) => kind === 'input') ? Capability.INPUT : Capability.NO_INPUT;
  } catch (error) {
    if (error.status === 'NO_AUDIO_SYSTEM') return Capability.NO_PORTAUDIO;
    throw error;
  }
}

function logLines() {
  const [buffer, english] = [Buffer.alloc(MOST_BYTES), Buffer.alloc(MOST_BYTES)];
  const lines = [];
  for (let taken; (taken = call('log_take', buffer, buffer.length)) > 0; ) {
    for (const line of decode(buffer.subarray(0, taken - 1)).split('\n')) {
      const length = call('log_in_english', encode(line), english, english.length);
      lines.push({ line, english: length > 0 ? decode(english.subarray(0, english.indexOf(0))) : null });
    }
  }
  return lines;
}

function logEcho(on = true) {
  call('log_echo', Number(Boolean(on)));
}

function abandonedThreads() {
  return call('abandoned_threads');
}

module.exports = { Capability, abandonedThreads, capability, devices, findDevice, idOf, logEcho, logLines, systemDevice };
