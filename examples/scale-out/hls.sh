#!/usr/bin/env bash
# hls.sh RTSP_URL FOLDER
#
# Writes an H.264 stream of a host as HLS segments into FOLDER, without encoding
# it again, together with a page that plays it. Any web server or CDN can serve
# FOLDER; nginx.conf beside this script does. Needs ffmpeg, and the first time npm.
set -euo pipefail
[ $# -eq 2 ] || { echo "usage: hls.sh RTSP_URL FOLDER" >&2; exit 2; }
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$2"
cp "$here/player.html" "$2/index.html"
# The player's script is npm's package hls.js.
if [ ! -s "$2/hls.min.js" ]; then
  fetched=$(mktemp -d)
  trap 'rm -rf "$fetched"' EXIT
  (cd "$fetched" && npm pack --silent hls.js@1.5.20 >/dev/null && tar xzf hls.js-*.tgz) ||
    { echo "hls.sh: npm could not fetch hls.js; put its hls.min.js into $2" >&2; exit 1; }
  cp "$fetched/package/dist/hls.min.js" "$2/"
fi
# Segments begin with key frames, of which a host sends one every two seconds.
ffmpeg -nostdin -v warning -rtsp_transport tcp -i "$1" -c copy -an -f hls -hls_time 1 -hls_list_size 6 \
  -hls_flags delete_segments+independent_segments -y "$2/live.m3u8"
