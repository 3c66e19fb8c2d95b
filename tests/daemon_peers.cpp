#include "daemon_peers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

bytes cat(std::initializer_list<bytes> parts) {
    bytes out;
    for (const bytes& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

// ---- SMUX PDUs ----------------------------------------------------------------------------

bytes smux_open(const std::string& identity, const std::string& description,
                const std::string& password) {
    return vx_ber_tlv(0x60, cat({vx_ber_int(0x02, 0), vx_ber_oid(identity),
                                 vx_ber_tlv(0x04, bytes(description.begin(), description.end())),
                                 vx_ber_tlv(0x04, bytes(password.begin(), password.end()))}));
}

bytes smux_rreq(const std::string& subtree, int operation) {
    return vx_ber_tlv(0x62,
                      cat({vx_ber_oid(subtree), vx_ber_int(0x02, -1), vx_ber_int(0x02, operation)}));
}

bytes smux_rrsp(int code) {
    return vx_ber_int(0x43, code);
}

bytes snmp_pdu_bytes(uint8_t tag, int request_id, int status, int index,
                     const std::vector<test_binding>& bindings) {
    bytes list;
    for (const test_binding& b : bindings) {
        bytes value = b.value.empty() ? vx_hex("05 00") : b.value;
        bytes one = vx_ber_tlv(0x30, cat({vx_ber_oid(b.name), value}));
        list.insert(list.end(), one.begin(), one.end());
    }
    return vx_ber_tlv(tag, cat({vx_ber_int(0x02, request_id), vx_ber_int(0x02, status),
                                vx_ber_int(0x02, index), vx_ber_tlv(0x30, list)}));
}

bytes smux_trap(const std::string& enterprise, int generic, int specific) {
    return vx_ber_tlv(0xa4, cat({vx_ber_oid(enterprise), vx_hex("40 04 00 00 00 00"),
                                 vx_ber_int(0x02, generic), vx_ber_int(0x02, specific),
                                 vx_hex("43 01 00"), vx_hex("30 00")}));
}

// ---- sockets ------------------------------------------------------------------------------

static long now_ms(void) {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

// Exactly `n` bytes before `deadline`; PEER_EOF also for a reset connection.
static peer_read read_exact(int fd, uint8_t* to, size_t n, long deadline) {
    size_t got = 0;
    while (got < n) {
        long left = deadline - now_ms();
        if (left <= 0) {
            return PEER_TIMEOUT;
        }
        pollfd p{fd, POLLIN, 0};
        int r = poll(&p, 1, static_cast<int>(left));
        if (r == 0) {
            return PEER_TIMEOUT;
        }
        if (r < 0) {
            if (errno == EINTR) {
                continue;
            }
            return PEER_EOF;
        }
        ssize_t k = read(fd, to + got, n - got);
        if (k <= 0) {
            return PEER_EOF;
        }
        got += static_cast<size_t>(k);
    }
    return PEER_OK;
}

bool fake_agent_listen(fake_agent* agent) {
    agent->listen_fd = vx_tcp_listen(VX_SMUX_PORT);
    return agent->listen_fd >= 0;
}

void fake_agent_stop_listening(fake_agent* agent) {
    if (agent->listen_fd >= 0) {
        close(agent->listen_fd);
        agent->listen_fd = -1;
    }
}

bool fake_agent_accept(fake_agent* agent, int timeout_ms) {
    if (agent->listen_fd < 0) {
        return false;
    }
    int fd = vx_tcp_accept(agent->listen_fd, timeout_ms);
    if (fd < 0) {
        return false;
    }
    fake_agent_hang_up(agent);
    agent->conn_fd = fd;
    return true;
}

void fake_agent_hang_up(fake_agent* agent) {
    if (agent->conn_fd >= 0) {
        // Closing with unread bytes would reset the connection instead of ending the
        // stream, so take in what the daemon is still sending (a trap, say) first.
        uint8_t sink[512];
        pollfd p{agent->conn_fd, POLLIN, 0};
        while (poll(&p, 1, 100) == 1 && read(agent->conn_fd, sink, sizeof sink) > 0) {
        }
        close(agent->conn_fd);
        agent->conn_fd = -1;
    }
}

bool fake_agent_send(fake_agent* agent, const bytes& b) {
    return agent->conn_fd >= 0 && vx_send_all(agent->conn_fd, b);
}

peer_read fake_agent_read(fake_agent* agent, bytes* pdu, int timeout_ms) {
    pdu->clear();
    if (agent->conn_fd < 0) {
        return PEER_EOF;
    }
    long deadline = now_ms() + timeout_ms;
    uint8_t head[2];
    peer_read r = read_exact(agent->conn_fd, head, 2, deadline);
    if (r != PEER_OK) {
        return r;
    }
    pdu->assign(head, head + 2);
    size_t len = head[1];
    if (head[1] & 0x80) {
        size_t octets = head[1] & 0x7f;
        uint8_t digits[4];
        if (octets == 0 || octets > sizeof digits) {
            return PEER_EOF;  // nothing the daemon may send
        }
        r = read_exact(agent->conn_fd, digits, octets, deadline);
        if (r != PEER_OK) {
            return r;
        }
        pdu->insert(pdu->end(), digits, digits + octets);
        len = 0;
        for (size_t i = 0; i < octets; i++) {
            len = (len << 8) | digits[i];
        }
    }
    size_t at = pdu->size();
    pdu->resize(at + len);
    return read_exact(agent->conn_fd, pdu->data() + at, len, deadline);
}

peer_read fake_agent_next(fake_agent* agent, bytes* pdu, int timeout_ms) {
    long deadline = now_ms() + timeout_ms;
    for (;;) {
        long left = std::max(0L, deadline - now_ms());
        peer_read r = fake_agent_read(agent, pdu, static_cast<int>(left));
        if (r != PEER_OK || pdu->empty() || (*pdu)[0] != 0xa4) {
            return r;
        }
        agent->traps_seen++;
    }
}

peer_read dpi_read(int fd, bytes* packet, int timeout_ms) {
    packet->clear();
    long deadline = now_ms() + timeout_ms;
    uint8_t head[2];
    peer_read r = read_exact(fd, head, 2, deadline);
    if (r != PEER_OK) {
        return r;
    }
    size_t len = static_cast<size_t>(head[0]) * 256 + head[1];
    packet->assign(head, head + 2);
    packet->resize(2 + len);
    return read_exact(fd, packet->data() + 2, len, deadline);
}

bytes dpi_packet(uint16_t id, uint8_t type, const bytes& body) {
    size_t len = 6 + body.size();
    bytes p{static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len & 0xff), 2, 2, 0,
            static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id & 0xff), type};
    p.insert(p.end(), body.begin(), body.end());
    return p;
}

// ---- a daemon with its agent --------------------------------------------------------------

daemon_session::~daemon_session() {
    if (daemon.log_path.empty()) {
        return;
    }
    vx_stop(&daemon);
    std::string log = vx_read_file(daemon.log_path);
    // In sanitizer builds the daemon reports into its log; the test would only see it go.
    EXPECT_EQ(log.find("Sanitizer"), std::string::npos) << log;
    EXPECT_EQ(log.find("runtime error:"), std::string::npos) << log;
    if (::testing::Test::HasFailure()) {
        printf("---- daemon log ----\n%s\n", log.c_str());
    }
    fake_agent_hang_up(&agent);
    fake_agent_stop_listening(&agent);
}

std::string daemon_log(const daemon_session* s) {
    return vx_read_file(s->daemon.log_path);
}

static bool read_banner(daemon_session* s) {
    static const std::string mark = ", starting...\n";
    if (!vx_wait_for_text(s->daemon.log_path, mark, 5000)) {
        ADD_FAILURE() << "no start line; log:\n" << daemon_log(s);
        return false;
    }
    std::string log = daemon_log(s);
    size_t at = log.find(mark) + mark.size();
    size_t end = log.find('\n', at);
    s->banner = log.substr(at, end == std::string::npos ? std::string::npos : end - at);
    return true;
}

static bool read_dpi_port(daemon_session* s) {
    static const std::string mark = "DPI  fd: ";
    if (!vx_wait_for_text(s->daemon.log_path, mark, 5000)) {
        ADD_FAILURE() << "no DPI listener trace; log:\n" << daemon_log(s);
        return false;
    }
    std::string log = daemon_log(s);
    size_t at = log.rfind(mark);
    int fd = 0;
    int port = 0;
    if (sscanf(log.c_str() + at, "DPI  fd: %d port: %d", &fd, &port) != 2) {
        ADD_FAILURE() << "unreadable DPI listener trace";
        return false;
    }
    s->dpi_port = port;
    return true;
}

bool accept_reopen(daemon_session* s, int timeout_ms, const char* identity,
                   const char* password) {
    if (!fake_agent_accept(&s->agent, timeout_ms)) {
        ADD_FAILURE() << "the daemon did not connect within " << timeout_ms << " ms; log:\n"
                      << daemon_log(s);
        return false;
    }
    bytes open;
    if (fake_agent_read(&s->agent, &open, 5000) != PEER_OK) {
        ADD_FAILURE() << "no OpenPDU; log:\n" << daemon_log(s);
        return false;
    }
    EXPECT_EQ(vx_to_hex(open), vx_to_hex(smux_open(identity, s->banner, password)));
    return true;
}

bool attach_session(daemon_session* s, int timeout_ms, bool answer_port_rreq,
                    const char* identity, const char* password) {
    if (!read_banner(s) || !accept_reopen(s, timeout_ms, identity, password)) {
        return false;
    }
    bytes rreq;
    if (fake_agent_read(&s->agent, &rreq, 5000) != PEER_OK) {
        ADD_FAILURE() << "no RReq for the DPI port object; log:\n" << daemon_log(s);
        return false;
    }
    EXPECT_EQ(vx_to_hex(rreq), vx_to_hex(smux_rreq(DPI_PORT_OBJECT, 2)));
    if (!vx_wait_for_text(s->daemon.log_path, "connected to agent", 5000) || !read_dpi_port(s)) {
        ADD_FAILURE() << "not connected; log:\n" << daemon_log(s);
        return false;
    }
    if (answer_port_rreq && !fake_agent_send(&s->agent, smux_rrsp(0))) {
        ADD_FAILURE() << "cannot answer the RReq";
        return false;
    }
    return true;
}

bool start_session(daemon_session* s, std::vector<std::string> args, bool answer_port_rreq,
                   const char* identity, const char* password, const char* argv0) {
    std::string why;
    if (s->agent.listen_fd < 0 && !fake_agent_listen(&s->agent)) {
        ADD_FAILURE() << "cannot listen on 127.0.0.1:199: " << strerror(errno);
        return false;
    }
    if (std::find(args.begin(), args.end(), "-d") == args.end()) {
        args.insert(args.begin(), {"-d", "32"});
    }
    if (!vx_start_varnex2(&s->daemon, args, argv0, &why)) {
        ADD_FAILURE() << why;
        return false;
    }
    return attach_session(s, 5000, answer_port_rreq, identity, password);
}
