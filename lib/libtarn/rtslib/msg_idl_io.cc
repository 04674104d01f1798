// Message I/O of IDL-encoded records: the envelope on top of the raw reads
// and writes.
#include <cerrno>

#include "libtarn/rtslib/msg_io_internal.h"
#include "libtarn/rtslib/wire.h"
#include <tarn/idl.h>
#include <tarn/rtslib_msg.h>

namespace tarn {

int decode_record(rtslib_cookie *h, const void *buf, uint32_t len, void **record_out,
                  void **map_out, void *arena_base, uint32_t arena_size)
{
    *record_out = nullptr;
    int rc = arena_base != nullptr
                 ? rtslib_msg_idl_decode_pa(h, buf, len, record_out, map_out, arena_base,
                                            arena_size)
                 : decode_to_new_block(h, buf, len, record_out, map_out);
    if (rc != 0 || *record_out != nullptr) return rc;
    if (map_out != nullptr) *map_out = nullptr;
    // Decoded without error, so the envelope header (12 bytes) is there.
    return missing_record(h, wire::load_u32(static_cast<const uint8_t *>(buf) + 8));
}

int decode_to_new_block(rtslib_cookie *h, const void *buf, uint32_t len, void **record_out,
                        void **map_out)
{
    uint32_t magic = 0;
    uint32_t total = 0;
    // Anything but a well-formed envelope that fits the first arena goes the
    // plain way, which has the reports for it.
    if (rtslib_idl_peek_length(&total, buf, len) == nullptr ||
        rtslib_idl_peek_magic(&magic, buf, len) == nullptr || !wire::is_envelope(&magic) ||
        total > len || total > RTS_MSG_MAX)
        return rtslib_msg_idl_decode(h, buf, len, record_out, map_out);
    void *block = uncleared_block(h, RTS_MSG_MAX);
    if (block == nullptr) {
        rtslib_err(h, RTSLIB_LOG_ERROR, "Allocation Failure");
        return ENOMEM;
    }
    // Quiet: a failure starts over the plain way, whose reports (one per
    // arena tried, as the arena grows) are then the only ones made.
    const rtslib_lib_error_fn sink = h->lib_error_fn;
    h->lib_error_fn = nullptr;
    const int rc = rtslib_msg_idl_decode_pa(h, buf, len, record_out, map_out, block, RTS_MSG_MAX);
    h->lib_error_fn = sink;
    if (rc == 0) {
        // The record is the block's first allocation, so releasing the
        // record frees the block.
        if (*record_out == nullptr) rtslib_msg_free(h, block);
        return 0;
    }
    rtslib_msg_free(h, block);
    return rtslib_msg_idl_decode(h, buf, len, record_out, map_out);
}

int missing_record(rtslib_cookie *h, uint32_t type)
{
    rtslib_err(h, RTSLIB_LOG_ERROR, "IDL message of type %u carries no record\n", type);
    return EIO;
}

}  // namespace tarn

namespace {

using BoundedRead = int (*)(rtslib_cookie *, void **, uint32_t *);

// Decoded straight from the handle's read buffer: with no block to allocate
// before the read, a failure for want of memory cannot leave the message
// queued, to be taken for the answer to the next request.
int read_bounded(rtslib_cookie *h, void **msg, uint32_t *len)
{
    *msg = h->read_buffer;
    return tarn::read_to_buffer(h, len);
}

// Reads one message with `read` and decodes it, into the caller's arena when
// arena_base is given. `negative_is_einval` chooses how a negative decoder
// result is returned: the long read without arena hands it on unchanged.
int read_and_decode(rtslib_cookie *h, BoundedRead read, void **record_out, void **map_out,
                    void *arena_base, uint32_t arena_size, bool negative_is_einval)
{
    if (record_out != nullptr) *record_out = nullptr;
    if (h == nullptr || record_out == nullptr) return EINVAL;
    void *msg = nullptr;
    uint32_t len = 0;
    int rc = read(h, &msg, &len);
    if (rc == 0) {
        rc = tarn::decode_record(h, msg, len, record_out, map_out, arena_base, arena_size);
        if (rc < 0 && negative_is_einval) rc = EINVAL;
    }
    if (msg != h->read_buffer) rtslib_msg_free(h, msg);
    return rc;
}

}  // namespace

extern "C" {

int rtslib_msg_write_idl(rtslib_cookie *h, const void *record, const void *map)
{
    if (h == nullptr || record == nullptr) return EINVAL;
    uint32_t len = RTS_MSG_MAX;
    void *buf = nullptr;
    // The fixed-layout encoding writes every byte up to the length it
    // returns, so its block needs no clearing. What does not fit (or a
    // presence map, which asks for the item encoding) takes the allocating
    // encoder.
    if (map == nullptr) {
        buf = tarn::uncleared_block(h, len);
        if (buf == nullptr) {
            rtslib_err(h, RTSLIB_LOG_ERROR, "Allocation Failure for (%d) bytes",
                       static_cast<int>(len));
            return ENOMEM;
        }
        if (rtslib_msg_idl_encode_pa(h, record, buf, &len) == 0) {
            rtslib_msglen = len;
        } else {
            rtslib_msg_free(h, buf);
            buf = nullptr;
        }
    }
    if (buf == nullptr) {
        if (int rc = rtslib_msg_idl_encode(h, record, map, &buf, &len); rc != 0) return rc;
    }
    const int rc = rtslib_write(h, buf, len);
    rtslib_msg_free(h, buf);
    return rc;
}

int rtslib_msg_read_idl(rtslib_cookie *h, void **record_out, void **map_out)
{
    return read_and_decode(h, read_bounded, record_out, map_out, nullptr, 0, true);
}

int rtslib_msg_read_idl_pa(rtslib_cookie *h, void **record_out, void **map_out, void *arena_base,
                           uint32_t arena_size)
{
    if (arena_base == nullptr) return EINVAL;
    return read_and_decode(h, read_bounded, record_out, map_out, arena_base, arena_size, true);
}

int rtslib_long_msg_read_idl(rtslib_cookie *h, void **record_out, void **map_out)
{
    return read_and_decode(h, rtslib_long_msg_read, record_out, map_out, nullptr, 0, false);
}

int rtslib_long_msg_read_idl_pa(rtslib_cookie *h, void **record_out, void **map_out,
                                void *arena_base, uint32_t arena_size)
{
    if (arena_base == nullptr) return EINVAL;
    return read_and_decode(h, rtslib_long_msg_read, record_out, map_out, arena_base, arena_size,
                           true);
}

}  // extern "C"
