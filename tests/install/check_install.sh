#!/usr/bin/env bash
# Installs into an empty folder and is a stranger to it: what is there, and what builds and runs against it, in that
# folder and in another one that it is moved to. Then builds hosts that take the source along, with the recorder layer
# and without.
# Usage: check_install.sh SOURCE_FOLDER BUILD_FOLDER VERSION LIBDIR
set -euo pipefail
source=$1 build=$2 version=$3 libdir=$4 major=${3%%.*}
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
# What each of them hears: the program, a host of the library alone, and a host of the recorder layer.
"$build/wrapper-audio" record --quiet --denoise --seconds 1 - >"$folder/program" 2>"$folder/log" ||
  { cat "$folder/log"; fail "the build's own program"; }
"$build/examples/c/core" 1 >"$folder/stranger" 2>"$folder/log" || { cat "$folder/log"; fail "the build's own host"; }
"$build/examples/c/record" -n -s 1 - >"$folder/recorder" 2>"$folder/log" ||
  { cat "$folder/log"; fail "the build's own host of the recorder layer"; }
for heard in program stranger recorder; do
  [ "$(stat -c %s "$folder/$heard")" -eq 32000 ] || fail "the build's own $heard: not a second"
  [ "$(tr -d '\0' <"$folder/$heard" | wc -c)" -gt 10000 ] || fail "the build's own $heard hears next to nothing"
done

hears_the_same() { # as what, command...
  local expected=$folder/$1
  shift
  "$@" >"$folder/heard" 2>"$folder/log" || { cat "$folder/log"; fail "$*"; }
  cmp "$expected" "$folder/heard" || fail "another sound: $*"
}

check_prefix() { # prefix
  local prefix=$1 flags others name package
  local take=(-S "$here/stranger" -D "CMAKE_PREFIX_PATH=$prefix")

  ldd "$prefix/bin/wrapper-audio" >"$folder/needs"
  grep -qF "libwrapper_audio.so.$major => $prefix/" "$folder/needs" || fail "the program in $prefix takes no library there"
  others=$(sed -n 's/.*libwrapper_audio.* => \(.*\) (.*/\1/p' "$folder/needs" | xargs realpath |
    grep -vxE "$prefix/$libdir/libwrapper_audio(_recorder)?.so.$version" || true)
  [ -z "$others" ] || fail "the program in $prefix takes another library: $others"
  hears_the_same program "$prefix/bin/wrapper-audio" record --quiet --denoise --seconds 1 -
  echo "ok: the program in $prefix"

  export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
  for name in stranger recorder; do
    package=wrapper_audio
    [ "$name" = stranger ] || package=wrapper_audio_recorder
    [ "$(pkg-config --modversion "$package")" = "$version" ] || fail "pkg-config tells another version of $package"
    flags=$(pkg-config --cflags --libs "$package")
    [ "$(tr ' ' '\n' <<<"$flags" | grep '^-l' | xargs)" = "-l$package" ] || fail "hosts are told to link more: $flags"
    # shellcheck disable=SC2086
    quietly cc -std=c99 -pedantic -Wall -Wextra -Werror "$here/stranger/$name.c" $flags \
      -Wl,-rpath,"$(pkg-config --variable=libdir "$package")" -o "$folder/host"
    hears_the_same "$name" "$folder/host"
  done
  unset PKG_CONFIG_PATH
  echo "ok: hosts in C99, by pkg-config, in $prefix"

  rm -rf "$folder/build"
  quietly cmake "${take[@]}" -B "$folder/build" -D WRAPPER_AUDIO_WANTED=1.0
  quietly cmake --build "$folder/build"
  hears_the_same stranger "$folder/build/stranger"
  hears_the_same recorder "$folder/build/recorder"
  echo "ok: hosts in C++, by CMake, in $prefix"
}

quietly cmake --install "$build" --prefix "$folder/prefix"
(cd "$folder/prefix" && find . ! -type d -printf '%P\t%l\n' | sed 's/\t$//; s/\t/ -> /' | LC_ALL=C sort) >"$folder/files"
sed -e "s|LIBDIR|$libdir|" -e "s/VERSION/$version/" -e "s/MAJOR/$major/" "$here/expected_files" |
  LC_ALL=C sort | diff - "$folder/files" || fail "other files are installed than tests/install/expected_files says"
for path in "$source" "$build" "$folder"; do
  ! grep -rlF "$path" "$folder/prefix" || fail "these hold the path $path"
done
[ "$(runpath "$folder/prefix/bin/wrapper-audio")" = "\$ORIGIN/../$libdir" ] || fail "the program's run path"
[ -z "$(runpath "$folder/prefix/$libdir/libwrapper_audio.so")" ] || fail "the library has a run path"
[ "$(runpath "$folder/prefix/$libdir/libwrapper_audio_recorder.so")" = "\$ORIGIN" ] || fail "the recorder layer's run path"
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

# Hosts that take the source along build what they link and nothing else.
objects() { # folder
  find "$1" -name '*.o' -printf '%f ' | xargs -n 1 | sort | xargs
}
library="audio_capture_wrapper.cpp.o dsp_extensions.cpp.o"
layer=$(cd "$source/src/recorder" && printf '%s.o ' *.cpp)
for recorder in ON OFF; do
  rm -rf "$folder/build"
  quietly cmake -S "$here/stranger" -B "$folder/build" -D "WRAPPER_AUDIO_SOURCE=$source" \
    -D WRAPPER_AUDIO_RECORDER=$recorder -D CMAKE_INTERPROCEDURAL_OPTIMIZATION=$recorder
  quietly cmake --build "$folder/build"
  expected="$library stranger.cpp.o"
  [ "$recorder" = OFF ] || expected=$(xargs -n 1 <<<"$expected $layer recorder.cpp.o" | sort | xargs)
  [ "$(objects "$folder/build")" = "$expected" ] ||
    fail "a host that takes the source along (recorder layer $recorder) builds something else: $(objects "$folder/build")"
  for object in $library; do # in which tests rename symbols
    ! find "$folder/build" -name "$object" -exec readelf -SW {} + | grep 'gnu\.lto_' >"$folder/log" ||
      fail "$object is no machine code with link-time optimisation"
  done
  hears_the_same stranger "$folder/build/stranger"
  [ "$recorder" = OFF ] || hears_the_same recorder "$folder/build/recorder"
done
echo "ok: hosts that take the source along, with the recorder layer and link-time optimisation and without"

# Without the recorder layer the library needs PortAudio and RNNoise alone, and is built alone.
mkdir "$folder/pkgconfig"
for package in portaudio-2.0 rnnoise; do
  cp "$(pkg-config --variable=pcfiledir "$package")/$package.pc" "$folder/pkgconfig"
done
alone() { # folder, options...
  env PKG_CONFIG_LIBDIR="$folder/pkgconfig" cmake -S "$source" -B "$folder/$1" "${@:2}"
}
refuses 'soxr' alone with_recorder
quietly alone alone -D WRAPPER_AUDIO_RECORDER=OFF
quietly cmake --build "$folder/alone"
[ "$(objects "$folder/alone")" = "$library" ] || fail "the library is not alone: $(objects "$folder/alone")"
quietly cmake --install "$folder/alone" --prefix "$folder/library"
! find "$folder/library" -name '*recorder*' | grep . || fail "the library brings files of the recorder layer"
quietly cmake -S "$here/stranger" -B "$folder/build_alone" -D "CMAKE_PREFIX_PATH=$folder/library"
quietly cmake --build "$folder/build_alone"
hears_the_same stranger "$folder/build_alone/stranger"
for part in TOOL TESTS EXAMPLES BENCH; do
  refuses "WRAPPER_AUDIO_$part needs the recorder layer" \
    alone "with_$part" -D WRAPPER_AUDIO_RECORDER=OFF -D "WRAPPER_AUDIO_$part=ON"
done
echo "ok: the library alone"
