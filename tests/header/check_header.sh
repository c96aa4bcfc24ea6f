#!/usr/bin/env bash
# A public header compiles alone, clean, in every dialect of C and C++ that a host may use; so does its example.
# Usage: check_header.sh HEADER COMPILER...   (compilers of C; their C++ counterparts are tried as well)
set -euo pipefail
header=$1
shift
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
include=(-I "$(dirname "$header")")
strict=(-pedantic -Wall -Wextra -Werror)
failures=0

name=$(basename "$header")
case $name in
  wrapper_audio.h) cat >"$folder/body.c" <<'C'
/* Calls the two placeholders in several ways, which is what their open parameter lists are for. */
float use(wrapper_audio_ctx *ctx);
float use(wrapper_audio_ctx *ctx)
{
    return wrapper_audio_input_volume_get(ctx) + (float)wrapper_audio_input_volume_set(ctx, 0.5f);
}
C
  ;;
  wrapper_audio_recorder.h) cat >"$folder/body.c" <<'C'
#include "wrapper_audio.h" /* both go together, in either order */
/* The layouts that bindings in other languages repeat, on x86-64. */
typedef char status_is_32_bits[sizeof(wrapper_audio_status) == 4 ? 1 : -1];
typedef char options_are_64_bytes[sizeof(wrapper_audio_recorder_options) == 64 ? 1 : -1];
typedef char a_block_is_48_bytes[sizeof(wrapper_audio_block) == 48 ? 1 : -1];
typedef char info_is_56_bytes[sizeof(wrapper_audio_recorder_info) == 56 ? 1 : -1];
typedef char a_device_is_48_bytes[sizeof(wrapper_audio_device) == 48 ? 1 : -1];
typedef char speech_options_are_64_bytes[sizeof(wrapper_audio_speech_options) == 64 ? 1 : -1];
typedef char a_speech_piece_is_24_bytes[sizeof(wrapper_audio_speech_piece) == 24 ? 1 : -1];
typedef char voice_options_are_20_bytes[sizeof(wrapper_audio_voice_options) == 20 ? 1 : -1];
wrapper_audio_status use(wrapper_audio_recorder *recorder, wrapper_audio_ctx *ctx);
wrapper_audio_status use(wrapper_audio_recorder *recorder, wrapper_audio_ctx *ctx)
{
    int16_t pcm[160];
    wrapper_audio_block block;
    wrapper_audio_free(ctx);
    return wrapper_audio_recorder_read_s16(recorder, pcm, 160, -1, &block);
}
C
  ;;
  *) echo "FAILED: what is in $name?"; exit 1 ;;
esac
{ printf '#include "%s"\n' "$name" "$name"; cat "$folder/body.c"; } >"$folder/use.c"
sed -n '/@code/,/@endcode/p' "$header" | sed -e '/@code/d' -e '/@endcode/d' -e 's/^ \* \{0,1\}//' >"$folder/example.c"
lines=$(grep -c . "$folder/example.c")
[ "$lines" -ge 15 ] || { echo "FAILED: no example of 15 lines or more in the header, but $lines"; failures=1; }

try() { # description, command...
  local what=$1
  shift
  if "$@" >"$folder/output" 2>&1; then
    echo "ok: $what"
  else
    failures=$((failures + 1))
    echo "FAILED: $what"
    sed 's/^/  /' "$folder/output"
  fi
}

for compiler in "$@"; do
  case $compiler in
    *gcc*) cxx=${compiler/gcc/g++} ;;
    *clang*) cxx=${compiler/clang/clang++} ;;
    *) echo "FAILED: which C++ compiler goes with $compiler?"; exit 1 ;;
  esac
  for std in c99 c11 c17 gnu17; do
    try "$compiler -std=$std" "$compiler" -std=$std "${strict[@]}" -Wstrict-prototypes "${include[@]}" -fsyntax-only "$folder/use.c"
  done
  try "$compiler, the example, C99" "$compiler" -std=c99 "${strict[@]}" "${include[@]}" -fsyntax-only "$folder/example.c"
  for std in c++11 c++14 c++17 c++20; do
    try "$cxx -std=$std" "$cxx" -x c++ -std=$std "${strict[@]}" "${include[@]}" -fsyntax-only "$folder/use.c"
  done
  echo 'int unused_without_header_guard(void) { return undeclared_name; }' >"$folder/wrong.c"
  if "$compiler" -std=c99 "${strict[@]}" -fsyntax-only "$folder/wrong.c" 2>/dev/null; then
    failures=$((failures + 1))
    echo "FAILED: $compiler accepts a wrong program, so the checks above mean nothing"
  fi
done
exit $((failures > 0))
