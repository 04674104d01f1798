// Every generated type through both encodings with random values and random
// presence maps: decode(encode(x)) == x, the TLV output passes the independent
// walker, short buffers are never overrun and keep a consistent prefix, and
// release hands back every block decode obtained.
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "idl_test_support.h"

namespace tarn::test {
namespace {

using idlmeta::Type;

constexpr uint8_t kGuard = 0xA5;
constexpr int kRounds = 60;

std::vector<const Type *> tlv_types()
{
    std::vector<const Type *> v;
    for (std::size_t i = 0; i < idlmeta::type_count; ++i)
        if (idlmeta::types[i].tlv_encode) v.push_back(&idlmeta::types[i]);
    return v;
}

std::vector<const Type *> idr_types()
{
    std::vector<const Type *> v;
    for (std::size_t i = 0; i < idlmeta::type_count; ++i)
        if (idlmeta::types[i].idr_encode) v.push_back(&idlmeta::types[i]);
    return v;
}

std::string type_name(const testing::TestParamInfo<const Type *> &info)
{
    return info.param->name;
}

// Encodes into buffers shorter than needed: the result is always the full
// size, nothing beyond the given length changes, and every byte that was
// written matches the full encoding.
template <class Encode>
void check_short_buffers(const std::vector<uint8_t> &full, Encode encode)
{
    uint32_t need = static_cast<uint32_t>(full.size());
    std::vector<uint32_t> lens = {0, 1, 3, 7, 8, 11, 12, need / 2, need ? need - 1 : 0};
    for (uint32_t len : lens) {
        if (len >= need && need) continue;
        std::vector<uint8_t> out(len + 16, kGuard);
        ASSERT_EQ(encode(out.data(), len), need) << "out_len " << len;
        for (uint32_t i = len; i < out.size(); ++i)
            ASSERT_EQ(out[i], kGuard) << "wrote byte " << i << " past out_len " << len;
        for (uint32_t i = 0; i < len; ++i) {
            if (out[i] != kGuard) {
                ASSERT_EQ(out[i], full[i]) << "byte " << i << " out_len " << len;
            }
        }
    }
}

class TlvRoundTrip : public testing::TestWithParam<const Type *> {};

TEST_P(TlvRoundTrip, RandomRecordsAndMaps)
{
    const Type &t = *GetParam();
    std::mt19937 rng(12345 + static_cast<unsigned>(t.size));
    for (int round = 0; round < kRounds; ++round) {
        Pool pool;
        bool with_map = round % 4 != 0;
        RandomRecord src = random_record(t, rng, pool, with_map);
        uint32_t need = t.tlv_encode(src.rec, src.map, nullptr, 0);
        ASSERT_EQ(need % 4, 0u);
        std::vector<uint8_t> buf(need + 8, kGuard);
        ASSERT_EQ(t.tlv_encode(src.rec, src.map, buf.data(), need), need);
        for (uint32_t i = need; i < buf.size(); ++i) ASSERT_EQ(buf[i], kGuard);
        buf.resize(need);
        ASSERT_EQ(walk_tlv(t, buf.data(), need), "") << hex(buf.data(), need);
        check_short_buffers(buf, [&](uint8_t *o, uint32_t l) {
            return t.tlv_encode(src.rec, src.map, o, l);
        });

        CountingAllocator a;
        std::vector<uint8_t> rec(t.size, 0xEE), map(t.map_size, 0xEE);
        ASSERT_EQ(t.tlv_decode(rec.data(), map.data(), buf.data(), need, &CountingAllocator::alloc,
                               &a),
                  static_cast<int32_t>(need));
        ASSERT_EQ(compare_records(t, src.rec, src.map, rec.data(), map.data()), "")
            << "round " << round;
        // Re-encoding what arrived gives the same bytes.
        std::vector<uint8_t> again(need);
        ASSERT_EQ(t.tlv_encode(rec.data(), map.data(), again.data(), need), need);
        ASSERT_EQ(again, buf);
        t.tlv_release(rec.data(), map.data(), &CountingAllocator::free, &a);
        ASSERT_TRUE(a.live.empty()) << a.live.size() << " blocks not released";

        // Without a map the decoder keeps everything too.
        ASSERT_EQ(t.tlv_decode(rec.data(), nullptr, buf.data(), need, &CountingAllocator::alloc, &a),
                  static_cast<int32_t>(need));
        ASSERT_EQ(compare_records(t, src.rec, src.map, rec.data(), nullptr), "");
        t.tlv_release(rec.data(), nullptr, &CountingAllocator::free, &a);
        ASSERT_TRUE(a.live.empty());
    }
}

// Every allocation failure surfaces as -2 and leaves only blocks that release
// gives back.
TEST_P(TlvRoundTrip, AllocationFailureAtEveryStep)
{
    const Type &t = *GetParam();
    std::mt19937 rng(777);
    Pool pool;
    RandomRecord src = random_record(t, rng, pool, true);
    uint32_t need = t.tlv_encode(src.rec, src.map, nullptr, 0);
    std::vector<uint8_t> buf(need);
    t.tlv_encode(src.rec, src.map, buf.data(), need);
    CountingAllocator probe;
    std::vector<uint8_t> rec(t.size), map(t.map_size);
    ASSERT_GE(t.tlv_decode(rec.data(), map.data(), buf.data(), need, &CountingAllocator::alloc,
                           &probe), 0);
    t.tlv_release(rec.data(), map.data(), &CountingAllocator::free, &probe);
    for (uint64_t n = 1; n <= probe.calls; ++n) {
        CountingAllocator a;
        a.fail_at = n;
        ASSERT_EQ(t.tlv_decode(rec.data(), map.data(), buf.data(), need, &CountingAllocator::alloc,
                               &a),
                  TARN_IDL_E_ALLOC)
            << "failing call " << n;
        t.tlv_release(rec.data(), map.data(), &CountingAllocator::free, &a);
        ASSERT_TRUE(a.live.empty()) << "failing call " << n;
    }
}

INSTANTIATE_TEST_SUITE_P(AllTypes, TlvRoundTrip, testing::ValuesIn(tlv_types()), type_name);

class IdrRoundTrip : public testing::TestWithParam<const Type *> {};

TEST_P(IdrRoundTrip, RandomRecords)
{
    const Type &t = *GetParam();
    std::mt19937 rng(54321 + static_cast<unsigned>(t.size));
    for (int round = 0; round < kRounds; ++round) {
        Pool pool;
        RandomRecord src = random_record(t, rng, pool, false);
        uint32_t need = t.idr_encode(src.rec, nullptr, 0);
        ASSERT_EQ(need % 4, 0u);
        ASSERT_GT(need, 0u);
        std::vector<uint8_t> buf(need + 8, kGuard);
        ASSERT_EQ(t.idr_encode(src.rec, buf.data(), need), need);
        for (uint32_t i = need; i < buf.size(); ++i) ASSERT_EQ(buf[i], kGuard);
        buf.resize(need);
        check_short_buffers(buf, [&](uint8_t *o, uint32_t l) { return t.idr_encode(src.rec, o, l); });

        CountingAllocator a;
        std::vector<uint8_t> rec(t.size, 0xEE);
        ASSERT_EQ(t.idr_decode(rec.data(), buf.data(), need, &CountingAllocator::alloc, &a),
                  static_cast<int32_t>(need));
        ASSERT_EQ(compare_records(t, src.rec, nullptr, rec.data(), nullptr), "") << "round " << round;
        std::vector<uint8_t> again(need);
        ASSERT_EQ(t.idr_encode(rec.data(), again.data(), need), need);
        ASSERT_EQ(again, buf);
        t.idr_release(rec.data(), &CountingAllocator::free, &a);
        ASSERT_TRUE(a.live.empty());

        // Strict: any shorter input is garbled (or an allocation the
        // shortened input cannot back), never a success.
        for (uint32_t cut : {need - 1, need / 2, 0u}) {
            CountingAllocator c;
            int32_t r = t.idr_decode(rec.data(), buf.data(), cut, &CountingAllocator::alloc, &c);
            ASSERT_TRUE(r == TARN_IDL_E_GARBLED || r == TARN_IDL_E_ALLOC) << r << " at " << cut;
            t.idr_release(rec.data(), &CountingAllocator::free, &c);
            ASSERT_TRUE(c.live.empty());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(AllTypes, IdrRoundTrip, testing::ValuesIn(idr_types()), type_name);

}  // namespace
}  // namespace tarn::test
