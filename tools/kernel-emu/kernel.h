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
#include "routing.h"
#include <tarn/rtslib.h>

namespace tarn::kemu {

// One client's routing socket and the options the kernel keeps for it.
struct RouteSocket {
    int fd = -1;           // the server's end of the connection
    uint64_t id = 0;       // connection number, for logs and dumps
    std::string name;      // the client's abstract socket name
    std::map<int, std::vector<uint8_t>> options;
    uint32_t kernel_seq = 1;  // the kernel's own sequence counter (option 3)
    uint32_t drop_replies = 0;  // answers still to be dropped (a scripted fault)
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
    ~Kernel();
    Kernel(const Kernel &) = delete;
    Kernel &operator=(const Kernel &) = delete;

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

    // A scripting command from a test or a person ("dump", "count",
    // "drop-replies N", "mgroup-add TID AF HEX BITS IIF"); `sock` is the socket it names, if
    // any. 0 with the command's output in `out`, or an errno value.
    int command(RouteSocket *sock, const std::string &text, std::string &out);

    const Routing &routing() const { return routing_; }

private:
    const EmuConfig &cfg_;
    const EmuLog &log_;
    Outbox &outbox_;
    std::vector<uint8_t> version_block_;
    std::map<std::string, std::vector<uint8_t>> sysctls_;
    Routing routing_;
    rtslib_cookie *codec_;          // a handle without socket for the codecs
    std::vector<uint8_t> arena_;    // decode arena, reused for every request
    std::vector<uint8_t> tx_;       // encoded answers, reused

    void dispatch(RouteSocket &sock, const rts_hdr_t &hdr, void *record, bool tlv);
    void answer(RouteSocket &sock, const void *record, const void *map);
};

// Name of a level-17 option for logs, "option N" for unknown ones.
std::string option_name(int optname);

}  // namespace tarn::kemu

#endif  // TARN_KERNEL_EMU_KERNEL_H
