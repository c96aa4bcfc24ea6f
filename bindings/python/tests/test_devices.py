"""The device list, the capability, the level meter and `python -m wrapper_audio`."""

import math
import subprocess
import threading
import unittest

import support
import wrapper_audio
from wrapper_audio import Capability, ClosedError, Device, Meter

NAMES = """
pcm.filemic { type file slave.pcm { type null } file "/dev/null" infile "/dev/zero" format "raw" }
pcm.default { type plug slave { pcm "filemic" rate 48000 channels 1 format FLOAT_LE } }
pcm."caf\xe9" { type plug slave { pcm "filemic" rate 48000 channels 1 format FLOAT_LE } }
pcm."say \\"hi\\"" { type plug slave { pcm "filemic" rate 48000 channels 1 format FLOAT_LE } }
""".encode("latin-1")


class Devices(support.ProcessTest):
    def test_the_list_has_typed_records(self) -> None:
        self.assertEqual(
            wrapper_audio.devices(),
            [
                Device("ALSA:filemic", "filemic", "input", False),
                Device("ALSA:default", "default", "input", True),
            ],
        )

    def test_a_device_is_chosen_by_its_record_or_its_id(self) -> None:
        default = next(device for device in wrapper_audio.devices() if device.is_default)
        for chosen in None, "", default, default.id:
            with wrapper_audio.Recorder(chosen) as recorder, Meter(chosen):
                self.assertEqual(len(recorder.read()), 480)

    def test_names_that_are_no_utf_8_or_have_quotes_work_as_ids(self) -> None:
        configuration = self.configure("")
        with open(configuration, "wb") as file:
            file.write(NAMES)
        output, errors = self.check(
            """
            import wrapper_audio
            for device in wrapper_audio.devices():
                print(ascii(device.id))
                wrapper_audio.Recorder(device).close()
            """,
            ALSA_CONFIG_PATH=configuration,
        )
        self.assertIn("'ALSA:caf\\udce9'\n", output)
        self.assertIn("'ALSA:say \"hi\"'\n", output)
        self.assertNotIn("WARN", errors)

    def test_the_capability_says_whether_capture_is_possible(self) -> None:
        self.assertIs(wrapper_audio.capability(), Capability.INPUT)
        output, _ = self.check(
            "import wrapper_audio; print(wrapper_audio.capability().name)",
            ALSA_CONFIG_PATH=self.configure(support.NO_DEVICE),
        )
        self.assertEqual(output, "NO_INPUT\n")


class Meters(unittest.TestCase):
    def test_a_meter_measures_30_ms_at_a_time(self) -> None:
        speech = [sample / 32768 for sample in support.samples_of(support.SPEECH)]
        with Meter() as meter:
            for first in range(0, 28800, 1440):
                level = meter.read()
                block = speech[first : first + 1440]
                self.assertAlmostEqual(level.peak, max(abs(x) for x in block), places=6)
                self.assertAlmostEqual(level.rms, math.sqrt(sum(x * x for x in block) / 1440), places=6)

    def test_iteration_ends_when_another_thread_closes(self) -> None:
        with Meter() as meter:
            closer = threading.Timer(0.1, meter.close)
            closer.start()
            levels = list(meter)
            closer.join()
        self.assertGreater(max(level.peak for level in levels), 0.01)
        with self.assertRaisesRegex(ClosedError, "^the meter is closed$"):
            meter.read()
        with self.assertRaises(ClosedError):
            iter(meter)


class Table(support.ProcessTest):
    def table(self, **more: str) -> "subprocess.CompletedProcess[str]":
        return subprocess.run(
            support.python("-m", "wrapper_audio"),
            env=support.environment(False, **more),
            capture_output=True,
            text=True,
        )

    def test_it_shows_the_devices_and_no_noise(self) -> None:
        done = self.table()
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(
            done.stdout,
            "  ID            NAME     KIND\n"
            "  ALSA:filemic  filemic  input\n"
            "* ALSA:default  default  input\n",
        )
        self.assertEqual(done.stderr, "")

    def test_without_an_input_device_it_fails_and_shows_what_was_said(self) -> None:
        done = self.table(ALSA_CONFIG_PATH=self.configure(support.NO_DEVICE))
        self.assertEqual(done.returncode, 1)
        self.assertIn("[audio_wrapper] list_devices: 0", done.stderr)
        self.assertTrue(done.stderr.endswith("wrapper_audio: there is no input device\n"), done.stderr)

    def test_without_a_library_it_says_what_to_do(self) -> None:
        done = self.table(WRAPPER_AUDIO_LIBRARY="/nowhere.so")
        self.assertEqual(done.returncode, 1)
        self.assertTrue(done.stderr.startswith("wrapper_audio: the library wrapper_audio was not found."), done.stderr)


if __name__ == "__main__":
    unittest.main()
