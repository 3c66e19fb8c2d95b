// Cost of one SMUX GetResponse of 10 varBinds (OIDs of 12 sub-identifiers, INTEGER values)
// through the codec: encoding into the static output area, and decoding into the static
// record, whose containers are recycled from one message to the next as in the daemon.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "smux_ed.h"
#include "snmp_container.h"
#include "snmp_ed.h"

namespace {

constexpr uint32_t kVarBinds = 10;

struct Response {
    snmp_pdu* snmp = snmp_create_pdu(kVarBinds);
    smux_pdu record{};
    Response() {
        for (uint32_t i = 0; i < kVarBinds; i++) {
            snmp_container* name = snmp_create_oid_container("1.3.6.1.4.1.99999.1.2.3.4.5");
            const uint32_t last = i + 1;
            name = snmp_expand_oid_container_by_int(name, &last, 1);  // 12 sub-identifiers
            int32_t value = static_cast<int32_t>(1000 * i);
            snmp->varBinds[i] = {name, snmp_create_value_container(&value, 4, 0x02, 0)};
        }
        snmp->varBind_count = kVarBinds;
        snmp->request_id = 4711;
        record.type = SNMP_PDU_RESPONSE;
        record.snmp = snmp;
    }
    ~Response() {
        snmp_free_pdu(snmp, kVarBinds);
    }
};

// The request as the agent would send it, with the record's PDU type; empty on failure.
std::vector<uint8_t> wire_of(smux_pdu* record) {
    uint8_t* start = nullptr;
    uint32_t length = 0;
    if (smux_encode_message(&start, &length, record) != SNMP_CODEC_OK) {
        return {};
    }
    return std::vector<uint8_t>(start, start + length);
}

void BM_SmuxEncodeGetResponse(benchmark::State& state) {
    Response r;
    uint8_t* start = nullptr;
    uint32_t length = 0;
    for (auto _ : state) {
        if (smux_encode_message(&start, &length, &r.record) != SNMP_CODEC_OK) {
            state.SkipWithError("encode failed");
            break;
        }
        benchmark::DoNotOptimize(start);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * length);
    state.counters["bytes_per_message"] = length;
}
BENCHMARK(BM_SmuxEncodeGetResponse);

void BM_SmuxDecodeGetResponse(benchmark::State& state) {
    Response r;
    const std::vector<uint8_t> wire = wire_of(&r.record);
    if (wire.empty()) {
        state.SkipWithError("encode failed");
        return;
    }
    const auto length = static_cast<uint32_t>(wire.size());
    smux_pdu* pdu = nullptr;
    for (auto _ : state) {
        if (smux_decode_message(wire.data(), length, &pdu) != SNMP_CODEC_OK) {
            state.SkipWithError("decode failed");
            break;
        }
        benchmark::DoNotOptimize(pdu);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * length);
}
BENCHMARK(BM_SmuxDecodeGetResponse);

// Decode, answer in place and encode: what the daemon's codec work per request amounts to.
void BM_SmuxDecodeAndAnswer(benchmark::State& state) {
    Response r;
    r.record.type = SNMP_PDU_GET;
    const std::vector<uint8_t> wire = wire_of(&r.record);
    if (wire.empty()) {
        state.SkipWithError("encode failed");
        return;
    }
    const auto wire_len = static_cast<uint32_t>(wire.size());
    uint8_t* start = nullptr;
    uint32_t length = 0;
    smux_pdu* pdu = nullptr;
    for (auto _ : state) {
        if (smux_decode_message(wire.data(), wire_len, &pdu) != SNMP_CODEC_OK) {
            state.SkipWithError("decode failed");
            break;
        }
        pdu->type = pdu->snmp->type = SNMP_PDU_RESPONSE;
        if (smux_encode_message(&start, &length, pdu) != SNMP_CODEC_OK) {
            state.SkipWithError("encode failed");
            break;
        }
        benchmark::DoNotOptimize(start);
    }
}
BENCHMARK(BM_SmuxDecodeAndAnswer);

}  // namespace
