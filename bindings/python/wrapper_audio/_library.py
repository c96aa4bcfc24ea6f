"""Finds and loads the shared library, and calls it."""

from __future__ import annotations

import ctypes
import os
import threading
from ctypes import c_int32, c_void_p
from pathlib import Path
from typing import Any, Dict, List, Optional, Sequence, Type, TypeVar, Union

from ._errors import AmbiguousDeviceError, ArgumentError, AudioError, ClosedError, LibraryError
from ._errors import UnknownDeviceError
from ._interface import CORE_FUNCTIONS, FUNCTIONS, Status

_NAMES = ("libwrapper_audio_recorder.so.1", "libwrapper_audio_recorder.so")

_ADVICE = """\
Install the package libwrapper-audio1, or build wrapper_audio and name the file:
  export WRAPPER_AUDIO_LIBRARY=/path/to/libwrapper_audio_recorder.so.1
It needs libwrapper_audio.so.1, PortAudio, RNNoise, soxr and ALSA (packages libportaudio2, librnnoise0, libsoxr0 and
libasound2)."""

_Self = TypeVar("_Self", bound="Closing")
_lock = threading.Lock()
_loaded: Optional[ctypes.CDLL] = None
_loaded_from = ""


def _open_first(candidates: List[str]) -> ctypes.CDLL:
    tried = []
    for candidate in candidates:
        try:
            return ctypes.CDLL(candidate)  # not PyDLL: other Python threads run during a call
        except OSError as error:
            tried.append(f"  {candidate}: {error}")
    raise LibraryError("\n".join(["the library wrapper_audio was not found. Tried:", *tried, _ADVICE]))


def load(path: Union[None, str, "os.PathLike[str]"] = None) -> ctypes.CDLL:
    """Loads the shared library; if you do not call this, the first object does.

    The library is looked for at `path`, at the path in the environment variable WRAPPER_AUDIO_LIBRARY, next to this
    module, and where the system keeps its libraries. If `path` or the variable names one, no other is tried. A process
    loads one library; naming a different one later raises LibraryError.

    Returns it with all functions of its two headers declared, for those who want to call them directly.
    """
    global _loaded, _loaded_from
    with _lock:
        if _loaded is None:
            named = os.fspath(path) if path is not None else os.environ.get("WRAPPER_AUDIO_LIBRARY")
            beside = [str(Path(__file__).resolve().parent / name) for name in _NAMES]
            library = _open_first([named] if named else [*beside, *_NAMES])
            for name, (result, arguments) in {**FUNCTIONS, **CORE_FUNCTIONS}.items():
                try:
                    function = getattr(library, name)
                except AttributeError:
                    wrong = f"{library._name} is not {_NAMES[0]}: it lacks {name}. Name the right file"
                    raise LibraryError(wrong) from None
                function.restype, function.argtypes = result, arguments
            _loaded, _loaded_from = library, library._name
        elif path is not None and os.fspath(path) != _loaded_from:
            text = f"{_loaded_from} is already loaded, so {os.fspath(path)} cannot be. Call load() before anything else"
            raise LibraryError(text)
        return _loaded


class Handle(c_void_p):
    """A pointer that is freed with its last reference.

    A call on it holds a reference, so that nothing is freed during a call on another thread. The library writes the
    pointer into the object, so that no Ctrl-C can strike between its return and our storing it.
    """

    free: Any = None

    def __del__(self) -> None:
        if self.value is not None:
            self.free(self)


def make(create: str, free: str, *arguments: Any) -> Handle:
    """A handle that the function `create` creates."""
    library, handle = load(), Handle()
    handle.free = getattr(library, free)
    check(getattr(library, create)(ctypes.byref(handle), *arguments), given=arguments)
    return handle


class Closing:
    """An object that holds a handle until it is closed."""

    _handle: Optional[Handle] = None

    def _pointer(self) -> Handle:
        handle = self._handle
        if handle is None:
            raise ClosedError(f"the {type(self).__name__} is closed; create a new one")
        return handle

    def close(self) -> None:
        """Frees it. May be called again."""
        self._handle = None

    @property
    def closed(self) -> bool:
        """Whether it has been closed."""
        return self._handle is None

    def __enter__(self: _Self) -> _Self:
        self._pointer()
        return self

    def __exit__(self, *error: object) -> None:
        self.close()


_KINDS: Dict[int, Type[AudioError]] = {
    Status.INVALID_ARGUMENT: ArgumentError,
    Status.UNKNOWN_DEVICE: UnknownDeviceError,
    Status.AMBIGUOUS_DEVICE: AmbiguousDeviceError,
}


def advice(status: int) -> str:
    """What to do about a failure; "" for a status that only a newer library has."""
    if status == Status.INVALID_ARGUMENT:
        return "help(wrapper_audio) has the ranges"
    text: bytes = load().wrapper_audio_status_advice(status)
    return text.decode()


def check(
    status: int,
    kind: Type[AudioError] = AudioError,
    reason: str = "",
    log_line: Optional[str] = None,
    given: Sequence[Any] = (),
) -> None:
    """Raises the error that a status below 0 stands for."""
    if status < 0:
        text = reason or load().wrapper_audio_status_text(status).decode()
        if given:
            text += f": {', '.join(map(_shown, given))}"
        if advice(status):
            text += ("\n" if "\n" in text else ". ") + advice(status)
        raise _KINDS.get(status, kind)(text, status, log_line)


def _shown(argument: Any) -> str:
    options = getattr(argument, "_obj", None)  # of byref()
    if options is None:
        return str(argument)
    return ", ".join(f"{name}={getattr(options, name):g}" for name, _ in options._fields_ if name != "reserved")


def int32(name: str, value: int, lowest: int = 1) -> int:
    """A number to pass to the library unchanged: ctypes would truncate it, and 0 may mean a default there."""
    if not lowest <= value == c_int32(value).value:
        raise ArgumentError(f"{name} is {value}; it must be {lowest} or more, and fit in 32 bits")
    return value


def bytes_of(text: str) -> bytes:
    """An id as the library expects it."""
    if "\0" in text:
        raise ArgumentError("a device id must not contain NUL; pass one from devices()")
    return text.encode(errors="surrogateescape")
