#pragma once
// Every field a decoded PDU's type uses, as one line of text: what a codec row must give, and
// what a fuzz target compares across a re-encoding, so a field lost or moved either way shows.
#include <cstdarg>
#include <cstdio>
#include <string>

#include "agentx_ed.h"
#include "snmp_container.h"
#include "snmp_ed.h"

namespace lib_render {
using std::string;

[[gnu::format(printf, 1, 2)]] inline string fmt(const char* f, ...) {
    char b[160];
    va_list a;
    va_start(a, f);
    std::vsnprintf(b, sizeof b, f, a);
    va_end(a);
    return b;
}

// Sub-identifiers dotted, or octets in hex.
inline string elements(const snmp_container* c, bool dotted = true) {
    string s;
    for (uint32_t i = 0; c != nullptr && i < c->length; i++) {
        s += dotted ? (i != 0 ? "." : "") + std::to_string(snmp_container_const_subids(c)[i])
                    : fmt("%02X", snmp_container_const_octets(c)[i]);
    }
    return s;
}
inline string quoted(const snmp_container* c) {
    return "'" + string(reinterpret_cast<const char*>(snmp_container_const_octets(c)), c->length) + "'";
}

// Tag, then the value as its storage kind holds it; a display hint only when one is left.
inline string value(const snmp_container* c) {
    if (c == nullptr) {
        return "-";
    }
    const uint8_t n = c->native, *o = c->value.octets;
    return (c->hint != 0 ? fmt("h%u ", c->hint) : "") + fmt("%02X:", c->tag) +
           (n == SNMP_NATIVE_OID || n == SNMP_NATIVE_OCTETS ? elements(c, n == SNMP_NATIVE_OID)
            : n == SNMP_NATIVE_S32 ? std::to_string(c->value.s32)
            : n == SNMP_NATIVE_U64 ? fmt("%u.%u", c->value.words[0], c->value.words[1])
            : n != SNMP_NATIVE_U32 ? ""
            : c->tag == SNMP_TAG_IPADDRESS ? fmt("%u.%u.%u.%u", o[0], o[1], o[2], o[3])
                                           : std::to_string(c->value.u32));
}

inline string varbinds(const snmp_varBind* v, uint32_t n, string s = "") {
    for (uint32_t i = 0; i < n; i++) {
        s += " " + elements(v[i].name) + "=" + value(v[i].value);
    }
    return s;
}

// A Get/GetNext/GetResponse/Set, or a Trap.
inline string pdu(const snmp_pdu* p, const snmp_trap_pdu* t) {
    if (t == nullptr) {
        return varbinds(p->varBinds, p->varBind_count,
                        fmt("id%d st%d ix%d", p->request_id, p->error_status, p->error_index));
    }
    const uint8_t* a = t->agent_addr;
    return varbinds(t->varBinds, t->varBind_count,
                    elements(t->enterprise) + fmt(" %u.%u.%u.%u g%d s%d t%u", a[0], a[1], a[2], a[3],
                                                  t->generic_trap, t->specific_trap, t->time_stamp));
}

inline string smux(const smux_pdu* p) {
    const uint8_t t = p->type;
    return fmt("%02X ", t) +
           (t == SMUX_PDU_OPEN ? fmt("v%d ", p->version) + elements(p->oid) + " '" +
                                     string(p->description, p->description_len) + "' '" +
                                     string(p->password, p->password_len) + "'"
            : t == SMUX_PDU_RREQ ? elements(p->oid) + fmt(" pri%d op%d", p->priority, p->operation)
            : t == SMUX_PDU_CLOSE || t == SMUX_PDU_RRSP || t == SMUX_PDU_SOUT
                ? std::to_string(p->code)
                : pdu(p->snmp, t == SNMP_PDU_TRAP ? p->trap : nullptr));
}

inline string message(const snmp_message* m) {
    return fmt("v%d '", m->version) + string(m->community, m->community_len) +
           fmt("' %02X ", m->pdu_type) + pdu(m->snmp, m->pdu_type == SNMP_PDU_TRAP ? m->trap : nullptr);
}

// The byte-order flag is left out: input may come in either order, output has it set.
inline string agentx(const agentx_pdu* p) {
    const agentx_header& h = p->header;
    const uint8_t t = h.type;
    string s = fmt("%s f%02X s%u t%u p%u", agentx_pdu_name(t), h.flags & ~0x10, h.session_id,
                   h.transaction_id, h.packet_id);
    s += (h.flags & 0x08) != 0 && ((t >= 3 && t <= 8) || (t >= 12 && t <= 17)) ? " ctx" + quoted(p->context) : "";
    s += t == AGENTX_OPEN_PDU ? fmt(" to%u", p->timeout) : "";
    s += t == AGENTX_OPEN_PDU || t == AGENTX_ADDAGENTCAPS_PDU ? " " + elements(p->oid) + " " + quoted(p->description)
         : t == AGENTX_CLOSE_PDU ? fmt(" reason%u", p->reason)
         : t == AGENTX_REGISTER_PDU || t == AGENTX_UNREGISTER_PDU
             ? fmt(" to%u pri%u ", p->timeout, p->priority) + elements(p->oid) +
                   (p->range_subid != 0 ? fmt(" r%u-%u", p->range_subid, p->upper_bound) : "")
         : t == AGENTX_GETBULK_PDU ? fmt(" nr%u mr%u", p->non_repeaters, p->max_repetitions)
         : t == AGENTX_REMOVEAGENTCAPS_PDU ? " " + elements(p->oid)
         : t == AGENTX_RESPONSE_PDU ? fmt(" up%u err%u idx%u", p->sys_uptime, p->error, p->error_index)
                                    : "";
    for (uint32_t i = 0; i < p->num_ranges; i++) {
        const agentx_range& r = p->ranges[i];
        s += " [" + elements(r.start) + (r.include != 0 ? "+," : ",") + elements(r.end) + "]";
    }
    return s + varbinds(p->varbinds, p->num_varbinds);
}

}  // namespace lib_render
