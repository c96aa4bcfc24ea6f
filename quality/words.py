"""How many words a recogniser gets wrong of human voices in noise: as they are, and denoised by this library and others.

scripts/quality --words runs it. The recogniser is pocketsphinx with its American English model, which knows no grammar
of what is said. Each voice speaks without end, as into a microphone, and is cut into utterances behind the denoising.
"""
import gzip
import os
import re
import subprocess
import sys
import tempfile
import wave
from concurrent.futures import ThreadPoolExecutor
from functools import lru_cache
from pathlib import Path

import corpus
import numpy as np
import sound_measures
from alignment import MODEL, align, words_of
from denoise import COMPETITORS, LOW, MOST_DELAY, SHOWN, converted
from vad import save_curves, table

RATIOS = (0, 5, 10, 15, 20, 30)
NOISES = ("cafe", "train")
MOST = {"en-allison": 8}  # utterances of each voice; en-librivox has transcripts, too
MARGIN = LOW // 4  # around an utterance


@lru_cache(maxsize=None)
def known_words():
    lines = (MODEL / "cmudict-en-us.dict").read_text().splitlines()
    return {line.split()[0] for line in lines}


@lru_cache(maxsize=None)
def transcripts():
    """{file's name: what is said in it}, where everybody who reads it says the same."""
    shared = corpus.RECORDINGS / "usr/share"
    said = {}
    with gzip.open(shared / "doc/asterisk-core-sounds-en/core-sounds-en.txt.gz", "rt") as lines:
        for name, text in re.findall(r"^([\w/-]+): ([^\[\]\d\n]+)$", lines.read(), re.M):
            said[f"{name}.g722"] = text
    for line in (shared / "pocketsphinx/test/data/librivox/transcription").read_text().splitlines():
        text, name = re.fullmatch(r"<s> (.*) </s> \((.*)\)", line).groups()
        said[f"{name}.wav"] = text
    return said


def spoken(voice):
    """A voice alone, and for each utterance (begin, end, words): those of two words and more, all of them known."""
    sounds, said = [np.zeros(3 * corpus.RATE)], []
    for file in corpus.prompts("judge", voice):
        words = words_of(transcripts().get(file.name, ""))
        if len(said) == MOST[voice] or len(words) < 2 or not known_words().issuperset(words):
            continue
        if (found := corpus.utterance_of(corpus.read(file), longest=10, longest_pause=1)) is None:
            continue
        piece, onset, end = found
        at = sum(map(len, sounds))
        said.append((at + onset, at + end, words))
        sounds += [piece, np.zeros(2 * corpus.RATE)]
    return np.concatenate(sounds).astype(np.float32), said


def recognise(pieces):
    """The words that are heard in each of these sounds at 16000 Hz."""
    with tempfile.TemporaryDirectory() as folder:
        for i, piece in enumerate(pieces):
            with wave.open(f"{folder}/{i:03}.wav", "wb") as out:
                out.setparams((1, 2, LOW, 0, "NONE", ""))
                out.writeframes(np.clip(np.rint(piece * 32767), -32768, 32767).astype("<i2").tobytes())
        Path(folder, "list").write_text("".join(f"{i:03}\n" for i in range(len(pieces))))
        subprocess.run(
            ["pocketsphinx_batch", "-hmm", MODEL / "en-us", "-lm", MODEL / "en-us.lm.bin", "-logfn", "/dev/null"]
            + ["-dict", MODEL / "cmudict-en-us.dict", "-adcin", "yes", "-adchdr", "44", "-cepdir", folder]
            + ["-cepext", ".wav", "-ctl", f"{folder}/list", "-hyp", f"{folder}/heard"],
            check=True, stdout=subprocess.DEVNULL)
        lines = Path(folder, "heard").read_text().splitlines()
    return [words_of(line.rpartition("(")[0]) for line in lines]


def errors_in(name, voice, sound, mixed):
    """The words that are wrong."""
    alone, said = sound
    rate, process = COMPETITORS[name]
    result = converted(process(converted(mixed, corpus.RATE, rate), mixed - alone), rate, LOW).astype(np.float64)
    clean = converted(alone, corpus.RATE, LOW).astype(np.float64)
    result = sound_measures.aligned(result, sound_measures.delay_of(result, clean, MOST_DELAY), len(clean))
    places = [(begin * LOW // corpus.RATE, end * LOW // corpus.RATE) for begin, end, _ in said]
    heard = recognise([result[begin - MARGIN : end + MARGIN] for begin, end in places])
    errors = sum(align(words, other)[0] for (_, _, words), other in zip(said, heard, strict=True))
    print(f"quality: {voice}, {name}: {errors}", file=sys.stderr)
    return errors


def measured():
    """{(name, noise, ratio): [errors of each voice]}, and how many words each voice says."""
    found, words = {}, []
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        for voice in MOST:
            sound = spoken(voice)
            words.append(sum(len(each[2]) for each in sound[1]))
            mixtures = [("", np.inf, sound[0]), *corpus.mixtures("judge", NOISES, RATIOS, sound[0], voice)]
            for noise, ratio, mixed in mixtures:
                for name in SHOWN:
                    if name in COMPETITORS and (noise or "given" not in name):
                        told = pool.submit(errors_in, name, voice, sound, mixed)
                        found.setdefault((name, noise, ratio), []).append(told)
    return {key: [each.result() for each in errors] for key, errors in found.items()}, words


def main():
    found, words = measured()
    print(f"## Words that are wrong, of {sum(words)}, in percent: {', '.join(NOISES)}\n")
    rows, curves = [["", *(f"{ratio} dB" for ratio in RATIOS), "without noise"]], {}
    for name in SHOWN:
        shares = [[100 * sum(errors) / sum(words) for (whose, _, at), errors in found.items() if (whose, at) == (name, ratio)]
                  for ratio in (*RATIOS, np.inf)]
        if shares[0]:
            curves[name] = [np.mean(each) for each in shares[:-1]]
            rows.append([name, *(f"{mean:.0f} ({', '.join(f'{share:.0f}' for share in each)})"
                                 for mean, each in zip(curves[name], shares)),
                         "".join(f"{share:.0f}" for share in shares[-1])])
    print(table(*rows))
    save_curves("words", RATIOS, curves)


if __name__ == "__main__":
    main()
