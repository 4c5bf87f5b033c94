#!/usr/bin/env bash
# kavo-publish: its mistakes in one line each, a real file seen in a player, a clean end.
set -euo pipefail
publish=$1
fakes=$3  # of libopenh264
. "$(dirname "$0")/publisher.sh"

# run ARGUMENT...: on a free port, and again where another program has taken it meanwhile. Sets got.
run() {
  for _ in {1..5}; do
    got=0
    timeout 60 "$publish" --port "$(free_port)" "$@" >"$work/out" 2>"$work/err" || got=$?
    grep -q 'cannot serve on port' "$work/err" || break
  done
}

# refused STATUS TEXT ARGUMENT...: one line with the text, and the exit status.
refused() {
  local status=$1 text=$2
  shift 2
  run "$@"
  [ "$got" = "$status" ] || die "$* ended with $got: $(cat "$work/err")"
  [ "$(wc -l <"$work/err")" = 1 ] || die "$* did not say one line: $(cat "$work/err")"
  grep -q -- "$text" "$work/err" || die "$* said: $(cat "$work/err")"
}

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

# pixel FILE: the colour in the middle of its frame, as hex.
pixel() { ffmpeg -v error -i "$1" -vf crop=2:2 -frames:v 1 -f rawvideo -pix_fmt rgb24 - | od -An -tx1 -N3 | tr -d ' \n'; }

# green FILE: whether the middle of its frame is green.
green() {
  case $(pixel "$1") in
    [0-3]?[a-d]?[0-3]?) ;;
    *) die "not green: $(pixel "$1")" ;;
  esac
}

# A real file, twice over, comes out in its colour.
ffmpeg -v error -f lavfi -i color=c=0x00c000:size=320x240:rate=25 -t 1 -pix_fmt yuv420p "$work/green.mp4"
start --loop "$work/green.mp4"
refused 1 "cannot serve on port $port" --port "$port"
ffmpeg -v error -rtsp_transport tcp -i "rtsp://127.0.0.1:$port/kavo" -frames:v 40 -y "$work/seen%d.png"
stop
[ -f "$work/seen40.png" ] || die "the file did not start again"
green "$work/seen1.png"

# Without OpenH264, or with something else behind its name, H.264 is refused and JPEG works.
for kind in absent old lacking; do
  LD_LIBRARY_PATH=$fakes/$kind refused 1 'cannot encode H.264 (result 7)' --codec h264
  LD_LIBRARY_PATH=$fakes/$kind run --codec jpeg --duration 0.1
  [ "$got" = 0 ] || die "no JPEG: $(cat "$work/err")"
done
# The run-time package alone, without the development package's link, is enough.
LD_LIBRARY_PATH=$fakes/runtime run --codec h264 --duration 0.1
[ "$got" = 0 ] || die "no H.264: $(cat "$work/err")"

# As JPEG, white is white and red is red, in the input's size and in another.
for colour in white:ffffff red:fe0000; do
  ffmpeg -v error -f lavfi -i color=c=${colour%:*}:size=320x240:rate=25 -t 1 -pix_fmt yuv420p -y "$work/colour.mp4"
  for size in 320x240 640x480; do
    start --loop --codec jpeg --size $size "$work/colour.mp4"
    ffmpeg -v error -rtsp_transport tcp -i "rtsp://127.0.0.1:$port/kavo" -frames:v 1 -y "$work/colour.png"
    stop
    python3 - "$(pixel "$work/colour.png")" ${colour#*:} <<'EOF' || die "$colour is $(pixel "$work/colour.png")"
import sys
seen, wanted = (bytes.fromhex(text) for text in sys.argv[1:])
assert max(abs(a - b) for a, b in zip(seen, wanted)) <= 2
EOF
  done
done

# Two inputs at once are two streams, and JSON has both.
ffmpeg -v error -f lavfi -i testsrc=size=1280x720:rate=25 -t 1 -pix_fmt yuv420p "$work/large.mp4"
refused 1 'missing.mp4' "$work/green.mp4" "$work/missing.mp4"
start --json --codec jpeg --loop --name green --name large "$work/green.mp4" "$work/large.mp4"
ffmpeg -v error -rtsp_transport tcp -i "rtsp://127.0.0.1:$port/green" -frames:v 60 -y "$work/two%d.png"
stop
green "$work/two30.png"
python3 - "$work/out" <<'EOF' || die "$(cat "$work/out")"
import json, sys
lines = [json.loads(line) for line in open(sys.argv[1])]
assert [line["stream"] for line in lines[:2]] == ["green", "large"], "introduction"
assert lines[1]["width"] == 1280 and lines[1]["codec"] == "jpeg" and lines[1]["url"].endswith("/large")
green, large = lines[-2:]
assert green["encoded"] >= 30 and green["offered"] == green["encoded"] + green["unwatched"], "watched"
assert any(line.get("viewers") == 1 for line in lines), "viewers"
assert large["encoded"] == 0 and large["unwatched"] == large["offered"] > 0, "not watched"
EOF

# A film from a telephone on its side, with pixels half as wide as high, is turned upright.
ffmpeg -v error -i "$work/green.mp4" -vf setsar=1/2 "$work/narrow.mp4"
ffmpeg -v error -display_rotation 90 -i "$work/narrow.mp4" -c copy "$work/turned.mp4"
start --json --loop "$work/turned.mp4"
ffmpeg -v error -rtsp_transport tcp -i "rtsp://127.0.0.1:$port/kavo" -frames:v 1 -y "$work/upright.png"
stop
green "$work/upright.png"
[[ $(ffprobe -v error -show_entries stream=width,height -of csv=p=0 "$work/upright.png") = 240,160 ]] || die "not upright"

# A source that is lost ends it with 1, or is opened again; the picture keeps its size.
start --loop --name camera --size 320x240 "$work/green.mp4"
camera=$pid url=rtsp://127.0.0.1:$port/camera again=$port
start "$url"
once=$pid
start --reconnect "$url"
pid=$camera stop
wait "$once" && die "a lost source ended with 0"
until grep -q 'is lost' "$work/err"; do sleep 0.05; done
"$publish" --port "$again" --loop --name camera --size 160x120 "$work/green.mp4" >"$work/camera" 2>&1 &
camera=$!
until grep -q 'is back' "$work/err"; do sleep 0.05; done
ffmpeg -v error -rtsp_transport tcp -i "rtsp://127.0.0.1:$port/kavo" -frames:v 5 -y "$work/back%d.png"
stop
kill "$camera"
green "$work/back5.png"

# Nobody reads what it prints: it ends.
refused 0 'has one frame; --loop' "$work/upright.png"
{ timeout 60 "$publish" --port "$(free_port)" --json || echo "$?" >"$work/closed"; } | head -n 1 >"$work/out"
[ "$(cat "$work/closed")" != 124 ] || die "did not end when its pipe was closed"
status=0
timeout 60 "$publish" --port "$(free_port)" >/dev/full 2>"$work/err" || status=$?
[ "$status" = 1 ] && grep -q 'standard output: No space' "$work/err" || die "a full output: $status"

# Without OpenH264 it says so, and publishes JPEG.
mkdir "$work/without"
: >"$work/without/libopenh264.so"
: >"$work/without/libopenh264.so.8"
LD_LIBRARY_PATH=$work/without start "$work/green.mp4" --loop
grep -q 'OpenH264 2.6 is not installed' "$work/err" || die "silent about the missing OpenH264"
ffmpeg -v error -rtsp_transport tcp -i "rtsp://127.0.0.1:$port/kavo" -frames:v 1 -y "$work/jpeg.png"
stop
green "$work/jpeg.png"
LD_LIBRARY_PATH=$work/without refused 1 'libopenh264-8' --codec h264
LD_LIBRARY_PATH=$work/without refused 1 'libopenh264-8' --codec h264 --bitrate 1

# The test pattern moves.
start --size 320x240
ffmpeg -v error -rtsp_transport tcp -i "rtsp://127.0.0.1:$port/kavo" -frames:v 2 -y "$work/moving%d.png"
stop
cmp -s "$work/moving1.png" "$work/moving2.png" && die "the test pattern does not move"
"$publish" --port "$port" --duration 0.3 --size 64x64 >"$work/out" || die "no end after --duration"
# What a terminal completes.
completed=$(bash -c '. "$1"; COMP_WORDS=("$2" --l); COMP_CWORD=1; _kavo "$2"; echo "${COMPREPLY[*]}"' - "$2" "$publish")
[ "$completed" = "--loop --list-formats" ] || die "completed to: $completed"
"$publish" --list-formats | grep 'JPEG *16x16 to 2040x2040, in steps of 8' >/dev/null || die "no formats"
echo passed
