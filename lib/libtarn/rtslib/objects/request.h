// Building blocks of the requests the object families send: a zero-filled
// message buffer holding a record, with variable parts placed after the
// record's fixed part.
#ifndef LIBTARN_RTSLIB_OBJECTS_REQUEST_H
#define LIBTARN_RTSLIB_OBJECTS_REQUEST_H

#include <cstdint>

#include <tarn/idl.h>
#include <tarn/rtslib.h>

namespace tarn {

// Bytes a prefix of plen bits occupies in a request: whole 32-bit words.
constexpr uint32_t padded_prefix_len(uint32_t plen)
{
    return ((plen + 31u) / 8u) & ~3u;
}

// A message buffer filling up from its start: the record first, then
// variable parts, each placed at the next suitably aligned offset.
class RequestBuffer {
public:
    explicit RequestBuffer(rtslib_cookie *h) : h_(h), buf_(static_cast<uint8_t *>(rtslib_msg_malloc(h))) {}
    ~RequestBuffer() { rtslib_msg_free(h_, buf_); }
    RequestBuffer(const RequestBuffer &) = delete;
    RequestBuffer &operator=(const RequestBuffer &) = delete;

    bool ok() const { return buf_ != nullptr; }

    // The record at the start of the buffer; `used` moves past it.
    template <typename Record> Record *record()
    {
        used_ = sizeof(Record);
        return reinterpret_cast<Record *>(buf_);
    }

    // `len` zeroed bytes at the next offset aligned to `align`, or nullptr
    // when the buffer is full.
    uint8_t *take(uint32_t len, uint32_t align = 4);

    // Hands the buffer to another owner (rtslib_msg_idl_release, say).
    uint8_t *release()
    {
        uint8_t *b = buf_;
        buf_ = nullptr;
        return b;
    }

private:
    rtslib_cookie *h_;
    uint8_t *buf_;
    uint32_t used_ = 0;
};

// Fills a request header: version, type, operation and the handle's next
// sequence number, and the fixed-part length the kernel expects.
void stamp_header(rtslib_cookie *h, rts_hdr_t &hdr, uint8_t version, uint8_t type, uint8_t op,
                  uint16_t fixed_len);

// Copies the first (plen + 7) / 8 bytes of prefix into `rb`, zero-padded to
// whole words, and returns them (nullptr when it does not fit). *padded gets
// the padded size.
uint8_t *place_prefix(RequestBuffer &rb, const void *prefix, uint32_t plen, uint32_t *padded);

// True for the operations the kernel answers.
constexpr bool is_answered(uint8_t op)
{
    return op == RTS_OP_GET || op == RTS_OP_GETNEXT;
}

}  // namespace tarn

#endif  // LIBTARN_RTSLIB_OBJECTS_REQUEST_H
