#pragma once
// Fake peers for the daemon's two sides, written straight from the wire formats so that a
// test does not lean on the codecs under test: a SMUX master agent (a TCP listener on the
// SMUX port that reads and writes BER-encoded SMUX PDUs) and a DPI 2.0 subagent (a TCP
// client that sends framed DPI packets and answers the daemon's requests).
//
// All reads are bounded by a time limit; a result of false/empty means time-out, end of
// stream or malformed bytes, and the test fails on it.
#include <cstdint>
#include <string>
#include <vector>

using vx_bytes = std::vector<uint8_t>;

// "0a 1b..." or "0a1b" to bytes (blanks ignored); for test vectors.
vx_bytes vx_hex(const char* text);
std::string vx_to_hex(const vx_bytes& bytes);

// ---- sockets ------------------------------------------------------------------------------

// Listening TCP socket on 127.0.0.1:`port` (0: the system chooses), -1 on failure.
[[nodiscard]] int vx_tcp_listen(int port);
// Port a bound socket has, -1 on failure.
[[nodiscard]] int vx_local_port(int fd);
// Accepted connection, -1 on time-out or failure.
[[nodiscard]] int vx_tcp_accept(int listen_fd, int timeout_ms);
// Connected TCP socket to 127.0.0.1:`port`, -1 on failure.
[[nodiscard]] int vx_tcp_connect(int port);
[[nodiscard]] bool vx_send_all(int fd, const vx_bytes& bytes);
// True when the peer closed the connection (end of stream or reset) within `timeout_ms`;
// bytes arriving meanwhile are read and dropped.
[[nodiscard]] bool vx_wait_closed(int fd, int timeout_ms);

// A byte stream with what has been read but not yet taken.
struct vx_stream {
    int fd = -1;
    vx_bytes pending;
    bool closed = false;  // the peer ended the stream (or it failed)
};

// ---- BER and SMUX -------------------------------------------------------------------------

vx_bytes vx_ber_tlv(uint8_t tag, const vx_bytes& contents);
vx_bytes vx_ber_int(uint8_t tag, int32_t value);
// OBJECT IDENTIFIER element from dotted text; empty bytes for bad text.
vx_bytes vx_ber_oid(const std::string& dotted);

// One SMUX PDU, as far as the tests look into it.
struct vx_smux_msg {
    uint8_t type = 0;
    std::string oid;          // Open identity, RReq subtree, Trap enterprise
    std::string description;  // Open
    std::string password;     // Open
    int32_t version = -1;     // Open
    int32_t priority = 0;     // RReq
    int32_t operation = -1;   // RReq
    int32_t code = 0;         // Close, RRsp, SOut
    int32_t request_id = 0;   // Get/GetNext/GetResponse/Set
    int32_t error_status = 0;
    int32_t error_index = 0;
    int32_t generic = -1;  // Trap
    int32_t specific = -1;
    std::vector<std::string> vb_names;
    std::vector<vx_bytes> vb_values;  // whole value elements (tag, length, contents)
};

// Decodes one whole PDU (lengths in short or long form); false for malformed bytes.
[[nodiscard]] bool vx_smux_parse(const vx_bytes& pdu, vx_smux_msg* out);

// Takes the next complete BER element (one SMUX PDU) from the stream, reading as needed.
[[nodiscard]] bool vx_smux_read(vx_stream* stream, vx_bytes* pdu, int timeout_ms);
// As vx_smux_read and parsed; Trap PDUs are skipped unless `keep_traps`.
[[nodiscard]] bool vx_smux_next(vx_stream* stream, vx_smux_msg* out, int timeout_ms,
                                bool keep_traps = false);

// RRsp as the real agent writes it: the code as a 4-byte integer.
vx_bytes vx_smux_rrsp(int32_t code);
// Get (0xA0), GetNext (0xA1) or Set (0xA3) with the request lengths in the long form, as the
// real agent writes them. `values` holds whole value elements; missing ones are NULL.
vx_bytes vx_smux_request(uint8_t type, int32_t request_id, const std::vector<std::string>& names,
                         const std::vector<vx_bytes>& values = {});

// INTEGER value of a value element, false when it is not an INTEGER.
[[nodiscard]] bool vx_ber_int_value(const vx_bytes& element, int32_t* out);

// ---- DPI ----------------------------------------------------------------------------------

// Framed DPI 2.0 packets (2-byte length first): any type with the body as given, and the
// usual ones.
vx_bytes vx_dpi_packet(uint16_t packet_id, uint8_t type, const vx_bytes& body);
vx_bytes vx_dpi_open(uint16_t packet_id, const std::string& identity,
                     const std::string& description);
vx_bytes vx_dpi_register(uint16_t packet_id, const std::string& group, int32_t priority = -1,
                         uint16_t timeout = 0);
vx_bytes vx_dpi_simple(uint16_t packet_id, uint8_t type);  // ARE_YOU_THERE and the like
// RESPONSE with no varBind, or with one varBind when `group` is not empty.
vx_bytes vx_dpi_response(uint16_t packet_id, uint8_t error_code, const std::string& group = "",
                         const std::string& instance = "", uint8_t value_type = 0,
                         const vx_bytes& value = {});

// One DPI packet the daemon sent, as far as the tests look into it.
struct vx_dpi_msg {
    uint16_t packet_id = 0;
    uint8_t type = 0;
    uint8_t error_code = 0;  // RESPONSE
    int32_t error_index = 0;
    std::string group;     // GET/GETNEXT/SET/COMMIT, first object
    std::string instance;  // likewise
    uint8_t value_type = 0;
    vx_bytes value;
};

// Next framed packet from the stream (the whole packet, length included), and parsed.
[[nodiscard]] bool vx_dpi_read(vx_stream* stream, vx_bytes* packet, int timeout_ms);
[[nodiscard]] bool vx_dpi_parse(const vx_bytes& packet, vx_dpi_msg* out);
[[nodiscard]] bool vx_dpi_next(vx_stream* stream, vx_dpi_msg* out, int timeout_ms);

// A subagent that connected to `port`, sent OPEN and got its RESPONSE: the stream, or fd -1.
[[nodiscard]] vx_stream vx_dpi_connect_open(int port, const std::string& identity);
// Sends REGISTER for `group` (with its trailing dot) and returns the RESPONSE's error code,
// -1 when none came.
[[nodiscard]] int vx_dpi_register_group(vx_stream* sa, const std::string& group,
                                        uint16_t packet_id);
