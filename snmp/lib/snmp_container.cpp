// Value and OID containers: one heap block per value, a hidden size word in front of the
// record, growth and reuse in place whenever the recorded block size suffices.
#include "snmp_container.h"

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int32_t our_error = 0;

namespace {

// The size word sits directly in front of the record; the record needs no more alignment
// than the word, so the handle is the block start plus 4.
constexpr uint32_t kSizeWord = sizeof(uint32_t);
static_assert(alignof(snmp_container) <= kSizeWord);
static_assert(offsetof(snmp_container, value) == 12);
static_assert(sizeof(snmp_container) == 20);
static_assert(kSizeWord + sizeof(snmp_container) == SNMP_CONTAINER_FIXED_SIZE);

constexpr uint32_t kInlineOctets = 8;
constexpr uint32_t kInlineSubids = 2;
constexpr uint64_t kMaxSubid = 0xFFFFFFFFu;

}  // namespace

static uint8_t* block_of(snmp_container* c)
{
    return reinterpret_cast<uint8_t*>(c) - kSizeWord;
}

static uint32_t block_size(const snmp_container* c)
{
    uint32_t size;
    std::memcpy(&size, reinterpret_cast<const uint8_t*>(c) - kSizeWord, sizeof size);
    return size;
}

static bool valid_kind(uint8_t native)
{
    return native >= SNMP_NATIVE_MIN && native <= SNMP_NATIVE_MAX;
}

// A fresh zeroed block of `size` bytes with its size word set; the record's fields are 0.
static snmp_container* alloc_block(uint32_t size)
{
    auto* block = static_cast<uint8_t*>(std::calloc(1, size));
    if (block == nullptr) {
        our_error = SNMP_ERR_NO_MEMORY;
        return nullptr;
    }
    std::memcpy(block, &size, sizeof size);
    return reinterpret_cast<snmp_container*>(block + kSizeWord);
}

uint32_t snmp_get_b_len(uint8_t native, uint32_t count)
{
    if (!valid_kind(native)) {
        return 0;
    }
    uint64_t size = SNMP_CONTAINER_FIXED_SIZE;
    if (native == SNMP_NATIVE_OCTETS && count > kInlineOctets) {
        size += uint64_t{count} - kInlineOctets;
    } else if (native == SNMP_NATIVE_OID && count > kInlineSubids) {
        size += 4 * (uint64_t{count} - kInlineSubids);
    }
    // A block whose size the size word cannot record would be unusable.
    return size > UINT32_MAX ? 0 : static_cast<uint32_t>(size);
}

snmp_container* snmp_create_container(uint8_t native, uint32_t capacity)
{
    uint32_t size = snmp_get_b_len(native, capacity);
    if (size == 0) {
        return nullptr;
    }
    snmp_container* c = alloc_block(size);
    if (c == nullptr) {
        return nullptr;
    }
    c->capacity = capacity;
    c->native = native;
    return c;
}

void snmp_free_container(snmp_container* c)
{
    if (c != nullptr) {
        std::free(block_of(c));
    }
}

uint32_t snmp_container_alloc_size(const snmp_container* c)
{
    return c == nullptr ? 0 : block_size(c);
}

// Reads dotted OID text. Counts the sub-identifiers and, when `out` is given, stores them
// (the caller sized `out` by a counting pass over the same text). Returns 0 for invalid text.
//
// The first number may have no digits at all, so "" and "." are the OID 0; after every dot a
// digit must follow, which rejects trailing dots and empty arcs. Signs and blanks are not
// numbers here, although the C library's number readers would skip or accept them.
static uint32_t parse_oid_text(const char* text, bool first_arc_check, uint32_t* out)
{
    if (text == nullptr) {
        return 0;
    }
    const char* p = text;
    if (*p == '.') {
        ++p;
        first_arc_check = true;
    }
    uint32_t count = 0;
    uint32_t first = 0;
    for (;;) {
        uint64_t value = 0;
        while (*p >= '0' && *p <= '9') {
            value = value * 10 + static_cast<uint64_t>(*p - '0');
            if (value > kMaxSubid) {
                return 0;
            }
            ++p;
        }
        if (first_arc_check) {
            if (count == 0) {
                if (value > 2) {
                    return 0;
                }
                first = static_cast<uint32_t>(value);
            } else if (count == 1 && first < 2 && value > 39) {
                return 0;
            }
        }
        if (count == UINT32_MAX) {
            return 0;
        }
        if (out != nullptr) {
            out[count] = static_cast<uint32_t>(value);
        }
        ++count;
        if (*p == '\0') {
            return count;
        }
        if (*p != '.' || p[1] < '0' || p[1] > '9') {
            return 0;
        }
        ++p;
    }
}

uint32_t snmp_validate_and_count(const char* text, int first_arc_check)
{
    return parse_oid_text(text, first_arc_check != 0, nullptr);
}

snmp_container* snmp_create_oid_container(const char* text)
{
    uint32_t count = snmp_validate_and_count(text, 1);
    if (count == 0) {
        return nullptr;
    }
    snmp_container* c = snmp_create_container(SNMP_NATIVE_OID, count);
    if (c == nullptr) {
        return nullptr;
    }
    parse_oid_text(text, true, snmp_container_subids(c));
    c->length = count;
    c->tag = SNMP_TAG_OID;
    return c;
}

snmp_container* snmp_reuse_container(snmp_container* c, uint8_t native, uint32_t capacity)
{
    if (c == nullptr) {
        return nullptr;
    }
    uint32_t needed = snmp_get_b_len(native, capacity);
    if (needed == 0) {
        return nullptr;
    }
    if (block_size(c) < needed) {
        snmp_container* fresh = alloc_block(needed);
        if (fresh == nullptr) {
            return nullptr;
        }
        snmp_free_container(c);
        c = fresh;
    }
    c->native = native;
    c->capacity = capacity;
    c->length = 0;
    return c;
}

snmp_container* snmp_expand_container(snmp_container* c, uint32_t n)
{
    if (c == nullptr || n > UINT32_MAX - c->capacity) {
        return nullptr;
    }
    uint32_t needed = snmp_get_b_len(c->native, c->capacity + n);
    if (needed == 0) {
        return nullptr;
    }
    uint32_t have = block_size(c);
    if (have < needed) {
        snmp_container* fresh = alloc_block(needed);
        if (fresh == nullptr) {
            return nullptr;
        }
        std::memcpy(fresh, c, have - kSizeWord);
        snmp_free_container(c);
        c = fresh;
    }
    c->capacity += n;
    return c;
}

// Makes room for `count` more sub-identifiers after the `length` in use. On failure the
// container keeps its old capacity.
static snmp_container* grow_oid_by(snmp_container* c, uint32_t count)
{
    if (count > UINT32_MAX - c->length) {
        return nullptr;
    }
    uint32_t old_capacity = c->capacity;
    c->capacity = c->length;
    snmp_container* grown = snmp_expand_container(c, count);
    if (grown == nullptr) {
        c->capacity = old_capacity;
    }
    return grown;
}

snmp_container* snmp_expand_oid_container(snmp_container* c, const char* text)
{
    if (c == nullptr || c->native != SNMP_NATIVE_OID) {
        return nullptr;
    }
    uint32_t count = snmp_validate_and_count(text, 0);
    if (count == 0) {
        return nullptr;
    }
    snmp_container* grown = grow_oid_by(c, count);
    if (grown == nullptr) {
        return nullptr;
    }
    parse_oid_text(text, false, snmp_container_subids(grown) + grown->length);
    grown->length += count;
    return grown;
}

snmp_container* snmp_expand_oid_container_by_int(snmp_container* c, const uint32_t* subids,
                                                 uint32_t n)
{
    if (c == nullptr || c->native != SNMP_NATIVE_OID || subids == nullptr || n == 0) {
        return nullptr;
    }
    snmp_container* grown = grow_oid_by(c, n);
    if (grown == nullptr) {
        return nullptr;
    }
    std::memcpy(snmp_container_subids(grown) + grown->length, subids, size_t{n} * 4);
    grown->length += n;
    return grown;
}

snmp_container* snmp_fill_container_with_oid(snmp_container* c, const char* text)
{
    if (c == nullptr || c->native != SNMP_NATIVE_OID) {
        return nullptr;
    }
    uint32_t count = snmp_validate_and_count(text, 1);
    if (count == 0) {
        return nullptr;
    }
    uint32_t old_capacity = c->capacity;
    c->capacity = 0;
    snmp_container* grown = snmp_expand_container(c, count);
    if (grown == nullptr) {
        c->capacity = old_capacity;
        return nullptr;
    }
    parse_oid_text(text, true, snmp_container_subids(grown));
    grown->length = count;
    grown->tag = SNMP_TAG_OID;
    return grown;
}

// Reads a 1-, 2- or 4-byte native integer; false for any other width.
static bool read_native_int(const void* value, uint32_t length, bool is_signed, uint32_t* out)
{
    if (value == nullptr) {
        return false;
    }
    switch (length) {
    case 1: {
        uint8_t v;
        std::memcpy(&v, value, 1);
        *out = is_signed ? static_cast<uint32_t>(static_cast<int32_t>(static_cast<int8_t>(v))) : v;
        return true;
    }
    case 2: {
        uint16_t v;
        std::memcpy(&v, value, 2);
        *out = is_signed ? static_cast<uint32_t>(static_cast<int32_t>(static_cast<int16_t>(v))) : v;
        return true;
    }
    case 4:
        std::memcpy(out, value, 4);
        return true;
    default:
        return false;
    }
}

snmp_container* snmp_replace_container_value(snmp_container* c, const void* value,
                                             uint32_t length, uint8_t tag, uint8_t hint)
{
    if (c == nullptr) {
        return nullptr;
    }
    uint8_t kind = 0;
    uint32_t count = 0;
    switch (tag) {
    case SNMP_TAG_INTEGER:
    case SNMP_TAG_IPADDRESS:
    case SNMP_TAG_COUNTER32:
    case SNMP_TAG_GAUGE32:
    case SNMP_TAG_TIMETICKS: {
        bool is_signed = tag == SNMP_TAG_INTEGER;
        uint32_t word = 0;
        if (!read_native_int(value, length, is_signed, &word)) {
            return nullptr;
        }
        std::memset(&c->value, 0, sizeof c->value);
        c->value.u32 = word;
        c->native = is_signed ? SNMP_NATIVE_S32 : SNMP_NATIVE_U32;
        c->length = 1;
        c->tag = tag;
        c->hint = hint;
        return c;
    }
    case SNMP_TAG_COUNTER64:
        if (value == nullptr || length != 8) {
            return nullptr;
        }
        std::memcpy(&c->value, value, 8);
        c->native = SNMP_NATIVE_U64;
        c->length = 1;
        c->tag = tag;
        c->hint = hint;
        return c;
    case SNMP_TAG_NULL:
    case SNMP_TAG_NO_SUCH_OBJECT:
    case SNMP_TAG_NO_SUCH_INSTANCE:
    case SNMP_TAG_END_OF_MIB_VIEW:
        std::memset(&c->value, 0, sizeof c->value);
        c->native = SNMP_NATIVE_NULL;
        c->length = 1;
        c->tag = tag;
        c->hint = hint;
        return c;
    case SNMP_TAG_OCTET_STRING:
    case SNMP_TAG_OPAQUE:
        if (value == nullptr && length != 0) {
            return nullptr;
        }
        kind = SNMP_NATIVE_OCTETS;
        count = length;
        break;
    case SNMP_TAG_OID:
        count = snmp_validate_and_count(static_cast<const char*>(value), 1);
        if (count == 0) {
            return nullptr;
        }
        kind = SNMP_NATIVE_OID;
        break;
    default:
        return nullptr;
    }

    // One element always fits the inline area, so only longer values may need a new block.
    if (count > 1) {
        snmp_container* fresh = snmp_reuse_container(c, kind, count);
        if (fresh == nullptr) {
            return nullptr;
        }
        c = fresh;
    }
    c->native = kind;
    c->tag = tag;
    c->hint = hint;
    c->length = count;
    if (kind == SNMP_NATIVE_OID) {
        parse_oid_text(static_cast<const char*>(value), true, snmp_container_subids(c));
    } else if (count == 0) {
        c->value.octets[0] = 0;
    } else {
        std::memcpy(snmp_container_octets(c), value, count);
    }
    return c;
}

snmp_container* snmp_create_value_container(const void* value, uint32_t length, uint8_t tag,
                                            uint8_t hint)
{
    uint8_t kind;
    uint32_t count = 1;
    switch (tag) {
    case SNMP_TAG_INTEGER:
        kind = SNMP_NATIVE_S32;
        break;
    case SNMP_TAG_IPADDRESS:
    case SNMP_TAG_COUNTER32:
    case SNMP_TAG_GAUGE32:
    case SNMP_TAG_TIMETICKS:
        kind = SNMP_NATIVE_U32;
        break;
    case SNMP_TAG_COUNTER64:
        kind = SNMP_NATIVE_U64;
        break;
    case SNMP_TAG_NULL:
    case SNMP_TAG_NO_SUCH_OBJECT:
    case SNMP_TAG_NO_SUCH_INSTANCE:
    case SNMP_TAG_END_OF_MIB_VIEW:
        kind = SNMP_NATIVE_NULL;
        break;
    case SNMP_TAG_OCTET_STRING:
    case SNMP_TAG_OPAQUE:
        kind = SNMP_NATIVE_OCTETS;
        count = length == 0 ? 1 : length;
        break;
    case SNMP_TAG_OID:
        kind = SNMP_NATIVE_OID;
        count = snmp_validate_and_count(static_cast<const char*>(value), 1);
        if (count == 0) {
            return nullptr;
        }
        break;
    default:
        return nullptr;
    }
    snmp_container* c = snmp_create_container(kind, count);
    if (c == nullptr) {
        return nullptr;
    }
    snmp_container* filled = snmp_replace_container_value(c, value, length, tag, hint);
    if (filled == nullptr) {
        snmp_free_container(c);
    }
    return filled;
}

snmp_container* snmp_copy_container_value(snmp_container* dst, const snmp_container* src)
{
    if (src == nullptr) {
        return nullptr;
    }
    if (dst == src) {
        return dst;
    }
    bool created = false;
    if (dst == nullptr) {
        dst = snmp_create_container(src->native, src->length);
        if (dst == nullptr) {
            return nullptr;
        }
        created = true;
    }
    snmp_container* out = snmp_reuse_container(dst, src->native, src->length);
    if (out == nullptr) {
        if (created) {
            snmp_free_container(dst);
        }
        return nullptr;
    }
    out->length = src->length;
    out->hint = src->hint;
    out->tag = src->tag;
    out->native = src->native;
    size_t used = sizeof src->value;
    if (src->native == SNMP_NATIVE_OCTETS) {
        used = src->length;
    } else if (src->native == SNMP_NATIVE_OID) {
        used = size_t{src->length} * 4;
    }
    std::memcpy(snmp_container_octets(out), snmp_container_const_octets(src), used);
    return out;
}

int32_t snmp_compare_oid_subids(const snmp_container* a, const snmp_container* b, uint32_t n)
{
    if (a == nullptr || b == nullptr || a->native != SNMP_NATIVE_OID ||
        b->native != SNMP_NATIVE_OID) {
        return SNMP_ERR_NOT_OID;
    }
    uint32_t m = a->length < b->length ? a->length : b->length;
    if (n != 0 && n < m) {
        m = n;
    }
    const uint32_t* sa = snmp_container_const_subids(a);
    const uint32_t* sb = snmp_container_const_subids(b);
    for (uint32_t i = 0; i < m; ++i) {
        if (sa[i] != sb[i]) {
            return sa[i] < sb[i] ? -1 : 1;
        }
    }
    if (n != 0 && m == n) {
        return 0;
    }
    if (a->length == b->length) {
        return 0;
    }
    return a->length < b->length ? -1 : 1;
}

int snmp_oid_next_subid(const snmp_container* c, uint32_t* out, uint32_t index)
{
    if (c == nullptr || c->native != SNMP_NATIVE_OID || index >= c->length || out == nullptr) {
        return -1;
    }
    *out = snmp_container_const_subids(c)[index];
    return 0;
}

char* snmp_oid_to_string(const snmp_container* c)
{
    if (c == nullptr || c->native != SNMP_NATIVE_OID) {
        return nullptr;
    }
    if (c->length == 0) {
        auto* empty = static_cast<char*>(std::calloc(1, 1));
        if (empty == nullptr) {
            our_error = SNMP_ERR_NO_MEMORY;
        }
        return empty;
    }
    // Start at four bytes a sub-identifier, which fits short arcs, and square the buffer
    // whenever a longest one ("4294967295.", 11 bytes plus NUL) might not fit. Squaring is
    // capped at the worst case for the whole OID, after which it never needs to grow again.
    const size_t worst = size_t{c->length} * 11 + 12;
    size_t size = size_t{c->length} * 4;
    auto* buf = static_cast<char*>(std::malloc(size));
    if (buf == nullptr) {
        our_error = SNMP_ERR_NO_MEMORY;
        return nullptr;
    }
    buf[0] = '\0';
    size_t used = 0;
    const uint32_t* subids = snmp_container_const_subids(c);
    for (uint32_t i = 0; i < c->length; ++i) {
        if (size - used < 12) {
            size_t bigger = size > worst / size ? worst : size * size;
            auto* grown = static_cast<char*>(std::malloc(bigger));
            if (grown == nullptr) {
                our_error = SNMP_ERR_NO_MEMORY;
                std::free(buf);
                return nullptr;
            }
            std::memcpy(grown, buf, used + 1);
            std::free(buf);
            buf = grown;
            size = bigger;
        }
        // Every forwarded request names its objects as text: no format parsing per arc.
        char* end = std::to_chars(buf + used, buf + size, subids[i]).ptr;
        if (i + 1 < c->length) {
            *end++ = '.';
        }
        *end = '\0';
        used = static_cast<size_t>(end - buf);
    }
    return buf;
}

int snmp_is_nvt_ascii(const uint8_t* bytes, uint32_t length)
{
    if (bytes == nullptr) {
        return length == 0 ? 1 : 0;
    }
    for (uint32_t i = 0; i < length; ++i) {
        if (bytes[i] == '\r') {
            // Telnet's NVT allows CR only as the first half of CR LF or CR NUL.
            if (i + 1 >= length || (bytes[i + 1] != '\n' && bytes[i + 1] != '\0')) {
                return 0;
            }
            ++i;
        } else if (bytes[i] > 126) {
            return 0;
        }
    }
    return 1;
}

uint8_t* snmp_get_native_copy(const void* bytes, uint32_t length)
{
    if (bytes == nullptr && length != 0) {
        return nullptr;
    }
    auto* copy = static_cast<uint8_t*>(std::malloc(length == 0 ? 1 : length));
    if (copy == nullptr) {
        our_error = SNMP_ERR_NO_MEMORY;
        return nullptr;
    }
    if (length == 0) {
        copy[0] = 0;
    } else {
        std::memcpy(copy, bytes, length);
    }
    return copy;
}

int snmp_compare_net_addr(const snmp_net_addr* a, const snmp_net_addr* b)
{
    if (a == nullptr || b == nullptr || a->domain != b->domain) {
        return -1;
    }
    switch (a->domain) {
    case SNMP_DOMAIN_TCP:
    case SNMP_DOMAIN_UDP:
        return std::memcmp(a->address.ip, b->address.ip, 4) == 0 &&
                       std::memcmp(a->port, b->port, 2) == 0
                   ? 0
                   : -1;
    case SNMP_DOMAIN_UNIX_FD:
        return a->address.fd == b->address.fd ? 0 : -1;
    default:
        return -2;
    }
}
