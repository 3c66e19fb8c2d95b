#pragma once
/*
 * SMUX PDUs on the wire and the smux_pdu record. SNMP PDUs travel bare here (no version, no
 * community), next to the five SMUX PDUs Open, Close, RReq, RRsp and SOut.
 *
 * Both operations work on static storage: one record receives every decoded PDU, and one
 * output area of SMUX_BUF_SIZE bytes holds every encoding. Neither is reentrant; a result
 * must be consumed (sent, copied) before the next call.
 */
#include <stdint.h>

#include "snmp_ed.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    SMUX_BUF_SIZE = 4096,     /* the encoder's output area */
    SMUX_MAX_VARBINDS = 4097, /* varBinds a decoded Get/GetNext/GetResponse/Set may carry */
    SMUX_MAX_TRAP_VARBINDS = 257
};

/*
 * Decodes the PDU at the start of the `length` bytes at `data` into the static record and
 * stores its address in `*result`. Bytes after the first PDU are not looked at. The record
 * is valid until the next call, which overwrites its fields and recycles the containers
 * attached to it; callers may modify it and hand it to smux_encode_message.
 * Codes: 0; SNMP_CODEC_NO_MEMORY (tried again on the next call), SNMP_CODEC_NO_ROOM (Open
 * description or password over 255 octets), SNMP_CODEC_TOO_MANY, SNMP_CODEC_MALFORMED,
 * SNMP_CODEC_UNKNOWN_PDU. On failure `*result` is not touched and the record is partly
 * filled.
 */
SNMP_CODEC_NODISCARD int smux_decode_message(const uint8_t* data, uint32_t length,
                                             smux_pdu** result);

/*
 * Encodes `record` by its `type` into the static output area; on success `*start` is the
 * first byte and `*length` the size of the encoding, which always ends at the last byte of
 * the area and stays valid until the next call. The SNMP PDUs take their identifier from
 * the record's `type`, not from their own.
 * Codes: 0; SNMP_CODEC_INCOMPLETE (Open version not 0, varBind without name or value),
 * SNMP_CODEC_NO_ROOM, SNMP_CODEC_BAD_OID, SNMP_CODEC_BAD_ARGUMENT (missing sub-record,
 * unsupported value, a fixed field that no longer fits), SNMP_CODEC_UNKNOWN_PDU.
 */
SNMP_CODEC_NODISCARD int smux_encode_message(uint8_t** start, uint32_t* length, smux_pdu* record);

#ifdef __cplusplus
}
#endif
