// Everything the master agent sends goes through smux_decode_message. Property: a PDU that
// decodes encodes again; the encoding decodes to the same fields; and encoding that record
// gives the same bytes once more. Re-encoding may only fail for lack of room when the input
// was large enough to need more than the 4096-byte output area.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "smux_ed.h"
#include "snmp_asn1.h"
#include "snmp_container.h"
#include "snmp_ed.h"

#include "snmp_fields.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using snmp_fields::put;
using snmp_fields::put_bytes;
using snmp_fields::put_container;
using snmp_fields::put_varbinds;

std::string flatten(const smux_pdu* p) {
    std::string out;
    put(&out, p->type);
    switch (p->type) {
        case SMUX_PDU_OPEN:
            put(&out, p->version);
            put_container(&out, p->oid);
            put_bytes(&out, p->description, p->description_len);
            put_bytes(&out, p->password, p->password_len);
            if (std::strlen(p->description) > p->description_len ||
                std::strlen(p->password) > p->password_len) {
                abort();  // texts must be NUL-terminated right after their octets
            }
            break;
        case SMUX_PDU_CLOSE:
        case SMUX_PDU_RRSP:
        case SMUX_PDU_SOUT:
            put(&out, p->code);
            break;
        case SMUX_PDU_RREQ:
            put_container(&out, p->oid);
            put(&out, p->priority);
            put(&out, p->operation);
            break;
        case SNMP_PDU_TRAP:
            put_container(&out, p->trap->enterprise);
            put(&out, p->trap->agent_addr);
            put(&out, p->trap->generic_trap);
            put(&out, p->trap->specific_trap);
            put(&out, p->trap->time_stamp);
            put_varbinds(&out, p->trap->varBinds, p->trap->varBind_count);
            break;
        default:
            put(&out, p->snmp->type);
            put(&out, p->snmp->request_id);
            put(&out, p->snmp->error_status);
            put(&out, p->snmp->error_index);
            put_varbinds(&out, p->snmp->varBinds, p->snmp->varBind_count);
            break;
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 0xFFFFFFFFu) {
        return 0;
    }
    smux_pdu* pdu = nullptr;
    if (smux_decode_message(data, static_cast<uint32_t>(size), &pdu) != SNMP_CODEC_OK) {
        return 0;
    }
    const std::string first = flatten(pdu);

    uint8_t* start = nullptr;
    uint32_t length = 0;
    int rc = smux_encode_message(&start, &length, pdu);
    if (rc != SNMP_CODEC_OK) {
        // Every element re-encodes to at most three times its input size (an IpAddress of no
        // octets becomes six bytes), so small inputs must always fit.
        bool may_overflow = size * 3 + 16 > SMUX_BUF_SIZE;
        if (!may_overflow || (rc != SNMP_CODEC_NO_ROOM && rc != SNMP_CODEC_BAD_ARGUMENT)) {
            abort();
        }
        return 0;
    }
    const std::vector<uint8_t> wire(start, start + length);

    if (smux_decode_message(wire.data(), length, &pdu) != SNMP_CODEC_OK) {
        abort();
    }
    if (flatten(pdu) != first) {
        abort();
    }
    if (smux_encode_message(&start, &length, pdu) != SNMP_CODEC_OK ||
        std::vector<uint8_t>(start, start + length) != wire) {
        abort();
    }
    return 0;
}
