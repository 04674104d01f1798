// Fixed cases of the index tables that the model sequences cannot reach:
// a full table, the memory hooks and their failures, and refusals of null
// arguments. The rules for bounds, marks, allocation order, getnext and
// replace are checked against the model in itable_model_test.cc.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/itable.h>

#include "libtarn/itable/itable_internal.h"

namespace {

void *val(uintptr_t v)
{
    return reinterpret_cast<void *>(v);
}

// Hooks that count, check the context word and fail on request.
struct Heap {
    int allocs = 0;
    int frees = 0;
    int fail_after = -1;  // allocations that succeed before the next ones fail
    std::set<void *> live;

    static void *alloc(void *context, size_t size)
    {
        auto *h = static_cast<Heap *>(context);
        if (h->fail_after == 0) return nullptr;
        if (h->fail_after > 0) --h->fail_after;
        ++h->allocs;
        void *p = std::malloc(size);
        h->live.insert(p);
        return p;
    }

    static void release(void *context, void *ptr)
    {
        auto *h = static_cast<Heap *>(context);
        ++h->frees;
        EXPECT_EQ(h->live.erase(ptr), 1u) << "released a block it never gave";
        std::free(ptr);
    }
};

std::vector<uint32_t> walk32(const itable32 *t)
{
    std::vector<uint32_t> v;
    uint32_t i = 0;
    for (void *p = itable32_getnext(t, nullptr, &i); p != nullptr;) {
        v.push_back(i);
        const uint32_t after = i;
        p = itable32_getnext(t, &after, &i);
    }
    return v;
}

int insert16(itable16 *t, uint16_t i, uintptr_t v = 1)
{
    return itable16_insert(t, val(v), &i);
}

int insert32(itable32 *t, uint32_t i, uintptr_t v = 1)
{
    return itable32_insert(t, val(v), &i);
}

uint32_t alloc16(itable16 *t)
{
    uint16_t i = 0;
    EXPECT_EQ(itable16_alloc(t, val(7), &i), 0);
    return i;
}

uint32_t alloc32(itable32 *t)
{
    uint32_t i = 0;
    EXPECT_EQ(itable32_alloc(t, val(7), &i), 0);
    return i;
}

void remove16(itable16 *t, uint16_t i)
{
    itable16_remove(t, &i);
}

void remove32(itable32 *t, uint32_t i)
{
    itable32_remove(t, &i);
}

// --- itable16 ----------------------------------------------------------------

TEST(Itable16, FullTableAllocatesEveryIndexOnceThenRunsOut)
{
    itable16 *t = itable16_create();
    itable16_set_packed(t, 1);
    for (uint32_t want = 0; want < 0x10000; ++want) ASSERT_EQ(alloc16(t), want);
    uint16_t i = 0;
    EXPECT_EQ(itable16_alloc(t, val(1), &i), ENOMEM);
    remove16(t, 0x8123);
    EXPECT_EQ(alloc16(t), 0x8123u);
    EXPECT_EQ(itable16_destroy(t), 0x10000u);
}

TEST(Itable16, NullArguments)
{
    itable16 *t = itable16_create();
    uint16_t i = 1;
    EXPECT_EQ(itable16_insert(nullptr, val(1), &i), EINVAL);
    EXPECT_EQ(itable16_insert(t, val(1), nullptr), EINVAL);
    EXPECT_EQ(itable16_alloc(nullptr, val(1), &i), EINVAL);
    EXPECT_EQ(itable16_alloc(t, val(1), nullptr), EINVAL);
    EXPECT_EQ(itable16_lookup(nullptr, &i), nullptr);
    EXPECT_EQ(itable16_lookup(t, nullptr), nullptr);
    EXPECT_EQ(itable16_replace(t, nullptr, val(1)), nullptr);
    EXPECT_EQ(itable16_getnext(nullptr, nullptr, &i), nullptr);
    EXPECT_EQ(itable16_getnext(t, nullptr, nullptr), nullptr);
    itable16_remove(nullptr, &i);
    itable16_remove(t, nullptr);
    itable16_set_packed(nullptr, 1);
    itable16_set_maxindex(nullptr, 5);
    EXPECT_EQ(itable16_destroy(nullptr), 0u);
    EXPECT_EQ(itable16_destroy(t), 0u);
}

TEST(Itable16, HooksGetTheContextAndEveryArrayIsReleased)
{
    Heap heap;
    itable16 *t = itable16_create_ext(Heap::alloc, Heap::release, &heap);
    ASSERT_NE(t, nullptr);
    for (uint16_t i : {0, 1, 64, 4096, 0xFFFF}) insert16(t, i);
    EXPECT_EQ(heap.allocs, 1 + 3 + 4);  // the table, 3 middle arrays, 4 leaves
    EXPECT_EQ(itable16_destroy(t), 5u);
    EXPECT_EQ(heap.frees, heap.allocs);
    EXPECT_TRUE(heap.live.empty());
    EXPECT_EQ(itable16_create_ext(nullptr, Heap::release, &heap), nullptr);
    EXPECT_EQ(itable16_create_ext(Heap::alloc, nullptr, &heap), nullptr);
}

TEST(Itable16, MemoryFailuresLeaveTheTableAsItWas)
{
    Heap heap;
    heap.fail_after = 0;
    EXPECT_EQ(itable16_create_ext(Heap::alloc, Heap::release, &heap), nullptr);
    heap.fail_after = 2;  // the table and a middle array, no leaf
    itable16 *t = itable16_create_ext(Heap::alloc, Heap::release, &heap);
    EXPECT_EQ(insert16(t, 300), ENOMEM);
    const uint16_t i = 300;
    EXPECT_EQ(itable16_lookup(t, &i), nullptr);
    uint16_t out = 0;
    EXPECT_EQ(itable16_alloc(t, val(1), &out), ENOMEM);
    EXPECT_EQ(itable16_high_water(t), 0u);
    heap.fail_after = -1;
    EXPECT_EQ(insert16(t, 300), 0);
    EXPECT_EQ(alloc16(t), 301u);
    EXPECT_EQ(itable16_destroy(t), 2u);
    EXPECT_TRUE(heap.live.empty());
}

// --- itable32 ----------------------------------------------------------------

TEST(Itable32, BlocksAboveTheMaximumAreNeverMade)
{
    Heap heap;
    itable32 *t = itable32_create_ext(Heap::alloc, Heap::release, &heap);
    itable32_set_maxindex(t, 0x10);
    const int before = heap.allocs;
    const uint32_t i = 0x50000;
    EXPECT_EQ(itable32_replace(t, &i, val(1)), nullptr);
    EXPECT_EQ(heap.allocs, before);
    for (uint32_t want = 0; want <= 0x10; ++want) EXPECT_EQ(alloc32(t), want);
    uint32_t out = 0;
    EXPECT_EQ(itable32_alloc(t, val(1), &out), ENOMEM);
    EXPECT_EQ(itable32_destroy(t), 17u);
    EXPECT_TRUE(heap.live.empty());
}

TEST(Itable32, AllocationMovesToTheNextBlockWhenOneIsFull)
{
    itable32 *t = itable32_create();
    for (uint32_t want = 0; want < 0x10000; ++want) ASSERT_EQ(alloc32(t), want);
    EXPECT_EQ(alloc32(t), 0x10000u);
    remove32(t, 0x1234);
    EXPECT_EQ(alloc32(t), 0x10001u);  // unpacked: from the mark's block on
    itable32_set_packed(t, 1);
    EXPECT_EQ(alloc32(t), 0x1234u);  // packed: from block 0, lowest hole first
    EXPECT_EQ(itable32_destroy(t), 0x10002u);
}

TEST(Itable32, RemovingTheLastDropsEmptySubTablesBelowIt)
{
    Heap heap;
    itable32 *t = itable32_create_ext(Heap::alloc, Heap::release, &heap);
    insert32(t, 5);
    insert32(t, 0x10000);
    insert32(t, 0x30000);
    const int frees = heap.frees;
    remove32(t, 0x30000);  // block 3 is now empty and goes
    EXPECT_GT(heap.frees, frees);
    EXPECT_EQ(walk32(t), (std::vector<uint32_t>{5, 0x10000}));
    EXPECT_EQ(alloc32(t), 0x10001u);  // the mark moved to block 1's
    EXPECT_EQ(itable32_destroy(t), 3u);
    EXPECT_TRUE(heap.live.empty());
}

TEST(Itable32, MemoryFailures)
{
    Heap heap;
    heap.fail_after = 1;  // the record, not its top table
    EXPECT_EQ(itable32_create_ext(Heap::alloc, Heap::release, &heap), nullptr);
    EXPECT_TRUE(heap.live.empty());
    heap.fail_after = -1;
    itable32 *t = itable32_create_ext(Heap::alloc, Heap::release, &heap);
    heap.fail_after = 0;
    EXPECT_EQ(insert32(t, 0x70000), ENOMEM);
    uint32_t out = 0;
    EXPECT_EQ(itable32_alloc(t, val(1), &out), ENOMEM);
    heap.fail_after = 1;  // the sub-table, not the top table's arrays for it
    EXPECT_EQ(insert32(t, 0x70000), ENOMEM);
    EXPECT_EQ(heap.live.size(), 2u);  // the record and its top table
    heap.fail_after = -1;
    EXPECT_EQ(insert32(t, 0x70000), 0);
    EXPECT_EQ(itable32_destroy(t), 1u);
    EXPECT_TRUE(heap.live.empty());
    EXPECT_EQ(itable32_create_ext(Heap::alloc, nullptr, &heap), nullptr);
}

TEST(Itable32, NullArgumentsAndZeroValues)
{
    itable32 *t = itable32_create();
    uint32_t i = 1;
    EXPECT_EQ(itable32_insert(nullptr, val(1), &i), EINVAL);
    EXPECT_EQ(itable32_insert(t, nullptr, &i), EINVAL);
    EXPECT_EQ(itable32_alloc(t, nullptr, &i), EINVAL);
    EXPECT_EQ(itable32_lookup(t, nullptr), nullptr);
    EXPECT_EQ(itable32_getnext(t, nullptr, nullptr), nullptr);
    itable32_remove(t, nullptr);
    itable32_set_packed(nullptr, 1);
    itable32_set_maxindex(nullptr, 1);
    EXPECT_EQ(walk32(t), std::vector<uint32_t>{});
    EXPECT_EQ(itable32_destroy(nullptr), 0u);
    EXPECT_EQ(itable32_destroy(t), 0u);
}

}  // namespace
