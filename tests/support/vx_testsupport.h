#pragma once
// Helpers for tests that run the daemon, the master agent (snmpd) or both.
//
// Every such test runs inside private network and mount namespaces of its own, so that the
// SMUX port 127.0.0.1:199, the SNMP port 161 and "/etc/snmpd.peers" belong to that test alone
// and suites can run in parallel. CTest runs each TEST in its own process
// (gtest_discover_tests), so a test simply calls vx_enter_private_namespace() first and
// skips with the reason it gives when that fails.
//
// Processes started here are killed when the test process exits (and when the next
// vx_enter_private_namespace() is called in the same process), so a failed ASSERT never
// leaves an snmpd behind. Set VX_KEEP_TEST_DIR=1 to keep the per-test directory with the
// logs and configuration files; it is removed at exit otherwise.
//
// Targets that start the daemon must depend on it: add_dependencies(<test> varnex2).
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

// Identity of the standard test configuration: snmpd accepts this SMUX peer, and the peers
// file below gives it to a daemon invoked under the name "varnex2".
inline constexpr const char* VX_TEST_PEER_OID = "1.3.6.1.4.1.99999.1";
inline constexpr const char* VX_TEST_PEER_PASSWORD = "secret";
inline constexpr const char* VX_TEST_PEERS_TEXT = "varnex2 1.3.6.1.4.1.99999.1 secret\n";

inline constexpr int VX_SMUX_PORT = 199;
inline constexpr int VX_SNMP_PORT = 161;
inline constexpr int VX_TRAP_PORT = 162;

// ---- namespaces ---------------------------------------------------------------------------

// Moves the calling process into new network and mount namespaces: mounts become private,
// the loopback interface is brought up, a per-test directory is created and a peers file
// holding `peers_file_text` (may be null: empty file) is bind-mounted over
// "/etc/snmpd.peers" (an empty host file is created first when the host has none, since a
// bind mount needs a target). Also sets MIBS, SNMPCONFPATH and SNMP_PERSISTENT_DIR in the
// environment so that snmpd and the snmp command-line tools read no system configuration.
// Returns false with the reason in `why_not` (not root, or the kernel refused); the test
// then skips with that reason.
[[nodiscard]] bool vx_enter_private_namespace(const char* peers_file_text, std::string* why_not);

// The per-test directory (logs, configuration files), "" before entering a namespace.
const std::string& vx_test_dir(void);

// Replaces the content of the peers file in place; the daemon sees it at its next open.
[[nodiscard]] bool vx_write_peers_file(const char* text);

// ---- processes ----------------------------------------------------------------------------

struct vx_process {
    pid_t pid = -1;        // -1 when not running
    int status = -1;       // wait status once reaped, -1 before
    std::string log_path;  // standard output and standard error of the process
};

// Starts argv[0] (looked up in PATH when it has no slash) with standard input from
// /dev/null and both outputs appended to `log_path`. `argv0`, when not null, is what the
// program sees as its argv[0] (the daemon takes its identity name from it). The child is
// killed when the test process dies. Returns false with a reason when fork fails; an exec
// failure shows as the child exiting with status 127 and a line in the log.
[[nodiscard]] bool vx_spawn(vx_process* proc, const std::vector<std::string>& argv,
                            const std::string& log_path, const char* argv0 = nullptr,
                            std::string* why_not = nullptr);

// True while the process runs; reaps it (filling `status`) once it has ended.
[[nodiscard]] bool vx_alive(vx_process* proc);

// Waits up to `timeout_ms` for the process to end on its own; true when it did.
[[nodiscard]] bool vx_wait_exit(vx_process* proc, int timeout_ms);

// SIGTERM, up to 3 s of grace, then SIGKILL; always reaps. Returns the wait status (or the
// one already recorded), -1 when there was no process.
int vx_stop(vx_process* proc);

// Sends a signal to a running process; false when it is not running.
bool vx_signal(vx_process* proc, int sig);

// Runs a command to completion (killed after `timeout_ms`) and returns its exit status,
// or -1 when it could not be started or had to be killed. Standard output and standard
// error together end up in `output` (may be null).
int vx_run(const std::vector<std::string>& argv, std::string* output, int timeout_ms = 10000);

// ---- files and waiting ---------------------------------------------------------------------

// Polls `cond` every 20 ms until it holds or `timeout_ms` passed; returns its last value.
[[nodiscard]] bool vx_wait_until(const std::function<bool()>& cond, int timeout_ms);

// Whole file as text, "" when it cannot be read.
std::string vx_read_file(const std::string& path);
[[nodiscard]] bool vx_write_file(const std::string& path, const std::string& text);

// The OIDs at the start of each "OID = value" line of a net-snmp tool's output (-On).
std::vector<std::string> vx_oids_in(const std::string& output);

// Number of times `text` occurs in the file.
[[nodiscard]] int vx_count_in_file(const std::string& path, const std::string& text);

// Waits until `text` occurs at least `count` times in the file.
[[nodiscard]] bool vx_wait_for_text(const std::string& path, const std::string& text,
                                    int timeout_ms, int count = 1);

// ---- the master agent ---------------------------------------------------------------------

struct vx_snmpd {
    vx_process proc;
    std::string dir;                      // configuration, pid file, persistent state
    std::vector<std::string> extra_args;  // kept for vx_restart_snmpd
    // When set before vx_start_snmpd: snmpd is also an AgentX master on this Unix socket
    // (waiting 10 s for a subagent's answer), and is ready only once the socket exists.
    std::string agentx_socket;
};

// Starts snmpd in the foreground with the standard test configuration (UDP 127.0.0.1:161,
// SMUX on 127.0.0.1:199 accepting the test identity, communities "public" read-only and
// "private" read-write, traps to 127.0.0.1:162) and no system configuration, logging to
// <dir>/snmpd.log (kept across restarts). `extra_args` go on its command line, e.g.
// {"-Dsmux"} for its SMUX decisions. Returns once the SMUX port listens and the SNMP port
// is bound (10 s at most); false with a reason otherwise.
[[nodiscard]] bool vx_start_snmpd(vx_snmpd* agent, const std::vector<std::string>& extra_args,
                                  std::string* why_not);

// Stops snmpd and starts it again with the same arguments, waiting as vx_start_snmpd does.
[[nodiscard]] bool vx_restart_snmpd(vx_snmpd* agent, std::string* why_not);

void vx_stop_snmpd(vx_snmpd* agent);

// Starts snmptrapd on udp:127.0.0.1:162 (numeric OIDs, no authorisation), logging to
// <test dir>/snmptrapd.log; returns once the port is bound.
[[nodiscard]] bool vx_start_snmptrapd(vx_process* proc, std::string* why_not);

// ---- the daemon ---------------------------------------------------------------------------

// Path of the built daemon (the VARNEX2_PATH environment variable wins), null when the build
// did not define it.
const char* vx_varnex2_path(void);

// Starts the daemon with `args`, logging to <test dir>/varnex2.log; `argv0` defaults to the
// path of the executable, whose last part "varnex2" is the identity in VX_TEST_PEERS_TEXT.
// Does not wait for anything.
[[nodiscard]] bool vx_start_varnex2(vx_process* proc, const std::vector<std::string>& args,
                                    const char* argv0, std::string* why_not);

// Runs one snmp command-line tool (snmpget, snmpgetnext, snmpset, ...) against the test agent
// as `tool -v1 -c <community> -On -r 0 -t 5 127.0.0.1 <args...>`; returns its exit status and
// puts its output in `output`.
int vx_snmp_tool(const char* tool, const char* community, const std::vector<std::string>& args,
                 std::string* output);
