// The library's side of version negotiation: what each message type's
// version must be. Shared with the kernel emulator, whose default version
// block is exactly this.
#ifndef LIBTARN_RTSLIB_MSG_TYPES_H
#define LIBTARN_RTSLIB_MSG_TYPES_H

#include <cstdint>

#include <tarn/rtsock_wire.h>

namespace tarn {

// Expected version byte of each message type; entry 0 ("nop") is unused.
extern const uint8_t kExpectedMsgVersion[RTS_MSG_TYPE_COUNT];

}  // namespace tarn

#endif  // LIBTARN_RTSLIB_MSG_TYPES_H
