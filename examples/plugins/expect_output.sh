#!/bin/sh
# expect_output.sh EXIT_CODE TEXT... -- COMMAND [ARGUMENTS...]
# Runs COMMAND and fails unless it exits with EXIT_CODE and its output (standard output and
# error together) contains every TEXT as a fixed string.
set -u
expected=$1
shift
texts=""
while [ "$1" != "--" ]; do texts="$texts$1
"; shift; done
shift
output=$("$@" 2>&1)
rc=$?
printf '%s\n' "$output"
if [ "$rc" -ne "$expected" ]; then echo "exit code $rc, expected $expected"; exit 1; fi
printf '%s' "$texts" | while IFS= read -r text; do
  printf '%s\n' "$output" | grep -qF -- "$text" || { echo "missing: $text"; exit 1; }
done
