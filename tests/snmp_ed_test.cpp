// SNMPv1 and SMUX PDUs: known encodings decoded, rendered and encoded again byte for byte,
// every truncation, every value tag, refusals with their codes, the varBind limits,
// container recycling, the trap rules, the 4096-byte SMUX output area, and the SNMP message
// wrapper with its community buffer and the 8 bytes it never uses. SNMP PDUs travel over
// SMUX unchanged, so most of them are exercised through the SMUX codec.
#include "snmp_ed.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "smux_ed.h"
#include "snmp_asn1.h"
#include "snmp_container.h"
#include "vx_peers.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes hex(const std::string& text) {  // "02 01 7F"
    return vx_hex(text.c_str());
}

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

// One element with a minimal definite length (contents below 64 KiB).
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

const Bytes kFields = hex("02 01 01 02 01 00 02 01 00");  // request-id 1, no error

std::string oid_text(const snmp_container* c) {
    std::string out;
    for (uint32_t i = 0; c != nullptr && i < c->length; i++) {
        out += (i ? "." : "") + std::to_string(snmp_container_const_subids(c)[i]);
    }
    return out;
}

// Tag and value: OIDs dotted, octets and addresses in hex, words as their storage kind
// reads them, so an INTEGER stored unsigned shows; a display hint, which nothing on the wire
// sets, only when one was left behind.
std::string value_text(const snmp_container* c) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "%02X:", c->tag);
    std::string out = c->hint != 0 ? "hint " + std::to_string(c->hint) + " " + buf : buf;
    if (c->native == SNMP_NATIVE_OID) {
        return out + oid_text(c);
    }
    if (c->native == SNMP_NATIVE_OCTETS || c->tag == SNMP_TAG_IPADDRESS) {
        for (uint32_t i = 0; i < (c->tag == SNMP_TAG_IPADDRESS ? 4 : c->length); i++) {
            std::snprintf(buf, sizeof buf, "%02X", snmp_container_const_octets(c)[i]);
            out += buf;
        }
        return out;
    }
    return out + (c->native == SNMP_NATIVE_S32 ? std::to_string(c->value.s32)
                                               : std::to_string(c->value.u32));
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

// Decodes `wire` to `code`; a PDU it accepts must render as `rendered`, encode again (to the
// same bytes when `canonical`), fail on every truncation and ignore the bytes after it.
void check_vector(const Bytes& wire, int code, const std::string& rendered, bool canonical) {
    smux_pdu* got = nullptr;
    ASSERT_EQ(decode(wire, &got), code);
    if (code != SNMP_CODEC_OK) {
        EXPECT_EQ(got, nullptr);
        return;
    }
    EXPECT_EQ(render(got), rendered);
    if (got->type >= 0xA0 && got->type <= 0xA3) {
        EXPECT_EQ(got->snmp->type, got->type);
    }
    Bytes again;
    ASSERT_EQ(encode(got, &again), SNMP_CODEC_OK);
    if (canonical) {
        EXPECT_EQ(again, wire);
    }
    for (size_t cut = 0; cut < wire.size(); cut++) {
        smux_pdu* part = nullptr;
        EXPECT_NE(smux_decode_message(wire.data(), uint32_t(cut), &part), 0) << "cut " << cut;
        EXPECT_EQ(part, nullptr);
    }
    ASSERT_EQ(decode(cat({wire, hex("44 01 01")}), &got), SNMP_CODEC_OK);
    EXPECT_EQ(render(got), rendered);
}

snmp_container* oid(const char* text) {
    return snmp_create_oid_container(text);
}

snmp_container* value(uint8_t tag, const void* bytes = nullptr, uint32_t len = 0) {
    return snmp_create_value_container(bytes, len, tag, 0);
}

// A Get as the master agent writes it: every length in the two-octet long form.
const char* const kAgentGet =
    "A0 82 00 1A 02 01 07 02 01 00 02 01 00 30 82 00 0D 30 82 00 09 06 82 00 03 2B 06 01 05 00";

// Known encodings, then every value tag inside a GetResponse: accepted ones are rendered,
// encoded again (to the same bytes unless marked), cut short and followed by another PDU.
TEST(Smux, DecodeVectors) {
    constexpr int MAL = SNMP_CODEC_MALFORMED, UNKNOWN = SNMP_CODEC_UNKNOWN_PDU;
    auto resp = [](const char* value) {
        Bytes vb = tlv(0x30, cat({hex("06 03 2B 06 01"), hex(value)}));
        return tlv(0xA2, cat({kFields, tlv(0x30, vb)}));
    };
    struct Row {
        const char* name;
        Bytes wire;
        int code;
        const char* rendered = "";
        bool canonical = true;
    };
    const Row rows[] = {
        {"RReq", hex("62 0E 06 06 2B 06 01 02 01 01 02 01 FF 02 01 02"), 0,
         "62 1.3.6.1.2.1.1 -1 2"},
        {"Open", hex("60 14 02 01 00 06 09 2B 06 01 04 01 86 8D 1F 01 04 02 61 62 04 00"), 0,
         "60 0 1.3.6.1.4.1.99999.1 'ab' ''"},
        {"GetResponse", hex("A2 0B 02 01 01 02 01 00 02 01 00 30 00"), 0, "A2 id1 0/0 []"},
        {"GetResponse with an error", hex("A2 0B 02 01 FB 02 01 05 02 01 03 30 00"), 0,
         "A2 id-5 5/3 []"},
        {"Get in long form", hex(kAgentGet), 0, "A0 id7 0/0 [1.3.6.1=05:0]", false},
        {"GetNext",
         hex("A1 19 02 02 01 00 02 01 00 02 01 00 30 0D 30 0B 06 07 2B 06 01 02 01 01 05 05 00"), 0,
         "A1 id256 0/0 [1.3.6.1.2.1.1.5=05:0]"},
        {"Set", hex("A3 16 02 01 09 02 01 00 02 01 00 30 0B 30 09 06 03 2B 06 01 02 02 01 00"), 0,
         "A3 id9 0/0 [1.3.6.1=02:256]"},
        {"Trap",
         hex("A4 1B 06 08 2B 06 01 04 01 86 8D 1F 40 04 00 00 00 00 02 01 06 02 01 11 43 01 00 30 "
             "00"),
         0, "A4 1.3.6.1.4.1.99999 0.0.0.0 6/17 t0 []"},
        {"Trap with extremes",
         hex("A4 29 06 08 2B 06 01 04 01 86 8D 1F 40 04 0A 00 00 02 02 01 06 02 01 FF 43 05 00 FF "
             "FF FF FF 30 0A 30 08 06 03 2B 06 01 43 01 07"),
         0, "A4 1.3.6.1.4.1.99999 10.0.0.2 6/-1 t4294967295 [1.3.6.1=43:7]"},
        {"Close 0", hex("41 01 00"), 0, "41 0"},
        {"SOut rollback", hex("44 01 01"), 0, "44 1"},
        {"RRsp -1", hex("43 01 FF"), 0, "43 -1"},
        {"RRsp -1 in four octets", hex("43 04 FF FF FF FF"), 0, "43 -1", false},
        {"RRsp 2^31-1", hex("43 04 7F FF FF FF"), 0, "43 2147483647"},
        {"empty Close is 0", hex("41 00"), 0, "41 0", false},
        {"Open version 1", hex("60 14 02 01 01 06 09 2B 06 01 04 01 86 8D 1F 01 04 02 61 62 04 00"),
         MAL},
        {"Open description as NULL",
         hex("60 12 02 01 00 06 09 2B 06 01 04 01 86 8D 1F 01 05 00 04 00"), MAL},
        {"Open without password",
         hex("60 12 02 01 00 06 09 2B 06 01 04 01 86 8D 1F 01 04 02 61 62"), MAL},
        {"RReq priority as OCTET STRING", hex("62 0E 06 06 2B 06 01 02 01 01 04 01 FF 02 01 02"),
         MAL},
        {"RReq subtree as OCTET STRING", hex("62 0E 04 06 2B 06 01 02 01 01 02 01 FF 02 01 02"),
         MAL},
        {"Close past the input", hex("41 02 00"), MAL},
        {"Close indefinite", hex("41 80 00 00"), MAL},
        {"universal primitive", hex("02 01 00"), UNKNOWN},
        {"application primitive 45", hex("45 01 00"), UNKNOWN},
        {"application primitive 40", hex("40 01 00"), UNKNOWN},
        {"context primitive", hex("80 00"), UNKNOWN},
        {"SEQUENCE", hex("30 00"), UNKNOWN},
        {"constructed 61", hex("61 00"), UNKNOWN},
        {"GetBulk", hex("A5 0B 02 01 01 02 01 00 02 01 00 30 00"), UNKNOWN},
        {"constructed high tag", hex("3F 00"), MAL},
        {"PDU past the input", hex("A2 0C 02 01 01 02 01 00 02 01 00 30 00"), MAL},
        {"request-id as OCTET STRING", hex("A0 0B 04 01 01 02 01 00 02 01 00 30 00"), MAL},
        {"varBind list as SET", hex("A0 0B 02 01 01 02 01 00 02 01 00 31 00"), MAL},
        {"varBind longer than its list",
         hex("A0 14 02 01 01 02 01 00 02 01 00 30 03 30 07 06 03 2B 06 01 05 00"), MAL},
        {"name as OCTET STRING",
         hex("A0 14 02 01 01 02 01 00 02 01 00 30 09 30 07 04 03 2B 06 01 05 00"), MAL},
        {"Trap agent-addr as OCTET STRING",
         hex("A4 1B 06 08 2B 06 01 04 01 86 8D 1F 04 04 00 00 00 00 02 01 06 02 01 11 43 01 00 30 "
             "00"),
         MAL},
        {"Trap time-stamp as INTEGER",
         hex("A4 1B 06 08 2B 06 01 04 01 86 8D 1F 40 04 00 00 00 00 02 01 06 02 01 11 02 01 00 30 "
             "00"),
         MAL},
        {"INTEGER -129", resp("02 02 FF 7F"), 0, "A2 id1 0/0 [1.3.6.1=02:-129]"},
        {"INTEGER 2^31-1", resp("02 04 7F FF FF FF"), 0, "A2 id1 0/0 [1.3.6.1=02:2147483647]"},
        {"INTEGER -2^31", resp("02 04 80 00 00 00"), 0, "A2 id1 0/0 [1.3.6.1=02:-2147483648]"},
        {"OCTET STRING", resp("04 03 61 62 63"), 0, "A2 id1 0/0 [1.3.6.1=04:616263]"},
        {"empty OCTET STRING", resp("04 00"), 0, "A2 id1 0/0 [1.3.6.1=04:]"},
        {"Opaque keeps its tag", resp("44 02 01 02"), 0, "A2 id1 0/0 [1.3.6.1=44:0102]"},
        {"NULL", resp("05 00"), 0, "A2 id1 0/0 [1.3.6.1=05:0]"},
        {"OBJECT IDENTIFIER", resp("06 03 2B 06 01"), 0, "A2 id1 0/0 [1.3.6.1=06:1.3.6.1]"},
        {"IpAddress", resp("40 04 0A 00 00 01"), 0, "A2 id1 0/0 [1.3.6.1=40:0A000001]"},
        {"Counter 2^32-1", resp("41 05 00 FF FF FF FF"), 0, "A2 id1 0/0 [1.3.6.1=41:4294967295]"},
        {"Gauge 7", resp("42 01 07"), 0, "A2 id1 0/0 [1.3.6.1=42:7]"},
        {"TimeTicks 128", resp("43 02 00 80"), 0, "A2 id1 0/0 [1.3.6.1=43:128]"},
        {"TimeTicks in four octets", resp("43 04 FF FF FF FF"), 0,
         "A2 id1 0/0 [1.3.6.1=43:4294967295]", false},
        {"Counter64", resp("46 01 01"), MAL},
        {"noSuchObject", resp("80 00"), MAL},
        {"noSuchInstance", resp("81 00"), MAL},
        {"endOfMibView", resp("82 00"), MAL},
        {"BIT STRING", resp("03 01 00"), MAL},
        {"IpAddress of five octets", resp("40 05 01 02 03 04 05"), MAL},
        {"value longer than its VarBind", resp("02 02 00"), MAL},
        {"no value", resp(""), MAL},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        check_vector(row.wire, row.code, row.rendered, row.canonical);
    }
    smux_pdu* got = nullptr;
    EXPECT_EQ(smux_decode_message(nullptr, 0, &got), SNMP_CODEC_MALFORMED);
    EXPECT_EQ(smux_decode_message(hex("41 01 00").data(), 3, nullptr), SNMP_CODEC_BAD_ARGUMENT);
}

// Decoding into the static record again keeps its containers, resizes them only when
// needed and changes a value's kind in place (ASan reports any block lost on the way); the
// request handler answers in place, turning the decoded Get into the GetResponse, and the
// display hint of its answer must not survive into the next request.
TEST(Smux, RecyclesTheRecord) {
    smux_pdu* got = nullptr;
    ASSERT_EQ(decode(hex(kAgentGet), &got), SNMP_CODEC_OK);
    smux_pdu* const record = got;
    int32_t answer = 42;
    got->snmp->varBinds[0].value =
        snmp_replace_container_value(got->snmp->varBinds[0].value, &answer, 4, 0x02, 9);
    got->type = 0xA2;  // the record's type is the one written
    Bytes out;
    ASSERT_EQ(encode(got, &out), SNMP_CODEC_OK);
    EXPECT_EQ(out, hex("A2 15 02 01 07 02 01 00 02 01 00 30 0A 30 08 06 03 2B 06 01 02 01 2A"));

    const Bytes steps[] = {
        tlv(0x04, Bytes(20, 'a')),
        tlv(0x04, Bytes(3, 'b')),
        tlv(0x04, Bytes(40, 'c')),
        hex("02 01 05"),
        tlv(0x06, hex("2B 06 01 04 01 86 8D 1F 01 02 03 04 05")),
        hex("40 04 01 02 03 04"),
        hex("04 00"),
        hex("05 00"),
    };
    snmp_container* name = got->snmp->varBinds[0].name;
    for (const Bytes& value : steps) {
        SCOPED_TRACE(value.size());
        Bytes wire =
            tlv(0xA1, cat({kFields, tlv(0x30, tlv(0x30, cat({hex("06 03 2B 06 01"), value})))}));
        ASSERT_EQ(decode(wire, &got), SNMP_CODEC_OK);
        EXPECT_EQ(got, record);
        EXPECT_EQ(got->snmp->varBinds[0].name, name);  // same OID length: the same block
        ASSERT_EQ(encode(got, &out), SNMP_CODEC_OK);
        EXPECT_EQ(out, wire);
    }
}

TEST(Smux, OpenTextsAndVarBindLimits) {
    const Bytes head = hex("02 01 00 06 03 2B 06 01");
    const Bytes trap_fields = hex("06 01 2B 40 04 00 00 00 00 02 01 06 02 01 00 43 01 00");
    Bytes vbs;
    for (int i = 0; i < SMUX_MAX_VARBINDS + 1; i++) {
        vbs = cat({vbs, hex("30 06 06 02 2B 06 05 00")});
    }
    auto list = [&](int n) { return tlv(0x30, Bytes(vbs.begin(), vbs.begin() + 8 * n)); };
    auto open = [&](uint8_t tag, size_t d, size_t p) {
        return tlv(0x60, cat({head, tlv(0x04, Bytes(d, 'd')), tlv(tag, Bytes(p, 'p'))}));
    };
    struct Row {
        const char* name;
        Bytes wire;
        int code;
    };
    const Row rows[] = {
        {"description of 255", open(0x04, 255, 0), 0},
        {"description of 256", open(0x04, 256, 0), SNMP_CODEC_NO_ROOM},
        {"password of 255", open(0x04, 0, 255), 0},
        {"password of 256", open(0x04, 0, 256), SNMP_CODEC_NO_ROOM},
        {"password of 256 as NULL", open(0x05, 0, 256), SNMP_CODEC_NO_ROOM},
        {"password of 2 as NULL", open(0x05, 0, 2), SNMP_CODEC_MALFORMED},
        {"Get with 4097", tlv(0xA0, cat({kFields, list(SMUX_MAX_VARBINDS)})), 0},
        {"Get with 4098", tlv(0xA0, cat({kFields, list(SMUX_MAX_VARBINDS + 1)})),
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

// Refused records leave the caller's start and length alone; a GetResponse is refused for
// its second varBind.
TEST(Smux, EncodeRefusals) {
    constexpr int INCOMPLETE = SNMP_CODEC_INCOMPLETE, BAD = SNMP_CODEC_BAD_ARGUMENT,
                  UNKNOWN = SNMP_CODEC_UNKNOWN_PDU;
    snmp_container* id = oid("1.3.6.1");
    snmp_container* bad_arcs = oid("1.3.6.1");
    snmp_container_subids(bad_arcs)[0] = 7;
    const int32_t one = 1;
    snmp_pdu* snmp = snmp_create_pdu(2);
    snmp->varBinds[0] = {oid("1.3.6.1.2.1.1.1.0"), value(0x05)};
    snmp->varBind_count = 2;
    struct Row {
        const char* name;
        uint8_t type;
        int32_t version;
        uint32_t description_len;
        snmp_container* oid;
        int code;
        snmp_varBind second = {};
    };
    const Row rows[] = {
        {"Open version 1", 0x60, 1, 0, id, INCOMPLETE},
        {"Open description past its buffer", 0x60, 0, SMUX_TEXT_SIZE + 1, id, SNMP_CODEC_NO_ROOM},
        {"Open without identity", 0x60, 0, 0, nullptr, BAD},
        {"RReq without subtree", 0x62, 0, 0, nullptr, BAD},
        {"GetResponse without its record", 0xA2, 0, 0, id, BAD},
        {"Trap without its record", 0xA4, 0, 0, id, BAD},
        {"SEQUENCE", 0x30, 0, 0, id, UNKNOWN},
        {"application 45", 0x45, 0, 0, id, UNKNOWN},
        {"GetBulk", 0xA5, 0, 0, id, UNKNOWN},
        {"varBind without value", 0xA2, 0, 0, id, INCOMPLETE, {oid("1.3.6.1"), nullptr}},
        {"varBind without name", 0xA2, 0, 0, id, INCOMPLETE, {nullptr, value(0x05)}},
        {"name not an OID", 0xA2, 0, 0, id, BAD, {value(0x02, &one, 4), value(0x05)}},
        {"Counter64", 0xA2, 0, 0, id, BAD, {oid("1.3"), value(0x46, "\0\0\0\1\0\0\0\2", 8)}},
        {"bad first arcs", 0xA2, 0, 0, id, SNMP_CODEC_BAD_OID, {bad_arcs, value(0x05)}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        smux_pdu record{};
        record.type = row.type;
        record.version = row.version;
        record.description_len = row.description_len;
        record.oid = row.oid;
        record.snmp = row.second.name != nullptr || row.second.value != nullptr ? snmp : nullptr;
        snmp->varBinds[1] = row.second;
        uint8_t* start = nullptr;
        uint32_t length = 99;
        EXPECT_EQ(smux_encode_message(&start, &length, &record), row.code);
        EXPECT_EQ(start, nullptr);
        EXPECT_EQ(length, 99u);
        snmp_free_varBinds(&snmp->varBinds[1], 1);
    }
    snmp_free_pdu(snmp, 1);
    snmp_free_container(id);
}

// Responses grow until they no longer fit in 4096 bytes; every encoding ends at the same
// last byte, and once one size fails every larger one fails too.
TEST(Smux, OutputAreaLimit) {
    const uint32_t most = 600;
    snmp_pdu* snmp = snmp_create_pdu(most);
    for (uint32_t i = 0; i < most; i++) {
        snmp->varBinds[i] = {oid("1.3.6.1.2.1.2.2.1.1.1"), value(0x02, &i, 4)};
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
        EXPECT_LE(length, uint32_t{SMUX_BUF_SIZE});
    }
    EXPECT_GT(fitted, 100u);
    EXPECT_LT(fitted, most);
    snmp->varBind_count = fitted;
    Bytes wire;
    ASSERT_EQ(encode(&record, &wire), SNMP_CODEC_OK);
    smux_pdu* got = nullptr;
    ASSERT_EQ(decode(wire, &got), SNMP_CODEC_OK);
    EXPECT_EQ(render(got), render(&record));
    snmp_free_pdu(snmp, most);
}

// A Counter64 value is left out of a trap; a trap may end before its varBind list; room
// for the fixed fields is checked before anything is written.
TEST(SnmpTrap, Rules) {
    snmp_trap_pdu* trap = snmp_create_trap_pdu(2);
    trap->enterprise = oid("1.3.6.1.4.1.99999");
    const uint32_t ticks = 12345;
    trap->varBinds[0] = {oid("1.3.6.1.2.1.1.3.0"), value(0x46, "\0\0\0\1\0\0\0\2", 8)};
    trap->varBinds[1] = {oid("1.3.6.1.2.1.2.2.1.1.3"), value(0x43, &ticks, 4)};
    trap->varBind_count = 2;
    smux_pdu record{};
    record.type = 0xA4;
    record.trap = trap;
    Bytes wire;
    ASSERT_EQ(encode(&record, &wire), SNMP_CODEC_OK);
    smux_pdu* got = nullptr;
    ASSERT_EQ(decode(wire, &got), SNMP_CODEC_OK);
    EXPECT_EQ(render(got), "A4 1.3.6.1.4.1.99999 0.0.0.0 0/0 t0 [1.3.6.1.2.1.2.2.1.1.3=43:12345]");

    snmp_trap_pdu* back = snmp_create_trap_pdu(2);
    int accepted = 0;
    for (uint32_t cut = 0; cut < wire.size() - 2; cut++) {
        accepted += decode_trap_pdu(back, 2, wire.data() + 2, cut) == SNMP_CODEC_OK;
    }
    EXPECT_EQ(accepted, 1);

    // 5 bytes per enterprise sub-identifier + 27 must be free before anything is written.
    trap->varBind_count = 0;
    Bytes area(100, 0xA5);
    uint32_t room = 5 * 7 + 26;
    uint8_t* q = area.data() + area.size();
    EXPECT_EQ(encode_trap_pdu(&q, &room, trap), SNMP_CODEC_NO_ROOM);
    EXPECT_EQ(area, Bytes(100, 0xA5));
    room = 5 * 7 + 27;
    EXPECT_EQ(encode_trap_pdu(&q, &room, trap), SNMP_CODEC_OK);
    snmp_free_container(trap->enterprise);
    trap->enterprise = nullptr;
    EXPECT_EQ(encode_trap_pdu(&q, &room, trap), SNMP_CODEC_BAD_ARGUMENT);
    snmp_free_trap_pdu(trap, 2);
    snmp_free_trap_pdu(back, 2);
}

// ---- the message wrapper ----

struct PduFree {
    void operator()(snmp_pdu* p) const {
        snmp_free_pdu(p, 8);
    }
    void operator()(snmp_trap_pdu* p) const {
        snmp_free_trap_pdu(p, 8);
    }
};

struct Message {
    std::unique_ptr<snmp_pdu, PduFree> pdu{snmp_create_pdu(8)};
    std::unique_ptr<snmp_trap_pdu, PduFree> trap{snmp_create_trap_pdu(8)};
    char community[16] = "?";
    snmp_message msg{0,         sizeof community, 0,
                     community, snmp_pdu_size(4), snmp_trap_pdu_size(4),
                     pdu.get(), trap.get(),       0};  // a limit of 2: up to 3 varBinds
    int decode(const Bytes& wire) {
        snmp_buffer buf{nullptr, 0, const_cast<uint8_t*>(wire.data()), uint32_t(wire.size())};
        return snmp_decode_message(&msg, &buf);
    }
};

TEST(SnmpMessage, GetRequest) {
    Message out;
    std::strcpy(out.community, "public");
    out.msg.community_len = 6;
    out.msg.pdu_type = 0xA0;
    out.pdu->request_id = 1;
    out.pdu->varBind_count = 1;
    out.pdu->varBinds[0] = {oid("1.3.6.1.2.1.1.1.0"), value(0x05)};
    const Bytes expected =
        hex("30 26 02 01 00 04 06 70 75 62 6C 69 63 A0 19 02 01 01 02 01 00 02 01 00 30 0E 30 0C "
            "06 08 2B 06 01 02 01 01 01 00 05 00");

    // Storage from 0 bytes up: small ones fail, nothing is written outside [base, size - 8),
    // and once one size works every larger one does.
    uint32_t smallest = 0;
    for (uint32_t size = 0; size <= 64; size++) {
        SCOPED_TRACE(size);
        Bytes storage(size + 32, 0xA5);
        snmp_buffer buf{storage.data() + 16, size, nullptr, 0};
        int rc = snmp_encode_message(&buf, &out.msg);
        const size_t used_end = 16 + (size > 8 ? size - 8 : 0);
        EXPECT_EQ(Bytes(storage.begin(), storage.begin() + 16), Bytes(16, 0xA5));
        EXPECT_EQ(Bytes(storage.begin() + used_end, storage.end()),
                  Bytes(storage.size() - used_end, 0xA5));
        if (rc != SNMP_CODEC_OK) {
            EXPECT_TRUE(rc == SNMP_CODEC_NO_ROOM || rc == SNMP_CODEC_BAD_ARGUMENT) << rc;
            EXPECT_EQ(smallest, 0u) << "a larger buffer failed";
            continue;
        }
        smallest = smallest != 0 ? smallest : size;
        EXPECT_EQ(Bytes(buf.data, buf.data + buf.len), expected);
    }
    EXPECT_GT(smallest, expected.size() + 8);

    Message in;
    ASSERT_EQ(in.decode(expected), SNMP_CODEC_OK);
    EXPECT_STREQ(in.community, "public");
    EXPECT_EQ(in.msg.community_len, 6u);
    EXPECT_EQ(in.msg.pdu_type, 0xA0);
    EXPECT_EQ(in.pdu->request_id, 1);
    ASSERT_EQ(in.pdu->varBind_count, 1u);
    EXPECT_EQ(varbinds_text(in.pdu->varBinds, 1), " [1.3.6.1.2.1.1.1.0=05:0]");
    for (size_t cut = 0; cut < expected.size(); cut++) {
        EXPECT_NE(in.decode(Bytes(expected.begin(), expected.begin() + long(cut))), 0) << cut;
    }
}

TEST(SnmpMessage, DecodeRefusals) {
    auto list = [](uint32_t n) {
        Bytes vbs;
        for (uint32_t i = 0; i < n; i++) {
            vbs = cat({vbs, hex("30 06 06 01 2B 02 01"), {uint8_t(i)}});
        }
        return tlv(0x30, vbs);
    };
    const Bytes get = tlv(0xA0, cat({kFields, list(1)}));
    auto msg = [&](const char* version, uint8_t tag, size_t n, const Bytes& pdu) {
        return tlv(0x30, cat({hex(version), tlv(tag, Bytes(n, 'c')), pdu}));
    };
    struct Row {
        const char* name;
        Bytes wire;
        int code;
        int32_t request_id;
        const char* community;
    };
    const Row rows[] = {
        {"not a SEQUENCE", hex("31 03 02 01 00"), SNMP_CODEC_MALFORMED, 0x7FFFFFFF, "?"},
        {"version not an INTEGER", msg("04 01 00", 0x04, 0, get), SNMP_CODEC_MALFORMED, 0x7FFFFFFF,
         "?"},
        {"community of 15 octets fits", msg("02 01 00", 0x04, 15, get), SNMP_CODEC_OK, 1,
         "ccccccccccccccc"},
        {"community of 16 octets does not", msg("02 01 00", 0x04, 16, get), SNMP_CODEC_NO_ROOM,
         0x7FFFFFFF, "?"},
        {"community with another tag", msg("02 01 00", 0x05, 3, get), SNMP_CODEC_MALFORMED,
         0x7FFFFFFF, ""},
        {"PDU of unknown type", msg("02 01 00", 0x04, 1, tlv(0xA5, kFields)), SNMP_CODEC_MALFORMED,
         0x7FFFFFFF, "c"},
        {"version 1 is stored, not refused", msg("02 01 01", 0x04, 1, get), SNMP_CODEC_OK, 1, "c"},
        {"one entry fewer than the storage",
         msg("02 01 00", 0x04, 1, tlv(0xA0, cat({kFields, list(3)}))), SNMP_CODEC_OK, 1, "c"},
        {"as many as the storage", msg("02 01 00", 0x04, 1, tlv(0xA0, cat({kFields, list(4)}))),
         SNMP_CODEC_TOO_MANY, 1, "c"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Message in;
        EXPECT_EQ(in.decode(row.wire), row.code);
        EXPECT_EQ(in.pdu->request_id, row.request_id);
        EXPECT_STREQ(in.community, row.community);
        const bool untouched = std::string_view(row.community) == "?";
        EXPECT_EQ(in.msg.community_len, untouched ? 0 : std::strlen(row.community));
    }
}

}  // namespace
