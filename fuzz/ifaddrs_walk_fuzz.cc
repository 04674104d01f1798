// The interface-address walk over arbitrary interface tables. Beyond "no
// crash, no overread, no leak": a list it hands out has names ending within
// their 60-byte slots, and every socket address it points to is a 16-byte
// IPv4 one; the netmask is contiguous ones.
#include <arpa/inet.h>

#include <cstdint>
#include <cstring>

#include "idl_fuzz_support.h"
#include "libtarn/rtslib/objects/ifaddrs_walk.h"
#include <tarn/tarn.h>

namespace {

void check_sockaddr(const sockaddr *sa)
{
    if (sa == nullptr) return;
    const auto *b = reinterpret_cast<const uint8_t *>(sa);
    FUZZ_CHECK(b[0] == 16 && b[1] == TARN_AF_INET);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static rtslib_cookie *h = [] {
        rtslib_cookie *c = rtslib_open_nc();
        rtslib_lib_error_register(c, nullptr, nullptr);
        return c;
    }();
    ifaddrs *list = nullptr;
    const int rc = tarn::ifaddrs_from_table(h, data, size, &list, tarn::Interleaved::fail);
    FUZZ_CHECK(rc == 0 || list == nullptr);
    size_t n = 0;
    for (const ifaddrs *r = list; r != nullptr; r = r->ifa_next) {
        FUZZ_CHECK(++n <= size / RTS_HDR_MIN_LEN);
        FUZZ_CHECK(std::memchr(r->ifa_name, 0, 60) != nullptr);
        check_sockaddr(r->ifa_addr);
        check_sockaddr(r->ifa_netmask);
        check_sockaddr(r->ifa_dstaddr);
        if (r->ifa_netmask != nullptr) {
            uint32_t mask = 0;
            std::memcpy(&mask, reinterpret_cast<const uint8_t *>(r->ifa_netmask) + 4, 4);
            mask = ntohl(mask);
            FUZZ_CHECK((mask & (~mask >> 1)) == 0 || mask == 0xFFFFFFFFu);
        }
    }
    wrl_freeifaddrs(list);
    return 0;
}
