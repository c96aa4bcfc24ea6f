'use strict';
// The errors of this package.

class AudioError extends Error {
  constructor(message, { status = '', logLine = '', ...options } = {}) {
    super(message, options);
    Object.assign(this, { status, logLine });
  }

  get name() {
    return this.constructor.name;
  }
}

class LibraryError extends AudioError {}
class OpenError extends AudioError {}
class UnknownDeviceError extends OpenError {}
class AmbiguousDeviceError extends OpenError {}
class ReadError extends AudioError {}
class ClosedError extends AudioError {}

module.exports = {
  AmbiguousDeviceError, AudioError, ClosedError, LibraryError, OpenError, ReadError, UnknownDeviceError,
};
