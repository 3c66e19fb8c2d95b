#pragma once
// What the DPI packet model, parser, constructors and serialiser share with each other and
// with no one else: text helpers, the release of single records, and the count of varBinds
// the last serialisation wrote. C++ only and not installed; hidden from the shared library's
// exports, and kept in a namespace so that a program linking the archive cannot clash.
#include <cstddef>

#include "snmpmDPI.h"

#if defined(__GNUC__)
#define DPIM_HIDDEN __attribute__((visibility("hidden")))
#else
#define DPIM_HIDDEN
#endif

namespace dpim {

// ---- texts (snmpmDPI.cpp) ----

// A heap copy of `text`; `out_len` gets its size including the NUL even when the allocation
// fails, so a reader can still tell how far the text reached. Null gives null and 0.
DPIM_HIDDEN char* copy(const char* text, size_t* out_len);
// The object identifier text of a group and an instance (null or empty for none): the two
// joined, less one final dot. Null when `group` is null or out of memory.
DPIM_HIDDEN char* object_id_of(const char* group, const char* instance);
DPIM_HIDDEN bool ends_with_dot(const char* text);
// Removes one final dot, if there is one; null does nothing.
DPIM_HIDDEN void drop_final_dot(char* text);
// An empty instance text means the same as none.
DPIM_HIDDEN bool has_instance(const char* instance);
// Version-2 GET, GETNEXT, SET, COMMIT and UNDO carry `extra` bytes before their body.
DPIM_HIDDEN bool carries_extra(int packet_type);

// ---- release of single records and chains (snmpmDPI.cpp; null does nothing) ----

DPIM_HIDDEN void fDPIget_packet(dpi_get_packet* chain);
DPIM_HIDDEN void fDPInext_packet(dpi_next_packet* chain);
DPIM_HIDDEN void fDPIreg_packet(dpi_reg_packet* chain);
DPIM_HIDDEN void fDPIureg_packet(dpi_ureg_packet* chain);
DPIM_HIDDEN void fDPItrap_packet(dpi_trap_packet* trap);
DPIM_HIDDEN void fDPIresp_packet(dpi_resp_packet* resp);
DPIM_HIDDEN void fDPIopen_packet(dpi_open_packet* open);

// ---- identifiers (snmpbDPI.cpp) ----

// Non-zero when `text` is not an acceptable dotted-decimal identifier; a final dot is
// allowed. With `root_check` non-zero the first two arcs must also be a valid root.
DPIM_HIDDEN int oid_is_invalid(const char* text, int root_check);

// ---- serialisation (snmpcDPI.cpp) ----

// Records written by the last GET/GETNEXT/SET-family/UNREGISTER body or TRAP/RESPONSE
// varBind list that cDPIpacket wrote; mkDPIresp checks an error index against it.
DPIM_HIDDEN int varbinds_written(void);

}  // namespace dpim
