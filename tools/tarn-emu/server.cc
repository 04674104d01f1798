#include "server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstring>

#include "wire.h"

namespace tarn::temu {
namespace {

// The longest control line taken; commands are a verb and a few short words.
constexpr size_t kMaxControlLine = 4096;

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Owner-only while binding (the umask holds, so the file is never wider,
// not even for a moment), widened afterwards when the configuration says.
int listen_unix(const std::string &path, unsigned mode, std::string &error)
{
    sockaddr_un addr{};
    if (path.size() >= sizeof addr.sun_path) {
        error = "socket path too long: " + path;
        return -1;
    }
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size());
    ::unlink(path.c_str());  // a stale file left by a killed emulator
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    bool bound = false;
    if (fd >= 0) {
        const mode_t old_mask = ::umask(0177);
        bound = ::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
        ::umask(old_mask);
    }
    if (!bound || (mode != 0600 && ::chmod(path.c_str(), mode) != 0) || ::listen(fd, 128) != 0) {
        error = "cannot listen on " + path + ": " + std::strerror(errno);
        if (fd >= 0) ::close(fd);
        return -1;
    }
    return fd;
}

// `address` is numeric (IPv4 or IPv6); `shown` gets the address and port
// the socket really has, as the log prints them.
int listen_tcp(const std::string &address, int port, std::string &error, std::string &shown)
{
    sockaddr_storage addr{};
    socklen_t len = 0;
    auto *v4 = reinterpret_cast<sockaddr_in *>(&addr);
    auto *v6 = reinterpret_cast<sockaddr_in6 *>(&addr);
    if (::inet_pton(AF_INET, address.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<uint16_t>(port));
        len = sizeof *v4;
    } else if (::inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<uint16_t>(port));
        len = sizeof *v6;
    } else {
        error = "not a numeric IPv4 or IPv6 address: " + address;
        return -1;
    }
    const int one = 1;
    int fd = ::socket(addr.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0 || ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
        ::bind(fd, reinterpret_cast<sockaddr *>(&addr), len) != 0 || ::listen(fd, 128) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) != 0) {
        error = "cannot listen on TCP " + address + " port " + std::to_string(port) + ": " +
                std::strerror(errno);
        if (fd >= 0) ::close(fd);
        return -1;
    }
    char text[INET6_ADDRSTRLEN] = "";
    const bool is_v4 = addr.ss_family == AF_INET;
    ::inet_ntop(addr.ss_family, is_v4 ? static_cast<void *>(&v4->sin_addr) : &v6->sin6_addr, text,
                sizeof text);
    shown = std::string(text) + " port " + std::to_string(ntohs(is_v4 ? v4->sin_port : v6->sin6_port));
    return fd;
}

}  // namespace

Server::Server(const ServerConfig &cfg, RoutingDaemon &daemon, const EmuLog &log)
    : cfg_(cfg), daemon_(daemon), log_(log)
{
}

Server::~Server()
{
    close_all();
}

bool Server::listen(std::string &error)
{
    if (!cfg_.listen_path.empty()) {
        if ((unix_fd_ = listen_unix(cfg_.listen_path, cfg_.socket_mode, error)) < 0) return false;
        log_.line("listening on %s", cfg_.listen_path.c_str());
    }
    if (cfg_.tcp_port >= 0) {
        std::string shown;
        if ((tcp_fd_ = listen_tcp(cfg_.tcp_address, cfg_.tcp_port, error, shown)) < 0) return false;
        log_.line("listening on %s", shown.c_str());
    }
    if (!cfg_.control_path.empty()) {
        if ((control_fd_ = listen_unix(cfg_.control_path, cfg_.socket_mode, error)) < 0) return false;
        log_.line("control on %s", cfg_.control_path.c_str());
    }
    return true;
}

void Server::close_all()
{
    for (auto &[id, c] : conns_) {
        ipc_pipe_destroy(c.pipe);
        ::close(c.fd);
    }
    conns_.clear();
    for (auto &c : controls_) ::close(c.fd);
    controls_.clear();
    if (unix_fd_ >= 0) {
        ::close(unix_fd_);
        ::unlink(cfg_.listen_path.c_str());
        unix_fd_ = -1;
    }
    if (tcp_fd_ >= 0) ::close(tcp_fd_);
    tcp_fd_ = -1;
    if (control_fd_ >= 0) {
        ::close(control_fd_);
        ::unlink(cfg_.control_path.c_str());
        control_fd_ = -1;
    }
}

void Server::accept_clients(int listen_fd)
{
    for (;;) {
        int fd = ::accept4(listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) return;
        ipc_pipe_t *pipe = ipc_pipe_create(wire::kBufferSize);
        if (pipe == nullptr || ipc_pipe_attach_socket(pipe, fd) != 0) {
            log_.line("connection not served: %s", std::strerror(errno));
            ipc_pipe_destroy(pipe);
            ::close(fd);
            continue;
        }
        const uint64_t id = next_id_++;
        Conn &c = conns_[id];
        c.fd = fd;
        c.pipe = pipe;
        bool refused = false;
        Outgoing answer = daemon_.connect(id, refused);
        enqueue(id, c, {false, answer.frame.type, std::move(answer.frame.payload)});
        c.close_when_sent = refused;
    }
}

void Server::accept_control()
{
    for (;;) {
        int fd = ::accept4(control_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) return;
        controls_.push_back({fd, {}, {}, false});
    }
}

void Server::enqueue(uint64_t id, Conn &c, Pending p)
{
    if (c.queued + p.bytes.size() > cfg_.queue_bound) {
        log_.line("client %" PRIu64 ": output queue over %zu bytes", id, cfg_.queue_bound);
        doomed_.push_back(id);
        return;
    }
    c.queued += p.bytes.size();
    c.out.push_back(std::move(p));
}

void Server::deliver(std::vector<Outgoing> frames)
{
    for (auto &o : frames) {
        auto it = conns_.find(o.client);
        if (it != conns_.end()) enqueue(o.client, it->second, {false, o.frame.type, std::move(o.frame.payload)});
    }
}

void Server::drop(uint64_t id, const char *why, bool reset)
{
    auto it = conns_.find(id);
    if (it == conns_.end()) return;
    if (reset) {
        // Linger 0: the close discards what is unsent and resets the peer.
        const linger lg{1, 0};
        ::setsockopt(it->second.fd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    }
    ipc_pipe_detach_socket(it->second.pipe, it->second.fd);
    ipc_pipe_destroy(it->second.pipe);
    ::close(it->second.fd);
    conns_.erase(it);
    log_.line("client %" PRIu64 ": closed (%s)", id, why);
    deliver(daemon_.disconnect(id));
}

void Server::read_client(uint64_t id, Conn &c)
{
    // The pipe holds one buffer of input: read, hand out what is complete,
    // and read again until the socket is empty.
    for (;;) {
        const int n = ipc_pipe_read(c.pipe);
        const int err = n < 0 ? errno : 0;
        while (ipc_msg_t *msg = ipc_msg_read(c.pipe)) {
            Frame f{msg->type, std::vector<uint8_t>(ipc_msg_data(msg), ipc_msg_data(msg) + msg->length)};
            deliver(daemon_.handle(id, f));
        }
        ipc_pipe_read_clean(c.pipe);
        if (n >= 0) continue;
        if (err == EAGAIN || err == EWOULDBLOCK) return;
        if (err == EMSGSIZE)
            log_.line("client %" PRIu64 ": header announces more than %zu bytes; not read further",
                      id, wire::kMaxPayload);
        doomed_.push_back(id);
        return;
    }
}

void Server::write_client(uint64_t id, Conn &c)
{
    for (;;) {
        if (ipc_pipe_write_pending(c.pipe) > 0) {
            if (ipc_pipe_write(c.pipe, 0) == 0) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) doomed_.push_back(id);
            return;
        }
        if (c.out.empty()) break;
        Pending &p = c.out.front();
        if (p.raw) {
            ssize_t n = ::send(c.fd, p.bytes.data() + c.sent, p.bytes.size() - c.sent,
                               MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n < 0) {
                if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) doomed_.push_back(id);
                return;
            }
            c.sent += static_cast<size_t>(n);
            if (c.sent < p.bytes.size()) return;
            c.sent = 0;
        } else {
            const ipc_msg_t hdr{0, 0, p.type, static_cast<uint16_t>(p.bytes.size()), 0};
            if (ipc_msg_write(c.pipe, &hdr, p.bytes.data()) != 0) {
                log_.line("client %" PRIu64 ": message type %u not sent: %s", id, p.type,
                          std::strerror(errno));
                doomed_.push_back(id);
                return;
            }
        }
        c.queued -= p.bytes.size();
        c.out.pop_front();
    }
    if (c.close_when_sent) doomed_.push_back(id);
}

// One command line per connection: "ok" or "error TEXT", a line end, the
// command's output (for a refused line, why); then the emulator shuts its
// side and reads what the client still sends until it closes, so that
// unread input never turns the close into a reset that would lose the answer.
// A line is at most kMaxControlLine bytes: a longer one is answered with an
// error as soon as that many have come without a line end.
void Server::serve_control(Control &c, short revents)
{
    if ((c.draining || !c.answered) && (revents & (POLLIN | POLLHUP | POLLERR))) {
        char buf[4096];
        ssize_t n = ::recv(c.fd, buf, sizeof buf, MSG_DONTWAIT);
        if (c.draining) {
            if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) c.draining = false;
            return;
        }
        if (n > 0) c.in.append(buf, static_cast<size_t>(n));
        const size_t nl = c.in.find('\n');
        int err = 0;
        std::string output;
        if ((nl == std::string::npos ? c.in.size() : nl) > kMaxControlLine) {
            err = E2BIG;
            output = "command line longer than " + std::to_string(kMaxControlLine) + " bytes\n";
            log_.line("command refused: %s", output.c_str());
            c.in.clear();
        } else if (nl != std::string::npos || n == 0) {
            const std::string line = c.in.substr(0, nl);
            output = command(line, err);
            log_.line("command \"%s\" -> %s", line.c_str(), err ? std::strerror(err) : "ok");
        } else {
            if (n < 0 && errno != EAGAIN && errno != EINTR) c.answered = true;  // closed below
            return;
        }
        c.out = (err ? std::string("error ") + std::strerror(err) : std::string("ok")) + "\n" + output;
        c.answered = true;
        c.draining = true;
    }
    if (c.answered && !c.out.empty()) {
        ssize_t n = ::send(c.fd, c.out.data(), c.out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n > 0) c.out.erase(0, static_cast<size_t>(n));
        else if (n < 0 && errno != EAGAIN && errno != EINTR) c.out.clear(), c.draining = false;
        if (c.out.empty() && c.draining) ::shutdown(c.fd, SHUT_WR);
    }
}

int Server::poll_timeout()
{
    int64_t soonest = -1;
    for (const auto &[id, c] : conns_)
        if (c.stalled && c.stalled_until > 0 && (soonest < 0 || c.stalled_until < soonest))
            soonest = c.stalled_until;
    if (soonest < 0) return -1;
    return static_cast<int>(std::max<int64_t>(0, soonest - now_ms()));
}

int Server::run(int signal_fd)
{
    std::vector<pollfd> fds;
    std::vector<uint64_t> ids;
    while (!shutdown_) {
        const int64_t now = now_ms();
        for (auto &[id, c] : conns_)
            if (c.stalled && c.stalled_until > 0 && c.stalled_until <= now) {
                c.stalled = false;
                log_.line("client %" PRIu64 ": read again", id);
            }
        fds.clear();
        ids.clear();
        fds.push_back({signal_fd, POLLIN, 0});
        fds.push_back({unix_fd_, POLLIN, 0});
        fds.push_back({tcp_fd_, POLLIN, 0});
        fds.push_back({control_fd_, POLLIN, 0});
        for (const auto &c : controls_) {
            const bool sending = c.answered && !c.out.empty();
            fds.push_back({c.fd, static_cast<short>(sending ? POLLOUT : POLLIN), 0});
        }
        for (const auto &[id, c] : conns_) {
            // A stalled client is not read: its writes back up into its own
            // queue. Hang-ups still show.
            short ev = c.stalled ? 0 : POLLIN;
            if (!c.out.empty() || ipc_pipe_write_pending(c.pipe) > 0) ev |= POLLOUT;
            fds.push_back({c.fd, ev, 0});
            ids.push_back(id);
        }
        if (::poll(fds.data(), fds.size(), poll_timeout()) < 0) {
            if (errno == EINTR) continue;
            log_.line("poll failed: %s", std::strerror(errno));
            break;
        }
        if (fds[0].revents != 0) {
            signalfd_siginfo si{};
            if (::read(signal_fd, &si, sizeof si) < 0) si.ssi_signo = 0;
            if (si.ssi_signo == SIGUSR1) {
                log_.lines("state: ", daemon_.dump());
                continue;
            }
            log_.line("signal %u, shutting down", si.ssi_signo);
            break;
        }
        size_t i = 4;
        for (auto &c : controls_) serve_control(c, fds[i++].revents);
        std::erase_if(controls_, [](Control &c) {
            const bool done = c.answered && c.out.empty() && !c.draining;
            if (done) ::close(c.fd);
            return done;
        });
        for (uint64_t id : ids) {
            const short rev = fds[i++].revents;
            auto it = conns_.find(id);
            if (it == conns_.end()) continue;
            if (rev & POLLOUT) write_client(id, it->second);
            if (rev & (POLLIN | POLLHUP | POLLERR)) {
                if (it->second.stalled && !(rev & POLLIN)) doomed_.push_back(id);
                else if (!it->second.stalled) read_client(id, it->second);
            }
        }
        // Answers made this round go out at once where the socket has room.
        for (auto &[id, c] : conns_)
            if (!c.out.empty() || ipc_pipe_write_pending(c.pipe) > 0) write_client(id, c);
        // Dropping one client may overflow another's queue: the list grows
        // while it is walked.
        for (size_t k = 0; k < doomed_.size(); ++k) drop(doomed_[k], "connection over");
        doomed_.clear();
        if (fds[1].revents != 0) accept_clients(unix_fd_);
        if (fds[2].revents != 0) accept_clients(tcp_fd_);
        if (fds[3].revents != 0) accept_control();
    }
    log_.lines("state: ", daemon_.dump());
    close_all();
    return 0;
}

}  // namespace tarn::temu
