// SNMPv1 PDU codec. Decoding recycles the containers already attached to a record, so a
// record decoded into again and again settles at the block sizes it needs and stops
// allocating.
#include "snmp_ed.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "snmp_asn1.h"
#include "snmp_container.h"

namespace {

// Value of request_id after a message failed to decode before its request-id.
constexpr int32_t kNoRequestId = 0x7FFFFFFF;

// Room encode_pdu wants left after the varBinds for its three INTEGERs.
constexpr uint32_t kPduFixedRoom = 20;

// Room an encoded trap needs at least: 5 octets per enterprise sub-identifier, plus this.
constexpr uint64_t kTrapFixedRoom = 27;

// The message encoder keeps the last bytes of the caller's storage unused.
constexpr uint32_t kMessageTail = 8;

}  // namespace

// Identifier and content length of the next element, bounded by `remaining`.
static bool ed_peek(const uint8_t* p, uint32_t remaining, uint8_t* out_tag, uint32_t* out_len) {
    uint32_t left = remaining;
    *out_tag = 0;
    *out_len = 0;
    return asn_decode_sub_header(p, &left, out_len, out_tag) != nullptr;
}

// The length an element claims, even when it does not fit in `remaining`; used to tell a
// text too long for its buffer from a malformed one. 0 when not even that can be read.
static uint32_t ed_claimed_len(const uint8_t* p, uint32_t remaining) {
    if (p == nullptr || remaining < 2 || p[1] == 0x80) {
        return 0;
    }
    uint32_t n = p[1] < 0x80 ? 0 : p[1] & 0x7Fu;
    if (n > remaining - 2) {
        return 0;
    }
    return asn_readlen(p + 1, nullptr);
}

uint32_t snmp_pdu_size(uint32_t num_varBinds) {
    uint64_t size = offsetof(snmp_pdu, varBinds) + uint64_t{num_varBinds} * sizeof(snmp_varBind);
    if (size < sizeof(snmp_pdu)) {
        size = sizeof(snmp_pdu);
    }
    return size > 0xFFFFFFFFu ? 0 : static_cast<uint32_t>(size);
}

uint32_t snmp_trap_pdu_size(uint32_t num_varBinds) {
    uint64_t size =
        offsetof(snmp_trap_pdu, varBinds) + uint64_t{num_varBinds} * sizeof(snmp_varBind);
    if (size < sizeof(snmp_trap_pdu)) {
        size = sizeof(snmp_trap_pdu);
    }
    return size > 0xFFFFFFFFu ? 0 : static_cast<uint32_t>(size);
}

snmp_pdu* snmp_create_pdu(uint32_t num_varBinds) {
    uint32_t size = snmp_pdu_size(num_varBinds);
    if (size == 0) {
        return nullptr;
    }
    return static_cast<snmp_pdu*>(std::calloc(1, size));
}

snmp_trap_pdu* snmp_create_trap_pdu(uint32_t num_varBinds) {
    uint32_t size = snmp_trap_pdu_size(num_varBinds);
    if (size == 0) {
        return nullptr;
    }
    return static_cast<snmp_trap_pdu*>(std::calloc(1, size));
}

void snmp_free_varBinds(snmp_varBind* varBinds, uint32_t num_varBinds) {
    if (varBinds == nullptr) {
        return;
    }
    for (uint32_t i = 0; i < num_varBinds; i++) {
        snmp_free_container(varBinds[i].name);
        snmp_free_container(varBinds[i].value);
        varBinds[i].name = nullptr;
        varBinds[i].value = nullptr;
    }
}

void snmp_free_pdu(snmp_pdu* pdu, uint32_t num_varBinds) {
    if (pdu == nullptr) {
        return;
    }
    snmp_free_varBinds(pdu->varBinds, num_varBinds);
    std::free(pdu);
}

void snmp_free_trap_pdu(snmp_trap_pdu* trap, uint32_t num_varBinds) {
    if (trap == nullptr) {
        return;
    }
    snmp_free_container(trap->enterprise);
    snmp_free_varBinds(trap->varBinds, num_varBinds);
    std::free(trap);
}

int decode_oid(snmp_container** slot, const uint8_t** pos, uint32_t* remaining) {
    if (slot == nullptr || pos == nullptr || remaining == nullptr) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    uint8_t tag = 0;
    uint32_t len = 0;
    if (!ed_peek(*pos, *remaining, &tag, &len)) {
        return SNMP_CODEC_MALFORMED;
    }
    // Each content octet yields at most one sub-identifier, the first one two.
    uint32_t need = len + 1;
    snmp_container* c = *slot == nullptr ? snmp_create_container(SNMP_NATIVE_OID, need)
                                         : snmp_reuse_container(*slot, SNMP_NATIVE_OID, need);
    if (c == nullptr) {
        return SNMP_CODEC_NO_MEMORY;
    }
    *slot = c;
    c->length = c->capacity;
    c->native = SNMP_NATIVE_OID;
    c->tag = SNMP_ASN_OBJECT_ID;
    uint32_t count = c->capacity;
    const uint8_t* next = asn_decode_oid(*pos, remaining, &tag, snmp_container_subids(c), &count);
    if (next == nullptr || tag != SNMP_ASN_OBJECT_ID) {
        c->length = 0;
        return SNMP_CODEC_MALFORMED;
    }
    c->length = count;
    *pos = next;
    return SNMP_CODEC_OK;
}

// Re-purposes the value container in `*slot` for a scalar of kind `native`. Always in place:
// every block holds a scalar.
static snmp_container* ed_scalar_slot(snmp_container** slot, uint8_t native, uint8_t tag) {
    snmp_container* c = snmp_reuse_container(*slot, native, 1);
    if (c == nullptr) {
        return nullptr;
    }
    *slot = c;
    c->tag = tag;
    c->hint = 0;
    c->length = 1;
    c->value.u32 = 0;
    return c;
}

// The value of one VarBind, by its tag; `p`/`remaining` lie inside the VarBind.
static int ed_decode_value(snmp_varBind* vb, const uint8_t* p, uint32_t remaining) {
    uint8_t tag = 0;
    uint32_t len = 0;
    if (!ed_peek(p, remaining, &tag, &len)) {
        return SNMP_CODEC_MALFORMED;
    }
    if (vb->value == nullptr) {
        if (tag == SNMP_ASN_OCTET_STRING || tag == SNMP_ASN_OPAQUE) {
            vb->value = snmp_create_container(SNMP_NATIVE_OCTETS, len + 1);
        } else if (tag == SNMP_ASN_OBJECT_ID) {
            vb->value = snmp_create_container(SNMP_NATIVE_OID, len + 1);
        } else {
            vb->value = snmp_create_container(SNMP_NATIVE_NULL, 1);
        }
        if (vb->value == nullptr) {
            return SNMP_CODEC_NO_MEMORY;
        }
    }
    vb->value->hint = 0;
    vb->value->tag = tag;

    uint8_t got = 0;
    const uint8_t* next = nullptr;
    snmp_container* c = nullptr;
    switch (tag) {
        case SNMP_ASN_INTEGER:
            c = ed_scalar_slot(&vb->value, SNMP_NATIVE_S32, tag);
            if (c == nullptr) {
                return SNMP_CODEC_NO_MEMORY;
            }
            next = asn_decode_int(p, &remaining, &got, &c->value.s32);
            break;
        case SNMP_ASN_OCTET_STRING:
        case SNMP_ASN_OPAQUE: {
            c = snmp_reuse_container(vb->value, SNMP_NATIVE_OCTETS, len);
            if (c == nullptr) {
                return SNMP_CODEC_NO_MEMORY;
            }
            vb->value = c;
            c->tag = tag;
            c->hint = 0;
            uint32_t size = c->capacity;
            c->length = size;
            next = asn_decode_string(p, &remaining, &got, snmp_container_octets(c), &size);
            c->length = next != nullptr ? size : 0;
            break;
        }
        case SNMP_ASN_NULL:
            c = ed_scalar_slot(&vb->value, SNMP_NATIVE_NULL, tag);
            if (c == nullptr) {
                return SNMP_CODEC_NO_MEMORY;
            }
            next = asn_decode_NULL(p, &remaining, &got);
            break;
        case SNMP_ASN_OBJECT_ID:
            return decode_oid(&vb->value, &p, &remaining);
        case SNMP_ASN_IPADDRESS: {
            c = ed_scalar_slot(&vb->value, SNMP_NATIVE_U32, tag);
            if (c == nullptr) {
                return SNMP_CODEC_NO_MEMORY;
            }
            // The four octets stay in wire order in the value word.
            uint32_t size = 4;
            next = asn_decode_string(p, &remaining, &got, c->value.octets, &size);
            break;
        }
        case SNMP_ASN_COUNTER:
        case SNMP_ASN_GAUGE:
        case SNMP_ASN_TIMETICKS:
            c = ed_scalar_slot(&vb->value, SNMP_NATIVE_U32, tag);
            if (c == nullptr) {
                return SNMP_CODEC_NO_MEMORY;
            }
            next = asn_decode_u_int(p, &remaining, &got, &c->value.u32);
            break;
        default:
            return SNMP_CODEC_MALFORMED;  // Counter64 and the exception values among them
    }
    return next != nullptr ? SNMP_CODEC_OK : SNMP_CODEC_MALFORMED;
}

// SEQUENCE OF VarBind at `p` into `varBinds[*count...]`. At most `limit` + 1 entries are
// stored; the array must have room for them.
static int decode_varBinds(const uint8_t* p, uint32_t remaining, uint32_t limit, uint32_t* count,
                           snmp_varBind* varBinds) {
    uint8_t tag = 0;
    uint32_t left = remaining;
    p = asn_decode_header(p, &left, &tag);
    if (p == nullptr || tag != SNMP_ASN_SEQUENCE) {
        return SNMP_CODEC_MALFORMED;
    }
    while (left != 0) {
        if (*count > limit) {
            return SNMP_CODEC_TOO_MANY;
        }
        uint32_t inner = left;
        const uint8_t* q = asn_decode_header(p, &inner, &tag);
        if (q == nullptr || tag != SNMP_ASN_SEQUENCE) {
            return SNMP_CODEC_MALFORMED;
        }
        uint32_t taken = static_cast<uint32_t>(q - p) + inner;
        snmp_varBind* vb = &varBinds[*count];
        int rc = decode_oid(&vb->name, &q, &inner);
        if (rc != SNMP_CODEC_OK) {
            return rc;
        }
        rc = ed_decode_value(vb, q, inner);
        if (rc != SNMP_CODEC_OK) {
            return rc;
        }
        (*count)++;
        p += taken;
        left -= taken;
    }
    return SNMP_CODEC_OK;
}

// The list is written last entry first: the output grows toward the front.
static int encode_varBinds(uint8_t** pos, uint32_t* room, uint32_t count, snmp_varBind* varBinds,
                           int trap) {
    uint8_t* end = *pos;
    uint8_t* p = end;
    for (uint32_t i = count; i > 0; i--) {
        snmp_varBind* vb = &varBinds[i - 1];
        if (vb->name == nullptr || vb->value == nullptr) {
            return SNMP_CODEC_INCOMPLETE;
        }
        if (vb->name->native != SNMP_NATIVE_OID) {
            return SNMP_CODEC_BAD_ARGUMENT;
        }
        // A v1 trap cannot carry a Counter64; the value is dropped rather than the trap.
        if (trap != 0 && vb->value->tag == SNMP_ASN_COUNTER64) {
            continue;
        }
        uint8_t* vb_end = p;
        int rc = asn_encode_primitive_reverse(&p, room, vb->value);
        if (rc != SNMP_CODEC_OK) {
            return rc;
        }
        rc = asn_encode_primitive_reverse(&p, room, vb->name);
        if (rc != SNMP_CODEC_OK) {
            return rc;
        }
        p = asn_encode_header_reverse(p, room, SNMP_ASN_SEQUENCE,
                                      static_cast<uint32_t>(vb_end - p));
        if (p == nullptr) {
            return SNMP_CODEC_NO_ROOM;
        }
    }
    p = asn_encode_header_reverse(p, room, SNMP_ASN_SEQUENCE, static_cast<uint32_t>(end - p));
    if (p == nullptr) {
        return count == 0 ? SNMP_CODEC_BAD_ARGUMENT : SNMP_CODEC_NO_ROOM;
    }
    *pos = p;
    return SNMP_CODEC_OK;
}

int encode_pdu(uint8_t** pos, uint32_t* room, snmp_pdu* pdu) {
    if (pos == nullptr || *pos == nullptr || room == nullptr || pdu == nullptr) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    uint8_t* p = *pos;
    int rc = encode_varBinds(&p, room, pdu->varBind_count, pdu->varBinds, 0);
    if (rc != SNMP_CODEC_OK) {
        return rc;
    }
    if (*room <= kPduFixedRoom) {
        return SNMP_CODEC_NO_ROOM;
    }
    p = asn_encode_int_reverse(p, room, SNMP_ASN_INTEGER, pdu->error_index);
    p = asn_encode_int_reverse(p, room, SNMP_ASN_INTEGER, pdu->error_status);
    p = asn_encode_int_reverse(p, room, SNMP_ASN_INTEGER, pdu->request_id);
    if (p == nullptr) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    *pos = p;
    return SNMP_CODEC_OK;
}

int decode_pdu(snmp_pdu* pdu, uint32_t limit, const uint8_t* pos, uint32_t remaining) {
    if (pdu == nullptr) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    pdu->error_index = 0;
    pdu->error_status = 0;
    int32_t* fields[] = {&pdu->request_id, &pdu->error_status, &pdu->error_index};
    for (int32_t* field : fields) {
        uint8_t tag = 0;
        pos = asn_decode_int(pos, &remaining, &tag, field);
        if (pos == nullptr || tag != SNMP_ASN_INTEGER) {
            return SNMP_CODEC_MALFORMED;
        }
    }
    pdu->varBind_count = 0;
    if (remaining == 0) {
        return SNMP_CODEC_OK;  // no variable-bindings at all is accepted
    }
    return decode_varBinds(pos, remaining, limit, &pdu->varBind_count, pdu->varBinds);
}

int encode_trap_pdu(uint8_t** pos, uint32_t* room, snmp_trap_pdu* trap) {
    if (pos == nullptr || *pos == nullptr || room == nullptr || trap == nullptr ||
        trap->enterprise == nullptr) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    if (*room < 5 * uint64_t{trap->enterprise->length} + kTrapFixedRoom) {
        return SNMP_CODEC_NO_ROOM;
    }
    if (trap->enterprise->native != SNMP_NATIVE_OID) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    uint8_t* p = *pos;
    int rc = encode_varBinds(&p, room, trap->varBind_count, trap->varBinds, 1);
    if (rc != SNMP_CODEC_OK) {
        return rc;
    }
    p = asn_encode_u_int_reverse(p, room, SNMP_ASN_TIMETICKS, trap->time_stamp);
    p = asn_encode_int_reverse(p, room, SNMP_ASN_INTEGER, trap->specific_trap);
    p = asn_encode_int_reverse(p, room, SNMP_ASN_INTEGER, trap->generic_trap);
    p = asn_encode_string_reverse(p, room, SNMP_ASN_IPADDRESS, trap->agent_addr,
                                  sizeof(trap->agent_addr));
    if (p == nullptr) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    rc = asn_encode_primitive_reverse(&p, room, trap->enterprise);
    if (rc != SNMP_CODEC_OK) {
        return rc;
    }
    *pos = p;
    return SNMP_CODEC_OK;
}

int decode_trap_pdu(snmp_trap_pdu* trap, uint32_t limit, const uint8_t* pos, uint32_t remaining) {
    if (trap == nullptr) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    int rc = decode_oid(&trap->enterprise, &pos, &remaining);
    if (rc != SNMP_CODEC_OK) {
        return rc;
    }
    uint8_t tag = 0;
    uint32_t size = sizeof(trap->agent_addr);
    std::memset(trap->agent_addr, 0, sizeof(trap->agent_addr));
    pos = asn_decode_string(pos, &remaining, &tag, trap->agent_addr, &size);
    if (pos == nullptr || tag != SNMP_ASN_IPADDRESS) {
        return SNMP_CODEC_MALFORMED;
    }
    pos = asn_decode_int(pos, &remaining, &tag, &trap->generic_trap);
    if (pos == nullptr || tag != SNMP_ASN_INTEGER) {
        return SNMP_CODEC_MALFORMED;
    }
    pos = asn_decode_int(pos, &remaining, &tag, &trap->specific_trap);
    if (pos == nullptr || tag != SNMP_ASN_INTEGER) {
        return SNMP_CODEC_MALFORMED;
    }
    pos = asn_decode_u_int(pos, &remaining, &tag, &trap->time_stamp);
    if (pos == nullptr || tag != SNMP_ASN_TIMETICKS) {
        return SNMP_CODEC_MALFORMED;
    }
    trap->varBind_count = 0;
    if (remaining == 0) {
        return SNMP_CODEC_OK;
    }
    return decode_varBinds(pos, remaining, limit, &trap->varBind_count, trap->varBinds);
}

int snmp_encode_message(snmp_buffer* buffer, snmp_message* message) {
    if (buffer == nullptr || message == nullptr || buffer->base == nullptr ||
        message->version != 0) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    if (message->community == nullptr && message->community_len > 0) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    if (message->community_size != 0 && message->community_len > message->community_size) {
        return SNMP_CODEC_NO_ROOM;  // a length past the stated buffer would read beyond it
    }
    if (buffer->size <= kMessageTail) {
        return SNMP_CODEC_NO_ROOM;
    }
    uint32_t room = buffer->size - kMessageTail;
    uint8_t* end = buffer->base + room;
    uint8_t* p = end;
    int rc = SNMP_CODEC_BAD_ARGUMENT;
    uint8_t type = message->pdu_type;
    if (type >= SNMP_PDU_GET && type <= SNMP_PDU_SET) {
        rc = encode_pdu(&p, &room, message->snmp);
    } else if (type == SNMP_PDU_TRAP) {
        rc = encode_trap_pdu(&p, &room, message->trap);
    }
    if (rc != SNMP_CODEC_OK) {
        return rc;
    }
    p = asn_encode_header_reverse(p, &room, type, static_cast<uint32_t>(end - p));
    p = asn_encode_string_reverse(p, &room, SNMP_ASN_OCTET_STRING,
                                  reinterpret_cast<const uint8_t*>(message->community),
                                  message->community_len);
    p = asn_encode_int_reverse(p, &room, SNMP_ASN_INTEGER, message->version);
    if (p != nullptr) {
        p = asn_encode_header_reverse(p, &room, SNMP_ASN_SEQUENCE, static_cast<uint32_t>(end - p));
    }
    if (p == nullptr) {
        return SNMP_CODEC_NO_ROOM;
    }
    buffer->data = p;
    buffer->len = static_cast<uint32_t>(end - p);
    return SNMP_CODEC_OK;
}

// Entries a record of `size` bytes holds beyond its first two: the decoder fills at most one
// entry fewer than the storage has.
static uint32_t ed_limit_from_size(uint32_t size, size_t header) {
    if (size <= header) {
        return 0;
    }
    uint32_t entries = static_cast<uint32_t>((size - header) / sizeof(snmp_varBind));
    return entries >= 2 ? entries - 2 : 0;
}

int snmp_decode_message(snmp_message* message, const snmp_buffer* buffer) {
    if (message == nullptr || buffer == nullptr) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    if (message->snmp != nullptr) {
        message->snmp->request_id = kNoRequestId;
    }
    if (message->community == nullptr || message->community_size == 0) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    uint8_t tag = 0;
    uint32_t left = buffer->len;
    const uint8_t* p = buffer->data;
    if (p == nullptr || left == 0 || p[0] != SNMP_ASN_SEQUENCE) {
        return SNMP_CODEC_MALFORMED;
    }
    p = asn_decode_header(p, &left, &tag);
    if (p == nullptr) {
        return SNMP_CODEC_MALFORMED;
    }
    p = asn_decode_int(p, &left, &tag, &message->version);
    if (p == nullptr || tag != SNMP_ASN_INTEGER) {
        return SNMP_CODEC_MALFORMED;
    }

    uint32_t capacity = message->community_size - 1;
    uint32_t size = capacity;
    auto* community = reinterpret_cast<uint8_t*>(message->community);
    const uint8_t* next = asn_decode_string(p, &left, &tag, community, &size);
    if (next == nullptr || tag != SNMP_ASN_OCTET_STRING) {
        if (ed_claimed_len(p, left) > capacity) {
            return SNMP_CODEC_NO_ROOM;
        }
        message->community_len = 0;
        message->community[0] = '\0';
        return SNMP_CODEC_MALFORMED;
    }
    community[size] = '\0';
    message->community_len = size;
    p = next;

    uint32_t pdu_left = left;
    p = asn_decode_header(p, &pdu_left, &message->pdu_type);
    if (p == nullptr) {
        message->pdu_type = 0;
        return SNMP_CODEC_MALFORMED;
    }
    uint8_t type = message->pdu_type;
    if (type >= SNMP_PDU_GET && type <= SNMP_PDU_SET) {
        if (message->snmp == nullptr) {
            return SNMP_CODEC_BAD_ARGUMENT;
        }
        message->snmp->type = type;
        uint32_t limit = ed_limit_from_size(message->snmp_size, offsetof(snmp_pdu, varBinds));
        return decode_pdu(message->snmp, limit, p, pdu_left);
    }
    if (type == SNMP_PDU_TRAP) {
        if (message->trap == nullptr) {
            return SNMP_CODEC_BAD_ARGUMENT;
        }
        uint32_t limit = ed_limit_from_size(message->trap_size, offsetof(snmp_trap_pdu, varBinds));
        return decode_trap_pdu(message->trap, limit, p, pdu_left);
    }
    return SNMP_CODEC_MALFORMED;
}
