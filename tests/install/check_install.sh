#!/usr/bin/env bash
# Installs into an empty folder and is a stranger to it: what is there, and what builds and runs against it, in that
# folder and in another one that it is moved to. Then builds a host that takes the library's source along.
# Usage: check_install.sh SOURCE_FOLDER BUILD_FOLDER VERSION LIBDIR
set -euo pipefail
source=$1 build=$2 version=$3 libdir=$4
here=$source/tests/install
folder=$(mktemp -d /tmp/wrapper-audio.XXXXXX) # not in TMPDIR: ALSA_CONFIG_PATH takes neither space nor colon
trap 'rm -rf "$folder"' EXIT
unset LD_LIBRARY_PATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH wrapper_audio_DIR

fail() { echo "FAILED: $*"; exit 1; }
quietly() { "$@" >"$folder/log" 2>&1 || { cat "$folder/log"; fail "$*"; }; }
# Fails unless the command fails for this reason.
refuses() { # reason, command...
  local reason=$1
  shift
  ! "$@" >"$folder/log" 2>&1 || fail "succeeded: $*"
  grep -q "$reason" "$folder/log" || { cat "$folder/log"; fail "not for the reason '$reason': $*"; }
}
runpath() { readelf -dW "$1" | sed -n 's/.*R\(UN\)\?PATH).*\[\(.*\)\]/\2/p'; }

ALSA_CONFIG_PATH=$("$source/scripts/file-microphone" "$source/tests/data/speech_in_noise_48k.raw" "$folder")
export ALSA_CONFIG_PATH JACK_NO_START_SERVER=1
"$build/wrapper-audio" record --quiet --denoise --seconds 1 - >"$folder/expected" 2>"$folder/log" ||
  { cat "$folder/log"; fail "the build's own program"; }
[ "$(tr -d '\0' <"$folder/expected" | wc -c)" -gt 10000 ] || fail "the build's own program hears next to nothing"

hears_the_same() { # command...
  "$@" >"$folder/heard" 2>"$folder/log" || { cat "$folder/log"; fail "$*"; }
  cmp "$folder/expected" "$folder/heard" || fail "another sound: $*"
}

check_prefix() { # prefix
  local prefix=$1 flags
  local take=(-S "$here/stranger" -D "CMAKE_PREFIX_PATH=$prefix")

  [ "$(ldd "$prefix/bin/wrapper-audio" | sed -n 's/.*libwrapper_audio.* => \(.*\) (.*/\1/p' | xargs realpath)" = \
    "$prefix/$libdir/libwrapper_audio.so.$version" ] || fail "the program in $prefix takes another library"
  hears_the_same "$prefix/bin/wrapper-audio" record --quiet --denoise --seconds 1 -
  echo "ok: the program in $prefix"

  export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
  [ "$(pkg-config --modversion wrapper_audio)" = "$version" ] || fail "pkg-config tells another version"
  flags=$(pkg-config --cflags --libs wrapper_audio)
  [[ $flags != *-lportaudio* && $flags != *-lrnnoise* ]] || fail "hosts are told to link what the library needs: $flags"
  # shellcheck disable=SC2086
  quietly cc -std=c99 -pedantic -Wall -Wextra -Werror "$here/stranger/stranger.c" $flags \
    -Wl,-rpath,"$(pkg-config --variable=libdir wrapper_audio)" -o "$folder/stranger"
  unset PKG_CONFIG_PATH
  hears_the_same "$folder/stranger"
  echo "ok: a host in C99, by pkg-config, in $prefix"

  rm -rf "$folder/build"
  quietly cmake "${take[@]}" -B "$folder/build" -D WRAPPER_AUDIO_WANTED=1.0
  quietly cmake --build "$folder/build"
  hears_the_same "$folder/build/stranger"
  echo "ok: a host in C++, by CMake, in $prefix"
}

quietly cmake --install "$build" --prefix "$folder/prefix"
major=${version%%.*}
(cd "$folder/prefix" && find . ! -type d -printf '%P\t%l\n' | sed 's/\t$//; s/\t/ -> /' | LC_ALL=C sort) >"$folder/files"
sed -e "s|LIBDIR|$libdir|" -e "s/VERSION/$version/" -e "s/MAJOR/$major/" "$here/expected_files" |
  LC_ALL=C sort | diff - "$folder/files" || fail "other files are installed than tests/install/expected_files says"
for path in "$source" "$build" "$folder"; do
  ! grep -rlF "$path" "$folder/prefix" || fail "these hold the path $path"
done
[ "$(runpath "$folder/prefix/bin/wrapper-audio")" = "\$ORIGIN/../$libdir" ] || fail "the program's run path"
[ -z "$(runpath "$folder/prefix/$libdir/libwrapper_audio.so")" ] || fail "the library has a run path"
echo "ok: the files that are installed"

check_prefix "$folder/prefix"
refuses 'version "2.0"' cmake -S "$here/stranger" -B "$folder/refused" -D "CMAKE_PREFIX_PATH=$folder/prefix" \
  -D WRAPPER_AUDIO_WANTED=2.0
refuses 'version "0.9"' cmake -S "$here/stranger" -B "$folder/refused" -D "CMAKE_PREFIX_PATH=$folder/prefix" \
  -D WRAPPER_AUDIO_WANTED=0.9
echo "ok: other major versions are not taken"

mkdir -p "$folder/moved/to"
mv "$folder/prefix" "$folder/moved/to/elsewhere"
check_prefix "$folder/moved/to/elsewhere"

rm -rf "$folder/build"
quietly cmake -S "$here/stranger" -B "$folder/build" -D "WRAPPER_AUDIO_SOURCE=$source"
quietly cmake --build "$folder/build"
[ "$(find "$folder/build" -name '*.o' -printf '%f ' | xargs -n 1 | sort | xargs)" = \
  "audio_capture_wrapper.cpp.o dsp_extensions.cpp.o stranger.cpp.o" ] ||
  fail "a host that takes the source along builds more than the library: $(find "$folder/build" -name '*.o' -printf '%f ')"
hears_the_same "$folder/build/stranger"
echo "ok: a host that takes the source along"
