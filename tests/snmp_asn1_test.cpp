// BER primitives: hex vectors decoded and encoded again, every truncation of a valid
// element, length and integer edges, and encoders that must stay inside their room.
#include "snmp_asn1.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "snmp_container.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes hex(std::string_view text)
{
    Bytes out;
    int hi = -1;
    for (char ch : text) {
        int v = -1;
        if (ch >= '0' && ch <= '9') {
            v = ch - '0';
        } else if (ch >= 'a' && ch <= 'f') {
            v = ch - 'a' + 10;
        } else if (ch >= 'A' && ch <= 'F') {
            v = ch - 'A' + 10;
        }
        if (v < 0) {
            continue;
        }
        if (hi < 0) {
            hi = v;
        } else {
            out.push_back(static_cast<uint8_t>(hi << 4 | v));
            hi = -1;
        }
    }
    return out;
}

// Runs a reverse encoder into an area of `room` bytes preceded by guard bytes, and returns
// the encoding; fails the test if anything was written in front of the room.
struct ReverseArea {
    static constexpr size_t kGuard = 16;
    Bytes buf;
    uint32_t room;
    explicit ReverseArea(uint32_t r) : buf(kGuard + r, 0xA5), room(r) {}
    uint8_t* end() { return buf.data() + buf.size(); }
    Bytes from(const uint8_t* p) const { return Bytes(p, buf.data() + buf.size()); }
    bool guard_intact() const
    {
        for (size_t i = 0; i < kGuard; i++) {
            if (buf[i] != 0xA5) {
                return false;
            }
        }
        return true;
    }
};

struct ContainerFree {
    void operator()(snmp_container* c) const { snmp_free_container(c); }
};
using Owned = std::unique_ptr<snmp_container, ContainerFree>;

Owned oid_container(const std::vector<uint32_t>& subids)
{
    auto n = static_cast<uint32_t>(subids.size());
    Owned c(snmp_create_container(SNMP_NATIVE_OID, n));
    c->tag = SNMP_ASN_OBJECT_ID;
    c->length = n;
    if (n > 0) {
        std::memcpy(snmp_container_subids(c.get()), subids.data(), n * sizeof(uint32_t));
    }
    return c;
}

Owned scalar_container(uint8_t tag, uint8_t native, uint32_t word)
{
    Owned c(snmp_create_container(native, 1));
    c->tag = tag;
    c->length = 1;
    c->value.u32 = word;
    return c;
}

Owned octet_container(uint8_t tag, const Bytes& octets)
{
    auto n = static_cast<uint32_t>(octets.size());
    Owned c(snmp_create_container(SNMP_NATIVE_OCTETS, n));
    c->tag = tag;
    c->length = n;
    if (n > 0) {
        std::memcpy(snmp_container_octets(c.get()), octets.data(), n);
    }
    return c;
}

// 1.3 followed by 30 sub-identifiers of five octets each: 151 content octets.
std::vector<uint32_t> big_oid()
{
    std::vector<uint32_t> subids{1, 3};
    subids.insert(subids.end(), 30, 0xFFFFFFFFu);
    return subids;
}

// ---- lengths ----

TEST(AsnLength, ReadlenAndDecodeLength)
{
    struct Row {
        const char* name;
        const char* hex;
        uint32_t len;
        uint32_t octets;
    };
    const Row rows[] = {
        {"zero", "00", 0, 1},
        {"127 short form", "7F", 127, 1},
        {"128", "81 80", 128, 2},
        {"255", "81 FF", 255, 2},
        {"256", "82 01 00", 256, 3},
        {"padded with zeros", "84 00 00 00 1E", 30, 5},
        {"largest", "84 FF FF FF FF", 0xFFFFFFFFu, 5},
        {"five octets keep the low 32 bits", "85 01 00 00 00 2A", 42, 6},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Bytes in = hex(row.hex);
        uint32_t octets = 99;
        EXPECT_EQ(asn_readlen(in.data(), &octets), row.len);
        EXPECT_EQ(octets, row.octets);
        uint32_t len = 0;
        EXPECT_EQ(asn_decode_length(in.data(), &len), in.data() + row.octets);
        EXPECT_EQ(len, row.len);
    }
    // The indefinite form is reported as a length, not as octets used.
    Bytes indef = hex("80");
    uint32_t octets = 99;
    EXPECT_EQ(asn_readlen(indef.data(), &octets), 0xFFFFFFFFu);
    EXPECT_EQ(octets, 99u);
    uint32_t len = 0;
    EXPECT_EQ(asn_decode_length(indef.data(), &len), indef.data() + 1);
    EXPECT_EQ(len, 0xFFFFFFFFu);
}

TEST(AsnLength, EncodeMinimalAndFiveByteRule)
{
    struct Row {
        const char* name;
        uint32_t len;
        const char* hex;
    };
    const Row rows[] = {
        {"0", 0, "00"},
        {"127", 127, "7F"},
        {"128", 128, "81 80"},
        {"255", 255, "81 FF"},
        {"256", 256, "82 01 00"},
        {"65535", 65535, "82 FF FF"},
        {"65536", 65536, "83 01 00 00"},
        {"16777216", 16777216, "84 01 00 00 00"},
        {"largest", 0xFFFFFFFFu, "84 FF FF FF FF"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Bytes want = hex(row.hex);
        ReverseArea area(5);
        uint8_t* p = asn_encode_len_reverse(area.end(), &area.room, row.len);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(area.from(p), want);
        EXPECT_EQ(area.room, 5 - want.size());
        // Four free bytes are never enough, even for a one-octet length.
        ReverseArea small(4);
        EXPECT_EQ(asn_encode_len_reverse(small.end(), &small.room, row.len), nullptr);
        EXPECT_EQ(small.room, 4u);
        EXPECT_TRUE(small.guard_intact());
    }
}

// ---- headers ----

TEST(AsnHeader, OpensAndRefuses)
{
    struct Row {
        const char* name;
        const char* hex;
        bool ok;
        uint8_t tag;
        uint32_t content_len;
    };
    const Row rows[] = {
        {"sequence", "30 03 02 01 05", true, 0x30, 3},
        {"empty sequence", "30 00", true, 0x30, 0},
        {"long-form length from the master agent", "A0 82 00 03 02 01 05", true, 0xA0, 3},
        {"padded length", "30 84 00 00 00 01 05", true, 0x30, 1},
        {"high tag number", "1F 01 00", false, 0x1F, 0},
        {"high tag with class bits", "BF 01 00", false, 0xBF, 0},
        {"indefinite length", "30 80 02 01 05 00 00", false, 0x30, 0},
        {"contents past the input", "30 05 02 01 05", false, 0x30, 0},
        {"length octets past the input", "30 84 00 00", false, 0x30, 0},
        {"no length octet", "30", false, 0x30, 0},
        {"huge length", "30 84 FF FF FF FF 00", false, 0x30, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Bytes in = hex(row.hex);
        auto n = static_cast<uint32_t>(in.size());
        uint32_t remaining = n;
        uint8_t tag = 0;
        const uint8_t* p = asn_decode_header(in.data(), &remaining, &tag);
        EXPECT_EQ(tag, row.tag);  // stored even when the header is refused
        if (!row.ok) {
            EXPECT_EQ(p, nullptr);
            continue;
        }
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(remaining, row.content_len);
        EXPECT_EQ(p + remaining, in.data() + n);

        // The sub-header form subtracts only the header.
        uint32_t sub_remaining = n;
        uint32_t len = 0;
        tag = 0;
        const uint8_t* q = asn_decode_sub_header(in.data(), &sub_remaining, &len, &tag);
        EXPECT_EQ(q, p);
        EXPECT_EQ(len, row.content_len);
        EXPECT_EQ(sub_remaining, row.content_len);
        EXPECT_EQ(tag, row.tag);
    }
    uint8_t tag = 0;
    Bytes seq = hex("30 00");
    EXPECT_EQ(asn_decode_header(seq.data(), nullptr, &tag), nullptr);
    uint32_t zero = 0;
    EXPECT_EQ(asn_decode_header(seq.data(), &zero, &tag), nullptr);
}

TEST(AsnHeader, EncodeHeader)
{
    ReverseArea area(8);
    uint8_t* p = asn_encode_header_reverse(area.end(), &area.room, 0x30, 300);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(area.from(p), hex("30 82 01 2C"));
    EXPECT_EQ(area.room, 4u);

    ReverseArea high(8);
    EXPECT_EQ(asn_encode_header_reverse(high.end(), &high.room, 0x1F, 0), nullptr);
    // Room for the length's five bytes but not for the tag after a five-octet length.
    ReverseArea tight(5);
    EXPECT_EQ(asn_encode_header_reverse(tight.end(), &tight.room, 0x30, 0x01000000), nullptr);
    EXPECT_TRUE(tight.guard_intact());
}

// A child element longer than what is left of its parent must fail, although the bytes
// exist further on in the input.
TEST(AsnHeader, ChildLongerThanParent)
{
    Bytes in = hex("30 03 02 05 01 02 03 04 05");
    uint32_t remaining = static_cast<uint32_t>(in.size());
    uint8_t tag = 0;
    const uint8_t* p = asn_decode_header(in.data(), &remaining, &tag);
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(remaining, 3u);
    int32_t v = 0;
    EXPECT_EQ(asn_decode_int(p, &remaining, &tag, &v), nullptr);
    uint32_t u = 0;
    uint32_t left = 3;
    EXPECT_EQ(asn_decode_u_int(p, &left, &tag, &u), nullptr);
    uint8_t dst[8];
    uint32_t size = sizeof dst;
    left = 3;
    EXPECT_EQ(asn_decode_string(p, &left, &tag, dst, &size), nullptr);
    uint32_t subids[8];
    uint32_t count = 8;
    left = 3;
    EXPECT_EQ(asn_decode_oid(p, &left, &tag, subids, &count), nullptr);
    Bytes null_in = hex("05 00");
    left = 1;
    EXPECT_EQ(asn_decode_NULL(null_in.data(), &left, &tag), nullptr);
}

// ---- integers ----

TEST(AsnInteger, SignedVectors)
{
    struct Row {
        const char* name;
        const char* hex;
        bool ok;
        int32_t value;
        bool canonical;  // the encoder writes exactly these bytes back
    };
    const Row rows[] = {
        {"0", "02 01 00", true, 0, true},
        {"127", "02 01 7F", true, 127, true},
        {"128", "02 02 00 80", true, 128, true},
        {"-1", "02 01 FF", true, -1, true},
        {"-128", "02 01 80", true, -128, true},
        {"-129", "02 02 FF 7F", true, -129, true},
        {"32767", "02 02 7F FF", true, 32767, true},
        {"-32768", "02 02 80 00", true, -32768, true},
        {"32768", "02 03 00 80 00", true, 32768, true},
        {"8388607", "02 03 7F FF FF", true, 8388607, true},
        {"-8388609", "02 04 FF 7F FF FF", true, -8388609, true},
        {"2^31-1", "02 04 7F FF FF FF", true, 2147483647, true},
        {"-2^31", "02 04 80 00 00 00", true, INT32_MIN, true},
        {"2^32-1 as five octets keeps the last four", "02 05 00 FF FF FF FF", true, -1, false},
        {"non-minimal 1", "02 02 00 01", true, 1, false},
        {"empty contents", "02 00", true, 0, false},
        {"long-form length", "02 81 01 05", true, 5, false},
        {"indefinite", "02 80 05 00 00", false, 0, false},
        {"contents cut off", "02 02 01", false, 0, false},
        {"tag only", "02", false, 0, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Bytes in = hex(row.hex);
        auto n = static_cast<uint32_t>(in.size());
        uint32_t remaining = n;
        uint8_t tag = 0;
        int32_t value = 12345;
        const uint8_t* p = asn_decode_int(in.data(), &remaining, &tag, &value);
        EXPECT_EQ(tag, 0x02);
        if (!row.ok) {
            EXPECT_EQ(p, nullptr);
            continue;
        }
        ASSERT_EQ(p, in.data() + n);
        EXPECT_EQ(remaining, 0u);
        EXPECT_EQ(value, row.value);
        for (uint32_t cut = 0; cut < n; cut++) {
            uint32_t left = cut;
            EXPECT_EQ(asn_decode_int(in.data(), &left, &tag, &value), nullptr) << "cut " << cut;
        }
        if (row.canonical) {
            ReverseArea area(n);
            uint8_t* q = asn_encode_int_reverse(area.end(), &area.room, 0x02, row.value);
            ASSERT_NE(q, nullptr);
            EXPECT_EQ(area.from(q), in);
            EXPECT_EQ(area.room, 0u);
            ReverseArea short_area(n - 1);
            EXPECT_EQ(asn_encode_int_reverse(short_area.end(), &short_area.room, 0x02, row.value),
                      nullptr);
            EXPECT_TRUE(short_area.guard_intact());
        }
    }
}

TEST(AsnInteger, UnsignedVectors)
{
    struct Row {
        const char* name;
        const char* hex;
        uint32_t value;
        bool canonical;
    };
    const Row rows[] = {
        {"0", "41 01 00", 0, true},
        {"127", "42 01 7F", 127, true},
        {"0x80 needs a leading zero", "41 02 00 80", 0x80, true},
        {"0x8000", "43 03 00 80 00", 0x8000, true},
        {"2^31-1", "43 04 7F FF FF FF", 0x7FFFFFFF, true},
        {"2^31", "43 05 00 80 00 00 00", 0x80000000u, true},
        {"2^32-1", "43 05 00 FF FF FF FF", 0xFFFFFFFFu, true},
        {"four octets with the top bit set", "43 04 FF FF FF FF", 0xFFFFFFFFu, false},
        {"empty", "41 00", 0, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Bytes in = hex(row.hex);
        auto n = static_cast<uint32_t>(in.size());
        uint32_t remaining = n;
        uint8_t tag = 0;
        uint32_t value = 12345;
        ASSERT_EQ(asn_decode_u_int(in.data(), &remaining, &tag, &value), in.data() + n);
        EXPECT_EQ(tag, in[0]);
        EXPECT_EQ(value, row.value);
        for (uint32_t cut = 0; cut < n; cut++) {
            uint32_t left = cut;
            EXPECT_EQ(asn_decode_u_int(in.data(), &left, &tag, &value), nullptr) << "cut " << cut;
        }
        if (!row.canonical) {
            continue;
        }
        ReverseArea area(n);
        uint8_t* q = asn_encode_u_int_reverse(area.end(), &area.room, in[0], row.value);
        ASSERT_NE(q, nullptr);
        EXPECT_EQ(area.from(q), in);
        ReverseArea short_area(n - 1);
        EXPECT_EQ(asn_encode_u_int_reverse(short_area.end(), &short_area.room, in[0], row.value),
                  nullptr);
        EXPECT_TRUE(short_area.guard_intact());
        // The container encoder gives the same bytes for the unsigned types.
        Owned c = scalar_container(in[0], SNMP_NATIVE_U32, row.value);
        ReverseArea prim(n);
        uint8_t* r = prim.end();
        ASSERT_EQ(asn_encode_primitive_reverse(&r, &prim.room, c.get()), SNMP_CODEC_OK);
        EXPECT_EQ(prim.from(r), in);
    }
}

// ---- strings, NULL ----

TEST(AsnString, DecodeVectors)
{
    struct Row {
        const char* name;
        const char* hex;
        uint32_t capacity;
        bool ok;
        const char* contents;
    };
    const Row rows[] = {
        {"empty", "04 00", 0, true, ""},
        {"abc", "04 03 61 62 63", 3, true, "61 62 63"},
        {"IpAddress", "40 04 7F 00 00 01", 4, true, "7F 00 00 01"},
        {"long-form length", "04 81 02 61 62", 8, true, "61 62"},
        {"longer than the destination", "04 03 61 62 63", 2, false, ""},
        {"cut off", "04 05 61 62", 8, false, ""},
        {"indefinite", "04 80 61 00 00", 8, false, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Bytes in = hex(row.hex);
        auto n = static_cast<uint32_t>(in.size());
        uint8_t dst[16];
        std::memset(dst, 0xEE, sizeof dst);
        uint32_t size = row.capacity;
        uint32_t remaining = n;
        uint8_t tag = 0;
        const uint8_t* p = asn_decode_string(in.data(), &remaining, &tag, dst, &size);
        EXPECT_EQ(tag, in[0]);
        if (!row.ok) {
            EXPECT_EQ(p, nullptr);
            EXPECT_EQ(dst[0], 0xEE);  // nothing copied
            EXPECT_EQ(size, row.capacity);
            continue;
        }
        ASSERT_EQ(p, in.data() + n);
        EXPECT_EQ(remaining, 0u);
        EXPECT_EQ(Bytes(dst, dst + size), hex(row.contents));
        EXPECT_EQ(dst[size], 0xEE);  // no NUL appended
        for (uint32_t cut = 0; cut < n; cut++) {
            uint32_t left = cut;
            uint32_t cap = row.capacity;
            EXPECT_EQ(asn_decode_string(in.data(), &left, &tag, dst, &cap), nullptr);
        }
    }
}

TEST(AsnString, EncodeRoomRule)
{
    const uint8_t abc[] = {'a', 'b', 'c'};
    ReverseArea area(8);
    uint8_t* p = asn_encode_string_reverse(area.end(), &area.room, 0x04, abc, 3);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(area.from(p), hex("04 03 61 62 63"));
    EXPECT_EQ(area.room, 3u);

    // An empty string needs a room of five because of the length writer.
    ReverseArea five(5);
    p = asn_encode_string_reverse(five.end(), &five.room, 0x04, nullptr, 0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(five.from(p), hex("04 00"));
    ReverseArea four(4);
    EXPECT_EQ(asn_encode_string_reverse(four.end(), &four.room, 0x04, nullptr, 0), nullptr);
    ReverseArea two(2);
    EXPECT_EQ(asn_encode_string_reverse(two.end(), &two.room, 0x04, abc, 3), nullptr);
    EXPECT_TRUE(two.guard_intact());
}

TEST(AsnNull, Vectors)
{
    struct Row {
        const char* name;
        const char* hex;
        bool ok;
    };
    const Row rows[] = {
        {"NULL", "05 00", true},
        {"noSuchInstance shape", "81 00", true},
        {"with contents", "05 01 00", false},
        {"long-form zero length", "05 81 00", false},
        {"indefinite", "05 80", false},
        {"tag only", "05", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Bytes in = hex(row.hex);
        uint32_t remaining = static_cast<uint32_t>(in.size());
        uint8_t tag = 0;
        const uint8_t* p = asn_decode_NULL(in.data(), &remaining, &tag);
        EXPECT_EQ(tag, in[0]);
        if (row.ok) {
            EXPECT_EQ(p, in.data() + 2);
            EXPECT_EQ(remaining, 0u);
        } else {
            EXPECT_EQ(p, nullptr);
        }
    }
}

// ---- object identifiers ----

TEST(AsnOid, Vectors)
{
    struct Row {
        const char* name;
        const char* hex;
        bool ok;
        std::vector<uint32_t> subids;
        bool canonical;
    };
    const Row rows[] = {
        {"1.3.6.1", "06 03 2B 06 01", true, {1, 3, 6, 1}, true},
        {"empty", "06 00", true, {}, true},
        {"7F splits into 2.47", "06 01 7F", true, {2, 47}, true},
        {"27 splits into 0.39", "06 01 27", true, {0, 39}, true},
        {"28 splits into 1.0", "06 01 28", true, {1, 0}, true},
        {"sub-identifier 128", "06 03 2B 81 00", true, {1, 3, 128}, true},
        {"2.100.3", "06 03 81 34 03", true, {2, 100, 3}, true},
        {"largest sub-identifier", "06 06 2B 8F FF FF FF 7F", true, {1, 3, 0xFFFFFFFFu}, true},
        {"enterprise 99999", "06 08 2B 06 01 04 01 86 8D 1F", true, {1, 3, 6, 1, 4, 1, 99999},
         true},
        {"zero sub-identifiers", "06 03 00 00 00", true, {0, 0, 0, 0}, true},
        {"wider than 32 bits keeps the low bits", "06 07 2B 9F FF FF FF FF 7F", true,
         {1, 3, 0xFFFFFFFFu}, false},
        {"long-form length", "06 81 03 2B 06 01", true, {1, 3, 6, 1}, false},
        {"last sub-identifier cut off", "06 02 2B 86", false, {}, false},
        {"only a continuation octet", "06 01 80", false, {}, false},
        {"indefinite", "06 80 2B 00 00", false, {}, false},
        {"contents past the input", "06 04 2B 06 01", false, {}, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Bytes in = hex(row.hex);
        auto n = static_cast<uint32_t>(in.size());
        uint32_t subids[16];
        uint32_t count = 16;
        uint32_t remaining = n;
        uint8_t tag = 0;
        const uint8_t* p = asn_decode_oid(in.data(), &remaining, &tag, subids, &count);
        EXPECT_EQ(tag, 0x06);
        if (!row.ok) {
            EXPECT_EQ(p, nullptr);
            continue;
        }
        ASSERT_EQ(p, in.data() + n);
        EXPECT_EQ(remaining, 0u);
        EXPECT_EQ(std::vector<uint32_t>(subids, subids + count), row.subids);
        for (uint32_t cut = 0; cut < n; cut++) {
            uint32_t left = cut;
            uint32_t cap = 16;
            EXPECT_EQ(asn_decode_oid(in.data(), &left, &tag, subids, &cap), nullptr);
        }
        if (!row.subids.empty()) {
            // The array must hold every sub-identifier: one entry short fails.
            uint32_t exact = count;
            uint32_t left = n;
            EXPECT_NE(asn_decode_oid(in.data(), &left, &tag, subids, &exact), nullptr);
            uint32_t short_cap = count - 1;
            left = n;
            EXPECT_EQ(asn_decode_oid(in.data(), &left, &tag, subids, &short_cap), nullptr);
        }
        if (row.canonical) {
            Owned c = oid_container(row.subids);
            ReverseArea area(n);
            uint8_t* q = area.end();
            ASSERT_EQ(asn_encode_primitive_reverse(&q, &area.room, c.get()), SNMP_CODEC_OK);
            EXPECT_EQ(area.from(q), in);
            EXPECT_EQ(area.room, 0u);
            EXPECT_EQ(std::vector<uint32_t>(snmp_container_subids(c.get()),
                                            snmp_container_subids(c.get()) + c->length),
                      row.subids);  // the container is left as it was
            ReverseArea short_area(n - 1);
            q = short_area.end();
            EXPECT_EQ(asn_encode_primitive_reverse(&q, &short_area.room, c.get()),
                      SNMP_CODEC_NO_ROOM);
            EXPECT_EQ(q, short_area.end());
            EXPECT_TRUE(short_area.guard_intact());
        }
    }
}

TEST(AsnOid, EncodeArcChecks)
{
    struct Row {
        const char* name;
        std::vector<uint32_t> subids;
        int code;
        const char* hex;
    };
    const Row rows[] = {
        {"first arc 3", {3, 1}, SNMP_CODEC_BAD_OID, ""},
        {"1.40", {1, 40}, SNMP_CODEC_BAD_OID, ""},
        {"0.40", {0, 40, 1}, SNMP_CODEC_BAD_OID, ""},
        {"2.40 is fine", {2, 40}, SNMP_CODEC_OK, "06 01 78"},
        {"1.39", {1, 39}, SNMP_CODEC_OK, "06 01 4F"},
        {"one arc has empty contents", {1}, SNMP_CODEC_OK, "06 00"},
        {"one arc above 2", {5}, SNMP_CODEC_BAD_OID, ""},
        {"long contents take a long-form length", big_oid(), SNMP_CODEC_OK, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Owned c = oid_container(row.subids);
        ReverseArea area(256);
        uint8_t* p = area.end();
        EXPECT_EQ(asn_encode_primitive_reverse(&p, &area.room, c.get()), row.code);
        if (row.code != SNMP_CODEC_OK) {
            EXPECT_EQ(p, area.end());
            continue;
        }
        Bytes out = area.from(p);
        if (*row.hex != '\0') {
            EXPECT_EQ(out, hex(row.hex));
        } else {
            ASSERT_GE(out.size(), 3u);
            EXPECT_EQ(out[1], 0x81);
            EXPECT_EQ(out[2], 151);
            uint32_t subids[32];
            uint32_t count = 32;
            uint32_t remaining = static_cast<uint32_t>(out.size());
            uint8_t tag = 0;
            ASSERT_NE(asn_decode_oid(out.data(), &remaining, &tag, subids, &count), nullptr);
            EXPECT_EQ(std::vector<uint32_t>(subids, subids + count), row.subids);
        }
    }
}

// ---- the container encoder ----

TEST(AsnPrimitive, ContainerEncodings)
{
    struct Row {
        const char* name;
        Owned (*make)();
        int code;
        const char* hex;
    };
    const Row rows[] = {
        {"INTEGER 0", [] { return scalar_container(0x02, SNMP_NATIVE_S32, 0); }, 0, "02 01 00"},
        {"INTEGER -128",
         [] { return scalar_container(0x02, SNMP_NATIVE_S32, static_cast<uint32_t>(-128)); }, 0,
         "02 01 80"},
        {"INTEGER held unsigned",
         [] { return scalar_container(0x02, SNMP_NATIVE_U32, 0x80000000u); }, 0,
         "02 05 00 80 00 00 00"},
        {"Counter 0x80", [] { return scalar_container(0x41, SNMP_NATIVE_U32, 0x80); }, 0,
         "41 02 00 80"},
        {"TimeTicks 2^32-1", [] { return scalar_container(0x43, SNMP_NATIVE_U32, 0xFFFFFFFFu); },
         0, "43 05 00 FF FF FF FF"},
        {"NULL", [] { return scalar_container(0x05, SNMP_NATIVE_NULL, 0); }, 0, "05 00"},
        {"noSuchObject", [] { return scalar_container(0x80, SNMP_NATIVE_NULL, 0); }, 0, "80 00"},
        {"noSuchInstance", [] { return scalar_container(0x81, SNMP_NATIVE_NULL, 0); }, 0,
         "81 00"},
        {"endOfMibView", [] { return scalar_container(0x82, SNMP_NATIVE_NULL, 0); }, 0, "82 00"},
        {"IpAddress writes four octets whatever the length says",
         [] {
             Owned c = scalar_container(0x40, SNMP_NATIVE_U32, 0);
             const uint8_t addr[4] = {10, 1, 2, 3};
             std::memcpy(c->value.octets, addr, 4);
             c->length = 1;
             return c;
         },
         0, "40 04 0A 01 02 03"},
        {"OCTET STRING", [] { return octet_container(0x04, hex("61 62 63")); }, 0,
         "04 03 61 62 63"},
        {"Opaque", [] { return octet_container(0x44, hex("01")); }, 0, "44 01 01"},
        {"empty OCTET STRING", [] { return octet_container(0x04, {}); }, 0, "04 00"},
        {"Counter64 has no encoder", [] { return scalar_container(0x46, SNMP_NATIVE_U64, 1); },
         SNMP_CODEC_BAD_ARGUMENT, ""},
        {"constructed tag", [] { return scalar_container(0x30, SNMP_NATIVE_NULL, 0); },
         SNMP_CODEC_BAD_ARGUMENT, ""},
        {"BIT STRING has no encoder", [] { return octet_container(0x03, hex("00")); },
         SNMP_CODEC_BAD_ARGUMENT, ""},
        {"length beyond the block",
         [] {
             Owned c = octet_container(0x04, hex("61"));
             c->length = 100;
             return c;
         },
         SNMP_CODEC_BAD_ARGUMENT, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Owned c = row.make();
        ReverseArea area(64);
        uint8_t* p = area.end();
        ASSERT_EQ(asn_encode_primitive_reverse(&p, &area.room, c.get()), row.code);
        if (row.code != SNMP_CODEC_OK) {
            EXPECT_EQ(p, area.end());
            continue;
        }
        Bytes want = hex(row.hex);
        EXPECT_EQ(area.from(p), want);
        EXPECT_EQ(area.room, 64 - want.size());
        if (c->tag == 0x40) {
            EXPECT_EQ(c->length, 4u);
        }
        // No room of any size writes in front of the room, and small rooms fail with a code.
        for (uint32_t room = 0; room < want.size(); room++) {
            ReverseArea small(room);
            uint8_t* q = small.end();
            EXPECT_NE(asn_encode_primitive_reverse(&q, &small.room, c.get()), SNMP_CODEC_OK);
            EXPECT_EQ(q, small.end());
            EXPECT_TRUE(small.guard_intact()) << "room " << room;
        }
    }
    uint32_t room = 8;
    uint8_t buf[8];
    uint8_t* p = buf + 8;
    EXPECT_EQ(asn_encode_primitive_reverse(&p, &room, nullptr), SNMP_CODEC_BAD_ARGUMENT);
    EXPECT_EQ(asn_encode_primitive_reverse(nullptr, &room, nullptr), SNMP_CODEC_BAD_ARGUMENT);
    Owned c = scalar_container(0x05, SNMP_NATIVE_NULL, 0);
    room = 1;
    EXPECT_EQ(asn_encode_primitive_reverse(&p, &room, c.get()), SNMP_CODEC_NO_ROOM);
}

// An octet string needs its own length plus the tag plus the length writer's five bytes.
TEST(AsnPrimitive, OctetStringRoomSteps)
{
    const Bytes value = hex("01 02 03 04 05 06 07 08 09 0A");
    const uint32_t len = static_cast<uint32_t>(value.size());
    struct Row {
        uint32_t room;
        int code;
    };
    const Row rows[] = {
        {len + 3, SNMP_CODEC_NO_ROOM},     {len + 4, SNMP_CODEC_BAD_ARGUMENT},
        {len + 5, SNMP_CODEC_BAD_ARGUMENT}, {len + 6, SNMP_CODEC_OK},
    };
    Owned c = octet_container(0x04, value);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.room);
        ReverseArea area(row.room);
        uint8_t* p = area.end();
        EXPECT_EQ(asn_encode_primitive_reverse(&p, &area.room, c.get()), row.code);
        EXPECT_TRUE(area.guard_intact());
        if (row.code == SNMP_CODEC_OK) {
            EXPECT_EQ(area.from(p).size(), len + 2);
            EXPECT_EQ(area.room, 4u);
        } else {
            EXPECT_EQ(p, area.end());
        }
    }
}

}  // namespace
