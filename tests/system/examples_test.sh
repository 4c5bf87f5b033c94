#!/usr/bin/env bash
# Every example publishes, and a player sees a frame of it.
#   examples_test.sh FOLDER_OF_BUILT_EXAMPLES LIBRARY SOURCES
set -euo pipefail
built=$1
export KAVO_STREAM=$2
sources=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# watched NAME PORT COMMAND...: starts it, and saves a frame of its session.
watched() {
  local name=$1 port=$2
  shift 2
  : >"$work/out"  # what the last one said
  "$@" >"$work/out" 2>"$work/err" &
  local pid=$!
  for _ in $(seq 400); do
    grep -q rtsp:// "$work/out" && break
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.05
  done
  ffmpeg -v error -rtsp_transport tcp -i "rtsp://127.0.0.1:$port/$name" -frames:v 1 -y "$work/$name.png" ||
    { cat "$work/out" "$work/err"; exit 1; }
  kill "$pid"
  wait "$pid" 2>/dev/null || true
  echo "$* was seen"
}

port() { python3 -c 'import socket; s = socket.socket(socket.AF_INET6); s.bind(("::", 0)); print(s.getsockname()[1])'; }

p=$(port); watched host "$p" "$built/example_host" "$p" 30
p=$(port); watched host "$p" "$built/example_host_c" "$p" 30
p=$(port); watched camera3 "$p" "$built/example_many_cameras" 5 "$p" 30
p=$(port); watched host "$p" python3 "$sources/host.py" "$p" 30
# They end by themselves too.
"$built/example_host" "$(port)" 1 >/dev/null
if [ -e /dev/video0 ]; then
  p=$(port); watched camera "$p" "$built/example_v4l2" /dev/video0 "$p" 30
else
  echo "no camera here: v4l2 was built, and only its error was seen"
  "$built/example_v4l2" /dev/video0 2>"$work/err" && exit 1
  grep -q 'No such file' "$work/err"
fi
