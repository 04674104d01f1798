// The OS seam: every call the library makes to the target's kernel that is
// not plain descriptor I/O. read, write, recv(MSG_PEEK) and select act on the
// routing-socket descriptor directly on both backends, because the host's
// stand-in is a real SOCK_SEQPACKET descriptor with message boundaries.
//
// Each function follows system-call conventions: a result of -1 comes with
// errno set.
#ifndef LIBTARN_OS_OS_H
#define LIBTARN_OS_OS_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace tarn::os {

// socket(PF_ROUTE, SOCK_SEQPACKET, 0): a descriptor or -1.
int route_socket_open();

// getsockopt/setsockopt at the routing-socket level (17). *len carries the
// capacity in and the length produced out.
int route_getsockopt(int fd, int optname, void *optval, uint32_t *len);
int route_setsockopt(int fd, int optname, const void *optval, uint32_t len);

// Makes the descriptor non-blocking: on the target the status flags become
// exactly 5 (O_NONBLOCK with the low bit set), kept as the kernel expects.
int set_nonblocking(int fd);

// sysctlbyname(3): with oldp NULL *oldlenp gets the value's size; a buffer
// too small for the value gives ENOMEM.
int sysctl_by_name(const char *name, void *oldp, size_t *oldlenp, const void *newp, size_t newlen);

// sysctl(3) on {CTL_NET, PF_ROUTE, 0, 0, NET_RT_IFLIST, kind}: the kernel's
// interface table of that kind, with sysctl's size-query and ENOMEM
// conventions as above.
inline constexpr int kIfListAll = 10;  // logical interfaces and their addresses
int route_iflist(int kind, void *oldp, size_t *oldlenp);

// Chooses the interface a socket of `family` (TARN_AF_INET or TARN_AF_INET6)
// sends on: the target's IP-level options 107 and 64. The host has no such
// interfaces; see rtslib_if.h for what it does instead.
int set_send_interface(int fd, int family, uint32_t index);

// write(2) on a routing socket.
ssize_t route_write(int fd, const void *buf, size_t len);

// Makes room for one message of `len` bytes to be written whole. The target
// kernel takes any routing message the caller can build; the host's
// SOCK_SEQPACKET refuses one larger than the send buffer, so the host widens
// the buffer as needed (best effort: the host may cap it).
void make_room_for_message(int fd, uint32_t len);

// How long a request waits for its answer after the write.
enum class AnswerWait : uint8_t {
    // The target kernel queues the answer before write() returns.
    queued,
    // The target kernel answers later; the caller blocks until it does.
    blocking,
};

// Waits until the answer to a request just written can be read: 0, or the
// errno of a failed wait. On the target, `queued` returns at once and
// `blocking` selects with no time-out. The emulator answers from another
// process, so the host waits for the descriptor to become readable in both
// cases, for at most TARN_KERNEL_REPLY_TIMEOUT_MS (default 5000); an answer
// that never comes then reads as EAGAIN, so a lost answer cannot hang a
// daemon under test.
int await_answer(int fd, AnswerWait how);

// An error number the kernel put in a message (the target's numbering) as
// this system's errno value.
int kernel_errno(uint32_t wire);

// Closes a routing-socket descriptor.
int route_socket_close(int fd);

// Routing-daemon session sockets (stream sockets, local or IPv4).

// Asks that the stream socket `fd` take a message of `len` bytes only whole:
// 0 when it will, -1 with EAGAIN when it has no room for all of it now (or
// the socket's error). The target sets the send low-water mark to `len` (a
// local socket's mark is read back and must match). Linux refuses that
// option, so the host compares the bytes queued with the send buffer, never
// claiming room that is not there.
int session_send_room(int fd, bool local, uint32_t len);

// Passes `value` to the target's IP-level option 109 of an IPv4 session
// socket before it connects; the result is the caller's to ignore.
int session_ip_option(int fd, uint32_t value);

}  // namespace tarn::os

#endif  // LIBTARN_OS_OS_H
