// The read side of a session: completing a connect, reading one message and
// delivering it, converted to host order, to the slot its type selects.
// Every length and count is checked against the payload first: a reply that
// claims more than it carries is dropped whole.
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <initializer_list>

#include "libtarn/os/os.h"
#include "libtarn/tarn_client/tarn_client_internal.h"

using namespace tarn::client;

namespace {

// Listen bits the session's routing socket takes once connected.
constexpr uint32_t kRtsockListen[2] = {132, 0};
constexpr int kRtsockOptListen = 1;

// No more labels than this are ever pushed for a ping.
constexpr size_t kMaxLabels = 5;

// The longest list a reply can carry: a whole payload of 32-bit words.
constexpr size_t kMaxWords = TARN_MSG_MAX_PAYLOAD / 4;

void convert32(unsigned char *p, size_t off)
{
    uint32_t v = load32(p + off);
    std::memcpy(p + off, &v, 4);
}
void convert16(unsigned char *p, size_t off)
{
    uint16_t v = load16(p + off);
    std::memcpy(p + off, &v, 2);
}
uint32_t host32(const unsigned char *p, size_t off)
{
    uint32_t v;
    std::memcpy(&v, p + off, 4);
    return v;
}
uint16_t host16(const unsigned char *p, size_t off)
{
    uint16_t v;
    std::memcpy(&v, p + off, 2);
    return v;
}
void convert_words(unsigned char *p, size_t from, size_t count)
{
    for (size_t i = 0; i < count; ++i) convert32(p, from + 4 * i);
}

// Converts a list of 32-bit words in place and copies it to aligned memory
// for the callback.
void take_list(unsigned char *p, size_t off, size_t count, uint32_t *out)
{
    convert_words(p, off, count);
    if (count != 0) std::memcpy(out, p + off, 4 * count);
}

void connection_answer(tarn_session_handle *s, unsigned char *p, size_t len)
{
    if (len < 4) return;
    convert32(p, 0);
    if (host32(p, 0) == TARN_CONNECTION_ACCEPTED) {
        s->state = kAccepted;
        s->funs->tsf_connection_status(s, 0, TARN_CONNECT_ACCEPTED);
        return;
    }
    s->funs->tsf_connection_status(s, 0, TARN_CONNECT_REFUSED);
    if (s->fd != -1) tarn_session_close(s);
}

void route_record(tarn_session_handle *s, unsigned char *p, size_t len)
{
    const auto *f = s->funs;
    if (f->tsf_rt_record == nullptr || len < TARN_RT_RECORD_FIXED_LEN) return;
    const size_t n = p[15];
    if (n > TARN_RT_MAX_NEXTHOPS || len < TARN_RT_RECORD_FIXED_LEN + n * sizeof(tarn_rt_nexthop))
        return;
    for (size_t off : {0, 4, 8, 32, 36, 40}) convert32(p, off);
    convert16(p, 12);
    for (size_t i = 0; i < n; ++i) convert32(p, TARN_RT_RECORD_FIXED_LEN + 24 * i);
    tarn_rt_record rec{};
    std::memcpy(&rec, p, TARN_RT_RECORD_FIXED_LEN + n * sizeof(tarn_rt_nexthop));
    f->tsf_rt_record(s, &rec, len);
}

void route_alias(tarn_session_handle *s, unsigned char *p, size_t len, int kind)
{
    if (s->funs->tsf_route_alias == nullptr || len < 38) return;
    convert_words(p, 0, 3);
    tarn_ra_record rec{};
    rec.ra_word0 = host32(p, 8);
    std::memcpy(&rec.ra_word1, p + 12, 4);
    std::memcpy(rec.ra_bytes, p + 16, sizeof rec.ra_bytes);
    std::memcpy(rec.ra_extra, p + 32, sizeof rec.ra_extra);
    s->funs->tsf_route_alias(s, kind, &rec);
}

void ldp_fec(tarn_session_handle *s, unsigned char *p, size_t len)
{
    const auto *pf = s->private_funs;
    if (pf->tpf_ldp_fec == nullptr || len < 36) return;
    const size_t labels = p[33];
    if (labels > kMaxLabels || len < 36 + 4 * labels) return;
    for (size_t off : {0, 4, 8, 12, 16, 20, 28}) convert32(p, off);
    convert_words(p, 36, labels);
    pf->tpf_ldp_fec(s, host32(p, 0), host32(p, 4), p + 8, len - 8);
}

// The slot of an unsolicited private type, or null when the type has none.
tarn_private_reply_fn unsolicited_slot(const tarn_private_funs *pf, uint16_t type)
{
    switch (type) {
    case 77: return pf->tpf_reply_77;
    case 60:
    case 78: return pf->tpf_reply_60_78;
    case 61: return pf->tpf_reply_61;
    case 75:
    case 76: return pf->tpf_reply_75_76;
    case 72:
    case 73: return pf->tpf_reply_72_73;
    default: return nullptr;
    }
}

void dispatch_private(tarn_session_handle *s, uint16_t type, unsigned char *p, size_t len)
{
    if (s->private_funs == nullptr) return;
    if (type == TARN_MSG_LDP_FEC_REPLY) return ldp_fec(s, p, len);
    if (type >= 60) return lsping_unsolicited(s, unsolicited_slot(s->private_funs, type), p, len);
    lsping_reply(s, type, p, len);
}

}  // namespace

namespace tarn::client {

void dispatch(tarn_session_handle *s, ipc_msg_t *msg)
{
    const tarn_session_funs *f = s->funs;
    if (f == nullptr || msg->type > TARN_MSG_TYPE_MAX) return;
    unsigned char *p = ipc_msg_data(msg);
    const size_t len = msg->length;
    uint32_t list[kMaxWords];

    switch (msg->type) {
    case TARN_MSG_PROTOCOL_REGISTER_REPLY:
        if (f->tsf_protocol_register == nullptr || len < 14) return;
        convert_words(p, 0, 3);
        convert16(p, 12);
        f->tsf_protocol_register(s, host32(p, 4), host16(p, 12), host32(p, 8), host32(p, 0));
        return;
    case TARN_MSG_RT_ADD_REPLY: {
        if (len < 16) return;
        convert_words(p, 0, 3);
        convert16(p, 12);
        if (p[14] != 0) {
            alias_reply(s, TARN_RA_KIND_ADD, host32(p, 0), host32(p, 4),
                        static_cast<uint16_t>(host32(p, 8)));
            return;
        }
        const uint16_t count = host16(p, 12);
        if (f->tsf_rt_add == nullptr || len < 16 + 4 * size_t{count}) return;
        take_list(p, 16, count, list);
        f->tsf_rt_add(s, host32(p, 4), host32(p, 0), list, count);
        return;
    }
    case TARN_MSG_RT_DELETE_REPLY:
        if (len < 16) return;
        convert_words(p, 0, 3);
        if (p[12] != 0) {
            alias_reply(s, TARN_RA_KIND_DELETE, host32(p, 0), host32(p, 4),
                        static_cast<uint16_t>(host32(p, 8)));
            return;
        }
        if (f->tsf_rt_delete != nullptr) f->tsf_rt_delete(s, host32(p, 4), host32(p, 0));
        return;
    case TARN_MSG_RT_LOOKUP_REPLY:
    case TARN_MSG_RT_FLASH:
        route_record(s, p, len);
        return;
    case TARN_MSG_RT_TABLE_LOCATE_REPLY:
        if (f->tsf_rt_table_locate == nullptr || len < 12) return;
        convert_words(p, 0, 3);
        f->tsf_rt_table_locate(s, host32(p, 8), host32(p, 0), host32(p, 4));
        return;
    case TARN_MSG_PROTOCOL_UNREGISTER_REPLY:
        if (f->tsf_protocol_unregister == nullptr || len < 8) return;
        convert_words(p, 0, 2);
        f->tsf_protocol_unregister(s, host32(p, 0), host32(p, 4));
        return;
    case TARN_MSG_CONNECTION_ANSWER:
        connection_answer(s, p, len);
        return;
    case TARN_MSG_RT_CHANGE_GATEWAY_REPLY: {
        if (f->tsf_rt_change_gateway == nullptr || len < 12) return;
        const uint16_t count = load16(p + 8);
        if (len < 12 + 4 * size_t{count}) return;
        convert_words(p, 0, 2);
        convert16(p, 8);
        take_list(p, 12, count, list);
        f->tsf_rt_change_gateway(s, host32(p, 0), host32(p, 4), list, count);
        return;
    }
    case TARN_MSG_RA_ADD_REPLY:
        route_alias(s, p, len, TARN_RA_KIND_ADD);
        return;
    case TARN_MSG_RA_DELETE_REPLY:
        route_alias(s, p, len, TARN_RA_KIND_DELETE);
        return;
    case TARN_MSG_LOCAL_AS_REPLY: {
        if (f->tsf_local_as == nullptr || len < 17) return;
        convert_words(p, 0, 4);
        tarn_local_as_reply rec{};
        std::memcpy(&rec, p, 17);
        f->tsf_local_as(s, &rec);
        return;
    }
    case TARN_MSG_FLASH_REGISTER_REPLY: {
        if (f->tsf_flash_register == nullptr || len < sizeof(tarn_flash_register_reply)) return;
        convert_words(p, 0, 3);
        tarn_flash_register_reply rec{};
        std::memcpy(&rec, p, sizeof rec);
        f->tsf_flash_register(s, &rec, len);
        return;
    }
    default:
        dispatch_private(s, msg->type, p, len);
        return;
    }
}

}  // namespace tarn::client

extern "C" {

TARN_API int tarn_session_reply_get(tarn_session_handle *s)
{
    if (check_connected(s) != 0) return -1;
    if (s->state == kConnecting) {
        sockaddr_storage peer{};
        socklen_t peer_len = sizeof peer;
        if (::getpeername(s->fd, reinterpret_cast<sockaddr *>(&peer), &peer_len) == 0 &&
            tarn::os::route_setsockopt(s->rtsock, kRtsockOptListen, kRtsockListen,
                                       sizeof kRtsockListen) == 0) {
            s->state = kConnected;
            return 0;
        }
        const int err = errno;
        s->funs->tsf_connection_status(s, 0, TARN_CONNECT_FAILED);
        errno = err;
        return -1;
    }
    if (ipc_pipe_read(s->pipe) < 0) {
        const int err = errno;
        if (err != EAGAIN && err != EWOULDBLOCK && err != EINTR &&
            s->funs->tsf_connection_lost != nullptr)
            s->funs->tsf_connection_lost(s, 0, 0);
        errno = err != 0 ? err : EPIPE;
        return -1;
    }
    ipc_msg_t *msg = ipc_msg_read(s->pipe);
    if (msg == nullptr) {
        if (errno == 0) errno = ENOMSG;
        return -1;
    }
    ipc_pipe_read_clean(s->pipe);
    dispatch(s, msg);
    // The callback may have closed the session (a refusal does).
    if (s->fd != -1) ipc_pipe_read_clean(s->pipe);
    return 0;
}

}  // extern "C"
