// The daemon as an AgentX subagent of the real snmpd ("master agentx", its own Unix socket
// in the test directory): the net-snmp tools ask snmpd, snmpd asks the daemon over AgentX,
// the daemon asks the example subagent (or one the test plays) over DPI, and traps come
// back to snmptrapd as SNMPv2 notifications. Everything runs in a private namespace.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "vx_peers.h"
#include "vx_testsupport.h"

namespace {

constexpr const char* EXAMPLE = "1.3.6.1.4.1.99999.2";
constexpr const char* SCRIPTED = "1.3.6.1.4.1.99999.3";
constexpr const char* SCRIPTED_GROUP = "1.3.6.1.4.1.99999.3.";
// How snmptrapd shows the coldStart notification the daemon sends for every registration
// or withdrawal the master accepted.
constexpr const char* ACCEPTED =
    ".1.3.6.1.6.3.1.1.5.1\t.1.3.6.1.6.3.1.1.4.3.0 = OID: .1.3.6.1.4.1.99999.1";
constexpr uint8_t DPI_GETNEXT = 2;
constexpr uint8_t DPI_SET = 3;
constexpr uint8_t DPI_COMMIT = 10;
constexpr uint8_t DPI_UNDO = 11;
constexpr uint8_t T_OID = 3;
constexpr uint8_t T_COUNTER64 = 13;
constexpr uint8_t T_END_OF_MIB = 17;
constexpr uint8_t T_INTEGER32 = 129;

vx_bytes text_bytes(const std::string& s, bool nul) {
    vx_bytes b(s.begin(), s.end());
    if (nul) {
        b.push_back(0);
    }
    return b;
}

vx_bytes be32(uint32_t v) {
    return {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16),
            static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
}

// A DPI TRAP with one varBind SCRIPTED.1.0 = `value` (Integer32), as a subagent writes it.
vx_bytes dpi_trap(int32_t generic, int32_t specific, const std::string& enterprise,
                  uint8_t type, const vx_bytes& value) {
    vx_bytes body = be32(static_cast<uint32_t>(generic));
    for (const vx_bytes& part :
         {be32(static_cast<uint32_t>(specific)), text_bytes(enterprise, true),
          text_bytes(SCRIPTED_GROUP, true), text_bytes("1.0", true),
          vx_bytes{type, 0, static_cast<uint8_t>(value.size())}, value}) {
        body.insert(body.end(), part.begin(), part.end());
    }
    return vx_dpi_packet(77, 4, body);
}

std::vector<std::string> args(const char* tool, const char* version, const char* community,
                              const std::vector<std::string>& rest) {
    std::vector<std::string> argv = {tool, version, "-c", community, "-On",
                                     "-r", "0",     "-t", "20",      "127.0.0.1"};
    argv.insert(argv.end(), rest.begin(), rest.end());
    return argv;
}

// What a tool run printed and how it ended.
struct tool_result {
    int status = -1;
    std::string output;
};

using script = std::function<vx_bytes(const vx_dpi_msg&)>;

class AgentXMaster : public ::testing::Test {
   protected:
    void SetUp() override {
        std::string why;
        if (!vx_enter_private_namespace(VX_TEST_PEERS_TEXT, &why)) {
            GTEST_SKIP() << why;
        }
        trap_log_ = vx_test_dir() + "/snmptrapd.log";
        ASSERT_TRUE(vx_start_snmptrapd(&trapd_, &why)) << why;
        snmpd_.agentx_socket = vx_test_dir() + "/agentx.sock";
        ASSERT_TRUE(vx_start_snmpd(&snmpd_, {"-Dagentx/master"}, &why)) << why;
        setenv("VARNEX2_AGENTX", snmpd_.agentx_socket.c_str(), 1);
        ASSERT_TRUE(vx_start_varnex2(&daemon_, {"-d", "96"}, nullptr, &why)) << why;
        ASSERT_TRUE(vx_wait_for_text(daemon_.log_path, "ready to receive requests", 15000));
        ASSERT_TRUE(vx_spawn(&example_, {EXAMPLE_SUBAGENT_PATH}, vx_test_dir() + "/example.log",
                             nullptr, &why))
            << why;
        ASSERT_TRUE(vx_wait_for_text(example_.log_path, "serving", 30000));
        // The DPI port object and the example's subtree: before the master has taken the
        // second, a request for it would find nobody.
        ASSERT_TRUE(accepted(2));
    }

    void TearDown() override {
        if (scripted_.fd >= 0) {
            close(scripted_.fd);
        }
        for (vx_process* p : {&example_, &daemon_}) {
            if (p->pid > 0) {
                vx_stop(p);
            }
            std::string log = p->log_path.empty() ? "" : vx_read_file(p->log_path);
            EXPECT_EQ(log.find("Sanitizer"), std::string::npos) << p->log_path;
            EXPECT_EQ(log.find("runtime error:"), std::string::npos) << p->log_path;
        }
        if (HasFailure()) {
            for (const std::string& log : {daemon_.log_path, example_.log_path, trap_log_,
                                           snmpd_.dir + "/snmpd.log"}) {
                printf("---- %s ----\n%s\n", log.c_str(), vx_read_file(log).c_str());
            }
        }
        vx_stop_snmpd(&snmpd_);
        vx_stop(&trapd_);
    }

    // The master has accepted `n` registrations and withdrawals in all.
    ::testing::AssertionResult accepted(int n) {
        if (vx_wait_for_text(trap_log_, ACCEPTED, 10000, n)) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure() << vx_count_in_file(trap_log_, ACCEPTED)
                                             << " accepted, not " << n;
    }

    // Runs a tool to its end while the scripted subagent (if any) answers what it is sent.
    tool_result run(const std::vector<std::string>& argv, const script& answer = nullptr) {
        tool_result r;
        vx_process proc;
        std::string log = vx_test_dir() + "/tool" + std::to_string(++tools_) + ".log";
        if (!vx_spawn(&proc, argv, log)) {
            ADD_FAILURE() << "cannot start " << argv[0];
            return r;
        }
        auto start = std::chrono::steady_clock::now();
        while (vx_alive(&proc)) {
            vx_dpi_msg m;
            if (answer && scripted_.fd >= 0 && vx_dpi_next(&scripted_, &m, 50)) {
                vx_bytes reply = answer(m);
                if (!reply.empty()) {
                    EXPECT_TRUE(vx_send_all(scripted_.fd, reply));
                }
            } else {
                usleep(20 * 1000);
            }
            if (std::chrono::steady_clock::now() - start > std::chrono::seconds(40)) {
                ADD_FAILURE() << argv[0] << " did not end";
                vx_stop(&proc);
            }
        }
        r.output = vx_read_file(log);
        r.status = WIFEXITED(proc.status) ? WEXITSTATUS(proc.status) : -1;
        return r;
    }

    int32_t dpi_port() {
        tool_result r = run(args("snmpget", "-v2c", "public", {"1.3.6.1.4.1.2.2.1.1.1.0"}));
        size_t at = r.output.find("INTEGER: ");
        return at == std::string::npos ? -1 : std::stoi(r.output.substr(at + 9));
    }

    // A subagent played by the test that registered SCRIPTED, accepted by the master.
    ::testing::AssertionResult open_scripted() {
        int before = vx_count_in_file(trap_log_, ACCEPTED);
        scripted_ = vx_dpi_connect_open(dpi_port(), SCRIPTED);
        if (scripted_.fd < 0 || vx_dpi_register_group(&scripted_, SCRIPTED_GROUP, 2) != 0) {
            return ::testing::AssertionFailure() << "no DPI session or REGISTER refused";
        }
        return accepted(before + 1);
    }

    void expect_example_served() {
        tool_result r = run(args("snmpwalk", "-v2c", "public", {EXAMPLE}));
        EXPECT_EQ(r.status, 0) << r.output;
        EXPECT_EQ(vx_oids_in(r.output).size(), 6U) << r.output;
    }

    vx_process trapd_;
    vx_snmpd snmpd_;
    vx_process daemon_;
    vx_process example_;
    vx_stream scripted_;
    std::string trap_log_;
    int tools_ = 0;
};

// The scripted subagent's objects: SCRIPTED.1.0 a Counter64 of 2^32 + 2, SCRIPTED.2.0 an
// OBJECT IDENTIFIER, nothing after.
vx_bytes scripted_objects(const vx_dpi_msg& m) {
    const vx_bytes c64 = {0, 0, 0, 1, 0, 0, 0, 2};
    const vx_bytes oid = text_bytes(std::string(SCRIPTED) + ".7", false);
    std::string want = m.instance;
    if (m.type == DPI_GETNEXT) {
        want = m.instance.empty() ? "1.0" : m.instance == "1.0" ? "2.0" : "";
    }
    if (want == "1.0") {
        return vx_dpi_response(m.packet_id, 0, SCRIPTED_GROUP, "1.0", T_COUNTER64, c64);
    }
    if (want == "2.0") {
        return vx_dpi_response(m.packet_id, 0, SCRIPTED_GROUP, "2.0", T_OID, oid);
    }
    return vx_dpi_response(m.packet_id, 0, SCRIPTED_GROUP, m.instance, T_END_OF_MIB);
}

TEST_F(AgentXMaster, ReadsAndWalksCarrySNMPv2Values) {
    ASSERT_TRUE(open_scripted());
    const std::string e = EXAMPLE;
    const std::string s = SCRIPTED;
    std::vector<std::string> example_oids;
    for (int i = 1; i <= 6; i++) {
        example_oids.push_back("." + e + "." + std::to_string(i) + ".0");
    }
    struct row {
        const char* name;
        std::vector<std::string> argv;
        int status;
        std::vector<std::string> lines;  // each must appear in the output
        std::vector<std::string> oids;   // when not empty: exactly these, in order
    };
    const row rows[] = {
        {"v1 get", args("snmpget", "-v1", "public", {e + ".1.0"}), 0,
         {"." + e + ".1.0 = STRING: \"varnex2 example subagent\""}, {}},
        {"v2c get of three", args("snmpget", "-v2c", "public", {e + ".2.0", e + ".5.0", e + ".9.0"}),
         0, {"." + e + ".2.0 = INTEGER: 42", "." + e + ".5.0 = IpAddress: 127.0.0.1",
             "." + e + ".9.0 = No Such Object"}, {}},
        {"v1 get of a missing object", args("snmpget", "-v1", "public", {e + ".9.0"}), 2,
         {"noSuchName"}, {}},
        {"v2c getnext between objects", args("snmpgetnext", "-v2c", "public", {e + ".5"}), 0,
         {"." + e + ".5.0 = IpAddress: 127.0.0.1"}, {}},
        {"v1 walk", args("snmpwalk", "-v1", "public", {e}), 0, {}, example_oids},
        {"v2c walk", args("snmpwalk", "-v2c", "public", {e}), 0, {}, example_oids},
        {"v2c bulk walk", args("snmpbulkwalk", "-v2c", "public", {e}), 0, {}, example_oids},
        {"Counter64 get", args("snmpget", "-v2c", "public", {s + ".1.0"}), 0,
         {"." + s + ".1.0 = Counter64: 4294967298"}, {}},
        {"walk of Counter64 and OID values", args("snmpbulkwalk", "-v2c", "public", {s}), 0,
         {"." + s + ".1.0 = Counter64: 4294967298", "." + s + ".2.0 = OID: ." + s + ".7"},
         {"." + s + ".1.0", "." + s + ".2.0"}},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        tool_result got = run(r.argv, scripted_objects);
        EXPECT_EQ(got.status, r.status) << got.output;
        for (const std::string& line : r.lines) {
            EXPECT_NE(got.output.find(line), std::string::npos) << line << "\n" << got.output;
        }
        if (!r.oids.empty()) {
            EXPECT_EQ(vx_oids_in(got.output), r.oids) << got.output;
        }
    }
}

// A Set is tried on every subagent before any commits: one refusal anywhere undoes the
// SETs the others passed, and the manager sees the SNMPv2 reason.
TEST_F(AgentXMaster, SetsCommitOrUndoAsAWhole) {
    ASSERT_TRUE(open_scripted());
    const std::string level = std::string(EXAMPLE) + ".6.0";
    const std::string mine = std::string(SCRIPTED) + ".1.0";
    struct row {
        const char* name;
        const char* version;
        std::vector<std::string> set;
        uint8_t scripted_code;          // the scripted subagent's answer to SET
        int status;                     // snmpset's exit status
        std::string shown;              // in its output
        std::vector<uint8_t> scripted;  // what the scripted subagent was sent
        int level_after;
    };
    const std::string wrong_value =
        "wrongValue (The set value is illegal or unsupported in some way)\nFailed object: .";
    const row rows[] = {
        {"one object, committed", "-v2c", {level, "i", "42"}, 0, 0, "INTEGER: 42", {}, 42},
        {"out of range", "-v2c", {level, "i", "500"}, 0, 2, "wrongValue", {}, 42},
        {"read-only", "-v2c", {std::string(EXAMPLE) + ".2.0", "i", "1"}, 0, 2, "notWritable", {},
         42},
        {"wrong type", "-v2c", {level, "s", "high"}, 0, 2, "wrongType", {}, 42},
        {"as an SNMPv1 manager sees it", "-v1", {level, "i", "500"}, 0, 2, "badValue", {}, 42},
        {"the other subagent refuses: ours is undone", "-v2c",
         {mine, "i", "9", level, "i", "500"}, 0, 2, wrong_value + level, {DPI_SET, DPI_UNDO}, 42},
        {"ours refuses: the example's is undone", "-v2c", {level, "i", "7", mine, "i", "9"}, 10,
         2, wrong_value + mine, {DPI_SET}, 42},
        {"both take it: both commit", "-v2c", {mine, "i", "9", level, "i", "8"}, 0, 0,
         "INTEGER: 8", {DPI_SET, DPI_COMMIT}, 8},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        std::vector<uint8_t> seen;
        tool_result got = run(args("snmpset", r.version, "private", r.set), [&](const vx_dpi_msg& m) {
            seen.push_back(m.type);
            return vx_dpi_response(m.packet_id, m.type == DPI_SET ? r.scripted_code : 0);
        });
        EXPECT_EQ(got.status, r.status) << got.output;
        EXPECT_NE(got.output.find(r.shown), std::string::npos) << got.output;
        // The undo of a CleanupSet is not waited for by the master: give it its moment.
        vx_dpi_msg late;
        while (vx_dpi_next(&scripted_, &late, 300)) {
            seen.push_back(late.type);
            EXPECT_TRUE(vx_send_all(scripted_.fd, vx_dpi_response(late.packet_id, 0)));
        }
        EXPECT_EQ(seen, r.scripted);
        tool_result now = run(args("snmpget", "-v2c", "public", {level}));
        EXPECT_NE(now.output.find("INTEGER: " + std::to_string(r.level_after)), std::string::npos)
            << now.output;
    }
    EXPECT_EQ(vx_count_in_file(example_.log_path, "exampleLevel is now"), 2);
    // Each change sent a trap: a v2c notification whose snmpTrapOID is enterprise.0.specific,
    // then the varBind and the enterprise.
    for (const char* value : {"42", "8"}) {
        EXPECT_TRUE(vx_wait_for_text(
            trap_log_,
            ".1.3.6.1.6.3.1.1.4.1.0 = OID: ." + std::string(EXAMPLE) + ".0.1\t." + level +
                " = INTEGER: " + value + "\t.1.3.6.1.6.3.1.1.4.3.0 = OID: ." + EXAMPLE,
            10000))
            << value;
    }
}

TEST_F(AgentXMaster, TrapsBecomeNotifications) {
    ASSERT_TRUE(open_scripted());
    const std::string s = SCRIPTED;
    struct row {
        const char* name;
        int32_t generic;
        int32_t specific;
        const char* enterprise;
        uint8_t type;
        vx_bytes value;
        std::string shown;  // the notification as snmptrapd prints it
    };
    const std::string tail = "\t.1.3.6.1.6.3.1.1.4.3.0 = OID: .";
    const row rows[] = {
        {"linkDown", 2, 0, SCRIPTED, T_INTEGER32, be32(5),
         ".1.3.6.1.6.3.1.1.4.1.0 = OID: .1.3.6.1.6.3.1.1.5.3\t." + s + ".1.0 = INTEGER: 5" +
             tail + s},
        {"enterprise-specific", 6, 17, SCRIPTED, T_INTEGER32, be32(6),
         ".1.3.6.1.6.3.1.1.4.1.0 = OID: ." + s + ".0.17\t." + s + ".1.0 = INTEGER: 6" + tail + s},
        {"no enterprise: the daemon's identity, Counter64 carried", 6, 3, "", T_COUNTER64,
         {0, 0, 0, 1, 0, 0, 0, 2},
         ".1.3.6.1.6.3.1.1.4.1.0 = OID: .1.3.6.1.4.1.99999.1.0.3\t." + s +
             ".1.0 = Counter64: 4294967298" + tail + "1.3.6.1.4.1.99999.1"},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        ASSERT_TRUE(vx_send_all(scripted_.fd, dpi_trap(r.generic, r.specific, r.enterprise,
                                                       r.type, r.value)));
        EXPECT_TRUE(vx_wait_for_text(trap_log_, r.shown, 10000)) << vx_read_file(trap_log_);
    }
}

TEST_F(AgentXMaster, DroppedSubagentsAndARestartedMaster) {
    // A subagent that never answers is dropped after 8 s; the master, told to wait 10 s,
    // gets genErr, and the subtree is withdrawn.
    ASSERT_TRUE(open_scripted());
    int before = vx_count_in_file(trap_log_, ACCEPTED);
    auto start = std::chrono::steady_clock::now();
    tool_result got = run(args("snmpget", "-v2c", "public", {std::string(SCRIPTED) + ".1.0"}),
                          [](const vx_dpi_msg&) { return vx_bytes{}; });
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(7));
    EXPECT_NE(got.output.find("genErr"), std::string::npos) << got.output;
    EXPECT_TRUE(vx_wait_closed(scripted_.fd, 3000));
    close(scripted_.fd);
    scripted_.fd = -1;
    ASSERT_TRUE(accepted(before + 1));

    // One that dies in the middle of a walk: the walk goes on past its subtree.
    ASSERT_TRUE(open_scripted());
    int answered = 0;
    got = run(args("snmpwalk", "-v2c", "public", {SCRIPTED}), [&](const vx_dpi_msg& m) {
        if (++answered == 3) {
            close(scripted_.fd);
            scripted_.fd = -1;
            return vx_bytes{};
        }
        return scripted_objects(m);
    });
    EXPECT_EQ(got.status, 0) << got.output;
    EXPECT_EQ(vx_oids_in(got.output).size(), 2U) << got.output;
    ASSERT_TRUE(accepted(before + 3));  // its withdrawal
    expect_example_served();
    EXPECT_EQ(vx_count_in_file(daemon_.log_path, "Lost connection to agent"), 0);

    // The master restarted: everything is registered again within seconds.
    std::string why;
    before = vx_count_in_file(trap_log_, ACCEPTED);
    ASSERT_TRUE(vx_restart_snmpd(&snmpd_, &why)) << why;
    EXPECT_TRUE(vx_wait_for_text(daemon_.log_path, "ready to receive requests", 8000, 2));
    ASSERT_TRUE(accepted(before + 2));
    expect_example_served();
    EXPECT_EQ(vx_count_in_file(daemon_.log_path, "Lost connection to agent"), 1);

    // Stopping: the master hears the AgentX Close before the connection goes.
    ASSERT_TRUE(vx_signal(&daemon_, SIGTERM));
    ASSERT_TRUE(vx_wait_exit(&daemon_, 5000));
    EXPECT_TRUE(WIFEXITED(daemon_.status) && WEXITSTATUS(daemon_.status) == 0);
    EXPECT_TRUE(vx_wait_for_text(snmpd_.dir + "/snmpd.log", "okay\n", 3000));
    EXPECT_EQ(vx_count_in_file(snmpd_.dir + "/snmpd.log", "Broken pipe"), 0);
}

}  // namespace
