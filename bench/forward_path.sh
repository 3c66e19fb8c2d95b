#!/usr/bin/env bash
# forward_path.sh: what it costs to serve objects through snmpd by each path a subagent can
# take, measured end to end with net-snmp's own clients:
#
#   snmpd    snmpd serving the objects itself (one `override` line each)
#   agentx   snmpd --AgentX--> subagent on net-snmp's agent library   (fwd_agentx_subagent)
#   smux     snmpd --SMUX--> bare SMUX peer                           (fwd_smux_peer)
#   relay    snmpd --SMUX--> byte relay --SMUX--> the same bare peer    (fwd_relay)
#            the floor for any process in between: the relay does the daemon's waits,
#            receives and writes per request and no protocol work at all
#   varnex2  snmpd --SMUX--> varnex2 --DPI--> minimal DPI subagent    (fwd_dpi_subagent)
#   varnex2-agentx  snmpd --AgentX--> varnex2 --DPI--> the same DPI subagent
#
# Each subagent serves the same OBJECTS INTEGER objects 1.3.6.1.4.1.99999.2.1.n = n. For
# every round and path a fresh snmpd (one configuration for all paths) and the path's own
# processes are started, one untimed walk warms them up, then WALKS timed snmpbulkwalk runs
# (v2c, default max-repetitions), WALKS timed snmpwalk -v2c runs and WALKS timed snmpwalk -v1
# runs go over the subtree, each walk's output checked for every object.
# Reported: objects per second of each walk kind, and the CPU time per object walked (all
# kinds together) of snmpd, the daemon and the subagent and of all three, each the median
# over the rounds; ratios are against the path named first (by default the AgentX one).
# Then, for the SMUX path through varnex2, the daemon's CPU time per object of bulk walks
# when the subagent holds 1, 10 or 100 registrations (REGS), to show that a request costs
# the same however large the registration table is. The paths take turns within a round, in an order
# rotated each round. A walk's time is taken net of the client's own start-up, which the
# same run measures as WALKS walks of an empty subtree (shown per run: it is a large part
# of a walk of 1000 objects, and would otherwise pull every ratio towards 1).
# CPU time comes from /proc/<pid>/schedstat (nanoseconds), or, where the kernel lacks it,
# from utime+stime in /proc/<pid>/stat, whose 10 ms ticks are coarse for one run.
#
# Usage, as root (it enters private network, mount and PID namespaces, so nothing outside
# is touched; it builds what it needs first, and stops everything it started however it
# ends):
#   bash bench/forward_path.sh
#   ROUNDS=1 OBJECTS=200 WALKS=1 bash bench/forward_path.sh      # a quick check
#   PATHS="agentx varnex2" REGS= bash bench/forward_path.sh       # two paths, no table growth
# Environment:
#   ROUNDS      rounds, each running every path once (default 5)
#   OBJECTS     objects served and walked (default 1000)
#   WALKS       timed walks of each kind per path and round (default 3)
#   PATHS       ids of the paths to run, first one the reference (default: agentx, then
#               the others as listed above)
#   REGS        registration counts for the table-growth runs (default "1 10 100"; empty:
#               none; they run only when varnex2 is among the PATHS)
#   BUILD_DIR   build directory (default build)
#   TIME_LIMIT  seconds after which everything is stopped (default 120 + 60 per round)
#   KEEP_LOGS=1 keep the working directory with configuration, logs and raw results
#
# To add a path: write a start function that starts its processes with `launch ROLE
# PROGRAM ARGS...` (ROLE daemon or subagent; snmpd is already running, and the path is
# ready once both ends of the subtree answer) and add one `add_path` line below.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

ROUNDS=${ROUNDS:-5}
OBJECTS=${OBJECTS:-1000}
WALKS=${WALKS:-3}
TIME_LIMIT=${TIME_LIMIT:-$((120 + 60 * ROUNDS))}
BUILD_DIR=${BUILD_DIR:-build}
case $BUILD_DIR in /*) build=$BUILD_DIR ;; *) build=$root/$BUILD_DIR ;; esac

readonly subtree=1.3.6.1.4.1.99999.2
readonly column=$subtree.1
# Nothing is registered here: a walk of it costs the client its start-up and little else.
readonly empty_subtree=1.3.6.1.4.1.99999.3

# ---------------------------------------------------------------------------------------
# The paths
# ---------------------------------------------------------------------------------------
path_ids=()
declare -A path_label path_start path_targets path_conf
# add_path ID LABEL START_FUNCTION CMAKE_TARGETS [SNMPD_CONFIG]
add_path() {
  path_ids+=("$1")
  path_label[$1]=$2
  path_start[$1]=$3
  path_targets[$1]=$4
  path_conf[$1]=${5:-}
}

start_snmpd() { :; }
start_agentx() {
  launch subagent "$build/bench/fwd_agentx_subagent" -n "$OBJECTS" -x "$work/agentx.sock"
}
start_smux() {
  launch subagent "$build/bench/fwd_smux_peer" -n "$OBJECTS"
}
start_relay() {
  launch daemon "$build/bench/fwd_relay" -p 1199
  wait_for fwd_relay 10 eval '[ -n "$(ss -Hltn "sport = :1199")" ]'
  launch subagent "$build/bench/fwd_smux_peer" -n "$OBJECTS" -P 1199
}
start_varnex2() {
  # Started under its own file name, varnex2, which is its identity in the peers file.
  launch daemon "$build/snmp/daemon/varnex2"
  wait_for varnex2 10 in_log "$run_dir/daemon.log" "ready to receive requests"
  launch subagent "$build/bench/fwd_dpi_subagent" -n "$OBJECTS" -r "${SUB_REGS:-1}"
}
start_varnex2_agentx() {
  launch daemon env VARNEX2_AGENTX="$work/agentx.sock" "$build/snmp/daemon/varnex2"
  wait_for varnex2 10 in_log "$run_dir/daemon.log" "ready to receive requests"
  launch subagent "$build/bench/fwd_dpi_subagent" -n "$OBJECTS"
}

add_path snmpd "snmpd serving the objects itself" start_snmpd "" objects.conf
add_path agentx "AgentX subagent on net-snmp's agent library" start_agentx fwd_agentx_subagent
add_path smux "bare SMUX peer, hand-written" start_smux fwd_smux_peer
add_path relay "snmpd → byte relay → bare SMUX peer" start_relay "fwd_relay fwd_smux_peer"
add_path varnex2 "snmpd → varnex2 → minimal DPI subagent" start_varnex2 \
  "varnex2 fwd_dpi_subagent"
add_path varnex2-agentx "snmpd → varnex2 (AgentX) → minimal DPI subagent" \
  start_varnex2_agentx "varnex2 fwd_dpi_subagent"

REGS=${REGS-1 10 100}
read -r -a selected <<<"${PATHS:-agentx snmpd smux relay varnex2 varnex2-agentx}"
for id in "${selected[@]}"; do
  [ -n "${path_label[$id]+set}" ] || { echo "forward_path.sh: no path '$id' (have: ${path_ids[*]})" >&2; exit 2; }
done
for v in ROUNDS OBJECTS WALKS TIME_LIMIT; do
  [[ ${!v} =~ ^[1-9][0-9]*$ ]] || { echo "forward_path.sh: $v must be a positive number" >&2; exit 2; }
done
for r in $REGS; do
  [[ $r =~ ^[1-9][0-9]*$ && $r -le 200 ]] || { echo "forward_path.sh: REGS are counts from 1 to 200" >&2; exit 2; }
done

# ---------------------------------------------------------------------------------------
# Outside: check, build, then run the rest of this script in new namespaces, bounded.
# ---------------------------------------------------------------------------------------
if [ "${VX_FWD_INSIDE:-}" != 1 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "forward_path.sh needs root: it runs snmpd on ports 161 and 199 in private network," \
      "mount and PID namespaces (unshare) and bind-mounts its own /etc/snmpd.peers there." >&2
    exit 1
  fi
  bash scripts/install-deps.sh
  targets=()
  for id in "${selected[@]}"; do
    read -r -a t <<<"${path_targets[$id]}"
    targets+=("${t[@]}")
  done
  build_log=$(mktemp)
  # A build directory configured before keeps its build type; a new one gets an optimised
  # build. Sanitizer builds have no benchmark programs.
  configure=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
  [ -f "$build/CMakeCache.txt" ] && configure=()
  if ! { cmake -S . -B "$build" "${configure[@]}" &&
         cmake --build "$build" -j2 --target "${targets[@]}"; } >"$build_log" 2>&1; then
    cat "$build_log" >&2
    rm -f "$build_log"
    echo "forward_path.sh: the build failed (output above)" >&2
    exit 1
  fi
  rm -f "$build_log"

  work=$(mktemp -d /tmp/varnex2-fwdbench.XXXXXX)
  # A bind mount needs a target: made for the run if this machine has no peers file.
  made_peers=0
  if [ ! -e /etc/snmpd.peers ]; then
    : >/etc/snmpd.peers
    made_peers=1
  fi
  cleanup_outside() {
    [ "$made_peers" = 1 ] && rm -f /etc/snmpd.peers
    if [ "${KEEP_LOGS:-}" = 1 ]; then
      echo "logs and raw results kept in $work"
    else
      rm -rf "$work"
    fi
  }
  trap cleanup_outside EXIT

  # The namespace's first process is the inner shell: when it ends, the kernel ends every
  # process left in the namespace. timeout stops it with SIGTERM at the limit (its EXIT trap
  # stops the processes in order), and with SIGKILL 15 s later if that hangs.
  VX_FWD_INSIDE=1 VX_FWD_WORK=$work VX_FWD_BUILD=$build \
    timeout -k 15 "$TIME_LIMIT" unshare -n -m -p --fork --mount-proc --kill-child -- \
    bash "$0" &
  runner=$!
  trap 'kill -TERM "$runner" 2>/dev/null || true' INT TERM
  rc=0
  wait "$runner" || rc=$?
  while kill -0 "$runner" 2>/dev/null; do
    rc=0
    wait "$runner" || rc=$?
  done
  [ "$rc" = 124 ] && echo "forward_path.sh: stopped at the time limit of ${TIME_LIMIT}s" >&2
  exit "$rc"
fi

# ---------------------------------------------------------------------------------------
# Inside the private namespaces: this shell is PID 1.
# ---------------------------------------------------------------------------------------
work=$VX_FWD_WORK
build=$VX_FWD_BUILD
run_dir=$work
declare -A pid_of
run_roles=()

# launch ROLE PROGRAM ARGS...: starts a process of the current run, output to ROLE.log.
launch() {
  local role=$1
  shift
  command -v "$1" >/dev/null || { echo "forward_path.sh: $1 is missing (not built?)" >&2; exit 1; }
  "$@" >"$run_dir/$role.log" 2>&1 </dev/null &
  pid_of[$role]=$!
  run_roles+=("$role")
}

stop_pid() {
  local pid=$1
  kill -TERM "$pid" 2>/dev/null || { wait "$pid" 2>/dev/null || true; return 0; }
  for _ in $(seq 30); do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
  done
  kill -KILL "$pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || true
}

# Newest first: the subagent closes its session, then the daemon, then snmpd.
stop_run() {
  local i
  for ((i = ${#run_roles[@]} - 1; i >= 0; i--)); do
    stop_pid "${pid_of[${run_roles[i]}]}"
  done
  run_roles=()
  pid_of=()
}

# Earlier runs were stopped as they ended; anything else still here goes with this shell.
stop_everything() {
  stop_run
  umount /etc/snmpd.peers 2>/dev/null || true
}
trap stop_everything EXIT
trap 'exit 143' TERM
trap 'exit 130' INT

# wait_for WHAT SECONDS TEST...: polls TEST every 0.1 s; on failure shows the run's logs.
wait_for() {
  local what=$1 secs=$2
  shift 2
  for _ in $(seq $((secs * 10))); do
    "$@" && return 0
    sleep 0.1
  done
  echo "forward_path.sh: $what not ready within ${secs}s; logs of $run_dir:" >&2
  tail -n 20 "$run_dir"/*.log >&2 || true
  exit 1
}
in_log() { grep -q -- "$2" "$1" 2>/dev/null; }
# Looked up with ss, never by connecting: snmpd blocks on a SMUX connection that sends
# nothing.
agent_listening() {
  [ -n "$(ss -Hlun 'sport = :161')" ] && [ -n "$(ss -Hltn 'sport = :199')" ] &&
    [ -S "$work/agentx.sock" ]
}
# Both ends of the subtree answer: the subagent is registered and snmpd routes to it.
objects_served() {
  local got
  got=$(snmpget -v2c -c public -On -Oqv -t 1 -r 0 127.0.0.1 "$column.1" "$column.$OBJECTS" \
    2>/dev/null | tr '\n' ' ') || return 1
  [ "$got" = "1 $OBJECTS " ]
}

# walk KIND ROOT: one walk (KIND bulk, plain or v1); prints the number of lines the client
# wrote.
walk() {
  local client=snmpbulkwalk version=-v2c
  [ "$1" = plain ] && client=snmpwalk
  [ "$1" = v1 ] && client=snmpwalk version=-v1
  # A failed walk shows as a short count, which the caller reports.
  { timeout 60 "$client" "$version" -c public -On -Oq -t 5 -r 0 127.0.0.1 "$2" \
      2>>"$run_dir/client.log" || true; } | wc -l
}
# walks KIND: WALKS walks of the subtree; fails unless each returned every object.
walks() {
  local n
  for _ in $(seq "$WALKS"); do
    n=$(walk "$1" "$subtree")
    if [ "$n" != "$OBJECTS" ]; then
      echo "forward_path.sh: $1 walk over $path returned $n objects, not $OBJECTS" >&2
      tail -n 20 "$run_dir"/*.log >&2 || true
      exit 1
    fi
  done
}
# empty_walks KIND: WALKS walks of the empty subtree.
empty_walks() {
  for _ in $(seq "$WALKS"); do walk "$1" "$empty_subtree" >/dev/null; done
}

clk_tck=$(getconf CLK_TCK)
if [ -r /proc/self/schedstat ]; then cpu_source=schedstat; else cpu_source=stat; fi
# cpu_ns PID: CPU time the process has used so far, in nanoseconds.
cpu_ns() {
  if [ "$cpu_source" = schedstat ]; then
    local run _
    read -r run _ <"/proc/$1/schedstat"
    echo "$run"
  else
    local stat
    stat=$(<"/proc/$1/stat")
    # Fields after the command name, which may hold spaces: utime and stime are 12th, 13th.
    set -- ${stat##*) }
    echo $(((${12} + ${13}) * 1000000000 / clk_tck))
  fi
}

mount --make-rprivate /
ip link set lo up
printf 'varnex2 1.3.6.1.4.1.99999.1 secret\n' >"$work/snmpd.peers"
mount --bind "$work/snmpd.peers" /etc/snmpd.peers
mkdir -p "$work/persist" "$work/conf"
export MIBS= SNMP_PERSISTENT_DIR=$work/persist SNMPCONFPATH=$work/conf
# One configuration for every path: SMUX for the peers, AgentX for the subagents.
cat >"$work/snmpd.conf" <<EOF
agentaddress udp:127.0.0.1:161
smuxsocket 127.0.0.1
smuxpeer .1.3.6.1.4.1.99999.1 secret
master agentx
agentXSocket $work/agentx.sock
rocommunity public 127.0.0.1
dontLogTCPWrappersConnects yes
EOF
# The path where snmpd serves the objects itself adds this file to the configuration.
for ((i = 1; i <= OBJECTS; i++)); do echo "override $column.$i integer $i"; done >"$work/objects.conf"
: >"$work/results"
roles=(snmpd daemon subagent)

# run_path ROUND ID [RESULTS] [KINDS]: one measured run of a path, appended to RESULTS
# (default the main results); KINDS are the walk kinds timed (default: bulk plain v1).
run_path() {
  local round=$1 results=${3:-$work/results} kinds=${4:-bulk plain v1}
  path=$2
  run_dir=$work/round$round-$path${SUB_REGS:+-r$SUB_REGS}
  mkdir -p "$run_dir"
  rm -f "$work/agentx.sock"
  launch snmpd snmpd -f -Lo -C -c "$work/snmpd.conf${path_conf[$path]:+,$work/${path_conf[$path]}}" \
    -p "$run_dir/snmpd.pid"
  wait_for snmpd 10 agent_listening
  "${path_start[$path]}"
  wait_for "path $path" 30 objects_served
  walks bulk  # warm-up
  # The clients' own fixed cost per walk, taken off the timed walks below.
  local kind empty=() timed=() t
  for kind in $kinds; do
    t=$EPOCHREALTIME
    empty_walks "$kind"
    empty+=("$(awk -v a="$EPOCHREALTIME" -v b="$t" 'BEGIN { printf "%.6f", a - b }')")
  done
  local role
  declare -A before=()
  for role in "${run_roles[@]}"; do before[$role]=$(cpu_ns "${pid_of[$role]}"); done
  for kind in $kinds; do
    t=$EPOCHREALTIME
    walks "$kind"
    timed+=("$(awk -v a="$EPOCHREALTIME" -v b="$t" 'BEGIN { printf "%.6f", a - b }')")
  done
  local cpu=()
  for role in "${roles[@]}"; do
    if [ -n "${pid_of[$role]+set}" ]; then
      cpu+=($(($(cpu_ns "${pid_of[$role]}") - before[$role])))
    else
      cpu+=(-)
    fi
  done
  stop_run
  # One line: round, path, obj/s of each kind, µs per object of each role (- for none), then
  # the client's fixed cost per walk of each kind in ms.
  awk -v r="$round" -v p="$path" -v w="$WALKS" -v objects="$OBJECTS" -v c="${cpu[*]}" \
    -v empty="${empty[*]}" -v timed="${timed[*]}" '
    # Only when the machine is busy enough for an empty walk to take as long as a full one
    # is there nothing to take off; the run then counts the start-up in.
    function rate(walked, nothing) {
      if (walked > nothing) return w * objects / (walked - nothing)
      print "forward_path.sh: empty walks took as long as full ones; start-up not taken off" > "/dev/stderr"
      return w * objects / walked
    }
    BEGIN {
      k = split(timed, t, " ")
      split(empty, e, " ")
      split(c, cpu, " ")
      line = r " " p
      for (i = 1; i <= k; i++) line = line sprintf(" %.1f", rate(t[i], e[i]))
      for (i = 1; i <= 3; i++)
        line = line " " (cpu[i] == "-" ? "-" : sprintf("%.3f", cpu[i] / 1000 / (k * w * objects)))
      for (i = 1; i <= k; i++) line = line sprintf(" %.1f", e[i] * 1000 / w)
      print line
    }' >>"$results"
  tail -n 1 "$results" | awk -v rounds="$ROUNDS" -v kinds="$kinds" '
    function us(x) { return x == "-" ? "–" : sprintf("%.1f", x) }
    {
      k = split(kinds, kind, " ")
      line = sprintf("round %d/%d  %-14s", $1, rounds, $2)
      for (i = 1; i <= k; i++) line = line sprintf("  %s %6.0f obj/s", kind[i], $(2 + i))
      line = line sprintf("  CPU µs/object %s / %s / %s  (client start-up", us($(3 + k)), us($(4 + k)), us($(5 + k)))
      for (i = 1; i <= k; i++) line = line sprintf(" %s", $(5 + k + i))
      print line " ms)"
    }'
}

echo "forward_path.sh: $OBJECTS objects, $ROUNDS rounds of $WALKS snmpbulkwalk + $WALKS snmpwalk" \
  "-v2c + $WALKS snmpwalk -v1 runs per path; $(snmpd -v | awk '/version/ { print "net-snmp " $3; exit }');" \
  "CPU from $cpu_source"
n=${#selected[@]}
for round in $(seq "$ROUNDS"); do
  for ((k = 0; k < n; k++)); do
    run_path "$round" "${selected[(k + round - 1) % n]}"
  done
done
regs=()
if [[ " ${selected[*]} " == *" varnex2 "* ]]; then read -r -a regs <<<"$REGS"; fi
if [ ${#regs[@]} -gt 0 ]; then
  : >"$work/regs"
  for round in $(seq "$ROUNDS"); do
    for ((k = 0; k < ${#regs[@]}; k++)); do
      SUB_REGS=${regs[(k + round - 1) % ${#regs[@]}]}
      run_path "$round" varnex2 "$work/regs" bulk
      # The path's id in the results becomes its registration count.
      sed -i "\$s/^\([0-9]*\) varnex2 /\1 $SUB_REGS /" "$work/regs"
    done
  done
  unset SUB_REGS
fi

# Medians per path, then the table with ratios against the first path.
labels=$(for id in "${selected[@]}"; do printf '%s\t%s\n' "$id" "${path_label[$id]}"; done)
echo
# shellcheck disable=SC2016  # awk program
median_awk='
  function median(list,    v, m, i, j, t) {
    m = split(list, v, " ")
    if (m == 0 || v[1] == "-") return "-"
    for (i = 2; i <= m; i++) {
      t = v[i] + 0
      for (j = i - 1; j >= 1 && v[j] + 0 > t; j--) v[j + 1] = v[j]
      v[j + 1] = t
    }
    return m % 2 ? v[(m + 1) / 2] : (v[m / 2] + v[m / 2 + 1]) / 2
  }
  function grouped(x,    s, out) {
    s = sprintf("%.0f", x)
    for (out = ""; length(s) > 3; s = substr(s, 1, length(s) - 3)) out = "," substr(s, length(s) - 2) out
    return s out
  }
  function us(x) { return x == "-" ? "–" : sprintf(x < 10 ? "%.1f" : "%.0f", x) }
  function ratio(x, ref) { return sprintf(" (%.2f×)", x / ref) }
  # Appends value v to the list of column i of row id, for the medians.
  function gather(id, i, v) { col[id, i] = col[id, i] (col[id, i] == "" ? "" : " ") v }
  # med[from..to]: the medians of columns from..to of row id.
  function medians(id, from, to,    i) { for (i = from; i <= to; i++) med[i] = median(col[id, i]) }
'
awk -v order="${selected[*]}" -v labels="$labels" "$median_awk"'
  {
    for (i = 3; i <= 8; i++) gather($2, i, $i)
    # CPU of every process of the path together, per object.
    total = 0
    for (i = 6; i <= 8; i++) if ($i != "-") total += $i
    gather($2, 9, total)
  }
  END {
    split(labels, l, "\n")
    for (i in l) { split(l[i], kv, "\t"); label[kv[1]] = kv[2] }
    m = split(order, ids, " ")
    print "| path | snmpbulkwalk obj/s | snmpwalk v2c obj/s | snmpwalk v1 obj/s | CPU µs per object (snmpd / daemon / subagent) | CPU µs per object, all |"
    print "|---|---|---|---|---|---|"
    for (j = 1; j <= m; j++) {
      id = ids[j]
      medians(id, 3, 9)
      if (j == 1) for (i = 3; i <= 9; i++) ref[i] = med[i]
      line = "| " label[id]
      for (i = 3; i <= 5; i++) line = line " | " grouped(med[i]) (j > 1 ? ratio(med[i], ref[i]) : "")
      line = line sprintf(" | %s / %s / %s", us(med[6]), us(med[7]), us(med[8]))
      printf "%s | %s%s |\n", line, us(med[9]), (j > 1 ? ratio(med[9], ref[9]) : "")
    }
    printf "medians of %d rounds; (×) relative to the first row\n", NR / m
  }' "$work/results"
if [ ${#regs[@]} -gt 0 ]; then
  echo
  echo "Registration table growth (varnex2 over SMUX, bulk walks):"
  awk -v order="${regs[*]}" "$median_awk"'
    { for (i = 3; i <= 6; i++) gather($2, i, $i) }
    END {
      m = split(order, ids, " ")
      print "| registrations of the subagent | snmpbulkwalk obj/s | daemon CPU µs per object | snmpd / subagent CPU µs per object |"
      print "|---|---|---|---|"
      for (j = 1; j <= m; j++) {
        id = ids[j]
        medians(id, 3, 6)
        if (j == 1) ref = med[5]
        printf "| %s | %s | %s%s | %s / %s |\n", id, grouped(med[3]), us(med[5]),
          (j > 1 ? ratio(med[5], ref) : ""), us(med[4]), us(med[6])
      }
    }' "$work/regs"
fi
