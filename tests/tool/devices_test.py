"""Choosing a device, metering it, and the doctor; in a pipe and in a terminal."""

import errno
import fcntl
import json
import os
import re
import signal
import subprocess
import termios
import time
import unittest

from host import (
    FINE,
    NO_DEVICE,
    NO_INPUT_DEVICE,
    OPEN_FAILED,
    READ_FAILED,
    ROOT,
    SPEECH,
    USAGE,
    ZEROS,
    HostTest,
)

COMMANDS = ["devices", "meter", "record", "process", "doctor"]


def without_colours(text):
    return re.sub(r"\033\[\d*m", "", text)


class Devices(HostTest):
    def setUp(self):
        super().setUp()
        self.listen_to(SPEECH)

    def add_device(self, name):
        with open(self.folder / "microphone.conf", "a") as configuration:
            configuration.write(f'pcm."{name}" {{ type plug slave.pcm "filemic" }}\n')

    def add_speaker(self):
        with open(self.folder / "microphone.conf", "a") as configuration:
            configuration.write('pcm.speaker { type asym playback.pcm { type plug slave.pcm { type null } } }\n')

    def test_a_table_marks_the_default_and_tells_how_each_device_is_denoised(self):
        self.listen_to(SPEECH, 16000)
        code, output, errors = self.host("devices")
        self.assertEqual((code, errors), (FINE, "wrapper-audio: * marks the default\n"))
        self.assertEqual(
            output,
            "  ID            NAME     RATE   DENOISE    KIND\n"
            "  ALSA:filemic  filemic  44100  native     input\n"
            "* ALSA:default  default  16000  converted  input\n",
        )

    def test_json_has_the_same_fields(self):
        self.add_speaker()
        code, output, errors = self.host("devices", "--json")
        self.assertEqual((code, errors), (FINE, ""))
        devices = {device["id"]: device for device in json.loads(output)}
        fields = ["id", "name", "kind", "isDefault", "hostApi", "rate", "denoise"]
        for wanted in (
            ["ALSA:default", "default", "input", True, "ALSA", 48000, "native"],
            ["ALSA:filemic", "filemic", "input", False, "ALSA", 44100, "native"],
            ["ALSA:speaker", "speaker", "output", False, "ALSA", devices["ALSA:speaker"]["rate"], None],
        ):
            self.assertEqual(list(devices[wanted[0]].items()), list(zip(fields, wanted)))
        self.assertEqual(self.host("devices", "--ids")[1], "ALSA:filemic\nALSA:default\n")

    def test_json_is_valid_whatever_bytes_a_name_has(self):
        for name in b"caf\xe9", b"\xed\xa0\x80\xff", "Küche \N{GRINNING FACE}".encode(), b'\x1b"\\\n', b"x" * 5000:
            microphone = {"MICROPHONE_NAME": os.fsdecode(name)}
            output = self.host("devices", "--json", text=False, microphone=microphone)[1]
            [device] = [device for device in json.loads(output.decode("utf-8", "strict")) if device["isDefault"]]
            expected = b"ALSA:" + name
            self.assertEqual(bytes.fromhex(device.get("idHex", device["id"].encode().hex())), expected)
            self.assertEqual("idHex" in device, "\ufffd" in device["id"])

    def test_outputs_are_shown_on_request(self):
        self.add_speaker()
        inputs, everything = self.host("devices", "--ids")[1], self.host("devices", "--ids", "--all")[1]
        self.assertLessEqual(set(inputs.split("\n")), set(everything.split("\n")))
        self.assertRegex(everything, "ALSA:speaker")

    def test_names_keep_their_bytes_and_the_terminal_its_peace(self):
        for name in "Küche", "caf\\xe9":
            self.add_device(name.encode().decode("unicode_escape") if "\\" in name else name)
        configuration = (self.folder / "microphone.conf").read_bytes().replace("caf\xe9".encode(), b"caf\xe9")
        (self.folder / "microphone.conf").write_bytes(configuration)
        code, output, _ = self.host("devices")
        self.assertEqual(code, FINE)
        self.assertRegex(output, r"\n  ALSA:Küche +Küche +44100  native +input\n")
        self.assertRegex(output, r"\n  ALSA:caf\? +caf� +44100  native +input\n")
        self.assertIn(b"ALSA:caf\xe9\n", self.host("devices", "--ids", text=False)[1])
        self.assertEqual(self.record("--device", "KÜCHE", "--seconds", 1, self.file)[0], FINE)
        self.assertEqual(self.record("--device", b"caf\xe9".decode(errors="surrogateescape"), "--seconds", 1, self.file)[0], FINE)

    def test_a_name_or_a_part_of_an_id_is_enough_when_only_one_device_has_it(self):
        self.add_device("Kitchen")
        self.add_device("Kitchen two")
        for wanted in "FILE", "ALSA:filemic", "two", "ALSA:Kitchen", "kitchen":
            with self.subTest(wanted=wanted):
                code, _, errors = self.record("--device", wanted, "--seconds", 1, self.file)
                self.assertEqual((code, errors), (FINE, ""))
                self.file.unlink()
        for wanted, candidates in ("kitch", ["ALSA:Kitchen", "ALSA:Kitchen two"]), (
            "cellar",
            ["ALSA:filemic", "ALSA:Kitchen", "ALSA:Kitchen two", "ALSA:default"],
        ):
            for command in ["record", self.file], ["meter"]:
                with self.subTest(wanted=wanted, command=command):
                    result = self.host(*command, "--device", wanted)
                    self.assert_failed(result, USAGE, rf"\Awrapper-audio: .*'{wanted}'")
                    self.assertEqual(result[2].count("\n  "), len(candidates))
                    for candidate in candidates:
                        self.assertIn(f"\n  {candidate}\n", result[2])
                    self.assertFalse(self.file.exists())

    def test_no_input_device(self):
        (self.folder / "microphone.conf").write_text(NO_DEVICE)
        for command in ["devices"], ["meter"], ["record", self.file], ["meter", "--device", "x"]:
            with self.subTest(command=command):
                self.assert_failed(self.host(*command), NO_INPUT_DEVICE, "wrapper-audio: there is no input device")
        code, output, _ = self.host("devices", "--json")
        self.assertEqual((code, output), (NO_INPUT_DEVICE, "[]\n"))


class HostileNames(HostTest):
    """The default input is called what a device may be called: anything."""

    # The escape sequences are an ESC, DEL and the control sequence introducer in UTF-8 and as a byte; the Cyrillic
    # letter and the dash have bytes in the same range, which have to stay. The rest looks like the library's own lines.
    NAME = (
        b"\x1b[2J\x1b]0;title\x07\x7f\xc2\x9b31m\x9b31m\r\xd0\x9a\xe2\x80\x94 %s%n ' (idx=9, requested='') capture_rate=7 \""
        b"\n[audio_wrapper] WARN device_id 'forged' !\x1b[31m"
    )
    ID = "?[2J?]0;title???31m?31m?К— %s%n ' (idx=9, requested='') capture_rate=7 \"?[audio_wrapper] WARN"
    SHOWN = "*[2J*]0;title***31m*31m*К— %s%n ' (idx=9, requested='') capture_rate=7 \"".replace("*", "\ufffd")
    OBEYED = re.compile("[^\\n\\r\\t -~\\xa0-\\U0010ffff]|\\r(?=К)")

    def setUp(self):
        super().setUp()
        self.listen_to(SPEECH)
        self.microphone = {"MICROPHONE_NAME": os.fsdecode(self.NAME)}

    def shown_by(self, *arguments, ends=FINE, microphone=None):
        """What the terminal gets, where the host itself moves the cursor by a carriage return only."""
        scripted = {**self.microphone, **(microphone or {})}
        code, shown = self.in_terminal(*arguments, microphone=scripted, environment={"NO_COLOR": "1"})
        if ends is not None:
            self.assertEqual(code, ends, shown)
        self.assertIsNone(self.OBEYED.search(shown), ascii(shown))
        return shown.replace("\r\n", "\n")

    def test_lists_on_a_terminal(self):
        self.assertIn("* ALSA:" + self.ID, self.shown_by("devices"))
        self.assertIn("ALSA:" + self.ID, self.shown_by("devices", "--ids"))
        names = [device["name"] for device in json.loads(self.shown_by("devices", "--json"))]
        self.assertTrue(names[-1].startswith(self.SHOWN), names)

    def test_lists_in_a_pipe_keep_the_bytes(self):
        name = self.NAME.replace(b"\n", b"?")  # a line is an id
        self.assertIn(b"ALSA:" + name + b"\n", self.host("devices", "--ids", text=False, microphone=self.microphone)[1])

    def test_a_recording_with_everything_shown(self):
        shown = self.shown_by("record", "--verbose", "--seconds", 0.1, self.file)
        self.assertIn(
            f"[audio_wrapper] ctx_create device='{self.SHOWN}?[audio_wrapper] WARN device_id 'forged' !\ufffd[31m' (idx=", shown
        )
        self.assertEqual(len(self.recorded(16000)), 1600)  # the name changed neither the rate nor the choice

    def test_the_sentence_of_a_failure(self):
        shown = self.shown_by("record", self.file, ends=OPEN_FAILED, microphone={"MICROPHONE_REFUSES": "1"})
        self.assertRegex(shown, r"\Awrapper-audio: ALSA:.*WARN device_id 'forged' .* did not open: .*\. Close .*\n\Z")

    def test_the_last_words_of_a_crash(self):
        for how in "abort", "exit":
            with self.subTest(how=how):
                shown = self.shown_by("record", "--verbose", self.file, ends=None, microphone={"MICROPHONE_ENDS": how})
                self.assertIn("the microphone's last word", shown)
                self.assertIn(self.SHOWN, shown)

    def test_the_doctor_and_the_meter(self):
        shown = self.shown_by("doctor")
        self.assertIn(" opens and runs at 48000 Hz", shown)
        self.assertIn("--denoise works: ", shown)
        self.shown_by("meter", "--seconds", 0.1)

    def test_an_id_on_the_command_line(self):
        wanted = os.fsdecode(self.NAME + b"?")
        shown = self.shown_by("record", "--device", wanted, self.file, ends=USAGE)
        self.assertRegex(shown, r"(?s)no input device matches.*\nChoose one of these\n\Z")


class Meter(HostTest):
    def setUp(self):
        super().setUp()
        self.listen_to(SPEECH)

    def test_a_pipe_gets_a_line_a_second(self):
        code, output, errors = self.host("meter", "--seconds", 3)
        self.assertEqual((code, errors), (FINE, ""))
        lines = output.splitlines()
        self.assertEqual([line.split()[0] for line in lines], ["0:01.0", "0:02.0", "0:03.0"])
        for line in lines:
            self.assertRegex(line, r"\A0:0\d\.0  RMS +-\d+\.\d  peak +-\d+\.\d dBFS\Z")

    def test_levels_are_those_of_the_sound(self):
        # A second of the meter is 34 of its blocks of 30 ms at first.
        self.listen_to_samples([16384, -16384] * 24480 + [32767] * 100 + [0] * 96000)
        _, output, _ = self.host("meter", "--seconds", 3)
        lines = output.splitlines()
        self.assertEqual(lines[0], "0:01.0  RMS  -6.0  peak  -6.0 dBFS")
        self.assertRegex(lines[1], r"peak +0\.0 dBFS  CLIP\Z")
        self.assertEqual(lines[2], "0:03.0  RMS  -inf  peak  -inf dBFS")

    def test_a_terminal_gets_a_bar_that_fits(self):
        for columns in 120, 80, 40, 20, 5:
            with self.subTest(columns=columns):
                code, shown = self.in_terminal("meter", "--seconds", 0.6, columns=columns, microphone={"MICROPHONE_PACED": "1"})
                self.assertEqual((code, shown.count("\n")), (FINE, 1))
                redraws = [line for line in shown.rstrip("\r\n").split("\r") if line]
                self.assertGreater(len(redraws), 4)
                self.assertLessEqual(len(redraws), 0.6 * 20 + 2)
                for line in redraws:
                    self.assertLess(len(without_colours(line)), columns)
                if columns >= 40:
                    self.assertRegex(without_colours(redraws[-1]), r"\A\[█*░* *┃? *\].* -\d+\.\d dBFS +[▁▂▃▄▅▆▇█]?\Z")

    def test_the_peaks_of_the_last_seconds_are_kept(self):
        levels = 0, 58, 1036, 18426, 32767  # nothing, -55, -30, -5 and 0 dBFS
        self.listen_to_samples([sample for level in levels for sample in [level] + [0] * 47999] + [0] * 48000)
        for environment, blocks in ({}, " ▁▄▇█"), ({"LC_ALL": "C"}, " _-%#"):
            _, shown = self.in_terminal(
                "meter", "--seconds", 5.5, columns=80, microphone={"MICROPHONE_PACED": "1"}, environment=environment
            )
            last = without_colours([line for line in shown.rstrip("\r\n").split("\r") if line][-1])
            self.assertEqual(len(last), 79)
            self.assertRegex(last, f" {blocks} $")

    def test_it_is_redrawn_at_most_20_times_a_second(self):
        begun = time.monotonic()
        code, shown = self.in_terminal("meter", "--seconds", 600)  # not paced: as fast as it can
        self.assertEqual(code, FINE)
        self.assertLessEqual(shown.count("RMS"), 20 * (time.monotonic() - begun) + 3)

    def test_colours_follow_the_terminal(self):
        for environment, coloured in ({}, True), ({"NO_COLOR": "1"}, False), ({"TERM": "dumb"}, False):
            _, shown = self.in_terminal("meter", "--seconds", 0.1, environment=environment)
            self.assertEqual("\033" in shown, coloured, environment)
        _, shown = self.in_terminal("meter", "--seconds", 0.1, environment={"LC_ALL": "C", "NO_COLOR": "1"})
        self.assertTrue(shown.isascii(), shown)

    def test_ctrl_c_in_a_terminal_ends_it(self):
        for command in ["meter"], ["record", self.file]:
            with self.subTest(command=command[0]):
                process, ours = self.start_in_terminal(
                    *command,
                    microphone={"MICROPHONE_PACED": "1"},
                    start_new_session=True,
                    preexec_fn=lambda: fcntl.ioctl(2, termios.TIOCSCTTY, 0),
                )
                shown = os.read(ours, 10000)
                while shown.count(b"\r") < 5:
                    shown += os.read(ours, 10000)
                os.write(ours, b"\x03")
                self.read_terminal(ours)
                self.assertEqual(process.wait(timeout=10), FINE)
        self.assertGreater(len(self.recorded(16000)), 0)

    def test_signals_end_it_in_good_order(self):
        for number in signal.SIGINT, signal.SIGTERM, signal.SIGHUP:
            with self.subTest(signal=number.name):
                process = self.start("meter", microphone={"MICROPHONE_PACED": "1"})
                self.assertIn("RMS", process.stdout.readline())
                process.send_signal(number)
                _, errors = process.communicate(timeout=10)
                self.assertEqual((process.returncode, errors), (FINE, ""))

    def test_a_closed_pipe_ends_it_quietly(self):
        process = self.start("meter", microphone={"MICROPHONE_PACED": "1"})
        self.assertIn("RMS", process.stdout.readline())
        process.stdout.close()
        self.assertEqual((process.wait(timeout=20), process.stderr.read()), (FINE, ""))

    def test_failures(self):
        self.assert_failed(self.host("meter", microphone={"MICROPHONE_REFUSES": "1"}), OPEN_FAILED, "did not open: Device unavailable")
        code, output, errors = self.host("meter", microphone={"MICROPHONE_FAILS_AFTER": "40"})
        self.assertEqual((code, [line.split()[0] for line in output.splitlines()]), (READ_FAILED, ["0:01.0", "0:01.2"]))
        self.assertRegex(errors, r"\Awrapper-audio: ALSA:default failed: .*\. Check that it is connected.*\n\Z")
        for seconds in "0", "-1", "nan", "inf", "long":
            self.assert_failed(self.host("meter", "--seconds", seconds), USAGE, "--seconds")


class Doctor(HostTest):
    def test_all_is_well(self):
        self.listen_to(SPEECH)
        code, output, errors = self.host("doctor")
        self.assertEqual((code, errors), (FINE, ""))
        for words in (
            r"PortAudio V19\.\d",
            r"/libwrapper_audio\.so\.\d+\.\d+\.\d+\n",
            r"/libwrapper_audio_recorder\.so\.\d+\.\d+\.\d+\n",
            r"/librnnoise\.so\.",
            r"/libsoxr\.so\.",
            "at least one device can record",
            r"\* ALSA:default \(input\)",
            "'default' opens and runs at 48000 Hz",
            r"peak -\d+\.\d dBFS",
            r"--denoise works: denoising at 48000 Hz, the device's own rate\n",
        ):
            self.assertRegex(output, words)

    def test_it_tells_how_each_device_is_denoised(self):
        self.listen_to(SPEECH, 16000)
        for device, how in ("default", "denoising, converted from 16000 Hz"), ("filemic", "denoising at 48000 Hz, the device's own rate"):
            code, output, _ = self.host("doctor", "--device", device)
            self.assertEqual(code, FINE)
            self.assertIn(f"\nDenoising\n  --denoise works: {how}\n", output)

    def test_it_shows_what_the_audio_system_said_and_not_the_library(self):
        self.listen_to(SPEECH)
        output = self.host("doctor")[1]
        self.assertRegex(output, r"(?si)The audio system printed \d+ lines.*jack")
        self.assertNotIn("[audio_wrapper]", output)
        self.assertTrue(output.isascii(), output)

    def test_silence_is_called_by_its_name(self):
        self.listen_to_samples([0] * 10)
        self.assertRegex(self.host("doctor")[1], rf"\n  heard for 2\.5 s: peak -inf dBFS, RMS -inf dBFS\n  {ZEROS}\n")

    def test_what_does_not_work_is_told(self):
        self.listen_to(SPEECH)
        for microphone, ends, words in (
            ({"MICROPHONE_REFUSES": "1"}, OPEN_FAILED, "Device unavailable"),
            ({"MICROPHONE_FAILS_AFTER": "2"}, READ_FAILED, "ALSA:default failed: "),
            ({"MICROPHONE_STALLS_AFTER": "2"}, READ_FAILED, "delivers no sound: nothing has come for 5 seconds"),
            ({"MICROPHONE_ANSWER": str(errno.EBUSY)}, OPEN_FAILED, "default did not open: another program is using"),
        ):
            with self.subTest(words=words):
                code, output, errors = self.host("doctor", microphone=microphone)
                self.assertEqual(code, ends)
                self.assertRegex(errors, words)
                self.assertIn("at least one device can record", output)
        self.assertEqual(self.host("doctor", "--device", "cellar")[0], USAGE)
        (self.folder / "microphone.conf").write_text(NO_DEVICE)
        code, output, errors = self.host("doctor")
        self.assertEqual(code, NO_INPUT_DEVICE)
        self.assertIn("PortAudio starts, but no device can record", output)
        self.assertRegex(errors, "there is no input device")


class Documents(HostTest):
    def options_of(self, command):
        return set(re.findall(r"(?<!\S)(?:-\w,)?(--[a-z]+(?:-[a-z]+)*)", self.host(command, "--help")[1].split("Examples:")[0]))

    def test_help_version_and_unknown_commands(self):
        self.assertRegex(self.host("--version")[1], r"\Awrapper-audio \d+\.\d+\.\d+\n\Z")
        for command in COMMANDS:
            code, output, errors = self.host(command, "--help")
            self.assertEqual((code, errors), (FINE, ""))
            self.assertRegex(output, rf"(?s)Examples:\n  wrapper-audio {command}.*Exit codes:\n  0 ")
            files = {"record": ["a"], "process": ["a", "b"]}.get(command, [])
            self.assert_failed(self.host(command, *files, "--no-such"), USAGE, f"--no-such(?s:.*)wrapper-audio {command} --help")
        self.assert_failed(self.host("recrod"), USAGE, "there is no command 'recrod'")
        self.assert_failed(self.host(), USAGE, "--help")

    def test_the_manual_page_and_the_completion_know_every_option(self):
        manual = (ROOT / "tools/wrapper-audio/wrapper-audio.1").read_text()
        completion = (ROOT / "tools/wrapper-audio/wrapper-audio.bash").read_text()
        for command in COMMANDS:
            options = self.options_of(command)
            self.assertIn("--help", options)
            for option in options:
                self.assertIn(f"-{option[2:]}", re.findall(r"-[a-z]+(?:-[a-z]+)*", manual), option)
                self.assertIn(option, self.complete(f"wrapper-audio {command} --denoise --"), completion and command)

    def complete(self, line):
        script = (
            f"source '{ROOT}/tools/wrapper-audio/wrapper-audio.bash'; wrapper-audio() {{ \"$HOST\" \"$@\"; }};"
            'COMP_WORDBREAKS=$IFS:;COMP_LINE=$1; COMP_POINT=${#1}; read -ra COMP_WORDS <<<"$1"; [[ $1 == *" " ]] && COMP_WORDS+=("");'
            'COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _wrapper_audio; printf "%s\\n" "${COMPREPLY[@]}"'
        )
        done = subprocess.run(
            ["bash", "-c", script, "bash", line],
            cwd=self.folder,
            env=self.environment(None),
            stdout=subprocess.PIPE,
            text=True,
            check=True,
        )
        return done.stdout.split("\n")[:-1]

    def test_completion_knows_commands_devices_and_files(self):
        self.listen_to(SPEECH)
        self.assertEqual(self.complete("wrapper-audio re"), ["record"])
        self.assertEqual(self.complete("wrapper-audio meter --device ALSA"), ["ALSA:filemic", "ALSA:default"])
        self.assertEqual(self.complete("wrapper-audio meter -d alsa:d"), ["default"])  # bash keeps what is before the colon
        self.assertCountEqual(self.complete("wrapper-audio process micro"), ["microphone.conf", "microphone.f32"])
        self.assertIn("48000", self.complete("wrapper-audio record --rate "))


if __name__ == "__main__":
    unittest.main()
