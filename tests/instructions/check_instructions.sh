#!/usr/bin/env bash
# Counts the instructions of a 100 ms read outside PortAudio and RNNoise, which do not depend on how busy the machine is.
# The limits are a tenth above what GCC 12's code took on Debian 12 (22.6 and 37.4 thousand).
# Usage: check_instructions.sh COUNT_READS
set -euo pipefail

instructions() { # reads, denoise
  valgrind --tool=callgrind --callgrind-out-file=/dev/null "$count_reads" "$1" "$2" 2>&1 |
    sed -n 's/.*Collected : \([0-9]*\).*/\1/p'
}

count_reads=$1
failures=0
for limit in "without denoising:0:24900" "with denoising:1:41100"; do
  IFS=: read -r what denoise most <<<"$limit"
  ten=$(instructions 10 "$denoise")
  thirty=$(instructions 30 "$denoise")
  count=$(((thirty - ten) / 20))
  echo "a read $what: $count instructions, at most $most"
  [ "$count" -gt 1000 ] && [ "$count" -le "$most" ] || failures=$((failures + 1))
done
exit $((failures > 0))
