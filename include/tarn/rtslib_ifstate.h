/*
 * libtarn - interface-state client sessions: the kernel's registry of the
 * processes that follow interface state (message type 47), one request and
 * one reply at a time, and printers of what the kernel answers.
 *
 * The message is raw (no envelope), version 'c', with a 68-byte fixed part
 * behind the 24-byte routing-socket header, in host byte order:
 *   24 u32 client id    28 u32 client limit (kernel's)   32 u32 client count
 *   36 32-byte client name, NUL-padded
 * Operations: RTS_OP_ADD registers the name and answers with its id
 * (EAGAIN when the kernel's limit is reached, EEXIST for a name already
 * registered); RTS_OP_DELETE removes the client `id` (ENOENT if unknown);
 * RTS_OP_GET answers with the fixed part followed by one 36-byte record per
 * client (u32 id, 32-byte name). The kernel's error is the header word at
 * offset 16.
 *
 * Ownership: replies are message buffers the caller frees with
 *  rtslib_msg_free. NULL: a null handle, reply or output pointer is EINVAL.
 * Errors: 0 or an errno value: the write or read error, EIO for a reply that
 *  is not a whole type-47 message, or the kernel's error (no reply handed
 *  out then). Threads: the handle's thread.
 */
#ifndef TARN_RTSLIB_IFSTATE_H
#define TARN_RTSLIB_IFSTATE_H

#include <stdint.h>
#include <stdio.h>

#include <tarn/common.h>
#include <tarn/rtslib.h>

TARN_BEGIN_DECLS

#define RTS_IFSTATE_VERSION 99 /* 'c' */
#define RTS_IFSTATE_FIXED_LEN 68
#define RTS_IFSTATE_ID_OFF 24
#define RTS_IFSTATE_MAX_OFF 28
#define RTS_IFSTATE_COUNT_OFF 32
#define RTS_IFSTATE_NAME_OFF 36
#define RTSLIB_IFSM_NAME_LEN 32
#define RTSLIB_IFSM_CLIENT_LEN 36 /* one client of a RTS_OP_GET answer */

/* One request of operation `op` for client `id` / `name` (NULL: none; cut
 * at 31 characters): on 0, *reply_out and *reply_len are the kernel's answer. */
TARN_API int rtslib_ifsm_request(rtslib_cookie *handle, uint8_t op, uint32_t id,
                                 const char *name, void **reply_out, uint32_t *reply_len);
/* Registers `name`; its id into *id_out. */
TARN_API int rtslib_ifsm_register(rtslib_cookie *handle, const char *name, uint32_t *id_out);
/* Removes client `id`. */
TARN_API int rtslib_ifsm_unregister(rtslib_cookie *handle, uint32_t id);
/* The kernel's client list (an RTS_OP_GET answer). */
TARN_API int rtslib_ifsm_get(rtslib_cookie *handle, void **reply_out, uint32_t *reply_len);

/* Writes an answer's contents to `out`:
 *   "ifstate clients: COUNT of LIMIT\n" and, per client of a list,
 *   "  client ID: NAME\n"
 * EINVAL (nothing written) for a message that is not a whole type-47 one or
 * whose count promises more clients than it holds. */
TARN_API int rtslib_ifsm_print(FILE *out, const void *msg, uint32_t len);

/* The kernel's client limit, sysctl "hw.product.ifs_max_clients": 0, or the
 * sysctl's errno (EINVAL for a NULL limit or a value that is no u32). */
TARN_API int rtslib_ifsclim_get(uint32_t *limit);

TARN_END_DECLS

#endif /* TARN_RTSLIB_IFSTATE_H */
