#include <cerrno>
#include <cstdio>
#include <cstring>

#include "libtarn/os/os.h"
#include "libtarn/rtslib/objects/request.h"
#include "libtarn/rtslib/wire.h"
#include <tarn/rtslib_ifstate.h>
#include <tarn/rtslib_msg.h>

namespace {

using tarn::wire::load_u32;

// A whole type-47 message: its length word matches what arrived.
bool is_ifstate(const uint8_t *m, uint32_t len)
{
    return m != nullptr && len >= RTS_IFSTATE_FIXED_LEN && load_u32(m + RTS_HDR_LEN_OFF) == len &&
           m[RTS_HDR_TYPE_OFF] == RTS_MSG_IFSTATE;
}

constexpr uint32_t kErrorOff = 16;

}  // namespace

extern "C" {

int rtslib_ifsm_request(rtslib_cookie *h, uint8_t op, uint32_t id, const char *name,
                        void **reply_out, uint32_t *reply_len)
{
    if (reply_out != nullptr) *reply_out = nullptr;
    if (h == nullptr || reply_out == nullptr || reply_len == nullptr) return EINVAL;
    uint8_t msg[RTS_IFSTATE_FIXED_LEN] = {};
    msg[RTS_HDR_VERSION_OFF] = RTS_IFSTATE_VERSION;
    msg[RTS_HDR_TYPE_OFF] = RTS_MSG_IFSTATE;
    msg[RTS_HDR_OP_OFF] = op;
    tarn::wire::store_u32(msg + RTS_HDR_LEN_OFF, RTS_IFSTATE_FIXED_LEN);
    const uint16_t fixed = RTS_IFSTATE_FIXED_LEN;
    std::memcpy(msg + RTS_HDR_FIXED_LEN_OFF, &fixed, sizeof fixed);
    tarn::wire::store_u32(msg + RTS_IFSTATE_ID_OFF, id);
    if (name != nullptr)
        std::memcpy(msg + RTS_IFSTATE_NAME_OFF, name, strnlen(name, RTSLIB_IFSM_NAME_LEN - 1));
    void *answer = nullptr;
    uint32_t len = 0;
    int rc = tarn::send_raw(h, msg, sizeof msg, &answer, &len);
    if (rc != 0) return rc;
    const auto *a = static_cast<const uint8_t *>(answer);
    if (!is_ifstate(a, len)) rc = EIO;
    else rc = tarn::os::kernel_errno(load_u32(a + kErrorOff));
    if (rc != 0) {
        rtslib_msg_free(h, answer);
        return rc;
    }
    *reply_out = answer;
    *reply_len = len;
    return 0;
}

int rtslib_ifsm_register(rtslib_cookie *h, const char *name, uint32_t *id_out)
{
    if (name == nullptr || id_out == nullptr) return EINVAL;
    void *reply = nullptr;
    uint32_t len = 0;
    int rc = rtslib_ifsm_request(h, RTS_OP_ADD, 0, name, &reply, &len);
    if (rc != 0) return rc;
    *id_out = load_u32(static_cast<uint8_t *>(reply) + RTS_IFSTATE_ID_OFF);
    rtslib_msg_free(h, reply);
    return 0;
}

int rtslib_ifsm_unregister(rtslib_cookie *h, uint32_t id)
{
    void *reply = nullptr;
    uint32_t len = 0;
    int rc = rtslib_ifsm_request(h, RTS_OP_DELETE, id, nullptr, &reply, &len);
    rtslib_msg_free(h, reply);
    return rc;
}

int rtslib_ifsm_get(rtslib_cookie *h, void **reply_out, uint32_t *reply_len)
{
    return rtslib_ifsm_request(h, RTS_OP_GET, 0, nullptr, reply_out, reply_len);
}

int rtslib_ifsm_print(FILE *out, const void *msg, uint32_t len)
{
    const auto *m = static_cast<const uint8_t *>(msg);
    if (out == nullptr || !is_ifstate(m, len)) return EINVAL;
    const uint32_t count = load_u32(m + RTS_IFSTATE_COUNT_OFF);
    const uint32_t listed = (len - RTS_IFSTATE_FIXED_LEN) / RTSLIB_IFSM_CLIENT_LEN;
    // An answer to a list request holds every client it counts.
    if (len > RTS_IFSTATE_FIXED_LEN && listed < count) return EINVAL;
    std::fprintf(out, "ifstate clients: %u of %u\n", count, load_u32(m + RTS_IFSTATE_MAX_OFF));
    for (uint32_t i = 0; i < listed && len > RTS_IFSTATE_FIXED_LEN && i < count; ++i) {
        const uint8_t *c = m + RTS_IFSTATE_FIXED_LEN + i * RTSLIB_IFSM_CLIENT_LEN;
        const char *name = reinterpret_cast<const char *>(c + 4);
        std::fprintf(out, "  client %u: %.*s\n", load_u32(c),
                     static_cast<int>(strnlen(name, RTSLIB_IFSM_NAME_LEN)), name);
    }
    return 0;
}

int rtslib_ifsclim_get(uint32_t *limit)
{
    if (limit == nullptr) return EINVAL;
    uint32_t value = 0;
    size_t len = sizeof value;
    if (tarn::os::sysctl_by_name("hw.product.ifs_max_clients", &value, &len, nullptr, 0) != 0)
        return errno;
    if (len != sizeof value) return EINVAL;
    *limit = value;
    return 0;
}

}  // extern "C"
