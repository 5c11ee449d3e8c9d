#!/bin/bash
# Runs the TCP examples briefly against each other on a kernel-chosen port:
#   tcp_examples_test.sh <bin-dir> echo|diagnostic|options
# Every program has a time limit of its own, so nothing here can wait for ever.
set -euo pipefail
bin="$1"
what="$2"
log=$(mktemp /tmp/kelvo_tcp_example_XXXXXX)
pid=""
cleanup() {
  [ -n "$pid" ] && kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null
  rm -f "$log"
}
trap cleanup EXIT

# Starts "$@" in the background and sets $port from its first line ("... <port>").
start() {
  "$@" >"$log" 2>&1 &
  pid=$!
  for _ in $(seq 1 300); do
    port=$(awk 'NR == 1 { print $NF }' "$log")
    [ -n "$port" ] && return 0
    sleep 0.1
  done
  echo "no port announced by $1"; cat "$log"; return 1
}

case "$what" in
  echo)
    start "$bin/kelvo-echo-server" --port 0 --seconds 60
    "$bin/kelvo-echo-client" --port "$port" --count 200 --size 64
    "$bin/kelvo-echo-client" --port "$port" --count 20 --size 4092
    kill -TERM "$pid"; wait "$pid"; pid=""
    grep -q stopped "$log"
    ;;
  diagnostic)
    start "$bin/kelvo-diagnostic-port" --port 0 --seconds 60
    exec 3<>"/dev/tcp/127.0.0.1/$port"
    # The connection's own thread may answer before the accepting thread has added it to the
    # server's list, so the first answers may still count 0 clients: ask until it counts 1.
    for _ in $(seq 1 100); do
      printf 'status\r.\n' >&3
      IFS= read -r -t 10 reply <&3
      [[ "$reply" == cycles\ *\ tasks\ 1\ clients\ 1 ]] && break
      sleep 0.1
    done
    echo "status -> $reply"
    [[ "$reply" == cycles\ *\ tasks\ 1\ clients\ 1 ]]
    printf 'tasks\r.\n' >&3
    IFS= read -r -t 10 reply <&3
    echo "tasks -> $reply"
    [[ "$reply" == "Task names: " ]]
    exec 3<&-
    kill -TERM "$pid"; wait "$pid"; pid=""
    ;;
  options)
    for args in "--port x" "--port 70000" "--bogus 1" "--seconds"; do
      # shellcheck disable=SC2086
      if "$bin/kelvo-echo-server" $args 2>"$log"; then echo "accepted: $args"; exit 1; fi
      grep -q -- "${args%% *}" "$log" || { echo "message does not name ${args%% *}"; exit 1; }
    done
    for args in "--size 5000" "--count 0" "--host localhost" "--port 0"; do
      # shellcheck disable=SC2086
      if "$bin/kelvo-echo-client" $args 2>"$log"; then echo "accepted: $args"; exit 1; fi
      grep -q -- "${args%% *}" "$log" || { echo "message does not name ${args%% *}"; exit 1; }
    done
    if "$bin/kelvo-diagnostic-port" --period-us 5 2>"$log"; then exit 1; fi
    grep -q -- "--period-us" "$log"
    ;;
esac
echo "ok: $what"
