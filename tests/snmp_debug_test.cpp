// The library's dump, its environment switches, path stripping and banner.
#include "snmp_debug.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "snmp_version.h"

namespace {

std::string captured()
{
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

TEST(SnmpDebug, DumpForms)
{
    std::vector<uint8_t> bytes(17);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(0xF0 + i);
    }
    struct Row {
        const char* name;
        int32_t len;
        const char* expected;
    } rows[] = {
        {"empty", 0, "Dump of 0 byte pkt:\n  \n"},
        {"three", 3, "Dump of 3 byte pkt:\n  f0 f1 f2 \n"},
        {"full row", 16,
         "Dump of 16 byte pkt:\n  f0 f1 f2 f3 f4 f5 f6 f7 f8 f9 fa fb fc fd fe ff\n  \n"},
        {"one past a row", 17,
         "Dump of 17 byte pkt:\n  f0 f1 f2 f3 f4 f5 f6 f7 f8 f9 fa fb fc fd fe ff\n  00 \n"},
        {"negative length", -1, "Dump of -1 byte pkt:\n  \n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        testing::internal::CaptureStdout();
        dump_bfr(bytes.data(), row.len, "pkt");
        EXPECT_EQ(captured(), row.expected);
    }
}

TEST(SnmpDebug, SwitchesFromEnvironment)
{
    const std::string banner = std::string(snmp_get_ptr_to_version()) + "\n";
    struct Row {
        const char* name;
        const char* printf_env;  // null: unset
        const char* error_env;
        const char* dump_env;
        int32_t before_printf;
        int32_t printf_after, error_after, dump_after;
        bool banner;
    } rows[] = {
        {"nothing set", nullptr, nullptr, nullptr, 0, 0, 1, 0, false},
        {"error 2 alone", nullptr, "2", nullptr, 0, 0, 2, 0, true},
        {"error 1, others 0", "0", "1", "0", 0, 0, 1, 0, false},
        {"error 0", nullptr, "0", nullptr, 0, 0, 0, 0, false},
        {"printf not a number", "abc", nullptr, nullptr, 0, 0, 1, 0, false},
        {"dump with sign and tail", nullptr, nullptr, "-3x", 0, 0, 1, -3, true},
        {"printf with plus", "+7", nullptr, nullptr, 0, 7, 1, 0, true},
        {"too large clamps", "99999999999", nullptr, nullptr, 0, INT32_MAX, 1, 0, true},
        {"unset keeps the switch", nullptr, nullptr, nullptr, 5, 5, 1, 0, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        snmp_debug_printf = row.before_printf;
        snmp_debug_error = 1;
        snmp_debug_dump = 0;
        const char* names[] = {"SNMP_PRINTF", "SNMP_ERROR", "SNMP_DUMP"};
        const char* values[] = {row.printf_env, row.error_env, row.dump_env};
        for (int i = 0; i < 3; ++i) {
            if (values[i] != nullptr) {
                setenv(names[i], values[i], 1);
            } else {
                unsetenv(names[i]);
            }
        }
        testing::internal::CaptureStdout();
        snmp_debug_init();
        EXPECT_EQ(captured(), row.banner ? banner : "");
        EXPECT_EQ(snmp_debug_printf, row.printf_after);
        EXPECT_EQ(snmp_debug_error, row.error_after);
        EXPECT_EQ(snmp_debug_dump, row.dump_after);
    }
    for (const char* name : {"SNMP_PRINTF", "SNMP_ERROR", "SNMP_DUMP"}) {
        unsetenv(name);
    }
}

TEST(SnmpDebug, StripPath)
{
    struct Row {
        const char* path;
        size_t offset;  // where the result starts in the path
    } rows[] = {
        {"snmp/lib/snmp_ed.cpp", 9},
        {"/abs/x.c", 5},
        {"plain.c", 0},
        {"", 0},
        {"dir/", 4},
        {"c:\\src/sub\\file.c", 11},  // any backslash makes it the only separator
        {"a\\b/c", 2},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(snmp_strip_path(row.path), row.path + row.offset);
    }
}

}  // namespace
