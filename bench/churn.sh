#!/usr/bin/env bash
# churn.sh: the churn stress test (tests/churn_stress_test.cpp) run long enough to count on:
# a steady DPI subagent walked back to back with snmpbulkwalk through snmpd and the daemon
# while other subagents register and leave in a loop, a cycle every 50 ms and then every
# 300 ms, then every 50 ms with snmpd as AgentX master, CYCLES cycles each. Each case prints
# one line of figures: the worst registration latency idle and under walks, cycles, walks
# (short, failed), RReqs sent and taken by snmpd as answers, sessions lost.
#
# Usage, as root (the test enters private network and mount namespaces of its own; it
# builds what it needs first):
#   bash bench/churn.sh
#   CYCLES=200 bash bench/churn.sh        # shorter
# Environment:
#   CYCLES      cycles of each churn phase (default 1000: about 50 s fast, 300 s slow)
#   WALKERS     walk loops side by side (default 2)
#   BUILD_DIR   build directory (default build)
#   KEEP_LOGS=1 keep each case's directory with the logs of snmpd, the daemon and walkers
# Anything else is passed to the test program, e.g. --gtest_filter='*Fast*'.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

CYCLES=${CYCLES:-1000}
WALKERS=${WALKERS:-2}
BUILD_DIR=${BUILD_DIR:-build}
case $BUILD_DIR in /*) build=$BUILD_DIR ;; *) build=$root/$BUILD_DIR ;; esac
for v in CYCLES WALKERS; do
  [[ ${!v} =~ ^[1-9][0-9]*$ ]] || { echo "churn.sh: $v must be a positive number" >&2; exit 2; }
done
if [ "$(id -u)" -ne 0 ]; then
  echo "churn.sh needs root: the test runs snmpd on ports 161 and 199 in private network and" \
    "mount namespaces (unshare) and bind-mounts its own /etc/snmpd.peers there." >&2
  exit 1
fi

bash scripts/install-deps.sh
build_log=$(mktemp)
# A build directory configured before keeps its build type; a new one gets an optimised build.
configure=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
[ -f "$build/CMakeCache.txt" ] && configure=()
if ! { cmake -S . -B "$build" "${configure[@]}" &&
       cmake --build "$build" -j2 --target churn_stress_test varnex2 fwd_dpi_subagent; } \
     >"$build_log" 2>&1; then
  cat "$build_log" >&2
  rm -f "$build_log"
  echo "churn.sh: the build failed (output above)" >&2
  exit 1
fi
rm -f "$build_log"

echo "churn.sh: $CYCLES cycles per phase, $WALKERS walk loops;" \
  "$(snmpd -v | awk '/version/ { print "net-snmp " $3; exit }')"
export CHURN_CYCLES=$CYCLES CHURN_WALKERS=$WALKERS
[ "${KEEP_LOGS:-}" = 1 ] && export VX_KEEP_TEST_DIR=1
# The figures, then what failed; snmpd's debug output stays in the file.
out=$(mktemp "${TMPDIR:-/tmp}/churn.XXXXXX")
rc=0
"$build/tests/churn_stress_test" "$@" >"$out" 2>&1 || rc=$?
grep -E '^(churn |registration|  walk |\[ +(OK|SKIPPED|FAILED) +\] ChurnStress)' "$out" || true
if [ "$rc" -ne 0 ]; then
  grep -A6 -E 'Failure$|Skipped$' "$out" || true
  echo "churn.sh: the test failed; its whole output is in $out" >&2
else
  rm -f "$out"
fi
exit "$rc"
