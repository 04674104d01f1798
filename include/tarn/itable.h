/*
 * libtarn - index tables: sparse maps from small integer indexes to one-word
 * values, with allocation of free indexes. itable16 takes 16-bit indexes,
 * itable32 32-bit ones (a table of itable16 sub-tables, one per block of
 * 65,536 indexes).
 *
 * Values: a stored value must be non-zero; 0 (NULL) marks an empty slot, so
 * insert and alloc refuse a NULL value with EINVAL. The tables never look at
 * or release the values.
 *
 * Ownership and memory: the caller owns a table from create to destroy. All
 * memory comes from the table's hooks (itable_def_alloc and itable_def_free,
 * malloc and free, unless given to *_create_ext), which must hand out blocks
 * suitably aligned for pointers.
 *
 * NULL: a NULL table or index pointer is never dereferenced; calls that
 * return a code give EINVAL for it, the others return 0 (or do nothing).
 *
 * Errors: only return codes, nothing is logged: 0 on success, 1 for an index
 * out of bounds, ENOMEM when memory or free indexes run out.
 *
 * Threads: none; a table belongs to one thread at a time.
 */
#ifndef TARN_ITABLE_H
#define TARN_ITABLE_H

#include <tarn/common.h>

TARN_BEGIN_DECLS

/* Result of insert for an index beyond the table's bound. */
#define ITABLE_OUT_OF_BOUNDS 1

typedef struct itable16 itable16;
typedef struct itable32 itable32;

typedef void *(*itable_alloc_fn)(void *context, size_t size);
typedef void (*itable_free_fn)(void *context, void *ptr);

/* The default hooks: malloc(size) and free(ptr); the context is ignored. */
TARN_API void *itable_def_alloc(void *context, size_t size);
TARN_API void itable_def_free(void *context, void *ptr);

/* --- itable16: indexes 0 .. maximum - 1, maximum 0x10000 unless set ------ */

/* A new empty table, NULL when memory fails (or a hook is NULL). */
TARN_API itable16 *itable16_create(void);
TARN_API itable16 *itable16_create_ext(itable_alloc_fn alloc, itable_free_fn release,
                                       void *context);
/* Sets the exclusive bound on indexes; ignored unless 1 <= n <= 0x10000.
 * Entries at or above it stay. */
TARN_API void itable16_set_maxindex(itable16 *table, uint32_t n);
/* Non-zero: alloc reuses the lowest free index before appending. */
TARN_API void itable16_set_packed(itable16 *table, int flag);
/* Stores value at *index, overwriting; 0, ITABLE_OUT_OF_BOUNDS, ENOMEM or
 * EINVAL. */
TARN_API int itable16_insert(itable16 *table, void *value, const uint16_t *index);
/* The value at *index or NULL. */
TARN_API void *itable16_lookup(const itable16 *table, const uint16_t *index);
/* Stores value at *index if that slot lies below the high-water mark in an
 * existing leaf array; returns the previous value, NULL when nothing was
 * stored. A NULL value empties the slot. */
TARN_API void *itable16_replace(itable16 *table, const uint16_t *index, void *value);
/* Empties the slot at *index. */
TARN_API void itable16_remove(itable16 *table, const uint16_t *index);
/* The first occupied slot after *index (from 0 inclusive when index is NULL):
 * its value, with its index in *next; NULL at the end. */
TARN_API void *itable16_getnext(const itable16 *table, const uint16_t *index, uint16_t *next);
/* Stores value in a free slot and puts its index in *index; 0, ENOMEM or
 * EINVAL. */
TARN_API int itable16_alloc(itable16 *table, void *value, uint16_t *index);
/* Releases the table; returns how many slots were occupied. */
TARN_API uint32_t itable16_destroy(itable16 *table);

/* --- itable32: indexes 0 .. maximum, maximum 0xFFFFFFFF unless set ------- */

TARN_API itable32 *itable32_create(void);
TARN_API itable32 *itable32_create_ext(itable_alloc_fn alloc, itable_free_fn release,
                                       void *context);
/* Sets the inclusive bound on indexes; ignored when n is 0. */
TARN_API void itable32_set_maxindex(itable32 *table, uint32_t n);
TARN_API void itable32_set_packed(itable32 *table, int flag);
TARN_API int itable32_insert(itable32 *table, void *value, const uint32_t *index);
TARN_API void *itable32_lookup(const itable32 *table, const uint32_t *index);
/* As itable16_replace inside the block's sub-table, which is made first when
 * missing. */
TARN_API void *itable32_replace(itable32 *table, const uint32_t *index, void *value);
TARN_API void itable32_remove(itable32 *table, const uint32_t *index);
TARN_API void *itable32_getnext(const itable32 *table, const uint32_t *index, uint32_t *next);
TARN_API int itable32_alloc(itable32 *table, void *value, uint32_t *index);
TARN_API uint32_t itable32_destroy(itable32 *table);

TARN_END_DECLS

#endif /* TARN_ITABLE_H */
