"""The measures of scripts/quality, on signals whose figures are known.

    PYTHONPATH=quality:bindings/python WRAPPER_AUDIO_LIBRARY=build/libwrapper_audio_recorder.so \\
        python3 tests/quality/measures_test.py
"""
import contextlib
import io
import tempfile
import unittest
from pathlib import Path
from unittest import mock

import corpus
import denoise
import detectors
import numpy as np
import sound_measures
import vad
import words
from alignment import align
from measures import Rule, Tally, Utterance, judge, total, utterances, voiced

RULE = Rule(begin=0.6, end=0.4, min_speech_ms=30, hang_over_ms=50, pre_roll_ms=20)


def frames(text):
    """A score for each 10 ms, of digits: 7 is 0.7."""
    return np.array([int(digit) / 10 for digit in text])


def spans(text, rule=RULE):
    return [(each.begin, each.speech, each.end, each.last) for each in utterances(frames(text), rule)]


def heard(speech, last, rule=Rule(0.5, 0.5, 0)):
    return Utterance(max(0, speech - rule.pre_roll_ms), speech, last + rule.hang_over_ms, last)


class Words(unittest.TestCase):
    def test_errors_and_recognised_words_are_those_of_the_best_alignment(self):
        said = "the window is open".split()
        for other, expected in (
            ("the window is open", (0, 4)),
            ("", (4, 0)),
            ("the window open", (1, 3)),
            ("a window is wide open", (2, 3)),
            ("open is window the", (4, 1)),  # the order counts
            ("the the the the", (3, 1)),  # a word said once is recognised once
        ):
            self.assertEqual(align(said, other.split()), expected, other)

    def test_a_whole_run(self):
        """The recogniser hears a word in each tone that is loud enough, and nothing in what a competitor removes."""
        time = np.arange(6 * corpus.RATE) / corpus.RATE
        alone = (0.1 * np.sin(2 * np.pi * 500 * time)).astype(np.float32)
        alone[: 4 * corpus.RATE] *= time[: 4 * corpus.RATE] > 3
        places = [(3 * corpus.RATE, 4 * corpus.RATE, ["one", "two"]), (4 * corpus.RATE, 5 * corpus.RATE, ["three"])]

        def recognise(pieces):
            self.assertEqual([len(piece) for piece in pieces], [words.LOW + 2 * words.MARGIN] * 2)
            return [["one"] if np.abs(piece).max() > 0.05 else [] for piece in pieces]

        said = io.StringIO()
        with tempfile.TemporaryDirectory() as folder, mock.patch.object(detectors, "BUILD", Path(folder)), \
                mock.patch.object(words, "spoken", lambda voice: (alone, places)), \
                mock.patch.object(words, "recognise", recognise), \
                mock.patch.object(corpus, "noise", lambda part, name: np.zeros(100, np.float32)), \
                mock.patch.dict(denoise.COMPETITORS, {"speexdsp": (words.LOW, lambda sound, noise: sound / 10)}), \
                mock.patch.object(words, "SHOWN", ("nothing", "speexdsp")), \
                contextlib.redirect_stdout(said), contextlib.redirect_stderr(io.StringIO()):
            words.main()
            curves = Path(folder, "words.dat").read_text().splitlines()
        self.assertEqual(curves[0], "dB\tnothing\tspeexdsp")
        self.assertEqual([round(float(each)) for each in curves[2].split("\t")], [5, 67, 100])
        self.assertEqual(len(curves), 7)
        lines = said.getvalue().splitlines()
        self.assertIn("## Words that are wrong, of 3, in percent: cafe, train", lines)
        self.assertEqual([line for line in lines if line.startswith(("| nothing", "| speex"))], [
            "| nothing" + " | 67 (67, 67)" * 6 + " | 67 |", "| speexdsp" + " | 100 (100, 100)" * 6 + " | 100 |"])


class Utterances(unittest.TestCase):
    def test_hysteresis(self):
        said = "".join("#" if each else "." for each in voiced(frames("5564354666435"), RULE))
        self.assertEqual(said, "..##...####..")

    def test_speech_lasts_for_its_minimum_and_ends_after_the_hang_over(self):
        self.assertEqual(spans("0009900000"), [])
        self.assertEqual(spans("000999000000000"), [(10, 30, 110, 60)])

    def test_a_short_pause_is_part_of_an_utterance_and_a_short_sound_prolongs_it(self):
        self.assertEqual(spans("999000090000000"), [(0, 0, 130, 80)])
        self.assertEqual(spans("999000009000000"), [(0, 0, 80, 30)])

    def test_speech_begins_when_it_is_likely_but_not_in_the_utterance_before(self):
        self.assertEqual(spans("0002399900000000"), [(20, 40, 130, 80)])
        self.assertEqual(spans("0" + 25 * "3" + "99900000"), [(40, 60, 340, 290)])
        self.assertEqual(spans("9993333333999"), [(0, 0, 80, 30), (80, 80, 130, 130)])

    def test_the_pre_roll_does_not_reach_into_the_utterance_before(self):
        self.assertEqual(spans("999000000999000000"), [(0, 0, 80, 30), (80, 90, 170, 120)])

    def test_the_end_of_the_stream_ends_an_utterance(self):
        self.assertEqual(spans("000999"), [(10, 30, 60, 60)])
        self.assertEqual(spans(""), [])


class Judging(unittest.TestCase):
    def test_an_exact_detection(self):
        tally = judge([heard(4000, 5000)], [(4000, 5000)], 64000)
        self.assertEqual(tally, Tally(spoken=1, clipped=[0], lost=[0], late=[500], cut=[0], minutes=1.0, starts=1))
        self.assertEqual((tally.failed, tally.false_a_minute), (0, 0))

    def test_a_late_detection_is_clipped_unless_the_pre_roll_covers_it(self):
        tally = judge([heard(1250, 2000)], [(1000, 2000)], 3000)
        self.assertEqual((tally.clipped, tally.lost, tally.failed), ([250], [0], 0))
        tally = judge([heard(1320, 2000)], [(1000, 2000)], 3000)
        self.assertEqual((tally.clipped, tally.lost, tally.failed), ([320], [20], 0))
        tally = judge([heard(1321, 2000)], [(1000, 2000)], 3000)
        self.assertEqual((tally.clipped, tally.lost, tally.failed), ([321], [21], 1))

    def test_what_is_heard_elsewhere_is_false_and_what_is_not_heard_is_missed(self):
        tally = judge([heard(5000, 5100), heard(9000, 9500)], [(4000, 4500), (7000, 7500)], 124000)
        self.assertEqual((tally.missed, tally.failed, tally.false, tally.false_a_minute), (2, 2, 2, 1.0))
        self.assertEqual((tally.false_ms, round(tally.false_share, 9), tally.false_starts), (2200, round(11 / 6, 9), 0))

    def test_what_is_heard_at_the_start_counts_apart(self):
        tally = judge([heard(0, 100), heard(1000, 3000), heard(8000, 8100)], [], 63000)
        self.assertEqual((tally.false_starts, tally.starts, tally.false, tally.minutes), (1, 1, 1, 1.0))
        tally = judge([heard(1000, 4000)], [], 63000)
        self.assertEqual((tally.false_starts, tally.false, tally.false_ms), (1, 1, 1500))

    def test_one_utterance_heard_as_two(self):
        tally = judge([heard(1000, 1200), heard(1800, 1900)], [(1000, 2500)], 4000)
        self.assertEqual((tally.split, tally.missed, tally.false), (1, 0, 0))
        self.assertEqual((tally.late, tally.cut), ([-100], [100]))

    def test_two_utterances_heard_as_one(self):
        tally = judge([heard(1000, 3500)], [(1000, 2000), (3000, 4000)], 5000)
        self.assertEqual((tally.merged, tally.missed, tally.lost), (1, 0, [0, 0]))
        self.assertEqual((tally.clipped, tally.late), ([0, 0], [0]))

    def test_an_onset_within_an_earlier_utterance_is_kept(self):
        tally = judge([heard(4100, 4600), heard(5500, 6000)], [(5000, 6000)], 7000)
        self.assertEqual((tally.clipped, tally.lost, tally.false), ([500], [0], 1))

    def test_tallies_add_up(self):
        one = judge([heard(4100, 5000)], [(4000, 5000)], 34000)
        self.assertEqual(total([one, one]).clipped, [100, 100])
        self.assertEqual((total([one, one]).spoken, total([one, one]).minutes), (2, 1.0))


class Sounds(unittest.TestCase):
    def burst(self, begin, end, level, seconds=6, noise=1e-3):
        sound = noise * np.random.default_rng(1).standard_normal(seconds * corpus.RATE)
        time = np.arange(begin, end) / corpus.RATE
        sound[begin:end] += level * np.sin(2 * np.pi * 1000 * time)
        return sound

    def test_onsets_and_ends_are_found_to_5_ms(self):
        begin, end = 100_000, 180_000
        ((onset, last),) = corpus.find_speech(self.burst(begin, end, 0.1))
        self.assertLessEqual(abs(onset - begin), corpus.STEP)
        self.assertLessEqual(abs(last - end), corpus.STEP)

    def test_clicks_are_not_speech(self):
        self.assertEqual(len(corpus.find_speech(self.burst(100_000, 180_000, 0.1) + self.burst(20_000, 20_400, 0.1))), 1)

    def test_what_begins_in_the_middle_of_a_sound_has_no_onset(self):
        sound = self.burst(100_000, 180_000, 0.1)
        self.assertIsNotNone(corpus.utterance_of(sound))
        self.assertIsNone(corpus.utterance_of(sound[100_000:]))

    def test_utterances_have_the_common_level(self):
        piece, onset, end = corpus.utterance_of(self.burst(100_000, 180_000, 0.1))
        self.assertAlmostEqual(corpus.rms_db(piece[onset:end]), corpus.SPEECH_DB, delta=0.1)

    def test_noises_have_the_common_level_wherever_they_begin(self):
        for seed in range(3):
            piece = corpus.stretch_of("tune", "hum", 2 * 60 * corpus.RATE, seed)
            self.assertAlmostEqual(corpus.rms_db(piece), 0.0, delta=0.01)

    def test_energy_above_its_floor(self):
        begin, end = 3 * corpus.RATE, 4 * corpus.RATE
        score = detectors.energy(self.burst(begin, end, 0.1))
        # The noise has 17 % of its power in the band, at -67.7 dB, and the burst is at -23 dB.
        self.assertAlmostEqual(np.median(score[310:399]), 44.7, delta=2)
        self.assertLess(np.max(np.delete(score, np.s_[298:404])), 4)
        self.assertLess(np.max(detectors.energy(np.zeros(corpus.RATE))), 1e-6)

    def test_a_whole_run(self):
        """On tones, which are no speech but have energy, and on noise."""
        tone, noise = self.burst(200_000, 300_000, 0.1, seconds=8), self.burst(0, 0, 0, seconds=8)

        def scenes(part, snrs):
            for name in "city", "cafe":
                yield corpus.Scene(f"{part} {name}", "voice", name, 20.0, tone, ((200_000, 300_000),))
                yield corpus.Scene(f"{part} {name} alone", "", name, 10.0, noise, ())

        def monologues(part, noises, snrs):
            yield "fan", 5, self.burst(100_000, 300_000, 0.1, seconds=8)

        said = io.StringIO()
        with tempfile.TemporaryDirectory() as folder, mock.patch.object(corpus, "scenes", scenes), \
                mock.patch.object(corpus, "monologues", monologues), \
                mock.patch.object(detectors, "BUILD", Path(folder)), contextlib.redirect_stdout(said), \
                contextlib.redirect_stderr(io.StringIO()):
            vad.main()
        lines = said.getvalue().splitlines()
        self.assertIn("| recommended | 2: NOT MET | 0: met | 0.0, 0 % of the time: met |", lines)
        self.assertIn("| energy | 0: met | 0: met | 0.0, 0 % of the time: met |", lines)
        self.assertFalse([line for line in lines if line.startswith("| webrtc")])
        # Of 8 s, the 2 s until the tone is the floor, and 0.3 s before and 0.5 s behind.
        self.assertIn("| fan, 5 | 0, 0 | 35, 35 |", lines)


class Denoising(unittest.TestCase):
    """Speech-like noise in ten bursts of different loudness, at 10000 Hz."""

    rate = 10000
    random = np.random.default_rng(3)
    time = np.arange(5 * rate) / rate
    clean = random.standard_normal(5 * rate) * np.abs(np.sin(2 * np.pi * time)) ** 2
    noise = random.standard_normal(5 * rate)

    def noisy(self, snr):
        return self.clean + self.noise * np.sqrt(np.mean(self.clean**2) / np.mean(self.noise**2)) * 10 ** (-snr / 20)

    def test_the_ratio_of_signal_to_distortion_is_that_of_the_mixture_at_any_level(self):
        for snr in 0, 10, 30:
            self.assertAlmostEqual(sound_measures.si_sdr(self.noisy(snr), self.clean), snr, delta=0.3)
            self.assertAlmostEqual(sound_measures.si_sdr(-5 * self.noisy(snr), self.clean), snr, delta=0.3)

    def test_the_segmental_ratio_is_the_mean_of_those_of_20_ms(self):
        steady, noise = np.sign(self.clean), np.sign(self.noise)  # the same power everywhere
        for amplitude, ratio in (0.1, 20), (0.01, 35):
            measured = sound_measures.segmental_snr(3 * (steady + amplitude * noise), steady, self.rate)
            self.assertAlmostEqual(measured, ratio, delta=0.2)

    def test_intelligibility_is_one_for_the_clean_sound_and_none_for_another(self):
        self.assertAlmostEqual(sound_measures.stoi(self.clean, self.clean), 1, places=6)
        self.assertAlmostEqual(sound_measures.stoi(0.1 * self.clean, self.clean), 1, places=6)
        loud, same = (sound_measures.stoi(gain * self.noisy(0), self.clean) for gain in (30, 1))
        self.assertAlmostEqual(loud, same, places=6)
        self.assertLess(abs(sound_measures.stoi(self.noise[::-1], self.noise)), 0.1)

    def test_intelligibility_falls_with_noise(self):
        falling = [sound_measures.stoi(self.noisy(snr), self.clean) for snr in (30, 15, 5, 0, -5, -15)]
        self.assertEqual(falling, sorted(falling, reverse=True))
        self.assertGreater(falling[0], 0.99)
        self.assertLess(falling[-1], 0.4)

    def test_silence_does_not_change_intelligibility(self):
        gap = np.zeros(2 * self.rate)
        longer = sound_measures.stoi(np.concatenate((gap, self.noisy(0))), np.concatenate((gap, self.clean)))
        self.assertAlmostEqual(longer, sound_measures.stoi(self.noisy(0), self.clean), delta=0.01)

    def test_delays_are_found_and_taken_out(self):
        for delay in -200, 0, 37:
            moved = np.concatenate((np.zeros(delay), self.clean)) if delay > 0 else self.clean[-delay:]
            self.assertEqual(sound_measures.delay_of(-moved, self.clean, 500), delay)
            there = sound_measures.aligned(moved, delay, len(self.clean))
            self.assertTrue(np.array_equal(there[250:-250], self.clean[250:-250]))


class Gate(unittest.TestCase):
    def test_the_library_follows_the_same_rule(self):
        random = np.random.default_rng(2)
        for rule in RULE, Rule(0.5, 0.5, 0, 0, 0), Rule(0.9, 0.2, 100, 500, 300):
            for _ in range(20):
                score = np.clip(np.cumsum(random.normal(0, 0.2, 500)) % 2 - 0.5, 0, 1).astype(np.float32)
                expected = [(each.begin, each.end) for each in utterances(score, rule)]
                self.assertEqual(detectors.gate_utterances(score, rule), expected)


if __name__ == "__main__":
    unittest.main()
