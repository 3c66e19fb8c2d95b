// DPI packet library: parsing, and round trips between the serialiser and the parser.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "snmpmDPI.h"

namespace {

std::string to_hex(const unsigned char* bytes, size_t len) {
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (size_t i = 0; i < len; i++) {
        hex += digits[bytes[i] >> 4];
        hex += digits[bytes[i] & 15];
    }
    return hex;
}

// Spaces are for reading only; a leading "LLLL" is replaced by the packet's own length.
std::vector<unsigned char> from_hex(const char* text) {
    std::string hex;
    for (const char* p = text; *p != '\0'; p++) {
        if (*p != ' ') {
            hex += *p;
        }
    }
    bool fill_length = hex.rfind("LLLL", 0) == 0;
    if (fill_length) {
        hex.replace(0, 4, "0000");
    }
    std::vector<unsigned char> bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    }
    if (fill_length) {
        bytes[0] = static_cast<unsigned char>((bytes.size() - 2) >> 8);
        bytes[1] = static_cast<unsigned char>(bytes.size() - 2);
    }
    return bytes;
}

std::string text(const char* t) {
    return t == nullptr ? "(null)" : t;
}

std::string value_text(const dpi_set_packet* vb) {
    if (vb->value == nullptr) {
        return vb->value_len == 0 ? "-" : "(missing)";
    }
    uint32_t words[2] = {0, 0};
    if (vb->value_type == DPI_TYPE_Integer32 && vb->value_len == 4) {
        int32_t number = 0;
        memcpy(&number, vb->value, 4);
        return std::to_string(number);
    }
    if (vb->value_type >= 128 && vb->value_type != DPI_TYPE_IpAddress_v1 && vb->value_len == 4) {
        memcpy(words, vb->value, 4);
        return std::to_string(words[0]);
    }
    if (vb->value_type == DPI_TYPE_Counter64 && vb->value_len == 8) {
        memcpy(words, vb->value, 8);
        return std::to_string(words[0]) + ":" + std::to_string(words[1]);
    }
    return to_hex(vb->value, vb->value_len);
}

// One line per tree; two trees are equal when their lines are. `objects_only` leaves out
// group and instance of GET records and varBinds, which version 1 does not carry apart.
std::string dump(const dpi_hdr* hdr, bool objects_only = false) {
    if (hdr == nullptr) {
        return "(null)";
    }
    std::string out = "v" + std::to_string(hdr->version) + "." + std::to_string(hdr->release) +
                      " id=" + std::to_string(hdr->packet_id) +
                      " t=" + std::to_string(hdr->packet_type);
    if (hdr->extra_len != 0 || hdr->extra != nullptr) {
        out += " x=" + to_hex(hdr->extra, hdr->extra_len);
    }
    auto ids = [&](const char* g, const char* i, const char* o) {
        return (objects_only ? "" : "g=" + text(g) + " i=" + text(i) + " ") + "o=" + text(o);
    };
    auto varbinds = [&](const dpi_set_packet* vb) {
        std::string s;
        for (; vb != nullptr; vb = vb->next) {
            s += " [" + ids(vb->group_id, vb->instance_id, vb->object_id) +
                 " t=" + std::to_string(vb->value_type) + " v=" + value_text(vb) + "]";
        }
        return s;
    };
    switch (hdr->packet_type) {
        case SNMP_DPI_GET:
            for (auto* r = static_cast<const dpi_get_packet*>(hdr->data); r; r = r->next) {
                out += " get[" + ids(r->group_id, r->instance_id, r->object_id) + "]";
            }
            break;
        case SNMP_DPI_GETNEXT:
            for (auto* r = static_cast<const dpi_next_packet*>(hdr->data); r; r = r->next) {
                out += " next[g=" + text(r->group_id) + " i=" + text(r->instance_id) +
                       " o=" + text(r->object_id) + "]";
            }
            break;
        case SNMP_DPI_SET:
        case SNMP_DPI_COMMIT:
        case SNMP_DPI_UNDO:
            out += varbinds(static_cast<const dpi_set_packet*>(hdr->data));
            break;
        case SNMP_DPI_TRAP: {
            auto* t = static_cast<const dpi_trap_packet*>(hdr->data);
            out += " trap g=" + std::to_string(t->generic) + " s=" + std::to_string(t->specific) +
                   " e=" + text(t->enterprise_id) + varbinds(t->varBinds);
            break;
        }
        case SNMP_DPI_RESPONSE: {
            auto* r = static_cast<const dpi_resp_packet*>(hdr->data);
            out += " resp c=" + std::to_string(r->error_code) +
                   " i=" + std::to_string(r->error_index) + varbinds(r->varBinds);
            break;
        }
        case SNMP_DPI_REGISTER:
            for (auto* r = static_cast<const dpi_reg_packet*>(hdr->data); r; r = r->next) {
                out += " reg[p=" + std::to_string(r->priority) +
                       " t=" + std::to_string(r->timeout) +
                       " v=" + std::to_string(r->view_selection) +
                       " b=" + std::to_string(r->bulk_selection) + " g=" + text(r->group_id) + "]";
            }
            break;
        case SNMP_DPI_UNREGISTER:
            for (auto* r = static_cast<const dpi_ureg_packet*>(hdr->data); r; r = r->next) {
                out += " ureg[r=" + std::to_string(r->reason) + " g=" + text(r->group_id) + "]";
            }
            break;
        case SNMP_DPI_OPEN: {
            auto* o = static_cast<const dpi_open_packet*>(hdr->data);
            out += " open t=" + std::to_string(o->timeout) +
                   " m=" + std::to_string(o->max_varbinds) +
                   " c=" + std::to_string(o->character_set) + " o=" + text(o->object_id) +
                   " d=" + text(o->description) +
                   " p=" + (o->password ? to_hex(o->password, o->password_len) : "(null)");
            break;
        }
        case SNMP_DPI_CLOSE:
            out += " close r=" +
                   std::to_string(static_cast<const dpi_close_packet*>(hdr->data)->reason);
            break;
        default:
            if (hdr->data != nullptr) {
                out += " (data)";
            }
            break;
    }
    return out;
}

// What serialising a parsed tree again gives.
enum Again {
    SAME,     // the very bytes parsed
    FAILS,    // no packet: the tree holds what the writer refuses
    OTHER,    // a packet, but not byte for byte (ignored trailing bytes, added NULs)
    CHANGED,  // a packet of another tree: the writer joins group and instance itself
};

struct ParseRow {
    const char* name;
    const char* hex;
    const char* tree;  // null: the packet is refused
    Again again;
};

const ParseRow parse_rows[] = {
    {"close", "LLLL 020200 0001 09 02", "v2.0 id=1 t=9 close r=2", SAME},
    {"close, rest ignored", "LLLL 020200 0017 09 02 ffff", "v2.0 id=23 t=9 close r=2", OTHER},
    {"close without body", "LLLL 020200 0001 09", nullptr, SAME},
    {"version 1 release 2", "LLLL 020102 09 02", nullptr, SAME},
    {"version 2 release 1", "LLLL 020201 0001 09 02", nullptr, SAME},
    {"version 3", "LLLL 020300 0001 09 02", nullptr, SAME},
    {"protocol 1", "LLLL 010200 0001 09 02", nullptr, SAME},
    {"length below the version-2 header", "0004 020200 00 01", nullptr, SAME},
    {"length below the version-1 header", "0003 020100 09", nullptr, SAME},
    {"length field only", "0000", nullptr, SAME},
    {"negative length", "8006 020200 0001 0f", nullptr, SAME},
    {"are you there, bytes after it ignored", "LLLL 020200 0005 0f abcd", "v2.0 id=5 t=15", OTHER},
    {"getbulk", "LLLL 020200 0001 0c 0000 312e00 00", nullptr, SAME},
    {"trapv2", "LLLL 020200 0001 0d 00000000 00000000 00", nullptr, SAME},
    {"inform", "LLLL 020200 0001 0e 00", nullptr, SAME},
    {"type 0", "LLLL 020200 0001 00 00", nullptr, SAME},
    {"type 16", "LLLL 020200 0001 10 00", nullptr, SAME},

    {"get, group only", "LLLL 020200 0002 01 0000 312e332e00 00",
     "v2.0 id=2 t=1 get[g=1.3. i=(null) o=1.3]", SAME},
    {"get, group, instance and extra bytes", "LLLL 020200 0003 01 0002 beef 312e332e00 3100",
     "v2.0 id=3 t=1 x=beef get[g=1.3. i=1 o=1.3.1]", SAME},
    {"get, last record without instance byte", "LLLL 020200 0004 01 0000 312e00 3200 322e3300",
     "v2.0 id=4 t=1 get[g=1. i=2 o=1.2] get[g=2.3 i=(null) o=2.3]", OTHER},
    {"get, empty group", "LLLL 020200 0005 01 0000 00 00", nullptr, SAME},
    {"get, nothing after extra", "LLLL 020200 0006 01 0000", nullptr, SAME},
    {"get, no extra length", "LLLL 020200 0006 01", nullptr, SAME},
    {"get, extra longer than body", "LLLL 020200 0007 01 0005 abcd", nullptr, SAME},
    {"get, unterminated group", "LLLL 020200 0008 01 0000 312e33", nullptr, SAME},
    {"version-1 get", "LLLL 020100 01 312e332e3100", "v1.0 id=0 t=1 get[g=1.3.1 i=(null) o=1.3.1]",
     SAME},

    {"set, Integer32 and Counter32",
     "LLLL 020200 0009 03 0000 312e332e00 3100 810004 ffffff85 312e332e00 3200 860004 00000100",
     "v2.0 id=9 t=3 [g=1.3. i=1 o=1.3.1 t=129 v=-123] [g=1.3. i=2 o=1.3.2 t=134 v=256]", SAME},
    {"set, IpAddress in version-1 numbering keeps its bytes",
     "LLLL 020200 000a 03 0000 312e332e00 00 850004 0a000001",
     "v2.0 id=10 t=3 [g=1.3. i=(null) o=1.3 t=133 v=0a000001]", SAME},
    {"set, Integer32 of 2 bytes", "LLLL 020200 000b 03 0000 312e332e00 00 810002 0001", nullptr,
     SAME},
    {"set, Counter64", "LLLL 020200 000c 03 0000 312e332e00 3700 0d0008 0000000100000002",
     "v2.0 id=12 t=3 [g=1.3. i=7 o=1.3.7 t=13 v=1:2]", SAME},
    {"set, Integer32 of no bytes", "LLLL 020200 000b 03 0000 312e332e00 00 810000", nullptr, SAME},
    {"set, Counter64 of no bytes", "LLLL 020200 000b 03 0000 312e332e00 00 0d0000", nullptr, SAME},
    {"set, Counter64 of 4 bytes", "LLLL 020200 000d 03 0000 312e332e00 00 0d0004 00000001", nullptr,
     SAME},
    {"set, value longer than body", "LLLL 020200 000e 03 0000 312e332e00 00 020005 6162", nullptr,
     SAME},
    {"set, value length 32768", "LLLL 020200 000f 03 0000 312e332e00 00 028000 6162", nullptr,
     SAME},
    {"set, value type and length cut", "LLLL 020200 0010 03 0000 312e332e00 00 0200", nullptr,
     SAME},
    {"set, unknown value type kept", "LLLL 020200 0011 03 0000 312e332e00 00 070002 abcd",
     "v2.0 id=17 t=3 [g=1.3. i=(null) o=1.3 t=7 v=abcd]", FAILS},
    {"set, group without final dot is read", "LLLL 020200 0012 03 0000 312e3300 00 020000",
     "v2.0 id=18 t=3 [g=1.3 i=(null) o=1.3 t=2 v=-]", FAILS},
    {"undo, NULL without value", "LLLL 020200 0013 0b 0000 312e332e00 3100 040000",
     "v2.0 id=19 t=11 [g=1.3. i=1 o=1.3.1 t=4 v=-]", SAME},
    {"commit, second varBind bad", "LLLL 020200 0014 0a 0000 312e332e00 3100 040000 312e00",
     nullptr, SAME},

    {"trap, numbers only", "LLLL 020200 0010 04 00000006 00000001",
     "v2.0 id=16 t=4 trap g=6 s=1 e=(null)", OTHER},
    {"trap, enterprise and varBind",
     "LLLL 020200 0011 04 00000006 0000002a 312e3300 312e332e00 3100 880004 00000009",
     "v2.0 id=17 t=4 trap g=6 s=42 e=1.3 [g=1.3. i=1 o=1.3.1 t=136 v=9]", SAME},
    {"trap, no enterprise, varBind",
     "LLLL 020200 0012 04 00000000 00000000 00 312e332e00 00 020000",
     "v2.0 id=18 t=4 trap g=0 s=0 e=(null) [g=1.3. i=(null) o=1.3 t=2 v=-]", SAME},
    {"trap, 7 bytes", "LLLL 020200 0013 04 00000006 000000", nullptr, SAME},
    {"version-1.0 trap", "LLLL 020100 04 03 ff", "v1.0 id=0 t=4 trap g=3 s=255 e=(null)", SAME},
    {"version-1.0 trap with varBind", "LLLL 020100 04 06 01 312e332e3100 810004 00000005",
     "v1.0 id=0 t=4 trap g=6 s=1 e=(null) [g=1.3.1 i=(null) o=1.3.1 t=129 v=5]", FAILS},
    {"version-1.1 trap", "LLLL 020101 04 00000002 00000000 312e3300",
     "v1.1 id=0 t=4 trap g=2 s=0 e=1.3", SAME},

    {"response with varBind", "LLLL 020200 0011 05 02 00000001 312e332e00 3100 020003 616263",
     "v2.0 id=17 t=5 resp c=2 i=1 [g=1.3. i=1 o=1.3.1 t=2 v=616263]", SAME},
    {"version-1 response with error", "LLLL 020100 05 05", "v1.0 id=0 t=5 resp c=5 i=1", SAME},
    {"version-1 response without error", "LLLL 020101 05 00", "v1.1 id=0 t=5 resp c=0 i=0", SAME},
    {"response cut in the error index", "LLLL 020200 0012 05 00 000000", nullptr, SAME},

    {"register, two subtrees",
     "LLLL 020200 0013 06 ffffffff 0005 01 00 312e332e00 00000007 0000 00 01 322e00",
     "v2.0 id=19 t=6 reg[p=-1 t=5 v=1 b=0 g=1.3.] reg[p=7 t=0 v=0 b=1 g=2.]", SAME},
    {"register without group", "LLLL 020200 0014 06 00000001 0002 00 00", nullptr, SAME},
    {"register, 5 bytes", "LLLL 020200 0014 06 00000001 00", nullptr, SAME},
    {"version-1 register", "LLLL 020100 06 312e332e00 312e352e00",
     "v1.0 id=0 t=6 reg[p=0 t=0 v=0 b=0 g=1.3.] reg[p=0 t=0 v=0 b=0 g=1.5.]", SAME},
    {"unregister", "LLLL 020200 0015 07 03 312e332e00", "v2.0 id=21 t=7 ureg[r=3 g=1.3.]", SAME},
    {"unregister without group", "LLLL 020200 0015 07 03", nullptr, SAME},

    {"open", "LLLL 020200 0016 08 000a 0014 01 312e3300 6400 0003 707721",
     "v2.0 id=22 t=8 open t=10 m=20 c=1 o=1.3 d=d p=707721", SAME},
    {"open without password, rest ignored",
     "LLLL 020200 0016 08 000a 0014 01 312e3300 6400 0000 ff",
     "v2.0 id=22 t=8 open t=10 m=20 c=1 o=1.3 d=d p=(null)", OTHER},
    {"open, empty description", "LLLL 020200 0016 08 000a 0014 01 312e3300 00 0000", nullptr, SAME},
    {"open, empty identifier", "LLLL 020200 0016 08 000a 0014 01 00 6400 0000", nullptr, SAME},
    {"open, 4 bytes", "LLLL 020200 0016 08 000a 0014", nullptr, SAME},
    {"open, password cut", "LLLL 020200 0016 08 000a 0014 01 312e3300 6400 0005 7077", nullptr,
     SAME},
    {"open, no password length", "LLLL 020200 0016 08 000a 0014 01 312e3300 6400", nullptr, SAME},

    {"version-1 getnext, group with final dot", "LLLL 020100 02 312e332e362e3100 312e332e00",
     "v1.0 id=0 t=2 next[g=1.3. i=6.1 o=1.3.6.1]", SAME},
    {"version-1 getnext, group without final dot", "LLLL 020100 02 312e332e362e3100 312e3300",
     "v1.0 id=0 t=2 next[g=1.3 i=6.1 o=1.3.6.1]", CHANGED},
    {"version-1 getnext, group as long as object", "LLLL 020101 02 312e3300 312e332e00",
     "v1.1 id=0 t=2 next[g=1.3. i=(null) o=1.3]", SAME},
    {"version-1 getnext, object only", "LLLL 020100 02 312e3300",
     "v1.0 id=0 t=2 next[g=(null) i=(null) o=1.3]", FAILS},
    {"version-1 getnext, empty object", "LLLL 020100 02 00 312e00", nullptr, SAME},
    {"version-1 getnext, empty group", "LLLL 020100 02 312e3300 00", nullptr, SAME},
    {"getnext", "LLLL 020200 0018 02 0000 312e332e00 3100",
     "v2.0 id=24 t=2 next[g=1.3. i=1 o=1.3.1]", SAME},
};

// Runs the parser on an allocation of exactly `len` bytes, so that any read past the packet
// is caught by the address sanitizer.
dpi_hdr* parse_exact(const unsigned char* bytes, size_t len) {
    unsigned char* copy = static_cast<unsigned char*>(malloc(len));
    memcpy(copy, bytes, len);
    dpi_hdr* hdr = pDPIpacket(copy);
    free(copy);
    return hdr;
}

TEST(DpiParse, Vectors) {
    EXPECT_EQ(pDPIpacket(nullptr), nullptr);
    for (const ParseRow& row : parse_rows) {
        SCOPED_TRACE(row.name);
        std::vector<unsigned char> bytes = from_hex(row.hex);
        dpi_hdr* hdr = parse_exact(bytes.data(), bytes.size());
        if (row.tree == nullptr) {
            EXPECT_EQ(hdr, nullptr) << dump(hdr);
            fDPIparse(hdr);
            continue;
        }
        ASSERT_NE(hdr, nullptr);
        EXPECT_EQ(dump(hdr), row.tree);
        unsigned char* again = cDPIpacket(hdr);
        if (row.again == FAILS) {
            EXPECT_EQ(again, nullptr);
        } else {
            ASSERT_NE(again, nullptr);
            std::string again_hex = to_hex(again, dpi_packet_len(again));
            if (row.again == SAME) {
                EXPECT_EQ(again_hex, to_hex(bytes.data(), bytes.size()));
            }
            // Whatever the writer makes of a parsed tree reads back as the same tree.
            dpi_hdr* reread = pDPIpacket(again);
            ASSERT_NE(reread, nullptr) << again_hex;
            if (row.again != CHANGED) {
                EXPECT_EQ(dump(reread), row.tree) << again_hex;
            }
            fDPIparse(reread);
        }
        fDPIparse(hdr);
    }
}

// Every prefix of a packet, with its length field saying so, is either refused or read as a
// shorter packet; never read beyond, never leaked.
void check_truncations(const std::vector<unsigned char>& bytes) {
    for (size_t len = 2; len < bytes.size(); len++) {
        SCOPED_TRACE(len);
        std::vector<unsigned char> cut(bytes.begin(), bytes.begin() + static_cast<long>(len));
        cut[0] = static_cast<unsigned char>((len - 2) >> 8);
        cut[1] = static_cast<unsigned char>(len - 2);
        dpi_hdr* hdr = parse_exact(cut.data(), cut.size());
        if (hdr != nullptr) {
            unsigned char* again = cDPIpacket(hdr);
            if (again != nullptr) {
                EXPECT_LE(dpi_packet_len(again), len + 2);  // at most the NULs a reader infers
            }
        }
        fDPIparse(hdr);
    }
}

TEST(DpiParse, EveryTruncation) {
    for (const ParseRow& row : parse_rows) {
        if (row.tree != nullptr) {
            SCOPED_TRACE(row.name);
            check_truncations(from_hex(row.hex));
        }
    }
    // Packets whose every field is needed: any cut must be refused.
    static const char* const whole[] = {
        "LLLL 020200 0009 03 0000 312e332e00 3100 810004 ffffff85",
        "LLLL 020200 0016 08 000a 0014 01 312e3300 6400 0003 707721",
        "LLLL 020200 0015 07 03 312e332e00",
        "LLLL 020200 0013 06 ffffffff 0005 01 00 312e332e00",
    };
    for (const char* hex : whole) {
        SCOPED_TRACE(hex);
        std::vector<unsigned char> bytes = from_hex(hex);
        for (size_t len = 2; len < bytes.size(); len++) {
            std::vector<unsigned char> cut(bytes.begin(), bytes.begin() + static_cast<long>(len));
            cut[0] = static_cast<unsigned char>((len - 2) >> 8);
            cut[1] = static_cast<unsigned char>(len - 2);
            dpi_hdr* hdr = parse_exact(cut.data(), cut.size());
            EXPECT_EQ(hdr, nullptr) << "prefix of " << len << " bytes: " << dump(hdr);
            fDPIparse(hdr);
        }
    }
}

// A tree of every packet type, as a subagent or the agent would build it, in one version.
std::vector<dpi_hdr*> sample_trees(int version, int release) {
    std::vector<dpi_hdr*> trees;
    auto hdr = [&](int type) {
        dpi_hdr* h = mkDPIhdr_version(type, version, release);
        trees.push_back(h);
        return h;
    };
    auto varbinds = [&] {
        uint32_t number = 0xFFFFFF85u;
        uint32_t words[2] = {0x80000000u, 7};
        const unsigned char addr[4] = {127, 0, 0, 1};
        dpi_set_packet* vbs = mkDPIset_packet(nullptr, "1.3.6.1.2.1.1.", "1.0", 129, 4, &number);
        vbs = mkDPIset_packet(vbs, "1.3.6.1.2.1.1.", "2.0", DPI_TYPE_OCTET_STRING, 0, nullptr);
        vbs = mkDPIset_packet(vbs, "1.3.6.1.2.1.1.", "3.0", DPI_TYPE_DisplayString, 5, "hello");
        vbs = mkDPIset_packet(vbs, "1.3.6.1.2.1.1.", "4.0", DPI_TYPE_Counter64, 8, words);
        vbs = mkDPIset_packet(vbs, "1.3.6.1.2.1.1.", nullptr, DPI_TYPE_OBJECT_IDENTIFIER, 3, "1.3");
        vbs = mkDPIset_packet(vbs, "1.3.6.1.2.1.1.", "6.0", DPI_TYPE_noSuchInstance, 0, nullptr);
        vbs = mkDPIset_packet(vbs, "1.3.6.1.2.1.1.", "7.0", DPI_TYPE_TimeTicks, 4, &number);
        if (version == 2) {
            // Version 1 renumbers IpAddress, so it reads back as another type.
            vbs = mkDPIset_packet(vbs, "1.3.6.1.2.1.1.", "8.0", DPI_TYPE_IpAddress, 4, addr);
        }
        return vbs;
    };

    dpi_hdr* get = hdr(SNMP_DPI_GET);
    get->data =
        mkDPIget_packet(mkDPIget_packet(nullptr, "1.3.6.1.2.1.1.", "1.0"), "1.3.6.", nullptr);
    if (version == 2) {
        get->extra_len = 2;
        get->extra = static_cast<unsigned char*>(malloc(2));
        memcpy(get->extra, "\x01\x02", 2);
    }
    dpi_hdr* next = hdr(SNMP_DPI_GETNEXT);
    next->data =
        mkDPInext_packet(mkDPInext_packet(nullptr, "1.3.6.1.2.1.1.", "1.0"), "1.3.6.", nullptr);
    for (int type : {SNMP_DPI_SET, SNMP_DPI_COMMIT, SNMP_DPI_UNDO}) {
        hdr(type)->data = varbinds();
    }
    auto* trap = static_cast<dpi_trap_packet*>(calloc(1, sizeof(dpi_trap_packet)));
    trap->generic = 6;
    trap->specific = version == 1 && release == 0 ? 200 : 70000;
    trap->enterprise_id = version == 1 && release == 0 ? nullptr : strdup("1.3.6.1.4.1.2");
    trap->varBinds = varbinds();
    hdr(SNMP_DPI_TRAP)->data = trap;
    auto* resp = static_cast<dpi_resp_packet*>(calloc(1, sizeof(dpi_resp_packet)));
    resp->error_code = 5;
    resp->error_index = 1;
    resp->varBinds = varbinds();
    hdr(SNMP_DPI_RESPONSE)->data = resp;
    dpi_reg_packet* regs = nullptr;
    if (version == 2) {
        regs = mkDPIreg_packet(mkDPIreg_packet(nullptr, 10, -1, "1.3.6.1.4.1.9.", 1, 0), 65535, 100,
                               "1.3.6.1.4.1.10.", 0, 1);
    } else {
        regs = mkDPIreg_packet(mkDPIreg_packet(nullptr, 0, 0, "1.3.6.1.4.1.9.", 0, 0), 0, 0,
                               "1.3.6.1.4.1.10.", 0, 0);
    }
    hdr(SNMP_DPI_REGISTER)->data = regs;
    hdr(SNMP_DPI_UNREGISTER)->data =
        mkDPIureg_packet(mkDPIureg_packet(nullptr, 1, "1.3.6.1.4.1.9."), 255, "1.3.6.1.4.1.10.");
    auto* open = static_cast<dpi_open_packet*>(calloc(1, sizeof(dpi_open_packet)));
    open->object_id = strdup("1.3.6.1.4.1.2.3");
    open->description = strdup("sample subagent");
    open->timeout = 3;
    open->max_varbinds = 1;
    open->character_set = 1;
    open->password_len = 4;
    open->password = static_cast<unsigned char*>(malloc(4));
    memcpy(open->password, "\0pw\xff", 4);
    hdr(SNMP_DPI_OPEN)->data = open;
    auto* close = static_cast<dpi_close_packet*>(calloc(1, sizeof(dpi_close_packet)));
    close->reason = 9;
    hdr(SNMP_DPI_CLOSE)->data = close;
    hdr(SNMP_DPI_ARE_YOU_THERE);
    return trees;
}

TEST(DpiRoundTrip, EveryTypeEveryVersion) {
    const int versions[][2] = {{2, 0}, {1, 0}, {1, 1}};
    for (const auto& vr : versions) {
        for (dpi_hdr* tree : sample_trees(vr[0], vr[1])) {
            SCOPED_TRACE(dump(tree));
            unsigned char* packet = cDPIpacket(tree);
            ASSERT_NE(packet, nullptr);
            std::vector<unsigned char> bytes(packet, packet + dpi_packet_len(packet));
            dpi_hdr* parsed = parse_exact(bytes.data(), bytes.size());
            ASSERT_NE(parsed, nullptr) << to_hex(bytes.data(), bytes.size());
            // Version 1 carries a GET record or varBind as one object identifier text.
            bool objects_only = vr[0] == 1;
            EXPECT_EQ(dump(parsed, objects_only), dump(tree, objects_only));
            check_truncations(bytes);
            fDPIparse(parsed);
            fDPIparse(tree);
        }
    }
}

TEST(DpiRoundTrip, VersionOneGetnextKeepsGroupAndInstance) {
    for (const char* group : {"1.3.6.1.2.1.1.", "1.3."}) {
        SCOPED_TRACE(group);
        dpi_hdr* tree = mkDPIhdr_version(SNMP_DPI_GETNEXT, 1, 0);
        tree->data = mkDPInext_packet(nullptr, group, "5.0");
        dpi_hdr* parsed = pDPIpacket(cDPIpacket(tree));
        ASSERT_NE(parsed, nullptr);
        auto* want = static_cast<dpi_next_packet*>(tree->data);
        auto* got = static_cast<dpi_next_packet*>(parsed->data);
        EXPECT_STREQ(got->group_id, want->group_id);
        EXPECT_STREQ(got->instance_id, "5.0");
        EXPECT_STREQ(got->object_id, want->object_id);
        EXPECT_EQ(got->next, nullptr);
        fDPIparse(parsed);
        fDPIparse(tree);
    }
}

}  // namespace
