#include "libtarn/rtslib/scratch.h"

#include <cstdlib>
#include <cstring>

#include <tarn/rtsock_wire.h>

namespace tarn {
namespace {

struct Block {
    uint8_t *bytes = nullptr;
    bool busy = false;
    Block() = default;
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;
    ~Block() { std::free(bytes); }
};

// Per thread, so that handles used from different threads never share one;
// freed when the thread ends.
thread_local Block t_blocks[2];

}  // namespace

ScratchLease::ScratchLease(ScratchKind kind)
{
    Block &b = t_blocks[static_cast<int>(kind)];
    if (b.busy) return;
    if (b.bytes == nullptr) b.bytes = static_cast<uint8_t *>(std::calloc(1, RTS_MSG_MAX));
    if (b.bytes == nullptr) return;
    b.busy = true;
    busy_ = &b.busy;
    block_ = b.bytes;
}

ScratchLease::~ScratchLease()
{
    if (block_ == nullptr) return;
    std::memset(block_, 0, dirty_ < RTS_MSG_MAX ? dirty_ : RTS_MSG_MAX);
    *busy_ = false;
}

}  // namespace tarn
