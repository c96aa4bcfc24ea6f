'use strict';
// Finds the shared library, calls its functions, and turns their statuses into errors.

const koffi = require('koffi');
const { randomUUID } = require('node:crypto');
const path = require('node:path');
const { inspect, promisify } = require('node:util');
const { AmbiguousDeviceError, AudioError, LibraryError, UnknownDeviceError } = require('./errors');
const { enums, functions, structs } = require('./interface');


const NAME = 'libwrapper_audio_recorder.so.1';
const UNIQUE = randomUUID().replaceAll('-', '');

const ADVICE = `\
Install the package libwrapper-audio1, or build wrapper_audio and name the file:
  export WRAPPER_AUDIO_LIBRARY=/path/to/${NAME}
It needs PortAudio, RNNoise, soxr and ALSA (packages libportaudio2, librnnoise0, libsoxr0 and libasound2).`;

function openFirst(files) {
  const tried = [];
  for (const file of files) {
    try {
      return [koffi.load(file), file];
    } catch (error) {
      tried.push(`  ${file}: ${error.message}`);
    }
  }
  throw new LibraryError(['the library wrapper_audio_recorder was not found. Tried:', ...tried, ADVICE].join('\n'));
}

// All users of koffi in a process share its type names: another copy of this package may be among them.
const ours = (prototype) => prototype.replace(/\bwrapper_audio_\w+(?= \*)/g, `$&_${UNIQUE}`);

// With members in camel case. An id is bytes, so it is declared as an address: koffi would turn it into text.
for (const [name, members] of Object.entries(structs)) {
  const camel = Object.entries(members).map(([member, type]) => [
    member.replace(/_(\w)/g, (_, letter) => letter.toUpperCase()),
    member === 'id' ? 'const void *' : type,
  ]);
  koffi.struct(`${name}_${UNIQUE}`, Object.fromEntries(camel));
}

let loadedFrom = null;
const library = {}; // the functions, by their names without `wrapper_audio_`

/** Plug-ins of audio servers run on the thread that lists the devices, and may need more stack than koffi's default. */
function reserveStack() {
  try {
    koffi.config({ async_stack_size: 1 << 20 });
  } catch {
    // Another package in the program has already used koffi, and the size can no longer be changed.
  }
}

/** The library of the package that carries it for this machine, if that is installed. */
function carried() {
  try {
    return [require.resolve(`wrapper-audio-${process.platform}-${process.arch}/${NAME}`)];
  } catch {
    return [];
  }
}

function load(named) {
  if (loadedFrom !== null) {
    if (named === undefined || named === loadedFrom) return;
    throw new LibraryError(`${loadedFrom} is already loaded, so ${named} cannot be. Call load() before anything else`);
  }
  const only = named ?? process.env.WRAPPER_AUDIO_LIBRARY;
  const candidates = only ? [only] : [...carried(), path.join(__dirname, '..', NAME), NAME];
  reserveStack();
  const [opened, file] = openFirst(candidates);
  for (const prototype of functions) {
    const [, name] = /wrapper_audio_(\w+)\(/.exec(prototype);
    try {
      library[name] = opened.func(ours(prototype));
    } catch (cause) {
      const wrong = `${file} is not ${NAME}: it lacks wrapper_audio_${name}. Name the right file`;
      throw new LibraryError(wrong, { cause });
    }
  }
  library.strlen = koffi.load(null).func('size_t strlen(const void *text)');
  loadedFrom = file;
}

/** Calls a function on this thread. */
function call(name, ...values) {
  load();
  return library[name](...values);
}

/** Calls a function on a thread of Node's pool. */
function callOnThread(name, ...values) {
  load();
  return promisify(library[name].async)(...values);
}

// ---- Texts ----

// In strings, a byte that is not valid UTF-8 is U+DC00 plus the byte: a lone surrogate, which valid UTF-8 never yields.

function decode(bytes) {
  let text = bytes.toString();
  if (Buffer.from(text).equals(bytes)) return text;
  text = '';
  for (let i = 0; i < bytes.length; ) {
    const starts = [1, 2, 3, 4].map((length) => bytes.subarray(i, i + length));
    const valid = starts.find((start) => Buffer.from(start.toString()).equals(start));
    text += valid?.toString() ?? String.fromCharCode(0xdc00 + bytes[i]);
    i += valid?.length ?? 1;
  }
  return text;
}

/** With the NUL that terminates a C string. */
function encode(text) {
  const parts = `${text}\0`.split(/([\udc80-\udcff])/u);
  return Buffer.concat(parts.map((part, i) => (i % 2 ? Buffer.of(part.charCodeAt(0) & 0xff) : Buffer.from(part))));
}

/** The text that a function copies into a buffer, passed as its last two arguments. */
function copied(name, ...values) {
  const buffer = Buffer.alloc(call(name, ...values, null, 0) + 1);
  call(name, ...values, buffer, buffer.length);
  return decode(buffer.subarray(0, buffer.indexOf(0)));
}

/** Takes all probabilities of speech out of a recorder or processor. */
function speechTaken(name, pointer) {
  const all = [];
  const some = new Float32Array(1000);
  for (let count; (count = call(name, pointer, some, some.length)) > 0; ) all.push(...some.subarray(0, count));
  return Float32Array.from(all);
}

/** A struct at an address. */
function structAt(address, type) {
  const found = koffi.decode(address, `${type}_${UNIQUE}`);
  if (found.id) found.id = decode(Buffer.from(koffi.view(found.id, call('strlen', found.id))));
  return found;
}

// ---- Arguments and statuses ----

/** koffi would turn anything else into a different number, or end the process. */
function demandWholeNumbers(values) {
  for (const [name, value] of Object.entries(values)) {
    if (value !== (value | 0)) throw new RangeError(`${name} is ${String(value)}; it must be a whole 32-bit number`);
  }
}

function demandNumbers(values) {
  for (const [name, value] of Object.entries(values)) {
    if (typeof value !== 'number') throw new TypeError(`${name} is ${String(value)}; it must be a number`);
  }
}

const nameOf = (type, number) => Object.keys(enums[type]).find((name) => enums[type][name] === number);

function conversion(name) {
  const number = { clean: enums.Conversion.CLEAN, linear: enums.Conversion.LINEAR }[name];
  if (number === undefined) throw new RangeError(`converter is ${String(name)}; it must be 'clean' or 'linear'`);
  return number;
}

const KINDS = {
  INVALID_ARGUMENT: RangeError,
  UNKNOWN_DEVICE: UnknownDeviceError,
  AMBIGUOUS_DEVICE: AmbiguousDeviceError,
};

/** What to do about a failure; '' for a status that only a newer library has. */
function advice(status) {
  return status === enums.Status.INVALID_ARGUMENT ? 'index.d.ts has the ranges' : call('status_advice', status);
}

/** Throws the error that a failed status stands for; returns the name of any other. */
function check(status, { Kind = AudioError, reason = '', logLine = '' } = {}) {
  const name = nameOf('Status', status);
  if (status >= 0) return name;
  const text = reason || call('status_text', status);
  const message = [text, advice(status)].filter(Boolean).join(text.includes('\n') ? '\n' : '. ');
  throw new (KINDS[name] ?? Kind)(message, { status: name, logLine });
}

/** The address of what a function creates. */
function make(name, ...values) {
  const made = [null];
  const status = call(name, made, ...values);
  const given = values.map((value) => inspect(value, { breakLength: Infinity })).join(', ');
  check(status, { reason: status === enums.Status.INVALID_ARGUMENT ? `an argument is out of range: ${given}` : '' });
  return made[0];
}

module.exports = {
  advice, call, callOnThread, check, conversion, copied, decode, demandNumbers, demandWholeNumbers, encode,
  load, make, nameOf, speechTaken, structAt,
};
