#include "daemon_peers.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

bytes cat(std::initializer_list<bytes> parts) {
    bytes out;
    for (const bytes& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

static bytes octets(const std::string& s) {
    return vx_ber_tlv(0x04, bytes(s.begin(), s.end()));
}

bytes smux_open(const std::string& identity, const std::string& description,
                const std::string& password) {
    return vx_ber_tlv(0x60, cat({vx_ber_int(0x02, 0), vx_ber_oid(identity), octets(description),
                                 octets(password)}));
}

bytes smux_rreq(const std::string& subtree, int operation) {
    return vx_ber_tlv(
        0x62, cat({vx_ber_oid(subtree), vx_ber_int(0x02, -1), vx_ber_int(0x02, operation)}));
}

bytes snmp_pdu_bytes(uint8_t tag, int request_id, int status, int index,
                     const std::vector<test_binding>& bindings) {
    bytes list;
    for (const test_binding& b : bindings) {
        bytes one =
            vx_ber_tlv(0x30, cat({vx_ber_oid(b.name), b.value.empty() ? bytes{5, 0} : b.value}));
        list.insert(list.end(), one.begin(), one.end());
    }
    return vx_ber_tlv(tag, cat({vx_ber_int(0x02, request_id), vx_ber_int(0x02, status),
                                vx_ber_int(0x02, index), vx_ber_tlv(0x30, list)}));
}

bytes smux_trap(const std::string& enterprise, int generic, int specific) {
    return vx_ber_tlv(
        0xa4, cat({vx_ber_oid(enterprise), vx_hex("40 04 00 00 00 00"), vx_ber_int(0x02, generic),
                   vx_ber_int(0x02, specific), vx_hex("43 01 00 30 00")}));
}

// ---- the agent ------------------------------------------------------------------------------

bool agent_listen(daemon_session* s) {
    s->listen_fd = vx_tcp_listen(VX_SMUX_PORT);
    return s->listen_fd >= 0;
}

void agent_stop_listening(daemon_session* s) {
    if (s->listen_fd >= 0) {
        close(s->listen_fd);
        s->listen_fd = -1;
    }
}

bool agent_accept(daemon_session* s, int timeout_ms) {
    int fd = s->listen_fd < 0 ? -1 : vx_tcp_accept(s->listen_fd, timeout_ms);
    if (fd < 0) {
        return false;
    }
    agent_hang_up(s);
    s->agent.fd = fd;
    return true;
}

void agent_hang_up(daemon_session* s) {
    if (s->agent.fd >= 0) {
        // Closing with unread bytes would reset the connection instead of ending the
        // stream, so take in what the daemon is still sending (a trap, say) first.
        uint8_t sink[512];
        pollfd p{s->agent.fd, POLLIN, 0};
        while (poll(&p, 1, 100) == 1 && read(s->agent.fd, sink, sizeof sink) > 0) {
        }
        close(s->agent.fd);
        s->agent = vx_stream{};
    }
}

bool agent_send(daemon_session* s, const bytes& b) {
    return s->agent.fd >= 0 && vx_send_all(s->agent.fd, b);
}

peer_read agent_read(daemon_session* s, bytes* pdu, int timeout_ms) {
    pdu->clear();
    if (s->agent.fd >= 0 && vx_smux_read(&s->agent, pdu, timeout_ms)) {
        return PEER_OK;
    }
    return s->agent.fd < 0 || s->agent.closed ? PEER_EOF : PEER_TIMEOUT;
}

peer_read agent_next(daemon_session* s, bytes* pdu, int timeout_ms) {
    peer_read r;
    while ((r = agent_read(s, pdu, timeout_ms)) == PEER_OK && (*pdu)[0] == 0xa4) {
    }
    if (r == PEER_OK && (*pdu)[0] == 0x62 && s->auto_rrsp && !agent_send(s, vx_smux_rrsp(0))) {
        return PEER_EOF;
    }
    return r;
}

void expect_next(daemon_session* s, const bytes& expected, int timeout_ms) {
    bytes got;
    ASSERT_EQ(agent_next(s, &got, timeout_ms), PEER_OK) << daemon_log(s);
    EXPECT_EQ(vx_to_hex(got), vx_to_hex(expected));
}

void expect_silence(daemon_session* s, int ms) {
    bytes got;
    EXPECT_EQ(agent_next(s, &got, ms), PEER_TIMEOUT) << "unexpected " << vx_to_hex(got);
}

void expect_hang_up(daemon_session* s) {
    bytes got;
    EXPECT_EQ(agent_next(s, &got, 3000), PEER_EOF) << "got " << vx_to_hex(got);
}

// ---- a daemon with its agent ----------------------------------------------------------------

void expect_clean_log(const std::string& path) {
    std::string log = vx_read_file(path);
    EXPECT_EQ(log.find("Sanitizer"), std::string::npos) << log;
    EXPECT_EQ(log.find("runtime error:"), std::string::npos) << log;
}

daemon_session::~daemon_session() {
    if (daemon.log_path.empty()) {
        return;
    }
    vx_stop(&daemon);
    expect_clean_log(daemon.log_path);
    if (::testing::Test::HasFailure()) {
        printf("---- daemon log ----\n%s\n", vx_read_file(daemon.log_path).c_str());
    }
    agent_hang_up(this);
    agent_stop_listening(this);
}

std::string daemon_log(const daemon_session* s) {
    return vx_read_file(s->daemon.log_path);
}

// The text that follows the last `mark` in the log, up to the line end.
static bool text_after(daemon_session* s, const std::string& mark, std::string* out) {
    if (!vx_wait_for_text(s->daemon.log_path, mark, 5000)) {
        ADD_FAILURE() << "no \"" << mark << "\" in the log:\n" << daemon_log(s);
        return false;
    }
    std::string log = daemon_log(s);
    size_t at = log.rfind(mark) + mark.size();
    *out = log.substr(at, log.find('\n', at) - at);
    return true;
}

static bool expect_open(daemon_session* s, int timeout_ms, const char* identity,
                        const char* password) {
    if (!agent_accept(s, timeout_ms)) {
        ADD_FAILURE() << "the daemon did not connect within " << timeout_ms << " ms; log:\n"
                      << daemon_log(s);
        return false;
    }
    bytes open;
    if (agent_read(s, &open, 5000) != PEER_OK) {
        ADD_FAILURE() << "no OpenPDU; log:\n" << daemon_log(s);
        return false;
    }
    EXPECT_EQ(vx_to_hex(open), vx_to_hex(smux_open(identity, s->banner, password)));
    return true;
}

bool accept_reopen(daemon_session* s, const char* identity, const char* password) {
    int poke = vx_tcp_connect(s->dpi_port);
    if (poke >= 0) {
        close(poke);
    }
    return expect_open(s, 7500, identity, password);
}

bool attach_session(daemon_session* s, int timeout_ms, bool answer_port_rreq, const char* identity,
                    const char* password) {
    if (!text_after(s, ", starting...\n", &s->banner) ||
        !expect_open(s, timeout_ms, identity, password)) {
        return false;
    }
    bytes rreq;
    if (agent_read(s, &rreq, 5000) != PEER_OK) {
        ADD_FAILURE() << "no RReq for the DPI port object; log:\n" << daemon_log(s);
        return false;
    }
    EXPECT_EQ(vx_to_hex(rreq), vx_to_hex(smux_rreq(DPI_PORT_OBJECT, 2)));
    std::string port;
    if (!vx_wait_for_text(s->daemon.log_path, "connected to agent", 5000) ||
        !text_after(s, "DPI  fd: ", &port) ||
        sscanf(port.c_str(), "%*d port: %d", &s->dpi_port) != 1) {
        ADD_FAILURE() << "not connected; log:\n" << daemon_log(s);
        return false;
    }
    if (answer_port_rreq && !agent_send(s, vx_ber_int(0x43, 0))) {
        ADD_FAILURE() << "cannot answer the RReq";
        return false;
    }
    return true;
}

bool start_session(daemon_session* s, std::vector<std::string> args, bool answer_port_rreq,
                   const char* identity, const char* password, const char* argv0) {
    if (s->listen_fd < 0 && !agent_listen(s)) {
        ADD_FAILURE() << "cannot listen on 127.0.0.1:199: " << strerror(errno);
        return false;
    }
    if (std::find(args.begin(), args.end(), "-d") == args.end()) {
        args.insert(args.begin(), {"-d", "32"});
    }
    std::string why;
    if (!vx_start_varnex2(&s->daemon, args, argv0, &why)) {
        ADD_FAILURE() << why;
        return false;
    }
    return attach_session(s, 5000, answer_port_rreq, identity, password);
}

// ---- DPI subagents ---------------------------------------------------------------------------

vx_stream subagent(const daemon_session* s) {
    vx_stream sa;
    sa.fd = vx_tcp_connect(s->dpi_port);
    EXPECT_GE(sa.fd, 0);
    return sa;
}

void expect_dpi(vx_stream* sa, const bytes& expected) {
    bytes got;
    ASSERT_TRUE(vx_dpi_read(sa, &got, 3000)) << "no answer";
    EXPECT_EQ(vx_to_hex(got), vx_to_hex(expected));
}

void register_subagent(daemon_session* s, vx_stream* sa, const std::string& group, uint16_t id,
                       bool announced) {
    ASSERT_TRUE(vx_send_all(sa->fd, vx_dpi_register(id, group)));
    expect_dpi(sa, vx_dpi_response(id, 0));
    if (announced) {
        expect_next(s, smux_rreq(group.substr(0, group.size() - 1), 2));
    }
}

void expect_served(vx_stream* sa, uint16_t id) {
    ASSERT_TRUE(vx_send_all(sa->fd, vx_dpi_simple(id, 15)));
    expect_dpi(sa, vx_dpi_response(id, 0));
}
