"""examples/c/process.c: its output against the same chain written down here, in double precision."""

import cmath
import math
import random
import subprocess
import unittest

from example import FAILED, FINE, SPEECH, ExampleTest, high_pass, level_out, pcm16, rms


def chain(pcm, rate):
    filtered = list(high_pass([s / 32767 for s in pcm], 100, rate))
    filtered = [s - 0.3 * before for s, before in zip(filtered, [0] + filtered)]
    return list(level_out(filtered, rate, target=10 ** (-30 / 20), release_ms=200))


class Process(ExampleTest):
    def setUp(self):
        super().setUp()
        # Rumble, a tone, noise; a silence; the same, far too loud.
        noise = random.Random(16000)
        sound = [
            3000 * math.sin(at / 300) + 2000 * math.sin(at / 9) + noise.uniform(-500, 500) + 1000 for at in range(12000)
        ]
        sound += [0.0] * 6000 + [4 * s for s in sound]
        self.sound = [max(-32768, min(32767, round(s))) for s in sound]
        self.file = self.sound_file(self.sound)

    def test_gives_the_chain_sample_by_sample(self):
        for rate in 8000, 44100, 48000:
            with self.subTest(rate=rate):
                code, output, errors = self.run_example("process", rate, rate, self.file)
                samples, expected = pcm16(output), chain(self.sound, rate)
                self.assertEqual((code, len(samples)), (FINE, len(expected)))
                written = [max(-1, min(1, s)) * 32767 for s in expected]
                self.assertLessEqual(max(abs(s - e) for s, e in zip(samples, written)), 0.6)
                before = self.metrics("before", [s / 32767 for s in self.sound])
                self.assertEqual(errors, before + self.metrics("after", expected))

    def test_converts_the_rate_without_delay_and_without_aliases(self):
        def tone(hz, rate):
            return [3000 * math.sin(2 * math.pi * hz * at / rate) for at in range(3 * rate)]

        for in_rate, out_rate in (48000, 16000), (44100, 48000), (16000, 8000):
            for hz in 500, 7000:
                with self.subTest(in_rate=in_rate, out_rate=out_rate, hz=hz):
                    sound = [round(s) for s in tone(hz, in_rate)]
                    code, output, _ = self.run_example("process", in_rate, out_rate, self.sound_file(sound))
                    samples = pcm16(output)
                    self.assertEqual((code, len(samples)), (FINE, 3 * out_rate))
                    last = samples[2 * out_rate :]
                    if hz > out_rate / 2:
                        self.assertLess(rms(last), 20, "an alias")  # though the gain control turns it up tenfold
                        continue
                    self.assertAlmostEqual(20 * math.log10(rms(last) / 32767), -30, delta=0.1)
                    step = 2 * math.pi * hz / out_rate
                    sine, cosine = (
                        sum(s * wave(step * at) for at, s in enumerate(samples[2 * out_rate :], 2 * out_rate))
                        for wave in (math.sin, math.cos)
                    )
                    self.assertAlmostEqual(math.atan2(cosine, sine), self.phase(hz, in_rate), delta=0.01)

    @staticmethod
    def phase(hz, rate):
        """By which the filters before the conversion turn a tone."""
        z = cmath.exp(-2j * math.pi * hz / rate)
        impulse = list(high_pass([1.0] + [0.0] * (rate // 2), 100, rate))
        response = sum(h * z**at for at, h in enumerate(impulse)) * (1 - 0.3 * z)
        return cmath.phase(response)

    def test_denoising_silences_a_pause(self):
        energy = []
        for arguments in (), ("-n",):
            code, output, _ = self.run_example("process", *arguments, 48000, 16000, SPEECH)
            samples = pcm16(output)
            self.assertEqual((code, len(samples)), (FINE, SPEECH.stat().st_size // 6))
            energy.append(rms(samples[92000:]))
        self.assertLess(energy[1], energy[0] / 10)

    @staticmethod
    def metrics(what, samples):
        peak, beyond = max(map(abs, samples)), sum(abs(s) > 1 for s in samples)
        return f"{what}: {len(samples)} samples, RMS {rms(samples):.4f}, peak {peak:.4f}, {beyond} beyond full scale\n"

    def test_what_exceeds_full_scale_is_limited_and_counted(self):
        loud = [0] * 1600 + [100 * (-1) ** (at // 20) for at in range(16000)] + [30000 * (-1) ** (at // 20) for at in range(160)]
        code, output, errors = self.run_example("process", 16000, 16000, self.sound_file(loud))
        samples, expected = pcm16(output), chain(loud, 16000)
        self.assertEqual(code, FINE)
        self.assertGreater(sum(abs(e) > 1 for e in expected), 100)
        self.assertEqual({abs(s) for s, e in zip(samples, expected) if abs(e) > 1}, {32767})
        self.assertIn(self.metrics("after", expected), errors)

    def test_standard_input_is_as_good_as_a_file(self):
        _, from_file, _ = self.run_example("process", 48000, 16000, self.file)
        code, from_input, _ = self.run_example("process", 48000, 16000, feed=self.file.read_bytes())
        self.assertEqual((code, from_input), (FINE, from_file))
        self.assertGreater(len(from_file), 10000)

    def test_what_cannot_be_read_is_a_failure(self):
        for arguments in ["there/is/no/such.raw"], [self.folder]:
            code, output, errors = self.run_example("process", 48000, 16000, *arguments)
            self.assertEqual((code, output), (FAILED, b""))
            self.assertTrue(errors.endswith("process: cannot read the input\n"), errors)

    def test_nothing_gives_nothing(self):
        code, output, errors = self.run_example("process", 48000, 16000, self.sound_file([]))
        self.assertEqual((code, output), (FINE, b""))
        nothing = "0 samples, RMS 0.0000, peak 0.0000, 0 beyond full scale\n"
        self.assertEqual(errors, f"before: {nothing}after: {nothing}")

    def test_what_cannot_be_written_is_a_failure(self):
        with open("/dev/full", "wb") as full:
            code, _, errors = self.run_example("process", 48000, 16000, self.file, stdout=full, stderr=subprocess.PIPE)
        self.assertEqual(code, FAILED)
        self.assertTrue(errors.endswith("\nprocess: cannot write to standard output\n"))

    def test_bad_arguments_are_refused(self):
        for arguments in [], ["48000"], ["7999", "16000"], ["48000", "192001"], ["x", "16000"], ["48000", "16000", "a", "b"]:
            self.assert_refused("process", *arguments)


if __name__ == "__main__":
    unittest.main()
