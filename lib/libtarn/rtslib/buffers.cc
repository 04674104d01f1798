#include <cstdlib>
#include <cstring>

#include "libtarn/rtslib/msg_io_internal.h"
#include <tarn/rtslib.h>

namespace {

constexpr uint32_t kSmallBlock = 1024;

}  // namespace

// The handle is required although unused: a null handle makes allocation fail
// and freeing a no-op, so a caller that lost its handle cannot free blocks it
// may not own.
extern "C" void *rtslib_size_alloc(rtslib_cookie *handle, uint32_t size)
{
    if (handle == nullptr) return nullptr;
    // calloc bypasses the C library's per-thread cache of small blocks, which
    // is what makes a small block cheap to get again; clearing it here is
    // the cheaper way for the sizes that cache holds.
    if (size > kSmallBlock) return std::calloc(1, size);
    void *block = std::malloc(size);
    if (block != nullptr) std::memset(block, 0, size);
    return block;
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
