"""Recording, and the level meter."""

from __future__ import annotations

import atexit
import ctypes
import math
import os
import time
import warnings
import weakref
from ctypes import byref
from typing import Any, Callable, Iterator, List, NamedTuple, Optional, Tuple, Type, Union

from ._blocks import Float32Block, Int16Block, new_block, samples_of, to_int16
from ._devices import Device
from ._errors import ArgumentError, AudioError, ClosedError, OpenError, ReadError, ReadTimeout
from ._interface import Block, Denoising, RecorderInfo, RecorderOptions, RecorderTextKind, Signal, SpeechOptions, Status
from ._library import Closing, Handle, bytes_of, check, int32, load, make
from ._signal import conversion, take_speech
from ._speech import Utterances

_SLICE = 0.2  # seconds; Python looks for Ctrl-C when a call has returned


def _of_block(name: str, doc: str) -> Any:
    return property(lambda recorder: getattr(recorder._last, name), doc=doc)


def _of_recording(name: str, doc: str) -> Any:
    return property(lambda recorder: getattr(recorder._info(), name), doc=doc)


class Recorder(Closing):
    """A microphone: mono samples at the rate you want.

        with wrapper_audio.Recorder(rate=16000, denoise=True) as recorder:
            for block in recorder.blocks(seconds=5):
                ...

    A thread of the library records, and keeps the sound until it is read. Blocks are numpy arrays if numpy can be
    imported, otherwise array('h') or array('f'). Any method may be called on any thread. Ctrl-C interrupts a read
    within 0.2 s. `for block in recorder` continues until the recorder is stopped or closed, on whatever thread.
    """

    def __init__(
        self,
        device: Union[None, str, Device] = None,
        *,
        rate: int = 16000,
        denoise: float = False,
        undenoised: bool = False,
        speech: bool = False,
        converter: str = "clean",
        block_ms: int = 30,
        dtype: str = "int16",
        buffer_ms: int = 5000,
        stall_ms: int = 1500,
        reconnect: bool = False,
        on_signal: Optional[Callable[[Signal], object]] = None,
        armed: bool = False,
    ) -> None:
        """Opens the microphone at once, or with armed=True leaves that to open().

        device     a Device or its id; None or "" is the default input device. find_device() accepts parts of ids.
        rate       of the samples returned, 100 to 768000 Hz
        denoise    neural noise suppression, whatever the device's rate: False, True, or a share from 0.0 to 1.0
        undenoised keep the sound as it is without denoising, too, for read_both()
        speech     report the probability of speech even without denoising
        converter  of sample rates: "clean" is soxr's high quality; "linear" is fast, but aliases
        block_ms   length of a block in milliseconds
        dtype      "int16": samples from -32767 to 32767; "float32": full scale 1.0
        buffer_ms  how much sound is kept for a program that reads late, 100 to 60000
        stall_ms   how long a device may deliver nothing before a read fails, 100 to 60000
        reconnect  wait for a device that fails or is unplugged while recording, and go on: what it did not deliver
                   counts as dropped, `signal` is Signal.LOST meanwhile, and reads wait or time out
        on_signal  called with `signal` when a read finds that it has changed, on the thread that reads, every 0.2 s at
                   most while it waits. What it raises, the read raises in place of the samples it was to return

        Raises OpenError; UnknownDeviceError lists the devices available.
        """
        if dtype not in ("int16", "float32"):
            raise ArgumentError(f"the dtype is {dtype!r}; it must be 'int16' or 'float32'")
        self._code = {"int16": "h", "float32": "f"}[dtype]
        self._length = max(int32("block_ms", block_ms) * int32("rate", rate) // 1000, 1)
        self._device_id = bytes_of(device.id if isinstance(device, Device) else device or "")
        self._last, self._stalled = Block(speech_probability=-1.0), False
        self._on_signal, self._told = on_signal, Signal.UNKNOWN
        self.rate, self.block_ms = rate, block_ms
        if undenoised and not denoise:
            raise ArgumentError("undenoised=True needs denoise")
        late = int32("buffer_ms", buffer_ms), int32("stall_ms", stall_ms)
        options = RecorderOptions(rate, denoise, speech, conversion(converter), *late, undenoised, reconnect)
        self._hears, self._keeps_undenoised = bool(denoise or speech), bool(undenoised)
        self._library = load()
        self._handle = make("wrapper_audio_recorder_create", "wrapper_audio_recorder_free", byref(options))
        _recorders.add(self)
        if not armed:
            try:
                self.open()
            except BaseException:
                self.close()
                raise

    def open(self) -> None:
        """Opens the microphone, also after stop(): recording starts afresh, and what has not been read is lost.

        Raises OpenError, after which you may try again.
        """
        self._check(self._library.wrapper_audio_recorder_open(self._pointer(), self._device_id), OpenError)

    def stop(self) -> None:
        """Stops recording and releases the microphone, within a second. What was recorded can still be read."""
        status = self._library.wrapper_audio_recorder_stop(self._pointer())
        if status != Status.INVALID_STATE:  # stopped already, or never opened
            self._check(status, ReadError)

    def close(self) -> None:
        """Closes the recorder. May be called again, and while another thread reads, which then gets what there is."""
        handle = self._handle
        if handle is not None:
            self._library.wrapper_audio_recorder_stop(handle)
            self._handle = None

    def __del__(self) -> None:
        if self._handle is not None:
            try:
                text = "a recorder was not closed; close it, or use it in a with statement"
                warnings.warn(text, ResourceWarning, stacklevel=2, source=self)
            finally:
                self.close()

    def read(self, count: Optional[int] = None, timeout: Optional[float] = None) -> Any:
        """Waits for `count` samples, by default a block of block_ms, and returns them.

        timeout  how long to wait at most, in seconds; 0 does not wait, None waits as long as the device delivers

        Returns fewer samples when the time runs out, the recorder is stopped or the device fails; none at all once it
        is stopped and everything has been read. Raises ReadTimeout if the time runs out before the first sample,
        ReadError if the device failed and everything before that has been read.
        """
        block = new_block(self._code, self._length if count is None else int32("count", count, 0))
        return block[: self.read_into(block, timeout)]

    def read_into(self, block: Union[Int16Block, Float32Block], timeout: Optional[float] = None) -> int:
        """Like read(), into your own block of 16-bit samples or floats. Returns the number of samples read."""
        code, samples = samples_of(block, "hf", written=True)
        return self._read("wrapper_audio_recorder_read_" + {"h": "s16", "f": "f32"}[code], [samples], timeout)

    def read_both(self, count: Optional[int] = None, timeout: Optional[float] = None) -> Tuple[Any, Any]:
        """Like read(), and returns the same samples without denoising, too: (denoised, undenoised).

        Listeners want the first, and recognisers often do better with the second. All other reads return denoised
        samples only. The recorder needs undenoised=True.
        """
        if not self._keeps_undenoised:
            raise ArgumentError("read_both() needs a Recorder with undenoised=True")
        length = self._length if count is None else int32("count", count, 0)
        both = new_block("f", length), new_block("f", length)
        samples = [samples_of(block, "f", written=True)[1] for block in both]
        got = self._read("wrapper_audio_recorder_read_both_f32", samples, timeout)
        denoised, undenoised = (block[:got] if self._code == "f" else to_int16(block[:got]) for block in both)
        return denoised, undenoised

    def _read(self, name: str, blocks: List[Any], timeout: Optional[float]) -> int:
        """Into arrays of the same length. Returns how many samples came into each."""
        if timeout is not None and not timeout >= 0:
            raise ArgumentError(f"the timeout is {timeout}; it must be 0 or more")
        stalled, self._stalled = self._stalled, False
        if stalled and self.available == 0:
            self._check(Status.NO_DATA, ReadError)
        end = math.inf if timeout is None else time.monotonic() + timeout
        read = getattr(self._library, name)
        handle, whole, part = self._pointer(), Block(), Block()
        kind, length = blocks[0]._type_, len(blocks[0])
        while True:
            left = math.ceil(1000 * max(0, min(_SLICE, end - time.monotonic())))
            at = whole.count * ctypes.sizeof(kind)
            rests = [ctypes.cast(byref(samples, at), ctypes.POINTER(kind)) for samples in blocks]
            status = read(handle, *rests, length - whole.count, left, byref(part))
            _append(whole, part)
            self._tell_signal(handle)
            if status != Status.TIMEOUT or time.monotonic() >= end:
                break
        self._last, self._stalled = whole, whole.count > 0 and status == Status.NO_DATA  # raised by the next read
        if whole.count == 0 and status != Status.STOPPED:
            if status == Status.TIMEOUT:
                raise ReadTimeout(f"no sample arrived within {timeout} s. Read again, or wait longer", status)
            self._check(status, ReadError)
        return int(whole.count)

    def _tell_signal(self, handle: Handle) -> None:
        if self._on_signal is not None:
            signal = self._signal(handle)
            if signal != self._told:
                self._told = signal
                self._on_signal(signal)

    def blocks(self, seconds: Optional[float] = None) -> Iterator[Any]:
        """Iterates over blocks for this many seconds, or until the end; the last block may be shorter.

        Ends without an error when the recorder is stopped, once everything has been read, or when it is closed.
        """
        self._pointer()
        return self._blocks(math.inf if seconds is None else round(seconds * self.rate))

    def _blocks(self, left: float) -> Iterator[Any]:
        while left > 0:
            try:
                block = self.read(int(min(left, self._length)))
            except ClosedError:
                return
            if len(block) == 0:
                return
            left -= len(block)
            yield block

    def __iter__(self) -> Iterator[Any]:
        return self.blocks()

    def utterances(
        self,
        *,
        begin_threshold: Optional[float] = None,
        end_threshold: Optional[float] = None,
        min_speech_ms: Optional[int] = None,
        hang_over_ms: Optional[int] = None,
        pre_roll_ms: Optional[int] = None,
        max_ms: Optional[int] = None,
    ) -> Utterances:
        """Iterates over what is spoken, with `for` or `async for`: samples, start and end of each utterance.

            for utterance in recorder.utterances():
                recognise(utterance.samples)

        begin_threshold  the probability of speech with which an utterance begins
        end_threshold    below this probability speech ends; 0.0 to begin_threshold
        min_speech_ms    what is shorter is not speech, 0 to 10000
        hang_over_ms     how long a pause must last to end an utterance, of which it remains a part, 0 to 60000
        pre_roll_ms      how much sound before speech belongs to an utterance, 0 to 60000
        max_ms           the longest utterance, 100 to 3600000; 0: no limit

        For None, the header of the library has the defaults. The recorder needs `speech`, for raw sound, or `denoise`.
        What is read otherwise meanwhile is missing in the utterances.
        """
        if not self._hears:
            raise ArgumentError("utterances() needs a Recorder with speech=True or denoise")
        options = SpeechOptions()
        self._library.wrapper_audio_speech_defaults(byref(options))
        times = dict(min_speech_ms=min_speech_ms, hang_over_ms=hang_over_ms, pre_roll_ms=pre_roll_ms, max_ms=max_ms)
        options.rate = self.rate
        for name, length in times.items():
            if length is not None:
                setattr(options, name, int32(name, length, 0))
        for name, threshold in dict(begin_threshold=begin_threshold, end_threshold=end_threshold).items():
            if threshold is not None:
                setattr(options, name, threshold)
        return Utterances(self, self._code, options)

    # Of the last block read.

    position: int = _of_block("position", "Position of its first sample since open(), dropped samples included.")
    rms: float = _of_block("rms", "Its root mean square; linear, full scale 1.0.")
    peak: float = _of_block("peak", "Its largest magnitude; linear, full scale 1.0.")
    captured_rms: float = _of_block("captured_rms", "Its root mean square as captured, before noise suppression.")
    captured_peak: float = _of_block("captured_peak", "Its largest magnitude as captured, before noise suppression.")
    clipped: int = _of_block("clipped", "How many samples from the device were at full scale in this time.")

    @property
    def speech_probability(self) -> Optional[float]:
        """The largest probability of speech in it, 0.0 to 1.0; None without `denoise` or `speech`."""
        return None if self._last.speech_probability < 0 else float(self._last.speech_probability)

    def speech_probabilities(self) -> List[float]:
        """Returns the probabilities of speech since the last call, one for each 10 ms read."""
        return take_speech(self._library.wrapper_audio_recorder_take_speech, self._pointer())

    # Of the recording.

    device_rate: int = _of_recording("device_rate", "The rate of the device in Hz; 0 before it is opened.")
    dropped: int = _of_recording("dropped", "Samples lost so far, because the program read too late or in the system.")
    available: int = _of_recording("available", "Samples that a read would return at once.")
    delay: int = _of_recording("delay", "The most samples by which the output lags behind the device.")

    @property
    def denoising(self) -> Denoising:
        """Whether, and how, noise is suppressed."""
        return Denoising(self._info().denoising)

    @property
    def signal(self) -> Signal:
        """What has been heard in the last 2.5 s that were read: SOUND, or ZEROS, HISS or CLIPPING, with which nobody
        can be recorded; NO_DATA if the device delivers nothing; LOST if it is waited for with reconnect=True; UNKNOWN
        if it is too early to tell."""
        return self._signal(self._pointer())

    def _signal(self, handle: Handle) -> Signal:
        heard = ctypes.c_int32()
        check(self._library.wrapper_audio_recorder_get_signal(handle, byref(heard)))
        return Signal(heard.value)

    @property
    def first_sample_time(self) -> Optional[int]:
        """When the first sample was captured, on the clock of time.monotonic_ns(); None until it has arrived."""
        return self._info().first_sample_time or None

    @property
    def device(self) -> str:
        """The id of the device that was opened."""
        return self._text(RecorderTextKind.DEVICE_ID)

    @property
    def device_name(self) -> str:
        """Its name for display."""
        return self._text(RecorderTextKind.DEVICE_NAME)

    def _info(self) -> RecorderInfo:
        info = RecorderInfo()
        check(self._library.wrapper_audio_recorder_get_info(self._pointer(), byref(info)))
        return info

    def _text(self, kind: RecorderTextKind) -> str:
        get, handle = self._library.wrapper_audio_recorder_get_text, self._pointer()
        text = ctypes.create_string_buffer(get(handle, kind, None, 0) + 1)
        get(handle, kind, text, len(text))
        return text.value.decode(errors="surrogateescape")

    def _check(self, status: int, kind: Type[AudioError]) -> None:
        if status == Status.INVALID_STATE:  # the library's texts are about an earlier failure
            check(status, kind)
        elif status < 0:
            line = self._text(RecorderTextKind.LOG_LINE).rstrip("\n")
            check(status, kind, self._text(RecorderTextKind.REASON), line or None)


def _append(whole: Block, part: Block) -> None:
    """Adds what is known about the samples that follow."""
    if whole.count == 0:
        ctypes.pointer(whole)[0] = part
        return
    count = whole.count + part.count
    for level in "rms", "captured_rms":
        squares = getattr(whole, level) ** 2 * whole.count + getattr(part, level) ** 2 * part.count
        setattr(whole, level, math.sqrt(squares / count))
    for most in "peak", "captured_peak", "speech_probability":
        setattr(whole, most, max(getattr(whole, most), getattr(part, most)))
    for total in "count", "clipped":
        setattr(whole, total, getattr(whole, total) + getattr(part, total))


_recorders: weakref.WeakSet[Recorder] = weakref.WeakSet()


@atexit.register
def _close_forgotten() -> None:
    for recorder in list(_recorders):
        recorder.__del__()


def _leave_to_parent() -> None:
    """A forked child has its parent's handles, but not their threads."""
    for recorder in list(_recorders):
        if recorder._handle is not None:
            recorder._handle.value = None
            recorder._handle = None


os.register_at_fork(after_in_child=_leave_to_parent)


class Level(NamedTuple):
    """Linear amplitudes, full scale 1.0."""

    peak: float
    rms: float


class Meter(Closing):
    """Listens to a microphone for its level only, 30 ms at a time.

        with wrapper_audio.Meter() as meter:
            for level in meter:
                print(level.peak)
    """

    def __init__(self, device: Union[None, str, Device] = None) -> None:
        """Opens a device, chosen as for Recorder, and starts measuring. Raises OpenError."""
        self._recorder = Recorder(device, converter="linear")
        self._handle = self._recorder._handle

    def read(self, timeout: Optional[float] = None) -> Level:
        """Waits for the next 30 ms of sound and measures it. Raises the errors of Recorder.read()."""
        self._pointer()
        if len(self._recorder.read(timeout=timeout)) == 0:
            raise ClosedError("the Meter is closed; create a new one")  # by another thread, while this one waited
        return Level(self._recorder.captured_peak, self._recorder.captured_rms)

    def __iter__(self) -> Iterator[Level]:
        """Continues until another thread closes the meter."""
        self._pointer()
        return (Level(self._recorder.captured_peak, self._recorder.captured_rms) for _ in self._recorder)

    @property
    def signal(self) -> Signal:
        """What is heard, as Recorder.signal tells it."""
        self._pointer()
        return self._recorder.signal

    def close(self) -> None:
        """Releases the device. May be called again, and on any thread."""
        self._recorder.close()
        self._handle = None
