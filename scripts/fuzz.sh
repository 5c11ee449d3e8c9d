#!/bin/sh
# Builds the libFuzzer targets (preset "fuzz") and runs each of them for the given number of
# seconds (default 60), starting from the seed corpus in fuzz/corpus/<target>. New inputs go to
# a scratch directory, never into the repository. Usage: scripts/fuzz.sh [seconds] [-runs=N]
#   scripts/fuzz.sh 600          ten minutes per target
#   scripts/fuzz.sh 0 -runs=100000   a fixed number of executions per target (the CI smoke run)
set -eu
cd "$(dirname "$0")/.."
seconds="${1:-60}"
case "$seconds" in
  '' | *[!0-9]*) echo "fuzz.sh: seconds must be a whole number, got '$seconds'" >&2; exit 2 ;;
esac
shift $(( $# > 0 ? 1 : 0 ))
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
scratch=$(mktemp -d /tmp/kelvo_fuzz_XXXXXX)
trap 'rm -rf "$scratch"' EXIT
for target in server_length_prefixed server_lines client_framing plugin_elf; do
  mkdir -p "$scratch/$target"
  limit=""
  [ "$seconds" -gt 0 ] && limit="-max_total_time=$seconds"
  echo "== kelvo_fuzz_$target"
  # shellcheck disable=SC2086
  build/fuzz/fuzz/kelvo_fuzz_$target $limit "$@" -print_final_stats=1 \
    -artifact_prefix="$scratch/" "$scratch/$target" "fuzz/corpus/$target" 2>&1 |
    grep -E '^(Done|stat::number_of_executed_units|==[0-9]+==ERROR|framing invariant)' || true
  if ls "$scratch"/crash-* "$scratch"/leak-* "$scratch"/timeout-* >/dev/null 2>&1; then
    mkdir -p fuzz/findings
    cp "$scratch"/crash-* "$scratch"/leak-* "$scratch"/timeout-* fuzz/findings/ 2>/dev/null || true
    echo "fuzz.sh: kelvo_fuzz_$target found a problem; inputs copied to fuzz/findings/" >&2
    exit 1
  fi
done
