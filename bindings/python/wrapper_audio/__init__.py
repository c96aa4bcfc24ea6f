"""Microphone capture as mono blocks at the rate you want, with neural noise suppression, a level meter and a device
list, and signal functions for your own buffers.

    import wrapper_audio

    with wrapper_audio.Recorder(rate=16000, denoise=True) as recorder:
        for block in recorder.blocks(seconds=5):
            print(len(block), recorder.peak)

Levels are linear amplitudes from 0.0 to 1.0 (full scale), rates are in Hz, durations in milliseconds where nothing else
is said. `python -m wrapper_audio` shows the devices.
"""

from ._blocks import Float32Block, Int16Block, to_float32, to_int16
from ._capture import Capability, Device, Level, Meter, Recorder, capability, devices
from ._errors import AudioError, ClosedError, LibraryError, OpenError, ReadError, ReplacedError
from ._library import load
from ._signal import (
    GainControl,
    HighPass,
    Resampler,
    clipping_ratio,
    denoise_statistics,
    depop,
    freeze_noise_profile,
    snr,
)

__version__ = "1.0.0"

__all__ = [
    "AudioError",
    "Capability",
    "ClosedError",
    "Device",
    "Float32Block",
    "GainControl",
    "HighPass",
    "Int16Block",
    "Level",
    "LibraryError",
    "Meter",
    "OpenError",
    "ReadError",
    "Recorder",
    "ReplacedError",
    "Resampler",
    "capability",
    "clipping_ratio",
    "denoise_statistics",
    "depop",
    "devices",
    "freeze_noise_profile",
    "load",
    "snr",
    "to_float32",
    "to_int16",
]
