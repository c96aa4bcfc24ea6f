"""examples/c/record.c: what it keeps, and how it ends."""

import math
import signal
import time
import unittest
import wave

from example import FAILED, FINE, SPEECH, USAGE, ExampleTest, heard, pcm16


class Record(ExampleTest):
    def setUp(self):
        super().setUp()
        self.speech = pcm16(SPEECH.read_bytes())

    def recorded(self, name, rate):
        with wave.open(str(self.folder / name), "rb") as wav:
            self.assertEqual((wav.getnchannels(), wav.getsampwidth(), wav.getframerate()), (1, 2, rate))
            samples = pcm16(wav.readframes(wav.getnframes()))
            self.assertEqual(len(samples), wav.getnframes())
        content = (self.folder / name).read_bytes()
        self.assertEqual(len(content), 44 + 2 * len(samples))
        self.assertEqual(int.from_bytes(content[4:8], "little"), len(content) - 8)
        return samples

    def test_keeps_every_sample_of_a_device_at_the_same_rate(self):
        self.listen_to(SPEECH)
        code, output, errors = self.run_example("record", "-r", 48000, "-s", 2, "-")
        self.assertEqual(code, FINE)
        self.assertEqual(pcm16(output).tolist(), [heard(s) for s in self.speech[:96000]])
        self.assertEqual(errors, "record: -: 2.00 s\n")

    def test_a_wav_file_holds_what_standard_output_gets(self):
        self.listen_to(SPEECH)
        _, output, _ = self.run_example("record", "-s", 2, "-")
        code, nothing, _ = self.run_example("record", "-s", 2, "heard.wav")
        self.assertEqual((code, nothing), (FINE, b""))
        self.assertEqual(self.recorded("heard.wav", 16000), pcm16(output))
        self.run_example("record", "-s", 2, "heard.raw")
        self.assertEqual((self.folder / "heard.raw").read_bytes(), output)

    def test_a_third_of_the_rate_keeps_what_fits_below_8000_hz_and_nothing_else(self):
        def tone(hz, rate):
            return [10000 * math.sin(2 * math.pi * hz * at / rate) for at in range(2 * rate)]

        self.configure(low=(map(round, tone(1000, 48000)), ""), default=(map(round, tone(9500, 48000)), ""))
        for device, expected in ("low", tone(1000, 16000)), ("default", [0.0] * 32000):
            code, output, _ = self.run_example("record", "-d", device, "-s", 2, "-")
            samples = pcm16(output)
            self.assertEqual((code, len(samples)), (FINE, 32000))
            inside = slice(1000, 31000)  # away from where the tone begins and ends
            error = max(abs(s - e) for s, e in zip(samples[inside], expected[inside]))
            self.assertLessEqual(error, 2, device)

    def test_denoising_silences_a_pause(self):
        self.listen_to(SPEECH)
        energy = []
        for arguments in (), ("-n",):
            code, output, _ = self.run_example("record", *arguments, "-s", 6, "-")
            self.assertEqual((code, len(output)), (FINE, 192000))
            energy.append(sum(s * s for s in pcm16(output)[88000:]))
        self.assertLess(energy[1], energy[0] / 100)

    def test_the_device_that_is_named_is_recorded(self):
        self.configure(kitchen=([1000] * 48000, ""), default=([2000] * 48000, ""))
        for device, level in ("ALSA:kitchen", 1000), ("ALSA:default", 2000):
            code, output, _ = self.run_example("record", "-d", device, "-r", 48000, "-s", 1, "-")
            self.assertEqual((code, pcm16(output).tolist()), (FINE, [heard(level)] * 48000))
        code, output, errors = self.run_example("record", "-d", "Kitch", "-s", 1, "-")
        self.assertEqual((code, len(output)), (FINE, 32000), errors)

    def test_a_device_that_is_not_meant_does_not_take_the_place_of_another(self):
        self.configure(kitchen=([1000] * 48000, ""), kitten=([1000] * 48000, ""), default=([2000] * 48000, ""))
        for wanted, reason in (
            ("bathroom", "record: no input device matches 'bathroom'. There are:\n  ALSA:kitchen\n  ALSA:kitten\n"
                         "  ALSA:default\nrecord: no input device matches\n"),
            ("kit", "record: 'kit' may mean any of:\n  ALSA:kitchen\n  ALSA:kitten\nrecord: several input devices match\n"),
        ):
            code, output, errors = self.run_example("record", "-d", wanted, "a.raw")
            self.assertEqual((code, output, errors), (FAILED, b"", reason))
            self.assertFalse((self.folder / "a.raw").exists())

    def test_ctrl_c_leaves_a_whole_file(self):
        self.listen_to(SPEECH)
        for sign in signal.SIGINT, signal.SIGTERM:
            process = self.start("record", "-r", 48000, "heard.wav")
            file, deadline = self.folder / "heard.wav", time.monotonic() + 30
            while not file.exists() or file.stat().st_size < 100000:
                self.assertIsNone(process.poll(), "it has ended by itself")
                self.assertLess(time.monotonic(), deadline, "nothing is recorded")
                time.sleep(0.001)
            process.send_signal(sign)
            self.assertEqual(process.wait(timeout=30), FINE)
            process.communicate()
            samples = self.recorded("heard.wav", 48000)[: len(self.speech)]
            self.assertGreaterEqual(len(samples), 49000)
            self.assertEqual(samples.tolist(), [heard(s) for s in self.speech[: len(samples)]])
            file.unlink()

    def test_ctrl_c_ends_a_pipe_after_whole_samples(self):
        self.listen_to(SPEECH)
        for _ in range(4):
            process = self.start("record", "-r", 48000, "-", bufsize=0)
            output = b""
            while len(output) < 100000:
                output += process.stdout.read(100000)
            time.sleep(0.1)  # until the pipe is full, so that the signal meets a write
            process.send_signal(signal.SIGINT)
            rest, errors = process.communicate(timeout=30)
            samples = pcm16(output + rest)[: len(self.speech)]
            self.assertEqual(process.returncode, FINE)
            self.assertGreater(len(samples), 60000)
            self.assertEqual(samples.tolist(), [heard(s) for s in self.speech[: len(samples)]])
            self.assertRegex(errors.decode(), r"\Arecord: -: \d+\.\d\d s\n\Z")

    def test_a_device_that_is_pulled_out_leaves_what_it_gave(self):
        self.configure(default=([1000] * 48000, "unplugged_after 10000"))
        code, _, errors = self.run_example("record", "-r", 48000, "heard.wav")
        self.assertEqual(code, FAILED)
        self.assertRegex(errors, r"\Arecord: the device failed while it was recording\nrecord: ALSA:default failed: .+\n"
                                 r"record: heard\.wav: 0\.18 s\n\Z")
        self.assertEqual(self.recorded("heard.wav", 48000).tolist(), [heard(1000)] * 6 * 1440)

    def test_without_a_device_an_older_file_stays(self):
        self.no_device()
        older = self.folder / "older.wav"
        older.write_bytes(b"older")
        code, output, errors = self.run_example("record", older)
        self.assertEqual((code, output, older.read_bytes()), (FAILED, b"", b"older"))
        self.assertEqual(errors, "record: there is no input device\n" * 2)

    def test_what_cannot_be_written_is_an_error(self):
        self.listen_to(SPEECH)
        (self.folder / "full.wav").symlink_to("/dev/full")
        for name, arguments in ("there/is/no/such.wav", ()), ("full.wav", ()), ("/dev/full", ("-s", 1)):
            code, _, errors = self.run_example("record", *arguments, name)
            self.assertEqual(code, FAILED, name)
            self.assertRegex(errors, rf"\Arecord: cannot write {name}\nrecord: {name}: \d\.\d\d s\n\Z")

    def test_bad_arguments_are_refused(self):
        for arguments in (
            [],
            ["a.raw", "b.raw"],
            ["-r", "7999", "a.raw"],
            ["-r", "192001", "a.raw"],
            ["-r", "fast", "a.raw"],
            ["-s", "0", "a.raw"],
            ["-s", "10001", "a.raw"],
            ["-x", "a.raw"],
            ["-s"],
        ):
            with self.subTest(arguments=arguments):
                code, output, errors = self.run_example("record", *arguments)
                self.assertEqual((code, output), (USAGE, b""))
                self.assertIn("usage: record ", errors)
                self.assertFalse((self.folder / "a.raw").exists())


if __name__ == "__main__":
    unittest.main()
