// The routing-daemon client: what the queueing writer costs per message
// against the direct writer and a plain write() of the same frame, and how
// many request/reply round trips a session makes per second, against the
// routing-daemon emulator and against a peer that only echoes, beside a raw
// socket-pair ping-pong of the same frames.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "kernel_emulator.h"
#include "tarn_emulator.h"
#include <qpipe/ipc_pipe.h>
#include <tarn/tarn.h>

namespace {

// A local stream listener in a temporary directory.
struct Listener {
    std::string dir, path;
    int fd = -1;
    Listener()
    {
        char tmpl[] = "/tmp/tarn-bench-XXXXXX";
        dir = mkdtemp(tmpl);
        path = dir + "/tarn.sock";
        fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
        bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
        listen(fd, 4);
    }
    ~Listener()
    {
        close(fd);
        unlink(path.c_str());
        rmdir(dir.c_str());
    }
};

std::vector<uint8_t> frame(uint16_t type, const std::vector<uint8_t> &payload)
{
    std::vector<uint8_t> f(8 + payload.size());
    const uint16_t len = static_cast<uint16_t>(payload.size());
    std::memcpy(f.data() + 2, &type, 2);
    std::memcpy(f.data() + 4, &len, 2);
    std::memcpy(f.data() + 8, payload.data(), payload.size());
    return f;
}

// The peer of a session: sends the connection answer, then either drains
// everything (reply empty) or answers every complete frame with `reply`.
void serve(int lfd, std::vector<uint8_t> reply, std::atomic<bool> *stop)
{
    const int fd = accept(lfd, nullptr, nullptr);
    const uint32_t accepted = htonl(TARN_CONNECTION_ACCEPTED);
    std::vector<uint8_t> answer(reinterpret_cast<const uint8_t *>(&accepted),
                                reinterpret_cast<const uint8_t *>(&accepted) + 4);
    const auto hello = frame(TARN_MSG_CONNECTION_ANSWER, answer);
    (void)!write(fd, hello.data(), hello.size());
    std::vector<uint8_t> in(1 << 16);
    size_t have = 0;
    while (!stop->load(std::memory_order_relaxed)) {
        const ssize_t n = read(fd, in.data() + have, in.size() - have);
        if (n <= 0) break;
        have += static_cast<size_t>(n);
        size_t off = 0;
        while (have - off >= 8) {
            uint16_t len;
            std::memcpy(&len, in.data() + off + 4, 2);
            if (have - off < 8u + len) break;
            off += 8u + len;
            if (!reply.empty()) (void)!write(fd, reply.data(), reply.size());
        }
        std::memmove(in.data(), in.data() + off, have - off);
        have -= off;
    }
    close(fd);
}

struct Counters {
    int accepted = 0;
    int replies = 0;
};

Counters *counters(tarn_session_handle *s)
{
    return static_cast<Counters *>(tarn_session_return_context(s));
}

void on_status(tarn_session_handle *s, int, int status)
{
    if (status == TARN_CONNECT_ACCEPTED) counters(s)->accepted = 1;
}
void on_local_as(tarn_session_handle *s, const tarn_local_as_reply *) { ++counters(s)->replies; }
void on_want_write(tarn_session_handle *) {}
void on_drained(tarn_session_handle *) {}

tarn_session_funs make_funs(bool queueing)
{
    tarn_session_funs f{};
    f.tsf_connection_status = on_status;
    f.tsf_local_as = on_local_as;
    if (queueing) {
        f.tsf_want_write = on_want_write;
        f.tsf_write_drained = on_drained;
    }
    return f;
}
const tarn_session_funs kDirect = make_funs(false);
const tarn_session_funs kQueueing = make_funs(true);

// Waits for the session socket and dispatches until `done` holds.
template <typename Done>
bool pump(tarn_session_handle *s, Done done)
{
    pollfd p{tarn_session_handle_descriptor(s), POLLIN, 0};
    while (!done()) {
        if (tarn_session_reply_get(s) == 0) continue;
        if (errno != ENOMSG && errno != EAGAIN) return false;
        if (poll(&p, 1, 5000) <= 0) return false;
    }
    return true;
}

// A connected, accepted session on `path`, or null.
tarn_session_handle *open_session(const std::string &path, const tarn_session_funs *funs,
                                  Counters *c)
{
    tarn_session_handle *s = nullptr;
    if (tarn_session_handle_alloc(&s, funs) != 0) return nullptr;
    tarn_session_set_context(s, c);
    std::vector<uint8_t> address(2 + path.size() + 1);
    address[0] = static_cast<uint8_t>(address.size());
    address[1] = TARN_CONNECT_KIND_LOCAL;
    std::memcpy(address.data() + 2, path.c_str(), path.size() + 1);
    if ((tarn_session_connect(s, address.data(), 0) != 0 && errno != EINPROGRESS) ||
        !pump(s, [c] { return c->accepted != 0; })) {
        tarn_session_handle_free(s);
        return nullptr;
    }
    return s;
}

// Cost of sending one message of state.range(0) payload bytes, the peer
// draining: 0 direct writer, 1 queueing writer with one message always held
// in the queue (each write appends, then flushes the head), 2 write().
void BM_SendOneMessage(benchmark::State &state)
{
    const auto payload_len = static_cast<uint16_t>(state.range(0));
    const int mode = static_cast<int>(state.range(1));
    tarn::test::KernelEmulator kernel;  // every session opens a routing socket
    Listener l;
    std::atomic<bool> stop{false};
    std::thread peer(serve, l.fd, std::vector<uint8_t>{}, &stop);
    Counters c;
    tarn_session_handle *s = open_session(l.path, mode == 1 ? &kQueueing : &kDirect, &c);
    if (s == nullptr) {
        state.SkipWithError("no session");
        stop = true;
        shutdown(l.fd, SHUT_RDWR);
        peer.join();
        return;
    }
    std::vector<uint8_t> payload(payload_len, 0x5a);
    ipc_msg_t hdr{};
    hdr.type = TARN_MSG_CLEANUP_DATA;
    hdr.length = payload_len;
    const auto raw = frame(TARN_MSG_CLEANUP_DATA, payload);
    const int fd = tarn_session_handle_descriptor(s);
    if (mode == 1) {
        // Hold one message in the queue: a write that meets a full socket
        // stays there; from then on every write goes through the queue.
        while (tarn_session_queue_size(s) == 0) tarn_client_msg_write(s, &hdr, payload.data());
    }
    for (auto _ : state) {
        int rc;
        if (mode == 2) {
            while ((rc = static_cast<int>(write(fd, raw.data(), raw.size()))) < 0 &&
                   errno == EAGAIN) {
            }
        } else {
            while ((rc = tarn_client_msg_write(s, &hdr, payload.data())) != 0 && errno == EAGAIN) {
            }
        }
        if (rc < 0) {
            state.SkipWithError("write failed");
            break;
        }
        // Should the peer fall behind, the queue is worked off here, as a
        // daemon's loop would on writability.
        while (mode == 1 && tarn_session_queue_size(s) > 64) tarn_session_write_callback(s);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * raw.size());
    stop = true;
    tarn_session_handle_free(s);
    peer.join();
}
BENCHMARK(BM_SendOneMessage)
    ->ArgNames({"payload", "mode"})
    ->ArgsProduct({{64, 256}, {0, 1, 2}});

// Round trips of a local-AS query (answered from the daemon's own
// configuration): against the routing-daemon emulator (range 0 = 0) and
// against a peer that answers every frame with a prepared reply (1), as a
// session sees them.
void BM_SessionRoundTrip(benchmark::State &state)
{
    const bool emulator = state.range(0) == 0;
    std::unique_ptr<tarn::test::TarnEmulator> emu;
    std::unique_ptr<tarn::test::KernelEmulator> kernel;
    std::unique_ptr<Listener> l;
    std::atomic<bool> stop{false};
    std::thread peer;
    std::string path;
    if (emulator) {
        emu = std::make_unique<tarn::test::TarnEmulator>();
        path = emu->socket_path();
    } else {
        kernel = std::make_unique<tarn::test::KernelEmulator>();
        l = std::make_unique<Listener>();
        path = l->path;
        std::vector<uint8_t> body(20);
        const uint32_t as = htonl(64512);
        std::memcpy(body.data() + 8, &as, 4);
        peer = std::thread(serve, l->fd, frame(TARN_MSG_LOCAL_AS_REPLY, body), &stop);
    }
    Counters c;
    tarn_session_handle *s = open_session(path, &kDirect, &c);
    if (s == nullptr) {
        state.SkipWithError("no session");
    } else {
        for (auto _ : state) {
            const int want = c.replies + 1;
            if (tarn_local_as_by_name(s, "master", 1) != 0 ||
                !pump(s, [&c, want] { return c.replies >= want; })) {
                state.SkipWithError("round trip failed");
                break;
            }
        }
        state.SetItemsProcessed(state.iterations());
    }
    stop = true;
    tarn_session_handle_free(s);
    if (peer.joinable()) {
        shutdown(l->fd, SHUT_RDWR);
        peer.join();
    }
}
BENCHMARK(BM_SessionRoundTrip)->ArgName("echo")->Arg(0)->Arg(1)->UseRealTime();

// The floor: the same request and reply frames over a stream socket pair.
void BM_RawStreamPingPong(benchmark::State &state)
{
    int sv[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, sv);
    const std::string name = "master";
    std::vector<uint8_t> body(8 + name.size() + 1);
    std::memcpy(body.data() + 8, name.c_str(), name.size() + 1);
    const auto request = frame(TARN_MSG_LOCAL_AS_BY_NAME, body);
    const auto reply = frame(TARN_MSG_LOCAL_AS_REPLY, std::vector<uint8_t>(20));
    std::thread peer([&] {
        std::vector<uint8_t> in(request.size());
        while (read(sv[1], in.data(), in.size()) > 0) (void)!write(sv[1], reply.data(), reply.size());
    });
    std::vector<uint8_t> in(reply.size());
    for (auto _ : state) {
        (void)!write(sv[0], request.data(), request.size());
        size_t got = 0;
        while (got < in.size()) {
            const ssize_t n = read(sv[0], in.data() + got, in.size() - got);
            if (n <= 0) break;
            got += static_cast<size_t>(n);
        }
    }
    state.SetItemsProcessed(state.iterations());
    shutdown(sv[0], SHUT_RDWR);
    peer.join();
    close(sv[0]);
    close(sv[1]);
}
BENCHMARK(BM_RawStreamPingPong)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
