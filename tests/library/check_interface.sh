#!/usr/bin/env bash
# Holds the binary interface of a library to the description beside this script: functions, the types of what they
# take and give, and the layout of whatever the header shows. What the header does not show is free to change.
# Usage: check_interface.sh [--renew] LIBRARY HEADER DESCRIPTION      (LIBRARY with debug information)
set -euo pipefail
renew=false
[ "$1" = --renew ] && { renew=true; shift; }
library=$1 header=$2 description=$3
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
mkdir "$folder/public"
cp "$header" "$folder/public"

abidw --headers-dir "$folder/public" --drop-private-types --exported-interfaces-only --no-corpus-path \
  --no-comp-dir-path --no-show-locs --no-elf-needed --type-id-style hash "$library" |
  sed "s|path='[^']*/src/|path='src/|" | python3 -B "$(dirname "$0")/only_exported.py" >"$folder/now"
functions=$(grep -c '<function-decl' "$folder/now" || true)
[ "$functions" -gt 0 ] || { echo "FAILED: no function is described: is there debug information in $library?"; exit 1; }

if $renew; then
  cp "$folder/now" "$description"
  echo "described $functions functions anew in $description"
  exit 0
fi
abidiff "$description" "$folder/now" && { echo "ok: $functions functions as described"; exit 0; }
cat <<'END'
FAILED: the binary interface is no longer the one that is described.
Programs built against the released library may break. If that is meant, raise the major version where something was
changed or removed, describe the interface anew, and commit the description with the change:
  cmake --build build --target describe_interface
END
exit 1
