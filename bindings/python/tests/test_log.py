"""What the library writes to standard error is overheard, and still goes where it would have gone."""

import unittest

import support

# Prints to C's stderr and looks at the reason. `say` is what another C library would do.
LISTEN = """
    import ctypes, os, sys, threading
    from wrapper_audio._log import listener
    program = ctypes.CDLL(None)
    stderr = ctypes.c_void_p.in_dll(program, "stderr")
    program.fputs.argtypes = [ctypes.c_char_p, ctypes.c_void_p]
    program.fprintf.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_char_p]
    def say(text):
        program.fputs(text.encode(), stderr)
    usual = stderr.value
"""


class Listening(support.ProcessTest):
    def listen(self, program: str) -> str:
        """Standard error of a program that starts with LISTEN."""
        return self.check(LISTEN + program)[1]

    def test_the_last_line_is_heard_and_every_line_is_shown_at_once(self) -> None:
        errors = self.listen(
            """
    with listener.listening():
        say("ALSA lib: something\\n")
        program.fprintf(stderr, b"[audio_wrapper] open failed: %s\\n", b"busy")
        os.write(2, b"written past C\\n")
        assert listener.reason("open") == "[audio_wrapper] open failed: busy"
        assert listener.reason("close", "open") is not None
        assert listener.reason("close") is None
    assert stderr.value == usual
    say("after\\n")
"""
        )
        lines = ["ALSA lib: something", "[audio_wrapper] open failed: busy", "written past C", "after"]
        self.assertEqual(errors.splitlines(), lines)

    def test_a_line_of_an_earlier_call_is_not_heard_again(self) -> None:
        self.listen(
            """
    for _ in range(3):
        with listener.listening():
            assert listener.reason("x") is None
            say("[audio_wrapper] x\\n")
            assert listener.reason("x") == "[audio_wrapper] x"
"""
        )

    def test_another_line_behind_it_hides_the_reason(self) -> None:
        self.listen(
            """
    with listener.listening():
        say("[audio_wrapper] x\\n")
        say("y\\n")
        assert listener.reason("x") is None
"""
        )

    def test_half_a_line_is_shown_at_the_end_of_the_call(self) -> None:
        errors = self.listen(
            """
    with listener.listening():
        say("half")
    os.write(2, b"|")
    with listener.listening():
        say("another")
        with listener.listening():
            pass
    os.write(2, b"|")
"""
        )
        self.assertEqual(errors, "half|another|")

    def test_the_stream_comes_back_when_the_last_of_several_calls_is_over(self) -> None:
        self.listen(
            """
    with listener.listening():
        with listener.listening():
            assert stderr.value != usual
        assert stderr.value != usual
    assert stderr.value == usual
    try:
        with listener.listening():
            raise ValueError
    except ValueError:
        pass
    assert stderr.value == usual
"""
        )

    def test_a_crash_takes_no_line_with_it(self) -> None:
        code, _, errors = support.run(LISTEN + '    listener.listening().__enter__(); say("last word\\n"); os.abort()\n')
        self.assertLess(code, 0)
        self.assertEqual(errors, "last word\n")

    def test_a_crash_inside_portaudio_keeps_its_last_word(self) -> None:
        code, _, errors = support.run(
            "import wrapper_audio; wrapper_audio.Recorder()", scripted=True, MICROPHONE_ENDS="abort"
        )
        self.assertLess(code, 0)
        self.assertIn("the microphone's last word\n", errors)

    def test_processes_started_meanwhile_keep_their_standard_error(self) -> None:
        errors = self.listen(
            """
    import subprocess
    with listener.listening():
        child = subprocess.Popen(["sh", "-c", "sleep 0.3; echo late >&2"])
    child.wait()
"""
        )
        self.assertEqual(errors, "late\n")

    def test_a_stream_that_the_host_put_there_is_left_alone(self) -> None:
        self.listen(
            """
    program.fopen.restype = ctypes.c_void_p
    stderr.value = program.fopen(b"/dev/null", b"w")
    theirs = stderr.value
    with listener.listening():
        assert stderr.value == theirs
        say("[audio_wrapper] x\\n")
        assert listener.reason("x") is None
    assert stderr.value == theirs
"""
        )

    def test_a_closed_standard_error_does_no_harm(self) -> None:
        output, _ = self.check(
            """
            import os
            os.close(2)
            import wrapper_audio
            with wrapper_audio.Recorder() as recorder:
                recorder.read()
            try:
                wrapper_audio.Meter("ALSA:default").close()
                print(len(wrapper_audio.devices()))
            finally:
                os.dup2(1, 2)
            """
        )
        self.assertEqual(output.strip(), "2")

    def test_no_line_is_lost_or_torn_when_many_threads_print(self) -> None:
        errors = self.listen(
            """
    def print_lines(name):
        for number in range(2000):
            say(f"{name} {number}\\n")
    threads = [threading.Thread(target=print_lines, args=(name,)) for name in "abcd"]
    for thread in threads:
        thread.start()
    while any(thread.is_alive() for thread in threads):
        with listener.listening():
            pass
"""
        )
        lines = errors.splitlines()
        for name in "abcd":
            mine = [line for line in lines if line.startswith(name)]
            self.assertEqual(mine, [f"{name} {number}" for number in range(2000)])
        self.assertEqual(len(lines), 8000)


if __name__ == "__main__":
    unittest.main()
