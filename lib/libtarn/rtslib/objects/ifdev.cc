#include <cerrno>
#include <cstring>

#include "libtarn/os/os.h"
#include "libtarn/rtslib/objects/if_common.h"
#include <tarn/rtslib_msg.h>

namespace {

using tarn::RequestBuffer;

int get_device(rtslib_cookie *h, uint16_t device_index, const char *name, uint32_t snmp_id,
               uint8_t op, ifdev_msg_t **reply_out, uint32_t *reply_len, bool args_ok)
{
    if (int rc = tarn::check_request(h, args_ok, true, reply_out); rc != 0) return rc;
    if (reply_len != nullptr) *reply_len = 0;
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    auto *dev = rb.record<ifdev_msg_t>();
    tarn::init_header(dev->hdr, RTS_IFDEV_VERSION, RTS_MSG_IFDEV, op, RTS_IFDEV_FIXED_LEN);
    dev->ifdm_index = device_index;
    dev->ifdm_snmp_id = snmp_id;
    if (name != nullptr) {
        dev->name = tarn::place_name(rb, name, &dev->name_len);
        if (dev->name == nullptr) return EINVAL;
    }
    return tarn::send_idl(h, &dev->hdr, tarn::long_answer(reinterpret_cast<void **>(reply_out)));
}

ifdev_msg_t *new_device(RequestBuffer &rb, uint8_t op, uint16_t device_index)
{
    auto *dev = rb.record<ifdev_msg_t>();
    tarn::init_header(dev->hdr, RTS_IFDEV_VERSION, RTS_MSG_IFDEV, op, RTS_IFDEV_FIXED_LEN);
    dev->ifdm_index = device_index;
    return dev;
}

// A request the kernel does not answer, sent with the sequence number the
// caller's path chose (0 for adds).
int send_unanswered(rtslib_cookie *h, ifdev_msg_t *dev)
{
    tarn::Answer none;
    none.stamp = false;
    return tarn::send_idl(h, &dev->hdr, none);
}

// The device's current socket address of a reply (first byte: its length),
// or nullptr.
const uint8_t *current_address(idl_sockaddr_gen_t *const *list, uint32_t count)
{
    if (list == nullptr || count == 0 || list[0] == nullptr) return nullptr;
    const idl_sockaddr_gen_t *sa = list[0];
    if (sa->sa_addr == nullptr || sa->sa_addr_len == 0 || sa->sa_addr[0] > sa->sa_addr_len)
        return nullptr;
    return sa->sa_addr;
}

// Reads the device, then writes a change of it built by `fill` from the
// current record: its flags, attribute and alternate address.
template <typename Fill> int change_device(rtslib_cookie *h, uint16_t device_index, Fill &&fill)
{
    ifdev_msg_t *cur = nullptr;
    int rc = rtslib_ifdm_get_by_index(h, device_index, RTS_OP_GET, &cur, nullptr);
    if (rc != 0) return rc;
    if (cur == nullptr) return ENOMEM;
    if (cur->hdr.error != 0) {
        rc = tarn::os::kernel_errno(cur->hdr.error);
    } else {
        RequestBuffer rb(h);
        ifdev_msg_t *dev = rb.ok() ? new_device(rb, RTS_OP_CHANGE, device_index) : nullptr;
        if (dev == nullptr) {
            rc = ENOMEM;
        } else {
            dev->ifdm_attr = cur->ifdm_attr;
            rc = tarn::place_sockaddr(rb, current_address(cur->altaddr, cur->altaddr_count),
                                      &dev->altaddr, &dev->altaddr_count)
                     ? fill(rb, *dev, *cur)
                     : ENOMEM;
            if (rc == 0) rc = tarn::send_idl(h, &dev->hdr, tarn::Answer{});
        }
    }
    rtslib_msg_idl_release(h, cur);
    return rc;
}

}  // namespace

extern "C" {

int rtslib_ifdm_add_with_tlvs(rtslib_cookie *h, const char *name, uint16_t device_index,
                              uint16_t attribute, uint32_t flags, uint32_t value,
                              const if_pfe_options_t *info, const void *addr, const void *haddr,
                              const void *tlvs, uint32_t tlv_length)
{
    if (int rc = tarn::check_request(h, name != nullptr && (tlvs != nullptr || tlv_length == 0));
        rc != 0)
        return rc;
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    ifdev_msg_t *dev = new_device(rb, RTS_OP_ADD, device_index);
    dev->ifdm_media_type = attribute;
    dev->ifdm_flags = flags;
    dev->ifdm_value = value;
    dev->name = tarn::place_name(rb, name, &dev->name_len);
    if (dev->name == nullptr || !tarn::place_sockaddr(rb, addr, &dev->addr, &dev->addr_count) ||
        !tarn::place_sockaddr(rb, haddr, &dev->haddr, &dev->haddr_count))
        return ENOMEM;
    if (info != nullptr) {
        auto **slot = reinterpret_cast<if_pfe_options_t **>(
            rb.take(sizeof(if_pfe_options_t *), alignof(if_pfe_options_t *)));
        auto *copy = reinterpret_cast<if_pfe_options_t *>(
            rb.take(sizeof(if_pfe_options_t), alignof(if_pfe_options_t)));
        if (slot == nullptr || copy == nullptr) return ENOMEM;
        *copy = *info;
        *slot = copy;
        dev->dinfo = slot;
        dev->dinfo_count = 1;
    }
    if (tlv_length > 0) {
        if (int rc = tarn::place_tlvs(rb, dev->hdr, static_cast<const uint8_t *>(tlvs), tlv_length);
            rc != 0)
            return rc;
    }
    return send_unanswered(h, dev);
}

int rtslib_ifdm_add(rtslib_cookie *h, const char *name, uint16_t device_index,
                    uint16_t attribute, const if_pfe_options_t *info, const void *addr,
                    const void *haddr)
{
    return rtslib_ifdm_add_with_tlvs(h, name, device_index, attribute, 0, 0, info, addr, haddr,
                                     nullptr, 0);
}

int rtslib_ifdm_pointchange(rtslib_cookie *h, uint16_t device_index, uint32_t flags,
                            rtslib_ifdm_fill_fn fill, const void *data, uint32_t length)
{
    if (int rc = tarn::check_request(h, data != nullptr); rc != 0) return rc;
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    ifdev_msg_t *dev = new_device(rb, RTS_OP_CHANGE, device_index);
    rtslib_seq_get_next(h, &dev->hdr.seq);
    if (flags != 0) {
        dev->ifdm_flags |= flags;
        dev->ifdm_flags_mask |= flags;
        dev->ifdm_changed |= RTSLIB_IFDM_CHANGED_FLAGS;
    }
    if (fill != nullptr) fill(h, dev);
    if (int rc = tarn::place_opaque(rb, dev->hdr, RTSLIB_IFDM_DATA_WORD, data, length); rc != 0)
        return rc;
    return send_unanswered(h, dev);
}

int rtslib_ifdm_change_flags(rtslib_cookie *h, uint16_t device_index, uint32_t flags, int clear)
{
    if (h == nullptr) return EINVAL;
    return change_device(h, device_index,
                         [&](RequestBuffer &, ifdev_msg_t &dev, const ifdev_msg_t &cur) {
                             dev.ifdm_flags = clear != 0 ? cur.ifdm_flags & ~flags
                                                         : cur.ifdm_flags | flags;
                             return 0;
                         });
}

int rtslib_ifdm_change_tlvs(rtslib_cookie *h, uint16_t device_index, uint32_t flags,
                            const void *tlvs, uint32_t tlv_length)
{
    if (h == nullptr || tlvs == nullptr) return EINVAL;
    return change_device(h, device_index,
                         [&](RequestBuffer &rb, ifdev_msg_t &dev, const ifdev_msg_t &cur) {
                             // The device's own flags go out whatever the caller passed: a
                             // TLV change must not touch them.
                             flags = cur.ifdm_flags;
                             dev.ifdm_flags = flags;
                             return tarn::place_tlvs(rb, dev.hdr,
                                                     static_cast<const uint8_t *>(tlvs),
                                                     tlv_length);
                         });
}

int rtslib_ifdm_get_by_index(rtslib_cookie *h, uint16_t device_index, uint8_t op,
                             ifdev_msg_t **reply_out, uint32_t *reply_len)
{
    return get_device(h, device_index, nullptr, 0, op, reply_out, reply_len, true);
}

int rtslib_ifdm_get_by_name(rtslib_cookie *h, const char *name, uint8_t op,
                            ifdev_msg_t **reply_out, uint32_t *reply_len)
{
    return get_device(h, 0, name, 0, op, reply_out, reply_len, name != nullptr);
}

int rtslib_ifdm_get_by_snmp_index(rtslib_cookie *h, uint32_t snmp_id, uint8_t op,
                                  ifdev_msg_t **reply_out, uint32_t *reply_len)
{
    return get_device(h, 0, nullptr, snmp_id, op, reply_out, reply_len, op == RTS_OP_GET);
}

int rtslib_ifxm_get_all(rtslib_cookie *h, rtslib_msg_list **list_out, int kind)
{
    if (list_out != nullptr) *list_out = nullptr;
    if (h == nullptr || list_out == nullptr) return EINVAL;
    size_t size = 0;
    if (tarn::os::route_iflist(kind, nullptr, &size) != 0) return errno;
    rtslib_msg_list *list = rtslib_msg_list_alloc(h);
    if (list == nullptr) return ENOMEM;
    if (size == 0) {  // no objects of this kind: an empty list
        *list_out = list;
        return 0;
    }
    int rc = 0;
    void *buf = size <= UINT32_MAX ? rtslib_size_alloc(h, static_cast<uint32_t>(size)) : nullptr;
    if (buf == nullptr) {
        rc = ENOMEM;
    } else if (tarn::os::route_iflist(kind, buf, &size) != 0) {
        rc = errno;
    } else {
        rc = rtslib_msg_list_fillin(h, list, static_cast<uint32_t>(size), buf);
    }
    // Raw entries point into the table, which their list then owns; decoded
    // records no longer need it.
    const bool list_owns = list->kind == RTSLIB_MSG_LIST_RAW_BUFFER && list->entries != nullptr &&
                           list->count > 0;
    if (!list_owns) rtslib_msg_free(h, buf);
    if (rc != 0) {
        rtslib_msg_list_free(h, list);
        return rc;
    }
    *list_out = list;
    return 0;
}

int rtslib_ifdm_get_all(rtslib_cookie *h, rtslib_msg_list **list_out)
{
    return rtslib_ifxm_get_all(h, list_out, RTSLIB_IFLIST_DEVICES);
}

int rtslib_iflm_get_all(rtslib_cookie *h, rtslib_msg_list **list_out)
{
    return rtslib_ifxm_get_all(h, list_out, RTSLIB_IFLIST_LOGICAL);
}

}  // extern "C"
