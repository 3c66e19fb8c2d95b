// The AgentX session: Open, Registers and Unregisters, Pings, Notifies and the Close.
#include "agentx_session.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agentx_ed.h"
#include "conn.h"
#include "dpi_tables.h"
#include "holdings.h"
#include "session.h"
#include "snmp_container.h"
#include "snmp_dpi.h"
#include "trace.h"

uint32_t agentx_session_id = 0;

namespace {

constexpr int64_t NS_PER_S = 1000000000;
// Room for the largest PDU the daemon writes: a Response to a GetBulk is cut to fit.
constexpr uint32_t AGENTX_OUT_SIZE = 65536;
constexpr int CLOSE_WAIT_MS = 1000;

constexpr char SYS_UPTIME_0[] = "1.3.6.1.2.1.1.3.0";
constexpr char SNMP_TRAP_OID_0[] = "1.3.6.1.6.3.1.1.4.1.0";
constexpr char SNMP_TRAP_ENTERPRISE_0[] = "1.3.6.1.6.3.1.1.4.3.0";
constexpr char SNMP_TRAPS[] = "1.3.6.1.6.3.1.1.5";  // coldStart is .1, ... egpNeighborLoss .6

enum session_state { AX_CLOSED, AX_OPENING, AX_OPEN };

session_state state = AX_CLOSED;
uint32_t last_packet_id = 0;
uint32_t first_packet_id = 0;  // the Open's: ids after it belong to this session
int64_t open_sent_ns = 0;
int64_t last_rx_ns = 0;
int ping_in_flight = 0;
uint32_t ping_packet_id = 0;
int64_t ping_sent_ns = 0;
const int64_t started_ns = vx_now_ns();

uint8_t out[AGENTX_OUT_SIZE];

// AgentX's own error names; the SNMP error statuses below 256 are shown as numbers.
constexpr std::array<const char*, 13> agentx_error_names{{
    "openFailed", "notOpen", "indexWrongType", "indexAlreadyAllocated", "indexNoneAvailable",
    "indexNotAllocated", "unsupportedContext", "duplicateRegistration", "unknownRegistration",
    "unknownAgentCaps", "parseError", "requestDenied", "processingError",
}};
static_assert(agentx_error_names.size() ==
              AGENTX_ERR_PROCESSING_ERROR - AGENTX_ERR_OPEN_FAILED + 1);

const char* error_name(unsigned error) {
    static char number[32];
    if (error >= AGENTX_ERR_OPEN_FAILED && error <= AGENTX_ERR_PROCESSING_ERROR) {
        return agentx_error_names[error - AGENTX_ERR_OPEN_FAILED];
    }
    snprintf(number, sizeof number, "error status %u", error);
    return number;
}

uint32_t new_packet_id(void) {
    if (++last_packet_id == 0) {
        last_packet_id = 1;
    }
    return last_packet_id;
}

// Whether `id` was given to a PDU of the present session: ids grow from the Open's.
bool issued(uint32_t id) {
    return id - first_packet_id <= last_packet_id - first_packet_id;
}

int write_all(const uint8_t* buf, uint32_t len) {
    if (tracing & TRACE_LVL3) {
        log_bfr(buf, static_cast<int>(len), "Outgoing AgentX PDU");
    }
    ssize_t written = write(smux_fd, buf, len);
    if (written < 0) {
        perror("AgentXsend::write");
        return -1;
    }
    if (static_cast<uint32_t>(written) < len) {
        VX_SAY("Only %d of %u written on AgentX fd %d\n", static_cast<int>(written), len, smux_fd);
        return -1;
    }
    return 0;
}

snmp_container* null_oid(void) {
    snmp_container* c = snmp_create_container(SNMP_NATIVE_OID, 1);
    if (c != nullptr) {
        c->tag = SNMP_TAG_OID;
    }
    return c;
}

// Appends the varbind `name_text` = `value`; the value is released on failure.
int add_varbind(agentx_pdu* pdu, const char* name_text, snmp_container* value) {
    snmp_container* name = snmp_create_oid_container(name_text);
    if (value == nullptr || name == nullptr || agentx_add_varbind(pdu, name, value) != AGENTX_OK) {
        snmp_free_container(name);
        snmp_free_container(value);
        return -1;
    }
    return 0;
}

// Register or Unregister for `s`, appended to `out` at `*used`. 0, or the codec's code.
int encode_registration(held_subtree* s, uint32_t id, uint32_t* used) {
    agentx_pdu pdu{};
    pdu.header.type = s->wanted ? AGENTX_REGISTER_PDU : AGENTX_UNREGISTER_PDU;
    pdu.header.session_id = agentx_session_id;
    pdu.header.packet_id = id;
    pdu.priority = AGENTX_PRIORITY;
    // net-snmp's master times requests out by their registration's time-out, not the
    // session's.
    pdu.timeout = AGENTX_TIMEOUT_SECONDS;
    pdu.oid = s->oid;  // borrowed for the encoding only
    uint32_t len = 0;
    int rc = agentx_encode_pdu(&pdu, out + *used, AGENTX_OUT_SIZE - *used, &len);
    if (rc == AGENTX_OK) {
        *used += len;
    }
    return rc;
}

void trace_held(const char* what, const held_subtree* s, bool always) {
    if (always || (tracing & TRACE_LVL1)) {
        char* text = held_text(s);
        if (always) {
            VX_SAY("%s %s\n", what, text != nullptr ? text : "?");
        } else {
            VX_TRACE(TRACE_LVL1, "%s %s\n", what, text != nullptr ? text : "?");
        }
        free(text);
    }
}

int send_registrations(void) {
    uint32_t used = 0;
    for (held_subtree* s = held_subtrees; s != nullptr; s = s->next) {
        if (!held_needs_request(s)) {
            continue;
        }
        uint32_t id = new_packet_id();
        uint32_t before = used;
        int rc = encode_registration(s, id, &used);
        if (rc == AGENTX_NO_ROOM && before > 0) {
            break;  // the rest goes with the next flush
        }
        held_sent(s, id);
        if (rc != AGENTX_OK) {
            VX_RC(rc, "agentx_encode_pdu");
            held_answered(s, false);  // not a subtree the master could take; never offered
            continue;
        }
        trace_held(s->wanted ? "Register" : "Unregister", s, false);
    }
    return used == 0 ? 0 : write_all(out, used);
}

}  // namespace

// ---- open and close ----

int agentx_open(void) {
    int lines = read_peers_file(myname);
    wipe_password();  // AgentX has no password
    VX_TRACE(TRACE_LVL3, "Using line %d: %s %s\n", lines, myname,
             myoid != nullptr ? myoid : "(null)");
    agentx_pdu* pdu = agentx_create_pdu();
    if (pdu == nullptr) {
        VX_SAY("Out of memory\n");
        return -1;
    }
    pdu->header.type = AGENTX_OPEN_PDU;
    pdu->timeout = AGENTX_TIMEOUT_SECONDS;
    // Without a line in the peers file the session has no identity of its own, which AgentX
    // allows.
    pdu->oid = myoid != nullptr ? snmp_create_oid_container(myoid) : null_oid();
    pdu->description = snmp_create_value_container(varnex2_banner,
                                                   static_cast<uint32_t>(strlen(varnex2_banner)),
                                                   SNMP_TAG_OCTET_STRING, SNMP_HINT_NONE);
    if (pdu->oid == nullptr || pdu->description == nullptr) {
        VX_SAY("Cannot create identity\n");
        agentx_free_pdu(pdu);
        return -1;
    }
    agentx_session_id = 0;
    int rc = agentx_send(pdu);
    first_packet_id = pdu->header.packet_id;
    agentx_free_pdu(pdu);
    if (rc != 0) {
        return -1;
    }
    state = AX_OPENING;
    open_sent_ns = vx_now_ns();
    last_rx_ns = open_sent_ns;
    ping_in_flight = 0;
    return 0;
}

int agentx_is_open(void) {
    return state == AX_OPEN;
}

void agentx_close(uint8_t reason) {
    if (state != AX_OPEN || smux_fd < 0) {
        return;
    }
    agentx_pdu pdu{};
    pdu.header.type = AGENTX_CLOSE_PDU;
    pdu.reason = reason;
    if (agentx_send(&pdu) != 0) {
        return;
    }
    // The master answers a Close; a connection gone before that costs it a failed write.
    pollfd ready{.fd = smux_fd, .events = POLLIN, .revents = 0};
    if (poll(&ready, 1, CLOSE_WAIT_MS) > 0) {
        uint8_t answer[AGENTX_HEADER_LEN + 16];
        (void)recv(smux_fd, answer, sizeof answer, MSG_DONTWAIT);
    }
}

void agentx_lost(void) {
    state = AX_CLOSED;
    agentx_session_id = 0;
    ping_in_flight = 0;
}

// ---- the master's answers ----

void agentx_activity(int64_t now_ns) {
    last_rx_ns = now_ns;
}

int agentx_response(const agentx_pdu* pdu) {
    const agentx_header& h = pdu->header;
    if (state == AX_OPENING && h.packet_id == first_packet_id) {
        if (pdu->error != 0) {
            VX_SAY("AgentX Open refused: %s\n", error_name(pdu->error));
            return -1;
        }
        agentx_session_id = h.session_id;
        state = AX_OPEN;
        VX_TRACE(TRACE_LVL1, "AgentX session %u\n", agentx_session_id);
        VX_SAY("%s connected to agent, ready to receive requests.....\n", myname);
        return 0;
    }
    if (state != AX_OPEN || h.session_id != agentx_session_id || !issued(h.packet_id)) {
        VX_TRACE(TRACE_LVL1, "AgentX Response for session %u packet %u is none of ours\n",
                 h.session_id, h.packet_id);
        return 0;
    }
    if (ping_in_flight && h.packet_id == ping_packet_id) {
        ping_in_flight = 0;
        return 0;
    }
    held_subtree* s = held_in_flight(h.packet_id);
    if (s == nullptr) {
        // A Notify's (or a Ping's given up on).
        if (pdu->error != 0) {
            VX_TRACE(TRACE_LVL1, "AgentX packet %u answered with %s\n", h.packet_id,
                     error_name(pdu->error));
        }
        return 0;
    }
    bool accepted = pdu->error == 0;
    if (!accepted) {
        char what[80];
        snprintf(what, sizeof what, "%s refused by the master (%s):",
                 s->flight_add ? "Registration" : "Unregistration", error_name(pdu->error));
        trace_held(what, s, s->flight_add != 0);
    }
    held_answered(s, accepted);
    if (accepted) {
        // As over SMUX: every registration or withdrawal the master takes is announced with
        // a coldStart from the daemon's identity.
        agentx_notify(0, 0, myoid, nullptr);
    }
    return 0;
}

// ---- what is due ----

// Registers and Unregisters wait for a pause in the master's requests, as RReqs do over SMUX:
// net-snmp's master can crash when a subtree is unregistered while a request for it is on
// its way to us (seen under churn while managers walk). After AGENTX_HOLD_NS they go at the
// next chance. INT64_MAX when none is waiting.
static int64_t registrations_due(void) {
    constexpr int64_t AGENTX_QUIET_NS = 10'000'000;
    constexpr int64_t AGENTX_HOLD_NS = 4'000'000'000;
    int64_t oldest = INT64_MAX;
    for (const held_subtree* s = held_subtrees; s != nullptr; s = s->next) {
        if (held_needs_request(s) && s->pending_since < oldest) {
            oldest = s->pending_since;
        }
    }
    if (oldest == INT64_MAX) {
        return INT64_MAX;
    }
    int64_t quiet = last_rx_ns + AGENTX_QUIET_NS;
    int64_t hard = oldest + AGENTX_HOLD_NS;
    return quiet < hard ? quiet : hard;
}

int agentx_flush(int64_t now_ns) {
    if (smux_fd < 0 || state == AX_CLOSED) {
        return 0;
    }
    const int64_t wait_ns = AGENTX_PING_WAIT_SECONDS * NS_PER_S;
    if (state == AX_OPENING) {
        if (now_ns - open_sent_ns >= wait_ns) {
            VX_SAY("No answer to the AgentX Open\n");
            return -1;
        }
        return 0;
    }
    if (held_session_open() && now_ns >= registrations_due() && send_registrations() != 0) {
        return -1;
    }
    if (ping_in_flight && now_ns - ping_sent_ns >= wait_ns) {
        if (last_rx_ns < ping_sent_ns) {
            VX_SAY("The AgentX master does not answer\n");
            return -1;
        }
        ping_in_flight = 0;  // it spoke meanwhile; its answer to the Ping may still come
    }
    if (!ping_in_flight && now_ns - last_rx_ns >= AGENTX_PING_IDLE_SECONDS * NS_PER_S) {
        agentx_pdu pdu{};
        pdu.header.type = AGENTX_PING_PDU;
        if (agentx_send(&pdu) != 0) {
            return -1;
        }
        VX_TRACE(TRACE_LVL2, "AgentX Ping\n");
        ping_in_flight = 1;
        ping_packet_id = pdu.header.packet_id;
        ping_sent_ns = now_ns;
    }
    return 0;
}

int64_t agentx_next_flush(void) {
    const int64_t wait_ns = AGENTX_PING_WAIT_SECONDS * NS_PER_S;
    if (smux_fd < 0 || state == AX_CLOSED) {
        return INT64_MAX;
    }
    if (state == AX_OPENING) {
        return open_sent_ns + wait_ns;
    }
    int64_t due = held_session_open() ? registrations_due() : INT64_MAX;
    if (due != INT64_MAX) {
        return due;
    }
    return ping_in_flight ? ping_sent_ns + wait_ns
                          : last_rx_ns + AGENTX_PING_IDLE_SECONDS * NS_PER_S;
}

// ---- writing ----

int agentx_send(agentx_pdu* pdu) {
    pdu->header.session_id = agentx_session_id;
    pdu->header.transaction_id = 0;
    pdu->header.packet_id = new_packet_id();
    return agentx_write_pdu(pdu) == 0 ? 0 : -1;
}

int agentx_write_pdu(const agentx_pdu* pdu) {
    uint32_t len = 0;
    int rc = agentx_encode_pdu(pdu, out, sizeof out, &len);
    if (rc != AGENTX_OK) {
        VX_RC(rc, "agentx_encode_pdu");
        return rc;
    }
    return write_all(out, len);
}

uint32_t agentx_uptime(void) {
    return static_cast<uint32_t>((vx_now_ns() - started_ns) / 10000000);
}

// ---- values and notifications ----

int agentx_value_from_dpi(int type, int len, const unsigned char* bytes, snmp_container** slot) {
    const dpi_to_snmp_row* row = nullptr;
    for (const dpi_to_snmp_row& r : dpi_to_snmpv2_table) {
        if (r.dpi_type == type) {
            row = &r;
        }
    }
    for (const dpi_to_snmp_row& r : dpi_to_snmp_table) {
        if (row == nullptr && r.dpi_type == type) {
            row = &r;
        }
    }
    if (row == nullptr || row->form == FORM_NO_SUCH) {
        return -1;
    }
    static const uint32_t zero_word = 0;
    const void* p = bytes != nullptr ? bytes : reinterpret_cast<const unsigned char*>(&zero_word);
    auto n = static_cast<uint32_t>(len < 0 ? 0 : len);
    char text[DPI_PACKET_MAX + 1];
    switch (row->form) {
        case FORM_NULL:
        case FORM_EXCEPTION:
            p = &zero_word;
            n = 0;
            break;
        case FORM_OID_TEXT:
            if (n >= sizeof text) {
                return -1;
            }
            memcpy(text, p, n);
            text[n] = '\0';
            p = text;
            break;
        default:
            break;
    }
    snmp_container* c = *slot != nullptr
                            ? snmp_replace_container_value(*slot, p, n, row->tag, row->hint)
                            : snmp_create_value_container(p, n, row->tag, row->hint);
    if (c == nullptr) {
        return -1;
    }
    *slot = c;
    return 0;
}

void agentx_notify(int generic, int specific, const char* enterprise,
                   const dpi_set_packet* varBinds) {
    if (state != AX_OPEN) {
        VX_TRACE(TRACE_LVL1, "No AgentX session: trap dropped\n");
        return;
    }
    const char* from = enterprise != nullptr && enterprise[0] != '\0' ? enterprise : myoid;
    char trap_oid[DPI_PACKET_MAX + 32];
    if (generic >= 0 && generic <= 5) {
        snprintf(trap_oid, sizeof trap_oid, "%s.%d", SNMP_TRAPS, generic + 1);
    } else if (generic == 6 && from != nullptr) {
        snprintf(trap_oid, sizeof trap_oid, "%s.0.%u", from, static_cast<uint32_t>(specific));
    } else {
        trap_oid[0] = '\0';  // no trap OID can be made: not sent
    }
    agentx_pdu* pdu = agentx_create_pdu();
    int status = pdu == nullptr || trap_oid[0] == '\0' ? -1 : 0;
    if (status == 0) {
        pdu->header.type = AGENTX_NOTIFY_PDU;
        uint32_t now = agentx_uptime();
        status = add_varbind(pdu, SYS_UPTIME_0,
                             snmp_create_value_container(&now, 4, SNMP_TAG_TIMETICKS, 0)) |
                 add_varbind(pdu, SNMP_TRAP_OID_0,
                             snmp_create_value_container(trap_oid, 0, SNMP_TAG_OID, 0));
    }
    for (const dpi_set_packet* p = varBinds; status == 0 && p != nullptr; p = p->next) {
        snmp_container* value = nullptr;
        if (agentx_value_from_dpi(p->value_type, p->value_len, p->value, &value) != 0) {
            VX_TRACE(TRACE_LVL1, "genErr, unknown type=%d", p->value_type);
            status = -1;
        } else {
            status = add_varbind(pdu, p->object_id != nullptr ? p->object_id : "", value);
        }
    }
    if (status == 0 && from != nullptr) {
        status = add_varbind(pdu, SNMP_TRAP_ENTERPRISE_0,
                             snmp_create_value_container(from, 0, SNMP_TAG_OID, 0));
    }
    if (status == 0) {
        VX_TRACE(TRACE_LVL2, "We have %u varBinds\n", pdu->num_varbinds);
        status = agentx_send(pdu);
    }
    if (status != 0) {
        VX_TRACE(TRACE_LVL1, "Could not send trap\n");
    }
    agentx_free_pdu(pdu);
}
