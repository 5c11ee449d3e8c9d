#!/bin/sh
# Installs what kelvo needs to build, test and benchmark on Debian 12, skipping what is there.
# Run as root. Packages: the compiler and build tools, GoogleTest, Google Benchmark, and the
# benchmark-only comparisons (OpenSSL's MD5, Boost.Context, cyclictest from rt-tests), and
# clang with its libFuzzer runtime for the fuzz targets.
# dpkg-dev computes the Debian packages' dependencies (dpkg-shlibdeps). lintian is not
# installed (it is heavy); the package test runs it when present. gnuplot-nox draws the
# latency plots (scripts/plot-latency.sh) and, with python3, the trace timeline picture
# (scripts/trace-timeline.py); the build needs neither. nlohmann-json3-dev is
# for the tests only (they parse the trace-viewer JSON). abigail-tools (abidw, abidiff)
# compares the library's ABI with the committed baseline (scripts/abi-baseline.sh). iceoryx
# (RouDi) and libiceoryx-posh-dev are the peer of the typed-topics comparison
# (bench/topic_pingpong.cpp).
set -eu
packages="g++ cmake ninja-build pkg-config googletest libgtest-dev libgmock-dev
  libbenchmark-dev libssl-dev libboost-context-dev rt-tests dpkg-dev
  gnuplot-nox python3 nlohmann-json3-dev clang-14 libclang-rt-14-dev abigail-tools
  iceoryx libiceoryx-posh-dev"
missing=""
for package in $packages; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
    missing="$missing $package"
done
if [ -n "$missing" ]; then
  echo "installing:$missing"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  # shellcheck disable=SC2086
  apt-get install -y -qq --no-install-recommends $missing
fi
