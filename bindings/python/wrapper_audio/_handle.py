"""A handle of the library: kept, guarded and given back."""

from __future__ import annotations

import os
import threading
import warnings
from collections import deque
from typing import Any, Callable, List, Optional

from ._errors import ClosedError

# PortAudio keeps its list of streams without a lock, so that only one stream in the process opens or closes at a time.
# A lock that a thread may take twice: the garbage collector may run, and close something, while its thread opens.
opening_and_closing = threading.RLock()

_PATIENCE_AT_EXIT = 1.0  # seconds


class Handle:
    """One pointer, with the lock that keeps calls on it apart."""

    def __init__(self, noun: str, free: Callable[[Optional[int]], Any]) -> None:
        self.lock = threading.RLock()
        self.closed = False
        self._noun = noun
        self._free = free
        self._pointers: List[Optional[int]] = [None]  # a None at the bottom marks the end for _free_all
        self._process = os.getpid()

    # Ctrl-C raises KeyboardInterrupt between two steps of Python code. `extend`, `map`, `iter` and `deque` take these
    # steps inside C, so that none can come between the library's answer and our keeping it.

    def make(self, function: Callable[..., Optional[int]], *arguments: Any) -> bool:
        """Keeps the pointer that the function returns. False: there is none."""
        self._pointers.extend(map(function, *([argument] for argument in arguments)))
        return self._pointers[-1] is not None

    def _free_all(self) -> None:
        while self._pointers:
            deque(map(self._free, iter(self._pointers.pop, None)), maxlen=0)

    def pointer(self) -> int:
        """To be asked for under the lock."""
        pointer = self._pointers[-1] if self._pointers else None
        if self.closed or pointer is None:
            raise ClosedError(f"the {self._noun} is closed")
        return pointer

    def close(self) -> None:
        """Waits until the call that another thread has on the handle is over, then frees it."""
        self.closed = True  # before the wait, so that the other thread does not start another call
        with self.lock, opening_and_closing:
            self._free_all()

    def abandon(self) -> None:
        """What weakref.finalize calls: nobody has the object any more, or the interpreter ends.

        At the end a thread may still be blocked in a read. Then the system takes the device back. A forked child
        leaves its parent's devices alone.
        """
        if not self._pointers or os.getpid() != self._process:
            return
        try:
            warnings.warn(f"a {self._noun} was not closed", ResourceWarning, stacklevel=2)
        finally:
            self.closed = True
            if self.lock.acquire(timeout=_PATIENCE_AT_EXIT):
                if opening_and_closing.acquire(timeout=_PATIENCE_AT_EXIT):
                    self._free_all()
                    opening_and_closing.release()
                self.lock.release()
