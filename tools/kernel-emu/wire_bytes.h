// Little-endian loads and stores of routing-socket header fields. Both ends
// of the emulator's sockets are little-endian, like the target.
#ifndef TARN_KERNEL_EMU_WIRE_BYTES_H
#define TARN_KERNEL_EMU_WIRE_BYTES_H

#include <cstdint>
#include <cstring>

#include <tarn/rtsock_wire.h>

namespace tarn::kemu {

inline uint32_t load_u32(const uint8_t *p)
{
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline uint16_t load_u16(const uint8_t *p)
{
    uint16_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline void store_u32(uint8_t *p, uint32_t v) { std::memcpy(p, &v, sizeof v); }

// True when the message's first word is one of the envelope magics; the
// caller has checked that four bytes are there.
inline bool is_envelope(const uint8_t *msg)
{
    const uint32_t magic = load_u32(msg);
    return magic == RTS_IDL_MAGIC_TLV || magic == RTS_IDL_MAGIC_IDR;
}

// Bytes a prefix of `plen` bits takes on the wire: whole 32-bit words.
constexpr uint32_t padded_prefix_len(uint32_t plen)
{
    return ((plen + 31u) / 8u) & ~3u;
}

}  // namespace tarn::kemu

#endif  // TARN_KERNEL_EMU_WIRE_BYTES_H
