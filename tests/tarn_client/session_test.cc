// Session lifecycle, the two writers and the byte layout of every request,
// against a fake routing daemon.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include <qpipe/ipc_pipe.h>

#include "client_fixture.h"

namespace tarn::test {
namespace {

using Calls = std::vector<std::string>;

TEST_F(ClientTest, AllocationRefusesBadTables)
{
    tarn_session_funs no_status = recording_funs(false);
    no_status.tsf_connection_status = nullptr;
    tarn_session_funs want_only = recording_funs(true);
    want_only.tsf_write_drained = nullptr;
    const tarn_session_funs *tables[] = {nullptr, &no_status, &want_only};
    for (const tarn_session_funs *f : tables) {
        tarn_session_handle *s = nullptr;
        errno = 0;
        EXPECT_EQ(tarn_session_handle_alloc(&s, f), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(s, nullptr);
    }
}

TEST_F(ClientTest, FreshSessionHasNoSocketAndCannotClose)
{
    make_session();
    EXPECT_EQ(tarn_session_handle_descriptor(s_), -1);
    EXPECT_GE(tarn_session_handle_rtsock_descriptor(s_), 0);
    EXPECT_EQ(tarn_session_close(s_), -1);
    EXPECT_EQ(tarn_session_bind_private_funs(s_, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(ClientTest, ConnectRefusesOtherKindsAndASecondConnect)
{
    make_session();
    const uint8_t kind2[8] = {16, 2, 0, 80, 127, 0, 0, 1};
    EXPECT_EQ(tarn_session_connect(s_, kind2, 0), -1);
    EXPECT_EQ(errno, EAFNOSUPPORT);
    ASSERT_EQ(tarn_session_connect(s_, daemon_.address(), 0), 0);
    const int fd = tarn_session_handle_descriptor(s_);
    EXPECT_EQ(tarn_session_connect(s_, daemon_.address(), 0), -1);
    EXPECT_EQ(errno, EISCONN);
    EXPECT_EQ(tarn_session_handle_descriptor(s_), fd);
}

TEST_F(ClientTest, FailedConnectKeepsTheClosedNumberUntilClose)
{
    make_session();
    auto nowhere = FakeDaemon::local_address("/nonexistent/tarn.sock");
    EXPECT_EQ(tarn_session_connect(s_, nowhere.data(), 0), -1);
    const int fd = tarn_session_handle_descriptor(s_);
    EXPECT_NE(fd, -1);
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);  // already closed
    EXPECT_EQ(tarn_session_connect(s_, daemon_.address(), 0), -1);
    EXPECT_EQ(errno, EISCONN);
    EXPECT_EQ(tarn_session_close(s_), 0);
    EXPECT_EQ(tarn_session_handle_descriptor(s_), -1);
    EXPECT_EQ(tarn_session_connect(s_, daemon_.address(), 0), 0);
}

TEST_F(ClientTest, RequestsNeedAnAcceptedSession)
{
    make_session();
    EXPECT_EQ(tarn_master_indication(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(tarn_master_indication(s_), -1);
    EXPECT_EQ(errno, ENOTCONN);
    ASSERT_EQ(tarn_session_connect(s_, daemon_.address(), 0), 0);
    EXPECT_EQ(tarn_client_identify(s_, "rpd"), -1);
    EXPECT_EQ(errno, EBUSY);
}

TEST_F(ClientTest, ConnectionAnswerAcceptsOnlyEleven)
{
    accept_session();
    EXPECT_EQ(tarn_master_indication(s_), 0);
    EXPECT_EQ(daemon_.read().type, 17);

    FakeDaemon other;
    tarn_session_handle *s2 = nullptr;
    ASSERT_EQ(tarn_session_handle_alloc(&s2, &funs_), 0);
    Recorder rec2;
    tarn_session_set_context(s2, &rec2);
    ASSERT_EQ(tarn_session_connect(s2, other.address(), 0), 0);
    ASSERT_TRUE(other.accept());
    other.send(12, Bytes().u32(61));
    EXPECT_EQ(tarn_session_reply_get(s2), 0);
    EXPECT_EQ(rec2.calls, Calls{"status 0 2"});
    EXPECT_EQ(tarn_session_handle_descriptor(s2), -1);
    tarn_session_handle_free(s2);
}

TEST_F(ClientTest, InetConnectCompletesThroughReplyGet)
{
    FakeDaemon inet(true);
    make_session();
    int rc = tarn_session_connect(s_, inet.address(), 7);
    if (rc != 0) {
        ASSERT_EQ(errno, EINPROGRESS);
        pollfd p{tarn_session_handle_descriptor(s_), POLLOUT, 0};
        ASSERT_EQ(::poll(&p, 1, 10000), 1);
        ASSERT_EQ(tarn_session_reply_get(s_), 0);  // connect completed
    }
    ASSERT_TRUE(inet.accept());
    inet.send(12, Bytes().u32(11));
    ASSERT_EQ(tarn_session_reply_get(s_), 0);
    EXPECT_EQ(rec_.calls, Calls{"status 0 0"});
}

TEST_F(ClientTest, PeerClosingIsAConnectionLoss)
{
    accept_session();
    ::shutdown(daemon_.conn(), SHUT_RDWR);
    EXPECT_EQ(tarn_session_reply_get(s_), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(rec_.calls, Calls{"lost"});
}

TEST_F(ClientTest, IncompleteInputIsNoMessage)
{
    accept_session();
    daemon_.send_raw(std::string("\0\0\x05", 3));
    EXPECT_EQ(tarn_session_reply_get(s_), -1);
    EXPECT_EQ(errno, ENOMSG);
    EXPECT_TRUE(rec_.calls.empty());
}

TEST_F(ClientTest, IdentificationTakesAtMostSixtyThreeCharacters)
{
    accept_session();
    EXPECT_EQ(tarn_client_identify(s_, std::string(64, 'n').c_str()), -1);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(tarn_client_identify(s_, std::string(63, 'n').c_str()), 0);
    Frame f = daemon_.read();
    EXPECT_EQ(f.type, 71);
    std::vector<uint8_t> want(64, 'n');
    want[63] = 0;
    EXPECT_EQ(f.payload, want);
}

// Writes large messages until the queueing writer has to queue one.
int fill_until_queued(tarn_session_handle *s)
{
    tarn_bw_record recs[1022] = {};
    int sent = 0;
    while (tarn_session_queue_size(s) == 0) {
        recs[0].bw_ifl_index = static_cast<uint32_t>(sent);
        if (tarn_bw_update(s, recs, 1022) != 0) break;
        if (++sent > 1000) break;
    }
    return sent;
}

TEST_F(ClientTest, QueuedMessagesLeaveInOrderAndTheLastDrains)
{
    accept_session(true);
    const int direct = fill_until_queued(s_);
    ASSERT_EQ(tarn_session_queue_size(s_), 1);
    ASSERT_EQ(tarn_rt_table_locate(s_, "a", 1), 0);
    ASSERT_EQ(tarn_rt_table_locate(s_, "b", 2), 0);
    EXPECT_EQ(tarn_session_queue_size(s_), 3);
    // Everything that went straight out arrives first, whole and in order.
    for (int i = 0; i < direct - 1; ++i) {
        Frame f = daemon_.read();
        ASSERT_TRUE(f.ok);
        ASSERT_EQ(f.type, 45);
        ASSERT_EQ(f.payload[7], static_cast<uint8_t>(i));
    }
    rec_.calls.clear();
    for (int i = 0; i < 3; ++i) tarn_session_write_callback(s_);
    EXPECT_EQ(rec_.calls, (Calls{"want", "want", "drained"}));
    EXPECT_EQ(tarn_session_queue_size(s_), 0);
    Frame f = daemon_.read();
    EXPECT_EQ(f.type, 45);
    EXPECT_EQ(f.payload[7], static_cast<uint8_t>(direct - 1));
    EXPECT_EQ(daemon_.read().payload[8], 'a');
    EXPECT_EQ(daemon_.read().payload[8], 'b');
    EXPECT_TRUE(daemon_.idle());
}

TEST_F(ClientTest, CloseDropsQueuedMessagesButKeepsTheirCount)
{
    accept_session(true);
    fill_until_queued(s_);
    ASSERT_EQ(tarn_master_indication(s_), 0);
    ASSERT_EQ(tarn_session_queue_size(s_), 2);
    EXPECT_EQ(tarn_session_close(s_), 0);
    EXPECT_EQ(tarn_session_queue_size(s_), 2);
}

TEST_F(ClientTest, DirectWriterRefusesWhatCannotGoWhole)
{
    accept_session(false);
    tarn_bw_record recs[1022] = {};
    int rc;
    int n = 0;
    while ((rc = tarn_bw_update(s_, recs, 1022)) == 0 && ++n < 1000) {
    }
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(errno, EAGAIN);
    // Nothing of the refused message went out: the stream holds n frames.
    for (int i = 0; i < n; ++i) ASSERT_TRUE(daemon_.read().ok);
    EXPECT_TRUE(daemon_.idle());
}

struct Layout {
    const char *name;
    std::function<int(tarn_session_handle *)> call;
    uint16_t type;
    std::vector<uint8_t> payload;
};

std::vector<uint8_t> addr16(uint8_t first)
{
    std::vector<uint8_t> a(16, 0);
    a[0] = first;
    return a;
}

TEST_F(ClientTest, RequestLayouts)
{
    accept_session();
    tarn_rt_request rq{};
    rq.rt_cookie = 0x01020304;
    rq.rt_table_id = 5;
    rq.rt_gw_handle = 6;
    rq.rt_family = 1;
    rq.rt_prefix_len = 24;
    rq.rt_prefix[0] = 10;
    rq.rt_preference = 7;
    rq.rt_nh_count = 2;
    rq.rt_nexthops[0].nh_ifl_index = 8;
    rq.rt_nexthops[0].nh_family = 1;
    rq.rt_nexthops[0].nh_gateway[0] = 192;
    rq.rt_nexthops[1].nh_ifl_index = 9;
    rq.rt_nexthops[1].nh_family = 6;
    rq.rt_nexthops[1].nh_gateway[0] = 0xfe;
    auto fixed = [&](uint16_t n) {
        return Bytes().u32(0x01020304).u32(5).u32(6).u16(0).u8(0).u8(1).raw(addr16(10).data(), 16)
            .u16(24).u16(n).u32(7);
    };
    const uint8_t gw[16] = {172, 16};
    const tarn_bw_record bw[2] = {{1, 100}, {2, 200}};
    tarn_nbr_record nbr{};
    nbr.nbr_ifl_index = 3;
    nbr.nbr_family = 1;
    nbr.nbr_address[0] = 10;
    uint8_t v6addr[28] = {28, 6};
    v6addr[12] = 0x20;
    v6addr[27] = 0x01;
    uint8_t v4addr[16] = {16, 1, 0, 0, 10, 0, 0, 1};
    tarn_flash_filter filter{2, 0x1111, 0x2222, 0, 0x33334444};
    tarn_ra_record ra{};
    ra.ra_word0 = 0x0a0b0c0d;
    ra.ra_word1 = 0x11223344;
    ra.ra_bytes[0] = 0xaa;
    ra.ra_extra[5] = 0xee;
    std::vector<uint8_t> v6(16, 0);
    v6[0] = 0x20;
    v6[15] = 0x01;

    const std::vector<Layout> table = {
        {"rt_add", [&](auto s) { return tarn_rt_add(s, &rq); }, 2,
         Bytes(fixed(2)).u32(8).u8(1).u8(0).u16(0).raw(addr16(192).data(), 16)
             .u32(9).u8(6).u8(0).u16(0).raw(addr16(0xfe).data(), 16)},
        {"rt_delete", [&](auto s) { return tarn_rt_delete(s, &rq); }, 4, fixed(0)},
        {"rt_lookup", [&](auto s) { return tarn_rt_lookup(s, &rq); }, 6, fixed(0)},
        {"table_locate", [](auto s) { return tarn_rt_table_locate(s, "inet.0", 9); }, 9,
         Bytes().u32(9).u16(7).u16(0).raw("inet.0", 7)},
        {"local_as", [](auto s) { return tarn_local_as_by_name(s, "vrf", 3); }, 40,
         Bytes().u32(3).u16(4).u16(0).raw("vrf", 4)},
        {"change_gateway", [&](auto s) { return tarn_rt_change_gateway(s, 1, 2, 3, 1, gw); }, 13,
         Bytes().u32(1).u32(2).u32(3).u8(1).zeros(3).raw(gw, 16)},
        {"master", [](auto s) { return tarn_master_indication(s); }, 17, {}},
        {"rr_restart", [](auto s) { return tarn_rr_restart(s); }, 33, {}},
        {"cleanup", [](auto s) { return tarn_cleanup_data(s); }, 46, {}},
        {"bw_update", [&](auto s) { return tarn_bw_update(s, bw, 2); }, 45,
         Bytes().u32(2).u32(1).u32(100).u32(2).u32(200)},
        {"nbr_down", [&](auto s) { return tarn_nbr_down_update(s, &nbr, 1); }, 51,
         Bytes().u32(1).u32(3).u8(1).zeros(3).raw(addr16(10).data(), 16)},
        {"register_v6", [&](auto s) { return tarn_session_protocol_register(s, "ospf", v6addr, 1, 2); },
         0, Bytes().u32(2).u32(1).u32(5).u16(16).u16(6).raw("ospf", 5).raw(v6.data(), 16)},
        {"register_v4", [&](auto s) { return tarn_session_protocol_register(s, "bgp", v4addr, 1, 2); },
         0, Bytes().u32(2).u32(1).u32(4).u16(4).u16(1).raw("bgp", 4).u8(10).u8(0).u8(0).u8(1)},
        {"register_none", [](auto s) { return tarn_session_protocol_register(s, "rip", nullptr, 1, 2); },
         0, Bytes().u32(2).u32(1).u32(4).u16(0).u16(0).raw("rip", 4)},
        {"unregister", [](auto s) { return tarn_session_protocol_unregister(s, 1, 2); }, 10,
         Bytes().u32(2).u32(1)},
        {"flash", [](auto s) { return tarn_rt_flash_register_request(s, 1, 2, 3, 4, 5, nullptr); }, 54,
         Bytes().u32(1).u32(3).u16(2).u16(4).u32(5).u16(0).u16(0)},
        {"flash_filter",
         [&](auto s) { return tarn_rt_flash_register_request(s, 1, 2, 3, 4, 5, &filter); }, 54,
         Bytes().u32(1).u32(3).u16(2).u16(4).u32(5).u16(2).u16(8).u16(0x1111).u16(0x2222).u32(0x33334444)},
        {"ra_add", [&](auto s) { return tarn_ra_add(s, &ra, 77); }, 34,
         Bytes().u32(77).u32(0x0a0b0c0d).raw(&ra.ra_word1, 4).raw(ra.ra_bytes, 16)
             .raw(ra.ra_extra, 6).zeros(2)},
        {"ra_delete", [&](auto s) { return tarn_ra_delete(s, &ra, 78); }, 36,
         Bytes().u32(78).u32(0x0a0b0c0d).raw(&ra.ra_word1, 4).raw(ra.ra_bytes, 16)
             .raw(ra.ra_extra, 6).zeros(2)},
    };
    for (const Layout &l : table) {
        SCOPED_TRACE(l.name);
        ASSERT_EQ(l.call(s_), 0);
        Frame f = daemon_.read();
        ASSERT_TRUE(f.ok);
        EXPECT_EQ(f.type, l.type);
        EXPECT_EQ(f.payload, l.payload);
    }
}

TEST_F(ClientTest, BadRequestArgumentsSendNothing)
{
    accept_session();
    uint8_t fam2[16] = {16, 2};
    tarn_rt_request many{};
    many.rt_nh_count = 17;
    const std::vector<std::pair<std::function<int()>, int>> table = {
        {[&] { return tarn_session_protocol_register(s_, "x", fam2, 0, 0); }, EAFNOSUPPORT},
        {[&] { return tarn_rt_add(s_, &many); }, EINVAL},
        {[&] { return tarn_bw_update(s_, nullptr, 1); }, EINVAL},
        {[&] { return tarn_rt_table_locate(s_, std::string(256, 't').c_str(), 0); }, EINVAL},
    };
    for (size_t i = 0; i < table.size(); ++i) {
        errno = 0;
        EXPECT_EQ(table[i].first(), -1) << i;
        EXPECT_EQ(errno, table[i].second) << i;
    }
    EXPECT_TRUE(daemon_.idle());
}

TEST_F(ClientTest, MessageWriteChecksItsArguments)
{
    accept_session();
    ipc_msg_t h{};
    h.type = 99;
    h.length = 3;
    ASSERT_EQ(tarn_client_msg_write(s_, &h, "abc"), 0);
    Frame f = daemon_.read();
    EXPECT_EQ(f.type, 99);
    EXPECT_EQ(f.payload, (std::vector<uint8_t>{'a', 'b', 'c'}));
    EXPECT_DEATH(tarn_client_msg_write(s_, nullptr, "abc"),
                 "Assertion failed: \\(hdr\\).*file lib/libtarn/tarn_client, line 3255");
    EXPECT_DEATH(tarn_client_msg_write(s_, &h, nullptr), "\\(hdr->length == 0\\).*line 3257");
    tarn_flash_filter bad{3, 0, 0, 0, 0};
    EXPECT_DEATH(tarn_rt_flash_register_request(s_, 1, 2, 3, 4, 5, &bad), "\\(FALSE\\).*line 4691");
}

}  // namespace
}  // namespace tarn::test
