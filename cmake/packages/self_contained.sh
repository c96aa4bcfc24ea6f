#!/usr/bin/env bash
# Makes what is installed without a package of the system but libasound: a wheel for Python, two packages for npm, and a
# tarball with the program. Each carries the libraries that it needs, and their licences.
# Usage: self_contained.sh BUILD_FOLDER FOLDER   which receives them
set -euo pipefail
build=$(realpath "$1")
result=$(realpath "$2")
source=$(realpath "$(dirname "$0")/../..")
version=$(sed -n 's/^project(wrapper_audio VERSION \([^ ]*\).*/\1/p' "$source/CMakeLists.txt")
machine=$(cc -dumpmachine)
machine=${machine%%-*} # x86_64, aarch64
case $machine in
  x86_64) node_machine=x64 ;;
  aarch64) node_machine=arm64 ;;
  *) node_machine=$machine ;;
esac
epoch=$(dpkg-parsechangelog --file "$source/cmake/packages/changelog" --show-field Timestamp)
umask 022
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT

die() { printf 'self_contained: %s\n' "$*" >&2; exit 1; }

# The system's own: glibc, without whose loader nothing runs, libgcc_s, which glibc loads, and libasound, whose plug-ins
# are the ways to PipeWire and PulseAudio.
of_the_system='^(ld-linux.*|lib(c|m|dl|rt|pthread|gcc_s|asound))\.so\.'

# The licence of the Debian package that a file is of, with the texts that it names. Debian has the source of the version.
add_licence() { # file, folder, its name there
  local package
  package=$(dpkg -S "$1" 2>/dev/null || dpkg -S "${1#/usr}" 2>/dev/null) ||
    die "$1 is of no Debian package, so that its licence is unknown"
  package=${package%%:*}
  cp -L "/usr/share/doc/$package/copyright" "$2/$package.txt"
  { grep -ohE '/usr/share/common-licenses/[A-Za-z0-9]+(-[0-9]+(\.[0-9]+)*)?' "$2/$package.txt" || true; } | sort -u |
    xargs --no-run-if-empty cp -L --target-directory "$2"
  # shellcheck disable=SC2016 # dpkg's own names
  printf '%s is of %s\n' "$3" "$(dpkg-query -W -f '${Package} ${Version}, source ${source:Package} ${source:Version}' "$package")" >>"$2/README"
}

# Brings what a library or program needs into a folder, under names of our own: a program, or a plug-in of libasound, may
# bring another version of the same library into the process, and each is to have the one that it was built with.
carry() { # file, folder, folder of the licences
  local needed carried origin
  for needed in $(patchelf --print-needed "$1"); do
    [[ ! $needed =~ $of_the_system && $needed != libwrapper_audio* ]] || continue
    carried=${needed/.so/-wrapper_audio.so}
    if [ ! -e "$2/$carried" ]; then
      origin=$(realpath "$(cc -print-file-name="$needed")")
      if [ "$needed" = libjack.so.0 ]; then
        origin=$build/system_jack/$needed
      else
        add_licence "$origin" "$3" "$carried"
      fi
      install -m 644 "$origin" "$2/$carried"
      # Not at once: patchelf 0.14 would write the run path in the place of the name too.
      patchelf --set-soname "$carried" "$2/$carried"
      # shellcheck disable=SC2016 # the loader's own name
      patchelf --set-rpath '$ORIGIN' "$2/$carried"
      carry "$2/$carried" "$2" "$3"
    fi
    patchelf --replace-needed "$needed" "$carried" "$1"
  done
}

# Says in the folder what all of this is, and whose code is compiled in.
begin_licences() { # folder, headers and archives...
  local file
  mkdir -p "$1"
  cat >"$1/README" <<END
The owner of wrapper_audio has not chosen a licence yet. The libraries that come with it are Debian's: nothing was changed
but the names by which they find each other. Each licence is in the file that has the name of the package, and
\`apt-get source SOURCE=VERSION\` gets the source.

END
  for file in "${@:2}"; do
    add_licence "$file" "$1" "${file##*/}, compiled in,"
  done
}
runtime=$(realpath "$(g++ -print-file-name=libstdc++.a)")
ring_buffer=/usr/include/spa-0.2/spa/utils/ringbuffer.h

# The tarball: what is installed otherwise, and what the program needs.
name=wrapper_audio-$version-linux-$machine
tarball=$stage/$name
cmake --install "$build" --prefix "$tarball" --strip >/dev/null
# The two libraries alone, for the wheel and for npm.
libraries=$stage/libraries
mkdir "$libraries"
for library in wrapper_audio wrapper_audio_recorder; do
  install -m 644 "$tarball/lib/lib$library.so" "$libraries/lib$library.so.${version%%.*}"
done

licences=$tarball/share/doc/wrapper_audio/licences
begin_licences "$licences" "$runtime" "$ring_buffer" /usr/include/{CLI/CLI.hpp,fmt/format.h,nlohmann/json.hpp}
for file in "$tarball"/lib/libwrapper_audio*.so.*.*.* "$tarball/bin/wrapper-audio"; do
  carry "$file" "$tarball/lib" "$licences"
done
begin_licences "$libraries/licences" "$runtime" "$ring_buffer"
for file in "$libraries"/libwrapper_audio*.so.*; do
  carry "$file" "$libraries" "$libraries/licences"
done
# shellcheck disable=SC2016 # the loader's own name
patchelf --set-rpath '$ORIGIN' "$tarball"/lib/libwrapper_audio.so.*.*.* "$libraries"/libwrapper_audio.so.*

sed -i '/^Requires.private: portaudio/d' "$tarball"/lib/pkgconfig/*.pc # it is carried
chmod -R u=rwX,go=rX "$tarball"

# The same files make the same archive, to the byte.
pack() { # name of the archive, tar's options and arguments...
  tar --sort=name --mtime="@$epoch" --owner=0 --group=0 --numeric-owner -c "${@:2}" |
    gzip --best --no-name >"$result/$1"
}
pack "$name.tar.gz" -C "$stage" "$name"

# The wheel says which glibc is the oldest that it runs with: the newest of which anything in it needs a symbol.
glibc=$(readelf -V "$libraries"/*.so* | grep -o 'GLIBC_[0-9.]*' | sort -uV | tail -n 1)
glibc=${glibc#GLIBC_}
(cd "$source/bindings/python" && python3 -B -c 'import build_wheel, sys
build_wheel.build_wheel(sys.argv[1], {"libraries": sys.argv[2], "platform": sys.argv[3]})' \
  "$result" "$libraries" "manylinux_${glibc/./_}_$machine")

# For npm the libraries are a package of their own, which the binding asks for by the machine's name. It does so here
# only: the binding's folder in the source is for those who have the libraries otherwise, and would ask a registry for it.
# npm itself, with its hundreds of packages, is not needed to pack them.
platform=wrapper-audio-linux-$node_machine
cat >"$libraries/package.json" <<END
{
  "name": "$platform",
  "version": "$version",
  "description": "The libraries of wrapper-audio for $machine",
  "os": ["linux"],
  "cpu": ["$node_machine"],
  "libc": ["glibc"]
}
END
cp -R "$source"/bindings/node/{README.md,index.js,index.d.ts,lib} "$stage"
python3 - "$source/bindings/node/package.json" "$stage/package.json" "$version" <<'END'
import json, sys
read, written, version = sys.argv[1:]
package = json.load(open(read))
del package["devDependencies"], package["scripts"]
package["optionalDependencies"] = {f"wrapper-audio-linux-{machine}": version for machine in package["cpu"]}
json.dump(package, open(written, "w"), indent=2)
END
pack "$platform-$version.tgz" --transform 's|^\.|package|' -C "$libraries" .
pack "wrapper-audio-$version.tgz" --transform 's|^|package/|' -C "$stage" README.md index.d.ts index.js lib package.json
