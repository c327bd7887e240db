// Keyed collection against std::unordered_map with the same hash and against Abseil's
// flat_hash_map (an open-addressing table with SIMD probing) with its own hash and with ours, side
// by side, and the cost of one publication. Compare BM_Collection<Op> with BM_StdUnorderedMap<Op>,
// BM_AbslFlatHashMap<Op> and BM_AbslFlatHashMapSameHash<Op>. Abseil is linked into the benchmarks
// only; the library itself stays on the standard library.
#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <unordered_map>
#include <vector>

#include "framework/CoreCollection.h"
#include "framework/CoreReactor.h"

namespace {

// Table sizes: four spread evenly (in log) over one doubling around 2^20. Each table design is
// at its emptiest just after it grows and at its fullest just before, and the two designs grow
// at different sizes, so a single size would compare one fill against another.
constexpr int64_t kSizes[] = {741455, 881743, 1 << 20, 1246927};
constexpr size_t kMaxKeys = 1246927;

struct SameHash {
  size_t operator()(uint64_t k) const { return Core::hashOf(k, Core::keySeed<uint64_t>()); }
};

struct Table : Core::Node {
  Core::Map<uint64_t, uint64_t> map{this, 1};
};

const std::vector<uint64_t>& keys() {
  static const std::vector<uint64_t> k = [] {
    std::mt19937_64 rng(42);
    std::vector<uint64_t> v(2 * kMaxKeys);
    for (auto& x : v) x = rng();
    return v;
  }();
  return k;
}

// Lookup order: a shuffled sequence so that consecutive look-ups do not share cache lines.
std::vector<uint64_t> probes(size_t from, size_t n) {
  std::vector<uint64_t> p(keys().begin() + from, keys().begin() + from + n);
  std::shuffle(p.begin(), p.end(), std::mt19937_64(7));
  return p;
}

// The first n keys (state.range(0)) in each kind of table.
size_t sizeOf(const benchmark::State& state) { return static_cast<size_t>(state.range(0)); }

Core::Ptr<Table> filledTable(size_t n) {
  auto t = Core::makePtr<Table>();
  for (size_t i = 0; i < n; ++i) t->map.set({keys()[i], i});
  return t;
}

std::unordered_map<uint64_t, uint64_t, SameHash> filledStd(size_t n) {
  std::unordered_map<uint64_t, uint64_t, SameHash> m;
  for (size_t i = 0; i < n; ++i) m.emplace(keys()[i], i);
  return m;
}

// Abseil's table with its default hash (absl::Hash) and with ours.
using AbslMap = absl::flat_hash_map<uint64_t, uint64_t>;
using AbslMapSameHash = absl::flat_hash_map<uint64_t, uint64_t, SameHash>;

template <class M>
M filledAbsl(size_t n) {
  M m;
  for (size_t i = 0; i < n; ++i) m.emplace(keys()[i], i);
  return m;
}

// Hits probe the n keys stored; misses probe n keys from the second half, never stored.
template <class Find>
void lookup(benchmark::State& state, bool hit, Find find) {
  const size_t n = sizeOf(state);
  auto p = probes(hit ? 0 : kMaxKeys, n);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(find(p[i]));
    i = i + 1 == n ? 0 : i + 1;
  }
}

void BM_CollectionLookupHit(benchmark::State& state) {
  auto t = filledTable(sizeOf(state));
  lookup(state, true, [&](uint64_t k) { return t->map.find(k); });
}
void BM_StdUnorderedMapLookupHit(benchmark::State& state) {
  auto m = filledStd(sizeOf(state));
  lookup(state, true, [&](uint64_t k) { return m.find(k) != m.end(); });
}
template <class M>
void BM_AbslLookupHit(benchmark::State& state) {
  auto m = filledAbsl<M>(sizeOf(state));
  lookup(state, true, [&](uint64_t k) { return m.find(k) != m.end(); });
}
void BM_AbslFlatHashMapLookupHit(benchmark::State& state) { BM_AbslLookupHit<AbslMap>(state); }
void BM_AbslFlatHashMapSameHashLookupHit(benchmark::State& state) {
  BM_AbslLookupHit<AbslMapSameHash>(state);
}
void BM_CollectionLookupMiss(benchmark::State& state) {
  auto t = filledTable(sizeOf(state));
  lookup(state, false, [&](uint64_t k) { return t->map.find(k); });
}
void BM_StdUnorderedMapLookupMiss(benchmark::State& state) {
  auto m = filledStd(sizeOf(state));
  lookup(state, false, [&](uint64_t k) { return m.find(k) != m.end(); });
}

template <class M>
void BM_AbslLookupMiss(benchmark::State& state) {
  auto m = filledAbsl<M>(sizeOf(state));
  lookup(state, false, [&](uint64_t k) { return m.find(k) != m.end(); });
}
void BM_AbslFlatHashMapLookupMiss(benchmark::State& state) { BM_AbslLookupMiss<AbslMap>(state); }
void BM_AbslFlatHashMapSameHashLookupMiss(benchmark::State& state) {
  BM_AbslLookupMiss<AbslMapSameHash>(state);
}

// Steady churn at n members: each iteration erases one member and inserts another key. The
// two key windows swap roles every pass so that every operation really erases and inserts.
template <class Erase, class Insert>
void churn(benchmark::State& state, Erase erase, Insert insert) {
  const size_t n = sizeOf(state);
  size_t i = 0;
  size_t pass = 0;
  for (auto _ : state) {
    const size_t out = (pass & 1) ? i + kMaxKeys : i;
    const size_t in = (pass & 1) ? i : i + kMaxKeys;
    erase(keys()[out]);
    insert(keys()[in], i);
    i = i + 1 == n ? 0 : i + 1;
    if (i == 0) ++pass;
  }
}

void BM_CollectionInsertErase(benchmark::State& state) {
  auto t = filledTable(sizeOf(state));
  churn(
      state, [&](uint64_t k) { t->map.del(k); },
      [&](uint64_t k, uint64_t v) {
        t->map.set({k, v});
      });
}
void BM_StdUnorderedMapInsertErase(benchmark::State& state) {
  auto m = filledStd(sizeOf(state));
  churn(
      state, [&](uint64_t k) { m.erase(k); }, [&](uint64_t k, uint64_t v) { m.emplace(k, v); });
}

template <class M>
void BM_AbslInsertErase(benchmark::State& state) {
  auto m = filledAbsl<M>(sizeOf(state));
  churn(
      state, [&](uint64_t k) { m.erase(k); }, [&](uint64_t k, uint64_t v) { m.emplace(k, v); });
}
void BM_AbslFlatHashMapInsertErase(benchmark::State& state) { BM_AbslInsertErase<AbslMap>(state); }
void BM_AbslFlatHashMapSameHashInsertErase(benchmark::State& state) {
  BM_AbslInsertErase<AbslMapSameHash>(state);
}

struct Counter : Core::Reactor {
  explicit Counter(const Core::Node* n) : slot_(this, 1, n) {}
  void handle(const uint64_t& key) { sum += key; }
  uint64_t sum = 0;
  Core::Slot<Counter, uint64_t, &Counter::handle> slot_;
};

// One change published to one reactor: the publication itself, without a collection write.
void BM_PublishOneSubscriber(benchmark::State& state) {
  auto t = Core::makePtr<Table>();
  auto c = Core::makePtr<Counter>(t.get());
  uint64_t key = 0;
  for (auto _ : state) {
    t->notify(1, &key);
    ++key;
  }
  benchmark::DoNotOptimize(c->sum);
}

// One value change written through a collection and published to one reactor, with its
// notification values anchored.
void BM_CollectionSetOneSubscriber(benchmark::State& state) {
  auto t = Core::makePtr<Table>();
  auto c = Core::makePtr<Counter>(t.get());
  for (uint64_t k = 0; k < 64; ++k) t->map.set({k, 0});
  uint64_t i = 0;
  for (auto _ : state) {
    t->map.set({i & 63, i});
    ++i;
  }
  benchmark::DoNotOptimize(c->sum);
}

void sizes(benchmark::internal::Benchmark* b) {
  for (int64_t n : kSizes) b->Arg(n);
}

}  // namespace

BENCHMARK(BM_CollectionLookupHit)->Apply(sizes);
BENCHMARK(BM_StdUnorderedMapLookupHit)->Apply(sizes);
BENCHMARK(BM_AbslFlatHashMapLookupHit)->Apply(sizes);
BENCHMARK(BM_AbslFlatHashMapSameHashLookupHit)->Apply(sizes);
BENCHMARK(BM_CollectionLookupMiss)->Apply(sizes);
BENCHMARK(BM_StdUnorderedMapLookupMiss)->Apply(sizes);
BENCHMARK(BM_AbslFlatHashMapLookupMiss)->Apply(sizes);
BENCHMARK(BM_AbslFlatHashMapSameHashLookupMiss)->Apply(sizes);
BENCHMARK(BM_CollectionInsertErase)->Apply(sizes);
BENCHMARK(BM_StdUnorderedMapInsertErase)->Apply(sizes);
BENCHMARK(BM_AbslFlatHashMapInsertErase)->Apply(sizes);
BENCHMARK(BM_AbslFlatHashMapSameHashInsertErase)->Apply(sizes);
BENCHMARK(BM_PublishOneSubscriber);
BENCHMARK(BM_CollectionSetOneSubscriber);
