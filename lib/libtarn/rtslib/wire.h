// Reading and writing routing-socket header fields. Messages are in host
// byte order, and every host we build for is little-endian like the target,
// so a field is its bytes; memcpy keeps unaligned access defined.
#ifndef LIBTARN_RTSLIB_WIRE_H
#define LIBTARN_RTSLIB_WIRE_H

#include <cstdint>
#include <cstring>

#include <tarn/rtsock_wire.h>

namespace tarn::wire {

inline uint32_t load_u32(const void *p)
{
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline uint16_t load_u16(const void *p)
{
    uint16_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline void store_u32(void *p, uint32_t v)
{
    std::memcpy(p, &v, sizeof v);
}

inline void store_u16(void *p, uint16_t v)
{
    std::memcpy(p, &v, sizeof v);
}

// True when the first word of a message of at least 4 bytes is an IDL
// envelope magic.
inline bool is_envelope(const void *msg)
{
    const uint32_t magic = load_u32(msg);
    return magic == RTS_IDL_MAGIC_TLV || magic == RTS_IDL_MAGIC_IDR;
}

// The length a message says it has: an envelope's body length plus its
// 12-byte header, else the header's length word. Needs RTS_HDR_MIN_LEN bytes
// for a raw message, 8 for an envelope. Computed in 64 bits: a lying body
// length must not wrap to a small number.
inline uint64_t claimed_length(const void *msg)
{
    const auto *p = static_cast<const uint8_t *>(msg);
    if (is_envelope(p)) return uint64_t{load_u32(p + 4)} + RTS_IDL_ENVELOPE_HDR_LEN;
    return load_u32(p + RTS_HDR_LEN_OFF);
}

}  // namespace tarn::wire

#endif  // LIBTARN_RTSLIB_WIRE_H
