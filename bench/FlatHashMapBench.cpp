// FlatHashMap against std::unordered_map, both keyed by IPv4 route keys, measured in the same run.
//
// 32768 distinct keys (VRFs 0-7, lengths 8-32, random addresses). Find: lookups of present keys
// in a shuffled order. Insert: building the table from empty (no reserve, so growth is included).
// Churn: erase one key and insert another, with the table holding all 32768 at the start, which
// is the steady state of a route table under updates.
// FlatHashMap runs with the mapping's packed-key hash and, as a control, with std::hash.
//
// MappingV4Fill / MappingV4Churn put the table to work as the IPv4 mapping uses it: 28000 routes
// paired two per entry (fill), then delete-one-insert-one with the merges that deletion calls for
// (churn). Counter bytesPerRoute is the mapping's heap (key table and position array) per route.
//
//   FlatHashMapBench --benchmark_filter='Find'

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "VexloL3Common/internal/FlatHashMap.h"
#include "VexloL3Common/tcam/L3TcamMapping.h"
#include "VexloL3Common/tcam/internal/L3TcamMappingImpl.h"
#include "VexloL3Common/types/L3RouteTypes.h"

namespace {

using VexloL3Common::Ipv4UcastKey;
using VexloL3Common::internal::FlatHashMap;
using VexloL3Common::internal::Ipv4KeyHash;

constexpr size_t kKeys = 32768;

// kKeys distinct keys, then as many again that are not in the first half.
const std::vector<Ipv4UcastKey>& testKeys() {
   static const std::vector<Ipv4UcastKey> keys = [] {
      std::mt19937 rng(42);
      std::unordered_map<Ipv4UcastKey, int> seen;
      std::vector<Ipv4UcastKey> out;
      while (out.size() < 2 * kKeys) {
         const uint8_t len = uint8_t(8 + rng() % 25);
         const uint32_t mask = len == 32 ? ~0u : ~(~0u >> len);
         Ipv4UcastKey k(Ulo::VrfId(rng() % 8), Ulo::Prefix(rng() & mask, len));
         if (seen.emplace(k, 0).second) out.push_back(k);
      }
      return out;
   }();
   return keys;
}

using Flat = FlatHashMap<Ipv4UcastKey, uint32_t, Ipv4KeyHash>;
using FlatStdHash = FlatHashMap<Ipv4UcastKey, uint32_t>;
using Std = std::unordered_map<Ipv4UcastKey, uint32_t>;

template <class M>
void put(M& m, const Ipv4UcastKey& k, uint32_t v) {
   if constexpr (std::is_same_v<M, Std>) {
      m.try_emplace(k, v);
   } else {
      m.tryEmplace(k, v);
   }
}

template <class M>
bool has(const M& m, const Ipv4UcastKey& k) {
   if constexpr (std::is_same_v<M, Std>) {
      return m.find(k) != m.end();
   } else {
      return m.find(k) != nullptr;
   }
}

template <class M>
void BM_Find(benchmark::State& state) {
   const auto& keys = testKeys();
   M m;
   for (size_t i = 0; i < kKeys; ++i)
      put(m, keys[i], uint32_t(i));
   std::vector<Ipv4UcastKey> order(keys.begin(), keys.begin() + kKeys);
   std::shuffle(order.begin(), order.end(), std::mt19937(1));
   size_t i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(has(m, order[i]));
      i = (i + 1) & (kKeys - 1);
   }
   state.SetItemsProcessed(state.iterations());
}

template <class M>
void BM_FindMiss(benchmark::State& state) {
   const auto& keys = testKeys();
   M m;
   for (size_t i = 0; i < kKeys; ++i)
      put(m, keys[i], uint32_t(i));
   size_t i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(has(m, keys[kKeys + i]));
      i = (i + 1) & (kKeys - 1);
   }
   state.SetItemsProcessed(state.iterations());
}

template <class M>
void BM_Insert(benchmark::State& state) {
   const auto& keys = testKeys();
   for (auto _ : state) {
      M m;
      for (size_t i = 0; i < kKeys; ++i)
         put(m, keys[i], uint32_t(i));
      benchmark::DoNotOptimize(m.size());
   }
   state.SetItemsProcessed(state.iterations() * kKeys);
}

template <class M>
void BM_Churn(benchmark::State& state) {
   const auto& keys = testKeys();
   M m;
   for (size_t i = 0; i < kKeys; ++i)
      put(m, keys[i], uint32_t(i));
   // Erase key i and insert key i + kKeys, cycling through both halves.
   size_t i = 0;
   bool firstHalfIn = true;
   for (auto _ : state) {
      const size_t out = firstHalfIn ? i : kKeys + i;
      const size_t in = firstHalfIn ? kKeys + i : i;
      m.erase(keys[out]);
      put(m, keys[in], uint32_t(in));
      if (++i == kKeys) {
         i = 0;
         firstHalfIn = !firstHalfIn;
      }
   }
   state.SetItemsProcessed(state.iterations());
}

// ---- the IPv4 mapping -----------------------------------------------------------------------

constexpr size_t kRoutes = 28000;

using VexloL3Common::MappingV4;

struct Placer {
   MappingV4 m{true, VexloL3Common::tcamStatsFactory(), nullptr, nullptr, nullptr, nullptr};
   std::vector<uint32_t> freePositions;

   Placer() {
      for (uint32_t p = 16384; p >= 1; --p)
         freePositions.push_back(p);
   }
   void add(const Ipv4UcastKey& k) {
      if (m.halfFull(k.len()) != 0) {
         m.insertSecondEntry(k, 0, true, false);
         return;
      }
      const uint32_t pos = freePositions.back();
      freePositions.pop_back();
      m.insertFirstEntry(k, pos);
   }
   void remove(const Ipv4UcastKey& k) {
      const uint32_t pos = m.getEntryId(k);
      const uint32_t len = k.len();
      const uint32_t tracked = m.halfFull(len);
      if (m.deleteEntry(k, pos, m.rightKey(k, pos))) {
         freePositions.push_back(pos);
      } else if (tracked != 0) {
         // Two half-full entries of one length: merge the older into the newer.
         m.mergeEntries(len, pos, tracked, false, k.vrfId, 0);
         freePositions.push_back(tracked);
      }
   }
};

void BM_MappingV4Fill(benchmark::State& state) {
   const auto& keys = testKeys();
   size_t bytes = 0;
   for (auto _ : state) {
      Placer p;
      for (size_t i = 0; i < kRoutes; ++i)
         p.add(keys[i]);
      bytes = p.m.memoryBytes();
      benchmark::DoNotOptimize(bytes);
   }
   state.SetItemsProcessed(state.iterations() * kRoutes);
   state.counters["bytesPerRoute"] = double(bytes) / kRoutes;
}

void BM_MappingV4Churn(benchmark::State& state) {
   const auto& keys = testKeys();
   Placer p;
   for (size_t i = 0; i < kRoutes; ++i)
      p.add(keys[i]);
   // Routes [i, i + kRoutes) of the key list are placed; replace the oldest with the next.
   size_t oldest = 0;
   const size_t n = keys.size();
   for (auto _ : state) {
      p.remove(keys[oldest % n]);
      p.add(keys[(oldest + kRoutes) % n]);
      ++oldest;
   }
   state.SetItemsProcessed(state.iterations() * 2);
   state.counters["bytesPerRoute"] = double(p.m.memoryBytes()) / kRoutes;
}

BENCHMARK(BM_MappingV4Fill)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MappingV4Churn);

BENCHMARK_TEMPLATE(BM_Find, Flat);
BENCHMARK_TEMPLATE(BM_Find, FlatStdHash);
BENCHMARK_TEMPLATE(BM_Find, Std);
BENCHMARK_TEMPLATE(BM_FindMiss, Flat);
BENCHMARK_TEMPLATE(BM_FindMiss, FlatStdHash);
BENCHMARK_TEMPLATE(BM_FindMiss, Std);
BENCHMARK_TEMPLATE(BM_Insert, Flat);
BENCHMARK_TEMPLATE(BM_Insert, FlatStdHash);
BENCHMARK_TEMPLATE(BM_Insert, Std);
BENCHMARK_TEMPLATE(BM_Churn, Flat);
BENCHMARK_TEMPLATE(BM_Churn, FlatStdHash);
BENCHMARK_TEMPLATE(BM_Churn, Std);

}  // namespace
