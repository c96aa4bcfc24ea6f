#!/usr/bin/env bash
# The Debian packages, without installing them: what lintian says, what they need, what they hold, and whether that
# works where they are unpacked.
# Usage: check_packages.sh FOLDER   where the packages are
set -euo pipefail
packages=$(realpath "$1")
here=$(cd "$(dirname "$0")" && pwd)
source=$here/../..
folder=$(mktemp -d /tmp/wrapper-audio.XXXXXX) # not in TMPDIR: ALSA_CONFIG_PATH takes neither space nor colon
trap 'rm -rf "$folder"' EXIT
unset LD_LIBRARY_PATH PKG_CONFIG_PATH

fail() { echo "FAILED: $*"; exit 1; }
expect() { # what, expected, actual
  [ "$2" = "$3" ] || { printf 'FAILED: %s\n  expected: %s\n  actual:   %s\n' "$1" "$2" "$3"; exit 1; }
}

version=$(dpkg-parsechangelog --file "$source/cmake/packages/changelog" --show-field Version)
major=${version%%.*}
architecture=$(dpkg --print-architecture)
library=$packages/libwrapper-audio${major}_${version}_$architecture.deb
development=$packages/libwrapper-audio-dev_${version}_$architecture.deb
program=$packages/wrapper-audio_${version}_$architecture.deb
expect "the packages" "$(printf '%s\n' "$development" "$library" "$program")" "$(ls "$packages"/*.deb)"

as_root=()
[ "$(id -u)" -ne 0 ] || as_root=(--allow-root)
lintian "${as_root[@]}" --fail-on error "$library" "$development" "$program" || fail "lintian finds errors"
echo "ok: lintian finds no errors"

# Names alone, and without what differs from one Debian to the next.
needs() { dpkg-deb -f "$1" Depends | tr , '\n' | sed -E 's/ *([^ ]+).*/\1/; s/t64$//' | sort | xargs; }
expect "what the libraries need" "libasound2 libc6 libgcc-s1 libportaudio2 librnnoise0 libsoxr0 libstdc++6" "$(needs "$library")"
expect "what the development files need" \
  "libwrapper-audio$major (= $version), portaudio19-dev, librnnoise-dev" "$(dpkg-deb -f "$development" Depends)"
expect "what the program needs" "libc6 libebur128-1 libgcc-s1 libsndfile1 libstdc++6 libwrapper-audio$major" "$(needs "$program")"
expect "kinds" "same same foreign" \
  "$(for package in "$library" "$development" "$program"; do dpkg-deb -f "$package" Multi-Arch; done | xargs)"
expect "what others that link the libraries are told to need" \
  "libwrapper_audio $major libwrapper-audio$major (>= $version)
libwrapper_audio_recorder $major libwrapper-audio$major (>= $version)" "$(dpkg-deb -I "$library" shlibs | LC_ALL=C sort)"
expect "what happens on installation" "activate-noawait ldconfig" "$(dpkg-deb -I "$library" triggers)"
for package in "$library" "$development" "$program"; do
  ! dpkg-deb -I "$package" | grep -E '(post|pre)(inst|rm)' || fail "$package runs a script"
done
echo "ok: needs, kinds and triggers"

# Together they hold what is installed otherwise, and each a changelog and a copyright file; nothing is in two of them.
libdir=lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
{
  sed -e "s|LIBDIR|$libdir|" -e "s/VERSION/$version/" -e "s/MAJOR/$major/" -e 's|^share/man/.*|&.gz|' "$here/expected_files"
  for name in "libwrapper-audio$major" libwrapper-audio-dev wrapper-audio; do
    printf '%s\n' "share/doc/$name/changelog.gz" "share/doc/$name/copyright"
  done
} | sed 's|^|./usr/|' | LC_ALL=C sort >"$folder/expected"
for package in "$library" "$development" "$program"; do
  dpkg-deb -c "$package" | awk '!/^d/ { $1 = $2 = $3 = $4 = $5 = ""; sub(/^ +/, ""); print }'
done | LC_ALL=C sort | diff "$folder/expected" - || fail "the packages hold other files"
expect "the times of all files" "$(date -u -d "$(dpkg-parsechangelog --file "$source/cmake/packages/changelog" \
  --show-field Date)" '+%F %R')" "$(for package in "$packages"/*.deb; do TZ=UTC dpkg-deb -c "$package"; done |
  awk '{ print $4, $5 }' | sort -u)"
mkdir "$folder/root"
for package in "$library" "$development" "$program"; do
  dpkg-deb -x "$package" "$folder/root"
done
usr=$folder/root/usr
for path in "$(realpath "$source")" "$packages"; do
  ! grep -rlF "$path" "$folder/root" || fail "these hold the path $path"
done
for binary in "$usr/bin/wrapper-audio" "$usr/$libdir"/libwrapper_audio{,_recorder}.so; do
  ! readelf -dW "$binary" | grep -E 'R(UN)?PATH' || fail "$binary has a run path"
done
for compressed in "$usr"/share/man/man1/*.gz "$usr"/share/doc/*/changelog.gz; do
  expect "the name and time within $compressed" 0000000000 "$(od -An -tx1 -j3 -N5 "$compressed" | tr -d ' ')"
done
echo "ok: files"

ALSA_CONFIG_PATH=$("$source/scripts/file-microphone" "$source/tests/data/speech_in_noise_48k.raw" "$folder")
export ALSA_CONFIG_PATH JACK_NO_START_SERVER=1 LD_LIBRARY_PATH=$usr/$libdir
expect "the program's version" "wrapper-audio $version" "$("$usr/bin/wrapper-audio" --version)"
expect "the devices" "ALSA:default ALSA:filemic" \
  "$("$usr/bin/wrapper-audio" devices --ids --quiet 2>/dev/null | sort | xargs)"
"$usr/bin/wrapper-audio" record --quiet --denoise --seconds 1 - >"$folder/program" 2>"$folder/log" ||
  { cat "$folder/log"; fail "the program does not record"; }
export PKG_CONFIG_PATH=$usr/$libdir/pkgconfig
for host in stranger recorder; do
  package=wrapper_audio
  [ "$host" = stranger ] || package=wrapper_audio_recorder
  # shellcheck disable=SC2046
  cc -std=c99 "$here/stranger/$host.c" $(pkg-config --cflags --libs "$package") -o "$folder/host"
  "$folder/host" >"$folder/$host" 2>"$folder/log" || { cat "$folder/log"; fail "the $host in C does not record"; }
done
for heard in program stranger recorder; do
  expect "a second, heard by the $heard" 32000 "$(stat -c %s "$folder/$heard")"
  [ "$(tr -d '\0' <"$folder/$heard" | wc -c)" -gt 10000 ] || fail "the $heard hears next to nothing"
done
echo "ok: the program, and hosts in C"
