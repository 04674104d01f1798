#include "libtarn/idl/runtime.h"

namespace tarn::idl {

uint32_t tlv_run_length(const uint8_t *in, uint64_t len, uint64_t at, uint32_t tag)
{
    uint32_t n = 1;
    while (at + 8 <= len && load_le(in + at, 4) == tag) {
        ++n;
        at = round4(at + 8 + load_le(in + at + 4, 4));
    }
    return n;
}

namespace {

// The length of the longest run of whole pieces within `room` bytes.
uint64_t whole_pieces(const char *pieces, uint64_t room)
{
    uint64_t n = 0;
    for (; *pieces && n + static_cast<uint8_t>(*pieces) <= room; ++pieces)
        n += static_cast<uint8_t>(*pieces);
    return n;
}

}  // namespace

void idr_close_short(uint8_t *out, uint64_t cap, uint64_t open_at, const uint8_t *scratch,
                     const char *pieces)
{
    if (cap <= open_at) return;
    uint64_t n = whole_pieces(pieces, cap - open_at);
    if (n) std::memcpy(out + open_at, scratch, n);
}

// After an earlier failure the stretch reads as zeros, which is what the
// record already holds there, and that failure stands.
void idr_fill_short(const uint8_t *from, uint64_t room, uint8_t *scratch, uint32_t n,
                    const char *pieces)
{
    uint64_t have = whole_pieces(pieces, room);
    if (have) std::memcpy(scratch, from, have);
    std::memset(scratch + have, 0, n - have);
}

}  // namespace tarn::idl
