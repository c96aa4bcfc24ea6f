'use strict';
// PortAudio keeps its list of streams without a lock, so that only one stream in the process opens or closes at a time.
//
// Workers share no variable that they were not handed. What they share is the process, and a file in /proc that stands
// for it. A lock on that file belongs to the worker that opened it, and Node closes it when the worker ends.

const koffi = require('koffi');
const fs = require('node:fs');
const { setTimeout: wait } = require('node:timers/promises');
const { AudioError } = require('./errors');

const LOCK_EX = 2;
const LOCK_NB = 4;
const LOCK_UN = 8;
const INTERVAL_MS = 2;

let flock = null;
let file = -1;

async function lock() {
  if (flock === null) {
    flock = koffi.load(null).func('int flock(int file, int operation)');
    file = fs.openSync('/proc/self/cmdline', 'r');
  }
  // No flock that waits on a thread: enough of them would leave no thread for the call that they are waiting for.
  while (flock(file, LOCK_EX | LOCK_NB) !== 0) {
    const { EAGAIN, EINTR } = koffi.os.errno;
    if (![EAGAIN, EINTR].includes(koffi.errno())) throw new AudioError(`flock failed (errno ${koffi.errno()})`);
    await wait(INTERVAL_MS);
  }
}

let last = Promise.resolve();

/** Runs the task when no other task is running, here or in another worker. */
function exclusively(task) {
  const result = last.then(async () => {
    await lock();
    try {
      return await task();
    } finally {
      flock(file, LOCK_UN);
    }
  });
  last = result.catch(() => {});
  return result;
}

module.exports = { exclusively };
