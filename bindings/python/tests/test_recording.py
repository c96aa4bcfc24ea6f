"""Recorders on a microphone that hears a file."""

import gc
import math
import threading
import time
import unittest
import warnings
from array import array
from typing import Any, Callable, List

import support
import wrapper_audio
from wrapper_audio import AudioError, ClosedError, Denoising, Recorder, Status, to_int16

SPEECH = support.samples_of(support.SPEECH)


def as_recorded(sample: int) -> int:
    """The microphone divides by 32768, the capture multiplies by 32767 and rounds toward zero."""
    exact = array("f", [array("f", [sample / 32768])[0] * 32767])[0]
    return int(exact)


def joined(blocks: Any) -> List[float]:
    return [float(sample) for block in blocks for sample in block]


class Blocks(support.ProcessTest):
    def test_blocks_are_the_sound_of_the_microphone_in_order(self) -> None:
        with Recorder(rate=48000) as recorder:
            heard: List[int] = []
            for block in recorder.blocks(seconds=0.9):
                self.assertEqual((len(block), recorder.position), (1440, len(heard)))
                heard += [int(sample) for sample in block]
            self.assertEqual((recorder.device_rate, recorder.denoising), (48000, Denoising.OFF))
        self.assertEqual(heard, [as_recorded(sample) for sample in SPEECH[:43200]])
        self.assertGreater(max(heard), 1000)

    def test_a_dead_microphone_is_told_apart(self) -> None:
        program = """
            import wrapper_audio
            for make in wrapper_audio.Recorder, wrapper_audio.Meter:
                with make() as heard:
                    print(heard.signal.name)
                    for _ in range(82):
                        heard.read()  # 30 ms
                    print(heard.signal.name)
                    for _ in range(2):
                        heard.read()
                    print(heard.signal.name)
            """
        for name, samples, expected in (
            ("zeros", [0], ["UNKNOWN", "UNKNOWN", "ZEROS"]),
            ("hiss", [33, -33], ["UNKNOWN", "UNKNOWN", "HISS"]),
            ("sound", [34, -34], ["UNKNOWN", "SOUND", "SOUND"]),
            ("clipping", [32767, -32768], ["UNKNOWN", "SOUND", "CLIPPING"]),
        ):
            raw = support.sound(name, samples * (48000 * 10 // len(samples)))
            configuration = support.file_microphone(raw, raw.with_suffix(""))
            output, _ = self.check(program, ALSA_CONFIG_PATH=str(configuration))
            self.assertEqual(output.split(), expected * 2)

    def test_a_read_returns_as_many_samples_as_are_wanted(self) -> None:
        with Recorder(rate=48000) as recorder:
            heard: List[int] = []
            for count in 1, 1439, 0, 7, 30000, 2:
                block = recorder.read(count)
                self.assertEqual(len(block), count)
                heard += [int(sample) for sample in block]
        self.assertEqual(heard, [as_recorded(sample) for sample in SPEECH[: len(heard)]])

    def test_levels_are_those_of_the_block(self) -> None:
        with Recorder(rate=48000, block_ms=100) as recorder:
            self.assertEqual((recorder.rms, recorder.peak, recorder.speech_probability), (0.0, 0.0, None))
            for first in range(0, 48000, 4800):
                recorder.read()
                block = [as_recorded(sample) / 32767 for sample in SPEECH[first : first + 4800]]
                peak, rms = max(abs(x) for x in block), math.sqrt(sum(x * x for x in block) / 4800)
                for level in recorder.peak, recorder.captured_peak:
                    self.assertAlmostEqual(level, peak, places=6)
                for level in recorder.rms, recorder.captured_rms:
                    self.assertAlmostEqual(level, rms, places=6)
                self.assertEqual(recorder.clipped, 0)

    def test_clipped_samples_of_the_device_are_counted(self) -> None:
        loud = support.sound("loud", [0] * 480 + [-32768, 0] * 50 + [0] * 48000)
        output, _ = self.check(
            """
            import wrapper_audio
            with wrapper_audio.Recorder() as recorder:
                print(sum(recorder.clipped for block in recorder.blocks(seconds=0.3)), recorder.captured_peak)
            """,
            ALSA_CONFIG_PATH=str(support.file_microphone(loud, loud.with_suffix(""))),
        )
        self.assertEqual(output, "50 0.0\n")

    def test_a_block_is_a_numpy_array_or_an_array(self) -> None:
        with Recorder() as recorder:
            shorts = recorder.read()
        with Recorder(dtype="float32") as recorder:
            floats = recorder.read()
        for block, code in (shorts, "h"), (floats, "f"):
            self.assertEqual(len(block), 480)
            self.assertEqual(memoryview(block).format, code)
            if support.HAS_NUMPY:
                import numpy

                self.assertIsInstance(block, numpy.ndarray)
            else:
                self.assertIsInstance(block, array)

    def test_float_blocks_are_the_16_bit_ones_at_full_scale_1(self) -> None:
        with Recorder(rate=48000) as recorder:
            shorts = recorder.read(4800)
        with Recorder(rate=48000, dtype="float32") as recorder:
            floats = recorder.read(4800)
        self.assertEqual(joined([floats]), array("f", [int(x) / 32767 for x in shorts]).tolist())
        self.assertEqual(list(to_int16(floats)), list(shorts))

    def test_a_block_has_the_length_asked_for_at_every_rate(self) -> None:
        for rate in 100, 8000, 16000, 44100, 48000, 96000:
            for converter in "clean", "linear":
                with Recorder(rate=rate, block_ms=100, converter=converter) as recorder:
                    self.assertEqual(len(recorder.read()), rate // 10, (rate, converter))
                    self.assertEqual((recorder.rate, recorder.block_ms), (rate, 100))

    def test_seconds_are_kept_to_the_sample(self) -> None:
        with Recorder() as recorder:
            for seconds, lengths in (0, []), (0.03, [480]), (0.1 + 0.2, [480] * 10), (0.31, [480] * 10 + [160]):
                self.assertEqual([len(block) for block in recorder.blocks(seconds)], lengths, seconds)

    def test_conversion_keeps_a_tone_where_it_is(self) -> None:
        with Recorder(rate=16000) as converted, Recorder(rate=48000) as original:
            low, high = converted.read(32000), original.read(96000)
        for first in range(0, 30000, 3000):  # the noise above 8000 Hz is gone, so that it is a little quieter
            here = math.sqrt(sum(float(x) ** 2 for x in low[first : first + 3000]) / 3000)
            there = math.sqrt(sum(float(x) ** 2 for x in high[3 * first : 3 * first + 9000]) / 9000)
            self.assertTrue(0.6 * there < here < 1.01 * there, (first, here, there))

    def test_read_into_fills_a_block_of_ones_own_and_writes_nothing_behind(self) -> None:
        block = array("h", [7]) * 3000
        with Recorder(rate=48000) as recorder:
            self.assertEqual(recorder.read_into(memoryview(block)[:1440]), 1440)  # type: ignore[arg-type]
            self.assertEqual(block[:1440].tolist(), [as_recorded(sample) for sample in SPEECH[:1440]])
            self.assertEqual(set(block[1440:]), {7})
            floats = array("f", bytes(40))
            self.assertEqual(recorder.read_into(floats), 10)
            self.assertEqual(floats, array("f", [as_recorded(sample) / 32767 for sample in SPEECH[1440:1450]]))

    def test_blocks_of_another_kind_are_refused(self) -> None:
        with Recorder() as recorder:
            for wrong in array("d", [0.0]), array("i", [0]), [0], None, bytes(10), memoryview(bytes(10)).cast("h"):
                with self.assertRaises(TypeError, msg=repr(wrong)):
                    recorder.read_into(wrong)  # type: ignore[arg-type]
            if support.HAS_NUMPY:
                import numpy

                for gaps in numpy.zeros(20, numpy.int16)[::2], numpy.zeros((2, 5), numpy.int16), numpy.zeros(4, ">i2"):
                    with self.assertRaises(TypeError):
                        recorder.read_into(gaps)

    def test_arguments_out_of_range_are_refused_before_the_device_is_touched(self) -> None:
        for wrong in (
            {"rate": 0},
            {"rate": 99},
            {"rate": 2**32 + 16000},
            {"block_ms": 0},
            {"denoise": 1.01},
            {"denoise": -0.1},
            {"denoise": math.nan},
            {"buffer_ms": 0},
            {"buffer_ms": 99},
            {"stall_ms": 60001},
            {"converter": "cubic"},
            {"dtype": "int8"},
            {"device": "a\0b"},
        ):
            with self.assertRaises(ValueError, msg=repr(wrong)) as caught:
                Recorder(**wrong)  # type: ignore[arg-type]
            self.assertIsInstance(caught.exception, AudioError)
        with self.assertRaisesRegex(ValueError, "rate=99, denoise=0.5,"):
            Recorder(rate=99, denoise=0.5)
        with Recorder() as recorder:
            with self.assertRaises(ValueError):
                recorder.read(-1)
            for timeout in -1, math.nan:
                with self.assertRaises(ValueError):
                    recorder.read(timeout=timeout)


class Denoising_(support.ProcessTest):
    def test_denoising_quietens_the_pause_and_leaves_the_voice_whatever_the_device(self) -> None:
        program = """
            import math, wrapper_audio
            with wrapper_audio.Recorder(denoise={denoise}, block_ms=100) as recorder:
                heard = [recorder.rms for _ in recorder.blocks(seconds=6)]
                print(math.sqrt(sum(x * x for x in heard[54:58]) / 4), max(heard), recorder.denoising.name)
            """
        for rate, how in (48000, "NATIVE"), (44100, "CONVERTED"), (16000, "CONVERTED"):
            levels = []
            for denoise in False, True, 0.5:
                output, _ = self.check(program.format(denoise=denoise), ALSA_CONFIG_PATH=self.speech_at(rate))
                pause, voice, denoising = output.split()
                self.assertEqual(denoising, how if denoise else "OFF")
                levels.append((float(pause), float(voice)))
            (loud, said), (quiet, clear), (half, _) = levels
            self.assertGreater(20 * math.log10(loud / quiet), 30, rate)
            self.assertGreater(clear, said / 2, rate)
            self.assertAlmostEqual(half / loud, 0.5, delta=0.05)

    def test_one_capture_comes_denoised_and_undenoised(self) -> None:
        with Recorder(rate=44100, denoise=True, dtype="float32") as one, Recorder(
            rate=44100, speech=True, dtype="float32"
        ) as other:
            denoised, raw = (one.read(44100).tolist(), other.read(44100).tolist())
        for dtype in "float32", "int16":
            with Recorder(rate=44100, denoise=True, undenoised=True, dtype=dtype) as recorder:
                first = recorder.read_both(10)
                recorder.read(90)
                rest = recorder.read_both(44000, timeout=20)
                self.assertEqual(recorder.position, 100)
                self.assertEqual([len(block) for block in first + rest], [10, 10, 44000, 44000])
                self.assertEqual([len(block) for block in recorder.read_both(0)], [0, 0])
                self.assertEqual(len(recorder.read_both()[1]), 1323)
            for sound, *blocks in (denoised, first[0], rest[0]), (raw, first[1], rest[1]):
                expected = sound[:10] + sound[100:]
                if dtype == "int16":
                    expected = to_int16(array("f", expected)).tolist()
                self.assertEqual(joined(blocks), expected)

    def test_undenoised_sound_has_to_be_asked_for_with_denoise(self) -> None:
        with self.assertRaisesRegex(ValueError, "undenoised=True needs denoise"):
            Recorder(undenoised=True)
        with Recorder(denoise=True) as recorder, self.assertRaisesRegex(ValueError, "with undenoised=True"):
            recorder.read_both()

    def test_speech_is_told_where_it_is(self) -> None:
        for options in {"denoise": True}, {"speech": True}:
            with Recorder(block_ms=100, **options) as recorder:  # type: ignore[arg-type]
                loudest = []
                for _ in recorder.blocks(seconds=6):
                    assert recorder.speech_probability is not None
                    loudest.append(recorder.speech_probability)
                every = recorder.speech_probabilities()
                self.assertEqual(recorder.speech_probabilities(), [])
            self.assertEqual(len(every), 600)
            self.assertEqual([max(every[i : i + 10]) for i in range(0, 600, 10)], loudest)
            self.assertGreater(max(loudest), 0.9)
            self.assertLess(min(loudest[54:58]), 0.3)
        with Recorder() as recorder:
            recorder.read()
            self.assertEqual((recorder.speech_probability, recorder.speech_probabilities()), (None, []))


class States(unittest.TestCase):
    def test_an_armed_recorder_takes_the_microphone_when_it_is_opened(self) -> None:
        with Recorder(armed=True) as recorder:
            self.assertEqual((recorder.device, recorder.device_rate, recorder.first_sample_time), ("", 0, None))
            with self.assertRaises(AudioError) as caught:
                recorder.read()
            self.assertIs(caught.exception.status, Status.INVALID_STATE)
            recorder.stop()  # nothing to stop
            before = time.monotonic_ns()
            recorder.open()
            self.assertEqual(len(recorder.read()), 480)
            assert recorder.first_sample_time is not None
            self.assertLess(abs(recorder.first_sample_time - before), 2e9)
            with self.assertRaises(wrapper_audio.OpenError):
                recorder.open()
            self.assertEqual(len(recorder.read()), 480)

    def test_what_was_recorded_before_a_stop_is_still_read_and_then_comes_nothing(self) -> None:
        with Recorder(rate=48000) as recorder:
            heard = recorder.read(1000)
            recorder.stop()
            recorder.stop()
            rest = joined(recorder)
            self.assertGreater(len(rest), 0)
            self.assertEqual(joined([heard]) + rest, [as_recorded(x) for x in SPEECH[: 1000 + len(rest)]])
            self.assertEqual((len(recorder.read()), recorder.available), (0, 0))
            self.assertEqual(list(recorder), [])
            recorder.open()
            self.assertEqual(len(recorder.read()), 1440)
            self.assertEqual(recorder.position, 0)

    def test_a_closed_recorder_says_so(self) -> None:
        recorder = Recorder()
        self.assertFalse(recorder.closed)
        recorder.close()
        recorder.close()
        self.assertTrue(recorder.closed)
        uses: List[Callable[[], Any]] = [recorder.read, recorder.blocks, recorder.__enter__, recorder.open]
        uses += [recorder.stop, recorder.speech_probabilities, lambda: recorder.dropped]
        for use in uses:
            with self.assertRaisesRegex(ClosedError, "^the Recorder is closed; create a new one$"):
                use()
        with self.assertRaises(ClosedError):
            iter(recorder)
        with self.assertRaises(ValueError):  # as of a closed file
            recorder.read_into(array("h", bytes(20)))

    def test_several_recorders_live_side_by_side(self) -> None:
        with Recorder() as one, Recorder(rate=8000) as other:
            self.assertEqual((len(one.read()), len(other.read())), (480, 240))

    def test_an_exception_in_the_block_closes(self) -> None:
        with self.assertRaises(KeyError):
            with Recorder() as recorder:
                raise KeyError
        self.assertTrue(recorder.closed)

    def test_a_forgotten_recorder_is_freed_with_a_warning_and_a_closed_one_without(self) -> None:
        for forgotten in True, False:
            with warnings.catch_warnings(record=True) as caught:
                warnings.simplefilter("always")
                recorder = Recorder()
                freed: List[Any] = []
                assert recorder._handle is not None
                free, recorder._handle.free = recorder._handle.free, lambda handle: freed.append(free(handle))
                if not forgotten:
                    recorder.close()
                    self.assertEqual(freed, [None])
                del recorder
                gc.collect()
            warned = [str(each.message).startswith("a recorder was not closed; ") for each in caught]
            self.assertEqual(warned, [True] * forgotten)
            self.assertTrue(all(issubclass(each.category, ResourceWarning) for each in caught))
            self.assertEqual(freed, [None])


class Threads(unittest.TestCase):
    def test_closing_or_stopping_from_another_thread_ends_the_iteration(self) -> None:
        for end in Recorder.close, Recorder.stop:
            with Recorder() as recorder:
                ender = threading.Timer(0.1, end, [recorder])
                ender.start()
                count = sum(1 for _ in recorder)
                ender.join()
            self.assertGreater(count, 0)

    def test_closing_while_others_read_never_ends_in_a_crash(self) -> None:
        def read(recorder: Recorder) -> None:
            try:
                for _ in recorder:
                    pass
            except ClosedError:
                pass  # it came too late even to begin

        for _ in range(20):
            recorder = Recorder(denoise=True)
            readers = [threading.Thread(target=read, args=(recorder,)) for _ in range(3)]
            for reader in readers:
                reader.start()
            time.sleep(0.005)
            closers = [threading.Thread(target=recorder.close) for _ in range(2)]
            for closer in closers:
                closer.start()
            for thread in readers + closers:
                thread.join(10)
                self.assertFalse(thread.is_alive())

    def test_many_threads_open_and_close_at_once(self) -> None:
        failures: List[BaseException] = []

        def use() -> None:
            try:
                for _ in range(10):
                    with Recorder() as recorder:
                        for block in recorder.blocks(seconds=0.09):
                            if len(block) != 480:
                                raise AssertionError(len(block))
            except BaseException as error:
                failures.append(error)

        threads = [threading.Thread(target=use) for _ in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(failures, [])


if __name__ == "__main__":
    unittest.main()
