"""The table of the library's interface is that of the headers, as a C compiler sees them."""

import ctypes
import inspect
import subprocess
import tempfile
import unittest
from pathlib import Path
from typing import Dict, List, Type

import support
from wrapper_audio import _interface, load

HEADERS = ["wrapper_audio.h", "wrapper_audio_recorder.h"]
MADE = ["bindings/python/wrapper_audio/_interface.py", "bindings/node/lib/interface.js"]

STRUCTS: Dict[str, Type[ctypes.Structure]] = {
    "wrapper_audio_device": _interface.Device,
    "wrapper_audio_recorder_options": _interface.RecorderOptions,
    "wrapper_audio_block": _interface.Block,
    "wrapper_audio_recorder_info": _interface.RecorderInfo,
    "wrapper_audio_voice_options": _interface.VoiceOptions,
    "wrapper_audio_speech_options": _interface.SpeechOptions,
    "wrapper_audio_speech_piece": _interface.SpeechPiece,
}
ENUMS = {
    "WRAPPER_AUDIO_": _interface.Status,
    "WRAPPER_AUDIO_DENOISING_": _interface.Denoising,
    "WRAPPER_AUDIO_CONVERSION_": _interface.Conversion,
    "WRAPPER_AUDIO_TEXT_": _interface.RecorderTextKind,
}


class Interface(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def test_structs_and_enums_are_what_a_c_compiler_makes_of_the_header(self) -> None:
        self.assertEqual(set(STRUCTS.values()), self.classes_below(ctypes.Structure))
        claims: List[str] = []
        for c_name, struct in STRUCTS.items():
            claims.append(f"sizeof({c_name}) == {ctypes.sizeof(struct)}")
            for name, *_ in struct._fields_:
                field = getattr(struct, name)
                claims.append(f"offsetof({c_name}, {name}) == {field.offset}")
                claims.append(f"sizeof((({c_name} *)0)->{name}) == {field.size}")
        for prefix, enum in ENUMS.items():
            claims += [f"{prefix}{member.name} == {member.value}" for member in enum]
        self.assertGreater(len(claims), 80)
        program = self.folder / "claims.c"
        lines = [f'_Static_assert({claim}, "{claim}");' for claim in claims]
        program.write_text("\n".join(["#include <stddef.h>", "#include <wrapper_audio_recorder.h>", *lines]) + "\n")
        compile_it = ["cc", "-std=c11", "-fsyntax-only", f"-I{support.ROOT}", str(program)]
        done = subprocess.run(compile_it, capture_output=True, text=True)
        self.assertEqual(done.returncode, 0, done.stderr)

    def classes_below(self, base: type) -> "set[type]":
        every = inspect.getmembers(_interface, inspect.isclass)
        return {kind for _, kind in every if issubclass(kind, base) and kind is not base}

    def test_the_libraries_export_what_the_tables_have(self) -> None:
        recorder = Path(support.LIBRARY)
        core = recorder.with_name(recorder.name.replace("_recorder", ""))
        for library, table in (recorder, _interface.FUNCTIONS), (core, _interface.CORE_FUNCTIONS):
            list_symbols = ["nm", "--dynamic", "--defined-only", "--format=posix", str(library)]
            symbols = subprocess.run(list_symbols, check=True, capture_output=True, text=True).stdout
            self.assertEqual({line.split()[0].split("@")[0] for line in symbols.splitlines()}, set(table), library)

    def test_the_loaded_functions_carry_the_signatures(self) -> None:
        library = load()
        for name, (result, arguments) in {**_interface.FUNCTIONS, **_interface.CORE_FUNCTIONS}.items():
            function = getattr(library, name)
            self.assertEqual((function.restype, function.argtypes), (result, arguments), name)
        self.assertEqual(library.wrapper_audio_input_volume_set(), -1)
        self.assertEqual(library.wrapper_audio_snr(), -10.0)

    def generate(self, *options: str) -> "subprocess.CompletedProcess[str]":
        return subprocess.run([self.folder / "scripts/generate-bindings", *options], capture_output=True, text=True)

    def test_a_table_that_is_behind_its_header_is_noticed_and_renewed(self) -> None:
        for name in [*HEADERS, *MADE, "scripts/generate-bindings"]:
            (self.folder / name).parent.mkdir(parents=True, exist_ok=True)
            (self.folder / name).write_bytes((support.ROOT / name).read_bytes())
        (self.folder / "scripts/generate-bindings").chmod(0o755)
        self.assertEqual(self.generate("--check").returncode, 0)
        header = self.folder / "wrapper_audio_recorder.h"
        current = header.read_text()
        for old, new in (
            ("WRAPPER_AUDIO_TIMEOUT = 1,", "WRAPPER_AUDIO_TIMEOUT = 3,"),
            ("int32_t stall_ms; ", "float stall_ms; "),
            ("wrapper_audio_log_echo(int32_t on)", "wrapper_audio_log_echo(int32_t on, int32_t off)"),
            ("uint32_t wrapper_audio_abandoned_threads", "int32_t wrapper_audio_abandoned_threads"),
        ):
            self.assertEqual(current.count(old), 1, old)
            header.write_text(current.replace(old, new))
            stale = self.generate("--check")
            self.assertEqual(stale.returncode, 1, new)
            self.assertEqual(stale.stderr.count("is not current"), 2, stale.stderr)
        self.assertEqual(self.generate().returncode, 0)
        self.assertEqual(self.generate("--check").returncode, 0)
        self.assertIn("(c_int32, [])", (self.folder / MADE[0]).read_text())
        header.write_text(current.replace("float denoise;", "float *denoise(void);"))
        unknown = self.generate("--check")
        self.assertNotEqual(unknown.returncode, 0)
        self.assertIn("cannot read: float *denoise(void)", unknown.stderr)


if __name__ == "__main__":
    unittest.main()
