#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "libtarn/rtslib/async_internal.h"

namespace {

using namespace tarn::async;

// Listen bits added when the caller's flags have any bit of flag_mask.
struct FlagBits {
    uint32_t flag_mask;
    uint32_t lo;
    uint32_t hi;
};

// Every registration call of the family: the message types it takes (in
// registration order, 0-terminated), the notification classes it asks the
// kernel for, and, for types dispatched again by subtype, the subtype table.
enum Family {
    kRtbm, kRtm, kIfdm, kIflm, kIffm, kIfam, kRnhm, kMgrm, kDfwm, kIfdest, kIfdalm,
    kDfwstatsm, kPfeinfo, kIfvcm, kRtclass, kCos, kSample, kSadbm, kMonitor, kMonitorState,
    kPkcsReply, kIfvpm, kIfsm, kAspCfg, kAspIpsec, kL2tp, kCpConfig, kCpPic, kPicm, kKsyncm,
    kGencfg, kAggrConfig, kAsyncOpaque, kQsv, kPfeDwnMap, kStp, kNhComp, kVlan, kMeshGroup,
    kAnalyzer, kBd, kIfbd, kKsdb, kFcFabric, kDdos, kNotify, kKuack, kSysstatsm,
    kIfstateEochain, kIfsclim, kFamilyCount
};

struct Registration {
    Family family;
    uint8_t types[11];
    uint32_t lo;
    uint32_t hi;
    FlagBits flag_bits[2] = {};
    uint8_t subtype_count = 0;  // 0: plain dispatch
    uint8_t subtype_offset = 0;
    int8_t subtype_index = 0;   // the one subtype handled, or kEverySubtype
};

constexpr int8_t kEverySubtype = -1;
constexpr uint32_t kAnyFlag = ~0u;

constexpr Registration kRegistrations[kFamilyCount] = {
    {kRtbm, {RTS_MSG_RTTABLE}, 0x2000, 0},
    {kRtm, {RTS_MSG_ROUTE}, 0x200380, 0},
    {kIfdm, {RTS_MSG_IFDEV}, 0x1, 0},
    {kIflm, {RTS_MSG_IFLOGICAL}, 0x2, 0},
    {kIffm, {RTS_MSG_IFFAMILY}, 0, 0, {{0x1, 0x10, 0}, {0x4, 0x4, 0}}},
    {kIfam, {RTS_MSG_IFADDR}, 0, 0, {{0x1, 0x20, 0}, {0x4, 0x8, 0}}},
    {kRnhm, {RTS_MSG_NEXTHOP}, 0x40, 0},
    {kMgrm, {RTS_MSG_MGROUP}, 0x400, 0},
    {kDfwm, {RTS_MSG_FIREWALL}, 0x8000, 0},
    {kIfdest, {RTS_MSG_IFDEST}, 0, 0x20000},
    {kIfdalm, {RTS_MSG_IFDALARM}, 0x1000, 0},
    {kDfwstatsm, {RTS_MSG_DFWSTATS}, 0, 0},
    {kPfeinfo, {RTS_MSG_PFE_INFO}, 0, 0x100000},
    {kIfvcm, {RTS_MSG_IFVC}, 0x40000, 0},
    {kRtclass, {RTS_MSG_RT_CLASS}, 0x200000, 0},
    {kCos, {RTS_MSG_COS_INFO, RTS_MSG_COS_FABRIC, RTS_MSG_COS_CLASS, RTS_MSG_COS_POLICER,
               RTS_MSG_COS_SHAPER, RTS_MSG_COS_POLICY, RTS_MSG_COS_RED, RTS_MSG_COS_REWRT,
               RTS_MSG_COS_FC_Q, RTS_MSG_COS_FRAGMAP},
              0x10000, 0},
    {kSample, {RTS_MSG_SAMPLING}, 0x80000, 0},
    {kSadbm, {RTS_MSG_SA_INFO}, 0x4000000, 0},
    {kMonitor, {RTS_MSG_MONITORING}, 0x100000, 0},
    {kMonitorState, {RTS_MSG_MON_STATS}, 0x800000, 0},
    {kPkcsReply, {RTS_MSG_PK_CRYPTO_SYS_REPLY}, 0x20000, 0x40000000},
    {kIfvpm, {RTS_MSG_IFVP}, 0x400000, 0},
    {kIfsm, {RTS_MSG_IFSTATE}, 0x1000000, 0},
    {kAspCfg, {RTS_MSG_ASP_CONFIG}, 0, 0x4},
    {kAspIpsec, {RTS_MSG_ASP_IPSEC}, 0x2000000, 0},
    {kL2tp, {RTS_MSG_L2TP_ASYNC}, 0x8000000, 0},
    {kCpConfig, {RTS_MSG_CPIC_PARAMS, RTS_MSG_CPIC_IIF_CP_MAP, RTS_MSG_CPIC_IIF_FSPEC_MAP,
                    RTS_MSG_CPIC_FILE_SPEC},
                   0x20000000, 0},
    {kCpPic, {RTS_MSG_CPIC_DST_UNAVAIL, RTS_MSG_CPIC_FILE_FAIL, RTS_MSG_CPIC_OVLOAD,
                 RTS_MSG_CPIC_STATS, RTS_MSG_CPIC_FILE_STATS, RTS_MSG_CPIC_MEM_OVLOAD},
                0x10000000, 0},
    {kPicm, {RTS_MSG_PIC}, 0x40000000, 0},
    {kKsyncm, {RTS_MSG_KSYNC}, 0x80000000, 0},
    {kGencfg, {RTS_MSG_GENCFG}, 0, 0x1},
    {kAggrConfig, {RTS_MSG_FLOW_AGGR_HIST, RTS_MSG_FLOW_AGGR_INST, RTS_MSG_FLOW_AGGR_FLT,
                      RTS_MSG_FLOW_AGGR_FLT_FST, RTS_MSG_FLOW_AGGR_CFG},
                     0, 0x2},
    {kAsyncOpaque, {RTS_MSG_ASYNC_OPAQUE}, 0, 0x8},
    {kQsv, {RTS_MSG_QSV}, 0, 0x10, {{kAnyFlag, 0, 0x40000000}}},
    {kPfeDwnMap, {RTS_MSG_PFE_DWN_MAP}, 0, 0x20},
    {kStp, {RTS_MSG_STP}, 0, 0x40},
    {kNhComp, {RTS_MSG_NH_COMP}, 0, 0x80},
    {kVlan, {RTS_MSG_VLAN}, 0, 0x100},
    {kMeshGroup, {RTS_MSG_MESH_GROUP}, 0, 0x400},
    {kAnalyzer, {RTS_MSG_ANALYZER}, 0, 0x800},
    {kBd, {RTS_MSG_BRIDGE_DOMAIN}, 0, 0x1000},
    {kIfbd, {RTS_MSG_IFBDMESG}, 0, 0x2000},
    {kKsdb, {RTS_MSG_KSDB}, 0, 0x4000},
    {kFcFabric, {RTS_MSG_FC_FABRIC}, 0, 0x40000},
    {kDdos, {RTS_MSG_DDOS}, 0, 0x80000},
    {kNotify, {RTS_MSG_NOTIFY_MSG}, 0, 0x400000},
    {kKuack, {RTS_MSG_KUACK_MESSAGES}, 0, 0},
    {kSysstatsm, {RTS_MSG_UNKNOWN}, 0, 0, {{0x4, 0, 0x1000000}}},
    {kIfstateEochain, {RTS_MSG_IFSCLINFO}, 0, 0, {}, 1, 24, 0},
    {kIfsclim, {RTS_MSG_IFSCLINFO}, 0, 0, {}, 1, 24, kEverySubtype},
};

constexpr bool indexed_by_family()
{
    for (int i = 0; i < kFamilyCount; ++i)
        if (kRegistrations[i].family != i) return false;
    return true;
}
static_assert(indexed_by_family(), "kRegistrations must list the families in enum order");

// The opaque type's number goes in the first byte of its subtype block.
constexpr uint8_t kOpaqueSubtypeFamily = 35;

int register_by_subtype(rtslib_cookie *h, const Registration &r, uint32_t lo, uint32_t hi,
                        void *arg, rtslib_async_handler_fn fn)
{
    const uint8_t type = r.types[0];
    // Both subtype registrations share one type: the first one wins.
    if (h->async->slots[type] != nullptr) return 0;
    auto *table = static_cast<rtslib_async_subtypes *>(std::calloc(1, sizeof(rtslib_async_subtypes)));
    auto *entries =
        static_cast<rtslib_async_entry *>(std::calloc(r.subtype_count, sizeof(rtslib_async_entry)));
    if (table == nullptr || entries == nullptr) {
        std::free(table);
        std::free(entries);
        return ENOMEM;
    }
    *table = {r.subtype_count, r.subtype_offset, entries};
    for (uint32_t i = 0; i < table->count; ++i)
        if (r.subtype_index == kEverySubtype || static_cast<uint32_t>(r.subtype_index) == i)
            entries[i] = {arg, fn};
    const int rc = register_type(h, type, lo, hi, table, dispatch_subtype);
    if (rc != 0) {
        std::free(entries);
        std::free(table);
    }
    return rc;
}

int register_family(rtslib_cookie *h, Family family, uint32_t flags, void *arg,
                    rtslib_async_handler_fn fn)
{
    if (h == nullptr || h->async == nullptr || fn == nullptr) return EINVAL;
    const Registration &r = kRegistrations[family];
    uint32_t lo = r.lo;
    uint32_t hi = r.hi;
    for (const FlagBits &f : r.flag_bits) {
        if ((flags & f.flag_mask) == 0) continue;
        lo |= f.lo;
        hi |= f.hi;
    }
    if (r.subtype_count != 0) return register_by_subtype(h, r, lo, hi, arg, fn);
    for (const uint8_t *t = r.types; t != std::end(r.types) && *t != 0; ++t) {
        const int rc = register_type(h, *t, lo, hi, arg, fn);
        if (rc != 0) return rc;
    }
    return 0;
}

}  // namespace

namespace tarn::async {

int register_type(rtslib_cookie *h, uint32_t type, uint32_t lo, uint32_t hi, void *arg,
                  rtslib_async_handler_fn fn)
{
    rtslib_async_ctx *ctx = h->async;
    if (type >= RTS_MSG_TYPE_COUNT || ctx->slots[type] != nullptr || fn == nullptr) return EINVAL;
    if (select_descriptor(h) != 0) return -1;
    if (add_listen_bits(h, lo, hi) != 0) {
        rtslib_err(h, RTSLIB_LOG_ERROR, "failed to set listen bit %s", std::strerror(errno));
        return -1;
    }
    auto *entry = static_cast<rtslib_async_entry *>(std::malloc(sizeof(rtslib_async_entry)));
    if (entry == nullptr) {
        errno = ENOMEM;
        rtslib_err(h, RTSLIB_LOG_ERROR, "async registration allocation failed %s\n",
                   std::strerror(errno));
        return -1;
    }
    *entry = {arg, fn};
    ctx->slots[type] = entry;
    return 0;
}

void free_entry(rtslib_cookie *, rtslib_async_entry *entry)
{
    if (entry == nullptr) return;
    if (entry->fn == dispatch_subtype) {
        auto *table = static_cast<rtslib_async_subtypes *>(entry->arg);
        std::free(table->entries);
        std::free(table);
    }
    std::free(entry);
}

}  // namespace tarn::async

#define TARN_ASYNC_REGISTER(name, family)                                           \
    int name(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn)              \
    {                                                                              \
        return register_family(h, family, 0, arg, fn);                             \
    }

extern "C" {

TARN_ASYNC_REGISTER(rtslib_rtbm_async_register, kRtbm)
TARN_ASYNC_REGISTER(rtslib_rtm_async_register, kRtm)
TARN_ASYNC_REGISTER(rtslib_ifdm_async_register, kIfdm)
TARN_ASYNC_REGISTER(rtslib_iflm_async_register, kIflm)
TARN_ASYNC_REGISTER(rtslib_rnhm_async_register, kRnhm)
TARN_ASYNC_REGISTER(rtslib_mgrm_async_register, kMgrm)
TARN_ASYNC_REGISTER(rtslib_dfwm_async_register, kDfwm)
TARN_ASYNC_REGISTER(rtslib_ifdest_async_register, kIfdest)
TARN_ASYNC_REGISTER(rtslib_ifdalm_async_register, kIfdalm)
TARN_ASYNC_REGISTER(rtslib_dfwstatsm_async_register, kDfwstatsm)
TARN_ASYNC_REGISTER(rtslib_pfeinfo_async_register, kPfeinfo)
TARN_ASYNC_REGISTER(rtslib_ifvcm_async_register, kIfvcm)
TARN_ASYNC_REGISTER(rtslib_rtclass_async_register, kRtclass)
TARN_ASYNC_REGISTER(rtslib_cos_async_register, kCos)
TARN_ASYNC_REGISTER(rtslib_sample_async_register, kSample)
TARN_ASYNC_REGISTER(rtslib_sadbm_async_register, kSadbm)
TARN_ASYNC_REGISTER(rtslib_monitor_async_register, kMonitor)
TARN_ASYNC_REGISTER(rtslib_monitor_state_async_register, kMonitorState)
TARN_ASYNC_REGISTER(rtslib_pkcs_reply_async_register, kPkcsReply)
TARN_ASYNC_REGISTER(rtslib_ifvpm_async_register, kIfvpm)
TARN_ASYNC_REGISTER(rtslib_ifsm_async_register, kIfsm)
TARN_ASYNC_REGISTER(rtslib_asp_cfg_async_register, kAspCfg)
TARN_ASYNC_REGISTER(rtslib_asp_ipsec_async_register, kAspIpsec)
TARN_ASYNC_REGISTER(rtslib_l2tp_async_register, kL2tp)
TARN_ASYNC_REGISTER(rtslib_cp_config_async_register, kCpConfig)
TARN_ASYNC_REGISTER(rtslib_cp_pic_async_register, kCpPic)
TARN_ASYNC_REGISTER(rtslib_picm_async_register, kPicm)
TARN_ASYNC_REGISTER(rtslib_ksyncm_async_register, kKsyncm)
TARN_ASYNC_REGISTER(rtslib_gencfg_async_register, kGencfg)
TARN_ASYNC_REGISTER(rtslib_aggr_config_async_register, kAggrConfig)
TARN_ASYNC_REGISTER(rtslib_pfe_dwn_map_async_register, kPfeDwnMap)
TARN_ASYNC_REGISTER(rtslib_stp_async_register, kStp)
TARN_ASYNC_REGISTER(rtslib_nh_comp_async_register, kNhComp)
TARN_ASYNC_REGISTER(rtslib_vlan_async_register, kVlan)
TARN_ASYNC_REGISTER(rtslib_mesh_group_async_register, kMeshGroup)
TARN_ASYNC_REGISTER(rtslib_analyzer_async_register, kAnalyzer)
TARN_ASYNC_REGISTER(rtslib_bd_async_register, kBd)
TARN_ASYNC_REGISTER(rtslib_ifbd_async_register, kIfbd)
TARN_ASYNC_REGISTER(rtslib_ksdb_async_register, kKsdb)
TARN_ASYNC_REGISTER(rtslib_fc_fabric_async_register, kFcFabric)
TARN_ASYNC_REGISTER(rtslib_ddos_async_register, kDdos)
TARN_ASYNC_REGISTER(rtslib_notify_async_register, kNotify)
TARN_ASYNC_REGISTER(rtslib_ifstate_eochain_register, kIfstateEochain)
TARN_ASYNC_REGISTER(rtslib_ifsclim_async_register, kIfsclim)

int rtslib_iffm_async_register(rtslib_cookie *h, uint8_t flags, void *arg,
                               rtslib_async_handler_fn fn)
{
    return register_family(h, kIffm, flags, arg, fn);
}

int rtslib_ifam_async_register(rtslib_cookie *h, uint8_t flags, void *arg,
                               rtslib_async_handler_fn fn)
{
    return register_family(h, kIfam, flags, arg, fn);
}

int rtslib_sysstatsm_async_register(rtslib_cookie *h, uint8_t flags, void *arg,
                                    rtslib_async_handler_fn fn)
{
    return register_family(h, kSysstatsm, flags, arg, fn);
}

int rtslib_qsv_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn, int flag)
{
    return register_family(h, kQsv, static_cast<uint32_t>(flag), arg, fn);
}

int rtslib_kuack_async_register(rtslib_cookie *h, int, void *arg, rtslib_async_handler_fn fn)
{
    return register_family(h, kKuack, 0, arg, fn);
}

int rtslib_async_opaque_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn,
                                 uint8_t *subtypes)
{
    const int rc = register_family(h, kAsyncOpaque, 0, arg, fn);
    if (rc != 0 || subtypes == nullptr) return rc;
    subtypes[0] = kOpaqueSubtypeFamily;
    return rtslib_set_async_msg_subtype(h, subtypes);
}

}  // extern "C"
