"""examples/c/record.c: what it keeps, and how it ends."""

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
        self.assertTrue(errors.endswith("\nrecord: -: 2.00 s\n"), errors)

    def test_a_wav_file_holds_what_standard_output_gets(self):
        self.listen_to(SPEECH)
        _, output, _ = self.run_example("record", "-s", 2, "-")
        code, nothing, _ = self.run_example("record", "-s", 2, "heard.wav")
        self.assertEqual((code, nothing), (FINE, b""))
        self.assertEqual(self.recorded("heard.wav", 16000), pcm16(output))
        self.run_example("record", "-s", 2, "heard.raw")
        self.assertEqual((self.folder / "heard.raw").read_bytes(), output)

    def test_a_third_of_the_rate_gives_means_of_three(self):
        self.listen_to(SPEECH)
        code, output, _ = self.run_example("record", "-s", 1, "-")
        samples = pcm16(output)
        means = [sum(self.speech[at : at + 3]) / 3 for at in range(0, 48000, 3)]
        self.assertEqual((code, len(samples)), (FINE, 16000))
        self.assertLessEqual(max(abs(s - m) for s, m in zip(samples, means)), 2)

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
            code, output, _ = self.run_example("record", "-d", device, "-s", 1, "-")
            self.assertEqual((code, pcm16(output).tolist()), (FINE, [heard(level)] * 16000))

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
            self.assertRegex(errors.decode(), r"\nrecord: -: \d+\.\d\d s\n\Z")

    def test_a_device_that_is_pulled_out_leaves_what_it_gave(self):
        self.configure(default=([1000] * 48000, "unplugged_after 10000"))
        code, _, errors = self.run_example("record", "-r", 48000, "heard.wav")
        self.assertEqual(code, FAILED)
        self.assertTrue(errors.endswith("\nrecord: heard.wav: 0.18 s: the microphone gives no more\n"), errors)
        self.assertEqual(self.recorded("heard.wav", 48000).tolist(), [heard(1000)] * 6 * 1440)

    def test_without_a_device_an_older_file_stays(self):
        self.no_device()
        older = self.folder / "older.wav"
        older.write_bytes(b"older")
        code, output, errors = self.run_example("record", older)
        self.assertEqual((code, output, older.read_bytes()), (FAILED, b"", b"older"))
        self.assertIn("[audio_wrapper] нет устройства ввода", errors)

    def test_what_cannot_be_written_is_an_error(self):
        self.listen_to(SPEECH)
        (self.folder / "full.wav").symlink_to("/dev/full")
        for name, arguments in ("there/is/no/such.wav", ()), ("full.wav", ()), ("/dev/full", ("-s", 1)):
            code, _, errors = self.run_example("record", *arguments, name)
            self.assertEqual(code, FAILED, name)
            self.assertRegex(errors, rf"\nrecord: {name}: \d\.\d\d s: cannot write\n\Z")

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
