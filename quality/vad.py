"""How well speech is found in noise: this library's probabilities beside webrtc's voice detection and an energy threshold.

scripts/quality --vad runs it. All three get the same rule that makes utterances of their scores, with thresholds and
minimum that are tuned on voices and noises of which none is judged.
"""
import sys
from dataclasses import replace

import corpus
import detectors
import numpy as np
from measures import ALLOWED_MS, FRAME_MS, START_MS, Rule, judge, total, utterances

TUNED_AT = (5, 10, 20)
JUDGED_AT = (0, 5, 10, 15, 20, 30)
GOOD_SNR = 10  # from here on, nothing should be lost
# What tuning led to, with some hysteresis, which costs nothing.
RECOMMENDED = Rule(begin=0.95, end=0.9, min_speech_ms=100)
MINIMA = (10, 30, 50, 80, 100, 150, 200)
MODES = range(detectors.MODES)


def candidates(name):
    """(score, rule) for all settings of a detector that are tried."""
    if name == "webrtc":
        return [((name, mode), Rule(0.5, 0.5, least)) for mode in MODES for least in MINIMA]
    if name == "energy":
        rules = [(begin, begin - below, begin / 3) for begin in range(4, 21) for below in (0, 2, 4) if begin - below > 1]
    else:
        steps = (0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7, 0.8, 0.9, 0.95, 0.98)
        rules = [(begin, end, Rule.likely) for begin in steps for end in steps if end <= begin]
    return [((name, None), Rule(begin, end, least, likely=likely)) for begin, end, likely in rules for least in MINIMA]


def score_of(scores, kind):
    name, mode = kind
    return scores[name] if mode is None else scores[name][mode]


def tally_of(scene, score, rule):
    truth = [(onset * 1000 / corpus.RATE, end * 1000 / corpus.RATE) for onset, end in scene.truth]
    return judge(utterances(score, rule), truth, len(score) * FRAME_MS)


def cost(tally):
    """In percent of the utterances, those missed or clipped and half of those split or merged; and the percent of the
    silence that is taken for utterances."""
    return 100 * (tally.failed + (tally.split + tally.merged) / 2) / tally.spoken + tally.false_share


def measured(part, snrs):
    """(scene without its sound, its scores)."""
    found = []
    for scene in corpus.scenes(part, snrs):
        found.append((replace(scene, sound=None), detectors.scores(scene.sound)))
    minutes = sum(len(scores["speech"]) for _, scores in found) * FRAME_MS / 60000
    print(f"quality: {len(found)} scenes of {minutes:.0f} minutes to {part}", file=sys.stderr)
    return found


def tuned(scenes, name):
    """(cost, kind, rule, tally) of all settings of a detector, the best first.

    Babble counts for none: it is speech, and what finds speech finds it.
    """
    heard = [(scene, scores) for scene, scores in scenes if scene.snr >= GOOD_SNR and scene.noise != "babble"]
    tried = []
    for kind, rule in candidates(name):
        tally = total(tally_of(scene, score_of(scores, kind), rule) for scene, scores in heard)
        tried.append((cost(tally), kind, rule, tally))
    return sorted(tried, key=lambda each: each[0])


def settings(rule):
    begins = f"{rule.begin:g}" if rule.begin == rule.end else f"{rule.begin:g} to {rule.end:g}"
    return f"{begins}, {rule.min_speech_ms} ms"


def label(kind, rule):
    name, mode = kind
    return f"{name}{'' if mode is None else f' {mode}'}: {settings(rule)}"


def table(*rows):
    """A table of Markdown; the first row is the heading."""
    lines = ["| " + " | ".join(map(str, row)) + " |" for row in rows]
    return "\n".join([lines[0], "|---" * len(rows[0]) + "|", *lines[1:]]) + "\n"


def save_curves(name, ratios, curves):
    """For the picture: a column for each curve, with its name, and a row for each ratio."""
    lines = ["\t".join(["dB", *curves]), *("\t".join(map(str, row)) for row in zip(ratios, *curves.values()))]
    (detectors.BUILD / f"{name}.dat").write_text("\n".join(lines) + "\n")


def spread(times):
    return f"{np.median(times):.0f}, {max(times):.0f}" if times else ""


HEADING = ["missed", "onset clipped", "ms of onset lost: median, worst", "with pre-roll", "split", "merged"]
HEADING += ["false a minute", "of the silence", "ms late at the end: median, worst"]


def figures(tally):
    clipped = tally.failed - tally.missed
    row = [f"{count} of {tally.spoken}" for count in (tally.missed, clipped)]
    row += [spread(tally.clipped), spread(tally.lost), tally.split, tally.merged]
    return row + [f"{tally.false_a_minute:.2f}", f"{tally.false_share:.1f} %", spread(tally.late)]


def print_tuning(tried):
    print("## Tuning\n")
    rows = [["detector, begin to end, minimum", "cost", *HEADING]]
    for found in tried.values():
        rows += [[label(kind, rule), f"{price:.1f}", *figures(tally)] for price, kind, rule, tally in found[:3]]
    print(table(*rows))

    by_rule = {(rule.begin, rule.end, rule.min_speech_ms): price for price, _, rule, _ in tried["speech"]}
    ends = (0.1, 0.3, 0.5, 0.7, 0.9, 0.95, 0.98)
    for least in (30, 100, 200):
        rows = [[f"cost of the library's with {least} ms", *(f"end {end:g}" for end in ends)]]
        for begin in (0.3, 0.5, 0.6, 0.7, 0.8, 0.9, 0.95, 0.98):
            prices = (by_rule.get((begin, end, least)) for end in ends)
            rows.append([f"begin {begin:g}", *("" if price is None else f"{price:.1f}" for price in prices)])
        print(table(*rows))


def print_hang_over(scenes, rule):
    rows = [["hang-over", "split", "merged", "ms late at the end: median, worst"]]
    heard = [(scene, scores) for scene, scores in scenes if scene.voice and scene.snr >= GOOD_SNR and scene.noise != "babble"]
    for hang_over in (0, 100, 200, 300, 400, 500, 700, 1000, 1500):
        with_it = Rule(rule.begin, rule.end, rule.min_speech_ms, hang_over)
        tally = total(tally_of(scene, scores["speech"], with_it) for scene, scores in heard)
        rows.append([f"{hang_over} ms", tally.split, tally.merged, spread(tally.late)])
    print(table(*rows))


def print_judgement(scenes, chosen):
    tallies = [(scene, {name: tally_of(scene, score_of(scores, kind), rule) for name, (kind, rule) in chosen.items()})
               for scene, scores in scenes]

    def rows(title, key, wanted):
        groups = {}
        for scene, by_name in tallies:
            if wanted(scene):
                groups.setdefault(key(scene), []).append(by_name)
        found = [[title, "detector", *HEADING]]
        for group, those in groups.items():
            found += [[group, name, *figures(total(each[name] for each in those))] for name in chosen]
        print(table(*found))

    print("## Voices in noise, by the ratio of speech to noise; without babble\n")
    rows("dB", lambda scene: "clean" if np.isinf(scene.snr) else f"{scene.snr:g}",
         lambda scene: scene.voice and scene.noise != "babble")
    print(f"## Voices in noise at {GOOD_SNR} dB and more, by noise\n")
    rows("noise", lambda scene: scene.noise or "clean", lambda scene: scene.voice and scene.snr >= GOOD_SNR)
    print(f"## Voices in noise at {GOOD_SNR} dB and more, by voice; without babble\n")
    rows("voice", lambda scene: scene.voice, lambda scene: scene.voice and scene.snr >= GOOD_SNR and scene.noise != "babble")
    print("## A minute of noise alone, as loud as at 10 dB\n")
    found = [["noise", *(f"{name}: false a minute, of the time" for name in chosen)]]
    for scene, by_name in tallies:
        if not scene.voice:
            found.append([scene.noise, *(f"{by_name[name].false_a_minute:.1f}, {by_name[name].false_share:.0f} %" for name in chosen)])
    print(table(*found))
    print(f"## Streams in which noise was taken for speech in the first {START_MS / 1000:g} s\n")
    everything = {name: total(by_name[name] for _, by_name in tallies) for name in chosen}
    print(table(list(chosen), [f"{each.false_starts} of {each.starts}" for each in everything.values()]))
    return tallies


def print_monologues(chosen):
    """A detector that takes what never pauses for noise loses those who talk like that."""
    shares = {}
    for noise, snr, sound in corpus.monologues("judge", ("fan", "train", "cafe"), (0, 5, 10)):
        scores = detectors.scores(sound)
        for name, (kind, rule) in chosen.items():
            found = utterances(score_of(scores, kind), rule)
            share = sum(each.end - each.begin for each in found) * corpus.RATE / 10 / len(sound)
            shares.setdefault((noise, snr), {}).setdefault(name, []).append(share)
    print("## A minute of talk without pauses: the percentage that is found, mean and least of the voices\n")
    rows = [["noise, dB", *chosen]]
    for (noise, snr), by_name in shares.items():
        rows.append([f"{noise}, {snr}", *(f"{np.mean(by_name[name]):.0f}, {min(by_name[name]):.0f}" for name in chosen)])
    print(table(*rows))


def print_goals(tallies, chosen):
    """An alarm that never ends is a single one, and yet no good: it must not last for a tenth of the time either."""
    good = [by_name for scene, by_name in tallies if scene.voice and scene.snr >= GOOD_SNR]
    cafe = [by_name for scene, by_name in tallies if scene.noise == "cafe" and not scene.voice]
    print("## Goals\n")
    found = [["detector", f"none missed at {GOOD_SNR} dB and more", f"no onset clipped by more than {ALLOWED_MS} ms",
              "fewer than one false a minute of cafe"]]
    for name in chosen:
        voices, noise = total(each[name] for each in good), total(each[name] for each in cafe)
        clipped = voices.failed - voices.missed
        is_quiet = noise.false_a_minute < 1 and noise.false_share < 10
        found.append([name] + [f"{figure}: {'met' if is_met else 'NOT MET'}" for figure, is_met in (
            (voices.missed, voices.missed == 0), (clipped, clipped == 0),
            (f"{noise.false_a_minute:.1f}, {noise.false_share:.0f} % of the time", is_quiet))])
    print(table(*found))


def check_gate(scenes, rule):
    """The library's own speech gate is what users get: it has to find what the rule here finds."""
    for scene, scores in scenes:
        ours = [(each.begin, each.end) for each in utterances(scores["speech"], rule)]
        theirs = detectors.gate_utterances(scores["speech"], rule)
        assert ours == theirs, f"{scene.name}: the gate finds {theirs}, and the rule {ours}"


def main():
    tuning = measured("tune", TUNED_AT)
    judging = measured("judge", JUDGED_AT)
    tried = {name: tuned(tuning, name) for name in tuning[0][1]}
    chosen = {"recommended": (("speech", None), RECOMMENDED)}
    if detectors.default_rule() != RECOMMENDED:
        chosen["defaults"] = ("speech", None), detectors.default_rule()
    chosen.update({name: found[0][1:3] for name, found in tried.items() if name != "speech"})
    print(table(["called", "detector: begin to end, minimum"], *([name, label(*each)] for name, each in chosen.items())))
    for kind, rule in chosen.values():
        if kind[0] == "speech":
            check_gate(judging, rule)
    print(f"The library's speech gate found the same utterances as the rule applied here, in {len(judging)} scenes.\n")
    print_tuning(tried)
    print_hang_over(tuning, RECOMMENDED)
    tallies = print_judgement(judging, chosen)
    print_monologues(chosen)
    print_goals(tallies, chosen)


if __name__ == "__main__":
    main()
