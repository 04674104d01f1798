// Shared pieces of the envelope fuzz targets: an allocator that records every
// block, can fail at a chosen call and refuses huge requests, and a check that
// turns a broken property into a crash the fuzzer reports.
#ifndef TARN_FUZZ_IDL_FUZZ_SUPPORT_H
#define TARN_FUZZ_IDL_FUZZ_SUPPORT_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <vector>

#define FUZZ_CHECK(cond)                                                          \
    do {                                                                          \
        if (!(cond)) {                                                            \
            std::fprintf(stderr, "check failed: %s (line %d)\n", #cond, __LINE__); \
            std::abort();                                                         \
        }                                                                         \
    } while (0)

namespace tarn::fuzz {

struct TrackingAllocator {
    std::set<void *> live;
    uint64_t calls = 0;
    uint64_t fail_at = 0;  // 0: never

    static void *alloc(uint32_t size, void *self)
    {
        auto *a = static_cast<TrackingAllocator *>(self);
        ++a->calls;
        if (a->fail_at && a->calls == a->fail_at) return nullptr;
        if (size > (1u << 20)) return nullptr;
        void *p = std::malloc(size ? size : 1);
        a->live.insert(p);
        return p;
    }

    static void free(void *block, void *self)
    {
        auto *a = static_cast<TrackingAllocator *>(self);
        FUZZ_CHECK(a->live.erase(block) == 1);  // only blocks we handed out, once
        std::free(block);
    }
};

// The call at which the fault-injection pass fails, taken from the input.
inline uint64_t failing_call(const uint8_t *data, size_t size)
{
    uint64_t h = 0;
    for (size_t i = 0; i < size; ++i) h = h * 31 + data[i];
    return h % 64 + 1;
}

}  // namespace tarn::fuzz

#endif
