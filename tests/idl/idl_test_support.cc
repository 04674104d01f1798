#include "idl_test_support.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace tarn::test {

using idlmeta::Field;
using idlmeta::FieldKind;
using idlmeta::Type;

namespace idlmeta {
const Type *find_type(const char *name)
{
    for (std::size_t i = 0; i < type_count; ++i)
        if (std::strcmp(types[i].name, name) == 0) return &types[i];
    return nullptr;
}
}  // namespace idlmeta

const Type &meta(const char *name)
{
    const Type *t = idlmeta::find_type(name);
    if (!t) throw std::runtime_error(std::string("no type ") + name);
    return *t;
}

void *CountingAllocator::alloc(uint32_t size, void *self)
{
    auto *a = static_cast<CountingAllocator *>(self);
    ++a->calls;
    if (a->fail_at && a->calls == a->fail_at) return nullptr;
    if (size > a->max_block) return nullptr;
    void *p = std::malloc(size ? size : 1);
    a->live[p] = size;
    return p;
}

void CountingAllocator::free(void *block, void *self)
{
    auto *a = static_cast<CountingAllocator *>(self);
    auto it = a->live.find(block);
    if (it == a->live.end()) throw std::runtime_error("free of a block not from this allocator");
    a->live.erase(it);
    std::free(block);
}

CountingAllocator::~CountingAllocator()
{
    for (auto &[p, size] : live) std::free(p);
}

void *Pool::get(std::size_t size)
{
    std::size_t n = (size + sizeof(std::max_align_t) - 1) / sizeof(std::max_align_t) + 1;
    blocks_.push_back(std::make_unique<std::max_align_t[]>(n));
    std::memset(blocks_.back().get(), fill_, n * sizeof(std::max_align_t));
    return blocks_.back().get();
}

namespace {

template <class T>
T &at(void *base, std::size_t off)
{
    return *reinterpret_cast<T *>(static_cast<uint8_t *>(base) + off);
}
template <class T>
const T &at(const void *base, std::size_t off)
{
    return *reinterpret_cast<const T *>(static_cast<const uint8_t *>(base) + off);
}

uint64_t scalar_value(FieldKind k, const void *p)
{
    switch (k) {
    case FieldKind::U8: return *static_cast<const uint8_t *>(p);
    case FieldKind::U16: return *static_cast<const uint16_t *>(p);
    case FieldKind::U32: return *static_cast<const uint32_t *>(p);
    case FieldKind::U64: return *static_cast<const uint64_t *>(p);
    default: return 0;
    }
}

uint32_t scalar_width(FieldKind k)
{
    switch (k) {
    case FieldKind::U8: return 1;
    case FieldKind::U16: return 2;
    case FieldKind::U32: return 4;
    case FieldKind::U64: return 8;
    default: return 0;
    }
}

void fill_into(const Type &t, void *rec, void *map, std::mt19937 &rng, Pool &pool, int depth)
{
    uint32_t bits = 0;
    for (uint32_t i = 0; i < t.field_count; ++i) {
        const Field &f = t.fields[i];
        bool present = map == nullptr || rng() % 3 != 0;
        if (present) bits |= 1u << f.bit;
        void *p = static_cast<uint8_t *>(rec) + f.offset;
        switch (f.kind) {
        case FieldKind::U8:
        case FieldKind::U16:
        case FieldKind::U32:
        case FieldKind::U64: {
            uint64_t v = (uint64_t{rng()} << 32) | rng();
            if (rng() % 4 == 0) v = 0;
            std::memcpy(p, &v, scalar_width(f.kind));
            break;
        }
        case FieldKind::Bytes: {
            uint32_t n = rng() % 20;
            auto *b = static_cast<uint8_t *>(n ? pool.get(n) : nullptr);
            for (uint32_t j = 0; j < n; ++j) b[j] = static_cast<uint8_t>(rng());
            at<uint8_t *>(rec, f.offset) = b;
            at<uint32_t>(rec, f.count_offset) = n;
            break;
        }
        case FieldKind::Record: {
            const Type &sub = idlmeta::types[f.sub];
            void *submap = map ? static_cast<uint8_t *>(map) + f.map_offset : nullptr;
            fill_into(sub, p, submap, rng, pool, depth + 1);
            break;
        }
        case FieldKind::Array: {
            const Type &sub = idlmeta::types[f.sub];
            uint32_t n = depth > 3 ? 0 : rng() % 4;
            auto **elems = static_cast<void **>(pool.get(sizeof(void *) * (n ? n : 1)));
            void *maps = map && n ? pool.get(sub.map_size * n) : nullptr;
            for (uint32_t j = 0; j < n; ++j) {
                elems[j] = pool.get(sub.size);
                void *em = maps ? static_cast<uint8_t *>(maps) + j * sub.map_size : nullptr;
                fill_into(sub, elems[j], em, rng, pool, depth + 1);
            }
            at<void **>(rec, f.offset) = n ? elems : nullptr;
            at<uint32_t>(rec, f.count_offset) = n;
            if (map) at<void *>(map, f.map_offset) = maps;
            break;
        }
        }
    }
    if (map) at<uint32_t>(map, 0) = bits;
}

std::string diff(const Type &t, const Field &f, const std::string &what)
{
    return std::string(t.name) + "." + f.name + ": " + what;
}

bool is_zero(const void *p, std::size_t n)
{
    auto *b = static_cast<const uint8_t *>(p);
    for (std::size_t i = 0; i < n; ++i)
        if (b[i]) return false;
    return true;
}

std::string compare_into(const Type &t, const void *src, const void *smap, const void *got,
                         const void *gmap)
{
    uint32_t sbits = smap ? at<uint32_t>(smap, 0) : ~0u;
    uint32_t gbits = gmap ? at<uint32_t>(gmap, 0) : 0;
    for (uint32_t i = 0; i < t.field_count; ++i) {
        const Field &f = t.fields[i];
        bool present = (sbits >> f.bit) & 1u;
        const void *sp = static_cast<const uint8_t *>(src) + f.offset;
        const void *gp = static_cast<const uint8_t *>(got) + f.offset;
        bool expect_bit = present;
        switch (f.kind) {
        case FieldKind::U8:
        case FieldKind::U16:
        case FieldKind::U32:
        case FieldKind::U64: {
            uint64_t want = present ? scalar_value(f.kind, sp) : 0;
            if (scalar_value(f.kind, gp) != want)
                return diff(t, f, "got " + std::to_string(scalar_value(f.kind, gp)) + ", want " +
                                      std::to_string(want));
            break;
        }
        case FieldKind::Bytes: {
            uint32_t sn = present ? at<uint32_t>(src, f.count_offset) : 0;
            uint32_t gn = at<uint32_t>(got, f.count_offset);
            const uint8_t *gb = at<uint8_t *>(got, f.offset);
            if (gn != sn) return diff(t, f, "length " + std::to_string(gn) + " != " + std::to_string(sn));
            if (sn == 0 && gb != nullptr) return diff(t, f, "empty string holds a block");
            if (sn && std::memcmp(gb, at<uint8_t *>(src, f.offset), sn) != 0)
                return diff(t, f, "bytes differ");
            break;
        }
        case FieldKind::Record: {
            const Type &sub = idlmeta::types[f.sub];
            if (!present) {
                if (!is_zero(gp, sub.size)) return diff(t, f, "absent record not zero");
                break;
            }
            std::string d = compare_into(
                sub, sp, smap ? static_cast<const uint8_t *>(smap) + f.map_offset : nullptr, gp,
                gmap ? static_cast<const uint8_t *>(gmap) + f.map_offset : nullptr);
            if (!d.empty()) return d;
            break;
        }
        case FieldKind::Array: {
            const Type &sub = idlmeta::types[f.sub];
            uint32_t sn = present ? at<uint32_t>(src, f.count_offset) : 0;
            uint32_t gn = at<uint32_t>(got, f.count_offset);
            expect_bit = sn > 0;  // an empty array sends no item
            if (gn != sn) return diff(t, f, "count " + std::to_string(gn) + " != " + std::to_string(sn));
            void *const *se = at<void **>(src, f.offset);
            void *const *ge = at<void **>(got, f.offset);
            if (sn == 0) {
                if (ge) return diff(t, f, "empty array holds a block");
                break;
            }
            const uint8_t *smaps = smap ? at<uint8_t *>(smap, f.map_offset) : nullptr;
            const uint8_t *gmaps = gmap ? at<uint8_t *>(gmap, f.map_offset) : nullptr;
            if (gmap && !gmaps) return diff(t, f, "no element maps");
            for (uint32_t j = 0; j < sn; ++j) {
                std::string d = compare_into(sub, se[j], smaps ? smaps + j * sub.map_size : nullptr,
                                             ge[j], gmaps ? gmaps + j * sub.map_size : nullptr);
                if (!d.empty()) return d + " [element " + std::to_string(j) + "]";
            }
            break;
        }
        }
        if (gmap && (((gbits >> f.bit) & 1u) != expect_bit))
            return diff(t, f, "presence bit " + std::to_string((gbits >> f.bit) & 1u));
    }
    return "";
}

uint32_t rd32(const uint8_t *p)
{
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

}  // namespace

RandomRecord random_record(const Type &t, std::mt19937 &rng, Pool &pool, bool with_map, int depth)
{
    RandomRecord r{pool.get(t.size), with_map ? pool.get(t.map_size) : nullptr};
    fill_into(t, r.rec, r.map, rng, pool, depth);
    return r;
}

std::string compare_records(const Type &t, const void *src, const void *src_map, const void *got,
                            const void *got_map)
{
    return compare_into(t, src, src_map, got, got_map);
}

std::string walk_tlv(const Type &t, const uint8_t *buf, uint32_t len)
{
    uint64_t pos = 0;
    int last_field = -1;
    uint32_t last_tag = 0;
    bool last_was_array = false;
    while (pos < len) {
        if (pos % 4) return "item at " + std::to_string(pos) + " not aligned";
        if (len - pos < 8) return "trailing fragment at " + std::to_string(pos);
        uint32_t tag = rd32(buf + pos), vlen = rd32(buf + pos + 4);
        if (vlen > len - pos - 8) return "item at " + std::to_string(pos) + " runs past the end";
        int idx = -1;
        for (uint32_t i = 0; i < t.field_count; ++i)
            if (t.fields[i].tag == tag) idx = static_cast<int>(i);
        if (idx < 0) return std::string(t.name) + ": unknown tag " + std::to_string(tag);
        const Field &f = t.fields[idx];
        bool repeat = idx == last_field && last_was_array && tag == last_tag;
        if (idx < last_field || (idx == last_field && !repeat))
            return std::string(t.name) + ": field " + f.name + " out of order";
        const uint8_t *v = buf + pos + 8;
        switch (f.kind) {
        case FieldKind::U8:
        case FieldKind::U16:
        case FieldKind::U32:
        case FieldKind::U64:
            if (vlen != scalar_width(f.kind))
                return std::string(t.name) + "." + f.name + ": width " + std::to_string(vlen);
            break;
        case FieldKind::Bytes: break;
        case FieldKind::Record:
        case FieldKind::Array: {
            if (vlen % 4) return std::string(t.name) + "." + f.name + ": nested length not 4-aligned";
            std::string d = walk_tlv(idlmeta::types[f.sub], v, vlen);
            if (!d.empty()) return d;
            break;
        }
        }
        uint64_t end = pos + 8 + vlen, next = (end + 3) & ~uint64_t{3};
        if (next > len) return "padding missing after " + std::string(f.name);
        for (uint64_t i = end; i < next; ++i)
            if (buf[i]) return "non-zero padding after " + std::string(f.name);
        last_field = idx;
        last_tag = tag;
        last_was_array = f.kind == FieldKind::Array;
        pos = next;
    }
    return "";
}

std::string hex(const uint8_t *p, std::size_t n)
{
    std::string s;
    char b[4];
    for (std::size_t i = 0; i < n; ++i) {
        std::snprintf(b, sizeof b, "%02x", p[i]);
        if (i) s += ' ';
        s += b;
    }
    return s;
}

}  // namespace tarn::test
