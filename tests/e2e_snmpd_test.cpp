// The whole chain with the real programs: the net-snmp command-line tools ask snmpd, snmpd
// passes the requests over SMUX to the daemon, the daemon forwards them over DPI to the
// example subagent (or to a scripted one where a test needs a subagent that misbehaves), and
// traps come back the same way to snmptrapd. Everything runs in a private namespace.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "snmp_dpi.h"
#include "vx_peers.h"
#include "vx_testsupport.h"

namespace {

constexpr const char* EXAMPLE = "1.3.6.1.4.1.99999.2";
constexpr const char* SCRIPTED_GROUP = "1.3.6.1.4.1.99999.3.";
constexpr const char* SCRIPTED = "1.3.6.1.4.1.99999.3";
constexpr const char* ACCEPTED_TRAP = ".1.3.6.1.4.1.99999.1 Cold Start Trap";
constexpr auto& args = vx_snmp_args;

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
        ASSERT_TRUE(vx_start_varnex2(&daemon_, {"-d", "255"}, nullptr, &why)) << why;
        ASSERT_TRUE(vx_wait_for_text(daemon_.log_path, "ready to receive requests", 15000));
        ASSERT_TRUE(vx_spawn(&example_, {EXAMPLE_SUBAGENT_PATH}, vx_test_dir() + "/example.log",
                             nullptr, &why))
            << why;
        ASSERT_TRUE(vx_wait_for_text(example_.log_path, "serving", 30000));
        // One coldStart from the daemon for each registration snmpd accepted (the port
        // object, the example's subtree): before the second, a request could cross it.
        ASSERT_TRUE(vx_wait_for_text(trap_log_, ACCEPTED_TRAP, 10000, 2));
    }

    void TearDown() override {
        if (scripted_.fd >= 0) {
            close(scripted_.fd);
        }
        for (vx_process* p : {&example_, &daemon_, &snmpd_.proc, &trapd_}) {
            vx_stop(p);
            std::string log = vx_read_file(p->log_path);
            EXPECT_EQ(log.find("Sanitizer"), std::string::npos) << p->log_path;
            EXPECT_EQ(log.find("runtime error:"), std::string::npos) << p->log_path;
            if (HasFailure()) {
                printf("---- %s ----\n%s\n", p->log_path.c_str(), log.c_str());
            }
        }
    }

    // Runs a tool while playing the scripted subagent: its output, its exit status in status_.
    std::string serve(const std::vector<std::string>& argv,
                      const std::function<vx_bytes(const vx_dpi_msg&)>& script) {
        return vx_serve_tool(argv, &scripted_, script, &status_);
    }

    int32_t dpi_port() {
        std::string out;
        EXPECT_EQ(vx_run(args("snmpget", "-v1", "public", {"1.3.6.1.4.1.2.2.1.1.1.0"}), &out), 0);
        size_t at = out.find("INTEGER: ");
        return at == std::string::npos ? -1 : std::stoi(out.substr(at + 9));
    }

    // A subagent played by the test that registered SCRIPTED, accepted by snmpd.
    ::testing::AssertionResult open_scripted() {
        int accepted = vx_count_in_file(trap_log_, ACCEPTED_TRAP);
        scripted_ = vx_dpi_connect_open(dpi_port(), SCRIPTED);
        if (scripted_.fd < 0 || vx_dpi_register_group(&scripted_, SCRIPTED_GROUP, 2) != 0) {
            return ::testing::AssertionFailure() << "no DPI session or REGISTER refused";
        }
        return ::testing::AssertionResult(wait_accepted(accepted)) << "RReq not answered";
    }

    // An Integer32 answer of a small value.
    static vx_bytes integer_answer(const vx_dpi_msg& m, const std::string& instance,
                                   uint8_t value) {
        return vx_dpi_response(m.packet_id, 0, SCRIPTED_GROUP, instance, DPI_TYPE_Integer32,
                               {0, 0, 0, value});
    }

    // snmpd answers every RReq, and the daemon sends a coldStart for each answer. snmpd takes
    // any PDU that comes while it waits for an answer as that answer, so a request sent
    // before the answer could cross the RReq on the SMUX connection and cost the session.
    bool wait_accepted(int seen, int more = 1) {
        return vx_wait_for_text(trap_log_, ACCEPTED_TRAP, 20000, seen + more);
    }

    vx_process trapd_;
    vx_snmpd snmpd_;
    vx_process daemon_;
    vx_process example_;
    vx_stream scripted_;
    std::string trap_log_;
    int status_ = -1;
};

// The example subagent through snmpd: reads, walks that start before its subtree, the port
// object, a set that is committed and announced by a trap, and sets it refuses.
TEST_F(EndToEnd, ExampleSubagentServedThroughSnmpd) {
    const std::string e = EXAMPLE;
    struct row {
        std::vector<std::string> argv;
        int status;
        std::string line;  // must appear in the output
        size_t objects;    // objects in the output
    };
    const row rows[] = {
        {args("snmpget", "-v1", "public", {e + ".1.0"}), 0, "STRING: \"varnex2 example subagent\"",
         1},
        {args("snmpget", "-v2c", "public", {e + ".2.0"}), 0, "." + e + ".2.0 = INTEGER: 42", 1},
        {args("snmpget", "-v1", "public", {e + ".5.0"}), 0, "IpAddress: 127.0.0.1", 1},
        {args("snmpget", "-v1", "public", {e + ".9.0"}), 2, "noSuchName", 0},
        {args("snmpgetnext", "-v2c", "public", {e + ".1.0", e + ".5.0"}), 0, ".6.0 = INTEGER: 5",
         2},
        {args("snmpwalk", "-v1", "public", {"1.3.6.1.4.1.99999"}), 0, "." + e + ".1.0 = ", 6},
        {args("snmpbulkwalk", "-v2c", "public", {e}), 0, "." + e + ".6.0 = ", 6},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.argv[0] + " " + r.argv.back());
        std::string out;
        EXPECT_EQ(vx_run(r.argv, &out), r.status) << out;
        EXPECT_NE(out.find(r.line), std::string::npos) << r.line << "\n" << out;
        EXPECT_EQ(vx_oids_in(out).size(), r.objects) << out;
    }
    // The port object: its instance, and a GetNext from it moves on.
    EXPECT_GT(dpi_port(), 0);
    std::string out;
    EXPECT_EQ(vx_run(args("snmpgetnext", "-v2c", "public", {"1.3.6.1.4.1.2.2.1.1.1.0"}), &out), 0);
    EXPECT_EQ(out.find(".1.3.6.1.4.1.2.2.1.1.1.0 ="), std::string::npos) << out;

    // A set, committed: the new value reads back, and its trap reaches both sinks with its
    // specific number and varBind.
    const std::string level = e + ".6.0";
    ASSERT_EQ(vx_run(args("snmpset", "-v1", "private", {level, "i", "7"}), &out), 0) << out;
    ASSERT_EQ(vx_run(args("snmpget", "-v1", "public", {level}), &out), 0) << out;
    EXPECT_NE(out.find("INTEGER: 7"), std::string::npos) << out;
    EXPECT_TRUE(vx_wait_for_text(trap_log_, "." + e + " Enterprise Specific Trap (1)", 10000));
    EXPECT_TRUE(vx_wait_for_text(trap_log_, "." + level + " = INTEGER: 7", 10000, 2));
    EXPECT_TRUE(vx_wait_for_text(trap_log_, ".1.3.6.1.6.3.1.1.4.1.0 = OID: ." + e + ".0.1", 10000));

    // A refused set changes nothing.
    EXPECT_EQ(vx_run(args("snmpset", "-v1", "private", {level, "i", "500"}), &out), 2) << out;
    EXPECT_EQ(vx_count_in_file(example_.log_path, "exampleLevel is now"), 1);
}

// A subagent played by the test behind snmpd: its error codes as the manager sees them, set
// values and commits, Counter64 objects a v1 GetNext steps over, its traps, a second holder
// of its subtree, its stall; and snmpd restarted.
TEST_F(EndToEnd, ScriptedSubagentThroughSnmpd) {
    ASSERT_TRUE(open_scripted());
    const std::string s = SCRIPTED;
    struct refusal {
        uint8_t code;
        const char* reason;
    };
    for (const refusal& r : {refusal{2, "noSuchName"}, refusal{3, "badValue"},
                             refusal{6, "noSuchName"}, refusal{10, "badValue"}}) {
        SCOPED_TRACE("SET refused with " + std::to_string(r.code));
        std::vector<uint8_t> seen;
        std::string t = serve(
            args("snmpset", "-v1", "private", {s + ".1.0", "i", "9"}), [&](const vx_dpi_msg& m) {
                seen.push_back(m.type);
                return m.type == SNMP_DPI_GET ? integer_answer(m, "1.0", 1)
                                              : vx_dpi_response(m.packet_id, r.code);
            });
        EXPECT_EQ(status_, 2) << t;
        EXPECT_NE(t.find(r.reason), std::string::npos) << t;
        EXPECT_EQ(seen, (std::vector<uint8_t>{SNMP_DPI_GET, SNMP_DPI_SET}));  // no COMMIT, no UNDO
    }
    std::vector<uint8_t> seen;
    std::string t = serve(
        args("snmpset", "-v1", "private", {s + ".2.0", "u", "256"}), [&](const vx_dpi_msg& m) {
            seen.push_back(m.type);
            if (m.type != SNMP_DPI_GET) {
                uint32_t v = 0;
                EXPECT_EQ(m.value_type, DPI_TYPE_Gauge32);
                memcpy(&v, m.value.data(), std::min<size_t>(m.value.size(), 4));
                EXPECT_EQ(v, 256U);
            }
            return m.type == SNMP_DPI_GET ? vx_dpi_response(m.packet_id, 0, SCRIPTED_GROUP, "2.0",
                                                            DPI_TYPE_Gauge32, vx_hex("00000001"))
                                          : vx_dpi_response(m.packet_id, 0);
        });
    EXPECT_EQ(status_, 0) << t;
    EXPECT_EQ(seen, (std::vector<uint8_t>{SNMP_DPI_GET, SNMP_DPI_SET, SNMP_DPI_COMMIT}));
    // An answer with no varBind to a GET is no answer (snmpd shows the error as noSuchName).
    t = serve(args("snmpget", "-v1", "public", {s + ".1.0"}),
              [](const vx_dpi_msg& m) { return vx_dpi_response(m.packet_id, 0); });
    EXPECT_NE(t.find("noSuchName"), std::string::npos) << t;

    // Values of other types reach the subagent as they were set.
    struct typed {
        const char* type;
        const char* value;
        uint8_t dpi_type;
    };
    for (const typed& v :
         {typed{"s", "ab", DPI_TYPE_OCTET_STRING}, typed{"x", "00ff", 2},
          typed{"o", "1.3.6", DPI_TYPE_OBJECT_IDENTIFIER},
          typed{"a", "10.0.0.1", DPI_TYPE_IpAddress}, typed{"t", "100", DPI_TYPE_TimeTicks}}) {
        SCOPED_TRACE(v.type);
        t = serve(args("snmpset", "-v1", "private", {s + ".3.0", v.type, v.value}),
                  [&](const vx_dpi_msg& m) {
                      EXPECT_TRUE(m.type == SNMP_DPI_GET || m.value_type == v.dpi_type);
                      return m.type == SNMP_DPI_GET ? integer_answer(m, "3.0", 1)
                                                    : vx_dpi_response(m.packet_id, 0);
                  });
        EXPECT_EQ(status_, 0) << t;
    }

    // Counter64 has no SNMPv1 form: a GetNext steps over such objects, but an answer that
    // does not move on ends the subtree rather than looping.
    const vx_bytes c64 = vx_hex("0000000100000002");
    int asked = 0;
    t = serve(args("snmpgetnext", "-v1", "public", {s}), [&](const vx_dpi_msg& m) {
        ++asked;
        const std::string at = m.instance == "" ? "1.0" : m.instance == "1.0" ? "2.0" : "3.0";
        return at == "3.0"
                   ? integer_answer(m, at, 3)
                   : vx_dpi_response(m.packet_id, 0, SCRIPTED_GROUP, at, DPI_TYPE_Counter64, c64);
    });
    EXPECT_NE(t.find("." + s + ".3.0 = INTEGER: 3"), std::string::npos) << t;
    EXPECT_EQ(asked, 3);
    asked = 0;
    t = serve(args("snmpgetnext", "-v1", "public", {s + ".5.0"}), [&](const vx_dpi_msg& m) {
        return ++asked > 1 ? vx_bytes{}
                           : vx_dpi_response(m.packet_id, 0, SCRIPTED_GROUP, "5.0",
                                             DPI_TYPE_Counter64, c64);
    });
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(t.find("." + s + ".5.0 ="), std::string::npos) << t;
    t = serve(args("snmpget", "-v1", "public", {s + ".1.0"}), [&](const vx_dpi_msg& m) {
        return vx_dpi_response(m.packet_id, 0, SCRIPTED_GROUP, "1.0", DPI_TYPE_Counter64, c64);
    });
    EXPECT_NE(t.find("noSuchName"), std::string::npos) << t;

    // A trap's varBinds reach the v1 sink, less the Counter64 one v1 cannot carry.
    int32_t five = 5;
    dpi_set_packet* vbs =
        mkDPIset_packet(nullptr, SCRIPTED_GROUP, "1.0", DPI_TYPE_Integer32, 4, &five);
    vbs = mkDPIset_packet(vbs, SCRIPTED_GROUP, "2.0", DPI_TYPE_DisplayString, 2, "ok");
    vbs = mkDPIset_packet(vbs, SCRIPTED_GROUP, "3.0", DPI_TYPE_Counter64, 8, c64.data());
    const unsigned char* trap = mkDPItrape(6, 17, vbs, SCRIPTED);
    ASSERT_NE(trap, nullptr);
    ASSERT_TRUE(vx_send_all(scripted_.fd, vx_bytes(trap, trap + DPI_PACKET_LEN(trap))));
    EXPECT_TRUE(vx_wait_for_text(trap_log_, "." + s + " Enterprise Specific Trap (17)", 10000));
    EXPECT_TRUE(vx_wait_for_text(trap_log_, "." + s + ".2.0 = STRING: \"ok\"", 10000));

    // A second holder of the subtree comes and goes: snmpd keeps it all along.
    vx_stream second = vx_dpi_connect_open(dpi_port(), SCRIPTED);
    ASSERT_EQ(vx_dpi_register_group(&second, SCRIPTED_GROUP, 3), 0);
    close(second.fd);
    usleep(500 * 1000);
    t = serve(args("snmpget", "-v1", "public", {s + ".1.0"}),
              [&](const vx_dpi_msg& m) { return integer_answer(m, "1.0", 4); });
    EXPECT_NE(t.find("." + s + ".1.0 = INTEGER: 4"), std::string::npos) << t;

    // A subagent that does not answer is dropped after 8 s and its subtree withdrawn.
    int accepted = vx_count_in_file(trap_log_, ACCEPTED_TRAP);
    auto start = std::chrono::steady_clock::now();
    t = serve(args("snmpget", "-v1", "public", {s + ".1.0"}),
              [&](const vx_dpi_msg&) { return vx_bytes{}; });
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(7));
    EXPECT_NE(t.find("noSuchName"), std::string::npos) << t;
    EXPECT_TRUE(vx_wait_closed(scripted_.fd, 3000));
    ASSERT_TRUE(wait_accepted(accepted));
    std::string out;
    EXPECT_EQ(vx_run(args("snmpget", "-v2c", "public", {s + ".1.0"}), &out), 0);
    EXPECT_NE(out.find("No Such Object"), std::string::npos) << out;
    EXPECT_EQ(vx_run(args("snmpwalk", "-v2c", "public", {EXAMPLE}), &out), 0) << out;
    EXPECT_EQ(vx_oids_in(out).size(), 6U) << out;
    // The delete went out only after the answer snmpd was waiting for: the session held.
    EXPECT_EQ(vx_count_in_file(daemon_.log_path, "Lost connection to agent"), 0);

    // snmpd restarted: the daemon opens a new session and registers everything again.
    accepted = vx_count_in_file(trap_log_, ACCEPTED_TRAP);
    std::string why;
    ASSERT_TRUE(vx_restart_snmpd(&snmpd_, &why)) << why;
    ASSERT_TRUE(wait_accepted(accepted, 2));
    EXPECT_EQ(vx_run(args("snmpwalk", "-v2c", "public", {EXAMPLE}), &out), 0) << out;
    EXPECT_EQ(vx_oids_in(out).size(), 6U) << out;
}

}  // namespace
