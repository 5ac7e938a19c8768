// IPv4 placement on a 16 K-entry table (mode 2, two routes per entry), tracing off:
//   Fill     time to place ~28 000 Internet-like routes in random order (about 85 % of entries)
//   Churn    withdraw and re-announce routes placed before, at about 90 % fill
//   Baseline the textbook layout with all free space at the end of the table and one move per
//            intervening length, measured on the same routes in the same run
// Counters: moves per insert and model memory per route (live heap bytes of the model, counted
// by this program's operator new/delete) and heap allocations during the churn (the model makes
// none once its table has reached its working size).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <new>
#include <random>
#include <unordered_set>
#include <vector>

#include "TcamBenchSupport.h"
#include "VexloL3Common/tcam/L3TcamTable.h"

namespace {
std::atomic<int64_t> liveBytes{0};
std::atomic<int64_t> allocations{0};
}  // namespace

void* operator new(size_t n) {
   void* p = std::malloc(n + 16);
   if (!p) throw std::bad_alloc();
   *static_cast<size_t*>(p) = n;
   liveBytes += int64_t(n);
   ++allocations;
   return static_cast<char*>(p) + 16;
}
void operator delete(void* p) noexcept {
   if (!p) return;
   char* base = static_cast<char*>(p) - 16;
   liveBytes -= int64_t(*reinterpret_cast<size_t*>(base));
   std::free(base);
}
void operator delete(void* p, size_t) noexcept {
   operator delete(p);
}

using namespace VexloL3Common;

namespace {

using Model = bench::AckedContext;
using bench::internetLike;

constexpr uint32_t kTableSize = 16384;
constexpr size_t kFillRoutes = 28000;

const std::vector<Ipv4UcastKey>& routes() {
   static const std::vector<Ipv4UcastKey> r = internetLike(kFillRoutes + 4000, 42);
   return r;
}

// The textbook layout: lengths packed longest first from index 1, all free space after the last
// entry. An insert moves the first entry of every shorter length to the end of that length; a
// delete closes the hole the same way, so free space stays at the end.
class Baseline {
 public:
   explicit Baseline(uint32_t size) : size_(size) {}
   bool add(uint32_t len) {
      if (used_ + 1 >= size_) return false;
      // The hole starts after the last entry and climbs past every shorter length.
      for (uint32_t k = 0; k < len; ++k)
         moves_ += count_[k] != 0;
      ++count_[len];
      ++used_;
      return true;
   }
   void del(uint32_t len) {
      // The last entry of the route's own length fills the hole, then the last entry of every
      // shorter length fills the one above it.
      moves_ += count_[len] > 1;
      for (uint32_t k = 0; k < len; ++k)
         moves_ += count_[k] != 0;
      --count_[len];
      --used_;
   }
   uint64_t moves() const { return moves_; }

 private:
   uint32_t size_;
   uint32_t used_ = 0;
   std::array<uint32_t, 33> count_{};
   uint64_t moves_ = 0;
};

void BM_Fill(benchmark::State& state) {
   const auto& r = routes();
   uint64_t moves = 0, placed = 0;
   int64_t bytes = 0;
   for (auto _ : state) {
      state.PauseTiming();
      const int64_t before = liveBytes.load();
      auto m = std::make_unique<Model>();
      state.ResumeTiming();
      for (size_t i = 0; i < kFillRoutes; ++i)
         placed += m->ctx->addRoute4(r[i], false).routeId != 0;
      state.PauseTiming();
      moves += m->moves();
      bytes = liveBytes.load() - before;
      m.reset();
      state.ResumeTiming();
   }
   const double iters = double(state.iterations());
   state.counters["routes"] = double(placed) / iters;
   state.counters["movesPerInsert"] = double(moves) / double(placed);
   state.counters["bytesPerRoute"] = double(bytes) / (double(placed) / iters);
}
BENCHMARK(BM_Fill)->Unit(benchmark::kMillisecond);

void BM_FillBaseline(benchmark::State& state) {
   const auto& r = routes();
   uint64_t moves = 0, placed = 0;
   for (auto _ : state) {
      Baseline b(kTableSize * 2);  // two routes per entry: count halves
      for (size_t i = 0; i < kFillRoutes; ++i)
         placed += b.add(r[i].len());
      moves += b.moves();
      benchmark::DoNotOptimize(b);
   }
   state.counters["movesPerInsert"] = double(moves) / double(placed);
}
BENCHMARK(BM_FillBaseline)->Unit(benchmark::kMillisecond);

// Withdraw and re-announce at about 90 % fill; each iteration is two updates.
void BM_Churn(benchmark::State& state) {
   const auto& r = routes();
   Model m;
   std::vector<size_t> present;
   size_t next = 0;
   const uint32_t entriesTarget = kTableSize * 90 / 100;
   while (m.ctx->entries(RouteType::v4) < entriesTarget && next < r.size()) {
      if (m.ctx->addRoute4(r[next], false).routeId) present.push_back(next);
      ++next;
   }
   std::mt19937_64 rng(7);
   const uint64_t movesBefore = m.moves();
   const int64_t allocsBefore = allocations.load();
   uint64_t readds = 0, refused = 0;
   for (auto _ : state) {
      const Ipv4UcastKey& key = r[present[rng() % present.size()]];
      m.ctx->deleteRoute4(key, true, 0);
      if (m.ctx->addRoute4(key, false).routeId)
         ++readds;
      else
         ++refused;
   }
   const int64_t allocs = allocations.load() - allocsBefore;
   state.SetItemsProcessed(int64_t(state.iterations()) * 2);
   state.counters["fillEntries"] = double(m.ctx->entries(RouteType::v4)) / kTableSize;
   state.counters["movesPerInsert"] = double(m.moves() - movesBefore) / double(readds + refused);
   state.counters["refused"] = double(refused);
   state.counters["allocations"] = double(allocs);
}
BENCHMARK(BM_Churn);

// Withdraw one route and announce a different one withdrawn earlier, at about 90 % fill: the
// announced route rarely finds its own old place free, so this one moves entries.
void BM_ChurnRotate(benchmark::State& state) {
   const auto& r = routes();
   Model m;
   std::vector<size_t> present;
   std::vector<size_t> withdrawn;  // a queue without allocations: popped from `head`
   size_t next = 0;
   const uint32_t entriesTarget = kTableSize * 90 / 100;
   while (m.ctx->entries(RouteType::v4) < entriesTarget && next < r.size()) {
      if (m.ctx->addRoute4(r[next], false).routeId) present.push_back(next);
      ++next;
   }
   for (; next < r.size(); ++next)
      withdrawn.push_back(next);
   withdrawn.reserve(r.size() * 2);
   size_t head = 0;
   const auto push = [&](size_t i) {
      if (withdrawn.size() == withdrawn.capacity()) {  // compact before the vector would grow
         withdrawn.erase(withdrawn.begin(), withdrawn.begin() + std::ptrdiff_t(head));
         head = 0;
      }
      withdrawn.push_back(i);
   };
   std::mt19937_64 rng(9);
   const uint64_t movesBefore = m.moves();
   const int64_t allocsBefore = allocations.load();
   uint64_t adds = 0, refused = 0;
   for (auto _ : state) {
      const size_t slot = rng() % present.size();
      m.ctx->deleteRoute4(r[present[slot]], true, 0);
      push(present[slot]);
      const size_t in = withdrawn[head++];
      if (m.ctx->addRoute4(r[in], false).routeId) {
         present[slot] = in;
         ++adds;
      } else {
         present[slot] = present.back();
         present.pop_back();
         push(in);
         ++refused;
      }
   }
   const int64_t allocs = allocations.load() - allocsBefore;
   state.SetItemsProcessed(int64_t(state.iterations()) * 2);
   state.counters["fillEntries"] = double(m.ctx->entries(RouteType::v4)) / kTableSize;
   state.counters["movesPerInsert"] = double(m.moves() - movesBefore) / double(adds + refused);
   state.counters["refused"] = double(refused);
   state.counters["allocations"] = double(allocs);
}
BENCHMARK(BM_ChurnRotate);

void BM_ChurnBaseline(benchmark::State& state) {
   const auto& r = routes();
   Baseline b(kTableSize * 2);
   std::vector<uint32_t> lens;
   for (size_t i = 0; lens.size() < kTableSize * 2 * 90 / 100; ++i) {
      if (b.add(r[i].len())) lens.push_back(r[i].len());
   }
   std::mt19937_64 rng(7);
   const uint64_t before = b.moves();
   for (auto _ : state) {
      uint32_t len = lens[rng() % lens.size()];
      b.del(len);
      b.add(len);
   }
   state.SetItemsProcessed(int64_t(state.iterations()) * 2);
   state.counters["movesPerUpdate"] = double(b.moves() - before) / double(state.iterations() * 2);
}
BENCHMARK(BM_ChurnBaseline);

}  // namespace

namespace {

// Laying out a 64 K-entry context: blocks, bitmaps, borders and reserved entries, and its first
// route placed (arrays that grow on demand are counted too), for four layouts. Baseline: clearing
// one 8-byte word per entry, what a layout that touched every entry once would cost at least.
L3TcamManagerContext::Config layoutConfig(int64_t kind) {
   L3TcamManagerContext::Config c = bench::benchConfig();
   c.tcamSize = 65536;
   switch (kind) {
      case 1:  // double-size IPv6 entries below a fixed pairing border
         c.supportsDefipPairing = true;
         break;
      case 2:  // pairing, the IPv4/IPv6 border moving with demand, 16 blocks
         c.supportsDefipPairing = true;
         c.dynamicV4V6Boundary = true;
         c.numUcastDefipBlocks = 16;
         break;
      case 3:  // IPv4 and IPv6 blocks interleaved, pairing
         c.supportsDefipPairing = true;
         c.v4V6InterleavingDisabled = false;
         break;
      default:  // separate IPv4 and IPv6 partitions
         break;
   }
   return c;
}

void BM_Layout64K(benchmark::State& state) {
   const L3TcamManagerContext::Config c = layoutConfig(state.range(0));
   static const char* const names[] = {"separate", "pairing", "moving border", "interleaved"};
   state.SetLabel(names[state.range(0)]);
   const Ipv4UcastKey first(VrfId(0), Ulo::Prefix(0x0a000000u, 24));
   for (auto _ : state) {
      Ulo::Ptr<L3TcamManagerContext> ctx = l3TcamManagerContextFactory(c);
      ctx->handleInitialized(true);
      if (ctx->addRoute4(first, false).routeId == 0) state.SkipWithError("first route refused");
      state.PauseTiming();
      ctx.reset();
      state.ResumeTiming();
   }
}
BENCHMARK(BM_Layout64K)->DenseRange(0, 3)->Unit(benchmark::kMicrosecond);

void BM_Layout64KBaseline(benchmark::State& state) {
   for (auto _ : state) {
      std::vector<uint64_t> words(65536);
      benchmark::DoNotOptimize(words.data());
      benchmark::ClobberMemory();
   }
}
BENCHMARK(BM_Layout64KBaseline)->Unit(benchmark::kMicrosecond);

}  // namespace
