"""Runs an example as a process, on microphones that hear files."""

import array
import math
import os
import struct
import subprocess
import tempfile
import unittest
from pathlib import Path

EXAMPLES = Path(os.environ["EXAMPLES"])
TEST_MICROPHONE = os.environ["TEST_MICROPHONE"]
ROOT = Path(__file__).resolve().parents[2]
SPEECH = ROOT / "tests/data/speech_in_noise_48k.raw"

FINE, FAILED, USAGE = 0, 1, 2


def pcm16(data):
    """The samples in bytes."""
    return array.array("h", data)


def single(number):
    """The nearest number in single precision."""
    return struct.unpack("f", struct.pack("f", number))[0]


def heard(sample):
    """What a device at the wanted rate makes of a sample of its file."""
    return int(single(sample / 32768 * 32767))


def rms(samples):
    return math.sqrt(sum(s * s for s in samples) / len(samples))


def high_pass(samples, cutoff, rate):
    """A second-order high-pass."""
    w = 2 * math.pi * cutoff / rate
    alpha, cosine = math.sin(w) / (2 * 0.707), math.cos(w)
    b0, b1 = (1 + cosine) / 2, -(1 + cosine)
    a0, a1, a2 = 1 + alpha, -2 * cosine, 1 - alpha
    x1 = x2 = y1 = y2 = 0.0
    for x in samples:
        y = (b0 * x + b1 * x1 + b0 * x2 - a1 * y1 - a2 * y2) / a0
        x1, x2, y1, y2 = x, x1, y, y1
        yield y


def level_out(samples, rate, target, release_ms):
    """Brings blocks of 10 ms towards an RMS, by at most 20 dB."""
    gain, keep, block = 1.0, math.exp(-10 / release_ms), rate // 100
    for at in range(0, len(samples), block):
        part = samples[at : at + block]
        level = rms(part)
        if level >= 1e-6:
            gain = gain * keep + (1 - keep) * min(10, max(0.1, target / level))
            part = [s * gain for s in part]
        yield from part


class ExampleTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="wrapper-audio.", dir="/tmp")  # ALSA takes no space or colon
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.configuration = self.folder / "asound.conf"

    def sound_file(self, samples):
        file = self.folder / f"sound{len(list(self.folder.iterdir()))}.raw"
        file.write_bytes(array.array("h", samples).tobytes())
        return file

    def listen_to(self, raw, rate=48000):
        """Makes a file the only microphone of the examples started from now on."""
        command = [ROOT / "scripts/file-microphone", raw, self.folder, str(rate)]
        self.configuration = subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout.strip()

    def configure(self, **devices):
        """Makes devices; each hears samples, at 48000 Hz, and may have settings of the test microphone."""
        text = f'pcm_type.test_microphone {{ lib "{TEST_MICROPHONE}" }}\n'
        for name, (samples, settings) in devices.items():
            text += f'pcm."{name}" {{ type test_microphone file "{self.sound_file(samples)}" rate 48000 {settings} }}\n'
        self.configuration = self.folder / "asound.conf"
        Path(self.configuration).write_text(text)

    def no_device(self):
        self.configuration = self.folder / "nothing.conf"
        self.configuration.write_text("pcm.nothing { type hw card 99 }\n")  # PortAudio aborts without any definition

    def start(self, *command, **options):
        """Starts an example; its standard input is empty and its outputs are pipes, if nothing else is said."""
        environment = dict(os.environ, ALSA_CONFIG_PATH=str(self.configuration), JACK_NO_START_SERVER="1")
        environment["JACK_DEFAULT_SERVER"] = "wrapper_audio_test_without_jack"
        options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options}
        name, *arguments = map(str, command)
        process = subprocess.Popen([EXAMPLES / name, *arguments], cwd=self.folder, env=environment, **options)
        self.addCleanup(self.end, process)
        return process

    @staticmethod
    def end(process):
        if process.poll() is None:
            process.kill()
        process.communicate()

    def run_example(self, *command, feed=None, **options):
        """Returns (exit code, standard output in bytes, standard error as text)."""
        if feed is not None:
            options["stdin"] = subprocess.PIPE
        process = self.start(*command, **options)
        output, errors = process.communicate(feed, timeout=60)
        return process.returncode, output, errors.decode()

    def assert_refused(self, *command):
        code, output, errors = self.run_example(*command)
        self.assertEqual((code, output), (USAGE, b""), command)
        self.assertRegex(errors, rf"\Ausage: {command[0]} .*\n\Z")
