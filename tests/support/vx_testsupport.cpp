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
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

std::string g_test_dir;
std::string g_peers_path;
bool g_cleanup_registered = false;

// Children still running, killed at exit so that no snmpd outlives its test.
constexpr int MAX_TRACKED = 64;
pid_t g_tracked[MAX_TRACKED];

const char* const SNMPD_CONF =
    "agentaddress udp:127.0.0.1:161\n"
    "smuxsocket 127.0.0.1\n"
    "smuxpeer .1.3.6.1.4.1.99999.1 secret\n"
    "rocommunity public 127.0.0.1\n"
    "rwcommunity private 127.0.0.1\n"
    "trapsink 127.0.0.1:162 public\n"
    "trap2sink 127.0.0.1:162 public\n"
    "dontLogTCPWrappersConnects yes\n";

const char* const SNMPTRAPD_CONF = "disableAuthorization yes\n";

}  // namespace

static void track_child(pid_t pid) {
    for (pid_t& slot : g_tracked) {
        if (slot <= 0) {
            slot = pid;
            return;
        }
    }
}

static void untrack_child(pid_t pid) {
    for (pid_t& slot : g_tracked) {
        if (slot == pid) {
            slot = 0;
        }
    }
}

static void kill_tracked_children(void) {
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

static void remove_tree(const std::string& dir) {
    if (!dir.empty()) {
        nftw(dir.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    }
}

static void at_exit_cleanup(void) {
    kill_tracked_children();
    const char* keep = getenv("VX_KEEP_TEST_DIR");
    if (keep == nullptr || *keep == '\0' || strcmp(keep, "0") == 0) {
        remove_tree(g_test_dir);
    }
}

static long now_ms(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

static void sleep_ms(int ms) {
    struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

static std::string errno_text(const char* what) {
    return std::string(what) + ": " + strerror(errno);
}

static bool loopback_up(std::string* why_not) {
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) {
        *why_not = errno_text("socket");
        return false;
    }
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = ioctl(s, SIOCGIFFLAGS, &ifr) == 0;
    if (ok) {
        ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP | IFF_RUNNING);
        ok = ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
    }
    if (!ok) {
        *why_not = errno_text("bringing up lo");
    }
    close(s);
    return ok;
}

bool vx_enter_private_namespace(const char* peers_file_text, std::string* why_not) {
    std::string scratch;
    if (why_not == nullptr) {
        why_not = &scratch;
    }
    if (geteuid() != 0) {
        *why_not = "needs root for private network and mount namespaces (unshare -n -m)";
        return false;
    }
    // A previous test in the same process may have left processes in the old namespace.
    kill_tracked_children();
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
        *why_not = errno_text("unshare(CLONE_NEWNET|CLONE_NEWNS)");
        return false;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        *why_not = errno_text("making mounts private");
        return false;
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
        *why_not = errno_text("mkdtemp");
        return false;
    }
    if (!g_test_dir.empty()) {
        const char* keep = getenv("VX_KEEP_TEST_DIR");
        if (keep == nullptr || *keep == '\0' || strcmp(keep, "0") == 0) {
            remove_tree(g_test_dir);
        }
    }
    g_test_dir = tmpl;
    if (!g_cleanup_registered) {
        atexit(at_exit_cleanup);
        g_cleanup_registered = true;
    }
    for (const char* sub : {"/persist", "/conf"}) {
        if (mkdir((g_test_dir + sub).c_str(), 0700) != 0) {
            *why_not = errno_text("mkdir");
            return false;
        }
    }

    g_peers_path = g_test_dir + "/snmpd.peers";
    if (!vx_write_peers_file(peers_file_text)) {
        *why_not = errno_text("writing the peers file");
        return false;
    }
    // O_CREAT without O_EXCL: tests running in parallel may race to create the mount target.
    int fd = open("/etc/snmpd.peers", O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        *why_not = errno_text("creating /etc/snmpd.peers as a mount target");
        return false;
    }
    close(fd);
    if (mount(g_peers_path.c_str(), "/etc/snmpd.peers", nullptr, MS_BIND, nullptr) != 0) {
        *why_not = errno_text("bind-mounting the peers file");
        return false;
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
    if (g_peers_path.empty()) {
        return false;
    }
    // Rewritten in place, never replaced: the bind mount refers to this inode.
    return vx_write_file(g_peers_path, text != nullptr ? text : "");
}

bool vx_spawn(vx_process* proc, const std::vector<std::string>& argv, const std::string& log_path,
              const char* argv0, std::string* why_not) {
    if (argv.empty()) {
        if (why_not != nullptr) {
            *why_not = "empty argv";
        }
        return false;
    }
    std::vector<char*> args;
    args.reserve(argv.size() + 1);
    for (const std::string& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    if (argv0 != nullptr) {
        args[0] = const_cast<char*>(argv0);
    }
    args.push_back(nullptr);
    const char* file = argv[0].c_str();

    fflush(stdout);
    fflush(stderr);
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid < 0) {
        if (why_not != nullptr) {
            *why_not = errno_text("fork");
        }
        return false;
    }
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(127);
        }
        // The test process may ignore SIGPIPE; children start from the defaults.
        signal(SIGPIPE, SIG_DFL);
        int in = open("/dev/null", O_RDONLY);
        int out = open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (in < 0 || out < 0) {
            _exit(127);
        }
        dup2(in, 0);
        dup2(out, 1);
        dup2(out, 2);
        if (in > 2) {
            close(in);
        }
        if (out > 2) {
            close(out);
        }
        execvp(file, args.data());
        dprintf(2, "exec %s: %s\n", file, strerror(errno));
        _exit(127);
    }
    proc->pid = pid;
    proc->status = -1;
    proc->log_path = log_path;
    track_child(pid);
    return true;
}

bool vx_alive(vx_process* proc) {
    if (proc->pid <= 0) {
        return false;
    }
    int status = 0;
    pid_t r = waitpid(proc->pid, &status, WNOHANG);
    if (r == 0) {
        return true;
    }
    if (r == proc->pid) {
        proc->status = status;
    }
    untrack_child(proc->pid);
    proc->pid = -1;
    return false;
}

bool vx_wait_exit(vx_process* proc, int timeout_ms) {
    return vx_wait_until([proc] { return !vx_alive(proc); }, timeout_ms);
}

bool vx_signal(vx_process* proc, int sig) {
    if (!vx_alive(proc)) {
        return false;
    }
    return kill(proc->pid, sig) == 0;
}

int vx_stop(vx_process* proc) {
    if (proc->pid <= 0) {
        return proc->status;
    }
    kill(proc->pid, SIGTERM);
    if (!vx_wait_exit(proc, 3000)) {
        kill(proc->pid, SIGKILL);
        int status = 0;
        if (waitpid(proc->pid, &status, 0) == proc->pid) {
            proc->status = status;
        }
        untrack_child(proc->pid);
        proc->pid = -1;
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
        if (vx_wait_exit(&proc, timeout_ms)) {
            if (WIFEXITED(proc.status)) {
                result = WEXITSTATUS(proc.status);
            }
        } else {
            vx_stop(&proc);
        }
    }
    if (output != nullptr) {
        *output = vx_read_file(tmpl);
    }
    unlink(tmpl);
    return result;
}

// /proc/net/{tcp,udp} list sockets of the reader's own network namespace; the local
// address is hex "AAAAAAAA:PPPP" in host order for the address, and `state` is the TCP
// state (0A listen) or, for UDP, 07 (unconnected).
static bool proc_net_has(const char* table, int port, const char* state) {
    FILE* f = fopen(table, "r");
    if (f == nullptr) {
        return false;
    }
    char line[512];
    bool found = false;
    if (fgets(line, sizeof line, f) != nullptr) {
        while (!found && fgets(line, sizeof line, f) != nullptr) {
            char local[64];
            char remote[64];
            char st[8];
            unsigned slot = 0;
            if (sscanf(line, " %u: %63s %63s %7s", &slot, local, remote, st) != 4) {
                continue;
            }
            const char* colon = strchr(local, ':');
            if (colon == nullptr) {
                continue;
            }
            std::string addr(local, static_cast<size_t>(colon - local));
            long p = strtol(colon + 1, nullptr, 16);
            bool addr_ok = addr == "0100007F" || addr == "00000000";
            found = addr_ok && p == port && strcasecmp(st, state) == 0;
        }
    }
    fclose(f);
    return found;
}

bool vx_tcp_listening(int port) {
    return proc_net_has("/proc/net/tcp", port, "0A");
}

bool vx_udp_bound(int port) {
    return proc_net_has("/proc/net/udp", port, "07");
}

bool vx_wait_tcp_listen(int port, int timeout_ms) {
    return vx_wait_until([port] { return vx_tcp_listening(port); }, timeout_ms);
}

bool vx_wait_udp_bound(int port, int timeout_ms) {
    return vx_wait_until([port] { return vx_udp_bound(port); }, timeout_ms);
}

bool vx_wait_until(const std::function<bool()>& cond, int timeout_ms) {
    long end = now_ms() + timeout_ms;
    for (;;) {
        if (cond()) {
            return true;
        }
        if (now_ms() >= end) {
            return cond();
        }
        sleep_ms(20);
    }
}

std::string vx_read_file(const std::string& path) {
    std::string text;
    FILE* f = fopen(path.c_str(), "rb");
    if (f == nullptr) {
        return text;
    }
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) {
        text.append(buf, n);
    }
    fclose(f);
    return text;
}

bool vx_write_file(const std::string& path, const std::string& text) {
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr) {
        return false;
    }
    bool ok = fwrite(text.data(), 1, text.size(), f) == text.size();
    ok = fclose(f) == 0 && ok;
    return ok;
}

int vx_count_in_file(const std::string& path, const std::string& text) {
    if (text.empty()) {
        return 0;
    }
    std::string content = vx_read_file(path);
    int count = 0;
    for (size_t at = content.find(text); at != std::string::npos;
         at = content.find(text, at + text.size())) {
        ++count;
    }
    return count;
}

bool vx_wait_for_text(const std::string& path, const std::string& text, int timeout_ms,
                      int count) {
    return vx_wait_until([&] { return vx_count_in_file(path, text) >= count; }, timeout_ms);
}

static bool snmpd_launch(vx_snmpd* agent, std::string* why_not) {
    std::vector<std::string> argv = {"snmpd", "-f", "-Lo", "-C", "-c", agent->dir + "/snmpd.conf",
                                     "-p", agent->dir + "/snmpd.pid"};
    argv.insert(argv.end(), agent->extra_args.begin(), agent->extra_args.end());
    if (!vx_spawn(&agent->proc, argv, agent->dir + "/snmpd.log", nullptr, why_not)) {
        return false;
    }
    bool ready = vx_wait_until(
        [agent] {
            return vx_tcp_listening(VX_SMUX_PORT) && vx_udp_bound(VX_SNMP_PORT);
        },
        10000);
    if (!ready) {
        *why_not = "snmpd did not listen on 127.0.0.1:199 and :161 within 10 s; its log:\n" +
                   vx_read_file(agent->dir + "/snmpd.log");
        vx_stop(&agent->proc);
        return false;
    }
    return true;
}

bool vx_start_snmpd(vx_snmpd* agent, const std::vector<std::string>& extra_args,
                    std::string* why_not) {
    std::string scratch;
    if (why_not == nullptr) {
        why_not = &scratch;
    }
    if (g_test_dir.empty()) {
        *why_not = "vx_enter_private_namespace() first";
        return false;
    }
    agent->dir = g_test_dir + "/snmpd";
    agent->extra_args = extra_args;
    if (mkdir(agent->dir.c_str(), 0700) != 0 && errno != EEXIST) {
        *why_not = errno_text("mkdir");
        return false;
    }
    if (!vx_write_file(agent->dir + "/snmpd.conf", SNMPD_CONF)) {
        *why_not = errno_text("writing snmpd.conf");
        return false;
    }
    return snmpd_launch(agent, why_not);
}

bool vx_restart_snmpd(vx_snmpd* agent, std::string* why_not) {
    std::string scratch;
    if (why_not == nullptr) {
        why_not = &scratch;
    }
    vx_stop(&agent->proc);
    // The old listener must be gone, or the readiness check would see it.
    if (!vx_wait_until([] { return !vx_tcp_listening(VX_SMUX_PORT); }, 5000)) {
        *why_not = "the SMUX port still listens after snmpd stopped";
        return false;
    }
    return snmpd_launch(agent, why_not);
}

void vx_stop_snmpd(vx_snmpd* agent) {
    vx_stop(&agent->proc);
}

bool vx_start_snmptrapd(vx_process* proc, std::string* why_not) {
    std::string scratch;
    if (why_not == nullptr) {
        why_not = &scratch;
    }
    if (g_test_dir.empty()) {
        *why_not = "vx_enter_private_namespace() first";
        return false;
    }
    std::string conf = g_test_dir + "/snmptrapd.conf";
    if (!vx_write_file(conf, SNMPTRAPD_CONF)) {
        *why_not = errno_text("writing snmptrapd.conf");
        return false;
    }
    std::string log = g_test_dir + "/snmptrapd.log";
    std::vector<std::string> argv = {"snmptrapd", "-f",  "-Lo", "-C", "-c", conf,
                                     "-On",       "-p",  g_test_dir + "/snmptrapd.pid",
                                     "udp:127.0.0.1:162"};
    if (!vx_spawn(proc, argv, log, nullptr, why_not)) {
        return false;
    }
    if (!vx_wait_udp_bound(VX_TRAP_PORT, 10000)) {
        *why_not = "snmptrapd did not bind 127.0.0.1:162 within 10 s; its log:\n" +
                   vx_read_file(log);
        vx_stop(proc);
        return false;
    }
    return true;
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
        if (why_not != nullptr) {
            *why_not = "the daemon was not built (no VARNEX2_PATH)";
        }
        return false;
    }
    if (access(path, X_OK) != 0) {
        if (why_not != nullptr) {
            *why_not = errno_text(path);
        }
        return false;
    }
    std::vector<std::string> argv = {path};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string log = (g_test_dir.empty() ? std::string("/tmp") : g_test_dir) + "/varnex2.log";
    return vx_spawn(proc, argv, log, argv0, why_not);
}

int vx_snmp_tool(const char* tool, const char* community, const std::vector<std::string>& args,
                 std::string* output) {
    std::vector<std::string> argv = {tool, "-v1", "-c", community, "-On", "-r", "0", "-t", "5",
                                     "127.0.0.1"};
    argv.insert(argv.end(), args.begin(), args.end());
    return vx_run(argv, output, 20000);
}
