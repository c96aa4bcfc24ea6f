"""What denoising does to human voices in real noises: this library beside what else a user could pick.

scripts/quality --denoise runs it. All are judged at 16000 Hz, the band of the voices, aligned and at the best level, on
voices and noises of which nothing here was tuned.
"""
import os
import resource
import subprocess
import sys
import tempfile
from dataclasses import replace

import corpus
import detectors
import numpy as np
import sound_measures
import wrapper_audio
from vad import save_curves, table

RATIOS = (0, 5, 10, 15, 20, 30)
UTTERANCES = 1  # of each voice
LOW = 16000  # Hz
MOST_DELAY = LOW // 5


def converted(sound, from_rate, to_rate):
    if from_rate == to_rate:
        return sound
    with wrapper_audio.Converter(from_rate, to_rate) as converter:
        return np.concatenate((converter.process(np.ascontiguousarray(sound, np.float32)), converter.flush()))


def denoised(sound, rate):
    with wrapper_audio.Denoiser(rate) as denoiser:
        return np.concatenate((denoiser.process(np.ascontiguousarray(sound, np.float32)), denoiser.flush()))


def piped(command, sound):
    given = np.ascontiguousarray(sound, np.float32).tobytes()
    return np.frombuffer(subprocess.run(command, input=given, check=True, stdout=subprocess.PIPE).stdout, np.float32)


def ffmpeg(sound, audio_filter):
    form = ["-f", "f32le", "-ar", str(corpus.RATE), "-ac", "1"]
    return piped(["ffmpeg", "-v", "error", *form, "-i", "-", "-af", audio_filter, *form, "-"], sound)


def sox(sound, noise):
    """sox noisered, which is given the noise alone to learn from."""
    form = ["-t", "f32", "-r", str(corpus.RATE), "-c", "1"]
    with tempfile.TemporaryDirectory() as folder:
        profile = os.path.join(folder, "profile")
        piped(["sox", *form, "-", "-n", "noiseprof", profile], noise)
        return piped(["sox", "-D", *form, "-", *form, "-", "noisered", profile, "0.21"], sound)


def afftdn_given_level(sound, noise):
    level = min(-20, max(-80, round(corpus.rms_db(noise))))
    return ffmpeg(sound, f"afftdn=nf={level}:nr=20")


def program(name, *arguments):
    return lambda sound, noise: piped([detectors.BUILD / name, *arguments], sound)


# What each takes sound at, and how it is called with the noisy sound and the noise alone.
COMPETITORS = {
    "nothing": (corpus.RATE, lambda sound, noise: sound),
    "this library at 48000 Hz": (corpus.RATE, lambda sound, noise: denoised(sound, corpus.RATE)),
    "this library at 16000 Hz": (LOW, lambda sound, noise: denoised(sound, LOW)),
    **{f"webrtc, level {level}": (LOW, program("webrtc_suppression", str(level))) for level in range(4)},
    "speexdsp": (LOW, program("speexdsp_suppression")),
    "ffmpeg afftdn": (corpus.RATE, lambda sound, noise: ffmpeg(sound, "afftdn")),
    "ffmpeg anlmdn": (corpus.RATE, lambda sound, noise: ffmpeg(sound, "anlmdn")),
    "ffmpeg afftdn, given the level": (corpus.RATE, afftdn_given_level),
    "sox noisered, given the noise": (corpus.RATE, sox),
}
COMPETITORS = {name: each for name, each in COMPETITORS.items()
               if not name.startswith("webrtc") or (detectors.BUILD / "webrtc_suppression").exists()}
# Those that the picture shows.
SHOWN = ("nothing", "this library at 48000 Hz", "webrtc, level 1", "sox noisered, given the noise")


def seconds_used():
    return sum(sum(resource.getrusage(who)[:2]) for who in (resource.RUSAGE_SELF, resource.RUSAGE_CHILDREN))


def pauses_db(sound, truth):
    """The level where nobody speaks, half a second after the end at the earliest and from the third second on."""
    quiet = np.ones(len(sound), bool)
    quiet[: 2 * LOW] = False
    for onset, end in truth:
        quiet[max(0, onset - LOW // 20) : end + LOW // 2] = False
    return corpus.rms_db(sound[quiet])


def judged(sound, clean, truth):
    """(SI-SDR, segmental ratio, intelligibility, level of the pauses below the speech, delay in ms)."""
    delay = sound_measures.delay_of(sound, clean, MOST_DELAY)
    sound = sound_measures.scaled(sound_measures.aligned(sound, delay, len(clean)), clean)
    speech = corpus.rms_db(np.concatenate([sound[onset:end] for onset, end in truth]))
    return (sound_measures.si_sdr(sound, clean), sound_measures.segmental_snr(sound, clean, LOW),
            sound_measures.stoi(converted(sound, LOW, 10000), converted(clean, LOW, 10000)),
            max(-100.0, pauses_db(sound, truth) - speech), delay * 1000 / LOW)


def measured():
    """[(competitor, scene without its sound, figures)], and {competitor: ms of computing for a second of sound}."""
    found, used, heard = [], {}, {}
    for scene in corpus.scenes("judge", RATIOS, UTTERANCES):
        if not scene.voice or scene.noise == "babble":
            continue
        wide, truth = corpus.speech("judge", scene.voice, UTTERANCES)
        clean = converted(wide, corpus.RATE, LOW).astype(np.float64)
        truth = [(onset * LOW // corpus.RATE, end * LOW // corpus.RATE) for onset, end in truth]
        for name, (rate, process) in COMPETITORS.items():
            if "given" in name and not scene.noise:
                continue
            sound = converted(scene.sound, corpus.RATE, rate)
            before = seconds_used()
            result = process(sound, scene.sound - wide)
            used[name] = used.get(name, 0.0) + seconds_used() - before
            heard[name] = heard.get(name, 0.0) + len(scene.sound) / corpus.RATE
            result = converted(result, rate, LOW).astype(np.float64)
            found.append((name, replace(scene, sound=None), judged(result, clean, truth)))
        print(f"quality: {scene.name}", file=sys.stderr)
    return found, {name: 1000 * used[name] / heard[name] for name in used}


def spread(values, digits):
    return f"{np.mean(values):.{digits}f} ({min(values):.{digits}f} to {max(values):.{digits}f})"


def rows_of(found, wanted):
    rows = [["", "SI-SDR, dB", "segmental SNR, dB", "STOI", "pauses below the speech, dB"]]
    for name in COMPETITORS:
        figures = [each for whose, scene, each in found if whose == name and wanted(scene)]
        if figures:
            sdr, segmental, stoi, pauses, _ = zip(*figures)
            rows.append([name, spread(sdr, 1), spread(segmental, 1), spread(stoi, 2), spread(pauses, 0)])
    return rows


def main():
    found, cost = measured()
    for ratio in (*RATIOS, np.inf):
        print("## Without noise\n" if np.isinf(ratio) else f"## Noise at {ratio} dB\n")
        print(table(*rows_of(found, lambda scene: scene.snr == ratio)))
    for noise in corpus.NOISES["judge"]:
        if noise != "babble":
            print(f"## In the noise {noise} at 10 dB\n")
            print(table(*rows_of(found, lambda scene: scene.noise == noise and scene.snr == 10)))
    curves = {name: [np.mean([each[0] for whose, scene, each in found if whose == name and scene.snr == ratio])
                     for ratio in RATIOS] for name in SHOWN if name in COMPETITORS}
    save_curves("denoise", RATIOS, curves)
    print("## Delay in the stream, where it is not compensated, and computing\n")
    delays = {name: np.median([each[4] for whose, _, each in found if whose == name]) for name in COMPETITORS}
    print(table(["", "delay, ms", "ms for a second of sound, start of a program included"],
                *([name, f"{delays[name]:.0f}", f"{cost[name]:.1f}"] for name in COMPETITORS)))


if __name__ == "__main__":
    main()
