#!/usr/bin/env bash
# The shared library must export exactly the thirteen API functions.
set -euo pipefail
lib="$1"
expected="aa vlu_create vlu_destroy vlu_factor vlu_getmsgcb vlu_getnumsing vlu_getsingpair vlu_getstats vlu_msghack vlu_regmsgcb vlu_setupdatelimit vlu_solve vlu_update"
actual=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TtWwDdBbRrVvi]$/ {print $3}' | sed 's/@.*//' | sort | tr '\n' ' ' | sed 's/ $//')
if [ "$actual" != "$expected" ]; then
  echo "exported: $actual"
  echo "expected: $expected"
  exit 1
fi
echo "13 exports ok"
