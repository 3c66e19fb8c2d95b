#pragma once
// The daemon's two kinds of peers for the main module's tests, on top of the shared fake
// peers: a master agent on the SMUX port 127.0.0.1:199 whose reads tell the end of the
// stream from silence, and a daemon started against it up to its first registration.
#include <cstdint>
#include <string>
#include <vector>

#include "vx_peers.h"
#include "vx_testsupport.h"

using bytes = vx_bytes;

bytes cat(std::initializer_list<bytes> parts);

// ---- SMUX PDUs, written out by hand ---------------------------------------------------------

bytes smux_open(const std::string& identity, const std::string& description,
                const std::string& password);
bytes smux_rreq(const std::string& subtree, int operation);  // priority -1
bytes smux_rrsp(int code);                                   // minimal length
struct test_binding {
    std::string name;
    bytes value;  // a whole value element; empty for NULL
};
// Get/GetNext/GetResponse/Set with the given status, index and bindings, short lengths.
bytes snmp_pdu_bytes(uint8_t tag, int request_id, int status, int index,
                     const std::vector<test_binding>& bindings);
bytes smux_trap(const std::string& enterprise, int generic, int specific);

inline constexpr const char* DPI_PORT_OBJECT = "1.3.6.1.4.1.2.2.1.1.1";
inline constexpr const char* DPI_PORT_INSTANCE = "1.3.6.1.4.1.2.2.1.1.1.0";

// ---- the master agent -----------------------------------------------------------------------

enum peer_read { PEER_OK = 0, PEER_TIMEOUT = 1, PEER_EOF = 2 };

struct fake_agent {
    int listen_fd = -1;
    int conn_fd = -1;
    int traps_seen = 0;  // Trap PDUs passed over by fake_agent_next
};

[[nodiscard]] bool fake_agent_listen(fake_agent* agent);
void fake_agent_stop_listening(fake_agent* agent);
// Takes the next connection in place of the present one.
[[nodiscard]] bool fake_agent_accept(fake_agent* agent, int timeout_ms);
void fake_agent_hang_up(fake_agent* agent);
[[nodiscard]] bool fake_agent_send(fake_agent* agent, const bytes& b);
// One whole BER element from the connection, nothing more.
[[nodiscard]] peer_read fake_agent_read(fake_agent* agent, bytes* pdu, int timeout_ms);
// As fake_agent_read, but Trap PDUs are counted and passed over.
[[nodiscard]] peer_read fake_agent_next(fake_agent* agent, bytes* pdu, int timeout_ms);

// ---- DPI subagents --------------------------------------------------------------------------

// One framed packet, length field included.
[[nodiscard]] peer_read dpi_read(int fd, bytes* packet, int timeout_ms);
// A version-2 packet of any type: length, protocol 2, version 2, release 0, number, type.
bytes dpi_packet(uint16_t id, uint8_t type, const bytes& body);

// ---- a daemon with its agent ----------------------------------------------------------------

// Stops the daemon when it goes, fails the test on a sanitizer report in the daemon's log,
// and shows the log when the test failed.
struct daemon_session {
    fake_agent agent;
    vx_process daemon;
    std::string banner;  // read from the daemon's start line
    int dpi_port = 0;    // read from its "DPI  fd: %d port: %d" trace
    ~daemon_session();
};

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
// Accepts a new connection after the last one was lost and checks its OpenPDU.
[[nodiscard]] bool accept_reopen(daemon_session* s, int timeout_ms, const char* identity,
                                 const char* password);

std::string daemon_log(const daemon_session* s);

// Skips the test with the reason when the private namespaces cannot be had.
#define ENTER_NAMESPACE_OR_SKIP(peers_text)                             \
    do {                                                                \
        std::string why_not_;                                           \
        if (!vx_enter_private_namespace((peers_text), &why_not_)) {     \
            GTEST_SKIP() << why_not_;                                   \
        }                                                               \
    } while (0)
