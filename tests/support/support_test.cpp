// The namespace and agent helpers themselves: what every daemon test stands on.
#include <gtest/gtest.h>

#include <sys/mount.h>

#include "vx_peers.h"
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

// The fake peers parse what they build, and read the real agent's long-form lengths.
TEST(TestSupport, FakePeerCodecs) {
    struct row {
        const char* name;
        vx_bytes pdu;
        uint8_t type;
        const char* oid;
        int32_t a;  // priority / code / request id
        int32_t b;  // operation / error status
    };
    const row rows[] = {
        {"rreq", vx_hex("62 13 06 0b 2b 06 01 04 01 86 8d 1f 01 02 03 02 01 ff 02 01 02"), 0x62,
         "1.3.6.1.4.1.99999.1.2.3", -1, 2},
        {"rrsp 4-byte -1", vx_smux_rrsp(-1), 0x43, "", -1, 0},
        {"get long form", vx_smux_request(0xa0, 77, {"1.3.6.1.4.1.2.2.1.1.1.0"}), 0xa0,
         "1.3.6.1.4.1.2.2.1.1.1.0", 77, 0},
        {"close", vx_hex("41 01 05"), 0x41, "", 5, 0},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        vx_smux_msg m;
        ASSERT_TRUE(vx_smux_parse(r.pdu, &m)) << vx_to_hex(r.pdu);
        EXPECT_EQ(m.type, r.type);
        if (r.type == 0x62) {
            EXPECT_EQ(m.oid, r.oid);
            EXPECT_EQ(m.priority, r.a);
            EXPECT_EQ(m.operation, r.b);
        } else if (r.type == 0xa0) {
            ASSERT_EQ(m.vb_names.size(), 1u);
            EXPECT_EQ(m.vb_names[0], r.oid);
            EXPECT_EQ(m.request_id, r.a);
            EXPECT_EQ(m.vb_values[0], vx_hex("05 00"));
        } else {
            EXPECT_EQ(m.code, r.a);
        }
        // Every truncation is refused.
        for (size_t n = 0; n < r.pdu.size(); ++n) {
            vx_bytes cut(r.pdu.begin(), r.pdu.begin() + static_cast<long>(n));
            EXPECT_FALSE(vx_smux_parse(cut, &m)) << n;
        }
    }
    EXPECT_EQ(vx_dpi_register(3, "1.3.6.1.4.1.2.6."),
              vx_hex("00 1f 02 02 00 00 03 06 ff ff ff ff 00 00 00 00"
                     "31 2e 33 2e 36 2e 31 2e 34 2e 31 2e 32 2e 36 2e 00"));
}
