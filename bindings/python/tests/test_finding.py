"""How the binding finds its library, and what it says when it does not."""

import shutil
import tempfile
import unittest
from pathlib import Path

import support

LOAD = "import wrapper_audio; print(wrapper_audio.load()._name)"
FAIL = """
    import wrapper_audio
    try:
        wrapper_audio.devices()
    except wrapper_audio.LibraryError as error:
        print(error)
"""


class Finding(support.ProcessTest):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def test_an_argument_comes_before_the_environment(self) -> None:
        elsewhere = self.folder / "mine.so"
        shutil.copy(support.LIBRARY, elsewhere)
        output, _ = self.check(f"import wrapper_audio; print(wrapper_audio.load({str(elsewhere)!r})._name)")
        self.assertEqual(output.strip(), str(elsewhere))

    def test_the_environment_names_the_library(self) -> None:
        self.assertEqual(self.check(LOAD)[0].strip(), support.LIBRARY)

    def test_the_library_may_lie_beside_the_module(self) -> None:
        shutil.copytree(support.PACKAGE / "wrapper_audio", self.folder / "wrapper_audio")
        beside = self.folder / "wrapper_audio/libwrapper_audio_recorder.so.1"
        shutil.copy(support.LIBRARY, beside)
        output, _ = self.check(LOAD, WRAPPER_AUDIO_LIBRARY=None, PYTHONPATH=str(self.folder))
        self.assertEqual(output.strip(), str(beside.resolve()))

    def test_the_system_is_asked_last(self) -> None:
        for name in "libwrapper_audio_recorder.so.1", "libwrapper_audio_recorder.so":
            folder = self.folder / name.replace(".", "_")
            folder.mkdir()
            shutil.copy(support.LIBRARY, folder / name)
            output, _ = self.check(LOAD, WRAPPER_AUDIO_LIBRARY=None, LD_LIBRARY_PATH=str(folder))
            self.assertEqual(output.strip(), name)

    def test_without_a_library_everything_tried_is_listed_and_what_to_install(self) -> None:
        # the package is imported all the same, so that help() works
        shutil.copytree(support.PACKAGE / "wrapper_audio", self.folder / "wrapper_audio")
        output, _ = self.check(FAIL, WRAPPER_AUDIO_LIBRARY=None, LD_LIBRARY_PATH=None, PYTHONPATH=str(self.folder))
        tried = [line.split(": ")[0].strip() for line in output.splitlines() if "cannot open shared object" in line]
        beside = str((self.folder / "wrapper_audio").resolve())
        names = ["libwrapper_audio_recorder.so.1", "libwrapper_audio_recorder.so"]
        self.assertEqual(tried, [f"{beside}/{name}" for name in names] + names)
        for needed in "libwrapper-audio1", "WRAPPER_AUDIO_LIBRARY", "libportaudio2", "librnnoise0", "libsoxr0":
            self.assertIn(needed, output)

    def test_a_named_library_that_is_not_there_is_not_replaced_by_another(self) -> None:
        folder = str(Path(support.LIBRARY).parent)
        output, _ = self.check(FAIL, WRAPPER_AUDIO_LIBRARY="/nowhere/recorder.so", LD_LIBRARY_PATH=folder)
        self.assertIn("  /nowhere/recorder.so: ", output)
        self.assertEqual(output.count("cannot open shared object"), 1)

    def test_another_library_is_told_by_what_it_lacks(self) -> None:
        output, _ = self.check(FAIL, WRAPPER_AUDIO_LIBRARY="libc.so.6")
        wrong = "libc.so.6 is not libwrapper_audio_recorder.so.1: it lacks wrapper_audio_status_text."
        self.assertEqual(output, f"{wrong} Name the right file\n")

    def test_a_process_keeps_to_one_library(self) -> None:
        output, _ = self.check(
            """
            import wrapper_audio
            first = wrapper_audio.load()
            assert wrapper_audio.load() is first
            try:
                wrapper_audio.load("/elsewhere.so")
            except wrapper_audio.LibraryError as error:
                print(error)
            """
        )
        self.assertTrue(output.startswith(f"{support.LIBRARY} is already loaded, so /elsewhere.so cannot be."), output)


if __name__ == "__main__":
    unittest.main()
