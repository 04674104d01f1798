/*
 * libtarn - message input and output on a routing socket, message lists.
 *
 * Ownership: rtslib_long_msg_read hands out a buffer the caller frees with
 * rtslib_msg_free. A message list owns its entries (see rtslib_msg_list_free):
 * messages added with rtslib_msg_list_add become the list's; a list filled
 * from raw messages points into the buffer and takes it (it must come from
 * rtslib_size_alloc or rtslib_msg_malloc); a list filled from IDL envelopes
 * owns the decoded records and leaves the buffer to the caller.
 *
 * Results: 0, an errno value (EINVAL for a null argument, ENOMEM, EIO for a
 * malformed message, EAGAIN when nothing waits), or RTSLIB_SEQ_MISMATCH (-2)
 * when a reply's sequence number differs from the handle's; the message is
 * still delivered then. Level-4 reports (a socket that cannot be read or
 * written consistently, a request/reply sequence mismatch) end the process
 * under the default error sink.
 *
 * Threads: the handle's thread only.
 */
#ifndef TARN_RTSLIB_MSG_H
#define TARN_RTSLIB_MSG_H

#include <tarn/common.h>
#include <tarn/rtslib.h>

TARN_BEGIN_DECLS

#define RTSLIB_SEQ_MISMATCH (-2)

/* --- Input and output --------------------------------------------------- */

/* Writes len bytes in one write. A short write is reported (level 4) and
 * still returns 0. With the handle's kbt flag set, the write is bracketed by
 * the kernel-backtrace switch for this process. */
TARN_API int rtslib_write(rtslib_cookie *handle, const void *buf, uint32_t len);

/* Total length of the next message on fd without consuming it; -1 with errno
 * EAGAIN when no whole header waits. */
TARN_API int rtslib_peek_pkt_len(int fd);

/* Reads the next message (at most RTS_MSG_MAX bytes) into dest, which must
 * hold RTS_MSG_MAX bytes, after checking its length and sequence number. */
TARN_API int rtslib_msg_read(rtslib_cookie *handle, void *dest, uint32_t *len_out);

/* Reads the next message, of any length, into a new buffer of exactly its
 * size (free with rtslib_msg_free). len_out may be NULL. On failure *msg_out
 * is NULL and *len_out 0; a message for which no buffer can be had is
 * dropped (ENOMEM), so that it is not taken for a later request's answer. */
TARN_API int rtslib_long_msg_read(rtslib_cookie *handle, void **msg_out, uint32_t *len_out);

/* --- IDL-encoded messages ---------------------------------------------- */

/* Encode record with rtslib_msg_idl_encode (TLV with map when map is not
 * NULL, IDR otherwise), write it, free the encoding. */
TARN_API int rtslib_msg_write_idl(rtslib_cookie *handle, const void *record, const void *map);

/* Read the next message (rtslib_msg_read: at most RTS_MSG_MAX bytes) and
 * decode it with rtslib_msg_idl_decode; *record_out is the caller's to release
 * with rtslib_msg_idl_release. A sequence mismatch is returned without
 * decoding. These reads hand out a record or fail: an envelope of a type
 * that has no record is reported and gives EIO (rtslib_msg_idl_decode itself
 * accepts it with a null record). The same holds wherever the library uses
 * a decoded record (message lists, the answers of requests). */
TARN_API int rtslib_msg_read_idl(rtslib_cookie *handle, void **record_out, void **map_out);
/* As rtslib_msg_read_idl, decoding into the caller's arena. */
TARN_API int rtslib_msg_read_idl_pa(rtslib_cookie *handle, void **record_out, void **map_out,
                                    void *arena_base, uint32_t arena_size);

/* As above for a message of any length (rtslib_long_msg_read). */
TARN_API int rtslib_long_msg_read_idl(rtslib_cookie *handle, void **record_out, void **map_out);
TARN_API int rtslib_long_msg_read_idl_pa(rtslib_cookie *handle, void **record_out,
                                         void **map_out, void *arena_base, uint32_t arena_size);

/* --- Message lists ------------------------------------------------------ */

#define RTSLIB_MSG_LIST_RAW_BUFFER 1 /* filled from raw messages: entries point into
                                        the buffer, which the list owns */
#define RTSLIB_MSG_LIST_ADDED 2      /* messages added one at a time */
#define RTSLIB_MSG_LIST_FILLED 3     /* filled from IDL envelopes: entries are
                                        decoded records the list owns */

typedef struct rtslib_msg_list {
    uint8_t version;     /* header byte 4 of the messages */
    uint8_t type;        /* header byte 5 of the messages */
    uint16_t kind;       /* RTSLIB_MSG_LIST_* */
    uint16_t count;      /* entries in use */
    uint16_t free_slots; /* entries the array can still take when adding */
    void **entries;
    void **decode_args;  /* per entry, the decoder's second output (filled lists) */
} rtslib_msg_list;

/* A zeroed list, or NULL. */
TARN_API rtslib_msg_list *rtslib_msg_list_alloc(rtslib_cookie *handle);

/* Appends a message the caller allocated with rtslib_msg_malloc or
 * rtslib_size_alloc; the list takes it. All messages of a list share version
 * and type (EINVAL otherwise, the list unchanged). The array grows once, to
 * 16 entries: give a list built by adds no more than 16 messages. */
TARN_API int rtslib_msg_list_add(rtslib_cookie *handle, rtslib_msg_list *list, void *message);

/* Resets the list and fills it from len bytes of consecutive messages. Raw
 * messages are pointed at in place; IDL envelopes are decoded into records.
 * The first message says which the buffer holds, and every message must be
 * of that kind, at least a header long, and the last must end exactly at the
 * end of the buffer: EINVAL otherwise. An envelope of a type that has no
 * record is EIO (reported). After a failure the list may hold the entries
 * decoded so far; rtslib_msg_list_free releases them as usual. */
TARN_API int rtslib_msg_list_fillin(rtslib_cookie *handle, rtslib_msg_list *list, uint32_t len,
                                    void *buffer);

/* The entry at index, or NULL when there is no such entry. */
TARN_API void *rtslib_msg_list_get_by_index(rtslib_msg_list *list, int index);

/* Releases the entries as the list's kind says, then the list. NULL is
 * ignored. */
TARN_API void rtslib_msg_list_free(rtslib_cookie *handle, rtslib_msg_list *list);

TARN_END_DECLS

#endif /* TARN_RTSLIB_MSG_H */
