// Sessions with the routing daemon: allocation, connection, closing and the
// two writers. The caller's event loop drives everything; nothing here
// blocks.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "libtarn/os/os.h"
#include "libtarn/tarn_client/tarn_client_internal.h"

using namespace tarn::client;

namespace {

constexpr int kSocketBuffer = 65536;

bool transient(int err)
{
    return err == EAGAIN || err == EWOULDBLOCK || err == EINTR;
}

int add_nonblocking(int fd)
{
    int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0) return -1;
    return ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

int close_keeping_errno(int fd)
{
    int saved = errno;
    ::close(fd);
    errno = saved;
    return -1;
}

// Tries to send what the pipe holds for the session, the pending message
// only if it fits whole. 0 once the message has started to leave (a tail the
// socket did not take yet stays in the pipe and counts as sent), -1 with errno
// otherwise; nothing is discarded here.
int attempt(tarn_session_handle *s)
{
    const size_t pending = ipc_pipe_write_pending(s->pipe);
    if (tarn::os::session_send_room(s->fd, s->family == kDomainLocal,
                                    static_cast<uint32_t>(pending)) != 0) {
        if (errno == EWOULDBLOCK) errno = EAGAIN;
        return -1;
    }
    if (ipc_pipe_write(s->pipe, 0) == 0) return 0;
    const int err = errno;
    size_t unsent = 0;
    ipc_pipe_write_unsent(s->pipe, &unsent);
    if (transient(err) && unsent == 0) return 0;
    errno = err;
    return -1;
}

int direct_writer(tarn_session_handle *s)
{
    if (attempt(s) == 0) return 0;
    const int err = errno;
    ipc_pipe_write_discard(s->pipe);
    errno = err;
    return -1;
}

void call_want_write(tarn_session_handle *s)
{
    if (s->funs->tsf_want_write != nullptr) s->funs->tsf_want_write(s);
}

// Moves the pipe's untouched message to the tail of the output queue.
int enqueue_pending(tarn_session_handle *s)
{
    size_t len = 0;
    const void *bytes = ipc_pipe_write_unsent(s->pipe, &len);
    if (bytes == nullptr) return 0;
    auto *q = static_cast<Queued *>(std::malloc(sizeof(Queued) + len));
    if (q == nullptr) {
        ipc_pipe_write_discard(s->pipe);
        errno = ENOMEM;
        return -1;
    }
    q->next = nullptr;
    q->len = static_cast<uint32_t>(len);
    std::memcpy(q->bytes(), bytes, len);
    *s->queue_tail = q;
    s->queue_tail = &q->next;
    ++s->queue_size;
    ipc_pipe_write_discard(s->pipe);
    return 0;
}

void free_queue(tarn_session_handle *s)
{
    Queued *q = s->queue_head;
    while (q != nullptr) {
        Queued *next = q->next;
        std::free(q);
        q = next;
    }
    s->queue_head = nullptr;
    s->queue_tail = &s->queue_head;
}

void flush_one(tarn_session_handle *s);

int queueing_writer(tarn_session_handle *s)
{
    if (s->queue_head == nullptr) {
        if (attempt(s) == 0) {
            // A message the socket took only part of needs writability too.
            if (ipc_pipe_write_pending(s->pipe) != 0) call_want_write(s);
            return 0;
        }
        if (!transient(errno)) {
            const int err = errno;
            ipc_pipe_write_discard(s->pipe);
            errno = err;
            return -1;
        }
        if (enqueue_pending(s) != 0) return -1;
        call_want_write(s);
        return 0;
    }
    if (enqueue_pending(s) != 0) return -1;
    flush_one(s);
    return 0;
}

void flush_one(tarn_session_handle *s)
{
    int rc = 0;
    if (ipc_pipe_write_tail(s->pipe) != 0) {
        // The rest of a message that started to leave goes first; it is this
        // call's one message.
        rc = ipc_pipe_write(s->pipe, 0);
    } else if (s->queue_head != nullptr) {
        Queued *q = s->queue_head;
        ipc_msg_t hdr;
        std::memcpy(&hdr, q->bytes(), sizeof hdr);
        rc = ipc_msg_write(s->pipe, &hdr, q->bytes() + IPC_MSG_HDR_LEN);
        if (rc == 0) rc = attempt(s);
        if (rc == 0) {
            s->queue_head = q->next;
            if (s->queue_head == nullptr) s->queue_tail = &s->queue_head;
            --s->queue_size;
            std::free(q);
        } else {
            const int err = errno;
            ipc_pipe_write_discard(s->pipe);
            errno = err;
        }
    }
    if (rc != 0 && !transient(errno)) {
        if (s->funs->tsf_connection_lost != nullptr) s->funs->tsf_connection_lost(s, 0, 0);
        return;
    }
    if (s->queue_head != nullptr || ipc_pipe_write_pending(s->pipe) != 0) {
        call_want_write(s);
    } else if (s->funs->tsf_write_drained != nullptr) {
        s->funs->tsf_write_drained(s);
    }
}

}  // namespace

namespace tarn::client {

int check_connected(const tarn_session_handle *s)
{
    if (s == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (s->fd == -1) {
        errno = ENOTCONN;
        return -1;
    }
    return 0;
}

int check_session(const tarn_session_handle *s)
{
    if (check_connected(s) != 0) return -1;
    if (s->state != kAccepted) {
        errno = EBUSY;
        return -1;
    }
    return 0;
}

int send_message(tarn_session_handle *s, uint16_t type, const iovec *iov, int count)
{
    if (check_session(s) != 0) return -1;
    size_t total = 0;
    for (int i = 0; i < count; ++i) total += iov[i].iov_len;
    if (total > TARN_MSG_MAX_PAYLOAD) {
        errno = EMSGSIZE;
        return -1;
    }
    ipc_msg_t hdr{};
    hdr.type = type;
    hdr.length = static_cast<uint16_t>(total);
    if (ipc_msg_writev(s->pipe, &hdr, iov, count) != 0) return -1;
    return s->writer(s);
}

}  // namespace tarn::client

extern "C" {

TARN_API int tarn_session_handle_alloc(tarn_session_handle **session_out,
                                       const tarn_session_funs *funs)
{
    if (session_out == nullptr || funs == nullptr || funs->tsf_connection_status == nullptr ||
        (funs->tsf_want_write != nullptr && funs->tsf_write_drained == nullptr)) {
        errno = EINVAL;
        return -1;
    }
    auto *s = static_cast<tarn_session_handle *>(std::calloc(1, sizeof(tarn_session_handle)));
    if (s == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    s->fd = -1;
    s->rtsock = -1;
    s->pipe = ipc_pipe_create(TARN_SESSION_BUFSIZE);
    s->funs = funs;
    s->queue_tail = &s->queue_head;
    s->writer = funs->tsf_want_write != nullptr ? queueing_writer : direct_writer;
    if (s->pipe != nullptr) s->rts = rtslib_open(0);
    if (s->rts != nullptr) s->rtsock = tarn::os::route_socket_open();
    if (s->rtsock >= 0) {
        int size = kSocketBuffer;
        if (::setsockopt(s->rtsock, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) != 0 ||
            add_nonblocking(s->rtsock) != 0) {
            const int err = errno;
            tarn::os::route_socket_close(s->rtsock);
            s->rtsock = -1;
            errno = err;
        }
    }
    if (s->rtsock >= 0) s->alias_tree = patricia_root_init(nullptr, 0, 2, 0);
    if (s->alias_tree == nullptr) {
        const int err = errno != 0 ? errno : ENOMEM;
        if (s->rtsock >= 0) tarn::os::route_socket_close(s->rtsock);
        if (s->rts != nullptr) rtslib_close(s->rts);
        ipc_pipe_destroy(s->pipe);
        std::free(s);
        errno = err;
        return -1;
    }
    *session_out = s;
    return 0;
}

TARN_API void tarn_session_handle_free(tarn_session_handle *s)
{
    if (s == nullptr) return;
    if (s->fd != -1) ::close(s->fd);
    ipc_pipe_destroy(s->pipe);
    free_queue(s);
    rtslib_close(s->rts);
    if (s->rtsock >= 0) tarn::os::route_socket_close(s->rtsock);
    alias_free_all(s);
    patricia_root_delete(s->alias_tree);
    std::free(s);
}

TARN_API int tarn_session_connect(tarn_session_handle *s, const void *address, uint32_t option)
{
    if (s == nullptr || address == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (s->fd != -1) {
        errno = EISCONN;
        return -1;
    }
    const auto *addr = static_cast<const unsigned char *>(address);
    sockaddr_storage peer{};
    socklen_t peer_len = 0;
    int domain;
    if (addr[1] == TARN_CONNECT_KIND_INET) {
        domain = AF_INET;
        auto *in = reinterpret_cast<sockaddr_in *>(&peer);
        in->sin_family = AF_INET;
        std::memcpy(&in->sin_port, addr + 2, 2);
        std::memcpy(&in->sin_addr, addr + 4, 4);
        peer_len = sizeof *in;
        s->family = kDomainInet;
    } else if (addr[1] == TARN_CONNECT_KIND_LOCAL) {
        domain = AF_UNIX;
        auto *un = reinterpret_cast<sockaddr_un *>(&peer);
        const char *path = reinterpret_cast<const char *>(addr + 2);
        const size_t n = ::strnlen(path, sizeof un->sun_path);
        if (n == sizeof un->sun_path) {
            errno = ENAMETOOLONG;
            return -1;
        }
        un->sun_family = AF_UNIX;
        std::memcpy(un->sun_path, path, n);
        peer_len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + n + 1);
        s->family = kDomainLocal;
    } else {
        errno = EAFNOSUPPORT;
        return -1;
    }

    const int fd = ::socket(domain, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (domain == AF_INET) (void)tarn::os::session_ip_option(fd, option);
    linger lg{};
    lg.l_onoff = 1;
    lg.l_linger = 0;
    int size = kSocketBuffer;
    if (add_nonblocking(fd) != 0 || ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg) != 0 ||
        ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size) != 0 ||
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) != 0)
        return close_keeping_errno(fd);
    if (ipc_pipe_attach_socket(s->pipe, fd) != 0) return close_keeping_errno(fd);

    s->fd = fd;
    if (::connect(fd, reinterpret_cast<sockaddr *>(&peer), peer_len) == 0) {
        s->state = kConnected;
        return 0;
    }
    if (errno == EINPROGRESS) {
        s->state = kConnecting;
        return -1;
    }
    // The field keeps the closed number on purpose: the caller closes the
    // session before connecting again.
    return close_keeping_errno(fd);
}

TARN_API int tarn_session_close(tarn_session_handle *s)
{
    if (s == nullptr || s->fd == -1) {
        errno = EINVAL;
        return -1;
    }
    ::close(s->fd);
    ipc_pipe_detach_socket(s->pipe, s->fd);
    s->fd = -1;
    s->state = kIdle;
    // The count stays: callers read it to learn how much was dropped.
    free_queue(s);
    alias_free_all(s);
    return 0;
}

TARN_API int tarn_session_handle_descriptor(const tarn_session_handle *s)
{
    return s == nullptr ? -1 : s->fd;
}

TARN_API int tarn_session_handle_rtsock_descriptor(const tarn_session_handle *s)
{
    return s == nullptr ? -1 : s->rtsock;
}

TARN_API int tarn_session_queue_size(const tarn_session_handle *s)
{
    return s == nullptr ? 0 : s->queue_size;
}

TARN_API void tarn_session_set_context(tarn_session_handle *s, void *context)
{
    if (s != nullptr) s->context = context;
}

TARN_API void *tarn_session_return_context(const tarn_session_handle *s)
{
    return s == nullptr ? nullptr : s->context;
}

TARN_API int tarn_session_bind_private_funs(tarn_session_handle *s, const tarn_private_funs *funs)
{
    if (s == nullptr || funs == nullptr) {
        errno = EINVAL;
        return -1;
    }
    s->private_funs = funs;
    return 0;
}

TARN_API void tarn_session_write_callback(tarn_session_handle *s)
{
    if (s == nullptr || s->fd == -1) return;
    flush_one(s);
}

TARN_API int tarn_session_rtsock_event(tarn_session_handle *s)
{
    if (s == nullptr || s->rtsock < 0) {
        errno = EINVAL;
        return -1;
    }
    // Interface and route state is asked for when needed; what the socket
    // brings unasked is read off so that it cannot fill up.
    unsigned char buf[4096];
    int got = 0;
    for (;;) {
        ssize_t n = ::recv(s->rtsock, buf, sizeof buf, MSG_DONTWAIT);
        if (n > 0) {
            ++got;
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n == 0) {
            errno = EPIPE;
            return -1;
        }
        return got > 0 ? 0 : -1;
    }
}

}  // extern "C"
