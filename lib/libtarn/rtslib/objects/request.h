// The one road every request to the kernel takes: argument checks, a
// message buffer holding the record (variable parts after its
// fixed part), the sequence number, the write, the wait for the answer and
// its read. A family added later builds its record and calls send_idl or
// send_raw; it cannot forget the host's wait or the sequence number.
#ifndef LIBTARN_RTSLIB_OBJECTS_REQUEST_H
#define LIBTARN_RTSLIB_OBJECTS_REQUEST_H

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <tarn/idl.h>
#include <tarn/rtslib.h>

#include "libtarn/rtslib/msg_io_internal.h"

namespace tarn {

// Bytes a prefix of plen bits occupies in a request: whole 32-bit words.
constexpr uint32_t padded_prefix_len(uint32_t plen)
{
    return ((plen + 31u) / 8u) & ~3u;
}

// True for the operations the kernel answers.
constexpr bool is_answered(uint8_t op)
{
    return op == RTS_OP_GET || op == RTS_OP_GETNEXT;
}

// The checks every request makes before building anything. *record_out is
// cleared first whenever it is given, so a failed call never leaves a stale
// pointer; then EINVAL unless the handle is there, the family's own
// arguments are (`args_ok`), and an answered request has somewhere to put
// its answer.
template <typename Record>
int check_request(rtslib_cookie *h, bool args_ok, bool answered, Record **record_out)
{
    if (record_out != nullptr) *record_out = nullptr;
    if (h == nullptr || !args_ok || (answered && record_out == nullptr)) return EINVAL;
    return 0;
}

// The same checks for a request that is not answered.
inline int check_request(rtslib_cookie *h, bool args_ok)
{
    return h == nullptr || !args_ok ? EINVAL : 0;
}

// A message buffer (RTS_MSG_MAX bytes) filling up from its start: the record
// first, then variable parts, each placed at the next suitably aligned
// offset. Only what is handed out is cleared; the rest is never read.
class RequestBuffer {
public:
    explicit RequestBuffer(rtslib_cookie *h)
        : h_(h), buf_(static_cast<uint8_t *>(uncleared_block(h, RTS_MSG_MAX)))
    {
    }
    ~RequestBuffer() { rtslib_msg_free(h_, buf_); }
    RequestBuffer(const RequestBuffer &) = delete;
    RequestBuffer &operator=(const RequestBuffer &) = delete;

    bool ok() const { return buf_ != nullptr; }

    // The record, zeroed, at the start of the buffer; `used` moves past it.
    template <typename Record> Record *record()
    {
        static_assert(sizeof(Record) <= RTS_MSG_MAX);
        used_ = sizeof(Record);
        std::memset(buf_, 0, sizeof(Record));
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

// Fills a request header: version, type, operation and the fixed-part
// length the kernel expects. The sequence number is send_idl's.
void init_header(rts_hdr_t &hdr, uint8_t version, uint8_t type, uint8_t op, uint16_t fixed_len);

// Copies the first (plen + 7) / 8 bytes of prefix into `rb`, zero-padded to
// whole words, and returns them (nullptr when it does not fit). *padded gets
// the padded size.
uint8_t *place_prefix(RequestBuffer &rb, const void *prefix, uint32_t plen, uint32_t *padded);

// How the answer to an IDL request is read and where it goes.
struct Answer {
    enum class Read : uint8_t {
        none,       // nothing comes back
        bounded,    // one message of at most RTS_MSG_MAX bytes
        any_length, // one message of any length
    };
    Read read = Read::none;
    void **record_out = nullptr; // the decoded record (required unless none)
    void **map_out = nullptr;
    void *arena_base = nullptr;  // decode into the caller's arena when given
    uint32_t arena_size = 0;
    // Whether the handle's next sequence number goes into the header. Only a
    // record the caller built and numbered itself is sent as it is.
    bool stamp = true;
};

// Stamps, encodes and writes an IDL request whose record starts with `hdr`,
// then, when an answer is expected, waits for it and decodes it into
// *answer.record_out (nullptr on any failure). The answer must carry a
// record. 0, or the errno value of the failing step (RTSLIB_SEQ_MISMATCH for
// an answer of another request).
int send_idl(rtslib_cookie *h, rts_hdr_t *hdr, const Answer &answer);

// Stamps and writes a raw request of `len` bytes, then waits until the
// descriptor is readable (blocking on the target kernel, which may take its
// time for such requests; on the host bounded by the emulator time-out) and
// reads the answer, of any length, into a new buffer that is the caller's
// (rtslib_msg_free). On failure, including a sequence mismatch, nothing is
// handed out.
int send_raw(rtslib_cookie *h, uint8_t *msg, uint32_t len, void **answer_out,
             uint32_t *answer_len);

}  // namespace tarn

#endif  // LIBTARN_RTSLIB_OBJECTS_REQUEST_H
