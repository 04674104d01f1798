// Host backend: routing sockets are served by the kernel emulator (see
// emu_protocol.h for how options travel).
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "libtarn/os/emu_protocol.h"
#include "libtarn/os/os.h"
#include <tarn/rtsock_wire.h>

namespace tarn::emu {

std::string socket_path()
{
    const char *env = std::getenv(kSocketEnv);
    return (env != nullptr && env[0] != '\0') ? std::string(env) : std::string(kDefaultSocketPath);
}

}  // namespace tarn::emu

namespace tarn::os {
namespace {

// A stopped or wedged emulator must not hang the caller forever.
constexpr int kIoTimeoutSeconds = 5;

void set_timeouts(int fd, int seconds)
{
    timeval tv{};
    tv.tv_sec = seconds;
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
}

int close_keeping_errno(int fd)
{
    int saved = errno;
    ::close(fd);
    errno = saved;
    return -1;
}

// Connects a new SOCK_SEQPACKET socket to `path`; with `autobind` it first
// takes an abstract name of its own. A descriptor or -1 with errno.
int connect_to(const std::string &path, bool autobind)
{
    sockaddr_un addr{};
    if (path.size() >= sizeof addr.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (autobind) {
        sockaddr_un any{};
        any.sun_family = AF_UNIX;
        if (::bind(fd, reinterpret_cast<sockaddr *>(&any), sizeof(sa_family_t)) != 0)
            return close_keeping_errno(fd);
    }
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size());
    set_timeouts(fd, kIoTimeoutSeconds);
    if (::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
        return close_keeping_errno(fd);
    return fd;
}

// One request/reply exchange on a fresh control connection. The request
// carries *len bytes of buf (a get passes its buffer in too: some options
// select what to read by its first bytes); the reply's value, if any, is
// copied back into buf and its length stored in *len.
int control_call(int fd, emu::CtlOp op, int optname, void *buf, uint32_t *len)
{
    sockaddr_un self{};
    socklen_t self_len = sizeof self;
    if (::getsockname(fd, reinterpret_cast<sockaddr *>(&self), &self_len) != 0) return -1;
    const size_t name_len = self_len - offsetof(sockaddr_un, sun_path);
    if (self.sun_family != AF_UNIX || name_len < 2 || self.sun_path[0] != '\0') {
        errno = ENOTSOCK;  // not a routing socket of ours
        return -1;
    }
    if (*len > emu::kMaxValueLen) {
        errno = EINVAL;
        return -1;
    }

    emu::CtlRequest req{};
    req.magic = emu::kCtlMagic;
    req.op = static_cast<uint32_t>(op);
    req.level = TARN_SOL_ROUTE;
    req.optname = optname;
    req.name_len = static_cast<uint32_t>(name_len);
    req.value_len = *len;
    std::memcpy(req.name, self.sun_path, name_len);

    unsigned char msg[sizeof req + emu::kMaxValueLen];
    std::memcpy(msg, &req, sizeof req);
    if (*len > 0) std::memcpy(msg + sizeof req, buf, *len);
    const size_t msg_len = sizeof req + *len;

    int c = connect_to(emu::socket_path() + emu::kControlSuffix, false);
    if (c < 0) return -1;
    if (::send(c, msg, msg_len, MSG_NOSIGNAL) != static_cast<ssize_t>(msg_len))
        return close_keeping_errno(c);
    ssize_t n = ::recv(c, msg, sizeof msg, 0);
    if (n <= 0) {
        if (n == 0) errno = ECONNRESET;  // the emulator went away mid-call
        return close_keeping_errno(c);
    }
    ::close(c);

    emu::CtlReply rep{};
    if (static_cast<size_t>(n) < sizeof rep) {
        errno = EPROTO;
        return -1;
    }
    std::memcpy(&rep, msg, sizeof rep);
    if (rep.magic != emu::kCtlMagic || rep.value_len > static_cast<size_t>(n) - sizeof rep) {
        errno = EPROTO;
        return -1;
    }
    if (rep.result != 0) {
        errno = rep.error;
        return -1;
    }
    if (op == emu::CtlOp::kGetOpt) {
        const uint32_t copy = rep.value_len < *len ? rep.value_len : *len;
        if (copy > 0) std::memcpy(buf, msg + sizeof rep, copy);
        *len = copy;
    }
    return 0;
}

}  // namespace

int route_socket_open()
{
    int fd = connect_to(emu::socket_path(), true);
    if (fd < 0) return -1;
    // The timeouts guarded connect(); the socket itself behaves like the
    // target's, whose reads and writes never time out.
    set_timeouts(fd, 0);
    return fd;
}

int route_getsockopt(int fd, int optname, void *optval, uint32_t *len)
{
    if (optval == nullptr || len == nullptr) {
        errno = EFAULT;
        return -1;
    }
    return control_call(fd, emu::CtlOp::kGetOpt, optname, optval, len);
}

int route_setsockopt(int fd, int optname, const void *optval, uint32_t len)
{
    if (optval == nullptr && len > 0) {
        errno = EFAULT;
        return -1;
    }
    // The value is only read: control_call copies back for gets alone.
    return control_call(fd, emu::CtlOp::kSetOpt, optname, const_cast<void *>(optval), &len);
}

int set_nonblocking(int fd)
{
    int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0) return -1;
    return ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

int route_socket_close(int fd)
{
    return ::close(fd);
}

}  // namespace tarn::os
