# Sourced by what downloads packages without touching the system: apt's lists, cache and state in a folder of its own, so
# that it needs no privileges, installs nothing and leaves the system's own lists alone.
#   private_apt FOLDER             sets `apt`, the options; this system's Debian
#   private_apt FOLDER unstable    Debian unstable, from the archive that this system uses. What is not signed with a key
#                                  of Debian's keyring is refused, whatever the system's own settings allow. Fails where
#                                  no archive of Debian's is configured
#   debian_archive                 prints the address of that archive, or nothing
# shellcheck shell=bash
debian_archive() {
  # shellcheck disable=SC2016 # apt's own names
  apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Origin: Debian' 'Label: Debian' | head -n 1
}

private_apt() {
  mkdir -p "$1/lists/partial" "$1/cache/archives/partial"
  apt=(-qq -o "Dir::State::lists=$1/lists" -o "Dir::Cache=$1/cache" -o APT::Sandbox::User=root)
  [ "${2-}" = unstable ] || return 0
  local archive
  archive=$(debian_archive)
  [ -n "$archive" ] || return 1
  echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $archive unstable main" >"$1/sources.list"
  apt+=(-o "Dir::Etc::sourcelist=$1/sources.list" -o Dir::Etc::sourceparts=-
        -o Acquire::Languages=none -o APT::Update::Error-Mode=any
        -o Acquire::AllowInsecureRepositories=false -o Acquire::AllowWeakRepositories=false
        -o Acquire::AllowDowngradeToInsecureRepositories=false -o APT::Get::AllowUnauthenticated=false)
}
