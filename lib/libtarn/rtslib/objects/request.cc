#include "libtarn/rtslib/objects/request.h"

#include <cstring>

namespace tarn {

uint8_t *RequestBuffer::take(uint32_t len, uint32_t align)
{
    const uint32_t start = (used_ + align - 1) & ~(align - 1);
    if (buf_ == nullptr || start > RTS_MSG_MAX || len > RTS_MSG_MAX - start) return nullptr;
    used_ = start + len;
    return buf_ + start;
}

void stamp_header(rtslib_cookie *h, rts_hdr_t &hdr, uint8_t version, uint8_t type, uint8_t op,
                  uint16_t fixed_len)
{
    hdr.version = version;
    hdr.type = type;
    hdr.op = op;
    hdr.seq = ++h->seq;
    hdr.hdrlen = fixed_len;
}

uint8_t *place_prefix(RequestBuffer &rb, const void *prefix, uint32_t plen, uint32_t *padded)
{
    *padded = padded_prefix_len(plen);
    uint8_t *at = rb.take(*padded);
    if (at != nullptr && plen > 0) std::memcpy(at, prefix, (plen + 7) / 8);
    return at;
}

}  // namespace tarn
