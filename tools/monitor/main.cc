// tarn-monitor: what `route monitor` and `ip monitor` are to their systems,
// for libtarn's kernel: notifications as they arrive, and one-shot queries,
// as brief lines, full dumps or one JSON object per line.
#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "monitor.h"

namespace tarn::monitor {
namespace {

const char kMainHelp[] = R"(Usage: tarn-monitor [FORM] COMMAND [ARGUMENTS]

Shows what the kernel's routing socket says, for people and for scripts.

Commands:
  watch [TYPE...]       print notifications as they arrive (all classes, or
                        the message types named)
  get route PREFIX [TABLE]
                        one route, exact match (table 0 unless TABLE)
  get table NAME        one route table, by name
  list routes [TABLE]   every route of a table (0 unless TABLE), IPv4 then IPv6
  list interfaces       every interface device, then every logical interface
  list addresses        every interface address
Run "tarn-monitor COMMAND --help" for a command's own options.

Forms (one of):
  --brief               one line per message (the default): the library's
                        summary, then " |" and the addresses the record
                        carries ("prefix=10.0.0.0/8"), if any
  --full                every field, several lines per message
  --json                one JSON object per line (see below)
Each message is stamped with the time it was printed (UTC).

JSON: {"time":"2026-01-02T03:04:05.000006Z","type":"route","op":"add",
"record":"rt_msg","fields":{...}}. "type" and "op" are the message type and
operation names; "fields" holds every field of the decoded record by name:
numbers as numbers, nested records as objects, arrays as arrays (null for an
absent element). Byte strings are strings: a field named prefix, group,
dest, local, addr, address or gateway (or ending in _ and one of these) in a
record whose family field (af, family, or ending in _af or _family) is inet
(2) or inet6 (28) is address text ("10.0.0.0", "2001:db8::"); a field whose
name ends in "name" and holds printable text is that text, trailing NULs
dropped; any other byte string is lower-case hex. A message of a type with
no record has "seq" and "raw" (the whole message in hex) instead.

The kernel is reached at $TARN_KERNEL_SOCKET (default /tmp/tarn-kernel.sock),
where tarn-kernel-emu listens on a Linux host.

Exit status: 0 success, 1 failure (no kernel, a refused request, nothing
found), 2 usage error.
)";

const char kWatchHelp[] = R"(Usage: tarn-monitor watch [FORM] [--count N] [--timeout SECONDS] [TYPE...]

Registers for the notifications of every message type (or of the TYPEs
named) and prints each message as it arrives, until SIGINT or SIGTERM.
TYPE is a message type name as the kernel names it ("route", "rttable",
"ifaddr", ...); in names with spaces, "-" or "_" may stand for the space.
Some types come in groups ("cos info" brings every class-of-service type).
Once registered, a line "tarn-monitor: watching ..." goes to stderr.

Options:
  --brief, --full, --json   the form (see tarn-monitor --help)
  --count N                 stop after N messages
  --timeout SECONDS         stop after SECONDS (fractions allowed)
)";

const char kGetHelp[] = R"(Usage: tarn-monitor get [FORM] route PREFIX [TABLE]
       tarn-monitor get [FORM] [--af FAMILY] table NAME

route: the route with exactly PREFIX (192.0.2.0/24, 2001:db8::/32; no
  length means a host route) in table TABLE (an index or a table name;
  default 0).
table: the route table named NAME in family FAMILY (inet, the default, or
  inet6).
Exits 1 when the kernel has no such route or table.
)";

const char kListHelp[] = R"(Usage: tarn-monitor list [FORM] [--af FAMILY] routes [TABLE]
       tarn-monitor list [FORM] interfaces
       tarn-monitor list [FORM] addresses

routes: every route of table TABLE (an index or a table name; default 0),
  in prefix order, IPv4 then IPv6 (only FAMILY with --af inet or inet6).
interfaces: every interface device, then every logical interface.
addresses: every interface address.
)";

const char *command_help(const std::string &command)
{
    if (command == "watch") return kWatchHelp;
    if (command == "get") return kGetHelp;
    if (command == "list") return kListHelp;
    return kMainHelp;
}

bool parse_count(const char *text, uint64_t &out)
{
    char *end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v == 0 || text[0] == '-') return false;
    out = v;
    return true;
}

bool parse_seconds(const char *text, double &out)
{
    char *end = nullptr;
    errno = 0;
    const double v = std::strtod(text, &end);
    if (errno != 0 || end == text || *end != '\0' || !(v > 0) || v > 1e9) return false;
    out = v;
    return true;
}

bool parse_af(const char *text, uint8_t &out)
{
    if (std::strcmp(text, "inet") == 0) out = TARN_AF_INET;
    else if (std::strcmp(text, "inet6") == 0) out = TARN_AF_INET6;
    else return false;
    return true;
}

}  // namespace

int usage_error(const std::string &text)
{
    std::fprintf(stderr, "tarn-monitor: %s\n(try tarn-monitor --help)\n", text.c_str());
    return kExitUsage;
}

}  // namespace tarn::monitor

int main(int argc, char **argv)
{
    using namespace tarn::monitor;
    enum { kBrief = 256, kFull, kJson, kCount, kTimeout, kAf };
    static const option longopts[] = {
        {"brief", no_argument, nullptr, kBrief},
        {"full", no_argument, nullptr, kFull},
        {"json", no_argument, nullptr, kJson},
        {"count", required_argument, nullptr, kCount},
        {"timeout", required_argument, nullptr, kTimeout},
        {"af", required_argument, nullptr, kAf},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    Options opts;
    bool help = false;
    opterr = 0;
    int c;
    while ((c = getopt_long(argc, argv, "h", longopts, nullptr)) != -1) {
        switch (c) {
        case kBrief: opts.form = Form::kBrief; break;
        case kFull: opts.form = Form::kFull; break;
        case kJson: opts.form = Form::kJson; break;
        case kCount:
            if (!parse_count(optarg, opts.count))
                return usage_error(std::string("--count wants a positive number, not ") + optarg);
            break;
        case kTimeout:
            if (!parse_seconds(optarg, opts.timeout))
                return usage_error(std::string("--timeout wants seconds, not ") + optarg);
            break;
        case kAf:
            if (!parse_af(optarg, opts.af))
                return usage_error(std::string("--af wants inet or inet6, not ") + optarg);
            break;
        case 'h': help = true; break;
        default:
            return usage_error(std::string("unknown option ") + argv[optind - 1]);
        }
    }
    for (int i = optind; i < argc; i++) opts.args.emplace_back(argv[i]);
    const std::string command = opts.args.empty() ? "" : opts.args[0];
    if (help || command == "help") {
        const std::string topic = command == "help" && opts.args.size() > 1 ? opts.args[1] : command;
        std::fputs(command_help(topic), stdout);
        return kExitOk;
    }
    if (command.empty()) return usage_error("no command given");
    if (command != "watch" && (opts.count != 0 || opts.timeout != 0))
        return usage_error("--count and --timeout belong to watch");
    if (command == "watch") return run_watch(opts);
    if (command == "get") return run_get(opts);
    if (command == "list") return run_list(opts);
    return usage_error("unknown command \"" + command + "\"");
}
