#include <bit>
#include <cerrno>
#include <cstdlib>
#include <new>

#include <tarn/itable.h>

#include "libtarn/itable/itable_internal.h"

namespace tarn_itable {

constexpr uint32_t kIndexes = 0x10000;
constexpr uint32_t kLeafSlots = 64;                  // index & 63
constexpr uint32_t kLeaves = kIndexes / kLeafSlots;  // index >> 6
constexpr uint32_t kWords = kLeaves / 64;            // words of a per-leaf bitmap
constexpr int kNone = -1;

struct Leaf {
    void *slot[kLeafSlots];
};

struct Mid {
    Leaf *leaf[64];  // (index >> 6) & 63
};

}  // namespace tarn_itable

using namespace tarn_itable;

struct itable16 {
    uint32_t mark;       // one past the largest index in use
    uint32_t max_index;  // exclusive bound
    itable_alloc_fn alloc;
    itable_free_fn release;
    void *context;
    uint8_t packed;
    Mid *mid[16];  // index >> 12
    // Per-leaf summaries kept beside the arrays so that first-fit allocation,
    // removal of the last entry and iteration jump to the right leaf instead
    // of visiting every slot; they never change what the table answers.
    uint64_t open[kWords];  // the leaf exists and has an empty slot
    uint64_t busy[kWords];  // the leaf holds a value
    uint8_t used[kLeaves];  // values held by the leaf
};

namespace {

void set_bit(uint64_t *bits, uint32_t n, bool on)
{
    const uint64_t mask = uint64_t{1} << (n & 63);
    if (on)
        bits[n >> 6] |= mask;
    else
        bits[n >> 6] &= ~mask;
}

// Lowest set bit at or above `from`, or kNone.
int first_bit_from(const uint64_t *bits, uint32_t from)
{
    for (uint32_t w = from >> 6; w < kWords; ++w) {
        uint64_t word = bits[w];
        if (w == from >> 6) word &= ~uint64_t{0} << (from & 63);
        if (word != 0) return static_cast<int>(w * 64 + std::countr_zero(word));
    }
    return kNone;
}

// Highest set bit at or below `from`, or kNone.
int last_bit_upto(const uint64_t *bits, uint32_t from)
{
    for (int w = static_cast<int>(from >> 6); w >= 0; --w) {
        uint64_t word = bits[w];
        if (w == static_cast<int>(from >> 6)) word &= ~uint64_t{0} >> (63 - (from & 63));
        if (word != 0) return w * 64 + 63 - std::countl_zero(word);
    }
    return kNone;
}

Leaf *leaf_of(const itable16 *t, uint32_t index)
{
    const Mid *mid = t->mid[index >> 12];
    return mid ? mid->leaf[(index >> 6) & 63] : nullptr;
}

template <typename T>
T *make_zeroed(itable16 *t)
{
    void *mem = t->alloc(t->context, sizeof(T));
    return mem ? new (mem) T{} : nullptr;
}

Leaf *leaf_for_store(itable16 *t, uint32_t index)
{
    Mid *&mid = t->mid[index >> 12];
    if (mid == nullptr) mid = make_zeroed<Mid>(t);
    if (mid == nullptr) return nullptr;
    Leaf *&leaf = mid->leaf[(index >> 6) & 63];
    if (leaf != nullptr) return leaf;
    leaf = make_zeroed<Leaf>(t);
    if (leaf != nullptr) set_bit(t->open, index >> 6, true);
    return leaf;
}

// Every write of a slot goes through here so that the summaries stay exact.
void *store(itable16 *t, Leaf *leaf, uint32_t index, void *value)
{
    void *&slot = leaf->slot[index & 63];
    void *old = slot;
    slot = value;
    const uint32_t n = index >> 6;
    t->used[n] = static_cast<uint8_t>(t->used[n] + (value != nullptr) - (old != nullptr));
    set_bit(t->open, n, t->used[n] < kLeafSlots);
    set_bit(t->busy, n, t->used[n] != 0);
    return old;
}

// Lowest occupied index at or above `from`, or kNone.
int first_used_from(const itable16 *t, uint32_t from)
{
    for (int n = first_bit_from(t->busy, from >> 6); n != kNone;
         n = first_bit_from(t->busy, static_cast<uint32_t>(n) + 1)) {
        const Leaf *leaf = leaf_of(t, static_cast<uint32_t>(n) << 6);
        const uint32_t begin = static_cast<uint32_t>(n) == from >> 6 ? from & 63 : 0;
        for (uint32_t s = begin; s < kLeafSlots; ++s)
            if (leaf->slot[s] != nullptr) return n * 64 + static_cast<int>(s);
    }
    return kNone;
}

// Highest occupied index at or below `from`, or kNone.
int last_used_upto(const itable16 *t, uint32_t from)
{
    for (int n = last_bit_upto(t->busy, from >> 6); n != kNone;
         n = n == 0 ? kNone : last_bit_upto(t->busy, static_cast<uint32_t>(n) - 1)) {
        const Leaf *leaf = leaf_of(t, static_cast<uint32_t>(n) << 6);
        const int end = static_cast<uint32_t>(n) == from >> 6 ? static_cast<int>(from & 63) : 63;
        for (int s = end; s >= 0; --s)
            if (leaf->slot[s] != nullptr) return n * 64 + s;
    }
    return kNone;
}

// Lowest empty slot of the existing leaf arrays, or kNone.
int first_empty(const itable16 *t)
{
    const int n = first_bit_from(t->open, 0);
    if (n == kNone) return kNone;
    const Leaf *leaf = leaf_of(t, static_cast<uint32_t>(n) << 6);
    int s = 0;
    while (leaf->slot[s] != nullptr) ++s;
    return n * 64 + s;
}

int alloc_append(itable16 *t, void *value, uint16_t *index)
{
    if (t->mark >= t->max_index) return ENOMEM;
    Leaf *leaf = leaf_for_store(t, t->mark);
    if (leaf == nullptr) return ENOMEM;
    store(t, leaf, t->mark, value);
    *index = static_cast<uint16_t>(t->mark++);
    return 0;
}

int alloc_first_fit(itable16 *t, void *value, uint16_t *index)
{
    const int i = first_empty(t);
    if (i == kNone || static_cast<uint32_t>(i) >= t->mark) return ENOMEM;
    store(t, leaf_of(t, static_cast<uint32_t>(i)), static_cast<uint32_t>(i), value);
    *index = static_cast<uint16_t>(i);
    return 0;
}

}  // namespace

uint32_t itable16_high_water(const itable16 *table)
{
    return table->mark;
}

void *itable16_last_at_or_below(const itable16 *table, uint16_t from, uint16_t *found)
{
    const int i = last_used_upto(table, from);
    if (i == kNone) return nullptr;
    *found = static_cast<uint16_t>(i);
    return leaf_of(table, *found)->slot[*found & 63];
}

extern "C" void *itable_def_alloc(void *, size_t size)
{
    return std::malloc(size);
}

extern "C" void itable_def_free(void *, void *ptr)
{
    std::free(ptr);
}

extern "C" itable16 *itable16_create(void)
{
    return itable16_create_ext(itable_def_alloc, itable_def_free, nullptr);
}

extern "C" itable16 *itable16_create_ext(itable_alloc_fn alloc, itable_free_fn release,
                                         void *context)
{
    if (alloc == nullptr || release == nullptr) return nullptr;
    void *mem = alloc(context, sizeof(itable16));
    if (mem == nullptr) return nullptr;
    auto *t = new (mem) itable16{};
    t->max_index = kIndexes;
    t->alloc = alloc;
    t->release = release;
    t->context = context;
    return t;
}

extern "C" void itable16_set_maxindex(itable16 *table, uint32_t n)
{
    if (table == nullptr || n < 1 || n > kIndexes) return;
    table->max_index = n;
}

extern "C" void itable16_set_packed(itable16 *table, int flag)
{
    if (table == nullptr) return;
    table->packed = flag != 0;
}

extern "C" int itable16_insert(itable16 *table, void *value, const uint16_t *index)
{
    if (table == nullptr || index == nullptr || value == nullptr) return EINVAL;
    const uint32_t i = *index;
    if (i >= table->max_index) return ITABLE_OUT_OF_BOUNDS;
    Leaf *leaf = leaf_for_store(table, i);
    if (leaf == nullptr) return ENOMEM;
    store(table, leaf, i, value);
    if (i >= table->mark) table->mark = i + 1;
    return 0;
}

extern "C" void *itable16_lookup(const itable16 *table, const uint16_t *index)
{
    if (table == nullptr || index == nullptr) return nullptr;
    const Leaf *leaf = leaf_of(table, *index);
    return leaf ? leaf->slot[*index & 63] : nullptr;
}

extern "C" void *itable16_replace(itable16 *table, const uint16_t *index, void *value)
{
    if (table == nullptr || index == nullptr || *index >= table->mark) return nullptr;
    Leaf *leaf = leaf_of(table, *index);
    return leaf ? store(table, leaf, *index, value) : nullptr;
}

extern "C" void itable16_remove(itable16 *table, const uint16_t *index)
{
    if (table == nullptr || index == nullptr) return;
    const uint32_t i = *index;
    Leaf *leaf = leaf_of(table, i);
    if (leaf != nullptr) store(table, leaf, i, nullptr);
    if (i + 1 != table->mark) return;
    const int last = i == 0 ? kNone : last_used_upto(table, i - 1);
    table->mark = static_cast<uint32_t>(last + 1);
}

extern "C" void *itable16_getnext(const itable16 *table, const uint16_t *index, uint16_t *next)
{
    if (table == nullptr || next == nullptr) return nullptr;
    uint32_t from = 0;
    if (index != nullptr) {
        from = *index + 1u;
        if (from >= table->mark) return nullptr;
    }
    const int i = first_used_from(table, from);
    if (i == kNone) return nullptr;
    *next = static_cast<uint16_t>(i);
    return leaf_of(table, *next)->slot[*next & 63];
}

extern "C" int itable16_alloc(itable16 *table, void *value, uint16_t *index)
{
    if (table == nullptr || index == nullptr || value == nullptr) return EINVAL;
    if (table->packed) {
        if (alloc_first_fit(table, value, index) == 0) return 0;
        return alloc_append(table, value, index);
    }
    if (alloc_append(table, value, index) == 0) return 0;
    return alloc_first_fit(table, value, index);
}

extern "C" uint32_t itable16_destroy(itable16 *table)
{
    if (table == nullptr) return 0;
    uint32_t count = 0;
    for (uint8_t n : table->used) count += n;
    for (Mid *mid : table->mid) {
        if (mid == nullptr) continue;
        for (Leaf *leaf : mid->leaf)
            if (leaf != nullptr) table->release(table->context, leaf);
        table->release(table->context, mid);
    }
    table->release(table->context, table);
    return count;
}
