// Reading and writing whole messages through a real kernel emulator.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emu_client.h"
#include "kernel_emulator.h"
#include "report_collector.h"
#include <tarn/tarn.h>

namespace {

using tarn::test::envelope;
using tarn::test::inject;
using tarn::test::KernelEmulator;
using tarn::test::raw_message;
using tarn::test::Report;
using tarn::test::ReportCollector;

class MessageIo : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(emu_.running());
        h_ = rtslib_open_set_liberr(1, &reports_, ReportCollector::sink);
        ASSERT_NE(h_, nullptr);
        ASSERT_TRUE(reports_.reports.empty());
    }
    void TearDown() override
    {
        h_->async = nullptr;  // some tests borrow the field
        rtslib_close(h_);
    }
    void push(const std::vector<uint8_t> &m) { ASSERT_EQ(inject(h_->fd, m), 0) << strerror(errno); }

    KernelEmulator emu_{{"--log"}};
    ReportCollector reports_;
    rtslib_cookie *h_ = nullptr;
    std::vector<uint8_t> dest_ = std::vector<uint8_t>(RTS_MSG_MAX);
};

TEST_F(MessageIo, SizeAndLengthChecksOfTheBoundedRead)
{
    struct Case {
        uint32_t total;
        int64_t claimed;
        int rc;
        uint32_t delivered;
        std::vector<Report> reports;
    };
    const std::vector<Case> cases = {
        {RTS_MSG_MAX, -1, 0, RTS_MSG_MAX, {}},
        {24, -1, 0, 24, {}},
        {RTS_MSG_MAX + 1, -1, EIO, 0,
         {{4, "rtslib: FATAL ERROR msg read too large for rtsock message: 16385\n"}}},
        {48, 40, 0, 40, {{2, "rtslib: WARNING msg read too long got (48), expected 40\n"}}},
        {40, 48, EIO, 0, {{4, "rtslib: FATAL ERROR msg read too short got (40), expected 48\n"}}},
        {23, -1, EIO, 0, {{4, "rtslib: FATAL ERROR msg read too small for header: 23\n"}}},
        {16, 16, EIO, 0, {{4, "rtslib: FATAL ERROR msg read too small for header: 16\n"}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "total " << c.total << " claimed " << c.claimed);
        reports_.reports.clear();
        push(raw_message(c.total, h_->seq, 2, 1, c.claimed));
        uint32_t len = 0xdead;
        EXPECT_EQ(rtslib_msg_read(h_, dest_.data(), &len), c.rc);
        EXPECT_EQ(reports_.reports, c.reports);
        if (c.rc == 0) {
            EXPECT_EQ(len, c.delivered);
            const auto sent = raw_message(c.total, h_->seq, 2, 1, c.claimed);
            EXPECT_EQ(std::memcmp(dest_.data(), sent.data(), c.delivered), 0);
        }
    }
    EXPECT_EQ(rtslib_msg_read(h_, dest_.data(), nullptr), EAGAIN);  // all consumed
}

TEST_F(MessageIo, NothingWaitingIsQuiet)
{
    uint32_t len = 0;
    EXPECT_EQ(rtslib_msg_read(h_, dest_.data(), &len), EAGAIN);
    EXPECT_EQ(rtslib_peek_pkt_len(h_->fd), -1);
    EXPECT_EQ(errno, EAGAIN);
    void *msg = &len;
    len = 7;
    EXPECT_EQ(rtslib_long_msg_read(h_, &msg, &len), EAGAIN);
    EXPECT_EQ(msg, nullptr);
    EXPECT_EQ(len, 0u);
    EXPECT_TRUE(reports_.reports.empty());
}

TEST_F(MessageIo, ReadFailureOtherThanEagainIsFatal)
{
    const int fd = h_->fd;
    h_->fd = 1000;  // not open
    EXPECT_EQ(rtslib_msg_read(h_, dest_.data(), nullptr), EBADF);
    h_->fd = fd;
    ASSERT_EQ(reports_.reports.size(), 1u);
    EXPECT_EQ(reports_.reports[0].text,
              "rtslib: FATAL ERROR read failed: (" + std::to_string(EBADF) + ") " +
                  std::strerror(EBADF));
}

TEST_F(MessageIo, PeekReportsTheClaimedLengthWithoutConsuming)
{
    push(raw_message(60, 1, 2, 1, 52));
    EXPECT_EQ(rtslib_peek_pkt_len(h_->fd), 52);
    EXPECT_EQ(rtslib_peek_pkt_len(h_->fd), 52);
    ASSERT_EQ(rtslib_msg_read(h_, dest_.data(), nullptr), 0);
    push(envelope(RTS_IDL_MAGIC_IDR, 100, 100));
    EXPECT_EQ(rtslib_peek_pkt_len(h_->fd), 112);
    push(envelope(RTS_IDL_MAGIC_TLV, 0xfffffff8u, 20));  // a lie that must not wrap
    ASSERT_EQ(rtslib_msg_read(h_, dest_.data(), nullptr), 0);
    EXPECT_GT(rtslib_peek_pkt_len(h_->fd), 0x7fff0000);
}

TEST_F(MessageIo, EnvelopesSkipTheLengthAndSequenceChecks)
{
    for (uint32_t magic : {RTS_IDL_MAGIC_TLV, RTS_IDL_MAGIC_IDR}) {
        auto m = envelope(magic, 36, 36);
        m[12] = 99;  // where a raw header would keep its sequence number
        push(m);
        uint32_t len = 0;
        EXPECT_EQ(rtslib_msg_read(h_, dest_.data(), &len), 0);
        EXPECT_EQ(len, 48u);
    }
    EXPECT_TRUE(reports_.reports.empty());
    EXPECT_EQ(h_->seq, 1u);
}

TEST_F(MessageIo, SequenceMismatchWithoutContextIsFatalAndDelivered)
{
    push(raw_message(32, 5));
    uint32_t len = 0;
    EXPECT_EQ(rtslib_msg_read(h_, dest_.data(), &len), RTSLIB_SEQ_MISMATCH);
    EXPECT_EQ(len, 32u);
    EXPECT_EQ(dest_[RTS_HDR_SEQ_OFF], 5);
    EXPECT_EQ(reports_.reports,
              std::vector<Report>({{4, "rtslib: FATAL ERROR request/reply seq mismatch: (1 != 5)\n"}}));
    EXPECT_EQ(h_->seq, 1u);  // left alone
}

TEST_F(MessageIo, SequenceHookReplacesTheReport)
{
    struct Seen {
        int calls = 0;
        uint32_t expected = 0, received = 0;
    } seen;
    auto hook = [](rtslib_cookie *, void *arg, uint32_t expected, uint32_t received) {
        auto *s = static_cast<Seen *>(arg);
        ++s->calls;
        s->expected = expected;
        s->received = received;
        return 0;
    };
    ASSERT_EQ(rtslib_seq_error_register(h_, &seen, hook), 0);
    push(raw_message(24, 9));
    EXPECT_EQ(rtslib_msg_read(h_, dest_.data(), nullptr), RTSLIB_SEQ_MISMATCH);
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.expected, 1u);
    EXPECT_EQ(seen.received, 9u);
    EXPECT_TRUE(reports_.reports.empty());
    push(raw_message(24, 1));
    EXPECT_EQ(rtslib_msg_read(h_, dest_.data(), nullptr), 0);
    EXPECT_EQ(seen.calls, 1);
}

TEST_F(MessageIo, WithAnAsyncContextTheCounterFollowsTheKernel)
{
    int context_stand_in = 0;
    h_->async = reinterpret_cast<rtslib_async_ctx *>(&context_stand_in);
    h_->seq = 7;
    push(raw_message(24, 10));
    EXPECT_EQ(rtslib_msg_read(h_, dest_.data(), nullptr), RTSLIB_SEQ_MISMATCH);
    EXPECT_EQ(h_->seq, 11u);
    EXPECT_EQ(reports_.reports,
              std::vector<Report>({{3, "rtslib: ERROR async message seq mismatch: (7 != 10)\n"}}));
    push(raw_message(24, 11));
    EXPECT_EQ(rtslib_msg_read(h_, dest_.data(), nullptr), 0);
    EXPECT_EQ(h_->seq, 12u);
}

TEST_F(MessageIo, LongReadAllocatesExactlyTheMessage)
{
    push(raw_message(20000, 1));
    void *msg = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(rtslib_long_msg_read(h_, &msg, &len), 0);
    EXPECT_EQ(len, 20000u);
    EXPECT_EQ(std::memcmp(msg, raw_message(20000, 1).data(), 20000), 0);
    rtslib_msg_free(h_, msg);

    push(raw_message(64, 3));  // mismatch is returned with the message
    ASSERT_EQ(rtslib_long_msg_read(h_, &msg, nullptr), RTSLIB_SEQ_MISMATCH);
    EXPECT_NE(msg, nullptr);
    rtslib_msg_free(h_, msg);
}

TEST_F(MessageIo, LongReadRefusesMalformedMessagesAndMovesOn)
{
    struct Case {
        std::vector<uint8_t> msg;
        int rc;
        std::string report;
    };
    const std::vector<Case> cases = {
        {raw_message(48, 1, 2, 1, 64), EIO,
         "rtslib: FATAL ERROR msg read too short got (48), expected 64\n"},
        {raw_message(10, 1), EIO, "rtslib: FATAL ERROR msg read too small for header: 10\n"},
        {raw_message(48, 1, 2, 1, 20), EIO, ""},  // claims 20: read is cut to 20, then too small
        // Neither may stay at the head of the queue for ever.
        {raw_message(48, 1, 2, 1, 0), EIO, "rtslib: FATAL ERROR msg read too small for header: 0\n"},
        {{}, EIO, "rtslib: FATAL ERROR msg read too small for header: 0\n"},
        {envelope(RTS_IDL_MAGIC_TLV, 0xfffffff0u, 40), EIO,
         "rtslib: FATAL ERROR msg read too large for rtsock message: 2147483647\n"},
    };
    for (const auto &c : cases) {
        reports_.reports.clear();
        push(c.msg);
        push(raw_message(24, 1));  // must still be readable afterwards
        void *msg = &reports_;
        uint32_t len = 1;
        EXPECT_EQ(rtslib_long_msg_read(h_, &msg, &len), c.rc);
        EXPECT_EQ(msg, nullptr);
        EXPECT_EQ(len, 0u);
        ASSERT_FALSE(reports_.reports.empty());
        if (!c.report.empty()) {
            EXPECT_EQ(reports_.reports.back().text, c.report);
        }
        ASSERT_EQ(rtslib_long_msg_read(h_, &msg, &len), 0);
        EXPECT_EQ(len, 24u);
        rtslib_msg_free(h_, msg);
    }
}

TEST_F(MessageIo, NullArgumentsAreRefused)
{
    void *msg = nullptr;
    EXPECT_EQ(rtslib_msg_read(nullptr, dest_.data(), nullptr), EINVAL);
    EXPECT_EQ(rtslib_msg_read(h_, nullptr, nullptr), EINVAL);
    EXPECT_EQ(rtslib_long_msg_read(nullptr, &msg, nullptr), EINVAL);
    EXPECT_EQ(rtslib_long_msg_read(h_, nullptr, nullptr), EINVAL);
    EXPECT_EQ(rtslib_write(nullptr, "x", 1), EINVAL);
    EXPECT_EQ(rtslib_write(h_, nullptr, 4), EINVAL);
}

TEST_F(MessageIo, WritesReachTheKernelBracketedWhenAsked)
{
    auto m = raw_message(40, 77, RTS_MSG_ROUTE, RTS_OP_ADD);
    ASSERT_EQ(rtslib_write(h_, m.data(), static_cast<uint32_t>(m.size())), 0);
    h_->kbt = 1;
    m = raw_message(28, 78, RTS_MSG_RTTABLE, RTS_OP_GET);
    ASSERT_EQ(rtslib_write(h_, m.data(), static_cast<uint32_t>(m.size())), 0);
    h_->kbt = 0;
    ASSERT_TRUE(emu_.wait_for_output("seq 78")) << emu_.output();
    const std::string out = emu_.output();
    const std::string pid = std::to_string(::getpid());
    const auto first = out.find("message type 2 (route) op 1, 40 bytes, seq 77");
    const auto on = out.find("sysctl debug.enable_kbt = {" + pid + ", -1, 1}");
    const auto second = out.find("message type 1 (rttable) op 4, 28 bytes, seq 78");
    const auto off = out.find("sysctl debug.enable_kbt = {" + pid + ", -1, 0}");
    ASSERT_NE(first, std::string::npos) << out;
    ASSERT_NE(on, std::string::npos) << out;
    ASSERT_NE(second, std::string::npos) << out;
    ASSERT_NE(off, std::string::npos) << out;
    EXPECT_LT(first, on);
    EXPECT_LT(on, second);
    EXPECT_LT(second, off);
    EXPECT_TRUE(reports_.reports.empty());
}

TEST_F(MessageIo, WritingToAVanishedKernelFailsWithoutSignals)
{
    ASSERT_EQ(emu_.stop(), 0);
    auto m = raw_message(24, 1);
    const int rc = rtslib_write(h_, m.data(), 24);
    EXPECT_TRUE(rc == EPIPE || rc == ECONNRESET || rc == ENOTCONN) << rc;
}

// An encoded route-table message, as a kernel answer would carry it.
std::vector<uint8_t> encoded_table(rtslib_cookie *h, uint16_t tid, bool tlv, uint32_t name_len = 0)
{
    rtb_msg_t rec{};
    rtb_msg_map_t map{};
    std::vector<uint8_t> name(name_len, 'x');
    rec.hdr.version = 'b';
    rec.hdr.type = RTS_MSG_RTTABLE;
    rec.tid = tid;
    rec.name = name.empty() ? nullptr : name.data();
    rec.name_len = name_len;
    map.bits = (1u << RTB_MSG_BIT_HDR) | (1u << RTB_MSG_BIT_TID) | (1u << RTB_MSG_BIT_NAME);
    map.hdr.bits = (1u << RTS_HDR_BIT_TYPE) | (1u << RTS_HDR_BIT_VERSION);
    void *buf = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(rtslib_msg_idl_encode(h, &rec, tlv ? &map : nullptr, &buf, &len), 0);
    std::vector<uint8_t> out(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len);
    rtslib_msg_free(h, buf);
    return out;
}

TEST_F(MessageIo, IdlReadsDecodeEnvelopesAndRefuseTheRest)
{
    void *rec = nullptr;
    void *map = nullptr;
    push(encoded_table(h_, 7, true));
    ASSERT_EQ(rtslib_msg_read_idl(h_, &rec, &map), 0);
    ASSERT_NE(rec, nullptr);
    EXPECT_NE(map, nullptr);
    EXPECT_EQ(static_cast<rtb_msg_t *>(rec)->tid, 7);
    rtslib_msg_idl_release(h_, rec);

    push(encoded_table(h_, 8, false));  // IDR: no map
    map = &map;
    ASSERT_EQ(rtslib_long_msg_read_idl(h_, &rec, &map), 0);
    EXPECT_EQ(static_cast<rtb_msg_t *>(rec)->tid, 8);
    rtslib_msg_idl_release(h_, rec);

    // A raw message is not an envelope: refused without a report.
    push(raw_message(32, 1));
    EXPECT_EQ(rtslib_msg_read_idl(h_, &rec, nullptr), EOPNOTSUPP);
    EXPECT_EQ(rec, nullptr);
    // A raw message out of sequence is returned as such, undecoded.
    push(raw_message(32, 5));
    EXPECT_EQ(rtslib_long_msg_read_idl(h_, &rec, nullptr), RTSLIB_SEQ_MISMATCH);
    EXPECT_EQ(rec, nullptr);
    reports_.reports.clear();

    // A TLV body whose last item is followed by 4 stray bytes is garbled.
    const std::vector<uint8_t> garbled = {0x11, 0x50, 0, 0, 12, 0, 0, 0, RTS_MSG_RTTABLE, 0, 0, 0,
                                          99,   0,    0, 0, 0,  0, 0, 0, 0, 0, 0, 0};
    push(garbled);
    EXPECT_EQ(rtslib_msg_read_idl(h_, &rec, nullptr), EINVAL);
    EXPECT_EQ(reports_.reports,
              std::vector<Report>({{3, "rtslib: ERROR IDL TLV Decode Error -1(Garbled Message)"}}));
    EXPECT_EQ(rtslib_msg_read_idl(h_, nullptr, nullptr), EINVAL);
}

TEST_F(MessageIo, LongIdlReadTakesMessagesBeyondTheBoundedSize)
{
    const auto big = encoded_table(h_, 9, false, 20000);
    ASSERT_GT(big.size(), static_cast<size_t>(RTS_MSG_MAX));
    push(big);
    void *rec = nullptr;
    ASSERT_EQ(rtslib_long_msg_read_idl(h_, &rec, nullptr), 0);
    EXPECT_EQ(static_cast<rtb_msg_t *>(rec)->name_len, 20000u);
    rtslib_msg_idl_release(h_, rec);

    std::vector<uint8_t> arena(64 * 1024);
    push(big);
    ASSERT_EQ(rtslib_long_msg_read_idl_pa(h_, &rec, nullptr, arena.data(),
                                          static_cast<uint32_t>(arena.size())),
              0);
    EXPECT_EQ(static_cast<rtb_msg_t *>(rec)->tid, 9);
    push(big);  // too big for the bounded read
    EXPECT_EQ(rtslib_msg_read_idl(h_, &rec, nullptr), EIO);
}


// A route whose `count` source addresses (two bytes each) make a short
// message that decodes into several times its size.
std::vector<uint8_t> route_with_sources(rtslib_cookie *h, uint32_t count)
{
    std::vector<uint8_t> bytes(2 * count, 7);
    std::vector<idl_sockaddr_gen_t> addrs(count);
    std::vector<idl_sockaddr_gen_t *> slots(count);
    for (uint32_t i = 0; i < count; ++i) {
        addrs[i].sa_len = 2;
        addrs[i].sa_family = TARN_AF_INET;
        addrs[i].sa_addr = &bytes[2 * i];
        addrs[i].sa_addr_len = 2;
        slots[i] = &addrs[i];
    }
    rt_msg_t rec{};
    rec.hdr.version = RTS_ROUTE_VERSION;
    rec.hdr.type = RTS_MSG_ROUTE;
    rec.nhidx = 77;
    rec.source = slots.data();
    rec.source_count = count;
    void *buf = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(rtslib_msg_idl_encode(h, &rec, nullptr, &buf, &len), 0);
    std::vector<uint8_t> out(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len);
    rtslib_msg_free(h, buf);
    return out;
}

// Reads and the dispatcher decode into a block they do not clear first and
// start over the plain way when that fails; what the caller sees, reports
// included, must be what the plain decoder gives.
TEST_F(MessageIo, DecodesIntoNewBlocksMatchThePlainDecoder)
{
    // As many sources as fit a message the bounded read takes.
    const size_t base = route_with_sources(h_, 0).size();
    const size_t each = route_with_sources(h_, 1).size() - base;
    const auto count = static_cast<uint32_t>((RTS_MSG_MAX - base) / each);
    const auto msg = route_with_sources(h_, count);
    ASSERT_LE(msg.size(), static_cast<size_t>(RTS_MSG_MAX));
    std::vector<uint8_t> arena(RTS_MSG_MAX);
    void *rec = nullptr;
    if (rtslib_msg_idl_decode_pa(h_, msg.data(), static_cast<uint32_t>(msg.size()), &rec, nullptr,
                                 arena.data(), RTS_MSG_MAX) != ENOMEM)
        GTEST_SKIP() << "with this build's record sizes the message fits its first arena";
    reports_.reports.clear();
    ASSERT_EQ(rtslib_msg_idl_decode(h_, msg.data(), static_cast<uint32_t>(msg.size()), &rec,
                                    nullptr),
              0);
    const std::vector<Report> plain = reports_.reports;
    ASSERT_FALSE(plain.empty());
    rtslib_msg_idl_release(h_, rec);

    using Read = int (*)(rtslib_cookie *, void **, void **);
    for (Read read : {Read{rtslib_msg_read_idl}, Read{rtslib_long_msg_read_idl}}) {
        reports_.reports.clear();
        push(msg);
        rec = nullptr;
        ASSERT_EQ(read(h_, &rec, nullptr), 0);
        EXPECT_EQ(reports_.reports, plain);
        const auto *rt = static_cast<const rt_msg_t *>(rec);
        EXPECT_EQ(rt->nhidx, 77u);
        ASSERT_EQ(rt->source_count, count);
        EXPECT_EQ(rt->source[count - 1]->sa_addr_len, 2u);
        EXPECT_EQ(rt->source[count - 1]->sa_addr[1], 7);
        rtslib_msg_idl_release(h_, rec);
    }
}

// The fixed-layout encoding goes into a block that is not cleared first; every
// byte written must still be the encoder's. The block the write takes is
// likely the one just freed here, full of a pattern (under the address
// sanitizer new blocks are filled anyway).
TEST_F(MessageIo, IdlWritesSendExactlyTheEncoding)
{
    int sv[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    const int kernel_fd = h_->fd;
    h_->fd = sv[0];
    uint8_t prefix[4] = {10, 1, 2, 0};
    uint8_t source[4] = {192, 0, 2, 9};
    idl_sockaddr_gen_t sa{};
    sa.sa_len = 4;
    sa.sa_family = TARN_AF_INET;
    sa.sa_addr = source;
    sa.sa_addr_len = 4;
    idl_sockaddr_gen_t *slot = &sa;
    rt_msg_t rt{};
    rt.hdr.version = RTS_ROUTE_VERSION;
    rt.hdr.type = RTS_MSG_ROUTE;
    rt.hdr.op = RTS_OP_ADD;
    rt.af = TARN_AF_INET;
    rt.plen = 23;
    rt.prefix = prefix;
    rt.prefix_len = 3;  // a variable part whose padding the encoder fills
    rt.source = &slot;
    rt.source_count = 1;
    rt.nhidx = 5;
    std::vector<uint8_t> name(13, 'n');
    rtb_msg_t rtb{};
    rtb.hdr.version = 'b';
    rtb.hdr.type = RTS_MSG_RTTABLE;
    rtb.name = name.data();
    rtb.name_len = 13;
    for (const void *record : {static_cast<const void *>(&rt), static_cast<const void *>(&rtb)}) {
        void *expected = nullptr;
        uint32_t expected_len = 0;
        ASSERT_EQ(rtslib_msg_idl_encode(h_, record, nullptr, &expected, &expected_len), 0);
        void *dirty = std::malloc(RTS_MSG_MAX);
        std::memset(dirty, 0xa5, RTS_MSG_MAX);
        std::free(dirty);
        rtslib_msglen = 0;
        ASSERT_EQ(rtslib_msg_write_idl(h_, record, nullptr), 0);
        EXPECT_EQ(rtslib_msglen, expected_len);
        std::vector<uint8_t> got(RTS_MSG_MAX);
        const ssize_t n = ::recv(sv[1], got.data(), got.size(), 0);
        ASSERT_EQ(n, static_cast<ssize_t>(expected_len));
        EXPECT_EQ(std::memcmp(got.data(), expected, expected_len), 0);
        rtslib_msg_free(h_, expected);
    }
    h_->fd = kernel_fd;
    ::close(sv[0]);
    ::close(sv[1]);
}

}  // namespace
