// Per-type metadata that the generator emits for the tests: field kinds,
// offsets in the record and the map, and untyped entry points. It drives the
// generic round-trip tests, the independent TLV walker and the fuzz targets.
#ifndef TARN_TESTS_IDL_META_H
#define TARN_TESTS_IDL_META_H

#include <cstddef>
#include <cstdint>

#include <tarn/idl_codec.h>

namespace tarn::test::idlmeta {

enum class FieldKind { U8, U16, U32, U64, Bytes, Record, Array };

struct Field {
    FieldKind kind;
    const char *name;
    uint32_t tag;
    uint32_t bit;
    std::size_t offset;        // in the record
    std::size_t count_offset;  // Bytes and Array: the count field
    std::size_t map_offset;    // Record: embedded map; Array: element-map pointer
    int sub;                   // Record and Array: index in types[]
};

struct Type {
    const char *name;
    const char *family;
    std::size_t size, map_size;             // this build's
    uint32_t target_size, target_map_size;  // the target ABI's, computed by the generator
    const Field *fields;
    uint32_t field_count;
    uint32_t (*tlv_encode)(const void *rec, const void *map, void *out, uint32_t out_len);
    int32_t (*tlv_decode)(void *rec, void *map, const void *in, uint32_t in_len,
                          tarn_idl_alloc_fn alloc, void *ctx);
    void (*tlv_release)(void *rec, void *map, tarn_idl_free_fn free_fn, void *ctx);
    const uint32_t *tlv_sizeof, *tlv_sizeof_map;
    uint32_t (*idr_encode)(const void *rec, void *out, uint32_t out_len);
    int32_t (*idr_decode)(void *rec, const void *in, uint32_t in_len, tarn_idl_alloc_fn alloc,
                          void *ctx);
    void (*idr_release)(void *rec, tarn_idl_free_fn free_fn, void *ctx);
    const uint32_t *idr_sizeof;
};

extern const Type types[];
extern const std::size_t type_count;

// The members of every choice: discriminant and member type.
struct ChoiceEntry {
    const char *choice;
    uint32_t discriminant;
    std::size_t type;  // index in types[]
};
extern const ChoiceEntry choice_members[];
extern const std::size_t choice_member_count;

const Type *find_type(const char *name);

}  // namespace tarn::test::idlmeta

#endif
