#include <syslog.h>

#include <cerrno>
#include <cstring>

#include "libtarn/rtslib/objects/if_common.h"
#include "libtarn/rtslib/wire.h"
#include <tarn/rtslib_msg.h>

namespace {

using tarn::Answer;
using tarn::RequestBuffer;

// An answer of at most one message buffer, as the kernel sends for families
// and addresses.
Answer bounded_answer(void **record_out)
{
    Answer a;
    a.read = Answer::Read::bounded;
    a.record_out = record_out;
    return a;
}

// An address given as bytes and a length in bits, behind the record.
bool place_address(RequestBuffer &rb, const uint8_t *bytes, uint16_t bits, uint8_t **at,
                   uint32_t *padded, uint16_t *plen)
{
    if (bits == 0) return true;
    if (bytes == nullptr) return false;
    *at = tarn::place_prefix(rb, bytes, bits, padded);
    *plen = bits;
    return *at != nullptr;
}

ifa_msg_t *new_ifa(RequestBuffer &rb, uint8_t op, uint32_t index, uint8_t family,
                   const uint8_t *dest, uint16_t dest_bits, const uint8_t *local,
                   uint16_t local_bits)
{
    auto *ifa = rb.record<ifa_msg_t>();
    tarn::init_header(ifa->hdr, RTS_IFA_VERSION, RTS_MSG_IFADDR, op, RTS_IFA_FIXED_LEN);
    ifa->ifam_index = index;
    ifa->ifam_af = family;
    if (!place_address(rb, dest, dest_bits, &ifa->ifam_dest, &ifa->ifam_dest_len,
                       &ifa->ifam_dest_plen) ||
        !place_address(rb, local, local_bits, &ifa->ifam_local, &ifa->ifam_local_len,
                       &ifa->ifam_local_plen))
        return nullptr;
    return ifa;
}

int get_ifa(rtslib_cookie *h, uint32_t index, uint8_t family, const uint8_t *dest,
            uint16_t dest_bits, const uint8_t *local, uint16_t local_bits, uint8_t op,
            ifa_msg_t **reply_out, uint32_t *reply_len)
{
    if (int rc = tarn::check_request(h, true, true, reply_out); rc != 0) return rc;
    if (reply_len != nullptr) *reply_len = 0;
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    ifa_msg_t *ifa = new_ifa(rb, op, index, family, dest, dest_bits, local, local_bits);
    if (ifa == nullptr) return EINVAL;
    return tarn::send_idl(h, &ifa->hdr, bounded_answer(reinterpret_cast<void **>(reply_out)));
}

// One information record in the request, zeroed for the caller to fill.
rts_msg_info_t *add_info(RequestBuffer &rb, rts_hdr_t &hdr)
{
    auto **slot = reinterpret_cast<rts_msg_info_t **>(
        rb.take(sizeof(rts_msg_info_t *), alignof(rts_msg_info_t *)));
    auto *info =
        reinterpret_cast<rts_msg_info_t *>(rb.take(sizeof(rts_msg_info_t), alignof(rts_msg_info_t)));
    if (slot == nullptr || info == nullptr) return nullptr;
    *slot = info;
    hdr.info = slot;
    hdr.info_count = 1;
    return info;
}

iff_msg_t *new_iff(RequestBuffer &rb, uint8_t op, uint32_t index, uint8_t family)
{
    auto *iff = rb.record<iff_msg_t>();
    tarn::init_header(iff->hdr, RTS_IFF_VERSION, RTS_MSG_IFFAMILY, op, RTS_IFF_FIXED_LEN);
    iff->iffm_index = index;
    iff->iffm_af = family;
    return iff;
}

int get_iff(rtslib_cookie *h, uint32_t index, uint8_t family, const char *name, uint32_t unit,
            uint8_t op, iff_msg_t **reply_out, uint32_t *reply_len, bool args_ok)
{
    if (int rc = tarn::check_request(h, args_ok, true, reply_out); rc != 0) return rc;
    if (reply_len != nullptr) *reply_len = 0;
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    iff_msg_t *iff = new_iff(rb, op, index, family);
    iff->iffm_unit = unit;
    if (name != nullptr) {
        iff->name = tarn::place_name(rb, name, &iff->name_len);
        if (iff->name == nullptr) return EINVAL;
    }
    return tarn::send_idl(h, &iff->hdr, bounded_answer(reinterpret_cast<void **>(reply_out)));
}

// The information tag of a VRRP state change, the only one an address point
// change carries.
constexpr uint16_t kVrrpStateTag = 227;

}  // namespace

extern "C" {

int rtslib_ifam_get_by_index(rtslib_cookie *h, uint32_t index, uint8_t family, uint8_t op,
                             ifa_msg_t **reply_out, uint32_t *reply_len)
{
    return get_ifa(h, index, family, nullptr, 0, nullptr, 0, op, reply_out, reply_len);
}

int rtslib_ifam_get_by_dest(rtslib_cookie *h, uint32_t index, uint8_t family,
                            const uint8_t *dest, uint16_t dest_bits, uint8_t op,
                            ifa_msg_t **reply_out, uint32_t *reply_len)
{
    return get_ifa(h, index, family, dest, dest_bits, nullptr, 0, op, reply_out, reply_len);
}

int rtslib_ifam_get_by_local(rtslib_cookie *h, uint32_t index, uint8_t family,
                             const uint8_t *local, uint16_t local_bits, uint8_t op,
                             ifa_msg_t **reply_out, uint32_t *reply_len)
{
    return get_ifa(h, index, family, nullptr, 0, local, local_bits, op, reply_out, reply_len);
}

int rtslib_ifam_get_by_local_dest(rtslib_cookie *h, uint32_t index, uint8_t family,
                                  const uint8_t *dest, uint16_t dest_bits, const uint8_t *local,
                                  uint16_t local_bits, uint8_t op, ifa_msg_t **reply_out,
                                  uint32_t *reply_len)
{
    return get_ifa(h, index, family, dest, dest_bits, local, local_bits, op, reply_out,
                   reply_len);
}

int rtslib_ifam_update(rtslib_cookie *h, uint32_t index, uint8_t family, const uint8_t *dest,
                       uint16_t dest_bits, const uint8_t *local, uint16_t local_bits, uint8_t op)
{
    if (int rc = tarn::check_request(h, true); rc != 0) return rc;
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    ifa_msg_t *ifa = new_ifa(rb, op, index, family, dest, dest_bits, local, local_bits);
    if (ifa == nullptr) return EINVAL;
    return tarn::send_idl(h, &ifa->hdr, Answer{});
}

int rtslib_ifa_pointchange(rtslib_cookie *h, uint32_t index, uint8_t family, const uint8_t *local,
                           uint16_t local_bits, const void *tlv, uint32_t tlv_length)
{
    // The value stands 4 bytes into the TLV, behind its tag and length.
    if (h == nullptr || tlv == nullptr || tlv_length < 6 || local_bits == 0) return EINVAL;
    const auto *t = static_cast<const uint8_t *>(tlv);
    if (tarn::wire::load_u16(t) != kVrrpStateTag) {
        syslog(LOG_ERR, "%s: invalid TLV TAG vrrp : \n", "rtslib_ifa_pointchange");
        return EINVAL;
    }
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    ifa_msg_t *ifa = new_ifa(rb, RTS_OP_CHANGE, index, family, nullptr, 0, local, local_bits);
    if (ifa == nullptr) return EINVAL;
    ifa->ifam_flags = RTSLIB_IFA_POINT_CHANGE;
    rts_msg_info_t *info = add_info(rb, ifa->hdr);
    if (info == nullptr) return ENOMEM;
    info->vrrp_state.state = tarn::wire::load_u16(t + 4);
    return tarn::send_idl(h, &ifa->hdr, Answer{});
}

int rtslib_iffm_get_by_index(rtslib_cookie *h, uint32_t index, uint8_t family, uint8_t op,
                             iff_msg_t **reply_out, uint32_t *reply_len)
{
    return get_iff(h, index, family, nullptr, 0, op, reply_out, reply_len, true);
}

int rtslib_iffm_get_by_dev_name(rtslib_cookie *h, uint8_t family, const char *name,
                                uint32_t unit, uint8_t op, iff_msg_t **reply_out,
                                uint32_t *reply_len)
{
    return get_iff(h, 0, family, name, unit, op, reply_out, reply_len, name != nullptr);
}

int rtslib_iffm_update(rtslib_cookie *h, uint32_t index, uint8_t family, uint32_t value1,
                       uint32_t value2, uint16_t value3, uint16_t value4, const sdl_info_t *info,
                       uint8_t op)
{
    if (int rc = tarn::check_request(h, info == nullptr || info->data_len == 0 ||
                                            info->data != nullptr);
        rc != 0)
        return rc;
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    iff_msg_t *iff = new_iff(rb, op, index, family);
    iff->iffm_value1 = value1;
    iff->iffm_value2 = value2;
    iff->iffm_value3 = value3;
    iff->iffm_value4 = value4;
    if (info != nullptr) {
        auto **slot = reinterpret_cast<sdl_info_t **>(
            rb.take(sizeof(sdl_info_t *), alignof(sdl_info_t *)));
        auto *copy = reinterpret_cast<sdl_info_t *>(rb.take(sizeof(sdl_info_t), alignof(sdl_info_t)));
        uint8_t *data = rb.take(info->data_len);
        if (slot == nullptr || copy == nullptr || data == nullptr) return EINVAL;
        *copy = *info;
        copy->info_len = RTSLIB_IFF_INFO_LEN;
        if (info->data_len > 0) std::memcpy(data, info->data, info->data_len);
        copy->data = info->data_len > 0 ? data : nullptr;
        *slot = copy;
        iff->finfo = slot;
        iff->finfo_count = 1;
    }
    return tarn::send_idl(h, &iff->hdr, Answer{});
}

}  // extern "C"
