#!/usr/bin/env bash
# The reference made from the header has every function, and is not made when a comment is missing or wrong.
# Usage: check_reference.sh SOURCE_FOLDER
set -euo pipefail
source=$1
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

fail() { echo "FAILED: $*"; exit 1; }

make_reference() { "$source/scripts/reference" "$folder/pages" "$@" >"$folder/output" 2>&1; }

make_reference || { cat "$folder/output"; fail "it is not made"; }
sed -n 's|.*class="memtitle".*</span>\(wrapper_audio_[a-z_]*\)()</h2>.*|\1|p' "$folder/pages/index.html" |
  LC_ALL=C sort >"$folder/documented"
grep -oE '\bwrapper_audio_[a-z_]+' "$source/src/wrapper_audio.map" | LC_ALL=C sort >"$folder/exported"
diff "$folder/exported" "$folder/documented" || fail "the functions exported (<) are not those documented (>)"
for heading in Conventions Threads Capture Devices 'Level meter' 'Signal functions'; do
  grep -qE "(^|>)$heading</h2>" "$folder/pages/index.html" || fail "no heading: $heading"
done

refuses() { # what is wrong, then a perl expression that makes the header so
  mkdir -p "$folder/wrong"
  perl -0pe "$2" "$source/wrapper_audio.h" >"$folder/wrong/wrapper_audio.h"
  ! cmp -s "$folder/wrong/wrapper_audio.h" "$source/wrapper_audio.h" || fail "the header was not made wrong: $1"
  ! make_reference "$folder/wrong/wrapper_audio.h" || fail "it is made all the same: $1"
  grep -q 'wrapper_audio.h:[0-9]*: ' "$folder/output" || { cat "$folder/output"; fail "does not say where: $1"; }
}
refuses "a parameter without a word" 's/^ \* \@param capacity.*\n//m'
refuses "a parameter that there is not" 's/\@param capacity/\@param size/'
refuses "a result without a word" 's/ \* \@return the number of samples written, 0 \(then.*?\n \*\n/ *\n/s'
# shellcheck disable=SC2016 # Perl's variables, not the shell's
refuses "a function without a comment" 's/(.*)\/\*\*.*?\*\/\n(float wrapper_audio_snr)/$1$2/s'
refuses "a link to nowhere" 's/wrapper_audio_free\(\)/\@ref wrapper_audio_end/'
echo "ok"
