#pragma once
/*
 * The library banner: name, version, release date and the date of this build.
 */

#ifdef __cplusplus
extern "C" {
#endif

/* Prints the banner and a line end on standard output. */
void snmp_print_version(void);

/* The banner text; static, not to be released. */
const char* snmp_get_ptr_to_version(void);

#ifdef __cplusplus
}
#endif
