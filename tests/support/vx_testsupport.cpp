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
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

namespace {

std::string g_test_dir;
bool g_peers_mounted = false;
pid_t g_tracked[64];  // children still running, killed at exit: no snmpd outlives its test

const char* const SNMPD_CONF =
    "agentaddress udp:127.0.0.1:161\nsmuxsocket 127.0.0.1\nsmuxpeer .1.3.6.1.4.1.99999.1 secret\n"
    "rocommunity public 127.0.0.1\nrwcommunity private 127.0.0.1\ntrapsink 127.0.0.1:162 public\n"
    "trap2sink 127.0.0.1:162 public\ndontLogTCPWrappersConnects yes\n";

void track_child(pid_t pid, pid_t old) {
    for (pid_t& slot : g_tracked) {
        if (slot == old) {
            slot = pid;
            return;
        }
    }
}

// SIGTERM first, so that a daemon a test left running ends through its own stop path (a
// coverage build writes its counts there); SIGKILL after a short grace.
void kill_tracked_children(void) {
    for (pid_t slot : g_tracked) {
        if (slot > 0) {
            kill(slot, SIGTERM);
            kill(slot, SIGCONT);  // a stopped process would not see the SIGTERM
        }
    }
    (void)vx_wait_until(
        [] {
            bool any = false;
            for (pid_t& slot : g_tracked) {
                if (slot > 0 && waitpid(slot, nullptr, WNOHANG) != 0) {
                    slot = 0;
                }
                any = any || slot > 0;
            }
            return !any;
        },
        2000);
    for (pid_t& slot : g_tracked) {
        if (slot > 0) {
            kill(slot, SIGKILL);
            waitpid(slot, nullptr, 0);
            slot = 0;
        }
    }
}

void remove_test_dir(void) {
    const char* keep = getenv("VX_KEEP_TEST_DIR");
    if (!g_test_dir.empty() && (keep == nullptr || *keep == '\0' || strcmp(keep, "0") == 0)) {
        nftw(
            g_test_dir.c_str(),
            [](const char* p, const struct stat*, int, struct FTW*) { return remove(p), 0; }, 16,
            FTW_DEPTH | FTW_PHYS);
    }
}

bool say(std::string* why_not, const std::string& text) {
    return why_not != nullptr && (*why_not = text, false);
}

bool fail(std::string* why_not, const char* what) {
    return say(why_not, std::string(what) + ": " + strerror(errno));
}

bool loopback_up(void) {
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct ifreq ifr = {};
    strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = s >= 0 && ioctl(s, SIOCGIFFLAGS, &ifr) == 0;
    ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP | IFF_RUNNING);
    ok = ok && ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
    close(s);
    return ok;
}

// Whether a socket of this network namespace on 127.0.0.1 or any address at `port` is in
// the given state (TCP 0A listening, UDP 07 bound). Reads /proc rather than connecting:
// snmpd blocks on a SMUX connection that sends no OpenPDU.
bool proc_net_has(const char* table, int port, unsigned state) {
    std::istringstream in(vx_read_file(table));
    for (std::string line; std::getline(in, line);) {
        unsigned addr = 0, p = 0, st = 0;
        if (sscanf(line.c_str(), " %*u: %8X:%4X %*s %2X", &addr, &p, &st) == 3 &&
            (addr == 0x0100007F || addr == 0) && p == static_cast<unsigned>(port) && st == state) {
            return true;
        }
    }
    return false;
}

// Starts a program of the agent's package and waits until it has bound its ports.
bool launch_ready(vx_process* proc, const std::vector<std::string>& argv, const std::string& log,
                  const std::function<bool()>& ready, std::string* why_not) {
    if (!vx_spawn(proc, argv, log, nullptr, why_not)) {
        return false;
    }
    if (!vx_wait_until(ready, 10000)) {
        vx_stop(proc);
        return say(why_not, argv[0] + " did not bind its ports in 10 s:\n" + vx_read_file(log));
    }
    return true;
}

bool snmpd_launch(vx_snmpd* agent, std::string* why_not) {
    std::vector<std::string> argv = {"snmpd", "-f", "-Lo", "-C", "-c", agent->dir + "/snmpd.conf"};
    argv.insert(argv.end(), {"-p", agent->dir + "/snmpd.pid"});
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

bool entered(std::string* why_not) {
    return !g_test_dir.empty() || say(why_not, "vx_enter_private_namespace() first");
}

}  // namespace

bool vx_enter_private_namespace(const char* peers_file_text, std::string* why_not) {
    if (geteuid() != 0) {
        return say(why_not, "needs root for private network and mount namespaces (unshare -n -m)");
    }
    kill_tracked_children();  // a previous test of this process may have left some
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
        return fail(why_not, "unshare(CLONE_NEWNET|CLONE_NEWNS)");
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return fail(why_not, "making mounts private");
    }
    if (!loopback_up()) {
        return fail(why_not, "bringing up lo");
    }
    if (g_peers_mounted) {  // the copied mount still shows the previous test's file
        umount2("/etc/snmpd.peers", MNT_DETACH);
    }
    char tmpl[] = "/tmp/vxtest.XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        return fail(why_not, "mkdtemp");
    }
    if (g_test_dir.empty()) {
        atexit([] {
            kill_tracked_children();
            remove_test_dir();
        });
    }
    remove_test_dir();
    g_test_dir = tmpl;
    const std::string peers = g_test_dir + "/snmpd.peers";
    if (mkdir((g_test_dir + "/persist").c_str(), 0700) != 0 ||
        mkdir((g_test_dir + "/conf").c_str(), 0700) != 0 ||
        !vx_write_file(peers, peers_file_text != nullptr ? peers_file_text : "")) {
        return fail(why_not, "writing the test directory");
    }
    // A bind mount needs a target; no O_EXCL, as tests in parallel may race to create it.
    int fd = open("/etc/snmpd.peers", O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        return fail(why_not, "creating /etc/snmpd.peers as a mount target");
    }
    close(fd);
    if (mount(peers.c_str(), "/etc/snmpd.peers", nullptr, MS_BIND, nullptr) != 0) {
        return fail(why_not, "bind-mounting the peers file");
    }
    g_peers_mounted = true;
    setenv("MIBS", "", 1);
    setenv("SNMPCONFPATH", (g_test_dir + "/conf").c_str(), 1);
    setenv("SNMP_PERSISTENT_DIR", (g_test_dir + "/persist").c_str(), 1);
    return true;
}

const std::string& vx_test_dir(void) {
    return g_test_dir;
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
        signal(SIGPIPE, SIG_DFL);  // the test process may ignore it
        int in = open("/dev/null", O_RDONLY);
        int out = open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (getppid() != parent || in < 0 || out < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 ||
            dup2(out, 2) < 0) {
            _exit(127);
        }
        for (int fd : {in, out}) {
            if (fd > 2) {
                close(fd);
            }
        }
        execvp(argv[0].c_str(), args.data());
        dprintf(2, "exec %s: %s\n", argv[0].c_str(), strerror(errno));
        _exit(127);
    }
    *proc = vx_process{pid, -1, log_path};
    track_child(pid, 0);
    return true;
}

// Reaps the process when it has ended, or waits for it when `hard`.
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

std::vector<std::string> vx_snmp_args(const std::string& tool, const char* version,
                                      const char* community, const std::vector<std::string>& rest) {
    std::vector<std::string> argv = {tool, version, "-c", community, "-On", "-r", "0", "-t", "20"};
    argv.push_back("127.0.0.1");
    argv.insert(argv.end(), rest.begin(), rest.end());
    return argv;
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
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool vx_write_file(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    return static_cast<bool>(out << text) && static_cast<bool>(out.flush());
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

bool vx_start_snmpd(vx_snmpd* agent, const std::vector<std::string>& extra_args,
                    std::string* why_not) {
    if (!entered(why_not)) {
        return false;
    }
    agent->dir = g_test_dir + "/snmpd";
    agent->extra_args = extra_args;
    std::string conf = SNMPD_CONF;
    if (!agent->agentx_socket.empty()) {
        // snmpd gives a subagent agentxTimeout (1 s) per try whatever the session asked for,
        // and closes the session after 6 tries: the daemon asks for 10 s.
        conf += "master agentx\nagentXSocket " + agent->agentx_socket + "\nagentxTimeout 10\n";
    }
    if ((mkdir(agent->dir.c_str(), 0700) != 0 && errno != EEXIST) ||
        !vx_write_file(agent->dir + "/snmpd.conf", conf)) {
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
    std::string conf = g_test_dir + "/snmptrapd.conf";
    if (!entered(why_not)) {
        return false;
    }
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

bool vx_start_varnex2(vx_process* proc, const std::vector<std::string>& args, const char* argv0,
                      std::string* why_not) {
    const char* path = getenv("VARNEX2_PATH");
    path = path != nullptr && *path != '\0' ? path : VARNEX2_PATH;
    if (access(path, X_OK) != 0) {
        return fail(why_not, path);
    }
    std::vector<std::string> argv = {path};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string log = (g_test_dir.empty() ? std::string("/tmp") : g_test_dir) + "/varnex2.log";
    return vx_spawn(proc, argv, log, argv0, why_not);
}
