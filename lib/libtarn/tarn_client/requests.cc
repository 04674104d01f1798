// Requests to the routing daemon. Each builds its payload in network order
// on the stack, in one to four pieces, and leaves it to send_message.
#include <cerrno>
#include <cstring>
#include <initializer_list>

#include "libtarn/tarn_client/tarn_client_internal.h"
#include "libtarn/util/tarn_assert.h"

using namespace tarn::client;

namespace {

constexpr size_t kMaxNameLen = 255;

// These checks have always been reported with fixed line numbers, which log
// watchers match on; they keep them whatever this file looks like.
constexpr int kLineMsgWriteHdr = 3255;
constexpr int kLineMsgWriteLength = 3257;
constexpr int kLineFlashFilterKind = 4691;

#define CLIENT_ASSERT_AT(line, cond, text) \
    ((cond) ? static_cast<void>(0) : tarn_assert_fail(__func__, kSource, (line), (text)))

iovec piece(const void *base, size_t len)
{
    return iovec{const_cast<void *>(base), len};
}

int send_pieces(tarn_session_handle *s, uint16_t type, std::initializer_list<iovec> pieces)
{
    return send_message(s, type, pieces.begin(), static_cast<int>(pieces.size()));
}

void put_nexthop(unsigned char *out, const tarn_rt_nexthop &nh)
{
    std::memset(out, 0, sizeof(tarn_rt_nexthop));
    store32(out, nh.nh_ifl_index);
    out[4] = nh.nh_family;
    std::memcpy(out + 8, nh.nh_gateway, sizeof nh.nh_gateway);
}

int send_name_request(tarn_session_handle *s, uint16_t type, const char *name, uint32_t cookie)
{
    if (check_session(s) != 0) return -1;
    if (name == nullptr || ::strnlen(name, kMaxNameLen + 1) > kMaxNameLen) {
        errno = EINVAL;
        return -1;
    }
    const size_t n = std::strlen(name) + 1;
    unsigned char fixed[8] = {};
    store32(fixed, cookie);
    store16(fixed + 4, static_cast<uint16_t>(n));
    return send_pieces(s, type, {piece(fixed, sizeof fixed), piece(name, n)});
}

}  // namespace

namespace tarn::client {

// Builds and sends a route request; the alias machinery passes its key.
int send_route_request(tarn_session_handle *s, uint16_t type, const tarn_rt_request *rq,
                       bool with_nexthops, uint16_t alias_key, uint8_t alias_flag)
{
    if (check_session(s) != 0) return -1;
    if (rq == nullptr || rq->rt_nh_count > TARN_RT_MAX_NEXTHOPS) {
        errno = EINVAL;
        return -1;
    }
    const uint16_t n = with_nexthops ? rq->rt_nh_count : 0;
    unsigned char fixed[40] = {};
    store32(fixed, rq->rt_cookie);
    store32(fixed + 4, rq->rt_table_id);
    store32(fixed + 8, rq->rt_gw_handle);
    store16(fixed + 12, alias_key);
    fixed[14] = alias_flag;
    fixed[15] = rq->rt_family;
    std::memcpy(fixed + 16, rq->rt_prefix, sizeof rq->rt_prefix);
    store16(fixed + 32, rq->rt_prefix_len);
    store16(fixed + 34, n);
    store32(fixed + 36, rq->rt_preference);
    unsigned char hops[TARN_RT_MAX_NEXTHOPS * sizeof(tarn_rt_nexthop)];
    for (uint16_t i = 0; i < n; ++i) put_nexthop(hops + i * sizeof(tarn_rt_nexthop), rq->rt_nexthops[i]);
    return send_pieces(s, type, {piece(fixed, sizeof fixed), piece(hops, n * sizeof(tarn_rt_nexthop))});
}

}  // namespace tarn::client

extern "C" {

TARN_API int tarn_client_msg_write(tarn_session_handle *s, const struct ipc_msg *hdr,
                                   const void *payload)
{
    CLIENT_ASSERT_AT(kLineMsgWriteHdr, hdr != nullptr, "hdr");
    CLIENT_ASSERT_AT(kLineMsgWriteLength, payload != nullptr || hdr->length == 0,
                     "hdr->length == 0");
    if (check_session(s) != 0) return -1;
    if (ipc_msg_write(s->pipe, hdr, payload) != 0) return -1;
    return s->writer(s);
}

TARN_API int tarn_client_identify(tarn_session_handle *s, const char *name)
{
    if (check_session(s) != 0) return -1;
    if (name == nullptr || ::strnlen(name, TARN_IDENTIFY_LEN) >= TARN_IDENTIFY_LEN) {
        errno = EINVAL;
        return -1;
    }
    char buf[TARN_IDENTIFY_LEN] = {};
    std::memcpy(buf, name, std::strlen(name));
    return send_pieces(s, TARN_MSG_CLIENT_IDENTIFY, {piece(buf, sizeof buf)});
}

TARN_API int tarn_rt_add(tarn_session_handle *s, const tarn_rt_request *rq)
{
    return send_route_request(s, TARN_MSG_RT_ADD, rq, true, 0, 0);
}

TARN_API int tarn_rt_delete(tarn_session_handle *s, const tarn_rt_request *rq)
{
    return send_route_request(s, TARN_MSG_RT_DELETE, rq, false, 0, 0);
}

TARN_API int tarn_rt_lookup(tarn_session_handle *s, const tarn_rt_request *rq)
{
    return send_route_request(s, TARN_MSG_RT_LOOKUP, rq, false, 0, 0);
}

TARN_API int tarn_rt_table_locate(tarn_session_handle *s, const char *name, uint32_t cookie)
{
    return send_name_request(s, TARN_MSG_RT_TABLE_LOCATE, name, cookie);
}

TARN_API int tarn_local_as_by_name(tarn_session_handle *s, const char *name, uint32_t cookie)
{
    return send_name_request(s, TARN_MSG_LOCAL_AS_BY_NAME, name, cookie);
}

TARN_API int tarn_rt_change_gateway(tarn_session_handle *s, uint32_t cookie, uint32_t gw_handle,
                                    uint32_t ifl_index, uint8_t family, const uint8_t gateway[16])
{
    if (check_session(s) != 0) return -1;
    if (gateway == nullptr) {
        errno = EINVAL;
        return -1;
    }
    unsigned char buf[32] = {};
    store32(buf, cookie);
    store32(buf + 4, gw_handle);
    store32(buf + 8, ifl_index);
    buf[12] = family;
    std::memcpy(buf + 16, gateway, 16);
    return send_pieces(s, TARN_MSG_RT_CHANGE_GATEWAY, {piece(buf, sizeof buf)});
}

TARN_API int tarn_master_indication(tarn_session_handle *s)
{
    return send_message(s, TARN_MSG_MASTER_INDICATION, nullptr, 0);
}

TARN_API int tarn_rr_restart(tarn_session_handle *s)
{
    return send_message(s, TARN_MSG_RR_RESTART, nullptr, 0);
}

TARN_API int tarn_cleanup_data(tarn_session_handle *s)
{
    return send_message(s, TARN_MSG_CLEANUP_DATA, nullptr, 0);
}

TARN_API int tarn_bw_update(tarn_session_handle *s, const tarn_bw_record *records, uint32_t count)
{
    if (check_session(s) != 0) return -1;
    constexpr uint32_t kMax = (TARN_MSG_MAX_PAYLOAD - 4) / 8;
    if (records == nullptr || count == 0 || count > kMax) {
        errno = EINVAL;
        return -1;
    }
    unsigned char buf[4 + 8 * kMax];
    store32(buf, count);
    for (uint32_t i = 0; i < count; ++i) {
        store32(buf + 4 + 8 * i, records[i].bw_ifl_index);
        store32(buf + 8 + 8 * i, records[i].bw_kbps);
    }
    return send_pieces(s, TARN_MSG_BW_UPDATE, {piece(buf, 4 + 8 * size_t{count})});
}

TARN_API int tarn_nbr_down_update(tarn_session_handle *s, const tarn_nbr_record *records,
                                  uint32_t count)
{
    if (check_session(s) != 0) return -1;
    constexpr uint32_t kMax = (TARN_MSG_MAX_PAYLOAD - 4) / 24;
    if (records == nullptr || count == 0 || count > kMax) {
        errno = EINVAL;
        return -1;
    }
    unsigned char buf[4 + 24 * kMax];
    std::memset(buf, 0, sizeof buf);
    store32(buf, count);
    for (uint32_t i = 0; i < count; ++i) {
        unsigned char *r = buf + 4 + 24 * i;
        store32(r, records[i].nbr_ifl_index);
        r[4] = records[i].nbr_family;
        std::memcpy(r + 8, records[i].nbr_address, 16);
    }
    return send_pieces(s, TARN_MSG_NBR_DOWN_UPDATE, {piece(buf, 4 + 24 * size_t{count})});
}

TARN_API int tarn_session_protocol_register(tarn_session_handle *s, const char *name,
                                            const void *address, uint32_t value_a,
                                            uint32_t value_b)
{
    if (check_session(s) != 0) return -1;
    if (name == nullptr || ::strnlen(name, kMaxNameLen + 1) > kMaxNameLen) {
        errno = EINVAL;
        return -1;
    }
    const auto *addr = static_cast<const unsigned char *>(address);
    uint16_t family = 0;
    uint16_t addr_len = 0;
    const unsigned char *addr_bytes = nullptr;
    if (addr != nullptr) {
        family = addr[1];
        if (family == TARN_FAMILY_INET) {
            addr_len = 4;
            addr_bytes = addr + 4;
        } else if (family == TARN_FAMILY_INET6) {
            addr_len = 16;
            addr_bytes = addr + 12;
        } else {
            errno = EAFNOSUPPORT;
            return -1;
        }
    }
    const size_t n = std::strlen(name) + 1;
    unsigned char fixed[16] = {};
    store32(fixed, value_b);
    store32(fixed + 4, value_a);
    store32(fixed + 8, static_cast<uint32_t>(n));
    store16(fixed + 12, addr_len);
    store16(fixed + 14, family);
    if (addr_bytes == nullptr)
        return send_pieces(s, TARN_MSG_PROTOCOL_REGISTER, {piece(fixed, 16), piece(name, n)});
    return send_pieces(s, TARN_MSG_PROTOCOL_REGISTER,
                       {piece(fixed, 16), piece(name, n), piece(addr_bytes, addr_len)});
}

TARN_API int tarn_session_protocol_unregister(tarn_session_handle *s, uint32_t value_1,
                                              uint32_t value_2)
{
    unsigned char buf[8];
    store32(buf, value_2);
    store32(buf + 4, value_1);
    return send_pieces(s, TARN_MSG_PROTOCOL_UNREGISTER, {piece(buf, sizeof buf)});
}

TARN_API int tarn_rt_flash_register_request(tarn_session_handle *s, uint32_t a, uint16_t b,
                                            uint32_t c, uint16_t d, uint32_t e,
                                            const tarn_flash_filter *filter)
{
    if (check_session(s) != 0) return -1;
    unsigned char buf[TARN_FLASH_REGISTER_LEN + TARN_FLASH_FILTER_LEN] = {};
    store32(buf, a);
    store32(buf + 4, c);
    store16(buf + 8, b);
    store16(buf + 10, d);
    store32(buf + 12, e);
    if (filter == nullptr)
        return send_pieces(s, TARN_MSG_FLASH_REGISTER, {piece(buf, TARN_FLASH_REGISTER_LEN)});
    CLIENT_ASSERT_AT(kLineFlashFilterKind, filter->ff_kind == 1 || filter->ff_kind == 2, "FALSE");
    store16(buf + 16, filter->ff_kind);
    store16(buf + 18, TARN_FLASH_FILTER_LEN);
    unsigned char *f = buf + TARN_FLASH_REGISTER_LEN;
    store16(f, filter->ff_a);
    store16(f + 2, filter->ff_b);
    store32(f + 4, filter->ff_c);
    return send_pieces(s, TARN_MSG_FLASH_REGISTER,
                       {piece(buf, TARN_FLASH_REGISTER_LEN), piece(f, TARN_FLASH_FILTER_LEN)});
}

}  // extern "C"

namespace {

int send_route_alias(tarn_session_handle *s, uint16_t type, const tarn_ra_record *rec, uint32_t id)
{
    if (check_session(s) != 0) return -1;
    if (rec == nullptr) {
        errno = EINVAL;
        return -1;
    }
    unsigned char buf[TARN_RA_REQUEST_LEN] = {};
    store32(buf, id);
    store32(buf + 4, rec->ra_word0);
    std::memcpy(buf + 8, &rec->ra_word1, 4);
    std::memcpy(buf + 12, rec->ra_bytes, sizeof rec->ra_bytes);
    std::memcpy(buf + 28, rec->ra_extra, sizeof rec->ra_extra);
    return send_pieces(s, type, {piece(buf, sizeof buf)});
}

}  // namespace

extern "C" {

TARN_API int tarn_ra_add(tarn_session_handle *s, const tarn_ra_record *rec, uint32_t id)
{
    return send_route_alias(s, TARN_MSG_RA_ADD, rec, id);
}

TARN_API int tarn_ra_delete(tarn_session_handle *s, const tarn_ra_record *rec, uint32_t id)
{
    return send_route_alias(s, TARN_MSG_RA_DELETE, rec, id);
}

}  // extern "C"
