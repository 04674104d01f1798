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
                 : rtslib_msg_idl_decode(h, buf, len, record_out, map_out);
    if (rc != 0 || *record_out != nullptr) return rc;
    if (map_out != nullptr) *map_out = nullptr;
    // Decoded without error, so the envelope header (12 bytes) is there.
    return missing_record(h, wire::load_u32(static_cast<const uint8_t *>(buf) + 8));
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
    void *buf = nullptr;
    uint32_t len = 0;
    int rc = rtslib_msg_idl_encode(h, record, map, &buf, &len);
    if (rc != 0) return rc;
    rc = rtslib_write(h, buf, len);
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
