// Routes, tables, statistics and multicast groups end to end through the
// kernel emulator; request layouts checked on a socket pair.
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emu_client.h"
#include "kernel_emulator.h"
#include "request_layout.h"
#include "report_collector.h"
#include <tarn/tarn.h>

namespace {

using tarn::test::command;
using tarn::test::inject;
using tarn::test::KernelEmulator;
using tarn::test::raw_message;
using tarn::test::Report;
using tarn::test::ReportCollector;

std::vector<uint8_t> bytes_of(const rt_msg_t *rt)
{
    return std::vector<uint8_t>(rt->prefix, rt->prefix + rt->prefix_len);
}

using tarn::test::RequestLayout;

TEST_F(RequestLayout, PrefixIsCopiedAndPaddedToWholeWords)
{
    const uint8_t prefix[8] = {0xc0, 0xa8, 0x01, 0x02, 0xff, 0xee, 0xdd, 0xcc};
    struct {
        uint16_t plen;
        std::vector<uint8_t> sent;
    } const cases[] = {
        {0, {}},
        {1, {0xc0, 0, 0, 0}},
        {24, {0xc0, 0xa8, 0x01, 0}},
        {32, {0xc0, 0xa8, 0x01, 0x02}},
        {33, {0xc0, 0xa8, 0x01, 0x02, 0xff, 0, 0, 0}},
        // After a longer prefix: nothing of it may show in the padding.
        {1, {0xc0, 0, 0, 0}},
    };
    for (const auto &c : cases) {
        ASSERT_EQ(rtslib_rtm_add(h_, 3, TARN_AF_INET, 1, 0x11, 2, 0, 0, 0, 0, 9, 0, prefix, c.plen,
                                 nullptr, nullptr),
                  0);
        rt_msg_t *rt = written<rt_msg_t>();
        ASSERT_NE(rt, nullptr);
        EXPECT_EQ(rt->plen, c.plen);
        EXPECT_EQ(rt->prefix_len, c.sent.size()) << c.plen;
        EXPECT_EQ(bytes_of(rt), c.sent) << c.plen;
        rtslib_msg_idl_release(h_, rt);
    }
}

TEST_F(RequestLayout, AddCarriesEveryArgumentInItsField)
{
    rts_sockaddr src{};
    src.sa_len = 8;
    src.sa_family = TARN_AF_INET;
    src.sa_data[2] = 10;
    src.sa_data[5] = 7;
    const uint8_t prefix[4] = {10, 0, 0, 0};
    ASSERT_EQ(rtslib_rtm_add(h_, 4, TARN_AF_INET, 5, 0xbeef, 6, 7, 8, 9, 10, 11, 12, prefix, 8,
                             &src, nullptr),
              0);
    rt_msg_t *rt = written<rt_msg_t>();
    ASSERT_NE(rt, nullptr);
    EXPECT_EQ(rt->hdr.version, RTS_ROUTE_VERSION);
    EXPECT_EQ(rt->hdr.type, RTS_MSG_ROUTE);
    EXPECT_EQ(rt->hdr.op, RTS_OP_ADD);
    EXPECT_EQ(rt->hdr.op_flags, 0);
    EXPECT_EQ(rt->hdr.hdrlen, RTS_ROUTE_FIXED_LEN);
    EXPECT_EQ(rt->hdr.seq, 2u);
    EXPECT_EQ(rt->tid, 4);
    EXPECT_EQ(rt->af, TARN_AF_INET);
    EXPECT_EQ(rt->type, 5);
    EXPECT_EQ(rt->flags, 0xbeefu);
    EXPECT_EQ(rt->nh, 6);
    EXPECT_EQ(rt->nhflags, 7);
    EXPECT_EQ(rt->route_tag, 8u);
    EXPECT_EQ(rt->instance_id, 9u);
    EXPECT_EQ(rt->owner_id, 10u);
    EXPECT_EQ(rt->nhidx, 11u);
    EXPECT_EQ(rt->lookup_flags, 12);
    ASSERT_EQ(rt->source_count, 1u);
    ASSERT_NE(rt->source[0], nullptr);
    EXPECT_EQ(rt->source[0]->sa_len, 8);
    EXPECT_EQ(rt->source[0]->sa_family, TARN_AF_INET);
    ASSERT_EQ(rt->source[0]->sa_addr_len, 8u);
    EXPECT_EQ(std::memcmp(rt->source[0]->sa_addr, &src, 8), 0);
    rtslib_msg_idl_release(h_, rt);

    src.sa_len = 0;  // a zero-length source is no source
    ASSERT_EQ(rtslib_rtm_add(h_, 4, TARN_AF_INET, 5, 0, 6, 7, 8, 9, 10, 11, 12, prefix, 8, &src,
                             nullptr),
              0);
    rt = written<rt_msg_t>();
    ASSERT_NE(rt, nullptr);
    EXPECT_EQ(rt->source_count, 0u);
    rtslib_msg_idl_release(h_, rt);
}

// The encoded length of every request stays published, and a request is the
// same bytes as the record encoded on its own.
TEST_F(RequestLayout, WrittenRequestIsItsRecordsEncoding)
{
    const uint8_t prefix[16] = {0x20, 0x01, 0x0d, 0xb8};
    for (uint16_t plen : {128, 8}) {
        rtslib_msglen = 0;
        ASSERT_EQ(rtslib_rtm_add(h_, 0, TARN_AF_INET6, 1, 0, 2, 0, 0, 0, 0, 9, 0, prefix, plen,
                                 nullptr, nullptr),
                  0);
        std::vector<uint8_t> sent(RTS_MSG_MAX);
        const ssize_t n = ::recv(pair_[1], sent.data(), sent.size(), MSG_DONTWAIT);
        ASSERT_GT(n, 0);
        sent.resize(static_cast<size_t>(n));
        EXPECT_EQ(rtslib_msglen, sent.size()) << plen;
        void *rec = nullptr;
        ASSERT_EQ(rtslib_msg_idl_decode(h_, sent.data(), static_cast<uint32_t>(n), &rec, nullptr), 0);
        // Decoding fills in what the envelope says; a request leaves both at zero.
        static_cast<rts_hdr_t *>(rec)->msg_magic = 0;
        static_cast<rts_hdr_t *>(rec)->msglen = 0;
        void *again = nullptr;
        uint32_t len = 0;
        ASSERT_EQ(rtslib_msg_idl_encode(h_, rec, nullptr, &again, &len), 0);
        const auto *b = static_cast<uint8_t *>(again);
        EXPECT_EQ(std::vector<uint8_t>(b, b + len), sent) << plen;
        rtslib_msg_free(h_, again);
        rtslib_msg_idl_release(h_, rec);
    }
}

TEST_F(RequestLayout, EachRequestTakesOneSequenceNumberAndDeleteNone)
{
    const uint8_t prefix[4] = {10, 0, 0, 0};
    auto seq_after = [&](auto &&call) {
        const uint32_t before = h_->seq;
        call();
        return h_->seq - before;
    };
    EXPECT_EQ(seq_after([&] {
                  rtslib_rtm_add(h_, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, prefix, 8, nullptr, nullptr);
              }),
              1u);
    rtslib_msg_idl_release(h_, written<rt_msg_t>());
    EXPECT_EQ(seq_after([&] { rtslib_rtm_delete_prefix(h_, 0, 2, 0, 0, prefix, 8, 0); }), 1u);
    rt_msg_t *del = written<rt_msg_t>();
    ASSERT_NE(del, nullptr);
    EXPECT_EQ(del->hdr.op, RTS_OP_DELETE);
    // A plain delete keeps the caller's sequence number.
    del->hdr.seq = 77;
    EXPECT_EQ(seq_after([&] { rtslib_rtm_delete(h_, del); }), 0u);
    rt_msg_t *again = written<rt_msg_t>();
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->hdr.seq, 77u);
    EXPECT_EQ(again->hdr.op, RTS_OP_DELETE);
    rtslib_msg_idl_release(h_, again);
    EXPECT_EQ(seq_after([&] {
                  rtslib_rtm_get(h_, 0, 2, prefix, 8, 0, 0, 0, 0, RTS_OP_CHANGE, nullptr, nullptr);
              }),
              1u);
    rtslib_msg_idl_release(h_, written<rt_msg_t>());
    EXPECT_EQ(seq_after([&] { rtslib_rtm_get_with_msg(h_, del, RTS_OP_CHANGE, nullptr, nullptr); }),
              1u);
    rtslib_msg_idl_release(h_, written<rt_msg_t>());
    rtslib_msg_idl_release(h_, del);
}

TEST_F(RequestLayout, AnsweredGetWithoutRecordOutWritesNothing)
{
    const uint8_t prefix[4] = {10, 0, 0, 0};
    const uint32_t seq = h_->seq;
    EXPECT_EQ(rtslib_rtm_get(h_, 0, 2, prefix, 8, 0, 0, 0, 0, RTS_OP_GET, nullptr, nullptr), EINVAL);
    EXPECT_EQ(rtslib_rtm_get(nullptr, 0, 2, prefix, 8, 0, 0, 0, 0, RTS_OP_GETNEXT, nullptr, nullptr),
              EINVAL);
    EXPECT_EQ(rtslib_rtbm_get_by_index(h_, 2, 0, RTS_OP_GET, nullptr, nullptr), EINVAL);
    EXPECT_EQ(rtslib_mgrm_get(h_, 0, 2, nullptr, 0, RTS_OP_GET, nullptr, nullptr), EINVAL);
    EXPECT_EQ(h_->seq, seq);
    EXPECT_EQ(written<rt_msg_t>(), nullptr);
}

TEST_F(RequestLayout, TableNamesAreCutAndDefaulted)
{
    const std::string long_name(200, 'n');
    ASSERT_EQ(rtslib_rtbm_add_lr(h_, long_name.c_str(), 9, 28, "lr-1", 4, 3), 0);
    rtb_msg_t *rtb = written<rtb_msg_t>();
    ASSERT_NE(rtb, nullptr);
    EXPECT_EQ(rtb->hdr.op_flags, 3);
    EXPECT_EQ(rtb->count, 1u);
    EXPECT_EQ(rtb->lr_byte, 4);
    ASSERT_EQ(rtb->name_len, 128u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(rtb->name)), long_name.substr(0, 127));
    EXPECT_EQ(std::string(reinterpret_cast<char *>(rtb->lr_name)), "lr-1");
    EXPECT_EQ(rtb->table_flags, 0);
    rtslib_msg_idl_release(h_, rtb);

    ASSERT_EQ(rtslib_rtbm_add(h_, nullptr, 0, 2, 0), 0);
    rtb = written<rtb_msg_t>();
    ASSERT_NE(rtb, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(rtb->name)), "default");
    EXPECT_EQ(rtb->name_len, 8u);
    EXPECT_EQ(rtb->table_flags, RTS_RTTABLE_FLAG_DEFAULT);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(rtb->lr_name)), "null");
    rtslib_msg_idl_release(h_, rtb);
}

// Against the emulator.
class Routes : public testing::Test {
protected:
    void SetUp() override
    {
        ::setenv("TARN_KERNEL_REPLY_TIMEOUT_MS", "300", 1);
        ASSERT_TRUE(emu_.running());
        h_ = rtslib_open_set_liberr(1, &reports_, ReportCollector::sink);
        ASSERT_NE(h_, nullptr);
    }
    void TearDown() override
    {
        rtslib_close(h_);
        ::unsetenv("TARN_KERNEL_REPLY_TIMEOUT_MS");
    }
    int add(std::vector<uint8_t> prefix, uint16_t plen, uint32_t nhidx, uint32_t *ack = nullptr,
            uint16_t tid = 0)
    {
        return rtslib_rtm_add(h_, tid, TARN_AF_INET, 1, 0, 2, 0, 0, 0, 0, nhidx, 0, prefix.data(),
                              plen, nullptr, ack);
    }

    KernelEmulator emu_{{"--log"}};
    ReportCollector reports_;
    rtslib_cookie *h_ = nullptr;
};

TEST_F(Routes, ExactLookupFindsOnlyTheSamePrefixAndLength)
{
    ASSERT_EQ(add({10, 1, 0, 0}, 16, 7), 0);
    ASSERT_EQ(add({10, 1, 0, 0}, 24, 8), 0);
    rt_msg_t *rt = nullptr;
    const uint8_t p[4] = {10, 1, 0, 0};
    ASSERT_EQ(rtslib_rtm_get_by_prefix(h_, TARN_AF_INET, p, 16, RTS_OP_GET, &rt, nullptr), 0);
    ASSERT_NE(rt, nullptr);
    EXPECT_EQ(rt->hdr.error, 0u);
    EXPECT_EQ(rt->plen, 16);
    EXPECT_EQ(rt->nhidx, 7u);
    EXPECT_EQ(bytes_of(rt), (std::vector<uint8_t>{10, 1, 0, 0}));
    rtslib_msg_idl_release(h_, rt);

    ASSERT_EQ(rtslib_rtm_get_by_prefix(h_, TARN_AF_INET, p, 20, RTS_OP_GET, &rt, nullptr), 0);
    EXPECT_EQ(rt->hdr.error, 2u);  // the kernel's ENOENT
    rtslib_msg_idl_release(h_, rt);
    EXPECT_TRUE(reports_.reports.empty());
}

TEST_F(Routes, GetnextWalksInPrefixOrder)
{
    std::vector<std::pair<std::vector<uint8_t>, uint16_t>> routes = {
        {{10, 0, 0, 0}, 8},   {{10, 0, 0, 0}, 16}, {{10, 1, 0, 0}, 16}, {{10, 128, 0, 0}, 9},
        {{192, 168, 1, 0}, 24}, {{172, 16, 0, 0}, 12}, {{10, 1, 2, 0}, 24}, {{1, 0, 0, 0}, 8},
    };
    std::mt19937 rng(7);
    std::shuffle(routes.begin(), routes.end(), rng);
    for (size_t i = 0; i < routes.size(); ++i)
        ASSERT_EQ(add(routes[i].first, routes[i].second, static_cast<uint32_t>(i)), 0);

    std::vector<std::pair<std::vector<uint8_t>, uint16_t>> walked;
    rt_msg_t *rt = nullptr;
    ASSERT_EQ(rtslib_rtm_get_by_type(h_, TARN_AF_INET, 0, RTS_OP_GETNEXT, &rt, nullptr), 0);
    while (rt->hdr.error == 0) {
        auto b = bytes_of(rt);
        b.resize(4, 0);
        walked.emplace_back(b, rt->plen);
        rt_msg_t *next = nullptr;
        ASSERT_EQ(rtslib_rtm_get_with_msg(h_, rt, RTS_OP_GETNEXT, &next, nullptr), 0);
        rtslib_msg_idl_release(h_, rt);
        rt = next;
        ASSERT_LE(walked.size(), routes.size());
    }
    rtslib_msg_idl_release(h_, rt);
    const std::vector<std::pair<std::vector<uint8_t>, uint16_t>> expected = {
        {{1, 0, 0, 0}, 8},     {{10, 0, 0, 0}, 8},    {{10, 0, 0, 0}, 16},  {{10, 1, 0, 0}, 16},
        {{10, 1, 2, 0}, 24},   {{10, 128, 0, 0}, 9},  {{172, 16, 0, 0}, 12}, {{192, 168, 1, 0}, 24},
    };
    EXPECT_EQ(walked, expected);
}

TEST_F(Routes, AcknowledgedAddsReportTheirIndex)
{
    uint32_t a = 0, b = 0;
    ASSERT_EQ(add({10, 0, 0, 0}, 8, 1, &a), 0);
    ASSERT_EQ(add({11, 0, 0, 0}, 8, 1, &b), 0);
    EXPECT_GE(a, 1u);
    EXPECT_EQ(b, a + 1);
    EXPECT_NE(command(h_->fd, "dump").find("route 0 af 2 0a/8 type 1 nh 2 nhidx 1 flags 0x0 index " +
                                            std::to_string(a)),
              std::string::npos)
        << command(h_->fd, "dump");
}

TEST_F(Routes, LostAcknowledgementIsReported)
{
    ASSERT_EQ(command(h_->fd, "drop-replies 1"), "");
    uint32_t idx = 1234;
    EXPECT_EQ(add({10, 0, 0, 0}, 8, 1, &idx), EAGAIN);
    EXPECT_EQ(idx, 1234u);
    EXPECT_EQ(reports_.reports,
              std::vector<Report>({{3, "rtslib: ERROR  failed to get route add ack index\n"}}));
}

// A stopped kernel lets requests pile up, so that it finds more of them
// waiting than it takes in one read; every one must still be handled, in
// order.
TEST_F(Routes, RequestsQueuedWhileTheKernelIsStoppedAllArrive)
{
    ASSERT_EQ(::kill(emu_.pid(), SIGSTOP), 0);
    uint32_t written = 0;
    for (int rc = 0; written < 1000; ++written) {
        const uint8_t hi = static_cast<uint8_t>(written >> 8), lo = static_cast<uint8_t>(written);
        rc = add({10, hi, lo, 0}, 24, written);
        if (rc == EAGAIN) break;
        ASSERT_EQ(rc, 0);
    }
    ASSERT_EQ(::kill(emu_.pid(), SIGCONT), 0);
    ASSERT_GT(written, 64u);  // more than one read's worth
    EXPECT_EQ(command(h_->fd, "count"), "routes " + std::to_string(written) + "\n");
    const uint32_t last = written - 1;
    const uint8_t p[4] = {10, static_cast<uint8_t>(last >> 8), static_cast<uint8_t>(last), 0};
    rt_msg_t *rt = nullptr;
    ASSERT_EQ(rtslib_rtm_get_by_prefix(h_, TARN_AF_INET, p, 24, RTS_OP_GET, &rt, nullptr), 0);
    EXPECT_EQ(rt->hdr.error, 0u);
    EXPECT_EQ(rt->nhidx, last);
    rtslib_msg_idl_release(h_, rt);
}

TEST_F(Routes, StateIsLoggedOnSigusr1)
{
    ASSERT_EQ(add({10, 0, 0, 0}, 8, 1), 0);
    ASSERT_EQ(command(h_->fd, "count"), "routes 1\n");
    ::kill(emu_.pid(), SIGUSR1);
    EXPECT_TRUE(emu_.wait_for_output("state: route 0 af 2 0a/8 type 1 nh 2 nhidx 1"))
        << emu_.output();
}

TEST_F(Routes, DeletesRemoveRoutes)
{
    ASSERT_EQ(add({10, 0, 0, 0}, 8, 1), 0);
    ASSERT_EQ(add({11, 0, 0, 0}, 8, 1), 0);
    const uint8_t p10[1] = {10};
    const uint8_t p11[1] = {11};
    ASSERT_EQ(rtslib_rtm_delete_prefix(h_, 0, TARN_AF_INET, 1, 0, p10, 8, 0), 0);
    rt_msg_t *rt = nullptr;
    ASSERT_EQ(rtslib_rtm_get_by_prefix(h_, TARN_AF_INET, p11, 8, RTS_OP_GET, &rt, nullptr), 0);
    ASSERT_EQ(rt->hdr.error, 0u);
    ASSERT_EQ(rtslib_rtm_delete(h_, rt), 0);  // the answer record, sent back as a delete
    rtslib_msg_idl_release(h_, rt);
    const std::string dump = command(h_->fd, "dump");
    EXPECT_EQ(dump.find("route 0 af 2"), std::string::npos) << dump;
    EXPECT_NE(dump.find("routes 0 adds 2 deletes 2"), std::string::npos) << dump;
}

TEST_F(Routes, NamedTablesAreCreatedAndFound)
{
    const std::string long_name(200, 't');
    ASSERT_EQ(rtslib_rtbm_add(h_, "blue", 5, TARN_AF_INET, 0), 0);
    ASSERT_EQ(rtslib_rtbm_add_lr(h_, long_name.c_str(), 6, TARN_AF_INET, "lr-7", 7, 0), 0);
    ASSERT_EQ(add({10, 0, 0, 0}, 8, 1, nullptr, 5), 0);

    rtb_msg_t *t = nullptr;
    ASSERT_EQ(rtslib_rtbm_get_by_name(h_, TARN_AF_INET, "blue", &t, nullptr), 0);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->hdr.error, 0u);
    EXPECT_EQ(t->tid, 5);
    EXPECT_EQ(t->count, 1u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(t->lr_name)), "null");
    rtslib_msg_idl_release(h_, t);

    ASSERT_EQ(rtslib_rtbm_get_by_name(h_, TARN_AF_INET, long_name.c_str(), &t, nullptr), 0);
    EXPECT_EQ(t->tid, 6);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(t->name)), long_name.substr(0, 127));
    EXPECT_EQ(std::string(reinterpret_cast<char *>(t->lr_name)), "lr-7");
    rtslib_msg_idl_release(h_, t);

    ASSERT_EQ(rtslib_rtbm_get_by_index(h_, TARN_AF_INET, 0, RTS_OP_GET, &t, nullptr), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(t->name)), "default");
    EXPECT_EQ(t->table_flags, RTS_RTTABLE_FLAG_DEFAULT);
    rtslib_msg_idl_release(h_, t);
    ASSERT_EQ(rtslib_rtbm_get_by_index(h_, TARN_AF_INET, 5, RTS_OP_GETNEXT, &t, nullptr), 0);
    EXPECT_EQ(t->tid, 6);
    rtslib_msg_idl_release(h_, t);

    ASSERT_EQ(rtslib_rtbm_update(h_, 5, TARN_AF_INET, 11, "green", 12, 13, RTS_OP_CHANGE), 0);
    ASSERT_EQ(rtslib_rtbm_get_by_index(h_, TARN_AF_INET, 5, RTS_OP_GET, &t, nullptr), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(t->name)), "green");
    EXPECT_EQ(t->table_id_ext, 11u);
    EXPECT_EQ(t->table_attr, 12u);
    EXPECT_EQ(t->table_attr_ext, 13);
    rtslib_msg_idl_release(h_, t);

    ASSERT_EQ(rtslib_rtbm_get_by_name(h_, TARN_AF_INET6, "blue", &t, nullptr), 0);
    EXPECT_EQ(t->hdr.error, 2u);
    rtslib_msg_idl_release(h_, t);
}

TEST_F(Routes, StatisticsCountWhatTheKernelDid)
{
    ASSERT_EQ(add({10, 1, 0, 0}, 16, 1), 0);
    uint32_t idx = 0;
    ASSERT_EQ(add({10, 2, 0, 0}, 16, 1, &idx), 0);
    const uint8_t p[4] = {10, 2, 0, 0};
    for (int i = 0; i < 3; ++i) {
        rt_msg_t *rt = nullptr;
        ASSERT_EQ(rtslib_rtm_get_by_prefix(h_, TARN_AF_INET, p, 16, RTS_OP_GET, &rt, nullptr), 0);
        rtslib_msg_idl_release(h_, rt);
    }
    const uint32_t prefix = 0x0000020a;  // 10.2.0.0 as the kernel stores it
    uint32_t stats[RTS_RTSTATS_COUNTERS] = {};
    ASSERT_EQ(rtslib_rtstats_get(h_, TARN_AF_INET, 0, 0, 0, 16, &prefix, stats), 0);
    const std::vector<uint32_t> got(stats, stats + RTS_RTSTATS_COUNTERS);
    // routes, adds, deletes, gets, getnexts, acknowledged adds, refused,
    // lookups of this route, its index
    EXPECT_EQ(got, (std::vector<uint32_t>{2, 2, 0, 3, 0, 1, 0, 3, idx}));

    const uint32_t missing = 0x0000090a;
    EXPECT_EQ(rtslib_rtstats_get(h_, TARN_AF_INET, 0, 0, 0, 16, &missing, stats), ENOENT);
}

TEST_F(Routes, StatisticsAnswerOfTheWrongLengthIsRefused)
{
    ASSERT_EQ(add({10, 2, 0, 0}, 16, 1), 0);
    ASSERT_EQ(command(h_->fd, "drop-replies 1"), "");
    // Stand in for the kernel: an answer of another length with this request's
    // sequence number and the found flag set.
    auto answer = raw_message(48 + 4 + 36 + 4, h_->seq + 1, RTS_MSG_RTSTATS, RTS_OP_GET);
    answer[RTS_HDR_FIXED_LEN_OFF] = 48;
    answer[40] = 1;
    ASSERT_EQ(inject(h_->fd, answer), 0);
    const uint32_t prefix = 0x0000020a;
    uint32_t stats[RTS_RTSTATS_COUNTERS] = {};
    EXPECT_EQ(rtslib_rtstats_get(h_, TARN_AF_INET, 0, 0, 0, 16, &prefix, stats), ENOENT);
}

TEST_F(Routes, StatisticsAnswerOfAnotherRequestIsReleased)
{
    ASSERT_EQ(command(h_->fd, "drop-replies 1"), "");
    // The right length and the found flag, but another request's number.
    auto answer = raw_message(48 + 4 + 36, h_->seq + 5, RTS_MSG_RTSTATS, RTS_OP_GET);
    answer[RTS_HDR_FIXED_LEN_OFF] = 48;
    answer[40] = 1;
    ASSERT_EQ(inject(h_->fd, answer), 0);
    const uint32_t prefix = 0x0000020a;
    uint32_t stats[RTS_RTSTATS_COUNTERS] = {};
    EXPECT_EQ(rtslib_rtstats_get(h_, TARN_AF_INET, 0, 0, 0, 16, &prefix, stats),
              RTSLIB_SEQ_MISMATCH);
    ASSERT_EQ(reports_.reports.size(), 1u);
    EXPECT_EQ(reports_.reports[0].level, 4);
}

// An envelope of a type that has no record (3 here) decodes without error
// but to nothing; every call that hands out or reads the answer's record
// must call that malformed instead of crashing or handing out null.
TEST_F(Routes, AnswersWithoutARecordAreMalformed)
{
    const uint8_t prefix[4] = {10, 0, 0, 0};
    const uint32_t group = 0xe0;
    const struct {
        const char *call;
        std::function<int(rtslib_cookie *, void **)> run;
    } calls[] = {
        {"acknowledged add",
         [&](rtslib_cookie *h, void **) {
             uint32_t ack = 0;
             return rtslib_rtm_add(h, 0, TARN_AF_INET, 1, 0, 2, 0, 0, 0, 0, 1, 0, prefix, 8,
                                   nullptr, &ack);
         }},
        {"route get",
         [&](rtslib_cookie *h, void **out) {
             return rtslib_rtm_get_by_prefix(h, TARN_AF_INET, prefix, 8, RTS_OP_GET,
                                             reinterpret_cast<rt_msg_t **>(out), nullptr);
         }},
        {"table get by name",
         [&](rtslib_cookie *h, void **out) {
             return rtslib_rtbm_get_by_name(h, TARN_AF_INET, "default",
                                            reinterpret_cast<rtb_msg_t **>(out), nullptr);
         }},
        {"table get by index",
         [&](rtslib_cookie *h, void **out) {
             return rtslib_rtbm_get_by_index(h, TARN_AF_INET, 0, RTS_OP_GET,
                                             reinterpret_cast<rtb_msg_t **>(out), nullptr);
         }},
        {"multicast get",
         [&](rtslib_cookie *h, void **out) {
             return rtslib_mgrm_get(h, 0, TARN_AF_INET, &group, 8, RTS_OP_GET,
                                    reinterpret_cast<mgr_msg_t **>(out), nullptr);
         }},
    };
    auto empty = tarn::test::envelope(RTS_IDL_MAGIC_IDR, 12, 12);
    empty[8] = 3;
    for (const auto &c : calls) {
        reports_.reports.clear();
        ASSERT_EQ(command(h_->fd, "drop-replies 1"), "");
        ASSERT_EQ(inject(h_->fd, empty), 0);
        void *out = &out;  // a get must clear it
        const int rc = c.run(h_, &out);
        EXPECT_EQ(rc, EIO) << c.call;
        if (std::string(c.call) != "acknowledged add") {
            EXPECT_EQ(out, nullptr) << c.call;
        }
        ASSERT_FALSE(reports_.reports.empty()) << c.call;
        EXPECT_EQ(reports_.reports[0].text, "rtslib: ERROR IDL message of type 3 carries no record\n")
            << c.call;
    }
}

TEST_F(Routes, MulticastGroupsAreLookedUp)
{
    int err = -1;
    command(-1, "mgroup-add 0 2 e0000001 32 9", &err);
    ASSERT_EQ(err, 0);
    command(-1, "mgroup-add 0 2 e0000005 32 11", &err);
    const uint8_t g[4] = {0xe0, 0, 0, 1};
    mgr_msg_t *m = nullptr;
    ASSERT_EQ(rtslib_mgrm_get(h_, 0, TARN_AF_INET, g, 32, RTS_OP_GET, &m, nullptr), 0);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->hdr.error, 0u);
    EXPECT_EQ(m->iif_index, 9u);
    rtslib_msg_idl_release(h_, m);
    ASSERT_EQ(rtslib_mgrm_get(h_, 0, TARN_AF_INET, g, 32, RTS_OP_GETNEXT, &m, nullptr), 0);
    EXPECT_EQ(m->iif_index, 11u);
    ASSERT_EQ(m->group_len, 4u);
    EXPECT_EQ(m->group[3], 5);
    rtslib_msg_idl_release(h_, m);
}

TEST_F(Routes, TlvRequestsGetTlvAnswers)
{
    ASSERT_EQ(add({10, 0, 0, 0}, 8, 42), 0);
    rt_msg_t req{};
    rt_msg_map_t map{};
    uint8_t p[4] = {10, 0, 0, 0};
    req.hdr.version = RTS_ROUTE_VERSION;
    req.hdr.type = RTS_MSG_ROUTE;
    req.hdr.op = RTS_OP_GET;
    req.hdr.seq = ++h_->seq;
    req.af = TARN_AF_INET;
    req.plen = 8;
    req.prefix = p;
    req.prefix_len = 4;
    map.bits = (1u << RT_MSG_BIT_HDR) | (1u << RT_MSG_BIT_AF) | (1u << RT_MSG_BIT_PLEN) |
               (1u << RT_MSG_BIT_PREFIX);
    map.hdr.bits = (1u << RTS_HDR_BIT_TYPE) | (1u << RTS_HDR_BIT_OP) | (1u << RTS_HDR_BIT_SEQ) |
                   (1u << RTS_HDR_BIT_VERSION);
    ASSERT_EQ(rtslib_msg_write_idl(h_, &req, &map), 0);
    ASSERT_TRUE(emu_.wait_for_output("TLV message type 2 (route) op 4")) << emu_.output();
    void *rec = nullptr;
    void *rec_map = nullptr;
    for (int i = 0; i < 500 && rtslib_peek_pkt_len(h_->fd) < 0; ++i) ::usleep(1000);
    ASSERT_EQ(rtslib_long_msg_read_idl(h_, &rec, &rec_map), 0);
    ASSERT_NE(rec_map, nullptr);  // only TLV answers carry a map
    auto *rt = static_cast<rt_msg_t *>(rec);
    EXPECT_EQ(rt->nhidx, 42u);
    EXPECT_NE(static_cast<rt_msg_map_t *>(rec_map)->bits & (1u << RT_MSG_BIT_NHIDX), 0u);
    rtslib_msg_idl_release(h_, rec);
}

}  // namespace
