// Registration: which message types each call takes, which listen bits it
// sends, and how registrations fail.
#include <cerrno>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "async_test_support.h"

namespace {

using tarn::test::AsyncTest;
using tarn::test::count_of;
using tarn::test::listen_mask;
using tarn::test::raw_message;
using tarn::test::Report;
using tarn::test::Seen;
using tarn::test::socket_option;

using Register = std::function<int(rtslib_cookie *, void *, rtslib_async_handler_fn)>;

struct Row {
    const char *name;
    Register reg;
    std::vector<int> types;
    uint32_t lo;
    uint32_t hi;
};

Register plain(int (*fn)(rtslib_cookie *, void *, rtslib_async_handler_fn))
{
    return fn;
}

Register with_flags(int (*fn)(rtslib_cookie *, uint8_t, void *, rtslib_async_handler_fn),
                    uint8_t flags)
{
    return [=](rtslib_cookie *h, void *a, rtslib_async_handler_fn f) { return fn(h, flags, a, f); };
}

Register qsv(int flag)
{
    return [=](rtslib_cookie *h, void *a, rtslib_async_handler_fn f) {
        return rtslib_qsv_async_register(h, a, f, flag);
    };
}

const std::vector<Row> &rows()
{
    static const std::vector<Row> r = {
        {"rtbm", plain(rtslib_rtbm_async_register), {1}, 0x2000, 0},
        {"rtm", plain(rtslib_rtm_async_register), {2}, 0x200380, 0},
        {"ifdm", plain(rtslib_ifdm_async_register), {5}, 0x1, 0},
        {"iflm", plain(rtslib_iflm_async_register), {6}, 0x2, 0},
        {"iffm 0", with_flags(rtslib_iffm_async_register, 0), {7}, 0, 0},
        {"iffm 1", with_flags(rtslib_iffm_async_register, 1), {7}, 0x10, 0},
        {"iffm 4", with_flags(rtslib_iffm_async_register, 4), {7}, 0x4, 0},
        {"iffm 5", with_flags(rtslib_iffm_async_register, 5), {7}, 0x14, 0},
        {"ifam 1", with_flags(rtslib_ifam_async_register, 1), {8}, 0x20, 0},
        {"ifam 6", with_flags(rtslib_ifam_async_register, 6), {8}, 0x8, 0},
        {"rnhm", plain(rtslib_rnhm_async_register), {10}, 0x40, 0},
        {"mgrm", plain(rtslib_mgrm_async_register), {13}, 0x400, 0},
        {"dfwm", plain(rtslib_dfwm_async_register), {14}, 0x8000, 0},
        {"ifdest", plain(rtslib_ifdest_async_register), {18}, 0, 0x20000},
        {"ifdalm", plain(rtslib_ifdalm_async_register), {20}, 0x1000, 0},
        {"dfwstatsm", plain(rtslib_dfwstatsm_async_register), {22}, 0, 0},
        {"pfeinfo", plain(rtslib_pfeinfo_async_register), {24}, 0, 0x100000},
        {"ifvcm", plain(rtslib_ifvcm_async_register), {27}, 0x40000, 0},
        {"rtclass", plain(rtslib_rtclass_async_register), {28}, 0x200000, 0},
        {"cos", plain(rtslib_cos_async_register), {31, 32, 34, 38, 39, 35, 36, 37, 55, 71},
         0x10000, 0},
        {"sample", plain(rtslib_sample_async_register), {40}, 0x80000, 0},
        {"sadbm", plain(rtslib_sadbm_async_register), {41}, 0x4000000, 0},
        {"monitor", plain(rtslib_monitor_async_register), {43}, 0x100000, 0},
        {"monitor_state", plain(rtslib_monitor_state_async_register), {44}, 0x800000, 0},
        {"pkcs_reply", plain(rtslib_pkcs_reply_async_register), {45}, 0x20000, 0x40000000},
        {"ifvpm", plain(rtslib_ifvpm_async_register), {46}, 0x400000, 0},
        {"ifsm", plain(rtslib_ifsm_async_register), {47}, 0x1000000, 0},
        {"asp_cfg", plain(rtslib_asp_cfg_async_register), {53}, 0, 0x4},
        {"asp_ipsec", plain(rtslib_asp_ipsec_async_register), {54}, 0x2000000, 0},
        {"l2tp", plain(rtslib_l2tp_async_register), {57}, 0x8000000, 0},
        {"cp_config", plain(rtslib_cp_config_async_register), {58, 60, 61, 59}, 0x20000000, 0},
        {"cp_pic", plain(rtslib_cp_pic_async_register), {62, 63, 64, 66, 67, 65}, 0x10000000, 0},
        {"picm", plain(rtslib_picm_async_register), {68}, 0x40000000, 0},
        {"ksyncm", plain(rtslib_ksyncm_async_register), {69}, 0x80000000, 0},
        {"gencfg", plain(rtslib_gencfg_async_register), {72}, 0, 0x1},
        {"aggr_config", plain(rtslib_aggr_config_async_register), {73, 74, 75, 76, 77}, 0, 0x2},
        {"async_opaque",
         [](rtslib_cookie *h, void *a, rtslib_async_handler_fn f) {
             return rtslib_async_opaque_register(h, a, f, nullptr);
         },
         {79}, 0, 0x8},
        {"qsv 0", qsv(0), {80}, 0, 0x10},
        {"qsv 2", qsv(2), {80}, 0, 0x40000010},
        {"pfe_dwn_map", plain(rtslib_pfe_dwn_map_async_register), {81}, 0, 0x20},
        {"stp", plain(rtslib_stp_async_register), {82}, 0, 0x40},
        {"nh_comp", plain(rtslib_nh_comp_async_register), {83}, 0, 0x80},
        {"vlan", plain(rtslib_vlan_async_register), {84}, 0, 0x100},
        {"mesh_group", plain(rtslib_mesh_group_async_register), {87}, 0, 0x400},
        {"analyzer", plain(rtslib_analyzer_async_register), {88}, 0, 0x800},
        {"bd", plain(rtslib_bd_async_register), {89}, 0, 0x1000},
        {"ifbd", plain(rtslib_ifbd_async_register), {90}, 0, 0x2000},
        {"ksdb", plain(rtslib_ksdb_async_register), {91}, 0, 0x4000},
        {"fc_fabric", plain(rtslib_fc_fabric_async_register), {94}, 0, 0x40000},
        {"ddos", plain(rtslib_ddos_async_register), {97}, 0, 0x80000},
        {"notify", plain(rtslib_notify_async_register), {98}, 0, 0x400000},
        {"kuack",
         [](rtslib_cookie *h, void *a, rtslib_async_handler_fn f) {
             return rtslib_kuack_async_register(h, 77, a, f);
         },
         {99}, 0, 0},
        {"sysstatsm 3", with_flags(rtslib_sysstatsm_async_register, 3), {101}, 0, 0},
        {"sysstatsm 4", with_flags(rtslib_sysstatsm_async_register, 4), {101}, 0, 0x1000000},
        {"ifstate_eochain", plain(rtslib_ifstate_eochain_register), {85}, 0, 0},
        {"ifsclim", plain(rtslib_ifsclim_async_register), {85}, 0, 0},
    };
    return r;
}

// A raw notification of the given type whose subtype byte (offset 24) is 0.
std::vector<uint8_t> notification(rtslib_cookie *h, int type)
{
    auto m = raw_message(32, h->seq, static_cast<uint8_t>(type));
    m[24] = 0;
    return m;
}

class AsyncRegister : public AsyncTest {};

TEST_F(AsyncRegister, EachCallTakesItsTypesAndListenBits)
{
    for (const Row &row : rows()) {
        SCOPED_TRACE(row.name);
        rtslib_cookie *h = open();
        ASSERT_NE(h, nullptr);
        ASSERT_EQ(rtslib_create_async_context(h), 0);
        Seen seen;
        ASSERT_EQ(row.reg(h, &seen, Seen::handler), 0);
        EXPECT_EQ(listen_mask(h), (uint64_t{row.hi} << 32) | row.lo);

        // Every type is offered once; only the row's types reach the handler.
        std::vector<int> expected_handled;
        const std::set<int> mine(row.types.begin(), row.types.end());
        for (int t = 0; t < RTS_MSG_TYPE_COUNT; ++t) {
            ASSERT_EQ(tarn::test::inject(h->fd, notification(h, t)), 0);
            const int rc = rtslib_async_event_process(h);
            if (mine.count(t) != 0) {
                EXPECT_EQ(rc, 0) << "type " << t;
            } else {
                EXPECT_EQ(rc, -1) << "type " << t;
                EXPECT_EQ(errno, ENOENT) << "type " << t;
            }
        }
        std::vector<int> sorted = row.types;
        std::sort(sorted.begin(), sorted.end());
        EXPECT_EQ(seen.types, sorted);
        rtslib_close(h);
    }
}

TEST_F(AsyncRegister, TypesSharingListenBitsSendTheOptionOnce)
{
    ASSERT_EQ(rtslib_create_async_context(h_), 0);
    Seen seen;
    ASSERT_EQ(rtslib_cos_async_register(h_, &seen, Seen::handler), 0);  // ten types
    ASSERT_EQ(rtslib_monitor_async_register(h_, &seen, Seen::handler), 0);
    ASSERT_EQ(rtslib_dfwstatsm_async_register(h_, &seen, Seen::handler), 0);  // no bits
    EXPECT_EQ(count_of(emu_.output(), "set listen-mask"), 2u);
    EXPECT_EQ(listen_mask(h_), 0x110000u);
}

TEST_F(AsyncRegister, RefusalsLeaveNothingRegistered)
{
    Seen seen;
    EXPECT_EQ(rtslib_rtm_async_register(h_, &seen, Seen::handler), EINVAL);  // no context
    EXPECT_EQ(rtslib_rtm_async_register(nullptr, &seen, Seen::handler), EINVAL);
    ASSERT_EQ(rtslib_create_async_context(h_), 0);
    EXPECT_EQ(rtslib_rtm_async_register(h_, &seen, nullptr), EINVAL);
    EXPECT_EQ(rtslib_ifsclim_async_register(h_, &seen, nullptr), EINVAL);
    ASSERT_EQ(rtslib_rtm_async_register(h_, &seen, Seen::handler), 0);
    EXPECT_EQ(rtslib_rtm_async_register(h_, &seen, Seen::handler), EINVAL);
    EXPECT_EQ(count_of(emu_.output(), "set listen-mask"), 1u);
    EXPECT_TRUE(reports_.reports.empty());
}

class AsyncRegisterListenRefused : public AsyncTest {
protected:
    AsyncRegisterListenRefused() : AsyncTest({"--log", "--fail-option", "1"}) {}
};

TEST_F(AsyncRegisterListenRefused, FailureIsReportedAndTheTypeStaysFree)
{
    ASSERT_EQ(rtslib_create_async_context(h_), 0);
    Seen seen;
    EXPECT_EQ(rtslib_rtm_async_register(h_, &seen, Seen::handler), -1);
    EXPECT_EQ(rtslib_input_async_register(h_), -1);
    const std::string einval = std::strerror(EINVAL);
    EXPECT_EQ(reports_.reports,
              (std::vector<Report>{{3, "rtslib: ERROR failed to set listen bit " + einval},
                                   {3, "rtslib: ERROR failed to set RTSO_INPUT listen bit " +
                                           einval}}));
    // Registrations without listen bits still work; the refused type is free.
    EXPECT_EQ(rtslib_kuack_async_register(h_, 0, &seen, Seen::handler), 0);
    push(raw_message(24, h_->seq, RTS_MSG_ROUTE));
    EXPECT_EQ(rtslib_async_event_process(h_), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(AsyncRegister, OpaqueRegistrationSendsItsSubtypeBlock)
{
    ASSERT_EQ(rtslib_create_async_context(h_), 0);
    Seen seen;
    uint8_t block[ROUTE_LISTEN_SUBTYPES_LEN] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
    ASSERT_EQ(rtslib_async_opaque_register(h_, &seen, Seen::handler, block), 0);
    EXPECT_EQ(block[0], 35);
    EXPECT_EQ(socket_option(h_, ROUTE_LISTEN_SUBTYPES, ROUTE_LISTEN_SUBTYPES_LEN),
              std::vector<uint8_t>(block, block + sizeof block));
    uint8_t back[ROUTE_LISTEN_SUBTYPES_LEN] = {35};
    ASSERT_EQ(rtslib_get_async_msg_subtype(h_, back), 0);
    EXPECT_EQ(std::memcmp(back, block, sizeof block), 0);
}

}  // namespace
