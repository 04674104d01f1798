// The session record and the pieces shared by the routing-daemon client's
// sources.
#ifndef LIBTARN_TARN_CLIENT_TARN_CLIENT_INTERNAL_H
#define LIBTARN_TARN_CLIENT_TARN_CLIENT_INTERNAL_H

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <qpipe/ipc_pipe.h>
#include <tarn/patricia.h>
#include <tarn/rtslib.h>
#include <tarn/tarn_client.h>

namespace tarn::client {

inline constexpr const char *kSource = "lib/libtarn/tarn_client";

enum State : int { kIdle = 0, kConnecting = 1, kConnected = 2, kAccepted = 3 };

// Socket domains as the session records them.
inline constexpr int kDomainLocal = 1;
inline constexpr int kDomainInet = 2;

// One queued message; its bytes (header and payload) follow the record.
struct Queued {
    Queued *next;
    uint32_t len;
    uint32_t pad;
    unsigned char *bytes() { return reinterpret_cast<unsigned char *>(this + 1); }
};

// An interface-alias operation as the alias machinery keeps it. The route
// request goes out flagged with the alias key; the interface name and the
// family drive the lookups after a successful reply.
struct AliasRequest {
    uint16_t key;
    uint8_t family;  // TARN_FAMILY_*
    char ifname[64];
    uint32_t unit;
    tarn_rt_request route;
};

}  // namespace tarn::client

struct tarn_session_handle {
    ipc_pipe_t *pipe;
    int fd;
    int family;
    const tarn_session_funs *funs;
    const tarn_private_funs *private_funs;
    int state;
    int (*writer)(tarn_session_handle *);
    tarn::client::Queued *queue_head;
    tarn::client::Queued **queue_tail;
    int queue_size;
    rtslib_cookie *rts;
    int rtsock;
    patricia_root *alias_tree;
    void *context;
};

namespace tarn::client {

// Big-endian field access at any alignment.
inline uint32_t load32(const void *p)
{
    uint32_t v;
    std::memcpy(&v, p, 4);
    return __builtin_bswap32(v);
}
inline uint16_t load16(const void *p)
{
    uint16_t v;
    std::memcpy(&v, p, 2);
    return __builtin_bswap16(v);
}
inline void store32(void *p, uint32_t v)
{
    v = __builtin_bswap32(v);
    std::memcpy(p, &v, 4);
}
inline void store16(void *p, uint16_t v)
{
    v = __builtin_bswap16(v);
    std::memcpy(p, &v, 2);
}

// -1 with EINVAL (null) or ENOTCONN (no socket).
int check_connected(const tarn_session_handle *s);
// -1 with EINVAL / ENOTCONN / EBUSY unless the session may send.
int check_session(const tarn_session_handle *s);
// Places one message of `count` pieces and hands it to the session's writer.
int send_message(tarn_session_handle *s, uint16_t type, const iovec *iov, int count);
// A route request of `type`; next hops only when `with_nexthops`.
int send_route_request(tarn_session_handle *s, uint16_t type, const tarn_rt_request *rq,
                       bool with_nexthops, uint16_t alias_key, uint8_t alias_flag);
// Converts and delivers one received message.
void dispatch(tarn_session_handle *s, ipc_msg_t *msg);

// LSP-ping query replies (lsping.cc): decoded into their records for their
// private slot; types without a query get the converted head and the rest.
void lsping_reply(tarn_session_handle *s, uint16_t type, unsigned char *p, size_t len);
void lsping_unsolicited(tarn_session_handle *s, tarn_private_reply_fn fn, unsigned char *p,
                        size_t len);

// Alias machinery.
int alias_enqueue(tarn_session_handle *s, const AliasRequest *req, uint32_t id, int kind);
void alias_reply(tarn_session_handle *s, int kind, uint32_t result, uint32_t id, uint16_t key);
size_t alias_pending(tarn_session_handle *s, uint16_t key);
void alias_free_all(tarn_session_handle *s);
// The rtslib address family of a family code.
uint8_t alias_rts_family(uint8_t family);

}  // namespace tarn::client

#endif  // LIBTARN_TARN_CLIENT_TARN_CLIENT_INTERNAL_H
