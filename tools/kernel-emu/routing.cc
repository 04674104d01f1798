#include "routing.h"

#include <cstdio>
#include <cstring>

#include <tarn/rtslib_route.h>

#include "wire_bytes.h"

namespace tarn::kemu {
namespace {

constexpr uint16_t kTableByName = 0xffff;
constexpr uint32_t kStatsBitsOff = 34;
constexpr uint32_t kStatsFoundOff = 40;
constexpr uint32_t kStatsAfOff = 23;
constexpr uint32_t kStatsTidOff = 26;

std::string hex(const PrefixKey &key)
{
    std::string out;
    char b[3];
    uint8_t bytes[kMaxPrefixBits / 8];
    key.bytes(bytes);
    for (uint32_t i = 0; i < key.significant_bytes(); ++i) {
        std::snprintf(b, sizeof b, "%02x", bytes[i]);
        out += b;
    }
    return out.empty() ? "-" : out;
}

// A name field as sent: bytes up to the terminator, which the length counts.
std::string name_of(const uint8_t *p, uint32_t len)
{
    if (p == nullptr) return {};
    return std::string(reinterpret_cast<const char *>(p), strnlen(reinterpret_cast<const char *>(p), len));
}

void answer_header(const rts_hdr_t &req, rts_hdr_t &ans, uint32_t error = 0)
{
    ans = req;
    ans.info = nullptr;
    ans.info_count = 0;
    ans.error = error;
}

// Only the gets are answered (adds with acknowledgement aside).
bool is_answered(uint8_t op)
{
    return op == RTS_OP_GET || op == RTS_OP_GETNEXT;
}

// Presence maps of what the kernel sends in TLV: every field it fills.
constexpr uint32_t kHdrBits = (1u << RTS_HDR_BIT_INFO) - 1;

struct RouteMap {
    rt_msg_map_t map{};
    idl_sockaddr_gen_map_t source{0x3ff};
    RouteMap()
    {
        map.bits = ((1u << RT_MSG_BIT_COS) - 1) & ~(1u << RT_MSG_BIT_CHANGED);
        map.hdr.bits = kHdrBits;
        map.source = &source;
    }
    RouteMap(const RouteMap &) = delete;
};

rtb_msg_map_t table_map()
{
    rtb_msg_map_t map{};
    map.bits = (1u << RTB_MSG_BIT_SEQ) - 1;
    map.hdr.bits = kHdrBits;
    return map;
}

mgr_msg_map_t mgroup_map()
{
    mgr_msg_map_t map{};
    map.bits = (1u << (MGR_MSG_BIT_IIF_INDEX + 1)) - 1;
    map.hdr.bits = kHdrBits;
    return map;
}

}  // namespace

bool make_prefix_key(const uint8_t *prefix, uint32_t len, uint16_t plen, PrefixKey &key)
{
    key = PrefixKey{};
    if (plen > kMaxPrefixBits) return false;
    key.plen = plen;
    uint8_t b[kMaxPrefixBits / 8] = {};
    const uint32_t n = std::min<uint32_t>(key.significant_bytes(), prefix != nullptr ? len : 0);
    if (n > 0) std::memcpy(b, prefix, n);
    if (plen % 8 != 0 && n == key.significant_bytes())
        b[n - 1] = static_cast<uint8_t>(b[n - 1] & (0xff00 >> (plen % 8)));
    for (int i = 0; i < 8; ++i) {
        key.hi = key.hi << 8 | b[i];
        key.lo = key.lo << 8 | b[8 + i];
    }
    return true;
}

void PrefixKey::bytes(uint8_t out[kMaxPrefixBits / 8]) const
{
    for (int i = 0; i < 8; ++i) {
        out[i] = static_cast<uint8_t>(hi >> (56 - 8 * i));
        out[8 + i] = static_cast<uint8_t>(lo >> (56 - 8 * i));
    }
}

uint32_t Table::store(Route &&r)
{
    if (!free_slots.empty()) {
        const uint32_t slot = free_slots.back();
        free_slots.pop_back();
        slots[slot] = std::move(r);
        return slot;
    }
    slots.push_back(std::move(r));
    return static_cast<uint32_t>(slots.size() - 1);
}

void Table::drop(uint32_t slot)
{
    slots[slot] = Route{};
    free_slots.push_back(slot);
}

Routing::Routing()
{
    // Every kernel has the default table of each family.
    for (uint8_t af : {uint8_t{TARN_AF_INET}, uint8_t{TARN_AF_INET6}}) {
        Table t;
        t.name = "default";
        t.lr_name = "null";
        t.flags = RTS_RTTABLE_FLAG_DEFAULT;
        tables_.emplace(TableKey{0, af}, std::move(t));
    }
}

Table *Routing::find_table(uint16_t tid, uint8_t af)
{
    auto it = tables_.find(TableKey{tid, af});
    return it == tables_.end() ? nullptr : &it->second;
}

uint8_t *Routing::answer_prefix(std::vector<uint8_t> &store, const PrefixKey &key, uint32_t *len)
{
    uint8_t bytes[kMaxPrefixBits / 8];
    key.bytes(bytes);
    store.assign(bytes, bytes + padded_prefix_len(key.plen));
    *len = static_cast<uint32_t>(store.size());
    return store.empty() ? nullptr : store.data();
}

void Routing::fill_route_answer(const PrefixKey &pk, const Route &r, rt_msg_t &answer)
{
    answer.type = r.type;
    answer.nh = r.nh;
    answer.nhflags = r.nhflags;
    answer.lr_id = r.lr_id;
    answer.proto = r.proto;
    answer.lookup_flags = r.lookup_flags;
    answer.flags = r.flags;
    answer.nhidx = r.nhidx;
    answer.instance_id = r.instance_id;
    answer.owner_id = r.owner_id;
    answer.route_tag = r.route_tag;
    answer.altfwdnhidx = r.altfwdnhidx;
    answer.ack_index = r.index;
    answer.plen = pk.plen;
    answer.prefix = answer_prefix(answer_prefix_, pk, &answer.prefix_len);
    answer.source = nullptr;
    answer.source_count = 0;
    if (r.source != nullptr && !r.source->empty()) {
        answer_source_ = *r.source;
        answer_sa_ = idl_sockaddr_gen_t{};
        answer_sa_.sa_len = answer_source_[0];
        answer_sa_.sa_family = answer_source_.size() > 1 ? answer_source_[1] : 0;
        answer_sa_.sa_addr = answer_source_.data();
        answer_sa_.sa_addr_len = static_cast<uint32_t>(answer_source_.size());
        answer_sa_slot_ = &answer_sa_;
        answer.source = &answer_sa_slot_;
        answer.source_count = 1;
    }
}

// A change as listeners see it: the route as the kernel now keeps it (or
// kept it, for a delete), under the operation that changed it.
void Routing::notify_route(const rt_msg_t &req, uint8_t op, const PrefixKey &pk, const Route &r,
                           Emission &out)
{
    // A table load into a kernel nobody listens to is the common case.
    if (!out.listened(RTS_MSG_ROUTE)) return;
    rt_msg_t note{};
    answer_header(req.hdr, note.hdr);
    note.hdr.op = op;
    note.hdr.op_flags = 0;
    note.tid = req.tid;
    note.af = req.af;
    fill_route_answer(pk, r, note);
    RouteMap map;
    out.notify(&note, &map.map);
}

void Routing::route_request(const rt_msg_t &req, Emission &out)
{
    rt_msg_t answer{};
    answer_header(req.hdr, answer.hdr);
    answer.tid = req.tid;
    answer.af = req.af;
    RouteMap map;
    const uint8_t op = req.hdr.op;
    const bool acked = op == RTS_OP_ADD_ACK;
    auto refuse = [&](uint32_t error, bool answered) {
        answer.hdr.error = error;
        if (answered) out.answer(&answer, &map.map);
    };
    PrefixKey pk;
    if (!make_prefix_key(req.prefix, req.prefix_len, req.plen, pk))
        return refuse(kErrInvalid, acked || is_answered(op));
    Table *t = find_table(req.tid, req.af);
    if (t == nullptr) return refuse(kErrNoTable, acked || is_answered(op));
    switch (op) {
    case RTS_OP_ADD:
    case RTS_OP_ADD_ACK: {
        auto [it, inserted] = t->routes.try_emplace(pk, 0);
        if (!inserted) {
            ++t->refused;
            return refuse(kErrExists, acked);
        }
        Route r;
        r.type = req.type;
        r.nh = req.nh;
        r.nhflags = req.nhflags;
        r.lr_id = req.lr_id;
        r.proto = req.proto;
        r.lookup_flags = req.lookup_flags;
        r.flags = req.flags;
        r.nhidx = req.nhidx;
        r.instance_id = req.instance_id;
        r.owner_id = req.owner_id;
        r.route_tag = req.route_tag;
        r.altfwdnhidx = req.altfwdnhidx;
        if (req.source_count > 0 && req.source != nullptr && req.source[0] != nullptr &&
            req.source[0]->sa_addr != nullptr)
            r.source = std::make_unique<std::vector<uint8_t>>(
                req.source[0]->sa_addr, req.source[0]->sa_addr + req.source[0]->sa_addr_len);
        r.index = next_index_;
        next_index_ = static_cast<uint16_t>(next_index_ == 0xffff ? 1 : next_index_ + 1);
        it->second = t->store(std::move(r));
        ++t->adds;
        const Route &added = t->slots[it->second];
        if (acked) {
            ++t->acked_adds;
            fill_route_answer(it->first, added, answer);
            out.answer(&answer, &map.map);
        }
        notify_route(req, RTS_OP_ADD, it->first, added, out);
        return;
    }
    case RTS_OP_CHANGE: {
        auto it = t->routes.find(pk);
        if (it == t->routes.end()) {
            ++t->refused;
            return;
        }
        Route &r = t->slots[it->second];
        r.nh = req.nh;
        r.nhidx = req.nhidx;
        r.flags = req.flags;
        notify_route(req, RTS_OP_CHANGE, it->first, r, out);
        return;
    }
    case RTS_OP_DELETE: {
        auto it = t->routes.find(pk);
        if (it == t->routes.end()) {
            ++t->refused;
            return;
        }
        notify_route(req, RTS_OP_DELETE, it->first, t->slots[it->second], out);
        t->drop(it->second);
        t->routes.erase(it);
        ++t->deletes;
        return;
    }
    case RTS_OP_GET: {
        ++t->gets;
        auto it = t->routes.find(pk);
        if (it == t->routes.end()) return refuse(kErrNoEntry, true);
        Route &r = t->slots[it->second];
        ++r.lookups;
        fill_route_answer(it->first, r, answer);
        out.answer(&answer, &map.map);
        return;
    }
    case RTS_OP_GETNEXT: {
        ++t->getnexts;
        // With no prefix the walk starts at the first route.
        auto it = req.plen == 0 ? t->routes.lower_bound(pk) : t->routes.upper_bound(pk);
        if (it == t->routes.end()) return refuse(kErrNoEntry, true);
        fill_route_answer(it->first, t->slots[it->second], answer);
        out.answer(&answer, &map.map);
        return;
    }
    default:
        ++t->refused;
        return;
    }
}

void Routing::fill_table_answer(const TableKey &tk, const Table &t, rtb_msg_t &answer)
{
    answer.tid = tk.tid;
    answer.af = tk.af;
    answer.table_flags = t.flags;
    answer.count = static_cast<uint32_t>(t.routes.size());
    answer.table_id_ext = t.id_ext;
    answer.table_attr = t.attr;
    answer.table_attr_ext = t.attr_ext;
    answer.lr_byte = t.lr_byte;
    answer_name_.assign(t.name.begin(), t.name.end());
    answer_name_.push_back(0);
    answer.name = answer_name_.data();
    answer.name_len = static_cast<uint32_t>(answer_name_.size());
    answer_lr_name_.assign(t.lr_name.begin(), t.lr_name.end());
    answer_lr_name_.push_back(0);
    answer.lr_name = answer_lr_name_.data();
    answer.lr_name_len = static_cast<uint32_t>(answer_lr_name_.size());
}

void Routing::notify_table(const rtb_msg_t &req, const TableKey &tk, const Table &t,
                           Emission &out)
{
    rtb_msg_t note{};
    answer_header(req.hdr, note.hdr);
    fill_table_answer(tk, t, note);
    const rtb_msg_map_t map = table_map();
    out.notify(&note, &map);
}

void Routing::table_request(const rtb_msg_t &req, Emission &out)
{
    rtb_msg_t answer{};
    answer_header(req.hdr, answer.hdr);
    answer.tid = req.tid;
    answer.af = req.af;
    const TableKey tk{req.tid, req.af};
    switch (req.hdr.op) {
    case RTS_OP_ADD: {
        Table t;
        t.name = name_of(req.name, req.name_len);
        t.lr_name = name_of(req.lr_name, req.lr_name_len);
        t.flags = req.table_flags;
        t.lr_byte = req.lr_byte;
        auto [it, inserted] = tables_.emplace(tk, std::move(t));
        if (inserted) notify_table(req, tk, it->second, out);
        return;
    }
    case RTS_OP_CHANGE:
        if (Table *t = find_table(req.tid, req.af); t != nullptr) {
            t->id_ext = req.table_id_ext;
            t->attr = req.table_attr;
            t->attr_ext = req.table_attr_ext;
            if (req.name != nullptr) t->name = name_of(req.name, req.name_len);
            notify_table(req, tk, *t, out);
        }
        return;
    case RTS_OP_DELETE:
        // The default tables stay.
        if (Table *t = find_table(req.tid, req.af); t != nullptr && req.tid != 0) {
            notify_table(req, tk, *t, out);
            tables_.erase(tk);
        }
        return;
    case RTS_OP_GET:
    case RTS_OP_GETNEXT:
        break;
    default:
        return;
    }
    auto it = tables_.end();
    if (req.hdr.op == RTS_OP_GET && req.tid == kTableByName) {
        const std::string name = name_of(req.name, req.name_len);
        for (auto t = tables_.begin(); t != tables_.end(); ++t)
            if (t->first.af == req.af && t->second.name == name) it = t;
    } else if (req.hdr.op == RTS_OP_GET) {
        it = tables_.find(tk);
    } else {
        for (it = tables_.upper_bound(tk); it != tables_.end() && it->first.af != req.af; ++it) {
        }
    }
    if (it == tables_.end())
        answer.hdr.error = kErrNoEntry;
    else
        fill_table_answer(it->first, it->second, answer);
    const rtb_msg_map_t map = table_map();
    out.answer(&answer, &map);
}

void Routing::mgroup_request(const mgr_msg_t &req, Emission &out)
{
    mgr_msg_t answer{};
    answer_header(req.hdr, answer.hdr);
    answer.af = req.af;
    answer.tid = req.tid;
    const mgr_msg_map_t map = mgroup_map();
    const uint8_t op = req.hdr.op;
    PrefixKey group;
    if (!make_prefix_key(req.group, req.group_len, req.grp_plen, group)) {
        answer.hdr.error = kErrInvalid;
        if (is_answered(op)) out.answer(&answer, &map);
        return;
    }
    const auto key = std::make_tuple(req.tid, req.af, group);
    if (op == RTS_OP_ADD || op == RTS_OP_DELETE) {
        auto it = mgroups_.find(key);
        if (op == RTS_OP_ADD) {
            mgroups_[key].iif_index = req.iif_index;
        } else if (it == mgroups_.end()) {
            return;
        }
        answer.grp_plen = group.plen;
        answer.group = answer_prefix(answer_prefix_, group, &answer.group_len);
        answer.iif_index = op == RTS_OP_ADD ? req.iif_index : it->second.iif_index;
        if (op == RTS_OP_DELETE) mgroups_.erase(it);
        out.notify(&answer, &map);
        return;
    }
    if (!is_answered(op)) return;
    auto it = op == RTS_OP_GET ? mgroups_.find(key) : mgroups_.upper_bound(key);
    if (it == mgroups_.end() || std::get<0>(it->first) != req.tid ||
        std::get<1>(it->first) != req.af) {
        answer.hdr.error = kErrNoEntry;
        out.answer(&answer, &map);
        return;
    }
    const PrefixKey &g = std::get<2>(it->first);
    answer.grp_plen = g.plen;
    answer.group = answer_prefix(answer_prefix_, g, &answer.group_len);
    answer.iif_index = it->second.iif_index;
    out.answer(&answer, &map);
}

void Routing::stats_request(const uint8_t *req, uint32_t len, Emission &out)
{
    std::vector<uint8_t> answer = stats_answer(req, len);
    if (!answer.empty()) out.answer_raw(std::move(answer));
}

std::vector<uint8_t> Routing::stats_answer(const uint8_t *req, uint32_t len)
{
    if (len < RTS_RTSTATS_FIXED_LEN || load_u16(req + RTS_HDR_FIXED_LEN_OFF) != RTS_RTSTATS_FIXED_LEN)
        return {};
    const uint16_t bits = load_u16(req + kStatsBitsOff);
    if (len != RTS_RTSTATS_FIXED_LEN + padded_prefix_len(bits)) return {};
    std::vector<uint8_t> answer(req, req + len);
    Table *t = find_table(load_u16(req + kStatsTidOff), req[kStatsAfOff]);
    if (t == nullptr) return answer;
    PrefixKey pk;
    if (!make_prefix_key(req + RTS_RTSTATS_FIXED_LEN, len - RTS_RTSTATS_FIXED_LEN, bits, pk))
        return answer;
    auto it = t->routes.find(pk);
    if (it == t->routes.end()) return answer;
    // Found: the counters follow the repeated request.
    const uint32_t counters[RTS_RTSTATS_COUNTERS] = {
        static_cast<uint32_t>(t->routes.size()), t->adds, t->deletes, t->gets, t->getnexts,
        t->acked_adds, t->refused, t->slots[it->second].lookups, t->slots[it->second].index};
    answer[kStatsFoundOff] = 1;
    answer.resize(len + sizeof counters);
    std::memcpy(answer.data() + len, counters, sizeof counters);
    store_u32(answer.data() + RTS_HDR_LEN_OFF, static_cast<uint32_t>(answer.size()));
    return answer;
}

size_t Routing::route_count() const
{
    size_t n = 0;
    for (const auto &t : tables_) n += t.second.routes.size();
    return n;
}

std::string Routing::dump() const
{
    std::string out;
    char line[512];
    for (const auto &[tk, t] : tables_) {
        std::snprintf(line, sizeof line,
                      "table %u af %u name \"%s\" lr \"%s\" flags 0x%x routes %zu adds %u deletes %u\n",
                      tk.tid, tk.af, t.name.c_str(), t.lr_name.c_str(), t.flags, t.routes.size(),
                      t.adds, t.deletes);
        out += line;
        for (const auto &[pk, slot] : t.routes) {
            const Route &r = t.slots[slot];
            std::snprintf(line, sizeof line,
                          "route %u af %u %s/%u type %u nh %u nhidx %u flags 0x%x index %u%s\n",
                          tk.tid, tk.af, hex(pk).c_str(), pk.plen, r.type, r.nh, r.nhidx,
                          r.flags, r.index, r.source == nullptr || r.source->empty() ? "" : " source");
            out += line;
        }
    }
    for (const auto &[key, g] : mgroups_) {
        std::snprintf(line, sizeof line, "mgroup %u af %u %s/%u iif %u\n", std::get<0>(key),
                      std::get<1>(key), hex(std::get<2>(key)).c_str(), std::get<2>(key).plen,
                      g.iif_index);
        out += line;
    }
    return out;
}

}  // namespace tarn::kemu
