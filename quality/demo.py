"""The sound of scripts/demo: a voice in a cafe, recorded on a PipeWire server of its own, as it is and denoised.

    demo.py PROGRAM FOLDER    writes before.wav, after.wav and levels.md to FOLDER
"""
import os
import subprocess
import sys
import tempfile
import time
import wave
from pathlib import Path

import corpus
import numpy as np
import servers

VOICE, NOISE, RATIO = "en-allison", "cafe", 5
SECONDS = 8


def scene():
    """The sound, and where in it somebody speaks, as (onset, end) in samples."""
    sound, truth = corpus.speech("judge", VOICE, 3)
    [(_, _, mixed)] = corpus.mixtures("judge", [NOISE], [RATIO], sound, VOICE)
    begin = truth[0][0] - corpus.RATE
    return mixed[begin : begin + SECONDS * corpus.RATE], [(onset - begin, end - begin) for onset, end in truth]


def write(path, samples):
    with wave.open(str(path), "wb") as out:
        out.setparams((1, 2, corpus.RATE, 0, "NONE", ""))
        out.writeframes(samples.astype("<i2").tobytes())


def read(path):
    with wave.open(str(path), "rb") as file:
        return np.frombuffer(file.readframes(file.getnframes()), "<i2")


def recorded(program, sound):
    """One capture of the sound, before and after denoising. The microphone delivers zeros until it is played."""
    with tempfile.TemporaryDirectory(dir="/tmp") as folder, servers.PipeWire(folder) as server:
        heard, before, after = (Path(folder, name) for name in ("heard.wav", "before.wav", "after.wav"))
        write(heard, np.rint(sound * 32767))
        options = ["--device", "ALSA:pipewire", "--rate", str(corpus.RATE), "--seconds", str(SECONDS + 4)]
        recorder = subprocess.Popen([program, "record", "-q", *options, "--denoise", "--undenoised", before, after],
                                    env={**os.environ, **server.environment})
        while recorder.poll() is None and not (before.exists() and before.stat().st_size > corpus.RATE):
            time.sleep(0.05)
        server.play(heard)
        if recorder.wait() != 0:
            sys.exit("demo: the recording failed")
        both = read(before), read(after)
    begin = np.flatnonzero(both[0])[0]
    return [each[begin : begin + len(sound)] for each in both]


def main(program, folder):
    sound, truth = scene()
    sounds = recorded(program, sound)
    for name, samples in zip(("before", "after"), sounds):
        write(Path(folder, f"{name}.wav"), samples)
    quarter = corpus.RATE // 4
    parts = {"pause": (truth[0][1] + quarter, truth[1][0] - quarter), "speech": truth[0]}
    lines = ["| RMS level | before | after | change |", "|---|---|---|---|"]
    for name, (begin, end) in parts.items():
        before, after = (corpus.rms_db(each[begin:end] / 32767) for each in sounds)
        lines.append(f"| in the {name} | {before:.1f} dB | {after:.1f} dB | {after - before:+.1f} dB |")
    Path(folder, "levels.md").write_text("\n".join(lines) + "\n")


if __name__ == "__main__":
    main(*sys.argv[1:])
