// BER primitives: hex vectors decoded, encoded again and cut short, length and integer
// edges, and encoders that must stay inside the room they were given.
#include "snmp_asn1.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "snmp_container.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes hex(std::string_view text) {
    Bytes out;
    for (size_t i = 0; i + 1 < text.size(); i++) {
        if (text[i] != ' ') {
            out.push_back(
                static_cast<uint8_t>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16)));
            i++;
        }
    }
    return out;
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

Owned make(uint8_t tag, uint8_t native, uint32_t word, const Bytes& octets = {}) {
    auto n = static_cast<uint32_t>(native == SNMP_NATIVE_OCTETS ? octets.size() : 1);
    Owned c(snmp_create_container(native, n));
    c->tag = tag;
    c->length = n;
    c->value.u32 = word;
    if (native == SNMP_NATIVE_OCTETS && n > 0) {
        std::memcpy(snmp_container_octets(c.get()), octets.data(), n);
    }
    return c;
}

Owned make_oid(const std::vector<uint32_t>& subids) {
    auto n = static_cast<uint32_t>(subids.size());
    Owned c(snmp_create_container(SNMP_NATIVE_OID, n));
    c->tag = 0x06;
    c->length = n;
    if (n > 0) {
        std::memcpy(snmp_container_subids(c.get()), subids.data(), n * sizeof(uint32_t));
    }
    return c;
}

enum Kind { INT, UINT, STR, NUL, OID, HDR };

// Decodes one element of `kind` and renders what it found; null on failure.
const uint8_t* decode(Kind kind, const uint8_t* p, uint32_t* remaining, std::string* out) {
    const uint32_t before = *remaining;
    uint8_t tag = 0;
    int32_t s = 0;
    uint32_t u = 0;
    uint8_t dst[8];
    uint32_t size = sizeof dst;
    uint32_t subids[8];
    uint32_t count = 8;
    const uint8_t* q = nullptr;
    switch (kind) {
        case INT:
            q = asn_decode_int(p, remaining, &tag, &s);
            *out = std::to_string(s);
            break;
        case UINT:
            q = asn_decode_u_int(p, remaining, &tag, &u);
            *out = std::to_string(u);
            break;
        case STR:
            q = asn_decode_string(p, remaining, &tag, dst, &size);
            *out = to_hex(dst, q != nullptr ? size : 0);
            break;
        case NUL:
            q = asn_decode_NULL(p, remaining, &tag);
            break;
        case OID:
            q = asn_decode_oid(p, remaining, &tag, subids, &count);
            out->clear();
            for (uint32_t i = 0; q != nullptr && i < count; i++) {
                *out += (i == 0 ? "" : ".") + std::to_string(subids[i]);
            }
            break;
        case HDR:
            q = asn_decode_header(p, remaining, &tag);
            *out = std::to_string(*remaining);
            break;
    }
    if (before > 0) {
        EXPECT_EQ(tag, p[0]);  // set even when the element is refused
    }
    return q;
}

// Encodes what `decode` rendered back into BER; empty when this kind has no encoder here.
std::string encode(Kind kind, uint8_t tag, const std::string& value) {
    Area area(64);
    uint8_t* p = area.end();
    Owned c;
    switch (kind) {
        case INT:
            p = asn_encode_int_reverse(p, &area.room, tag, std::stoi(value));
            break;
        case UINT:
            c = make(tag, SNMP_NATIVE_U32, static_cast<uint32_t>(std::stoul(value)));
            EXPECT_EQ(asn_encode_primitive_reverse(&p, &area.room, c.get()), 0);
            break;
        case STR: {
            Bytes b = hex(value);
            p = asn_encode_string_reverse(p, &area.room, tag, b.data(),
                                          static_cast<uint32_t>(b.size()));
            break;
        }
        case NUL:
            c = make(tag, SNMP_NATIVE_NULL, 0);
            EXPECT_EQ(asn_encode_primitive_reverse(&p, &area.room, c.get()), 0);
            break;
        case OID: {
            std::vector<uint32_t> subids;
            for (size_t at = 0; at < value.size();) {
                size_t used = 0;
                subids.push_back(static_cast<uint32_t>(std::stoul(value.substr(at), &used)));
                at += used + 1;
            }
            c = make_oid(subids);
            EXPECT_EQ(asn_encode_primitive_reverse(&p, &area.room, c.get()), 0);
            break;
        }
        case HDR:
            return "";
    }
    return p != nullptr ? area.from(p) : "<fail>";
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
        {"INTEGER cut off", INT, "02 02 01", false, "", false},
        {"unsigned 0", UINT, "41 01 00", true, "0", true},
        {"unsigned 0x80", UINT, "41 02 00 80", true, "128", true},
        {"unsigned 2^31-1", UINT, "42 04 7F FF FF FF", true, "2147483647", true},
        {"unsigned 2^31", UINT, "43 05 00 80 00 00 00", true, "2147483648", true},
        {"unsigned 2^32-1", UINT, "43 05 00 FF FF FF FF", true, "4294967295", true},
        {"unsigned in 4 octets", UINT, "43 04 FF FF FF FF", true, "4294967295", false},
        {"string empty", STR, "04 00", true, "", true},
        {"string abc", STR, "04 03 61 62 63", true, "61 62 63", true},
        {"IpAddress", STR, "40 04 7F 00 00 01", true, "7F 00 00 01", true},
        {"string long-form length", STR, "04 81 02 61 62", true, "61 62", false},
        {"string longer than the destination", STR, "04 09 01 02 03 04 05 06 07 08 09", false, "",
         false},
        {"string cut off", STR, "04 05 61 62", false, "", false},
        {"NULL", NUL, "05 00", true, "", true},
        {"noSuchInstance", NUL, "81 00", true, "", true},
        {"NULL with contents", NUL, "05 01 00", false, "", false},
        {"NULL padded length", NUL, "05 81 00", false, "", false},
        {"OID 1.3.6.1", OID, "06 03 2B 06 01", true, "1.3.6.1", true},
        {"OID empty", OID, "06 00", true, "", true},
        {"OID 7F is 2.47", OID, "06 01 7F", true, "2.47", true},
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
        std::string value;
        const uint8_t* p = decode(row.kind, in.data(), &remaining, &value);
        if (!row.ok) {
            EXPECT_EQ(p, nullptr);
            continue;
        }
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(value, row.value);
        EXPECT_EQ(p + (row.kind == HDR ? remaining : 0), in.data() + n);
        EXPECT_EQ(remaining, row.kind == HDR ? remaining : 0u);
        for (uint32_t cut = 0; cut < n; cut++) {
            uint32_t left = cut;
            EXPECT_EQ(decode(row.kind, in.data(), &left, &value), nullptr) << "cut " << cut;
        }
        if (row.canonical) {
            EXPECT_EQ(encode(row.kind, in[0], row.value), to_hex(in.data(), n));
        }
    }
}

TEST(Asn1, Lengths) {
    struct Row {
        uint32_t len;
        const char* hex;
    };
    const Row rows[] = {{0, "00"},
                        {127, "7F"},
                        {128, "81 80"},
                        {255, "81 FF"},
                        {256, "82 01 00"},
                        {65536, "83 01 00 00"},
                        {16777216, "84 01 00 00 00"},
                        {0xFFFFFFFFu, "84 FF FF FF FF"}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.hex);
        Area area(5);
        uint8_t* p = asn_encode_len_reverse(area.end(), &area.room, row.len);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(area.from(p), row.hex);
        Bytes in = hex(row.hex);
        EXPECT_EQ(area.room, 5 - in.size());
        uint32_t octets = 0;
        uint32_t len = 1;
        EXPECT_EQ(asn_readlen(in.data(), &octets), row.len);
        EXPECT_EQ(octets, in.size());
        EXPECT_EQ(asn_decode_length(in.data(), &len), in.data() + in.size());
        EXPECT_EQ(len, row.len);
        Area four(4);  // the writer wants five free bytes, whatever the length
        EXPECT_EQ(asn_encode_len_reverse(four.end(), &four.room, row.len), nullptr);
    }
    const uint8_t indefinite = 0x80;
    uint32_t octets = 99;
    EXPECT_EQ(asn_readlen(&indefinite, &octets), 0xFFFFFFFFu);
    EXPECT_EQ(octets, 99u);
    const Bytes wide = hex("85 01 00 00 00 2A");  // low 32 bits kept
    EXPECT_EQ(asn_readlen(wide.data(), &octets), 42u);

    uint32_t remaining = 8;
    uint32_t len = 0;
    uint8_t tag = 0;
    const Bytes seq = hex("30 82 00 02 05 00 41 00");
    EXPECT_EQ(asn_decode_sub_header(seq.data(), &remaining, &len, &tag), seq.data() + 4);
    EXPECT_EQ(len, 2u);
    EXPECT_EQ(remaining, 4u);  // only the header is taken
}

// A child longer than what is left of its parent fails although its bytes exist further on.
TEST(Asn1, ChildLongerThanParent) {
    const Bytes in = hex("30 03 02 05 01 02 03 04 05");
    for (Kind kind : {INT, UINT, STR, OID, NUL}) {
        uint32_t remaining = static_cast<uint32_t>(in.size());
        uint8_t tag = 0;
        const uint8_t* p = asn_decode_header(in.data(), &remaining, &tag);
        ASSERT_NE(p, nullptr);
        std::string value;
        EXPECT_EQ(decode(kind, p, &remaining, &value), nullptr) << kind;
    }
    // A string longer than its destination copies nothing.
    const Bytes abc = hex("04 03 61 62 63");
    uint8_t dst[2] = {0xEE, 0xEE};
    uint32_t size = sizeof dst;
    uint32_t remaining = 5;
    uint8_t tag = 0;
    EXPECT_EQ(asn_decode_string(abc.data(), &remaining, &tag, dst, &size), nullptr);
    EXPECT_EQ(Bytes(dst, dst + 2), Bytes(2, 0xEE));
    EXPECT_EQ(size, 2u);
}

// Encodings of containers, and every room too small for them: a code, never a byte written
// in front of the room.
TEST(Asn1, PrimitiveEncodings) {
    struct Row {
        const char* name;
        Owned c;
        int code;
        const char* hex;
    };
    Owned ip = make(0x40, SNMP_NATIVE_U32, 0);
    std::memcpy(ip->value.octets, "\x0A\x01\x02\x03", 4);
    Owned too_long = make(0x04, SNMP_NATIVE_OCTETS, 0, hex("61"));
    too_long->length = 100;
    Row rows[] = {
        {"INTEGER -1", make(0x02, SNMP_NATIVE_S32, 0xFFFFFFFFu), 0, "02 01 FF"},
        {"INTEGER held unsigned", make(0x02, SNMP_NATIVE_U32, 0x80000000u), 0,
         "02 05 00 80 00 00 00"},
        {"Gauge 2^31-1", make(0x42, SNMP_NATIVE_U32, 0x7FFFFFFF), 0, "42 04 7F FF FF FF"},
        {"NULL", make(0x05, SNMP_NATIVE_NULL, 0), 0, "05 00"},
        {"noSuchObject", make(0x80, SNMP_NATIVE_NULL, 0), 0, "80 00"},
        {"endOfMibView", make(0x82, SNMP_NATIVE_NULL, 0), 0, "82 00"},
        {"IpAddress writes 4 octets", std::move(ip), 0, "40 04 0A 01 02 03"},
        {"Opaque", make(0x44, SNMP_NATIVE_OCTETS, 0, hex("01 02")), 0, "44 02 01 02"},
        {"OID 1.3.6.1", make_oid({1, 3, 6, 1}), 0, "06 03 2B 06 01"},
        {"OID 2.40", make_oid({2, 40}), 0, "06 01 78"},
        {"OID of one arc", make_oid({1}), 0, "06 00"},
        {"OID 3.1", make_oid({3, 1}), SNMP_CODEC_BAD_OID, ""},
        {"OID 1.40", make_oid({1, 40}), SNMP_CODEC_BAD_OID, ""},
        {"OID 0.40.1", make_oid({0, 40, 1}), SNMP_CODEC_BAD_OID, ""},
        {"Counter64", make(0x46, SNMP_NATIVE_U64, 1), SNMP_CODEC_BAD_ARGUMENT, ""},
        {"constructed", make(0x30, SNMP_NATIVE_NULL, 0), SNMP_CODEC_BAD_ARGUMENT, ""},
        {"BIT STRING", make(0x03, SNMP_NATIVE_OCTETS, 0, hex("00")), SNMP_CODEC_BAD_ARGUMENT, ""},
        {"length beyond the block", std::move(too_long), SNMP_CODEC_BAD_ARGUMENT, ""},
    };
    for (Row& row : rows) {
        SCOPED_TRACE(row.name);
        Area area(64);
        uint8_t* p = area.end();
        ASSERT_EQ(asn_encode_primitive_reverse(&p, &area.room, row.c.get()), row.code);
        if (row.code != SNMP_CODEC_OK) {
            EXPECT_EQ(p, area.end());
            continue;
        }
        EXPECT_EQ(area.from(p), row.hex);
        const size_t size = hex(row.hex).size();
        EXPECT_EQ(area.room, 64 - size);
        for (uint32_t room = 0; room < size; room++) {
            Area small(room);
            uint8_t* q = small.end();
            EXPECT_EQ(asn_encode_primitive_reverse(&q, &small.room, row.c.get()),
                      SNMP_CODEC_NO_ROOM);
            EXPECT_EQ(q, small.end());
            EXPECT_TRUE(small.guard_intact()) << "room " << room;
        }
    }
    EXPECT_EQ(rows[6].c->length, 4u);
    Area area(8);
    uint8_t* p = area.end();
    EXPECT_EQ(asn_encode_primitive_reverse(&p, &area.room, nullptr), SNMP_CODEC_BAD_ARGUMENT);
    EXPECT_EQ(asn_encode_primitive_reverse(nullptr, &area.room, rows[0].c.get()),
              SNMP_CODEC_BAD_ARGUMENT);

    // A long OID takes a long-form length and decodes back.
    std::vector<uint32_t> big{1, 3};
    big.insert(big.end(), 30, 0xFFFFFFFFu);
    Owned c = make_oid(big);
    Area wide(200);
    p = wide.end();
    ASSERT_EQ(asn_encode_primitive_reverse(&p, &wide.room, c.get()), 0);
    EXPECT_EQ(to_hex(p, 3), "06 81 97");  // 1 + 30 * 5 content octets
}

// Through the container encoder an octet string of length L needs L + 6 bytes of room:
// L + 3 or less is too little, L + 4 and L + 5 fail on the length writer's rule.
TEST(Asn1, StringRoomSteps) {
    const Bytes value(10, 0x61);
    Owned c = make(0x04, SNMP_NATIVE_OCTETS, 0, value);
    const int codes[] = {SNMP_CODEC_NO_ROOM, SNMP_CODEC_BAD_ARGUMENT, SNMP_CODEC_BAD_ARGUMENT, 0};
    for (uint32_t extra = 3; extra <= 6; extra++) {
        SCOPED_TRACE(extra);
        Area area(10 + extra);
        uint8_t* p = area.end();
        EXPECT_EQ(asn_encode_primitive_reverse(&p, &area.room, c.get()), codes[extra - 3]);
        EXPECT_TRUE(area.guard_intact());
    }
    Area five(5);
    uint8_t* p = asn_encode_string_reverse(five.end(), &five.room, 0x04, nullptr, 0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(five.from(p), "04 00");
    Area four(4);
    EXPECT_EQ(asn_encode_string_reverse(four.end(), &four.room, 0x04, nullptr, 0), nullptr);
    Area high(8);
    EXPECT_EQ(asn_encode_header_reverse(high.end(), &high.room, 0x1F, 0), nullptr);
}

}  // namespace
