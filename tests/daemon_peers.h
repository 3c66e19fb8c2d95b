#pragma once
// The daemon's peers for its own tests, on top of the shared fake peers: a master agent on
// the SMUX port 127.0.0.1:199 whose reads tell the end of the stream from silence, a daemon
// started against it up to its first registration, and the checks the tests share.
#include <cstdint>
#include <string>
#include <vector>

#include "vx_peers.h"
#include "vx_testsupport.h"

using bytes = vx_bytes;

bytes cat(std::initializer_list<bytes> parts);

// ---- SMUX PDUs, written out by hand with minimal lengths ------------------------------------

bytes smux_open(const std::string& identity, const std::string& description,
                const std::string& password);
bytes smux_rreq(const std::string& subtree, int operation);  // priority -1
struct test_binding {
    std::string name;
    bytes value;  // a whole value element; empty for NULL
};
// Get/GetNext/GetResponse/Set with the given status, index and bindings.
bytes snmp_pdu_bytes(uint8_t tag, int request_id, int status, int index,
                     const std::vector<test_binding>& bindings);
bytes smux_trap(const std::string& enterprise, int generic, int specific);

inline constexpr const char* DPI_PORT_OBJECT = "1.3.6.1.4.1.2.2.1.1.1";
inline constexpr const char* DPI_PORT_INSTANCE = "1.3.6.1.4.1.2.2.1.1.1.0";

// ---- a daemon with its agent ----------------------------------------------------------------

enum peer_read { PEER_OK = 0, PEER_TIMEOUT = 1, PEER_EOF = 2 };

// Stops the daemon when it goes, fails the test on a sanitizer report in the daemon's log,
// and shows the log when the test failed.
struct daemon_session {
    int listen_fd = -1;  // the agent's SMUX port
    vx_stream agent;     // the daemon's present connection to it
    vx_process daemon;
    std::string banner;  // read from the daemon's start line
    int dpi_port = 0;    // read from its "DPI  fd: %d port: %d" trace
    bool auto_rrsp = true;  // agent_next answers every RReq it reads with RRsp 0, as snmpd
    ~daemon_session();
};

// Fails the test when the log holds a sanitizer report: the daemon reports into its own
// output, and the test would only see it go.
void expect_clean_log(const std::string& path);

[[nodiscard]] bool agent_listen(daemon_session* s);
void agent_stop_listening(daemon_session* s);
// Takes the next connection in place of the present one.
[[nodiscard]] bool agent_accept(daemon_session* s, int timeout_ms);
void agent_hang_up(daemon_session* s);
[[nodiscard]] bool agent_send(daemon_session* s, const bytes& b);
// One whole PDU from the daemon; agent_next passes Trap PDUs over and answers RReqs when
// `auto_rrsp` is set (the daemon sends no more RReqs while one is unanswered).
[[nodiscard]] peer_read agent_read(daemon_session* s, bytes* pdu, int timeout_ms);
[[nodiscard]] peer_read agent_next(daemon_session* s, bytes* pdu, int timeout_ms);

// Listens as the agent (unless already listening), starts the daemon with `args` ("-d 32"
// when they have no -d), and goes on as attach_session. Failures are reported through gtest
// and make it return false.
[[nodiscard]] bool start_session(daemon_session* s, std::vector<std::string> args,
                                 bool answer_port_rreq = true,
                                 const char* identity = VX_TEST_PEER_OID,
                                 const char* password = VX_TEST_PEER_PASSWORD,
                                 const char* argv0 = nullptr);
// Accepts the daemon's connection within `timeout_ms`, checks its OpenPDU and its
// registration of the DPI port object, and answers that with RRsp 0 when asked to.
[[nodiscard]] bool attach_session(daemon_session* s, int timeout_ms, bool answer_port_rreq,
                                  const char* identity = VX_TEST_PEER_OID,
                                  const char* password = VX_TEST_PEER_PASSWORD);
// After the session was lost: wakes the daemon with a connection to its DPI listener, so
// that it tries the agent again at once rather than at its next 5-second retry, then
// accepts the new connection and checks its OpenPDU.
[[nodiscard]] bool accept_reopen(daemon_session* s, const char* identity = VX_TEST_PEER_OID,
                                 const char* password = VX_TEST_PEER_PASSWORD);

std::string daemon_log(const daemon_session* s);

// The next PDU other than a Trap is `expected`; nothing comes; the daemon ends the stream.
void expect_next(daemon_session* s, const bytes& expected, int timeout_ms = 5000);
void expect_silence(daemon_session* s, int ms);
void expect_hang_up(daemon_session* s);

// ---- DPI subagents ---------------------------------------------------------------------------

// A subagent connected to the daemon's DPI port, fd -1 on failure.
vx_stream subagent(const daemon_session* s);
// Sends REGISTER for `group` (with its final dot) and expects RESPONSE 0 and, when
// `announced`, the agent to get the RReq.
void register_subagent(daemon_session* s, vx_stream* sa, const std::string& group, uint16_t id,
                       bool announced = true);
// The subagent is still served: an ARE_YOU_THERE gets its answer.
void expect_served(vx_stream* sa, uint16_t id);
// The next packet on the subagent's connection is exactly `expected`.
void expect_dpi(vx_stream* sa, const bytes& expected);

// Skips the test with the reason when the private namespaces cannot be had.
#define ENTER_NAMESPACE_OR_SKIP(peers_text)                         \
    do {                                                            \
        std::string why_not_;                                       \
        if (!vx_enter_private_namespace((peers_text), &why_not_)) { \
            GTEST_SKIP() << why_not_;                               \
        }                                                           \
    } while (0)
