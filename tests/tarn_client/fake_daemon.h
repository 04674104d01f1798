// A stand-in for the routing daemon in client tests: a listening stream
// socket (local or IPv4 loopback) that accepts one client and exchanges raw
// frames with it, blocking, so the test controls every byte.
#ifndef TARN_TESTS_TARN_CLIENT_FAKE_DAEMON_H
#define TARN_TESTS_TARN_CLIENT_FAKE_DAEMON_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <qpipe/ipc_pipe.h>

namespace tarn::test {

struct Frame {
    uint16_t type = 0;
    std::vector<uint8_t> payload;
    bool ok = false;  // false when the peer closed or nothing came
};

// Builds payloads in network order.
class Bytes {
public:
    Bytes &u8(uint8_t v) { b_.push_back(v); return *this; }
    Bytes &u16(uint16_t v) { return u8(static_cast<uint8_t>(v >> 8)).u8(static_cast<uint8_t>(v)); }
    Bytes &u32(uint32_t v) { return u16(static_cast<uint16_t>(v >> 16)).u16(static_cast<uint16_t>(v)); }
    Bytes &raw(const void *p, size_t n)
    {
        const auto *c = static_cast<const uint8_t *>(p);
        b_.insert(b_.end(), c, c + n);
        return *this;
    }
    Bytes &zeros(size_t n) { b_.insert(b_.end(), n, 0); return *this; }
    const std::vector<uint8_t> &get() const { return b_; }
    operator std::vector<uint8_t>() const { return b_; }

private:
    std::vector<uint8_t> b_;
};

class FakeDaemon {
public:
    explicit FakeDaemon(bool inet = false)
    {
        if (inet) {
            listen_ = ::socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in in{};
            in.sin_family = AF_INET;
            in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            socklen_t len = sizeof in;
            ::bind(listen_, reinterpret_cast<sockaddr *>(&in), sizeof in);
            ::getsockname(listen_, reinterpret_cast<sockaddr *>(&in), &len);
            address_.assign(8, 0);
            address_[0] = 16;
            address_[1] = 1;
            std::memcpy(&address_[2], &in.sin_port, 2);
            std::memcpy(&address_[4], &in.sin_addr, 4);
        } else {
            char dir[] = "/tmp/tarn-fake-XXXXXX";
            dir_ = ::mkdtemp(dir);
            path_ = dir_ + "/tarn.sock";
            listen_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
            sockaddr_un un{};
            un.sun_family = AF_UNIX;
            std::memcpy(un.sun_path, path_.c_str(), path_.size());
            ::bind(listen_, reinterpret_cast<sockaddr *>(&un), sizeof un);
            address_ = local_address(path_);
        }
        ::listen(listen_, 4);
    }
    ~FakeDaemon()
    {
        if (conn_ >= 0) ::close(conn_);
        ::close(listen_);
        if (!path_.empty()) {
            ::unlink(path_.c_str());
            ::rmdir(dir_.c_str());
        }
    }

    // The connect address record for the library: length, kind, path.
    static std::vector<uint8_t> local_address(const std::string &path)
    {
        std::vector<uint8_t> a(2 + path.size() + 1, 0);
        a[0] = static_cast<uint8_t>(a.size());
        a[1] = 30;
        std::memcpy(&a[2], path.c_str(), path.size());
        return a;
    }
    const uint8_t *address() const { return address_.data(); }

    bool accept()
    {
        conn_ = ::accept(listen_, nullptr, nullptr);
        return conn_ >= 0;
    }
    int conn() const { return conn_; }
    void shrink_receive_buffer(int bytes) { ::setsockopt(conn_, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes); }

    void send(uint16_t type, const std::vector<uint8_t> &payload)
    {
        ipc_msg_t h{};
        h.type = type;
        h.length = static_cast<uint16_t>(payload.size());
        std::string out(reinterpret_cast<const char *>(&h), sizeof h);
        out.append(payload.begin(), payload.end());
        send_raw(out);
    }
    void send_raw(const std::string &bytes) { (void)!::write(conn_, bytes.data(), bytes.size()); }

    // The next frame, waiting for it (the client writes before this is called,
    // so the wait only guards against a broken test).
    Frame read()
    {
        Frame f;
        uint8_t hdr[8];
        if (!read_exact(hdr, sizeof hdr)) return f;
        ipc_msg_t h;
        std::memcpy(&h, hdr, sizeof h);
        f.type = h.type;
        f.payload.resize(h.length);
        f.ok = read_exact(f.payload.data(), h.length);
        return f;
    }
    // True when nothing is waiting to be read.
    bool idle() const
    {
        pollfd p{conn_, POLLIN, 0};
        return ::poll(&p, 1, 0) == 0;
    }

private:
    bool read_exact(uint8_t *p, size_t n)
    {
        while (n > 0) {
            pollfd pfd{conn_, POLLIN, 0};
            if (::poll(&pfd, 1, 10000) != 1) return false;
            ssize_t r = ::read(conn_, p, n);
            if (r <= 0) return false;
            p += r;
            n -= static_cast<size_t>(r);
        }
        return true;
    }

    int listen_ = -1;
    int conn_ = -1;
    std::string dir_;
    std::string path_;
    std::vector<uint8_t> address_;
};

}  // namespace tarn::test

#endif  // TARN_TESTS_TARN_CLIENT_FAKE_DAEMON_H
