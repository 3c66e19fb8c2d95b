// Printable forms of values and transport addresses.
#include "snmp_util.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

using namespace std::string_literals;

// A value as stored from the wire, in the machine's byte order.
std::string word(uint32_t v) {
    return std::string(reinterpret_cast<const char*>(&v), 4);
}

TEST(SnmpUtil, ValueForms) {
    std::string binary, binary_hex = "'";
    for (int i = 0; i < 300; ++i) {
        binary += static_cast<char>(i * 7);
        char pair[3];
        std::snprintf(pair, sizeof pair, "%2.2x", static_cast<uint8_t>(i * 7));
        binary_hex += pair;
    }
    binary_hex += "'h";
    const std::string c64 = word(1) + word(2), max = word(0xFFFFFFFFu);
    struct Row {
        const char* name;
        std::string bytes;  // OID text for 0x06
        uint8_t tag, hint;
        int32_t flag;
        std::string expected;
    } rows[] = {
        {"RowStatus 1", word(1), 0x02, 8, 0, "active (1)"},
        {"RowStatus 9", word(9), 0x02, 8, 0, "unknown/other (9)"},
        {"RowStatus plain", word(6), 0x02, 8, 1, "6"},
        {"TruthValue 1", word(1), 0x02, 4, 0, "true (1)"},
        {"TruthValue 1 plain", word(1), 0x02, 4, 1, "1"},
        {"TruthValue 3", word(3), 0x02, 4, 0, "unknown/other (3)"},
        {"TruthValue -1", max, 0x02, 4, 0, "unknown/other (-1)"},
        {"StorageType 4", word(4), 0x02, 23, 0, "permanent (4)"},
        {"TimeTicks 123456", word(123456), 0x43, 0, 0, "123456 - 20 minutes, 34.56 seconds"},
        {"TimeTicks 0", word(0), 0x43, 0, 0, "0 - 0.00 seconds"},
        {"TimeTicks 360000", word(360000), 0x43, 0, 0, "360000 - 1 hours, 0 minutes, 0.00 seconds"},
        {"TimeTicks 360000 plain", word(360000), 0x43, 0, 1, "360000"},
        {"TimeTicks 8640000", word(8640000), 0x43, 0, 0,
         "8640000 - 1 days, 0 hours, 0 minutes, 0.00 seconds"},
        {"TimeTicks max", max, 0x43, 0, 0,
         "4294967295 - 497 days, 2 hours, 27 minutes, 52.95 seconds"},
        {"INTEGER as time", word(6000), 0x02, 9, 0, "6000 - 1 minutes, 0.00 seconds"},
        {"signed interval plain", word(0xFFFFFFFBu), 0x02, 10, 1, "-5"},
        {"IpAddress", "\x0A\x00\x00\x01"s, 0x40, 0, 0, "10.0.0.1"},
        {"Gauge32 max", max, 0x42, 0, 0, "4294967295"},
        {"INTEGER -1", max, 0x02, 0, 0, "-1"},
        {"Counter64", c64, 0x46, 0, 0, "1.2"},
        {"text", "abc", 0x04, 0, 0, "abc"},
        {"inner NUL", "a\0b"s, 0x04, 0, 0, "'610062'h"},
        {"trailing NUL", "abc\0"s, 0x04, 1, 0, "abc"},
        {"CR LF is text", "a\r\nb", 0x04, 0, 0, "a\r\nb"},
        {"high octet", "a\x80", 0x44, 0, 0, "'6180'h"},
        {"empty octets", "", 0x04, 0, 0, ""},
        {"long binary", binary, 0x04, 1, 0, binary_hex},
        {"MAC", "\x00\x0D\x60\x1F\x2A\x3B"s, 0x04, 3, 0, "00:0d:60:1f:2a:3b"},
        {"PhysAddress of one", "\xAB", 0x04, 2, 0, "ab"},
        {"PhysAddress empty", "", 0x04, 2, 0, ""},
        {"DateAndTime with zone", "\x07\xD6\x04\x0D\x09\x1E\x31\x00\x2B\x02\x00"s, 0x04, 11, 0,
         "2006-4-13,9:30:49.0,UTC+2:0"},
        {"DateAndTime local", "\x07\xD6\x04\x0D\x09\x1E\x31\x05", 0x04, 11, 0,
         "2006-4-13,9:30:49.5"},
        {"DateAndTime short", "\x07\xD6\x04", 0x04, 11, 0, "2006-4-0,0:0:0.0"},
        {"noSuchInstance", "", 0x81, 0, 0, "noSuchInstance"},
        {"noSuchObject", "", 0x80, 0, 0, "noSuchObject"},
        {"endOfMibView", "", 0x82, 0, 0, "endOfMibView"},
        {"NULL", "", 0x05, 0, 0, ""},
        {"OID", "1.3.6.1.4.1.2.2.1.1.1.0", 0x06, 0, 0, "1.3.6.1.4.1.2.2.1.1.1.0"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        snmp_container* c = snmp_create_value_container(
            row.bytes.c_str(), static_cast<uint32_t>(row.bytes.size()), row.tag, row.hint);
        ASSERT_NE(c, nullptr);
        char* out = snmp_value_to_string_format(c, row.flag);
        ASSERT_NE(out, nullptr);
        EXPECT_EQ(std::string(out), row.expected);
        std::free(out);
        snmp_free_container(c);
    }
    EXPECT_EQ(snmp_value_to_string_format(nullptr, 0), nullptr);
    snmp_container* odd = snmp_create_container(1, 1);
    EXPECT_EQ(snmp_value_to_string_format(odd, 0), nullptr);
    snmp_free_container(odd);
}

TEST(SnmpUtil, NetAddrForms) {
    snmp_net_addr tcp{SNMP_DOMAIN_TCP, {{127, 0, 0, 1}}, {0x00, 0xA1}};
    snmp_net_addr udp{SNMP_DOMAIN_UDP, {{192, 168, 255, 254}}, {0xFF, 0xFF}};
    snmp_net_addr fd{SNMP_DOMAIN_UNIX_FD, {}, {}}, odd{2, {}, {}};
    fd.address.fd = -3;
    EXPECT_STREQ(snmp_net_addr_to_string(nullptr), "Null ptr");
    EXPECT_STREQ(snmp_net_addr_to_string(&tcp), "TCP 127.0.0.1 port 161");
    EXPECT_STREQ(snmp_net_addr_to_string(&udp), "UDP 192.168.255.254 port 65535");
    EXPECT_STREQ(snmp_net_addr_to_string(&fd), "UNIX file descriptor -3.");
    EXPECT_STREQ(snmp_net_addr_to_string(&odd), "Unknown domain");
}

}  // namespace
