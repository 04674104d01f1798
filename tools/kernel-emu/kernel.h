// The emulated kernel: what the router kernel keeps behind its routing
// sockets. Transport-free, so tests can drive it directly; the server feeds
// it requests and carries its answers.
#ifndef TARN_KERNEL_EMU_KERNEL_H
#define TARN_KERNEL_EMU_KERNEL_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "emu_config.h"
#include "emu_log.h"

namespace tarn::kemu {

// One client's routing socket and the options the kernel keeps for it.
struct RouteSocket {
    int fd = -1;           // the server's end of the connection
    uint64_t id = 0;       // connection number, for logs and dumps
    std::string name;      // the client's abstract socket name
    std::map<int, std::vector<uint8_t>> options;
    uint32_t kernel_seq = 1;  // the kernel's own sequence counter (option 3)
};

// How the kernel's messages reach a socket: the server in the emulator, a
// recorder in tests.
class Outbox {
public:
    virtual ~Outbox() = default;
    // Sends one message; 0 or an errno value (EAGAIN when the client's
    // receive queue is full).
    virtual int deliver(RouteSocket &sock, const uint8_t *msg, size_t len) = 0;
};

class Kernel {
public:
    Kernel(const EmuConfig &cfg, const EmuLog &log, Outbox &outbox);

    // The block returned for ROUTE_VERSION_INFO.
    const std::vector<uint8_t> &version_block() const { return version_block_; }

    // Socket options. `value` holds the caller's buffer on entry (its size is
    // the capacity) and the option's value on return. 0 or an errno value.
    int get_option(RouteSocket &sock, int level, int optname, std::vector<uint8_t> &value) const;
    int set_option(RouteSocket &sock, int level, int optname, const uint8_t *value, size_t len);

    // A message written to a routing socket.
    void handle_message(RouteSocket &sock, const uint8_t *msg, size_t len);

    // sysctlbyname writes. 0 or an errno value.
    int sysctl_set(const std::string &name, const uint8_t *value, size_t len);
    const std::map<std::string, std::vector<uint8_t>> &sysctls() const { return sysctls_; }

private:
    const EmuConfig &cfg_;
    const EmuLog &log_;
    Outbox &outbox_;
    std::vector<uint8_t> version_block_;
    std::map<std::string, std::vector<uint8_t>> sysctls_;
};

// Name of a level-17 option for logs, "option N" for unknown ones.
std::string option_name(int optname);

}  // namespace tarn::kemu

#endif  // TARN_KERNEL_EMU_KERNEL_H
