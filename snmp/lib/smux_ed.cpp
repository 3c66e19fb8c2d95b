// SMUX PDU codec. One static record takes every decoded PDU and one static area every
// encoding: the daemon handles one PDU at a time, and recycling the record's varBind
// containers means a steady stream of requests allocates nothing.
#include "smux_ed.h"

#include <cstdint>
#include <cstring>

#include "snmp_asn1.h"
#include "snmp_container.h"
#include "snmp_ed.h"

namespace {

// Largest text an OpenPDU field may carry: its buffer keeps one byte for the NUL.
constexpr uint32_t kTextMax = SMUX_TEXT_SIZE - 1;

// varBind limits of the decoder: one entry more than the limit is accepted.
constexpr uint32_t kVarBindLimit = SMUX_MAX_VARBINDS - 1;
constexpr uint32_t kTrapVarBindLimit = SMUX_MAX_TRAP_VARBINDS - 1;

}  // namespace

static smux_pdu pdu;
static uint8_t smux_buf[SMUX_BUF_SIZE];

// The length an element claims, even when it does not fit; 0 when unreadable.
static uint32_t smux_claimed_len(const uint8_t* p, uint32_t remaining) {
    if (remaining < 2 || p[1] == 0x80) {
        return 0;
    }
    uint32_t n = p[1] < 0x80 ? 0 : p[1] & 0x7Fu;
    if (n > remaining - 2) {
        return 0;
    }
    return asn_readlen(p + 1, nullptr);
}

// An OpenPDU text field into a NUL-terminated buffer of SMUX_TEXT_SIZE.
static int smux_decode_text(const uint8_t** p, uint32_t* remaining, char* text,
                            uint32_t* text_len) {
    uint8_t tag = 0;
    uint32_t size = kTextMax;
    const uint8_t* next =
        asn_decode_string(*p, remaining, &tag, reinterpret_cast<uint8_t*>(text), &size);
    if (next == nullptr || tag != SNMP_ASN_OCTET_STRING) {
        text[0] = '\0';
        *text_len = 0;
        return smux_claimed_len(*p, *remaining) > kTextMax ? SNMP_CODEC_NO_ROOM
                                                           : SNMP_CODEC_MALFORMED;
    }
    text[size] = '\0';
    *text_len = size;
    *p = next;
    return SNMP_CODEC_OK;
}

static int smux_decode_open(const uint8_t* p, uint32_t remaining) {
    uint8_t tag = 0;
    p = asn_decode_int(p, &remaining, &tag, &pdu.version);
    if (p == nullptr || tag != SNMP_ASN_INTEGER || pdu.version != 0) {
        return SNMP_CODEC_MALFORMED;
    }
    int rc = decode_oid(&pdu.oid, &p, &remaining);
    if (rc != SNMP_CODEC_OK) {
        return rc;
    }
    rc = smux_decode_text(&p, &remaining, pdu.description, &pdu.description_len);
    if (rc != SNMP_CODEC_OK) {
        return rc;
    }
    return smux_decode_text(&p, &remaining, pdu.password, &pdu.password_len);
}

static int smux_decode_rreq(const uint8_t* p, uint32_t remaining) {
    int rc = decode_oid(&pdu.oid, &p, &remaining);
    if (rc != SNMP_CODEC_OK) {
        return rc;
    }
    uint8_t tag = 0;
    p = asn_decode_int(p, &remaining, &tag, &pdu.priority);
    if (p == nullptr || tag != SNMP_ASN_INTEGER) {
        return SNMP_CODEC_MALFORMED;
    }
    p = asn_decode_int(p, &remaining, &tag, &pdu.operation);
    if (p == nullptr || tag != SNMP_ASN_INTEGER) {
        return SNMP_CODEC_MALFORMED;
    }
    return SNMP_CODEC_OK;
}

int smux_decode_message(const uint8_t* data, uint32_t length, smux_pdu** result) {
    if (result == nullptr) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    if (pdu.snmp == nullptr) {
        pdu.snmp = snmp_create_pdu(SMUX_MAX_VARBINDS);
        if (pdu.snmp == nullptr) {
            return SNMP_CODEC_NO_MEMORY;
        }
    }
    if (data == nullptr || length == 0) {
        return SNMP_CODEC_MALFORMED;
    }
    uint8_t t = data[0];
    const uint8_t* p = data;
    uint32_t remaining = length;
    if ((t & SNMP_ASN_CONSTRUCTED) != 0) {
        uint8_t tag = 0;
        p = asn_decode_header(data, &remaining, &tag);
        if (p == nullptr) {
            return SNMP_CODEC_MALFORMED;
        }
    } else if ((t & 0xF0) != 0x40) {
        return SNMP_CODEC_UNKNOWN_PDU;  // only application-class primitives exist in SMUX
    }
    pdu.type = t;

    int rc = SNMP_CODEC_OK;
    switch (t) {
        case SMUX_PDU_OPEN:
            rc = smux_decode_open(p, remaining);
            break;
        case SMUX_PDU_CLOSE:
        case SMUX_PDU_RRSP:
        case SMUX_PDU_SOUT: {
            // The whole element is an INTEGER under the PDU's own tag.
            uint8_t tag = 0;
            p = asn_decode_int(p, &remaining, &tag, &pdu.code);
            rc = (p != nullptr && tag == t) ? SNMP_CODEC_OK : SNMP_CODEC_MALFORMED;
            break;
        }
        case SMUX_PDU_RREQ:
            rc = smux_decode_rreq(p, remaining);
            break;
        case SNMP_PDU_GET:
        case SNMP_PDU_GETNEXT:
        case SNMP_PDU_RESPONSE:
        case SNMP_PDU_SET:
            pdu.snmp->type = t;
            rc = decode_pdu(pdu.snmp, kVarBindLimit, p, remaining);
            break;
        case SNMP_PDU_TRAP:
            if (pdu.trap == nullptr) {
                pdu.trap = snmp_create_trap_pdu(SMUX_MAX_TRAP_VARBINDS);
                if (pdu.trap == nullptr) {
                    return SNMP_CODEC_NO_MEMORY;
                }
            }
            rc = decode_trap_pdu(pdu.trap, kTrapVarBindLimit, p, remaining);
            break;
        default:
            return SNMP_CODEC_UNKNOWN_PDU;
    }
    if (rc != SNMP_CODEC_OK) {
        return rc;
    }
    *result = &pdu;
    return SNMP_CODEC_OK;
}

static int smux_encode_open(uint8_t** pos, uint32_t* room, smux_pdu* record) {
    if (record->version != 0) {
        return SNMP_CODEC_INCOMPLETE;
    }
    if (record->password_len > SMUX_TEXT_SIZE || record->description_len > SMUX_TEXT_SIZE) {
        return SNMP_CODEC_NO_ROOM;
    }
    uint8_t* p = asn_encode_string_reverse(*pos, room, SNMP_ASN_OCTET_STRING,
                                           reinterpret_cast<const uint8_t*>(record->password),
                                           record->password_len);
    p = asn_encode_string_reverse(p, room, SNMP_ASN_OCTET_STRING,
                                  reinterpret_cast<const uint8_t*>(record->description),
                                  record->description_len);
    if (p == nullptr) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    int rc = asn_encode_primitive_reverse(&p, room, record->oid);
    if (rc != SNMP_CODEC_OK) {
        return rc;
    }
    p = asn_encode_int_reverse(p, room, SNMP_ASN_INTEGER, record->version);
    if (p == nullptr) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    *pos = p;
    return SNMP_CODEC_OK;
}

static int smux_encode_rreq(uint8_t** pos, uint32_t* room, smux_pdu* record) {
    uint8_t* p = asn_encode_int_reverse(*pos, room, SNMP_ASN_INTEGER, record->operation);
    p = asn_encode_int_reverse(p, room, SNMP_ASN_INTEGER, record->priority);
    if (p == nullptr) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    int rc = asn_encode_primitive_reverse(&p, room, record->oid);
    if (rc != SNMP_CODEC_OK) {
        return rc;
    }
    *pos = p;
    return SNMP_CODEC_OK;
}

int smux_encode_message(uint8_t** start, uint32_t* length, smux_pdu* record) {
    if (start == nullptr || length == nullptr || record == nullptr) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    uint8_t* end = smux_buf + sizeof(smux_buf);
    uint8_t* p = end;
    uint32_t room = sizeof(smux_buf);
    int rc = SNMP_CODEC_OK;
    switch (record->type) {
        case SMUX_PDU_OPEN:
            rc = smux_encode_open(&p, &room, record);
            break;
        case SMUX_PDU_CLOSE:
        case SMUX_PDU_RRSP:
        case SMUX_PDU_SOUT:
            p = asn_encode_int_reverse(p, &room, SNMP_ASN_INTEGER, record->code);
            if (p == nullptr) {
                return SNMP_CODEC_BAD_ARGUMENT;
            }
            *p = record->type;  // an INTEGER under the PDU's own tag
            break;
        case SMUX_PDU_RREQ:
            rc = smux_encode_rreq(&p, &room, record);
            break;
        case SNMP_PDU_GET:
        case SNMP_PDU_GETNEXT:
        case SNMP_PDU_RESPONSE:
        case SNMP_PDU_SET:
            rc = encode_pdu(&p, &room, record->snmp);
            break;
        case SNMP_PDU_TRAP:
            rc = encode_trap_pdu(&p, &room, record->trap);
            break;
        default:
            return SNMP_CODEC_UNKNOWN_PDU;
    }
    if (rc != SNMP_CODEC_OK) {
        return rc;
    }
    if ((record->type & SNMP_ASN_CONSTRUCTED) != 0) {
        p = asn_encode_header_reverse(p, &room, record->type, static_cast<uint32_t>(end - p));
        if (p == nullptr) {
            return SNMP_CODEC_NO_ROOM;
        }
    }
    *start = p;
    *length = static_cast<uint32_t>(end - p);
    return SNMP_CODEC_OK;
}
