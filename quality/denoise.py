"""What denoising does to human voices in real noises: this library beside what else a user could pick.

scripts/quality --denoise runs it. All are judged at 16000 Hz, the band of the voices, aligned and at the best level, on
voices and noises of which nothing here was tuned.
"""
import os
import resource
import subprocess
import sys
import tempfile

import corpus
import detectors
import numpy as np
import sound_measures
import wrapper_audio
from vad import table

RATIOS = (0, 5, 10, 15, 20, 30)
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
    "ffmpeg afftdn, tracking": (corpus.RATE, lambda sound, noise: ffmpeg(sound, "afftdn=tn=1")),
    "ffmpeg anlmdn": (corpus.RATE, lambda sound, noise: ffmpeg(sound, "anlmdn")),
    "sox noisered, given the noise": (corpus.RATE, sox),
}


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
    """{(competitor, ratio, voice, noise): figures}, and {competitor: seconds of computing for a second of sound}."""
    found, used, heard = {}, {}, {}
    for scene in corpus.scenes("judge", RATIOS):
        if not scene.voice:
            continue
        clean_48, truth = corpus.speech("judge", scene.voice)
        clean = converted(clean_48, corpus.RATE, LOW).astype(np.float64)
        truth = [(onset * LOW // corpus.RATE, end * LOW // corpus.RATE) for onset, end in truth]
        noise = scene.sound - clean_48 if scene.noise else np.zeros(corpus.RATE, np.float32)
        for name, (rate, process) in COMPETITORS.items():
            sound = np.ascontiguousarray(converted(scene.sound, corpus.RATE, rate), np.float32)
            before = seconds_used()
            result = process(sound, noise)
            used[name] = used.get(name, 0.0) + seconds_used() - before
            heard[name] = heard.get(name, 0.0) + len(scene.sound) / corpus.RATE
            result = converted(np.ascontiguousarray(result, np.float32), rate, LOW).astype(np.float64)
            found[name, scene.snr, scene.voice, scene.noise] = judged(result, clean, truth)
        print(f"quality: {scene.name}", file=sys.stderr)
    return found, {name: used[name] / heard[name] for name in used}
