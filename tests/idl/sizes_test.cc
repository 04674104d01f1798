// Record and map sizes: the exported size objects against this build's
// records, the generator's target-ABI figures against the kernel's, and on the
// i386 build the exported objects themselves against the kernel's numbers.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include <tarn/idl.h>

#include "idl_test_support.h"

namespace tarn::test {
namespace {

TEST(Sizes, ExportedObjectsMatchTheRecords)
{
    for (std::size_t i = 0; i < idlmeta::type_count; ++i) {
        const idlmeta::Type &t = idlmeta::types[i];
        if (t.tlv_sizeof) {
            EXPECT_EQ(*t.tlv_sizeof, t.size) << t.name;
            EXPECT_EQ(*t.tlv_sizeof_map, t.map_size) << t.name;
        }
        if (t.idr_sizeof) {
            EXPECT_EQ(*t.idr_sizeof, t.size) << t.name;
        }
#if UINTPTR_MAX == 0xffffffffu
        EXPECT_EQ(t.size, t.target_size) << t.name;
        EXPECT_EQ(t.map_size, t.target_map_size) << t.name;
#endif
    }
}

struct Fixed {
    const char *type;
    uint32_t size, map_size;  // map 0: not fixed
};

// Sizes the kernel's message layouts fix on the target.
constexpr Fixed kFixed[] = {
    {"af_fixup", 1, 4},        {"rt_tlv_ifaddr", 8, 4}, {"rts_hdr", 32, 8},
    {"rts_base", 32, 12},      {"rts_msg_info", 220, 288}, {"rtb_msg", 184, 60},
    {"rt_msg", 228, 0},        {"mgr_msg", 52, 0},      {"ifdev_msg", 148, 0},
    {"ifl_msg", 184, 0},       {"ifa_msg", 144, 0},     {"iff_msg", 252, 0},
    {"gencfg_msg", 96, 0},     {"gencfg_peerinfo", 24, 0}, {"gencfg_depinfo", 24, 0},
    {"if_pfe_options", 124, 0}, {"sdl_info", 116, 0},   {"idl_sockaddr_gen", 36, 0},
};

TEST(Sizes, TargetLayoutsHoldTheKernelsNumbers)
{
    for (const Fixed &f : kFixed) {
        const idlmeta::Type &t = meta(f.type);
        EXPECT_EQ(t.target_size, f.size) << f.type;
        if (f.map_size) {
            EXPECT_EQ(t.target_map_size, f.map_size) << f.type;
        }
    }
}

TEST(Sizes, EnvelopeObjects)
{
    EXPECT_EQ(tlv_rtti_sizeof_rts_msg_0, sizeof(rts_msg_t));
    EXPECT_EQ(idr_rtti_sizeof_rts_msg_0, sizeof(rts_msg_t));
    EXPECT_EQ(tlv_rtti_sizeof_map_rts_msg_0, sizeof(rts_msg_map_t));
#if UINTPTR_MAX == 0xffffffffu
    EXPECT_EQ(tlv_rtti_sizeof_rts_msg_0, 8u);
    EXPECT_EQ(tlv_rtti_sizeof_map_rts_msg_0, 4u);
#endif
}

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(af_fixup_t) == 1 && sizeof(af_fixup_map_t) == 4);
static_assert(sizeof(rt_tlv_ifaddr_t) == 8 && sizeof(rt_tlv_ifaddr_map_t) == 4);
static_assert(sizeof(rts_hdr_t) == 32 && sizeof(rts_hdr_map_t) == 8);
static_assert(sizeof(rts_base_t) == 32 && sizeof(rts_base_map_t) == 12);
static_assert(sizeof(rts_msg_info_t) == 220 && sizeof(rts_msg_info_map_t) == 288);
static_assert(sizeof(rtb_msg_t) == 184 && sizeof(rtb_msg_map_t) == 60);
static_assert(sizeof(rts_msg_t) == 8 && sizeof(rts_msg_map_t) == 4);
static_assert(sizeof(rt_msg_t) == 228 && offsetof(rt_msg_t, lookup_flags) == 47);
static_assert(offsetof(rt_msg_t, tid) == 32 && offsetof(rt_msg_t, ack_index) == 50);
static_assert(offsetof(rts_hdr_t, msglen) == 8 && offsetof(rts_hdr_t, hdrlen) == 20);
static_assert(offsetof(mgr_msg_t, af) == 32 && offsetof(mgr_msg_t, tid) == 34);
static_assert(offsetof(rtb_msg_t, tid) == 32 && offsetof(rtb_msg_t, table_flags) == 36);
static_assert(offsetof(gencfg_peerinfo_t, peer_choice) == 4 && offsetof(gencfg_peerinfo_t, peer) == 8);
#endif

// Tags: the rt_tlv_* records count from 0, the others from 1; the kernel's
// information tags are where it expects them.
TEST(Tags, NumberingPerFamily)
{
    EXPECT_EQ(meta("rt_tlv_ifaddr").fields[0].tag, 0u);
    EXPECT_EQ(meta("rt_tlv_arpnh_vrrp_info").fields[0].tag, 0u);
    EXPECT_EQ(meta("rt_tlv_arpnh_vrrp_info").fields[1].tag, 1u);
    EXPECT_EQ(meta("rt_tlv_oam_session_id").fields[0].tag, 1u);
    for (std::size_t i = 0; i < idlmeta::type_count; ++i) {
        const idlmeta::Type &t = idlmeta::types[i];
        if (std::strncmp(t.name, "rt_tlv_", 7) == 0) continue;
        EXPECT_EQ(t.fields[0].tag, 1u) << t.name;
    }
    const idlmeta::Type &info = meta("rts_msg_info");
    auto tag_of = [&](const char *field) {
        for (uint32_t i = 0; i < info.field_count; ++i)
            if (std::string(info.fields[i].name) == field) return info.fields[i].tag;
        return 0u;
    };
    EXPECT_EQ(tag_of("unnum_donor"), 183u);
    EXPECT_EQ(tag_of("subset_iif"), 225u);
    EXPECT_EQ(tag_of("vrrp_state"), 227u);
}

TEST(Members, EveryMessageBeginsWithTheHeader)
{
    const char *members[] = {"rts_base", "rtb_msg", "rt_msg", "ifdev_msg", "ifl_msg", "iff_msg",
                             "ifa_msg", "rnh_msg", "rtm_msg", "mgr_msg", "dfw_msg", "ifdest_msg",
                             "rnhs_msg", "ifvc_msg", "ntbl_msg", "rt_cos_fqstats_msg",
                             "sample_msg", "ifvp_msg", "rts_sysconf_msg", "rts_commit_msg",
                             "pic_msg", "ksync_msg", "gencfg_msg", "stp_msg", "rnhc_msg",
                             "vlan_msg", "mesh_group_msg", "analyzer_msg", "bd_msg", "ifbd_msg",
                             "ksdb_msg", "bulkstats_msg", "fmgrp_msg", "fc_fabric_msg",
                             "rt_cos_voqstats_msg", "pktinject_msg", "ddos_msg", "notify_msg",
                             "sysstats_msg"};
    for (const char *m : members) {
        const idlmeta::Type &t = meta(m);
        ASSERT_GT(t.field_count, 0u) << m;
        EXPECT_EQ(t.fields[0].offset, 0u) << m;
        EXPECT_STREQ(idlmeta::types[t.fields[0].sub].name, "rts_hdr") << m;
    }
}

}  // namespace
}  // namespace tarn::test
