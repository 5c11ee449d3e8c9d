#!/bin/sh
# Makes the README's pictures from a default build; run as root on an otherwise idle machine:
#   docs/trace-timeline.png  one pass of kelvo-demo's 1 kHz loop, drawn from its trace JSON,
#                            every task run named after its task by the library itself
#   docs/latency-plot.png    kelvo-latency against cyclictest, 2 rounds of 10 s each
#
#   scripts/make-docs-images.sh [build_dir [timeline|latency|all]]
#
# Defaults: build/default, all. Needs python3, gnuplot (gnuplot-nox) and, for the latency
# plot, cyclictest (rt-tests).
set -eu
cd "$(dirname "$0")/.."
build=${1:-build/default}
which=${2:-all}
case "$which" in
  timeline | latency | all) ;;
  *)
    echo "make-docs-images.sh: bad picture '$which': timeline, latency or all" >&2
    exit 2
    ;;
esac
[ -d "$build" ] || { echo "make-docs-images.sh: bad build directory '$build'" >&2; exit 2; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

timeline() {
  "$build/examples/kelvo-demo" -o "$work/trace.json" >/dev/null
  # A typical pass (its length nearest the median) from the middle half of the trace, framed
  # with a margin of a quarter of its length on each side.
  window=$(python3 - "$work/trace.json" <<'PYTHON'
import json, sys
events = json.load(open(sys.argv[1]))["traceEvents"]
passes = []  # (begin, end) of each pass on the loop's track
for i, e in enumerate(events):
    if e.get("ph") != "B" or not e["name"].startswith("Task FRAME"):
        continue
    depth = 0
    for f in events[i:]:
        if f.get("tid") != e["tid"] or f["ph"] not in "BE":
            continue
        depth += 1 if f["ph"] == "B" else -1
        if depth == 0:
            passes.append((e["ts"], f["ts"]))
            break
median = sorted(end - begin for begin, end in passes)[len(passes) // 2]
middle = passes[len(passes) // 4:3 * len(passes) // 4] or passes
begin, end = min(middle, key=lambda p: abs((p[1] - p[0]) - median))
length = max(end - begin, 1.0)
print(f"{begin - length / 4:.3f} {length * 1.5:.3f}")
PYTHON
)
  set -- $window
  scripts/trace-timeline.py -t control -s "$1" -d "$2" "$work/trace.json" docs/trace-timeline.png
}

latency() {
  cpu=$(($(nproc) - 1))
  HISTOGRAMS="$work/histograms" bench/latency_compare.sh "$build" 1000 80 "$cpu" 10 2
  h="$work/histograms"
  scripts/plot-latency.sh -x 1500 -o docs/latency-plot.png \
    -t "Wake-up latency, 1 kHz, SCHED_FIFO priority 80, CPU $cpu, 2 x 10 s, $(uname -r)" \
    "kelvo round 1=$h/kelvo-1.hist" "cyclictest round 1=$h/cyclictest-1.hist" \
    "kelvo round 2=$h/kelvo-2.hist" "cyclictest round 2=$h/cyclictest-2.hist"
}

case "$which" in
  timeline) timeline ;;
  latency) latency ;;
  all)
    timeline
    latency
    ;;
esac
