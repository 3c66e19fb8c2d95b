// Feeds arbitrary bytes to the DPI packet parser. Beyond not crashing, reading out of bounds
// or leaking: a version-2 packet that parses and is written again must read back as a tree
// that is written as the very same bytes (the writer puts down every field of the tree), and
// any parsed packet can be answered. Version-1 trees are exercised only, since the writer
// joins their group and instance texts its own way.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "snmpmDPI.h"

namespace {

// An exact-size copy out of the writer's shared buffer, so that a parse of it is
// bounds-checked; empty when the writer refuses.
std::vector<unsigned char> written(const dpi_hdr* hdr) {
    unsigned char* p = hdr != nullptr ? cDPIpacket(hdr) : nullptr;
    return p ? std::vector<unsigned char>(p, p + dpi_packet_len(p)) : std::vector<unsigned char>{};
}

}  // namespace

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
