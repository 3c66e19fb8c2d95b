// fwd_smux_peer: the forwarding-path benchmark's bare SMUX peer. It opens a session with the
// master agent on 127.0.0.1:199, registers the benchmark subtree and answers Get and GetNext
// from the table in fwd_objects.h with the project's SMUX codec: the least a program can do
// to serve objects over SMUX, the baseline the DPI path through the daemon is held against.
//
// Usage: fwd_smux_peer [-n objects] [-i identity] [-p password] [-P port]
// -P connects to another port of 127.0.0.1 than 199: to a relay put between the two.
// SIGTERM or SIGINT ends it; so does the agent closing the session.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fwd_objects.h"
#include "smux_ed.h"
#include "snmp_container.h"
#include "snmp_ed.h"

namespace {

// snmpd asks for one varBind at a time; a few more are served all the same.
constexpr uint32_t kMaxVarBinds = 16;
constexpr int32_t kNoSuchName = 2;
constexpr int32_t kGenErr = 5;
constexpr size_t kReadSize = 8192;

volatile sig_atomic_t g_stop;

void on_signal(int) {
    g_stop = 1;
}

// Whole write or failure: snmpd reads each PDU with one receive, so a PDU must leave in one
// piece, which a single send of a few hundred bytes on loopback does.
bool send_all(int fd, const uint8_t* data, uint32_t length) {
    while (length > 0) {
        ssize_t n = send(fd, data, length, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        data += n;
        length -= static_cast<uint32_t>(n);
    }
    return true;
}

bool send_record(int fd, smux_pdu* record) {
    uint8_t* start = nullptr;
    uint32_t length = 0;
    if (smux_encode_message(&start, &length, record) != SNMP_CODEC_OK) {
        fprintf(stderr, "fwd_smux_peer: cannot encode PDU 0x%02x\n", record->type);
        return false;
    }
    return send_all(fd, start, length);
}

// Size of the PDU at the start of `data`: 0 while its header is incomplete, -1 when the
// header is not one a SMUX stream can carry.
long pdu_size(const uint8_t* data, size_t available) {
    if (available < 2) {
        return 0;
    }
    uint8_t first = data[1];
    if (first < 0x80) {
        return 2 + first;
    }
    size_t octets = first & 0x7f;
    if (octets == 0 || octets > 4) {
        return -1;
    }
    if (available < 2 + octets) {
        return 0;
    }
    unsigned long length = 0;
    for (size_t i = 0; i < octets; i++) {
        length = (length << 8) | data[2 + i];
    }
    return static_cast<long>(2 + octets + length);
}

struct Peer {
    uint32_t count = FWD_DEFAULT_OBJECTS;
    snmp_container* object_name = nullptr;  // ROOT.1.1; copies get their last sub-id patched
    snmp_pdu* answer = nullptr;
    smux_pdu answer_record{};
};

// Fills answer slot `i` with object `n`; false when memory runs out.
bool put_object(Peer* p, uint32_t i, uint32_t n) {
    snmp_varBind* vb = &p->answer->varBinds[i];
    snmp_container* name = snmp_copy_container_value(vb->name, p->object_name);
    if (name == nullptr) {
        return false;
    }
    vb->name = name;
    snmp_container_subids(name)[FWD_OBJECT_LEN - 1] = n;
    int32_t value = static_cast<int32_t>(n);
    snmp_container* v = snmp_replace_container_value(vb->value, &value, 4, SNMP_TAG_INTEGER, 0);
    if (v == nullptr) {
        return false;
    }
    vb->value = v;
    return true;
}

// An error answer carries the request's varBinds back unchanged.
bool echo_request(Peer* p, const snmp_pdu* request, int32_t status, int32_t index) {
    for (uint32_t i = 0; i < request->varBind_count; i++) {
        snmp_varBind* vb = &p->answer->varBinds[i];
        snmp_container* name = snmp_copy_container_value(vb->name, request->varBinds[i].name);
        if (name != nullptr) {
            vb->name = name;
        }
        snmp_container* value = snmp_copy_container_value(vb->value, request->varBinds[i].value);
        if (value != nullptr) {
            vb->value = value;
        }
        if (name == nullptr || value == nullptr) {
            return false;
        }
    }
    p->answer->varBind_count = request->varBind_count;
    p->answer->error_status = status;
    p->answer->error_index = index;
    return true;
}

bool answer_request(int fd, Peer* p, const snmp_pdu* request, bool next) {
    p->answer->request_id = request->request_id;
    p->answer->error_status = 0;
    p->answer->error_index = 0;
    p->answer->varBind_count = 0;
    bool ok = request->varBind_count <= kMaxVarBinds;
    int32_t status = ok ? 0 : kGenErr;
    int32_t index = 0;
    for (uint32_t i = 0; ok && status == 0 && i < request->varBind_count; i++) {
        const snmp_container* name = request->varBinds[i].name;
        const uint32_t* subids = snmp_container_const_subids(name);
        uint32_t n = next ? fwd_next_index(subids, name->length, p->count)
                          : fwd_get_index(subids, name->length, p->count);
        if (n == 0) {
            // For GetNext this tells snmpd to go on in the next subtree.
            status = kNoSuchName;
            index = static_cast<int32_t>(i + 1);
        } else {
            ok = put_object(p, i, n);
        }
    }
    if (!ok && status == 0) {
        status = kGenErr;
    }
    if (status != 0) {
        if (!echo_request(p, request, status, index)) {
            return false;
        }
    } else {
        p->answer->varBind_count = request->varBind_count;
    }
    return send_record(fd, &p->answer_record);
}

int connect_agent(uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

bool open_session(int fd, const char* identity, const char* password) {
    static const char description[] = "varnex2 forwarding benchmark SMUX peer";
    smux_pdu open{};
    open.type = SMUX_PDU_OPEN;
    open.version = 0;
    open.oid = snmp_create_oid_container(identity);
    open.description_len = sizeof description - 1;
    memcpy(open.description, description, sizeof description);
    open.password_len = static_cast<uint32_t>(strlen(password));
    if (open.oid == nullptr || open.password_len >= SMUX_TEXT_SIZE) {
        snmp_free_container(open.oid);
        return false;
    }
    memcpy(open.password, password, open.password_len + 1);
    smux_pdu reg{};
    reg.type = SMUX_PDU_RREQ;
    reg.priority = -1;
    reg.operation = 1;  // readOnly
    reg.oid = snmp_create_oid_container(FWD_ROOT_TEXT);
    // Sent back to back: snmpd answers the OpenPDU with nothing, and the RReq with an RRsp
    // that the main loop checks.
    bool ok = reg.oid != nullptr && send_record(fd, &open) && send_record(fd, &reg);
    snmp_free_container(open.oid);
    snmp_free_container(reg.oid);
    return ok;
}

// Handles one PDU; false ends the session.
bool handle_pdu(int fd, Peer* p, const uint8_t* data, uint32_t length) {
    smux_pdu* in = nullptr;
    if (smux_decode_message(data, length, &in) != SNMP_CODEC_OK) {
        fprintf(stderr, "fwd_smux_peer: cannot decode a PDU of %u bytes\n", length);
        return false;
    }
    switch (in->type) {
        case SNMP_PDU_GET:
        case SNMP_PDU_GETNEXT:
            return answer_request(fd, p, in->snmp, in->type == SNMP_PDU_GETNEXT);
        case SMUX_PDU_RRSP:
            if (in->code < 0) {
                fprintf(stderr, "fwd_smux_peer: registration refused\n");
                return false;
            }
            printf("fwd_smux_peer: serving %u objects under %s\n", p->count, FWD_ROOT_TEXT);
            fflush(stdout);
            return true;
        case SMUX_PDU_CLOSE:
            fprintf(stderr, "fwd_smux_peer: the agent closed the session, reason %d\n",
                    static_cast<int>(in->code));
            return false;
        default:
            // SOut and Set do not occur for read-only objects; nothing else is for us.
            return true;
    }
}

}  // namespace

int main(int argc, char** argv) {
    Peer peer;
    const char* identity = "1.3.6.1.4.1.99999.1";
    const char* password = "secret";
    int opt;
    uint16_t port = 199;
    while ((opt = getopt(argc, argv, "n:i:p:P:")) != -1) {
        if (opt == 'n') {
            peer.count = static_cast<uint32_t>(strtoul(optarg, nullptr, 10));
        } else if (opt == 'i') {
            identity = optarg;
        } else if (opt == 'p') {
            password = optarg;
        } else if (opt == 'P') {
            port = static_cast<uint16_t>(strtoul(optarg, nullptr, 10));
        } else {
            fprintf(stderr, "usage: %s [-n objects] [-i identity] [-p password] [-P port]\n", argv[0]);
            return 2;
        }
    }

    struct sigaction sa{};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    peer.object_name = snmp_create_oid_container(FWD_ROOT_TEXT ".1.1");
    peer.answer = snmp_create_pdu(kMaxVarBinds);
    if (peer.object_name == nullptr || peer.answer == nullptr) {
        fprintf(stderr, "fwd_smux_peer: out of memory\n");
        return 1;
    }
    peer.answer_record.type = SNMP_PDU_RESPONSE;
    peer.answer_record.snmp = peer.answer;

    int fd = connect_agent(port);
    if (fd < 0 || !open_session(fd, identity, password)) {
        fprintf(stderr, "fwd_smux_peer: cannot open a SMUX session on 127.0.0.1:%u\n", port);
        return 1;
    }

    static uint8_t buffer[kReadSize];
    size_t have = 0;
    int status = 0;
    while (!g_stop) {
        ssize_t n = recv(fd, buffer + have, sizeof buffer - have, 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (n == 0) {
                fprintf(stderr, "fwd_smux_peer: the agent closed the connection\n");
            }
            status = 1;
            break;
        }
        have += static_cast<size_t>(n);
        size_t used = 0;
        for (;;) {
            long size = pdu_size(buffer + used, have - used);
            if (size < 0 || static_cast<size_t>(size) > sizeof buffer) {
                fprintf(stderr, "fwd_smux_peer: unusable PDU header\n");
                status = 1;
                break;
            }
            if (size == 0 || static_cast<size_t>(size) > have - used) {
                break;
            }
            if (!handle_pdu(fd, &peer, buffer + used, static_cast<uint32_t>(size))) {
                status = 1;
                break;
            }
            used += static_cast<size_t>(size);
        }
        if (status != 0) {
            break;
        }
        memmove(buffer, buffer + used, have - used);
        have -= used;
    }
    close(fd);
    snmp_free_pdu(peer.answer, kMaxVarBinds);
    snmp_free_container(peer.object_name);
    return g_stop ? 0 : status;
}
