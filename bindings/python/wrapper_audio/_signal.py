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
        raise ArgumentError(f"converter is {converter!r}; it must be 'clean' or 'linear'")
    return Conversion[converter.upper()]


class Processor(Closing):
    """A stream of samples goes in, and a stream comes out, processed as each class says."""

    def __init__(self, create: str, *arguments: Any, ratio: float = 1.0) -> None:
        self._ratio = ratio
        self._lock = threading.Lock()  # one call at a time
        self._handle = make(create, "wrapper_audio_processor_free", *arguments)

    def process(self, block: Float32Block) -> Float32Block:
        """Takes a block, a numpy array of float32 or an array('f'), and returns the samples that are ready."""
        _, samples = samples_of(block, "f")
        return self._give("process", math.ceil(len(samples) * self._ratio), samples, len(samples))

    def flush(self) -> Float32Block:
        """Ends the stream and returns the samples still inside. The next block starts a new stream."""
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
        """Discards everything inside and starts a new stream."""
        with self._lock:
            check(load().wrapper_audio_processor_reset(self._pointer()))

    @property
    def delay(self) -> int:
        """The most samples that may be held back before they are returned."""
        return int(load().wrapper_audio_processor_delay(self._pointer()))


class Denoiser(Processor):
    """Neural noise suppression at any rate. The output is aligned: the first sample out belongs to the first one in."""

    def __init__(
        self, rate: int, strength: float = 1.0, out_rate: Optional[int] = None, *, converter: str = "clean"
    ) -> None:
        """Creates one.

        rate       of the blocks passed in, 100 to 768000 Hz
        strength   share of the noise to remove, from 0.0 (none) to 1.0 (all)
        out_rate   of the blocks returned, in Hz; None: the same as `rate`
        converter  "clean" or "linear", for rates other than 48000 Hz; see Converter
        """
        out = rate if out_rate is None else out_rate
        rates = int32("rate", rate), int32("out_rate", out)
        options = VoiceOptions(*rates, strength, 1, conversion(converter))
        super().__init__("wrapper_audio_voice_create", byref(options), ratio=out / rate)

    def speech_probabilities(self) -> List[float]:
        """Returns the probabilities of speech since the last call, one for each 10 ms processed, 0.0 to 1.0."""
        with self._lock:
            return take_speech(load().wrapper_audio_processor_take_speech, self._pointer())


class Converter(Processor):
    """Converts a stream from one sample rate to another."""

    def __init__(self, in_rate: int, out_rate: int, *, converter: str = "clean") -> None:
        """Rates are 100 to 768000 Hz. "clean" is soxr's high quality; "linear" is fast, but aliases."""
        options = VoiceOptions(int32("in_rate", in_rate), int32("out_rate", out_rate), 0.0, 0, conversion(converter))
        super().__init__("wrapper_audio_voice_create", byref(options), ratio=out_rate / in_rate)


class HighPass(Processor):
    """A second-order high-pass filter against rumble and DC."""

    def __init__(self, cutoff_hz: float, q: float = 0.707, *, rate: int = 16000) -> None:
        """The corner is above 0 and below rate / 2, q from 0.05 to 50; 0.707 has no peak at the corner."""
        super().__init__("wrapper_audio_high_pass_create", int32("rate", rate), cutoff_hz, q)


class GainControl(Processor):
    """Steers the RMS level towards a target, in steps of 10 ms and by at most 20 dB. There is no limiter."""

    def __init__(self, target_db: float = -20.0, release_ms: float = 100.0, *, rate: int = 16000) -> None:
        """The target is -60 to 0 dB relative to full scale, the time constant of the gain 0 to 60000 ms."""
        super().__init__("wrapper_audio_gain_control_create", int32("rate", rate), target_db, release_ms)


class Limiter(Processor):
    """Keeps peaks below a ceiling: it looks 5 ms ahead, and what needs no limiting passes unchanged."""

    def __init__(self, ceiling_db: float = -1.0, release_ms: float = 100.0, *, rate: int = 16000) -> None:
        """The ceiling is -60 to 0 dB against full scale, the time constant of the recovery 0 to 60000 ms."""
        super().__init__("wrapper_audio_limiter_create", int32("rate", rate), ceiling_db, release_ms)


class DePop(Processor):
    """Subtracts from each sample a fraction of the previous one: y[i] = x[i] - coef * x[i - 1]."""

    def __init__(self, coef: float) -> None:
        """The fraction is 0.0 to 1.0."""
        super().__init__("wrapper_audio_depop_create", coef)


def take_speech(take: Any, handle: Handle) -> List[float]:
    """Takes all probabilities out of a recorder or a processor."""
    some, every = (c_float * 256)(), []
    count = len(some)
    while count == len(some):
        count = take(handle, some, len(some))
        every += some[:count]
    return every
