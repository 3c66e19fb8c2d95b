// The AgentX master's requests, answered through DPI subagents with SNMPv2 semantics.
//
// Every request is answered synchronously, as over SMUX: the master waits for the answer
// (up to the session's time-out, longer than the daemon waits for a subagent), and while it
// waits it may send further requests, which queue on the connection.
#include "agentx_forward.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agentx_ed.h"
#include "agentx_session.h"
#include "conn.h"
#include "dpi_tables.h"
#include "forward.h"
#include "registry.h"
#include "snmp_container.h"
#include "snmp_dpi.h"
#include "snmp_ed.h"
#include "trace.h"

namespace {

enum : uint16_t {
    ERR_NO_ERROR = 0,
    ERR_TOO_BIG = 1,
    ERR_GEN_ERR = 5,
    ERR_WRONG_TYPE = 7,
    ERR_COMMIT_FAILED = 14,
    ERR_UNDO_FAILED = 15,
    ERR_NOT_WRITABLE = 17,
};

// Results of asking a subagent, beside a parsed RESPONSE.
enum : int { ASK_OK = 0, ASK_NO_PACKET = -1, ASK_DROPPED = -2 };

// Object identifiers travel to DPI as text of at most a packet's size.
constexpr size_t TEXT_SIZE = 8192;
// A GetBulk stops adding rows once its answer may come near the size of the write buffer.
constexpr uint32_t BULK_SIZE_LIMIT = 48 * 1024;

agentx_pdu* request = nullptr;  // the PDU being served; recycled
agentx_pdu* answer = nullptr;   // the Response being built; recycled

// net-snmp's master sends a request again, with the same packet id, each time its own
// time-out passes (agentxTimeout, 1 s unless configured), whatever time-out the session
// asked for. The copies queue behind the request while a subagent is slow; serving them
// would ask the subagents again, and a TestSet served twice would undo the first. So the
// packet ids of the latest requests are kept, and a copy is passed over.
constexpr int RECENT_REQUESTS = 32;
uint32_t recent[RECENT_REQUESTS];
int recent_next = 0;

bool served_before(const agentx_header& h) {
    for (uint32_t id : recent) {
        if (id == h.packet_id && id != 0) {
            return true;
        }
    }
    recent[recent_next] = h.packet_id;
    recent_next = (recent_next + 1) % RECENT_REQUESTS;
    return false;
}

// ---- the registration table and DPI ----

// The entry `oid` lies in, first in table order; null when none holds it.
registration_entry* entry_holding(const snmp_container* oid) {
    for (registration_entry* e = mop_list; e != nullptr; e = e->next) {
        if (snmp_compare_oid_subids(oid, e->subtree, e->subtree->length) == 0) {
            return e;
        }
    }
    return nullptr;
}

bool strictly_inside(const snmp_container* oid, const registration_entry* e) {
    return oid->length > e->subtree->length &&
           snmp_compare_oid_subids(oid, e->subtree, e->subtree->length) == 0;
}

// The DPI group of `e` ("<subtree>.") and the instance of `oid` below it ("" when `oid`
// is not below it).
bool dpi_names(const registration_entry* e, const snmp_container* oid, char* group,
               char* instance) {
    char* g = snmp_oid_to_string(e->subtree);
    char* o = snmp_oid_to_string(oid);
    bool ok = g != nullptr && o != nullptr && strlen(g) + 1 < TEXT_SIZE && strlen(o) < TEXT_SIZE;
    if (ok) {
        snprintf(group, TEXT_SIZE, "%s.", g);
        snprintf(instance, TEXT_SIZE, "%s", strictly_inside(oid, e) ? o + strlen(g) + 1 : "");
    }
    free(g);
    free(o);
    return ok;
}

// One DPI GET or GETNEXT of `oid` to the subagent of `e`.
int ask(int dpi_type, const registration_entry* e, const snmp_container* oid, dpi_hdr** resp) {
    static char group[TEXT_SIZE];
    static char instance[TEXT_SIZE];
    *resp = nullptr;
    if (!dpi_names(e, oid, group, instance)) {
        return ASK_NO_PACKET;
    }
    dpi_hdr* query = mkDPIhdr_version(dpi_type, 2, 0);
    if (query == nullptr) {
        return ASK_NO_PACKET;
    }
    query->data = dpi_type == SNMP_DPI_GET
                      ? static_cast<void*>(mkDPIget_packet(nullptr, group, instance))
                      : static_cast<void*>(mkDPInext_packet(nullptr, group, instance));
    return forward_exchange(e->fd, mkDPIpacket(query), resp);
}

const dpi_resp_packet* response_of(const dpi_hdr* resp) {
    return static_cast<const dpi_resp_packet*>(resp->data);
}

// ---- building the answer ----

snmp_container* exception(uint8_t tag) {
    return snmp_create_value_container(nullptr, 0, tag, SNMP_HINT_NONE);
}

// Appends `name` = `value` to the answer; takes both containers in every case.
int add(snmp_container* name, snmp_container* value) {
    if (name == nullptr || value == nullptr || agentx_add_varbind(answer, name, value) != 0) {
        snmp_free_container(name);
        snmp_free_container(value);
        VX_SAY("Out of memory\n");
        return ERR_GEN_ERR;
    }
    return ERR_NO_ERROR;
}

snmp_container* copy_of(const snmp_container* c) {
    return snmp_copy_container_value(nullptr, c);
}

// The error status of a DPI RESPONSE to a GET or GETNEXT: only tooBig and genErr mean
// anything in an answer to a read.
uint16_t read_error(unsigned code) {
    return code == ERR_TOO_BIG ? ERR_TOO_BIG : ERR_GEN_ERR;
}

// ---- Get ----

// Appends the value of `oid` to the answer. An error status, or 0.
int get_one(const snmp_container* oid) {
    registration_entry* e = entry_holding(oid);
    if (e == nullptr) {
        return add(copy_of(oid), exception(SNMP_TAG_NO_SUCH_OBJECT));
    }
    if (e->fd == -1) {
        snmp_varBind vb{copy_of(oid), nullptr};
        int rc = vb.name != nullptr ? do_mib_request(SNMP_PDU_GET, &vb) : ERR_GEN_ERR;
        if (rc == 2) {
            vb.value = exception(SNMP_TAG_NO_SUCH_INSTANCE);
            rc = 0;
        }
        if (rc != 0) {
            snmp_free_varBinds(&vb, 1);
            return ERR_GEN_ERR;
        }
        return add(vb.name, vb.value);
    }
    dpi_hdr* resp = nullptr;
    if (ask(SNMP_DPI_GET, e, oid, &resp) != ASK_OK) {
        return ERR_GEN_ERR;
    }
    const dpi_resp_packet* r = response_of(resp);
    const dpi_set_packet* vb = r->varBinds;
    int status = ERR_NO_ERROR;
    snmp_container* value = nullptr;
    if (r->error_code == DPI_ERROR_noSuchName ||
        (r->error_code == 0 && vb != nullptr && vb->value_type == DPI_TYPE_endOfMibView)) {
        // What SNMPv1 subagents say for an object that is not there, and an answer meant
        // for a GETNEXT: neither is a Get's.
        value = exception(SNMP_TAG_NO_SUCH_INSTANCE);
    } else if (r->error_code != 0) {
        status = read_error(r->error_code);
    } else if (vb == nullptr ||
               agentx_value_from_dpi(vb->value_type, vb->value_len, vb->value, &value) != 0) {
        VX_TRACE(TRACE_LVL1, "genErr, unknown type=%d", vb != nullptr ? vb->value_type : -1);
        status = ERR_GEN_ERR;
    }
    fDPIparse(resp);
    return status != ERR_NO_ERROR ? status : add(copy_of(oid), value);
}

// ---- GetNext ----

// What one entry gave for a GetNext: nothing, an object, or an error status.
enum next_result : int { NEXT_NONE, NEXT_FOUND, NEXT_ERROR, NEXT_RESTART };

// The daemon's own object after `start` (or at it when `include`).
next_result next_of_port(const snmp_container* start, bool include, snmp_varBind* found) {
    found->name = copy_of(start);
    if (found->name == nullptr) {
        return NEXT_ERROR;
    }
    if ((include && do_mib_request(SNMP_PDU_GET, found) == 0) ||
        do_mib_request(SNMP_PDU_GETNEXT, found) == 0) {
        return NEXT_FOUND;
    }
    return NEXT_NONE;
}

bool is_exception(const snmp_container* c) {
    return c->tag == SNMP_TAG_NO_SUCH_OBJECT || c->tag == SNMP_TAG_NO_SUCH_INSTANCE ||
           c->tag == SNMP_TAG_END_OF_MIB_VIEW;
}

// The value of the first varBind of a RESPONSE without error, unless it is an exception.
snmp_container* answered_value(const dpi_hdr* resp) {
    const dpi_resp_packet* r = response_of(resp);
    const dpi_set_packet* vb = r->varBinds;
    snmp_container* value = nullptr;
    if (r->error_code != 0 || vb == nullptr ||
        agentx_value_from_dpi(vb->value_type, vb->value_len, vb->value, &value) != 0) {
        return nullptr;
    }
    if (is_exception(value)) {
        snmp_free_container(value);
        return nullptr;
    }
    return value;
}

// The object of subagent entry `e` after `start` (or at it when `include`): found (name
// and value in `found`), none, an error (`*status`), or the subagent was dropped.
next_result next_of_subagent(const registration_entry* e, const snmp_container* start,
                             bool include, snmp_varBind* found, uint16_t* status) {
    dpi_hdr* resp = nullptr;
    if (include && strictly_inside(start, e)) {
        int rc = ask(SNMP_DPI_GET, e, start, &resp);
        if (rc == ASK_DROPPED) {
            return NEXT_RESTART;
        }
        if (rc == ASK_OK) {
            found->value = answered_value(resp);
            fDPIparse(resp);
            if (found->value != nullptr) {
                found->name = copy_of(start);
                return found->name != nullptr ? NEXT_FOUND : NEXT_ERROR;
            }
        }
    }
    int rc = ask(SNMP_DPI_GETNEXT, e, start, &resp);
    if (rc == ASK_DROPPED) {
        return NEXT_RESTART;
    }
    if (rc != ASK_OK) {
        *status = ERR_GEN_ERR;
        return NEXT_ERROR;
    }
    const dpi_resp_packet* r = response_of(resp);
    next_result result = NEXT_NONE;
    if (r->error_code != 0 && r->error_code != DPI_ERROR_noSuchName) {
        *status = read_error(r->error_code);
        result = NEXT_ERROR;
    } else if ((found->value = answered_value(resp)) != nullptr) {
        const char* text = r->varBinds->object_id != nullptr ? r->varBinds->object_id : "";
        found->name = snmp_create_oid_container(text);
        // An answer outside the subtree or not after the start would send the walk back or
        // sideways: this subtree has nothing more.
        if (found->name != nullptr && strictly_inside(found->name, e) &&
            snmp_compare_oid_subids(found->name, start, 0) > 0) {
            result = NEXT_FOUND;
        } else {
            VX_TRACE(TRACE_LVL1, "GETNEXT answer %s not taken\n", text);
        }
    }
    fDPIparse(resp);
    return result;
}

// Appends the first object after `start` (or at it when `include`) and before `end` (the
// null OID: no end) to the answer, or endOfMibView named `start` when there is none. An
// error status, or 0.
int next_one(const snmp_container* start, bool include, const snmp_container* end) {
    bool bounded = end != nullptr && end->length > 0;
    snmp_varBind found{};
    next_result result = NEXT_RESTART;
    uint16_t status = ERR_GEN_ERR;
    // A subagent dropped while it is asked takes its entries with it; the walk starts over
    // on what is left, so this ends after at most one round per subagent.
    while (result == NEXT_RESTART) {
        result = NEXT_NONE;
        for (registration_entry* e = mop_list; e != nullptr; e = e->next) {
            int32_t c = snmp_compare_oid_subids(start, e->subtree, e->subtree->length);
            if (c > 0) {
                continue;  // wholly before the start
            }
            if (bounded && snmp_compare_oid_subids(e->subtree, end, 0) >= 0) {
                break;  // wholly at or past the end
            }
            snmp_free_varBinds(&found, 1);
            found = snmp_varBind{};
            result = e->fd == -1 ? next_of_port(start, include, &found)
                                 : next_of_subagent(e, start, include, &found, &status);
            if (result != NEXT_NONE) {
                break;  // `e` may be gone with a dropped subagent
            }
        }
    }
    if (result == NEXT_ERROR) {
        snmp_free_varBinds(&found, 1);
        return status;
    }
    if (result == NEXT_FOUND && bounded && snmp_compare_oid_subids(found.name, end, 0) >= 0) {
        result = NEXT_NONE;
    }
    if (result != NEXT_FOUND) {
        snmp_free_varBinds(&found, 1);
        return add(copy_of(start), exception(SNMP_TAG_END_OF_MIB_VIEW));
    }
    return add(found.name, found.value);
}

// ---- GetBulk ----

// Rough size of the answer's varbinds on the wire, to stop a GetBulk before it overflows.
uint32_t answer_size(void) {
    uint32_t size = 0;
    for (uint32_t i = 0; i < answer->num_varbinds; i++) {
        const snmp_varBind& vb = answer->varbinds[i];
        size += 8 + 4 * vb.name->length + (vb.value->native == SNMP_NATIVE_OID ? 4 : 1) *
                                               vb.value->length + 8;
    }
    return size;
}

int bulk(void) {
    uint32_t n = request->num_ranges;
    uint32_t non_repeaters = request->non_repeaters < n ? request->non_repeaters : n;
    uint32_t repeaters = n - non_repeaters;
    for (uint32_t i = 0; i < non_repeaters; i++) {
        const agentx_range& r = request->ranges[i];
        int status = next_one(r.start, r.include != 0, r.end);
        if (status != 0) {
            answer->error_index = static_cast<uint16_t>(i + 1);
            return status;
        }
    }
    uint32_t row_start = answer->num_varbinds;
    for (uint32_t rep = 0; repeaters > 0 && rep < request->max_repetitions; rep++) {
        bool all_ended = true;
        for (uint32_t k = 0; k < repeaters; k++) {
            const agentx_range& r = request->ranges[non_repeaters + k];
            const snmp_container* start = r.start;
            bool include = r.include != 0;
            if (rep > 0) {
                const snmp_varBind& above = answer->varbinds[row_start - repeaters + k];
                start = above.name;
                include = false;
                if (above.value->tag == SNMP_TAG_END_OF_MIB_VIEW) {
                    // Once at the end, a column stays there.
                    if (add(copy_of(start), exception(SNMP_TAG_END_OF_MIB_VIEW)) != 0) {
                        return ERR_GEN_ERR;
                    }
                    continue;
                }
            }
            int status = next_one(start, include, r.end);
            if (status != 0) {
                answer->error_index = static_cast<uint16_t>(non_repeaters + k + 1);
                return status;
            }
            all_ended = all_ended && answer->varbinds[answer->num_varbinds - 1].value->tag ==
                                         SNMP_TAG_END_OF_MIB_VIEW;
        }
        row_start = answer->num_varbinds;
        if (all_ended || answer_size() > BULK_SIZE_LIMIT) {
            break;
        }
    }
    return ERR_NO_ERROR;
}

// ---- Set transactions ----

enum group_phase : int { GROUP_IDLE, GROUP_SET, GROUP_COMMITTED };

// The varbinds of one subagent in a Set transaction.
struct set_group {
    int fd;
    uint64_t serial;         // of the connection, so that a reused descriptor is not taken
    dpi_set_packet* chain;   // owned; the body of its SET, COMMIT and UNDO
    uint32_t* positions;     // 1-based positions in the TestSet of the chain's varbinds
    uint32_t count;
    group_phase phase;
};

set_group groups[MAX_SUBAGENTS];
int num_groups = 0;
int in_transaction = 0;
uint32_t transaction_id = 0;

bool group_alive(const set_group& g) {
    const vx_conn* c = subagent_conn(g.fd);
    return c != nullptr && c->serial == g.serial;
}

// Sends the group's varbinds as a DPI packet of `dpi_type`. The RESPONSE's error code and
// index, or -1 when the subagent is gone or was dropped.
int send_group(set_group* g, int dpi_type, int32_t* error_index) {
    if (!group_alive(*g)) {
        return -1;
    }
    dpi_hdr* query = mkDPIhdr_version(dpi_type, 2, 0);
    if (query == nullptr) {
        return -1;
    }
    query->data = g->chain;
    const unsigned char* packet = cDPIpacket(query);
    query->data = nullptr;
    fDPIparse(query);
    dpi_hdr* resp = nullptr;
    if (forward_exchange(g->fd, packet, &resp) != ASK_OK) {
        return -1;
    }
    int code = response_of(resp)->error_code;
    *error_index = response_of(resp)->error_index;
    fDPIparse(resp);
    return code;
}

void end_transaction(void) {
    for (int i = 0; i < num_groups; i++) {
        set_group* g = &groups[i];
        if (g->phase == GROUP_SET) {
            int32_t index = 0;
            (void)send_group(g, SNMP_DPI_UNDO, &index);
        }
        fDPIset_packet(g->chain);
        free(g->positions);
        *g = set_group{};
    }
    num_groups = 0;
    in_transaction = 0;
}

set_group* group_of(int fd) {
    for (int i = 0; i < num_groups; i++) {
        if (groups[i].fd == fd) {
            return &groups[i];
        }
    }
    if (num_groups == MAX_SUBAGENTS) {
        return nullptr;
    }
    set_group* g = &groups[num_groups++];
    *g = set_group{};
    g->fd = fd;
    g->serial = subagent_conn(fd) != nullptr ? subagent_conn(fd)->serial : 0;
    g->positions = static_cast<uint32_t*>(calloc(request->num_varbinds, sizeof(uint32_t)));
    return g->positions != nullptr ? g : nullptr;
}

// Adds TestSet varbind `position` (1-based) to its subagent's group. An error status, or 0.
int add_to_group(uint32_t position) {
    static char group[TEXT_SIZE];
    static char instance[TEXT_SIZE];
    const snmp_varBind& vb = request->varbinds[position - 1];
    registration_entry* e = entry_holding(vb.name);
    if (e == nullptr || e->fd == -1 || !strictly_inside(vb.name, e)) {
        return ERR_NOT_WRITABLE;
    }
    const snmp_container* v = vb.value;
    const snmp_to_dpi_row* row = nullptr;
    for (const snmp_to_dpi_row& r : snmp_to_dpi_table) {
        row = r.tag == v->tag ? &r : row;
    }
    for (const snmp_to_dpi_row& r : snmpv2_to_dpi_table) {
        row = r.tag == v->tag ? &r : row;
    }
    if (row == nullptr) {
        return ERR_WRONG_TYPE;
    }
    int type = row->dpi_type;
    auto len = static_cast<int>(v->length);
    const void* bytes = snmp_container_const_octets(v);
    char* text = nullptr;
    if (v->tag == SNMP_TAG_OCTET_STRING) {
        type = v->hint == SNMP_HINT_DISPLAY_STRING ? DPI_TYPE_DisplayString : DPI_TYPE_OCTET_STRING;
    } else if (v->tag == SNMP_TAG_OID) {
        text = snmp_oid_to_string(v);
        if (text == nullptr) {
            return ERR_GEN_ERR;
        }
        type = DPI_TYPE_OBJECT_IDENTIFIER;
        len = static_cast<int>(strlen(text));
        bytes = text;
    } else if (v->tag == SNMP_TAG_NULL) {
        len = 0;
    } else if (v->tag == SNMP_TAG_COUNTER64) {
        len = 8;  // two words, high first, as DPI holds it in memory
    } else if (v->tag != SNMP_TAG_OPAQUE) {
        len = 4;
    }
    set_group* g = group_of(e->fd);
    dpi_set_packet* chain = nullptr;
    if (g != nullptr && dpi_names(e, vb.name, group, instance)) {
        chain = mkDPIset_packet(g->chain, group, instance, type, len, bytes);
    }
    free(text);
    if (chain == nullptr) {
        return ERR_GEN_ERR;
    }
    g->chain = chain;
    g->positions[g->count++] = position;
    return ERR_NO_ERROR;
}

// The position in the TestSet a subagent's error index names.
uint16_t position_of(const set_group& g, int32_t dpi_index) {
    if (dpi_index >= 1 && static_cast<uint32_t>(dpi_index) <= g.count) {
        return static_cast<uint16_t>(g.positions[dpi_index - 1]);
    }
    return static_cast<uint16_t>(g.count > 0 ? g.positions[0] : 0);
}

int test_set(void) {
    end_transaction();
    in_transaction = 1;
    transaction_id = request->header.transaction_id;
    for (uint32_t i = 1; i <= request->num_varbinds; i++) {
        int status = add_to_group(i);
        if (status != 0) {
            answer->error_index = static_cast<uint16_t>(i);
            return status;
        }
    }
    for (int i = 0; i < num_groups; i++) {
        set_group* g = &groups[i];
        int32_t index = 0;
        int code = send_group(g, SNMP_DPI_SET, &index);
        if (code != 0) {
            // A subagent that refused changed nothing; those before it are undone when the
            // master ends the transaction.
            answer->error_index = position_of(*g, index);
            if (code < 0 || code >= static_cast<int>(dpi_set_error_v2_table.size())) {
                return ERR_GEN_ERR;
            }
            return dpi_set_error_v2_table[static_cast<size_t>(code)];
        }
        g->phase = GROUP_SET;
    }
    return ERR_NO_ERROR;
}

int commit_set(void) {
    if (!in_transaction || request->header.transaction_id != transaction_id) {
        return ERR_COMMIT_FAILED;
    }
    for (int i = 0; i < num_groups; i++) {
        set_group* g = &groups[i];
        int32_t index = 0;
        if (g->phase != GROUP_SET) {
            continue;
        }
        if (send_group(g, SNMP_DPI_COMMIT, &index) != 0) {
            answer->error_index = position_of(*g, index);
            return ERR_COMMIT_FAILED;
        }
        g->phase = GROUP_COMMITTED;
    }
    return ERR_NO_ERROR;
}

int undo_set(void) {
    if (!in_transaction || request->header.transaction_id != transaction_id) {
        return ERR_UNDO_FAILED;
    }
    uint16_t status = ERR_NO_ERROR;
    for (int i = 0; i < num_groups; i++) {
        set_group* g = &groups[i];
        int32_t index = 0;
        if (g->phase != GROUP_IDLE && send_group(g, SNMP_DPI_UNDO, &index) != 0 &&
            status == ERR_NO_ERROR) {
            answer->error_index = position_of(*g, index);
            status = ERR_UNDO_FAILED;
        }
        g->phase = GROUP_IDLE;
    }
    return status;
}

// ---- serving one PDU ----

// Encodes and sends the answer to the request. A GetBulk answer too large for the buffer
// loses rows until it fits; anything else too large becomes tooBig.
int send_answer(uint16_t status, uint32_t row_size) {
    agentx_header& h = answer->header;
    h = request->header;
    h.type = AGENTX_RESPONSE_PDU;
    h.flags = 0;
    answer->sys_uptime = agentx_uptime();
    answer->error = status;
    if (status != ERR_NO_ERROR) {
        answer->num_varbinds = 0;
    } else {
        answer->error_index = 0;
    }
    for (;;) {
        int rc = agentx_write_pdu(answer);
        if (rc == 0 || rc == -1) {
            return rc;  // sent, or the write failed
        }
        if (rc == AGENTX_NO_ROOM && row_size > 0 && answer->num_varbinds > request->num_ranges) {
            answer->num_varbinds -= row_size;  // the non-repeaters and one row stay whole
        } else if (answer->num_varbinds > 0) {
            answer->error = rc == AGENTX_NO_ROOM ? ERR_TOO_BIG : ERR_GEN_ERR;
            answer->error_index = 0;
            answer->num_varbinds = 0;
        } else {
            return -1;
        }
    }
}

int serve_request(void) {
    answer->num_varbinds = 0;
    answer->error_index = 0;
    int status = ERR_NO_ERROR;
    uint32_t row_size = 0;
    switch (request->header.type) {
        case AGENTX_GET_PDU:
            for (uint32_t i = 0; i < request->num_ranges && status == 0; i++) {
                status = get_one(request->ranges[i].start);
                answer->error_index = static_cast<uint16_t>(i + 1);
            }
            break;
        case AGENTX_GETNEXT_PDU:
            for (uint32_t i = 0; i < request->num_ranges && status == 0; i++) {
                const agentx_range& r = request->ranges[i];
                status = next_one(r.start, r.include != 0, r.end);
                answer->error_index = static_cast<uint16_t>(i + 1);
            }
            break;
        case AGENTX_GETBULK_PDU:
            status = bulk();
            row_size = request->num_ranges -
                       (request->non_repeaters < request->num_ranges ? request->non_repeaters
                                                                     : request->num_ranges);
            break;
        case AGENTX_TESTSET_PDU:
            status = test_set();
            break;
        case AGENTX_COMMITSET_PDU:
            status = commit_set();
            break;
        case AGENTX_UNDOSET_PDU:
            status = undo_set();
            break;
        case AGENTX_CLEANUPSET_PDU:
            end_transaction();  // answered by nothing
            return 0;
        default:
            return 0;
    }
    return send_answer(static_cast<uint16_t>(status), row_size);
}

bool is_request(uint8_t type) {
    return type >= AGENTX_GET_PDU && type <= AGENTX_CLEANUPSET_PDU;
}

// Acts on the whole PDU of `total` bytes at the start of the buffer; non-zero ends the
// session.
int handle_pdu(uint32_t total) {
    int rc = agentx_decode_pdu(agent_in.buf, total, request);
    const agentx_header& h = request->header;
    if (rc != AGENTX_OK) {
        VX_RC(rc, "agentx_decode_pdu");
        if (rc == AGENTX_UNKNOWN_PDU || !is_request(h.type) ||
            h.type == AGENTX_CLEANUPSET_PDU) {
            return 0;
        }
        answer->num_varbinds = 0;
        return send_answer(AGENTX_ERR_PARSE_ERROR, 0);
    }
    VX_TRACE(TRACE_LVL2, "AgentX %s, packet %u\n", agentx_pdu_name(h.type), h.packet_id);
    if (h.type == AGENTX_RESPONSE_PDU) {
        return agentx_response(request);
    }
    if (h.type == AGENTX_CLOSE_PDU) {
        VX_SAY("AgentX CLOSE received, reason %u\n", request->reason);
        return -1;
    }
    if (!is_request(h.type)) {
        VX_TRACE(TRACE_LVL1, "Unexpected AgentX %s\n", agentx_pdu_name(h.type));
        return 0;
    }
    if (!agentx_is_open() || h.session_id != agentx_session_id) {
        VX_TRACE(TRACE_LVL1, "AgentX %s for session %u ignored\n", agentx_pdu_name(h.type),
                 h.session_id);
        return 0;
    }
    if (served_before(h)) {
        VX_TRACE(TRACE_LVL1, "AgentX %s packet %u sent again: served already\n",
                 agentx_pdu_name(h.type), h.packet_id);
        return 0;
    }
    return serve_request();
}

}  // namespace

int handle_agentx(void) {
    if ((request == nullptr && (request = agentx_create_pdu()) == nullptr) ||
        (answer == nullptr && (answer = agentx_create_pdu()) == nullptr)) {
        VX_SAY("Out of memory\n");
        return -1;
    }
    int got = conn_recv(&agent_in);
    if (got == -2) {
        return 0;  // nothing there after all
    }
    if (got < 0) {
        perror("handle_agentx::read");
        return -1;
    }
    if (got == 0) {
        VX_SAY("EOF received on AgentX fd: %d\n", smux_fd);
        return -1;
    }
    if (tracing & TRACE_LVL3) {
        log_bfr(agent_in.buf + agent_in.len - got, got, "Incoming AgentX PDU");
    }
    agentx_activity(agent_in.last_byte_ns);
    for (;;) {
        uint32_t total = 0;
        int framed = conn_agentx_frame(&agent_in, &total);
        if (framed == FRAME_PARTIAL) {
            return 0;
        }
        if (framed != FRAME_WHOLE) {
            VX_SAY("AgentX stream cannot be read any further\n");
            agentx_close(AGENTX_CLOSE_PARSE_ERROR);
            return -1;
        }
        int rc = handle_pdu(total);
        conn_consume(&agent_in, total);
        if (rc != 0) {
            return rc;
        }
    }
}

void agentx_forward_lost(void) {
    end_transaction();
    memset(recent, 0, sizeof recent);  // a new session numbers its requests anew
}
