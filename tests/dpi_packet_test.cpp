// DPI packet library: building, parsing, round trips, truncations and releasing packets.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "snmpmDPI.h"
#include "vx_peers.h"

namespace {

// Vectors are written without the length field, which is derived from their size.
vx_bytes framed(const std::string& hex) {
    vx_bytes b = vx_hex(hex.c_str());
    b.insert(b.begin(), {static_cast<uint8_t>(b.size() >> 8), static_cast<uint8_t>(b.size())});
    return b;
}

vx_bytes bytes_of(const unsigned char* packet) {
    return packet ? vx_bytes(packet, packet + dpi_packet_len(packet)) : vx_bytes{};
}

// The parser on an allocation of exactly the packet's size, so that ASan sees any read past it.
dpi_hdr* parse_exact(const vx_bytes& bytes) {
    auto* copy = static_cast<unsigned char*>(malloc(bytes.size()));
    memcpy(copy, bytes.data(), bytes.size());
    dpi_hdr* hdr = pDPIpacket(copy);
    free(copy);
    return hdr;
}

unsigned char* request(int type, int version, int release, void* data) {
    dpi_hdr* hdr = mkDPIhdr_version(type, version, release);
    hdr->data = data;
    return mkDPIpacket(hdr);
}

dpi_set_packet* vb32(dpi_set_packet* chain, const char* instance, int type, uint32_t number) {
    return mkDPIset_packet(chain, "1.3.", instance, type, 4, &number);
}

// The packet number of the next version-2 header, without consuming one for good.
uint16_t next_packet_id() {
    dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_ARE_YOU_THERE, 2, 0);
    uint16_t id = hdr->packet_id;
    fDPIparse(hdr);
    return static_cast<uint16_t>(id + 1);
}

std::string text(const char* t) {
    return t ? t : "(null)";
}

std::string value_text(const dpi_set_packet* vb) {
    if (vb->value == nullptr) {
        return vb->value_len == 0 ? "-" : "(missing)";
    }
    uint32_t w[2] = {0, 0};
    if (vb->value_type >= 128 && vb->value_type != DPI_TYPE_IpAddress_v1 && vb->value_len == 4) {
        memcpy(w, vb->value, 4);
        return vb->value_type == DPI_TYPE_Integer32 ? std::to_string(static_cast<int32_t>(w[0]))
                                                    : std::to_string(w[0]);
    }
    if (vb->value_type == DPI_TYPE_Counter64 && vb->value_len == 8) {
        memcpy(w, vb->value, 8);
        return std::to_string(w[0]) + ":" + std::to_string(w[1]);
    }
    return vx_to_hex(vx_bytes(vb->value, vb->value + vb->value_len));
}

// One line per tree, so that a vector states the whole tree it must parse into.
std::string dump(const dpi_hdr* hdr) {
    if (hdr == nullptr) {
        return "(null)";
    }
    std::ostringstream os;
    os << "v" << +hdr->version << "." << +hdr->release << " id=" << hdr->packet_id
       << " t=" << +hdr->packet_type;
    if (hdr->extra_len != 0 || hdr->extra != nullptr) {
        os << " x=" << vx_to_hex(vx_bytes(hdr->extra, hdr->extra + hdr->extra_len));
    }
    auto ids = [&](const auto* r) {
        os << "g=" << text(r->group_id) << " i=" << text(r->instance_id)
           << " o=" << text(r->object_id);
    };
    auto chain = [&](const char* tag, const auto* r) {
        for (; r != nullptr; r = r->next) {
            os << " " << tag << "[";
            ids(r);
            if constexpr (std::is_same_v<decltype(r), const dpi_set_packet*>) {
                os << " t=" << +r->value_type << " v=" << value_text(r);
            }
            os << "]";
        }
    };
    const void* data = hdr->data;
    switch (hdr->packet_type) {
        case SNMP_DPI_GET:
            chain("get", static_cast<const dpi_get_packet*>(data));
            break;
        case SNMP_DPI_GETNEXT:
            chain("next", static_cast<const dpi_next_packet*>(data));
            break;
        case SNMP_DPI_SET:
        case SNMP_DPI_COMMIT:
        case SNMP_DPI_UNDO:
            chain("", static_cast<const dpi_set_packet*>(data));
            break;
        case SNMP_DPI_TRAP: {
            auto* t = static_cast<const dpi_trap_packet*>(data);
            os << " trap g=" << t->generic << " s=" << t->specific
               << " e=" << text(t->enterprise_id);
            chain("", t->varBinds);
            break;
        }
        case SNMP_DPI_RESPONSE: {
            auto* r = static_cast<const dpi_resp_packet*>(data);
            os << " resp c=" << +r->error_code << " i=" << r->error_index;
            chain("", r->varBinds);
            break;
        }
        case SNMP_DPI_REGISTER:
            for (auto* r = static_cast<const dpi_reg_packet*>(data); r; r = r->next) {
                os << " reg[p=" << r->priority << " t=" << r->timeout << " v=" << +r->view_selection
                   << " b=" << +r->bulk_selection << " g=" << text(r->group_id) << "]";
            }
            break;
        case SNMP_DPI_UNREGISTER:
            for (auto* r = static_cast<const dpi_ureg_packet*>(data); r; r = r->next) {
                os << " ureg[r=" << +r->reason << " g=" << text(r->group_id) << "]";
            }
            break;
        case SNMP_DPI_OPEN: {
            auto* o = static_cast<const dpi_open_packet*>(data);
            os << " open t=" << o->timeout << " m=" << o->max_varbinds << " c=" << +o->character_set
               << " o=" << text(o->object_id) << " d=" << text(o->description) << " p="
               << (o->password ? vx_to_hex(vx_bytes(o->password, o->password + o->password_len))
                               : "(null)");
            break;
        }
        case SNMP_DPI_CLOSE:
            os << " close r=" << +static_cast<const dpi_close_packet*>(data)->reason;
            break;
        default:
            os << (data ? " (data)" : "");
    }
    return os.str();
}

// Every prefix of a packet, with its length field saying so, is refused or read as a shorter
// packet (`all_refused`: always refused); never read beyond, never leaked.
void check_truncations(const vx_bytes& bytes, bool all_refused = false) {
    for (size_t len = 2; len < bytes.size(); len++) {
        SCOPED_TRACE(len);
        vx_bytes cut(bytes.begin(), bytes.begin() + static_cast<long>(len));
        cut[0] = static_cast<uint8_t>((len - 2) >> 8);
        cut[1] = static_cast<uint8_t>(len - 2);
        dpi_hdr* hdr = parse_exact(cut);
        if (all_refused) {
            EXPECT_EQ(hdr, nullptr) << dump(hdr);
        } else if (unsigned char* again = hdr ? cDPIpacket(hdr) : nullptr) {
            EXPECT_LE(dpi_packet_len(again), len + 2);  // at most the NULs a reader infers
        }
        fDPIparse(hdr);
    }
}

TEST(DpiBuild, PacketVectors) {
    // Each packet is copied out of the library's buffer as soon as it is made.
    const struct {
        const char* name;
        vx_bytes got;
        std::string hex;  // without the length field; version-2 packet number as 0000
    } rows[] = {
        {"close", bytes_of(mkDPIclose(2)), "020200 0000 09 02"},
        {"are you there", bytes_of(mkDPIayt()), "020200 0000 0f"},
        {"get, group with dot and instance",
         bytes_of(request(SNMP_DPI_GET, 2, 0, mkDPIget_packet(nullptr, "1.3.6.1.2.1.1.", "1.0"))),
         "020200 0000 01 0000 312e332e362e312e322e312e312e00 312e3000"},
        {"get, group without dot is written as it is",
         bytes_of(request(SNMP_DPI_GET, 2, 0, mkDPIget_packet(nullptr, "1.3", nullptr))),
         "020200 0000 01 0000 312e3300 00"},
        {"version-1 set: object identifier text, IpAddress as 133",
         bytes_of(request(SNMP_DPI_SET, 1, 0,
                          mkDPIset_packet(mkDPIset_packet(nullptr, "1.3.", "4", DPI_TYPE_IpAddress,
                                                          4, "\x0a\x00\x00\x01"),
                                          "1.3.", nullptr, DPI_TYPE_OCTET_STRING, 1, "x"))),
         "020100 03 312e332e3400 850004 0a000001 312e3300 020001 78"},
        {"register", bytes_of(mkDPIreg(5, -1, "1.3.6.", 1, 0)),
         "020200 0000 06 ffffffff 0005 00 01 312e332e362e00"},
        {"unregister", bytes_of(mkDPIureg(3, "1.3.")), "020200 0000 07 03 312e332e00"},
        {"open, empty description, no password",
         bytes_of(mkDPIopen("1.3.6.1.4.1.2", "", 10, 20, 1, 0, nullptr)),
         "020200 0000 08 000a 0014 01 312e332e362e312e342e312e3200 00 0000"},
        {"open with password",
         bytes_of(
             mkDPIopen("1.3", "d", 1, 2, 0, 3, reinterpret_cast<const unsigned char*>("p\0!"))),
         "020200 0000 08 0001 0002 00 312e3300 6400 0003 700021"},
        {"open, description of 255",
         bytes_of(mkDPIopen("1.3", std::string(255, 'd').c_str(), 0, 0, 0, 0, nullptr)),
         "020200 0000 08 0000 0000 00 312e3300" + vx_to_hex(vx_bytes(255, 'd')) + "00 0000"},
        {"enterprise trap with varBind",
         bytes_of(mkDPItrape(6, 70000, vb32(nullptr, "1", 136, 9), "1.3.6.1.4.1.2")),
         "020200 0000 04 00000006 00011170 312e332e362e312e342e312e3200 312e332e00 3100 880004"
         "00000009"},
        {"generic trap", bytes_of(mkDPItrape(0, 0, nullptr, nullptr)),
         "020200 0000 04 00000000 00000000 00"},
    };
    for (auto row : rows) {
        SCOPED_TRACE(row.name);
        if (row.got.size() > 6 && row.got[3] == 2) {
            row.got[5] = row.got[6] = 0;  // the packet number depends on what ran before
        }
        EXPECT_EQ(vx_to_hex(row.got), vx_to_hex(framed(row.hex)));
    }
    EXPECT_EQ(request(SNMP_DPI_GET, 2, 0, nullptr), nullptr);
    EXPECT_EQ(request(SNMP_DPI_GETBULK, 2, 0, nullptr), nullptr);
    EXPECT_EQ(request(16, 2, 0, nullptr), nullptr);
    EXPECT_EQ(request(SNMP_DPI_SET, 2, 0, mkDPIset_packet(nullptr, "1.3", "1", 2, 0, "")), nullptr);
    EXPECT_EQ(mkDPIreg(5, 0, "1.3.6", 0, 0), nullptr);
    EXPECT_EQ(mkDPIreg(5, -2, "1.3.", 0, 0), nullptr);
    EXPECT_EQ(mkDPIreg(5, 0, "1.3.", 2, 0), nullptr);
    EXPECT_EQ(mkDPIopen("1.3", std::string(256, 'd').c_str(), 0, 0, 0, 0, nullptr), nullptr);
    EXPECT_EQ(mkDPIopen("5.3", "d", 0, 0, 0, 0, nullptr), nullptr);
    EXPECT_EQ(mkDPIopen("1.3", "d", 1, 2, 2, 0, nullptr), nullptr);
    EXPECT_EQ(mkDPIopen("1.3", "d", 65536, 2, 0, 0, nullptr), nullptr);
    EXPECT_EQ(mkDPIopen(nullptr, "d", 1, 2, 0, 0, nullptr), nullptr);
    EXPECT_EQ(mkDPItrape(3, 1, nullptr, nullptr), nullptr);
    EXPECT_EQ(mkDPItrape(7, 0, nullptr, nullptr), nullptr);
    EXPECT_EQ(mkDPItrape(-1, 0, nullptr, nullptr), nullptr);
    EXPECT_EQ(mkDPItrape(6, 1, vb32(nullptr, "1", 129, 1), "1.3."), nullptr);
}

TEST(DpiBuild, IdentifierValidation) {
    static const struct {
        const char* group;
        const char* instance;
        bool valid;
    } rows[] = {
        {"1.3.6.1", nullptr, true}, {"3.1", nullptr, false},  {"1.40", nullptr, false},
        {"1.39", nullptr, true},    {"2.100", nullptr, true}, {"1..3", nullptr, false},
        {"1.3.6.", nullptr, true},  {"0.0", nullptr, true},   {"1", nullptr, false},
        {"1.3a", nullptr, false},   {"", nullptr, false},     {nullptr, nullptr, false},
        {"1.3.", "", true},         {"1.3.", "1.0", true},    {"1.3.", "1.0.", false},
        {"1.3.", "1..0", false},    {"1.3.", "x", false},     {"1.3.", "99.1", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(text(row.group) + " / " + text(row.instance));
        dpi_hdr* get = mkDPIhdr_version(SNMP_DPI_GET, 2, 0);
        dpi_hdr* next = mkDPIhdr_version(SNMP_DPI_GETNEXT, 2, 0);
        get->data = mkDPIget_packet(nullptr, row.group, row.instance);
        next->data = mkDPInext_packet(nullptr, row.group, row.instance);
        dpi_set_packet* set = mkDPIset_packet(nullptr, row.group, row.instance, 2, 0, nullptr);
        EXPECT_EQ(get->data != nullptr, row.valid);
        EXPECT_EQ(next->data != nullptr, row.valid);
        EXPECT_EQ(set != nullptr, row.valid);
        fDPIparse(get);
        fDPIparse(next);
        fDPIset_packet(set);
    }
}

TEST(DpiBuild, RecordIdentifiersAndChains) {
    dpi_set_packet* chain = mkDPIset_packet(nullptr, "1.3.6.1.2.1.1.", "1.0", 2, 0, nullptr);
    ASSERT_NE(chain, nullptr);
    EXPECT_STREQ(chain->object_id, "1.3.6.1.2.1.1.1.0");
    EXPECT_EQ(mkDPIset_packet(chain, "1.3.6.1.2.1.1.", nullptr, 2, 0, nullptr), chain);
    ASSERT_NE(chain->next, nullptr);
    EXPECT_STREQ(chain->next->object_id, "1.3.6.1.2.1.1");
    EXPECT_EQ(chain->next->instance_id, nullptr);

    // Failing constructors leave the chain as it was.
    for (int bad_type : {0, 6, 12, 141, 255}) {
        EXPECT_EQ(mkDPIset_packet(chain, "1.3.", nullptr, bad_type, 0, nullptr), nullptr)
            << bad_type;
    }
    EXPECT_EQ(mkDPIset_packet(chain, "1.3.", nullptr, 2, 65536, "x"), nullptr);
    EXPECT_EQ(mkDPIset_packet(chain, "1.3.", nullptr, 2, -1, "x"), nullptr);
    EXPECT_EQ(mkDPIset_packet(chain, "1.3.", nullptr, 2, 1, nullptr), nullptr);
    EXPECT_EQ(chain->next->next, nullptr);

    // The value is the caller's bytes, copied.
    char value[] = "abc";
    EXPECT_EQ(mkDPIset_packet(chain, "1.3.", "2", 2, 3, value), chain);
    value[0] = 'z';
    EXPECT_EQ(std::memcmp(chain->next->next->value, "abc", 3), 0);
    fDPIset_packet(chain);
}

TEST(DpiBuild, SetValueLengthsByType) {
    static const struct {
        int type;
        std::vector<int> written, refused;
    } rows[] = {
        {DPI_TYPE_NsapAddress, {1, 4, 21}, {0, 2, 3, 22}},
        {DPI_TYPE_NULL, {0, 4}, {5}},
        {DPI_TYPE_endOfMibView, {0}, {}},
        {DPI_TYPE_Integer32, {}, {0, 3}},
        {DPI_TYPE_IpAddress, {}, {5}},
        {DPI_TYPE_Counter64, {}, {0, 4}},
        {DPI_TYPE_OCTET_STRING, {0, 4075}, {4076}},  // 4095 bytes is the largest packet
        {DPI_TYPE_Opaque, {300}, {}},
        {DPI_TYPE_OBJECT_IDENTIFIER, {1}, {0}},
    };
    const vx_bytes value(4076, 'v');
    auto size = [&](int type, int len) {
        dpi_set_packet* vb = mkDPIset_packet(nullptr, "1.3.", "1", type, len, value.data());
        EXPECT_NE(vb, nullptr);
        return bytes_of(request(SNMP_DPI_SET, 2, 0, vb)).size();
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.type);
        // Header 8, extra length 2, "1.3.\0" 5, "1\0" 2, type and length 3.
        for (int len : row.written) {
            EXPECT_EQ(size(row.type, len), 20u + static_cast<unsigned>(len)) << len;
        }
        for (int len : row.refused) {
            EXPECT_EQ(size(row.type, len), 0u) << len;
        }
    }
}

TEST(DpiBuild, SizeLimitAcrossRecordsAndExtraBytes) {
    dpi_get_packet* chain = nullptr;
    for (int i = 0; i < 500; i++) {
        chain = mkDPIget_packet(chain, "1.3.6.1.2.1.", "1.0");
    }
    EXPECT_EQ(request(SNMP_DPI_GET, 2, 0, chain), nullptr);
    dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_GET, 2, 0);
    hdr->data = mkDPIget_packet(nullptr, "1.3.", nullptr);
    hdr->extra_len = 4090;
    hdr->extra = static_cast<unsigned char*>(calloc(4090, 1));
    EXPECT_EQ(mkDPIpacket(hdr), nullptr);
}

TEST(DpiBuild, ResponseFollowsRequest) {
    dpi_hdr* get = mkDPIhdr_version(SNMP_DPI_GET, 2, 0);
    dpi_hdr* reg = mkDPIhdr_version(SNMP_DPI_REGISTER, 2, 0);
    dpi_hdr* v1 = mkDPIhdr_version(SNMP_DPI_GET, 1, 1);
    get->packet_id = 0x1234;
    auto two = [] { return vb32(vb32(nullptr, "1", 129, 1), "2", 129, 2); };

    EXPECT_EQ(vx_to_hex(bytes_of(mkDPIresp(get, 2, 2, two()))),
              vx_to_hex(framed("020200 1234 05 02 00000002 312e332e00 3100 810004 00000001"
                               "312e332e00 3200 810004 00000002")));
    EXPECT_EQ(mkDPIresp(get, 2, 3, two()), nullptr);
    EXPECT_NE(mkDPIresp(reg, 2, 3, two()), nullptr);
    EXPECT_NE(mkDPIresp(get, 5, 7, nullptr), nullptr);
    EXPECT_EQ(mkDPIresp(get, 256, 0, two()), nullptr);
    EXPECT_EQ(mkDPIresp(get, -1, 0, two()), nullptr);
    EXPECT_EQ(mkDPIresp(get, 0, -1, two()), nullptr);
    EXPECT_EQ(mkDPIresp(nullptr, 0, 0, two()), nullptr);
    // A version-1 request gets a version-1 answer: no packet number, no error index.
    EXPECT_EQ(bytes_of(mkDPIresp(v1, 101, 0, nullptr)), framed("020101 05 65"));

    // Building a response takes a packet number even though the answer carries the request's.
    uint16_t before = next_packet_id();
    ASSERT_NE(mkDPIresp(get, 0, 0, nullptr), nullptr);
    EXPECT_EQ(next_packet_id(), static_cast<uint16_t>(before + 2));
    fDPIparse(get);
    fDPIparse(reg);
    fDPIparse(v1);
}

TEST(DpiBuild, HeaderVersionsAndPacketNumbers) {
    uint16_t before = next_packet_id();
    dpi_hdr* v1 = mkDPIhdr_version(SNMP_DPI_GET, 1, 1);
    ASSERT_NE(v1, nullptr);
    EXPECT_EQ(v1->packet_id, 0);
    fDPIparse(v1);
    EXPECT_EQ(next_packet_id(), static_cast<uint16_t>(before + 1));
    for (auto [version, release] : {std::pair{2, 1}, std::pair{1, 2}, std::pair{3, 0}}) {
        EXPECT_EQ(mkDPIhdr_version(SNMP_DPI_GET, version, release), nullptr) << version;
    }
    EXPECT_EQ(mkDPIhdr_version(SNMP_DPI_GET, 0, 0), nullptr);
    // Past 65535 the counter wraps to 0: the all-zero-number ARE_YOU_THERE.
    while (next_packet_id() != 65535) {
    }
    dpi_hdr* last = mkDPIhdr_version(SNMP_DPI_GET, 2, 0);
    EXPECT_EQ(last->packet_id, 65535);
    fDPIparse(last);
    EXPECT_EQ(vx_to_hex(bytes_of(mkDPIayt())), "00 06 02 02 00 00 00 0f");
    EXPECT_EQ(next_packet_id(), 2);
}

// What serialising a parsed tree again gives.
enum Again {
    SAME,     // the very bytes parsed
    FAILS,    // no packet: the tree holds what the writer refuses
    OTHER,    // a packet, but not byte for byte (ignored trailing bytes, added NULs)
    CHANGED,  // a packet of another tree: the writer joins group and instance itself
};

TEST(DpiParse, AcceptedVectors) {
    static const struct {
        const char* name;
        const char* hex;  // without the length field
        const char* tree;
        Again again;
    } rows[] = {
        {"close", "020200 0001 09 02", "v2.0 id=1 t=9 close r=2", SAME},
        {"close, rest ignored", "020200 0017 09 02 ffff", "v2.0 id=23 t=9 close r=2", OTHER},
        {"are you there, bytes after it ignored", "020200 0005 0f abcd", "v2.0 id=5 t=15", OTHER},
        {"get, group only", "020200 0002 01 0000 312e332e00 00",
         "v2.0 id=2 t=1 get[g=1.3. i=(null) o=1.3]", SAME},
        {"get, group, instance, extra bytes", "020200 0003 01 0002 beef 312e332e00 3100",
         "v2.0 id=3 t=1 x=be ef get[g=1.3. i=1 o=1.3.1]", SAME},
        {"get, last record without instance byte", "020200 0004 01 0000 312e00 3200 322e3300",
         "v2.0 id=4 t=1 get[g=1. i=2 o=1.2] get[g=2.3 i=(null) o=2.3]", OTHER},
        {"version-1 get", "020100 01 312e332e3100", "v1.0 id=0 t=1 get[g=1.3.1 i=(null) o=1.3.1]",
         SAME},
        {"set, Integer32 and Counter32",
         "020200 0009 03 0000 312e332e00 3100 810004 ffffff85 312e332e00 3200 860004 00000100",
         "v2.0 id=9 t=3 [g=1.3. i=1 o=1.3.1 t=129 v=-123] [g=1.3. i=2 o=1.3.2 t=134 v=256]", SAME},
        {"set, IpAddress in version-1 numbering keeps its bytes",
         "020200 000a 03 0000 312e332e00 00 850004 0a000001",
         "v2.0 id=10 t=3 [g=1.3. i=(null) o=1.3 t=133 v=0a 00 00 01]", SAME},
        {"set, Counter64", "020200 000c 03 0000 312e332e00 3700 0d0008 0000000100000002",
         "v2.0 id=12 t=3 [g=1.3. i=7 o=1.3.7 t=13 v=1:2]", SAME},
        {"set, unknown value type kept", "020200 0011 03 0000 312e332e00 00 070002 abcd",
         "v2.0 id=17 t=3 [g=1.3. i=(null) o=1.3 t=7 v=ab cd]", FAILS},
        {"set, group without final dot is read", "020200 0012 03 0000 312e3300 00 020000",
         "v2.0 id=18 t=3 [g=1.3 i=(null) o=1.3 t=2 v=-]", FAILS},
        {"undo, NULL without value", "020200 0013 0b 0000 312e332e00 3100 040000",
         "v2.0 id=19 t=11 [g=1.3. i=1 o=1.3.1 t=4 v=-]", SAME},
        {"trap, numbers only", "020200 0010 04 00000006 00000001",
         "v2.0 id=16 t=4 trap g=6 s=1 e=(null)", OTHER},
        {"trap, enterprise and varBind",
         "020200 0011 04 00000006 0000002a 312e3300 312e332e00 3100 880004 00000009",
         "v2.0 id=17 t=4 trap g=6 s=42 e=1.3 [g=1.3. i=1 o=1.3.1 t=136 v=9]", SAME},
        {"trap, no enterprise, varBind", "020200 0012 04 00000000 00000000 00 312e332e00 00 020000",
         "v2.0 id=18 t=4 trap g=0 s=0 e=(null) [g=1.3. i=(null) o=1.3 t=2 v=-]", SAME},
        {"version-1.0 trap", "020100 04 03 ff", "v1.0 id=0 t=4 trap g=3 s=255 e=(null)", SAME},
        {"version-1.0 trap with varBind", "020100 04 06 01 312e332e3100 810004 00000005",
         "v1.0 id=0 t=4 trap g=6 s=1 e=(null) [g=1.3.1 i=(null) o=1.3.1 t=129 v=5]", FAILS},
        {"version-1.1 trap", "020101 04 00000002 00000000 312e3300",
         "v1.1 id=0 t=4 trap g=2 s=0 e=1.3", SAME},
        {"response with varBind", "020200 0011 05 02 00000001 312e332e00 3100 020003 616263",
         "v2.0 id=17 t=5 resp c=2 i=1 [g=1.3. i=1 o=1.3.1 t=2 v=61 62 63]", SAME},
        {"version-1 response with error", "020100 05 05", "v1.0 id=0 t=5 resp c=5 i=1", SAME},
        {"version-1 response without error", "020101 05 00", "v1.1 id=0 t=5 resp c=0 i=0", SAME},
        {"register, two subtrees",
         "020200 0013 06 ffffffff 0005 01 00 312e332e00 00000007 0000 00 01 322e00",
         "v2.0 id=19 t=6 reg[p=-1 t=5 v=1 b=0 g=1.3.] reg[p=7 t=0 v=0 b=1 g=2.]", SAME},
        {"version-1 register", "020100 06 312e332e00 312e352e00",
         "v1.0 id=0 t=6 reg[p=0 t=0 v=0 b=0 g=1.3.] reg[p=0 t=0 v=0 b=0 g=1.5.]", SAME},
        {"unregister", "020200 0015 07 03 312e332e00", "v2.0 id=21 t=7 ureg[r=3 g=1.3.]", SAME},
        {"open", "020200 0016 08 000a 0014 01 312e3300 6400 0003 0077ff",
         "v2.0 id=22 t=8 open t=10 m=20 c=1 o=1.3 d=d p=00 77 ff", SAME},
        {"open without password, rest ignored", "020200 0016 08 000a 0014 01 312e3300 6400 0000 ff",
         "v2.0 id=22 t=8 open t=10 m=20 c=1 o=1.3 d=d p=(null)", OTHER},
        {"getnext", "020200 0018 02 0000 312e332e00 3100",
         "v2.0 id=24 t=2 next[g=1.3. i=1 o=1.3.1]", SAME},
        {"version-1 getnext, group with final dot", "020100 02 312e332e362e3100 312e332e00",
         "v1.0 id=0 t=2 next[g=1.3. i=6.1 o=1.3.6.1]", SAME},
        {"version-1 getnext, group without final dot", "020100 02 312e332e362e3100 312e3300",
         "v1.0 id=0 t=2 next[g=1.3 i=6.1 o=1.3.6.1]", CHANGED},
        {"version-1 getnext, group as long as object", "020101 02 312e3300 312e332e00",
         "v1.1 id=0 t=2 next[g=1.3. i=(null) o=1.3]", SAME},
        {"version-1 getnext, object only", "020100 02 312e3300",
         "v1.0 id=0 t=2 next[g=(null) i=(null) o=1.3]", FAILS},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        vx_bytes bytes = framed(row.hex);
        dpi_hdr* hdr = parse_exact(bytes);
        ASSERT_NE(hdr, nullptr);
        EXPECT_EQ(dump(hdr), row.tree);
        vx_bytes again = bytes_of(cDPIpacket(hdr));
        fDPIparse(hdr);
        check_truncations(bytes);
        EXPECT_EQ(again.empty(), row.again == FAILS);
        if (row.again == SAME) {
            EXPECT_EQ(vx_to_hex(again), vx_to_hex(bytes));
        }
        if (!again.empty()) {
            // Whatever the writer makes of a parsed tree reads back as the same tree.
            dpi_hdr* reread = pDPIpacket(again.data());
            ASSERT_NE(reread, nullptr) << vx_to_hex(again);
            if (row.again != CHANGED) {
                EXPECT_EQ(dump(reread), row.tree) << vx_to_hex(again);
            }
            fDPIparse(reread);
        }
    }
}

TEST(DpiParse, RefusedVectors) {
    static const struct {
        const char* name;
        const char* hex;  // without the length field
    } rows[] = {
        {"close without body", "020200 0001 09"},
        {"version 1 release 2", "020102 09 02"},
        {"version 2 release 1", "020201 0001 09 02"},
        {"version 3", "020300 0001 09 02"},
        {"protocol 1", "010200 0001 09 02"},
        {"getbulk", "020200 0001 0c 0000 312e00 00"},
        {"trapv2", "020200 0001 0d 00000000 00000000 00"},
        {"inform", "020200 0001 0e 00"},
        {"type 16", "020200 0001 10 00"},
        {"get, empty group", "020200 0005 01 0000 00 00"},
        {"get, nothing after extra", "020200 0006 01 0000"},
        {"get, no extra length", "020200 0006 01"},
        {"get, extra longer than body", "020200 0007 01 0005 abcd"},
        {"get, unterminated group", "020200 0008 01 0000 312e33"},
        {"set, Integer32 of 2 bytes", "020200 000b 03 0000 312e332e00 00 810002 0001"},
        {"set, Integer32 of no bytes", "020200 000b 03 0000 312e332e00 00 810000"},
        {"set, Counter64 of no bytes", "020200 000b 03 0000 312e332e00 00 0d0000"},
        {"set, Counter64 of 4 bytes", "020200 000d 03 0000 312e332e00 00 0d0004 00000001"},
        {"set, value length 32768", "020200 000f 03 0000 312e332e00 00 028000 6162"},
        {"commit, second varBind bad", "020200 0014 0a 0000 312e332e00 3100 040000 312e00"},
        {"trap, 7 bytes", "020200 0013 04 00000006 000000"},
        {"response cut in the error index", "020200 0012 05 00 000000"},
        {"open, empty description", "020200 0016 08 000a 0014 01 312e3300 00 0000"},
        {"open, empty identifier", "020200 0016 08 000a 0014 01 00 6400 0000"},
        {"version-1 getnext, empty object", "020100 02 00 312e00"},
        {"version-1 getnext, empty group", "020100 02 312e3300 00"},
    };
    for (const auto& row : rows) {
        dpi_hdr* hdr = parse_exact(framed(row.hex));
        EXPECT_EQ(hdr, nullptr) << row.name << ": " << dump(hdr);
        fDPIparse(hdr);
    }
    // Length fields that do not cover a header.
    EXPECT_EQ(pDPIpacket(nullptr), nullptr);
    for (const char* hex : {"0004 020200 00 01", "0003 020100 09", "0000", "8006 020200 0001 0f"}) {
        EXPECT_EQ(parse_exact(vx_hex(hex)), nullptr) << hex;
    }
    // Packets whose every field is needed: any cut must be refused (a value, a text or a
    // password longer than what is left, a number cut short).
    for (const char* hex :
         {"020200 0009 03 0000 312e332e00 3100 810004 ffffff85",
          "020200 0016 08 000a 0014 01 312e3300 6400 0003 707721", "020200 0015 07 03 312e332e00",
          "020200 0013 06 ffffffff 0005 01 00 312e332e00"}) {
        SCOPED_TRACE(hex);
        check_truncations(framed(hex), true);
    }
}

TEST(DpiRelease, RecordlessTypesAndFailedSerialisation) {
    // Types without a record of their own must leave `data` alone: freeing this stack object
    // would be caught by the sanitizer, as a leak of `extra` would.
    int not_a_record = 0;
    for (int type : {0, 12, 13, 14, 15, 16, 200}) {
        auto* hdr = static_cast<dpi_hdr*>(calloc(1, sizeof(dpi_hdr)));
        hdr->packet_type = static_cast<uint8_t>(type);
        hdr->data = &not_a_record;
        hdr->extra = static_cast<unsigned char*>(malloc(1));
        fDPIparse(hdr);
    }
    fDPIparse(nullptr);
    fDPIset_packet(nullptr);

    // A serialisation that fails halfway through a chain leaves the tree intact and whole.
    dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_SET, 2, 0);
    auto* vbs = mkDPIset_packet(vb32(nullptr, "1", 129, 1), "1.3.", "2", 129, 2, "ab");
    hdr->data = vbs;
    EXPECT_EQ(cDPIpacket(hdr), nullptr);
    EXPECT_EQ(vbs->next->value_len, 2);
    EXPECT_EQ(mkDPIpacket(hdr), nullptr);
}

TEST(DpiDebug, AnnouncesChangesOnly) {
    testing::internal::CaptureStdout();
    DPIdebug(0);
    DPIdebug(1);
    DPIdebug(1);
    DPIdebug(0);
    dpilog("%s|%d", std::string(1000, 'x').c_str(), 5);
    dpilog("no newline");
    std::string out = testing::internal::GetCapturedStdout();
    // The banner ends in the build date, which is cut out before comparing.
    const std::string banner = "snmpmDPI.cpp - DPI Version 2.0.22, 96Sep30, Compiled ";
    for (size_t at = out.find(banner); at != std::string::npos; at = out.find(banner, at + 1)) {
        out.erase(at + banner.size(), out.find('\n', at) - at - banner.size());
    }
    EXPECT_EQ(out, "DPI Debug turned ON (level 1)\nDPI Debug code not available\n" + banner +
                       "\nDPI Debug turned OFF (level 0)\n" + banner + "\n" +
                       std::string(799, 'x') + "no newline");
}

}  // namespace
