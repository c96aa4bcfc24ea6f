"""Microphones: the list of devices, recording, and the level meter."""

from __future__ import annotations

import ctypes
import enum
import json
import math
import weakref
from ctypes import byref, c_float
from dataclasses import dataclass
from types import TracebackType
from typing import (
    Any,
    Callable,
    Generic,
    Iterator,
    List,
    Literal,
    NamedTuple,
    Optional,
    Type,
    TypeVar,
    Union,
    cast,
    overload,
)

from ._blocks import Float32Block, Int16Block, int16_pointer, new_int16, to_float32
from ._errors import AudioError, ClosedError, OpenError, ReadError
from ._handle import Handle, opening_and_closing
from ._library import load
from ._log import listener

_LONGEST_READ_MS = 100  # the library reads no more at once
_DENOISED_MS = 10  # and denoises in frames of this length
_HIGHEST_RATE = 768000

# How the lines begin with which the library refuses to open.
_WHY_NOT_OPEN = (
    "нет устройства ввода",
    "open_input_stream",
    "meter_open: ",
    "Pa_Initialize",
    "rnnoise_create",
    "calloc",
)


@dataclass(frozen=True)
class Device:
    """One audio device of the machine."""

    id: str
    """Names the device for Recorder and Meter. It may change when devices are plugged differently."""
    name: str
    """The name for people."""
    kind: str
    """"input" when the device can capture, otherwise "output"."""
    is_default: bool
    """Whether it is the default input device."""


class Capability(enum.IntEnum):
    """Whether capture is possible at all."""

    NO_PORTAUDIO = 0
    NO_INPUT = 1
    INPUT = 3


class Level(NamedTuple):
    """Linear amplitudes from 0.0 to 1.0 (full scale)."""

    peak: float
    rms: float


def devices() -> List[Device]:
    """Lists the machine's audio devices, outputs too.

    PortAudio looks for devices when the first object of the process opens and keeps the list until the last one is
    closed. A name that is no UTF-8 holds surrogate escapes.
    """
    library = load()
    text = library.wrapper_audio_list_devices_json()
    if text is None:
        raise MemoryError("no memory for the device list")
    try:
        listed = ctypes.string_at(text).decode(errors="surrogateescape")
    finally:
        library.wrapper_audio_free_text(text)
    try:
        return [Device(entry["id"], entry["name"], entry["kind"], entry["isDefault"]) for entry in json.loads(listed)]
    except ValueError:
        raise AudioError(f"the device list cannot be read; it is cut at 65535 bytes, and has {len(listed)}") from None


def capability() -> Capability:
    """Tells whether PortAudio starts, and whether any device can capture."""
    return Capability(load().wrapper_audio_capabilities())


def _id_bytes(device: Union[None, str, Device]) -> Optional[bytes]:
    if device is None:
        return None
    name = (device.id if isinstance(device, Device) else device).encode(errors="surrogateescape")
    if b"\0" in name:
        raise ValueError("a device id has no NUL")
    return name


_Self = TypeVar("_Self", bound="_Stream")


class _Stream:
    """What a recorder and a meter share: a handle that closes with `with`, by close(), or in the end by itself."""

    def __init__(self, noun: str, free: Callable[[Optional[int]], Any]) -> None:
        self._handle = Handle(noun, free)
        weakref.finalize(self, self._handle.abandon)

    def _make(self, function: Callable[..., Optional[int]], *arguments: Any) -> None:
        try:
            with opening_and_closing, listener.listening():
                if not self._handle.make(function, *arguments):
                    raise OpenError(listener.reason(*_WHY_NOT_OPEN) or "no stream opens, and the library gives no reason")
        except BaseException:
            self.close()
            raise

    def close(self) -> None:
        """Gives the device back. Any thread may call it, and it may be called again.

        While another thread reads it waits for that read, which is over within the block's length. It would wait for
        ever on a device that delivers nothing.
        """
        self._handle.close()

    @property
    def closed(self) -> bool:
        """Whether it has been closed."""
        return self._handle.closed

    def __enter__(self: _Self) -> _Self:
        with self._handle.lock:
            self._handle.pointer()
        return self

    def __exit__(
        self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        self.close()


BlockT = TypeVar("BlockT", Int16Block, Float32Block)


class Recorder(_Stream, Generic[BlockT]):
    """A microphone: blocks of mono samples at the rate you want.

        with wrapper_audio.Recorder(rate=16000, denoise=True) as recorder:
            for block in recorder.blocks(seconds=5):
                ...

    `for block in recorder` goes on until another thread closes the recorder. Blocks are numpy arrays if numpy can be
    imported, otherwise array('h') or array('f').

    Read without long pauses: PortAudio keeps at least 30 ms, and what it had to drop is lost without a word. Different
    recorders may be read on different threads at once. With denoise a thread needs a stack of 128 KiB; Python's have
    more unless threading.stack_size() said otherwise.
    """

    rms: float = 0.0
    """Root mean square of the block read last, before clipping; linear, 0.0 to 1.0."""
    peak: float = 0.0
    """Largest magnitude in the block read last; linear, 0.0 to 1.0."""

    @overload
    def __init__(
        self: Recorder[Int16Block],
        device: Union[None, str, Device] = None,
        *,
        rate: int = 16000,
        denoise: bool = False,
        block_ms: int = 30,
        dtype: Literal["int16"] = "int16",
        armed: bool = False,
    ) -> None:
        ...

    @overload
    def __init__(
        self: Recorder[Float32Block],
        device: Union[None, str, Device] = None,
        *,
        rate: int = 16000,
        denoise: bool = False,
        block_ms: int = 30,
        dtype: Literal["float32"],
        armed: bool = False,
    ) -> None:
        ...

    def __init__(
        self,
        device: Union[None, str, Device] = None,
        *,
        rate: int = 16000,
        denoise: bool = False,
        block_ms: int = 30,
        dtype: str = "int16",
        armed: bool = False,
    ) -> None:
        """Takes the microphone at once, or with armed=True only chooses it: open() takes it then.

        device    a Device or its id; None or "" is the default input device. An id that matches none is reported on
                  standard error, and the default device is taken.
        rate      of the samples returned, in Hz. The device runs at its own default rate. Whole ratios such as 48000
                  to 16000 are averaged, others interpolated, which aliases.
        denoise   neural noise suppression. The library skips it on devices whose default rate is not 48000 Hz.
        block_ms  length of a block in milliseconds, 1 to 100, with denoise a multiple of 10. 30 suits every host
                  API; PortAudio 19.6 garbles JACK devices at any other length.
        dtype     "int16": samples from -32767 to 32767; "float32": from -1.0 to 1.0

        Raises OpenError with the library's reason.
        """
        if not 1 <= rate <= _HIGHEST_RATE:
            raise ValueError(f"the rate is {rate} Hz; it must be from 1 to {_HIGHEST_RATE}")
        if dtype not in ("int16", "float32"):
            raise ValueError(f"the dtype is {dtype!r}; it must be 'int16' or 'float32'")
        self._denoise = bool(denoise)
        self._block_ms = self._length(block_ms)
        self._rate, self._dtype = rate, dtype
        self._library = load()
        self._may_be_stopped = False
        identifier = _id_bytes(device)
        super().__init__("recorder", self._library.wrapper_audio_free)
        create = self._library.wrapper_audio_arm if armed else self._library.wrapper_audio_init
        self._make(create, rate, int(self._denoise), identifier)
        self._capturing = not armed

    def _length(self, ms: Optional[int]) -> int:
        if ms is None:
            return self._block_ms
        if not 1 <= ms <= _LONGEST_READ_MS:
            raise ValueError(f"the block is {ms} ms long; it must be from 1 to {_LONGEST_READ_MS}")
        if self._denoise and ms % _DENOISED_MS != 0:
            raise ValueError(f"the block is {ms} ms long; a denoised one must be a multiple of {_DENOISED_MS}")
        return ms

    @property
    def rate(self) -> int:
        """Rate of the samples returned, in Hz."""
        return self._rate

    @property
    def block_ms(self) -> int:
        """Length of a block in milliseconds."""
        return self._block_ms

    def open(self) -> None:
        """Takes the microphone, also after stop() or release(). Raises OpenError; it may then be tried again."""
        with self._handle.lock, opening_and_closing, listener.listening():
            pointer = self._handle.pointer()
            if self._may_be_stopped:  # opened as it is, it would lose its stopped stream
                self._library.wrapper_audio_release_stream(pointer)
                self._may_be_stopped = False
            if self._library.wrapper_audio_open(pointer) != 0:
                raise OpenError(listener.reason("open_input_stream") or "the device refuses (-1) without a reason")
            self._capturing = True

    def stop(self) -> None:
        """Stops capturing but keeps the device; open() goes on. Waits for a read of another thread, as close() does."""
        with self._handle.lock:
            pointer = self._handle.pointer()
            self._capturing, self._may_be_stopped = False, True
            self._library.wrapper_audio_stop(pointer)

    def release(self) -> None:
        """Gives the microphone back; open() takes it again. Waits for a read of another thread, as close() does."""
        with self._handle.lock, opening_and_closing:
            pointer = self._handle.pointer()
            self._capturing = False
            self._library.wrapper_audio_release_stream(pointer)
            self._may_be_stopped = False

    def read_into(self, block: Int16Block, ms: Optional[int] = None) -> int:
        """Waits for sound and writes it into a block of yours; for those who read without making new blocks.

        block  16-bit samples, a numpy array or an array('h'); what lies beyond its length is lost
        ms     how long in milliseconds, as block_ms, which it is if not given

        Returns the number of samples written. Raises ReadError when the device fails. Other Python threads run
        meanwhile; Ctrl-C takes effect behind the read.
        """
        ms = self._length(ms)
        samples = int16_pointer(block)
        if len(samples) == 0:
            raise ValueError("the block has no room")
        rms, peak = c_float(), c_float()
        with self._handle.lock:
            pointer = self._handle.pointer()
            with listener.listening():
                count = self._library.wrapper_audio_read(pointer, ms, samples, len(samples), byref(rms), byref(peak))
                reason = listener.reason("Pa_ReadStream") if count < 0 else None
            if count < 0 and not self._capturing and reason is None:
                raise AudioError("the recorder has no microphone at the moment: open() takes it")
            if count < 0:
                raise ReadError(reason or "the device failed during a read (-1), and the reason was not heard")
            self.rms, self.peak = rms.value, peak.value
        return int(count)

    def read(self, ms: Optional[int] = None) -> BlockT:
        """Waits for the next block of sound and returns it. ms and errors are those of read_into()."""
        ms = self._length(ms)
        block = new_int16(max(self._rate * ms // 1000, 1))
        count = self.read_into(block, ms)
        if count < len(block):
            block = block[:count]
        return cast(BlockT, to_float32(block) if self._dtype == "float32" else block)

    def blocks(self, seconds: Optional[float] = None) -> Iterator[BlockT]:
        """Iterates over the blocks of so many seconds, rounded up to whole blocks; without a number, until closed.

        Ends without an error when another thread closes the recorder meanwhile.
        """
        with self._handle.lock:
            self._handle.pointer()
        return self._blocks(None if seconds is None else math.ceil(round(seconds * 1000) / self._block_ms))

    def _blocks(self, count: Optional[int]) -> Iterator[BlockT]:
        done = 0
        while count is None or done < count:
            try:
                block = self.read()
            except ClosedError:
                return
            yield block
            done += 1

    def __iter__(self) -> Iterator[BlockT]:
        return self.blocks()


class Meter(_Stream):
    """A light second way to listen to a microphone, for its level only.

        with wrapper_audio.Meter() as meter:
            for level in meter:
                print(level.peak)
    """

    def __init__(self, device: Union[None, str, Device] = None) -> None:
        """Opens a device, chosen as for Recorder, and starts to measure. Raises OpenError."""
        self._library = load()
        identifier = _id_bytes(device)
        super().__init__("meter", self._library.wrapper_audio_meter_close)
        self._make(self._library.wrapper_audio_meter_open, identifier)

    def read(self) -> Level:
        """Waits for the next 30 ms of sound and measures them. Raises ReadError; the meter stays usable."""
        peak, rms = c_float(), c_float()
        with self._handle.lock:
            pointer = self._handle.pointer()
            with listener.listening():
                if self._library.wrapper_audio_meter_read(pointer, byref(peak), byref(rms)) < 0:
                    # of several failures in a row the library tells the first only
                    raise ReadError(listener.reason("meter_read") or "the device failed (-1), as it did before")
        return Level(peak.value, rms.value)

    def __iter__(self) -> Iterator[Level]:
        """Goes on until another thread closes the meter."""
        with self._handle.lock:
            self._handle.pointer()
        return self._levels()

    def _levels(self) -> Iterator[Level]:
        while True:
            try:
                level = self.read()
            except ClosedError:
                return
            yield level
