// The registration table and request dispatch, seen from outside the running daemon: a
// fake master agent listens on the SMUX port of a private namespace and fake DPI subagents
// connect to the daemon's DPI port.
#include <gtest/gtest.h>

#include <poll.h>
#include <unistd.h>

#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "vx_peers.h"
#include "vx_testsupport.h"

namespace {

// In sanitizer builds the daemon reports to its own log and the test would only see it die.
void expect_no_sanitizer_report(const std::string& log) {
    std::string text = vx_read_file(log);
    EXPECT_EQ(text.find("Sanitizer"), std::string::npos);
    EXPECT_EQ(text.find("runtime error:"), std::string::npos);
}

constexpr const char* PORT_SUBTREE = "1.3.6.1.4.1.2.2.1.1.1";
constexpr const char* PORT_INSTANCE = "1.3.6.1.4.1.2.2.1.1.1.0";
constexpr uint8_t GET = 0xa0;
constexpr uint8_t GETNEXT = 0xa1;
constexpr uint8_t SET = 0xa3;
constexpr uint8_t RREQ = 0x62;
constexpr uint8_t RESPONSE = 0xa2;
constexpr int OP_DELETE = 0;
constexpr int OP_READ_WRITE = 2;
constexpr uint8_t DPI_GET = 1;
constexpr uint8_t DPI_GETNEXT = 2;
constexpr uint8_t DPI_INTEGER32 = 129;

vx_bytes be32(int32_t v) {
    auto u = static_cast<uint32_t>(v);
    return {static_cast<uint8_t>(u >> 24), static_cast<uint8_t>(u >> 16),
            static_cast<uint8_t>(u >> 8), static_cast<uint8_t>(u)};
}

class RegistryThroughDaemon : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        if (!vx_enter_private_namespace(VX_TEST_PEERS_TEXT, &why)) {
            GTEST_SKIP() << why;
        }
        listen_fd_ = vx_tcp_listen(VX_SMUX_PORT);
        ASSERT_GE(listen_fd_, 0);
        ASSERT_TRUE(vx_start_varnex2(&daemon_, {"-d", "96"}, nullptr, &why)) << why;
        ASSERT_TRUE(accept_session(8000));
        // A new table: nothing to replay, then the daemon's own object.
        ASSERT_TRUE(expect_rreq(PORT_SUBTREE, OP_READ_WRITE));
        ASSERT_TRUE(expect_quiet(200));
        vx_smux_msg answer;
        ASSERT_TRUE(ask(GET, {PORT_INSTANCE}, {}, &answer));
        ASSERT_EQ(answer.error_status, 0);
        ASSERT_TRUE(vx_ber_int_value(answer.vb_values.at(0), &dpi_port_));
        ASSERT_GT(dpi_port_, 0);
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
        expect_no_sanitizer_report(daemon_.log_path);
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

    ::testing::AssertionResult accept_session(int timeout_ms) {
        agent_.fd = vx_tcp_accept(listen_fd_, timeout_ms);
        agent_.pending.clear();
        if (agent_.fd < 0) {
            return ::testing::AssertionFailure() << "the daemon did not connect";
        }
        vx_smux_msg open;
        if (!vx_smux_next(&agent_, &open, 5000)) {
            return ::testing::AssertionFailure() << "no OpenPDU";
        }
        if (open.type != 0x60 || open.oid != VX_TEST_PEER_OID ||
            open.password != VX_TEST_PEER_PASSWORD || open.version != 0) {
            return ::testing::AssertionFailure()
                   << "bad OpenPDU type " << int(open.type) << " " << open.oid;
        }
        return ::testing::AssertionSuccess();
    }

    void drop_session() {
        close(agent_.fd);
        agent_.fd = -1;
    }

    // The next PDU other than a Trap must be an RReq for `subtree`; it is answered like the
    // real agent would, with RRsp `code`.
    ::testing::AssertionResult expect_rreq(const std::string& subtree, int operation,
                                           int32_t code = 0) {
        vx_smux_msg m;
        if (!vx_smux_next(&agent_, &m, 5000)) {
            return ::testing::AssertionFailure() << "no RReq for " << subtree;
        }
        if (m.type != RREQ || m.oid != subtree || m.operation != operation ||
            m.priority != -1) {
            return ::testing::AssertionFailure()
                   << "expected RReq " << subtree << " op " << operation << ", got type "
                   << int(m.type) << " " << m.oid << " op " << m.operation << " priority "
                   << m.priority;
        }
        if (!vx_send_all(agent_.fd, vx_smux_rrsp(code))) {
            return ::testing::AssertionFailure() << "cannot answer the RReq";
        }
        return ::testing::AssertionSuccess();
    }

    // Nothing but Traps arrives for `ms`.
    ::testing::AssertionResult expect_quiet(int ms) {
        vx_smux_msg m;
        if (vx_smux_next(&agent_, &m, ms)) {
            return ::testing::AssertionFailure()
                   << "unexpected PDU type " << int(m.type) << " " << m.oid;
        }
        return ::testing::AssertionSuccess();
    }

    void send_request(uint8_t type, const std::vector<std::string>& names,
                      const std::vector<vx_bytes>& values) {
        ++request_id_;
        ASSERT_TRUE(vx_send_all(agent_.fd, vx_smux_request(type, request_id_, names, values)));
    }

    ::testing::AssertionResult read_response(vx_smux_msg* answer) {
        if (!vx_smux_next(&agent_, answer, 10000)) {
            return ::testing::AssertionFailure() << "no GetResponse";
        }
        if (answer->type != RESPONSE || answer->request_id != request_id_) {
            return ::testing::AssertionFailure() << "expected GetResponse " << request_id_
                                                 << ", got type " << int(answer->type);
        }
        return ::testing::AssertionSuccess();
    }

    ::testing::AssertionResult ask(uint8_t type, const std::vector<std::string>& names,
                                   const std::vector<vx_bytes>& values, vx_smux_msg* answer) {
        send_request(type, names, values);
        return read_response(answer);
    }

    vx_stream* subagent() {
        subagents_.push_back(vx_dpi_connect_open(dpi_port_, "1.3.6.1.4.1.2.6"));
        return &subagents_.back();
    }

    // Nothing waits to be read on a subagent's socket.
    static bool idle(vx_stream* sa) {
        struct pollfd p = {sa->fd, POLLIN, 0};
        return sa->pending.empty() && poll(&p, 1, 100) == 0;
    }

    void close_subagent(vx_stream* sa) {
        close(sa->fd);
        sa->fd = -1;
    }

    vx_process daemon_;
    vx_stream agent_;
    int listen_fd_ = -1;
    int32_t dpi_port_ = 0;
    int32_t request_id_ = 100;
    std::deque<vx_stream> subagents_;  // deque: handed-out pointers stay valid
};

TEST_F(RegistryThroughDaemon, DpiPortObjectAnswersOnlyItsInstance) {
    struct row {
        const char* name;
        uint8_t type;
        std::vector<std::string> names;
        int32_t status;
        int32_t index;
        const char* answered;  // first varBind's name afterwards, null: unchanged
    };
    const row rows[] = {
        {"get the instance", GET, {PORT_INSTANCE}, 0, 0, PORT_INSTANCE},
        {"get the subtree itself", GET, {PORT_SUBTREE}, 2, 1, nullptr},
        {"get below the instance", GET, {"1.3.6.1.4.1.2.2.1.1.1.0.1"}, 2, 1, nullptr},
        {"getnext from the subtree", GETNEXT, {PORT_SUBTREE}, 0, 0, PORT_INSTANCE},
        {"getnext from far before", GETNEXT, {"1.3.6.1"}, 0, 0, PORT_INSTANCE},
        {"getnext from the instance", GETNEXT, {PORT_INSTANCE}, 2, 1, nullptr},
        {"getnext past everything", GETNEXT, {"1.3.6.1.4.1.3"}, 2, 1, nullptr},
        {"set is read-only", SET, {PORT_INSTANCE}, 2, 1, nullptr},
        {"get outside every subtree", GET, {"1.3.6.1.2.1.1.1.0"}, 2, 1, nullptr},
        {"second of three fails", GET, {PORT_INSTANCE, "1.3.6.1.2.1.1.1.0", PORT_INSTANCE}, 2,
         2, PORT_INSTANCE},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        std::vector<vx_bytes> values;
        if (r.type == SET) {
            values.push_back(vx_ber_int(0x02, 4711));
        }
        vx_smux_msg answer;
        ASSERT_TRUE(ask(r.type, r.names, values, &answer));
        EXPECT_EQ(answer.error_status, r.status);
        EXPECT_EQ(answer.error_index, r.index);
        ASSERT_EQ(answer.vb_names.size(), r.names.size());
        EXPECT_EQ(answer.vb_names[0], r.answered != nullptr ? r.answered : r.names[0]);
        if (r.status == 0) {
            int32_t port = 0;
            ASSERT_TRUE(vx_ber_int_value(answer.vb_values[0], &port))
                << vx_to_hex(answer.vb_values[0]);
            EXPECT_EQ(port, dpi_port_);
        }
    }
    // The answered value is the listener a subagent can use.
    vx_stream* sa = subagent();
    EXPECT_GE(sa->fd, 0);
}

TEST_F(RegistryThroughDaemon, SubtreesAreSortedAndAnnouncedOncePerSession) {
    vx_stream* a = subagent();
    ASSERT_GE(a->fd, 0);
    struct row {
        const char* group;
        const char* announced;  // null: an equal subtree is announced already
    };
    const row regs[] = {
        {"1.3.6.1.2.1.1.", "1.3.6.1.2.1.1"},
        {"1.3.6.1.2.1.", "1.3.6.1.2.1"},
        {"1.3.6.1.4.1.", "1.3.6.1.4.1"},
        {"1.3.6.1.2.1.", nullptr},
        {"1.3.6.1.4.1.2.2.1.1.1.", nullptr},
    };
    uint16_t id = 10;
    for (const row& r : regs) {
        SCOPED_TRACE(r.group);
        EXPECT_EQ(vx_dpi_register_group(a, r.group, id++), 0);
        if (r.announced != nullptr) {
            EXPECT_TRUE(expect_rreq(r.announced, OP_READ_WRITE));
        }
        EXPECT_TRUE(expect_quiet(150));
    }

    // Each new session gets every distinct subtree once, in table order, and the daemon's
    // own object, registered again at every open, still only once.
    const char* const replay[] = {"1.3.6.1.2.1", "1.3.6.1.2.1.1", "1.3.6.1.4.1", PORT_SUBTREE};
    for (int session = 2; session <= 3; ++session) {
        SCOPED_TRACE("session " + std::to_string(session));
        drop_session();
        ASSERT_TRUE(accept_session(8000));
        for (const char* subtree : replay) {
            EXPECT_TRUE(expect_rreq(subtree, OP_READ_WRITE));
        }
        EXPECT_TRUE(expect_quiet(300));
    }
}

TEST_F(RegistryThroughDaemon, NewestDuplicateAnswersAndOnlyTheLastHolderWithdraws) {
    vx_stream* older = subagent();
    vx_stream* newer = subagent();
    ASSERT_GE(older->fd, 0);
    ASSERT_GE(newer->fd, 0);
    ASSERT_EQ(vx_dpi_register_group(older, "1.3.6.1.4.1.9.", 2), 0);
    ASSERT_TRUE(expect_rreq("1.3.6.1.4.1.9", OP_READ_WRITE));
    ASSERT_EQ(vx_dpi_register_group(newer, "1.3.6.1.4.1.9.", 2), 0);
    ASSERT_TRUE(expect_quiet(200));

    struct step {
        const char* name;
        vx_stream* serves;
        int32_t value;
    };
    const step steps[] = {{"newer registration answers", newer, 42},
                          {"older answers once the newer is gone", older, 7}};
    for (const step& s : steps) {
        SCOPED_TRACE(s.name);
        send_request(GET, {"1.3.6.1.4.1.9.1.0"}, {});
        vx_dpi_msg q;
        ASSERT_TRUE(vx_dpi_next(s.serves, &q, 5000));
        EXPECT_EQ(q.type, DPI_GET);
        EXPECT_EQ(q.group, "1.3.6.1.4.1.9.");
        EXPECT_EQ(q.instance, "1.0");
        ASSERT_TRUE(vx_send_all(s.serves->fd, vx_dpi_response(q.packet_id, 0, q.group, q.instance,
                                                              DPI_INTEGER32, be32(s.value))));
        vx_smux_msg answer;
        ASSERT_TRUE(read_response(&answer));
        EXPECT_EQ(answer.error_status, 0);
        int32_t v = 0;
        EXPECT_TRUE(vx_ber_int_value(answer.vb_values.at(0), &v));
        EXPECT_EQ(v, s.value);
        if (s.serves == newer) {
            EXPECT_TRUE(idle(older));
            // The older one still holds the subtree: no delete may reach the agent.
            close_subagent(newer);
            EXPECT_TRUE(expect_quiet(300));
        }
    }
    close_subagent(older);
    EXPECT_TRUE(expect_rreq("1.3.6.1.4.1.9", OP_DELETE));
    EXPECT_TRUE(expect_quiet(200));
}

TEST_F(RegistryThroughDaemon, DroppedSubagentWithdrawsEverySubtreeAndFreesItsSlot) {
    vx_stream* three = subagent();
    vx_stream* none = subagent();
    ASSERT_GE(three->fd, 0);
    ASSERT_GE(none->fd, 0);
    for (const char* g : {"1.3.6.1.4.1.7.", "1.3.6.1.4.1.5.", "1.3.6.1.4.1.6."}) {
        ASSERT_EQ(vx_dpi_register_group(three, g, 3), 0);
        std::string subtree(g, strlen(g) - 1);
        ASSERT_TRUE(expect_rreq(subtree, OP_READ_WRITE));
    }

    // A packet type the parser refuses makes the daemon drop the subagent itself.
    ASSERT_TRUE(vx_send_all(three->fd, vx_dpi_simple(9, 16)));
    for (const char* subtree : {"1.3.6.1.4.1.5", "1.3.6.1.4.1.6", "1.3.6.1.4.1.7"}) {
        EXPECT_TRUE(expect_rreq(subtree, OP_DELETE));
    }
    EXPECT_TRUE(vx_wait_closed(three->fd, 3000));

    // No entries, no deletes; the connection still ends.
    close_subagent(none);
    EXPECT_TRUE(expect_quiet(300));

    // Both slots came free: five subagents fit again, and they are served.
    std::vector<vx_stream*> fresh;
    for (int i = 0; i < 5; ++i) {
        fresh.push_back(subagent());
        EXPECT_GE(fresh.back()->fd, 0) << i;
    }
    vx_smux_msg answer;
    ASSERT_TRUE(ask(GET, {PORT_INSTANCE}, {}, &answer));
    EXPECT_EQ(answer.error_status, 0);
}

TEST_F(RegistryThroughDaemon, InvalidSubtreeTextIsRefusedAndLeavesTheTableAlone) {
    vx_stream* sa = subagent();
    ASSERT_GE(sa->fd, 0);
    struct row {
        const char* name;
        const char* group;
    };
    const row rows[] = {
        {"two trailing dots", "1.3.6.1.."},
        {"first arc above 2", "3.6.1."},
        {"second arc above 39", "1.40.1."},
        {"not a number", "1.3.x.1."},
        {"empty arc", "1.3..6."},
    };
    uint16_t id = 20;
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(vx_dpi_register_group(sa, r.group, id++), 101);
        EXPECT_TRUE(expect_quiet(100));
    }

    // The same subagent is still served and its next valid subtree goes through.
    EXPECT_EQ(vx_dpi_register_group(sa, "1.3.6.1.4.1.2.6.", id++), 0);
    EXPECT_TRUE(expect_rreq("1.3.6.1.4.1.2.6", OP_READ_WRITE));
    // The message has no line end of its own, so it shows once a later line is out.
    EXPECT_TRUE(vx_wait_for_text(daemon_.log_path, "Out of memory", 2000,
                                 static_cast<int>(std::size(rows))));
    // A GetNext that runs off the port object never meets a refused entry.
    send_request(GETNEXT, {PORT_INSTANCE}, {});
    vx_dpi_msg q;
    ASSERT_TRUE(vx_dpi_next(sa, &q, 5000));
    EXPECT_EQ(q.group, "1.3.6.1.4.1.2.6.");
}

TEST_F(RegistryThroughDaemon, GetNextMovesFromThePortObjectIntoTheNextSubtree) {
    vx_stream* sa = subagent();
    ASSERT_GE(sa->fd, 0);
    ASSERT_EQ(vx_dpi_register_group(sa, "1.3.6.1.4.1.2.6.1.", 4), 0);
    ASSERT_TRUE(expect_rreq("1.3.6.1.4.1.2.6.1", OP_READ_WRITE));

    struct row {
        const char* name;
        const char* from;
    };
    const row rows[] = {
        {"off the end of the port object", PORT_INSTANCE},
        {"before the subtree, between the two", "1.3.6.1.4.1.2.5"},
        {"the subtree itself", "1.3.6.1.4.1.2.6.1"},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        send_request(GETNEXT, {r.from}, {});
        vx_dpi_msg q;
        ASSERT_TRUE(vx_dpi_next(sa, &q, 5000));
        EXPECT_EQ(q.type, DPI_GETNEXT);
        EXPECT_EQ(q.group, "1.3.6.1.4.1.2.6.1.");
        EXPECT_EQ(q.instance, "");
        ASSERT_TRUE(vx_send_all(sa->fd, vx_dpi_response(q.packet_id, 0, q.group, "1.0",
                                                        DPI_INTEGER32, be32(9))));
        vx_smux_msg answer;
        ASSERT_TRUE(read_response(&answer));
        EXPECT_EQ(answer.error_status, 0);
        EXPECT_EQ(answer.vb_names.at(0), "1.3.6.1.4.1.2.6.1.1.0");
    }

    // A Get outside every subtree is refused without asking anyone.
    vx_smux_msg answer;
    ASSERT_TRUE(ask(GET, {"1.3.6.1.2.1.1.1.0"}, {}, &answer));
    EXPECT_EQ(answer.error_status, 2);
    EXPECT_TRUE(idle(sa));
}

TEST_F(RegistryThroughDaemon, WithdrawalsWaitUntilTheAnswerIsOut) {
    vx_stream* sa = subagent();
    ASSERT_GE(sa->fd, 0);
    for (const char* g : {"1.3.6.1.4.1.2.6.3.", "1.3.6.1.4.1.2.6.4."}) {
        ASSERT_EQ(vx_dpi_register_group(sa, g, 5), 0);
        ASSERT_TRUE(expect_rreq(std::string(g, strlen(g) - 1), OP_READ_WRITE));
    }
    send_request(GET, {"1.3.6.1.4.1.2.6.3.1.0"}, {});
    vx_dpi_msg q;
    ASSERT_TRUE(vx_dpi_next(sa, &q, 5000));
    // The subagent goes away in the middle of the request.
    close_subagent(sa);

    // The agent takes the first PDU other than a Trap as its answer: the GetResponse must
    // come before any delete.
    vx_smux_msg answer;
    ASSERT_TRUE(read_response(&answer));
    EXPECT_EQ(answer.error_status, 5);
    EXPECT_EQ(answer.error_index, 1);
    EXPECT_TRUE(expect_rreq("1.3.6.1.4.1.2.6.3", OP_DELETE));
    EXPECT_TRUE(expect_rreq("1.3.6.1.4.1.2.6.4", OP_DELETE));
    EXPECT_TRUE(expect_quiet(200));
}

TEST_F(RegistryThroughDaemon, RegistrationWithoutAgentIsRefusedThenAnnouncedOnReconnect) {
    vx_stream* sa = subagent();
    ASSERT_GE(sa->fd, 0);
    drop_session();
    close(listen_fd_);
    listen_fd_ = -1;
    ASSERT_TRUE(vx_wait_for_text(daemon_.log_path, "Lost connection to agent", 5000));

    EXPECT_EQ(vx_dpi_register_group(sa, "1.3.6.1.4.1.2.6.1.", 6), 101);

    listen_fd_ = vx_tcp_listen(VX_SMUX_PORT);
    ASSERT_GE(listen_fd_, 0);
    ASSERT_TRUE(accept_session(8000));
    EXPECT_TRUE(expect_rreq(PORT_SUBTREE, OP_READ_WRITE));
    EXPECT_TRUE(expect_rreq("1.3.6.1.4.1.2.6.1", OP_READ_WRITE));
    EXPECT_TRUE(expect_quiet(300));

    // Withdrawn once when its subagent leaves, although the subagent was told it failed.
    close_subagent(sa);
    EXPECT_TRUE(expect_rreq("1.3.6.1.4.1.2.6.1", OP_DELETE));
}

}  // namespace

// ---- the table itself, linked into the test, announcing over a loopback connection --------

#include <fcntl.h>
#include <signal.h>

#include "registry.h"
#include "snmp_container.h"
#include "snmp_ed.h"
#include "varnex2.h"

namespace {

class RegistryTable : public ::testing::Test {
protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        tracing = 0;
        listen_fd_ = vx_tcp_listen(0);
        ASSERT_GE(listen_fd_, 0);
        ASSERT_TRUE(connect_agent());
    }

    void TearDown() override {
        registry_release();
        EXPECT_EQ(mop_list, nullptr);
        smux_request_active = 0;
        if (smux_fd >= 0) {
            close(smux_fd);
            smux_fd = -1;
        }
        if (peer_.fd >= 0) {
            close(peer_.fd);
        }
        close(listen_fd_);
    }

    bool connect_agent() {
        smux_fd = vx_tcp_connect(vx_local_port(listen_fd_));
        peer_.fd = vx_tcp_accept(listen_fd_, 2000);
        peer_.pending.clear();
        return smux_fd >= 0 && peer_.fd >= 0;
    }

    // A descriptor standing in for a subagent's socket: unregister_fd closes it.
    static int subagent_fd() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }

    // Every RReq the table sent since the last call, as "subtree op".
    std::vector<std::string> sent() {
        std::vector<std::string> out;
        vx_smux_msg m;
        while (vx_smux_next(&peer_, &m, 100)) {
            out.push_back(m.type == 0x62 ? m.oid + " " + std::to_string(m.operation) +
                                               (m.priority == -1 ? "" : " bad priority")
                                         : "type " + std::to_string(m.type));
        }
        return out;
    }

    // The table as "subtree@fd" in list order.
    static std::vector<std::string> table() {
        std::vector<std::string> out;
        for (registration_entry* e = mop_list; e != nullptr; e = e->next) {
            char* text = snmp_oid_to_string(e->subtree);
            out.push_back(std::string(text != nullptr ? text : "?") + "@" + std::to_string(e->fd));
            free(text);
        }
        return out;
    }

    static int reg(const char* text, int fd) {
        std::string copy(text);
        return register_object(copy.data(), fd);
    }

    int listen_fd_ = -1;
    vx_stream peer_;
};

using strings = std::vector<std::string>;

TEST_F(RegistryTable, SortedInsertionNewestFirstAndOneAnnouncementPerSubtree) {
    int a = subagent_fd();
    int b = subagent_fd();
    int c = subagent_fd();
    const std::string A = std::to_string(a), B = std::to_string(b), C = std::to_string(c);
    struct row {
        const char* text;
        int fd;
        int rc;
    };
    const row regs[] = {
        {"1.3.6.1.2.1.1", c, 0},  {"1.3.6.1.2.1", c, 0},     {"1.3.6.1.4.1", c, 0},
        {"1.3.6.1.4.1.9", a, 0},  {"1.3.6.1.4.1.9.", b, 0},  {"1.3.6.1.4.1.2.6.", a, 0},
        {"1.3.6.1..", a, -4},     {"3.1.", a, -4},           {"1.3.6.1.4.1.9", b, 0},
    };
    for (const row& r : regs) {
        SCOPED_TRACE(r.text);
        EXPECT_EQ(reg(r.text, r.fd), r.rc);
    }
    EXPECT_EQ(table(), (strings{"1.3.6.1.2.1@" + C, "1.3.6.1.2.1.1@" + C, "1.3.6.1.4.1@" + C,
                                "1.3.6.1.4.1.2.6@" + A, "1.3.6.1.4.1.9@" + B,
                                "1.3.6.1.4.1.9@" + B, "1.3.6.1.4.1.9@" + A}));
    EXPECT_EQ(sent(), (strings{"1.3.6.1.2.1.1 2", "1.3.6.1.2.1 2", "1.3.6.1.4.1 2",
                               "1.3.6.1.4.1.9 2", "1.3.6.1.4.1.2.6 2"}));

    // Leaving holders: a delete only when the last entry of a subtree goes.
    struct leave {
        int fd;
        strings deletes;
        size_t left;
    };
    const leave steps[] = {
        {b, {}, 5},
        {a, {"1.3.6.1.4.1.2.6 0", "1.3.6.1.4.1.9 0"}, 3},
        {a, {}, 3},  // nothing left for it: nothing sent
        {c, {"1.3.6.1.2.1 0", "1.3.6.1.2.1.1 0", "1.3.6.1.4.1 0"}, 0},
    };
    for (const leave& s : steps) {
        SCOPED_TRACE(s.fd);
        unregister_fd(s.fd);
        EXPECT_EQ(sent(), s.deletes);
        EXPECT_EQ(table().size(), s.left);
        EXPECT_EQ(fcntl(s.fd, F_GETFD), -1) << "socket left open";
    }
}

TEST_F(RegistryTable, ReplayStopsAtTheFirstFailureAndResumesOnTheNextSession) {
    EXPECT_EQ(register_subtrees(), 0);
    EXPECT_EQ(sent(), strings{});

    // Registered while the agent is away: refused, kept, not announced.
    close(smux_fd);
    smux_fd = -1;
    int a = subagent_fd();
    for (const char* t : {"1.3.6.1.4.1.5", "1.3.6.1.4.1.6", "1.3.6.1.4.1.7", "1.3.6.1.4.1.6"}) {
        EXPECT_NE(reg(t, a), 0) << t;
    }
    EXPECT_EQ(table().size(), 4u);

    // The agent has gone when the replay starts: the first RReq still leaves, the reset it
    // provokes fails the second, and the replay stops there.
    ASSERT_TRUE(connect_agent());
    close(peer_.fd);
    peer_.fd = -1;
    EXPECT_NE(register_subtrees(), 0);
    std::vector<int> announced;
    for (registration_entry* e = mop_list; e != nullptr; e = e->next) {
        announced.push_back(e->announced);
    }
    EXPECT_EQ(announced, (std::vector<int>{1, 0, 0, 0}));

    // A new session announces every distinct subtree once, in order.
    close(smux_fd);
    ASSERT_TRUE(connect_agent());
    registry_clear_announced();
    EXPECT_EQ(register_subtrees(), 0);
    EXPECT_EQ(sent(), (strings{"1.3.6.1.4.1.5 2", "1.3.6.1.4.1.6 2", "1.3.6.1.4.1.7 2"}));
    EXPECT_EQ(register_subtrees(), 0);
    EXPECT_EQ(sent(), strings{});
    // An equal subtree joining an announced one is not sent again.
    EXPECT_EQ(reg("1.3.6.1.4.1.7.", subagent_fd()), 0);
    EXPECT_EQ(sent(), strings{});
}

TEST_F(RegistryTable, DeletesMadeDuringARequestWaitForTheAnswer) {
    int a = subagent_fd();
    ASSERT_EQ(reg("1.3.6.1.4.1.8", a), 0);
    ASSERT_EQ(reg("1.3.6.1.4.1.3", a), 0);
    ASSERT_EQ(sent().size(), 2u);

    smux_request_active = 1;
    unregister_fd(a);
    EXPECT_EQ(table(), strings{});
    EXPECT_EQ(sent(), strings{});
    smux_request_active = 0;
    EXPECT_EQ(registry_send_held_deletes(), 0);
    EXPECT_EQ(sent(), (strings{"1.3.6.1.4.1.3 0", "1.3.6.1.4.1.8 0"}));
    EXPECT_EQ(registry_send_held_deletes(), 0);
    EXPECT_EQ(sent(), strings{});

    // The session ends before the answer: the new session must not see those deletes.
    int b = subagent_fd();
    ASSERT_EQ(reg("1.3.6.1.4.1.4", b), 0);
    ASSERT_EQ(sent().size(), 1u);
    smux_request_active = 1;
    unregister_fd(b);
    smux_request_active = 0;
    registry_clear_announced();
    EXPECT_EQ(registry_send_held_deletes(), 0);
    EXPECT_EQ(sent(), strings{});
}

TEST_F(RegistryTable, PortObjectAnswerReplacesTheVarBind) {
    dpi_port = 40001;
    ASSERT_EQ(reg("1.3.6.1.4.1.2.2.1.1.1", -1), 0);
    struct row {
        const char* name;
        uint8_t type;
        const char* oid;
        bool with_value;  // a NULL value container is there, as after decoding
        int status;
    };
    const row rows[] = {
        {"get, decoded value", 0xa0, "1.3.6.1.4.1.2.2.1.1.1.0", true, 0},
        {"get, no value container yet", 0xa0, "1.3.6.1.4.1.2.2.1.1.1.0", false, 0},
        {"getnext from a short prefix", 0xa1, "1.3", true, 0},
        {"getnext from the instance", 0xa1, "1.3.6.1.4.1.2.2.1.1.1.0", true, 2},
        {"set", 0xa3, "1.3.6.1.4.1.2.2.1.1.1.0", true, 2},
        {"get after everything", 0xa0, "1.3.6.1.4.1.2.3", true, 2},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        snmp_varBind vb{};
        vb.name = snmp_create_oid_container(r.oid);
        ASSERT_NE(vb.name, nullptr);
        if (r.with_value) {
            vb.value = snmp_create_value_container(nullptr, 0, SNMP_TAG_NULL, 0);
            ASSERT_NE(vb.value, nullptr);
        }
        EXPECT_EQ(process_req(r.type, &vb), r.status);
        char* text = snmp_oid_to_string(vb.name);
        ASSERT_NE(text, nullptr);
        if (r.status == 0) {
            EXPECT_STREQ(text, "1.3.6.1.4.1.2.2.1.1.1.0");
            ASSERT_NE(vb.value, nullptr);
            EXPECT_EQ(vb.value->tag, SNMP_TAG_INTEGER);
            EXPECT_EQ(vb.value->value.s32, 40001);
        } else {
            EXPECT_STREQ(text, r.oid);
        }
        free(text);
        snmp_free_varBinds(&vb, 1);
    }
}

}  // namespace
