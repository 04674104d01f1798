/*
 * libtarn - generic configuration objects (gencfg): peer lists, dependency
 * lists, the requests that carry them, and blob compression.
 *
 * The caller's object is a gencfg_msg_t (<tarn/idl_records.h>) that the
 * caller owns. Its fields as used here: major_type, minor_type, value3,
 * value4, flags (RTSLIB_GENCFG_F_*), blob/blob_len, key/key_len, the
 * dependency list deps/deps_count, the peer list peers/peers_count (entries
 * in use) with peer_capacity, and extra_value (with RTSLIB_GENCFG_F_EXTRA).
 *
 * Ownership: the peer list and the dependency list are made and freed by
 *  this module only (create_* / delete_*). Each is one malloc block whose
 *  start is the pointer array stored in the object. A reply record handed
 *  out by a request is the caller's (rtslib_msg_idl_release, or the caller's
 *  free for the export path with caller-supplied I/O).
 * NULL: a null object is EINVAL / -1; a null handle on the public request
 *  entries is EINVAL.
 * Errors: the list calls return 0 or -1 and report at RTSLIB_LOG_ERROR with
 *  no handle; the requests return 0 or an errno value.
 * Threads: none kept; one handle per thread.
 *
 * Wire: the request is the gencfg_msg IDL record, header version 105 ('i'),
 * type 72, the operation in the header's op byte. The blob, key and
 * dependency list are sent only when their flag is set; the peer list when
 * entries are in use. A compressed blob (RTSLIB_GENCFG_F_COMPRESSED) is the
 * compress hook's output, unframed; its receiver inflates it with the
 * matching hook into at most RTSLIB_GENCFG_BLOB_INFLATED_MAX bytes.
 */
#ifndef TARN_RTSLIB_GENCFG_H
#define TARN_RTSLIB_GENCFG_H

#include <tarn/common.h>
#include <tarn/idl_records.h>
#include <tarn/rtslib.h>

TARN_BEGIN_DECLS

#define RTS_GENCFG_VERSION 105 /* 'i' */

#define RTSLIB_GENCFG_F_EXTRA 0x1u          /* extra_value is present */
#define RTSLIB_GENCFG_F_KEY 0x2u            /* key is present */
#define RTSLIB_GENCFG_F_DEPS 0x4u           /* a dependency list is present */
#define RTSLIB_GENCFG_F_COMPRESSED 0x20000u /* the blob travels compressed */

#define RTSLIB_GENCFG_OP_ADD 1
#define RTSLIB_GENCFG_OP_CHANGE 2
#define RTSLIB_GENCFG_OP_DELETE 3
#define RTSLIB_GENCFG_OP_GET 4
#define RTSLIB_GENCFG_OP_GETNEXT 5
#define RTSLIB_GENCFG_OP_ADD_GET 8
#define RTSLIB_GENCFG_OP_CHANGE_GET 9

#define RTSLIB_GENCFG_MAX_PEERS 64
#define RTSLIB_GENCFG_BLOB_MAX 512000u            /* blobs this large are refused */
#define RTSLIB_GENCFG_BLOB_INFLATED_MAX 3072000u  /* a received blob inflates to this */

/* Peer types and index choices. */
#define RTSLIB_GENCFG_PEER_SUBUNIT 1 /* index = slot * 4 + sub-unit */
#define RTSLIB_GENCFG_PEER_SLOT 16   /* index = slot */
#define RTSLIB_GENCFG_CHOICE_INDEX 0
#define RTSLIB_GENCFG_CHOICE_INDEX2 1
#define RTSLIB_GENCFG_CHOICE_MASK 2
#define RTSLIB_GENCFG_MASK_SLOTS 24
#define RTSLIB_GENCFG_MAJOR_MASKED 15 /* single-index peers of this type merge into a mask */

/* Dependency list: 40 entries sharing a data area of 3134 bytes, each entry's
 * data taking its length rounded up to 4. */
#define RTSLIB_GENCFG_DEP_ENTRIES 40
#define RTSLIB_GENCFG_DEP_DATA 3134
#define RTSLIB_GENCFG_DEP_TYPE_MAX 53

/* One peer to add: type, choice and (for choices 0 and 1) the index. */
typedef struct rtslib_gencfg_peer {
    uint8_t peer_type;
    uint32_t choice;
    uint16_t index;
} rtslib_gencfg_peer;

/* --- Peer lists ---------------------------------------------------------- */

/* A list of count zeroed entries (count <= 64), none in use. -1 when count
 * is too large or memory runs out (the list is then null). */
TARN_API int rtslib_gencfg_create_peerinfo(gencfg_msg_t *gencfg, uint32_t count);
/* Adds a peer. A single-index peer of a major-type-15 object is merged into
 * the object's mask entry (made on first use); mixed choices are refused. */
TARN_API int rtslib_gencfg_add_peerinfo(gencfg_msg_t *gencfg, const rtslib_gencfg_peer *peer);
/* Frees the list; nothing in use afterwards. */
TARN_API void rtslib_gencfg_delete_peerinfo(gencfg_msg_t *gencfg);
/* The mask of the first mask entry in use, or NULL. */
TARN_API const gencfg_peer_index_type_t *rtslib_gencfg_get_peer_info(const gencfg_msg_t *gencfg);
/* 1 when the first mask entry among all allocated entries (in use or not,
 * up to peer_capacity) has the peer's bit; 0 otherwise, and for types other
 * than 1 and 16. peer_capacity must not exceed the peer array's length: the
 * library trims it so in the records it receives (answers, and notifications
 * passed through rtslib_gencfg_async). */
TARN_API int rtslib_gencfg_is_peer_present_in_peerinfo(const gencfg_msg_t *gencfg,
                                                       uint8_t peer_type, uint32_t index);
/* The peer index for slot/sub in mask, or -1 when its bit is clear. */
TARN_API int rtslib_gencfg_get_peer_index_from_peer_mask(const gencfg_peer_index_type_t *mask,
                                                         uint8_t peer_type, uint32_t slot,
                                                         uint32_t sub);
/* The stored index (choices 0, 1) or the lowest set peer of a mask; -1 if none. */
TARN_API int rtslib_gencfg_get_peer_index(const gencfg_msg_t *gencfg,
                                          const gencfg_peerinfo_t *entry);

/* --- Dependency lists ---------------------------------------------------- */

/* An empty list; sets RTSLIB_GENCFG_F_DEPS. -1 when memory runs out. */
TARN_API int rtslib_gencfg_create_depend(gencfg_msg_t *gencfg);
/* Appends an entry with a copy of length bytes of data. -1 for a zero length,
 * null data, a type above 53, no list, a full list or too little data room. */
TARN_API int rtslib_gencfg_add_depinfo(gencfg_msg_t *gencfg, uint8_t dep_type, uint16_t value1,
                                       uint16_t value2, uint32_t length, const void *data,
                                       uint8_t value0);
/* Frees the list. RTSLIB_GENCFG_F_DEPS stays set, so the object cannot be
 * sent until a new list is made or the flag is cleared. */
TARN_API void rtslib_gencfg_delete_depend(gencfg_msg_t *gencfg);

/* --- Requests ------------------------------------------------------------ */

/* Caller-supplied request path for rtslib_gencfg_op_export; any may be NULL
 * to use the handle's (sequence counter, rtslib_size_alloc, rtslib_write,
 * rtslib_long_msg_read). alloc gives the request record's block (zeroed by the
 * library); write gets the encoded request; read returns the whole reply
 * message in a block that free_fn (free() when NULL) releases after decoding;
 * 0 or an errno value. */
typedef void *(*rtslib_gencfg_alloc_fn)(void *io_ctx, uint32_t size);
typedef void (*rtslib_gencfg_free_fn)(void *io_ctx, void *block);
typedef int (*rtslib_gencfg_write_fn)(void *io_ctx, const void *buf, uint32_t len);
typedef int (*rtslib_gencfg_read_fn)(void *io_ctx, void **msg_out, uint32_t *len_out);

/* Sends gencfg with operation op (RTSLIB_GENCFG_OP_*). For ops 4, 5, 8 and 9
 * the reply goes to *reply_out (decompressed when flagged), and for 4 and 5
 * its fields are copied into gencfg (pointing into the reply, which must
 * outlive that use, and the object's lists are then not to be freed with
 * rtslib_gencfg_delete_*). The reply is released with rtslib_msg_idl_release;
 * on any error *reply_out is NULL. reply_arg is reserved (may be NULL).
 * A decompressed reply has RTSLIB_GENCFG_F_COMPRESSED cleared. A compressed blob
 * (op 1, 2) is sent in place of the caller's, which is restored afterwards.
 * Returns 0, EINVAL (flagged but missing dependencies or key), EOPNOTSUPP (no
 * hooks), ENOMEM, ENOSPC (blob of 512000 bytes or more), a hook's own code,
 * the write or read result, or the kernel's refusal carried in the answer
 * (ENOENT for a read of an absent object, say). */
TARN_API int rtslib_gencfg_op_export(rtslib_cookie *handle, gencfg_msg_t *gencfg, uint8_t op,
                                     gencfg_msg_t **reply_out, void *reply_arg, uint32_t *seq,
                                     void *io_ctx, rtslib_gencfg_alloc_fn alloc,
                                     rtslib_gencfg_free_fn free_fn, rtslib_gencfg_write_fn write,
                                     rtslib_gencfg_read_fn read);
TARN_API int rtslib_gencfg_add(rtslib_cookie *handle, gencfg_msg_t *gencfg);
TARN_API int rtslib_gencfg_change(rtslib_cookie *handle, gencfg_msg_t *gencfg);
TARN_API int rtslib_gencfg_delete(rtslib_cookie *handle, gencfg_msg_t *gencfg);
TARN_API int rtslib_gencfg_get(rtslib_cookie *handle, gencfg_msg_t *gencfg, uint8_t op,
                               gencfg_msg_t **reply_out, void *reply_arg);
TARN_API int rtslib_gencfg_add_and_get(rtslib_cookie *handle, gencfg_msg_t *gencfg,
                                       gencfg_msg_t **reply_out, void *reply_arg);
TARN_API int rtslib_gencfg_change_and_get(rtslib_cookie *handle, gencfg_msg_t *gencfg,
                                          gencfg_msg_t **reply_out, void *reply_arg);

/* Inflates a received gencfg record (from rtslib_msg_idl_decode) whose
 * compressed flag is set: on success *msg_inout is replaced by a new record
 * (release with rtslib_msg_idl_release) and the old one is released. On
 * failure the record stays, its blob_len set to 0. 0 when the flag is clear.
 * The new record's blob holds the inflated bytes and its compressed flag is
 * cleared. */
TARN_API int rtslib_gencfg_async(rtslib_cookie *handle, gencfg_msg_t **msg_inout);

TARN_END_DECLS

#endif /* TARN_RTSLIB_GENCFG_H */
