"""Signal functions for buffers of mono 32-bit floats, full scale 1.0.

A buffer is a numpy array of float32 or an array('f'). All but Resampler work in place.
"""

from __future__ import annotations

import ctypes
import math
import threading
import weakref
from ctypes import byref, c_float, c_int32
from types import TracebackType
from typing import ClassVar, Optional, Type

from ._blocks import Float32Block, float32_pointer, float32_to_read, new_float32
from ._errors import ReplacedError
from ._handle import Handle
from ._library import load

_DESIGN_RATE = 16000  # Hz; what the library's high-pass takes every buffer for
_HIGHEST_RATE = 768000


def _check_rate(rate: int) -> None:
    if not 1 <= rate <= _HIGHEST_RATE:
        raise ValueError(f"the rate is {rate} Hz; it must be from 1 to {_HIGHEST_RATE}")


def _check_finite(name: str, value: float) -> None:
    if not math.isfinite(value):
        raise ValueError(f"{name} is {value}; it must be a number")


class Resampler:
    """Converts blocks from one sample rate to another, by linear interpolation.

    Nothing is filtered, so that a lower rate aliases: 48000 to 16000 gives every third sample. Each block starts anew,
    so that a stream converted in blocks is not the stream converted in one piece.
    """

    def __init__(self, in_rate: int, out_rate: int) -> None:
        """Rates in Hz, 1 to 768000."""
        _check_rate(in_rate)
        _check_rate(out_rate)
        self._ratio = in_rate / out_rate
        self._library = load()
        self._handle = Handle("resampler", self._library.wrapper_audio_resampler_free)
        weakref.finalize(self, self._handle.abandon)
        if not self._handle.make(self._library.wrapper_audio_resampler_init, in_rate, out_rate, 0):
            self.close()
            raise MemoryError("no memory for a resampler")

    def process(self, block: Float32Block) -> Float32Block:
        """Returns the block converted. The count is len(block) * out_rate / in_rate, rounded down, or one less."""
        samples = float32_to_read(block)
        converted = new_float32(int(len(samples) / self._ratio) + 1)
        with self._handle.lock:
            count = self._library.wrapper_audio_resample(
                self._handle.pointer(), samples, len(samples), float32_pointer(converted), len(converted)
            )
        if count < 0:
            raise ValueError(f"{len(samples)} samples at a ratio of {self._ratio} are too many ({count})")
        return converted[:count]

    def close(self) -> None:
        """Frees it. May be called again."""
        self._handle.close()

    def __enter__(self) -> Resampler:
        return self

    def __exit__(
        self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        self.close()


class HighPass:
    """THE high-pass filter of the process, a second-order section against rumble and DC.

    The library has one, with one memory. Making a HighPass takes it over and puts it at rest; an older HighPass is
    then of no use any more and raises ReplacedError, instead of filtering with the settings of the newer one.
    """

    _lock: ClassVar[threading.Lock] = threading.Lock()
    _owner: ClassVar[Optional[HighPass]] = None

    def __init__(self, cutoff_hz: float, q: float = 0.707, *, rate: int = 16000) -> None:
        """Designs the filter.

        cutoff_hz  corner frequency in Hz, above 0 and below rate / 2
        q          quality factor, above 0; 0.707 has no bump at the corner
        rate       of the blocks, in Hz
        """
        _check_rate(rate)
        if not 0 < cutoff_hz < rate / 2:
            raise ValueError(f"the corner is at {cutoff_hz} Hz; it must be above 0 and below {rate / 2}")
        _check_finite("q", q)
        if q <= 0:
            raise ValueError(f"q is {q}; it must be above 0")
        self._library = load()
        with HighPass._lock:
            HighPass._owner = self
            self._library.wrapper_audio_hpf_init(cutoff_hz * _DESIGN_RATE / rate, q)

    def process(self, block: Float32Block) -> None:
        """Filters a block in place, as the continuation of the block before. A NaN spoils all that follow."""
        samples = float32_pointer(block)
        with HighPass._lock:
            if HighPass._owner is not self:
                raise ReplacedError("a newer HighPass took over the filter, of which the process has one")
            self._library.wrapper_audio_hpf_process(None, samples, len(samples))


class GainControl:
    """THE automatic gain control of the process: steers the RMS level towards a target.

    The library has one, with one gain. Making a GainControl takes it over and puts the gain back to 1; an older
    GainControl then raises ReplacedError.
    """

    _lock: ClassVar[threading.Lock] = threading.Lock()
    _owner: ClassVar[Optional[GainControl]] = None

    def __init__(self, target_db: float = -20.0, release_ms: float = 100.0, *, rate: int = 16000) -> None:
        """Sets it up.

        target_db   the RMS level wanted, in dB against full scale; -20 is an amplitude of 0.1
        release_ms  time constant of the gain, up and down alike, in milliseconds; 0 lets the gain jump
        rate        of the blocks, in Hz, 100 or more
        """
        _check_rate(rate)
        if rate < 100:
            raise ValueError(f"the rate is {rate} Hz; it must be 100 or more")
        _check_finite("target_db", target_db)
        _check_finite("release_ms", release_ms)
        if release_ms < 0:
            raise ValueError(f"release_ms is {release_ms}; it must be 0 or more")
        self._step = rate // 100
        self._library = load()
        with GainControl._lock:
            GainControl._owner = self
            self._library.wrapper_audio_agc_init(target_db, release_ms)

    def process(self, block: Float32Block) -> None:
        """Multiplies a block by the gain, in place and in steps of 10 ms, for which the time constant holds.

        At most 20 dB up or down. Silence below -120 dB passes as it is. There is no limiter: the result may exceed
        1.0. A shorter rest counts as a step, so pass whole multiples of 10 ms.
        """
        samples = float32_pointer(block)
        with GainControl._lock:
            if GainControl._owner is not self:
                raise ReplacedError("a newer GainControl took over the gain, of which the process has one")
            for start in range(0, len(samples), self._step):
                count = min(self._step, len(samples) - start)
                step = ctypes.cast(byref(samples, start * 4), ctypes.POINTER(c_float))
                self._library.wrapper_audio_agc_process(None, step, count)


def depop(block: Float32Block, coef: float) -> None:
    """Subtracts from each sample a share of the one before it, in place: y[i] = x[i] - coef * x[i - 1].

    coef is usually between 0 and 1. Nothing is remembered: the first sample of every block passes as it is.
    """
    samples = float32_pointer(block)
    load().wrapper_audio_depop_process(None, samples, len(samples), coef)


_metrics = threading.Lock()


def snr() -> float:
    """The process's signal-to-noise ratio in dB. Nothing feeds it in the library today, so it is -10.0 always."""
    with _metrics:
        return float(load().wrapper_audio_snr())


def clipping_ratio() -> float:
    """The process's share of clipped samples. Nothing feeds it in the library today, so it is 0.0 always."""
    with _metrics:
        return float(load().wrapper_audio_clipping_ratio())


def freeze_noise_profile(freeze: bool = True) -> None:
    """Freezes the process's estimate of the noise floor, or lets it go on and restarts the clipping statistics."""
    with _metrics:
        load().wrapper_audio_update_noise_profile(None, int(freeze))


def denoise_statistics() -> int:
    """The library has no denoise statistics: always 0."""
    answer = c_int32()
    load().wrapper_audio_denoise_stats(None, byref(answer))
    return answer.value
