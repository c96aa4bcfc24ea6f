#!/usr/bin/env bash
# The programs in README.md and the headers compile without a warning, run, and do what is said of them; and the twenty
# lines of the recorder layer's header are the twenty lines of the README.
# Usage: check_readme.sh SOURCE_FOLDER BUILD_FOLDER
set -euo pipefail
source=$1 build=$2
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

fail() { echo "FAILED: $*"; exit 1; }

awk -v folder="$folder" '/^```c$/ { file = folder "/program" ++n ".c"; next } /^```/ { file = "" } file { print > file }' \
  "$source/README.md"
[ "$(ls "$folder")" = program1.c ] || fail "README.md does not have one program"

program_of() { sed -n '/@code/,/@endcode/p' "$1" | sed -e '/@code/d' -e '/@endcode/d' -e 's/^ \* \{0,1\}//'; }
program_of "$source/wrapper_audio_recorder.h" | diff - "$folder/program1.c" ||
  fail "the program in the recorder layer's header differs from the one in README.md"
program_of "$source/wrapper_audio.h" >"$folder/program2.c"

for n in 1 2; do
  cc -std=c99 -pedantic -Wall -Wextra -Werror -I "$source" "$folder/program$n.c" -o "$folder/program$n" \
    -L"$build" -lwrapper_audio_recorder -lwrapper_audio -Wl,-rpath,"$build"
done

config=$("$source/scripts/file-microphone" "$source/tests/data/speech_in_noise_48k.raw" "$folder")
for n in 1 2; do
  ALSA_CONFIG_PATH=$config JACK_NO_START_SERVER=1 "$folder/program$n" >"$folder/three_seconds" 2>"$folder/messages" ||
    { cat "$folder/messages"; fail "program $n failed"; }
  [ "$(stat -c %s "$folder/three_seconds")" -eq 96000 ] || fail "three seconds at 16000 Hz are not 96000 bytes"
  [ "$(tr -d '\0' <"$folder/three_seconds" | wc -c)" -gt 40000 ] || fail "three seconds of speech are mostly zeros"
done
echo "ok"
