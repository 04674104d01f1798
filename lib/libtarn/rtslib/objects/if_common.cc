#include "libtarn/rtslib/objects/if_common.h"

#include <cstring>

namespace tarn {

uint8_t *place_name(RequestBuffer &rb, const char *name, uint32_t *len)
{
    const size_t n = strnlen(name, RTSLIB_IFNAME_MAX - 1);
    uint8_t *at = rb.take(static_cast<uint32_t>(n + 1));
    if (at == nullptr) return nullptr;
    std::memcpy(at, name, n);  // the NUL is the buffer's zero fill
    *len = static_cast<uint32_t>(n + 1);
    return at;
}

bool place_sockaddr(RequestBuffer &rb, const void *address, idl_sockaddr_gen_t ***slot,
                    uint32_t *count)
{
    const auto *bytes = static_cast<const uint8_t *>(address);
    if (bytes == nullptr || bytes[0] == 0) return true;
    auto *elem = reinterpret_cast<idl_sockaddr_gen_t **>(
        rb.take(sizeof(idl_sockaddr_gen_t *), alignof(idl_sockaddr_gen_t *)));
    auto *sa = reinterpret_cast<idl_sockaddr_gen_t *>(
        rb.take(sizeof(idl_sockaddr_gen_t), alignof(idl_sockaddr_gen_t)));
    uint8_t *copy = rb.take((bytes[0] + 3u) & ~3u);
    if (elem == nullptr || sa == nullptr || copy == nullptr) return false;
    std::memcpy(copy, bytes, bytes[0]);
    sa->sa_len = bytes[0];
    sa->sa_family = bytes[0] > 1 ? bytes[1] : 0;
    sa->sa_addr = copy;
    sa->sa_addr_len = (bytes[0] + 3u) & ~3u;
    *elem = sa;
    *slot = elem;
    *count = 1;
    return true;
}

}  // namespace tarn
