"""Recorders and meters that fail, wait or are interrupted: each in a process of its own. None writes a byte to standard
error by itself."""

import errno
import signal
import subprocess
import textwrap
import time
import unittest
from typing import Any, Tuple

import support


class SilentTest(support.ProcessTest):
    def output_of(self, program: str, **more: Any) -> str:
        """What a program prints that ends well and leaves standard error empty."""
        output, errors = self.check(program, **more)
        self.assertEqual(errors, "")
        return output

    def scripted(self, program: str, **script: str) -> str:
        return self.output_of(program, scripted=True, **script)


class Failures(SilentTest):
    def test_a_failed_open_tells_why_in_english_with_the_line_of_the_log(self) -> None:
        program = """
            import wrapper_audio
            try:
                wrapper_audio.{}()
            except wrapper_audio.OpenError as error:
                print(error.status.name, error.log_line, str(error).isascii(), sep="|")
                print(error)
                print(error.log_line in wrapper_audio.log_lines())
            """
        for make in "Recorder", "Meter":
            output = self.output_of(program.format(make), ALSA_CONFIG_PATH=self.configure(support.NO_DEVICE))
            self.assertEqual(output.splitlines()[0].split("|")[::2], ["NO_INPUT_DEVICE", "True"])
            self.assertIn("no input device", output)
            output = self.scripted(program.format(make), MICROPHONE_REFUSES="1")
            head, text, logged = output.splitlines()
            line = "[audio_wrapper] open_input_stream ОШИБКА: Device unavailable (rate=48000)"
            self.assertEqual(head, f"DEVICE_REFUSED|{line}|True")
            self.assertIn("Device unavailable", text)
            self.assertEqual(logged, "True")

    def test_why_a_device_refuses_or_fails_is_a_status(self) -> None:
        program = """
            import wrapper_audio
            try:
                with wrapper_audio.Recorder() as recorder:
                    while True:
                        recorder.read()
            except wrapper_audio.AudioError as error:
                print(type(error).__name__, error.status.name)
                print(error)
            """
        for answer, fails_after, expected, advice in (
            (errno.EBUSY, None, "OpenError DEVICE_BUSY", "Close the other program"),
            (errno.EACCES, None, "OpenError DEVICE_FORBIDDEN", "Let this user have it"),
            (errno.ENODEV, None, "OpenError DEVICE_GONE", "Connect it"),
            (errno.ENODEV, "2", "ReadError DEVICE_GONE", "Connect it"),
            (errno.EBUSY, "2", "ReadError DEVICE_FAILED", "Check that it is connected"),
        ):
            script = {"MICROPHONE_ANSWER": str(answer)}
            if fails_after is not None:
                script["MICROPHONE_FAILS_AFTER"] = fails_after
            kind, text = self.scripted(program, **script).splitlines()
            self.assertEqual(kind, expected)
            self.assertIn(advice, text)

    def test_a_recorder_that_could_not_be_opened_can_be_opened_later(self) -> None:
        output = self.scripted(
            """
            import ctypes, wrapper_audio
            recorder = wrapper_audio.Recorder(armed=True)
            try:
                recorder.open()
            except wrapper_audio.OpenError as error:
                print(error.status.name)
            ctypes.CDLL(None).unsetenv(b"MICROPHONE_REFUSES")
            recorder.open()
            print(len(recorder.read()))
            recorder.close()
            """,
            MICROPHONE_REFUSES="1",
        )
        self.assertEqual(output, "DEVICE_REFUSED\n480\n")

    def test_a_device_that_fails_gives_what_it_has_and_then_an_error(self) -> None:
        output = self.scripted(
            """
            import ctypes, wrapper_audio
            with wrapper_audio.Recorder(rate=48000, block_ms=100) as recorder:
                print(len(recorder.read(1000)))
                try:
                    for block in recorder:
                        print(len(block))
                except wrapper_audio.ReadError as error:
                    print(error.status.name, error.log_line, str(error).isascii(), sep="|")
                print(recorder.closed)
                ctypes.CDLL(None).unsetenv(b"MICROPHONE_FAILS_AFTER")
                recorder.stop()
                recorder.open()
                print(len(recorder.read()))
            """,
            MICROPHONE_FAILS_AFTER="2",
        )
        line = "[audio_wrapper] Pa_ReadStream ОШИБКА: Unanticipated host error"
        self.assertEqual(output, f"1000\n1880\nDEVICE_FAILED|{line}|True\nFalse\n4800\n")

    def test_a_device_that_falls_silent_makes_a_read_fail_and_is_left_behind(self) -> None:
        output = self.scripted(
            """
            import time, wrapper_audio
            with wrapper_audio.Recorder(rate=48000, stall_ms=500, block_ms=20) as recorder:
                begin = time.monotonic()
                try:
                    for block in recorder.blocks():
                        print(len(block))
                except wrapper_audio.ReadError as error:
                    print(error.status.name, 0.4 < time.monotonic() - begin < 0.9)
                begin = time.monotonic()
            print(time.monotonic() - begin < 2)
            """,
            MICROPHONE_STALLS_AFTER="1",
        )
        self.assertEqual(output, "960\n480\nNO_DATA True\nTrue\n")

    def test_a_device_that_comes_back_is_recorded_on_if_that_is_wanted(self) -> None:
        output = self.scripted(
            """
            import time, wrapper_audio
            told = []
            with wrapper_audio.Recorder(rate=48000, reconnect=True, stall_ms=100, on_signal=told.append) as recorder:
                print(len(recorder.read(57600)))
                try:
                    recorder.read(timeout=0.3)
                except wrapper_audio.ReadTimeout:
                    print(recorder.signal.name, recorder.dropped < 48000 * 0.4)
                print(len(recorder.read(4800)))
                print(recorder.signal.name, recorder.position - 57600 == recorder.dropped > 48000 * 0.4)
            print(*(signal.name for signal in told))
            """,
            MICROPHONE_PACED="1",
            MICROPHONE_FAILS_AFTER="40",
            MICROPHONE_RETURNS="1",
        )
        self.assertEqual(output, "57600\nLOST True\n4800\nSOUND True\nSOUND LOST SOUND\n")

    def test_the_log_is_kept_instead_of_written(self) -> None:
        output = self.output_of(
            """
            import wrapper_audio
            wrapper_audio.Recorder().close()
            lines = wrapper_audio.log_lines()
            print(sum(line.startswith("[audio_wrapper] ctx_create device='default'") for line in lines))
            print(wrapper_audio.log_lines())
            """
        )
        self.assertEqual(output, "1\n[]\n")

    def test_a_program_without_a_standard_error_records_all_the_same(self) -> None:
        output = self.output_of(
            """
            import os
            os.close(2)
            import wrapper_audio
            with wrapper_audio.Recorder() as recorder:
                print(len(recorder.read()))
            print(len(wrapper_audio.devices()))
            os.dup2(1, 2)
            """
        )
        self.assertEqual(output, "480\n2\n")


class Waiting(SilentTest):
    def test_a_read_waits_as_long_as_it_is_told(self) -> None:
        output = self.scripted(
            """
            import time, wrapper_audio
            with wrapper_audio.Recorder(rate=48000) as recorder:
                recorder.read()
                while recorder.available:
                    recorder.read(recorder.available)
                for timeout in 0.1, 0.5:
                    begin = time.monotonic()
                    count = len(recorder.read(48000, timeout))
                    print(abs(time.monotonic() - begin - timeout) < 0.15, abs(count - 48000 * timeout) <= 4800)
            """,
            MICROPHONE_PACED="1",
        )
        self.assertEqual(output, "True True\n" * 2)

    def test_time_that_runs_out_without_a_sample_is_an_error_and_the_recording_goes_on(self) -> None:
        output = self.scripted(
            """
            import time, wrapper_audio
            with wrapper_audio.Recorder(rate=48000, stall_ms=5000) as recorder:
                print(len(recorder.read(2880)))
                for timeout in 0, 0.35:
                    begin = time.monotonic()
                    try:
                        recorder.read(timeout=timeout)
                    except TimeoutError as error:
                        print(type(error).__name__, error.status.name, 0 <= time.monotonic() - begin - timeout < 0.2)
            """,
            MICROPHONE_STALLS_AFTER="2",
        )
        self.assertEqual(output, "2880\n" + "ReadTimeout TIMEOUT True\n" * 2)

    def test_levels_of_a_read_that_waits_in_slices_are_those_of_the_whole(self) -> None:
        output = self.scripted(
            """
            import math, wrapper_audio
            with wrapper_audio.Recorder(rate=48000, dtype="float32", speech=True) as recorder:
                block = recorder.read(43200)  # 0.9 s
                print(len(block), recorder.position)
                rms = math.sqrt(sum(float(x) ** 2 for x in block) / len(block))
                print(abs(recorder.rms - rms) < 1e-6, abs(recorder.captured_rms - rms) < 1e-6)
                peak = max(abs(float(x)) for x in block)
                print(recorder.peak == peak, recorder.captured_peak == peak)
                print(recorder.speech_probability == max(recorder.speech_probabilities()))
            """,
            MICROPHONE_PACED="1",
        )
        self.assertEqual(output, "43200 0\nTrue True\nTrue True\nTrue\n")

    def test_what_is_read_too_late_is_counted_and_the_position_goes_on(self) -> None:
        output = self.scripted(
            """
            import time, wrapper_audio
            with wrapper_audio.Recorder(rate=48000, buffer_ms=100) as recorder:
                recorder.read()
                time.sleep(0.5)
                count = 1440
                for block in recorder.blocks(seconds=0.3):
                    count += len(block)
                print(recorder.dropped > 4800, recorder.position + len(block) - count == recorder.dropped)
            """,
            MICROPHONE_PACED="1",
        )
        self.assertEqual(output, "True True\n")

    def test_other_python_threads_run_while_a_read_waits(self) -> None:
        # Five reads of 200 ms. A thread that had to wait for each would come to a few ticks between them.
        output = self.scripted(
            """
            import threading, time, wrapper_audio
            ticks, over = [], threading.Event()
            def tick():
                while not over.is_set():
                    ticks.append(time.monotonic())
                    time.sleep(0.001)
            other = threading.Thread(target=tick)
            with wrapper_audio.Recorder(block_ms=200) as recorder:
                other.start()
                begin = time.monotonic()
                for _ in range(5):
                    recorder.read()
                end = time.monotonic()
                over.set()
                other.join()
            print(end - begin, sum(begin < at < end for at in ticks))
            """,
            MICROPHONE_PACED="1",
        )
        lasted, ticks = map(float, output.split())
        self.assertGreater(lasted, 0.8)
        self.assertGreater(ticks, 100)

    def test_a_meter_that_waits_ends_when_another_thread_closes_it(self) -> None:
        output = self.scripted(
            """
            import threading, wrapper_audio
            meter = wrapper_audio.Meter()
            meter.read()
            closer = threading.Timer(0.2, meter.close)
            closer.start()
            try:
                meter.read()
            except wrapper_audio.ClosedError as error:
                print(error)
            closer.join()
            """,
            MICROPHONE_STALLS_AFTER="1",
        )
        self.assertEqual(output, "the Meter is closed; create a new one\n")

    def test_a_waiting_read_ends_when_another_thread_stops_or_closes(self) -> None:
        output = self.scripted(
            """
            import threading, time, wrapper_audio
            for end in wrapper_audio.Recorder.stop, wrapper_audio.Recorder.close:
                recorder = wrapper_audio.Recorder(rate=48000)
                ended = []
                reader = threading.Thread(target=lambda: ended.append((len(recorder.read(480000)), time.monotonic())))
                reader.start()
                time.sleep(0.3)
                begin = time.monotonic()
                end(recorder)
                reader.join()
                [(count, at)] = ended
                print(at - begin < 1, 9600 <= count < 48000)
                recorder.close()
            """,
            MICROPHONE_PACED="1",
        )
        self.assertEqual(output, "True True\n" * 2)


class Interrupts(SilentTest):
    def interrupt(self, program: str, **script: str) -> Tuple[str, float]:
        """Sends Ctrl-C soon after the program is ready; returns what it says then, and how long that took."""
        process = subprocess.Popen(
            support.python("-c", textwrap.dedent(program)),
            env=support.environment(scripted=True, **script),
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )
        with process:
            assert process.stdout is not None
            self.assertEqual(process.stdout.readline(), "ready\n")
            time.sleep(0.1)
            begin = time.monotonic()
            process.send_signal(signal.SIGINT)
            output = process.stdout.readline()
            lasted = time.monotonic() - begin
            assert process.stderr is not None
            # Not communicate(), which does not see what came along with the line and is still in the buffer.
            more, errors = process.stdout.read(), process.stderr.read()
        self.assertEqual((process.returncode, errors), (0, ""))
        return output + more, lasted

    def test_ctrl_c_ends_a_read_that_waits(self) -> None:
        for script in {"MICROPHONE_PACED": "1"}, {"MICROPHONE_STALLS_AFTER": "1"}:
            output, lasted = self.interrupt(
                """
                import wrapper_audio
                try:
                    with wrapper_audio.Recorder(rate=48000, stall_ms=60000) as recorder:
                        recorder.read()
                        print("ready", flush=True)
                        try:
                            recorder.read(4800000)
                        finally:
                            print("interrupted", flush=True)
                except KeyboardInterrupt:
                    print(recorder.closed)
                """,
                **script,
            )
            self.assertEqual(output, "interrupted\nTrue\n")
            self.assertLess(lasted, 0.5)  # 0.2 s, and what a busy machine adds

    def test_an_interrupt_at_any_moment_leaves_nothing_open(self) -> None:
        # Alarms strike at moments all over the opening, reading and closing, and raise KeyboardInterrupt there.
        output, errors = self.check(
            """
            import gc, signal, random, wrapper_audio
            signal.signal(signal.SIGALRM, signal.default_int_handler)
            random.seed(1)
            struck = 0
            for _ in range(200):
                try:
                    signal.setitimer(signal.ITIMER_REAL, random.uniform(0.0001, 0.02))
                    with wrapper_audio.Recorder(rate=48000) as recorder:
                        recorder.read()
                    signal.setitimer(signal.ITIMER_REAL, 0)
                except KeyboardInterrupt:
                    struck += 1
                signal.setitimer(signal.ITIMER_REAL, 0)
                recorder = None
                gc.collect()
                lines = wrapper_audio.log_lines()
                opened = sum(line.startswith("[audio_wrapper] open: ") for line in lines)
                freed = sum("Ресурсы освобождены" in line for line in lines)
                assert opened <= freed, lines
            print(struck)
            """
        )
        self.assertGreater(int(output), 50, errors)
        self.assertNotIn("[audio_wrapper]", errors)


class Ends(SilentTest):
    def test_the_end_of_the_program_closes_what_was_forgotten(self) -> None:
        _, errors = self.check(
            """
            import warnings, wrapper_audio
            warnings.simplefilter("always")
            recorder = wrapper_audio.Recorder()
            meter = wrapper_audio.Meter()
            """
        )
        self.assertEqual(errors.count("ResourceWarning: a recorder was not closed"), 2)

    def test_a_warning_that_is_an_error_does_not_keep_the_device(self) -> None:
        output, _ = self.check(
            """
            import gc, warnings, wrapper_audio
            warnings.simplefilter("error")
            recorder = wrapper_audio.Recorder()
            del recorder
            gc.collect()
            print(any("Ресурсы освобождены" in line for line in wrapper_audio.log_lines()))
            """
        )
        self.assertEqual(output, "True\n")

    def test_the_program_ends_although_the_device_hangs(self) -> None:
        self.check(
            """
            import threading, time, wrapper_audio
            recorder = wrapper_audio.Recorder()
            threading.Thread(target=recorder.read, daemon=True).start()
            time.sleep(0.3)
            """,
            scripted=True,
            MICROPHONE_STALLS_AFTER="0",
        )

    def test_a_forked_child_leaves_the_devices_to_its_parent(self) -> None:
        output = self.output_of(
            """
            import os, sys, warnings, wrapper_audio
            recorder = wrapper_audio.Recorder()
            warnings.simplefilter("ignore", DeprecationWarning)  # of forking beside threads, from Python 3.12 on
            child = os.fork()
            if child == 0:
                print(recorder.closed, flush=True)
                sys.exit(0)
            print(os.waitpid(child, 0)[1])
            print(len(recorder.read()))
            recorder.close()
            """
        )
        self.assertEqual(output, "True\n0\n480\n")


if __name__ == "__main__":
    unittest.main()
