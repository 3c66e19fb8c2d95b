// The registration table and the session's record of what the agent holds, linked into the
// test with the daemon's own modules, announcing over a loopback connection to a peer that
// reads what the agent would. The session's clock is driven by the test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "forward.h"
#include "registry.h"
#include "snmp_container.h"
#include "snmp_ed.h"
#include "varnex2.h"
#include "vx_peers.h"

namespace {

class RegistryTable : public ::testing::Test {
   protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        tracing = 0;
        listen_fd_ = vx_tcp_listen(0);
        ASSERT_GE(listen_fd_, 0);
        ASSERT_TRUE(connect_agent());
        session_opened();
    }

    void TearDown() override {
        registry_release();
        session_release();
        EXPECT_EQ(mop_list, nullptr);
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
    static int subagent_fd() {
        return open("/dev/null", O_RDONLY | O_CLOEXEC);
    }

    // Every RReq sent since the last call, as "subtree op", after letting the session send
    // whatever it holds back for a quiet agent connection.
    std::vector<std::string> sent(int64_t now = INT64_MAX / 2) {
        EXPECT_EQ(session_flush(now), 0);
        std::vector<std::string> out;
        vx_smux_msg m;
        while (vx_smux_next(&peer_, &m, 100)) {
            out.push_back(m.type == 0x62 ? m.oid + " " + std::to_string(m.operation) +
                                               (m.priority == -1 ? "" : " bad priority")
                                         : "type " + std::to_string(m.type));
        }
        return out;
    }

    // Every RReq sent until the session has nothing more to send, each accepted as the
    // agent would.
    std::vector<std::string> accepted() {
        std::vector<std::string> all;
        for (std::vector<std::string> got = sent(); !got.empty(); got = sent()) {
            all.insert(all.end(), got.begin(), got.end());
            for (size_t i = 0; i < got.size(); i++) {
                EXPECT_EQ(session_rrsp(0), 0);
            }
        }
        return all;
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

// Answers the outstanding RReqs as the agent would: accepted, in order.
static void accept_all(size_t n) {
    for (size_t i = 0; i < n; i++) {
        EXPECT_EQ(session_rrsp(0), 0);
    }
}

TEST_F(RegistryTable, SortedInsertionNewestFirstAndOneRegistrationPerSubtree) {
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
        {"1.3.6.1.2.1.1", c, 0}, {"1.3.6.1.2.1", c, 0},    {"1.3.6.1.4.1", c, 0},
        {"1.3.6.1.4.1.9", a, 0}, {"1.3.6.1.4.1.9.", b, 0}, {"1.3.6.1.4.1.2.6.", a, 0},
        {"1.3.6.1..", a, -4},    {"3.1.", a, -4},          {"1.40.1.", a, -4},
        {"1.3.x.1.", a, -4},     {"1.3..6.", a, -4},       {"1.3.6.1.4.1.9", b, 0},
    };
    for (const row& r : regs) {
        SCOPED_TRACE(r.text);
        EXPECT_EQ(reg(r.text, r.fd), r.rc);
    }
    EXPECT_EQ(table(), (strings{"1.3.6.1.2.1@" + C, "1.3.6.1.2.1.1@" + C, "1.3.6.1.4.1@" + C,
                                "1.3.6.1.4.1.2.6@" + A, "1.3.6.1.4.1.9@" + B, "1.3.6.1.4.1.9@" + B,
                                "1.3.6.1.4.1.9@" + A}));
    EXPECT_EQ(accepted(), (strings{"1.3.6.1.2.1.1 2", "1.3.6.1.2.1 2", "1.3.6.1.4.1 2",
                                   "1.3.6.1.4.1.9 2", "1.3.6.1.4.1.2.6 2"}));

    // Leaving holders: a delete only when the last entry of a subtree goes.
    struct leave {
        int fd;
        strings deletes;
        size_t left;
    };
    const leave steps[] = {
        {b, {}, 5},
        {a, {"1.3.6.1.4.1.9 0", "1.3.6.1.4.1.2.6 0"}, 3},
        {a, {}, 3},  // nothing left for it: nothing sent
        {c, {"1.3.6.1.2.1.1 0", "1.3.6.1.2.1 0", "1.3.6.1.4.1 0"}, 0},
    };
    for (const leave& s : steps) {
        SCOPED_TRACE(s.fd);
        unregister_fd(s.fd);
        EXPECT_EQ(accepted(), s.deletes);
        EXPECT_EQ(table().size(), s.left);
        EXPECT_EQ(fcntl(s.fd, F_GETFD), -1) << "socket left open";
    }
}

// What the agent holds, step by step: each step acts, then shows what goes out next.
TEST_F(RegistryTable, RReqsAreMatchedInOrderAndEatenOnesSentAgain) {
    int a = subagent_fd();
    int b = subagent_fd();
    const auto want = [&](const char* text, int fd) { EXPECT_EQ(reg(text, fd), 0); };
    const auto eaten = [] { EXPECT_EQ(session_request_eaten(), 1); };
    const auto answered = [] { EXPECT_EQ(session_request_eaten(), 0); };
    struct step {
        const char* name;
        std::function<void()> act;
        strings out;
    };
    const step steps[] = {
        {"while the agent holds nothing, RReqs go out together",
         [&] { want("1.3.6.1.4.1.5", a); want("1.3.6.1.4.1.6", b); },
         {"1.3.6.1.4.1.5 2", "1.3.6.1.4.1.6 2"}},
        {"nothing more while they are unanswered", [&] { want("1.3.6.1.4.1.7", a); }, {}},
        {"a request eats the first, the second is answered; the eaten one waits for a "
         "request to be answered",
         [&] {
             eaten();
             EXPECT_EQ(session_rrsp(0), 0);
             EXPECT_EQ(sent(vx_now_ns() + 500'000'000), strings{});
             answered();
         },
         {"1.3.6.1.4.1.5 2"}},
        {"one at a time once the agent holds something", [&] { accept_all(1); },
         {"1.3.6.1.4.1.7 2"}},
        {"accepted: a request is answered", [&] { accept_all(1); answered(); }, {}},
        {"an eaten delete", [&] { unregister_fd(b); }, {"1.3.6.1.4.1.6 0"}},
        {"sent again, a while later", [&] { eaten(); }, {"1.3.6.1.4.1.6 0"}},
        {"accepted", [&] { accept_all(1); answered(); }, {}},
        {"added and withdrawn before it went out: nothing", [&] {
             int c = subagent_fd();
             want("1.3.6.1.4.1.8", c);
             unregister_fd(c);
         }, {}},
        {"withdrawn while its add is unanswered", [&] {
             int c = subagent_fd();
             want("1.3.6.1.4.1.9", c);
             EXPECT_EQ(sent(), strings{"1.3.6.1.4.1.9 2"});
             unregister_fd(c);
             accept_all(1);
         }, {"1.3.6.1.4.1.9 0"}},
        {"withdrawn while its add is unanswered, the add eaten: nothing", [&] {
             accept_all(1);
             int c = subagent_fd();
             want("1.3.6.1.4.1.10", c);
             EXPECT_EQ(sent(), strings{"1.3.6.1.4.1.10 2"});
             unregister_fd(c);
             eaten();
         }, {}},
        {"a refused add ends the session; the next one offers the rest again", [&] {
             want("1.3.6.1.2.1.1.5", a);
             EXPECT_EQ(sent(), strings{"1.3.6.1.2.1.1.5 2"});
             EXPECT_EQ(session_rrsp(-1), -1);
             session_lost();
             session_opened();
             register_subtrees();
         }, {"1.3.6.1.4.1.5 2", "1.3.6.1.4.1.7 2"}},
        {"a session lost with RReqs unanswered: the next one sends them all again", [&] {
             want("1.3.6.1.4.1.11", subagent_fd());
             session_lost();
             session_opened();
             register_subtrees();
         }, {"1.3.6.1.4.1.5 2", "1.3.6.1.4.1.7 2", "1.3.6.1.4.1.11 2"}},
    };
    for (const step& s : steps) {
        SCOPED_TRACE(s.name);
        s.act();
        EXPECT_EQ(sent(), s.out);
    }
    session_counts n = session_get_counts();
    EXPECT_EQ(n.rreqs_eaten, 3u);
}

// RReqs wait for the agent connection to be quiet, but never for long.
TEST_F(RegistryTable, RReqsWaitForAQuietAgentButNotForLong) {
    ASSERT_EQ(reg("1.3.6.1.4.1.5", subagent_fd()), 0);
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
    vx_smux_msg m;
    ASSERT_TRUE(vx_smux_next(&peer_, &m, 1000));
    EXPECT_EQ(m.oid, "1.3.6.1.4.1.5");
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
        {"get of the object itself", 0xa0, "1.3.6.1.4.1.2.2.1.1.1", true, 2},
        {"get below the instance", 0xa0, "1.3.6.1.4.1.2.2.1.1.1.0.1", true, 2},
        {"getnext from a short prefix", 0xa1, "1.3", true, 0},
        {"getnext from the instance", 0xa1, "1.3.6.1.4.1.2.2.1.1.1.0", true, 2},
        {"set", 0xa3, "1.3.6.1.4.1.2.2.1.1.1.0", true, 2},
        {"get after everything", 0xa0, "1.3.6.1.4.1.2.3", true, 2},
        {"getnext after everything", 0xa1, "1.3.6.1.4.1.3", true, 2},
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
