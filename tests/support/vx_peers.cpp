#include "vx_peers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

static long peers_now_ms(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

vx_bytes vx_hex(const char* text) {
    vx_bytes out;
    int high = -1;
    for (const char* p = text; *p != '\0'; ++p) {
        if (!isxdigit(static_cast<unsigned char>(*p))) {
            continue;
        }
        int v = isdigit(static_cast<unsigned char>(*p)) ? *p - '0' : (*p | 0x20) - 'a' + 10;
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | v));
            high = -1;
        }
    }
    return out;
}

std::string vx_to_hex(const vx_bytes& bytes) {
    std::string s;
    char two[4];
    for (size_t i = 0; i < bytes.size(); ++i) {
        snprintf(two, sizeof two, i > 0 ? " %02x" : "%02x", bytes[i]);
        s += two;
    }
    return s;
}

// ---- sockets ------------------------------------------------------------------------------

static struct sockaddr_in loopback(int port) {
    struct sockaddr_in sa;
    memset(&sa, 0, sizeof sa);
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

// Takes the first whole(pending) bytes once they are all there, reading as needed; `whole`
// gives 0 while it cannot tell yet.
static bool stream_take(vx_stream* s, vx_bytes* out, int timeout_ms,
                        size_t (*whole)(const vx_bytes&)) {
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

// ---- BER ----------------------------------------------------------------------------------

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

vx_bytes vx_ber_int(uint8_t tag, int32_t value) {
    vx_bytes c;
    for (int shift = 24; shift >= 0; shift -= 8) {
        c.push_back(static_cast<uint8_t>(static_cast<uint32_t>(value) >> shift));
    }
    // Minimal form: drop leading octets that only repeat the sign.
    while (c.size() > 1 &&
           ((c[0] == 0x00 && (c[1] & 0x80) == 0) || (c[0] == 0xff && (c[1] & 0x80) != 0))) {
        c.erase(c.begin());
    }
    return vx_ber_tlv(tag, c);
}

vx_bytes vx_ber_oid(const std::string& dotted) {
    std::vector<uint32_t> arcs;
    const char* p = dotted.c_str() + (dotted.rfind('.', 0) == 0 ? 1 : 0);
    while (*p >= '0' && *p <= '9') {
        char* end = nullptr;
        arcs.push_back(static_cast<uint32_t>(strtoul(p, &end, 10)));
        p = *end == '.' && end[1] != '\0' ? end + 1 : end;
    }
    if (*p != '\0' || arcs.size() < 2) {
        return {};
    }
    arcs[1] += arcs[0] * 40;
    vx_bytes c;
    for (size_t i = 1; i < arcs.size(); ++i) {
        for (int shift = 28; shift > 0; shift -= 7) {
            if (arcs[i] >> shift != 0) {
                c.push_back(static_cast<uint8_t>(0x80 | (arcs[i] >> shift & 0x7f)));
            }
        }
        c.push_back(static_cast<uint8_t>(arcs[i] & 0x7f));
    }
    return vx_ber_tlv(0x06, c);
}

namespace {

struct ber_element {
    uint8_t tag = 0;
    const uint8_t* contents = nullptr;
    size_t len = 0;
    size_t total = 0;  // header and contents
};

}  // namespace

// The element at `p`: false unless its header and contents lie within `left` bytes.
static bool ber_at(const uint8_t* p, size_t left, ber_element* e) {
    if (left < 2) {
        return false;
    }
    size_t len = p[1];
    size_t header = 2;
    if (len & 0x80) {
        size_t n = len & 0x7f;
        if (n == 0 || n > 4 || left < 2 + n) {
            return false;
        }
        len = 0;
        for (size_t i = 0; i < n; ++i) {
            len = len << 8 | p[2 + i];
        }
        header += n;
    }
    *e = ber_element{p[0], p + header, len, header + len};
    return e->total <= left;
}

// The elements that fill a constructed element's contents exactly.
static bool ber_items(const ber_element& outer, std::vector<ber_element>* items) {
    items->clear();
    for (size_t at = 0; at < outer.len;) {
        items->emplace_back();
        if (!ber_at(outer.contents + at, outer.len - at, &items->back())) {
            return false;
        }
        at += items->back().total;
    }
    return true;
}

static size_t ber_whole(const vx_bytes& b) {
    ber_element e;
    return ber_at(b.data(), b.size(), &e) ? e.total : 0;
}

static bool int_of(const ber_element& e, int32_t* out) {
    if (e.len == 0 || e.len > 5) {
        return false;
    }
    uint32_t v = (e.contents[0] & 0x80) ? 0xffffffffu : 0;
    for (size_t i = 0; i < e.len; ++i) {
        v = v << 8 | e.contents[i];
    }
    *out = static_cast<int32_t>(v);
    return true;
}

static bool oid_of(const ber_element& e, std::string* out) {
    if (e.tag != 0x06 || (e.len > 0 && (e.contents[e.len - 1] & 0x80) != 0)) {
        return false;
    }
    out->clear();
    uint32_t v = 0;
    for (size_t i = 0; i < e.len; ++i) {
        v = v << 7 | (e.contents[i] & 0x7f);
        if (e.contents[i] & 0x80) {
            continue;
        }
        if (out->empty()) {
            uint32_t a = v < 80 ? v / 40 : 2;
            *out = std::to_string(a) + "." + std::to_string(v - a * 40);
        } else {
            *out += "." + std::to_string(v);
        }
        v = 0;
    }
    return true;
}

static std::string text_of(const ber_element& e) {
    return std::string(reinterpret_cast<const char*>(e.contents), e.len);
}

bool vx_ber_int_value(const vx_bytes& element, int32_t* out) {
    ber_element e;
    return ber_at(element.data(), element.size(), &e) && e.tag == 0x02 &&
           e.total == element.size() && int_of(e, out);
}

static bool varbinds_of(const ber_element& list, vx_smux_msg* out) {
    std::vector<ber_element> vbs;
    std::vector<ber_element> parts;
    if (list.tag != 0x30 || !ber_items(list, &vbs)) {
        return false;
    }
    for (const ber_element& vb : vbs) {
        std::string name;
        if (vb.tag != 0x30 || !ber_items(vb, &parts) || parts.size() != 2 ||
            !oid_of(parts[0], &name)) {
            return false;
        }
        out->vb_names.push_back(name);
        const uint8_t* value = parts[1].contents - (parts[1].total - parts[1].len);
        out->vb_values.emplace_back(value, value + parts[1].total);
    }
    return true;
}

bool vx_smux_parse(const vx_bytes& pdu, vx_smux_msg* out) {
    *out = vx_smux_msg{};
    ber_element top;
    std::vector<ber_element> f;
    if (!ber_at(pdu.data(), pdu.size(), &top) || top.total != pdu.size()) {
        return false;
    }
    out->type = top.tag;
    if (top.tag == 0x41 || top.tag == 0x43 || top.tag == 0x44) {
        return int_of(top, &out->code);
    }
    if (!ber_items(top, &f)) {
        return false;
    }
    switch (top.tag) {
        case 0x60:
            if (f.size() != 4 || !int_of(f[0], &out->version) || !oid_of(f[1], &out->oid)) {
                return false;
            }
            out->description = text_of(f[2]);
            out->password = text_of(f[3]);
            return true;
        case 0x62:
            return f.size() == 3 && oid_of(f[0], &out->oid) && int_of(f[1], &out->priority) &&
                   int_of(f[2], &out->operation);
        case 0xa0:
        case 0xa1:
        case 0xa2:
        case 0xa3:
            return f.size() == 4 && int_of(f[0], &out->request_id) &&
                   int_of(f[1], &out->error_status) && int_of(f[2], &out->error_index) &&
                   varbinds_of(f[3], out);
        case 0xa4:
            return f.size() == 6 && oid_of(f[0], &out->oid) && int_of(f[2], &out->generic) &&
                   int_of(f[3], &out->specific) && varbinds_of(f[5], out);
        default:
            return false;
    }
}

bool vx_smux_read(vx_stream* stream, vx_bytes* pdu, int timeout_ms) {
    return stream_take(stream, pdu, timeout_ms, ber_whole);
}

bool vx_smux_next(vx_stream* stream, vx_smux_msg* out, int timeout_ms, bool keep_traps) {
    long deadline = peers_now_ms() + timeout_ms;
    for (;;) {
        vx_bytes pdu;
        long left = deadline - peers_now_ms();
        if (!vx_smux_read(stream, &pdu, static_cast<int>(left > 0 ? left : 0)) ||
            !vx_smux_parse(pdu, out)) {
            return false;
        }
        if (out->type != 0xa4 || keep_traps) {
            return true;
        }
    }
}

static void put16(vx_bytes* b, unsigned v) {
    b->push_back(static_cast<uint8_t>(v >> 8));
    b->push_back(static_cast<uint8_t>(v));
}

static void put32(vx_bytes* b, uint32_t v) {
    put16(b, v >> 16);
    put16(b, v & 0xffff);
}

vx_bytes vx_smux_rrsp(int32_t code) {
    vx_bytes out{0x43, 0x04};
    put32(&out, static_cast<uint32_t>(code));
    return out;
}

// Long-form length of two octets, as the real agent writes request lengths.
static vx_bytes ber_tlv_long(uint8_t tag, const vx_bytes& contents) {
    vx_bytes out{tag, 0x82};
    put16(&out, static_cast<unsigned>(contents.size()));
    out.insert(out.end(), contents.begin(), contents.end());
    return out;
}

vx_bytes vx_smux_request(uint8_t type, int32_t request_id, const std::vector<std::string>& names,
                         const std::vector<vx_bytes>& values) {
    vx_bytes list;
    for (size_t i = 0; i < names.size(); ++i) {
        vx_bytes vb = vx_ber_oid(names[i]);
        vx_bytes value = i < values.size() ? values[i] : vx_bytes{0x05, 0x00};
        vb.insert(vb.end(), value.begin(), value.end());
        vx_bytes seq = ber_tlv_long(0x30, vb);
        list.insert(list.end(), seq.begin(), seq.end());
    }
    vx_bytes body = vx_ber_int(0x02, request_id);
    body.insert(body.end(), {0x02, 0x01, 0x00, 0x02, 0x01, 0x00});
    vx_bytes seq = ber_tlv_long(0x30, list);
    body.insert(body.end(), seq.begin(), seq.end());
    return ber_tlv_long(type, body);
}

// ---- DPI ----------------------------------------------------------------------------------

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

vx_bytes vx_dpi_open(uint16_t packet_id, const std::string& identity,
                     const std::string& description) {
    vx_bytes body{0, 0, 0, 1, 0};  // no timeout, one varBind at most, native character set
    put_text(&body, identity);
    put_text(&body, description);
    put16(&body, 0);  // no password
    return vx_dpi_packet(packet_id, 8, body);
}

vx_bytes vx_dpi_register(uint16_t packet_id, const std::string& group, int32_t priority,
                         uint16_t timeout) {
    vx_bytes body;
    put32(&body, static_cast<uint32_t>(priority));
    put16(&body, timeout);
    put16(&body, 0);
    put_text(&body, group);
    return vx_dpi_packet(packet_id, 6, body);
}

vx_bytes vx_dpi_simple(uint16_t packet_id, uint8_t type) {
    return vx_dpi_packet(packet_id, type, {});
}

vx_bytes vx_dpi_response(uint16_t packet_id, uint8_t error_code, const std::string& group,
                         const std::string& instance, uint8_t value_type, const vx_bytes& value) {
    vx_bytes body{error_code};
    put32(&body, 0);
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

bool vx_dpi_read(vx_stream* stream, vx_bytes* packet, int timeout_ms) {
    return stream_take(stream, packet, timeout_ms, dpi_whole);
}

static bool take_text(const vx_bytes& b, size_t* at, std::string* out) {
    size_t end = *at;
    while (end < b.size() && b[end] != 0) {
        ++end;
    }
    if (end >= b.size()) {
        return false;
    }
    out->assign(reinterpret_cast<const char*>(b.data() + *at), end - *at);
    *at = end + 1;
    return true;
}

static bool take_varbind(const vx_bytes& b, size_t* at, vx_dpi_msg* out) {
    if (!take_text(b, at, &out->group) || !take_text(b, at, &out->instance) || *at + 3 > b.size()) {
        return false;
    }
    out->value_type = b[*at];
    size_t len = static_cast<size_t>(b[*at + 1]) << 8 | b[*at + 2];
    *at += 3;
    if (*at + len > b.size()) {
        return false;
    }
    out->value.assign(b.begin() + static_cast<long>(*at), b.begin() + static_cast<long>(*at + len));
    *at += len;
    return true;
}

bool vx_dpi_parse(const vx_bytes& p, vx_dpi_msg* out) {
    *out = vx_dpi_msg{};
    if (p.size() < 8 || p[2] != 2 || p[3] != 2) {
        return false;
    }
    out->packet_id = static_cast<uint16_t>(p[5] << 8 | p[6]);
    out->type = p[7];
    size_t at = 8;
    switch (out->type) {
        case 5:
            if (p.size() < at + 5) {
                return false;
            }
            out->error_code = p[at];
            for (size_t i = 1; i <= 4; ++i) {
                out->error_index =
                    static_cast<int32_t>(static_cast<uint32_t>(out->error_index) << 8 | p[at + i]);
            }
            at += 5;
            return at == p.size() || take_varbind(p, &at, out);
        case 1:
        case 2:
        case 3:
        case 10:
        case 11:
            // A community of the given length comes first.
            if (p.size() < at + 2) {
                return false;
            }
            at += 2 + (static_cast<size_t>(p[at]) << 8 | p[at + 1]);
            if (at > p.size()) {
                return false;
            }
            if (out->type <= 2) {
                return take_text(p, &at, &out->group) && take_text(p, &at, &out->instance);
            }
            return take_varbind(p, &at, out);
        default:
            return true;
    }
}

bool vx_dpi_next(vx_stream* stream, vx_dpi_msg* out, int timeout_ms) {
    vx_bytes packet;
    return vx_dpi_read(stream, &packet, timeout_ms) && vx_dpi_parse(packet, out);
}

vx_stream vx_dpi_connect_open(int port, const std::string& identity) {
    vx_stream s;
    s.fd = vx_tcp_connect(port);
    vx_dpi_msg answer;
    if (s.fd >= 0 &&
        (!vx_send_all(s.fd, vx_dpi_open(1, identity, "test subagent")) ||
         !vx_dpi_next(&s, &answer, 5000) || answer.type != 5 || answer.error_code != 0)) {
        close(s.fd);
        s.fd = -1;
    }
    return s;
}

int vx_dpi_register_group(vx_stream* sa, const std::string& group, uint16_t packet_id) {
    vx_dpi_msg answer;
    if (!vx_send_all(sa->fd, vx_dpi_register(packet_id, group)) ||
        !vx_dpi_next(sa, &answer, 5000) || answer.type != 5) {
        return -1;
    }
    return answer.error_code;
}
