#!/usr/bin/env bash
# Fuzzing with libFuzzer (Clang): builds the targets of fuzz/ with the
# address and undefined-behaviour sanitizers, makes seed corpora from the case
# folders, and runs the targets one after the other (one process: the machine
# is shared), each for the given number of seconds.  Not part of the tests.
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]
#
# TARGET is one of case_reader, args, factor_tri, sequence_tri (the default
# set), factor_general, sequence_general (these draw bases with a bump and
# need the elimination).  Corpora grow in build/fuzz/corpus/<target>, logs go
# to build/fuzz/logs, and inputs that fail to build/fuzz/findings/<target>/;
# reproduce one with build/fuzz/fuzz/fuzz_<target> <file> (FUZZ_VERBOSE=1 shows
# the library's messages; FUZZ_WILD_CHECKS=1 lets the general targets run the
# consistency checks on systems of the wild style too).  The general targets
# also draw large generated bumps, checks, store sizes, traces and heap limits
# from the input (fuzz/fuzz_system.h).  Case folders for
# the seeds: tests/data, and the shared set when VLU_CASES names it or it
# stands at ../shared/cases.
set -euo pipefail
cd "$(dirname "$0")/.."
secs=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=(case_reader args factor_tri sequence_tri)

B=build/fuzz
cmake -S . -B "$B" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVLU_FUZZ=ON -DVLU_BUILD_TESTS=OFF >/dev/null
cmake --build "$B" -j2 --target make_seeds $(printf 'fuzz_%s ' "${targets[@]}")

cases=(tests/data/*/)
shared=${VLU_CASES:-../shared/cases}
[ -d "$shared" ] && cases+=("$shared"/*/)
rm -rf "$B/seeds"
"$B/fuzz/make_seeds" "$B/seeds" "${cases[@]}"

mkdir -p "$B/logs"
for t in "${targets[@]}"; do
  corpus="$B/corpus/$t"
  mkdir -p "$corpus" "$B/findings/$t"
  case $t in
    case_reader) cp -n "$B/seeds/case_reader/"* "$corpus/" ;;
    factor_tri | sequence_tri) cp -n "$B/seeds/tri/"* "$corpus/" ;;
    factor_general | sequence_general) cp -n "$B/seeds/general/"* "$corpus/" ;;
  esac
  [ -d "fuzz/corpus/$t" ] && cp -n "fuzz/corpus/$t/"* "$corpus/" 2>/dev/null || true
  echo "== $t: $secs s"
  set +e
  "$B/fuzz/fuzz_$t" -max_total_time="$secs" -timeout=30 -rss_limit_mb=2048 -max_len=65536 \
    -print_final_stats=1 -artifact_prefix="$B/findings/$t/" "$corpus" >"$B/logs/$t.log" 2>&1
  rc=$?
  set -e
  grep -E "stat::number_of_executed_units|stat::peak_rss_mb" "$B/logs/$t.log" || true
  if [ $rc -ne 0 ]; then
    echo "   FAILED (exit $rc): see $B/logs/$t.log and $B/findings/$t/"
    grep -E "ERROR|fuzz check failed|SUMMARY" "$B/logs/$t.log" | head -5 || true
  fi
done
