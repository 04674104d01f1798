// The emulated kernel: what the router kernel keeps behind its routing
// sockets. Transport-free, so tests drive it directly: a message written to a
// socket goes in, the messages to send (answer and notifications) come out
// and wait in the sockets' queues; the server only moves bytes.
#ifndef TARN_KERNEL_EMU_KERNEL_H
#define TARN_KERNEL_EMU_KERNEL_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <tarn/rtslib.h>

#include "emission.h"
#include "emu_config.h"
#include "emu_log.h"
#include "gencfg.h"
#include "ifstate.h"
#include "interfaces.h"
#include "routing.h"
#include "socket_state.h"

namespace tarn::kemu {

class Kernel {
public:
    Kernel(const EmuConfig &cfg, const EmuLog &log);
    ~Kernel();
    Kernel(const Kernel &) = delete;
    Kernel &operator=(const Kernel &) = delete;

    // The block returned for ROUTE_VERSION_INFO.
    const std::vector<uint8_t> &version_block() const { return version_block_; }

    // A routing socket connected by the client named `name`; its id (never 0).
    uint64_t open_socket(const std::string &name);
    void close_socket(uint64_t id);
    Socket *socket(uint64_t id);
    Socket *find_socket(const std::string &name);
    const Emission::Sockets &sockets() const { return sockets_; }

    // Socket options. `value` holds the caller's buffer on entry (its size is
    // the capacity) and the option's value on return. 0 or an errno value.
    int get_option(const SocketState &sock, int level, int optname,
                   std::vector<uint8_t> &value) const;
    int set_option(SocketState &sock, int level, int optname, const uint8_t *value, size_t len);

    // A message written to routing socket `id`: what the kernel sends in
    // return, answer first. Nothing is queued yet.
    std::vector<Outgoing> handle_message(uint64_t id, const uint8_t *msg, size_t len);
    // Queues messages on their sockets, dropping notifications beyond a
    // socket's bound (counted and logged).
    void post(std::vector<Outgoing> &&msgs);
    void receive(uint64_t id, const uint8_t *msg, size_t len) { post(handle_message(id, msg, len)); }

    // sysctlbyname writes. 0 or an errno value.
    int sysctl_set(const std::string &name, const uint8_t *value, size_t len);
    const std::map<std::string, std::vector<uint8_t>> &sysctls() const { return sysctls_; }
    // sysctlbyname reads: 0 with the value, or ENOENT for a name the kernel
    // does not have.
    int sysctl_get(const std::string &name, std::vector<uint8_t> &value) const;
    // The routing sysctl below CTL_NET.PF_ROUTE: `mib` holds its words (0, 0,
    // NET_RT_IFLIST, kind). 0 with the whole table, or EINVAL.
    int route_sysctl(const int32_t *mib, size_t words, std::vector<uint8_t> &table) const;

    // A control command line (see command_help()) about socket `id` (0:
    // none). 0 with the command's output in `out`, or an errno value:
    // EOPNOTSUPP for an unknown command, EINVAL for bad arguments, a
    // missing socket, a byte that is not printable or more words than the
    // command takes, E2BIG for a line over 4096 bytes (both refusals also
    // logged, with the reason in `out`), EEXIST or ENOENT for a change the
    // kernel refused.
    int command(uint64_t id, const std::string &text, std::string &out);

    const Routing &routing() const { return routing_; }
    const Interfaces &interfaces() const { return interfaces_; }
    const IfStateClients &ifstate_clients() const { return ifstate_; }
    const Gencfg &gencfg() const { return gencfg_; }
    uint32_t ifs_max_clients() const { return ifs_max_clients_; }

private:
    friend struct Commands;

    const EmuConfig &cfg_;
    const EmuLog &log_;
    std::vector<uint8_t> version_block_;
    std::map<std::string, std::vector<uint8_t>> sysctls_;
    Routing routing_;
    Interfaces interfaces_;
    IfStateClients ifstate_;
    Gencfg gencfg_;
    uint32_t ifs_max_clients_;
    Emission::Sockets sockets_;
    uint64_t next_id_ = 1;
    rtslib_cookie *codec_;          // a handle without socket for the codecs
    std::vector<uint8_t> arena_;    // decode arena, reused for every request

    void dispatch(const void *record, Emission &out);
};

// Name of a level-17 option for logs, "option N" for unknown ones.
std::string option_name(int optname);

// The control commands, one per line with their arguments and what they do
// (the "help" command's output).
std::string command_help();

}  // namespace tarn::kemu

#endif  // TARN_KERNEL_EMU_KERNEL_H
