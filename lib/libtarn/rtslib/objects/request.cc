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
    used_ = start + len;
    lease_.mark(used_);
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

namespace {

// Reads the answer to an IDL request as `answer` asks.
int read_idl_answer(rtslib_cookie *h, const Answer &answer)
{
    void **out = answer.record_out;
    void **map = answer.map_out;
    if (answer.read == Answer::Read::bounded)
        return answer.arena_base != nullptr
                   ? rtslib_msg_read_idl_pa(h, out, map, answer.arena_base, answer.arena_size)
                   : rtslib_msg_read_idl(h, out, map);
    return answer.arena_base != nullptr
               ? rtslib_long_msg_read_idl_pa(h, out, map, answer.arena_base, answer.arena_size)
               : rtslib_long_msg_read_idl(h, out, map);
}

// Waits for the answer, then reads it.
template <typename Read>
int read_when_answered(rtslib_cookie *h, os::AnswerWait how, Read read)
{
    const int rc = os::await_answer(h->fd, how);
    return rc != 0 ? rc : read();
}

}  // namespace

int send_idl(rtslib_cookie *h, rts_hdr_t *hdr, const Answer &answer)
{
    if (answer.record_out != nullptr) *answer.record_out = nullptr;
    if (answer.stamp) hdr->seq = ++h->seq;
    int rc = rtslib_msg_write_idl(h, hdr, nullptr);
    if (rc != 0 || answer.read == Answer::Read::none) return rc;
    rc = read_when_answered(h, os::AnswerWait::queued, [&] { return read_idl_answer(h, answer); });
    if (rc != 0) *answer.record_out = nullptr;
    return rc;
}

int send_raw(rtslib_cookie *h, uint8_t *msg, uint32_t len, void **answer_out,
             uint32_t *answer_len)
{
    *answer_out = nullptr;
    wire::store_u32(msg + RTS_HDR_SEQ_OFF, ++h->seq);
    int rc = rtslib_write(h, msg, len);
    if (rc != 0) return rc;
    void *answer = nullptr;
    rc = read_when_answered(h, os::AnswerWait::blocking,
                            [&] { return rtslib_long_msg_read(h, &answer, answer_len); });
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
