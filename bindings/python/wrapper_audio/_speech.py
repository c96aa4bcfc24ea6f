"""What is spoken, one utterance after the other."""

from __future__ import annotations

import asyncio
from ctypes import byref, c_float
from typing import TYPE_CHECKING, Any, NamedTuple, Optional

from ._blocks import new_block, to_int16
from ._errors import AudioError, ClosedError, ReadError
from ._interface import Block, SpeechOptions, SpeechPiece, Status
from ._library import load, make

if TYPE_CHECKING:
    from ._recorder import Recorder

_SLICE = 0.1  # seconds, at most, between the end of an utterance and its return


class Utterance(NamedTuple):
    """What somebody said, with the pause before and behind it."""

    samples: Any  # a block of the recorder's dtype
    start: float  # seconds since the recorder was opened
    end: float


class Utterances:
    """Iterates over utterances, with `for` or `async for`, until the recorder is stopped or closed.

    Raises ReadError if the device failed, after the utterance in which it did.
    """

    def __init__(self, recorder: Recorder, code: str, options: SpeechOptions) -> None:
        self._recorder, self._code = recorder, code
        self._gate = make("wrapper_audio_speech_gate_create", "wrapper_audio_speech_gate_free", byref(options))
        self._room = (c_float * 4096)()
        self._begin, self._sound = 0, bytearray()  # of the utterance that is being spoken
        self._ended = False
        self._failed: Optional[AudioError] = None

    def __iter__(self) -> Utterances:
        return self

    def __next__(self) -> Utterance:
        while True:
            utterance = self._take()
            if utterance is not None:
                return utterance
            if not self._listen():
                raise StopIteration

    def __aiter__(self) -> Utterances:
        return self

    async def __anext__(self) -> Utterance:
        while True:
            utterance = self._take()
            if utterance is not None:
                return utterance
            # A slice at a time, so that a task which is cancelled leaves no thread behind that goes on listening.
            if not await asyncio.get_running_loop().run_in_executor(None, self._listen):
                raise StopAsyncIteration

    def _take(self) -> Optional[Utterance]:
        """The oldest utterance, if it has ended."""
        piece = SpeechPiece(count=1)
        while piece.count > 0:
            load().wrapper_audio_speech_gate_take(self._gate, self._room, len(self._room), byref(piece))
            if piece.begins:
                self._begin = piece.position
            self._sound += memoryview(self._room).cast("B")[: 4 * piece.count]
            if piece.ends:
                samples = new_block("f", len(self._sound) // 4)
                memoryview(samples).cast("B")[:] = self._sound
                self._sound = bytearray()
                times = self._begin / self._recorder.rate, (piece.position + piece.count) / self._recorder.rate
                return Utterance(samples if self._code == "f" else to_int16(samples), *times)
        return None

    def _listen(self) -> bool:
        """Reads a little. Returns False when there is nothing more to come."""
        if self._ended:
            failed, self._failed = self._failed, None
            if failed is not None:
                raise failed
            return False
        block = Block()
        try:
            count, wait = max(int(self._recorder.rate * _SLICE), 1), int(1000 * _SLICE)
            handle = self._recorder._pointer()
            status = load().wrapper_audio_recorder_read_gate(handle, self._gate, count, wait, byref(block))
            self._recorder._tell_signal(handle)
        except ClosedError:
            status = Status.STOPPED
        if block.count > 0:
            self._recorder._last = block
        if status in (Status.OK, Status.TIMEOUT):
            return True
        if status not in (Status.STOPPED, Status.DEVICE_FAILED, Status.DEVICE_GONE, Status.OUT_OF_MEMORY):
            self._recorder._check(status, ReadError)
        self._ended = True
        try:
            self._recorder._check(status, ReadError)
        except AudioError as error:
            self._failed = error
        load().wrapper_audio_speech_gate_flush(self._gate)
        return True
