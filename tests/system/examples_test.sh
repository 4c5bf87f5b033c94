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

# watched NAME COMMAND...: starts the example on a free port, which stands for PORT, and saves a frame of its session.
# Again if another program has taken the port.
watched() {
  local name=$1 port pid
  shift
  for _ in {1..5}; do
    port=$(free_port)
    : >"$work/out"  # discards the output of the previous example
    "${@/#PORT/$port}" >"$work/out" 2>"$work/err" &
    pid=$!
    until grep -q rtsp:// "$work/out" || ! kill -0 "$pid" 2>/dev/null; do sleep 0.05; done
    grep -q 'port in use' "$work/err" || break
  done
  ffmpeg -v error -rtsp_transport tcp -i "rtsp://127.0.0.1:$port/$name" -frames:v 1 -y "$work/$name.png" ||
    { cat "$work/out" "$work/err"; exit 1; }
  kill "$pid"
  wait "$pid" 2>/dev/null || true
  echo "$* was seen"
}

watched host "$built/example_host" PORT 30
watched host "$built/example_host_c" PORT 30
watched encoded "$built/example_host_c" PORT 30
watched camera3 "$built/example_many_cameras" 5 PORT 30
watched encoded "$built/example_encoded" PORT 30
watched host python3 "$sources/host.py" PORT 30
# They end cleanly by themselves, too.
until "$built/example_host" "$(free_port)" 1 >/dev/null 2>"$work/err"; do
  grep -q 'port in use' "$work/err" || die "$(cat "$work/err")"
done
if [ -e /dev/video0 ]; then
  watched camera "$built/example_v4l2" /dev/video0 PORT 30
else
  echo "no camera here: v4l2 was built, and only its error was seen"
  "$built/example_v4l2" /dev/video0 2>"$work/err" && exit 1
  grep -q 'No such file' "$work/err"
fi
