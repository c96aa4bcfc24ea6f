"""Recordings that last: several files one after the other, on the disk, and whole when the program is killed."""

import random
import shutil
import struct
import subprocess
import threading
import time
import unittest
import wave

from host import FILE_TROUBLE, FINE, SPEECH, USAGE, HostTest

PACED = {"MICROPHONE_PACED": "1"}


class LastingTest(HostTest):
    def setUp(self):
        super().setUp()
        self.listen_to(SPEECH)

    def samples(self, name, rate=16000):
        with wave.open(str(self.folder / name), "rb") as wav:
            self.assertEqual(wav.getframerate(), rate)
            return struct.unpack(f"<{wav.getnframes()}h", wav.readframes(wav.getnframes()))

    def names(self, pattern="*.wav"):
        return sorted(path.name for path in self.folder.glob(pattern))


class SeveralFiles(LastingTest):
    def record_files(self, name, *arguments, **options):
        code, output, errors = self.record(*arguments, name, **options)
        self.assertEqual((code, errors), (FINE, ""))
        return [line.split(": ")[0] for line in output.splitlines()]

    def test_each_is_as_long_as_wanted_and_together_they_are_the_recording(self):
        self.record("--seconds", 2.5, "whole.wav")
        files = self.record_files("part-%03d.wav", "--seconds", 2.5, "--max-file-time", 1)
        self.assertEqual(files, ["part-001.wav", "part-002.wav", "part-003.wav"])
        parts = [self.samples(name) for name in files]
        self.assertEqual([len(part) for part in parts], [16000, 16000, 8000])
        self.assertEqual(sum(parts, ()), self.samples("whole.wav"))

    def test_a_file_that_is_full_at_the_end_is_the_last_one(self):
        files = self.record_files("part-%d.wav", "--seconds", 2, "--max-file-time", 1)
        self.assertEqual((files, self.names()), (["part-1.wav", "part-2.wav"],) * 2)

    def test_many_files_in_one_piece_of_sound(self):
        self.record("--seconds", 0.1, "whole.wav")
        files = self.record_files("part-%d.wav", "--seconds", 0.1, "--max-file-time", 0.001)
        self.assertEqual(len(files), 100)
        self.assertEqual(sum((self.samples(name) for name in files), ()), self.samples("whole.wav"))

    def test_without_a_place_for_a_number_the_second_file_ends_in_2(self):
        (self.folder / "talk-2.wav").write_bytes(b"somebody else's")
        files = self.record_files("talk.wav", "--seconds", 2.5, "--max-file-time", 1)
        self.assertEqual(files, ["talk.wav", "talk-3.wav", "talk-4.wav"])
        self.assertEqual((self.folder / "talk-2.wav").read_bytes(), b"somebody else's")

    def test_a_time_in_the_name_that_does_not_tell_them_apart_loses_nothing(self):
        year = time.strftime("%Y")
        files = self.record_files("%Y.flac", "--seconds", 2.5, "--max-file-time", 1)
        self.assertEqual(files, [f"{year}.flac", f"{year}-2.flac", f"{year}-3.flac"])

    def test_braces_take_numbers_that_are_free(self):
        (self.folder / "talk2.wav").touch()
        files = self.record_files("talk{}.wav", "--seconds", 2.5, "--max-file-time", 1)
        self.assertEqual(files, ["talk1.wav", "talk3.wav", "talk4.wav"])

    def test_older_files_are_kept_if_wanted(self):
        (self.folder / "part-2.wav").write_bytes(b"older")
        code, output, errors = self.record("-n", "--seconds", 2.5, "--max-file-time", 1, "part-%d.wav")
        self.assertEqual(code, FILE_TROUBLE)
        self.assertRegex(output, r"\Apart-1\.wav: 1\.00 s [^\n]*\n\Z")
        self.assertRegex(errors, r"part-2\.wav is there already")
        self.assertEqual((self.folder / "part-2.wav").read_bytes(), b"older")

    def test_they_hold_what_speech_has_left(self):
        self.record("--trim", "--seconds", 6, "whole.wav")
        files = self.record_files("part-%d.wav", "--trim", "--seconds", 6, "--max-file-time", 1)
        self.assertGreater(len(files), 2)
        self.assertEqual(sum((self.samples(name) for name in files), ()), self.samples("whole.wav"))

    def test_what_does_not_go_together_is_refused(self):
        for arguments, words in (
            (["--max-file-time", 1, "-"], "--max-file-time needs files"),
            (["--max-file-time", 1, "--split", "talk-%d.wav"], "--split"),
            (["--max-file-time", 0, "out.wav"], "--max-file-time"),
            (["--max-file-time", 0.00001, "out.wav"], "--max-file-time: too short"),
            (["--sync", -1, "out.wav"], "--sync"),
            (["--sync", "often", "out.wav"], "--sync"),
        ):
            result = self.record(*arguments, microphone={"MICROPHONE_REFUSES": "1"})
            self.assert_failed(result, USAGE, words)  # and not by the microphone
        self.assertEqual(self.names(), [])


class OnTheDisk(LastingTest):
    def synchronised(self, *arguments, code=FINE, **scripted):
        log = self.folder / "disk.log"
        log.unlink(missing_ok=True)
        result = self.record(*arguments, microphone={**PACED, "DISK_LOG": str(log), **scripted})
        self.assertEqual(result[0], code, result)
        return [int(size) for size in log.read_text().split()] if log.exists() else []

    def test_a_file_gets_there_each_second_and_whole_at_the_end(self):
        for name in "out.wav", "out.flac", "out.opus", "out.raw":
            with self.subTest(name=name):
                sizes = self.synchronised("--seconds", 3.5, name)
                self.assertIn(len(sizes), (3, 4))  # a busy machine may be late
                self.assertEqual(sizes, sorted(sizes))
                self.assertEqual(sizes[-1], (self.folder / name).stat().st_size)

    def test_the_interval_can_be_chosen(self):
        self.assertEqual(self.synchronised("--sync", 0, "--seconds", 1.5, "out.wav"), [])
        self.assertGreater(len(self.synchronised("--sync", "0.1s", "--seconds", 1.5, "out.wav")), 8)
        self.assertEqual(len(self.synchronised("--sync", "1h", "--seconds", 1.5, "out.wav")), 1)

    def test_nothing_is_synchronised_that_is_no_file(self):
        result = self.record("--seconds", 1.5, "-", microphone={**PACED, "DISK_FAILS": "1"}, text=False)
        self.assertEqual((result[0], len(result[1])), (FINE, 48000))

    def test_a_disk_that_fails_is_told(self):
        for name in "out.wav", "out.raw":
            code, _, errors = self.record("--seconds", 0.5, name, microphone={"DISK_FAILS": "1"})
            self.assertEqual(code, FILE_TROUBLE)
            self.assertEqual(errors, f"wrapper-audio: cannot write the end of {name}: Input/output error\n")


class Killed(LastingTest):
    def test_a_recording_killed_at_any_moment_opens_and_lacks_a_second_at_most(self):
        generator = random.Random(9)
        kinds = ["wav", "flac", "opus", "mp3"]
        plans = [(f"killed-{number}.{kinds[number % 4]}", generator.uniform(0.5, 4)) for number in range(50)]
        results = {}
        for at in range(0, len(plans), 10):
            threads = [threading.Thread(target=self.kill, args=(*plan, results)) for plan in plans[at : at + 10]]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
        self.assertEqual(len(results), 50)
        for name, recorded in results.items():
            for peer in "sox", "ffmpeg":
                if name.endswith((".opus", ".mp3")) and peer == "sox":
                    continue  # Debian's sox cannot read Opus, nor MP3 without another package
                with self.subTest(name=name, peer=peer):
                    self.assertGreater(self.seconds(peer, name), recorded - 1)

    def kill(self, name, seconds, results):
        """Kills a recording some seconds after its first sound has been written."""
        path = self.folder / name
        process = self.start("record", path, microphone=PACED)
        self.wait_for(path.exists, process)
        time.sleep(seconds)
        process.kill()
        process.communicate()
        results[name] = seconds

    def seconds(self, peer, name):
        if shutil.which(peer) is None:
            self.skipTest(f"{peer} is not installed; scripts/setup test installs it")
        raw = ["-t", "raw", "-r", "16000", "-"] if peer == "sox" else ["-f", "s16le", "-ar", "16000", "-"]
        command = ["sox", name, *raw] if peer == "sox" else ["ffmpeg", "-v", "fatal", "-i", name, *raw]
        done = subprocess.run(command, cwd=self.folder, capture_output=True, timeout=30)
        self.assertEqual(done.returncode, 0, done.stderr)
        return len(done.stdout) / 32000


if __name__ == "__main__":
    unittest.main()
