// tarn_idl_walk: the descriptions applied to a record. Depth is bounded by
// the descriptions themselves (the generator refuses nesting cycles).
#include <cerrno>
#include <cstring>

#include <tarn/idl_types.h>

namespace {

template <typename T>
T load(const uint8_t *p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

int walk(const tarn_idl_type *type, const uint8_t *rec, uint32_t depth, tarn_idl_visit_fn fn,
         void *ctx)
{
    tarn_idl_field f;
    for (uint32_t i = 0; tarn_idl_type_field(type, i, &f) == 0; ++i) {
        tarn_idl_value v{};
        v.field = &f;
        v.depth = depth;
        const uint8_t *at = rec + f.offset;
        int rc = 0;
        switch (f.kind) {
        case TARN_IDL_KIND_U8: v.scalar = *at; break;
        case TARN_IDL_KIND_U16: v.scalar = load<uint16_t>(at); break;
        case TARN_IDL_KIND_U32: v.scalar = load<uint32_t>(at); break;
        case TARN_IDL_KIND_U64: v.scalar = load<uint64_t>(at); break;
        case TARN_IDL_KIND_BYTES:
            v.bytes = load<const uint8_t *>(at);
            v.length = v.bytes ? load<uint32_t>(rec + f.count_offset) : 0;
            break;
        case TARN_IDL_KIND_RECORD:
            v.record = at;
            if ((rc = fn(ctx, TARN_IDL_VISIT_BEGIN, &v)) ||
                (rc = walk(f.type, at, depth + 1, fn, ctx)) ||
                (rc = fn(ctx, TARN_IDL_VISIT_END, &v)))
                return rc;
            continue;
        default: {
            auto elems = load<const void *const *>(at);
            v.count = elems ? load<uint32_t>(rec + f.count_offset) : 0;
            if ((rc = fn(ctx, TARN_IDL_VISIT_BEGIN, &v))) return rc;
            for (uint32_t k = 0; k < v.count; ++k) {
                tarn_idl_value e = v;
                e.element = 1;
                e.index = k;
                e.record = elems[k];
                if ((rc = fn(ctx, TARN_IDL_VISIT_BEGIN, &e)) ||
                    (e.record &&
                     (rc = walk(f.type, static_cast<const uint8_t *>(e.record), depth + 1, fn, ctx))) ||
                    (rc = fn(ctx, TARN_IDL_VISIT_END, &e)))
                    return rc;
            }
            if ((rc = fn(ctx, TARN_IDL_VISIT_END, &v))) return rc;
            continue;
        }
        }
        if ((rc = fn(ctx, TARN_IDL_VISIT_VALUE, &v))) return rc;
    }
    return 0;
}

}  // namespace

extern "C" int tarn_idl_walk(const tarn_idl_type *type, const void *record, tarn_idl_visit_fn fn,
                             void *ctx)
{
    if (!type || !record || !fn) return EINVAL;
    return walk(type, static_cast<const uint8_t *>(record), 0, fn, ctx);
}
