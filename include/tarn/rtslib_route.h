/*
 * libtarn - routes, route tables, route statistics and multicast groups.
 *
 * Each call builds one request in a fresh 16,384-byte buffer, stamps the
 * handle's next sequence number into it (except rtslib_rtm_delete, whose
 * record is the caller's), writes it IDL-encoded and, where an answer is
 * expected, reads and decodes it.
 *
 * Ownership: decoded answers (*record_out) are the caller's; release them
 * with rtslib_msg_idl_release. Records passed in stay the caller's.
 * Results: 0 or an errno value (EINVAL for a null handle or missing required
 * argument, ENOMEM when no buffer can be had), the results of the message
 * I/O calls (RTSLIB_SEQ_MISMATCH, EIO, EAGAIN, ...), unchanged. On any
 * failure *record_out is NULL.
 * Threads: the handle's thread only.
 */
#ifndef TARN_RTSLIB_ROUTE_H
#define TARN_RTSLIB_ROUTE_H

#include <tarn/common.h>
#include <tarn/idl.h>
#include <tarn/rtslib.h>

TARN_BEGIN_DECLS

/* Message versions of the requests built here. */
#define RTS_ROUTE_VERSION 104   /* 'h' */
#define RTS_RTTABLE_VERSION 98  /* 'b' */
#define RTS_RTSTATS_VERSION 101 /* 'e' */
#define RTS_MGROUP_VERSION 99   /* 'c' */

/* Fixed-part lengths stamped into request headers (the target's). */
#define RTS_ROUTE_FIXED_LEN 228
#define RTS_RTTABLE_FIXED_LEN 184
#define RTS_RTSTATS_FIXED_LEN 48
#define RTS_MGROUP_FIXED_LEN 52

/* Header byte 7 of an add that asks for an acknowledgement. */
#define RTS_OP_FLAG_ACK 2

/* Route-table flag of the default table (added without a name). */
#define RTS_RTTABLE_FLAG_DEFAULT 0x8
/* Names longer than this are cut. */
#define RTS_RTTABLE_NAME_MAX 127

#define RTS_RTSTATS_COUNTERS 9

/* A socket address as the kernel carries it: its length byte first. */
typedef struct rts_sockaddr {
    uint8_t sa_len;
    uint8_t sa_family;
    uint8_t sa_data[254];
} rts_sockaddr;

/* --- Routes --------------------------------------------------------------- */

/* Adds a route to table tid. The prefix is plen bits from prefix. source, when
 * not NULL and of non-zero length, is the route's source address. With
 * ack_index non-NULL the kernel is asked to acknowledge the add and the index
 * it gave the route is stored there (a failed read of the acknowledgement is
 * reported). word1, word2 and word3 fill the route's instance id, owner id and
 * route tag; byte47 its lookup flags. */
TARN_API int rtslib_rtm_add(rtslib_cookie *handle, uint16_t tid, uint8_t af, uint8_t type,
                            uint16_t flags, uint8_t nh, uint8_t nhflags, uint8_t word3,
                            uint32_t word1, uint32_t word2, uint32_t nhidx, uint8_t byte47,
                            const uint8_t *prefix, uint16_t plen, const rts_sockaddr *source,
                            uint32_t *ack_index);

/* Sends the caller's route record as a delete. Its sequence number is left as
 * the caller set it. */
TARN_API int rtslib_rtm_delete(rtslib_cookie *handle, rt_msg_t *record);

/* Deletes the route with this prefix from table tid. */
TARN_API int rtslib_rtm_delete_prefix(rtslib_cookie *handle, uint16_t tid, uint8_t af,
                                      uint8_t type, uint16_t flags, const uint8_t *prefix,
                                      uint16_t plen, uint32_t word2);

/* Sends a route request with operation op; for RTS_OP_GET (exact match) and
 * RTS_OP_GETNEXT (the next route in prefix order) it reads the answer into
 * *record_out (required for those: EINVAL, checked before anything else). */
TARN_API int rtslib_rtm_get(rtslib_cookie *handle, uint16_t tid, uint8_t af,
                            const uint8_t *prefix, uint16_t plen, uint8_t type, uint8_t flags,
                            uint32_t word1, uint8_t byte47, uint8_t op, rt_msg_t **record_out,
                            void **map_out);

/* rtslib_rtm_get in table 0 with no prefix. */
TARN_API int rtslib_rtm_get_by_type(rtslib_cookie *handle, uint8_t af, uint8_t type, uint8_t op,
                                    rt_msg_t **record_out, void **map_out);

/* rtslib_rtm_get in table 0 with this prefix and every other value 0. */
TARN_API int rtslib_rtm_get_by_prefix(rtslib_cookie *handle, uint8_t af, const uint8_t *prefix,
                                      uint16_t plen, uint8_t op, rt_msg_t **record_out,
                                      void **map_out);

/* Sends the caller's record with operation op and a fresh sequence number;
 * for RTS_OP_GET and RTS_OP_GETNEXT reads the answer (the _pa form into the
 * caller's arena). */
TARN_API int rtslib_rtm_get_with_msg(rtslib_cookie *handle, rt_msg_t *record, uint8_t op,
                                     rt_msg_t **record_out, void **map_out);
TARN_API int rtslib_rtm_get_with_msg_pa(rtslib_cookie *handle, rt_msg_t *record, uint8_t op,
                                        rt_msg_t **record_out, void **map_out, void *arena_base,
                                        uint32_t arena_size);

/* --- Route tables --------------------------------------------------------- */

/* Adds route table tid named `name` (NULL: the default table, sent as
 * "default" with RTS_RTTABLE_FLAG_DEFAULT) in the logical router `lr_name`.
 * Names are cut at RTS_RTTABLE_NAME_MAX characters. byte7 goes in the header
 * byte after the operation. */
TARN_API int rtslib_rtbm_add_lr(rtslib_cookie *handle, const char *name, uint16_t tid, uint8_t af,
                                const char *lr_name, uint8_t lr_byte, uint8_t byte7);

/* rtslib_rtbm_add_lr in the logical router "null" with logical-router byte 0. */
TARN_API int rtslib_rtbm_add(rtslib_cookie *handle, const char *name, uint16_t tid, uint8_t af,
                             uint8_t byte7);

/* Sends a table record with operation op: word1, word2 and half fill the
 * table's extended id and attributes; name may be NULL. */
TARN_API int rtslib_rtbm_update(rtslib_cookie *handle, uint16_t tid, uint8_t af, uint32_t word1,
                                const char *name, uint32_t word2, uint16_t half, uint8_t op);

/* Ask for one table, by index (with operation op) or by name, and read the
 * answer into *record_out (required; checked first). */
TARN_API int rtslib_rtbm_get_by_index(rtslib_cookie *handle, uint8_t af, uint16_t tid, uint8_t op,
                                      rtb_msg_t **record_out, void **map_out);
TARN_API int rtslib_rtbm_get_by_name(rtslib_cookie *handle, uint8_t af, const char *name,
                                     rtb_msg_t **record_out, void **map_out);

/* --- Route statistics ------------------------------------------------------ */

/* Asks for the statistics of a prefix (bits long, in 32-bit words) and stores
 * the kernel's RTS_RTSTATS_COUNTERS counters in stats_out. Blocks until the
 * kernel answers. ENOENT when the answer is not one for this request. a, b, e
 * and d are passed to the kernel as they are: af, table id, statistics kind
 * and logical-router id in the kernel's layout. */
TARN_API int rtslib_rtstats_get(rtslib_cookie *handle, uint8_t a, uint16_t b, uint8_t e,
                                uint32_t d, uint16_t bits, const uint32_t *prefix,
                                uint32_t stats_out[RTS_RTSTATS_COUNTERS]);

/* --- Multicast groups ------------------------------------------------------ */

/* Sends a multicast-group request for the group address of `bits` bits (none
 * when bits is 0); for RTS_OP_GET and RTS_OP_GETNEXT reads the answer into
 * *record_out (required for those). */
TARN_API int rtslib_mgrm_get(rtslib_cookie *handle, uint16_t tid, uint8_t af, const void *group,
                             uint16_t bits, uint8_t op, mgr_msg_t **record_out, void **map_out);

TARN_END_DECLS

#endif /* TARN_RTSLIB_ROUTE_H */
