"""`wrapper-audio record` into files: what it keeps, and how it ends."""

import math
import os
import random
import resource
import signal
import unittest

from host import (
    FILE_TROUBLE,
    FINE,
    HEADER_BYTES,
    NO_DEVICE,
    NO_INPUT_DEVICE,
    OPEN_FAILED,
    READ_FAILED,
    SPEECH,
    USAGE,
    HostTest,
    decibels,
    rms,
)


class Recording(HostTest):
    def test_two_seconds_have_the_right_number_of_samples_at_any_rate(self):
        self.listen_to(SPEECH)
        for rate in 16000, 44100, 11025, 47999, 384000:
            with self.subTest(rate=rate):
                code, output, errors = self.record("--rate", rate, "--seconds", 2, self.file)
                self.assertEqual((code, errors), (FINE, ""))
                samples = self.recorded(rate)
                self.assertEqual(len(samples), 2 * rate)
                self.check_result_line(output, rate, samples)

    def test_seconds_are_rounded_to_the_nearest_sample(self):
        self.listen_to(SPEECH)
        for seconds, count in ("0.00005", 1), ("0.12345", 1361), ("0.1", 1103):
            with self.subTest(seconds=seconds):
                code, _, _ = self.record("--rate", 11025, "--seconds", seconds, self.file)
                self.assertEqual((code, len(self.recorded(11025))), (FINE, count))

    def test_the_file_holds_what_the_microphone_heard(self):
        generator = random.Random(48000)
        heard = [generator.randint(-20000, 20000) for _ in range(48000)]
        self.listen_to_samples(heard)
        self.record("--rate", 48000, "--seconds", 1, self.file)
        samples = self.recorded(48000)
        self.assertEqual(len(samples), len(heard))
        self.assertLessEqual(max(abs(s - h) for s, h in zip(samples, heard)), 1)

        self.record("--rate", 16000, "--seconds", 1, self.file)
        samples = self.recorded(16000)
        means = [sum(heard[at : at + 3]) / 3 for at in range(0, len(heard), 3)]
        self.assertEqual(len(samples), len(means))
        self.assertLessEqual(max(abs(s - m) for s, m in zip(samples, means)), 2)

    def test_time_does_not_drift_at_a_rate_without_whole_tenths(self):
        def tone(seconds):
            return round(16000 * math.sin(2 * math.pi * 100 * seconds))

        self.listen_to_samples([tone(at / 48000) for at in range(96000)])
        self.record("--rate", 11025, "--seconds", 2, self.file)
        samples = self.recorded(11025)
        self.assertLessEqual(max(abs(s - tone(at / 11025)) for at, s in enumerate(samples)), 50)

    def test_denoising_removes_the_noise_and_keeps_the_voice(self):
        self.listen_to(SPEECH)
        levels = []
        for arguments in (), ("--denoise",):
            code, _, errors = self.record(*arguments, "--seconds", 6, self.file)
            self.assertEqual((code, errors), (FINE, ""))
            samples = self.recorded(16000)
            voice, noise = samples[16000:80000], samples[88000:]
            levels.append((decibels(rms(voice)), decibels(rms(noise))))
        (voice, noise), (denoised_voice, denoised_noise) = levels
        self.assertLess(denoised_noise, noise - 20)
        self.assertAlmostEqual(denoised_voice, voice, delta=2)

    def test_a_device_at_another_rate_is_reported_as_not_denoised(self):
        self.listen_to(SPEECH, 44100)
        code, _, errors = self.record("--denoise", "--seconds", 1, self.file)
        self.assertEqual(code, FINE)
        self.assertRegex(errors, r"\Awrapper-audio: denoise inactive: the device runs at 44100 Hz, it needs 48000; .*\n\Z")
        self.assertEqual(len(self.recorded(16000)), 16000)

    def test_a_named_device_is_recorded(self):
        self.listen_to(SPEECH)
        code, _, errors = self.record("--device", "ALSA:filemic", "--seconds", 1, self.file)
        self.assertEqual((code, errors, len(self.recorded(16000))), (FINE, "", 16000))

    def test_an_older_file_is_replaced(self):
        self.listen_to(SPEECH)
        self.file.write_bytes(b"x" * 1000000)
        self.record("--seconds", 1, self.file)
        self.assertEqual(len(self.recorded(16000)), 16000)

    def test_a_terminal_gets_one_line_redrawn_in_place(self):
        self.listen_to(SPEECH)
        code, drawn = self.in_terminal(
            *("record", "--seconds", 0.5, self.file),
            columns=80,
            streams=["stderr"],
            microphone={"MICROPHONE_PACED": "1"},
            environment={"LC_ALL": "C", "NO_COLOR": "1"},
        )
        self.assertEqual((code, drawn.count("\n")), (FINE, 1))
        redraws = [line for line in drawn.rstrip("\r\n").split("\r") if line]
        self.assertEqual([line[:8].strip() for line in redraws], ["0:00.1", "0:00.2", "0:00.3", "0:00.4"] + ["0:00.5"] * 2)
        for line in redraws:
            self.assertRegex(line, r"\A +0:00\.\d \[=*-*\|? *\] RMS +-\d+\.\d peak +-\d+\.\d dBFS     \Z")
            self.assertEqual(len(line), 79)


class Ending(HostTest):
    """What is left of a recording without an end when the end comes."""

    def setUp(self):
        super().setUp()
        self.listen_to(SPEECH)

    def start_recording(self):
        process = self.start("record", self.file, microphone={"MICROPHONE_PACED": "1"})
        self.wait_for(lambda: self.file.exists() and self.file.stat().st_size > HEADER_BYTES + 10000, process)
        return process

    def test_an_interrupt_ends_the_recording_in_good_order(self):
        for number in signal.SIGINT, signal.SIGTERM:
            with self.subTest(signal=number.name):
                process = self.start_recording()
                process.send_signal(number)
                output, errors = process.communicate(timeout=10)
                self.assertEqual((process.returncode, errors), (FINE, ""))
                samples = self.recorded(16000)
                self.assertGreaterEqual(len(samples), 5000)
                self.check_result_line(output, 16000, samples)
                self.file.unlink()

    def test_a_killed_recording_is_valid(self):
        process = self.start_recording()
        process.kill()
        process.communicate(timeout=10)
        samples = self.recorded(16000, complete=False)
        self.assertGreaterEqual(len(samples), 5000)
        self.assertLessEqual(self.file.stat().st_size - HEADER_BYTES - 2 * len(samples), 3200, "a header left behind")


class Failure(HostTest):
    def test_wrong_arguments_are_refused(self):
        self.listen_to(SPEECH)
        wrong = [
            ([], "FILE"),
            (["--rate", "0", "out.wav"], "--rate"),
            (["--rate", "9", "out.wav"], "--rate"),
            (["--rate", "384001", "out.wav"], "--rate"),
            (["--rate", "fast", "out.wav"], "--rate"),
            (["--seconds", "0", "out.wav"], "--seconds"),
            (["--seconds", "-1", "out.wav"], "--seconds"),
            (["--seconds", "nan", "out.wav"], "--seconds"),
            (["--seconds", "inf", "out.wav"], "--seconds"),
            (["--seconds", "0.00001", "out.wav"], "--seconds"),
            (["--seconds", "134217.8", "out.wav"], "--seconds.*4 GiB"),  # 2**32 bytes end at 134217.7 s
            (["--seconds", "out.wav"], "--seconds"),
            (["--loud", "out.wav"], "--loud"),
            (["out.wav", "other.wav"], "other.wav"),
        ]
        for arguments, words in wrong:
            with self.subTest(arguments=arguments):
                self.assert_failed(self.record(*arguments), USAGE, words)
                self.assertFalse(self.file.exists())

    def test_help_tells_the_exit_codes(self):
        code, output, _ = self.record("--help")
        self.assertEqual(code, FINE)
        for number in range(7):
            self.assertRegex(output, rf"(?m)^ +{number}  \w")

    def test_a_file_that_cannot_be_created(self):
        self.listen_to(SPEECH)
        (self.folder / "plain").touch()
        for path in self.folder / "nowhere/out.wav", self.folder / "plain/out.wav", self.folder, "":
            with self.subTest(path=path):
                self.assert_failed(self.record("--seconds", 1, path), FILE_TROUBLE, "cannot create")

    def test_a_full_disk_from_the_start(self):
        self.listen_to(SPEECH)
        self.assert_failed(self.record("--seconds", 1, "/dev/full"), FILE_TROUBLE, "cannot write /dev/full: .*No space")

    def test_a_disk_that_fills_up_keeps_what_fits(self):
        self.listen_to(SPEECH)
        limit = 100001
        code, output, errors = self.record(
            "--seconds",
            6,
            self.file,
            restore_signals=False,  # Python ignores SIGXFSZ, and so does the host then
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit)),
        )
        self.assertEqual(code, FILE_TROUBLE)
        self.assertRegex(errors, r"\Awrapper-audio: cannot write .*out\.wav: .*large.*\n\Z")
        samples = self.recorded(16000, complete=False)
        self.assertEqual(len(samples), (limit - HEADER_BYTES) // 2)
        self.check_result_line(output, 16000, samples)

    def test_no_input_device(self):
        (self.folder / "microphone.conf").write_text(NO_DEVICE)
        self.assert_failed(self.record(self.file), NO_INPUT_DEVICE, r"(?s)\A\[audio_wrapper\] .*there is no input device\n\Z")
        self.assertFalse(self.file.exists())

    def test_a_device_that_does_not_open_leaves_an_older_file_alone(self):
        self.listen_to(SPEECH)
        self.file.write_bytes(b"older")
        result = self.record(self.file, microphone={"MICROPHONE_REFUSES": "1"})
        self.assert_failed(result, OPEN_FAILED, r"(?s)Device unavailable.*could not be opened\. .*\n\Z")
        for line in result[2].splitlines():
            self.assertRegex(line, r"\A(\[audio_wrapper\]|wrapper-audio:) ")
        self.assertEqual(self.file.read_bytes(), b"older")

    def test_a_device_that_fails_leaves_what_was_recorded(self):
        self.listen_to(SPEECH)
        code, output, errors = self.record(self.file, microphone={"MICROPHONE_FAILS_AFTER": "7"})
        self.assertEqual(code, READ_FAILED)
        self.assertRegex(errors, r"(?s)\A\[audio_wrapper\] .*the input device failed; .*out\.wav keeps what was")
        samples = self.recorded(16000)
        self.assertEqual(len(samples), 7 * 1600)
        self.check_result_line(output, 16000, samples)

    def test_without_standard_error_its_lines_do_not_end_up_in_the_file(self):
        self.listen_to(SPEECH)
        code, output, _ = self.record(
            self.file, microphone={"MICROPHONE_FAILS_AFTER": "7"}, stderr=None, preexec_fn=lambda: os.close(2)
        )
        self.assertEqual(code, READ_FAILED)
        samples = self.recorded(16000)
        self.assertEqual(len(samples), 7 * 1600)
        self.check_result_line(output, 16000, samples)

    def test_the_last_word_of_a_crash_in_portaudio_is_shown(self):
        self.listen_to(SPEECH)
        for how in "abort", "fault", "exit":
            with self.subTest(how=how):
                code, _, errors = self.record(self.file, microphone={"MICROPHONE_ENDS": how})
                self.assertNotEqual(code, FINE)
                self.assertIn("the microphone's last word\n", errors)
                self.assertIn("[audio_wrapper] ctx_create", errors)

    def test_a_device_that_stalls_ends_the_recording(self):
        self.listen_to(SPEECH)
        stalled = {"MICROPHONE_STALLS_AFTER": "7"}
        with self.subTest("by itself"):
            code, output, errors = self.record(self.file, microphone=stalled)
            self.assertEqual(code, READ_FAILED)
            self.assertRegex(errors, "no sound has come for 5 seconds")
            self.check_result_line(output, 16000, self.recorded(16000))
        self.file.unlink()
        with self.subTest("by Ctrl-C"):
            process = self.start("record", self.file, microphone=stalled)
            self.wait_for(lambda: self.file.exists() and self.file.stat().st_size == HEADER_BYTES + 7 * 3200, process)
            process.send_signal(signal.SIGINT)
            output, errors = process.communicate(timeout=4)
            self.assertEqual((process.returncode, errors), (FINE, ""))
            self.assertEqual(len(self.recorded(16000)), 7 * 1600)


if __name__ == "__main__":
    unittest.main()
