'use strict';
// What goes wrong, and how it is said.

class AudioError extends Error {
  get name() {
    return this.constructor.name;
  }
}

class LibraryError extends AudioError {}
class OpenError extends AudioError {}
class ReadError extends AudioError {}
class ClosedError extends AudioError {}
class ReplacedError extends AudioError {}

module.exports = { AudioError, ClosedError, LibraryError, OpenError, ReadError, ReplacedError };
