// Which listen-mask bits (option 1) select the notifications of each message
// type. One table for the whole emulator: fan-out, dumps and tests read it.
#ifndef TARN_KERNEL_EMU_LISTEN_BITS_H
#define TARN_KERNEL_EMU_LISTEN_BITS_H

#include <cstdint>

namespace tarn::kemu {

// The bits of message type `type` as one 64-bit mask (low word in bits 0-31,
// high word in bits 32-63, as option 1 carries them); 0 for types no listen
// bit selects (those reach a socket only when injected into it).
uint64_t listen_bits(unsigned type);

// A socket listening with `mask` gets type `type`'s notifications when the
// two intersect.
inline bool selects(uint64_t mask, unsigned type)
{
    return (mask & listen_bits(type)) != 0;
}

}  // namespace tarn::kemu

#endif  // TARN_KERNEL_EMU_LISTEN_BITS_H
