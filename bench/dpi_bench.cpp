// DPI packets: cost of building and parsing a RESPONSE carrying 10 varBinds, the typical
// answer of a subagent to a table-row request.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "snmpmDPI.h"

namespace {

const char group[] = "1.3.6.1.4.1.2.6.7.1.";

dpi_set_packet* ten_varbinds() {
    static const char* const instances[] = {"1.0", "2.0", "3.0", "4.0", "5.0",
                                            "6.0", "7.0", "8.0", "9.0", "10.0"};
    dpi_set_packet* chain = nullptr;
    for (int i = 0; i < 10; i++) {
        uint32_t number = 100000u * static_cast<uint32_t>(i);
        if (i % 2 == 0) {
            chain = mkDPIset_packet(chain, group, instances[i], DPI_TYPE_Counter32, 4, &number);
        } else {
            chain = mkDPIset_packet(chain, group, instances[i], DPI_TYPE_DisplayString, 12,
                                    "interface-xy");
        }
    }
    return chain;
}

dpi_hdr* get_request() {
    dpi_hdr* request = mkDPIhdr_version(SNMP_DPI_GET, 2, 0);
    request->data = mkDPIget_packet(nullptr, group, "1.0");
    return request;
}

// What a subagent does per answer: assemble the chain and serialise the response.
void BM_BuildResponse(benchmark::State& state) {
    dpi_hdr* request = get_request();
    for (auto _ : state) {
        unsigned char* packet = mkDPIresp(request, 0, 0, ten_varbinds());
        benchmark::DoNotOptimize(packet);
    }
    fDPIparse(request);
}
BENCHMARK(BM_BuildResponse);

// Serialisation alone, of a tree already in memory.
void BM_SerialiseResponse(benchmark::State& state) {
    dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_RESPONSE, 2, 0);
    auto* resp = static_cast<dpi_resp_packet*>(calloc(1, sizeof(dpi_resp_packet)));
    resp->varBinds = ten_varbinds();
    hdr->data = resp;
    for (auto _ : state) {
        unsigned char* packet = cDPIpacket(hdr);
        benchmark::DoNotOptimize(packet);
    }
    fDPIparse(hdr);
}
BENCHMARK(BM_SerialiseResponse);

// What the agent does per answer: parse the response and release the tree.
void BM_ParseResponse(benchmark::State& state) {
    dpi_hdr* request = get_request();
    unsigned char* packet = mkDPIresp(request, 0, 0, ten_varbinds());
    std::vector<unsigned char> bytes(packet, packet + dpi_packet_len(packet));
    fDPIparse(request);
    state.counters["bytes"] = static_cast<double>(bytes.size());
    for (auto _ : state) {
        dpi_hdr* tree = pDPIpacket(bytes.data());
        benchmark::DoNotOptimize(tree);
        fDPIparse(tree);
    }
}
BENCHMARK(BM_ParseResponse);

}  // namespace
