// The daemon's SMUX session, against a master agent played by the test on 127.0.0.1:199 in a
// private namespace: the open and its identity, registrations and their replay, the PDUs
// that end a session, and requests that arrive in pieces or several to a read.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "daemon_peers.h"

namespace {

// One packet dump as the daemon writes it: 16 bytes a line, each followed by a blank or,
// the 16th, by a line end; then an empty line.
std::string dump_of(const bytes& b, const char* label, int count) {
    std::string out = "# Dump of " + std::to_string(b.size()) + " byte " + label +
                      " packet, count " + std::to_string(count) + "\n";
    char two[3];
    for (size_t i = 0; i < b.size(); i++) {
        snprintf(two, sizeof two, "%02x", b[i]);
        out += two;
        out += i % 16 == 15 ? "\n" : " ";
    }
    return out + "\n";
}

}  // namespace

// The OpenPDU carries the identity and password of the first peers line that names the
// daemon; the registration of the DPI port object follows at once. The password is not kept.
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
         "\"varnex2\" \"1.3.6.1.4.1.99999.1\" \"secret\" # the daemon\nvarnex2 1.3.6.1.4.1.5 x\n",
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
        {"an over-long line goes on as the next line", long_line + "varnex2 1.3.6.1.4.1.77 cut\n",
         "1.3.6.1.4.1.77", "cut", 2},
    };
    daemon_session s;
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        vx_stop(&s.daemon);
        agent_hang_up(&s);
        ASSERT_TRUE(vx_write_peers_file(r.peers.c_str()));
        ASSERT_TRUE(vx_write_file(vx_test_dir() + "/varnex2.log", ""));
        ASSERT_TRUE(start_session(&s, {"-d", "160"}, true, r.oid, r.password.c_str()));
        std::string trace = "Using line " + std::to_string(r.line) + ": varnex2 " + r.oid + "\n";
        EXPECT_NE(daemon_log(&s).find(trace), std::string::npos) << daemon_log(&s);
    }
    // The password is wiped after every open: when the file no longer names the daemon, the
    // next open sends the identity it knows with an empty password.
    ASSERT_TRUE(vx_write_peers_file("# emptied\n"));
    agent_hang_up(&s);
    ASSERT_TRUE(accept_reopen(&s, "1.3.6.1.4.1.77", ""));
}

// An open that cannot be made closes the new connection without a byte, and the next
// attempt, at most 5 seconds later, reads the peers file anew.
TEST(DaemonSmux, FailedOpenClosesAndRetries) {
    ENTER_NAMESPACE_OR_SKIP(nullptr);
    struct row {
        const char* name;
        std::string peers;
        const char* message;
    } rows[] = {
        {"no line for the name", "other 1.3.6.1.4.1.1 x\n", "Cannot create identity\n"},
        {"identity is not an OID", "varnex2 1.3.6..1 x\n", "Cannot create identity\n"},
        {"password of 256 characters",
         "varnex2 1.3.6.1.4.1.99999.1 " + std::string(256, 'p') + "\n", "is too long"},
    };
    daemon_session s;
    ASSERT_TRUE(agent_listen(&s));
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        ASSERT_TRUE(vx_write_peers_file(r.peers.c_str()));
        ASSERT_TRUE(vx_write_file(vx_test_dir() + "/varnex2.log", ""));
        vx_stop(&s.daemon);
        std::string why;
        ASSERT_TRUE(vx_start_varnex2(&s.daemon, {"-d", "32"}, nullptr, &why)) << why;
        ASSERT_TRUE(agent_accept(&s, 3000)) << daemon_log(&s);
        expect_hang_up(&s);
        ASSERT_TRUE(vx_wait_for_text(s.daemon.log_path, "Error on SMUXopen\n", 3000));
        EXPECT_NE(daemon_log(&s).find(r.message), std::string::npos) << daemon_log(&s);
    }
    ASSERT_TRUE(vx_write_peers_file(VX_TEST_PEERS_TEXT));
    ASSERT_TRUE(attach_session(&s, 7500, true));
    EXPECT_EQ(vx_count_in_file(s.daemon.log_path, "connected to agent"), 1);
}

// ClosePDU, a refused registration, the end of the stream and bytes that do not decode each
// end the session; the daemon comes back with a new open and registers anew.
TEST(DaemonSmux, SessionEndsAndComesBack) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    struct row {
        const char* name;
        const char* send;
        size_t zeros;  // sent after `send`
        bool hang_up;  // the agent ends the stream after sending
        const char* message;
    } rows[] = {
        {"ClosePDU", "41 01 00", 0, false, "SMUX CLOSE received\n"},
        {"RRsp -1", "43 01 ff", 0, false, "Registration failed\n"},
        {"RRsp -1 in four octets", "43 04 ff ff ff ff", 0, false, "Registration failed\n"},
        {"agent hangs up", "", 0, true, "EOF received on SMUX fd: "},
        {"stream ends inside a PDU", "a0 0c 02 01", 0, true, "rc=-12 from smux_decode_message()\n"},
        {"unknown PDU", "45 01 00", 0, false, "rc=-21 from smux_decode_message()\n"},
        {"PDU larger than the buffer", "a0 82 10 04", 4100, false,
         "rc=-5 from smux_decode_message()\n"},
    };
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    int lost = 0;
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        ASSERT_TRUE(agent_send(&s, cat({vx_hex(r.send), bytes(r.zeros, 0)})));
        if (r.hang_up) {
            agent_hang_up(&s);
        } else {
            expect_hang_up(&s);
        }
        ASSERT_TRUE(
            vx_wait_for_text(s.daemon.log_path, "Lost connection to agent\n", 3000, ++lost));
        EXPECT_NE(daemon_log(&s).find(r.message), std::string::npos) << daemon_log(&s);
        ASSERT_TRUE(accept_reopen(&s));
        // Every session starts with nothing registered, so the port object goes out again.
        expect_next(&s, smux_rreq(DPI_PORT_OBJECT, 2));
        ASSERT_TRUE(agent_send(&s, vx_hex("43 01 00")));
    }
}

// The agent's bytes form a stream: PDUs are taken from it whole however the reads cut it.
// The port object answers Gets and GetNexts that reach it and refuses a Set.
TEST(DaemonSmux, RequestsAcrossReadBoundaries) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    const bytes port = vx_ber_int(0x02, s.dpi_port);
    const char* const sys_descr = "1.3.6.1.2.1.1.1.0";
    auto get = [](int id) { return snmp_pdu_bytes(0xa0, id, 0, 0, {{DPI_PORT_INSTANCE, {}}}); };
    auto answer = [&](int id) {
        return snmp_pdu_bytes(0xa2, id, 0, 0, {{DPI_PORT_INSTANCE, port}});
    };
    auto part = [](const bytes& b, size_t from, size_t to) {
        return bytes(b.begin() + from, b.begin() + std::min(to, b.size()));
    };
    const bytes get3 = get(3), get4 = get(4), get7 = get(7);
    struct row {
        const char* name;
        std::vector<bytes> writes;  // each written on its own, 100 ms apart
        std::vector<bytes> answers;
    } rows[] = {
        {"one Get", {get(1)}, {answer(1)}},
        {"SOut and Get in one write", {cat({vx_hex("44 01 00"), get(2)})}, {answer(2)}},
        {"Get split after five bytes", {part(get3, 0, 5), part(get3, 5, 99)}, {answer(3)}},
        {"Get split after its tag", {part(get4, 0, 1), part(get4, 1, 99)}, {answer(4)}},
        {"two Gets in one write", {cat({get(5), get(6)})}, {answer(5), answer(6)}},
        {"a Get and the start of the next",
         {cat({get(8), part(get7, 0, 9)}), part(get7, 9, 99)},
         {answer(8), answer(7)}},
        {"long-form lengths", {vx_smux_request(0xa0, 11, {DPI_PORT_INSTANCE})}, {answer(11)}},
        {"RRsp and SOut before a Get", {cat({vx_hex("43 01 03 44 01 01"), get(12)})}, {answer(12)}},
        {"PDUs the agent should not send are passed over",
         {cat({smux_open("1.3.6.1.4.1.1", "x", ""), smux_rreq("1.3.6.1.4.1.1", 2),
               snmp_pdu_bytes(0xa2, 1, 0, 0, {}), smux_trap("1.3.6.1.4.1.1", 6, 1), get(13)})},
         {answer(13)}},
        {"GetNext before the port object",
         {snmp_pdu_bytes(0xa1, 14, 0, 0, {{"1.3.6.1", {}}})},
         {answer(14)}},
        {"GetNext from the port object",
         {snmp_pdu_bytes(0xa1, 15, 0, 0, {{DPI_PORT_INSTANCE, {}}})},
         {snmp_pdu_bytes(0xa2, 15, 2, 1, {{DPI_PORT_INSTANCE, {}}})}},
        {"Get of the object, not its instance",
         {snmp_pdu_bytes(0xa0, 16, 0, 0, {{DPI_PORT_OBJECT, {}}})},
         {snmp_pdu_bytes(0xa2, 16, 2, 1, {{DPI_PORT_OBJECT, {}}})}},
        {"Set of the port object is refused at binding 1",
         {snmp_pdu_bytes(0xa3, 17, 0, 0, {{DPI_PORT_INSTANCE, vx_ber_int(0x02, 5)}})},
         {snmp_pdu_bytes(0xa2, 17, 2, 1, {{DPI_PORT_INSTANCE, vx_ber_int(0x02, 5)}})}},
        {"the second of three bindings fails: later ones are left as they came",
         {snmp_pdu_bytes(0xa0, 18, 0, 0,
                         {{DPI_PORT_INSTANCE, {}}, {sys_descr, {}}, {DPI_PORT_INSTANCE, {}}})},
         {snmp_pdu_bytes(0xa2, 18, 2, 2,
                         {{DPI_PORT_INSTANCE, port}, {sys_descr, {}}, {DPI_PORT_INSTANCE, {}}})}},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        for (size_t i = 0; i < r.writes.size(); i++) {
            if (i > 0) {
                usleep(100 * 1000);
            }
            ASSERT_TRUE(agent_send(&s, r.writes[i]));
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
    const std::string trap = vx_to_hex(smux_trap(VX_TEST_PEER_OID, 0, 0));
    ASSERT_TRUE(agent_send(&s, vx_hex("43 01 00 43 04 00 00 00 01 43 01 02")));
    for (int i = 0; i < 3; i++) {
        bytes got;
        ASSERT_EQ(agent_read(&s, &got, 3000), PEER_OK);
        EXPECT_EQ(vx_to_hex(got), trap);
    }
    ASSERT_TRUE(agent_send(&s, vx_hex("43 01 ff")));
    bytes got;
    EXPECT_EQ(agent_read(&s, &got, 3000), PEER_EOF) << vx_to_hex(got);
}

// The agent forgets a closed session's registrations: the next session announces every
// distinct subtree again, in table order, each once, and the subagents do not notice. A
// subtree the agent refused, which ends the session, is not offered again while it is held,
// so it cannot make the daemon reconnect forever. A subtree held twice is withdrawn when its
// last holder leaves, and one the agent does not hold is never withdrawn.
TEST(DaemonSmux, SubtreesReplayedAfterReopen) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    vx_stream a = subagent(&s), b = subagent(&s), c = subagent(&s);
    register_subagent(&s, &a, "1.3.6.1.4.1.2.6.1.", 1);
    register_subagent(&s, &b, "1.3.6.1.2.1.99.", 2);
    register_subagent(&s, &c, "1.3.6.1.4.1.2.6.1.", 3, false);
    expect_silence(&s, 300);
    auto expect_replay = [&](std::vector<const char*> subtrees) {
        for (const char* subtree : subtrees) {
            expect_next(&s, smux_rreq(subtree, 2));
        }
        expect_silence(&s, 300);
    };

    agent_hang_up(&s);
    ASSERT_TRUE(accept_reopen(&s));
    expect_replay({"1.3.6.1.2.1.99", DPI_PORT_OBJECT, "1.3.6.1.4.1.2.6.1"});
    agent_hang_up(&s);
    ASSERT_TRUE(accept_reopen(&s));
    s.auto_rrsp = false;
    expect_replay({"1.3.6.1.2.1.99", DPI_PORT_OBJECT, "1.3.6.1.4.1.2.6.1"});
    ASSERT_TRUE(agent_send(&s, vx_hex("43 01 00 43 01 00 43 01 ff")));
    expect_hang_up(&s);
    s.auto_rrsp = true;
    ASSERT_TRUE(accept_reopen(&s));
    expect_replay({"1.3.6.1.2.1.99", DPI_PORT_OBJECT});
    for (vx_stream* sa : {&a, &b, &c}) {
        expect_served(sa, 9);
    }

    close(c.fd);
    close(a.fd);
    expect_silence(&s, 300);
    close(b.fd);
    expect_next(&s, smux_rreq("1.3.6.1.2.1.99", 0));
}

// A request that arrives while an RReq is unanswered shows that the agent took the RReq as
// its answer: the request goes unanswered (and reaches no subagent), and the RReq is sent
// again. Adds and deletes alike, also when the Get that ate it starts a Set that the agent
// then rolls back.
TEST(DaemonSmux, RReqTakenAsAnAnswerIsSentAgain) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    s.auto_rrsp = false;
    const std::string group = "1.3.6.1.4.1.2.6.1";
    const bytes add = smux_rreq(group, 2), del = smux_rreq(group, 0);
    const bytes get = snmp_pdu_bytes(0xa0, 1, 0, 0, {{group + ".1.0", {}}});
    vx_stream sa = subagent(&s);
    register_subagent(&s, &sa, group + ".", 1, false);

    expect_next(&s, add);
    ASSERT_TRUE(agent_send(&s, get));  // eats the add
    expect_next(&s, add);
    ASSERT_TRUE(agent_send(&s, vx_smux_rrsp(0)));
    // Nothing is unanswered now: a Get is forwarded, once.
    ASSERT_TRUE(agent_send(&s, get));
    vx_dpi_msg q;
    ASSERT_TRUE(vx_dpi_next(&sa, &q, 3000));
    EXPECT_EQ(q.type, 1);
    ASSERT_TRUE(vx_send_all(sa.fd, vx_dpi_response(q.packet_id, 0, q.group, "1.0", 129,
                                                   vx_hex("00 00 00 07"))));
    bytes answer;
    ASSERT_EQ(agent_next(&s, &answer, 3000), PEER_OK);
    EXPECT_EQ(answer[0], 0xa2);

    // The subagent leaves; the delete is eaten by a Get, then by a Set's Get, whose rollback
    // follows; only then is it answered. The subagent, gone, saw none of it.
    close(sa.fd);
    expect_next(&s, del);
    ASSERT_TRUE(agent_send(&s, get));
    expect_next(&s, del);
    ASSERT_TRUE(agent_send(&s, cat({get, vx_hex("44 01 01")})));
    expect_next(&s, del);
    ASSERT_TRUE(agent_send(&s, vx_smux_rrsp(0)));
    expect_silence(&s, 300);
    EXPECT_EQ(vx_count_in_file(s.daemon.log_path, "RReq taken by the agent as an answer"), 3);
    EXPECT_EQ(vx_count_in_file(s.daemon.log_path, "Lost connection"), 0);
}

// At Internal-lvl3 every packet either way is dumped, numbered from 1, with the library
// banner before the first dump only; results are traced even when they are 0.
TEST(DaemonSmux, PacketDumpsAtLevelThree) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {"-d", "128"}, false));
    const bytes rrsp = vx_hex("43 01 00");
    ASSERT_TRUE(agent_send(&s, rrsp));
    bytes trap;
    ASSERT_EQ(agent_read(&s, &trap, 3000), PEER_OK);

    vx_stream sa = subagent(&s);
    const bytes ayt = vx_dpi_simple(0x0a0b, 15);
    ASSERT_TRUE(vx_send_all(sa.fd, ayt));
    bytes answer;
    ASSERT_TRUE(vx_dpi_read(&sa, &answer, 3000));
    close(sa.fd);

    const std::string dumps[] = {
        dump_of(smux_open(VX_TEST_PEER_OID, s.banner, VX_TEST_PEER_PASSWORD), "SMUXsend", 1),
        dump_of(smux_rreq(DPI_PORT_OBJECT, 2), "SMUXsend", 2),
        dump_of(rrsp, "Incoming SMUX packet", 3),
        dump_of(trap, "SMUXsend", 4),
        dump_of(ayt, "Incoming DPI packet", 5),
        dump_of(answer, "Outgoing DPI packet", 6),
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
    for (const char* line : {"rc=0 from SMUXopen()\n", "rc=0 from smux_encode_message()\n",
                             "Using line 1: varnex2 1.3.6.1.4.1.99999.1\n"}) {
        EXPECT_NE(log.find(line), std::string::npos) << line;
    }
}
