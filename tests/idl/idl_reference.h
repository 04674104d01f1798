// The field-by-field codecs of every type, generated beside the library's
// (which copy runs of fields as blocks where the layouts allow): one entry
// per type in idlmeta::types order, null where the type lacks the encoding.
#ifndef TARN_TESTS_IDL_REFERENCE_H
#define TARN_TESTS_IDL_REFERENCE_H

#include <cstdint>

#include <tarn/idl_codec.h>

namespace tarn::test::idlref {

struct Codecs {
    uint32_t (*tlv_encode)(const void *rec, const void *map, void *out, uint32_t out_len);
    int32_t (*tlv_decode)(void *rec, void *map, const void *in, uint32_t in_len,
                          tarn_idl_alloc_fn alloc, void *ctx);
    uint32_t (*idr_encode)(const void *rec, void *out, uint32_t out_len);
    int32_t (*idr_decode)(void *rec, const void *in, uint32_t in_len, tarn_idl_alloc_fn alloc,
                          void *ctx);
};

extern const Codecs codecs[];

}  // namespace tarn::test::idlref

#endif
