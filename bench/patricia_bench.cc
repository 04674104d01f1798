// The patricia tree beside std::map, absl::btree_map, hash maps and a sorted
// array, on 1M random 4-byte and 16-byte keys: insert, exact lookup, in-order
// walk and getnext. The maps get the natural key type of their length
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

    static Tree &get()
    {
        static Tree t;
        return t;
    }

    Tree() : records(kKeys)
    {
        patricia_root_init(&root, 0, N, 0);
        const Data<N> &d = Data<N>::get();
        for (size_t i = 0; i < kKeys; ++i) {
            records[i].set_key(d.keys[i]);
            patricia_add(&root, &records[i].node);
        }
    }
};

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
    std::vector<Record<N>> records(kKeys);
    patricia_root root;
    for (auto _ : state) {
        state.PauseTiming();
        patricia_root_init(&root, 0, N, 0);
        for (size_t i = 0; i < kKeys; ++i) records[i].set_key(d.keys[i]);
        state.ResumeTiming();
        for (size_t i = 0; i < kKeys; ++i) patricia_add(&root, &records[i].node);
        benchmark::DoNotOptimize(root.root);
    }
    per_key(state, kKeys);
}

template <typename Map, size_t N>
void BM_MapInsert(benchmark::State &state)
{
    const Data<N> &d = Data<N>::get();
    for (auto _ : state) {
        Map m;
        for (size_t i = 0; i < kKeys; ++i) m.emplace(MapKey<N>::of(d.keys[i]), nullptr);
        benchmark::DoNotOptimize(m);
        state.PauseTiming();
        m = Map();
        state.ResumeTiming();
    }
    per_key(state, kKeys);
}

// --- exact lookup ----------------------------------------------------------------

template <size_t N>
void BM_PatriciaLookup(benchmark::State &state)
{
    const Data<N> &d = Data<N>::get();
    Tree<N> &tree = Tree<N>::get();
    for (auto _ : state)
        for (uint32_t i : d.order)
            benchmark::DoNotOptimize(patricia_get(&tree.root, N, d.keys[i].data()));
    per_key(state, kKeys);
}

template <typename Map, size_t N>
void BM_MapLookup(benchmark::State &state)
{
    const Data<N> &d = Data<N>::get();
    Map m;
    for (size_t i = 0; i < kKeys; ++i) m.emplace(MapKey<N>::of(d.keys[i]), nullptr);
    for (auto _ : state)
        for (uint32_t i : d.order) benchmark::DoNotOptimize(m.find(MapKey<N>::of(d.keys[i])));
    per_key(state, kKeys);
}

template <size_t N>
void BM_SortedArrayLookup(benchmark::State &state)
{
    const Data<N> &d = Data<N>::get();
    std::vector<typename MapKey<N>::type> sorted;
    for (const auto &k : d.keys) sorted.push_back(MapKey<N>::of(k));
    std::sort(sorted.begin(), sorted.end());
    for (auto _ : state)
        for (uint32_t i : d.order)
            benchmark::DoNotOptimize(
                std::lower_bound(sorted.begin(), sorted.end(), MapKey<N>::of(d.keys[i])));
    per_key(state, kKeys);
}

// --- in-order walk ---------------------------------------------------------------

template <size_t N>
void BM_PatriciaWalk(benchmark::State &state)
{
    Tree<N> &tree = Tree<N>::get();
    for (auto _ : state)
        for (patricia_node *n = patricia_find_next(&tree.root, nullptr); n != nullptr;
             n = patricia_find_next(&tree.root, n))
            benchmark::DoNotOptimize(n);
    per_key(state, kKeys);
}

template <typename Map, size_t N>
void BM_MapWalk(benchmark::State &state)
{
    const Data<N> &d = Data<N>::get();
    Map m;
    for (size_t i = 0; i < kKeys; ++i) m.emplace(MapKey<N>::of(d.keys[i]), nullptr);
    for (auto _ : state)
        for (const auto &kv : m) benchmark::DoNotOptimize(&kv);
    per_key(state, kKeys);
}

// --- getnext (first key greater than a random probe) -------------------------------

template <size_t N>
void BM_PatriciaGetnext(benchmark::State &state)
{
    const Data<N> &d = Data<N>::get();
    Tree<N> &tree = Tree<N>::get();
    for (auto _ : state)
        for (const auto &p : d.probes)
            benchmark::DoNotOptimize(patricia_getnext(&tree.root, N, p.data(), false));
    per_key(state, kKeys);
}

template <typename Map, size_t N>
void BM_MapGetnext(benchmark::State &state)
{
    const Data<N> &d = Data<N>::get();
    Map m;
    for (size_t i = 0; i < kKeys; ++i) m.emplace(MapKey<N>::of(d.keys[i]), nullptr);
    for (auto _ : state)
        for (const auto &p : d.probes) benchmark::DoNotOptimize(m.upper_bound(MapKey<N>::of(p)));
    per_key(state, kKeys);
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

#define TARN_BENCH_ALL(N)                                                      \
    BENCHMARK(BM_PatriciaInsert<N>)->Unit(benchmark::kMillisecond);            \
    BENCHMARK(BM_MapInsert<StdMap<N>, N>)->Unit(benchmark::kMillisecond);      \
    BENCHMARK(BM_MapInsert<Btree<N>, N>)->Unit(benchmark::kMillisecond);       \
    BENCHMARK(BM_MapInsert<FlatHash<N>, N>)->Unit(benchmark::kMillisecond);    \
    BENCHMARK(BM_PatriciaLookup<N>)->Unit(benchmark::kMillisecond);            \
    BENCHMARK(BM_MapLookup<StdMap<N>, N>)->Unit(benchmark::kMillisecond);      \
    BENCHMARK(BM_MapLookup<Btree<N>, N>)->Unit(benchmark::kMillisecond);       \
    BENCHMARK(BM_MapLookup<FlatHash<N>, N>)->Unit(benchmark::kMillisecond);    \
    BENCHMARK(BM_MapLookup<Unordered<N>, N>)->Unit(benchmark::kMillisecond);   \
    BENCHMARK(BM_SortedArrayLookup<N>)->Unit(benchmark::kMillisecond);         \
    BENCHMARK(BM_PatriciaWalk<N>)->Unit(benchmark::kMillisecond);              \
    BENCHMARK(BM_MapWalk<StdMap<N>, N>)->Unit(benchmark::kMillisecond);        \
    BENCHMARK(BM_MapWalk<Btree<N>, N>)->Unit(benchmark::kMillisecond);         \
    BENCHMARK(BM_PatriciaGetnext<N>)->Unit(benchmark::kMillisecond);           \
    BENCHMARK(BM_MapGetnext<StdMap<N>, N>)->Unit(benchmark::kMillisecond);     \
    BENCHMARK(BM_MapGetnext<Btree<N>, N>)->Unit(benchmark::kMillisecond)

TARN_BENCH_ALL(4);
TARN_BENCH_ALL(16);

}  // namespace

BENCHMARK_MAIN();
