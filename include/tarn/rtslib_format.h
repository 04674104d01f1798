/*
 * libtarn - text renderings of routing-socket messages for logs and tools.
 *
 * What a `message` is: for a message type that has a record (the member of
 * the envelope choice, see tarn_idl_type_for_msg), the decoded record as
 * rtslib_msg_idl_decode hands it out, beginning with its rts_hdr_t; for every
 * other type (route statistics, routing-socket statistics, ...), the raw
 * message as read from the socket, beginning with the 24-byte wire header.
 * Both begin with the same bytes (type at offset 5, operation at 6, length at
 * 8, sequence at 12), which is all the formatter reads before it chooses. A
 * raw message must have its 24-byte header and as many readable bytes as its
 * length word says; a length too short for what its type carries is reported
 * and only the part inside it is shown. A raw message of a type that has a
 * record is not accepted: decode it first.
 *
 * Ownership: the caller owns buffers and messages; formatting never changes a
 * message and never writes past `size` bytes of a buffer. Texts returned by
 * the name lookups are static.
 * NULL: a null buffer or message gives -1; a null handle sends reports to the
 * default sink.
 * Errors: 0 or -1; an overflow is reported through rtslib_err ("output brief
 * buffer too small for format!" / "output full buffer too small for format!").
 * Threads: no state; a handle's rules apply.
 */
#ifndef TARN_RTSLIB_FORMAT_H
#define TARN_RTSLIB_FORMAT_H

#include <stdio.h>

#include <tarn/common.h>
#include <tarn/idl_records.h>
#include <tarn/rtslib.h>

TARN_BEGIN_DECLS

/* Budgets of the fixed-size calls. */
#define RTSLIB_FORMAT_BRIEF_SIZE 128
#define RTSLIB_FORMAT_FULL_SIZE 2048

/* --- Output cursor ----------------------------------------------------------
 * A write position and the bytes remaining behind it. Appends format with
 * vsnprintf bounded by *remaining, subtract the complete text's length from
 * *remaining and advance *position by it. When the text with its terminator
 * did not fit, *position becomes NULL, and every later append with it is a
 * no-op: test *position after appending to detect overflow. What was written
 * stays terminated inside the buffer. */
TARN_API void rtslib_fill_format_buf(char **position, int *remaining, const char *format, ...)
    TARN_PRINTF(3, 4);

/* --- Names -----------------------------------------------------------------
 * Each lookup clamps: a value outside the table gives its last entry. */
TARN_API const char *rtslib_format_op(int op);            /* "nop" .. "unknown" (10) */
TARN_API const char *rtslib_format_rtm_type(int type);    /* rtm_types[], "unknown" beyond */
TARN_API const char *rtslib_format_mtype_rcv(int mode);   /* "None" .. "Invalid" (5) */
TARN_API const char *rtslib_format_af(int af);            /* by family number; "unknown" */
TARN_API const char *rtslib_format_cos_type(int type);    /* 0 .. 33 */
TARN_API const char *rtslib_format_stats_op(int op);      /* "Total ops" .. "Unknown ops" */

/* The sender column: "async" for a notification (sequence 0), "solicited"
 * for a request or its answer. */
TARN_API const char *rtslib_format_msg_sender_id(const void *message);

/* The column header of brief lines: "sender   flag    type       op". */
TARN_API const char *rtslib_brief_output_header(void);

/* --- Messages ----------------------------------------------------------- */

/* Formats message into buffer (size bytes, NUL-terminated on return): brief,
 * one line "sender flag type op" plus a summary of the record's main fields;
 * or full, the columns and a dump of every field. Routing-socket statistics
 * (type 26) replace the columns with their table. 0, or -1 on overflow, a
 * null argument, a short message or an unreadable composite next hop. */
TARN_API int rtslib_format_output(rtslib_cookie *handle, char *buffer, int size, int brief,
                                  const void *message);

/* rtslib_format_output, brief, into RTSLIB_FORMAT_BRIEF_SIZE bytes. The
 * device (ifdev) summary is longer than that with the columns before it:
 * give device messages a larger buffer through rtslib_format_output. Other
 * records' summaries stop at the last field that fits the brief size. */
TARN_API int rtslib_format_brief_output(rtslib_cookie *handle, char *buffer, const void *message);

/* Full dumps into RTSLIB_FORMAT_FULL_SIZE bytes of buffer: a device record,
 * and a routing-socket statistics message (rtslib_rtsm_msg). 0 or -1. */
TARN_API int rtslib_ifdm_format_full_output(rtslib_cookie *handle, char *buffer,
                                            const ifdev_msg_t *message);
TARN_API int rtslib_rtsm_format_full_output(rtslib_cookie *handle, char *buffer,
                                            const void *message);

/* Formats message (RTSLIB_FORMAT_FULL_SIZE bytes) and writes it to stream,
 * then flushes it. The text is handed to fprintf as its format, so a '%' in
 * it is interpreted: callers that format untrusted names should use
 * rtslib_format_output and print the text themselves. On failure writes
 * "rtslib_format_output error: " and the strerror text of the result. A
 * null stream or message does nothing. */
TARN_API void rtslib_print_msg_to_file(rtslib_cookie *handle, FILE *stream, int brief,
                                       const void *message);

/* Renders a socket address ("inet 192.0.2.1", "inet6 2001:db8::1",
 * "link 00:11:22:33:44:55", otherwise the family name and the length) into
 * buf of len bytes and returns buf; "NA " for a null address. */
TARN_API const char *rtslib_format_sockaddr(const idl_sockaddr_gen_t *sa, char *buf, size_t len);

/* --- Routing-socket statistics (raw message type 26) -------------------- */

/* Counters of one operation code. */
typedef struct rtslib_rtsm_entry {
    uint64_t sndpkts;
    uint64_t sndbytes;
    uint64_t rcvpkts;
    uint64_t rcvbytes;
    uint32_t sndmaxpkt;
    uint32_t rcvmaxpkt;
} rtslib_rtsm_entry;

#define RTSLIB_RTSM_ENTRIES 9 /* operation codes 0 .. 8 */
#define RTSLIB_RTSM_TABLE 1   /* rtsm_kind of a table with a title line */

typedef struct rtslib_rtsm_msg {
    uint8_t hdr[24];       /* wire header: type 26, length >= sizeof(rtslib_rtsm_msg) */
    uint32_t rtsm_kind;    /* RTSLIB_RTSM_TABLE: print the title line */
    uint32_t rtsm_stats_op; /* which counters: rtslib_format_stats_op() */
    uint32_t rtsm_msg_type; /* the message type they count */
    uint32_t rtsm_reserved;
    rtslib_rtsm_entry entries[RTSLIB_RTSM_ENTRIES];
} rtslib_rtsm_msg;

TARN_END_DECLS

#endif /* TARN_RTSLIB_FORMAT_H */
