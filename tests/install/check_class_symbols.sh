#!/bin/sh
# Fails unless a library exports every symbol the compiler makes for its public classes, so that
# an application can derive from them, cast them and catch them:
# - every polymorphic class of the public headers has its vtable, typeinfo and typeinfo name
#   exported;
# - every vtable, VTT, typeinfo, typeinfo name and thunk (non-virtual, virtual, covariant
#   return) that the library defines for a public class, const members included, is exported;
# - every guard variable and TLS init or wrapper function of an exported variable, or of a
#   member of a public class, is exported.
# The public classes are those the compiler sees in the headers, not a list kept by hand: the
# script compiles every header under INCLUDE_DIR with GCC's class-hierarchy dump. What the
# library defines is read from its full symbol table (not stripped).
#
# Usage: check_class_symbols.sh LIBRARY CXX INCLUDE_DIR [--require-every-kind]
# --require-every-kind also fails unless an exported symbol of each kind above exists (for a
# library made to contain them all). Exits 77 (skipped) when CXX is not GCC or the library has
# no symbol table.
set -eu
[ $# -ge 3 ] || { echo "usage: $0 LIBRARY CXX INCLUDE_DIR [--require-every-kind]" >&2; exit 2; }
lib="$1"
cxx="$2"
include_dir="$3"
require_every_kind="${4:-}"
[ -f "$lib" ] || { echo "no such library: $lib" >&2; exit 2; }
[ -d "$include_dir" ] || { echo "no such include directory: $include_dir" >&2; exit 2; }
include_dir=$(cd "$include_dir" && pwd)
if [ -n "$require_every_kind" ] && [ "$require_every_kind" != "--require-every-kind" ]; then
  echo "unknown option: $require_every_kind" >&2
  exit 2
fi
macros=$(echo | "$cxx" -dM -E -x c++ - 2>/dev/null || true)
if ! printf '%s\n' "$macros" | grep -q '__GNUG__' || printf '%s\n' "$macros" | grep -q '__clang__'; then
  echo "skipped: $cxx is not GCC, whose class-hierarchy dump names the public classes"
  exit 77
fi
if ! nm --defined-only "$lib" >/dev/null 2>&1 || [ -z "$(nm --defined-only "$lib" 2>/dev/null)" ]; then
  echo "skipped: $lib has no symbol table (stripped)"
  exit 77
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The library's classes in the public headers, and which of them are polymorphic.
find "$include_dir" -name '*.h' | sort | sed 's/.*/#include "&"/' >"$work/headers.cpp"
(cd "$work" && "$cxx" -std=c++17 -fsyntax-only -fdump-lang-class -I"$include_dir" headers.cpp)
class_dump=$(ls "$work"/*.class)
sed -n 's/^Class \(mosk::kelvo::\)/\1/p' "$class_dump" | sort -u >"$work/classes"
sed -n 's/^Vtable for \(mosk::kelvo::\)/\1/p' "$class_dump" | sort -u >"$work/polymorphic"

# Demangled names without the version suffix: defined anywhere in the library, and exported.
nm --defined-only "$lib" | awk '{ $1 = ""; $2 = ""; sub(/^  /, ""); print }' |
  sed -E 's/@@?[A-Za-z0-9_.]+$//' | c++filt | sort -u >"$work/defined"
nm -D --defined-only "$lib" | awk '{ $1 = ""; $2 = ""; sub(/^  /, ""); print }' |
  sed -E 's/@@?[A-Za-z0-9_.]+$//' | c++filt | sort -u >"$work/exported"

# Each special symbol as "kind<TAB>owner<TAB>symbol": the owner is the class the symbol belongs
# to (for a thunk, the class of its function); for guard variables and TLS functions it is the
# variable. Construction vtables are left out: the compiler keeps them local to the object that
# holds the VTT, and a class derived elsewhere gets its own.
awk -v OFS='\t' '
  # Drops trailing qualifiers and the parameter list of a demangled function name.
  function function_name(s,    i, depth, c) {
    while (sub(/ (const|volatile|&|&&)$/, "", s)) {}
    if (substr(s, length(s)) != ")") return s
    depth = 0
    for (i = length(s); i > 0; i--) {
      c = substr(s, i, 1)
      if (c == ")") depth++
      else if (c == "(" && --depth == 0) return substr(s, 1, i - 1)
    }
    return s
  }
  # Everything before the last "::" outside template arguments.
  function scope(s,    i, depth, c) {
    depth = 0
    for (i = length(s); i > 1; i--) {
      c = substr(s, i, 1)
      if (c == ">") depth++
      else if (c == "<") depth--
      else if (c == ":" && depth == 0 && substr(s, i - 1, 1) == ":") return substr(s, 1, i - 2)
    }
    return ""
  }
  match($0, /^(typeinfo name|typeinfo|vtable|VTT) for /) {
    print substr($0, 1, RLENGTH - 5), substr($0, RLENGTH + 1), $0; next
  }
  match($0, /^(non-virtual thunk|virtual thunk|covariant return thunk) to /) {
    print substr($0, 1, RLENGTH - 4), scope(function_name(substr($0, RLENGTH + 1))), $0; next
  }
  match($0, /^(guard variable|TLS init function|TLS wrapper function) for /) {
    print substr($0, 1, RLENGTH - 5), substr($0, RLENGTH + 1), $0; next
  }
' "$work/defined" >"$work/special"

missing=""
add_missing() { missing="$missing
  $1"; }

# Polymorphic public classes: their type information is the library's to export.
while IFS= read -r class; do
  for kind in "vtable" "typeinfo" "typeinfo name"; do
    grep -qxF "$kind for $class" "$work/exported" ||
      add_missing "$kind for $class (a polymorphic public class; give it an out-of-line virtual function if the library defines none)"
  done
done <"$work/polymorphic"

# Special symbols the library defines for public classes and exported variables.
checked=0
tab=$(printf '\t')
while IFS="$tab" read -r kind owner symbol; do
  case "$kind" in
    "guard variable" | "TLS init function" | "TLS wrapper function")
      base=$(printf '%s\n' "$owner" | sed -E 's/\[abi:[^]]*\]//g')
      grep -qxF "$owner" "$work/exported" || grep -qxF "$base" "$work/exported" ||
        grep -qxF "${base%::*}" "$work/classes" || continue ;;
    *)
      grep -qxF "$owner" "$work/classes" || continue ;;
  esac
  checked=$((checked + 1))
  grep -qxF "$symbol" "$work/exported" || add_missing "$symbol"
done <"$work/special"

if [ -n "$missing" ]; then
  echo "not exported, but needed by programs that use or derive from the public classes:$missing"
  echo "(the export rules are in the library's version script)"
  exit 1
fi

if [ "$require_every_kind" = "--require-every-kind" ]; then
  for kind in "typeinfo" "typeinfo name" "vtable" "VTT" "non-virtual thunk" "virtual thunk" \
              "covariant return thunk" "guard variable" "TLS init function"; do
    cut -f1,3 "$work/special" | grep "^$kind$tab" | cut -f2 | grep -qxFf - "$work/exported" ||
      { echo "no exported $kind: the library lacks a case to check"; exit 1; }
  done
fi

echo "public classes: $(wc -l <"$work/classes") ($(wc -l <"$work/polymorphic") polymorphic)," \
  "special symbols checked: $checked, all exported"
