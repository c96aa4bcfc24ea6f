'use strict';
// Overhears what the library says on standard error, as it gives its reasons in no other way.
//
// While a stream opens, C's variable `stderr` points to a second stream on the same descriptor 2, one that writes at
// each end of a line out of a buffer of ours. Every line goes where it would have gone, at once, whoever writes it and
// in a crash too; and the last one can still be read in the buffer afterwards. Descriptor 2 itself is left alone: what
// other threads and the processes started meanwhile print does not pass here, and neither does console.error.
//
// That the buffer keeps what has been written from it is a habit of glibc, not a promise of C. Where it does not hold,
// or where C code on another thread printed a line in between, no reason is found and the error gets a text of its own.
//
// Reads are not listened to: they run on several threads at once, and which of them failed could not be told.

const koffi = require('koffi');

const STANDARD_ERROR = 2;
const LINE_BUFFERED = 1; // glibc's _IOLBF
const SIZE = 4096;
const MARK = '[audio_wrapper] ';

function connect() {
  try {
    // The whole program's symbols, not libc's own: the executable has a copy of the variable.
    const program = koffi.load(null);
    program.symbol('gnu_get_libc_version');
    const calloc = program.func('void *calloc(size_t count, size_t size)');
    const fdopen = program.func('void *fdopen(int file, const char *mode)');
    const setvbuf = program.func('int setvbuf(void *stream, void *buffer, int mode, size_t size)');
    const fileno = program.func('int fileno(void *stream)');
    const fflush = program.func('int fflush(void *stream)');
    // Never closed and never freed: another thread may be about to print.
    const ours = fdopen(STANDARD_ERROR, 'w');
    const buffer = calloc(SIZE, 1);
    if (!ours || !buffer || setvbuf(ours, buffer, LINE_BUFFERED, SIZE) !== 0) return null;
    return { stderr: program.symbol('stderr'), fileno, fflush, ours, buffer };
  } catch {
    return null;
  }
}

let ears; // null: there is no way to listen

/**
 * Runs the task, which opens something, and returns [its result, the library's last line or null]. One at a time.
 */
async function overheard(task) {
  if (ears === undefined) ears = connect();
  const original = ears && koffi.decode(ears.stderr, 'void *');
  // A host may have put a stream of its own there.
  if (!original || ears.fileno(original) !== STANDARD_ERROR) return [await task(), null];

  koffi.encode(ears.buffer, 'char', 0); // so that no line of an earlier call is found
  koffi.encode(ears.stderr, 'void *', ears.ours);
  try {
    return [await task(), lastLine(ears.buffer)];
  } finally {
    koffi.encode(ears.stderr, 'void *', original);
    ears.fflush(ears.ours); // half a line
  }
}

function lastLine(buffer) {
  const bytes = Buffer.from(koffi.decode(buffer, 'uint8_t', SIZE));
  const end = bytes.indexOf('\n');
  const line = bytes.toString('utf8', 0, Math.max(end, 0));
  return line.startsWith(MARK) ? line : null;
}

module.exports = { overheard };
