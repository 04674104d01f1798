#include "listen_bits.h"

#include <tarn/rtsock_wire.h>

namespace tarn::kemu {
namespace {

constexpr uint64_t low(uint32_t bits) { return bits; }
constexpr uint64_t high(uint32_t bits) { return uint64_t{bits} << 32; }

struct TypeBits {
    unsigned type;
    uint64_t bits;
};

// The bits a client's registration asks for, per type. Where a registration
// sets different bits depending on its flags (interface families and
// addresses), the type is selected by any of them. The queue-service type's
// optional extra bit (high 0x40000000) is left out: it is also the
// public-key reply's bit, and the base bit alone already selects the type.
// Types registered without listen bits (dfwstats, ifsclinfo, kuack messages)
// are absent: nothing a listen mask says selects them.
constexpr TypeBits kTypeBits[] = {
    {RTS_MSG_RTTABLE, low(0x2000)},
    {RTS_MSG_ROUTE, low(0x200380)},
    {RTS_MSG_IFDEV, low(0x1)},
    {RTS_MSG_IFLOGICAL, low(0x2)},
    {RTS_MSG_IFFAMILY, low(0x10 | 0x4)},
    {RTS_MSG_IFADDR, low(0x20 | 0x8)},
    {RTS_MSG_NEXTHOP, low(0x40)},
    {RTS_MSG_MGROUP, low(0x400)},
    {RTS_MSG_FIREWALL, low(0x8000)},
    {RTS_MSG_IFDEST, high(0x20000)},
    {RTS_MSG_IFDALARM, low(0x1000)},
    {RTS_MSG_PFE_INFO, high(0x100000)},
    {RTS_MSG_IFVC, low(0x40000)},
    {RTS_MSG_RT_CLASS, low(0x200000)},
    {RTS_MSG_COS_INFO, low(0x10000)},
    {RTS_MSG_COS_FABRIC, low(0x10000)},
    {RTS_MSG_COS_CLASS, low(0x10000)},
    {RTS_MSG_COS_POLICY, low(0x10000)},
    {RTS_MSG_COS_RED, low(0x10000)},
    {RTS_MSG_COS_REWRT, low(0x10000)},
    {RTS_MSG_COS_POLICER, low(0x10000)},
    {RTS_MSG_COS_SHAPER, low(0x10000)},
    {RTS_MSG_COS_FC_Q, low(0x10000)},
    {RTS_MSG_COS_FRAGMAP, low(0x10000)},
    {RTS_MSG_SAMPLING, low(0x80000)},
    {RTS_MSG_SA_INFO, low(0x4000000)},
    {RTS_MSG_MONITORING, low(0x100000)},
    {RTS_MSG_MON_STATS, low(0x800000)},
    {RTS_MSG_PK_CRYPTO_SYS_REPLY, low(0x20000) | high(0x40000000)},
    {RTS_MSG_IFVP, low(0x400000)},
    {RTS_MSG_IFSTATE, low(0x1000000)},
    {RTS_MSG_ASP_CONFIG, high(0x4)},
    {RTS_MSG_ASP_IPSEC, low(0x2000000)},
    {RTS_MSG_L2TP_ASYNC, low(0x8000000)},
    {RTS_MSG_CPIC_PARAMS, low(0x20000000)},
    {RTS_MSG_CPIC_FILE_SPEC, low(0x20000000)},
    {RTS_MSG_CPIC_IIF_CP_MAP, low(0x20000000)},
    {RTS_MSG_CPIC_IIF_FSPEC_MAP, low(0x20000000)},
    {RTS_MSG_CPIC_DST_UNAVAIL, low(0x10000000)},
    {RTS_MSG_CPIC_FILE_FAIL, low(0x10000000)},
    {RTS_MSG_CPIC_OVLOAD, low(0x10000000)},
    {RTS_MSG_CPIC_MEM_OVLOAD, low(0x10000000)},
    {RTS_MSG_CPIC_STATS, low(0x10000000)},
    {RTS_MSG_CPIC_FILE_STATS, low(0x10000000)},
    {RTS_MSG_PIC, low(0x40000000)},
    {RTS_MSG_KSYNC, low(0x80000000)},
    {RTS_MSG_GENCFG, high(0x1)},
    {RTS_MSG_FLOW_AGGR_HIST, high(0x2)},
    {RTS_MSG_FLOW_AGGR_INST, high(0x2)},
    {RTS_MSG_FLOW_AGGR_FLT, high(0x2)},
    {RTS_MSG_FLOW_AGGR_FLT_FST, high(0x2)},
    {RTS_MSG_FLOW_AGGR_CFG, high(0x2)},
    {RTS_MSG_ASYNC_OPAQUE, high(0x8)},
    {RTS_MSG_QSV, high(0x10)},
    {RTS_MSG_PFE_DWN_MAP, high(0x20)},
    {RTS_MSG_STP, high(0x40)},
    {RTS_MSG_NH_COMP, high(0x80)},
    {RTS_MSG_VLAN, high(0x100)},
    {RTS_MSG_MESH_GROUP, high(0x400)},
    {RTS_MSG_ANALYZER, high(0x800)},
    {RTS_MSG_BRIDGE_DOMAIN, high(0x1000)},
    {RTS_MSG_IFBDMESG, high(0x2000)},
    {RTS_MSG_KSDB, high(0x4000)},
    {RTS_MSG_FC_FABRIC, high(0x40000)},
    {RTS_MSG_DDOS, high(0x80000)},
    {RTS_MSG_NOTIFY_MSG, high(0x400000)},
    {RTS_MSG_UNKNOWN, high(0x1000000)},
};

}  // namespace

uint64_t listen_bits(unsigned type)
{
    for (const auto &t : kTypeBits)
        if (t.type == type) return t.bits;
    return 0;
}

}  // namespace tarn::kemu
