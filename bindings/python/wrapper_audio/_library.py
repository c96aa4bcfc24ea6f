"""Finds the shared library and knows the signatures of its functions."""

from __future__ import annotations

import ctypes
import os
import threading
from ctypes import POINTER, c_char_p, c_float, c_int, c_int16, c_int32, c_void_p
from pathlib import Path
from typing import Any, Dict, List, Optional, Tuple, Union

from ._errors import LibraryError

Path_ = Union[str, "os.PathLike[str]"]

# Result and arguments of every export. Handles are plain addresses, and so is the device list: as c_char_p it would be
# copied, and the address that has to be given back would be lost.
SIGNATURES: Dict[str, Tuple[Any, Optional[List[Any]]]] = {
    "wrapper_audio_init": (c_void_p, [c_int, c_int, c_char_p]),
    "wrapper_audio_arm": (c_void_p, [c_int, c_int, c_char_p]),
    "wrapper_audio_open": (c_int, [c_void_p]),
    "wrapper_audio_read": (
        c_int32,
        [c_void_p, c_int32, POINTER(c_int16), c_int32, POINTER(c_float), POINTER(c_float)],
    ),
    "wrapper_audio_release_stream": (None, [c_void_p]),
    "wrapper_audio_stop": (None, [c_void_p]),
    "wrapper_audio_free": (None, [c_void_p]),
    # These two are placeholders that take any arguments and answer -1 always, so that nothing in Python calls them.
    "wrapper_audio_input_volume_get": (c_float, None),
    "wrapper_audio_input_volume_set": (c_int, None),
    "wrapper_audio_list_devices_json": (c_void_p, []),
    "wrapper_audio_free_text": (None, [c_void_p]),
    "wrapper_audio_capabilities": (c_int, []),
    "wrapper_audio_meter_open": (c_void_p, [c_char_p]),
    "wrapper_audio_meter_read": (c_int, [c_void_p, POINTER(c_float), POINTER(c_float)]),
    "wrapper_audio_meter_close": (None, [c_void_p]),
    "wrapper_audio_resampler_init": (c_void_p, [c_int32, c_int32, c_int32]),
    "wrapper_audio_resample": (c_int32, [c_void_p, POINTER(c_float), c_int32, POINTER(c_float), c_int32]),
    "wrapper_audio_resampler_free": (None, [c_void_p]),
    "wrapper_audio_hpf_init": (None, [c_float, c_float]),
    "wrapper_audio_hpf_process": (None, [c_void_p, POINTER(c_float), c_int32]),
    "wrapper_audio_depop_process": (None, [c_void_p, POINTER(c_float), c_int32, c_float]),
    "wrapper_audio_agc_init": (None, [c_float, c_float]),
    "wrapper_audio_agc_process": (None, [c_void_p, POINTER(c_float), c_int32]),
    "wrapper_audio_snr": (c_float, []),
    "wrapper_audio_clipping_ratio": (c_float, []),
    "wrapper_audio_update_noise_profile": (None, [c_void_p, c_int32]),
    "wrapper_audio_denoise_stats": (c_int32, [c_void_p, POINTER(c_int32)]),
}

_NAMES = ("libwrapper_audio.so.1", "libwrapper_audio.so")

_ADVICE = """\
Install the package libwrapper-audio1, or build wrapper_audio and name the file:
  export WRAPPER_AUDIO_LIBRARY=/path/to/libwrapper_audio.so.1
It needs PortAudio and RNNoise (packages libportaudio2 and librnnoise0)."""

_lock = threading.Lock()
_loaded: Optional[ctypes.CDLL] = None
_loaded_from = ""


def _candidates(path: Optional[Path_]) -> List[str]:
    if path is not None:
        return [os.fspath(path)]
    named = os.environ.get("WRAPPER_AUDIO_LIBRARY")
    if named:
        return [named]
    folder = Path(__file__).resolve().parent
    return [str(folder / name) for name in _NAMES] + list(_NAMES)


def _open_first(candidates: List[str]) -> Tuple[ctypes.CDLL, str]:
    tried = []
    for candidate in candidates:
        try:
            # CDLL, not PyDLL: other Python threads run while a call lasts.
            return ctypes.CDLL(candidate), candidate
        except OSError as error:
            tried.append(f"  {candidate}: {error}")
    raise LibraryError("\n".join(["the library wrapper_audio was not found. Tried:", *tried, _ADVICE]))


def load(path: Optional[Path_] = None) -> ctypes.CDLL:
    """Loads the shared library; without a call of yours the first object does.

    It is looked for at `path`, at the environment variable WRAPPER_AUDIO_LIBRARY, beside this module, and where the
    system has its libraries. One that is named, by `path` or by the variable, is the only one tried.

    A process loads one library: its filters are the process's, and PortAudio's streams are. Naming another one later
    raises LibraryError.
    """
    global _loaded, _loaded_from
    with _lock:
        if _loaded is None:
            library, found = _open_first(_candidates(path))
            for name, (result, arguments) in SIGNATURES.items():
                try:
                    function = getattr(library, name)
                except AttributeError:
                    raise LibraryError(f"{found} is not wrapper_audio 1: it has no {name}") from None
                function.restype = result
                function.argtypes = arguments
            _loaded, _loaded_from = library, found
        elif path is not None and os.fspath(path) != _loaded_from:
            raise LibraryError(f"{_loaded_from} is loaded already, so {os.fspath(path)} cannot be")
        return _loaded
