// Forwarding of the agent's requests to DPI subagents, and of subagents' traps to the agent.
//
// A request is answered synchronously: the daemon sends one DPI packet, then waits on the
// subagent's connection alone until the whole RESPONSE is in, at most 8 seconds from the
// request however the subagent spreads its bytes, or the subagent is dropped. Meanwhile the
// agent waits for its GetResponse and must get nothing from us but Traps; a subagent dropped
// here only changes what the session is to tell the agent later.
#include "forward.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "agentx_session.h"
#include "conn.h"
#include "registry.h"
#include "session.h"
#include "smux_ed.h"
#include "snmp_container.h"
#include "snmp_dpi.h"
#include "snmp_ed.h"
#include "dpi_tables.h"
#include "trace.h"

namespace {

enum : int {
    FWD_NO_ERROR = 0,
    FWD_NO_SUCH_NAME = 2,
    FWD_BAD_VALUE = 3,
    FWD_GEN_ERR = 5,
};

// Every DPI buffer of the daemon holds one packet of at most 4096 bytes on the wire, and
// object identifiers travel as text that must fit in a packet, so 8192 is ample for texts.
inline constexpr unsigned FWD_PACKET_SIZE = 4096;
inline constexpr size_t FWD_TEXT_SIZE = 8192;

constexpr const char* DPI_PORT_INSTANCE = "1.3.6.1.4.1.2.2.1.1.1.0";

}  // namespace

// The daemon's own object: the DPI port, so that subagents can learn it from the agent.
int do_mib_request(uint8_t type, snmp_varBind* vb) {
    static snmp_container* dpi_port_oid_p = nullptr;  // kept for the life of the process
    if (dpi_port_oid_p == nullptr) {
        dpi_port_oid_p = snmp_create_oid_container(DPI_PORT_INSTANCE);
        if (dpi_port_oid_p == nullptr) {
            VX_TRACE(TRACE_LVL1, "genErr\n");
            return FWD_GEN_ERR;
        }
    }
    int32_t c = snmp_compare_oid_subids(vb->name, dpi_port_oid_p, 0);
    bool answer = false;
    if (type == SNMP_PDU_GETNEXT) {
        answer = c < 0 && c != SNMP_ERR_NOT_OID;
    } else if (type == SNMP_PDU_GET) {
        answer = c == 0;
    }
    if (!answer) {
        VX_TRACE(TRACE_LVL2, "noSuchName\n");
        return FWD_NO_SUCH_NAME;
    }

    snmp_container* name = snmp_copy_container_value(vb->name, dpi_port_oid_p);
    if (name == nullptr) {
        VX_TRACE(TRACE_LVL2, "genErr\n");
        return FWD_GEN_ERR;
    }
    vb->name = name;
    int32_t port = dpi_port;
    snmp_container* value =
        vb->value != nullptr
            ? snmp_replace_container_value(vb->value, &port, 4, SNMP_TAG_INTEGER, SNMP_HINT_NONE)
            : snmp_create_value_container(&port, 4, SNMP_TAG_INTEGER, SNMP_HINT_NONE);
    if (value == nullptr) {
        VX_TRACE(TRACE_LVL2, "genErr\n");
        return FWD_GEN_ERR;
    }
    vb->value = value;
    return 0;
}

int process_req(uint8_t type, snmp_varBind* vb) {
    registration_entry* e = mop_list;
    for (; e != nullptr; e = e->next) {
        uint32_t n = e->subtree->length;
        int32_t c = snmp_compare_oid_subids(vb->name, e->subtree, n);
        if (c == 0 || (c == -1 && type == SNMP_PDU_GETNEXT)) {
            break;
        }
    }
    if (e == nullptr) {
        return FWD_NO_SUCH_NAME;
    }

    int first = 1;
    int rc;
    do {
        if (e->fd == -1) {
            rc = do_mib_request(type, vb);
        } else {
            unsigned removals = removal_count;
            rc = remote_mib_req(type, vb, e, first);
            // A subagent dropped during the exchange takes its entries with it, perhaps
            // this one; the walk cannot go on from a released entry.
            if (removals != removal_count) {
                return rc;
            }
        }
        first = 0;
        e = e->next;
    } while (rc == FWD_NO_SUCH_NAME && type == SNMP_PDU_GETNEXT && e != nullptr);
    return rc;
}

// Parse tree of the last packet read from the subagent during an exchange.
static dpi_hdr* hdr = nullptr;

static void release_hdr(void) {
    fDPIparse(hdr);
    hdr = nullptr;
}

static int map_error_code(unsigned code) {
    int status = FWD_GEN_ERR;
    if (code < dpi_error_table.size()) {
        status = dpi_error_table[code];
    }
    if (static_cast<int>(code) == status) {
        return status;
    }
    // The code is one byte; shown as a signed byte, so that 255 reads -1.
    int shown = static_cast<int8_t>(static_cast<uint8_t>(code));
    if (status == FWD_NO_SUCH_NAME) {
        VX_TRACE(TRACE_LVL2, "converting error_code %d to noSuchName\n", shown);
    } else if (status == FWD_BAD_VALUE) {
        VX_TRACE(TRACE_LVL2, "converting error_code %d to badValue\n", shown);
    } else {
        VX_TRACE(TRACE_LVL2, "converting error_code %d to genErr\n", shown);
    }
    return status;
}

// The instance is what follows the group text (which ends with its dot) in the request
// OID; anything that does not lie inside the group, the group itself included, asks for
// the group's first object.
static const char* instance_of(const char* oid_text, const char* subtree_text) {
    size_t n = strlen(subtree_text);
    if (oid_text[0] != '\0' && strncmp(oid_text, subtree_text, n) == 0) {
        return oid_text + n;
    }
    return "";
}

static const unsigned char* mkMIBquery(int type, const char* oid_text, const char* subtree_text,
                                       int value_type, int value_len, const unsigned char* value) {
    dpi_hdr* query = mkDPIhdr_version(type, 2, 0);
    if (query == nullptr) {
        return nullptr;
    }
    const char* instance = instance_of(oid_text, subtree_text);
    switch (type) {
        case SNMP_DPI_GET:
            query->data = mkDPIget_packet(nullptr, subtree_text, instance);
            break;
        case SNMP_DPI_GETNEXT:
            query->data = mkDPInext_packet(nullptr, subtree_text, instance);
            break;
        case SNMP_DPI_SET:
        case SNMP_DPI_COMMIT:
            query->data =
                mkDPIset_packet(nullptr, subtree_text, instance, value_type, value_len, value);
            if (query->data == nullptr) {
                fDPIparse(query);
                return nullptr;
            }
            break;
        default:
            fprintf(stderr, "mkMIBquery: Unknown packet_type: %d\n", type);
            fDPIparse(query);
            return nullptr;
    }
    // A GET or GETNEXT without a body serialises to nothing, which is the failure we want.
    return mkDPIpacket(query);
}

// Reads packets from the subagent until one is a RESPONSE, forwarding any TRAP met on the
// way, until `deadline_ns`. Returns 0 with the RESPONSE in `hdr`, or genErr once the
// subagent has been dropped.
static int await_response(int fd, int64_t deadline_ns, bool trace_read_failure) {
    vx_conn* c = subagent_conn(fd);
    for (;;) {
        uint32_t total = 0;
        if (c == nullptr || conn_await_dpi(c, deadline_ns, &total) != 0) {
            if (trace_read_failure) {
                VX_TRACE(TRACE_LVL1, "can't read response packet or timeout");
            }
            unregister_fd(fd);
            return FWD_GEN_ERR;
        }
        if (tracing & TRACE_LVL3) {
            log_bfr(c->buf, static_cast<int>(total), "Incoming DPI packet");
        }
        release_hdr();
        hdr = pDPIpacket(c->buf);
        conn_consume(c, total);
        if (hdr == nullptr || (hdr->packet_type == SNMP_DPI_RESPONSE && hdr->data == nullptr)) {
            release_hdr();
            unregister_fd(fd);
            return FWD_GEN_ERR;
        }
        if (hdr->packet_type == SNMP_DPI_TRAP) {
            auto* trap = static_cast<dpi_trap_packet*>(hdr->data);
            if (trap != nullptr) {
                forward_trap(trap->generic, trap->specific, trap->enterprise_id,
                             trap->varBinds);
            }
            continue;
        }
        if (hdr->packet_type == SNMP_DPI_RESPONSE) {
            return FWD_NO_ERROR;
        }
        VX_TRACE(TRACE_LVL1, "unexpected packet type: %d", hdr->packet_type);
        release_hdr();
        unregister_fd(fd);
        return FWD_GEN_ERR;
    }
}

// The whole answer to a packet sent now must be in within this.
static int64_t answer_deadline(void) {
    return vx_now_ns() + static_cast<int64_t>(DPI_WAIT_SECONDS) * 1000000000;
}

int forward_exchange(int fd, const unsigned char* packet, dpi_hdr** out) {
    *out = nullptr;
    if (packet == nullptr) {
        VX_TRACE(TRACE_LVL1, "error making DPI packet for remote agent");
        return -1;
    }
    if (DPIsend(fd, packet) != 0) {
        unregister_fd(fd);
        return -2;
    }
    if (await_response(fd, answer_deadline(), true) != 0) {
        return -2;
    }
    *out = hdr;
    hdr = nullptr;
    return 0;
}

// Numeric order of two dotted OID texts: <0, 0, >0. Texts that are not numbers fall back to
// byte order, so the result is always defined.
static int compare_oid_text(const char* a, const char* b) {
    for (;;) {
        if (*a == '\0' || *b == '\0') {
            return (*a != '\0') - (*b != '\0');
        }
        char* end_a = nullptr;
        char* end_b = nullptr;
        unsigned long x = strtoul(a, &end_a, 10);
        unsigned long y = strtoul(b, &end_b, 10);
        if (x != y) {
            return x < y ? -1 : 1;
        }
        if (end_a == a || end_b == b) {
            return strcmp(a, b);
        }
        a = *end_a == '.' ? end_a + 1 : end_a;
        b = *end_b == '.' ? end_b + 1 : end_b;
    }
}

// Copies `src` into `dst` of `size` bytes, cut to fit and always terminated; what
// snprintf("%s") does, without parsing a format on every forwarded request.
static void copy_text(char* dst, size_t size, const char* src) {
    size_t n = strnlen(src, size - 1);
    memcpy(dst, src, n);
    dst[n] = '\0';
}

struct rmt_reply {
    char* oid;  // FWD_TEXT_SIZE bytes
    int* type;
    int* len;
    unsigned char* value;  // FWD_PACKET_SIZE bytes
};

static void copy_reply(const dpi_set_packet* vb, const rmt_reply& reply) {
    copy_text(reply.oid, FWD_TEXT_SIZE, vb->object_id != nullptr ? vb->object_id : "");
    *reply.type = vb->value_type;
    unsigned len = vb->value_len < FWD_PACKET_SIZE ? vb->value_len : FWD_PACKET_SIZE;
    *reply.len = static_cast<int>(len);
    if (len != 0 && vb->value != nullptr) {
        memcpy(reply.value, vb->value, len);
    }
}

static int rmt_call(int fd, int type, const char* oid_text, const char* subtree_text,
                    int value_type, int value_len, const unsigned char* value, char* reply_oid,
                    int* reply_type, int* reply_len, unsigned char* reply_value) {
    const rmt_reply reply{reply_oid, reply_type, reply_len, reply_value};
    // A GETNEXT that meets a Counter64 object starts again from that object.
    char restart_oid[FWD_TEXT_SIZE];
    const char* request_oid = oid_text;

    const unsigned char* packet =
        mkMIBquery(type, oid_text, subtree_text, value_type, value_len, value);
    int code = 0;
    for (;;) {
        if (packet == nullptr) {
            VX_TRACE(TRACE_LVL1, "error making DPI packet for remote agent");
            return FWD_GEN_ERR;
        }
        if (DPIsend(fd, packet) != 0) {
            unregister_fd(fd);
            return FWD_GEN_ERR;
        }
        if (await_response(fd, answer_deadline(), true) != 0) {
            return FWD_GEN_ERR;
        }
        auto* resp = static_cast<dpi_resp_packet*>(hdr->data);
        code = resp->error_code;
        const dpi_set_packet* vb = resp->varBinds;
        if (vb == nullptr) {
            if (type == SNMP_DPI_SET) {
                copy_text(reply.oid, FWD_TEXT_SIZE, oid_text);
                *reply.type = value_type;
                *reply.len = value_len;
                if (value_len > 0) {
                    memcpy(reply.value, value, static_cast<size_t>(value_len));
                }
            } else if (code == 0) {
                code = FWD_GEN_ERR;
            }
            break;
        }
        if (vb->value_type == DPI_TYPE_Counter64 && type == SNMP_DPI_GET) {
            // SNMPv1 cannot carry a Counter64: to the manager the object is not there.
            code = FWD_NO_SUCH_NAME;
        } else if (vb->value_type == DPI_TYPE_Counter64 && type == SNMP_DPI_GETNEXT) {
            VX_TRACE(TRACE_LVL1, "===>skipping Counter64 varBind");
            const char* next = vb->object_id != nullptr ? vb->object_id : "";
            // Each round must move forward inside the subtree, or a subagent that keeps
            // answering the same Counter64 object would hold the agent here for ever.
            if (strncmp(next, subtree_text, strlen(subtree_text)) != 0) {
                release_hdr();
                return FWD_NO_SUCH_NAME;
            }
            if (compare_oid_text(next, request_oid) <= 0 || strlen(next) >= sizeof restart_oid) {
                release_hdr();
                return FWD_GEN_ERR;
            }
            copy_text(restart_oid, sizeof restart_oid, next);
            request_oid = restart_oid;
            packet = mkMIBquery(SNMP_DPI_GETNEXT, restart_oid, subtree_text, value_type, value_len,
                                value);
            release_hdr();
            continue;
        }
        copy_reply(vb, reply);
        break;
    }

    release_hdr();
    // A SET the subagent refused ends here too: nothing was changed, so there is nothing to
    // commit or undo.
    if (type != SNMP_DPI_SET || code != 0) {
        return map_error_code(static_cast<unsigned>(code));
    }

    packet = mkMIBquery(SNMP_DPI_COMMIT, oid_text, subtree_text, value_type, value_len, value);
    if (packet == nullptr) {
        VX_TRACE(TRACE_LVL1, "error making DPI commit packet for remote agent");
        return FWD_GEN_ERR;
    }
    if (DPIsend(fd, packet) != 0) {
        unregister_fd(fd);
        return FWD_GEN_ERR;
    }
    if (await_response(fd, answer_deadline(), false) != 0) {
        return FWD_GEN_ERR;
    }
    code = static_cast<dpi_resp_packet*>(hdr->data)->error_code;
    release_hdr();
    return map_error_code(static_cast<unsigned>(code));
}

static int fill_varBind(int type, int len, const unsigned char* bytes, const char* oid_text,
                        snmp_varBind* vb) {
    if (oid_text != nullptr) {
        snmp_container* name = vb->name != nullptr
                                   ? snmp_fill_container_with_oid(vb->name, oid_text)
                                   : snmp_create_oid_container(oid_text);
        if (name == nullptr) {
            VX_TRACE(TRACE_LVL1, "genErr\n");
            return FWD_GEN_ERR;
        }
        vb->name = name;
    }

    const dpi_to_snmp_row* row = nullptr;
    for (const dpi_to_snmp_row& r : dpi_to_snmp_table) {
        if (r.dpi_type == type) {
            row = &r;
            break;
        }
    }
    if (row == nullptr) {
        VX_TRACE(TRACE_LVL1, "genErr, unknown type=%d", type);
        return FWD_GEN_ERR;
    }
    if (row->form == FORM_NO_SUCH) {
        return FWD_NO_SUCH_NAME;
    }

    static const uint32_t zero_word = 0;
    const void* p = bytes;
    uint32_t n = static_cast<uint32_t>(len < 0 ? 0 : len);
    if (row->form == FORM_NULL) {
        p = &zero_word;
        n = 4;
    } else if (p == nullptr) {
        p = &zero_word;  // an empty string still needs a valid address
    }
    snmp_container* value = vb->value != nullptr
                                ? snmp_replace_container_value(vb->value, p, n, row->tag, row->hint)
                                : snmp_create_value_container(p, n, row->tag, row->hint);
    if (value == nullptr) {
        VX_TRACE(TRACE_LVL1, "genErr\n");
        return FWD_GEN_ERR;
    }
    vb->value = value;
    return FWD_NO_ERROR;
}

int remote_mib_req(uint8_t type, snmp_varBind* vb, registration_entry* entry, int first) {
    int dpi_type = 0;
    switch (type) {
        case SNMP_PDU_GET:
            dpi_type = SNMP_DPI_GET;
            break;
        case SNMP_PDU_GETNEXT:
            dpi_type = SNMP_DPI_GETNEXT;
            break;
        case SNMP_PDU_SET:
            dpi_type = SNMP_DPI_SET;
            break;
        default:
            return FWD_GEN_ERR;
    }

    static char oid_text[FWD_TEXT_SIZE];
    static char subtree_text[FWD_TEXT_SIZE];
    memset(oid_text, 0, sizeof oid_text);
    memset(subtree_text, 0, sizeof subtree_text);

    if (first) {
        char* text = snmp_oid_to_string(vb->name);
        if (text == nullptr || strlen(text) >= sizeof oid_text) {
            free(text);
            VX_TRACE(TRACE_LVL1, "genErr");
            return FWD_GEN_ERR;
        }
        memcpy(oid_text, text, strlen(text));
        free(text);
    }
    {
        char* text = snmp_oid_to_string(entry->subtree);
        if (text == nullptr || strlen(text) >= sizeof subtree_text - 1) {
            free(text);
            VX_TRACE(TRACE_LVL1, "genErr");
            return FWD_GEN_ERR;
        }
        size_t n = strlen(text);
        memcpy(subtree_text, text, n);
        subtree_text[n] = '.';
        free(text);
    }

    // The value as the subagent will see it in a SET (and COMMIT); for GET and GETNEXT it is
    // worked out the same way but not sent.
    const snmp_container* v = vb->value;
    uint8_t tag = v != nullptr ? v->tag : static_cast<uint8_t>(SNMP_TAG_NULL);
    uint32_t word = v != nullptr ? v->value.u32 : 0;
    int value_type = DPI_TYPE_NULL;
    int value_len = 4;
    const unsigned char* value = reinterpret_cast<const unsigned char*>(&word);
    char* oid_value_text = nullptr;

    const snmp_to_dpi_row* row = nullptr;
    for (const snmp_to_dpi_row& r : snmp_to_dpi_table) {
        if (r.tag == tag) {
            row = &r;
            break;
        }
    }
    if (row == nullptr) {
        if (dpi_type == SNMP_DPI_SET) {
            VX_TRACE(TRACE_LVL1, "genErr");
            return FWD_GEN_ERR;
        }
    } else if (tag == SNMP_TAG_OCTET_STRING) {
        value_type = v->hint == 1 ? DPI_TYPE_DisplayString : DPI_TYPE_OCTET_STRING;
        value_len = static_cast<int>(v->length);
        value = snmp_container_const_octets(v);
    } else if (tag == SNMP_TAG_OID) {
        oid_value_text = snmp_oid_to_string(v);
        if (oid_value_text == nullptr) {
            VX_TRACE(TRACE_LVL1, "genErr");
            return FWD_GEN_ERR;
        }
        value_type = DPI_TYPE_OBJECT_IDENTIFIER;
        value_len = static_cast<int>(strlen(oid_value_text));
        value = reinterpret_cast<const unsigned char*>(oid_value_text);
    } else {
        value_type = row->dpi_type;
    }

    char reply_oid[FWD_TEXT_SIZE] = {};
    static unsigned char reply_value[FWD_PACKET_SIZE];
    memset(reply_value, 0, sizeof reply_value);
    int reply_type = 0;
    int reply_len = 0;
    int rc = rmt_call(entry->fd, dpi_type, oid_text, subtree_text, value_type, value_len, value,
                      reply_oid, &reply_type, &reply_len, reply_value);
    VX_RC(rc, "rmt_call");
    free(oid_value_text);
    if (rc != 0) {
        return rc;
    }
    VX_TRACE(TRACE_LVL1, "Type = %x  OID = %s\n", reply_type, reply_oid);
    if (dpi_type == SNMP_DPI_SET) {
        return FWD_NO_ERROR;
    }
    if (dpi_type == SNMP_DPI_GET) {
        return fill_varBind(reply_type, reply_len, reply_value, nullptr, vb);
    }
    return fill_varBind(reply_type, reply_len, reply_value, reply_oid, vb);
}

void forward_trap(int generic, int specific, const char* enterprise, dpi_set_packet* varBinds) {
    if (agentx_master.set) {
        agentx_notify(generic, specific, enterprise, varBinds);
    } else {
        process_dpi_trapv1(generic, specific, enterprise, varBinds);
    }
}

void process_dpi_trapv1(int generic, int specific, const char* enterprise,
                        dpi_set_packet* varBinds) {
    smux_pdu pdu;
    memset(&pdu, 0, sizeof pdu);
    int status = 0;

    uint32_t count = 0;
    for (const dpi_set_packet* p = varBinds; p != nullptr; p = p->next) {
        count++;
    }
    snmp_trap_pdu* trap = snmp_create_trap_pdu(count);
    if (trap == nullptr) {
        VX_SAY("Out of memory\n");
        return;
    }
    const char* text = enterprise != nullptr && enterprise[0] != '\0' ? enterprise : myoid;
    trap->enterprise = text != nullptr ? snmp_create_oid_container(text) : nullptr;
    if (trap->enterprise == nullptr) {
        VX_SAY("Out of memory\n");
        snmp_free_trap_pdu(trap, count);
        return;
    }

    unsigned long converted = 0;
    for (const dpi_set_packet* p = varBinds; p != nullptr; p = p->next) {
        if (p->value_type == DPI_TYPE_Counter64) {
            VX_TRACE(TRACE_LVL1, "===>skip Counter64 varBind\n");
            continue;
        }
        status =
            fill_varBind(p->value_type, p->value_len, p->value,
                         p->object_id != nullptr ? p->object_id : "", &trap->varBinds[converted]);
        if (status != 0) {
            break;
        }
        converted++;
    }
    trap->varBind_count = static_cast<uint32_t>(converted);
    VX_TRACE(TRACE_LVL2, "We have %lu varBinds\n", converted);

    if (status == 0) {
        trap->generic_trap = generic;
        trap->specific_trap = specific;
        pdu.type = SNMP_PDU_TRAP;
        pdu.trap = trap;
        uint8_t* buf = nullptr;
        uint32_t len = 0;
        status = smux_encode_message(&buf, &len, &pdu);
        VX_RC(status, "smux_encode_message");
        if (status == 0) {
            status = SMUXsend(buf, static_cast<int>(len));
        }
    }
    if (status != 0) {
        VX_TRACE(TRACE_LVL1, "Could not send trap\n");
    }

    // Entries past the last one filled are still empty, so releasing all `count` of them
    // also catches the containers of a varBind whose conversion failed half-way.
    snmp_free_trap_pdu(trap, count);
}
