#!/usr/bin/env bash
# kavo-publish: mistakes are reported in one line each; without OpenH264 it publishes JPEG; it ends cleanly.
set -euo pipefail
publish=$1
fakes=$3  # of libopenh264
. "$(dirname "$0")/publisher.sh"

refused 2 'not expected: --nonsense' --nonsense
refused 2 '--port: 1 required' --port
refused 2 'from 1 to 65535' --port 70000
refused 2 'WIDTHxHEIGHT' --size 640
refused 2 'such as 800k' --bitrate fast
refused 2 '1 to 19 ASCII' --name this-name-is-far-too-long
refused 2 'once for each input' --name a x y
refused 2 'empty INPUT' ''
refused 2 'loop is for files' --loop
refused 2 "two inputs have the name 'a'" --name a --name a x y
refused 2 'not .a"b.' --name 'a"b'
refused 1 "no camera has 'nobody'" camera:nobody
refused 2 'nearest to --size 642x480 is 640x480' --codec jpeg --size 642x480
refused 2 'nearest to --size 641x480 is 640x480' --codec h264 --size 641x480
refused 2 'takes h264 or jpeg' --codec h265
refused 2 'bitrate 1 is out of range for 1280x720 as H.264' --bitrate 1
refused 1 'cannot open' "$work/missing.mp4"
echo "no video" >"$work/text.txt"
refused 1 'text.txt' "$work/text.txt"
"$publish" -h | grep -- '--reconnect' >/dev/null || die "no help"
"$publish" --version | grep '^kavo-publish 2' >/dev/null || die "no version"

# Without OpenH264, or with another library of that name, H.264 is refused and JPEG works.
for kind in absent old lacking; do
  LD_LIBRARY_PATH=$fakes/$kind refused 1 'cannot encode H.264 (result 7).*libopenh264-8' --codec h264
  LD_LIBRARY_PATH=$fakes/$kind run --codec jpeg --duration 0.1
  [ "$got" = 0 ] || die "no JPEG: $(cat "$work/err")"
done
# The run-time package is enough; the link of the development package is not needed.
LD_LIBRARY_PATH=$fakes/runtime run --codec h264 --duration 0.1
[ "$got" = 0 ] || die "no H.264: $(cat "$work/err")"
# Without --codec it publishes JPEG, and says why.
LD_LIBRARY_PATH=$fakes/absent start --size 320x240
grep -q 'OpenH264 2.6 is not installed' "$work/err" || die "silent about the missing OpenH264"
[ "$(ffprobe -v error -show_entries stream=codec_name -of csv=p=0 "rtsp://127.0.0.1:$port/kavo")" = mjpeg ] || die "no JPEG"
stop
LD_LIBRARY_PATH=$fakes/absent refused 1 'libopenh264-8' --codec h264 --bitrate 1

# It ends if nobody reads its output.
{ timeout 60 "$publish" --port "$(free_port)" --json || echo "$?" >"$work/closed"; } | head -n 1 >"$work/out"
[ "$(cat "$work/closed")" != 124 ] || die "did not end when its pipe was closed"
out=/dev/full run
[ "$got" = 1 ] && grep -q 'standard output: No space' "$work/err" || die "a full output: $got"

# The test pattern moves.
start --size 320x240
ffmpeg -v error -rtsp_transport tcp -i "rtsp://127.0.0.1:$port/kavo" -fps_mode passthrough -frames:v 2 -y "$work/moving%d.png"
stop
cmp -s "$work/moving1.png" "$work/moving2.png" && die "the test pattern does not move"
run --duration 0.3 --size 64x64
[ "$got" = 0 ] || die "no end after --duration"
# Completion in a shell.
completed=$(bash -c '. "$1"; COMP_WORDS=("$2" --l); COMP_CWORD=1; _kavo "$2"; echo "${COMPREPLY[*]}"' - "$2" "$publish")
[ "$completed" = "--loop --list-formats" ] || die "completed to: $completed"
"$publish" --list-formats | grep 'JPEG *16x16 to 2040x2040, in steps of 8' >/dev/null || die "no formats"
echo passed
