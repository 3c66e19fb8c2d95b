// BER primitives. Decoders are bounded by the caller's remaining count and never look at a
// byte beyond it; encoders write backward and never below the room they were given.
#include "snmp_asn1.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "snmp_container.h"

namespace {

constexpr uint32_t kIndefinite = 0xFFFFFFFFu;
constexpr uint8_t kLongForm = 0x80;

// What the identifier and length octets of one element say.
struct ber_element {
    uint8_t tag;
    uint32_t header_len;  // identifier octet + length octets
    uint32_t content_len;
};

}  // namespace

// Big-endian contents into 32 bits; longer contents keep their last four octets.
static uint32_t ber_fold(const uint8_t* c, uint32_t len, uint32_t start) {
    uint32_t v = start;
    for (uint32_t i = 0; i < len; i++) {
        v = (v << 8) | c[i];
    }
    return v;
}

// Reads the identifier and length octets of the element at `p` from at most `avail` bytes,
// and checks that the whole element lies within them. The tag is stored as soon as one byte
// is readable, so callers can report it even when the element is malformed.
static bool ber_peek(const uint8_t* p, uint32_t avail, ber_element* out) {
    if (p == nullptr || avail < 1) {
        return false;
    }
    out->tag = p[0];
    if (avail < 2) {
        return false;
    }
    uint8_t first = p[1];
    if (first == kLongForm) {
        return false;  // indefinite form: SNMP never uses it
    }
    uint32_t len = 0;
    uint32_t header_len = 2;
    if (first < kLongForm) {
        len = first;
    } else {
        uint32_t n = first & 0x7Fu;
        if (n > avail - 2) {
            return false;
        }
        // Long lengths keep their low 32 bits; a peer may pad with leading zero octets.
        len = ber_fold(p + 2, n, 0);
        header_len = 2 + n;
    }
    if (len > avail - header_len) {
        return false;
    }
    out->header_len = header_len;
    out->content_len = len;
    return true;
}

// Peeks an element for a value decoder and consumes it from `*remaining`; the tag goes to
// `out_tag` whenever it could be read.
static const uint8_t* ber_take(const uint8_t* p, uint32_t* remaining, uint8_t* out_tag,
                               ber_element* el) {
    if (remaining == nullptr) {
        return nullptr;
    }
    el->tag = 0;
    bool ok = ber_peek(p, *remaining, el);
    if (out_tag != nullptr && p != nullptr && *remaining > 0) {
        *out_tag = el->tag;
    }
    if (!ok) {
        return nullptr;
    }
    *remaining -= el->header_len + el->content_len;
    return p + el->header_len;
}

uint32_t asn_readlen(const uint8_t* p, uint32_t* out_octets) {
    uint8_t first = p[0];
    if (first == kLongForm) {
        return kIndefinite;
    }
    if (first < kLongForm) {
        if (out_octets != nullptr) {
            *out_octets = 1;
        }
        return first;
    }
    uint32_t n = first & 0x7Fu;
    uint32_t len = ber_fold(p + 1, n, 0);
    if (out_octets != nullptr) {
        *out_octets = n + 1;
    }
    return len;
}

const uint8_t* asn_decode_length(const uint8_t* p, uint32_t* out_len) {
    uint32_t octets = 1;
    uint32_t len = asn_readlen(p, &octets);
    if (out_len != nullptr) {
        *out_len = len;
    }
    return p + octets;
}

const uint8_t* asn_decode_header(const uint8_t* p, uint32_t* remaining, uint8_t* out_tag) {
    uint32_t len = 0;
    const uint8_t* contents = asn_decode_sub_header(p, remaining, &len, out_tag);
    if (contents == nullptr) {
        return nullptr;
    }
    *remaining = len;
    return contents;
}

const uint8_t* asn_decode_sub_header(const uint8_t* p, uint32_t* remaining, uint32_t* out_len,
                                     uint8_t* out_tag) {
    if (remaining == nullptr || p == nullptr || *remaining == 0) {
        return nullptr;
    }
    if (out_tag != nullptr) {
        *out_tag = p[0];
    }
    if ((p[0] & SNMP_ASN_HIGH_TAG) == SNMP_ASN_HIGH_TAG) {
        return nullptr;
    }
    ber_element el{};
    if (!ber_peek(p, *remaining, &el)) {
        return nullptr;
    }
    if (out_len != nullptr) {
        *out_len = el.content_len;
    }
    *remaining -= el.header_len;
    return p + el.header_len;
}

const uint8_t* asn_decode_NULL(const uint8_t* p, uint32_t* remaining, uint8_t* out_tag) {
    ber_element el{};
    const uint8_t* c = ber_take(p, remaining, out_tag, &el);
    // Only the one-octet form 00: a padded zero length is not a NULL.
    if (c == nullptr || el.header_len != 2 || el.content_len != 0) {
        return nullptr;
    }
    return c;
}

const uint8_t* asn_decode_int(const uint8_t* p, uint32_t* remaining, uint8_t* out_tag,
                              int32_t* out_value) {
    ber_element el{};
    const uint8_t* c = ber_take(p, remaining, out_tag, &el);
    if (c == nullptr) {
        return nullptr;
    }
    uint32_t start = (el.content_len > 0 && (c[0] & 0x80) != 0) ? 0xFFFFFFFFu : 0;
    uint32_t v = ber_fold(c, el.content_len, start);
    if (out_value != nullptr) {
        *out_value = static_cast<int32_t>(v);
    }
    return c + el.content_len;
}

const uint8_t* asn_decode_u_int(const uint8_t* p, uint32_t* remaining, uint8_t* out_tag,
                                uint32_t* out_value) {
    ber_element el{};
    const uint8_t* c = ber_take(p, remaining, out_tag, &el);
    if (c == nullptr) {
        return nullptr;
    }
    if (out_value != nullptr) {
        *out_value = ber_fold(c, el.content_len, 0);
    }
    return c + el.content_len;
}

const uint8_t* asn_decode_string(const uint8_t* p, uint32_t* remaining, uint8_t* out_tag,
                                 uint8_t* dst, uint32_t* size) {
    if (size == nullptr || remaining == nullptr) {
        return nullptr;
    }
    ber_element el{};
    uint32_t left = *remaining;
    const uint8_t* c = ber_take(p, &left, out_tag, &el);
    if (c == nullptr || el.content_len > *size || (dst == nullptr && el.content_len > 0)) {
        return nullptr;
    }
    if (el.content_len > 0) {
        std::memcpy(dst, c, el.content_len);
    }
    *size = el.content_len;
    *remaining = left;
    return c + el.content_len;
}

const uint8_t* asn_decode_oid(const uint8_t* p, uint32_t* remaining, uint8_t* out_tag,
                              uint32_t* subids, uint32_t* count) {
    if (count == nullptr || remaining == nullptr) {
        return nullptr;
    }
    ber_element el{};
    uint32_t left = *remaining;
    const uint8_t* c = ber_take(p, &left, out_tag, &el);
    if (c == nullptr) {
        return nullptr;
    }
    uint32_t capacity = subids != nullptr ? *count : 0;
    if (el.content_len == 0) {
        for (uint32_t i = 0; i < 2 && i < capacity; i++) {
            subids[i] = 0;
        }
        *count = 0;
        *remaining = left;
        return c;
    }
    // Entry 0 stays free for the split of the first encoded value into two arcs.
    uint32_t used = 1;
    uint32_t i = 0;
    while (i < el.content_len) {
        uint32_t v = 0;
        uint8_t octet = 0;
        do {
            octet = c[i++];
            v = (v << 7) | (octet & 0x7Fu);
        } while ((octet & 0x80) != 0 && i < el.content_len);
        if ((octet & 0x80) != 0) {
            return nullptr;  // last sub-identifier cut off by the end of the contents
        }
        if (used >= capacity) {
            return nullptr;
        }
        subids[used++] = v;
    }
    uint32_t first = subids[1];
    if (first / 40 <= 1) {
        subids[0] = first / 40;
        subids[1] = first % 40;
    } else {
        subids[0] = 2;
        subids[1] = first - 80;
    }
    *count = used;
    *remaining = left;
    return c + el.content_len;
}

// ---- reverse encoders ----

// Number of octets of a definite length's value part in the long form.
static uint32_t ber_len_octets(uint32_t len) {
    return static_cast<uint32_t>(std::bit_width(len) + 7) / 8;
}

// Writes a definite length in front of `pos`; the room has been checked by the caller.
static uint8_t* ber_put_len(uint8_t* pos, uint32_t len) {
    if (len <= 127) {
        *--pos = static_cast<uint8_t>(len);
        return pos;
    }
    uint32_t n = 0;
    while (len != 0) {
        *--pos = static_cast<uint8_t>(len & 0xFF);
        len >>= 8;
        n++;
    }
    *--pos = static_cast<uint8_t>(kLongForm | (n & 0x3F));
    return pos;
}

uint8_t* asn_encode_len_reverse(uint8_t* pos, uint32_t* room, uint32_t len) {
    // A length never takes more than five octets; demanding all five whatever the value keeps
    // the callers' room arithmetic simple.
    if (pos == nullptr || room == nullptr || *room < 5) {
        return nullptr;
    }
    uint8_t* p = ber_put_len(pos, len);
    *room -= static_cast<uint32_t>(pos - p);
    return p;
}

uint8_t* asn_encode_header_reverse(uint8_t* pos, uint32_t* room, uint8_t tag, uint32_t len) {
    if ((tag & SNMP_ASN_HIGH_TAG) == SNMP_ASN_HIGH_TAG) {
        return nullptr;
    }
    uint8_t* p = asn_encode_len_reverse(pos, room, len);
    if (p == nullptr || *room < 1) {
        return nullptr;
    }
    *--p = tag;
    *room -= 1;
    return p;
}

// Content octets of the minimal two's complement form.
static uint32_t ber_int_octets(int32_t value) {
    uint32_t x = static_cast<uint32_t>(value < 0 ? ~value : value);
    if ((x & 0xFF800000u) != 0) {
        return 4;
    }
    if ((x & 0xFFFF8000u) != 0) {
        return 3;
    }
    if ((x & 0xFFFFFF80u) != 0) {
        return 2;
    }
    return 1;
}

// Content octets of the minimal form of a non-negative value: a fifth, leading 00 when the
// top bit is set, so the value does not read as negative.
static uint32_t ber_uint_octets(uint32_t value) {
    if (value < 0x80u) {
        return 1;
    }
    if (value < 0x8000u) {
        return 2;
    }
    if (value < 0x800000u) {
        return 3;
    }
    if (value < 0x80000000u) {
        return 4;
    }
    return 5;
}

// Contents (n octets of `value`, least significant written first), length octet and tag.
static uint8_t* ber_put_integer(uint8_t* pos, uint8_t tag, uint32_t value, uint32_t n) {
    for (uint32_t i = 0; i < n; i++) {
        *--pos = static_cast<uint8_t>(i < 4 ? (value >> (8 * i)) & 0xFF : 0);
    }
    *--pos = static_cast<uint8_t>(n);
    *--pos = tag;
    return pos;
}

uint8_t* asn_encode_int_reverse(uint8_t* pos, uint32_t* room, uint8_t tag, int32_t value) {
    if (pos == nullptr || room == nullptr) {
        return nullptr;
    }
    uint32_t n = ber_int_octets(value);
    if (*room < n + 2) {
        return nullptr;
    }
    *room -= n + 2;
    return ber_put_integer(pos, tag, static_cast<uint32_t>(value), n);
}

uint8_t* asn_encode_u_int_reverse(uint8_t* pos, uint32_t* room, uint8_t tag, uint32_t value) {
    if (pos == nullptr || room == nullptr) {
        return nullptr;
    }
    uint32_t n = ber_uint_octets(value);
    if (*room < n + 2) {
        return nullptr;
    }
    *room -= n + 2;
    return ber_put_integer(pos, tag, value, n);
}

uint8_t* asn_encode_string_reverse(uint8_t* pos, uint32_t* room, uint8_t tag, const uint8_t* src,
                                   uint32_t len) {
    if (pos == nullptr || room == nullptr || *room < len || (src == nullptr && len > 0)) {
        return nullptr;
    }
    *room -= len;
    uint8_t* p = pos - len;
    if (len > 0) {
        std::memcpy(p, src, len);
    }
    p = asn_encode_len_reverse(p, room, len);
    if (p == nullptr || *room < 1) {
        return nullptr;
    }
    *--p = tag;
    *room -= 1;
    return p;
}

// Octets of one sub-identifier in base 128.
static uint32_t ber_subid_octets(uint32_t v) {
    return v == 0 ? 1 : static_cast<uint32_t>(std::bit_width(v) + 6) / 7;
}

static uint8_t* ber_put_subid(uint8_t* pos, uint32_t v) {
    *--pos = static_cast<uint8_t>(v & 0x7F);  // the last group carries no continuation bit
    v >>= 7;
    while (v != 0) {
        *--pos = static_cast<uint8_t>(0x80 | (v & 0x7F));
        v >>= 7;
    }
    return pos;
}

// How many elements of the value area a container can be trusted to hold: its capacity,
// and at least the inline area, which every block has.
static uint64_t container_octets_held(const snmp_container* c) {
    uint64_t held = sizeof(c->value);
    if (c->native == SNMP_NATIVE_OCTETS && c->capacity > held) {
        held = c->capacity;
    }
    return held;
}

static uint64_t container_subids_held(const snmp_container* c) {
    uint64_t held = sizeof(c->value) / sizeof(uint32_t);
    if (c->native == SNMP_NATIVE_OID && c->capacity > held) {
        held = c->capacity;
    }
    return held;
}

static int ber_encode_oid(uint8_t** pos, uint32_t* room, const snmp_container* c) {
    const uint32_t* subids = snmp_container_const_subids(c);
    uint32_t n = c->length;
    if (n > container_subids_held(c)) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    if (n == 0) {
        uint8_t* p = *pos;
        *--p = 0;
        *--p = c->tag;
        *room -= 2;
        *pos = p;
        return SNMP_CODEC_OK;
    }
    // The second slot is read even for a one-arc OID: it lies in the inline area.
    uint32_t a = subids[0];
    uint32_t b = subids[1];
    if (a > 2 || (a < 2 && b > 39)) {
        return SNMP_CODEC_BAD_OID;
    }
    uint64_t content = 0;
    uint32_t first = 40 * a + b;
    if (n >= 2) {
        content = ber_subid_octets(first);
        for (uint32_t i = 2; i < n; i++) {
            content += ber_subid_octets(subids[i]);
        }
    }
    if (content > 0xFFFFFFFFu) {
        return SNMP_CODEC_NO_ROOM;
    }
    uint32_t len = static_cast<uint32_t>(content);
    uint64_t total = 1 + (len <= 127 ? 1 : 1 + ber_len_octets(len)) + content;
    if (*room < total) {
        return SNMP_CODEC_NO_ROOM;
    }
    uint8_t* p = *pos;
    if (n >= 2) {
        for (uint32_t i = n - 1; i >= 2; i--) {
            p = ber_put_subid(p, subids[i]);
        }
        p = ber_put_subid(p, first);
    }
    p = ber_put_len(p, len);
    *--p = c->tag;
    *room -= static_cast<uint32_t>(total);
    *pos = p;
    return SNMP_CODEC_OK;
}

int asn_encode_primitive_reverse(uint8_t** pos, uint32_t* room, snmp_container* value) {
    if (pos == nullptr || *pos == nullptr || room == nullptr || value == nullptr ||
        (value->tag & SNMP_ASN_CONSTRUCTED) != 0) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    if (*room <= 1) {
        return SNMP_CODEC_NO_ROOM;
    }
    uint8_t* p = *pos;
    uint8_t tag = value->tag;
    bool as_unsigned = false;
    switch (tag) {
        case SNMP_ASN_INTEGER:
            // An INTEGER held in an unsigned word (kinds 1..3) keeps its unsigned value.
            as_unsigned = value->native >= 1 && value->native <= SNMP_NATIVE_U32;
            break;
        case SNMP_ASN_COUNTER:
        case SNMP_ASN_GAUGE:
        case SNMP_ASN_TIMETICKS:
            as_unsigned = true;
            break;
        case SNMP_ASN_IPADDRESS:
            value->length = 4;
            [[fallthrough]];
        case SNMP_ASN_OCTET_STRING:
        case SNMP_ASN_OPAQUE: {
            uint32_t len = value->length;
            if (len > container_octets_held(value)) {
                return SNMP_CODEC_BAD_ARGUMENT;
            }
            if (*room < static_cast<uint64_t>(len) + 4) {
                return SNMP_CODEC_NO_ROOM;
            }
            *room -= len + 1;  // the tag's octet is taken in advance
            p -= len;
            if (len > 0) {
                std::memcpy(p, snmp_container_const_octets(value), len);
            }
            p = asn_encode_len_reverse(p, room, len);
            if (p == nullptr) {
                return SNMP_CODEC_BAD_ARGUMENT;
            }
            *--p = tag;
            *pos = p;
            return SNMP_CODEC_OK;
        }
        case SNMP_ASN_NULL:
        case SNMP_ASN_NO_SUCH_OBJECT:
        case SNMP_ASN_NO_SUCH_INSTANCE:
        case SNMP_ASN_END_OF_MIB_VIEW:
            *--p = 0;
            *--p = tag;
            *room -= 2;
            *pos = p;
            return SNMP_CODEC_OK;
        case SNMP_ASN_OBJECT_ID:
            return ber_encode_oid(pos, room, value);
        default:
            return SNMP_CODEC_BAD_ARGUMENT;
    }
    uint32_t word = value->value.u32;
    uint32_t n = as_unsigned ? ber_uint_octets(word) : ber_int_octets(static_cast<int32_t>(word));
    if (*room < n + 2) {
        return SNMP_CODEC_NO_ROOM;
    }
    *room -= n + 2;
    *pos = ber_put_integer(p, tag, word, n);
    return SNMP_CODEC_OK;
}
