"""Microphones that come and go: recorded on, and shown."""

import json
import re
import signal
import time
import unittest

from host import FINE, HEADER_BYTES, READ_FAILED, USAGE, HostTest, rms
from servers_test import ServerTest

import servers

LOST = r"wrapper-audio: \S+ failed: .*; the recording goes on when it is back\n"
BACK = r"wrapper-audio: '.+' is back; (\S+) s are {}\n"
PACED = {"MICROPHONE_PACED": "1"}
FAILING = {**PACED, "MICROPHONE_FAILS_AFTER": "40"}  # 1.2 s
RETURNING = {**FAILING, "MICROPHONE_RETURNS": "1"}


class Reconnecting(HostTest):
    """On a file, of which each stream begins anew."""

    def setUp(self):
        super().setUp()
        self.listen_to_samples([8000, -8000] * 240000)

    def test_what_is_missing_is_left_out_or_silent_as_is_wanted(self):
        for arguments, what in ([], "missing"), (["--fill-gaps"], "replaced by silence"):
            options = *arguments, "--reconnect", "--rate", 48000, "--seconds", 3
            code, _, errors = self.record(*options, self.file, microphone=RETURNING)
            said = re.fullmatch(LOST + BACK.format(what), errors)
            self.assertTrue(code == FINE and said, errors)
            away = float(said[1])
            self.assertTrue(0.4 < away < 2, away)
            samples = self.recorded(48000)
            self.assertEqual(len(samples), 144000)
            silent = [at for at, sample in enumerate(samples) if sample == 0]
            if arguments:
                self.assertEqual(silent, list(range(57600, 57600 + len(silent))), "40 blocks, and then nothing")
                self.assertAlmostEqual(len(silent) / 48000, away, delta=0.06)
            else:
                self.assertEqual(silent, [])

    def test_what_follows_is_in_a_file_of_its_own_if_that_is_wanted(self):
        options = "--reconnect", "--split-gaps", "--rate", 48000, "--seconds", 2
        for name, names in ("talk.wav", ("talk.wav", "talk-2.wav")), ("%03d.wav", ("001.wav", "002.wav")):
            code, output, errors = self.record(*options, name, microphone=RETURNING)
            self.assertTrue(code == FINE and re.fullmatch(LOST + BACK.format("missing"), errors), errors)
            self.assertEqual(re.findall(r"^(\S+): (\S+) s", output, re.M), [(names[0], "1.20"), (names[1], "0.80")])
            sizes = [(self.folder / each).stat().st_size - HEADER_BYTES for each in names]
            self.assertEqual(sizes, [2 * 57600, 2 * 38400])

    def test_both_sounds_are_split_at_the_same_place(self):
        options = "--reconnect", "--split-gaps", "--seconds", 2, "--denoise", "--undenoised", "raw.wav", "--agc", -20
        code, output, errors = self.record(*options, "out.wav", microphone=RETURNING)
        self.assertEqual(code, FINE, errors)
        told = dict(re.findall(r"^(\S+)\.wav: (\S+) s", output, re.M))
        self.assertEqual(sorted(told), ["out", "out-2", "raw", "raw-2"])
        self.assertEqual((told["out"], told["out-2"]), (told["raw"], told["raw-2"]))
        self.assertEqual(float(told["out"]) + float(told["out-2"]), 2)

    def test_events_tell_of_it(self):
        events = self.folder / "events"
        options = "--reconnect", "--seconds", 2, "--events", events
        code, _, errors = self.record(*options, self.file, microphone=RETURNING)
        self.assertEqual(code, FINE, errors)
        seen = [json.loads(line) for line in events.read_text().splitlines()]
        told = {event["event"]: event for event in seen}
        self.assertEqual(sum(event["event"] == "device-lost" for event in seen), 1)
        self.assertAlmostEqual(told["device-lost"]["time"], 1.2, delta=0.1)
        self.assertIn("failed", told["device-lost"]["reason"])
        lost = sum(event["seconds"] for event in seen if event["event"] == "dropped")
        self.assertAlmostEqual(told["device-back"]["time"], 1.2 + lost, delta=0.06)
        signals = [event["signal"] for event in seen if event["event"] == "signal"]
        self.assertEqual(signals, ["sound", "lost", "sound"])

    def test_ctrl_c_ends_the_waiting(self):
        process = self.start("record", "--reconnect", self.file, microphone=FAILING)
        time.sleep(4)
        self.assertIsNone(process.poll())
        process.send_signal(signal.SIGINT)
        begun = time.monotonic()
        _, errors = process.communicate(timeout=20)
        self.assertLess(time.monotonic() - begun, 2)
        self.assertEqual(process.returncode, FINE)
        self.assertRegex(errors, rf"\A{LOST}\Z")
        self.assertEqual(len(self.recorded(16000)), 40 * 480)

    def test_a_device_that_hangs_is_opened_again(self):
        stalling = {**PACED, "MICROPHONE_STALLS_AFTER": "40", "MICROPHONE_RETURNS": "1"}
        options = "--reconnect", "--fill-gaps", "--rate", 48000, "--seconds", 9
        code, _, errors = self.record(*options, self.file, microphone=stalling)
        said = re.fullmatch(".* delivers nothing.*\n" + LOST + BACK.format("replaced by silence"), errors)
        self.assertTrue(code == FINE and said, errors)
        self.assertIn(" failed: it hangs;", errors)
        self.assertTrue(5 < float(said[1]) < 7.5, said[1])
        samples = self.recorded(48000)
        silent = [at for at, sample in enumerate(samples) if sample == 0]
        self.assertEqual((len(samples), silent[0]), (9 * 48000, 57600), "40 blocks, and then nothing")

    def test_without_the_option_the_recording_ends(self):
        code, _, errors = self.record(self.file, microphone=RETURNING)
        self.assertEqual(code, READ_FAILED, errors)

    def test_gaps_split_files_only(self):
        for arguments, words in (
            (["--split-gaps", self.file], "--split-gaps requires --reconnect"),
            (["--reconnect", "--split-gaps", "--fill-gaps", self.file], "excludes"),
            (["--reconnect", "--split-gaps", "-"], "--split-gaps needs files"),
        ):
            self.assert_failed(self.record(*arguments), USAGE, words)

    def test_ids_cannot_be_watched(self):
        self.assertEqual(self.host("devices", "--watch", "--ids")[0], USAGE)

    def test_watching_begins_with_what_there_is(self):
        for arguments, line in (
            ([], "present  ALSA:filemic  filemic\n"),
            (["--json"], '{"event":"present","device":{"id":"ALSA:filemic"'),
        ):
            process = self.start("devices", "--watch", *arguments)
            lines = process.stdout.readline() + process.stdout.readline()
            process.send_signal(signal.SIGINT)
            _, errors = process.communicate(timeout=5)
            self.assertEqual((process.returncode, errors), (FINE, ""))
            self.assertIn(line, lines)


class PulseAudio(ServerTest):
    kind = servers.PulseAudio
    device = "ALSA:pulse"
    source = "mic.monitor"

    def check_a_restart(self, device):
        log = self.folder / "errors"
        with open(log, "w") as errors:
            options = "--reconnect", "--fill-gaps", "--device", device
            process = self.start("record", *options, self.file, stderr=errors)
        self.wait_for(lambda: self.file.exists() and self.file.stat().st_size > 60000, process)
        self.server.kill()
        killed = time.monotonic()
        self.wait_for(lambda: re.search(LOST, log.read_text()), process, "the loss is not told")
        time.sleep(3)
        self.server.restart()
        self.server.play(self.sound)
        self.wait_for(lambda: "is back" in log.read_text(), process, "it does not come back")
        away = time.monotonic() - killed
        size = self.file.stat().st_size
        self.wait_for(lambda: self.file.stat().st_size > size + 64000, process)
        process.send_signal(signal.SIGINT)
        output, _ = process.communicate(timeout=20)
        self.assertEqual(process.returncode, FINE, log.read_text())
        told = float(re.search(BACK.format("replaced by silence"), log.read_text())[1])
        self.assertAlmostEqual(told, away, delta=0.6)
        samples = self.recorded(16000)
        self.check_result_line(output, 16000, samples)
        self.assertGreater(rms(samples[-16000:]), 0, "what is played after it")

    def test_a_server_that_is_restarted_is_recorded_on(self):
        self.check_a_restart(self.device)

    def test_so_is_one_of_its_sources(self):
        self.check_a_restart(self.source)

    def test_sources_that_come_and_go_are_shown(self):
        process = self.start("devices", "--watch", "--json")
        device = f"{self.kind.__name__}:second.monitor"

        def wait_for(event):
            for line in process.stdout:
                told = json.loads(line)
                if told["device"]["id"] == device:
                    return self.assertEqual(told["event"], event)
            return self.fail(f"{event} does not come")

        self.assertEqual(json.loads(process.stdout.readline())["event"], "present")
        self.server.output("pactl", "load-module", "module-null-sink", "sink_name=second", "rate=16000", "channels=1")
        wait_for("arrived")
        self.server.kill()
        wait_for("left")
        process.send_signal(signal.SIGINT)
        process.communicate(timeout=5)
        self.assertEqual(process.returncode, FINE)


class PipeWire(PulseAudio):
    kind = servers.PipeWire
    device = "ALSA:pipewire"
    source = "PipeWire:mic"


class Jack(ServerTest):
    kind = servers.Jack

    def test_a_server_that_ends_is_told_to_be_lost_and_what_was_recorded_is_kept(self):
        self.wait_until_device(":system")
        self.server.play(self.sound)
        self.wait_until_device("jack-play")
        log = self.folder / "errors"
        with open(log, "w") as errors:
            process = self.start("record", "--reconnect", "--device", "jack-play", self.file, stderr=errors)
        self.wait_for(lambda: self.file.exists() and self.file.stat().st_size > 60000, process)
        self.server.kill()
        said = "it hangs; if its server has ended, only another process finds the next one;"
        self.wait_for(lambda: said in log.read_text(), process, "the loss is not told")
        process.send_signal(signal.SIGINT)
        output, _ = process.communicate(timeout=5)
        self.assertEqual(process.returncode, FINE, log.read_text())
        samples = self.recorded(16000)
        self.check_result_line(output, 16000, samples)
        self.assertGreater(rms(samples[:16000]), 0)


if __name__ == "__main__":
    unittest.main()
