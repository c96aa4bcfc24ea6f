#!/usr/bin/env bash
# Installs the Debian packages in a fresh minimal Debian of the same release, records with the program there, builds and
# runs hosts, and removes everything again. Needs root and a network; takes some minutes.
# Usage: check_clean_root.sh FOLDER   where the packages are
set -euo pipefail
packages=$(realpath "$1")
here=$(cd "$(dirname "$0")" && pwd)
source=$(realpath "$here/../..")
. "$source/scripts/private-apt.sh"

fail() { echo "FAILED: $*"; exit 1; }
[ "$(id -u)" -eq 0 ] || fail "only root can make a clean root"
archive=$(debian_archive)
[ -n "$archive" ] || fail "no Debian archive is configured to make a clean root from"

root=$(mktemp -d /tmp/wrapper-audio.XXXXXX)
log=$(mktemp)
clean_up() {
  # Nothing that a failure left mounted may be removed along.
  awk -v below="$root/" 'index($2, below) == 1 { print $2 }' /proc/mounts | sort -r | xargs --no-run-if-empty umount
  rm -rf --one-file-system "$root" "$log"
}
trap clean_up EXIT
trap 'exit 1' INT TERM

quietly() { "$@" >"$log" 2>&1 || { cat "$log"; fail "$*"; }; }
inside() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
  ALSA_CONFIG_PATH=/microphone/microphone.conf JACK_NO_START_SERVER=1 "$@"; }
add() { quietly inside apt-get -qq install -y --no-install-recommends "$@"; }

# shellcheck disable=SC1091
quietly debootstrap --variant=minbase "$(. /etc/os-release && echo "$VERSION_CODENAME")" "$root" "$archive"
cp /etc/resolv.conf "$root/etc/resolv.conf"
mkdir "$root/packages" "$root/microphone"
chmod 755 "$root"
cp "$packages"/*.deb "$root/packages"
quietly "$source/scripts/fetch-rnnoise" "$root/packages"
"$source/scripts/file-microphone" "$source/tests/data/speech_in_noise_48k.raw" "$root/microphone" >/dev/null
sed -i "s|$root||" "$root/microphone/microphone.conf"
quietly inside apt-get -qq update
echo "ok: a fresh $(. /etc/os-release && echo "$PRETTY_NAME") of $(inside dpkg-query -W -f '.' | wc -c) packages"

cd "$root" # for the names of the packages
runtime=(packages/librnnoise0_*.deb packages/libwrapper-audio1_*.deb packages/wrapper-audio_*.deb)
add "${runtime[@]/#//}"
# shellcheck disable=SC2016 # dpkg's own name
version=$(inside dpkg-query -W -f '${Version}' wrapper-audio)
[ "$(inside wrapper-audio --version)" = "wrapper-audio $version" ] || fail "the program's version"
[ "$(inside wrapper-audio devices --ids --quiet 2>"$log" | sort | xargs)" = "ALSA:default ALSA:filemic" ] ||
  { cat "$log"; fail "the devices"; }
inside wrapper-audio record --quiet --denoise --seconds 1 - >microphone/program 2>"$log" ||
  { cat "$log"; fail "the program does not record"; }
[ "$(tr -d '\0' <microphone/program | wc -c)" -gt 10000 ] || fail "the program hears next to nothing"
code=0
inside env ALSA_CONFIG_PATH=/usr/share/alsa/alsa.conf wrapper-audio devices >"$log" 2>&1 || code=$?
[ "$code" -eq 3 ] && grep -q 'no input device' "$log" || { cat "$log"; fail "without an input device: exit code $code"; }
echo "ok: wrapper-audio says its version, lists devices and records"

development=(packages/librnnoise-dev_*.deb packages/libwrapper-audio-dev_*.deb)
add "${development[@]/#//}" gcc libc6-dev pkgconf
cp "$here"/stranger/*.c microphone
for host in stranger recorder; do
  package=wrapper_audio
  [ "$host" = stranger ] || package=wrapper_audio_recorder
  # shellcheck disable=SC2016 # for the shell inside
  quietly inside sh -c 'cd /microphone && gcc -std=c99 -pedantic -Wall -Wextra -Werror "$1.c" \
    $(pkg-config --cflags --libs "$2") -o "$1"' sh "$host" "$package"
  inside "/microphone/$host" >microphone/heard 2>"$log" || { cat "$log"; fail "the $host does not record"; }
  [ "$(stat -c %s microphone/heard)" -eq 32000 ] && [ "$(tr -d '\0' <microphone/heard | wc -c)" -gt 10000 ] ||
    fail "the $host hears next to nothing"
done
echo "ok: hosts in C, built with libwrapper-audio-dev"

quietly inside apt-get -qq purge -y 'libwrapper-audio*' wrapper-audio
left=$(find etc usr var -name '*wrapper*audio*' ! -path 'var/cache/apt/*')
[ -z "$left" ] || fail "left behind: $left"
! inside ldconfig -p | grep wrapper_audio || fail "the system still knows the library"
echo "ok: nothing is left once they are removed"
