/*
 * libtarn-compress - ready-made blob compression hooks for configuration
 * objects (rtslib_init_blob_compression). A separate library: libtarn only
 * calls the hooks, and a daemon links this one when it wants zlib or zstd.
 *
 * Every function has the rtslib_blob_hook_fn shape: out holds *out_len bytes
 * on entry; on success *out_len is the size produced. The compressed form is
 * the library's own stream (a zlib stream, a zstd frame), nothing around it;
 * sender and receiver must install the same pair.
 *
 * Errors: 0, ENOBUFS (the output does not fit in *out_len), EBADMSG (the
 *  input is not a valid stream, or is truncated), ENOMEM, EINVAL (null
 *  pointers). *out_len is unchanged on failure; out may hold partial output.
 * NULL: in may be NULL only when in_len is 0.
 * Threads: no shared state; safe from any thread.
 */
#ifndef TARN_COMPRESS_H
#define TARN_COMPRESS_H

#include <tarn/common.h>

TARN_BEGIN_DECLS

TARN_API int tarn_zlib_compress(void *out, uint32_t *out_len, const void *in, uint32_t in_len);
TARN_API int tarn_zlib_decompress(void *out, uint32_t *out_len, const void *in, uint32_t in_len);
TARN_API int tarn_zstd_compress(void *out, uint32_t *out_len, const void *in, uint32_t in_len);
TARN_API int tarn_zstd_decompress(void *out, uint32_t *out_len, const void *in, uint32_t in_len);

TARN_END_DECLS

#endif /* TARN_COMPRESS_H */
