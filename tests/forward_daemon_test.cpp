// Forwarding of the agent's requests to DPI subagents and of their traps to the agent,
// packet by packet: the running daemon between a fake master agent on the SMUX port of a
// private namespace and scripted DPI subagents that answer with bytes written out here.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <string>
#include <vector>

#include "vx_peers.h"
#include "vx_testsupport.h"

namespace {

constexpr const char* PORT_SUBTREE = "1.3.6.1.4.1.2.2.1.1.1";
constexpr const char* PORT_INSTANCE = "1.3.6.1.4.1.2.2.1.1.1.0";
constexpr const char* SUBTREE_A = "1.3.6.1.4.1.2.6.1";
constexpr const char* GROUP_A = "1.3.6.1.4.1.2.6.1.";
constexpr uint8_t GET = 0xa0;
constexpr uint8_t GETNEXT = 0xa1;
constexpr uint8_t RESPONSE = 0xa2;
constexpr uint8_t SET = 0xa3;
constexpr uint8_t TRAP = 0xa4;
constexpr uint8_t RREQ = 0x62;
constexpr int OP_DELETE = 0;
constexpr int OP_READ_WRITE = 2;

constexpr uint8_t DPI_GET = 1;
constexpr uint8_t DPI_GETNEXT = 2;
constexpr uint8_t DPI_SET = 3;
constexpr uint8_t DPI_TRAP = 4;
constexpr uint8_t DPI_RESPONSE = 5;
constexpr uint8_t DPI_OPEN = 8;
constexpr uint8_t DPI_COMMIT = 10;
constexpr uint8_t T_OCTETS = 2;
constexpr uint8_t T_DISPLAY = 9;
constexpr uint8_t T_COUNTER64 = 13;
constexpr uint8_t T_END_OF_MIB = 17;
constexpr uint8_t T_INTEGER32 = 129;

// ---- DPI packets as a subagent writes them ------------------------------------------------

vx_bytes text(const std::string& s) {
    vx_bytes b(s.begin(), s.end());
    b.push_back(0);
    return b;
}

void put_be(vx_bytes* b, uint32_t v, int octets) {
    for (int shift = 8 * (octets - 1); shift >= 0; shift -= 8) {
        b->push_back(static_cast<uint8_t>(v >> shift));
    }
}

vx_bytes be32(int32_t v) {
    vx_bytes b;
    put_be(&b, static_cast<uint32_t>(v), 4);
    return b;
}

vx_bytes dpi_varbind(const std::string& group, const std::string& instance, uint8_t type,
                     const vx_bytes& value) {
    vx_bytes b = text(group);
    vx_bytes i = text(instance);
    b.insert(b.end(), i.begin(), i.end());
    b.push_back(type);
    put_be(&b, static_cast<uint32_t>(value.size()), 2);
    b.insert(b.end(), value.begin(), value.end());
    return b;
}

vx_bytes dpi_packet(uint16_t id, uint8_t type, const vx_bytes& body) {
    vx_bytes p{0, 0, 2, 2, 0, static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id), type};
    p.insert(p.end(), body.begin(), body.end());
    p[0] = static_cast<uint8_t>((p.size() - 2) >> 8);
    p[1] = static_cast<uint8_t>(p.size() - 2);
    return p;
}

vx_bytes dpi_response(uint16_t id, uint8_t code, int32_t index,
                      const std::vector<vx_bytes>& varbinds) {
    vx_bytes body{code};
    put_be(&body, static_cast<uint32_t>(index), 4);
    for (const vx_bytes& vb : varbinds) {
        body.insert(body.end(), vb.begin(), vb.end());
    }
    return dpi_packet(id, DPI_RESPONSE, body);
}

vx_bytes dpi_trap(uint16_t id, int32_t generic, int32_t specific, const std::string& enterprise,
                  const std::vector<vx_bytes>& varbinds) {
    vx_bytes body = be32(generic);
    vx_bytes s = be32(specific);
    body.insert(body.end(), s.begin(), s.end());
    vx_bytes e = text(enterprise);
    body.insert(body.end(), e.begin(), e.end());
    for (const vx_bytes& vb : varbinds) {
        body.insert(body.end(), vb.begin(), vb.end());
    }
    return dpi_packet(id, DPI_TRAP, body);
}

void expect_no_sanitizer_report(const std::string& log) {
    std::string text = vx_read_file(log);
    EXPECT_EQ(text.find("Sanitizer"), std::string::npos);
    EXPECT_EQ(text.find("runtime error:"), std::string::npos);
}

class ForwardThroughDaemon : public ::testing::Test {
   protected:
    void SetUp() override {
        std::string why;
        if (!vx_enter_private_namespace(VX_TEST_PEERS_TEXT, &why)) {
            GTEST_SKIP() << why;
        }
        listen_fd_ = vx_tcp_listen(VX_SMUX_PORT);
        ASSERT_GE(listen_fd_, 0);
        ASSERT_TRUE(vx_start_varnex2(&daemon_, {"-d", "96"}, nullptr, &why)) << why;
        agent_.fd = vx_tcp_accept(listen_fd_, 8000);
        ASSERT_GE(agent_.fd, 0) << "the daemon did not connect";
        vx_smux_msg open;
        ASSERT_TRUE(vx_smux_next(&agent_, &open, 5000));
        ASSERT_EQ(open.type, 0x60);
        ASSERT_TRUE(expect_rreq(PORT_SUBTREE, OP_READ_WRITE));
        vx_smux_msg answer;
        ASSERT_TRUE(ask(GET, {PORT_INSTANCE}, {}, &answer));
        ASSERT_TRUE(vx_ber_int_value(answer.vb_values.at(0), &dpi_port_));
        a_ = subagent(GROUP_A);
        ASSERT_NE(a_, nullptr);
    }

    void TearDown() override {
        for (vx_stream& s : subagents_) {
            if (s.fd >= 0) {
                close(s.fd);
            }
        }
        if (daemon_.pid > 0) {
            vx_stop(&daemon_);
        }
        if (!daemon_.log_path.empty()) {
            expect_no_sanitizer_report(daemon_.log_path);
        }
        if (HasFailure()) {
            printf("---- daemon output ----\n%s\n", vx_read_file(daemon_.log_path).c_str());
        }
        if (agent_.fd >= 0) {
            close(agent_.fd);
        }
        if (listen_fd_ >= 0) {
            close(listen_fd_);
        }
    }

    // The next PDU other than a Trap is an RReq for `subtree`, answered as the agent would.
    ::testing::AssertionResult expect_rreq(const std::string& subtree, int operation) {
        vx_smux_msg m;
        if (!vx_smux_next(&agent_, &m, 10000)) {
            return ::testing::AssertionFailure() << "no RReq for " << subtree;
        }
        if (m.type != RREQ || m.oid != subtree || m.operation != operation) {
            return ::testing::AssertionFailure()
                   << "expected RReq " << subtree << " op " << operation << ", got type "
                   << int(m.type) << " " << m.oid << " op " << m.operation;
        }
        if (!vx_send_all(agent_.fd, vx_smux_rrsp(0))) {
            return ::testing::AssertionFailure() << "cannot answer the RReq";
        }
        return ::testing::AssertionSuccess();
    }

    // A subagent that opened and registered `group`, its RReq answered; null on failure.
    vx_stream* subagent(const std::string& group) {
        subagents_.push_back(vx_dpi_connect_open(dpi_port_, group.substr(0, group.size() - 1)));
        vx_stream* sa = &subagents_.back();
        if (sa->fd < 0 || vx_dpi_register_group(sa, group, 2) != 0 ||
            !expect_rreq(group.substr(0, group.size() - 1), OP_READ_WRITE)) {
            return nullptr;
        }
        return sa;
    }

    void send_request(uint8_t type, const std::vector<std::string>& names,
                      const std::vector<vx_bytes>& values) {
        ++request_id_;
        ASSERT_TRUE(vx_send_all(agent_.fd, vx_smux_request(type, request_id_, names, values)));
    }

    ::testing::AssertionResult read_response(vx_smux_msg* answer) {
        if (!vx_smux_next(&agent_, answer, 12000)) {
            return ::testing::AssertionFailure() << "no GetResponse";
        }
        if (answer->type != RESPONSE || answer->request_id != request_id_) {
            return ::testing::AssertionFailure()
                   << "expected GetResponse " << request_id_ << ", got type " << int(answer->type)
                   << " " << answer->oid;
        }
        return ::testing::AssertionSuccess();
    }

    ::testing::AssertionResult ask(uint8_t type, const std::vector<std::string>& names,
                                   const std::vector<vx_bytes>& values, vx_smux_msg* answer) {
        send_request(type, names, values);
        return read_response(answer);
    }

    // The next packet the subagent gets must be of `type` for `group` and `instance`.
    static ::testing::AssertionResult expect_dpi(vx_stream* sa, uint8_t type,
                                                 const std::string& group,
                                                 const std::string& instance, vx_dpi_msg* out) {
        if (!vx_dpi_next(sa, out, 5000)) {
            return ::testing::AssertionFailure() << "no DPI packet of type " << int(type);
        }
        if (out->type != type || out->group != group || out->instance != instance) {
            return ::testing::AssertionFailure()
                   << "expected DPI type " << int(type) << " " << group << " '" << instance
                   << "', got type " << int(out->type) << " " << out->group << " '" << out->instance
                   << "'";
        }
        return ::testing::AssertionSuccess();
    }

    static bool idle(vx_stream* sa, int ms = 200) {
        struct pollfd p = {sa->fd, POLLIN, 0};
        return sa->pending.empty() && poll(&p, 1, ms) == 0;
    }

    // The agent has taken every Trap the daemon sent so far (one follows each RRsp).
    ::testing::AssertionResult drain_traps() {
        vx_smux_msg m;
        while (vx_smux_next(&agent_, &m, 200, true)) {
            if (m.type != TRAP) {
                return ::testing::AssertionFailure() << "unexpected PDU type " << int(m.type);
            }
        }
        return ::testing::AssertionSuccess();
    }

    ::testing::AssertionResult agent_quiet(int ms) {
        vx_smux_msg m;
        if (vx_smux_next(&agent_, &m, ms, true)) {
            return ::testing::AssertionFailure() << "unexpected PDU type " << int(m.type);
        }
        return ::testing::AssertionSuccess();
    }

    vx_process daemon_;
    vx_stream agent_;
    int listen_fd_ = -1;
    int32_t dpi_port_ = 0;
    int32_t request_id_ = 500;
    vx_stream* a_ = nullptr;
    std::deque<vx_stream> subagents_;  // deque: handed-out pointers stay valid
};

TEST_F(ForwardThroughDaemon, GetSendsGroupAndInstanceAndConvertsTheReplyValue) {
    struct row {
        const char* name;
        uint8_t dpi_type;
        const char* wire;  // value bytes in the RESPONSE
        int32_t status;
        const char* value;  // value element in the GetResponse
    };
    const row rows[] = {
        {"Integer32 42", T_INTEGER32, "0000002a", 0, "02 01 2a"},
        {"Integer32 -2", T_INTEGER32, "fffffffe", 0, "02 01 fe"},
        {"Integer32 128", T_INTEGER32, "00000080", 0, "02 02 00 80"},
        {"Counter32 2^31", 134, "80000000", 0, "41 05 00 80 00 00 00"},
        {"Gauge32 2^32-1", 135, "ffffffff", 0, "42 05 00 ff ff ff ff"},
        {"TimeTicks 100", 136, "00000064", 0, "43 01 64"},
        {"IpAddress", 5, "0a010203", 0, "40 04 0a 01 02 03"},
        {"DisplayString", T_DISPLAY, "6869", 0, "04 02 68 69"},
        {"empty OCTET STRING", T_OCTETS, "", 0, "04 00"},
        {"OBJECT IDENTIFIER as its text", 3, "312e332e36", 0, "04 05 31 2e 33 2e 36"},
        {"NULL", 4, "", 0, "05 00"},
        {"noSuchObject", 15, "", 2, "05 00"},
        {"noSuchInstance", 16, "", 2, "05 00"},
        {"endOfMibView", T_END_OF_MIB, "", 2, "05 00"},
        {"Counter64 has no SNMPv1 form", T_COUNTER64, "0000000100000002", 2, "05 00"},
        {"UInteger32", 140, "00000001", 5, "05 00"},
        {"Opaque", 14, "00", 5, "05 00"},
        {"BIT STRING", 10, "00", 5, "05 00"},
        {"NsapAddress", 11, "01", 5, "05 00"},
    };
    const std::string name = std::string(SUBTREE_A) + ".5.0";
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        send_request(GET, {name}, {});
        vx_bytes packet;
        ASSERT_TRUE(vx_dpi_read(a_, &packet, 5000));
        vx_dpi_msg q;
        ASSERT_TRUE(vx_dpi_parse(packet, &q));
        // Version 2, no extra bytes, the group with its dot, then the instance.
        vx_bytes body = vx_hex("00 00");
        vx_bytes g = text(GROUP_A);
        vx_bytes i = text("5.0");
        body.insert(body.end(), g.begin(), g.end());
        body.insert(body.end(), i.begin(), i.end());
        vx_bytes want = dpi_packet(q.packet_id, DPI_GET, body);
        EXPECT_EQ(vx_to_hex(packet), vx_to_hex(want));

        ASSERT_TRUE(vx_send_all(
            a_->fd, dpi_response(q.packet_id, 0, 0,
                                 {dpi_varbind(GROUP_A, "5.0", r.dpi_type, vx_hex(r.wire))})));
        vx_smux_msg answer;
        ASSERT_TRUE(read_response(&answer));
        EXPECT_EQ(answer.error_status, r.status);
        EXPECT_EQ(answer.error_index, r.status != 0 ? 1 : 0);
        ASSERT_EQ(answer.vb_names.size(), 1U);
        EXPECT_EQ(answer.vb_names[0], name);
        EXPECT_EQ(vx_to_hex(answer.vb_values[0]), vx_to_hex(vx_hex(r.value)));
    }
}

TEST_F(ForwardThroughDaemon, ResponseErrorCodesFoldIntoSnmpV1Statuses) {
    struct row {
        int code;
        int32_t status;
    };
    const row rows[] = {
        {1, 1},  {2, 2},  {3, 3},  {4, 4},   {5, 5},   {6, 2},  {7, 3},  {8, 3},
        {9, 3},  {10, 3}, {11, 2}, {12, 3},  {13, 5},  {14, 5}, {15, 5}, {16, 2},
        {17, 2}, {18, 2}, {19, 5}, {101, 5}, {255, 5}, {0, 5},  // no error but nothing to answer
                                                                // with
    };
    for (const row& r : rows) {
        SCOPED_TRACE("error code " + std::to_string(r.code));
        send_request(GET, {std::string(SUBTREE_A) + ".1.0"}, {});
        vx_dpi_msg q;
        ASSERT_TRUE(expect_dpi(a_, DPI_GET, GROUP_A, "1.0", &q));
        ASSERT_TRUE(vx_send_all(a_->fd, dpi_response(q.packet_id, static_cast<uint8_t>(r.code),
                                                     r.code != 0 ? 1 : 0, {})));
        vx_smux_msg answer;
        ASSERT_TRUE(read_response(&answer));
        EXPECT_EQ(answer.error_status, r.status);
        EXPECT_EQ(answer.error_index, 1);
    }
    // Codes that change are traced, as signed bytes; codes that keep their number are not.
    const std::string log = daemon_.log_path;
    EXPECT_EQ(vx_count_in_file(log, "converting error_code 17 to noSuchName\n"), 1);
    EXPECT_EQ(vx_count_in_file(log, "converting error_code 10 to badValue\n"), 1);
    EXPECT_EQ(vx_count_in_file(log, "converting error_code -1 to genErr\n"), 1);
    EXPECT_EQ(vx_count_in_file(log, "converting error_code 101 to genErr\n"), 1);
    EXPECT_EQ(vx_count_in_file(log, "converting error_code 5 "), 0);
    // Errors are answers, not failures: the subagent still serves.
    send_request(GET, {std::string(SUBTREE_A) + ".1.0"}, {});
    vx_dpi_msg q;
    ASSERT_TRUE(expect_dpi(a_, DPI_GET, GROUP_A, "1.0", &q));
}

TEST_F(ForwardThroughDaemon, SetTravelsAsDpiValueAndOnlyAnAcceptedSetIsCommitted) {
    struct row {
        const char* name;
        const char* snmp;  // value element the manager sent
        int dpi_type;      // -1: no packet may reach the subagent
        const char* wire;
        int set_code;
        int commit_code;
        int32_t status;
    };
    const row rows[] = {
        {"INTEGER 42", "02 01 2a", T_INTEGER32, "0000002a", 0, 0, 0},
        {"INTEGER -1", "02 01 ff", T_INTEGER32, "ffffffff", 0, 0, 0},
        {"OCTET STRING", "04 02 61 62", T_OCTETS, "6162", 0, 0, 0},
        {"empty OCTET STRING", "04 00", T_OCTETS, "", 0, 0, 0},
        {"NULL", "05 00", 4, "00000000", 0, 0, 0},
        {"OBJECT IDENTIFIER as text", "06 03 2b 06 01", 3, "312e332e362e31", 0, 0, 0},
        {"IpAddress", "40 04 0a 00 00 01", 5, "0a000001", 0, 0, 0},
        {"Counter32", "41 01 07", 134, "00000007", 0, 0, 0},
        {"Gauge32", "42 02 01 00", 135, "00000100", 0, 0, 0},
        {"TimeTicks", "43 01 64", 136, "00000064", 0, 0, 0},
        {"refused with wrongValue", "02 01 2a", T_INTEGER32, "0000002a", 10, 0, 3},
        {"refused with notWritable", "02 01 2a", T_INTEGER32, "0000002a", 17, 0, 2},
        {"commit fails", "02 01 2a", T_INTEGER32, "0000002a", 0, 14, 5},
        {"Opaque has no DPI form", "44 01 00", -1, "", 0, 0, 5},
    };
    const std::string name = std::string(SUBTREE_A) + ".7.0";
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        send_request(SET, {name}, {vx_hex(r.snmp)});
        if (r.dpi_type >= 0) {
            vx_dpi_msg q;
            ASSERT_TRUE(expect_dpi(a_, DPI_SET, GROUP_A, "7.0", &q));
            EXPECT_EQ(q.value_type, r.dpi_type);
            EXPECT_EQ(vx_to_hex(q.value), vx_to_hex(vx_hex(r.wire)));
            ASSERT_TRUE(
                vx_send_all(a_->fd, dpi_response(q.packet_id, static_cast<uint8_t>(r.set_code),
                                                 r.set_code != 0 ? 1 : 0, {})));
            if (r.set_code == 0) {
                vx_dpi_msg c;
                ASSERT_TRUE(expect_dpi(a_, DPI_COMMIT, GROUP_A, "7.0", &c));
                EXPECT_EQ(c.value_type, r.dpi_type);
                EXPECT_EQ(vx_to_hex(c.value), vx_to_hex(vx_hex(r.wire)));
                ASSERT_TRUE(vx_send_all(
                    a_->fd, dpi_response(c.packet_id, static_cast<uint8_t>(r.commit_code),
                                         r.commit_code != 0 ? 1 : 0, {})));
            }
        }
        vx_smux_msg answer;
        ASSERT_TRUE(read_response(&answer));
        EXPECT_EQ(answer.error_status, r.status);
        EXPECT_EQ(answer.error_index, r.status != 0 ? 1 : 0);
        // The manager's own varBind comes back.
        ASSERT_EQ(answer.vb_values.size(), 1U);
        EXPECT_EQ(answer.vb_names[0], name);
        EXPECT_EQ(vx_to_hex(answer.vb_values[0]), vx_to_hex(vx_hex(r.snmp)));
        // Neither a COMMIT after a refused SET nor an UNDO is ever sent.
        EXPECT_TRUE(idle(a_));
    }
}

TEST_F(ForwardThroughDaemon, GetNextSkipsCounter64ObjectsAndNeverLoops) {
    struct exchange {
        const char* asked;  // instance the daemon must ask for
        const char* group;  // group and instance of the answer
        const char* instance;
        uint8_t type;
        const char* wire;
    };
    struct row {
        const char* name;
        const char* request;  // below SUBTREE_A ("" for the subtree itself)
        std::vector<exchange> exchanges;
        int32_t status;
        const char* answered;  // name in the GetResponse
        const char* value;
    };
    const vx_bytes c64 = vx_hex("0000000100000002");
    const row rows[] = {
        {"two Counter64 objects are stepped over",
         "",
         {{"", GROUP_A, "1.0", T_COUNTER64, "0000000100000002"},
          {"1.0", GROUP_A, "2.0", T_COUNTER64, "0000000000000009"},
          {"2.0", GROUP_A, "3.0", T_INTEGER32, "00000007"}},
         0,
         "1.3.6.1.4.1.2.6.1.3.0",
         "02 01 07"},
        {"the same Counter64 object again is an error, not a loop",
         ".1.0",
         {{"1.0", GROUP_A, "1.0", T_COUNTER64, "0000000100000002"}},
         5,
         "1.3.6.1.4.1.2.6.1.1.0",
         "05 00"},
        {"a Counter64 object outside the subtree ends it",
         ".4.0",
         {{"4.0", "1.3.6.1.4.1.2.7.", "1.0", T_COUNTER64, "0000000100000002"}},
         2,
         "1.3.6.1.4.1.2.6.1.4.0",
         "05 00"},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        send_request(GETNEXT, {std::string(SUBTREE_A) + r.request}, {});
        for (const exchange& e : r.exchanges) {
            SCOPED_TRACE(e.asked);
            vx_dpi_msg q;
            ASSERT_TRUE(expect_dpi(a_, DPI_GETNEXT, GROUP_A, e.asked, &q));
            ASSERT_TRUE(vx_send_all(
                a_->fd, dpi_response(q.packet_id, 0, 0,
                                     {dpi_varbind(e.group, e.instance, e.type, vx_hex(e.wire))})));
        }
        vx_smux_msg answer;
        ASSERT_TRUE(read_response(&answer));
        EXPECT_EQ(answer.error_status, r.status);
        EXPECT_EQ(answer.vb_names.at(0), r.answered);
        EXPECT_EQ(vx_to_hex(answer.vb_values.at(0)), vx_to_hex(vx_hex(r.value)));
        EXPECT_TRUE(idle(a_));
    }
}

TEST_F(ForwardThroughDaemon, GetNextRunsFromOneSubtreeIntoTheNext) {
    vx_stream* b = subagent("1.3.6.1.4.1.2.7.");
    ASSERT_NE(b, nullptr);
    struct row {
        const char* name;
        const char* request;
        const char* a_instance;  // null: subagent A is not asked
        const char* b_instance;  // null: subagent B is not asked
        const char* answered;
    };
    const row rows[] = {
        {"A is exhausted, B gives its first object", "1.3.6.1.4.1.2.6.1.9.0", "9.0", "",
         "1.3.6.1.4.1.2.7.1.0"},
        {"a name before A asks A from its start", "1.3.6.1.4.1.2.5", "", nullptr,
         "1.3.6.1.4.1.2.6.1.1.0"},
        {"a name between the subtrees goes straight to B", "1.3.6.1.4.1.2.6.2", nullptr, "",
         "1.3.6.1.4.1.2.7.1.0"},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        send_request(GETNEXT, {r.request}, {});
        vx_dpi_msg q;
        if (r.a_instance != nullptr) {
            ASSERT_TRUE(expect_dpi(a_, DPI_GETNEXT, GROUP_A, r.a_instance, &q));
            vx_bytes vb = r.b_instance != nullptr
                              ? dpi_varbind(GROUP_A, r.a_instance, T_END_OF_MIB, {})
                              : dpi_varbind(GROUP_A, "1.0", T_INTEGER32, be32(3));
            ASSERT_TRUE(vx_send_all(a_->fd, dpi_response(q.packet_id, 0, 0, {vb})));
        }
        if (r.b_instance != nullptr) {
            ASSERT_TRUE(expect_dpi(b, DPI_GETNEXT, "1.3.6.1.4.1.2.7.", r.b_instance, &q));
            ASSERT_TRUE(vx_send_all(b->fd, dpi_response(q.packet_id, 0, 0,
                                                        {dpi_varbind("1.3.6.1.4.1.2.7.", "1.0",
                                                                     T_INTEGER32, be32(3))})));
        }
        vx_smux_msg answer;
        ASSERT_TRUE(read_response(&answer));
        EXPECT_EQ(answer.error_status, 0);
        EXPECT_EQ(answer.vb_names.at(0), r.answered);
        EXPECT_EQ(vx_to_hex(answer.vb_values.at(0)), vx_to_hex(vx_hex("02 01 03")));
        EXPECT_TRUE(idle(a_));
        EXPECT_TRUE(idle(b));
    }
}

TEST_F(ForwardThroughDaemon, ThreeVarBindsStopAtTheSecondFailure) {
    const std::string base = SUBTREE_A;
    send_request(GET, {base + ".1.0", base + ".2.0", base + ".3.0"}, {});
    vx_dpi_msg q;
    ASSERT_TRUE(expect_dpi(a_, DPI_GET, GROUP_A, "1.0", &q));
    ASSERT_TRUE(vx_send_all(
        a_->fd,
        dpi_response(q.packet_id, 0, 0, {dpi_varbind(GROUP_A, "1.0", T_DISPLAY, vx_hex("6f6b"))})));
    ASSERT_TRUE(expect_dpi(a_, DPI_GET, GROUP_A, "2.0", &q));
    ASSERT_TRUE(vx_send_all(
        a_->fd, dpi_response(q.packet_id, 0, 0, {dpi_varbind(GROUP_A, "2.0", 16, {})})));
    vx_smux_msg answer;
    ASSERT_TRUE(read_response(&answer));
    EXPECT_EQ(answer.error_status, 2);
    EXPECT_EQ(answer.error_index, 2);
    ASSERT_EQ(answer.vb_values.size(), 3U);
    EXPECT_EQ(vx_to_hex(answer.vb_values[0]), vx_to_hex(vx_hex("04 02 6f 6b")));
    EXPECT_EQ(vx_to_hex(answer.vb_values[1]), vx_to_hex(vx_hex("05 00")));
    EXPECT_EQ(vx_to_hex(answer.vb_values[2]), vx_to_hex(vx_hex("05 00")));
    EXPECT_TRUE(idle(a_));  // the third was never asked for
}

TEST_F(ForwardThroughDaemon, SubagentTrapsBecomeV1Traps) {
    struct row {
        const char* name;
        vx_bytes packet;
        bool sent;
        const char* enterprise;
        int32_t generic;
        int32_t specific;
        std::vector<std::string> names;
        std::vector<std::string> values;
    };
    const std::string o1 = std::string(SUBTREE_A) + ".1.0";
    const std::string o2 = std::string(SUBTREE_A) + ".2.0";
    const row rows[] = {
        {"enterprise-specific with two varBinds",
         dpi_trap(20, 6, 17, SUBTREE_A,
                  {dpi_varbind(GROUP_A, "1.0", T_INTEGER32, be32(5)),
                   dpi_varbind(GROUP_A, "2.0", T_DISPLAY, vx_hex("6f6b"))}),
         true,
         SUBTREE_A,
         6,
         17,
         {o1, o2},
         {"02 01 05", "04 02 6f 6b"}},
        {"no enterprise: the daemon's identity",
         dpi_trap(21, 1, 0, "", {}),
         true,
         VX_TEST_PEER_OID,
         1,
         0,
         {},
         {}},
        {"a Counter64 varBind is left out",
         dpi_trap(22, 6, 1, SUBTREE_A,
                  {dpi_varbind(GROUP_A, "1.0", T_INTEGER32, be32(1)),
                   dpi_varbind(GROUP_A, "3.0", T_COUNTER64, vx_hex("0000000100000002")),
                   dpi_varbind(GROUP_A, "2.0", 136, be32(100))}),
         true,
         SUBTREE_A,
         6,
         1,
         {o1, o2},
         {"02 01 01", "43 01 64"}},
        {"endOfMibView has no SNMPv1 form: nothing is sent",
         dpi_trap(23, 6, 2, SUBTREE_A, {dpi_varbind(GROUP_A, "1.0", T_END_OF_MIB, {})}),
         false,
         "",
         0,
         0,
         {},
         {}},
        {"an unknown value type: nothing is sent",
         dpi_trap(24, 6, 2, SUBTREE_A, {dpi_varbind(GROUP_A, "1.0", 140, be32(1))}),
         false,
         "",
         0,
         0,
         {},
         {}},
        {"an enterprise that is not an OID: nothing is sent",
         dpi_trap(25, 6, 3, "1.3.6.", {}),
         false,
         "",
         0,
         0,
         {},
         {}},
    };
    ASSERT_TRUE(drain_traps());
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        ASSERT_TRUE(vx_send_all(a_->fd, r.packet));
        if (!r.sent) {
            EXPECT_TRUE(agent_quiet(300));
            continue;
        }
        vx_smux_msg trap;
        ASSERT_TRUE(vx_smux_next(&agent_, &trap, 5000, true));
        ASSERT_EQ(trap.type, TRAP);
        EXPECT_EQ(trap.oid, r.enterprise);
        EXPECT_EQ(trap.generic, r.generic);
        EXPECT_EQ(trap.specific, r.specific);
        EXPECT_EQ(trap.vb_names, r.names);
        ASSERT_EQ(trap.vb_values.size(), r.values.size());
        for (size_t i = 0; i < r.values.size(); ++i) {
            EXPECT_EQ(vx_to_hex(trap.vb_values[i]), vx_to_hex(vx_hex(r.values[i].c_str())));
        }
        EXPECT_TRUE(idle(a_));  // a TRAP gets no answer
    }

    // Agent address 0.0.0.0 and time stamp 0, byte for byte.
    ASSERT_TRUE(vx_send_all(a_->fd, dpi_trap(26, 0, 0, "", {})));
    vx_bytes pdu;
    ASSERT_TRUE(vx_smux_read(&agent_, &pdu, 5000));
    EXPECT_EQ(vx_to_hex(pdu),
              vx_to_hex(vx_hex("a4 1c 06 09 2b 06 01 04 01 86 8d 1f 01 40 04 00 00 00 00"
                               "02 01 00 02 01 00 43 01 00 30 00")));
}

TEST_F(ForwardThroughDaemon, TrapWhileTheResponseIsAwaitedGoesFirst) {
    ASSERT_TRUE(drain_traps());
    send_request(GET, {std::string(SUBTREE_A) + ".1.0"}, {});
    vx_dpi_msg q;
    ASSERT_TRUE(expect_dpi(a_, DPI_GET, GROUP_A, "1.0", &q));
    ASSERT_TRUE(vx_send_all(a_->fd, dpi_trap(30, 6, 9, SUBTREE_A, {})));
    ASSERT_TRUE(vx_send_all(
        a_->fd,
        dpi_response(q.packet_id, 0, 0, {dpi_varbind(GROUP_A, "1.0", T_INTEGER32, be32(11))})));
    vx_smux_msg m;
    ASSERT_TRUE(vx_smux_next(&agent_, &m, 5000, true));
    EXPECT_EQ(m.type, TRAP);
    EXPECT_EQ(m.specific, 9);
    ASSERT_TRUE(read_response(&m));
    EXPECT_EQ(m.error_status, 0);
    EXPECT_EQ(vx_to_hex(m.vb_values.at(0)), vx_to_hex(vx_hex("02 01 0b")));
}

TEST_F(ForwardThroughDaemon, FailedSubagentIsDroppedAndItsDeletesFollowTheGetResponse) {
    struct row {
        const char* name;
        int action;  // what the subagent does instead of answering
    };
    enum { CLOSES, GARBAGE, OPEN_PACKET, OVERSIZED };
    const row rows[] = {
        {"closes its connection", CLOSES},
        {"sends a packet that does not parse", GARBAGE},
        {"sends an OPEN", OPEN_PACKET},
        {"sends a packet larger than any buffer", OVERSIZED},
    };
    uint16_t id = 40;
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        // Two subtrees, registered out of order.
        vx_stream* c = subagent("1.3.6.1.4.1.2.9.");
        ASSERT_NE(c, nullptr);
        ASSERT_EQ(vx_dpi_register_group(c, "1.3.6.1.4.1.2.8.", ++id), 0);
        ASSERT_TRUE(expect_rreq("1.3.6.1.4.1.2.8", OP_READ_WRITE));

        send_request(GET, {"1.3.6.1.4.1.2.8.1.0"}, {});
        vx_dpi_msg q;
        ASSERT_TRUE(expect_dpi(c, DPI_GET, "1.3.6.1.4.1.2.8.", "1.0", &q));
        switch (r.action) {
            case CLOSES:
                close(c->fd);
                c->fd = -1;
                break;
            case GARBAGE:
                ASSERT_TRUE(vx_send_all(c->fd, dpi_packet(q.packet_id, 16, {})));
                break;
            case OPEN_PACKET:
                ASSERT_TRUE(vx_send_all(c->fd, vx_dpi_open(++id, "1.3.6.1.4.1.2.9", "again")));
                break;
            case OVERSIZED: {
                vx_bytes big(4097 + 2, 0);
                big[0] = 0x10;
                big[1] = 0x01;
                ASSERT_TRUE(vx_send_all(c->fd, big));
                break;
            }
        }
        // While the agent waits for its answer it must get nothing else.
        vx_smux_msg answer;
        ASSERT_TRUE(read_response(&answer));
        EXPECT_EQ(answer.error_status, 5);
        EXPECT_EQ(answer.error_index, 1);
        // The deletes follow, in the order the subtrees were first announced.
        EXPECT_TRUE(expect_rreq("1.3.6.1.4.1.2.9", OP_DELETE));
        EXPECT_TRUE(expect_rreq("1.3.6.1.4.1.2.8", OP_DELETE));
        if (c->fd >= 0) {
            EXPECT_TRUE(vx_wait_closed(c->fd, 3000));
        }
        // The others are served as before.
        send_request(GET, {std::string(SUBTREE_A) + ".1.0"}, {});
        ASSERT_TRUE(expect_dpi(a_, DPI_GET, GROUP_A, "1.0", &q));
        ASSERT_TRUE(vx_send_all(
            a_->fd,
            dpi_response(q.packet_id, 0, 0, {dpi_varbind(GROUP_A, "1.0", T_INTEGER32, be32(1))})));
        ASSERT_TRUE(read_response(&answer));
        EXPECT_EQ(answer.error_status, 0);
    }
}

// A TRAP and a request from the agent that become readable together: the TRAP is read while
// the request's answer is awaited, and the subagent's socket has nothing left to read when the
// loop comes to it. The daemon must neither wait for a packet that is not coming nor drop
// the subagent for it.
TEST_F(ForwardThroughDaemon, TrapReadDuringARequestDoesNotStallTheLoop) {
    ASSERT_TRUE(vx_signal(&daemon_, SIGSTOP));
    ASSERT_TRUE(vx_send_all(a_->fd, dpi_trap(50, 6, 5, SUBTREE_A, {})));
    send_request(GET, {std::string(SUBTREE_A) + ".1.0"}, {});
    usleep(100 * 1000);
    ASSERT_TRUE(vx_signal(&daemon_, SIGCONT));

    vx_dpi_msg q;
    ASSERT_TRUE(expect_dpi(a_, DPI_GET, GROUP_A, "1.0", &q));
    ASSERT_TRUE(vx_send_all(
        a_->fd,
        dpi_response(q.packet_id, 0, 0, {dpi_varbind(GROUP_A, "1.0", T_INTEGER32, be32(1))})));
    vx_smux_msg answer;
    ASSERT_TRUE(read_response(&answer));
    EXPECT_EQ(answer.error_status, 0);

    // The next request goes to the same subagent at once.
    send_request(GET, {std::string(SUBTREE_A) + ".2.0"}, {});
    ASSERT_TRUE(vx_dpi_next(a_, &q, 2000)) << "the daemon did not forward the next request";
    EXPECT_EQ(q.type, DPI_GET);
    EXPECT_EQ(q.instance, "2.0");
}

// A subagent that answers a byte at a time gets 8 seconds for the whole answer, not for
// each byte: then the request ends with genErr, the subagent is dropped, and the others are
// served as before.
TEST_F(ForwardThroughDaemon, AnswerDribbledOutGetsEightSecondsInAll) {
    send_request(GET, {std::string(SUBTREE_A) + ".1.0"}, {});
    vx_dpi_msg q;
    ASSERT_TRUE(expect_dpi(a_, DPI_GET, GROUP_A, "1.0", &q));
    const auto t0 = std::chrono::steady_clock::now();
    const vx_bytes answer =
        dpi_response(q.packet_id, 0, 0, {dpi_varbind(GROUP_A, "1.0", T_INTEGER32, be32(1))});
    vx_smux_msg m;
    bool answered = false;
    for (size_t i = 0; i < answer.size() - 1 && !answered; i++) {
        ASSERT_TRUE(vx_send_all(a_->fd, {answer[i]}));
        answered = vx_smux_next(&agent_, &m, 1500);
    }
    ASSERT_TRUE(answered) << "no GetResponse while the answer dribbled in";
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(11));
    EXPECT_EQ(m.request_id, request_id_);
    EXPECT_EQ(m.error_status, 5);
    EXPECT_TRUE(vx_wait_closed(a_->fd, 3000));
    EXPECT_TRUE(expect_rreq(SUBTREE_A, OP_DELETE));

    vx_stream* b = subagent("1.3.6.1.4.1.2.9.");
    ASSERT_NE(b, nullptr);
    send_request(GET, {"1.3.6.1.4.1.2.9.1.0"}, {});
    ASSERT_TRUE(expect_dpi(b, DPI_GET, "1.3.6.1.4.1.2.9.", "1.0", &q));
}

}  // namespace
