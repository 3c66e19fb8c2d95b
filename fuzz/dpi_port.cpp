// The port query's answer decoder on any datagram (after the first byte, which picks the
// query's selector): the result is -1 or a port of at most three octets.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "snmpqDPI.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int len = 0;
    if (size == 0 || !mkDPIqport_packet(1, data[0] % (DPI_SELECTOR_MAX + 1), "public", 6, &len)) {
        return 0;
    }
    std::vector<uint8_t> answer(data + 1, data + size);
    int port = extract_DPI_port(answer.data(), static_cast<int>(answer.size()));
    if (port < -1 || port > 0xFFFFFF) {
        abort();
    }
    return 0;
}
