"""Human voices and real noises from Debian's packages, and scenes made of them whose onsets and ends are known.

Everything is mono floats at 48000 Hz. Voices and noises belong to one of two parts: detectors are tuned on one, and
judged on the other.
"""
import itertools
import subprocess
import zlib
from dataclasses import dataclass
from functools import lru_cache
from pathlib import Path

import numpy as np

ROOT = Path(__file__).resolve().parents[1]
RECORDINGS = ROOT / "build-quality/recordings"
RATE = 48000
STEP = RATE // 200  # of the levels by which onsets and ends are found: 5 ms
SPEECH_DB = -26.0  # of each utterance, in root mean square from onset to end

_PROMPTS, _LETTERS, _SPHINX = "usr/share/asterisk/sounds", "usr/share/klettres", "usr/share/pocketsphinx/test/data"
# Telephone prompts, a book, playing cards, loudspeaker names and a spelling program's words.
VOICES = {
    "tune": {
        "fr-june": f"{_PROMPTS}/fr_CA_f_June/*.g722",
        "ru-ivrvoice": f"{_PROMPTS}/ru_RU_f_IvrvoiceRU/*.g722",
        "en-cards": f"{_SPHINX}/cards/*.wav",
        "de-words": f"{_LETTERS}/de/syllab/*.ogg",
    },
    "judge": {
        "en-allison": f"{_PROMPTS}/en_US_f_Allison/*.g722",
        "it-carlo": f"{_PROMPTS}/it_IT_m_Carlo/*.g722",
        "en-librivox": f"{_SPHINX}/librivox/*.wav",
        "en-alsa": "usr/share/sounds/alsa/*_*.wav",
        "en-words": f"{_LETTERS}/en_GB/syllab/*.ogg",
    },
}
NOISES = {"tune": ("city", "rain", "fireplace", "hum", "babble"), "judge": ("cafe", "train", "storm", "keyboard", "fan", "babble")}
_FILES = {"cafe": "coffee-shop"}  # those whose files are called otherwise
_TALKERS = {"tune": ("fr-june", "ru-ivrvoice"), "judge": ("en-allison", "it-carlo")}  # of the babble


@dataclass(frozen=True)
class Scene:
    name: str
    voice: str  # "" when there is only noise
    noise: str  # "" when there is none
    snr: float
    sound: np.ndarray
    truth: tuple  # of (onset, end) in samples


def chance(*names):
    """A generator of random numbers of its own for everything that has a name, the same in each run."""
    return np.random.default_rng(zlib.crc32(" ".join(map(str, names)).encode()))


@lru_cache(maxsize=None)
def read(path, channels=1):
    """The samples of a file, each channel behind the other."""
    form = ["-f", "g722"] if path.suffix == ".g722" else []
    command = ["ffmpeg", "-v", "error", "-nostdin", *form, "-i", path]
    command += ["-f", "f32le", "-ac", str(channels), "-ar", str(RATE), "-"]
    sound = np.frombuffer(subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout, np.float32)
    return np.ascontiguousarray(sound.reshape(-1, channels).T).reshape(-1)


def rms_db(sound):
    return 10 * np.log10(np.mean(np.square(sound, dtype=np.float64)) + 1e-20)


def find_speech(sound):
    """The runs of speech in a clean prompt, as (begin, end) in samples, by its level in steps of 5 ms.

    Speech is what lies within 35 dB of the loud parts (the 95th percentile of the levels), and 10 dB above the quiet ones
    (the 5th percentile, unless the prompt is cut so close that this is speech as well), for 20 ms or more.
    """
    steps = sound[: len(sound) // STEP * STEP].reshape(-1, STEP).astype(np.float64)
    levels = 10 * np.log10(np.mean(steps**2, axis=1) + 1e-12)
    quiet, loud = np.percentile(levels, (5, 95))
    loud_enough = levels > max(loud - 35, min(quiet + 10, loud - 25))
    edges = np.flatnonzero(np.diff(np.concatenate(([0], loud_enough.astype(np.int8), [0]))))
    runs = edges.reshape(-1, 2) * STEP
    return [(int(begin), int(end)) for begin, end in runs if end - begin >= 4 * STEP]


def utterance_of(sound, longest=6, longest_pause=0.3):
    """A prompt at the common level with its onset and end, or None if it is too noisy, too long or has a long pause."""
    runs = find_speech(sound) if len(sound) > RATE // 5 else []
    if not runs or runs[0][0] < 2 * STEP:  # beginning in the middle of a sound, it has no onset
        return None
    onset, end = runs[0][0], runs[-1][1]
    pauses = [later[0] - run[1] for run, later in zip(runs, runs[1:])]
    if not 0.3 * RATE <= end - onset <= longest * RATE or max(pauses, default=0) > longest_pause * RATE:
        return None
    margin = RATE // 10
    begin = max(0, onset - margin)
    piece = sound[begin : end + margin] * 10 ** ((SPEECH_DB - rms_db(sound[onset:end])) / 20)
    fade = np.minimum(1, np.arange(len(piece)) / (2 * STEP))
    return piece * fade * fade[::-1], onset - begin, end - begin


def prompts(part, voice):
    files = sorted(RECORDINGS.glob(VOICES[part][voice]))
    if not files:
        raise FileNotFoundError(f"no recordings of {voice}: scripts/fetch-recordings unpacks them")
    return [files[i] for i in chance(voice).permutation(len(files))]


def utterances_of(part, voice):
    return filter(None, (utterance_of(read(file)) for file in prompts(part, voice)))


@lru_cache(maxsize=None)
def speech(part, voice, most=12):
    """A voice alone: up to so many utterances, with silence of 1.5 to 3 s around them."""
    random, sounds, truth = chance("gaps", voice), [np.zeros(3 * RATE)], []
    for piece, onset, end in itertools.islice(utterances_of(part, voice), most):
        at = sum(map(len, sounds))
        truth.append((at + onset, at + end))
        sounds += [piece, np.zeros(int(random.uniform(1.5, 3) * RATE))]
    return np.concatenate(sounds).astype(np.float32), tuple(truth)


def _hum(length):
    time = np.arange(length) / RATE
    wobble = 1 + 0.1 * np.sin(2 * np.pi * 0.3 * time)
    return wobble * sum(np.sin(2 * np.pi * 50 * k * time + k) / k for k in range(1, 12))


def _fan(length):
    """Air, falling by 6 dB an octave from 200 Hz, and the beat of seven blades at 1300 revolutions a minute."""
    frequency = np.fft.rfftfreq(length, 1 / RATE)
    air = np.fft.irfft(np.fft.rfft(chance("fan").standard_normal(length)) / np.maximum(200, frequency), length)
    beat = 7 * 1300 / 60
    tones = sum(np.sin(2 * np.pi * beat * k * np.arange(length) / RATE) / k**2 for k in range(1, 6))
    return air / air.std() + 0.5 * tones


def _keyboard(length):
    """The recorded keys of a keyboard, six strokes a second in bursts."""
    random, sound = chance("keyboard"), np.zeros(length + 2 * RATE)
    strokes = sorted(RECORDINGS.glob("usr/share/bucklespring/wav/*-1.wav"))
    at = 0.0
    while at < length:
        press = strokes[random.integers(len(strokes))]
        release = press.with_name(press.name.replace("-1.wav", "-0.wav"))
        for file, delay in (press, 0.0), (release, 0.09):
            if file.exists():
                stroke, begin = read(file), int(at + delay * RATE)
                sound[begin : begin + len(stroke)] += stroke[: len(sound) - begin]
        at += RATE * (random.uniform(0.08, 0.25) if random.random() < 0.95 else random.uniform(0.5, 2))
    return sound[:length]


def _babble(length, part):
    """Eight people who talk without a pause: prompts that no scene has."""
    sound = np.zeros(length)
    for talker in range(8):
        voice = _TALKERS[part][talker % 2]
        files = prompts(part, voice)[-25:]  # the first are those of the scenes
        at = 0
        for i in itertools.cycle(chance("babble", talker).permutation(len(files))):
            if at == length:
                break
            prompt = read(files[i])
            runs = find_speech(prompt) if len(prompt) > RATE // 5 else []
            if runs:
                prompt = prompt[runs[0][0] : runs[-1][1]]
                prompt = (prompt * 10 ** (-rms_db(prompt) / 20))[: length - at]
                sound[at : at + len(prompt)] += prompt
                at += len(prompt)
    return sound


@lru_cache(maxsize=None)
def noise(part, name):
    """A noise at 0 dB. Of stereo recordings, the right channel follows the left one."""
    made = {"hum": _hum, "fan": _fan, "keyboard": _keyboard, "babble": lambda length: _babble(length, part)}
    if name in made:
        sound = made[name](60 * RATE)
    else:
        sound = read(RECORDINGS / f"noises/{_FILES.get(name, name)}.ogg", 2)[: 120 * RATE]
    sound = sound - np.mean(sound)
    return (sound * 10 ** (-rms_db(sound) / 20)).astype(np.float32)


def stretch_of(part, name, length, *seed):
    """So many samples of a noise, from anywhere in it and in a circle."""
    sound = noise(part, name)
    begin = int(chance(name, *seed).integers(len(sound)))
    return np.take(sound, np.arange(begin, begin + length), mode="wrap")


def mixtures(part, names, snrs, sound, *seed):
    """A sound in each noise at each ratio: (name, ratio, mixture)."""
    for name in names:
        around = stretch_of(part, name, len(sound), *seed)
        for snr in snrs:
            yield name, snr, sound + around * np.float32(10 ** ((SPEECH_DB - snr) / 20))


def scenes(part, snrs, most=12):
    """Each voice alone, and in each noise at each ratio; then each noise alone, a minute at the level of 10 dB."""
    for voice in VOICES[part]:
        sound, truth = speech(part, voice, most)
        yield Scene(f"{voice} clean", voice, "", np.inf, sound, truth)
        for name, snr, mixed in mixtures(part, NOISES[part], snrs, sound, voice):
            yield Scene(f"{voice} {name} {snr}", voice, name, snr, mixed, truth)
    for name in NOISES[part]:
        alone = stretch_of(part, name, 60 * RATE, "alone") * np.float32(10 ** ((SPEECH_DB - 10) / 20))
        yield Scene(f"{name} alone", "", name, 10.0, alone, ())


def monologues(part, names, snrs, seconds=60):
    """Each voice talking all the time, with 0.15 s between its prompts, again from the first one if there are too few:
    (name of the noise, ratio, sound)."""
    for voice in VOICES[part]:
        talk, gap = [], np.zeros(RATE * 15 // 100)
        for piece, _, _ in utterances_of(part, voice):
            talk += [piece, gap]
            if sum(map(len, talk)) >= seconds * RATE:
                break
        talk = np.resize(np.concatenate(talk).astype(np.float32), seconds * RATE)
        yield from mixtures(part, names, snrs, talk, voice, "monologue")
