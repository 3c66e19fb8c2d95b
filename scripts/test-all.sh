#!/usr/bin/env bash
# Runs every test suite of the project: plain, under ASan+UBSan, and a short smoke run
# of each fuzz target. On a fresh Debian machine it first installs what is missing.
#   FUZZ_SECONDS  seconds per fuzz target (default 20)
#   JOBS          parallel build/test jobs (default: number of cores)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
JOBS=${JOBS:-$(nproc)}
FUZZ_SECONDS=${FUZZ_SECONDS:-20}

bash scripts/install-deps.sh

step() { printf '\n=== %s ===\n' "$*"; }
# Every phase runs even when an earlier one failed, so one run shows everything that is wrong.
failed=()
check() { local what=$1; shift; "$@" || failed+=("$what"); }

step "plain build (g++)"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=g++ -DCMAKE_C_COMPILER=gcc >/dev/null
cmake --build build -j "$JOBS"
step "tests (plain)"
check "tests (plain)" ctest --test-dir build --output-on-failure -j "$JOBS"

step "sanitizer build (g++, ASan+UBSan)"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DVARNEX_SANITIZE=ON -DCMAKE_CXX_COMPILER=g++ -DCMAKE_C_COMPILER=gcc >/dev/null
cmake --build build-asan -j "$JOBS"
step "tests (ASan+UBSan)"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
check "tests (ASan+UBSan)" ctest --test-dir build-asan --output-on-failure -j "$JOBS"
unset ASAN_OPTIONS UBSAN_OPTIONS

step "fuzz targets (clang, libFuzzer, ${FUZZ_SECONDS}s each)"
cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVARNEX_FUZZ=ON -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang >/dev/null
cmake --build build-fuzz -j "$JOBS"
shopt -s nullglob
fuzzers=(build-fuzz/fuzz/fuzz_*)
for f in "${fuzzers[@]}"; do
  [ -x "$f" ] || continue
  name=${f##*/fuzz_}
  work=$(mktemp -d)
  mkdir "$work/corpus"
  [ -d "fuzz/corpus/$name" ] && cp -r "fuzz/corpus/$name/." "$work/corpus/"
  echo "--- $name"
  if "$f" -max_total_time="$FUZZ_SECONDS" -print_final_stats=1 -artifact_prefix="$work/" \
       "$work/corpus" >"$work/log" 2>&1; then
    grep -E 'stat::number_of_executed_units' "$work/log" || true
  else
    tail -n 60 "$work/log"
    failed+=("fuzz $name")
  fi
  rm -rf "$work"
done
[ ${#fuzzers[@]} -gt 0 ] || echo "no fuzz targets built"

if [ ${#failed[@]} -gt 0 ]; then
  step "FAILED: ${failed[*]}"
  exit 1
fi
step "all test suites passed"
