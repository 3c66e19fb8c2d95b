#pragma once
/*
 * BER toolkit for SNMPv1 and SMUX: forward decoders that walk an input element by element
 * with a position and a count of the bytes left in the enclosing element, and reverse
 * encoders that fill an output area from its end toward its start, so a sequence header is
 * written after its contents without measuring them first.
 *
 * Only one-octet identifiers and definite lengths exist here. The identifier octet is handled
 * whole (class and constructed bit included) and called the tag.
 */
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#define SNMP_CODEC_NODISCARD [[nodiscard]]
#else
#define SNMP_CODEC_NODISCARD
#endif

struct snmp_container;

/* Identifier octets the codec knows. */
enum {
    SNMP_ASN_INTEGER = 0x02,
    SNMP_ASN_OCTET_STRING = 0x04,
    SNMP_ASN_NULL = 0x05,
    SNMP_ASN_OBJECT_ID = 0x06,
    SNMP_ASN_SEQUENCE = 0x30,
    SNMP_ASN_IPADDRESS = 0x40,
    SNMP_ASN_COUNTER = 0x41,
    SNMP_ASN_GAUGE = 0x42,
    SNMP_ASN_TIMETICKS = 0x43,
    SNMP_ASN_OPAQUE = 0x44,
    SNMP_ASN_COUNTER64 = 0x46,
    SNMP_ASN_NO_SUCH_OBJECT = 0x80,
    SNMP_ASN_NO_SUCH_INSTANCE = 0x81,
    SNMP_ASN_END_OF_MIB_VIEW = 0x82,
    SNMP_ASN_CONSTRUCTED = 0x20,
    SNMP_ASN_HIGH_TAG = 0x1F /* low five bits all set: multi-octet identifier, refused */
};

/*
 * Result codes of the BER, SNMP and SMUX codecs. 0 is success; each failure class has its
 * own code, and callers pass codes up unchanged.
 */
enum {
    SNMP_CODEC_OK = 0,
    SNMP_CODEC_INCOMPLETE = -1,    /* varBind without name or value; Open version not 0 */
    SNMP_CODEC_NO_MEMORY = -4,     /* no memory for a container or record */
    SNMP_CODEC_NO_ROOM = -5,       /* output area too small; text longer than its buffer */
    SNMP_CODEC_TOO_MANY = -6,      /* more varBinds than the limit */
    SNMP_CODEC_BAD_OID = -9,       /* first two arcs are not a valid pair */
    SNMP_CODEC_MALFORMED = -12,    /* wrong tag, bad length, failed primitive */
    SNMP_CODEC_BAD_ARGUMENT = -13, /* bad argument, unsupported type or version */
    SNMP_CODEC_UNKNOWN_PDU = -21   /* identifier octet of no SMUX PDU */
};

/* ---- decoders ----
 * Each takes the position of an element's identifier octet and the count of bytes left in
 * the enclosing element (which must not exceed the bytes actually readable there). A null
 * result is failure; the remaining count is then unspecified and the caller abandons the
 * message. The tag out-argument is set from the identifier octet before anything can fail,
 * so it is valid after a failure too (unless the remaining count was 0 or its pointer null).
 * No decoder reads past the remaining count, and none checks the tag: callers compare it.
 */

/*
 * Length octets at `p`; `out_octets` receives how many there are (0x80|n form: n + 1).
 * Returns 0xFFFFFFFF for the indefinite form (a lone 80 octet), leaving `out_octets`
 * alone. Unbounded: the caller guarantees that all the length octets are readable (at most
 * 128 bytes); decoders of untrusted input go through the header functions instead.
 */
SNMP_CODEC_NODISCARD uint32_t asn_readlen(const uint8_t* p, uint32_t* out_octets);

/* As asn_readlen; returns the position after the length octets and stores the length
 * (0xFFFFFFFF for the indefinite form) in `out_len`. Same precondition. */
SNMP_CODEC_NODISCARD const uint8_t* asn_decode_length(const uint8_t* p, uint32_t* out_len);

/* Opens an element: returns the position of its contents and sets `*remaining` to the
 * content length. Fails on a null `remaining`, a high-tag-number identifier, the indefinite
 * form, or an element larger than `*remaining`. */
SNMP_CODEC_NODISCARD const uint8_t* asn_decode_header(const uint8_t* p, uint32_t* remaining,
                                                      uint8_t* out_tag);

/* As asn_decode_header, but the content length goes to `out_len` and `*remaining` only
 * loses the header's size. */
SNMP_CODEC_NODISCARD const uint8_t* asn_decode_sub_header(const uint8_t* p, uint32_t* remaining,
                                                          uint32_t* out_len, uint8_t* out_tag);

/* The following consume a whole element, subtract its size from `*remaining` and return
 * the position after it. */

/* Fails unless the length octet is exactly 00. */
SNMP_CODEC_NODISCARD const uint8_t* asn_decode_NULL(const uint8_t* p, uint32_t* remaining,
                                                    uint8_t* out_tag);

/* Two's complement, sign-extended; contents longer than four octets keep their last four;
 * empty contents are 0. */
SNMP_CODEC_NODISCARD const uint8_t* asn_decode_int(const uint8_t* p, uint32_t* remaining,
                                                   uint8_t* out_tag, int32_t* out_value);

/* As asn_decode_int without sign extension (00 FF FF FF FF is 0xFFFFFFFF). */
SNMP_CODEC_NODISCARD const uint8_t* asn_decode_u_int(const uint8_t* p, uint32_t* remaining,
                                                     uint8_t* out_tag, uint32_t* out_value);

/* Copies the contents into `dst`; `*size` is the capacity of `dst` on entry and the number
 * of octets copied on success. A string longer than the capacity fails and copies nothing.
 * No NUL is appended. */
SNMP_CODEC_NODISCARD const uint8_t* asn_decode_string(const uint8_t* p, uint32_t* remaining,
                                                      uint8_t* out_tag, uint8_t* dst,
                                                      uint32_t* size);

/* Sub-identifiers into `subids`; `*count` is the capacity of the array on entry and the
 * number of sub-identifiers on success. Empty contents give a count of 0 (and zero the first
 * two entries when they exist); anything else gives at least 2, the first encoded value being
 * split into the two leading arcs. Fails on a sub-identifier cut off by the end of the
 * contents and on more sub-identifiers than the array holds. Sub-identifiers wider than
 * 32 bits keep their low 32 bits. */
SNMP_CODEC_NODISCARD const uint8_t* asn_decode_oid(const uint8_t* p, uint32_t* remaining,
                                                   uint8_t* out_tag, uint32_t* subids,
                                                   uint32_t* count);

/* ---- reverse encoders ----
 * `pos` points just past the free area (initially the end of the output); `*room` is the
 * number of free bytes in front of it. Each writes in front of `pos`, lowers `*room` by the
 * bytes written and returns the new position (the first byte written), or null when the
 * room is too small. The finished encoding runs from the final position to the end.
 */

/* Minimal definite length. Needs a room of at least 5 whatever the length. */
SNMP_CODEC_NODISCARD uint8_t* asn_encode_len_reverse(uint8_t* pos, uint32_t* room, uint32_t len);

/* Length then identifier of an element whose `len` content bytes are already in place.
 * Fails also for a high-tag-number `tag`. */
SNMP_CODEC_NODISCARD uint8_t* asn_encode_header_reverse(uint8_t* pos, uint32_t* room, uint8_t tag,
                                                        uint32_t len);

/* Minimal two's complement (1 to 4 content octets). */
SNMP_CODEC_NODISCARD uint8_t* asn_encode_int_reverse(uint8_t* pos, uint32_t* room, uint8_t tag,
                                                     int32_t value);

/* Minimal unsigned: 1 to 5 content octets, a leading 00 when the top bit is set. */
SNMP_CODEC_NODISCARD uint8_t* asn_encode_u_int_reverse(uint8_t* pos, uint32_t* room, uint8_t tag,
                                                       uint32_t value);

/* Contents, length, tag. The length's five-byte room rule applies after the copy; a failure
 * there leaves `*room` already lowered by `len`. */
SNMP_CODEC_NODISCARD uint8_t* asn_encode_string_reverse(uint8_t* pos, uint32_t* room, uint8_t tag,
                                                        const uint8_t* src, uint32_t len);

/*
 * Encodes one value container by its `tag`. Returns 0 and moves `*pos`, or:
 *   SNMP_CODEC_NO_ROOM       room too small (always for a room of 0 or 1);
 *   SNMP_CODEC_BAD_OID       OID whose first two arcs are no valid pair;
 *   SNMP_CODEC_BAD_ARGUMENT  null argument, constructed tag, tag without an encoder
 *                            (Counter64 among them), or an octet string whose length octets
 *                            no longer fit after its contents.
 * On failure `*pos` is unchanged, though bytes inside the room may have been written.
 * An IpAddress container gets its `length` set to 4; nothing else in the container changes.
 */
SNMP_CODEC_NODISCARD int asn_encode_primitive_reverse(uint8_t** pos, uint32_t* room,
                                                      struct snmp_container* value);

#ifdef __cplusplus
}
#endif
