"""Runs wrapper-audio as a process, on a microphone that hears a file.

HOST is the program under test, SCRIPTED_MICROPHONE the library that gives the file microphone pace and failures.
"""

import math
import os
import pty
import re
import struct
import subprocess
import tempfile
import termios
import time
import unittest
import wave
from pathlib import Path

HOST = os.environ["HOST"]
SCRIPTED_MICROPHONE = os.environ["SCRIPTED_MICROPHONE"]
ROOT = Path(__file__).resolve().parents[2]
SPEECH = ROOT / "tests/data/speech_in_noise_48k.raw"

FINE, USAGE, NO_INPUT_DEVICE, OPEN_FAILED, READ_FAILED, FILE_TROUBLE, INPUT_BREAKS_OFF, NOT_DENOISED = 0, 2, 3, 4, 5, 6, 7, 8
HEADER_BYTES = 104  # with room for that of RF64

ZEROS = "the input is silent: it delivers nothing but zeros. Unmute it, or choose another device"
HISS = (
    "the input is silent but for a faint hiss, 60 dB or more below full scale. "
    "Unmute it, plug a microphone in, raise its level, or choose another device"
)
CLIPPING = "the input clips all the time. Lower its level, or choose another device"
NOTHING_COMES = "the input is open but delivers nothing. Wait, reconnect it, or choose another device"

NO_DEVICE = "pcm.nothing { type hw card 99 }\n"  # PortAudio aborts when there is no definition at all


def decibels(level):
    return 20 * math.log10(level) if level > 0 else -math.inf


def rms(samples):
    return math.sqrt(sum(s * s for s in samples) / len(samples)) / 32767


class HostTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="host test ")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.file = self.folder / "out.wav"

    def listen_to(self, raw, rate=48000):
        """Makes a file the microphone of the hosts started from now on."""
        subprocess.run(
            [ROOT / "scripts/file-microphone", raw, ".", str(rate)],
            cwd=self.folder,
            check=True,
            stdout=subprocess.DEVNULL,
        )

    def listen_to_samples(self, samples):
        raw = self.folder / 'a "made-up" sound.raw'
        raw.write_bytes(struct.pack(f"<{len(samples)}h", *samples))
        self.listen_to(raw)

    def environment(self, microphone):
        # The configuration has a relative name, since ALSA would take a path with a space for two.
        environment = dict(os.environ, ALSA_CONFIG_PATH="microphone.conf", JACK_NO_START_SERVER="1", LC_ALL="C.UTF-8")
        environment.update(TERM="xterm")
        environment.pop("NO_COLOR", None)
        if microphone is not None:
            environment["LD_PRELOAD"] = SCRIPTED_MICROPHONE
            environment["ASAN_OPTIONS"] = "verify_asan_link_order=0:" + environment.get("ASAN_OPTIONS", "")
            environment.update(microphone)
        return environment

    def start(self, *arguments, microphone=None, environment=None, **options):
        """Starts the host; `microphone` scripts the microphone, `environment` adds variables."""
        streams = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
        options = {**streams, "text": True, **options}
        process = subprocess.Popen(
            [HOST, *map(str, arguments)],
            cwd=self.folder,
            env={**self.environment(microphone), **(environment or {})},
            **options,
        )
        self.addCleanup(self.end, process)
        return process

    @staticmethod
    def end(process):
        if process.poll() is None:
            process.kill()
        process.communicate()

    def host(self, *arguments, **options):
        """Returns (exit code, standard output, standard error). `input` is what comes in through a pipe."""
        data = options.pop("input", None)
        if data is not None:
            options["stdin"] = subprocess.PIPE
        process = self.start(*arguments, **options)
        output, errors = process.communicate(data, timeout=60)
        return process.returncode, output, errors

    def record(self, *arguments, **options):
        return self.host("record", *arguments, **options)

    def start_in_terminal(self, *arguments, columns=100, streams=("stdout", "stderr"), **options):
        """Returns the process and the near end of its terminal."""
        ours, theirs = pty.openpty()
        self.addCleanup(os.close, ours)
        termios.tcsetwinsize(theirs, (24, columns))
        process = self.start(*arguments, **{stream: theirs for stream in streams}, **options)
        os.close(theirs)
        return process, ours

    @staticmethod
    def read_terminal(ours):
        """What was shown until the program ended."""
        shown = b""
        try:
            while part := os.read(ours, 65536):
                shown += part
        except OSError:  # the other end is closed and everything read
            pass
        return shown.decode()

    def in_terminal(self, *arguments, **options):
        """Returns (exit code, what the terminal was told)."""
        process, ours = self.start_in_terminal(*arguments, **options)
        shown = self.read_terminal(ours)
        return process.wait(timeout=60), shown

    def wait_for(self, condition, process=None, what="nothing happens"):
        deadline = time.monotonic() + 30
        while not condition():
            if process is not None:
                self.assertIsNone(process.poll(), "the host has ended by itself")
            self.assertLess(time.monotonic(), deadline, what)
            time.sleep(0.01)

    def assert_failed(self, result, code, words):
        self.assertEqual(result[0], code, result)
        self.assertRegex(result[2], words)
        self.assertEqual(result[1], "")

    def recorded(self, rate, complete=True):
        """The samples of the WAV file, once its header has been found right."""
        with wave.open(str(self.file), "rb") as wav:
            self.assertEqual((wav.getnchannels(), wav.getsampwidth(), wav.getframerate()), (1, 2, rate))
            data = wav.readframes(wav.getnframes())
            self.assertEqual(len(data), 2 * wav.getnframes(), "the header promises more than the file holds")
        content = self.file.read_bytes()
        if complete:
            self.assertEqual(len(content), HEADER_BYTES + len(data))
            self.assertEqual(int.from_bytes(content[4:8], "little"), len(content) - 8)
        return struct.unpack(f"<{len(data) // 2}h", data)

    def check_result_line(self, line, rate, samples):
        match = re.fullmatch(r"(.*): (\S+) s at (\d+) Hz, peak (\S+) dBFS, RMS (\S+) dBFS\n", line)
        self.assertIsNotNone(match, line)
        self.assertEqual((match[1], int(match[3])), (str(self.file), rate))
        self.assertAlmostEqual(float(match[2]), len(samples) / rate, delta=0.0051)
        self.assertAlmostEqual(float(match[4]), decibels(max(map(abs, samples)) / 32767), delta=0.051)
        self.assertAlmostEqual(float(match[5]), decibels(rms(samples)), delta=0.051)
