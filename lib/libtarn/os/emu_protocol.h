// The host backend's conversation with the kernel emulator.
//
// A routing socket is a connected AF_UNIX SOCK_SEQPACKET socket to the
// emulator's socket path; it carries exactly the bytes the target kernel
// would. The client binds it to an autobound abstract address before
// connecting, so the emulator sees the same unique name as the client's
// getsockname(): that name identifies the routing socket on the control path.
//
// Socket options (and later sysctl) travel on short-lived control
// connections to "<path>.ctl", one request and one reply each, so control
// traffic never mixes with the messages that read() must see. A control
// request names the routing socket it is for; the emulator accepts pending
// routing sockets before it looks a name up, so a request made right after
// connect() always finds its socket.
#ifndef LIBTARN_OS_EMU_PROTOCOL_H
#define LIBTARN_OS_EMU_PROTOCOL_H

#include <cstdint>
#include <string>

namespace tarn::emu {

inline constexpr const char *kSocketEnv = "TARN_KERNEL_SOCKET";
inline constexpr const char *kDefaultSocketPath = "/tmp/tarn-kernel.sock";
inline constexpr const char *kControlSuffix = ".ctl";

inline constexpr uint32_t kCtlMagic = 0x54434c31;  // "1LCT"
inline constexpr uint32_t kMaxNameLen = 108;
inline constexpr uint32_t kMaxValueLen = 1u << 20;

enum class CtlOp : uint32_t {
    kGetOpt = 1,     // name: a routing socket; the value in is the caller's buffer,
                     // the reply carries the option's value
    kSetOpt = 2,     // name: a routing socket; the value is the option's new value
    kSysctlSet = 3,  // name: a sysctl name; the value is its new value
    kInject = 4,     // name: a routing socket; the value is sent on it as one message
                     // (test scripting: raw messages of any size or content)
    kCommand = 5,    // name: a routing socket or empty; the value is a command line
                     // ("dump", "drop-replies N", ...); the reply is its output
    kSysctlGet = 6,  // name: a sysctl name ("hw.product.ifs_max_clients"); the reply
                     // carries its whole value (ENOENT for an unknown name)
    kRouteSysctl = 7,  // name: empty; the value is the MIB below CTL_NET.PF_ROUTE as
                       // int32 words (0, 0, NET_RT_IFLIST, kind); the reply carries
                       // the whole table (the client turns it into sysctl's
                       // size-query and ENOMEM conventions)
};

struct CtlRequest {
    uint32_t magic;
    uint32_t op;
    int32_t level;
    int32_t optname;
    uint32_t name_len;
    uint32_t value_len;
    char name[kMaxNameLen];
};

struct CtlReply {
    uint32_t magic;
    int32_t result;  // 0, or -1 with error set
    int32_t error;   // host errno value
    uint32_t value_len;
};

// A routing socket's identity on the control path: its autobound name.
struct SocketName {
    char bytes[kMaxNameLen];
    uint32_t len;
};

// The name of routing socket `fd`; -1 with errno (ENOTSOCK for a descriptor
// that is not one of ours).
int socket_name(int fd, SocketName &out);

// One request/reply exchange on a fresh control connection. Sends `*len`
// bytes of `buf` as the value; copies at most `capacity` bytes of the reply's
// value back into `buf` and stores their number in `*len`. 0, or -1 with
// errno (the emulator's own errno for a refused request).
int control_call(CtlOp op, const char *name, uint32_t name_len, int32_t level, int32_t optname,
                 void *buf, uint32_t *len, uint32_t capacity);

// The routing-socket path: $TARN_KERNEL_SOCKET, or kDefaultSocketPath.
std::string socket_path();

}  // namespace tarn::emu

#endif  // LIBTARN_OS_EMU_PROTOCOL_H
