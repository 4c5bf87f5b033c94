#!/usr/bin/env bash
# proxy.sh RTSP_URL [PORT]
#
# Stands between a host and its viewers: however many watch
# rtsp://THIS-MACHINE:PORT/proxyStream, the host has one viewer. Needs
# live555ProxyServer (on Debian: livemedia-utils).
set -euo pipefail
[ $# -ge 1 ] || { echo "usage: proxy.sh RTSP_URL [PORT]" >&2; exit 2; }
command -v live555ProxyServer >/dev/null ||
  { echo "proxy.sh: live555ProxyServer is not installed (on Debian: livemedia-utils)" >&2; exit 1; }
# -t: from the host over TCP, which neither loses packets nor needs open ports.
exec live555ProxyServer -t -p "${2:-9554}" "$1"
