#!/usr/bin/env bash
# A fuzzing campaign: builds the libFuzzer targets (clang, build-fuzz) and runs each of them,
# or those named, for a time or a number of executions. A target starts from a copy of its
# seed corpus fuzz/corpus/<target>/ and keeps what it finds in its work corpus
# fuzz/work/<target>/, which lasts from one campaign to the next. Findings (crash-*, leak-*,
# timeout-*, oom-*) go to fuzz/artifacts/<target>/, the run's log to fuzz/work/<target>.log.
#
#   scripts/fuzz-campaign.sh [-t seconds] [-runs n] [--minimize] [target...] [-- libFuzzer flags]
#
#   -t, --seconds N   run each target N seconds (FUZZ_SECONDS, default 60)
#   -runs, --runs N   stop each target after N executions (FUZZ_RUNS); without -t there is then
#                     no time limit, with it whichever comes first ends the run
#   --minimize        after a clean run, merge the work corpus back into fuzz/corpus/<target>/
#                     (MINIMIZE=1): seeds with names of their own are all kept, and of the
#                     inputs the fuzzer found (named by their SHA-1), old and new, only those
#                     that add coverage
#   JOBS              parallel build jobs (default: number of cores)
# The time is not read from SECONDS: bash keeps its own clock in that variable.
# Exit status: 0 when every run ended cleanly, 1 when anything crashed, leaked or failed,
# 2 for a usage error.
set -euo pipefail
cd "$(dirname "$0")/.."
JOBS=${JOBS:-$(nproc)}
seconds=${FUZZ_SECONDS:-}
runs=${FUZZ_RUNS:-}
minimize=${MINIMIZE:-0}
names=()
extra=()

usage() {
  sed -n '2,20p' "$0" | sed 's/^# \{0,1\}//' >&2
  exit 2
}
number() { [[ $2 =~ ^[0-9]+$ ]] || { echo "$1 needs a number, not '$2'" >&2; exit 2; }; }
while [ $# -gt 0 ]; do
  case $1 in
    -t | --seconds) [ $# -ge 2 ] || usage; number "$1" "$2"; seconds=$2; shift 2 ;;
    -runs | --runs) [ $# -ge 2 ] || usage; number "$1" "$2"; runs=$2; shift 2 ;;
    -runs=* | --runs=*) runs=${1#*=}; number -runs "$runs"; shift ;;
    --minimize) minimize=1; shift ;;
    -h | --help) usage ;;
    --) shift; extra=("$@"); break ;;
    -*) echo "unknown option $1" >&2; usage ;;
    *) names+=("${1#fuzz_}"); shift ;;
  esac
done
[ -n "$seconds" ] || [ -n "$runs" ] || seconds=60
[ -z "$seconds" ] || number FUZZ_SECONDS "$seconds"
[ -z "$runs" ] || number FUZZ_RUNS "$runs"

bash scripts/install-deps.sh
echo "=== building the fuzz targets (clang, build-fuzz)"
cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVARNEX_FUZZ=ON \
      -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang > /dev/null
cmake --build build-fuzz -j "$JOBS" > /dev/null

available=()
for f in build-fuzz/fuzz/fuzz_*; do
  [ -f "$f" ] && [ -x "$f" ] && available+=("${f##*/fuzz_}")
done
[ ${#available[@]} -gt 0 ] || { echo "no fuzz targets were built" >&2; exit 1; }
if [ ${#names[@]} -eq 0 ]; then
  names=("${available[@]}")
fi
for name in "${names[@]}"; do
  [ -x "build-fuzz/fuzz/fuzz_$name" ] && continue
  echo "no fuzz target '$name'; there are: ${available[*]}" >&2
  exit 2
done

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
limits=(-print_final_stats=1)
[ -z "$seconds" ] || limits+=(-max_total_time="$seconds")
[ -z "$runs" ] || limits+=(-runs="$runs")

# The finding a run left, as "kind path", or nothing.
finding() {
  local file
  for file in "$1"/crash-* "$1"/leak-* "$1"/timeout-* "$1"/oom-*; do
    [ -e "$file" ] || continue
    local kind=${file##*/}
    echo "${kind%%-*} $file"
    return
  done
}

# Merges seeds and found inputs into a fresh directory that then replaces the seed corpus.
# Inputs with names of their own were put there by hand (test vectors, regressions) and
# stay whatever coverage they add; libFuzzer names what it finds by the input's SHA-1.
minimize_corpus() {
  local name=$1 bin=$2 corpus=fuzz/corpus/$1 fresh found file
  mkdir -p fuzz/work "$corpus"
  fresh=$(mktemp -d "fuzz/work/$name.merge.XXXXXX")
  found=$(mktemp -d "$scratch/$name.found.XXXXXX")
  for file in "$corpus"/*; do
    [ -f "$file" ] || continue
    if [[ ${file##*/} =~ ^[0-9a-f]{40}$ ]]; then
      cp "$file" "$found/"
    else
      cp "$file" "$fresh/"
    fi
  done
  local before
  before=$(find "$corpus" -type f | wc -l)
  if ! "$bin" -merge=1 -artifact_prefix="$scratch/" "$fresh" "$found" "fuzz/work/$name" \
       > "$scratch/$name.merge.log" 2>&1; then
    tail -n 20 "$scratch/$name.merge.log" >&2
    rm -rf "$fresh"
    echo "merge failed, corpus left as it was"
    return 1
  fi
  chmod 755 "$fresh"
  rm -rf "$corpus.old"
  mv "$corpus" "$corpus.old"
  mv "$fresh" "$corpus"
  rm -rf "$corpus.old"
  echo "corpus $before -> $(find "$corpus" -type f | wc -l) files"
}

failed=()
report=()
for name in "${names[@]}"; do
  bin=build-fuzz/fuzz/fuzz_$name
  work=fuzz/work/$name
  seeds=$scratch/$name.seeds
  artifacts=$scratch/$name.artifacts
  log=fuzz/work/$name.log
  mkdir -p "$work" "$seeds" "$artifacts"
  [ -d "fuzz/corpus/$name" ] && cp -r "fuzz/corpus/$name/." "$seeds/"
  echo "=== $name: ${seconds:+${seconds}s }${runs:+${runs} runs }($(find "$work" -type f | wc -l) in the work corpus)"
  # New inputs go to the first directory, the work corpus; the seed copy is only read.
  status=0
  "$bin" "${limits[@]}" -artifact_prefix="$artifacts/" "${extra[@]}" "$work" "$seeds" \
    > "$log" 2>&1 || status=$?
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  result=clean
  found=$(finding "$artifacts")
  if [ -n "$found" ]; then
    mkdir -p "fuzz/artifacts/$name"
    mv "${found#* }" "fuzz/artifacts/$name/"
    result="${found%% *}: fuzz/artifacts/$name/${found##*/}"
  elif [ "$status" -ne 0 ]; then
    result="failed (exit $status)"
  fi
  if [ "$result" != clean ]; then
    tail -n 40 "$log"
    failed+=("$name")
  elif [ "$minimize" = 1 ]; then
    merged=$(minimize_corpus "$name" "$bin") || failed+=("$name")
    result="clean, $merged"
  fi
  report+=("$(printf '%-26s %12s  %s' "$name" "${executions:-?}" "$result")")
done

echo
printf '%-26s %12s  %s\n' target executions result
printf '%s\n' "${report[@]}"
if [ ${#failed[@]} -gt 0 ]; then
  echo "FAILED: ${failed[*]} (logs: fuzz/work/<target>.log)"
  exit 1
fi
