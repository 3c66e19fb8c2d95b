// Containers: size rule, reuse and growth in place, OID text, ordering, copying and the
// small helpers that live beside them.
#include "snmp_container.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define VX_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VX_UNDER_ASAN 1
#endif
#endif

namespace {

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
    char twenty[21] = "ABCDEFGHIJKLMNOPQRST";
    const int32_t seven = 7;
    const int16_t minus129 = -129;
    const uint32_t words[2] = {1, 2}, u_minus1 = 0xFFFFFFFFu, u_255 = 255, u_ff7f = 0xFF7F,
                   u_minus129 = static_cast<uint32_t>(-129);
    struct Row {
        const char* name;
        const char* start_oid;  // null: start from INTEGER 7
        const void* value;
        uint32_t len;
        uint8_t tag;
        bool same_block;
        uint8_t kind;
        uint32_t length;
        std::string stored;  // leading value bytes
    } rows[] = {
        {"oid to INTEGER 7", "1.3.6.1.2.1.1.1.0.5", &seven, 4, 0x02, true, SNMP_NATIVE_S32, 1,
         bytes(&seven, 4)},
        {"1 octet", nullptr, "x", 1, 0x04, true, SNMP_NATIVE_OCTETS, 1, "x"},
        {"20 octets move", nullptr, twenty, 20, 0x44, false, SNMP_NATIVE_OCTETS, 20, twenty},
        {"empty octets", nullptr, "", 0, 0x04, true, SNMP_NATIVE_OCTETS, 0, bytes("", 1)},
        {"oid text", nullptr, "1.3.6.1.4", 0, 0x06, false, SNMP_NATIVE_OID, 5, ""},
        {"INTEGER 0xFF is -1", nullptr, "\xFF", 1, 0x02, true, SNMP_NATIVE_S32, 1,
         bytes(&u_minus1, 4)},
        {"Gauge32 0xFF is 255", nullptr, "\xFF", 1, 0x42, true, SNMP_NATIVE_U32, 1,
         bytes(&u_255, 4)},
        {"INTEGER of 2 bytes", nullptr, &minus129, 2, 0x02, true, SNMP_NATIVE_S32, 1,
         bytes(&u_minus129, 4)},
        {"TimeTicks of 2 bytes", nullptr, &minus129, 2, 0x43, true, SNMP_NATIVE_U32, 1,
         bytes(&u_ff7f, 4)},
        {"IpAddress keeps octet order", nullptr, "\x0a\0\0\x01", 4, 0x40, true, SNMP_NATIVE_U32, 1,
         bytes("\x0a\0\0\x01", 4)},
        {"Counter64", nullptr, words, 8, 0x46, true, SNMP_NATIVE_U64, 1, bytes(words, 8)},
        {"NULL ignores length", "1.3.6.1.2.1", twenty, 20, 0x05, true, SNMP_NATIVE_NULL, 1,
         std::string(8, '\0')},
        {"endOfMibView", nullptr, nullptr, 0, 0x82, true, SNMP_NATIVE_NULL, 1,
         std::string(8, '\0')},
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
    EXPECT_EQ(text_of(Owned(snmp_create_value_container("1.3.6.1.4", 0, 0x06, 0)).get()),
              "1.3.6.1.4");

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

TEST(SnmpContainer, NvtAsciiNativeCopyAndAddresses) {
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

    const snmp_net_addr tcp{SNMP_DOMAIN_TCP, {{127, 0, 0, 1}}, {0, 161}};
    snmp_net_addr udp = tcp, port = tcp, ip = tcp, fd7{SNMP_DOMAIN_UNIX_FD, {}, {1, 2}},
                  odd{42, {}, {}};
    udp.domain = SNMP_DOMAIN_UDP;
    port.port[1] = 162;
    ip.address.ip[3] = 2;
    fd7.address.fd = 7;
    snmp_net_addr fd7b = fd7;
    fd7b.port[0] = 9;  // ports mean nothing for descriptors
    EXPECT_EQ(snmp_compare_net_addr(&tcp, &tcp), 0);
    EXPECT_EQ(snmp_compare_net_addr(&tcp, &udp), -1);
    EXPECT_EQ(snmp_compare_net_addr(&tcp, &port), -1);
    EXPECT_EQ(snmp_compare_net_addr(&tcp, &ip), -1);
    EXPECT_EQ(snmp_compare_net_addr(&fd7, &fd7b), 0);
    EXPECT_EQ(snmp_compare_net_addr(&odd, &odd), -2);
    EXPECT_EQ(snmp_compare_net_addr(&tcp, nullptr), -1);
}

}  // namespace
