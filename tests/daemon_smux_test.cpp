// The daemon against a master agent and subagents played by the test, for what the real
// snmpd cannot be made to do on cue: take an RReq for an answer, refuse a subtree, send a PDU
// that fills the daemon's input buffer; and subagents that send packets a byte at a time or
// too long. The agent's PDUs are written and read with the library's SMUX codec.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "smux_ed.h"
#include "snmp_asn1.h"
#include "snmp_container.h"
#include "snmp_dpi.h"
#include "vx_peers.h"
#include "vx_testsupport.h"

namespace {

constexpr const char* PORT_OBJECT = "1.3.6.1.4.1.2.2.1.1.1";
constexpr const char* PORT_INSTANCE = "1.3.6.1.4.1.2.2.1.1.1.0";
constexpr const char* GROUP = "1.3.6.1.4.1.2.6.1";
constexpr const char* OTHER = "1.3.6.1.2.1.99";

// What the tests look at in a PDU from the daemon.
struct pdu {
    uint8_t type = 0;
    std::string oid;  // Open identity, RReq subtree
    std::string password;
    int32_t operation = -1, request_id = 0, status = 0;
    std::vector<std::string> names;
    int32_t first_int = -1;  // first varBind's INTEGER value
};

// Size of the BER element that starts `b` once all of it is there, else 0.
size_t ber_whole(const vx_bytes& b) {
    uint32_t left = uint32_t(b.size()), len = 0;
    const uint8_t* p = asn_decode_sub_header(b.data(), &left, &len, nullptr);
    return p == nullptr ? 0 : size_t(p - b.data()) + len;
}

vx_bytes encode(smux_pdu* record) {
    uint8_t* start = nullptr;
    uint32_t length = 0;
    return smux_encode_message(&start, &length, record) == 0 ? vx_bytes(start, start + length)
                                                             : vx_bytes{};
}

vx_bytes rrsp(int32_t code) {
    smux_pdu r{};
    r.type = SMUX_PDU_RRSP;
    r.code = code;
    return encode(&r);
}

vx_bytes request(uint8_t type, int32_t id, const std::string& name) {
    snmp_pdu* p = snmp_create_pdu(1);
    p->request_id = id;
    p->varBind_count = 1;
    p->varBinds[0].name = snmp_create_oid_container(name.c_str());
    p->varBinds[0].value = snmp_create_value_container(nullptr, 0, SNMP_TAG_NULL, 0);
    smux_pdu r{};
    r.type = type;
    r.snmp = p;
    vx_bytes b = encode(&r);
    snmp_free_pdu(p, 1);
    return b;
}

class DaemonWithFakes : public ::testing::Test {
   protected:
    void SetUp() override {
        std::string why;
        if (!vx_enter_private_namespace(VX_TEST_PEERS_TEXT, &why)) {
            GTEST_SKIP() << why;
        }
        listen_ = vx_tcp_listen(VX_SMUX_PORT);
        ASSERT_GE(listen_, 0);
        // Every trace level: the packet dumps run too.
        ASSERT_TRUE(vx_start_varnex2(&daemon_, {"-d", "255"}, nullptr, &why)) << why;
        accept_open();
        expect_rreq(PORT_OBJECT, 2);
        ASSERT_TRUE(vx_wait_for_text(daemon_.log_path, "DPI  fd: ", 5000));
        std::string log = vx_read_file(daemon_.log_path);
        dpi_port_ = atoi(log.c_str() + log.find(" port: ", log.find("DPI  fd: ")) + 7);
        ASSERT_GT(dpi_port_, 0);
    }

    void TearDown() override {
        vx_stop(&daemon_);
        std::string log = vx_read_file(daemon_.log_path);
        EXPECT_EQ(log.find("Sanitizer"), std::string::npos);
        EXPECT_EQ(log.find("runtime error:"), std::string::npos);
        if (HasFailure()) {
            printf("---- daemon ----\n%s\n", log.c_str());
        }
    }

    // The daemon's next PDU other than a Trap; type 0 on time-out or end of stream.
    pdu next(int timeout_ms = 5000) {
        for (;;) {
            vx_bytes b;
            pdu out;
            smux_pdu* r = nullptr;
            if (!vx_stream_take(&agent_, &b, timeout_ms, ber_whole)) {
                return out;
            }
            EXPECT_EQ(smux_decode_message(b.data(), static_cast<uint32_t>(b.size()), &r), 0);
            if (r == nullptr || r->type == SNMP_PDU_TRAP) {
                continue;
            }
            out.type = r->type;
            out.operation = r->operation;
            if (r->type == SMUX_PDU_OPEN || r->type == SMUX_PDU_RREQ) {
                out.oid = vx_oid_text(r->oid);
                out.password.assign(r->password, r->password_len);
            } else if (r->snmp != nullptr) {
                out.request_id = r->snmp->request_id;
                out.status = r->snmp->error_status;
                for (uint32_t i = 0; i < r->snmp->varBind_count; i++) {
                    out.names.push_back(vx_oid_text(r->snmp->varBinds[i].name));
                }
                const snmp_container* v = r->snmp->varBinds[0].value;
                if (r->snmp->varBind_count > 0 && v != nullptr && v->tag == SNMP_TAG_INTEGER) {
                    out.first_int = v->value.s32;
                }
            }
            return out;
        }
    }

    void accept_open() {
        if (agent_.fd >= 0) {
            close(agent_.fd);
        }
        // A connection to the DPI port wakes the daemon to try the agent again at once.
        int poke = dpi_port_ > 0 ? vx_tcp_connect(dpi_port_) : -1;
        agent_ = vx_stream{};
        agent_.fd = vx_tcp_accept(listen_, 7500);
        ASSERT_GE(agent_.fd, 0) << "the daemon did not connect";
        if (poke >= 0) {
            close(poke);
        }
        pdu open = next();
        EXPECT_EQ(open.type, SMUX_PDU_OPEN);
        EXPECT_EQ(open.oid, VX_TEST_PEER_OID);
        EXPECT_EQ(open.password, VX_TEST_PEER_PASSWORD);
    }

    void expect_rreq(const std::string& subtree, int operation, int32_t answer = 0,
                     bool answered = true) {
        pdu r = next();
        EXPECT_EQ(r.type, SMUX_PDU_RREQ);
        EXPECT_EQ(r.oid, subtree);
        EXPECT_EQ(r.operation, operation);
        if (answered) {
            ASSERT_TRUE(vx_send_all(agent_.fd, rrsp(answer)));
        }
    }

    void expect_response(int32_t id, int32_t status, const std::string& name, int32_t value = -1) {
        pdu r = next();
        EXPECT_EQ(r.type, SNMP_PDU_RESPONSE);
        EXPECT_EQ(r.request_id, id);
        EXPECT_EQ(r.status, status);
        EXPECT_EQ(r.names, std::vector<std::string>{name});
        EXPECT_EQ(r.first_int, value);
    }

    void expect_silence(int ms) {
        pdu r = next(ms);
        EXPECT_EQ(r.type, 0) << "unexpected PDU " << int(r.type) << " " << r.oid;
        EXPECT_FALSE(agent_.closed);
    }

    vx_stream subagent(const std::string& group) {
        vx_stream sa = vx_dpi_connect_open(dpi_port_, "1.3.6.1.4.1.2.6");
        EXPECT_GE(sa.fd, 0);
        if (!group.empty()) {
            EXPECT_EQ(vx_dpi_register_group(&sa, group + ".", 1), 0);
        }
        return sa;
    }

    static void expect_served(vx_stream* sa, uint16_t id) {
        ASSERT_TRUE(vx_send_all(sa->fd, vx_dpi_packet(id, 15, {})));  // ARE_YOU_THERE
        vx_dpi_msg m;
        ASSERT_TRUE(vx_dpi_next(sa, &m, 3000)) << "not served";
        EXPECT_EQ(m.type, 5);
        EXPECT_EQ(m.packet_id, id);
    }

    int listen_ = -1;
    int dpi_port_ = 0;
    vx_stream agent_;
    vx_process daemon_;
};

// The daemon's own object, requests framed however the reads cut them, up to a PDU that
// fills the input buffer; RReqs the agent took as answers, refused subtrees, and the replay
// of what the agent held when a session comes back.
TEST_F(DaemonWithFakes, SmuxSessionWithAScriptedAgent) {
    ASSERT_TRUE(vx_send_all(agent_.fd, request(SNMP_PDU_GET, 1, PORT_INSTANCE)));
    expect_response(1, 0, PORT_INSTANCE, dpi_port_);
    ASSERT_TRUE(vx_send_all(agent_.fd, request(SNMP_PDU_GETNEXT, 2, "1.3.6.1")));
    expect_response(2, 0, PORT_INSTANCE, dpi_port_);
    ASSERT_TRUE(vx_send_all(agent_.fd, request(SNMP_PDU_GETNEXT, 3, PORT_INSTANCE)));
    expect_response(3, 2, PORT_INSTANCE);

    // A request of exactly 4096 bytes, after an SOut in the same write.
    // The codec's encoder cannot make it (it keeps room in its output area): written by hand.
    vx_bytes full;
    for (size_t n = 4000; n < 4096 && full.size() != 4096; n++) {
        vx_bytes vb = vx_ber_tlv(0x06, vx_hex("2b 06 01 04 01 02 02 01 01 01 00"));
        vx_bytes value = vx_ber_tlv(0x04, vx_bytes(n, 'x'));
        vb.insert(vb.end(), value.begin(), value.end());
        vx_bytes body = vx_hex("02 01 05 02 01 00 02 01 00");
        vx_bytes list = vx_ber_tlv(0x30, vx_ber_tlv(0x30, vb));
        body.insert(body.end(), list.begin(), list.end());
        full = vx_ber_tlv(SNMP_PDU_GET, body);
    }
    ASSERT_EQ(full.size(), 4096U);
    full.insert(full.begin(), {0x44, 0x01, 0x00});
    ASSERT_TRUE(vx_send_all(agent_.fd, full));
    expect_response(5, 0, PORT_INSTANCE, dpi_port_);
    // PDUs an agent does not send are passed over; a Set of the port object is refused.
    for (uint8_t type : {SNMP_PDU_RESPONSE, SNMP_PDU_SET}) {
        ASSERT_TRUE(vx_send_all(agent_.fd, request(type, 6, PORT_INSTANCE)));
    }
    expect_response(6, 2, PORT_INSTANCE);

    // A request while an RReq is unanswered means the agent took the RReq for its answer:
    // the request is not answered and the RReq goes again.
    vx_stream a = subagent(GROUP);
    expect_rreq(GROUP, 2, 0, false);
    ASSERT_TRUE(vx_send_all(agent_.fd, request(SNMP_PDU_GET, 7, std::string(GROUP) + ".1.0")));
    expect_rreq(GROUP, 2);
    vx_stream b = subagent(OTHER);
    expect_rreq(OTHER, 2);
    vx_stream c = subagent(GROUP);  // shares a's subtree: nothing new for the agent
    expect_silence(300);
    EXPECT_EQ(vx_count_in_file(daemon_.log_path, "RReq taken by the agent as an answer"), 1);

    // A new session gets every distinct subtree in table order. The agent's answers match
    // them oldest first; the one it refuses ends the session and is not offered again.
    vx_bytes get = request(SNMP_PDU_GET, 8, PORT_INSTANCE);
    ASSERT_TRUE(vx_send_all(agent_.fd, vx_bytes(get.begin(), get.begin() + 5)));  // half a PDU
    close(agent_.fd);
    agent_.fd = -1;
    accept_open();
    expect_rreq(OTHER, 2, 0, false);
    expect_rreq(PORT_OBJECT, 2, 0, false);
    expect_rreq(GROUP, 2, 0, false);
    ASSERT_TRUE(vx_send_all(agent_.fd, rrsp(0)));
    ASSERT_TRUE(vx_send_all(agent_.fd, rrsp(0)));
    ASSERT_TRUE(vx_send_all(agent_.fd, rrsp(-1)));
    EXPECT_EQ(next().type, 0);
    EXPECT_TRUE(agent_.closed);
    accept_open();
    expect_rreq(OTHER, 2);
    expect_rreq(PORT_OBJECT, 2);
    expect_silence(300);
    for (vx_stream* sa : {&a, &b, &c}) {
        expect_served(sa, 9);
    }
    // A subtree held twice goes when its last holder leaves; one the agent refused never does.
    close(c.fd);
    close(a.fd);
    expect_silence(300);
    close(b.fd);
    expect_rreq(OTHER, 0);
    smux_pdu bye{};
    bye.type = SMUX_PDU_CLOSE;
    ASSERT_TRUE(vx_send_all(agent_.fd, encode(&bye)));
    accept_open();
    EXPECT_EQ(vx_count_in_file(daemon_.log_path, "Lost connection"), 3);  // the hang-ups
}

// Framing of subagent packets: the largest legal one is taken, one byte more drops the
// subagent (its connection closed, its subtree withdrawn); a packet a byte at a time holds
// nobody up and is answered when whole, but one that stops half-way is dropped 8 s after
// its last byte.
TEST_F(DaemonWithFakes, DpiFramingAndDroppedSubagents) {
    vx_stream other = subagent("");
    // Session packets are answered; a subagent that goes takes its subtree along.
    vx_stream sa = subagent(GROUP);
    expect_rreq(GROUP, 2);
    for (const unsigned char* p : {mkDPIayt(), mkDPIclose(1), mkDPIayt()}) {
        ASSERT_TRUE(vx_send_all(sa.fd, vx_bytes(p, p + DPI_PACKET_LEN(p))));
        vx_dpi_msg m;
        EXPECT_TRUE(vx_dpi_next(&sa, &m, 3000) && m.type == SNMP_DPI_RESPONSE);
    }
    // A group the daemon cannot take as an OID (an arc past 32 bits) is refused.
    EXPECT_GT(vx_dpi_register_group(&sa, "1.3.99999999999.", 0), 0);
    close(sa.fd);
    expect_rreq(GROUP, 0);
    auto get_of_length = [](size_t length) {
        vx_bytes body{0, 0};
        std::string group = std::string(GROUP) + ".";
        body.insert(body.end(), group.begin(), group.end() + 1);
        std::string instance(length - 8 - body.size() - 1, '1');
        body.insert(body.end(), instance.begin(), instance.end() + 1);
        return vx_dpi_packet(7, 1, body);
    };
    vx_stream big = subagent(GROUP);
    expect_rreq(GROUP, 2);
    ASSERT_EQ(get_of_length(4096).size(), 4096U);
    ASSERT_TRUE(vx_send_all(big.fd, get_of_length(4096)));  // a GET: no answer
    expect_served(&big, 1);
    ASSERT_TRUE(vx_send_all(big.fd, get_of_length(4097)));
    EXPECT_TRUE(vx_wait_closed(big.fd, 3000));
    close(big.fd);
    expect_rreq(GROUP, 0);
    expect_served(&other, 2);

    vx_stream slow = subagent(GROUP);
    expect_rreq(GROUP, 2);
    const vx_bytes ayt = vx_dpi_packet(77, 15, {});
    uint16_t probe = 10;
    for (uint8_t byte : ayt) {
        ASSERT_TRUE(vx_send_all(slow.fd, {byte}));
        const auto t0 = std::chrono::steady_clock::now();
        expect_served(&other, probe++);
        EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
        usleep(1200 * 1000);  // eight bytes: ten seconds in all
    }
    vx_dpi_msg m;
    ASSERT_TRUE(vx_dpi_next(&slow, &m, 3000));
    EXPECT_EQ(m.packet_id, 77);
    ASSERT_TRUE(vx_send_all(slow.fd, vx_bytes(ayt.begin(), ayt.begin() + 4)));
    EXPECT_FALSE(vx_wait_closed(slow.fd, 5000));
    EXPECT_TRUE(vx_wait_closed(slow.fd, 6000));
    expect_rreq(GROUP, 0);
    expect_served(&other, probe);

    // Five subagents at a time: a sixth is closed at once.
    std::vector<vx_stream> more;
    for (int i = 0; i < 4; i++) {
        more.push_back(subagent(""));
    }
    vx_stream sixth;
    sixth.fd = vx_tcp_connect(dpi_port_);
    EXPECT_TRUE(vx_wait_closed(sixth.fd, 3000));
    close(sixth.fd);
    expect_served(&more.back(), 1);
}

}  // namespace
