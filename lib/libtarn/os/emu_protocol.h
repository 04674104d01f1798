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
inline constexpr uint32_t kMaxValueLen = 4096;

enum class CtlOp : uint32_t {
    kGetOpt = 1,  // value_len is the caller's capacity; the reply carries the value
    kSetOpt = 2,  // value_len bytes follow the request
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

// The routing-socket path: $TARN_KERNEL_SOCKET, or kDefaultSocketPath.
std::string socket_path();

}  // namespace tarn::emu

#endif  // LIBTARN_OS_EMU_PROTOCOL_H
