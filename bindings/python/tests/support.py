"""Microphones made of files for the tests, which run on the real library and the real PortAudio.

WRAPPER_AUDIO_LIBRARY names the library under test, SCRIPTED_MICROPHONE the one that gives the file microphone pace and
failures. The tests run twice: python3 -S leaves numpy out, and EXPECT_NUMPY tells which of the two it is.
"""

from __future__ import annotations

import atexit
import importlib.util
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import textwrap
import unittest
from array import array
from pathlib import Path
from typing import Any, Dict, List, Optional, Sequence, Tuple

PACKAGE = Path(__file__).resolve().parents[1]
ROOT = PACKAGE.parents[1]
SPEECH = ROOT / "tests/data/speech_in_noise_48k.raw"
LIBRARY = os.environ["WRAPPER_AUDIO_LIBRARY"]
SCRIPTED_MICROPHONE = os.environ["SCRIPTED_MICROPHONE"]
HAS_NUMPY = importlib.util.find_spec("numpy") is not None
NO_DEVICE = "pcm.nothing { type hw card 99 }\n"

if HAS_NUMPY != (os.environ["EXPECT_NUMPY"] == "1"):
    raise SystemExit(f"numpy is {'' if HAS_NUMPY else 'not '}there, and EXPECT_NUMPY says otherwise")

_folder = Path(tempfile.mkdtemp(prefix="wrapper_audio_python."))
atexit.register(shutil.rmtree, _folder, ignore_errors=True)


def file_microphone(raw: Path, folder: Path, rate: int = 48000) -> Path:
    folder.mkdir(exist_ok=True)
    script = ROOT / "scripts/file-microphone"
    made = subprocess.run([script, raw, folder, str(rate)], check=True, stdout=subprocess.PIPE, text=True)
    return Path(made.stdout.strip())


def sound(name: str, samples: Sequence[int]) -> Path:
    raw = _folder / (name + ".raw")
    raw.write_bytes(struct.pack(f"<{len(samples)}h", *samples))
    return raw


def samples_of(raw: Path) -> List[int]:
    content = array("h")
    content.frombytes(raw.read_bytes())
    return content.tolist()


# The microphone of the tests' own process; ALSA reads its configuration once.
SPEECH_MICROPHONE = file_microphone(SPEECH, _folder / "speech")
os.environ["ALSA_CONFIG_PATH"] = str(SPEECH_MICROPHONE)
os.environ["JACK_NO_START_SERVER"] = "1"


def python(*arguments: str) -> List[str]:
    return [sys.executable, "-B", *(["-S"] if sys.flags.no_site else []), *arguments]


def environment(scripted: bool = False, **more: Optional[str]) -> Dict[str, str]:
    """Adds variables, drops those that are None; scripted=True loads the scripted microphone."""
    every: Dict[str, Optional[str]] = {**os.environ, "PYTHONPATH": str(PACKAGE), "PYTHONIOENCODING": "utf-8", **more}
    if scripted:
        every["LD_PRELOAD"] = SCRIPTED_MICROPHONE
    return {name: value for name, value in every.items() if value is not None}


def run(program: str, **more: Any) -> Tuple[int, str, str]:
    """Runs a program as a process of its own: (exit code, standard output, standard error)."""
    done = subprocess.run(
        python("-c", textwrap.dedent(program)), env=environment(**more), capture_output=True, timeout=60
    )
    return done.returncode, done.stdout.decode(), done.stderr.decode(errors="replace")


class ProcessTest(unittest.TestCase):
    def check(self, program: str, **more: Any) -> Tuple[str, str]:
        """Runs a program that has to end well: (standard output, standard error)."""
        code, output, errors = run(program, **more)
        self.assertEqual(code, 0, output + errors)
        return output, errors

    def configure(self, text: str) -> str:
        """The path of an ALSA configuration; characters are bytes."""
        file = tempfile.NamedTemporaryFile("w", encoding="latin-1", suffix=".conf", dir=_folder, delete=False)
        with file:
            file.write(text)
        return file.name

    def speech_at(self, rate: int) -> str:
        """The path of the ALSA configuration of a microphone at this rate that hears the speech."""
        if rate == 48000:
            return str(SPEECH_MICROPHONE)
        import wrapper_audio

        with wrapper_audio.Converter(48000, rate) as converter:
            speech = wrapper_audio.to_float32(array("h", samples_of(SPEECH)))
            heard = [*converter.process(speech), *converter.flush()]
        raw = sound(f"speech_{rate}", [int(x) for x in wrapper_audio.to_int16(array("f", heard))])
        return str(file_microphone(raw, _folder / str(rate), rate))
