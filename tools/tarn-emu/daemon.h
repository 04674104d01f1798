// The routing daemon as its clients see it: connections, protocol and flash
// registrations, routes with their owners, aliases and counters. It knows
// no sockets: each request arrives as a decoded frame and leaves as the
// frames to send, to its client and to flash-registered ones. Routes are
// installed in the kernel through a KernelPort.
#ifndef TARN_TARN_EMU_DAEMON_H
#define TARN_TARN_EMU_DAEMON_H

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "emu_log.h"
#include "frame.h"
#include "lsping.h"

namespace tarn::temu {

using Address = std::array<uint8_t, 16>;

struct NextHop {
    uint32_t ifl = 0;
    uint8_t family = 0;
    Address gateway{};
};

struct RouteKey {
    uint32_t table = 0;
    uint8_t family = 0;  // the daemon's code: 1 or 6
    Address prefix{};
    uint16_t plen = 0;
    auto operator<=>(const RouteKey &) const = default;
};

struct Route {
    uint32_t cookie = 0;
    uint32_t gateway = 0;  // handle of the owning protocol
    uint32_t preference = 0;
    std::vector<NextHop> hops;
};

// Where routes really live. Results are 0 or an errno value.
class KernelPort {
public:
    virtual ~KernelPort() = default;
    virtual bool table_exists(uint32_t table, uint8_t family) = 0;
    virtual bool table_by_name(const std::string &name, uint32_t &table) = 0;
    virtual int add(const RouteKey &key, const Route &route) = 0;
    virtual int change(const RouteKey &key, const Route &route) = 0;
    virtual int remove(const RouteKey &key) = 0;
};

struct LocalAs {
    std::string name;
    uint32_t as = 0;
    uint32_t table = 0;
    bool confederation = false;
};

struct DaemonConfig {
    std::vector<LocalAs> instances;
    LspingConfig lsping;  // paths the LSP-ping queries find
};

struct Outgoing {
    uint64_t client;
    Frame frame;
};

class RoutingDaemon {
public:
    RoutingDaemon(const DaemonConfig &cfg, KernelPort &kernel, const EmuLog &log);

    // A new connection: its connection answer, accepting or (when one was
    // scripted) refusing. `refused` tells the transport to close after it.
    Outgoing connect(uint64_t client, bool &refused);
    // The client is gone: its protocols are unregistered (their routes
    // withdrawn) and its flash registrations dropped.
    std::vector<Outgoing> disconnect(uint64_t client);
    std::vector<Outgoing> handle(uint64_t client, const Frame &frame);

    // The next `count` requests of type `type` are answered with `code`,
    // whatever they ask, and change nothing (a forced 0 included).
    void force(uint16_t type, uint32_t code, uint32_t count);
    // The next `count` connections are refused with `code`.
    void refuse(uint32_t code, uint32_t count);

    // Clients, protocols, routes per table, flash registrations, aliases and
    // counters, one object a line.
    std::string dump() const;

    size_t route_count() const { return routes_.size(); }
    uint64_t counter(const std::string &name) const;

private:
    struct Client {
        std::string identity;
    };
    struct Protocol {
        std::string name;
        uint64_t client = 0;
        uint32_t value_a = 0, value_b = 0;
        uint8_t family = 0;
        Address address{};
        uint16_t index = 0;
    };
    struct FlashKey {
        uint64_t client;
        uint32_t table;
        auto operator<=>(const FlashKey &) const = default;
    };
    struct FlashReg {
        uint32_t a = 0, c = 0, e = 0;
        uint16_t d = 0, filter_kind = 0;
    };
    class Out;

    bool forced(uint16_t type, uint32_t &code);
    void route_add(Out &out, const Frame &f);
    void route_delete(Out &out, const Frame &f);
    void route_lookup(Out &out, const Frame &f);
    void table_locate(Out &out, const Frame &f);
    void proto_register(Out &out, const Frame &f);
    void proto_unregister(Out &out, const Frame &f);
    void change_gateway(Out &out, const Frame &f);
    void local_as(Out &out, const Frame &f);
    void flash_register(Out &out, const Frame &f);
    void alias(Out &out, const Frame &f);
    void bandwidth(Out &out, const Frame &f);
    void neighbour_down(Out &out, const Frame &f);
    void identify(Out &out, const Frame &f);
    void lsping(Out &out, const Frame &f);
    // Withdraws the routes of a protocol that is going away.
    void withdraw(Out &out, uint32_t gateway);
    void flash(Out &out, const RouteKey &key, const Route &route, uint32_t kind);
    bool malformed(uint64_t client, const Frame &f, const char *why);

    const DaemonConfig &cfg_;
    KernelPort &kernel_;
    const EmuLog &log_;
    std::map<uint64_t, Client> clients_;
    std::map<uint32_t, Protocol> protocols_;  // by gateway handle
    std::map<RouteKey, Route> routes_;
    std::map<FlashKey, FlashReg> flash_;
    std::map<uint64_t, std::set<std::vector<uint8_t>>> aliases_;  // per client
    std::map<uint32_t, uint32_t> bandwidth_;                      // kbit/s per ifl
    // Scripted answers as runs of (code, how many more), so that a large
    // count from the control path costs nothing until it is used.
    struct Run {
        uint32_t code;
        uint32_t left;
    };
    std::map<uint16_t, std::deque<Run>> forced_;
    std::deque<Run> refusals_;
    std::map<std::string, uint64_t> counters_;
    uint32_t next_gateway_ = 1;
    uint32_t next_route_handle_ = 1;
};

// Parses a --config file: "local-as NAME AS TABLE [confederation]" lines,
// the LSP-ping paths of lsping.h, "#" comments. False with a reason naming the line.
bool parse_daemon_config(const std::string &text, DaemonConfig &cfg, std::string &error);

}  // namespace tarn::temu

#endif  // TARN_TARN_EMU_DAEMON_H
