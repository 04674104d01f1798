#include "daemon.h"

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <sstream>

#include "wire.h"

namespace tarn::temu {
namespace {

using namespace wire;

bool valid_family(uint8_t code)
{
    return code == kFamilyInet || code == kFamilyInet6;
}

uint16_t max_bits(uint8_t family)
{
    return family == kFamilyInet ? 32 : 128;
}

// No bit set past the prefix length.
bool clean_prefix(const Address &a, uint16_t plen)
{
    for (unsigned bit = plen; bit < 128; ++bit)
        if (a[bit / 8] & (0x80u >> (bit % 8))) return false;
    return true;
}

Address read_address(const uint8_t *p, size_t off)
{
    Address a{};
    std::memcpy(a.data(), p + off, a.size());
    return a;
}

// A name field: at most `n` bytes, cut at the first NUL.
std::string read_name(const uint8_t *p, size_t n)
{
    if (n == 0) return {};  // an empty payload has no storage at all
    return std::string(reinterpret_cast<const char *>(p), strnlen(reinterpret_cast<const char *>(p), n));
}

std::string address_text(uint8_t family, const Address &a)
{
    std::string s;
    char b[8];
    if (family == kFamilyInet) {
        for (int i = 0; i < 4; ++i) {
            std::snprintf(b, sizeof b, i ? ".%u" : "%u", a[static_cast<size_t>(i)]);
            s += b;
        }
        return s;
    }
    for (size_t i = 0; i < a.size(); i += 2) {
        std::snprintf(b, sizeof b, i ? ":%x" : "%x", a[i] << 8 | a[i + 1]);
        s += b;
    }
    return s;
}

// A request naming something: u32 cookie, u16 name length, u16 0, the name.
bool read_named(const Frame &f, uint32_t &cookie, std::string &name)
{
    const uint8_t *p = f.payload.data();
    if (f.payload.size() < kNamedRequestLen || get16(p, 4) > f.payload.size() - kNamedRequestLen)
        return false;
    cookie = get32(p, 0);
    name = read_name(p + kNamedRequestLen, get16(p, 4));
    return true;
}

// An update list: u32 count, then that many records of `len` bytes. The
// first record, or null when the count promises more than there is.
const uint8_t *read_list(const Frame &f, size_t len, uint32_t &count)
{
    if (f.payload.size() < 4) return nullptr;
    count = get32(f.payload.data(), 0);
    return count > (f.payload.size() - 4) / len ? nullptr : f.payload.data() + 4;
}

void put_hops(PayloadWriter &w, const std::vector<NextHop> &hops)
{
    for (const auto &h : hops)
        w.u32(h.ifl).u8(h.family).u8(0).u16(0).bytes(h.gateway.data(), h.gateway.size());
}

}  // namespace

// The frames one request produces: answers to the requester first, in the
// order made, and notifications for others.
class RoutingDaemon::Out {
public:
    explicit Out(uint64_t client) : client_(client) {}
    uint64_t client() const { return client_; }
    void reply(uint16_t type, std::vector<uint8_t> payload) { to(client_, type, std::move(payload)); }
    void to(uint64_t client, uint16_t type, std::vector<uint8_t> payload)
    {
        frames_.push_back({client, {type, std::move(payload)}});
    }
    // Frames made aside, to go after those made so far.
    void append(Out &&other)
    {
        for (auto &o : other.frames_) frames_.push_back(std::move(o));
    }
    std::vector<Outgoing> take() { return std::move(frames_); }

private:
    uint64_t client_;
    std::vector<Outgoing> frames_;
};

RoutingDaemon::RoutingDaemon(const DaemonConfig &cfg, KernelPort &kernel, const EmuLog &log)
    : cfg_(cfg), kernel_(kernel), log_(log)
{
}

uint64_t RoutingDaemon::counter(const std::string &name) const
{
    auto it = counters_.find(name);
    return it == counters_.end() ? 0 : it->second;
}

void RoutingDaemon::force(uint16_t type, uint32_t code, uint32_t count)
{
    if (count) forced_[type].push_back({code, count});
}

void RoutingDaemon::refuse(uint32_t code, uint32_t count)
{
    if (count) refusals_.push_back({code, count});
}

// The code of the first run, which shrinks by one.
template <class Runs>
static uint32_t take(Runs &runs)
{
    const uint32_t code = runs.front().code;
    if (--runs.front().left == 0) runs.pop_front();
    return code;
}

bool RoutingDaemon::forced(uint16_t type, uint32_t &code)
{
    auto it = forced_.find(type);
    if (it == forced_.end() || it->second.empty()) return false;
    code = take(it->second);
    ++counters_["forced"];
    return true;
}

bool RoutingDaemon::malformed(uint64_t client, const Frame &f, const char *why)
{
    log_.line("client %" PRIu64 ": type %u with %zu bytes: %s; ignored", client, f.type,
              f.payload.size(), why);
    ++counters_["malformed"];
    return false;
}

Outgoing RoutingDaemon::connect(uint64_t client, bool &refused)
{
    uint32_t answer = kAccepted;
    refused = !refusals_.empty();
    if (refused) {
        answer = take(refusals_);
        ++counters_["refused"];
        log_.line("client %" PRIu64 ": refused with %u", client, answer);
    } else {
        clients_[client];
        ++counters_["accepted"];
        log_.line("client %" PRIu64 ": accepted", client);
    }
    return {client, {kConnectAnswer, PayloadWriter().u32(answer).take()}};
}

std::vector<Outgoing> RoutingDaemon::disconnect(uint64_t client)
{
    Out out(client);
    std::vector<uint32_t> gone;
    for (const auto &[gw, p] : protocols_)
        if (p.client == client) gone.push_back(gw);
    for (uint32_t gw : gone) {
        withdraw(out, gw);
        protocols_.erase(gw);
    }
    std::erase_if(flash_, [client](const auto &kv) { return kv.first.client == client; });
    aliases_.erase(client);
    if (clients_.erase(client) != 0)
        log_.line("client %" PRIu64 ": gone, %zu protocols unregistered", client, gone.size());
    // Nothing goes to the client that left.
    std::vector<Outgoing> frames = out.take();
    std::erase_if(frames, [client](const Outgoing &o) { return o.client == client; });
    return frames;
}

std::vector<Outgoing> RoutingDaemon::handle(uint64_t client, const Frame &f)
{
    Out out(client);
    ++counters_["requests"];
    switch (f.type) {
    case kProtoRegister: proto_register(out, f); break;
    case kRouteAdd: route_add(out, f); break;
    case kRouteDelete: route_delete(out, f); break;
    case kRouteLookup: route_lookup(out, f); break;
    case kTableLocate: table_locate(out, f); break;
    case kProtoUnregister: proto_unregister(out, f); break;
    case kChangeGateway: change_gateway(out, f); break;
    case kLocalAs: local_as(out, f); break;
    case kFlashRegister: flash_register(out, f); break;
    case kAliasAdd:
    case kAliasDelete: alias(out, f); break;
    case kBandwidthUpdate: bandwidth(out, f); break;
    case kNeighbourDown: neighbour_down(out, f); break;
    case kIdentify: identify(out, f); break;
    case kMasterIndication:
    case kRrRestart:
    case kCleanup: {
        const char *what = f.type == kMasterIndication ? "master-indication"
                           : f.type == kRrRestart      ? "rr-restart"
                                                       : "cleanup";
        ++counters_[what];
        log_.line("client %" PRIu64 ": %s", client, what);
        break;
    }
    default:
        if (is_lsping_query(f.type)) {
            lsping(out, f);
            break;
        }
        ++counters_["unknown"];
        log_.line("client %" PRIu64 ": unknown type %u with %zu bytes ignored", client, f.type,
                  f.payload.size());
        break;
    }
    return out.take();
}

void RoutingDaemon::identify(Out &out, const Frame &f)
{
    std::string name = read_name(f.payload.data(), std::min(f.payload.size(), kIdentifyLen));
    clients_[out.client()].identity = name;
    ++counters_["identify"];
    log_.line("client %" PRIu64 ": identifies as \"%s\"", out.client(), name.c_str());
}

void RoutingDaemon::proto_register(Out &out, const Frame &f)
{
    const uint8_t *p = f.payload.data();
    const size_t len = f.payload.size();
    if (len < kProtoRegFixedLen) return (void)malformed(out.client(), f, "short");
    const uint32_t value_b = get32(p, 0), value_a = get32(p, 4), n = get32(p, 8);
    const uint16_t alen = get16(p, 12), family = get16(p, 14);
    if (n > len - kProtoRegFixedLen || alen > len - kProtoRegFixedLen - n)
        return (void)malformed(out.client(), f, "lengths beyond the payload");
    const std::string name = read_name(p + kProtoRegFixedLen, n);

    uint32_t code = kOk;
    const bool scripted = forced(f.type, code);
    if (!scripted) {
        const bool address_ok = (family == 0 && alen == 0) ||
                                (family == kFamilyInet && alen == 4) ||
                                (family == kFamilyInet6 && alen == 16);
        if (name.empty())
            code = kRegNotFound;
        else if (!address_ok)
            code = kRegBadAddress;
        else
            for (const auto &[gw, proto] : protocols_)
                if (proto.name == name) code = kRegInUse;
    }
    uint32_t gateway = 0;
    uint16_t index = 0;
    if (code == kOk && !scripted) {
        Protocol proto;
        proto.name = name;
        proto.client = out.client();
        proto.value_a = value_a;
        proto.value_b = value_b;
        proto.family = static_cast<uint8_t>(family);
        std::memcpy(proto.address.data(), p + kProtoRegFixedLen + n, alen);
        // The lowest index no live protocol holds.
        std::set<uint16_t> used;
        for (const auto &[gw, pr] : protocols_) used.insert(pr.index);
        index = 1;
        while (used.count(index)) ++index;
        proto.index = index;
        gateway = next_gateway_++;
        protocols_[gateway] = proto;
    }
    log_.line("client %" PRIu64 ": register protocol \"%s\" -> %u (gateway %u, index %u)",
              out.client(), name.c_str(), code, gateway, index);
    out.reply(kProtoRegisterReply, PayloadWriter().u32(code).u32(value_b).u32(gateway).u16(index).u16(0).take());
}

void RoutingDaemon::proto_unregister(Out &out, const Frame &f)
{
    if (f.payload.size() < 8) return (void)malformed(out.client(), f, "short");
    const uint32_t value_2 = get32(f.payload.data(), 0), gateway = get32(f.payload.data(), 4);
    uint32_t code = kOk;
    const bool scripted = forced(f.type, code);
    if (!scripted) {
        auto it = protocols_.find(gateway);
        if (it == protocols_.end())
            code = kUnregNotFound;
        else if (it->second.client != out.client())
            code = kUnregOther;
    }
    if (code == kOk && !scripted && protocols_.count(gateway)) {
        withdraw(out, gateway);
        protocols_.erase(gateway);
    }
    log_.line("client %" PRIu64 ": unregister gateway %u -> %u", out.client(), gateway, code);
    out.reply(kProtoUnregisterReply, PayloadWriter().u32(code).u32(value_2).take());
}

void RoutingDaemon::withdraw(Out &out, uint32_t gateway)
{
    for (auto it = routes_.begin(); it != routes_.end();) {
        if (it->second.gateway != gateway) {
            ++it;
            continue;
        }
        if (int err = kernel_.remove(it->first))
            log_.line("kernel refused the withdrawal of a route: %s", std::strerror(err));
        flash(out, it->first, it->second, kFlashDeleted);
        it = routes_.erase(it);
    }
}

void RoutingDaemon::flash(Out &out, const RouteKey &key, const Route &route, uint32_t kind)
{
    for (const auto &[fk, reg] : flash_) {
        if (fk.table != key.table) continue;
        PayloadWriter w;
        w.u32(kOk).u32(0).u32(key.table).u16(key.plen).u8(key.family);
        w.u8(static_cast<uint32_t>(route.hops.size()));
        w.bytes(key.prefix.data(), key.prefix.size()).u32(route.preference).u32(route.gateway);
        w.u32(kind);
        put_hops(w, route.hops);
        out.to(fk.client, kFlashNotify, w.take());
        ++counters_["flash-sent"];
    }
}

namespace {

// The fixed part shared by route add, delete and lookup.
struct RouteRequest {
    uint32_t cookie, table, gateway, preference;
    uint16_t alias_key, count;
    uint8_t alias_flag;
    RouteKey key;
    bool family_ok, too_long, clean;
};

RouteRequest read_route(const uint8_t *p)
{
    RouteRequest r{};
    r.cookie = get32(p, 0);
    r.table = get32(p, 4);
    r.gateway = get32(p, 8);
    r.alias_key = get16(p, 12);
    r.alias_flag = p[14];
    r.key.table = r.table;
    r.key.family = p[15];
    r.key.prefix = read_address(p, 16);
    r.key.plen = get16(p, 32);
    r.count = get16(p, 34);
    r.preference = get32(p, 36);
    r.family_ok = valid_family(r.key.family);
    r.too_long = r.family_ok && r.key.plen > max_bits(r.key.family);
    r.clean = clean_prefix(r.key.prefix, r.key.plen);
    return r;
}

}  // namespace

void RoutingDaemon::route_add(Out &out, const Frame &f)
{
    const uint8_t *p = f.payload.data();
    if (f.payload.size() < kRouteFixedLen) return (void)malformed(out.client(), f, "short");
    const RouteRequest rq = read_route(p);
    const bool too_many = rq.count > kMaxNextHops;
    if (!too_many && f.payload.size() < kRouteFixedLen + kNextHopLen * rq.count)
        return (void)malformed(out.client(), f, "next hops beyond the payload");

    Route route;
    route.cookie = rq.cookie;
    route.gateway = rq.gateway;
    route.preference = rq.preference;
    for (size_t i = 0; !too_many && i < rq.count; ++i) {
        const size_t off = kRouteFixedLen + kNextHopLen * i;
        route.hops.push_back({get32(p, off), p[off + 4], read_address(p, off + 8)});
    }

    uint32_t code = kOk;
    const bool scripted = forced(f.type, code);
    if (!scripted) {
        if (too_many)
            code = kAddEcmpLimit;
        else if (!rq.family_ok || (!rq.too_long && !rq.clean))
            code = kAddBadPrefix;
        else if (rq.too_long)
            code = kAddMaskTooLong;
        else if (!kernel_.table_exists(rq.table, rq.key.family))
            code = kAddBadTable;
        else if (!protocols_.count(rq.gateway))
            code = kAddBadGateway;
        else if (route.hops.empty())
            code = kAddBadNextHop;
        for (const auto &h : route.hops) {
            if (code != kOk) break;
            if (h.ifl == 0) code = kAddBadIfl;
            else if (!valid_family(h.family)) code = kAddBadNextHop;
        }
    }
    std::vector<uint32_t> handles;
    // The requester hears its answer before the notifications, like a
    // daemon that answers and then runs its flash queue.
    Out notes(out.client());
    if (code == kOk && !scripted) {
        auto it = routes_.find(rq.key);
        const bool exists = it != routes_.end();
        const int err = exists ? kernel_.change(rq.key, route) : kernel_.add(rq.key, route);
        if (err != 0) {
            log_.line("client %" PRIu64 ": kernel refused the route: %s", out.client(),
                      std::strerror(err));
            code = kAddFailed;
        } else {
            routes_[rq.key] = route;
            for (size_t i = 0; i < route.hops.size(); ++i) handles.push_back(next_route_handle_++);
            flash(notes, rq.key, route, exists ? kFlashChanged : kFlashAdded);
        }
    }
    log_.line("client %" PRIu64 ": route add %s/%u table %u -> %u", out.client(),
              address_text(rq.key.family, rq.key.prefix).c_str(), rq.key.plen, rq.table, code);
    PayloadWriter w;
    w.u32(code).u32(rq.cookie).u32(rq.alias_key).u16(static_cast<uint32_t>(handles.size()));
    w.u8(rq.alias_flag).u8(0);
    for (uint32_t h : handles) w.u32(h);
    out.reply(kRouteAddReply, w.take());
    out.append(std::move(notes));
}

void RoutingDaemon::route_delete(Out &out, const Frame &f)
{
    if (f.payload.size() < kRouteFixedLen) return (void)malformed(out.client(), f, "short");
    const RouteRequest rq = read_route(f.payload.data());
    uint32_t code = kOk;
    auto it = routes_.find(rq.key);
    const bool scripted = forced(f.type, code);
    if (!scripted) {
        if (rq.too_long)
            code = kDelMaskTooLong;
        else if (!rq.family_ok || !kernel_.table_exists(rq.table, rq.key.family))
            code = kDelBadTable;
        else if (it == routes_.end())
            code = kDelNotFound;
        else if (it->second.cookie != rq.cookie)
            code = kDelCookieMismatch;
    }
    Out notes(out.client());
    if (code == kOk && !scripted && it != routes_.end()) {
        if (int err = kernel_.remove(rq.key))
            log_.line("client %" PRIu64 ": kernel refused the delete: %s", out.client(),
                      std::strerror(err));
        flash(notes, it->first, it->second, kFlashDeleted);
        routes_.erase(it);
    }
    log_.line("client %" PRIu64 ": route delete %s/%u table %u -> %u", out.client(),
              address_text(rq.key.family, rq.key.prefix).c_str(), rq.key.plen, rq.table, code);
    out.reply(kRouteDeleteReply,
              PayloadWriter().u32(code).u32(rq.cookie).u32(rq.alias_key).u8(rq.alias_flag).zeros(3).take());
    out.append(std::move(notes));
}

void RoutingDaemon::route_lookup(Out &out, const Frame &f)
{
    if (f.payload.size() < kRouteFixedLen) return (void)malformed(out.client(), f, "short");
    const RouteRequest rq = read_route(f.payload.data());
    uint32_t code = kOk;
    auto it = routes_.find(rq.key);
    const bool scripted = forced(f.type, code);
    if (!scripted) {
        if (!rq.family_ok || (!rq.too_long && !rq.clean))
            code = kLookupBadPrefix;
        else if (rq.too_long)
            code = kLookupMaskTooLong;
        else if (!kernel_.table_exists(rq.table, rq.key.family))
            code = kLookupBadTable;
        else if (it == routes_.end())
            code = kLookupNotFound;
    }
    static const Route kNone;
    const Route &r = code == kOk && it != routes_.end() ? it->second : kNone;
    log_.line("client %" PRIu64 ": route lookup %s/%u table %u -> %u", out.client(),
              address_text(rq.key.family, rq.key.prefix).c_str(), rq.key.plen, rq.table, code);
    PayloadWriter w;
    w.u32(code).u32(rq.cookie).u32(rq.table).u16(rq.key.plen).u8(rq.key.family);
    w.u8(static_cast<uint32_t>(r.hops.size())).bytes(rq.key.prefix.data(), rq.key.prefix.size());
    w.u32(r.preference).u32(r.gateway).u32(0);
    put_hops(w, r.hops);
    out.reply(kRouteLookupReply, w.take());
}

void RoutingDaemon::table_locate(Out &out, const Frame &f)
{
    uint32_t cookie = 0;
    std::string name;
    if (!read_named(f, cookie, name)) return (void)malformed(out.client(), f, "name beyond the payload");
    uint32_t code = kOk, table = 0;
    if (!forced(f.type, code) && !kernel_.table_by_name(name, table)) code = kTableNotFound;
    log_.line("client %" PRIu64 ": locate table \"%s\" -> %u (table %u)", out.client(), name.c_str(),
              code, table);
    out.reply(kTableLocateReply, PayloadWriter().u32(code).u32(cookie).u32(code ? 0 : table).take());
}

void RoutingDaemon::local_as(Out &out, const Frame &f)
{
    uint32_t cookie = 0;
    std::string name;
    if (!read_named(f, cookie, name)) return (void)malformed(out.client(), f, "name beyond the payload");
    uint32_t code = kLocalAsNotFound;
    LocalAs found;
    for (const auto &inst : cfg_.instances)
        if (inst.name == name) {
            found = inst;
            code = kOk;
        }
    forced(f.type, code);
    if (code != kOk) found = LocalAs{};
    log_.line("client %" PRIu64 ": local AS of \"%s\" -> %u (AS %u)", out.client(), name.c_str(),
              code, found.as);
    out.reply(kLocalAsReply, PayloadWriter()
                                 .u32(code)
                                 .u32(cookie)
                                 .u32(found.as)
                                 .u32(found.table)
                                 .u8(found.confederation ? 1 : 0)
                                 .zeros(3)
                                 .take());
}

void RoutingDaemon::change_gateway(Out &out, const Frame &f)
{
    const uint8_t *p = f.payload.data();
    if (f.payload.size() < kChangeGatewayLen) return (void)malformed(out.client(), f, "short");
    const uint32_t cookie = get32(p, 0), gateway = get32(p, 4), ifl = get32(p, 8);
    const uint8_t family = p[12];
    const Address addr = read_address(p, 16);
    uint32_t code = kOk;
    const bool scripted = forced(f.type, code);
    if (!scripted) {
        if (!protocols_.count(gateway))
            code = kGwBadHandle;
        else if (ifl == 0 || !valid_family(family))
            code = kGwBadIfl;
    }
    std::set<uint32_t> tables;
    Out notes(out.client());
    for (auto &[key, route] : routes_) {
        if (code != kOk || scripted || route.gateway != gateway) continue;
        bool changed = false;
        for (auto &h : route.hops)
            if (h.ifl == ifl) {
                h.family = family;
                h.gateway = addr;
                changed = true;
            }
        if (!changed) continue;
        if (int err = kernel_.change(key, route))
            log_.line("kernel refused a gateway change: %s", std::strerror(err));
        tables.insert(key.table);
        flash(notes, key, route, kFlashChanged);
    }
    log_.line("client %" PRIu64 ": change gateway of %u on ifl %u -> %u (%zu tables)", out.client(),
              gateway, ifl, code, tables.size());
    PayloadWriter w;
    w.u32(code).u32(cookie).u16(static_cast<uint32_t>(tables.size())).u16(0);
    for (uint32_t t : tables) w.u32(t);
    out.reply(kChangeGatewayReply, w.take());
    out.append(std::move(notes));
}

void RoutingDaemon::flash_register(Out &out, const Frame &f)
{
    const uint8_t *p = f.payload.data();
    if (f.payload.size() < kFlashRegFixedLen) return (void)malformed(out.client(), f, "short");
    FlashReg reg;
    reg.a = get32(p, 0);
    reg.c = get32(p, 4);
    const uint16_t op = get16(p, 8);
    reg.d = get16(p, 10);
    reg.e = get32(p, 12);
    reg.filter_kind = get16(p, 16);
    const uint16_t filter_len = get16(p, 18);
    if (filter_len > f.payload.size() - kFlashRegFixedLen)
        return (void)malformed(out.client(), f, "filter beyond the payload");
    const FlashKey key{out.client(), reg.c};
    uint32_t code = kOk;
    const bool scripted = forced(f.type, code);
    if (!scripted) {
        const bool filter_ok = (reg.filter_kind == 0 && filter_len == 0) ||
                               ((reg.filter_kind == 1 || reg.filter_kind == 2) &&
                                filter_len == kFlashFilterLen);
        if (op != kFlashOpRegister && op != kFlashOpDelete)
            code = kFlashBadOperation;
        else if (!filter_ok)
            code = kFlashBadFilter;
        else if (op == kFlashOpDelete && !flash_.count(key))
            code = kFlashNotFound;
        else if (op == kFlashOpRegister && !kernel_.table_exists(reg.c, kFamilyInet) &&
                 !kernel_.table_exists(reg.c, kFamilyInet6))
            code = kFlashBadTable;
    }
    if (code == kOk && !scripted) {
        if (op == kFlashOpDelete)
            flash_.erase(key);
        else
            flash_[key] = reg;
    }
    log_.line("client %" PRIu64 ": flash %s table %u -> %u", out.client(),
              op == kFlashOpDelete ? "delete" : "register", reg.c, code);
    out.reply(kFlashRegisterReply, PayloadWriter().u32(code).u32(reg.a).u32(reg.c).take());
}

void RoutingDaemon::alias(Out &out, const Frame &f)
{
    if (f.payload.size() < kAliasLen) return (void)malformed(out.client(), f, "short");
    const uint8_t *p = f.payload.data();
    const bool add = f.type == kAliasAdd;
    const std::vector<uint8_t> record(p + 4, p + kAliasLen);
    auto &mine = aliases_[out.client()];
    uint32_t code = kOk;
    const bool scripted = forced(f.type, code);
    if (!scripted && !add && !mine.count(record)) code = kAliasDelRouteFailed;
    if (code == kOk && !scripted) {
        if (add)
            mine.insert(record);
        else
            mine.erase(record);
    }
    log_.line("client %" PRIu64 ": alias %s %u -> %u", out.client(), add ? "add" : "delete",
              get32(p, 0), code);
    out.reply(add ? kAliasAddReply : kAliasDeleteReply,
              PayloadWriter().u32(code).u32(get32(p, 0)).bytes(record.data(), record.size()).take());
}

void RoutingDaemon::bandwidth(Out &out, const Frame &f)
{
    uint32_t n = 0;
    const uint8_t *p = read_list(f, kBandwidthRecordLen, n);
    if (p == nullptr) return (void)malformed(out.client(), f, "records beyond the payload");
    ++counters_["bandwidth-update"];
    for (uint32_t i = 0; i < n; ++i, p += kBandwidthRecordLen) {
        bandwidth_[get32(p, 0)] = get32(p, 4);
        log_.line("client %" PRIu64 ": bandwidth of ifl %u is %u kbit/s", out.client(), get32(p, 0),
                  get32(p, 4));
    }
}

void RoutingDaemon::neighbour_down(Out &out, const Frame &f)
{
    uint32_t n = 0;
    const uint8_t *p = read_list(f, kNeighbourRecordLen, n);
    if (p == nullptr) return (void)malformed(out.client(), f, "records beyond the payload");
    ++counters_["neighbour-down"];
    counters_["neighbours-down"] += n;
    for (uint32_t i = 0; i < n; ++i, p += kNeighbourRecordLen)
        log_.line("client %" PRIu64 ": neighbour %s on ifl %u down", out.client(),
                  address_text(p[4], read_address(p, 8)).c_str(), get32(p, 0));
}

void RoutingDaemon::lsping(Out &out, const Frame &f)
{
    uint32_t code = 0;
    const bool scripted = forced(f.type, code);
    Frame reply;
    std::string what;
    if (!lsping_answer(cfg_.lsping, f, scripted ? &code : nullptr, reply, what))
        return (void)malformed(out.client(), f, "strings beyond the payload");
    ++counters_["lsping"];
    log_.line("client %" PRIu64 ": %s", out.client(), what.c_str());
    out.reply(reply.type, std::move(reply.payload));
}

std::string RoutingDaemon::dump() const
{
    std::ostringstream s;
    for (const auto &[id, c] : clients_) s << "client " << id << " \"" << c.identity << "\"\n";
    for (const auto &[gw, p] : protocols_)
        s << "protocol \"" << p.name << "\" client " << p.client << " gateway " << gw << " index "
          << p.index << " a " << p.value_a << " b " << p.value_b << "\n";
    for (const auto &[k, r] : routes_) {
        s << "route table " << k.table << " " << address_text(k.family, k.prefix) << "/" << k.plen
          << " gateway " << r.gateway << " cookie " << r.cookie << " preference " << r.preference;
        for (const auto &h : r.hops) s << " via " << address_text(h.family, h.gateway) << "%" << h.ifl;
        s << "\n";
    }
    for (const auto &[k, r] : flash_)
        s << "flash client " << k.client << " table " << k.table << " a " << r.a << " filter "
          << r.filter_kind << "\n";
    for (const auto &[client, set] : aliases_)
        if (!set.empty()) s << "aliases client " << client << " " << set.size() << "\n";
    for (const auto &[ifl, kbps] : bandwidth_) s << "bandwidth ifl " << ifl << " " << kbps << "\n";
    for (const auto &[name, n] : counters_) s << "counter " << name << " " << n << "\n";
    return s.str();
}

bool parse_daemon_config(const std::string &text, DaemonConfig &cfg, std::string &error)
{
    std::istringstream in(text);
    std::string line;
    for (int n = 1; std::getline(in, line); ++n) {
        if (auto hash = line.find('#'); hash != std::string::npos) line.erase(hash);
        std::istringstream words(line);
        std::string verb;
        if (!(words >> verb)) continue;
        if (is_lsping_kind(verb)) {
            std::string rest, why;
            std::getline(words, rest);
            if (!parse_lsping_line(verb, rest, cfg.lsping, why)) {
                error = "line " + std::to_string(n) + ": " + why;
                return false;
            }
            continue;
        }
        LocalAs inst;
        std::string flag;
        if (verb != "local-as" || !(words >> inst.name >> inst.as >> inst.table) ||
            ((words >> flag) && flag != "confederation")) {
            error = "line " + std::to_string(n) + ": expected \"local-as NAME AS TABLE [confederation]\"";
            return false;
        }
        inst.confederation = !flag.empty();
        cfg.instances.push_back(inst);
    }
    return true;
}

}  // namespace tarn::temu
