// The routing daemon's model driven frame by frame, with the kernel in memory.
#include <gtest/gtest.h>

#include "daemon.h"
#include "frame.h"
#include "memory_kernel.h"
#include "wire.h"

namespace tarn::temu {
namespace {

using namespace wire;

std::vector<uint8_t> registration(const std::string &name, uint16_t family = 0, uint16_t alen = 0)
{
    PayloadWriter w;
    w.u32(7).u32(8).u32(static_cast<uint32_t>(name.size() + 1)).u16(alen).u16(family);
    w.bytes(reinterpret_cast<const uint8_t *>(name.c_str()), name.size() + 1).zeros(alen);
    return w.take();
}

struct RouteFields {
    uint32_t cookie = 99, table = 0, gateway = 1;
    uint8_t family = kFamilyInet;
    uint8_t first = 10, second = 1;  // prefix bytes
    uint16_t plen = 16;
    uint16_t hops = 1;  // as announced
    uint32_t ifl = 3;
    uint8_t hop_family = kFamilyInet;
    size_t hops_sent = 1;
};

std::vector<uint8_t> route(const RouteFields &r)
{
    PayloadWriter w;
    w.u32(r.cookie).u32(r.table).u32(r.gateway).u16(0).u8(0).u8(r.family);
    w.u8(r.first).u8(r.second).zeros(14).u16(r.plen).u16(r.hops).u32(5);
    for (size_t i = 0; i < r.hops_sent; ++i) w.u32(r.ifl).u8(r.hop_family).zeros(3).u8(192).zeros(15);
    return w.take();
}

std::vector<uint8_t> named(const std::string &name)
{
    return PayloadWriter()
        .u32(42)
        .u16(static_cast<uint32_t>(name.size() + 1))
        .u16(0)
        .bytes(reinterpret_cast<const uint8_t *>(name.c_str()), name.size() + 1)
        .take();
}

std::vector<uint8_t> flash_reg(uint16_t op, uint32_t table, uint16_t kind = 0, uint16_t flen = 0)
{
    return PayloadWriter().u32(5).u32(table).u16(op).u16(0).u32(0).u16(kind).u16(flen).zeros(flen).take();
}

std::vector<uint8_t> gateway_change(uint32_t handle, uint32_t ifl)
{
    return PayloadWriter().u32(1).u32(handle).u32(ifl).u8(kFamilyInet).zeros(3).u8(198).zeros(15).take();
}

class DaemonTest : public testing::Test {
protected:
    void SetUp() override
    {
        kernel_.tables["blue"] = 5;
        cfg_.instances.push_back({"master", 65001, 0, true});
        for (uint64_t c : {1, 2}) {
            bool refused = true;
            daemon_.connect(c, refused);
        }
        ASSERT_EQ(code(send(1, kProtoRegister, registration("ospf"))), kOk);
        ASSERT_EQ(code(send(1, kRouteAdd, route({}))), kOk);
        kernel_.calls.clear();
    }
    std::vector<Outgoing> send(uint64_t client, uint16_t type, std::vector<uint8_t> payload)
    {
        return daemon_.handle(client, Frame{type, std::move(payload)});
    }
    // The result code of the single answer to the requester.
    static uint32_t code(const std::vector<Outgoing> &out)
    {
        if (out.empty() || out[0].frame.payload.size() < 4) return 0xffffffff;
        return get32(out[0].frame.payload.data(), 0);
    }

    DaemonConfig cfg_;
    MemoryKernel kernel_;
    EmuLog log_;
    RoutingDaemon daemon_{cfg_, kernel_, log_};
};

TEST_F(DaemonTest, NaturalCausesReachTheirResultCodes)
{
    struct Case {
        const char *what;
        uint64_t client;
        uint16_t type;
        std::vector<uint8_t> payload;
        uint16_t reply;
        uint32_t code;
    };
    RouteFields host_bits;
    host_bits.second = 1;
    host_bits.plen = 8;
    RouteFields many, bad_family, long_v4, other_table, bad_gw, no_ifl, bad_hop, absent, v6_long;
    many.hops = 17;
    many.hops_sent = 0;
    bad_family.family = 2;
    long_v4.plen = 33;
    other_table.table = 7;
    bad_gw.gateway = 77;
    no_ifl.ifl = 0;
    bad_hop.hop_family = 2;
    absent.second = 2;
    v6_long.family = kFamilyInet6;
    v6_long.plen = 129;
    RouteFields wrong_cookie;
    wrong_cookie.cookie = 100;
    const Case cases[] = {
        {"duplicate name", 2, kProtoRegister, registration("ospf"), kProtoRegisterReply, kRegInUse},
        {"empty name", 2, kProtoRegister, registration(""), kProtoRegisterReply, kRegNotFound},
        {"address of family 2", 2, kProtoRegister, registration("isis", 2, 4), kProtoRegisterReply, kRegBadAddress},
        {"IPv6 address of 4 bytes", 2, kProtoRegister, registration("isis", 6, 4), kProtoRegisterReply, kRegBadAddress},
        {"IPv6 address", 2, kProtoRegister, registration("isis", 6, 16), kProtoRegisterReply, kOk},
        {"unregister unknown", 1, kProtoUnregister, PayloadWriter().u32(1).u32(77).take(), kProtoUnregisterReply, kUnregNotFound},
        {"unregister another's", 2, kProtoUnregister, PayloadWriter().u32(1).u32(1).take(), kProtoUnregisterReply, kUnregOther},
        {"17 next hops", 1, kRouteAdd, route(many), kRouteAddReply, kAddEcmpLimit},
        {"family code 2", 1, kRouteAdd, route(bad_family), kRouteAddReply, kAddBadPrefix},
        {"bits past the length", 1, kRouteAdd, route(host_bits), kRouteAddReply, kAddBadPrefix},
        {"IPv4 mask of 33", 1, kRouteAdd, route(long_v4), kRouteAddReply, kAddMaskTooLong},
        {"IPv6 mask of 129", 1, kRouteAdd, route(v6_long), kRouteAddReply, kAddMaskTooLong},
        {"unknown table", 1, kRouteAdd, route(other_table), kRouteAddReply, kAddBadTable},
        {"unknown gateway", 1, kRouteAdd, route(bad_gw), kRouteAddReply, kAddBadGateway},
        {"interface 0", 1, kRouteAdd, route(no_ifl), kRouteAddReply, kAddBadIfl},
        {"next hop family 2", 1, kRouteAdd, route(bad_hop), kRouteAddReply, kAddBadNextHop},
        {"delete in unknown table", 1, kRouteDelete, route(other_table), kRouteDeleteReply, kDelBadTable},
        {"delete mask of 33", 1, kRouteDelete, route(long_v4), kRouteDeleteReply, kDelMaskTooLong},
        {"delete absent", 1, kRouteDelete, route(absent), kRouteDeleteReply, kDelNotFound},
        {"delete with another cookie", 1, kRouteDelete, route(wrong_cookie), kRouteDeleteReply, kDelCookieMismatch},
        {"lookup in unknown table", 1, kRouteLookup, route(other_table), kRouteLookupReply, kLookupBadTable},
        {"lookup family code 2", 1, kRouteLookup, route(bad_family), kRouteLookupReply, kLookupBadPrefix},
        {"lookup mask of 33", 1, kRouteLookup, route(long_v4), kRouteLookupReply, kLookupMaskTooLong},
        {"lookup absent", 1, kRouteLookup, route(absent), kRouteLookupReply, kLookupNotFound},
        {"lookup present", 1, kRouteLookup, route({}), kRouteLookupReply, kOk},
        {"table by name", 1, kTableLocate, named("blue"), kTableLocateReply, kOk},
        {"unknown table name", 1, kTableLocate, named("red"), kTableLocateReply, kTableNotFound},
        {"local AS", 1, kLocalAs, named("master"), kLocalAsReply, kOk},
        {"unknown instance", 1, kLocalAs, named("red"), kLocalAsReply, kLocalAsNotFound},
        {"gateway unknown", 1, kChangeGateway, gateway_change(77, 3), kChangeGatewayReply, kGwBadHandle},
        {"gateway on interface 0", 1, kChangeGateway, gateway_change(1, 0), kChangeGatewayReply, kGwBadIfl},
        {"flash table unknown", 2, kFlashRegister, flash_reg(1, 7), kFlashRegisterReply, kFlashBadTable},
        {"flash operation 3", 2, kFlashRegister, flash_reg(3, 5), kFlashRegisterReply, kFlashBadOperation},
        {"flash delete unregistered", 2, kFlashRegister, flash_reg(2, 5), kFlashRegisterReply, kFlashNotFound},
        {"flash filter kind 3", 2, kFlashRegister, flash_reg(1, 5, 3, 8), kFlashRegisterReply, kFlashBadFilter},
        {"flash filter of 4 bytes", 2, kFlashRegister, flash_reg(1, 5, 1, 4), kFlashRegisterReply, kFlashBadFilter},
        {"flash with filter", 2, kFlashRegister, flash_reg(1, 5, 2, 8), kFlashRegisterReply, kOk},
        {"alias delete unknown", 1, kAliasDelete, std::vector<uint8_t>(kAliasLen, 1), kAliasDeleteReply, kAliasDelRouteFailed},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        const auto out = send(c.client, c.type, c.payload);
        ASSERT_EQ(out.size(), 1u);
        EXPECT_EQ(out[0].client, c.client);
        EXPECT_EQ(out[0].frame.type, c.reply);
        EXPECT_EQ(code(out), c.code);
    }
    // None of the refusals reached the kernel.
    EXPECT_TRUE(kernel_.calls.empty());
}

TEST_F(DaemonTest, ForcedResultsOverrideOnceAndTouchNothing)
{
    const struct {
        uint16_t type;
        std::vector<uint8_t> payload;
        uint32_t code;
    } cases[] = {
        {kProtoRegister, registration("bgp"), 2},
        {kProtoUnregister, PayloadWriter().u32(1).u32(1).take(), 0},
        {kProtoUnregister, PayloadWriter().u32(1).u32(1).take(), 4},
        {kRouteAdd, route({.second = 9}), 0},
        {kRouteAdd, route({.second = 9}), 11},
        {kRouteAdd, route({.second = 9}), 14},
        {kRouteAdd, route({.second = 9}), 19},
        {kRouteDelete, route({}), 22},
        {kRouteLookup, route({}), 28},
        {kTableLocate, named("blue"), 6},
        {kChangeGateway, gateway_change(1, 3), 32},
        {kLocalAs, named("master"), 7},
        {kFlashRegister, flash_reg(1, 5), 43},
        {kAliasAdd, std::vector<uint8_t>(kAliasLen), 33},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.code);
        daemon_.force(c.type, c.code, 1);
        EXPECT_EQ(code(send(1, c.type, c.payload)), c.code);
    }
    EXPECT_TRUE(kernel_.calls.empty());
    EXPECT_EQ(daemon_.route_count(), 1u);
    // Spent: the same request now succeeds.
    EXPECT_EQ(code(send(1, kRouteAdd, route({.second = 9}))), kOk);
}

TEST_F(DaemonTest, RouteChangesReachKernelAndFlashRegistrants)
{
    ASSERT_EQ(code(send(2, kFlashRegister, flash_reg(1, 0))), kOk);
    struct Step {
        uint16_t type;
        RouteFields fields;
        const char *kernel_call;
        uint32_t kind;
    };
    RouteFields fresh{.second = 2}, moved{.second = 2, .ifl = 4};
    const Step steps[] = {
        {kRouteAdd, fresh, "add", kFlashAdded},
        {kRouteAdd, moved, "change", kFlashChanged},
        {kRouteDelete, moved, "remove", kFlashDeleted},
    };
    for (const auto &s : steps) {
        SCOPED_TRACE(s.kernel_call);
        kernel_.calls.clear();
        const auto out = send(1, s.type, route(s.fields));
        ASSERT_EQ(out.size(), 2u);
        EXPECT_EQ(code(out), kOk);
        EXPECT_EQ(kernel_.calls, std::vector<std::string>{s.kernel_call});
        const auto &note = out[1];
        EXPECT_EQ(note.client, 2u);
        ASSERT_EQ(note.frame.type, kFlashNotify);
        const uint8_t *p = note.frame.payload.data();
        ASSERT_EQ(note.frame.payload.size(), kRouteRecordLen + kNextHopLen);
        EXPECT_EQ(get32(p, 4), 0u);   // no cookie in a notification
        EXPECT_EQ(p[17], 2);          // the prefix's second byte
        EXPECT_EQ(get32(p, 40), s.kind);
        EXPECT_EQ(get32(p, 44), s.fields.ifl);
    }
    // The add's reply carries one handle per next hop.
    const auto out = send(1, kRouteAdd, route({.second = 3, .hops = 2, .hops_sent = 2}));
    ASSERT_EQ(out[0].frame.payload.size(), 16u + 2 * 4);
    EXPECT_EQ(get16(out[0].frame.payload.data(), 12), 2);
}

TEST_F(DaemonTest, RegistrationsGetHandlesAndTheLowestFreeIndex)
{
    // ospf holds gateway 1, index 1.
    const auto isis = send(2, kProtoRegister, registration("isis"));
    ASSERT_EQ(isis[0].frame.payload.size(), 16u);
    const uint8_t *p = isis[0].frame.payload.data();
    EXPECT_EQ(get32(p, 4), 7u);  // value_b echoed
    EXPECT_EQ(get32(p, 8), 2u);
    EXPECT_EQ(get16(p, 12), 2);
    const auto bye = send(1, kProtoUnregister, PayloadWriter().u32(33).u32(1).take());
    EXPECT_EQ(code(bye), kOk);
    EXPECT_EQ(get32(bye[0].frame.payload.data(), 4), 33u);
    EXPECT_TRUE(kernel_.routes.empty());  // ospf's route went with it
    const auto bgp = send(1, kProtoRegister, registration("bgp"));
    EXPECT_EQ(get32(bgp[0].frame.payload.data(), 8), 3u);  // handles are not reused
    EXPECT_EQ(get16(bgp[0].frame.payload.data(), 12), 1);  // indexes are
}

TEST_F(DaemonTest, KernelRefusalIsAddFailed)
{
    kernel_.fail_next = EEXIST;
    EXPECT_EQ(code(send(1, kRouteAdd, route({.second = 4}))), kAddFailed);
    EXPECT_EQ(daemon_.route_count(), 1u);
}

TEST_F(DaemonTest, GatewayChangeListsTablesAndRewritesNextHops)
{
    ASSERT_EQ(code(send(1, kRouteAdd, route({.table = 5}))), kOk);
    ASSERT_EQ(code(send(1, kRouteAdd, route({.second = 7, .ifl = 9}))), kOk);
    kernel_.calls.clear();
    const auto out = send(1, kChangeGateway, gateway_change(1, 3));
    ASSERT_EQ(code(out), kOk);
    const uint8_t *p = out[0].frame.payload.data();
    ASSERT_EQ(get16(p, 8), 2);
    EXPECT_EQ(get32(p, 12), 0u);
    EXPECT_EQ(get32(p, 16), 5u);
    EXPECT_EQ(kernel_.calls.size(), 2u);  // the route on ifl 9 is untouched
    const auto look = send(1, kRouteLookup, route({}));
    EXPECT_EQ(look[0].frame.payload[kRouteRecordLen + 8], 198);
}

TEST_F(DaemonTest, GoneClientsProtocolRoutesAreWithdrawn)
{
    ASSERT_EQ(code(send(2, kFlashRegister, flash_reg(1, 0))), kOk);
    const auto out = daemon_.disconnect(1);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].client, 2u);
    EXPECT_EQ(get32(out[0].frame.payload.data(), 40), kFlashDeleted);
    EXPECT_TRUE(kernel_.routes.empty());
    EXPECT_EQ(code(send(2, kProtoRegister, registration("ospf"))), kOk);  // the name is free
}

TEST_F(DaemonTest, ScriptedRefusalsComeFirst)
{
    daemon_.refuse(61, 1);
    bool refused = false;
    EXPECT_EQ(get32(daemon_.connect(3, refused).frame.payload.data(), 0), 61u);
    EXPECT_TRUE(refused);
    EXPECT_EQ(get32(daemon_.connect(4, refused).frame.payload.data(), 0), kAccepted);
    EXPECT_FALSE(refused);
}

TEST_F(DaemonTest, MalformedRequestsGetNoAnswer)
{
    RouteFields missing_hops{.hops = 2, .hops_sent = 1};
    auto bad_name = named("blue");
    bad_name[5] = 200;  // name length past the payload
    const struct {
        uint16_t type;
        std::vector<uint8_t> payload;
    } cases[] = {
        {kProtoRegister, std::vector<uint8_t>(15)},
        {kProtoRegister, PayloadWriter().u32(0).u32(0).u32(100).u32(0).take()},
        {kRouteAdd, std::vector<uint8_t>(39)},
        {kRouteAdd, route(missing_hops)},
        {kRouteDelete, {}},
        {kRouteLookup, std::vector<uint8_t>(20)},
        {kTableLocate, bad_name},
        {kLocalAs, std::vector<uint8_t>(7)},
        {kProtoUnregister, std::vector<uint8_t>(7)},
        {kChangeGateway, std::vector<uint8_t>(31)},
        {kFlashRegister, [] {
             auto v = flash_reg(1, 5, 1, 8);
             v.resize(kFlashRegFixedLen + 4);
             return v;
         }()},
        {kFlashRegister, std::vector<uint8_t>(19)},
        {kAliasAdd, std::vector<uint8_t>(35)},
        {kBandwidthUpdate, PayloadWriter().u32(2).zeros(8).take()},
        {kNeighbourDown, PayloadWriter().u32(0x40000000).take()},
        {99, std::vector<uint8_t>(4)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.type);
        EXPECT_TRUE(send(1, c.type, c.payload).empty());
    }
    EXPECT_EQ(daemon_.counter("unknown"), 1u);
    EXPECT_EQ(daemon_.counter("malformed"), std::size(cases) - 1);
}

TEST_F(DaemonTest, UpdatesAreCountedAndShownInTheDump)
{
    send(1, kIdentify, std::vector<uint8_t>{'r', 'p', 'd', 0});
    send(1, kMasterIndication, {});
    send(1, kBandwidthUpdate, PayloadWriter().u32(1).u32(3).u32(1000).take());
    send(1, kNeighbourDown, PayloadWriter().u32(1).u32(3).u8(1).zeros(3).u8(192).zeros(15).take());
    const std::string dump = daemon_.dump();
    for (const char *line : {"client 1 \"rpd\"", "protocol \"ospf\" client 1 gateway 1 index 1",
                             "route table 0 10.1.0.0/16 gateway 1 cookie 99", "bandwidth ifl 3 1000",
                             "counter master-indication 1", "counter neighbours-down 1"})
        EXPECT_NE(dump.find(line), std::string::npos) << line << "\n" << dump;
}

TEST(DaemonConfigTest, LocalAsLines)
{
    DaemonConfig cfg;
    std::string error;
    ASSERT_TRUE(parse_daemon_config("# instances\nlocal-as master 65000 0\n\nlocal-as blue 1 5 confederation\n",
                                    cfg, error));
    ASSERT_EQ(cfg.instances.size(), 2u);
    EXPECT_TRUE(cfg.instances[1].confederation);
    EXPECT_FALSE(parse_daemon_config("local-as x 1 2 other\n", cfg, error));
    EXPECT_EQ(error, "line 1: expected \"local-as NAME AS TABLE [confederation]\"");
}

}  // namespace
}  // namespace tarn::temu
