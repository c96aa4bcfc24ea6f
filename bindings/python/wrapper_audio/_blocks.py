"""Blocks of samples: numpy arrays if numpy is installed, otherwise arrays of the standard library."""

from __future__ import annotations

from array import array
from ctypes import c_float, c_int16
from typing import TYPE_CHECKING, Any, Dict, Tuple, Union

from ._library import check, load

if TYPE_CHECKING:
    import numpy
    from numpy.typing import NDArray
else:
    try:
        import numpy
    except ImportError:
        numpy = None

Int16Block = Union["NDArray[numpy.int16]", "array[int]"]
Float32Block = Union["NDArray[numpy.float32]", "array[float]"]

_TYPES: Dict[str, Any] = {"h": c_int16, "f": c_float}


def new_block(code: str, count: int) -> Any:
    """A block of zeros; the code is "h" or "f", as in an array."""
    return array(code, bytes(array(code).itemsize * count)) if numpy is None else numpy.zeros(count, code)


def samples_of(block: Any, codes: str, written: bool = False) -> Tuple[str, Any]:
    """The block's code and its own memory, which cannot be moved while the result exists."""
    try:
        view = memoryview(block)
    except TypeError:
        view = memoryview(b"")
    code = view.format.lstrip("<")
    if code not in tuple(codes) or view.ndim != 1 or not view.contiguous or (written and view.readonly):
        kinds = " or ".join({"h": "16-bit samples", "f": "32-bit floats"}[code] for code in codes)
        raise TypeError(f"the block must be a single row of {kinds}: pass a numpy array of that type, or an "
                        f"array('{codes[0]}')")
    kind = _TYPES[code] * len(view)
    return code, kind.from_buffer_copy(view) if view.readonly else kind.from_buffer(view)


def to_float32(block: Int16Block) -> Float32Block:
    """16-bit samples as floats, full scale 1.0: each divided by 32767."""
    _, samples = samples_of(block, "h")
    converted: Float32Block = new_block("f", len(samples))
    check(load().wrapper_audio_s16_to_f32(samples, len(samples), samples_of(converted, "f")[1]))
    return converted


def to_int16(block: Float32Block) -> Int16Block:
    """Floats as 16-bit samples: times 32767, rounded to the nearest, limited to full scale; NaN becomes 0."""
    _, samples = samples_of(block, "f")
    converted: Int16Block = new_block("h", len(samples))
    check(load().wrapper_audio_f32_to_s16(samples, len(samples), samples_of(converted, "h")[1]))
    return converted
