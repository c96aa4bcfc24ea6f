#!/usr/bin/env bash
# Counts the instructions of a 100 ms read outside PortAudio and RNNoise, which do not depend on how busy the machine is.
# The limits are a tenth above what GCC 12's code took on Debian 12: 22.6 and 37.4 thousand on x86-64, 21.7 and 34.0 on
# arm64.
# Usage: check_instructions.sh COUNT_READS [EMULATOR...]   for another processor, QEMU and its options
set -euo pipefail
count_reads=$1
emulator=("${@:2}")

limits=("without denoising:0:24900" "with denoising:1:41100")
if [ ${#emulator[@]} -gt 0 ]; then
  limits=("without denoising:0:23900" "with denoising:1:37400")
  one_at_a_time=-one-insn-per-tb
  [[ $("${emulator[0]}" --help) = *$one_at_a_time* ]] || one_at_a_time=-singlestep # before QEMU 8.1
fi

instructions() { # reads, denoise
  if [ ${#emulator[@]} -gt 0 ]; then
    "${emulator[@]}" "$one_at_a_time" -d exec,nochain -D /dev/stdout "$count_reads" "$1" "$2" | grep -c '^Trace'
  else
    valgrind --tool=callgrind --callgrind-out-file=/dev/null "$count_reads" "$1" "$2" 2>&1 |
      sed -n 's/.*Collected : \([0-9]*\).*/\1/p'
  fi
}

failures=0
for limit in "${limits[@]}"; do
  IFS=: read -r what denoise most <<<"$limit"
  ten=$(instructions 10 "$denoise")
  thirty=$(instructions 30 "$denoise")
  count=$(((thirty - ten) / 20))
  echo "a read $what: $count instructions, at most $most"
  [ "$count" -gt 1000 ] && [ "$count" -le "$most" ] || failures=$((failures + 1))
done
exit $((failures > 0))
