// The emulator's transport: the listening sockets, client connections with
// their bounded output queues and scripted faults, the control path, and
// the poll loop that runs them until a signal or a "shutdown".
#ifndef TARN_TARN_EMU_SERVER_H
#define TARN_TARN_EMU_SERVER_H

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include <qpipe/ipc_pipe.h>

#include "daemon.h"
#include "emu_log.h"
#include "frame.h"

namespace tarn::temu {

struct ServerConfig {
    std::string listen_path;
    int tcp_port = -1;  // -1: no TCP; 0: any free port
    std::string tcp_address = "127.0.0.1";  // numeric IPv4 or IPv6
    std::string control_path;
    unsigned socket_mode = 0600;  // permission bits of the local socket files
    size_t queue_bound = 1u << 20;  // bytes waiting for one client
};

class Server {
public:
    Server(const ServerConfig &cfg, RoutingDaemon &daemon, const EmuLog &log);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Binds every listening socket; false with a reason.
    bool listen(std::string &error);
    // Serves until SIGTERM or SIGINT (delivered through `signal_fd`) or a
    // "shutdown" command; removes the socket files. The exit status.
    // SIGUSR1 logs the daemon's state.
    int run(int signal_fd);

    // One control command line: its output; `err` gets 0 or an errno value.
    std::string command(const std::string &line, int &err);

private:
    // Waiting output: frames go through the pipe, raw bytes (scripted
    // faults) around it once the pipe has sent everything before them.
    struct Pending {
        bool raw;
        uint16_t type;
        std::vector<uint8_t> bytes;
    };
    struct Conn {
        int fd = -1;
        ipc_pipe_t *pipe = nullptr;
        std::deque<Pending> out;
        size_t sent = 0;   // of a raw out.front()
        size_t queued = 0; // bytes in out
        bool stalled = false;
        int64_t stalled_until = 0;  // steady-clock ms; 0: until resumed
        bool close_when_sent = false;
    };
    struct Control {
        int fd;
        std::string in, out;
        bool answered = false;
        bool draining = false;  // answer sent, write side shut: reading to the end
    };
    friend struct Commands;

    void accept_clients(int listen_fd);
    void accept_control();
    void read_client(uint64_t id, Conn &c);
    void write_client(uint64_t id, Conn &c);
    void serve_control(Control &c, short revents);
    void deliver(std::vector<Outgoing> frames);
    void enqueue(uint64_t id, Conn &c, Pending p);
    void drop(uint64_t id, const char *why, bool reset = false);
    void close_all();
    int poll_timeout();

    const ServerConfig &cfg_;
    RoutingDaemon &daemon_;
    const EmuLog &log_;
    int unix_fd_ = -1, tcp_fd_ = -1, control_fd_ = -1;
    std::map<uint64_t, Conn> conns_;
    std::vector<Control> controls_;
    std::vector<uint64_t> doomed_;  // closed once the loop is done with them
    uint64_t next_id_ = 1;
    bool shutdown_ = false;
};

std::string command_help();

}  // namespace tarn::temu

#endif  // TARN_TARN_EMU_SERVER_H
