#!/usr/bin/env bash
# Publisher and player in network namespaces, with a narrow link between them: one with an
# MTU of 1280 bytes, one whose MTU shrinks while somebody watches, one of 100 Mbit/s with a
# small queue, and a slow one.
# Exit status 77 (skipped) if namespaces are not allowed.
set -euo pipefail
publish=$1
bench=$2

if [ -z "${KAVO_IN_NAMESPACE:-}" ]; then
  unshare -n true 2>/dev/null || {
    echo "skipped: this machine allows no network namespaces"
    exit 77
  }
  exec env KAVO_IN_NAMESPACE=1 unshare -n "$0" "$@"
fi

. "$(dirname "$0")/publisher.sh"
unshare -n sleep 600 &
far=$!
until [ "$(readlink /proc/$far/ns/net)" != "$(readlink /proc/self/ns/net)" ]; do sleep 0.05; done
ip link set lo up
ip link add near type veth peer name far netns $far
ip addr add 10.77.0.1/24 dev near
ip link set near up
on_far() { nsenter -t $far -n "$@"; }
on_far ip addr add 10.77.0.2/24 dev far
on_far ip link set far up
on_far ip link set lo up

# counter FILE PROTOCOL NAME: one of the kernel's counters for this namespace.
counter() {
  awk -v protocol="$2:" -v name="$3" '$1 == protocol {
    if (!n++) { for (i = 1; i <= NF; ++i) if ($i == name) c = i } else print $c }' "/proc/net/$1"
}
fragments() { counter snmp Ip FragCreates; }

# arrived: the number of datagrams that have arrived here, and of octets, read together.
arrived() {
  awk '$1 == was { for (i = 2; i <= NF; ++i) value[was name[i]] = $i; was = ""; next }
       { was = $1; split($0, name) }
       END { print value["Udp:InDatagrams"], value["IpExt:InOctets"] }' /proc/net/snmp /proc/net/netstat
}

# packet_size: the mean size of the next 1,000 datagrams that arrive here.
packet_size() {
  local first octets next last
  read -r first octets < <(arrived)
  next=$first
  until [ "$next" -ge $((first + 1000)) ]; do
    sleep 0.02
    read -r next last < <(arrived)
  done
  echo $(((last - octets) / (next - first)))
}

# play ADDRESS NAME PLAYER_ARGUMENT...: writes the stream to a file. Decodes it later, so that
# the player keeps up, and does not wait for the frame rate.
play() {
  ffmpeg -nostdin -v warning -fpsprobesize 0 -rtsp_transport udp -i "rtsp://$1:$port/${name:-kavo}" -c:v copy -flush_packets 1 "${@:3}" \
    -y "$work/$2.mkv" 2>"$work/$2.log" || { cat "$work/$2.log"; return 1; }
}

# whole NAME: fails if the player saw damage.
damage='missed|error|conceal|corrupt'
whole() {
  ! grep -E "$damage" "$work/$1.log" ||
    die "damage seen by the $1 player: $(tc -s qdisc show dev near)"
  ffmpeg -v error -xerror -i "$work/$1.mkv" -fps_mode passthrough -f null -
}

mtu() {
  ip link set near mtu "$1"
  on_far ip link set far mtu "$1"
}

play_far() { on_far bash -c "$(declare -f play); work=$work port=$port; play 10.77.0.1 far -frames:v $1"; }

# playing NAME PROCESS: waits for the player's first frame.
playing() {
  until [ -s "$work/$1.mkv" ]; do
    kill -0 $2
    sleep 0.05
  done
}

# watch far|both PUBLISH_ARGUMENT...: the far player, or a near one joined by the far
# one, loses no packet.
watch() {
  local players=$1 near=
  start "${@:2}"
  rm -f "$work"/*.mkv
  if [ "$players" = both ]; then
    play 127.0.0.1 near -frames:v 100 &
    near=$!
    playing near $near
  fi
  play_far 20
  whole far
  if [ -n "$near" ]; then
    wait $near
    whole near
  fi
  stop
}

# regrow PUBLISH_ARGUMENT...: packets fit the far player's path while that player
# watches, and grow again when it leaves.
regrow() {
  start "$@"
  rm -f "$work"/*.mkv
  play 127.0.0.1 near -frames:v 200 &
  local near=$!
  playing near $near
  play_far 80 &
  local far_player=$!
  playing far $far_player
  local shared alone
  shared=$(packet_size)
  wait $far_player
  alone=$(packet_size)
  [ "$alone" -gt $((shared + 50)) ] && [ "$shared" -gt 1100 ] ||
    die "packets of $alone bytes, and $shared beside a path of 1280"
  wait $near
  stop
}

# narrow PUBLISH_ARGUMENT...: frames still arrive after the link's MTU has shrunk.
narrow() {
  mtu 1500
  start "$@"
  rm -f "$work"/*.mkv
  play_far 60 &
  local far_player=$!
  playing far $far_player
  mtu 1280
  wait $far_player
  stop
}

for codec in jpeg h264; do
  options=(--codec "$codec" --size 640x480 --bitrate 8M)
  mtu 1280
  watch far "${options[@]}"
  watch both "${options[@]}"
  narrow "${options[@]}"
  [ "$(fragments)" = 0 ] || die "$codec: $(fragments) packets were fragmented"
done

mtu 1280
# Frames of many packets, so that the size of the last one does not matter.
regrow --codec jpeg --size 1280x720 --bitrate 20M

# noise SIZE BYTES RATE: makes a film of JPEG frames of about so many bytes.
noise() {
  ffmpeg -v error -f lavfi -i "nullsrc=s=$1:r=$3,geq=random(1)*255:128:128" -t 2 -c:v mjpeg -q:v 2 -y "$work/noise.avi"
  film=(--loop --codec jpeg --bitrate $(($2 * 8 * $3)) "$work/noise.avi")
}

# play_all FRAMES NAME...: far players of these streams, all at once, lose no packet. They are nice, so that
# they do not delay the server.
play_all() {
  local frames=$1 players=() i
  shift
  rm -f "$work"/*.mkv
  for ((i = 1; i <= $#; ++i)); do
    on_far nice bash -c "$(declare -f play); work=$work port=$port name=${!i}; play 10.77.0.1 far$i -frames:v $frames" &
    players+=($!)
  done
  for ((i = 1; i <= $#; ++i)); do
    wait "${players[i - 1]}"
    whole "far$i"
  done
}

# link QUEUE: limits the link to 100 Mbit/s with a queue of so many bytes.
link() { tc qdisc replace dev near root tbf rate 100mbit burst "$1" limit "$1"; }

mtu 1500
link 64kb
noise 640x480 300000 10
watch far "${film[@]}"

# Frames of four streams that are sent at the same time share the link.
noise 352x272 75000 10
inputs=("$work/noise.avi" "$work/noise.avi" "$work/noise.avi" "$work/noise.avi")
start "${film[@]:0:5}" "${inputs[@]}"
play_all 20 kavo1 kavo2 kavo3 kavo4
stop

# For a smaller queue, the operator sets the pace.
link 16kb
noise 256x192 40000 25
printf '[delivery]\npace_mbit = 60\n' >"$work/policy.toml"
KAVO_STREAM_CONFIG=$work/policy.toml watch far "${film[@]}"

# Many viewers behind one address get all frames, although a burst does not hold one packet for each.
# At two frames a second, because a busy processor leaves a path fewer bursts.
ten=(kavo kavo kavo kavo kavo kavo kavo kavo kavo kavo)
tc qdisc del dev near root
noise 192x160 25000 2
KAVO_STREAM_CONFIG=$work/policy.toml start "${film[@]}"
play_all 4 "${ten[@]}"
stop

# Close to the pace, each viewer gets whole frames. How many depends on the processor: if other programs
# delay the server's timers, a path makes up for at most one burst (see pacer_test).
noise 192x160 25000 25
damage='error|conceal|corrupt'
KAVO_STREAM_CONFIG=$work/policy.toml start "${film[@]}"
play_all 10 "${ten[@]}"
stop
damage="missed|$damage"

# Over TCP, a slow and long link carries the newest frames, complete, and as many as fit.
python3 "$bench/slowlink.py" $far --delay 150 --mbit 2 >"$work/link" &
until grep -q up "$work/link"; do sleep 0.05; done
start --codec jpeg --size 640x480 --bitrate 8M
seen=$(on_far python3 "$bench/linkviewer.py" tcp "rtsp://10.78.0.1:$port/kavo" 6)
python3 -c 'import json, sys
seen = json.loads(sys.argv[1])
sys.exit(seen["damaged"] > 0 or seen["mbit"] < 1 or seen["oldest"] > 1.5)' "$seen" || die "over a slow link: $seen"
stop
echo passed
