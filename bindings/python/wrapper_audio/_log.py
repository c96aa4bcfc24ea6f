"""Overhears what the library says on standard error.

The library gives its reasons in no other way than by a line to C's `stderr`. There are three ways to get hold of one:

- Put something else in place of file descriptor 2 during a call. That takes the output of all threads, of Python's
  sys.stderr, and for good of every process that is started meanwhile; and all of it is lost if the call crashes.
- Let the variable `stderr` of the C library point to a stream that collects. Descriptor 2 is left alone, but whatever
  C code prints must be passed on later, and is lost in a crash as well. PortAudio does abort on odd configurations.
- What is done here: let `stderr` point to a second stream on the same descriptor 2, one that writes at each end of a
  line out of a buffer of ours. Every line goes where it would have gone, at once, whoever writes it; nothing has to be
  passed on, so nothing can get lost; and the last line can still be read in the buffer afterwards.

The price: that the buffer keeps what has been written from it is a habit of glibc, not a promise of C. Where it does
not hold, where the C library is another one, or where another thread printed a line in between, no reason is found,
and the error gets a text of its own. All that C code in other threads feels is that half a line waits for its end, or
for the end of the call. That is also all that is left behind by an exception in the midst of this.
"""

from __future__ import annotations

import contextlib
import ctypes
import threading
from ctypes import c_char_p, c_int, c_size_t, c_void_p
from typing import Iterator, Optional

_STANDARD_ERROR = 2
_LINE_BUFFERED = 1  # glibc's _IOLBF
_SIZE = 4096
_MARK = b"[audio_wrapper] "


class Listener:
    """The way into C's `stderr`. There is one in the process."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._calls = 0
        self._ours: Optional[int] = None
        self._original: Optional[int] = None
        self._buffers = [ctypes.create_string_buffer(_SIZE), ctypes.create_string_buffer(_SIZE)]
        try:
            # The whole program's, not libc's own symbol: an executable may have a copy of the variable.
            program = ctypes.CDLL(None)
            program.gnu_get_libc_version
            self._stderr = c_void_p.in_dll(program, "stderr")
        except (AttributeError, OSError, ValueError):
            self._calls = 1  # somebody is inside for ever: nothing is ever replaced
            return
        self._fdopen, self._fileno = program.fdopen, program.fileno
        self._setvbuf, self._fflush = program.setvbuf, program.fflush
        self._fdopen.restype, self._fdopen.argtypes = c_void_p, [c_int, c_char_p]
        self._fileno.argtypes = self._fflush.argtypes = [c_void_p]
        self._setvbuf.argtypes = [c_void_p, c_void_p, c_int, c_size_t]

    @contextlib.contextmanager
    def listening(self) -> Iterator[None]:
        """While a call of the library runs. Calls on several threads share one stay."""
        with self._lock:
            if self._calls == 0:
                self._begin()
            self._calls += 1
        try:
            yield
        finally:
            with self._lock:
                self._calls -= 1
                if self._calls == 0 and self._ours is not None:
                    self._end()

    def _begin(self) -> None:
        stream = self._stderr.value
        if stream is None or self._fileno(stream) != _STANDARD_ERROR:
            return  # a host has put a stream of its own there
        if self._ours is None:
            self._ours = self._fdopen(_STANDARD_ERROR, b"w")  # never closed: a thread may be about to print to it
            if self._ours is None:
                return
        # An empty buffer, so that no line of an earlier call is found. This call writes out what is in the former
        # one, and glibc does it under the stream's lock.
        self._buffers.reverse()
        self._buffers[0][0] = b"\0"
        if self._setvbuf(self._ours, self._buffers[0], _LINE_BUFFERED, _SIZE) != 0:
            return
        if stream != self._ours:
            self._original = stream
        self._stderr.value = self._ours

    def _end(self) -> None:
        if self._stderr.value == self._ours:
            self._stderr.value = self._original
        self._fflush(self._ours)

    def reason(self, *starts: str) -> Optional[str]:
        """The last line, if behind the library's mark it begins with one of these; to be asked within listening()."""
        line, end, _ = self._buffers[0].raw.partition(b"\n")
        if not end or not line.startswith(tuple(_MARK + start.encode() for start in starts)):
            return None
        return line.decode(errors="replace")


listener = Listener()
