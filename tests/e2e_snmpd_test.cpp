// The whole chain with the real programs: the net-snmp command-line tools ask snmpd, snmpd
// passes the requests over SMUX to the daemon, the daemon forwards them over DPI to the
// example subagent (or to a scripted one where a test needs a subagent that misbehaves), and
// traps come back the same way to snmptrapd. Everything runs in a private namespace.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "vx_peers.h"
#include "vx_testsupport.h"

namespace {

constexpr const char* EXAMPLE = "1.3.6.1.4.1.99999.2";
constexpr const char* SCRIPTED_GROUP = "1.3.6.1.4.1.99999.3.";
constexpr const char* SCRIPTED = "1.3.6.1.4.1.99999.3";
constexpr const char* ACCEPTED_TRAP = ".1.3.6.1.4.1.99999.1 Cold Start Trap";
constexpr uint8_t DPI_GET = 1;
constexpr uint8_t DPI_GETNEXT = 2;
constexpr uint8_t DPI_SET = 3;
constexpr uint8_t T_INTEGER32 = 129;

vx_bytes be32(int32_t v) {
    auto u = static_cast<uint32_t>(v);
    return {static_cast<uint8_t>(u >> 24), static_cast<uint8_t>(u >> 16),
            static_cast<uint8_t>(u >> 8), static_cast<uint8_t>(u)};
}

void expect_no_sanitizer_report(const std::string& log) {
    std::string text = vx_read_file(log);
    EXPECT_EQ(text.find("Sanitizer"), std::string::npos) << log;
    EXPECT_EQ(text.find("runtime error:"), std::string::npos) << log;
}

// A command-line tool running while the test plays a subagent.
struct tool_run {
    vx_process proc;
    std::string output;
    int status = -1;  // exit status, -1 until it ended normally
};

class EndToEnd : public ::testing::Test {
   protected:
    void SetUp() override {
        std::string why;
        if (!vx_enter_private_namespace(VX_TEST_PEERS_TEXT, &why)) {
            GTEST_SKIP() << why;
        }
        trap_log_ = vx_test_dir() + "/snmptrapd.log";
        ASSERT_TRUE(vx_start_snmptrapd(&trapd_, &why)) << why;
        ASSERT_TRUE(vx_start_snmpd(&snmpd_, {"-Dsmux"}, &why)) << why;
        ASSERT_TRUE(vx_start_varnex2(&daemon_, {"-d", "96"}, nullptr, &why)) << why;
        ASSERT_TRUE(vx_wait_for_text(daemon_.log_path, "ready to receive requests", 15000));
        ASSERT_TRUE(vx_spawn(&example_, {EXAMPLE_SUBAGENT_PATH}, vx_test_dir() + "/example.log",
                             nullptr, &why))
            << why;
        ASSERT_TRUE(vx_wait_for_text(example_.log_path, "serving", 30000))
            << vx_read_file(example_.log_path);
        // One coldStart from the daemon for each registration snmpd accepted: the DPI port
        // object and the example's subtree. Before the second, a request could cross the
        // registration on the SMUX connection.
        ASSERT_TRUE(vx_wait_for_text(trap_log_, ACCEPTED_TRAP, 10000, 2))
            << vx_read_file(trap_log_);
    }

    void TearDown() override {
        if (scripted_.fd >= 0) {
            close(scripted_.fd);
        }
        for (vx_process* p : {&example_, &daemon_}) {
            if (p->pid > 0) {
                vx_stop(p);
            }
            if (!p->log_path.empty()) {
                expect_no_sanitizer_report(p->log_path);
            }
        }
        if (HasFailure()) {
            printf("---- daemon ----\n%s\n", vx_read_file(daemon_.log_path).c_str());
            printf("---- example subagent ----\n%s\n", vx_read_file(example_.log_path).c_str());
            printf("---- snmptrapd ----\n%s\n", vx_read_file(trap_log_).c_str());
            printf("---- snmpd ----\n%s\n", vx_read_file(snmpd_.dir + "/snmpd.log").c_str());
        }
        vx_stop_snmpd(&snmpd_);
        if (trapd_.pid > 0) {
            vx_stop(&trapd_);
        }
    }

    // Runs a tool to completion: exit status, output in `out`.
    static int tool(const std::vector<std::string>& argv, std::string* out) {
        return vx_run(argv, out, 30000);
    }

    static std::vector<std::string> args(const char* tool_name, const char* version,
                                         const char* community,
                                         const std::vector<std::string>& rest) {
        std::vector<std::string> argv = {tool_name, version, "-c", community, "-On",
                                         "-r",      "0",     "-t", "20",      "127.0.0.1"};
        argv.insert(argv.end(), rest.begin(), rest.end());
        return argv;
    }

    void start_tool(tool_run* t, const std::vector<std::string>& argv) {
        std::string why;
        t->output.clear();
        ASSERT_TRUE(vx_spawn(&t->proc, argv,
                             vx_test_dir() + "/tool" + std::to_string(++tools_) + ".log", nullptr,
                             &why))
            << why;
    }

    // Plays the scripted subagent until the tool ends: `script` gets each packet the daemon
    // sends and returns the answer to send, or nothing to leave it unanswered.
    void serve_until_done(tool_run* t, const std::function<vx_bytes(const vx_dpi_msg&)>& script,
                          int timeout_ms = 30000) {
        auto start = std::chrono::steady_clock::now();
        while (vx_alive(&t->proc)) {
            vx_dpi_msg m;
            if (scripted_.fd >= 0 && vx_dpi_next(&scripted_, &m, 50)) {
                vx_bytes answer = script(m);
                if (!answer.empty()) {
                    EXPECT_TRUE(vx_send_all(scripted_.fd, answer));
                }
            } else {
                usleep(20 * 1000);
            }
            if (std::chrono::steady_clock::now() - start > std::chrono::milliseconds(timeout_ms)) {
                ADD_FAILURE() << "the tool did not end";
                vx_stop(&t->proc);
                break;
            }
        }
        t->output = vx_read_file(t->proc.log_path);
        t->status = WIFEXITED(t->proc.status) ? WEXITSTATUS(t->proc.status) : -1;
    }

    int32_t dpi_port() {
        std::string out;
        EXPECT_EQ(tool(args("snmpget", "-v1", "public", {"1.3.6.1.4.1.2.2.1.1.1.0"}), &out), 0);
        size_t at = out.find("INTEGER: ");
        return at == std::string::npos ? -1 : std::stoi(out.substr(at + 9));
    }

    // A subagent played by the test that registered SCRIPTED, accepted by snmpd.
    ::testing::AssertionResult open_scripted() {
        int accepted = vx_count_in_file(trap_log_, ACCEPTED_TRAP);
        scripted_ = vx_dpi_connect_open(dpi_port(), SCRIPTED);
        if (scripted_.fd < 0) {
            return ::testing::AssertionFailure() << "no DPI session";
        }
        if (vx_dpi_register_group(&scripted_, SCRIPTED_GROUP, 2) != 0) {
            return ::testing::AssertionFailure() << "REGISTER refused";
        }
        if (!vx_wait_for_text(trap_log_, ACCEPTED_TRAP, 10000, accepted + 1)) {
            return ::testing::AssertionFailure() << "snmpd did not accept the subtree";
        }
        return ::testing::AssertionSuccess();
    }

    // An answer to `m` for SCRIPTED.<instance>.
    static vx_bytes integer_answer(const vx_dpi_msg& m, const std::string& instance,
                                   int32_t value) {
        return vx_dpi_response(m.packet_id, 0, SCRIPTED_GROUP, instance, T_INTEGER32, be32(value));
    }

    // snmpd answers every RReq, and the daemon sends a coldStart for each answer: once the
    // count passes `seen`, snmpd has taken the withdrawal. snmpd takes whatever PDU arrives
    // while it waits for an answer as that answer, so a request sent sooner could cross the
    // delete RReq on the SMUX connection and cost the session.
    ::testing::AssertionResult wait_withdrawn(int seen) {
        if (!vx_wait_for_text(trap_log_, ACCEPTED_TRAP, 10000, seen + 1)) {
            return ::testing::AssertionFailure() << "snmpd did not answer the delete RReq";
        }
        return ::testing::AssertionSuccess();
    }

    void expect_example_still_served() {
        std::string out;
        EXPECT_EQ(tool(args("snmpwalk", "-v2c", "public", {EXAMPLE}), &out), 0) << out;
        EXPECT_EQ(vx_oids_in(out).size(), 6U) << out;
        EXPECT_EQ(vx_count_in_file(daemon_.log_path, "Lost connection to agent"), 0);
    }

    vx_process trapd_;
    vx_snmpd snmpd_;
    vx_process daemon_;
    vx_process example_;
    vx_stream scripted_;
    std::string trap_log_;
    int tools_ = 0;
};

TEST_F(EndToEnd, ExampleSubagentAnswersGetGetNextAndWalks) {
    const std::string e = EXAMPLE;
    struct row {
        const char* name;
        std::vector<std::string> argv;
        int status;
        std::vector<std::string> lines;  // each must appear in the output
        std::vector<std::string> oids;   // when not empty: exactly these, in order
    };
    const std::vector<std::string> all = {"." + e + ".1.0", "." + e + ".2.0", "." + e + ".3.0",
                                          "." + e + ".4.0", "." + e + ".5.0", "." + e + ".6.0"};
    const row rows[] = {
        {"v1 get of a DisplayString",
         args("snmpget", "-v1", "public", {e + ".1.0"}),
         0,
         {"." + e + ".1.0 = STRING: \"varnex2 example subagent\""},
         {}},
        {"v2c get of an INTEGER",
         args("snmpget", "-v2c", "public", {e + ".2.0"}),
         0,
         {"." + e + ".2.0 = INTEGER: 42"},
         {}},
        {"v1 get of a Counter32",
         args("snmpget", "-v1", "public", {e + ".3.0"}),
         0,
         {"." + e + ".3.0 = Counter32: "},
         {}},
        {"v2c get of TimeTicks",
         args("snmpget", "-v2c", "public", {e + ".4.0"}),
         0,
         {"." + e + ".4.0 = Timeticks: "},
         {}},
        {"v1 get of an IpAddress",
         args("snmpget", "-v1", "public", {e + ".5.0"}),
         0,
         {"." + e + ".5.0 = IpAddress: 127.0.0.1"},
         {}},
        {"v1 get of a missing object",
         args("snmpget", "-v1", "public", {e + ".9.0"}),
         2,
         {"noSuchName"},
         {}},
        {"v2c get of a missing object",
         args("snmpget", "-v2c", "public", {e + ".9.0"}),
         0,
         {"No Such"},
         {}},
        {"v1 getnext from the subtree",
         args("snmpgetnext", "-v1", "public", {e}),
         0,
         {"." + e + ".1.0 = STRING: "},
         {}},
        {"v2c getnext between objects",
         args("snmpgetnext", "-v2c", "public", {e + ".5"}),
         0,
         {"." + e + ".5.0 = IpAddress: 127.0.0.1"},
         {}},
        {"v2c getnext of two at once",
         args("snmpgetnext", "-v2c", "public", {e + ".1.0", e + ".5.0"}),
         0,
         {"." + e + ".2.0 = INTEGER: 42", "." + e + ".6.0 = INTEGER: 5"},
         {}},
        {"v1 walk", args("snmpwalk", "-v1", "public", {e}), 0, {}, all},
        {"v2c walk", args("snmpwalk", "-v2c", "public", {e}), 0, {}, all},
        {"v2c bulk walk", args("snmpbulkwalk", "-v2c", "public", {e}), 0, {}, all},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        std::string out;
        EXPECT_EQ(tool(r.argv, &out), r.status) << out;
        for (const std::string& line : r.lines) {
            EXPECT_NE(out.find(line), std::string::npos) << "missing: " << line << "\n" << out;
        }
        if (!r.oids.empty()) {
            EXPECT_EQ(vx_oids_in(out), r.oids) << out;
        }
    }

    // SIGTERM: the example closes its session and exits; its subtree is withdrawn.
    int accepted = vx_count_in_file(trap_log_, ACCEPTED_TRAP);
    ASSERT_TRUE(vx_signal(&example_, SIGTERM));
    ASSERT_TRUE(vx_wait_exit(&example_, 5000));
    EXPECT_TRUE(WIFEXITED(example_.status) && WEXITSTATUS(example_.status) == 0);
    EXPECT_EQ(vx_count_in_file(example_.log_path, "example_subagent: closed"), 1);
    ASSERT_TRUE(wait_withdrawn(accepted));
    std::string out;
    EXPECT_EQ(tool(args("snmpwalk", "-v2c", "public", {e}), &out), 0);
    EXPECT_NE(out.find(" = No Such Object"), std::string::npos) << out;
}

TEST_F(EndToEnd, SetIsCommittedAndItsTrapReachesSnmptrapd) {
    const std::string level = std::string(EXAMPLE) + ".6.0";
    struct row {
        const char* version;
        const char* value;
    };
    const row rows[] = {{"-v2c", "42"}, {"-v1", "7"}};
    int traps = 0;
    for (const row& r : rows) {
        SCOPED_TRACE(std::string(r.version) + " set to " + r.value);
        std::string out;
        ASSERT_EQ(tool(args("snmpset", r.version, "private", {level, "i", r.value}), &out), 0)
            << out;
        EXPECT_NE(out.find("." + level + " = INTEGER: " + r.value), std::string::npos) << out;
        ASSERT_EQ(tool(args("snmpget", "-v1", "public", {level}), &out), 0) << out;
        EXPECT_NE(out.find("INTEGER: " + std::string(r.value)), std::string::npos) << out;

        // The v1 sink shows enterprise, generic (enterprise-specific), specific and the
        // varBind; the v2c sink the same as snmpTrapOID and varBinds.
        ++traps;
        EXPECT_TRUE(vx_wait_for_text(
            trap_log_, "." + std::string(EXAMPLE) + " Enterprise Specific Trap (1)", 10000, traps));
        EXPECT_TRUE(vx_wait_for_text(trap_log_, "." + level + " = INTEGER: " + r.value, 10000, 2));
        EXPECT_TRUE(vx_wait_for_text(
            trap_log_, ".1.3.6.1.6.3.1.1.4.1.0 = OID: ." + std::string(EXAMPLE) + ".0.1", 10000,
            traps));
    }
}

TEST_F(EndToEnd, RefusedSetComesBackAsBadValueAndChangesNothing) {
    const std::string level = std::string(EXAMPLE) + ".6.0";
    struct row {
        const char* name;
        std::vector<std::string> set;
        const char* reason;
    };
    const row rows[] = {
        {"out of range", {level, "i", "500"}, "badValue"},
        {"wrong type", {level, "s", "high"}, "badValue"},
        {"read-only object", {std::string(EXAMPLE) + ".2.0", "i", "1"}, "noSuchName"},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        std::string out;
        EXPECT_EQ(tool(args("snmpset", "-v1", "private", r.set), &out), 2) << out;
        EXPECT_NE(out.find(r.reason), std::string::npos) << out;
        ASSERT_EQ(tool(args("snmpget", "-v1", "public", {level}), &out), 0) << out;
        EXPECT_NE(out.find("INTEGER: 5"), std::string::npos) << out;
    }
    EXPECT_EQ(vx_count_in_file(example_.log_path, "exampleLevel is now"), 0);
    EXPECT_EQ(vx_count_in_file(trap_log_, "Enterprise Specific"), 0);

    // The same seen from the subagent's side: after the refused SET nothing more arrives,
    // neither a COMMIT nor an UNDO.
    ASSERT_TRUE(open_scripted());
    tool_run t;
    start_tool(&t, args("snmpset", "-v1", "private", {std::string(SCRIPTED) + ".1.0", "i", "9"}));
    std::vector<uint8_t> seen;
    serve_until_done(&t, [&](const vx_dpi_msg& m) {
        seen.push_back(m.type);
        if (m.type == DPI_GET) {  // snmpd reads the object before it sets it
            return integer_answer(m, "1.0", 1);
        }
        return vx_dpi_response(m.packet_id, 10, "", "");  // wrongValue
    });
    EXPECT_EQ(t.status, 2) << t.output;
    EXPECT_NE(t.output.find("badValue"), std::string::npos) << t.output;
    EXPECT_EQ(seen, (std::vector<uint8_t>{DPI_GET, DPI_SET}));
    vx_dpi_msg late;
    EXPECT_FALSE(vx_dpi_next(&scripted_, &late, 500)) << "late packet type " << int(late.type);
}

TEST_F(EndToEnd, StalledSubagentIsDroppedAndTheOthersAreStillServed) {
    ASSERT_TRUE(open_scripted());
    int accepted = vx_count_in_file(trap_log_, ACCEPTED_TRAP);
    tool_run t;
    start_tool(&t, args("snmpget", "-v1", "public", {std::string(SCRIPTED) + ".1.0"}));
    auto start = std::chrono::steady_clock::now();
    int asked = 0;
    serve_until_done(&t, [&](const vx_dpi_msg& m) {
        asked += m.type == DPI_GET;
        return vx_bytes{};  // never answers
    });
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(asked, 1);
    // snmpd turns the daemon's genErr into noSuchName for a manager's Get.
    EXPECT_EQ(t.status, 2) << t.output;
    EXPECT_NE(t.output.find("noSuchName"), std::string::npos) << t.output;
    EXPECT_GE(waited, std::chrono::seconds(7));
    EXPECT_TRUE(vx_wait_closed(scripted_.fd, 3000));
    ASSERT_TRUE(wait_withdrawn(accepted));

    // The subtree has been withdrawn: snmpd answers without asking anyone.
    std::string out;
    EXPECT_EQ(tool(args("snmpget", "-v2c", "public", {std::string(SCRIPTED) + ".1.0"}), &out), 0);
    EXPECT_NE(out.find("No Such Object"), std::string::npos) << out;
    expect_example_still_served();
}

TEST_F(EndToEnd, SubagentThatDiesMidWalkEndsTheWalkCleanly) {
    ASSERT_TRUE(open_scripted());
    int accepted = vx_count_in_file(trap_log_, ACCEPTED_TRAP);
    tool_run t;
    start_tool(&t, args("snmpwalk", "-v2c", "public", {SCRIPTED}));
    int answered = 0;
    serve_until_done(&t, [&](const vx_dpi_msg& m) {
        if (m.type != DPI_GETNEXT) {
            return vx_bytes{};
        }
        if (answered == 2) {  // dies before its third answer
            close(scripted_.fd);
            scripted_.fd = -1;
            return vx_bytes{};
        }
        ++answered;
        return integer_answer(m, std::to_string(answered) + ".0", answered);
    });
    EXPECT_EQ(t.status, 0) << t.output;
    EXPECT_EQ(vx_oids_in(t.output), (std::vector<std::string>{"." + std::string(SCRIPTED) + ".1.0",
                                                           "." + std::string(SCRIPTED) + ".2.0"}))
        << t.output;
    ASSERT_TRUE(wait_withdrawn(accepted));
    expect_example_still_served();

    // The example subagent killed outright, between requests: its subtree goes, the rest
    // stays.
    accepted = vx_count_in_file(trap_log_, ACCEPTED_TRAP);
    ASSERT_TRUE(vx_signal(&example_, SIGKILL));
    ASSERT_TRUE(vx_wait_exit(&example_, 3000));
    ASSERT_TRUE(wait_withdrawn(accepted));
    std::string out;
    EXPECT_EQ(tool(args("snmpget", "-v2c", "public", {std::string(EXAMPLE) + ".2.0"}), &out), 0);
    EXPECT_NE(out.find("No Such Object"), std::string::npos) << out;
    EXPECT_GT(dpi_port(), 0);
    EXPECT_EQ(vx_count_in_file(daemon_.log_path, "Lost connection to agent"), 0);
}

}  // namespace
