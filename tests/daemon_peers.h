#pragma once
// The daemon's two kinds of peers, played by the test over real sockets: a master agent that
// listens on the SMUX port 127.0.0.1:199, and DPI subagents that connect to the daemon's DPI
// listener. Also builders for the bytes they exchange, written out by hand so that the tests
// do not lean on the codecs under test.
#include <cstdint>
#include <string>
#include <vector>

#include "vx_testsupport.h"

using bytes = std::vector<uint8_t>;

// "62 10 06 08 ..." to bytes; blanks are ignored.
bytes hex(const std::string& text);
std::string to_hex(const bytes& b);
bytes cat(std::initializer_list<bytes> parts);

// ---- BER and SMUX ---------------------------------------------------------------------------

bytes ber_len(size_t n);
bytes ber_tlv(uint8_t tag, const bytes& content);
bytes ber_int(uint8_t tag, int64_t value);  // minimal two's complement
bytes ber_oid(const std::string& dotted);
bytes ber_string(const std::string& text);

bytes smux_open(const std::string& identity, const std::string& description,
                const std::string& password);
bytes smux_rreq(const std::string& subtree, int operation);  // priority -1
bytes smux_rrsp(int code);
// An SNMP PDU of `tag` with the given bindings; a binding value of {} is NULL.
struct test_binding {
    std::string name;
    bytes value;
};
bytes snmp_pdu_bytes(uint8_t tag, int request_id, int status, int index,
                     const std::vector<test_binding>& bindings);
bytes smux_trap(const std::string& enterprise, int generic, int specific);

inline constexpr const char* DPI_PORT_OBJECT = "1.3.6.1.4.1.2.2.1.1.1";
inline constexpr const char* DPI_PORT_INSTANCE = "1.3.6.1.4.1.2.2.1.1.1.0";

// ---- the fake master agent ------------------------------------------------------------------

enum peer_read { PEER_OK = 0, PEER_TIMEOUT = 1, PEER_EOF = 2 };

struct fake_agent {
    int listen_fd = -1;
    int conn_fd = -1;
    int traps_seen = 0;  // Trap PDUs skipped by fake_agent_next
};

[[nodiscard]] bool fake_agent_listen(fake_agent* agent, std::string* why_not);
void fake_agent_stop_listening(fake_agent* agent);
[[nodiscard]] bool fake_agent_accept(fake_agent* agent, int timeout_ms);
void fake_agent_hang_up(fake_agent* agent);
[[nodiscard]] bool fake_agent_send(fake_agent* agent, const bytes& b);
// One whole BER element from the connection.
[[nodiscard]] peer_read fake_agent_read(fake_agent* agent, bytes* pdu, int timeout_ms);
// As fake_agent_read, but Trap PDUs are counted and passed over.
[[nodiscard]] peer_read fake_agent_next(fake_agent* agent, bytes* pdu, int timeout_ms);

// ---- DPI subagents --------------------------------------------------------------------------

[[nodiscard]] int dpi_connect(int port);
[[nodiscard]] bool dpi_send(int fd, const bytes& b);
// One framed packet, length field included.
[[nodiscard]] peer_read dpi_read(int fd, bytes* packet, int timeout_ms);
// True when the daemon closed the connection within the time.
[[nodiscard]] bool dpi_wait_closed(int fd, int timeout_ms);

// A version-2 packet: length, protocol 2, version 2, release 0, number, type, body.
bytes dpi_packet(uint16_t id, uint8_t type, const bytes& body);
bytes dpi_response(uint16_t id, uint8_t error_code);
bytes dpi_register(uint16_t id, const std::string& group_with_dot);
bytes dpi_are_you_there(uint16_t id);

// ---- a daemon with its agent ----------------------------------------------------------------

struct daemon_session {
    fake_agent agent;
    vx_process daemon;
    std::string banner;  // the daemon's banner, read from its start line
    int dpi_port = 0;    // from its "DPI  fd: %d port: %d" trace
};

// Listens as the agent, starts the daemon with `args` (a trace level that includes 32 is
// added when missing), accepts its connection and checks that it opens with `identity` and
// `password` and then registers the DPI port object; answers that registration with RRsp 0
// when `answer_port_rreq` is set. Failures are reported through gtest and make it return
// false.
[[nodiscard]] bool start_session(daemon_session* s, std::vector<std::string> args,
                                 bool answer_port_rreq = true,
                                 const char* identity = VX_TEST_PEER_OID,
                                 const char* password = VX_TEST_PEER_PASSWORD,
                                 const char* argv0 = nullptr);
// The part of start_session after the daemon was started; the agent must listen.
[[nodiscard]] bool attach_session(daemon_session* s, int timeout_ms, bool answer_port_rreq,
                                  const char* identity = VX_TEST_PEER_OID,
                                  const char* password = VX_TEST_PEER_PASSWORD);

// After the agent connection was lost: accepts the new one (within `timeout_ms`) and checks
// the OpenPDU.
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
