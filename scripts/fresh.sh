# Sourced by the checks that install what 'make package' made into fresh Debian 13
# roots. They put the program "inside", and what it needs, into $work.
# shellcheck shell=bash disable=SC2154

set -E
trap 'say "$BASH_SOURCE:$LINENO ended with $?: $BASH_COMMAND"' ERR
[ -d "$project/build/packages" ] || fail "there are no packages: run 'make package' first"
"$scripts/make-root" >/dev/null # brings mmdebstrap and bubblewrap
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/sources"
debian_sources "$(debian_mirror)" >"$work/sources/debian.sources"
live555_preferences >"$work/sources/live555"
mkdir "$work/packages"
cp "$project"/build/packages/*[_-]"$(dpkg --print-architecture)".* "$project"/build/packages/*_all.deb "$work/packages" 2>/dev/null || true

# fill_root ROOT NAME PACKAGES
fill_root() {
  mmdebstrap --quiet --variant=apt --aptopt='Acquire::Retries "5"' --dpkgopt=force-unsafe-io --include="$3" \
    --setup-hook="mkdir -p \"\$1/etc/apt/preferences.d\" && cp '$work/sources/live555' \"\$1/etc/apt/preferences.d/live555\"" \
    --customize-hook="cp -r '$work'/* \"\$1/root/\"" \
    --customize-hook="chroot \"\$1\" /root/inside prepare $2" \
    "${suite:-trixie}" - "$work/sources/debian.sources" </dev/null |
    tar -x -C "$1" --exclude='./dev/*' --no-same-owner
}

# fresh NAME PACKAGES: makes a root with these packages and a copy of $work in /root. Runs
# "inside prepare NAME" there while it is made, and then "inside check NAME" in a network
# namespace. $work/results is /tmp/results there.
fresh() {
  local root=$work.$1
  say "making a fresh root for $1"
  mkdir -p "$work/results"
  chmod -R a+rX "$work"
  mkdir "$root"
  # shellcheck disable=SC2064  # the root's name as it is now
  trap "rm -rf '$work' '$root'" EXIT
  fill_root "$root" "$@" || {
    say "that failed (above): once more, in case the mirror was not to be reached"
    rm -rf "$root"
    mkdir "$root"
    fill_root "$root" "$@"
  }
  bwrap --die-with-parent --unshare-pid --unshare-net --cap-add CAP_NET_ADMIN --bind "$root" / --proc /proc --dev /dev --tmpfs /tmp \
    --bind "$work/results" /tmp/results --setenv PATH /usr/sbin:/usr/bin:/sbin:/bin --setenv HOME /root --chdir /root /root/inside check "$1"
  rm -rf "$root"
}
