"""Signal processors for streams of mono 32-bit floats, full scale 1.0, in blocks of any length."""

from __future__ import annotations

import math
import threading
from ctypes import byref, c_float, c_size_t
from typing import Any, List, Optional

from ._blocks import Float32Block, new_block, samples_of
from ._errors import ArgumentError
from ._interface import Conversion, VoiceOptions
from ._library import Closing, Handle, check, int32, load, make


def conversion(converter: str) -> Conversion:
    if converter not in ("clean", "linear"):
        raise ArgumentError(f"the converter is {converter!r}; it must be 'clean' or 'linear'")
    return Conversion[converter.upper()]


class Processor(Closing):
    """A stream of samples goes in, and a stream comes out. What each makes of it, its class says."""

    def __init__(self, create: str, *arguments: Any, ratio: float = 1.0) -> None:
        self._ratio = ratio
        self._lock = threading.Lock()  # one call at a time
        self._handle = make(create, "wrapper_audio_processor_free", *arguments)

    def process(self, block: Float32Block) -> Float32Block:
        """Takes a block, a numpy array of float32 or an array('f'), and returns the samples that are ready."""
        _, samples = samples_of(block, "f")
        return self._give("process", math.ceil(len(samples) * self._ratio), samples, len(samples))

    def flush(self) -> Float32Block:
        """Ends the stream and returns what is still inside. The next block begins a new stream."""
        return self._give("flush", 0)

    def _give(self, call: str, expected: int, *arguments: Any) -> Float32Block:
        given = new_block("f", expected + self.delay + 1)
        count = c_size_t()
        function = getattr(load(), "wrapper_audio_processor_" + call)
        with self._lock:
            _, samples = samples_of(given, "f")
            check(function(self._pointer(), *arguments, samples, len(samples), byref(count)))
        block: Float32Block = given[: count.value]
        return block

    def reset(self) -> None:
        """Forgets everything that was put in."""
        with self._lock:
            check(load().wrapper_audio_processor_reset(self._pointer()))

    @property
    def delay(self) -> int:
        """The most samples that are kept inside before they are returned."""
        return int(load().wrapper_audio_processor_delay(self._pointer()))


class Denoiser(Processor):
    """Neural noise suppression at any rate. Nothing is delayed: the first sample out belongs to the first one in."""

    def __init__(
        self, rate: int, strength: float = 1.0, out_rate: Optional[int] = None, *, converter: str = "clean"
    ) -> None:
        """Makes one.

        rate       of the blocks given, 100 to 768000 Hz
        strength   from 0.0, nothing, to 1.0, all of the noise is taken away
        out_rate   of the blocks returned, in Hz; as those given if None
        converter  "clean" or "linear", where it is not 48000 Hz; see Converter
        """
        out = rate if out_rate is None else out_rate
        rates = int32("rate", rate), int32("out_rate", out)
        options = VoiceOptions(*rates, strength, 1, conversion(converter))
        super().__init__("wrapper_audio_voice_create", byref(options), ratio=out / rate)

    def speech_probabilities(self) -> List[float]:
        """Takes out the probabilities of speech, one for each 10 ms that were given, 0.0 to 1.0."""
        with self._lock:
            return take_speech(load().wrapper_audio_processor_take_speech, self._pointer())


class Converter(Processor):
    """Converts a stream from one sample rate to another."""

    def __init__(self, in_rate: int, out_rate: int, *, converter: str = "clean") -> None:
        """Rates are 100 to 768000 Hz. "clean" is soxr's high quality; "linear" is quick, and aliases."""
        options = VoiceOptions(int32("in_rate", in_rate), int32("out_rate", out_rate), 0.0, 0, conversion(converter))
        super().__init__("wrapper_audio_voice_create", byref(options), ratio=out_rate / in_rate)


class HighPass(Processor):
    """A high-pass filter of the second order, against rumble and DC."""

    def __init__(self, cutoff_hz: float, q: float = 0.707, *, rate: int = 16000) -> None:
        """The corner is above 0 and below rate / 2, q from 0.05 to 50; 0.707 has no bump at the corner."""
        super().__init__("wrapper_audio_high_pass_create", int32("rate", rate), cutoff_hz, q)


class GainControl(Processor):
    """Steers the RMS level towards a target, in steps of 10 ms and by at most 20 dB. It does not limit."""

    def __init__(self, target_db: float = -20.0, release_ms: float = 100.0, *, rate: int = 16000) -> None:
        """The target is -60 to 0 dB against full scale, the time constant of the gain 0 to 60000 ms."""
        super().__init__("wrapper_audio_gain_control_create", int32("rate", rate), target_db, release_ms)


class Limiter(Processor):
    """Keeps peaks below a ceiling: it looks 5 ms ahead, and what needs no limiting passes unchanged."""

    def __init__(self, ceiling_db: float = -1.0, release_ms: float = 100.0, *, rate: int = 16000) -> None:
        """The ceiling is -60 to 0 dB against full scale, the time constant of the recovery 0 to 60000 ms."""
        super().__init__("wrapper_audio_limiter_create", int32("rate", rate), ceiling_db, release_ms)


class DePop(Processor):
    """Subtracts from each sample a share of the one before it: y[i] = x[i] - coef * x[i - 1]."""

    def __init__(self, coef: float) -> None:
        """The share is 0.0 to 1.0."""
        super().__init__("wrapper_audio_depop_create", coef)


def take_speech(take: Any, handle: Handle) -> List[float]:
    """All probabilities that there are, out of a recorder or a processor."""
    some, every = (c_float * 256)(), []
    count = len(some)
    while count == len(some):
        count = take(handle, some, len(some))
        every += some[:count]
    return every
