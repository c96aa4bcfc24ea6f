"""python -m wrapper_audio: what there is to record from."""

from __future__ import annotations

import os
import sys
import tempfile

from . import AudioError, devices


def main() -> int:
    # PortAudio's back ends print about a hundred lines when they look for devices. This is a process of our own, with
    # one thread and no children, so that descriptor 2 may be put aside.
    sys.stderr.flush()
    standard_error = os.dup(2)
    with tempfile.TemporaryFile() as aside:
        os.dup2(aside.fileno(), 2)
        try:
            found = devices()
        except AudioError as error:
            os.dup2(standard_error, 2)  # `finally` comes later
            print(f"wrapper_audio: {error}", file=sys.stderr)
            return 1
        finally:
            os.dup2(standard_error, 2)
        inputs = any(device.kind == "input" for device in found)
        if not inputs:
            aside.seek(0)
            os.write(2, aside.read())
    rows = [("ID", "NAME", "KIND")] + [(device.id, device.name, device.kind) for device in found]
    widths = [max(len(row[column]) for row in rows) for column in (0, 1)]
    for row, mark in zip(rows, [" "] + ["*" if device.is_default else " " for device in found]):
        line = f"{mark} {row[0]:{widths[0]}}  {row[1]:{widths[1]}}  {row[2]}\n"
        sys.stdout.buffer.write(line.encode(errors="surrogateescape"))
    sys.stdout.flush()
    if not inputs:
        print("wrapper_audio: there is no input device", file=sys.stderr)
    return 0 if inputs else 1


if __name__ == "__main__":
    sys.exit(main())
