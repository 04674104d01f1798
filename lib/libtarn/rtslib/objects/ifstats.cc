// Statistics requests of devices, logical interfaces and families: raw
// messages (no envelope), answered with the request echoed and its counters
// filled, or, for clears, not answered.
#include <cerrno>
#include <cstring>

#include "libtarn/rtslib/objects/request.h"
#include "libtarn/rtslib/wire.h"
#include <tarn/rtslib_if.h>
#include <tarn/rtslib_msg.h>

namespace {

using tarn::wire::store_u32;

// The longest raw statistics request: the largest fixed part and a name.
constexpr uint32_t kMaxRequest = RTS_IFLSTATS_FIXED_LEN + RTSLIB_IFNAME_MAX;

class StatsRequest {
public:
    StatsRequest(uint8_t version, uint8_t type, uint8_t op, uint16_t fixed_len) : len_(fixed_len)
    {
        msg_[RTS_HDR_VERSION_OFF] = version;
        msg_[RTS_HDR_TYPE_OFF] = type;
        msg_[RTS_HDR_OP_OFF] = op;
        std::memcpy(msg_ + RTS_HDR_FIXED_LEN_OFF, &fixed_len, sizeof fixed_len);
    }
    uint8_t *at(uint32_t off) { return msg_ + off; }

    // The name behind the fixed part, NUL included and cut to fit
    // RTSLIB_IFNAME_MAX bytes, its length in the byte at `len_off`.
    void name(const char *name, uint32_t len_off)
    {
        const size_t n = strnlen(name, RTSLIB_IFNAME_MAX - 1);
        std::memcpy(msg_ + len_, name, n);
        msg_[len_off] = static_cast<uint8_t>(n + 1);
        len_ += static_cast<uint32_t>((n + 1 + 3) & ~size_t{3});
    }

    // Writes the request and, when `reply_out` is given, reads the answer.
    int send(rtslib_cookie *h, void **reply_out)
    {
        store_u32(msg_ + RTS_HDR_LEN_OFF, len_);
        if (reply_out != nullptr) {
            uint32_t answer_len = 0;
            return tarn::send_raw(h, msg_, len_, reply_out, &answer_len);
        }
        store_u32(msg_ + RTS_HDR_SEQ_OFF, ++h->seq);
        return rtslib_write(h, msg_, len_);
    }

private:
    uint8_t msg_[kMaxRequest] = {};
    uint32_t len_;
};

int check(rtslib_cookie *h, bool args_ok, void **reply_out)
{
    if (reply_out != nullptr) *reply_out = nullptr;
    return h == nullptr || reply_out == nullptr || !args_ok ? EINVAL : 0;
}

int device_stats(rtslib_cookie *h, uint16_t device_index, const char *name, uint8_t subtype,
                 uint8_t op, void **reply_out)
{
    StatsRequest r(RTS_IFDSTATS_VERSION, RTS_MSG_IFDSTATS, op, RTS_IFDSTATS_FIXED_LEN);
    std::memcpy(r.at(RTS_IFDSTATS_INDEX_OFF), &device_index, sizeof device_index);
    *r.at(RTS_IFDSTATS_SUBTYPE_OFF) = subtype;
    if (name != nullptr) r.name(name, RTS_IFDSTATS_NAME_LEN_OFF);
    return r.send(h, reply_out);
}

struct IflStatsKey {
    uint32_t index = 0;
    uint32_t sid_high = 0;
    uint32_t sid_low = 0;
    uint32_t unit = 0;
    uint8_t subtype = 0;
    const char *name = nullptr;
};

int ifl_stats(rtslib_cookie *h, const IflStatsKey &key, uint8_t op, void **reply_out)
{
    StatsRequest r(RTS_IFLSTATS_VERSION, RTS_MSG_IFLSTATS, op, RTS_IFLSTATS_FIXED_LEN);
    *r.at(RTS_IFLSTATS_SUBTYPE_OFF) = key.subtype;
    store_u32(r.at(RTS_IFLSTATS_INDEX_OFF), key.index);
    store_u32(r.at(RTS_IFLSTATS_SID_OFF), key.sid_high);
    store_u32(r.at(RTS_IFLSTATS_SID_OFF + 4), key.sid_low);
    store_u32(r.at(RTS_IFLSTATS_UNIT_OFF), key.unit);
    if (key.name != nullptr) r.name(key.name, RTS_IFLSTATS_NAME_LEN_OFF);
    return r.send(h, reply_out);
}

int ifl_stats_get(rtslib_cookie *h, const IflStatsKey &key, uint8_t op, void **reply_out,
                  bool name_needed = false)
{
    if (int rc = check(h, !name_needed || key.name != nullptr, reply_out); rc != 0) return rc;
    return ifl_stats(h, key, op, reply_out);
}

}  // namespace

extern "C" {

int rtslib_ifdsm_get_by_index(rtslib_cookie *h, uint16_t device_index, uint8_t subtype,
                              uint8_t op, void **reply_out)
{
    if (int rc = check(h, true, reply_out); rc != 0) return rc;
    return device_stats(h, device_index, nullptr, subtype, op, reply_out);
}

int rtslib_ifdsm_get_by_name(rtslib_cookie *h, const char *name, uint8_t subtype, uint8_t op,
                             void **reply_out)
{
    if (int rc = check(h, name != nullptr, reply_out); rc != 0) return rc;
    return device_stats(h, 0, name, subtype, op, reply_out);
}

int rtslib_ifdsm_clear_by_index(rtslib_cookie *h, uint16_t device_index, uint8_t subtype)
{
    if (h == nullptr) return EINVAL;
    return device_stats(h, device_index, nullptr, subtype, RTS_OP_CLEAR, nullptr);
}

int __rtslib_iflsm_get_by_index(rtslib_cookie *h, uint32_t index, uint8_t op, void **reply_out)
{
    return ifl_stats_get(h, IflStatsKey{.index = index}, op, reply_out);
}

int __rtslib_iflsm_get_by_index_and_subtype(rtslib_cookie *h, uint32_t index, uint8_t subtype,
                                            uint8_t op, void **reply_out)
{
    return ifl_stats_get(h, IflStatsKey{.index = index, .subtype = subtype}, op, reply_out);
}

int __rtslib_iflsm_get_by_sid(rtslib_cookie *h, uint32_t sid_high, uint32_t sid_low, uint8_t op,
                              void **reply_out)
{
    return ifl_stats_get(h, IflStatsKey{.sid_high = sid_high, .sid_low = sid_low}, op, reply_out);
}

int __rtslib_iflsm_get_by_name(rtslib_cookie *h, const char *name, uint32_t unit, uint8_t op,
                               void **reply_out)
{
    return ifl_stats_get(h, IflStatsKey{.unit = unit, .name = name}, op, reply_out, true);
}

int __rtslib_iflsm_get_by_name_and_subtype(rtslib_cookie *h, const char *name, uint32_t unit,
                                           uint8_t subtype, uint8_t op, void **reply_out)
{
    return ifl_stats_get(h, IflStatsKey{.unit = unit, .subtype = subtype, .name = name}, op,
                         reply_out, true);
}

int __rtslib_iflsm_clear_by_index(rtslib_cookie *h, uint32_t index)
{
    if (h == nullptr) return EINVAL;
    return ifl_stats(h, IflStatsKey{.index = index}, RTS_OP_CLEAR, nullptr);
}

int __rtslib_iflsm_clear_by_sid(rtslib_cookie *h, uint32_t sid_high, uint32_t sid_low)
{
    if (h == nullptr) return EINVAL;
    return ifl_stats(h, IflStatsKey{.sid_high = sid_high, .sid_low = sid_low}, RTS_OP_CLEAR,
                     nullptr);
}

void __rtslib_iflsm_cleanup(rtslib_cookie *) {}

int rtslib_iffsm_get_by_index(rtslib_cookie *h, uint32_t index, uint8_t family, uint8_t subtype,
                              uint8_t op, void **reply_out)
{
    if (int rc = check(h, true, reply_out); rc != 0) return rc;
    StatsRequest r(RTS_IFFSTATS_VERSION, RTS_MSG_IFF_VPLS_STATS, op, RTS_IFFSTATS_FIXED_LEN);
    store_u32(r.at(RTS_IFFSTATS_INDEX_OFF), index);
    *r.at(RTS_IFFSTATS_AF_OFF) = family;
    *r.at(RTS_IFFSTATS_SUBTYPE_OFF) = subtype;
    return r.send(h, reply_out);
}

}  // extern "C"
