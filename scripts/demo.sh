#!/usr/bin/env bash
# A guided tour: builds varnex2 and the example subagent, then runs the whole chain
#
#   snmpget/snmpwalk/snmpset --UDP--> snmpd --SMUX--> varnex2 --DPI--> example_subagent
#                         snmptrapd <--UDP-- snmpd <--SMUX-- varnex2 <--DPI-- (trap)
#
# inside a private network and mount namespace, so that nothing on this machine is touched:
# snmpd, its ports and /etc/snmpd.peers seen by varnex2 are the demo's own. Everything the
# demo starts is stopped when it ends, however it ends. Needs root (namespaces, bind mount).
#
#   bash scripts/demo.sh            snmpd as SMUX master, as above
#   bash scripts/demo.sh --agentx   snmpd as AgentX master instead ("master agentx", a Unix
#                                   socket), varnex2 started with VARNEX2_AGENTX set to it;
#                                   traps also reach snmptrapd as SNMPv2 notifications, and
#                                   a set of two objects shows that one refusal undoes both
#
#   BUILD_DIR   where to build (default: build)
#   KEEP_LOGS=1 keep the directory with the configuration files and logs
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
agentx=0
for arg in "$@"; do
  case $arg in
    --agentx) agentx=1 ;;
    *) echo "usage: bash scripts/demo.sh [--agentx]" >&2; exit 2 ;;
  esac
done
BUILD_DIR=${BUILD_DIR:-build}
case $BUILD_DIR in /*) build=$BUILD_DIR ;; *) build=$root/$BUILD_DIR ;; esac

if [ -t 1 ]; then bold=$'\033[1m' plain=$'\033[0m'; else bold= plain=; fi
heading() { printf '\n%s== %s ==%s\n' "$bold" "$*" "$plain"; }
# Shows a command, then runs it: the reader sees exactly what produced the output below it.
show() { printf '$ %s\n' "$*"; "$@"; }

# ---------------------------------------------------------------------------------------
# Outside: check, install, build, then run the rest of this script in new namespaces.
# ---------------------------------------------------------------------------------------
if [ "${VARNEX_DEMO_INSIDE:-}" != 1 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    cat >&2 <<'EOF'
demo.sh needs root: it starts snmpd on the privileged ports 161 and 199 inside a private
network namespace (unshare -n -m) and bind-mounts its own peers file over /etc/snmpd.peers
there. Nothing outside that namespace is changed. Run it again as root, e.g.:
    sudo bash scripts/demo.sh
EOF
    exit 1
  fi
  for tool in unshare mount ip; do
    command -v "$tool" >/dev/null || { echo "demo.sh: '$tool' is missing" >&2; exit 1; }
  done

  heading "Installing what this machine lacks (Debian packages)"
  bash scripts/install-deps.sh
  echo "all build and demo dependencies are present"

  heading "Building varnex2 and the example subagent into ${build#"$root"/}/"
  build_log=$(mktemp)
  if ! { cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo &&
         cmake --build "$build" --target varnex2 example_subagent -j "$(nproc)"; } >"$build_log" 2>&1; then
    cat "$build_log" >&2
    rm -f "$build_log"
    echo "demo.sh: the build failed (output above)" >&2
    exit 1
  fi
  grep -E '^\[100%\] Built target' "$build_log" || true
  rm -f "$build_log"

  # A bind mount needs a target. If this machine has no peers file, an empty one is made
  # for the duration of the demo and removed afterwards.
  made_peers=0
  if [ ! -e /etc/snmpd.peers ]; then
    : >/etc/snmpd.peers
    made_peers=1
  fi
  trap '[ "$made_peers" = 1 ] && rm -f /etc/snmpd.peers' EXIT
  rc=0
  VARNEX_DEMO_INSIDE=1 VARNEX_DEMO_BUILD=$build unshare -n -m -- bash "$0" "$@" || rc=$?
  exit "$rc"
fi

# ---------------------------------------------------------------------------------------
# Inside the private namespaces.
# ---------------------------------------------------------------------------------------
build=$VARNEX_DEMO_BUILD
varnex2=$build/snmp/daemon/varnex2
subagent=$build/examples/example_subagent
for f in "$varnex2" "$subagent"; do
  [ -x "$f" ] || { echo "demo.sh: $f was not built" >&2; exit 1; }
done

work=$(mktemp -d /tmp/varnex2-demo.XXXXXX)
pids=()
names=()

stop_all() {
  local i pid
  # Newest first: the subagent closes its DPI session, then the daemon, then the agents.
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
    pid=${pids[i]}
    kill -TERM "$pid" 2>/dev/null || continue
    for _ in $(seq 30); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  umount /etc/snmpd.peers 2>/dev/null || true
  if [ "${KEEP_LOGS:-}" = 1 ]; then
    echo "logs and configuration kept in $work"
  else
    rm -rf "$work"
  fi
}
trap stop_all EXIT

# start NAME LOGFILE COMMAND...: runs COMMAND in the background, output to LOGFILE.
start() {
  local name=$1 log=$2
  shift 2
  "$@" >"$log" 2>&1 &
  pids+=($!)
  names+=("$name")
}

# wait_for WHAT SECONDS TEST...: polls TEST every 0.1 s.
wait_for() {
  local what=$1 secs=$2
  shift 2
  for _ in $(seq $((secs * 10))); do
    "$@" && return 0
    sleep 0.1
  done
  echo "demo.sh: $what did not come up within ${secs}s" >&2
  return 1
}
listening_tcp() { [ -n "$(ss -Hltn "sport = :$1")" ]; }
is_socket() { [ -S "$1" ]; }
bound_udp() { [ -n "$(ss -Hlun "sport = :$1")" ]; }
in_log() { grep -q -- "$2" "$1" 2>/dev/null; }
# in_log_times FILE TEXT N: TEXT occurs at least N times in FILE.
in_log_times() { [ "$(grep -c -- "$2" "$1" 2>/dev/null)" -ge "$3" ]; }
fail_with_log() { echo "--- $1:" >&2; cat "$1" >&2; exit 1; }

mount --make-rprivate /
ip link set lo up

heading "A private network: only the loopback interface, and our own /etc/snmpd.peers"
printf 'varnex2 1.3.6.1.4.1.99999.1 secret\n' >"$work/snmpd.peers"
mount --bind "$work/snmpd.peers" /etc/snmpd.peers
show cat /etc/snmpd.peers

# The master agent with a configuration of its own and none of the system's: SMUX on with
# the daemon's identity accepted (or AgentX on, on a socket of the demo's), and traps sent to
# snmptrapd.
mkdir -p "$work/persist/cert_indexes" "$work/conf"
export MIBS= SNMP_PERSISTENT_DIR=$work/persist SNMPCONFPATH=$work/conf
cat >"$work/snmpd.conf" <<'EOF'
agentaddress udp:127.0.0.1:161
rocommunity public 127.0.0.1
rwcommunity private 127.0.0.1
trapsink 127.0.0.1:162 public
dontLogTCPWrappersConnects yes
EOF
agentx_socket=$work/agentx.sock
if [ "$agentx" = 1 ]; then
  # snmpd waits agentxTimeout for each answer (1 s unless set), whatever the subagent asks
  # for; varnex2 gives a DPI subagent up to 8 s.
  printf 'master agentx\nagentXSocket %s\nagentxTimeout 10\ntrap2sink 127.0.0.1:162 public\n' \
    "$agentx_socket" >>"$work/snmpd.conf"
else
  printf 'smuxsocket 127.0.0.1\nsmuxpeer .1.3.6.1.4.1.99999.1 secret\n' >>"$work/snmpd.conf"
fi
echo 'disableAuthorization yes' >"$work/snmptrapd.conf"

heading "Starting snmptrapd, snmpd, varnex2 and the example subagent"
start snmptrapd "$work/snmptrapd.log" \
  snmptrapd -f -Lo -C -c "$work/snmptrapd.conf" -On udp:127.0.0.1:162
wait_for snmptrapd 10 bound_udp 162 || fail_with_log "$work/snmptrapd.log"
echo "snmptrapd  listens on udp 127.0.0.1:162"

start snmpd "$work/snmpd.log" \
  snmpd -f -Lo -C -c "$work/snmpd.conf" -p "$work/snmpd.pid"
wait_for "snmpd's SNMP port" 10 bound_udp 161 || fail_with_log "$work/snmpd.log"
if [ "$agentx" = 1 ]; then
  wait_for "snmpd's AgentX socket" 10 is_socket "$agentx_socket" || fail_with_log "$work/snmpd.log"
  echo "snmpd      answers SNMP on udp 127.0.0.1:161 and AgentX on $agentx_socket"
else
  wait_for "snmpd's SMUX port" 10 listening_tcp 199 || fail_with_log "$work/snmpd.log"
  echo "snmpd      answers SNMP on udp 127.0.0.1:161 and SMUX on tcp 127.0.0.1:199"
fi

# The daemon finds its identity under its own name, "varnex2", in /etc/snmpd.peers. One
# variable makes it an AgentX subagent instead of a SMUX peer.
if [ "$agentx" = 1 ]; then
  printf '$ VARNEX2_AGENTX=%s varnex2\n' "$agentx_socket"
  start varnex2 "$work/varnex2.log" env VARNEX2_AGENTX="$agentx_socket" "$varnex2"
else
  start varnex2 "$work/varnex2.log" "$varnex2"
fi
wait_for varnex2 10 in_log "$work/varnex2.log" "ready to receive requests" \
  || fail_with_log "$work/varnex2.log"
if [ "$agentx" = 1 ]; then
  echo "varnex2    has an AgentX session with snmpd, identity 1.3.6.1.4.1.99999.1"
else
  echo "varnex2    is connected to snmpd as SMUX peer 1.3.6.1.4.1.99999.1"
fi

start example_subagent "$work/subagent.log" "$subagent" -h 127.0.0.1 -c public
wait_for "the example subagent" 30 in_log "$work/subagent.log" "serving" \
  || fail_with_log "$work/subagent.log"
# varnex2 sends a coldStart trap for every registration snmpd accepts: the second one (the
# first is for the DPI port object) says snmpd now routes the subagent's subtree to it. A
# request sent before that could find the subtree not registered yet.
wait_for "snmpd's acceptance of the subtree" 10 \
  in_log_times "$work/snmptrapd.log" "1.3.6.1.4.1.99999.1 Cold Start" 2 \
  || fail_with_log "$work/snmptrapd.log"
echo "subagent   has registered 1.3.6.1.4.1.99999.2 through varnex2 with snmpd"

heading "The DPI port, as any subagent learns it: an SNMP Get of 1.3.6.1.4.1.2.2.1.1.1.0"
show snmpget -v2c -c public -On 127.0.0.1 1.3.6.1.4.1.2.2.1.1.1.0

heading "Walking the example subtree (served by the subagent, through snmpd and varnex2)"
show snmpwalk -v2c -c public -On 127.0.0.1 1.3.6.1.4.1.99999.2

heading "Setting the writable object exampleLevel (.6.0) to 42"
show snmpset -v2c -c private -On 127.0.0.1 1.3.6.1.4.1.99999.2.6.0 i 42
show snmpget -v1 -c public -On 127.0.0.1 1.3.6.1.4.1.99999.2.6.0

heading "A value the subagent refuses (it accepts 0..100): the set fails, nothing changes"
show snmpset -v1 -c private -On 127.0.0.1 1.3.6.1.4.1.99999.2.6.0 i 500 || true
show snmpget -v1 -c public -On 127.0.0.1 1.3.6.1.4.1.99999.2.6.0

if [ "$agentx" = 1 ]; then
  heading "A set of two objects, one of them read-only: refused as a whole, nothing changes"
  echo "(over AgentX every subagent checks its part before any commits; over SMUX the first"
  echo " object would already have been changed)"
  show snmpset -v2c -c private -On 127.0.0.1 1.3.6.1.4.1.99999.2.6.0 i 7 \
    1.3.6.1.4.1.99999.2.2.0 i 1 || true
  show snmpget -v2c -c public -On 127.0.0.1 1.3.6.1.4.1.99999.2.6.0
fi

heading "The traps snmptrapd received"
# The subagent's trap travels DPI -> SMUX -> snmpd -> UDP; give it a moment to arrive.
wait_for "the trap" 10 in_log "$work/snmptrapd.log" "1.3.6.1.4.1.99999.2 Enterprise" \
  || fail_with_log "$work/snmptrapd.log"
cat <<'EOF'
First snmpd's own coldStart, then a coldStart from varnex2 (enterprise: its identity
1.3.6.1.4.1.99999.1) for each subtree snmpd accepted from it, and last the trap the subagent
sent when exampleLevel changed: enterprise-specific trap 1 of 1.3.6.1.4.1.99999.2, carrying
the new value.
EOF
if [ "$agentx" = 1 ]; then
  cat <<'EOF'
Over AgentX each arrives twice: as an SNMPv1 trap, and as an SNMPv2 notification whose
snmpTrapOID is 1.3.6.1.6.3.1.1.5.1 for coldStart and 1.3.6.1.4.1.99999.2.0.1 for the
subagent's trap, followed by its varbinds and snmpTrapEnterprise.0.
EOF
fi
cd "$work"
show cat snmptrapd.log

heading "What the example subagent printed"
show cat subagent.log

heading "What varnex2 printed (no tracing here; -d 255 shows every packet)"
show cat varnex2.log
cd "$root"

heading "Stopping everything the demo started"
stop_all
trap - EXIT
left=0
for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
  if kill -0 "${pids[i]}" 2>/dev/null; then
    echo "still running: ${names[i]} (pid ${pids[i]})"
    left=1
  else
    echo "stopped: ${names[i]}"
  fi
done
[ "$left" = 0 ] && echo "nothing the demo started is left running"
exit "$left"
