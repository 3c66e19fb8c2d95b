// Printable forms of container values, TimeTicks counts and transport addresses.
#include "snmp_util.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

const char* const truth_val_text[SNMP_TRUTH_VAL_TEXT_COUNT] = {"unknown/other", "true", "false"};
const char* const row_status_text[SNMP_ROW_STATUS_TEXT_COUNT] = {
    "unknown/other", "active", "notInService", "notReady", "createAndGo", "createAndWait",
    "destroy"};
const char* const stor_type_text[SNMP_STOR_TYPE_TEXT_COUNT] = {
    "unknown/other", "other", "volatile", "nonVolatile", "permanent", "readOnly"};

namespace {

// Longest text of a 32-bit value: a 64-character name, a blank, and a number in brackets;
// a time text is shorter still.
constexpr size_t kScalarTextSize = 96;

// "65535-127-127,127:127:127.127,UTC+127:127" and then some.
constexpr size_t kDateTextSize = 64;

}  // namespace

// printf into a fresh heap string of exactly `size` bytes; null when out of memory.
[[gnu::format(printf, 2, 3)]] static char* heap_printf(size_t size, const char* format, ...)
{
    auto* text = static_cast<char*>(std::malloc(size));
    if (text == nullptr) {
        our_error = SNMP_ERR_NO_MEMORY;
        return nullptr;
    }
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, size, format, args);
    va_end(args);
    return text;
}

// The 32-bit word as the original 32-bit "long" would have printed it: "%ld" shows the
// word's signed reading and "%lu" its unsigned one, whatever the storage kind.
static long word_signed(uint32_t word)
{
    return static_cast<long>(static_cast<int32_t>(word));
}

static const char* hint_name(uint8_t hint, long v)
{
    const char* const* table = truth_val_text;
    long count = SNMP_TRUTH_VAL_TEXT_COUNT;
    if (hint == SNMP_HINT_ROW_STATUS) {
        table = row_status_text;
        count = SNMP_ROW_STATUS_TEXT_COUNT;
    } else if (hint == SNMP_HINT_STORAGE_TYPE) {
        table = stor_type_text;
        count = SNMP_STOR_TYPE_TEXT_COUNT;
    }
    return table[v >= 0 && v < count ? v : 0];
}

static char* word_to_string(const snmp_container* c, bool plain)
{
    uint32_t word = c->value.u32;
    long v = word_signed(word);
    switch (c->hint) {
    case SNMP_HINT_TRUTH_VALUE:
    case SNMP_HINT_ROW_STATUS:
    case SNMP_HINT_STORAGE_TYPE:
        if (plain) {
            return heap_printf(kScalarTextSize, "%ld", v);
        }
        return heap_printf(kScalarTextSize, "%.*s (%ld)", 64, hint_name(c->hint, v), v);
    case SNMP_HINT_TIME_TICKS:
        if (plain) {
            return heap_printf(kScalarTextSize, "%lu", static_cast<unsigned long>(word));
        }
        return heap_printf(kScalarTextSize, "%s", snmp_timeTicks_to_string(word));
    case SNMP_HINT_TIME_INTERVAL:
        if (plain) {
            return heap_printf(kScalarTextSize, "%ld", v);
        }
        return heap_printf(kScalarTextSize, "%s", snmp_timeTicks_to_string(word));
    default:
        break;
    }
    switch (c->tag) {
    case SNMP_TAG_IPADDRESS:
        return heap_printf(kScalarTextSize, "%d.%d.%d.%d", c->value.octets[0],
                           c->value.octets[1], c->value.octets[2], c->value.octets[3]);
    case SNMP_TAG_COUNTER32:
    case SNMP_TAG_GAUGE32:
        return heap_printf(kScalarTextSize, "%lu", static_cast<unsigned long>(word));
    case SNMP_TAG_TIMETICKS:
        if (plain) {
            return heap_printf(kScalarTextSize, "%lu", static_cast<unsigned long>(word));
        }
        return heap_printf(kScalarTextSize, "%s", snmp_timeTicks_to_string(word));
    default:
        return heap_printf(kScalarTextSize, "%ld", v);
    }
}

static char* hex_pairs_to_string(const uint8_t* octets, uint32_t n)
{
    auto* text = static_cast<char*>(std::malloc(size_t{n} * 3 + 1));
    if (text == nullptr) {
        our_error = SNMP_ERR_NO_MEMORY;
        return nullptr;
    }
    text[0] = '\0';
    for (uint32_t i = 0; i < n; ++i) {
        std::snprintf(text + size_t{i} * 3, 4, "%2.2x:", octets[i]);
    }
    if (n > 0) {
        text[size_t{n} * 3 - 1] = '\0';
    }
    return text;
}

static char* date_to_string(const uint8_t* octets, uint32_t n)
{
    // A short DateAndTime prints its missing fields as 0 rather than whatever follows it.
    uint8_t d[11] = {};
    std::memcpy(d, octets, n < sizeof d ? n : sizeof d);
    auto field = [&d](int i) { return static_cast<int>(static_cast<int8_t>(d[i])); };
    auto year = static_cast<unsigned short>(d[0] << 8 | d[1]);
    if (n > 10) {
        return heap_printf(kDateTextSize, "%hu-%d-%d,%d:%d:%d.%d,UTC%c%d:%d", year, field(2),
                           field(3), field(4), field(5), field(6), field(7), field(8), field(9),
                           field(10));
    }
    return heap_printf(kDateTextSize, "%hu-%d-%d,%d:%d:%d.%d", year, field(2), field(3),
                       field(4), field(5), field(6), field(7));
}

static char* octets_to_string(const snmp_container* c)
{
    const uint8_t* octets = snmp_container_const_octets(c);
    uint32_t n = c->length;
    if (c->hint == SNMP_HINT_PHYS_ADDRESS || c->hint == SNMP_HINT_MAC_ADDRESS) {
        return hex_pairs_to_string(octets, n);
    }
    if (c->hint == SNMP_HINT_DATE_AND_TIME) {
        return date_to_string(octets, n);
    }
    // Text when it is clean NVT ASCII; a trailing NUL is tolerated because many agents count
    // the C terminator in the string's length.
    bool text = snmp_is_nvt_ascii(octets, n) != 0 &&
                (n < 2 || std::memchr(octets, 0, n - 1) == nullptr);
    if (text) {
        // Only the last octet may be NUL, so a plain copy ends the text where printing would.
        auto* copy = static_cast<char*>(std::malloc(size_t{n} + 1));
        if (copy == nullptr) {
            our_error = SNMP_ERR_NO_MEMORY;
            return nullptr;
        }
        std::memcpy(copy, octets, n);
        copy[n] = '\0';
        return copy;
    }
    auto* hex = static_cast<char*>(std::malloc(size_t{n} * 2 + 4));
    if (hex == nullptr) {
        our_error = SNMP_ERR_NO_MEMORY;
        return nullptr;
    }
    char* p = hex;
    *p++ = '\'';
    for (uint32_t i = 0; i < n; ++i) {
        std::snprintf(p, 3, "%2.2x", octets[i]);
        p += 2;
    }
    std::memcpy(p, "'h", 3);
    return hex;
}

char* snmp_value_to_string_format(const snmp_container* c, int32_t flag)
{
    if (c == nullptr) {
        return nullptr;
    }
    switch (c->native) {
    case SNMP_NATIVE_OID:
        return snmp_oid_to_string(c);
    case SNMP_NATIVE_NULL: {
        const char* name = "";
        if (c->tag == SNMP_TAG_NO_SUCH_OBJECT) {
            name = "noSuchObject";
        } else if (c->tag == SNMP_TAG_NO_SUCH_INSTANCE) {
            name = "noSuchInstance";
        } else if (c->tag == SNMP_TAG_END_OF_MIB_VIEW) {
            name = "endOfMibView";
        }
        return heap_printf(std::strlen(name) + 1, "%s", name);
    }
    case SNMP_NATIVE_U64:
        return heap_printf(kScalarTextSize, "%lu.%lu",
                           static_cast<unsigned long>(c->value.words[0]),
                           static_cast<unsigned long>(c->value.words[1]));
    case SNMP_NATIVE_U32:
    case SNMP_NATIVE_S32:
        return word_to_string(c, flag == 1);
    case SNMP_NATIVE_OCTETS:
        return octets_to_string(c);
    default:
        return nullptr;
    }
}

const char* snmp_timeTicks_to_string(uint32_t ticks)
{
    static char buf[SNMP_TIMETICKS_TEXT_SIZE];
    uint32_t s = ticks / 100;
    int h = static_cast<int>(ticks % 100);
    int sec = static_cast<int>(s % 60);
    int min = static_cast<int>((s / 60) % 60);
    int hr = static_cast<int>((s / 3600) % 24);
    long d = static_cast<long>(s / 86400);
    int at = std::snprintf(buf, sizeof buf, "%lu - ", static_cast<unsigned long>(ticks));
    if (d > 0) {
        at += std::snprintf(buf + at, sizeof buf - static_cast<size_t>(at), "%ld days, ", d);
    }
    if (d > 0 || hr > 0) {
        at += std::snprintf(buf + at, sizeof buf - static_cast<size_t>(at), "%d hours, ", hr);
    }
    if (d > 0 || hr > 0 || min > 0) {
        at += std::snprintf(buf + at, sizeof buf - static_cast<size_t>(at), "%d minutes, ", min);
    }
    std::snprintf(buf + at, sizeof buf - static_cast<size_t>(at), "%d.%02d seconds", sec, h);
    return buf;
}

const char* snmp_net_addr_to_string(const snmp_net_addr* a)
{
    static char buf[SNMP_NET_ADDR_TEXT_SIZE];
    if (a == nullptr) {
        std::snprintf(buf, sizeof buf, "Null ptr");
        return buf;
    }
    const uint8_t* ip = a->address.ip;
    auto port = static_cast<unsigned short>(a->port[0] * 256 + a->port[1]);
    switch (a->domain) {
    case SNMP_DOMAIN_TCP:
        std::snprintf(buf, sizeof buf, "TCP %d.%d.%d.%d port %hu", ip[0], ip[1], ip[2], ip[3],
                      port);
        break;
    case SNMP_DOMAIN_UDP:
        std::snprintf(buf, sizeof buf, "%s %d.%d.%d.%d port %hu", "UDP", ip[0], ip[1], ip[2],
                      ip[3], port);
        break;
    case SNMP_DOMAIN_UNIX_FD:
        std::snprintf(buf, sizeof buf, "UNIX file descriptor %ld.",
                      static_cast<long>(a->address.fd));
        break;
    default:
        std::snprintf(buf, sizeof buf, "Unknown domain");
        break;
    }
    return buf;
}
