#!/usr/bin/env bash
# kavo-publish --copy: players decode exactly the frames of the file, and a file that cannot be copied is
# refused with the reason.
set -euo pipefail
publish=$1
seconds=${2:-2}
. "$(dirname "$0")/publisher.sh"

frames=$((25 * seconds))
make_film() { ffmpeg -v error -f lavfi -i "testsrc2=size=320x240:rate=25" -t "$seconds" "${@:2}" "$work/$1"; }
x264=(-pix_fmt yuv420p -c:v libx264 -g 20 -preset veryfast)
jpeg=(-pix_fmt yuvj420p -c:v mjpeg -q:v 4)
make_film h264.mp4 "${x264[@]}" -profile:v high -bf 0 -slices 4
make_film h264.h264 "${x264[@]}" -bf 0 -x264-params aud=1
make_film h265.mp4 -pix_fmt yuv420p -c:v libx265 -x265-params log-level=error:bframes=0:keyint=20
make_film 420.avi "${jpeg[@]}" -huffman default
make_film restarts.avi "${jpeg[@]}" -huffman default -slices 4
gst-launch-1.0 -q videotestsrc num-buffers=$frames pattern=ball animation-mode=frames ! \
  video/x-raw,format=Y42B,width=320,height=240,framerate=25/1 ! jpegenc ! avimux ! filesink location="$work/422.avi"
# Like a USB camera: without the standard Huffman tables.
ffmpeg -v error -i "$work/422.avi" -c copy -f mjpeg "$work/422.mjpeg"
python3 - "$work/422.mjpeg" "$work/bare.mjpeg" <<'EOF'
import sys
data, bare = open(sys.argv[1], "rb").read(), bytearray()
while (at := data.find(b"\xff\xc4")) >= 0:
    length = int.from_bytes(data[at + 2:at + 4], "big")
    bare += data[:at]
    data = data[at + 2 + length:]
open(sys.argv[2], "wb").write(bare + data)
EOF
grep -q 4:2:2 < <(ffprobe -v error -show_entries stream=pix_fmt "$work/422.avi" | sed 's/yuvj422p/4:2:2/')

make_film bframes.mp4 "${x264[@]}" -bf 2
make_film optimal.avi "${jpeg[@]}" -huffman optimal
make_film 422_tall.avi -pix_fmt yuvj422p -c:v mjpeg -huffman default
make_film mpeg4.avi -c:v mpeg4

# watch NAME CODEC: starts two players over TCP and UDP, which write what they decode to files.
watch() {
  local url="rtsp://127.0.0.1:$port/$1" decoder transport
  case $2 in
    h264) decoder="rtph264depay ! avdec_h264" ;;
    h265) decoder="rtph265depay ! h265parse ! avdec_h265" ;;
    jpeg) decoder="rtpjpegdepay ! avdec_mjpeg" ;;
  esac
  for transport in tcp udp; do
    ffmpeg -nostdin -v error -rtsp_transport $transport -i "$url" -fps_mode passthrough -frames:v $frames \
      -f framemd5 -y "$work/$1.ffmpeg-$transport" || return 1 &
    # One more than is compared: identity drops the last frame when it ends.
    timeout 60 gst-launch-1.0 -q rtspsrc location="$url" protocols=$transport latency=200 ! $decoder ! \
      identity eos-after=$((frames + 1)) ! filesink location="$work/$1.gstreamer-$transport" || return 1 &
  done
}

inputs=(h264.mp4 h264.h264 h265.mp4 420.avi restarts.avi 422.avi bare.mjpeg)
names=(high aud h265 y420 restarts y422 bare)
codecs=(h264 h264 h265 jpeg jpeg jpeg jpeg)
arguments=(--copy --loop)
for i in "${!inputs[@]}"; do
  arguments+=(--name "${names[i]}" "$work/${inputs[i]}")
done
start "${arguments[@]}"
for i in "${!inputs[@]}"; do
  watch "${names[i]}" "${codecs[i]}"
done
mapfile -t players < <(jobs -p | grep -v "^$pid\$")
wait "${players[@]}" || true
cat >"$work/compare.py" <<'EOF'
"""compare.py REFERENCE SIZE FRAMES SEEN...: whether each player saw so many frames of the file, in order. A busy
machine may cost it some; most of them must follow one another."""
import hashlib, sys
wanted = [line.split(",")[-1].strip() for line in open(sys.argv[1]) if not line.startswith("#")]
size, frames = int(sys.argv[2]), int(sys.argv[3])
assert len(set(wanted)) == len(wanted) == frames, f"the file has {len(wanted)} frames, {len(set(wanted))} of them different"
for name in sys.argv[4:]:
    if "gstreamer" in name:
        data = open(name, "rb").read()
        seen = [hashlib.md5(data[at:at + size]).hexdigest() for at in range(0, len(data) - size + 1, size)][:frames]
    else:
        seen = [line.split(",")[-1].strip() for line in open(name) if not line.startswith("#")]
    assert len(seen) == frames, f"{name}: {len(seen)} frames"
    strange = [i for i in range(frames) if seen[i] not in wanted]
    assert not strange, f"{name}: these are none of the file's: {strange}"
    places = [wanted.index(digest) for digest in seen]
    missed = sum((after - before - 1) % frames for before, after in zip(places, places[1:]))
    assert missed <= frames // 4, f"{name}: {missed} missed: {places}"
EOF
for i in "${!inputs[@]}"; do
  name=${names[i]}
  size=$((320 * 240 * 3 / 2))
  case $name in y422 | bare) size=$((320 * 240 * 2)) ;; esac
  ffmpeg -v error -i "$work/${inputs[i]}" -fps_mode passthrough -f framemd5 -y "$work/$name.wanted"
  python3 "$work/compare.py" "$work/$name.wanted" $size $frames "$work/$name".*-{tcp,udp} || die "$name"
done
stop

# not_copied TEXT FILE: refused for the reason.
not_copied() { refused 1 "cannot be copied: .*$1.*; leave --copy out to re-encode it" --copy "$work/$2"; }
not_copied 'it has B-frames' bframes.mp4
not_copied 'Huffman tables are not the standard ones' optimal.avi
not_copied 'not 4:2:0 or 4:2:2' 422_tall.avi
not_copied 'it is mpeg4, not H.264, H.265 or MJPEG' mpeg4.avi
echo passed
