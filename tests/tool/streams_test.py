"""`wrapper-audio record` and `process`: formats, pipes, effects and the conversion of rates, sample by sample."""

import itertools
import math
import os
import pathlib
import random
import re
import struct
import subprocess
import time
import unittest
import wave

from host import (
    CLIPPING,
    FILE_TROUBLE,
    FINE,
    HISS,
    HOST,
    INPUT_BREAKS_OFF,
    SPEECH,
    USAGE,
    ZEROS,
    HostTest,
    decibels,
    rms,
)

EFFECTS = ["--depop", "0.3", "--highpass", "100:0.8", "--agc", "-35:300"]


def heard(samples):
    """What the library makes of 16-bit samples of a device at the same rate: rounded toward zero."""
    return [s - (s > 0) + (s < 0) for s in samples]


class StreamTest(HostTest):
    def write_wav(self, name, rate, *channels):
        path = self.folder / name
        with wave.open(str(path), "wb") as wav:
            wav.setparams((len(channels), 2, rate, 0, "NONE", ""))
            wav.writeframes(struct.pack(f"<{len(channels) * len(channels[0])}h", *itertools.chain.from_iterable(zip(*channels))))
        return path

    def read_raw(self, path):
        data = path.read_bytes()
        self.assertEqual(len(data) % 2, 0)
        return list(struct.unpack(f"<{len(data) // 2}h", data))

    def process(self, source, *arguments, says=""):
        """The samples that come out of `process`."""
        out = self.folder / "processed.raw"
        code, output, errors = self.host("process", source, out, *arguments)
        self.assertEqual((code, errors), (FINE, says))
        self.assertRegex(output, r"\Abefore .*\nafter .*\n\Z")
        return self.read_raw(out)


def tone(hertz, rate, seconds, amplitude):
    return [round(amplitude * math.sin(2 * math.pi * hertz * i / rate)) for i in range(int(rate * seconds))]


class Formats(StreamTest):
    def setUp(self):
        super().setUp()
        generator = random.Random(1)
        self.sound = [generator.randint(-32768, 32767) for _ in range(48000)]
        self.listen_to_samples(self.sound)

    def test_wav_flac_raw_and_pipe_hold_the_same_samples_bit_for_bit(self):
        for name in "out.wav", "OUT.FLAC", "out.raw", "out.pcm", "out":
            with self.subTest(name=name):
                path = self.folder / name
                code, output, errors = self.record("--rate", 48000, "--seconds", 1, path)
                self.assertEqual((code, errors), (FINE, ""))
                self.assertIn("1.00 s at 48000 Hz, peak 0.0 dBFS", output)
                samples = self.read_raw(path) if path.suffix in (".raw", ".pcm") else self.process(path)
                self.assertEqual(samples, heard(self.sound))
        code, output, errors = self.record("--rate", 48000, "--seconds", 1, "-", text=False)
        self.assertEqual((code, list(struct.unpack("<48000h", output))), (FINE, heard(self.sound)))
        self.assertRegex(errors, rb"\Awrapper-audio: standard output: 1\.00 s at 48000 Hz, .*\n\Z")

    def test_other_extensions_and_terminals_are_refused(self):
        self.assert_failed(self.record("--seconds", 1, "out.aac"), USAGE, r"\.wav, \.flac, \.opus, .* or \.raw")
        code, shown = self.in_terminal("record", "--seconds", 1, "-")
        self.assertEqual(code, USAGE)
        self.assertRegex(shown, "not written to a terminal")

    def test_a_closed_pipe_ends_the_recording_quietly(self):
        process = self.start("record", "-", text=False)
        self.assertEqual(len(process.stdout.read(1000)), 1000)
        process.stdout.close()
        self.assertEqual((process.wait(timeout=20), process.stderr.read()), (FINE, b""))

    def test_full_disks_are_reported(self):
        for name in "full.raw", "full.flac":
            with self.subTest(name=name):
                (self.folder / name).symlink_to("/dev/full")
                code, _, errors = self.record("--seconds", 2, self.folder / name)
                self.assertEqual(code, FILE_TROUBLE)
                self.assertRegex(errors, rf"\Awrapper-audio: cannot write .*{name}: \S.*\n\Z")
        with open("/dev/full", "w") as full:
            code, _, errors = self.record("--seconds", 1, "-", stdout=full)
            self.assertEqual(code, FILE_TROUBLE)
            self.assertRegex(errors, "cannot write standard output: No space left")
            self.assertEqual(self.host("devices", stdout=full)[0], FILE_TROUBLE)
            self.assertEqual(self.host("meter", "--seconds", 1, stdout=full)[0], FILE_TROUBLE)
            self.assertEqual(self.host("--help", stdout=full)[0], FILE_TROUBLE)

    def test_a_killed_flac_and_raw_file_keep_what_was_heard(self):
        for name, least in ("out.flac", 8000), ("out.raw", 8000):
            with self.subTest(name=name):
                path = self.folder / name
                process = self.start("record", path, microphone={"MICROPHONE_PACED": "1"})
                self.wait_for(lambda: path.exists() and path.stat().st_size > 2 * least, process)
                process.kill()
                process.wait()
                samples = self.read_raw(path) if name.endswith("raw") else self.process(path)
                self.assertGreaterEqual(len(samples), least)

    def test_quiet_says_nothing_and_verbose_everything(self):
        self.assertEqual(self.record("-q", "--seconds", 1, self.file), (FINE, "", ""))
        code, _, errors = self.record("-v", "--seconds", 1, self.file)
        self.assertEqual(code, FINE)
        self.assertRegex(errors, r"(?m)^\[audio_wrapper\] ctx_create ")
        self.assertRegex(errors, r"(?mi)^[^\[].*jack")

    def test_a_dead_input_is_reported_once_after_two_and_a_half_seconds(self):
        for samples, said in (
            ([0], ZEROS),
            ([33, -33], HISS),  # 32 of 32767 when the core has cut what is behind the point
            ([34, -34], ""),
            ([0] * 99 + [32767], CLIPPING),
            ([0] * 101 + [-32768], ""),
        ):
            with self.subTest(said=said):
                self.listen_to_samples(samples * (48000 * 10 // len(samples)))
                said = said and f"wrapper-audio: {said}\n"
                self.assertEqual(self.record("--seconds", 2.4, self.file)[2], "")
                self.assertEqual(self.record("--seconds", 2.5, self.file)[2], said)
                self.assertEqual(self.record("--seconds", 9, self.file)[2], said)
                self.assertEqual(self.record("--seconds", 9, "--quiet", self.file)[2], "")

    def test_each_way_to_be_dead_is_reported(self):
        second = 48000
        self.listen_to_samples([9000] * second + [0] * 3 * second + [9000] * second + [5] * 3 * second + [0] * 3 * second)
        said = [f"wrapper-audio: {each}" for each in (ZEROS, HISS)]
        self.assertEqual(self.record("--seconds", 11, self.file)[2].splitlines(), said)

    def test_a_denoised_recording_of_a_quiet_room_is_not_called_silent(self):
        generator = random.Random(6)
        self.listen_to_samples([generator.randint(-40, 40) for _ in range(48000)] * 4)
        code, _, errors = self.record("--denoise", "--seconds", 4, self.file)
        self.assertEqual((code, errors), (FINE, "wrapper-audio: denoising at 48000 Hz, the device's own rate\n"))

    def test_samples_that_a_slow_reader_loses_are_told(self):
        ramp = [at % 30000 for at in range(48000 * 20)]
        self.listen_to_samples(ramp)
        process = self.start(
            "record", "--rate", 48000, "--seconds", 8, "--quiet", "-", text=False, microphone={"MICROPHONE_PACED": "1"}
        )
        time.sleep(8)  # the pipe holds less than a second, the recorder five
        output, errors = process.communicate(timeout=30)
        self.assertEqual((process.returncode, len(output)), (FINE, 8 * 48000 * 2))
        told = re.fullmatch(
            rb"wrapper-audio: (\S+) s of sound \((\d+) samples\) were lost at ([\d:., ]+)( and .*)?: .* too slow\n", errors
        )
        self.assertIsNotNone(told, errors)
        self.assertAlmostEqual(float(told[1]), int(told[2]) / 48000, delta=0.0051)
        samples = struct.unpack(f"<{8 * 48000}h", output)
        self.assertAlmostEqual((len(samples) - 1 + int(told[2])) % 30000, samples[-1], delta=1)
        jumps = [at for at in range(1, len(samples)) if (samples[at] - samples[at - 1]) % 30000 > 2]
        self.assertEqual([f"0:{at // 4800 / 10:04.1f}" for at in jumps][:3], told[3].decode().split(", "))


class Effects(StreamTest):
    def test_a_recording_with_effects_is_the_plain_recording_processed(self):
        self.listen_to(SPEECH)
        plain, filtered = self.folder / "plain.wav", self.folder / "filtered.raw"
        for rate in 16000, 44100:
            for voice in [], ["--denoise=0.3", "--quiet"], ["--converter", "linear"]:
                with self.subTest(rate=rate, voice=voice):
                    self.record("--rate", rate, "--seconds", 3, *voice, plain)
                    expected = self.process(plain, *EFFECTS)
                    code, _, errors = self.record("--rate", rate, "--seconds", 3, *voice, *EFFECTS, filtered)
                    self.assertEqual((code, errors), (FINE, ""))
                    samples = self.read_raw(filtered)
                    self.assertEqual(len(samples), 3 * rate)
                    # The plain recording is rounded to 16 bits, which the gain control of up to 10 makes audible.
                    self.assertLessEqual(max(abs(s - e) for s, e in zip(samples, expected)), 11)

    def test_depop_subtracts_a_share_of_the_sample_before_without_seams(self):
        generator = random.Random(2)
        sound = [generator.randint(-12000, 12000) for _ in range(150000)]
        out = self.process(self.write_wav("in.wav", 16000, sound), "--depop", 0.7)
        expected = [x - 0.7 * y for x, y in zip(sound, [0] + sound)]
        self.assertEqual(len(out), len(expected))
        self.assertLessEqual(max(abs(o - e) for o, e in zip(out, expected)), 0.51)

    def test_the_corner_of_the_high_pass_lies_where_it_is_wanted_at_any_rate(self):
        for rate in 8000, 16000, 48000:
            for hertz, decibel in (300, -3.0), (75, -24.1), (3000, 0.0):
                out = self.process(self.write_wav("in.wav", rate, tone(hertz, rate, 1, 20000)), "--highpass", 300)
                settled = out[rate // 2 :]
                self.assertAlmostEqual(decibels(rms(settled) * 32767 / 20000 * math.sqrt(2)), decibel, delta=0.15)

    def test_the_gain_control_reaches_its_level_in_its_time_at_any_rate(self):
        for rate in 8000, 11025, 48000:
            quiet = self.write_wav("in.wav", rate, tone(440, rate, 3, 32767 * 10 ** (-30 / 20)))
            out = self.process(quiet, "--agc", "-20:200")
            self.assertAlmostEqual(decibels(rms(out[-rate:])), -20, delta=0.1)
            # The gain goes from 1 to 4.47; after the time constant 63 % of the way lie behind it.
            at = rate // 5
            gain = rms(out[at - rate // 50 : at + rate // 50]) / (10 ** (-30 / 20) / math.sqrt(2))
            self.assertAlmostEqual(gain, 1 + (1 - math.exp(-1)) * 3.47, delta=0.25)

    def test_absurd_effects_are_refused(self):
        self.listen_to(SPEECH)
        for arguments in (
            ["--highpass", "0"],
            ["--highpass", "8000"],
            ["--highpass", "100:0"],
            ["--highpass", "nan"],
            ["--highpass", "low"],
            ["--agc", "3"],
            ["--agc", "-20:-1"],
            ["--agc", "-20:"],
            ["--agc", "inf"],
            ["--depop", "1.5"],
            ["--depop", "-0.1"],
        ):
            with self.subTest(arguments=arguments):
                self.assert_failed(self.record(*arguments, "--seconds", 1, self.file), USAGE, arguments[0])
                self.assertFalse(self.file.exists())


class Process(StreamTest):
    def test_without_an_effect_nothing_changes(self):
        generator = random.Random(3)
        sound = [generator.randint(-32768, 32767) for _ in range(70000)]
        for rate in 22050, 48000, 1, 1000000:
            self.assertEqual(self.process(self.write_wav("in.wav", rate, sound)), sound)

    def test_a_third_of_the_rate_is_the_mean_of_three_samples_when_converted_linearly(self):
        generator = random.Random(4)
        sound = [generator.randint(-32768, 32767) for _ in range(200001)]
        out = self.process(self.write_wav("in.wav", 48000, sound), "--rate", 16000, "--converter", "linear")
        means = [sum(sound[at : at + 3]) / 3 for at in range(0, len(sound), 3)]
        self.assertEqual(len(out), len(means))
        self.assertLessEqual(max(abs(o - m) for o, m in zip(out, means)), 0.51)

    def test_other_ratios_interpolate_across_the_whole_file_when_converted_linearly(self):
        generator = random.Random(5)
        sound = [generator.randint(-20000, 20000) for _ in range(150000)]
        for rate, wanted in (44100, 16000), (16000, 44100), (44100, 47999), (8000, 384000):
            with self.subTest(rate=rate, wanted=wanted):
                some = sound if wanted <= 48000 else sound[:20000]
                source = self.write_wav("in.wav", rate, some)
                out = self.process(source, "--rate", wanted, "--converter", "linear")
                self.assertEqual(len(out), self.length(len(some), rate, wanted))
                for i in range(0, len(out), 7):
                    left, over = divmod(i * rate, wanted)
                    right = some[min(left + 1, len(some) - 1)]
                    expected = some[left] + (right - some[left]) * over / wanted
                    self.assertLessEqual(abs(out[i] - expected), 0.51, i)

    @staticmethod
    def length(count, rate, wanted):
        return (2 * count * wanted + rate) // (2 * rate)  # rounded to the nearest

    def test_a_clean_conversion_keeps_what_fits_in_its_time_and_nothing_else(self):
        for rate, wanted in (48000, 16000), (44100, 16000), (16000, 44100), (48000, 44100):
            for hertz, stays in (1000, True), (0.7 * min(rate, wanted) / 2, True), (0.55 * wanted, False):
                if 2 * hertz >= rate:
                    continue
                with self.subTest(rate=rate, wanted=wanted, hertz=hertz):
                    out = self.process(self.write_wav("in.wav", rate, tone(hertz, rate, 1, 20000)), "--rate", wanted)
                    expected = tone(hertz, wanted, 1, 20000 if stays else 0)
                    self.assertEqual(len(out), wanted)
                    apart = [abs(o - e) for o, e in zip(out, expected)]
                    self.assertLessEqual(max(apart[wanted // 10 : -wanted // 10]), 3)

    def test_lengths_are_those_of_the_input_to_the_nearest_sample(self):
        for count in 1, 2, 3, 479, 480, 481, 44101:
            for rate, wanted in (48000, 16000), (44100, 16000), (16000, 44100), (11025, 48000), (44100, 100):
                for voice in [], ["--denoise"], ["--converter", "linear"]:
                    source = self.write_wav("in.wav", rate, tone(440, rate, 1, 9000)[:1] * count)
                    out = self.process(source, "--rate", wanted, *voice)
                    self.assertEqual(len(out), self.length(count, rate, wanted), (count, rate, wanted, voice))

    def test_denoising_a_file_is_like_denoising_a_recording(self):
        self.listen_to(SPEECH)
        plain, denoised = self.folder / "plain.wav", self.folder / "denoised.raw"
        self.record("--rate", 48000, "--seconds", 6, plain)
        self.record("--rate", 48000, "--seconds", 6, "--denoise=0.9", denoised)
        out = self.process(plain, "--denoise", "--strength", 0.9)
        expected = self.read_raw(denoised)
        self.assertEqual(len(out), len(expected))
        self.assertLessEqual(rms([o - e for o, e in zip(out, expected)]), 2 / 32767)
        self.assertEqual(self.process(plain, "--denoise=0", says="wrapper-audio: nothing is denoised\n"), self.process(plain))

    def test_a_voice_is_denoised_at_any_rate_and_stays_in_its_time(self):
        source = self.write_wav("speech.wav", 48000, struct.unpack("<288000h", SPEECH.read_bytes()))
        for rate in 16000, 44100:
            with self.subTest(rate=rate):
                at_rate = self.folder / "at_rate.wav"
                self.host("process", source, at_rate, "--rate", rate)
                before, after = self.process(at_rate), self.process(at_rate, "--denoise")
                voice, noise = slice(rate, 5 * rate), slice(5 * rate + rate // 2, None)
                self.assertAlmostEqual(decibels(rms(after[voice])), decibels(rms(before[voice])), delta=2)
                self.assertLess(decibels(rms(after[noise])), decibels(rms(before[noise])) - 20)

                def likeness(shift):
                    return sum(b * a for b, a in zip(before[voice], after[rate + shift : 5 * rate + shift]))

                shifts = range(-40, 41, 4)
                self.assertEqual(max(shifts, key=likeness), 0)

    def test_a_conversion_to_a_much_higher_rate_takes_little_memory(self):
        out = self.folder / "long.raw"
        source = self.write_wav("in.wav", 100, [1000] * 10000)
        host = subprocess.Popen([HOST, "process", source, out, "--rate", "384000"], stdout=subprocess.DEVNULL)
        _, status, used = os.wait4(host.pid, 0)
        host.returncode = os.waitstatus_to_exitcode(status)
        self.assertEqual(host.returncode, FINE)
        self.assertEqual(out.stat().st_size, 100 * 384000 * 2)
        self.assertLess(used.ru_maxrss, 200 * 1024)

    def test_channels_are_mixed_and_it_is_said(self):
        left, right = [1000, -2000, 30000], [3000, -4000, 30000]
        out = self.folder / "mono.raw"
        code, _, errors = self.host("process", self.write_wav("in.wav", 16000, left, right), out)
        self.assertEqual((code, self.read_raw(out)), (FINE, [2000, -3000, 30000]))
        self.assertEqual(errors, "wrapper-audio: 2 channels were mixed to one\n")

    def test_levels_before_and_after_are_told_and_clipping_too(self):
        source = self.write_wav("in.wav", 16000, [23170, -23170] * 8000)
        code, output, errors = self.host("process", source, self.file, "--depop", "1")
        self.assertEqual(code, FINE)
        self.assertRegex(output, r"before  1\.00 s at 16000 Hz, peak -3\.0 dBFS, RMS -3\.0 dBFS: .*in\.wav\n")
        self.assertRegex(output, r"after   1\.00 s at 16000 Hz, peak 3\.0 dBFS, RMS 3\.0 dBFS: .*out\.wav\n")
        self.assertRegex(errors, r"cut at full scale: its peak would be at 3\.0 dBFS")

    def test_the_gain_control_does_not_clip_speech(self):
        speech = self.write_wav("in.wav", 48000, struct.unpack("<288000h", SPEECH.read_bytes()))
        code, output, errors = self.host("process", speech, self.file, "--agc", "-12")
        self.assertEqual((code, errors), (FINE, ""))
        self.assertRegex(output, r"after   6\.00 s at 48000 Hz, peak -1\.0 dBFS")
        with wave.open(str(self.file)) as wav:
            samples = struct.unpack("<288000h", wav.readframes(288000))
        self.assertEqual(max(map(abs, samples)), math.floor(32768 * 10 ** (-1 / 20) + 0.5))

    def test_numbers_that_are_none_count_as_silence(self):
        header = struct.pack("<4sI4s4sIHHIIHH4sI", b"RIFF", 52, b"WAVE", b"fmt ", 16, 3, 1, 8000, 32000, 4, 32, b"data", 16)
        (self.folder / "odd.wav").write_bytes(header + struct.pack("<4f", 0.5, math.nan, math.inf, -0.25))
        out = self.folder / "out.raw"
        code, _, errors = self.host("process", "odd.wav", out)
        self.assertEqual((code, self.read_raw(out)), (FINE, [16384, 0, 0, -8192]))
        self.assertRegex(errors, "2 samples of odd.wav were no numbers")

    def test_an_empty_recording_stays_empty(self):
        self.assertEqual(self.process(self.write_wav("in.wav", 16000, []), *EFFECTS, "--rate", 8000), [])

    def test_bad_input_is_reported(self):
        (self.folder / "empty.wav").touch()
        (self.folder / "text.wav").write_text("no sound at all\n" * 100)
        good = self.write_wav("good.wav", 16000, tone(500, 16000, 1, 16384))
        (self.folder / "short.wav").write_bytes(good.read_bytes()[:30])
        for name in "empty.wav", "text.wav", "short.wav", "missing.wav", ".":
            with self.subTest(name=name):
                self.assert_failed(self.host("process", name, self.file), FILE_TROUBLE, rf"{name}\b|directory")
                self.assertFalse(self.file.exists())
        slow = self.write_wav("slow.wav", 99, [0] * 10)
        for change in ["--rate", 16000], ["--denoise"], ["--agc", -20]:
            self.assert_failed(self.host("process", slow, self.file, *change), FILE_TROUBLE, r"slow\.wav is at 99 Hz")
        for rate in "0", "-1", "99", "1e9", "fast":
            self.assert_failed(self.host("process", good, self.file, "--rate", rate), USAGE, "--rate")
        self.assert_failed(self.host("process", good, good), USAGE, "same file")
        self.assert_failed(self.host("process", good, self.folder), FILE_TROUBLE, "cannot create")
        self.assert_failed(self.host("process", good, "/dev/full"), FILE_TROUBLE, "cannot write /dev/full")
        self.assert_failed(self.host("process", good), USAGE, "OUT")
        self.assert_failed(self.host("process", good, self.file, "--highpass", 9000), USAGE, "--highpass")

    def test_a_truncated_file_gives_what_it_holds(self):
        sound = tone(500, 16000, 1, 16384)
        path = self.write_wav("in.wav", 16000, sound)
        path.write_bytes(path.read_bytes()[: 44 + 2 * 5000])
        out = self.folder / "short.raw"
        code, _, errors = self.host("process", path, out)
        self.assertEqual((code, self.read_raw(out)), (INPUT_BREAKS_OFF, sound[:5000]))
        self.assertRegex(errors, r"in\.wav breaks off after 0:00\.3: its header promises more\n\Z")

    def test_damage_with_sound_behind_it_is_reported(self):
        seed = pathlib.Path(__file__).parents[2] / "fuzz/seeds/files/found_damage_with_sound_behind_it"
        (self.folder / "damaged.flac").write_bytes(seed.read_bytes()[3:])
        code, _, errors = self.host("process", "damaged.flac", self.file, "--rate", 44100)
        self.assertEqual(code, INPUT_BREAKS_OFF)
        self.assertRegex(errors, r"damaged\.flac breaks off after 0:0")

    def test_into_a_pipe(self):
        sound = tone(500, 16000, 1, 16384)
        code, output, errors = self.host("process", self.write_wav("in.wav", 16000, sound), "-", text=False)
        self.assertEqual((code, list(struct.unpack("<16000h", output))), (FINE, sound))
        self.assertRegex(errors, rb"\Abefore .*\nafter .*\n\Z")

    def test_a_progress_bar_is_drawn_on_a_terminal_when_it_takes_long(self):
        long = self.write_wav("in.wav", 8000, tone(500, 8000, 1, 16384) * 30)
        process, ours = self.start_in_terminal(
            *("process", long, "-", "--rate", 48000, *EFFECTS), columns=70, streams=["stderr"], text=False
        )
        self.assertEqual(len(process.stdout.read(65536)), 65536)
        time.sleep(0.7)  # a reader that takes its time: the pipe is full, and the host waits
        self.assertEqual(len(process.stdout.read()), 2 * 30 * 48000 - 65536)
        shown = self.read_terminal(ours)
        self.assertEqual(process.wait(timeout=10), FINE)
        bars = [line for line in shown.split("\r") if line.startswith("[")]
        self.assertTrue(bars, shown)
        for line in bars:
            self.assertRegex(line, r"\A\[=* *\] +\d+ %  \d+:\d\d\.\d of 0:30\.0 *\n?\Z")
            self.assertLess(len(line.rstrip("\n")), 70)


if __name__ == "__main__":
    unittest.main()
