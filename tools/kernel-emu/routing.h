// The kernel's routing state: route tables, routes per table and family in
// prefix order, multicast groups, and the counters behind route statistics.
// One handler per message family; requests arrive decoded, and answers and
// change notifications leave as records through an Emission.
#ifndef TARN_KERNEL_EMU_ROUTING_H
#define TARN_KERNEL_EMU_ROUTING_H

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <absl/container/btree_map.h>

#include <tarn/idl.h>

#include "emission.h"

namespace tarn::kemu {

// Error numbers the kernel puts in an answer's header (the target's values).
inline constexpr uint32_t kErrNoEntry = 2;  // ENOENT
inline constexpr uint32_t kErrNoTable = 3;  // ESRCH
inline constexpr uint32_t kErrExists = 17;  // EEXIST
inline constexpr uint32_t kErrInvalid = 22; // EINVAL

// Longest prefix the kernel keeps, in bits (IPv6).
inline constexpr uint16_t kMaxPrefixBits = 128;

// A prefix as the kernel orders them: its bytes with the bits past its
// length cleared, then its length. Byte-wise order of the zero-padded bytes
// with the length breaking ties is the usual prefix order (10/8 < 10.0/16 <
// 10.1/16); the bytes are kept as two big-endian words so that order is two
// integer comparisons.
struct PrefixKey {
    uint64_t hi = 0, lo = 0;
    uint16_t plen = 0;
    bool operator<(const PrefixKey &o) const
    {
        return hi != o.hi ? hi < o.hi : lo != o.lo ? lo < o.lo : plen < o.plen;
    }
    bool operator==(const PrefixKey &o) const
    {
        return hi == o.hi && lo == o.lo && plen == o.plen;
    }
    uint32_t significant_bytes() const { return (plen + 7u) / 8u; }
    // The prefix's 16 bytes, zero-padded.
    void bytes(uint8_t out[kMaxPrefixBits / 8]) const;
};

// Builds the key of plen bits from (at most len) prefix bytes; false when
// the prefix is longer than the kernel keeps.
bool make_prefix_key(const uint8_t *prefix, uint32_t len, uint16_t plen, PrefixKey &key);

struct TableKey {
    uint16_t tid;
    uint8_t af;
    auto operator<=>(const TableKey &) const = default;
};

// Fields ordered so that a route packs into 48 bytes on a 64-bit host: a
// full table holds over a million of them.
struct Route {
    uint8_t type = 0, nh = 0, nhflags = 0, lr_id = 0, proto = 0, lookup_flags = 0;
    uint16_t index = 0;             // what an acknowledged add reports
    uint32_t flags = 0, nhidx = 0, instance_id = 0, owner_id = 0, route_tag = 0;
    uint32_t altfwdnhidx = 0;
    uint32_t lookups = 0;           // exact gets that found it
    // The source address, length byte first; few routes have one.
    std::unique_ptr<std::vector<uint8_t>> source;
};

struct Table {
    std::string name;
    std::string lr_name;
    uint16_t flags = 0;
    uint8_t lr_byte = 0;
    uint32_t id_ext = 0, attr = 0;
    uint16_t attr_ext = 0;
    // Prefix order over slots of `slots`. A B-tree of small entries: a full
    // Internet table is over a million routes, and a node-per-route tree
    // spends its time in cache misses.
    absl::btree_map<PrefixKey, uint32_t> routes;
    std::vector<Route> slots;
    std::vector<uint32_t> free_slots;

    uint32_t store(Route &&r);
    void drop(uint32_t slot);
    // Counters answered by route statistics.
    uint32_t adds = 0, deletes = 0, gets = 0, getnexts = 0, acked_adds = 0, refused = 0;
};

struct MulticastGroup {
    uint32_t iif_index = 0;
};

class Routing {
public:
    Routing();

    // The families. Answers and notifications point into this object and
    // are encoded before the handler returns.
    void route_request(const rt_msg_t &req, Emission &out);
    void table_request(const rtb_msg_t &req, Emission &out);
    void mgroup_request(const mgr_msg_t &req, Emission &out);
    // Route statistics travel raw; a malformed request gets no answer.
    void stats_request(const uint8_t *req, uint32_t len, Emission &out);

    // Human-readable state, one object a line.
    std::string dump() const;

    size_t route_count() const;
    bool has_table(uint16_t tid, uint8_t af) const { return tables_.count(TableKey{tid, af}) != 0; }

private:
    Table *find_table(uint16_t tid, uint8_t af);
    void fill_route_answer(const PrefixKey &pk, const Route &r, rt_msg_t &answer);
    void notify_route(const rt_msg_t &req, uint8_t op, const PrefixKey &pk, const Route &r,
                      Emission &out);
    void fill_table_answer(const TableKey &tk, const Table &t, rtb_msg_t &answer);
    void notify_table(const rtb_msg_t &req, const TableKey &tk, const Table &t, Emission &out);
    std::vector<uint8_t> stats_answer(const uint8_t *req, uint32_t len);
    uint8_t *answer_prefix(std::vector<uint8_t> &store, const PrefixKey &key, uint32_t *len);

    std::map<TableKey, Table> tables_;
    std::map<std::tuple<uint16_t, uint8_t, PrefixKey>, MulticastGroup> mgroups_;
    uint16_t next_index_ = 1;

    // Storage the last answer's pointers refer to; valid until the next
    // request.
    std::vector<uint8_t> answer_prefix_, answer_source_, answer_name_, answer_lr_name_;
    idl_sockaddr_gen_t answer_sa_{};
    idl_sockaddr_gen_t *answer_sa_slot_ = nullptr;
};

}  // namespace tarn::kemu

#endif  // TARN_KERNEL_EMU_ROUTING_H
