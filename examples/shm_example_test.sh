#!/usr/bin/env bash
# Runs kelvo-shm-subscriber and kelvo-shm-publisher together on a topic of their own: the
# subscriber must receive samples and end when the publisher removes the topic, and nothing
# of the topic may be left behind.
set -u
publisher="$1"
subscriber="$2"
topic="kt$$-example"
out="/tmp/kelvo_shm_example.$$"
trap 'rm -f "$out"; rm -rf "/tmp/topics/$topic"' EXIT

"$subscriber" --topic "$topic" --seconds 60 >"$out" &
subscriber_pid=$!
"$publisher" --topic "$topic" --seconds 2
rc=$?
if [ $rc -ne 0 ]; then
  kill "$subscriber_pid"
  wait "$subscriber_pid"
  exit $rc  # 77: no SCHED_FIFO here
fi
wait "$subscriber_pid" || { echo "FAIL: subscriber exited with $?"; exit 1; }
cat "$out"
grep -q '^topic removed by the publisher$' "$out" || { echo "FAIL: subscriber did not see the removal"; exit 1; }
grep -qE '^received [1-9][0-9]* samples, missed [0-9]+' "$out" || { echo "FAIL: no samples"; exit 1; }
grep -q '^publish-to-read latency (us): min ' "$out" || { echo "FAIL: no latency report"; exit 1; }
[ -e "/tmp/topics/$topic" ] && { echo "FAIL: topic directory left behind"; exit 1; }
echo "publisher and subscriber: all checks passed"
