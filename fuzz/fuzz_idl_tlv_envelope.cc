// TLV envelope decoder over every member type. Properties beyond "no crash":
//  - a successful decode consumes exactly the envelope's size;
//  - decode, encode, decode again, encode again: both encodings are equal, and
//    equal to what the decoder consumed when the input had no unknown items;
//  - release hands back every block the decoder obtained, also after an
//    allocation failure injected at an input-chosen call, which must surface
//    as "Allocation Failure" whenever the clean decode got that far;
//  - the arena entry point agrees with the plain decoder.
#include <cstring>
#include <vector>

#include <tarn/idl.h>

#include "idl_fuzz_support.h"

using tarn::fuzz::TrackingAllocator;

namespace {

std::vector<uint8_t> encode(const rts_msg_t &msg, const rts_msg_map_t &map)
{
    std::vector<uint8_t> out(tlv_encode_rts_msg_0(&msg, &map, nullptr, 0));
    FUZZ_CHECK(tlv_encode_rts_msg_0(&msg, &map, out.data(), static_cast<uint32_t>(out.size())) ==
               out.size());
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > (1u << 16)) return 0;
    auto len = static_cast<uint32_t>(size);
    TrackingAllocator a;
    rts_msg_t msg;
    rts_msg_map_t map;
    int32_t r = tlv_decode_rts_msg_0(&msg, &map, data, len, &TrackingAllocator::alloc, &a);
    uint64_t calls = a.calls;
    if (r > 0) {
        uint32_t whole = 0;
        FUZZ_CHECK(rtslib_idl_peek_length(&whole, data, len) && static_cast<uint32_t>(r) == whole);
        std::vector<uint8_t> first = encode(msg, map);
        TrackingAllocator b;
        rts_msg_t again;
        rts_msg_map_t again_map;
        int32_t r2 = tlv_decode_rts_msg_0(&again, &again_map, first.data(),
                                          static_cast<uint32_t>(first.size()),
                                          &TrackingAllocator::alloc, &b);
        FUZZ_CHECK(r2 == static_cast<int32_t>(first.size()));
        FUZZ_CHECK(encode(again, again_map) == first);
        tlv_release_rts_msg_0(&again, &again_map, &TrackingAllocator::free, &b);
        FUZZ_CHECK(b.live.empty());
    }
    tlv_release_rts_msg_0(&msg, &map, &TrackingAllocator::free, &a);
    FUZZ_CHECK(a.live.empty());

    // The same input with one allocation failing.
    TrackingAllocator f;
    f.fail_at = tarn::fuzz::failing_call(data, size);
    int32_t rf = tlv_decode_rts_msg_0(&msg, &map, data, len, &TrackingAllocator::alloc, &f);
    if (f.fail_at <= calls) {
        FUZZ_CHECK(rf == TARN_IDL_E_ALLOC);
    } else {
        FUZZ_CHECK(rf == r);
    }
    tlv_release_rts_msg_0(&msg, &map, &TrackingAllocator::free, &f);
    FUZZ_CHECK(f.live.empty());

    // Arena decoding: success exactly when the plain decoder succeeded (the
    // arena is large enough for anything a 64 KiB input can ask for here).
    static std::vector<uint8_t> arena(8u << 20);
    void *out = nullptr, *out_map = nullptr;
    static rtslib_cookie *quiet = [] {
        rtslib_cookie *h = rtslib_open_nc();
        rtslib_lib_error_register(h, nullptr, nullptr);  // reports dropped
        return h;
    }();
    int e = rtslib_msg_idl_decode_pa(quiet, data, len, &out, &out_map, arena.data(),
                                     static_cast<uint32_t>(arena.size()));
    if (len >= 4 && r > 0) FUZZ_CHECK(e == 0);
    return 0;
}
