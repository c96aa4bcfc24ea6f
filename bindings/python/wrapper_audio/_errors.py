"""What goes wrong, and how it is said."""

from __future__ import annotations

__all__ = ["AudioError", "ClosedError", "LibraryError", "OpenError", "ReadError", "ReplacedError"]


class AudioError(Exception):
    """The base of all errors of this package.

    Where the library gave its reason, the text is the line that the library wrote to standard error.
    """


class LibraryError(AudioError, ImportError):
    """The shared library cannot be loaded, or is another one."""


class OpenError(AudioError):
    """There is no such device, or PortAudio or the device refuses."""


class ReadError(AudioError):
    """The device failed during a read. The object is still open: read again, or close it."""


class ClosedError(AudioError, ValueError):
    """The object has been closed."""


class ReplacedError(AudioError):
    """The process has one of these, and a newer object took it over."""
