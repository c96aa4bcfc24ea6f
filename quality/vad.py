"""How well speech is found in noise: this library's probabilities beside webrtc's voice detection and an energy threshold.

scripts/quality --vad runs it. All three get the same rule that makes utterances of their scores, with thresholds and
minimum that are tuned on voices and noises of which none is judged.
"""
import itertools
import sys
from pathlib import Path

import corpus
import detectors
import numpy as np
from measures import ALLOWED_MS, FRAME_MS, Rule, judge, total, utterances

TUNED_AT = (5, 10, 20)
JUDGED_AT = (0, 5, 10, 15, 20, 30)
GOOD_SNR = 10  # from here on, nothing should be lost
DEFAULT = Rule(begin=0.6, end=0.4, min_speech_ms=60)
MINIMA = (10, 30, 50, 80, 100, 150, 200)
MODES = range(detectors.MODES)


def candidates(name):
    """(score, rule) for all settings of a detector that are tried."""
    if name == "webrtc":
        return [((name, mode), Rule(0.5, 0.5, least)) for mode in MODES for least in MINIMA]
    if name == "energy":
        pairs = [(begin, begin - below) for begin in range(4, 21) for below in (0, 2, 4) if begin - below > 1]
    else:
        steps = (0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7, 0.8, 0.9, 0.95)
        pairs = [(begin, end) for begin in steps for end in steps if end <= begin]
    return [((name, None), Rule(*pair, least)) for pair in pairs for least in MINIMA]


def score_of(scores, kind):
    name, mode = kind
    return scores[name] if mode is None else scores[name][mode]


def tally_of(scene, score, rule):
    truth = [(onset * 1000 / corpus.RATE, end * 1000 / corpus.RATE) for onset, end in scene.truth]
    return judge(utterances(score, rule), truth, len(score) * FRAME_MS)


def cost(tallies):
    """In percent of the utterances, those missed or clipped and half of those split or merged; 10 for a false one a minute;
    and the percent of the silence that they last."""
    tally = total(tallies)
    wrong = tally.failed + (tally.split + tally.merged) / 2
    return 100 * wrong / tally.spoken + 10 * tally.false_a_minute + tally.false_share


def measured(part, snrs):
    """(scene without its sound, its scores)."""
    found = []
    for scene in corpus.scenes(part, snrs):
        found.append((scene, detectors.scores(scene.sound)))
        print(f"\r{part}: {len(found)} scenes ", end="", file=sys.stderr, flush=True)
    print(file=sys.stderr)
    return found


def tuned(scenes, name):
    """All settings of a detector by their cost, the best first."""
    heard = [(scene, scores) for scene, scores in scenes if scene.snr >= GOOD_SNR and scene.noise != "babble"]
    tried = []
    for kind, rule in candidates(name):
        tallies = [tally_of(scene, score_of(scores, kind), rule) for scene, scores in heard]
        tried.append((cost(tallies), kind, rule, total(tallies)))
    return sorted(tried, key=lambda each: each[0])
