#!/usr/bin/env bash
# Fetches what the Node binding needs if it is not there yet, and runs its tests on a microphone that hears a file. The
# environment names what was built: WRAPPER_AUDIO_LIBRARY, the recorder layer, and SCRIPTED_MICROPHONE of tests/tool.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(cd ../.. && pwd)

skip() { printf 'SKIPPED: %s\n' "$*"; exit 77; }

command -v node >/dev/null || skip "node is not installed; scripts/setup test installs it"
major=$(node -p 'process.versions.node.split(".")[0]')
[ "$major" -ge 18 ] || skip "Node $major is here, and 18 is the oldest that the package supports"

folder=$(mktemp -d /tmp/wrapper-audio.XXXXXX) # not in TMPDIR: ALSA_CONFIG_PATH takes neither space nor colon
trap 'rm -rf "$folder"' EXIT

if ! [ node_modules/.package-lock.json -nt package-lock.json ]; then
  command -v npm >/dev/null || skip "npm is not installed; scripts/setup test installs it"
  # koffi brings its binary with it, so that no script of a package has to run.
  if ! npm ci --ignore-scripts --no-audit --no-fund --fetch-retries=1 --fetch-retry-mintimeout=1000 \
    --fetch-timeout=20000 >"$folder/npm" 2>&1; then
    cat "$folder/npm"
    ! grep -qE 'EAI_AGAIN|ENOTFOUND|ECONN|ETIMEDOUT|ENETUNREACH|EHOSTUNREACH|ERR_SOCKET_TIMEOUT' "$folder/npm" ||
      skip "npm cannot reach its registry, from which koffi and typescript come"
    echo "FAILED: npm ci"
    exit 1
  fi
  touch node_modules/.package-lock.json
fi

ALSA_CONFIG_PATH=$("$root/scripts/file-microphone" "$root/tests/data/speech_in_noise_48k.raw" "$folder")
export ALSA_CONFIG_PATH JACK_NO_START_SERVER=1 LC_ALL=C.UTF-8
# What is printed there is of interest when something failed.
code=0
LD_PRELOAD=$SCRIPTED_MICROPHONE node --test --test-reporter=tap test/*.test.js 2>"$folder/stderr" || code=$?
[ "$code" -eq 0 ] || { echo "---- standard error, its last lines:"; tail -n 60 "$folder/stderr"; }
exit "$code"
