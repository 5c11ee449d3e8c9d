#!/bin/sh
# Wake-up latency of kelvo's PeriodicThread against cyclictest (rt-tests), run alternately with
# the same period, priority, CPU and duration, so that both see the same machine state.
#
#   bench/latency_compare.sh [build_dir] [period_us] [priority] [cpu] [seconds] [rounds]
#
# Needs root (SCHED_FIFO, mlockall) and cyclictest (apt-get install rt-tests).
# With HISTOGRAMS=dir, every run's histogram (cyclictest's -h format, 10000 one-microsecond
# buckets) is kept as dir/kelvo-<round>.hist and dir/cyclictest-<round>.hist, for
# scripts/plot-latency.sh.
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

histograms=${HISTOGRAMS:-}
[ -z "$histograms" ] || mkdir -p "$histograms"
results=$(mktemp)
trap 'rm -f "$results"' EXIT
echo "period ${period} us, priority ${priority}, CPU ${cpu}, ${seconds} s per run, ${rounds} rounds"
round=1
while [ "$round" -le "$rounds" ]; do
  if [ -n "$histograms" ]; then
    # The histogram goes to the file; the summary line (on standard error then) to the pipe.
    "$tool" -i "$period" -p "$priority" -a "$cpu" -D "$seconds" -h 10000 2>&1 \
      >"$histograms/kelvo-$round.hist" | tee -a "$results"
  else
    "$tool" -i "$period" -p "$priority" -a "$cpu" -D "$seconds" | tee -a "$results"
  fi
  # cyclictest's histogram (one line per microsecond bucket) gives the percentiles.
  cyclictest -q -m -t 1 -p "$priority" -i "$period" -a "$cpu" -D "${seconds}s" -h 10000 2>/dev/null |
    tee "${histograms:-/dev/null}${histograms:+/cyclictest-$round.hist}" | awk '
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
      }' | tee -a "$results"
  round=$((round + 1))
done

# The median over the rounds of each percentile, and kelvo's ratio to cyclictest.
awk '
  function median(tool, key,    n, i, j, t, v) {
    n = count[tool]
    for (i = 1; i <= n; i++) v[i] = val[tool, key, i]
    for (i = 1; i <= n; i++) for (j = i + 1; j <= n; j++) if (v[j] < v[i]) { t = v[i]; v[i] = v[j]; v[j] = t }
    return n % 2 ? v[(n + 1) / 2] : (v[n / 2] + v[n / 2 + 1]) / 2
  }
  {
    tool = $1; count[tool]++
    for (f = 2; f <= NF; f++) if (split($f, kv, "=") == 2) val[tool, kv[1], count[tool]] = kv[2] + 0
  }
  END {
    printf "median of %d rounds (us):      p50      p99    p99.9\n", count["kelvo"]
    printf "kelvo                      %8.1f %8.1f %8.1f\n", median("kelvo", "p50"), median("kelvo", "p99"), median("kelvo", "p99.9")
    printf "cyclictest                 %8.1f %8.1f %8.1f\n", median("cyclictest", "p50"), median("cyclictest", "p99"), median("cyclictest", "p99.9")
    printf "kelvo / cyclictest         %8.2f %8.2f %8.2f\n", median("kelvo", "p50") / median("cyclictest", "p50"), median("kelvo", "p99") / median("cyclictest", "p99"), median("kelvo", "p99.9") / median("cyclictest", "p99.9")
  }' "$results"
