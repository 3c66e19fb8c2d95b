// The daemon as an AgentX subagent: the net-snmp tools ask snmpd (AgentX master), snmpd the
// daemon, the daemon the example subagent or one the test plays over DPI. A master played by
// the test covers what snmpd never sends: ranges with an end or `include`, GetBulk, repeats.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "agentx_ed.h"
#include "snmp_container.h"
#include "vx_peers.h"
#include "vx_testsupport.h"

namespace {

using strings = std::vector<std::string>;
using vx_script = std::function<vx_bytes(const vx_dpi_msg&)>;
const std::string ME = "1.3.6.1.4.1.99999.1", EXAMPLE = "1.3.6.1.4.1.99999.2";
const std::string S = "1.3.6.1.4.1.99999.3", S_GROUP = S + ".";  // the played subagent's
const std::string PORT_OBJECT = "1.3.6.1.4.1.2.2.1.1.1.0";
constexpr uint8_t DPI_GETNEXT = 2, DPI_SET = 3, DPI_TRAP = 4, DPI_COMMIT = 10, DPI_UNDO = 11;
constexpr uint8_t T_OID = 3, T_COUNTER64 = 13, T_END_OF_MIB = 17, T_INTEGER32 = 129;
const vx_bytes C64 = {0, 0, 0, 1, 0, 0, 0, 2};  // 2^32 + 2

vx_bytes be32(uint32_t v) {
    return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
}

// The played subagent's objects: S.1.0 a Counter64, S.2.0 an OBJECT IDENTIFIER, S.3.0 an
// Integer32 (one-digit arcs: text order is OID order). It answers a SET with `refusal` and a
// COMMIT with `commit_refusal` (DPI error codes), UNDO with success, and notes them all in
// `set_steps`.
uint8_t refusal = 0, commit_refusal = 0;
std::vector<uint8_t> set_steps;

vx_bytes objects(const vx_dpi_msg& m) {
    if (m.type == DPI_SET || m.type == DPI_COMMIT || m.type == DPI_UNDO) {
        set_steps.push_back(m.type);
        return vx_dpi_response(m.packet_id, m.type == DPI_SET      ? refusal
                                            : m.type == DPI_COMMIT ? commit_refusal
                                                                   : 0);
    }
    const std::string oid = S + ".7";
    const struct {
        const char* instance;
        uint8_t type;
        vx_bytes value;
    } rows[] = {{"1.0", T_COUNTER64, C64},
                {"2.0", T_OID, {oid.begin(), oid.end()}},
                {"3.0", T_INTEGER32, be32(3)}};
    for (const auto& o : rows) {
        if (m.type == DPI_GETNEXT ? m.instance < o.instance : m.instance == o.instance) {
            return vx_dpi_response(m.packet_id, 0, S_GROUP, o.instance, o.type, o.value);
        }
    }
    return vx_dpi_response(m.packet_id, 0, S_GROUP, m.instance, T_END_OF_MIB);
}

// The coldStart the daemon sends for each registration or withdrawal the master accepted.
const std::string ACCEPTED = ".1.3.6.1.6.3.1.1.5.1\t.1.3.6.1.6.3.1.1.4.3.0 = OID: ." + ME;
const std::string TRAP_OID = ".1.3.6.1.6.3.1.1.4.1.0 = OID: .",
                  ENTERPRISE = "\t.1.3.6.1.6.3.1.1.4.3.0 = OID: .";

// snmp<tool> against snmpd, with the community that may write when the tool is "set".
strings args(const std::string& tool, const char* version, const strings& rest) {
    return vx_snmp_args("snmp" + tool, version, tool == "set" ? "private" : "public", rest);
}

constexpr uint32_t SESSION = 42;

class AgentX : public ::testing::Test {
   protected:
    void SetUp() override {
        std::string why;
        if (!vx_enter_private_namespace(("varnex2 " + ME + " secret\n").c_str(), &why)) {
            GTEST_SKIP() << why;
        }
    }

    void TearDown() override {
        close(dpi_.fd);
        close(master_.fd);
        agentx_free_pdu(pdu_);
        vx_stop(&example_);
        // A sanitizer's report ends the daemon with a failure status (-1: it never ran).
        EXPECT_LE(vx_stop(&daemon_), 0) << vx_read_file(daemon_.log_path);
        vx_stop_snmpd(&snmpd_);
        vx_stop(&trapd_);
    }

    // snmpd as AgentX master with snmptrapd, the example subagent and the played one.
    void with_snmpd() {
        std::string why;
        trap_log_ = vx_test_dir() + "/snmptrapd.log";
        ASSERT_TRUE(vx_start_snmptrapd(&trapd_, &why)) << why;
        snmpd_.agentx_socket = vx_test_dir() + "/agentx.sock";
        ASSERT_TRUE(vx_start_snmpd(&snmpd_, {"-Dagentx/master"}, &why)) << why;
        setenv("VARNEX2_AGENTX", snmpd_.agentx_socket.c_str(), 1);
        ASSERT_TRUE(vx_start_varnex2(&daemon_, {"-d", "96"}, nullptr, &why)) << why;
        ASSERT_TRUE(vx_wait_for_text(daemon_.log_path, "ready to receive requests", 15000));
        ASSERT_TRUE(vx_spawn(&example_, {EXAMPLE_SUBAGENT_PATH}, vx_test_dir() + "/example.log"));
        ASSERT_TRUE(vx_wait_for_text(example_.log_path, "serving", 30000));
        ASSERT_TRUE(vx_wait_for_text(trap_log_, ACCEPTED, 10000, 2));  // DPI port, example
        std::string port = run(args("get", "-v2c", {PORT_OBJECT})) + "INTEGER: -1";
        dpi_ = vx_dpi_connect_open(atoi(port.c_str() + port.find("INTEGER: ") + 9), S);
        ASSERT_EQ(vx_dpi_register_group(&dpi_, S_GROUP, 2), 0);
        ASSERT_TRUE(vx_wait_for_text(trap_log_, ACCEPTED, 10000, 3));
    }

    // Runs a tool to its end while the played subagent answers with `answer`: its output, and
    // its exit status in status_.
    std::string run(const strings& argv, const vx_script& answer = objects) {
        return vx_serve_tool(argv, &dpi_, answer, &status_);
    }

    // A master played by the test, and the played subagent on the daemon's DPI port.
    void with_played_master() {
        std::string why;
        sockaddr_un sa{AF_UNIX, {}};
        snprintf(sa.sun_path, sizeof sa.sun_path, "%s/master.sock", vx_test_dir().c_str());
        int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_TRUE(bind(listener, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 &&
                    listen(listener, 1) == 0);
        setenv("VARNEX2_AGENTX", sa.sun_path, 1);
        ASSERT_TRUE(vx_start_varnex2(&daemon_, {"-d", "255"}, nullptr, &why)) << why;
        master_.fd = vx_tcp_accept(listener, 8000);
        close(listener);
        ASSERT_TRUE(next() && pdu_->header.type == AGENTX_OPEN_PDU);
        EXPECT_EQ(vx_oid_text(pdu_->oid), ME);
        ASSERT_TRUE(respond() && registered("1.3.6.1.4.1.2.2.1.1.1"));
        // The played subagent, on the DPI port the daemon's own object gives.
        ASSERT_TRUE(ask(AGENTX_GET_PDU, {PORT_OBJECT}, 1) && next() && pdu_->num_varbinds == 1);
        dpi_ = vx_dpi_connect_open(pdu_->varbinds[0].value->value.s32, S);
        ASSERT_EQ(vx_dpi_register_group(&dpi_, S_GROUP, 2), 0);
        ASSERT_TRUE(registered(S));
    }

    // The next PDU from the daemon other than a Notify, into pdu_; meanwhile the played
    // subagent answers what it is asked.
    bool next() {
        std::vector<uint8_t>& in = master_.pending;
        bool ok = false;
        return vx_wait_until(
                   [&] {
                       vx_dpi_msg m;
                       EXPECT_TRUE(dpi_.fd < 0 || !vx_dpi_next(&dpi_, &m, 0) ||
                                   vx_send_all(dpi_.fd, objects(m)));
                       uint8_t buf[4096];
                       ssize_t n = recv(master_.fd, buf, sizeof buf, MSG_DONTWAIT);
                       in.insert(in.end(), buf, buf + std::max<ssize_t>(n, 0));
                       for (uint32_t len = 0;
                            agentx_frame_len(in.data(), uint32_t(in.size()), &len) == AGENTX_OK;) {
                           ok = agentx_decode_pdu(in.data(), len, pdu_) == AGENTX_OK;
                           in.erase(in.begin(), in.begin() + len);
                           if (!ok || pdu_->header.type != AGENTX_NOTIFY_PDU) {
                               return true;
                           }
                       }
                       return n == 0;  // the end of the stream
                   },
                   10000) &&
               ok;
    }

    bool send(agentx_pdu* pdu) {
        uint8_t buf[4096];
        uint32_t len = 0;
        return agentx_encode_pdu(pdu, buf, sizeof buf, &len) == AGENTX_OK &&
               vx_send_all(master_.fd, vx_bytes(buf, buf + len));
    }

    bool respond() {  // to the daemon's PDU in pdu_
        agentx_pdu r{};
        r.header = {1,       AGENTX_RESPONSE_PDU,         0,
                    SESSION, pdu_->header.transaction_id, pdu_->header.packet_id,
                    0};
        return send(&r);
    }

    bool registered(const std::string& subtree) {
        EXPECT_TRUE(next() && pdu_->header.type == AGENTX_REGISTER_PDU &&
                    vx_oid_text(pdu_->oid) == subtree && pdu_->header.session_id == SESSION)
            << subtree;
        return respond();
    }

    // A request with search ranges written "start", "start-end" (up to end) or "+start" (from
    // start itself on).
    bool ask(uint8_t type, const strings& ranges, uint32_t packet_id, uint16_t non_repeaters = 0,
             uint16_t repetitions = 0, uint32_t session = SESSION) {
        agentx_pdu* q = agentx_create_pdu();
        bool ok = agentx_reserve_ranges(q, uint32_t(ranges.size())) == AGENTX_OK;
        for (const std::string& r : ranges) {
            agentx_range& to = q->ranges[q->num_ranges++];
            size_t dash = r.find('-'), from = r[0] == '+' ? 1 : 0;
            to.start = snmp_create_oid_container(r.substr(from, dash - from).c_str());
            to.end = dash == std::string::npos ? snmp_create_container(SNMP_NATIVE_OID, 1)
                                               : snmp_create_oid_container(r.c_str() + dash + 1);
            to.end->tag = SNMP_TAG_OID;
            to.include = uint8_t(from);
        }
        q->header = {1, type, 0, session, 1000 + packet_id, packet_id, 0};
        q->non_repeaters = non_repeaters;
        q->max_repetitions = repetitions;
        ok = ok && send(q);
        agentx_free_pdu(q);
        return ok;
    }

    // The answer to request `packet_id`: an OID per varbind, with "!" after it for
    // endOfMibView and "?" for noSuchInstance.
    strings answer_to(uint32_t packet_id) {
        strings out;
        bool answer = next() && pdu_->header.type == AGENTX_RESPONSE_PDU && pdu_->error == 0;
        EXPECT_TRUE(answer && pdu_->header.transaction_id == 1000 + packet_id &&
                    pdu_->header.packet_id == packet_id);
        for (uint32_t i = 0; answer && i < pdu_->num_varbinds; i++) {
            uint8_t tag = pdu_->varbinds[i].value->tag;
            const char* mark = tag == SNMP_TAG_END_OF_MIB_VIEW    ? "!"
                               : tag == SNMP_TAG_NO_SUCH_INSTANCE ? "?"
                                                                  : "";
            out.push_back(vx_oid_text(pdu_->varbinds[i].name) + mark);
        }
        return out;
    }
    vx_process daemon_, example_, trapd_;
    vx_snmpd snmpd_;
    vx_stream dpi_, master_;  // the played subagent and master
    agentx_pdu* pdu_ = agentx_create_pdu();
    std::string trap_log_;
    int status_ = 0;
};

// Reads and walks carry SNMPv2 values; a Set is tried on every subagent before any commits,
// one refusal anywhere undoes the SETs the others passed, and the manager sees the reason.
// Then a subagent dies in the middle of a walk, and the master restarts.
TEST_F(AgentX, ThroughSnmpd) {
    ASSERT_NO_FATAL_FAILURE(with_snmpd());
    const std::string e = EXAMPLE, s = S, level = e + ".6.0", mine = s + ".1.0";
    auto set = [](const strings& rest) { return args("set", "-v2c", rest); };
    const std::string failed =
        "wrongValue (The set value is illegal or unsupported in some way)\nFailed object: .";
    const struct {
        strings argv;
        uint8_t code;  // the played subagent's answer to a SET
        std::string shown;
        size_t objects;
        std::vector<uint8_t> seen;  // the SETs, COMMITs and UNDOs the played subagent was sent
    } rows[] = {
        // clang-format off
        {args("get", "-v2c", {e + ".2.0", e + ".5.0", e + ".9.0"}), 0, ".2.0 = INTEGER: 42\n." + e +
         ".5.0 = IpAddress: 127.0.0.1\n." + e + ".9.0 = No Such Object", 3, {}},
        {args("walk", "-v1", {e}), 0, "." + e + ".1.0 = ", 6, {}},
        {args("bulkwalk", "-v2c", {e}), 0, "." + e + ".1.0 = ", 6, {}},
        {args("bulkwalk", "-v2c", {s}), 0, ".1.0 = Counter64: 4294967298\n." + s +
         ".2.0 = OID: ." + s + ".7\n." + s + ".3.0 = INTEGER: 3\n", 3, {}},
        {set({level, "i", "42"}), 0, {"INTEGER: 42"}, 1, {}},
        {set({level, "i", "500"}), 0, {"wrongValue"}, 0, {}},
        {set({mine, "i", "9", level, "i", "500"}), 0, {failed + level}, 0, {DPI_SET, DPI_UNDO}},
        {set({level, "i", "7", mine, "i", "9"}), 10, {failed + mine}, 0, {DPI_SET}},
        {args("get", "-v2c", {level}), 0, {"INTEGER: 42"}, 1, {}},
        {set({mine, "i", "9", level, "i", "8"}), 0, {"INTEGER: 8"}, 2, {DPI_SET, DPI_COMMIT}},
        {args("get", "-v2c", {level}), 0, {"INTEGER: 8"}, 1, {}},
        // clang-format on
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.argv[0] + " " + r.argv[10]);
        refusal = r.code;
        set_steps.clear();
        std::string out = run(r.argv);
        // The master does not wait for what follows its CleanupSet: give the undo its moment.
        for (vx_dpi_msg late; vx_dpi_next(&dpi_, &late, 200);) {
            EXPECT_TRUE(vx_send_all(dpi_.fd, objects(late)));
        }
        EXPECT_EQ(status_, r.objects == 0 ? 2 : 0) << out;  // a refusal shows no object
        EXPECT_NE(out.find(r.shown), std::string::npos) << r.shown << "\n" << out;
        EXPECT_EQ(vx_oids_in(out).size(), r.objects) << out;
        EXPECT_EQ(set_steps, r.seen);
    }

    // Traps: a generic one by its standard OID, a specific one as enterprise.0.specific (the
    // daemon's identity when it has none), the varBinds kept. Each Set above sent one too.
    const struct {
        int32_t generic, specific;
        std::string enterprise;
        uint8_t type;
        vx_bytes value;
        std::string shown;
    } traps[] = {
        // clang-format off
        {2, 0, S, T_INTEGER32, be32(5),
         "1.3.6.1.6.3.1.1.5.3\t." + s + ".1.0 = INTEGER: 5" + ENTERPRISE + s},
        {6, 3, "", T_COUNTER64, C64,
         ME + ".0.3\t." + s + ".1.0 = Counter64: 4294967298" + ENTERPRISE + ME},
        {-1, 0, "", 0, {}, e + ".0.1\t." + level + " = INTEGER: 8" + ENTERPRISE + e},  // the Set's
        // clang-format on
    };
    for (const auto& t : traps) {
        std::string text = t.enterprise + '\0' + S_GROUP + '\0' + "1.0" + '\0';
        vx_bytes body = be32(uint32_t(t.generic)), tail = {t.type, 0, uint8_t(t.value.size())};
        for (const vx_bytes& part :
             {be32(uint32_t(t.specific)), vx_bytes(text.begin(), text.end()), tail, t.value}) {
            body.insert(body.end(), part.begin(), part.end());
        }
        ASSERT_TRUE(t.generic < 0 || vx_send_all(dpi_.fd, vx_dpi_packet(77, DPI_TRAP, body)));
        EXPECT_TRUE(vx_wait_for_text(trap_log_, TRAP_OID + t.shown, 10000)) << t.shown;
    }

    int before = vx_count_in_file(trap_log_, ACCEPTED), answered = 0;
    // A subagent dies mid-walk: the walk goes on past its subtree, which is gone.
    std::string out = run(args("walk", "-v2c", {S}), [&](const vx_dpi_msg& m) {
        if (++answered == 3) {
            close(dpi_.fd);
            dpi_.fd = -1;
        }
        return dpi_.fd < 0 ? vx_bytes{} : objects(m);
    });
    EXPECT_EQ(status_, 0) << out;
    EXPECT_EQ(vx_oids_in(out).size(), 2U) << out;
    ASSERT_TRUE(vx_wait_for_text(trap_log_, ACCEPTED, 10000, before + 1));
    out = run(args("get", "-v2c", {S + ".1.0"}));
    EXPECT_NE(out.find("No Such Object"), std::string::npos) << out;

    // The master restarted: everything is registered again within seconds.
    std::string why;
    ASSERT_TRUE(vx_restart_snmpd(&snmpd_, &why)) << why;
    EXPECT_TRUE(vx_wait_for_text(daemon_.log_path, "ready to receive requests", 8000, 2));
    ASSERT_TRUE(vx_wait_for_text(trap_log_, ACCEPTED, 10000, before + 3));
    out = run(args("walk", "-v2c", {EXAMPLE}));
    EXPECT_EQ(vx_oids_in(out).size(), 6U) << out;
    EXPECT_EQ(vx_count_in_file(daemon_.log_path, "Lost connection to agent"), 1);
}

TEST_F(AgentX, UnderAPlayedMaster) {
    ASSERT_NO_FATAL_FAILURE(with_played_master());
    const std::string s1 = S + ".1.0", s2 = S + ".2.0", s3 = S + ".3.0";
    const uint8_t NEXT = AGENTX_GETNEXT_PDU, BULK = AGENTX_GETBULK_PDU;
    const struct {
        uint8_t type;
        strings ranges;
        uint16_t non_repeaters, repetitions;
        strings answer;
    } rows[] = {
        // clang-format off
        {NEXT, {S}, 0, 0, {s1}},
        {NEXT, {"+" + s2}, 0, 0, {s2}},
        {NEXT, {s1 + "-" + s2}, 0, 0, {s1 + "!"}},
        {NEXT, {s1 + "-" + S + ".2.1"}, 0, 0, {s2}},
        {NEXT, {"1.3.6.1.4.1.2"}, 0, 0, {PORT_OBJECT}},
        {AGENTX_GET_PDU, {s3, S + ".4.0"}, 0, 0, {s3, S + ".4.0?"}},
        {BULK, {s2, S, s1 + "-" + s3}, 1, 3, {s3, s1, s2, s2, s2 + "!", s3, s2 + "!"}},
        {BULK, {s1}, 0, 10, {s2, s3, s3 + "!"}},
        {BULK, {S}, 5, 10, {s1}},  // more non-repeaters than ranges
        // clang-format on
    };
    uint32_t id = 10;
    for (const auto& r : rows) {
        SCOPED_TRACE(id);
        ASSERT_TRUE(ask(r.type, r.ranges, ++id, r.non_repeaters, r.repetitions));
        EXPECT_EQ(answer_to(id), r.answer);
    }

    // A request sent again with its packet id is served once; one for another session not at
    // all; an answer to a packet the daemon never sent is passed over.
    agentx_pdu stray{};
    stray.header = {1, AGENTX_RESPONSE_PDU, 0, SESSION, 0, 0x7fff0000, 0};
    ASSERT_TRUE(send(&stray));
    stray.header.type = AGENTX_PING_PDU;  // and one only a subagent sends
    ASSERT_TRUE(send(&stray));
    ASSERT_TRUE(ask(AGENTX_GET_PDU, {s1}, 50) && ask(AGENTX_GET_PDU, {s1}, 50));
    ASSERT_TRUE(ask(AGENTX_GET_PDU, {s1}, 51, 0, 0, SESSION + 1));
    ASSERT_TRUE(ask(AGENTX_GET_PDU, {s2}, 52));
    EXPECT_EQ(answer_to(50), strings{s1});
    EXPECT_EQ(answer_to(52), strings{s2});

    // A registration the master refuses (duplicateRegistration).
    ASSERT_EQ(vx_dpi_register_group(&dpi_, "1.3.6.1.4.1.99999.4.", 2), 0);
    ASSERT_TRUE(next() && pdu_->header.type == AGENTX_REGISTER_PDU);
    agentx_pdu refused{};
    refused.header = {1, AGENTX_RESPONSE_PDU, 0, SESSION, 0, pdu_->header.packet_id, 0};
    refused.error = 263;
    ASSERT_TRUE(send(&refused));

    // Set phases in an order snmpd never uses: a Commit in no transaction, an Undo right after
    // the TestSet, and a COMMIT the subagent fails; the error status of each answer.
    const auto set = [&](uint8_t type, uint32_t packet_id, uint32_t transaction) {
        agentx_pdu* q = agentx_create_pdu();
        bool ok = type != AGENTX_TESTSET_PDU ||
                  agentx_add_varbind(q, snmp_create_oid_container(s2.c_str()),
                                     snmp_create_value_container(S.c_str(), 0, SNMP_TAG_OID, 0)) ==
                      AGENTX_OK;
        q->header = {1, type, 0, SESSION, transaction, packet_id, 0};
        ok = ok && send(q);
        agentx_free_pdu(q);
        return type == AGENTX_CLEANUPSET_PDU || !ok || !next() ? -1 : int(pdu_->error);
    };
    set_steps.clear();
    EXPECT_EQ(set(AGENTX_COMMITSET_PDU, 60, 7), 14);  // commitFailed
    EXPECT_EQ(set(AGENTX_TESTSET_PDU, 61, 8), 0);
    EXPECT_EQ(set(AGENTX_UNDOSET_PDU, 62, 8), 0);
    set(AGENTX_CLEANUPSET_PDU, 63, 8);
    commit_refusal = 5;  // genErr
    EXPECT_EQ(set(AGENTX_TESTSET_PDU, 64, 9), 0);
    EXPECT_EQ(set(AGENTX_COMMITSET_PDU, 65, 9), 14);
    set(AGENTX_CLEANUPSET_PDU, 66, 9);
    EXPECT_EQ(set_steps, (std::vector<uint8_t>{DPI_SET, DPI_UNDO, DPI_SET, DPI_COMMIT}));

    // Stopping: Close with reason shutdown.
    ASSERT_TRUE(vx_signal(&daemon_, SIGTERM));
    ASSERT_TRUE(next() && pdu_->header.type == AGENTX_CLOSE_PDU);
    EXPECT_EQ(pdu_->reason, AGENTX_CLOSE_SHUTDOWN);
    EXPECT_TRUE(respond() && vx_wait_exit(&daemon_, 5000));
}

}  // namespace
