"""What the words on the command line mean: names of files, formats, pipes, times, rates and channels."""

import fcntl
import json
import os
import re
import signal
import struct
import time
import unittest
import wave
from concurrent.futures import ThreadPoolExecutor

from host import FILE_TROUBLE, FINE, HEADER_BYTES, INPUT_BREAKS_OFF, NO_INPUT_DEVICE, SPEECH, USAGE, ZEROS, HostTest

PIPED_HEADER_BYTES = 44  # of what nobody can write twice


class Words(HostTest):
    def test_a_word_that_is_none_is_named_with_the_one_that_was_meant(self):
        for words, sentence in (
            (["reccord", "x.wav"], "there is no command 'reccord'; did you mean 'record'?"),
            (["hlep"], "there is no command 'hlep'; did you mean 'help'?"),
            (["listen"], "there is no command 'listen'"),
            (["--quite", "devices"], "there is no option '--quite'; did you mean '--quiet'?"),
            (["process", "a", "b", "--highpas=3"], "there is no option '--highpas'; did you mean '--highpass'?"),
            (["meter", "-z"], "there is no option '-z'"),
            (["meter", "\033[2J"], "'?[2J' is one argument too many"),
            (["-q", "devices", "-v"], "--quiet and --verbose exclude each other"),
        ):
            with self.subTest(words=words):
                code, output, errors = self.host(*words)
                self.assertEqual((code, output, errors.split("\n")[0]), (USAGE, "", f"wrapper-audio: {sentence}"))

    def test_help_is_a_command_too(self):
        self.assertEqual(self.host("help"), self.host("--help"))
        self.assertEqual(self.host("help", "record"), self.host("record", "--help"))
        self.assertEqual(self.host("help", "record")[0], FINE)

    def test_what_the_computer_plays_needs_a_sound_server(self):
        self.listen_to(SPEECH)
        self.assert_failed(self.record("--system", "--device", "filemic", self.file), USAGE, "--device excludes --system")
        self.assert_failed(
            self.record("--system", self.file),
            NO_INPUT_DEVICE,
            r"\Awrapper-audio: no device records what the computer plays\. Start PipeWire .* with ALSA alone, load .*\n\Z",
        )
        self.assert_failed(self.record("--both", self.file), NO_INPUT_DEVICE, "no device records what the computer plays")
        for other in "--system", "--trim", "--fill-gaps", "--undenoised x.wav", "--reconnect", "--events e.txt":
            result = self.record("--both", "--denoise", *other.split(), self.file)
            self.assert_failed(result, USAGE, f"(--both excludes {other.split()[0]}|{other.split()[0]} excludes --both)")
        self.assertFalse(self.file.exists())

    def test_quiet_may_stand_before_the_command(self):
        self.listen_to(SPEECH)
        self.assertEqual(self.host("-q", "record", "--seconds", 1, self.file), (FINE, "", ""))

    def test_times_and_rates_have_units(self):
        self.listen_to(SPEECH)
        for seconds, rate, hertz, samples in (
            ("0.5", "16k", 16000, 8000),
            ("0.5s", "8K", 8000, 4000),
            ("0m1s", "44.1k", 44100, 44100),
            ("1m1", "8000", 8000, 488000),
            ("0:01", "8000", 8000, 8000),
            ("0:01:01.5", "8000", 8000, 492000),
            ("0.01h", "8000", 8000, 288000),
        ):
            with self.subTest(seconds=seconds, rate=rate):
                code, _, errors = self.record("--seconds", seconds, "--rate", rate, "--quiet", self.file)
                self.assertEqual((code, errors), (FINE, ""))
                self.assertEqual(len(self.recorded(hertz)), samples)

    def test_the_meter_speaks_json_and_tells_of_silence(self):
        self.listen_to_samples([16384] * 48000 * 3)
        code, output, errors = self.host("meter", "--json", "--seconds", "2")
        self.assertEqual((code, errors), (FINE, ""))
        lines = [json.loads(line) for line in output.splitlines()]
        self.assertEqual([line["time"] for line in lines], [1.0, 2.0])
        for line in lines:
            self.assertAlmostEqual(line["rms"], 0.5, delta=0.001)
            self.assertAlmostEqual(line["peak"], 0.5, delta=0.001)
            self.assertIs(line["clips"], False)
        self.listen_to_samples([0] * 4800)
        _, _, errors = self.host("meter", "--seconds", "5")
        self.assertEqual(errors, f"wrapper-audio: {ZEROS}\n")


class Names(HostTest):
    def setUp(self):
        super().setUp()
        self.listen_to(SPEECH)

    def test_no_clobber_keeps_an_older_file(self):
        self.file.write_bytes(b"older")
        for command in ["record", "--seconds", 1], ["process", self.wav("in.wav")]:
            result = self.host(*command, "--no-clobber", self.file)
            self.assert_failed(result, FILE_TROUBLE, r"out\.wav is there already")
            self.assertEqual(self.file.read_bytes(), b"older")
        self.file.unlink()
        self.assertEqual(self.record("-n", "--seconds", 1, self.file)[0], FINE)

    def wav(self, name, channels=1, samples=(1, 2, 3, 4)):
        path = self.folder / name
        with wave.open(str(path), "wb") as wav:
            wav.setparams((channels, 2, 16000, 0, "NONE", ""))
            wav.writeframes(struct.pack(f"<{len(samples)}h", *samples))
        return path

    def test_braces_become_the_first_number_that_is_free(self):
        (self.folder / "talk-2.wav").write_bytes(b"older")
        names = []
        for _ in range(3):
            output = self.record("--seconds", "0.1", "talk-{}.wav")[1]
            names.append(output.split(":")[0])
        self.assertEqual(names, ["talk-1.wav", "talk-3.wav", "talk-4.wav"])
        self.assertEqual((self.folder / "talk-2.wav").read_bytes(), b"older")

    def test_percent_signs_become_the_time(self):
        before = time.localtime()
        output = self.record("--seconds", "0.1", "%Y-%m-%d 100%%.wav")[1]
        self.assertIn(output.split(":")[0], [time.strftime("%Y-%m-%d 100%.wav", at) for at in (before, time.localtime())])

    def test_a_file_that_another_recorder_writes_is_left_alone(self):
        first = self.start("record", self.file, microphone={"MICROPHONE_PACED": "1"})
        self.wait_for(lambda: self.file.exists() and self.file.stat().st_size > HEADER_BYTES, first)
        self.assert_failed(self.record("--seconds", 1, self.file), FILE_TROUBLE, "another program is writing .*out.wav")
        first.send_signal(signal.SIGINT)
        self.assertEqual((first.wait(timeout=10), first.stderr.read()), (FINE, ""))
        self.assertEqual(self.record("--seconds", 1, self.file)[0], FINE)

    def test_a_file_without_a_name_is_refused_in_a_sentence(self):
        self.assert_failed(self.record("--seconds", 1, ""), FILE_TROUBLE, "cannot create a file without a name")

    def test_the_type_decides_whatever_the_name_says(self):
        self.assertEqual(self.record("--seconds", 1, "--type", "flac", "out.mp3")[0], FINE)
        self.assertEqual((self.folder / "out.mp3").read_bytes()[:4], b"fLaC")

    def test_one_channel_can_be_taken_and_channels_that_cancel_are_told(self):
        stereo = self.wav("stereo.wav", 2, [1000, -1000, 2000, -2000] * 100)
        out = self.folder / "out.raw"
        for channel, samples in (1, (1000, 2000)), (2, (-1000, -2000)):
            code, _, errors = self.host("process", "--channel", channel, stereo, out)
            self.assertEqual((code, errors, struct.unpack("<2h", out.read_bytes()[:4])), (FINE, "", samples))
        self.assertRegex(self.host("process", stereo, out)[2], "cancel each other out.*--channel 1\n")
        self.assert_failed(self.host("process", "--channel", 3, stereo, out), USAGE, "stereo.wav has 2 of them")


class Pipes(HostTest):
    def setUp(self):
        super().setUp()
        self.listen_to(SPEECH)

    def record_bytes(self, *arguments):
        code, output, errors = self.record(*arguments, text=False)
        self.assertEqual(code, FINE, errors)
        return output

    def test_a_wav_file_goes_into_a_pipe(self):
        plain = self.record_bytes("--seconds", 1, "-")
        for words in ["--type", "wav", "-"], ["/dev/stdout"]:
            piped = self.record_bytes("--quiet", "--seconds", 1, *words)
            self.assertEqual((piped[:4], piped[8:16], len(piped)), (b"RIFF", b"WAVEfmt ", PIPED_HEADER_BYTES + len(plain)))
            self.assertEqual(struct.unpack("<HHIIHH", piped[20:36]), (1, 1, 16000, 32000, 2, 16))
            self.assertEqual(piped[PIPED_HEADER_BYTES:], plain)
            (self.folder / "piped.wav").write_bytes(piped)
            code, output, errors = self.host("process", "piped.wav", "back.raw")
            self.assertEqual((code, errors), (FINE, ""), "the header of a stream promises nothing")
            self.assertEqual((self.folder / "back.raw").read_bytes(), plain)

    def test_a_wav_file_on_standard_output_is_whole_where_that_is_a_file(self):
        with open(self.file, "wb") as out:
            code, _, _ = self.record("--seconds", 1, "--type", "wav", "-", stdout=out)
        self.assertEqual((code, len(self.recorded(16000))), (FINE, 16000))
        with open(self.file, "ab") as out:  # what is there already stays
            self.assertEqual(self.record("--seconds", 1, "--type", "wav", "-", stdout=out)[0], FINE)
        self.assertEqual(self.file.stat().st_size, HEADER_BYTES + PIPED_HEADER_BYTES + 2 * 32000)

    def test_flac_into_a_pipe_is_refused(self):
        self.assert_failed(self.record("--type", "flac", "--seconds", 1, "-"), USAGE, "pipe, which cannot take FLAC")

    def test_a_reader_that_is_stuck_does_not_keep_the_program_from_ending(self):
        for number in signal.SIGTERM, signal.SIGINT:
            with self.subTest(signal=number.name):
                process = self.start("record", "-", text=False, microphone={"MICROPHONE_PACED": "1"})
                self.wait_for(lambda: self.waiting_in(process.stdout) >= 56000, process)
                time.sleep(0.5)
                begun = time.monotonic()
                process.send_signal(number)
                self.assertEqual(process.wait(timeout=8), FILE_TROUBLE)
                self.assertLess(time.monotonic() - begun, 3)
                self.assertRegex(process.stderr.read(), rb"cannot write standard output: its reader takes no more\n")

    @staticmethod
    def waiting_in(pipe):
        return struct.unpack("i", fcntl.ioctl(pipe, 0x541B, b"\0" * 4))[0]  # FIONREAD

    def test_a_fifo_that_nobody_reads_can_be_given_up(self):
        fifo = self.folder / "fifo.raw"
        os.mkfifo(fifo)
        process = self.start("record", fifo, microphone={"MICROPHONE_PACED": "1"})
        time.sleep(1.5)
        process.send_signal(signal.SIGTERM)
        _, errors = process.communicate(timeout=5)
        self.assertEqual(process.returncode, FILE_TROUBLE)
        self.assertRegex(errors, r"\Awrapper-audio: stopped before anybody read from .*fifo\.raw\n\Z")

    def process_from(self, data, *arguments):
        return self.host("process", *arguments, input=data, text=False)

    def test_sound_files_come_in_through_a_pipe(self):
        raw = self.record_bytes("--seconds", 1, "-")
        for kind in "wav", "flac":
            self.record("--seconds", 1, f"in.{kind}")
            data = (self.folder / f"in.{kind}").read_bytes()
            self.assertEqual(self.process_from(data, "-q", "-", "-")[:2], (FINE, raw))
            with open(self.folder / f"in.{kind}", "rb") as file:
                self.assertEqual(self.host("process", "-q", "-", "-", stdin=file, text=False)[:2], (FINE, raw))
        code, _, errors = self.process_from((self.folder / "in.wav").read_bytes()[:10044], "-", "out.raw")
        self.assertEqual(code, INPUT_BREAKS_OFF)
        self.assertRegex(errors, b"standard input breaks off after 0:00.3")

    def test_raw_samples_come_in_where_their_rate_is_told(self):
        raw = self.record_bytes("--seconds", 1, "--rate", 48000, "-")
        (self.folder / "in.raw").write_bytes(raw)
        self.assertEqual(self.process_from(raw, "--raw-rate", "48k", "-", "-")[:2], (FINE, raw))
        self.assertEqual(self.process_from(b"", "--raw-rate", "48k", "in.raw", "-")[:2], (FINE, raw))
        code, left, _ = self.process_from(raw, "--raw-rate", "24000", "--raw-channels", "2", "--channel", "1", "-", "-")
        self.assertEqual((code, left), (FINE, b"".join(raw[at : at + 2] for at in range(0, len(raw), 4))))
        self.assert_failed(self.host("process", "in.raw", "out.wav"), FILE_TROUBLE, "of raw samples --raw-rate tells the rate")
        self.assert_failed(self.host("process", "--raw-channels", 2, "in.raw", "out.wav"), USAGE, "--raw-rate")

    def test_a_gap_can_be_filled_with_silence(self):
        ramp = [2 + at % 30000 for at in range(48000 * 20)]
        self.listen_to_samples(ramp)
        processes = [
            self.start(
                *("record", "--rate", 48000, "--seconds", 9, "--fill-gaps", "--quiet", *arguments),
                text=False,
                microphone={"MICROPHONE_PACED": "1"},
            )
            for arguments in (["-"], ["--denoise", "--undenoised", "-", self.file])
        ]
        time.sleep(8)  # the pipe holds less than a second, the recorder five
        with ThreadPoolExecutor() as readers:  # both at once, or the second one loses more than there is room for
            heard = list(readers.map(lambda process: process.communicate(timeout=30), processes))
        for process, (output, errors) in zip(processes, heard):
            told = re.search(rb"\((\d+) samples\) were lost at .* and replaced by silence: ", errors)
            self.assertIsNotNone(told, errors)
            samples = struct.unpack(f"<{9 * 48000}h", output)
            self.assertEqual((process.returncode, samples.count(0)), (FINE, int(told[1])))
            apart = [abs(s - h) for s, h in zip(samples, ramp) if s != 0]
            self.assertLessEqual(max(apart), 1)
        denoised = self.recorded(48000)
        self.assertEqual(len(denoised), len(samples))
        self.assertEqual({s for s, original in zip(denoised, samples) if original == 0}, {0})


class Undenoised(HostTest):
    """Both from one capture, each as if it were alone."""

    def setUp(self):
        super().setUp()
        self.listen_to(SPEECH)

    def both(self, *arguments):
        code, output, errors = self.record("--denoise", "--undenoised", "raw.wav", "--seconds", 2, *arguments, "out.wav")
        self.assertEqual((code, errors), (FINE, "wrapper-audio: denoising at 48000 Hz, the device's own rate\n"))
        self.assertRegex(output, r"\Aout\.wav: 2\.00 s .*, denoising .*\nraw\.wav: 2\.00 s at \d+ Hz, .* dBFS\n\Z")
        return [(self.folder / name).read_bytes() for name in ("out.wav", "raw.wav")]

    def alone(self, *arguments):
        self.assertEqual(self.record("--quiet", "--seconds", 2, *arguments, "alone.wav"), (FINE, "", ""))
        return (self.folder / "alone.wav").read_bytes()

    def test_sound_is_kept_too_with_the_same_format_and_effects(self):
        for arguments in (
            ["--rate", 48000],
            ["--rate", 48000, "--bits", "24", "--highpass", 200, "--agc", -20, "--depop", 0.1],
        ):
            denoised, undenoised = self.both(*arguments)
            self.assertEqual(denoised, self.alone("--denoise", *arguments))
            self.assertEqual(undenoised, self.alone(*arguments))
            self.assertNotEqual(denoised, undenoised)
        self.assertEqual(len({len(sound) for sound in self.both("--rate", 44100, "--converter", "linear")}), 1)

    def test_one_of_both_may_go_into_a_pipe(self):
        sounds = self.both()
        for name, arguments, piped in ("a.wav", ["-", "a.wav"], 1), ("b.wav", ["b.wav", "-"], 0):
            code, output, errors = self.record("--denoise", "--seconds", 2, "--undenoised", *arguments, text=False)
            self.assertEqual((code, output), (FINE, sounds[piped][HEADER_BYTES:]))
            self.assertEqual((self.folder / name).read_bytes(), sounds[1 - piped])
            self.assertRegex(errors, rb"standard output: 2.00 s(?s:.*)")
            self.assertIn(b": %s: 2.00 s" % name.encode(), errors)

    def test_a_reader_that_goes_ends_the_recording_and_leaves_the_other_file_whole(self):
        process = self.start("record", "--denoise", "--undenoised", "-", self.file, text=False)
        process.stdout.read(32000)
        process.stdout.close()
        process.stdout = None
        _, errors = process.communicate(timeout=20)
        self.assertEqual(process.returncode, FINE, errors)
        self.assertGreater(len(self.recorded(16000)), 16000)
        self.assertNotIn(b"standard output", errors)

    def test_a_full_disk_is_told_of_the_file_that_it_is_about(self):
        for arguments in ["/dev/full", self.file], [self.file, "/dev/full"]:
            code, _, errors = self.record("--denoise", "--seconds", 60, "--undenoised", *arguments)
            self.assertEqual(code, FILE_TROUBLE)
            self.assertRegex(errors, "cannot write /dev/full: .*No space")
            self.assertNotIn(f"cannot write {self.file}", errors)
            self.recorded(16000)

    def test_it_makes_no_sense_without_denoising_or_with_speech(self):
        for arguments, words in (
            (["out.wav"], "--undenoised goes with --denoise"),
            (["--denoise=0", "out.wav"], "--undenoised goes with --denoise"),
            (["--denoise", "raw.wav"], "--undenoised needs a file of its own"),
            (["--denoise", "./raw.wav"], "--undenoised needs a file of its own"),
            (["--denoise", "--trim", "out.wav"], "excludes"),
            (["--denoise", "--events", "e.txt", "out.wav"], "excludes"),
        ):
            with self.subTest(arguments=arguments):
                self.assert_failed(self.record("--undenoised", "raw.wav", *arguments), USAGE, words)
        self.assert_failed(self.record("--denoise", "--undenoised", "raw.doc", "out.wav"), USAGE, "raw.doc")


if __name__ == "__main__":
    unittest.main()
