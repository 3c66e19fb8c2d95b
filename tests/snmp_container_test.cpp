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
    void operator()(snmp_container* c) const { snmp_free_container(c); }
};
using Owned = std::unique_ptr<snmp_container, ContainerFree>;

Owned oid(const char* text)
{
    return Owned(snmp_create_oid_container(text));
}

std::vector<uint32_t> subids_of(const snmp_container* c)
{
    const uint32_t* s = snmp_container_const_subids(c);
    return std::vector<uint32_t>(s, s + c->length);
}

std::string text_of(const snmp_container* c)
{
    char* text = snmp_oid_to_string(c);
    std::string out = text != nullptr ? text : "<null>";
    std::free(text);
    return out;
}

// Replaces the held container by what an operation returned, the way callers must.
void adopt(Owned& holder, snmp_container* result)
{
    ASSERT_NE(result, nullptr);
    (void)holder.release();
    holder.reset(result);
}

TEST(SnmpContainer, SizeRuleAndCreation)
{
    constexpr uint32_t F = SNMP_CONTAINER_FIXED_SIZE;
    struct Row {
        const char* name;
        uint8_t kind;
        uint32_t count;
        uint32_t size;
    } rows[] = {
        {"kind 0", 0, 1, 0},
        {"kind 13", 13, 1, 0},
        {"kind 1", 1, 0, F},
        {"scalar ignores count", SNMP_NATIVE_U32, 1000, F},
        {"octets empty", SNMP_NATIVE_OCTETS, 0, F},
        {"octets 8", SNMP_NATIVE_OCTETS, 8, F},
        {"octets 9", SNMP_NATIVE_OCTETS, 9, F + 1},
        {"oid 2", SNMP_NATIVE_OID, 2, F},
        {"oid 3", SNMP_NATIVE_OID, 3, F + 4},
        {"oid 128", SNMP_NATIVE_OID, 128, F + 504},
        {"octets beyond the size word", SNMP_NATIVE_OCTETS, UINT32_MAX, 0},
        {"oid beyond the size word", SNMP_NATIVE_OID, 0x40000000u, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(snmp_get_b_len(row.kind, row.count), row.size);
        if (row.size == 0) {
            EXPECT_EQ(snmp_create_container(row.kind, row.count), nullptr);
            continue;
        }
        Owned c(snmp_create_container(row.kind, row.count));
        ASSERT_NE(c, nullptr);
        EXPECT_EQ(snmp_container_alloc_size(c.get()), row.size);
        EXPECT_EQ(c->capacity, row.count);
        EXPECT_EQ(c->native, row.kind);
        EXPECT_EQ(c->length + c->hint + c->tag + c->value.words[0] + c->value.words[1], 0u);
    }
}

TEST(SnmpContainer, OidTextSyntax)
{
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
        EXPECT_EQ(subids_of(c.get()), row.subids);
    }
    EXPECT_EQ(snmp_validate_and_count(nullptr, 0), 0u);
}

TEST(SnmpContainer, OidOrderAndSubtrees)
{
    struct Row {
        const char* a;
        const char* b;
        uint32_t n;
        int32_t expected;
    } rows[] = {
        {"1.3.6.1", "1.3.6.1.2", 0, -1},
        {"1.3.6.1", "1.3.6.1.2", 4, 0},
        {"1.3.6.1.2", "1.3.6.1", 4, 0},
        {"1.3.6.1.2", "1.3.6.1", 0, 1},
        {"1.3.5.9", "1.3.6.1", 4, -1},
        {"1.3.7", "1.3.6.1", 4, 1},
        {"1.3.6", "1.3.6.1", 4, -1},  // a proper prefix sorts before the subtree
        {"1.3.6.1", "1.3.6.1", 0, 0},
        {"1.3", "1.3", 5, 0},
        {"1.3", "1.3.6", 5, -1},
        {"2.4294967295", "2.1", 0, 1},
        {"2.1", "2.4294967295", 0, -1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.a) + " vs " + row.b + " n " + std::to_string(row.n));
        Owned a = oid(row.a);
        Owned b = oid(row.b);
        EXPECT_EQ(snmp_compare_oid_subids(a.get(), b.get(), row.n), row.expected);
    }
    Owned a = oid("1.3");
    int32_t seven = 7;
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

TEST(SnmpContainer, OidToTextRoundTrip)
{
    std::string max30;
    for (int i = 0; i < 30; ++i) {
        max30 += i == 0 ? "2" : ".4294967295";
    }
    std::string long128 = "1.3";
    for (int i = 2; i < 128; ++i) {
        long128 += "." + std::to_string(i * 1000003u);
    }
    const std::string rows[] = {"0", "2.40", "1.3.6.1.4.1.2.2.1.1.1.0", max30, long128};
    for (const std::string& text : rows) {
        SCOPED_TRACE(text.substr(0, 40));
        Owned c = oid(text.c_str());
        ASSERT_NE(c, nullptr);
        EXPECT_EQ(text_of(c.get()), text);
    }
    Owned empty(snmp_create_container(SNMP_NATIVE_OID, 0));
    EXPECT_EQ(text_of(empty.get()), "");
    Owned octets(snmp_create_container(SNMP_NATIVE_OCTETS, 4));
    EXPECT_EQ(snmp_oid_to_string(octets.get()), nullptr);
    EXPECT_EQ(snmp_oid_to_string(nullptr), nullptr);
}

std::vector<uint8_t> bytes_of(const void* p, size_t n)
{
    auto* b = static_cast<const uint8_t*>(p);
    return std::vector<uint8_t>(b, b + n);
}

TEST(SnmpContainer, ReplaceValue)
{
    uint8_t twenty[20];
    for (int i = 0; i < 20; ++i) {
        twenty[i] = static_cast<uint8_t>(i + 1);
    }
    const int32_t seven = 7;
    const uint8_t ff = 0xFF;
    const int16_t minus129 = -129;
    const uint32_t words[2] = {1, 2};
    const uint32_t w_minus1 = 0xFFFFFFFFu, w_255 = 255, w_minus129 = static_cast<uint32_t>(-129),
                   w_ff7f = 0xFF7Fu, w_7 = 7;
    const std::vector<uint8_t> zero8(8, 0);
    struct Row {
        const char* name;
        const char* start_oid;  // null: start from INTEGER 7
        const void* value;
        uint32_t len;
        uint8_t tag;
        bool ok;
        bool same_block;
        uint8_t kind;
        uint32_t length;
        std::vector<uint8_t> stored;  // leading value bytes expected
    } rows[] = {
        {"oid to INTEGER 7 keeps the block", "1.3.6.1.2.1.1.1.0.5", &seven, 4, 0x02, true, true,
         SNMP_NATIVE_S32, 1, bytes_of(&w_7, 4)},
        {"INTEGER to 1 octet", nullptr, "x", 1, 0x04, true, true, SNMP_NATIVE_OCTETS, 1, {'x'}},
        {"INTEGER to 20 octets moves", nullptr, twenty, 20, 0x44, true, false, SNMP_NATIVE_OCTETS,
         20, bytes_of(twenty, 20)},
        {"empty octets", nullptr, "", 0, 0x04, true, true, SNMP_NATIVE_OCTETS, 0, {0}},
        {"INTEGER to oid text", nullptr, "1.3.6.1.4", 0, 0x06, true, false, SNMP_NATIVE_OID, 5, {}},
        {"INTEGER 0xFF is -1", nullptr, &ff, 1, 0x02, true, true, SNMP_NATIVE_S32, 1,
         bytes_of(&w_minus1, 4)},
        {"Gauge32 0xFF is 255", nullptr, &ff, 1, 0x42, true, true, SNMP_NATIVE_U32, 1,
         bytes_of(&w_255, 4)},
        {"INTEGER of 2 bytes", nullptr, &minus129, 2, 0x02, true, true, SNMP_NATIVE_S32, 1,
         bytes_of(&w_minus129, 4)},
        {"TimeTicks of 2 bytes", nullptr, &minus129, 2, 0x43, true, true, SNMP_NATIVE_U32, 1,
         bytes_of(&w_ff7f, 4)},
        {"IpAddress keeps octet order", nullptr, "\x0a\0\0\x01", 4, 0x40, true, true,
         SNMP_NATIVE_U32, 1, {10, 0, 0, 1}},
        {"Counter64", nullptr, words, 8, 0x46, true, true, SNMP_NATIVE_U64, 1, bytes_of(words, 8)},
        {"NULL ignores length", "1.3.6.1.2.1", twenty, 20, 0x05, true, true, SNMP_NATIVE_NULL, 1,
         zero8},
        {"endOfMibView", nullptr, nullptr, 0, 0x82, true, true, SNMP_NATIVE_NULL, 1, zero8},
        {"INTEGER of 3 bytes", nullptr, twenty, 3, 0x02, false, true, 0, 0, {}},
        {"Counter64 of 4 bytes", nullptr, twenty, 4, 0x46, false, true, 0, 0, {}},
        {"BIT STRING tag", nullptr, twenty, 4, 0x03, false, true, 0, 0, {}},
        {"NsapAddress tag", nullptr, twenty, 4, 0x45, false, true, 0, 0, {}},
        {"bad oid text", "1.3.6.1", "1.3.", 0, 0x06, false, true, 0, 0, {}},
        {"oid failing first arc", "1.3.6.1", "5.1", 0, 0x06, false, true, 0, 0, {}},
        {"octets without bytes", nullptr, nullptr, 3, 0x04, false, true, 0, 0, {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Owned c(row.start_oid != nullptr ? snmp_create_oid_container(row.start_oid)
                                         : snmp_create_value_container(&seven, 4, 0x02, 0));
        ASSERT_NE(c, nullptr);
        uint8_t before[sizeof(snmp_container)];
        std::memcpy(before, c.get(), sizeof before);
        snmp_container* out = snmp_replace_container_value(c.get(), row.value, row.len, row.tag, 9);
        if (!row.ok) {
            EXPECT_EQ(out, nullptr);
            EXPECT_EQ(std::memcmp(before, c.get(), sizeof before), 0) << "rejected input changed";
            // A fresh container from the same input is refused and nothing leaks.
            EXPECT_EQ(snmp_create_value_container(row.value, row.len, row.tag, 0), nullptr);
            continue;
        }
        EXPECT_EQ(out == c.get(), row.same_block);
        adopt(c, out);
        EXPECT_EQ(c->native, row.kind);
        EXPECT_EQ(c->length, row.length);
        EXPECT_EQ(c->tag, row.tag);
        EXPECT_EQ(c->hint, 9);
        EXPECT_EQ(bytes_of(snmp_container_octets(c.get()), row.stored.size()), row.stored);

        Owned fresh(snmp_create_value_container(row.value, row.len, row.tag, 9));
        ASSERT_NE(fresh, nullptr);
        EXPECT_EQ(fresh->capacity, std::max<uint32_t>(row.length, 1));
        EXPECT_EQ(bytes_of(snmp_container_octets(fresh.get()), row.stored.size()), row.stored);
    }
}

TEST(SnmpContainer, CopyReuseAndGrowth)
{
    uint8_t twenty[20];
    for (int i = 0; i < 20; ++i) {
        twenty[i] = static_cast<uint8_t>(0xA0 + i);
    }
    Owned src(snmp_create_value_container(twenty, 20, SNMP_TAG_OCTET_STRING, 1));
    Owned dst = oid("1.3.6.1.2.1.2.2.1.10");  // 10 sub-identifiers: 56 bytes, room for 20 octets
    snmp_container* copied = snmp_copy_container_value(dst.get(), src.get());
    EXPECT_EQ(copied, dst.get());
    adopt(dst, copied);
    EXPECT_EQ(dst->capacity, 20u);
    EXPECT_EQ(dst->length, 20u);
    EXPECT_EQ(dst->native, SNMP_NATIVE_OCTETS);
    EXPECT_EQ(dst->hint, 1);
    EXPECT_EQ(std::memcmp(snmp_container_octets(dst.get()), twenty, 20), 0);

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
    snmp_container* reused = snmp_reuse_container(src.get(), SNMP_NATIVE_OID, 2);
    EXPECT_EQ(reused, before);
    EXPECT_EQ(src->length, 0u);
    EXPECT_EQ(src->capacity, 2u);
    EXPECT_EQ(src->tag, SNMP_TAG_OCTET_STRING);
    EXPECT_EQ(src->value.octets[0], 0xA0);
    reused = snmp_reuse_container(src.get(), SNMP_NATIVE_OCTETS, 200);
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
    EXPECT_EQ(std::memcmp(snmp_container_octets(src.get()), "abc", 3), 0);
    EXPECT_EQ(snmp_container_alloc_size(src.get()), snmp_get_b_len(SNMP_NATIVE_OCTETS, 201));
    EXPECT_EQ(snmp_expand_container(src.get(), UINT32_MAX), nullptr);
    EXPECT_EQ(src->capacity, 201u);
}

TEST(SnmpContainer, OidAppendAndRefill)
{
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

    const uint8_t ff = 0xFF;
    Owned number(snmp_create_value_container(&ff, 1, SNMP_TAG_INTEGER, 0));
    EXPECT_EQ(snmp_fill_container_with_oid(number.get(), "1.3"), nullptr);
    EXPECT_EQ(snmp_expand_oid_container(number.get(), "1.3"), nullptr);
}

// Runs in a forked child: with the address space capped, large blocks cannot be had, and
// each failing operation must leave the container as it was. Returns the exit status.
[[maybe_unused]] int fail_allocations_under_a_limit()
{
    // The source array is untouched calloc memory: address space, but next to no pages.
    constexpr uint32_t kMany = 96u << 20;
    auto* many = static_cast<uint32_t*>(std::calloc(kMany, 4));
    snmp_container* c = snmp_create_oid_container("1.3.6.1");
    rlimit limit{600u << 20, 600u << 20};
    if (many == nullptr || c == nullptr || setrlimit(RLIMIT_AS, &limit) != 0) {
        return 2;
    }
    if (snmp_expand_container(c, 0x30000000u) != nullptr || our_error != -4 || c->capacity != 4) {
        return 1;
    }
    our_error = 0;
    if (snmp_reuse_container(c, SNMP_NATIVE_OID, 0x30000000u) != nullptr || our_error != -4 ||
        c->capacity != 4 || c->native != SNMP_NATIVE_OID) {
        return 1;
    }
    our_error = 0;
    if (snmp_expand_oid_container_by_int(c, many, kMany) != nullptr ||
        our_error != -4 || c->capacity != 4 || c->length != 4) {
        return 1;
    }
    return snmp_fill_container_with_oid(c, "1.3.6") == c && c->length == 3 ? 0 : 1;
}

TEST(SnmpContainer, OutOfMemoryLeavesTheContainerUsable)
{
#if defined(VX_UNDER_ASAN)
    GTEST_SKIP() << "the address sanitizer reserves address space, so an address-space limit "
                    "cannot simulate exhausted memory";
#else
    EXPECT_EXIT(std::exit(fail_allocations_under_a_limit()), testing::ExitedWithCode(0), "");
#endif
}

TEST(SnmpContainer, NvtAsciiNativeCopyAndAddresses)
{
    struct Nvt {
        const char* name;
        std::vector<uint8_t> bytes;
        int expected;
    } nvt[] = {
        {"CR LF", {'a', 13, 10, 'b'}, 1}, {"CR NUL", {'a', 13, 0, 'b'}, 1},
        {"bare CR", {'a', 13, 'b'}, 0},   {"CR last", {'a', 13}, 0},
        {"DEL", {'a', 127}, 0},           {"high bit", {0x80}, 0},
        {"tab", {'\t'}, 1},               {"empty", {}, 1},
        {"CR CR LF", {13, 13, 10}, 0},    {"CR LF then lone CR", {13, 10, 13}, 0},
    };
    for (const Nvt& row : nvt) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(snmp_is_nvt_ascii(row.bytes.data(), static_cast<uint32_t>(row.bytes.size())),
                  row.expected);
    }

    uint8_t* copy = snmp_get_native_copy("ab\0c", 4);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(std::memcmp(copy, "ab\0c", 4), 0);
    std::free(copy);
    copy = snmp_get_native_copy(nullptr, 0);  // still a terminated buffer
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy[0], 0);
    std::free(copy);

    const snmp_net_addr tcp{SNMP_DOMAIN_TCP, {{127, 0, 0, 1}}, {0, 161}};
    snmp_net_addr udp = tcp, port = tcp, ip = tcp, fd7{SNMP_DOMAIN_UNIX_FD, {}, {1, 2}}, odd{42, {}, {}};
    udp.domain = SNMP_DOMAIN_UDP;
    port.port[1] = 162;
    ip.address.ip[3] = 2;
    fd7.address.fd = 7;
    snmp_net_addr fd7b = fd7;
    fd7b.port[0] = 9;  // ports mean nothing for descriptors
    struct Addr {
        const char* name;
        const snmp_net_addr* a;
        const snmp_net_addr* b;
        int expected;
    } addrs[] = {
        {"same tcp", &tcp, &tcp, 0},       {"tcp vs udp", &tcp, &udp, -1},
        {"port differs", &tcp, &port, -1}, {"address differs", &tcp, &ip, -1},
        {"same descriptor", &fd7, &fd7b, 0}, {"unknown domain", &odd, &odd, -2},
        {"null", &tcp, nullptr, -1},
    };
    for (const Addr& row : addrs) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(snmp_compare_net_addr(row.a, row.b), row.expected);
    }
}

}  // namespace
