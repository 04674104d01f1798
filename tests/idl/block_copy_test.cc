// The library's IDR codecs copy runs of fields as blocks where the build's
// memory layout equals the wire image, and its TLV decoders first expect the
// items in field order. The field-by-field reference codecs, generated from
// the same descriptions, must produce exactly the same bytes for every type,
// through whole and short buffers, and decode to records that encode alike.
// Records carry marked padding, so that a block that strays over a gap shows
// on the wire.
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
constexpr int kRecordsPerType = 2;

// A failed decode may hold a string block it never filled; marking every
// block makes such records encode alike on both sides.
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
// left alone.
template <class Lib, class Ref>
void same_output(Lib lib, Ref ref)
{
    uint32_t need = ref(nullptr, 0);
    for (uint32_t len : lengths(need)) {
        ASSERT_EQ(lib(nullptr, 0), need);
        ASSERT_EQ(encoded(lib, len), encoded(ref, len)) << "out_len " << len;
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
            void *rec = random_record(t, rng, pool, false).rec;
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
        for (bool with_map : {false, true}) {
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
        }
    }
}

}  // namespace
}  // namespace tarn::test
