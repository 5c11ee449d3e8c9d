#!/usr/bin/env bash
# The command-line tools refuse bad options with a message naming the option and a non-zero
# exit, and never hang. Usage: bad_options.sh <kelvo-latency> <kelvo-check>
set -u
latency=$1
check=$2
failures=0
# shellcheck source=expect_refusal.sh
. "$(dirname "$0")/expect_refusal.sh"

cpus=$(nproc --all)
expect_refusal "invalid -a '$((cpus + 97))'" "$latency" -a $((cpus + 97)) -D 1
expect_refusal "invalid -a '-5'" "$latency" -a -5 -D 1
expect_refusal "invalid -p '150'" "$latency" -p 150 -D 1
expect_refusal "invalid -p '0'" "$latency" -p 0 -D 1
expect_refusal "invalid -D 'abc'" "$latency" -D abc
expect_refusal "invalid -D '0'" "$latency" -D 0
expect_refusal "invalid -i '10us'" "$latency" -i 10us -D 1
expect_refusal "invalid -i '0'" "$latency" -i 0 -D 1
expect_refusal "usage:" "$latency" -x
expect_refusal "unexpected argument 'extra'" "$latency" -D 1 extra

# Without CAP_SYS_NICE (and RLIMIT_RTPRIO 0) SCHED_FIFO is refused: both tools must say so.
if command -v prlimit >/dev/null && setpriv --bounding-set=-sys_nice --inh-caps=-sys_nice true 2>/dev/null; then
  nofifo=(prlimit --rtprio=0 setpriv --bounding-set=-sys_nice --inh-caps=-sys_nice)
  expect_refusal "SCHED_FIFO refused" "${nofifo[@]}" "$check"
  expect_refusal "needs SCHED_FIFO" "${nofifo[@]}" "$latency" -D 1
else
  echo "skipped: prlimit or setpriv cannot drop SCHED_FIFO rights here"
fi

exit $((failures > 0))
