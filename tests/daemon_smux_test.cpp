// The daemon's SMUX session, against a master agent played by the test on 127.0.0.1:199 in a
// private namespace: the open and its identity, registrations and their replay, the PDUs
// that end a session, and requests that arrive in pieces or several to a read.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "daemon_peers.h"

namespace {

void expect_next(daemon_session* s, const bytes& expected, int timeout_ms = 5000) {
    bytes got;
    ASSERT_EQ(fake_agent_next(&s->agent, &got, timeout_ms), PEER_OK) << daemon_log(s);
    EXPECT_EQ(vx_to_hex(got), vx_to_hex(expected));
}

void expect_silence(daemon_session* s, int ms) {
    bytes got;
    EXPECT_EQ(fake_agent_next(&s->agent, &got, ms), PEER_TIMEOUT) << "unexpected " << vx_to_hex(got);
}

// The daemon ends the session: the agent sees the end of the stream, nothing before it.
void expect_hang_up(daemon_session* s) {
    bytes got;
    EXPECT_EQ(fake_agent_next(&s->agent, &got, 3000), PEER_EOF) << "got " << vx_to_hex(got);
}

// A subagent that opens a connection and registers `group` (with its final dot).
int register_subagent(daemon_session* s, const std::string& group, uint16_t id) {
    int fd = vx_tcp_connect(s->dpi_port);
    EXPECT_GE(fd, 0);
    EXPECT_TRUE(vx_send_all(fd, vx_dpi_register(id, group)));
    bytes answer;
    EXPECT_EQ(dpi_read(fd, &answer, 5000), PEER_OK);
    EXPECT_EQ(vx_to_hex(answer), vx_to_hex(vx_dpi_response(id, 0)));
    return fd;
}

// One packet dump as the daemon writes it: 16 bytes a line, each followed by a blank or,
// the 16th, by a line end; then an empty line.
std::string dump_of(const bytes& b, const char* label, int count) {
    std::string out = "# Dump of " + std::to_string(b.size()) + " byte " + label + " packet, count " +
                      std::to_string(count) + "\n";
    char two[3];
    for (size_t i = 0; i < b.size(); i++) {
        snprintf(two, sizeof two, "%02x", b[i]);
        out += two;
        out += i % 16 == 15 ? "\n" : " ";
    }
    return out + "\n";
}

std::string peer_log_path() {
    return vx_test_dir() + "/varnex2.log";
}

}  // namespace

// The OpenPDU carries the identity and password of the first peers line that names the
// daemon; the registration of the DPI port object follows at once.
TEST(DaemonSmux, OpenTakesIdentityFromPeersFile) {
    ENTER_NAMESPACE_OR_SKIP(nullptr);
    const std::string long_pw(255, 'p');
    const std::string long_line(8191, 'x');
    struct row {
        const char* name;
        std::string peers;
        const char* oid;
        std::string password;
        int line;
    } rows[] = {
        {"comments and quotes, match on line 3",
         "# SMUX peers\nother 1.3.6.1.4.1.1 nope\n"
         "\"varnex2\" \"1.3.6.1.4.1.99999.1\" \"secret\" # the daemon\nvarnex2 1.3.6.1.4.1.5 later\n",
         "1.3.6.1.4.1.99999.1", "secret", 3},
        {"name and identity only: empty password", "varnex2 1.3.6.1.4.1.99999.1\n",
         "1.3.6.1.4.1.99999.1", "", 1},
        {"tabs and ignored fields", "varnex2\t1.3.6.1.4.1.4242.7\tpw\t7 more fields\n",
         "1.3.6.1.4.1.4242.7", "pw", 1},
        {"names compare case-sensitively",
         "VARNEX2 1.3.6.1.4.1.1 x\nvarnex2 1.3.6.1.4.1.99999.1 secret\n", "1.3.6.1.4.1.99999.1",
         "secret", 2},
        {"password of 255 characters", "varnex2 1.3.6.1.4.1.99999.1 " + long_pw + "\n",
         "1.3.6.1.4.1.99999.1", long_pw, 1},
        {"an over-long line goes on as the next line",
         long_line + "varnex2 1.3.6.1.4.1.77 cut\n", "1.3.6.1.4.1.77", "cut", 2},
    };
    daemon_session s;
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        ASSERT_TRUE(vx_write_peers_file(r.peers.c_str()));
        ASSERT_TRUE(vx_write_file(peer_log_path(), ""));
        ASSERT_TRUE(start_session(&s, {"-d", "160"}, true, r.oid, r.password.c_str()));
        std::string trace = "Using line " + std::to_string(r.line) + ": varnex2 " + r.oid + "\n";
        EXPECT_NE(daemon_log(&s).find(trace), std::string::npos) << daemon_log(&s);
        vx_stop(&s.daemon);
        fake_agent_hang_up(&s.agent);
    }
}

// An open that cannot be made closes the new connection without a byte and is tried again
// with the peers file read anew.
TEST(DaemonSmux, FailedOpenClosesAndRetries) {
    ENTER_NAMESPACE_OR_SKIP("other 1.3.6.1.4.1.1 x\n");
    struct row {
        const char* name;
        std::string peers;
        const char* message;
    } rows[] = {
        {"no line for the name", "other 1.3.6.1.4.1.1 x\n", "Cannot create identity\n"},
        {"identity is not an OID", "varnex2 1.3.6..1 x\n", "Cannot create identity\n"},
        {"password of 256 characters", "varnex2 1.3.6.1.4.1.99999.1 " + std::string(256, 'p') + "\n",
         "is too long"},
    };
    daemon_session s;
    std::string why;
    ASSERT_TRUE(fake_agent_listen(&s.agent));
    ASSERT_TRUE(vx_start_varnex2(&s.daemon, {"-d", "32"}, nullptr, &why)) << why;
    int failures = 0;
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        ASSERT_TRUE(vx_write_peers_file(r.peers.c_str()));
        ASSERT_TRUE(fake_agent_accept(&s.agent, 7500)) << daemon_log(&s);
        expect_hang_up(&s);
        failures++;
        ASSERT_TRUE(vx_wait_for_text(s.daemon.log_path, "Error on SMUXopen\n", 3000, failures));
        EXPECT_NE(daemon_log(&s).find(r.message), std::string::npos) << daemon_log(&s);
    }
    ASSERT_TRUE(vx_write_peers_file(VX_TEST_PEERS_TEXT));
    ASSERT_TRUE(attach_session(&s, 7500, true));
    EXPECT_EQ(vx_count_in_file(s.daemon.log_path, "connected to agent"), 1);
}

// The password is wiped after every open; a later open sends the identity it knows with an
// empty password when the file no longer names the daemon.
TEST(DaemonSmux, PasswordNotKeptAcrossOpens) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    ASSERT_TRUE(vx_write_peers_file("# emptied\n"));
    fake_agent_hang_up(&s.agent);
    ASSERT_TRUE(accept_reopen(&s, 7500, VX_TEST_PEER_OID, ""));
}

// ClosePDU, a refused registration, the end of the stream and bytes that do not decode each
// end the session; the daemon is back within 5 seconds with a new open.
TEST(DaemonSmux, SessionEndsAndComesBack) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    struct row {
        const char* name;
        bytes send;
        bool hang_up;  // the agent ends the stream after sending
        const char* message;
    } rows[] = {
        {"ClosePDU", vx_hex("41 01 00"), false, "SMUX CLOSE received\n"},
        {"RRsp -1", vx_hex("43 01 ff"), false, "Registration failed\n"},
        {"RRsp -1 in four octets", vx_hex("43 04 ff ff ff ff"), false, "Registration failed\n"},
        {"agent hangs up", {}, true, "EOF received on SMUX fd: "},
        {"stream ends inside a PDU", vx_hex("a0 0c 02 01"), true, "rc=-12 from smux_decode_message()\n"},
        {"unknown PDU", vx_hex("45 01 00"), false, "rc=-21 from smux_decode_message()\n"},
        {"PDU larger than the buffer", cat({vx_hex("a0 82 10 04"), bytes(4100, 0)}), false,
         "rc=-5 from smux_decode_message()\n"},
    };
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    int lost = 0;
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        ASSERT_TRUE(fake_agent_send(&s.agent, r.send));
        if (r.hang_up) {
            fake_agent_hang_up(&s.agent);
        } else {
            expect_hang_up(&s);
        }
        lost++;
        ASSERT_TRUE(vx_wait_for_text(s.daemon.log_path, "Lost connection to agent\n", 3000, lost));
        EXPECT_NE(daemon_log(&s).find(r.message), std::string::npos) << daemon_log(&s);
        ASSERT_TRUE(accept_reopen(&s, 7500, VX_TEST_PEER_OID, VX_TEST_PEER_PASSWORD));
        // Every session starts with nothing registered, so the port object goes out again.
        expect_next(&s, smux_rreq(DPI_PORT_OBJECT, 2));
        ASSERT_TRUE(fake_agent_send(&s.agent, smux_rrsp(0)));
    }
}

// The agent's bytes form a stream: PDUs are taken from it whole however the reads cut it.
TEST(DaemonSmux, RequestsAcrossReadBoundaries) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    const bytes port = vx_ber_int(0x02, s.dpi_port);
    auto get = [](int id, const char* oid) {
        return snmp_pdu_bytes(0xa0, id, 0, 0, {{oid, {}}});
    };
    auto answer = [&](int id) {
        return snmp_pdu_bytes(0xa2, id, 0, 0, {{DPI_PORT_INSTANCE, port}});
    };
    // The real agent writes request lengths in the long form.
    const bytes oid = vx_ber_oid(DPI_PORT_INSTANCE);
    const bytes binding = cat({vx_hex("30 82 00"), {static_cast<uint8_t>(oid.size() + 2)}, oid, vx_hex("05 00")});
    const bytes list = cat({vx_hex("30 82 00"), {static_cast<uint8_t>(binding.size())}, binding});
    const bytes body = cat({vx_hex("02 01 0b 02 01 00 02 01 00"), list});
    const bytes long_form = cat({vx_hex("a0 82 00"), {static_cast<uint8_t>(body.size())}, body});
    const bytes get3 = get(3, DPI_PORT_INSTANCE);
    const bytes get4 = get(4, DPI_PORT_INSTANCE);
    const bytes get7 = get(7, DPI_PORT_INSTANCE);

    struct row {
        const char* name;
        std::vector<bytes> writes;  // each written on its own, 100 ms apart
        std::vector<bytes> answers;
    } rows[] = {
        {"one Get", {get(1, DPI_PORT_INSTANCE)}, {answer(1)}},
        {"SOut and Get in one write", {cat({vx_hex("44 01 00"), get(2, DPI_PORT_INSTANCE)})}, {answer(2)}},
        {"Get split after five bytes",
         {bytes(get3.begin(), get3.begin() + 5), bytes(get3.begin() + 5, get3.end())},
         {answer(3)}},
        {"Get split after its tag", {vx_hex("a0"), bytes(get4.begin() + 1, get4.end())},
         {answer(4)}},
        {"two Gets in one write", {cat({get(5, DPI_PORT_INSTANCE), get(6, DPI_PORT_INSTANCE)})},
         {answer(5), answer(6)}},
        {"a Get and the start of the next",
         {cat({get(8, DPI_PORT_INSTANCE), bytes(get7.begin(), get7.begin() + 9)}),
          bytes(get7.begin() + 9, get7.end())},
         {answer(8), answer(7)}},
        {"long-form lengths", {long_form}, {answer(11)}},
        {"RRsp and SOut before a Get", {cat({smux_rrsp(3), vx_hex("44 01 01"), get(12, DPI_PORT_INSTANCE)})},
         {answer(12)}},
        {"PDUs the agent should not send are passed over",
         {cat({smux_open("1.3.6.1.4.1.1", "x", ""), smux_rreq("1.3.6.1.4.1.1", 2),
               snmp_pdu_bytes(0xa2, 1, 0, 0, {}), smux_trap("1.3.6.1.4.1.1", 6, 1),
               get(13, DPI_PORT_INSTANCE)})},
         {answer(13)}},
        {"GetNext before the port object",
         {snmp_pdu_bytes(0xa1, 14, 0, 0, {{"1.3.6.1", {}}})},
         {answer(14)}},
        {"Set of the port object is refused at binding 1",
         {snmp_pdu_bytes(0xa3, 15, 0, 0, {{DPI_PORT_INSTANCE, vx_ber_int(0x02, 5)}})},
         {snmp_pdu_bytes(0xa2, 15, 2, 1, {{DPI_PORT_INSTANCE, vx_ber_int(0x02, 5)}})}},
        {"the second of three bindings fails: later ones are left as they came",
         {snmp_pdu_bytes(0xa0, 16, 0, 0,
                         {{DPI_PORT_INSTANCE, {}}, {"1.3.6.1.2.1.1.1.0", {}}, {DPI_PORT_INSTANCE, {}}})},
         {snmp_pdu_bytes(0xa2, 16, 2, 2,
                         {{DPI_PORT_INSTANCE, port}, {"1.3.6.1.2.1.1.1.0", {}}, {DPI_PORT_INSTANCE, {}}})}},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        for (size_t i = 0; i < r.writes.size(); i++) {
            if (i > 0) {
                usleep(100 * 1000);
            }
            ASSERT_TRUE(fake_agent_send(&s.agent, r.writes[i]));
        }
        for (const bytes& a : r.answers) {
            expect_next(&s, a);
        }
    }
    expect_silence(&s, 300);
    EXPECT_EQ(vx_count_in_file(s.daemon.log_path, "SMUX SOUT received\n"), 2);
    EXPECT_EQ(vx_count_in_file(s.daemon.log_path, "Unexpected SMUX request\n"), 4);
    EXPECT_EQ(vx_count_in_file(s.daemon.log_path, "Lost connection"), 0);
}

// Each registration the agent accepts is followed by a coldStart trap from the daemon's
// identity; a refusal is not.
TEST(DaemonSmux, TrapAfterEachAcceptedRegistration) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}, false));
    const bytes trap = smux_trap(VX_TEST_PEER_OID, 0, 0);
    bytes got;
    ASSERT_TRUE(fake_agent_send(&s.agent, smux_rrsp(0)));
    ASSERT_EQ(fake_agent_read(&s.agent, &got, 3000), PEER_OK);
    EXPECT_EQ(vx_to_hex(got), vx_to_hex(trap));
    ASSERT_TRUE(fake_agent_send(&s.agent, cat({vx_hex("43 04 00 00 00 01"), smux_rrsp(2)})));
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(fake_agent_read(&s.agent, &got, 3000), PEER_OK);
        EXPECT_EQ(vx_to_hex(got), vx_to_hex(trap));
    }
    ASSERT_TRUE(fake_agent_send(&s.agent, smux_rrsp(-1)));
    EXPECT_EQ(fake_agent_read(&s.agent, &got, 3000), PEER_EOF) << vx_to_hex(got);
}

// The agent forgets a closed session's registrations: the next session announces the
// subagents' subtrees again, in table order, each once.
TEST(DaemonSmux, SubtreesReplayedAfterReopen) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    int a = register_subagent(&s, "1.3.6.1.4.1.2.6.1.", 1);
    expect_next(&s, smux_rreq("1.3.6.1.4.1.2.6.1", 2));
    int b = register_subagent(&s, "1.3.6.1.2.1.99.", 2);
    expect_next(&s, smux_rreq("1.3.6.1.2.1.99", 2));

    fake_agent_hang_up(&s.agent);
    ASSERT_TRUE(accept_reopen(&s, 7500, VX_TEST_PEER_OID, VX_TEST_PEER_PASSWORD));
    expect_next(&s, smux_rreq("1.3.6.1.2.1.99", 2));
    expect_next(&s, smux_rreq(DPI_PORT_OBJECT, 2));
    expect_next(&s, smux_rreq("1.3.6.1.4.1.2.6.1", 2));
    expect_silence(&s, 500);

    // The subagents did not notice.
    for (int fd : {a, b}) {
        bytes answer;
        ASSERT_TRUE(vx_send_all(fd, vx_dpi_simple(9, 15)));
        ASSERT_EQ(dpi_read(fd, &answer, 3000), PEER_OK);
        EXPECT_EQ(vx_to_hex(answer), vx_to_hex(vx_dpi_response(9, 0)));
    }
    close(a);
    close(b);
}

// After the agent refused a registration, the next session announces only the port object,
// so a subtree the agent will not take cannot make the daemon reconnect forever. A session
// that ends otherwise replays the table again.
TEST(DaemonSmux, NoReplayAfterRefusal) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    int a = register_subagent(&s, "1.3.6.1.2.1.1.5.", 1);
    expect_next(&s, smux_rreq("1.3.6.1.2.1.1.5", 2));
    ASSERT_TRUE(fake_agent_send(&s.agent, smux_rrsp(-1)));
    expect_hang_up(&s);

    ASSERT_TRUE(accept_reopen(&s, 7500, VX_TEST_PEER_OID, VX_TEST_PEER_PASSWORD));
    expect_next(&s, smux_rreq(DPI_PORT_OBJECT, 2));
    expect_silence(&s, 500);
    ASSERT_TRUE(fake_agent_send(&s.agent, smux_rrsp(0)));

    fake_agent_hang_up(&s.agent);
    ASSERT_TRUE(accept_reopen(&s, 7500, VX_TEST_PEER_OID, VX_TEST_PEER_PASSWORD));
    expect_next(&s, smux_rreq("1.3.6.1.2.1.1.5", 2));
    expect_next(&s, smux_rreq(DPI_PORT_OBJECT, 2));
    expect_silence(&s, 500);
    close(a);
}

// The agent never holds a subtree twice: a second registration of the same subtree is not
// announced, and the withdrawal goes out when the last holder leaves.
TEST(DaemonSmux, OneRReqPerDistinctSubtree) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    int a = register_subagent(&s, "1.3.6.1.4.1.2.6.1.", 1);
    expect_next(&s, smux_rreq("1.3.6.1.4.1.2.6.1", 2));
    int b = register_subagent(&s, "1.3.6.1.4.1.2.6.1.", 2);
    expect_silence(&s, 500);

    fake_agent_hang_up(&s.agent);
    ASSERT_TRUE(accept_reopen(&s, 7500, VX_TEST_PEER_OID, VX_TEST_PEER_PASSWORD));
    expect_next(&s, smux_rreq(DPI_PORT_OBJECT, 2));
    expect_next(&s, smux_rreq("1.3.6.1.4.1.2.6.1", 2));
    expect_silence(&s, 500);

    close(b);
    expect_silence(&s, 500);
    close(a);
    expect_next(&s, smux_rreq("1.3.6.1.4.1.2.6.1", 0));
}

// At Internal-lvl3 every packet either way is dumped, numbered from 1, with the library
// banner before the first dump only; results are traced even when they are 0.
TEST(DaemonSmux, PacketDumpsAtLevelThree) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {"-d", "128"}, false));
    const bytes open = smux_open(VX_TEST_PEER_OID, s.banner, VX_TEST_PEER_PASSWORD);
    const bytes rrsp = vx_hex("43 01 00");
    ASSERT_TRUE(fake_agent_send(&s.agent, rrsp));
    bytes trap;
    ASSERT_EQ(fake_agent_read(&s.agent, &trap, 3000), PEER_OK);

    int fd = vx_tcp_connect(s.dpi_port);
    ASSERT_GE(fd, 0);
    const bytes ayt = vx_dpi_simple(0x0a0b, 15);
    ASSERT_TRUE(vx_send_all(fd, ayt));
    bytes answer;
    ASSERT_EQ(dpi_read(fd, &answer, 3000), PEER_OK);
    close(fd);

    const std::string dumps[] = {
        dump_of(open, "SMUXsend", 1),           dump_of(smux_rreq(DPI_PORT_OBJECT, 2), "SMUXsend", 2),
        dump_of(rrsp, "Incoming SMUX packet", 3), dump_of(trap, "SMUXsend", 4),
        dump_of(ayt, "Incoming DPI packet", 5),   dump_of(answer, "Outgoing DPI packet", 6),
    };
    ASSERT_TRUE(vx_wait_for_text(s.daemon.log_path, "count 6\n", 3000));
    std::string log = daemon_log(&s);
    size_t at = 0;
    for (const std::string& d : dumps) {
        SCOPED_TRACE(d);
        size_t found = log.find(d, at);
        ASSERT_NE(found, std::string::npos);
        at = found + d.size();
    }
    EXPECT_EQ(vx_count_in_file(s.daemon.log_path, "# Dump of "), 6);
    size_t banner = log.find("# AGENTKIT, 2.0.00, Mar 16 1998, Compiled ");
    EXPECT_LT(banner, log.find("# Dump of "));
    EXPECT_EQ(log.find("# AGENTKIT", banner + 1), std::string::npos);
    EXPECT_NE(log.find("rc=0 from SMUXopen()\n"), std::string::npos);
    EXPECT_NE(log.find("rc=0 from smux_encode_message()\n"), std::string::npos);
    EXPECT_NE(log.find("Using line 1: varnex2 1.3.6.1.4.1.99999.1\n"), std::string::npos);
}

// The agent takes any PDU but a Trap that comes while it waits for an answer as that
// answer: a subagent that goes away during a forwarded request has its withdrawal sent only
// after the GetResponse.
TEST(DaemonSmux, WithdrawalWaitsForTheAnswer) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    int fd = register_subagent(&s, "1.3.6.1.4.1.2.6.1.", 1);
    expect_next(&s, smux_rreq("1.3.6.1.4.1.2.6.1", 2));

    const char* object = "1.3.6.1.4.1.2.6.1.1.0";
    ASSERT_TRUE(fake_agent_send(&s.agent, snmp_pdu_bytes(0xa0, 21, 0, 0, {{object, {}}})));
    bytes request;
    ASSERT_EQ(dpi_read(fd, &request, 3000), PEER_OK);
    ASSERT_GE(request.size(), 8u);
    EXPECT_EQ(request[7], 1) << "a DPI GET: " << vx_to_hex(request);
    close(fd);

    expect_next(&s, snmp_pdu_bytes(0xa2, 21, 5, 1, {{object, {}}}));
    expect_next(&s, smux_rreq("1.3.6.1.4.1.2.6.1", 0));
    expect_silence(&s, 300);
}
