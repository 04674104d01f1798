// Shared between the peer, dependency and export code of gencfg objects.
#ifndef LIBTARN_GENCFG_GENCFG_INTERNAL_H
#define LIBTARN_GENCFG_GENCFG_INTERNAL_H

#include <cstdint>

#include <tarn/rtslib_gencfg.h>

namespace tarn::gencfg {

// A dependency list is one block: the pointer array the object points at
// comes first, so the object's `deps` is the block itself.
struct DepBlock {
    gencfg_depinfo_t *slots[RTSLIB_GENCFG_DEP_ENTRIES];
    gencfg_depinfo_t entries[RTSLIB_GENCFG_DEP_ENTRIES];
    uint16_t used;
    uint8_t data[RTSLIB_GENCFG_DEP_DATA];
};

constexpr uint32_t round4(uint32_t n)
{
    return (n + 3u) & ~3u;
}

}  // namespace tarn::gencfg

#endif  // LIBTARN_GENCFG_GENCFG_INTERNAL_H
