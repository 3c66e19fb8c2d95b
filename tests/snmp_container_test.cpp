// Containers: size rule, reuse and growth in place, OID text, ordering, copying, the small
// helpers that live beside them, and the printable forms of values and addresses.
#include "snmp_container.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "snmp_util.h"

#if defined(__SANITIZE_ADDRESS__)
#define VX_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VX_UNDER_ASAN 1
#endif
#endif

namespace {

using namespace std::string_literals;

struct ContainerFree {
    void operator()(snmp_container* c) const {
        snmp_free_container(c);
    }
};
using Owned = std::unique_ptr<snmp_container, ContainerFree>;

Owned oid(const char* text) {
    return Owned(snmp_create_oid_container(text));
}

std::string text_of(const snmp_container* c) {
    char* text = snmp_oid_to_string(c);
    std::string out = text != nullptr ? text : "<null>";
    std::free(text);
    return out;
}

std::string bytes(const void* p, size_t n) {
    return std::string(static_cast<const char*>(p), n);
}

// A 32-bit value as stored, in the machine's byte order.
std::string word(uint32_t v) {
    return bytes(&v, 4);
}

// Replaces the held container by what an operation returned, the way callers must.
void adopt(Owned& holder, snmp_container* result) {
    ASSERT_NE(result, nullptr);
    (void)holder.release();
    holder.reset(result);
}

TEST(SnmpContainer, SizeRuleAndCreation) {
    constexpr uint32_t F = SNMP_CONTAINER_FIXED_SIZE;
    struct Row {
        uint8_t kind;
        uint32_t count, size;
    } rows[] = {
        {0, 1, 0},
        {13, 1, 0},
        {1, 0, F},
        {SNMP_NATIVE_U32, 1000, F},  // a scalar ignores the count
        {SNMP_NATIVE_OCTETS, 8, F},
        {SNMP_NATIVE_OCTETS, 9, F + 1},
        {SNMP_NATIVE_OID, 2, F},
        {SNMP_NATIVE_OID, 3, F + 4},
        {SNMP_NATIVE_OCTETS, UINT32_MAX, 0},  // beyond the size word
        {SNMP_NATIVE_OID, 0x40000000u, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::to_string(row.kind) + " x " + std::to_string(row.count));
        EXPECT_EQ(snmp_get_b_len(row.kind, row.count), row.size);
        Owned c(snmp_create_container(row.kind, row.count));
        if (row.size == 0) {
            EXPECT_EQ(c, nullptr);
            continue;
        }
        ASSERT_NE(c, nullptr);
        EXPECT_EQ(snmp_container_alloc_size(c.get()), row.size);
        EXPECT_EQ(c->capacity, row.count);
        EXPECT_EQ(c->native, row.kind);
        EXPECT_EQ(c->length + c->hint + c->tag + c->value.words[0] + c->value.words[1], 0u);
    }
}

TEST(SnmpContainer, OidTextSyntax) {
    struct Row {
        const char* text;
        int check;
        std::vector<uint32_t> subids;  // empty: invalid
    } rows[] = {
        {"1.3.6.1", 1, {1, 3, 6, 1}},
        {".1.3.6.1", 0, {1, 3, 6, 1}},
        {"1.3.6.1.", 0, {}},
        {"1..3", 0, {}},
        {"3.1", 1, {}},
        {"3.1", 0, {3, 1}},
        {".3.1", 0, {}},  // a leading dot forces the first-arc check
        {"1.40", 1, {}},
        {"0.40", 1, {}},
        {"1.39", 1, {1, 39}},
        {"2.40", 1, {2, 40}},
        {"2.4294967295", 1, {2, 4294967295u}},
        {"2.4294967296", 0, {}},
        {"99999999999999999999999", 0, {}},
        {"", 1, {0}},
        {".", 1, {0}},
        {"7", 0, {7}},
        {"007.3", 0, {7, 3}},
        {"1.3a", 0, {}},
        {"+1.3", 0, {}},
        {" 1.3", 0, {}},
        {"1.-3", 0, {}},
        {"1. 3", 0, {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string("\"") + row.text + "\" check " + std::to_string(row.check));
        EXPECT_EQ(snmp_validate_and_count(row.text, row.check), row.subids.size());
        if (row.check == 0) {
            continue;
        }
        Owned c = oid(row.text);
        if (row.subids.empty()) {
            EXPECT_EQ(c, nullptr);
            continue;
        }
        ASSERT_NE(c, nullptr);
        EXPECT_EQ(c->tag, SNMP_TAG_OID);
        const uint32_t* s = snmp_container_const_subids(c.get());
        EXPECT_EQ(std::vector<uint32_t>(s, s + c->length), row.subids);
    }
    EXPECT_EQ(snmp_validate_and_count(nullptr, 0), 0u);
}

TEST(SnmpContainer, OidOrderAndSubtrees) {
    struct Row {
        const char *a, *b;
        uint32_t n;
        int32_t expected;
    } rows[] = {
        {"1.3.6.1", "1.3.6.1.2", 0, -1}, {"1.3.6.1", "1.3.6.1.2", 4, 0},
        {"1.3.6.1.2", "1.3.6.1", 4, 0},  {"1.3.6.1.2", "1.3.6.1", 0, 1},
        {"1.3.5.9", "1.3.6.1", 4, -1},   {"1.3.7", "1.3.6.1", 4, 1},
        {"1.3.6", "1.3.6.1", 4, -1},  // a proper prefix sorts before the subtree
        {"1.3.6.1", "1.3.6.1", 0, 0},    {"1.3", "1.3", 5, 0},
        {"1.3", "1.3.6", 5, -1},         {"2.4294967295", "2.1", 0, 1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.a) + " vs " + row.b + " n " + std::to_string(row.n));
        EXPECT_EQ(snmp_compare_oid_subids(oid(row.a).get(), oid(row.b).get(), row.n), row.expected);
    }
    Owned a = oid("1.3");
    const int32_t seven = 7;
    Owned number(snmp_create_value_container(&seven, 4, SNMP_TAG_INTEGER, 0));
    EXPECT_EQ(snmp_compare_oid_subids(a.get(), number.get(), 0), -9);
    EXPECT_EQ(snmp_compare_oid_subids(number.get(), a.get(), 0), -9);
    EXPECT_EQ(snmp_compare_oid_subids(nullptr, a.get(), 0), -9);

    uint32_t sub = 0;
    EXPECT_EQ(snmp_oid_next_subid(a.get(), &sub, 1), 0);
    EXPECT_EQ(sub, 3u);
    EXPECT_EQ(snmp_oid_next_subid(a.get(), &sub, 2), -1);
    EXPECT_EQ(snmp_oid_next_subid(number.get(), &sub, 0), -1);
}

TEST(SnmpContainer, OidToTextRoundTrip) {
    std::string max30 = "2", long128 = "1.3";
    for (int i = 1; i < 30; ++i) {
        max30 += ".4294967295";
    }
    for (int i = 2; i < 128; ++i) {
        long128 += "." + std::to_string(i * 1000003u);
    }
    for (const std::string& text : {std::string("0"), std::string("2.40"), max30, long128}) {
        SCOPED_TRACE(text.substr(0, 40));
        EXPECT_EQ(text_of(oid(text.c_str()).get()), text);
    }
    EXPECT_EQ(text_of(Owned(snmp_create_container(SNMP_NATIVE_OID, 0)).get()), "");
    EXPECT_EQ(snmp_oid_to_string(Owned(snmp_create_container(SNMP_NATIVE_OCTETS, 4)).get()),
              nullptr);
    EXPECT_EQ(snmp_oid_to_string(nullptr), nullptr);
}

// Replacing the value of an INTEGER 7 (or of an OID) container, and creating a container
// from the same input: storage kind, length, bytes, and whether the block stayed.
TEST(SnmpContainer, ReplaceValue) {
    constexpr uint8_t S32 = SNMP_NATIVE_S32, U32 = SNMP_NATIVE_U32, U64 = SNMP_NATIVE_U64,
                      OCT = SNMP_NATIVE_OCTETS, OID = SNMP_NATIVE_OID, NUL = SNMP_NATIVE_NULL;
    const char* twenty = "ABCDEFGHIJKLMNOPQRST";
    const int32_t seven = 7;
    const int16_t minus129 = -129;
    const uint32_t words[2] = {1, 2};
    const std::string zero8(8, '\0');
    struct Row {
        const char* name;
        const void* value;
        uint32_t len;
        uint8_t tag, kind;
        uint32_t length;
        std::string stored;  // leading value bytes
        bool same_block = true;
        const char* start_oid = nullptr;  // null: start from INTEGER 7
    } rows[] = {
        {"oid to INTEGER 7", &seven, 4, 0x02, S32, 1, word(7), true, "1.3.6.1.2.1.1.1.0.5"},
        {"1 octet", "x", 1, 0x04, OCT, 1, "x"},
        {"20 octets move", twenty, 20, 0x44, OCT, 20, twenty, false},
        {"empty octets", "", 0, 0x04, OCT, 0, std::string(1, '\0')},
        {"oid text", "1.3.6.1.4", 0, 0x06, OID, 5, word(1) + word(3) + word(6) + word(1) + word(4),
         false},
        {"INTEGER 0xFF is -1", "\xFF", 1, 0x02, S32, 1, word(0xFFFFFFFFu)},
        {"Gauge32 0xFF is 255", "\xFF", 1, 0x42, U32, 1, word(255)},
        {"INTEGER of 2 bytes", &minus129, 2, 0x02, S32, 1, word(static_cast<uint32_t>(-129))},
        {"TimeTicks of 2 bytes", &minus129, 2, 0x43, U32, 1, word(0xFF7F)},
        {"IpAddress keeps octet order", "\x0a\0\0\x01", 4, 0x40, U32, 1, "\x0a\0\0\x01"s},
        {"Counter64", words, 8, 0x46, U64, 1, word(1) + word(2)},
        {"NULL ignores length", twenty, 20, 0x05, NUL, 1, zero8, true, "1.3.6.1.2.1"},
        {"endOfMibView", nullptr, 0, 0x82, NUL, 1, zero8},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Owned c(row.start_oid != nullptr ? snmp_create_oid_container(row.start_oid)
                                         : snmp_create_value_container(&seven, 4, 0x02, 0));
        snmp_container* out = snmp_replace_container_value(c.get(), row.value, row.len, row.tag, 9);
        EXPECT_EQ(out == c.get(), row.same_block);
        adopt(c, out);
        Owned fresh(snmp_create_value_container(row.value, row.len, row.tag, 9));
        ASSERT_NE(fresh, nullptr);
        EXPECT_EQ(fresh->capacity, std::max<uint32_t>(row.length, 1));
        for (const snmp_container* got : {c.get(), fresh.get()}) {
            EXPECT_EQ(got->native, row.kind);
            EXPECT_EQ(got->length, row.length);
            EXPECT_EQ(got->tag, row.tag);
            EXPECT_EQ(got->hint, 9);
            EXPECT_EQ(bytes(snmp_container_const_octets(got), row.stored.size()), row.stored);
        }
    }

    // Refused input leaves the container exactly as it was, and a fresh container from the
    // same input is refused without a leak.
    struct Bad {
        const char* name;
        const void* value;
        uint32_t len;
        uint8_t tag;
    } bad[] = {
        {"INTEGER of 3 bytes", twenty, 3, 0x02},   {"Counter64 of 4 bytes", twenty, 4, 0x46},
        {"BIT STRING tag", twenty, 4, 0x03},       {"NsapAddress tag", twenty, 4, 0x45},
        {"oid failing first arc", "5.1", 0, 0x06}, {"octets without bytes", nullptr, 3, 0x04},
    };
    for (const Bad& row : bad) {
        SCOPED_TRACE(row.name);
        Owned c = oid("1.3.6.1");
        uint8_t before[sizeof(snmp_container)];
        std::memcpy(before, c.get(), sizeof before);
        EXPECT_EQ(snmp_replace_container_value(c.get(), row.value, row.len, row.tag, 9), nullptr);
        EXPECT_EQ(std::memcmp(before, c.get(), sizeof before), 0);
        EXPECT_EQ(snmp_create_value_container(row.value, row.len, row.tag, 0), nullptr);
    }
}

TEST(SnmpContainer, CopyReuseAndGrowth) {
    const char* twenty = "ABCDEFGHIJKLMNOPQRST";
    Owned src(snmp_create_value_container(twenty, 20, SNMP_TAG_OCTET_STRING, 1));
    Owned dst = oid("1.3.6.1.2.1.2.2.1.10");  // 10 sub-identifiers: 56 bytes, room for 20 octets
    snmp_container* copied = snmp_copy_container_value(dst.get(), src.get());
    EXPECT_EQ(copied, dst.get());
    adopt(dst, copied);
    EXPECT_EQ(dst->capacity, 20u);
    EXPECT_EQ(dst->length, 20u);
    EXPECT_EQ(dst->native, SNMP_NATIVE_OCTETS);
    EXPECT_EQ(dst->hint, 1);
    EXPECT_EQ(bytes(snmp_container_octets(dst.get()), 20), twenty);

    // An OID bigger than the destination's block moves it; a null destination gets a new one.
    Owned long_oid = oid("1.3.6.1.2.1.2.2.1.10.1.2.3.4.5.6.7.8.9.10");
    Owned scalar(snmp_create_value_container(twenty, 4, SNMP_TAG_COUNTER32, 0));
    copied = snmp_copy_container_value(scalar.get(), long_oid.get());
    EXPECT_NE(copied, scalar.get());
    adopt(scalar, copied);
    EXPECT_EQ(snmp_compare_oid_subids(scalar.get(), long_oid.get(), 0), 0);
    Owned fresh(snmp_copy_container_value(nullptr, long_oid.get()));
    EXPECT_EQ(text_of(fresh.get()), text_of(long_oid.get()));
    EXPECT_EQ(snmp_copy_container_value(fresh.get(), fresh.get()), fresh.get());
    EXPECT_EQ(snmp_copy_container_value(fresh.get(), nullptr), nullptr);

    // Reuse in place keeps tag, hint and bytes; a larger kind/capacity moves to a zeroed block.
    snmp_container* before = src.get();
    EXPECT_EQ(snmp_reuse_container(src.get(), SNMP_NATIVE_OID, 2), before);
    EXPECT_EQ(src->length, 0u);
    EXPECT_EQ(src->capacity, 2u);
    EXPECT_EQ(src->tag, SNMP_TAG_OCTET_STRING);
    EXPECT_EQ(src->value.octets[0], 'A');
    snmp_container* reused = snmp_reuse_container(src.get(), SNMP_NATIVE_OCTETS, 200);
    EXPECT_NE(reused, before);
    adopt(src, reused);
    EXPECT_EQ(snmp_container_alloc_size(src.get()), snmp_get_b_len(SNMP_NATIVE_OCTETS, 200));
    EXPECT_EQ(src->tag, 0);
    EXPECT_EQ(snmp_reuse_container(src.get(), 0, 1), nullptr);
    EXPECT_EQ(snmp_reuse_container(nullptr, SNMP_NATIVE_OID, 1), nullptr);

    // Growth: in place while the recorded block size suffices, even after the capacity was
    // lowered by a reuse; beyond it the contents move to the new block.
    adopt(src, snmp_reuse_container(src.get(), SNMP_NATIVE_OCTETS, 3));
    std::memcpy(snmp_container_octets(src.get()), "abc", 3);
    before = src.get();
    EXPECT_EQ(snmp_expand_container(src.get(), 197), before);
    EXPECT_EQ(src->capacity, 200u);
    snmp_container* grown = snmp_expand_container(src.get(), 1);
    EXPECT_NE(grown, before);
    adopt(src, grown);
    EXPECT_EQ(src->capacity, 201u);
    EXPECT_EQ(bytes(snmp_container_octets(src.get()), 3), "abc");
    EXPECT_EQ(snmp_container_alloc_size(src.get()), snmp_get_b_len(SNMP_NATIVE_OCTETS, 201));
    EXPECT_EQ(snmp_expand_container(src.get(), UINT32_MAX), nullptr);
    EXPECT_EQ(src->capacity, 201u);
}

TEST(SnmpContainer, OidAppendAndRefill) {
    Owned c = oid("1.3");
    adopt(c, snmp_expand_oid_container(c.get(), "40.1"));  // no first-arc check when appending
    EXPECT_EQ(text_of(c.get()), "1.3.40.1");
    EXPECT_EQ(c->capacity, 4u);
    // A leading dot forces the first-arc check even when appending; failure restores capacity.
    EXPECT_EQ(snmp_expand_oid_container(c.get(), ".40"), nullptr);
    EXPECT_EQ(text_of(c.get()), "1.3.40.1");
    EXPECT_EQ(c->capacity, 4u);

    std::vector<uint32_t> many(100);
    for (uint32_t i = 0; i < many.size(); ++i) {
        many[i] = 0xFFFFFF00u + i;
    }
    adopt(c, snmp_expand_oid_container_by_int(c.get(), many.data(), 100));
    ASSERT_EQ(c->length, 104u);
    EXPECT_EQ(snmp_container_subids(c.get())[2], 40u);
    EXPECT_EQ(snmp_container_subids(c.get())[103], 0xFFFFFF63u);
    EXPECT_EQ(snmp_expand_oid_container_by_int(c.get(), many.data(), 0), nullptr);

    // Refilling a large block with a short OID stays in place; capacity follows the count.
    c->hint = 5;
    snmp_container* before = c.get();
    EXPECT_EQ(snmp_fill_container_with_oid(c.get(), ".1.3.6.1.4.1"), before);
    EXPECT_EQ(text_of(c.get()), "1.3.6.1.4.1");
    EXPECT_EQ(c->capacity, 6u);
    EXPECT_EQ(c->hint, 5);
    EXPECT_EQ(snmp_fill_container_with_oid(c.get(), "1.40"), nullptr);
    EXPECT_EQ(c->capacity, 6u);
    EXPECT_EQ(text_of(c.get()), "1.3.6.1.4.1");

    Owned small = oid("1.3");
    snmp_container* refilled = snmp_fill_container_with_oid(small.get(), "1.3.6.1.2.1.1.1.0");
    EXPECT_NE(refilled, small.get());
    adopt(small, refilled);
    EXPECT_EQ(text_of(small.get()), "1.3.6.1.2.1.1.1.0");

    Owned number(snmp_create_value_container("\xFF", 1, SNMP_TAG_INTEGER, 0));
    EXPECT_EQ(snmp_fill_container_with_oid(number.get(), "1.3"), nullptr);
    EXPECT_EQ(snmp_expand_oid_container(number.get(), "1.3"), nullptr);
}

// Runs in a forked child: with the address space capped, large blocks cannot be had, and
// each failing operation must leave the container as it was. Returns the exit status.
[[maybe_unused]] int fail_allocations_under_a_limit() {
    // The source array is untouched calloc memory: address space, but next to no pages.
    constexpr uint32_t kMany = 96u << 20;
    auto* many = static_cast<uint32_t*>(std::calloc(kMany, 4));
    snmp_container* c = snmp_create_oid_container("1.3.6.1");
    rlimit limit{600u << 20, 600u << 20};
    if (many == nullptr || c == nullptr || setrlimit(RLIMIT_AS, &limit) != 0) {
        return 2;
    }
    auto failed = [&](snmp_container* result) {
        const bool ok = result == nullptr && our_error == -4 && c->capacity == 4 &&
                        c->length == 4 && c->native == SNMP_NATIVE_OID;
        our_error = 0;
        return ok;
    };
    if (!failed(snmp_expand_container(c, 0x30000000u)) ||
        !failed(snmp_reuse_container(c, SNMP_NATIVE_OID, 0x30000000u)) ||
        !failed(snmp_expand_oid_container_by_int(c, many, kMany))) {
        return 1;
    }
    return snmp_fill_container_with_oid(c, "1.3.6") == c && c->length == 3 ? 0 : 1;
}

TEST(SnmpContainer, OutOfMemoryLeavesTheContainerUsable) {
#if defined(VX_UNDER_ASAN)
    GTEST_SKIP() << "the address sanitizer reserves address space, so an address-space limit "
                    "cannot simulate exhausted memory";
#else
    EXPECT_EXIT(std::exit(fail_allocations_under_a_limit()), testing::ExitedWithCode(0), "");
#endif
}

TEST(SnmpContainer, NvtAsciiAndNativeCopy) {
    struct Nvt {
        std::string bytes;
        int expected;
    } nvt[] = {
        {"a\r\nb", 1}, {bytes("a\r\0b", 4), 1},
        {"a\rb", 0},   {"a\r", 0},
        {"a\x7F", 0},  {"\x80", 0},
        {"\t", 1},     {"", 1},
        {"\r\r\n", 0}, {"\r\n\r", 0},
    };
    for (const Nvt& row : nvt) {
        SCOPED_TRACE(testing::PrintToString(row.bytes));
        EXPECT_EQ(snmp_is_nvt_ascii(reinterpret_cast<const uint8_t*>(row.bytes.data()),
                                    static_cast<uint32_t>(row.bytes.size())),
                  row.expected);
    }

    uint8_t* copy = snmp_get_native_copy("ab\0c", 4);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(bytes(copy, 4), bytes("ab\0c", 4));
    std::free(copy);
    copy = snmp_get_native_copy(nullptr, 0);  // still a terminated buffer
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy[0], 0);
    std::free(copy);
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

// Comparison and printable form of transport addresses.
TEST(SnmpUtil, NetAddresses) {
    const snmp_net_addr tcp{SNMP_DOMAIN_TCP, {{127, 0, 0, 1}}, {0x00, 0xA1}};
    snmp_net_addr udp{SNMP_DOMAIN_UDP, {{192, 168, 255, 254}}, {0xFF, 0xFF}},
        tcp_udp = tcp, port = tcp, ip = tcp, fd{SNMP_DOMAIN_UNIX_FD, {}, {1, 2}}, odd{2, {}, {}};
    tcp_udp.domain = SNMP_DOMAIN_UDP;
    port.port[1] = 162;
    ip.address.ip[3] = 2;
    fd.address.fd = -3;
    snmp_net_addr fd_b = fd;
    fd_b.port[0] = 9;  // ports mean nothing for descriptors
    EXPECT_EQ(snmp_compare_net_addr(&tcp, &tcp), 0);
    EXPECT_EQ(snmp_compare_net_addr(&tcp, &tcp_udp), -1);
    EXPECT_EQ(snmp_compare_net_addr(&tcp, &port), -1);
    EXPECT_EQ(snmp_compare_net_addr(&tcp, &ip), -1);
    EXPECT_EQ(snmp_compare_net_addr(&fd, &fd_b), 0);
    EXPECT_EQ(snmp_compare_net_addr(&odd, &odd), -2);
    EXPECT_EQ(snmp_compare_net_addr(&tcp, nullptr), -1);

    EXPECT_STREQ(snmp_net_addr_to_string(nullptr), "Null ptr");
    EXPECT_STREQ(snmp_net_addr_to_string(&tcp), "TCP 127.0.0.1 port 161");
    EXPECT_STREQ(snmp_net_addr_to_string(&udp), "UDP 192.168.255.254 port 65535");
    EXPECT_STREQ(snmp_net_addr_to_string(&fd), "UNIX file descriptor -3.");
    EXPECT_STREQ(snmp_net_addr_to_string(&odd), "Unknown domain");
}

}  // namespace
