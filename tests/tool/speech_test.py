"""What speech decides: when `record` and `process` begin and end, into which files, and what `dictate` runs."""

import json
import resource
import signal
import struct
import unittest
import wave

from host import FILE_TROUBLE, FINE, READ_FAILED, SPEECH, USAGE, HostTest

NOBODY_SPOKE = 9
BEGIN, END, HANG_OVER, PRE_ROLL = 0.83, 5.28, 0.5, 0.3  # of the voice in the recorded speech, and the defaults


class Speech(HostTest):
    def setUp(self):
        super().setUp()
        self.two = self.folder / "two.raw"  # the same sentences twice, with two seconds of silence between them
        self.two.write_bytes(SPEECH.read_bytes() + bytes(192000) + SPEECH.read_bytes())
        self.events = self.folder / "events.json"

    def samples(self, name):
        with wave.open(str(self.folder / name), "rb") as wav:
            data = wav.readframes(wav.getnframes())
            self.assertEqual(len(data), 2 * wav.getnframes())
            return struct.unpack(f"<{len(data) // 2}h", data), wav.getframerate()

    def seconds(self, name):
        samples, rate = self.samples(name)
        return len(samples) / rate

    def told(self, *kinds):
        """The events of these kinds, each of which has a time."""
        events = [json.loads(line) for line in self.events.read_text().splitlines()]
        self.assertEqual(sorted(event["time"] for event in events if event["event"] == "level"),
                         [event["time"] for event in events if event["event"] == "level"])
        return [event for event in events if event["event"] in kinds]

    def assert_times(self, events, *times):
        self.assertEqual(len(events), len(times), events)
        for event, time in zip(events, times):
            self.assertAlmostEqual(event["time"], time, delta=0.05)

    def both(self, name, *arguments):
        """By `record` and by `process`, which hear the same."""
        self.listen_to(self.two)
        for how in (["record", *arguments, "--seconds", 14, name] if "--start-on-speech" not in arguments else
                    ["record", *arguments, name]), ["process", "--raw-rate", 48000, *arguments, self.two, name]:
            with self.subTest(how=how[0]):
                code, output, errors = self.host(*how, "--events", self.events)
                self.assertEqual((code, errors), (FINE, ""))
                yield output
                for file in self.folder.glob("*.wav"):
                    file.unlink()

    def test_each_utterance_has_a_file_of_its_own(self):
        for output in self.both("talk-%03d.wav", "--split", "--rate", 16000):
            self.assertEqual(sorted(file.name for file in self.folder.glob("*.wav")), ["talk-001.wav", "talk-002.wav"])
            self.assertEqual(sum("talk-00" in line for line in output.splitlines()), 2)
            for name in "talk-001.wav", "talk-002.wav":
                self.assertAlmostEqual(self.seconds(name), END + HANG_OVER - BEGIN + PRE_ROLL, delta=0.05)
            self.assert_times(self.told("speech-start", "speech-end"), BEGIN - PRE_ROLL, END + HANG_OVER,
                              8 + BEGIN - PRE_ROLL, 8 + END + HANG_OVER)

    def test_what_is_no_speech_is_left_out(self):
        for _ in self.both("out.wav", "--trim", "--rate", 16000, "--pre-roll", "0.1"):
            self.assertAlmostEqual(self.seconds("out.wav"), 2 * (END + HANG_OVER - BEGIN + 0.1), delta=0.1)

    def test_a_recording_begins_and_ends_with_speech(self):
        for _ in self.both("out.wav", "--start-on-speech", "--stop-after-silence", 1.5, "--pre-roll", 0.2):
            self.assertAlmostEqual(self.seconds("out.wav"), END + 1.5 - BEGIN + 0.2, delta=0.1)
            self.assert_times(self.told("speech-start", "speech-end"), BEGIN - 0.2, END + HANG_OVER)

    def test_the_samples_are_those_of_the_whole_recording(self):
        self.listen_to(self.two)
        self.host("record", "--rate", 48000, "--seconds", 7, "whole.wav")
        self.host("record", "--rate", 48000, "--start-on-speech", "--seconds", 3, "--events", self.events, "late.wav")
        whole, late = self.samples("whole.wav")[0], self.samples("late.wav")[0]
        self.assertEqual(len(late), 3 * 48000)
        begin = round(self.told("speech-start")[0]["time"] * 48000)
        self.assertEqual(late, whole[begin : begin + len(late)])
        self.host("record", "--rate", 48000, "--trim", "--seconds", 7, "trimmed.wav")
        trimmed = self.samples("trimmed.wav")[0]
        self.assertEqual(trimmed, whole[begin : begin + len(trimmed)])

    def test_silence_alone_ends_a_recording_only_after_somebody_has_spoken(self):
        self.listen_to_samples([0] * 48000 * 3)
        for arguments in ["--stop-after-silence", 0.5], ["--start-on-speech", "--stop-after-silence", 0.5], ["--trim"]:
            code, _, errors = self.host("process", "--raw-rate", 48000, *arguments,
                                        self.folder / 'a "made-up" sound.raw', self.file)
            self.assertEqual((code, errors), (FINE, "wrapper-audio: nobody spoke\n"))
            self.assertEqual(self.seconds(self.file), 0 if arguments[-1] != 0.5 or len(arguments) > 2 else 3)

    def test_ctrl_c_before_anybody_spoke_leaves_a_valid_file(self):
        self.listen_to_samples([0] * 48000)
        process = self.start("record", "--start-on-speech", self.file, microphone={"MICROPHONE_PACED": "1"})
        self.wait_for(self.file.exists, process)
        process.send_signal(signal.SIGINT)
        output, errors = process.communicate(timeout=30)
        self.assertEqual(process.returncode, FINE)
        self.assertIn("wrapper-audio: nobody spoke\n", errors)
        self.assertEqual(self.recorded(16000), ())

    def test_a_full_disk_in_the_middle_keeps_what_was_recorded(self):
        self.listen_to(self.two)
        limit = 100000
        code, output, errors = self.host(
            "record", "--split", "talk-%d.wav", "--seconds", 14,
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit)))
        self.assertEqual(code, FILE_TROUBLE, errors)
        self.assertRegex(errors, r"cannot write talk-1\.wav: ")
        self.assertEqual([file.name for file in self.folder.glob("*.wav")], ["talk-1.wav"])
        with wave.open(str(self.folder / "talk-1.wav"), "rb") as wav:
            self.assertGreater(wav.getnframes(), 48000)

    def test_a_device_that_is_lost_is_told_of_and_the_utterance_kept(self):
        self.listen_to(self.two)
        code, _, errors = self.host("record", "--split", "talk-%d.wav", "--events", self.events,
                                    microphone={"MICROPHONE_FAILS_AFTER": "60"})  # 1.8 s
        self.assertEqual(code, READ_FAILED)
        self.assertRegex(errors, "the files keep what was recorded before")
        self.assertAlmostEqual(self.seconds("talk-1.wav"), 1.8 - BEGIN + PRE_ROLL, delta=0.05)
        (lost,) = self.told("device-lost")
        self.assertAlmostEqual(lost["time"], 1.8, delta=0.001)
        self.assertTrue(lost["reason"])

    def test_levels_are_told_ten_times_a_second(self):
        self.listen_to(SPEECH)
        self.host("record", "--seconds", 2, "--events", self.events, self.file)
        levels = self.told("level")
        self.assertIn(len(levels), range(16, 21))
        self.assertTrue(all(0 <= event["rms"] <= event["peak"] <= 1 for event in levels))

    def test_changes_of_what_is_heard_are_told(self):
        sound, second = SPEECH.read_bytes(), 48000
        samples = [0] * 3 * second + [5, -5] * second + [32767] * 3 * second
        (self.folder / "dying.raw").write_bytes(sound + struct.pack(f"<{len(samples)}h", *samples))
        self.listen_to(self.folder / "dying.raw")
        length = len(sound) / 96000
        self.host("record", "--seconds", length + 8, "--events", self.events, self.file)
        changes = self.told("signal")
        self.assertEqual([event["signal"] for event in changes], ["sound", "zeros", "hiss", "sound", "clipping"])
        for event, time in zip(changes, (0, length + 2.5, length + 3, length + 5, length + 7.5)):
            self.assertAlmostEqual(event["time"], time, delta=0.15)

    def test_events_go_to_standard_output_and_may_lose_their_reader(self):
        self.listen_to(SPEECH)
        code, output, errors = self.record("--seconds", 6, "--events", "-", self.file)
        self.assertEqual(code, FINE)
        self.assertIn(str(self.file), errors)
        events = [json.loads(line)["event"] for line in output.splitlines()]
        self.assertEqual([event for event in events if event not in ("level", "signal")], ["speech-start", "speech-end"])
        code, _, errors = self.record("--seconds", 1, "--events", "/dev/full", self.file)
        self.assertEqual(code, FILE_TROUBLE)
        self.assertRegex(errors, "cannot write events to /dev/full: .*; the sound is kept without them")
        self.assertEqual(len(self.recorded(16000)), 16000)

    def test_the_status_line_shows_speech(self):
        self.listen_to(SPEECH)
        code, shown = self.in_terminal("record", "--trim", "--seconds", 3, self.file,
                                       microphone={"MICROPHONE_PACED": "1"})
        self.assertEqual(code, FINE)
        self.assertRegex(shown, r"0:00\.\d        \[")
        self.assertRegex(shown, r"0:02\.\d speech \[")

    def test_options_that_make_no_sense_are_refused(self):
        for arguments, words in (
            (["--split", "talk.wav"], "needs a place for a number, such as talk-%03d.wav"),
            (["--split", "-"], "--split needs files"),
            (["--events", "-", "-"], "cannot both go to standard output"),
            (["--pre-roll", 1, "a.wav"], "--pre-roll goes with"),
            (["--trim", "--pre-roll", 61, "a.wav"], "must be a minute or less"),
            (["--trim", "--pre-roll", -1, "a.wav"], "--pre-roll"),
            (["--stop-after-silence", 0, "a.wav"], "must be above 0"),
            (["--stop-after-silence", -1, "a.wav"], "--stop-after-silence"),
            (["--trim", "--split", "%d.wav"], "excludes"),
            (["--trim", "--fill-gaps", "a.wav"], "excludes"),
        ):
            with self.subTest(arguments=arguments):
                self.assert_failed(self.record(*arguments), USAGE, words)
        self.assert_failed(self.record("--events", "no/such/folder", "a.wav"), FILE_TROUBLE, "cannot write events to")


class Dictation(HostTest):
    def setUp(self):
        super().setUp()
        self.listen_to(SPEECH)
        self.temporary = self.folder / "temporary"
        self.temporary.mkdir()

    def dictate(self, *arguments, **options):
        return self.host("dictate", *arguments, environment={"TMPDIR": str(self.temporary)}, **options)

    def test_runs_a_command_with_one_utterance(self):
        code, output, _ = self.dictate("--", "sh", "-c", 'wc -c < "$1"; echo "$1"', "name")
        size, name = output.splitlines()
        self.assertEqual(code, FINE)
        self.assertAlmostEqual(int(size) / 32000, END + 1.5 - BEGIN + PRE_ROLL, delta=0.1)
        self.assertRegex(name, r"/temporary/wrapper-audio-\w+\.wav$")
        self.assertEqual(list(self.temporary.iterdir()), [], "the temporary file is left behind")

    def test_puts_the_file_in_place_of_braces_and_passes_the_exit_code_on(self):
        code, output, _ = self.dictate("-o", self.file, "--", "sh", "-c", "echo {} $#; exit 42", "sh", "<{}>")
        self.assertEqual((code, output), (42, f"{self.file} 1\n"))
        self.assertGreater(len(self.recorded(16000)), 16000)
        self.assertEqual(self.dictate("--", "sh", "-c", "kill -KILL $$")[0], 128 + signal.SIGKILL)

    def test_does_not_listen_for_a_command_that_does_not_exist(self):
        for command, words in ("no-such-command", "No such file"), ("./out.wav", "Permission denied"):
            self.file.touch()
            code, output, errors = self.dictate("--", command)
            self.assertEqual((code, output), (USAGE, ""))
            self.assertRegex(errors, rf"^wrapper-audio: cannot run '{command}': {words}")
        self.assert_failed(self.dictate(), USAGE, "COMMAND")

    def test_says_nothing_on_standard_output_and_ends_after_seconds(self):
        code, output, errors = self.dictate("--seconds", 2, "-o", self.file, "--", "true")
        self.assertEqual((code, output), (FINE, ""))
        self.assertIn(f"{self.file}: 2.00 s", errors)
        self.assertEqual(len(self.recorded(16000)), 32000)

    def test_passes_a_signal_on_to_the_command(self):
        marker = self.folder / "runs"
        process = self.start("dictate", "-o", self.file, "--", "sh", "-c", f"touch '{marker}'; exec sleep 60")
        self.wait_for(marker.exists, process)
        process.send_signal(signal.SIGTERM)
        process.communicate(timeout=30)
        self.assertEqual(process.returncode, 128 + signal.SIGTERM)
        self.assertGreater(len(self.recorded(16000)), 16000)

    def test_runs_nothing_after_sigterm_before_speech(self):
        self.listen_to_samples([0] * 48000)
        process = self.start("dictate", "-o", self.file, "--", "echo", microphone={"MICROPHONE_PACED": "1"})
        self.wait_for(self.file.exists, process)
        process.send_signal(signal.SIGTERM)
        output, errors = process.communicate(timeout=30)
        self.assertEqual((process.returncode, output), (NOBODY_SPOKE, ""))
        self.assertIn("nobody spoke", errors)

    def test_leaves_no_temporary_file_when_nobody_spoke(self):
        self.listen_to_samples([0] * 48000)
        process = self.start("dictate", "--", "echo", microphone={"MICROPHONE_PACED": "1"},
                             environment={"TMPDIR": str(self.temporary)})
        self.wait_for(lambda: any(self.temporary.iterdir()), process)
        self.wait_for(lambda: any(file.stat().st_size >= 44 for file in self.temporary.iterdir()), process)
        process.send_signal(signal.SIGINT)
        process.communicate(timeout=30)
        self.assertEqual((process.returncode, list(self.temporary.iterdir())), (NOBODY_SPOKE, []))


if __name__ == "__main__":
    unittest.main()
