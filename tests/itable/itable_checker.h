// Brute-force models of itable16 and itable32 built on std::map and std::set,
// and checkers that run operation sequences decoded from bytes against a
// real table and its model, comparing every answer.
#ifndef TARN_TESTS_ITABLE_CHECKER_H
#define TARN_TESTS_ITABLE_CHECKER_H

#include <cerrno>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include <tarn/itable.h>

#include "../patricia/byte_source.h"
#include "libtarn/itable/itable_internal.h"

namespace tarn_test {

using Entry = std::pair<uint32_t, uintptr_t>;

// The itable16 rules: values by index, the leaf arrays that exist (they
// are never freed before destroy), the high-water mark and the bound.
struct Model16 {
    std::map<uint32_t, uintptr_t> slots;
    std::set<uint32_t> leaves;  // index >> 6 of every leaf array made
    uint32_t mark = 0;
    uint32_t max = 0x10000;
    bool packed = false;

    void set_max(uint32_t n)
    {
        if (n >= 1 && n <= 0x10000) max = n;
    }

    void put(uint32_t i, uintptr_t v)
    {
        leaves.insert(i >> 6);
        if (v == 0)
            slots.erase(i);
        else
            slots[i] = v;
    }

    uintptr_t get(uint32_t i) const
    {
        auto it = slots.find(i);
        return it == slots.end() ? 0 : it->second;
    }

    int insert(uint32_t i, uintptr_t v)
    {
        if (v == 0) return EINVAL;
        if (i >= max) return 1;
        put(i, v);
        if (i >= mark) mark = i + 1;
        return 0;
    }

    uintptr_t replace(uint32_t i, uintptr_t v)
    {
        if (i >= mark || leaves.count(i >> 6) == 0) return 0;
        const uintptr_t old = get(i);
        put(i, v);
        return old;
    }

    void remove(uint32_t i)
    {
        slots.erase(i);
        if (i + 1 == mark) mark = slots.empty() ? 0 : slots.rbegin()->first + 1;
    }

    std::optional<Entry> getnext(const uint32_t *after) const
    {
        auto it = slots.begin();
        if (after != nullptr) {
            if (*after + 1 >= mark) return std::nullopt;
            it = slots.upper_bound(*after);
        }
        if (it == slots.end()) return std::nullopt;
        return *it;
    }

    std::optional<uint32_t> append(uintptr_t v)
    {
        if (mark >= max) return std::nullopt;
        put(mark, v);
        return mark++;
    }

    std::optional<uint32_t> first_fit(uintptr_t v)
    {
        for (uint32_t leaf : leaves) {
            const uint32_t begin = leaf << 6;
            auto it = slots.lower_bound(begin);
            for (uint32_t i = begin; i < begin + 64 && i < mark; ++i, ++it) {
                if (it != slots.end() && it->first == i) continue;
                put(i, v);
                return i;
            }
        }
        return std::nullopt;
    }

    int alloc(uintptr_t v, uint32_t &index)
    {
        if (v == 0) return EINVAL;
        std::optional<uint32_t> i = packed ? first_fit(v) : append(v);
        if (!i) i = packed ? append(v) : first_fit(v);
        if (!i) return ENOMEM;
        index = *i;
        return 0;
    }
};

// The itable32 rules: a Model16 per block, the inclusive bound, the
// mark that only an index above it raises.
struct Model32 {
    std::map<uint32_t, Model16> subs;  // by block
    uint32_t mark = 0;
    uint32_t max = 0xFFFFFFFFu;
    bool packed = false;

    Model16 *sub_for_store(uint32_t block)
    {
        auto it = subs.find(block);
        if (it != subs.end()) return &it->second;
        if (block > max >> 16) return nullptr;
        Model16 &m = subs[block];
        m.packed = packed;
        if (block == max >> 16) m.set_max((max & 0xFFFF) + 1);
        return &m;
    }

    void set_max(uint32_t n)
    {
        if (n == 0) return;
        auto it = subs.find(max >> 16);
        if (it != subs.end() && max != 0xFFFFFFFFu) it->second.set_max(0x10000);
        if (it != subs.end()) it->second.set_max((n & 0xFFFF) + 1);
        max = n;
    }

    void set_packed(bool p)
    {
        if (p == packed) return;
        packed = p;
        for (auto &[b, m] : subs) m.packed = p;
    }

    int insert(uint32_t i, uintptr_t v)
    {
        if (v == 0) return EINVAL;
        if (i > max) return 1;
        Model16 *m = sub_for_store(i >> 16);
        const int rc = m->insert(i & 0xFFFF, v);
        if (rc == 0 && i > mark) mark = i + 1;
        return rc;
    }

    uintptr_t get(uint32_t i) const
    {
        auto it = subs.find(i >> 16);
        return it == subs.end() ? 0 : it->second.get(i & 0xFFFF);
    }

    uintptr_t replace(uint32_t i, uintptr_t v)
    {
        Model16 *m = sub_for_store(i >> 16);
        return m ? m->replace(i & 0xFFFF, v) : 0;
    }

    void remove(uint32_t i)
    {
        auto it = subs.find(i >> 16);
        if (it != subs.end()) it->second.remove(i & 0xFFFF);
        if (i + 1 != mark) return;
        mark = 0;
        for (auto b = subs.upper_bound(i >> 16); b != subs.begin();) {
            --b;
            if (b->second.mark != 0) {
                mark = (b->first << 16) | (b->second.mark & 0xFFFF);
                return;
            }
            b = subs.erase(b);
        }
    }

    std::optional<Entry> getnext(const uint32_t *after) const
    {
        auto b = after ? subs.lower_bound(*after >> 16) : subs.begin();
        for (; b != subs.end(); ++b) {
            const auto &slots = b->second.slots;
            const bool same_block = after != nullptr && b->first == *after >> 16;
            auto it = same_block ? slots.upper_bound(*after & 0xFFFF) : slots.begin();
            if (it != slots.end()) return Entry{b->first << 16 | it->first, it->second};
        }
        return std::nullopt;
    }

    int alloc(uintptr_t v, uint32_t &index)
    {
        if (v == 0) return EINVAL;
        const uint32_t start = packed ? 0 : mark >> 16;
        uint32_t b = start;
        uint32_t low = 0;
        for (auto it = subs.find(b); it != subs.end(); it = subs.find(b)) {
            if (it->second.alloc(v, low) == 0) return done(b, low, index);
            b = (b + 1) & 0xFFFF;
            if (b == start) return ENOMEM;
        }
        Model16 *m = sub_for_store(b);
        if (m == nullptr || m->alloc(v, low) != 0) return ENOMEM;
        return done(b, low, index);
    }

    int done(uint32_t block, uint32_t low, uint32_t &index)
    {
        index = block << 16 | low;
        if (index > mark) mark = index + 1;
        return 0;
    }

    uint32_t count() const
    {
        uint32_t n = 0;
        for (const auto &[b, m] : subs) n += static_cast<uint32_t>(m.slots.size());
        return n;
    }
};

inline void *as_value(uintptr_t v)
{
    return reinterpret_cast<void *>(v);
}

inline uintptr_t as_word(const void *p)
{
    return reinterpret_cast<uintptr_t>(p);
}

// The operations common to both widths, decoded from bytes. Traits supply the
// table calls, the model and how indexes are drawn.
template <typename Traits>
class ItableChecker {
public:
    using Index = typename Traits::Index;
    using Table = typename Traits::Table;
    using Model = typename Traits::Model;

    ItableChecker() : table_(Traits::create()) {}
    ~ItableChecker() { Traits::destroy(table_); }
    ItableChecker(const ItableChecker &) = delete;
    ItableChecker &operator=(const ItableChecker &) = delete;

    const Model &model() const { return model_; }
    const Table *table() const { return table_; }

    std::string step(ByteSource &in)
    {
        switch (in.below(16)) {
        case 0:
        case 1:
        case 2: return op_insert(in);
        case 3:
        case 4:
        case 5: return op_remove(in);
        case 6:
        case 7:
        case 8: return op_alloc(in);
        case 9: return op_replace(in);
        case 10:
        case 11: return op_lookup(in);
        case 12: return op_getnext(in);
        case 13: return op_set_packed(in);
        case 14: return op_set_maxindex(in);
        default: return op_insert_run(in);
        }
    }

    // Every entry, in order, through getnext and lookup.
    std::string check_all() const
    {
        std::optional<Entry> want = model_.getnext(nullptr);
        Index at = 0;
        void *got = Traits::getnext(table_, nullptr, &at);
        while (want || got) {
            if (!want || !got || want->first != at || want->second != as_word(got))
                return "walk diverges at " + describe(got ? at : 0, as_word(got), want);
            if (Traits::lookup(table_, at) != got) return "lookup " + std::to_string(at);
            const uint32_t after = at;
            want = model_.getnext(&after);
            const Index from = at;
            got = Traits::getnext(table_, &from, &at);
        }
        return Traits::check_marks(table_, model_);
    }

    // Destroys the table; its count must match the model's.
    std::string finish()
    {
        const uint32_t got = Traits::destroy(table_);
        table_ = nullptr;
        const uint32_t want = Traits::count(model_);
        if (got == want) return {};
        return "destroy counted " + std::to_string(got) + ", want " + std::to_string(want);
    }

private:
    static std::string describe(uint32_t at, uintptr_t got, const std::optional<Entry> &want)
    {
        std::ostringstream out;
        out << "got " << at << "=" << got << ", want ";
        if (want)
            out << want->first << "=" << want->second;
        else
            out << "end";
        return out.str();
    }

    uintptr_t value(ByteSource &in)
    {
        if (in.u8() == 0) return 0;  // refused by insert and alloc
        return ++serial_;
    }

    std::string op_insert(ByteSource &in)
    {
        const Index i = Traits::index(in, model_);
        const uintptr_t v = value(in);
        const int want = model_.insert(i, v);
        const int got = Traits::insert(table_, as_value(v), i);
        if (got == want) return {};
        return "insert " + std::to_string(i) + ": got " + std::to_string(got) + ", want " +
               std::to_string(want);
    }

    // A dense run of inserts from one index, to fill leaves and blocks.
    std::string op_insert_run(ByteSource &in)
    {
        const Index first = Traits::index(in, model_);
        const unsigned n = in.u8() % 80;
        for (unsigned k = 0; k < n; ++k) {
            const auto i = static_cast<Index>(first + k);
            const uintptr_t v = ++serial_;
            if (Traits::insert(table_, as_value(v), i) != model_.insert(i, v))
                return "insert run at " + std::to_string(i);
        }
        return {};
    }

    std::string op_remove(ByteSource &in)
    {
        const Index i = Traits::index(in, model_);
        model_.remove(i);
        Traits::remove(table_, i);
        if (Traits::lookup(table_, i) == nullptr) return {};
        return "removed " + std::to_string(i) + " still there";
    }

    std::string op_alloc(ByteSource &in)
    {
        const uintptr_t v = value(in);
        uint32_t want_index = 0;
        const int want = model_.alloc(v, want_index);
        Index got_index = 0;
        const int got = Traits::alloc(table_, as_value(v), &got_index);
        if (got != want) return "alloc: got " + std::to_string(got) + ", want " + std::to_string(want);
        if (got == 0 && got_index != want_index)
            return "alloc index " + std::to_string(got_index) + ", want " + std::to_string(want_index);
        return {};
    }

    std::string op_replace(ByteSource &in)
    {
        const Index i = Traits::index(in, model_);
        const uintptr_t v = (in.u8() & 7) == 0 ? 0 : ++serial_;
        const uintptr_t want = model_.replace(i, v);
        const uintptr_t got = as_word(Traits::replace(table_, i, as_value(v)));
        if (got == want && as_word(Traits::lookup(table_, i)) == model_.get(i)) return {};
        return "replace " + std::to_string(i) + ": got " + std::to_string(got) + ", want " +
               std::to_string(want);
    }

    std::string op_lookup(ByteSource &in)
    {
        const Index i = Traits::index(in, model_);
        const uintptr_t got = as_word(Traits::lookup(table_, i));
        if (got == model_.get(i)) return {};
        return "lookup " + std::to_string(i) + ": got " + std::to_string(got);
    }

    std::string op_getnext(ByteSource &in)
    {
        const bool from_start = (in.u8() & 3) == 0;
        const Index i = Traits::index(in, model_);
        const uint32_t after = i;
        const std::optional<Entry> want = model_.getnext(from_start ? nullptr : &after);
        Index at = 0;
        void *got = Traits::getnext(table_, from_start ? nullptr : &i, &at);
        if (!want && got == nullptr) return {};
        if (want && got != nullptr && want->first == at && want->second == as_word(got)) return {};
        return "getnext after " + (from_start ? std::string("start") : std::to_string(i)) + ": " +
               describe(at, as_word(got), want);
    }

    std::string op_set_packed(ByteSource &in)
    {
        const int flag = in.u8() & 1;
        Traits::set_packed(table_, model_, flag);
        return {};
    }

    std::string op_set_maxindex(ByteSource &in)
    {
        Traits::set_maxindex(table_, model_, Traits::bound(in, model_));
        return {};
    }

    Table *table_;
    Model model_;
    uintptr_t serial_ = 0;
};


struct Itable16Traits {
    using Index = uint16_t;
    using Table = itable16;
    using Model = Model16;

    static itable16 *create() { return itable16_create(); }
    static uint32_t destroy(itable16 *t) { return itable16_destroy(t); }
    static uint32_t count(const Model16 &m) { return static_cast<uint32_t>(m.slots.size()); }
    static int insert(itable16 *t, void *v, uint16_t i) { return itable16_insert(t, v, &i); }
    static void *lookup(const itable16 *t, uint16_t i) { return itable16_lookup(t, &i); }
    static void *replace(itable16 *t, uint16_t i, void *v) { return itable16_replace(t, &i, v); }
    static void remove(itable16 *t, uint16_t i) { itable16_remove(t, &i); }
    static void *getnext(const itable16 *t, const uint16_t *i, uint16_t *at)
    {
        return itable16_getnext(t, i, at);
    }
    static int alloc(itable16 *t, void *v, uint16_t *at) { return itable16_alloc(t, v, at); }
    static void set_packed(itable16 *t, Model16 &m, int flag)
    {
        itable16_set_packed(t, flag);
        m.packed = flag != 0;
    }
    static void set_maxindex(itable16 *t, Model16 &m, uint32_t n)
    {
        itable16_set_maxindex(t, n);
        m.set_max(n);
    }

    // Mostly small indexes and ones around the mark and the bound, where the
    // rules change; sometimes anywhere.
    static uint16_t index(ByteSource &in, const Model16 &m)
    {
        switch (in.u8() % 5) {
        case 0: return in.u16();
        case 1: return static_cast<uint16_t>(m.mark - 3 + in.u8() % 6);
        case 2: return static_cast<uint16_t>(m.max - 2 + in.u8() % 3);
        default: return in.u8();
        }
    }

    static uint32_t bound(ByteSource &in, const Model16 &m)
    {
        switch (in.u8() % 5) {
        case 0: return in.u8() % 2 ? 0 : 0x10001;  // ignored
        case 1: return 0x10000;
        case 2: return m.mark + in.u8() % 4;
        default: return 1 + in.u8() + (in.u8() % 2) * 256;
        }
    }

    static std::string check_marks(const itable16 *t, const Model16 &m)
    {
        const uint32_t got = itable16_high_water(t);
        if (got == m.mark) return {};
        return "mark " + std::to_string(got) + ", want " + std::to_string(m.mark);
    }
};

struct Itable32Traits {
    using Index = uint32_t;
    using Table = itable32;
    using Model = Model32;

    static itable32 *create() { return itable32_create(); }
    static uint32_t destroy(itable32 *t) { return itable32_destroy(t); }
    static uint32_t count(const Model32 &m) { return m.count(); }
    static int insert(itable32 *t, void *v, uint32_t i) { return itable32_insert(t, v, &i); }
    static void *lookup(const itable32 *t, uint32_t i) { return itable32_lookup(t, &i); }
    static void *replace(itable32 *t, uint32_t i, void *v) { return itable32_replace(t, &i, v); }
    static void remove(itable32 *t, uint32_t i) { itable32_remove(t, &i); }
    static void *getnext(const itable32 *t, const uint32_t *i, uint32_t *at)
    {
        return itable32_getnext(t, i, at);
    }
    static int alloc(itable32 *t, void *v, uint32_t *at) { return itable32_alloc(t, v, at); }
    static void set_packed(itable32 *t, Model32 &m, int flag)
    {
        itable32_set_packed(t, flag);
        m.set_packed(flag != 0);
    }
    static void set_maxindex(itable32 *t, Model32 &m, uint32_t n)
    {
        itable32_set_maxindex(t, n);
        m.set_max(n);
    }

    // A few blocks (the first ones, the last, the mark's and the bound's)
    // and, inside them, the edges of the block and small indexes.
    static uint32_t index(ByteSource &in, const Model32 &m)
    {
        static const uint32_t kBlocks[] = {0, 1, 2, 3, 0xFFFF};
        uint32_t block = 0;
        switch (in.u8() % 4) {
        case 0: block = m.mark >> 16; break;
        case 1: block = m.max >> 16; break;
        default: block = kBlocks[in.u8() % 5]; break;
        }
        uint32_t low = 0;
        switch (in.u8() % 4) {
        case 0: low = 0xFFFF - in.u8() % 4; break;
        case 1: low = (m.mark & 0xFFFF) - 2 + in.u8() % 4; break;
        case 2: low = in.u16(); break;
        default: low = in.u8(); break;
        }
        return block << 16 | (low & 0xFFFF);
    }

    static uint32_t bound(ByteSource &in, const Model32 &m)
    {
        switch (in.u8() % 5) {
        case 0: return in.u8() % 2 ? 0 : 0xFFFFFFFFu;
        case 1: return m.mark + in.u8() % 4;
        case 2: return (m.max & 0xFFFF0000u) | in.u8();
        default: return index(in, m);
        }
    }

    static std::string check_marks(const itable32 *, const Model32 &) { return {}; }
};

}  // namespace tarn_test

#endif  // TARN_TESTS_ITABLE_CHECKER_H
