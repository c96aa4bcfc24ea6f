#!/usr/bin/env bash
# Makes all packages again, from a copy of the sources in a folder with another name, and compares every byte.
# Usage: check_made_again.sh FOLDER   where the packages are
set -euo pipefail
packages=$(realpath "$1")
source=$(realpath "$(dirname "$0")/../..")
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

copy=$folder/a-folder-with-quite-another-name
mkdir "$copy"
(cd "$source" && git ls-files -z --cached --others --exclude-standard | xargs -0 cp --parents --target-directory "$copy")
[ ! -d "$source/build-servers" ] || ln -s "$source/build-servers" "$copy/build-servers" # none need to be fetched
(cd "$copy" && TZ=Asia/Tokyo scripts/package) >"$folder/log" 2>&1 || { cat "$folder/log"; exit 1; }

for file in "$packages"/*.{deb,whl,tar.gz,tgz}; do
  cmp "$file" "$copy/build-packages/${file##*/}" || { echo "FAILED: ${file##*/} is another one when it is made again"; exit 1; }
done
echo "ok: all packages are the same when they are made again elsewhere"
