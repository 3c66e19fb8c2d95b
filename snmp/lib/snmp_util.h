#pragma once
/*
 * Printable forms of container values, TimeTicks counts and transport addresses, for tools
 * and traces built on the library.
 */
#include <stdint.h>

#include "snmp_container.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Name tables for the hinted 32-bit values; a value outside a table prints entry 0. */
enum {
    SNMP_TRUTH_VAL_TEXT_COUNT = 3,
    SNMP_ROW_STATUS_TEXT_COUNT = 7,
    SNMP_STOR_TYPE_TEXT_COUNT = 6
};
extern const char* const truth_val_text[SNMP_TRUTH_VAL_TEXT_COUNT];
extern const char* const row_status_text[SNMP_ROW_STATUS_TEXT_COUNT];
extern const char* const stor_type_text[SNMP_STOR_TYPE_TEXT_COUNT];

/* Size of the static buffers behind snmp_timeTicks_to_string and snmp_net_addr_to_string. */
enum {
    SNMP_TIMETICKS_TEXT_SIZE = 64,
    SNMP_NET_ADDR_TEXT_SIZE = 160
};

/* The value of `c` as text, honouring its display hint; `flag` 1 asks for plain numbers
 * where a hint would give names or a time text. A new heap string released with free(), or
 * null for a null container, a storage kind other than 3, 4, 5, 8, 11, 12, or no memory. */
SNMPKIT_NODISCARD char* snmp_value_to_string_format(const snmp_container* c, int32_t flag);

/* "<ticks> - [d days, ][h hours, ][m minutes, ]s.hh seconds". Static buffer, overwritten by
 * the next call. */
const char* snmp_timeTicks_to_string(uint32_t ticks);

/* "TCP a.b.c.d port n", "UDP a.b.c.d port n", "UNIX file descriptor n.", "Unknown domain"
 * or "Null ptr". Static buffer, overwritten by the next call. */
const char* snmp_net_addr_to_string(const snmp_net_addr* a);

#ifdef __cplusplus
}
#endif
