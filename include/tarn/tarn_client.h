/*
 * libtarn - client of the routing daemon tarn: sessions over a stream socket
 * framed by libqpipe, requests, and replies delivered through callback tables.
 *
 * Ownership: the caller owns a session from tarn_session_handle_alloc to
 * tarn_session_handle_free, and the callback tables it hands in (they must
 * outlive the session). Records passed to callbacks live only for the call.
 * NULL: a null session gives -1 with EINVAL; other required pointers are
 * named per call. Programming errors (a null header for tarn_client_msg_write,
 * a bad flash filter kind) end the process through an assertion naming the
 * source "lib/libtarn/tarn_client".
 * Errors: tarn_ calls return -1 and set errno. Every request needs an
 * accepted session: EINVAL (null), ENOTCONN (no socket), EBUSY (not yet
 * accepted by the routing daemon).
 * Threads: none started, no locks; a session belongs to the thread of the
 * caller's event loop, which watches the descriptors the session hands out
 * and calls back into it. A callback may close its session (the
 * connection-lost slot is expected to) but must not free it.
 *
 * Writing never blocks. With the direct writer (no want-write slot) a request
 * the socket cannot take whole fails with EAGAIN and nothing of it is sent.
 * With the queueing writer it is queued and leaves, in order, on later
 * tarn_session_write_callback calls. Should the socket take only part of a
 * message, the pipe keeps the rest and sends it before anything else; such a
 * message counts as sent, it is never queued or sent again.
 */
#ifndef TARN_TARN_CLIENT_H
#define TARN_TARN_CLIENT_H

#include <sys/uio.h>
#include <tarn/common.h>

TARN_BEGIN_DECLS

/* ---------------------------------------------------------------------------
 * Wire: 8-byte message header in host order (see <qpipe/ipc_pipe.h>), then a
 * payload whose 16- and 32-bit fields are in network order. Family codes in
 * payloads: TARN_FAMILY_INET (4 address bytes used) and TARN_FAMILY_INET6;
 * address fields are 16 bytes, IPv4 in the first 4. Strings carry their NUL
 * and their length counts it.
 * ------------------------------------------------------------------------- */

#define TARN_SESSION_BUFSIZE 8192 /* pipe buffer of a session */
#define TARN_MSG_MAX_PAYLOAD (TARN_SESSION_BUFSIZE - 8)

#define TARN_FAMILY_INET 1
#define TARN_FAMILY_INET6 6

/* Address kinds of tarn_session_connect's address record (byte 1). */
#define TARN_CONNECT_KIND_INET 1
#define TARN_CONNECT_KIND_LOCAL 30

/* Message types. Requests: */
#define TARN_MSG_PROTOCOL_REGISTER 0
#define TARN_MSG_RT_ADD 2
#define TARN_MSG_RT_DELETE 4
#define TARN_MSG_RT_LOOKUP 6
#define TARN_MSG_RT_TABLE_LOCATE 9
#define TARN_MSG_PROTOCOL_UNREGISTER 10
#define TARN_MSG_RT_CHANGE_GATEWAY 13
#define TARN_MSG_MASTER_INDICATION 17
#define TARN_MSG_RSVP_LSP_LOOKUP 18
#define TARN_MSG_LDP_FEC_LOOKUP 20
#define TARN_MSG_VPN_PFX_LOOKUP 22
#define TARN_MSG_ENDPT_LOOKUP 24
#define TARN_MSG_LSPMON_LOOKUP 27
#define TARN_MSG_L2VPN_LOOKUP 29
#define TARN_MSG_L2CKT_LOOKUP 31
#define TARN_MSG_RR_RESTART 33
#define TARN_MSG_RA_ADD 34
#define TARN_MSG_RA_DELETE 36
#define TARN_MSG_RSVP_P2MP_LSP_LOOKUP 38
#define TARN_MSG_LOCAL_AS_BY_NAME 40
#define TARN_MSG_TDMPW_LOOKUP 43
#define TARN_MSG_BW_UPDATE 45
#define TARN_MSG_CLEANUP_DATA 46
#define TARN_MSG_LDP_P2MP_FEC_LOOKUP 47
#define TARN_MSG_STATIC_LSP_LOOKUP 49
#define TARN_MSG_NBR_DOWN_UPDATE 51
#define TARN_MSG_BGP_FEC_LOOKUP 52
#define TARN_MSG_FLASH_REGISTER 54
#define TARN_MSG_MDIAGD_P2MP_REQUEST 56
#define TARN_MSG_L2VPN_FEC129_LOOKUP 58
#define TARN_MSG_CLIENT_IDENTIFY 71
/* Replies and notifications: */
#define TARN_MSG_PROTOCOL_REGISTER_REPLY 1
#define TARN_MSG_RT_ADD_REPLY 3
#define TARN_MSG_RT_DELETE_REPLY 5
#define TARN_MSG_RT_LOOKUP_REPLY 7
#define TARN_MSG_RT_TABLE_LOCATE_REPLY 8
#define TARN_MSG_PROTOCOL_UNREGISTER_REPLY 11
#define TARN_MSG_CONNECTION_ANSWER 12
#define TARN_MSG_RT_CHANGE_GATEWAY_REPLY 14
#define TARN_MSG_RT_FLASH 16
#define TARN_MSG_LDP_FEC_REPLY 21
#define TARN_MSG_RA_ADD_REPLY 35
#define TARN_MSG_RA_DELETE_REPLY 37
#define TARN_MSG_LOCAL_AS_REPLY 41
#define TARN_MSG_FLASH_REGISTER_REPLY 55
#define TARN_MSG_TYPE_MAX 78 /* higher types are ignored */

/* Connection answer (type 12): one u32, TARN_CONNECTION_ACCEPTED or any other
 * value for a refusal. */
#define TARN_CONNECTION_ACCEPTED 11

#define TARN_IDENTIFY_LEN 64 /* type 71: NUL-padded name, at most 63 chars */

/* Result codes carried by replies (texts: tarn_rt_get_error_code_string). */
enum {
    TARN_RC_SUCCESS = 0,
    TARN_RC_PROTO_REG_NOT_FOUND = 1,
    TARN_RC_PROTO_REG_ADDR_INVALID = 2,
    TARN_RC_PROTO_REG_IN_USE = 3,
    TARN_RC_PROTO_UNREG_DIFFERENT = 4,
    TARN_RC_PROTO_UNREG_NOT_FOUND = 5,
    TARN_RC_TABLE_NOT_FOUND = 6,
    TARN_RC_LOCAL_AS_NOT_FOUND = 7,
    TARN_RC_RT_ADD_FAILED = 8,
    TARN_RC_RT_ADD_NEXTHOP_ECMP_LIMIT = 17,
    TARN_RC_RT_DELETE_NOT_FOUND = 20,
    TARN_RC_RT_LOOKUP_TABLE_NOT_FOUND = 25,
    TARN_RC_RT_LOOKUP_NOT_FOUND = 27,
    TARN_RC_RT_CHGW_INVALID_GW = 30,
    TARN_RC_RT_CHGW_INVALID_IFL = 31,
    TARN_RC_RT_CHGW_IFL_CREATE = 32,
    TARN_RC_ALIAS_ADD_REPLY_FAILED = 34,
    TARN_RC_ALIAS_ADD_IFL_LOOKUP = 35,
    TARN_RC_ALIAS_DELETE_REPLY_FAILED = 40,
    TARN_RC_ALIAS_DELETE_IFF_NOT_FOUND = 41,
    TARN_RC_FLASH_INVALID_TABLE = 43,
    TARN_RC_FLASH_INVALID_OPERATION = 44,
    TARN_RC_FLASH_DELETE_NOT_FOUND = 45,
    TARN_RC_FLASH_INVALID_FILTER = 46
};

#define TARN_RT_MAX_NEXTHOPS 16

/* Next hop, 24 bytes (route requests and route records). */
typedef struct tarn_rt_nexthop {
    uint32_t nh_ifl_index;
    uint8_t nh_family;
    uint8_t nh_pad0;
    uint16_t nh_pad1;
    uint8_t nh_gateway[16];
} tarn_rt_nexthop;

/* Route request, types 2/4/6: this 40-byte fixed part, then nh_count next
 * hops (route add only; 0 for delete and lookup). Length 40 + 24 n. */
typedef struct tarn_wire_rt_request {
    uint32_t rq_cookie;     /* echoed in the reply */
    uint32_t rq_table_id;
    uint32_t rq_gw_handle;  /* from the protocol registration reply */
    uint16_t rq_alias_key;  /* 0 unless sent by the alias machinery */
    uint8_t rq_alias_flag;  /* 1 when sent by the alias machinery */
    uint8_t rq_family;
    uint8_t rq_prefix[16];
    uint16_t rq_prefix_len;
    uint16_t rq_nh_count;   /* at most 16; more is answered with code 17 */
    uint32_t rq_preference;
} tarn_wire_rt_request;

/* Route add reply, type 3: this 16-byte part, then ra_count u32 route
 * handles (one per next hop installed). */
typedef struct tarn_wire_rt_add_reply {
    uint32_t ra_result;
    uint32_t ra_cookie;
    uint32_t ra_alias_key; /* low 16 bits */
    uint16_t ra_count;
    uint8_t ra_alias_flag;
    uint8_t ra_pad;
} tarn_wire_rt_add_reply;

/* Route delete reply, type 5 (16 bytes). */
typedef struct tarn_wire_rt_delete_reply {
    uint32_t rd_result;
    uint32_t rd_cookie;
    uint32_t rd_alias_key;
    uint8_t rd_alias_flag;
    uint8_t rd_pad[3];
} tarn_wire_rt_delete_reply;

/* Route record: lookup reply (type 7) and flash route-change notification
 * (type 16, cookie 0): this 44-byte part, then rr_nh_count next hops. */
typedef struct tarn_rt_record {
    uint32_t rr_result;
    uint32_t rr_cookie;
    uint32_t rr_table_id;
    uint16_t rr_prefix_len;
    uint8_t rr_family;
    uint8_t rr_nh_count; /* at most 16 */
    uint8_t rr_prefix[16];
    uint32_t rr_preference;
    uint32_t rr_gw_handle;  /* of the owning protocol */
    uint32_t rr_change;     /* flash: 1 added, 2 changed, 3 deleted; lookup: 0 */
    tarn_rt_nexthop rr_nexthops[TARN_RT_MAX_NEXTHOPS];
} tarn_rt_record;
#define TARN_RT_RECORD_FIXED_LEN 44
#define TARN_RT_FLASH_ADDED 1
#define TARN_RT_FLASH_CHANGED 2
#define TARN_RT_FLASH_DELETED 3

/* Table locate (type 9) and local AS by name (type 40): this 8-byte part,
 * then the name with its NUL (nr_name_len bytes). */
typedef struct tarn_wire_name_request {
    uint32_t nr_cookie;
    uint16_t nr_name_len;
    uint16_t nr_pad;
} tarn_wire_name_request;

/* Table locate reply, type 8 (12 bytes): result 0 or 6. */
typedef struct tarn_wire_table_reply {
    uint32_t tr_result;
    uint32_t tr_cookie;
    uint32_t tr_table_id;
} tarn_wire_table_reply;

/* Protocol registration, type 0: this 16-byte part, the name with its NUL,
 * then pr_addr_len address bytes. */
typedef struct tarn_wire_proto_register {
    uint32_t pr_value_b;
    uint32_t pr_value_a;
    uint32_t pr_name_len;
    uint16_t pr_addr_len; /* 0, 4 or 16 */
    uint16_t pr_family;   /* 0, 1 or 6 */
} tarn_wire_proto_register;

/* Protocol registration reply, type 1 (16 bytes): result 0-3. */
typedef struct tarn_wire_proto_register_reply {
    uint32_t prr_result;
    uint32_t prr_value_b;   /* the request's value_b */
    uint32_t prr_gw_handle;
    uint16_t prr_proto_index;
    uint16_t prr_pad;
} tarn_wire_proto_register_reply;

/* Protocol unregistration, type 10 (8 bytes), and its reply, type 11
 * (8 bytes: result 0, 4 or 5, then value_2 echoed). */
typedef struct tarn_wire_proto_unregister {
    uint32_t pu_value_2;
    uint32_t pu_value_1;
} tarn_wire_proto_unregister;

/* Route change gateway, type 13 (32 bytes). */
typedef struct tarn_wire_chgw_request {
    uint32_t cg_cookie;
    uint32_t cg_gw_handle;
    uint32_t cg_ifl_index;
    uint8_t cg_family;
    uint8_t cg_pad[3];
    uint8_t cg_gateway[16];
} tarn_wire_chgw_request;

/* Its reply, type 14: this 12-byte part, then cr_count u32 table ids. */
typedef struct tarn_wire_chgw_reply {
    uint32_t cr_result;
    uint32_t cr_cookie;
    uint16_t cr_count;
    uint16_t cr_pad;
} tarn_wire_chgw_reply;

/* Local AS reply, type 41 (20 bytes): result 0 or 7. */
typedef struct tarn_local_as_reply {
    uint32_t la_result;
    uint32_t la_cookie;
    uint32_t la_local_as;
    uint32_t la_table_id;
    uint8_t la_confed_member;
    uint8_t la_pad[3];
} tarn_local_as_reply;

/* Bandwidth update, type 45: u32 count, then count of these. */
typedef struct tarn_bw_record {
    uint32_t bw_ifl_index;
    uint32_t bw_kbps;
} tarn_bw_record;

/* Neighbour-down update, type 51: u32 count, then count of these (24). */
typedef struct tarn_nbr_record {
    uint32_t nbr_ifl_index;
    uint8_t nbr_family;
    uint8_t nbr_pad[3];
    uint8_t nbr_address[16];
} tarn_nbr_record;

/* Flash registration filter: kind 1 or 2 (anything else is a programming
 * error); the three values travel as 16, 16 and 32 bits. */
typedef struct tarn_flash_filter {
    uint16_t ff_kind;
    uint16_t ff_a;
    uint16_t ff_b;
    uint16_t ff_pad;
    uint32_t ff_c;
} tarn_flash_filter;

/* Flash registration, type 54: 20 bytes, then an 8-byte filter when given. */
#define TARN_FLASH_REGISTER_LEN 20
#define TARN_FLASH_FILTER_LEN 8

/* Flash registration reply, type 55 (12 bytes): result 0 or 43-46. */
typedef struct tarn_flash_register_reply {
    uint32_t fr_result;
    uint32_t fr_a;        /* the request's `a` */
    uint32_t fr_table_id;
} tarn_flash_register_reply;

/* Route-alias record given to tarn_ra_add / tarn_ra_delete and delivered by
 * their answers (public slot 14). Request, types 34/36, 36 bytes: id, word 0
 * (network order), word 1 and bytes 8-29 unchanged, two zero bytes. Answer,
 * types 35/37: the record is rebuilt from payload word 2 (converted), the
 * word at offset 12, 16 bytes from 16 and 6 from 32 (unchanged). */
typedef struct tarn_ra_record {
    uint32_t ra_word0;
    uint32_t ra_word1;
    uint8_t ra_bytes[16];
    uint8_t ra_extra[6];
    uint8_t ra_pad[2];
} tarn_ra_record;
#define TARN_RA_REQUEST_LEN 36
#define TARN_RA_KIND_ADD 1
#define TARN_RA_KIND_DELETE 2

/* ---------------------------------------------------------------------------
 * Sessions
 * ------------------------------------------------------------------------- */

typedef struct tarn_session_handle tarn_session_handle;

/* Connection status of public slot 0. */
#define TARN_CONNECT_ACCEPTED 0
#define TARN_CONNECT_FAILED 1
#define TARN_CONNECT_REFUSED 2

/* Public callback table: slot 0 is required, slot 10 requires slot 11; a
 * null slot drops its event. Numeric arguments are in host order; records and
 * lists are aligned copies converted to host order, valid during the call. A
 * reply shorter than its fixed part, or whose count claims more entries than
 * its payload holds, is dropped without a call. */
typedef struct tarn_session_funs {
    /* 0: connect failed or the connection answer arrived. */
    void (*tsf_connection_status)(tarn_session_handle *, int zero, int status);
    /* 1: a read or write failed for good; call tarn_session_close. */
    void (*tsf_connection_lost)(tarn_session_handle *, int zero0, int zero1);
    /* 2: protocol registration reply (type 1). */
    void (*tsf_protocol_register)(tarn_session_handle *, uint32_t value_b, uint16_t proto_index,
                                  uint32_t gw_handle, uint32_t result);
    /* 3: protocol unregistration reply (type 11). */
    void (*tsf_protocol_unregister)(tarn_session_handle *, uint32_t result, uint32_t value_2);
    /* 4: route add reply (type 3): route handles, `count` of them. */
    void (*tsf_rt_add)(tarn_session_handle *, uint32_t cookie, uint32_t result,
                       const uint32_t *handles, uint16_t count);
    /* 5: route delete reply (type 5). */
    void (*tsf_rt_delete)(tarn_session_handle *, uint32_t cookie, uint32_t result);
    /* 6: route lookup reply (7) or flash notification (16); `len` is the
     * payload length (44 + 24 rr_nh_count). */
    void (*tsf_rt_record)(tarn_session_handle *, const tarn_rt_record *record, size_t len);
    /* 7: route change gateway reply (type 14): table ids, `count` of them. */
    void (*tsf_rt_change_gateway)(tarn_session_handle *, uint32_t result, uint32_t cookie,
                                  const uint32_t *tables, uint16_t count);
    void (*tsf_reserved8)(tarn_session_handle *);
    /* 9: table locate reply (type 8). */
    void (*tsf_rt_table_locate)(tarn_session_handle *, uint32_t table_id, uint32_t result,
                                uint32_t cookie);
    /* 10: a message waits in the output queue; watch for writability and
     * call tarn_session_write_callback. Setting it selects the queueing
     * writer. */
    void (*tsf_want_write)(tarn_session_handle *);
    /* 11: the output queue has become empty. */
    void (*tsf_write_drained)(tarn_session_handle *);
    /* 12: a pending alias operation failed (codes 34, 35, 40, 41). */
    void (*tsf_alias_result)(tarn_session_handle *, uint32_t id, int kind, uint32_t code);
    void (*tsf_reserved13)(tarn_session_handle *);
    /* 14: route-alias answer (35: kind 1, 37: kind 2). */
    void (*tsf_route_alias)(tarn_session_handle *, int kind, const tarn_ra_record *record);
    /* 15: local AS reply (type 41). */
    void (*tsf_local_as)(tarn_session_handle *, const tarn_local_as_reply *reply);
    /* 16: flash registration reply (type 55). */
    void (*tsf_flash_register)(tarn_session_handle *, const tarn_flash_register_reply *reply,
                               size_t len);
} tarn_session_funs;

/* Private callback table (LSP-ping query replies, records and layouts in
 * <tarn/tarn_lsping_query.h>), bound with tarn_session_bind_private_funs.
 * Each slot receives the reply's cookie and result code (host order), its
 * record converted into an aligned copy, and the payload length from offset
 * 8. Unsolicited types get the converted head and the rest as bytes; any
 * reply shorter than its 8-byte head is dropped. */
struct tarn_rsvp_lsp_info;
struct tarn_p2mp_info;
struct tarn_vpn_pfx_info;
struct tarn_endpt_info;
struct tarn_lspmon_info;
struct tarn_l2vpn_info;
struct tarn_l2ckt_info;
struct tarn_tdmpw_info;
struct tarn_static_lsp_info;
struct tarn_bgp_fec_info;
struct tarn_mdiagd_p2mp_info;

typedef void (*tarn_private_reply_fn)(tarn_session_handle *, uint32_t cookie, uint32_t result,
                                      const void *rest, size_t len);

typedef struct tarn_private_funs {
    /* 0: type 19 */
    void (*tpf_rsvp_lsp)(tarn_session_handle *, uint32_t cookie, uint32_t result,
                         const struct tarn_rsvp_lsp_info *, size_t len);
    /* 1: type 39 */
    void (*tpf_rsvp_p2mp_lsp)(tarn_session_handle *, uint32_t cookie, uint32_t result,
                              const struct tarn_p2mp_info *, size_t len);
    /* 2: LDP FEC reply (type 21): payload words 0 and 1, then the payload
     * from offset 8 (converted in place, `len` bytes; see tarn_ldp_fec_info). */
    void (*tpf_ldp_fec)(tarn_session_handle *, uint32_t word0, uint32_t word1, const void *rest,
                        size_t len);
    /* 3: type 48 */
    void (*tpf_ldp_p2mp_fec)(tarn_session_handle *, uint32_t cookie, uint32_t result,
                             const struct tarn_p2mp_info *, size_t len);
    /* 4: type 23 */
    void (*tpf_vpn_pfx)(tarn_session_handle *, uint32_t cookie, uint32_t result,
                        const struct tarn_vpn_pfx_info *, size_t len);
    /* 5: types 30 and 59 */
    void (*tpf_l2vpn)(tarn_session_handle *, uint32_t cookie, uint32_t result,
                      const struct tarn_l2vpn_info *, size_t len);
    tarn_private_reply_fn tpf_reserved6; /* 6: unused */
    /* 7: type 32 */
    void (*tpf_l2ckt)(tarn_session_handle *, uint32_t cookie, uint32_t result,
                      const struct tarn_l2ckt_info *, size_t len);
    /* 8: type 26 */
    void (*tpf_endpt)(tarn_session_handle *, uint32_t cookie, uint32_t result,
                      const struct tarn_endpt_info *, size_t len);
    /* 9: type 53 */
    void (*tpf_bgp_fec)(tarn_session_handle *, uint32_t cookie, uint32_t result,
                        const struct tarn_bgp_fec_info *, size_t len);
    /* 10: type 28 */
    void (*tpf_lspmon)(tarn_session_handle *, uint32_t cookie, uint32_t result,
                       const struct tarn_lspmon_info *, size_t len);
    /* 11: type 50 */
    void (*tpf_static_lsp)(tarn_session_handle *, uint32_t cookie, uint32_t result,
                           const struct tarn_static_lsp_info *, size_t len);
    /* 12: type 44 */
    void (*tpf_tdmpw)(tarn_session_handle *, uint32_t cookie, uint32_t result,
                      const struct tarn_tdmpw_info *, size_t len);
    /* 13: type 57 */
    void (*tpf_mdiagd_p2mp)(tarn_session_handle *, uint32_t cookie, uint32_t result,
                            const struct tarn_mdiagd_p2mp_info *, size_t len);
    tarn_private_reply_fn tpf_reply_77;    /* 14: type 77 */
    tarn_private_reply_fn tpf_reply_60_78; /* 15: types 60 and 78 */
    tarn_private_reply_fn tpf_reply_61;    /* 16: type 61 */
    tarn_private_reply_fn tpf_reply_75_76; /* 17: types 75 and 76 */
    tarn_private_reply_fn tpf_reply_72_73; /* 18: types 72 and 73 */
} tarn_private_funs;

/* A new idle session: 0, or -1 with EINVAL (funs null, slot 0 null, slot 10
 * without 11) or ENOMEM, or the error of opening the routing socket. */
TARN_API int tarn_session_handle_alloc(tarn_session_handle **session_out,
                                       const tarn_session_funs *funs);
/* Closes everything the session owns and frees it; NULL ignored. */
TARN_API void tarn_session_handle_free(tarn_session_handle *session);

/* Connects to the routing daemon. `address`: byte 0 its length, byte 1 its
 * kind; TARN_CONNECT_KIND_INET: port (bytes 2-3) and IPv4 address (4-7) in
 * network order; TARN_CONNECT_KIND_LOCAL: NUL-terminated path from byte 2.
 * `option` goes to IPv4 sockets as IP-level option 109 (result ignored).
 * 0 when connected at once; -1 with EINPROGRESS when the connect goes on
 * (wait for writability, then call tarn_session_reply_get); EISCONN when the
 * session has a socket; EAFNOSUPPORT for another kind. After any other
 * failure the session keeps the closed socket's number until
 * tarn_session_close. */
TARN_API int tarn_session_connect(tarn_session_handle *session, const void *address,
                                  uint32_t option);
/* Closes the socket and drops queued messages and pending alias operations
 * (the queue size keeps counting them): 0, or -1 when null or not
 * connected. */
TARN_API int tarn_session_close(tarn_session_handle *session);
TARN_API int tarn_session_handle_descriptor(const tarn_session_handle *session);
TARN_API int tarn_session_handle_rtsock_descriptor(const tarn_session_handle *session);
TARN_API int tarn_session_queue_size(const tarn_session_handle *session);
TARN_API void tarn_session_set_context(tarn_session_handle *session, void *context);
TARN_API void *tarn_session_return_context(const tarn_session_handle *session);
/* 0, or -1 with EINVAL when either argument is null. */
TARN_API int tarn_session_bind_private_funs(tarn_session_handle *session,
                                            const tarn_private_funs *funs);
/* The session socket is writable: sends at most one queued message. */
TARN_API void tarn_session_write_callback(tarn_session_handle *session);
/* The session socket is readable (or, connecting, writable): completes a
 * connect or dispatches at most one message. 0, or -1 with errno: ENOMSG
 * when no complete message is there yet, EAGAIN when the socket had nothing,
 * EPIPE when the daemon closed, EMSGSIZE when it announced a payload over
 * TARN_MSG_MAX_PAYLOAD. The last two, and other socket errors, also call
 * public slot 1. */
TARN_API int tarn_session_reply_get(tarn_session_handle *session);
/* The routing-socket descriptor is readable: reads and drops what it has.
 * 0, or -1 with errno. */
TARN_API int tarn_session_rtsock_event(tarn_session_handle *session);

struct ipc_msg; /* <qpipe/ipc_pipe.h> */

/* Sends one message built by the caller: the header's type and length, then
 * hdr->length bytes of `payload`. */
TARN_API int tarn_client_msg_write(tarn_session_handle *session, const struct ipc_msg *hdr,
                                   const void *payload);
/* Type 71: `name` of at most 63 characters (EINVAL otherwise). */
TARN_API int tarn_client_identify(tarn_session_handle *session, const char *name);

/* Text of a result code; "invalid error code" for an unknown one. */
TARN_API const char *tarn_rt_get_error_code_string(uint32_t code);

/* Copies from `src` (from src_offset bytes in) to `dst` (from dst_offset)
 * until either list ends: the bytes copied (0 when either list is null). */
TARN_API int iovcpy(const struct iovec *dst, int dst_count, size_t dst_offset,
                    const struct iovec *src, int src_count, size_t src_offset);
/* 1 for the application identifiers 3 and 5, else 0. */
TARN_API int tag_p2mp_pvc_appl_id_is_vpls(uint8_t id);

/* ---------------------------------------------------------------------------
 * Requests. Each returns 0 once the message is sent or queued, -1 with errno
 * otherwise (the session checks above, EINVAL for bad arguments, the
 * writer's error).
 * ------------------------------------------------------------------------- */

/* Caller's route request (host order). */
typedef struct tarn_rt_request {
    uint32_t rt_cookie;
    uint32_t rt_table_id;
    uint32_t rt_gw_handle;
    uint8_t rt_family;       /* TARN_FAMILY_INET or TARN_FAMILY_INET6 */
    uint8_t rt_pad;
    uint16_t rt_prefix_len;
    uint8_t rt_prefix[16];
    uint32_t rt_preference;
    uint16_t rt_nh_count;    /* at most TARN_RT_MAX_NEXTHOPS (EINVAL) */
    uint16_t rt_pad2;
    tarn_rt_nexthop rt_nexthops[TARN_RT_MAX_NEXTHOPS];
} tarn_rt_request;

TARN_API int tarn_rt_add(tarn_session_handle *session, const tarn_rt_request *request);
/* Delete and lookup send no next hops. */
TARN_API int tarn_rt_delete(tarn_session_handle *session, const tarn_rt_request *request);
TARN_API int tarn_rt_lookup(tarn_session_handle *session, const tarn_rt_request *request);
/* `name` NUL-terminated, at most 255 characters. */
TARN_API int tarn_rt_table_locate(tarn_session_handle *session, const char *name,
                                  uint32_t cookie);
TARN_API int tarn_rt_change_gateway(tarn_session_handle *session, uint32_t cookie,
                                    uint32_t gw_handle, uint32_t ifl_index, uint8_t family,
                                    const uint8_t gateway[16]);
TARN_API int tarn_master_indication(tarn_session_handle *session);
TARN_API int tarn_rr_restart(tarn_session_handle *session);
TARN_API int tarn_cleanup_data(tarn_session_handle *session);
TARN_API int tarn_local_as_by_name(tarn_session_handle *session, const char *name,
                                   uint32_t cookie);
/* `count` records, 1 to (8184 - 4) / 8. */
TARN_API int tarn_bw_update(tarn_session_handle *session, const tarn_bw_record *records,
                            uint32_t count);
/* `count` records, 1 to (8184 - 4) / 24. */
TARN_API int tarn_nbr_down_update(tarn_session_handle *session, const tarn_nbr_record *records,
                                  uint32_t count);

/* Protocol registration: `address` optional, byte 1 its family code (1: the
 * 4 bytes at offset 4, 6: the 16 bytes at offset 12; other: EAFNOSUPPORT). */
TARN_API int tarn_session_protocol_register(tarn_session_handle *session, const char *name,
                                            const void *address, uint32_t value_a,
                                            uint32_t value_b);
TARN_API int tarn_session_protocol_unregister(tarn_session_handle *session, uint32_t value_1,
                                              uint32_t value_2);
/* `filter` optional. */
TARN_API int tarn_rt_flash_register_request(tarn_session_handle *session, uint32_t a, uint16_t b,
                                            uint32_t c, uint16_t d, uint32_t e,
                                            const tarn_flash_filter *filter);
TARN_API int tarn_ra_add(tarn_session_handle *session, const tarn_ra_record *record, uint32_t id);
TARN_API int tarn_ra_delete(tarn_session_handle *session, const tarn_ra_record *record,
                            uint32_t id);

/* ---------------------------------------------------------------------------
 * Interface aliases
 *
 * Operations on one alias key run one at a time, in the order given: the
 * first of a key sends its route request (add: type 2, delete: type 4, marked
 * as an alias operation and carrying the key) at once, later ones wait in the
 * session until the operations ahead of them are finished. The routing
 * daemon's answer finishes an operation:
 * - a failure result is reported through public slot 12 with
 *   TARN_RC_ALIAS_ADD_REPLY_FAILED (34) or TARN_RC_ALIAS_DELETE_REPLY_FAILED
 *   (40);
 * - on success the session looks up, through its own routing-socket handle,
 *   for an add the logical interface (al_ifname, al_unit) and the route
 *   (al_route's table, family and prefix), for a delete the interface family
 *   and address of al_route's first next hop's interface; a lookup that
 *   fails for another reason than "not there" is reported through slot 12
 *   with TARN_RC_ALIAS_ADD_IFL_LOOKUP (35) or TARN_RC_ALIAS_DELETE_IFF_NOT_FOUND
 *   (41); a successful operation is not reported;
 * - then the key's next operation sends its request; one whose request
 *   cannot be written is reported with 33 (add) or 39 (delete).
 * Closing the session drops every pending operation unreported.
 * ------------------------------------------------------------------------- */

/* Interface-alias request: 1356 bytes on every ABI. */
typedef struct tarn_alias_request {
    uint16_t al_key;          /* operations of one key are serialised */
    uint8_t al_family;        /* TARN_FAMILY_INET or TARN_FAMILY_INET6 */
    uint8_t al_pad;
    char al_ifname[64];       /* device name of the aliased interface, NUL-terminated */
    uint32_t al_unit;         /* its logical unit */
    tarn_rt_request al_route; /* the alias route; its cookie becomes the operation's id */
    uint8_t al_reserved[860]; /* zero */
} tarn_alias_request;
#define TARN_ALIAS_REQUEST_LEN 1356

/* Queue an alias add or delete with the caller's identifier `id` (returned in
 * slot 12 reports and as the route request's cookie). 0 when queued (and,
 * for the first of its key, sent); -1 with the session checks' errors,
 * EINVAL for a null request, an unterminated name, a bad family or too many
 * next hops, ENOMEM when the session cannot hold the operation, or the
 * writer's error when the first request of a key cannot be sent (nothing is
 * kept then). */
TARN_API int tarn_alias_add(tarn_session_handle *session, const tarn_alias_request *request,
                            uint32_t id);
TARN_API int tarn_alias_delete(tarn_session_handle *session, const tarn_alias_request *request,
                               uint32_t id);

TARN_END_DECLS

#endif /* TARN_TARN_CLIENT_H */
