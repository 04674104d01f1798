#include "emu_config.h"

#include <getopt.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "libtarn/os/emu_protocol.h"
#include <tarn/rtsock_wire.h>

namespace tarn::kemu {
namespace {

bool parse_int(const char *text, long min, long max, int &out)
{
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 0);
    if (errno != 0 || end == text || *end != '\0' || v < min || v > max) return false;
    out = static_cast<int>(v);
    return true;
}

// "T=V": a message type 1..101 and a version byte.
bool parse_type_version(const char *text, int &type, int &version)
{
    std::string s(text);
    auto eq = s.find('=');
    if (eq == std::string::npos) return false;
    return parse_int(s.substr(0, eq).c_str(), 1, RTS_MSG_TYPE_COUNT - 1, type) &&
           parse_int(s.substr(eq + 1).c_str(), 0, 255, version);
}

// "N" or "N,M,...": option numbers.
bool parse_option_list(const char *text, std::set<int> &out)
{
    std::string s(text);
    size_t start = 0;
    for (;;) {
        const size_t comma = s.find(',', start);
        int n = 0;
        if (!parse_int(s.substr(start, comma - start).c_str(), 0, INT_MAX, n)) return false;
        out.insert(n);
        if (comma == std::string::npos) return true;
        start = comma + 1;
    }
}

// Reads and checks the --interfaces file.
bool load_interfaces(const char *path, EmuConfig &cfg, std::string &error)
{
    std::ifstream in(path);
    if (!in) {
        error = std::string("--interfaces: cannot read ") + path;
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    std::string why;
    if (!parse_interfaces_text(text.str(), cfg.interfaces, why)) {
        error = std::string(path) + ": " + why;
        return false;
    }
    cfg.interfaces_file = path;
    return true;
}

}  // namespace

std::string usage_text(const char *argv0)
{
    std::string u = "Usage: ";
    u += argv0;
    u += R"( [options]

Emulates the router kernel's routing socket for libtarn on a Linux host.
Routing sockets are AF_UNIX SOCK_SEQPACKET connections to PATH; socket
options travel on connections to PATH.ctl. Runs until SIGTERM or SIGINT,
then removes both socket files.

Options:
  --socket PATH          where to listen (default: $TARN_KERNEL_SOCKET, else )";
    u += emu::kDefaultSocketPath;
    u += R"()
  --interface-version N  interface version the kernel reports (default 98, 'b')
  --types N              number of message types it reports (default 102)
  --type-version T=V     report version V for message type T (1..101);
                         repeatable. Types not named report the library's own
                         version, so by default the block matches exactly.
  --fail-option N[,M..]  setting routing-socket option N (M, ...) fails with
                         EINVAL; repeatable
  --queue-bound N        notifications a socket may have waiting (default
                         4096); further ones are dropped and counted
  --interfaces FILE      start with the interfaces FILE describes instead of
                         the built-in set (see below)
  --ifs-max-clients N    value of the sysctl hw.product.ifs_max_clients
                         (default 8)
  --socket-mode OCTAL    permission bits of PATH and PATH.ctl (default 0600:
                         only this user may connect; 0660 or 0666 widens it)
  --log                  print one line per connection, option and message;
                         SIGUSR1 then prints the routing state (tables,
                         routes, multicast groups, interfaces)
  -h, --help             print this text and exit

The version block always carries a version byte for each of types 1..101,
whatever --types says.

Routes, route tables, route statistics and multicast groups are kept as a
kernel would; requests are answered in the encoding they came in.

Every change (routes added, changed or deleted; tables added, updated or
deleted; multicast groups added or deleted) is sent to each socket whose
listen mask (option 1) selects the message type, the changing socket
included, after its own answer. Each copy carries that socket's own next
sequence number (option 3 reads it). Changes made by a request go out in the
request's encoding, changes made through PATH.ctl as TLV.

Drop policy: messages wait in a queue per socket until the client can take
them; the emulator never blocks. Answers are always queued. A notification
for a socket that already has the bound's number of messages waiting is
dropped, counted per socket and logged; its sequence number is used up, so
the reader sees the gap.

Interfaces: by default the kernel starts with
  lo0       lo0.0      127.0.0.1/32, ::1/128
  em0       em0.0      192.0.2.1/24, 2001:db8::1/64
  em1       em1.0      198.51.100.1/24
  ge-0/0/0  ge-0/0/0.0 203.0.113.1/24
            ge-0/0/0.5 unnumbered (inet), borrowing lo0.0's address
Devices are numbered from 1 in the order they appear (SNMP index = device
index), logical interfaces from 64 (SNMP index = 1000 + index). An
--interfaces file holds one line per object, '#' starts a comment:
  device NAME                                  a device, e.g. em2
  logical NAME.UNIT                            a logical interface on it
  address NAME.UNIT ADDRESS/PREFIXLEN          an IPv4 or IPv6 address
  unnumbered NAME.UNIT DONOR.UNIT [inet|inet6] an unnumbered family (inet
                                               unless named) borrowing the
                                               donor's address
Each line may only name objects defined above it. The routing sysctl's
interface lists (NET_RT_IFLIST kinds 1, 2 and 10) are served from this set.

Tests script the emulator through PATH.ctl with commands; "help" lists them
(state of a socket, injected messages, changes, stalled readers, dropped
answers, state dumps). A command line is at most 4096 bytes of printable
text with no more words than its command takes; anything else is refused
(E2BIG or EINVAL, and a log line saying why) without effect. Larger
configuration blobs go in through the routing socket.
)";
    return u;
}

ParseOutcome parse_args(int argc, char **argv, EmuConfig &cfg, std::string &error)
{
    enum { kSocket = 1, kIfVersion, kTypes, kTypeVersion, kFailOption, kQueueBound, kLog, kInterfaces, kIfsMaxClients,
           kSocketMode };
    static const option opts[] = {
        {"socket", required_argument, nullptr, kSocket},
        {"interface-version", required_argument, nullptr, kIfVersion},
        {"types", required_argument, nullptr, kTypes},
        {"type-version", required_argument, nullptr, kTypeVersion},
        {"fail-option", required_argument, nullptr, kFailOption},
        {"queue-bound", required_argument, nullptr, kQueueBound},
        {"log", no_argument, nullptr, kLog},
        {"interfaces", required_argument, nullptr, kInterfaces},
        {"ifs-max-clients", required_argument, nullptr, kIfsMaxClients},
        {"socket-mode", required_argument, nullptr, kSocketMode},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    cfg = EmuConfig{};
    cfg.socket_path = emu::socket_path();
    cfg.interface_version = RTS_INTERFACE_VERSION;
    cfg.types = RTS_MSG_TYPE_COUNT;

    optind = 1;
    opterr = 0;
    int c;
    while ((c = getopt_long(argc, argv, "h", opts, nullptr)) != -1) {
        int type = 0, version = 0, n = 0;
        switch (c) {
        case kSocket:
            cfg.socket_path = optarg;
            break;
        case kIfVersion:
            if (!parse_int(optarg, 0, 255, cfg.interface_version)) {
                error = "--interface-version takes a number from 0 to 255";
                return ParseOutcome::kError;
            }
            break;
        case kTypes:
            if (!parse_int(optarg, 0, 255, cfg.types)) {
                error = "--types takes a number from 0 to 255";
                return ParseOutcome::kError;
            }
            break;
        case kTypeVersion:
            if (!parse_type_version(optarg, type, version)) {
                error = "--type-version takes T=V with T from 1 to 101 and V from 0 to 255";
                return ParseOutcome::kError;
            }
            cfg.type_versions[type] = version;
            break;
        case kFailOption:
            if (!parse_option_list(optarg, cfg.fail_options)) {
                error = "--fail-option takes option numbers separated by commas";
                return ParseOutcome::kError;
            }
            break;
        case kQueueBound:
            if (!parse_int(optarg, 1, INT_MAX, n)) {
                error = "--queue-bound takes a positive number";
                return ParseOutcome::kError;
            }
            cfg.queue_bound = static_cast<size_t>(n);
            break;
        case kLog:
            cfg.log = true;
            break;
        case kInterfaces:
            if (!load_interfaces(optarg, cfg, error)) return ParseOutcome::kError;
            break;
        case kIfsMaxClients:
            if (!parse_int(optarg, 0, INT_MAX, n)) {
                error = "--ifs-max-clients takes a number from 0 to 2147483647";
                return ParseOutcome::kError;
            }
            cfg.ifs_max_clients = static_cast<uint32_t>(n);
            break;
        case kSocketMode: {
            char *end = nullptr;
            errno = 0;
            const unsigned long mode = std::strtoul(optarg, &end, 8);
            if (errno != 0 || end == optarg || *end != '\0' || *optarg == '-' || mode > 0777) {
                error = "--socket-mode takes octal permission bits from 0 to 0777";
                return ParseOutcome::kError;
            }
            cfg.socket_mode = static_cast<unsigned>(mode);
            break;
        }
        case 'h':
            return ParseOutcome::kHelp;
        default:
            error = std::string("unknown or incomplete option: ") + argv[optind - 1];
            return ParseOutcome::kError;
        }
    }
    if (optind < argc) {
        error = std::string("unexpected argument: ") + argv[optind];
        return ParseOutcome::kError;
    }
    return ParseOutcome::kRun;
}

}  // namespace tarn::kemu
