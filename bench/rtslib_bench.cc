// Requests to the kernel emulator: the round trip of one route lookup against
// a raw SOCK_SEQPACKET ping-pong of the same bytes, and loading a full
// Internet table. The benchmark and its peer run pinned to the same CPU.
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <algorithm>
#include <chrono>
#include <cstring>
#include <tuple>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "emu_process.h"
#include "libtarn/os/emu_protocol.h"
#include <tarn/tarn.h>

namespace {

constexpr int kCpu = 0;

void pin_to(int cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    sched_setaffinity(0, sizeof set, &set);
}

const uint8_t kPrefix[4] = {10, 1, 0, 0};

// CPU time (user + system) a process has used so far, in seconds.
double cpu_seconds(pid_t pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    // Fields 14 and 15 (utime, stime) follow the command name in parentheses.
    std::istringstream rest(line.substr(line.rfind(')') + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && rest >> field; ++i) {
        if (i == 14) utime = std::stoull(field);
        if (i == 15) stime = std::stoull(field);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// The peer's CPU per iteration, next to the benchmark's own CPU column: on a
// loaded machine the wall time of a ping-pong says more about the scheduler
// than about either side.
void report_peer_cpu(benchmark::State &state, pid_t peer, double before)
{
    state.counters["peer_cpu_us"] = benchmark::Counter(
        (cpu_seconds(peer) - before) * 1e6 / static_cast<double>(state.iterations()));
}

// The bytes of a lookup request and of the emulator's answer to it.
std::vector<uint8_t> encoded(rtslib_cookie *h, const rt_msg_t &rec)
{
    void *buf = nullptr;
    uint32_t len = 0;
    rtslib_msg_idl_encode(h, &rec, nullptr, &buf, &len);
    std::vector<uint8_t> out(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len);
    rtslib_msg_free(h, buf);
    return out;
}

void BM_GetByPrefixRoundTrip(benchmark::State &state)
{
    pin_to(kCpu);
    tarn::kemu::EmulatorProcess emu(TARN_KERNEL_EMU_PATH, {}, kCpu);
    rtslib_cookie *h = emu.running() ? rtslib_open(1) : nullptr;
    if (h == nullptr) {
        state.SkipWithError("no emulator");
        return;
    }
    rtslib_rtm_add(h, 0, TARN_AF_INET, 1, 0, 2, 0, 0, 0, 0, 7, 0, kPrefix, 16, nullptr, nullptr);
    const double emu_before = cpu_seconds(emu.pid());
    for (auto _ : state) {
        rt_msg_t *rt = nullptr;
        if (rtslib_rtm_get_by_prefix(h, TARN_AF_INET, kPrefix, 16, RTS_OP_GET, &rt, nullptr) != 0) {
            state.SkipWithError("lookup failed");
            break;
        }
        benchmark::DoNotOptimize(rt->nhidx);
        rtslib_msg_idl_release(h, rt);
    }
    report_peer_cpu(state, emu.pid(), emu_before);
    rtslib_close(h);
}
BENCHMARK(BM_GetByPrefixRoundTrip);

// The floor: the same request and answer bytes over a socket pair whose peer
// answers every message with the prepared answer. Arg 1 adds the system
// calls the request path makes beyond a write and a read (the client sizes
// the answer with a MSG_PEEK, the peer polls before it reads), so that the
// rest of the gap to the library is CPU work. Arg 2 is the least a host
// client can do for a request: write, poll for the answer on its
// non-blocking socket, peek the 24-byte header (rtslib_peek_pkt_len), read
// exactly the size it claims; the peer is a plain blocking read and write.
// Arg 2 minus arg 0 is what those steps cost above the bare exchange.
void BM_RawSeqpacketPingPong(benchmark::State &state)
{
    const bool peer_polls = state.range(0) == 1;
    const bool client_peeks = state.range(0) == 1;
    const bool client_waits = state.range(0) == 2;
    pin_to(kCpu);
    rtslib_cookie *codec = rtslib_open_nc();
    uint8_t padded[4] = {10, 1, 0, 0};
    rt_msg_t req{};
    req.hdr.version = RTS_ROUTE_VERSION;
    req.hdr.type = RTS_MSG_ROUTE;
    req.hdr.op = RTS_OP_GET;
    req.hdr.hdrlen = RTS_ROUTE_FIXED_LEN;
    req.af = TARN_AF_INET;
    req.plen = 16;
    req.prefix = padded;
    req.prefix_len = 4;
    const std::vector<uint8_t> request = encoded(codec, req);
    req.nhidx = 7;
    req.nh = 2;
    req.type = 1;
    const std::vector<uint8_t> answer = encoded(codec, req);
    rtslib_close(codec);

    int sv[2];
    socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv);
    const pid_t peer = fork();
    if (peer == 0) {
        pin_to(kCpu);
        ::close(sv[0]);
        std::vector<uint8_t> buf(RTS_MSG_MAX);
        for (;;) {
            if (peer_polls) {
                pollfd pfd{sv[1], POLLIN, 0};
                poll(&pfd, 1, -1);
            }
            if (::read(sv[1], buf.data(), buf.size()) <= 0 ||
                ::write(sv[1], answer.data(), answer.size()) < 0)
                break;
        }
        _exit(0);
    }
    ::close(sv[1]);
    if (client_waits) fcntl(sv[0], F_SETFL, O_NONBLOCK);
    std::vector<uint8_t> buf(RTS_MSG_MAX);
    uint8_t hdr[RTS_HDR_MIN_LEN];
    const double peer_before = cpu_seconds(peer);
    for (auto _ : state) {
        pollfd pfd{sv[0], POLLIN, 0};
        int want = static_cast<int>(buf.size());
        if (::write(sv[0], request.data(), request.size()) < 0 ||
            (client_waits && poll(&pfd, 1, 5000) != 1) ||
            (client_peeks && ::recv(sv[0], hdr, sizeof hdr, MSG_PEEK) <= 0) ||
            (client_waits && (want = rtslib_peek_pkt_len(sv[0])) < 0)) {
            state.SkipWithError("peer gone");
            break;
        }
        if (::read(sv[0], buf.data(), std::min<size_t>(static_cast<size_t>(want), buf.size())) !=
            static_cast<ssize_t>(answer.size())) {
            state.SkipWithError("peer gone");
            break;
        }
        benchmark::DoNotOptimize(buf.data());
    }
    report_peer_cpu(state, peer, peer_before);
    ::close(sv[0]);
    waitpid(peer, nullptr, 0);
}
BENCHMARK(BM_RawSeqpacketPingPong)->Arg(0)->Arg(1)->Arg(2);

struct Prefix {
    uint8_t af;
    uint8_t bytes[16];
    uint16_t plen;
    bool operator<(const Prefix &o) const
    {
        return std::tie(af, plen) < std::tie(o.af, o.plen) ||
               (af == o.af && plen == o.plen && std::memcmp(bytes, o.bytes, 16) < 0);
    }
};

// A table shaped like today's Internet: mostly /24s for IPv4 and /48s for
// IPv6, a spread of shorter prefixes; fixed seed.
std::vector<Prefix> internet_table(size_t v4, size_t v6)
{
    std::mt19937_64 rng(20261121);
    const std::vector<std::pair<uint16_t, int>> v4_mix = {
        {24, 580}, {23, 90}, {22, 110}, {21, 50}, {20, 50}, {19, 40}, {18, 20}, {17, 15},
        {16, 25},  {15, 5},  {14, 5},   {13, 4},  {12, 3},  {11, 2},  {10, 1}};
    const std::vector<std::pair<uint16_t, int>> v6_mix = {
        {48, 480}, {47, 20}, {46, 30}, {44, 60}, {40, 60}, {36, 40}, {32, 160}, {29, 50},
        {56, 40},  {64, 60}};
    auto pick = [&](const std::vector<std::pair<uint16_t, int>> &mix) {
        int total = 0;
        for (auto &m : mix) total += m.second;
        int r = static_cast<int>(rng() % static_cast<uint64_t>(total));
        for (auto &m : mix)
            if ((r -= m.second) < 0) return m.first;
        return mix.front().first;
    };
    std::set<Prefix> seen;
    std::vector<Prefix> out;
    auto fill = [&](uint8_t af, size_t count, const std::vector<std::pair<uint16_t, int>> &mix,
                    size_t addr_len) {
        size_t made = 0;
        while (made < count) {
            Prefix p{};
            p.af = af;
            p.plen = pick(mix);
            for (size_t i = 0; i < addr_len; ++i) p.bytes[i] = static_cast<uint8_t>(rng());
            if (af == TARN_AF_INET6) p.bytes[0] = static_cast<uint8_t>(0x20 | (p.bytes[0] & 1));
            for (size_t bit = p.plen; bit < addr_len * 8; ++bit)
                p.bytes[bit / 8] &= static_cast<uint8_t>(~(0x80 >> (bit % 8)));
            if (seen.insert(p).second) {
                out.push_back(p);
                ++made;
            }
        }
    };
    fill(TARN_AF_INET, v4, v4_mix, 4);
    fill(TARN_AF_INET6, v6, v6_mix, 16);
    std::shuffle(out.begin(), out.end(), rng);
    return out;
}

long rss_kib(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    return 0;
}

size_t emulator_routes()
{
    char buf[64] = "count";
    uint32_t len = 5;
    if (tarn::emu::control_call(tarn::emu::CtlOp::kCommand, nullptr, 0, 0, 0, buf, &len,
                                sizeof buf - 1) != 0)
        return 0;
    buf[len] = '\0';
    return std::strtoul(buf + 7, nullptr, 10);  // "routes N"
}

// Built once: the full-table rows load the same table.
const std::vector<Prefix> &full_table()
{
    static const std::vector<Prefix> table = internet_table(1050000, 250000);
    return table;
}

double rusage_us(const timeval &tv)
{
    return static_cast<double>(tv.tv_sec) * 1e6 + static_cast<double>(tv.tv_usec);
}

// The client's CPU per route over the sends, split as the kernel accounts it.
void report_client_cpu(benchmark::State &state, const rusage &before, const rusage &after,
                       double routes)
{
    state.counters["client_user_us"] =
        (rusage_us(after.ru_utime) - rusage_us(before.ru_utime)) / routes;
    state.counters["client_sys_us"] =
        (rusage_us(after.ru_stime) - rusage_us(before.ru_stime)) / routes;
}

// Waits until the socket takes another message; false on any other failure.
bool wait_writable(int fd, int send_errno)
{
    if (send_errno != EAGAIN) return false;
    pollfd pfd{fd, POLLOUT, 0};
    poll(&pfd, 1, 1000);
    return true;
}

// One full-table load into a fresh emulator, on the CPU the argument picks
// (0: the benchmark's, 1: the other one). `send_all` sends every route on the
// handle and returns false if one could not be sent. Timed until the
// emulator holds them all. The client's CPU covers the sends only; the
// emulator's, read from /proc, the whole load.
template <class SendAll>
void load_full_table(benchmark::State &state, SendAll &&send_all)
{
    const std::vector<Prefix> &table = full_table();
    pin_to(kCpu);
    for (auto _ : state) {
        tarn::kemu::EmulatorProcess emu(TARN_KERNEL_EMU_PATH, {},
                                        static_cast<int>(kCpu + state.range(0)));
        rtslib_cookie *h = emu.running() ? rtslib_open(1) : nullptr;
        if (h == nullptr) {
            state.SkipWithError("no emulator");
            return;
        }
        const long rss_before = rss_kib(emu.pid());
        const double emu_before = cpu_seconds(emu.pid());
        rusage ru_before{}, ru_after{};
        getrusage(RUSAGE_SELF, &ru_before);
        const auto start = std::chrono::steady_clock::now();
        if (!send_all(h, table)) {
            state.SkipWithError("add failed");
            rtslib_close(h);
            return;
        }
        getrusage(RUSAGE_SELF, &ru_after);
        while (emulator_routes() < table.size()) usleep(1000);
        const double secs =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        state.SetIterationTime(secs);
        const auto routes = static_cast<double>(table.size());
        state.counters["routes"] = routes;
        state.counters["routes_per_s"] = routes / secs;
        state.counters["emu_bytes_per_route"] =
            static_cast<double>(rss_kib(emu.pid()) - rss_before) * 1024.0 / routes;
        report_client_cpu(state, ru_before, ru_after, routes);
        state.counters["emu_cpu_us"] = (cpu_seconds(emu.pid()) - emu_before) * 1e6 / routes;
        rtslib_close(h);
    }
}

void BM_FullTableAdd(benchmark::State &state)
{
    load_full_table(state, [](rtslib_cookie *h, const std::vector<Prefix> &table) {
        for (const Prefix &p : table) {
            int rc;
            while ((rc = rtslib_rtm_add(h, 0, p.af, 1, 0, 2, 0, 0, 0, 0, 7, 0, p.bytes, p.plen,
                                        nullptr, nullptr)) != 0)
                if (!wait_writable(h->fd, rc)) return false;
        }
        return true;
    });
}
BENCHMARK(BM_FullTableAdd)->Arg(0)->Arg(1)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// The bytes rtslib_rtm_add sends for one route with the given sequence
// number, taken off a socket pair.
std::vector<uint8_t> add_message(uint8_t af, const uint8_t *prefix, uint16_t plen, uint32_t seq)
{
    int sv[2];
    std::vector<uint8_t> out;
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv) != 0) return out;
    rtslib_cookie *h = rtslib_open_nc();
    h->fd = sv[0];
    h->seq = seq - 1;
    if (rtslib_rtm_add(h, 0, af, 1, 0, 2, 0, 0, 0, 0, 7, 0, prefix, plen, nullptr, nullptr) == 0) {
        out.resize(RTS_MSG_MAX);
        const ssize_t n = ::recv(sv[1], out.data(), out.size(), 0);
        out.resize(n > 0 ? static_cast<size_t>(n) : 0);
    }
    h->fd = -1;
    rtslib_close(h);
    ::close(sv[0]);
    ::close(sv[1]);
    return out;
}

// The first byte at which two messages differ, or their length.
size_t first_difference(const std::vector<uint8_t> &a, const std::vector<uint8_t> &b)
{
    const size_t n = std::min(a.size(), b.size());
    const auto end = a.begin() + static_cast<std::ptrdiff_t>(n);
    return static_cast<size_t>(std::mismatch(a.begin(), end, b.begin()).first - a.begin());
}

// Route-add messages as rtslib_rtm_add encodes them, made without the
// library: one message per family and prefix field width, encoded once by
// the library, with the prefix bytes, prefix length and sequence number
// patched in place for each route. Where those fields sit is found by
// encoding messages that differ in one field only.
class AddTemplates {
public:
    bool build(const std::vector<Prefix> &table)
    {
        for (const Prefix &p : table) {
            Template &t = slot(p);
            if (!t.bytes.empty()) continue;
            uint8_t zero[16] = {}, ones[16];
            std::memset(ones, 0xff, sizeof ones);
            // A second prefix length with the same field width.
            const auto other_plen = static_cast<uint16_t>(p.plen % 8 == 0 ? p.plen - 1 : p.plen + 1);
            t.bytes = add_message(p.af, zero, p.plen, 1);
            t.prefix_off = first_difference(t.bytes, add_message(p.af, ones, p.plen, 1));
            t.plen_off = first_difference(t.bytes, add_message(p.af, zero, other_plen, 1));
            t.seq_off = first_difference(t.bytes, add_message(p.af, zero, p.plen, 2));
            t.width = padded_width(p.plen);
            if (t.bytes.empty() || t.prefix_off + t.width > t.bytes.size() ||
                t.plen_off + 2 > t.bytes.size() || t.seq_off + 4 > t.bytes.size())
                return false;
        }
        // The patched messages must be the library's own, byte for byte.
        uint32_t seq = 1000;
        for (size_t i = 0; i < table.size(); i += table.size() / 2000 + 1, ++seq) {
            const Prefix &p = table[i];
            if (patch(p, seq) != add_message(p.af, p.bytes, p.plen, seq)) return false;
        }
        return true;
    }

    // The message for `p` with sequence number `seq`; valid until the next
    // call for a prefix of the same kind.
    const std::vector<uint8_t> &patch(const Prefix &p, uint32_t seq)
    {
        Template &t = slot(p);
        std::memcpy(t.bytes.data() + t.prefix_off, p.bytes, t.width);
        std::memcpy(t.bytes.data() + t.plen_off, &p.plen, sizeof p.plen);
        std::memcpy(t.bytes.data() + t.seq_off, &seq, sizeof seq);
        return t.bytes;
    }

private:
    struct Template {
        std::vector<uint8_t> bytes;
        size_t prefix_off = 0, plen_off = 0, seq_off = 0, width = 0;
    };
    // The request carries the prefix in whole 32-bit words.
    static size_t padded_width(uint16_t plen) { return ((plen + 31u) / 8u) & ~3u; }
    Template &slot(const Prefix &p)
    {
        return templates_[p.af == TARN_AF_INET6 ? 1 : 0][padded_width(p.plen) / 4];
    }
    Template templates_[2][6];
};

// One plain send per route of its pre-encoded message, numbered on from
// `seq`; waits when the socket is full. The last number used, 0 on failure.
uint32_t send_encoded(int fd, AddTemplates &templates, const std::vector<Prefix> &table,
                      uint32_t seq)
{
    for (const Prefix &p : table) {
        const std::vector<uint8_t> &msg = templates.patch(p, ++seq);
        while (::send(fd, msg.data(), msg.size(), MSG_NOSIGNAL) < 0)
            if (!wait_writable(fd, errno)) return 0;
    }
    return seq;
}

// The floor under BM_FullTableAdd: the same routes, already encoded, one
// plain send per route; all the library's own work (the request record,
// encoding, its blocks) is left out.
void BM_FullTableSendEncoded(benchmark::State &state)
{
    AddTemplates templates;
    if (!templates.build(full_table())) {
        state.SkipWithError("patched messages differ from the library's");
        return;
    }
    load_full_table(state, [&templates](rtslib_cookie *h, const std::vector<Prefix> &table) {
        h->seq = send_encoded(h->fd, templates, table, h->seq);
        return h->seq != 0;
    });
}
BENCHMARK(BM_FullTableSendEncoded)->Arg(1)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// The floor of any receiver: the same pre-encoded sends into a socket pair
// whose peer, on the other CPU, only takes the messages off the socket (up
// to 32 per recvmmsg, as the emulator reads) and throws them away. What the
// emulator spends above this peer is its own work on a route.
void BM_FullTableSendToDrain(benchmark::State &state)
{
    const std::vector<Prefix> &table = full_table();
    AddTemplates templates;
    if (!templates.build(table)) {
        state.SkipWithError("patched messages differ from the library's");
        return;
    }
    pin_to(kCpu);
    for (auto _ : state) {
        int sv[2];
        socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv);
        const pid_t peer = fork();
        if (peer == 0) {
            pin_to(kCpu + 1);
            ::close(sv[0]);
            constexpr unsigned kSlots = 32;
            std::vector<uint8_t> bufs(size_t{kSlots} * RTS_MSG_MAX);
            iovec iov[kSlots];
            mmsghdr msgs[kSlots] = {};
            for (unsigned i = 0; i < kSlots; ++i) {
                iov[i] = {bufs.data() + size_t{i} * RTS_MSG_MAX, RTS_MSG_MAX};
                msgs[i].msg_hdr.msg_iov = &iov[i];
                msgs[i].msg_hdr.msg_iovlen = 1;
            }
            size_t got = 0;
            while (got < table.size()) {
                const int n = recvmmsg(sv[1], msgs, kSlots, MSG_WAITFORONE, nullptr);
                if (n <= 0) _exit(1);
                got += static_cast<size_t>(n);
            }
            _exit(0);
        }
        ::close(sv[1]);
        fcntl(sv[0], F_SETFL, O_NONBLOCK);
        rusage ru_before{}, ru_after{}, ru_peer{};
        getrusage(RUSAGE_SELF, &ru_before);
        const auto start = std::chrono::steady_clock::now();
        const bool sent = send_encoded(sv[0], templates, table, 0) != 0;
        getrusage(RUSAGE_SELF, &ru_after);
        // What is queued stays readable; a peer still waiting after it sees
        // the end and fails.
        ::close(sv[0]);
        int status = 1;
        wait4(peer, &status, 0, &ru_peer);
        const double secs =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (!sent || status != 0) {
            state.SkipWithError("drain failed");
            return;
        }
        state.SetIterationTime(secs);
        const auto routes = static_cast<double>(table.size());
        state.counters["routes_per_s"] = routes / secs;
        report_client_cpu(state, ru_before, ru_after, routes);
        state.counters["peer_cpu_us"] =
            (rusage_us(ru_peer.ru_utime) + rusage_us(ru_peer.ru_stime)) / routes;
    }
}
BENCHMARK(BM_FullTableSendToDrain)->Arg(1)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
