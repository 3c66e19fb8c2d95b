// The daemon's side towards DPI subagents, over real TCP connections in a private namespace
// with a master agent played by the test: answers to session packets, registrations, the
// five subagent slots, packet framing limits and the dropping of misbehaving subagents.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "daemon_peers.h"

namespace {

bytes text(const std::string& t) {
    bytes b(t.begin(), t.end());
    b.push_back(0);
    return b;
}

// A GET, which gets no answer, with an instance text that makes the packet `length` bytes.
bytes get_of_length(uint16_t id, size_t length) {
    const bytes head = cat({vx_hex("00 00"), text("1.3.6.1.4.1.2.6.1.")});
    return vx_dpi_packet(id, 1, cat({head, text(std::string(length - 9 - head.size(), '1'))}));
}

}  // namespace

// OPEN, ARE_YOU_THERE and CLOSE are answered with the request's number and error code 0;
// the other packets a subagent may send get no answer and the connection stays.
TEST(DaemonDpi, SessionPacketsAnsweredWithTheirNumber) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    const bytes open_body = cat({vx_hex("00 05 00 01 00"), text("1.3.6.1.4.1.2.6.1"),
                                 text("test agent"), vx_hex("00 02 70 77")});
    const bytes object = cat({vx_hex("00 00"), text("1.3.6.1.4.1.2.6.1."), text("1.0")});
    struct row {
        const char* name;
        bytes request;
        bool answered;
    } rows[] = {
        {"OPEN", vx_dpi_packet(0x0102, 8, open_body), true},
        {"ARE_YOU_THERE", vx_dpi_simple(0xfffe, 15), true},
        {"CLOSE", vx_dpi_packet(7, 9, vx_hex("01")), true},
        {"ARE_YOU_THERE after CLOSE", vx_dpi_simple(0, 15), true},
        {"GET", vx_dpi_packet(8, 1, object), false},
        {"GET with the largest length field, 4094", get_of_length(12, 4096), false},
        {"UNREGISTER", vx_dpi_packet(9, 7, cat({vx_hex("01"), text("1.3.6.1.4.1.2.6.1.")})), false},
        {"RESPONSE", vx_dpi_response(10, 0), false},
        {"COMMIT", vx_dpi_packet(11, 10, cat({object, vx_hex("81 00 04 00 00 00 2a")})), false},
    };
    vx_stream sa = subagent(&s);
    uint16_t probe = 0x8000;
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        ASSERT_TRUE(vx_send_all(sa.fd, r.request));
        if (r.answered) {
            expect_dpi(&sa, vx_dpi_response(r.request[5] * 256 + r.request[6], 0));
        } else {
            // Packets are handled in order, so the probe's answer comes first if nothing
            // answered the packet before it.
            expect_served(&sa, probe++);
        }
    }
    close(sa.fd);
}

// A REGISTER is announced to the agent for its first subtree only and answered with 0; one
// that cannot be announced is answered with 101. A GetNext that runs off the port object
// goes on into the first subtree after it.
TEST(DaemonDpi, RegisterAnnouncedToAgent) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    vx_stream sa = subagent(&s);
    const bytes two =
        vx_dpi_packet(3, 6,
                      cat({vx_hex("ff ff ff ff 00 05 00 00"), text("1.3.6.1.4.1.2.6.2."),
                           vx_hex("00 00 00 01 00 00 00 00"), text("1.3.6.1.4.1.2.6.3.")}));
    struct row {
        const char* name;
        bytes request;
        uint8_t code;
        const char* announced;  // "": nothing reaches the agent
    } rows[] = {
        {"subtree with its final dot", vx_dpi_register(1, "1.3.6.1.4.1.2.6.1."), 0,
         "62 10 06 08 2b 06 01 04 01 02 06 01 02 01 ff 02 01 02"},
        {"only the first of two subtrees", two, 0,
         "62 10 06 08 2b 06 01 04 01 02 06 02 02 01 ff 02 01 02"},
        {"subtree without a dot", vx_dpi_register(4, "1.3.6.1.4.1.2.6.4"), 0,
         "62 10 06 08 2b 06 01 04 01 02 06 04 02 01 ff 02 01 02"},
        {"two final dots", vx_dpi_register(5, "1.3.6.1.4.1.2.6.5.."), 101, ""},
        {"first arc above 2", vx_dpi_register(6, "3.1."), 101, ""},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        ASSERT_TRUE(vx_send_all(sa.fd, r.request));
        expect_dpi(&sa, vx_dpi_response(r.request[5] * 256 + r.request[6], r.code));
        if (r.announced[0] == '\0') {
            expect_silence(&s, 300);
        } else {
            expect_next(&s, vx_hex(r.announced));
        }
    }
    ASSERT_TRUE(agent_send(&s, snmp_pdu_bytes(0xa1, 1, 0, 0, {{DPI_PORT_INSTANCE, {}}})));
    vx_dpi_msg q;
    ASSERT_TRUE(vx_dpi_next(&sa, &q, 3000));
    EXPECT_EQ(q.type, 2);
    EXPECT_EQ(q.group, "1.3.6.1.4.1.2.6.1.");
    EXPECT_EQ(q.instance, "");
    ASSERT_TRUE(vx_send_all(
        sa.fd, vx_dpi_response(q.packet_id, 0, q.group, "1.0", 129, vx_hex("00 00 00 09"))));
    expect_next(&s, snmp_pdu_bytes(0xa2, 1, 0, 0, {{"1.3.6.1.4.1.2.6.1.1.0", vx_hex("02 01 09")}}));

    // Without an agent connection the registration cannot be sent: 101, but the subtree is
    // kept, announced with the next session and withdrawn when its subagent leaves.
    agent_stop_listening(&s);
    agent_hang_up(&s);
    ASSERT_TRUE(vx_wait_for_text(s.daemon.log_path, "Lost connection to agent\n", 3000));
    ASSERT_TRUE(vx_send_all(sa.fd, vx_dpi_register(7, "1.3.6.1.4.1.2.6.0.")));
    expect_dpi(&sa, vx_dpi_response(7, 101));

    ASSERT_TRUE(agent_listen(&s));
    ASSERT_TRUE(accept_reopen(&s));
    // In table order, not in the order of registration.
    const char* const table[] = {DPI_PORT_OBJECT, "1.3.6.1.4.1.2.6.0", "1.3.6.1.4.1.2.6.1",
                                 "1.3.6.1.4.1.2.6.2", "1.3.6.1.4.1.2.6.4"};
    for (const char* subtree : table) {
        expect_next(&s, smux_rreq(subtree, 2));
    }
    expect_silence(&s, 300);
    close(sa.fd);
    for (const char* subtree : table) {
        if (subtree != DPI_PORT_OBJECT) {
            expect_next(&s, smux_rreq(subtree, 0));
        }
    }
}

// Five subagents at a time: a sixth is closed at once without a byte, and a freed slot is
// taken by the next connection.
TEST(DaemonDpi, FiveSlots) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    std::vector<vx_stream> sa;
    for (uint16_t i = 0; i < 5; i++) {
        sa.push_back(subagent(&s));
        expect_served(&sa.back(), i);
    }
    vx_stream sixth = subagent(&s);
    EXPECT_TRUE(vx_wait_closed(sixth.fd, 3000));
    close(sixth.fd);
    EXPECT_TRUE(vx_wait_for_text(s.daemon.log_path, "Max subagents exceeded\n", 3000));

    // Once a later slot is served, the end of the earlier one has been seen: slots are
    // served in order and the end of the stream was there first.
    close(sa[2].fd);
    expect_served(&sa[4], 50);
    EXPECT_NE(daemon_log(&s).find("EOF received (fd="), std::string::npos);
    sa[2] = subagent(&s);
    for (uint16_t i = 0; i < 5; i++) {
        expect_served(&sa[i], static_cast<uint16_t>(200 + i));
    }
    vx_stream seventh = subagent(&s);
    EXPECT_TRUE(vx_wait_closed(seventh.fd, 3000));
    EXPECT_EQ(vx_count_in_file(s.daemon.log_path, "Max subagents exceeded\n"), 2);
    for (vx_stream& one : sa) {
        close(one.fd);
    }
    close(seventh.fd);
}

// A packet that does not parse, that the parser does not take (GETBULK, unknown types) or
// that is too large (read to its end all the same) drops its subagent with its subtrees,
// unanswered; the other subagents go on.
TEST(DaemonDpi, BadPacketDropsOnlyThatSubagent) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    vx_stream other = subagent(&s);
    struct row {
        const char* name;
        bytes packet;
    } rows[] = {
        {"GETBULK", vx_dpi_packet(1, 12, vx_hex("00 00 00 00 00 01 00 00 00 05"))},
        {"TRAPV2", vx_dpi_packet(1, 13, {})},
        {"type 16", vx_dpi_packet(1, 16, {})},
        {"type 0", vx_dpi_packet(1, 0, {})},
        {"protocol byte 3", vx_hex("00 06 03 02 00 00 01 0f")},
        {"REGISTER text without its NUL",
         vx_hex("00 0f 02 02 00 00 01 06 ff ff ff ff 00 05 00 00 31")},
        {"length field shorter than a header", vx_hex("00 01 02")},
        {"length field 4095", get_of_length(1, 4097)},
    };
    uint16_t probe = 0;
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        vx_stream sa = subagent(&s);
        register_subagent(&s, &sa, "1.3.6.1.4.1.2.6.9.", 1);
        ASSERT_TRUE(vx_send_all(sa.fd, r.packet));
        EXPECT_TRUE(vx_wait_closed(sa.fd, 3000));  // and no answer came before the end
        close(sa.fd);
        expect_next(&s, smux_rreq("1.3.6.1.4.1.2.6.9", 0));
        expect_served(&other, probe++);
    }
    // The report has no line end of its own; it shows once the next line is out.
    EXPECT_NE(daemon_log(&s).find("DPI packet too large, skipping"), std::string::npos);
    close(other.fd);
}

// A subagent that stops in the middle of a length field is dropped after 8 seconds.
TEST(DaemonDpi, StalledSubagentDropped) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    vx_stream stalled = subagent(&s);
    register_subagent(&s, &stalled, "1.3.6.1.4.1.2.6.8.", 9);
    ASSERT_TRUE(vx_send_all(stalled.fd, vx_hex("00")));
    expect_next(&s, smux_rreq("1.3.6.1.4.1.2.6.8", 0), 12000);
    EXPECT_TRUE(vx_wait_closed(stalled.fd, 1000));
    close(stalled.fd);
    // The report has no line end of its own; it shows once the next line is out.
    vx_stream next = subagent(&s);
    expect_served(&next, 10);
    close(next.fd);
    EXPECT_EQ(vx_count_in_file(s.daemon.log_path, "EOF received (fd="), 1);
}

// A subagent that sends its packet a byte at a time holds nobody up: the others are served
// at once while its bytes wait, and its packet is answered when whole, however long that
// took. Once its bytes stop coming in the middle of a packet it is dropped, 8 seconds after
// the last one.
TEST(DaemonDpi, DribblingSubagentHoldsNobodyUp) {
    ENTER_NAMESPACE_OR_SKIP(VX_TEST_PEERS_TEXT);
    daemon_session s;
    ASSERT_TRUE(start_session(&s, {}));
    vx_stream other = subagent(&s);
    vx_stream slow = subagent(&s);
    const bytes packet = vx_dpi_simple(77, 15);
    uint16_t probe = 1;
    for (uint8_t byte : packet) {
        ASSERT_TRUE(vx_send_all(slow.fd, {byte}));
        const auto t0 = std::chrono::steady_clock::now();
        expect_served(&other, probe++);
        EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
        usleep(1200 * 1000);  // 8 bytes: ten seconds in all
    }
    expect_dpi(&slow, vx_dpi_response(77, 0));

    ASSERT_TRUE(vx_send_all(slow.fd, bytes(packet.begin(), packet.begin() + 4)));
    EXPECT_FALSE(vx_wait_closed(slow.fd, 5000));
    EXPECT_TRUE(vx_wait_closed(slow.fd, 6000));
    expect_served(&other, probe);
    EXPECT_NE(daemon_log(&s).find("could not read DPI request body"), std::string::npos);
}
