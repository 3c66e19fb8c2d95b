// The daemon cuts SMUX PDUs and DPI packets out of each connection's input buffer as bytes
// arrive in pieces of any size. Properties: every frame lies inside the buffer; the frames
// cut from a stream do not depend on how the stream was split into reads; a stream that
// stops framing (malformed or too large) stops at the same place either way; and every
// frame goes through the decoder the daemon hands it to.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "conn.h"
#include "smux_ed.h"
#include "snmpmDPI.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using framer = int (*)(const vx_conn*, uint32_t*);

// Frames cut from `stream` fed in pieces of the sizes in `cuts` (cycled), each frame as a
// string, then the framing result that ended the stream.
std::vector<std::string> cut_frames(framer frame, bool smux, const uint8_t* stream, size_t n,
                                    const uint8_t* cuts, size_t num_cuts, int* end) {
    static vx_conn c;
    c.fd = -1;
    c.len = 0;
    std::vector<std::string> frames;
    size_t fed = 0;
    size_t k = 0;
    *end = FRAME_PARTIAL;
    while (fed < n) {
        size_t piece = num_cuts > 0 ? 1 + cuts[k++ % num_cuts] : n - fed;
        piece = std::min({piece, n - fed, sizeof c.buf - static_cast<size_t>(c.len)});
        if (piece == 0) {
            abort();  // a full buffer must always hold a whole frame or a refusal
        }
        memcpy(c.buf + c.len, stream + fed, piece);
        c.len += static_cast<uint32_t>(piece);
        fed += piece;
        for (;;) {
            uint32_t total = 0;
            int r = frame(&c, &total);
            if (r != FRAME_WHOLE) {
                if (r != FRAME_PARTIAL) {
                    *end = r;
                    return frames;
                }
                break;
            }
            if (total < 2 || total > c.len) {
                abort();
            }
            frames.emplace_back(reinterpret_cast<const char*>(c.buf), total);
            if (smux) {
                smux_pdu* p = nullptr;
                (void)smux_decode_message(c.buf, total, &p);
            } else {
                fDPIparse(pDPIpacket(c.buf));
            }
            conn_consume(&c, total);
        }
    }
    return frames;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    // First byte: how many of the following bytes give the piece sizes; the rest is the stream.
    size_t num_cuts = std::min<size_t>(data[0] % 16, size - 1);
    const uint8_t* cuts = data + 1;
    const uint8_t* stream = cuts + num_cuts;
    size_t n = size - 1 - num_cuts;
    for (bool smux : {true, false}) {
        framer f = smux ? conn_smux_frame : conn_dpi_frame;
        int end_whole = 0;
        int end_cut = 0;
        auto whole = cut_frames(f, smux, stream, n, nullptr, 0, &end_whole);
        auto pieces = cut_frames(f, smux, stream, n, cuts, num_cuts, &end_cut);
        if (whole != pieces || end_whole != end_cut) {
            abort();
        }
    }
    return 0;
}
