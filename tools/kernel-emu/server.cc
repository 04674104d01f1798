#include "server.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "libtarn/os/emu_protocol.h"

namespace tarn::kemu {
namespace {

// Largest message a client may write; larger ones are seen (MSG_TRUNC gives
// their real length) and dropped.
constexpr size_t kMaxMessage = 1u << 20;

sockaddr_un unix_address(const std::string &path)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size());
    return addr;
}

// True when something accepts connections at `path` already.
bool path_in_use(const std::string &path)
{
    int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_un addr = unix_address(path);
    bool used = ::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    ::close(fd);
    return used;
}

// The socket file is created owner-only (the umask holds while binding, so
// it is never wider, not even for a moment) and widened afterwards only when
// the configuration asks for it.
int listen_on(const std::string &path, unsigned mode, std::string &error)
{
    if (path.size() >= sizeof(sockaddr_un{}.sun_path)) {
        error = "socket path too long: " + path;
        return -1;
    }
    if (path_in_use(path)) {
        error = "another kernel emulator is serving " + path;
        return -1;
    }
    ::unlink(path.c_str());  // a stale file left by a killed emulator
    int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un addr = unix_address(path);
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

std::string peer_name(int fd)
{
    sockaddr_un peer{};
    socklen_t len = sizeof peer;
    if (::getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &len) != 0) return {};
    size_t n = len > offsetof(sockaddr_un, sun_path) ? len - offsetof(sockaddr_un, sun_path) : 0;
    return std::string(peer.sun_path, n);
}

// "@" for the leading NUL of an abstract name, like ss(8) shows it.
std::string printable(const std::string &name)
{
    std::string s = name;
    if (!s.empty() && s[0] == '\0') s[0] = '@';
    return s;
}

// An option value as a person reads it: small values as numbers, the rest by
// their size.
std::string describe_value(const uint8_t *v, size_t len)
{
    if (len != 1 && len != 2 && len != 4) return "(" + std::to_string(len) + " bytes)";
    uint32_t n = 0;  // both ends are little-endian, like the target
    std::memcpy(&n, v, len);
    return std::to_string(n);
}

}  // namespace

// A SEQPACKET message must fit the sender's buffer whole, and the default
// (about 200 KiB) is less than a configuration object with the largest blob.
// The host may cap the size (net.core.wmem_max); then such messages fail to
// send, and the log says why.
void Server::widen_buffers(uint64_t id, int fd)
{
    const int want = static_cast<int>(kMaxMessage);
    for (int opt : {SO_SNDBUF, SO_RCVBUF}) {
        int got = 0;
        socklen_t len = sizeof got;
        if (::setsockopt(fd, SOL_SOCKET, opt, &want, sizeof want) != 0 ||
            ::getsockopt(fd, SOL_SOCKET, opt, &got, &len) != 0 || got < want)
            log_.line("socket %llu: %s is %d bytes, less than the %d a message may need",
                      static_cast<unsigned long long>(id), opt == SO_SNDBUF ? "SO_SNDBUF" : "SO_RCVBUF",
                      got, want);
    }
}

Server::Server(const EmuConfig &cfg, const EmuLog &log)
    : cfg_(cfg), log_(log), kernel_(cfg, log),
      ctl_path_(cfg.socket_path + emu::kControlSuffix),
      rx_(std::max(kMaxMessage, sizeof(emu::CtlRequest) + emu::kMaxValueLen)),
      // Left uninitialised: only what messages fill ever becomes resident.
      batch_bytes_(new uint8_t[kMaxMessage * kBatch]), batch_(kBatch), iov_(kBatch)
{
    // Set once: a read writes back only each slot's length and flags.
    for (size_t k = 0; k < kBatch; ++k) {
        iov_[k] = {batch_bytes_.get() + k * kMaxMessage, kMaxMessage};
        batch_[k].msg_hdr.msg_iov = &iov_[k];
        batch_[k].msg_hdr.msg_iovlen = 1;
    }
}

Server::~Server()
{
    close_all();
}

bool Server::listen(std::string &error)
{
    routing_listen_fd_ = listen_on(cfg_.socket_path, cfg_.socket_mode, error);
    if (routing_listen_fd_ < 0) return false;
    control_listen_fd_ = listen_on(ctl_path_, cfg_.socket_mode, error);
    if (control_listen_fd_ < 0) {
        ::close(routing_listen_fd_);
        routing_listen_fd_ = -1;
        ::unlink(cfg_.socket_path.c_str());
        return false;
    }
    log_.line("listening on %s (options on %s)", cfg_.socket_path.c_str(), ctl_path_.c_str());
    return true;
}

void Server::close_all()
{
    for (auto &c : conns_) ::close(c.fd);
    conns_.clear();
    for (int fd : control_fds_) ::close(fd);
    control_fds_.clear();
    if (routing_listen_fd_ >= 0) {
        ::close(routing_listen_fd_);
        ::unlink(cfg_.socket_path.c_str());
        routing_listen_fd_ = -1;
    }
    if (control_listen_fd_ >= 0) {
        ::close(control_listen_fd_);
        ::unlink(ctl_path_.c_str());
        control_listen_fd_ = -1;
    }
}

void Server::accept_routing_sockets()
{
    for (;;) {
        int fd = ::accept4(routing_listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) return;
        const std::string name = peer_name(fd);
        const uint64_t id = kernel_.open_socket(name);
        log_.line("socket %llu: opened by %s", static_cast<unsigned long long>(id),
                  printable(name).c_str());
        widen_buffers(id, fd);
        conns_.push_back({fd, id});
    }
}

void Server::accept_control()
{
    for (;;) {
        int fd = ::accept4(control_listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) return;
        control_fds_.push_back(fd);
    }
}

Socket *Server::find_socket(const std::string &name)
{
    return kernel_.find_socket(name);
}

void Server::flush(uint64_t id, int fd)
{
    Socket *s = kernel_.socket(id);
    if (s == nullptr) return;
    while (!s->queue.empty() && !s->queue.paused) {
        const auto &msg = s->queue.front();
        if (::send(fd, msg.data(), msg.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return;
            // The client is gone or cannot take this message at all; its
            // closing is noticed on the read side.
            log_.line("socket %llu: message of %zu bytes not delivered: %s",
                      static_cast<unsigned long long>(id), msg.size(), std::strerror(errno));
        }
        s->queue.pop();
    }
}

void Server::flush_all(uint64_t last)
{
    const Conn *requester = nullptr;
    for (const auto &c : conns_) {
        if (c.id == last)
            requester = &c;
        else
            flush(c.id, c.fd);
    }
    if (requester != nullptr) flush(requester->id, requester->fd);
}

// Carries out one control request: 0 or an errno value for the client.
int Server::control_request(const emu::CtlRequest &req, const uint8_t *value,
                            std::vector<uint8_t> &out)
{
    const std::string name(req.name, req.name_len);
    const auto op = static_cast<emu::CtlOp>(req.op);
    if (op == emu::CtlOp::kSysctlSet) return kernel_.sysctl_set(name, value, req.value_len);
    if (op == emu::CtlOp::kSysctlGet) return kernel_.sysctl_get(name, out);
    if (op == emu::CtlOp::kRouteSysctl) {
        std::vector<int32_t> mib(req.value_len / sizeof(int32_t));
        if (req.value_len % sizeof(int32_t) != 0) return EINVAL;
        if (!mib.empty()) std::memcpy(mib.data(), value, req.value_len);
        const int err = kernel_.route_sysctl(mib.data(), mib.size(), out);
        log_.line("route sysctl of %zu words -> %s, %zu bytes", mib.size(),
                  err ? std::strerror(err) : "ok", out.size());
        return err;
    }
    if (op == emu::CtlOp::kCommand && name.empty()) return run_command(0, value, req.value_len, out);

    // Everything else names a routing socket. Its client connected it before
    // asking, so make sure that connection has been taken from the backlog.
    Socket *sock = find_socket(name);
    if (sock == nullptr) {
        accept_routing_sockets();
        sock = find_socket(name);
    }
    if (sock == nullptr) return ENOTCONN;
    SocketState &st = sock->state;
    const auto id = static_cast<unsigned long long>(st.id);

    int err = EOPNOTSUPP;
    switch (op) {
    case emu::CtlOp::kGetOpt:
        out.assign(value, value + req.value_len);
        err = kernel_.get_option(st, req.level, req.optname, out);
        log_.line("socket %llu: get %s -> %s, %zu bytes", id, option_name(req.optname).c_str(),
                  err ? std::strerror(err) : "ok", out.size());
        break;
    case emu::CtlOp::kSetOpt:
        err = kernel_.set_option(st, req.level, req.optname, value, req.value_len);
        log_.line("socket %llu: set %s %s -> %s", id, option_name(req.optname).c_str(),
                  describe_value(value, req.value_len).c_str(), err ? std::strerror(err) : "ok");
        break;
    case emu::CtlOp::kCommand:
        err = run_command(st.id, value, req.value_len, out);
        break;
    case emu::CtlOp::kInject:
        // Scripted messages are queued like answers: never dropped.
        kernel_.post({{st.id, std::vector<uint8_t>(value, value + req.value_len), false}});
        log_.line("socket %llu: injected %u bytes", id, req.value_len);
        err = 0;
        break;
    default:
        break;
    }
    return err;
}

int Server::run_command(uint64_t sock, const uint8_t *text, uint32_t len,
                        std::vector<uint8_t> &out)
{
    std::string result;
    const std::string command(reinterpret_cast<const char *>(text), len);
    const int err = kernel_.command(sock, command, result);
    log_.line("command \"%s\" -> %s", command.c_str(), err ? std::strerror(err) : "ok");
    out.assign(result.begin(), result.end());
    return err;
}

void Server::serve_control(int fd)
{
    emu::CtlRequest req{};
    ssize_t n = ::recv(fd, rx_.data(), rx_.size(), 0);
    if (n < static_cast<ssize_t>(sizeof req)) return;  // a probe, or garbage: just close
    std::memcpy(&req, rx_.data(), sizeof req);
    if (req.magic != emu::kCtlMagic || req.name_len > emu::kMaxNameLen ||
        req.value_len > static_cast<size_t>(n) - sizeof req)
        return;

    std::vector<uint8_t> out;
    const int err = control_request(req, rx_.data() + sizeof req, out);
    // Whatever the request queued is on its way before the client hears
    // back, so a test that injected a message can read it at once.
    flush_all();
    emu::CtlReply rep{};
    rep.magic = emu::kCtlMagic;
    if (err != 0) {
        rep.result = -1;
        rep.error = err;
        out.clear();
    }
    rep.value_len = static_cast<uint32_t>(out.size());
    std::vector<uint8_t> reply(sizeof rep + out.size());
    std::memcpy(reply.data(), &rep, sizeof rep);
    if (!out.empty()) std::memcpy(reply.data() + sizeof rep, out.data(), out.size());
    ::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
}

bool Server::read_routing(uint64_t id, int fd)
{
    // Messages are taken in batches: a client that writes faster than we
    // answer (loading a table, say) costs one wakeup and one system call per
    // batch rather than per message, and a batch that comes back short means
    // the socket is drained without a further read that finds nothing.
    // Every slot can hold the largest message, but only the bytes that
    // arrive touch memory.
    for (;;) {
        const int got = ::recvmmsg(fd, batch_.data(), kBatch, MSG_TRUNC | MSG_DONTWAIT, nullptr);
        if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        for (int k = 0; k < got; ++k) {
            const size_t n = batch_[k].msg_len;
            // An empty message is the peer's orderly close; whatever it sent
            // before has been handled.
            if (n == 0) return false;
            if ((batch_[k].msg_hdr.msg_flags & MSG_TRUNC) != 0 || n > kMaxMessage) {
                log_.line("socket %llu: message of %zu bytes is too large, dropped",
                          static_cast<unsigned long long>(id), n);
                continue;
            }
            kernel_.receive(id, static_cast<const uint8_t *>(iov_[k].iov_base), n);
            // Like a kernel that fans a change out before the writer's system
            // call returns: listeners have their notifications before the
            // requester can have its answer.
            flush_all(id);
        }
        if (got == 0) return false;
        if (static_cast<size_t>(got) < kBatch) return true;
    }
}

// SIGUSR1: the kernel's state into the log, one object a line.
void Server::log_state()
{
    log_.line("state: %zu routing sockets, %zu routes", conns_.size(),
              kernel_.routing().route_count());
    const std::string dump = kernel_.routing().dump() + kernel_.interfaces().dump();
    size_t start = 0;
    for (size_t nl; (nl = dump.find('\n', start)) != std::string::npos; start = nl + 1)
        log_.line("state: %s", dump.substr(start, nl - start).c_str());
}

int Server::run(int signal_fd)
{
    std::vector<pollfd> fds;
    for (;;) {
        fds.clear();
        fds.push_back({signal_fd, POLLIN, 0});
        fds.push_back({routing_listen_fd_, POLLIN, 0});
        fds.push_back({control_listen_fd_, POLLIN, 0});
        for (int fd : control_fds_) fds.push_back({fd, POLLIN, 0});
        // A socket with messages waiting is also polled for room to send.
        for (const auto &c : conns_) {
            const Socket *s = kernel_.socket(c.id);
            const bool waiting = s != nullptr && !s->queue.empty() && !s->queue.paused;
            fds.push_back({c.fd, static_cast<short>(POLLIN | (waiting ? POLLOUT : 0)), 0});
        }

        if (::poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) continue;
            log_.line("poll failed: %s", std::strerror(errno));
            close_all();
            return 1;
        }
        if (fds[0].revents != 0) {
            signalfd_siginfo si{};
            if (::read(signal_fd, &si, sizeof si) > 0 && si.ssi_signo == SIGUSR1) {
                log_state();
                continue;
            }
            log_.line("signal %u, shutting down", si.ssi_signo);
            close_all();
            return 0;
        }

        // Routing sockets first: a control request may name one that is
        // readable in this same round.
        size_t i = 3 + control_fds_.size();
        kept_.clear();
        for (const auto &c : conns_) {
            const short rev = fds[i++].revents;
            if ((rev & ~POLLOUT) != 0 && !read_routing(c.id, c.fd)) {
                log_.line("socket %llu: closed", static_cast<unsigned long long>(c.id));
                ::close(c.fd);
                kernel_.close_socket(c.id);
                continue;
            }
            kept_.push_back(c);
        }
        conns_.swap(kept_);
        flush_all();

        std::vector<int> ready;
        for (size_t k = 0; k < control_fds_.size(); ++k)
            if (fds[3 + k].revents != 0) ready.push_back(control_fds_[k]);
        for (int fd : ready) {
            serve_control(fd);
            ::close(fd);
            control_fds_.erase(std::find(control_fds_.begin(), control_fds_.end(), fd));
        }

        if (fds[1].revents != 0) accept_routing_sockets();
        if (fds[2].revents != 0) accept_control();
    }
}

}  // namespace tarn::kemu
