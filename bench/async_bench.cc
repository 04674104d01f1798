// Notifications through the dispatcher against a raw one-way flood of the
// same bytes. A writer thread floods route notifications (IDR envelopes)
// into one end of a SOCK_SEQPACKET socket pair; the reader is either
// rtslib_async_event_process on a handle that wraps the other end (read,
// decode, dispatch to a handler that releases the record) or plain recv.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "libtarn/rtslib/async_internal.h"
#include <tarn/tarn.h>

namespace {

constexpr int kBatch = 20000;

std::vector<uint8_t> route_notification()
{
    rtslib_cookie *h = rtslib_open_nc();
    rt_msg_t rec{};
    rec.hdr.version = 'h';
    rec.hdr.type = RTS_MSG_ROUTE;
    rec.hdr.op = RTS_OP_ADD;
    rec.af = TARN_AF_INET;
    rec.plen = 24;
    rec.nhidx = 7;
    void *buf = nullptr;
    uint32_t len = 0;
    rtslib_msg_idl_encode(h, &rec, nullptr, &buf, &len);
    std::vector<uint8_t> out(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len);
    rtslib_msg_free(h, buf);
    rtslib_close(h);
    return out;
}

// The writer end blocks when the socket is full; the reader end does not,
// like a routing socket, unless asked to block.
struct Pair {
    int fds[2] = {-1, -1};
    explicit Pair(bool reader_blocks = false)
    {
        ::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds);
        if (!reader_blocks) ::fcntl(fds[0], F_SETFL, O_NONBLOCK);
    }
    ~Pair()
    {
        ::close(fds[0]);
        ::close(fds[1]);
    }
};

void flood(int fd, const std::vector<uint8_t> &msg, int n)
{
    for (int i = 0; i < n; ++i)
        if (::write(fd, msg.data(), msg.size()) < 0) return;
}

void wait_readable(int fd)
{
    pollfd p{fd, POLLIN, 0};
    ::poll(&p, 1, 1000);
}

int count_and_release(rtslib_cookie *h, void *arg, void *msg, void *)
{
    ++*static_cast<int *>(arg);
    rtslib_msg_idl_release(h, msg);
    return 0;
}

void BM_DispatchNotifications(benchmark::State &state)
{
    const auto msg = route_notification();
    Pair pair;
    rtslib_cookie *h = rtslib_open_nc();
    h->fd = pair.fds[0];
    int handled = 0;
    rtslib_set_async_info_nocontext(h, nullptr);
    rtsllib_async_set_num_read_msg(h, RTSLIB_ASYNC_NUM_READ_MSG_DEFAULT);
    // No kernel behind the socket to take a listen mask: install the
    // handler directly.
    auto *entry = static_cast<rtslib_async_entry *>(std::malloc(sizeof(rtslib_async_entry)));
    *entry = {&handled, count_and_release};
    h->async->slots[RTS_MSG_ROUTE] = entry;
    for (auto _ : state) {
        handled = 0;
        std::thread writer(flood, pair.fds[1], std::cref(msg), kBatch);
        while (handled < kBatch)
            if (rtslib_async_event_process(h) != 0 && errno == EAGAIN) wait_readable(h->fd);
        writer.join();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    h->fd = -1;  // the pair closes its own
    rtslib_close(h);
}
BENCHMARK(BM_DispatchNotifications)->UseRealTime();

void BM_RawSeqpacketFlood(benchmark::State &state)
{
    const auto msg = route_notification();
    Pair pair;
    std::vector<uint8_t> buf(RTS_MSG_MAX);
    for (auto _ : state) {
        int got = 0;
        std::thread writer(flood, pair.fds[1], std::cref(msg), kBatch);
        while (got < kBatch) {
            if (::recv(pair.fds[0], buf.data(), buf.size(), 0) > 0)
                ++got;
            else if (errno == EAGAIN)
                wait_readable(pair.fds[0]);
        }
        writer.join();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_RawSeqpacketFlood)->UseRealTime();

// The least a reader that sizes each message before reading it can do: peek
// the 24-byte header (rtslib_peek_pkt_len), then read exactly the size it
// claims into a buffer. Arg 0 on a blocking socket, so that no poll is
// needed; arg 1 on a non-blocking one that is polled when it runs dry, as
// BM_RawSeqpacketFlood does. Against that row, the best ratio such a reader
// can reach.
void BM_PeekThenReadFlood(benchmark::State &state)
{
    const auto msg = route_notification();
    Pair pair(state.range(0) == 0);
    std::vector<uint8_t> buf(RTS_MSG_MAX);
    for (auto _ : state) {
        int got = 0;
        std::thread writer(flood, pair.fds[1], std::cref(msg), kBatch);
        while (got < kBatch) {
            const int want = rtslib_peek_pkt_len(pair.fds[0]);
            if (want < 0 && errno == EAGAIN) {
                wait_readable(pair.fds[0]);
                continue;
            }
            if (want < 0 || static_cast<size_t>(want) > buf.size() ||
                ::read(pair.fds[0], buf.data(), static_cast<size_t>(want)) != want)
                break;
            ++got;
        }
        writer.join();
        if (got < kBatch) {
            state.SkipWithError("short read");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_PeekThenReadFlood)->Arg(0)->Arg(1)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
