"""Recorders on a microphone that hears a file."""

import gc
import itertools
import math
import threading
import time
import unittest
import warnings
from array import array
from typing import Any, Callable, List

import support
import wrapper_audio
from wrapper_audio import AudioError, ClosedError, Recorder, to_int16

SPEECH = support.samples_of(support.SPEECH)


def as_recorded(sample: int) -> int:
    """The microphone divides by 32768, the library multiplies by 32767 and rounds toward zero."""
    exact = array("f", [array("f", [sample / 32768])[0] * 32767])[0]
    return int(exact)


class Blocks(unittest.TestCase):
    def test_blocks_are_the_sound_of_the_microphone_in_order(self) -> None:
        with Recorder(rate=48000) as recorder:
            heard: List[int] = []
            for block in recorder.blocks(seconds=0.9):
                self.assertEqual(len(block), 1440)
                heard += [int(sample) for sample in block]
        self.assertEqual(heard, [as_recorded(sample) for sample in SPEECH[:43200]])
        self.assertGreater(max(heard), 1000)

    def test_levels_are_those_of_the_block(self) -> None:
        with Recorder(rate=48000, block_ms=100) as recorder:
            self.assertEqual((recorder.rms, recorder.peak), (0.0, 0.0))
            for first in range(0, 48000, 4800):
                recorder.read()
                block = [sample / 32768 for sample in SPEECH[first : first + 4800]]
                self.assertAlmostEqual(recorder.peak, max(abs(x) for x in block), places=6)
                self.assertAlmostEqual(recorder.rms, math.sqrt(sum(x * x for x in block) / 4800), places=6)

    def test_a_block_is_a_numpy_array_or_an_array(self) -> None:
        with Recorder() as recorder:
            shorts: Any = recorder.read()
        with Recorder(dtype="float32") as recorder_of_floats:
            floats: Any = recorder_of_floats.read()
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
            shorts = recorder.read(100)
        with Recorder(rate=48000, dtype="float32") as recorder_of_floats:
            floats = recorder_of_floats.read(100)
        self.assertEqual([float(x) for x in floats], array("f", [int(x) / 32767 for x in shorts]).tolist())
        self.assertEqual(list(to_int16(floats)), list(shorts))

    def test_a_read_has_the_length_asked_for(self) -> None:
        for rate in 8000, 16000, 44100, 48000, 96000:
            with Recorder(rate=rate) as recorder:
                for ms in 1, 10, 30, 100:
                    self.assertEqual(len(recorder.read(ms)), rate * ms // 1000, (rate, ms))

    def test_a_rate_too_low_for_one_sample_gives_empty_blocks(self) -> None:
        with Recorder(rate=1) as recorder:
            self.assertEqual(len(recorder.read()), 0)

    def test_denoising_quietens_the_pause_and_leaves_the_voice(self) -> None:
        levels = {}
        for denoise in False, True:
            with Recorder(denoise=denoise, block_ms=100) as recorder:
                heard = [(recorder.read(), recorder.rms)[1] for _ in range(60)]
            levels[denoise] = math.sqrt(sum(x * x for x in heard[54:58]) / 4), max(heard)
        self.assertLess(levels[True][0], levels[False][0] / 30)
        self.assertGreater(levels[True][1], levels[False][1] / 2)

    def test_read_into_fills_a_block_of_ones_own_and_writes_nothing_behind(self) -> None:
        block = array("h", [7]) * 3000
        with Recorder(rate=48000) as recorder:
            self.assertEqual(recorder.read_into(block), 1440)
            self.assertEqual(block[:1440].tolist(), [as_recorded(sample) for sample in SPEECH[:1440]])
            self.assertEqual(set(block[1440:]), {7})
            short = array("h", bytes(20))
            self.assertEqual(recorder.read_into(short), 10)  # the rest of the read is lost
            self.assertEqual(short.tolist(), [as_recorded(sample) for sample in SPEECH[1440:1450]])
            self.assertEqual(recorder.read_into(block, 10), 480)
            self.assertEqual(block[0], as_recorded(SPEECH[2880]))

    def test_blocks_of_another_kind_are_refused(self) -> None:
        with Recorder() as recorder:
            for wrong in array("f", [0.0]), array("i", [0]), [0], None, bytes(10), memoryview(bytes(10)).cast("h"):
                with self.assertRaises(TypeError, msg=repr(wrong)):
                    recorder.read_into(wrong)  # type: ignore[arg-type]
            with self.assertRaises(ValueError):
                recorder.read_into(array("h"))
            if support.HAS_NUMPY:
                import numpy

                for every_second in numpy.zeros(20, numpy.int16)[::2], numpy.zeros((2, 5), numpy.int16):
                    with self.assertRaises(TypeError):
                        recorder.read_into(every_second)

    def test_arguments_out_of_range_are_refused_before_the_device_is_touched(self) -> None:
        for wrong in (
            {"rate": 0},
            {"rate": 2**32 + 16000},
            {"block_ms": 0},
            {"block_ms": 101},
            {"block_ms": 25, "denoise": True},
            {"dtype": "int8"},
            {"device": "a\0b"},
        ):
            with self.assertRaises(ValueError, msg=repr(wrong)):
                Recorder(**wrong)  # type: ignore[arg-type]
        with Recorder(denoise=True) as recorder:
            for ms in -1, 0, 15, 101, 2**32 + 30:
                with self.assertRaises(ValueError, msg=str(ms)):
                    recorder.read(ms)
            self.assertEqual(len(recorder.read(20)), 320)
            self.assertEqual((recorder.rate, recorder.block_ms), (16000, 30))

    def test_seconds_are_rounded_up_to_whole_blocks(self) -> None:
        with Recorder() as recorder:
            for seconds, count in (0, 0), (0.03, 1), (0.1 + 0.2, 10), (0.31, 11):
                self.assertEqual(len(list(recorder.blocks(seconds))), count, seconds)


class States(unittest.TestCase):
    def test_an_armed_recorder_takes_the_microphone_when_it_is_opened(self) -> None:
        with Recorder(armed=True) as recorder:
            with self.assertRaisesRegex(AudioError, r"open\(\) takes it"):
                recorder.read()
            recorder.open()
            self.assertEqual(len(recorder.read()), 480)
            recorder.open()  # changes nothing
            self.assertEqual(len(recorder.read()), 480)

    def test_a_released_or_stopped_recorder_goes_on_when_it_is_opened(self) -> None:
        with Recorder() as recorder:
            for pause in recorder.release, recorder.stop, recorder.stop:
                recorder.read()
                pause()
                with self.assertRaisesRegex(AudioError, r"open\(\) takes it"):
                    recorder.read()
                pause()
                recorder.open()
                self.assertEqual(len(recorder.read()), 480)

    def test_a_closed_recorder_says_so(self) -> None:
        recorder = Recorder()
        self.assertFalse(recorder.closed)
        recorder.close()
        recorder.close()
        self.assertTrue(recorder.closed)
        uses: List[Callable[[], Any]] = [recorder.read, recorder.blocks, recorder.__enter__]
        for use in [*uses, recorder.open, recorder.stop, recorder.release]:
            with self.assertRaisesRegex(ClosedError, "^the recorder is closed$"):
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

    def test_a_forgotten_recorder_is_closed_with_a_warning(self) -> None:
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            recorder = Recorder()
            handle = recorder._handle
            del recorder
            gc.collect()
        self.assertEqual([str(each.message) for each in caught], ["a recorder was not closed"])
        self.assertTrue(issubclass(caught[0].category, ResourceWarning))
        self.assertTrue(handle.closed)

    def test_a_closed_recorder_leaves_no_warning(self) -> None:
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            Recorder().close()
            gc.collect()
        self.assertEqual(caught, [])


class Threads(unittest.TestCase):
    def test_closing_from_another_thread_ends_the_iteration(self) -> None:
        with Recorder() as recorder:
            closer = threading.Timer(0.1, recorder.close)
            closer.start()
            count = sum(1 for _ in recorder)
            closer.join()
        self.assertGreater(count, 0)
        self.assertTrue(recorder.closed)

    def test_closing_while_others_read_never_ends_in_a_crash(self) -> None:
        def read(recorder: Recorder[Any]) -> None:
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
                        for block in itertools.islice(recorder, 3):
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
