#!/bin/sh
# Makes the README's pictures from a default build; run as root on an otherwise idle machine:
#   docs/trace-timeline.png  one pass of kelvo-demo's 1 kHz loop, drawn from its trace JSON
#   docs/latency-plot.png    kelvo-latency against cyclictest, 2 rounds of 10 s each
#
#   scripts/make-docs-images.sh [build_dir]
#
# Needs python3, gnuplot (gnuplot-nox) and cyclictest (rt-tests).
set -eu
cd "$(dirname "$0")/.."
build=${1:-build/default}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$build/examples/kelvo-demo" -o "$work/trace.json" >/dev/null
# A pass from the middle of the trace (the first ones create the coroutines), framed with a
# margin of a quarter of its length on each side.
window=$(python3 - "$work/trace.json" <<'PYTHON'
import json, sys
events = json.load(open(sys.argv[1]))["traceEvents"]
begins = [i for i, e in enumerate(events) if e.get("ph") == "B" and e["name"].startswith("Task FRAME")]
i = begins[len(begins) // 2]
tid, depth = events[i]["tid"], 0
for e in events[i:]:
    if e.get("tid") != tid or e["ph"] not in "BE":
        continue
    depth += 1 if e["ph"] == "B" else -1
    if depth == 0:
        length = max(e["ts"] - events[i]["ts"], 1.0)
        print(f"{events[i]['ts'] - length / 4:.3f} {length * 1.5:.3f}")
        break
PYTHON
)
set -- $window
scripts/trace-timeline.py -t control -s "$1" -d "$2" "$work/trace.json" docs/trace-timeline.png

cpu=$(($(nproc) - 1))
HISTOGRAMS="$work/histograms" bench/latency_compare.sh "$build" 1000 80 "$cpu" 10 2
h="$work/histograms"
scripts/plot-latency.sh -x 1500 -o docs/latency-plot.png \
  -t "Wake-up latency, 1 kHz, SCHED_FIFO priority 80, CPU $cpu, 2 x 10 s, $(uname -r)" \
  "kelvo round 1=$h/kelvo-1.hist" "cyclictest round 1=$h/cyclictest-1.hist" \
  "kelvo round 2=$h/kelvo-2.hist" "cyclictest round 2=$h/cyclictest-2.hist"
