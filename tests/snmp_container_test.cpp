// Containers (OID text and order, values stored, reuse and growth in place), their printable
// forms, and the debug helpers beside them.
#include "snmp_container.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "lib_render.h"
#include "snmp_debug.h"
#include "snmp_util.h"
#include "snmp_version.h"

namespace {

using std::string;
using namespace std::string_literals;
struct Free { void operator()(snmp_container* c) const { snmp_free_container(c); } };
using Owned = std::unique_ptr<snmp_container, Free>;

Owned oid(const char* text) { return Owned(snmp_create_oid_container(text)); }
string word(uint32_t v) { return string(reinterpret_cast<const char*>(&v), 4); }

// Swaps in what an operation returned, the way callers must; false for a refusal.
bool adopt(Owned& held, snmp_container* result) {
    return result != nullptr && ((void)held.release(), held.reset(result), true);
}

// Dotted text: the count, the container built, the text printed back; a prefix sorts first.
TEST(SnmpContainer, OidTextAndOrder) {
    // Text, its check of the first arcs, and the text printed back (null: invalid).
    const std::tuple<const char*, const char*, int> rows[] = {
        {"1.3.6.1", "1.3.6.1", 1}, {".1.3.6.1", "1.3.6.1", 0}, {"1.3.6.1.", nullptr, 0}, {"1..3", nullptr, 0},
        {"3.1", nullptr, 1}, {"3.1", "3.1", 0}, {".3.1", nullptr, 0}, {"1.40", nullptr, 1}, {"0.40", nullptr, 1},
        {"1.39", "1.39", 1}, {"2.40", "2.40", 1}, {"2.4294967295", "2.4294967295", 1}, {"2.4294967296", nullptr, 0},
        {"", "0", 1}, {".", "0", 1}, {"007.3", "7.3", 0}, {"1.3a", nullptr, 0}, {"+1.3", nullptr, 0},
        {" 1.3", nullptr, 0}, {"1.-3", nullptr, 0},
    };
    for (const auto& [text, printed, check] : rows) {
        SCOPED_TRACE(string("'") + text + "' " + std::to_string(check));
        const string back = printed != nullptr ? printed : "";
        EXPECT_EQ(snmp_validate_and_count(text, check),
                  back.empty() ? 0 : std::count(back.begin(), back.end(), '.') + 1);
        if (check != 0) {
            Owned c = oid(text);
            ASSERT_EQ(c != nullptr, printed != nullptr);
            char* out = snmp_oid_to_string(c.get());
            EXPECT_EQ(c ? string(out) : "", back);
            std::free(out);
        }
    }
    // a, b, n (> 0: only the first n count), and their order; a prefix sorts first.
    const std::tuple<const char*, const char*, uint32_t, int32_t> order[] = {
        {"1.3.6.1", "1.3.6.1.2", 0, -1}, {"1.3.6.1.2", "1.3.6.1", 0, 1}, {"1.3.6.1", "1.3.6.1.2", 4, 0},
        {"1.3.6.1.2", "1.3.6.1", 4, 0}, {"1.3.5.9", "1.3.6.1", 4, -1}, {"1.3.7", "1.3.6.1", 4, 1},
        {"1.3.6", "1.3.6.1", 4, -1}, {"1.3.6.1", "1.3.6.1", 0, 0}, {"1.3", "1.3.6", 5, -1}, {"2.4294967295", "2.1", 0, 1}};
    for (const auto& [a, b, n, sign] : order) {
        SCOPED_TRACE(string(a) + " vs " + b + " n " + std::to_string(n));
        EXPECT_EQ(snmp_compare_oid_subids(oid(a).get(), oid(b).get(), n), sign);
    }
    Owned a = oid("1.3"), number(snmp_create_value_container("\7", 1, SNMP_TAG_INTEGER, 0));
    uint32_t sub = 0;
    EXPECT_EQ(std::vector<int>({snmp_compare_oid_subids(a.get(), number.get(), 0),
                                snmp_compare_oid_subids(nullptr, a.get(), 0), snmp_oid_next_subid(a.get(), &sub, 1),
                                snmp_oid_next_subid(a.get(), &sub, 2)}),
              std::vector<int>({SNMP_ERR_NOT_OID, SNMP_ERR_NOT_OID, 0, -1}));
    EXPECT_EQ(sub, 3u);
    EXPECT_EQ(snmp_oid_to_string(number.get()), nullptr);
}

// A value stored over an OID, and a fresh container from the same input: kind, length,
// bytes; refused input leaves the container as it was.
TEST(SnmpContainer, StoredValues) {
    const char* twenty = "ABCDEFGHIJKLMNOPQRST";
    const int16_t minus129 = -129;
    const uint32_t words[2] = {1, 2};
    // Input, its length, the tag, and the value shown ("": refused).
    const std::tuple<const void*, uint32_t, uint8_t, string> rows[] = {
        {"\x07\0\0\0", 4, 0x02, "h9 02:7"},       {"x", 1, 0x04, "h9 04:78"},
        {twenty, 20, 0x44, "h9 44:4142434445464748494A4B4C4D4E4F5051525354"},
        {"", 0, 0x04, "h9 04:"},                  {"1.3.6.1.4", 0, 0x06, "h9 06:1.3.6.1.4"},
        {"\xFF", 1, 0x02, "h9 02:-1"},            {"\xFF", 1, 0x42, "h9 42:255"},
        {&minus129, 2, 0x02, "h9 02:-129"},       {&minus129, 2, 0x43, "h9 43:65407"},
        {"\x0a\0\0\x01", 4, 0x40, "h9 40:10.0.0.1"}, {words, 8, 0x46, "h9 46:1.2"},
        {twenty, 20, 0x05, "h9 05:"},             {nullptr, 0, 0x82, "h9 82:"},
        {twenty, 3, 0x02, ""},                    {twenty, 4, 0x46, ""},
        {twenty, 4, 0x03, ""},                    {"5.1", 0, 0x06, ""}, {nullptr, 3, 0x04, ""},
    };
    for (const auto& [value, len, tag, shown] : rows) {
        SCOPED_TRACE(shown);
        Owned c = oid("1.3.6.1.2.1.1.1.0.5"), fresh(snmp_create_value_container(value, len, tag, 9));
        EXPECT_EQ(adopt(c, snmp_replace_container_value(c.get(), value, len, tag, 9)), !shown.empty());
        EXPECT_EQ(lib_render::value(c.get()), shown.empty() ? "06:1.3.6.1.2.1.1.1.0.5" : shown);
        EXPECT_EQ(lib_render::value(fresh.get()), shown.empty() ? "-" : shown);
    }
}

// Copies, reuse and growth stay in the block while it is big enough (tag and bytes then stay
// too) and move to a new one when not; appending takes no first-arc rule unless the text
// starts with a dot; refilling keeps the hint. The size rule: the fixed size, plus one byte
// per octet beyond 8 or four per sub-identifier beyond 2.
TEST(SnmpContainer, CopyReuseAndGrowth) {
    EXPECT_EQ(snmp_get_b_len(5, 9) + snmp_get_b_len(11, 3), 2u * SNMP_CONTAINER_FIXED_SIZE + 5);
    EXPECT_EQ(snmp_get_b_len(0, 1) + snmp_get_b_len(13, 1) + snmp_get_b_len(5, UINT32_MAX), 0u);
    Owned src(snmp_create_value_container("ABCDEFGHIJKLMNOPQRST", 20, SNMP_TAG_OCTET_STRING, 1));
    Owned c = oid("1.3.6.1.2.1.2.2.1.10"), fresh(snmp_copy_container_value(nullptr, c.get()));
    snmp_container* const before = c.get();  // 10 sub-identifiers: room for 20 octets
    const auto stays = [&](snmp_container* r) { return adopt(c, r) && c.get() == before; };
    EXPECT_TRUE(stays(snmp_copy_container_value(c.get(), src.get())));
    EXPECT_EQ(lib_render::value(c.get()), "h1 04:4142434445464748494A4B4C4D4E4F5051525354");
    EXPECT_TRUE(stays(snmp_reuse_container(c.get(), SNMP_NATIVE_OCTETS, 3)));
    EXPECT_EQ(lib_render::value(c.get()), "h1 04:");
    EXPECT_TRUE(stays(snmp_expand_container(c.get(), 33)));  // still 56 bytes
    EXPECT_EQ(c->length + c->capacity + c->value.octets[0], 0u + 36 + 'A');
    EXPECT_FALSE(stays(snmp_expand_container(c.get(), 5)));
    EXPECT_EQ(c->value.octets[0], 'A');  // moved with its contents
    EXPECT_EQ(snmp_expand_container(c.get(), UINT32_MAX), nullptr);
    EXPECT_EQ(snmp_reuse_container(c.get(), 0, 1), nullptr);
    EXPECT_EQ(snmp_copy_container_value(c.get(), nullptr), nullptr);
    EXPECT_EQ(snmp_fill_container_with_oid(src.get(), "1.3"), nullptr);
    EXPECT_EQ(snmp_expand_oid_container(src.get(), "1.3"), nullptr);
    EXPECT_TRUE(adopt(fresh, snmp_expand_oid_container(fresh.get(), "40.1")));
    EXPECT_FALSE(adopt(fresh, snmp_expand_oid_container(fresh.get(), ".40")));
    const uint32_t more[3] = {7, 8, 0xFFFFFFFFu};
    EXPECT_TRUE(adopt(fresh, snmp_expand_oid_container_by_int(fresh.get(), more, 3)));
    EXPECT_FALSE(adopt(fresh, snmp_expand_oid_container_by_int(fresh.get(), more, 0)));
    EXPECT_EQ(lib_render::value(fresh.get()), "06:1.3.6.1.2.1.2.2.1.10.40.1.7.8.4294967295");
    fresh->hint = 5;
    snmp_container* const long_block = fresh.get();
    EXPECT_EQ(snmp_fill_container_with_oid(fresh.get(), ".1.3.6.1"), long_block);
    EXPECT_EQ(snmp_fill_container_with_oid(fresh.get(), "1.40"), nullptr);
    EXPECT_EQ(lib_render::value(fresh.get()), "h5 06:1.3.6.1");
    EXPECT_TRUE(adopt(fresh, snmp_fill_container_with_oid(fresh.get(), "1.3.6.1.2.1.2.2.1.1.2.3.4.5.6.7.8")));
    EXPECT_NE(fresh.get(), long_block);
}

TEST(SnmpUtil, PrintableForms) {
    string binary, binary_hex = "'";
    for (int i = 0; i < 300; ++i) {
        binary += static_cast<char>(i * 7);
        binary_hex += lib_render::fmt("%2.2x", static_cast<uint8_t>(i * 7));
    }
    const string max = word(0xFFFFFFFFu);
    // Contents (OID text for 0x06), tag, hint, flag, and the text.
    const std::tuple<string, uint8_t, uint8_t, int32_t, string> rows[] = {
        {word(1), 0x02, 8, 0, "active (1)"}, {word(9), 0x02, 8, 0, "unknown/other (9)"}, {word(6), 0x02, 8, 1, "6"},
        {word(1), 0x02, 4, 0, "true (1)"}, {max, 0x02, 4, 0, "unknown/other (-1)"}, {word(360000), 0x43, 0, 1, "360000"},
        {word(4), 0x02, 23, 0, "permanent (4)"}, {word(123456), 0x43, 0, 0, "123456 - 20 minutes, 34.56 seconds"},
        {max, 0x43, 0, 0, "4294967295 - 497 days, 2 hours, 27 minutes, 52.95 seconds"},
        {word(6000), 0x02, 9, 0, "6000 - 1 minutes, 0.00 seconds"}, {word(0xFFFFFFFBu), 0x02, 10, 1, "-5"},
        {"\x0A\x00\x00\x01"s, 0x40, 0, 0, "10.0.0.1"}, {max, 0x42, 0, 0, "4294967295"}, {max, 0x02, 0, 0, "-1"},
        {word(1) + word(2), 0x46, 0, 0, "1.2"}, {"a\0b"s, 0x04, 0, 0, "'610062'h"}, {"abc\0"s, 0x04, 1, 0, "abc"},
        {"a\r\nb", 0x04, 0, 0, "a\r\nb"}, {"a\rb", 0x04, 0, 0, "'610d62'h"}, {"a\x80", 0x44, 0, 0, "'6180'h"},
        {binary, 0x04, 1, 0, binary_hex + "'h"}, {"\xAB", 0x04, 2, 0, "ab"},
        {"\x00\x0D\x60\x1F\x2A\x3B"s, 0x04, 3, 0, "00:0d:60:1f:2a:3b"},
        {"\x07\xD6\x04\x0D\x09\x1E\x31\x00\x2B\x02\x00"s, 0x04, 11, 0, "2006-4-13,9:30:49.0,UTC+2:0"},
        {"\x07\xD6\x04\x0D\x09\x1E\x31\x05", 0x04, 11, 0, "2006-4-13,9:30:49.5"},
        {"\x07\xD6\x04", 0x04, 11, 0, "2006-4-0,0:0:0.0"}, {"", 0x81, 0, 0, "noSuchInstance"},
        {"", 0x80, 0, 0, "noSuchObject"}, {"", 0x82, 0, 0, "endOfMibView"}, {"", 0x05, 0, 0, ""},
        {"1.3.6.1.4.1.2.2.1.1.1.0", 0x06, 0, 0, "1.3.6.1.4.1.2.2.1.1.1.0"},
    };
    for (const auto& [bytes, tag, hint, flag, shown] : rows) {
        SCOPED_TRACE(shown);
        Owned c(snmp_create_value_container(bytes.c_str(), uint32_t(bytes.size()), tag, hint));
        char* out = snmp_value_to_string_format(c.get(), flag);
        EXPECT_EQ(out != nullptr ? string(out) : "<null>", shown);
        std::free(out);
    }
    EXPECT_EQ(snmp_value_to_string_format(Owned(snmp_create_container(1, 1)).get(), 0), nullptr);

    // Addresses: the same, another domain, another port, descriptors whose port means
    // nothing, an unknown domain; and their printable forms.
    const snmp_net_addr a[] = {{6, {{127, 0, 0, 1}}, {0, 161}}, {1, {{127, 0, 0, 1}}, {0, 161}},
                               {6, {{127, 0, 0, 1}}, {0, 162}}, {13, {{0xFD, 0xFF, 0xFF, 0xFF}}, {1}},
                               {13, {{0xFD, 0xFF, 0xFF, 0xFF}}, {2}}, {2, {}, {}}};
    string shown;
    for (const auto& [x, y] :
         {std::pair{a, a}, {a, a + 1}, {a, a + 2}, {a + 3, a + 4}, {a + 5, a + 5}, {a, nullptr}}) {
        shown += std::to_string(snmp_compare_net_addr(x, y)) + " " + snmp_net_addr_to_string(y) + "|";
    }
    EXPECT_EQ(shown, "0 TCP 127.0.0.1 port 161|-1 UDP 127.0.0.1 port 161|-1 TCP 127.0.0.1 port 162|"
                     "0 UNIX file descriptor -3.|-2 Unknown domain|-1 Null ptr|");
    EXPECT_EQ(snmp_is_nvt_ascii(reinterpret_cast<const uint8_t*>("a\r\0b\r"), 5), 0);  // CR at the end
    uint8_t* copy = snmp_get_native_copy(nullptr, 0);  // still a terminated buffer
    EXPECT_EQ(copy[0], 0);
    std::free(copy);
}

// The dump's layout, and what each environment variable sets at start (null: unset).
TEST(SnmpDebug, DumpSwitchesAndPaths) {
    const uint8_t bytes[17] = {0xF0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 0xFF, 0x10};
    testing::internal::CaptureStdout();
    dump_bfr(bytes, 17, "pkt");
    dump_bfr(bytes, -1, "none");
    snmp_debug_printf = snmp_debug_dump = 0;
    const char* const names[] = {"SNMP_PRINTF", "SNMP_ERROR", "SNMP_DUMP"};
    const char* const envs[4][3] = {{"0", nullptr, "0"}, {"abc", "0", "-3x"}, {"99999999999"}, {}};
    for (const auto& env : envs) {
        for (int i = 0; i < 3; i++) {
            env[i] != nullptr ? setenv(names[i], env[i], 1) : unsetenv(names[i]);
        }
        snmp_debug_init();
        std::printf("%d %d %d\n", snmp_debug_printf, snmp_debug_error, snmp_debug_dump);
    }
    std::fflush(stdout);
    const string banner = string(snmp_get_ptr_to_version()) + "\n", last = banner + "2147483647 0 -3\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Dump of 17 byte pkt:\n  f0 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e ff\n  10 \n"
              "Dump of -1 byte none:\n  \n0 1 0\n" + banner + "0 0 -3\n" + last + last);
    // Any backslash makes it the only separator.
    EXPECT_EQ(string(snmp_strip_path("c:\\src/sub\\file.c")) + snmp_strip_path("a/x.c"), "file.cx.c");
}

}  // namespace
