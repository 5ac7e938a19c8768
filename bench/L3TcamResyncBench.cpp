// Rebuilding a full 16 K-entry IPv4 context (mode 2, 8 blocks, two routes per entry) from its
// hardware image after a restart, tracing off:
//   Rebuild    rebuildFromHardware of the whole image into a fresh context
//   AtIndex    the same routes placed one half at a time with addRoute4AtIndex (each checked
//              against the live model), in ascending index
//   Baseline   the same routes added with addRoute4 into an empty context, in the order that
//              filled the table, with a writer that acknowledges every move
// Routes: an Internet-like length mix (about 60 % /24, 12 % /22, 10 % /23, 6 % /21, 5 % /20, the
// rest /8-/19 and a few longer than /24, a third of them more-specifics of earlier routes), added
// until the table refuses one.
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

using Model = bench::AckedContext;
using bench::internetLike;

// The routes that filled the table, in the order they were added, and the image they left.
struct Full {
   std::vector<Ipv4UcastKey> routes;
   std::vector<TcamHardwareEntry> image;
   uint32_t entries = 0;
};

const Full& full() {
   static const Full f = [] {
      Full out;
      Model m;
      for (const Ipv4UcastKey& k : internetLike(3 * kTableSize, 7)) {
         if (m.ctx->addRoute4(k, true).routeId == 0) break;
         out.routes.push_back(k);
      }
      m.ctx->v4()->forEachKeys([&](uint32_t pos, const Ipv4Keys& keys) {
         TcamHardwareEntry e;
         e.pos = pos;
         e.kind = TcamHardwareEntry::Kind::v4;
         e.v4 = keys;
         out.image.push_back(e);
      });
      out.entries = m.ctx->entries(RouteType::v4);
      return out;
   }();
   return f;
}

void report(benchmark::State& state) {
   state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(full().routes.size()));
   state.counters["routes"] = double(full().routes.size());
   state.counters["entries"] = double(full().entries);
}

void BM_Rebuild(benchmark::State& state) {
   const Full& f = full();
   for (auto _ : state) {
      state.PauseTiming();
      auto m = std::make_unique<Model>();
      state.ResumeTiming();
      m->ctx->rebuildFromHardware(f.image);
      benchmark::DoNotOptimize(m->ctx->entries(RouteType::v4));
      state.PauseTiming();
      m.reset();  // the context is freed outside the timing
      state.ResumeTiming();
   }
   report(state);
}
BENCHMARK(BM_Rebuild)->Unit(benchmark::kMillisecond);

void BM_AtIndex(benchmark::State& state) {
   const Full& f = full();
   for (auto _ : state) {
      state.PauseTiming();
      auto m = std::make_unique<Model>();
      state.ResumeTiming();
      for (const TcamHardwareEntry& e : f.image) {
         if (!e.v4.right.isNull()) m->ctx->addRoute4AtIndex(e.v4.right, e.pos, true);
         if (!e.v4.left.isNull()) m->ctx->addRoute4AtIndex(e.v4.left, e.pos, false);
      }
      benchmark::DoNotOptimize(m->ctx->entries(RouteType::v4));
      state.PauseTiming();
      m.reset();
      state.ResumeTiming();
   }
   report(state);
}
BENCHMARK(BM_AtIndex)->Unit(benchmark::kMillisecond);

void BM_AddRoute4Baseline(benchmark::State& state) {
   const Full& f = full();
   uint64_t moves = 0;
   for (auto _ : state) {
      state.PauseTiming();
      auto m = std::make_unique<Model>();
      state.ResumeTiming();
      for (const Ipv4UcastKey& k : f.routes)
         m->ctx->addRoute4(k, true);
      benchmark::DoNotOptimize(m->ctx->entries(RouteType::v4));
      state.PauseTiming();
      moves += m->ctx->stats()->moveRoute(RouteType::v4);
      m.reset();
      state.ResumeTiming();
   }
   report(state);
   state.counters["movesPerInsert"] =
       double(moves) / double(state.iterations()) / double(f.routes.size());
}
BENCHMARK(BM_AddRoute4Baseline)->Unit(benchmark::kMillisecond);

}  // namespace
