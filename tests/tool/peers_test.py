"""wrapper-audio beside arecord, parecord, pw-record, sox (rec) and ffmpeg, on one PipeWire server without hardware.

docs/compared.md has a table of what each can do. Each test here does one row of it with each program, and demands that
the table says what happened.
"""

import re
import shutil
import signal
import struct
import subprocess
import time
import unittest
import wave

from host import HOST, ROOT, decibels, rms
from servers_test import ServerTest, servers

NAMES = ["wrapper-audio", "arecord", "parecord", "pw-record", "sox", "ffmpeg"]
RATE = 16000


def table():
    """Of each row of the document what it says about each program."""
    rows = {}
    for line in (ROOT / "docs/compared.md").read_text().splitlines():
        name, *cells = [cell.strip() for cell in line.strip("|").split("|")]
        if len(cells) == len(NAMES) and set(cells) <= {"yes", "no"}:
            rows[name] = dict(zip(NAMES, [cell == "yes" for cell in cells]))
    return rows


class Peers(ServerTest):
    kind = servers.PipeWire
    rows = set()
    begun = set()

    @classmethod
    def tearDownClass(cls):
        names = [name for name in dir(cls) if name.startswith("test_")]
        if len(cls.begun) == len(names) and cls.rows != set(table()):
            raise AssertionError(f"rows that nobody did: {set(table()) ^ cls.rows}")

    def setUp(self):
        super().setUp()
        self.programs = {"wrapper-audio": HOST}
        for name in NAMES[1:]:
            unpacked = servers.UNPACKED / "usr/bin" / name
            self.programs[name] = unpacked if unpacked.exists() else shutil.which(name)
            if self.programs[name] is None:
                self.skipTest(f"{name} is not installed; scripts/setup test installs it")
        self.wait_until_device("ALSA:pipewire")
        self.player = self.server.play(self.sound)
        self.begun.add(self.id())

    def command(self, name, out, *options, device=None, before=()):
        """Records mono at RATE into a file. `before` is about the device, `options` about the file."""
        begin = {
            "wrapper-audio": ["record", "-d", device or "ALSA:pipewire", "-r", RATE],
            "arecord": ["-q", "-D", device or "pipewire", "-f", "S16_LE", "-c", 1, "-r", RATE],
            "parecord": [f"--device={device or '@DEFAULT_SOURCE@'}", "--channels=1", f"--rate={RATE}", "--latency-msec=100"],
            "pw-record": ["--target", device or "mic", "--channels", 1, "--rate", RATE],
            "sox": ["-q", "-t", "alsa", *before, device or "pipewire", "-c", 1, "-r", RATE],
            # As long as it writes nothing, for 8 s otherwise, it cannot be seen to have begun.
            "ffmpeg": ["-nostdin", "-v", "error", "-f", "alsa", *before, "-i", device or "pipewire", "-ac", 1, "-ar", RATE,
                       "-flush_packets", 1],
        }[name]
        if name == "sox":  # whose effects come behind the file
            where = next((at for at, option in enumerate(options) if option in ("trim", "highpass")), len(options))
            words = [*begin, *options[:where], out, *options[where:]]
        else:
            words = [*begin, *options, out] if (name, out) != ("parecord", "-") else [*begin, *options]
        return [str(word) for word in [self.programs[name], *words]]

    def start_all(self, commands):
        """Starts each in a folder of its own."""
        started = {}
        for name, command in commands.items():
            folder = self.folder / name
            shutil.rmtree(folder, ignore_errors=True)
            folder.mkdir()
            started[name] = subprocess.Popen(
                command, cwd=folder, env=self.environment(None), stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            )  # fmt: skip
            self.addCleanup(self.end, started[name])
        return started

    def run_all(self, options, out="out.wav", seconds=3, end=signal.SIGINT, meanwhile=None, device=None, before=None):
        """Runs the programs that have the options: (exit code, standard output, standard error, folder) of each."""
        commands = {
            name: self.command(name, out, *words, device=device, before=(before or {}).get(name, ()))
            for name, words in options.items()
        }
        started = self.start_all(commands)
        deadline = time.monotonic() + 10  # of the sound some take a while to come
        while time.monotonic() < deadline and out != "-" and not all(map(self.has_begun, started.items())):
            time.sleep(0.05)
        time.sleep(seconds)
        if meanwhile:
            meanwhile(started)
        for process in started.values():
            if process.poll() is None:
                process.send_signal(end)
        results = {}
        for name, process in started.items():
            try:
                output, errors = process.communicate(timeout=10)
            except subprocess.TimeoutExpired:
                process.kill()
                output, errors = process.communicate()
            results[name] = (process.returncode, output, errors, self.folder / name)
        return results

    def has_begun(self, started):
        name, process = started
        return process.poll() is not None or any(file.stat().st_size > 200 for file in (self.folder / name).iterdir())

    def assert_row(self, row, run, can):
        """`can` judges what a program did; one without a result has no option for it."""
        self.rows.add(row)
        results = run()
        able = {name: name in results and bool(can(*results[name])) for name in NAMES}
        said = {name: (code, errors[-300:]) for name, (code, _, errors, _) in results.items()}
        self.assertEqual(able, table().get(row), (row, said))

    def samples(self, path, channels=1):
        """What sox reads in it; nothing when it cannot."""
        if not path.exists():
            return ()
        read = subprocess.run(
            ["sox", path, "-t", "raw", "-e", "signed", "-b", "16", "-c", str(channels), "-"], capture_output=True
        )
        data = read.stdout if read.returncode == 0 else b""
        return struct.unpack(f"<{len(data) // 2}h", data)

    def each(self, *options):
        """The same for all of them."""
        return {name: list(options) for name in NAMES}

    def test_time(self):
        options = {
            "wrapper-audio": ["--seconds", 1.5],
            "arecord": ["-s", 24000],
            "sox": ["trim", 0, 1.5],
            "ffmpeg": ["-t", 1.5],
        }
        self.assert_row(
            "ends by itself after 1.5 s",
            lambda: self.run_all(options, seconds=4, end=signal.SIGKILL),
            lambda code, output, errors, folder: code == 0 and abs(len(self.samples(folder / "out.wav")) - 24000) < 800,
        )

    def test_noise(self):
        self.play_again()
        plain = self.pause(self.run_all({"wrapper-audio": []}, seconds=7)["wrapper-audio"][3] / "out.wav")
        self.play_again()
        results = self.run_all({"wrapper-audio": ["--denoise"], "ffmpeg": ["-af", "afftdn=nr=60:nf=-20"]}, seconds=7)
        for row, decibel in ("takes 5 dB of the noise away", 5), ("takes 20 dB of the noise away", 20):
            self.assert_row(
                row, lambda: results, lambda code, _, __, folder: self.pause(folder / "out.wav") < plain - decibel
            )

    def play_again(self):
        self.player.terminate()
        self.player.wait()
        self.player = self.server.play(self.sound)

    def pause(self, path):
        samples = self.samples(path)[RATE:]
        self.assertGreater(len(samples), 4 * RATE)
        levels = [max(decibels(rms(samples[at : at + 1600])), -100) for at in range(0, len(samples) - 1600, 1600)]
        # A tenth is pauses. The least of all may be where a busy server had no sound to give.
        return sorted(levels)[len(levels) // 10]

    def test_high_pass(self):
        self.play_instead("440", "-10dB")
        corner = 4000
        filters = {"wrapper-audio": ["--highpass", corner], "sox": ["highpass", corner], "ffmpeg": ["-af", f"highpass={corner}"]}
        self.assert_row(
            "filters while it records",
            lambda: self.run_all(filters),
            lambda code, _, __, folder: -70 < decibels(rms(self.samples(folder / "out.wav"))) < -30,
        )

    def play_instead(self, hertz, level):
        tone = self.folder / "tone.wav"
        sox = ["sox", "-D", "-n", "-r", "48000", "-c", "1", "-e", "float", "-b", "32", tone]
        subprocess.run([*sox, "synth", "20", "sine", hertz, "vol", level], check=True)
        self.server.restart()
        self.server.play(tone)
        self.wait_until_device("ALSA:pipewire")

    def test_formats(self):
        for kind, row, how in (
            ("flac", "FLAC", {"parecord": ["--file-format=flac"], "arecord": ["-t", "flac"]}),
            ("opus", "Opus", {"parecord": ["--file-format=opus"], "arecord": ["-t", "opus"]}),
            ("mp3", "MP3", {"parecord": ["--file-format=mp3"], "arecord": ["-t", "mp3"]}),
        ):
            with self.subTest(kind=kind):
                beginnings = {"flac": (b"fLaC",), "opus": (b"OggS",), "mp3": (b"ID3", b"\xff")}[kind]
                self.assert_row(
                    f"writes {row}",
                    lambda: self.run_all({**self.each(), **how}, out=f"out.{kind}"),
                    lambda code, _, __, folder: self.content(folder / f"out.{kind}").startswith(beginnings),
                )

    @staticmethod
    def content(path):
        return path.read_bytes() if path.exists() else b""

    def test_quality_of_vorbis(self):
        options = {"sox": ["-C", "0"], "ffmpeg": ["-b:a", "48k"], "wrapper-audio": ["--quality", 2]}
        self.assert_row(
            "lets choose how good Vorbis is",
            lambda: self.run_all(options, out="out.ogg", seconds=3),
            lambda code, _, __, folder: self.content(folder / "out.ogg").startswith(b"OggS"),
        )

    def test_24_bits(self):
        self.play_instead("440", "-110dB")  # far below the smallest step of 16 bits
        options = {
            "wrapper-audio": ["--bits", 24],
            "arecord": ["-f", "S32_LE"],
            "parecord": ["--format=s24le"],
            "pw-record": ["--format", "s24"],
            "sox": ["-b", 24],
            "ffmpeg": ["-c:a", "pcm_s24le"],
        }
        before = {"sox": ["-b", 32], "ffmpeg": ["-c:a", "pcm_s32le"]}

        def has_sound(path):
            read = subprocess.run(["sox", path, "-t", "f32", "-"], capture_output=True).stdout
            return any(struct.unpack(f"<{len(read) // 4}f", read))

        self.assert_row(
            "keeps more than 16 bits of the device",
            lambda: self.run_all(options, before=before),
            lambda code, _, __, folder: has_sound(folder / "out.wav"),
        )

    def test_stereo(self):
        options = {
            "arecord": ["-c", 2],
            "parecord": ["--channels=2"],
            "pw-record": ["--channels", 2],
            "sox": ["-c", 2],
            "ffmpeg": ["-ac", 2],
        }

        def channels(path):
            shown = subprocess.run(["sox", "--i", "-c", path], capture_output=True, text=True).stdout
            return int(shown or 0)

        self.assert_row(
            "records two channels",
            lambda: self.run_all(options, seconds=3),
            lambda code, _, __, folder: channels(folder / "out.wav") == 2,
        )

    def test_killed(self):
        for kind, how in ("wav", {}), ("flac", {"parecord": ["--file-format=flac"]}):
            with self.subTest(kind=kind):
                self.assert_row(
                    f"killed, leaves a {kind.upper()} file that tells its length",
                    lambda: self.run_all({**self.each(), **how}, out=f"out.{kind}", seconds=4, end=signal.SIGKILL),
                    lambda code, _, __, folder: self.length(folder / f"out.{kind}") > 2,
                )

    def length(self, path):
        """In seconds, by its header; 0 when that promises more than the file has."""
        try:
            if path.suffix == ".wav":
                with wave.open(str(path), "rb") as wav:
                    frames = wav.getnframes()
                return frames / RATE if 2 * frames <= path.stat().st_size else 0
            header = path.read_bytes()[:42]
            return (int.from_bytes(header[21:26], "big") & (1 << 36) - 1) / RATE if header[:4] == b"fLaC" else 0
        except (wave.Error, EOFError, OSError):
            return 0

    def test_pipe(self):
        options = {**self.each(), "arecord": ["-t", "raw"], "parecord": ["--raw"], "sox": ["-t", "s16"], "ffmpeg": ["-f", "s16le"]}
        run = lambda: self.run_all(options, out="-", seconds=4)  # noqa: E731
        self.assert_row("writes raw samples to standard output", run, lambda _, output, __, ___: len(output) > RATE)

    def test_clobber(self):
        def older(folder):
            return self.content(folder / "out.wav") == b"older"

        def run():
            results = {}
            for name, option in ("wrapper-audio", "--no-clobber"), ("ffmpeg", "-n"):
                folder = self.folder / name
                folder.mkdir(exist_ok=True)
                (folder / "out.wav").write_bytes(b"older")
                command = self.command(name, "out.wav", option)
                done = subprocess.run(command, cwd=folder, env=self.environment(None), capture_output=True, timeout=20)
                results[name] = (done.returncode, done.stdout, done.stderr, folder)
            return results

        # Newer versions of ffmpeg refuse it with exit code 0.
        self.assert_row("refuses to overwrite a file", run, lambda code, _, errors, folder: older(folder) and (
            code != 0 or b"already exists" in errors))

    def test_wrong_device(self):
        self.assert_row(
            "fails when the device is mistyped",
            lambda: self.run_all(self.each(), seconds=3, device="cellar"),
            lambda code, _, __, folder: code != 0 and not self.samples(folder / "out.wav"),
        )

    def test_date(self):
        options = {
            "wrapper-audio": [],
            "arecord": ["--use-strftime"],
            "ffmpeg": ["-f", "segment", "-segment_time", 100, "-segment_format_options", "flush_packets=1", "-strftime", 1],
        }
        self.assert_row(
            "puts the date into the name",
            lambda: self.run_all(options, out="%Y.wav", seconds=3),
            lambda code, _, __, folder: (folder / time.strftime("%Y.wav")).exists(),
        )

    def test_split(self):
        options = {
            "wrapper-audio": ["--max-file-time", 1],
            "arecord": ["--max-file-time", 1],
            "sox": ["trim", 0, 1, ":", "newfile", ":", "restart"],
            "ffmpeg": ["-f", "segment", "-segment_time", 1],
        }

        def run():
            results = {}
            for name, words in options.items():
                results.update(self.run_all({name: words}, out="out%d.wav" if name == "ffmpeg" else "out.wav"))
            return results

        self.assert_row(
            "begins a new file every second", run, lambda code, _, __, folder: len(list(folder.glob("*.wav"))) > 1
        )

    def test_lost_sound(self):
        def stop(started):
            for process in started.values():
                process.send_signal(signal.SIGSTOP)
            time.sleep(3)
            for process in started.values():
                process.send_signal(signal.SIGCONT)
            time.sleep(2)

        self.assert_row(
            "says that sound was lost",
            lambda: self.run_all({**self.each(), "arecord": [], "ffmpeg": ["-v", "warning"]}, seconds=3, meanwhile=stop),
            lambda code, _, errors, __: re.search(rb"lost|overrun|xrun", errors),
        )

    def test_server_that_dies(self):
        def die(started):
            self.server.kill()
            time.sleep(8)
            self.server.restart()
            self.server.play(self.sound)

        self.assert_row(
            "fails when the server dies, and keeps what it has",
            lambda: self.run_all(self.each(), seconds=3, meanwhile=die, end=signal.SIGKILL),
            lambda code, _, __, folder: code > 0 and self.length(folder / "out.wav") > 1,
        )


if __name__ == "__main__":
    unittest.main()
