// Replaces the malloc family for the whole process (the C library supports
// this by symbol interposition). It must not allocate itself: the set of
// tracked blocks is a fixed open-addressing table.
#include "failing_malloc.h"

#include <malloc.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);
void *__libc_memalign(size_t, size_t);
}

namespace {

constexpr size_t kSlots = size_t{1} << 16;
constexpr uintptr_t kEmpty = 0;
constexpr uintptr_t kGone = 1;

struct State {
    bool tracking = false;
    unsigned fail_at = 0;  // 1-based position among attempts; 0 for none
    unsigned attempts = 0;
    bool failed = false;
    size_t live = 0;
    uintptr_t slots[kSlots];
};

State state;

size_t slot_of(uintptr_t p)
{
    return static_cast<size_t>((p >> 4) * 0x9e3779b1u) & (kSlots - 1);
}

void remember(void *p)
{
    auto key = reinterpret_cast<uintptr_t>(p);
    for (size_t i = slot_of(key);; i = (i + 1) & (kSlots - 1)) {
        if (state.slots[i] == kEmpty || state.slots[i] == kGone) {
            state.slots[i] = key;
            ++state.live;
            return;
        }
    }
}

// True when p was tracked (and is no longer).
bool forget(void *p)
{
    if (p == nullptr || state.live == 0)
        return false;
    auto key = reinterpret_cast<uintptr_t>(p);
    for (size_t i = slot_of(key); state.slots[i] != kEmpty; i = (i + 1) & (kSlots - 1)) {
        if (state.slots[i] == key) {
            state.slots[i] = kGone;
            --state.live;
            return true;
        }
    }
    return false;
}

// Counts an attempt; true when this one is to fail.
bool should_fail()
{
    if (!state.tracking)
        return false;
    ++state.attempts;
    if (state.attempts != state.fail_at)
        return false;
    state.failed = true;
    return true;
}

void *track(void *p)
{
    if (p != nullptr && state.tracking)
        remember(p);
    return p;
}

void *refuse()
{
    errno = ENOMEM;
    return nullptr;
}

}  // namespace

namespace tarn::test::alloc {

void arm(unsigned nth)
{
    std::memset(state.slots, 0, sizeof state.slots);
    state.live = 0;
    state.attempts = 0;
    state.failed = false;
    state.fail_at = nth;
    state.tracking = true;
}

bool disarm()
{
    state.tracking = false;
    return state.failed;
}

size_t live() { return state.live; }

}  // namespace tarn::test::alloc

extern "C" {

void *malloc(size_t size) noexcept
{
    return should_fail() ? refuse() : track(__libc_malloc(size));
}

void *calloc(size_t n, size_t size) noexcept
{
    return should_fail() ? refuse() : track(__libc_calloc(n, size));
}

void *realloc(void *p, size_t size) noexcept
{
    if (p == nullptr)
        return malloc(size);
    if (size == 0) {
        forget(p);
        return __libc_realloc(p, 0);
    }
    if (should_fail())
        return refuse();
    void *q = __libc_realloc(p, size);
    // A block that moves stays tracked if it was; one from before arming
    // is not new, wherever it lands.
    if (q != nullptr && forget(p))
        remember(q);
    return q;
}

void free(void *p) noexcept
{
    forget(p);
    __libc_free(p);
}

void *memalign(size_t align, size_t size) noexcept
{
    return should_fail() ? refuse() : track(__libc_memalign(align, size));
}

void *aligned_alloc(size_t align, size_t size) noexcept { return memalign(align, size); }

int posix_memalign(void **out, size_t align, size_t size) noexcept
{
    void *p = memalign(align, size);
    if (p == nullptr)
        return ENOMEM;
    *out = p;
    return 0;
}

}  // extern "C"
