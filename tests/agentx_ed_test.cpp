// AgentX PDUs laid out field by field, in both byte orders: decoded to their fields, encoded
// again byte for byte, framed and cut at every length; what the decoder refuses.
#include "agentx_ed.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lib_render.h"
#include "snmp_container.h"
#include "vx_peers.h"

namespace {

using Bytes = vx_bytes;
using std::string;
constexpr int OK = AGENTX_OK, MAL = AGENTX_MALFORMED, MORE = AGENTX_NEED_MORE,
              TOO_BIG = AGENTX_TOO_BIG, UNKNOWN = AGENTX_UNKNOWN_PDU;

Bytes hex(const string& text) { return vx_hex(text.c_str()); }
string rep(const string& s, int n) { return n > 0 ? s + rep(s, n - 1) : ""; }

// A PDU in network byte order from session 1, transaction 2, packet 3.
Bytes ax(uint8_t type, uint8_t flags, const string& payload) {
    return hex(lib_render::fmt("01 %02X %02X 00 00000001 00000002 00000003 %08zX", type, flags | 0x10,
                               hex(payload).size()) + payload);
}
// A varbind named 1.3.6.1.4.1.99999.1.n (prefix-compressed), and its fields.
string vb(const char* type, int n, const string& data = "") {
    return lib_render::fmt("%s 0000 04040000 00000001 0001869F 00000001 %08X ", type, n) + data;
}
string e(int n, const string& value) { return " 1.3.6.1.4.1.99999.1." + std::to_string(n) + "=" + value; }

struct Row {
    const char* name;
    Bytes wire;
    int code;
    string fields = "";  // after the header's
    Bytes again = {};    // the encoding when it differs from `wire`
    int frame = OK;
};

// One record takes every row, so containers are recycled across types and kinds.
void check(agentx_pdu* rec, const Row& row) {
    const auto n = uint32_t(row.wire.size());
    uint32_t flen = 0, len = 0;
    EXPECT_EQ(agentx_frame_len(row.wire.data(), n, &flen), row.frame);
    ASSERT_EQ(agentx_decode_pdu(row.wire.data(), n, rec), row.code);
    if (row.code != OK) {
        EXPECT_TRUE(row.frame != OK || rec->header.packet_id == 3);  // enough to answer it
        return;
    }
    // Name and flags as the wire gives them; session 1, transaction 2, packet 3 in either order.
    const string fields = lib_render::fmt("%s f%02X s1 t2 p3", agentx_pdu_name(row.wire[1]),
                                          row.wire[2] & ~0x10) + row.fields;
    EXPECT_EQ(lib_render::agentx(rec), fields);
    EXPECT_EQ(flen, n);
    Bytes out(n + 8);
    ASSERT_EQ(agentx_encode_pdu(rec, out.data(), n + 8, &len), OK);
    EXPECT_EQ(vx_to_hex(Bytes(out.begin(), out.begin() + len)), vx_to_hex(row.again.empty() ? row.wire : row.again));
    EXPECT_EQ(agentx_encode_pdu(rec, out.data(), len - 1, &len), AGENTX_NO_ROOM);
    for (uint32_t cut = 0; cut < n; cut++) {
        EXPECT_EQ(agentx_frame_len(row.wire.data(), cut, &flen), MORE);
        EXPECT_EQ(flen, cut < 20 ? 20 : n);
        EXPECT_EQ(agentx_decode_pdu(row.wire.data(), cut, rec), MORE) << "cut " << cut;
    }
    Bytes two = row.wire;  // a second PDU behind the first is not looked at
    two.insert(two.end(), row.wire.begin(), row.wire.end());
    EXPECT_TRUE(agentx_frame_len(two.data(), 2 * n, &flen) == OK && flen == n);
    ASSERT_EQ(agentx_decode_pdu(two.data(), 2 * n, rec), OK);
    EXPECT_EQ(lib_render::agentx(rec), fields);
}

const string kEnterprise = "02040000 00000001 0001869F";  // 1.3.6.1.4.1.99999
const Bytes kNotify = ax(12, 0, "0043 0000 04020000 00000001 00000001 00000003 00000000 00001068 "
                                "0006 0000 06060000 00000003 00000001 00000001 00000004 00000001 "
                                "00000000 04040000 00000001 0001869F 00000000 00000001");

TEST(AgentX, Vectors) {
    const string ip = "00000004 7F000001", le = "01000000 02000000 03000000 ";
    const Row rows[] = {
        {"Open", ax(1, 0, "05000000 " + kEnterprise + " 00000007 7661726E 65783200"), OK,
         " to5 1.3.6.1.4.1.99999 'varnex2'"},
        {"Register an instance in a context", ax(3, 9, "00000003 63747800 1E640000 04020000 "
                                                       "00000001 00000001 00000003 00000000"),
         OK, " ctx'ctx' to30 pri100 1.3.6.1.2.1.1.3.0"},
        {"GetNext: null OIDs, no prefix for 256, a prefix alone",
         ax(6, 0, "00000000 00000000 06000100 00000001 00000003 00000006 00000001 00000100 "
                  "00000001 00040000"), OK, " [,] [1.3.6.1.256.1+,1.3.6.1.4]"},
        {"TestSet of every type",
         ax(8, 0, vb("0002", 1, "FFFFFFFF") + vb("0004", 2, "00000005 61626364 65000000") +
                      vb("0005", 3) + vb("0006", 4, "05060000 00000003 00000001 00000001 00000005 00000001") +
                      vb("0040", 5, ip) + vb("0041", 6, "FFFFFFFF") + vb("0042", 7, "00000080") +
                      vb("0043", 8, "7FFFFFFF") + vb("0044", 9, "00000000") + vb("0046", 10, "00000001 00000002")),
         OK, e(1, "02:-1") + e(2, "04:6162636465") + e(3, "05:") + e(4, "06:1.3.6.1.6.3.1.1.5.1") +
                 e(5, "40:127.0.0.1") + e(6, "41:4294967295") + e(7, "42:128") + e(8, "43:2147483647") +
                 e(9, "44:") + e(10, "46:1.2")},
        {"CommitSet", ax(9, 0, ""), OK}, {"UndoSet", ax(10, 0, ""), OK}, {"CleanupSet", ax(11, 0, ""), OK},
        {"Notify", kNotify, OK, " 1.3.6.1.2.1.1.3.0=43:4200 1.3.6.1.6.3.1.1.4.1.0=06:1.3.6.1.4.1.99999.0.1"},
        {"AddAgentCaps", ax(16, 0, "03040000 00000001 0001869F 00000002 00000004 63617073"), OK,
         " 1.3.6.1.4.1.99999.2 'caps'"},
        {"RemoveAgentCaps", ax(17, 0, "03040000 00000001 0001869F 00000002"), OK, " 1.3.6.1.4.1.99999.2"},
        {"Response with the exceptions", ax(18, 0, "12345678 0000 0000" + vb("0080", 1) + vb("0081", 2) +
                                                       vb("0082", 3)),
         OK, " up305419896 err0 idx0" + e(1, "80:") + e(2, "81:") + e(3, "82:")},
        {"OID of 128 sub-identifiers", ax(5, 0, "80000000" + rep("00000002", 128) + "00000000"), OK,
         " [" + rep("2.", 127) + "2,]"},
        // Accepted, written differently.
        {"include 2, end include 1, reserved FF", ax(5, 0, "020202FF 00000001 00000001 00000100"), OK,
         " [1.3.6.1.2.1.1+,]", ax(5, 0, "02020100 00000001 00000001 00000000")},
        {"Response little-endian", hex("01 12 00 00" + le + "28000000 78563412 0A01 0100 4600 0000 "
                                       "04040000 01000000 9F860100 01000000 0A000000 02000000 01000000"),
         OK, " up305419896 err266 idx1" + e(10, "46:1.2"),
         ax(18, 0, "12345678 010A 0001" + vb("0046", 10, "00000001 00000002"))},
        {"GetBulk little-endian", hex("01 07 08 00" + le + "28000000 03000000 63747800 0100 0A00 "
                                      "05020100 01000000 02000000 02000000 01000000 02000000 00000000"),
         OK, " ctx'ctx' nr1 mr10 [1.3.6.1.2.1.2.2.1.2+,]",
         ax(7, 8, "00000003 63747800 0001000A 05020100 00000001 00000002 00000002 00000001 "
                  "00000002 00000000")},
        {"Register little-endian", hex("01 03 00 00" + le + "14000000 007F0700 02040000 01000000 "
                                       "9F860100 16000000"),
         OK, " to0 pri127 1.3.6.1.4.1.99999 r7-22", ax(3, 0, "007F0700 " + kEnterprise + " 00000016")},
        {"IpAddress little-endian", hex("01 08 00 00" + le + "18000000 4000 0000 02040000 01000000 "
                                        "9F860100 04000000 7F000001"),
         OK, " 1.3.6.1.4.1.99999=40:127.0.0.1", ax(8, 0, "0040 0000 " + kEnterprise + ip)},
        // Refused; the first three already by the framer.
        {"version 2", hex("02 0D 10 00 00000001 00000002 00000003 00000000"), MAL, "", {}, MAL},
        {"payload of 6", hex("01 0D 10 00 00000001 00000002 00000003 00000006 000000000000"), MAL, "", {}, MAL},
        {"payload over the limit, little-endian", hex("01 0D 00 00" + le + "04001000"), TOO_BIG, "", {}, TOO_BIG},
        {"type 0", ax(0, 0, ""), UNKNOWN}, {"type 19", ax(19, 0, "00000000"), UNKNOWN},
        {"Close with more", ax(2, 0, "05000000 00000000"), MAL}, {"GetBulk without its counts", ax(7, 0, ""), MAL},
        {"Open without description", ax(1, 0, "05000000 00000000"), MAL}, {"no Response fields", ax(18, 0, ""), MAL},
        {"range without its bound", ax(3, 0, "007F0A00 00000000"), MAL},
        {"OID of 129 sub-identifiers", ax(5, 0, "81000000" + rep("00000002", 129) + "00000000"), MAL},
        {"OID past the payload", ax(5, 0, "02000000 00000001"), MAL}, {"context flag, no context", ax(5, 8, ""), MAL},
        {"context past the payload", ax(13, 8, "00000005 61626364"), MAL},
        {"IpAddress of 3 octets", ax(8, 0, vb("0040", 1, "00000003 7F000000")), MAL},
        {"varbind type 3", ax(8, 0, vb("0003", 1, "00000000")), MAL},
        {"Counter64 cut", ax(18, 0, "00000000 00000000" + vb("0046", 1, "00000001")), MAL},
    };
    agentx_pdu* rec = agentx_create_pdu();
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        check(rec, row);
    }
    agentx_free_pdu(rec);
}

}  // namespace
