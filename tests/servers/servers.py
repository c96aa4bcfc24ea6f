"""PipeWire, PulseAudio and JACK of our own, each with a microphone that hears what is played into it.

scripts/fetch-servers has unpacked them into build-servers; nothing of the system's or the user's sound is touched.

    with servers.PulseAudio(folder) as server:
        server.play("speech.wav")
        subprocess.run([program], env={**os.environ, **server.environment})
"""

import fcntl
import os
import re
import shutil
import signal
import subprocess
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
UNPACKED = ROOT / "build-servers"
TIMEOUT = 20


class Unavailable(Exception):
    """This server is not to be had here; says why. A server that is there and fails raises another exception."""


def _jack_name():
    """A name that no other test is using now, and the file that keeps it so.

    JACK knows eight names at most in all, and one that was killed keeps its own until it starts again.
    """
    for number in range(4):
        lock = open(f"/tmp/private-jack-{number}.lock", "w")
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
            return f"private-{number}", lock
        except OSError:
            lock.close()
    raise RuntimeError("four JACK servers are running already")


def _libraries():
    """The folder of this architecture's libraries."""
    found = [path.parent for path in UNPACKED.glob("usr/lib/*/alsa-lib")]
    if not (UNPACKED / "complete").exists() or not found:
        raise Unavailable("there are no sound servers in build-servers; scripts/fetch-servers fetches them")
    return found[0]


class Server:
    """What the servers have in common. Each takes a folder of its own, for its home, sockets and logs.

    environment: for programs that are to use this server, in addition to their own; see also program_environment()
    play(wav): plays a sound file into the microphone and returns the process, which nobody needs to end
    play_aloud(wav): plays it into the default output; see add_output()
    suspend(), resume(): the server stops answering, as in a crash that does not end it, and goes on
    kill(): the server is gone, without a farewell
    unplug(): the microphone is gone, the server is not; on JACK, end the player instead
    restart(): it is there again; players are to be started anew
    """

    def __init__(self, folder):
        self.folder = Path(folder).resolve()
        self.libraries = _libraries()
        for program in self.programs:
            if not (UNPACKED / "usr/bin" / program).exists():
                raise Unavailable(f"this system has no {program} to be fetched")
        self.processes = []
        self.servers = []
        runtime = self.folder / "run"
        if len(str(runtime)) > 80:
            raise ValueError(f"the path is too long for sockets: {runtime}")
        if re.search(r"[\s:]", str(self.folder)):
            raise ValueError(f"ALSA would take this path for several: {self.folder}")
        for path in self.folder, runtime:
            path.mkdir(mode=0o700, exist_ok=True)
            path.chmod(0o700)
        self.pulse_modules = next(UNPACKED.glob("usr/lib/**/pulse*/modules"))
        libraries = [self.libraries, UNPACKED / "lib" / self.libraries.name, self.libraries / "pulseaudio"]
        libraries.append(self.pulse_modules)  # they need each other
        self.environment = {
            "HOME": str(self.folder),
            "XDG_RUNTIME_DIR": str(runtime),
            "XDG_CONFIG_HOME": str(self.folder / ".config"),
            "XDG_STATE_HOME": str(self.folder / ".state"),
            "XDG_CONFIG_DIRS": str(self.folder),
            "LD_LIBRARY_PATH": os.pathsep.join(map(str, libraries)),
            # No bus of the user's or the system's, on which other servers could be found or asked to make room.
            "DBUS_SESSION_BUS_ADDRESS": "disabled:",
            "DBUS_SYSTEM_BUS_ADDRESS": "disabled:",
            "JACK_NO_START_SERVER": "1",
            "JACK_DEFAULT_SERVER": "private-none",
            "LC_ALL": "C.UTF-8",
        }

    def __enter__(self):
        try:
            self._start()
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Ends the server and everything that was started beside it."""
        self.resume()
        for process in reversed(self.processes):
            process.terminate()
            try:
                process.wait(timeout=5)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        self.processes.clear()

    def program_environment(self, base=os.environ):
        """An environment with the server's variables, and without what would lead elsewhere."""
        kept = {name: value for name, value in base.items() if not re.match("PULSE_|PIPEWIRE_|JACK_|ALSA_", name)}
        return {**kept, **self.environment}

    def start(self, *command, **options):
        """Starts a program on this server, an unpacked one or one of a path, to be ended with it at the latest."""
        with open(self.folder / f"{Path(command[0]).name}.log", "ab") as log:
            options = {"stdin": subprocess.DEVNULL, "stdout": log, "stderr": log, **options}
            process = subprocess.Popen(
                [UNPACKED / "usr/bin" / command[0], *map(str, command[1:])],
                cwd=self.folder,
                env=self.program_environment(),
                **options,
            )
        self.processes.append(process)
        return process

    def output(self, *command):
        """What a program on this server prints; nothing when it fails."""
        process = self.start(*command, stdout=subprocess.PIPE, text=True)
        text = process.communicate(timeout=TIMEOUT)[0]
        self.processes.remove(process)
        return text if process.returncode == 0 else ""

    def wait_for(self, condition, what):
        deadline = time.monotonic() + TIMEOUT
        while not condition():
            for process in self.servers:
                if process.poll() is not None:
                    raise RuntimeError(f"{Path(process.args[0]).name} ended by itself: {self.log(process)}")
            if time.monotonic() > deadline:
                raise RuntimeError(f"{what} does not appear: {self.log(self.servers[0])}")
            time.sleep(0.02)

    def add_output(self, name):
        """Programs play into it from now on unless they choose another; on PulseAudio and PipeWire."""
        self.output("pactl", "load-module", "module-null-sink", f"sink_name={name}", f"rate={self.rate}", "channels=1")
        self.output("pactl", "set-default-sink", name)
        self.wait_for(lambda: self.output("pactl", "get-default-sink") == f"{name}\n", f"the output {name}")

    def wait_for_no_microphone(self):
        self.wait_for(lambda: "mic" not in self.output("pactl", "list", "short", "sources"), "the end of the microphone")

    def log(self, process):
        path = self.folder / f"{Path(process.args[0]).name}.log"
        return " / ".join(path.read_text(errors="replace").splitlines()[-5:])

    def suspend(self):
        for process in self.servers:
            process.send_signal(signal.SIGSTOP)

    def resume(self):
        for process in self.servers:
            process.send_signal(signal.SIGCONT)

    def kill(self):
        for process in self.servers:
            process.kill()
        for process in self.servers:
            process.wait()

    def restart(self):
        self.kill()
        runtime = Path(self.environment["XDG_RUNTIME_DIR"])
        shutil.rmtree(runtime)
        runtime.mkdir(mode=0o700)
        self._start()

    def write_alsa(self, *definitions):
        """Makes these all that ALSA knows. Its plug-ins are named by their path, since ALSA looks in one folder only."""
        path = self.folder / "alsa.conf"
        plugins = [
            f'{kind}_type.{name} {{ lib "{self.libraries}/alsa-lib/libasound_module_{kind}_{name}.so" }}'
            for kind in ("pcm", "ctl")
            for name in ("pulse", "pipewire")
        ]
        path.write_text("\n".join([*plugins, *definitions, ""]))
        self.environment["ALSA_CONFIG_PATH"] = str(path)


class PulseAudio(Server):
    """PulseAudio, whose ALSA devices are `pulse` and `default`."""

    programs = ("pulseaudio", "pactl", "paplay")

    def __init__(self, folder, rate=48000):
        super().__init__(folder)
        self.rate = rate
        self.write_alsa(
            "pcm.pulse { type pulse hint { show on description PulseAudio } }",
            "ctl.pulse { type pulse }",
            "pcm.default { type pulse hint { show on description Default } }",
            "ctl.default { type pulse }",
        )

    def _start(self):
        self.servers = [
            self.start(
                *("pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no", "--disable-shm=yes"),
                *("--high-priority=no", f"--dl-search-path={self.pulse_modules}", "-L", "module-native-protocol-unix"),
                # norewinds: in blocks of 50 ms, where it would otherwise keep a new recorder waiting for up to 2 s.
                *("-L", f"module-null-sink sink_name=mic rate={self.rate} channels=1 norewinds=1"),
            )
        ]
        self.wait_for(lambda: self.output("pactl", "get-default-source") == "mic.monitor\n", "the microphone")

    def play(self, wav):
        return self.start("paplay", "--device=mic", Path(wav).resolve())

    def play_aloud(self, wav):
        return self.start("paplay", Path(wav).resolve())

    def unplug(self):
        self.output("pactl", "unload-module", "module-null-sink")
        self.wait_for_no_microphone()


class Jack(Server):
    """JACK with its dummy driver. Its microphones are the players: input devices `jack-play-PID`.

    JACK_PLAY in the environment is the program jack_play, which the build makes.
    """

    programs = ("jackd",)

    def __init__(self, folder, rate=48000):
        super().__init__(folder)
        self.rate = rate
        self.environment["JACK_DRIVER_DIR"] = str(self.libraries / "jack")
        self.environment["JACK_DEFAULT_SERVER"], self.lock = _jack_name()
        self.write_alsa("pcm.nothing { type hw card 99 }")  # PortAudio aborts when there is no definition at all

    def _start(self):
        self.servers = [
            self.start(
                *("jackd", "-n", self.environment["JACK_DEFAULT_SERVER"], "-r", "--no-mlock"),
                # Periods of 85 ms: the server goes on without a client that is late for one, which no client can help.
                *("-d", "dummy", "-r", self.rate, "-C", "2", "-P", "2", "-p", "4096"),
            )
        ]
        self.wait_for(lambda: self.output(os.environ["JACK_PLAY"]) == "ready\n", "the server")

    def close(self):
        killed = any(process.returncode == -signal.SIGKILL for process in self.servers)
        super().close()
        if killed:  # it has left 100 MB in shared memory, which the next one of its name clears away
            self._start()
            super().close()
        for path in Path("/dev/shm").glob(f"jack*_{self.environment['JACK_DEFAULT_SERVER']}_*"):
            path.unlink()
        self.lock.close()

    def play(self, wav):
        player = self.start(os.environ["JACK_PLAY"], Path(wav).resolve(), stdout=subprocess.PIPE, text=True)
        with player.stdout:
            if player.stdout.readline() != "ready\n":
                raise RuntimeError(f"the player does not play: {self.log(player)}")
        return player


class PipeWire(Server):
    """PipeWire with WirePlumber and its PulseAudio server. Its ALSA devices are `pipewire`, `default` and `pulse`."""

    programs = ("pipewire", "wireplumber", "pipewire-pulse", "pw-cat", "pw-cli", "pactl")

    def __init__(self, folder, rate=48000):
        super().__init__(folder)
        self.rate = rate
        shared = UNPACKED / "usr/share"
        configuration = self.folder / "pipewire"
        self.environment.update(
            PIPEWIRE_MODULE_DIR=str(self.libraries / "pipewire-0.3"),
            SPA_PLUGIN_DIR=str(self.libraries / "spa-0.2"),
            PIPEWIRE_CONFIG_DIR=str(configuration),
            WIREPLUMBER_MODULE_DIR=str(next(self.libraries.glob("wireplumber-0.*"))),
            WIREPLUMBER_CONFIG_DIR=str(self.folder / "wireplumber"),
            WIREPLUMBER_DATA_DIR=str(shared / "wireplumber"),
        )
        shutil.copytree(shared / "pipewire", configuration)
        self._write("pipewire/pipewire.conf.d/private.conf", f"""\
context.properties = {{
    support.dbus = false
    default.clock.rate = {rate}
    default.clock.allowed-rates = [ {rate} ]
}}
context.objects = [
    {{ factory = adapter
      args = {{
          factory.name = support.null-audio-sink
          node.name = mic
          media.class = Audio/Duplex
          audio.position = [ MONO ]
          object.linger = true
      }}
    }}
]
""")
        shutil.copytree(shared / "wireplumber", self.folder / "wireplumber")
        (self.folder / "wireplumber/wireplumber.conf").write_text(
            re.sub(r".*bluetooth\.lua.*\n", "", (shared / "wireplumber/wireplumber.conf").read_text())
        )
        # No hardware: it belongs to the user's own server. WirePlumber is told so in Lua before 0.5, and otherwise since.
        self._write("wireplumber/wireplumber.conf.d/private.conf", """\
wireplumber.profiles = {
    main = { hardware.audio = disabled, hardware.bluetooth = disabled, hardware.video-capture = disabled }
}
""")
        if (shared / "wireplumber/main.lua.d").exists():
            self._write("wireplumber/main.lua.d/89-private.lua", """\
alsa_monitor.enabled = false
v4l2_monitor.enabled = false
libcamera_monitor.enabled = false
default_access.properties["enable-flatpak-portal"] = false
""")
        self.write_alsa(
            f"<{shared}/alsa/alsa.conf.d/50-pipewire.conf>",
            f"<{shared}/alsa/alsa.conf.d/99-pipewire-default.conf>",
            "pcm.pulse { type pulse hint { show on description PulseAudio } }",
            "ctl.pulse { type pulse }",
        )

    def _write(self, name, text):
        path = self.folder / name
        path.parent.mkdir(exist_ok=True)
        path.write_text(text)

    def _start(self):
        self.servers = [self.start("pipewire")]
        self.wait_for(lambda: (self.folder / "run/pipewire-0").exists(), "the server's socket")
        self.servers.append(self.start("wireplumber"))
        (self.folder / "run/pulse").mkdir(mode=0o700)  # pactl makes it as well, and who comes second gives up
        self.servers.append(self.start("pipewire-pulse"))
        self.wait_for(lambda: self.output("pactl", "get-default-source") == "mic\n", "the microphone")

    def play(self, wav):
        return self.start("pw-cat", "--playback", "--target=mic", Path(wav).resolve())

    def play_aloud(self, wav):
        return self.start("pw-cat", "--playback", Path(wav).resolve())

    def unplug(self):
        self.output("pw-cli", "destroy", "mic")
        self.wait_for_no_microphone()
