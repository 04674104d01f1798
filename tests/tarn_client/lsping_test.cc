// LSP-ping queries: the bytes each request puts on the wire, and the records
// their replies become (or their dropping, when a reply lies about its size).
#include <cerrno>
#include <functional>

#include <tarn/tarn_lsping_query.h>

#include "client_fixture.h"

namespace tarn::test {
namespace {

struct Query {
    const char *name;
    std::function<int(tarn_session_handle *)> call;
    uint16_t type;
    std::vector<uint8_t> payload;
};

TEST_F(ClientTest, QueryLayouts)
{
    accept_session();
    const tarn_lsping_fec fec{0x0a000002, 32, 0};
    const uint8_t v4[16] = {192, 168, 1, 0, 0xff, 0xff};  // only 4 bytes travel
    uint8_t v6[16] = {0x20, 0x01};
    v6[15] = 9;
    const std::vector<Query> table = {
        {"rsvp", [](auto s) { return tarn_rsvp_lsp_lookup(s, "lsp1", "p", "ge0", 6, 0x01020304); }, 18,
         Bytes().u32(0x01020304).u32(6).u16(5).u16(2).u16(4).u16(0).raw("lsp1", 5).raw("p", 2).raw("ge0", 4)},
        {"rsvp_no_path", [](auto s) { return tarn_rsvp_lsp_lookup(s, "a", nullptr, nullptr, 0, 1); }, 18,
         Bytes().u32(1).u32(0).u16(2).u16(0).u16(0).u16(0).raw("a", 2)},
        {"rsvp_p2mp", [](auto s) { return tarn_rsvp_p2mp_lsp_lookup(s, "t", "q", 2); }, 38,
         Bytes().u32(2).u32(0).u16(2).u16(2).u16(0).u16(0).raw("t", 2).raw("q", 2)},
        {"ldp_fec", [&](auto s) { return tarn_ldp_fec_lookup(s, &fec, "red", 3); }, 20,
         Bytes().u32(3).u32(0x0a000002).u16(32).u16(4).raw("red", 4)},
        {"ldp_fec_master", [&](auto s) { return tarn_ldp_fec_lookup(s, &fec, "", 3); }, 20,
         Bytes().u32(3).u32(0x0a000002).u16(32).u16(1).u8(0)},
        {"bgp_fec", [&](auto s) { return tarn_bgp_fec_lookup(s, &fec, "b", 4); }, 52,
         Bytes().u32(4).u32(0x0a000002).u16(32).u16(2).raw("b", 2)},
        {"vpn_v4", [&](auto s) { return tarn_vpn_pfx_lookup(s, 1, v4, 24, "red", 5); }, 22,
         Bytes().u32(5).u8(1).u8(24).u16(4).raw(v4, 4).zeros(12).raw("red", 4)},
        {"endpt_v6", [&](auto s) { return tarn_endpt_lookup(s, 6, v6, 128, "", 6); }, 24,
         Bytes().u32(6).u8(6).u8(128).u16(1).raw(v6, 16).u8(0)},
        {"lspmon", [](auto s) { return tarn_lspmon_lookup(s, "m", 7); }, 27,
         Bytes().u32(7).u16(2).u16(0).raw("m", 2)},
        {"static", [](auto s) { return tarn_static_lsp_lookup(s, "st", 8); }, 49,
         Bytes().u32(8).u16(3).u16(0).raw("st", 3)},
        {"l2vpn", [](auto s) { return tarn_l2vpn_lookup(s, "blue", 1, 0x0203, "ge1", 9); }, 29,
         Bytes().u32(9).u16(1).u16(0x0203).u16(5).u16(4).raw("blue", 5).raw("ge1", 4)},
        {"fec129", [](auto s) { return tarn_l2vpn_fec129_lookup(s, "g", "sa", "tai", 10); }, 58,
         Bytes().u32(10).u16(2).u16(3).u16(4).u16(0).raw("g", 2).raw("sa", 3).raw("tai", 4)},
        {"l2ckt", [](auto s) { return tarn_l2ckt_lookup(s, 0x0a000002, 100, nullptr, 11); }, 31,
         Bytes().u32(11).u32(0x0a000002).u32(100).u16(0).u16(0)},
        {"ldp_p2mp", [](auto s) { return tarn_ldp_p2mp_fec_lookup(s, 0x0a000001, 0x11223344, "i", 12); }, 47,
         Bytes().u32(12).u32(0x0a000001).u32(0x11223344).u16(2).u16(0).raw("i", 2)},
        {"tdmpw", [](auto s) { return tarn_tdmpw_lookup(s, 0xdeadbeef); }, 43, Bytes().u32(0xdeadbeef)},
        {"mdiagd", [](auto s) { return tarn_mdiagd_p2mp_request(s, 14); }, 56, Bytes().u32(14)},
    };
    for (const Query &q : table) {
        SCOPED_TRACE(q.name);
        ASSERT_EQ(q.call(s_), 0);
        Frame f = daemon_.read();
        ASSERT_TRUE(f.ok);
        EXPECT_EQ(f.type, q.type);
        EXPECT_EQ(f.payload, q.payload);
    }
}

TEST_F(ClientTest, BadQueryArgumentsSendNothing)
{
    accept_session();
    const std::string long_name(TARN_LSPING_NAME_MAX + 1, 'x');
    const uint8_t pfx[16] = {};
    const std::vector<std::function<int()>> table = {
        [&] { return tarn_rsvp_lsp_lookup(s_, nullptr, nullptr, nullptr, 0, 1); },
        [&] { return tarn_rsvp_lsp_lookup(s_, "a", long_name.c_str(), nullptr, 0, 1); },
        [&] { return tarn_ldp_fec_lookup(s_, nullptr, "", 1); },
        [&] { return tarn_ldp_fec_lookup(s_, nullptr, nullptr, 1); },
        [&] { return tarn_vpn_pfx_lookup(s_, 2, pfx, 8, "v", 1); },
        [&] { return tarn_vpn_pfx_lookup(s_, 1, pfx, 33, "v", 1); },
        [&] { return tarn_endpt_lookup(s_, 6, nullptr, 8, "", 1); },
        [&] { return tarn_l2vpn_fec129_lookup(s_, "v", nullptr, "t", 1); },
        [&] { return tarn_lspmon_lookup(s_, long_name.c_str(), 1); },
    };
    for (size_t i = 0; i < table.size(); ++i) {
        SCOPED_TRACE(i);
        errno = 0;
        EXPECT_EQ(table[i](), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_TRUE(daemon_.idle());
    tarn_session_close(s_);
    EXPECT_EQ(tarn_tdmpw_lookup(s_, 1), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

std::string labels_text(const tarn_lsping_labels &l)
{
    return "[" + join_u32(l.lb_labels, l.lb_count) + "]";
}
std::string nh_text(const tarn_lsping_nexthop &nh)
{
    return std::to_string(nh.nh_ifl_index) + "/" + std::to_string(nh.nh_family) + "/" +
           std::to_string(nh.nh_address[0]) + "." + std::to_string(nh.nh_address[3]);
}

tarn_private_funs recording_private()
{
    tarn_private_funs pf{};
    pf.tpf_rsvp_lsp = [](tarn_session_handle *s, uint32_t c, uint32_t rc, const tarn_rsvp_lsp_info *r, size_t len) {
        Recorder::add(s, "rsvp %u %u k%u %x>%x t%u l%u %s %s len%zu", c, rc, r->ri_path_kind, r->ri_source,
                      r->ri_destination, r->ri_tunnel_id, r->ri_lsp_id, nh_text(r->ri_nexthop).c_str(),
                      labels_text(r->ri_labels).c_str(), len);
    };
    pf.tpf_rsvp_p2mp_lsp = pf.tpf_ldp_p2mp_fec = [](tarn_session_handle *s, uint32_t c, uint32_t rc,
                                                    const tarn_p2mp_info *r, size_t) {
        std::string b;
        for (uint32_t i = 0; i < r->pi_branch_count; ++i)
            b += " " + std::to_string(r->pi_branches[i].pb_destination) + ":" +
                 nh_text(r->pi_branches[i].pb_nexthop) + labels_text(r->pi_branches[i].pb_labels);
        Recorder::add(s, "p2mp %u %u id%u%s", c, rc, r->pi_id, b.c_str());
    };
    pf.tpf_vpn_pfx = [](tarn_session_handle *s, uint32_t c, uint32_t rc, const tarn_vpn_pfx_info *r, size_t) {
        Recorder::add(s, "vpn %u %u rd%u.%u pnh%x %s %s", c, rc, r->vi_rd[0], r->vi_rd[7], r->vi_protocol_nexthop,
                      nh_text(r->vi_nexthop).c_str(), labels_text(r->vi_labels).c_str());
    };
    pf.tpf_l2vpn = [](tarn_session_handle *s, uint32_t c, uint32_t rc, const tarn_l2vpn_info *r, size_t) {
        Recorder::add(s, "l2vpn %u %u rd%u pe%x cw%u %s %s", c, rc, r->li_rd[7], r->li_remote_pe, r->li_cw_flags,
                      nh_text(r->li_nexthop).c_str(), labels_text(r->li_labels).c_str());
    };
    pf.tpf_l2ckt = [](tarn_session_handle *s, uint32_t c, uint32_t rc, const tarn_l2ckt_info *r, size_t) {
        Recorder::add(s, "l2ckt %u %u e%u cw%u %s", c, rc, r->ci_encapsulation, r->ci_cw_flags,
                      labels_text(r->ci_labels).c_str());
    };
    pf.tpf_endpt = [](tarn_session_handle *s, uint32_t c, uint32_t rc, const tarn_endpt_info *r, size_t) {
        Recorder::add(s, "endpt %u %u p%u %s", c, rc, r->ei_protocol, labels_text(r->ei_labels).c_str());
    };
    pf.tpf_bgp_fec = [](tarn_session_handle *s, uint32_t c, uint32_t rc, const tarn_bgp_fec_info *r, size_t) {
        Recorder::add(s, "bgp %u %u %x/%u %s", c, rc, r->bi_address, r->bi_prefix_len, labels_text(r->bi_labels).c_str());
    };
    pf.tpf_lspmon = [](tarn_session_handle *s, uint32_t c, uint32_t rc, const tarn_lspmon_info *r, size_t) {
        Recorder::add(s, "mon %u %u s%u %x>%x up%u", c, rc, r->mi_state, r->mi_source, r->mi_destination, r->mi_uptime);
    };
    pf.tpf_static_lsp = [](tarn_session_handle *s, uint32_t c, uint32_t rc, const tarn_static_lsp_info *r, size_t) {
        Recorder::add(s, "static %u %u s%u %s", c, rc, r->si_state, labels_text(r->si_labels).c_str());
    };
    pf.tpf_tdmpw = [](tarn_session_handle *s, uint32_t c, uint32_t rc, const tarn_tdmpw_info *r, size_t) {
        Recorder::add(s, "tdm %u %u pw%u n%x s%u", c, rc, r->ti_pw_id, r->ti_neighbour, r->ti_state);
    };
    pf.tpf_mdiagd_p2mp = [](tarn_session_handle *s, uint32_t c, uint32_t rc, const tarn_mdiagd_p2mp_info *r, size_t) {
        Recorder::add(s, "diag %u %u [%s]", c, rc, join_u32(r->di_ids, r->di_count).c_str());
    };
    return pf;
}

// A next hop on the wire: interface, family 1, 3 zero bytes, 10.x.x.N.
Bytes nh(Bytes b, uint32_t ifl, uint8_t last)
{
    return b.u32(ifl).u8(1).zeros(3).u8(10).zeros(2).u8(last).zeros(12);
}
// A label stack: count, 3 zero bytes, `sent` labels 100, 101, ...
Bytes labels(Bytes b, uint8_t count, unsigned sent)
{
    b.u8(count).zeros(3);
    for (unsigned i = 0; i < sent; ++i) b.u32(100 + i);
    return b;
}

struct Reply {
    const char *name;
    uint16_t type;
    std::vector<uint8_t> payload;
    std::vector<std::string> expect;
};

TEST_F(ClientTest, QueryRepliesBecomeRecords)
{
    accept_session();
    const tarn_private_funs pf = recording_private();
    ASSERT_EQ(tarn_session_bind_private_funs(s_, &pf), 0);
    auto head = [](uint32_t cookie, uint32_t rc) { return Bytes().u32(cookie).u32(rc); };
    auto rsvp = [&](uint8_t count, unsigned sent) {
        Bytes b = head(1, 12).u32(13).u32(0x0a000001).u32(0x0a000002).u32(5).u32(6);
        return labels(nh(b, 7, 2), count, sent);
    };
    auto branch = [&](Bytes b, uint32_t dst, uint8_t count, unsigned sent) {
        return labels(nh(b.u32(dst), 3, 4), count, sent);
    };
    auto p2mp = [&](uint16_t announced) { return head(2, 12).u32(77).u16(announced).u16(0); };
    auto vpn = [&](uint8_t count, unsigned sent) {
        Bytes b = head(3, 7).u8(1).zeros(6).u8(8).u32(0x0a000009);
        return labels(nh(b, 7, 2), count, sent);
    };
    Bytes l2 = head(4, 12).zeros(7).u8(2).u32(0x0a000003).u32(1);
    Bytes ckt = head(5, 9).u32(4).u32(1);
    Bytes end = head(6, 3).u32(2);
    Bytes bgp = head(7, 3).u32(0x0a000009).u32(32);
    Bytes st = head(8, 3).u32(1);
    const std::vector<Reply> table = {
        {"rsvp", 19, rsvp(2, 2), {"rsvp 1 12 k13 a000001>a000002 t5 l6 7/1/10.2 [100,101] len56"}},
        {"rsvp_five_labels", 19, rsvp(5, 5), {"rsvp 1 12 k13 a000001>a000002 t5 l6 7/1/10.2 [100,101,102,103,104] len68"}},
        {"rsvp_six_labels", 19, rsvp(6, 6), {}},
        {"rsvp_labels_beyond", 19, rsvp(3, 2), {}},
        {"rsvp_short", 19, head(1, 1).u32(13), {}},
        {"p2mp", 39, branch(branch(p2mp(2), 9, 1, 1), 8, 0, 0), {"p2mp 2 12 id77 9:3/1/10.4[100] 8:3/1/10.4[]"}},
        {"ldp_p2mp", 48, p2mp(0), {"p2mp 2 12 id77"}},
        {"p2mp_branches_beyond", 39, branch(p2mp(2), 9, 1, 1), {}},
        {"p2mp_branch_labels_lie", 39, branch(p2mp(1), 9, 6, 6), {}},
        {"vpn", 23, vpn(1, 1), {"vpn 3 7 rd1.8 pnha000009 7/1/10.2 [100]"}},
        {"vpn_labels_beyond", 23, vpn(1, 0), {}},
        {"l2vpn", 30, labels(nh(l2, 7, 2), 2, 2), {"l2vpn 4 12 rd2 pea000003 cw1 7/1/10.2 [100,101]"}},
        {"fec129", 59, labels(nh(l2, 7, 2), 0, 0), {"l2vpn 4 12 rd2 pea000003 cw1 7/1/10.2 []"}},
        {"l2ckt", 32, labels(nh(ckt, 7, 2), 1, 1), {"l2ckt 5 9 e4 cw1 [100]"}},
        {"endpt", 26, labels(nh(end, 7, 2), 1, 1), {"endpt 6 3 p2 [100]"}},
        {"bgp", 53, labels(nh(bgp, 7, 2), 2, 2), {"bgp 7 3 a000009/32 [100,101]"}},
        {"bgp_no_label_count", 53, nh(bgp, 7, 2), {}},
        {"static", 50, labels(nh(st, 7, 2), 1, 1), {"static 8 3 s1 [100]"}},
        {"lspmon", 28, head(9, 3).u32(1).u32(0x0a000001).u32(0x0a000002).u32(60), {"mon 9 3 s1 a000001>a000002 up60"}},
        {"lspmon_short", 28, head(9, 3).u32(1).u32(0x0a000001).u32(0x0a000002), {}},
        {"tdmpw", 44, head(10, 0).u32(3).u32(0x0a000002).u32(1), {"tdm 10 0 pw3 na000002 s1"}},
        {"mdiagd", 57, head(11, 0).u32(2).u32(7).u32(8), {"diag 11 0 [7,8]"}},
        {"mdiagd_ids_beyond", 57, head(11, 0).u32(3).u32(7).u32(8), {}},
        {"mdiagd_huge_count", 57, head(11, 0).u32(0xffffffff), {}},
    };
    for (const Reply &r : table) {
        SCOPED_TRACE(r.name);
        rec_.calls.clear();
        ASSERT_EQ(deliver(r.type, r.payload), 0);
        EXPECT_EQ(rec_.calls, r.expect);
    }
}

TEST_F(ClientTest, LdpFecReplyOverFiveLabelsIsDropped)
{
    accept_session();
    tarn_private_funs pf{};
    pf.tpf_ldp_fec = [](tarn_session_handle *s, uint32_t, uint32_t, const void *rest, size_t) {
        tarn_ldp_fec_info fi;
        std::memcpy(&fi, rest, sizeof fi);
        Recorder::add(s, "ldp %u", fi.fi_label_count);
    };
    ASSERT_EQ(tarn_session_bind_private_funs(s_, &pf), 0);
    auto ldp = [](uint8_t n) {
        Bytes b = Bytes().u32(1).u32(4).u32(0x0a000002).u32(32).u32(7).u32(0x0a010002).zeros(8).u8(1).u8(n).zeros(2);
        for (unsigned i = 0; i < n; ++i) b.u32(i);
        return b;
    };
    ASSERT_EQ(deliver(21, ldp(5)), 0);
    ASSERT_EQ(deliver(21, ldp(6)), 0);
    EXPECT_EQ(rec_.calls, std::vector<std::string>{"ldp 5"});
}

}  // namespace
}  // namespace tarn::test
