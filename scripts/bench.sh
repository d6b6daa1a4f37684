#!/usr/bin/env bash
# Builds the library in release mode and runs the benchmark driver on the
# bundled example cases (or on the folders given as arguments).
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DVLU_BUILD_TESTS=OFF >/dev/null
cmake --build build/release -j"$(nproc 2>/dev/null || echo 2)"
if [ -x build/release/tools/vlu-bench ]; then
  if [ $# -gt 0 ]; then
    exec build/release/tools/vlu-bench "$@"
  else
    exec build/release/tools/vlu-bench tests/data
  fi
else
  exec build/release/examples/vlu_example
fi
