#!/usr/bin/env bash
# What carries its libraries along, each installed and recording where there is nothing else: the tarball beside libasound
# alone, the wheel beside Python and libasound, the packages for npm beside Node and libasound. Takes the packages from
# the Debian archive, and needs root or user namespaces. Exits with 77 where something could not be tried.
# Usage: check_bare_roots.sh FOLDER   where scripts/package has put it
set -euo pipefail
packages=$(realpath "$1")
source=$(realpath "$(dirname "$0")/../..")
. "$source/scripts/private-apt.sh"
folder=$(mktemp -d /tmp/wrapper-audio.XXXXXX) # not in TMPDIR: ALSA_CONFIG_PATH takes neither space nor colon
# shellcheck disable=SC2317 # the trap calls it
clean_up() {
  # Where mounts are shared, those of a namespace may have come here.
  awk -v below="$folder/" 'index($2, below) == 1 { print $2 }' /proc/mounts | sort -r | xargs --no-run-if-empty umount --lazy
  rm -rf --one-file-system "$folder"
}
trap clean_up EXIT

fail() { echo "FAILED: $*"; exit 1; }
skipped() { echo "SKIPPED: $*"; skipped=77; }
skipped=0

namespace=(unshare --mount)
[ "$(id -u)" -eq 0 ] || namespace+=(--map-root-user)
# In a chroot whose root is no mount, its propagation cannot be changed.
"${namespace[@]}" true 2>/dev/null || namespace+=(--propagation unchanged)
if ! "${namespace[@]}" mount -t tmpfs none "$folder" 2>"$folder/log"; then
  skipped "neither root nor user namespaces are to be had here: $(cat "$folder/log")"
  exit 77
fi

# Runs a program with a root of its own, in which there are the kernel's processes and the devices of ALSA's null
# microphone as long as it runs.
inside() { # root, command...
  # shellcheck disable=SC2016 # for the shell inside
  "${namespace[@]}" sh -euc 'root=$1; shift
    mount --rbind /proc "$root/proc"
    for device in null full; do
      mount --bind "/dev/$device" "$root/dev/$device"
    done
    exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/ LC_ALL=C.UTF-8 ALSA_CONFIG_PATH=/microphone/microphone.conf \
      JACK_NO_START_SERVER=1 chroot "$root" "$@"' sh "$@"
}

# Lists of its own, which a user may renew, and a system without a single package, so that everything needed is new.
private_apt "$folder"
: >"$folder/status"
apt+=(-o "Dir::State::status=$folder/status")
mkdir "$folder/archives"
if ! apt-get "${apt[@]}" update >"$folder/log" 2>&1; then
  skipped "the Debian archive is out of reach: $(tail -n 1 "$folder/log")"
  exit 77
fi
libasound=$(dpkg -S "$(realpath "$(cc -print-file-name=libasound.so.2)")" | cut -d: -f1)

# Nothing is installed: no script runs, and there is no shell but where a package brings one.
make_root() { # name, packages...
  local root=$folder/$1 needed package directory
  apt-get "${apt[@]}" --simulate --no-install-recommends install "${@:2}" >"$folder/plan"
  mapfile -t needed < <(sed -n 's/^Inst \([^ ]*\) .*/\1/p' "$folder/plan")
  # apt-get leaves alone what it has downloaded before.
  (cd "$folder/archives" && apt-get "${apt[@]}" download "${needed[@]}") >"$folder/log" 2>&1 ||
    { cat "$folder/log"; fail "could not download ${needed[*]}"; }
  mkdir -p "$root"/{proc,dev,microphone,tmp,usr/{bin,sbin,lib,lib64}}
  for directory in bin sbin lib lib64; do
    ln -s "usr/$directory" "$root/$directory"
  done
  touch "$root/dev/null" "$root/dev/full"
  for package in "${needed[@]}"; do
    dpkg-deb --fsys-tarfile "$folder/archives/${package%%:*}"_*.deb |
      tar -C "$root" --keep-directory-symlink --no-same-owner -x
  done
  "$source/scripts/file-microphone" "$source/tests/data/speech_in_noise_48k.raw" "$root/microphone" >/dev/null
  sed -i "s|$root||" "$root/microphone/microphone.conf"
  echo "ok: a root with ${#needed[@]} packages for $1: ${*:2}"
}

# Six seconds, with denoising and without: the last half second is noise alone, and falls by 30 dB; the voice does not.
check_denoising() { # name, plain, denoised
  python3 - "$@" <<'END' || fail "what $1 has recorded is not denoised speech"
import math, sys
def level(path, begin, end):
    samples = memoryview(open(path, "rb").read()).cast("h")
    assert len(samples) == 6 * 16000, len(samples)
    part = samples[int(begin * 16000) : int(end * 16000)]
    return 10 * math.log10(max(sum(x * x for x in part) / len(part), 0.01))
name, plain, denoised = sys.argv[1:]
pause, voice = (level(denoised, *part) - level(plain, *part) for part in ((5.5, 5.95), (1, 5)))
print(f"ok: {name} records; denoising changes the pause by {pause:.1f} dB, the voice by {voice:.1f} dB")
sys.exit(not (pause <= -30 and abs(voice) < 2))
END
}

# Whose libasound is missing says so.
check_without_libasound() { # root, what to say, command...
  mkdir "$folder/$1/away"
  mv "$folder/$1"/usr/lib/*/libasound.so.2* "$folder/$1/away"
  ! inside "$folder/$1" "${@:3}" >"$folder/log" 2>&1 || fail "$1 records without libasound"
  grep -q "$2" "$folder/log" || { cat "$folder/log"; fail "$1 does not say what is missing"; }
}

# ---- The tarball, in a folder with a space
make_root tarball "$libasound"
mkdir -p "$folder/tarball/any place"
tar -C "$folder/tarball/any place" --strip-components=1 -xf "$packages"/wrapper_audio-*-linux-"$(uname -m)".tar.gz
program="/any place/bin/wrapper-audio"
for denoise in false true; do
  option=()
  [ $denoise = false ] || option=(--denoise)
  inside "$folder/tarball" "$program" record --quiet "${option[@]}" --rate 16000 --seconds 6 - \
    >"$folder/tarball.$denoise" 2>"$folder/log" || { cat "$folder/log"; fail "the program does not record"; }
done
check_denoising "the program" "$folder/tarball".{false,true}
inside "$folder/tarball" "$program" doctor >"$folder/log" 2>&1 || { cat "$folder/log"; fail "the doctor finds something"; }
check_without_libasound tarball 'libasound\.so\.2' "$program" devices

# ---- The wheel
make_root python python3-venv ca-certificates "$libasound"
# The script of ca-certificates would do this; pip wants the file even if it asks nobody.
mkdir -p "$folder/python/etc/ssl/certs"
cat "$folder"/python/usr/share/ca-certificates/*/*.crt >"$folder/python/etc/ssl/certs/ca-certificates.crt"
cp "$packages"/*.whl "$folder/python"
inside "$folder/python" python3 -m venv /environment >"$folder/log" 2>&1 || { cat "$folder/log"; fail "venv"; }
wheel=$(cd "$packages" && printf '%s' *.whl)
inside "$folder/python" /environment/bin/pip install --no-index "/$wheel" >"$folder/log" 2>&1 ||
  { cat "$folder/log"; fail "pip install"; }
cat >"$folder/python/record.py" <<'END'
import sys
import wrapper_audio

with wrapper_audio.Recorder(rate=16000, denoise=sys.argv[1] == "true") as recorder:
    for block in recorder.blocks(seconds=6):
        sys.stdout.buffer.write(block.tobytes())
END
for denoise in false true; do
  inside "$folder/python" /environment/bin/python /record.py $denoise >"$folder/python.$denoise" 2>"$folder/log" ||
    { cat "$folder/log"; fail "Python does not record"; }
  cmp "$folder/tarball.$denoise" "$folder/python.$denoise" || fail "Python hears something else than the program"
done
check_denoising Python "$folder/python".{false,true}
check_without_libasound python 'libasound2' /environment/bin/python -m wrapper_audio

# ---- The packages for npm. Node's binding needs koffi, which comes from npm's registry.
if ! command -v npm >/dev/null; then
  skipped "npm is not installed: the packages for npm were not tried"
  exit "$skipped"
fi
make_root node nodejs "$libasound"
mkdir "$folder/node/program"
if ! (cd "$folder/node/program" && npm install --ignore-scripts --prefer-offline --no-audit --no-fund --fetch-retries=1 \
  --fetch-retry-mintimeout=1000 --fetch-timeout=20000 "$packages"/wrapper-audio-*.tgz) >"$folder/log" 2>&1; then
  grep -qE 'EAI_AGAIN|ENOTFOUND|ECONN|ETIMEDOUT|ENETUNREACH|EHOSTUNREACH|ERR_SOCKET_TIMEOUT' "$folder/log" ||
    { cat "$folder/log"; fail "npm install"; }
  skipped "npm cannot reach its registry, from which koffi comes: the packages for npm were not tried"
  exit "$skipped"
fi
cat >"$folder/node/program/record.mjs" <<'END'
import { pipeline } from 'node:stream/promises';
import { Recorder } from 'wrapper-audio';

const recorder = await Recorder.open({ rate: 16000, denoise: process.argv[2] === 'true' });
await pipeline(recorder.stream({ seconds: 6 }), process.stdout);
await recorder.close();
END
for denoise in false true; do
  inside "$folder/node" node /program/record.mjs $denoise >"$folder/node.$denoise" 2>"$folder/log" ||
    { cat "$folder/log"; fail "Node does not record"; }
  cmp "$folder/tarball.$denoise" "$folder/node.$denoise" || fail "Node hears something else than the program"
done
check_denoising Node "$folder/node".{false,true}
check_without_libasound node 'libasound2' node /program/record.mjs true
exit "$skipped"
