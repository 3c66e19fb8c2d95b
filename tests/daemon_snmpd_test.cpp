// The daemon against the real master agent (snmpd with SMUX), in a private namespace:
// subagents' subtrees as a manager sees them through snmpget, across an agent restart,
// while two subagents share a subtree, and when a signal ends the daemon.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <string>
#include <thread>

#include "daemon_peers.h"

namespace {

constexpr const char* PORT_INSTANCE = DPI_PORT_INSTANCE;
constexpr uint8_t DPI_GET = 1;
constexpr uint8_t DPI_GETNEXT = 2;
constexpr uint8_t DPI_INTEGER32 = 129;
constexpr uint8_t DPI_NO_SUCH_NAME = 2;
constexpr uint8_t DPI_CLOSE = 9;
constexpr uint8_t DPI_CLOSE_GOING_DOWN = 2;

vx_bytes integer32(int32_t value) {
    uint32_t u = static_cast<uint32_t>(value);
    return {static_cast<uint8_t>(u >> 24), static_cast<uint8_t>(u >> 16),
            static_cast<uint8_t>(u >> 8), static_cast<uint8_t>(u)};
}

// A DPI subagent in a thread of the test, serving one Integer32 object <group>1.0 until the
// test stops it or the daemon drops it.
struct served_subagent {
    vx_stream stream;
    std::string group;  // with its trailing dot
    int32_t value = 0;
    std::atomic<bool> stop{false};
    std::atomic<int> requests{0};
    std::thread thread;
};

void serve(served_subagent* s) {
    while (!s->stop && !s->stream.closed) {
        vx_dpi_msg q;
        if (!vx_dpi_next(&s->stream, &q, 100)) {
            continue;
        }
        ++s->requests;
        bool first = (q.type == DPI_GET && q.instance == "1.0") ||
                     (q.type == DPI_GETNEXT && (q.instance.empty() || q.instance < "1.0"));
        vx_bytes answer = first ? vx_dpi_response(q.packet_id, 0, s->group, "1.0", DPI_INTEGER32,
                                                  integer32(s->value))
                                : vx_dpi_response(q.packet_id, DPI_NO_SUCH_NAME);
        if (!vx_send_all(s->stream.fd, answer)) {
            break;
        }
    }
}

class DaemonWithSnmpd : public ::testing::Test {
   protected:
    void SetUp() override {
        std::string why;
        if (!vx_enter_private_namespace(VX_TEST_PEERS_TEXT, &why)) {
            GTEST_SKIP() << why;
        }
        ASSERT_TRUE(vx_start_snmpd(&agent_, {"-Dsmux"}, &why)) << why;
        start_daemon();
    }

    // Starts the daemon and waits until snmpd serves its port object.
    void start_daemon() {
        std::string why;
        ASSERT_TRUE(vx_start_varnex2(&daemon_, {"-d", "96"}, nullptr, &why)) << why;
        std::string out;
        ASSERT_TRUE(vx_wait_until([&] { return get(PORT_INSTANCE, &out) == 0; }, 10000)) << out;
        port_ = integer_in(out);
        ASSERT_GT(port_, 0) << out;
    }

    void TearDown() override {
        for (served_subagent& s : subagents_) {
            stop(&s);
        }
        vx_stop(&daemon_);
        vx_stop_snmpd(&agent_);
        expect_clean_log(daemon_.log_path);
        if (HasFailure()) {
            printf("---- daemon ----\n%s\n---- snmpd ----\n%s\n",
                   vx_read_file(daemon_.log_path).c_str(),
                   vx_read_file(agent_.proc.log_path).c_str());
        }
    }

    // snmpget/snmpgetnext: 0 only when the agent answered without error.
    static int get(const std::string& oid, std::string* out, const char* tool = "snmpget") {
        int rc = vx_snmp_tool(tool, "public", {oid}, out);
        if (rc == 0 && (out->find("Error") != std::string::npos ||
                        out->find("No Such") != std::string::npos)) {
            return 1;
        }
        return rc;
    }

    // The value of "... = INTEGER: n", 0 when there is none.
    static int32_t integer_in(const std::string& out) {
        size_t at = out.find("INTEGER: ");
        return at == std::string::npos ? 0 : static_cast<int32_t>(atol(out.c_str() + at + 9));
    }

    served_subagent* start_subagent(const std::string& group, int32_t value) {
        served_subagent* s = &subagents_.emplace_back();
        s->group = group;
        s->value = value;
        s->stream = vx_dpi_connect_open(port_, "1.3.6.1.4.1.2.6");
        if (s->stream.fd < 0 || vx_dpi_register_group(&s->stream, group, 2) != 0) {
            ADD_FAILURE() << "subagent for " << group << " not registered";
            return s;
        }
        s->thread = std::thread(serve, s);
        return s;
    }

    static void stop(served_subagent* s) {
        s->stop = true;
        if (s->thread.joinable()) {
            s->thread.join();
        }
        if (s->stream.fd >= 0) {
            close(s->stream.fd);
            s->stream.fd = -1;
        }
    }

    vx_snmpd agent_;
    vx_process daemon_;
    int32_t port_ = 0;
    std::deque<served_subagent> subagents_;  // deque: handed-out pointers stay valid
};

TEST_F(DaemonWithSnmpd, SubtreesComeBackAfterTheAgentRestarts) {
    const std::string log = agent_.dir + "/snmpd.log";
    served_subagent* sa = start_subagent("1.3.6.1.4.1.2.6.1.", 77);
    std::string out;
    EXPECT_TRUE(vx_wait_until([&] { return get("1.3.6.1.4.1.2.6.1.1.0", &out) == 0; }, 5000))
        << out;
    EXPECT_EQ(integer_in(out), 77) << out;
    int before = sa->requests;

    std::string why;
    ASSERT_TRUE(vx_restart_snmpd(&agent_, &why)) << why;
    // The daemon retries at least every 5 seconds; the subagent does nothing meanwhile.
    EXPECT_TRUE(vx_wait_until([&] { return get("1.3.6.1.4.1.2.6.1.1.0", &out) == 0; }, 8000))
        << out;
    EXPECT_EQ(integer_in(out), 77) << out;
    EXPECT_GT(sa->requests, before);
    EXPECT_EQ(get(PORT_INSTANCE, &out), 0) << out;
    EXPECT_EQ(integer_in(out), port_);
    EXPECT_EQ(get("1.3.6.1.4.1.2.6", &out, "snmpgetnext"), 0) << out;
    EXPECT_NE(out.find(".1.3.6.1.4.1.2.6.1.1.0 = INTEGER: 77"), std::string::npos) << out;
    // Both subtrees were registered once in each session (the log spans both), although the
    // daemon's own object was added to its table once more at the second open.
    EXPECT_EQ(vx_count_in_file(log, "smux subtree: iso.3.6.1.4.1.2.6.1\n"), 2);
    EXPECT_EQ(vx_count_in_file(log, "smux subtree: iso.3.6.1.4.1.2.2.1.1.1\n"), 2);
    EXPECT_TRUE(vx_alive(&agent_.proc));
}

TEST_F(DaemonWithSnmpd, AgentSurvivesWhenOneOfTwoHoldersOfASubtreeLeaves) {
    served_subagent* older = start_subagent("1.3.6.1.4.1.2.6.2.", 1);
    served_subagent* newer = start_subagent("1.3.6.1.4.1.2.6.2.", 2);
    std::string out;
    EXPECT_TRUE(vx_wait_until([&] { return get("1.3.6.1.4.1.2.6.2.1.0", &out) == 0; }, 5000))
        << out;
    EXPECT_EQ(integer_in(out), 2) << out;
    const std::string log = agent_.dir + "/snmpd.log";
    const char* const rreq_seen = "smux subtree: iso.3.6.1.4.1.2.6.2\n";
    EXPECT_EQ(vx_count_in_file(log, rreq_seen), 1);

    struct step {
        const char* name;
        served_subagent* leaves;
        int32_t then;  // value served afterwards, 0: none
    };
    const step steps[] = {{"newer leaves", newer, 1}, {"older leaves", older, 0}};
    for (const step& s : steps) {
        SCOPED_TRACE(s.name);
        stop(s.leaves);
        // Let the daemon see the end of the connection and withdraw what it must.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        ASSERT_TRUE(vx_alive(&agent_.proc)) << "snmpd died";
        EXPECT_EQ(get(PORT_INSTANCE, &out), 0) << out;
        if (s.then != 0) {
            EXPECT_EQ(get("1.3.6.1.4.1.2.6.2.1.0", &out), 0) << out;
            EXPECT_EQ(integer_in(out), s.then) << out;
        } else {
            EXPECT_NE(get("1.3.6.1.4.1.2.6.2.1.0", &out), 0) << out;
        }
    }
    EXPECT_TRUE(vx_alive(&agent_.proc));
    // One registration and the one delete of the last holder.
    EXPECT_EQ(vx_count_in_file(log, rreq_seen), 2);
    EXPECT_EQ(vx_count_in_file(log, "operation 0\n"), 1);
    // The daemon kept its session all along.
    EXPECT_EQ(vx_count_in_file(daemon_.log_path, "Lost connection to agent"), 0);
}

// A stop signal ends the daemon in order and at once: a Get already forwarded to a
// subagent is answered first; then snmpd gets a ClosePDU and drops every subtree of the
// session, each subagent gets a DPI CLOSE goingDown before its connection ends, and the
// exit status is 0.
TEST_F(DaemonWithSnmpd, StopSignalEndsEverySessionInOrder) {
    const std::string snmpd_log = agent_.dir + "/snmpd.log";
    struct row {
        const char* name;
        int sig;
        bool during_get;  // sent while a Get waits for the subagent's answer
    } rows[] = {{"SIGTERM during a Get", SIGTERM, true}, {"SIGINT when idle", SIGINT, false}};
    int sessions = 0;
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        if (!vx_alive(&daemon_)) {
            start_daemon();
        }
        vx_stream sa[2] = {vx_dpi_connect_open(port_, "1.3.6.1.4.1.2.6"),
                           vx_dpi_connect_open(port_, "1.3.6.1.4.1.2.6")};
        const std::string groups[2] = {"1.3.6.1.4.1.2.6.3.", "1.3.6.1.4.1.2.6.4."};
        for (int i = 0; i < 2; ++i) {
            ASSERT_GE(sa[i].fd, 0);
            ASSERT_EQ(vx_dpi_register_group(&sa[i], groups[i], 2), 0);
        }
        ++sessions;
        ASSERT_TRUE(
            vx_wait_for_text(snmpd_log, "smux subtree: iso.3.6.1.4.1.2.6.4\n", 5000, sessions));

        auto signalled = std::chrono::steady_clock::now();
        if (r.during_get) {
            // The first subagent takes the signal as its cue and answers only afterwards.
            pid_t pid = daemon_.pid;
            std::thread answer([&] {
                vx_dpi_msg q;
                if (!vx_dpi_next(&sa[0], &q, 10000)) {
                    return;
                }
                signalled = std::chrono::steady_clock::now();
                kill(pid, r.sig);
                std::this_thread::sleep_for(std::chrono::milliseconds(300));
                (void)vx_send_all(sa[0].fd, vx_dpi_response(q.packet_id, 0, groups[0], "1.0",
                                                            DPI_INTEGER32, integer32(42)));
            });
            std::string out;
            EXPECT_EQ(get(groups[0] + "1.0", &out), 0) << out;
            EXPECT_EQ(integer_in(out), 42) << out;
            answer.join();
        } else {
            ASSERT_TRUE(vx_signal(&daemon_, r.sig));
        }
        ASSERT_TRUE(vx_wait_exit(&daemon_, 1000)) << "still running a second after the signal";
        EXPECT_LT(std::chrono::steady_clock::now() - signalled, std::chrono::milliseconds(1300));
        EXPECT_TRUE(WIFEXITED(daemon_.status) && WEXITSTATUS(daemon_.status) == 0)
            << "wait status " << daemon_.status;
        EXPECT_EQ(vx_count_in_file(daemon_.log_path,
                                   "stopping on signal " + std::to_string(r.sig) + "\n"),
                  1);

        for (int i = 0; i < 2; ++i) {
            SCOPED_TRACE(groups[i]);
            vx_dpi_msg close_msg;
            vx_bytes packet;
            ASSERT_TRUE(vx_dpi_read(&sa[i], &packet, 1000));
            ASSERT_TRUE(vx_dpi_parse(packet, &close_msg));
            EXPECT_EQ(close_msg.type, DPI_CLOSE);
            EXPECT_EQ(packet.size(), 9u);
            EXPECT_EQ(packet.back(), DPI_CLOSE_GOING_DOWN);
            EXPECT_TRUE(vx_wait_closed(sa[i].fd, 1000));
            close(sa[i].fd);
        }
        // snmpd read the ClosePDU before the daemon exited, so nothing of the session is
        // left by the time a manager asks.
        EXPECT_EQ(vx_count_in_file(snmpd_log, "close from peer on fd"), sessions);
        EXPECT_EQ(vx_count_in_file(snmpd_log, "reason 0\n"), sessions);
        for (const std::string& oid : {std::string(PORT_INSTANCE), groups[0] + "1.0"}) {
            std::string out;
            EXPECT_NE(get(oid, &out), 0) << out;
            EXPECT_NE(out.find("noSuchName"), std::string::npos) << out;
        }
        EXPECT_TRUE(vx_alive(&agent_.proc));
    }
}

}  // namespace
