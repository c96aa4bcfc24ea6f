"""python -m wrapper_audio: lists the audio devices."""

from __future__ import annotations

import sys

from . import AudioError, Status, devices
from ._library import advice


def main() -> int:
    try:
        found = devices()
    except AudioError as error:
        print(f"wrapper_audio: {error}", file=sys.stderr)
        return 1
    rows = [("ID", "NAME", "KIND", "RATE", "DENOISING")]
    for device in found:
        rows.append((device.id, device.name, device.kind, str(device.default_rate), device.denoising.name.lower()))
    widths = [max(len(row[column]) for row in rows) for column in range(5)]
    for row, mark in zip(rows, [" "] + ["*" if device.is_default else " " for device in found]):
        cells = "  ".join(f"{cell:{width}}" for cell, width in zip(row, widths))
        sys.stdout.buffer.write(f"{mark} {cells.rstrip()}\n".encode(errors="surrogateescape"))
    sys.stdout.flush()
    inputs = any(device.kind == "input" for device in found)
    if not inputs:
        print(f"wrapper_audio: there is no input device. {advice(Status.NO_INPUT_DEVICE)}", file=sys.stderr)
    return 0 if inputs else 1


if __name__ == "__main__":
    sys.exit(main())
