// IPv6 placement and the moving border on 16 K-entry tables, tracing off.
//   AddRoute6/<fill %>/<mix>  ns per addRoute6 with the IPv6 region filled to 50 % or 90 %:
//                             mix 48: mostly /48 (lengths /32-/64) in the single-size region of a
//                             mode-2 table; mix 128: mostly /128 (lengths /65-/128) in the
//                             double-size region of a paired table (pairs of entries 1024 apart).
//                             Baseline: the same adds into the empty region, in the same run.
//   Reallocate                one move of the border by four blocks (4096 entries) on a table
//                             whose border moves, with 60 % of the IPv4 entries to be moved out
//                             of the way, and back. Baseline: the agent's alternative without
//                             reallocation, deleting those IPv4 routes and adding them again.
// Each iteration adds a batch of routes (timed) and takes them out again (not timed).
#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <unordered_set>
#include <vector>

#include "TcamBenchSupport.h"
#include "VexloL3Common/tcam/L3TcamTable.h"

using namespace VexloL3Common;

namespace {

constexpr uint32_t kTableSize = 16384;
constexpr uint32_t kBatch = 256;

// A 16 K table, paired or not; a border that moves goes four blocks of 1 024 at a time.
bench::AckedContext model(bool pairing, bool moving = false) {
   auto c = bench::benchConfig();
   c.supportsDefipPairing = pairing;
   c.dynamicV4V6Boundary = moving;
   c.pairGap = 1024;
   return bench::AckedContext(c);
}

std::vector<Ipv6UcastKey> ipv6Routes(size_t n, bool longMix, uint64_t seed) {
   std::mt19937_64 rng(seed);
   std::vector<Ipv6UcastKey> out;
   std::unordered_set<Ipv6UcastKey> seen;
   while (out.size() < n) {
      const uint32_t r = uint32_t(rng() % 10);
      uint32_t len = longMix ? (r < 7 ? 128 : 65 + uint32_t(rng() % 63))
                             : (r < 7 ? 48 : 32 + uint32_t(rng() % 33));
      Ulo::Ip6Prefix::Bytes b{};
      for (auto& x : b)
         x = uint8_t(rng());
      b[0] = 0x20;
      for (uint32_t bit = len; bit < 128; ++bit)
         b[bit / 8] &= uint8_t(~(0x80u >> (bit % 8)));
      Ipv6UcastKey key(VrfId(0), Ulo::Ip6Prefix(b, uint8_t(len)));
      if (seen.insert(key).second) out.push_back(key);
   }
   return out;
}

// Fills the region to `percent`, then times batches of adds; `emptyRegion` measures the same
// batches without the fill.
void addRoute6At(benchmark::State& state, bool emptyRegion) {
   const uint32_t percent = uint32_t(state.range(0));
   const bool longMix = state.range(1) == 128;
   bench::AckedContext m = model(longMix);
   const RouteType t = longMix ? RouteType::v6Full : RouteType::v6Half;
   // Region capacity in routes: 8192 single entries, or 4095 pairs.
   const uint32_t capacity = longMix ? 4095 : 8192;
   const auto keys = ipv6Routes(capacity + 64 * kBatch, longMix, 11);
   size_t next = 0;
   if (!emptyRegion) {
      while (m.ctx->entries(t) < capacity * percent / 100) {
         m.ctx->addRoute6(keys[next++], false);
      }
   }
   const size_t firstBatch = next;
   std::vector<Ipv6UcastKey> batch(kBatch);
   size_t b = 0;
   uint64_t placed = 0;
   const uint64_t moves0 = m.ctx->stats()->moveRoute(t);
   for (auto _ : state) {
      for (uint32_t i = 0; i < kBatch; ++i)
         batch[i] = keys[firstBatch + (b * kBatch + i) % (keys.size() - firstBatch)];
      ++b;
      uint32_t ok = 0;
      for (const Ipv6UcastKey& k : batch)
         ok += m.ctx->addRoute6(k, false).routeId != 0;
      state.PauseTiming();
      for (const Ipv6UcastKey& k : batch)
         if (m.ctx->v6()->getEntryIdCount(k)) m.ctx->deleteRoute6(k);
      placed += ok;
      state.ResumeTiming();
   }
   state.SetItemsProcessed(int64_t(state.iterations()) * kBatch);
   state.counters["placed"] = double(placed) / double(state.iterations() * kBatch);
   state.counters["movesPerAdd"] =
       double(m.ctx->stats()->moveRoute(t) - moves0) / double(state.iterations() * kBatch);
}

void BM_AddRoute6(benchmark::State& state) {
   addRoute6At(state, false);
}
BENCHMARK(BM_AddRoute6)->ArgsProduct({{50, 90}, {48, 128}});

void BM_AddRoute6EmptyBaseline(benchmark::State& state) {
   addRoute6At(state, true);
}
BENCHMARK(BM_AddRoute6EmptyBaseline)->ArgsProduct({{0}, {48, 128}});

std::vector<Ipv4UcastKey> ipv4Routes(size_t n, uint64_t seed) {
   std::mt19937_64 rng(seed);
   std::vector<Ipv4UcastKey> out;
   std::unordered_set<Ipv4UcastKey> seen;
   while (out.size() < n) {
      const uint32_t r = uint32_t(rng() % 10);
      const uint32_t len = r < 6 ? 24 : r < 8 ? 25 + uint32_t(rng() % 8) : 8 + uint32_t(rng() % 16);
      Ipv4UcastKey key(VrfId(0), Ulo::Prefix(uint32_t(rng()) & (~0u << (32 - len)), uint8_t(len)));
      if (seen.insert(key).second) out.push_back(key);
   }
   return out;
}

// The IPv4 routes standing below `border`, after filling 60 % of the table.
struct BorderSetup {
   bench::AckedContext m = model(true, true);
   std::vector<Ipv4UcastKey> below;
   uint32_t step = 0;
   BorderSetup() {
      const auto keys = ipv4Routes(2 * kTableSize, 5);
      for (size_t i = 0; i < keys.size() && m.ctx->entries(RouteType::v4) < kTableSize * 60 / 100;
           ++i) {
         m.ctx->addRoute4(keys[i], false);
      }
      step = m.ctx->reallocationStep();
      m.ctx->v4()->forEachKeys([&](uint32_t pos, const Ipv4Keys& k) {
         if (pos >= step) return;
         if (!k.left.isNull()) below.push_back(k.left);
         if (!k.right.isNull()) below.push_back(k.right);
      });
   }
};

void BM_Reallocate(benchmark::State& state) {
   uint64_t moved = 0, below = 0;
   for (auto _ : state) {
      state.PauseTiming();
      auto s = std::make_unique<BorderSetup>();  // the same table every time
      const uint64_t moves0 = s->m.ctx->stats()->moveRoute(RouteType::v4);
      state.ResumeTiming();
      if (!s->m.ctx->reallocate(s->step, false)) {
         state.SkipWithError("reallocation refused");
         break;
      }
      state.PauseTiming();
      moved += s->m.ctx->stats()->moveRoute(RouteType::v4) - moves0;
      below = s->below.size();
      s.reset();
      state.ResumeTiming();
   }
   state.counters["movesPerReallocation"] = double(moved) / double(state.iterations());
   state.counters["routesBelow"] = double(below);
}
BENCHMARK(BM_Reallocate)->Unit(benchmark::kMillisecond)->Iterations(8);

void BM_ReallocateBaseline(benchmark::State& state) {
   BorderSetup s;
   for (auto _ : state) {
      // Without reallocation an agent clears the region by withdrawing and re-announcing.
      for (const Ipv4UcastKey& k : s.below)
         s.m.ctx->deleteRoute4(k, true, 0);
      for (const Ipv4UcastKey& k : s.below)
         s.m.ctx->addRoute4(k, false);
   }
   state.counters["routesBelow"] = double(s.below.size());
}
BENCHMARK(BM_ReallocateBaseline)->Unit(benchmark::kMicrosecond);

}  // namespace
