"""What goes wrong, and how it is said."""

from __future__ import annotations

from typing import Optional

from ._interface import Status


class AudioError(Exception):
    """The base of all errors of this package. Its text is an English sentence or more."""

    status: Optional[Status] = None
    """What the library answered; None where it was not asked, and for numbers of a newer library."""
    log_line: Optional[str] = None
    """The line that the capture library wrote to its log about it, or None."""

    def __init__(self, text: str, status: Optional[int] = None, log_line: Optional[str] = None) -> None:
        super().__init__(text)
        self.status = Status(status) if status in list(Status) else None
        self.log_line = log_line


class LibraryError(AudioError, ImportError):
    """The shared library cannot be loaded, or is another one."""


class ArgumentError(AudioError, ValueError):
    """An argument is out of range."""


class OpenError(AudioError):
    """There is no audio system or no such device, or the device refuses."""


class UnknownDeviceError(OpenError):
    """No device has this id. The text lists those there are."""


class AmbiguousDeviceError(OpenError):
    """Several devices match. The text lists them."""


class ReadError(AudioError):
    """The device is gone (status DEVICE_FAILED) or delivers nothing (NO_DATA)."""


class ReadTimeout(AudioError, TimeoutError):
    """The time ran out before a single sample came."""


class ClosedError(AudioError, ValueError):
    """The object has been closed."""
