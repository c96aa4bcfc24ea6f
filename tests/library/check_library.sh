#!/usr/bin/env bash
# Holds a built shared object against its promises: exports, names, needs, hardening, arithmetic.
# Usage: check_library.sh LIBRARY HEADER MAP COMPILER OBJDUMP   (GNU or Clang, and what reads its code)
set -euo pipefail
library=$1 header=$2 map=$3 compiler=$4 objdump=$5
failures=0

expect() { # what, expected, actual
  if [ "$2" = "$3" ]; then
    echo "ok: $1"
  else
    failures=$((failures + 1))
    printf 'FAILED: %s\n  expected: %s\n  actual:   %s\n' "$1" "${2//$'\n'/ }" "${3//$'\n'/ }"
  fi
}

case $(readelf -h "$library") in
  *AArch64*) loader=ld-linux-aarch64.so.1 canary=$loader # where the stack's guard is
     multiplies=fmul others='^(fn?m(add|sub)|fml[as])' control='^msr.*fpcr' protection=paciasp ;;
  *) loader=ld-linux-x86-64.so.2 canary=
     multiplies=mulss others='^v|fmadd|fmsub|fnmadd|fnmsub' control='^(ldmxcsr|fldcw|fldenv|fxrstor|frstor)' protection= ;;
esac
name=$(basename "$header" .h)
case $name in
  wrapper_audio)
    functions=27
    needs=(${canary:+"$canary"} libc.so.6 libm.so.6 libportaudio.so.2 librnnoise.so.0) ;;
  wrapper_audio_recorder)
    functions=53
    needs=("$loader" libasound.so.2 libc.so.6 libgcc_s.so.1 libm.so.6 libportaudio.so.2 librnnoise.so.0
           libsoxr.so.0 libstdc++.so.6 libwrapper_audio.so.1) ;;
  *) echo "FAILED: what does $name promise?"; exit 1 ;;
esac

exports=$(nm -D --defined-only "$library" | awk '{print $NF}' | LC_ALL=C sort)
declared=$(perl -0777 -pe 's|/\*.*?\*/||gs' "$header" | grep -oE '\bwrapper_audio_[a-z0-9_]+\(' | tr -d '(' | LC_ALL=C sort)
mapped=$(grep -oE '\bwrapper_audio_[a-z0-9_]+' "$map" | LC_ALL=C sort)
expect "exports what the header declares and nothing else" "$declared" "$exports"
expect "the version script lists the same" "$declared" "$mapped"
expect "how many functions that are" "$functions" "$(wc -l <<<"$exports")"

dynamic=$(readelf -dW "$library")
needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic" | LC_ALL=C sort)
expect "needs these libraries and no others" "$(printf '%s\n' "${needs[@]}")" "$needed"
expect "soname" "lib$name.so.1" "$(sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p' <<<"$dynamic")"
expect "real name" "lib$name.so.1.0.0" "$(basename "$(readlink -f "$library")")"
expect "binds at load time" 1 "$(grep -c 'BIND_NOW' <<<"$dynamic")"
expect "has no text relocations" 0 "$(grep -c 'TEXTREL' <<<"$dynamic" || true)"

segments=$(readelf -lW "$library")
expect "relocations are read-only" 1 "$(grep -c 'GNU_RELRO' <<<"$segments")"
expect "the stack is not executable" RW "$(awk '$1 == "GNU_STACK" {print $7}' <<<"$segments")"

imports=$(nm -D --undefined-only "$library" | awk '{print $NF}' | sed 's/@.*//')
expect "the stack is protected" __stack_chk_fail "$(grep -x __stack_chk_fail <<<"$imports")"
if [ "$name" = wrapper_audio ]; then
  expect "has no run path" 0 "$(grep -cE 'R(UN)?PATH' <<<"$dynamic" || true)"
  if [ "$compiler" = GNU ]; then # the C library's checked formatting is made of features that clang does not have in C++
    expect "formatting is fortified" __fprintf_chk "$(grep -x __fprintf_chk <<<"$imports")"
  fi
  expect "calls nothing of C++'s run time" "" "$(grep -E '^(_Z|__cxa_(throw|begin|guard)|__gxx)' <<<"$imports" || true)"
else
  expect "stays loaded" 1 "$(grep -c 'FLAGS_1.*NODELETE' <<<"$dynamic" || true)"
fi

code=$("$objdump" -d --no-show-raw-insn "$library" | awk -F'\t' 'NF > 1 {print $2, $3}' | sort -u)
expect "the disassembly was understood" "$multiplies" "$(grep -o "^$multiplies\b" <<<"$code" | sort -u)"
expect "return addresses are signed where the processor can" "$protection" "$(grep -ox "paciasp *" <<<"$code" | tr -d ' ' || true)"
expect "multiplies and adds apart, with what every processor of its kind has" "" "$(grep -E "$others" <<<"$code" || true)"
expect "leaves the host's floating-point control alone" "" "$(grep -E "$control" <<<"$code" || true)"

exit $((failures > 0))
