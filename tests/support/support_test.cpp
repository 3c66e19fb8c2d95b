// The namespace and agent helpers themselves: what every daemon test stands on.
#include <gtest/gtest.h>

#include <sys/mount.h>

#include "vx_testsupport.h"

TEST(TestSupport, PrivateNamespaceHasItsOwnPeersFileAndAgent) {
    std::string why;
    if (!vx_enter_private_namespace("probe 1.3.6.1.4.1.99999.7 pw\n", &why)) {
        GTEST_SKIP() << why;
    }
    EXPECT_EQ(vx_read_file("/etc/snmpd.peers"), "probe 1.3.6.1.4.1.99999.7 pw\n");
    ASSERT_TRUE(vx_write_peers_file(VX_TEST_PEERS_TEXT));
    EXPECT_EQ(vx_read_file("/etc/snmpd.peers"), VX_TEST_PEERS_TEXT);

    // A fresh network namespace: nothing may listen before the agent starts.
    EXPECT_FALSE(vx_tcp_listening(VX_SMUX_PORT));
    vx_snmpd agent;
    ASSERT_TRUE(vx_start_snmpd(&agent, {"-Dsmux"}, &why)) << why;
    EXPECT_TRUE(vx_tcp_listening(VX_SMUX_PORT));
    EXPECT_TRUE(vx_udp_bound(VX_SNMP_PORT));

    // sysObjectID is served by snmpd itself, so this shows the test configuration is in use.
    std::string out;
    EXPECT_EQ(vx_snmp_tool("snmpget", "public", {"1.3.6.1.2.1.1.2.0"}, &out), 0) << out;
    EXPECT_NE(out.find(".1.3.6.1.2.1.1.2.0 = OID:"), std::string::npos) << out;

    ASSERT_TRUE(vx_restart_snmpd(&agent, &why)) << why;
    EXPECT_TRUE(vx_alive(&agent.proc));
    vx_stop_snmpd(&agent);
    EXPECT_FALSE(vx_alive(&agent.proc));
    EXPECT_TRUE(vx_wait_until([] { return !vx_tcp_listening(VX_SMUX_PORT); }, 3000));
}

TEST(TestSupport, ProcessesAreCapturedAndStopped) {
    std::string why;
    if (!vx_enter_private_namespace(nullptr, &why)) {
        GTEST_SKIP() << why;
    }
    std::string out;
    EXPECT_EQ(vx_run({"sh", "-c", "echo $0 out; echo err >&2; exit 3"}, &out), 3);
    EXPECT_EQ(out, "sh out\nerr\n");
    EXPECT_EQ(vx_run({"/nonexistent/program"}, &out), 127);

    // argv[0] override reaches the program; SIGTERM ends a sleeping child.
    vx_process p;
    std::string log = vx_test_dir() + "/p.log";
    ASSERT_TRUE(vx_spawn(&p, {"sh", "-c", "echo $0; exec sleep 30"}, log, "smux.abc"));
    EXPECT_TRUE(vx_wait_for_text(log, "smux.abc\n", 3000)) << vx_read_file(log);
    EXPECT_TRUE(vx_alive(&p));
    int status = vx_stop(&p);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    EXPECT_EQ(p.pid, -1);
}
