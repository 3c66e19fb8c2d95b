// The library's trace switches and its own hex dump.
#include "snmp_debug.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "snmp_version.h"

int32_t snmp_debug_printf = 0;
int32_t snmp_debug_error = 1;
int32_t snmp_debug_dump = 0;

// An unset variable keeps the switch; a set one gives its leading decimal integer, 0 when
// it does not start with a number, clamped rather than wrapped when it is too large.
static void read_switch(const char* name, int32_t* target)
{
    const char* text = std::getenv(name);
    if (text == nullptr) {
        return;
    }
    long value = std::strtol(text, nullptr, 10);
    if (value > INT32_MAX) {
        value = INT32_MAX;
    } else if (value < INT32_MIN) {
        value = INT32_MIN;
    }
    *target = static_cast<int32_t>(value);
}

void snmp_debug_init(void)
{
    read_switch("SNMP_PRINTF", &snmp_debug_printf);
    read_switch("SNMP_ERROR", &snmp_debug_error);
    read_switch("SNMP_DUMP", &snmp_debug_dump);
    // Error reports are on by default (1), so only a higher level announces the library.
    if (snmp_debug_printf != 0 || snmp_debug_dump != 0 || snmp_debug_error > 1) {
        snmp_print_version();
    }
}

void dump_bfr(const uint8_t* buf, int32_t len, const char* label)
{
    std::printf("Dump of %d byte %s:\n  ", len, label != nullptr ? label : "");
    if (buf != nullptr) {
        for (int32_t i = 0; i < len; ++i) {
            std::printf("%2.2x%s", buf[i], i % 16 == 15 ? "\n  " : " ");
        }
    }
    std::printf("\n");
}

const char* snmp_strip_path(const char* path)
{
    if (path == nullptr) {
        return nullptr;
    }
    // A path with any backslash is taken as a DOS-style path, where '/' may be part of a name.
    char separator = std::strchr(path, '\\') != nullptr ? '\\' : '/';
    const char* last = std::strrchr(path, separator);
    return last != nullptr ? last + 1 : path;
}
