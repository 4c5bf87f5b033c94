# Sourced by the tests that are shell scripts: a temporary folder, and
# kavo-publish ("$publish") on a free port.
# shellcheck shell=bash disable=SC2034,SC2154

work=$(mktemp -d)
# However the test ends, nothing that it started keeps running.
end() {
  mapfile -t started < <(jobs -p)
  [ ${#started[@]} -eq 0 ] || kill "${started[@]}" 2>/dev/null || true
  rm -rf "$work"
}
trap end EXIT

die() {
  echo "FAILED: $1"
  exit 1
}

free_port() { python3 -c 'import socket; s = socket.socket(socket.AF_INET6); s.bind(("::", 0)); print(s.getsockname()[1])'; }

# run ARGUMENT...: runs it on a free port; again if another program has taken the port. Sets got, the exit status.
# Its output goes to the file $out if that is set.
run() {
  for _ in {1..5}; do
    got=0
    timeout 60 "$publish" --port "$(free_port)" "$@" >"${out:-$work/out}" 2>"$work/err" || got=$?
    grep -q 'cannot serve on port' "$work/err" || break
  done
}

# refused STATUS TEXT ARGUMENT...: it prints one line with the text and ends with the status.
refused() {
  local status=$1 text=$2
  shift 2
  run "$@"
  [ "$got" = "$status" ] || die "$* ended with $got: $(cat "$work/err")"
  [ "$(wc -l <"$work/err")" = 1 ] || die "$* did not say one line: $(cat "$work/err")"
  grep -q -- "$text" "$work/err" || die "$* said: $(cat "$work/err")"
}

# start ARGUMENT...: starts it and waits until it prints its URL. Sets port and pid.
start() {
  for _ in 1 2 3 4 5; do
    port=$(free_port)
    : >"$work/out" # discards the output of the previous run
    "$publish" --port "$port" "$@" >"$work/out" 2>"$work/err" &
    pid=$!
    while kill -0 "$pid" 2>/dev/null; do
      grep -qE 'Ctrl-C|"url"' "$work/out" && return
      sleep 0.05
    done
    grep -q 'cannot serve on port' "$work/err" || die "$(cat "$work/err")"
  done
  die "no port"
}

stop() {
  kill -INT "$pid"
  wait "$pid" || die "did not end cleanly: $(cat "$work/err")"
  grep -qE 'submitted|"offered"' "$work/out" || die "no status"
}
