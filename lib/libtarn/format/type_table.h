// The generated description tables behind <tarn/idl_types.h>. The generator
// writes them (lib/libtarn/idl/generated/idl_descriptions.cc) as compact
// read-only arrays: names in one string pool addressed by offset, types and
// fields by 16-bit index, so that the tables need no load-time relocations.
#ifndef TARN_FORMAT_TYPE_TABLE_H
#define TARN_FORMAT_TYPE_TABLE_H

#include <cstdint>

#include <tarn/idl_types.h>

struct tarn_idl_type {
    uint32_t name;  // offset in kNames
    uint32_t size;  // sizeof the record on this host
    uint32_t first_field;
    uint32_t field_count;
};

namespace tarn::idl::desc {

inline constexpr uint16_t kNoType = 0xffff;

struct FieldDesc {
    uint32_t name;  // offset in kNames
    uint16_t offset;
    uint16_t count_offset;
    uint16_t type;      // nested or element type index, kNoType for the others
    uint16_t tag_kind;  // TLV tag in the low 13 bits, enum tarn_idl_kind above
};

inline constexpr unsigned kTagBits = 13;

struct ChoiceDesc {
    uint32_t name;  // offset in kNames
    uint32_t limit; // discriminants below this
    const uint16_t *members;  // type index per discriminant, kNoType where none
};

extern const char kNames[];
extern const tarn_idl_type kTypes[];
extern const uint32_t kTypeCount;
extern const FieldDesc kFields[];
extern const uint16_t kByName[];  // type indexes in name order
extern const ChoiceDesc kChoices[];
extern const uint32_t kChoiceCount;

}  // namespace tarn::idl::desc

#endif
