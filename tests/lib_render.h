#pragma once
// Every field a decoded PDU's type uses, as one line of text. The codec tests compare it with
// what a byte vector must give; the fuzz targets compare the text of a decoded record with
// that of its re-encoding decoded again, so a field lost or moved on either way shows.
#include <cstdarg>
#include <cstdio>
#include <string>

#include "agentx_ed.h"
#include "snmp_container.h"
#include "snmp_ed.h"

namespace lib_render {

[[gnu::format(printf, 1, 2)]] inline std::string fmt(const char* f, ...) {
    char b[160];
    va_list a;
    va_start(a, f);
    std::vsnprintf(b, sizeof b, f, a);
    va_end(a);
    return b;
}

// Sub-identifiers dotted, or octets in hex.
inline std::string elements(const snmp_container* c, bool dotted) {
    std::string s;
    for (uint32_t i = 0; c != nullptr && i < c->length; i++) {
        s += dotted ? (i != 0 ? "." : "") + std::to_string(snmp_container_const_subids(c)[i])
                    : fmt("%02X", snmp_container_const_octets(c)[i]);
    }
    return s;
}
inline std::string oid(const snmp_container* c) {
    return elements(c, true);
}

// Tag, then the value as its storage kind holds it; a display hint only when one is left.
inline std::string value(const snmp_container* c) {
    if (c == nullptr) {
        return "-";
    }
    std::string s = (c->hint != 0 ? fmt("h%u ", c->hint) : "") + fmt("%02X:", c->tag);
    const uint8_t* o = c->value.octets;
    switch (c->native) {
        case SNMP_NATIVE_OID:
            return s + oid(c);
        case SNMP_NATIVE_OCTETS:
            return s + elements(c, false);
        case SNMP_NATIVE_S32:
            return s + std::to_string(c->value.s32);
        case SNMP_NATIVE_U64:
            return s + fmt("%u.%u", c->value.words[0], c->value.words[1]);
        case SNMP_NATIVE_U32:
            return s + (c->tag == SNMP_TAG_IPADDRESS ? fmt("%u.%u.%u.%u", o[0], o[1], o[2], o[3])
                                                     : std::to_string(c->value.u32));
        default:
            return s;
    }
}

inline std::string varbinds(const snmp_varBind* v, uint32_t n) {
    std::string s;
    for (uint32_t i = 0; i < n; i++) {
        s += " " + oid(v[i].name) + "=" + value(v[i].value);
    }
    return s;
}

// A Get/GetNext/GetResponse/Set, or else a Trap.
inline std::string pdu(const snmp_pdu* p, const snmp_trap_pdu* t = nullptr) {
    const uint8_t* a = t != nullptr ? t->agent_addr : nullptr;
    return t == nullptr ? fmt("id%d st%d ix%d", p->request_id, p->error_status, p->error_index) +
                              varbinds(p->varBinds, p->varBind_count)
                        : oid(t->enterprise) + fmt(" %u.%u.%u.%u g%d s%d t%u", a[0], a[1], a[2],
                                                   a[3], t->generic_trap, t->specific_trap,
                                                   t->time_stamp) +
                              varbinds(t->varBinds, t->varBind_count);
}

inline std::string smux(const smux_pdu* p) {
    std::string s = fmt("%02X ", p->type);
    switch (p->type) {
        case SMUX_PDU_OPEN:
            return s + fmt("v%d ", p->version) + oid(p->oid) + " '" +
                   std::string(p->description, p->description_len) + "' '" +
                   std::string(p->password, p->password_len) + "'";
        case SMUX_PDU_CLOSE:
        case SMUX_PDU_RRSP:
        case SMUX_PDU_SOUT:
            return s + std::to_string(p->code);
        case SMUX_PDU_RREQ:
            return s + oid(p->oid) + fmt(" pri%d op%d", p->priority, p->operation);
        default:
            return s + (p->type == SNMP_PDU_TRAP ? pdu(nullptr, p->trap) : pdu(p->snmp));
    }
}

inline std::string message(const snmp_message* m) {
    return fmt("v%d '", m->version) + std::string(m->community, m->community_len) +
           fmt("' %02X ", m->pdu_type) + (m->pdu_type == SNMP_PDU_TRAP ? pdu(nullptr, m->trap) : pdu(m->snmp));
}

inline std::string quoted(const snmp_container* c) {
    return c == nullptr ? "-" : "'" + std::string(reinterpret_cast<const char*>(
                                                      snmp_container_const_octets(c)), c->length) + "'";
}

// The byte-order flag is left out: input may come in either order, output has it set.
inline std::string agentx(const agentx_pdu* p) {
    const agentx_header& h = p->header;
    const uint8_t t = h.type;
    std::string s = fmt("%s f%02X s%u t%u p%u", agentx_pdu_name(t), h.flags & ~0x10,
                        h.session_id, h.transaction_id, h.packet_id);
    if ((h.flags & 0x08) != 0 && ((t >= 3 && t <= 8) || (t >= 12 && t <= 17))) {
        s += " ctx" + quoted(p->context);
    }
    s += t == AGENTX_OPEN_PDU ? fmt(" to%u", p->timeout) : "";
    if (t == AGENTX_OPEN_PDU || t == AGENTX_ADDAGENTCAPS_PDU) {
        s += " " + oid(p->oid) + " " + quoted(p->description);
    } else if (t == AGENTX_CLOSE_PDU) {
        s += fmt(" reason%u", p->reason);
    } else if (t == AGENTX_REGISTER_PDU || t == AGENTX_UNREGISTER_PDU) {
        s += fmt(" to%u pri%u ", p->timeout, p->priority) + oid(p->oid) +
             (p->range_subid != 0 ? fmt(" r%u-%u", p->range_subid, p->upper_bound) : "");
    } else if (t == AGENTX_GETBULK_PDU) {
        s += fmt(" nr%u mr%u", p->non_repeaters, p->max_repetitions);
    } else if (t == AGENTX_REMOVEAGENTCAPS_PDU) {
        s += " " + oid(p->oid);
    } else if (t == AGENTX_RESPONSE_PDU) {
        s += fmt(" up%u err%u idx%u", p->sys_uptime, p->error, p->error_index);
    }
    for (uint32_t i = 0; i < p->num_ranges; i++) {
        const agentx_range& r = p->ranges[i];
        s += " [" + oid(r.start) + (r.include != 0 ? "+," : ",") + oid(r.end) + "]";
    }
    return s + varbinds(p->varbinds, p->num_varbinds);
}

}  // namespace lib_render
