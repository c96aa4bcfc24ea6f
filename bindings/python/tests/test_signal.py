"""The signal processors on streams of floats, and the conversion between the two kinds of blocks."""

import math
import threading
import unittest
from array import array
from typing import Any, Callable, Iterable, List

import support
from wrapper_audio import AudioError, ClosedError, Converter, Denoiser, DePop, GainControl, HighPass, Limiter, Processor
from wrapper_audio import to_float32, to_int16


def sine(hertz: float, rate: int = 16000, seconds: float = 1.0, amplitude: float = 0.5) -> "array[float]":
    count = int(rate * seconds)
    return array("f", (amplitude * math.sin(2 * math.pi * hertz * i / rate) for i in range(count)))


def rms(block: Any) -> float:
    return math.sqrt(sum(float(x) ** 2 for x in block) / len(block))


def processed(processor: Processor, samples: "array[float]", lengths: Iterable[int]) -> List[float]:
    """The whole stream, given in pieces of these lengths and one more for the rest."""
    made: List[float] = []
    first = 0
    for length in [*lengths, len(samples)]:
        made += map(float, processor.process(samples[first : first + length]))
        first += length
    return made + list(map(float, processor.flush()))


def blocks_of(samples: "array[float]") -> List[Any]:
    """The same samples as every kind of block there is."""
    kinds: List[Any] = [array("f", samples), memoryview(array("f", samples)).toreadonly()]
    if support.HAS_NUMPY:
        import numpy

        kinds.append(numpy.array(samples, numpy.float32))
    return kinds


class Streams(unittest.TestCase):
    def processors(self) -> List[Processor]:
        return [
            Converter(16000, 44100),
            Converter(48000, 16000),
            Converter(16000, 16000),
            Converter(44100, 16000, converter="linear"),
            Denoiser(16000),
            Denoiser(48000, 0.5),
            Denoiser(44100, out_rate=16000),
            HighPass(120),
            GainControl(rate=22050),
            Limiter(-20, rate=48000),
            DePop(0.9),
        ]

    def test_the_pieces_in_which_a_stream_comes_make_no_difference(self) -> None:
        tone = sine(440, 16000, 0.5)
        for processor in self.processors():
            with processor:
                whole = processed(processor, tone, [])
                self.assertGreater(rms(whole), 0.01)
                self.assertEqual(processed(processor, tone, [1, 0, 7, 480, 479, 481, 3000]), whole, processor)

    def test_flush_and_reset_begin_a_new_stream(self) -> None:
        tone = sine(440, 16000, 0.3)
        for processor in self.processors():
            whole = processed(processor, tone, [])
            processor.process(sine(300))
            processor.reset()
            self.assertEqual(processed(processor, tone, []), whole, processor)

    def test_no_more_is_kept_inside_than_the_delay(self) -> None:
        for processor in self.processors():
            given = 0
            for _ in range(50):
                given += len(processor.process(sine(440, 16000, 0.02)))
            self.assertLessEqual(len(processor.flush()), processor.delay)
            self.assertGreater(given, 0)
        self.assertEqual((HighPass(120).delay, GainControl(rate=48000).delay), (0, 479))

    def test_a_limiter_keeps_peaks_below_its_ceiling(self) -> None:
        loud = processed(Limiter(-6, rate=16000), sine(440, amplitude=0.9), [100])
        self.assertAlmostEqual(max(abs(sample) for sample in loud), 10 ** (-6 / 20), delta=0.001)
        quiet = sine(440, amplitude=0.1)
        self.assertEqual(processed(Limiter(-6), quiet, [100]), list(quiet))

    def test_every_kind_of_block_gives_the_same_and_is_not_written_to(self) -> None:
        tone = sine(440)
        for block in blocks_of(tone):
            with HighPass(120) as high_pass:
                made = high_pass.process(block)
            self.assertEqual(array("f", block), tone)
            self.assertEqual(len(made), len(tone))
            self.assertLess(abs(rms(made[8000:]) - rms(tone[8000:])), 0.01)

    def test_other_blocks_are_refused(self) -> None:
        wrong: List[Any] = [array("h", [0]), array("d", [0.0]), [0.0], None, b"abcd"]
        if support.HAS_NUMPY:
            import numpy

            wrong += [numpy.zeros(4), numpy.zeros((2, 2), numpy.float32), numpy.zeros(4, numpy.float32)[::2]]
            wrong += [numpy.zeros(4, ">f4")]
        for block in wrong:
            for use in HighPass(120).process, Denoiser(48000).process, to_int16:
                with self.assertRaises(TypeError, msg=repr(block)):
                    use(block)

    def test_a_closed_processor_says_so(self) -> None:
        for processor in self.processors():
            processor.close()
            processor.close()
            self.assertTrue(processor.closed)
            with self.assertRaisesRegex(ClosedError, f"^the {type(processor).__name__} is closed;"):
                processor.process(array("f", [0.0]))
            for use in processor.flush, processor.reset, processor.__enter__:
                with self.assertRaises(ClosedError):
                    use()

    def test_settings_out_of_range_are_refused(self) -> None:
        refused: List[Callable[[], Processor]] = [
            lambda: Converter(0, 16000),
            lambda: Converter(16000, 99),
            lambda: Converter(2**32 + 48000, 16000),
            lambda: Converter(48000, 16000, converter="cubic"),
            lambda: Denoiser(48000, 1.1),
            lambda: Denoiser(48000, math.nan),
            lambda: Denoiser(48000, out_rate=0),
            lambda: HighPass(0),
            lambda: HighPass(8000),
            lambda: HighPass(math.nan),
            lambda: HighPass(100, 0),
            lambda: HighPass(100, rate=0),
            lambda: GainControl(math.nan),
            lambda: GainControl(1),
            lambda: GainControl(-20, -1),
            lambda: GainControl(rate=99),
            lambda: Limiter(0.1),
            lambda: DePop(1.1),
            lambda: DePop(math.nan),
        ]
        for make in refused:
            with self.assertRaises(ValueError) as caught:
                make()
            self.assertIsInstance(caught.exception, AudioError)
        with self.assertRaisesRegex(ValueError, r": 16000, 9000, 0.707\. "):
            HighPass(9000)

    def test_one_processor_may_be_used_by_several_threads(self) -> None:
        denoiser = Denoiser(48000)
        counts: List[int] = []

        def use() -> None:
            counts.append(sum(len(denoiser.process(sine(440, 48000, 0.05))) for _ in range(20)))

        threads = [threading.Thread(target=use) for _ in range(3)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(sum(counts) + len(denoiser.flush()), 3 * 20 * 2400)


class Conversion(unittest.TestCase):
    def test_a_stream_keeps_its_length(self) -> None:
        for in_rate, out_rate in (48000, 16000), (16000, 48000), (44100, 16000), (48000, 44100), (100, 768000):
            for converter in "clean", "linear":
                count = in_rate // 10 + 1
                with Converter(in_rate, out_rate, converter=converter) as converting:
                    made = processed(converting, array("f", bytes(4 * count)), [count // 3])
                self.assertLessEqual(abs(len(made) - count * out_rate / in_rate), 0.5, (in_rate, out_rate))

    def test_a_tone_stays_and_what_would_alias_goes(self) -> None:
        for in_rate in 48000, 44100:
            with Converter(in_rate, 16000) as converter:
                kept = processed(converter, sine(1000, in_rate), [])
                gone = processed(converter, sine(9000, in_rate), [])
            expected = sine(1000, 16000)
            self.assertLess(max(abs(a - b) for a, b in zip(kept[1000:-1000], expected[1000:-1000])), 1e-3)
            self.assertLess(rms(gone[1000:-1000]), rms(expected) / 10 ** (90 / 20))


class Denoising(unittest.TestCase):
    def test_the_pause_grows_quiet_by_the_strength_asked_for(self) -> None:
        speech = to_float32(array("h", support.samples_of(support.SPEECH)))
        pause = slice(int(5.4 * 48000), int(5.8 * 48000))
        before = rms(speech[pause])
        for strength, lowest, highest in (1.0, 0.0, 1 / 30), (0.5, 0.45, 0.55), (0.0, 1.0, 1.0):
            with Denoiser(48000, strength) as denoiser:
                made = [*denoiser.process(speech), *denoiser.flush()]
                probabilities = denoiser.speech_probabilities()
            self.assertEqual((len(made), len(probabilities)), (len(speech), len(speech) // 480))
            self.assertTrue(lowest <= rms(made[pause]) / before <= highest, strength)
            self.assertGreater(max(probabilities), 0.9)
            self.assertLess(max(probabilities[545:575]), 0.3)


class Filtering(unittest.TestCase):
    def test_the_corner_lies_where_it_is_wanted_at_any_rate(self) -> None:
        for rate in 8000, 16000, 48000:
            for hertz, least, most in (12.0, 0.0, 0.02), (120.0, 0.69, 0.72), (1200.0, 0.97, 1.01):
                tone = sine(hertz, rate)
                made = HighPass(120, rate=rate).process(tone)
                ratio = rms(made[rate // 2 :]) / rms(tone[rate // 2 :])
                self.assertTrue(least <= ratio <= most, (rate, hertz, ratio))

    def test_two_filters_know_nothing_of_each_other(self) -> None:
        one, other = HighPass(120), HighPass(300)
        tone = sine(100)
        alone = list(map(float, HighPass(120).process(tone)))
        both = [*one.process(tone[:7000])]
        other.process(tone)
        both += [*one.process(tone[7000:])]
        self.assertEqual(list(map(float, both)), alone)

    def test_depop_subtracts_a_share_of_the_sample_before(self) -> None:
        with DePop(0.5) as depop:
            made = [*depop.process(array("f", [1.0, 1.0, 0.5])), *depop.process(array("f", [-0.5]))]
        self.assertEqual(list(map(float, made)), [1.0, 0.5, 0.0, -0.75])

    def test_the_level_comes_to_the_target(self) -> None:
        for rate in 16000, 44100, 48000:
            for amplitude in 0.02, 0.8:
                made = processed(GainControl(-20, 100, rate=rate), sine(400, rate, amplitude=amplitude), [1000])
                self.assertEqual(len(made), rate)
                self.assertAlmostEqual(20 * math.log10(rms(made[-rate // 10 :])), -20, delta=0.2)


class Blocks(unittest.TestCase):
    def test_every_16_bit_sample_survives_the_way_to_floats_and_back(self) -> None:
        samples = array("h", range(-32767, 32768))
        floats = to_float32(samples)
        self.assertEqual((float(floats[0]), float(floats[32767]), float(floats[-1])), (-1.0, 0.0, 1.0))
        self.assertEqual([int(x) for x in to_int16(floats)], samples.tolist())

    def test_floats_are_limited_and_rounded_to_the_nearest(self) -> None:
        values = [2.0, -2.0, math.inf, -math.inf, math.nan, 0.99999, -0.99999, 0.6 / 32767, 0.4 / 32767]
        for block in blocks_of(array("f", values)):
            self.assertEqual([int(x) for x in to_int16(block)], [32767, -32767, 32767, -32767, 0, 32767, -32767, 1, 0])
        self.assertEqual((len(to_int16(array("f"))), len(to_float32(array("h")))), (0, 0))


if __name__ == "__main__":
    unittest.main()
