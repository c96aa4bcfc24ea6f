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

check_page() { # header, map, headings...
  local header=$1 map=$2 page
  shift 2
  page=$folder/pages/$(sed -e 's/_/__/g' -e 's/\./_8/' <<<"$header").html
  grep -qF "href=\"${page##*/}\"" "$folder/pages/index.html" || fail "index.html does not lead to $header"
  sed -n 's|.*class="memtitle".*</span>\(wrapper_audio_[a-z0-9_]*\)()</h2>.*|\1|p' "$page" | LC_ALL=C sort >"$folder/documented"
  grep -oE '\bwrapper_audio_[a-z0-9_]+' "$source/src/$map" | LC_ALL=C sort >"$folder/exported"
  diff "$folder/exported" "$folder/documented" || fail "$header: the functions exported (<) are not those documented (>)"
  for heading in "$@"; do
    grep -qE "(^|>)$heading</h2>" "$page" || fail "$header: no heading: $heading"
  done
}
check_page wrapper_audio.h wrapper_audio.map \
  Conventions Threads Capture Devices 'Level meter' 'Signal functions'
check_page wrapper_audio_recorder.h recorder/wrapper_audio_recorder.map \
  Conventions Threads 'Standard error' Status Devices Recorder 'Signal processors' Log
for word in WRAPPER_AUDIO_OK WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK WRAPPER_AUDIO_TEXT_REASON; do
  grep -q ">$word&#160;</td>" "$folder/pages/wrapper__audio__recorder_8h.html" || fail "no number: $word"
done
for structure in device recorder_options block recorder_info voice_options; do
  grep -q "href=\"structwrapper__audio__${structure/_/__}.html\"" "$folder/pages/wrapper__audio__recorder_8h.html" &&
    grep -q 'class="memdesc:' "$folder/pages/structwrapper__audio__${structure/_/__}.html" || fail "no structure: $structure"
done

refuses() { # what is wrong, a header, then a perl expression that makes it so
  local header=$2
  mkdir -p "$folder/wrong"
  perl -0pe "$3" "$source/$header" >"$folder/wrong/$header"
  ! cmp -s "$folder/wrong/$header" "$source/$header" || fail "the header was not made wrong: $1"
  ! make_reference "$folder/wrong/$header" || fail "it is made all the same: $1"
  grep -q "$header:[0-9]*: " "$folder/output" || { cat "$folder/output"; fail "does not say where: $1"; }
}
refuses "a parameter without a word" wrapper_audio.h 's/^ \* \@param capacity.*\n//m'
refuses "a parameter that there is not" wrapper_audio.h 's/\@param capacity/\@param size/'
refuses "a result without a word" wrapper_audio.h 's/ \* \@return the number of samples written, 0 \(then.*?\n \*\n/ *\n/s'
# shellcheck disable=SC2016 # Perl's variables, not the shell's
refuses "a function without a comment" wrapper_audio.h 's/(.*)\/\*\*.*?\*\/\n(float wrapper_audio_snr)/$1$2/s'
refuses "a link to nowhere" wrapper_audio.h 's/wrapper_audio_free\(\)/\@ref wrapper_audio_end/'
refuses "a parameter without a word" wrapper_audio_recorder.h 's/^ \* \@param timeout_ms.*\n//m'
# shellcheck disable=SC2016 # as above
refuses "a member without a word" wrapper_audio_recorder.h 's/(float captured_peak;).*/$1/'
echo "ok"
