// SNMPv1 PDUs and messages: every value tag decoded and encoded again, the varBind limit,
// container recycling, encoder refusals, the trap rules, and the message wrapper with its
// community buffer and the 8 bytes it never uses.
#include "snmp_ed.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "snmp_asn1.h"
#include "snmp_container.h"

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

// `n` VarBinds 1.3.6.1 = INTEGER i.
Bytes varbind_list(uint32_t n) {
    Bytes list;
    for (uint32_t i = 0; i < n; i++) {
        list = cat({list, tlv(0x30, cat({hex("06 03 2B 06 01 02 01"), {uint8_t(i)}}))});
    }
    return tlv(0x30, list);
}

struct PduFree {
    void operator()(snmp_pdu* p) const {
        snmp_free_pdu(p, 8);
    }
    void operator()(snmp_trap_pdu* p) const {
        snmp_free_trap_pdu(p, 8);
    }
};
using OwnedPdu = std::unique_ptr<snmp_pdu, PduFree>;
using OwnedTrap = std::unique_ptr<snmp_trap_pdu, PduFree>;

// Fields of `pdu` or `trap` with their header (A2 or A4) from a 4096-byte area.
int encode_fields(snmp_pdu* pdu, snmp_trap_pdu* trap, Bytes* out) {
    static uint8_t area[4096];
    uint8_t* end = area + sizeof area;
    uint8_t* p = end;
    uint32_t room = sizeof area;
    int rc = pdu != nullptr ? encode_pdu(&p, &room, pdu) : encode_trap_pdu(&p, &room, trap);
    if (rc == SNMP_CODEC_OK) {
        p = asn_encode_header_reverse(p, &room, pdu != nullptr ? 0xA2 : 0xA4, uint32_t(end - p));
        out->assign(p, end);
    }
    return rc;
}

// Opens the PDU header of `wire` and decodes the rest into `pdu`.
int decode_fields(const Bytes& wire, snmp_pdu* pdu, uint32_t limit) {
    uint32_t remaining = static_cast<uint32_t>(wire.size());
    uint8_t tag = 0;
    const uint8_t* p = asn_decode_header(wire.data(), &remaining, &tag);
    return p == nullptr ? SNMP_CODEC_MALFORMED : decode_pdu(pdu, limit, p, remaining);
}

std::string render(const snmp_container* c) {
    std::string out;
    char two[4];
    switch (c->native) {
        case SNMP_NATIVE_OCTETS:
        case SNMP_NATIVE_U32:
            if (c->native == SNMP_NATIVE_U32 && c->tag != 0x40) {
                return "U32 " + std::to_string(c->value.u32);
            }
            out = c->tag == 0x40 ? "IP" : "OCT";
            for (uint32_t i = 0; i < (c->tag == 0x40 ? 4 : c->length); i++) {
                std::snprintf(two, sizeof two, "%02X", snmp_container_const_octets(c)[i]);
                out += std::string(" ") + two;
            }
            return out;
        case SNMP_NATIVE_S32:
            return "S32 " + std::to_string(c->value.s32);
        case SNMP_NATIVE_OID:
            out = "OID ";
            for (uint32_t i = 0; i < c->length; i++) {
                out += (i ? "." : "") + std::to_string(snmp_container_const_subids(c)[i]);
            }
            return out;
        case SNMP_NATIVE_NULL:
            return "NULL " + std::to_string(c->value.u32);
        default:
            return "kind " + std::to_string(c->native);
    }
}

// Every value tag the decoder takes, and the ones it refuses, inside a GetResponse.
TEST(SnmpPdu, ValueTags) {
    struct Row {
        const char* name;
        const char* value;
        int code;
        const char* stored;
        bool canonical;  // encoded again to the same bytes
    };
    const Row rows[] = {
        {"INTEGER 42", "02 01 2A", 0, "S32 42", true},
        {"INTEGER -129", "02 02 FF 7F", 0, "S32 -129", true},
        {"INTEGER 2^31-1", "02 04 7F FF FF FF", 0, "S32 2147483647", true},
        {"INTEGER -2^31", "02 04 80 00 00 00", 0, "S32 -2147483648", true},
        {"OCTET STRING", "04 03 61 62 63", 0, "OCT 61 62 63", true},
        {"empty OCTET STRING", "04 00", 0, "OCT", true},
        {"Opaque keeps its tag", "44 02 01 02", 0, "OCT 01 02", true},
        {"NULL", "05 00", 0, "NULL 0", true},
        {"OBJECT IDENTIFIER", "06 03 2B 06 01", 0, "OID 1.3.6.1", true},
        {"IpAddress", "40 04 0A 00 00 01", 0, "IP 0A 00 00 01", true},
        {"Counter 2^32-1", "41 05 00 FF FF FF FF", 0, "U32 4294967295", true},
        {"Gauge 7", "42 01 07", 0, "U32 7", true},
        {"TimeTicks 128", "43 02 00 80", 0, "U32 128", true},
        {"TimeTicks in four octets", "43 04 FF FF FF FF", 0, "U32 4294967295", false},
        {"Counter64", "46 01 01", SNMP_CODEC_MALFORMED, "", false},
        {"noSuchObject", "80 00", SNMP_CODEC_MALFORMED, "", false},
        {"noSuchInstance", "81 00", SNMP_CODEC_MALFORMED, "", false},
        {"endOfMibView", "82 00", SNMP_CODEC_MALFORMED, "", false},
        {"BIT STRING", "03 01 00", SNMP_CODEC_MALFORMED, "", false},
        {"IpAddress of five octets", "40 05 01 02 03 04 05", SNMP_CODEC_MALFORMED, "", false},
        {"NULL with contents", "05 01 00", SNMP_CODEC_MALFORMED, "", false},
        {"OID cut inside a sub-identifier", "06 02 2B 86", SNMP_CODEC_MALFORMED, "", false},
        {"value longer than its VarBind", "02 02 00", SNMP_CODEC_MALFORMED, "", false},
        {"no value", "", SNMP_CODEC_MALFORMED, "", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Bytes vb = tlv(0x30, cat({hex("06 03 2B 06 01"), hex(row.value)}));
        Bytes wire = tlv(0xA2, cat({kFields, tlv(0x30, vb)}));
        OwnedPdu pdu(snmp_create_pdu(8));
        ASSERT_EQ(decode_fields(wire, pdu.get(), 0), row.code);
        if (row.code != SNMP_CODEC_OK) {
            continue;
        }
        ASSERT_EQ(pdu->varBind_count, 1u);
        EXPECT_EQ(render(pdu->varBinds[0].name), "OID 1.3.6.1");
        EXPECT_EQ(render(pdu->varBinds[0].value), row.stored);
        EXPECT_EQ(pdu->varBinds[0].value->tag, hex(row.value)[0]);
        EXPECT_EQ(pdu->varBinds[0].value->hint, 0);
        Bytes again;
        ASSERT_EQ(encode_fields(pdu.get(), nullptr, &again), SNMP_CODEC_OK);
        if (row.canonical) {
            EXPECT_EQ(again, wire);
        }
    }
}

// Decoding into the same record again keeps its containers, resizes them only when needed
// and changes a value's kind in place; ASan reports any block lost on the way.
TEST(SnmpPdu, RecyclesContainers) {
    OwnedPdu pdu(snmp_create_pdu(8));
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
    snmp_container* name = nullptr;
    for (const Bytes& value : steps) {
        SCOPED_TRACE(value.size());
        Bytes wire = tlv(0xA2, cat({kFields, tlv(0x30, tlv(0x30, cat({hex("06 01 2B"), value})))}));
        ASSERT_EQ(decode_fields(wire, pdu.get(), 0), SNMP_CODEC_OK);
        name = name != nullptr ? name : pdu->varBinds[0].name;
        EXPECT_EQ(pdu->varBinds[0].name, name);  // same OID length: the same block
        Bytes again;
        ASSERT_EQ(encode_fields(pdu.get(), nullptr, &again), SNMP_CODEC_OK);
        EXPECT_EQ(again, wire);
    }
}

snmp_container* oid(const char* text) {
    return snmp_create_oid_container(text);
}

snmp_container* value(uint8_t tag, const void* bytes = nullptr, uint32_t len = 0) {
    return snmp_create_value_container(bytes, len, tag, 0);
}

TEST(SnmpPdu, EncodeRefusals) {
    const int32_t one = 1;
    const uint8_t eight[8] = {0, 0, 0, 1, 0, 0, 0, 2};
    snmp_container* bad_arcs = oid("1.3.6.1");
    snmp_container_subids(bad_arcs)[0] = 7;
    struct Row {
        const char* name;
        snmp_container* vb_name;
        snmp_container* vb_value;
        int code;
    };
    const Row rows[] = {
        {"no value", oid("1.3.6.1"), nullptr, SNMP_CODEC_INCOMPLETE},
        {"no name", nullptr, value(0x05), SNMP_CODEC_INCOMPLETE},
        {"name not an OID", value(0x02, &one, 4), value(0x05), SNMP_CODEC_BAD_ARGUMENT},
        {"Counter64 in a response", oid("1.3.6.1"), value(0x46, eight, 8), SNMP_CODEC_BAD_ARGUMENT},
        {"bad first arcs", bad_arcs, value(0x05), SNMP_CODEC_BAD_OID},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        OwnedPdu pdu(snmp_create_pdu(8));
        pdu->varBind_count = 2;
        pdu->varBinds[0] = {oid("1.3.6.1.2.1.1.1.0"), value(0x05)};
        pdu->varBinds[1] = {row.vb_name, row.vb_value};
        Bytes out;
        EXPECT_EQ(encode_fields(pdu.get(), nullptr, &out), row.code);
    }
}

// The trap example; a Counter64 value is left out of a trap; room is checked up front.
TEST(SnmpTrap, EncodeDecode) {
    OwnedTrap trap(snmp_create_trap_pdu(8));
    trap->enterprise = oid("1.3.6.1.4.1.99999");
    trap->generic_trap = 6;
    trap->specific_trap = 17;
    const uint8_t eight[8] = {0, 0, 0, 1, 0, 0, 0, 2};
    trap->varBinds[0] = {oid("1.3.6.1.2.1.1.3.0"), value(0x46, eight, 8)};
    trap->varBind_count = 1;
    Bytes out;
    ASSERT_EQ(encode_fields(nullptr, trap.get(), &out), SNMP_CODEC_OK);
    EXPECT_EQ(out, hex("A4 1B 06 08 2B 06 01 04 01 86 8D 1F 40 04 00 00 00 00 02 01 06 02 01 11 "
                       "43 01 00 30 00"));

    std::memcpy(trap->agent_addr, "\xC0\xA8\x01\x02", 4);
    trap->time_stamp = 0xFFFFFFFFu;
    trap->specific_trap = -1;
    const uint32_t ticks = 12345;
    trap->varBinds[1] = {oid("1.3.6.1.2.1.2.2.1.1.3"), value(0x43, &ticks, 4)};
    trap->varBind_count = 2;
    ASSERT_EQ(encode_fields(nullptr, trap.get(), &out), SNMP_CODEC_OK);
    OwnedTrap back(snmp_create_trap_pdu(8));
    uint32_t remaining = static_cast<uint32_t>(out.size());
    uint8_t tag = 0;
    const uint8_t* p = asn_decode_header(out.data(), &remaining, &tag);
    ASSERT_EQ(decode_trap_pdu(back.get(), 2, p, remaining), SNMP_CODEC_OK);
    EXPECT_EQ(render(back->enterprise), "OID 1.3.6.1.4.1.99999");
    EXPECT_EQ(Bytes(back->agent_addr, back->agent_addr + 4), hex("C0 A8 01 02"));
    EXPECT_EQ(back->generic_trap, 6);
    EXPECT_EQ(back->specific_trap, -1);
    EXPECT_EQ(back->time_stamp, 0xFFFFFFFFu);
    ASSERT_EQ(back->varBind_count, 1u);  // the Counter64 was not sent
    EXPECT_EQ(render(back->varBinds[0].value), "U32 12345");

    // Every cut fails except the one before the varBind list, where a trap may end.
    int accepted = 0;
    for (uint32_t cut = 0; cut < remaining; cut++) {
        accepted += decode_trap_pdu(back.get(), 2, p, cut) == SNMP_CODEC_OK;
    }
    EXPECT_EQ(accepted, 1);

    // 5 bytes per enterprise sub-identifier + 27 must be free before anything is written.
    trap->varBind_count = 0;
    Bytes area(100, 0xA5);
    uint32_t room = 5 * 7 + 26;
    uint8_t* q = area.data() + area.size();
    EXPECT_EQ(encode_trap_pdu(&q, &room, trap.get()), SNMP_CODEC_NO_ROOM);
    EXPECT_EQ(area, Bytes(100, 0xA5));
    room = 5 * 7 + 27;
    EXPECT_EQ(encode_trap_pdu(&q, &room, trap.get()), SNMP_CODEC_OK);
    snmp_free_container(trap->enterprise);
    trap->enterprise = nullptr;
    EXPECT_EQ(encode_trap_pdu(&q, &room, trap.get()), SNMP_CODEC_BAD_ARGUMENT);
}

// ---- the message wrapper ----

struct Message {
    OwnedPdu pdu{snmp_create_pdu(8)};
    OwnedTrap trap{snmp_create_trap_pdu(8)};
    char community[16] = "?";
    snmp_message msg{};
    Message() {
        msg.community = community;
        msg.community_size = sizeof community;
        msg.snmp = pdu.get();
        msg.snmp_size = snmp_pdu_size(4);  // a limit of 2: up to 3 varBinds
        msg.trap = trap.get();
        msg.trap_size = snmp_trap_pdu_size(4);
    }
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
    EXPECT_EQ(render(in.pdu->varBinds[0].name), "OID 1.3.6.1.2.1.1.1.0");
    for (size_t cut = 0; cut < expected.size(); cut++) {
        EXPECT_NE(in.decode(Bytes(expected.begin(), expected.begin() + long(cut))), 0) << cut;
    }
}

TEST(SnmpMessage, DecodeRefusals) {
    const Bytes get = tlv(0xA0, cat({kFields, varbind_list(1)}));
    const Bytes head = hex("02 01 00 04 01 70");  // version 0, community "p"
    struct Row {
        const char* name;
        Bytes wire;
        int code;
        int32_t request_id;
        const char* community;
    };
    const Row rows[] = {
        {"not a SEQUENCE", hex("31 03 02 01 00"), SNMP_CODEC_MALFORMED, 0x7FFFFFFF, "?"},
        {"version not an INTEGER", tlv(0x30, cat({hex("04 01 00 04 00"), get})),
         SNMP_CODEC_MALFORMED, 0x7FFFFFFF, "?"},
        {"community of 15 octets fits",
         tlv(0x30, cat({hex("02 01 00"), tlv(0x04, Bytes(15, 'c')), get})), SNMP_CODEC_OK, 1,
         "ccccccccccccccc"},
        {"community of 16 octets does not",
         tlv(0x30, cat({hex("02 01 00"), tlv(0x04, Bytes(16, 'c')), get})), SNMP_CODEC_NO_ROOM,
         0x7FFFFFFF, "?"},
        {"community with another tag",
         tlv(0x30, cat({hex("02 01 00"), tlv(0x05, Bytes(3, 'c')), get})), SNMP_CODEC_MALFORMED,
         0x7FFFFFFF, ""},
        {"PDU of unknown type", tlv(0x30, cat({head, tlv(0xA5, kFields)})), SNMP_CODEC_MALFORMED,
         0x7FFFFFFF, "p"},
        {"version 1 is stored, not refused", tlv(0x30, cat({hex("02 01 01 04 01 70"), get})),
         SNMP_CODEC_OK, 1, "p"},
        {"one entry fewer than the storage",
         tlv(0x30, cat({head, tlv(0xA0, cat({kFields, varbind_list(3)}))})), SNMP_CODEC_OK, 1, "p"},
        {"as many as the storage",
         tlv(0x30, cat({head, tlv(0xA0, cat({kFields, varbind_list(4)}))})), SNMP_CODEC_TOO_MANY, 1,
         "p"},
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
