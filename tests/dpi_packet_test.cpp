// DPI packets, one row each: fields in, hex out for the builders; hex in, hex out for the
// parser, shown by what the writer (proven by the built rows) makes of the parsed tree.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

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

// The parser on a copy that ends right before an unmapped page: a read past the packet
// crashes the test in any build, not only under the sanitizers.
dpi_hdr* parse(const vx_bytes& b) {
    const size_t page = 4096, span = (b.size() / page + 2) * page;
    auto* m = static_cast<unsigned char*>(
        mmap(nullptr, span, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(m + span - page, page, PROT_NONE);
    dpi_hdr* hdr = pDPIpacket(
        static_cast<unsigned char*>(memcpy(m + span - page - b.size(), b.data(), b.size())));
    munmap(m, span);
    return hdr;
}

unsigned char* request(int type, int version, void* data) {
    dpi_hdr* hdr = mkDPIhdr_version(type, version, 0);
    hdr->data = data;
    return mkDPIpacket(hdr);
}

dpi_set_packet* vb32(dpi_set_packet* chain, const char* instance, int type, uint32_t number) {
    return mkDPIset_packet(chain, "1.3.", instance, type, 4, &number);
}

TEST(DpiPacket, Vectors) {
    dpi_hdr* get = mkDPIhdr_version(SNMP_DPI_GET, 2, 0);
    dpi_hdr* v1 = mkDPIhdr_version(SNMP_DPI_GET, 1, 1);
    get->packet_id = 0x1234;
    auto two = [] { return vb32(vb32(nullptr, "1", 129, 1), "2", 129, 0x80000002); };
    // `built`: the packet a builder made (its number, unless echoed, read as 0000), copied out
    // of the library's buffer at once. `out`: what the writer makes of the parsed tree: "=" the
    // very bytes, "" nothing (it refuses the tree), "-" no tree (the parser refuses).
    const struct {
        vx_bytes built;
        const char *hex, *out;  // without the length field
    } rows[] = {
        // clang-format off
        {bytes_of(mkDPIclose(2)), "020200 0000 09 02", "="},
        {bytes_of(mkDPIayt()), "020200 0000 0f", "="},
        {bytes_of(request(1, 2, mkDPIget_packet(nullptr, "1.3.6.1.2.1.1.", "1.0"))),
         "020200 0000 01 0000 312e332e362e312e322e312e312e00 312e3000", "="},
        {bytes_of(request(2, 1, mkDPInext_packet(nullptr, "1.3.", "6.1"))),
         "020100 02 312e332e362e3100 312e332e00", "="},
        {bytes_of(request(3, 1, mkDPIset_packet(vb32(nullptr, "4", 5, htonl(0x0a000001)), "1.3.",
                                                nullptr, 2, 1, "x"))),
         "020100 03 312e332e3400 850004 0a000001 312e3300 020001 78", ""},  // IpAddress as 133
        {bytes_of(mkDPIreg(5, -1, "1.3.6.", 1, 0)),
         "020200 0000 06 ffffffff 0005 00 01 312e332e362e00", "="},
        {bytes_of(mkDPIureg(3, "1.3.")), "020200 0000 07 03 312e332e00", "="},
        {bytes_of(mkDPIopen("1.3.6.1.4.1.2", "", 10, 20, 1, 0, nullptr)),
         "020200 0000 08 000a 0014 01 312e332e362e312e342e312e3200 00 0000", "-"},
        {bytes_of(mkDPIopen("1.3", "d", 1, 2, 0, 3, reinterpret_cast<const uint8_t*>("p\0!"))),
         "020200 0000 08 0001 0002 00 312e3300 6400 0003 700021", "="},
        {bytes_of(mkDPItrape(6, 70000, vb32(nullptr, "1", 136, 9), "1.3.6.1.4.1.2")),
         "020200 0000 04 00000006 00011170 312e332e362e312e342e312e3200 312e332e00 3100 880004"
         "00000009", "="},
        // A response carries the number and the version of the request it answers.
        {bytes_of(mkDPIresp(get, 2, 2, two())),
         "020200 1234 05 02 00000002 312e332e00 3100 810004 00000001 312e332e00 3200 810004"
         "80000002", "="},
        {bytes_of(mkDPIresp(get, 5, 7, nullptr)), "020200 1234 05 05 00000007", "="},
        {bytes_of(mkDPIresp(v1, 101, 0, nullptr)), "020101 05 65", "="},
        // Parsed only.
        {{}, "020200 0017 09 02 ffff", "020200 0017 09 02"},
        {{}, "020200 0002 01 0000 312e332e00 00", "="}, {{}, "020100 01 312e332e3100", "="},
        {{}, "020200 0003 01 0002 beef 312e332e00 3100", "="},
        {{}, "020200 0004 01 0000 312e00 3200 322e3300",
         "020200 0004 01 0000 312e00 3200 322e3300 00"},
        {{}, "020200 0009 03 0000 312e332e00 3100 810004 ffffff85 312e332e00 3200 860004 00000100",
         "="},
        {{}, "020200 000c 03 0000 312e332e00 3700 0d0008 0000000100000002", "="},
        {{}, "020200 0011 03 0000 312e332e00 00 070002 abcd", ""},  // unknown value types are read,
        {{}, "020200 0012 03 0000 312e3300 00 020000", ""},  // and groups without a final dot
        {{}, "020200 0013 0b 0000 312e332e00 3100 040000", "="},
        {{}, "020200 0010 04 00000006 00000001", "020200 0010 04 00000006 00000001 00"},
        {{}, "020200 0011 04 00000006 0000002a 312e3300 312e332e00 3100 880004 00000009", "="},
        {{}, "020100 04 03 ff", "="}, {{}, "020101 04 00000002 00000000 312e3300", "="},
        {{}, "020200 0011 05 02 00000001 312e332e00 3100 020003 616263", "="},
        {{}, "020200 0013 06 ffffffff 0005 01 00 312e332e00 00000007 0000 00 01 322e00", "="},
        {{}, "020100 06 312e332e00 312e352e00", "="},
        {{}, "020200 0016 08 000a 0014 01 312e3300 6400 0003 0077ff", "="},
        {{}, "020200 0016 08 000a 0014 01 312e3300 6400 0000 ff",
         "020200 0016 08 000a 0014 01 312e3300 6400 0000"},
        {{}, "020200 0018 02 0000 312e332e00 3100", "="}, {{}, "020100 02 312e3300", ""},
        {{}, "020101 02 312e3300 312e332e00", "="}, {{}, "020101 05 00", "="},
        // A version-1 group without its final dot is read, but written joined to the instance.
        {{}, "020100 02 312e332e362e3100 312e3300", "020100 02 312e33362e3100 312e3300"},
        // clang-format on
    };
    for (auto row : rows) {
        SCOPED_TRACE(row.hex);
        const std::string o = row.out;
        const vx_bytes in = framed(row.hex), out = o == "="       ? in
                                                   : o.size() > 1 ? framed(o)
                                                                  : vx_bytes{};
        if (!row.built.empty() && row.built[3] == 2 && row.built[7] != SNMP_DPI_RESPONSE) {
            row.built[5] = row.built[6] = 0;  // the packet number depends on what ran before
        }
        EXPECT_EQ(vx_to_hex(row.built), vx_to_hex(row.built.empty() ? row.built : in));
        dpi_hdr* hdr = parse(in);
        EXPECT_EQ(hdr == nullptr, o == "-");
        vx_bytes again = bytes_of(hdr ? cDPIpacket(hdr) : nullptr);
        fDPIparse(hdr);
        EXPECT_EQ(vx_to_hex(again), vx_to_hex(out));
        // Every prefix, its length field saying so, is refused or read as a shorter packet;
        // never read beyond, never leaked.
        for (size_t len = 2; len < in.size(); len++) {
            vx_bytes cut(in.begin(), in.begin() + static_cast<long>(len));
            cut[0] = static_cast<uint8_t>((len - 2) >> 8), cut[1] = static_cast<uint8_t>(len - 2);
            fDPIparse(parse(cut));
        }
    }
    // Refused by the builders.
    dpi_hdr* reg = mkDPIhdr_version(SNMP_DPI_REGISTER, 2, 0);
    const std::string d255(255, 'd');
    EXPECT_NE(mkDPIopen("1.3", d255.c_str(), 0, 0, 0, 0, nullptr), nullptr);
    EXPECT_NE(mkDPIresp(reg, 2, 3, two()), nullptr);  // the index counts only for requests
    const void* refused[] = {
        // clang-format off
        mkDPIresp(get, 2, 3, two()), mkDPIresp(get, 256, 0, two()), mkDPIresp(get, 0, -1, two()),
        mkDPIresp(nullptr, 0, 0, two()), request(1, 2, nullptr), request(16, 2, nullptr),
        request(SNMP_DPI_GETBULK, 2, nullptr),
        request(3, 2, mkDPIset_packet(nullptr, "1.3", "1", 2, 0, "")),  // group without dot
        mkDPIreg(5, 0, "1.3.6", 0, 0), mkDPIreg(5, -2, "1.3.", 0, 0), mkDPIreg(5, 0, "1.3.", 2, 0),
        mkDPIureg(1, "1.3"), mkDPIopen("1.3", (d255 + "d").c_str(), 0, 0, 0, 0, nullptr),
        mkDPIopen("5.3", "d", 0, 0, 0, 0, nullptr), mkDPIopen("1.3", "d", 1, 2, 2, 0, nullptr),
        mkDPIopen("1.3", "d", 65536, 2, 0, 0, nullptr), mkDPItrape(3, 1, nullptr, nullptr),
        mkDPItrape(7, 0, nullptr, nullptr), mkDPItrape(6, 1, two(), "1.3."),
        mkDPIset_packet(nullptr, "1.", "", 6, 0, ""), mkDPIset_packet(nullptr, "1.", "", 141, 0, 0),
        mkDPIset_packet(nullptr, "1.", "", 2, 65536, "x"), mkDPIset_packet(0, "1.", "", 2, 1, 0),
        // Identifiers: digits and single dots, a first number of 0 to 2 and a second below 40
        // after 0 or 1; an instance without a final dot.
        mkDPIget_packet(nullptr, "1", ""), mkDPIget_packet(nullptr, "1.40", ""),
        mkDPIget_packet(nullptr, "1..3", ""), mkDPIget_packet(nullptr, "1.3a", ""),
        mkDPIget_packet(nullptr, "1.3.", "1.0."), mkDPIget_packet(nullptr, nullptr, ""),
        mkDPIhdr_version(1, 2, 1), mkDPIhdr_version(1, 1, 2), mkDPIhdr_version(1, 3, 0),
        // clang-format on
    };
    for (size_t i = 0; i < std::size(refused); i++) {
        EXPECT_EQ(refused[i], nullptr) << i;
    }
    fDPIparse(get), fDPIparse(reg), fDPIparse(v1);
    // Refused by the parser.
    static const char* const bad[] = {
        // clang-format off
        "020200 0001 09", "020102 09 02", "020201 0001 09 02", "020300 0001 09 02",
        "010200 0001 09 02", "020200 0001 0e 00", "020200 0001 0c 0000 312e00 00",
        "020200 0001 0d 00000000 00000000 00", "020200 0001 10 00", "020200 0005 01 0000 00 00",
        "020200 0006 01", "020200 0006 01 0000", "020200 0007 01 0005 abcd",
        "020200 0008 01 0000 312e33", "020200 0013 04 00000006 000000",
        "020200 000b 03 0000 312e332e00 00 810002 0001", "020200 000b 03 0000 312e332e00 00 810000",
        "020200 000b 03 0000 312e332e00 00 0d0000", "020200 000f 03 0000 312e332e00 00 028000 6162",
        "020200 000d 03 0000 312e332e00 00 0d0004 00000001",
        "020200 0014 0a 0000 312e332e00 3100 040000 312e00", "020200 0012 05 00 000000",
        "020100 02 00 312e00", "020100 02 312e3300 00", "020200 0016 08 000a 0014 01 00 6400 0000",
        "020200 0016 08 000a 0014 01 312e3300 00 0000",  // an empty description
        "020200 000f 03 0000 312e332e00 00 020003 6162",  // a value one byte past the body
        // clang-format on
    };
    for (const char* hex : bad) {
        EXPECT_EQ(parse(framed(hex)), nullptr) << hex;
    }
    EXPECT_EQ(parse(vx_hex("8006 020200 0001 0f")), nullptr);  // the length field is signed
}

TEST(DpiPacket, SizeLimitsAndNumbers) {
    // A value type, lengths written, lengths refused.
    static const std::tuple<int, std::vector<int>, std::vector<int>> rows[] = {
        // clang-format off
        {DPI_TYPE_NsapAddress, {1, 4, 21}, {0, 2, 3, 22}}, {DPI_TYPE_NULL, {0, 4}, {5}},
        {DPI_TYPE_endOfMibView, {0}, {}}, {DPI_TYPE_Integer32, {}, {0, 3}},
        {DPI_TYPE_IpAddress, {}, {5}}, {DPI_TYPE_Counter64, {}, {0, 4}},
        {DPI_TYPE_OBJECT_IDENTIFIER, {1}, {0}},
        {DPI_TYPE_OCTET_STRING, {0, 4075}, {4076}},  // 4095 bytes is the largest packet
        // clang-format on
    };
    const vx_bytes value(4076, 'v');
    for (const auto& [type, written, refused] : rows) {
        for (bool ok : {true, false}) {
            for (int len : ok ? written : refused) {
                auto* vb = mkDPIset_packet(nullptr, "1.3.", "1", type, len, value.data());
                // Header 8, extra length 2, "1.3.\0" 5, "1\0" 2, type and length 3.
                EXPECT_EQ(bytes_of(request(3, 2, vb)).size(), ok ? 20u + len : 0u) << type << len;
            }
        }
    }
    // One packet number per version-2 header made, also for a response (which carries the
    // request's number instead); 0 after 65535.
    auto next_id = [](const unsigned char* p = mkDPIayt()) { return p[5] << 8 | p[6]; };
    int first = next_id();
    dpi_hdr* v1 = mkDPIhdr_version(SNMP_DPI_GET, 1, 1);
    ASSERT_NE(mkDPIresp(v1, 0, 0, nullptr), nullptr);
    ASSERT_EQ(next_id(), first + 2);  // else the wait for 65535 below would not end
    fDPIparse(v1);
    while (next_id() != 65535) {
    }
    EXPECT_EQ(vx_to_hex(bytes_of(mkDPIayt())), "00 06 02 02 00 00 00 0f");
}

}  // namespace
