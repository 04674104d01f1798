#include "lsping.h"

#include <arpa/inet.h>

#include <cstring>
#include <set>
#include <sstream>

#include <tarn/tarn_lsping_query.h>

#include "wire.h"

namespace tarn::temu {
namespace {

constexpr size_t kMaxLabels = 5;

// Result codes the table gives by itself, per kind.
enum : uint32_t {
    kRsvpNotFound = 1, kRsvpNoActivePath = 5, kRsvpNoStandby = 6, kRsvpNoCccRro = 7,
    kRsvpIsP2mp = 8, kRsvpNoEgress = 9, kRsvpNoFlood = 10, kRsvpNeedIfl = 11, kRsvpOk = 12,
    kRsvpPrimary = 13, kRsvpSecondary = 14, kRsvpBypass = 15,
    kLdpNotFound = 1, kLdpP2mpNotFound = 2, kLdpNoInstance = 3, kLdpOk = 4,
    kBgpNotFound = 1, kBgpNoInstance = 2, kBgpOk = 3,
    kVpnNoVpn = 1, kVpnNoPrefix = 2, kVpnNoNexthop = 3, kVpnLocal = 4, kVpnUnresolved = 5, kVpnOk = 7,
    kCktNotFound = 1, kCktDown = 2, kCktNotRemote = 3, kCktUnresolved = 6, kCktTooManyLabels = 8,
    kCktOk = 9,
    kL2NoVpn = 1, kL2NoLocal = 2, kL2NoRemote = 3, kL2NoInterface = 4, kL2Down = 5,
    kL2Unresolved = 9, kL2TooManyLabels = 11, kL2Ok = 12,
    kMonNotFound = 1, kMonDown = 2, kMonOk = 3,
    kStaticNotFound = 1, kStaticDown = 2, kStaticOk = 3,
    kEndNotFound = 1, kEndNoInstance = 2, kEndOk = 3,
    kPwOk = 0, kPwNone = 1,
    kDiagOk = 0,
};

struct Kind {
    const char *name;
    size_t keys;
};
constexpr Kind kKinds[] = {
    {"lsp", 1}, {"p2mp-lsp", 1}, {"fec", 1}, {"bgp-fec", 1}, {"p2mp-fec", 2},
    {"vpn", 2}, {"endpoint", 1}, {"l2ckt", 2}, {"l2vpn", 3}, {"fec129", 3},
    {"static-lsp", 1}, {"tdmpw", 2},
};

const char kDefaults[] = R"(
lsp to-pe2 src=10.0.0.1 dst=10.0.0.2 tunnel=1 lsp-id=1 uptime=3600 path=main standby=backup ifl=5 nh=10.1.0.2 labels=300016
lsp to-pe3 state=down
p2mp-lsp tree1 id=7 branch=10.0.0.3/5/10.1.0.2/300100 branch=10.0.0.4/6/10.1.1.2/300101,16
fec 10.0.0.2/32 ifl=5 nh=10.1.0.2 labels=299776
fec 10.0.0.2/32 instance=red ifl=6 nh=10.1.1.2 labels=299800
bgp-fec 10.0.0.9/32 ifl=5 nh=10.1.0.2 labels=299777,16
p2mp-fec 10.0.0.1 1 branch=10.0.0.3/5/10.1.0.2/300200
vpn red 192.168.1.0/24 rd=65000:1 pnh=10.0.0.2 ifl=5 nh=10.1.0.2 labels=299776,16
endpoint 10.0.0.2/32 protocol=ldp ifl=5 nh=10.1.0.2 labels=299776
l2ckt 10.0.0.2 100 encap=4 cw=1 ifl=5 nh=10.1.0.2 labels=299776,800000
l2vpn blue 1 2 rd=65000:2 pe=10.0.0.2 cw=1 ifl=5 nh=10.1.0.2 labels=299776,800001
fec129 green sai-1 tai-1 rd=65000:3 pe=10.0.0.2 ifl=5 nh=10.1.0.2 labels=299776,800002
static-lsp st1 ifl=5 nh=10.1.0.2 labels=1000
tdmpw 9 10.0.0.2 state=1
)";

const Kind *find_kind(const std::string &verb)
{
    for (const Kind &k : kKinds)
        if (verb == k.name) return &k;
    return nullptr;
}

bool ipv4(const std::string &text, uint32_t &out)
{
    in_addr a{};
    if (inet_pton(AF_INET, text.c_str(), &a) != 1) return false;
    out = ntohl(a.s_addr);
    return true;
}

uint32_t number(const std::string &text)
{
    uint32_t v = 0;
    if (ipv4(text, v)) return v;
    return static_cast<uint32_t>(std::strtoul(text.c_str(), nullptr, 0));
}

std::string attr(const LspingEntry &e, const char *name, const char *fallback = "")
{
    auto it = e.attrs.find(name);
    return it == e.attrs.end() ? fallback : it->second;
}
uint32_t num_attr(const LspingEntry &e, const char *name)
{
    return number(attr(e, name, "0"));
}
bool flag(const LspingEntry &e, const char *name, const char *value)
{
    return attr(e, name) == value;
}

std::vector<uint32_t> label_list(const std::string &text)
{
    std::vector<uint32_t> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l, ',');)
        if (!l.empty()) out.push_back(number(l));
    return out;
}

// Fields of a reply record, network order.
class Record {
public:
    Record &u32(uint32_t v) { w_.u32(v); return *this; }
    Record &u16(uint32_t v) { w_.u16(v); return *this; }
    Record &rd(const std::string &text)
    {
        // ASN:N as a type-0 distinguisher.
        const auto colon = text.find(':');
        const uint32_t asn = colon == std::string::npos ? 0 : number(text.substr(0, colon));
        const uint32_t n = colon == std::string::npos ? 0 : number(text.substr(colon + 1));
        w_.u16(0).u16(asn).u32(n);
        return *this;
    }
    Record &nexthop(uint32_t ifl, uint32_t addr)
    {
        w_.u32(ifl).u8(ifl || addr ? wire::kFamilyInet : 0).zeros(3).u32(addr).zeros(12);
        return *this;
    }
    Record &nexthop(const LspingEntry *e) { return e ? nexthop(num_attr(*e, "ifl"), num_attr(*e, "nh")) : nexthop(0, 0); }
    // More labels than a ping pushes are never sent.
    Record &labels(const std::vector<uint32_t> &l)
    {
        const size_t n = l.size() > kMaxLabels ? 0 : l.size();
        w_.u8(static_cast<uint32_t>(n)).zeros(3);
        for (size_t i = 0; i < n; ++i) w_.u32(l[i]);
        return *this;
    }
    Record &labels(const LspingEntry *e) { return labels(e ? label_list(attr(*e, "labels")) : std::vector<uint32_t>{}); }
    Record &branches(const LspingEntry *e)
    {
        std::vector<std::string> list;
        if (e)
            for (auto [it, end] = e->attrs.equal_range("branch"); it != end; ++it) list.push_back(it->second);
        w_.u16(static_cast<uint32_t>(list.size())).u16(0);
        for (const auto &b : list) {
            // DST/IFL/NEXTHOP/LABELS
            std::vector<std::string> part;
            std::istringstream in(b);
            for (std::string s; std::getline(in, s, '/');) part.push_back(s);
            part.resize(4);
            w_.u32(number(part[0]));
            nexthop(number(part[1]), number(part[2]));
            labels(label_list(part[3]));
        }
        return *this;
    }
    std::vector<uint8_t> take() { return w_.take(); }

private:
    PayloadWriter w_;
};

// A query's fields, read in order from its payload.
class Request {
public:
    explicit Request(const std::vector<uint8_t> &p) : p_(p) {}
    bool ok() const { return ok_; }
    uint32_t u32() { return take(4) ? get32(p_.data(), off_ - 4) : 0; }
    uint16_t u16() { return take(2) ? get16(p_.data(), off_ - 2) : 0; }
    uint8_t u8() { return take(1) ? p_[off_ - 1] : 0; }
    void skip(size_t n) { take(n); }
    // A string of `len` bytes with its NUL (0: absent).
    std::string str(uint16_t len)
    {
        if (len == 0 || !take(len)) return {};
        const char *s = reinterpret_cast<const char *>(p_.data() + off_ - len);
        return std::string(s, strnlen(s, len));
    }

private:
    bool take(size_t n)
    {
        if (p_.size() - off_ < n) ok_ = false;
        if (ok_) off_ += n;
        return ok_;
    }
    const std::vector<uint8_t> &p_;
    size_t off_ = 0;
    bool ok_ = true;
};

std::string ip_text(uint32_t addr)
{
    in_addr a{htonl(addr)};
    char buf[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &a, buf, sizeof buf);
    return buf;
}
std::string prefix_text(uint32_t addr, uint32_t len)
{
    return ip_text(addr) + "/" + std::to_string(len);
}

class Table {
public:
    explicit Table(const LspingConfig &cfg) : cfg_(cfg) {}
    const LspingEntry *find(const char *kind, const std::vector<std::string> &keys,
                            const std::string *instance = nullptr) const
    {
        for (const auto &e : cfg_.entries)
            if (e.kind == kind && e.keys == keys && (!instance || attr(e, "instance") == *instance))
                return &e;
        return nullptr;
    }
    // The master instance ("") and every instance a path of `kind` names.
    bool instance_known(const char *kind, const std::string &name) const
    {
        if (name.empty()) return true;
        for (const auto &e : cfg_.entries)
            if (e.kind == kind && attr(e, "instance") == name) return true;
        return false;
    }
    bool any(const char *kind, size_t key, const std::string &value) const
    {
        for (const auto &e : cfg_.entries)
            if (e.kind == kind && e.keys.size() > key && e.keys[key] == value) return true;
        return false;
    }
    const LspingConfig &cfg() const { return cfg_; }

private:
    const LspingConfig &cfg_;
};

bool down(const LspingEntry &e) { return flag(e, "state", "down"); }
bool unresolved(const LspingEntry &e) { return flag(e, "resolved", "no"); }
bool too_many_labels(const LspingEntry &e) { return label_list(attr(e, "labels")).size() > kMaxLabels; }

// Answers one query: the code and the record (null entry: zero-filled).
struct Answer {
    uint32_t code = 0;
    const LspingEntry *e = nullptr;
};

}  // namespace

bool is_lsping_kind(const std::string &verb)
{
    return find_kind(verb) != nullptr;
}

bool parse_lsping_line(const std::string &verb, const std::string &rest, LspingConfig &cfg,
                       std::string &error)
{
    const Kind *k = find_kind(verb);
    if (k == nullptr) {
        error = "unknown kind " + verb;
        return false;
    }
    LspingEntry e{verb, {}, {}};
    std::istringstream words(rest);
    std::string w;
    while (e.keys.size() < k->keys && words >> w) e.keys.push_back(w);
    if (e.keys.size() < k->keys) {
        error = verb + " needs " + std::to_string(k->keys) + " key(s)";
        return false;
    }
    while (words >> w) {
        const auto eq = w.find('=');
        if (eq == std::string::npos || eq == 0) {
            error = "expected ATTR=VALUE, not " + w;
            return false;
        }
        e.attrs.emplace(w.substr(0, eq), w.substr(eq + 1));
    }
    cfg.entries.push_back(std::move(e));
    return true;
}

LspingConfig default_lsping_config()
{
    LspingConfig cfg;
    std::istringstream in(kDefaults);
    std::string error;
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string verb, rest;
        if (!(words >> verb)) continue;
        std::getline(words, rest);
        parse_lsping_line(verb, rest, cfg, error);
    }
    return cfg;
}

bool is_lsping_query(uint16_t type)
{
    switch (type) {
    case TARN_MSG_RSVP_LSP_LOOKUP: case TARN_MSG_LDP_FEC_LOOKUP: case TARN_MSG_VPN_PFX_LOOKUP:
    case TARN_MSG_ENDPT_LOOKUP: case TARN_MSG_LSPMON_LOOKUP: case TARN_MSG_L2VPN_LOOKUP:
    case TARN_MSG_L2CKT_LOOKUP: case TARN_MSG_RSVP_P2MP_LSP_LOOKUP: case TARN_MSG_TDMPW_LOOKUP:
    case TARN_MSG_LDP_P2MP_FEC_LOOKUP: case TARN_MSG_STATIC_LSP_LOOKUP: case TARN_MSG_BGP_FEC_LOOKUP:
    case TARN_MSG_MDIAGD_P2MP_REQUEST: case TARN_MSG_L2VPN_FEC129_LOOKUP:
        return true;
    default:
        return false;
    }
}

bool lsping_answer(const LspingConfig &cfg, const Frame &request, const uint32_t *forced,
                   Frame &reply, std::string &what)
{
    const Table t(cfg);
    Request rq(request.payload);
    const uint32_t cookie = rq.u32();
    Answer a;
    Record rec;
    uint16_t type = 0;
    // Each kind: read the request, decide, then build the record.
    switch (request.type) {
    case TARN_MSG_RSVP_LSP_LOOKUP:
    case TARN_MSG_RSVP_P2MP_LSP_LOOKUP: {
        const bool p2mp = request.type == TARN_MSG_RSVP_P2MP_LSP_LOOKUP;
        const uint32_t flags = rq.u32();
        const uint16_t n1 = rq.u16(), n2 = rq.u16(), n3 = rq.u16();
        rq.skip(2);
        const std::string lsp = rq.str(n1), path = rq.str(n2), ifl = rq.str(n3);
        what = (p2mp ? "rsvp-p2mp " : "rsvp ") + lsp;
        type = p2mp ? TARN_MSG_RSVP_P2MP_LSP_REPLY : TARN_MSG_RSVP_LSP_REPLY;
        const LspingEntry *e = t.find(p2mp ? "p2mp-lsp" : "lsp", {lsp});
        uint32_t kind = kRsvpPrimary;
        if (e == nullptr)
            a.code = !p2mp && t.find("p2mp-lsp", {lsp}) ? kRsvpIsP2mp : kRsvpNotFound;
        else if (p2mp && e->attrs.count("branch") == 0)
            a.code = kRsvpNoEgress;
        else if (down(*e))
            a.code = p2mp ? kRsvpNoFlood : kRsvpNoActivePath;
        else if (!p2mp && (flags & TARN_RSVP_LSP_STANDBY) && path != attr(*e, "standby"))
            a.code = kRsvpNoStandby;
        else if (!p2mp && (flags & TARN_RSVP_LSP_BYPASS) && ifl.empty())
            a.code = kRsvpNeedIfl;
        else if (!p2mp && (flags & TARN_RSVP_LSP_CCC) && !flag(*e, "ccc", "yes"))
            a.code = kRsvpNoCccRro;
        else {
            a = {kRsvpOk, e};
            kind = flags & TARN_RSVP_LSP_BYPASS    ? kRsvpBypass
                   : flags & TARN_RSVP_LSP_STANDBY ? kRsvpSecondary
                                                   : kRsvpPrimary;
        }
        if (forced) a = {*forced, nullptr};
        if (p2mp) {
            rec.u32(a.e ? num_attr(*a.e, "id") : 0).branches(a.e);
            break;
        }
        const LspingEntry *r = a.e;
        rec.u32(r ? kind : 0).u32(r ? num_attr(*r, "src") : 0).u32(r ? num_attr(*r, "dst") : 0);
        rec.u32(r ? num_attr(*r, "tunnel") : 0).u32(r ? num_attr(*r, "lsp-id") : 0);
        rec.nexthop(r).labels(r);
        break;
    }
    case TARN_MSG_LDP_FEC_LOOKUP:
    case TARN_MSG_BGP_FEC_LOOKUP: {
        const bool ldp = request.type == TARN_MSG_LDP_FEC_LOOKUP;
        const uint32_t addr = rq.u32();
        const uint16_t plen = rq.u16(), n = rq.u16();
        const std::string inst = rq.str(n);
        const char *kind = ldp ? "fec" : "bgp-fec";
        what = std::string(kind) + " " + prefix_text(addr, plen) + " instance \"" + inst + "\"";
        type = ldp ? TARN_MSG_LDP_FEC_REPLY : TARN_MSG_BGP_FEC_REPLY;
        const LspingEntry *e = t.find(kind, {prefix_text(addr, plen)}, &inst);
        if (!t.instance_known(kind, inst))
            a.code = ldp ? kLdpNoInstance : kBgpNoInstance;
        else if (e == nullptr)
            a.code = ldp ? kLdpNotFound : kBgpNotFound;
        else
            a = {ldp ? kLdpOk : kBgpOk, e};
        if (forced) a = {*forced, nullptr};
        const LspingEntry *r = a.e;
        if (!ldp) {
            rec.u32(r ? addr : 0).u32(r ? plen : 0).nexthop(r).labels(r);
            break;
        }
        // The LDP record: address, prefix length, next-hop interface and
        // IPv4 address, 4 reserved bytes, label flags, family, label count.
        std::vector<uint32_t> labels = r ? label_list(attr(*r, "labels")) : std::vector<uint32_t>{};
        if (labels.size() > kMaxLabels) labels.clear();
        rec.u32(r ? addr : 0).u32(r ? plen : 0).u32(r ? num_attr(*r, "ifl") : 0);
        rec.u32(r ? num_attr(*r, "nh") : 0).u32(0).u32(r ? num_attr(*r, "flags") : 0);
        rec.u16((r ? wire::kFamilyInet : 0) << 8 | static_cast<uint32_t>(labels.size())).u16(0);
        for (uint32_t l : labels) rec.u32(l);
        break;
    }
    case TARN_MSG_LDP_P2MP_FEC_LOOKUP: {
        const uint32_t root = rq.u32(), id = rq.u32();
        const uint16_t n = rq.u16();
        rq.skip(2);
        const std::string inst = rq.str(n);
        const std::vector<std::string> keys{ip_text(root), std::to_string(id)};
        what = "ldp-p2mp " + keys[0] + " " + keys[1];
        type = TARN_MSG_LDP_P2MP_FEC_REPLY;
        const LspingEntry *e = t.find("p2mp-fec", keys, &inst);
        if (!t.instance_known("p2mp-fec", inst))
            a.code = kLdpNoInstance;
        else if (e == nullptr)
            a.code = kLdpP2mpNotFound;
        else
            a = {kLdpOk, e};
        if (forced) a = {*forced, nullptr};
        rec.u32(a.e ? id : 0).branches(a.e);
        break;
    }
    case TARN_MSG_VPN_PFX_LOOKUP:
    case TARN_MSG_ENDPT_LOOKUP: {
        const bool vpn = request.type == TARN_MSG_VPN_PFX_LOOKUP;
        const uint8_t family = rq.u8(), plen = rq.u8();
        const uint16_t n = rq.u16();
        const uint32_t addr = rq.u32();
        rq.skip(12);
        const std::string name = rq.str(n);
        // Only IPv4 paths are configured: another family finds nothing.
        const std::string pfx = family == wire::kFamilyInet ? prefix_text(addr, plen) : "";
        what = std::string(vpn ? "vpn " : "endpoint ") + name + " " + pfx;
        type = vpn ? TARN_MSG_VPN_PFX_REPLY : TARN_MSG_ENDPT_REPLY;
        if (vpn) {
            const LspingEntry *e = t.find("vpn", {name, pfx});
            if (!t.any("vpn", 0, name))
                a.code = kVpnNoVpn;
            else if (e == nullptr)
                a.code = kVpnNoPrefix;
            else if (flag(*e, "local", "yes"))
                a.code = kVpnLocal;
            else if (unresolved(*e))
                a.code = kVpnUnresolved;
            else if (num_attr(*e, "ifl") == 0)
                a.code = kVpnNoNexthop;
            else
                a = {kVpnOk, e};
        } else {
            const LspingEntry *e = t.find("endpoint", {pfx}, &name);
            if (!t.instance_known("endpoint", name))
                a.code = kEndNoInstance;
            else if (e == nullptr)
                a.code = kEndNotFound;
            else
                a = {kEndOk, e};
        }
        if (forced) a = {*forced, nullptr};
        const LspingEntry *r = a.e;
        if (vpn) {
            rec.rd(r ? attr(*r, "rd") : "").u32(r ? num_attr(*r, "pnh") : 0);
        } else {
            const std::string proto = r ? attr(*r, "protocol", "ldp") : "";
            rec.u32(proto == "rsvp" ? 1 : proto == "ldp" ? 2 : proto == "bgp" ? 3 : 0);
        }
        rec.nexthop(r).labels(r);
        break;
    }
    case TARN_MSG_LSPMON_LOOKUP:
    case TARN_MSG_STATIC_LSP_LOOKUP: {
        const bool mon = request.type == TARN_MSG_LSPMON_LOOKUP;
        const uint16_t n = rq.u16();
        rq.skip(2);
        const std::string name = rq.str(n);
        what = std::string(mon ? "lspmon " : "static-lsp ") + name;
        type = mon ? TARN_MSG_LSPMON_REPLY : TARN_MSG_STATIC_LSP_REPLY;
        const LspingEntry *e = t.find(mon ? "lsp" : "static-lsp", {name});
        if (e == nullptr)
            a.code = mon ? kMonNotFound : kStaticNotFound;
        else if (down(*e))
            a = {mon ? kMonDown : kStaticDown, e};
        else
            a = {mon ? kMonOk : kStaticOk, e};
        if (forced) a = {*forced, nullptr};
        const LspingEntry *r = a.e;
        const uint32_t state = r && !down(*r) ? 1 : 0;
        if (mon)
            rec.u32(state).u32(r ? num_attr(*r, "src") : 0).u32(r ? num_attr(*r, "dst") : 0)
                .u32(r ? num_attr(*r, "uptime") : 0);
        else
            rec.u32(state).nexthop(r).labels(r);
        break;
    }
    case TARN_MSG_L2CKT_LOOKUP: {
        const uint32_t nbr = rq.u32(), vc = rq.u32();
        const uint16_t n = rq.u16();
        rq.skip(2);
        const std::string ifname = rq.str(n);
        const std::vector<std::string> keys{ip_text(nbr), std::to_string(vc)};
        what = "l2ckt " + keys[0] + " " + keys[1];
        type = TARN_MSG_L2CKT_REPLY;
        const LspingEntry *e = t.find("l2ckt", keys);
        if (e == nullptr || (!ifname.empty() && attr(*e, "ifname", ifname.c_str()) != ifname))
            a.code = kCktNotFound;
        else if (down(*e))
            a.code = kCktDown;
        else if (flag(*e, "remote", "no"))
            a.code = kCktNotRemote;
        else if (unresolved(*e))
            a.code = kCktUnresolved;
        else if (too_many_labels(*e))
            a.code = kCktTooManyLabels;
        else
            a = {kCktOk, e};
        if (forced) a = {*forced, nullptr};
        const LspingEntry *r = a.e;
        rec.u32(r ? num_attr(*r, "encap") : 0).u32(r ? num_attr(*r, "cw") : 0).nexthop(r).labels(r);
        break;
    }
    case TARN_MSG_L2VPN_LOOKUP:
    case TARN_MSG_L2VPN_FEC129_LOOKUP: {
        const bool fec129 = request.type == TARN_MSG_L2VPN_FEC129_LOOKUP;
        std::vector<std::string> keys(3);
        std::string ifname;
        if (fec129) {
            const uint16_t n1 = rq.u16(), n2 = rq.u16(), n3 = rq.u16();
            rq.skip(2);
            keys = {rq.str(n1), rq.str(n2), rq.str(n3)};
        } else {
            const uint16_t local = rq.u16(), remote = rq.u16(), n1 = rq.u16(), n2 = rq.u16();
            keys = {rq.str(n1), std::to_string(local), std::to_string(remote)};
            ifname = rq.str(n2);
        }
        const char *kind = fec129 ? "fec129" : "l2vpn";
        what = std::string(kind) + " " + keys[0] + " " + keys[1] + " " + keys[2];
        type = fec129 ? TARN_MSG_L2VPN_FEC129_REPLY : TARN_MSG_L2VPN_REPLY;
        const LspingEntry *e = t.find(kind, keys);
        if (!t.any(kind, 0, keys[0]))
            a.code = kL2NoVpn;
        else if (!t.any(kind, 1, keys[1]))
            a.code = kL2NoLocal;
        else if (e == nullptr)
            a.code = kL2NoRemote;
        else if (!ifname.empty() && attr(*e, "ifname", ifname.c_str()) != ifname)
            a.code = kL2NoInterface;
        else if (down(*e))
            a.code = kL2Down;
        else if (unresolved(*e))
            a.code = kL2Unresolved;
        else if (too_many_labels(*e))
            a.code = kL2TooManyLabels;
        else
            a = {kL2Ok, e};
        if (forced) a = {*forced, nullptr};
        const LspingEntry *r = a.e;
        rec.rd(r ? attr(*r, "rd") : "").u32(r ? num_attr(*r, "pe") : 0).u32(r ? num_attr(*r, "cw") : 0);
        rec.nexthop(r).labels(r);
        break;
    }
    case TARN_MSG_TDMPW_LOOKUP: {
        what = "tdmpw";
        type = TARN_MSG_TDMPW_REPLY;
        const LspingEntry *e = nullptr;
        for (const auto &x : t.cfg().entries)
            if (x.kind == "tdmpw" && !e) e = &x;
        a = e ? Answer{kPwOk, e} : Answer{kPwNone, nullptr};
        if (forced) a = {*forced, nullptr};
        const LspingEntry *r = a.e;
        rec.u32(r ? number(r->keys[0]) : 0).u32(r ? number(r->keys[1]) : 0).u32(r ? num_attr(*r, "state") : 0);
        break;
    }
    case TARN_MSG_MDIAGD_P2MP_REQUEST: {
        what = "p2mp-diagnostic";
        type = TARN_MSG_MDIAGD_P2MP_REPLY;
        std::vector<uint32_t> ids;
        if (!forced)
            for (const auto &x : t.cfg().entries)
                if (x.kind == "p2mp-lsp") ids.push_back(num_attr(x, "id"));
        a.code = forced ? *forced : kDiagOk;
        rec.u32(static_cast<uint32_t>(ids.size()));
        for (uint32_t id : ids) rec.u32(id);
        break;
    }
    default:
        return false;
    }
    if (!rq.ok()) return false;
    what += " -> " + std::to_string(a.code);
    std::vector<uint8_t> body = rec.take();
    reply.type = type;
    reply.payload = PayloadWriter().u32(cookie).u32(a.code).bytes(body.data(), body.size()).take();
    return true;
}

}  // namespace tarn::temu
