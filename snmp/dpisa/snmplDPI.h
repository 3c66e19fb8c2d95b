#pragma once
// The subagent side of a DPI 2.0 connection: connect to the agent, send and await packets.
//
// A connection is named by a small handle (0, 1 or 2): the library keeps three socket slots,
// and the port query (snmpqDPI.h) holds one of them while it runs. Packets travel as
// serialised by the packet library: a 2-byte big-endian length counting the bytes after it,
// then the packet. A received packet lands in one static 4096-byte buffer and stays valid
// only until the next await or port query. Single-threaded: one caller at a time.
//
// No call prints anything; every outcome is in the result. This header compiles as C11
// and as C++.

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__cplusplus) && __cplusplus >= 201703L
#define DPIL_NODISCARD [[nodiscard]]
#else
#define DPIL_NODISCARD
#endif

// Results of the connection and query calls.
enum dpi_rc {
    DPI_RC_OK = 0,
    DPI_RC_NOK = -1,             // query failed; handle is not a TCP connection
    DPI_RC_NO_PORT = -2,         // the agent's DPI port could not be learned
    DPI_RC_EOF = -4,             // the agent closed the connection in mid-packet
    DPI_RC_IO_ERROR = -5,        // wait, read, connect or send failed
    DPI_RC_INVALID_HANDLE = -6,  // not 0..2, a free slot, or not a TCP connection
    DPI_RC_TIMEOUT = -7,
    DPI_RC_PACKET_TOO_LARGE = -8,   // longer than the receive buffer; read and dropped
    DPI_RC_NOT_SUPPORTED = -9,      // transport not offered, or the agent reported port 0
    DPI_RC_INVALID_ARGUMENT = -10,  // nothing to send
};

enum dpi_connection_limits {
    DPI_MAX_CONNECTIONS = 3,    // socket slots, the port query's included
    DPI_RECEIVE_BUFFER = 4096,  // packets with a length field above 4094 are dropped
    DPI_WAIT_FOREVER = -1,      // DPIawait_packet_from_agent time-out without limit
};

// ---- create ----

// Learns the agent's DPI port by an SNMP Get to `hostname_p` (name or dotted IPv4 address)
// with community `community_p` (see qDPIport), then connects to it by TCP. Returns the
// handle (0..2, the lowest free slot), DPI_RC_NO_PORT when the query got no usable answer
// (also when all slots are taken), DPI_RC_NOT_SUPPORTED when the agent answered port 0, or
// DPI_RC_IO_ERROR when the connection could not be made. An unanswered query costs 18 s.
DPIL_NODISCARD int DPIconnect_to_agent_TCP(const char* hostname_p, const char* community_p);
// Transports this library does not offer: always DPI_RC_NOT_SUPPORTED.
DPIL_NODISCARD int DPIconnect_to_agent_UDP(const char* hostname_p, const char* community_p);
DPIL_NODISCARD int DPIconnect_to_agent_UNIXstream(const char* hostname_p, const char* community_p);
DPIL_NODISCARD int DPIconnect_to_agent_NMQ(const char* hostname_p, const char* community_p);
DPIL_NODISCARD int DPIconnect_to_agent_SHM(const char* hostname_p, const char* community_p);

// ---- query ----

// The socket of a TCP handle, for the caller's own select loop; -1 once the connection was
// lost; DPI_RC_INVALID_HANDLE for a handle outside 0..2 or one that is not a TCP connection.
DPIL_NODISCARD int DPIget_fd_for_handle(int handle);

// IPv4 address of `hostname_p` in network byte order, or 0 when none is found. A text of
// digits and dots that starts with a digit is taken as a dotted address without asking the
// name service; anything else, or an address that does not convert, is looked up by name.
DPIL_NODISCARD uint32_t lookup_host(const char* hostname_p);

// ---- input and output ----

// Waits at most `timeout` seconds (0 polls, negative waits without limit) for one packet.
// On DPI_RC_OK, *message_pp points at the packet, length field first, inside the static
// receive buffer, and *length_p holds the value of the length field (bytes after it). An
// empty packet (length field 0) returns DPI_RC_OK with *message_pp null. Otherwise both outs
// are null/0 and the result is DPI_RC_INVALID_HANDLE, DPI_RC_NOK (not a TCP handle),
// DPI_RC_TIMEOUT, DPI_RC_IO_ERROR, DPI_RC_EOF or DPI_RC_PACKET_TOO_LARGE (the packet was
// consumed; the next one is read from its start). Once the first byte has arrived, each
// wait for more is limited to 3 s; such a time-out leaves the connection open but out of
// step. If the agent closes, or a read fails, the connection is closed and the handle freed:
// a close inside the length field gives DPI_RC_IO_ERROR, one inside the body DPI_RC_EOF.
DPIL_NODISCARD int DPIawait_packet_from_agent(int handle, int timeout, unsigned char** message_pp,
                                              unsigned long* length_p);

// Sends `length` bytes of a serialised packet (already starting with its length field)
// with one send. DPI_RC_OK when all went out; DPI_RC_IO_ERROR on a failed or short send
// (not continued); DPI_RC_INVALID_HANDLE, DPI_RC_INVALID_ARGUMENT (null or empty packet),
// DPI_RC_NOK (not a TCP handle). A closed peer gives an error, never a broken-pipe signal.
DPIL_NODISCARD int DPIsend_packet_to_agent(int handle, const unsigned char* message_p,
                                           unsigned long length);

// ---- release ----

// Closes the connection of a TCP handle and frees its slot; anything else is ignored.
void DPIdisconnect_from_agent(int handle);

#ifdef DPISA_INTERNAL
// Shared between the connection and query modules of the library only; subagent programs
// never see these. The query holds a datagram slot of the same table as the connections,
// which is why a fourth connection attempt finds no room for its query.
#if defined(__GNUC__)
#define DPIL_HIDDEN __attribute__((visibility("hidden")))
#else
#define DPIL_HIDDEN
#endif
enum dpi_socket_kind {
    DPI_SOCKET_DATAGRAM = 1,
    DPI_SOCKET_STREAM = 2,
};
struct sockaddr_in;
// Opens a socket of `kind` towards host:port in the lowest free slot (a stream is
// connected, a datagram is not); returns the handle or -1, leaving nothing open.
DPIL_HIDDEN int setup_socket(int kind, const char* host_p, unsigned long port);
// Descriptor and peer of an open slot, or -1 / null.
DPIL_HIDDEN int dpi_slot_fd(int handle);
DPIL_HIDDEN const struct sockaddr_in* dpi_slot_peer(int handle);
// Closes the slot's socket and marks it free; its type is kept.
DPIL_HIDDEN void dpi_slot_release(int handle);
// The receive buffer shared by awaited packets and query answers.
DPIL_HIDDEN extern unsigned char dpi_buffer[DPI_RECEIVE_BUFFER];
DPIL_HIDDEN extern int32_t dpi_buflen;
#endif

#ifdef __cplusplus
}
#endif
