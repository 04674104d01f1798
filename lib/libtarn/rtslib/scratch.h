// Message-sized blocks a thread reuses for requests it builds and encodes
// itself, so that the request path does not allocate and clear 16 KiB
// blocks per call. Such blocks never leave the library: anything handed to a
// caller still comes from rtslib_size_alloc.
#ifndef LIBTARN_RTSLIB_SCRATCH_H
#define LIBTARN_RTSLIB_SCRATCH_H

#include <cstdint>

namespace tarn {

// Which of the thread's blocks a lease takes.
enum class ScratchKind : uint8_t { request, encoding };

// One RTS_MSG_MAX-byte block, all zero while nobody holds it. A lease is
// empty (data() is nullptr) when the block is held already further up the
// call chain (an error sink that makes a request, say) or cannot be
// allocated; the caller then falls back to an allocation of its own.
class ScratchLease {
public:
    explicit ScratchLease(ScratchKind kind);
    // Clears the first `dirty` bytes (see mark) and gives the block back.
    ~ScratchLease();
    ScratchLease(const ScratchLease &) = delete;
    ScratchLease &operator=(const ScratchLease &) = delete;

    uint8_t *data() const { return block_; }
    // Everything written lies in the first `len` bytes; only they are
    // cleared for the next user. Marks only ever widen.
    void mark(uint32_t len)
    {
        if (len > dirty_) dirty_ = len;
    }

private:
    uint8_t *block_ = nullptr;
    bool *busy_ = nullptr;
    uint32_t dirty_ = 0;
};

}  // namespace tarn

#endif  // LIBTARN_RTSLIB_SCRATCH_H
