"""Recording from any microphone as mono blocks at the rate you want, with neural noise suppression, a level meter, a
device list, and signal processors for your own buffers.

    import wrapper_audio

    with wrapper_audio.Recorder(rate=16000, denoise=True) as recorder:
        for block in recorder.blocks(seconds=5):
            print(len(block), recorder.peak)

Levels are linear amplitudes, full scale 1.0; rates are in Hz. `python -m wrapper_audio` lists the devices.
"""

from ._blocks import Float32Block, Int16Block, to_float32, to_int16
from ._devices import Capability, Device, capability, devices, find_device, log_lines, system_device
from ._errors import AmbiguousDeviceError, ArgumentError, AudioError, ClosedError, LibraryError, OpenError
from ._errors import ReadError, ReadTimeout, UnknownDeviceError
from ._interface import Denoising, Signal, Status
from ._library import load
from ._recorder import Level, Meter, Recorder
from ._signal import Converter, Denoiser, DePop, GainControl, HighPass, Limiter, Processor
from ._speech import Utterance, Utterances

__version__ = "1.0.0"

__all__ = [
    "AmbiguousDeviceError", "ArgumentError", "AudioError", "Capability", "ClosedError", "Converter", "DePop",
    "Denoiser", "Denoising", "Device", "Float32Block", "GainControl", "HighPass", "Int16Block", "Level",
    "LibraryError", "Limiter", "Meter", "OpenError", "Processor", "ReadError", "ReadTimeout", "Recorder", "Signal",
    "Status", "UnknownDeviceError", "Utterance", "Utterances", "capability", "devices", "find_device", "load",
    "log_lines", "system_device", "to_float32", "to_int16",
]
