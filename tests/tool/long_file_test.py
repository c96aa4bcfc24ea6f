"""A WAV file of more than 4 GiB: nearly all of it silence, of which the disk keeps nothing."""

import struct
import subprocess
import unittest

from host import FINE, HEADER_BYTES, HostTest


class LongFile(HostTest):
    def test_wav_goes_on_as_rf64_beyond_4_gib(self):
        turn = (2**32 - HEADER_BYTES) // 4
        samples = turn + 100000
        voice = range(-2000, 2000)
        places = 0, turn - 2000, samples - 4000
        with open(self.folder / "long.raw", "wb") as long:
            for place in places:
                long.seek(2 * place)
                long.write(struct.pack("<4000h", *voice))
        result = self.host(
            *["process", "-q", "--raw-rate", 48000, "--bits", "float", "long.raw", self.file],
            microphone={"DISK_HAS_HOLES": "1"},
        )
        self.assertEqual(result, (FINE, "", ""))
        self.assertEqual(self.file.stat().st_size, HEADER_BYTES + 4 * samples)
        with open(self.file, "rb") as file:
            self.assertEqual(file.read(4), b"RF64")
            for place in places:
                file.seek(HEADER_BYTES + 4 * place)
                self.assertEqual(file.read(16000), struct.pack("<4000f", *(i / 2**15 for i in voice)))
        command = ["ffprobe", "-v", "error", "-show_entries", "stream=codec_name,duration_ts", "-of", "csv=p=0"]
        read = subprocess.run([*command, self.file], capture_output=True, text=True, check=True)
        self.assertEqual(read.stdout, f"pcm_f32le,{samples}\n")


if __name__ == "__main__":
    unittest.main()
