// Name tables of the formatters. Every lookup clamps to its last entry, so a
// value from a newer kernel still prints something readable.
#include <tarn/rtsock_wire.h>

#include "libtarn/format/format_internal.h"

namespace {

template <typename T, int N>
const char *clamped(const T (&table)[N], int i)
{
    return table[i < 0 || i >= N ? N - 1 : i];
}

const char *const kOps[] = {"nop",   "add",       "change",  "delete",  "get",    "getnext",
                            "clear", "deleteall", "add_get", "chg_get", "unknown"};

const char *const kRcvModes[] = {"None",        "Slot only",   "All",
                                 "Selective slots", "Always TRUE", "Invalid"};

const char *const kStatsOps[] = {"Total ops", "Failed ops", "Vetoed ops", "Locked ops",
                                 "Unknown ops"};

// Families by number; the gaps are numbers the kernel never assigned.
const char *const kFamilies[] = {
    "unspec", "unix", "inet", "imp", "pup", "chaos", "netbios", "iso", "ecma", "datakit",
    "ccitt", "sna", "DECnet", "DLI", "LAT", "hylink", "apltlk", "route", "link", "xtp",
    "coip", "cnt", nullptr, "ipx", "sip", "pip", "isdn", "key", "inet6", "natm",
    "atm", "hdrcmpl", "netgraph", nullptr, nullptr, nullptr, nullptr, "mpls", "tnp", "cyclotron",
    "ccc", "raw-if", nullptr, "mlppp", "mlfr", "aenet", "apos", "tcc", "auth", "mlfr-uni-nni",
    "vpls", "any", "rlsq", "comp-dev", "msvc", "ethernet-switching", "vmembers", "device-route",
    "ethernet-io", "container", "MSTI", "dhcp-snooping", "rms", "fibre-channel", "fc-fmembers",
    "fabric-multicast", "fabric-replication", "dc-fabric", "relay", "pppoe", nullptr, nullptr,
    "multi-services-load-balancing", "inetvpn", "gtp-u", "steering"};
static_assert(sizeof(kFamilies) / sizeof(kFamilies[0]) == 76);

// Class-of-service objects, as the CoS message types carry them.
const char *const kCosTypes[] = {
    "invalid", "scheduler", "scheduler-map", "drop-profile", "forwarding-class",
    "classifier", "rewrite-rule", "code-point-alias", "policer", "shaper",
    "fragmentation-map", "traffic-control-profile", "interface-set", "fabric-priority",
    "host-outbound", "translation-table", "loss-priority-map", "loss-priority-rewrite",
    "forwarding-policy", "queue", "ieee-802.1", "ieee-802.1ad", "dscp", "dscp-ipv6",
    "inet-precedence", "exp", "frame-relay-de", "adaptive-shaper", "virtual-channel",
    "virtual-channel-group", "congestion-notification", "forwarding-class-set",
    "application-traffic", "unknown"};
static_assert(sizeof(kCosTypes) / sizeof(kCosTypes[0]) == 34);

}  // namespace

extern "C" {

const char *rtslib_format_op(int op) { return clamped(kOps, op); }

const char *rtslib_format_rtm_type(int type)
{
    // rtm_types ends with a null entry; its last name is "unknown".
    return rtm_types[type < 0 || type >= RTS_MSG_TYPE_COUNT ? RTS_MSG_UNKNOWN : type];
}

const char *rtslib_format_mtype_rcv(int mode) { return clamped(kRcvModes, mode); }

const char *rtslib_format_af(int af)
{
    const char *name = af < 0 || af > 75 ? nullptr : kFamilies[af];
    return name ? name : "unknown";
}

const char *rtslib_format_cos_type(int type) { return clamped(kCosTypes, type); }

const char *rtslib_format_stats_op(int op) { return clamped(kStatsOps, op); }

const char *rtslib_brief_output_header(void) { return "sender   flag    type       op"; }

const char *rtslib_format_msg_sender_id(const void *message)
{
    if (!message) return "unknown";
    return tarn::format::read_header(message).seq == 0 ? "async" : "solicited";
}

}  // extern "C"
