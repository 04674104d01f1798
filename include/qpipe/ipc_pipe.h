/*
 * libqpipe - message framing over a non-blocking stream socket.
 *
 * A pipe carries messages of an 8-byte header (host byte order: two zero
 * bytes, 16-bit type, 16-bit payload length, 16-bit zero) and a payload.
 * A pipe made with buffer size B takes and accepts payloads of at most B - 8
 * bytes; it never buffers more than B bytes of input and 2 B of output.
 *
 * Ownership: the caller owns the pipe from ipc_pipe_create to
 * ipc_pipe_destroy, and the socket: the pipe never closes it. Messages
 * returned by ipc_msg_read live in the pipe's input buffer.
 * NULL: a null pipe gives -1 with EINVAL (NULL for ipc_msg_read).
 * Errors: -1 (or NULL) with errno set.
 * Threads: none started, no locks; a pipe belongs to one thread at a time.
 *
 * Reading: ipc_pipe_read takes whatever the socket holds; ipc_msg_read then
 * hands out complete messages one by one, 8-byte aligned: in place when the
 * message starts on such a boundary in the input buffer, else from an aligned
 * copy the pipe keeps. Either way the payload may be modified by the caller,
 * and the message stays valid until the next ipc_msg_read, ipc_pipe_read or
 * ipc_pipe_destroy. ipc_pipe_read_clean only marks consumed input as free;
 * the space is reclaimed by the next ipc_pipe_read.
 *
 * Writing: ipc_msg_write / ipc_msg_writev place one message in the output
 * buffer; ipc_pipe_write sends what is pending. Once any byte of a message
 * has left, the rest of it (its "tail") must follow before anything else, or
 * the stream would be corrupt: the pipe keeps such a tail itself, sends it
 * first on every ipc_pipe_write, and ipc_pipe_write_discard never drops it.
 * Only messages none of whose bytes left can be discarded.
 */
#ifndef QPIPE_IPC_PIPE_H
#define QPIPE_IPC_PIPE_H

#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QPIPE_API __attribute__((visibility("default")))

#define IPC_MSG_HDR_LEN 8u

/* The header of one message as it travels; `length` payload bytes follow it
 * directly (ipc_msg_data). */
typedef struct ipc_msg {
    uint8_t reserved0;
    uint8_t reserved1;
    uint16_t type;
    uint16_t length; /* payload bytes following the header */
    uint16_t reserved2;
} ipc_msg_t;

/* The payload of a message returned by ipc_msg_read (writable). */
static inline uint8_t *ipc_msg_data(ipc_msg_t *msg)
{
#ifdef __cplusplus
    return reinterpret_cast<uint8_t *>(msg) + IPC_MSG_HDR_LEN;
#else
    return (uint8_t *)msg + IPC_MSG_HDR_LEN;
#endif
}

typedef struct ipc_pipe ipc_pipe_t;

/* A pipe with buffer size `bufsize` (at least IPC_MSG_HDR_LEN and at most
 * 65543, so that the largest payload fits the 16-bit length): NULL with EINVAL
 * for a size out of range, ENOMEM when memory runs out. */
QPIPE_API ipc_pipe_t *ipc_pipe_create(size_t bufsize);

/* Frees the pipe and any buffered data; the socket stays open. NULL ignored. */
QPIPE_API void ipc_pipe_destroy(ipc_pipe_t *pipe);

/* Attaches the socket the pipe reads and writes (one at a time; attaching
 * resets buffered input, output and error state): 0, or -1 with EINVAL for a
 * negative descriptor and EBUSY when another socket is attached. */
QPIPE_API int ipc_pipe_attach_socket(ipc_pipe_t *pipe, int fd);

/* Detaches `fd` and drops all buffered input and output: 0, or -1 with EINVAL
 * when `fd` is not the attached socket. */
QPIPE_API int ipc_pipe_detach_socket(ipc_pipe_t *pipe, int fd);

/* Reads what the socket holds into the free input space (EINTR retried).
 * Returns the bytes read, 0 when the socket had nothing new but a complete
 * message is buffered; -1 with EAGAIN when there is nothing to do, EPIPE when
 * the peer closed (complete messages read before stay available to
 * ipc_msg_read), EMSGSIZE when the next buffered header announces more than
 * B - 8 payload bytes (the pipe then stays unusable for reading), ENOBUFS
 * when the input is full of messages returned but not released with
 * ipc_pipe_read_clean, or the socket's error. */
QPIPE_API int ipc_pipe_read(ipc_pipe_t *pipe);

/* The next complete buffered message, or NULL: errno 0 when it is not
 * complete yet, EMSGSIZE after an oversized header, EINVAL for a null pipe. */
QPIPE_API ipc_msg_t *ipc_msg_read(ipc_pipe_t *pipe);

/* Releases the input of the messages returned so far. */
QPIPE_API void ipc_pipe_read_clean(ipc_pipe_t *pipe);

/* Places one message (header `hdr`, whose length field gives the payload
 * size, then `payload`) in the output buffer. -1 with EMSGSIZE for a payload
 * over B - 8, ENOBUFS when the output buffer cannot take it now, EINVAL for a
 * null header or a null payload with a non-zero length. */
QPIPE_API int ipc_msg_write(ipc_pipe_t *pipe, const ipc_msg_t *hdr, const void *payload);

/* As ipc_msg_write with the payload gathered from `count` pieces; the pieces
 * must add up to the header's length (EINVAL otherwise). */
QPIPE_API int ipc_msg_writev(ipc_pipe_t *pipe, const ipc_msg_t *hdr, const struct iovec *iov,
                             int count);

/* Sends pending output to the socket, tail first (EINTR retried). 0 when
 * nothing is left pending; -1 with EAGAIN when the socket took only part (the
 * rest stays pending), EPIPE when no socket is attached, or the socket's
 * error. `flags` is reserved: pass 0. */
QPIPE_API int ipc_pipe_write(ipc_pipe_t *pipe, int flags);

/* Output bytes not yet sent, tail included. */
QPIPE_API size_t ipc_pipe_write_pending(const ipc_pipe_t *pipe);

/* Bytes of the partially sent message still to go (0 when none). */
QPIPE_API size_t ipc_pipe_write_tail(const ipc_pipe_t *pipe);

/* The pending messages none of whose bytes left: their start and, through
 * `len`, their size (NULL and 0 when there are none). Valid until the next
 * call that writes or discards. */
QPIPE_API const void *ipc_pipe_write_unsent(const ipc_pipe_t *pipe, size_t *len);

/* Drops the pending messages none of whose bytes left and returns how many
 * bytes that was; a partially sent tail stays. */
QPIPE_API size_t ipc_pipe_write_discard(ipc_pipe_t *pipe);

#ifdef __cplusplus
}
#endif

#endif /* QPIPE_IPC_PIPE_H */
