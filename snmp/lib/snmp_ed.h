#pragma once
/*
 * SNMPv1 PDUs in memory and their BER form: variable bindings, Get/GetNext/GetResponse/Set,
 * the Trap-PDU, and the message wrapper (version, community) around them. The records are
 * plain data owned by the caller, together with the containers they point to; decoding into
 * a record again reuses the containers already attached to it and never frees any.
 */
#include <stdint.h>

#include "snmp_asn1.h"

#ifdef __cplusplus
extern "C" {
#endif

struct snmp_container;

/* PDU identifier octets: the SNMP PDUs and the SMUX-specific ones. */
enum {
    SNMP_PDU_GET = 0xA0,
    SNMP_PDU_GETNEXT = 0xA1,
    SNMP_PDU_RESPONSE = 0xA2,
    SNMP_PDU_SET = 0xA3,
    SNMP_PDU_TRAP = 0xA4,
    SMUX_PDU_OPEN = 0x60,
    SMUX_PDU_CLOSE = 0x41,
    SMUX_PDU_RREQ = 0x62,
    SMUX_PDU_RRSP = 0x43,
    SMUX_PDU_SOUT = 0x44
};

enum { SMUX_TEXT_SIZE = 256 }; /* description and password buffers, NUL included */

/* ClosePDU reasons (the `code` of a SMUX_PDU_CLOSE record). */
enum {
    SMUX_CLOSE_GOING_DOWN = 0,
    SMUX_CLOSE_UNSUPPORTED_VERSION = 1,
    SMUX_CLOSE_PACKET_FORMAT = 2,
    SMUX_CLOSE_PROTOCOL_ERROR = 3,
    SMUX_CLOSE_INTERNAL_ERROR = 4,
    SMUX_CLOSE_AUTHENTICATION_FAILURE = 5
};

struct snmp_varBind {
    struct snmp_container* name;  /* OID container; null until something is stored */
    struct snmp_container* value; /* value container; null until something is stored */
};
typedef struct snmp_varBind snmp_varBind;

/* Get, GetNext, GetResponse or Set. Allocated with room for a chosen number of varBinds
 * (snmp_create_pdu); the record does not know that number, its owner does. */
struct snmp_pdu {
    int32_t request_id;
    int32_t error_index;  /* 1-based position of the failing varBind, 0 if none */
    int32_t error_status; /* SNMPv1 error number, 0 if none */
    uint8_t type;         /* 0xA0..0xA3 as received */
    uint32_t varBind_count;
    struct snmp_varBind varBinds[]; /* in wire order */
};
typedef struct snmp_pdu snmp_pdu;

struct snmp_trap_pdu {
    struct snmp_container* enterprise;
    uint8_t agent_addr[4]; /* network byte order */
    int32_t generic_trap;
    int32_t specific_trap;
    uint32_t time_stamp; /* hundredths of a second */
    uint32_t varBind_count;
    struct snmp_varBind varBinds[];
};
typedef struct snmp_trap_pdu snmp_trap_pdu;

/* One SMUX PDU; which fields count depends on `type`. */
struct smux_pdu {
    int32_t version;                  /* OpenPDU: only 0 is valid */
    uint8_t type;                     /* identifier octet, SMUX_PDU_* or SNMP_PDU_* */
    int32_t code;                     /* Close reason, RRsp result, SOut 0 commit / 1 rollback */
    int32_t priority;                 /* RReq */
    int32_t operation;                /* RReq: 0 delete, 1 readOnly, 2 readWrite */
    char description[SMUX_TEXT_SIZE]; /* OpenPDU; NUL-terminated after decoding */
    uint32_t description_len;
    char password[SMUX_TEXT_SIZE]; /* OpenPDU; NUL-terminated after decoding */
    uint32_t password_len;
    struct snmp_container* oid; /* OpenPDU identity, or RReq subtree */
    struct snmp_pdu* snmp;      /* types 0xA0..0xA3 */
    struct snmp_trap_pdu* trap; /* type 0xA4 */
};
typedef struct smux_pdu smux_pdu;

/* SNMPv1 message for the wrapper layer. */
struct snmp_message {
    int32_t version;         /* the encoder takes only 0 */
    uint32_t community_size; /* capacity of `community`, one byte for a NUL included */
    uint32_t community_len;
    char* community;
    uint32_t snmp_size; /* bytes of storage behind `snmp`; sets the decoder's varBind limit */
    uint32_t trap_size; /* bytes of storage behind `trap`; likewise */
    struct snmp_pdu* snmp;
    struct snmp_trap_pdu* trap;
    uint8_t pdu_type;
};
typedef struct snmp_message snmp_message;

struct snmp_buffer {
    uint8_t* base; /* encoder: start of the storage */
    uint32_t size; /* encoder: size of the storage */
    uint8_t* data; /* start of the encoded message: set by the encoder, read by the decoder */
    uint32_t len;
};
typedef struct snmp_buffer snmp_buffer;

/* ---- create / release ---- */

/* Zeroed records with room for `num_varBinds` entries; null when memory is exhausted. */
SNMP_CODEC_NODISCARD snmp_pdu* snmp_create_pdu(uint32_t num_varBinds);
SNMP_CODEC_NODISCARD snmp_trap_pdu* snmp_create_trap_pdu(uint32_t num_varBinds);

/* Byte size of such a record, for snmp_message's `snmp_size` and `trap_size`. */
SNMP_CODEC_NODISCARD uint32_t snmp_pdu_size(uint32_t num_varBinds);
SNMP_CODEC_NODISCARD uint32_t snmp_trap_pdu_size(uint32_t num_varBinds);

/* Releases the containers of the first `num_varBinds` entries (whatever `varBind_count`
 * says, since decoding leaves recycled containers beyond it) and nulls the slots. */
void snmp_free_varBinds(snmp_varBind* varBinds, uint32_t num_varBinds);

/* Release a record made by the create functions above, with every container hanging from
 * it; `num_varBinds` is the number it was created with. Null is ignored. */
void snmp_free_pdu(snmp_pdu* pdu, uint32_t num_varBinds);
void snmp_free_trap_pdu(snmp_trap_pdu* trap, uint32_t num_varBinds);

/* ---- encode / decode ----
 * Encoders write in front of `*pos` within `*room` (see snmp_asn1.h) and move `*pos` on
 * success; after a failure the output is to be discarded. Decoders read `remaining` bytes
 * from `pos`; after a failure the record is partly filled, but every container created is
 * attached to it. Codes: SNMP_CODEC_*.
 */

/*
 * One OBJECT IDENTIFIER element into the container in `*slot`, which is created when the
 * slot is empty and re-purposed otherwise; `*slot` then holds the handle to use from now on.
 * Moves `*pos` past the element and lowers `*remaining`. Codes: 0, NO_MEMORY, MALFORMED.
 */
SNMP_CODEC_NODISCARD int decode_oid(struct snmp_container** slot, const uint8_t** pos,
                                    uint32_t* remaining);

/* The fields of a Get/GetNext/GetResponse/Set, without its identifier and length: the
 * caller writes those with the tag it wants. */
SNMP_CODEC_NODISCARD int encode_pdu(uint8_t** pos, uint32_t* room, snmp_pdu* pdu);

/* The fields of a PDU whose header the caller has opened: `pos` is its first field and
 * `remaining` its content length. At most `limit` + 1 varBinds are accepted; the record must
 * have room for that many. */
SNMP_CODEC_NODISCARD int decode_pdu(snmp_pdu* pdu, uint32_t limit, const uint8_t* pos,
                                    uint32_t remaining);

/* As encode_pdu for a Trap-PDU. Counter64 values are left out of an encoded trap. */
SNMP_CODEC_NODISCARD int encode_trap_pdu(uint8_t** pos, uint32_t* room, snmp_trap_pdu* trap);

/* As decode_pdu for a Trap-PDU. */
SNMP_CODEC_NODISCARD int decode_trap_pdu(snmp_trap_pdu* trap, uint32_t limit, const uint8_t* pos,
                                         uint32_t remaining);

/* Whole SNMPv1 message into `buffer->base`/`size`, never using the last 8 bytes of it.
 * On success `buffer->data` and `len` hold the message. */
SNMP_CODEC_NODISCARD int snmp_encode_message(snmp_buffer* buffer, snmp_message* message);

/* Whole SNMPv1 message from `buffer->data`/`len` into `message`: its `community` buffer
 * and, by the PDU's type, its `snmp` or `trap` record (sized by `snmp_size`/`trap_size`,
 * which must state room for at least two varBinds). `snmp->request_id` is 0x7FFFFFFF when
 * decoding failed before the request-id. */
SNMP_CODEC_NODISCARD int snmp_decode_message(snmp_message* message, const snmp_buffer* buffer);

#ifdef __cplusplus
}
#endif
