// get and list: one request (or one walk of getnext requests) and its
// answers, printed as watch prints notifications.
#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <tarn/rtslib_if.h>
#include <tarn/rtslib_msg.h>
#include <tarn/rtslib_route.h>

#include "monitor.h"

namespace tarn::monitor {
namespace {

struct Prefix {
    uint8_t af = 0;
    uint8_t bytes[16] = {};
    uint16_t plen = 0;
};

// "192.0.2.0/24", "2001:db8::/32"; without a length, a host route.
bool parse_prefix(const std::string &text, Prefix &out)
{
    const size_t slash = text.find('/');
    const std::string addr = text.substr(0, slash);
    if (inet_pton(AF_INET, addr.c_str(), out.bytes) == 1) {
        out.af = TARN_AF_INET;
        out.plen = 32;
    } else if (inet_pton(AF_INET6, addr.c_str(), out.bytes) == 1) {
        out.af = TARN_AF_INET6;
        out.plen = 128;
    } else {
        return false;
    }
    if (slash == std::string::npos) return true;
    const std::string len = text.substr(slash + 1);
    char *end = nullptr;
    const unsigned long v = std::strtoul(len.c_str(), &end, 10);
    if (len.empty() || *end != '\0' || v > out.plen) return false;
    out.plen = static_cast<uint16_t>(v);
    return true;
}

// A request the kernel could not answer.
int request_failed(const std::string &what, int rc)
{
    std::fprintf(stderr, "tarn-monitor: %s: %s\n", what.c_str(),
                 rc > 0 ? std::strerror(rc) : "request failed");
    return kExitFailure;
}

// An answer that carries the kernel's error.
int kernel_refused(const std::string &what, uint32_t error)
{
    std::fprintf(stderr, "tarn-monitor: %s: not found (kernel error %u)\n", what.c_str(), error);
    return kExitFailure;
}

// TABLE as an index, or the index of the table of that name in `af`.
bool resolve_table(Session &s, const std::string &text, uint8_t af, uint16_t &tid, int &status)
{
    char *end = nullptr;
    const unsigned long v = std::strtoul(text.c_str(), &end, 10);
    if (!text.empty() && *end == '\0' && v <= 0xFFFF) {
        tid = static_cast<uint16_t>(v);
        return true;
    }
    rtb_msg_t *table = nullptr;
    const int rc = rtslib_rtbm_get_by_name(s.handle, af, text.c_str(), &table, nullptr);
    if (rc != 0) status = request_failed("table " + text, rc);
    else if (table->hdr.error != 0) status = kernel_refused("table " + text, table->hdr.error);
    else tid = table->tid;
    rtslib_msg_idl_release(s.handle, table);
    return rc == 0 && status == kExitOk;
}

int get_route(Session &s, MessagePrinter &printer, const Options &opts)
{
    if (opts.args.size() < 3 || opts.args.size() > 4)
        return usage_error("get route wants PREFIX and at most a TABLE");
    Prefix p;
    if (!parse_prefix(opts.args[2], p))
        return usage_error("\"" + opts.args[2] + "\" is not a prefix (192.0.2.0/24, 2001:db8::/32)");
    if (!open_session(s)) return kExitFailure;
    uint16_t tid = 0;
    int status = kExitOk;
    if (opts.args.size() == 4 && !resolve_table(s, opts.args[3], p.af, tid, status)) return status;
    rt_msg_t *rt = nullptr;
    const int rc = rtslib_rtm_get(s.handle, tid, p.af, p.bytes, p.plen, 0, 0, 0, 0, RTS_OP_GET,
                                  &rt, nullptr);
    const std::string what = "route " + opts.args[2];
    if (rc != 0) status = request_failed(what, rc);
    else if (rt->hdr.error != 0) status = kernel_refused(what, rt->hdr.error);
    else printer.print(rt, true);
    rtslib_msg_idl_release(s.handle, rt);
    return status;
}

int get_table(Session &s, MessagePrinter &printer, const Options &opts)
{
    if (opts.args.size() != 3) return usage_error("get table wants one NAME");
    if (!open_session(s)) return kExitFailure;
    rtb_msg_t *table = nullptr;
    const uint8_t af = opts.af != 0 ? opts.af : TARN_AF_INET;
    const int rc = rtslib_rtbm_get_by_name(s.handle, af, opts.args[2].c_str(), &table, nullptr);
    const std::string what = "table " + opts.args[2];
    int status = kExitOk;
    if (rc != 0) status = request_failed(what, rc);
    else if (table->hdr.error != 0) status = kernel_refused(what, table->hdr.error);
    else printer.print(table, true);
    rtslib_msg_idl_release(s.handle, table);
    return status;
}

bool same_route(const rt_msg_t *a, const rt_msg_t *b)
{
    return a->plen == b->plen && a->prefix_len == b->prefix_len &&
           (a->prefix_len == 0 || std::memcmp(a->prefix, b->prefix, a->prefix_len) == 0);
}

// Every route of one family in table tid, by getnext from the empty prefix
// until the kernel answers with an error (the end). A kernel that answers
// with the route it was asked about, or one of another table or family,
// ends the walk too, so that it cannot go round for ever.
int walk_routes(Session &s, MessagePrinter &printer, uint16_t tid, uint8_t af)
{
    rt_msg_t *rt = nullptr;
    int rc = rtslib_rtm_get(s.handle, tid, af, nullptr, 0, 0, 0, 0, 0, RTS_OP_GETNEXT, &rt,
                            nullptr);
    while (rc == 0 && rt->hdr.error == 0 && rt->tid == tid && rt->af == af) {
        printer.print(rt, true);
        rt_msg_t *next = nullptr;
        rc = rtslib_rtm_get_with_msg(s.handle, rt, RTS_OP_GETNEXT, &next, nullptr);
        const bool stuck = rc == 0 && same_route(rt, next);
        rtslib_msg_idl_release(s.handle, rt);
        rt = next;
        if (stuck) break;
    }
    rtslib_msg_idl_release(s.handle, rt);
    return rc == 0 ? kExitOk : request_failed("route walk", rc);
}

int list_routes(Session &s, MessagePrinter &printer, const Options &opts)
{
    if (opts.args.size() > 3) return usage_error("list routes wants at most a TABLE");
    if (!open_session(s)) return kExitFailure;
    uint16_t tid = 0;
    int status = kExitOk;
    const uint8_t name_af = opts.af != 0 ? opts.af : TARN_AF_INET;
    if (opts.args.size() == 3 && !resolve_table(s, opts.args[2], name_af, tid, status))
        return status;
    for (uint8_t af : {TARN_AF_INET, TARN_AF_INET6}) {
        if (opts.af != 0 && af != opts.af) continue;
        if ((status = walk_routes(s, printer, tid, af)) != kExitOk) break;
    }
    return status;
}

// Prints every entry of one interface list of the routing sysctl.
int print_interface_list(Session &s, MessagePrinter &printer, int kind, const char *what)
{
    rtslib_msg_list *list = nullptr;
    const int rc = rtslib_ifxm_get_all(s.handle, &list, kind);
    if (rc != 0) return request_failed(what, rc);
    for (int i = 0; i < list->count; i++) printer.print(rtslib_msg_list_get_by_index(list, i), list->kind == RTSLIB_MSG_LIST_FILLED);
    rtslib_msg_list_free(s.handle, list);
    return kExitOk;
}

}  // namespace

int run_get(const Options &opts)
{
    Session s;
    MessagePrinter printer(s, opts.form, stdout);
    const std::string what = opts.args.size() > 1 ? opts.args[1] : "";
    int status;
    if (what == "route") status = get_route(s, printer, opts);
    else if (what == "table") status = get_table(s, printer, opts);
    else status = usage_error("get wants route PREFIX or table NAME");
    close_session(s);
    return status;
}

int run_list(const Options &opts)
{
    Session s;
    MessagePrinter printer(s, opts.form, stdout);
    const std::string what = opts.args.size() > 1 ? opts.args[1] : "";
    if (what == "routes") {
        const int status = list_routes(s, printer, opts);
        close_session(s);
        return status;
    }
    if (what != "interfaces" && what != "addresses")
        return usage_error("list wants routes, interfaces or addresses");
    if (opts.args.size() != 2) return usage_error("list " + what + " takes no operands");
    if (!open_session(s)) return kExitFailure;
    int status = what == "addresses"
                     ? print_interface_list(s, printer, RTSLIB_IFLIST_ADDRESSES, "addresses")
                     : print_interface_list(s, printer, RTSLIB_IFLIST_DEVICES, "devices");
    if (what == "interfaces" && status == kExitOk)
        status = print_interface_list(s, printer, RTSLIB_IFLIST_LOGICAL, "logical interfaces");
    close_session(s);
    return status;
}

}  // namespace tarn::monitor
