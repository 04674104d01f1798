// Pieces every interface family's requests share.
#ifndef LIBTARN_RTSLIB_OBJECTS_IF_COMMON_H
#define LIBTARN_RTSLIB_OBJECTS_IF_COMMON_H

#include <cstdint>

#include "libtarn/rtslib/objects/request.h"
#include <tarn/rtslib_if.h>

namespace tarn {

// Copies `name` behind the record: at most RTSLIB_IFNAME_MAX - 1 characters
// and a NUL (longer names are cut; the kernel's name fields are that long),
// the next part starting at a multiple of 4. *len gets the bytes with the
// NUL. nullptr when the buffer is full.
uint8_t *place_name(RequestBuffer &rb, const char *name, uint32_t *len);

// Copies a socket address (first byte: its length) into a one-element
// sub-record array; an address of length 0 leaves *slot and *count alone.
bool place_sockaddr(RequestBuffer &rb, const void *address, idl_sockaddr_gen_t ***slot,
                    uint32_t *count);

// The caller's information TLVs (16-bit tag, 16-bit value length, the
// value padded to 4 bytes; host order) as the request's information records,
// one opaque record per TLV whose word is the tag. 0, EINVAL for TLVs that
// overrun `len`, ENOMEM when the buffer is full.
int place_tlvs(RequestBuffer &rb, rts_hdr_t &hdr, const uint8_t *tlvs, uint32_t len);

// One opaque information record with `word` and a copy of `data`.
int place_opaque(RequestBuffer &rb, rts_hdr_t &hdr, uint32_t word, const void *data,
                 uint32_t len);

// An answer read as one message of any length into a new record.
inline Answer long_answer(void **record_out)
{
    Answer a;
    a.read = Answer::Read::any_length;
    a.record_out = record_out;
    return a;
}

// A lookup's request on a fresh handle of its own: runs `ask` and closes
// the handle whatever happens. -1 when no handle can be opened.
class OwnHandle {
public:
    OwnHandle() : h_(rtslib_open(3)) {}
    ~OwnHandle() { rtslib_close(h_); }
    OwnHandle(const OwnHandle &) = delete;
    OwnHandle &operator=(const OwnHandle &) = delete;
    rtslib_cookie *get() const { return h_; }

private:
    rtslib_cookie *h_;
};

}  // namespace tarn

#endif  // LIBTARN_RTSLIB_OBJECTS_IF_COMMON_H
