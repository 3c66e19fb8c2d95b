// AgentX PDUs laid out field by field: decoded, rendered, encoded again byte for byte, framed
// and cut at every length; input in both byte orders; what decoder and encoder refuse.
#include "agentx_ed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "snmp_container.h"
#include "vx_peers.h"

namespace {

using Bytes = std::vector<uint8_t>;
using std::string;

constexpr int OK = AGENTX_OK, MAL = AGENTX_MALFORMED, MORE = AGENTX_NEED_MORE;

Bytes hex(const string& text) {
    return vx_hex(text.c_str());
}

string rep(const string& s, int n) {
    string out;
    for (int i = 0; i < n; i++) {
        out += s;
    }
    return out;
}

// A PDU in network byte order from session 1, transaction 2, packet 3.
Bytes ax(uint8_t type, uint8_t flags, const string& payload) {
    Bytes body = hex(payload);
    char head[64];
    std::snprintf(head, sizeof head, "01 %02X %02X 00 00000001 00000002 00000003 %08zX", type,
                  flags | 0x10, body.size());
    Bytes out = hex(head);
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

// A varbind named 1.3.6.1.4.1.99999.1.n (prefix-compressed) and its expected rendering.
string vb(const char* type, int n, const string& data = "") {
    char s[64];
    std::snprintf(s, sizeof s, "%s 0000 04040000 00000001 0001869F 00000001 %08X ", type, n);
    return s + data + " ";
}
string e(int n, const string& value) {
    return " 1.3.6.1.4.1.99999.1." + std::to_string(n) + "=" + value;
}

string oid_text(const snmp_container* c) {
    string out;
    for (uint32_t i = 0; c != nullptr && i < c->length; i++) {
        out += (i ? "." : "") + std::to_string(snmp_container_const_subids(c)[i]);
    }
    return out;
}

string quoted(const snmp_container* c) {
    return "'" + string(reinterpret_cast<const char*>(snmp_container_const_octets(c)), c->length) +
           "'";
}

string value_text(const snmp_container* v) {
    char b[40];
    std::snprintf(b, sizeof b, "%02X:", v->tag);
    switch (v->native) {
        case SNMP_NATIVE_OID:
            return b + oid_text(v);
        case SNMP_NATIVE_OCTETS:
            return b + quoted(v);
        case SNMP_NATIVE_U64:
            return b + std::to_string(v->value.words[0]) + "." + std::to_string(v->value.words[1]);
        case SNMP_NATIVE_S32:
            return b + std::to_string(v->value.s32);
        case SNMP_NATIVE_U32:
            if (v->tag == SNMP_TAG_IPADDRESS) {
                const uint8_t* o = v->value.octets;
                std::snprintf(b + 3, sizeof b - 3, "%02X%02X%02X%02X", o[0], o[1], o[2], o[3]);
                return b;
            }
            return b + std::to_string(v->value.u32);
        default:
            return b;
    }
}

// Every field the type uses; the byte-order flag is left out, so that both orders render alike.
string render(const agentx_pdu* p) {
    const agentx_header& h = p->header;
    char b[96];
    std::snprintf(b, sizeof b, "%s f%02X s%u t%u p%u", agentx_pdu_name(h.type), h.flags & ~0x10,
                  h.session_id, h.transaction_id, h.packet_id);
    string out = b;
    uint8_t t = h.type;
    if ((h.flags & 0x08) != 0 && ((t >= 3 && t <= 8) || (t >= 12 && t <= 17))) {
        out += " ctx" + quoted(p->context);
    }
    if (t == 1 || t == 16) {
        out += (t == 1 ? " to" + std::to_string(p->timeout) : "") + " " + oid_text(p->oid) + " " +
               quoted(p->description);
    } else if (t == 2) {
        out += " reason" + std::to_string(p->reason);
    } else if (t == 3 || t == 4) {
        std::snprintf(b, sizeof b, " to%u pri%u ", p->timeout, p->priority);
        out += b + oid_text(p->oid);
        if (p->range_subid != 0) {
            out += " r" + std::to_string(p->range_subid) + "-" + std::to_string(p->upper_bound);
        }
    } else if (t == 7) {
        out +=
            " nr" + std::to_string(p->non_repeaters) + " mr" + std::to_string(p->max_repetitions);
    } else if (t == 17) {
        out += " " + oid_text(p->oid);
    } else if (t == 18) {
        std::snprintf(b, sizeof b, " up%u err%u idx%u", p->sys_uptime, p->error, p->error_index);
        out += b;
    }
    for (uint32_t i = 0; i < p->num_ranges; i++) {
        const agentx_range& r = p->ranges[i];
        out += " [" + oid_text(r.start) + (r.include ? "+," : ",") + oid_text(r.end) + "]";
    }
    for (uint32_t i = 0; i < p->num_varbinds; i++) {
        out += " " + oid_text(p->varbinds[i].name) + "=" + value_text(p->varbinds[i].value);
    }
    return out;
}

int decode(const Bytes& wire, agentx_pdu* p, size_t len = SIZE_MAX) {
    return agentx_decode_pdu(wire.data(), uint32_t(std::min(len, wire.size())), p);
}

struct Row {
    const char* name;
    Bytes wire;
    int code;
    string rendered = "";
    Bytes again = {};  // the encoding when it differs from `wire`
    int frame = OK;
};

// One record takes every row, so containers are recycled across types and kinds.
void check(agentx_pdu* rec, const Row& row) {
    const auto n = uint32_t(row.wire.size());
    uint32_t flen = 0;
    EXPECT_EQ(agentx_frame_len(row.wire.data(), n, &flen), row.frame);
    ASSERT_EQ(decode(row.wire, rec), row.code);
    if (row.code != OK) {
        if (row.frame == OK) {
            EXPECT_EQ(rec->header.packet_id, 3u);  // enough to answer it
        }
        return;
    }
    EXPECT_EQ(flen, n);
    EXPECT_EQ(render(rec), row.rendered);
    Bytes out(n + 8);
    uint32_t len = 0;
    ASSERT_EQ(agentx_encode_pdu(rec, out.data(), uint32_t(out.size()), &len), OK);
    out.resize(len);
    EXPECT_EQ(out, row.again.empty() ? row.wire : row.again);
    EXPECT_EQ(agentx_encode_pdu(rec, out.data(), len - 1, &len), AGENTX_NO_ROOM);
    for (uint32_t cut = 0; cut < n; cut++) {
        EXPECT_EQ(agentx_frame_len(row.wire.data(), cut, &flen), MORE);
        EXPECT_EQ(flen, cut < 20 ? 20 : n);
        EXPECT_EQ(decode(row.wire, rec, cut), MORE) << "cut " << cut;
    }
    // Payload cut short on a 4-byte boundary, header length adjusted: whole or malformed.
    const bool big = (row.wire[2] & 0x10) != 0;
    for (uint32_t keep = 0; keep < n - 20; keep += 4) {
        Bytes shorter(row.wire.begin(), row.wire.begin() + 20 + keep);
        for (int i = 0; i < 4; i++) {
            shorter[big ? 19 - i : 16 + i] = uint8_t(keep >> (8 * i));
        }
        int rc = decode(shorter, rec);
        EXPECT_TRUE(rc == OK || rc == MAL) << "keep " << keep << " rc " << rc;
    }
    Bytes two = row.wire;
    two.insert(two.end(), row.wire.begin(), row.wire.end());
    EXPECT_EQ(agentx_frame_len(two.data(), uint32_t(two.size()), &flen), OK);
    EXPECT_EQ(flen, n);
    ASSERT_EQ(decode(row.again.empty() ? two : row.again, rec), OK);
    EXPECT_EQ(render(rec), row.rendered);
}

const string kEnterprise = "02040000 00000001 0001869F";  // 1.3.6.1.4.1.99999
const Bytes kNotify = ax(12, 0,
                         "0043 0000 04020000 00000001 00000001 00000003 00000000 00001068 "
                         "0006 0000 06060000 00000003 00000001 00000001 00000004 00000001 00000000 "
                         "04040000 00000001 0001869F 00000000 00000001");

TEST(AgentX, Vectors) {
    const string oid128 = "80000000" + rep("00000002", 128);
    const Row rows[] = {
        {"Open",
         hex("01 01 10 00 00000001 00000002 00000003 0000001C 05000000 " + kEnterprise +
             " 00000007 7661726E 65783200"),
         OK, "Open f00 s1 t2 p3 to5 1.3.6.1.4.1.99999 'varnex2'"},
        {"Close", ax(2, 0, "05000000"), OK, "Close f00 s1 t2 p3 reason5"},
        {"Register a row range",
         ax(3, 0, "007F0A00 05020000 00000001 00000002 00000002 00000001 00000001 00000016"), OK,
         "Register f00 s1 t2 p3 to0 pri127 1.3.6.1.2.1.2.2.1.1 r10-22"},
        {"Register an instance in a context",
         ax(3, 0x09, "00000003 63747800 1E640000 04020000 00000001 00000001 00000003 00000000"), OK,
         "Register f09 s1 t2 p3 ctx'ctx' to30 pri100 1.3.6.1.2.1.1.3.0"},
        {"Unregister", ax(4, 0, "007F0000 " + kEnterprise), OK,
         "Unregister f00 s1 t2 p3 to0 pri127 1.3.6.1.4.1.99999"},
        {"Get",
         ax(5, 0,
            "04020100 00000001 00000001 00000001 00000000 00000000 "
            "03000000 00000001 00000000 00002262 03000000 00000001 00000000 00002263"),
         OK, "Get f00 s1 t2 p3 [1.3.6.1.2.1.1.1.0+,] [1.0.8802,1.0.8803]"},
        {"GetNext: null OIDs, no prefix for 256, a prefix alone",
         ax(6, 0,
            "00000000 00000000 06000100 00000001 00000003 00000006 00000001 00000100 "
            "00000001 00040000"),
         OK, "GetNext f00 s1 t2 p3 [,] [1.3.6.1.256.1+,1.3.6.1.4]"},
        {"GetBulk in the empty context",
         ax(7, 0x08,
            "00000000 0001000A 05020000 00000001 00000002 00000002 00000001 00000002 00000000"),
         OK, "GetBulk f08 s1 t2 p3 ctx'' nr1 mr10 [1.3.6.1.2.1.2.2.1.2,]"},
        {"TestSet of every type",
         ax(8, 0,
            vb("0002", 1, "FFFFFFFF") + vb("0004", 2, "00000005 61626364 65000000") +
                vb("0005", 3) +
                vb("0006", 4, "05060000 00000003 00000001 00000001 00000005 00000001") +
                vb("0040", 5, "00000004 7F000001") + vb("0041", 6, "FFFFFFFF") +
                vb("0042", 7, "00000080") + vb("0043", 8, "7FFFFFFF") + vb("0044", 9, "00000000") +
                vb("0046", 10, "00000001 00000002")),
         OK,
         "TestSet f00 s1 t2 p3" + e(1, "02:-1") + e(2, "04:'abcde'") + e(3, "05:") +
             e(4, "06:1.3.6.1.6.3.1.1.5.1") + e(5, "40:7F000001") + e(6, "41:4294967295") +
             e(7, "42:128") + e(8, "43:2147483647") + e(9, "44:''") + e(10, "46:1.2")},
        {"CommitSet", ax(9, 0, ""), OK, "CommitSet f00 s1 t2 p3"},
        {"UndoSet", ax(10, 0, ""), OK, "UndoSet f00 s1 t2 p3"},
        {"CleanupSet", ax(11, 0, ""), OK, "CleanupSet f00 s1 t2 p3"},
        {"Notify", kNotify, OK,
         "Notify f00 s1 t2 p3 1.3.6.1.2.1.1.3.0=43:4200 "
         "1.3.6.1.6.3.1.1.4.1.0=06:1.3.6.1.4.1.99999.0.1"},
        {"Ping in a context", ax(13, 0x08, "00000006 7075626C 69630000"), OK,
         "Ping f08 s1 t2 p3 ctx'public'"},
        {"IndexAllocate", ax(14, 0x04, vb("0002", 1, "00000000")), OK,
         "IndexAllocate f04 s1 t2 p3" + e(1, "02:0")},
        {"IndexDeallocate", ax(15, 0, vb("0004", 2, "00000001 78000000")), OK,
         "IndexDeallocate f00 s1 t2 p3" + e(2, "04:'x'")},
        {"AddAgentCaps", ax(16, 0, "03040000 00000001 0001869F 00000002 00000004 63617073"), OK,
         "AddAgentCaps f00 s1 t2 p3 1.3.6.1.4.1.99999.2 'caps'"},
        {"RemoveAgentCaps", ax(17, 0, "03040000 00000001 0001869F 00000002"), OK,
         "RemoveAgentCaps f00 s1 t2 p3 1.3.6.1.4.1.99999.2"},
        {"Response with the exceptions",
         ax(18, 0, "12345678 0000 0000" + vb("0080", 1) + vb("0081", 2) + vb("0082", 3)), OK,
         "Response f00 s1 t2 p3 up305419896 err0 idx0" + e(1, "80:") + e(2, "81:") + e(3, "82:")},
        {"Response parseError", ax(18, 0, "00000000 010A 0001"), OK,
         "Response f00 s1 t2 p3 up0 err266 idx1"},
        {"OID of 128 sub-identifiers", ax(5, 0, oid128 + "00000000"), OK,
         "Get f00 s1 t2 p3 [" + rep("2.", 127) + "2,]"},
        // Accepted, written differently.
        {"internet OID not compressed",
         ax(17, 0, "07000000 00000001 00000003 00000006 00000001 00000004 00000001 0001869F"), OK,
         "RemoveAgentCaps f00 s1 t2 p3 1.3.6.1.4.1.99999", ax(17, 0, kEnterprise)},
        {"include 2, end include 1, reserved FF", ax(5, 0, "020202FF 00000001 00000001 00000100"),
         OK, "Get f00 s1 t2 p3 [1.3.6.1.2.1.1+,]", ax(5, 0, "02020100 00000001 00000001 00000000")},
        {"padding not zero", ax(13, 0x08, "00000001 78FFFFFF"), OK, "Ping f08 s1 t2 p3 ctx'x'",
         ax(13, 0x08, "00000001 78000000")},
        {"reserved octets not zero",
         hex("01 02 10 FF 00000001 00000002 00000003 00000004 01FFFFFF"), OK,
         "Close f00 s1 t2 p3 reason1", ax(2, 0, "01000000")},
        {"Response little-endian",
         hex("01 12 00 00 01000000 02000000 03000000 28000000 78563412 0A01 0100 "
             "4600 0000 04040000 01000000 9F860100 01000000 0A000000 02000000 01000000"),
         OK, "Response f00 s1 t2 p3 up305419896 err266 idx1" + e(10, "46:1.2"),
         ax(18, 0, "12345678 010A 0001" + vb("0046", 10, "00000001 00000002"))},
        {"GetBulk little-endian",
         hex("01 07 08 00 01000000 02000000 03000000 28000000 03000000 63747800 0100 0A00 "
             "05020100 01000000 02000000 02000000 01000000 02000000 00000000"),
         OK, "GetBulk f08 s1 t2 p3 ctx'ctx' nr1 mr10 [1.3.6.1.2.1.2.2.1.2+,]",
         ax(7, 0x08,
            "00000003 63747800 0001000A 05020100 00000001 00000002 00000002 00000001 "
            "00000002 00000000")},
        {"Register little-endian",
         hex("01 03 00 00 01000000 02000000 03000000 14000000 007F0700 02040000 01000000 "
             "9F860100 16000000"),
         OK, "Register f00 s1 t2 p3 to0 pri127 1.3.6.1.4.1.99999 r7-22",
         ax(3, 0, "007F0700 " + kEnterprise + " 00000016")},
        // Refused.
        {"version 2", hex("02 0D 10 00 00000001 00000002 00000003 00000000"), MAL, "", {}, MAL},
        {"payload of 6",
         hex("01 0D 10 00 00000001 00000002 00000003 00000006 000000000000"),
         MAL,
         "",
         {},
         MAL},
        {"payload over the limit",
         hex("01 0D 10 00 00000001 00000002 00000003 00100004"),
         AGENTX_TOO_BIG,
         "",
         {},
         AGENTX_TOO_BIG},
        {"payload over the limit, little-endian",
         hex("01 0D 00 00 01000000 02000000 03000000 04001000"),
         AGENTX_TOO_BIG,
         "",
         {},
         AGENTX_TOO_BIG},
        {"type 0", ax(0, 0, ""), AGENTX_UNKNOWN_PDU},
        {"type 19", ax(19, 0, "00000000"), AGENTX_UNKNOWN_PDU},
        {"Close with more", ax(2, 0, "05000000 00000000"), MAL},
        {"Open without description", ax(1, 0, "05000000 00000000"), MAL},
        {"range without its bound", ax(3, 0, "007F0A00 00000000"), MAL},
        {"OID of 129 sub-identifiers", ax(5, 0, "81000000" + rep("00000002", 129) + "00000000"),
         MAL},
        {"OID past the payload", ax(5, 0, "02000000 00000001"), MAL},
        {"context past the payload", ax(13, 0x08, "00000005 61626364"), MAL},
        {"context flag without context", ax(5, 0x08, ""), MAL},
        {"IpAddress of 3 octets", ax(8, 0, vb("0040", 1, "00000003 7F000000")), MAL},
        {"varbind type 3", ax(8, 0, vb("0003", 1, "00000000")), MAL},
        {"varbind type 0x0102", ax(8, 0, vb("0102", 1, "00000000")), MAL},
        {"Counter64 cut", ax(18, 0, "00000000 00000000" + vb("0046", 1, "00000001")), MAL},
        {"GetBulk without its counts", ax(7, 0, ""), MAL},
        {"Response without its fields", ax(18, 0, ""), MAL},
    };
    agentx_pdu* rec = agentx_create_pdu();
    ASSERT_NE(rec, nullptr);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        check(rec, row);
    }
    agentx_free_pdu(rec);
}

// What the daemon builds: containers made by the library's own constructors.
TEST(AgentX, BuildsANotify) {
    agentx_pdu* p = agentx_create_pdu();
    ASSERT_NE(p, nullptr);
    p->header = {.version = 0,
                 .type = AGENTX_NOTIFY_PDU,
                 .flags = 0,
                 .session_id = 1,
                 .transaction_id = 2,
                 .packet_id = 3,
                 .payload_len = 0};
    uint32_t ticks = 4200;
    ASSERT_EQ(agentx_add_varbind(p, snmp_create_oid_container("1.3.6.1.2.1.1.3.0"),
                                 snmp_create_value_container(&ticks, 4, SNMP_TAG_TIMETICKS, 0)),
              OK);
    ASSERT_EQ(agentx_add_varbind(p, snmp_create_oid_container("1.3.6.1.6.3.1.1.4.1.0"),
                                 snmp_create_oid_container("1.3.6.1.4.1.99999.0.1")),
              OK);
    Bytes out(200);
    uint32_t len = 0;
    ASSERT_EQ(agentx_encode_pdu(p, out.data(), uint32_t(out.size()), &len), OK);
    out.resize(len);
    EXPECT_EQ(out, kNotify);
    EXPECT_EQ(agentx_add_varbind(p, nullptr, nullptr), AGENTX_BAD_ARGUMENT);
    agentx_free_pdu(p);
}

TEST(AgentX, EncodeRefusals) {
    agentx_pdu* p = agentx_create_pdu();
    ASSERT_NE(p, nullptr);
    Bytes out(4096);
    uint32_t len = 0;
    auto encode = [&] { return agentx_encode_pdu(p, out.data(), uint32_t(out.size()), &len); };
    ASSERT_EQ(decode(ax(8, 0, vb("0004", 1, "00000000") + vb("0006", 2, "00000000")), p), OK);
    snmp_container* string_value = p->varbinds[0].value;
    snmp_container* oid_value = p->varbinds[1].value;
    const struct {
        snmp_container* c;
        uint8_t tag;
    } wrong[] = {{string_value, 0x30},
                 {string_value, 0x06},
                 {oid_value, 0x04},
                 {oid_value, 0x46},
                 {oid_value, 0x40}};
    for (const auto& w : wrong) {
        uint8_t tag = w.c->tag;
        w.c->tag = w.tag;
        EXPECT_EQ(encode(), AGENTX_BAD_ARGUMENT) << int(w.tag);
        w.c->tag = tag;
    }
    // 128 sub-identifiers after the 1.3.6.1.4 prefix fit, 129 do not.
    for (int extra : {128, 129}) {
        snmp_free_container(p->varbinds[1].name);
        p->varbinds[1].name = snmp_create_oid_container(("1.3.6.1.4" + rep(".7", extra)).c_str());
        EXPECT_EQ(encode(), extra == 128 ? OK : AGENTX_BAD_ARGUMENT);
    }
    std::swap(p->varbinds[0].name, p->varbinds[2].name);  // a null name
    EXPECT_EQ(encode(), AGENTX_BAD_ARGUMENT);
    p->header.type = AGENTX_PING_PDU;
    p->header.flags = AGENTX_FLAG_NON_DEFAULT_CONTEXT;
    EXPECT_EQ(encode(), AGENTX_BAD_ARGUMENT);  // no context container
    p->header.type = AGENTX_OPEN_PDU;
    EXPECT_EQ(encode(), AGENTX_BAD_ARGUMENT);  // no id, no description
    for (uint8_t type : {0, 19}) {
        p->header.type = type;
        EXPECT_EQ(encode(), AGENTX_UNKNOWN_PDU);
    }
    EXPECT_EQ(agentx_encode_pdu(p, nullptr, 0, &len), AGENTX_BAD_ARGUMENT);
    EXPECT_EQ(agentx_decode_pdu(nullptr, 0, p), AGENTX_BAD_ARGUMENT);
    EXPECT_EQ(agentx_frame_len(out.data(), 0, nullptr), AGENTX_BAD_ARGUMENT);
    agentx_free_pdu(p);
    agentx_free_pdu(nullptr);
}

}  // namespace
