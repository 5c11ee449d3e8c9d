#!/bin/sh
# The ABI baseline of libkelvo.so.0: abi/libkelvo.so.0.abi, libabigail's description of the
# exported functions and variables and of every type they reach, as declared in the public
# headers (apt-get install abigail-tools).
#
#   scripts/abi-baseline.sh update [LIBRARY]   rewrite the baseline from LIBRARY, on purpose
#   scripts/abi-baseline.sh check [LIBRARY]    compare LIBRARY with the baseline
#
# LIBRARY defaults to the default preset's build/default/src/libkelvo.so.0; it must carry its
# debug information (the default preset's RelWithDebInfo build does). The baseline leaves out
# everything that depends on where the library was built: corpus and compilation paths, source
# locations, and the build directory in the names of translation units. Which translation unit
# of the file holds a type's definition still follows the order of the compilation directories
# recorded in the objects: objects that a compiler cache compiled in another directory can move
# definitions around in a refreshed file, which abidiff does not count as a change.
#
# check exits 0 when the ABI is unchanged or only grew (added functions, variables or
# classes); 1 when abidiff failed or found an incompatible change (a removed or renamed
# exported symbol, a moved virtual function...), with its report; 77 when abidiff is missing.
# Other changes (a class that changed its size or members, say) are printed for review and
# pass: whether they break users depends on how they use the class, which a person decides.
set -eu

usage() {
  echo "usage: $0 update|check [LIBRARY]" >&2
  exit 2
}

if [ $# -lt 1 ] || [ $# -gt 2 ]; then usage; fi
mode="$1"
case "$mode" in
  update | check) ;;
  *) echo "$0: unknown mode '$mode'" >&2; usage ;;
esac
source_dir=$(cd "$(dirname "$0")/.." && pwd)
library="${2:-$source_dir/build/default/src/libkelvo.so.0}"
baseline="$source_dir/abi/libkelvo.so.0.abi"
[ -f "$library" ] || { echo "$0: no such library: $library" >&2; exit 2; }

for tool in abidw abidiff; do
  if ! command -v "$tool" >/dev/null 2>&1; then
    if [ "$mode" = check ]; then
      echo "skipped: $tool not found, the ABI is not compared (apt-get install abigail-tools)"
      exit 77
    fi
    echo "$0: $tool not found (apt-get install abigail-tools)" >&2
    exit 2
  fi
done

# Writes the description of $1 to $2.
describe() {
  abidw --no-corpus-path --no-comp-dir-path --no-show-locs --drop-undefined-syms \
    --exported-interfaces-only --headers-dir "$source_dir/include" --drop-private-types \
    --type-id-style hash --out-file "$2.raw" "$1"
  # Translation units are named by the path the compiler was given: relative to the build
  # directory, or absolute. Only the part from src/ on is ours.
  sed -E "s#(<abi-instr [^>]*path=')[^']*/(src/[^']*')#\\1\\2#" "$2.raw" >"$2"
  rm -f "$2.raw"
  if ! grep -q '<elf-function-symbols>' "$2"; then
    echo "$0: abidw found no exported function in $1" >&2
    exit 1
  fi
}

# Both modes describe the library in a scratch directory first, so that a failing abidw
# leaves nothing behind and never a half-written baseline.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
describe "$library" "$work/current.abi"

if [ "$mode" = update ]; then
  mkdir -p "$(dirname "$baseline")"
  cp "$work/current.abi" "$baseline"
  echo "wrote $baseline from $library"
  exit 0
fi

[ -f "$baseline" ] || { echo "$0: no baseline: $baseline" >&2; exit 1; }
status=0
abidiff --no-show-locs "$baseline" "$work/current.abi" >"$work/report" 2>&1 || status=$?
if [ $((status & 1)) -ne 0 ] || [ $((status & 8)) -ne 0 ]; then
  cat "$work/report"
  if [ $((status & 8)) -ne 0 ]; then
    echo "incompatible ABI change (abidiff exit status $status): restore what was removed or" \
      "moved, or, if the break is deliberate, it needs a new SONAME and version node"
  else
    echo "abidiff failed (exit status $status)"
  fi
  exit 1
fi
refresh="refresh the baseline: cmake --build --preset default --target abi-baseline"
if [ $((status & 4)) -ne 0 ]; then
  cat "$work/report"
  if abidiff --no-show-locs --no-added-syms "$baseline" "$work/current.abi" >/dev/null 2>&1; then
    echo "ABI grew (additions only): compatible. To record them, $refresh"
  else
    echo "ABI changed (abidiff exit status $status): review the report above. Changed layouts" \
      "of classes that users allocate or derive from break them. When the change is meant," \
      "$refresh"
  fi
  exit 0
fi
echo "ABI unchanged from $baseline"
