// The daemon's command line, trace levels, banners, identity name and start-up retries,
// observed from outside: its output, its exit status and its first bytes to the agent.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "daemon_peers.h"

namespace {

// The banner with a build date and time as the compiler writes them ("Mmm dd yyyy",
// "hh:mm:ss").
bool banner_has_its_form(const std::string& banner) {
    static const std::string fixed = "varnex2 version 1.0.00, Mar 16 1998, Compiled ";
    char month[4];
    int day, year, h, m, sec;
    return banner.rfind(fixed, 0) == 0 &&
           sscanf(banner.c_str() + fixed.size(), "%3[A-Za-z] %2d %4d at %2d:%2d:%2d", month, &day,
                  &year, &h, &m, &sec) == 6 &&
           banner.size() == fixed.size() + 23;
}

// Runs the daemon to its end: its exit status, and its output in `out`.
int run_daemon(const std::vector<std::string>& args, std::string* out) {
    std::vector<std::string> argv{vx_varnex2_path()};
    argv.insert(argv.end(), args.begin(), args.end());
    return vx_run(argv, out, 5000);
}

// Lines written by the DPI library's debug switch are its own business; only which level
// the daemon asked for is checked, apart from the rest.
std::string without_dpi_library_lines(const std::string& text, std::string* levels) {
    std::string kept;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end + 1;
        std::string line = text.substr(at, end - at);
        if (line.rfind("DPI Debug turned ", 0) == 0) {
            *levels += line;
        } else if (line.rfind("DPI Debug ", 0) != 0 &&
                   line.find(" - DPI Version") == std::string::npos) {
            kept += line;
        }
        at = end;
    }
    return kept;
}

class DaemonCommandLine : public ::testing::Test {
   protected:
    void SetUp() override {
        if (vx_varnex2_path() == nullptr) {
            GTEST_SKIP() << "the daemon was not built";
        }
        for (const char* v : {"SNMP_PRINTF", "SNMP_ERROR", "SNMP_DUMP", "VARNEX2_DPI_ADDRESS"}) {
            unsetenv(v);
        }
    }
};

// Local address of the TCP socket of this network namespace that listens on `port`, as
// dotted text; "" when none does.
std::string listening_address(int port) {
    FILE* f = fopen("/proc/net/tcp", "r");
    char line[512];
    std::string found;
    while (f != nullptr && found.empty() && fgets(line, sizeof line, f) != nullptr) {
        unsigned addr = 0, p = 0, state = 0;
        if (sscanf(line, " %*u: %8X:%4X %*s %2X", &addr, &p, &state) == 3 &&
            p == static_cast<unsigned>(port) && state == 0x0A) {
            in_addr a{};
            a.s_addr = addr;  // the table shows the address as the host reads its bytes
            found = inet_ntoa(a);
        }
    }
    if (f != nullptr) {
        fclose(f);
    }
    return found;
}

bool connects(const char* address, int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address, &to.sin_addr);
    bool ok = fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0;
    if (fd >= 0) {
        close(fd);
    }
    return ok;
}

}  // namespace

// Arguments the daemon refuses end it before it connects anywhere, so no namespace is
// needed: each "-d" block is printed as it is taken, then the usage message.
TEST_F(DaemonCommandLine, OptionsThenUsageError) {
    // The banner as the usage message shows it: after an empty line, on the last line.
    std::string out;
    ASSERT_EQ(run_daemon({"-x"}, &out), 1);
    const std::string banner =
        out.substr(out.rfind("\n\n") + 2, out.size() - out.rfind("\n\n") - 3);
    ASSERT_TRUE(banner_has_its_form(banner)) << banner;
    const std::string path = vx_varnex2_path();
    const std::string usage = "usage:  " + path + " [-d [level]]\n\n" + banner + "\n";
    const std::string b = "\n" + banner + "\n";

    struct row {
        const char* name;
        std::vector<std::string> args;
        std::string output;      // without the DPI library's own lines
        std::string dpi_levels;  // the DPI library's announcements, in order
    } rows[] = {
        {"unknown option", {"-x"}, usage, ""},
        {"-d glued to its level", {"-d5"}, usage, ""},
        {"bare word", {"d"}, usage, ""},
        {"level then extra argument", {"-d", "7", "extra"}, "Tracing set to 7\n" + b + usage, ""},
        {"every bit",
         {"-d", "255", "-x"},
         "Tracing set to 255\n   8 DPI-lvl1\n  16 DPI-lvl2\n  32 Internal-lvl1\n"
         "  64 Internal-lvl2\n 128 Internal-lvl3\n" +
             b + usage,
         "DPI Debug turned ON (level 1)\n"},
        {"DPI level 2 alone",
         {"-d", "16", "-x"},
         "Tracing set to 16\n  16 DPI-lvl2\n" + b + usage,
         "DPI Debug turned ON (level 2)\n"},
        {"word as level", {"-d", "abc", "-x"}, "Tracing set to 0\n" + b + usage, ""},
        {"second -d taken as the level", {"-d", "-d", "-x"}, "Tracing set to 0\n" + b + usage, ""},
        {"leading digits only",
         {"-d", "40xyz", "-x"},
         "Tracing set to 40\n   8 DPI-lvl1\n  32 Internal-lvl1\n" + b + usage,
         "DPI Debug turned ON (level 1)\n"},
        {"signed levels",
         {"-d", "+96", "-d", "-128", "-x"},
         "Tracing set to 96\n  32 Internal-lvl1\n  64 Internal-lvl2\n" + b +
             "Tracing set to -128\n 128 Internal-lvl3\n" + b + usage,
         ""},
        {"the last -d wins, each is reported",
         {"-d", "16", "-d", "8", "-x"},
         "Tracing set to 16\n  16 DPI-lvl2\n" + b + "Tracing set to 8\n   8 DPI-lvl1\n" + b + usage,
         "DPI Debug turned ON (level 2)\nDPI Debug turned ON (level 1)\n"},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        std::string got, levels;
        EXPECT_EQ(run_daemon(r.args, &got), 1);
        EXPECT_EQ(without_dpi_library_lines(got, &levels), r.output);
        EXPECT_EQ(levels, r.dpi_levels);
    }
}

// A VARNEX2_AGENTX the daemon cannot use ends it at once, before it starts anything.
TEST_F(DaemonCommandLine, UnusableAgentXAddressEndsTheDaemon) {
    const std::string rows[] = {
        "",         "relative/agentx.sock",  "unix:relative", "tcp:",
        "tcp:127.0.0.1",  "tcp::705",        "tcp:127.0.0.1:0", "tcp:127.0.0.1:65536",
        "tcp:127.0.0.1:70x", "udp:127.0.0.1:705", "/" + std::string(120, 'x'),
    };
    for (const std::string& value : rows) {
        SCOPED_TRACE(value);
        setenv("VARNEX2_AGENTX", value.c_str(), 1);
        std::string out;
        EXPECT_EQ(run_daemon({}, &out), 1);
        EXPECT_EQ(out.rfind("varnex2: VARNEX2_AGENTX=\"" + value + "\" cannot be used: ", 0), 0u)
            << out;
        EXPECT_EQ(out.find("starting"), std::string::npos) << out;
    }
    unsetenv("VARNEX2_AGENTX");
}

// The SNMP library's switches are read from the environment only when one of the bits 1, 2
// or 4 is set; with SNMP_ERROR=2 reading them prints the library banner.
TEST_F(DaemonCommandLine, LibrarySwitchesReadOnlyForLowBits) {
    setenv("SNMP_ERROR", "2", 1);
    struct row {
        const char* level;
        bool reads;
    } rows[] = {{"1", true}, {"2", true}, {"4", true}, {"8", false}, {"224", false}, {"7", true}};
    for (const row& r : rows) {
        SCOPED_TRACE(r.level);
        std::string got;
        EXPECT_EQ(run_daemon({"-d", r.level, "-x"}, &got), 1);
        EXPECT_EQ(got.find("AGENTKIT") != std::string::npos, r.reads) << got;
    }
}

// "-d" as the last argument means 31, which runs the daemon: it needs its own namespace.
TEST_F(DaemonCommandLine, LoneDashDMeansThirtyOne) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    vx_process daemon;
    std::string why;
    ASSERT_TRUE(vx_start_varnex2(&daemon, {"-d"}, nullptr, &why)) << why;
    ASSERT_TRUE(vx_wait_for_text(daemon.log_path, "will retry", 5000));
    vx_stop(&daemon);
    std::string levels;
    std::string out = without_dpi_library_lines(vx_read_file(daemon.log_path), &levels);
    EXPECT_EQ(out.rfind("Tracing set to 31\n   8 DPI-lvl1\n  16 DPI-lvl2\n\nvarnex2 version", 0),
              0u)
        << out;
    EXPECT_EQ(levels, "DPI Debug turned ON (level 1)\n");
}

// The identity is the program's file name, less "smux." when something follows it. The
// start line shows it whatever the trace level.
TEST_F(DaemonCommandLine, IdentityNameFromProgramName) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    const std::string dir = vx_test_dir() + "/bin";
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    struct row {
        const char* file;   // link to the daemon in `dir`, or "" to use the argv0 as is
        const char* argv0;  // what the daemon sees; null: the link's full path
        const char* identity;
    } rows[] = {
        {"smux.abc", nullptr, "abc"},       {"smux.x", nullptr, "x"},
        {"smux.", nullptr, "smux."},        {"smuxabc", nullptr, "smuxabc"},
        {"smux.smux.y", nullptr, "smux.y"}, {"plain", nullptr, "plain"},
        {"", "smux.bare", "bare"},          {"", "some/dir/", "some/dir/"},
    };
    int n = 0;
    for (const row& r : rows) {
        SCOPED_TRACE(r.file[0] != '\0' ? r.file : r.argv0);
        std::string argv0 = r.argv0 != nullptr ? r.argv0 : dir + "/" + r.file;
        if (r.file[0] != '\0') {
            ASSERT_EQ(symlink(vx_varnex2_path(), (dir + "/" + r.file).c_str()), 0);
        }
        vx_process daemon;
        std::string log = vx_test_dir() + "/identity" + std::to_string(n++) + ".log";
        ASSERT_TRUE(vx_spawn(&daemon, {vx_varnex2_path()}, log, argv0.c_str()));
        ASSERT_TRUE(vx_wait_for_text(log, "will retry", 5000)) << vx_read_file(log);
        vx_stop(&daemon);
        // The first line: "varnex2.cpp(<line>) <identity>, starting...".
        std::string out = vx_read_file(log);
        std::string first = out.substr(0, out.find('\n'));
        int line = 0, name_at = -1;
        ASSERT_EQ(sscanf(first.c_str(), "varnex2.cpp(%d) %n", &line, &name_at), 1) << out;
        ASSERT_GT(name_at, 0) << out;
        EXPECT_EQ(first.substr(static_cast<size_t>(name_at)),
                  std::string(r.identity) + ", starting...");
    }
}

// The identity name picks the peers line, so one binary serves several peers.
TEST_F(DaemonCommandLine, IdentityNameSelectsPeersLine) {
    ENTER_NAMESPACE_OR_SKIP("varnex2 1.3.6.1.4.1.99999.1 secret\nabc 1.3.6.1.4.1.4242.7 pw\n");
    const std::string link = vx_test_dir() + "/smux.abc";
    ASSERT_EQ(symlink(vx_varnex2_path(), link.c_str()), 0);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}, true, "1.3.6.1.4.1.4242.7", "pw", link.c_str()));
    EXPECT_NE(daemon_log(&s).find("abc connected to agent, ready to receive requests.....\n"),
              std::string::npos);
}

// Without an agent there is no DPI listener, and the connection is tried again every
// 5 seconds; the first connection that works brings up the listener and the session.
TEST_F(DaemonCommandLine, RetriesUntilTheAgentListens) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    std::string why;
    ASSERT_TRUE(vx_start_varnex2(&s.daemon, {"-d", "32"}, nullptr, &why)) << why;
    ASSERT_TRUE(vx_wait_for_text(s.daemon.log_path, "Connect to agent failed, will retry\n", 3000))
        << daemon_log(&s);
    std::string log = daemon_log(&s);
    EXPECT_EQ(log.find("DPI  fd:"), std::string::npos);
    EXPECT_NE(log.find("SMUXconnect::connect: Connection refused\n"), std::string::npos) << log;
    EXPECT_NE(log.find("rc=-1 from SMUXconnect()\n"), std::string::npos) << log;

    // Listening now: the next attempt is at most 5 s away.
    ASSERT_TRUE(agent_listen(&s));
    ASSERT_TRUE(attach_session(&s, 7500, true));
    EXPECT_GT(s.dpi_port, 0);
    EXPECT_EQ(vx_count_in_file(s.daemon.log_path, "connected to agent"), 1);
}

// VARNEX2_DPI_ADDRESS names the one address the DPI listener binds to; without it, or with
// 0.0.0.0, it binds every local address. (127.0.0.2 is local too, through the loopback
// network.)
TEST_F(DaemonCommandLine, ListenerAddressFromTheEnvironment) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    struct row {
        const char* value;  // null: unset
        const char* bound;
        bool reached_on_127_0_0_1;
    } rows[] = {{nullptr, "0.0.0.0", true},
                {"0.0.0.0", "0.0.0.0", true},
                {"127.0.0.2", "127.0.0.2", false},
                {"127.0.0.1", "127.0.0.1", true}};
    daemon_session s;
    for (const row& r : rows) {
        SCOPED_TRACE(r.value != nullptr ? r.value : "unset");
        vx_stop(&s.daemon);
        agent_hang_up(&s);
        if (r.value != nullptr) {
            setenv("VARNEX2_DPI_ADDRESS", r.value, 1);
        } else {
            unsetenv("VARNEX2_DPI_ADDRESS");
        }
        ASSERT_TRUE(vx_write_file(vx_test_dir() + "/varnex2.log", ""));
        ASSERT_TRUE(start_session(&s, {}));
        EXPECT_EQ(listening_address(s.dpi_port), r.bound);
        EXPECT_EQ(connects("127.0.0.1", s.dpi_port), r.reached_on_127_0_0_1);
        EXPECT_TRUE(connects(r.bound[0] == '0' ? "127.0.0.2" : r.bound, s.dpi_port));
    }
}

// A value that is not an IPv4 address in dotted-decimal form ends the daemon at once with
// status 1 and the reason on standard error, before it has connected anywhere.
TEST_F(DaemonCommandLine, BadListenerAddressEndsTheDaemonAtStart) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(agent_listen(&s));
    const std::string err = vx_test_dir() + "/stderr";
    for (const char* value : {"", "localhost", "127.1", "256.0.0.1", "127.0.0.1 ", "::1"}) {
        SCOPED_TRACE(std::string("\"") + value + "\"");
        setenv("VARNEX2_DPI_ADDRESS", value, 1);
        std::string out;
        EXPECT_EQ(
            vx_run({"sh", "-c", "exec \"$0\" -d 255 2>\"$1\"", vx_varnex2_path(), err}, &out, 5000),
            1);
        EXPECT_EQ(out.find("starting"), std::string::npos) << out;
        EXPECT_EQ(vx_read_file(err), std::string("varnex2: VARNEX2_DPI_ADDRESS=\"") + value +
                                         "\" is not an IPv4 address in dotted-decimal form "
                                         "(such as 127.0.0.1, or 0.0.0.0 for every local "
                                         "address)\n");
        EXPECT_LT(vx_tcp_accept(s.listen_fd, 100), 0) << "the daemon connected to the agent";
    }
}
