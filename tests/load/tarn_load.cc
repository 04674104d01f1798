// tarn-load: many daemon processes adding and deleting routes through the
// kernel emulator while listener processes watch the notifications, then
// many routing-daemon sessions against tarn-emu; at the end every route,
// notification and reply is accounted for. Exit status 0 when the counts
// reconcile, 1 when they do not, 2 for a usage error.
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "emu_client.h"
#include "emu_process.h"
#include "session_client.h"
#include <tarn/tarn.h>

namespace {

using tarn::test::command;
using tarn::test::socket_state;

const char kUsage[] = R"( [options]

Starts a kernel emulator and then tarn-emu, puts load on them through the
library and reconciles the counts:
  kernel phase: N daemon processes each open a handle, add K routes (with
    acknowledgement) and delete them, while L listener processes watch the
    route notifications through the library's asynchronous dispatch; each
    listener must see 2*N*K notifications, less those the emulator reports
    dropped for it (its queue bound), and no route may be left.
  session phase: M processes each open a routing-daemon session to tarn-emu
    and make R route adds and R deletes, waiting for each reply; every
    reply must come back successful and no route may be left.
The emulators' resident memory is printed before and after each phase.

  --daemons N     daemon processes (default 8, at most 256)
  --routes K      routes each daemon adds and deletes (default 500, at most
                  65536)
  --listeners L   listener processes (default 2)
  --sessions M    tarn-emu sessions (default 8, at most 256)
  --requests R    route adds (and as many deletes) per session (default 50,
                  at most 65536)
  --queue-bound Q the kernel emulator's notification bound per socket
                  (default 4096)
  --rounds N      run the kernel phase N times against the same emulator
                  (default 1); the emulator's memory after each round shows
                  whether it grows from round to round or stays flat
  --help          this text
)";

struct Options {
    long daemons = 8, routes = 500, listeners = 2, sessions = 8, requests = 50, queue_bound = 4096,
         rounds = 1;
};

bool parse_count(const char *text, long max, long &out)
{
    char *end = nullptr;
    errno = 0;
    const long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < 0 || v > max) return false;
    out = v;
    return true;
}

double seconds_since(std::chrono::steady_clock::time_point t)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

// A process's resident memory in KiB (0 when it cannot be read).
long rss_kib(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    return 0;
}

// Runs `body` in a child whose result comes back as a fixed record through a
// pipe; the child's exit status is 0 when `body` returned true.
template <typename Result>
struct Child {
    pid_t pid = -1;
    int fd = -1;
};

template <typename Result>
Child<Result> fork_child(const std::function<bool(Result &)> &body)
{
    int p[2];
    Child<Result> c;
    if (::pipe(p) != 0) return c;
    c.pid = ::fork();
    if (c.pid == 0) {
        ::close(p[0]);
        Result r{};
        const bool ok = body(r);
        const ssize_t n = ::write(p[1], &r, sizeof r);
        ::_exit(ok && n == static_cast<ssize_t>(sizeof r) ? 0 : 1);
    }
    ::close(p[1]);
    c.fd = p[0];
    return c;
}

// Waits for the child; false when it failed or sent no result.
template <typename Result>
bool collect(Child<Result> &c, Result &r)
{
    if (c.pid < 0) return false;
    size_t got = 0;
    auto *bytes = reinterpret_cast<char *>(&r);
    for (ssize_t n; got < sizeof r && (n = ::read(c.fd, bytes + got, sizeof r - got)) > 0;)
        got += static_cast<size_t>(n);
    ::close(c.fd);
    int status = 0;
    ::waitpid(c.pid, &status, 0);
    return got == sizeof r && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Collects every child's result into `sum`; false when any failed.
template <typename Result>
bool collect_all(std::vector<Child<Result>> &children, Result &sum)
{
    bool ok = true;
    for (auto &c : children) {
        Result r{};
        ok = collect(c, r) && ok;
        sum += r;
    }
    return ok;
}

int count_reports(rtslib_cookie *, void *arg, int, const char *text)
{
    ++*static_cast<long *>(arg);
    std::fprintf(stderr, "tarn-load[%d]: %s", static_cast<int>(::getpid()), text);
    return 0;
}

void prefix_of(long daemon, long route, uint8_t out[4])
{
    out[0] = 10;
    out[1] = static_cast<uint8_t>(daemon);
    out[2] = static_cast<uint8_t>(route >> 8);
    out[3] = static_cast<uint8_t>(route);
}


struct DaemonResult {
    long added, deleted, reports, waits;
    void operator+=(const DaemonResult &o)
    {
        added += o.added;
        deleted += o.deleted;
        reports += o.reports;
        waits += o.waits;
    }
};

// The routing socket is non-blocking: a request that finds the socket full
// fails with EAGAIN, and the daemon waits for room and sends it again, as a
// daemon does under load. Counts those waits. An acknowledgement that does
// not come in time is also EAGAIN, but reported: the request went out, and
// sending it again would be a second request.
template <typename Request>
int send_request(rtslib_cookie *h, DaemonResult &r, Request request)
{
    for (;;) {
        const long reports = r.reports;
        const int rc = request();
        if (rc != EAGAIN || r.reports != reports) return rc;
        ++r.waits;
        pollfd p{h->fd, POLLOUT, 0};
        ::poll(&p, 1, -1);
    }
}

bool run_daemon(long d, long routes, DaemonResult &r)
{
    rtslib_cookie *h = rtslib_open_set_liberr(static_cast<uint8_t>(d + 1), &r.reports, count_reports);
    if (h == nullptr) return false;
    uint8_t prefix[4];
    for (long i = 0; i < routes; ++i) {
        prefix_of(d, i, prefix);
        uint32_t ack = 0;
        if (send_request(h, r, [&] {
                return rtslib_rtm_add(h, 0, TARN_AF_INET, 1, 0, 2, 0, 0, 0, 0, 5, 0, prefix, 32, nullptr, &ack);
            }) == 0 && ack != 0)
            ++r.added;
    }
    for (long i = 0; i < routes; ++i) {
        prefix_of(d, i, prefix);
        if (send_request(h, r, [&] {
                return rtslib_rtm_delete_prefix(h, 0, TARN_AF_INET, 1, 0, prefix, 32, 0);
            }) == 0)
            ++r.deleted;
    }
    rtslib_close(h);
    return r.added == routes && r.deleted == routes && r.reports == 0;
}

struct ListenerResult {
    long adds, deletes, others, gaps, dropped, assigned, reports, errors;
};

struct ListenerState {
    ListenerResult *r;
    uint32_t last_seq;
    bool any;
};

int on_route(rtslib_cookie *h, void *arg, void *msg, void *)
{
    auto *st = static_cast<ListenerState *>(arg);
    const auto *rt = static_cast<const rt_msg_t *>(msg);
    if (rt->hdr.op == RTS_OP_ADD)
        ++st->r->adds;
    else if (rt->hdr.op == RTS_OP_DELETE)
        ++st->r->deletes;
    else
        ++st->r->others;
    // Each socket's notifications are numbered one by one; a dropped one
    // leaves its number unused.
    if (st->any && rt->hdr.seq != st->last_seq + 1) st->r->gaps += rt->hdr.seq - st->last_seq - 1;
    st->last_seq = rt->hdr.seq;
    st->any = true;
    rtslib_msg_idl_release(h, msg);
    return 0;
}

// Watches until every notification the daemons cause has either arrived or
// been reported dropped by the emulator. `ready` gets one byte once the
// handler is registered.
bool run_listener(long index, long expected, int ready, ListenerResult &r)
{
    rtslib_cookie *h = rtslib_open_set_liberr(static_cast<uint8_t>(200 + index), &r.reports, count_reports);
    int fd = -1;
    ListenerState st{&r, 0, false};
    if (h == nullptr || rtslib_set_async_info_nocontext(h, &fd) != 0 ||
        rtslib_rtm_async_register(h, &st, on_route) != 0)
        return false;
    rtsllib_async_set_num_read_msg(h, 64);
    const long first = std::strtol(socket_state(fd, "kernel-seq").c_str(), nullptr, 10);
    const char byte = 1;
    if (::write(ready, &byte, 1) != 1) return false;
    ::close(ready);
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 100) == 1) {
            while (rtslib_async_event_process(h) == 0) {
            }
            if (errno != EAGAIN) ++r.errors;
            continue;
        }
        // Quiet: has everything been heard of?
        r.dropped = std::strtol(socket_state(fd, "dropped").c_str(), nullptr, 10);
        r.assigned = std::strtol(socket_state(fd, "kernel-seq").c_str(), nullptr, 10) - first;
        if (r.adds + r.deletes + r.others + r.dropped >= expected) break;
        if (r.errors > 0) break;
    }
    rtslib_close(h);
    return r.errors == 0 && r.reports == 0;
}

struct SessionResult {
    long adds_ok, deletes_ok, replies, losses;
    void operator+=(const SessionResult &o)
    {
        adds_ok += o.adds_ok;
        deletes_ok += o.deletes_ok;
        replies += o.replies;
        losses += o.losses;
    }
};

bool run_session(const std::string &path, long index, long requests, SessionResult &r)
{
    tarn::test::SessionClient s(path);
    const std::string name = "load" + std::to_string(index);
    if (!s.start(name.c_str())) return false;
    for (long i = 0; i < requests; ++i) {
        const tarn_rt_request rq = s.route(static_cast<uint32_t>(index << 16 | i));
        if (tarn_rt_add(s.get(), &rq) != 0 || s.next() != 0) return false;
        if (s.seen().add_result == 0) ++r.adds_ok;
        if (tarn_rt_delete(s.get(), &rq) != 0 || s.next() != 0) return false;
        if (s.seen().delete_result == 0) ++r.deletes_ok;
    }
    r.replies = static_cast<long>(s.seen().adds + s.seen().deletes);
    r.losses = s.seen().losses;
    return true;
}

long route_count()
{
    const std::string out = command(-1, "count");
    return out.rfind("routes ", 0) == 0 ? std::strtol(out.c_str() + 7, nullptr, 10) : -1;
}

bool check(bool ok, const char *what)
{
    if (!ok) std::printf("MISMATCH: %s\n", what);
    return ok;
}

bool kernel_phase(const Options &o, pid_t emu_pid)
{
    const long expected = 2 * o.daemons * o.routes;
    const long rss_before = rss_kib(emu_pid);
    const auto start = std::chrono::steady_clock::now();
    int ready[2];
    if (::pipe(ready) != 0) return false;
    std::vector<Child<ListenerResult>> listeners;
    for (long l = 0; l < o.listeners; ++l)
        listeners.push_back(fork_child<ListenerResult>(
            [&, l](ListenerResult &r) { return run_listener(l, expected, ready[1], r); }));
    ::close(ready[1]);
    char byte;
    long registered = 0;
    while (registered < o.listeners && ::read(ready[0], &byte, 1) == 1) ++registered;
    ::close(ready[0]);

    std::vector<Child<DaemonResult>> daemons;
    for (long d = 0; d < o.daemons; ++d)
        daemons.push_back(fork_child<DaemonResult>([&, d](DaemonResult &r) { return run_daemon(d, o.routes, r); }));
    bool ok = check(registered == o.listeners, "a listener did not start");
    DaemonResult sum{};
    ok = check(collect_all(daemons, sum), "a daemon failed") && ok;
    const long added = sum.added, deleted = sum.deleted, waits = sum.waits;
    // Listeners wait for every notification; after a failed daemon some
    // never come.
    if (!ok)
        for (auto &c : listeners) ::kill(c.pid, SIGTERM);
    const double daemons_done = seconds_since(start);
    const long left = route_count();
    const long rss_peak = rss_kib(emu_pid);
    std::printf("kernel: %ld daemons added %ld and deleted %ld routes in %.2f s (%ld waits for a full "
                "socket); %ld routes left\n",
                o.daemons, added, deleted, daemons_done, waits, left);
    ok = check(added == o.daemons * o.routes && deleted == added, "routes added/deleted") && ok;
    ok = check(left == 0, "routes left in the kernel") && ok;
    for (long l = 0; l < o.listeners; ++l) {
        ListenerResult r{};
        ok = check(collect(listeners[static_cast<size_t>(l)], r), "a listener failed") && ok;
        std::printf("listener %ld: %ld adds, %ld deletes, %ld others, %ld dropped (%ld seen as gaps), "
                    "%ld numbered; expected %ld\n",
                    l, r.adds, r.deletes, r.others, r.dropped, r.gaps, r.assigned, expected);
        ok = check(r.adds + r.deletes + r.dropped == expected && r.others == 0, "notifications heard") && ok;
        ok = check(r.assigned == expected, "notifications numbered") && ok;
        ok = check(r.gaps <= r.dropped, "gaps beyond the drops") && ok;
    }
    std::printf("kernel: all done in %.2f s; emulator RSS %ld KiB before, %ld after the daemons, "
                "%ld at the end\n",
                seconds_since(start), rss_before, rss_peak, rss_kib(emu_pid));
    return ok;
}

bool session_phase(const Options &o, const std::string &dir, const tarn::kemu::EmulatorProcess &kernel)
{
    const std::string sock = dir + "/tarn.sock", ctl = dir + "/tarn.ctl";
    const pid_t emu = tarn::kemu::spawn({TARN_EMU_PATH, "--listen", sock, "--control", ctl, "--kernel",
                                         kernel.socket_path()});
    if (emu < 0 || !tarn::kemu::wait_until_ready(emu, [&] { return ::access(ctl.c_str(), F_OK) == 0; })) {
        std::printf("MISMATCH: tarn-emu did not start\n");
        return false;
    }
    const long rss_before = rss_kib(emu), kernel_before = rss_kib(kernel.pid());
    const auto start = std::chrono::steady_clock::now();
    std::vector<Child<SessionResult>> sessions;
    for (long i = 0; i < o.sessions; ++i)
        sessions.push_back(fork_child<SessionResult>(
            [&, i](SessionResult &r) { return run_session(sock, i, o.requests, r); }));
    SessionResult sum{};
    bool ok = check(collect_all(sessions, sum), "a session failed");
    const long adds = sum.adds_ok, deletes = sum.deletes_ok, replies = sum.replies, losses = sum.losses;
    const long left = route_count();
    std::printf("sessions: %ld sessions, %ld adds and %ld deletes succeeded, %ld replies, %ld connections "
                "lost, in %.2f s; %ld routes left\n",
                o.sessions, adds, deletes, replies, losses, seconds_since(start), left);
    std::printf("sessions: tarn-emu RSS %ld KiB before, %ld after; kernel emulator %ld before, %ld after\n",
                rss_before, rss_kib(emu), kernel_before, rss_kib(kernel.pid()));
    const long expected = o.sessions * o.requests;
    ok = check(adds == expected && deletes == expected && replies == 2 * expected, "session replies") && ok;
    ok = check(losses == 0, "session connections lost") && ok;
    ok = check(left == 0, "routes left after the sessions") && ok;
    return check(tarn::kemu::terminate(emu) == 0, "tarn-emu exit status") && ok;
}

}  // namespace

int main(int argc, char **argv)
{
    Options o;
    static const option kOptions[] = {
        {"daemons", required_argument, nullptr, 'd'},  {"routes", required_argument, nullptr, 'r'},
        {"listeners", required_argument, nullptr, 'l'}, {"sessions", required_argument, nullptr, 's'},
        {"requests", required_argument, nullptr, 'q'}, {"queue-bound", required_argument, nullptr, 'b'},
        {"rounds", required_argument, nullptr, 'n'},   {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0}};
    for (int c; (c = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        bool good = true;
        switch (c) {
        case 'd': good = parse_count(optarg, 256, o.daemons); break;
        case 'r': good = parse_count(optarg, 65536, o.routes); break;
        case 'l': good = parse_count(optarg, 50, o.listeners); break;
        case 's': good = parse_count(optarg, 256, o.sessions); break;
        case 'q': good = parse_count(optarg, 65536, o.requests); break;
        case 'b': good = parse_count(optarg, 1L << 30, o.queue_bound) && o.queue_bound > 0; break;
        case 'n': good = parse_count(optarg, 1000, o.rounds) && o.rounds > 0; break;
        case 'h': std::printf("Usage: %s%s", argv[0], kUsage); return 0;
        default: good = false; break;
        }
        if (!good) {
            std::fprintf(stderr, "tarn-load: bad or out-of-range option (try --help)\n");
            return 2;
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "tarn-load: unexpected argument %s (try --help)\n", argv[optind]);
        return 2;
    }

    tarn::kemu::EmulatorProcess kernel(TARN_KERNEL_EMU_PATH,
                                       {"--queue-bound", std::to_string(o.queue_bound)});
    if (!kernel.running()) {
        std::fprintf(stderr, "tarn-load: %s\n", kernel.error().c_str());
        return 1;
    }
    std::fflush(stdout);  // the children must not print the parent's buffer again
    bool ok = true;
    for (long round = 1; round <= o.rounds; ++round) {
        if (o.rounds > 1) std::printf("round %ld\n", round);
        ok = kernel_phase(o, kernel.pid()) && ok;
        std::fflush(stdout);
    }
    const std::string dir = tarn::kemu::make_temp_dir();
    ok = !dir.empty() && session_phase(o, dir, kernel) && ok;
    if (!dir.empty()) ::rmdir(dir.c_str());
    // A clean exit: with the sanitizers, also nothing leaked.
    ok = check(kernel.stop() == 0, "kernel emulator exit status") && ok;
    std::printf("%s\n", ok ? "reconciled" : "NOT reconciled");
    return ok ? 0 : 1;
}
