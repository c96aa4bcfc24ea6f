"""Holds docs/hosts.md and the examples to what they say: hosts_test.py PART BUILD_FOLDER.

PART is log (the document's table has every log line of the sources, and no other), links (all lead somewhere, and to
every example), c (the build lines of examples/c), or another language of the examples. An example is built and run by
the commands in its first lines, against the library as it is installed, on a microphone that hears a file. A language
whose tools are missing is skipped, with exit code 77.
"""

import array
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
DOCUMENT = (ROOT / "docs/hosts.md").read_text()
C_EXAMPLES = sorted((ROOT / "examples/c").glob("*.c"))
SPEECH = ROOT / "tests/data/speech_in_noise_48k.raw"
HOSTS = {  # their files, and the tools that these need
    "rust": ("rust/record.rs", ["rustc"]),
    "go": ("go/record.go", ["go"]),
    "csharp": ("csharp/Record.cs", ["mcs", "mono"]),
    "java": ("java/Record.java", ["javac", "java"]),
}
SKIPPED = 77
SECONDS = 3


def check(condition, *words):
    if not condition:
        sys.exit("FAILED: " + " ".join(map(str, words)))


def log_lines():
    """The formats of all lines that the library writes to standard error. The recorder layer writes none."""
    lines, writes = [], 0
    for source in sorted(s for s in (ROOT / "src").rglob("*.*") if s.parent.name != "recorder"):
        text = source.read_text()
        writes += len(re.findall(r"\bstderr\b", text))
        # fprintf(stderr, "one" "or more literals", ... and fputs("one", stderr)
        for literals in re.findall(r'f(?:printf\(stderr,|puts\()\s*((?:"(?:[^"\\]|\\.)*"\s*)+)[,)]', text):
            line = "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', literals))
            check(line.endswith("\\n") and "\\" not in line[:-2], "not understood:", line)
            lines.append(line[:-2])
    check(len(lines) == writes, writes, "places name stderr, but", len(lines), "lines were understood")
    return lines


def test_log():
    rows = re.findall(r"^\| `(\[[^`]*)` \|(.*)\|(.*)\|$", DOCUMENT, re.MULTILINE)
    written = log_lines()
    check(len(written) > 20, "only", written)
    check(len(rows) == len({row[0] for row in rows}), "a line has two rows")
    for line in written:
        check(line in {row[0] for row in rows}, "docs/hosts.md has no row for the log line:", line)
    for line, meaning, remedy in rows:
        check(line in written, "no source writes the line of docs/hosts.md:", line)
        check(meaning.strip() and remedy.strip(), "a row has an empty cell:", line)


def test_links():
    targets = re.findall(r"\]\(([^)]*)\)", DOCUMENT)
    headings = re.findall(r"^#+ (.*)", DOCUMENT, re.MULTILINE)
    anchors = {re.sub(r"[^a-z0-9 -]", "", heading.lower()).replace(" ", "-") for heading in headings}
    check(len(targets) > 5, "hardly a link:", targets)
    for target in targets:
        found = target[1:] in anchors if target.startswith("#") else (ROOT / "docs" / target).is_file()
        check(found, "a link leads nowhere:", target)
    for example in [f"c/{source.name}" for source in C_EXAMPLES] + [source for source, _ in HOSTS.values()]:
        check(f"../examples/{example}" in targets, "docs/hosts.md does not lead to the example", example)


class Workshop:
    """A folder where the library is installed, and microphones that programs built there hear."""

    def __init__(self, folder, build):
        self.folder, self.build = Path(folder), Path(build).resolve()
        prefix = self.folder / "prefix"
        for component in "library", "development":
            self.succeed("cmake", "--install", self.build, "--prefix", prefix, "--component", component)
        [pkgconfig] = prefix.rglob("pkgconfig")
        self.succeed(ROOT / "scripts/file-microphone", SPEECH, self.folder)
        (self.folder / "nothing.conf").write_text("pcm.nothing { type hw card 99 }\n")
        self.environment = dict(
            os.environ,
            PKG_CONFIG_PATH=str(pkgconfig),
            LD_LIBRARY_PATH=str(pkgconfig.parent),
            ALSA_CONFIG_PATH=str(self.folder / "microphone.conf"),
            JACK_NO_START_SERVER="1",
            JACK_DEFAULT_SERVER="wrapper_audio_test_without_jack",
            # Go keeps what it has compiled, and asks the network for nothing.
            GOCACHE=str(self.folder / "go"),
            GOPROXY="off",
            GOFLAGS="-mod=mod",
            LC_ALL="C.UTF-8",
        )

    def succeed(self, *command, **options):
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **options)
        check(done.returncode == 0, command, "failed:\n" + done.stdout.decode())

    def compile(self, source, command):
        shutil.copy(source, self.folder)
        self.succeed("bash", "-c", command, cwd=self.folder, env=self.environment)

    def run(self, command, **environment):
        """Returns (exit code, standard error)."""
        done = subprocess.run(
            ["bash", "-c", command],
            cwd=self.folder,
            env={**self.environment, **environment},
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            timeout=120,
        )
        check(done.stdout == b"", command, "writes elsewhere:", done.stdout[:200])
        return done.returncode, done.stderr.decode()

    def expected(self):
        """What the example in C that uses the library alone records, and the peak of it."""
        code, errors = self.run(f"{self.build}/examples/c/core {SECONDS} >expected.raw")
        check(code == 0, errors)
        content = (self.folder / "expected.raw").read_bytes()
        peak = max(map(abs, array.array("h", content)))
        check(len(content) == 2 * 16000 * SECONDS and peak > 3000, "the example hears next to nothing:", peak)
        return content, peak / 32767


def test_c(workshop):
    check(len(C_EXAMPLES) > 5, "hardly an example:", C_EXAMPLES)
    for source in C_EXAMPLES:
        line = re.search(r"^ \* (cc .*)$", source.read_text(), re.MULTILINE)
        check(line, source, "does not tell how to build it")
        workshop.compile(source, line[1])
    workshop.expected()
    for build, name in (f"{workshop.build}/examples/c", "built"), (".", "heard"):
        code, errors = workshop.run(f"{build}/record -n -s {SECONDS} {name}.raw && {build}/core {SECONDS} >{name}.core")
        check(code == 0, errors)
    for ending in "raw", "core":
        built, heard = ((workshop.folder / f"{name}.{ending}").read_bytes() for name in ("built", "heard"))
        check(built == heard and len(heard) == 2 * 16000 * SECONDS, "another sound:", ending)
    for command in (
        "./meter -s 1 >levels",
        "./pick choice <<<1 >choices",
        "./process 48000 16000 expected.raw >processed",
        "./filter <expected.raw >filtered",
    ):
        code, errors = workshop.run(command)
        check(code == 0, command, errors)


def commands_of(source):
    """How a host is built and how it is run: the indented lines of the comment that it begins with."""
    comment = re.match(r"(//.*\n)+", source.read_text())
    commands = re.findall(r"^//   (.*)$", comment[0] if comment else "", re.MULTILINE)
    check(len(commands) == 2, source, "does not tell how to build and run it")
    return commands


def test_host(workshop, language):
    source = ROOT / "examples" / HOSTS[language][0]
    build, run = commands_of(source)
    workshop.compile(source, build)
    expected, peak = workshop.expected()
    result = workshop.folder / "speech.raw"

    code, errors = workshop.run(run)
    check(code == 0, errors)
    check(result.read_bytes() == expected, "another sound than that of examples/c/core.c")
    devices = '[{"id":"ALSA:filemic","name":"filemic","kind":"input","isDefault":false},' \
              '{"id":"ALSA:default","name":"default","kind":"input","isDefault":true}]'
    check(f"\ndevices: {devices}\n" in errors, "no device list in", errors)
    told = re.findall(r"^peak (\d\.\d\d\d)$", errors, re.MULTILINE)
    check(len(told) == 1 and abs(float(told[0]) - peak) <= 0.001, "a peak of", told, "instead of", peak)
    check(errors.count("[audio_wrapper] Ресурсы освобождены\n") == 1, "not freed once:", errors)

    code, errors = workshop.run(run, ALSA_CONFIG_PATH=str(workshop.folder / "nothing.conf"))
    check((code, result.read_bytes()) == (1, b""), "without a microphone:", code, errors)
    check("\ndevices: []\n" in errors and errors.endswith("\nrecord: no microphone\n"), "without a microphone:", errors)

    code, errors = workshop.run(run.replace("speech.raw", "/dev/full"))
    check(code != 0, "what could not be written was no failure")


def skip(reason):
    print("SKIPPED:", reason)
    sys.exit(SKIPPED)


def need(*tools):
    for tool in tools:
        if shutil.which(tool) is None:
            skip(f"{tool} is not on this machine")
    if "java" in tools:
        need_java()


def need_java():
    """Puts a Java of at least 22 into PATH, if there is one."""
    for folder in [Path(shutil.which("java")).parent, *sorted(Path("/usr/lib/jvm").glob("*/bin"))]:
        told = subprocess.run([folder / "java", "-version"], stderr=subprocess.PIPE, text=True).stderr
        version = re.search(r'version "(\d+)', told)
        if version and int(version[1]) >= 22 and (folder / "javac").exists():
            os.environ["PATH"] = f"{folder}:{os.environ['PATH']}"
            return
    skip("java is on this machine, but no development kit from version 22 on")


def main(part, build):
    if part in ("log", "links"):
        globals()["test_" + part]()
    else:
        if part in HOSTS:
            need(*HOSTS[part][1])
        with tempfile.TemporaryDirectory(prefix="wrapper-audio.", dir="/tmp") as folder:  # ALSA takes no space or colon
            workshop = Workshop(folder, build)
            test_c(workshop) if part == "c" else test_host(workshop, part)
    print("ok")


main(*sys.argv[1:])
