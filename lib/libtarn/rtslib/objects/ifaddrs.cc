#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "libtarn/os/os.h"
#include "libtarn/rtslib/objects/ifaddrs_walk.h"
#include "libtarn/rtslib/wire.h"
#include <tarn/idl.h>
#include <tarn/rtslib_if.h>

namespace tarn {
namespace {

constexpr uint32_t kNameSlot = 60;
constexpr uint32_t kSockaddrLen = 16;
constexpr uint32_t kSockaddrDataLen = kSockaddrLen - 4;  // behind length, family and port

// Address bytes the list copies for a prefix of p bits and for a
// destination of q bits.
constexpr uint32_t local_copy_len(uint32_t p) { return (p + 31) / 32 * 4; }
constexpr uint32_t dest_copy_len(uint32_t q) { return ((q + 31) / 8) & ~3u; }

bool fits(const uint8_t *bytes, uint32_t have, uint32_t need)
{
    return need <= kSockaddrDataLen && need <= have && (need == 0 || bytes != nullptr);
}

int fail(int error)
{
    errno = error;
    return -1;
}

// Calls on_ifl / on_ifa for the interface and address messages of the table
// in order, decoding each envelope into `arena`. Plain messages carry
// nothing the list reads and are stepped over. 0, or -1 with errno.
template <typename OnIfl, typename OnIfa>
int walk(rtslib_cookie *h, const uint8_t *table, size_t len, uint8_t *arena, OnIfl &&on_ifl,
         OnIfa &&on_ifa)
{
    size_t off = 0;
    while (len - off >= RTS_HDR_MIN_LEN) {
        const uint8_t *m = table + off;
        const uint32_t remain = len - off > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(len - off);
        uint32_t magic = 0;
        if (rtslib_idl_peek_magic(&magic, m, remain) == nullptr) return fail(EINVAL);
        uint32_t msg_len = 0;
        if (magic == 0) {
            msg_len = wire::load_u32(m + RTS_HDR_LEN_OFF);
            if (msg_len < RTS_HDR_MIN_LEN) break;
            if (msg_len > remain) return fail(EINVAL);
        } else {
            if (magic != RTS_IDL_MAGIC_IDR || rtslib_idl_peek_length(&msg_len, m, remain) == nullptr)
                return fail(EINVAL);
            if (msg_len < RTS_HDR_MIN_LEN) break;
            if (msg_len > remain) return fail(EINVAL);
            void *rec = nullptr;
            if (rtslib_msg_idl_decode_pa(h, m, msg_len, &rec, nullptr, arena, kIfaddrsDecodeSize) != 0)
                return fail(EINVAL);
            const auto *bytes = static_cast<const uint8_t *>(rec);
            if (bytes != nullptr && bytes[RTS_HDR_TYPE_OFF] == RTS_MSG_IFLOGICAL &&
                bytes[RTS_HDR_VERSION_OFF] == RTS_IFL_VERSION) {
                on_ifl(*static_cast<const ifl_msg_t *>(rec));
            } else if (bytes != nullptr && bytes[RTS_HDR_TYPE_OFF] == RTS_MSG_IFADDR &&
                       bytes[RTS_HDR_VERSION_OFF] == RTS_IFA_VERSION) {
                if (on_ifa(*static_cast<const ifa_msg_t *>(rec)) != 0) return -1;
            }
        }
        off += msg_len;
    }
    return 0;
}

// The interface of each address must be the one announced just before it.
struct InterfaceCheck {
    Interleaved interleaved;
    bool known = false;
    uint32_t index = 0;
    void interface(uint32_t i)
    {
        known = true;
        index = i;
    }
    // False (EINVAL) when the address may not stand here.
    bool address(uint32_t i) const
    {
        if (!known || index == i) return true;
        if (interleaved == Interleaved::abort) std::abort();
        errno = EINVAL;
        return false;
    }
};

void put_sockaddr(uint8_t *sa, const void *data, uint32_t len)
{
    sa[0] = kSockaddrLen;
    sa[1] = TARN_AF_INET;
    if (len > 0) std::memcpy(sa + 4, data, len);
}

}  // namespace

int ifaddrs_from_table(rtslib_cookie *h, const uint8_t *table, size_t len, ifaddrs **list_out,
                       Interleaved interleaved)
{
    *list_out = nullptr;
    auto *arena = static_cast<uint8_t *>(std::malloc(kIfaddrsDecodeSize));
    if (arena == nullptr) return fail(ENOMEM);

    // Counting: one spare record takes the flags of an interface with no
    // address after it.
    size_t records = 1, addr_bytes = 0, name_bytes = 0;
    InterfaceCheck check{interleaved};
    int rc = walk(
        h, table, len, arena, [&](const ifl_msg_t &ifl) { check.interface(ifl.iflm_index); },
        [&](const ifa_msg_t &ifa) {
            if (ifa.ifam_af != TARN_AF_INET) return 0;
            if (!check.address(ifa.ifam_index)) return -1;
            if ((ifa.ifam_local_plen > 0 &&
                 !fits(ifa.ifam_local, ifa.ifam_local_len, local_copy_len(ifa.ifam_local_plen))) ||
                (ifa.ifam_dest_plen > 0 &&
                 !fits(ifa.ifam_dest, ifa.ifam_dest_len, dest_copy_len(ifa.ifam_dest_plen))))
                return fail(EINVAL);
            ++records;
            name_bytes += kNameSlot;
            if (ifa.ifam_dest_plen > 0) addr_bytes += kSockaddrLen;
            if (ifa.ifam_local_plen > 0) addr_bytes += 2 * kSockaddrLen;
            return 0;
        });
    if (rc != 0 || records == 1) {
        std::free(arena);
        return rc;
    }

    const size_t array_bytes = records * sizeof(ifaddrs);
    auto *block = static_cast<uint8_t *>(std::calloc(1, array_bytes + addr_bytes + name_bytes));
    if (block == nullptr) {
        std::free(arena);
        return fail(ENOMEM);
    }
    auto *array = reinterpret_cast<ifaddrs *>(block);
    uint8_t *addr = block + array_bytes;
    char *names = reinterpret_cast<char *>(addr + addr_bytes);
    size_t filled = 0;
    check = InterfaceCheck{interleaved};
    rc = walk(
        h, table, len, arena,
        [&](const ifl_msg_t &ifl) {
            check.interface(ifl.iflm_index);
            // Only the record being built, the interface's first address,
            // carries the interface's flags.
            if ((ifl.iflm_flags & 3u) == 0) array[filled].ifa_flags |= 1;
            if ((ifl.iflm_flags & 0x10000u) != 0) array[filled].ifa_flags |= 16;
        },
        [&](const ifa_msg_t &ifa) {
            if (ifa.ifam_af != TARN_AF_INET) return 0;
            if (!check.address(ifa.ifam_index)) return -1;
            ifaddrs &r = array[filled];
            char *name = names + filled * kNameSlot;
            const size_t n = ifa.name == nullptr
                                 ? 0
                                 : strnlen(reinterpret_cast<const char *>(ifa.name),
                                           ifa.name_len < kNameSlot - 1 ? ifa.name_len
                                                                        : kNameSlot - 1);
            if (n > 0) std::memcpy(name, ifa.name, n);
            name[kNameSlot - 1] = '\0';
            std::snprintf(name + n, kNameSlot - 1 - n, ".%d", static_cast<int>(ifa.ifam_unit));
            r.ifa_name = name;
            if (ifa.ifam_local_plen > 0) {
                const uint32_t p = ifa.ifam_local_plen;
                put_sockaddr(addr, ifa.ifam_local, local_copy_len(p));
                const uint32_t mask = htonl(0xFFFFFFFFu << ((32 - p) % 32));
                put_sockaddr(addr + kSockaddrLen, &mask, sizeof mask);
                r.ifa_addr = reinterpret_cast<sockaddr *>(addr);
                r.ifa_netmask = reinterpret_cast<sockaddr *>(addr + kSockaddrLen);
                addr += 2 * kSockaddrLen;
            }
            if (ifa.ifam_dest_plen > 0) {
                put_sockaddr(addr, ifa.ifam_dest, dest_copy_len(ifa.ifam_dest_plen));
                r.ifa_dstaddr = reinterpret_cast<sockaddr *>(addr);
                addr += kSockaddrLen;
            }
            r.ifa_next = &array[filled + 1];
            ++filled;
            return 0;
        });
    std::free(arena);
    if (rc != 0 || filled == 0) {
        std::free(block);
        return rc;
    }
    array[filled - 1].ifa_next = nullptr;
    *list_out = array;
    return 0;
}

}  // namespace tarn

extern "C" {

int wrl_getifaddrs(ifaddrs **list_out)
{
    if (list_out == nullptr) {
        errno = EINVAL;
        return -1;
    }
    *list_out = nullptr;
    size_t size = 0;
    if (tarn::os::route_iflist(RTSLIB_IFLIST_ADDRESSES, nullptr, &size) != 0) return -1;
    auto *table = static_cast<uint8_t *>(std::malloc(size > 0 ? size : 1));
    if (table == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    int rc = -1;
    if (tarn::os::route_iflist(RTSLIB_IFLIST_ADDRESSES, table, &size) != 0) {
        if (errno == ENOMEM) errno = EAGAIN;  // the table grew between the reads
    } else if (rtslib_cookie *h = rtslib_open_nc(); h == nullptr) {
        errno = ENOMEM;
    } else {
        rc = tarn::ifaddrs_from_table(h, table, size, list_out);
        const int saved = errno;
        rtslib_close(h);
        errno = saved;
    }
    std::free(table);
    return rc;
}

void wrl_freeifaddrs(ifaddrs *list)
{
    std::free(list);
}

}  // extern "C"
