#!/usr/bin/env bash
# kavo-publish: what a player shows of files and other sources.
set -euo pipefail
publish=$1
. "$(dirname "$0")/publisher.sh"

# pixel FILE: the colour in the middle of its frame, as hex.
pixel() { ffmpeg -v error -i "$1" -vf crop=2:2 -frames:v 1 -f rawvideo -pix_fmt rgb24 - | od -An -tx1 -N3 | tr -d ' \n'; }

# green FILE: whether the middle of its frame is green.
green() {
  case $(pixel "$1") in
    [0-3]?[a-d]?[0-3]?) ;;
    *) die "not green: $(pixel "$1")" ;;
  esac
}

# A file that is looped keeps its colour.
ffmpeg -v error -f lavfi -i color=c=0x00c000:size=320x240:rate=25 -t 1 -pix_fmt yuv420p "$work/green.mp4"
start --loop "$work/green.mp4"
refused 1 "cannot serve on port $port" --port "$port"
ffmpeg -v error -rtsp_transport tcp -i "rtsp://127.0.0.1:$port/kavo" -fps_mode passthrough -frames:v 40 -y "$work/seen%d.png"
stop
[ -f "$work/seen40.png" ] || die "the file did not start again"
green "$work/seen1.png"

# In JPEG, white stays white and red stays red, in the input's size and in another.
for colour in white red; do
  ffmpeg -v error -f lavfi -i color=c=$colour:size=320x240:rate=25 -t 1 -pix_fmt yuv420p "$work/$colour.mp4"
done
for size in 320x240 640x480; do
  start --loop --codec jpeg --size $size --name white --name red "$work/white.mp4" "$work/red.mp4"
  for colour in white:ffffff red:fe0000; do
    ffmpeg -v error -rtsp_transport tcp -i "rtsp://127.0.0.1:$port/${colour%:*}" -frames:v 1 -y "$work/colour.png"
    python3 - "$(pixel "$work/colour.png")" ${colour#*:} <<'EOF' || die "$colour is $(pixel "$work/colour.png")"
import sys
seen, wanted = (bytes.fromhex(text) for text in sys.argv[1:])
assert max(abs(a - b) for a, b in zip(seen, wanted)) <= 2
EOF
  done
  stop
done

# Two inputs at once are two streams, and JSON has both.
ffmpeg -v error -f lavfi -i testsrc=size=1280x720:rate=25 -t 1 -pix_fmt yuv420p "$work/large.mp4"
refused 1 'missing.mp4' "$work/green.mp4" "$work/missing.mp4"
start --json --codec jpeg --loop --name green --name large "$work/green.mp4" "$work/large.mp4"
ffmpeg -v error -rtsp_transport tcp -i "rtsp://127.0.0.1:$port/green" -fps_mode passthrough -frames:v 60 -y "$work/two%d.png"
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

# A rotated film, as telephones record it, with pixels half as wide as high, is turned upright.
ffmpeg -v error -i "$work/green.mp4" -vf setsar=1/2 "$work/narrow.mp4"
ffmpeg -v error -display_rotation 90 -i "$work/narrow.mp4" -c copy "$work/turned.mp4"
start --json --loop "$work/turned.mp4"
ffmpeg -v error -rtsp_transport tcp -i "rtsp://127.0.0.1:$port/kavo" -frames:v 1 -y "$work/upright.png"
stop
green "$work/upright.png"
[[ $(ffprobe -v error -show_entries stream=width,height -of csv=p=0 "$work/upright.png") = 240,160 ]] || die "not upright"
refused 0 'has one frame; --loop' "$work/upright.png"

# If the source is lost, it ends with 1 or, with --reconnect, opens the source again. The frame keeps its size.
start --loop --name camera --size 320x240 "$work/green.mp4"
camera=$pid url=rtsp://127.0.0.1:$port/camera again=$port
start "$url"
once=$pid
start --reconnect "$url"
pid=$camera stop
wait "$once" && die "a lost source ended with 0"
until grep -q 'is lost' "$work/err"; do sleep 0.05; done
camera=
until grep -q 'is back' "$work/err"; do
  # Again if another program has the port meanwhile.
  kill -0 $camera 2>/dev/null || { "$publish" --port "$again" --loop --name camera --size 160x120 "$work/green.mp4" &>"$work/camera" & camera=$!; }
  sleep 0.05
done
ffmpeg -v error -rtsp_transport tcp -i "rtsp://127.0.0.1:$port/kavo" -frames:v 5 -y "$work/back%d.png"
stop
kill "$camera"
green "$work/back5.png"
echo passed
