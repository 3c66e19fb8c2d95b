// Sockets, descriptor bookkeeping and framing for the daemon's connections.
#include "conn.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "trace.h"

int smux_fd = -1;
int dpi_fd = -1;
int dpi_port = 0;
fd_set selectfds;
fd_set readyfds;
int nfds = 0;
int sa_fds[MAX_SUBAGENTS] = {-1, -1, -1, -1, -1};
uint32_t dpi_listen_address = htonl(INADDR_ANY);
vx_conn agent_in = {.fd = -1, .len = 0, .last_byte_ns = 0, .recv_timeout_ns = 0, .buf = {}};

namespace {
constexpr int SMUX_PORT = 199;
constexpr int64_t NS_PER_S = 1000000000;
// A receive time-out is set again only when the time left is shorter than the one set by
// more than this, so the usual wait for an answer costs no extra system call.
constexpr int64_t TIMEOUT_SLACK_NS = 100000000;
constexpr int LISTEN_BACKLOG = 5;
// One input buffer per slot; slot i belongs to sa_fds[i].
vx_conn sa_conns[MAX_SUBAGENTS];
}  // namespace

int64_t vx_now_ns(void) {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// ---- descriptors and slots ----

void watch_fd(int fd) {
    FD_SET(fd, &selectfds);
    if (fd > nfds) {
        nfds = fd;
    }
}

void forget_fd(int fd) {
    FD_CLR(fd, &selectfds);
    FD_CLR(fd, &readyfds);
    close(fd);
}

void del_sa_fd(int fd) {
    for (int i = 0; i < MAX_SUBAGENTS; i++) {
        if (sa_fds[i] == fd) {
            sa_fds[i] = -1;
            sa_conns[i].fd = -1;
            sa_conns[i].len = 0;
            forget_fd(fd);
            return;
        }
    }
    VX_TRACE(TRACE_LVL2, "Subagent fd not found\n");
}

static void set_recv_timeout(vx_conn* c, int64_t ns) {
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(ns / NS_PER_S);
    tv.tv_usec = static_cast<suseconds_t>((ns % NS_PER_S) / 1000);
    if (tv.tv_sec == 0 && tv.tv_usec == 0) {
        tv.tv_usec = 1;  // zero would mean no time-out at all
    }
    if (setsockopt(c->fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0) {
        c->recv_timeout_ns = ns;
    }
}

int add_sa_fd(int fd) {
    for (int i = 0; i < MAX_SUBAGENTS; i++) {
        if (sa_fds[i] == -1) {
            sa_fds[i] = fd;
            sa_conns[i].fd = fd;
            sa_conns[i].len = 0;
            sa_conns[i].last_byte_ns = vx_now_ns();
            sa_conns[i].recv_timeout_ns = 0;
            watch_fd(fd);
            conn_no_delay(fd);
            set_recv_timeout(&sa_conns[i], DPI_WAIT_SECONDS * NS_PER_S);
            return 0;
        }
    }
    return -1;
}

vx_conn* subagent_conn(int fd) {
    for (int i = 0; i < MAX_SUBAGENTS; i++) {
        if (fd >= 0 && sa_fds[i] == fd) {
            return &sa_conns[i];
        }
    }
    return nullptr;
}

// ---- sockets ----

void conn_no_delay(int fd) {
    int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// A select() set cannot hold descriptors past FD_SETSIZE; such a socket is refused at once.
static int new_socket(const char* label) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        perror(label);
        return -1;
    }
    if (fd >= FD_SETSIZE) {
        fprintf(stderr, "%s: descriptor %d beyond the select set\n", label, fd);
        close(fd);
        return -1;
    }
    return fd;
}

int DPI_port(void) {
    int fd = new_socket("DPI_port::socket");
    if (fd < 0) {
        return -1;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = dpi_listen_address;
    addr.sin_port = 0;  // the system picks a free port; subagents learn it from the agent
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
        perror("DPI_port::bind");
        close(fd);
        return -1;
    }
    (void)listen(fd, LISTEN_BACKLOG);
    socklen_t len = sizeof addr;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) < 0) {
        perror("DPI_port:getsockname");
        close(fd);
        return -1;
    }
    dpi_port = ntohs(addr.sin_port);
    return fd;
}

int SMUXconnect(void) {
    int fd = new_socket("SMUXconnect::socket");
    if (fd < 0) {
        return -1;
    }
    // The agent always runs on this host at the SMUX port; neither is configurable.
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(SMUX_PORT);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
        perror("SMUXconnect::connect");
        close(fd);
        return -1;
    }
    conn_no_delay(fd);
    return fd;
}

// ---- input ----

int conn_recv(vx_conn* c) {
    if (c->len >= sizeof c->buf) {
        return -2;
    }
    for (;;) {
        ssize_t r = recv(c->fd, c->buf + c->len, sizeof c->buf - c->len, MSG_DONTWAIT);
        if (r > 0) {
            c->len += static_cast<uint32_t>(r);
            c->last_byte_ns = vx_now_ns();
            return static_cast<int>(r);
        }
        if (r == 0) {
            return 0;
        }
        if (errno == EINTR) {
            continue;
        }
        return errno == EAGAIN || errno == EWOULDBLOCK ? -2 : -1;
    }
}

void conn_consume(vx_conn* c, uint32_t n) {
    if (n >= c->len) {
        c->len = 0;
        return;
    }
    c->len -= n;
    memmove(c->buf, c->buf + n, c->len);
}

int conn_dpi_frame(const vx_conn* c, uint32_t* total) {
    if (c->len < 2) {
        return FRAME_PARTIAL;
    }
    uint32_t size = 2u + (static_cast<uint32_t>(c->buf[0]) << 8 | c->buf[1]);
    if (size > DPI_MAX_PACKET) {
        return FRAME_TOO_LARGE;
    }
    if (size > c->len) {
        return FRAME_PARTIAL;
    }
    *total = size;
    return FRAME_WHOLE;
}

int conn_smux_frame(const vx_conn* c, uint32_t* total) {
    const uint8_t* data = c->buf;
    uint32_t have = c->len;
    if (have < 2) {
        return FRAME_PARTIAL;
    }
    if ((data[0] & 0x1f) == 0x1f) {
        return FRAME_MALFORMED;  // SMUX tags are one octet
    }
    uint64_t size = 0;
    if (data[1] < 0x80) {
        size = 2u + data[1];
    } else {
        // The agent writes request lengths in the long form, so non-minimal lengths are fine.
        uint32_t octets = data[1] & 0x7fu;
        if (octets == 0 || octets > 4) {
            return FRAME_MALFORMED;
        }
        if (have < 2 + octets) {
            return FRAME_PARTIAL;
        }
        uint64_t len = 0;
        for (uint32_t i = 0; i < octets; i++) {
            len = (len << 8) | data[2 + i];
        }
        size = 2u + octets + len;
    }
    if (size > sizeof c->buf) {
        return FRAME_TOO_LARGE;
    }
    if (size > have) {
        return FRAME_PARTIAL;
    }
    *total = static_cast<uint32_t>(size);
    return FRAME_WHOLE;
}

void conn_trace_dpi_failure(const vx_conn* c, conn_failure why) {
    if (why == CONN_TOO_LARGE) {
        VX_TRACE(TRACE_LVL1, "DPI packet too large, skipping");
    } else if (c->len >= 2) {
        VX_TRACE(TRACE_LVL1, "could not read DPI request body");
    } else if (why == CONN_END) {
        VX_TRACE(TRACE_LVL1, "EOF received (fd=%d)", c->fd);
    } else {
        VX_TRACE(TRACE_LVL1, "could not read DPI request length (fd=%d)", c->fd);
    }
}

int conn_await_dpi(vx_conn* c, int64_t deadline_ns, uint32_t* total) {
    // A blocking receive with the socket's time-out waits and reads in one system call.
    for (;;) {
        int framed = conn_dpi_frame(c, total);
        if (framed == FRAME_WHOLE) {
            return 0;
        }
        if (framed == FRAME_TOO_LARGE) {
            conn_trace_dpi_failure(c, CONN_TOO_LARGE);
            return -1;
        }
        int64_t left_ns = deadline_ns - vx_now_ns();
        if (left_ns <= 0) {
            conn_trace_dpi_failure(c, CONN_END);
            return -1;
        }
        if (left_ns < c->recv_timeout_ns - TIMEOUT_SLACK_NS ||
            left_ns > c->recv_timeout_ns + TIMEOUT_SLACK_NS) {
            set_recv_timeout(c, left_ns);
        }
        ssize_t r = recv(c->fd, c->buf + c->len, sizeof c->buf - c->len, 0);
        if (r > 0) {
            c->len += static_cast<uint32_t>(r);
            c->last_byte_ns = vx_now_ns();
        } else if (r == 0) {
            conn_trace_dpi_failure(c, CONN_END);
            return -1;
        } else if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
            conn_trace_dpi_failure(c, CONN_ERROR);
            return -1;
        }
    }
}

// ---- output ----

void conn_send_last(int fd, const unsigned char* bytes, int len, const char* label) {
    if (tracing & TRACE_LVL3) {
        log_bfr(bytes, len, label);
    }
    if (send(fd, bytes, static_cast<size_t>(len), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
        perror("daemon_shutdown::send");
    }
}

void conn_drain(int fd) {
    shutdown(fd, SHUT_WR);
    unsigned char sink[512];
    while (recv(fd, sink, sizeof sink, MSG_DONTWAIT) > 0) {
    }
}

int DPIsend(int fd, const unsigned char* packet) {
    static const unsigned char nothing[1] = {0};
    int len = 0;
    if (packet != nullptr) {
        len = 2 + packet[0] * 256 + packet[1];
    } else {
        packet = nothing;
    }
    if (tracing & TRACE_LVL3) {
        log_bfr(packet, len, "Outgoing DPI packet");
    }
    ssize_t written = write(fd, packet, static_cast<size_t>(len));
    if (written < 0) {
        perror("DPIwrite::write");
        return static_cast<int>(written);
    }
    if (written < len) {
        VX_SAY("Only %d of %d written on fd %d\n", static_cast<int>(written), len, fd);
        return -1;
    }
    return 0;
}
