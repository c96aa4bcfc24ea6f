"""Utterances, on a microphone that hears a voice from 0.8 s to 5.3 s."""

import asyncio
import errno
import unittest
from typing import Any, Dict, List, Tuple

import support
from wrapper_audio import ArgumentError, AudioError, Recorder, Utterance, to_int16
from test_recording import SPEECH, as_recorded


class Utterances(support.ProcessTest):
    def check_utterance(self, utterance: Utterance, pre_roll: float = 0.3) -> None:
        self.assertAlmostEqual(utterance.start, 0.83 - pre_roll, delta=0.05)
        self.assertAlmostEqual(utterance.end, 5.28 + 0.5, delta=0.05)

    def test_the_first_one_has_the_raw_samples_of_its_time(self) -> None:
        for dtype in "int16", "float32":
            with Recorder(rate=48000, speech=True, dtype=dtype) as recorder:
                utterance = next(iter(recorder.utterances(hang_over_ms=500)))
                self.assertGreater(recorder.position, 5 * 48000)
            self.check_utterance(utterance)
            begin, end = round(utterance.start * 48000), round(utterance.end * 48000)
            samples = utterance.samples if dtype == "int16" else to_int16(utterance.samples)
            self.assertEqual(len(samples), end - begin)
            self.assertEqual([int(x) for x in samples], [as_recorded(sample) for sample in SPEECH[begin:end]])

    def test_denoised_ones_are_found_at_any_rate(self) -> None:
        with Recorder(rate=11025, denoise=True) as recorder:
            for utterance in recorder.utterances(pre_roll_ms=100, hang_over_ms=500):
                self.check_utterance(utterance, 0.1)
                self.assertEqual(len(utterance.samples), round((utterance.end - utterance.start) * 11025))
                break

    def test_long_ones_are_cut_without_losing_a_sample(self) -> None:
        with Recorder(speech=True) as recorder:
            found = [utterance for utterance, _ in zip(recorder.utterances(max_ms=1000), range(4))]
        self.assertEqual([len(utterance.samples) for utterance in found], 4 * [16000])
        for one, other in zip(found, found[1:]):
            self.assertEqual(one.end, other.start)

    def test_they_can_be_awaited(self) -> None:
        async def listen(recorder: Recorder) -> List[Utterance]:
            return [utterance async for utterance in recorder.utterances(max_ms=2000)]

        async def both() -> List[Utterance]:
            with Recorder(speech=True) as recorder:
                listening = asyncio.create_task(listen(recorder))
                while recorder.position < 16000 * 3:
                    await asyncio.sleep(0.01)
                recorder.stop()
                return await listening

        found = asyncio.run(both())
        self.assertGreaterEqual(len(found), 2)
        self.assertEqual(len(found[0].samples), 32000)

    def test_stopping_and_closing_end_them_with_what_was_said(self) -> None:
        for end in Recorder.stop, Recorder.close:
            with Recorder(rate=48000, speech=True) as recorder:
                utterances = recorder.utterances(max_ms=1010)
                first = next(utterances)
                end(recorder)
                rest = list(utterances)
                self.assertEqual([other.start for other in rest[:1]], [first.end])
                self.assertEqual(list(utterances), [])

    def test_a_failure_comes_after_what_was_said(self) -> None:
        program = """
            import wrapper_audio
            recorder = wrapper_audio.Recorder(speech=True)
            utterances = recorder.utterances()
            print(len(next(utterances).samples))
            try:
                next(utterances)
            except wrapper_audio.ReadError as error:
                print(error.status.name)
            print(list(utterances))
            recorder.close()
            """
        answers: List[Tuple[Dict[str, str], str]] = [
            ({}, "DEVICE_FAILED"), ({"MICROPHONE_ANSWER": str(errno.ENODEV)}, "DEVICE_GONE")]
        for script, expected in answers:
            output, _ = self.check(program, scripted=True, MICROPHONE_FAILS_AFTER="100", **script)  # after 3 s
            size, status, rest = output.splitlines()
            self.assertAlmostEqual(int(size) / 16000, 3 - 0.5, delta=0.05)
            self.assertEqual((status, rest), (expected, "[]"))

    def test_what_makes_no_sense_is_refused(self) -> None:
        with Recorder() as recorder:
            self.assertRaisesRegex(ArgumentError, "speech=True", recorder.utterances)
        with Recorder(speech=True, armed=True) as recorder:
            wrong: List[Any] = [dict(begin_threshold=1.1), dict(begin_threshold=0.2, end_threshold=0.3),
                                dict(end_threshold=float("nan")), dict(hang_over_ms=-1), dict(pre_roll_ms=60001),
                                dict(max_ms=99), dict(min_speech_ms=2**32)]
            for options in wrong:
                with self.subTest(options=options):
                    self.assertRaises(ArgumentError, recorder.utterances, **options)
            self.assertRaises(AudioError, next, recorder.utterances())  # not open yet


if __name__ == "__main__":
    unittest.main()
