#include <bit>
#include <cerrno>
#include <cstdlib>
#include <new>

#include <tarn/itable.h>

#include "libtarn/itable/itable_internal.h"

namespace {

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

}  // namespace

struct itable16 {
    uint32_t mark;       // one past the largest index in use
    uint32_t max_index;  // exclusive bound
    itable_alloc_fn alloc;
    itable_free_fn release;
    void *context;
    uint8_t packed;
    Mid *mid[16];  // index >> 12
    // Occupancy kept beside the arrays, one bit per slot and per leaf, so that
    // first-fit allocation, removal of the last entry and iteration go
    // straight to the slot they want instead of visiting slots one by one.
    // It never changes what the table answers.
    uint64_t filled[kLeaves];  // bit s of word n: slot (n << 6) | s holds a value
    uint64_t open[kWords];     // bit n: leaf n exists and has an empty slot
    uint64_t busy[kWords];     // bit n: leaf n holds a value
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

// Every write of a slot goes through here so that the occupancy stays exact.
// The slot is only written, never read: a removal need not wait for it.
void store(itable16 *t, Leaf *leaf, uint32_t index, void *value)
{
    leaf->slot[index & 63] = value;
    const uint32_t n = index >> 6;
    uint64_t &bits = t->filled[n];
    const uint64_t mask = uint64_t{1} << (index & 63);
    bits = value != nullptr ? bits | mask : bits & ~mask;
    set_bit(t->open, n, bits != ~uint64_t{0});
    set_bit(t->busy, n, bits != 0);
}

// Lowest occupied index at or above `from`, or kNone.
int first_used_from(const itable16 *t, uint32_t from)
{
    const uint32_t n = from >> 6;
    const uint64_t here = t->filled[n] & (~uint64_t{0} << (from & 63));
    if (here != 0) return static_cast<int>(n * 64 + std::countr_zero(here));
    if (n + 1 == kLeaves) return kNone;
    const int next = first_bit_from(t->busy, n + 1);
    if (next == kNone) return kNone;
    return next * 64 + std::countr_zero(t->filled[next]);
}

// Highest occupied index at or below `from`, or kNone.
int last_used_upto(const itable16 *t, uint32_t from)
{
    const uint32_t n = from >> 6;
    const uint64_t here = t->filled[n] & (~uint64_t{0} >> (63 - (from & 63)));
    if (here != 0) return static_cast<int>(n * 64 + 63 - std::countl_zero(here));
    if (n == 0) return kNone;
    const int prev = last_bit_upto(t->busy, n - 1);
    if (prev == kNone) return kNone;
    return prev * 64 + 63 - std::countl_zero(t->filled[prev]);
}

// Lowest empty slot of the existing leaf arrays, or kNone.
int first_empty(const itable16 *t)
{
    const int n = first_bit_from(t->open, 0);
    if (n == kNone) return kNone;
    return n * 64 + std::countr_zero(~t->filled[n]);
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
    if (leaf == nullptr) return nullptr;
    void *old = leaf->slot[*index & 63];
    store(table, leaf, *index, value);
    return old;
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
    for (uint64_t bits : table->filled) count += static_cast<uint32_t>(std::popcount(bits));
    for (Mid *mid : table->mid) {
        if (mid == nullptr) continue;
        for (Leaf *leaf : mid->leaf)
            if (leaf != nullptr) table->release(table->context, leaf);
        table->release(table->context, mid);
    }
    table->release(table->context, table);
    return count;
}
