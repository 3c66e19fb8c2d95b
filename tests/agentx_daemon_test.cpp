// The daemon's AgentX side against a master played by the test on a Unix socket, for what
// snmpd never sends: GetNext search ranges with an end and with `include`, GetBulk, requests
// sent again or for another session, and the registrations a master sees while subagents
// come and go. PDUs are built and read with the library's AgentX codec; the DPI subagent is
// played by the test too.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "agentx_ed.h"
#include "snmp_container.h"
#include "vx_peers.h"
#include "vx_testsupport.h"

namespace {

constexpr const char* PORT_SUBTREE = "1.3.6.1.4.1.2.2.1.1.1";
constexpr const char* PORT_INSTANCE = "1.3.6.1.4.1.2.2.1.1.1.0";
constexpr const char* S = "1.3.6.1.4.1.99999.3";
constexpr const char* S_GROUP = "1.3.6.1.4.1.99999.3.";
constexpr uint32_t SESSION = 42;
constexpr uint8_t DPI_GETNEXT = 2;
constexpr uint8_t T_END_OF_MIB = 17;
constexpr uint8_t T_INTEGER32 = 129;

std::string oid_text(const snmp_container* c) {
    std::string out;
    for (uint32_t i = 0; c != nullptr && i < c->length; i++) {
        out += (i ? "." : "") + std::to_string(snmp_container_const_subids(c)[i]);
    }
    return out;
}

std::string rendered(const snmp_varBind& vb) {
    std::string value;
    switch (vb.value->tag) {
        case SNMP_TAG_INTEGER:
            value = std::to_string(vb.value->value.s32);
            break;
        case SNMP_TAG_END_OF_MIB_VIEW:
            value = "endOfMibView";
            break;
        case SNMP_TAG_NO_SUCH_INSTANCE:
            value = "noSuchInstance";
            break;
        default:
            value = "tag " + std::to_string(vb.value->tag);
    }
    return oid_text(vb.name) + "=" + value;
}

// The scripted subagent's objects S.1.0 = 1, S.2.0 = 2, S.3.0 = 3 (with one-digit arcs,
// text order is OID order).
vx_bytes answer_dpi(const vx_dpi_msg& m) {
    std::string at;
    for (const char* object : {"1.0", "2.0", "3.0"}) {
        if (at.empty() && (m.type == DPI_GETNEXT ? m.instance < object : m.instance == object)) {
            at = object;
        }
    }
    if (at.empty()) {
        return vx_dpi_response(m.packet_id, 0, S_GROUP, m.instance, T_END_OF_MIB);
    }
    auto n = static_cast<uint8_t>(at[0] - '0');
    return vx_dpi_response(m.packet_id, 0, S_GROUP, at, T_INTEGER32, {0, 0, 0, n});
}

class AgentXDaemon : public ::testing::Test {
   protected:
    void SetUp() override {
        std::string why;
        if (!vx_enter_private_namespace(VX_TEST_PEERS_TEXT, &why)) {
            GTEST_SKIP() << why;
        }
        pdu_ = agentx_create_pdu();
        ASSERT_NE(pdu_, nullptr);
        std::string path = vx_test_dir() + "/master.sock";
        sockaddr_un sa{};
        sa.sun_family = AF_UNIX;
        snprintf(sa.sun_path, sizeof sa.sun_path, "%s", path.c_str());
        listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(bind(listen_fd_, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
        ASSERT_EQ(listen(listen_fd_, 1), 0);
        setenv("VARNEX2_AGENTX", path.c_str(), 1);
        ASSERT_TRUE(vx_start_varnex2(&daemon_, {"-d", "96"}, nullptr, &why)) << why;
        ASSERT_TRUE(accept_session());
    }

    void TearDown() override {
        for (vx_stream* s : {&sa_, &sa2_, &master_}) {
            if (s->fd >= 0) {
                close(s->fd);
            }
        }
        if (listen_fd_ >= 0) {
            close(listen_fd_);
        }
        if (daemon_.pid > 0) {
            vx_stop(&daemon_);
        }
        std::string log = vx_read_file(daemon_.log_path);
        EXPECT_EQ(log.find("runtime error:"), std::string::npos);
        EXPECT_EQ(log.find("Sanitizer"), std::string::npos);
        if (HasFailure()) {
            printf("---- daemon ----\n%s\n", log.c_str());
        }
        agentx_free_pdu(pdu_);
    }

    // The next PDU from the daemon other than a Notify, into pdu_; answers the DPI packets
    // that come meanwhile as the scripted subagents.
    bool next(int timeout_ms = 10000) {
        for (int waited = 0; waited < timeout_ms; waited += 20) {
            uint32_t len = 0;
            if (agentx_frame_len(master_.pending.data(),
                                 static_cast<uint32_t>(master_.pending.size()), &len) == AGENTX_OK) {
                int rc = agentx_decode_pdu(master_.pending.data(), len, pdu_);
                master_.pending.erase(master_.pending.begin(), master_.pending.begin() + len);
                if (rc != AGENTX_OK) {
                    ADD_FAILURE() << "undecodable PDU, code " << rc;
                    return false;
                }
                if (pdu_->header.type != AGENTX_NOTIFY_PDU) {
                    return true;
                }
                continue;
            }
            for (vx_stream* s : {&sa_, &sa2_}) {
                vx_dpi_msg m;
                if (s->fd >= 0 && vx_dpi_next(s, &m, 0)) {
                    EXPECT_TRUE(vx_send_all(s->fd, answer_dpi(m)));
                }
            }
            pollfd p{master_.fd, POLLIN, 0};
            uint8_t buf[4096];
            ssize_t n = poll(&p, 1, 20) == 1 ? recv(master_.fd, buf, sizeof buf, 0) : -1;
            if (n == 0) {
                return false;
            }
            if (n > 0) {
                master_.pending.insert(master_.pending.end(), buf, buf + n);
            }
        }
        return false;
    }

    bool send(agentx_pdu* pdu) {
        uint8_t buf[4096];
        uint32_t len = 0;
        return agentx_encode_pdu(pdu, buf, sizeof buf, &len) == AGENTX_OK &&
               vx_send_all(master_.fd, vx_bytes(buf, buf + len));
    }

    // Answers the daemon's PDU in pdu_ with `error`.
    bool respond(uint16_t error) {
        agentx_pdu r{};
        r.header = pdu_->header;
        r.header.type = AGENTX_RESPONSE_PDU;
        r.header.session_id = SESSION;
        r.error = error;
        return send(&r);
    }

    // The next PDU is a Register (or Unregister) of `subtree`; it gets `error`.
    bool expect_registration(uint8_t type, const std::string& subtree, uint16_t error = 0) {
        if (!next() || pdu_->header.type != type || oid_text(pdu_->oid) != subtree) {
            ADD_FAILURE() << "wanted " << agentx_pdu_name(type) << " " << subtree << ", got "
                          << agentx_pdu_name(pdu_->header.type) << " " << oid_text(pdu_->oid);
            return false;
        }
        EXPECT_EQ(pdu_->header.session_id, SESSION);
        EXPECT_EQ(pdu_->priority, 127);
        return respond(error);
    }

    // Accepts the daemon's connection, checks its Open and takes its first registration.
    bool accept_session() {
        if (master_.fd >= 0) {
            close(master_.fd);
        }
        master_ = vx_stream{};
        master_.fd = vx_tcp_accept(listen_fd_, 8000);
        if (master_.fd < 0 || !next() || pdu_->header.type != AGENTX_OPEN_PDU) {
            return false;
        }
        EXPECT_EQ(oid_text(pdu_->oid), VX_TEST_PEER_OID);
        EXPECT_EQ(pdu_->timeout, 10);
        std::string descr(reinterpret_cast<const char*>(snmp_container_const_octets(
                              pdu_->description)),
                          pdu_->description->length);
        EXPECT_EQ(descr.rfind("varnex2 version", 0), 0u) << descr;
        return respond(0) && expect_registration(AGENTX_REGISTER_PDU, PORT_SUBTREE);
    }

    // Sends a request of `type` with search ranges {start, end, include}.
    struct range {
        std::string start;
        std::string end;
        bool include;
    };
    bool ask(uint8_t type, const std::vector<range>& ranges, uint32_t packet_id,
             uint16_t non_repeaters = 0, uint16_t max_repetitions = 0,
             uint32_t session = SESSION) {
        agentx_pdu* q = agentx_create_pdu();
        bool ok = q != nullptr && agentx_reserve_ranges(q, static_cast<uint32_t>(ranges.size())) ==
                                      AGENTX_OK;
        for (size_t i = 0; ok && i < ranges.size(); i++) {
            agentx_range& r = q->ranges[i];
            r.start = snmp_create_oid_container(ranges[i].start.c_str());
            r.end = ranges[i].end.empty() ? snmp_create_container(SNMP_NATIVE_OID, 1)
                                          : snmp_create_oid_container(ranges[i].end.c_str());
            ok = r.start != nullptr && r.end != nullptr;
            if (ok) {
                r.end->tag = SNMP_TAG_OID;
                r.include = ranges[i].include ? 1 : 0;
                q->num_ranges++;
            }
        }
        if (ok) {
            q->header = {1, type, 0, session, 1000 + packet_id, packet_id, 0};
            q->non_repeaters = non_repeaters;
            q->max_repetitions = max_repetitions;
            ok = send(q);
        }
        agentx_free_pdu(q);
        return ok;
    }

    // The answer to request `packet_id`: "oid=value" per varbind, or "error N/index".
    std::vector<std::string> answer_to(uint32_t packet_id) {
        if (!next() || pdu_->header.type != AGENTX_RESPONSE_PDU) {
            return {"no answer"};
        }
        const agentx_header& h = pdu_->header;
        EXPECT_EQ(h.session_id, SESSION);
        EXPECT_EQ(h.transaction_id, 1000 + packet_id);
        EXPECT_EQ(h.packet_id, packet_id);
        if (pdu_->error != 0) {
            return {"error " + std::to_string(pdu_->error) + "/" +
                    std::to_string(pdu_->error_index)};
        }
        std::vector<std::string> out;
        for (uint32_t i = 0; i < pdu_->num_varbinds; i++) {
            out.push_back(rendered(pdu_->varbinds[i]));
        }
        return out;
    }

    // A DPI subagent played by the test that registered S's group.
    bool open_subagent(vx_stream* sa, bool announced) {
        if (!ask(AGENTX_GET_PDU, {{PORT_INSTANCE, "", false}}, ++port_asks_)) {
            return false;
        }
        std::vector<std::string> port = answer_to(port_asks_);
        size_t eq = port.empty() ? std::string::npos : port[0].find('=');
        if (eq == std::string::npos) {
            return false;
        }
        *sa = vx_dpi_connect_open(std::atoi(port[0].c_str() + eq + 1), S);
        return sa->fd >= 0 && vx_dpi_register_group(sa, S_GROUP, 2) == 0 &&
               (!announced || expect_registration(AGENTX_REGISTER_PDU, S));
    }

    int listen_fd_ = -1;
    uint32_t port_asks_ = 0;  // packet ids 1.. of the Gets of the DPI port
    vx_stream master_;
    vx_stream sa_;
    vx_stream sa2_;
    vx_process daemon_;
    agentx_pdu* pdu_ = nullptr;
};

using strings = std::vector<std::string>;

TEST_F(AgentXDaemon, SearchRangesAndBulk) {
    ASSERT_TRUE(open_subagent(&sa_, true));
    const std::string s = S;
    const std::string eom = "=endOfMibView";
    struct row {
        const char* name;
        uint8_t type;
        std::vector<range> ranges;
        uint16_t non_repeaters;
        uint16_t max_repetitions;
        strings answer;
    };
    const row rows[] = {
        {"getnext from the subtree", AGENTX_GETNEXT_PDU, {{s, "", false}}, 0, 0, {s + ".1.0=1"}},
        {"getnext including its start", AGENTX_GETNEXT_PDU, {{s + ".2.0", "", true}}, 0, 0,
         {s + ".2.0=2"}},
        {"getnext including a start that is not there", AGENTX_GETNEXT_PDU,
         {{s + ".1.5", "", true}}, 0, 0, {s + ".2.0=2"}},
        {"getnext stops at the range's end", AGENTX_GETNEXT_PDU, {{s + ".1.0", s + ".2.0", false}},
         0, 0, {s + ".1.0" + eom}},
        {"getnext within the range's end", AGENTX_GETNEXT_PDU, {{s + ".1.0", s + ".2.1", false}},
         0, 0, {s + ".2.0=2"}},
        {"getnext past the last object", AGENTX_GETNEXT_PDU, {{s + ".3.0", "", false}}, 0, 0,
         {s + ".3.0" + eom}},
        {"getnext into the DPI port object", AGENTX_GETNEXT_PDU, {{"1.3.6.1.4.1.2", "", false}}, 0,
         0, {std::string(PORT_INSTANCE) + "=" + "port"}},
        {"get of two", AGENTX_GET_PDU, {{s + ".3.0", "", false}, {s + ".4.0", "", false}}, 0, 0,
         {s + ".3.0=3", s + ".4.0=noSuchInstance"}},
        {"bulk: one non-repeater, two repeaters", AGENTX_GETBULK_PDU,
         {{s + ".2.0", "", false}, {s, "", false}, {s + ".1.0", s + ".3.0", false}}, 1, 3,
         {s + ".3.0=3", s + ".1.0=1", s + ".2.0=2", s + ".2.0=2", s + ".2.0" + eom, s + ".3.0=3",
          s + ".2.0" + eom}},
        {"bulk ends with a row all at the end", AGENTX_GETBULK_PDU, {{s + ".1.0", "", false}}, 0,
         10, {s + ".2.0=2", s + ".3.0=3", s + ".3.0" + eom}},
        {"bulk with more non-repeaters than ranges", AGENTX_GETBULK_PDU, {{s, "", false}}, 5, 10,
         {s + ".1.0=1"}},
    };
    uint32_t id = 10;
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        ASSERT_TRUE(ask(r.type, r.ranges, ++id, r.non_repeaters, r.max_repetitions));
        strings got = answer_to(id);
        for (std::string& line : got) {
            if (line.rfind(PORT_INSTANCE, 0) == 0) {
                line = std::string(PORT_INSTANCE) + "=port";
            }
        }
        EXPECT_EQ(got, r.answer);
    }

    // A request sent again with its packet id is served once; one for another session not
    // at all.
    ASSERT_TRUE(ask(AGENTX_GET_PDU, {{s + ".1.0", "", false}}, 50));
    ASSERT_TRUE(ask(AGENTX_GET_PDU, {{s + ".1.0", "", false}}, 50));
    ASSERT_TRUE(ask(AGENTX_GET_PDU, {{s + ".1.0", "", false}}, 51, 0, 0, SESSION + 1));
    ASSERT_TRUE(ask(AGENTX_GET_PDU, {{s + ".2.0", "", false}}, 52));
    EXPECT_EQ(answer_to(50), strings{s + ".1.0=1"});
    EXPECT_EQ(answer_to(52), strings{s + ".2.0=2"});
}

// One Register per distinct subtree, an Unregister when its last holder leaves, a refusal
// that leaves the session up, and everything registered again after the master closed it.
TEST_F(AgentXDaemon, RegistrationsFollowTheSubagents) {
    ASSERT_TRUE(open_subagent(&sa_, true));
    ASSERT_TRUE(open_subagent(&sa2_, false));  // the same subtree: the master already has it
    close(sa_.fd);
    sa_.fd = -1;
    ASSERT_TRUE(ask(AGENTX_GET_PDU, {{std::string(S) + ".1.0", "", false}}, 60));
    EXPECT_EQ(answer_to(60), strings{std::string(S) + ".1.0=1"});  // nothing withdrawn
    close(sa2_.fd);
    sa2_.fd = -1;
    ASSERT_TRUE(expect_registration(AGENTX_UNREGISTER_PDU, S));

    ASSERT_TRUE(open_subagent(&sa_, false));
    ASSERT_TRUE(expect_registration(AGENTX_REGISTER_PDU, S, AGENTX_ERR_DUPLICATE_REGISTRATION));
    EXPECT_TRUE(vx_wait_for_text(daemon_.log_path,
                                 "Registration refused by the master (duplicateRegistration): " +
                                     std::string(S) + "\n",
                                 5000));

    // The master closes the session: the daemon comes back within 5 s with a new Open and
    // the port object; the refused subtree is not offered again while its holder stays.
    agentx_pdu bye{};
    bye.header = {1, AGENTX_CLOSE_PDU, 0, SESSION, 0, 99, 0};
    bye.reason = AGENTX_CLOSE_BY_MANAGER;
    ASSERT_TRUE(send(&bye));
    ASSERT_TRUE(accept_session());
    ASSERT_TRUE(ask(AGENTX_GET_PDU, {{PORT_INSTANCE, "", false}}, 61));
    EXPECT_EQ(answer_to(61).size(), 1u);
    EXPECT_TRUE(vx_wait_for_text(daemon_.log_path, "ready to receive requests", 1000, 2));

    // Stopping: Close with reason shutdown.
    ASSERT_TRUE(vx_signal(&daemon_, SIGTERM));
    ASSERT_TRUE(next());
    EXPECT_EQ(pdu_->header.type, AGENTX_CLOSE_PDU);
    EXPECT_EQ(pdu_->reason, AGENTX_CLOSE_SHUTDOWN);
    EXPECT_TRUE(respond(0));
    EXPECT_TRUE(vx_wait_exit(&daemon_, 5000));
}

}  // namespace
