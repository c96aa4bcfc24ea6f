"""Blocks of samples: numpy arrays where numpy is there, arrays of the standard library where it is not."""

from __future__ import annotations

import ctypes
from array import array
from ctypes import c_float, c_int16
from typing import TYPE_CHECKING, Any, Union

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

_FULL_SCALE = 32767.0


def new_int16(count: int) -> Int16Block:
    return array("h", bytes(2 * count)) if numpy is None else numpy.zeros(count, numpy.int16)


def new_float32(count: int) -> Float32Block:
    return array("f", bytes(4 * count)) if numpy is None else numpy.zeros(count, numpy.float32)


def _as_view(block: Any, code: str, what: str) -> memoryview:
    """Rows with gaps between the samples are left to ctypes, which refuses them with a TypeError too."""
    try:
        view = memoryview(block)
    except TypeError:
        view = None
    if view is None or view.format not in (code, "<" + code) or view.ndim != 1:
        raise TypeError(f"a block is one row of {what}: a numpy array of that type, or an array('{code}')")
    return view


def int16_pointer(block: Int16Block) -> "ctypes.Array[c_int16]":
    """The block's own memory, which cannot be moved as long as the result lives."""
    view = _as_view(block, "h", "16-bit samples")
    return (c_int16 * len(view)).from_buffer(view)


def float32_pointer(block: Float32Block) -> "ctypes.Array[c_float]":
    view = _as_view(block, "f", "32-bit floats")
    if view.readonly:
        raise TypeError("the block cannot be written to, and it is worked on in place")
    return (c_float * len(view)).from_buffer(view)


def float32_to_read(block: Float32Block) -> "ctypes.Array[c_float]":
    view = _as_view(block, "f", "32-bit floats")
    kind = c_float * len(view)
    return kind.from_buffer_copy(view) if view.readonly else kind.from_buffer(view)


def to_float32(block: Int16Block) -> Float32Block:
    """16-bit samples as floats, full scale 1.0: each divided by 32767."""
    view = _as_view(block, "h", "16-bit samples")
    if numpy is None:
        return array("f", (sample / _FULL_SCALE for sample in view))
    return numpy.asarray(view, numpy.float32) / numpy.float32(_FULL_SCALE)


def to_int16(block: Float32Block) -> Int16Block:
    """Floats as 16-bit samples, as the library does it: times 32767, limited, rounded toward zero; NaN becomes 0."""
    view = _as_view(block, "f", "32-bit floats")
    if numpy is None:
        limited = (0.0 if x != x else max(-1.0, min(1.0, x)) for x in view)
        return array("h", map(int, array("f", (x * _FULL_SCALE for x in limited))))
    floats = numpy.nan_to_num(numpy.asarray(view, numpy.float32), nan=0.0, posinf=1.0, neginf=-1.0)
    return (numpy.clip(floats, -1.0, 1.0) * numpy.float32(_FULL_SCALE)).astype(numpy.int16)
