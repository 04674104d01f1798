// tarn-emu: the routing daemon tarn, emulated on a Linux host so that the
// library's routing-daemon client and the daemons built on it run end to
// end. Routes it is given go into the kernel emulator.
#include <arpa/inet.h>
#include <getopt.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "daemon.h"
#include "emu_log.h"
#include "kernel_link.h"
#include "libtarn/os/emu_protocol.h"
#include "server.h"

namespace {

const char kUsage[] = R"( [options]

Emulates the routing daemon tarn for libtarn on a Linux host. Clients connect
to a local stream socket (and, when asked, to a loopback TCP port); routes they
add are installed in the kernel emulator through the routing socket.

  --listen PATH    local stream socket for clients (default /tmp/tarn-emu.sock)
  --tcp PORT       also listen on TCP port PORT of 127.0.0.1 (0: any free
                   port; the address and port are logged)
  --tcp-address A  the numeric address for --tcp instead of loopback (::1,
                   or 0.0.0.0 to be reachable from other machines)
  --socket-mode M  octal permission bits of the local sockets (--listen and
                   --control); default 0600, only this user may connect
  --kernel PATH    the kernel emulator's socket (default $TARN_KERNEL_SOCKET)
  --control PATH   control socket: one command line per connection, answered
                   with "ok" or "error TEXT" and the output ("help" lists them);
                   a line over 4096 bytes, with bytes that are not printable
                   or more words than its command takes is refused with
                   "error TEXT" and the reason
  --config FILE    "local-as NAME AS TABLE [confederation]" lines and the
                   paths the LSP-ping queries find, "KIND KEY... [ATTR=VALUE]...":
                     lsp NAME            src dst tunnel lsp-id uptime path
                                         standby ccc=yes
                     p2mp-lsp NAME       id branch=DST/IFL/NEXTHOP/L1,L2...
                     fec ADDR/LEN        instance flags
                     bgp-fec ADDR/LEN    instance
                     p2mp-fec ROOT ID    instance branch=...
                     vpn NAME ADDR/LEN   rd=ASN:N pnh local=yes
                     endpoint ADDR/LEN   instance protocol=rsvp|ldp|bgp
                     l2ckt NEIGHBOUR VC  ifname encap cw remote=no
                     l2vpn NAME LOCAL REMOTE  ifname rd pe cw
                     fec129 NAME SAI TAI rd pe cw
                     static-lsp NAME
                     tdmpw ID NEIGHBOUR  state
                   and on any: ifl nh labels=L1,L2 state=down resolved=no.
                   Without a file: instance "master" (AS 64512) and a few
                   paths of each kind (the state dump lists nothing of them;
                   see "force TYPE CODE" for results no path gives).
  --queue-bound N  bytes that may wait for one client before it is dropped
                   (default 1048576)
  --log FILE       log every event to FILE ("-": standard output)
  --help           this text

SIGTERM, SIGINT or the control command "shutdown" stop it cleanly; SIGUSR1
writes its state into the log.
)";

enum { kListen = 1, kTcp, kTcpAddress, kSocketMode, kKernel, kControl, kConfig, kLog, kQueue, kHelp };

bool parse_number(const char *text, long max, long &out)
{
    char *end = nullptr;
    errno = 0;
    out = std::strtol(text, &end, 10);
    return errno == 0 && end != text && *end == '\0' && out >= 0 && out <= max;
}

}  // namespace

int main(int argc, char **argv)
{
    using namespace tarn::temu;
    static const option kOptions[] = {
        {"listen", required_argument, nullptr, kListen}, {"tcp", required_argument, nullptr, kTcp},
        {"kernel", required_argument, nullptr, kKernel}, {"control", required_argument, nullptr, kControl},
        {"config", required_argument, nullptr, kConfig}, {"log", required_argument, nullptr, kLog},
        {"queue-bound", required_argument, nullptr, kQueue}, {"help", no_argument, nullptr, kHelp},
        {"tcp-address", required_argument, nullptr, kTcpAddress},
        {"socket-mode", required_argument, nullptr, kSocketMode},
        {nullptr, 0, nullptr, 0}};
    ServerConfig scfg;
    scfg.listen_path = "/tmp/tarn-emu.sock";
    DaemonConfig dcfg;
    std::string log_path, kernel_path, error;
    bool configured = false;
    for (int opt; (opt = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        long n = 0;
        switch (opt) {
        case kListen: scfg.listen_path = optarg; break;
        case kTcp:
            if (!parse_number(optarg, 65535, n)) error = "--tcp: not a port: " + std::string(optarg);
            scfg.tcp_port = static_cast<int>(n);
            break;
        case kTcpAddress: {
            in6_addr any;
            if (::inet_pton(AF_INET, optarg, &any) != 1 && ::inet_pton(AF_INET6, optarg, &any) != 1)
                error = "--tcp-address: not a numeric IPv4 or IPv6 address: " + std::string(optarg);
            scfg.tcp_address = optarg;
            break;
        }
        case kSocketMode: {
            char *end = nullptr;
            errno = 0;
            const unsigned long mode = std::strtoul(optarg, &end, 8);
            if (errno != 0 || end == optarg || *end != '\0' || *optarg == '-' || mode > 0777)
                error = "--socket-mode: not octal permission bits (0 to 0777): " + std::string(optarg);
            scfg.socket_mode = static_cast<unsigned>(mode);
            break;
        }
        case kKernel: kernel_path = optarg; break;
        case kControl: scfg.control_path = optarg; break;
        case kLog: log_path = optarg; break;
        case kQueue:
            if (!parse_number(optarg, LONG_MAX, n) || n == 0)
                error = "--queue-bound: not a positive number: " + std::string(optarg);
            scfg.queue_bound = static_cast<size_t>(n);
            break;
        case kConfig: {
            std::ifstream in(optarg);
            std::ostringstream text;
            text << in.rdbuf();
            std::string why;
            if (!in)
                error = std::string("--config: cannot read ") + optarg;
            else if (!parse_daemon_config(text.str(), dcfg, why))
                error = std::string(optarg) + ": " + why;
            configured = true;
            break;
        }
        case kHelp: std::printf("Usage: %s%s", argv[0], kUsage); return 0;
        default: error = "unknown option"; break;
        }
        if (!error.empty()) break;
    }
    if (error.empty() && optind < argc) error = std::string("unexpected argument ") + argv[optind];
    if (!error.empty()) {
        std::fprintf(stderr, "tarn-emu: %s\n(try --help)\n", error.c_str());
        return 2;
    }
    // Without a configuration the master instance has a private AS.
    if (!configured) {
        dcfg.instances.push_back({"master", 64512, 0, false});
        dcfg.lsping = default_lsping_config();
    }

    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGUSR1);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    signal(SIGPIPE, SIG_IGN);
    int sfd = signalfd(-1, &mask, SFD_CLOEXEC);
    if (sfd < 0) {
        std::fprintf(stderr, "tarn-emu: signalfd: %s\n", std::strerror(errno));
        return 1;
    }

    EmuLog log;
    if (!log_path.empty() && !log.open(log_path)) {
        std::fprintf(stderr, "tarn-emu: cannot open %s: %s\n", log_path.c_str(), std::strerror(errno));
        return 1;
    }
    // The library finds the kernel where the environment says.
    if (!kernel_path.empty()) ::setenv(tarn::emu::kSocketEnv, kernel_path.c_str(), 1);
    KernelLink kernel(log);
    if (!kernel.open()) {
        std::fprintf(stderr, "tarn-emu: no kernel emulator at %s\n", tarn::emu::socket_path().c_str());
        return 1;
    }
    RoutingDaemon daemon(dcfg, kernel, log);
    Server server(scfg, daemon, log);
    if (!server.listen(error)) {
        std::fprintf(stderr, "tarn-emu: %s\n", error.c_str());
        return 1;
    }
    const int rc = server.run(sfd);
    close(sfd);
    return rc;
}
