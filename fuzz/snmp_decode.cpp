// SNMPv1 messages as tools receive them over UDP. Property: a message that decodes encodes
// again; the encoding decodes to the same fields; and encoding that gives the same bytes.
// The records live across runs, so their containers are recycled as in real use.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "snmp_asn1.h"
#include "snmp_container.h"
#include "snmp_ed.h"

#include "snmp_fields.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr uint32_t kEntries = 16;
constexpr uint32_t kCommunitySize = 64;

// One set of records for a decoded message, kept for the life of the process.
struct Slot {
    snmp_pdu* pdu = snmp_create_pdu(kEntries);
    snmp_trap_pdu* trap = snmp_create_trap_pdu(kEntries);
    char community[kCommunitySize] = {};
    snmp_message msg{};

    int decode(const uint8_t* data, uint32_t len) {
        msg = {};
        msg.community = community;
        msg.community_size = sizeof community;
        msg.snmp = pdu;
        msg.snmp_size = snmp_pdu_size(kEntries);
        msg.trap = trap;
        msg.trap_size = snmp_trap_pdu_size(kEntries);
        snmp_buffer buf{nullptr, 0, const_cast<uint8_t*>(data), len};
        return snmp_decode_message(&msg, &buf);
    }
};

using snmp_fields::put;
using snmp_fields::put_bytes;
using snmp_fields::put_container;
using snmp_fields::put_varbinds;

// Every field the message's PDU type uses, as bytes.
std::string flatten(const Slot& s) {
    std::string out;
    put(&out, s.msg.version);
    put_bytes(&out, s.community, s.msg.community_len);
    put(&out, s.msg.pdu_type);
    if (s.msg.pdu_type == SNMP_PDU_TRAP) {
        put_container(&out, s.trap->enterprise);
        put(&out, s.trap->agent_addr);
        put(&out, s.trap->generic_trap);
        put(&out, s.trap->specific_trap);
        put(&out, s.trap->time_stamp);
        put_varbinds(&out, s.trap->varBinds, s.trap->varBind_count);
    } else {
        put(&out, s.pdu->type);
        put(&out, s.pdu->request_id);
        put(&out, s.pdu->error_status);
        put(&out, s.pdu->error_index);
        put_varbinds(&out, s.pdu->varBinds, s.pdu->varBind_count);
    }
    return out;
}

// Re-encodes the message held in `s`. Elements grow by at most three times on the way
// (an empty IpAddress becomes six bytes), and the trap encoder asks for five octets of room
// per enterprise sub-identifier, each of which took at least one input octet; six times the
// input plus a margin is therefore always enough.
std::vector<uint8_t> encode(Slot& s, size_t input_size) {
    std::vector<uint8_t> storage(input_size * 6 + 64);
    snmp_buffer buf{storage.data(), static_cast<uint32_t>(storage.size()), nullptr, 0};
    if (snmp_encode_message(&buf, &s.msg) != SNMP_CODEC_OK) {
        abort();
    }
    return std::vector<uint8_t>(buf.data, buf.data + buf.len);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Slot first;
    static Slot second;
    if (size > 0xFFFFFF) {
        return 0;
    }
    if (first.decode(data, static_cast<uint32_t>(size)) != SNMP_CODEC_OK) {
        return 0;
    }
    if (std::strlen(first.community) > first.msg.community_len) {
        abort();  // the community is NUL-terminated right after its octets
    }
    // The encoder writes SNMPv1 only; any other version number decodes but is not ours to send.
    first.msg.version = 0;
    const std::vector<uint8_t> wire = encode(first, size);

    if (second.decode(wire.data(), static_cast<uint32_t>(wire.size())) != SNMP_CODEC_OK) {
        abort();
    }
    if (flatten(second) != flatten(first)) {
        abort();
    }
    if (encode(second, wire.size()) != wire) {
        abort();
    }
    return 0;
}
