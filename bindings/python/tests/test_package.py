"""The folder as a package: pip, the README, the types."""

import ast
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
import wave
import zipfile
from pathlib import Path

import support


class Package(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def run_it(self, *command: object, **more: str) -> str:
        environment = support.environment(False, PYTHONPATH=None, **more)
        done = subprocess.run(
            list(map(str, command)), cwd=self.folder, env=environment, capture_output=True, text=True
        )
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return done.stdout

    def test_pip_installs_the_folder_without_a_package_index(self) -> None:
        # a copy, far from the checkout
        source = self.folder / "source"
        shutil.copytree(support.PACKAGE, source, ignore=shutil.ignore_patterns("__pycache__", "tests"))
        self.run_it(sys.executable, "-m", "venv", "venv")
        python = self.folder / "venv/bin/python"
        self.run_it(python, "-m", "pip", "install", source, PIP_NO_INDEX="1", PIP_DISABLE_PIP_VERSION_CHECK="1")
        table = self.run_it(python, "-m", "wrapper_audio")
        self.assertIn("* ALSA:default  default  input  48000  native\n", table)
        place = self.run_it(python, "-c", "import wrapper_audio; print(wrapper_audio.__file__)")
        self.assertIn("/venv/lib/", place)
        self.assertIn("Version: 1.0.0", self.run_it(python, "-m", "pip", "show", "wrapper-audio"))
        self.run_it(python, "-m", "pip", "check")
        self.run_it(python, "-m", "pip", "uninstall", "-y", "wrapper-audio")
        self.assertEqual(list(self.folder.glob("venv/lib/python*/site-packages/wrapper_audio*")), [])

    def test_the_wheel_holds_the_package_and_nothing_else(self) -> None:
        program = "import build_wheel, sys; print(build_wheel.build_wheel(sys.argv[1]), build_wheel.build_sdist(sys.argv[1]))"
        names = self.run_it(
            sys.executable, "-B", "-c", f"import sys; sys.path.insert(0, {str(support.PACKAGE)!r}); {program}", self.folder
        )
        wheel, archive = names.split()
        modules = {path.name for path in (support.PACKAGE / "wrapper_audio").glob("*.py")}
        with zipfile.ZipFile(self.folder / wheel) as packed:
            listed = set(packed.namelist())
        self.assertEqual(
            listed,
            {f"wrapper_audio/{name}" for name in modules | {"py.typed"}}
            | {f"wrapper_audio-1.0.0.dist-info/{name}" for name in ("METADATA", "WHEEL", "RECORD")},
        )
        self.run_it("tar", "xzf", archive)
        again = self.run_it(
            sys.executable, "-B", "-c", "import sys; sys.path.insert(0, 'wrapper_audio-1.0.0'); " + program, "."
        )
        self.assertEqual(again, names)

    def test_one_version_and_one_description_everywhere(self) -> None:
        project = (support.PACKAGE / "pyproject.toml").read_text()
        backend = (support.PACKAGE / "build_wheel.py").read_text()
        module = (support.PACKAGE / "wrapper_audio/__init__.py").read_text()
        library = (support.ROOT / "CMakeLists.txt").read_text()
        found = re.search(r"project\(wrapper_audio VERSION (\S+)", library)
        assert found is not None
        version = found[1]
        self.assertIn(f'\nversion = "{version}"\n', project)
        self.assertIn(f'\nSTEM = "wrapper_audio-{version}"\n', backend)
        self.assertIn(f"\nVersion: {version}\n", backend)
        self.assertIn(f'\n__version__ = "{version}"\n', module)
        for key, header in ("description", "Summary"), ("requires-python", "Requires-Python"):
            stated = re.search(rf'^{key} = "(.*)"$', project, re.MULTILINE)
            assert stated is not None
            self.assertIn(f"\n{header}: {stated[1]}\n", backend)

    def test_the_programs_in_the_readmes_record_five_seconds(self) -> None:
        for folder in support.PACKAGE, support.PACKAGE.parents[1]:
            programs = re.findall(r"```python\n(.*?)```", (folder / "README.md").read_text(), re.DOTALL)
            self.assertEqual(len(programs), 1)
            command = support.python("-c", programs[0])
            subprocess.run(command, cwd=self.folder, env=support.environment(), check=True, capture_output=True)
            speech = self.folder / "speech.wav"
            with wave.open(str(speech)) as file:
                self.assertEqual((file.getframerate(), file.getnchannels(), file.getsampwidth()), (16000, 1, 2))
                self.assertEqual(file.getnframes(), 80000)
                self.assertGreater(max(file.readframes(80000)), 0)
            speech.unlink()

    def test_the_package_is_python_3_9(self) -> None:
        for source in (support.PACKAGE / "wrapper_audio").glob("*.py"):
            ast.parse(source.read_text(), feature_version=(3, 9))

    def test_types_are_complete(self) -> None:
        tests = sorted(map(str, (support.PACKAGE / "tests").glob("*.py")))
        # How much of the tests' deliberate mistakes mypy sees depends on its version.
        for checked in ["--python-version=3.9", "wrapper_audio"], ["--no-warn-unused-ignores", *tests]:
            done = subprocess.run(
                ["/usr/bin/mypy", "--strict", f"--cache-dir={self.folder}", *checked],
                cwd=support.PACKAGE,
                capture_output=True,
                text=True,
                env=dict(os.environ, MYPYPATH=str(support.PACKAGE)),
            )
            self.assertEqual(done.returncode, 0, done.stdout + done.stderr)


if __name__ == "__main__":
    unittest.main()
