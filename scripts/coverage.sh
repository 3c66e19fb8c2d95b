#!/usr/bin/env bash
# Measures what the test suite exercises: builds the tree with gcc coverage instrumentation
# in build-cov, runs the whole suite, then prints line and
# branch coverage for each module: snmp/lib, snmp/dpisa and snmp/daemon. The daemon's figures
# include both the daemon processes the tests start (they end on SIGTERM through exit, which
# writes their counts) and its modules linked into the in-process registry test.
#   JOBS         parallel build/test jobs (default 2)
#   CTEST_ARGS   test selection (default: the whole suite, as the README test command runs
#                it, slow and stress tests included)
# Leaves build-cov/coverage/<module>.txt (files with their uncovered lines) and
# build-cov/coverage/index.html (annotated sources).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
JOBS=${JOBS:-2}
ctest_args=${CTEST_ARGS:-"--timeout 300"}
build=$root/build-cov
report=$build/coverage

bash scripts/install-deps.sh

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DVARNEX_COVERAGE=ON -DVARNEX_BENCH=OFF \
      -DCMAKE_CXX_COMPILER=g++ -DCMAKE_C_COMPILER=gcc > /dev/null
cmake --build "$build" -j "$JOBS"
# Counts from an earlier run would add up with this one's.
find "$build" -name '*.gcda' -delete
rm -rf "$report"
mkdir -p "$report"

test_rc=0
# shellcheck disable=SC2086  # CTEST_ARGS is a list of words
ctest --test-dir "$build" -j "$JOBS" $ctest_args --output-on-failure > "$report/ctest.log" 2>&1 ||
  test_rc=$?
grep -E 'tests passed|tests failed' "$report/ctest.log" || true
if [ "$test_rc" -ne 0 ]; then
  sed -n '/The following tests FAILED/,$p' "$report/ctest.log"
  echo "(some tests failed: the figures below still count what ran; see $report/ctest.log)"
fi

# Branches the compiler adds for exceptions, and those it can prove never taken, are not
# decisions of our code.
gcovr_opts=(--root "$root" --exclude-throw-branches --exclude-unreachable-branches -j "$JOBS")
# Every gcda file once, into one JSON, so the three modules do not each run gcov again.
gcovr "${gcovr_opts[@]}" --filter 'snmp/' --json "$report/all.json" "$build" > /dev/null

echo
printf '%-12s %22s %22s\n' module lines branches
for module in snmp/lib snmp/dpisa snmp/daemon; do
  name=${module#snmp/}
  gcovr --root "$root" --add-tracefile "$report/all.json" --filter "$module/" --print-summary \
        --txt "$report/$name.txt" > "$report/$name.summary"
  lines=$(sed -n 's/^lines: *\(.*\)$/\1/p' "$report/$name.summary")
  branches=$(sed -n 's/^branches: *\(.*\)$/\1/p' "$report/$name.summary")
  printf '%-12s %22s %22s\n' "$module" "$lines" "$branches"
done
gcovr --root "$root" --add-tracefile "$report/all.json" --html-details "$report/index.html"
echo
echo "uncovered lines per file: $report/{lib,dpisa,daemon}.txt; annotated: $report/index.html"
exit "$test_rc"
