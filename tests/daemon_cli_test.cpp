// The daemon's command line, environment and identity name, seen from outside: its output,
// its exit status, and whom it asks to connect.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "vx_peers.h"
#include "vx_testsupport.h"

namespace {

// Runs the daemon to its end with `args` and the environment variable `name` set to `value`
// (when not null): its exit status, its output in `out`.
int run_daemon(const std::vector<std::string>& args, std::string* out, const char* name = nullptr,
               const char* value = nullptr) {
    vx_process p;
    std::string why;
    if (name != nullptr) {
        setenv(name, value, 1);
    }
    EXPECT_TRUE(vx_write_file(vx_test_dir() + "/varnex2.log", ""));  // the daemon's log
    EXPECT_TRUE(vx_start_varnex2(&p, args, nullptr, &why)) << why;
    bool ended = vx_wait_exit(&p, 5000);
    vx_stop(&p);
    if (name != nullptr) {
        unsetenv(name);
    }
    *out = vx_read_file(p.log_path);
    return ended && WIFEXITED(p.status) ? WEXITSTATUS(p.status) : -1;
}

}  // namespace

TEST(DaemonCommandLine, OptionsEnvironmentAndIdentity) {
    std::string why;
    if (!vx_enter_private_namespace("varnex2 1.3.6.1.4.1.99999.1 secret\nabc 1.3.6.1.4.1.42 pw\n",
                                    &why)) {
        GTEST_SKIP() << why;
    }
    struct row {
        std::vector<std::string> args;
        const char* env;  // variable set for the run, or null
        const char* value;
        std::vector<std::string> lines;  // each in the output, in order
    };
    const std::string u = "usage:  ", x = "VARNEX2_AGENTX";
    const row rows[] = {
        {{"-x"}, nullptr, nullptr, {u, " [-d [level]]\n\nvarnex2 version 1.0.00, "}},
        {{"-d", "255", "-x"},
         nullptr,
         nullptr,
         {"Tracing set to 255\n   8 DPI-lvl1\n  16 DPI-lvl2\n"
          "  32 Internal-lvl1\n  64 Internal-lvl2\n 128 Internal-lvl3\n",
          u}},
        {{"-d", "16", "-d", "+40xyz", "extra"},
         nullptr,
         nullptr,
         {"Tracing set to 16\n  16 "
          "DPI-lvl2\n",
          "Tracing set to 40\n   8 DPI-lvl1\n  32 Internal-lvl1\n", u}},
        {{"-d", "7", "-x"}, "SNMP_ERROR", "2", {"Tracing set to 7\n", "AGENTKIT", u}},
        {{},
         x.c_str(),
         "tcp:127.0.0.1:0",
         {"varnex2: VARNEX2_AGENTX=\"tcp:127.0.0.1:0\" cannot be used: "}},
        {{}, x.c_str(), "unix:relative", {"VARNEX2_AGENTX=\"unix:relative\" cannot"}},
        {{}, x.c_str(), "tcp:[]:705", {"the host name is empty"}},
        {{}, x.c_str(), "tcp:127.0.0.1", {"tcp: needs HOST:PORT"}},
        {{}, x.c_str(), "tcp:no-such-host.invalid:705", {"host \"no-such-host.invalid\""}},
        {{"-d", "255"},
         "VARNEX2_DPI_ADDRESS",
         "127.1",
         {"DPI_ADDRESS=\"127.1\" is not an IPv4 address"}},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.args.empty() ? r.env : r.args.back());
        std::string out;
        EXPECT_EQ(run_daemon(r.args, &out, r.env, r.value), 1);
        size_t at = 0;
        for (const std::string& line : r.lines) {
            at = out.find(line, at);
            ASSERT_NE(at, std::string::npos) << line << "\n" << out;
        }
        EXPECT_EQ(out.find("starting"), std::string::npos) << out;
    }

    // The identity name is the program's name less "smux.", and picks the peers line. With
    // no agent listening the daemon tries again every 5 s; a lone "-d" means 31.
    const std::string link = vx_test_dir() + "/smux.abc";
    ASSERT_EQ(symlink(VARNEX2_BINARY, link.c_str()), 0);
    vx_process daemon;
    ASSERT_TRUE(vx_write_file(vx_test_dir() + "/varnex2.log", ""));
    ASSERT_TRUE(vx_start_varnex2(&daemon, {"-d"}, link.c_str(), &why)) << why;
    ASSERT_TRUE(vx_wait_for_text(daemon.log_path, "Connect to agent failed, will retry\n", 5000));
    int listener = vx_tcp_listen(VX_SMUX_PORT);
    ASSERT_GE(listener, 0);
    vx_stream agent;
    agent.fd = vx_tcp_accept(listener, 7500);
    ASSERT_GE(agent.fd, 0);
    EXPECT_TRUE(vx_wait_for_text(daemon.log_path, "abc connected to agent", 5000));
    vx_bytes open;
    ASSERT_TRUE(vx_stream_take(&agent, &open, 5000, [](const vx_bytes& b) {
        return b.size() < 2 ? size_t{0} : size_t{b[1]} + 2;
    }));
    EXPECT_NE(vx_to_hex(open).find("06 06 2b 06 01 04 01 2a"), std::string::npos);  // .42
    EXPECT_NE(vx_to_hex(open).find("04 02 70 77"), std::string::npos);              // "pw"
    vx_stop(&daemon);
    close(agent.fd);
    close(listener);
    std::string log = vx_read_file(daemon.log_path);
    EXPECT_EQ(log.rfind("Tracing set to 31\n   8 DPI-lvl1\n  16 DPI-lvl2\n", 0), 0U) << log;
    EXPECT_NE(log.find("abc, starting...\n"), std::string::npos) << log;
    EXPECT_EQ(log.find("Sanitizer"), std::string::npos) << log;
}
