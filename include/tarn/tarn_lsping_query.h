/*
 * libtarn - LSP-ping information queries to the routing daemon tarn: one
 * request per kind of path, answered later through the private callback
 * table (tarn_session_bind_private_funs) with the record of that kind.
 *
 * Ownership: strings are read during the call only. Records handed to the
 * private slots, and the lists they point to, live only for the call.
 * NULL: a null required string gives EINVAL; optional strings (marked) may
 * be NULL, which sends them with length 0.
 * Errors: -1 with errno: the session checks of tarn_client.h (EINVAL,
 * ENOTCONN, EBUSY), EINVAL for a string over TARN_LSPING_NAME_MAX
 * characters, or the writer's error. 0 once the request is sent or queued.
 * Threads: as the session (the caller's event-loop thread).
 *
 * Wire: every payload integer in network order; strings carry their NUL and
 * their u16 length counts it. Each request is a fixed part (cookie first,
 * then keys, then the string lengths) followed by one piece per string.
 * Replies open with u32 cookie, u32 result code (texts: <tarn/tarn_lsping.h>)
 * and carry their record from payload offset 8. A label stack is a u8 count
 * and 3 zero bytes, then that many u32 labels; a next hop is u32 interface
 * index, u8 family code, 3 zero bytes, 16 address bytes. A reply whose label
 * count is above TARN_LSPING_MAX_LABELS, or whose lists, labels or entries
 * do not fit its payload, is dropped without a call. A reply shorter than
 * its full record (as it would be for a failure without one) is dropped too:
 * the daemon always sends the whole record, zero-filled on failure.
 */
#ifndef TARN_TARN_LSPING_QUERY_H
#define TARN_TARN_LSPING_QUERY_H

#include <tarn/tarn_client.h>
#include <tarn/tarn_lsping.h>

TARN_BEGIN_DECLS

#define TARN_LSPING_MAX_LABELS 5
#define TARN_LSPING_NAME_MAX 255 /* characters of any string of a query */

/* RSVP LSP flags (type 18). */
#define TARN_RSVP_LSP_STANDBY 0x1u
#define TARN_RSVP_LSP_BYPASS 0x2u
#define TARN_RSVP_LSP_CCC 0x4u

/* Reply types beside the LDP FEC reply of tarn_client.h. */
#define TARN_MSG_RSVP_LSP_REPLY 19
#define TARN_MSG_VPN_PFX_REPLY 23
#define TARN_MSG_ENDPT_REPLY 26
#define TARN_MSG_LSPMON_REPLY 28
#define TARN_MSG_L2VPN_REPLY 30
#define TARN_MSG_L2CKT_REPLY 32
#define TARN_MSG_RSVP_P2MP_LSP_REPLY 39
#define TARN_MSG_TDMPW_REPLY 44
#define TARN_MSG_LDP_P2MP_FEC_REPLY 48
#define TARN_MSG_STATIC_LSP_REPLY 50
#define TARN_MSG_BGP_FEC_REPLY 53
#define TARN_MSG_MDIAGD_P2MP_REPLY 57
#define TARN_MSG_L2VPN_FEC129_REPLY 59

/* Path kinds of an RSVP reply (also result texts 13-15). */
#define TARN_RSVP_PATH_PRIMARY 13
#define TARN_RSVP_PATH_SECONDARY 14
#define TARN_RSVP_PATH_BYPASS 15

/* End-point protocols. */
#define TARN_ENDPT_RSVP 1
#define TARN_ENDPT_LDP 2
#define TARN_ENDPT_BGP 3

/* ---------------------------------------------------------------------------
 * Requests. Fixed parts (bytes) and string pieces, in order:
 *  18 RSVP LSP      16: cookie, flags, u16 lsp, u16 path, u16 ifl, u16 0;
 *                       LSP name, path name (opt), IFL name (opt)
 *  38 RSVP P2MP     16: as 18 with flags 0 and no IFL name
 *  20 LDP FEC       12: cookie, address, u16 prefix length, u16 n; instance
 *  52 BGP FEC       12: as 20
 *  22 VPN prefix    24: cookie, u8 family, u8 prefix length, u16 n,
 *                       16-byte prefix; VPN name
 *  24 end point     24: as 22; instance name
 *  27 LSP monitor    8: cookie, u16 n, u16 0; LSP name
 *  49 static LSP     8: as 27
 *  29 L2VPN         12: cookie, u16 local site, u16 remote site, u16 vpn,
 *                       u16 ifname; VPN name, interface name (opt)
 *  58 FEC-129       12: cookie, u16 vpn, u16 sai, u16 tai, u16 0; VPN, SAI, TAI
 *  31 L2 circuit    16: cookie, neighbour, VC id, u16 n, u16 0; interface (opt)
 *  47 LDP P2MP FEC  16: cookie, root, opaque LSP id, u16 n, u16 0; instance
 *  43 TDM PW, 56 P2MP diagnostic: 4: cookie
 * ------------------------------------------------------------------------- */

/* An IPv4 FEC, host order. */
typedef struct tarn_lsping_fec {
    uint32_t fec_address;
    uint16_t fec_prefix_len;
    uint16_t fec_pad;
} tarn_lsping_fec;

TARN_API int tarn_rsvp_lsp_lookup(tarn_session_handle *session, const char *lsp_name,
                                  const char *path_name, const char *ifl_name, uint32_t flags,
                                  uint32_t cookie);
TARN_API int tarn_rsvp_p2mp_lsp_lookup(tarn_session_handle *session, const char *lsp_name,
                                       const char *path_name, uint32_t cookie);
/* `instance` may be "" (the master instance): it travels as its NUL alone. */
TARN_API int tarn_ldp_fec_lookup(tarn_session_handle *session, const tarn_lsping_fec *fec,
                                 const char *instance, uint32_t cookie);
TARN_API int tarn_bgp_fec_lookup(tarn_session_handle *session, const tarn_lsping_fec *fec,
                                 const char *instance, uint32_t cookie);
/* `family` TARN_FAMILY_INET or TARN_FAMILY_INET6 (EINVAL otherwise); prefix
 * length at most 32 or 128 (EINVAL). */
TARN_API int tarn_vpn_pfx_lookup(tarn_session_handle *session, uint8_t family,
                                 const uint8_t prefix[16], uint8_t prefix_len, const char *vpn,
                                 uint32_t cookie);
TARN_API int tarn_endpt_lookup(tarn_session_handle *session, uint8_t family,
                               const uint8_t prefix[16], uint8_t prefix_len,
                               const char *instance, uint32_t cookie);
TARN_API int tarn_lspmon_lookup(tarn_session_handle *session, const char *lsp_name,
                                uint32_t cookie);
TARN_API int tarn_static_lsp_lookup(tarn_session_handle *session, const char *lsp_name,
                                    uint32_t cookie);
TARN_API int tarn_l2vpn_lookup(tarn_session_handle *session, const char *vpn,
                               uint16_t local_site, uint16_t remote_site, const char *ifname,
                               uint32_t cookie);
TARN_API int tarn_l2vpn_fec129_lookup(tarn_session_handle *session, const char *vpn,
                                      const char *sai, const char *tai, uint32_t cookie);
TARN_API int tarn_l2ckt_lookup(tarn_session_handle *session, uint32_t neighbour,
                               uint32_t vc_id, const char *ifname, uint32_t cookie);
TARN_API int tarn_ldp_p2mp_fec_lookup(tarn_session_handle *session, uint32_t root,
                                      uint32_t opaque_id, const char *instance, uint32_t cookie);
TARN_API int tarn_tdmpw_lookup(tarn_session_handle *session, uint32_t cookie);
TARN_API int tarn_mdiagd_p2mp_request(tarn_session_handle *session, uint32_t cookie);

/* ---------------------------------------------------------------------------
 * Reply records, host order, delivered as (session, cookie, result, record,
 * len) where len is the payload's length from offset 8. Wire record layouts
 * (from payload offset 8):
 *  19 RSVP LSP:   path kind, source, destination, tunnel id, LSP id, next hop,
 *                 labels
 *  39/48 P2MP:    u32 id, u16 branch count, u16 0, branches of {u32
 *                 destination, next hop, labels}, each as long as its labels
 *  23 VPN prefix: 8-byte RD, protocol next hop, next hop, labels
 *  26 end point:  protocol, next hop, labels
 *  28 LSP monitor: state, source, destination, up-time seconds
 *  30/59 L2VPN:   8-byte RD, remote PE, control-word flags, next hop, labels
 *  32 L2 circuit: encapsulation, control-word flags, next hop, labels
 *  44 TDM PW:     pseudowire id, neighbour, state
 *  50 static LSP: state, next hop, labels
 *  53 BGP FEC:    FEC address, u32 prefix length, next hop, labels
 *  57 P2MP diag:  u32 count, that many u32 P2MP ids
 *  21 LDP FEC:    see tarn_ldp_fec_info
 * ------------------------------------------------------------------------- */

typedef struct tarn_lsping_nexthop {
    uint32_t nh_ifl_index;
    uint8_t nh_family;
    uint8_t nh_pad[3];
    uint8_t nh_address[16];
} tarn_lsping_nexthop;

typedef struct tarn_lsping_labels {
    uint32_t lb_count; /* at most TARN_LSPING_MAX_LABELS */
    uint32_t lb_labels[TARN_LSPING_MAX_LABELS];
} tarn_lsping_labels;

typedef struct tarn_rsvp_lsp_info {
    uint32_t ri_path_kind; /* TARN_RSVP_PATH_* */
    uint32_t ri_source;
    uint32_t ri_destination;
    uint32_t ri_tunnel_id;
    uint32_t ri_lsp_id;
    tarn_lsping_nexthop ri_nexthop;
    tarn_lsping_labels ri_labels;
} tarn_rsvp_lsp_info;

typedef struct tarn_p2mp_branch {
    uint32_t pb_destination;
    tarn_lsping_nexthop pb_nexthop;
    tarn_lsping_labels pb_labels;
} tarn_p2mp_branch;

/* RSVP P2MP LSP (type 39) and LDP P2MP FEC (type 48). */
typedef struct tarn_p2mp_info {
    uint32_t pi_id; /* P2MP id (RSVP) or opaque LSP id (LDP) */
    uint32_t pi_branch_count;
    const tarn_p2mp_branch *pi_branches;
} tarn_p2mp_info;

typedef struct tarn_vpn_pfx_info {
    uint8_t vi_rd[8];
    uint32_t vi_protocol_nexthop;
    tarn_lsping_nexthop vi_nexthop;
    tarn_lsping_labels vi_labels;
} tarn_vpn_pfx_info;

typedef struct tarn_endpt_info {
    uint32_t ei_protocol; /* TARN_ENDPT_* */
    tarn_lsping_nexthop ei_nexthop;
    tarn_lsping_labels ei_labels;
} tarn_endpt_info;

typedef struct tarn_lspmon_info {
    uint32_t mi_state; /* 1 up, 0 down */
    uint32_t mi_source;
    uint32_t mi_destination;
    uint32_t mi_uptime;
} tarn_lspmon_info;

/* Layer-2 VPN (type 30) and its FEC-129 form (type 59). */
typedef struct tarn_l2vpn_info {
    uint8_t li_rd[8];
    uint32_t li_remote_pe;
    uint32_t li_cw_flags;
    tarn_lsping_nexthop li_nexthop;
    tarn_lsping_labels li_labels;
} tarn_l2vpn_info;

typedef struct tarn_l2ckt_info {
    uint32_t ci_encapsulation;
    uint32_t ci_cw_flags;
    tarn_lsping_nexthop ci_nexthop;
    tarn_lsping_labels ci_labels;
} tarn_l2ckt_info;

typedef struct tarn_tdmpw_info {
    uint32_t ti_pw_id;
    uint32_t ti_neighbour;
    uint32_t ti_state;
} tarn_tdmpw_info;

typedef struct tarn_static_lsp_info {
    uint32_t si_state; /* 1 up */
    tarn_lsping_nexthop si_nexthop;
    tarn_lsping_labels si_labels;
} tarn_static_lsp_info;

typedef struct tarn_bgp_fec_info {
    uint32_t bi_address;
    uint32_t bi_prefix_len;
    tarn_lsping_nexthop bi_nexthop;
    tarn_lsping_labels bi_labels;
} tarn_bgp_fec_info;

typedef struct tarn_mdiagd_p2mp_info {
    uint32_t di_count;
    const uint32_t *di_ids;
} tarn_mdiagd_p2mp_info;

/* The LDP FEC reply as its slot sees it: the payload from offset 8, converted
 * in place (the pointer may be unaligned: copy it out with memcpy). */
typedef struct tarn_ldp_fec_info {
    uint32_t fi_address;
    uint32_t fi_prefix_len;
    uint32_t fi_nh_ifl_index;
    uint32_t fi_nh_address; /* IPv4 */
    uint32_t fi_reserved;   /* left as received */
    uint32_t fi_label_flags;
    uint8_t fi_family;
    uint8_t fi_label_count; /* at most TARN_LSPING_MAX_LABELS */
    uint8_t fi_pad[2];
    uint32_t fi_labels[TARN_LSPING_MAX_LABELS];
} tarn_ldp_fec_info;
#define TARN_LDP_FEC_REPLY_MIN 36 /* payload bytes without labels */

TARN_END_DECLS

#endif /* TARN_TARN_LSPING_QUERY_H */
