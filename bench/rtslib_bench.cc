// Requests to the kernel emulator: the round trip of one route lookup against
// a raw SOCK_SEQPACKET ping-pong of the same bytes, and loading a full
// Internet table. The benchmark and its peer run pinned to the same CPU.
#include <poll.h>
#include <sched.h>
#include <signal.h>
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
// rest of the gap to the library is CPU work.
void BM_RawSeqpacketPingPong(benchmark::State &state)
{
    const bool with_path_calls = state.range(0) != 0;
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
            if (with_path_calls) {
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
    std::vector<uint8_t> buf(RTS_MSG_MAX);
    uint8_t hdr[RTS_HDR_MIN_LEN];
    const double peer_before = cpu_seconds(peer);
    for (auto _ : state) {
        if (::write(sv[0], request.data(), request.size()) < 0 ||
            (with_path_calls && ::recv(sv[0], hdr, sizeof hdr, MSG_PEEK) <= 0) ||
            ::read(sv[0], buf.data(), buf.size()) <= 0) {
            state.SkipWithError("peer gone");
            break;
        }
        benchmark::DoNotOptimize(buf.data());
    }
    report_peer_cpu(state, peer, peer_before);
    ::close(sv[0]);
    waitpid(peer, nullptr, 0);
}
BENCHMARK(BM_RawSeqpacketPingPong)->Arg(0)->Arg(1);

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

// Arg 0: the emulator shares the benchmark's CPU; 1: it has the other one.
void BM_FullTableAdd(benchmark::State &state)
{
    const std::vector<Prefix> table = internet_table(1050000, 250000);
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
        const auto start = std::chrono::steady_clock::now();
        for (const Prefix &p : table) {
            int rc;
            while ((rc = rtslib_rtm_add(h, 0, p.af, 1, 0, 2, 0, 0, 0, 0, 7, 0, p.bytes, p.plen,
                                        nullptr, nullptr)) == EAGAIN) {
                pollfd pfd{h->fd, POLLOUT, 0};
                poll(&pfd, 1, 1000);
            }
            if (rc != 0) {
                state.SkipWithError("add failed");
                rtslib_close(h);
                return;
            }
        }
        while (emulator_routes() < table.size()) usleep(1000);
        const double secs =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        state.SetIterationTime(secs);
        state.counters["routes"] = static_cast<double>(table.size());
        state.counters["routes_per_s"] = static_cast<double>(table.size()) / secs;
        state.counters["emu_bytes_per_route"] =
            static_cast<double>(rss_kib(emu.pid()) - rss_before) * 1024.0 /
            static_cast<double>(table.size());
        rtslib_close(h);
    }
}
BENCHMARK(BM_FullTableAdd)->Arg(0)->Arg(1)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
