#!/usr/bin/env bash
# The URL of a session has the machine's current address. Each case runs in a network namespace
# of its own. Exit status 77 (skipped) if namespaces are not allowed.
set -euo pipefail
publish=$1
unshare -n true 2>/dev/null || {
  echo "skipped: this machine allows no network namespaces"
  exit 77
}
. "$(dirname "$0")/publisher.sh"

# url SETUP ADDRESS: after the setup, the URL of a session has the address.
url() {
  # shellcheck disable=SC2016  # the inner shell expands them
  unshare -n sh -ec 'ip link set lo up; eval "$1"; exec "$2" --duration 0.1 --codec jpeg' sh "$1" "$publish" \
    >"$work/out" 2>&1 || die "$(cat "$work/out")"
  grep -qF "rtsp://$2:" "$work/out" || die "with '$1' not $2: $(cat "$work/out")"
}

link='ip link add card type veth peer name far; ip link set far up; ip link set card up'
url : 127.0.0.1
url "$link" 127.0.0.1 # before DHCP has answered
url "$link; ip addr add 10.9.8.7/24 dev card" 10.9.8.7
url "$link; ip addr add 10.9.8.7/24 dev card; ip link set card down" 127.0.0.1
url "$link; ip addr add fd00:9::7/64 dev card nodad" '[fd00:9::7]'
url "$link; ip addr add fd00:9::7/64 dev card nodad; ip addr add 10.9.8.7/24 dev card" 10.9.8.7
echo "the URL's address: passed"
