#!/usr/bin/env bash
# Keeps kelvo_topic_pingpong from rotting: it refuses bad options with a message naming them,
# runs every case briefly, and leaves no RouDi, iceoryx memory or topic behind.
# Usage: topic_pingpong.sh <kelvo_topic_pingpong> bad-options|unpinned|pinned
# Exit 77 (skipped) from "pinned" when SCHED_FIFO is not permitted here.
set -u
program=$1
mode=$2
failures=0

# expect_refusal <pattern> <arguments...>: exit non-zero within 20 s, naming the bad argument.
expect_refusal() {
  local pattern=$1
  shift
  local output status
  output=$(timeout 20 "$program" "$@" 2>&1)
  status=$?
  if [ "$status" -eq 124 ]; then
    echo "FAIL (hung): $*"
    failures=$((failures + 1))
  elif [ "$status" -eq 0 ]; then
    echo "FAIL (exit 0): $*"
    failures=$((failures + 1))
  elif ! grep -q -- "$pattern" <<<"$output"; then
    echo "FAIL (message): $* -> $output"
    failures=$((failures + 1))
  else
    echo "ok: $* -> $(head -n 1 <<<"$output")"
  fi
}

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
    expect_refusal "unknown option" --bogus 1
    expect_refusal "needs a value" --rounds
    expect_refusal "not an option" stray
    expect_refusal "\-\-sizes: '100' is not one of" --sizes 100
    expect_refusal "\-\-sizes: '64' given twice" --sizes 64,64
    expect_refusal "\-\-sizes: empty item" --sizes 64,
    expect_refusal "\-\-transports: 'zeromq' is not one of" --transports zeromq
    expect_refusal "\-\-modes: 'sleep' is not one of" --modes sleep
    expect_refusal "\-\-sched: 'fifo' is not one of" --sched fifo
    expect_refusal "\-\-rounds: '0' is not a whole number" --rounds 0
    expect_refusal "\-\-rounds: '12x' is not a whole number" --rounds 12x
    expect_refusal "\-\-warmup: '-1' is not a whole number" --warmup -1
    expect_refusal "\-\-blocks: '0' is not a whole number" --blocks 0
    expect_refusal "\-\-publish-samples: 'many'" --publish-samples many
    expect_refusal "\-\-cpus: '0' is not two CPUs" --cpus 0
    expect_refusal "\-\-cpus: CPU 1000 is not one" --cpus 0,1000
    expect_refusal "\-\-priority: '100' is not a whole number" --priority 100
    expect_refusal "\-\-priority: '0' is not a whole number" --priority 0
    expect_refusal "\-\-timeout: '0' is not a whole number" --timeout 0
    expect_refusal "\-\-wait-slice-us: '0'" --wait-slice-us 0
    expect_refusal "\-\-roudi-config: cannot read '/nonexistent/roudi.toml'" \
      --roudi-config /nonexistent/roudi.toml
    expect_refusal "\-\-roudi: empty path" --roudi ""
    # A RouDi that cannot start leaves iceoryx out, says why, and fails the run.
    expect_refusal "iceoryx left out of the unpinned cases: .*cannot run /nonexistent/iox-roudi" \
      --roudi /nonexistent/iox-roudi --transports iceoryx --sched unpinned --sizes 64 \
      --modes poll --rounds 10 --publish-samples 0
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
