// The rts_msg envelope and the rtslib_msg_idl_* entry points, with the exact
// report texts, on a handle without a kernel.
#include <cerrno>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/idl.h>

#include "idl_test_support.h"
#include "report_collector.h"

namespace tarn::test {
namespace {

using Bytes = std::vector<uint8_t>;

void put32(Bytes &b, uint32_t v)
{
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

uint32_t get32(const uint8_t *p)
{
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

Bytes envelope(uint32_t magic, uint32_t body_len, uint32_t type, const Bytes &body = {})
{
    Bytes b;
    put32(b, magic);
    put32(b, body_len);
    put32(b, type);
    b.insert(b.end(), body.begin(), body.end());
    return b;
}

Bytes item(uint32_t tag, const Bytes &value)
{
    Bytes b;
    put32(b, tag);
    put32(b, static_cast<uint32_t>(value.size()));
    b.insert(b.end(), value.begin(), value.end());
    while (b.size() % 4) b.push_back(0);
    return b;
}

class Envelope : public testing::Test {
protected:
    void SetUp() override
    {
        handle = rtslib_open_nc();
        ASSERT_NE(handle, nullptr);
        rtslib_lib_error_register(handle, &reports, &ReportCollector::sink);
    }
    void TearDown() override { rtslib_close(handle); }

    std::vector<Report> expect_error(const char *text) { return {{RTSLIB_LOG_ERROR, std::string("rtslib: ERROR ") + text}}; }

    rtslib_cookie *handle = nullptr;
    ReportCollector reports;
};

rtb_msg_t table_message()
{
    rtb_msg_t m{};
    m.hdr.version = 98;
    m.hdr.type = RTS_MSG_RTTABLE;
    m.hdr.op = RTS_OP_ADD;
    m.hdr.seq = 7;
    m.tid = 5;
    m.af = TARN_AF_INET;
    return m;
}

TEST_F(Envelope, TlvHeaderAndBody)
{
    rtb_msg_t m = table_message();
    rtb_msg_map_t map{};
    map.bits = (1u << RTB_MSG_BIT_HDR) | (1u << RTB_MSG_BIT_TID);
    map.hdr.bits = 1u << RTS_HDR_BIT_SEQ;
    rts_msg_t msg{RTS_MSG_RTTABLE, &m};
    rts_msg_map_t mmap{&map};
    Bytes body = Bytes(item(1, item(7, {7, 0, 0, 0})));
    Bytes tid = item(2, {5, 0});
    body.insert(body.end(), tid.begin(), tid.end());
    Bytes want = envelope(RTS_IDL_MAGIC_TLV, static_cast<uint32_t>(body.size()), 1, body);
    EXPECT_EQ(tlv_encode_rts_msg_0(&msg, &mmap, nullptr, 0), want.size());
    EXPECT_EQ(tlv_encode_rts_msg_0(&msg, &mmap, nullptr, 11), want.size());
    Bytes out(want.size());
    ASSERT_EQ(tlv_encode_rts_msg_0(&msg, &mmap, out.data(), static_cast<uint32_t>(out.size())), want.size());
    EXPECT_EQ(out, want);
    // Too small for the body: the header still carries the body's full size.
    Bytes small(20, 0xEE);
    EXPECT_EQ(tlv_encode_rts_msg_0(&msg, &mmap, small.data(), 20), want.size());
    EXPECT_EQ(get32(small.data() + 4), body.size());
}

TEST_F(Envelope, EmptyBodies)
{
    rtb_msg_t m = table_message();
    for (uint32_t type : {3u, 102u, 200u}) {
        rts_msg_t msg{type, &m};
        Bytes out(12);
        ASSERT_EQ(idr_encode_rts_msg_0(&msg, out.data(), 12), 12u);
        EXPECT_EQ(out, envelope(RTS_IDL_MAGIC_IDR, 0, type));
    }
    rts_msg_t none{RTS_MSG_RTTABLE, nullptr};
    EXPECT_EQ(idr_encode_rts_msg_0(&none, nullptr, 0), 12u);
}

TEST_F(Envelope, PeekMagicAndLength)
{
    Bytes e = envelope(RTS_IDL_MAGIC_IDR, 40, 2);
    uint32_t v = 0;
    EXPECT_EQ(rtslib_idl_peek_magic(&v, e.data(), 3), nullptr);
    EXPECT_EQ(v, 0u);
    EXPECT_EQ(rtslib_idl_peek_magic(&v, e.data(), 4), &v);
    EXPECT_EQ(v, RTS_IDL_MAGIC_IDR);
    EXPECT_EQ(rtslib_idl_peek_length(&v, e.data(), 7), nullptr);
    EXPECT_EQ(rtslib_idl_peek_length(&v, e.data(), 8), &v);
    EXPECT_EQ(v, 52u);
}

TEST_F(Envelope, ArenaAllocatorRoundsAndRefuses)
{
    alignas(8) uint8_t block[16];
    rtslib_idl_arena a{block, 16, 0};
    EXPECT_EQ(rtslib_idl_arena_alloc(5, &a), block);
    EXPECT_EQ(a.used, 8u);
    EXPECT_EQ(rtslib_idl_arena_alloc(9, &a), nullptr);
    EXPECT_EQ(a.used, 8u);
    EXPECT_EQ(rtslib_idl_arena_alloc(8, &a), block + 8);
    EXPECT_EQ(a.used, 16u);
}

// A failed magic check must still leave the map slot empty for release.
TEST_F(Envelope, BadMagicLeavesNothingToRelease)
{
    Bytes e = envelope(0x01005011, 0, 0x45);
    CountingAllocator a;
    rts_msg_t msg;
    rts_msg_map_t map;
    std::memset(&map, 0xAB, sizeof map);
    EXPECT_EQ(tlv_decode_rts_msg_0(&msg, &map, e.data(), 12, &CountingAllocator::alloc, &a), -3);
    EXPECT_EQ(map.member_map, nullptr);
    tlv_release_rts_msg_0(&msg, &map, &CountingAllocator::free, &a);
    EXPECT_EQ(a.calls, 0u);
}

TEST_F(Envelope, ResultNames)
{
    const char *names[] = {"Invalid Buffer Size", "Garbled Message", "Allocation Failure",
                           "Invalid Magic", "Invalid Choice", "HOMOGENEOUS"};
    for (int i = 0; i < 6; ++i) EXPECT_STREQ(rtslib_idl_result_name(-i), names[i]);
    EXPECT_STREQ(rtslib_idl_result_name(-6), "Unknown");
    EXPECT_STREQ(rtslib_idl_result_name(3), "Unknown");
}

TEST_F(Envelope, EncodeDecodeBothEncodings)
{
    rtb_msg_t m = table_message();
    uint8_t name[] = "inet.0";
    m.name = name;
    m.name_len = sizeof name;
    rtb_msg_map_t map{};
    map.bits = (1u << RTB_MSG_BIT_HDR) | (1u << RTB_MSG_BIT_NAME) | (1u << RTB_MSG_BIT_TID);
    map.hdr.bits = (1u << RTS_HDR_BIT_TYPE) | (1u << RTS_HDR_BIT_SEQ);
    for (bool tlv : {true, false}) {
        void *buf = nullptr;
        uint32_t len = 0;
        ASSERT_EQ(rtslib_msg_idl_encode(handle, &m, tlv ? &map : nullptr, &buf, &len), 0);
        EXPECT_EQ(rtslib_msglen, len);
        EXPECT_EQ(get32(static_cast<uint8_t *>(buf)), tlv ? RTS_IDL_MAGIC_TLV : RTS_IDL_MAGIC_IDR);
        void *out = nullptr, *out_map = nullptr;
        ASSERT_EQ(rtslib_msg_idl_decode(handle, buf, len, &out, &out_map), 0);
        auto *got = static_cast<rtb_msg_t *>(out);
        EXPECT_EQ(got->hdr.msglen, len);  // the wire length
        EXPECT_EQ(got->hdr.seq, 7u);
        EXPECT_EQ(got->tid, 5u);
        ASSERT_EQ(got->name_len, sizeof name);
        EXPECT_STREQ(reinterpret_cast<char *>(got->name), "inet.0");
        if (tlv) {
            ASSERT_NE(out_map, nullptr);
            EXPECT_EQ(static_cast<rtb_msg_map_t *>(out_map)->bits, map.bits);
            EXPECT_EQ(got->af, 0u);  // not in the map, not sent
        } else {
            EXPECT_EQ(got->af, TARN_AF_INET);
        }
        rtslib_msg_idl_release(handle, out);
        rtslib_msg_free(handle, buf);
    }
    EXPECT_TRUE(reports.reports.empty());
}

// The envelope's type chose the layout; a member header naming another type
// (hostile input) must not survive, or readers would take the record for a
// different, possibly larger one.
TEST_F(Envelope, MemberHeaderTakesTheEnvelopeType)
{
    rtb_msg_t m = table_message();
    m.hdr.type = RTS_MSG_IFADDR;  // encoded under the table's envelope type below
    Bytes buf(1024);
    uint32_t len = static_cast<uint32_t>(buf.size());
    rts_msg_t msg{};
    msg.type = RTS_MSG_RTTABLE;
    msg.member = &m;
    len = idr_encode_rts_msg_0(&msg, buf.data(), len);
    ASSERT_LE(len, buf.size());
    ASSERT_EQ(get32(buf.data() + 8), uint32_t{RTS_MSG_RTTABLE});
    void *out = nullptr;
    ASSERT_EQ(rtslib_msg_idl_decode(handle, buf.data(), len, &out, nullptr), 0);
    EXPECT_EQ(static_cast<rtb_msg_t *>(out)->hdr.type, RTS_MSG_RTTABLE);
    EXPECT_EQ(static_cast<rtb_msg_t *>(out)->hdr.msg_magic, uint32_t{RTS_IDL_MAGIC_IDR});
    EXPECT_EQ(static_cast<rtb_msg_t *>(out)->tid, 5u);
    rtslib_msg_idl_release(handle, out);
}

TEST_F(Envelope, EncodeGrowsToTheExactSize)
{
    rt_msg_t r{};
    r.hdr.type = RTS_MSG_ROUTE;
    uint32_t base = idr_encode_rt_msg_0(&r, nullptr, 0) + 12;
    uint32_t want = 20000;
    std::vector<uint8_t> prefix(want - base - 4 + 1);  // count word is already in base; pad to 4
    prefix.resize((want - base) & ~3u);
    r.prefix = prefix.data();
    r.prefix_len = static_cast<uint32_t>(prefix.size());
    void *buf = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(rtslib_msg_idl_encode(handle, &r, nullptr, &buf, &len), 0);
    EXPECT_EQ(len, want);
    EXPECT_EQ(rtslib_msglen, want);
    rtslib_msg_free(handle, buf);
}

// Without a handle no buffer can be had; the reports go to the default sink.
TEST(EnvelopeNoHandle, AllocationFailuresAreReported)
{
    rtb_msg_t m = table_message();
    void *buf = reinterpret_cast<void *>(1);
    uint32_t len = 5;
    testing::internal::CaptureStderr();
    EXPECT_EQ(rtslib_msg_idl_encode(nullptr, &m, nullptr, &buf, &len), ENOMEM);
    EXPECT_EQ(buf, nullptr);
    EXPECT_EQ(len, 0u);
    Bytes e = envelope(RTS_IDL_MAGIC_IDR, 0, 3);
    void *out = nullptr;
    EXPECT_EQ(rtslib_msg_idl_decode(nullptr, e.data(), 12, &out, nullptr), ENOMEM);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "rtslib: ERROR Allocation Failure for (16384) bytes\n"
              "rtslib: ERROR Allocation Failure\n");
}

TEST_F(Envelope, EncodePreallocated)
{
    rtb_msg_t m = table_message();
    uint32_t len = 0;
    uint8_t buf[512];
    EXPECT_EQ(rtslib_msg_idl_encode_pa(handle, &m, buf, &len), EINVAL);
    EXPECT_EQ(rtslib_msg_idl_encode_pa(handle, &m, nullptr, &len), EINVAL);
    EXPECT_EQ(reports.reports, (std::vector<Report>{{3, "rtslib: ERROR Invalid parameters"}, {3, "rtslib: ERROR Invalid parameters"}}));
    len = 20;
    EXPECT_EQ(rtslib_msg_idl_encode_pa(handle, &m, buf, &len), ENOMEM);
    EXPECT_EQ(len, 20u);
    len = sizeof buf;
    EXPECT_EQ(rtslib_msg_idl_encode_pa(handle, &m, buf, &len), 0);
    rts_msg_t msg{RTS_MSG_RTTABLE, &m};
    EXPECT_EQ(len, idr_encode_rts_msg_0(&msg, nullptr, 0));
}

struct DecodeCase {
    const char *name;
    Bytes in;
    int result;
    const char *report;  // nullptr: none
};

TEST_F(Envelope, DecodeFailures)
{
    Bytes stray = item(1, item(2, {98}));
    stray.insert(stray.end(), {0, 0, 0, 0});
    Bytes neg8 = envelope(RTS_IDL_MAGIC_TLV, 0xFFFFFFF8u, 0);
    DecodeCase cases[] = {
        {"three bytes", {0x11, 0x50, 0}, EOPNOTSUPP, "Failed to peek magic"},
        {"six bytes", {0x11, 0x50, 0, 0, 0, 0}, EOPNOTSUPP, "Failed to peek message"},
        {"raw message", Bytes(24, 0), EOPNOTSUPP, nullptr},
        {"unknown magic", envelope(0x5033, 0, 0), EOPNOTSUPP, nullptr},
        {"body past the end", envelope(RTS_IDL_MAGIC_TLV, 8, 0, {1, 0, 0, 0}), EINVAL,
         "IDL TLV Decode Error 0(Invalid Buffer Size)"},
        {"body length -8", neg8, EINVAL, "IDL TLV Decode Error -1(Garbled Message)"},
        {"four stray bytes", envelope(RTS_IDL_MAGIC_TLV, static_cast<uint32_t>(stray.size()), 0, stray),
         EINVAL, "IDL TLV Decode Error -1(Garbled Message)"},
        {"idr member cut", envelope(RTS_IDL_MAGIC_IDR, 4, 0, {0, 0, 0, 0}), EINVAL,
         "IDL IDR Decode Error -1(Garbled Message)"},
    };
    for (const DecodeCase &c : cases) {
        reports.reports.clear();
        void *out = reinterpret_cast<void *>(1);
        EXPECT_EQ(rtslib_msg_idl_decode(handle, c.in.data(), static_cast<uint32_t>(c.in.size()), &out, nullptr),
                  c.result)
            << c.name;
        if (c.report)
            EXPECT_EQ(reports.reports, expect_error(c.report)) << c.name;
        else
            EXPECT_TRUE(reports.reports.empty()) << c.name;
    }
}

TEST_F(Envelope, UnknownTypeDecodesWithoutMember)
{
    Bytes in = envelope(RTS_IDL_MAGIC_TLV, 4, 200, {9, 9, 9, 9});
    void *out = reinterpret_cast<void *>(1);
    EXPECT_EQ(rtslib_msg_idl_decode(handle, in.data(), 16, &out, nullptr), 0);
    EXPECT_EQ(out, nullptr);
    rts_msg_t msg;
    EXPECT_EQ(tlv_decode_rts_msg_0(&msg, nullptr, in.data(), 16, nullptr, nullptr), 16);
    EXPECT_EQ(msg.type, 200u);
    EXPECT_EQ(msg.member, nullptr);
    // Known types without a member take no allocation either.
    Bytes nomember = envelope(RTS_IDL_MAGIC_IDR, 0, 3);
    EXPECT_EQ(idr_decode_rts_msg_0(&msg, nomember.data(), 12, nullptr, nullptr), 12);
    EXPECT_EQ(msg.type, 3u);
}

TEST_F(Envelope, DecoderCodes)
{
    rts_msg_t msg;
    Bytes e = envelope(RTS_IDL_MAGIC_TLV, 0, 0);
    EXPECT_EQ(tlv_decode_rts_msg_0(&msg, nullptr, e.data(), 11, nullptr, nullptr), 0);
    EXPECT_EQ(msg.type, 0xFFFFFFFFu);
    EXPECT_EQ(idr_decode_rts_msg_0(&msg, e.data(), 12, nullptr, nullptr), -3);
    EXPECT_EQ(tlv_decode_rts_msg_0(&msg, nullptr, e.data(), 12, nullptr, nullptr), -2);
    Bytes minus12 = envelope(RTS_IDL_MAGIC_TLV, 0xFFFFFFF4u, 0);
    EXPECT_EQ(tlv_decode_rts_msg_0(&msg, nullptr, minus12.data(), 12, nullptr, nullptr), -1);
    Bytes minus13 = envelope(RTS_IDL_MAGIC_TLV, 0xFFFFFFF3u, 0);
    EXPECT_EQ(tlv_decode_rts_msg_0(&msg, nullptr, minus13.data(), 12, nullptr, nullptr), 0);
}

TEST_F(Envelope, ArenaTooSmallIsOutOfMemory)
{
    rtb_msg_t m = table_message();
    void *buf = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(rtslib_msg_idl_encode(handle, &m, nullptr, &buf, &len), 0);
    alignas(8) uint8_t arena[64];
    void *out = nullptr;
    EXPECT_EQ(rtslib_msg_idl_decode_pa(handle, buf, len, &out, nullptr, arena, sizeof arena), ENOMEM);
    EXPECT_EQ(reports.reports, expect_error("IDL IDR Decode Error -2(Allocation Failure)"));
    EXPECT_EQ(rtslib_msg_idl_decode_pa(handle, buf, 3, &out, nullptr, arena, sizeof arena), EINVAL);
    rtslib_msg_free(handle, buf);
}

// A message above 16384 bytes gets an arena of its size + 1024, grown by 1024
// bytes after every allocation failure until the decode fits.
TEST_F(Envelope, LargeDecodeGrowsArenaInSteps)
{
    std::vector<rts_msg_info_t> infos(2100);
    std::vector<rts_msg_info_t *> ptrs;
    std::vector<rts_msg_info_map_t> maps(infos.size());
    for (auto &i : infos) ptrs.push_back(&i);
    rts_base_t m{};
    m.hdr.type = RTS_MSG_NOP;
    m.hdr.info = ptrs.data();
    m.hdr.info_count = static_cast<uint32_t>(ptrs.size());
    rts_base_map_t map{};
    map.bits = 1;
    map.hdr.bits = 1u << RTS_HDR_BIT_INFO;
    map.hdr.info = maps.data();
    void *buf = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(rtslib_msg_idl_encode(handle, &m, &map, &buf, &len), 0);
    ASSERT_GT(len, 16384u);
    // How much the decode needs, measured with an arena large enough.
    std::vector<uint8_t> big(8u << 20);
    rtslib_idl_arena probe{big.data(), static_cast<uint32_t>(big.size()), 0};
    rts_msg_t msg;
    rts_msg_map_t mm;
    ASSERT_GT(tlv_decode_rts_msg_0(&msg, &mm, buf, len, &rtslib_idl_arena_alloc, &probe), 0);
    uint32_t need = probe.used;
    uint32_t size = len + 1024;
    std::size_t failures = 0;
    for (; size < need; size += 1024) ++failures;
    ASSERT_GT(failures, 1u);
    void *out = nullptr, *out_map = nullptr;
    ASSERT_EQ(rtslib_msg_idl_decode(handle, buf, len, &out, &out_map), 0);
    EXPECT_EQ(reports.reports.size(), failures);
    for (const Report &r : reports.reports)
        EXPECT_EQ(r.text, "rtslib: ERROR IDL TLV Decode Error -2(Allocation Failure)");
    EXPECT_EQ(static_cast<rts_base_t *>(out)->hdr.info_count, infos.size());
    rtslib_msg_idl_release(handle, out);
    rtslib_msg_free(handle, buf);
}

// Generic allocators: the envelope's release gives back member, member map
// and everything below them.
TEST_F(Envelope, ReleaseWithGenericAllocator)
{
    rtb_msg_t m = table_message();
    uint8_t name[] = "t";
    m.name = name;
    m.name_len = 2;
    rts_msg_t msg{RTS_MSG_RTTABLE, &m};
    rts_msg_map_t mm{nullptr};
    Bytes out(tlv_encode_rts_msg_0(&msg, nullptr, nullptr, 0));
    tlv_encode_rts_msg_0(&msg, nullptr, out.data(), static_cast<uint32_t>(out.size()));
    for (uint64_t fail = 0; fail <= 3; ++fail) {
        CountingAllocator a;
        a.fail_at = fail;
        rts_msg_t got;
        int32_t r = tlv_decode_rts_msg_0(&got, &mm, out.data(), static_cast<uint32_t>(out.size()),
                                         &CountingAllocator::alloc, &a);
        EXPECT_EQ(r, fail ? -2 : static_cast<int32_t>(out.size())) << fail;
        tlv_release_rts_msg_0(&got, &mm, &CountingAllocator::free, &a);
        EXPECT_TRUE(a.live.empty()) << fail;
    }
}

}  // namespace
}  // namespace tarn::test
