// extract_DPI_port reads whatever datagram arrives on the query socket. The first input byte
// picks the selector of the query the answer is matched against; the rest is the answer.
// Whatever the bytes, the result is -1 or a port of at most three octets.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "snmpqDPI.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    int len = 0;
    if (mkDPIqport_packet(DPI_QUERY_KIND_GET, data[0] % (DPI_SELECTOR_MAX + 1), "public", 6,
                          &len) == nullptr) {
        abort();
    }
    // A copy of exactly the answer's size, so that a read past its end is caught.
    std::vector<uint8_t> answer(data + 1, data + size);
    int port = extract_DPI_port(answer.data(), static_cast<int>(answer.size()));
    if (port < -1 || port > 0xFFFFFF) {
        abort();
    }
    return 0;
}
