#!/usr/bin/env bash
# Runs the robot cell of examples/topics/ together: the driver (joint states out at 1 kHz,
# offset 0 on the shared grid), the controller (latest() each cycle, commands out, offset 300)
# and the logger (take() with wait()), with kelvo-topics listing their topics mid-run; then
# checks each program's figures and the validation of their options. Exits 77 without
# SCHED_FIFO.
set -u
bin="$1"
tool="$2"
prefix="kt$$-cell"
out="/tmp/kelvo_topics_example.$$"
status=0

fail() {
  echo "FAIL: $*"
  status=1
}

cleanup() {
  "$tool" rm "$prefix/joints" >/dev/null 2>&1
  "$tool" rm "$prefix/commands" >/dev/null 2>&1
  rm -rf "/tmp/topics/$prefix" "$out".*
}
trap cleanup EXIT

"$bin/kelvo-topic-logger" --seconds 4 --prefix "$prefix" >"$out.logger" 2>&1 &
logger=$!
"$bin/kelvo-topic-driver" --seconds 3 --prefix "$prefix" --trace "$out.json" >"$out.driver" 2>&1 &
driver=$!
"$bin/kelvo-topic-controller" --seconds 3 --prefix "$prefix" >"$out.controller" 2>&1 &
controller=$!
# The listing is taken once both topics are published by live loops and the controller has
# subscribed (up to 30 s; at once if a program ends early, as it does without SCHED_FIFO).
joints_line="^$prefix/joints +robot/JointState v1 +152 +64 +[0-9]+ alive +[0-9]+ "
commands_line="^$prefix/commands +robot/JointCommand v1 +104 +16 +[0-9]+ alive +[0-9]+ .* 1$"
for _ in $(seq 1 3000); do
  "$tool" >"$out.listing"
  grep -qE "$joints_line" "$out.listing" && grep -qE "$commands_line" "$out.listing" && break
  kill -0 "$driver" 2>/dev/null && kill -0 "$controller" 2>/dev/null || break
  sleep 0.01
done
wait "$driver"
driver_status=$?
wait "$controller"
controller_status=$?
wait "$logger"
logger_status=$?
cat "$out.driver" "$out.controller" "$out.logger" "$out.listing"
if [ "$driver_status" = 77 ] || [ "$controller_status" = 77 ]; then
  echo "skipped: the driver and controller need SCHED_FIFO (root or CAP_SYS_NICE)"
  exit 77
fi
[ "$driver_status" = 0 ] || fail "driver exit status $driver_status"
[ "$controller_status" = 0 ] || fail "controller exit status $controller_status"
[ "$logger_status" = 0 ] || fail "logger exit status $logger_status"

grep -q "^kelvo-topic-driver: publishing $prefix/joints at 1 kHz for 3 s, on the grid at offset 0 us$" \
  "$out.driver" || fail "driver banner"
grep -qE "^kelvo-topic-driver: published [0-9]{4} joint states; read [0-9]+ commands: age at read p50 [0-9]+ us, p99 [0-9]+ us, max [0-9]+ us; missed [0-9]+, seen twice [0-9]+$" \
  "$out.driver" || fail "driver figures"
grep -qE "^kelvo-topic-controller: read [0-9]{4} joint states: age at read p50 [0-9]+ us, p99 [0-9]+ us, max [0-9]+ us; missed [0-9]+, seen twice [0-9]+; published [0-9]{4} commands$" \
  "$out.controller" || fail "controller figures"
grep -qE "^kelvo-topic-logger: took [0-9]{4} joint states in [0-9]+ wake-ups, lost [0-9]+, last sequence [0-9]{4}$" \
  "$out.logger" || fail "logger figures"
grep -qE '"name":"topic publish seq [0-9]+ key [0-9a-f]{8}"' "$out.json" ||
  fail "the driver's trace has no publish events"
grep -qE "$joints_line" "$out.listing" || fail "kelvo-topics line of $prefix/joints"
grep -qE "$commands_line" "$out.listing" || fail "kelvo-topics line of $prefix/commands"

# Every option is checked, and a bad one is named.
expect_refusal() {
  program="$1"
  message="$2"
  shift 2
  "$bin/$program" "$@" >/dev/null 2>"$out.err"
  code=$?
  [ "$code" = 2 ] || fail "$program $*: exit status $code, not 2"
  grep -qF -e "$message" "$out.err" || fail "$program $*: no '$message' in: $(cat "$out.err")"
}
expect_refusal kelvo-topic-driver "--seconds must be an integer from 1 to 3600, got '0'" --seconds 0
expect_refusal kelvo-topic-driver "unknown option '--bogus'" --bogus 1
expect_refusal kelvo-topic-controller "--offset-us must be an integer from 0 to 999, got '1000'" \
  --offset-us 1000
expect_refusal kelvo-topic-controller "--cpu must be an integer from -1 to" --cpu 4096
expect_refusal kelvo-topic-controller "--priority must be an integer from 1 to 99, got '0'" \
  --priority 0
expect_refusal kelvo-topic-logger "bad --prefix '../x': topic '../x/joints': the name has an empty, '.' or '..' component" \
  --prefix ../x
expect_refusal kelvo-topic-logger "option '--seconds' needs a value" --seconds

[ $status -eq 0 ] && echo "topic examples: all checks passed"
exit $status
