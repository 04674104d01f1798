// Lookups over the generated description tables.
#include <cerrno>
#include <cstring>

#include <tarn/idl_types.h>
#include <tarn/rtsock_wire.h>

#include "libtarn/format/type_table.h"

namespace desc = tarn::idl::desc;

namespace {

const char *name_at(uint32_t off) { return desc::kNames + off; }

const desc::ChoiceDesc *message_choice()
{
    // The envelope's choice: found once by name, so the tables need not
    // single it out.
    static const desc::ChoiceDesc *const choice = [] {
        for (uint32_t i = 0; i < desc::kChoiceCount; ++i)
            if (std::strcmp(name_at(desc::kChoices[i].name), "rts_msg") == 0)
                return &desc::kChoices[i];
        return static_cast<const desc::ChoiceDesc *>(nullptr);
    }();
    return choice;
}

const tarn_idl_type *type_or_null(uint16_t index)
{
    return index < desc::kTypeCount ? &desc::kTypes[index] : nullptr;
}

}  // namespace

extern "C" {

uint32_t tarn_idl_type_count(void) { return desc::kTypeCount; }

const tarn_idl_type *tarn_idl_type_at(uint32_t index)
{
    return index < desc::kTypeCount ? &desc::kTypes[index] : nullptr;
}

const tarn_idl_type *tarn_idl_type_by_name(const char *name)
{
    if (!name) return nullptr;
    uint32_t lo = 0, hi = desc::kTypeCount;
    while (lo < hi) {
        uint32_t mid = lo + (hi - lo) / 2;
        const tarn_idl_type &t = desc::kTypes[desc::kByName[mid]];
        int c = std::strcmp(name, name_at(t.name));
        if (c == 0) return &t;
        if (c < 0)
            hi = mid;
        else
            lo = mid + 1;
    }
    return nullptr;
}

const tarn_idl_type *tarn_idl_type_for_msg(uint32_t msg_type)
{
    const desc::ChoiceDesc *c = message_choice();
    if (!c || msg_type >= c->limit) return nullptr;
    return type_or_null(c->members[msg_type]);
}

const char *tarn_idl_type_name(const tarn_idl_type *type)
{
    return type ? name_at(type->name) : nullptr;
}

uint32_t tarn_idl_type_size(const tarn_idl_type *type) { return type ? type->size : 0; }

uint32_t tarn_idl_type_field_count(const tarn_idl_type *type)
{
    return type ? type->field_count : 0;
}

int tarn_idl_type_field(const tarn_idl_type *type, uint32_t i, tarn_idl_field *out)
{
    if (!type || !out || i >= type->field_count) return EINVAL;
    const desc::FieldDesc &f = desc::kFields[type->first_field + i];
    out->name = name_at(f.name);
    out->kind = f.tag_kind >> desc::kTagBits;
    out->offset = f.offset;
    out->count_offset = f.count_offset;
    out->tag = f.tag_kind & ((1u << desc::kTagBits) - 1);
    out->type = f.type == desc::kNoType ? nullptr : type_or_null(f.type);
    switch (out->kind) {
    case TARN_IDL_KIND_U8: out->size = 1; break;
    case TARN_IDL_KIND_U16: out->size = 2; break;
    case TARN_IDL_KIND_U32: out->size = 4; break;
    case TARN_IDL_KIND_U64: out->size = 8; break;
    case TARN_IDL_KIND_RECORD: out->size = out->type ? out->type->size : 0; break;
    default: out->size = sizeof(void *); break;
    }
    return 0;
}

}  // extern "C"
