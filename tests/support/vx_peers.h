#pragma once
// Peers played by tests: TCP on 127.0.0.1, a stream that hands out whole frames, and a DPI
// subagent. Reads have time limits; false means time-out, end of stream or bad bytes.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

using vx_bytes = std::vector<uint8_t>;
struct snmp_container;

// Dotted text of an OID container ("?" for none).
std::string vx_oid_text(const snmp_container* c);

// "0a 1b" or "0a1b" to bytes (blanks ignored), and back ("0a 1b").
vx_bytes vx_hex(const char* text);
std::string vx_to_hex(const vx_bytes& bytes);

// Sockets on 127.0.0.1; port 0 lets the system choose. -1 on failure or time-out.
[[nodiscard]] int vx_tcp_listen(int port);
[[nodiscard]] int vx_local_port(int fd);
[[nodiscard]] int vx_tcp_accept(int listen_fd, int timeout_ms);
[[nodiscard]] int vx_tcp_connect(int port);
[[nodiscard]] bool vx_send_all(int fd, const vx_bytes& bytes);
// True when the peer ended the stream within `timeout_ms`; bytes meanwhile are dropped.
[[nodiscard]] bool vx_wait_closed(int fd, int timeout_ms);

// A byte stream with what has been read but not yet taken.
struct vx_stream {
    int fd = -1;
    vx_bytes pending;
    bool closed = false;  // the peer ended the stream (or it failed)
};
// Takes the first `whole(pending)` bytes once they are there (`whole` gives 0: not known yet).
[[nodiscard]] bool vx_stream_take(vx_stream* s, vx_bytes* out, int timeout_ms,
                                  size_t (*whole)(const vx_bytes&));

// One BER element, length in its shortest form.
vx_bytes vx_ber_tlv(uint8_t tag, const vx_bytes& contents);

// ---- DPI ----------------------------------------------------------------------------------

// A framed packet (length field first) of any type with the body as given.
vx_bytes vx_dpi_packet(uint16_t packet_id, uint8_t type, const vx_bytes& body);
// RESPONSE with no varBind, or with one when `group` is not empty.
vx_bytes vx_dpi_response(uint16_t packet_id, uint8_t error_code, const std::string& group = "",
                         const std::string& instance = "", uint8_t value_type = 0,
                         const vx_bytes& value = {});

// One packet the daemon sent, parsed by the DPI library (values in its memory form).
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
[[nodiscard]] bool vx_dpi_next(vx_stream* stream, vx_dpi_msg* out, int timeout_ms);

// A subagent connected to `port` that sent OPEN and got its RESPONSE, or fd -1.
[[nodiscard]] vx_stream vx_dpi_connect_open(int port, const std::string& identity);
// REGISTER of `group` (with its final dot): the RESPONSE's error code, -1 when none came.
[[nodiscard]] int vx_dpi_register_group(vx_stream* sa, const std::string& group,
                                        uint16_t packet_id);

// Runs a net-snmp tool (at most 60 s) while playing the DPI subagent on `sa`: `answer` gets
// each packet the daemon sends and gives the reply (empty: none). The tool's output, and its
// exit status in `status` (-1 when it did not end by itself).
std::string vx_serve_tool(const std::vector<std::string>& argv, vx_stream* sa,
                          const std::function<vx_bytes(const vx_dpi_msg&)>& answer, int* status);
