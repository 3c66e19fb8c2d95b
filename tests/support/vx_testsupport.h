#pragma once
// Helpers for tests that run the daemon, snmpd or both, each TEST in its own process and in
// private namespaces of its own (ports 199, 161 and /etc/snmpd.peers are its alone). Children
// are killed when the process exits; VX_KEEP_TEST_DIR=1 keeps the per-test directory.
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

// snmpd accepts this SMUX peer, and the peers file below gives it to a daemon run as "varnex2".
inline constexpr const char* VX_TEST_PEER_OID = "1.3.6.1.4.1.99999.1";
inline constexpr const char* VX_TEST_PEER_PASSWORD = "secret";
inline constexpr const char* VX_TEST_PEERS_TEXT = "varnex2 1.3.6.1.4.1.99999.1 secret\n";
inline constexpr int VX_SMUX_PORT = 199;
inline constexpr int VX_SNMP_PORT = 161;
inline constexpr int VX_TRAP_PORT = 162;

// New namespaces with loopback up, a per-test directory, `peers_file_text` (null: empty)
// bind-mounted over /etc/snmpd.peers, no system configuration for the net-snmp programs.
// False with the reason (not root, the kernel refused) otherwise: the test then skips.
[[nodiscard]] bool vx_enter_private_namespace(const char* peers_file_text, std::string* why_not);
const std::string& vx_test_dir(void);  // "" before entering a namespace

struct vx_process {
    pid_t pid = -1;        // -1 when not running
    int status = -1;       // wait status once reaped
    std::string log_path;  // standard output and error
};

// Starts argv[0] (PATH lookup without a slash), input from /dev/null, output appended to
// `log_path`; `argv0` is what the program sees as its name. An exec failure shows as exit 127.
[[nodiscard]] bool vx_spawn(vx_process* proc, const std::vector<std::string>& argv,
                            const std::string& log_path, const char* argv0 = nullptr,
                            std::string* why_not = nullptr);
[[nodiscard]] bool vx_alive(vx_process* proc);  // reaps it once ended
[[nodiscard]] bool vx_wait_exit(vx_process* proc, int timeout_ms);
int vx_stop(vx_process* proc);  // SIGTERM, 3 s, SIGKILL; the wait status, -1 for none
bool vx_signal(vx_process* proc, int sig);
// A net-snmp tool's argv: asks snmpd on 127.0.0.1 once, waiting up to 20 s, names numeric.
std::vector<std::string> vx_snmp_args(const std::string& tool, const char* version,
                                      const char* community, const std::vector<std::string>& rest);
// Runs a command to completion: its exit status (-1: could not run or killed after
// `timeout_ms`), both outputs in `output`.
int vx_run(const std::vector<std::string>& argv, std::string* output, int timeout_ms = 30000);

// Polls `cond` every 20 ms until it holds or the time is up; its last value.
[[nodiscard]] bool vx_wait_until(const std::function<bool()>& cond, int timeout_ms);
std::string vx_read_file(const std::string& path);  // "" when unreadable
[[nodiscard]] bool vx_write_file(const std::string& path, const std::string& text);
// The OIDs that start the "OID = value" lines of a net-snmp tool's output (-On).
std::vector<std::string> vx_oids_in(const std::string& output);
[[nodiscard]] int vx_count_in_file(const std::string& path, const std::string& text);
[[nodiscard]] bool vx_wait_for_text(const std::string& path, const std::string& text,
                                    int timeout_ms, int count = 1);

struct vx_snmpd {
    vx_process proc;
    std::string dir;  // configuration, pid file, persistent state
    std::vector<std::string> extra_args;
    // When set before starting: also an AgentX master on this Unix socket (10 s time-out).
    std::string agentx_socket;
};

// snmpd: UDP 127.0.0.1:161, SMUX 127.0.0.1:199 for the test identity, "public" reads and
// "private" writes, traps to 127.0.0.1:162, log <dir>/snmpd.log; returns once it listens.
[[nodiscard]] bool vx_start_snmpd(vx_snmpd* agent, const std::vector<std::string>& extra_args,
                                  std::string* why_not);
[[nodiscard]] bool vx_restart_snmpd(vx_snmpd* agent, std::string* why_not);
void vx_stop_snmpd(vx_snmpd* agent);
// snmptrapd on udp:127.0.0.1:162 (numeric OIDs), log <test dir>/snmptrapd.log.
[[nodiscard]] bool vx_start_snmptrapd(vx_process* proc, std::string* why_not);

// The built daemon, log <test dir>/varnex2.log; `argv0` (null: its path) names its identity.
[[nodiscard]] bool vx_start_varnex2(vx_process* proc, const std::vector<std::string>& args,
                                    const char* argv0, std::string* why_not);
