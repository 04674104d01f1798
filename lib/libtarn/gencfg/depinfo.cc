#include <cstdlib>
#include <cstring>
#include <new>

#include "libtarn/gencfg/gencfg_internal.h"

using tarn::gencfg::DepBlock;

extern "C" {

int rtslib_gencfg_create_depend(gencfg_msg_t *g)
{
    if (g == nullptr) return -1;
    void *mem = std::calloc(1, sizeof(DepBlock));
    if (mem == nullptr) {
        rtslib_err(nullptr, RTSLIB_LOG_ERROR, "Failed to allocate memory for gencfg_depinfo_t\n");
        g->deps = nullptr;
        return -1;
    }
    auto *block = new (mem) DepBlock{};
    g->deps = block->slots;
    g->deps_count = 0;
    g->flags |= RTSLIB_GENCFG_F_DEPS;
    return 0;
}

int rtslib_gencfg_add_depinfo(gencfg_msg_t *g, uint8_t dep_type, uint16_t value1, uint16_t value2,
                              uint32_t length, const void *data, uint8_t value0)
{
    if (g == nullptr || length == 0 || data == nullptr || dep_type > RTSLIB_GENCFG_DEP_TYPE_MAX ||
        g->deps == nullptr || g->deps_count >= RTSLIB_GENCFG_DEP_ENTRIES)
        return -1;
    auto *block = reinterpret_cast<DepBlock *>(g->deps);
    // The bytes themselves must fit; their padding to a word may run past
    // the area's end, which then takes nothing more. (Widened so a length
    // near 4 GiB cannot wrap the check.)
    if (block->used + static_cast<uint64_t>(length) > RTSLIB_GENCFG_DEP_DATA) return -1;
    const uint32_t need = tarn::gencfg::round4(length);
    gencfg_depinfo_t &e = block->entries[g->deps_count];
    e = gencfg_depinfo_t{};
    e.value0 = value0;
    e.dep_type = dep_type;
    e.value1 = value1;
    e.value2 = value2;
    e.data = block->data + block->used;
    e.data_len = length;
    std::memcpy(e.data, data, length);
    block->used = static_cast<uint16_t>(block->used + need);
    block->slots[g->deps_count++] = &e;
    return 0;
}

void rtslib_gencfg_delete_depend(gencfg_msg_t *g)
{
    if (g == nullptr) return;
    std::free(g->deps);
    g->deps = nullptr;
    g->deps_count = 0;
}

}  // extern "C"
