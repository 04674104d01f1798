// Dispatch of notifications: decoded and raw messages, limits per call,
// unknown and unhandled types, subtype dispatch, sequence tracking, opaque
// messages.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "async_test_support.h"

namespace {

using tarn::test::AsyncTest;
using tarn::test::envelope;
using tarn::test::raw_message;
using tarn::test::Report;
using tarn::test::ReportCollector;
using tarn::test::Seen;

// Route-table notification as an envelope; TLV when tlv is set.
std::vector<uint8_t> table_envelope(rtslib_cookie *h, uint16_t tid, bool tlv)
{
    rtb_msg_t rec{};
    rec.hdr.version = 'b';
    rec.hdr.type = RTS_MSG_RTTABLE;
    rec.hdr.op = RTS_OP_ADD;
    rec.tid = tid;
    rtb_msg_map_t map{};
    map.bits = (1u << RTB_MSG_BIT_HDR) | (1u << RTB_MSG_BIT_TID);
    map.hdr.bits = (1u << RTS_HDR_BIT_TYPE) | (1u << RTS_HDR_BIT_OP);
    void *buf = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(rtslib_msg_idl_encode(h, &rec, tlv ? &map : nullptr, &buf, &len), 0);
    const auto *b = static_cast<const uint8_t *>(buf);
    std::vector<uint8_t> out(b, b + len);
    rtslib_msg_free(h, buf);
    return out;
}

// Collects the table ids of decoded route-table records and releases them.
int table_handler(rtslib_cookie *h, void *arg, void *msg, void *)
{
    static_cast<std::vector<int> *>(arg)->push_back(static_cast<rtb_msg_t *>(msg)->tid);
    rtslib_msg_idl_release(h, msg);
    return 0;
}

class AsyncDispatch : public AsyncTest {
protected:
    void SetUp() override
    {
        AsyncTest::SetUp();
        ASSERT_EQ(rtslib_create_async_context(h_), 0);
    }
};

TEST_F(AsyncDispatch, EnvelopesAreDecodedAndRawMessagesPassedAsTheyCame)
{
    std::vector<int> tids;
    Seen routes;
    ASSERT_EQ(rtslib_rtbm_async_register(h_, &tids, table_handler), 0);
    ASSERT_EQ(rtslib_rtm_async_register(h_, &routes, Seen::handler), 0);
    push(table_envelope(h_, 7, false));
    push(table_envelope(h_, 9, true));
    const auto raw = raw_message(44, h_->seq + 2, 2);  // after two envelopes
    push(raw);
    EXPECT_EQ(rtslib_async_event_process(h_), 0);
    EXPECT_EQ(tids, (std::vector<int>{7, 9}));
    ASSERT_EQ(routes.raw.size(), 1u);
    EXPECT_EQ(routes.raw[0], raw);
    EXPECT_TRUE(reports_.reports.empty());
}

TEST_F(AsyncDispatch, EachCallHandlesAtMostNumReadMsg)
{
    Seen seen;
    ASSERT_EQ(rtslib_rtm_async_register(h_, &seen, Seen::handler), 0);
    for (uint32_t i = 0; i < 25; ++i) push(raw_message(24, h_->seq + i, 2));
    for (int want : {10, 20, 25}) {
        EXPECT_EQ(rtslib_async_event_process(h_), 0);
        EXPECT_EQ(seen.calls(), want);
    }
    errno = 0;
    EXPECT_EQ(rtslib_async_event_process(h_), -1);  // a wake-up with nothing to read
    EXPECT_EQ(errno, EAGAIN);
    rtsllib_async_set_num_read_msg(h_, 2);
    for (uint32_t i = 0; i < 3; ++i) push(raw_message(24, h_->seq + i, 2));
    EXPECT_EQ(rtslib_async_event_process(h_), 0);
    EXPECT_EQ(seen.calls(), 27);
    EXPECT_TRUE(reports_.reports.empty());
}

TEST_F(AsyncDispatch, UnknownOrUnhandledTypesEndThePass)
{
    Seen seen;
    ASSERT_EQ(rtslib_rtm_async_register(h_, &seen, Seen::handler), 0);
    auto unknown_envelope = envelope(RTS_IDL_MAGIC_IDR, 0, 0);
    unknown_envelope.resize(24);  // the shortest message the reader takes
    unknown_envelope[4] = 12;
    unknown_envelope[8] = 200;
    struct Case {
        std::vector<uint8_t> msg;
        int err;
        Report report;
    };
    const std::vector<Case> cases = {
        {raw_message(24, 0, 102), EOPNOTSUPP,
         {2, "rtslib: WARNING received async message of unknown type: 102\n"}},
        {unknown_envelope, EOPNOTSUPP,
         {2, "rtslib: WARNING received async message of unknown type: 200\n"}},
        {raw_message(24, 0, RTS_MSG_IFDEV), ENOENT,
         {3, "rtslib: ERROR received async message with no handler: 5\n"}},
    };
    for (const Case &c : cases) {
        reports_.reports.clear();
        auto m = c.msg;
        if (m[0] == 0) std::memcpy(&m[RTS_HDR_SEQ_OFF], &h_->seq, 4);
        push(m);
        push(raw_message(40, h_->seq + 1, 2));  // waits behind the failing one
        errno = 0;
        EXPECT_EQ(rtslib_async_event_process(h_), -1);
        EXPECT_EQ(errno, c.err);
        EXPECT_EQ(rtslib_async_event_process(h_), 0);
        EXPECT_EQ(reports_.reports, std::vector<Report>{c.report});
    }
    EXPECT_EQ(seen.calls(), 3);
}

TEST_F(AsyncDispatch, SequenceFollowsTheNotifications)
{
    Seen seen;
    ASSERT_EQ(rtslib_rtm_async_register(h_, &seen, Seen::handler), 0);
    ASSERT_EQ(rtslib_rtbm_async_register(h_, &seen, Seen::handler), 0);
    seen.decoded = true;
    const uint32_t start = h_->seq;
    push(raw_message(24, start + 3, 2));
    EXPECT_EQ(rtslib_async_event_process(h_), 0);
    EXPECT_EQ(h_->seq, start + 4);
    EXPECT_EQ(reports_.reports,
              (std::vector<Report>{{3, "rtslib: ERROR async message seq mismatch: (" +
                                           std::to_string(start) + " != " +
                                           std::to_string(start + 3) + ")\n"}}));
    reports_.reports.clear();
    push(table_envelope(h_, 1, false));  // an envelope moves the counter by one
    push(raw_message(24, start + 5, 2));
    EXPECT_EQ(rtslib_async_event_process(h_), 0);
    EXPECT_EQ(h_->seq, start + 6);
    EXPECT_TRUE(reports_.reports.empty());
}

TEST_F(AsyncDispatch, SubtypesAreDispatchedAgain)
{
    Seen eochain;
    Seen ifsclim;
    ASSERT_EQ(rtslib_ifstate_eochain_register(h_, &eochain, Seen::handler), 0);
    ASSERT_EQ(rtslib_ifsclim_async_register(h_, &ifsclim, Seen::handler), 0);  // no-op
    rtsllib_async_set_num_read_msg(h_, 100);
    uint32_t seq = h_->seq;
    auto with_subtype = [&](uint32_t total, uint8_t subtype) {
        auto m = raw_message(total, seq++, RTS_MSG_IFSCLINFO);
        if (total > 24) m[24] = subtype;
        return m;
    };
    push(with_subtype(24, 0));  // too short to hold the subtype
    push(with_subtype(28, 1));  // only subtype 0 exists
    push(with_subtype(28, 0));
    EXPECT_EQ(rtslib_async_event_process(h_), 0);
    EXPECT_EQ(eochain.calls(), 1);
    EXPECT_EQ(ifsclim.calls(), 0);
    const std::vector<Report> want = {
        {3, "rtslib: ERROR received async message with length < needed for subtype msg_type = "
            "85 subtype offset=24 msglen=24\n"},
        {3, "rtslib: ERROR received async message with invalid subtype msg_type = 85 subtype "
            "offset=24 msglen=28 subtype = 1\n"},
    };
    EXPECT_EQ(reports_.reports, want);
}

int destroy_context(rtslib_cookie *h, void *arg, void *msg, void *reserved)
{
    Seen::handler(h, arg, msg, reserved);
    return rtslib_destroy_async_context(h);
}

TEST_F(AsyncDispatch, AHandlerMayDestroyTheContext)
{
    Seen seen;
    ASSERT_EQ(rtslib_kuack_async_register(h_, 0, &seen, destroy_context), 0);
    push(raw_message(24, h_->seq, RTS_MSG_KUACK_MESSAGES));
    push(raw_message(24, h_->seq + 1, RTS_MSG_KUACK_MESSAGES));
    EXPECT_EQ(rtslib_async_event_process(h_), 0);
    EXPECT_EQ(seen.calls(), 1);
    EXPECT_EQ(h_->async, nullptr);
}

TEST_F(AsyncDispatch, WithoutContextNothingIsRead)
{
    ASSERT_EQ(rtslib_destroy_async_context(h_), 0);
    errno = 0;
    EXPECT_EQ(rtslib_async_event_process(h_), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(reports_.reports,
              (std::vector<Report>{{4, "rtslib: FATAL ERROR async event callback with invalid "
                                       "cookie!\n"}}));
}

// Opaque messages on a handle that wraps one end of a socket pair, so that
// the exact bytes written can be read on the other end.
class AsyncOpaque : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds_), 0);
        h_ = rtslib_open_nc();
        ASSERT_NE(h_, nullptr);
        h_->fd = fds_[0];
        rtslib_lib_error_register(h_, &reports_, ReportCollector::sink);
    }
    void TearDown() override
    {
        rtslib_close(h_);
        ::close(fds_[1]);
    }
    std::vector<uint8_t> sent()
    {
        std::vector<uint8_t> b(RTS_MSG_MAX);
        const ssize_t n = ::recv(fds_[1], b.data(), b.size(), MSG_DONTWAIT);
        b.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return b;
    }
    int fds_[2] = {-1, -1};
    rtslib_cookie *h_ = nullptr;
    ReportCollector reports_;
};

TEST_F(AsyncOpaque, MessageLayoutAndReply)
{
    const uint8_t payload[5] = {0xa1, 0xa2, 0xa3, 0xa4, 0xa5};
    void *reply = &reply;
    ASSERT_EQ(rtslib_async_opaque_handle(h_, 4, payload, 5, &reply, 0x33, 0x0100), 0);
    EXPECT_EQ(reply, nullptr);
    const std::vector<uint8_t> want = {
        0, 0, 0, 0, 98, 79, 4, 0, 40, 0, 0, 0, 2, 0, 0, 0,  // header, seq 2
        0, 0, 0, 0, 32, 0, 0, 0x33, 0x00, 0x01, 0, 0, 5, 0, 0, 0,
        0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0, 0, 0};
    EXPECT_EQ(sent(), want);

    const auto answer = raw_message(36, 3, RTS_MSG_ASYNC_OPAQUE);
    ASSERT_EQ(::send(fds_[1], answer.data(), answer.size(), 0), 36);
    ASSERT_EQ(rtslib_async_opaque_handle(h_, 4, nullptr, 0, &reply, 0, 0x1), 0);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(std::memcmp(reply, answer.data(), answer.size()), 0);
    rtslib_msg_free(h_, reply);
    EXPECT_EQ(sent().size(), 32u);

    EXPECT_EQ(rtslib_async_opaque_handle(h_, 4, payload, RTS_MSG_MAX, &reply, 0, 0), EINVAL);
    EXPECT_EQ(rtslib_async_opaque_handle(h_, 4, payload, 5, nullptr, 0, 0), EINVAL);
    ::close(fds_[1]);
    fds_[1] = -1;
    EXPECT_EQ(rtslib_async_opaque_handle(h_, 4, payload, 5, &reply, 0, 0), EPIPE);
    EXPECT_EQ(reply, nullptr);
    EXPECT_TRUE(reports_.reports.empty());
}

}  // namespace
