// Allocation failures in the families of same-shaped kernel calls: lookups
// and changes of routes, tables, multicast groups, interfaces and their
// statistics, the interface-name helpers, and handler registrations. Each
// family is a table of calls, each run on a handle of its own.
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include "kernel_sweep.h"

namespace tarn::test::alloc {
namespace {

// The logical interfaces of the emulator's default set, and em0's device.
constexpr uint32_t kLo0 = 64, kEm0 = 65, kEm1 = 66, kGe5 = 68;
constexpr uint16_t kEm0Device = 2;

// How a call hands back its answer, if it has one.
enum class Answer { kNone, kRecord, kRaw };

// One call of a family on handle h; an answer goes to *reply.
struct Entry {
    const char *name;
    std::function<int(rtslib_cookie *h, void **reply)> call;
    Answer answer = Answer::kNone;
    std::vector<int> failure = {ENOMEM};
    size_t kept = 0;
};

// The call expression of an entry: `r` is where an answer of type T goes.
#define RECORD(T, expr) \
    [&](rtslib_cookie *h, void **reply) { T *r = nullptr; int rc = (expr); *reply = r; return rc; }, \
    Answer::kRecord
#define RAW(expr) \
    [&](rtslib_cookie *h, void **reply) { void *r = nullptr; int rc = (expr); *reply = r; return rc; }, \
    Answer::kRaw
#define PLAIN(expr) [&](rtslib_cookie *h, void **) { (void)h; return (expr); }

// Calls that return a count or index, or -1 with errno.
int index_of(int rc) { return rc >= 0 ? 0 : errno; }

// A send interface set after a successful lookup. The host refuses the
// option only then: it has no interface of the emulator's index, and
// qemu-user does not translate the option at all.
int applied(int rc) { return rc == 0 || errno == EADDRNOTAVAIL || errno == ENOPROTOOPT ? 0 : errno; }

// Removes every interface-state client the kernel lists: a run whose
// answer was lost has still registered its name. The run's own handle may
// hold that answer unread, so the list is asked for on another.
void unregister_all()
{
    rtslib_cookie *h = rtslib_open(0);
    void *list = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(rtslib_ifsm_get(h, &list, &len), 0);
    const auto *p = static_cast<const uint8_t *>(list);
    uint32_t count = 0;
    std::memcpy(&count, p + RTS_IFSTATE_COUNT_OFF, sizeof count);
    for (uint32_t i = 0, at = RTS_IFSTATE_FIXED_LEN; i < count && at + 36 <= len; ++i, at += 36) {
        uint32_t id = 0;
        std::memcpy(&id, p + at, sizeof id);
        rtslib_ifsm_unregister(h, id);
    }
    rtslib_msg_free(h, list);
    rtslib_close(h);
}

class FamilySweep : public KernelSweep {
protected:
    // The table's rows; `setup` runs on each fresh handle first.
    std::vector<Row> rows(const std::vector<Entry> &entries,
                          const std::function<void()> &setup = [] {})
    {
        std::vector<Row> out;
        for (const Entry &e : entries)
            out.push_back(on_handle(
                {.name = e.name,
                 .setup = setup,
                 .call = [this, call = e.call] { return call(h_, &reply_); },
                 .check = [this, a = e.answer] { return wrong_unless(a == Answer::kNone || reply_ != nullptr); },
                 .failure = e.failure,
                 .cleanup =
                     [this, a = e.answer] {
                         if (a == Answer::kRecord)
                             rtslib_msg_idl_release(h_, reply_);
                         else if (a == Answer::kRaw)
                             rtslib_msg_free(h_, reply_);
                         reply_ = nullptr;
                     },
                 .kept = e.kept}));
        return out;
    }

    void *reply_ = nullptr;
};

TEST_F(FamilySweep, RoutesTablesAndGroups)
{
    int err = -1;
    command(-1, "mgroup-add 0 2 e0000001 32 9", &err);
    ASSERT_EQ(err, 0);
    rtslib_cookie *own = rtslib_open(0);
    ASSERT_NE(own, nullptr);
    rt_msg_t *found = nullptr;  // the suite's route, as the kernel answers it
    ASSERT_EQ(rtslib_rtm_get_by_prefix(own, TARN_AF_INET, kPrefix, 16, RTS_OP_GET, &found, nullptr), 0);
    alignas(8) static uint8_t arena[8192];
    Route absent;  // a route the kernel does not have
    const uint8_t group[4] = {0xe0, 0, 0, 1};
    const uint32_t stored = 0x0000630a;  // 10.99.0.0 as the kernel keeps it
    uint32_t stats[RTS_RTSTATS_COUNTERS] = {};
    sweep(rows({
        {"rtslib_rtm_get_by_type", RECORD(rt_msg_t, rtslib_rtm_get_by_type(h, TARN_AF_INET, 0, RTS_OP_GETNEXT, &r, nullptr))},
        {"rtslib_rtm_get_by_prefix", RECORD(rt_msg_t, rtslib_rtm_get_by_prefix(h, TARN_AF_INET, kPrefix, 16, RTS_OP_GET, &r, nullptr))},
        {"rtslib_rtm_get_with_msg", RECORD(rt_msg_t, rtslib_rtm_get_with_msg(h, found, RTS_OP_GET, &r, nullptr))},
        {"rtslib_rtm_get_with_msg_pa", PLAIN(rtslib_rtm_get_with_msg_pa(h, found, RTS_OP_GET, reinterpret_cast<rt_msg_t **>(&reply_), nullptr, arena, sizeof arena))},
        {"rtslib_rtm_delete", PLAIN(rtslib_rtm_delete(h, &absent.rt))},
        {"rtslib_rtm_delete_prefix", PLAIN(rtslib_rtm_delete_prefix(h, 0, TARN_AF_INET, 1, 0, absent.prefix, 24, 0))},
        {"rtslib_rtbm_add", PLAIN(rtslib_rtbm_add(h, "sweep", 7, TARN_AF_INET, 0))},
        {"rtslib_rtbm_add_lr", PLAIN(rtslib_rtbm_add_lr(h, "sweep-lr", 8, TARN_AF_INET, "lr-1", 1, 0))},
        {"rtslib_rtbm_update", PLAIN(rtslib_rtbm_update(h, 7, TARN_AF_INET, 11, "green", 12, 13, RTS_OP_CHANGE))},
        {"rtslib_rtbm_get_by_index", RECORD(rtb_msg_t, rtslib_rtbm_get_by_index(h, TARN_AF_INET, 0, RTS_OP_GET, &r, nullptr))},
        {"rtslib_rtstats_get", PLAIN(rtslib_rtstats_get(h, TARN_AF_INET, 0, 0, 0, 16, &stored, stats))},
        {"rtslib_mgrm_get", RECORD(mgr_msg_t, rtslib_mgrm_get(h, 0, TARN_AF_INET, group, 32, RTS_OP_GET, &r, nullptr))},
    }));
    rtslib_msg_idl_release(own, found);
    rtslib_close(own);
}

TEST_F(FamilySweep, InterfaceLookupsAndStatistics)
{
    const uint8_t local[4] = {192, 0, 2, 1};
    const uint8_t subnet[4] = {192, 0, 2, 0};
    uint32_t donor = 0;
    uint32_t limit = 0;
    uint32_t len = 0;
    sweep(rows({
        {"rtslib_ifdm_get_by_index", RECORD(ifdev_msg_t, rtslib_ifdm_get_by_index(h, kEm0Device, RTS_OP_GET, &r, nullptr))},
        {"rtslib_ifdm_get_by_snmp_index", RECORD(ifdev_msg_t, rtslib_ifdm_get_by_snmp_index(h, kEm0Device, RTS_OP_GET, &r, nullptr))},
        {"rtslib_iflm_get_by_index", RECORD(ifl_msg_t, rtslib_iflm_get_by_index(h, kEm1, RTS_OP_GET, &r, nullptr))},
        {"rtslib_iflm_get_by_snmp_index", RECORD(ifl_msg_t, rtslib_iflm_get_by_snmp_index(h, 1000 + kEm1, RTS_OP_GET, &r, nullptr))},
        {"rtslib_iflm_get_by_device", RECORD(ifl_msg_t, rtslib_iflm_get_by_device(h, 3, 0, RTS_OP_GET, &r, nullptr))},
        {"rtslib_iflm_get_by_name", RECORD(ifl_msg_t, rtslib_iflm_get_by_name(h, "em1", 0, RTS_OP_GET, &r, nullptr))},
        {"rtslib_iflm_get_by_sid", RECORD(ifl_msg_t, rtslib_iflm_get_by_sid(h, kEm0Device, kEm0, RTS_OP_GET, &r, nullptr))},
        {"rtslib_ifam_get_by_index", RECORD(ifa_msg_t, rtslib_ifam_get_by_index(h, kEm0, TARN_AF_INET, RTS_OP_GET, &r, nullptr))},
        {"rtslib_ifam_get_by_dest", RECORD(ifa_msg_t, rtslib_ifam_get_by_dest(h, kEm0, TARN_AF_INET, subnet, 24, RTS_OP_GET, &r, nullptr))},
        {"rtslib_ifam_get_by_local", RECORD(ifa_msg_t, rtslib_ifam_get_by_local(h, kEm0, TARN_AF_INET, local, 32, RTS_OP_GET, &r, nullptr))},
        {"rtslib_ifam_get_by_local_dest", RECORD(ifa_msg_t, rtslib_ifam_get_by_local_dest(h, kEm0, TARN_AF_INET, subnet, 24, local, 32, RTS_OP_GET, &r, nullptr))},
        {"rtslib_iffm_get_by_index", RECORD(iff_msg_t, rtslib_iffm_get_by_index(h, kEm0, TARN_AF_INET, RTS_OP_GET, &r, nullptr))},
        {"rtslib_iffm_get_by_dev_name", RECORD(iff_msg_t, rtslib_iffm_get_by_dev_name(h, TARN_AF_INET, "em1", 0, RTS_OP_GET, &r, nullptr))},
        {"rtslib_unnum_get_donor_ifl_idx", PLAIN(rtslib_unnum_get_donor_ifl_idx(h, kGe5, TARN_AF_INET, &donor))},
        {"rtslib_ifdsm_get_by_index", RAW(rtslib_ifdsm_get_by_index(h, kEm0Device, 0, RTS_OP_GET, &r))},
        {"rtslib_ifdsm_get_by_name", RAW(rtslib_ifdsm_get_by_name(h, "em0", 0, RTS_OP_GET, &r))},
        {"__rtslib_iflsm_get_by_index", RAW(__rtslib_iflsm_get_by_index(h, kEm0, RTS_OP_GET, &r))},
        {"__rtslib_iflsm_get_by_index_and_subtype", RAW(__rtslib_iflsm_get_by_index_and_subtype(h, kEm0, 0, RTS_OP_GET, &r))},
        {"__rtslib_iflsm_get_by_sid", RAW(__rtslib_iflsm_get_by_sid(h, kEm0Device, kEm0, RTS_OP_GET, &r))},
        {"__rtslib_iflsm_get_by_name", RAW(__rtslib_iflsm_get_by_name(h, "em0", 0, RTS_OP_GET, &r))},
        {"__rtslib_iflsm_get_by_name_and_subtype", RAW(__rtslib_iflsm_get_by_name_and_subtype(h, "em0", 0, 0, RTS_OP_GET, &r))},
        {"rtslib_iffsm_get_by_index", RAW(rtslib_iffsm_get_by_index(h, kEm0, TARN_AF_INET, 0, RTS_OP_GET, &r))},
        {"rtslib_ifsm_get", RAW(rtslib_ifsm_get(h, &r, &len))},
        {"rtslib_ifsm_request", RAW(rtslib_ifsm_request(h, RTS_OP_GET, 0, nullptr, &r, &len))},
        {"rtslib_ifsclim_get", PLAIN(rtslib_ifsclim_get(&limit))},
    }));
}

TEST_F(FamilySweep, InterfaceChanges)
{
    const uint8_t local[4] = {198, 51, 100, 1};
    const uint8_t data[3] = {1, 2, 3};
    const uint8_t tlv[8] = {9, 0, 4, 0, 1, 2, 3, 4};
    const uint8_t vrrp[6] = {227, 0, 2, 0, 1, 0};
    uint32_t id = 0;
    sweep(rows({
        {"rtslib_ifdm_add", PLAIN(rtslib_ifdm_add(h, "sw0", 9, 0, nullptr, nullptr, nullptr))},
        {"rtslib_ifdm_add_with_tlvs", PLAIN(rtslib_ifdm_add_with_tlvs(h, "sw1", 10, 0, 0, 0, nullptr, nullptr, nullptr, tlv, sizeof tlv))},
        {"rtslib_ifdm_pointchange", PLAIN(rtslib_ifdm_pointchange(h, kEm0Device, 0x100, nullptr, data, sizeof data))},
        {"rtslib_ifdm_change_flags", PLAIN(rtslib_ifdm_change_flags(h, kEm0Device, 0x4, 1))},
        {"rtslib_ifdm_change_tlvs", PLAIN(rtslib_ifdm_change_tlvs(h, kEm0Device, 0, tlv, sizeof tlv))},
        {"rtslib_iflm_update", PLAIN(rtslib_iflm_update(h, kEm1, 3, 0, 1000 + kEm1, "em1", nullptr, RTS_OP_CHANGE))},
        {"rtslib_iflm_update_flags", PLAIN(rtslib_iflm_update_flags(h, kEm1, 3, 0, 1000 + kEm1, "em1", 0x40, RTS_OP_CHANGE))},
        {"rtslib_iflm_pointchange_tlv", PLAIN(rtslib_iflm_pointchange_tlv(h, kEm1, 0, 0, 0, nullptr, tlv, sizeof tlv))},
        {"rtslib_ifam_update", PLAIN(rtslib_ifam_update(h, kEm1, TARN_AF_INET, nullptr, 0, local, 32, RTS_OP_CHANGE))},
        {"rtslib_ifa_pointchange", PLAIN(rtslib_ifa_pointchange(h, kEm1, TARN_AF_INET, local, 32, vrrp, sizeof vrrp))},
        {"rtslib_iffm_update", PLAIN(rtslib_iffm_update(h, kEm1, TARN_AF_INET, 1, 2, 3, 4, nullptr, RTS_OP_CHANGE))},
    }));
    // A client registered by one run is removed before the next.
    sweep({on_handle({.name = "rtslib_ifsm_register",
                      .call = [&] { return rtslib_ifsm_register(h_, "sweep", &id); },
                      .failure = {ENOMEM},
                      .cleanup = [&] { unregister_all(); }}),
           on_handle({.name = "rtslib_ifsm_unregister",
                      .setup = [&] { ASSERT_EQ(rtslib_ifsm_register(h_, "sweep", &id), 0); },
                      .call = [&] { return rtslib_ifsm_unregister(h_, id); },
                      .failure = {ENOMEM},
                      .cleanup = [&] { unregister_all(); }})});
}

// The helpers without a handle open one of their own; a failed open keeps
// its read buffer.
TEST_F(FamilySweep, InterfaceNames)
{
    char name[64] = {};
    uint8_t bit = 0;
    int inet = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(inet, 0);
    uint8_t req[108] = {};
    std::memcpy(req, "em1.0", 6);
    req[61] = TARN_AF_INET;
    const uint8_t added[4] = {10, 9, 9, 9};
    std::memcpy(req + 64, added, sizeof added);
    std::vector<Entry> helpers = {
        {"ifl_getindexbysnmpifindex", PLAIN(index_of(ifl_getindexbysnmpifindex(1000 + kEm1)))},
        {"ifl_getnamebyifindex", PLAIN(index_of(ifl_getnamebyifindex(kGe5, name, sizeof name)))},
        {"ifl_getnamebysnmpifindex", PLAIN(index_of(ifl_getnamebysnmpifindex(1000 + kLo0, name, sizeof name)))},
        {"ifl_getlrindexbyifindex", PLAIN(index_of(ifl_getlrindexbyifindex(kEm0)))},
        {"ifl_getlrindexbyifname", PLAIN(index_of(ifl_getlrindexbyifname("em0.0")))},
        {"ifl_get_underlying_device_byifindex", PLAIN(index_of(ifl_get_underlying_device_byifindex(kGe5, name, sizeof name)))},
        {"ifl_get_subset_iif", PLAIN(errno_of(ifl_get_subset_iif(kEm0, 3, &bit)))},
        {"ifl_set_subset_iif", PLAIN(errno_of(ifl_set_subset_iif(kEm0, 3, 1)))},
        {"ifl_setsendifbyifname", PLAIN(applied(ifl_setsendifbyifname(inet, "lo0.0")))},
        {"ifl_setsendifbysnmpifindex", PLAIN(applied(ifl_setsendifbysnmpifindex(inet, 1000 + kLo0)))},
    };
    for (Entry &e : helpers)
        e.kept = 1;
    sweep(rows(helpers));
    // An address added by one run is deleted before the next.
    auto ioctl = [&](unsigned long request) { return index_of(wrl_ioctl(0, request, req)); };
    sweep({{.name = "wrl_ioctl (add)",
            .call = [&] { return ioctl(WRL_SIOCAIFADDR); },
            .failure = {ENOMEM},
            .cleanup = [&] { ioctl(WRL_SIOCDIFADDR); },
            .kept = 1},
           {.name = "wrl_ioctl (delete)",
            .setup = [&] { ASSERT_EQ(ioctl(WRL_SIOCAIFADDR), 0); },
            .call = [&] { return ioctl(WRL_SIOCDIFADDR); },
            .failure = {ENOMEM},
            .cleanup = [&] { ioctl(WRL_SIOCDIFADDR); },
            .kept = 1}});
    close(inet);
}

int ignore(rtslib_cookie *, void *, void *, void *) { return 0; }

// The registrations that take only an argument and a handler.
#define PLAIN_REGISTRATIONS(X)                                                                  \
    X(rtbm) X(ifdm) X(iflm) X(rnhm) X(mgrm) X(dfwm) X(ifdest) X(ifdalm) X(dfwstatsm) X(pfeinfo)  \
    X(ifvcm) X(rtclass) X(cos) X(sample) X(sadbm) X(monitor) X(monitor_state) X(pkcs_reply)     \
    X(ifvpm) X(ifsm) X(asp_cfg) X(asp_ipsec) X(l2tp) X(cp_config) X(cp_pic) X(picm) X(ksyncm)   \
    X(gencfg) X(aggr_config) X(pfe_dwn_map) X(stp) X(nh_comp) X(vlan) X(mesh_group)            \
    X(analyzer) X(bd) X(ifbd) X(ksdb) X(fc_fabric) X(ddos) X(notify)

TEST_F(FamilySweep, HandlerRegistrations)
{
    int fd = -1;
    void *arg = nullptr;
    const rtslib_async_handler_fn fn = ignore;
#define REGISTER(call) PLAIN(errno_of(call))
#define ROW(kind) {"rtslib_" #kind "_async_register", REGISTER(rtslib_##kind##_async_register(h, arg, fn))},
    sweep(rows(
        {
            PLAIN_REGISTRATIONS(ROW)
            {"rtslib_iffm_async_register", REGISTER(rtslib_iffm_async_register(h, 5, arg, fn))},
            {"rtslib_ifam_async_register", REGISTER(rtslib_ifam_async_register(h, 1, arg, fn))},
            {"rtslib_async_opaque_register", REGISTER(rtslib_async_opaque_register(h, arg, fn, nullptr))},
            {"rtslib_qsv_async_register", REGISTER(rtslib_qsv_async_register(h, arg, fn, 2))},
            {"rtslib_kuack_async_register", REGISTER(rtslib_kuack_async_register(h, 0, arg, fn))},
            {"rtslib_sysstatsm_async_register", REGISTER(rtslib_sysstatsm_async_register(h, 4, arg, fn))},
            {"rtslib_ifstate_eochain_register", REGISTER(rtslib_ifstate_eochain_register(h, arg, fn))},
        },
        [&] { ASSERT_EQ(rtslib_set_async_info_nocontext(h_, &fd), 0); }));
#undef ROW
#undef REGISTER
}

}  // namespace
}  // namespace tarn::test::alloc
