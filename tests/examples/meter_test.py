"""examples/c/meter.c: the bar of sounds whose level is known."""

import os
import pty
import signal
import subprocess
import unittest

from example import FAILED, FINE, ExampleTest

READING = 1440  # samples of 30 ms at 48000 Hz


def square(level, readings=1):
    return [level, -level] * (READING // 2 * readings)


class Meter(ExampleTest):
    def test_shows_the_level_of_each_30_ms(self):
        self.configure(default=(square(16384) + square(1036) + square(32767)[:-1] + [-32768] + [0] * READING, ""))
        code, output, _ = self.run_example("meter", "-s", 1)
        lines = output.decode().split("\n")
        self.assertEqual(code, FINE)
        self.assertEqual(
            lines[:4],
            [
                "[===========================|   ] RMS  -6.0 peak  -6.0 dBFS",
                "[===============|               ] RMS -30.0 peak -30.0 dBFS",
                "[==============================|] RMS  -0.0 peak   0.0 dBFS CLIPPED",
                "[|                              ] RMS -60.0 peak -60.0 dBFS",
            ],
        )
        self.assertEqual(lines[4:], lines[3:4] * 30 + [""], "a second is 34 readings")

    def test_the_peak_stands_beside_the_bar(self):
        self.configure(default=(([16384] + [0] * 15) * (READING // 16), ""))
        _, output, _ = self.run_example("meter", "-s", 1)
        self.assertEqual(output.decode().split("\n")[0], "[=====================      |   ] RMS -18.1 peak  -6.0 dBFS")

    def test_the_device_that_is_named_is_measured(self):
        self.configure(kitchen=(square(1036), ""), default=(square(16384), ""))
        _, output, _ = self.run_example("meter", "-d", "ALSA:kitchen", "-s", 1)
        self.assertIn("RMS -30.0 ", output.decode().split("\n")[0])

    def test_ctrl_c_ends_it_well(self):
        self.configure(default=(square(16384), ""))
        process = self.start("meter", bufsize=0)
        process.stdout.read(1)
        process.send_signal(signal.SIGINT)
        output, errors = process.communicate(timeout=30)
        self.assertEqual((process.returncode, errors), (FINE, b""))
        self.assertTrue(output.endswith(b"dBFS\n"))

    def test_a_terminal_has_one_line_redrawn(self):
        self.configure(default=(square(16384), ""))
        ours, theirs = pty.openpty()
        self.addCleanup(os.close, ours)
        process = self.start("meter", "-s", 1, stdout=theirs, stderr=subprocess.DEVNULL)
        os.close(theirs)
        drawn = b""
        try:
            while part := os.read(ours, 65536):
                drawn += part
        except OSError:  # the other end is closed
            pass
        self.assertEqual(process.wait(timeout=30), FINE)
        self.assertEqual((drawn.count(b"\033[K\r"), drawn.count(b"\n")), (34, 1))

    def test_a_device_that_is_pulled_out_is_given_up(self):
        self.configure(default=(square(16384, 20), "unplugged_after 10000"))
        code, output, errors = self.run_example("meter")
        self.assertEqual((code, output.count(b"\n")), (FAILED, 6))
        self.assertRegex(errors, r"\Ameter: the device failed while it was recording\nmeter: ALSA:default failed: .+\n\Z")

    def test_without_a_device_it_fails(self):
        self.no_device()
        code, output, errors = self.run_example("meter")
        self.assertEqual((code, output), (FAILED, b""))
        self.assertEqual(errors, "meter: there is no input device\n" * 2)

    def test_a_device_that_there_is_not_is_refused(self):
        self.configure(default=(square(16384), ""))
        code, output, errors = self.run_example("meter", "-d", "ALSA:kitchen")
        self.assertEqual((code, output), (FAILED, b""))
        self.assertIn("'ALSA:kitchen'", errors)
        self.assertIn("\n  ALSA:default\n", errors)

    def test_bad_arguments_are_refused(self):
        for arguments in ["extra"], ["-s", "0"], ["-s", "10001"], ["-s", "x"]:
            self.assert_refused("meter", *arguments)


if __name__ == "__main__":
    unittest.main()
