#!/usr/bin/env bash
# Keeps kelvo_topic_pingpong from rotting: it refuses bad options with a message naming them,
# runs every case briefly, and leaves no RouDi, iceoryx memory or topic behind.
# Usage: topic_pingpong.sh <kelvo_topic_pingpong> bad-options|unpinned|pinned
# Exit 77 (skipped) from "pinned" when SCHED_FIFO is not permitted here.
set -u
program=$1
mode=$2
failures=0
# shellcheck source=expect_refusal.sh
. "$(dirname "$0")/expect_refusal.sh"

# Typed and plain topics of this program are named kb<pid>x<block>.
own_topics() { ls /tmp/topics 2>/dev/null | grep -E '^kb[0-9]+x[0-9]+[ab]$' | sort; }

# smoke <sched>: a short run of every case of one scheduling kind.
smoke() {
  local sched=$1 before after output status
  before=$(own_topics)
  output=$(timeout 240 "$program" --sched "$sched" --rounds 1000 --warmup 100 --blocks 1 \
    --publish-samples 100000 --timeout 60 2>&1)
  status=$?
  echo "$output"
  if [ "$status" -eq 77 ]; then
    exit 77
  fi
  if [ "$status" -ne 0 ]; then
    echo "FAIL: exit status $status"
    failures=$((failures + 1))
  fi
  for title in "busy-poll, 64 B" "blocking, 64 B" "busy-poll, 64 KiB" "blocking, 64 KiB"; do
    for transport in kelvo iceoryx 'shm_\*'; do
      if ! grep -A3 -- "$title\$" <<<"$output" | grep -qE "^  $transport +[0-9]+ "; then
        echo "FAIL: no $transport row under '$title'"
        failures=$((failures + 1))
      fi
    done
  done
  if ! grep -qE '^  kelvo +100000 .* 0$' <<<"$output"; then
    echo "FAIL: no kelvo row with 100000 publishes and no torn read"
    failures=$((failures + 1))
  fi
  after=$(own_topics)
  if [ "$before" != "$after" ]; then
    echo "FAIL: topics left under /tmp/topics: $(comm -13 <(echo "$before") <(echo "$after"))"
    failures=$((failures + 1))
  fi
  if pgrep -x iox-roudi >/dev/null; then
    echo "FAIL: an iox-roudi is still running"
    failures=$((failures + 1))
  fi
  if [ -e /dev/shm/iceoryx_mgmt ]; then
    echo "FAIL: iceoryx's shared memory is left behind"
    failures=$((failures + 1))
  fi
}

case "$mode" in
  bad-options)
    expect_refusal "unknown option" "$program" --bogus 1
    expect_refusal "needs a value" "$program" --rounds
    expect_refusal "not an option" "$program" stray
    expect_refusal "\-\-sizes: '100' is not one of" "$program" --sizes 100
    expect_refusal "\-\-sizes: '64' given twice" "$program" --sizes 64,64
    expect_refusal "\-\-sizes: empty item" "$program" --sizes 64,
    expect_refusal "\-\-transports: 'zeromq' is not one of" "$program" --transports zeromq
    expect_refusal "\-\-modes: 'sleep' is not one of" "$program" --modes sleep
    expect_refusal "\-\-sched: 'fifo' is not one of" "$program" --sched fifo
    expect_refusal "\-\-rounds: '0' is not a whole number" "$program" --rounds 0
    expect_refusal "\-\-rounds: '12x' is not a whole number" "$program" --rounds 12x
    expect_refusal "\-\-warmup: '-1' is not a whole number" "$program" --warmup -1
    expect_refusal "\-\-blocks: '0' is not a whole number" "$program" --blocks 0
    expect_refusal "\-\-publish-samples: 'many'" "$program" --publish-samples many
    expect_refusal "\-\-cpus: '0' is not two CPUs" "$program" --cpus 0
    expect_refusal "\-\-cpus: CPU 1000 is not one" "$program" --cpus 0,1000
    expect_refusal "\-\-priority: '100' is not a whole number" "$program" --priority 100
    expect_refusal "\-\-priority: '0' is not a whole number" "$program" --priority 0
    expect_refusal "\-\-timeout: '0' is not a whole number" "$program" --timeout 0
    expect_refusal "\-\-wait-slice-us: '0'" "$program" --wait-slice-us 0
    expect_refusal "\-\-roudi-config: cannot read '/nonexistent/roudi.toml'" "$program" \
      --roudi-config /nonexistent/roudi.toml
    expect_refusal "\-\-roudi: empty path" "$program" --roudi ""
    # A RouDi that cannot start leaves iceoryx out, says why, and fails the run.
    expect_refusal "iceoryx left out of the unpinned cases: .*cannot run /nonexistent/iox-roudi" \
      "$program" --roudi /nonexistent/iox-roudi --transports iceoryx --sched unpinned \
      --sizes 64 --modes poll --rounds 10 --publish-samples 0
    # Without the right to SCHED_FIFO, pinned cases are skipped with the reason (exit 77).
    if command -v prlimit >/dev/null &&
      setpriv --bounding-set=-sys_nice --inh-caps=-sys_nice true 2>/dev/null; then
      expect_refusal "skipping the pinned cases: SCHED_FIFO is not permitted" \
        prlimit --rtprio=0 setpriv --bounding-set=-sys_nice --inh-caps=-sys_nice \
        "$program" --sched pinned --transports shm --rounds 10
    else
      echo "skipped: prlimit or setpriv cannot drop SCHED_FIFO rights here"
    fi
    ;;
  unpinned | pinned)
    smoke "$mode"
    ;;
  *)
    echo "usage: topic_pingpong.sh <program> bad-options|unpinned|pinned"
    exit 2
    ;;
esac
if [ "$failures" -ne 0 ]; then
  echo "$failures failure(s)"
  exit 1
fi
echo "all passed"
