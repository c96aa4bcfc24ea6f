"""Handles: kept whatever interrupts, given back once, one opening or closing at a time."""

import sys
import threading
import time
import unittest
from array import array
from types import FrameType
from typing import Any, Callable, List, Optional

import support  # noqa: F401  sets the microphone
from wrapper_audio import Meter, Recorder, _handle
from wrapper_audio._handle import Handle


def interrupt_at(step: int, action: Callable[[], object]) -> bool:
    """Runs the action and raises KeyboardInterrupt before the given step of the interpreter in make or _free_all.

    Not in the functions around them: `with` on a lock has steps between which Python never looks for Ctrl-C.
    """
    left = [step]

    def trace(frame: FrameType, event: str, argument: Any) -> Optional[Callable[..., Any]]:
        if frame.f_code not in (Handle.make.__code__, Handle._free_all.__code__):
            return None
        frame.f_trace_opcodes = True
        if event == "opcode":
            left[0] -= 1
            if left[0] < 0:
                raise KeyboardInterrupt
        return trace

    sys.settrace(trace)
    try:
        action()
    except KeyboardInterrupt:
        return True
    finally:
        sys.settrace(None)
    return False


class Handles(unittest.TestCase):
    def setUp(self) -> None:
        self.freed: List[Optional[int]] = []

    def test_an_interrupt_before_any_step_of_making_loses_no_pointer(self) -> None:
        for step in range(1000):
            pointers = array("i", [7])
            handle = Handle("thing", self.freed.append)
            interrupted = interrupt_at(step, lambda: handle.make(pointers.pop, 0))
            handle.close()
            self.assertEqual(len(self.freed) + len(pointers), 1, step)
            if not interrupted:
                break
            self.freed.clear()
        self.assertGreater(step, 5)
        self.assertEqual(self.freed, [7])

    def test_an_interrupt_before_any_step_of_closing_frees_once_in_the_end(self) -> None:
        for step in range(1000):
            handle = Handle("thing", self.freed.append)
            handle.make(abs, 7)
            interrupted = interrupt_at(step, handle.close)
            handle.close()
            self.assertEqual(self.freed, [7], step)
            if not interrupted:
                break
            self.freed.clear()
        self.assertGreater(step, 10)

    def test_what_was_not_made_is_not_freed(self) -> None:
        handle = Handle("thing", self.freed.append)
        self.assertFalse(handle.make(next, iter([None])))
        handle.close()
        self.assertEqual(self.freed, [])


class OneAtATime(unittest.TestCase):
    def assert_waits(self, action: Callable[[], Any]) -> Any:
        """While somebody else opens or closes, the action does not happen."""
        result: List[Any] = []
        thread = threading.Thread(target=lambda: result.append(action()))
        with _handle.opening_and_closing:
            thread.start()
            time.sleep(0.1)
            self.assertEqual(result, [])
        thread.join(10)
        self.assertEqual(len(result), 1)
        return result[0]

    def test_whatever_opens_or_closes_a_stream_waits_for_its_turn(self) -> None:
        recorder = self.assert_waits(Recorder)
        self.assert_waits(recorder.release)
        self.assert_waits(recorder.open)
        self.assert_waits(recorder.close)
        self.assert_waits(self.assert_waits(Meter).close)

    def test_reads_do_not_wait(self) -> None:
        with Recorder() as recorder, Meter() as meter:
            done = threading.Event()
            thread = threading.Thread(target=lambda: [recorder.read(), meter.read(), done.set()])  # type: ignore[func-returns-value]
            with _handle.opening_and_closing:
                thread.start()
                self.assertTrue(done.wait(10))
            thread.join()


if __name__ == "__main__":
    unittest.main()
