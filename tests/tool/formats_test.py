"""What `wrapper-audio record` and `process` write: sizes of samples, channels, and formats that compress."""

import math
import random
import re
import resource
import shutil
import struct
import subprocess
import time
import unittest
import wave

from host import FILE_TROUBLE, FINE, INPUT_BREAKS_OFF, SPEECH, USAGE, HostTest, decibels, rms


def tone(hertz, rate, seconds, amplitude):
    return [round(amplitude * math.sin(2 * math.pi * hertz * i / rate)) for i in range(int(rate * seconds))]


class FormatTest(HostTest):
    def wav(self, name, rate, *channels):
        path = self.folder / name
        with wave.open(str(path), "wb") as wav:
            wav.setparams((len(channels), 2, rate, 0, "NONE", ""))
            wav.writeframes(b"".join(struct.pack(f"<{len(frame)}h", *frame) for frame in zip(*channels)))
        return path

    def bytes_of(self, path, *arguments):
        """What `process` makes of a file, as raw samples."""
        code, output, errors = self.host("process", "-q", *arguments, path, "-", text=False)
        self.assertEqual((code, errors), (FINE, b""))
        return output

    def samples_of(self, path, *arguments):
        data = self.bytes_of(path, *arguments)
        return struct.unpack(f"<{len(data) // 2}h", data)

    def process(self, *arguments):
        self.assertEqual(self.host("process", "-q", *arguments), (FINE, "", ""))


class SampleSizes(FormatTest):
    def test_numbers_of_24_bits_and_floats_keep_what_16_bits_lose(self):
        generator = random.Random(24)
        numbers = [generator.randint(-(2**23), 2**23 - 1) for _ in range(20000)]
        packed = b"".join(number.to_bytes(3, "little", signed=True) for number in numbers)
        floats = struct.pack("<20000f", *(number / 2**23 for number in numbers))
        (self.folder / "in.raw").write_bytes(packed)
        (self.folder / "in.pcm").write_bytes(floats)
        for source, size in ("in.raw", "24"), ("in.pcm", "float"):
            raw = ["--raw-rate", 16000, "--raw-bits", size]
            for name in "out.wav", "out.flac":
                self.process(*raw, "--bits", 24, source, name)
                self.assertEqual(self.bytes_of(name, "--bits", 24), packed, (source, name))
            self.process(*raw, "--bits", "float", source, "out.wav")
            self.assertEqual(self.bytes_of("out.wav", "--bits", "float"), floats)
            shorts = struct.unpack("<20000h", self.bytes_of(source, *raw))
            self.assertEqual(shorts, tuple(min(round(number / 256), 32767) for number in numbers))

    def test_a_wav_file_in_a_pipe_says_what_its_samples_are(self):
        source = self.wav("in.wav", 16000, tone(500, 16000, 1, 9000), tone(700, 16000, 1, 3000))
        for size, format_tag, width in ("16", 1, 2), ("24", 1, 3), ("float", 3, 4):
            piped = self.bytes_of(source, "--channel", "all", "--bits", size, "-t", "wav")
            header = struct.unpack("<HHIIHH", piped[20:36])
            self.assertEqual(header, (format_tag, 2, 16000, 16000 * 2 * width, 2 * width, 8 * width))
            self.assertEqual(len(piped), 44 + 2 * width * 16000)
            self.assertEqual(piped[44:], self.bytes_of(source, "--channel", "all", "--bits", size))

    def test_a_recording_in_24_bits_or_floats_is_finer_than_16_bits_once_it_is_filtered(self):
        self.listen_to(SPEECH)
        for effects, is_finer in ([], False), (["--depop", "0.3"], True):
            self.record("--rate", 48000, "--seconds", 1, *effects, self.file)
            rounded = self.recorded(48000)
            for size in "24", "float":
                self.record("--rate", 48000, "--seconds", 1, *effects, "--bits", size, self.file)
                floats = struct.unpack("<48000f", self.bytes_of(self.file, "--bits", "float"))
                apart = [abs(exact * 32767 - sample) for exact, sample in zip(floats, rounded)]
                # The library captures 16 bits: what nothing has filtered is no finer than that.
                self.assertLess(max(apart), 0.51 if is_finer else 0.005)
                self.assertEqual(max(apart) > 0.45, is_finer)

    def test_floats_have_room_above_full_scale(self):
        source = self.wav("in.wav", 16000, [23170, -23170] * 8000)
        for size, highest, cut in ("float", math.sqrt(2), False), ("24", 1, True):
            code, _, errors = self.host("process", source, self.file, "--depop", 1, "--bits", size)
            self.assertEqual((code, "cut at full scale" in errors), (FINE, cut))
            data = self.bytes_of(self.file, "--bits", "float")
            self.assertAlmostEqual(max(struct.unpack("<16000f", data)), highest, delta=1e-3)

    def test_what_a_format_lacks_is_refused_in_a_sentence(self):
        source = self.wav("in.wav", 16000, [1] * 100)
        for arguments, words in (
            (["--bits", "float", "out.flac"], "FLAC has 16 or 24"),
            (["--bits", "24", "out.opus"], "Opus has no samples of a size"),
            (["--bits", "20", "out.wav"], "--bits"),
            (["--bitrate", "64k", "out.wav"], "only Opus and MP3 have one that can be chosen, not WAV"),
            (["--bitrate", "64k", "out.ogg"], "only Opus and MP3 have one that can be chosen, not Vorbis"),
            (["--quality", "5", "out.opus"], "only Vorbis has one, not Opus"),
            (["--quality", "11", "out.ogg"], "--quality"),
            (["--bitrate", "5k", "out.opus"], "Opus at 16000 Hz has 6000 to 256000 bits"),
            (["--bitrate", "161k", "out.mp3"], "MP3 at 16000 Hz has 8000 to 160000 bits"),
            (["--bitrate", "much", "out.mp3"], "'much' is not a bitrate"),
            (["--rate", "44100", "out.opus"], "Opus has no 44100 Hz: try --rate 48000"),
            (["--rate", "96000", "out.mp3"], "MP3 has no 96000 Hz: try --rate 48000"),
            (["--rate", "384000", "out.ogg"], "Vorbis has no 384000 Hz: try --rate 192000"),
            (["--type", "opus", "-"], "pipe, which cannot take Opus"),
            (["--channel", "0", "out.wav"], "--channel"),
            (["--channel", "both", "out.wav"], "--channel"),
            (["--raw-bits", "24", "out.wav"], "--raw-rate"),
        ):
            with self.subTest(arguments=arguments):
                self.assert_failed(self.host("process", source, *arguments), USAGE, words)
                self.assertFalse((self.folder / arguments[-1]).exists())


class Channels(FormatTest):
    def setUp(self):
        super().setUp()
        self.left, self.right = tone(440, 48000, 1, 12000), tone(700, 48000, 1, 5000)
        self.stereo = self.wav("stereo.wav", 48000, self.left, self.right)

    def apart(self, path, *arguments):
        samples = self.samples_of(path, "--channel", "all", *arguments)
        return list(samples[::2]), list(samples[1::2])

    def test_all_are_kept_one_is_taken_or_they_are_mixed(self):
        for name in "out.wav", "out.flac", "out.raw":
            code, output, errors = self.host("process", "--channel", "all", self.stereo, name)
            self.assertEqual((code, errors), (FINE, ""))
            self.assertEqual(output.count(" 1.00 s at 48000 Hz"), 2)
            raw = ["--raw-rate", 48000, "--raw-channels", 2] if name == "out.raw" else []
            self.assertEqual(self.apart(name, *raw), (self.left, self.right))
        self.assertEqual(list(self.samples_of(self.stereo, "--channel", 2)), self.right)
        mixed = self.samples_of(self.stereo, "--channel", "mix")
        self.assertEqual(mixed, self.samples_of(self.stereo))
        self.assertEqual(list(mixed), [round((left + right) / 2) for left, right in zip(self.left, self.right)])

    def test_each_is_processed_as_if_it_were_alone(self):
        speech = struct.unpack("<144000h", SPEECH.read_bytes()[:288000])
        path = self.wav("speech.wav", 48000, speech, self.left * 3)
        how = ["--denoise", "--highpass", 90, "--agc", -20, "--rate", 44100]
        self.assertEqual(
            self.apart(path, *how), tuple(list(self.samples_of(path, "--channel", number, *how)) for number in (1, 2))
        )


class Compressed(FormatTest):
    BEGINNINGS = {"opus": (b"OggS", b"OpusHead"), "ogg": (b"OggS", b"vorbis"), "mp3": (b"\xff", b"Xing")}

    def test_a_recording_sounds_the_same_afterwards(self):
        self.listen_to(SPEECH)
        self.record("--seconds", 3, self.file)
        plain = self.recorded(16000)
        for kind, (beginning, name) in self.BEGINNINGS.items():
            with self.subTest(kind=kind):
                path = self.folder / f"out.{kind}"
                code, output, errors = self.record("--seconds", 3, path)
                self.assertEqual((code, errors), (FINE, ""))
                self.assertRegex(output, r": 3\.00 s at 16000 Hz, peak ")
                data = path.read_bytes()
                self.assertTrue(data.startswith(beginning) and name in data[:200], data[:200])
                self.assertLess(len(data), 96000 / 2)
                samples = self.samples_of(path)
                self.assertEqual(len(samples), 48000)
                self.assertAlmostEqual(decibels(rms(samples)), decibels(rms(plain)), delta=0.5)
                error = [sample - right for sample, right in zip(samples, plain)]
                self.assertLess(decibels(rms(error)), decibels(rms(plain)) - 6)

    def test_the_bitrate_is_that_which_was_wanted(self):
        self.listen_to(SPEECH)
        self.record("--seconds", 6, "--rate", 48000, self.file)
        stereo = self.folder / "stereo.wav"
        samples = self.recorded(48000)
        self.wav("stereo.wav", 48000, samples, samples[::-1])
        for kind in "opus", "mp3":
            for bitrate in 32000, 64000, 160000:
                for source in self.file, stereo:
                    out = self.folder / f"out.{kind}"
                    self.process("--channel", "all", "--bitrate", bitrate, source, out)
                    self.assertAlmostEqual(out.stat().st_size * 8 / 6 / bitrate, 1, delta=0.2, msg=(kind, bitrate, source))

    def test_vorbis_is_as_good_as_wanted(self):
        self.listen_to(SPEECH)
        self.record("--seconds", 6, self.file)
        sizes = {}
        for quality in [], ["--quality", 0], ["--quality", 4], ["--quality", "7.5"], ["--quality", 10]:
            self.process(*quality, self.file, "out.ogg")
            sizes[" ".join(map(str, quality))] = (self.folder / "out.ogg").stat().st_size
        default, *others = sizes.values()
        self.assertEqual(default, sizes["--quality 4"])
        self.assertEqual(others, sorted(set(others)))

    def test_a_file_at_a_rate_that_the_format_lacks_is_converted_and_it_is_said(self):
        source = self.wav("in.wav", 44100, tone(500, 44100, 1, 12000))
        code, output, errors = self.host("process", source, "out.opus")
        self.assertEqual((code, errors), (FINE, "wrapper-audio: converted to 48000 Hz, as files of this kind cannot have 44100 Hz\n"))
        self.assertRegex(output, r"\nafter +1\.00 s at 48000 Hz")
        self.assertEqual(len(self.samples_of("out.opus")), 48000)

    def test_an_mp3_file_that_breaks_off_is_noticed_by_the_length_in_it(self):
        source = self.wav("in.wav", 16000, tone(500, 16000, 5, 12000))
        self.process(source, "out.mp3")
        whole = (self.folder / "out.mp3").read_bytes()
        tag = b"ID3\4\0\0\0\0\x02\0" + bytes(256)  # a title and a picture would be here
        for name, data, ends in (
            ("whole.mp3", whole, FINE),
            ("tagged.mp3", tag + whole, FINE),
            ("cut.mp3", whole[: len(whole) // 2], INPUT_BREAKS_OFF),
            ("tagged_cut.mp3", tag + whole[: len(whole) // 2], INPUT_BREAKS_OFF),
        ):
            with self.subTest(name=name):
                (self.folder / name).write_bytes(data)
                code, _, errors = self.host("process", name, self.file)
                self.assertEqual(code, ends, errors)
                self.assertEqual(len(self.recorded(16000)) > 16000, True)
                if ends != FINE:
                    self.assertRegex(errors, rf"{name} breaks off after 0:02\.\d: its header promises more")


class Loudness(FormatTest):
    """A sine at 997 Hz in one channel has a loudness of its RMS level; the same in two channels is 3 LU louder."""

    def bring(self, lufs, source, *arguments):
        code, output, errors = self.host("process", source, self.file, "--loudness", lufs, *arguments)
        self.assertEqual(code, FINE)
        said = re.search(r"\nafter .*, loudness (\S+) LUFS, true peak (\S+) dBTP: ", output)
        samples = self.samples_of(self.file, "--channel", "all")
        return samples, float(said[1]), float(said[2]), errors

    def test_a_tone_gets_the_level_that_the_standard_demands(self):
        for rate in 16000, 48000:
            for amplitude in 300, 3000, 30000:
                sine = tone(997, rate, 3, amplitude)
                for channels, level in (1, -16), (2, -19.01):
                    samples, lufs, peak, errors = self.bring(-16, self.wav("in.wav", rate, *[sine] * channels), "--channel", "all")
                    self.assertEqual((lufs, errors), (-16.0, ""))
                    self.assertAlmostEqual(decibels(rms(samples)), level, delta=0.1)
                    self.assertAlmostEqual(peak, level + 3.01, delta=0.1)

    def test_silence_around_does_not_count(self):
        sine = tone(997, 16000, 10, 3000)
        samples, _, _, _ = self.bring(-16, self.wav("in.wav", 16000, [0] * 160000 + sine + [0] * 160000))
        self.assertAlmostEqual(decibels(rms(samples[160000:320000])), -16, delta=0.2)

    def test_speech_is_limited_and_gets_its_loudness(self):
        speech = self.wav("in.wav", 48000, struct.unpack("<288000h", SPEECH.read_bytes()))
        samples, lufs, peak, errors = self.bring(-16, speech)
        self.assertEqual((lufs, errors), (-16.0, ""))
        self.assertLessEqual(peak, -1.1)
        self.assertLess(max(map(abs, samples)), 32768 * 10 ** (-1 / 20))

    def test_peaks_between_the_samples_are_held_too(self):
        # At a quarter of the rate and an eighth of a turn, the samples are 3 dB below the peaks.
        sine = [round(3000 * math.sin(math.pi / 2 * at + math.pi / 4)) for at in range(96000)]
        samples, lufs, peak, errors = self.bring(0, self.wav("in.wav", 48000, sine))
        self.assertLess(max(map(abs, samples[4800:-4800])), 32768 * 10 ** (-4 / 20))
        self.assertLessEqual(peak, -1.1)
        self.assertLess(lufs, 0)
        self.assertRegex(errors, r"out\.wav: only \S+ LUFS, as its peaks leave little room for more")

    def test_silence_stays_silence(self):
        samples, lufs, _, errors = self.bring(-16, self.wav("in.wav", 16000, [0] * 16000))
        self.assertEqual((set(samples), lufs), ({0}, -math.inf))
        self.assertRegex(errors, "too quiet or too short to have a loudness")

    def test_absurd_ones_are_refused(self):
        source = self.wav("in.wav", 16000, [1] * 100)
        for value in "1", "-61", "loud", "nan", "-16:3":
            self.assert_failed(self.host("process", source, self.file, "--loudness", value), USAGE, "--loudness")


class Unfinished(FormatTest):
    """What is left of a recording whose program was killed, or whose disk is full."""

    def setUp(self):
        super().setUp()
        self.listen_to(SPEECH)

    def kill(self, name, seconds, *arguments):
        """Kills a recording of so much sound, and returns how much the file has in samples."""
        path = self.folder / name
        process = self.start("record", "--rate", 48000, *arguments, path, microphone={"MICROPHONE_PACED": "1"})
        self.wait_for(lambda: path.exists() and path.stat().st_size > 0, process)
        time.sleep(seconds)
        process.kill()
        process.communicate()
        return path

    def test_a_killed_flac_file_is_valid_and_lacks_a_few_blocks_at_most(self):
        for size, width in ("16", 2), ("24", 3):
            path = self.kill("killed.flac", 3, "--bits", size)
            header = path.read_bytes()[:42]
            self.assertEqual(struct.unpack(">HH", header[8:12]), (4096, 4096))  # samples in a block
            length = int.from_bytes(header[21:26], "big") & (1 << 36) - 1
            self.assertEqual(length % 4096, 0)
            self.assertGreater(length, 2.5 * 48000)
            # Whoever decodes it finds neither less nor more.
            whole = self.bytes_of(path, "--bits", size)
            self.assertEqual(len(whole), width * length)
            self.record("--rate", 48000, "--seconds", 3, "--bits", size, self.file)
            self.assertEqual(whole[: 2 * 48000 * width], self.bytes_of(self.file, "--bits", size)[: 2 * 48000 * width])
            for decoder in ["sox", path, "-t", "raw", "-"], ["ffmpeg", "-v", "error", "-i", path, "-f", f"s{size}le", "-"]:
                self.assertEqual(self.peer(*decoder), whole)

    def peer(self, *command):
        if shutil.which(command[0]) is None:
            self.skipTest(f"{command[0]} is not installed; scripts/setup test installs it")
        done = subprocess.run(command, capture_output=True, timeout=30)
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        return done.stdout

    def test_a_finished_flac_file_knows_everything_about_itself(self):
        self.record("--seconds", 1, "out.flac")
        header = (self.folder / "out.flac").read_bytes()[:42]
        self.assertEqual(int.from_bytes(header[21:26], "big") & (1 << 36) - 1, 16000)
        self.assertNotEqual(header[26:42], bytes(16), "the sum over the samples is missing")

    def test_a_flac_file_on_a_disk_that_fills_up_keeps_what_fits(self):
        limit = 100001
        code, _, errors = self.record(
            *("--seconds", 6, "out.flac"),
            restore_signals=False,
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit)),
        )
        self.assertEqual(code, FILE_TROUBLE)
        self.assertRegex(errors, r"\Awrapper-audio: cannot write out\.flac: \S.*\n\Z")
        self.assertEqual((self.folder / "out.flac").stat().st_size, limit)
        code, _, errors = self.host("process", "out.flac", self.file)
        self.assertGreater(len(self.recorded(16000)), 2 * 16000)

    def test_killed_files_that_compress_hold_all_but_the_last_seconds(self):
        for kind, least in ("opus", 3.5), ("ogg", 0.5), ("mp3", 4.5):
            with self.subTest(kind=kind):
                path = self.kill(f"killed.{kind}", 5)
                # libsndfile finds less in an MP3 file that has no length yet.
                decoded = self.peer("ffmpeg", "-v", "fatal", "-i", path, "-f", "s16le", "-")
                self.assertGreater(len(decoded) / 96000, least)

    def test_what_is_too_long_for_flac_is_refused_before_it_begins(self):
        with open(self.folder / "silence.raw", "wb") as long:
            long.truncate(2**37 + 2000)
        result = self.host("process", "-q", "--raw-rate", 384000, "silence.raw", "out.flac")
        self.assert_failed(result, FILE_TROUBLE, "too long .* WAV holds more")
        self.assertFalse((self.folder / "out.flac").exists())


if __name__ == "__main__":
    unittest.main()
