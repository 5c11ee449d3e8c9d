#!/bin/sh
# Runs every benchmark behind the README's performance table, in one go, from a default build:
#   cmake --preset default && cmake --build --preset default && bench/run_all.sh
# Each benchmark binary compares kelvo with its alternative in the same run. Run as root on an
# otherwise idle machine (the dispatch and latency figures need SCHED_FIFO).
set -eu
build=${1:-build/default}
repetitions=${REPETITIONS:-5}
for name in cycles md5 aco co time_trace perf thread plugin; do
  echo "== $name"
  "$build/bench/kelvo_${name}_bench" --benchmark_repetitions="$repetitions" \
    --benchmark_report_aggregates_only=true --benchmark_display_aggregates_only=true
done
echo "== shared-memory topics"
"$build/bench/kelvo_shm_bench" --benchmark_repetitions="$repetitions" \
  --benchmark_report_aggregates_only=true --benchmark_display_aggregates_only=true
"$build/bench/kelvo_shm_wakeup" 20000
echo "== typed topics against iceoryx and the plain shm_* functions (two processes)"
if [ -x "$build/bench/kelvo_topic_pingpong" ]; then
  "$build/bench/kelvo_topic_pingpong"
else
  echo "skipped: built without iceoryx (scripts/install-deps.sh installs it)"
fi
echo "== memory of 10,000 suspended coroutines"
"$build/bench/kelvo_aco_memory"
echo "== wake-up latency against cyclictest"
"$(dirname "$0")/latency_compare.sh" "$build" 1000 80 "$(($(nproc) - 1))" 10 5
echo "== TCP: library server and client against plain sockets"
"$build/bench/kelvo-tcp-bench" --rounds "$repetitions"
echo "== first pass of a periodic thread: lazy against prepared tasks"
"$build/bench/kelvo_first_pass" 10
