// The daemon's side towards DPI subagents, over real TCP connections in a private namespace
// with a master agent played by the test: answers to session packets, registrations, the
// five subagent slots, packet framing limits and the dropping of misbehaving subagents.
#include <unistd.h>

#include <cstring>
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

// The subagent is still served: an ARE_YOU_THERE gets its answer.
void expect_served(int fd, uint16_t id) {
    bytes answer;
    ASSERT_TRUE(vx_send_all(fd, vx_dpi_simple(id, 15)));
    ASSERT_EQ(dpi_read(fd, &answer, 3000), PEER_OK);
    EXPECT_EQ(vx_to_hex(answer), vx_to_hex(vx_dpi_response(id, 0)));
}

bytes text(const std::string& t) {
    bytes b(t.begin(), t.end());
    b.push_back(0);
    return b;
}

// A REGISTER of `length` bytes on the wire: its first subtree is `group`, and further
// registrations of 1.3.6.1.4.1.2.7.1.1... fill it up exactly.
bytes register_of_length(uint16_t id, const std::string& group, size_t length) {
    bytes body = cat({vx_hex("ff ff ff ff 00 05 00 00"), text(group)});
    size_t fixed = 8 + body.size();  // length field and header, then the first registration
    size_t left = length - fixed;
    while (left > 0) {
        // One registration takes 8 octets and its text with the NUL; the text is at least
        // "1.3.6.1.4.1.2.7." and grows by "1." steps, with "11." to fix an odd count.
        size_t take = left > 4000 ? 4000 : left;
        if (left - take > 0 && left - take < 30) {
            take = left - 30;
        }
        std::string g = "1.3.6.1.4.1.2.7.";
        size_t room = take - 8 - 1;
        if ((room - g.size()) % 2 == 1) {
            g += "11.";
        }
        while (g.size() < room) {
            g += "1.";
        }
        body.insert(body.end(), {0xff, 0xff, 0xff, 0xff, 0x00, 0x05, 0x00, 0x00});
        bytes t = text(g);
        body.insert(body.end(), t.begin(), t.end());
        left -= take;
    }
    return dpi_packet(id, 6, body);
}

}  // namespace

// OPEN, ARE_YOU_THERE and CLOSE are answered with the request's number and error code 0;
// the other packets a subagent may send get no answer and the connection stays.
TEST(DaemonDpi, SessionPacketsAnsweredWithTheirNumber) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    const bytes open_body = cat({vx_hex("00 05 00 01 00"), text("1.3.6.1.4.1.2.6.1"), text("test agent"),
                                 vx_hex("00 02 70 77")});
    struct row {
        const char* name;
        bytes request;
        bool answered;
        uint16_t id;
    } rows[] = {
        {"OPEN", dpi_packet(0x0102, 8, open_body), true, 0x0102},
        {"ARE_YOU_THERE", vx_dpi_simple(0xfffe, 15), true, 0xfffe},
        {"CLOSE", dpi_packet(7, 9, vx_hex("01")), true, 7},
        {"ARE_YOU_THERE after CLOSE", vx_dpi_simple(0, 15), true, 0},
        {"GET", dpi_packet(8, 1, cat({vx_hex("00 00"), text("1.3.6.1.4.1.2.6.1."), text("1.0")})), false, 8},
        {"UNREGISTER", dpi_packet(9, 7, cat({vx_hex("01"), text("1.3.6.1.4.1.2.6.1.")})), false, 9},
        {"RESPONSE", vx_dpi_response(10, 0), false, 10},
        {"COMMIT", dpi_packet(11, 10, cat({vx_hex("00 00"), text("1.3.6.1.4.1.2.6.1."), text("1.0"),
                                            vx_hex("81 00 04 00 00 00 2a")})),
         false, 11},
    };
    int fd = vx_tcp_connect(s.dpi_port);
    ASSERT_GE(fd, 0);
    uint16_t probe = 0x8000;
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        ASSERT_TRUE(vx_send_all(fd, r.request));
        if (r.answered) {
            bytes answer;
            ASSERT_EQ(dpi_read(fd, &answer, 3000), PEER_OK);
            EXPECT_EQ(vx_to_hex(answer), vx_to_hex(vx_dpi_response(r.id, 0)));
        } else {
            // Packets are handled in order, so the probe's answer comes first if nothing
            // answered the packet before it.
            expect_served(fd, probe++);
        }
    }
    close(fd);
}

// A REGISTER is announced to the agent for its first subtree only and answered with 0; one
// that cannot be announced is answered with 101.
TEST(DaemonDpi, RegisterAnnouncedToAgent) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    int fd = vx_tcp_connect(s.dpi_port);
    ASSERT_GE(fd, 0);
    const bytes two = dpi_packet(3, 6, cat({vx_hex("ff ff ff ff 00 05 00 00"), text("1.3.6.1.4.1.2.6.2."),
                                            vx_hex("00 00 00 01 00 00 00 00"), text("1.3.6.1.4.1.2.6.3.")}));
    struct row {
        const char* name;
        bytes request;
        uint8_t code;
        bytes announced;  // empty: nothing reaches the agent
    } rows[] = {
        {"subtree with its final dot", vx_dpi_register(1, "1.3.6.1.4.1.2.6.1."), 0,
         vx_hex("62 10 06 08 2b 06 01 04 01 02 06 01 02 01 ff 02 01 02")},
        {"only the first of two subtrees", two, 0, smux_rreq("1.3.6.1.4.1.2.6.2", 2)},
        {"subtree without a dot", vx_dpi_register(4, "1.3.6.1.4.1.2.6.4"), 0, smux_rreq("1.3.6.1.4.1.2.6.4", 2)},
        {"two final dots", vx_dpi_register(5, "1.3.6.1.4.1.2.6.5.."), 101, {}},
        {"first arc above 2", vx_dpi_register(6, "3.1."), 101, {}},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        ASSERT_TRUE(vx_send_all(fd, r.request));
        bytes answer;
        ASSERT_EQ(dpi_read(fd, &answer, 3000), PEER_OK);
        EXPECT_EQ(vx_to_hex(answer), vx_to_hex(vx_dpi_response(r.request[5] * 256 + r.request[6], r.code)));
        if (r.announced.empty()) {
            expect_silence(&s, 300);
        } else {
            expect_next(&s, r.announced);
        }
    }

    // Without an agent connection the registration cannot be sent: 101, but the subtree is
    // kept and announced with the next session.
    fake_agent_stop_listening(&s.agent);
    fake_agent_hang_up(&s.agent);
    ASSERT_TRUE(vx_wait_for_text(s.daemon.log_path, "Lost connection to agent\n", 3000));
    ASSERT_TRUE(vx_send_all(fd, vx_dpi_register(7, "1.3.6.1.4.1.2.6.7.")));
    bytes answer;
    ASSERT_EQ(dpi_read(fd, &answer, 3000), PEER_OK);
    EXPECT_EQ(vx_to_hex(answer), vx_to_hex(vx_dpi_response(7, 101)));

    std::string why;
    ASSERT_TRUE(fake_agent_listen(&s.agent));
    ASSERT_TRUE(accept_reopen(&s, 7500, VX_TEST_PEER_OID, VX_TEST_PEER_PASSWORD));
    for (const char* subtree : {DPI_PORT_OBJECT, "1.3.6.1.4.1.2.6.1", "1.3.6.1.4.1.2.6.2",
                                "1.3.6.1.4.1.2.6.4", "1.3.6.1.4.1.2.6.7"}) {
        expect_next(&s, smux_rreq(subtree, 2));
    }
    expect_silence(&s, 300);
    close(fd);
}

// Five subagents at a time: a sixth is closed at once without a byte, and a freed slot is
// taken by the next connection.
TEST(DaemonDpi, FiveSlots) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    int fds[5];
    for (int i = 0; i < 5; i++) {
        fds[i] = vx_tcp_connect(s.dpi_port);
        ASSERT_GE(fds[i], 0);
        expect_served(fds[i], static_cast<uint16_t>(i));
    }
    int sixth = vx_tcp_connect(s.dpi_port);
    ASSERT_GE(sixth, 0);
    EXPECT_TRUE(vx_wait_closed(sixth, 3000));
    close(sixth);
    EXPECT_TRUE(vx_wait_for_text(s.daemon.log_path, "Max subagents exceeded\n", 3000));

    // Once a later slot is served, the end of the earlier one has been seen: slots are
    // served in order and the end of the stream was there first.
    close(fds[2]);
    expect_served(fds[4], 50);
    EXPECT_NE(daemon_log(&s).find("EOF received (fd="), std::string::npos);
    int again = vx_tcp_connect(s.dpi_port);
    ASSERT_GE(again, 0);
    expect_served(again, 100);
    for (int i : {0, 1, 3, 4}) {
        expect_served(fds[i], static_cast<uint16_t>(200 + i));
    }
    int seventh = vx_tcp_connect(s.dpi_port);
    ASSERT_GE(seventh, 0);
    EXPECT_TRUE(vx_wait_closed(seventh, 3000));
    EXPECT_EQ(vx_count_in_file(s.daemon.log_path, "Max subagents exceeded\n"), 2);
    for (int fd : {fds[0], fds[1], fds[3], fds[4], again, seventh}) {
        close(fd);
    }
}

// The largest packet taken has a length field of 4094; one more byte and the packet is read
// to its end, reported and its subagent dropped, while others are still served.
TEST(DaemonDpi, PacketLengthLimits) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    int other = vx_tcp_connect(s.dpi_port);
    ASSERT_GE(other, 0);

    int fd = vx_tcp_connect(s.dpi_port);
    ASSERT_GE(fd, 0);
    bytes largest = register_of_length(1, "1.3.6.1.4.1.2.6.1.", 4096);
    ASSERT_EQ(largest.size(), 4096u);
    ASSERT_EQ(largest[0] * 256 + largest[1], 4094);
    ASSERT_TRUE(vx_send_all(fd, largest));
    bytes answer;
    ASSERT_EQ(dpi_read(fd, &answer, 3000), PEER_OK);
    EXPECT_EQ(vx_to_hex(answer), vx_to_hex(vx_dpi_response(1, 0)));
    expect_next(&s, smux_rreq("1.3.6.1.4.1.2.6.1", 2));

    bytes too_large = register_of_length(2, "1.3.6.1.4.1.2.6.2.", 4097);
    ASSERT_EQ(too_large[0] * 256 + too_large[1], 4095);
    ASSERT_TRUE(vx_send_all(fd, too_large));
    EXPECT_TRUE(vx_wait_closed(fd, 3000));
    close(fd);
    // Its subtree is withdrawn; the oversized one was never looked at.
    expect_next(&s, smux_rreq("1.3.6.1.4.1.2.6.1", 0));
    expect_silence(&s, 300);
    // The report has no line end of its own; it shows once the next line is out.
    expect_served(other, 3);
    EXPECT_NE(daemon_log(&s).find("DPI packet too large, skipping"), std::string::npos);
    close(other);
}

// A packet that does not parse, or that the parser does not take (GETBULK, unknown types),
// drops its subagent with its subtrees, unanswered; the other subagents go on.
TEST(DaemonDpi, BadPacketDropsOnlyThatSubagent) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    int other = vx_tcp_connect(s.dpi_port);
    ASSERT_GE(other, 0);
    struct row {
        const char* name;
        bytes packet;
    } rows[] = {
        {"GETBULK", dpi_packet(1, 12, vx_hex("00 00 00 00 00 01 00 00 00 05"))},
        {"TRAPV2", dpi_packet(1, 13, {})},
        {"type 16", dpi_packet(1, 16, {})},
        {"type 0", dpi_packet(1, 0, {})},
        {"protocol byte 3", vx_hex("00 06 03 02 00 00 01 0f")},
        {"REGISTER text without its NUL", vx_hex("00 0f 02 02 00 00 01 06 ff ff ff ff 00 05 00 00 31")},
        {"length field shorter than a header", vx_hex("00 01 02")},
    };
    uint16_t probe = 0;
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        int fd = vx_tcp_connect(s.dpi_port);
        ASSERT_GE(fd, 0);
        bytes ok;
        ASSERT_TRUE(vx_send_all(fd, vx_dpi_register(1, "1.3.6.1.4.1.2.6.9.")));
        ASSERT_EQ(dpi_read(fd, &ok, 3000), PEER_OK);
        expect_next(&s, smux_rreq("1.3.6.1.4.1.2.6.9", 2));

        ASSERT_TRUE(vx_send_all(fd, r.packet));
        EXPECT_TRUE(vx_wait_closed(fd, 3000));  // and no answer came before the end
        close(fd);
        expect_next(&s, smux_rreq("1.3.6.1.4.1.2.6.9", 0));
        expect_served(other, probe++);
    }
    close(other);
}

// A subagent that goes away has every subtree it registered withdrawn, in table order; one
// that stops in the middle of a length field is dropped after 8 seconds.
TEST(DaemonDpi, VanishedSubagentSubtreesWithdrawn) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    const char* groups[] = {"1.3.6.1.4.1.2.6.3.", "1.3.6.1.4.1.2.6.1.", "1.3.6.1.4.1.2.6.2."};

    int fd = vx_tcp_connect(s.dpi_port);
    ASSERT_GE(fd, 0);
    uint16_t id = 1;
    for (const char* g : groups) {
        bytes ok;
        ASSERT_TRUE(vx_send_all(fd, vx_dpi_register(id++, g)));
        ASSERT_EQ(dpi_read(fd, &ok, 3000), PEER_OK);
        std::string subtree(g, strlen(g) - 1);
        expect_next(&s, smux_rreq(subtree, 2));
    }
    close(fd);
    for (const char* subtree : {"1.3.6.1.4.1.2.6.1", "1.3.6.1.4.1.2.6.2", "1.3.6.1.4.1.2.6.3"}) {
        expect_next(&s, smux_rreq(subtree, 0));
    }
    expect_silence(&s, 300);

    int stalled = vx_tcp_connect(s.dpi_port);
    ASSERT_GE(stalled, 0);
    bytes ok;
    ASSERT_TRUE(vx_send_all(stalled, vx_dpi_register(9, "1.3.6.1.4.1.2.6.8.")));
    ASSERT_EQ(dpi_read(stalled, &ok, 3000), PEER_OK);
    expect_next(&s, smux_rreq("1.3.6.1.4.1.2.6.8", 2));
    ASSERT_TRUE(vx_send_all(stalled, vx_hex("00")));
    expect_next(&s, smux_rreq("1.3.6.1.4.1.2.6.8", 0), 12000);
    EXPECT_TRUE(vx_wait_closed(stalled, 1000));
    close(stalled);
    // The report has no line end of its own; it shows once the next line is out.
    int next = vx_tcp_connect(s.dpi_port);
    ASSERT_GE(next, 0);
    expect_served(next, 10);
    close(next);
    EXPECT_EQ(vx_count_in_file(s.daemon.log_path, "EOF received (fd="), 2);
}
