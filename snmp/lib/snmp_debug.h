#pragma once
/*
 * The SNMP library's own trace switches and dump helper.
 */
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Trace switches, set from the environment by snmp_debug_init(). */
extern int32_t snmp_debug_printf; /* "SNMP_PRINTF", initially 0 */
extern int32_t snmp_debug_error;  /* "SNMP_ERROR", initially 1 */
extern int32_t snmp_debug_dump;   /* "SNMP_DUMP", initially 0 */

/* Reads the three switches from their environment variables (leading decimal integer; an
 * unset variable leaves its switch alone) and prints the library banner when any of them
 * asks for more than the default. */
void snmp_debug_init(void);

/* Hex dump on standard output: "Dump of <len> byte <label>:", then 16 bytes a row, each
 * row indented by two blanks. Not flushed. */
void dump_bfr(const uint8_t* buf, int32_t len, const char* label);

/* The part of `path` after its last separator (backslash if the text has any, else slash),
 * or `path` itself. Points into `path`. */
const char* snmp_strip_path(const char* path);

#ifdef __cplusplus
}
#endif
