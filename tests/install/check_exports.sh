#!/bin/sh
# Fails if the library exports anything beyond its public API: every defined dynamic symbol
# must belong to the mosk::kelvo namespace or be one of the C-named runtime functions.
set -eu
lib="$1"
unexpected=$(nm -D --defined-only "$lib" | awk '{ $1 = ""; $2 = ""; sub(/^  /, ""); print }' |
  sed -E 's/@@?KELVO_[0-9.]+$//' |
  c++filt |
  grep -vE '^((typeinfo|typeinfo name|vtable|VTT|guard variable|TLS init function|TLS wrapper function) for |(non-virtual|virtual|covariant return) thunk to )?mosk::kelvo::' |
  grep -vE '^(aco_[a-z0-9_]+|acosw|shm_[a-z_]+(\(.*\))?|MD5(Init|Update|Final|Transform)\(.*\)|byteSwap\(.*\)|gettid\(\)|KELVO_[0-9.]+)$' || true)
if [ -n "$unexpected" ]; then
  echo "unexpected exported symbols:"
  echo "$unexpected"
  exit 1
fi
# A class's private implementation (PrivateData, nested in an exported class and so exported by
# default) must stay hidden: its members are internals that would otherwise become ABI.
internals=$(nm -D --defined-only -C "$lib" | grep -E '::PrivateData(::|[^A-Za-z0-9_]|$)' || true)
if [ -n "$internals" ]; then
  echo "exported symbols of a private implementation (mark it hidden):"
  echo "$internals"
  exit 1
fi
# Every exported symbol carries the ABI's version node.
unversioned=$(nm -D --defined-only "$lib" | awk '{ print $3 }' | grep -vE '@@KELVO_0$|^KELVO_0$' || true)
if [ -n "$unversioned" ]; then
  echo "exported symbols without the KELVO_0 version node:"
  echo "$unversioned"
  exit 1
fi
count=$(nm -D --defined-only "$lib" | wc -l)
echo "exported symbols: $count, all public API"
