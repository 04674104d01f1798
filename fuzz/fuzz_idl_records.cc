// Every generated record type on its own, in both encodings, so that types
// no envelope member reaches (the TLV-only and fixed-layout-only families)
// are explored too. Input: the type's name, a NUL, a mode byte (bit 0: the
// fixed-layout encoding), then the body. Properties beyond "no crash":
//  - a successful decode consumes no more than the body;
//  - decode, encode, decode again, encode again: both encodings are equal and
//    the second decode consumes the whole first encoding;
//  - release hands back every block the decoder obtained, also after an
//    allocation failure injected at an input-chosen call, which must surface
//    as "Allocation Failure" whenever the clean decode got that far.
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "idl_fuzz_support.h"
#include "idl_meta.h"

using tarn::fuzz::TrackingAllocator;
namespace idlmeta = tarn::test::idlmeta;

namespace {

const idlmeta::Type *type_named(const std::string &name)
{
    static const std::map<std::string, const idlmeta::Type *> by_name = [] {
        std::map<std::string, const idlmeta::Type *> m;
        for (std::size_t i = 0; i < idlmeta::type_count; ++i)
            m[idlmeta::types[i].name] = &idlmeta::types[i];
        return m;
    }();
    auto it = by_name.find(name);
    return it == by_name.end() ? nullptr : it->second;
}

// A zeroed record and map of one type, freed on scope exit.
struct Slot {
    explicit Slot(const idlmeta::Type &t)
        : rec(std::calloc(1, t.size)), map(std::calloc(1, t.map_size ? t.map_size : 1))
    {
    }
    ~Slot()
    {
        std::free(rec);
        std::free(map);
    }
    Slot(const Slot &) = delete;
    Slot &operator=(const Slot &) = delete;
    void *rec;
    void *map;
};

int32_t decode(const idlmeta::Type &t, bool idr, Slot &s, const uint8_t *in, uint32_t len,
               TrackingAllocator &a)
{
    return idr ? t.idr_decode(s.rec, in, len, &TrackingAllocator::alloc, &a)
               : t.tlv_decode(s.rec, s.map, in, len, &TrackingAllocator::alloc, &a);
}

void release(const idlmeta::Type &t, bool idr, Slot &s, TrackingAllocator &a)
{
    if (idr)
        t.idr_release(s.rec, &TrackingAllocator::free, &a);
    else
        t.tlv_release(s.rec, s.map, &TrackingAllocator::free, &a);
}

std::vector<uint8_t> encode(const idlmeta::Type &t, bool idr, const Slot &s)
{
    uint32_t need = idr ? t.idr_encode(s.rec, nullptr, 0) : t.tlv_encode(s.rec, s.map, nullptr, 0);
    std::vector<uint8_t> out(need);
    uint32_t got = idr ? t.idr_encode(s.rec, out.data(), need)
                       : t.tlv_encode(s.rec, s.map, out.data(), need);
    FUZZ_CHECK(got == need);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > (1u << 16)) return 0;
    const void *nul = std::memchr(data, 0, size < 80 ? size : 80);
    if (!nul) return 0;
    std::size_t name_len = static_cast<const uint8_t *>(nul) - data;
    if (name_len + 2 > size) return 0;
    const idlmeta::Type *t = type_named(std::string(reinterpret_cast<const char *>(data), name_len));
    if (!t) return 0;
    bool idr = data[name_len + 1] & 1;
    if (idr ? !t->idr_decode : !t->tlv_decode) return 0;
    const uint8_t *body = data + name_len + 2;
    auto len = static_cast<uint32_t>(size - name_len - 2);

    TrackingAllocator a;
    Slot s(*t);
    int32_t r = decode(*t, idr, s, body, len, a);
    uint64_t calls = a.calls;
    if (r > 0) {
        FUZZ_CHECK(static_cast<uint32_t>(r) <= len);
        std::vector<uint8_t> first = encode(*t, idr, s);
        TrackingAllocator b;
        Slot again(*t);
        int32_t r2 = decode(*t, idr, again, first.data(), static_cast<uint32_t>(first.size()), b);
        FUZZ_CHECK(first.empty() ? r2 >= 0 : r2 == static_cast<int32_t>(first.size()));
        FUZZ_CHECK(encode(*t, idr, again) == first);
        release(*t, idr, again, b);
        FUZZ_CHECK(b.live.empty());
    }
    release(*t, idr, s, a);
    FUZZ_CHECK(a.live.empty());

    // The same input with one allocation failing.
    TrackingAllocator f;
    f.fail_at = tarn::fuzz::failing_call(data, size);
    Slot faulty(*t);
    int32_t rf = decode(*t, idr, faulty, body, len, f);
    if (f.fail_at <= calls)
        FUZZ_CHECK(rf == TARN_IDL_E_ALLOC);
    else
        FUZZ_CHECK(rf == r);
    release(*t, idr, faulty, f);
    FUZZ_CHECK(f.live.empty());
    return 0;
}
