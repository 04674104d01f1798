#include <cstdlib>

#include "libtarn/rtslib/msg_io_internal.h"
#include <tarn/rtslib.h>

// The handle is required although unused: a null handle makes allocation fail
// and freeing a no-op, so a caller that lost its handle cannot free blocks it
// may not own.
extern "C" void *rtslib_size_alloc(rtslib_cookie *handle, uint32_t size)
{
    if (handle == nullptr) return nullptr;
    return std::calloc(1, size);
}

extern "C" void *rtslib_msg_malloc(rtslib_cookie *handle)
{
    return rtslib_size_alloc(handle, RTS_MSG_MAX);
}

extern "C" void rtslib_msg_free(rtslib_cookie *handle, void *block)
{
    if (handle == nullptr) return;
    std::free(block);
}

namespace tarn {

// Most of a 16 KiB block is never touched by a small message; clearing all of
// it costs more than building and encoding the message does.
void *uncleared_block(rtslib_cookie *handle, uint32_t size)
{
    if (handle == nullptr) return nullptr;
    return std::malloc(size);
}

}  // namespace tarn
