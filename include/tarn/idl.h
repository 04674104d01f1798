/*
 * libtarn - the routing-socket message envelope.
 *
 * Every IDL-encoded routing-socket message is an rts_msg: a 12-byte header
 * (magic RTS_IDL_MAGIC_TLV or RTS_IDL_MAGIC_IDR, body length, message type)
 * followed by the member record's encoding. A member record always begins
 * with the routing-socket header record (rts_hdr_t), whose type byte is the
 * message type.
 *
 * Ownership:
 *  - rtslib_msg_idl_encode returns a buffer from rtslib_size_alloc that the
 *    caller frees with rtslib_msg_free.
 *  - rtslib_msg_idl_decode returns a message that starts its own block; the
 *    caller releases it, and everything it points to, with
 *    rtslib_msg_idl_release. rtslib_msg_idl_decode_pa places the message and
 *    everything it points to in the caller's arena, which the caller frees
 *    whole; nothing in it is freed on its own.
 * NULL: a null handle is allowed where no report is needed; reports then go
 *  to the default sink (rtslib_err with no handle).
 * Errors: 0 or an errno value (ENOMEM, EINVAL, EOPNOTSUPP) as listed per
 *  call; failures are reported at RTSLIB_LOG_ERROR through the handle's sink.
 * Threads: none kept; rtslib_msglen is the only state, written by
 *  rtslib_msg_idl_encode.
 */
#ifndef TARN_IDL_H
#define TARN_IDL_H

#include <tarn/common.h>
#include <tarn/idl_codec.h>
#include <tarn/idl_records.h>
#include <tarn/rtslib.h>

TARN_BEGIN_DECLS

/* Size of the last message rtslib_msg_idl_encode produced. */
TARN_API extern uint32_t rtslib_msglen;

/* A decode arena: blocks are carved from base in multiples of 4 bytes (of
 * the pointer size on 64-bit hosts; base must be aligned likewise) and never
 * freed on their own. */
typedef struct rtslib_idl_arena {
    uint8_t *base;
    uint32_t size; /* capacity in bytes */
    uint32_t used; /* bytes handed out, from 0 */
} rtslib_idl_arena;

/* tarn_idl_alloc_fn over an arena (ctx is the rtslib_idl_arena): base + used,
 * or NULL, leaving the arena unchanged, when the rounded size does not fit. */
TARN_API void *rtslib_idl_arena_alloc(uint32_t size, void *ctx);

/* The name of a decoder result code ("Invalid Buffer Size" for 0 through
 * "HOMOGENEOUS" for -5; "Unknown" otherwise). */
TARN_API const char *rtslib_idl_result_name(int32_t code);

/* Stores the magic (first word) in *out and returns out; NULL without writing
 * when len < 4. */
TARN_API uint32_t *rtslib_idl_peek_magic(uint32_t *out, const void *buf, uint32_t len);

/* Stores the whole message's size (body length + 12) in *out and returns out;
 * NULL when len < 8. */
TARN_API uint32_t *rtslib_idl_peek_length(uint32_t *out, const void *buf, uint32_t len);

/* Encodes a routing-socket message record (a member record; its header's type
 * byte selects the member) into a new buffer: TLV with the member's presence
 * map when map is non-null, IDR when it is null. On success *out_buf and
 * *out_len are the buffer and the encoding's size (also stored in
 * rtslib_msglen). Returns 0, or ENOMEM ("Allocation Failure for (%d) bytes");
 * on failure *out_buf is NULL and *out_len 0. */
TARN_API int rtslib_msg_idl_encode(rtslib_cookie *handle, const void *message, const void *map,
                                   void **out_buf, uint32_t *out_len);

/* Encodes message in IDR into the caller's buffer of *len_inout bytes and
 * stores the size in *len_inout. EINVAL ("Invalid parameters") for a null
 * buffer or zero length; ENOMEM when the encoding does not fit (the buffer
 * then holds a partial encoding and *len_inout is unchanged). */
TARN_API int rtslib_msg_idl_encode_pa(rtslib_cookie *handle, const void *message, void *buf,
                                      uint32_t *len_inout);

/* Decodes an envelope of len bytes into the caller's arena (arena_base,
 * arena_size). On success *out_msg is the member record (its header's length
 * word set to len, its type byte to the envelope's type, which chose the
 * record's layout, and its magic word to the envelope's magic, which tells it
 * from a raw message, whose first word is 0) and, for TLV with map_out non-null, *map_out its presence
 * map. EINVAL for len < 4 or a decode failure ("IDL TLV Decode Error %d(%s)" /
 * "IDL IDR Decode Error %d(%s)"), ENOMEM when the arena is too small,
 * EOPNOTSUPP when the magic is neither TLV nor IDR. */
TARN_API int rtslib_msg_idl_decode_pa(rtslib_cookie *handle, const void *buf, uint32_t len,
                                      void **out_msg, void **map_out, void *arena_base,
                                      uint32_t arena_size);

/* As rtslib_msg_idl_decode_pa into a block of its own from rtslib_size_alloc:
 * 16384 bytes, or the message's size + 1024 for larger messages, grown by 1024
 * bytes while the arena runs out. EOPNOTSUPP when fewer than 8 bytes are given
 * ("Failed to peek magic" / "Failed to peek message") or the magic is 0
 * (a raw message: no report); ENOMEM ("Allocation Failure") when no block can
 * be had. Release the message with rtslib_msg_idl_release. */
TARN_API int rtslib_msg_idl_decode(rtslib_cookie *handle, const void *buf, uint32_t len,
                                   void **out_msg, void **map_out);

/* Frees a message from rtslib_msg_idl_decode with everything it points to
 * (rtslib_msg_free on its block). */
TARN_API void rtslib_msg_idl_release(rtslib_cookie *handle, void *msg);

TARN_END_DECLS

#endif /* TARN_IDL_H */
