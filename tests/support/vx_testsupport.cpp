#include "vx_testsupport.h"

#include <fcntl.h>
#include <ftw.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>

namespace {

std::string g_test_dir;
std::string g_peers_path;

// Children still running, killed at exit so that no snmpd outlives its test.
pid_t g_tracked[64];

const char* const SNMPD_CONF =
    "agentaddress udp:127.0.0.1:161\n"
    "smuxsocket 127.0.0.1\n"
    "smuxpeer .1.3.6.1.4.1.99999.1 secret\n"
    "rocommunity public 127.0.0.1\n"
    "rwcommunity private 127.0.0.1\n"
    "trapsink 127.0.0.1:162 public\n"
    "trap2sink 127.0.0.1:162 public\n"
    "dontLogTCPWrappersConnects yes\n";

}  // namespace

static void track_child(pid_t pid, pid_t old) {
    for (pid_t& slot : g_tracked) {
        if (slot == old) {
            slot = pid;
            return;
        }
    }
}

// SIGTERM first, so that a daemon a test left running still ends through its own stop
// path (and a coverage build gets its counts written); SIGKILL for whatever has not ended
// after a short grace.
static void kill_tracked_children(void) {
    bool any = false;
    for (pid_t slot : g_tracked) {
        if (slot > 0) {
            kill(slot, SIGTERM);
            kill(slot, SIGCONT);  // a stopped process would not see the SIGTERM
            any = true;
        }
    }
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (any) {
        any = false;
        for (pid_t& slot : g_tracked) {
            if (slot > 0 && waitpid(slot, nullptr, WNOHANG) == 0) {
                any = true;
            } else {
                slot = 0;
            }
        }
        if (!any || std::chrono::steady_clock::now() >= end) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    for (pid_t& slot : g_tracked) {
        if (slot > 0) {
            kill(slot, SIGKILL);
            waitpid(slot, nullptr, 0);
            slot = 0;
        }
    }
}

static int remove_entry(const char* path, const struct stat*, int, struct FTW*) {
    remove(path);
    return 0;
}

// The per-test directory goes unless VX_KEEP_TEST_DIR asks to keep it.
static void remove_test_dir(void) {
    const char* keep = getenv("VX_KEEP_TEST_DIR");
    if (!g_test_dir.empty() && (keep == nullptr || *keep == '\0' || strcmp(keep, "0") == 0)) {
        nftw(g_test_dir.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    }
}

static void at_exit_cleanup(void) {
    kill_tracked_children();
    remove_test_dir();
}

static bool say(std::string* why_not, const std::string& text) {
    if (why_not != nullptr) {
        *why_not = text;
    }
    return false;
}

static bool fail(std::string* why_not, const char* what) {
    return say(why_not, std::string(what) + ": " + strerror(errno));
}

static bool loopback_up(std::string* why_not) {
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = s >= 0 && ioctl(s, SIOCGIFFLAGS, &ifr) == 0;
    if (ok) {
        ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP | IFF_RUNNING);
        ok = ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
    }
    if (!ok) {
        fail(why_not, "bringing up lo");
    }
    if (s >= 0) {
        close(s);
    }
    return ok;
}

bool vx_enter_private_namespace(const char* peers_file_text, std::string* why_not) {
    if (geteuid() != 0) {
        return say(why_not, "needs root for private network and mount namespaces (unshare -n -m)");
    }
    // A previous test in the same process may have left processes in the old namespace.
    kill_tracked_children();
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
        return fail(why_not, "unshare(CLONE_NEWNET|CLONE_NEWNS)");
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return fail(why_not, "making mounts private");
    }
    if (!loopback_up(why_not)) {
        return false;
    }
    // Entered before in this process: the copied mount still shows the old test's file.
    if (!g_peers_path.empty()) {
        umount2("/etc/snmpd.peers", MNT_DETACH);
    }
    char tmpl[] = "/tmp/vxtest.XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        return fail(why_not, "mkdtemp");
    }
    if (g_test_dir.empty()) {
        atexit(at_exit_cleanup);
    }
    remove_test_dir();
    g_test_dir = tmpl;
    if (mkdir((g_test_dir + "/persist").c_str(), 0700) != 0 ||
        mkdir((g_test_dir + "/conf").c_str(), 0700) != 0) {
        return fail(why_not, "mkdir");
    }
    g_peers_path = g_test_dir + "/snmpd.peers";
    if (!vx_write_peers_file(peers_file_text)) {
        return fail(why_not, "writing the peers file");
    }
    // A bind mount needs a target. O_CREAT without O_EXCL: tests running in parallel may
    // race to create it.
    int fd = open("/etc/snmpd.peers", O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        return fail(why_not, "creating /etc/snmpd.peers as a mount target");
    }
    close(fd);
    if (mount(g_peers_path.c_str(), "/etc/snmpd.peers", nullptr, MS_BIND, nullptr) != 0) {
        return fail(why_not, "bind-mounting the peers file");
    }
    setenv("MIBS", "", 1);
    setenv("SNMPCONFPATH", (g_test_dir + "/conf").c_str(), 1);
    setenv("SNMP_PERSISTENT_DIR", (g_test_dir + "/persist").c_str(), 1);
    return true;
}

const std::string& vx_test_dir(void) {
    return g_test_dir;
}

bool vx_write_peers_file(const char* text) {
    // Rewritten in place, never replaced: the bind mount refers to this inode.
    return !g_peers_path.empty() && vx_write_file(g_peers_path, text != nullptr ? text : "");
}

bool vx_spawn(vx_process* proc, const std::vector<std::string>& argv, const std::string& log_path,
              const char* argv0, std::string* why_not) {
    if (argv.empty()) {
        return say(why_not, "empty argv");
    }
    std::vector<char*> args;
    for (const std::string& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    if (argv0 != nullptr) {
        args[0] = const_cast<char*>(argv0);
    }
    args.push_back(nullptr);

    fflush(stdout);
    fflush(stderr);
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid < 0) {
        return fail(why_not, "fork");
    }
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        // The test process may ignore SIGPIPE; children start from the defaults.
        signal(SIGPIPE, SIG_DFL);
        int in = open("/dev/null", O_RDONLY);
        int out = open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (getppid() != parent || in < 0 || out < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 ||
            dup2(out, 2) < 0) {
            _exit(127);
        }
        if (in > 2) {
            close(in);
        }
        if (out > 2) {
            close(out);
        }
        execvp(argv[0].c_str(), args.data());
        dprintf(2, "exec %s: %s\n", argv[0].c_str(), strerror(errno));
        _exit(127);
    }
    proc->pid = pid;
    proc->status = -1;
    proc->log_path = log_path;
    track_child(pid, 0);
    return true;
}

// Reaps the process when it has ended, or at once after SIGKILL when `hard`.
static bool reaped(vx_process* proc, bool hard) {
    int status = 0;
    pid_t r = waitpid(proc->pid, &status, hard ? 0 : WNOHANG);
    if (r == 0) {
        return false;
    }
    if (r == proc->pid) {
        proc->status = status;
    }
    track_child(0, proc->pid);
    proc->pid = -1;
    return true;
}

bool vx_alive(vx_process* proc) {
    return proc->pid > 0 && !reaped(proc, false);
}

bool vx_wait_exit(vx_process* proc, int timeout_ms) {
    return vx_wait_until([proc] { return !vx_alive(proc); }, timeout_ms);
}

bool vx_signal(vx_process* proc, int sig) {
    return vx_alive(proc) && kill(proc->pid, sig) == 0;
}

int vx_stop(vx_process* proc) {
    if (proc->pid > 0) {
        kill(proc->pid, SIGTERM);
        if (!vx_wait_exit(proc, 3000)) {
            kill(proc->pid, SIGKILL);
            reaped(proc, true);
        }
    }
    return proc->status;
}

int vx_run(const std::vector<std::string>& argv, std::string* output, int timeout_ms) {
    char tmpl[] = "/tmp/vxrun.XXXXXX";
    int fd = mkstemp(tmpl);
    if (fd < 0) {
        return -1;
    }
    close(fd);
    vx_process proc;
    int result = -1;
    if (vx_spawn(&proc, argv, tmpl)) {
        if (vx_wait_exit(&proc, timeout_ms) && WIFEXITED(proc.status)) {
            result = WEXITSTATUS(proc.status);
        }
        vx_stop(&proc);
    }
    if (output != nullptr) {
        *output = vx_read_file(tmpl);
    }
    unlink(tmpl);
    return result;
}

// Whether a socket of the reader's network namespace is bound to 127.0.0.1 or any address
// at `port` in the given state (TCP 0A listening, UDP 07 unconnected). Reads /proc rather
// than connecting: snmpd blocks on a SMUX connection that never sends its OpenPDU, so a
// probing connect would freeze the agent under test.
static bool proc_net_has(const char* table, int port, unsigned state) {
    FILE* f = fopen(table, "r");
    char line[512];
    bool found = false;
    while (f != nullptr && !found && fgets(line, sizeof line, f) != nullptr) {
        unsigned addr = 0, p = 0, st = 0;
        found = sscanf(line, " %*u: %8X:%4X %*s %2X", &addr, &p, &st) == 3 &&
                (addr == 0x0100007F || addr == 0) && p == static_cast<unsigned>(port) &&
                st == state;
    }
    if (f != nullptr) {
        fclose(f);
    }
    return found;
}

bool vx_wait_until(const std::function<bool()>& cond, int timeout_ms) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!cond()) {
        if (std::chrono::steady_clock::now() >= end) {
            return cond();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

std::vector<std::string> vx_oids_in(const std::string& output) {
    std::vector<std::string> oids;
    std::istringstream in(output);
    std::string line;
    while (std::getline(in, line)) {
        size_t eq = line.find(" = ");
        if (!line.empty() && line[0] == '.' && eq != std::string::npos) {
            oids.push_back(line.substr(0, eq));
        }
    }
    return oids;
}

std::string vx_read_file(const std::string& path) {
    std::string text;
    FILE* f = fopen(path.c_str(), "rb");
    char buf[4096];
    size_t n;
    while (f != nullptr && (n = fread(buf, 1, sizeof buf, f)) > 0) {
        text.append(buf, n);
    }
    if (f != nullptr) {
        fclose(f);
    }
    return text;
}

bool vx_write_file(const std::string& path, const std::string& text) {
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr) {
        return false;
    }
    bool ok = fwrite(text.data(), 1, text.size(), f) == text.size();
    return fclose(f) == 0 && ok;
}

int vx_count_in_file(const std::string& path, const std::string& text) {
    std::string content = vx_read_file(path);
    int count = 0;
    for (size_t at = content.find(text); !text.empty() && at != std::string::npos;
         at = content.find(text, at + text.size())) {
        ++count;
    }
    return count;
}

bool vx_wait_for_text(const std::string& path, const std::string& text, int timeout_ms, int count) {
    return vx_wait_until([&] { return vx_count_in_file(path, text) >= count; }, timeout_ms);
}

// Starts a program of the agent's package and waits until it has bound its ports.
static bool launch_ready(vx_process* proc, const std::vector<std::string>& argv,
                         const std::string& log, const std::function<bool()>& ready,
                         std::string* why_not) {
    if (!vx_spawn(proc, argv, log, nullptr, why_not)) {
        return false;
    }
    if (!vx_wait_until(ready, 10000)) {
        vx_stop(proc);
        return say(why_not,
                   argv[0] + " did not bind its ports within 10 s; its log:\n" + vx_read_file(log));
    }
    return true;
}

static bool snmpd_launch(vx_snmpd* agent, std::string* why_not) {
    std::vector<std::string> argv = {"snmpd", "-f",
                                     "-Lo",   "-C",
                                     "-c",    agent->dir + "/snmpd.conf",
                                     "-p",    agent->dir + "/snmpd.pid"};
    argv.insert(argv.end(), agent->extra_args.begin(), agent->extra_args.end());
    const std::string socket_path = agent->agentx_socket;
    return launch_ready(
        &agent->proc, argv, agent->dir + "/snmpd.log",
        [&socket_path] {
            struct stat st;
            return proc_net_has("/proc/net/tcp", VX_SMUX_PORT, 0x0A) &&
                   proc_net_has("/proc/net/udp", VX_SNMP_PORT, 0x07) &&
                   (socket_path.empty() ||
                    (stat(socket_path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)));
        },
        why_not);
}

static bool entered(std::string* why_not) {
    return !g_test_dir.empty() || say(why_not, "vx_enter_private_namespace() first");
}

bool vx_start_snmpd(vx_snmpd* agent, const std::vector<std::string>& extra_args,
                    std::string* why_not) {
    if (!entered(why_not)) {
        return false;
    }
    agent->dir = g_test_dir + "/snmpd";
    agent->extra_args = extra_args;
    if (mkdir(agent->dir.c_str(), 0700) != 0 && errno != EEXIST) {
        return fail(why_not, "mkdir");
    }
    std::string conf = SNMPD_CONF;
    if (!agent->agentx_socket.empty()) {
        // snmpd gives a subagent agentxTimeout (1 s) per try whatever time-out the session
        // asked for, and closes the session after 6 tries: the daemon asks for 10 s.
        conf += "master agentx\nagentXSocket " + agent->agentx_socket + "\nagentxTimeout 10\n";
    }
    if (!vx_write_file(agent->dir + "/snmpd.conf", conf)) {
        return fail(why_not, "writing snmpd.conf");
    }
    return snmpd_launch(agent, why_not);
}

bool vx_restart_snmpd(vx_snmpd* agent, std::string* why_not) {
    vx_stop(&agent->proc);
    // The old listener must be gone, or the readiness check would see it.
    if (!vx_wait_until([] { return !proc_net_has("/proc/net/tcp", VX_SMUX_PORT, 0x0A); }, 5000)) {
        return say(why_not, "the SMUX port still listens after snmpd stopped");
    }
    return snmpd_launch(agent, why_not);
}

void vx_stop_snmpd(vx_snmpd* agent) {
    vx_stop(&agent->proc);
}

bool vx_start_snmptrapd(vx_process* proc, std::string* why_not) {
    if (!entered(why_not)) {
        return false;
    }
    std::string conf = g_test_dir + "/snmptrapd.conf";
    if (!vx_write_file(conf, "disableAuthorization yes\n")) {
        return fail(why_not, "writing snmptrapd.conf");
    }
    return launch_ready(
        proc,
        {"snmptrapd", "-f", "-Lo", "-C", "-c", conf, "-On", "-p", g_test_dir + "/snmptrapd.pid",
         "udp:127.0.0.1:162"},
        g_test_dir + "/snmptrapd.log",
        [] { return proc_net_has("/proc/net/udp", VX_TRAP_PORT, 0x07); }, why_not);
}

const char* vx_varnex2_path(void) {
    const char* env = getenv("VARNEX2_PATH");
    if (env != nullptr && *env != '\0') {
        return env;
    }
#ifdef VARNEX2_PATH
    return VARNEX2_PATH;
#else
    return nullptr;
#endif
}

bool vx_start_varnex2(vx_process* proc, const std::vector<std::string>& args, const char* argv0,
                      std::string* why_not) {
    const char* path = vx_varnex2_path();
    if (path == nullptr) {
        return say(why_not, "the daemon was not built (no VARNEX2_PATH)");
    }
    if (access(path, X_OK) != 0) {
        return fail(why_not, path);
    }
    std::vector<std::string> argv = {path};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string log = (g_test_dir.empty() ? std::string("/tmp") : g_test_dir) + "/varnex2.log";
    return vx_spawn(proc, argv, log, argv0, why_not);
}

int vx_snmp_tool(const char* tool, const char* community, const std::vector<std::string>& args,
                 std::string* output) {
    std::vector<std::string> argv = {tool, "-v1", "-c", community, "-On",
                                     "-r", "0",   "-t", "5",       "127.0.0.1"};
    argv.insert(argv.end(), args.begin(), args.end());
    return vx_run(argv, output, 20000);
}
