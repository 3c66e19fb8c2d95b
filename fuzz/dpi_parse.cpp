// The DPI packet parser on any bytes: a version-2 packet parsed and written again reads back as
// a tree written as the same bytes (version 1 texts are joined the writer's own way).
#include <cstddef>
#include <cstdint>
#include <vector>

#include "snmpmDPI.h"

// An exact-size copy out of the writer's shared buffer, so that its parse is bounds-checked.
static std::vector<unsigned char> written(const dpi_hdr* hdr) {
    unsigned char* p = hdr != nullptr ? cDPIpacket(hdr) : nullptr;
    return p ? std::vector<unsigned char>(p, p + dpi_packet_len(p)) : std::vector<unsigned char>{};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    // The framing hands the parser a whole packet: the length field covers no more than the
    // input, but a shorter declared length stays as it came.
    std::vector<unsigned char> input(data, data + size);
    if (dpi_packet_len(input.data()) > size) {
        input[0] = static_cast<unsigned char>((size - 2) >> 8);
        input[1] = static_cast<unsigned char>(size - 2);
    }
    dpi_hdr* first = pDPIpacket(input.data());
    (void)mkDPIresp(first, 0, 0, nullptr);
    const std::vector<unsigned char> once = written(first);
    dpi_hdr* second = once.empty() ? nullptr : pDPIpacket(once.data());
    if (first != nullptr && first->version == 2 && !once.empty() && written(second) != once) {
        __builtin_trap();
    }
    fDPIparse(second);
    fDPIparse(first);
    return 0;
}
