#!/usr/bin/env python3
"""Draws a picture of a trace-viewer JSON file (TimeTrace::getTraceJson(), kelvo-demo's
kelvo-demo-trace.json) as a timeline, the way a trace viewer shows it: one row per slice name
of one thread's track (the passes on top, then each task), a box per slice. For a README or a
report where a live viewer (ui.perfetto.dev, chrome://tracing) cannot be embedded.

  scripts/trace-timeline.py [-t thread] [-s start_us] [-d duration_us] trace.json out.png|out.svg

Defaults: the first track, a window of 5000 us starting at the track's first slice. Needs
python3 and gnuplot (apt-get install gnuplot-nox).
"""
import argparse
import json
import os
import shutil
import subprocess
import sys
import tempfile


def fail(message):
    print(f"trace-timeline.py: {message}", file=sys.stderr)
    sys.exit(2)


def parse_arguments():
    parser = argparse.ArgumentParser(description="Draws a trace-viewer JSON file as a timeline.")
    parser.add_argument("-t", "--thread", help="track (thread name) to draw; default: the first")
    parser.add_argument("-s", "--start", type=float, help="window start in us")
    parser.add_argument("-d", "--duration", type=float, default=5000.0,
                        help="window length in us (default 5000)")
    parser.add_argument("trace")
    parser.add_argument("output")
    arguments = parser.parse_args()
    if arguments.duration <= 0:
        fail(f"bad duration '{arguments.duration:g}': must be above 0")
    if not arguments.output.endswith((".png", ".svg")):
        fail(f"bad output '{arguments.output}': the name must end in .png or .svg")
    return arguments


def load_track(path, thread):
    try:
        with open(path, encoding="utf-8") as file:
            events = json.load(file)["traceEvents"]
    except (OSError, ValueError, KeyError, TypeError) as error:
        fail(f"cannot read trace '{path}': {error}")
    names = {e["tid"]: e["args"]["name"] for e in events
             if e.get("ph") == "M" and e.get("name") == "thread_name"}
    if not names:
        fail(f"'{path}' has no tracks")
    if thread is None:
        tid = min(names)
    else:
        matching = [tid for tid, name in names.items() if name == thread]
        if not matching:
            fail(f"no track named '{thread}' in '{path}' (tracks: {', '.join(names.values())})")
        tid = matching[0]
    # A list of phases, not the string "BEi": an event without "ph" (None) or with "" or "BE" is
    # no slice or instant of ours.
    drawn = [e for e in events if e.get("tid") == tid and e.get("ph") in ("B", "E", "i")]
    return names[tid], drawn


def slices_of(events):
    """(depth, name, begin, end) of every slice, from the begin/end pairs in time order."""
    open_slices, slices = [], []
    for event in events:
        if event["ph"] == "B":
            open_slices.append((event["name"], event["ts"]))
        elif event["ph"] == "E" and open_slices:
            name, begin = open_slices.pop()
            slices.append((len(open_slices), name, begin, event["ts"]))
    return slices


def main():
    arguments = parse_arguments()
    if shutil.which("gnuplot") is None:
        fail("gnuplot missing: apt-get install gnuplot-nox")
    thread, events = load_track(arguments.trace, arguments.thread)
    slices = slices_of(events)
    if not slices:
        fail(f"track '{thread}' has no slices")
    start = arguments.start if arguments.start is not None else min(s[2] for s in slices)
    end = start + arguments.duration
    shown = [s for s in slices if s[3] >= start and s[2] <= end]
    # Rows: passes (depth 0) on top, then the task names in order of first appearance.
    rows = []
    for depth, name, _, _ in sorted(shown, key=lambda s: (s[0], s[2])):
        row = "pass" if depth == 0 else name
        if row not in rows:
            rows.append(row)
    colours = ["#4e79a7", "#f28e2b", "#59a14f", "#e15759", "#76b7b2", "#edc948", "#b07aa1"]
    with tempfile.TemporaryDirectory() as directory:
        script = os.path.join(directory, "timeline.gp")
        with open(script, "w", encoding="utf-8") as gp:
            terminal = ("pngcairo size 1100,%d" if arguments.output.endswith(".png")
                        else "svg size 1100,%d dynamic background rgb 'white'")
            gp.write(f"set terminal {terminal % (140 + 60 * len(rows))}\n")
            gp.write("set termoption noenhanced\n")
            gp.write(f"set output {json.dumps(arguments.output)}\n")
            gp.write(f"set title {json.dumps(f'kelvo time trace: thread {thread}')}\n")
            # Times from the window's start, so that short windows keep readable tick labels.
            gp.write(f"set xlabel {json.dumps(f'time (us) after {start:.1f} us')}\n")
            gp.write("unset key\nset grid x\n")
            gp.write(f"set xrange [0:{arguments.duration}]\n")
            gp.write(f"set yrange [-0.6:{len(rows) - 0.4}]\n")
            labels = ", ".join(f"{json.dumps(row)} {len(rows) - 1 - i}" for i, row in enumerate(rows))
            gp.write(f"set ytics ({labels})\n")
            for number, (depth, name, begin, finish) in enumerate(shown, start=1):
                row = rows.index("pass" if depth == 0 else name)
                y = len(rows) - 1 - row
                colour = colours[row % len(colours)]
                begin, finish = begin - start, finish - start
                finish = max(finish, begin + arguments.duration / 2000)  # visible when tiny
                gp.write(f"set object {number} rectangle from {begin:.3f},{y - 0.35} to "
                         f"{finish:.3f},{y + 0.35} fillstyle solid 0.85 noborder "
                         f"fillcolor rgb '{colour}'\n")
            gp.write("plot NaN\n")
        subprocess.run(["gnuplot", script], check=True)
    print(f"wrote {arguments.output}: thread {thread}, {len(shown)} slices from {start:.1f} us "
          f"to {end:.1f} us")


if __name__ == "__main__":
    main()
