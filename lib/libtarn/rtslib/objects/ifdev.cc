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

}  // namespace

extern "C" {

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
