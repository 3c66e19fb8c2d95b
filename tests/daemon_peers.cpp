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

bytes hex(const std::string& text) {
    bytes out;
    std::string digits;
    for (char c : text) {
        if (c != ' ' && c != '\n') {
            digits.push_back(c);
        }
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return out;
}

std::string to_hex(const bytes& b) {
    std::string s;
    char two[4];
    for (size_t i = 0; i < b.size(); i++) {
        snprintf(two, sizeof two, "%02x", b[i]);
        if (i > 0) {
            s.push_back(' ');
        }
        s += two;
    }
    return s;
}

bytes cat(std::initializer_list<bytes> parts) {
    bytes out;
    for (const bytes& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

// ---- BER ----------------------------------------------------------------------------------

bytes ber_len(size_t n) {
    if (n < 0x80) {
        return {static_cast<uint8_t>(n)};
    }
    bytes digits;
    for (size_t v = n; v > 0; v >>= 8) {
        digits.insert(digits.begin(), static_cast<uint8_t>(v & 0xff));
    }
    digits.insert(digits.begin(), static_cast<uint8_t>(0x80 | digits.size()));
    return digits;
}

bytes ber_tlv(uint8_t tag, const bytes& content) {
    return cat({{tag}, ber_len(content.size()), content});
}

bytes ber_int(uint8_t tag, int64_t value) {
    bytes content;
    int64_t v = value;
    for (;;) {
        content.insert(content.begin(), static_cast<uint8_t>(v & 0xff));
        int64_t rest = v >> 8;
        bool sign = (content.front() & 0x80) != 0;
        if ((rest == 0 && !sign) || (rest == -1 && sign)) {
            break;
        }
        v = rest;
    }
    return ber_tlv(tag, content);
}

static std::vector<uint32_t> arcs_of(const std::string& dotted) {
    std::vector<uint32_t> arcs;
    size_t at = 0;
    while (at < dotted.size()) {
        size_t dot = dotted.find('.', at);
        if (dot == std::string::npos) {
            dot = dotted.size();
        }
        arcs.push_back(static_cast<uint32_t>(std::stoul(dotted.substr(at, dot - at))));
        at = dot + 1;
    }
    return arcs;
}

static void base128(bytes* out, uint32_t v) {
    bytes digits{static_cast<uint8_t>(v & 0x7f)};
    for (v >>= 7; v > 0; v >>= 7) {
        digits.insert(digits.begin(), static_cast<uint8_t>(0x80 | (v & 0x7f)));
    }
    out->insert(out->end(), digits.begin(), digits.end());
}

bytes ber_oid(const std::string& dotted) {
    std::vector<uint32_t> arcs = arcs_of(dotted);
    bytes content;
    base128(&content, arcs.at(0) * 40 + arcs.at(1));
    for (size_t i = 2; i < arcs.size(); i++) {
        base128(&content, arcs[i]);
    }
    return ber_tlv(0x06, content);
}

bytes ber_string(const std::string& text) {
    return ber_tlv(0x04, bytes(text.begin(), text.end()));
}

bytes smux_open(const std::string& identity, const std::string& description,
                const std::string& password) {
    return ber_tlv(0x60, cat({ber_int(0x02, 0), ber_oid(identity), ber_string(description),
                              ber_string(password)}));
}

bytes smux_rreq(const std::string& subtree, int operation) {
    return ber_tlv(0x62, cat({ber_oid(subtree), ber_int(0x02, -1), ber_int(0x02, operation)}));
}

bytes smux_rrsp(int code) {
    return ber_int(0x43, code);
}

bytes snmp_pdu_bytes(uint8_t tag, int request_id, int status, int index,
                     const std::vector<test_binding>& bindings) {
    bytes list;
    for (const test_binding& b : bindings) {
        bytes value = b.value.empty() ? hex("05 00") : b.value;
        bytes one = ber_tlv(0x30, cat({ber_oid(b.name), value}));
        list.insert(list.end(), one.begin(), one.end());
    }
    return ber_tlv(tag, cat({ber_int(0x02, request_id), ber_int(0x02, status),
                             ber_int(0x02, index), ber_tlv(0x30, list)}));
}

bytes smux_trap(const std::string& enterprise, int generic, int specific) {
    return ber_tlv(0xa4, cat({ber_oid(enterprise), hex("40 04 00 00 00 00"),
                              ber_int(0x02, generic), ber_int(0x02, specific), hex("43 01 00"),
                              hex("30 00")}));
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

bool fake_agent_listen(fake_agent* agent, std::string* why_not) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(VX_SMUX_PORT);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(fd, 5) != 0) {
        *why_not = std::string("listening on 127.0.0.1:199: ") + strerror(errno);
        if (fd >= 0) {
            close(fd);
        }
        return false;
    }
    agent->listen_fd = fd;
    return true;
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
    pollfd p{agent->listen_fd, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1) {
        return false;
    }
    int fd = accept4(agent->listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
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
    // The daemon may close the connection on purpose while the test still writes.
    return agent->conn_fd >= 0 &&
           send(agent->conn_fd, b.data(), b.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(b.size());
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

int dpi_connect(int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool dpi_send(int fd, const bytes& b) {
    return send(fd, b.data(), b.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(b.size());
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

bool dpi_wait_closed(int fd, int timeout_ms) {
    long deadline = now_ms() + timeout_ms;
    uint8_t sink[512];
    for (;;) {
        long left = deadline - now_ms();
        if (left <= 0) {
            return false;
        }
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left)) != 1) {
            return false;
        }
        if (read(fd, sink, sizeof sink) <= 0) {
            return true;
        }
    }
}

bytes dpi_packet(uint16_t id, uint8_t type, const bytes& body) {
    size_t len = 6 + body.size();
    bytes p{static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len & 0xff), 2, 2, 0,
            static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id & 0xff), type};
    p.insert(p.end(), body.begin(), body.end());
    return p;
}

bytes dpi_response(uint16_t id, uint8_t error_code) {
    return dpi_packet(id, 5, {error_code, 0, 0, 0, 0});
}

bytes dpi_register(uint16_t id, const std::string& group_with_dot) {
    bytes body = hex("ff ff ff ff 00 05 00 00");  // priority -1, timeout 5, no selections
    body.insert(body.end(), group_with_dot.begin(), group_with_dot.end());
    body.push_back(0);
    return dpi_packet(id, 6, body);
}

bytes dpi_are_you_there(uint16_t id) {
    return dpi_packet(id, 15, {});
}

// ---- a daemon with its agent --------------------------------------------------------------

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
    EXPECT_EQ(to_hex(open), to_hex(smux_open(identity, s->banner, password)));
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
    EXPECT_EQ(to_hex(rreq), to_hex(smux_rreq(DPI_PORT_OBJECT, 2)));
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
    if (s->agent.listen_fd < 0 && !fake_agent_listen(&s->agent, &why)) {
        ADD_FAILURE() << why;
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
