"""examples/c/filter.c: its output against the same chain written down here, in double precision."""

import math
import os
import random
import unittest

from example import FAILED, FINE, ExampleTest, high_pass, level_out, pcm16


def chain(pcm):
    filtered = list(high_pass([s / 32767 for s in pcm], 120, 48000))
    return list(level_out(filtered, 48000, target=10 ** (-20 / 20), release_ms=100))[::3]


class Filter(ExampleTest):
    def setUp(self):
        super().setUp()
        # Rumble, a tone, noise; a silence; the same, but loud, and no whole number of blocks.
        noise = random.Random(48000)
        sound = [
            3000 * math.sin(at / 900) + 1000 * math.sin(at / 9) + noise.uniform(-200, 200) for at in range(24003)
        ]
        sound += [0.0] * 9600 + [7 * s for s in sound]
        self.sound = [round(s) for s in sound]

    def test_gives_the_chain_sample_by_sample(self):
        code, output, errors = self.run_example("filter", feed=self.sound_file(self.sound).read_bytes())
        samples, expected = pcm16(output), chain(self.sound)
        self.assertEqual((code, len(samples)), (FINE, len(self.sound) // 3), errors)
        self.assertGreater(max(map(abs, expected)), 1, "nothing to limit")
        written = [max(-1, min(1, s)) * 32767 for s in expected]
        self.assertLessEqual(max(abs(s - e) for s, e in zip(samples, written)), 0.6)

    def test_nothing_gives_nothing(self):
        code, output, errors = self.run_example("filter", feed=b"")
        self.assertEqual((code, output), (FINE, b""), errors)

    def test_what_cannot_be_read_is_a_failure(self):
        folder = os.open(self.folder, os.O_RDONLY)
        self.addCleanup(os.close, folder)
        code, output, errors = self.run_example("filter", stdin=folder)
        self.assertEqual((code, output), (FAILED, b""))
        self.assertTrue(errors.endswith("filter: cannot read standard input\n"), errors)

    def test_what_cannot_be_written_is_a_failure(self):
        with open("/dev/full", "wb") as full:
            code, _, errors = self.run_example("filter", feed=self.sound_file(self.sound).read_bytes(), stdout=full)
        self.assertEqual(code, FAILED)
        self.assertTrue(errors.endswith("filter: cannot write to standard output\n"), errors)

    def test_arguments_are_refused(self):
        self.assert_refused("filter", "in.raw")


if __name__ == "__main__":
    unittest.main()
