// Everything the master agent sends over AgentX goes through agentx_frame_len and
// agentx_decode_pdu. Properties: the framer and the decoder agree on the header; a PDU that
// decodes encodes again into no more bytes than it took (prefix compression and the byte order
// only ever keep or shrink it); the encoding decodes to the same fields; and encoding that
// record gives the same bytes once more.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "agentx_ed.h"
#include "snmp_container.h"
#include "snmp_fields.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using snmp_fields::put;
using snmp_fields::put_container;
using snmp_fields::put_varbinds;

bool has_context(const agentx_pdu* p) {
    uint8_t t = p->header.type;
    return (p->header.flags & AGENTX_FLAG_NON_DEFAULT_CONTEXT) != 0 &&
           ((t >= AGENTX_REGISTER_PDU && t <= AGENTX_TESTSET_PDU) ||
            (t >= AGENTX_NOTIFY_PDU && t <= AGENTX_REMOVEAGENTCAPS_PDU));
}

// The byte-order flag is left out: re-encoding always sets it.
std::string flatten(const agentx_pdu* p) {
    std::string out;
    const agentx_header& h = p->header;
    put(&out, h.type);
    put(&out, static_cast<uint8_t>(h.flags & ~AGENTX_FLAG_NETWORK_BYTE_ORDER));
    put(&out, h.session_id);
    put(&out, h.transaction_id);
    put(&out, h.packet_id);
    if (has_context(p)) {
        put_container(&out, p->context);
    }
    switch (h.type) {
        case AGENTX_OPEN_PDU:
            put(&out, p->timeout);
            put_container(&out, p->oid);
            put_container(&out, p->description);
            break;
        case AGENTX_CLOSE_PDU:
            put(&out, p->reason);
            break;
        case AGENTX_REGISTER_PDU:
        case AGENTX_UNREGISTER_PDU:
            put(&out, p->timeout);
            put(&out, p->priority);
            put(&out, p->range_subid);
            put(&out, p->upper_bound);
            put_container(&out, p->oid);
            break;
        case AGENTX_GETBULK_PDU:
            put(&out, p->non_repeaters);
            put(&out, p->max_repetitions);
            break;
        case AGENTX_ADDAGENTCAPS_PDU:
            put_container(&out, p->description);
            put_container(&out, p->oid);
            break;
        case AGENTX_REMOVEAGENTCAPS_PDU:
            put_container(&out, p->oid);
            break;
        case AGENTX_RESPONSE_PDU:
            put(&out, p->sys_uptime);
            put(&out, p->error);
            put(&out, p->error_index);
            break;
        default:
            break;
    }
    put(&out, p->num_ranges);
    for (uint32_t i = 0; i < p->num_ranges; i++) {
        put_container(&out, p->ranges[i].start);
        put(&out, p->ranges[i].include);
        put_container(&out, p->ranges[i].end);
    }
    put_varbinds(&out, p->varbinds, p->num_varbinds);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Kept across inputs, so that recycled containers of every kind are decoded into.
    static agentx_pdu* first = agentx_create_pdu();
    static agentx_pdu* second = agentx_create_pdu();
    if (size > AGENTX_HEADER_LEN + AGENTX_MAX_PAYLOAD || first == nullptr || second == nullptr) {
        return 0;
    }
    const auto n = static_cast<uint32_t>(size);
    uint32_t frame = 0;
    int framed = agentx_frame_len(data, n, &frame);
    int rc = agentx_decode_pdu(data, n, first);
    if (framed != AGENTX_OK) {
        if (rc != framed) {
            abort();
        }
        return 0;
    }
    if (rc == AGENTX_NEED_MORE || rc == AGENTX_TOO_BIG || rc == AGENTX_BAD_ARGUMENT) {
        abort();
    }
    if (rc != AGENTX_OK) {
        return 0;
    }
    const std::string fields = flatten(first);

    std::vector<uint8_t> wire(frame);
    uint32_t len = 0;
    if (agentx_encode_pdu(first, wire.data(), frame, &len) != AGENTX_OK) {
        abort();
    }
    wire.resize(len);
    if (agentx_decode_pdu(wire.data(), len, second) != AGENTX_OK || flatten(second) != fields) {
        abort();
    }
    std::vector<uint8_t> again(len);
    uint32_t again_len = 0;
    if (agentx_encode_pdu(second, again.data(), len, &again_len) != AGENTX_OK || again != wire) {
        abort();
    }
    return 0;
}
