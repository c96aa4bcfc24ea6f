"""The device list, finding a device, the capability, the level meter and `python -m wrapper_audio`."""

import math
import subprocess
import threading
import unittest

import support
import wrapper_audio
from wrapper_audio import Capability, ClosedError, Denoising, Device, Meter, UnknownDeviceError

PCM = "{ type plug slave { pcm filemic rate 48000 channels 1 format FLOAT_LE } }\n"
FILEMIC = 'pcm.filemic { type file slave.pcm { type null } file "/dev/null" infile "/dev/zero" format "raw" }\n'
NAMES = FILEMIC + f'pcm.default {PCM}pcm."caf\xe9" {PCM}pcm."caf\xe8" {PCM}pcm."say \\"hi\\"" {PCM}'


class Devices(support.ProcessTest):
    def test_the_list_has_typed_records(self) -> None:
        listed = wrapper_audio.devices()
        self.assertEqual([device.id for device in listed], ["ALSA:filemic", "ALSA:default"])
        default = listed[1]
        self.assertEqual(
            default,
            Device("ALSA:default", "default", "ALSA", 48000, default.input_channels, default.output_channels, True,
                   Denoising.NATIVE),
        )
        self.assertGreater(default.input_channels, 0)
        self.assertEqual([(device.kind, device.is_default) for device in listed], [("input", False), ("input", True)])

    def test_the_list_tells_how_a_device_is_denoised(self) -> None:
        output, _ = self.check(
            "import wrapper_audio; print([(d.default_rate, d.denoising.name) for d in wrapper_audio.devices()][1])",
            ALSA_CONFIG_PATH=self.speech_at(16000),
        )
        self.assertEqual(output, "(16000, 'CONVERTED')\n")

    def test_a_device_is_chosen_by_its_record_or_its_id(self) -> None:
        default = wrapper_audio.find_device("default")
        for chosen in None, "", default, default.id:
            with wrapper_audio.Recorder(chosen) as recorder:
                self.assertEqual(recorder.device, "ALSA:default")
                self.assertEqual(recorder.device_name, "default")
                self.assertEqual(len(recorder.read()), 480)

    def test_names_that_are_no_utf_8_or_have_quotes_open_their_own_device(self) -> None:
        output, errors = self.check(
            """
            import wrapper_audio
            for device in wrapper_audio.devices():
                with wrapper_audio.Recorder(device.id) as recorder:
                    print(ascii(device.id), recorder.device == device.id, len(recorder.read()))
                    device.name.encode()
            """,
            ALSA_CONFIG_PATH=self.configure(NAMES),
        )
        for name in "'ALSA:caf\\udce9'", "'ALSA:caf\\udce8'", "'ALSA:say \"hi\"'":
            self.assertIn(name + " True 480\n", output)
        self.assertEqual(errors, "")

    def test_an_unknown_id_is_refused_and_the_candidates_are_listed(self) -> None:
        for use in wrapper_audio.Recorder, Meter, wrapper_audio.find_device:
            with self.assertRaises(UnknownDeviceError) as caught:
                use("ALSA:nowhere")  # type: ignore[operator]
            self.assertIs(caught.exception.status, wrapper_audio.Status.UNKNOWN_DEVICE)
            self.assertIn("ALSA:nowhere", str(caught.exception))
            self.assertIn("\n  ALSA:default", str(caught.exception))
        for part in "default", "ALSA:Default", "ALSA:default ":
            with self.assertRaises(UnknownDeviceError, msg=part):
                wrapper_audio.Recorder(part)

    def test_a_device_is_found_by_a_part_of_its_id_in_capitals_or_not(self) -> None:
        for wanted in "filemic", "FileM", "alsa:filemic", "ALSA:filemic":
            self.assertEqual(wrapper_audio.find_device(wanted).id, "ALSA:filemic")
        with self.assertRaises(wrapper_audio.AmbiguousDeviceError) as caught:
            wrapper_audio.find_device("alsa")
        self.assertIn("\n  ALSA:filemic\n  ALSA:default", str(caught.exception))
        with self.assertRaises(ValueError):
            wrapper_audio.find_device("a\0b")

    def test_a_machine_without_a_sound_server_has_no_device_that_records_what_it_plays(self) -> None:
        with self.assertRaises(wrapper_audio.OpenError) as caught:
            wrapper_audio.system_device()
        self.assertIs(caught.exception.status, wrapper_audio.Status.NO_SYSTEM_SOUND)
        self.assertRegex(str(caught.exception), r"^no device records what the computer plays\. Start PipeWire or Pulse")

    def test_the_capability_says_whether_recording_is_possible(self) -> None:
        self.assertIs(wrapper_audio.capability(), Capability.INPUT)
        output, errors = self.check(
            "import wrapper_audio; print(wrapper_audio.capability().name)",
            ALSA_CONFIG_PATH=self.configure(support.NO_DEVICE),
        )
        self.assertEqual((output, errors), ("NO_INPUT\n", ""))


class Meters(unittest.TestCase):
    def test_a_meter_measures_30_ms_at_a_time(self) -> None:
        speech = [sample / 32768 for sample in support.samples_of(support.SPEECH)]
        with Meter() as meter:
            for first in range(0, 28800, 1440):
                level = meter.read()
                block = speech[first : first + 1440]
                self.assertAlmostEqual(level.peak, max(abs(x) for x in block), delta=1e-4)
                self.assertAlmostEqual(level.rms, math.sqrt(sum(x * x for x in block) / 1440), delta=1e-4)

    def test_iteration_ends_when_another_thread_closes(self) -> None:
        with Meter() as meter:
            closer = threading.Timer(0.1, meter.close)
            closer.start()
            levels = list(meter)
            closer.join()
        self.assertGreater(max(level.peak for level in levels), 0.01)
        with self.assertRaisesRegex(ClosedError, "^the Meter is closed; create a new one$"):
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
        done = self.table(ALSA_CONFIG_PATH=self.speech_at(16000))
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(
            done.stdout,
            "  ID            NAME     KIND   RATE   DENOISING\n"
            "  ALSA:filemic  filemic  input  44100  native\n"
            "* ALSA:default  default  input  16000  converted\n",
        )
        self.assertEqual(done.stderr, "")

    def test_without_an_input_device_it_fails(self) -> None:
        done = self.table(ALSA_CONFIG_PATH=self.configure(support.NO_DEVICE))
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stderr, "^wrapper_audio: there is no input device. Connect a microphone.*\n$")

    def test_without_a_library_it_says_what_to_do(self) -> None:
        done = self.table(WRAPPER_AUDIO_LIBRARY="/nowhere.so")
        self.assertEqual(done.returncode, 1)
        self.assertTrue(done.stderr.startswith("wrapper_audio: the library wrapper_audio was not found."), done.stderr)


if __name__ == "__main__":
    unittest.main()
