#include "vx_peers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "snmp_container.h"
#include "snmp_dpi.h"
#include "vx_testsupport.h"

std::string vx_oid_text(const snmp_container* c) {
    char* t = snmp_oid_to_string(c);
    std::string s = t != nullptr ? t : "?";
    free(t);
    return s;
}

static long peers_now_ms(void) {
    using namespace std::chrono;
    return static_cast<long>(
        duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

vx_bytes vx_hex(const char* text) {
    std::string digits;
    for (const char* p = text; *p != '\0'; ++p) {
        digits += isxdigit(static_cast<unsigned char>(*p)) ? std::string(1, *p) : "";
    }
    vx_bytes out;
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    }
    return out;
}

std::string vx_to_hex(const vx_bytes& bytes) {
    std::string s;
    for (uint8_t b : bytes) {
        s += (s.empty() ? "" : " ") + std::string(1, "0123456789abcdef"[b >> 4]) +
             "0123456789abcdef"[b & 15];
    }
    return s;
}

static struct sockaddr_in loopback(int port) {
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return sa;
}

int vx_tcp_listen(int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    struct sockaddr_in sa = loopback(port);
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
        bind(fd, reinterpret_cast<struct sockaddr*>(&sa), sizeof sa) != 0 || listen(fd, 8) != 0) {
        if (fd >= 0) {
            close(fd);
        }
        return -1;
    }
    return fd;
}

int vx_local_port(int fd) {
    struct sockaddr_in sa;
    socklen_t len = sizeof sa;
    if (getsockname(fd, reinterpret_cast<struct sockaddr*>(&sa), &len) != 0) {
        return -1;
    }
    return ntohs(sa.sin_port);
}

int vx_tcp_accept(int listen_fd, int timeout_ms) {
    struct pollfd p = {listen_fd, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1) {
        return -1;
    }
    return accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
}

int vx_tcp_connect(int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in sa = loopback(port);
    if (fd >= 0 && connect(fd, reinterpret_cast<struct sockaddr*>(&sa), sizeof sa) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool vx_send_all(int fd, const vx_bytes& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

// Reads what is there into the stream's pending bytes; false on time-out or end of stream.
static bool stream_fill(vx_stream* s, long deadline) {
    long left = deadline - peers_now_ms();
    struct pollfd p = {s->fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left > 0 ? left : 0)) != 1) {
        return false;
    }
    uint8_t buf[4096];
    ssize_t n = recv(s->fd, buf, sizeof buf, 0);
    if (n <= 0) {
        s->closed = true;
        return false;
    }
    s->pending.insert(s->pending.end(), buf, buf + n);
    return true;
}

bool vx_stream_take(vx_stream* s, vx_bytes* out, int timeout_ms, size_t (*whole)(const vx_bytes&)) {
    long deadline = peers_now_ms() + timeout_ms;
    for (;;) {
        size_t n = whole(s->pending);
        if (n > 0 && n <= s->pending.size()) {
            out->assign(s->pending.begin(), s->pending.begin() + static_cast<long>(n));
            s->pending.erase(s->pending.begin(), s->pending.begin() + static_cast<long>(n));
            return true;
        }
        if (!stream_fill(s, deadline)) {
            return false;
        }
    }
}

bool vx_wait_closed(int fd, int timeout_ms) {
    vx_stream s;
    s.fd = fd;
    long deadline = peers_now_ms() + timeout_ms;
    while (stream_fill(&s, deadline)) {
        s.pending.clear();
    }
    return s.closed;
}

vx_bytes vx_ber_tlv(uint8_t tag, const vx_bytes& contents) {
    vx_bytes out{tag};
    size_t n = contents.size();
    if (n >= 256) {
        out.insert(out.end(), {0x82, static_cast<uint8_t>(n >> 8)});
    } else if (n >= 128) {
        out.push_back(0x81);
    }
    out.push_back(static_cast<uint8_t>(n));
    out.insert(out.end(), contents.begin(), contents.end());
    return out;
}

static void put16(vx_bytes* b, unsigned v) {
    b->insert(b->end(), {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)});
}

static void put_text(vx_bytes* b, const std::string& s) {
    b->insert(b->end(), s.begin(), s.end());
    b->push_back(0);
}

vx_bytes vx_dpi_packet(uint16_t packet_id, uint8_t type, const vx_bytes& body) {
    vx_bytes p;
    put16(&p, static_cast<unsigned>(6 + body.size()));
    p.insert(p.end(), {2, 2, 0});
    put16(&p, packet_id);
    p.push_back(type);
    p.insert(p.end(), body.begin(), body.end());
    return p;
}

vx_bytes vx_dpi_response(uint16_t packet_id, uint8_t error_code, const std::string& group,
                         const std::string& instance, uint8_t value_type, const vx_bytes& value) {
    vx_bytes body{error_code, 0, 0, 0, 0};
    if (!group.empty()) {
        put_text(&body, group);
        put_text(&body, instance);
        body.push_back(value_type);
        put16(&body, static_cast<unsigned>(value.size()));
        body.insert(body.end(), value.begin(), value.end());
    }
    return vx_dpi_packet(packet_id, 5, body);
}

static size_t dpi_whole(const vx_bytes& b) {
    return b.size() < 2 ? 0 : (static_cast<size_t>(b[0]) << 8 | b[1]) + 2;
}

// Parsed by the subagent library: values come in its memory form (host-order numbers).
bool vx_dpi_next(vx_stream* stream, vx_dpi_msg* out, int timeout_ms) {
    vx_bytes packet;
    dpi_hdr* h = nullptr;
    if (!vx_stream_take(stream, &packet, timeout_ms, dpi_whole) ||
        (h = pDPIpacket(packet.data())) == nullptr) {
        return false;
    }
    *out = vx_dpi_msg{};
    out->packet_id = h->packet_id;
    out->type = h->packet_type;
    const dpi_set_packet* vb = nullptr;
    auto name = [out](const char* group, const char* instance) {
        out->group = group != nullptr ? group : "";
        out->instance = instance != nullptr ? instance : "";
    };
    if (h->packet_type == SNMP_DPI_GET) {
        const auto* g = static_cast<const dpi_get_packet*>(h->data);
        name(g->group_id, g->instance_id);
    } else if (h->packet_type == SNMP_DPI_GETNEXT) {
        const auto* g = static_cast<const dpi_next_packet*>(h->data);
        name(g->group_id, g->instance_id);
    } else if (h->packet_type == SNMP_DPI_RESPONSE) {
        const auto* r = static_cast<const dpi_resp_packet*>(h->data);
        out->error_code = r->error_code;
        out->error_index = r->error_index;
        vb = r->varBinds;
    } else if (h->packet_type == SNMP_DPI_SET || h->packet_type == SNMP_DPI_COMMIT ||
               h->packet_type == SNMP_DPI_UNDO) {
        vb = static_cast<const dpi_set_packet*>(h->data);
    }
    if (vb != nullptr) {
        name(vb->group_id, vb->instance_id);
        out->value_type = vb->value_type;
        out->value.assign(vb->value, vb->value + vb->value_len);
    }
    fDPIparse(h);
    return true;
}

// The library's own builders write what a subagent sends; a null packet sends nothing.
static bool send_dpi(int fd, const unsigned char* packet) {
    return packet != nullptr && vx_send_all(fd, vx_bytes(packet, packet + DPI_PACKET_LEN(packet)));
}

vx_stream vx_dpi_connect_open(int port, const std::string& identity) {
    vx_stream s;
    s.fd = vx_tcp_connect(port);
    vx_dpi_msg answer;
    if (s.fd >= 0 &&
        (!send_dpi(s.fd, mkDPIopen(identity.c_str(), "test subagent", 0, 1, 0, 0, nullptr)) ||
         !vx_dpi_next(&s, &answer, 5000) || answer.type != 5 || answer.error_code != 0)) {
        close(s.fd);
        s.fd = -1;
    }
    return s;
}

int vx_dpi_register_group(vx_stream* sa, const std::string& group, uint16_t) {
    vx_dpi_msg answer;
    if (!send_dpi(sa->fd, mkDPIreg(0, -1, group.c_str(), 0, 0)) ||
        !vx_dpi_next(sa, &answer, 5000) || answer.type != 5) {
        return -1;
    }
    return answer.error_code;
}

std::string vx_serve_tool(const std::vector<std::string>& argv, vx_stream* sa,
                          const std::function<vx_bytes(const vx_dpi_msg&)>& answer, int* status) {
    static int tools = 0;
    vx_process proc;
    const std::string log = vx_test_dir() + "/tool" + std::to_string(++tools) + ".log";
    bool started = vx_spawn(&proc, argv, log);
    for (long until = peers_now_ms() + 60000; started && vx_alive(&proc);) {
        vx_dpi_msg m;
        if (sa->fd >= 0 && !sa->closed && vx_dpi_next(sa, &m, 20)) {
            vx_bytes reply = answer(m);
            (void)(reply.empty() || vx_send_all(sa->fd, reply));
        } else if (sa->fd < 0 || sa->closed) {
            usleep(20 * 1000);
        }
        if (peers_now_ms() > until) {
            vx_stop(&proc);
        }
    }
    *status = WIFEXITED(proc.status) ? WEXITSTATUS(proc.status) : -1;
    return vx_read_file(log);
}
