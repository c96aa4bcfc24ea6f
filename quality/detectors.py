"""What each detector says about every 10 ms of a sound: this library, webrtc and the energy of the sound."""
import hashlib
import subprocess
from ctypes import byref
from pathlib import Path

import numpy as np
import wrapper_audio
from corpus import RATE, ROOT
from measures import Rule
from wrapper_audio import _interface
from wrapper_audio._blocks import samples_of
from wrapper_audio._library import check, make

BUILD = ROOT / "build-quality"
FRAME = RATE // 100
MODES = 4  # of webrtc, the most reluctant first


def speech_probabilities(sound):
    with wrapper_audio.Denoiser(RATE) as denoiser:
        probabilities = []
        for begin in range(0, len(sound), RATE):
            denoiser.process(np.ascontiguousarray(sound[begin : begin + RATE], np.float32))
            probabilities += denoiser.speech_probabilities()
    return np.array(probabilities, np.float32)


def webrtc_voice(sound):
    """One row of 0 and 1 for each mode."""
    with wrapper_audio.Converter(RATE, 16000) as converter:
        low = np.concatenate((converter.process(np.ascontiguousarray(sound, np.float32)), converter.flush()))
    said = subprocess.run([BUILD / "webrtc_voice"], input=low.tobytes(), check=True, stdout=subprocess.PIPE).stdout
    return np.frombuffer(said, np.uint8).reshape(-1, MODES).T


def energy(sound):
    """How many dB the sound between 100 and 4000 Hz is above its floor.

    The level is that of the last 30 ms, and the floor the least level in the last 2 s, so that it adapts to any noise.
    """
    frames = sound[: len(sound) // FRAME * FRAME].reshape(-1, FRAME)
    band = np.abs(np.fft.rfft(frames, axis=1)[:, 1 : 4000 // 100 + 1]) ** 2
    power = np.sum(band, axis=1, dtype=np.float64) * 2 / FRAME**2
    smooth = np.convolve(np.pad(power, (2, 0), "edge"), np.ones(3) / 3, "valid")
    level = 10 * np.log10(smooth + 1e-9)  # digital silence has a floor, too
    before = np.concatenate((np.full(199, np.inf), level))
    floor = np.lib.stride_tricks.sliding_window_view(before, 200).min(axis=1)
    return level - floor


def scores(sound):
    """All of them, computed once for each sound and build of the library."""
    library = wrapper_audio.load()._name
    key = hashlib.sha1(sound.tobytes() + Path(library).read_bytes()).hexdigest()
    file = BUILD / "scores" / f"{key}.npz"
    if not file.exists():
        file.parent.mkdir(parents=True, exist_ok=True)
        found = {"speech": speech_probabilities(sound)}
        if (BUILD / "webrtc_voice").exists():
            found["webrtc"] = webrtc_voice(sound)
        part = file.with_suffix(".part.npz")
        np.savez(part, **found)
        part.rename(file)
    with np.load(file) as there:
        return {**{name: there[name].astype(np.float32) for name in there.files}, "energy": energy(sound)}


def default_rule():
    """That of the library's speech gate."""
    options = _interface.SpeechOptions()
    wrapper_audio.load().wrapper_audio_speech_defaults(byref(options))
    thresholds = (round(value, 4) for value in (options.begin_threshold, options.end_threshold))
    return Rule(*thresholds, options.min_speech_ms, options.hang_over_ms, options.pre_roll_ms)


def gate_utterances(score, rule, rate=1000):
    """(begin, end) in ms of the utterances that the library's speech gate makes of a score, each ms being one sample."""
    times = rule.min_speech_ms, rule.hang_over_ms, rule.pre_roll_ms
    options, piece = _interface.SpeechOptions(rate, rule.begin, rule.end, *times), _interface.SpeechPiece()
    gate = make("wrapper_audio_speech_gate_create", "wrapper_audio_speech_gate_free", byref(options))
    library, samples = wrapper_audio.load(), np.zeros(len(score) * rate // 100, np.float32)
    _, sound = samples_of(samples, "f")
    _, probabilities = samples_of(np.ascontiguousarray(score, np.float32), "f")
    check(library.wrapper_audio_speech_gate_add(gate, sound, len(samples), probabilities, len(score)))
    check(library.wrapper_audio_speech_gate_flush(gate))
    found, begin = [], 0
    while True:
        check(library.wrapper_audio_speech_gate_take(gate, sound, len(samples), byref(piece)))
        if piece.begins:
            begin = piece.position
        if piece.ends:
            found.append((begin, piece.position + piece.count))
        elif not piece.count:
            return found
