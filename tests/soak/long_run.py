"""Records for hours, and accounts for every sample.

    long_run.py files HOURS       from a file, as fast as it is read
    long_run.py pipewire HOURS    on PipeWire by the clock, which is suspended for 20 s, and then has a busy machine

scripts/long-run sets what they need in the environment. Ends with an error when something is amiss.
"""

import array
import ctypes
import subprocess
import sys
import tempfile
import threading
import time
import wave
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
SOUND = ROOT / "tests/data/speech_in_noise_48k.raw"
HOST = ROOT / "build/wrapper-audio"
sys.path[:0] = [str(ROOT / "bindings/python"), str(ROOT / "tests/servers")]

import servers
import wrapper_audio

GROWTH = 1024  # KiB that a process may grow by after its first half, in which it was suspended


def require(good, what):
    if not good:
        raise SystemExit(f"FAILED: {what}")


class Figures:
    """Of a process, after its first half and at most since."""

    def __init__(self, process="self"):
        self.folder = Path(f"/proc/{process}")
        self.warm = None

    def look(self, progress):
        if progress < 0.5:
            return
        status = dict(line.split(":", 1) for line in (self.folder / "status").read_text().splitlines())
        now = [int(status["VmRSS"].split()[0]), len(list((self.folder / "fd").iterdir())), int(status["Threads"])]
        self.warm = self.warm or now
        self.most = now if self.warm is now else list(map(max, self.most, now))

    def report(self, name):
        print(f"{name}: resident {self.warm[0]} KiB, at most {self.most[0]}; descriptors {self.warm[1]}, at most "
              f"{self.most[1]}; threads {self.warm[2]}, at most {self.most[2]}", flush=True)
        require(self.most[0] <= self.warm[0] + GROWTH, "it grows")
        # A device that hangs or is opened again has two of each for a while.
        require(self.most[1] <= self.warm[1] + 8 and self.most[2] <= self.warm[2] + 4, "it keeps something open")


def from_files(hours):
    """At the device's rate bit for bit, and denoised at another rate."""
    pcm = array.array("h", SOUND.read_bytes())
    # As the library makes them of what the device delivers; twice, so that what goes on at the beginning is one piece.
    expected = array.array("h", [int(ctypes.c_float(sample / 32768 * 32767).value) for sample in pcm] * 2).tobytes()
    for rate, denoise in (48000, False), (16000, True):
        figures, count, wanted = Figures(), 0, round(hours * 3600 * rate)
        begun = time.monotonic()
        with wrapper_audio.Recorder("ALSA:studio", rate=rate, denoise=denoise, block_ms=1000) as recorder:
            while count < wanted:
                block = recorder.read(min(rate, wanted - count))
                require(recorder.position == count and len(block) > 0,
                        f"{recorder.position - count} samples are missing at {count}")
                if not denoise:
                    at = count % len(pcm) * 2
                    require(expected[at : at + 2 * len(block)] == block.tobytes(), f"another sample behind {count}")
                count += len(block)
                figures.look(count / wanted)
            require(recorder.dropped == 0, "samples are lost")
            recorder.stop()
            rest = sum(map(len, recorder.blocks()))
            delivered = recorder._info().captured
            # What is still inside the converter when it stops comes out with silence behind it.
            inside = recorder.delay * 48000 // rate if denoise else 0
            require(abs((count + rest) * 48000 // rate - delivered) <= inside,
                    f"{delivered} samples delivered, and {count + rest} read at {rate} Hz")
        print(f"{hours} hours at {rate} Hz{', denoised' if denoise else ', bit for bit'}, in "
              f"{time.monotonic() - begun:.0f} s: {delivered} samples delivered at 48000 Hz, {count + rest} read")
        figures.report("the recorder")


def on_pipewire(hours):
    """A recorder at the server's rate, and beside it the program, which denoises into a file."""
    seconds = hours * 3600
    with tempfile.TemporaryDirectory(prefix="long-run-") as folder, servers.PipeWire(folder) as server:
        with wave.open(f"{folder}/speech.wav", "wb") as wav:
            wav.setparams((1, 2, 48000, 0, "NONE", ""))
            for _ in range(round(seconds / 6) + 30):
                wav.writeframes(SOUND.read_bytes())
        sound = f"{folder}/speech.wav"
        server.play(sound)
        file = f"{folder}/out.wav"
        options = "--device", "ALSA:pipewire", "--reconnect", "--fill-gaps", "--denoise", "--seconds", str(seconds)
        environment = server.program_environment()
        program = subprocess.Popen([HOST, "record", *options, file], env=environment)
        recorder = subprocess.Popen([sys.executable, "-B", __file__, "recorder", str(hours)], env=environment)
        beside = threading.Thread(target=disturb, args=[server, sound, seconds])
        beside.start()
        figures = Figures(program.pid)
        begun = time.monotonic()
        while program.poll() is None:
            figures.look((time.monotonic() - begun) / seconds)
            time.sleep(0.5)
        require(program.returncode == 0, "the program failed")
        took = time.monotonic() - begun
        require(recorder.wait() == 0, "the recorder failed")
        beside.join()
        with wave.open(file, "rb") as wav:
            print(f"the program's file: {wav.getnframes()} samples at {wav.getframerate()} Hz, in {took:.1f} s")
            require(abs(took - seconds) < 2, "the file and the clock differ")
            require(wav.getnframes() == round(seconds * 16000), "the file's length is wrong")
        figures.report("the program")


def by_the_clock(hours):
    figures, count, calm, heard, begun = Figures(), 0, None, None, time.monotonic()
    with wrapper_audio.Recorder("ALSA:pipewire", rate=48000, reconnect=True, block_ms=100) as recorder:
        for block in recorder.blocks():
            count += len(block)
            passed = time.monotonic() - begun
            figures.look(passed / hours / 3600)
            if calm is None and passed >= hours * 2400:
                calm = lateness(recorder)
            if heard is None and passed >= hours * 3600:
                heard, late = recorder.signal, lateness(recorder)
                recorder.stop()
        info = recorder._info()
        require(heard == wrapper_audio.Signal.SOUND, f"at the end it hears {heard.name}")
        require(info.captured == info.read == count, f"{info.captured} samples delivered, and {count} read")
        print(f"{hours} hours on PipeWire: {info.captured} samples delivered and read, {info.dropped} lost in between "
              f"({info.dropped / 48000:.2f} s); behind the clock before the machine was busy: {calm * 1000:.0f} ms, "
              f"at the end: {late * 1000:.0f} ms")
        # What is lost in less than 0.1 s at once, nobody can tell from a clock that is slower, by 1 ms in a second at most.
        require(abs(calm) < 0.1, "samples and the clock differ")
        require(abs(late) < 0.2 + hours * 3600 / 12 * 0.001, "samples and the clock differ behind the busy time")
        figures.report("the recorder")


def lateness(recorder):
    """In seconds, of what was captured or lost."""
    info = recorder._info()
    return time.monotonic() - recorder.first_sample_time / 1e9 - (info.captured + info.dropped) / 48000


def disturb(server, sound, seconds):
    time.sleep(seconds / 3)
    server.suspend()
    time.sleep(20)
    server.resume()
    server.play(sound)  # the first player is silent from now on
    time.sleep(seconds / 3)
    busy = [subprocess.Popen([sys.executable, "-c", "while True: pass"]) for _ in range(4)]
    time.sleep(seconds / 12)
    for process in busy:
        process.kill()
        process.wait()


{"files": from_files, "pipewire": on_pipewire, "recorder": by_the_clock}[sys.argv[1]](float(sys.argv[2]))
