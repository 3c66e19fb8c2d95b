// DPI packet library: building, serialising and releasing packets.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "snmpmDPI.h"

namespace {

std::string to_hex(const std::vector<unsigned char>& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char b : bytes) {
        hex += digits[b >> 4];
        hex += digits[b & 15];
    }
    return hex;
}

// The packet number of the next version-2 header, without consuming one for good.
uint16_t next_packet_id() {
    dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_ARE_YOU_THERE, 2, 0);
    uint16_t id = hdr->packet_id;
    fDPIparse(hdr);
    return static_cast<uint16_t>(id + 1);
}

// Version-2 packet numbers depend on what ran before; "...." in an expectation matches them.
std::string mask_packet_id(std::string hex) {
    if (hex.size() >= 14 && hex.compare(6, 2, "02") == 0) {
        hex.replace(10, 4, "....");
    }
    return hex;
}

// Spaces are for reading only; a leading "LLLL" stands for the length the packet must have.
std::string expected_hex(const char* text) {
    std::string hex;
    for (const char* p = text; *p != '\0'; p++) {
        if (*p != ' ') {
            hex += *p;
        }
    }
    if (hex.rfind("LLLL", 0) == 0) {
        char length[8];
        snprintf(length, sizeof length, "%04x", static_cast<unsigned>(hex.size() / 2 - 2) & 0xFFFF);
        hex.replace(0, 4, length);
    }
    return hex;
}

dpi_set_packet* int_varbind(dpi_set_packet* chain, const char* group, const char* instance,
                            int type, uint32_t number) {
    return mkDPIset_packet(chain, group, instance, type, 4, &number);
}

struct BuildRow {
    const char* name;
    unsigned char* (*build)();
    const char* hex;  // null: the build must fail
};

TEST(DpiBuild, PacketVectors) {
    static const BuildRow rows[] = {
        {"close", [] { return mkDPIclose(2); }, "LLLL 020200 ....0902"},
        {"are you there", [] { return mkDPIayt(); }, "LLLL 020200 ....0f"},
        {"get, group with dot and instance",
         [] {
             dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_GET, 2, 0);
             hdr->data = mkDPIget_packet(nullptr, "1.3.6.1.2.1.1.", "1.0");
             return mkDPIpacket(hdr);
         },
         "LLLL 020200 ....01"
         "0000"
         "312e332e362e312e322e312e312e00"
         "312e3000"},
        {"get, group without dot is written as it is",
         [] {
             dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_GET, 2, 0);
             hdr->data = mkDPIget_packet(nullptr, "1.3", nullptr);
             return mkDPIpacket(hdr);
         },
         "LLLL 020200 ....01"
         "0000"
         "312e3300"
         "00"},
        {"get without a record", [] { return mkDPIpacket(mkDPIhdr_version(SNMP_DPI_GET, 2, 0)); },
         nullptr},
        {"getbulk is not built",
         [] { return mkDPIpacket(mkDPIhdr_version(SNMP_DPI_GETBULK, 2, 0)); }, nullptr},
        {"unknown type is not built", [] { return mkDPIpacket(mkDPIhdr_version(16, 2, 0)); },
         nullptr},
        {"set group without final dot fails",
         [] {
             dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_SET, 2, 0);
             hdr->data = int_varbind(nullptr, "1.3", "1", DPI_TYPE_Integer32, 1);
             return mkDPIpacket(hdr);
         },
         nullptr},
        {"commit NULL with no value",
         [] {
             dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_COMMIT, 2, 0);
             hdr->data = mkDPIset_packet(nullptr, "1.3.", nullptr, DPI_TYPE_NULL, 0, nullptr);
             return mkDPIpacket(hdr);
         },
         "LLLL 020200 ....0a"
         "0000"
         "312e332e00"
         "00"
         "040000"},
        {"undo OBJECT IDENTIFIER with no value fails",
         [] {
             dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_UNDO, 2, 0);
             hdr->data =
                 mkDPIset_packet(nullptr, "1.3.", nullptr, DPI_TYPE_OBJECT_IDENTIFIER, 0, nullptr);
             return mkDPIpacket(hdr);
         },
         nullptr},
        {"set Counter64",
         [] {
             uint32_t words[2] = {1, 2};
             dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_SET, 2, 0);
             hdr->data = mkDPIset_packet(nullptr, "1.3.", "7", DPI_TYPE_Counter64, 8, words);
             return mkDPIpacket(hdr);
         },
         "LLLL 020200 ....03"
         "0000"
         "312e332e00"
         "3700"
         "0d0008"
         "0000000100000002"},
        {"set Integer32 -1 and Gauge32",
         [] {
             dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_SET, 2, 0);
             dpi_set_packet* vbs =
                 int_varbind(nullptr, "1.3.", "1", DPI_TYPE_Integer32, 0xFFFFFFFFu);
             hdr->data = int_varbind(vbs, "1.3.", "2", DPI_TYPE_Gauge32, 0x01020304);
             return mkDPIpacket(hdr);
         },
         "LLLL 020200 ....03"
         "0000"
         "312e332e00"
         "3100"
         "810004"
         "ffffffff"
         "312e332e00"
         "3200"
         "870004"
         "01020304"},
        {"version-1 set: object identifier text and IpAddress as 133",
         [] {
             const unsigned char addr[4] = {10, 0, 0, 1};
             dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_SET, 1, 0);
             dpi_set_packet* vbs =
                 mkDPIset_packet(nullptr, "1.3.", "4", DPI_TYPE_IpAddress, 4, addr);
             hdr->data = mkDPIset_packet(vbs, "1.3.", nullptr, DPI_TYPE_OCTET_STRING, 1, "x");
             return mkDPIpacket(hdr);
         },
         "LLLL 020100"
         "03"
         "312e332e3400"
         "850004"
         "0a000001"
         "312e3300"
         "020001"
         "78"},
        {"version-1 getnext: object identifier then group",
         [] {
             dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_GETNEXT, 1, 1);
             hdr->data = mkDPInext_packet(nullptr, "1.3.", "6");
             return mkDPIpacket(hdr);
         },
         "LLLL 020101"
         "02"
         "312e332e3600"
         "312e332e00"},
        {"register", [] { return mkDPIreg(5, -1, "1.3.6.", 1, 0); },
         "LLLL 020200 ....06"
         "ffffffff"
         "0005"
         "00"
         "01"
         "312e332e362e00"},
        {"register group without final dot fails", [] { return mkDPIreg(5, 0, "1.3.6", 0, 0); },
         nullptr},
        {"register priority below -1 fails", [] { return mkDPIreg(5, -2, "1.3.", 0, 0); }, nullptr},
        {"register bulk selection 2 fails", [] { return mkDPIreg(5, 0, "1.3.", 2, 0); }, nullptr},
        {"unregister", [] { return mkDPIureg(3, "1.3."); },
         "LLLL 020200 ....07"
         "03"
         "312e332e00"},
        {"open with empty description and no password",
         [] { return mkDPIopen("1.3.6.1.4.1.2", "", 10, 20, 1, 0, nullptr); },
         "LLLL 020200 ....08"
         "000a"
         "0014"
         "01"
         "312e332e362e312e342e312e3200"
         "00"
         "0000"},
        {"open with password",
         [] {
             return mkDPIopen("1.3", "d", 1, 2, 0, 3,
                              reinterpret_cast<const unsigned char*>("pw!"));
         },
         "LLLL 020200 ....08"
         "0001"
         "0002"
         "00"
         "312e3300"
         "6400"
         "0003"
         "707721"},
        {"open with description of 255 characters",
         [] { return mkDPIopen("1.3", std::string(255, 'd').c_str(), 0, 0, 0, 0, nullptr); },
         "LLLL 020200 ....08 0000 0000 00 312e3300"
         "64646464646464646464646464646464646464646464646464646464646464646464646464646464646464"
         "64646464646464646464646464646464646464646464646464646464646464646464646464646464646464"
         "64646464646464646464646464646464646464646464646464646464646464646464646464646464646464"
         "64646464646464646464646464646464646464646464646464646464646464646464646464646464646464"
         "64646464646464646464646464646464646464646464646464646464646464646464646464646464646464"
         "64646464646464646464646464646464646464646464646464646464646464646464646464646464"
         "00 0000"},
        {"open with description of 256 characters fails",
         [] { return mkDPIopen("1.3", std::string(256, 'd').c_str(), 0, 0, 0, 0, nullptr); },
         nullptr},
        {"open identifier outside the OID tree fails",
         [] { return mkDPIopen("5.3", "d", 0, 0, 0, 0, nullptr); }, nullptr},
        {"open character set 2 fails", [] { return mkDPIopen("1.3", "d", 1, 2, 2, 0, nullptr); },
         nullptr},
        {"open timeout 65536 fails", [] { return mkDPIopen("1.3", "d", 65536, 2, 0, 0, nullptr); },
         nullptr},
        {"open without identifier fails",
         [] { return mkDPIopen(nullptr, "d", 1, 2, 0, 0, nullptr); }, nullptr},
        {"enterprise trap with varBind",
         [] {
             return mkDPItrape(6, 42, int_varbind(nullptr, "1.3.", "1", DPI_TYPE_TimeTicks, 9),
                               "1.3.6.1.4.1.2");
         },
         "LLLL 020200 ....04"
         "00000006"
         "0000002a"
         "312e332e362e312e342e312e3200"
         "312e332e00"
         "3100"
         "880004"
         "00000009"},
        {"generic trap without enterprise", [] { return mkDPItrape(0, 0, nullptr, nullptr); },
         "LLLL 020200 ....04"
         "00000000"
         "00000000"
         "00"},
        {"generic 3 with specific 1 fails", [] { return mkDPItrape(3, 1, nullptr, nullptr); },
         nullptr},
        {"generic 7 fails", [] { return mkDPItrape(7, 0, nullptr, nullptr); }, nullptr},
        {"generic -1 fails", [] { return mkDPItrape(-1, 0, nullptr, nullptr); }, nullptr},
        {"enterprise with final dot fails",
         [] { return mkDPItrape(6, 1, int_varbind(nullptr, "1.3.", "1", 129, 1), "1.3."); },
         nullptr},
    };
    for (const BuildRow& row : rows) {
        SCOPED_TRACE(row.name);
        unsigned char* packet = row.build();
        if (row.hex == nullptr) {
            EXPECT_EQ(packet, nullptr);
            continue;
        }
        ASSERT_NE(packet, nullptr);
        std::vector<unsigned char> bytes(packet, packet + dpi_packet_len(packet));
        EXPECT_EQ(mask_packet_id(to_hex(bytes)), expected_hex(row.hex));
    }
}

TEST(DpiBuild, IdentifierValidation) {
    struct Row {
        const char* group;
        const char* instance;
        bool valid;
    };
    static const Row rows[] = {
        {"1.3.6.1", nullptr, true}, {"3.1", nullptr, false},  {"1.40", nullptr, false},
        {"1.39", nullptr, true},    {"2.100", nullptr, true}, {"1..3", nullptr, false},
        {"1.3.6.", nullptr, true},  {"0.0", nullptr, true},   {"1", nullptr, false},
        {"1.3a", nullptr, false},   {"", nullptr, false},     {nullptr, nullptr, false},
        {"1.3.", "", true},         {"1.3.", "1.0", true},    {"1.3.", "1.0.", false},
        {"1.3.", "1..0", false},    {"1.3.", "x", false},     {"1.3.", "99.1", true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.group ? row.group : "(null)") + " / " +
                     (row.instance ? row.instance : "(null)"));
        dpi_get_packet* get = mkDPIget_packet(nullptr, row.group, row.instance);
        dpi_next_packet* next = mkDPInext_packet(nullptr, row.group, row.instance);
        dpi_set_packet* set = mkDPIset_packet(nullptr, row.group, row.instance, 2, 0, nullptr);
        EXPECT_EQ(get != nullptr, row.valid);
        EXPECT_EQ(next != nullptr, row.valid);
        EXPECT_EQ(set != nullptr, row.valid);
        dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_GET, 2, 0);
        hdr->data = get;
        fDPIparse(hdr);
        hdr = mkDPIhdr_version(SNMP_DPI_GETNEXT, 2, 0);
        hdr->data = next;
        fDPIparse(hdr);
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
        SCOPED_TRACE(bad_type);
        EXPECT_EQ(mkDPIset_packet(chain, "1.3.", nullptr, bad_type, 0, nullptr), nullptr);
    }
    EXPECT_EQ(mkDPIset_packet(chain, "1.3.", nullptr, 2, 65536, "x"), nullptr);
    EXPECT_EQ(mkDPIset_packet(chain, "1.3.", nullptr, 2, -1, "x"), nullptr);
    EXPECT_EQ(mkDPIset_packet(chain, "1.3.", nullptr, 2, 1, nullptr), nullptr);
    EXPECT_EQ(chain->next->next, nullptr);

    // The value is the caller's bytes, copied.
    char text[] = "abc";
    EXPECT_EQ(mkDPIset_packet(chain, "1.3.", "2", 2, 3, text), chain);
    text[0] = 'z';
    EXPECT_EQ(std::memcmp(chain->next->next->value, "abc", 3), 0);
    fDPIset_packet(chain);
}

TEST(DpiBuild, SetValueLengthsByType) {
    struct Row {
        int type;
        int len;
        bool written;
    };
    static const Row rows[] = {
        {DPI_TYPE_NsapAddress, 1, true},  {DPI_TYPE_NsapAddress, 2, false},
        {DPI_TYPE_NsapAddress, 3, false}, {DPI_TYPE_NsapAddress, 4, true},
        {DPI_TYPE_NsapAddress, 21, true}, {DPI_TYPE_NsapAddress, 22, false},
        {DPI_TYPE_NsapAddress, 0, false}, {DPI_TYPE_NULL, 4, true},
        {DPI_TYPE_NULL, 5, false},        {DPI_TYPE_endOfMibView, 0, true},
        {DPI_TYPE_Integer32, 3, false},   {DPI_TYPE_Integer32, 0, false},
        {DPI_TYPE_IpAddress, 5, false},   {DPI_TYPE_Counter64, 4, false},
        {DPI_TYPE_Counter64, 0, false},   {DPI_TYPE_OCTET_STRING, 0, true},
        {DPI_TYPE_Opaque, 300, true},     {DPI_TYPE_OBJECT_IDENTIFIER, 1, true},
    };
    const unsigned char value[300] = {};
    for (const Row& row : rows) {
        SCOPED_TRACE(std::to_string(row.type) + "/" + std::to_string(row.len));
        dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_SET, 2, 0);
        hdr->data = mkDPIset_packet(nullptr, "1.3.", "1", row.type, row.len, value);
        ASSERT_NE(hdr->data, nullptr);
        unsigned char* packet = mkDPIpacket(hdr);
        EXPECT_EQ(packet != nullptr, row.written);
        if (packet != nullptr) {
            EXPECT_EQ(dpi_packet_len(packet), 8u + 2 + 5 + 2 + 3 + static_cast<unsigned>(row.len));
        }
    }
}

TEST(DpiBuild, SizeLimit) {
    // 8 header + 2 extra length + "1.3.\0" + instance NUL + 3 type/length = 19 bytes around
    // the value, so a value of 4076 bytes makes the largest packet there is.
    std::vector<unsigned char> value(4077, 'v');
    for (int len : {4076, 4077}) {
        SCOPED_TRACE(len);
        dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_SET, 2, 0);
        hdr->data = mkDPIset_packet(nullptr, "1.3.", nullptr, 2, len, value.data());
        unsigned char* packet = mkDPIpacket(hdr);
        if (len == 4076) {
            ASSERT_NE(packet, nullptr);
            EXPECT_EQ(dpi_packet_len(packet), 4095u);
            dpi_hdr* parsed = pDPIpacket(packet);
            EXPECT_NE(parsed, nullptr);
            fDPIparse(parsed);
        } else {
            EXPECT_EQ(packet, nullptr);
        }
    }
    // The limit also holds across many records and for the pass-through bytes.
    dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_GET, 2, 0);
    dpi_get_packet* chain = nullptr;
    for (int i = 0; i < 500; i++) {
        chain = mkDPIget_packet(chain, "1.3.6.1.2.1.", "1.0");
    }
    hdr->data = chain;
    EXPECT_EQ(mkDPIpacket(hdr), nullptr);
    hdr = mkDPIhdr_version(SNMP_DPI_GET, 2, 0);
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
    auto two = [] {
        return int_varbind(int_varbind(nullptr, "1.3.", "1", 129, 1), "1.3.", "2", 129, 2);
    };

    unsigned char* packet = mkDPIresp(get, 2, 2, two());
    ASSERT_NE(packet, nullptr);
    std::vector<unsigned char> bytes(packet, packet + dpi_packet_len(packet));
    EXPECT_EQ(to_hex(bytes), expected_hex("LLLL 020200 1234 05 02 00000002 312e332e00 3100 810004"
                                          "00000001 312e332e00 3200 810004 00000002"));
    EXPECT_EQ(mkDPIresp(get, 2, 3, two()), nullptr);
    EXPECT_NE(mkDPIresp(reg, 2, 3, two()), nullptr);
    EXPECT_NE(mkDPIresp(get, 5, 7, nullptr), nullptr);
    EXPECT_EQ(mkDPIresp(get, 256, 0, two()), nullptr);
    EXPECT_EQ(mkDPIresp(get, -1, 0, two()), nullptr);
    EXPECT_EQ(mkDPIresp(get, 0, -1, two()), nullptr);
    EXPECT_EQ(mkDPIresp(nullptr, 0, 0, two()), nullptr);

    // A version-1 request gets a version-1 answer: no packet number, no error index.
    packet = mkDPIresp(v1, 101, 0, nullptr);
    ASSERT_NE(packet, nullptr);
    bytes.assign(packet, packet + dpi_packet_len(packet));
    EXPECT_EQ(to_hex(bytes), expected_hex("LLLL 020101 05 65"));

    // Building a response takes a packet number even though the answer carries the request's.
    uint16_t before = next_packet_id();
    packet = mkDPIresp(get, 0, 0, nullptr);
    ASSERT_NE(packet, nullptr);
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
    EXPECT_EQ(mkDPIhdr_version(SNMP_DPI_GET, 2, 1), nullptr);
    EXPECT_EQ(mkDPIhdr_version(SNMP_DPI_GET, 1, 2), nullptr);
    EXPECT_EQ(mkDPIhdr_version(SNMP_DPI_GET, 3, 0), nullptr);
    EXPECT_EQ(mkDPIhdr_version(SNMP_DPI_GET, 0, 0), nullptr);

    // Run the counter round to 65535; the number after it is 0, and an ARE_YOU_THERE made
    // then is the all-zero-number packet.
    while (next_packet_id() != 65535) {
    }
    dpi_hdr* last = mkDPIhdr_version(SNMP_DPI_GET, 2, 0);
    EXPECT_EQ(last->packet_id, 65535);
    fDPIparse(last);
    unsigned char* packet = mkDPIayt();
    ASSERT_NE(packet, nullptr);
    std::vector<unsigned char> bytes(packet, packet + dpi_packet_len(packet));
    EXPECT_EQ(to_hex(bytes), "000602020000000f");
    EXPECT_EQ(next_packet_id(), 2);
}

// Trees assembled by hand and abandoned part-way must release whatever they hold; the leak
// checker of the sanitizer build is the judge here.
TEST(DpiRelease, HalfBuiltTrees) {
    dpi_hdr* hdr = static_cast<dpi_hdr*>(calloc(1, sizeof(dpi_hdr)));
    hdr->packet_type = SNMP_DPI_RESPONSE;
    auto* resp = static_cast<dpi_resp_packet*>(calloc(1, sizeof(dpi_resp_packet)));
    resp->varBinds = static_cast<dpi_set_packet*>(calloc(1, sizeof(dpi_set_packet)));
    resp->varBinds->group_id = strdup("1.3.");
    hdr->data = resp;
    fDPIparse(hdr);

    hdr = static_cast<dpi_hdr*>(calloc(1, sizeof(dpi_hdr)));
    hdr->packet_type = SNMP_DPI_TRAP;
    auto* trap = static_cast<dpi_trap_packet*>(calloc(1, sizeof(dpi_trap_packet)));
    trap->enterprise_id = strdup("1.3");
    hdr->data = trap;
    hdr->extra = static_cast<unsigned char*>(malloc(3));
    hdr->extra_len = 3;
    fDPIparse(hdr);

    hdr = static_cast<dpi_hdr*>(calloc(1, sizeof(dpi_hdr)));
    hdr->packet_type = SNMP_DPI_OPEN;
    auto* open = static_cast<dpi_open_packet*>(calloc(1, sizeof(dpi_open_packet)));
    open->description = strdup("half");
    hdr->data = open;
    fDPIparse(hdr);

    // Types without a record of their own must leave `data` alone: freeing this stack
    // object would be caught by the sanitizer.
    for (int type : {0, 12, 13, 14, 15, 16, 200}) {
        SCOPED_TRACE(type);
        int not_a_record = 0;
        hdr = static_cast<dpi_hdr*>(calloc(1, sizeof(dpi_hdr)));
        hdr->packet_type = static_cast<uint8_t>(type);
        hdr->data = &not_a_record;
        hdr->extra = static_cast<unsigned char*>(malloc(1));
        fDPIparse(hdr);
    }
    fDPIparse(nullptr);
    fDPIset_packet(nullptr);

    // A serialisation that fails halfway through a chain leaves the tree intact and whole.
    hdr = mkDPIhdr_version(SNMP_DPI_SET, 2, 0);
    dpi_set_packet* vbs = int_varbind(nullptr, "1.3.", "1", 129, 1);
    vbs = mkDPIset_packet(vbs, "1.3.", "2", DPI_TYPE_Integer32, 2, "ab");
    hdr->data = vbs;
    EXPECT_EQ(cDPIpacket(hdr), nullptr);
    EXPECT_EQ(vbs->next->value_len, 2);
    EXPECT_EQ(mkDPIpacket(hdr), nullptr);
}

TEST(DpiDebug, AnnouncesChangesOnly) {
    testing::internal::CaptureStdout();
    DPIdebug(0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    testing::internal::CaptureStdout();
    DPIdebug(1);
    DPIdebug(1);
    std::string on = testing::internal::GetCapturedStdout();
    EXPECT_EQ(on.rfind("DPI Debug turned ON (level 1)\nDPI Debug code not available\n"
                       "snmpmDPI.cpp - DPI Version 2.0.22, 96Sep30, Compiled ",
                       0),
              0u)
        << on;
    EXPECT_EQ(std::count(on.begin(), on.end(), '\n'), 3);

    testing::internal::CaptureStdout();
    DPIdebug(0);
    std::string off = testing::internal::GetCapturedStdout();
    EXPECT_EQ(off.rfind("DPI Debug turned OFF (level 0)\nsnmpmDPI.cpp - DPI Version", 0), 0u)
        << off;
    EXPECT_EQ(std::count(off.begin(), off.end(), '\n'), 2);

    testing::internal::CaptureStdout();
    dpilog("%s|%d", std::string(1000, 'x').c_str(), 5);
    dpilog("no newline");
    std::string logged = testing::internal::GetCapturedStdout();
    EXPECT_EQ(logged, std::string(799, 'x') + "no newline");
}

}  // namespace
