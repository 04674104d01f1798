// Host backend: routing sockets are served by the kernel emulator (see
// emu_protocol.h for how options travel).
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "libtarn/os/emu_protocol.h"
#include "libtarn/os/os.h"
#include <tarn/rtsock_wire.h>

namespace tarn::emu {

namespace {

// The library's own calls take the path as text: a std::string would
// allocate through operator new, whose failure throws instead of failing
// the call with ENOMEM.
// Control calls whose request or reply is no larger than this use no heap.
constexpr size_t kInlineCallLen = 2048;

const char *configured_socket_path()
{
    const char *env = std::getenv(kSocketEnv);
    return (env != nullptr && env[0] != '\0') ? env : kDefaultSocketPath;
}

}  // namespace

std::string socket_path() { return configured_socket_path(); }

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

// Connects a new SOCK_SEQPACKET socket to `path` followed by `suffix`; with
// `autobind` it first takes an abstract name of its own. A descriptor or -1
// with errno.
int connect_to(const char *path, const char *suffix, bool autobind)
{
    sockaddr_un addr{};
    const size_t path_len = std::strlen(path);
    const size_t suffix_len = std::strlen(suffix);
    if (path_len + suffix_len >= sizeof addr.sun_path) {
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
    std::memcpy(addr.sun_path, path, path_len);
    std::memcpy(addr.sun_path + path_len, suffix, suffix_len);
    set_timeouts(fd, kIoTimeoutSeconds);
    if (::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
        return close_keeping_errno(fd);
    return fd;
}

}  // namespace

}  // namespace tarn::os

namespace tarn::emu {

int socket_name(int fd, SocketName &out)
{
    sockaddr_un self{};
    socklen_t self_len = sizeof self;
    if (::getsockname(fd, reinterpret_cast<sockaddr *>(&self), &self_len) != 0) return -1;
    const size_t n = self_len - offsetof(sockaddr_un, sun_path);
    if (self.sun_family != AF_UNIX || n < 2 || n > kMaxNameLen || self.sun_path[0] != '\0') {
        errno = ENOTSOCK;  // not a routing socket of ours
        return -1;
    }
    std::memcpy(out.bytes, self.sun_path, n);
    out.len = static_cast<uint32_t>(n);
    return 0;
}

int control_call(CtlOp op, const char *name, uint32_t name_len, int32_t level, int32_t optname,
                 void *buf, uint32_t *len, uint32_t capacity)
{
    if (name_len > kMaxNameLen || *len > kMaxValueLen || capacity > kMaxValueLen) {
        errno = EINVAL;
        return -1;
    }
    CtlRequest req{};
    req.magic = kCtlMagic;
    req.op = static_cast<uint32_t>(op);
    req.level = level;
    req.optname = optname;
    req.name_len = name_len;
    req.value_len = *len;
    if (name_len > 0) std::memcpy(req.name, name, name_len);

    // One buffer serves the request and then the reply. Socket options fit
    // on the stack: on the target they are plain system calls, so they must
    // not start failing here for want of heap (a version read that fails is
    // fatal to the caller).
    const size_t size = sizeof req + (*len > capacity ? *len : capacity);
    alignas(CtlReply) unsigned char inline_msg[kInlineCallLen];
    auto *msg = size <= sizeof inline_msg ? inline_msg
                                          : static_cast<unsigned char *>(std::malloc(size));
    if (msg == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    std::memcpy(msg, &req, sizeof req);
    if (*len > 0) std::memcpy(msg + sizeof req, buf, *len);
    const size_t msg_len = sizeof req + *len;

    int rc = -1;
    ssize_t n = -1;
    int c = tarn::os::connect_to(configured_socket_path(), kControlSuffix, false);
    if (c >= 0 && ::send(c, msg, msg_len, MSG_NOSIGNAL) == static_cast<ssize_t>(msg_len)) {
        n = ::recv(c, msg, sizeof(CtlReply) + capacity, 0);
        if (n == 0) errno = ECONNRESET;  // the emulator went away mid-call
    }
    if (c >= 0) tarn::os::close_keeping_errno(c);

    CtlReply rep{};
    if (n >= static_cast<ssize_t>(sizeof rep)) {
        std::memcpy(&rep, msg, sizeof rep);
        const size_t got = static_cast<size_t>(n) - sizeof rep;
        if (rep.magic != kCtlMagic) {
            errno = EPROTO;
        } else if (rep.result != 0) {
            errno = rep.error;
        } else {
            const uint32_t copy = static_cast<uint32_t>(rep.value_len < got ? rep.value_len : got);
            if (copy > 0) std::memcpy(buf, msg + sizeof rep, copy);
            *len = copy;
            rc = 0;
        }
    } else if (n > 0) {
        errno = EPROTO;
    }
    if (msg != inline_msg) std::free(msg);
    return rc;
}

}  // namespace tarn::emu

namespace tarn::os {

int route_socket_open()
{
    int fd = connect_to(emu::configured_socket_path(), "", true);
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
    emu::SocketName name;
    if (emu::socket_name(fd, name) != 0) return -1;
    return emu::control_call(emu::CtlOp::kGetOpt, name.bytes, name.len, TARN_SOL_ROUTE, optname,
                             optval, len, *len);
}

int route_setsockopt(int fd, int optname, const void *optval, uint32_t len)
{
    if (optval == nullptr && len > 0) {
        errno = EFAULT;
        return -1;
    }
    emu::SocketName name;
    if (emu::socket_name(fd, name) != 0) return -1;
    // A capacity of 0 leaves the value untouched.
    return emu::control_call(emu::CtlOp::kSetOpt, name.bytes, name.len, TARN_SOL_ROUTE, optname,
                             const_cast<void *>(optval), &len, 0);
}

namespace {

// The whole value of a control-path read, handed out with sysctl's
// conventions: oldp NULL asks for the size, a smaller buffer gets ENOMEM
// (and, as on the target, the part that fits).
int sysctl_read(emu::CtlOp op, const char *name, uint32_t name_len, const void *arg,
                uint32_t arg_len, void *oldp, size_t *oldlenp)
{
    if (oldlenp == nullptr) {
        errno = EFAULT;
        return -1;
    }
    auto *value = static_cast<unsigned char *>(std::malloc(emu::kMaxValueLen));
    if (value == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    uint32_t len = arg_len;
    if (arg_len > 0) std::memcpy(value, arg, arg_len);
    int rc = emu::control_call(op, name, name_len, 0, 0, value, &len, emu::kMaxValueLen);
    if (rc == 0) {
        if (oldp == nullptr) {
            *oldlenp = len;
        } else {
            const size_t copy = *oldlenp < len ? *oldlenp : len;
            if (copy > 0) std::memcpy(oldp, value, copy);
            *oldlenp = copy;
            if (copy < len) {
                errno = ENOMEM;
                rc = -1;
            }
        }
    }
    const int saved = errno;
    std::free(value);
    errno = saved;
    return rc;
}

}  // namespace

int sysctl_by_name(const char *name, void *oldp, size_t *oldlenp, const void *newp, size_t newlen)
{
    if (name == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const size_t name_len = std::strlen(name);
    if (name_len > emu::kMaxNameLen || newlen > emu::kMaxValueLen) {
        errno = EINVAL;
        return -1;
    }
    if (oldlenp != nullptr &&
        sysctl_read(emu::CtlOp::kSysctlGet, name, static_cast<uint32_t>(name_len), nullptr, 0,
                    oldp, oldlenp) != 0)
        return -1;
    if (newp == nullptr) return 0;
    uint32_t len = static_cast<uint32_t>(newlen);
    return emu::control_call(emu::CtlOp::kSysctlSet, name, static_cast<uint32_t>(name_len), 0, 0,
                             const_cast<void *>(newp), &len, 0);
}

int route_iflist(int kind, void *oldp, size_t *oldlenp)
{
    const int32_t mib[4] = {0, 0, 3 /* NET_RT_IFLIST */, kind};
    return sysctl_read(emu::CtlOp::kRouteSysctl, "", 0, mib, sizeof mib, oldp, oldlenp);
}

int set_send_interface(int fd, int family, uint32_t index)
{
    // The emulator's interfaces do not exist here; the index is taken as a
    // host interface index and applied with Linux's equivalent options, so a
    // daemon under test sends where it asked. Both want network order.
    const uint32_t be = htonl(index);
    if (family == TARN_AF_INET) return ::setsockopt(fd, IPPROTO_IP, IP_UNICAST_IF, &be, sizeof be);
    return ::setsockopt(fd, IPPROTO_IPV6, IPV6_UNICAST_IF, &be, sizeof be);
}

void make_room_for_message(int fd, uint32_t len)
{
    // The kernel keeps a few dozen bytes of each datagram's bookkeeping in
    // the same budget.
    const uint64_t want = uint64_t{len} + 4096;
    int have = 0;
    socklen_t n = sizeof have;
    if (::getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &have, &n) != 0 || static_cast<uint64_t>(have) >= want) return;
    // Linux doubles the value it is given.
    const int ask = static_cast<int>(std::min<uint64_t>(want, INT_MAX / 2));
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &ask, sizeof ask);
}

ssize_t route_write(int fd, const void *buf, size_t len)
{
    // A vanished emulator must give EPIPE, not kill the daemon with SIGPIPE;
    // the target's routing socket never raises it.
    return ::send(fd, buf, len, MSG_NOSIGNAL);
}

int set_nonblocking(int fd)
{
    int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0) return -1;
    return ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

int await_answer(int fd, AnswerWait)
{
    int timeout_ms = 5000;
    if (const char *env = std::getenv("TARN_KERNEL_REPLY_TIMEOUT_MS"); env != nullptr)
        timeout_ms = std::atoi(env);
    pollfd p{fd, POLLIN, 0};
    while (::poll(&p, 1, timeout_ms) < 0) {
        if (errno != EINTR) return errno;
    }
    return 0;
}

int kernel_errno(uint32_t wire)
{
    // The emulator speaks the target's numbers; those below 35 agree with
    // Linux, the network ones above do not.
    struct Pair {
        uint32_t wire;
        int host;
    };
    static constexpr Pair kDiffering[] = {
        {35, EAGAIN},          {36, EINPROGRESS},   {37, EALREADY},      {43, EPROTONOSUPPORT},
        {45, EOPNOTSUPP},      {47, EAFNOSUPPORT},  {48, EADDRINUSE},    {49, EADDRNOTAVAIL},
        {50, ENETDOWN},        {51, ENETUNREACH},   {55, ENOBUFS},       {60, ETIMEDOUT},
        {61, ECONNREFUSED},    {62, ELOOP},         {63, ENAMETOOLONG},  {65, EHOSTUNREACH},
    };
    for (const Pair &p : kDiffering)
        if (p.wire == wire) return p.host;
    return static_cast<int>(wire);
}

int route_socket_close(int fd)
{
    return ::close(fd);
}

int session_send_room(int fd, bool, uint32_t len)
{
    // Bytes still in the socket (for a local socket this counts buffer
    // overhead too, which errs on the side of "no room").
    int queued = 0;
    int sndbuf = 0;
    socklen_t optlen = sizeof sndbuf;
    if (::ioctl(fd, SIOCOUTQ, &queued) != 0) return -1;
    if (::getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, &optlen) != 0) return -1;
    if (queued < 0 || sndbuf < 0 || static_cast<uint64_t>(queued) + len > static_cast<uint64_t>(sndbuf)) {
        errno = EAGAIN;
        return -1;
    }
    return 0;
}

int session_ip_option(int, uint32_t)
{
    // Linux has no such option; nothing to pass on.
    return 0;
}

}  // namespace tarn::os
