// The registration table, linked into the test with the daemon's own modules, announcing
// over a loopback connection to a peer that reads what the agent would.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

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
    static int subagent_fd() {
        return open("/dev/null", O_RDONLY | O_CLOEXEC);
    }

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
