#!/usr/bin/env bash
# The robot cell of examples/topics/ with and without deadlines on the shared grid, side by
# side: each round runs the driver and the controller together for SECONDS, once aligned
# (driver at offset 0, controller at 300 us) and once not (each loop where its constructor put
# it), alternating, and prints what each loop read: age at read p50/p99/max and samples missed
# or seen twice. The driver runs on CPU 0 and the controller on CPU 1 (both SCHED_FIFO 80), as
# a cell would pin them. Needs SCHED_FIFO (root) and two CPUs.
#
#   bench/topic_alignment.sh [BUILD_DIR] [SECONDS] [ROUNDS]     (defaults: build/default 10 3)
set -eu
build="${1:-build/default}"
seconds="${2:-10}"
rounds="${3:-3}"
bin="$build/examples"
for program in kelvo-topic-driver kelvo-topic-controller; do
  [ -x "$bin/$program" ] || { echo "$0: $bin/$program not built" >&2; exit 2; }
done
prefix="align$$"
trap '"$bin/kelvo-topics" rm "$prefix/joints" >/dev/null 2>&1; "$bin/kelvo-topics" rm "$prefix/commands" >/dev/null 2>&1; rm -rf "/tmp/topics/$prefix"' EXIT

run() {
  label="$1"
  driver_offset="$2"
  controller_offset="$3"
  "$bin/kelvo-topic-driver" --seconds "$seconds" --prefix "$prefix" --offset-us "$driver_offset" \
    --cpu 0 >"/tmp/$prefix.driver" &
  driver=$!
  "$bin/kelvo-topic-controller" --seconds "$seconds" --prefix "$prefix" \
    --offset-us "$controller_offset" --cpu 1 >"/tmp/$prefix.controller" &
  controller=$!
  wait "$driver" "$controller"
  echo "$label: $(tail -1 "/tmp/$prefix.controller" | sed 's/^kelvo-topic-controller: //')"
  echo "$label: driver $(tail -1 "/tmp/$prefix.driver" | sed 's/^kelvo-topic-driver: //')"
  rm -f "/tmp/$prefix.driver" "/tmp/$prefix.controller"
}

for round in $(seq 1 "$rounds"); do
  run "round $round aligned (0/300 us)" 0 300
  run "round $round not aligned" none none
done
