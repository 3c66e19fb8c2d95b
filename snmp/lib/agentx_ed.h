#pragma once
/*
 * AgentX PDUs on the wire and the agentx_pdu record: the 20-byte header, the payloads of all
 * eighteen PDU types, OIDs (with the 1.3.6.1.X prefix compression and the include flag),
 * octet strings padded to a multiple of four bytes, varbinds and search ranges.
 *
 * Input may be in either byte order, as the NETWORK_BYTE_ORDER flag of its header says;
 * output is always in network byte order with that flag set.
 *
 * OIDs, octet strings and values are snmp_containers as everywhere else in the library, so a
 * value passes between SMUX, DPI and AgentX unchanged. A varbind's AgentX type is the
 * container's ASN.1 tag (SNMP_TAG_*: AgentX uses the same numbers). Counter64 is kind
 * SNMP_NATIVE_U64 with words[0] the high and words[1] the low 32 bits; Null and the three
 * exceptions are kind SNMP_NATIVE_NULL; an IpAddress keeps its four octets in wire order in
 * value.octets. OIDs are kind SNMP_NATIVE_OID with tag 0x06; the null OID has length 0.
 *
 * The record owns every container and array hanging from it. Decoding into a record again
 * recycles what is attached to it, so a steady stream of requests allocates little.
 */
#include <stdint.h>

#include "snmp_asn1.h"
#include "snmp_container.h"
#include "snmp_ed.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    AGENTX_VERSION = 1,
    AGENTX_HEADER_LEN = 20,
    /* Largest payload accepted. An SNMP request fits in 64 KiB, so no master sends anything
     * near this; it stops a forged length from making a reader buffer without bound. */
    AGENTX_MAX_PAYLOAD = 1048576,
    AGENTX_MAX_SUBIDS = 128 /* sub-identifiers an encoded OID may carry after its prefix */
};

/* Result codes; where an SNMP_CODEC_* code means the same, the value is the same. */
enum {
    AGENTX_OK = SNMP_CODEC_OK,
    AGENTX_NEED_MORE = -2, /* fewer bytes than the header, or than the header announces */
    AGENTX_NO_MEMORY = SNMP_CODEC_NO_MEMORY, /* no memory for a container or array */
    AGENTX_NO_ROOM = SNMP_CODEC_NO_ROOM,     /* output buffer too small */
    AGENTX_TOO_BIG = -7,                     /* payload length above AGENTX_MAX_PAYLOAD */
    AGENTX_MALFORMED = SNMP_CODEC_MALFORMED, /* version, length or field breaking the layout */
    AGENTX_BAD_ARGUMENT = SNMP_CODEC_BAD_ARGUMENT, /* null argument, unusable container */
    AGENTX_UNKNOWN_PDU = SNMP_CODEC_UNKNOWN_PDU    /* header type outside 1..18 */
};

/* PDU types (`header.type`). */
enum {
    AGENTX_OPEN_PDU = 1,
    AGENTX_CLOSE_PDU = 2,
    AGENTX_REGISTER_PDU = 3,
    AGENTX_UNREGISTER_PDU = 4,
    AGENTX_GET_PDU = 5,
    AGENTX_GETNEXT_PDU = 6,
    AGENTX_GETBULK_PDU = 7,
    AGENTX_TESTSET_PDU = 8,
    AGENTX_COMMITSET_PDU = 9,
    AGENTX_UNDOSET_PDU = 10,
    AGENTX_CLEANUPSET_PDU = 11,
    AGENTX_NOTIFY_PDU = 12,
    AGENTX_PING_PDU = 13,
    AGENTX_INDEXALLOCATE_PDU = 14,
    AGENTX_INDEXDEALLOCATE_PDU = 15,
    AGENTX_ADDAGENTCAPS_PDU = 16,
    AGENTX_REMOVEAGENTCAPS_PDU = 17,
    AGENTX_RESPONSE_PDU = 18
};

/* Header flags. */
enum {
    AGENTX_FLAG_INSTANCE_REGISTRATION = 0x01,
    AGENTX_FLAG_NEW_INDEX = 0x02,
    AGENTX_FLAG_ANY_INDEX = 0x04,
    AGENTX_FLAG_NON_DEFAULT_CONTEXT = 0x08,
    AGENTX_FLAG_NETWORK_BYTE_ORDER = 0x10
};

/* Close reasons. */
enum {
    AGENTX_CLOSE_OTHER = 1,
    AGENTX_CLOSE_PARSE_ERROR = 2,
    AGENTX_CLOSE_PROTOCOL_ERROR = 3,
    AGENTX_CLOSE_TIMEOUTS = 4,
    AGENTX_CLOSE_SHUTDOWN = 5,
    AGENTX_CLOSE_BY_MANAGER = 6
};

/* Response errors of AgentX's own; 0..18 are the SNMP error statuses. */
enum {
    AGENTX_ERR_OPEN_FAILED = 256,
    AGENTX_ERR_NOT_OPEN = 257,
    AGENTX_ERR_INDEX_WRONG_TYPE = 258,
    AGENTX_ERR_INDEX_ALREADY_ALLOCATED = 259,
    AGENTX_ERR_INDEX_NONE_AVAILABLE = 260,
    AGENTX_ERR_INDEX_NOT_ALLOCATED = 261,
    AGENTX_ERR_UNSUPPORTED_CONTEXT = 262,
    AGENTX_ERR_DUPLICATE_REGISTRATION = 263,
    AGENTX_ERR_UNKNOWN_REGISTRATION = 264,
    AGENTX_ERR_UNKNOWN_AGENT_CAPS = 265,
    AGENTX_ERR_PARSE_ERROR = 266,
    AGENTX_ERR_REQUEST_DENIED = 267,
    AGENTX_ERR_PROCESSING_ERROR = 268
};

struct agentx_header {
    uint8_t version; /* as received; the encoder always writes AGENTX_VERSION */
    uint8_t type;    /* AGENTX_*_PDU */
    uint8_t flags;   /* as received; the encoder adds NETWORK_BYTE_ORDER */
    uint32_t session_id;
    uint32_t transaction_id;
    uint32_t packet_id;
    uint32_t payload_len; /* as received; the encoder writes the length it produced */
};
typedef struct agentx_header agentx_header;

/* A search range of Get, GetNext and GetBulk. The end's include octet means nothing: it is
 * ignored on input and written as 0. */
struct agentx_range {
    struct snmp_container* start; /* OID container */
    struct snmp_container* end;   /* OID container; the null OID (length 0) is no bound */
    uint8_t include;              /* 1: `start` itself is in the range */
};
typedef struct agentx_range agentx_range;

/* One AgentX PDU; which fields count depends on `header.type`. Entries of `ranges` and
 * `varbinds` past the counts may hold containers kept for recycling; the counts say what is
 * in use. */
struct agentx_pdu {
    struct agentx_header header;
    /* Octet string container: the context of Register, Unregister, Get, GetNext, GetBulk,
     * TestSet, Notify, Ping, IndexAllocate, IndexDeallocate, AddAgentCaps and
     * RemoveAgentCaps when `header.flags` has NON_DEFAULT_CONTEXT; unused otherwise. */
    struct snmp_container* context;
    struct snmp_container* oid;         /* Open id, (Un)Register subtree, Add/RemoveAgentCaps id */
    struct snmp_container* description; /* octet string: Open, AddAgentCaps */
    uint8_t timeout;                    /* Open, Register: seconds, 0 for the master's default */
    uint8_t priority;                   /* Register, Unregister */
    uint8_t range_subid;      /* Register, Unregister: 0, or the position `upper_bound` ranges */
    uint8_t reason;           /* Close: AGENTX_CLOSE_* */
    uint32_t upper_bound;     /* Register, Unregister when `range_subid` is not 0 */
    uint16_t non_repeaters;   /* GetBulk */
    uint16_t max_repetitions; /* GetBulk */
    uint32_t sys_uptime;      /* Response */
    uint16_t error;           /* Response: SNMP error status or AGENTX_ERR_* */
    uint16_t error_index;     /* Response: 1-based, 0 if none */
    uint32_t num_ranges;      /* Get, GetNext, GetBulk */
    uint32_t range_capacity;  /* entries allocated in `ranges` */
    struct agentx_range* ranges;
    uint32_t num_varbinds; /* TestSet, Notify, IndexAllocate, IndexDeallocate, Response */
    uint32_t varbind_capacity;
    struct snmp_varBind* varbinds;
};
typedef struct agentx_pdu agentx_pdu;

/* ---- create / release ---- */

/* A zeroed record with no arrays; null when memory is exhausted. */
SNMP_CODEC_NODISCARD agentx_pdu* agentx_create_pdu(void);

/* Releases the record with every container and array hanging from it; null is ignored. */
void agentx_free_pdu(agentx_pdu* pdu);

/* ---- modify ---- */

/* Make room for at least `n` entries in `ranges` / `varbinds`; new entries are zeroed, the
 * counts and the entries in use stay. Codes: OK, BAD_ARGUMENT (null), NO_MEMORY (record
 * unchanged). */
SNMP_CODEC_NODISCARD int agentx_reserve_ranges(agentx_pdu* pdu, uint32_t n);
SNMP_CODEC_NODISCARD int agentx_reserve_varbinds(agentx_pdu* pdu, uint32_t n);

/* Appends a varbind; on success the record owns `name` and `value` (a recycled pair in that
 * slot is released). Codes: OK, BAD_ARGUMENT (null argument), NO_MEMORY; on failure the
 * caller still owns both containers. */
SNMP_CODEC_NODISCARD int agentx_add_varbind(agentx_pdu* pdu, struct snmp_container* name,
                                            struct snmp_container* value);

/* ---- query ---- */

/* "Open", "Close", ... "Response" for types 1..18, "unknown" otherwise; static text. */
const char* agentx_pdu_name(uint8_t type);

/* ---- decode / encode ---- */

/*
 * Reads the header at `data` (`len` bytes available) into `*out`. Codes: OK; NEED_MORE
 * (fewer than 20 bytes); MALFORMED (version not 1, payload length not a multiple of 4);
 * TOO_BIG; BAD_ARGUMENT (null). On MALFORMED and TOO_BIG `*out` holds the fields as read; on
 * the others it is untouched. The type is not checked here.
 */
SNMP_CODEC_NODISCARD int agentx_decode_header(const uint8_t* data, uint32_t len,
                                              agentx_header* out);

/*
 * Framing for a byte stream: with `len` bytes buffered at `data`, OK means one whole PDU of
 * `*out_len` bytes (header included) starts there; NEED_MORE means not yet, `*out_len` then
 * being the bytes needed at least (20 until the header is complete, then the whole PDU).
 * MALFORMED and TOO_BIG as agentx_decode_header: the stream cannot be cut any further.
 * A PDU of an unknown type frames normally. `*out_len` is 0 after any other code.
 */
SNMP_CODEC_NODISCARD int agentx_frame_len(const uint8_t* data, uint32_t len, uint32_t* out_len);

/*
 * Decodes the first PDU at `data` into `pdu`; bytes after it are not looked at. Codes: OK;
 * NEED_MORE (the PDU is not complete in `len` bytes); UNKNOWN_PDU; MALFORMED (header as above,
 * a payload that does not fill its length exactly, an OID of more than 128 sub-identifiers,
 * an unknown varbind type, an IpAddress not of 4 octets, ...); TOO_BIG; NO_MEMORY;
 * BAD_ARGUMENT (null). Whenever the header itself was good, `pdu->header` holds it after a
 * failure too, so that the caller can answer by packet id; the other fields are then partly
 * filled, and every container created is attached to the record.
 */
SNMP_CODEC_NODISCARD int agentx_decode_pdu(const uint8_t* data, uint32_t len, agentx_pdu* pdu);

/*
 * Encodes `pdu` by its `header.type` into `buf` of `capacity` bytes, in network byte order,
 * OIDs of the form 1.3.6.1.X.… (X in 1..255) compressed by the prefix. Only the fields its
 * type uses are read; `version` and `payload_len` are ignored. On success `*out_len` holds the
 * encoded size; it is untouched on failure, when the buffer's contents are unspecified.
 * Codes: OK; NO_ROOM; UNKNOWN_PDU; BAD_ARGUMENT (null argument, a missing container or one
 * of the wrong kind, a value tag AgentX lacks, an OID of more than 128 sub-identifiers after
 * its prefix, a payload above AGENTX_MAX_PAYLOAD).
 */
SNMP_CODEC_NODISCARD int agentx_encode_pdu(const agentx_pdu* pdu, uint8_t* buf, uint32_t capacity,
                                           uint32_t* out_len);

#ifdef __cplusplus
}
#endif
