// Block zones against malloc/free and boost::pool; lookup tables and maps against std::set and
// std::map, Abseil's B-trees and Abseil's flat hash containers.
//
// Lookup tables use order 7 and lookup maps order 5, so that a node is about 256 bytes (264
// and 280 bytes: 2m keys and 2m + 1 child slots, leaves included). The "_wide" cases repeat
// the million-key runs with orders 48 and 24 (nodes of 1576 and 1192 bytes) against Abseil's
// B-trees: with fewer levels the search waits on fewer cache misses, and of orders 7 to 64
// these gave the best times. Every benchmark uses the same random keys. Heap use is counted as
// requested bytes (the peers through a counting allocator,
// ours through an installed StdAllocator) and shown as the counter bytes_per_entry.
#include <vxtools3/containers.h>
#include <vxtools3/memory.h>

#include "bench/fixed_heap.h"
#include "bench/ratio_reporter.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <vector>

#ifdef VX_BENCH_HAVE_ABSL
#include <absl/container/btree_map.h>
#include <absl/container/btree_set.h>
#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>
#endif
#ifdef VX_BENCH_HAVE_BOOST
#include <boost/pool/pool.hpp>
#endif

namespace {

constexpr int32_t kLTabOrder = 7;
constexpr int32_t kLMapOrder = 5;
constexpr int32_t kWideLTabOrder = 48;
constexpr int32_t kWideLMapOrder = 24;

// ---- Heap accounting -------------------------------------------------------------------------

size_t g_liveBytes = 0;

template <class T>
struct CountingAllocator {
    using value_type = T;
    CountingAllocator() = default;
    template <class U>
    CountingAllocator(const CountingAllocator<U> &) {}
    T *allocate(size_t n)
    {
        g_liveBytes += n * sizeof(T);
        return static_cast<T *>(std::malloc(n * sizeof(T)));
    }
    void deallocate(T *p, size_t n)
    {
        g_liveBytes -= n * sizeof(T);
        std::free(p);
    }
    template <class U>
    bool operator==(const CountingAllocator<U> &) const { return true; }
};

void *CountedAlloc(void *, size_t size)
{
    g_liveBytes += size;
    return std::calloc(1, size);
}
void CountedFree(void *, void *block, size_t size)
{
    g_liveBytes -= size;
    std::free(block);
}

// Routes the library's heap through the counter for the life of a scope.
struct CountLibraryHeap {
    StdAllocator previous;
    CountLibraryHeap()
    {
        StdGetAllocator(&previous);
        const StdAllocator counting{CountedAlloc, nullptr, CountedFree, nullptr, nullptr};
        StdSetAllocator(&counting);
    }
    ~CountLibraryHeap() { StdSetAllocator(&previous); }
};

std::vector<uintptr_t> RandomKeys(size_t n, uint64_t seed)
{
    std::mt19937_64 rng(seed);
    std::set<uintptr_t> seen;
    std::vector<uintptr_t> keys;
    while (keys.size() < n) {
        const uintptr_t k = rng();
        if (seen.insert(k).second)
            keys.push_back(k);
    }
    return keys;
}

// ---- Contestants: one shape for every set and map ---------------------------------------------

template <int32_t kOrder>
struct LTabSetOf {
    LTab *tab = LTabCreate(kOrder);
    ~LTabSetOf() { LTabDestroy(tab); }
    void Insert(uintptr_t k) { LTabAdd(tab, k); }
    bool Find(uintptr_t k) const { return LTabTest(tab, k); }
    void Erase(uintptr_t k) { LTabRem(tab, k); }
    uintptr_t Sum() const
    {
        uintptr_t sum = 0;
        BTPos pos;
        for (void *k = BTFirst(tab, &pos); k; k = BTNext(tab, &pos))
            sum += *static_cast<uintptr_t *>(k);
        return sum;
    }
};

template <int32_t kOrder>
struct LMapMapOf {
    LMap *map = LMapCreate(kOrder);
    ~LMapMapOf() { LMapDestroy(map); }
    void Insert(uintptr_t k) { LMapSet(map, k, k + 1); }
    bool Find(uintptr_t k) const
    {
        uintptr_t v = 0;
        return LMapGet(map, k, &v) && v == k + 1;
    }
    void Erase(uintptr_t k) { LMapUnset(map, k); }
    uintptr_t Sum() const
    {
        uintptr_t sum = 0;
        BTPos pos;
        for (void *k = BTFirst(map, &pos); k; k = BTNext(map, &pos))
            sum += static_cast<uintptr_t *>(k)[1];
        return sum;
    }
};

using LTabSet = LTabSetOf<kLTabOrder>;
using LMapMap = LMapMapOf<kLMapOrder>;
using WideLTabSet = LTabSetOf<kWideLTabOrder>;
using WideLMapMap = LMapMapOf<kWideLMapOrder>;

template <class Set>
struct StdLikeSet {
    Set set;
    void Insert(uintptr_t k) { set.insert(k); }
    bool Find(uintptr_t k) const { return set.find(k) != set.end(); }
    void Erase(uintptr_t k) { set.erase(k); }
    uintptr_t Sum() const { return std::accumulate(set.begin(), set.end(), uintptr_t{0}); }
};

template <class Map>
struct StdLikeMap {
    Map map;
    void Insert(uintptr_t k) { map.emplace(k, k + 1); }
    bool Find(uintptr_t k) const
    {
        auto it = map.find(k);
        return it != map.end() && it->second == k + 1;
    }
    void Erase(uintptr_t k) { map.erase(k); }
    uintptr_t Sum() const
    {
        uintptr_t sum = 0;
        for (const auto &kv : map)
            sum += kv.second;
        return sum;
    }
};

using Word = uintptr_t;
using StdSet = StdLikeSet<std::set<Word, std::less<Word>, CountingAllocator<Word>>>;
using StdMap = StdLikeMap<std::map<Word, Word, std::less<Word>, CountingAllocator<std::pair<const Word, Word>>>>;
#ifdef VX_BENCH_HAVE_ABSL
using AbslBtreeSet = StdLikeSet<absl::btree_set<Word, std::less<Word>, CountingAllocator<Word>>>;
using AbslBtreeMap =
    StdLikeMap<absl::btree_map<Word, Word, std::less<Word>, CountingAllocator<std::pair<const Word, Word>>>>;
using AbslHashSet = StdLikeSet<absl::flat_hash_set<Word, absl::Hash<Word>, std::equal_to<Word>, CountingAllocator<Word>>>;
using AbslHashMap = StdLikeMap<
    absl::flat_hash_map<Word, Word, absl::Hash<Word>, std::equal_to<Word>, CountingAllocator<std::pair<const Word, Word>>>>;
#endif

// ---- Table benchmarks ------------------------------------------------------------------------

template <class C>
void Build(C &c, const uintptr_t *keys, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        c.Insert(keys[i]);
}

template <class C>
void Build(C &c, const std::vector<uintptr_t> &keys)
{
    Build(c, keys.data(), keys.size());
}

// Passes over the keys, each holding every key once in an order of its own, for the timed
// loops: repeating one order of a few hundred keys pass after pass lets the branch predictor
// learn the outcome of every comparison std::set makes, so that it times a replay rather than
// searches (std::set then finds each of 100 keys in about 1 us instead of 4.5). Enough passes
// for a quarter of a million keys are made, at least one; both contestants of a case get the
// same passes.
class KeyPasses {
public:
    KeyPasses(const std::vector<uintptr_t> &keys, uint64_t seed) : n_(keys.size())
    {
        std::mt19937_64 rng(seed);
        std::vector<uintptr_t> pass = keys;
        for (size_t made = 0; made == 0 || made + n_ <= kPoolKeys; made += n_) {
            std::shuffle(pass.begin(), pass.end(), rng);
            pool_.insert(pool_.end(), pass.begin(), pass.end());
        }
    }
    // The next pass (n keys); after the last pass the first comes again.
    const uintptr_t *Next()
    {
        const uintptr_t *pass = pool_.data() + next_;
        next_ = next_ + n_ < pool_.size() ? next_ + n_ : 0;
        return pass;
    }
    size_t Size() const { return n_; }

private:
    static constexpr size_t kPoolKeys = size_t{1} << 18;
    size_t n_;
    size_t next_ = 0;
    std::vector<uintptr_t> pool_;
};

// Builds a container of n keys and destroys it; reports its heap bytes per entry.
template <class C>
void Insert(benchmark::State &state)
{
    const std::vector<uintptr_t> keys = RandomKeys(static_cast<size_t>(state.range(0)), 1);
    KeyPasses passes(keys, 4);
    double bytesPerEntry = 0;
    for (auto _ : state) {
        CountLibraryHeap counting;
        const size_t before = g_liveBytes;
        {
            C c;
            Build(c, passes.Next(), passes.Size());
            bytesPerEntry = double(g_liveBytes - before) / double(keys.size());
            benchmark::DoNotOptimize(&c);
        }
    }
    state.counters["bytes_per_entry"] = bytesPerEntry;
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <class C>
void Find(benchmark::State &state)
{
    const std::vector<uintptr_t> keys = RandomKeys(static_cast<size_t>(state.range(0)), 1);
    KeyPasses passes(keys, 2);
    C c;
    Build(c, keys);
    for (auto _ : state) {
        const uintptr_t *probes = passes.Next();
        size_t found = 0;
        for (size_t i = 0; i < passes.Size(); ++i)
            found += c.Find(probes[i]);
        if (found != passes.Size())
            state.SkipWithError("a key was not found");
        benchmark::DoNotOptimize(found);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <class C>
void Iterate(benchmark::State &state)
{
    const std::vector<uintptr_t> keys = RandomKeys(static_cast<size_t>(state.range(0)), 1);
    C c;
    Build(c, keys);
    for (auto _ : state)
        benchmark::DoNotOptimize(c.Sum());
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <class C>
void Erase(benchmark::State &state)
{
    const std::vector<uintptr_t> keys = RandomKeys(static_cast<size_t>(state.range(0)), 1);
    std::vector<uintptr_t> order = keys;
    std::shuffle(order.begin(), order.end(), std::mt19937_64(3));
    for (auto _ : state) {
        state.PauseTiming();
        auto *c = new C;
        Build(*c, keys);
        state.ResumeTiming();
        for (uintptr_t k : order)
            c->Erase(k);
        state.PauseTiming();
        delete c;
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void TableSizes(benchmark::internal::Benchmark *b)
{
    b->RangeMultiplier(10)->Range(100, 1000000)->Unit(benchmark::kMicrosecond);
}

#define TABLE_CASES(op, name)                                                                   \
    BENCHMARK(op<LTabSet>)->Name(name "_set:LTab")->Apply(TableSizes);                          \
    BENCHMARK(op<StdSet>)->Name(name "_set:std::set")->Apply(TableSizes);                       \
    ABSL_SET_CASES(op, name)                                                                    \
    BENCHMARK(op<LMapMap>)->Name(name "_map:LMap")->Apply(TableSizes);                          \
    BENCHMARK(op<StdMap>)->Name(name "_map:std::map")->Apply(TableSizes);                       \
    ABSL_MAP_CASES(op, name)

#ifdef VX_BENCH_HAVE_ABSL
#define ABSL_SET_CASES(op, name)                                                                \
    BENCHMARK(op<AbslBtreeSet>)->Name(name "_set:absl::btree_set")->Apply(TableSizes);          \
    BENCHMARK(op<AbslHashSet>)->Name(name "_set:absl::flat_hash_set")->Apply(TableSizes);
#define ABSL_MAP_CASES(op, name)                                                                \
    BENCHMARK(op<AbslBtreeMap>)->Name(name "_map:absl::btree_map")->Apply(TableSizes);          \
    BENCHMARK(op<AbslHashMap>)->Name(name "_map:absl::flat_hash_map")->Apply(TableSizes);
#else
#define ABSL_SET_CASES(op, name)
#define ABSL_MAP_CASES(op, name)
#endif

TABLE_CASES(Insert, "insert")
TABLE_CASES(Find, "find")
TABLE_CASES(Iterate, "iterate")
TABLE_CASES(Erase, "erase")

#ifdef VX_BENCH_HAVE_ABSL
#define WIDE_CASES(op, name)                                                                    \
    BENCHMARK(op<WideLTabSet>)->Name(name "_set_wide:LTab")->Arg(1000000)->Unit(benchmark::kMicrosecond); \
    BENCHMARK(op<AbslBtreeSet>)->Name(name "_set_wide:absl::btree_set")->Arg(1000000)->Unit(benchmark::kMicrosecond); \
    BENCHMARK(op<WideLMapMap>)->Name(name "_map_wide:LMap")->Arg(1000000)->Unit(benchmark::kMicrosecond); \
    BENCHMARK(op<AbslBtreeMap>)->Name(name "_map_wide:absl::btree_map")->Arg(1000000)->Unit(benchmark::kMicrosecond);
WIDE_CASES(Insert, "insert")
WIDE_CASES(Find, "find")
WIDE_CASES(Erase, "erase")
#endif

// ---- Block zones -----------------------------------------------------------------------------

// Every contestant runs on the same heap (see bench/fixed_heap.h).
const bool kFixedHeap = (vxbench::FixHeapThresholds(), true);

constexpr size_t kBlocks = 1000000;
constexpr size_t kBlockSize = 32;
constexpr size_t kChurnLive = 100000;

struct ZoneHeap {
    BZone *zone = BZCreate(kBlockSize);
    ~ZoneHeap() { BZDestroy(zone); }
    void *Alloc() { return BZAlloc(zone); }
    void Free(void *p) { BZFree(zone, p); }
};

// The same zone with the C library heap installed without its trim: FreeHeap then leaves the
// freed chunks' pages with the process, as malloc and boost::pool do, instead of returning
// them once more than 4 MB have been freed.
struct ZoneHeapNoTrim {
    StdAllocator saved = InstallWithoutTrim();  // before the zone is made
    BZone *zone = BZCreate(kBlockSize);
    ~ZoneHeapNoTrim()
    {
        BZDestroy(zone);
        StdSetAllocator(&saved);
    }
    void *Alloc() { return BZAlloc(zone); }
    void Free(void *p) { BZFree(zone, p); }
    // Installs the heap in use without its trim; returns the heap to put back.
    static StdAllocator InstallWithoutTrim()
    {
        StdAllocator saved;
        StdGetAllocator(&saved);
        StdAllocator table = saved;
        table.trim = nullptr;
        StdSetAllocator(&table);
        return saved;
    }
};

struct MallocHeap {
    void *Alloc() { return std::malloc(kBlockSize); }
    void Free(void *p) { std::free(p); }
};

#ifdef VX_BENCH_HAVE_BOOST
struct BoostPoolHeap {
    boost::pool<> pool{kBlockSize};
    void *Alloc() { return pool.malloc(); }
    void Free(void *p) { pool.free(p); }
};
#endif

// Frees whatever `blocks` holds and the heap itself (not timed).
template <class H>
void Release(H *heap, std::vector<void *> &blocks)
{
    for (void *p : blocks)
        if (p)
            heap->Free(p);
    delete heap;
}

template <class H>
void ZoneAlloc(benchmark::State &state)
{
    std::vector<void *> blocks(kBlocks);
    for (auto _ : state) {
        auto *heap = new H;
        for (void *&p : blocks)
            p = heap->Alloc();
        benchmark::DoNotOptimize(blocks.data());
        state.PauseTiming();
        Release(heap, blocks);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kBlocks));
}

template <class H>
void ZoneFree(benchmark::State &state)
{
    const bool random = state.range(0) != 0;
    std::vector<size_t> order(kBlocks);
    std::iota(order.begin(), order.end(), size_t{0});
    if (random)
        std::shuffle(order.begin(), order.end(), std::mt19937_64(5));
    std::vector<void *> blocks(kBlocks);
    for (auto _ : state) {
        state.PauseTiming();
        auto *heap = new H;
        for (void *&p : blocks)
            p = heap->Alloc();
        state.ResumeTiming();
        for (size_t i : order)
            heap->Free(blocks[i]);
        state.PauseTiming();
        std::fill(blocks.begin(), blocks.end(), nullptr);
        Release(heap, blocks);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kBlocks));
}

// 100k blocks live; each step frees a random one and allocates its replacement.
template <class H>
void ZoneChurn(benchmark::State &state)
{
    std::mt19937_64 rng(9);
    std::vector<size_t> victims(kBlocks);
    for (size_t &v : victims)
        v = rng() % kChurnLive;
    std::vector<void *> live(kChurnLive);
    for (auto _ : state) {
        state.PauseTiming();
        auto *heap = new H;
        for (void *&p : live)
            p = heap->Alloc();
        state.ResumeTiming();
        for (size_t v : victims) {
            heap->Free(live[v]);
            live[v] = heap->Alloc();
        }
        state.PauseTiming();
        Release(heap, live);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kBlocks));
}

#ifdef VX_BENCH_HAVE_BOOST
#define BOOST_POOL_CASE(fn, name, ...) BENCHMARK(fn<BoostPoolHeap>)->Name(name ":boost::pool")__VA_ARGS__;
#else
#define BOOST_POOL_CASE(fn, name, ...)
#endif

// Each case twice: with the zone as it ships, and again (case name "<case>_notrim") with the
// zone on a heap without the trim, beside the same peers.
#define ZONE_CASE_WITH(heap, fn, name, ...)                                  \
    BENCHMARK(fn<heap>)->Name(name ":BZone")__VA_ARGS__;                     \
    BENCHMARK(fn<MallocHeap>)->Name(name ":malloc")__VA_ARGS__;              \
    BOOST_POOL_CASE(fn, name, __VA_ARGS__)
#define ZONE_CASE(fn, name, ...)                                    \
    ZONE_CASE_WITH(ZoneHeap, fn, name, __VA_ARGS__)                 \
    ZONE_CASE_WITH(ZoneHeapNoTrim, fn, name "_notrim", __VA_ARGS__)

ZONE_CASE(ZoneAlloc, "zone_alloc_1M", ->Unit(benchmark::kMillisecond))
ZONE_CASE(ZoneFree, "zone_free_in_order_1M", ->Arg(0)->Unit(benchmark::kMillisecond))
ZONE_CASE(ZoneFree, "zone_free_random_1M", ->Arg(1)->Unit(benchmark::kMillisecond))
ZONE_CASE(ZoneChurn, "zone_churn_100k_live", ->Unit(benchmark::kMillisecond))

}  // namespace
