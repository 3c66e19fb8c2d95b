// The SNMP library's decoders of untrusted bytes, one target each (chosen by FUZZ_*). What
// decodes encodes again, the encoding decodes to the same fields, and encoding those gives the
// same bytes once more. Records live across runs: containers are recycled as in real use.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "lib_render.h"
#include "smux_ed.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

#define require(ok) ((ok) ? void() : abort())

#if defined(FUZZ_SNMP)  // SNMPv1 messages as tools receive them over UDP
struct Slot {
    char community[64] = {};
    snmp_message msg{};
    int decode(const uint8_t* data, size_t n) {
        msg = {0, 64, 0, community, snmp_pdu_size(16), snmp_trap_pdu_size(16),
               msg.snmp != nullptr ? msg.snmp : snmp_create_pdu(16),
               msg.trap != nullptr ? msg.trap : snmp_create_trap_pdu(16), 0};
        snmp_buffer buf{nullptr, 0, const_cast<uint8_t*>(data), uint32_t(n)};
        return snmp_decode_message(&msg, &buf);
    }
    // Elements grow at most threefold; the trap encoder wants five octets of room per
    // enterprise sub-identifier: six times will do.
    std::vector<uint8_t> encode(size_t n) {
        std::vector<uint8_t> out(n * 6 + 64);
        snmp_buffer buf{out.data(), uint32_t(out.size()), nullptr, 0};
        require(snmp_encode_message(&buf, &msg) == SNMP_CODEC_OK);
        return {buf.data, buf.data + buf.len};
    }
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Slot first, second;
    if (size > 0xFFFFFF || first.decode(data, size) != SNMP_CODEC_OK) {
        return 0;
    }
    require(strlen(first.community) <= first.msg.community_len);  // NUL right after it
    first.msg.version = 0;  // any version decodes; the encoder writes SNMPv1 only
    const std::vector<uint8_t> wire = first.encode(size);
    require(second.decode(wire.data(), wire.size()) == SNMP_CODEC_OK);
    require(lib_render::message(&second.msg) == lib_render::message(&first.msg));
    require(second.encode(wire.size()) == wire);
    return 0;
}
#elif defined(FUZZ_SMUX)  // everything the master agent sends over SMUX
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    smux_pdu* p = nullptr;
    if (size > 0xFFFFFF || smux_decode_message(data, uint32_t(size), &p) != SNMP_CODEC_OK) {
        return 0;
    }
    require(p->type != SMUX_PDU_OPEN || (strlen(p->description) <= p->description_len &&
                                         strlen(p->password) <= p->password_len));
    const std::string fields = lib_render::smux(p);
    uint8_t* start = nullptr;
    uint32_t len = 0;
    if (int rc = smux_encode_message(&start, &len, p); rc != SNMP_CODEC_OK) {
        // Elements grow at most threefold: only a large input may overflow the output area.
        require(size * 3 + 16 > SMUX_BUF_SIZE &&
                (rc == SNMP_CODEC_NO_ROOM || rc == SNMP_CODEC_BAD_ARGUMENT));
        return 0;
    }
    const std::vector<uint8_t> wire(start, start + len);
    require(smux_decode_message(wire.data(), len, &p) == SNMP_CODEC_OK && lib_render::smux(p) == fields);
    require(smux_encode_message(&start, &len, p) == SNMP_CODEC_OK && std::vector<uint8_t>(start, start + len) == wire);
    return 0;
}
#elif defined(FUZZ_AGENTX)  // all the master sends over AgentX; framer and decoder agree, and
// the encoding (compressed, in network order) takes no more bytes than the input
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static agentx_pdu* first = agentx_create_pdu();
    static agentx_pdu* second = agentx_create_pdu();
    if (size > AGENTX_HEADER_LEN + AGENTX_MAX_PAYLOAD) {
        return 0;
    }
    uint32_t frame = 0, len = 0, again_len = 0;
    const int framed = agentx_frame_len(data, uint32_t(size), &frame);
    const int rc = agentx_decode_pdu(data, uint32_t(size), first);
    require(framed != AGENTX_OK ? rc == framed
                                : rc != AGENTX_NEED_MORE && rc != AGENTX_TOO_BIG && rc != AGENTX_BAD_ARGUMENT);
    if (rc != AGENTX_OK) {
        return 0;
    }
    std::vector<uint8_t> wire(frame), again(frame);
    require(agentx_encode_pdu(first, wire.data(), frame, &len) == AGENTX_OK);
    require(agentx_decode_pdu(wire.data(), len, second) == AGENTX_OK);
    require(lib_render::agentx(second) == lib_render::agentx(first));
    require(agentx_encode_pdu(second, again.data(), len, &again_len) == AGENTX_OK);
    require(again_len == len && std::equal(wire.begin(), wire.begin() + len, again.begin()));
    return 0;
}
#else  // dotted OID text, as subagents send it; printed text must be a fixed point
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);  // NUL-terminated
    snmp_container* oid = snmp_create_oid_container(text.c_str());
    if (oid == nullptr) {
        return 0;
    }
    char* printed = snmp_oid_to_string(oid);
    require(printed != nullptr && snmp_validate_and_count(text.c_str(), 1) == oid->length);
    snmp_container* again = snmp_create_oid_container(printed);
    char* printed_again = snmp_oid_to_string(again);
    require(snmp_compare_oid_subids(oid, again, 0) == 0 && strcmp(printed, printed_again) == 0);
    free(printed_again);
    free(printed);
    snmp_free_container(again);
    snmp_free_container(oid);
    return 0;
}
#endif
