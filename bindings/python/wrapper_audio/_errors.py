"""The errors."""

from __future__ import annotations

from typing import Optional

from ._interface import Status


class AudioError(Exception):
    """The base of all errors of this package. The message says in English what happened and what to do."""

    status: Optional[Status] = None
    """The library's status; None if the error is not the library's, or for a status that only a newer library has."""
    log_line: Optional[str] = None
    """The line that the capture library logged about it, partly in Russian, or None."""

    def __init__(self, text: str, status: Optional[int] = None, log_line: Optional[str] = None) -> None:
        super().__init__(text)
        self.status = Status(status) if status in list(Status) else None
        self.log_line = log_line


class LibraryError(AudioError, ImportError):
    """The shared library cannot be loaded, or is not the right one."""


class ArgumentError(AudioError, ValueError):
    """An argument is out of range."""


class OpenError(AudioError):
    """There is no audio system or no such device, or the device refuses: another program has it (status DEVICE_BUSY),
    this user may not use it (DEVICE_FORBIDDEN), it was unplugged (DEVICE_GONE), or nobody knows (DEVICE_REFUSED).
    Or no device records what the computer plays (NO_SYSTEM_SOUND)."""


class UnknownDeviceError(OpenError):
    """No device has this id. The message lists the devices available."""


class AmbiguousDeviceError(OpenError):
    """Several devices match. The message lists them."""


class ReadError(AudioError):
    """The device failed (status DEVICE_FAILED), is gone (DEVICE_GONE) or delivers nothing (NO_DATA)."""


class ReadTimeout(AudioError, TimeoutError):
    """The time ran out before a single sample arrived."""


class ClosedError(AudioError, ValueError):
    """The object has been closed."""
