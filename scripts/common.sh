# Sourced by the scripts beside it: messages, the package list, the apt sources.
# shellcheck shell=bash

scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
project=$(dirname "$scripts")

say() { printf 'kavo: %s\n' "$1" >&2; }
fail() {
  printf 'kavo: %s\n' "$1" >&2
  exit 1
}

# packages [KIND]: what a root of the kind has, one a line.
packages() { sed -n "/^\[${1:-build}\]/,/^\[/{s/[[:space:]]*#.*//; /^\[/d; /./p}" "$scripts/packages.txt"; }

# The Debian mirror that this machine uses itself; never hard-coded.
debian_mirror() {
  if [ -n "${KAVO_DEBIAN_MIRROR:-}" ]; then
    printf '%s\n' "$KAVO_DEBIAN_MIRROR"
    return
  fi
  local uri
  # shellcheck disable=SC2016  # apt-get expands these, not the shell
  uri=$(apt-get indextargets --format '$(COMPONENT) $(REPO_URI)' 'Created-By: Packages' 2>/dev/null |
    sed -n 's|^main \(.*/debian/\?\)$|\1|p' | head -n 1)
  [ -n "$uri" ] || fail "no Debian mirror in this machine's apt sources; set KAVO_DEBIAN_MIRROR=<address of a Debian mirror>"
  printf '%s\n' "$uri"
}

# Debian 13, and Debian testing for live555 alone (see live555_preferences). A
# testing index may be past its date on a mirror; its signature is checked all the same.
debian_sources() {
  local mirror=$1 keyring=/usr/share/keyrings/debian-archive-keyring.gpg
  printf 'Types: deb\nURIs: %s\nSuites: trixie\nComponents: main\nSigned-By: %s\n\n' "$mirror" "$keyring"
  live555_source "$mirror"
}

live555_source() {
  printf 'Types: deb\nURIs: %s\nSuites: forky\nComponents: main\nCheck-Valid-Until: no\nSigned-By: %s\n' \
    "$1" /usr/share/keyrings/debian-archive-keyring.gpg
}

live555_preferences() {
  printf 'Package: *\nPin: release n=forky\nPin-Priority: 50\n\n'
  printf 'Package: %s\nPin: release n=forky\nPin-Priority: 500\n' \
    'liblivemedia* livemedia-utils libbasicusageenvironment* libgroupsock* libusageenvironment*'
}
