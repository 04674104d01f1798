// The two interface-address ioctls, served as routing-socket address
// requests: the kernel takes interface addresses only that way.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "libtarn/os/os.h"
#include "libtarn/rtslib/objects/if_common.h"
#include <tarn/rtslib_msg.h>

namespace {

using tarn::RequestBuffer;

constexpr size_t kReqNameLen = 60;  // the request's name field
constexpr size_t kReqFamilyOff = 61;
constexpr size_t kReqAddrOff = 64;

int fail(int error)
{
    errno = error;
    return -1;
}

int send_address(rtslib_cookie *h, uint8_t op, const uint8_t *req)
{
    char name[kReqNameLen + 1] = {};
    std::memcpy(name, req, strnlen(reinterpret_cast<const char *>(req), kReqNameLen));
    char device[RTSLIB_IFNAME_MAX];
    uint32_t unit = 0;
    if (ifl_get_device_name(name, device, sizeof device, &unit) != 0) return EINVAL;
    if (unit == 0xFFFFFFFFu) unit = 0;
    const uint8_t family = req[kReqFamilyOff];

    iff_msg_t *iff = nullptr;
    int rc = rtslib_iffm_get_by_dev_name(h, family, device, unit, RTS_OP_GET, &iff, nullptr);
    if (rc == 0 && iff->hdr.error != 0) rc = tarn::os::kernel_errno(iff->hdr.error);
    if (rc == 0 && family != TARN_AF_INET) rc = EAFNOSUPPORT;
    if (rc == 0) {
        RequestBuffer rb(h);
        auto *ifa = rb.ok() ? rb.record<ifa_msg_t>() : nullptr;
        if (ifa == nullptr) {
            rc = ENOMEM;
        } else {
            tarn::init_header(ifa->hdr, RTS_IFA_VERSION, RTS_MSG_IFADDR, op, RTS_IFA_FIXED_LEN);
            ifa->ifam_index = iff->iffm_index;
            ifa->ifam_devindex = iff->iffm_devindex;
            ifa->ifam_af = family;
            ifa->ifam_unit = unit;
            ifa->name = tarn::place_name(rb, name, &ifa->name_len);
            ifa->ifam_local = rb.take(4);
            if (ifa->name == nullptr || ifa->ifam_local == nullptr) {
                rc = ENOMEM;
            } else {
                std::memcpy(ifa->ifam_local, req + kReqAddrOff, 4);
                ifa->ifam_local_len = 4;
                ifa->ifam_local_plen = 32;
                tarn::Answer none;
                none.stamp = false;
                rc = tarn::send_idl(h, &ifa->hdr, none);
            }
        }
    }
    rtslib_msg_idl_release(h, iff);
    return rc;
}

}  // namespace

extern "C" int wrl_ioctl(int fd, unsigned long request, void *arg)
{
    if (fd < 0) return fail(EBADF);
    uint8_t op = 0;
    if (request == WRL_SIOCAIFADDR) op = RTS_OP_ADD;
    else if (request == WRL_SIOCDIFADDR) op = RTS_OP_DELETE;
    else return fail(EOPNOTSUPP);
    if (arg == nullptr) return fail(EINVAL);
    rtslib_cookie *h = rtslib_open(0);
    if (h == nullptr) return fail(ENOMEM);
    const int rc = send_address(h, op, static_cast<const uint8_t *>(arg));
    rtslib_close(h);
    return rc == 0 ? 0 : fail(rc);
}
