// Printable forms of values, TimeTicks and transport addresses.
#include "snmp_util.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Value {
    std::vector<uint8_t> bytes;  // raw value as stored from the wire; OID text for 0x06
    uint8_t tag;
    uint8_t hint;
};

std::vector<uint8_t> word(uint32_t v)
{
    std::vector<uint8_t> out(4);
    std::memcpy(out.data(), &v, 4);
    return out;
}

std::vector<uint8_t> text(const char* s)
{
    return std::vector<uint8_t>(s, s + std::strlen(s) + 1);
}

TEST(SnmpUtil, ValueForms)
{
    std::vector<uint8_t> c64(8);
    const uint32_t words[2] = {1, 2};
    std::memcpy(c64.data(), words, 8);
    std::vector<uint8_t> binary(300);
    std::string binary_hex = "'";
    for (size_t i = 0; i < binary.size(); ++i) {
        binary[i] = static_cast<uint8_t>(i * 7);
        char pair[3];
        std::snprintf(pair, sizeof pair, "%2.2x", binary[i]);
        binary_hex += pair;
    }
    binary_hex += "'h";

    struct Row {
        const char* name;
        Value v;
        int32_t flag;
        const char* expected;
    } rows[] = {
        {"RowStatus 1", {word(1), 0x02, 8}, 0, "active (1)"},
        {"RowStatus 9", {word(9), 0x02, 8}, 0, "unknown/other (9)"},
        {"RowStatus plain", {word(6), 0x02, 8}, 1, "6"},
        {"TruthValue 1", {word(1), 0x02, 4}, 0, "true (1)"},
        {"TruthValue 1 plain", {word(1), 0x02, 4}, 1, "1"},
        {"TruthValue 3", {word(3), 0x02, 4}, 0, "unknown/other (3)"},
        {"TruthValue -1", {word(0xFFFFFFFFu), 0x02, 4}, 0, "unknown/other (-1)"},
        {"StorageType 4", {word(4), 0x02, 23}, 0, "permanent (4)"},
        {"TimeTicks 123456", {word(123456), 0x43, 0}, 0, "123456 - 20 minutes, 34.56 seconds"},
        {"TimeTicks 0", {word(0), 0x43, 0}, 0, "0 - 0.00 seconds"},
        {"TimeTicks 360000", {word(360000), 0x43, 0}, 0, "360000 - 1 hours, 0 minutes, 0.00 seconds"},
        {"TimeTicks 360000 plain", {word(360000), 0x43, 0}, 1, "360000"},
        {"TimeTicks 8640000", {word(8640000), 0x43, 0}, 0,
         "8640000 - 1 days, 0 hours, 0 minutes, 0.00 seconds"},
        {"TimeTicks max", {word(0xFFFFFFFFu), 0x43, 0}, 0,
         "4294967295 - 497 days, 2 hours, 27 minutes, 52.95 seconds"},
        {"INTEGER as time", {word(6000), 0x02, 9}, 0, "6000 - 1 minutes, 0.00 seconds"},
        {"signed interval plain", {word(0xFFFFFFFBu), 0x02, 10}, 1, "-5"},
        {"IpAddress", {{10, 0, 0, 1}, 0x40, 0}, 0, "10.0.0.1"},
        {"Gauge32 max", {word(0xFFFFFFFFu), 0x42, 0}, 0, "4294967295"},
        {"Counter32", {word(7), 0x41, 0}, 0, "7"},
        {"INTEGER -1", {word(0xFFFFFFFFu), 0x02, 0}, 0, "-1"},
        {"Counter64", {c64, 0x46, 0}, 0, "1.2"},
        {"text", {{0x61, 0x62, 0x63}, 0x04, 0}, 0, "abc"},
        {"inner NUL", {{0x61, 0x00, 0x62}, 0x04, 0}, 0, "'610062'h"},
        {"trailing NUL", {{0x61, 0x62, 0x63, 0x00}, 0x04, 1}, 0, "abc"},
        {"CR LF is text", {{'a', 13, 10, 'b'}, 0x04, 0}, 0, "a\r\nb"},
        {"high octet", {{'a', 0x80}, 0x44, 0}, 0, "'6180'h"},
        {"empty octets", {{}, 0x04, 0}, 0, ""},
        {"long binary", {binary, 0x04, 1}, 0, binary_hex.c_str()},
        {"MAC", {{0x00, 0x0D, 0x60, 0x1F, 0x2A, 0x3B}, 0x04, 3}, 0, "00:0d:60:1f:2a:3b"},
        {"PhysAddress of one", {{0xAB}, 0x04, 2}, 0, "ab"},
        {"PhysAddress empty", {{}, 0x04, 2}, 0, ""},
        {"DateAndTime with zone",
         {{0x07, 0xD6, 0x04, 0x0D, 0x09, 0x1E, 0x31, 0x00, 0x2B, 0x02, 0x00}, 0x04, 11}, 0,
         "2006-4-13,9:30:49.0,UTC+2:0"},
        {"DateAndTime local", {{0x07, 0xD6, 0x04, 0x0D, 0x09, 0x1E, 0x31, 0x05}, 0x04, 11}, 0,
         "2006-4-13,9:30:49.5"},
        {"DateAndTime short", {{0x07, 0xD6, 0x04}, 0x04, 11}, 0, "2006-4-0,0:0:0.0"},
        {"noSuchInstance", {{}, 0x81, 0}, 0, "noSuchInstance"},
        {"noSuchObject", {{}, 0x80, 0}, 0, "noSuchObject"},
        {"endOfMibView", {{}, 0x82, 0}, 0, "endOfMibView"},
        {"NULL", {{}, 0x05, 0}, 0, ""},
        {"OID", {text("1.3.6.1.4.1.2.2.1.1.1.0"), 0x06, 0}, 0, "1.3.6.1.4.1.2.2.1.1.1.0"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        snmp_container* c = snmp_create_value_container(
            row.v.bytes.data(), static_cast<uint32_t>(row.v.bytes.size()), row.v.tag, row.v.hint);
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

TEST(SnmpUtil, NetAddrForms)
{
    snmp_net_addr tcp{SNMP_DOMAIN_TCP, {{127, 0, 0, 1}}, {0x00, 0xA1}};
    snmp_net_addr udp{SNMP_DOMAIN_UDP, {{192, 168, 255, 254}}, {0xFF, 0xFF}};
    snmp_net_addr fd{SNMP_DOMAIN_UNIX_FD, {}, {}};
    fd.address.fd = -3;
    snmp_net_addr odd{2, {}, {}};
    struct Row {
        const char* name;
        const snmp_net_addr* a;
        const char* expected;
    } rows[] = {
        {"null", nullptr, "Null ptr"},
        {"tcp", &tcp, "TCP 127.0.0.1 port 161"},
        {"udp", &udp, "UDP 192.168.255.254 port 65535"},
        {"descriptor", &fd, "UNIX file descriptor -3."},
        {"unknown", &odd, "Unknown domain"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_STREQ(snmp_net_addr_to_string(row.a), row.expected);
    }
}

}  // namespace
