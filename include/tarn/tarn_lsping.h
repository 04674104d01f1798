/*
 * libtarn - LSP-ping information: result texts of the routing daemon's
 * answers to the LSP-ping queries, one function per kind of path.
 *
 * Each function maps a result code to a fixed text for the operator; every
 * code it does not know gives the kind's text for unknown values. The codes
 * that mean success differ by kind (the TARN_LSPING_*_OK constants); codes
 * 13-15 of the RSVP kind name path kinds rather than failures.
 *
 * Ownership: the texts are constant and must not be freed or changed.
 * Threads: no state; callable from any thread.
 */
#ifndef TARN_TARN_LSPING_H
#define TARN_TARN_LSPING_H

#include <tarn/common.h>

TARN_BEGIN_DECLS

/* Success codes per kind of query. */
#define TARN_LSPING_RSVP_OK 12
#define TARN_LSPING_LDP_OK 4
#define TARN_LSPING_BGP_OK 3
#define TARN_LSPING_VPN_OK 7
#define TARN_LSPING_L2CKT_OK 9
#define TARN_LSPING_L2VPN_OK 12
#define TARN_LSPING_LSPMON_OK 3
#define TARN_LSPING_STATIC_OK 3
#define TARN_LSPING_ENDPT_OK 3

TARN_API const char *rsvp_lsping_info_strerr(int code);
TARN_API const char *ldp_lsping_info_strerr(int code);
TARN_API const char *bgp_lsping_info_strerr(int code);
TARN_API const char *vpn_lsping_info_strerr(int code);
TARN_API const char *l2ckt_lsping_info_strerr(int code);
TARN_API const char *l2vpn_lsping_info_strerr(int code);
TARN_API const char *l2vpn_fec129_lsping_info_strerr(int code);
TARN_API const char *rsvp_lspmon_info_strerr(int code);
/* Its text for unknown codes names the kind: "Unknown return value for
 * static LSP". */
TARN_API const char *static_lsp_info_strerr(int code);
TARN_API const char *endpt_lsping_info_strerr(int code);

TARN_END_DECLS

#endif /* TARN_TARN_LSPING_H */
