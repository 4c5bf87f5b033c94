#!/usr/bin/env bash
# Every example publishes, and a player shows a frame.
#   examples_test.sh FOLDER_OF_BUILT_EXAMPLES LIBRARY SOURCES
set -euo pipefail
built=$1
export KAVO_STREAM=$2
PYTHONPATH=$(dirname "$0")/../../python
export PYTHONPATH PYTHONDONTWRITEBYTECODE=1
sources=$3
. "$(dirname "$0")/publisher.sh"

# watched NAME PORT COMMAND...: starts the example and saves a frame of its session.
watched() {
  local name=$1 port=$2
  shift 2
  : >"$work/out"  # discards the output of the previous example
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

p=$(free_port); watched host "$p" "$built/example_host" "$p" 30
p=$(free_port); watched host "$p" "$built/example_host_c" "$p" 30
p=$(free_port); watched encoded "$p" "$built/example_host_c" "$p" 30
p=$(free_port); watched camera3 "$p" "$built/example_many_cameras" 5 "$p" 30
p=$(free_port); watched encoded "$p" "$built/example_encoded" "$p" 30
p=$(free_port); watched host "$p" python3 "$sources/host.py" "$p" 30
# They end cleanly by themselves, too.
"$built/example_host" "$(free_port)" 1 >/dev/null
if [ -e /dev/video0 ]; then
  p=$(free_port); watched camera "$p" "$built/example_v4l2" /dev/video0 "$p" 30
else
  echo "no camera here: v4l2 was built, and only its error was seen"
  "$built/example_v4l2" /dev/video0 2>"$work/err" && exit 1
  grep -q 'No such file' "$work/err"
fi
