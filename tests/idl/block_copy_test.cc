// The library's IDR codecs copy runs of fields as blocks where the build's
// memory layout equals the wire image, and its TLV decoders first expect the
// items in field order. The field-by-field reference codecs, generated from
// the same descriptions, must produce exactly the same bytes for every type,
// through whole and short buffers, and decode to records that encode alike.
// Records carry marked padding, so that a block that strays over a gap shows
// on the wire.
//
// Faults the generator would put into both codecs alike are caught by what
// does not come from it: the decoded record must equal the random source
// field by field, TLV output must pass the independent walker, short buffers
// are written only up to their length and only with bytes of the whole
// encoding, a cut IDR image never decodes, and every allocation failure
// surfaces as such with every block given back.
#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "idl_reference.h"
#include "idl_test_support.h"

namespace tarn::test {
namespace {

using idlmeta::Type;

constexpr uint8_t kGuard = 0xA5;
constexpr uint8_t kPadding = 0x5C;
constexpr int kRecordsPerType = 8;

// A failed decode may hold a string block it never filled; marking every
// block makes such records encode alike on both sides, and shows a record
// taken from a block and not cleared.
void *marked_alloc(uint32_t size, void *ctx)
{
    void *p = CountingAllocator::alloc(size, ctx);
    if (p) std::memset(p, 0x77, size);
    return p;
}

std::vector<uint32_t> lengths(uint32_t need)
{
    return {need, need ? need - 1 : 0, need / 2, need < 3 ? 0u : 3u};
}

template <class Encode>
std::vector<uint8_t> encoded(Encode encode, uint32_t len)
{
    std::vector<uint8_t> out(len + 8, kGuard);
    encode(out.data(), len);
    return out;
}

// Runs both encoders over every length: same size, same bytes, same bytes
// left alone, nothing written past the length, and only bytes of the whole
// encoding written before it.
template <class Lib, class Ref>
void same_output(Lib lib, Ref ref)
{
    uint32_t need = ref(nullptr, 0);
    ASSERT_EQ(need % 4, 0u);
    const std::vector<uint8_t> full = encoded(lib, need);
    for (uint32_t len : lengths(need)) {
        ASSERT_EQ(lib(nullptr, 0), need);
        const std::vector<uint8_t> out = encoded(lib, len);
        ASSERT_EQ(out, encoded(ref, len)) << "out_len " << len;
        ASSERT_EQ(std::count(out.begin() + len, out.end(), kGuard), 8) << "out_len " << len;
        for (uint32_t i = 0; i < len; ++i) {
            if (out[i] != kGuard) {
                ASSERT_EQ(out[i], full[i]) << "byte " << i << " out_len " << len;
            }
        }
    }
}

// Decodes the whole image with the library, with the source's map (if any)
// and without: the record equals its source. With the first, fails each
// allocation in turn.
template <class Decode, class Release>
void decodes_to_source(const Type &t, const RandomRecord &src, const std::vector<uint8_t> &image,
                       Decode decode, Release release)
{
    const auto size = static_cast<uint32_t>(image.size());
    Pool pool;
    void *rec = pool.get(t.size);
    bool first = true;
    for (void *map : {src.map ? pool.get(t.map_size) : nullptr, static_cast<void *>(nullptr)}) {
        CountingAllocator a;
        ASSERT_EQ(decode(rec, map, image.data(), size, &a), static_cast<int32_t>(size));
        ASSERT_EQ(compare_records(t, src.rec, src.map, rec, map), "") << "map " << (map != nullptr);
        release(rec, map, &a);
        ASSERT_TRUE(a.live.empty());
        for (uint64_t n = 1; n <= a.calls && first; ++n) {
            CountingAllocator f;
            f.fail_at = n;
            ASSERT_EQ(decode(rec, map, image.data(), size, &f), TARN_IDL_E_ALLOC) << "call " << n;
            release(rec, map, &f);
            ASSERT_TRUE(f.live.empty()) << "failing call " << n;
        }
        if (src.map == nullptr) break;
        first = false;
    }
}

// Decodes `image` cut to every length, and whole with the first allocation
// failing, with both decoders: same result, and records whose reference
// encodings agree. maps: whether TLV maps are used.
template <class LibDecode, class RefDecode, class Reencode, class Release>
void same_records(const Type &t, const std::vector<uint8_t> &image, bool maps, LibDecode lib,
                  RefDecode ref, Reencode reencode, Release release)
{
    auto both = [&](uint32_t len, uint64_t fail_at) {
        Pool pool;
        CountingAllocator ca, cb;
        ca.fail_at = cb.fail_at = fail_at;
        void *ra = pool.get(t.size), *rb = pool.get(t.size);
        void *ma = maps ? pool.get(t.map_size) : nullptr, *mb = maps ? pool.get(t.map_size) : nullptr;
        ASSERT_EQ(lib(ra, ma, image.data(), len, &ca), ref(rb, mb, image.data(), len, &cb))
            << "in_len " << len << " fail_at " << fail_at;
        ASSERT_EQ(reencode(ra, ma), reencode(rb, mb)) << "in_len " << len << " fail_at " << fail_at;
        release(ra, ma, &ca);
        release(rb, mb, &cb);
    };
    for (uint32_t len : lengths(static_cast<uint32_t>(image.size()))) both(len, 0);
    both(static_cast<uint32_t>(image.size()), 1);
}

TEST(BlockCopy, IdrMatchesTheFieldByFieldCodecs)
{
    for (std::size_t i = 0; i < idlmeta::type_count; ++i) {
        const Type &t = idlmeta::types[i];
        const idlref::Codecs &ref = idlref::codecs[i];
        if (!t.idr_encode) continue;
        SCOPED_TRACE(t.name);
        std::mt19937 rng(static_cast<uint32_t>(i) + 1);
        for (int n = 0; n < kRecordsPerType; ++n) {
            Pool pool(kPadding);
            const RandomRecord src = random_record(t, rng, pool, false);
            void *rec = src.rec;
            same_output([&](void *o, uint32_t l) { return t.idr_encode(rec, o, l); },
                        [&](void *o, uint32_t l) { return ref.idr_encode(rec, o, l); });
            std::vector<uint8_t> image(ref.idr_encode(rec, nullptr, 0));
            ref.idr_encode(rec, image.data(), static_cast<uint32_t>(image.size()));
            same_records(
                t, image, false,
                [&](void *r, void *, const uint8_t *in, uint32_t l, CountingAllocator *a) {
                    return t.idr_decode(r, in, l, &marked_alloc, a);
                },
                [&](void *r, void *, const uint8_t *in, uint32_t l, CountingAllocator *a) {
                    return ref.idr_decode(r, in, l, &marked_alloc, a);
                },
                [&](const void *r, const void *) {
                    return encoded([&](void *o, uint32_t l) { return ref.idr_encode(r, o, l); },
                                   ref.idr_encode(r, nullptr, 0));
                },
                [&](void *r, void *, CountingAllocator *a) {
                    t.idr_release(r, &CountingAllocator::free, a);
                });
            auto decode = [&](void *r, void *, const uint8_t *in, uint32_t l, CountingAllocator *a) {
                return t.idr_decode(r, in, l, &marked_alloc, a);
            };
            auto release = [&](void *r, void *, CountingAllocator *a) {
                t.idr_release(r, &CountingAllocator::free, a);
            };
            decodes_to_source(t, src, image, decode, release);
            // Strict: no shorter image decodes.
            for (uint32_t cut : lengths(static_cast<uint32_t>(image.size()))) {
                if (cut == image.size()) continue;
                CountingAllocator a;
                void *r = pool.get(t.size);
                const int32_t rc = decode(r, nullptr, image.data(), cut, &a);
                ASSERT_TRUE(rc == TARN_IDL_E_GARBLED || rc == TARN_IDL_E_ALLOC) << rc << " at " << cut;
                release(r, nullptr, &a);
                ASSERT_TRUE(a.live.empty());
            }
        }
    }
}

// The top-level items of a TLV image last to first, each twice: items out
// of field order, and repeats.
std::vector<uint8_t> reordered(const std::vector<uint8_t> &image)
{
    std::vector<std::pair<size_t, size_t>> items;  // offset, padded length
    for (size_t at = 0; at + 8 <= image.size();) {
        uint32_t vlen;
        std::memcpy(&vlen, image.data() + at + 4, 4);
        size_t len = std::min(image.size() - at, (size_t{vlen} + 8 + 3) / 4 * 4);
        items.emplace_back(at, len);
        at += len;
    }
    std::vector<uint8_t> out;
    auto put = [&](std::pair<size_t, size_t> it) {
        out.insert(out.end(), image.begin() + static_cast<long>(it.first),
                   image.begin() + static_cast<long>(it.first + it.second));
    };
    for (auto it = items.rbegin(); it != items.rend(); ++it) {
        put(*it);
        put(*it);
    }
    return out;
}

TEST(BlockCopy, TlvMatchesTheFieldByFieldCodecs)
{
    for (std::size_t i = 0; i < idlmeta::type_count; ++i) {
        const Type &t = idlmeta::types[i];
        const idlref::Codecs &ref = idlref::codecs[i];
        if (!t.tlv_encode) continue;
        SCOPED_TRACE(t.name);
        std::mt19937 rng(static_cast<uint32_t>(i) + 1);
        for (int n = 0; n < kRecordsPerType; ++n) {
            const bool with_map = n % 4 != 0;
            Pool pool(kPadding);
            RandomRecord src = random_record(t, rng, pool, with_map);
            same_output([&](void *o, uint32_t l) { return t.tlv_encode(src.rec, src.map, o, l); },
                        [&](void *o, uint32_t l) { return ref.tlv_encode(src.rec, src.map, o, l); });
            std::vector<uint8_t> image(ref.tlv_encode(src.rec, src.map, nullptr, 0));
            ref.tlv_encode(src.rec, src.map, image.data(), static_cast<uint32_t>(image.size()));
            for (const std::vector<uint8_t> &input : {image, reordered(image)}) same_records(
                t, input, with_map,
                [&](void *r, void *m, const uint8_t *in, uint32_t l, CountingAllocator *a) {
                    return t.tlv_decode(r, m, in, l, &marked_alloc, a);
                },
                [&](void *r, void *m, const uint8_t *in, uint32_t l, CountingAllocator *a) {
                    return ref.tlv_decode(r, m, in, l, &marked_alloc, a);
                },
                [&](const void *r, const void *m) {
                    return encoded([&](void *o, uint32_t l) { return ref.tlv_encode(r, m, o, l); },
                                   ref.tlv_encode(r, m, nullptr, 0));
                },
                [&](void *r, void *m, CountingAllocator *a) {
                    t.tlv_release(r, m, &CountingAllocator::free, a);
                });
            ASSERT_EQ(walk_tlv(t, image.data(), static_cast<uint32_t>(image.size())), "")
                << hex(image.data(), image.size());
            decodes_to_source(
                t, src, image,
                [&](void *r, void *m, const uint8_t *in, uint32_t l, CountingAllocator *a) {
                    return t.tlv_decode(r, m, in, l, &marked_alloc, a);
                },
                [&](void *r, void *m, CountingAllocator *a) {
                    t.tlv_release(r, m, &CountingAllocator::free, a);
                });
        }
    }
}

}  // namespace
}  // namespace tarn::test
