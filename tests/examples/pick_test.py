"""examples/c/pick.c: what it lists, asks and remembers."""

import unittest

from example import FAILED, FINE, USAGE, ExampleTest, heard

SECONDS = 3 * 48000


class Pick(ExampleTest):
    def setUp(self):
        super().setUp()
        self.configure(**{
            r"a \"b\" \\c": ([1000] * SECONDS, ""),
            "микрофон": ([2000] * SECONDS, ""),
            "default": ([4000] * SECONDS, ""),
        })
        self.list = '  1  ALSA: a "b" \\c\n  2  ALSA: микрофон\n  3  ALSA: default  (default)\n'
        self.memory = self.folder / "choice"

    def pick(self, answer):
        code, output, errors = self.run_example("pick", "choice", feed=answer)
        return code, output.decode(), errors

    def test_lists_asks_and_shows_the_level_of_the_one_picked(self):
        for number, device, peak in (b"1", 'a "b" \\c', 1000), (b"2", "микрофон", 2000), (b"3", "default", 4000):
            with self.subTest(device=device):
                code, output, _ = self.pick(number + b"\n")
                level = f"Three seconds of {device}: peak {heard(peak) / 32767:.3f}\n"
                self.assertEqual((code, output), (FINE, self.list + "Which one, 1 to 3? " + level))
                self.assertEqual(self.memory.read_text(), f"ALSA:{device}")
                self.memory.unlink()

    def test_a_remembered_device_is_taken_without_a_question(self):
        self.memory.write_text("ALSA:микрофон")
        code, output, errors = self.pick(b"")
        self.assertEqual((code, output), (FINE, self.list + "Three seconds of микрофон: peak 0.061\n"))
        self.assertEqual(errors, "")

    def test_a_device_that_is_gone_is_asked_for_again(self):
        self.memory.write_text("ALSA:gone")
        code, output, _ = self.pick(b"3\n")
        asked = "The device that you chose is no longer available.\nWhich one, 1 to 3? "
        self.assertEqual((code, output), (FINE, self.list + asked + "Three seconds of default: peak 0.122\n"))
        self.assertEqual(self.memory.read_text(), "ALSA:default")

    def test_what_is_no_number_of_the_list_is_refused(self):
        for answer in b"0\n", b"4\n", b"-1\n", b"kitchen\n", b"\n", b"":
            with self.subTest(answer=answer):
                code, _, errors = self.pick(answer)
                self.assertEqual((code, errors), (USAGE, "pick: no such number\n"))
                self.assertFalse(self.memory.exists())

    def test_the_choice_holds_where_it_cannot_be_kept(self):
        code, output, errors = self.run_example("pick", "/dev/full", feed=b"2\n")
        self.assertEqual((code, errors), (FINE, "pick: cannot write /dev/full; the choice applies to this run only\n"))
        self.assertTrue(output.decode().endswith("Three seconds of микрофон: peak 0.061\n"))

    def test_only_devices_that_can_capture_are_listed(self):
        file = self.sound_file([1000] * SECONDS)
        self.configuration.write_text(
            'pcm.speaker { type asym playback.pcm { type null } }\n'
            + self.configuration.read_text().split("\n")[0]
            + f'\npcm.default {{ type test_microphone file "{file}" rate 48000 }}\n'
        )
        code, output, _ = self.pick(b"1\n")
        self.assertEqual(code, FINE)
        self.assertTrue(output.startswith("  1  ALSA: default  (default)\nWhich one, 1 to 1? "), output)

    def test_a_name_from_outside_does_not_reach_the_terminal_as_it_is(self):
        self.configure(**{"\x1b]0;gone\x07": ([3000] * SECONDS, ""), "default": ([4000] * SECONDS, "")})
        code, output, errors = self.pick(b"1\n")
        self.assertEqual((code, errors), (FINE, ""))
        self.assertNotRegex(output, r"[\x00-\x09\x0b-\x1f]")
        self.assertTrue(output.endswith(": peak 0.092\n"), output)
        self.assertEqual(self.memory.read_bytes(), b"ALSA:\x1b]0;gone\x07")
        code, output, _ = self.pick(b"")
        self.assertNotIn("Which one", output)
        self.assertTrue(output.endswith(": peak 0.092\n"), output)

    def test_a_device_that_dies_is_a_failure(self):
        self.configure(default=([1000] * SECONDS, "unplugged_after 10000"))
        code, output, errors = self.pick(b"1\n")
        self.assertEqual(code, FAILED)
        self.assertNotIn("Three seconds", output)
        self.assertRegex(errors, r"\Apick: the device failed while it was recording: ALSA:default failed: .+\n\Z")

    def test_without_a_device_it_says_so(self):
        self.no_device()
        code, output, errors = self.pick(b"1\n")
        self.assertEqual((code, output, errors), (FAILED, "", "pick: no device can record\n"))

    def test_bad_arguments_are_refused(self):
        self.assert_refused("pick")
        self.assert_refused("pick", "one", "two")


if __name__ == "__main__":
    unittest.main()
