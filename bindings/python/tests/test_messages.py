"""What a person sees of an error: English, with advice. The capture library's own line, partly in Russian, is an
attribute of the error only."""

import json
import re
import unittest
from typing import Any, List, NamedTuple, Optional

import support
import wrapper_audio
from wrapper_audio import Status, _library

CYRILLIC = re.compile("[\u0400-\u052f]")
TRY = """
import json, wrapper_audio
from wrapper_audio import *

def told(call, *arguments, **named):
    try:
        call(*arguments, **named)
        print("null")
    except Exception as error:
        attributes = getattr(error, "status", None), getattr(error, "log_line", None)
        print(json.dumps([type(error).__name__, attributes[0] and attributes[0].name, str(error), attributes[1]]))

"""


class Told(NamedTuple):
    kind: str
    status: Optional[str]
    text: str
    log_line: Optional[str]


class Messages(support.ProcessTest):
    def told(self, program: str, *expected: str, **more: Any) -> List[Told]:
        """The errors of a program, whose types and statuses have to be as expected."""
        output, _ = self.check(TRY + program, **more)
        errors = [Told(*json.loads(line)) for line in output.splitlines()]
        self.assertEqual([f"{kind} {status or ''}".strip() for kind, status, _, _ in errors], list(expected))
        for _, status, text, _ in errors:
            self.assertIsNone(CYRILLIC.search(text), text)
            self.assertGreater(len(text.split()), 4, text)
            if status is not None and status != "TIMEOUT":
                ending = ("\n" if "\n  ALSA:" in text else ". ") + _library.advice(Status[status])
                self.assertTrue(text.endswith(ending), text)
        return errors

    def test_of_devices_and_arguments(self) -> None:
        self.told(
            """
told(Recorder, "nowhere")
told(find_device, "alsa")
told(Recorder, rate=99)
told(Recorder, rate=1 << 40)
told(Recorder, dtype="int8")
told(Recorder, "a\\0b")
told(Converter, 16000, 8000, converter="best")
told(HighPass, -1)
told(to_int16, b"x")
recorder = Recorder(armed=True)
told(recorder.read)
recorder.open()
told(recorder.open)
told(recorder.read, timeout=-1)
recorder.close()
told(recorder.read)
told(load, "/elsewhere.so")
""",
            "UnknownDeviceError UNKNOWN_DEVICE",
            "AmbiguousDeviceError AMBIGUOUS_DEVICE",
            "ArgumentError INVALID_ARGUMENT",
            "ArgumentError",
            "ArgumentError",
            "ArgumentError",
            "ArgumentError",
            "ArgumentError INVALID_ARGUMENT",
            "TypeError",
            "ReadError INVALID_STATE",
            "OpenError INVALID_STATE",
            "ArgumentError",
            "ClosedError",
            "LibraryError",
        )

    def test_of_a_system_without_a_device_or_a_library(self) -> None:
        program = "told(Recorder)\ntold(find_device, 'x')"
        configuration = self.configure(support.NO_DEVICE)
        self.told(program, *["OpenError NO_INPUT_DEVICE"] * 2, ALSA_CONFIG_PATH=configuration)
        for library in "/nowhere.so", "libc.so.6":
            self.told("told(load)", "LibraryError", WRAPPER_AUDIO_LIBRARY=library)

    def test_of_a_device_that_refuses_or_fails_whose_line_is_an_attribute(self) -> None:
        refuses = {"scripted": True, "MICROPHONE_REFUSES": "1"}
        opened = self.told("told(Recorder)\ntold(Meter)", *["OpenError DEVICE_REFUSED"] * 2, **refuses)
        fails = {"scripted": True, "MICROPHONE_FAILS_AFTER": "0"}
        read = self.told("with Recorder() as recorder: told(recorder.read)", "ReadError DEVICE_FAILED", **fails)
        for _, _, text, line in opened + read:
            assert line is not None
            self.assertRegex(line, CYRILLIC)
            self.assertIn(line.split(": ")[1], text)  # PortAudio's words

    def test_of_an_open_that_failed_are_not_those_of_a_later_mistake(self) -> None:
        program = "recorder = Recorder(armed=True)\ntold(recorder.open)\ntold(recorder.read)"
        expected = "OpenError DEVICE_REFUSED", "ReadError INVALID_STATE"
        _, mistake = self.told(program, *expected, scripted=True, MICROPHONE_REFUSES="1")
        self.assertEqual(mistake.text, str(self.error(Status.INVALID_STATE)))
        self.assertIsNone(mistake.log_line)

    def test_of_a_device_that_delivers_nothing(self) -> None:
        program = """
recorder = Recorder(stall_ms=200)
told(recorder.read, timeout=0.1)
told(recorder.read)
told(recorder.stop)
"""
        expected = "ReadTimeout TIMEOUT", "ReadError NO_DATA", "ReadError AUDIO_SYSTEM_STUCK"
        self.told(program, *expected, scripted=True, MICROPHONE_STALLS_AFTER="0")

    def error(self, status: int) -> wrapper_audio.AudioError:
        with self.assertRaises(wrapper_audio.AudioError) as caught:
            _library.check(status)
        return caught.exception

    def test_of_every_failure_are_english(self) -> None:
        failures = [status for status in Status if status < 0]
        self.assertGreater(len(failures), 10)
        for status in failures:
            self.assertRegex(str(self.error(status)), r"^[ -~]{12,}\. [A-Za-z][ -~]{12,}$")
        self.assertEqual(str(self.error(-99)), "unknown status")

    def test_in_the_source_are_english(self) -> None:
        sources = sorted((support.PACKAGE / "wrapper_audio").glob("*.py"))
        self.assertGreater(len(sources), 5)
        for source in sources:
            self.assertIsNone(CYRILLIC.search(source.read_text()), source)


if __name__ == "__main__":
    unittest.main()
