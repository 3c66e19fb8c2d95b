// The subagent side of a DPI connection: the socket slot table, framed packet input and
// output on TCP, and host look-up. The port query (snmpqDPI.cpp) borrows a slot of the same
// table for its datagram socket.

#include "snmplDPI.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "snmpqDPI.h"

namespace {

enum connection_type {
    CONNECTION_NONE = 0,  // the slot was never used
    CONNECTION_UDP = DPI_SOCKET_DATAGRAM,
    CONNECTION_TCP = DPI_SOCKET_STREAM,
};

// Waits of a read in progress: once a packet has begun, a silent agent must not hold the
// subagent forever, yet the connection stays usable after such a time-out.
constexpr int DPI_READ_WAIT_SECONDS = 3;
// Largest packet kept whole: its length field plus body fill the receive buffer exactly.
constexpr long DPI_LARGEST_KEPT = DPI_RECEIVE_BUFFER - 2;

}  // namespace

static int init_not_yet_done = 1;
static int connection_fds[DPI_MAX_CONNECTIONS] = {-1, -1, -1};
static int connection_types[DPI_MAX_CONNECTIONS];
static struct sockaddr_in connection_socks[DPI_MAX_CONNECTIONS];

unsigned char dpi_buffer[DPI_RECEIVE_BUFFER];
int32_t dpi_buflen;

static bool handle_in_range(int handle) {
    return handle >= 0 && handle < DPI_MAX_CONNECTIONS;
}

static bool handle_is_open(int handle) {
    return handle_in_range(handle) && connection_fds[handle] >= 0;
}

static int slot_of_fd(int fd) {
    for (int i = 0; i < DPI_MAX_CONNECTIONS; i++) {
        if (connection_fds[i] == fd) {
            return i;
        }
    }
    return -1;
}

int dpi_slot_fd(int handle) {
    return handle_is_open(handle) ? connection_fds[handle] : -1;
}

const struct sockaddr_in* dpi_slot_peer(int handle) {
    return handle_is_open(handle) ? &connection_socks[handle] : nullptr;
}

void dpi_slot_release(int handle) {
    if (!handle_is_open(handle)) {
        return;
    }
    close(connection_fds[handle]);
    connection_fds[handle] = -1;
}

// Waits until `fd` is readable. `seconds` < 0 waits without limit. Returns 1 when readable,
// 0 on time-out, -1 when the wait failed (including a descriptor select cannot watch).
static int wait_readable(int fd, int seconds) {
    if (fd < 0 || fd >= FD_SETSIZE) {
        return -1;
    }
    fd_set readfds;
    FD_ZERO(&readfds);
    FD_SET(fd, &readfds);
    struct timeval tv = {};
    tv.tv_sec = seconds;
    int rc = select(fd + 1, &readfds, nullptr, nullptr, seconds < 0 ? nullptr : &tv);
    if (rc < 0) {
        return -1;
    }
    return rc > 0 ? 1 : 0;
}

uint32_t lookup_host(const char* hostname_p) {
    if (hostname_p == nullptr || hostname_p[0] == '\0') {
        return 0;
    }
    std::string_view name(hostname_p);
    bool dotted = name[0] >= '0' && name[0] <= '9' &&
                  name.find_first_not_of("0123456789.") == std::string_view::npos;
    if (dotted) {
        in_addr_t addr = inet_addr(hostname_p);
        // inet_addr reports failure as all ones; 0 is no usable peer either.
        if (addr != INADDR_NONE && addr != 0) {
            return addr;
        }
    }
    struct hostent* host = gethostbyname(hostname_p);
    if (host == nullptr || host->h_addrtype != AF_INET || host->h_length != 4 ||
        host->h_addr_list == nullptr || host->h_addr_list[0] == nullptr) {
        return 0;
    }
    uint32_t addr;
    memcpy(&addr, host->h_addr_list[0], sizeof addr);
    return addr;
}

int setup_socket(int kind, const char* host_p, unsigned long port) {
    if (init_not_yet_done) {
        std::fill(std::begin(connection_fds), std::end(connection_fds), -1);
        init_not_yet_done = 0;
    }
    uint32_t addr = lookup_host(host_p);
    if (addr == 0 || port > 65535) {
        return -1;
    }
    if (kind != DPI_SOCKET_DATAGRAM && kind != DPI_SOCKET_STREAM) {
        return -1;
    }
    int fd =
        socket(AF_INET, (kind == DPI_SOCKET_STREAM ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    struct sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    local.sin_port = 0;
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&local), sizeof local) < 0) {
        close(fd);
        return -1;
    }
    int handle = slot_of_fd(-1);
    if (handle < 0) {
        close(fd);
        return -1;
    }
    struct sockaddr_in peer = {};
    peer.sin_family = AF_INET;
    peer.sin_addr.s_addr = addr;
    peer.sin_port = htons(static_cast<uint16_t>(port));
    if (kind == DPI_SOCKET_STREAM) {
        connection_types[handle] = CONNECTION_TCP;
        int rc;
        do {
            rc = connect(fd, reinterpret_cast<struct sockaddr*>(&peer), sizeof peer);
        } while (rc < 0 && errno == EINTR);
        if (rc < 0) {
            close(fd);
            return -1;
        }
        // An answer is one small packet that the agent is waiting for: it must leave at once.
        int on = 1;
        (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    } else {
        connection_types[handle] = CONNECTION_UDP;
    }
    connection_fds[handle] = fd;
    connection_socks[handle] = peer;
    return handle;
}

// Reads exactly `count` bytes. Each wait for more is limited; a time-out or failed wait
// leaves the connection open, while an end of stream or failed read drops it, since the
// framing can no longer be trusted. The read is tried before the wait: a packet nearly
// always arrives whole, so its length field and body are then read without a wait each,
// which would only have found them there.
static int mustread(int fd, unsigned char* buffer, long count, int type) {
    if (count <= 0) {
        return 0;
    }
    long got = 0;
    while (got < count) {
        size_t want = static_cast<size_t>(count - got);
        ssize_t n = type == CONNECTION_UDP
                        ? recvfrom(fd, buffer + got, want, MSG_DONTWAIT, nullptr, nullptr)
                        : recv(fd, buffer + got, want, MSG_DONTWAIT);
        if (n > 0) {
            got += n;
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            int ready = wait_readable(fd, DPI_READ_WAIT_SECONDS);
            if (ready == 0) {
                return DPI_RC_TIMEOUT;
            }
            if (ready < 0) {
                return DPI_RC_IO_ERROR;
            }
            continue;
        }
        dpi_slot_release(slot_of_fd(fd));
        return n == 0 ? DPI_RC_EOF : DPI_RC_IO_ERROR;
    }
    return static_cast<int>(count);
}

// Reads one framed packet into dpi_buffer, length field included. Returns the body length,
// or a negative code; an oversized packet is drained so the stream stays in step.
static int read_dpi_packet_on_fd(int fd, int type) {
    if (mustread(fd, dpi_buffer, 2, type) != 2) {
        return DPI_RC_IO_ERROR;
    }
    long len = static_cast<long>(dpi_buffer[0]) << 8 | dpi_buffer[1];
    dpi_buflen = static_cast<int32_t>(len);
    if (len <= DPI_LARGEST_KEPT) {
        return mustread(fd, dpi_buffer + 2, len, type);
    }
    while (dpi_buflen > 0) {
        long piece = std::min<long>(dpi_buflen, DPI_RECEIVE_BUFFER);
        int rc = mustread(fd, dpi_buffer, piece, type);
        if (rc < 0) {
            return rc;
        }
        dpi_buflen -= static_cast<int32_t>(piece);
    }
    return DPI_RC_PACKET_TOO_LARGE;
}

int DPIconnect_to_agent_TCP(const char* hostname_p, const char* community_p) {
    int port = qDPIport(hostname_p, community_p, DPI_SELECTOR_DPI_PORT);
    if (port < 0) {
        return DPI_RC_NO_PORT;
    }
    if (port == 0) {
        return DPI_RC_NOT_SUPPORTED;
    }
    int handle = setup_socket(DPI_SOCKET_STREAM, hostname_p, static_cast<unsigned long>(port));
    return handle < 0 ? DPI_RC_IO_ERROR : handle;
}

int DPIconnect_to_agent_UDP(const char*, const char*) {
    return DPI_RC_NOT_SUPPORTED;
}

int DPIconnect_to_agent_UNIXstream(const char*, const char*) {
    return DPI_RC_NOT_SUPPORTED;
}

int DPIconnect_to_agent_NMQ(const char*, const char*) {
    return DPI_RC_NOT_SUPPORTED;
}

int DPIconnect_to_agent_SHM(const char*, const char*) {
    return DPI_RC_NOT_SUPPORTED;
}

int DPIget_fd_for_handle(int handle) {
    if (!handle_in_range(handle) || connection_types[handle] != CONNECTION_TCP) {
        return DPI_RC_INVALID_HANDLE;
    }
    return connection_fds[handle];
}

int DPIawait_packet_from_agent(int handle, int timeout, unsigned char** message_pp,
                               unsigned long* length_p) {
    if (message_pp != nullptr) {
        *message_pp = nullptr;
    }
    if (length_p != nullptr) {
        *length_p = 0;
    }
    if (!handle_is_open(handle)) {
        return DPI_RC_INVALID_HANDLE;
    }
    if (connection_types[handle] != CONNECTION_TCP) {
        return DPI_RC_NOK;
    }
    // The wait is a readiness wait rather than a receive under a time-out: only that lets a
    // stop and continue (a debugger attaching, say) pass unseen, while a handled signal
    // still ends the wait.
    int fd = connection_fds[handle];
    int ready = wait_readable(fd, timeout < 0 ? -1 : timeout);
    if (ready == 0) {
        return DPI_RC_TIMEOUT;
    }
    if (ready < 0) {
        return DPI_RC_IO_ERROR;
    }
    int rc = read_dpi_packet_on_fd(fd, CONNECTION_TCP);
    if (rc <= 0) {
        return rc;
    }
    if (message_pp != nullptr) {
        *message_pp = dpi_buffer;
    }
    if (length_p != nullptr) {
        *length_p = static_cast<unsigned long>(dpi_buflen);
    }
    return DPI_RC_OK;
}

int DPIsend_packet_to_agent(int handle, const unsigned char* message_p, unsigned long length) {
    if (!handle_is_open(handle)) {
        return DPI_RC_INVALID_HANDLE;
    }
    if (message_p == nullptr || length == 0) {
        return DPI_RC_INVALID_ARGUMENT;
    }
    if (connection_types[handle] != CONNECTION_TCP) {
        return DPI_RC_NOK;
    }
    // A subagent need not ignore the broken-pipe signal: a vanished agent is an error result.
    ssize_t sent;
    do {
        sent = send(connection_fds[handle], message_p, length, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent >= 0 && static_cast<unsigned long>(sent) == length ? DPI_RC_OK : DPI_RC_IO_ERROR;
}

void DPIdisconnect_from_agent(int handle) {
    if (handle_is_open(handle) && connection_types[handle] == CONNECTION_TCP) {
        dpi_slot_release(handle);
    }
}
