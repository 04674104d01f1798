// The patricia tree beside std::map, absl::btree_map, hash maps and a sorted
// array, on 1M (mostly out of cache) and 16K (in cache) random 4-byte and
// 16-byte keys: insert, exact lookup, in-order walk and getnext. The maps get the natural key type of their length
// (uint32_t, absl::uint128 in big-endian order, so that the orders agree).
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <unordered_map>
#include <vector>

#include <absl/container/btree_map.h>
#include <absl/container/flat_hash_map.h>
#include <absl/hash/hash.h>
#include <absl/numeric/int128.h>
#include <benchmark/benchmark.h>

#include <tarn/patricia.h>

namespace {

constexpr size_t kKeys = 1 << 20;

template <size_t N>
using Bytes = std::array<uint8_t, N>;

template <size_t N>
struct MapKey;

template <>
struct MapKey<4> {
    using type = uint32_t;
    static type of(const Bytes<4> &b)
    {
        return uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3];
    }
};

template <>
struct MapKey<16> {
    using type = absl::uint128;
    static type of(const Bytes<16> &b)
    {
        uint64_t hi = 0, lo = 0;
        for (int i = 0; i < 8; ++i) hi = hi << 8 | b[i];
        for (int i = 8; i < 16; ++i) lo = lo << 8 | b[i];
        return absl::MakeUint128(hi, lo);
    }
};

// A caller record with its key inline right behind the node.
template <size_t N>
struct Record {
    patricia_node node;
    uint8_t tail[N > sizeof(void *) ? N - sizeof(void *) : 1];

    void set_key(const Bytes<N> &k)
    {
        patricia_node_init_length(&node, 0);
        std::memcpy(reinterpret_cast<uint8_t *>(this) + offsetof(patricia_node, key), k.data(), N);
    }
};

// Keys, records and a random order of them, made once per key length.
template <size_t N>
struct Data {
    std::vector<Bytes<N>> keys;     // distinct, random
    std::vector<Bytes<N>> probes;   // random, mostly absent
    std::vector<uint32_t> order;    // a random permutation of the keys

    Data()
    {
        std::mt19937_64 rng(42);
        std::map<typename MapKey<N>::type, bool> seen;
        while (keys.size() < kKeys) {
            Bytes<N> k;
            for (auto &b : k) b = static_cast<uint8_t>(rng());
            if (seen.emplace(MapKey<N>::of(k), true).second) keys.push_back(k);
        }
        for (size_t i = 0; i < kKeys; ++i) {
            Bytes<N> k;
            for (auto &b : k) b = static_cast<uint8_t>(rng());
            probes.push_back(k);
            order.push_back(static_cast<uint32_t>(i));
        }
        std::shuffle(order.begin(), order.end(), rng);
    }

    static const Data &get()
    {
        static const Data d;
        return d;
    }
};

template <size_t N>
struct Tree {
    patricia_root root;
    std::vector<Record<N>> records;

    explicit Tree(size_t n) : records(n)
    {
        patricia_root_init(&root, 0, N, 0);
        const Data<N> &d = Data<N>::get();
        for (size_t i = 0; i < n; ++i) {
            records[i].set_key(d.keys[i]);
            patricia_add(&root, &records[i].node);
        }
    }
};

template <typename Map, size_t N>
Map make_map(size_t n)
{
    const Data<N> &d = Data<N>::get();
    Map m;
    for (size_t i = 0; i < n; ++i) m.emplace(MapKey<N>::of(d.keys[i]), nullptr);
    return m;
}

// The first n keys in a random order.
template <size_t N>
std::vector<uint32_t> lookup_order(size_t n)
{
    std::vector<uint32_t> v;
    for (uint32_t i : Data<N>::get().order)
        if (i < n) v.push_back(i);
    return v;
}

size_t keys_of(const benchmark::State &state)
{
    return static_cast<size_t>(state.range(0));
}

// Reports the time per key ("per_op", in seconds) beside the time per pass.
void per_key(benchmark::State &state, size_t ops)
{
    state.counters["per_op"] = benchmark::Counter(
        static_cast<double>(ops) * static_cast<double>(state.iterations()),
        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// --- insert --------------------------------------------------------------------

template <size_t N>
void BM_PatriciaInsert(benchmark::State &state)
{
    const Data<N> &d = Data<N>::get();
    const size_t n = keys_of(state);
    std::vector<Record<N>> records(n);
    patricia_root root;
    for (auto _ : state) {
        state.PauseTiming();
        patricia_root_init(&root, 0, N, 0);
        for (size_t i = 0; i < n; ++i) records[i].set_key(d.keys[i]);
        state.ResumeTiming();
        for (size_t i = 0; i < n; ++i) patricia_add(&root, &records[i].node);
        benchmark::DoNotOptimize(root.root);
    }
    per_key(state, n);
}

template <typename Map, size_t N>
void BM_MapInsert(benchmark::State &state)
{
    const Data<N> &d = Data<N>::get();
    const size_t n = keys_of(state);
    for (auto _ : state) {
        Map m;
        for (size_t i = 0; i < n; ++i) m.emplace(MapKey<N>::of(d.keys[i]), nullptr);
        benchmark::DoNotOptimize(m);
        state.PauseTiming();
        m = Map();
        state.ResumeTiming();
    }
    per_key(state, n);
}

// --- exact lookup ----------------------------------------------------------------

template <size_t N>
void BM_PatriciaLookup(benchmark::State &state)
{
    const Data<N> &d = Data<N>::get();
    Tree<N> tree(keys_of(state));
    const std::vector<uint32_t> order = lookup_order<N>(keys_of(state));
    for (auto _ : state)
        for (uint32_t i : order)
            benchmark::DoNotOptimize(patricia_get(&tree.root, N, d.keys[i].data()));
    per_key(state, order.size());
}

template <typename Map, size_t N>
void BM_MapLookup(benchmark::State &state)
{
    const Data<N> &d = Data<N>::get();
    const Map m = make_map<Map, N>(keys_of(state));
    const std::vector<uint32_t> order = lookup_order<N>(keys_of(state));
    for (auto _ : state)
        for (uint32_t i : order) benchmark::DoNotOptimize(m.find(MapKey<N>::of(d.keys[i])));
    per_key(state, order.size());
}

template <size_t N>
void BM_SortedArrayLookup(benchmark::State &state)
{
    const Data<N> &d = Data<N>::get();
    std::vector<typename MapKey<N>::type> sorted;
    for (size_t i = 0; i < keys_of(state); ++i) sorted.push_back(MapKey<N>::of(d.keys[i]));
    std::sort(sorted.begin(), sorted.end());
    const std::vector<uint32_t> order = lookup_order<N>(keys_of(state));
    for (auto _ : state)
        for (uint32_t i : order)
            benchmark::DoNotOptimize(
                std::lower_bound(sorted.begin(), sorted.end(), MapKey<N>::of(d.keys[i])));
    per_key(state, order.size());
}

// --- in-order walk ---------------------------------------------------------------

template <size_t N>
void BM_PatriciaWalk(benchmark::State &state)
{
    Tree<N> tree(keys_of(state));
    for (auto _ : state)
        for (patricia_node *n = patricia_find_next(&tree.root, nullptr); n != nullptr;
             n = patricia_find_next(&tree.root, n))
            benchmark::DoNotOptimize(n);
    per_key(state, keys_of(state));
}

template <typename Map, size_t N>
void BM_MapWalk(benchmark::State &state)
{
    const Map m = make_map<Map, N>(keys_of(state));
    for (auto _ : state)
        for (const auto &kv : m) benchmark::DoNotOptimize(&kv);
    per_key(state, keys_of(state));
}

// --- getnext (first key greater than a random probe) -------------------------------

template <size_t N>
void BM_PatriciaGetnext(benchmark::State &state)
{
    const Data<N> &d = Data<N>::get();
    Tree<N> tree(keys_of(state));
    for (auto _ : state)
        for (size_t i = 0; i < keys_of(state); ++i)
            benchmark::DoNotOptimize(patricia_getnext(&tree.root, N, d.probes[i].data(), false));
    per_key(state, keys_of(state));
}

template <typename Map, size_t N>
void BM_MapGetnext(benchmark::State &state)
{
    const Data<N> &d = Data<N>::get();
    const Map m = make_map<Map, N>(keys_of(state));
    for (auto _ : state)
        for (size_t i = 0; i < keys_of(state); ++i)
            benchmark::DoNotOptimize(m.upper_bound(MapKey<N>::of(d.probes[i])));
    per_key(state, keys_of(state));
}

template <size_t N>
using StdMap = std::map<typename MapKey<N>::type, void *>;
template <size_t N>
using Btree = absl::btree_map<typename MapKey<N>::type, void *>;
template <size_t N>
using FlatHash = absl::flat_hash_map<typename MapKey<N>::type, void *>;
template <size_t N>
using Unordered =
    std::unordered_map<typename MapKey<N>::type, void *, absl::Hash<typename MapKey<N>::type>>;

// Each on 1M keys (mostly out of cache) and 16K keys (in cache).
#define TARN_BENCH(...) BENCHMARK(__VA_ARGS__)->Arg(kKeys)->Arg(1 << 14)->Unit(benchmark::kMicrosecond)
#define TARN_BENCH_ALL(N)                       \
    TARN_BENCH(BM_PatriciaInsert<N>);           \
    TARN_BENCH(BM_MapInsert<StdMap<N>, N>);     \
    TARN_BENCH(BM_MapInsert<Btree<N>, N>);      \
    TARN_BENCH(BM_MapInsert<FlatHash<N>, N>);   \
    TARN_BENCH(BM_PatriciaLookup<N>);           \
    TARN_BENCH(BM_MapLookup<StdMap<N>, N>);     \
    TARN_BENCH(BM_MapLookup<Btree<N>, N>);      \
    TARN_BENCH(BM_MapLookup<FlatHash<N>, N>);   \
    TARN_BENCH(BM_MapLookup<Unordered<N>, N>);  \
    TARN_BENCH(BM_SortedArrayLookup<N>);        \
    TARN_BENCH(BM_PatriciaWalk<N>);             \
    TARN_BENCH(BM_MapWalk<StdMap<N>, N>);       \
    TARN_BENCH(BM_MapWalk<Btree<N>, N>);        \
    TARN_BENCH(BM_PatriciaGetnext<N>);          \
    TARN_BENCH(BM_MapGetnext<StdMap<N>, N>);    \
    TARN_BENCH(BM_MapGetnext<Btree<N>, N>)

TARN_BENCH_ALL(4);
TARN_BENCH_ALL(16);

}  // namespace

BENCHMARK_MAIN();
