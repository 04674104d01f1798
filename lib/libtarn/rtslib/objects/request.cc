#include "libtarn/rtslib/objects/request.h"

#include <cerrno>
#include <cstring>

#include "libtarn/os/os.h"
#include "libtarn/rtslib/wire.h"
#include <tarn/rtslib_msg.h>

namespace tarn {

uint8_t *RequestBuffer::take(uint32_t len, uint32_t align)
{
    const uint32_t start = (used_ + align - 1) & ~(align - 1);
    if (buf_ == nullptr || start > RTS_MSG_MAX || len > RTS_MSG_MAX - start) return nullptr;
    // The padding before the part too, so that no stale byte sits between
    // the parts.
    std::memset(buf_ + used_, 0, start + len - used_);
    used_ = start + len;
    return buf_ + start;
}

void init_header(rts_hdr_t &hdr, uint8_t version, uint8_t type, uint8_t op, uint16_t fixed_len)
{
    hdr.version = version;
    hdr.type = type;
    hdr.op = op;
    hdr.hdrlen = fixed_len;
}

uint8_t *place_prefix(RequestBuffer &rb, const void *prefix, uint32_t plen, uint32_t *padded)
{
    *padded = padded_prefix_len(plen);
    uint8_t *at = rb.take(*padded);
    if (at != nullptr && plen > 0) std::memcpy(at, prefix, (plen + 7) / 8);
    return at;
}

int send_idl(rtslib_cookie *h, rts_hdr_t *hdr, const Answer &answer)
{
    using Read = Answer::Read;
    if (answer.record_out != nullptr) *answer.record_out = nullptr;
    if (answer.stamp) hdr->seq = ++h->seq;
    int rc = rtslib_msg_write_idl(h, hdr, nullptr);
    if (rc != 0 || answer.read == Read::none) return rc;
    rc = os::await_answer(h->fd, os::AnswerWait::queued);
    if (rc != 0) return rc;
    void **out = answer.record_out;
    void **map = answer.map_out;
    if (answer.read == Read::bounded) {
        rc = answer.arena_base != nullptr
                 ? rtslib_msg_read_idl_pa(h, out, map, answer.arena_base, answer.arena_size)
                 : rtslib_msg_read_idl(h, out, map);
    } else {
        rc = answer.arena_base != nullptr
                 ? rtslib_long_msg_read_idl_pa(h, out, map, answer.arena_base, answer.arena_size)
                 : rtslib_long_msg_read_idl(h, out, map);
    }
    if (rc != 0) *out = nullptr;
    return rc;
}

int send_raw(rtslib_cookie *h, uint8_t *msg, uint32_t len, void **answer_out,
             uint32_t *answer_len)
{
    *answer_out = nullptr;
    wire::store_u32(msg + RTS_HDR_SEQ_OFF, ++h->seq);
    int rc = rtslib_write(h, msg, len);
    if (rc != 0) return rc;
    rc = os::await_answer(h->fd, os::AnswerWait::blocking);
    if (rc != 0) return rc;
    void *answer = nullptr;
    rc = rtslib_long_msg_read(h, &answer, answer_len);
    if (rc != 0) {
        // A mismatched answer is still delivered by the read; it is not this
        // request's, so it goes.
        rtslib_msg_free(h, answer);
        return rc;
    }
    *answer_out = answer;
    return 0;
}

}  // namespace tarn
