#!/usr/bin/env bash
# Makes speech_in_noise_48k.raw, next to this script or where the first argument says: six seconds of a synthetic voice
# in steady noise with mains hum. With the same versions of espeak-ng and sox the result is the same to the last bit.
# A second argument is another level of the noise, in dBFS.
set -euo pipefail

text='The window is open, and the street is loud. Can you still hear every word?'
seconds=6       # in all
lead_in=0.8     # seconds of noise alone before the voice
voice_rms=-20   # dBFS, over the voice with its pauses
noise_rms=${2:--33} # dBFS, hum included: 13 dB below the voice
rate=48000      # Hz

target=${1:-$(dirname "${BASH_SOURCE[0]}")/speech_in_noise_48k.raw}

for tool in espeak-ng sox; do
  command -v "$tool" >/dev/null || {
    printf '%s: %s is missing; install it: apt-get install espeak-ng sox\n' "${0##*/}" "$tool" >&2
    exit 1
  }
done

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

# Files in between are 32-bit floats: nothing is rounded or clipped before the end. -R seeds the noise with a constant,
# -D keeps dither out.
float=(-r "$rate" -c 1 -b 32 -e floating-point)
sox() { command sox -R -D "$@"; }

# Prints the factor that brings a file to an RMS in dBFS.
factor() { # file dBFS
  sox "$1" -n stat 2>&1 |
    awk -v db="$2" '/^RMS +amplitude/ { printf "%.6f", 10 ^ (db / 20) / $3 }'
}

espeak-ng -v en-us -s 165 -w "$folder/spoken.wav" "$text"
sox "$folder/spoken.wav" "${float[@]}" "$folder/voice.wav" pad "$lead_in" 0
sox -n "${float[@]}" "$folder/pink.wav" synth "$seconds" pinknoise
sox -n "${float[@]}" "$folder/hum.wav" synth "$seconds" sine 50 synth "$seconds" sine mix 150 gain -14
sox -m -v 1 "$folder/pink.wav" -v 1 "$folder/hum.wav" "${float[@]}" "$folder/noise.wav"

voice_factor=$(factor "$folder/spoken.wav" "$voice_rms")
noise_factor=$(factor "$folder/noise.wav" "$noise_rms")
sox -m -v "$voice_factor" "$folder/voice.wav" -v "$noise_factor" "$folder/noise.wav" \
  -t raw -b 16 -e signed-integer -L "$target"
