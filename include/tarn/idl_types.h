/*
 * libtarn - run-time descriptions of the IDL records.
 *
 * Every record of <tarn/idl_records.h> has a description made by the same
 * generator that makes its codecs: its name, its in-memory size on this host
 * and its fields in declaration order, each with name, kind, offset, size and,
 * for byte strings and arrays, where the count lives. A tool walks any decoded
 * record with these, without code of its own per type.
 *
 * Ownership: descriptions are read-only data of the library; nothing is
 * allocated or freed.
 * NULL: lookups return NULL for an unknown name or type; the accessors take
 * NULL and return 0 / NULL / EINVAL.
 * Threads: no state; safe from any thread.
 */
#ifndef TARN_IDL_TYPES_H
#define TARN_IDL_TYPES_H

#include <tarn/common.h>

TARN_BEGIN_DECLS

/* One record type's description (opaque). */
typedef struct tarn_idl_type tarn_idl_type;

/* Field kinds, as the records hold them. */
enum tarn_idl_kind {
    TARN_IDL_KIND_U8 = 0,
    TARN_IDL_KIND_U16 = 1,
    TARN_IDL_KIND_U32 = 2,
    TARN_IDL_KIND_U64 = 3,
    TARN_IDL_KIND_BYTES = 4,  /* uint8_t * at offset, uint32_t length at count_offset */
    TARN_IDL_KIND_RECORD = 5, /* nested record of type `type`, held inline */
    TARN_IDL_KIND_ARRAY = 6   /* `type` **elements at offset, uint32_t count at count_offset */
};

/* One field, filled by tarn_idl_type_field. */
typedef struct tarn_idl_field {
    const char *name;
    uint32_t kind;         /* enum tarn_idl_kind */
    uint32_t offset;       /* of the member in the record, on this host */
    uint32_t size;         /* of the member: scalar width, pointer size, nested record size */
    uint32_t count_offset; /* BYTES and ARRAY: offset of the uint32_t count; else 0 */
    uint32_t tag;          /* TLV tag */
    const tarn_idl_type *type; /* RECORD and ARRAY: the nested/element type; else NULL */
} tarn_idl_field;

/* Number of described types, and the type at index 0 .. count - 1 (NULL
 * beyond). Indexes follow the description files; they are not stable across
 * versions of the library. */
TARN_API uint32_t tarn_idl_type_count(void);
TARN_API const tarn_idl_type *tarn_idl_type_at(uint32_t index);

/* The type of that name, e.g. "ifdev_msg"; NULL when there is none. */
TARN_API const tarn_idl_type *tarn_idl_type_by_name(const char *name);

/* The record a decoded message of this type is (the member of the envelope
 * choice for that message type); NULL for types the library handles as raw
 * messages and for numbers beyond the last type. */
TARN_API const tarn_idl_type *tarn_idl_type_for_msg(uint32_t msg_type);

TARN_API const char *tarn_idl_type_name(const tarn_idl_type *type);
TARN_API uint32_t tarn_idl_type_size(const tarn_idl_type *type);
TARN_API uint32_t tarn_idl_type_field_count(const tarn_idl_type *type);

/* Fills *out with field i of type: 0, or EINVAL for a null argument or an
 * index beyond the last field. */
TARN_API int tarn_idl_type_field(const tarn_idl_type *type, uint32_t i, tarn_idl_field *out);

/* --- Walking a record ------------------------------------------------------
 * tarn_idl_walk visits a record's fields in declaration order, depth first,
 * so that a tool can print any record (as text, JSON, ...) without code per
 * type. Events:
 *  VALUE  a scalar (value->scalar) or byte string (value->bytes, ->length);
 *  BEGIN / END around a nested record (value->record), around an array
 *         (value->count elements) and around each of its elements
 *         (value->element set, ->index, ->record; NULL for a null element).
 * The walk follows the record's own pointers and counts, so it is only as
 * safe as the record: use it on records from the library's decoders or built
 * consistently. A non-zero result of the visitor stops the walk and is
 * returned; otherwise 0, or EINVAL for a null type, record or visitor. */
enum tarn_idl_visit {
    TARN_IDL_VISIT_VALUE = 0,
    TARN_IDL_VISIT_BEGIN = 1,
    TARN_IDL_VISIT_END = 2
};

typedef struct tarn_idl_value {
    const tarn_idl_field *field;
    uint32_t depth;        /* 0 for the walked record's own fields */
    uint32_t element;      /* 1 for an array element's BEGIN / END */
    uint32_t index;        /* the element's index */
    uint32_t count;        /* an array's element count */
    uint64_t scalar;
    const uint8_t *bytes;
    uint32_t length;
    const void *record;    /* nested record or element */
} tarn_idl_value;

typedef int (*tarn_idl_visit_fn)(void *ctx, int event, const tarn_idl_value *value);

TARN_API int tarn_idl_walk(const tarn_idl_type *type, const void *record, tarn_idl_visit_fn fn,
                           void *ctx);

TARN_END_DECLS

#endif /* TARN_IDL_TYPES_H */
