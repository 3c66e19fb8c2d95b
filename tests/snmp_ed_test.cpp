// The SNMPv1 and SMUX codecs with their BER primitives, as rows: bytes in, the fields they
// carry out, the same bytes back from the encoder, and every truncation refused. SNMP PDUs
// travel over SMUX unchanged, so the BER cases (lengths too) ride in a GetResponse.
#include "snmp_ed.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "lib_render.h"
#include "smux_ed.h"
#include "snmp_container.h"
#include "vx_peers.h"

namespace {

using std::string;
constexpr int OK = SNMP_CODEC_OK, MAL = SNMP_CODEC_MALFORMED, BAD = SNMP_CODEC_BAD_ARGUMENT,
              UNKNOWN = SNMP_CODEC_UNKNOWN_PDU, BAD_OID = SNMP_CODEC_BAD_OID;

vx_bytes hex(const string& s) { return vx_hex(s.c_str()); }
string rep(const string& s, size_t n) { return n > 0 ? s + rep(s, n - 1) : ""; }

// One element in hex with a minimal definite length (contents below 64 KiB).
string tlv(const char* tag, const string& contents) {
    const size_t n = hex(contents).size();
    return tag + lib_render::fmt(n < 128 ? "%02zX" : n < 256 ? "81%02zX" : "82%04zX", n) + contents;
}
const string kFields = "020101 020100 020100";  // request-id 1, no error
string resp(const string& value) { return tlv("A2", kFields + tlv("30", tlv("30", "06032B0601" + value))); }
string vbs(size_t n) { return tlv("30", rep("3006 06022B06 0500", n)); }

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
    // Storage from nothing up: too small fails, from some size on all give `wire`, and
    // nothing outside the storage less its 8-byte tail is ever written.
    void encode_tightly(const vx_bytes& wire) {
        bool fitted = false;
        for (uint32_t size = 0; size <= wire.size() + 32; size++) {
            vx_bytes area(size + 32, 0xA5);
            snmp_buffer buf{area.data() + 16, size, nullptr, 0};
            const int rc = snmp_encode_message(&buf, &msg);
            EXPECT_TRUE(rc == OK ? vx_bytes(buf.data, buf.data + buf.len) == wire : !fitted) << size;
            fitted = rc == OK;
            area.erase(area.begin() + 16, area.begin() + 16 + (size > 8 ? size - 8 : 0));
            EXPECT_EQ(area, vx_bytes(area.size(), 0xA5)) << size;
        }
        EXPECT_TRUE(fitted);
    }
};

vx_bytes smux_encode(smux_pdu* record) {  // empty when refused
    uint8_t* start = nullptr;
    uint32_t len = 0;
    return smux_encode_message(&start, &len, record) == OK ? vx_bytes(start, start + len) : vx_bytes();
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
        return row.codec == 'M' ? m.decode(w, n) : smux_decode_message(w.data(), uint32_t(n), &p);
    };
    auto fields = [&] { return row.codec == 'M' ? lib_render::message(&m.msg) : lib_render::smux(p); };
    ASSERT_EQ(decode(wire, wire.size()), row.code);
    if (row.code != OK) {
        return;
    }
    EXPECT_EQ(fields(), row.fields);
    vx_bytes again = row.codec == 'S' ? smux_encode(p) : wire;
    ASSERT_FALSE(again.empty());
    if (row.canonical) {
        EXPECT_EQ(vx_to_hex(again), vx_to_hex(wire));
        if (row.codec == 'M') {
            m.encode_tightly(wire);
        }
    }
    for (size_t cut = 0; cut < wire.size(); cut++) {
        EXPECT_NE(decode(wire, cut), OK) << "cut " << cut;
    }
    again.insert(again.end(), {0x44, 0x01, 0x01});  // what follows a PDU is not looked at
    if (row.codec == 'S') {  // re-encoded bytes carry the same fields
        ASSERT_EQ(decode(again, again.size()), OK);
        EXPECT_EQ(fields(), row.fields);
    }
}

const string kTrap = "06082B0601040186 8D1F 40040A000002 020106 020111 4301 07";

TEST(Smux, Vectors) {
    const string open = "020100 06092B06010401868D1F01 04026162 0400";
    const Row rows[] = {
        {"Open", 'S', tlv("60", open), OK, "60 v0 1.3.6.1.4.1.99999.1 'ab' ''"},
        {"Open description of 256", 'S', tlv("60", "020100 06032B0601" + tlv("04", rep("64", 256)) + "0400"),
         SNMP_CODEC_NO_ROOM},
        {"RReq", 'S', "620E 06062B0601020101 0201FF 020102", OK, "62 1.3.6.1.2.1.1 pri-1 op2"},
        {"Close", 'S', "410102", OK, "41 2"}, {"SOut rollback", 'S', "440101", OK, "44 1"},
        {"RRsp -1 in four octets", 'S', "4304FFFFFFFF", OK, "43 -1", false},
        {"empty Close is 0", 'S', "4100", OK, "41 0", false}, {"Close indefinite", 'S', "41800000", MAL},
        {"GetResponse without a varBind list", 'S', tlv("A2", kFields), OK, "A2 id1 st0 ix0", false},
        {"Trap without a varBind list", 'S', tlv("A4", kTrap), OK, "A4 1.3.6.1.4.1.99999 10.0.0.2 g6 s17 t7", false},
        {"GetResponse with an error", 'S', "A20B 0201FB 020105 020103 3000", OK, "A2 id-5 st5 ix3"},
        {"Trap", 'S', tlv("A4", kTrap + tlv("30", "3008 06032B0601 430107")), OK,
         "A4 1.3.6.1.4.1.99999 10.0.0.2 g6 s17 t7 1.3.6.1=43:7"},
        {"Trap agent-addr as OCTET STRING", 'S', tlv("A4", "06012B 04040A000002 020106 020111 430107 3000"), MAL},
        {"GetBulk", 'S', tlv("A5", kFields + "3000"), UNKNOWN}, {"high tag number", 'S', "3F00", MAL},
        {"name as OCTET STRING", 'S', tlv("A0", kFields + "3009 3007 04032B0601 0500"), MAL},
        {"Trap message", 'M', tlv("30", "020100 0401 63" + tlv("A4", kTrap + vbs(2))), OK,
         "v0 'c' A4 1.3.6.1.4.1.99999 10.0.0.2 g6 s17 t7 1.3.6=05: 1.3.6=05:"},
        {"community of 15 fits", 'M', tlv("30", "020100 040F" + rep("63", 15) + tlv("A0", kFields + vbs(3))),
         OK, "v0 '" + string(15, 'c') + "' A0 id1 st0 ix0" + rep(" 1.3.6=05:", 3)},
        {"community of 16 does not", 'M', tlv("30", "020100 0410" + rep("63", 16) + tlv("A0", kFields + vbs(1))),
         SNMP_CODEC_NO_ROOM},
        {"as many varBinds as the storage", 'M', tlv("30", "020100 0400" + tlv("A0", kFields + vbs(4))),
         SNMP_CODEC_TOO_MANY},
        {"not a SEQUENCE", 'M', "3103020100", MAL},
        {"version not an INTEGER", 'M', tlv("30", "040100 0400" + tlv("A0", kFields + vbs(1))), MAL},
        {"PDU of unknown type", 'M', tlv("30", "020100 0400" + tlv("A5", kFields + vbs(1))), MAL},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        check(row);
    }
    // Values in a GetResponse: their fields ("~" first: written back otherwise), "" refused.
    const std::pair<string, string> values[] = {
        {"020100", "02:0"}, {"02017F", "02:127"}, {"02020080", "02:128"}, {"0201FF", "02:-1"}, {"020180", "02:-128"},
        {"0202FF7F", "02:-129"}, {"0203008000", "02:32768"}, {"0204FF7FFFFF", "02:-8388609"},
        {"020480000000", "02:-2147483648"}, {"020500FFFFFFFF", "~02:-1"}, {"0200", "~02:0"}, {"02810105", "~02:5"},
        {"0280050000", ""}, {"41050080000000", "41:2147483648"}, {"42020080", "42:128"},
        {"430500FFFFFFFF", "43:4294967295"}, {"4304FFFFFFFF", "~43:4294967295"}, {"0403616263", "04:616263"},
        {"0481026162", "~04:6162"}, {"048400000003616263", "~04:616263"}, {"44020102", "44:0102"},
        {"40040A000001", "40:10.0.0.1"}, {"40050102030405", ""}, {"0500", "05:"}, {"050100", ""},
        {"06032B0601", "06:1.3.6.1"}, {"0600", "06:"}, {"06017F", "06:2.47"}, {"060128", "06:1.0"},
        {"060127", "06:0.39"}, {"0603813403", "06:2.100.3"}, {"06032B8100", "06:1.3.128"},
        {"06042B818000", "06:1.3.16384"}, {"06062B8FFFFFFF7F", "06:1.3.4294967295"}, {"06022B86", ""},
        {"460101", ""}, {"8000", ""}, {"030100", ""}, {"020200", ""}, {"", ""},
        {"06072B9FFFFFFFFF7F", "~06:1.3.4294967295"},  // the low 32 bits
        {tlv("04", rep("61", 128)), "04:" + rep("61", 128)},
        {tlv("04", rep("62", 256)), "04:" + rep("62", 256)},
    };
    for (const auto& [value, shown] : values) {
        SCOPED_TRACE(value);
        const bool canonical = shown.empty() || shown[0] != '~';
        check({"value", 'S', resp(value), shown.empty() ? MAL : OK,
               "A2 id1 st0 ix0 1.3.6.1=" + shown.substr(canonical ? 0 : 1), canonical});
    }
    smux_pdu* p = nullptr;
    snmp_free_pdu(nullptr, 1);  // null records and arguments are refused, not dereferenced
    snmp_free_trap_pdu(nullptr, 1);
    EXPECT_EQ(std::vector<int>({smux_decode_message(nullptr, 0, &p), smux_decode_message(hex("410100").data(), 3, nullptr),
                                decode_oid(nullptr, nullptr, nullptr), encode_pdu(nullptr, nullptr, nullptr),
                                encode_trap_pdu(nullptr, nullptr, nullptr), snmp_encode_message(nullptr, nullptr),
                                snmp_decode_message(nullptr, nullptr)}),
              std::vector<int>({MAL, BAD, BAD, BAD, BAD, BAD, BAD}));
}

// Records the decoder cannot produce: the encoder refuses them and leaves start and length.
TEST(Smux, EncodeRefusals) {
    snmp_container* id = snmp_create_oid_container("1.3.6.1");
    snmp_pdu* snmp = snmp_create_pdu(1);
    auto oid = [](const char* text, int at = 0, uint32_t v = 1) {
        snmp_container* c = snmp_create_oid_container(text);
        snmp_container_subids(c)[at] = v;
        return c;
    };
    auto value = [](uint8_t tag, uint32_t len = 0) { return snmp_create_value_container("12345678", len, tag, 0); };
    snmp_container* constructed = value(5);
    constructed->tag = 0x30;
    // Type, version, OID, the code, the only varBind (none: no PDU).
    const std::tuple<uint8_t, int32_t, snmp_container*, int, snmp_varBind> rows[] = {
        {0x60, 1, id, SNMP_CODEC_INCOMPLETE, {}}, {0x60, 0, nullptr, BAD, {}}, {0x62, 0, nullptr, BAD, {}},
        {0xA2, 0, id, BAD, {}}, {0xA4, 0, id, BAD, {}}, {0xA5, 0, id, UNKNOWN, {}},
        {0xA2, 0, id, SNMP_CODEC_INCOMPLETE, {oid("1.3"), nullptr}},
        {0xA2, 0, id, BAD, {value(2, 1), value(5)}},  // name not an OID
        {0xA2, 0, id, BAD, {oid("1.3"), value(0x46, 8)}}, {0xA2, 0, id, BAD, {oid("1.3"), constructed}},
        {0xA2, 0, id, BAD_OID, {oid("1.3", 1, 40), value(5)}}, {0xA2, 0, id, BAD_OID, {oid("0.3.1", 1, 40), value(5)}},
        {0xA2, 0, id, BAD_OID, {oid("1.3", 0, 3), value(5)}},
    };
    for (const auto& [type, version, name, code, vb] : rows) {
        SCOPED_TRACE(lib_render::fmt("%02X ", type) + lib_render::value(vb.name) + " " + lib_render::value(vb.value));
        smux_pdu record{};
        record.type = type;
        record.version = version;
        record.oid = name;
        snmp->varBinds[0] = vb;
        snmp->varBind_count = 1;
        record.snmp = vb.name != nullptr ? snmp : nullptr;
        uint8_t* start = nullptr;
        uint32_t length = 99;
        EXPECT_EQ(smux_encode_message(&start, &length, &record), code);
        EXPECT_TRUE(start == nullptr && length == 99);
        snmp_free_varBinds(snmp->varBinds, 1);
    }
    snmp_free_pdu(snmp, 1);
    snmp_free_container(id);
}

// The static record the value rows above share: a display hint the handler set on its answer
// does not survive into the next request. The limits on varBinds and the trap's rules.
TEST(Smux, RecyclesTheRecord) {
    smux_pdu* p = nullptr;
    auto decode = [&](const string& h) { return smux_decode_message(hex(h).data(), uint32_t(hex(h).size()), &p); };
    ASSERT_EQ(decode(resp("0500")), OK);
    const int32_t answer = 42;
    p->snmp->varBinds[0].value = snmp_replace_container_value(p->snmp->varBinds[0].value, &answer, 4, 2, 9);
    EXPECT_EQ(vx_to_hex(smux_encode(p)), vx_to_hex(hex(resp("02012A"))));
    ASSERT_EQ(decode(resp("0403626263")), OK);
    EXPECT_EQ(p->snmp->varBinds[0].value->hint, 0);
    // One varBind beyond the limit is taken, two are not; a Counter64 is left out of a trap.
    const string trap = "06012B 400400000000 020106 020100 430100";
    EXPECT_EQ(decode(tlv("A0", kFields + vbs(SMUX_MAX_VARBINDS))), OK);
    EXPECT_EQ(decode(tlv("A0", kFields + vbs(SMUX_MAX_VARBINDS + 1))), SNMP_CODEC_TOO_MANY);
    EXPECT_EQ(decode(tlv("A4", trap + vbs(SMUX_MAX_TRAP_VARBINDS + 1))), SNMP_CODEC_TOO_MANY);
    ASSERT_EQ(decode(tlv("A4", trap + vbs(SMUX_MAX_TRAP_VARBINDS))), OK);
    p->trap->varBinds[0].value = snmp_replace_container_value(p->trap->varBinds[0].value, "12345678", 8, 0x46, 0);
    ASSERT_EQ(decode(vx_to_hex(smux_encode(p))), OK);
    EXPECT_EQ(lib_render::smux(p), "A4 1.3 0.0.0.0 g6 s0 t0" + rep(" 1.3.6=05:", SMUX_MAX_TRAP_VARBINDS - 1));
}

}  // namespace
