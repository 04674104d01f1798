#include <cerrno>
#include <new>

#include <tarn/itable.h>

#include "libtarn/itable/itable_internal.h"

// Indexes are split into a block (upper 16 bits), the index of a sub-table in
// the top table, and the index inside that sub-table (lower 16 bits).
struct itable32 {
    // Raised only by an index above it, so it need not be one past the
    // largest index in use; allocation starts from its block.
    uint32_t mark;
    uint32_t max_index;  // inclusive bound
    itable_alloc_fn alloc;
    itable_free_fn release;
    void *context;
    uint8_t packed;
    itable16 *top;  // block -> itable16 sub-table
};

namespace {

uint16_t block_of(uint32_t index)
{
    return static_cast<uint16_t>(index >> 16);
}

uint16_t low_of(uint32_t index)
{
    return static_cast<uint16_t>(index & 0xFFFF);
}

itable16 *sub_at(const itable32 *t, uint16_t block)
{
    return static_cast<itable16 *>(itable16_lookup(t->top, &block));
}

// The block's sub-table, made when missing; NULL above the maximum's block
// or when memory fails.
itable16 *sub_for_store(itable32 *t, uint16_t block)
{
    itable16 *sub = sub_at(t, block);
    if (sub != nullptr) return sub;
    if (block > block_of(t->max_index)) return nullptr;
    sub = itable16_create_ext(t->alloc, t->release, t->context);
    if (sub == nullptr) return nullptr;
    itable16_set_packed(sub, t->packed);
    if (block == block_of(t->max_index)) itable16_set_maxindex(sub, low_of(t->max_index) + 1u);
    if (itable16_insert(t->top, sub, &block) == 0) return sub;
    itable16_destroy(sub);
    return nullptr;
}

// Drops the empty sub-tables at and below `block` until one that holds
// something, which then gives the mark.
void lower_mark(itable32 *t, uint16_t block)
{
    t->mark = 0;
    uint16_t b = 0;
    for (auto *sub = static_cast<itable16 *>(itable16_last_at_or_below(t->top, block, &b));
         sub != nullptr;
         sub = b == 0 ? nullptr
                      : static_cast<itable16 *>(itable16_last_at_or_below(t->top, b - 1, &b))) {
        const uint32_t sub_mark = itable16_high_water(sub);
        if (sub_mark != 0) {
            t->mark = (uint32_t{b} << 16) | (sub_mark & 0xFFFF);
            return;
        }
        itable16_remove(t->top, &b);
        itable16_destroy(sub);
    }
}

int alloc_done(itable32 *t, uint16_t block, uint16_t low, uint32_t *index)
{
    const uint32_t i = (uint32_t{block} << 16) | low;
    if (i > t->mark) t->mark = i + 1;
    *index = i;
    return 0;
}

const itable16 *sub_after(const itable32 *t, uint16_t *block)
{
    const uint16_t after = *block;
    return static_cast<const itable16 *>(itable16_getnext(t->top, &after, block));
}

// The first value of block `block` after `low` (from its start when low is
// NULL), else the first of the blocks above.
void *next_from(const itable32 *t, uint16_t block, const uint16_t *low, uint32_t *next)
{
    const itable16 *sub = sub_at(t, block);
    if (sub == nullptr) {
        sub = sub_after(t, &block);
        low = nullptr;
    }
    while (sub != nullptr) {
        uint16_t found = 0;
        void *value = itable16_getnext(sub, low, &found);
        if (value != nullptr) {
            *next = (uint32_t{block} << 16) | found;
            return value;
        }
        low = nullptr;
        sub = sub_after(t, &block);
    }
    return nullptr;
}

}  // namespace

extern "C" itable32 *itable32_create(void)
{
    return itable32_create_ext(itable_def_alloc, itable_def_free, nullptr);
}

extern "C" itable32 *itable32_create_ext(itable_alloc_fn alloc, itable_free_fn release,
                                         void *context)
{
    if (alloc == nullptr || release == nullptr) return nullptr;
    void *mem = alloc(context, sizeof(itable32));
    if (mem == nullptr) return nullptr;
    auto *t = new (mem) itable32{};
    t->max_index = 0xFFFFFFFFu;
    t->alloc = alloc;
    t->release = release;
    t->context = context;
    t->top = itable16_create_ext(alloc, release, context);
    if (t->top != nullptr) return t;
    release(context, t);
    return nullptr;
}

extern "C" void itable32_set_maxindex(itable32 *table, uint32_t n)
{
    if (table == nullptr || n == 0) return;
    // The bound goes to the sub-table of the block that held the old maximum,
    // not the new one's. (Resetting that sub-table to a full block first, when
    // the old maximum was not the default, is overwritten by this at once.)
    itable16 *sub = sub_at(table, block_of(table->max_index));
    if (sub != nullptr) itable16_set_maxindex(sub, low_of(n) + 1u);
    table->max_index = n;
}

extern "C" void itable32_set_packed(itable32 *table, int flag)
{
    if (table == nullptr) return;
    const uint8_t packed = flag != 0;
    if (packed == table->packed) return;
    table->packed = packed;
    uint16_t block = 0;
    for (auto *sub = static_cast<itable16 *>(itable16_getnext(table->top, nullptr, &block));
         sub != nullptr;
         sub = static_cast<itable16 *>(itable16_getnext(table->top, &block, &block)))
        itable16_set_packed(sub, packed);
}

extern "C" int itable32_insert(itable32 *table, void *value, const uint32_t *index)
{
    if (table == nullptr || index == nullptr || value == nullptr) return EINVAL;
    const uint32_t i = *index;
    if (i > table->max_index) return ITABLE_OUT_OF_BOUNDS;
    itable16 *sub = sub_for_store(table, block_of(i));
    if (sub == nullptr) return ENOMEM;
    const uint16_t low = low_of(i);
    const int rc = itable16_insert(sub, value, &low);
    if (rc != 0) return rc;
    if (i > table->mark) table->mark = i + 1;
    return 0;
}

extern "C" void *itable32_lookup(const itable32 *table, const uint32_t *index)
{
    if (table == nullptr || index == nullptr) return nullptr;
    const itable16 *sub = sub_at(table, block_of(*index));
    if (sub == nullptr) return nullptr;
    const uint16_t low = low_of(*index);
    return itable16_lookup(sub, &low);
}

extern "C" void *itable32_replace(itable32 *table, const uint32_t *index, void *value)
{
    if (table == nullptr || index == nullptr) return nullptr;
    itable16 *sub = sub_for_store(table, block_of(*index));
    if (sub == nullptr) return nullptr;
    const uint16_t low = low_of(*index);
    return itable16_replace(sub, &low, value);
}

extern "C" void itable32_remove(itable32 *table, const uint32_t *index)
{
    if (table == nullptr || index == nullptr) return;
    const uint32_t i = *index;
    itable16 *sub = sub_at(table, block_of(i));
    const uint16_t low = low_of(i);
    if (sub != nullptr) itable16_remove(sub, &low);
    if (i + 1 == table->mark) lower_mark(table, block_of(i));
}

extern "C" void *itable32_getnext(const itable32 *table, const uint32_t *index, uint32_t *next)
{
    if (table == nullptr || next == nullptr) return nullptr;
    if (index != nullptr) {
        const uint16_t low = low_of(*index);
        return next_from(table, block_of(*index), &low, next);
    }
    uint16_t block = 0;
    if (itable16_getnext(table->top, nullptr, &block) == nullptr) return nullptr;
    return next_from(table, block, nullptr, next);
}

extern "C" int itable32_alloc(itable32 *table, void *value, uint32_t *index)
{
    if (table == nullptr || index == nullptr || value == nullptr) return EINVAL;
    const uint16_t start = table->packed ? 0 : block_of(table->mark);
    uint16_t block = start;
    uint16_t low = 0;
    // Existing sub-tables are tried in turn; the first block without one
    // gets a new sub-table, unless the walk came round to where it began.
    for (itable16 *sub = sub_at(table, block); sub != nullptr; sub = sub_at(table, block)) {
        if (itable16_alloc(sub, value, &low) == 0) return alloc_done(table, block, low, index);
        ++block;
        if (block == start) return ENOMEM;
    }
    itable16 *sub = sub_for_store(table, block);
    if (sub == nullptr || itable16_alloc(sub, value, &low) != 0) return ENOMEM;
    return alloc_done(table, block, low, index);
}

extern "C" uint32_t itable32_destroy(itable32 *table)
{
    if (table == nullptr) return 0;
    uint32_t count = 0;
    uint16_t block = 0;
    for (auto *sub = static_cast<itable16 *>(itable16_getnext(table->top, nullptr, &block));
         sub != nullptr;
         sub = static_cast<itable16 *>(itable16_getnext(table->top, &block, &block)))
        count += itable16_destroy(sub);
    itable16_destroy(table->top);
    table->release(table->context, table);
    return count;
}
