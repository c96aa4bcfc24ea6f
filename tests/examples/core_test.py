"""examples/c/core.c: the library without the recorder layer."""

import unittest

from example import FAILED, FINE, SPEECH, ExampleTest, pcm16


class Core(ExampleTest):
    def test_records_denoised_speech(self):
        self.listen_to(SPEECH)
        code, output, errors = self.run_example("core", 6)
        samples = pcm16(output)
        self.assertEqual((code, len(samples)), (FINE, 96000), errors)
        self.assertGreater(max(samples), 3000)
        self.assertLess(sum(s * s for s in samples[88000:]) / 8000, 1000, "the pause at the end is not silent")
        self.assertTrue(errors.endswith("[audio_wrapper] Ресурсы освобождены\n"), errors)

    def test_a_device_that_is_pulled_out_is_a_failure(self):
        self.configure(default=([1000] * 48000, "unplugged_after 10000"))
        code, output, errors = self.run_example("core", 1)
        self.assertEqual((code, len(output)), (FAILED, 6 * 2 * 480))
        self.assertTrue(errors.endswith("\ncore: the microphone stopped delivering\n"), errors)

    def test_without_a_device_it_fails(self):
        self.no_device()
        code, output, errors = self.run_example("core", 1)
        self.assertEqual((code, output), (FAILED, b""))
        self.assertIn("[audio_wrapper] нет устройства ввода", errors)

    def test_what_cannot_be_written_is_a_failure(self):
        self.listen_to(SPEECH)
        with open("/dev/full", "wb") as full:
            code, _, errors = self.run_example("core", 1, stdout=full)
        self.assertEqual(code, FAILED)
        self.assertTrue(errors.endswith("\ncore: cannot write to standard output\n"), errors)

    def test_bad_arguments_are_refused(self):
        for arguments in [], ["0"], ["10001"], ["x"], ["1", "2"]:
            self.assert_refused("core", *arguments)


if __name__ == "__main__":
    unittest.main()
