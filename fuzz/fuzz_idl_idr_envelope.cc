// IDR envelope decoder over every member type. Properties beyond "no crash":
//  - a successful decode consumes exactly the envelope's size;
//  - decode, encode, decode again, encode again: both encodings are equal;
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

std::vector<uint8_t> encode(const rts_msg_t &msg)
{
    std::vector<uint8_t> out(idr_encode_rts_msg_0(&msg, nullptr, 0));
    FUZZ_CHECK(idr_encode_rts_msg_0(&msg, out.data(), static_cast<uint32_t>(out.size())) ==
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
    int32_t r = idr_decode_rts_msg_0(&msg, data, len, &TrackingAllocator::alloc, &a);
    uint64_t calls = a.calls;
    if (r > 0) {
        uint32_t whole = 0;
        FUZZ_CHECK(rtslib_idl_peek_length(&whole, data, len) && static_cast<uint32_t>(r) == whole);
        std::vector<uint8_t> first = encode(msg);
        TrackingAllocator b;
        rts_msg_t again;
        int32_t r2 = idr_decode_rts_msg_0(&again, first.data(), static_cast<uint32_t>(first.size()),
                                          &TrackingAllocator::alloc, &b);
        FUZZ_CHECK(r2 == static_cast<int32_t>(first.size()));
        FUZZ_CHECK(encode(again) == first);
        idr_release_rts_msg_0(&again, &TrackingAllocator::free, &b);
        FUZZ_CHECK(b.live.empty());
    }
    idr_release_rts_msg_0(&msg, &TrackingAllocator::free, &a);
    FUZZ_CHECK(a.live.empty());

    TrackingAllocator f;
    f.fail_at = tarn::fuzz::failing_call(data, size);
    int32_t rf = idr_decode_rts_msg_0(&msg, data, len, &TrackingAllocator::alloc, &f);
    if (f.fail_at <= calls) {
        FUZZ_CHECK(rf == TARN_IDL_E_ALLOC);
    } else {
        FUZZ_CHECK(rf == r);
    }
    idr_release_rts_msg_0(&msg, &TrackingAllocator::free, &f);
    FUZZ_CHECK(f.live.empty());

    static std::vector<uint8_t> arena(8u << 20);
    void *out = nullptr;
    static rtslib_cookie *quiet = [] {
        rtslib_cookie *h = rtslib_open_nc();
        rtslib_lib_error_register(h, nullptr, nullptr);  // reports dropped
        return h;
    }();
    int e = rtslib_msg_idl_decode_pa(quiet, data, len, &out, nullptr, arena.data(),
                                     static_cast<uint32_t>(arena.size()));
    if (len >= 4 && r > 0) FUZZ_CHECK(e == 0);
    return 0;
}
