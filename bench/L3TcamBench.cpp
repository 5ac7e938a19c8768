// IPv4 placement on a 16 K-entry table (mode 2, two routes per entry), tracing off:
//   Fill     time to place ~28 000 Internet-like routes in random order (about 85 % of entries)
//   Churn    withdraw and re-announce routes placed before, at about 90 % fill
//   Baseline the textbook layout with all free space at the end of the table and one move per
//            intervening length, measured on the same routes in the same run
// Counters: moves per insert and model memory per route (live heap bytes of the model, counted
// by this program's operator new/delete).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <deque>
#include <new>
#include <random>
#include <unordered_set>
#include <vector>

#include "TcamBenchSupport.h"
#include "VexloL3Common/L3TcamTable.h"

namespace {
std::atomic<int64_t> liveBytes{0};
}  // namespace

void* operator new(size_t n) {
   void* p = std::malloc(n + 16);
   if (!p) throw std::bad_alloc();
   *static_cast<size_t*>(p) = n;
   liveBytes += int64_t(n);
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
   uint64_t readds = 0, refused = 0;
   for (auto _ : state) {
      const Ipv4UcastKey& key = r[present[rng() % present.size()]];
      m.ctx->deleteRoute4(key, true, 0);
      if (m.ctx->addRoute4(key, false).routeId)
         ++readds;
      else
         ++refused;
   }
   state.SetItemsProcessed(int64_t(state.iterations()) * 2);
   state.counters["fillEntries"] = double(m.ctx->entries(RouteType::v4)) / kTableSize;
   state.counters["movesPerInsert"] = double(m.moves() - movesBefore) / double(readds + refused);
   state.counters["refused"] = double(refused);
}
BENCHMARK(BM_Churn);

// Withdraw one route and announce a different one withdrawn earlier, at about 90 % fill: the
// announced route rarely finds its own old place free, so this one moves entries.
void BM_ChurnRotate(benchmark::State& state) {
   const auto& r = routes();
   Model m;
   std::vector<size_t> present;
   std::deque<size_t> withdrawn;
   size_t next = 0;
   const uint32_t entriesTarget = kTableSize * 90 / 100;
   while (m.ctx->entries(RouteType::v4) < entriesTarget && next < r.size()) {
      if (m.ctx->addRoute4(r[next], false).routeId) present.push_back(next);
      ++next;
   }
   for (; next < r.size(); ++next)
      withdrawn.push_back(next);
   std::mt19937_64 rng(9);
   const uint64_t movesBefore = m.moves();
   uint64_t adds = 0, refused = 0;
   for (auto _ : state) {
      const size_t slot = rng() % present.size();
      m.ctx->deleteRoute4(r[present[slot]], true, 0);
      withdrawn.push_back(present[slot]);
      const size_t in = withdrawn.front();
      withdrawn.pop_front();
      if (m.ctx->addRoute4(r[in], false).routeId) {
         present[slot] = in;
         ++adds;
      } else {
         present[slot] = present.back();
         present.pop_back();
         withdrawn.push_back(in);
         ++refused;
      }
   }
   state.SetItemsProcessed(int64_t(state.iterations()) * 2);
   state.counters["fillEntries"] = double(m.ctx->entries(RouteType::v4)) / kTableSize;
   state.counters["movesPerInsert"] = double(m.moves() - movesBefore) / double(adds + refused);
   state.counters["refused"] = double(refused);
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

// Laying out a context: blocks, bitmaps, borders and the reserved entries of a 64 K-entry table,
// up to the point where it takes its first route. Baseline: clearing as many bytes as the
// context's position array holds, the least any layout has to touch.
L3TcamManagerContext::Config layoutConfig() {
   L3TcamManagerContext::Config c = bench::benchConfig();
   c.tcamSize = 65536;
   c.numUcastDefipBlocks = 16;
   return c;
}

void BM_Layout64K(benchmark::State& state) {
   const L3TcamManagerContext::Config c = layoutConfig();
   for (auto _ : state) {
      Ulo::Ptr<L3TcamManagerContext> ctx = l3TcamManagerContextFactory(c);
      ctx->handleInitialized(true);
      benchmark::DoNotOptimize(ctx.get());
      state.PauseTiming();
      ctx.reset();
      state.ResumeTiming();
   }
}
BENCHMARK(BM_Layout64K)->Unit(benchmark::kMicrosecond);

}  // namespace
