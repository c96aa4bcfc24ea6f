"""The binding's signatures are those of the header."""

import ctypes
import re
import subprocess
import unittest
from typing import Any, Dict, List, Optional, Tuple

import support
from wrapper_audio import _library

VALUES = {
    "void": None,
    "int": ctypes.c_int,
    "int32_t": ctypes.c_int32,
    "float": ctypes.c_float,
    "const char *": ctypes.c_char_p,
    "char *": ctypes.c_void_p,  # has to be given back by its address
    "const void *": ctypes.c_void_p,
    "int16_t *": ctypes.POINTER(ctypes.c_int16),
    "int32_t *": ctypes.POINTER(ctypes.c_int32),
    "float *": ctypes.POINTER(ctypes.c_float),
    "const float *": ctypes.POINTER(ctypes.c_float),
}


def ctypes_type(declared: str) -> Any:
    declared = " ".join(declared.split()).replace(" *", "*").replace("*", " *")
    if re.fullmatch(r"(const )?wrapper_audio_(ctx|meter|resampler) \*", declared):
        return ctypes.c_void_p
    return VALUES[declared]


def argument_type(declared: str) -> Any:
    return ctypes_type(re.sub(r"\w+$", "", declared.strip()))  # without its name


def declared_in(header: str) -> Dict[str, Tuple[Any, Optional[List[Any]]]]:
    text = re.sub(r"/\*.*?\*/", "", header, flags=re.DOTALL)
    text = re.sub(r"^#.*$", "", text, flags=re.MULTILINE)
    found: Dict[str, Tuple[Any, Optional[List[Any]]]] = {}
    for result, name, arguments in re.findall(r"([\w ]+\*?)\s*\b(wrapper_audio_\w+)\(([^)]*)\)[^;(]*;", text):
        if arguments == "WRAPPER_AUDIO_ANY_ARGUMENTS":
            taken = None
        elif arguments == "void":
            taken = []
        else:
            taken = [argument_type(argument) for argument in arguments.split(",")]
        found[name] = ctypes_type(result.strip()), taken
    return found


class Signatures(unittest.TestCase):
    def setUp(self) -> None:
        self.declared = declared_in((support.ROOT / "wrapper_audio.h").read_text())

    def test_every_function_of_the_header_has_its_result_and_arguments_in_the_binding(self) -> None:
        self.maxDiff = None
        self.assertEqual(len(self.declared), 27)
        self.assertEqual(_library.SIGNATURES, self.declared)

    def test_the_library_exports_what_the_header_declares(self) -> None:
        symbols = subprocess.run(
            ["nm", "--dynamic", "--defined-only", "--format=posix", support.LIBRARY],
            check=True,
            stdout=subprocess.PIPE,
            text=True,
        ).stdout
        self.assertEqual({line.split()[0] for line in symbols.splitlines()}, set(self.declared))

    def test_a_drift_is_seen(self) -> None:
        header = (support.ROOT / "wrapper_audio.h").read_text()
        for change in (
            ("wrapper_audio_hpf_init(float cutoff_hz, float q)", "wrapper_audio_hpf_init(float cutoff_hz, int q)"),
            ("wrapper_audio_stop(wrapper_audio_ctx *ctx)", "wrapper_audio_stop(wrapper_audio_ctx *ctx, int32_t now)"),
            ("float wrapper_audio_snr(void)", "int wrapper_audio_snr(void)"),
            ("void wrapper_audio_free_text(char *text)", "void wrapper_audio_free_text(int *text)"),
            ("float wrapper_audio_snr(void)", "float wrapper_audio_snr_db(void)"),
        ):
            self.assertIn(change[0], header)
            changed = header.replace(*change)
            try:
                declared = declared_in(changed)
            except KeyError:
                continue  # a type that the binding does not know at all
            self.assertNotEqual(declared, _library.SIGNATURES, change)

    def test_the_loaded_functions_carry_the_signatures(self) -> None:
        library = _library.load()
        for name, (result, arguments) in _library.SIGNATURES.items():
            function = getattr(library, name)
            self.assertEqual(function.restype, result, name)
            self.assertEqual(function.argtypes, arguments, name)
        self.assertEqual(library.wrapper_audio_input_volume_get(), -1.0)
        self.assertEqual(library.wrapper_audio_input_volume_set(), -1)


if __name__ == "__main__":
    unittest.main()
