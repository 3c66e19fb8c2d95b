#pragma once
// The daemon's connections: the agent connection (SMUX over TCP, or AgentX over a Unix or
// TCP socket), the DPI listener and the subagent slots, the descriptor set the loop waits
// on, and the framing of SMUX PDUs, AgentX PDUs and DPI packets in each connection's input
// buffer. Nothing here knows what a PDU or packet means.
//
// Every connection is read with one receive per readiness into its own buffer, without
// blocking (MSG_DONTWAIT): readiness seen earlier in a pass may be stale, because a forwarded
// request reads from the subagent it waits on. Whole frames are then cut from the buffer.
// Writes stay blocking and go out in one call each, with Nagle's delay off.
#include <signal.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

inline constexpr int MAX_SUBAGENTS = 5;
inline constexpr unsigned DPI_MAX_PACKET = 4096;  // on the wire, length field included
inline constexpr unsigned SMUX_MAX_PDU = 4096;
// An AgentX master passes on SNMP requests of up to 64 KiB whole; their PDUs must fit.
inline constexpr unsigned CONN_BUF_SIZE = 72 * 1024;
inline constexpr int DPI_WAIT_SECONDS = 8;

// The agent connection, whichever protocol it speaks.
extern int smux_fd;
extern int dpi_fd;
extern int dpi_port;
extern int sa_fds[MAX_SUBAGENTS];
// IPv4 address the DPI listener binds to, in network order; INADDR_ANY unless configured.
extern uint32_t dpi_listen_address;

struct vx_conn {
    int fd;
    uint32_t len;             // bytes in `buf`, from its start
    int64_t last_byte_ns;     // when the last byte arrived; for a partial frame's time limit
    int64_t recv_timeout_ns;  // the socket's receive time-out, for conn_await_dpi
    uint64_t serial;  // new for every subagent a slot takes: tells a reused descriptor apart
    uint8_t buf[CONN_BUF_SIZE];
};

// The agent connection's input. Its `fd` mirrors `smux_fd`.
extern vx_conn agent_in;

// Where the AgentX master listens, when the daemon speaks AgentX (VARNEX2_AGENTX set).
struct agentx_address {
    int set;  // 0: the daemon speaks SMUX
    socklen_t len;
    sockaddr_storage addr;  // AF_UNIX or AF_INET/AF_INET6
};
extern agentx_address agentx_master;

// Monotonic clock in nanoseconds.
[[nodiscard]] int64_t vx_now_ns(void);

// ---- descriptors and slots ----

// Descriptors reported ready in the present pass of the loop; a descriptor closed during
// the pass is taken out, so a new connection given the same number is not taken for it.
extern fd_set readyfds;
// Starts watching `fd` for input (false when the kernel refused).
bool watch_fd(int fd);
// Stops watching and closes `fd`.
void forget_fd(int fd);
// Waits until a watched descriptor is readable (or has failed), `limit` has passed (null:
// no limit) or a signal outside `mask` came, with `mask` as the signal mask meanwhile.
// The readable ones are put into `readyfds`. Returns their count, or -1 with errno set.
[[nodiscard]] int conn_wait(const timespec* limit, const sigset_t* mask);
// Frees the slot of subagent `fd` and closes it; level-2 trace when no slot holds it.
void del_sa_fd(int fd);
// Puts `fd` into the first free slot, with Nagle's delay off and a receive time-out of
// DPI_WAIT_SECONDS: 0, or -1 when all are taken (nothing done).
[[nodiscard]] int add_sa_fd(int fd);
// Input buffer of the subagent in slot `fd`, null when no slot holds it.
[[nodiscard]] vx_conn* subagent_conn(int fd);

// ---- sockets ----

// Listening socket for subagents on a port the system picks (stored in `dpi_port`), or -1.
[[nodiscard]] int DPI_port(void);
// Connected socket to the agent's SMUX port on this host, or -1.
[[nodiscard]] int SMUXconnect(void);
// Takes the master's AgentX address written as net-snmp's agentXSocket does: a path of a
// Unix-domain socket (absolute, or after "unix:"), or tcp:HOST:PORT (HOST a name, an IPv4
// address or an IPv6 one in brackets). 0, or -1 with the reason in `why`.
[[nodiscard]] int conn_set_agentx_address(const char* text, char* why, size_t why_size);
// Connected socket to the AgentX master at `agentx_master`, or -1.
[[nodiscard]] int AgentXconnect(void);
// Small PDUs must leave at once rather than wait for the peer's acknowledgement.
void conn_no_delay(int fd);

// ---- input ----

// One receive into the free end of the buffer. The number of bytes read (> 0), 0 at the end
// of the stream, -1 on an error (errno kept), -2 when nothing is there now or the buffer is
// full.
[[nodiscard]] int conn_recv(vx_conn* c);
// Drops the first `n` bytes of the buffer.
void conn_consume(vx_conn* c, uint32_t n);

// Framing results.
enum : int {
    FRAME_WHOLE = 1,       // a whole frame of `*total` bytes starts the buffer
    FRAME_PARTIAL = 0,     // more bytes are needed
    FRAME_TOO_LARGE = -1,  // the frame cannot fit the buffer
    FRAME_MALFORMED = -2,  // the bytes cannot start a frame
};
// A DPI packet: 2-byte big-endian length, then that many bytes; at most DPI_MAX_PACKET.
[[nodiscard]] int conn_dpi_frame(const vx_conn* c, uint32_t* total);
// A SMUX PDU: one BER element with a one-octet tag and a definite length of up to 4 octets;
// at most SMUX_MAX_PDU.
[[nodiscard]] int conn_smux_frame(const vx_conn* c, uint32_t* total);
// An AgentX PDU: the 20-byte header and the payload it announces; at most CONN_BUF_SIZE.
[[nodiscard]] int conn_agentx_frame(const vx_conn* c, uint32_t* total);

// Why a subagent connection failed, for its trace.
enum conn_failure : int { CONN_END, CONN_ERROR, CONN_TOO_LARGE };
// The trace line for subagent connection `c` failing for `why`; whether it failed in the
// length field or the body shows from what its buffer holds.
void conn_trace_dpi_failure(const vx_conn* c, conn_failure why);

// Waits until a whole DPI packet starts the buffer of subagent connection `c`, reading as
// bytes come, until `deadline_ns`. 0 with `*total` set; otherwise -1 after the trace that
// says why (end of stream, read error, time-out, too large); the caller drops the subagent.
[[nodiscard]] int conn_await_dpi(vx_conn* c, int64_t deadline_ns, uint32_t* total);

// ---- output ----

// The last bytes on a connection that is about to close: one send that neither blocks nor
// raises SIGPIPE, so a peer that does not read cannot hold up the end. Then drain: input
// left unread would turn the close into a reset, which may destroy those bytes before the
// peer has read them.
void conn_send_last(int fd, const unsigned char* bytes, int len, const char* label);
void conn_drain(int fd);

// `packet` is a serialised DPI packet with its 2-byte length in front; null writes nothing.
// 0 when all was written, the write's negative result, or -1 for a short write.
[[nodiscard]] int DPIsend(int fd, const unsigned char* packet);
