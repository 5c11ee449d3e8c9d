#!/bin/sh
# kelvo-demo prints its text trace and writes a trace-viewer JSON file that holds the loop's
# passes and task runs as slices, every run named after its task without a namer. Skips (77)
# where SCHED_FIFO is refused or python3 is missing.
set -eu
demo="$1"
command -v python3 >/dev/null || { echo "python3 not installed: skipped"; exit 77; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
if ! "$demo" -o "$dir/trace.json" >"$dir/out" 2>&1; then
  if grep -q "needs SCHED_FIFO" "$dir/out"; then echo "SCHED_FIFO refused: skipped"; exit 77; fi
  cat "$dir/out"
  exit 1
fi
grep -q "Task FRAME ++++++++++ started" "$dir/out" || { echo "no text trace"; cat "$dir/out"; exit 1; }
python3 - "$dir/trace.json" <<'PYTHON'
import json, sys
events = json.load(open(sys.argv[1]))["traceEvents"]
passes = [e for e in events if e.get("ph") == "B" and e["name"].startswith("Task FRAME")]
runs = [e for e in events if e.get("ph") == "B" and not e["name"].startswith("Task FRAME")]
tasks = [e for e in runs if e["name"] in ("controller", "planner")]
if len(passes) < 100 or not tasks:
    sys.exit(f"trace JSON has {len(passes)} passes and {len(tasks)} named task runs")
unnamed = {e["name"] for e in runs if e["name"] not in ("init", "controller", "planner")}
if unnamed:
    sys.exit(f"task runs not named after their task: {sorted(unnamed)}")
print(f"kelvo-demo: {len(passes)} passes, {len(tasks)} task runs in the trace JSON")
PYTHON
