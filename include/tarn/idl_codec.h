/*
 * libtarn - calling conventions shared by every generated codec.
 *
 * For every record type X (see <tarn/idl_records.h>, generated):
 *   uint32_t tlv_encode_X_0(const X_t *rec, const X_map_t *map, void *out, uint32_t out_len);
 *   int32_t  tlv_decode_X_0(X_t *rec, X_map_t *map, const void *in, uint32_t in_len,
 *                           tarn_idl_alloc_fn alloc, void *alloc_ctx);
 *   void     tlv_release_X_0(X_t *rec, X_map_t *map, tarn_idl_free_fn free_fn, void *free_ctx);
 *   uint32_t idr_encode_X_0(const X_t *rec, void *out, uint32_t out_len);
 *   int32_t  idr_decode_X_0(X_t *rec, const void *in, uint32_t in_len,
 *                           tarn_idl_alloc_fn alloc, void *alloc_ctx);
 *   void     idr_release_X_0(X_t *rec, tarn_idl_free_fn free_fn, void *free_ctx);
 *   extern const uint32_t tlv_rtti_sizeof_X_0, tlv_rtti_sizeof_map_X_0, idr_rtti_sizeof_X_0;
 *
 * Ownership: encoders never write past out_len and return the size the whole
 * encoding needs (a result above out_len means "incomplete; allocate that
 * much and encode again"); out may be NULL with out_len 0 to ask for the size.
 * Decoders zero rec (and map when given) and fill them; every pointer they
 * store came from alloc(size, alloc_ctx), which may be NULL for types without
 * byte strings or arrays. The caller owns rec and map and gives the blocks
 * back with the matching release, which never frees rec itself. Release must
 * also be called after a failed decode: blocks obtained before the failure
 * stay in the record.
 *
 * Decoder results: >= 0 bytes consumed, or one of the TARN_IDL_E_* codes.
 * Threads: the functions keep no state; distinct records may be used from
 * distinct threads at once.
 */
#ifndef TARN_IDL_CODEC_H
#define TARN_IDL_CODEC_H

#include <tarn/common.h>

TARN_BEGIN_DECLS

/* The version of the codec runtime that generated code is written against. */
#define TARN_IDL_RUNTIME_VERSION 1

/* Returns size bytes, or NULL on failure. */
typedef void *(*tarn_idl_alloc_fn)(uint32_t size, void *ctx);
/* Gives back a block obtained from the matching allocator. */
typedef void (*tarn_idl_free_fn)(void *block, void *ctx);

/* Decoder result codes (names from rtslib_idl_result_name). */
#define TARN_IDL_E_BUFSIZE 0    /* "Invalid Buffer Size": an envelope that does not fit */
#define TARN_IDL_E_GARBLED (-1) /* "Garbled Message" */
#define TARN_IDL_E_ALLOC (-2)   /* "Allocation Failure" */
#define TARN_IDL_E_MAGIC (-3)   /* "Invalid Magic" */
#define TARN_IDL_E_CHOICE (-4)  /* "Invalid Choice" */
#define TARN_IDL_E_HOMOGENEOUS (-5) /* "HOMOGENEOUS" */

TARN_END_DECLS

#endif /* TARN_IDL_CODEC_H */
