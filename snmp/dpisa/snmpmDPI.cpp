// DPI 2.0 packets: what the parser, the constructors and the serialiser share (text helpers,
// the release of parse trees), and the library's debug switch and log call. The parser is in
// snmppDPI.cpp, the record and packet constructors in snmpbDPI.cpp, the serialiser in
// snmpcDPI.cpp.
#include "snmpmDPI.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dpi_internal.h"

using namespace dpim;

// ---- static state ----

static int dpi_debug;

static const char dpi_banner[] = "DPI Version 2.0.22, 96Sep30, Compiled " __DATE__ " at " __TIME__;

// ---- text utilities ----

static char* concat(const char* first, const char* second) {
    if (first == nullptr) {
        return nullptr;
    }
    size_t first_len = strlen(first);
    size_t second_len = second == nullptr ? 0 : strlen(second);
    char* joined = static_cast<char*>(malloc(first_len + second_len + 1));
    if (joined == nullptr) {
        return nullptr;
    }
    memcpy(joined, first, first_len);
    if (second_len != 0) {
        memcpy(joined + first_len, second, second_len);
    }
    joined[first_len + second_len] = '\0';
    return joined;
}

char* dpim::copy(const char* text, size_t* out_len) {
    if (text == nullptr) {
        *out_len = 0;
        return nullptr;
    }
    size_t len = strlen(text) + 1;
    *out_len = len;
    char* dup = static_cast<char*>(malloc(len));
    if (dup != nullptr) {
        memcpy(dup, text, len);
    }
    return dup;
}

// The parser and the record constructors both derive the object identifier this way, so
// that a parsed record and one built from the same texts hold the same identifier.
char* dpim::object_id_of(const char* group, const char* instance) {
    char* object_id = concat(group, instance);
    drop_final_dot(object_id);
    return object_id;
}

bool dpim::ends_with_dot(const char* text) {
    size_t len = strlen(text);
    return len != 0 && text[len - 1] == '.';
}

void dpim::drop_final_dot(char* text) {
    if (text != nullptr && ends_with_dot(text)) {
        text[strlen(text) - 1] = '\0';
    }
}

bool dpim::has_instance(const char* instance) {
    return instance != nullptr && instance[0] != '\0';
}

bool dpim::carries_extra(int packet_type) {
    return packet_type == SNMP_DPI_GET || packet_type == SNMP_DPI_GETNEXT ||
           packet_type == SNMP_DPI_SET || packet_type == SNMP_DPI_COMMIT ||
           packet_type == SNMP_DPI_UNDO;
}

// ---- release ----

template <typename Record>
static void free_identifier_chain(Record* chain) {
    while (chain != nullptr) {
        Record* next = chain->next;
        free(chain->object_id);
        free(chain->group_id);
        free(chain->instance_id);
        free(chain);
        chain = next;
    }
}

void dpim::fDPIget_packet(dpi_get_packet* chain) {
    free_identifier_chain(chain);
}

void dpim::fDPInext_packet(dpi_next_packet* chain) {
    free_identifier_chain(chain);
}

void fDPIset_packet(dpi_set_packet* chain) {
    while (chain != nullptr) {
        dpi_set_packet* next = chain->next;
        free(chain->object_id);
        free(chain->group_id);
        free(chain->instance_id);
        free(chain->value);
        free(chain);
        chain = next;
    }
}

void dpim::fDPIreg_packet(dpi_reg_packet* chain) {
    while (chain != nullptr) {
        dpi_reg_packet* next = chain->next;
        free(chain->group_id);
        free(chain);
        chain = next;
    }
}

void dpim::fDPIureg_packet(dpi_ureg_packet* chain) {
    while (chain != nullptr) {
        dpi_ureg_packet* next = chain->next;
        free(chain->group_id);
        free(chain);
        chain = next;
    }
}

void dpim::fDPItrap_packet(dpi_trap_packet* trap) {
    if (trap == nullptr) {
        return;
    }
    free(trap->enterprise_id);
    fDPIset_packet(trap->varBinds);
    free(trap);
}

void dpim::fDPIresp_packet(dpi_resp_packet* resp) {
    if (resp == nullptr) {
        return;
    }
    fDPIset_packet(resp->varBinds);
    free(resp);
}

void dpim::fDPIopen_packet(dpi_open_packet* open) {
    if (open == nullptr) {
        return;
    }
    free(open->object_id);
    free(open->description);
    free(open->password);
    free(open);
}

static void fDPIclose_packet(dpi_close_packet* close) {
    free(close);
}

void fDPIparse(dpi_hdr* hdr) {
    if (hdr == nullptr) {
        return;
    }
    switch (hdr->packet_type) {
        case SNMP_DPI_GET:
            fDPIget_packet(static_cast<dpi_get_packet*>(hdr->data));
            break;
        case SNMP_DPI_GETNEXT:
            fDPInext_packet(static_cast<dpi_next_packet*>(hdr->data));
            break;
        case SNMP_DPI_SET:
        case SNMP_DPI_COMMIT:
        case SNMP_DPI_UNDO:
            fDPIset_packet(static_cast<dpi_set_packet*>(hdr->data));
            break;
        case SNMP_DPI_TRAP:
            fDPItrap_packet(static_cast<dpi_trap_packet*>(hdr->data));
            break;
        case SNMP_DPI_RESPONSE:
            fDPIresp_packet(static_cast<dpi_resp_packet*>(hdr->data));
            break;
        case SNMP_DPI_REGISTER:
            fDPIreg_packet(static_cast<dpi_reg_packet*>(hdr->data));
            break;
        case SNMP_DPI_UNREGISTER:
            fDPIureg_packet(static_cast<dpi_ureg_packet*>(hdr->data));
            break;
        case SNMP_DPI_OPEN:
            fDPIopen_packet(static_cast<dpi_open_packet*>(hdr->data));
            break;
        case SNMP_DPI_CLOSE:
            fDPIclose_packet(static_cast<dpi_close_packet*>(hdr->data));
            break;
        default:
            // No record type is known for the rest; whatever `data` holds is not ours to free.
            break;
    }
    free(hdr->extra);
    free(hdr);
}

// ---- debug and logging ----

static const char* source_name(void) {
    const char* slash = strrchr(__FILE__, '/');
    return slash != nullptr ? slash + 1 : __FILE__;
}

void dpilog(const char* format, ...) {
    // Fixed-size on purpose: a log call must not allocate; longer messages are cut.
    char text[800];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    printf("%s", text);
}

void DPIdebug(int level) {
    if (level == dpi_debug) {
        return;
    }
    dpilog("DPI Debug turned %s (level %d)\n", level != 0 ? "ON" : "OFF", level);
    if (level != 0) {
        dpilog("DPI Debug code not available\n");
    }
    dpilog("%s - %s\n", source_name(), dpi_banner);
    fflush(stdout);
    dpi_debug = level;
}
