#include <sys/socket.h>

#include <netinet/in.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "libtarn/os/os.h"
#include "libtarn/rtslib/objects/if_common.h"
#include <tarn/rtslib_msg.h>

namespace {

using tarn::Answer;
using tarn::RequestBuffer;

// The selector of a logical-interface request; unset fields stay zero.
struct IflKey {
    uint32_t index = 0;
    uint32_t snmp_index = 0;
    uint16_t device_index = 0;
    uint32_t unit = 0;
    uint32_t sid_high = 0;
    uint32_t sid_low = 0;
    const char *name = nullptr;
};

ifl_msg_t *new_ifl(RequestBuffer &rb, uint8_t op, const IflKey &key)
{
    auto *ifl = rb.record<ifl_msg_t>();
    tarn::init_header(ifl->hdr, RTS_IFL_VERSION, RTS_MSG_IFLOGICAL, op, RTS_IFL_FIXED_LEN);
    ifl->iflm_index = key.index;
    ifl->iflm_snmp_id = key.snmp_index;
    ifl->iflm_devindex = key.device_index;
    ifl->iflm_unit = key.unit;
    ifl->iflm_sid_high = key.sid_high;
    ifl->iflm_sid_low = key.sid_low;
    if (key.name != nullptr) {
        ifl->name = tarn::place_name(rb, key.name, &ifl->name_len);
        if (ifl->name == nullptr) return nullptr;
    }
    return ifl;
}

int get_ifl(rtslib_cookie *h, const IflKey &key, uint8_t op, ifl_msg_t **reply_out,
            uint32_t *reply_len, bool name_needed = false)
{
    if (int rc = tarn::check_request(h, !name_needed || key.name != nullptr, true, reply_out);
        rc != 0)
        return rc;
    if (reply_len != nullptr) *reply_len = 0;
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    ifl_msg_t *ifl = new_ifl(rb, op, key);
    if (ifl == nullptr) return EINVAL;
    return tarn::send_idl(h, &ifl->hdr, tarn::long_answer(reinterpret_cast<void **>(reply_out)));
}

// A change the kernel does not answer, sent unnumbered as the kernel expects
// of interface changes.
int send_change(rtslib_cookie *h, ifl_msg_t *ifl)
{
    Answer none;
    none.stamp = false;
    return tarn::send_idl(h, &ifl->hdr, none);
}

// The device name of a reply, however the kernel terminated it.
int name_len(const ifl_msg_t &r)
{
    if (r.name == nullptr) return 0;
    return static_cast<int>(strnlen(reinterpret_cast<const char *>(r.name), r.name_len));
}

int fail(int error)
{
    errno = error;
    return -1;
}

// One lookup on a handle of its own: `use` sees the reply when the kernel
// found the interface. 0, the error number, or -1 (errno set) when no
// handle could be opened.
template <typename Use> int lookup(rtslib_cookie *h, const IflKey &key, Use &&use)
{
    ifl_msg_t *reply = nullptr;
    int rc = get_ifl(h, key, RTS_OP_GET, &reply, nullptr);
    if (rc == 0 && reply->hdr.error != 0) rc = tarn::os::kernel_errno(reply->hdr.error);
    if (rc == 0) rc = use(*reply);
    rtslib_msg_idl_release(h, reply);
    return rc;
}

template <typename Use> int lookup(const IflKey &key, Use &&use)
{
    tarn::OwnHandle h;
    if (h.get() == nullptr) {
        if (errno == 0) errno = ENOMEM;
        return -1;
    }
    return lookup(h.get(), key, use);
}

// A lookup in the ifl_ style: -1 with errno on any failure.
template <typename Use> int lookup_or_errno(const IflKey &key, Use &&use)
{
    int rc = lookup(key, use);
    return rc > 0 ? fail(rc) : rc;
}

int pick_index(const ifl_msg_t &r)
{
    return static_cast<int>(r.iflm_index);
}

int pick_lr_index(const ifl_msg_t &r)
{
    return r.iflm_lr_index;
}

// One number of the interface `key` selects; -1 with errno on failure.
int lookup_number(const IflKey &key, int (*pick)(const ifl_msg_t &))
{
    int result = -1;
    int rc = lookup_or_errno(key, [&](const ifl_msg_t &r) {
        result = pick(r);
        return 0;
    });
    return rc == 0 ? result : -1;
}

// "dev.unit" into device and unit; false (EINVAL) when it does not fit.
bool split_name(const char *name, char (&device)[RTSLIB_IFNAME_MAX], uint32_t *unit)
{
    if (ifl_get_device_name(name, device, sizeof device, unit) != 0) return false;
    if (*unit == 0xFFFFFFFFu) *unit = 0;
    return true;
}

int index_by_name(const char *name, bool want_lr)
{
    if (name == nullptr || name[0] == '\0') return fail(EINVAL);
    char device[RTSLIB_IFNAME_MAX];
    IflKey key;
    if (!split_name(name, device, &key.unit)) return fail(EINVAL);
    key.name = device;
    return lookup_number(key, want_lr ? pick_lr_index : pick_index);
}

int format_name(const IflKey &key, char *buffer, size_t size)
{
    if (buffer == nullptr) return fail(EINVAL);
    return lookup_or_errno(key, [&](const ifl_msg_t &r) {
        std::snprintf(buffer, size, "%.*s.%u", name_len(r), reinterpret_cast<const char *>(r.name),
                      r.iflm_unit);
        return 0;
    });
}

// The kernel keeps chains of underlying interfaces short; a longer one is a
// loop, which must not hang the caller.
constexpr int kMaxUnderlyingHops = 64;

// The process-wide handle of the C library's lookups.
rtslib_cookie *shared_handle()
{
    static rtslib_cookie *shared = nullptr;
    if (shared == nullptr) shared = rtslib_open(3);
    return shared;
}

}  // namespace

extern "C" {

int rtslib_iflm_get_by_index(rtslib_cookie *h, uint32_t index, uint8_t op, ifl_msg_t **reply_out,
                             uint32_t *reply_len)
{
    return get_ifl(h, IflKey{.index = index}, op, reply_out, reply_len);
}

int rtslib_iflm_get_by_snmp_index(rtslib_cookie *h, uint32_t snmp_index, uint8_t op,
                                  ifl_msg_t **reply_out, uint32_t *reply_len)
{
    return get_ifl(h, IflKey{.snmp_index = snmp_index}, op, reply_out, reply_len);
}

int rtslib_iflm_get_by_device(rtslib_cookie *h, uint16_t device_index, uint32_t unit, uint8_t op,
                              ifl_msg_t **reply_out, uint32_t *reply_len)
{
    return get_ifl(h, IflKey{.device_index = device_index, .unit = unit}, op, reply_out,
                   reply_len);
}

int rtslib_iflm_get_by_name(rtslib_cookie *h, const char *name, uint32_t unit, uint8_t op,
                            ifl_msg_t **reply_out, uint32_t *reply_len)
{
    return get_ifl(h, IflKey{.unit = unit, .name = name}, op, reply_out, reply_len, true);
}

int rtslib_iflm_get_by_sid(rtslib_cookie *h, uint32_t sid_high, uint32_t sid_low, uint8_t op,
                           ifl_msg_t **reply_out, uint32_t *reply_len)
{
    return get_ifl(h, IflKey{.sid_high = sid_high, .sid_low = sid_low}, op, reply_out, reply_len);
}

int rtslib_iflm_update(rtslib_cookie *h, uint32_t index, uint16_t device_index, uint32_t unit,
                       uint32_t snmp_index, const char *name, const void *address, uint8_t op)
{
    if (int rc = tarn::check_request(h, true); rc != 0) return rc;
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    IflKey key{index, snmp_index, device_index, unit, 0, 0, name};
    ifl_msg_t *ifl = new_ifl(rb, op, key);
    if (ifl == nullptr || !tarn::place_sockaddr(rb, address, &ifl->addr, &ifl->addr_count))
        return EINVAL;
    return send_change(h, ifl);
}

int rtslib_iflm_update_flags(rtslib_cookie *h, uint32_t index, uint16_t device_index,
                             uint32_t unit, uint32_t snmp_index, const char *name, uint32_t flags,
                             uint8_t op)
{
    if (int rc = tarn::check_request(h, true); rc != 0) return rc;
    if (op != RTS_OP_CHANGE) return EOPNOTSUPP;
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    IflKey key{index, snmp_index, device_index, unit, 0, 0, name};
    ifl_msg_t *ifl = new_ifl(rb, op, key);
    if (ifl == nullptr) return EINVAL;
    ifl->iflm_flags = flags;
    return send_change(h, ifl);
}

int rtslib_iflm_pointchange_tlv(rtslib_cookie *h, uint32_t index, uint16_t device_index,
                                uint32_t unit, uint32_t snmp_index, const char *name,
                                const void *tlvs, uint32_t tlv_length)
{
    if (int rc = tarn::check_request(h, tlvs != nullptr); rc != 0) return rc;
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    IflKey key{index, snmp_index, device_index, unit, 0, 0, name};
    ifl_msg_t *ifl = new_ifl(rb, RTS_OP_CHANGE, key);
    if (ifl == nullptr) return ENOMEM;
    ifl->iflm_changed = RTSLIB_IFL_POINT_CHANGE;
    if (int rc = tarn::place_tlvs(rb, ifl->hdr, static_cast<const uint8_t *>(tlvs), tlv_length);
        rc != 0)
        return rc;
    return send_change(h, ifl);
}

int ifl_get_device_name(const char *name, char *buffer, size_t size, uint32_t *unit)
{
    if (name == nullptr || buffer == nullptr || unit == nullptr) return fail(EINVAL);
    const size_t n = std::strlen(name);
    if (n >= size) return fail(EINVAL);
    std::memcpy(buffer, name, n + 1);
    char *dot = std::strrchr(buffer, '.');
    if (dot == nullptr) {
        *unit = 0xFFFFFFFFu;
    } else {
        *dot = '\0';
        *unit = static_cast<uint32_t>(std::strtoul(dot + 1, nullptr, 10));
    }
    return 0;
}

int ifl_getindexbyifname(const char *name)
{
    return index_by_name(name, false);
}

int ifl_getlrindexbyifname(const char *name)
{
    return index_by_name(name, true);
}

int ifl_getindexbysnmpifindex(uint32_t snmp_index)
{
    return lookup_number(IflKey{.snmp_index = snmp_index}, pick_index);
}

int ifl_getlrindexbyifindex(uint32_t index)
{
    return lookup_number(IflKey{.index = index}, pick_lr_index);
}

int ifl_getnamebyifindex(uint32_t index, char *buffer, size_t size)
{
    return format_name(IflKey{.index = index}, buffer, size);
}

int ifl_getnamebysnmpifindex(uint32_t snmp_index, char *buffer, size_t size)
{
    const int index = ifl_getindexbysnmpifindex(snmp_index);
    if (index < 0) return -1;
    return ifl_getnamebyifindex(static_cast<uint32_t>(index), buffer, size);
}

int ifl_get_underlying_device_byifindex(uint32_t index, char *buffer, size_t size)
{
    if (index == 0) return 0;
    if (buffer == nullptr) return fail(EINVAL);
    tarn::OwnHandle h;
    if (h.get() == nullptr) return -1;
    IflKey key;
    key.index = index;
    for (int hop = 0; hop < kMaxUnderlyingHops; ++hop) {
        bool last = false;
        int rc = lookup(h.get(), key, [&](const ifl_msg_t &r) {
            key.index = r.iflm_underlying_index;
            if (key.index != 0) return 0;
            last = true;
            if (size > 0) {
                const size_t n = static_cast<size_t>(name_len(r));
                const size_t copy = n < size ? n : size - 1;
                std::memcpy(buffer, r.name, copy);
                buffer[copy] = '\0';
            }
            return 0;
        });
        if (rc != 0) return fail(rc);
        if (last) return 0;
    }
    return fail(ELOOP);
}

int ifl_get_subset_iif(uint32_t index, uint32_t subset, uint8_t *value)
{
    if (subset > RTSLIB_IFL_SUBSET_MAX || value == nullptr) return EINVAL;
    IflKey key;
    key.index = index;
    return lookup(key, [&](const ifl_msg_t &r) {
        *value = static_cast<uint8_t>((r.iflm_subset_iif >> subset) & 1u);
        return 0;
    });
}

int ifl_set_subset_iif(uint32_t index, uint32_t subset, uint8_t value)
{
    if (subset > RTSLIB_IFL_SUBSET_MAX) return EINVAL;
    tarn::OwnHandle h;
    if (h.get() == nullptr) return -1;
    RequestBuffer rb(h.get());
    if (!rb.ok()) return ENOMEM;
    IflKey key;
    key.index = index;
    ifl_msg_t *ifl = new_ifl(rb, RTS_OP_CHANGE, key);
    auto **slot = reinterpret_cast<rts_msg_info_t **>(
        rb.take(sizeof(rts_msg_info_t *), alignof(rts_msg_info_t *)));
    auto *info = reinterpret_cast<rts_msg_info_t *>(
        rb.take(sizeof(rts_msg_info_t), alignof(rts_msg_info_t)));
    if (ifl == nullptr || slot == nullptr || info == nullptr) return ENOMEM;
    ifl->iflm_changed = RTSLIB_IFL_POINT_CHANGE;
    info->subset_iif.subset = static_cast<uint8_t>(subset);
    info->subset_iif.value = value;
    *slot = info;
    ifl->hdr.info = slot;
    ifl->hdr.info_count = 1;
    return send_change(h.get(), ifl);
}

int ifl_setsendifbyifindex(int socket, uint32_t index)
{
    sockaddr_storage ss{};
    socklen_t len = 16;  // the target's sockaddr: its family is all that is read
    if (::getsockname(socket, reinterpret_cast<sockaddr *>(&ss), &len) != 0) return -1;
    if (len == 0) return fail(EPROTONOSUPPORT);
    int family = 0;
    if (ss.ss_family == AF_INET) family = TARN_AF_INET;
    else if (ss.ss_family == AF_INET6) family = TARN_AF_INET6;
    else return fail(EPROTONOSUPPORT);
    return tarn::os::set_send_interface(socket, family, index);
}

int ifl_setsendifbyifname(int socket, const char *name)
{
    const int index = ifl_getindexbyifname(name);
    if (index < 0) return -1;
    return ifl_setsendifbyifindex(socket, static_cast<uint32_t>(index));
}

int ifl_setsendifbysnmpifindex(int socket, uint32_t snmp_index)
{
    const int index = ifl_getindexbysnmpifindex(snmp_index);
    if (index < 0) return -1;
    return ifl_setsendifbyifindex(socket, static_cast<uint32_t>(index));
}

// The C library's lookups. They are declared noexcept as <net/if.h> declares them,
// so that its declarations and these definitions agree.
#ifdef __THROW
#define TARN_LIBC_FN noexcept
#else
#define TARN_LIBC_FN
#endif

TARN_API unsigned int if_nametoindex(const char *name) TARN_LIBC_FN
{
    rtslib_cookie *h = shared_handle();
    ifl_msg_t *reply = nullptr;
    // The whole name, unit 0: callers pass what the kernel calls the device.
    if (h == nullptr || name == nullptr ||
        rtslib_iflm_get_by_name(h, name, 0, RTS_OP_GET, &reply, nullptr) != 0 ||
        reply->hdr.error != 0) {
        rtslib_msg_idl_release(h, reply);
        errno = ENXIO;
        return 0;
    }
    const unsigned int index = reply->iflm_index;
    rtslib_msg_idl_release(h, reply);
    return index;
}

TARN_API char *if_indextoname(unsigned int index, char *buffer) TARN_LIBC_FN
{
    rtslib_cookie *h = shared_handle();
    if (h == nullptr || buffer == nullptr) {
        errno = ENXIO;
        return nullptr;
    }
    IflKey key;
    key.index = index;
    int rc = lookup(h, key, [&](const ifl_msg_t &r) {
        std::snprintf(buffer, RTSLIB_IFNAME_MAX, "%.*s.%u", name_len(r),
                      reinterpret_cast<const char *>(r.name), r.iflm_unit);
        return 0;
    });
    if (rc != 0) {
        errno = ENXIO;
        return nullptr;
    }
    return buffer;
}

// The array has one hidden pair after its terminator: the list its names
// point into, released with it.
TARN_API struct if_nameindex *if_nameindex(void) TARN_LIBC_FN
{
    rtslib_cookie *h = shared_handle();
    rtslib_msg_list *list = nullptr;
    if (h == nullptr || rtslib_iflm_get_all(h, &list) != 0) return nullptr;
    const bool records = list->kind == RTSLIB_MSG_LIST_FILLED && list->type == RTS_MSG_IFLOGICAL;
    const uint16_t count = records ? list->count : 0;
    auto *pairs = static_cast<struct if_nameindex *>(
        std::calloc(count + 2u, sizeof(struct if_nameindex)));
    if (pairs == nullptr) {
        rtslib_msg_list_free(h, list);
        errno = ENOMEM;
        return nullptr;
    }
    static char empty[] = "";
    uint16_t n = 0;
    for (uint16_t i = 0; i < count; ++i) {
        const auto *r = static_cast<const ifl_msg_t *>(list->entries[i]);
        if (r->iflm_index == 0) continue;  // index 0 would end the array early
        const bool terminated = r->name != nullptr && std::memchr(r->name, 0, r->name_len);
        pairs[n].if_index = r->iflm_index;
        pairs[n].if_name = terminated ? reinterpret_cast<char *>(r->name) : empty;
        ++n;
    }
    pairs[n + 1].if_name = reinterpret_cast<char *>(list);
    return pairs;
}

TARN_API void if_freenameindex(struct if_nameindex *array) TARN_LIBC_FN
{
    if (array == nullptr) return;
    size_t n = 0;
    while (array[n].if_index != 0) ++n;
    rtslib_msg_list_free(shared_handle(), reinterpret_cast<rtslib_msg_list *>(array[n + 1].if_name));
    std::free(array);
}

}  // extern "C"
