"""A recogniser as the host: what it understands of the noisy speech, as it is and denoised.

The Python binding records at 16000 Hz from the file microphone, and Debian's pocketsphinx listens with its American
English model. Prints a table, and fails when denoising costs words. Words are counted by alignment with what was said.

    PYTHONPATH=bindings/python WRAPPER_AUDIO_LIBRARY=build/libwrapper_audio_recorder.so \\
        python3 tests/recogniser/recogniser_test.py [RAWFILE]

RAWFILE is another recording of the same sentences, as make_speech_in_noise.sh makes them.
"""

import os
import re
import signal
import subprocess
import sys
import tempfile
import wave
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
DATA = ROOT / "tests/data"
sys.path.insert(0, str(ROOT / "quality"))

from alignment import MODEL, align, words_of  # noqa: E402


def record(denoise, file):
    import wrapper_audio

    with wave.open(str(file), "wb") as out, wrapper_audio.Recorder(rate=16000, denoise=denoise) as recorder:
        out.setparams((1, 2, 16000, 0, "NONE", ""))
        for block in recorder.blocks(seconds=6):
            out.writeframes(block.tobytes())


def recognise(file):
    heard = subprocess.run(
        ["pocketsphinx_continuous", "-infile", file, "-hmm", MODEL / "en-us", "-lm", MODEL / "en-us.lm.bin"]
        + ["-dict", MODEL / "cmudict-en-us.dict", "-logfn", "/dev/null"],
        check=True,
        stdout=subprocess.PIPE,
        text=True,
    )
    return words_of(heard.stdout)


def check_recipes(said):
    """The commands in docs/recipes.md, as they stand there, until they have understood something."""
    build = Path(os.environ["WRAPPER_AUDIO_LIBRARY"]).resolve().parent
    environment = dict(os.environ, PATH=f"{build}:{os.environ['PATH']}", LD_LIBRARY_PATH=str(build))
    recipes = re.findall(r"^(?:wrapper-audio .*)?pocketsphinx_continuous .*$", (ROOT / "docs/recipes.md").read_text(), re.M)
    assert len(recipes) == 2, recipes
    for command in recipes:
        # A line at a time, as in a terminal.
        process = subprocess.Popen(["stdbuf", "-oL", "bash", "-c", command], env=environment, stdin=subprocess.DEVNULL,
                                   text=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, start_new_session=True)
        recognised = 0
        while recognised < 3 and (line := process.stdout.readline()):
            recognised = max(recognised, align(said, words_of(line))[1])
        if process.poll() is None and " - | " in command:  # until Ctrl-C
            os.killpg(process.pid, signal.SIGINT)
        process.communicate(timeout=60)
        print(f"{command}: {recognised} words")
        assert recognised >= 3, command


def main(raw=DATA / "speech_in_noise_48k.raw"):
    script = (DATA / "make_speech_in_noise.sh").read_text()
    said = words_of(re.search(r"^text='(.*)'$", script, re.MULTILINE)[1])
    with tempfile.TemporaryDirectory(dir="/tmp") as folder:  # ALSA takes neither space nor colon in ALSA_CONFIG_PATH
        made = subprocess.run([ROOT / "scripts/file-microphone", raw, folder], check=True, stdout=subprocess.PIPE, text=True)
        os.environ["ALSA_CONFIG_PATH"] = made.stdout.strip()
        os.environ["JACK_NO_START_SERVER"] = "1"
        print(f"said: {' '.join(said)} ({len(said)} words)\n\n| denoising | recognised | errors | heard |\n|---|---|---|---|")
        recognised = {}
        for denoise in False, True:
            file = Path(folder, "heard.wav")
            record(denoise, file)
            heard = recognise(file)
            errors, recognised[denoise] = align(said, heard)
            print(f"| {'on' if denoise else 'off'} | {recognised[denoise]} | {errors} | {' '.join(heard)} |", flush=True)
        check_recipes(said)
    # a recogniser that understands nothing at all would prove nothing
    return 0 if recognised[True] >= max(recognised[False], len(said) // 4) else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
