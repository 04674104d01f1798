// The emulated routing daemon's answers to the LSP-ping queries: which
// result each configured path (or its absence) gives, per kind.
#include <gtest/gtest.h>

#include <tarn/tarn_lsping_query.h>

#include "daemon.h"
#include "frame.h"
#include "memory_kernel.h"

namespace tarn::temu {
namespace {

const char kConfig[] = R"(
lsp up src=10.0.0.1 dst=10.0.0.2 standby=bk ifl=5 nh=10.1.0.2 labels=16,17
lsp dn state=down
lsp ccc ccc=yes
p2mp-lsp tree id=7 branch=10.0.0.3/5/10.1.0.2/300
p2mp-lsp bare id=8
p2mp-lsp flat id=9 state=down branch=10.0.0.3/5/10.1.0.2/300
fec 10.0.0.2/32 ifl=5 nh=10.1.0.2 labels=1,2,3
fec 10.0.0.3/32 instance=red
bgp-fec 10.0.0.9/32 instance=blue labels=5
p2mp-fec 10.0.0.1 4 branch=10.0.0.3/5/10.1.0.2/300
vpn red 192.168.1.0/24 ifl=5 labels=9
vpn red 192.168.2.0/24 local=yes
vpn red 192.168.3.0/24 resolved=no ifl=5
vpn red 192.168.4.0/24
endpoint 10.0.0.2/32 protocol=rsvp
l2ckt 10.0.0.2 100 ifname=ge0
l2ckt 10.0.0.2 101 state=down
l2ckt 10.0.0.2 102 remote=no
l2ckt 10.0.0.2 103 resolved=no
l2ckt 10.0.0.2 104 labels=1,2,3,4,5,6
l2vpn blue 1 2 ifname=ge1
l2vpn blue 1 3 labels=1,2,3,4,5,6
fec129 green s1 t1 state=down
static-lsp st
static-lsp sd state=down
tdmpw 9 10.0.0.2 state=1
)";

// Query payloads, built as the client builds them.
PayloadWriter &name(PayloadWriter &w, const std::string &s)
{
    return w.bytes(reinterpret_cast<const uint8_t *>(s.c_str()), s.size() + 1);
}
uint16_t len(const std::string &s) { return s.empty() ? 0 : static_cast<uint16_t>(s.size() + 1); }
Frame rsvp(uint16_t type, const std::string &lsp, uint32_t flags = 0, const std::string &path = "",
           const std::string &ifl = "")
{
    PayloadWriter w;
    w.u32(1).u32(flags).u16(len(lsp)).u16(len(path)).u16(len(ifl)).u16(0);
    for (const auto *s : {&lsp, &path, &ifl})
        if (!s->empty()) name(w, *s);
    return {type, w.take()};
}
Frame fec(uint16_t type, uint32_t addr, uint16_t plen, const std::string &inst = "")
{
    PayloadWriter w;
    w.u32(1).u32(addr).u16(plen).u16(static_cast<uint16_t>(inst.size() + 1));
    return {type, name(w, inst).take()};
}
Frame prefix(uint16_t type, uint8_t family, uint32_t addr, uint8_t plen, const std::string &n)
{
    PayloadWriter w;
    w.u32(1).u8(family).u8(plen).u16(static_cast<uint16_t>(n.size() + 1)).u32(addr).zeros(12);
    return {type, name(w, n).take()};
}
Frame named(uint16_t type, const std::string &n)
{
    PayloadWriter w;
    w.u32(1).u16(static_cast<uint16_t>(n.size() + 1)).u16(0);
    return {type, name(w, n).take()};
}
Frame keyed(uint16_t type, uint32_t a, uint32_t b, const std::string &n = "")
{
    PayloadWriter w;
    w.u32(1).u32(a).u32(b).u16(len(n)).u16(0);
    if (!n.empty()) name(w, n);
    return {type, w.take()};
}
Frame l2vpn(const std::string &vpn, uint16_t local, uint16_t remote, const std::string &ifl = "")
{
    PayloadWriter w;
    w.u32(1).u16(local).u16(remote).u16(len(vpn)).u16(len(ifl));
    name(w, vpn);
    if (!ifl.empty()) name(w, ifl);
    return {TARN_MSG_L2VPN_LOOKUP, w.take()};
}
Frame fec129(const std::string &vpn, const std::string &sai, const std::string &tai)
{
    PayloadWriter w;
    w.u32(1).u16(len(vpn)).u16(len(sai)).u16(len(tai)).u16(0);
    name(name(name(w, vpn), sai), tai);
    return {TARN_MSG_L2VPN_FEC129_LOOKUP, w.take()};
}
Frame cookie_only(uint16_t type) { return {type, PayloadWriter().u32(1).take()}; }

constexpr uint32_t ip(uint8_t a, uint8_t b, uint8_t c, uint8_t d)
{
    return uint32_t{a} << 24 | uint32_t{b} << 16 | uint32_t{c} << 8 | d;
}

class LspingModel : public testing::Test {
protected:
    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(parse_daemon_config(kConfig, cfg_, error)) << error;
    }
    // The reply's type and result code; the reply must carry the cookie.
    std::pair<uint16_t, uint32_t> ask(const Frame &f)
    {
        const auto out = daemon_.handle(1, f);
        if (out.size() != 1) return {0, 999};
        const auto &p = out[0].frame.payload;
        reply_ = p;
        if (p.size() < 8 || get32(p.data(), 0) != 1) return {out[0].frame.type, 998};
        return {out[0].frame.type, get32(p.data(), 4)};
    }

    DaemonConfig cfg_;
    MemoryKernel kernel_;
    EmuLog log_;
    RoutingDaemon daemon_{cfg_, kernel_, log_};
    std::vector<uint8_t> reply_;
};

struct Case {
    const char *name;
    Frame request;
    uint16_t type;
    uint32_t code;
};

TEST_F(LspingModel, EveryKindAnswersFromItsPaths)
{
    const uint32_t fec2 = ip(10, 0, 0, 2);
    const std::vector<Case> table = {
        {"rsvp_primary", rsvp(18, "up"), 19, 12},
        {"rsvp_unknown", rsvp(18, "nope"), 19, 1},
        {"rsvp_p2mp_name", rsvp(18, "tree"), 19, 8},
        {"rsvp_down", rsvp(18, "dn"), 19, 5},
        {"rsvp_standby", rsvp(18, "up", TARN_RSVP_LSP_STANDBY, "bk"), 19, 12},
        {"rsvp_standby_unknown", rsvp(18, "up", TARN_RSVP_LSP_STANDBY, "zz"), 19, 6},
        {"rsvp_ccc_no_rro", rsvp(18, "up", TARN_RSVP_LSP_CCC), 19, 7},
        {"rsvp_ccc", rsvp(18, "ccc", TARN_RSVP_LSP_CCC), 19, 12},
        {"rsvp_bypass_no_ifl", rsvp(18, "up", TARN_RSVP_LSP_BYPASS), 19, 11},
        {"rsvp_bypass", rsvp(18, "up", TARN_RSVP_LSP_BYPASS, "", "ge0"), 19, 12},
        {"p2mp", rsvp(38, "tree"), 39, 12},
        {"p2mp_no_egress", rsvp(38, "bare"), 39, 9},
        {"p2mp_no_flood", rsvp(38, "flat"), 39, 10},
        {"p2mp_unknown", rsvp(38, "up"), 39, 1},
        {"ldp", fec(20, fec2, 32), 21, 4},
        {"ldp_wrong_len", fec(20, fec2, 24), 21, 1},
        {"ldp_instance", fec(20, ip(10, 0, 0, 3), 32, "red"), 21, 4},
        {"ldp_fec_not_in_instance", fec(20, fec2, 32, "red"), 21, 1},
        {"ldp_no_instance", fec(20, fec2, 32, "green"), 21, 3},
        {"bgp", fec(52, ip(10, 0, 0, 9), 32, "blue"), 53, 3},
        {"bgp_not_found", fec(52, ip(10, 0, 0, 9), 32), 53, 1},
        {"bgp_no_instance", fec(52, ip(10, 0, 0, 9), 32, "x"), 53, 2},
        {"ldp_p2mp", keyed(47, ip(10, 0, 0, 1), 4), 48, 4},
        {"ldp_p2mp_not_found", keyed(47, ip(10, 0, 0, 1), 5), 48, 2},
        {"ldp_p2mp_no_instance", keyed(47, ip(10, 0, 0, 1), 4, "x"), 48, 3},
        {"vpn", prefix(22, 1, ip(192, 168, 1, 0), 24, "red"), 23, 7},
        {"vpn_unknown", prefix(22, 1, ip(192, 168, 1, 0), 24, "blue"), 23, 1},
        {"vpn_no_prefix", prefix(22, 1, ip(192, 168, 9, 0), 24, "red"), 23, 2},
        {"vpn_v6", prefix(22, 6, 0, 64, "red"), 23, 2},
        {"vpn_local", prefix(22, 1, ip(192, 168, 2, 0), 24, "red"), 23, 4},
        {"vpn_unresolved", prefix(22, 1, ip(192, 168, 3, 0), 24, "red"), 23, 5},
        {"vpn_no_nexthop", prefix(22, 1, ip(192, 168, 4, 0), 24, "red"), 23, 3},
        {"endpt", prefix(24, 1, fec2, 32, ""), 26, 3},
        {"endpt_not_found", prefix(24, 1, fec2, 31, ""), 26, 1},
        {"endpt_no_instance", prefix(24, 1, fec2, 32, "x"), 26, 2},
        {"lspmon", named(27, "up"), 28, 3},
        {"lspmon_down", named(27, "dn"), 28, 2},
        {"lspmon_unknown", named(27, "x"), 28, 1},
        {"static", named(49, "st"), 50, 3},
        {"static_down", named(49, "sd"), 50, 2},
        {"static_unknown", named(49, "up"), 50, 1},
        {"l2ckt", keyed(31, fec2, 100, "ge0"), 32, 9},
        {"l2ckt_other_ifname", keyed(31, fec2, 100, "ge9"), 32, 1},
        {"l2ckt_unknown", keyed(31, fec2, 99), 32, 1},
        {"l2ckt_down", keyed(31, fec2, 101), 32, 2},
        {"l2ckt_not_remote", keyed(31, fec2, 102), 32, 3},
        {"l2ckt_unresolved", keyed(31, fec2, 103), 32, 6},
        {"l2ckt_labels", keyed(31, fec2, 104), 32, 8},
        {"l2vpn", l2vpn("blue", 1, 2), 30, 12},
        {"l2vpn_ifname", l2vpn("blue", 1, 2, "ge1"), 30, 12},
        {"l2vpn_no_vpn", l2vpn("red", 1, 2), 30, 1},
        {"l2vpn_no_local", l2vpn("blue", 7, 2), 30, 2},
        {"l2vpn_no_remote", l2vpn("blue", 1, 7), 30, 3},
        {"l2vpn_no_interface", l2vpn("blue", 1, 2, "ge2"), 30, 4},
        {"l2vpn_labels", l2vpn("blue", 1, 3), 30, 11},
        {"fec129_down", fec129("green", "s1", "t1"), 59, 5},
        {"fec129_no_sai", fec129("green", "s2", "t1"), 59, 2},
        {"fec129_no_tai", fec129("green", "s1", "t2"), 59, 3},
        {"tdmpw", cookie_only(43), 44, 0},
        {"mdiagd", cookie_only(56), 57, 0},
    };
    for (const Case &c : table) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(ask(c.request), std::make_pair(c.type, c.code));
    }
}

TEST_F(LspingModel, RecordsCarryThePath)
{
    ask(rsvp(18, "up", TARN_RSVP_LSP_STANDBY, "bk"));
    // path kind, source, destination, tunnel, LSP id, next hop, 2 labels
    PayloadWriter want;
    want.u32(1).u32(12).u32(14).u32(ip(10, 0, 0, 1)).u32(ip(10, 0, 0, 2)).u32(0).u32(0);
    want.u32(5).u8(1).zeros(3).u32(ip(10, 1, 0, 2)).zeros(12).u8(2).zeros(3).u32(16).u32(17);
    EXPECT_EQ(reply_, want.take());

    ask(fec(20, ip(10, 0, 0, 2), 32));
    PayloadWriter ldp;
    ldp.u32(1).u32(4).u32(ip(10, 0, 0, 2)).u32(32).u32(5).u32(ip(10, 1, 0, 2)).u32(0).u32(0);
    ldp.u8(1).u8(3).u16(0).u32(1).u32(2).u32(3);
    EXPECT_EQ(reply_, ldp.take());

    // A failure carries the whole record, zero-filled; a path with more
    // labels than a ping pushes sends none.
    ask(rsvp(18, "nope"));
    EXPECT_EQ(reply_.size(), 8u + 20 + 24 + 4);
    ask(keyed(31, ip(10, 0, 0, 2), 104));
    EXPECT_EQ(reply_.size(), 8u + 8 + 24 + 4);

    ask(cookie_only(56));
    EXPECT_EQ(reply_, PayloadWriter().u32(1).u32(0).u32(3).u32(7).u32(8).u32(9).take());
}

TEST_F(LspingModel, ForcedCodesAndMalformedQueries)
{
    daemon_.force(18, 3, 1);
    EXPECT_EQ(ask(rsvp(18, "up")), std::make_pair(uint16_t{19}, 3u));
    EXPECT_EQ(reply_.size(), 8u + 20 + 24 + 4);
    EXPECT_EQ(ask(rsvp(18, "up")), std::make_pair(uint16_t{19}, 12u));
    daemon_.force(56, 2, 1);
    EXPECT_EQ(ask(cookie_only(56)), std::make_pair(uint16_t{57}, 2u));
    EXPECT_EQ(reply_.size(), 12u);

    Frame lying = named(27, "up");
    lying.payload[5] = 40;  // name length past the payload
    EXPECT_TRUE(daemon_.handle(1, lying).empty());
    EXPECT_TRUE(daemon_.handle(1, Frame{43, {1, 2}}).empty());

    DaemonConfig bad;
    std::string error;
    EXPECT_FALSE(parse_daemon_config("l2vpn blue 1\n", bad, error));
    EXPECT_NE(error.find("line 1"), std::string::npos);
    EXPECT_FALSE(parse_daemon_config("lsp a ifl\n", bad, error));
}

TEST(LspingDefaults, DemoPathsAnswerEveryKindWithSuccess)
{
    DaemonConfig cfg;
    cfg.lsping = default_lsping_config();
    MemoryKernel kernel;
    EmuLog log;
    RoutingDaemon d(cfg, kernel, log);
    const std::vector<std::pair<Frame, uint32_t>> table = {
        {rsvp(18, "to-pe2"), 12}, {rsvp(38, "tree1"), 12}, {fec(20, ip(10, 0, 0, 2), 32), 4},
        {fec(52, ip(10, 0, 0, 9), 32), 3}, {keyed(47, ip(10, 0, 0, 1), 1), 4},
        {prefix(22, 1, ip(192, 168, 1, 0), 24, "red"), 7}, {prefix(24, 1, ip(10, 0, 0, 2), 32, ""), 3},
        {named(27, "to-pe2"), 3}, {named(49, "st1"), 3}, {keyed(31, ip(10, 0, 0, 2), 100), 9},
        {l2vpn("blue", 1, 2), 12}, {fec129("green", "sai-1", "tai-1"), 12},
    };
    for (const auto &[f, code] : table) {
        SCOPED_TRACE(f.type);
        const auto out = d.handle(1, f);
        ASSERT_EQ(out.size(), 1u);
        EXPECT_EQ(get32(out[0].frame.payload.data(), 4), code);
    }
}

}  // namespace
}  // namespace tarn::temu
