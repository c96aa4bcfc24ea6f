#!/usr/bin/env bash
# scripts/setup and scripts/fetch-rnnoise on a scripted Debian: what the one installs and when it refuses, and that the
# other takes only what Debian signed. Nothing is installed here, and nothing fetched.
# Usage: check_setup.sh SOURCE_FOLDER
set -euo pipefail
source=$1
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

fail() { echo "FAILED: $*"; cat "$folder/said" "$folder/done" 2>/dev/null || true; exit 1; }

# All that the scripts can call: some of the system's own tools, and a package manager that writes down what it is to do.
mkdir "$folder/bin" "$folder/root" "$folder/rnnoise"
for tool in bash env echo dirname sed grep awk sort xargs mktemp chmod rm cat wc mkdir head cp; do
  ln -s "$(type -P $tool)" "$folder/bin"
done
script() { # name, body
  printf '#!%s\n%s\n' "$(command -v bash)" "$2" >"$folder/bin/$1"
  chmod 755 "$folder/bin/$1"
}
# shellcheck disable=SC2016 # expanded when they run
{
  script id 'echo "$USER_ID"'
  script npm 'exit 1'
  script gnuplot 'exit 1'
  script pkg-config 'exit "$RNNOISE_IS_MISSING"'
  script dpkg-query 'package=${*: -1}
case $* in
  *Status*) [[ " $INSTALLED " = *" $package "* ]] && echo installed ;;
  *) echo "$RNNOISE_VERSION" ;;
esac'
  script apt-cache 'case $* in *search*librnnoise-dev*) echo "librnnoise-dev - noise" ;; esac'
  script apt-get 'case " $* " in
  *" --simulate "*) printf "Inst g++ (1)\nConf g++ (1)\n%s" "$SIMULATED"; exit "$SIMULATION" ;;
esac
echo "$*" >>"$DONE"'
}

setup() { # purpose...; leaves what it said and did
  rm -f "$folder/said" "$folder/done"
  env -i PATH="$folder/bin" DONE="$folder/done" USER_ID="${user-0}" RNNOISE_IS_MISSING="${rnnoise_is_missing-0}" \
    RNNOISE_VERSION="${rnnoise_version-0.2+ds-1}" INSTALLED="${installed-}" SIMULATED="${simulated-}" \
    SIMULATION="${simulation-0}" "$source/scripts/setup" "$@" >"$folder/said" 2>&1
}
said() { grep -qF -- "$1" "$folder/said" || fail "not said: $1"; }
# Fresh package lists change nothing on the system.
installs() { grep -v 'update$' "$folder/done" 2>/dev/null || true; }

setup || fail "it does not install"
said 'to build and to record: g++ cmake'
[[ $(installs) = *'--no-remove install --no-install-recommends g++ cmake '* ]] || fail "it installs otherwise: $(installs)"
[[ $(installs) != *doxygen* ]] || fail "without a purpose it installs what only others need"
setup reference && [[ $(installs) = *' doxygen' && $(installs) != *g++* ]] || fail "the reference: $(installs)"
rnnoise_is_missing=1 setup run && [[ $(installs) = *' librnnoise-dev' ]] || fail "RNNoise of the system's own archive: $(installs)"
! setup everything && said 'scripts/setup [PURPOSE...]' && [ -z "$(installs)" ] || fail "a purpose that there is not"
echo "ok: it installs what the purpose needs"

simulated=$'Remv pipewire-audio [1]\nPurg wireplumber [2]\n'
! setup run || fail "it installs although something would be removed"
said 'would be removed: pipewire-audio wireplumber'
[ -z "$(installs)" ] || fail "it does something although something would be removed: $(installs)"
simulated='' simulation=100
! setup run && said 'nothing was installed' && [ -z "$(installs)" ] || fail "it goes on after a failed simulation: $(installs)"
simulation=0
echo "ok: where something would be removed it installs nothing"

installed=doxygen setup reference && said 'everything is installed' || fail "it does not see what is there"
[ ! -e "$folder/done" ] || fail "it does something where all is there: $(cat "$folder/done")"
user=1000
! setup run && said 'neither root nor sudo' && said 'to build and to record: g++' && [ ! -e "$folder/done" ] ||
  fail "without root and sudo"
# shellcheck disable=SC2016 # expanded when it runs
script sudo 'echo -n "sudo " >>"$DONE"; exec "$@"'
setup run && [[ $(installs) = 'sudo '* ]] || fail "it does not use sudo: $(installs)"
rm "$folder/bin/sudo"
user=0
echo "ok: it needs root or sudo, and does nothing where all is there"

setup run && ! grep -q WARNING "$folder/said" || fail "it warns of a tested RNNoise"
for rnnoise_version in 1:0.2-3 0.2; do
  setup run && ! grep -q WARNING "$folder/said" || fail "it warns of RNNoise $rnnoise_version"
done
for rnnoise_version in 0.3-1 0.20-1 0.2~rc1-1 0.2+git20260101-1 0.1; do
  setup run && said "WARNING: this is RNNoise $rnnoise_version" || fail "it does not warn of RNNoise $rnnoise_version"
done
echo "ok: it warns of an RNNoise that was not tested"

make_package() { # name, version, dependencies
  mkdir -p "$folder/package/DEBIAN"
  printf '%s\n' "Package: $1" "Version: $2" "Architecture: $(dpkg --print-architecture)" 'Maintainer: nobody <nobody@example.com>' \
    'Description: noise' >"$folder/package/DEBIAN/control"
  dpkg-deb --build --root-owner-group "$folder/package" "$folder/archive/$1.deb" >/dev/null
}
fetch() { # leaves what it said; what is fetched lies in the folder rnnoise
  rm -rf "$folder/done" "$folder/rnnoise"
  mkdir "$folder/rnnoise"
  PATH=$folder/bin:$PATH "$source/scripts/fetch-rnnoise" "$folder/rnnoise" >"$folder/said" 2>&1
}
fetched() { [ "$(ls "$folder/rnnoise")" = "${1-}" ] || fail "these are there now: $(ls "$folder/rnnoise")"; }
both=$'librnnoise-dev.deb\nlibrnnoise0.deb'

# An archive whose signature is taken for granted.
mkdir -p "$folder/archive"
# shellcheck disable=SC2016 # expanded when it runs
script apt-cache '[[ " $* " != *" show $LOST "* ]]'
script apt-get "case \"\$*\" in
  indextargets*) echo archive ;;
  *download*) cp '$folder'/archive/librnnoise*.deb . ;;
esac"
make_package librnnoise0 0.2+ds-1
make_package librnnoise-dev 0.2+ds-1
fetch && [ ! -s "$folder/said" ] || fail "it does not fetch"
fetched "$both"
! LOST=librnnoise-dev fetch && said 'Debian unstable no longer has librnnoise-dev' || fail "the archive has no librnnoise-dev"
fetched
make_package librnnoise0 0.3-1
! fetch && said 'different versions: 0.2+ds-1 0.3-1' || fail "it takes different versions"
fetched
make_package librnnoise-dev 0.3-1
fetch && said 'WARNING: this is RNNoise 0.3-1' || fail "it does not warn of another version"
fetched "$both"
echo "ok: RNNoise is fetched in the version that was tested, or with a warning"

# An archive without a signature, and the system's own package manager, told to take it.
rm "$folder/bin/apt-cache"
script apt-get "case \"\$*\" in
  indextargets*) echo 'file:$folder/archive' ;;
  *) exec '$(type -P apt-get)' \"\$@\" ;;
esac"
cat >"$folder/careless.conf" <<'END'
Acquire::AllowInsecureRepositories "true";
Acquire::AllowWeakRepositories "true";
APT::Get::AllowUnauthenticated "true";
END
export APT_CONFIG=$folder/careless.conf
(
  cd "$folder/archive"
  lists=main/binary-$(dpkg --print-architecture)
  mkdir -p "dists/unstable/$lists"
  for file in *.deb; do
    dpkg-deb -f "$file"
    printf 'Filename: %s\nSize: %s\nSHA256: %s\n\n' "$file" "$(stat -c %s "$file")" "$(sha256sum <"$file" | cut -d ' ' -f 1)"
  done >"dists/unstable/$lists/Packages"
  cd dists/unstable
  {
    printf 'Origin: Debian\nLabel: Debian\nSuite: unstable\nCodename: sid\nDate: %s\n' "$(LC_ALL=C date -u '+%a, %d %b %Y %T UTC')"
    printf 'Architectures: %s\nComponents: main\nSHA256:\n %s %s %s\n' "$(dpkg --print-architecture)" \
      "$(sha256sum <"$lists/Packages" | cut -d ' ' -f 1)" "$(stat -c %s "$lists/Packages")" "$lists/Packages"
  } >Release
)
! fetch && said 'not signed' && said "Debian's keys do not vouch" || fail "it takes what nobody signed"
fetched
# The missing signature was all that was wrong with it.
mkdir -p "$folder/apt/lists/partial" "$folder/apt/cache/archives/partial"
echo "deb [trusted=yes] file:$folder/archive unstable main" >"$folder/apt/sources"
apt=(-qq -o "Dir::Etc::sourcelist=$folder/apt/sources" -o Dir::Etc::sourceparts=- -o "Dir::State::lists=$folder/apt/lists"
     -o "Dir::Cache=$folder/apt/cache" -o APT::Sandbox::User=root)
(cd "$folder/rnnoise" && apt-get "${apt[@]}" update && apt-get "${apt[@]}" download librnnoise0 librnnoise-dev) >"$folder/said" 2>&1 ||
  fail "the archive is not to be had even by those who trust it"
echo "ok: what is not signed is refused"
