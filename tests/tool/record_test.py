"""`wrapper-audio record` into files: what it keeps, and how it ends."""

import math
import os
import random
import resource
import signal
import time
import unittest
import wave

from host import (
    FILE_TROUBLE,
    FINE,
    HEADER_BYTES,
    NO_DEVICE,
    NO_INPUT_DEVICE,
    NOTHING_COMES,
    NOT_DENOISED,
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

        self.record("--rate", 16000, "--converter", "linear", "--seconds", 1, self.file)
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
        apart = [abs(s - tone(at / 11025)) for at, s in enumerate(samples)]
        self.assertLessEqual(max(apart[100:-100]), 2)  # where the tone begins and ends there are other frequencies

    def levels(self, rate, *arguments, says=""):
        """Of the voice and of a pause in the recorded speech, in dB."""
        code, _, errors = self.record(*arguments, "--rate", rate, "--seconds", 6, self.file)
        self.assertEqual((code, errors), (FINE, says and f"wrapper-audio: {says}\n"))
        samples = self.recorded(rate)
        self.assertEqual(len(samples), 6 * rate)
        return decibels(rms(samples[rate : 5 * rate])), decibels(rms(samples[5 * rate + rate // 2 :]))

    def test_denoising_removes_the_noise_and_keeps_the_voice_whatever_rate_the_device_runs_at(self):
        raw = self.folder / "speech.raw"
        for device_rate, how in (
            (48000, "denoising at 48000 Hz, the device's own rate"),
            (44100, "denoising, converted from 44100 Hz"),
            (16000, "denoising, converted from 16000 Hz"),
            (8000, "denoising, converted from 8000 Hz"),
        ):
            self.host("process", self.speech_as_wav(), raw, "--rate", device_rate)
            self.listen_to(raw, device_rate)
            for rate in 16000, 44100:
                with self.subTest(device_rate=device_rate, rate=rate):
                    voice, noise = self.levels(rate)
                    denoised_voice, denoised_noise = self.levels(rate, "--denoise", says=how)
                    self.assertLess(denoised_noise, noise - 20)
                    self.assertAlmostEqual(denoised_voice, voice, delta=2)

    def speech_as_wav(self):
        path = self.folder / "speech.wav"
        with wave.open(str(path), "wb") as wav:
            wav.setparams((1, 2, 48000, 0, "NONE", ""))
            wav.writeframes(SPEECH.read_bytes())
        return path

    def test_the_strength_says_how_much_of_the_noise_is_removed(self):
        self.listen_to(SPEECH)
        how = "denoising at 48000 Hz, the device's own rate"
        noises = [
            self.levels(16000, *arguments, says=how)[1]
            for arguments in (["--denoise=0.2"], ["--denoise", "--strength", 0.8], ["--denoise=0.8"], ["--denoise"])
        ]
        self.assertEqual(noises[1], noises[2])
        self.assertAlmostEqual(noises[0] - noises[1], decibels(0.8 / 0.2), delta=1.5)
        self.assertLess(noises[3], noises[2] - 3)

    def test_denoising_that_does_not_happen_is_told_even_when_quiet(self):
        self.listen_to(SPEECH)
        for arguments in ["--denoise", "--denoise=0"], ["--denoise", "--strength", 0, "--quiet"]:
            code, _, errors = self.record(*arguments, "--seconds", 1, self.file)
            self.assertEqual((code, errors), (FINE, "wrapper-audio: nothing is denoised\n"))
        self.assertEqual(self.record("--denoise", "--quiet", "--seconds", 1, self.file), (FINE, "", ""))

    def test_denoising_that_is_required_happens_or_the_program_fails(self):
        self.listen_to(SPEECH)
        code, output, errors = self.record("--denoise=required", "--seconds", 1, self.file)
        how = "denoising at 48000 Hz, the device's own rate"
        self.assertEqual((code, errors), (FINE, f"wrapper-audio: {how}\n"))
        self.assertTrue(output.endswith(f" dBFS, {how}\n"), output)
        denoised = self.file.read_bytes()
        self.record("--denoise", "--seconds", 1, self.file)
        self.assertEqual(self.file.read_bytes(), denoised)

        for command in ["record"], ["process", self.speech_as_wav()]:
            with self.subTest(command=command[0]):
                result = self.host(*command, "--quiet", "--denoise=required", "--strength", 0, self.file)
                self.assert_failed(result, NOT_DENOISED, r"nothing is denoised\. With .*--strength")
                self.assertEqual(self.file.read_bytes(), denoised)
        code, output, _ = self.record("--denoise=required", "--denoise=0", "--seconds", 1, self.file)
        self.assertEqual(code, FINE)  # the last word counts
        self.assertTrue(output.endswith(" dBFS, nothing is denoised\n"), output)

    def test_the_closing_line_of_a_file_tells_the_way_it_was_denoised(self):
        source = self.speech_as_wav()
        slow = self.folder / "slow.wav"
        self.assertNotIn("denois", self.host("process", source, slow, "--rate", 44100)[1])
        for path, arguments, how in (
            (source, ["--denoise"], "denoising at 48000 Hz, the file's own rate"),
            (slow, ["--denoise"], "denoising, converted from 44100 Hz"),
            (slow, ["--denoise=0"], "nothing is denoised"),
        ):
            self.assertRegex(self.host("process", path, self.file, *arguments)[1], rf"\nafter .* dBFS, {how}: .*out\.wav")

    def test_converted_cleanly_nothing_aliases(self):
        tone = [round(16000 * math.sin(2 * math.pi * 10000 * at / 48000)) for at in range(96000)]
        self.listen_to_samples(tone)
        heard = {}
        for converter in "clean", "linear":
            self.record("--converter", converter, "--seconds", 2, self.file)
            heard[converter] = decibels(rms(self.recorded(16000)[1600:-1600]))
        self.assertLess(heard["clean"], -90)  # 10000 Hz are beyond what 16000 samples a second can hold
        self.assertGreater(heard["linear"], -30)

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
        times = [line[:8].strip() for line in redraws]
        self.assertEqual(times, sorted(times))
        self.assertIn(times[-1], ("0:00.4", "0:00.5"))  # what comes within 50 ms of the last drawing is not drawn
        self.assertTrue(5 <= len(times) <= 0.5 * 20 + 3, times)
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
            (["--rate", "99", "out.wav"], "--rate"),
            (["--rate", "384001", "out.wav"], "--rate"),
            (["--rate", "fast", "out.wav"], "--rate"),
            (["--seconds", "0", "out.wav"], "--seconds"),
            (["--seconds", "-1", "out.wav"], "--seconds"),
            (["--seconds", "nan", "out.wav"], "--seconds"),
            (["--seconds", "inf", "out.wav"], "--seconds"),
            (["--seconds", "0.00001", "out.wav"], "--seconds"),
            (["--seconds", "out.wav"], "--seconds"),
            (["--seconds", "5x", "out.wav"], "'5x' is not a time"),
            (["--seconds", "3s2m", "out.wav"], "--seconds"),
            (["--seconds", "1:2:3:4", "out.wav"], "--seconds"),
            (["--seconds", "1:", "out.wav"], "--seconds"),
            (["--rate", "16kHz", "out.wav"], "--rate"),
            (["--rate", "16000.5", "out.wav"], "--rate"),
            (["--type", "aac", "out.wav"], "--type"),
            (["--loud", "out.wav"], "--loud"),
            (["--block", "30", "out.wav"], "--block"),
            (["--denoise=1.1", "out.wav"], "--denoise"),
            (["--denoise", "--strength", "-0.1", "out.wav"], "--strength"),
            (["--denoise", "--strength", "nan", "out.wav"], "--strength"),
            (["--strength", "0.5", "out.wav"], "--strength"),
            (["--converter", "cubic", "out.wav"], "--converter"),
            (["out.wav", "other.wav"], "'other.wav' is one argument too many"),
            (["--rte", "8000", "out.wav"], "there is no option '--rte'; did you mean '--rate'"),
            (["--rte=8000"], "there is no option '--rte'; did you mean '--rate'"),
        ]
        for arguments, words in wrong:
            with self.subTest(arguments=arguments):
                self.assert_failed(self.record(*arguments), USAGE, words)
                self.assertFalse(self.file.exists())

    def test_help_tells_the_exit_codes(self):
        code, output, _ = self.record("--help")
        self.assertEqual(code, FINE)
        for number in range(9):
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
        self.assert_failed(self.record(self.file), NO_INPUT_DEVICE, r"\Awrapper-audio: there is no input device\. Connect a mic.*\n\Z")
        self.assertFalse(self.file.exists())

    def test_a_device_that_does_not_open_leaves_an_older_file_alone(self):
        self.listen_to(SPEECH)
        self.file.write_bytes(b"older")
        result = self.record(self.file, microphone={"MICROPHONE_REFUSES": "1"})
        self.assert_failed(result, OPEN_FAILED, r"\Awrapper-audio: ALSA:default did not open: Device unavailable.*\. Close other programs .*\n\Z")
        self.assertEqual(self.file.read_bytes(), b"older")

    def test_a_device_that_fails_leaves_what_was_recorded(self):
        self.listen_to(SPEECH)
        code, output, errors = self.record(self.file, microphone={"MICROPHONE_FAILS_AFTER": "7"})
        self.assertEqual(code, READ_FAILED)
        self.assertRegex(errors, r"\Awrapper-audio: ALSA:default failed: \S.*; .*out\.wav keeps what was recorded before\. Check .*\n\Z")
        samples = self.recorded(16000)
        self.assertEqual(len(samples), 7 * 480)
        self.check_result_line(output, 16000, samples)

    def test_without_standard_error_its_lines_do_not_end_up_in_the_file(self):
        self.listen_to(SPEECH)
        code, output, _ = self.record(
            self.file, microphone={"MICROPHONE_FAILS_AFTER": "7"}, stderr=None, preexec_fn=lambda: os.close(2)
        )
        self.assertEqual(code, READ_FAILED)
        samples = self.recorded(16000)
        self.assertEqual(len(samples), 7 * 480)
        self.check_result_line(output, 16000, samples)

    def test_the_last_word_of_a_crash_in_portaudio_is_shown_with_verbose(self):
        self.listen_to(SPEECH)
        for how in "abort", "fault", "exit":
            with self.subTest(how=how):
                code, _, errors = self.record("--verbose", self.file, microphone={"MICROPHONE_ENDS": how})
                self.assertNotEqual(code, FINE)
                self.assertIn("the microphone's last word\n", errors)
                self.assertIn("[audio_wrapper] ctx_create", errors)

    def test_a_device_that_stalls_ends_the_recording(self):
        self.listen_to(SPEECH)
        stalled = {"MICROPHONE_STALLS_AFTER": "7"}
        with self.subTest("by itself"):
            code, output, errors = self.record(self.file, microphone=stalled)
            self.assertEqual(code, READ_FAILED)
            note, errors = errors.split("\n", 1)
            self.assertEqual(note, f"wrapper-audio: {NOTHING_COMES}")
            self.assertRegex(errors, r"delivers no sound: nothing has come for 5 seconds; .*out\.wav keeps .*\. Wait, reconnect it")
            self.check_result_line(output, 16000, self.recorded(16000))
        self.file.unlink()
        with self.subTest("by Ctrl-C"):
            process = self.start("record", self.file, microphone=stalled)
            self.wait_for(lambda: self.file.exists() and self.file.stat().st_size > HEADER_BYTES, process)
            time.sleep(0.5)  # well in the stall
            begun = time.monotonic()
            process.send_signal(signal.SIGINT)
            output, errors = process.communicate(timeout=20)
            self.assertLess(time.monotonic() - begun, 4)
            self.assertEqual((process.returncode, errors), (FINE, ""))
            self.assertEqual(len(self.recorded(16000)), 7 * 480)


if __name__ == "__main__":
    unittest.main()
