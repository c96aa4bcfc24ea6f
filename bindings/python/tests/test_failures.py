"""Recorders and meters that fail, block or are interrupted: each in a process of its own."""

import signal
import subprocess
import textwrap
import unittest

import support


class Failures(support.ProcessTest):
    def test_the_reason_of_a_failed_open_is_the_text_of_the_error(self) -> None:
        for make, start in ("Recorder", "[audio_wrapper] "), ("Meter", "[audio_wrapper] meter_open: "):
            program = f"""
                import wrapper_audio
                try:
                    wrapper_audio.{make}()
                except wrapper_audio.OpenError as error:
                    print(error)
                """
            nothing = self.configure(support.NO_DEVICE)
            output, errors = self.check(program, ALSA_CONFIG_PATH=nothing)
            self.assertTrue(output.startswith(start + "нет устройства ввода"), output)
            self.assertIn(output, errors)  # and the line was shown as well
            output, errors = self.check(program, scripted=True, MICROPHONE_REFUSES="1")
            self.assertTrue(output.startswith(start + "open_input_stream ОШИБКА: Device unavailable"), output)
            self.assertIn(output, errors)

    def test_a_recorder_that_could_not_be_opened_can_be_opened_later(self) -> None:
        output, _ = self.check(
            """
            import os, ctypes, wrapper_audio
            recorder = wrapper_audio.Recorder(armed=True)
            try:
                recorder.open()
            except wrapper_audio.OpenError as error:
                print(error)
            ctypes.CDLL(None).unsetenv(b"MICROPHONE_REFUSES")
            recorder.open()
            print(len(recorder.read()))
            recorder.close()
            """,
            scripted=True,
            MICROPHONE_REFUSES="1",
        )
        self.assertEqual(
            output, "[audio_wrapper] open_input_stream ОШИБКА: Device unavailable (rate=48000)\n480\n"
        )

    def test_a_stopped_stream_is_released_before_the_next_one_opens(self) -> None:
        # the library would lose it
        _, errors = self.check(
            """
            import wrapper_audio
            with wrapper_audio.Recorder() as recorder:
                recorder.stop()
                recorder.open()
                recorder.open()
            """
        )
        lines = [line for line in errors.splitlines() if line.startswith("[audio_wrapper]")]
        starts = ["ctx_create", "init", "Запись остановлена", "release_stream", "open", "open", "Ресурсы освобождены"]
        self.assertEqual(len(lines), len(starts), lines)
        for line, start in zip(lines, starts):
            self.assertTrue(line.startswith("[audio_wrapper] " + start), (line, start))

    def test_the_reason_of_a_failed_read_is_the_text_of_the_error(self) -> None:
        output, errors = self.check(
            """
            import wrapper_audio
            with wrapper_audio.Recorder() as recorder:
                try:
                    for block in recorder:
                        print(len(block))
                except wrapper_audio.ReadError as error:
                    print(error)
                print(recorder.closed)
            """,
            scripted=True,
            MICROPHONE_FAILS_AFTER="2",
        )
        line = "[audio_wrapper] Pa_ReadStream ОШИБКА: Unanticipated host error"
        self.assertEqual(output, f"480\n480\n{line}\nFalse\n")
        self.assertIn(line + "\n", errors)

    def test_a_meter_that_fails_again_and_again_stays_usable(self) -> None:
        output, _ = self.check(
            """
            import wrapper_audio
            with wrapper_audio.Meter() as meter:
                meter.read()
                for _ in range(2):
                    try:
                        meter.read()
                    except wrapper_audio.ReadError as error:
                        print(error)
            """,
            scripted=True,
            MICROPHONE_FAILS_AFTER="1",
        )
        first, second = output.splitlines()
        self.assertTrue(first.startswith("[audio_wrapper] meter_read Pa_ReadStream ОШИБКА: Unanticipated host error"))
        self.assertEqual(second, "the device failed (-1), as it did before")

    def test_an_unknown_device_is_reported_and_the_default_taken(self) -> None:
        _, errors = self.check("import wrapper_audio; wrapper_audio.Recorder('ALSA:nowhere').close()")
        self.assertIn("[audio_wrapper] WARN device_id 'ALSA:nowhere'", errors)


class Blocking(support.ProcessTest):
    def test_other_python_threads_run_while_a_read_blocks(self) -> None:
        # Ten reads of 100 and 30 ms in turn. A thread that had to wait for each would come to a few ticks between them.
        output, _ = self.check(
            """
            import threading, time, wrapper_audio
            ticks, over = [], threading.Event()
            def tick():
                while not over.is_set():
                    ticks.append(time.monotonic())
                    time.sleep(0.001)
            other = threading.Thread(target=tick)
            with wrapper_audio.Recorder(block_ms=100) as recorder, wrapper_audio.Meter() as meter:
                other.start()
                begin = time.monotonic()
                for _ in range(5):
                    recorder.read()
                    meter.read()
                end = time.monotonic()
                over.set()
                other.join()
            print(end - begin, sum(begin < at < end for at in ticks))
            """,
            scripted=True,
            MICROPHONE_PACED="1",
        )
        lasted, ticks = map(float, output.split())
        self.assertGreater(lasted, 0.6)
        self.assertGreater(ticks, 60)

    def interrupt(self, program: str, **script: str) -> str:
        """Sends Ctrl-C when the program says that it is ready; returns what it says then."""
        process = subprocess.Popen(
            support.python("-c", textwrap.dedent(program)),
            env=support.environment(scripted=True, **script),
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )
        with process:
            assert process.stdout is not None and process.stderr is not None
            self.assertEqual(process.stdout.readline(), "ready\n")
            process.send_signal(signal.SIGINT)
            output, errors = process.communicate(timeout=20)
        self.assertEqual(process.returncode, 0, errors)
        self.assertEqual(errors.count("release"), 0)
        self.assertEqual(errors.count("Ресурсы освобождены"), errors.count("ctx_create"), errors)
        return output

    def test_ctrl_c_during_a_read_closes(self) -> None:
        output = self.interrupt(
            """
            import wrapper_audio
            try:
                with wrapper_audio.Recorder() as recorder:
                    recorder.read()
                    print("ready", flush=True)
                    for block in recorder:
                        pass
            except KeyboardInterrupt:
                print(recorder.closed)
            """,
            MICROPHONE_PACED="1",
        )
        self.assertEqual(output, "True\n")

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
                    signal.setitimer(signal.ITIMER_REAL, random.uniform(0.0001, 0.006))
                    with wrapper_audio.Recorder(rate=48000) as recorder:
                        recorder.read()
                    signal.setitimer(signal.ITIMER_REAL, 0)
                except KeyboardInterrupt:
                    struck += 1
                recorder = None
                gc.collect()
            signal.setitimer(signal.ITIMER_REAL, 0)
            print(struck)
            """,
            JACK_NO_START_SERVER="1",
        )
        self.assertGreater(int(output), 50)
        self.assertGreater(errors.count("ctx_create"), 50)
        self.assertEqual(errors.count("Ресурсы освобождены"), errors.count("init: поток открыт"))

    def test_close_waits_for_the_read_of_another_thread(self) -> None:
        output, _ = self.check(
            """
            import threading, time, wrapper_audio
            recorder = wrapper_audio.Recorder(block_ms=100)
            ended = []
            reader = threading.Thread(target=lambda: (list(recorder), ended.append(time.monotonic())))
            reader.start()
            time.sleep(0.25)
            begin = time.monotonic()
            recorder.close()
            print(time.monotonic() - begin)
            reader.join()
            """,
            scripted=True,
            MICROPHONE_PACED="1",
        )
        self.assertLess(float(output), 0.5)  # one read, however eager the reader is, and what a busy machine adds

    def test_the_end_of_the_program_closes_what_was_forgotten(self) -> None:
        _, errors = self.check(
            """
            import warnings, wrapper_audio
            warnings.simplefilter("always")
            recorder = wrapper_audio.Recorder()
            meter = wrapper_audio.Meter()
            """
        )
        self.assertIn("ResourceWarning: a recorder was not closed", errors)
        self.assertIn("ResourceWarning: a meter was not closed", errors)
        self.assertIn("Ресурсы освобождены", errors)
        self.assertIn("[audio_wrapper] meter_close", errors)

    def test_a_warning_that_is_an_error_does_not_keep_the_device(self) -> None:
        _, errors = self.check(
            """
            import gc, warnings, wrapper_audio
            warnings.simplefilter("error")
            recorder = wrapper_audio.Recorder()
            del recorder
            gc.collect()
            """
        )
        self.assertIn("Ресурсы освобождены", errors)

    def test_the_program_ends_although_a_thread_is_blocked_for_ever(self) -> None:
        _, errors = self.check(
            """
            import threading, time, wrapper_audio
            recorder = wrapper_audio.Recorder()
            threading.Thread(target=recorder.read, daemon=True).start()
            time.sleep(0.3)
            """,
            scripted=True,
            MICROPHONE_STALLS_AFTER="0",
        )
        self.assertNotIn("Ресурсы освобождены", errors)  # nothing may be freed under a read

    def test_a_forked_child_leaves_the_devices_to_its_parent(self) -> None:
        output, errors = self.check(
            """
            import os, sys, wrapper_audio
            recorder = wrapper_audio.Recorder()
            child = os.fork()
            if child == 0:
                sys.exit(0)
            os.waitpid(child, 0)
            print(len(recorder.read()))
            recorder.close()
            """
        )
        self.assertEqual(output, "480\n")
        self.assertEqual(errors.count("Ресурсы освобождены"), 1)


if __name__ == "__main__":
    unittest.main()
