// The SNMPv1 and SMUX codecs with their BER primitives, as rows: bytes in, the fields they
// carry out, the same bytes back from the encoder, and every truncation refused. SNMP PDUs
// travel over SMUX unchanged, so most BER cases ride in a GetResponse.
#include "snmp_ed.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "lib_render.h"
#include "smux_ed.h"
#include "snmp_asn1.h"
#include "snmp_container.h"
#include "vx_peers.h"

namespace {

using std::string;
constexpr int OK = SNMP_CODEC_OK, MAL = SNMP_CODEC_MALFORMED, BAD = SNMP_CODEC_BAD_ARGUMENT,
              UNKNOWN = SNMP_CODEC_UNKNOWN_PDU;

vx_bytes hex(const string& s) {
    return vx_hex(s.c_str());
}

string rep(const string& s, size_t n) {
    string out;
    while (n-- > 0) {
        out += s;
    }
    return out;
}

// One element in hex with a minimal definite length (contents below 64 KiB).
string tlv(const char* tag, const string& contents) {
    const size_t n = hex(contents).size();
    return string(tag) + (n < 128 ? "" : n < 256 ? "81" : "82") +
           (n < 256 ? lib_render::fmt("%02zX", n) : lib_render::fmt("%04zX", n)) + contents;
}

const string kFields = "020101 020100 020100";  // request-id 1, no error
string resp(const string& value) {
    return tlv("A2", kFields + tlv("30", tlv("30", "06032B0601" + value)));
}
string vbs(size_t n) {
    return tlv("30", rep("3006 06022B06 0500", n));
}

// A message record with room for 16 community octets and up to 3 varBinds.
struct Message {
    snmp_pdu* pdu = snmp_create_pdu(4);
    snmp_trap_pdu* trap = snmp_create_trap_pdu(4);
    char community[16] = "?";
    snmp_message msg{0, 16, 0, community, snmp_pdu_size(4), snmp_trap_pdu_size(4), pdu, trap, 0};
    ~Message() {
        snmp_free_pdu(pdu, 4);
        snmp_free_trap_pdu(trap, 4);
    }
    int decode(const vx_bytes& wire, size_t n) {
        snmp_buffer buf{nullptr, 0, const_cast<uint8_t*>(wire.data()), uint32_t(n)};
        return snmp_decode_message(&msg, &buf);
    }
    // Storage from nothing up: too small fails, from some size on all succeed, and nothing
    // outside the storage less its 8-byte tail is ever written.
    void encode_tightly(const vx_bytes& wire) {
        bool fitted = false;
        for (uint32_t size = 0; size <= wire.size() + 32; size++) {
            vx_bytes area(size + 32, 0xA5);
            snmp_buffer buf{area.data() + 16, size, nullptr, 0};
            const int rc = snmp_encode_message(&buf, &msg);
            EXPECT_TRUE(rc == OK || !fitted) << size;
            fitted = rc == OK;
            if (rc == OK) {
                EXPECT_EQ(vx_to_hex(vx_bytes(buf.data, buf.data + buf.len)), vx_to_hex(wire));
            }
            const size_t used_end = 16 + (size > 8 ? size - 8 : 0);
            EXPECT_EQ(vx_bytes(area.begin(), area.begin() + 16), vx_bytes(16, 0xA5)) << size;
            EXPECT_EQ(vx_bytes(area.begin() + long(used_end), area.end()),
                      vx_bytes(area.size() - used_end, 0xA5)) << size;
        }
        EXPECT_TRUE(fitted);
    }
};

int smux_decode(const vx_bytes& wire, size_t n, smux_pdu** out) {
    return smux_decode_message(wire.data(), uint32_t(n), out);
}

vx_bytes smux_encode(smux_pdu* record, int* rc) {
    uint8_t* start = nullptr;
    uint32_t len = 0;
    *rc = smux_encode_message(&start, &len, record);
    return *rc == OK ? vx_bytes(start, start + len) : vx_bytes();
}

struct Row {
    const char* name;
    char codec;  // 'S' a SMUX PDU, 'M' an SNMP message
    string wire;
    int code;
    string fields = "";
    bool canonical = true;  // the encoder gives the same bytes back
};

void check(const Row& row) {
    const vx_bytes wire = hex(row.wire);
    Message m;
    smux_pdu* p = nullptr;
    auto decode = [&](const vx_bytes& w, size_t n) {
        return row.codec == 'M' ? m.decode(w, n) : smux_decode(w, n, &p);
    };
    ASSERT_EQ(decode(wire, wire.size()), row.code);
    if (row.code != OK) {
        return;
    }
    auto fields = [&] { return row.codec == 'M' ? lib_render::message(&m.msg) : lib_render::smux(p); };
    EXPECT_EQ(fields(), row.fields);
    int rc = OK;
    vx_bytes again = row.codec == 'S' ? smux_encode(p, &rc) : wire;
    ASSERT_EQ(rc, OK);
    if (row.codec == 'M' && row.canonical) {
        m.encode_tightly(wire);
    }
    if (row.canonical) {
        EXPECT_EQ(vx_to_hex(again), vx_to_hex(wire));
    }
    for (size_t cut = 0; cut < wire.size(); cut++) {
        EXPECT_NE(decode(wire, cut), OK) << "cut " << cut;
    }
    if (row.codec == 'S') {  // re-encoded bytes carry the same fields; what follows is ignored
        again.insert(again.end(), {0x44, 0x01, 0x01});
        ASSERT_EQ(decode(again, again.size()), OK);
        EXPECT_EQ(fields(), row.fields);
    }
}

const string kTrap = "06082B0601040186 8D1F 40040A000002 020106 020111 4301 07";

TEST(Smux, Vectors) {
    const string open = "020100 06092B06010401868D1F01 04026162 0400";
    const Row rows[] = {
        {"Open", 'S', tlv("60", open), OK, "60 v0 1.3.6.1.4.1.99999.1 'ab' ''"},
        {"Open version 1", 'S', tlv("60", "020101" + open.substr(6)), MAL},
        {"Open without password", 'S', tlv("60", open.substr(0, open.size() - 4)), MAL},
        {"Open description of 255", 'S', tlv("60", "020100 06032B0601" + tlv("04", rep("64", 255)) + "0400"),
         OK, "60 v0 1.3.6.1 '" + string(255, 'd') + "' ''"},
        {"Open description of 256", 'S', tlv("60", "020100 06032B0601" + tlv("04", rep("64", 256)) + "0400"),
         SNMP_CODEC_NO_ROOM},
        {"Open password of 256 as NULL", 'S', tlv("60", "020100 06032B0601 0400" + tlv("05", rep("70", 256))),
         SNMP_CODEC_NO_ROOM},
        {"RReq", 'S', "620E 06062B0601020101 0201FF 020102", OK, "62 1.3.6.1.2.1.1 pri-1 op2"},
        {"RReq priority as OCTET STRING", 'S', "620E 06062B0601020101 0401FF 020102", MAL},
        {"Close", 'S', "410102", OK, "41 2"}, {"SOut rollback", 'S', "440101", OK, "44 1"},
        {"RRsp -1", 'S', "4301FF", OK, "43 -1"},
        {"RRsp -1 in four octets", 'S', "4304FFFFFFFF", OK, "43 -1", false},
        {"empty Close is 0", 'S', "4100", OK, "41 0", false},
        {"Close indefinite", 'S', "41800000", MAL},
        {"GetResponse with an error", 'S', "A20B 0201FB 020105 020103 3000", OK, "A2 id-5 st5 ix3"},
        {"Get as the master writes it", 'S',
         "A082001A 020107 020100 020100 3082000D 3082000906820003 2B0601 0500", OK,
         "A0 id7 st0 ix0 1.3.6.1=05:", false},
        {"GetNext", 'S', tlv("A1", "02020100 020100 020100" + vbs(1)), OK,
         "A1 id256 st0 ix0 1.3.6=05:"},
        {"Set", 'S', tlv("A3", kFields + tlv("30", "3009 06032B0601 02020100")), OK,
         "A3 id1 st0 ix0 1.3.6.1=02:256"},
        {"Trap", 'S', tlv("A4", kTrap + tlv("30", "3008 06032B0601 430107")), OK,
         "A4 1.3.6.1.4.1.99999 10.0.0.2 g6 s17 t7 1.3.6.1=43:7"},
        {"Trap agent-addr as OCTET STRING", 'S', tlv("A4", "06012B 04040A000002 020106 020111 430107 3000"), MAL},
        {"Trap time-stamp as INTEGER", 'S', tlv("A4", "06012B 40040A000002 020106 020111 020107 3000"), MAL},
        {"GetBulk", 'S', tlv("A5", kFields + "3000"), UNKNOWN}, {"SEQUENCE", 'S', "3000", UNKNOWN},
        {"application 45", 'S', "450100", UNKNOWN}, {"high tag number", 'S', "3F00", MAL},
        {"PDU past the input", 'S', "A20C 020101 020100 020100 3000", MAL},
        {"request-id as OCTET STRING", 'S', tlv("A0", "040101 020100 020100 3000"), MAL},
        {"varBind list as SET", 'S', tlv("A0", kFields + "3100"), MAL},
        {"varBind longer than its list", 'S', tlv("A0", kFields + "3003 3007 06032B0601 0500"), MAL},
        {"name as OCTET STRING", 'S', tlv("A0", kFields + "3009 3007 04032B0601 0500"), MAL},
        {"GetRequest", 'M', tlv("30", "020100 0406" + rep("63", 6) + tlv("A0", kFields + vbs(1))),
         OK, "v0 'cccccc' A0 id1 st0 ix0 1.3.6=05:"},
        {"Trap message", 'M', tlv("30", "020100 0401 63" + tlv("A4", kTrap + vbs(2))), OK,
         "v0 'c' A4 1.3.6.1.4.1.99999 10.0.0.2 g6 s17 t7 1.3.6=05: 1.3.6=05:"},
        {"community of 15 fits", 'M', tlv("30", "020100 040F" + rep("63", 15) + tlv("A0", kFields + vbs(3))),
         OK, "v0 '" + string(15, 'c') + "' A0 id1 st0 ix0" + rep(" 1.3.6=05:", 3)},
        {"community of 16 does not", 'M', tlv("30", "020100 0410" + rep("63", 16) + tlv("A0", kFields + vbs(1))),
         SNMP_CODEC_NO_ROOM},
        {"as many varBinds as the storage", 'M', tlv("30", "020100 0400" + tlv("A0", kFields + vbs(4))),
         SNMP_CODEC_TOO_MANY},
        {"version 1 is read", 'M', tlv("30", "020101 0400" + tlv("A0", kFields + vbs(1))), OK,
         "v1 '' A0 id1 st0 ix0 1.3.6=05:", false},
        {"not a SEQUENCE", 'M', "3103020100", MAL},
        {"version not an INTEGER", 'M', tlv("30", "040100 0400" + tlv("A0", kFields + vbs(1))), MAL},
        {"community as NULL", 'M', tlv("30", "020100 0500" + tlv("A0", kFields + vbs(1))), MAL},
        {"PDU of unknown type", 'M', tlv("30", "020100 0400" + tlv("A5", kFields + vbs(1))), MAL},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        check(row);
    }
    // Values inside a GetResponse: their fields, or "" for refused.
    const struct {
        string value, shown;
        bool canonical = true;
    } values[] = {
        {"020100", "02:0"}, {"02017F", "02:127"}, {"02020080", "02:128"}, {"0201FF", "02:-1"},
        {"020180", "02:-128"}, {"0202FF7F", "02:-129"}, {"0203008000", "02:32768"},
        {"0204FF7FFFFF", "02:-8388609"}, {"020480000000", "02:-2147483648"},
        {"020500FFFFFFFF", "02:-1", false}, {"0200", "02:0", false}, {"02810105", "02:5", false},
        {"0280050000", ""}, {"41050080000000", "41:2147483648"}, {"42020080", "42:128"},
        {"430500FFFFFFFF", "43:4294967295"}, {"4304FFFFFFFF", "43:4294967295", false},
        {"0403616263", "04:616263"}, {"0400", "04:"}, {"0481026162", "04:6162", false},
        {"44020102", "44:0102"}, {"40040A000001", "40:10.0.0.1"}, {"40050102030405", ""},
        {"0500", "05:"}, {"050100", ""}, {"06032B0601", "06:1.3.6.1"}, {"0600", "06:"},
        {"06017F", "06:2.47"}, {"060128", "06:1.0"}, {"060127", "06:0.39"},
        {"0603813403", "06:2.100.3"}, {"06032B8100", "06:1.3.128"},
        {"06042B818000", "06:1.3.16384"}, {"06062B8FFFFFFF7F", "06:1.3.4294967295"},
        {"06022B86", ""}, {"460101", ""}, {"8000", ""}, {"030100", ""}, {"020200", ""}, {"", ""},
        {"06072B9FFFFFFFFF7F", "06:1.3.4294967295", false},  // the low 32 bits
        {tlv("04", rep("61", 128)), "04:" + rep("61", 128)},
        {tlv("04", rep("62", 256)), "04:" + rep("62", 256)},
    };
    for (const auto& v : values) {
        SCOPED_TRACE(v.value);
        check({"value", 'S', resp(v.value), v.shown.empty() ? MAL : OK,
               "A2 id1 st0 ix0 1.3.6.1=" + v.shown, v.canonical});
    }
    smux_pdu* p = nullptr;
    EXPECT_EQ(smux_decode_message(nullptr, 0, &p), MAL);
    EXPECT_EQ(smux_decode_message(hex("410100").data(), 3, nullptr), BAD);
}

// Records the decoder cannot produce: the encoder refuses them and leaves start and length.
TEST(Smux, EncodeRefusals) {
    snmp_container* id = snmp_create_oid_container("1.3.6.1");
    const int32_t one = 1;
    snmp_pdu* snmp = snmp_create_pdu(1);
    auto oid = [](const char* text, int at = -1, uint32_t v = 0) {
        snmp_container* c = snmp_create_oid_container(text);
        if (at >= 0) {
            snmp_container_subids(c)[at] = v;
        }
        return c;
    };
    auto null = [] { return snmp_create_value_container(nullptr, 0, SNMP_TAG_NULL, 0); };
    const struct {
        const char* name;
        uint8_t type;
        int32_t version;
        snmp_container* oid;
        int code;
        snmp_varBind vb = {};
    } rows[] = {
        {"Open version 1", 0x60, 1, id, SNMP_CODEC_INCOMPLETE},
        {"Open without identity", 0x60, 0, nullptr, BAD},
        {"RReq without subtree", 0x62, 0, nullptr, BAD},
        {"GetResponse without its record", 0xA2, 0, id, BAD},
        {"Trap without its record", 0xA4, 0, id, BAD}, {"GetBulk", 0xA5, 0, id, UNKNOWN},
        {"varBind without value", 0xA2, 0, id, SNMP_CODEC_INCOMPLETE, {oid("1.3"), nullptr}},
        {"name not an OID", 0xA2, 0, id, BAD, {snmp_create_value_container(&one, 4, 2, 0), null()}},
        {"Counter64", 0xA2, 0, id, BAD, {oid("1.3"), snmp_create_value_container("12345678", 8, 0x46, 0)}},
        {"OID 1.40", 0xA2, 0, id, SNMP_CODEC_BAD_OID, {oid("1.3", 1, 40), null()}},
        {"OID 0.40.1", 0xA2, 0, id, SNMP_CODEC_BAD_OID, {oid("0.3.1", 1, 40), null()}},
        {"OID 3.3", 0xA2, 0, id, SNMP_CODEC_BAD_OID, {oid("1.3", 0, 3), null()}},
        {"constructed value", 0xA2, 0, id, BAD, {oid("1.3"), [] { auto c = snmp_create_value_container(nullptr, 0, 5, 0); c->tag = 0x30; return c; }()}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        smux_pdu record{};
        record.type = row.type;
        record.version = row.version;
        record.oid = row.oid;
        snmp->varBinds[0] = row.vb;
        snmp->varBind_count = 1;
        record.snmp = row.vb.name != nullptr || row.vb.value != nullptr ? snmp : nullptr;
        uint8_t* start = nullptr;
        uint32_t length = 99;
        EXPECT_EQ(smux_encode_message(&start, &length, &record), row.code);
        EXPECT_EQ(start, nullptr);
        EXPECT_EQ(length, 99u);
        snmp_free_varBinds(snmp->varBinds, 1);
    }
    snmp_free_pdu(snmp, 1);
    snmp_free_container(id);
}

// The static record is decoded into again and again: its containers are recycled across
// kinds and sizes (the sanitizers report any block lost or overrun on the way), and a
// display hint the handler set on its answer does not survive into the next request.
TEST(Smux, RecyclesTheRecord) {
    smux_pdu* p = nullptr;
    int rc = OK;
    ASSERT_EQ(smux_decode(hex(resp("0500")), 99, &p), OK);
    const int32_t answer = 42;
    p->snmp->varBinds[0].value = snmp_replace_container_value(p->snmp->varBinds[0].value, &answer, 4, 2, 9);
    EXPECT_EQ(vx_to_hex(smux_encode(p, &rc)), vx_to_hex(hex(resp("02012A"))));
    for (const char* v : {"0414" "6161616161616161616161616161616161616161", "0403626263", "020105",
                          "060D2B06010401868D1F0102030405", "40040102030A", "0400", "0500",
                          "060100", "0401FF"}) {
        SCOPED_TRACE(v);
        const vx_bytes wire = hex(resp(v));
        ASSERT_EQ(smux_decode(wire, wire.size(), &p), OK);
        EXPECT_EQ(vx_to_hex(smux_encode(p, &rc)), vx_to_hex(wire));
        EXPECT_EQ(p->snmp->varBinds[0].value->hint, 0);
    }
}

// One varBind beyond the limit is taken, two are not; a Counter64 is left out of a trap.
TEST(Smux, LimitsAndTrapRules) {
    const string trap_fields = "06012B 400400000000 020106 020100 430100";
    const struct {
        string wire;
        int code;
    } rows[] = {
        {tlv("A0", kFields + vbs(SMUX_MAX_VARBINDS)), OK},
        {tlv("A0", kFields + vbs(SMUX_MAX_VARBINDS + 1)), SNMP_CODEC_TOO_MANY},
        {tlv("A4", trap_fields + vbs(SMUX_MAX_TRAP_VARBINDS)), OK},
        {tlv("A4", trap_fields + vbs(SMUX_MAX_TRAP_VARBINDS + 1)), SNMP_CODEC_TOO_MANY},
    };
    smux_pdu* p = nullptr;
    for (const auto& row : rows) {
        const vx_bytes wire = hex(row.wire);
        EXPECT_EQ(smux_decode(wire, wire.size(), &p), row.code);
    }
    const vx_bytes trap = hex(tlv("A4", trap_fields + vbs(2)));
    ASSERT_EQ(smux_decode(trap, trap.size(), &p), OK);
    p->trap->varBinds[0].value = snmp_replace_container_value(p->trap->varBinds[0].value,
                                                              "12345678", 8, 0x46, 0);
    int rc = OK;
    const vx_bytes wire = smux_encode(p, &rc);
    ASSERT_EQ(smux_decode(wire, wire.size(), &p), OK);
    EXPECT_EQ(lib_render::smux(p), "A4 1.3 0.0.0.0 g6 s0 t0 1.3.6=05:");
}

}  // namespace
