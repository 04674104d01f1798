// Replies from the fake daemon reach the right slot with host-order
// arguments; replies that lie about their lengths are dropped whole; the
// alias bookkeeping; result texts and the small helpers.
#include <sys/uio.h>

#include <cerrno>
#include <cstring>

#include "client_fixture.h"
#include "libtarn/tarn_client/tarn_client_internal.h"

namespace tarn::test {
namespace {

using Calls = std::vector<std::string>;

struct Reply {
    const char *name;
    uint16_t type;
    std::vector<uint8_t> payload;
    Calls expect;  // empty: dropped
};

std::vector<uint8_t> route_record(uint8_t nh_count, size_t hops_present, uint32_t change)
{
    Bytes b;
    b.u32(0).u32(42).u32(5).u16(24).u8(1).u8(nh_count).u8(10).zeros(2).u8(7).zeros(12)
        .u32(100).u32(6).u32(change);
    for (size_t i = 0; i < hops_present; ++i) b.u32(static_cast<uint32_t>(i + 1)).u8(1).zeros(3).u8(192).zeros(15);
    return b;
}

class Replies : public ClientTest {
protected:
    void expect_replies(const std::vector<Reply> &table)
    {
        for (const Reply &r : table) {
            SCOPED_TRACE(r.name);
            rec_.calls.clear();
            ASSERT_EQ(deliver(r.type, r.payload), 0);
            EXPECT_EQ(rec_.calls, r.expect);
        }
    }
};

TEST_F(Replies, ReachTheirSlots)
{
    accept_session();
    const std::vector<Reply> table = {
        {"register", 1, Bytes().u32(0).u32(7).u32(99).u16(3).u16(0), {"preg 7 3 99 0"}},
        {"register_short", 1, Bytes().u32(0).u32(7).u32(99), {}},
        {"add", 3, Bytes().u32(0).u32(11).u32(0).u16(2).u8(0).u8(0).u32(500).u32(501),
         {"add 11 0 [500,501]"}},
        {"add_count_lies", 3, Bytes().u32(0).u32(11).u32(0).u16(3).u8(0).u8(0).u32(500).u32(501), {}},
        {"delete", 5, Bytes().u32(20).u32(12).u32(0).u32(0), {"del 12 20"}},
        {"lookup", 7, route_record(2, 2, 0),
         {"rec 0 42 5 /24 f1 10.7 pref100 gw6 ch0 len92 1/192 2/192"}},
        {"flash", 16, route_record(0, 0, 3), {"rec 0 42 5 /24 f1 10.7 pref100 gw6 ch3 len44"}},
        {"lookup_hops_lie", 7, route_record(2, 1, 0), {}},
        {"lookup_too_many_hops", 7, route_record(17, 17, 0), {}},
        {"table", 8, Bytes().u32(6).u32(3).u32(0), {"table 0 6 3"}},
        {"unregister", 11, Bytes().u32(4).u32(8), {"punreg 4 8"}},
        {"chgw", 14, Bytes().u32(0).u32(9).u16(2).u16(0).u32(1).u32(2), {"chgw 0 9 [1,2]"}},
        {"chgw_count_lies", 14, Bytes().u32(0).u32(9).u16(3).u16(0).u32(1).u32(2), {}},
        {"ra_add", 35,
         Bytes().u32(0).u32(1).u32(77).u32(0x01020304).zeros(15).u8(9).zeros(5).u8(4).zeros(2),
         {"ra 1 77 04030201 9 4"}},
        {"ra_delete", 37, Bytes().u32(0).u32(1).u32(78).zeros(26), {"ra 2 78 00000000 0 0"}},
        {"ra_short", 35, Bytes().u32(0).u32(1).u32(78).zeros(25), {}},
        {"local_as", 41, Bytes().u32(0).u32(3).u32(65000).u32(4).u8(1).zeros(3), {"las 0 3 65000 4 1"}},
        {"flash_reg", 55, Bytes().u32(43).u32(2).u32(9), {"flash 43 2 9"}},
        {"above_78", 79, Bytes().u32(0).u32(7).u32(99).u16(3).u16(0), {}},
        {"private_unbound", 19, Bytes().u32(1), {}},
        {"unknown", 15, Bytes().u32(1), {}},
    };
    expect_replies(table);
}

TEST_F(Replies, PrivateOnesAfterBinding)
{
    accept_session();
    tarn_private_funs pf{};
    pf.tpf_reply_72_73 = [](tarn_session_handle *s, uint32_t cookie, uint32_t rc, const void *, size_t len) {
        Recorder::add(s, "p72 %u %u %zu", cookie, rc, len);
    };
    pf.tpf_ldp_fec = [](tarn_session_handle *s, uint32_t w0, uint32_t w1, const void *rest, size_t len) {
        const auto *p = static_cast<const uint8_t *>(rest);
        uint32_t w2, label1;
        std::memcpy(&w2, p, 4);
        std::memcpy(&label1, p + 28, 4);
        Recorder::add(s, "ldp %u %u %u labels%u first%u len%zu", w0, w1, w2, p[25], label1, len);
    };
    ASSERT_EQ(tarn_session_bind_private_funs(s_, &pf), 0);
    const std::vector<Reply> table = {
        {"p73", 73, Bytes().u32(7).u32(8).u32(9), {"p72 7 8 4"}},
        {"p72_short", 72, Bytes().u32(7), {}},
        {"slot_null", 77, Bytes().u32(1), {}},
        {"ldp", 21, Bytes().u32(0).u32(5).u32(6).zeros(21).u8(2).zeros(2).u32(1000).u32(2000),
         {"ldp 0 5 6 labels2 first1000 len36"}},
        {"ldp_labels_lie", 21, Bytes().u32(0).u32(5).u32(6).zeros(21).u8(3).zeros(2).u32(1000).u32(2000), {}},
    };
    expect_replies(table);
}

TEST_F(ClientTest, OversizedHeaderLosesTheConnection)
{
    accept_session();
    ipc_msg_t h{};
    h.type = 3;
    h.length = TARN_MSG_MAX_PAYLOAD + 1;
    daemon_.send_raw(std::string(reinterpret_cast<char *>(&h), sizeof h));
    EXPECT_EQ(tarn_session_reply_get(s_), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(rec_.calls, Calls{"lost"});
}

tarn_alias_request public_alias(uint16_t key)
{
    tarn_alias_request r{};
    r.al_key = key;
    r.al_family = TARN_FAMILY_INET;
    std::strcpy(r.al_ifname, "ge-0/0/1");
    r.al_route.rt_family = TARN_FAMILY_INET;
    r.al_route.rt_prefix_len = 32;
    r.al_route.rt_nh_count = 1;
    r.al_route.rt_nexthops[0].nh_ifl_index = 70;
    return r;
}

std::vector<uint8_t> flagged_add_reply(uint32_t result, uint32_t id, uint16_t key)
{
    return Bytes().u32(result).u32(id).u32(key).u16(0).u8(1).u8(0);
}

TEST_F(ClientTest, AliasOperationsRunOneAtATimePerKey)
{
    accept_session();
    const auto a = public_alias(7);
    ASSERT_EQ(tarn_alias_add(s_, &a, 1), 0);
    ASSERT_EQ(tarn_alias_delete(s_, &a, 2), 0);
    EXPECT_EQ(client::alias_pending(s_, 7), 2u);
    Frame f = daemon_.read();
    EXPECT_EQ(f.type, 2);
    EXPECT_EQ(f.payload[13], 7);  // alias key
    EXPECT_EQ(f.payload[14], 1);  // alias flag
    EXPECT_EQ(f.payload[3], 1);   // cookie = identifier
    EXPECT_TRUE(daemon_.idle());

    // A reply for another identifier or kind leaves the head in place.
    ASSERT_EQ(deliver(3, flagged_add_reply(8, 9, 7)), 0);
    ASSERT_EQ(deliver(5, Bytes().u32(8).u32(1).u32(7).u8(1).zeros(3)), 0);
    ASSERT_EQ(deliver(3, flagged_add_reply(8, 1, 99)), 0);  // no such key
    EXPECT_TRUE(rec_.calls.empty());
    EXPECT_EQ(client::alias_pending(s_, 7), 2u);

    // A failed add is reported and the delete behind it goes out.
    ASSERT_EQ(deliver(3, flagged_add_reply(8, 1, 7)), 0);
    EXPECT_EQ(rec_.calls, Calls{"alias 1 1 34"});
    f = daemon_.read();
    EXPECT_EQ(f.type, 4);
    EXPECT_EQ(f.payload[3], 2);
    rec_.calls.clear();
    ASSERT_EQ(deliver(5, Bytes().u32(20).u32(2).u32(7).u8(1).zeros(3)), 0);
    EXPECT_EQ(rec_.calls, Calls{"alias 2 2 40"});
    EXPECT_EQ(client::alias_pending(s_, 7), 0u);
}

// Another key's operation goes out beside a busy key's; a bad request is
// refused; once the kernel cannot be asked, a successful answer still ends
// as a lookup failure (35 for an add, 41 for a delete) and lets the next
// operation of the key go.
TEST_F(ClientTest, AliasKeysRunSideBySideAndLookupFailuresAreReported)
{
    accept_session();
    const auto a7 = public_alias(7), a9 = public_alias(9);
    ASSERT_EQ(tarn_alias_add(s_, &a7, 1), 0);
    ASSERT_EQ(tarn_alias_delete(s_, &a7, 2), 0);
    ASSERT_EQ(tarn_alias_add(s_, &a9, 3), 0);
    EXPECT_EQ(daemon_.read().payload[3], 1);
    Frame f = daemon_.read();
    EXPECT_EQ(f.payload[3], 3);
    EXPECT_EQ(f.payload[13], 9);
    EXPECT_TRUE(daemon_.idle());

    auto bad = public_alias(1);
    bad.al_family = 2;
    EXPECT_EQ(tarn_alias_add(s_, &bad, 4), -1);
    EXPECT_EQ(errno, EINVAL);
    bad = public_alias(1);
    std::memset(bad.al_ifname, 'x', sizeof bad.al_ifname);
    EXPECT_EQ(tarn_alias_add(s_, &bad, 4), -1);
    EXPECT_EQ(errno, EINVAL);

    emu_.stop();
    ASSERT_EQ(deliver(3, flagged_add_reply(0, 1, 7)), 0);
    EXPECT_EQ(rec_.calls, Calls{"alias 1 1 35"});
    f = daemon_.read();
    EXPECT_EQ(f.type, 4);
    EXPECT_EQ(f.payload[3], 2);
    rec_.calls.clear();
    ASSERT_EQ(deliver(5, Bytes().u32(0).u32(2).u32(7).u8(1).zeros(3)), 0);
    EXPECT_EQ(rec_.calls, Calls{"alias 2 2 41"});
    EXPECT_EQ(client::alias_pending(s_, 7), 0u);
    EXPECT_EQ(client::alias_pending(s_, 9), 1u);
}

TEST_F(ClientTest, CloseDropsPendingAliasOperations)
{
    accept_session();
    const auto a = public_alias(3);
    ASSERT_EQ(tarn_alias_add(s_, &a, 1), 0);
    ASSERT_EQ(tarn_session_close(s_), 0);
    EXPECT_EQ(client::alias_pending(s_, 3), 0u);
}

TEST(ClientText, ResultCodeTexts)
{
    const std::vector<std::pair<uint32_t, const char *>> table = {
        {0, "Success"},
        {17, "route add nexthop ecmp limit"},
        {18, "route add mask too long"},
        {35, "alias add interface lookup failue"},
        {46, "message flash invalid register filter"},
        {47, "invalid error code"},
        {0xFFFFFFFF, "invalid error code"},
    };
    for (const auto &[code, text] : table) EXPECT_STREQ(tarn_rt_get_error_code_string(code), text) << code;
}

TEST(ClientHelpers, IovcpyWalksBothLists)
{
    struct Case {
        std::vector<size_t> dst;
        size_t dst_off;
        std::vector<size_t> src;
        size_t src_off;
        int copied;
        std::string result;  // destination bytes concatenated, '.' untouched
    };
    const std::vector<Case> table = {
        {{4, 4}, 0, {10}, 0, 8, "abcdefgh"},
        {{4, 4}, 3, {10}, 0, 5, "...abcde"},
        {{3}, 0, {2, 0, 2}, 1, 3, "bcd"},
        {{2, 2}, 4, {4}, 0, 0, "...."},
        {{4}, 0, {2, 2}, 5, 0, "...."},
    };
    const char src_bytes[] = "abcdefghij";
    for (const Case &c : table) {
        std::string dst_bytes(32, '.');
        std::vector<iovec> dst, src;
        size_t off = 0;
        for (size_t n : c.dst) {
            dst.push_back({&dst_bytes[off], n});
            off += n;
        }
        off = 0;
        for (size_t n : c.src) {
            src.push_back({const_cast<char *>(src_bytes + off), n});
            off += n;
        }
        EXPECT_EQ(iovcpy(dst.data(), static_cast<int>(dst.size()), c.dst_off, src.data(),
                         static_cast<int>(src.size()), c.src_off),
                  c.copied);
        size_t used = 0;
        for (size_t n : c.dst) used += n;
        EXPECT_EQ(dst_bytes.substr(0, used), c.result);
    }
    EXPECT_EQ(iovcpy(nullptr, 1, 0, nullptr, 1, 0), 0);
}

TEST(ClientHelpers, VplsApplicationIds)
{
    for (unsigned id = 0; id < 256; ++id)
        EXPECT_EQ(tag_p2mp_pvc_appl_id_is_vpls(static_cast<uint8_t>(id)), id == 3 || id == 5 ? 1 : 0) << id;
}

}  // namespace
}  // namespace tarn::test
