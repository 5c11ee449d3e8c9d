# Sourced by the tool tests: expect_refusal <pattern> <command...> runs the command, which must
# exit non-zero within 20 s and print a line matching <pattern> on standard error or output;
# every miss adds one to $failures and says why.
failures=${failures:-0}

expect_refusal() {
  local pattern=$1
  shift
  local output status
  output=$(timeout 20 "$@" 2>&1)
  status=$?
  if [ "$status" -eq 124 ]; then
    echo "FAIL (hung): $*"
    failures=$((failures + 1))
  elif [ "$status" -eq 0 ]; then
    echo "FAIL (exit 0): $* -> $output"
    failures=$((failures + 1))
  elif ! grep -q -- "$pattern" <<<"$output"; then
    echo "FAIL (message): $* -> $output"
    failures=$((failures + 1))
  else
    echo "ok: $* -> $(head -n 1 <<<"$output")"
  fi
}
