// Dotted OID text arrives from subagents (a REGISTER's group, a RESPONSE's object) and is
// turned into containers by the daemon. Property: text that parses prints back to a text
// that parses to the same OID, and the printed text is a fixed point.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "snmp_container.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);  // NUL-terminated copy
    snmp_container* oid = snmp_create_oid_container(text.c_str());
    uint32_t count = snmp_validate_and_count(text.c_str(), 1);
    if (oid == nullptr) {
        return 0;
    }
    if (count != oid->length) {
        abort();
    }
    char* printed = snmp_oid_to_string(oid);
    if (printed == nullptr) {
        abort();
    }
    snmp_container* again = snmp_create_oid_container(printed);
    if (again == nullptr || snmp_compare_oid_subids(oid, again, 0) != 0) {
        abort();
    }
    char* printed_again = snmp_oid_to_string(again);
    if (printed_again == nullptr || strcmp(printed, printed_again) != 0) {
        abort();
    }
    free(printed_again);
    free(printed);
    snmp_free_container(again);
    snmp_free_container(oid);
    return 0;
}
