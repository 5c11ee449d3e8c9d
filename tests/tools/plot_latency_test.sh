#!/bin/sh
# scripts/plot-latency.sh: one curve per histogram with its label in the legend, and a non-zero
# exit with a message naming the bad argument. Skips (77) without gnuplot.
set -eu
script="$1"
command -v gnuplot >/dev/null || { echo "gnuplot not installed: skipped"; exit 77; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

write_histogram() {  # file, bucket with the peak
  {
    echo "# Histogram"
    i=0
    while [ "$i" -lt 50 ]; do
      count=0
      [ "$i" -ge "$2" ] && [ "$i" -lt $(($2 + 5)) ] && count=$((1000 / (i - $2 + 1)))
      printf '%06d %06d\n' "$i" "$count"
      i=$((i + 1))
    done
    echo "# Total: 000002283"
    echo "# Max Latencies: 00024"
  } >"$1"
}
write_histogram "$dir/kelvo-run.hist" 10
write_histogram "$dir/cyclictest-run.hist" 20

"$script" -t "test plot" -o "$dir/plot.svg" "$dir/kelvo-run.hist" "cyclictest 1=$dir/cyclictest-run.hist"
grep -q "kelvo-run" "$dir/plot.svg" || { echo "legend lacks kelvo-run"; exit 1; }
grep -q "cyclictest 1" "$dir/plot.svg" || { echo "legend lacks 'cyclictest 1'"; exit 1; }
grep -q "test plot" "$dir/plot.svg" || { echo "title missing"; exit 1; }
"$script" -o "$dir/plot.png" "$dir/kelvo-run.hist"
[ "$(head -c 4 "$dir/plot.png" | tail -c 3)" = "PNG" ] || { echo "not a PNG"; exit 1; }

expect_failure() {  # expected text, arguments...
  expected="$1"
  shift
  if "$script" "$@" 2>"$dir/err"; then echo "accepted: $*"; exit 1; fi
  grep -q "$expected" "$dir/err" || { echo "no '$expected' in: $(cat "$dir/err")"; exit 1; }
}
expect_failure "missing -o" "$dir/kelvo-run.hist"
expect_failure "bad output 'plot.pdf'" -o plot.pdf "$dir/kelvo-run.hist"
expect_failure "no such histogram '$dir/absent'" -o "$dir/x.svg" "$dir/absent"
echo "not a histogram" >"$dir/empty.hist"
expect_failure "holds no histogram lines" -o "$dir/x.svg" "$dir/empty.hist"
expect_failure "no histogram given" -o "$dir/x.svg"
expect_failure "bad -x 'ten'" -x ten -o "$dir/x.svg" "$dir/kelvo-run.hist"
expect_failure "bad histogram 'a\"b=" -o "$dir/x.svg" "a\"b=$dir/kelvo-run.hist"
"$script" -x 30 -o "$dir/narrow.svg" "$dir/kelvo-run.hist"
echo "plot-latency.sh: OK"
