#!/usr/bin/env bash
# Runs kelvo-topics against real topics made by a helper process: the listing, a topic with
# a key file but no segment, option validation, and removal (also while a process waits on the
# topic's condition, which must not hang the tool). With a third argument, the typed-topic
# helper, also typed topics: their listing (publisher alive, then dead, subscribers) and removal
# while a subscriber waits.
set -u
tool="$1"
helper="$2"
typed_helper="${3:-}"
typed="kt$$-typed"
topic="kt$$-topics"
waited="kt$$-waited"
killed="kt$$-killed"
keyonly="kt$$-keyonly"
fifo="/tmp/kelvo_topics_fifo.$$"
attached_out="/tmp/kelvo_topics_attached.$$"
status=0

fail() {
  echo "FAIL: $*"
  status=1
}

cleanup() {
  rm -f "$fifo" "$attached_out" "/tmp/kelvo_topics_waiter.$$" "/tmp/kelvo_topics_err.$$"
  rm -f /tmp/kelvo_topics_typed_*."$$"
  for t in "$topic" "$waited" "$keyonly" "$killed" "$typed"; do
    "$tool" rm --force --timeout 1 "$t" >/dev/null 2>&1
    rm -rf "/tmp/topics/$t"
  done
}
trap cleanup EXIT

# Runs the command "$@" every 10 ms until it succeeds (then returns 0), for up to 30 s.
await() {
  for _ in $(seq 1 3000); do
    "$@" 2>/dev/null && return 0
    sleep 0.01
  done
  return 1
}

# Waits (up to 30 s) until process $1 sleeps.
await_sleeping() { await grep -q '^State:.*S' "/proc/$1/status"; }

# Waits (up to 30 s) until file $1 holds the line $2.
await_line() { await grep -qx "$2" "$1"; }

# A process attached to $topic until its standard input (a fifo) closes.
mkfifo "$fifo"
"$helper" attach "$topic" 4096 <"$fifo" >"$attached_out" &
attached_pid=$!
exec 3>"$fifo"
await_line "$attached_out" ready || fail "helper did not attach"

listing=$("$tool")
echo "$listing"
echo "$listing" | head -1 | grep -qE '^TOPIC +KEY +SHMID +SIZE +NATTCH +CPID +MAGIC +LOCKS +UNLOCKS +OWNER$' ||
  fail "header line"
echo "$listing" | grep -qE "^$topic +0x[0-9a-f]{8} +[0-9]+ +4096 +1 +$attached_pid +0x1234 +0 +0 +0$" ||
  fail "listing of $topic"

# Another user may not read the owner-only segment: the listing says so for that topic.
if [ "$(id -u)" = 0 ] && command -v setpriv >/dev/null; then
  setpriv --reuid=65534 --regid=65534 --clear-groups "$tool" |
    grep -qE "^$topic .*segment status not readable by this user: Permission denied$" ||
    fail "listing as another user"
else
  echo "skipped: the other-user listing needs root and setpriv"
fi

mkdir -p "/tmp/topics/$keyonly" && touch "/tmp/topics/$keyonly/shmkey"
"$tool" | grep -qE "^$keyonly .*no segment \(key file only\)$" || fail "key file without segment"

"$tool" --bogus 2>/tmp/kelvo_topics_err.$$ && fail "--bogus accepted"
grep -q "unknown argument '--bogus'" /tmp/kelvo_topics_err.$$ || fail "--bogus message"
"$tool" rm 2>/tmp/kelvo_topics_err.$$ && fail "rm without NAME accepted"
grep -q "rm needs a topic NAME" /tmp/kelvo_topics_err.$$ || fail "rm without NAME message"
"$tool" rm a b 2>/tmp/kelvo_topics_err.$$ && fail "rm with two names accepted"
grep -q "unexpected argument 'b'" /tmp/kelvo_topics_err.$$ || fail "rm with two names message"
"$tool" rm "kt$$-none" 2>/tmp/kelvo_topics_err.$$ && fail "rm of a missing topic succeeded"
grep -q "no topic 'kt$$-none'" /tmp/kelvo_topics_err.$$ || fail "rm of a missing topic message"
"$tool" rm ../etc 2>/tmp/kelvo_topics_err.$$ && fail "rm ../etc accepted"
grep -q "invalid topic name '../etc'" /tmp/kelvo_topics_err.$$ || fail "rm ../etc message"
"$tool" rm --bogus x 2>/tmp/kelvo_topics_err.$$ && fail "rm --bogus accepted"
grep -q "unknown argument '--bogus'" /tmp/kelvo_topics_err.$$ || fail "rm --bogus message"
for bad in 0 x 3601 ""; do
  "$tool" rm --timeout "$bad" x 2>/tmp/kelvo_topics_err.$$ && fail "--timeout '$bad' accepted"
  grep -q "^kelvo-topics: --timeout must be whole seconds from 1 to 3600, not '$bad'" \
    /tmp/kelvo_topics_err.$$ || fail "--timeout '$bad' message"
done
"$tool" rm x --timeout 2>/tmp/kelvo_topics_err.$$ && fail "--timeout without a value accepted"
grep -q -- "--timeout needs a number of seconds" /tmp/kelvo_topics_err.$$ ||
  fail "--timeout without a value message"
"$tool" --help | grep -q "usage: kelvo-topics" || fail "--help"
rm -f /tmp/kelvo_topics_err.$$

key=$(echo "$listing" | awk -v t="$topic" '$1 == t { print $2 }')
"$tool" rm "$topic" || fail "rm $topic"
[ -e "/tmp/topics/$topic" ] && fail "topic directory left behind"
grep -qiE "^ *$((key)) " /proc/sysvipc/shm && fail "segment still found by its key"
exec 3>&-
wait "$attached_pid"
rm -f "$fifo" "$attached_out"

"$tool" rm "$keyonly" 2>/dev/null || fail "rm of a key-file-only topic"
[ -e "/tmp/topics/$keyonly" ] && fail "key-only topic directory left behind"

# Removal while a process sits in shm_wait: the tool wakes it instead of hanging.
waiter_out="/tmp/kelvo_topics_waiter.$$"
"$helper" wait "$waited" 64 >"$waiter_out" </dev/null &
waiter_pid=$!
await_line "$waiter_out" ready || fail "waiter did not start"
await_sleeping "$waiter_pid" || fail "waiter did not sleep"
timeout 60 "$tool" rm "$waited" || fail "rm with a waiter"
wait "$waiter_pid"
grep -q '^woken 0$' "$waiter_out" || fail "waiter not woken: $(cat "$waiter_out")"
rm -f "$waiter_out"

# A waiter killed inside shm_wait never leaves the condition, so its destruction would wait for
# ever: rm gives up after its time limit and names --force, which removes the topic anyway.
# Starts a waiter on topic $1, kills it while it sleeps in shm_wait and sets $key.
start_and_kill_waiter() {
  "$helper" wait "$1" 64 >"$waiter_out" </dev/null &
  local pid=$!
  await_line "$waiter_out" ready || fail "waiter on $1 did not start"
  await_sleeping "$pid" || fail "waiter on $1 did not sleep"
  kill -KILL "$pid"
  wait "$pid" 2>/dev/null
  key=$("$tool" | awk -v t="$1" '$1 == t { print $2 }')
  [ -n "$key" ] || fail "topic $1 of the killed waiter not listed"
}
# Passes if neither the segment with key $key nor the directory of topic $1 is left.
expect_gone() {
  [ -e "/tmp/topics/$1" ] && fail "removal of $1 left the topic directory"
  grep -qiE "^ *$((key)) " /proc/sysvipc/shm && fail "removal of $1 left the segment"
}

start_and_kill_waiter "$killed"
timeout 60 "$tool" rm --timeout 1 "$killed" 2>/tmp/kelvo_topics_err.$$ &&
  fail "rm with a killed waiter succeeded without --force"
grep -q "^kelvo-topics: waiters on '$killed' did not leave within 1 s; not removed .*'kelvo-topics rm --force $killed'" \
  /tmp/kelvo_topics_err.$$ || fail "rm with a killed waiter message: $(cat /tmp/kelvo_topics_err.$$)"
[ -e "/tmp/topics/$killed/shmkey" ] || fail "key file gone although not removed"
timeout 60 "$tool" rm --force --timeout 1 "$killed" >/dev/null || fail "rm --force after rm"
expect_gone "$killed"

start_and_kill_waiter "$killed"
forced=$(timeout 60 "$tool" rm --force --timeout 1 "$killed") || fail "rm --force with a killed waiter"
echo "$forced" | grep -q "^kelvo-topics: removed '$killed' without destroying its condition: waiters did not leave within 1 s" ||
  fail "rm --force message: $forced"
expect_gone "$killed"
rm -f "$waiter_out" /tmp/kelvo_topics_err.$$

# Typed topics: a publisher that published 20 samples and holds the topic, a subscriber.
if [ -n "$typed_helper" ]; then
  pub_fifo=/tmp/kelvo_topics_typed_pub_fifo.$$
  pub_out=/tmp/kelvo_topics_typed_pub.$$
  sub_fifo=/tmp/kelvo_topics_typed_sub_fifo.$$
  sub_out=/tmp/kelvo_topics_typed_sub.$$
  wait_out=/tmp/kelvo_topics_typed_wait.$$
  mkfifo "$pub_fifo" "$sub_fifo"
  "$typed_helper" hold "$typed" 20 <"$pub_fifo" >"$pub_out" &
  pub_pid=$!
  exec 4>"$pub_fifo"
  await_line "$pub_out" ready || fail "typed publisher did not start"
  "$typed_helper" subscriber "$typed" <"$sub_fifo" >"$sub_out" &
  sub_pid=$!
  exec 5>"$sub_fifo"
  await_line "$sub_out" connected || fail "typed subscriber did not start"

  listing=$("$tool")
  echo "$listing"
  echo "$listing" | grep -qE '^TYPED TOPIC +TYPE +SIZE +DEPTH +PUBLISHER +SAMPLES +RATE/s +AGE +SUBS$' ||
    fail "typed header line"
  echo "$listing" | grep -qE "^$typed +test/Pattern v1 +64 +16 +$pub_pid alive +20 +[0-9]+\.[0-9] +[0-9.]+ (us|ms|s) +1$" ||
    fail "listing of typed topic $typed"
  [ "$(echo "$listing" | grep -c "^$typed ")" = 1 ] || fail "typed topic listed as a plain one too"
  echo "$listing" | grep -qE "^$topic " && fail "removed plain topic still listed"

  kill -KILL "$pub_pid"
  wait "$pub_pid" 2>/dev/null
  "$tool" | grep -qE "^$typed +test/Pattern v1 +64 +16 +$pub_pid dead +20 " ||
    fail "killed typed publisher not shown dead: $("$tool" | grep "^$typed ")"

  # Removal while a subscriber sleeps in wait(): it is woken, the tool does not wait.
  "$typed_helper" wait "$typed" </dev/null >"$wait_out" &
  wait_pid=$!
  await_line "$wait_out" ready || fail "typed waiter did not start"
  await_sleeping "$wait_pid" || fail "typed waiter did not sleep"
  timeout 60 "$tool" rm "$typed" || fail "rm of typed topic $typed"
  wait "$wait_pid"
  grep -qx 'woken 0' "$wait_out" || fail "typed waiter not woken by the removal: $(cat "$wait_out")"
  [ -e "/tmp/topics/$typed" ] && fail "typed topic directory left behind"
  "$tool" | grep -q "^$typed " && fail "removed typed topic still listed"
  "$tool" rm "$typed" 2>/tmp/kelvo_topics_err.$$ && fail "second rm of $typed succeeded"
  grep -q "no topic '$typed'" /tmp/kelvo_topics_err.$$ || fail "second rm message"
  exec 4>&- 5>&-
  wait "$sub_pid"
  rm -f "$pub_fifo" "$pub_out" "$sub_fifo" "$sub_out" "$wait_out" /tmp/kelvo_topics_err.$$
else
  echo "skipped: typed topics (no typed-topic helper given)"
fi

[ $status -eq 0 ] && echo "kelvo-topics: all checks passed"
exit $status
