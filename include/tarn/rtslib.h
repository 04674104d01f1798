/*
 * libtarn - the routing-socket handle, error reporting and message buffers.
 *
 * A handle (rtslib_cookie) stands for one open routing socket and everything
 * the library keeps about it. The caller owns the pointer from rtslib_open*
 * to rtslib_close and must not write the record's fields directly; they are
 * shown so that their layout, fixed by the target ABI, is visible.
 *
 * Results: 0 on success, an errno value on failure (EINVAL for a null handle
 * or required pointer) unless a function says otherwise. Problems are also
 * reported through the handle's error sink (rtslib_err); errno is preserved
 * across a report.
 *
 * Threads: a handle belongs to one thread; the library takes no locks.
 */
#ifndef TARN_RTSLIB_H
#define TARN_RTSLIB_H

#include <tarn/common.h>
#include <tarn/rtsock_wire.h>

TARN_BEGIN_DECLS

typedef struct rtslib_cookie rtslib_cookie;
struct rtslib_async_ctx;  /* asynchronous context, owned by the handle */
struct rtslib_unnum;      /* unnumbered-interface donor state */

/* Report levels and the word each report begins with. */
#define RTSLIB_LOG_DEBUG 0   /* "DEBUG " */
#define RTSLIB_LOG_INFO 1    /* "INFO " */
#define RTSLIB_LOG_WARNING 2 /* "WARNING " */
#define RTSLIB_LOG_ERROR 3   /* "ERROR " */
#define RTSLIB_LOG_FATAL 4   /* "FATAL ERROR ": the default sink exits */

/* A report is at most this many characters plus its terminator. */
#define RTSLIB_ERR_MAX 255

/* Error sink: called with the handle, the registered argument, the level and
 * the full report text ("rtslib: " + level word + message). Its result is
 * ignored. */
typedef int (*rtslib_lib_error_fn)(rtslib_cookie *handle, void *arg, int level,
                                   const char *text);

/* Sequence-mismatch hook: called instead of a report when a reply's sequence
 * number differs from the handle's. Its result is ignored. */
typedef int (*rtslib_seq_error_fn)(rtslib_cookie *handle, void *arg, uint32_t expected,
                                   uint32_t received);

/* Configuration-blob compression hook: out_len holds the capacity of out on
 * entry and the produced length on return; 0 on success. */
typedef int (*rtslib_blob_hook_fn)(void *out, uint32_t *out_len, const void *in,
                                   uint32_t in_len);

struct rtslib_cookie {
    int fd;                            /* routing socket, -1 while none is open */
    uint32_t seq;                      /* request sequence counter, 1 when made */
    uint8_t *version_info;             /* kernel's version block once negotiated */
    uint8_t *read_buffer;              /* RTS_READ_BUFFER_SIZE bytes */
    struct rtslib_async_ctx *async;    /* asynchronous context or NULL */
    rtslib_lib_error_fn lib_error_fn;  /* NULL silences the handle */
    void *lib_error_arg;
    rtslib_seq_error_fn seq_error_fn;
    void *seq_error_arg;
    uint32_t reserved;                 /* zero; not used by the library */
    struct rtslib_unnum *unnum;        /* unnumbered-donor state or NULL */
    uint32_t kbt;                      /* bracket writes with the kernel-backtrace switch */
    rtslib_blob_hook_fn blob_compress_fn;
    rtslib_blob_hook_fn blob_decompress_fn;
    uint32_t num_read_msg;             /* messages one async event reads at most */
};

/* Names of the message types by number: RTS_MSG_TYPE_COUNT names, then NULL. */
TARN_API extern const char *const rtm_types[RTS_MSG_TYPE_COUNT + 1];

/* --- Handles ------------------------------------------------------------ */

/* Makes a handle, opens its routing socket (non-blocking), negotiates message
 * versions with the kernel, sets the sender id and 64 KiB socket buffers.
 * NULL on failure. A kernel with another interface version is a fatal report
 * (the default sink exits); with a caller's sink errno is ECONNREFUSED. */
TARN_API rtslib_cookie *rtslib_open(uint8_t sender_id);

/* As rtslib_open, with the error sink installed before the socket is opened
 * so that the negotiation's reports already reach it. */
TARN_API rtslib_cookie *rtslib_open_set_liberr(uint8_t sender_id, void *arg,
                                               rtslib_lib_error_fn fn);

/* Makes the handle record only, with no socket: for work with records and
 * codecs that needs no kernel. */
TARN_API rtslib_cookie *rtslib_open_nc(void);

/* Closes the socket, releases everything the handle owns and the handle.
 * NULL is ignored. */
TARN_API void rtslib_close(rtslib_cookie *handle);

/* setsockopt at level TARN_SOL_ROUTE on the handle's socket: 0, or -1 with
 * errno; EINVAL for a null handle. */
TARN_API int rtslib_setsockopt(rtslib_cookie *handle, int optname, const void *optval,
                               uint32_t optlen);

/* Sets SO_SNDBUF, then SO_RCVBUF; a failure of the first skips the second. */
TARN_API int rtslib_set_buffers(rtslib_cookie *handle, int sndbuf, int rcvbuf);

/* Set the sender id (one byte) and the logical-router id (two bytes). A
 * refusal by the kernel is reported as a warning and still returns 0. */
TARN_API int rtslib_set_sender_id(rtslib_cookie *handle, uint8_t id);
TARN_API int rtslib_set_lr_id(rtslib_cookie *handle, uint16_t lr_id);

/* The kernel's version block as negotiated, or NULL. Owned by the handle. */
TARN_API const uint8_t *rtslib_get_rtsock_version_info(rtslib_cookie *handle);

/* Increments the handle's sequence counter and stores the new value. */
TARN_API int rtslib_seq_get_next(rtslib_cookie *handle, uint32_t *out);

TARN_API int rtslib_seq_error_register(rtslib_cookie *handle, void *arg,
                                       rtslib_seq_error_fn fn);
TARN_API int rtslib_lib_error_register(rtslib_cookie *handle, void *arg,
                                       rtslib_lib_error_fn fn);

/* Stores both hooks when the handle and both functions are non-null. */
TARN_API void rtslib_init_blob_compression(rtslib_cookie *handle, rtslib_blob_hook_fn compress,
                                           rtslib_blob_hook_fn decompress);

/* --- Error reporting ---------------------------------------------------- */

/* Formats "rtslib: " + level word + message (cut at RTSLIB_ERR_MAX characters)
 * and hands it to the handle's sink, or to rtslib_lib_error when handle is
 * NULL. A handle whose sink is NULL drops the report. errno is preserved. */
TARN_API void rtslib_err(rtslib_cookie *handle, uint32_t level, const char *format, ...)
    TARN_PRINTF(3, 4);

/* The default sink: prints the text and a line end to stderr; exits the
 * process with status 1 at RTSLIB_LOG_FATAL. */
TARN_API int rtslib_lib_error(rtslib_cookie *handle, void *arg, int level, const char *text);

/* --- Message buffers ---------------------------------------------------- */

/* A zero-filled block of size bytes, freed with rtslib_msg_free; NULL when the
 * handle is NULL or memory runs out. */
TARN_API void *rtslib_size_alloc(rtslib_cookie *handle, uint32_t size);

/* A zero-filled RTS_MSG_MAX-byte message buffer. */
TARN_API void *rtslib_msg_malloc(rtslib_cookie *handle);

/* Frees a block from rtslib_size_alloc or rtslib_msg_malloc; a NULL handle
 * makes this a no-op. */
TARN_API void rtslib_msg_free(rtslib_cookie *handle, void *block);

TARN_END_DECLS

#endif /* TARN_RTSLIB_H */
