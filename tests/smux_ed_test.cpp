// SMUX PDUs: known encodings decoded, rendered and encoded again byte for byte, every
// truncation, refusals with their codes, the varBind limits, the 4096-byte output area, and
// round trips of every PDU type and value tag through the static record.
#include "smux_ed.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "snmp_asn1.h"
#include "snmp_container.h"
#include "snmp_ed.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes hex(std::string_view text) {
    Bytes out;
    for (size_t i = 0; i + 1 < text.size(); i++) {
        if (text[i] != ' ') {
            out.push_back(
                static_cast<uint8_t>(std::stoi(std::string(text.substr(i++, 2)), nullptr, 16)));
        }
    }
    return out;
}

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

Bytes tlv(uint8_t tag, const Bytes& contents) {
    auto n = static_cast<uint32_t>(contents.size());
    Bytes out{tag};
    if (n >= 128) {
        out.push_back(n < 256 ? 0x81 : 0x82);
    }
    if (n >= 256) {
        out.push_back(static_cast<uint8_t>(n >> 8));
    }
    out.push_back(static_cast<uint8_t>(n));
    return cat({out, contents});
}

std::string oid_text(const snmp_container* c) {
    std::string out;
    for (uint32_t i = 0; c != nullptr && i < c->length; i++) {
        out += (i ? "." : "") + std::to_string(snmp_container_const_subids(c)[i]);
    }
    return out;
}

std::string value_text(const snmp_container* c) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%02X:", c->tag);
    std::string out = buf;
    if (c->native == SNMP_NATIVE_OID) {
        return out + oid_text(c);
    }
    if (c->native == SNMP_NATIVE_OCTETS) {
        return out + std::string(reinterpret_cast<const char*>(snmp_container_const_octets(c)),
                                 c->length);
    }
    return out + std::to_string(c->value.u32);
}

std::string varbinds_text(const snmp_varBind* vbs, uint32_t n) {
    std::string out = " [";
    for (uint32_t i = 0; i < n; i++) {
        out += (i ? " " : "") + oid_text(vbs[i].name) + "=" + value_text(vbs[i].value);
    }
    return out + "]";
}

// Every field the record's type uses, as one line of text.
std::string render(const smux_pdu* p) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%02X ", p->type);
    std::string out = buf;
    switch (p->type) {
        case 0x60:
            return out + std::to_string(p->version) + " " + oid_text(p->oid) + " '" +
                   std::string(p->description, p->description_len) + "' '" +
                   std::string(p->password, p->password_len) + "'";
        case 0x41:
        case 0x43:
        case 0x44:
            return out + std::to_string(p->code);
        case 0x62:
            return out + oid_text(p->oid) + " " + std::to_string(p->priority) + " " +
                   std::to_string(p->operation);
        case 0xA4:
            std::snprintf(buf, sizeof buf, " %u.%u.%u.%u %d/%d t%u", p->trap->agent_addr[0],
                          p->trap->agent_addr[1], p->trap->agent_addr[2], p->trap->agent_addr[3],
                          p->trap->generic_trap, p->trap->specific_trap, p->trap->time_stamp);
            return out + oid_text(p->trap->enterprise) + buf +
                   varbinds_text(p->trap->varBinds, p->trap->varBind_count);
        default:
            std::snprintf(buf, sizeof buf, "id%d %d/%d", p->snmp->request_id, p->snmp->error_status,
                          p->snmp->error_index);
            return out + buf + varbinds_text(p->snmp->varBinds, p->snmp->varBind_count);
    }
}

int decode(const Bytes& wire, smux_pdu** out) {
    return smux_decode_message(wire.data(), static_cast<uint32_t>(wire.size()), out);
}

int encode(smux_pdu* record, Bytes* out) {
    uint8_t* start = nullptr;
    uint32_t length = 0;
    int rc = smux_encode_message(&start, &length, record);
    if (rc == SNMP_CODEC_OK) {
        out->assign(start, start + length);
    }
    return rc;
}

// A Get as the master agent writes it: every length in the two-octet long form.
const char* const kAgentGet =
    "A0 82 00 1A 02 01 07 02 01 00 02 01 00 30 82 00 0D 30 82 00 09 06 82 00 03 2B 06 01 05 00";

TEST(Smux, DecodeVectors) {
    struct Row {
        const char* name;
        const char* hex;
        int code;
        const char* rendered;
        bool canonical;  // encoded again to the same bytes
    };
    const Row rows[] = {
        {"RReq", "62 0E 06 06 2B 06 01 02 01 01 02 01 FF 02 01 02", 0, "62 1.3.6.1.2.1.1 -1 2",
         true},
        {"Open", "60 14 02 01 00 06 09 2B 06 01 04 01 86 8D 1F 01 04 02 61 62 04 00", 0,
         "60 0 1.3.6.1.4.1.99999.1 'ab' ''", true},
        {"GetResponse", "A2 0B 02 01 01 02 01 00 02 01 00 30 00", 0, "A2 id1 0/0 []", true},
        {"Get in long form", kAgentGet, 0, "A0 id7 0/0 [1.3.6.1=05:0]", false},
        {"GetNext",
         "A1 19 02 02 01 00 02 01 00 02 01 00 30 0D 30 0B 06 07 2B 06 01 02 01 01 05 05 00", 0,
         "A1 id256 0/0 [1.3.6.1.2.1.1.5=05:0]", true},
        {"Set", "A3 16 02 01 09 02 01 00 02 01 00 30 0B 30 09 06 03 2B 06 01 02 02 01 00", 0,
         "A3 id9 0/0 [1.3.6.1=02:256]", true},
        {"Trap",
         "A4 1B 06 08 2B 06 01 04 01 86 8D 1F 40 04 00 00 00 00 02 01 06 02 01 11 43 01 00 30 00",
         0, "A4 1.3.6.1.4.1.99999 0.0.0.0 6/17 t0 []", true},
        {"Close 0", "41 01 00", 0, "41 0", true},
        {"Close 5", "41 01 05", 0, "41 5", true},
        {"SOut commit", "44 01 00", 0, "44 0", true},
        {"SOut rollback", "44 01 01", 0, "44 1", true},
        {"RRsp -1", "43 01 FF", 0, "43 -1", true},
        {"RRsp -1 in four octets", "43 04 FF FF FF FF", 0, "43 -1", false},
        {"RRsp 2^31-1", "43 04 7F FF FF FF", 0, "43 2147483647", true},
        {"empty Close is 0", "41 00", 0, "41 0", false},
        {"Open version 1", "60 14 02 01 01 06 09 2B 06 01 04 01 86 8D 1F 01 04 02 61 62 04 00",
         SNMP_CODEC_MALFORMED, "", false},
        {"Open description as NULL", "60 12 02 01 00 06 09 2B 06 01 04 01 86 8D 1F 01 05 00 04 00",
         SNMP_CODEC_MALFORMED, "", false},
        {"Open without password", "60 12 02 01 00 06 09 2B 06 01 04 01 86 8D 1F 01 04 02 61 62",
         SNMP_CODEC_MALFORMED, "", false},
        {"RReq priority as OCTET STRING", "62 0E 06 06 2B 06 01 02 01 01 04 01 FF 02 01 02",
         SNMP_CODEC_MALFORMED, "", false},
        {"RReq subtree as OCTET STRING", "62 0E 04 06 2B 06 01 02 01 01 02 01 FF 02 01 02",
         SNMP_CODEC_MALFORMED, "", false},
        {"Close past the input", "41 02 00", SNMP_CODEC_MALFORMED, "", false},
        {"Close indefinite", "41 80 00 00", SNMP_CODEC_MALFORMED, "", false},
        {"universal primitive", "02 01 00", SNMP_CODEC_UNKNOWN_PDU, "", false},
        {"application primitive 45", "45 01 00", SNMP_CODEC_UNKNOWN_PDU, "", false},
        {"application primitive 40", "40 01 00", SNMP_CODEC_UNKNOWN_PDU, "", false},
        {"context primitive", "80 00", SNMP_CODEC_UNKNOWN_PDU, "", false},
        {"SEQUENCE", "30 00", SNMP_CODEC_UNKNOWN_PDU, "", false},
        {"constructed 61", "61 00", SNMP_CODEC_UNKNOWN_PDU, "", false},
        {"GetBulk", "A5 0B 02 01 01 02 01 00 02 01 00 30 00", SNMP_CODEC_UNKNOWN_PDU, "", false},
        {"constructed high tag", "3F 00", SNMP_CODEC_MALFORMED, "", false},
        {"PDU past the input", "A2 0C 02 01 01 02 01 00 02 01 00 30 00", SNMP_CODEC_MALFORMED, "",
         false},
        {"request-id as OCTET STRING", "A0 0B 04 01 01 02 01 00 02 01 00 30 00",
         SNMP_CODEC_MALFORMED, "", false},
        {"varBind list as SET", "A0 0B 02 01 01 02 01 00 02 01 00 31 00", SNMP_CODEC_MALFORMED, "",
         false},
        {"varBind longer than its list",
         "A0 14 02 01 01 02 01 00 02 01 00 30 03 30 07 06 03 2B 06 01 05 00", SNMP_CODEC_MALFORMED,
         "", false},
        {"name as OCTET STRING",
         "A0 14 02 01 01 02 01 00 02 01 00 30 09 30 07 04 03 2B 06 01 05 00", SNMP_CODEC_MALFORMED,
         "", false},
        {"value Counter64", "A2 13 02 01 01 02 01 00 02 01 00 30 08 30 06 06 01 2B 46 01 01",
         SNMP_CODEC_MALFORMED, "", false},
        {"Trap agent-addr as OCTET STRING",
         "A4 1B 06 08 2B 06 01 04 01 86 8D 1F 04 04 00 00 00 00 02 01 06 02 01 11 43 01 00 30 00",
         SNMP_CODEC_MALFORMED, "", false},
        {"Trap time-stamp as INTEGER",
         "A4 1B 06 08 2B 06 01 04 01 86 8D 1F 40 04 00 00 00 00 02 01 06 02 01 11 02 01 00 30 00",
         SNMP_CODEC_MALFORMED, "", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Bytes wire = hex(row.hex);
        smux_pdu* got = nullptr;
        ASSERT_EQ(decode(wire, &got), row.code);
        if (row.code != SNMP_CODEC_OK) {
            EXPECT_EQ(got, nullptr);
            continue;
        }
        EXPECT_EQ(render(got), row.rendered);
        if (got->type >= 0xA0 && got->type <= 0xA3) {
            EXPECT_EQ(got->snmp->type, got->type);
        }
        Bytes again;
        ASSERT_EQ(encode(got, &again), SNMP_CODEC_OK);
        if (row.canonical) {
            EXPECT_EQ(again, wire);
        }
        for (size_t cut = 0; cut < wire.size(); cut++) {
            smux_pdu* part = nullptr;
            EXPECT_NE(smux_decode_message(wire.data(), uint32_t(cut), &part), 0) << "cut " << cut;
            EXPECT_EQ(part, nullptr);
        }
        // Bytes after the PDU belong to the next one and are not looked at.
        Bytes two = cat({wire, hex("44 01 01")});
        ASSERT_EQ(decode(two, &got), SNMP_CODEC_OK);
        EXPECT_EQ(render(got), row.rendered);
    }
    smux_pdu* got = nullptr;
    EXPECT_EQ(smux_decode_message(nullptr, 0, &got), SNMP_CODEC_MALFORMED);
    EXPECT_EQ(smux_decode_message(hex("41 01 00").data(), 3, nullptr), SNMP_CODEC_BAD_ARGUMENT);
}

TEST(Smux, OpenTextsAndVarBindLimits) {
    const Bytes head = hex("02 01 00 06 03 2B 06 01");
    const Bytes fields = hex("02 01 01 02 01 00 02 01 00");
    const Bytes trap_fields = hex("06 01 2B 40 04 00 00 00 00 02 01 06 02 01 00 43 01 00");
    Bytes vbs;
    for (int i = 0; i < SMUX_MAX_VARBINDS + 1; i++) {
        vbs = cat({vbs, hex("30 06 06 02 2B 06 05 00")});
    }
    auto list = [&](int n) { return tlv(0x30, Bytes(vbs.begin(), vbs.begin() + 8 * n)); };
    struct Row {
        const char* name;
        Bytes wire;
        int code;
    };
    const Row rows[] = {
        {"description of 255", tlv(0x60, cat({head, tlv(0x04, Bytes(255, 'd')), hex("04 00")})), 0},
        {"description of 256", tlv(0x60, cat({head, tlv(0x04, Bytes(256, 'd')), hex("04 00")})),
         SNMP_CODEC_NO_ROOM},
        {"password of 255", tlv(0x60, cat({head, hex("04 00"), tlv(0x04, Bytes(255, 'p'))})), 0},
        {"password of 256", tlv(0x60, cat({head, hex("04 00"), tlv(0x04, Bytes(256, 'p'))})),
         SNMP_CODEC_NO_ROOM},
        {"password of 256 as NULL",
         tlv(0x60, cat({head, hex("04 00"), tlv(0x05, Bytes(256, 'p'))})), SNMP_CODEC_NO_ROOM},
        {"password of 2 as NULL", tlv(0x60, cat({head, hex("04 00"), tlv(0x05, Bytes(2, 'p'))})),
         SNMP_CODEC_MALFORMED},
        {"Get with 4097", tlv(0xA0, cat({fields, list(SMUX_MAX_VARBINDS)})), 0},
        {"Get with 4098", tlv(0xA0, cat({fields, list(SMUX_MAX_VARBINDS + 1)})),
         SNMP_CODEC_TOO_MANY},
        {"Trap with 257", tlv(0xA4, cat({trap_fields, list(SMUX_MAX_TRAP_VARBINDS)})), 0},
        {"Trap with 258", tlv(0xA4, cat({trap_fields, list(SMUX_MAX_TRAP_VARBINDS + 1)})),
         SNMP_CODEC_TOO_MANY},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        smux_pdu* got = nullptr;
        ASSERT_EQ(decode(row.wire, &got), row.code);
        if (got != nullptr && got->type == 0x60) {
            EXPECT_EQ(std::strlen(got->description) + std::strlen(got->password), 255u);
            Bytes again;
            ASSERT_EQ(encode(got, &again), SNMP_CODEC_OK);
            EXPECT_EQ(again, row.wire);
        }
    }
}

// Every PDU type, with values of every tag in the SNMP PDUs and the trap: encoded, decoded
// to the same fields, and encoded again to the same bytes.
TEST(Smux, RoundTripEveryTypeAndTag) {
    const int32_t neg = -129;
    const uint32_t big = 0xFFFFFFFFu, gauge = 128, ticks = 8640000;
    struct Value {
        const void* bytes;
        uint32_t len;
        uint8_t tag;
    };
    const Value values[] = {{&neg, 4, 0x02},           {"text", 4, 0x04},
                            {nullptr, 0, 0x05},        {"1.3.6.1.4.1.99999.1", 0, 0x06},
                            {"\x7F\0\0\x01", 4, 0x40}, {&big, 4, 0x41},
                            {&gauge, 4, 0x42},         {&ticks, 4, 0x43},
                            {"\x01\x02", 2, 0x44},     {"", 0, 0x04}};
    const uint32_t n = sizeof values / sizeof values[0];
    snmp_pdu* snmp = snmp_create_pdu(n);
    snmp_trap_pdu* trap = snmp_create_trap_pdu(n);
    for (uint32_t i = 0; i < n; i++) {
        const Value& v = values[i];
        snmp->varBinds[i] = {snmp_create_oid_container("1.3.6.1.4.1.99999.2"),
                             snmp_create_value_container(v.bytes, v.len, v.tag, 0)};
        trap->varBinds[i] = {snmp_create_oid_container("1.3.6.1.4.1.99999.3"),
                             snmp_create_value_container(v.bytes, v.len, v.tag, 0)};
    }
    snmp->varBind_count = trap->varBind_count = n;
    snmp->request_id = -5;
    snmp->error_status = 5;
    snmp->error_index = 3;
    trap->enterprise = snmp_create_oid_container("1.3.6.1.4.1.99999");
    std::memcpy(trap->agent_addr, "\x0A\x00\x00\x02", 4);
    trap->generic_trap = 6;
    trap->specific_trap = 3;
    trap->time_stamp = 4242;
    snmp_container* id = snmp_create_oid_container("1.3.6.1.4.1.99999.1");

    const uint8_t types[] = {0x60, 0x41, 0x62, 0x43, 0x44, 0xA0, 0xA1, 0xA2, 0xA3, 0xA4};
    for (uint8_t type : types) {
        SCOPED_TRACE(int{type});
        smux_pdu record{};
        record.type = type;
        record.code = type == 0x43 ? -1 : 3;
        record.oid = id;
        record.priority = 7;
        record.operation = 2;
        std::strcpy(record.description, "varnex2 test");
        record.description_len = 12;
        std::strcpy(record.password, "secret");
        record.password_len = 6;
        record.snmp = snmp;
        record.trap = trap;
        snmp->type = type == 0xA0 ? 0xA3 : 0xA0;  // the record's type is the one written

        Bytes wire, again;
        ASSERT_EQ(encode(&record, &wire), SNMP_CODEC_OK);
        smux_pdu* got = nullptr;
        ASSERT_EQ(decode(wire, &got), SNMP_CODEC_OK);
        snmp->type = type;
        EXPECT_EQ(render(got), render(&record));
        ASSERT_EQ(encode(got, &again), SNMP_CODEC_OK);
        EXPECT_EQ(again, wire);
    }
    snmp_free_container(id);
    snmp_free_pdu(snmp, n);
    snmp_free_trap_pdu(trap, n);
}

TEST(Smux, EncodeRefusals) {
    snmp_container* id = snmp_create_oid_container("1.3.6.1");
    struct Row {
        const char* name;
        uint8_t type;
        int32_t version;
        uint32_t description_len;
        bool with_oid;
        int code;
    };
    const Row rows[] = {
        {"Open version 1", 0x60, 1, 0, true, SNMP_CODEC_INCOMPLETE},
        {"Open description past its buffer", 0x60, 0, SMUX_TEXT_SIZE + 1, true, SNMP_CODEC_NO_ROOM},
        {"Open without identity", 0x60, 0, 0, false, SNMP_CODEC_BAD_ARGUMENT},
        {"RReq without subtree", 0x62, 0, 0, false, SNMP_CODEC_BAD_ARGUMENT},
        {"GetResponse without its record", 0xA2, 0, 0, true, SNMP_CODEC_BAD_ARGUMENT},
        {"Trap without its record", 0xA4, 0, 0, true, SNMP_CODEC_BAD_ARGUMENT},
        {"SEQUENCE", 0x30, 0, 0, true, SNMP_CODEC_UNKNOWN_PDU},
        {"application 45", 0x45, 0, 0, true, SNMP_CODEC_UNKNOWN_PDU},
        {"GetBulk", 0xA5, 0, 0, true, SNMP_CODEC_UNKNOWN_PDU},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        smux_pdu record{};
        record.type = row.type;
        record.version = row.version;
        record.description_len = row.description_len;
        record.oid = row.with_oid ? id : nullptr;
        uint8_t* start = nullptr;
        uint32_t length = 99;
        EXPECT_EQ(smux_encode_message(&start, &length, &record), row.code);
        EXPECT_EQ(start, nullptr);
        EXPECT_EQ(length, 99u);
    }
    snmp_free_container(id);
}

// Responses grow until they no longer fit in 4096 bytes; every encoding ends at the same
// last byte, and once one size fails every larger one fails too.
TEST(Smux, OutputAreaLimit) {
    const uint32_t most = 600;
    snmp_pdu* snmp = snmp_create_pdu(most);
    for (uint32_t i = 0; i < most; i++) {
        int32_t v = static_cast<int32_t>(i);
        snmp->varBinds[i] = {snmp_create_oid_container("1.3.6.1.2.1.2.2.1.1.1"),
                             snmp_create_value_container(&v, 4, 0x02, 0)};
    }
    smux_pdu record{};
    record.type = 0xA2;
    record.snmp = snmp;
    const uint8_t* end = nullptr;
    uint32_t fitted = 0;
    for (uint32_t n = 1; n <= most; n++) {
        snmp->varBind_count = n;
        uint8_t* start = nullptr;
        uint32_t length = 0;
        int rc = smux_encode_message(&start, &length, &record);
        if (rc != SNMP_CODEC_OK) {
            EXPECT_TRUE(rc == SNMP_CODEC_NO_ROOM || rc == SNMP_CODEC_BAD_ARGUMENT) << rc;
            continue;
        }
        EXPECT_EQ(fitted, n - 1) << "fitted after a smaller one failed";
        fitted = n;
        end = end != nullptr ? end : start + length;
        EXPECT_EQ(start + length, end);
    }
    EXPECT_GT(fitted, 100u);
    EXPECT_LT(fitted, most);
    snmp->varBind_count = fitted;
    Bytes wire;
    ASSERT_EQ(encode(&record, &wire), SNMP_CODEC_OK);
    EXPECT_LE(wire.size(), uint32_t{SMUX_BUF_SIZE});
    smux_pdu* got = nullptr;
    ASSERT_EQ(decode(wire, &got), SNMP_CODEC_OK);
    EXPECT_EQ(render(got), render(&record));
    snmp_free_pdu(snmp, most);
}

// The request handler answers in place: the decoded Get becomes the GetResponse, and the next
// request of a fitting shape reuses the record and its containers.
TEST(Smux, AnswerInPlaceAndReuse) {
    smux_pdu* got = nullptr;
    ASSERT_EQ(decode(hex(kAgentGet), &got), SNMP_CODEC_OK);
    smux_pdu* record = got;
    snmp_container* name = got->snmp->varBinds[0].name;
    int32_t answer = 42;
    got->snmp->varBinds[0].value =
        snmp_replace_container_value(got->snmp->varBinds[0].value, &answer, 4, 0x02, 0);
    got->type = got->snmp->type = 0xA2;
    Bytes out;
    ASSERT_EQ(encode(got, &out), SNMP_CODEC_OK);
    EXPECT_EQ(out, hex("A2 15 02 01 07 02 01 00 02 01 00 30 0A 30 08 06 03 2B 06 01 02 01 2A"));

    ASSERT_EQ(decode(hex("A1 12 02 01 08 02 01 00 02 01 00 30 07 30 05 06 01 2A 05 00"), &got), 0);
    EXPECT_EQ(got, record);
    EXPECT_EQ(got->snmp->varBinds[0].name, name);
    EXPECT_EQ(render(got), "A1 id8 0/0 [1.2=05:0]");
}

}  // namespace
