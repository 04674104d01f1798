#include "libtarn/rtslib/objects/if_common.h"

#include <cerrno>
#include <cstring>

#include "libtarn/rtslib/wire.h"

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

namespace {

constexpr uint32_t kTlvHeaderLen = 4;

// Walks the TLVs; `visit(tag, value, value_len)` for each. False when one
// overruns the bytes given.
template <typename Visit> bool each_tlv(const uint8_t *tlvs, uint32_t len, Visit &&visit)
{
    uint32_t off = 0;
    while (off < len) {
        if (len - off < kTlvHeaderLen) return false;
        const uint16_t tag = wire::load_u16(tlvs + off);
        const uint16_t value_len = wire::load_u16(tlvs + off + 2);
        if (value_len > len - off - kTlvHeaderLen) return false;
        if (!visit(tag, tlvs + off + kTlvHeaderLen, value_len)) return false;
        off += (kTlvHeaderLen + value_len + 3u) & ~3u;
    }
    return true;
}

rts_msg_info_t *opaque_record(RequestBuffer &rb, uint32_t word, const uint8_t *data, uint32_t len)
{
    auto *info =
        reinterpret_cast<rts_msg_info_t *>(rb.take(sizeof(rts_msg_info_t), alignof(rts_msg_info_t)));
    uint8_t *copy = len > 0 ? rb.take(len) : nullptr;
    if (info == nullptr || (len > 0 && copy == nullptr)) return nullptr;
    if (len > 0) std::memcpy(copy, data, len);
    info->opaque.info_word = word;
    info->opaque.data = copy;
    info->opaque.data_len = len;
    return info;
}

}  // namespace

int place_tlvs(RequestBuffer &rb, rts_hdr_t &hdr, const uint8_t *tlvs, uint32_t len)
{
    uint32_t count = 0;
    if (tlvs == nullptr || !each_tlv(tlvs, len, [&](uint16_t, const uint8_t *, uint16_t) {
            ++count;
            return true;
        }))
        return EINVAL;
    if (count == 0) return 0;
    auto **slots = reinterpret_cast<rts_msg_info_t **>(
        rb.take(count * sizeof(rts_msg_info_t *), alignof(rts_msg_info_t *)));
    if (slots == nullptr) return ENOMEM;
    uint32_t n = 0;
    if (!each_tlv(tlvs, len, [&](uint16_t tag, const uint8_t *value, uint16_t value_len) {
            slots[n] = opaque_record(rb, tag, value, value_len);
            return slots[n++] != nullptr;
        }))
        return ENOMEM;
    hdr.info = slots;
    hdr.info_count = count;
    return 0;
}

int place_opaque(RequestBuffer &rb, rts_hdr_t &hdr, uint32_t word, const void *data, uint32_t len)
{
    auto **slot = reinterpret_cast<rts_msg_info_t **>(
        rb.take(sizeof(rts_msg_info_t *), alignof(rts_msg_info_t *)));
    if (slot == nullptr) return ENOMEM;
    *slot = opaque_record(rb, word, static_cast<const uint8_t *>(data), len);
    if (*slot == nullptr) return ENOMEM;
    hdr.info = slot;
    hdr.info_count = 1;
    return 0;
}

}  // namespace tarn
