// What itable32 needs to know about its itable16 sub-tables beyond the public
// interface.
#ifndef LIBTARN_ITABLE_ITABLE_INTERNAL_H
#define LIBTARN_ITABLE_ITABLE_INTERNAL_H

#include <tarn/itable.h>

// One past the largest index in use, 0 for a table that holds nothing.
uint32_t itable16_high_water(const itable16 *table);

// The value of the highest occupied slot at or below `from`, with its index
// in *found; NULL when there is none.
void *itable16_last_at_or_below(const itable16 *table, uint16_t from, uint16_t *found);

#endif  // LIBTARN_ITABLE_ITABLE_INTERNAL_H
