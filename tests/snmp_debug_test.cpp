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

std::string captured() {
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

TEST(SnmpDebug, DumpForms) {
    std::vector<uint8_t> bytes(17);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(0xF0 + i);
    }
    const std::string row16 = "f0 f1 f2 f3 f4 f5 f6 f7 f8 f9 fa fb fc fd fe ff\n  ";
    struct Row {
        int32_t len;
        std::string expected;
    } rows[] = {
        {0, "Dump of 0 byte pkt:\n  \n"},
        {3, "Dump of 3 byte pkt:\n  f0 f1 f2 \n"},
        {16, "Dump of 16 byte pkt:\n  " + row16 + "\n"},
        {17, "Dump of 17 byte pkt:\n  " + row16 + "00 \n"},
        {-1, "Dump of -1 byte pkt:\n  \n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.len);
        testing::internal::CaptureStdout();
        dump_bfr(bytes.data(), row.len, "pkt");
        EXPECT_EQ(captured(), row.expected);
    }
}

TEST(SnmpDebug, SwitchesFromEnvironment) {
    const char* const names[] = {"SNMP_PRINTF", "SNMP_ERROR", "SNMP_DUMP"};
    struct Row {
        const char* name;
        const char* env[3];  // null: unset
        int32_t printf_before;
        int32_t after[3];
        bool banner;
    } rows[] = {
        {"nothing set", {}, 0, {0, 1, 0}, false},
        {"error 2 alone", {nullptr, "2", nullptr}, 0, {0, 2, 0}, true},
        {"error 1, others 0", {"0", "1", "0"}, 0, {0, 1, 0}, false},
        {"error 0", {nullptr, "0", nullptr}, 0, {0, 0, 0}, false},
        {"printf not a number", {"abc", nullptr, nullptr}, 0, {0, 1, 0}, false},
        {"dump with sign and tail", {nullptr, nullptr, "-3x"}, 0, {0, 1, -3}, true},
        {"printf with plus", {"+7", nullptr, nullptr}, 0, {7, 1, 0}, true},
        {"too large clamps", {"99999999999", nullptr, nullptr}, 0, {INT32_MAX, 1, 0}, true},
        {"unset keeps the switch", {}, 5, {5, 1, 0}, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        snmp_debug_printf = row.printf_before;
        snmp_debug_error = 1;
        snmp_debug_dump = 0;
        for (int i = 0; i < 3; ++i) {
            row.env[i] != nullptr ? setenv(names[i], row.env[i], 1) : unsetenv(names[i]);
        }
        testing::internal::CaptureStdout();
        snmp_debug_init();
        EXPECT_EQ(captured(), row.banner ? std::string(snmp_get_ptr_to_version()) + "\n" : "");
        EXPECT_EQ(snmp_debug_printf, row.after[0]);
        EXPECT_EQ(snmp_debug_error, row.after[1]);
        EXPECT_EQ(snmp_debug_dump, row.after[2]);
    }
    for (const char* name : names) {
        unsetenv(name);
    }
}

TEST(SnmpDebug, StripPath) {
    struct Row {
        const char* path;
        size_t offset;  // where the result starts in the path
    } rows[] = {
        {"snmp/lib/snmp_ed.cpp", 9},
        {"/abs/x.c", 5},
        {"plain.c", 0},
        {"", 0},
        {"dir/", 4},
        // any backslash makes it the only separator
        {"c:\\src/sub\\file.c", 11},
        {"a\\b/c", 2},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(snmp_strip_path(row.path), row.path + row.offset);
    }
}

}  // namespace
