"""The signal functions on buffers of floats."""

import math
import unittest
from array import array
from typing import Any, List

import support
import wrapper_audio
from wrapper_audio import ClosedError, GainControl, HighPass, ReplacedError, Resampler, depop, to_float32, to_int16


def sine(hertz: float, rate: int = 16000, seconds: float = 1.0, amplitude: float = 0.5) -> "array[float]":
    count = int(rate * seconds)
    return array("f", (amplitude * math.sin(2 * math.pi * hertz * i / rate) for i in range(count)))


def rms(block: Any) -> float:
    return math.sqrt(sum(float(x) ** 2 for x in block) / len(block))


def blocks_of(samples: "array[float]") -> List[Any]:
    """The same samples as every kind of block there is."""
    kinds: List[Any] = [array("f", samples)]
    if support.HAS_NUMPY:
        import numpy

        kinds.append(numpy.array(samples, numpy.float32))
    return kinds


class Resampling(unittest.TestCase):
    def test_the_output_lies_between_its_neighbours(self) -> None:
        with Resampler(16000, 32000) as resampler:
            for block in blocks_of(array("f", [0.0, 1.0, -1.0])):
                self.assertEqual([float(x) for x in resampler.process(block)], [0.0, 0.5, 1.0, 0.0, -1.0, -1.0])

    def test_the_count_follows_the_rates(self) -> None:
        for in_rate, out_rate, count, expected in (
            (48000, 16000, 480, 160),
            (48000, 44100, 480, 440),  # one short of 441
            (16000, 48000, 160, 480),
            (8000, 768000, 10, 960),
            (48000, 16000, 0, 0),
        ):
            with Resampler(in_rate, out_rate) as resampler:
                self.assertEqual(len(resampler.process(array("f", bytes(4 * count)))), expected, (in_rate, out_rate))

    def test_a_block_that_cannot_be_written_to_is_read_all_the_same(self) -> None:
        samples = array("f", [0.25, 0.5])
        with Resampler(16000, 16000) as resampler:
            self.assertEqual([float(x) for x in resampler.process(memoryview(samples).toreadonly())], [0.25, 0.5])  # type: ignore[arg-type]

    def test_refused_rates_and_use_after_close(self) -> None:
        for rates in (0, 1), (1, 0), (-48000, 16000), (2**32 + 48000, 16000):
            with self.assertRaises(ValueError):
                Resampler(*rates)
        resampler = Resampler(1, 1)
        resampler.close()
        resampler.close()
        with self.assertRaisesRegex(ClosedError, "^the resampler is closed$"):
            resampler.process(array("f", [0.0]))


class Filtering(unittest.TestCase):
    def test_the_corner_lies_where_it_is_wanted_at_any_rate(self) -> None:
        for rate in 8000, 16000, 48000:
            for hertz, least, most in (12.0, 0.0, 0.02), (120.0, 0.69, 0.72), (1200.0, 0.97, 1.01):
                tone = sine(hertz, rate)
                for block in blocks_of(tone):
                    HighPass(120, rate=rate).process(block)
                    ratio = rms(block[rate // 2 :]) / rms(tone[rate // 2 :])
                    self.assertTrue(least <= ratio <= most, (rate, hertz, ratio))

    def test_a_block_continues_the_block_before(self) -> None:
        whole, halves = sine(100), sine(100)
        HighPass(120).process(whole)
        high_pass = HighPass(120)
        first, second = halves[:7000], halves[7000:]
        high_pass.process(first)
        high_pass.process(second)
        self.assertEqual(first + second, whole)

    def test_a_newer_filter_takes_over(self) -> None:
        older = HighPass(120)
        newer = HighPass(300)
        with self.assertRaises(ReplacedError):
            older.process(sine(100))
        newer.process(sine(100))

    def test_depop_subtracts_a_share_of_the_sample_before(self) -> None:
        for block in blocks_of(array("f", [1.0, 1.0, 0.5, -0.5])):
            depop(block, 0.5)
            self.assertEqual([float(x) for x in block], [1.0, 0.5, 0.0, -0.75])
        depop(array("f"), 0.5)

    def test_refused_settings(self) -> None:
        for cutoff, q in (0, 1), (8000, 1), (math.nan, 1), (100, 0), (100, math.nan), (100, math.inf):
            with self.assertRaises(ValueError, msg=str((cutoff, q))):
                HighPass(cutoff, q)


class Gain(unittest.TestCase):
    def test_the_level_comes_to_the_target(self) -> None:
        for rate in 16000, 48000:
            for amplitude in 0.02, 0.8:
                for block in blocks_of(sine(400, rate, amplitude=amplitude)):
                    GainControl(-20, 100, rate=rate).process(block)
                    self.assertAlmostEqual(20 * math.log10(rms(block[-rate // 10 :])), -20, delta=0.2)

    def test_a_long_block_is_worked_on_in_steps_of_10_ms(self) -> None:
        whole, steps = sine(400, 48000), sine(400, 48000)
        GainControl(rate=48000).process(whole)
        gain = GainControl(rate=48000)
        made = array("f")
        for first in range(0, 48000, 480):
            step = steps[first : first + 480]
            gain.process(step)
            made += step
        self.assertEqual(made, whole)

    def test_a_newer_control_takes_over(self) -> None:
        older = GainControl()
        GainControl()
        with self.assertRaises(ReplacedError):
            older.process(sine(100))

    def test_refused_settings(self) -> None:
        for settings in {"target_db": math.nan}, {"release_ms": -1}, {"release_ms": math.inf}, {"rate": 99}:
            with self.assertRaises(ValueError, msg=str(settings)):
                GainControl(**settings)  # type: ignore[arg-type]


class Blocks(unittest.TestCase):
    def test_only_rows_of_floats_are_worked_on(self) -> None:
        read_only = memoryview(array("f", [0.0])).toreadonly()
        wrong: List[Any] = [array("h", [0]), array("d", [0.0]), [0.0], None, b"abcd", read_only]
        if support.HAS_NUMPY:
            import numpy

            wrong += [numpy.zeros(4), numpy.zeros((2, 2), numpy.float32), numpy.zeros(4, numpy.float32)[::2]]
            wrong += [numpy.zeros(4, ">f4")]
        for block in wrong:
            for use in HighPass(120).process, GainControl().process:
                with self.assertRaises(TypeError, msg=repr(block)):
                    use(block)
            with self.assertRaises(TypeError, msg=repr(block)):
                depop(block, 0.5)

    def test_every_16_bit_sample_survives_the_way_to_floats_and_back(self) -> None:
        samples = array("h", range(-32767, 32768))
        floats = to_float32(samples)
        self.assertEqual((float(floats[0]), float(floats[-1])), (-1.0, 1.0))
        back = to_int16(floats)
        # rounded toward zero: what lies a hair below its number falls to the next
        self.assertLessEqual(max(abs(int(a)) - abs(int(b)) for a, b in zip(samples, back)), 1)
        self.assertTrue(all(abs(int(b)) <= abs(int(a)) for a, b in zip(samples, back)))

    def test_floats_are_limited_and_rounded_toward_zero(self) -> None:
        for block in blocks_of(array("f", [2.0, -2.0, math.inf, -math.inf, math.nan, 0.99999, -0.99999, 0.00003])):
            self.assertEqual([int(x) for x in to_int16(block)], [32767, -32767, 32767, -32767, 0, 32766, -32766, 0])


class Metrics(unittest.TestCase):
    def test_the_metrics_answer_what_the_library_says(self) -> None:
        self.assertEqual(wrapper_audio.snr(), -10.0)
        self.assertEqual(wrapper_audio.clipping_ratio(), 0.0)
        wrapper_audio.freeze_noise_profile()
        wrapper_audio.freeze_noise_profile(False)
        self.assertEqual(wrapper_audio.denoise_statistics(), 0)


if __name__ == "__main__":
    unittest.main()
