"""Utterances out of a score for each 10 ms, and how well they meet those that were spoken."""
from dataclasses import dataclass, field

import numpy as np

FRAME_MS = 10
ONSET_MS = 200
ALLOWED_MS = 20  # of an onset may be lost
START_MS = 3000  # in which a detector that knows nothing yet of the noise is judged apart


@dataclass(frozen=True)
class Rule:
    """How a score becomes utterances: the rule of the library's speech gate, which the peers' scores get as well."""

    begin: float
    end: float
    min_speech_ms: int
    hang_over_ms: int = 500
    pre_roll_ms: int = 300
    likely: float = 0.3  # with which speech may begin, up to ONSET_MS before it reaches `begin`


@dataclass(frozen=True)
class Utterance:
    """In ms since the beginning of the stream."""

    begin: float  # with the pre-roll
    speech: float
    end: float  # with the hang-over
    last: float  # end of the last voiced 10 ms


def voiced(score, rule):
    """Which 10 ms are voiced: from the first that reaches `begin` until one is below `end`."""
    decided = np.where(score >= rule.begin, 1, np.where(score < rule.end, 0, -1))
    latest = np.maximum.accumulate(np.where(decided >= 0, np.arange(len(score)), -1))
    return (latest >= 0) & (decided[latest] == 1)


def utterances(score, rule):
    """The utterances of a score."""
    edges = np.flatnonzero(np.diff(np.concatenate(([0], voiced(score, rule).astype(np.int8), [0]))))
    least, hang_over = max(1, -(-rule.min_speech_ms // FRAME_MS)), -(-rule.hang_over_ms // FRAME_MS)
    found, speech, last, before = [], None, 0, 0.0

    def ends():
        end = min(last + hang_over, len(score)) * FRAME_MS
        found.append(Utterance(max(before, speech * FRAME_MS - rule.pre_roll_ms), speech * FRAME_MS, end, last * FRAME_MS))
        return end

    for begin, end in edges.reshape(-1, 2).tolist():
        if speech is not None and begin - last >= max(1, hang_over):
            before, speech = ends(), None
        if speech is not None:
            last = end
        elif end - begin >= least:
            earliest = max(begin - ONSET_MS // FRAME_MS, int(before) // FRAME_MS)
            unlikely = np.flatnonzero(score[earliest:begin] < rule.likely)
            speech, last = earliest + unlikely[-1] + 1 if len(unlikely) else earliest, end
    if speech is not None:
        ends()
    return found


@dataclass
class Tally:
    """What a detector did to some utterances and the time between them. Tallies add up. Times in ms."""

    spoken: int = 0
    missed: int = 0  # nothing was detected from onset to end
    split: int = 0  # detected as several
    merged: int = 0  # detected as one with the next
    clipped: list = field(default_factory=list)  # for each one detected: lost before the pre-roll is added
    lost: list = field(default_factory=list)  # and after it
    late: list = field(default_factory=list)  # how long the last one of each goes on behind its end, where not merged
    cut: list = field(default_factory=list)  # lost at the end
    false: int = 0  # detected where nobody spoke, after the start
    false_ms: float = 0.0  # how long these lasted, with pre-roll and hang-over
    minutes: float = 0.0  # in which nobody spoke, after the start
    starts: int = 0  # streams
    false_starts: int = 0  # of them, those where something was detected at the start, and nobody spoke

    def __add__(self, other):
        return Tally(*(getattr(self, name) + getattr(other, name) for name in self.__dataclass_fields__))

    @property
    def failed(self):
        """Missed, or with more of the onset lost than is allowed."""
        return self.missed + sum(ms > ALLOWED_MS for ms in self.lost)

    @property
    def false_a_minute(self):
        return self.false / self.minutes if self.minutes else 0.0

    @property
    def false_share(self):
        """Of the time in which nobody spoke, in percent."""
        return self.false_ms / self.minutes / 600 if self.minutes else 0.0


def judge(found, truth, length):
    """Compares the utterances detected with the (onset, end) of those spoken, all in ms. None is spoken at the start."""
    silence = length - min(length, START_MS) - sum(end - onset for onset, end in truth)
    tally = Tally(spoken=len(truth), minutes=silence / 60000, starts=1)
    of = [[each for each in found if each.speech < end and each.last > onset] for onset, end in truth]
    for each in found:
        if any(each in those for those in of):
            continue
        if each.speech < START_MS:
            tally.false_starts = 1
        if each.last > START_MS:
            tally.false += 1
            tally.false_ms += each.end - max(each.begin, START_MS)
    for (onset, end), those, following in zip(truth, of, of[1:] + [[]]):
        if not those:
            tally.missed += 1
            continue
        tally.split += len(those) > 1
        tally.clipped.append(max(0.0, those[0].speech - onset))
        kept = [each for each in found if each.begin <= onset < each.end]
        tally.lost.append(0.0 if kept else those[0].begin - onset)
        tally.cut.append(max(0.0, end - those[-1].end))
        if those[-1] in following:
            tally.merged += 1
        else:
            tally.late.append(those[-1].end - end)
    return tally


def total(tallies):
    return sum(tallies, Tally())
