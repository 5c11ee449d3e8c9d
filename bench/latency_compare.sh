#!/bin/sh
# Wake-up latency of kelvo's PeriodicThread against cyclictest (rt-tests), run alternately with
# the same period, priority, CPU and duration, so that both see the same machine state.
#
#   bench/latency_compare.sh [build_dir] [period_us] [priority] [cpu] [seconds] [rounds]
#
# Needs root (SCHED_FIFO, mlockall) and cyclictest (apt-get install rt-tests).
set -eu
build=${1:-build/default}
period=${2:-1000}
priority=${3:-80}
cpu=${4:-$(($(nproc) - 1))}
seconds=${5:-10}
rounds=${6:-2}

tool="$build/bench/kelvo-latency"
[ -x "$tool" ] || { echo "build $tool first (cmake --build --preset default)"; exit 1; }
command -v cyclictest >/dev/null || { echo "cyclictest missing: apt-get install rt-tests"; exit 1; }

echo "period ${period} us, priority ${priority}, CPU ${cpu}, ${seconds} s per run, ${rounds} rounds"
round=1
while [ "$round" -le "$rounds" ]; do
  "$tool" -i "$period" -p "$priority" -a "$cpu" -D "$seconds"
  # cyclictest's histogram (one line per microsecond bucket) gives the percentiles.
  cyclictest -q -m -t 1 -p "$priority" -i "$period" -a "$cpu" -D "${seconds}s" -h 10000 2>/dev/null |
    awk '
      /^[0-9]+[ \t]+[0-9]+/ { bucket[$1 + 0] = $2; total += $2; if ($1 + 0 > top) top = $1 + 0 }
      /# Min Latencies/ { min = $NF + 0 }
      /# Max Latencies/ { max = $NF + 0 }
      END {
        split("0.5 0.99 0.999", q, " ")
        for (i = 1; i <= 3; i++) {
          target = q[i] * total; seen = 0; value[i] = top
          for (b = 0; b <= top; b++) { seen += bucket[b]; if (seen > target) { value[i] = b; break } }
        }
        printf "cyclictest  samples=%d min=%.1f p50=%.1f p99=%.1f p99.9=%.1f max=%.1f (us)\n",
               total, min, value[1], value[2], value[3], max
      }'
  round=$((round + 1))
done
