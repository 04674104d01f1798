// The index tables beside a plain array, hash maps and ordered maps: lookup in
// a full itable16 (65,536 entries) and in an itable32 of 1M densely allocated
// ids, and "remove one, allocate one" at 50% occupancy beside a free list and
// an ordered set of free ids.
#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <unordered_map>
#include <vector>

#include <absl/container/btree_map.h>
#include <absl/container/btree_set.h>
#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>

#include <tarn/itable.h>

namespace {

constexpr uint32_t kFull16 = 0x10000;
constexpr uint32_t kDense32 = 1u << 20;

void *value_of(uint32_t i)
{
    return reinterpret_cast<void *>(uintptr_t{i} + 1);
}

std::vector<uint32_t> shuffled(uint32_t n, uint64_t seed)
{
    std::vector<uint32_t> v(n);
    for (uint32_t i = 0; i < n; ++i) v[i] = i;
    std::shuffle(v.begin(), v.end(), std::mt19937_64(seed));
    return v;
}

void per_op(benchmark::State &state, size_t ops)
{
    state.counters["per_op"] = benchmark::Counter(
        static_cast<double>(ops) * static_cast<double>(state.iterations()),
        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// --- lookup in a full itable16 ---------------------------------------------------

void BM_Itable16Lookup(benchmark::State &state)
{
    itable16 *t = itable16_create();
    for (uint32_t i = 0; i < kFull16; ++i) {
        const auto idx = static_cast<uint16_t>(i);
        itable16_insert(t, value_of(i), &idx);
    }
    std::vector<uint16_t> order;
    for (uint32_t i : shuffled(kFull16, 1)) order.push_back(static_cast<uint16_t>(i));
    for (auto _ : state)
        for (const uint16_t &i : order) benchmark::DoNotOptimize(itable16_lookup(t, &i));
    per_op(state, kFull16);
    itable16_destroy(t);
}

template <uint32_t N>
void BM_ArrayLookup(benchmark::State &state)
{
    std::vector<void *> a(N);
    for (uint32_t i = 0; i < N; ++i) a[i] = value_of(i);
    const std::vector<uint32_t> order = shuffled(N, 1);
    for (auto _ : state) {
        uintptr_t sum = 0;
        for (uint32_t i : order) sum += reinterpret_cast<uintptr_t>(a[i]);
        benchmark::DoNotOptimize(sum);
    }
    per_op(state, N);
}

// The same array behind a call the compiler cannot inline: the floor for any
// lookup made through a library function.
[[gnu::noinline]] void *array_get(const std::vector<void *> &a, uint32_t i)
{
    return a[i];
}

template <uint32_t N>
void BM_ArrayLookupCall(benchmark::State &state)
{
    std::vector<void *> a(N);
    for (uint32_t i = 0; i < N; ++i) a[i] = value_of(i);
    const std::vector<uint32_t> order = shuffled(N, 1);
    for (auto _ : state)
        for (uint32_t i : order) benchmark::DoNotOptimize(array_get(a, i));
    per_op(state, N);
}

template <typename Map, uint32_t N>
void BM_MapLookup(benchmark::State &state)
{
    Map m;
    for (uint32_t i = 0; i < N; ++i) m.emplace(i, value_of(i));
    const std::vector<uint32_t> order = shuffled(N, 1);
    for (auto _ : state)
        for (uint32_t i : order) benchmark::DoNotOptimize(m.find(i));
    per_op(state, N);
}

// --- lookup in an itable32 of densely allocated ids --------------------------------

void BM_Itable32Lookup(benchmark::State &state)
{
    itable32 *t = itable32_create();
    uint32_t id = 0;
    for (uint32_t i = 0; i < kDense32; ++i) itable32_alloc(t, value_of(i), &id);
    const std::vector<uint32_t> order = shuffled(kDense32, 1);
    for (auto _ : state)
        for (const uint32_t &i : order) benchmark::DoNotOptimize(itable32_lookup(t, &i));
    per_op(state, kDense32);
    itable32_destroy(t);
}

// --- remove one + alloc one at 50% occupancy ---------------------------------------

// The ids held, half of `n` chosen at random, and a random sequence of
// positions among them to remove from.
struct Churn {
    std::vector<uint32_t> held;
    std::vector<uint32_t> freed;
    std::vector<uint32_t> picks;

    explicit Churn(uint32_t n)
    {
        std::vector<uint32_t> all = shuffled(n, 7);
        held.assign(all.begin(), all.begin() + n / 2);
        freed.assign(all.begin() + n / 2, all.end());
        std::mt19937_64 rng(9);
        for (uint32_t i = 0; i < (1u << 16); ++i)
            picks.push_back(static_cast<uint32_t>(rng() % held.size()));
    }
};

void BM_Itable16RemoveAlloc(benchmark::State &state)
{
    Churn c(kFull16);
    itable16 *t = itable16_create();
    itable16_set_packed(t, static_cast<int>(state.range(0)));
    uint16_t id = 0;
    for (uint32_t i = 0; i < kFull16; ++i) itable16_alloc(t, value_of(i), &id);
    for (uint32_t i : c.freed) {
        const auto idx = static_cast<uint16_t>(i);
        itable16_remove(t, &idx);
    }
    size_t k = 0;
    for (auto _ : state) {
        uint32_t &slot = c.held[c.picks[k++ & 0xFFFF]];
        const auto old = static_cast<uint16_t>(slot);
        itable16_remove(t, &old);
        itable16_alloc(t, value_of(slot), &id);
        slot = id;
    }
    per_op(state, 1);
    itable16_destroy(t);
}

void BM_Itable32RemoveAlloc(benchmark::State &state)
{
    Churn c(kDense32);
    itable32 *t = itable32_create();
    itable32_set_packed(t, static_cast<int>(state.range(0)));
    uint32_t id = 0;
    for (uint32_t i = 0; i < kDense32; ++i) itable32_alloc(t, value_of(i), &id);
    for (const uint32_t &i : c.freed) itable32_remove(t, &i);
    size_t k = 0;
    for (auto _ : state) {
        uint32_t &slot = c.held[c.picks[k++ & 0xFFFF]];
        itable32_remove(t, &slot);
        itable32_alloc(t, value_of(slot), &id);
        slot = id;
    }
    per_op(state, 1);
    itable32_destroy(t);
}

// A plain array with a stack of free ids: the usual hand-made id allocator
// (last freed, first reused).
void BM_FreeListRemoveAlloc(benchmark::State &state)
{
    Churn c(kFull16);
    std::vector<void *> a(kFull16);
    for (uint32_t i : c.held) a[i] = value_of(i);
    std::vector<uint32_t> free_ids = c.freed;
    size_t k = 0;
    for (auto _ : state) {
        uint32_t &slot = c.held[c.picks[k++ & 0xFFFF]];
        a[slot] = nullptr;
        free_ids.push_back(slot);
        slot = free_ids.back();
        free_ids.pop_back();
        a[slot] = value_of(slot);
        benchmark::DoNotOptimize(a[slot]);
    }
    per_op(state, 1);
}

// An ordered set of free ids: lowest id first, as a packed table allocates.
template <typename Set>
void BM_OrderedFreeSetRemoveAlloc(benchmark::State &state)
{
    Churn c(kFull16);
    std::vector<void *> a(kFull16);
    for (uint32_t i : c.held) a[i] = value_of(i);
    Set free_ids(c.freed.begin(), c.freed.end());
    size_t k = 0;
    for (auto _ : state) {
        uint32_t &slot = c.held[c.picks[k++ & 0xFFFF]];
        a[slot] = nullptr;
        free_ids.insert(slot);
        slot = *free_ids.begin();
        free_ids.erase(free_ids.begin());
        a[slot] = value_of(slot);
        benchmark::DoNotOptimize(a[slot]);
    }
    per_op(state, 1);
}

using StdMap = std::map<uint32_t, void *>;
using Btree = absl::btree_map<uint32_t, void *>;
using FlatHash = absl::flat_hash_map<uint32_t, void *>;
using Unordered = std::unordered_map<uint32_t, void *>;

BENCHMARK(BM_Itable16Lookup)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ArrayLookup<kFull16>)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ArrayLookupCall<kFull16>)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MapLookup<FlatHash, kFull16>)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MapLookup<Unordered, kFull16>)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MapLookup<Btree, kFull16>)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MapLookup<StdMap, kFull16>)->Unit(benchmark::kMicrosecond);

BENCHMARK(BM_Itable32Lookup)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ArrayLookup<kDense32>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ArrayLookupCall<kDense32>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MapLookup<FlatHash, kDense32>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MapLookup<Unordered, kDense32>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MapLookup<Btree, kDense32>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MapLookup<StdMap, kDense32>)->Unit(benchmark::kMillisecond);

BENCHMARK(BM_Itable16RemoveAlloc)->ArgName("packed")->Arg(0)->Arg(1);
BENCHMARK(BM_Itable32RemoveAlloc)->ArgName("packed")->Arg(0)->Arg(1);
BENCHMARK(BM_FreeListRemoveAlloc);
BENCHMARK(BM_OrderedFreeSetRemoveAlloc<std::set<uint32_t>>);
BENCHMARK(BM_OrderedFreeSetRemoveAlloc<absl::btree_set<uint32_t>>);

}  // namespace

BENCHMARK_MAIN();
