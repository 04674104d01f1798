// Target backend: the router OS's own system calls.
#include "libtarn/os/os.h"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include <tarn/rtsock_wire.h>

#if defined(__FreeBSD__)
#include <sys/sysctl.h>
#else
// Built elsewhere only to keep this file compiling; the declaration is the
// router OS's.
extern "C" int sysctlbyname(const char *name, void *oldp, size_t *oldlenp, const void *newp,
                            size_t newlen);
extern "C" int sysctl(const int *name, unsigned int namelen, void *oldp, size_t *oldlenp,
                      const void *newp, size_t newlen);
#endif

namespace tarn::os {

void make_room_for_message(int, uint32_t) {}

int route_socket_open()
{
    return ::socket(TARN_PF_ROUTE, TARN_SOCK_SEQPACKET, 0);
}

int route_getsockopt(int fd, int optname, void *optval, uint32_t *len)
{
    socklen_t l = *len;
    int rc = ::getsockopt(fd, TARN_SOL_ROUTE, optname, optval, &l);
    *len = l;
    return rc;
}

int route_setsockopt(int fd, int optname, const void *optval, uint32_t len)
{
    return ::setsockopt(fd, TARN_SOL_ROUTE, optname, optval, len);
}

int set_nonblocking(int fd)
{
    // The status flags are replaced, not or-ed: the target kernel's value 5.
    return ::fcntl(fd, F_SETFL, 5);
}

int sysctl_by_name(const char *name, void *oldp, size_t *oldlenp, const void *newp, size_t newlen)
{
    return ::sysctlbyname(name, oldp, oldlenp, newp, newlen);
}

int route_iflist(int kind, void *oldp, size_t *oldlenp)
{
    const int mib[6] = {4 /* CTL_NET */, TARN_PF_ROUTE, 0, 0, 3 /* NET_RT_IFLIST */, kind};
    return ::sysctl(mib, 6, oldp, oldlenp, nullptr, 0);
}

int set_send_interface(int fd, int family, uint32_t index)
{
    // The target's options that pin a socket's sending interface.
    constexpr int kIpSendIf = 107;
    constexpr int kIpv6SendIf = 64;
    if (family == TARN_AF_INET) return ::setsockopt(fd, 0 /* IPPROTO_IP */, kIpSendIf, &index, 4);
    return ::setsockopt(fd, 41 /* IPPROTO_IPV6 */, kIpv6SendIf, &index, 4);
}

ssize_t route_write(int fd, const void *buf, size_t len)
{
    return ::write(fd, buf, len);
}

int await_answer(int fd, AnswerWait how)
{
    if (how == AnswerWait::queued) return 0;
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    if (::select(fd + 1, &readable, nullptr, nullptr, nullptr) <= 0) return errno;
    return 0;
}

int kernel_errno(uint32_t wire)
{
    return static_cast<int>(wire);
}

int route_socket_close(int fd)
{
    return ::close(fd);
}

int session_send_room(int fd, bool local, uint32_t len)
{
    int mark = static_cast<int>(len);
    if (::setsockopt(fd, SOL_SOCKET, SO_SNDLOWAT, &mark, sizeof mark) != 0) return -1;
    if (!local) return 0;
    int back = 0;
    socklen_t back_len = sizeof back;
    if (::getsockopt(fd, SOL_SOCKET, SO_SNDLOWAT, &back, &back_len) != 0 || back != mark) {
        errno = EAGAIN;
        return -1;
    }
    return 0;
}

int session_ip_option(int fd, uint32_t value)
{
    return ::setsockopt(fd, 0 /* IPPROTO_IP */, 109, &value, sizeof value);
}

}  // namespace tarn::os
