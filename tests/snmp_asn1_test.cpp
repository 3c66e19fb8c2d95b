// BER primitives: hex vectors decoded, encoded again and cut short, length edges, and
// encoders that must stay inside the room they were given.
#include "snmp_asn1.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "snmp_container.h"
#include "vx_peers.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes hex(const std::string& text) {  // "02 01 7F"
    return vx_hex(text.c_str());
}

std::string to_hex(const uint8_t* p, size_t n) {
    std::string out;
    char two[4];
    for (size_t i = 0; i < n; i++) {
        std::snprintf(two, sizeof two, i == 0 ? "%02X" : " %02X", p[i]);
        out += two;
    }
    return out;
}

// An output area of `room` bytes behind 16 guard bytes that no encoder may touch.
struct Area {
    Bytes buf;
    uint32_t room;
    explicit Area(uint32_t r) : buf(16 + r, 0xA5), room(r) {}
    uint8_t* end() {
        return buf.data() + buf.size();
    }
    std::string from(const uint8_t* p) const {
        return to_hex(p, buf.data() + buf.size() - p);
    }
    bool guard_intact() const {
        return Bytes(buf.begin(), buf.begin() + 16) == Bytes(16, 0xA5);
    }
};

struct ContainerFree {
    void operator()(snmp_container* c) const {
        snmp_free_container(c);
    }
};
using Owned = std::unique_ptr<snmp_container, ContainerFree>;

Owned value(uint8_t tag, const void* bytes, uint32_t len) {
    return Owned(snmp_create_value_container(bytes, len, tag, 0));
}

// Encodes `c` into a roomy area, then into every area one byte too small or smaller: those
// fail with a code and leave everything in front of the room alone.
std::string encode_tightly(snmp_container* c) {
    Area area(200);
    uint8_t* p = area.end();
    const int rc = asn_encode_primitive_reverse(&p, &area.room, c);
    if (rc != SNMP_CODEC_OK) {
        EXPECT_EQ(p, area.end());
        return "code " + std::to_string(rc);
    }
    const auto size = static_cast<uint32_t>(area.end() - p);
    EXPECT_EQ(area.room, 200 - size);
    for (uint32_t room = 0; room < size; room++) {
        Area small(room);
        uint8_t* q = small.end();
        EXPECT_EQ(asn_encode_primitive_reverse(&q, &small.room, c), SNMP_CODEC_NO_ROOM) << room;
        EXPECT_EQ(q, small.end());
        EXPECT_TRUE(small.guard_intact()) << "room " << room;
    }
    return area.from(p);
}

enum Kind { INT, UINT, STR, NUL, OID, HDR };

// Decodes one element of `kind`, renders what it found into `out` and puts it into a
// container of the element's tag for encoding again; null on failure.
const uint8_t* decode(Kind kind, const uint8_t* p, uint32_t* remaining, std::string* out,
                      Owned* c = nullptr) {
    const uint32_t before = *remaining;
    uint8_t tag = 0, octets[8];
    int32_t s = 0;
    uint32_t u = 0, size = sizeof octets, subids[8], count = 8;
    const uint8_t* q = nullptr;
    Owned held;
    out->clear();
    switch (kind) {
        case INT:
            q = asn_decode_int(p, remaining, &tag, &s);
            *out = std::to_string(s);
            held = value(tag, &s, 4);
            break;
        case UINT:
            q = asn_decode_u_int(p, remaining, &tag, &u);
            *out = std::to_string(u);
            held = value(tag, &u, 4);
            break;
        case STR:
            q = asn_decode_string(p, remaining, &tag, octets, &size);
            *out = to_hex(octets, q != nullptr ? size : 0);
            held = value(tag, octets, size);
            break;
        case NUL:
            q = asn_decode_NULL(p, remaining, &tag);
            held = value(tag, nullptr, 0);
            break;
        case OID:
            q = asn_decode_oid(p, remaining, &tag, subids, &count);
            for (uint32_t i = 0; q != nullptr && i < count; i++) {
                *out += (i == 0 ? "" : ".") + std::to_string(subids[i]);
            }
            held = value(tag, out->c_str(), 0);  // "" gives the OID 0, also written 06 00
            break;
        case HDR:
            q = asn_decode_header(p, remaining, &tag);
            *out = std::to_string(*remaining);
            break;
    }
    if (before > 0) {
        EXPECT_EQ(tag, p[0]);  // set even when the element is refused
    }
    if (c != nullptr) {
        *c = std::move(held);
    }
    return q;
}

TEST(Asn1, DecodeVectors) {
    struct Row {
        const char* name;
        Kind kind;
        const char* hex;
        bool ok;
        const char* value;
        bool canonical;  // the encoder gives these bytes back
    };
    const Row rows[] = {
        {"INTEGER 0", INT, "02 01 00", true, "0", true},
        {"INTEGER 127", INT, "02 01 7F", true, "127", true},
        {"INTEGER 128", INT, "02 02 00 80", true, "128", true},
        {"INTEGER -1", INT, "02 01 FF", true, "-1", true},
        {"INTEGER -128", INT, "02 01 80", true, "-128", true},
        {"INTEGER -129", INT, "02 02 FF 7F", true, "-129", true},
        {"INTEGER 32768", INT, "02 03 00 80 00", true, "32768", true},
        {"INTEGER -8388609", INT, "02 04 FF 7F FF FF", true, "-8388609", true},
        {"INTEGER 2^31-1", INT, "02 04 7F FF FF FF", true, "2147483647", true},
        {"INTEGER -2^31", INT, "02 04 80 00 00 00", true, "-2147483648", true},
        {"INTEGER of 5 octets keeps the last 4", INT, "02 05 00 FF FF FF FF", true, "-1", false},
        {"INTEGER empty is 0", INT, "02 00", true, "0", false},
        {"INTEGER long-form length", INT, "02 81 01 05", true, "5", false},
        {"INTEGER padded length", INT, "02 84 00 00 00 01 05", true, "5", false},
        {"INTEGER indefinite", INT, "02 80 05 00 00", false, "", false},
        {"unsigned 0", UINT, "41 01 00", true, "0", true},
        {"unsigned 0x80", UINT, "41 02 00 80", true, "128", true},
        {"unsigned 2^31-1", UINT, "42 04 7F FF FF FF", true, "2147483647", true},
        {"unsigned 2^31", UINT, "43 05 00 80 00 00 00", true, "2147483648", true},
        {"unsigned 2^32-1", UINT, "43 05 00 FF FF FF FF", true, "4294967295", true},
        {"unsigned in 4 octets", UINT, "43 04 FF FF FF FF", true, "4294967295", false},
        {"string empty", STR, "04 00", true, "", true},
        {"string abc", STR, "04 03 61 62 63", true, "61 62 63", true},
        {"Opaque", STR, "44 02 01 02", true, "01 02", true},
        {"IpAddress", STR, "40 04 7F 00 00 01", true, "7F 00 00 01", true},
        {"string long-form length", STR, "04 81 02 61 62", true, "61 62", false},
        {"string longer than the destination", STR, "04 09 01 02 03 04 05 06 07 08 09", false, "",
         false},
        {"NULL", NUL, "05 00", true, "", true},
        {"noSuchObject", NUL, "80 00", true, "", true},
        {"noSuchInstance", NUL, "81 00", true, "", true},
        {"endOfMibView", NUL, "82 00", true, "", true},
        {"NULL with contents", NUL, "05 01 00", false, "", false},
        {"NULL padded length", NUL, "05 81 00", false, "", false},
        {"OID 1.3.6.1", OID, "06 03 2B 06 01", true, "1.3.6.1", true},
        {"OID empty", OID, "06 00", true, "", true},
        {"OID 7F is 2.47", OID, "06 01 7F", true, "2.47", true},
        {"OID 78 is 2.40", OID, "06 01 78", true, "2.40", true},
        {"OID 27 is 0.39", OID, "06 01 27", true, "0.39", true},
        {"OID 28 is 1.0", OID, "06 01 28", true, "1.0", true},
        {"OID sub-identifier 128", OID, "06 03 2B 81 00", true, "1.3.128", true},
        {"OID 2.100.3", OID, "06 03 81 34 03", true, "2.100.3", true},
        {"OID 2^32-1", OID, "06 06 2B 8F FF FF FF 7F", true, "1.3.4294967295", true},
        {"OID enterprise", OID, "06 08 2B 06 01 04 01 86 8D 1F", true, "1.3.6.1.4.1.99999", true},
        {"OID past 32 bits keeps the low bits", OID, "06 07 2B 9F FF FF FF FF 7F", true,
         "1.3.4294967295", false},
        {"OID more than the array holds", OID, "06 08 2B 01 02 03 04 05 06 07", false, "", false},
        {"OID last sub-identifier cut", OID, "06 02 2B 86", false, "", false},
        {"OID indefinite", OID, "06 80 2B 00 00", false, "", false},
        {"header", HDR, "30 03 02 01 05", true, "3", false},
        {"header as the agent writes it", HDR, "A0 82 00 03 02 01 05", true, "3", false},
        {"header high tag number", HDR, "1F 01 00", false, "", false},
        {"header high tag with class bits", HDR, "BF 01 00", false, "", false},
        {"header indefinite", HDR, "30 80 02 01 05 00 00", false, "", false},
        {"header past the input", HDR, "30 05 02 01 05", false, "", false},
        {"header huge length", HDR, "30 84 FF FF FF FF 00", false, "", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Bytes in = hex(row.hex);
        auto n = static_cast<uint32_t>(in.size());
        uint32_t remaining = n;
        std::string rendered;
        Owned c;
        const uint8_t* p = decode(row.kind, in.data(), &remaining, &rendered, &c);
        if (!row.ok) {
            EXPECT_EQ(p, nullptr);
            continue;
        }
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(rendered, row.value);
        EXPECT_EQ(p + (row.kind == HDR ? remaining : 0), in.data() + n);
        EXPECT_EQ(remaining, row.kind == HDR ? remaining : 0u);
        for (uint32_t cut = 0; cut < n; cut++) {
            uint32_t left = cut;
            EXPECT_EQ(decode(row.kind, in.data(), &left, &rendered), nullptr) << "cut " << cut;
        }
        if (row.canonical) {
            ASSERT_NE(c, nullptr);
            EXPECT_EQ(encode_tightly(c.get()), row.hex);
        }
    }
}

TEST(Asn1, Lengths) {
    const char* const rows[] = {"00",       "7F",          "81 80",          "81 FF",
                                "82 01 00", "83 01 00 00", "84 01 00 00 00", "84 FF FF FF FF"};
    const uint32_t lengths[] = {0, 127, 128, 255, 256, 65536, 16777216, 0xFFFFFFFFu};
    for (size_t i = 0; i < std::size(rows); i++) {
        SCOPED_TRACE(rows[i]);
        Area area(5);
        uint8_t* p = asn_encode_len_reverse(area.end(), &area.room, lengths[i]);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(area.from(p), rows[i]);
        Bytes in = hex(rows[i]);
        EXPECT_EQ(area.room, 5 - in.size());
        uint32_t octets = 0, len = 1;
        EXPECT_EQ(asn_readlen(in.data(), &octets), lengths[i]);
        EXPECT_EQ(octets, in.size());
        EXPECT_EQ(asn_decode_length(in.data(), &len), in.data() + in.size());
        EXPECT_EQ(len, lengths[i]);
        Area four(4);  // the writer wants five free bytes, whatever the length
        EXPECT_EQ(asn_encode_len_reverse(four.end(), &four.room, lengths[i]), nullptr);
    }
    const uint8_t indefinite = 0x80;
    uint32_t octets = 99;
    EXPECT_EQ(asn_readlen(&indefinite, &octets), 0xFFFFFFFFu);
    EXPECT_EQ(octets, 99u);
    EXPECT_EQ(asn_readlen(hex("85 01 00 00 00 2A").data(), &octets), 42u);  // low 32 bits

    uint32_t remaining = 8, len = 0;
    uint8_t tag = 0;
    const Bytes seq = hex("30 82 00 02 05 00 41 00");
    EXPECT_EQ(asn_decode_sub_header(seq.data(), &remaining, &len, &tag), seq.data() + 4);
    EXPECT_EQ(len, 2u);
    EXPECT_EQ(remaining, 4u);  // only the header is taken
}

// A child longer than what is left of its parent fails although its bytes exist further on,
// and a string too long for its destination copies nothing.
TEST(Asn1, ChildLongerThanParent) {
    const Bytes in = hex("30 03 02 05 01 02 03 04 05");
    for (Kind kind : {INT, UINT, STR, OID, NUL}) {
        uint32_t remaining = static_cast<uint32_t>(in.size());
        uint8_t tag = 0;
        const uint8_t* p = asn_decode_header(in.data(), &remaining, &tag);
        ASSERT_NE(p, nullptr);
        std::string rendered;
        EXPECT_EQ(decode(kind, p, &remaining, &rendered), nullptr) << kind;
    }
    const Bytes abc = hex("04 03 61 62 63");
    uint8_t dst[2] = {0xEE, 0xEE};
    uint32_t size = sizeof dst, remaining = 5;
    uint8_t tag = 0;
    EXPECT_EQ(asn_decode_string(abc.data(), &remaining, &tag, dst, &size), nullptr);
    EXPECT_EQ(Bytes(dst, dst + 2), Bytes(2, 0xEE));
    EXPECT_EQ(size, 2u);
}

// Containers whose encoding cannot come from decoding: quirks and refusals.
TEST(Asn1, PrimitiveEncodings) {
    const uint32_t high = 0x80000000u;
    Owned held_unsigned = value(0x41, &high, 4);
    held_unsigned->tag = 0x02;
    Owned constructed = value(0x05, nullptr, 0), bit_string = value(0x04, "a", 1);
    constructed->tag = 0x30;
    bit_string->tag = 0x03;
    Owned too_long = value(0x04, "a", 1);
    too_long->length = 100;
    Owned bad_arcs[] = {value(0x06, "1.3", 0), value(0x06, "1.3", 0), value(0x06, "0.3.1", 0)};
    snmp_container_subids(bad_arcs[0].get())[0] = 3;   // 3.3
    snmp_container_subids(bad_arcs[1].get())[1] = 40;  // 1.40
    snmp_container_subids(bad_arcs[2].get())[1] = 40;  // 0.40.1
    std::string big_text = "1.3";
    for (int i = 0; i < 30; i++) {
        big_text += ".4294967295";
    }
    Owned big = value(0x06, big_text.c_str(), 0);
    Owned ip = value(0x40, "\x0A\x01\x02\x03", 4);
    ip->length = 1;
    Owned one_arc = value(0x06, "1", 0), c64 = value(0x46, "\0\0\0\1\0\0\0\2", 8);
    struct Row {
        const char* name;
        snmp_container* c;
        std::string expected;
    } rows[] = {
        {"INTEGER held unsigned", held_unsigned.get(), "02 05 00 80 00 00 00"},
        {"IpAddress writes 4 octets", ip.get(), "40 04 0A 01 02 03"},
        {"OID of one arc", one_arc.get(), "06 00"},
        {"OID 3.3", bad_arcs[0].get(), "code -9"},
        {"OID 1.40", bad_arcs[1].get(), "code -9"},
        {"OID 0.40.1", bad_arcs[2].get(), "code -9"},
        {"Counter64", c64.get(), "code -13"},
        {"constructed", constructed.get(), "code -13"},
        {"BIT STRING", bit_string.get(), "code -13"},
        {"length beyond the block", too_long.get(), "code -13"},
        {"null", nullptr, "code -13"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(encode_tightly(row.c), row.expected);
    }
    EXPECT_EQ(ip->length, 4u);
    uint32_t room = 8;
    EXPECT_EQ(asn_encode_primitive_reverse(nullptr, &room, ip.get()), SNMP_CODEC_BAD_ARGUMENT);
    // A long OID takes a long-form length: 1 + 30 * 5 content octets.
    EXPECT_EQ(encode_tightly(big.get()).substr(0, 8), "06 81 97");
}

// Through the container encoder an octet string of length L needs L + 6 bytes of room:
// L + 3 or less is too little, L + 4 and L + 5 fail on the length writer's rule.
TEST(Asn1, StringRoomSteps) {
    Owned c = value(0x04, "aaaaaaaaaa", 10);
    const int codes[] = {SNMP_CODEC_NO_ROOM, SNMP_CODEC_BAD_ARGUMENT, SNMP_CODEC_BAD_ARGUMENT, 0};
    for (uint32_t extra = 3; extra <= 6; extra++) {
        SCOPED_TRACE(extra);
        Area area(10 + extra);
        uint8_t* p = area.end();
        EXPECT_EQ(asn_encode_primitive_reverse(&p, &area.room, c.get()), codes[extra - 3]);
        EXPECT_TRUE(area.guard_intact());
    }
    Area five(5), four(4), high(8);
    uint8_t* p = asn_encode_string_reverse(five.end(), &five.room, 0x04, nullptr, 0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(five.from(p), "04 00");
    EXPECT_EQ(asn_encode_string_reverse(four.end(), &four.room, 0x04, nullptr, 0), nullptr);
    EXPECT_EQ(asn_encode_header_reverse(high.end(), &high.room, 0x1F, 0), nullptr);
}

}  // namespace
