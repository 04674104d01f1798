// Runs operation sequences decoded from bytes against two patricia trees and
// a std::map model of each, checking every answer and the trees' shape. The
// randomized tests feed it seeded random bytes, the fuzzer its input.
#ifndef TARN_TESTS_PATRICIA_CHECKER_H
#define TARN_TESTS_PATRICIA_CHECKER_H

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include <tarn/patricia.h>

#include "byte_source.h"

namespace tarn_test {

using Key = std::vector<uint8_t>;

struct PatriciaConfig {
    uint16_t key_bytes;  // every key has this length; 0: lengths vary per node
    bool key_is_ptr;
    uint8_t key_offset;
};

inline std::string describe(const PatriciaConfig &c)
{
    std::ostringstream out;
    out << "key_bytes=" << c.key_bytes << " key_is_ptr=" << c.key_is_ptr
        << " key_offset=" << unsigned{c.key_offset};
    return out.str();
}

inline std::string hex(const Key &k)
{
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (uint8_t b : k) {
        s += digits[b >> 4];
        s += digits[b & 15];
    }
    return s.empty() ? "<empty>" : s;
}

// Bit i (from the most significant bit of byte 0) of a key.
inline bool key_bit(const Key &k, size_t i)
{
    return (k[i / 8] >> (7 - i % 8)) & 1;
}

inline bool shares_bits(const Key &a, const Key &b, size_t bits)
{
    if (a.size() * 8 < bits || b.size() * 8 < bits) return false;
    for (size_t i = 0; i < bits; ++i)
        if (key_bit(a, i) != key_bit(b, i)) return false;
    return true;
}

inline bool is_prefix(const Key &a, const Key &b)
{
    return a.size() <= b.size() && std::equal(a.begin(), a.end(), b.begin());
}

// Model of patricia_compare_nodes: keys that agree over the shorter length
// are equal, otherwise byte order.
inline int model_compare(const Key &a, const Key &b)
{
    const size_t n = std::min(a.size(), b.size());
    const int c = std::memcmp(a.data(), b.data(), n);
    return c < 0 ? -1 : c > 0 ? 1 : 0;
}

// A caller record: the node, with an inline key in memory allocated to the
// exact size (so that any read past the key is caught by ASan), or a pointer
// to an exactly sized key buffer.
class Record {
public:
    Record(const PatriciaConfig &cfg, const Key &key, bool own_length) : key_(key)
    {
        const size_t area = offsetof(patricia_node, key);
        const size_t size = std::max(sizeof(patricia_node), area + cfg.key_offset + key.size());
        mem_ = static_cast<uint8_t *>(std::calloc(1, size));
        if (mem_ == nullptr) std::abort();
        node_ = reinterpret_cast<patricia_node *>(mem_);
        patricia_node_init_length(node_, own_length ? static_cast<uint16_t>(key.size()) : 0);
        if (cfg.key_is_ptr) {
            ptr_storage_.assign(cfg.key_offset + key.size(), 0xEE);
            std::copy(key.begin(), key.end(), ptr_storage_.begin() + cfg.key_offset);
            node_->key_ptr = ptr_storage_.data();
        } else {
            std::copy(key.begin(), key.end(), mem_ + area + cfg.key_offset);
        }
    }
    ~Record() { std::free(mem_); }
    Record(const Record &) = delete;
    Record &operator=(const Record &) = delete;

    patricia_node *node() const { return node_; }
    const Key &key() const { return key_; }
    int tree = -1;  // index of the tree holding it, -1 when out of both

private:
    Key key_;
    uint8_t *mem_ = nullptr;
    patricia_node *node_ = nullptr;
    std::vector<uint8_t> ptr_storage_;
};

class PatriciaChecker {
public:
    static constexpr size_t kMaxMixedKey = 12;
    static constexpr size_t kMaxRecords = 1500;

    explicit PatriciaChecker(const PatriciaConfig &cfg) : cfg_(cfg)
    {
        const uint16_t klen = cfg.key_bytes ? cfg.key_bytes : 4;
        roots_[0] = patricia_root_init(nullptr, cfg.key_is_ptr, klen, cfg.key_offset);
        if (roots_[0] == nullptr) std::abort();
        roots_[1] = patricia_root_init(&own_root_, cfg.key_is_ptr, klen, cfg.key_offset);
    }

    ~PatriciaChecker()
    {
        for (auto &r : records_)
            if (r->tree >= 0) patricia_delete(roots_[r->tree], r->node());
        // After a divergence the tree may not give all its nodes back.
        roots_[0]->root = nullptr;
        patricia_root_delete(roots_[0]);
    }

    PatriciaChecker(const PatriciaChecker &) = delete;
    PatriciaChecker &operator=(const PatriciaChecker &) = delete;

    size_t size(int t) const { return model_[t].size(); }

    // Decodes and runs one operation; "" or what went wrong.
    std::string step(ByteSource &in)
    {
        const int t = in.u8() & 1;
        switch (in.below(12)) {
        case 0:
        case 1:
        case 2: return op_add(in, t);
        case 3: return op_delete(in, t);
        case 4: return op_get(in, t);
        case 5: return op_getnext(in, t);
        case 6: return op_neighbour(in, t);
        case 7: return op_subtree_match(in, t);
        case 8: return op_subtree_next(in, t);
        case 9: return op_compare(in, t);
        case 10: return op_readd(in, t);
        default: return op_in_tree(in);
        }
    }

    // Full comparison of both trees with their models.
    std::string check_all() const
    {
        for (int t = 0; t < 2; ++t) {
            std::string err = check_order(t);
            if (err.empty()) err = check_shape(t);
            if (!err.empty()) return "tree " + std::to_string(t) + ": " + err;
        }
        return {};
    }

private:
    using Model = std::map<Key, Record *>;

    // --- inputs ------------------------------------------------------------

    size_t key_length(ByteSource &in) const
    {
        if (cfg_.key_bytes != 0) return cfg_.key_bytes;
        return 1 + in.below(kMaxMixedKey);
    }

    uint8_t key_byte(ByteSource &in) const
    {
        static const uint8_t kAlphabet[] = {0x00, 0x01, 0x7F, 0x80, 0xFE, 0xFF, 0x55};
        const uint8_t b = in.u8();
        return (b & 0x80) ? kAlphabet[b % sizeof kAlphabet] : b;
    }

    const Key *some_key(ByteSource &in, int t) const
    {
        const Model &m = model_[t];
        if (m.empty()) return nullptr;
        auto it = m.begin();
        std::advance(it, in.below(static_cast<uint32_t>(m.size())));
        return &it->first;
    }

    // Keys near the stored ones (one bit changed, cut, extended) give shared
    // prefixes and prefix relations; fresh keys come from a small alphabet.
    Key make_key(ByteSource &in, int t, size_t length) const
    {
        const Key *base = some_key(in, t);
        const uint8_t how = in.u8() % 5;
        Key k;
        if (base == nullptr || how == 0) {
            for (size_t i = 0; i < length; ++i) k.push_back(key_byte(in));
            return k;
        }
        k = *base;
        if (how == 1 || how == 2) {
            const size_t bit = in.below(static_cast<uint32_t>(k.size() * 8));
            k[bit / 8] ^= static_cast<uint8_t>(0x80 >> (bit % 8));
        }
        if (how == 3 || how == 2) k.resize(length, key_byte(in));
        return k;
    }

    Key make_search_key(ByteSource &in, int t) const
    {
        if (cfg_.key_bytes == 0 || (in.u8() & 3) == 0) {
            const size_t max = std::max<size_t>(cfg_.key_bytes, kMaxMixedKey) + 2;
            return make_key(in, t, 1 + in.below(static_cast<uint32_t>(max)));
        }
        return make_key(in, t, cfg_.key_bytes);
    }

    Record *some_record(ByteSource &in, int tree) const
    {
        if (tree >= 0) {
            const Key *k = some_key(in, tree);
            return k ? model_[tree].at(*k) : nullptr;
        }
        if (records_.empty()) return nullptr;
        return records_[in.below(static_cast<uint32_t>(records_.size()))].get();
    }

    Record *new_record(const Key &k, bool own_length)
    {
        if (records_.size() >= kMaxRecords) drop_spare_records();
        records_.push_back(std::make_unique<Record>(cfg_, k, own_length));
        by_node_[records_.back()->node()] = records_.back().get();
        return records_.back().get();
    }

    void drop_spare_records()
    {
        std::erase_if(records_, [this](const std::unique_ptr<Record> &r) {
            if (r->tree >= 0) return false;
            by_node_.erase(r->node());
            return true;
        });
    }

    // --- model answers -----------------------------------------------------

    bool model_accepts(int t, const Key &k) const
    {
        const Model &m = model_[t];
        auto it = m.lower_bound(k);
        if (it != m.end() && is_prefix(k, it->first)) return false;
        if (it == m.begin()) return true;
        return !is_prefix(std::prev(it)->first, k);
    }

    const patricia_node *model_node(Model::const_iterator it, int t) const
    {
        return it == model_[t].end() ? nullptr : it->second->node();
    }

    const patricia_node *model_subtree_match(int t, const Key &prefix, size_t plen) const
    {
        for (const auto &[k, r] : model_[t])
            if (shares_bits(k, prefix, plen)) return r->node();
        return nullptr;
    }

    std::string name(const patricia_node *n) const
    {
        if (n == nullptr) return "NULL";
        auto it = by_node_.find(n);
        return it == by_node_.end() ? "<unknown node>" : hex(it->second->key());
    }

    std::string expect_node(const char *what, const patricia_node *got,
                            const patricia_node *want) const
    {
        if (got == want) return {};
        return std::string(what) + ": got " + name(got) + ", want " + name(want);
    }

    // --- operations --------------------------------------------------------

    std::string op_add(ByteSource &in, int t)
    {
        const Key k = make_key(in, t, key_length(in));
        const bool own_length = cfg_.key_bytes == 0 || (in.u8() & 1);
        Record *r = new_record(k, own_length);
        const bool want = model_accepts(t, k);
        const bool got = patricia_add(roots_[t], r->node());
        if (got != want)
            return "add " + hex(k) + ": got " + std::to_string(got) + ", want " +
                   std::to_string(want);
        if (!got) return patricia_node_in_tree(r->node()) ? "refused node left linked" : "";
        r->tree = t;
        model_[t][k] = r;
        return {};
    }

    std::string op_readd(ByteSource &in, int t)
    {
        Record *r = some_record(in, -1);
        if (r == nullptr || r->tree >= 0) return {};
        const bool want = model_accepts(t, r->key());
        if (patricia_add(roots_[t], r->node()) != want) return "re-add " + hex(r->key());
        if (want) {
            r->tree = t;
            model_[t][r->key()] = r;
        }
        return {};
    }

    std::string op_delete(ByteSource &in, int t)
    {
        // A node of the other tree is not found in this one.
        const int from = (in.u8() % 4 == 0) ? 1 - t : t;
        Record *r = some_record(in, from);
        if (r == nullptr) return {};
        const bool want = from == t;
        if (patricia_delete(roots_[t], r->node()) != want)
            return "delete " + hex(r->key()) + " from tree " + std::to_string(t);
        if (!want) return {};
        if (patricia_node_in_tree(r->node())) return "deleted node still linked";
        model_[t].erase(r->key());
        r->tree = -1;
        return {};
    }

    std::string op_get(ByteSource &in, int t)
    {
        const Key k = make_search_key(in, t);
        auto it = model_[t].find(k);
        const patricia_node *want = it == model_[t].end() ? nullptr : it->second->node();
        const auto klen = static_cast<uint16_t>(k.size());
        std::string err = expect_node("get", patricia_get(roots_[t], klen, k.data()), want);
        if (err.empty())
            err = expect_node("cons_get", patricia_cons_get(roots_[t], klen, k.data()), want);
        return err.empty() ? err : err + " for " + hex(k);
    }

    std::string op_getnext(ByteSource &in, int t)
    {
        const Key k = make_search_key(in, t);
        const bool eq = in.u8() & 1;
        const Model &m = model_[t];
        const patricia_node *want = model_node(eq ? m.lower_bound(k) : m.upper_bound(k), t);
        const patricia_node *got =
            patricia_getnext(roots_[t], static_cast<uint16_t>(k.size()), k.data(), eq);
        const std::string err = expect_node("getnext", got, want);
        return err.empty() ? err : err + " for " + hex(k) + (eq ? " eq" : " gt");
    }

    std::string op_neighbour(ByteSource &in, int t)
    {
        const Model &m = model_[t];
        const bool next = in.u8() & 1;
        Record *r = (in.u8() & 3) == 0 ? nullptr : some_record(in, t);
        const patricia_node *want = nullptr;
        if (r == nullptr && !m.empty()) want = next ? m.begin()->second->node() : m.rbegin()->second->node();
        if (r != nullptr) {
            auto it = m.find(r->key());
            if (next) want = model_node(std::next(it), t);
            else if (it != m.begin()) want = std::prev(it)->second->node();
        }
        patricia_node *node = r ? r->node() : nullptr;
        const patricia_node *got =
            next ? patricia_find_next(roots_[t], node) : patricia_find_prev(roots_[t], node);
        const patricia_node *cons = next ? patricia_cons_find_next(roots_[t], node)
                                         : patricia_cons_find_prev(roots_[t], node);
        std::string err = expect_node(next ? "find_next" : "find_prev", got, want);
        if (err.empty()) err = expect_node(next ? "cons_find_next" : "cons_find_prev", cons, want);
        return err.empty() ? err : err + " from " + name(node);
    }

    std::string op_subtree_match(ByteSource &in, int t)
    {
        Key prefix = make_search_key(in, t);
        const auto plen = static_cast<uint16_t>(1 + in.below(static_cast<uint32_t>(prefix.size() * 8)));
        // Bits past the prefix must not matter.
        prefix.back() ^= static_cast<uint8_t>(in.u8() & 0x01);
        const patricia_node *want = model_subtree_match(t, prefix, plen);
        std::string err = expect_node("subtree_match",
                                      patricia_subtree_match(roots_[t], plen, prefix.data()), want);
        if (err.empty())
            err = expect_node("cons_subtree_match",
                              patricia_cons_subtree_match(roots_[t], plen, prefix.data()), want);
        return err.empty() ? err : err + " for " + hex(prefix) + "/" + std::to_string(plen);
    }

    std::string op_subtree_next(ByteSource &in, int t)
    {
        Record *r = some_record(in, t);
        if (r == nullptr) return {};
        const auto plen = static_cast<uint16_t>(1 + in.below(static_cast<uint32_t>(r->key().size() * 8)));
        auto it = std::next(model_[t].find(r->key()));
        const patricia_node *want = nullptr;
        if (it != model_[t].end() && shares_bits(it->first, r->key(), plen)) want = it->second->node();
        std::string err =
            expect_node("subtree_next", patricia_subtree_next(roots_[t], r->node(), plen), want);
        if (err.empty())
            err = expect_node("cons_subtree_next",
                              patricia_cons_subtree_next(roots_[t], r->node(), plen), want);
        return err.empty() ? err : err + " after " + hex(r->key()) + "/" + std::to_string(plen);
    }

    std::string op_compare(ByteSource &in, int t)
    {
        Record *a = some_record(in, -1);
        Record *b = some_record(in, -1);
        if (a == nullptr || b == nullptr) return {};
        const int want = model_compare(a->key(), b->key());
        const int got = patricia_compare_nodes(roots_[t], a->node(), b->node());
        if (got == want) return {};
        return "compare " + hex(a->key()) + " " + hex(b->key()) + ": got " +
               std::to_string(got) + ", want " + std::to_string(want);
    }

    std::string op_in_tree(ByteSource &in)
    {
        Record *r = some_record(in, -1);
        if (r == nullptr || patricia_node_in_tree(r->node()) == (r->tree >= 0)) return {};
        return "node_in_tree wrong for " + hex(r->key());
    }

    // --- whole-tree checks -------------------------------------------------

    std::string check_order(int t) const
    {
        const Model &m = model_[t];
        const patricia_node *n = patricia_find_next(roots_[t], nullptr);
        for (const auto &[k, r] : m) {
            if (n != r->node()) return "in-order walk: got " + name(n) + ", want " + hex(k);
            n = patricia_find_next(roots_[t], r->node());
        }
        if (n != nullptr) return "in-order walk goes on past the last key to " + name(n);
        n = patricia_find_prev(roots_[t], nullptr);
        for (auto it = m.rbegin(); it != m.rend(); ++it) {
            if (n != it->second->node()) return "reverse walk: got " + name(n);
            n = patricia_find_prev(roots_[t], it->second->node());
        }
        return n == nullptr ? "" : "reverse walk goes on past the first key";
    }

    const Key *key_of(const patricia_node *n) const
    {
        auto it = by_node_.find(n);
        return it == by_node_.end() ? nullptr : &it->second->key();
    }

    // Every node holds one key (reached by exactly one up-link, or it is the
    // top of a one-node tree), every node but one tests a bit that increases
    // downwards, the one that tests nothing links to itself, and each key
    // reached through a link has the bit of that link's node on that side.
    std::string check_shape(int t) const
    {
        const patricia_node *top = roots_[t]->root;
        const size_t n = model_[t].size();
        if (top == nullptr) return n == 0 ? "" : "empty tree, model holds keys";
        if (top->bit == PAT_NOBIT) {
            if (n != 1 || top->left != top || top->right != top) return "bad one-node tree";
            return {};
        }
        std::map<const patricia_node *, int> leaves;
        std::set<const patricia_node *> inner;
        std::vector<const patricia_node *> path;
        std::string err = walk_shape(top, PAT_NOBIT, path, inner, leaves);
        if (!err.empty()) return err;
        if (inner.size() != n - 1) return "inner node count " + std::to_string(inner.size());
        if (leaves.size() != n) return "leaf count " + std::to_string(leaves.size());
        int nobit = 0;
        for (const auto &[leaf, count] : leaves) {
            if (count != 1) return "key reached by several links: " + name(leaf);
            const Key *k = key_of(leaf);
            if (k == nullptr || model_[t].count(*k) == 0) return "leaf not in model: " + name(leaf);
            if (leaf->bit == PAT_NOBIT) {
                ++nobit;
                if (leaf->left != leaf || leaf->right != leaf) return "bit-less node links out";
            }
        }
        return nobit == 1 ? "" : "bit-less node count " + std::to_string(nobit);
    }

    std::string walk_shape(const patricia_node *node, uint16_t prev,
                           std::vector<const patricia_node *> &path,
                           std::set<const patricia_node *> &inner,
                           std::map<const patricia_node *, int> &leaves) const
    {
        if (node->bit <= prev) return "walk entered an up-link";
        if (!inner.insert(node).second) return "inner position twice: " + name(node);
        path.push_back(node);
        const size_t bit = (node->bit >> 8) * 8u +
                           static_cast<size_t>(std::countl_zero(static_cast<uint8_t>(~node->bit)));
        for (int side = 0; side < 2; ++side) {
            const patricia_node *child = side ? node->right : node->left;
            if (child == nullptr) return "NULL link in tree at " + name(node);
            if (child->bit > node->bit) {
                std::string err = walk_shape(child, node->bit, path, inner, leaves);
                if (!err.empty()) return err;
                continue;
            }
            const bool up = child->bit == PAT_NOBIT ||
                            std::find(path.begin(), path.end(), child) != path.end();
            if (!up) return "link to a node off the path: " + name(child);
            ++leaves[child];
            const Key *k = key_of(child);
            if (k == nullptr) return "link to an unknown node";
            const bool set = bit < k->size() * 8 && key_bit(*k, bit);
            if (set != (side == 1)) return "key " + hex(*k) + " on the wrong side of " + name(node);
        }
        path.pop_back();
        return {};
    }

    PatriciaConfig cfg_;
    patricia_root own_root_{};
    patricia_root *roots_[2] = {nullptr, nullptr};
    Model model_[2];
    std::vector<std::unique_ptr<Record>> records_;
    std::unordered_map<const patricia_node *, Record *> by_node_;
};

}  // namespace tarn_test

#endif  // TARN_TESTS_PATRICIA_CHECKER_H
