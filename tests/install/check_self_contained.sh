#!/usr/bin/env bash
# What carries its libraries along, without installing it: what is in it, what it needs of the system, whether that makes
# the same again, and whether it works in company. check_bare_roots.sh is about where it has no company at all. Exits with
# 77 where something could not be tried.
# Usage: check_self_contained.sh FOLDER   where scripts/package has put it
set -euo pipefail
packages=$(realpath "$1")
here=$(cd "$(dirname "$0")" && pwd)
source=$(realpath "$here/../..")
folder=$(mktemp -d /tmp/wrapper-audio.XXXXXX) # not in TMPDIR: ALSA_CONFIG_PATH takes neither space nor colon
trap 'rm -rf "$folder"' EXIT
unset LD_LIBRARY_PATH
skipped=0

fail() { echo "FAILED: $*"; exit 1; }
expect() { # what, expected, actual
  [ "$2" = "$3" ] || { printf 'FAILED: %s\n  expected: %s\n  actual:   %s\n' "$1" "${2//$'\n'/ }" "${3//$'\n'/ }"; exit 1; }
}

version=$(dpkg-parsechangelog --file "$source/cmake/packages/changelog" --show-field Version)
major=${version%%.*}
machine=$(uname -m)
case $machine in # as Node calls it
  x86_64) node_machine=x64 ;;
  aarch64) node_machine=arm64 ;;
  *) node_machine=$machine ;;
esac
libdir=/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
name=wrapper_audio-$version-linux-$machine
wheel=$(cd "$packages" && printf '%s' *.whl)
expect "what was made" "$(LC_ALL=C sort <<<"$name.tar.gz
wrapper-audio-$version.tgz
wrapper-audio-linux-$node_machine-$version.tgz
$wheel")" "$(cd "$packages" && printf '%s\n' *gz *.whl | LC_ALL=C sort)"

tar -C "$folder" -xf "$packages/$name.tar.gz"
tarball=$folder/$name
python3 -m zipfile -e "$packages/$wheel" "$folder/wheel"
module=$folder/wheel/wrapper_audio
for package in "wrapper-audio-$version" "wrapper-audio-linux-$node_machine-$version"; do
  mkdir "$folder/$package"
  tar -C "$folder/$package" -xf "$packages/$package.tgz"
done
platform=$folder/wrapper-audio-linux-$node_machine-$version/package
dpkg-deb -x "$packages/libwrapper-audio${major}_${version}_$(dpkg --print-architecture).deb" "$folder/deb"

# Without the numbers that another Debian may have.
names() { (cd "$1" && find . -type f -o -type l) | sed 's|^\./||; s/-wrapper_audio\.so\.[0-9]*$/.so/' | LC_ALL=C sort; }
for_libraries=(libgomp libjack libportaudio librnnoise libsoxr)
for_program=(libFLAC libebur128 libmp3lame libmpg123 libogg libopus libsndfile libvorbis libvorbisenc)
expect "the files of the tarball" "$({
    sed -e "s|LIBDIR|lib|" -e "s/VERSION/$version/" -e "s/MAJOR/$major/" -e 's/ -> .*//' "$here/expected_files"
    printf 'lib/%s.so\n' "${for_libraries[@]}" "${for_program[@]}"
  } | LC_ALL=C sort)" "$(names "$tarball" | grep -v '^share/doc/wrapper_audio/licences/')"
libraries=$(printf '%s\n' "${for_libraries[@]/%/.so}" libwrapper_audio{,_recorder}.so."$major" | LC_ALL=C sort)
expect "the libraries of the wheel" "$libraries" "$(names "$module" | grep '\.so')"
expect "the wheel's modules" "$(cd "$source/bindings/python/wrapper_audio" && printf '%s\n' *.py py.typed | LC_ALL=C sort)" \
  "$(names "$module" | grep -v '\.so')"
expect "the files for npm" "$libraries
package.json" "$(names "$platform" | grep -v '^licences/')"
expect "the files of the binding for npm" "README.md index.d.ts index.js package.json" \
  "$(names "$folder/wrapper-audio-$version/package" | grep -v '^lib/' | xargs)"
diff -r "$source/bindings/node/lib" "$folder/wrapper-audio-$version/package/lib"
for library in "$module"/*.so.*; do
  cmp "$library" "$platform/${library##*/}"
done
for path in "$source" "$packages" ${HOME:+"$HOME"}; do
  [ "$path" = / ] || ! grep -rlF --exclude="lib[!j]*-wrapper_audio.so.*" "$path" "$folder" || fail "these hold the path $path"
done
echo "ok: files"

# Whatever a file needs lies beside it, or is the system's.
system='ld-linux-[-a-z0-9_]*\.so\.[12]|lib(c|m|dl|pthread)\.so\.6|lib(dl|pthread)\.so\.[02]|libgcc_s\.so\.1|libasound\.so\.2'
dynamic() { readelf -dW "$1" | sed -nE "s/.*\(($2)\).*\[(.*)\]/\2/p"; }
for file in "$tarball/bin/wrapper-audio" "$tarball"/lib/*.so.* "$module"/*.so.*; do
  beside=$(dirname "$file")
  run_path=\$ORIGIN
  if [ "${beside##*/}" = bin ]; then
    beside=$tarball/lib
    run_path+=/../lib
  fi
  expect "the run path of $file" "$run_path" "$(dynamic "$file" 'RUNPATH|RPATH')"
  while read -r needed; do
    [ -e "$beside/$needed" ] || [[ $needed =~ ^($system)$ ]] || fail "$file needs $needed, which is not there"
  done < <(dynamic "$file" NEEDED)
done
glibc=$(readelf -V "$module"/*.so.* | sed -n 's/.*GLIBC_\([0-9.]*\).*/\1/p' | sort -uV | tail -n 1)
expect "what the wheel says it runs with" "wrapper_audio-$version-py3-none-manylinux_${glibc/./_}_$machine.whl" "$wheel"
expect "what the wheel's text says" "py3-none-${wheel##*-none-}" \
  "$(sed -n 's/^Tag: //p' "$folder"/wheel/*.dist-info/WHEEL).whl"
echo "ok: needs no more than glibc $glibc, libgcc_s and libasound"

# Carried libraries are the system's but for names; ours are those of the Debian package but for what they link.
exports() { nm -D --defined-only "$1" | awk '{ print $2, $3 }' | LC_ALL=C sort; }
for file in "$tarball"/lib/*-wrapper_audio.so.*; do
  original=${file##*/}
  original=$libdir/${original/-wrapper_audio/}
  case ${file##*/} in
    libjack-*) expect "what ${file##*/} exports" \
      "$(nm -D --undefined-only "$libdir/libportaudio.so.2" | awk '/ jack_/ { print $2 }' | LC_ALL=C sort)" \
      "$(exports "$file" | sed 's/.* //')" ;;
    *) expect "what ${file##*/} exports" "$(exports "$original")" "$(exports "$file")" ;;
  esac
  expect "the name of $file" "${file##*/}" "$(dynamic "$file" SONAME)"
done
for library in libwrapper_audio libwrapper_audio_recorder; do
  for file in "$tarball/lib/$library.so" "$module/$library.so.$major"; do
    expect "what $file exports" "$(exports "$folder/deb$libdir/$library.so.$major")" "$(exports "$file")"
  done
done
echo "ok: names and exports"

# Each library says whose it is, and there is that licence with all texts that it names.
for licences in "$tarball/share/doc/wrapper_audio/licences" "$folder"/wheel/*.dist-info/licenses "$platform/licences"; do
  beside=$tarball/lib
  [[ $licences = "$tarball"/* ]] || beside=$module
  expect "libraries of which $licences/README tells" \
    "$(cd "$beside" && printf '%s\n' *-wrapper_audio.so.* | grep -v '^libjack')" \
    "$(sed -n 's/^\(.*\.so\.[0-9]*\) is of .*, source .*/\1/p' "$licences/README" | LC_ALL=C sort)"
  while read -r package; do
    grep -qi 'copyright' "$licences/$package.txt" || fail "no licence of $package in $licences"
  done < <(sed -n 's/.* is of \([^ ]*\) .*/\1/p' "$licences/README")
  while read -r text; do
    [ -s "$licences/$text" ] || fail "no text of $text in $licences"
  done < <(grep -oh 'common-licenses/[-.A-Za-z0-9]*[A-Za-z0-9]' "$licences"/*.txt | sed 's|.*/||' | sort -u)
done
echo "ok: licences"

# In company: a program has the system's libraries in its process already, and what is heard is the same.
ALSA_CONFIG_PATH=$("$source/scripts/file-microphone" "$source/tests/data/speech_in_noise_48k.raw" "$folder")
export ALSA_CONFIG_PATH JACK_NO_START_SERVER=1
"$tarball/bin/wrapper-audio" record --quiet --denoise --seconds 6 - >"$folder/alone" 2>/dev/null || fail "the program does not record"
PYTHONPATH=$folder/wheel LIBRARIES="$libdir/libportaudio.so.2 $libdir/librnnoise.so.0 $libdir/libsoxr.so.0" \
  /usr/bin/python3 -S -c '
import ctypes, os, sys
theirs = [ctypes.CDLL(path) for path in os.environ["LIBRARIES"].split()]
import wrapper_audio
with wrapper_audio.Recorder(rate=16000, denoise=True) as recorder:
    for block in recorder.blocks(seconds=6):
        sys.stdout.buffer.write(block.tobytes())
mapped = {line.split()[-1] for line in open("/proc/self/maps")}
for library in theirs:
    stem = os.path.basename(library._name).split(".so")[0]
    assert any(f"/{stem}.so" in path for path in mapped), mapped
    assert any(f"/wrapper_audio/{stem}-wrapper_audio.so" in path for path in mapped), mapped
' >"$folder/in_company" || fail "Python does not record when the system's libraries are there too"
expect "six seconds" 192000 "$(stat -c %s "$folder/in_company")"
cmp "$folder/alone" "$folder/in_company"
echo "ok: the wheel beside the system's libraries hears what the program hears"

# On servers: PipeWire's plug-in brings libraries of its own, and JACK's library is the system's.
# shellcheck disable=SC2046
c++ -std=c++20 "$source/tests/servers/jack_play.cpp" $(pkg-config --cflags --libs jack sndfile) -o "$folder/jack_play"
HOST=$tarball/bin/wrapper-audio SCRIPTED_MICROPHONE='' JACK_PLAY=$folder/jack_play python3 -B "$source/tests/tool/servers_test.py" \
  Jack.test_it_records_and_denoises_the_sound_that_is_played PipeWire.test_it_records_and_denoises_in_real_time \
  >"$folder/log" 2>&1 || { cat "$folder/log"; fail "the program on sound servers"; }
if grep -q skipped= "$folder/log"; then
  cat "$folder/log"
  echo "SKIPPED: the program on sound servers"
  skipped=77
else
  echo "ok: the program on JACK and on PipeWire"
fi

mkdir "$folder/again"
(umask 077 && TZ=Asia/Tokyo LC_ALL=C "$source/cmake/packages/self_contained.sh" "$packages" "$folder/again") \
  >"$folder/log" 2>&1 || { cat "$folder/log"; fail "it is not made again"; }
for file in "$name.tar.gz" "$wheel" "wrapper-audio-$version.tgz" "wrapper-audio-linux-$node_machine-$version.tgz"; do
  cmp "$packages/$file" "$folder/again/$file" || fail "$file is another one when it is made again"
done
echo "ok: the same again, to the byte"
exit "$skipped"
