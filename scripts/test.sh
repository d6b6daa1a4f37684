#!/usr/bin/env bash
# Builds the library and its tests twice (optimised with assertions, and with
# the address and undefined-behaviour sanitizers) and runs all tests.  The
# optimised build is also installed into a temporary prefix, the examples are
# built against that install through the CMake package and through
# pkg-config, and its Debian package is made and listed (ctest label
# "install": scripts/consumer_test.sh, scripts/deb_test.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh --tests
jobs=$(nproc 2>/dev/null || echo 2)

cmake -S . -B build/test -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/test -j"$jobs"
ctest --test-dir build/test --output-on-failure -j"$jobs"

cmake -S . -B build/sanitize -DCMAKE_BUILD_TYPE=Debug -DVLU_SANITIZE=ON >/dev/null
cmake --build build/sanitize -j"$jobs"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build/sanitize --output-on-failure -j"$jobs"
