// Sockets, descriptor bookkeeping and framing for the daemon's connections.
#include "conn.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "agentx_ed.h"
#include "trace.h"

int smux_fd = -1;
int dpi_fd = -1;
int dpi_port = 0;
fd_set readyfds;
int sa_fds[MAX_SUBAGENTS] = {-1, -1, -1, -1, -1};
uint32_t dpi_listen_address = htonl(INADDR_ANY);
vx_conn agent_in = {
    .fd = -1, .len = 0, .last_byte_ns = 0, .recv_timeout_ns = 0, .serial = 0, .buf = {}};
agentx_address agentx_master = {.set = 0, .len = 0, .addr = {}};

namespace {
constexpr int SMUX_PORT = 199;
constexpr int64_t NS_PER_S = 1000000000;
// A receive time-out is set again only when the time left is shorter than the one set by
// more than this, so the usual wait for an answer costs no extra system call.
constexpr int64_t TIMEOUT_SLACK_NS = 100000000;
constexpr int LISTEN_BACKLOG = 5;
// One input buffer per slot; slot i belongs to sa_fds[i].
vx_conn sa_conns[MAX_SUBAGENTS];
uint64_t last_serial = 0;
}  // namespace

int64_t vx_now_ns(void) {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// ---- descriptors and slots ----

// The loop waits with epoll: the watched set lives in the kernel, so a wait costs the
// same however many subagents there are and no set is copied or scanned per request.
// Level-triggered, like a select set: a descriptor stays ready until its input is read.
namespace {
int epoll_fd = -1;

bool have_epoll(void) {
    if (epoll_fd < 0) {
        epoll_fd = epoll_create1(EPOLL_CLOEXEC);
        if (epoll_fd < 0) {
            perror("epoll_create1");
        }
    }
    return epoll_fd >= 0;
}
}  // namespace

bool watch_fd(int fd) {
    if (!have_epoll()) {
        return false;
    }
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    // The listener outlives an agent session and is watched again by the next one.
    if (epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &ev) != 0 && errno != EEXIST) {
        perror("epoll_ctl");
        return false;
    }
    return true;
}

void forget_fd(int fd) {
    if (epoll_fd >= 0) {
        (void)epoll_ctl(epoll_fd, EPOLL_CTL_DEL, fd, nullptr);
    }
    FD_CLR(fd, &readyfds);
    close(fd);
}

int conn_wait(const timespec* limit, const sigset_t* mask) {
    FD_ZERO(&readyfds);
    if (!have_epoll()) {
        return -1;
    }
    // epoll counts in milliseconds: a limit is rounded up, so a wait never ends just before
    // its deadline and the loop never spins on waits of 0 until it comes.
    int timeout_ms = -1;
    if (limit != nullptr) {
        int64_t ms = (static_cast<int64_t>(limit->tv_sec) * NS_PER_S + limit->tv_nsec + 999999) /
                     1000000;
        timeout_ms = ms > 86400000 ? 86400000 : static_cast<int>(ms);
    }
    epoll_event events[MAX_SUBAGENTS + 2];
    int n = epoll_pwait(epoll_fd, events, MAX_SUBAGENTS + 2, timeout_ms, mask);
    for (int i = 0; i < n; i++) {
        // A failed or hung-up socket counts as readable, as in a select set: its read says why.
        int fd = events[i].data.fd;
        if (fd >= 0 && fd < FD_SETSIZE) {
            FD_SET(fd, &readyfds);
        }
    }
    return n;
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
            sa_conns[i].serial = ++last_serial;
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
static int new_socket(const char* label, int family = AF_INET) {
    int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
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

static int say_why(char* why, size_t why_size, const char* text) {
    snprintf(why, why_size, "%s", text);
    return -1;
}

int conn_set_agentx_address(const char* text, char* why, size_t why_size) {
    static const char tcp[] = "tcp:";
    static const char unix_prefix[] = "unix:";
    agentx_address a{};
    if (strncmp(text, tcp, sizeof tcp - 1) == 0) {
        // The port follows the last colon, so that an IPv6 address may hold colons too.
        const char* host = text + sizeof tcp - 1;
        const char* colon = strrchr(host, ':');
        if (colon == nullptr || colon == host) {
            return say_why(why, why_size, "tcp: needs HOST:PORT");
        }
        char* end = nullptr;
        unsigned long port = strtoul(colon + 1, &end, 10);
        if (colon[1] < '0' || colon[1] > '9' || *end != '\0' || port == 0 || port > 65535) {
            return say_why(why, why_size, "the port must be a number from 1 to 65535");
        }
        char name[256];
        size_t n = static_cast<size_t>(colon - host);
        if (n >= 2 && host[0] == '[' && host[n - 1] == ']') {
            host++;
            n -= 2;
        }
        if (n == 0 || n >= sizeof name) {
            return say_why(why, why_size, "the host name is empty or too long");
        }
        memcpy(name, host, n);
        name[n] = '\0';
        addrinfo hints{};
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_flags = AI_NUMERICSERV;
        addrinfo* found = nullptr;
        int rc = getaddrinfo(name, colon + 1, &hints, &found);
        if (rc != 0 || found == nullptr) {
            snprintf(why, why_size, "host \"%s\": %s", name, rc != 0 ? gai_strerror(rc) : "no address");
            return -1;
        }
        memcpy(&a.addr, found->ai_addr, found->ai_addrlen);
        a.len = found->ai_addrlen;
        freeaddrinfo(found);
    } else {
        const char* path = text;
        if (strncmp(path, unix_prefix, sizeof unix_prefix - 1) == 0) {
            path += sizeof unix_prefix - 1;
        }
        // A relative path would depend on the directory the daemon happens to start in.
        if (path[0] != '/') {
            return say_why(why, why_size,
                           text[0] == '\0' ? "it is empty" : "a socket path must be absolute");
        }
        sockaddr_un un{};
        if (strlen(path) >= sizeof un.sun_path) {
            snprintf(why, why_size, "the socket path is longer than %zu bytes",
                     sizeof un.sun_path - 1);
            return -1;
        }
        un.sun_family = AF_UNIX;
        memcpy(un.sun_path, path, strlen(path) + 1);
        memcpy(&a.addr, &un, sizeof un);
        a.len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(path) + 1);
    }
    a.set = 1;
    agentx_master = a;
    return 0;
}

int AgentXconnect(void) {
    int family = agentx_master.addr.ss_family;
    int fd = new_socket("AgentXconnect::socket", family);
    if (fd < 0) {
        return -1;
    }
    if (connect(fd, reinterpret_cast<const sockaddr*>(&agentx_master.addr), agentx_master.len) <
        0) {
        perror("AgentXconnect::connect");
        close(fd);
        return -1;
    }
    if (family != AF_UNIX) {
        conn_no_delay(fd);
    }
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
    if (size > SMUX_MAX_PDU) {
        return FRAME_TOO_LARGE;
    }
    if (size > have) {
        return FRAME_PARTIAL;
    }
    *total = static_cast<uint32_t>(size);
    return FRAME_WHOLE;
}

int conn_agentx_frame(const vx_conn* c, uint32_t* total) {
    uint32_t size = 0;
    int rc = agentx_frame_len(c->buf, c->len, &size);
    if (rc == AGENTX_TOO_BIG || ((rc == AGENTX_OK || rc == AGENTX_NEED_MORE) &&
                                 size > sizeof c->buf)) {
        return FRAME_TOO_LARGE;
    }
    if (rc == AGENTX_NEED_MORE) {
        return FRAME_PARTIAL;
    }
    if (rc != AGENTX_OK) {
        return FRAME_MALFORMED;
    }
    *total = size;
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
