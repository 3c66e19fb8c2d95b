// The session's timing of its RReqs, the daemon's modules linked in and its clock driven by
// the test; the RReq goes to a loopback connection and is read with the library's codec.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "registry.h"
#include "smux_ed.h"
#include "snmp_container.h"
#include "varnex2.h"
#include "vx_peers.h"

// RReqs wait for the agent connection to be quiet (a request may be on its way), but never
// for long.
TEST(RegistryTable, RReqsWaitForAQuietAgentButNotForLong) {
    tracing = 0;
    int listen_fd = vx_tcp_listen(0);
    ASSERT_GE(listen_fd, 0);
    smux_fd = vx_tcp_connect(vx_local_port(listen_fd));
    vx_stream agent;
    agent.fd = vx_tcp_accept(listen_fd, 2000);
    ASSERT_TRUE(smux_fd >= 0 && agent.fd >= 0);
    session_opened();
    std::string subtree = "1.3.6.1.4.1.5";
    ASSERT_EQ(register_object(subtree.data(), open("/dev/null", O_RDONLY | O_CLOEXEC)), 0);

    const int64_t now = vx_now_ns();
    session_activity(now);
    EXPECT_EQ(session_flush(now), 0);
    int64_t next = session_next_flush();
    EXPECT_GT(next, now);
    EXPECT_LE(next, now + 1'000'000'000);  // idle: well within a second
    // Under traffic that never pauses for more than 50 us it still goes within seconds; once
    // it is out, nothing is due until its answer.
    int64_t t = now;
    while (t < now + 5'000'000'000 && session_next_flush() != INT64_MAX) {
        t += 50'000;
        EXPECT_EQ(session_flush(t), 0);
        session_activity(t);
    }
    EXPECT_LT(t, now + 5'000'000'000);
    vx_bytes b;
    smux_pdu* m = nullptr;
    ASSERT_TRUE(vx_stream_take(&agent, &b, 1000, [](const vx_bytes& p) {
        return p.size() < 2 ? size_t{0} : size_t{p[1]} + 2;  // an RReq is short
    }));
    ASSERT_EQ(smux_decode_message(b.data(), static_cast<uint32_t>(b.size()), &m), 0);
    EXPECT_EQ(m->type, SMUX_PDU_RREQ);
    char* text = snmp_oid_to_string(m->oid);
    EXPECT_STREQ(text, subtree.c_str());
    free(text);

    registry_release();
    session_release();
    close(smux_fd);
    smux_fd = -1;
    close(agent.fd);
    close(listen_fd);
}
