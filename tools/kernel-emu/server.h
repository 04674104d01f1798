// The emulator's transport: listening sockets, routing-socket connections,
// control connections, and the poll loop that runs them until a signal.
#ifndef TARN_KERNEL_EMU_SERVER_H
#define TARN_KERNEL_EMU_SERVER_H

#include <sys/socket.h>
#include <sys/uio.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "emu_config.h"
#include "emu_log.h"
#include "kernel.h"
#include "libtarn/os/emu_protocol.h"

namespace tarn::kemu {

class Server {
public:
    Server(const EmuConfig &cfg, const EmuLog &log);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Binds and listens on the routing and control paths. False with a
    // reason when the paths cannot be taken (another emulator owns them).
    bool listen(std::string &error);

    // Serves until SIGTERM or SIGINT (blocked by the caller and delivered
    // through `signal_fd`), then removes the socket files. The exit status.
    // SIGUSR1 logs the kernel's state.
    int run(int signal_fd);

    Kernel &kernel() { return kernel_; }

private:
    void accept_routing_sockets();
    void widen_buffers(uint64_t id, int fd);
    void accept_control();
    void serve_control(int fd);
    int run_command(uint64_t sock, const uint8_t *text, uint32_t len,
                    std::vector<uint8_t> &out);
    int control_request(const emu::CtlRequest &req, const uint8_t *value,
                        std::vector<uint8_t> &out);
    bool read_routing(uint64_t id, int fd);
    // Sends what waits in the sockets' queues until the queues are empty or
    // the clients' receive buffers are full; socket `last` goes last.
    void flush_all(uint64_t last = 0);
    void flush(uint64_t id, int fd);
    Socket *find_socket(const std::string &name);
    void close_all();
    void log_state();

    const EmuConfig &cfg_;
    const EmuLog &log_;
    Kernel kernel_;
    std::string ctl_path_;
    int routing_listen_fd_ = -1;
    int control_listen_fd_ = -1;
    struct Conn {
        int fd;
        uint64_t id;  // the kernel's socket
    };
    std::vector<Conn> conns_;
    std::vector<Conn> kept_;  // the sockets still open after a round; reused
    std::vector<int> control_fds_;
    // Messages one read of a routing socket takes at most.
    static constexpr size_t kBatch = 32;
    std::vector<uint8_t> rx_;
    std::unique_ptr<uint8_t[]> batch_bytes_;
    std::vector<mmsghdr> batch_;
    std::vector<iovec> iov_;
};

}  // namespace tarn::kemu

#endif  // TARN_KERNEL_EMU_SERVER_H
