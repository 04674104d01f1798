/*
 * libtarn - routing-socket wire constants.
 *
 * Every value here is the target kernel's, on every host: they travel inside
 * messages or name routing-socket options, so they are never taken from the
 * host's <sys/socket.h>. Host-facing values (errno, O_NONBLOCK, SOL_SOCKET
 * options of host sockets) come from the host's own headers instead.
 */
#ifndef TARN_RTSOCK_WIRE_H
#define TARN_RTSOCK_WIRE_H

#include <tarn/common.h>

/* Socket family, type and option level of the routing socket. */
#define TARN_PF_ROUTE 17
#define TARN_SOCK_SEQPACKET 5
#define TARN_SOL_ROUTE 17

/* Address families as they appear inside messages. */
#define TARN_AF_UNSPEC 0
#define TARN_AF_INET 2
#define TARN_AF_INET6 28

/* Routing-socket options at level TARN_SOL_ROUTE. */
#define ROUTE_LISTEN_MASK 1       /* 8 bytes: low word, high word */
#define ROUTE_KERNEL_SEQ 3        /* u32, read only: the kernel's sequence number */
#define ROUTE_SENDER_ID 4         /* one unsigned byte */
#define ROUTE_VERSION_INFO 5      /* version block, read only, at most 123 bytes */
#define ROUTE_ASYNC_MODE 7        /* u32 mode bits */
#define ROUTE_SLAVE_MODE 8        /* u32 */
#define ROUTE_LISTEN_SUBTYPES 9   /* 12 bytes */
#define ROUTE_FILTERS 10          /* 8-byte listen mask + 240 bytes of filters */
#define ROUTE_MASTER_MODE 11      /* u32 */
#define ROUTE_LOCAL_SLAVE_MODE 16 /* u32 */
#define ROUTE_LR_ID 20            /* u16 logical-router id */

#define ROUTE_LISTEN_SUBTYPES_LEN 12
#define ROUTE_FILTER_DATA_LEN 240
#define ROUTE_FILTERS_LEN (8 + ROUTE_FILTER_DATA_LEN)

/* The version block returned by ROUTE_VERSION_INFO: byte 0 the number of
 * message types the kernel knows, byte 1 its interface version, byte 1 + t
 * the version of message type t. */
#define RTS_VERSION_INFO_MAX 123
#define RTS_VERSION_INFO_NTYPES 0
#define RTS_VERSION_INFO_IFVERSION 1

/* The library's side of the negotiation. */
#define RTS_INTERFACE_VERSION 98 /* 'b' */
#define RTS_MSG_TYPE_COUNT 102   /* types 0 .. 101 */

/* Message types, by number. rtm_types[] holds their names. */
enum rts_msg_type {
    RTS_MSG_NOP = 0,
    RTS_MSG_RTTABLE = 1,
    RTS_MSG_ROUTE = 2,
    RTS_MSG_REDIRECT = 3,
    RTS_MSG_RTSTATS = 4,
    RTS_MSG_IFDEV = 5,
    RTS_MSG_IFLOGICAL = 6,
    RTS_MSG_IFFAMILY = 7,
    RTS_MSG_IFADDR = 8,
    RTS_MSG_IFSTATS = 9,
    RTS_MSG_NEXTHOP = 10,
    RTS_MSG_RESOLVE = 11,
    RTS_MSG_RTMATCH = 12,
    RTS_MSG_MGROUP = 13,
    RTS_MSG_FIREWALL = 14,
    RTS_MSG_IFDSTATS = 15,
    RTS_MSG_IFLSTATS = 16,
    RTS_MSG_IFDADD = 17,
    RTS_MSG_IFDEST = 18,
    RTS_MSG_IFMISMATCH = 19,
    RTS_MSG_IFDALARM = 20,
    RTS_MSG_NHOPSTATS = 21,
    RTS_MSG_DFWSTATS = 22,
    RTS_MSG_FIREWALL_LOG = 23,
    RTS_MSG_PFE_INFO = 24,
    RTS_MSG_PFE_STATS = 25,
    RTS_MSG_RTSOCK_STATS = 26,
    RTS_MSG_IFVC = 27,
    RTS_MSG_RT_CLASS = 28,
    RTS_MSG_RT_CLASS_STATS = 29,
    RTS_MSG_IFTABLE = 30,
    RTS_MSG_COS_INFO = 31,
    RTS_MSG_COS_FABRIC = 32,
    RTS_MSG_COS_FQSTATS = 33,
    RTS_MSG_COS_CLASS = 34,
    RTS_MSG_COS_POLICY = 35,
    RTS_MSG_COS_RED = 36,
    RTS_MSG_COS_REWRT = 37,
    RTS_MSG_COS_POLICER = 38,
    RTS_MSG_COS_SHAPER = 39,
    RTS_MSG_SAMPLING = 40,
    RTS_MSG_SA_INFO = 41,
    RTS_MSG_PKCS_INFO = 42,
    RTS_MSG_MONITORING = 43,
    RTS_MSG_MON_STATS = 44,
    RTS_MSG_PK_CRYPTO_SYS_REPLY = 45,
    RTS_MSG_IFVP = 46,
    RTS_MSG_IFSTATE = 47,
    RTS_MSG_SYSCONF = 48,
    RTS_MSG_COMMIT = 49,
    RTS_MSG_MAC_DB = 50,
    RTS_MSG_MAC_STATS = 51,
    RTS_MSG_SADB_STATS = 52,
    RTS_MSG_ASP_CONFIG = 53,
    RTS_MSG_ASP_IPSEC = 54,
    RTS_MSG_COS_FC_Q = 55,
    RTS_MSG_L2TP_CONFIG = 56,
    RTS_MSG_L2TP_ASYNC = 57,
    RTS_MSG_CPIC_PARAMS = 58,
    RTS_MSG_CPIC_FILE_SPEC = 59,
    RTS_MSG_CPIC_IIF_CP_MAP = 60,
    RTS_MSG_CPIC_IIF_FSPEC_MAP = 61,
    RTS_MSG_CPIC_DST_UNAVAIL = 62,
    RTS_MSG_CPIC_FILE_FAIL = 63,
    RTS_MSG_CPIC_OVLOAD = 64,
    RTS_MSG_CPIC_MEM_OVLOAD = 65,
    RTS_MSG_CPIC_STATS = 66,
    RTS_MSG_CPIC_FILE_STATS = 67,
    RTS_MSG_PIC = 68,
    RTS_MSG_KSYNC = 69,
    RTS_MSG_IFF_VPLS_STATS = 70,
    RTS_MSG_COS_FRAGMAP = 71,
    RTS_MSG_GENCFG = 72,
    RTS_MSG_FLOW_AGGR_HIST = 73,
    RTS_MSG_FLOW_AGGR_INST = 74,
    RTS_MSG_FLOW_AGGR_FLT = 75,
    RTS_MSG_FLOW_AGGR_FLT_FST = 76,
    RTS_MSG_FLOW_AGGR_CFG = 77,
    RTS_MSG_FLOW_AGGR_STATS = 78,
    RTS_MSG_ASYNC_OPAQUE = 79,
    RTS_MSG_QSV = 80,
    RTS_MSG_PFE_DWN_MAP = 81,
    RTS_MSG_STP = 82,
    RTS_MSG_NH_COMP = 83,
    RTS_MSG_VLAN = 84,
    RTS_MSG_IFSCLINFO = 85,
    RTS_MSG_GENCFG_STATS = 86,
    RTS_MSG_MESH_GROUP = 87,
    RTS_MSG_ANALYZER = 88,
    RTS_MSG_BRIDGE_DOMAIN = 89,
    RTS_MSG_IFBDMESG = 90,
    RTS_MSG_KSDB = 91,
    RTS_MSG_BULKSTATS = 92,
    RTS_MSG_FABRIC_MC_GROUP = 93,
    RTS_MSG_FC_FABRIC = 94,
    RTS_MSG_VOQ_STATS = 95,
    RTS_MSG_PKT_INJECT = 96,
    RTS_MSG_DDOS = 97,
    RTS_MSG_NOTIFY_MSG = 98,
    RTS_MSG_KUACK_MESSAGES = 99,
    RTS_MSG_RESIDX = 100,
    RTS_MSG_UNKNOWN = 101,
};

/* Operations carried in header byte 6. */
#define RTS_OP_ADD 1
#define RTS_OP_CHANGE 2
#define RTS_OP_DELETE 3
#define RTS_OP_GET 4     /* exact match */
#define RTS_OP_GETNEXT 5 /* next in key order */
#define RTS_OP_CLEAR 6
#define RTS_OP_ADD_ACK 8 /* add, answered with an acknowledgement */

/* The fixed routing-socket header (host byte order), by byte offset. */
#define RTS_HDR_MAGIC_OFF 0   /* 0 in a raw message, envelope magic otherwise */
#define RTS_HDR_VERSION_OFF 4
#define RTS_HDR_TYPE_OFF 5
#define RTS_HDR_OP_OFF 6
#define RTS_HDR_LEN_OFF 8     /* total length, header included */
#define RTS_HDR_SEQ_OFF 12
#define RTS_HDR_FIXED_LEN_OFF 20
#define RTS_HDR_MIN_LEN 24

/* Envelope magics in the first word of an IDL-encoded message. */
#define RTS_IDL_MAGIC_TLV 0x5011u
#define RTS_IDL_MAGIC_IDR 0x5022u
#define RTS_IDL_ENVELOPE_HDR_LEN 12

/* Message sizes. */
#define RTS_MSG_MAX 16384                 /* largest message rtslib_msg_read accepts */
#define RTS_READ_BUFFER_SIZE (RTS_MSG_MAX + 1)

/* Version byte of each message type 0 .. 101 in this interface version, as
 * an array initializer (entry 0, "nop", has no version and is 0). A kernel
 * built for this interface reports exactly these in its version block. */
#define RTS_MSG_VERSIONS_INIT                                                  \
    {                                                                          \
        0, 98, 104, 104, 101, 106, 107, 102, 101, 0, 109, 99, 99, 99, 100, 99,  \
        100, 99, 99, 101, 101, 101, 101, 101, 99, 100, 99, 113, 99, 100, 98,   \
        98, 98, 99, 98, 99, 98, 99, 98, 98, 99, 99, 99, 101, 99, 99, 100, 99,  \
        99, 99, 99, 101, 101, 102, 99, 98, 105, 100, 101, 100, 100, 100, 100, \
        100, 100, 100, 100, 100, 99, 100, 100, 98, 105, 101, 101, 101, 101,    \
        101, 99, 98, 99, 98, 98, 99, 98, 98, 105, 98, 98, 98, 99, 98, 0, 98,   \
        98, 98, 98, 99, 98, 99, 98, 98                                         \
    }

#endif /* TARN_RTSOCK_WIRE_H */
