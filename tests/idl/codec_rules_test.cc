// The wire rules of both encodings, checked byte for byte on small records
// and on hand-made inputs that exercise every decoder branch.
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/idl.h>

#include "idl_test_support.h"

namespace tarn::test {
namespace {

using Bytes = std::vector<uint8_t>;

void put32(Bytes &b, uint32_t v)
{
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

// An item as the rules describe it: tag, length, value, zeros to 4.
Bytes item(uint32_t tag, const Bytes &value, uint32_t claimed_len = UINT32_MAX)
{
    Bytes b;
    put32(b, tag);
    put32(b, claimed_len == UINT32_MAX ? static_cast<uint32_t>(value.size()) : claimed_len);
    b.insert(b.end(), value.begin(), value.end());
    while (b.size() % 4) b.push_back(0);
    return b;
}

Bytes u32v(uint32_t v)
{
    Bytes b;
    put32(b, v);
    return b;
}

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

template <class F>
Bytes encode_all(F enc)
{
    Bytes b(enc(nullptr, 0));
    EXPECT_EQ(enc(b.data(), static_cast<uint32_t>(b.size())), b.size());
    return b;
}

// --- TLV encoding ----------------------------------------------------------

TEST(TlvEncode, EightBitFieldIsTwelveBytesWithPadding)
{
    af_fixup_t r{0x07};
    Bytes b = encode_all([&](void *o, uint32_t l) { return tlv_encode_af_fixup_0(&r, nullptr, o, l); });
    EXPECT_EQ(b, (Bytes{1, 0, 0, 0, 1, 0, 0, 0, 0x07, 0, 0, 0}));
}

TEST(TlvEncode, FiveByteStringIsSixteenBytes)
{
    uint8_t s[5] = {'a', 'b', 'c', 'd', 'e'};
    rt_tlv_ifaddr_t r{s, 5};
    Bytes b = encode_all([&](void *o, uint32_t l) { return tlv_encode_rt_tlv_ifaddr_0(&r, nullptr, o, l); });
    EXPECT_EQ(b, (Bytes{0, 0, 0, 0, 5, 0, 0, 0, 'a', 'b', 'c', 'd', 'e', 0, 0, 0}));
}

TEST(TlvEncode, EmptyStringIsHeaderOnly)
{
    rt_tlv_ifaddr_t r{nullptr, 0};
    Bytes b = encode_all([&](void *o, uint32_t l) { return tlv_encode_rt_tlv_ifaddr_0(&r, nullptr, o, l); });
    EXPECT_EQ(b, (Bytes{0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(TlvEncode, ThirtyTwoBitFieldAndTagsFromZero)
{
    rt_tlv_oam_session_id_t oam{0x11223344};
    EXPECT_EQ(encode_all([&](void *o, uint32_t l) { return tlv_encode_rt_tlv_oam_session_id_0(&oam, nullptr, o, l); }),
              item(1, {0x44, 0x33, 0x22, 0x11}));
    rt_tlv_arpnh_vrrp_info_t arp{9, 3};
    EXPECT_EQ(encode_all([&](void *o, uint32_t l) { return tlv_encode_rt_tlv_arpnh_vrrp_info_0(&arp, nullptr, o, l); }),
              cat({item(0, {9}), item(1, {3})}));
}

TEST(TlvEncode, MapSelectsFieldsAndEmptyMapGivesNothing)
{
    rt_tlv_arpnh_vrrp_info_t arp{9, 3};
    rt_tlv_arpnh_vrrp_info_map_t m{1u << RT_TLV_ARPNH_VRRP_INFO_BIT_VRRP_STATE};
    EXPECT_EQ(encode_all([&](void *o, uint32_t l) { return tlv_encode_rt_tlv_arpnh_vrrp_info_0(&arp, &m, o, l); }),
              item(1, {3}));
    m.bits = 0;
    EXPECT_EQ(tlv_encode_rt_tlv_arpnh_vrrp_info_0(&arp, &m, nullptr, 0), 0u);
}

TEST(TlvEncode, NestedRecordAndArrayItems)
{
    rts_msg_info_t info0{}, info1{};
    info0.unnum_donor.donor_ifl_index = 77;
    info1.vrrp_state.state = 5;
    rts_msg_info_t *infos[] = {&info0, nullptr, &info1};
    rts_msg_info_map_t maps[3] = {};
    maps[0].bits = 1u << RTS_MSG_INFO_BIT_UNNUM_DONOR;
    maps[0].unnum_donor.bits = 1;
    maps[2].bits = 1u << RTS_MSG_INFO_BIT_VRRP_STATE;
    maps[2].vrrp_state.bits = 1;
    rts_base_t base{};
    base.hdr.version = 104;
    base.hdr.info = infos;
    base.hdr.info_count = 3;
    rts_base_map_t bm{};
    bm.bits = 1;
    bm.hdr.bits = (1u << RTS_HDR_BIT_VERSION) | (1u << RTS_HDR_BIT_INFO);
    bm.hdr.info = maps;
    Bytes e0 = item(183, item(1, u32v(77)));
    Bytes e2 = item(227, item(1, {5, 0}));
    Bytes hdr = cat({item(2, {104}), item(11, e0), item(11, e2)});  // null element skipped
    Bytes want = item(1, hdr);
    EXPECT_EQ(encode_all([&](void *o, uint32_t l) { return tlv_encode_rts_base_0(&base, &bm, o, l); }), want);
    EXPECT_EQ(walk_tlv(meta("rts_base"), want.data(), static_cast<uint32_t>(want.size())), "");
}

// An item is written when header and value fit; its padding only when the
// padding fits too.
TEST(TlvEncode, ShortBufferKeepsEarlierItems)
{
    rt_tlv_oam_session_id_t oam{0x01020304};
    rts_msg_info_t r{};
    r.oam_session = oam;
    r.tos.tos = 5;
    rts_msg_info_map_t m{};
    m.bits = (1u << RTS_MSG_INFO_BIT_OAM_SESSION) | (1u << RTS_MSG_INFO_BIT_TOS);
    m.oam_session.bits = 1;
    m.tos.bits = 1;
    Bytes full = cat({item(3, item(1, u32v(0x01020304))), item(7, item(1, {5}))});
    for (uint32_t len : {39u, 36u, 20u, 19u}) {
        Bytes out(len, 0xEE);
        EXPECT_EQ(tlv_encode_rts_msg_info_0(&r, &m, out.data(), len), 40u);
        Bytes want = full;
        want.resize(len);
        if (len == 39) want[29 + 8] = want[38] = 0xEE;  // the inner item's padding
        if (len == 36) std::fill(want.begin() + 28, want.end(), 0xEE);
        if (len == 19) std::fill(want.begin() + 8, want.end(), 0xEE);  // inner item cut
        EXPECT_EQ(hex(out.data(), len), hex(want.data(), len)) << len;
    }
}

TEST(TlvEncode, LastItemOneByteShortLeavesOnlyPaddingUnwritten)
{
    rt_tlv_arpnh_vrrp_info_t arp{9, 3};
    Bytes out(23, 0xEE);
    EXPECT_EQ(tlv_encode_rt_tlv_arpnh_vrrp_info_0(&arp, nullptr, out.data(), 23), 24u);
    Bytes want = cat({item(0, {9}), item(1, {3})});
    want.resize(23);
    want[21] = want[22] = 0xEE;
    EXPECT_EQ(out, want);
    Bytes out20(20, 0xEE);
    EXPECT_EQ(tlv_encode_rt_tlv_arpnh_vrrp_info_0(&arp, nullptr, out20.data(), 20), 24u);
    Bytes want20 = item(0, {9});
    want20.resize(20, 0xEE);
    EXPECT_EQ(out20, want20);
}

// --- TLV decoding ----------------------------------------------------------

struct TlvCase {
    const char *name;
    Bytes in;
    int32_t result;
};

TEST(TlvDecode, ScalarLengths)
{
    af_fixup_t r;
    EXPECT_EQ(tlv_decode_af_fixup_0(&r, nullptr, item(1, {}).data(), 8, nullptr, nullptr), -1);
    rt_tlv_oam_session_id_t o;
    Bytes three = item(1, {1, 2, 3});
    EXPECT_EQ(tlv_decode_rt_tlv_oam_session_id_0(&o, nullptr, three.data(), 12, nullptr, nullptr), -1);
    // Longer values are accepted; only the field's width is read.
    Bytes six = item(1, {1, 2, 3, 4, 5, 6});
    EXPECT_EQ(tlv_decode_rt_tlv_oam_session_id_0(&o, nullptr, six.data(), 16, nullptr, nullptr), 16);
    EXPECT_EQ(o.session_id, 0x04030201u);
}

TEST(TlvDecode, CutItemStopsAtItsOffset)
{
    Bytes in = cat({item(1, u32v(10)), item(2, u32v(20))});
    for (uint32_t cut : {12u, 13u, 19u, 23u}) {
        rts_sysconf_t r;
        rts_sysconf_map_t m;
        EXPECT_EQ(tlv_decode_rts_sysconf_0(&r, &m, in.data(), cut, nullptr, nullptr), 12) << cut;
        EXPECT_EQ(r.conf_id, 10u);
        EXPECT_EQ(r.conf_value, 0u);
        EXPECT_EQ(m.bits, 1u);
    }
}

TEST(TlvDecode, LastItemWithoutPaddingReturnsItsEnd)
{
    Bytes in = item(1, {7});
    af_fixup_t r;
    EXPECT_EQ(tlv_decode_af_fixup_0(&r, nullptr, in.data(), 9, nullptr, nullptr), 9);
    EXPECT_EQ(r.af, 7);
}

TEST(TlvDecode, UnknownTagSkippedWithPadding)
{
    Bytes in = cat({item(99, {1, 2, 3, 4, 5}), item(1, {7})});
    af_fixup_t r;
    af_fixup_map_t m;
    EXPECT_EQ(tlv_decode_af_fixup_0(&r, &m, in.data(), static_cast<uint32_t>(in.size()), nullptr, nullptr), 28);
    EXPECT_EQ(r.af, 7);
    EXPECT_EQ(m.bits, 1u);
}

TEST(TlvDecode, DuplicateScalarFirstWinsWithMapLastWithout)
{
    Bytes in = cat({item(1, {1}), item(1, {2})});
    af_fixup_t r;
    af_fixup_map_t m;
    EXPECT_EQ(tlv_decode_af_fixup_0(&r, &m, in.data(), 24, nullptr, nullptr), 24);
    EXPECT_EQ(r.af, 1);
    EXPECT_EQ(tlv_decode_af_fixup_0(&r, nullptr, in.data(), 24, nullptr, nullptr), 24);
    EXPECT_EQ(r.af, 2);
}

TEST(TlvDecode, DuplicateStringFailsWithoutMapFirstWinsWithMap)
{
    Bytes in = cat({item(0, {'a'}), item(0, {'b', 'c'})});
    CountingAllocator a;
    rt_tlv_ifaddr_t r;
    rt_tlv_ifaddr_map_t m;
    EXPECT_EQ(tlv_decode_rt_tlv_ifaddr_0(&r, nullptr, in.data(), 24, &CountingAllocator::alloc, &a), -1);
    tlv_release_rt_tlv_ifaddr_0(&r, nullptr, &CountingAllocator::free, &a);
    EXPECT_TRUE(a.live.empty());
    EXPECT_EQ(tlv_decode_rt_tlv_ifaddr_0(&r, &m, in.data(), 24, &CountingAllocator::alloc, &a), 24);
    ASSERT_EQ(r.addr_len, 1u);
    EXPECT_EQ(r.addr[0], 'a');
    tlv_release_rt_tlv_ifaddr_0(&r, &m, &CountingAllocator::free, &a);
    EXPECT_TRUE(a.live.empty());
}

TEST(TlvDecode, DuplicateNestedRecord)
{
    // Without blocks in the first item the second replaces it whole; with a
    // string from the first item a second one is an error.
    Bytes plain = cat({item(2, cat({item(0, {9}), item(1, {4})})), item(2, item(1, {6}))});
    rts_msg_info_t r;
    EXPECT_EQ(tlv_decode_rts_msg_info_0(&r, nullptr, plain.data(), static_cast<uint32_t>(plain.size()), nullptr, nullptr),
              static_cast<int32_t>(plain.size()));
    EXPECT_EQ(r.arpnh_vrrp.vrrp_state, 6);
    EXPECT_EQ(r.arpnh_vrrp.vrrp_group, 0);
    Bytes str = cat({item(1, item(0, {1, 2})), item(1, item(0, {3}))});
    CountingAllocator a;
    EXPECT_EQ(tlv_decode_rts_msg_info_0(&r, nullptr, str.data(), static_cast<uint32_t>(str.size()), &CountingAllocator::alloc, &a), -1);
    tlv_release_rts_msg_info_0(&r, nullptr, &CountingAllocator::free, &a);
    EXPECT_TRUE(a.live.empty());
    rts_msg_info_map_t m;
    EXPECT_EQ(tlv_decode_rts_msg_info_0(&r, &m, str.data(), static_cast<uint32_t>(str.size()), &CountingAllocator::alloc, &a),
              static_cast<int32_t>(str.size()));
    ASSERT_EQ(r.ifaddr.addr_len, 2u);
    EXPECT_EQ(r.ifaddr.addr[1], 2);
    tlv_release_rts_msg_info_0(&r, &m, &CountingAllocator::free, &a);
    EXPECT_TRUE(a.live.empty());
}

TEST(TlvDecode, NestedTrailingFragmentIsGarbled)
{
    Bytes in = item(3, cat({item(1, u32v(5)), {0, 0, 0, 0}}));
    rts_msg_info_t r;
    EXPECT_EQ(tlv_decode_rts_msg_info_0(&r, nullptr, in.data(), static_cast<uint32_t>(in.size()), nullptr, nullptr), -1);
}

TEST(TlvDecode, StringAllocation)
{
    Bytes in = item(0, {1, 2, 3});
    rt_tlv_ifaddr_t r;
    EXPECT_EQ(tlv_decode_rt_tlv_ifaddr_0(&r, nullptr, in.data(), 12, nullptr, nullptr), -2);
    CountingAllocator a;
    a.fail_at = 1;
    EXPECT_EQ(tlv_decode_rt_tlv_ifaddr_0(&r, nullptr, in.data(), 12, &CountingAllocator::alloc, &a), -2);
    Bytes empty = item(0, {});
    EXPECT_EQ(tlv_decode_rt_tlv_ifaddr_0(&r, nullptr, empty.data(), 8, nullptr, nullptr), 8);
    EXPECT_EQ(r.addr, nullptr);
    EXPECT_EQ(r.addr_len, 0u);
}

TEST(TlvDecode, ArrayRuns)
{
    Bytes e1 = item(11, item(3, item(1, u32v(1))));
    Bytes e2 = item(11, item(3, item(1, u32v(2))));
    Bytes other = item(2, {104});
    rts_hdr_t r;
    rts_hdr_map_t m;
    CountingAllocator a;
    // One run of two elements, with element maps.
    Bytes run = cat({other, e1, e2});
    ASSERT_EQ(tlv_decode_rts_hdr_0(&r, &m, run.data(), static_cast<uint32_t>(run.size()), &CountingAllocator::alloc, &a),
              static_cast<int32_t>(run.size()));
    ASSERT_EQ(r.info_count, 2u);
    EXPECT_EQ(r.info[1]->oam_session.session_id, 2u);
    ASSERT_NE(m.info, nullptr);
    EXPECT_EQ(m.info[1].bits, 1u << RTS_MSG_INFO_BIT_OAM_SESSION);
    EXPECT_EQ(m.bits, (1u << RTS_HDR_BIT_VERSION) | (1u << RTS_HDR_BIT_INFO));
    tlv_release_rts_hdr_0(&r, &m, &CountingAllocator::free, &a);
    EXPECT_TRUE(a.live.empty());
    // A broken run: a second run without a map is an error; with a map it is
    // ignored (the first occurrence wins).
    Bytes broken = cat({e1, other, e2});
    EXPECT_EQ(tlv_decode_rts_hdr_0(&r, nullptr, broken.data(), static_cast<uint32_t>(broken.size()), &CountingAllocator::alloc, &a), -1);
    tlv_release_rts_hdr_0(&r, nullptr, &CountingAllocator::free, &a);
    EXPECT_EQ(tlv_decode_rts_hdr_0(&r, &m, broken.data(), static_cast<uint32_t>(broken.size()), &CountingAllocator::alloc, &a),
              static_cast<int32_t>(broken.size()));
    EXPECT_EQ(r.info_count, 1u);
    tlv_release_rts_hdr_0(&r, &m, &CountingAllocator::free, &a);
    EXPECT_TRUE(a.live.empty());
    // A following item of the run whose header fits but whose value is cut.
    Bytes cut = cat({e1, e2});
    cut.resize(cut.size() - 4);
    EXPECT_EQ(tlv_decode_rts_hdr_0(&r, nullptr, cut.data(), static_cast<uint32_t>(cut.size()), &CountingAllocator::alloc, &a), -1);
    tlv_release_rts_hdr_0(&r, nullptr, &CountingAllocator::free, &a);
    EXPECT_TRUE(a.live.empty());
    // No allocator for the element array.
    EXPECT_EQ(tlv_decode_rts_hdr_0(&r, nullptr, e1.data(), static_cast<uint32_t>(e1.size()), nullptr, nullptr), -2);
}

TEST(TlvRelease, NullElementSkippedArraysFreed)
{
    CountingAllocator a;
    rts_hdr_t r{};
    rts_hdr_map_t m{};
    r.info = static_cast<rts_msg_info_t **>(CountingAllocator::alloc(2 * sizeof(void *), &a));
    r.info[0] = nullptr;
    r.info[1] = static_cast<rts_msg_info_t *>(CountingAllocator::alloc(sizeof(rts_msg_info_t), &a));
    std::memset(r.info[1], 0, sizeof(rts_msg_info_t));
    r.info_count = 2;
    m.info = static_cast<rts_msg_info_map_t *>(CountingAllocator::alloc(2 * sizeof(rts_msg_info_map_t), &a));
    std::memset(m.info, 0, 2 * sizeof(rts_msg_info_map_t));
    tlv_release_rts_hdr_0(&r, &m, &CountingAllocator::free, &a);
    EXPECT_TRUE(a.live.empty());
}

// --- IDR -------------------------------------------------------------------

TEST(IdrEncode, SmallRecordsPadToFour)
{
    af_fixup_t f{0x07};
    EXPECT_EQ(encode_all([&](void *o, uint32_t l) { return idr_encode_af_fixup_0(&f, o, l); }), (Bytes{7, 0, 0, 0}));
    rt_tlv_arpnh_vrrp_info_t arp{9, 3};
    EXPECT_EQ(encode_all([&](void *o, uint32_t l) { return idr_encode_rt_tlv_arpnh_vrrp_info_0(&arp, o, l); }),
              (Bytes{9, 3, 0, 0}));
    uint8_t s[5] = {1, 2, 3, 4, 5};
    rt_tlv_ifaddr_t a{s, 5};
    EXPECT_EQ(encode_all([&](void *o, uint32_t l) { return idr_encode_rt_tlv_ifaddr_0(&a, o, l); }),
              (Bytes{5, 0, 0, 0, 1, 2, 3, 4, 5, 0, 0, 0}));
    rt_tlv_ifaddr_t e{nullptr, 0};
    EXPECT_EQ(encode_all([&](void *o, uint32_t l) { return idr_encode_rt_tlv_ifaddr_0(&e, o, l); }), (Bytes{0, 0, 0, 0}));
}

TEST(IdrEncode, HeaderFixedPartIs28BytesThenElements)
{
    rts_msg_info_t info{};
    info.tos.tos = 0xAB;
    rts_msg_info_t *infos[] = {&info};
    rts_hdr_t h{};
    h.msg_magic = 0;
    h.version = 104;
    h.type = 2;
    h.op = 1;
    h.op_flags = 2;
    h.msglen = 0x228;
    h.seq = 0x01020304;
    h.error = 0;
    h.hdrlen = 228;
    h.subtype = 9;
    h.info = infos;
    h.info_count = 1;
    Bytes b = encode_all([&](void *o, uint32_t l) { return idr_encode_rts_hdr_0(&h, o, l); });
    Bytes fixed = {0, 0, 0, 0, 104, 2, 1, 2, 0x28, 0x02, 0, 0, 4, 3, 2, 1,
                   0, 0, 0, 0, 228, 0, 9, 0, 1, 0, 0, 0};
    ASSERT_GE(b.size(), 28u);
    EXPECT_EQ(Bytes(b.begin(), b.begin() + 28), fixed);
    Bytes elem(b.begin() + 28, b.end());
    Bytes want(idr_encode_rts_msg_info_0(&info, nullptr, 0));
    idr_encode_rts_msg_info_0(&info, want.data(), static_cast<uint32_t>(want.size()));
    EXPECT_EQ(elem, want);
}

TEST(IdrDecode, StrictRules)
{
    af_fixup_t f;
    Bytes two = {7, 0};
    EXPECT_EQ(idr_decode_af_fixup_0(&f, two.data(), 2, nullptr, nullptr), -1);
    EXPECT_EQ(f.af, 7);
    EXPECT_EQ(idr_decode_af_fixup_0(&f, two.data(), 0, nullptr, nullptr), -1);

    Bytes s = {5, 0, 0, 0, 1, 2, 3, 4, 5, 0, 0, 0};
    CountingAllocator a;
    rt_tlv_ifaddr_t r;
    EXPECT_EQ(idr_decode_rt_tlv_ifaddr_0(&r, s.data(), 12, &CountingAllocator::alloc, &a), 12);
    ASSERT_EQ(r.addr_len, 5u);
    EXPECT_EQ(r.addr[4], 5);
    idr_release_rt_tlv_ifaddr_0(&r, &CountingAllocator::free, &a);
    // Count beyond the bytes: allocated first, then -1 with the block held.
    EXPECT_EQ(idr_decode_rt_tlv_ifaddr_0(&r, s.data(), 8, &CountingAllocator::alloc, &a), -1);
    EXPECT_NE(r.addr, nullptr);
    EXPECT_EQ(a.live.size(), 1u);
    idr_release_rt_tlv_ifaddr_0(&r, &CountingAllocator::free, &a);
    EXPECT_TRUE(a.live.empty());
    // Padding missing: -1 after the copy.
    EXPECT_EQ(idr_decode_rt_tlv_ifaddr_0(&r, s.data(), 10, &CountingAllocator::alloc, &a), -1);
    idr_release_rt_tlv_ifaddr_0(&r, &CountingAllocator::free, &a);
    EXPECT_EQ(idr_decode_rt_tlv_ifaddr_0(&r, s.data(), 12, nullptr, nullptr), -2);
    Bytes zero = {0, 0, 0, 0};
    EXPECT_EQ(idr_decode_rt_tlv_ifaddr_0(&r, zero.data(), 4, nullptr, nullptr), 4);
    EXPECT_EQ(r.addr, nullptr);
    EXPECT_EQ(idr_decode_rt_tlv_ifaddr_0(&r, zero.data(), 3, nullptr, nullptr), -1);
}

TEST(IdrDecode, HugeArrayCountRefusedBeforeAllocating)
{
    Bytes fixed(28, 0);
    fixed[24] = 0xFF;
    fixed[25] = 0xFF;
    fixed[26] = 0xFF;
    fixed[27] = 0x7F;
    CountingAllocator a;
    rts_hdr_t h;
    EXPECT_EQ(idr_decode_rts_hdr_0(&h, fixed.data(), 28, &CountingAllocator::alloc, &a), -1);
    EXPECT_EQ(a.calls, 0u);
}

}  // namespace
}  // namespace tarn::test
