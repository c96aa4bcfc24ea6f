"""Finds and loads the shared library, and calls it."""

from __future__ import annotations

import ctypes
import os
import threading
from ctypes import c_int32, c_void_p
from pathlib import Path
from typing import Any, Dict, List, Optional, Sequence, Type, TypeVar, Union

from ._errors import AmbiguousDeviceError, ArgumentError, AudioError, ClosedError, LibraryError, UnknownDeviceError
from ._interface import CORE_FUNCTIONS, FUNCTIONS, Status

_NAMES = ("libwrapper_audio_recorder.so.1", "libwrapper_audio_recorder.so")

_ADVICE = """\
Install the package libwrapper-audio1, or build wrapper_audio and name the file:
  export WRAPPER_AUDIO_LIBRARY=/path/to/libwrapper_audio_recorder.so.1
It needs libwrapper_audio.so.1, PortAudio, RNNoise and soxr (packages libportaudio2, librnnoise0 and libsoxr0)."""

_Self = TypeVar("_Self", bound="Closing")
_lock = threading.Lock()
_loaded: Optional[ctypes.CDLL] = None
_loaded_from = ""


def _open_first(candidates: List[str]) -> ctypes.CDLL:
    tried = []
    for candidate in candidates:
        try:
            return ctypes.CDLL(candidate)  # not PyDLL: other Python threads run while a call lasts
        except OSError as error:
            tried.append(f"  {candidate}: {error}")
    raise LibraryError("\n".join(["the library wrapper_audio was not found. Tried:", *tried, _ADVICE]))


def load(path: Union[None, str, "os.PathLike[str]"] = None) -> ctypes.CDLL:
    """Loads the shared library; without a call of yours the first object does.

    It is looked for at `path`, at the environment variable WRAPPER_AUDIO_LIBRARY, beside this module, and where the
    system has its libraries. One that is named, by `path` or by the variable, is the only one tried. A process loads
    one library; naming another one later raises LibraryError.

    Returns it with all functions of its two headers declared, for those who want to call them by themselves.
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
                    raise LibraryError(f"{library._name} is not wrapper_audio's recorder: it has no {name}") from None
                function.restype, function.argtypes = result, arguments
            _loaded, _loaded_from = library, library._name
        elif path is not None and os.fspath(path) != _loaded_from:
            raise LibraryError(f"{_loaded_from} is loaded already, so {os.fspath(path)} cannot be")
        return _loaded


class Handle(c_void_p):
    """A pointer that frees itself with its last reference.

    A call on it holds a reference, so that nothing is freed under a call on another thread. The library writes the
    pointer into the object, so that no Ctrl-C can come between its answer and our keeping it.
    """

    free: Any = None

    def __del__(self) -> None:
        if self.value is not None:
            self.free(self)


def make(create: str, free: str, *arguments: Any) -> Handle:
    """A handle that the function `create` made."""
    library, handle = load(), Handle()
    handle.free = getattr(library, free)
    check(getattr(library, create)(ctypes.byref(handle), *arguments), given=arguments)
    return handle


class Closing:
    """What holds a handle until it is closed."""

    _handle: Optional[Handle] = None

    def _pointer(self) -> Handle:
        handle = self._handle
        if handle is None:
            raise ClosedError(f"the {type(self).__name__} is closed")
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


def check(
    status: int,
    kind: Type[AudioError] = AudioError,
    reason: str = "",
    log_line: Optional[str] = None,
    given: Sequence[Any] = (),
) -> None:
    """Raises what a status below 0 stands for."""
    if status < 0:
        text = reason or load().wrapper_audio_status_text(status).decode()
        if given:
            text += f": {', '.join(map(_shown, given))}"
        raise _KINDS.get(status, kind)(text, status, log_line)


def _shown(argument: Any) -> str:
    options = getattr(argument, "_obj", None)  # of byref()
    if options is None:
        return str(argument)
    return ", ".join(f"{name}={getattr(options, name):g}" for name, _ in options._fields_ if name != "reserved")


def int32(name: str, value: int, lowest: int = 1) -> int:
    """A number that the library gets as it is: ctypes would cut it, and 0 may stand for a default there."""
    if not lowest <= value == c_int32(value).value:
        raise ArgumentError(f"{name} is {value}; it must be {lowest} or more, and fit in 32 bits")
    return value


def bytes_of(text: str) -> bytes:
    """An id as the library wants it."""
    if "\0" in text:
        raise ArgumentError("a device id has no NUL")
    return text.encode(errors="surrogateescape")
