"""Runs the commands that the documents give: commands_test.py BUILD_FOLDER [registry].

With `registry` those that need npm's registry, and without all the others. Where it is out of reach they are skipped,
with exit code 77.

Commands stand in fences marked sh and in indented blocks, or are scripts named in the text. Each is run as it stands, in
a folder that looks like the checkout, on a microphone that hears a file; what it writes stays in that folder. Those that
another test runs, or that would run this one, are listed with the file that does, and that file is looked at. A comment
that says what a command prints is held to it.
"""
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(sys.argv[1]).resolve()
OF_THE_REGISTRY = sys.argv[2:] == ["registry"]

# A command, the file that runs it or a shorter form of it, and what is said there.
ELSEWHERE = {
    r"scripts/setup( run)?": ("scripts/run", "scripts/setup\" run"),
    r"scripts/fetch-rnnoise": ("scripts/setup", "fetch-rnnoise"),
    r"scripts/setup test": ("scripts/test", "\nscripts/setup test\n"),
    r"scripts/test.*": (".ci/run", "scripts/test"),
    r"scripts/lint": ("scripts/test", "scripts/lint"),
    r"scripts/soak.*": ("scripts/test", "scripts/soak --short"),
    r"scripts/coverage": ("scripts/test", "scripts/coverage"),
    r"scripts/arm64": ("scripts/test", "scripts/arm64"),
    r"scripts/fuzz.*": ("scripts/test", "scripts/fuzz 20"),
    r"scripts/mutate.*": ("scripts/test", "scripts/mutate --sample"),
    r"scripts/bench": ("docs/performance.md", "    scripts/bench --benchmark_filter="),
    r"scripts/quality.*": ("tests/quality/measures_test.py", "vad.main()"),
    r"scripts/package( --check)?": ("scripts/test", "scripts/package"),
    r"pip install wrapper_audio-.*whl": ("tests/install/check_bare_roots.sh", "pip install"),
    r"npm install (\./wrapper-audio-\S*tgz ?)+": ("tests/install/check_bare_roots.sh", "npm install"),
    r"cmake --preset tsan .*": ("scripts/test", "tsan"),
    r"ctest (--preset release|--test-dir build) -R .*": ("scripts/test", 'ctest --preset "$variant"'),
    r"wrapper-audio .*pocketsphinx_continuous .*": ("tests/recogniser/recogniser_test.py", "check_recipes(said)"),
    r"wrapper-audio record --system .*": ("tests/tool/servers_test.py", 'self.record("--system"'),
    r"wrapper-audio record --both .*": ("tests/tool/servers_test.py", 'self.record("--both"'),
}
# Until Ctrl-C.
ENDLESS = ("wrapper-audio meter", "wrapper-audio record --denoise speech.flac",
           "wrapper-audio record --denoise - | recogniser", "wrapper-audio record --split talk-%03d.wav",
           "wrapper-audio record --max-file-time 1h %F_%H-%M.flac")
NEEDS_REGISTRY = "npm "
UNREACHABLE = re.compile("EAI_AGAIN|ENOTFOUND|ECONN|ETIMEDOUT|ENETUNREACH|EHOSTUNREACH|ERR_SOCKET_TIMEOUT")
MAY_MISS_GOALS = "scripts/bench"  # on a busy machine, which is no failure of the command


def commands(text):
    """The commands in a document's text, continued lines joined, each with its comment."""
    found, fence = [], None
    for line in text.splitlines():
        mark = re.match(r"```(\w*)", line)
        if mark:
            fence = mark[1] if fence is None else None
        elif fence == "sh" or (fence is None and line.startswith("    ")):
            if found and found[-1].endswith("\\"):
                found[-1] = found[-1][:-1] + line.strip()
            else:
                found.append(line.strip())
    mentioned = [span for span in re.findall(r"`(scripts/[^`]+)`", text) if not any(span in line for line in found)]
    return [(*re.split(r"\s+# ", command, maxsplit=1), "")[:2] for command in found + mentioned if command]


def programs(text):
    """C programs in a document, under the name that its compiler's command uses."""
    return dict(zip(re.findall(r"\bcc (?:-\S+ )*(\w+\.c)", text), re.findall(r"```c\n(.*?)```", text, re.DOTALL)))


def listing(ctest):
    """The tests that this command would run."""
    command = ctest.split("|")[0] + " --show-only"
    return subprocess.run(command, shell=True, cwd=ROOT, capture_output=True, text=True, check=True).stdout


class Checkout:
    """A folder that looks like the checkout and is built like it, with a microphone and an empty /opt."""

    def __init__(self, folder):
        self.folder = Path(folder)
        for entry in ROOT.iterdir():
            if entry.name in ("bindings", "tests"):  # written to
                shutil.copytree(entry, self.folder / entry.name, ignore=shutil.ignore_patterns("node_modules"))
            elif entry.is_dir() or entry.suffix in (".md", ".h"):
                (self.folder / entry.name).symlink_to(BUILD if entry.name == "build" else entry)
        (self.folder / "bin").mkdir()
        (self.folder / "bin/recogniser").write_text("#!/bin/sh\ntrap '' INT\nexec wc -c\n")
        (self.folder / "bin/recogniser").chmod(0o755)
        (self.folder / "bin/wrapper-audio").symlink_to(BUILD / "wrapper-audio")
        subprocess.run(["/usr/bin/python3", "-m", "venv", self.folder / "venv"], check=True)
        microphone = subprocess.run(
            [ROOT / "scripts/file-microphone", ROOT / "tests/data/speech_in_noise_48k.raw", self.folder],
            check=True, capture_output=True, text=True).stdout.strip()
        self.environment = dict(
            os.environ, ALSA_CONFIG_PATH=microphone, JACK_NO_START_SERVER="1", LC_ALL="C.UTF-8", PIP_NO_INDEX="1",
            LD_LIBRARY_PATH=str(BUILD),  # as if it were installed
            npm_config_fetch_retries="1", npm_config_fetch_retry_mintimeout="1000",
            PATH=f"{self.folder}/bin:{self.folder}/venv/bin:{os.environ['PATH']}")
        self.run(Path("."), "wrapper-audio record --seconds 1 in.wav", [])

    def run(self, where, command, exports, comment=""):
        """Returns what went wrong, or nothing."""
        # CMake knows its folders by name, and writes nothing but these.
        place = ROOT if command.startswith(("cmake ", "ctest ")) else self.folder / where
        words = "\n".join(["set -eo pipefail", *exports, command])
        for real, here in ("/tmp", ""), ("/opt/wrapper_audio", "/opt"), ("~/recording", "/recording"):
            words = words.replace(real, f"{self.folder}{here}")
        process = subprocess.Popen(["bash", "-c", words], cwd=place, env=self.environment, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace",
                                   start_new_session=True)
        endless = command in ENDLESS
        try:
            output, _ = process.communicate(timeout=2 if endless else 1200)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGINT if endless else signal.SIGKILL)
            output, _ = process.communicate(timeout=20)
            if not endless:
                return f"did not end:\n{output[-2000:]}"
        if process.returncode == 1 and command.startswith(MAY_MISS_GOALS) and "requirements missed" in output:
            return None
        if process.returncode != 0:
            return f"exit code {process.returncode}:\n{output[-2000:]}"
        prints = re.fullmatch(r"prints (.*)", comment)
        return f"prints {output!r}" if prints and output.strip() != prints[1] else None


def main():
    listed = subprocess.run(["git", "ls-files", "*.md"], cwd=ROOT, capture_output=True, text=True, check=True).stdout
    ran, wrong = set(), []
    with tempfile.TemporaryDirectory(dir="/tmp") as folder:  # ALSA_CONFIG_PATH takes neither space nor colon
        checkout = Checkout(folder)
        for name in sorted(listed.split()):
            text = (ROOT / name).read_text()
            where = Path(name).parent if Path(name).parent != Path("docs") else Path(".")
            for file, program in programs(text).items():
                (checkout.folder / where / file).write_text(program)
            exports = []
            for command, comment in commands(text):
                elsewhere = [place for pattern, place in ELSEWHERE.items() if re.fullmatch(pattern, command)]
                if command.startswith("export "):
                    exports.append(command)
                    continue
                if (where, command) in ran or command.startswith(NEEDS_REGISTRY) != OF_THE_REGISTRY:
                    continue
                if elsewhere:
                    [(file, said)] = elsewhere
                    trouble = None if said in (ROOT / file).read_text() else f"{file} does not run it"
                    if command.startswith("ctest ") and "Total Tests: 0" in listing(command):
                        trouble = "there is no such test"
                else:
                    print(time.strftime("%H:%M:%S"), f"{name}: {command}", flush=True)
                    trouble = checkout.run(Path(".") if "./bindings" in command else where, command, exports, comment)
                    ran.add((where, command))
                if trouble and OF_THE_REGISTRY and UNREACHABLE.search(trouble):
                    print("SKIPPED: npm cannot reach its registry")
                    sys.exit(77)
                if trouble:
                    wrong.append(f"{name}: {command}\n{trouble}")
    print(f"{len(ran)} commands ran")
    if len(ran) < (1 if OF_THE_REGISTRY else 20):
        wrong.append("the documents hardly have commands")
    for trouble in wrong:
        print(f"FAILED: {trouble}")
    sys.exit(1 if wrong else 0)


main()
