#pragma once
// DPI 2.0 packets: the in-memory parse tree, its wire form, parsing, building and release.
//
// Texts are NUL-terminated dotted-decimal object identifiers. A group text (the subtree a
// subagent registers, or a request is addressed to) ends with a dot in REGISTER, UNREGISTER
// and SET-family packets; an instance text never ends with a dot, and an empty instance
// means "no instance"; an object identifier is the group followed by the instance, less
// one trailing dot. Every text, value and byte string hanging from a record is a separate
// heap allocation owned by that record.
//
// Serialised packets start with a 2-byte big-endian length counting the bytes after it.
// Every serialisation writes into one static 4096-byte buffer: the returned packet stays
// valid only until the next packet is built, so send or copy it first. Single-threaded.
//
// This header compiles as C11 and as C++.

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__cplusplus) && __cplusplus >= 201703L
#define DPIM_NODISCARD [[nodiscard]]
#else
#define DPIM_NODISCARD
#endif
#if defined(__GNUC__)
#define DPIM_PRINTF(fmt, first) __attribute__((format(printf, fmt, first)))
#else
#define DPIM_PRINTF(fmt, first)
#endif

enum dpi_constants {
    SNMP_DPI_PROTOCOL = 2,  // the only protocol byte there is
    SNMP_DPI_VERSION = 2,   // DPI 2.0; version 1 (releases 0 and 1) is still read and written
    SNMP_DPI_RELEASE = 0,
    DPI_PACKET_BUF_SIZE = 4096,  // size of the static serialisation buffer
    DPI_PACKET_MAX = 4095,       // largest packet built, length field included
    DPI_DESCRIPTION_MAX = 255,   // longest OPEN description accepted for building
};

// Packet types (dpi_hdr.packet_type).
enum dpi_packet_type {
    SNMP_DPI_GET = 1,
    SNMP_DPI_GETNEXT = 2,
    SNMP_DPI_SET = 3,
    SNMP_DPI_TRAP = 4,
    SNMP_DPI_RESPONSE = 5,
    SNMP_DPI_REGISTER = 6,
    SNMP_DPI_UNREGISTER = 7,
    SNMP_DPI_OPEN = 8,
    SNMP_DPI_CLOSE = 9,
    SNMP_DPI_COMMIT = 10,
    SNMP_DPI_UNDO = 11,
    SNMP_DPI_GETBULK = 12,  // 12 to 14 are neither parsed nor built
    SNMP_DPI_TRAPV2 = 13,
    SNMP_DPI_INFORM = 14,
    SNMP_DPI_ARE_YOU_THERE = 15,
};

// Value types (dpi_set_packet.value_type). Integer-like types (129..140, except 133) are
// held in host order in memory and travel big-endian; the rest travel as the bytes they are.
enum dpi_value_type {
    DPI_TYPE_OCTET_STRING = 2,
    DPI_TYPE_OBJECT_IDENTIFIER = 3,  // dotted-decimal text bytes, not BER
    DPI_TYPE_NULL = 4,
    DPI_TYPE_IpAddress = 5,  // 4 bytes in network order; written as 133 in version 1
    DPI_TYPE_DisplayString = 9,
    DPI_TYPE_BIT_STRING = 10,
    DPI_TYPE_NsapAddress = 11,
    DPI_TYPE_Counter64 = 13,  // in memory: two uint32_t in host order, high word first
    DPI_TYPE_Opaque = 14,
    DPI_TYPE_noSuchObject = 15,
    DPI_TYPE_noSuchInstance = 16,
    DPI_TYPE_endOfMibView = 17,
    DPI_TYPE_Integer32 = 129,
    DPI_TYPE_IpAddress_v1 = 133,  // version-1 numbering of IpAddress; raw bytes, not a number
    DPI_TYPE_Counter32 = 134,
    DPI_TYPE_Gauge32 = 135,
    DPI_TYPE_TimeTicks = 136,
    DPI_TYPE_UInteger32 = 140,
};

// RESPONSE error codes. 1..18 are the SNMP error statuses.
enum dpi_error_code {
    DPI_ERROR_noError = 0,
    DPI_ERROR_tooBig = 1,
    DPI_ERROR_noSuchName = 2,
    DPI_ERROR_badValue = 3,
    DPI_ERROR_readOnly = 4,
    DPI_ERROR_genErr = 5,
    DPI_ERROR_noAccess = 6,
    DPI_ERROR_wrongType = 7,
    DPI_ERROR_wrongLength = 8,
    DPI_ERROR_wrongEncoding = 9,
    DPI_ERROR_wrongValue = 10,
    DPI_ERROR_noCreation = 11,
    DPI_ERROR_inconsistentValue = 12,
    DPI_ERROR_resourceUnavailable = 13,
    DPI_ERROR_commitFailed = 14,
    DPI_ERROR_undoFailed = 15,
    DPI_ERROR_authorizationError = 16,
    DPI_ERROR_notWritable = 17,
    DPI_ERROR_inconsistentName = 18,
    DPI_ERROR_registerRefused = 101,  // the agent's answer to a REGISTER it will not serve
};

// CLOSE reasons (dpi_close_packet.reason). The library carries the byte unchanged.
enum dpi_close_reason {
    DPI_CLOSE_otherReason = 1,
    DPI_CLOSE_goingDown = 2,
    DPI_CLOSE_unsupportedVersion = 3,
    DPI_CLOSE_protocolError = 4,
    DPI_CLOSE_authenticationError = 5,
    DPI_CLOSE_byManager = 6,
    DPI_CLOSE_timeout = 7,
    DPI_CLOSE_atEndOfMessage = 8,
};

// Generic trap numbers (dpi_trap_packet.generic); 0..5 require specific 0.
enum dpi_generic_trap {
    DPI_TRAP_coldStart = 0,
    DPI_TRAP_warmStart = 1,
    DPI_TRAP_linkDown = 2,
    DPI_TRAP_linkUp = 3,
    DPI_TRAP_authenticationFailure = 4,
    DPI_TRAP_egpNeighborLoss = 5,
    DPI_TRAP_enterpriseSpecific = 6,
};

// GET request, one record per object, chained.
struct dpi_get_packet {
    char* object_id;
    char* group_id;
    char* instance_id;  // null when there is no instance
    struct dpi_get_packet* next;
};
typedef struct dpi_get_packet dpi_get_packet;

// GETNEXT request, laid out as GET.
struct dpi_next_packet {
    char* object_id;
    char* group_id;
    char* instance_id;
    struct dpi_next_packet* next;
};
typedef struct dpi_next_packet dpi_next_packet;

// One varBind: the body of SET, COMMIT and UNDO and the varBind list of RESPONSE and TRAP.
struct dpi_set_packet {
    char* object_id;
    char* group_id;
    char* instance_id;
    uint8_t value_type;
    uint16_t value_len;
    unsigned char* value;  // value_len bytes in memory form; null when value_len is 0
    struct dpi_set_packet* next;
};
typedef struct dpi_set_packet dpi_set_packet;

// REGISTER, one record per subtree, chained.
struct dpi_reg_packet {
    uint16_t timeout;
    int32_t priority;  // -1 or more
    char* group_id;    // ends with a dot
    struct dpi_reg_packet* next;
    uint8_t view_selection;  // 0 or 1
    uint8_t bulk_selection;  // 0 or 1
};
typedef struct dpi_reg_packet dpi_reg_packet;

// UNREGISTER, one record per subtree, chained.
struct dpi_ureg_packet {
    uint8_t reason;
    char* group_id;  // ends with a dot
    struct dpi_ureg_packet* next;
};
typedef struct dpi_ureg_packet dpi_ureg_packet;

struct dpi_resp_packet {
    uint8_t error_code;
    int32_t error_index;  // 1-based position in varBinds of the failing varBind; 0 for none
    struct dpi_set_packet* varBinds;
};
typedef struct dpi_resp_packet dpi_resp_packet;

struct dpi_trap_packet {
    int32_t generic;   // 0..6
    int32_t specific;  // 0 unless generic is 6
    struct dpi_set_packet* varBinds;
    char* enterprise_id;  // no trailing dot; null for none
};
typedef struct dpi_trap_packet dpi_trap_packet;

struct dpi_open_packet {
    char* object_id;    // the subagent's identity
    char* description;  // at most 255 characters
    uint16_t timeout;
    uint16_t max_varbinds;
    uint8_t character_set;  // 0 or 1
    uint16_t password_len;
    unsigned char* password;  // password_len bytes, no terminator; null when empty
};
typedef struct dpi_open_packet dpi_open_packet;

struct dpi_close_packet {
    uint8_t reason;
};
typedef struct dpi_close_packet dpi_close_packet;

// One packet. `data` points to the record the packet type names:
//   GET dpi_get_packet, GETNEXT dpi_next_packet, SET/COMMIT/UNDO dpi_set_packet,
//   TRAP dpi_trap_packet, RESPONSE dpi_resp_packet, REGISTER dpi_reg_packet,
//   UNREGISTER dpi_ureg_packet, OPEN dpi_open_packet, CLOSE dpi_close_packet;
//   null for ARE_YOU_THERE.
struct dpi_hdr {
    uint8_t protocol;    // always 2
    uint8_t version;     // 2, or 1 for DPI 1.x
    uint8_t release;     // 0 with version 2; 0 or 1 with version 1
    uint16_t packet_id;  // version 2 only; a RESPONSE carries its request's number
    uint8_t packet_type;
    void* data;
    uint16_t extra_len;
    unsigned char* extra;  // opaque bytes of version-2 GET/GETNEXT/SET/COMMIT/UNDO; or null
};
typedef struct dpi_hdr dpi_hdr;

// Total size of a serialised packet, length field included.
static inline unsigned dpi_packet_len(const unsigned char* packet) {
    return ((unsigned)packet[0] << 8 | (unsigned)packet[1]) + 2u;
}

// ---- create: records ----

// Each appends one new record to `chain` (null starts a chain) and returns the chain's head;
// on failure (bad identifiers or value, no memory) returns null and leaves `chain` untouched
// and still the caller's. Texts and value bytes are copied. The group must be a valid OID
// text (first arc 0, 1 or 2; second arc at most 39 under 0 and 1; digits and single dots,
// a final dot allowed); the instance, when given and non-empty, must be digits and single
// dots without a final dot.
DPIM_NODISCARD dpi_get_packet* mkDPIget_packet(dpi_get_packet* chain, const char* group,
                                               const char* instance);
DPIM_NODISCARD dpi_next_packet* mkDPInext_packet(dpi_next_packet* chain, const char* group,
                                                 const char* instance);
// `value_type` from enum dpi_value_type; `value_len` 0..65535; `value` (in memory form)
// required when `value_len` is not 0.
DPIM_NODISCARD dpi_set_packet* mkDPIset_packet(dpi_set_packet* chain, const char* group,
                                               const char* instance, int value_type, int value_len,
                                               const void* value);
// Not validated here; mkDPIreg and mkDPIureg validate.
DPIM_NODISCARD dpi_reg_packet* mkDPIreg_packet(dpi_reg_packet* chain, uint16_t timeout,
                                               int32_t priority, const char* group,
                                               uint8_t bulk_selection, uint8_t view_selection);
DPIM_NODISCARD dpi_ureg_packet* mkDPIureg_packet(dpi_ureg_packet* chain, uint8_t reason,
                                                 const char* group);

// A new zeroed header with protocol 2 and the given type, version and release. A version-2
// header takes the next packet number (0..65535, wrapping). Version 1 needs release 0 or 1,
// version 2 release 0; anything else, or no memory, gives null. Release with fDPIparse.
DPIM_NODISCARD dpi_hdr* mkDPIhdr_version(int packet_type, int version, int release);

// ---- encode ----

// Serialises `hdr` and its record into the static buffer; returns the packet (length field
// first) or null when a record is missing or unacceptable or the packet would exceed 4095
// bytes. The tree is left as it was.
DPIM_NODISCARD unsigned char* cDPIpacket(const dpi_hdr* hdr);
// As cDPIpacket, then releases the whole tree with fDPIparse, whatever the outcome.
DPIM_NODISCARD unsigned char* mkDPIpacket(dpi_hdr* hdr);

// ---- create: whole version-2 packets ----
// Each validates, builds, serialises into the static buffer and returns the packet, or null.
// Texts stay the caller's.

// OPEN. object_id: valid OID text; description: not null, at most 255 characters;
// timeout, max_varbinds, password_len at most 65535; character_set 0 or 1.
DPIM_NODISCARD unsigned char* mkDPIopen(const char* object_id, const char* description,
                                        unsigned long timeout, unsigned long max_varbinds,
                                        int character_set, unsigned long password_len,
                                        const unsigned char* password);
// REGISTER of one subtree. group: valid OID text (with its final dot); priority -1 or more;
// bulk_selection and view_selection 0 or 1.
DPIM_NODISCARD unsigned char* mkDPIreg(uint16_t timeout, int32_t priority, const char* group,
                                       int bulk_selection, int view_selection);
// UNREGISTER of one subtree (group ends with a dot).
DPIM_NODISCARD unsigned char* mkDPIureg(uint8_t reason, const char* group);
DPIM_NODISCARD unsigned char* mkDPIclose(uint8_t reason);
DPIM_NODISCARD unsigned char* mkDPIayt(void);
// TRAP. generic 0..6, specific 0 unless generic is 6; enterprise_id null or a valid OID text
// without final dot. `varBinds` (may be null) is consumed: released in every case.
DPIM_NODISCARD unsigned char* mkDPItrape(int32_t generic, int32_t specific,
                                         dpi_set_packet* varBinds, const char* enterprise_id);
// RESPONSE to the parsed `request`: carries its version, release and packet number (a
// version-1 request gets a version-1 answer). error_code 0..255, error_index 0 or more and,
// for answers to GET/GETNEXT/SET/COMMIT/UNDO/TRAP with varBinds, at most their count.
// `varBinds` (may be null) is consumed: released in every case.
DPIM_NODISCARD unsigned char* mkDPIresp(const dpi_hdr* request, int error_code, int32_t error_index,
                                        dpi_set_packet* varBinds);

// ---- decode ----

// Parses one whole packet, starting at its 2-byte length field; reads no further than the
// length says. Accepts versions 1.0, 1.1 and 2.0; checks structure, not OID syntax or value
// types. Returns a new tree for the caller to release with fDPIparse, or null (nothing kept).
DPIM_NODISCARD dpi_hdr* pDPIpacket(const unsigned char* packet);

// ---- release (null does nothing) ----

// The header, its record or chain with every text and value, and `extra`.
void fDPIparse(dpi_hdr* hdr);
// A varBind chain that was never attached to a packet.
void fDPIset_packet(dpi_set_packet* chain);

// ---- debug and logging ----

// Sets the debug level (0 is off); announces a change on standard output.
void DPIdebug(int level);
// printf-style message to standard output, no line end added; cut at 799 characters.
void dpilog(const char* format, ...) DPIM_PRINTF(1, 2);

#ifdef __cplusplus
}
#endif
