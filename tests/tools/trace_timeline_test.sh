#!/bin/sh
# scripts/trace-timeline.py: draws a trace-viewer JSON track as a picture, and exits non-zero
# with a message naming the bad argument. Skips (77) without python3 or gnuplot.
set -eu
script="$1"
command -v python3 >/dev/null || { echo "python3 not installed: skipped"; exit 77; }
command -v gnuplot >/dev/null || { echo "gnuplot not installed: skipped"; exit 77; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cat >"$dir/trace.json" <<'JSON'
{"traceEvents":[
{"name":"thread_name","ph":"M","pid":1,"tid":1,"args":{"name":"control"}},
{"name":"thread_name","ph":"M","pid":1,"tid":2,"args":{"name":"other"}},
{"ph":"B","ts":0.0,"pid":1,"tid":1,"name":"Task FRAME ++++++++++ started, 2 tasks"},
{"ph":"B","ts":0.5,"pid":1,"tid":1,"name":"controller"},
{"ph":"E","ts":1.5,"pid":1,"tid":1},
{"ph":"i","ts":1.6,"pid":1,"tid":1,"name":"note","s":"t"},
{"ph":"B","ts":2.0,"pid":1,"tid":1,"name":"planner"},
{"ph":"E","ts":6.0,"pid":1,"tid":1},
{"ph":"E","ts":6.0,"pid":1,"tid":1}]}
JSON
out=$("$script" -d 8 "$dir/trace.json" "$dir/timeline.png")
echo "$out" | grep -q "thread control, 3 slices" || { echo "unexpected: $out"; exit 1; }
[ "$(head -c 4 "$dir/timeline.png" | tail -c 3)" = "PNG" ] || { echo "not a PNG"; exit 1; }
"$script" -t control -s 1 -d 2 "$dir/trace.json" "$dir/timeline.svg" >/dev/null
grep -q "controller" "$dir/timeline.svg" || { echo "row label missing"; exit 1; }

expect_failure() {  # expected text, arguments...
  expected="$1"
  shift
  if "$script" "$@" >/dev/null 2>"$dir/err"; then echo "accepted: $*"; exit 1; fi
  grep -q "$expected" "$dir/err" || { echo "no '$expected' in: $(cat "$dir/err")"; exit 1; }
}
expect_failure "no track named 'absent'" -t absent "$dir/trace.json" "$dir/x.png"
expect_failure "track 'other' has no slices" -t other "$dir/trace.json" "$dir/x.png"
expect_failure "bad output '$dir/x.pdf'" "$dir/trace.json" "$dir/x.pdf"
expect_failure "bad duration '-1'" -d -1 "$dir/trace.json" "$dir/x.png"
echo "not json" >"$dir/bad.json"
expect_failure "cannot read trace '$dir/bad.json'" "$dir/bad.json" "$dir/x.png"
echo "trace-timeline.py: OK"
