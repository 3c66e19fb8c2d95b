#include "vx_peers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

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
        int v;
        if (*p >= '0' && *p <= '9') {
            v = *p - '0';
        } else if (*p >= 'a' && *p <= 'f') {
            v = *p - 'a' + 10;
        } else if (*p >= 'A' && *p <= 'F') {
            v = *p - 'A' + 10;
        } else {
            continue;
        }
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
        snprintf(two, sizeof two, "%02x", bytes[i]);
        if (i > 0) {
            s += ' ';
        }
        s += two;
    }
    return s;
}

int vx_tcp_listen(int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    struct sockaddr_in sa;
    memset(&sa, 0, sizeof sa);
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&sa), sizeof sa) != 0 || listen(fd, 8) != 0) {
        close(fd);
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
    if (fd < 0) {
        return -1;
    }
    struct sockaddr_in sa;
    memset(&sa, 0, sizeof sa);
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&sa), sizeof sa) != 0) {
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
    if (left < 0) {
        left = 0;
    }
    struct pollfd p = {s->fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left)) != 1) {
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

bool vx_wait_closed(int fd, int timeout_ms) {
    long deadline = peers_now_ms() + timeout_ms;
    for (;;) {
        long left = deadline - peers_now_ms();
        if (left <= 0) {
            return false;
        }
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left)) != 1) {
            return false;
        }
        uint8_t buf[4096];
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0) {
            return true;
        }
    }
}

// ---- BER ----------------------------------------------------------------------------------

vx_bytes vx_ber_tlv(uint8_t tag, const vx_bytes& contents) {
    vx_bytes out{tag};
    size_t n = contents.size();
    if (n < 128) {
        out.push_back(static_cast<uint8_t>(n));
    } else if (n < 256) {
        out.push_back(0x81);
        out.push_back(static_cast<uint8_t>(n));
    } else {
        out.push_back(0x82);
        out.push_back(static_cast<uint8_t>(n >> 8));
        out.push_back(static_cast<uint8_t>(n));
    }
    out.insert(out.end(), contents.begin(), contents.end());
    return out;
}

vx_bytes vx_ber_int(uint8_t tag, int32_t value) {
    vx_bytes c;
    for (int shift = 24; shift >= 0; shift -= 8) {
        c.push_back(static_cast<uint8_t>(static_cast<uint32_t>(value) >> shift));
    }
    // Minimal form: drop leading octets that only repeat the sign.
    while (c.size() > 1 && ((c[0] == 0x00 && (c[1] & 0x80) == 0) ||
                            (c[0] == 0xff && (c[1] & 0x80) != 0))) {
        c.erase(c.begin());
    }
    return vx_ber_tlv(tag, c);
}

static bool parse_dotted(const std::string& dotted, std::vector<uint32_t>* arcs) {
    arcs->clear();
    const char* p = dotted.c_str();
    if (*p == '.') {
        ++p;
    }
    while (*p != '\0') {
        if (*p < '0' || *p > '9') {
            return false;
        }
        char* end = nullptr;
        unsigned long v = strtoul(p, &end, 10);
        arcs->push_back(static_cast<uint32_t>(v));
        p = end;
        if (*p == '.') {
            ++p;
            if (*p == '\0') {
                return false;
            }
        } else if (*p != '\0') {
            return false;
        }
    }
    return arcs->size() >= 2;
}

vx_bytes vx_ber_oid(const std::string& dotted) {
    std::vector<uint32_t> arcs;
    if (!parse_dotted(dotted, &arcs)) {
        return {};
    }
    vx_bytes c;
    std::vector<uint32_t> subids{arcs[0] * 40 + arcs[1]};
    subids.insert(subids.end(), arcs.begin() + 2, arcs.end());
    for (uint32_t v : subids) {
        uint8_t groups[5];
        int n = 0;
        do {
            groups[n++] = static_cast<uint8_t>(v & 0x7f);
            v >>= 7;
        } while (v != 0);
        while (n > 0) {
            --n;
            c.push_back(static_cast<uint8_t>(groups[n] | (n > 0 ? 0x80 : 0)));
        }
    }
    return vx_ber_tlv(0x06, c);
}

namespace {

struct ber_cursor {
    const uint8_t* p;
    size_t left;
};

struct ber_element {
    uint8_t tag;
    const uint8_t* contents;
    size_t len;
    size_t total;  // header and contents
};

}  // namespace

// Header of the element at the cursor: false when the bytes do not hold a whole header, or
// the contents reach past `left`.
static bool ber_header(const uint8_t* p, size_t left, ber_element* e, bool need_contents) {
    if (left < 2) {
        return false;
    }
    e->tag = p[0];
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
    e->contents = p + header;
    e->len = len;
    e->total = header + len;
    return !need_contents || e->total <= left;
}

static bool ber_take(ber_cursor* c, ber_element* e) {
    if (!ber_header(c->p, c->left, e, true)) {
        return false;
    }
    c->p += e->total;
    c->left -= e->total;
    return true;
}

static bool ber_int_of(const ber_element& e, int32_t* out) {
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

static bool ber_oid_text(const ber_element& e, std::string* out) {
    if (e.tag != 0x06) {
        return false;
    }
    out->clear();
    uint32_t v = 0;
    bool first = true;
    for (size_t i = 0; i < e.len; ++i) {
        v = v << 7 | (e.contents[i] & 0x7f);
        if (e.contents[i] & 0x80) {
            continue;
        }
        if (first) {
            uint32_t a = v < 80 ? v / 40 : 2;
            *out = std::to_string(a) + "." + std::to_string(v - a * 40);
            first = false;
        } else {
            *out += "." + std::to_string(v);
        }
        v = 0;
    }
    return e.len == 0 || (e.contents[e.len - 1] & 0x80) == 0;
}

bool vx_ber_int_value(const vx_bytes& element, int32_t* out) {
    ber_element e;
    return ber_header(element.data(), element.size(), &e, true) && e.tag == 0x02 &&
           e.total == element.size() && ber_int_of(e, out);
}

static bool parse_varbinds(ber_cursor* c, vx_smux_msg* out) {
    ber_element list;
    if (!ber_take(c, &list) || list.tag != 0x30) {
        return false;
    }
    ber_cursor items{list.contents, list.len};
    while (items.left > 0) {
        ber_element vb;
        if (!ber_take(&items, &vb) || vb.tag != 0x30) {
            return false;
        }
        ber_cursor parts{vb.contents, vb.len};
        ber_element name;
        ber_element value;
        std::string text;
        if (!ber_take(&parts, &name) || !ber_oid_text(name, &text) ||
            !ber_take(&parts, &value) || parts.left != 0) {
            return false;
        }
        out->vb_names.push_back(text);
        out->vb_values.emplace_back(value.contents - (value.total - value.len),
                                    value.contents + value.len);
    }
    return true;
}

bool vx_smux_parse(const vx_bytes& pdu, vx_smux_msg* out) {
    *out = vx_smux_msg{};
    ber_cursor all{pdu.data(), pdu.size()};
    ber_element top;
    if (!ber_take(&all, &top) || all.left != 0) {
        return false;
    }
    out->type = top.tag;
    ber_cursor c{top.contents, top.len};
    ber_element e;
    switch (top.tag) {
    case 0x41:
    case 0x43:
    case 0x44:
        return ber_int_of(top, &out->code);
    case 0x60: {
        ber_element oid;
        ber_element desc;
        ber_element pw;
        if (!ber_take(&c, &e) || !ber_int_of(e, &out->version) || !ber_take(&c, &oid) ||
            !ber_oid_text(oid, &out->oid) || !ber_take(&c, &desc) || !ber_take(&c, &pw) ||
            c.left != 0) {
            return false;
        }
        out->description.assign(reinterpret_cast<const char*>(desc.contents), desc.len);
        out->password.assign(reinterpret_cast<const char*>(pw.contents), pw.len);
        return true;
    }
    case 0x62: {
        ber_element oid;
        ber_element pri;
        ber_element op;
        return ber_take(&c, &oid) && ber_oid_text(oid, &out->oid) && ber_take(&c, &pri) &&
               ber_int_of(pri, &out->priority) && ber_take(&c, &op) &&
               ber_int_of(op, &out->operation) && c.left == 0;
    }
    case 0xa0:
    case 0xa1:
    case 0xa2:
    case 0xa3: {
        ber_element id;
        ber_element st;
        ber_element ix;
        return ber_take(&c, &id) && ber_int_of(id, &out->request_id) && ber_take(&c, &st) &&
               ber_int_of(st, &out->error_status) && ber_take(&c, &ix) &&
               ber_int_of(ix, &out->error_index) && parse_varbinds(&c, out) && c.left == 0;
    }
    case 0xa4: {
        ber_element ent;
        ber_element addr;
        ber_element gen;
        ber_element spec;
        ber_element stamp;
        return ber_take(&c, &ent) && ber_oid_text(ent, &out->oid) && ber_take(&c, &addr) &&
               ber_take(&c, &gen) && ber_int_of(gen, &out->generic) && ber_take(&c, &spec) &&
               ber_int_of(spec, &out->specific) && ber_take(&c, &stamp) &&
               parse_varbinds(&c, out) && c.left == 0;
    }
    default:
        return false;
    }
}

bool vx_smux_read(vx_stream* stream, vx_bytes* pdu, int timeout_ms) {
    long deadline = peers_now_ms() + timeout_ms;
    for (;;) {
        ber_element e;
        if (ber_header(stream->pending.data(), stream->pending.size(), &e, true)) {
            pdu->assign(stream->pending.begin(),
                        stream->pending.begin() + static_cast<long>(e.total));
            stream->pending.erase(stream->pending.begin(),
                                  stream->pending.begin() + static_cast<long>(e.total));
            return true;
        }
        if (!stream_fill(stream, deadline)) {
            return false;
        }
    }
}

bool vx_smux_next(vx_stream* stream, vx_smux_msg* out, int timeout_ms, bool keep_traps) {
    long deadline = peers_now_ms() + timeout_ms;
    for (;;) {
        vx_bytes pdu;
        long left = deadline - peers_now_ms();
        if (!vx_smux_read(stream, &pdu, static_cast<int>(left > 0 ? left : 0))) {
            return false;
        }
        if (!vx_smux_parse(pdu, out)) {
            return false;
        }
        if (out->type != 0xa4 || keep_traps) {
            return true;
        }
    }
}

vx_bytes vx_smux_rrsp(int32_t code) {
    auto u = static_cast<uint32_t>(code);
    return {0x43,
            0x04,
            static_cast<uint8_t>(u >> 24),
            static_cast<uint8_t>(u >> 16),
            static_cast<uint8_t>(u >> 8),
            static_cast<uint8_t>(u)};
}

// Long-form length of two octets, as the real agent writes request lengths.
static vx_bytes ber_tlv_long(uint8_t tag, const vx_bytes& contents) {
    vx_bytes out{tag, 0x82, static_cast<uint8_t>(contents.size() >> 8),
                 static_cast<uint8_t>(contents.size())};
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
    vx_bytes zero = vx_ber_int(0x02, 0);
    body.insert(body.end(), zero.begin(), zero.end());
    body.insert(body.end(), zero.begin(), zero.end());
    vx_bytes seq = ber_tlv_long(0x30, list);
    body.insert(body.end(), seq.begin(), seq.end());
    return ber_tlv_long(type, body);
}

// ---- DPI ----------------------------------------------------------------------------------

static void put16(vx_bytes* b, unsigned v) {
    b->push_back(static_cast<uint8_t>(v >> 8));
    b->push_back(static_cast<uint8_t>(v));
}

static void put32(vx_bytes* b, uint32_t v) {
    put16(b, v >> 16);
    put16(b, v & 0xffff);
}

static void put_text(vx_bytes* b, const std::string& s) {
    b->insert(b->end(), s.begin(), s.end());
    b->push_back(0);
}

vx_bytes vx_dpi_packet(uint16_t packet_id, uint8_t type, const vx_bytes& body) {
    vx_bytes p;
    put16(&p, static_cast<unsigned>(6 + body.size()));
    p.push_back(2);
    p.push_back(2);
    p.push_back(0);
    put16(&p, packet_id);
    p.push_back(type);
    p.insert(p.end(), body.begin(), body.end());
    return p;
}

vx_bytes vx_dpi_open(uint16_t packet_id, const std::string& identity,
                     const std::string& description) {
    vx_bytes body;
    put16(&body, 0);  // timeout
    put16(&body, 1);  // max varBinds
    body.push_back(0);
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
    body.push_back(0);
    body.push_back(0);
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

bool vx_dpi_read(vx_stream* stream, vx_bytes* packet, int timeout_ms) {
    long deadline = peers_now_ms() + timeout_ms;
    for (;;) {
        if (stream->pending.size() >= 2) {
            size_t total = (static_cast<size_t>(stream->pending[0]) << 8 | stream->pending[1]) + 2;
            if (stream->pending.size() >= total) {
                packet->assign(stream->pending.begin(),
                               stream->pending.begin() + static_cast<long>(total));
                stream->pending.erase(stream->pending.begin(),
                                      stream->pending.begin() + static_cast<long>(total));
                return true;
            }
        }
        if (!stream_fill(stream, deadline)) {
            return false;
        }
    }
}

static bool take_text(const vx_bytes& b, size_t* at, std::string* out) {
    size_t start = *at;
    while (*at < b.size() && b[*at] != 0) {
        ++*at;
    }
    if (*at >= b.size()) {
        return false;
    }
    out->assign(reinterpret_cast<const char*>(b.data() + start), *at - start);
    ++*at;
    return true;
}

static bool take_varbind(const vx_bytes& b, size_t* at, vx_dpi_msg* out) {
    if (!take_text(b, at, &out->group) || !take_text(b, at, &out->instance) ||
        *at + 3 > b.size()) {
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
        out->error_index = static_cast<int32_t>(static_cast<uint32_t>(p[at + 1]) << 24 |
                                                static_cast<uint32_t>(p[at + 2]) << 16 |
                                                static_cast<uint32_t>(p[at + 3]) << 8 | p[at + 4]);
        at += 5;
        return at == p.size() || take_varbind(p, &at, out);
    case 1:
    case 2:
    case 3:
    case 10:
    case 11: {
        if (p.size() < at + 2) {
            return false;
        }
        size_t extra = static_cast<size_t>(p[at]) << 8 | p[at + 1];
        at += 2 + extra;
        if (at > p.size()) {
            return false;
        }
        if (out->type <= 2) {
            return take_text(p, &at, &out->group) && take_text(p, &at, &out->instance);
        }
        return take_varbind(p, &at, out);
    }
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
    if (s.fd < 0) {
        return s;
    }
    vx_dpi_msg answer;
    if (!vx_send_all(s.fd, vx_dpi_open(1, identity, "test subagent")) ||
        !vx_dpi_next(&s, &answer, 5000) || answer.type != 5 || answer.error_code != 0) {
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
