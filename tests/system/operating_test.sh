#!/usr/bin/env bash
# What operators do: passwords with real players, one server address, and the status in kavo-stat.
#   operating_test.sh KAVO_PUBLISH KAVO_STAT
set -euo pipefail
publish=$1
stat=$2
. "$(dirname "$0")/publisher.sh"
export KAVO_STREAM_STATUS=$work/status KAVO_STREAM_CONFIG=$work/policy.toml
printf '[server]\naddress = "127.0.0.1"\n[access.users]\nanna = "geheim"\n' >"$KAVO_STREAM_CONFIG"

"$publish" --check-config "$KAVO_STREAM_CONFIG" | grep 'no errors' >/dev/null || die "the policy file has errors"
echo 'adress = 1' >"$work/wrong.toml"
! "$publish" --check-config "$work/wrong.toml" 2>"$work/err" || die "a wrong policy file was accepted"
grep -q "wrong.toml:1: unknown key 'adress'" "$work/err" || die "said: $(cat "$work/err")"

# The example service opens a camera; it can be tested only without one.
if [ ! -e /dev/video0 ]; then
  read -ra arguments < <(sed -n 's|^ExecStart=[^ ]* ||p' "$(dirname "$0")/../../examples/operate/camera.service")
  run "${arguments[@]}"
  [ "$got" = 1 ] || die "published without a camera: $got"
  grep -q "cannot open '/dev/video0'" "$work/err" || die "the service said: $(cat "$work/err")"
fi

start --size 320x240 --codec h264
url=127.0.0.1:$port/kavo
grep -q "rtsp://127.0.0.1:$port/kavo" "$work/out" || die "another address in the URL"
ss -Hltn "sport = :$port" | grep -qv "127.0.0.1:$port" && die "listens elsewhere: $(ss -Hltn)"

play_with_ffmpeg() { ffmpeg -v error -rtsp_transport "$1" -i "rtsp://$2$url" -frames:v 2 -f null - 2>"$work/err"; }
# gst-launch-1.0 sometimes closes its connection before it has sent its own PAUSE, and reports
# that as an error; only its frames count.
play_with_gst() {
  timeout 60 gst-launch-1.0 -q rtspsrc location="rtsp://$url" user-id=anna user-pw="$1" ! rtph264depay ! \
    identity eos-after=3 ! filesink location="$work/gst-$1" >"$work/err" 2>&1 || true
  [ -s "$work/gst-$1" ]
}
play_with_mpv() { mpv --no-config --really-quiet --vo=null --frames=2 "rtsp://anna:$1@$url"; }

# Right passwords first: after ten wrong ones in a second, none is checked.
for transport in tcp udp; do
  play_with_ffmpeg $transport anna:geheim@ || die "ffmpeg $transport: $(cat "$work/err")"
done
play_with_gst geheim || die "GStreamer: $(cat "$work/err")"
play_with_mpv geheim || die "mpv"
openRTSP -v -Q -u anna geheim "rtsp://$url" >/dev/null 2>"$work/open" &
viewer=$!
until grep -qs 'Started playing' "$work/open"; do sleep 0.05; done
for transport in tcp udp; do
  for user in "" anna:wrong@ otto:geheim@; do
    ! play_with_ffmpeg $transport "$user" || die "played with '$user'"
    grep -q '401 Unauthorized' "$work/err" || die "'$user': $(cat "$work/err")"
  done
done
! play_with_gst wrong || die "GStreamer played with a wrong password"
! play_with_mpv wrong || die "mpv played with a wrong password"

# The viewer uses UDP.
ss -Hlunp | grep "pid=$pid," >"$work/sockets" || die "no UDP sockets: $(ss -Hlunp)"
grep -v '127.0.0.1:' "$work/sockets" && die "UDP elsewhere"

# The status, as kavo-stat gets it.
"$stat" --json "$KAVO_STREAM_STATUS" >"$work/json"
python3 - "$work/json" "$pid" "$port" <<'PY' || die "$(cat "$work/json")"
import json, sys
status = json.load(open(sys.argv[1]))
assert status["pid"] == int(sys.argv[2]) and status["port"] == int(sys.argv[3])
stream, = status["streams"]
assert stream["name"] == "kavo" and stream["codec"] == "h264"
viewer, = stream["viewers"]
assert viewer["transport"] == "udp" and viewer["state"] == "playing" and viewer["frames_sent"] > 0
assert viewer["user"] == "anna" and status["refused"]["user"] >= 6 and not status["last_error"]["time"]
kinds = [event["kind"] for event in status["events"]]
assert kinds.count("joined") >= 5 and "left" in kinds and 1 <= kinds.count("refused") <= 3, kinds
PY
"$stat" "$KAVO_STREAM_STATUS" | grep '1 viewer ' >/dev/null || die "no table"
{ timeout 60 "$stat" --events "$KAVO_STREAM_STATUS" || true; } >"$work/events" 2>"$work/err" &
follower=$!
until grep -q 'refused .*no valid user' "$work/events"; do sleep 0.05; done
kill "$viewer"
until grep -q 'left ' "$work/events"; do sleep 0.05; done

# After the host was killed, 'kavo-stat --events' ends, and the next host replaces the socket.
kill -KILL "$pid"
wait "$pid" || true
wait "$follower"
grep -q 'nobody answers' "$work/err" || die "said: $(cat "$work/err")"
[ -S "$KAVO_STREAM_STATUS" ] || die "no socket was left behind"
start --size 320x240
"$stat" "$KAVO_STREAM_STATUS" | grep '0 viewers ' >/dev/null || die "the next host does not answer"
stop

# refused TEXT ADDRESS: kavo-stat prints one line with the text and ends with 1.
refused() {
  local got=0
  "$stat" --json "$2" >"$work/out" 2>"$work/err" || got=$?
  [ "$got" = 1 ] && [ "$(wc -l <"$work/err")" = 1 ] && grep -q "$1" "$work/err" || die "$2: $got, $(cat "$work/err")"
}
refused 'No such file' "$work/nothing"
refused 'Connection refused' 127.0.0.1:1
refused 'neither HOST:PORT' nonsense
echo passed
