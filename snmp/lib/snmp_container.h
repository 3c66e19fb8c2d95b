#pragma once
/*
 * Value and object-identifier containers.
 *
 * Every SNMP value and every OID lives in one heap block: a hidden 32-bit size word, then the
 * record below, whose 8-byte inline `value` continues into the block's extra space. A handle
 * is a pointer to the record, never to the block start, so only this module may allocate or
 * release containers. Operations that may need a larger block return the handle to use from
 * then on; the caller stores it in place of the old one. On a null result the old handle
 * stays valid and unchanged, except where noted.
 *
 * Reach octets or sub-identifiers beyond the first 8 bytes only through
 * snmp_container_octets() / snmp_container_subids(): indexing `value.octets` or
 * `value.subids` past their declared size is out of bounds for the bounds sanitizers.
 */
#include <stddef.h>
#include <stdint.h>

#ifndef SNMPKIT_NODISCARD
#if defined(__cplusplus)
#define SNMPKIT_NODISCARD [[nodiscard]]
#else
/* GCC's warn_unused_result cannot be silenced with a (void) cast in C, so C gets nothing. */
#define SNMPKIT_NODISCARD
#endif
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Storage kinds (`native`). Kinds 1..12 are accepted by the size rule; these are the ones
 * the library creates. */
enum {
    SNMP_NATIVE_MIN = 1,
    SNMP_NATIVE_U32 = 3,     /* one unsigned word: IpAddress, Counter32, Gauge32, TimeTicks */
    SNMP_NATIVE_U64 = 4,     /* two 32-bit words in the order given: Counter64 */
    SNMP_NATIVE_OCTETS = 5,  /* `length` octets: OCTET STRING, Opaque */
    SNMP_NATIVE_S32 = 8,     /* one signed word: INTEGER */
    SNMP_NATIVE_OID = 11,    /* `length` unsigned 32-bit sub-identifiers */
    SNMP_NATIVE_NULL = 12,   /* nothing: NULL and the three exception values */
    SNMP_NATIVE_MAX = 12
};

/* ASN.1 tags a container may carry. */
enum {
    SNMP_TAG_INTEGER = 0x02,
    SNMP_TAG_OCTET_STRING = 0x04,
    SNMP_TAG_NULL = 0x05,
    SNMP_TAG_OID = 0x06,
    SNMP_TAG_IPADDRESS = 0x40,
    SNMP_TAG_COUNTER32 = 0x41,
    SNMP_TAG_GAUGE32 = 0x42,
    SNMP_TAG_TIMETICKS = 0x43,
    SNMP_TAG_OPAQUE = 0x44,
    SNMP_TAG_COUNTER64 = 0x46,
    SNMP_TAG_NO_SUCH_OBJECT = 0x80,
    SNMP_TAG_NO_SUCH_INSTANCE = 0x81,
    SNMP_TAG_END_OF_MIB_VIEW = 0x82
};

/* Display hints (`hint`). 0 and 1 matter to every user; the others only change the
 * printable form (snmp_util.h). Any other code is stored and copied unchanged. */
enum {
    SNMP_HINT_NONE = 0,
    SNMP_HINT_DISPLAY_STRING = 1,
    SNMP_HINT_PHYS_ADDRESS = 2,
    SNMP_HINT_MAC_ADDRESS = 3,
    SNMP_HINT_TRUTH_VALUE = 4,
    SNMP_HINT_ROW_STATUS = 8,
    SNMP_HINT_TIME_TICKS = 9,     /* unsigned hundredths of a second */
    SNMP_HINT_TIME_INTERVAL = 10, /* signed hundredths of a second */
    SNMP_HINT_DATE_AND_TIME = 11,
    SNMP_HINT_STORAGE_TYPE = 23
};

/* Transport domains of snmp_net_addr. */
enum {
    SNMP_DOMAIN_UDP = 1,
    SNMP_DOMAIN_TCP = 6,
    SNMP_DOMAIN_UNIX_FD = 13
};

/* The library's out-of-memory code, left in `our_error` by a failed allocation. */
enum { SNMP_ERR_NO_MEMORY = -4 };

/* Result of snmp_compare_oid_subids for a null or non-OID argument. */
enum { SNMP_ERR_NOT_OID = -9 };

/* Size of the hidden size word plus the record with its inline value: what every container
 * occupies at least. */
enum { SNMP_CONTAINER_FIXED_SIZE = 24 };

union snmp_inline_value {
    uint32_t u32;
    int32_t s32;
    uint32_t words[2]; /* Counter64, in the order given */
    uint8_t octets[8];
    uint32_t subids[2];
};

struct snmp_container {
    uint32_t capacity; /* elements the block was sized for (1 for a scalar) */
    uint32_t length;   /* elements in use (octets, sub-identifiers, 1 for a scalar) */
    uint8_t hint;      /* display hint code */
    uint8_t tag;       /* ASN.1 tag; 0x06 for an OID */
    uint8_t native;    /* storage kind, SNMP_NATIVE_* */
    union snmp_inline_value value; /* continues into the block's extra space */
};
typedef struct snmp_container snmp_container;

/* A transport address. For UDP and TCP, `address.ip` is the IPv4 address in network order
 * and `port` the port, high octet first; for SNMP_DOMAIN_UNIX_FD the same four bytes hold
 * a descriptor number instead and `port` is unused. */
struct snmp_net_addr {
    uint32_t domain;
    union {
        uint8_t ip[4];
        int32_t fd;
    } address;
    uint8_t port[2];
};
typedef struct snmp_net_addr snmp_net_addr;

/* -4 after the last failed allocation of this module; never reset by a success. */
extern int32_t our_error;

/* Start of the value area, inline part and extra space together. */
static inline uint8_t* snmp_container_octets(snmp_container* c)
{
    return (uint8_t*)c + offsetof(snmp_container, value);
}
static inline const uint8_t* snmp_container_const_octets(const snmp_container* c)
{
    return (const uint8_t*)c + offsetof(snmp_container, value);
}
static inline uint32_t* snmp_container_subids(snmp_container* c)
{
    return (uint32_t*)(void*)snmp_container_octets(c);
}
static inline const uint32_t* snmp_container_const_subids(const snmp_container* c)
{
    return (const uint32_t*)(const void*)snmp_container_const_octets(c);
}

/* ---- create / release ---- */

/* Block size in bytes for `count` elements of kind `native`: the fixed size, plus one byte
 * per octet beyond 8 (kind 5) or four per sub-identifier beyond 2 (kind 11). 0 for a kind
 * outside 1..12, which every caller treats as failure. */
uint32_t snmp_get_b_len(uint8_t native, uint32_t count);

/* A zeroed container of kind `native` sized for `capacity` elements; `length`, `hint`,
 * `tag` and the value are 0. Null for an invalid kind or no memory. */
SNMPKIT_NODISCARD snmp_container* snmp_create_container(uint8_t native, uint32_t capacity);

/* Releases the whole block; null is ignored. */
void snmp_free_container(snmp_container* c);

/* Size in bytes of the block behind `c` (size word included); 0 for null. Growth and reuse
 * stay in place while the size for the new kind and capacity does not exceed it. */
uint32_t snmp_container_alloc_size(const snmp_container* c);

/* An OID container (kind 11, tag 0x06, hint 0) holding the dotted text, checked with the
 * first-arc rule. Null for invalid text or no memory. */
SNMPKIT_NODISCARD snmp_container* snmp_create_oid_container(const char* text);

/* A new container holding `length` bytes at `value` as a value of type `tag` with display
 * hint `hint`. For tag 0x06 `value` is dotted OID text (first-arc rule) and `length` is
 * ignored. Null for an unknown tag, a length the tag does not accept, or no memory; nothing
 * is leaked. */
SNMPKIT_NODISCARD snmp_container* snmp_create_value_container(const void* value, uint32_t length,
                                                              uint8_t tag, uint8_t hint);

/* Heap copy of `length` bytes (a one-byte NUL buffer for length 0), released with free().
 * Null for no memory. */
SNMPKIT_NODISCARD uint8_t* snmp_get_native_copy(const void* bytes, uint32_t length);

/* ---- modify ---- */

/* Stores a new value of any accepted tag into `c`, whatever it held. INTEGER takes 1, 2 or
 * 4 bytes, sign-extended; IpAddress, Counter32, Gauge32, TimeTicks 1, 2 or 4, zero-extended
 * (native byte order: four address octets keep their order); Counter64 exactly 8; NULL and
 * the exception tags any length. OCTET STRING and Opaque copy the octets; OID parses text.
 * Returns the handle now holding the value (maybe new, the old block then released), or
 * null: then `c` is still valid (a scalar may already have been stored into it). */
SNMPKIT_NODISCARD snmp_container* snmp_replace_container_value(snmp_container* c,
                                                               const void* value,
                                                               uint32_t length, uint8_t tag,
                                                               uint8_t hint);

/* Makes `dst` an exact copy of `src` (value, length, tag, hint, kind); `dst` may be null to
 * get a new container. Afterwards `capacity` equals the source's `length`. Returns the
 * possibly new destination, or null (null `src` or no memory; `dst` unchanged). */
SNMPKIT_NODISCARD snmp_container* snmp_copy_container_value(snmp_container* dst,
                                                            const snmp_container* src);

/* Re-purposes `c` for `capacity` elements of kind `native`: in place when the block is big
 * enough (hint, tag and value bytes stay), else a new zeroed block. `length` becomes 0.
 * Null for a null handle, an invalid kind or no memory (`c` untouched). */
SNMPKIT_NODISCARD snmp_container* snmp_reuse_container(snmp_container* c, uint8_t native,
                                                       uint32_t capacity);

/* Raises `capacity` by `n`, keeping the contents; in place when the block suffices. Null
 * for a null handle, an invalid kind or no memory (`c` untouched). */
SNMPKIT_NODISCARD snmp_container* snmp_expand_container(snmp_container* c, uint32_t n);

/* Appends the sub-identifiers written in `text` (no first-arc rule) to an OID container.
 * Null for a non-OID container, invalid text or no memory; `c` keeps its value. */
SNMPKIT_NODISCARD snmp_container* snmp_expand_oid_container(snmp_container* c, const char* text);

/* Appends `n` sub-identifiers to an OID container; null if `n` is 0, the container is not
 * an OID, or no memory. */
SNMPKIT_NODISCARD snmp_container* snmp_expand_oid_container_by_int(snmp_container* c,
                                                                   const uint32_t* subids,
                                                                   uint32_t n);

/* Replaces the whole OID in an OID container by `text` (first-arc rule); tag becomes 0x06,
 * hint stays. Null for a non-OID container, invalid text or no memory. */
SNMPKIT_NODISCARD snmp_container* snmp_fill_container_with_oid(snmp_container* c,
                                                               const char* text);

/* ---- query ---- */

/* Order of two OIDs: -1, 0 or 1. With n == 0 the full lexicographic order (a proper prefix
 * sorts first). With n > 0 only the first n sub-identifiers count when both have at least
 * n: 0 then means `a` lies in the subtree `b` of length n. -9 for a null or non-OID
 * argument. */
int32_t snmp_compare_oid_subids(const snmp_container* a, const snmp_container* b, uint32_t n);

/* Stores the sub-identifier at `index` (from 0) in `*out` and returns 0; -1 for a null or
 * non-OID container or an index at or past `length`. */
int snmp_oid_next_subid(const snmp_container* c, uint32_t* out, uint32_t index);

/* Number of sub-identifiers in dotted OID text, 0 when invalid. A leading '.' is skipped and
 * then the first-arc rule always applies (first arc 0..2, second at most 39 under 0 and 1).
 * Empty text and a lone '.' are the OID "0". */
uint32_t snmp_validate_and_count(const char* text, int first_arc_check);

/* Dotted decimal text of an OID ("" for length 0), released with free(). Null for a null
 * or non-OID container or no memory. */
SNMPKIT_NODISCARD char* snmp_oid_to_string(const snmp_container* c);

/* 1 when the bytes are NVT ASCII (every CR followed by LF or NUL, nothing above 126),
 * else 0. */
int snmp_is_nvt_ascii(const uint8_t* bytes, uint32_t length);

/* 0 when equal, -1 when different (including different domains), -2 for a domain other
 * than UDP, TCP or a descriptor. */
int snmp_compare_net_addr(const snmp_net_addr* a, const snmp_net_addr* b);

#ifdef __cplusplus
}
#endif
