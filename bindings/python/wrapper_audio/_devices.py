"""The list of devices, and the library's log."""

from __future__ import annotations

import ctypes
import enum
from ctypes import byref, c_size_t
from dataclasses import dataclass
from typing import List

from . import _interface
from ._errors import AudioError, OpenError
from ._interface import Denoising, Status
from ._library import Handle, bytes_of, check, load, make


@dataclass(frozen=True)
class Device:
    """One audio device of the machine."""

    id: str
    """What Recorder and Meter take. Bytes that are not valid UTF-8 are surrogate escapes."""
    name: str
    """For display."""
    host_api: str
    """The audio API it belongs to, such as "ALSA"."""
    default_rate: int
    """In Hz."""
    input_channels: int
    output_channels: int
    is_default: bool
    """Whether it is the default input device."""
    denoising: Denoising
    """How recording with denoising would work."""

    @property
    def kind(self) -> str:
        """"input" when the device can record, otherwise "output"."""
        return "input" if self.input_channels > 0 else "output"


class Capability(enum.IntEnum):
    """Whether recording is possible at all."""

    NO_PORTAUDIO = 0
    NO_INPUT = 1
    INPUT = 3


def _list() -> Handle:
    try:
        return make("wrapper_audio_device_list_create", "wrapper_audio_device_list_free")
    except AudioError as error:
        raise OpenError(str(error), error.status, error.log_line) from None


def _device(found: _interface.Device) -> Device:
    texts = [text.decode(errors="surrogateescape") for text in (found.id, found.name, found.host_api)]
    numbers = found.default_rate, found.input_channels, found.output_channels
    identifier, name, host_api = texts
    return Device(identifier, name, host_api, *numbers, bool(found.is_default), Denoising(found.denoising))


def devices() -> List[Device]:
    """Lists the machine's audio devices, outputs included.

    PortAudio looks for devices when its first user in the process begins, and not again while a recorder is open.
    """
    library, handle = load(), _list()
    count = library.wrapper_audio_device_list_count(handle)
    return [_device(library.wrapper_audio_device_list_get(handle, index)[0]) for index in range(count)]


def find_device(wanted: str) -> Device:
    """Finds the one input device with this id or, if there is none, with this as a part of its id, ignoring case.

    Raises UnknownDeviceError or AmbiguousDeviceError, whose messages list the candidates, or OpenError.
    """
    library, handle = load(), _list()
    index, reason = c_size_t(), ctypes.create_string_buffer(1 << 16)
    status = library.wrapper_audio_device_list_find(handle, bytes_of(wanted), byref(index), reason, len(reason))
    check(status, OpenError, reason.value.decode(errors="replace"))
    return _device(library.wrapper_audio_device_list_get(handle, index)[0])


def system_device() -> Device:
    """Finds the device that records what the computer plays: on PulseAudio and PipeWire, the monitor of the output that
    programs play into unless they choose another.

    Raises OpenError with the status NO_SYSTEM_SOUND where there is none.
    """
    library, handle = load(), _list()
    index = c_size_t()
    check(library.wrapper_audio_device_list_find_system(handle, byref(index)), OpenError)
    return _device(library.wrapper_audio_device_list_get(handle, index)[0])


def capability() -> Capability:
    """Returns whether PortAudio starts, and whether any device can record."""
    try:
        inputs = any(device.input_channels > 0 for device in devices())
    except OpenError as error:
        if error.status != Status.NO_AUDIO_SYSTEM:
            raise
        return Capability.NO_PORTAUDIO
    return Capability.INPUT if inputs else Capability.NO_INPUT


def log_lines() -> List[str]:
    """Returns what the capture library and PortAudio have logged since the last call; the last 1000 lines are kept.

    None of it goes to standard error. The capture library's lines are partly in Russian. Replace control characters
    before you display a line: it may contain names from outside.
    """
    taken, text = b"", ctypes.create_string_buffer(1 << 16)
    while load().wrapper_audio_log_take(text, len(text)) > 0:
        taken += text.value
    return taken.decode(errors="replace").split("\n")[:-1]
