// Hardware writes under the placement policies, on synthetic Internet-like tables
// (sim/SyntheticTable.h), with weights from another mix than the tables' (IPv4 38 % /24, 37 %
// /22-/23, the rest spread; IPv6 30 % /48, 20 % /32, the rest spread), so that the weighted policy
// is not tuned to its own input. Two table entries of 16 K and 256 K, mode 2, eight blocks, two
// IPv4 routes per entry; with IPv6, routes up to /64 in the single-size region, which lies inside
// the IPv4 block (the two families share its free entries).
//
//   Placement/<policy>/<entries>/<fill %>/<ipv6>/<seed>
//       policy 0 classic, 1 weighted, 2 classic load, then weighted with one rebalance before
//       the churn. Adds the table's routes until each partition holds fill % of the routes it
//       can, then churns at that fill: withdraws a random installed route and announces a new
//       prefix of the same family, for 20 000 pairs. Counters (hardware writes are moves plus
//       merges): load_mean, load_p99 (per route), churn_pair (per withdraw + announce), v6_load
//       and v6_churn (per IPv6 insert), rebalance (moves of the one rebalance), ns_op (the model
//       alone: the same operations replayed on a twin whose writer only acknowledges), heap_route
//       (heap bytes per installed route). Baseline, same run: end_load and end_churn, the moves
//       the same operations take when all free entries stay at the end of the block (an insert
//       that needs an entry moves one entry per non-empty shorter length; a delete that frees one
//       closes the hole the same way, plus one).
//   BorderMove/<policy>/<in ranges>/<entries>
//       a moving-border paired table loaded with IPv4 routes (60 % of its entries' worth), then
//       the first IPv6 route, which moves the border by four blocks: moves of that insert,
//       the IPv4 entries that stood in the way, prefix lengths present, and the model's time.
//
// Run: build/release/bench/L3TcamPlacementBench --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <vector>

#include "TcamBenchSupport.h"
#include "sim/SyntheticTable.h"

using namespace VexloL3Common;

namespace {

PlacementWeights otherMix() {
   PlacementWeights w;
   for (uint32_t len = 8; len <= 32; ++len)
      w.v4[len] = 40;
   w.v4[24] = 3800, w.v4[23] = 1800, w.v4[22] = 1900, w.v4[21] = 700, w.v4[20] = 600;
   w.v4[19] = 350, w.v4[18] = 250, w.v4[16] = 200;
   for (uint32_t len = 16; len <= 64; ++len)
      w.v6[len] = 60;
   w.v6[48] = 3000, w.v6[32] = 2000, w.v6[44] = 800, w.v6[40] = 800, w.v6[56] = 800;
   w.v6[64] = 600, w.v6[36] = 500, w.v6[29] = 300;
   return w;
}

int64_t heapBytes() {
   return int64_t(mallinfo2().uordblks);
}

// One operation of a run, replayed on the timing twin.
struct Op {
   bool add;
   bool v6;
   uint32_t index;  // into the run's IPv4 or IPv6 routes
};

struct Histogram {
   std::vector<uint64_t> counts;
   uint64_t ops = 0, total = 0;
   void add(uint64_t m) {
      if (m >= counts.size()) counts.resize(m + 1);
      ++counts[m], ++ops, total += m;
   }
   double mean() const { return ops ? double(total) / double(ops) : 0; }
   uint64_t p99() const {
      uint64_t seen = 0;
      for (size_t m = 0; m < counts.size(); ++m) {
         seen += counts[m];
         if (seen * 100 >= ops * 99) return m;
      }
      return 0;
   }
};

class Run {
 public:
   Run(uint32_t entries, int policy) : cfg_(config(entries, policy)), policy_(policy) {}

   static L3TcamManagerContext::Config config(uint32_t entries, int policy) {
      auto c = bench::benchConfig();
      c.tcamSize = entries;
      c.placementWeights = otherMix();
      c.placementPolicy = policy == 1 ? PlacementPolicy::weighted : PlacementPolicy::classic;
      return c;
   }

   void routes(uint32_t fill, bool v6, uint64_t seed, uint32_t pairs) {
      bench::AckedContext probe(cfg_);
      const L3TcamManagerContext& c = *probe.ctx;
      // With IPv6, the IPv6 region lies inside the IPv4 block and the two share its free
      // entries: a fifth of them go to IPv6 routes (one entry each), the rest to IPv4 routes
      // (two per entry).
      const uint64_t usable = c.entriesFree(RouteType::v4) - c.swapAreaSize(RouteType::v4);
      want6_ = v6 ? usable / 5 * fill / 100 : 0;
      want4_ = (usable - (v6 ? usable / 5 : 0)) * 2 * fill / 100;
      sim::SyntheticMix mix;
      mix.v4 = want4_ + pairs + 1000;
      mix.v6 = want6_ ? want6_ * 2 + pairs : 0;
      mix.seed = seed;
      for (const sim::Route& r : sim::syntheticTable(mix)) {
         if (r.family == sim::Route::Family::v4) v4_.push_back(r.v4);
         if (r.family == sim::Route::Family::v6 && r.v6.len() <= 64) v6_.push_back(r.v6);
      }
      where4_.assign(v4_.size(), 0);
      where6_.assign(v6_.size(), 0);
   }

   // The load and the churn on a context whose moves are counted; records the operations.
   void measure(uint32_t pairs, uint64_t seed, benchmark::State& state) {
      bench::AckedContext a(cfg_);
      uint64_t writes = 0;
      Ulo::Subscription s1 = a.move->changed().subscribe([&](const RoutePosition&) { ++writes; });
      Ulo::Subscription s2 =
          a.merge->changed().subscribe([&](const RouteMergeInfo&) { ++writes, ++merges_; });
      ctx_ = a.ctx.get();
      loading_ = true;
      size_t next4 = 0, next6 = 0;
      while (in4_.size() < want4_ || in6_.size() < want6_) {
         const bool v6 =
             in6_.size() < want6_ && (in4_.size() >= want4_ || next6 * want4_ < next4 * want6_);
         const uint64_t before = writes;
         // A refused route ends its family's load: the partition is as full as it gets.
         if (!apply({true, v6, uint32_t(v6 ? next6++ : next4++)})) {
            (v6 ? want6_ : want4_) = (v6 ? in6_ : in4_).size();
            ++refused_;
         }
         (v6 ? v6Load_ : load_).add(writes - before);
      }
      loading_ = false;
      if (std::getenv("PLACEMENT_SHOW")) ctx_->showSoftwareTcamTableIndexRange(2);
      loadOps_ = ops_.size();
      loadedRoutes_ = in4_.size() + in6_.size();
      if (policy_ == 2) {
         ctx_->placementPolicyIs(PlacementPolicy::weighted);
         rebalance_ = ctx_->rebalance(~uint64_t(0));
      }
      std::mt19937_64 rng(seed);
      const uint64_t mergesAtLoad = merges_;
      for (uint32_t p = 0; p < pairs; ++p) {
         const bool v6 = want6_ && rng() % (want4_ + want6_) < want6_;
         std::vector<uint32_t>& in = v6 ? in6_ : in4_;
         const uint64_t before = writes;
         apply({false, v6, in[rng() % in.size()]});
         const uint64_t afterDelete = writes;
         refused_ += !apply({true, v6, uint32_t(v6 ? next6++ : next4++)});
         churn_.add(writes - before);
         if (v6) v6Churn_.add(writes - afterDelete);
      }
      ctx_ = nullptr;
      state.counters["load_mean"] = load_.mean();
      state.counters["load_p99"] = double(load_.p99());
      state.counters["churn_pair"] = churn_.mean();
      state.counters["churn_merge"] = double(merges_ - mergesAtLoad) / double(pairs);
      state.counters["churn_move"] = churn_.mean() - double(merges_ - mergesAtLoad) / double(pairs);
      state.counters["refused"] = double(refused_);
      state.counters["end_load"] = double(endLoad_) / double(load_.ops + v6Load_.ops);
      state.counters["end_churn"] = double(endChurn_) / double(pairs);
      state.counters["rebalance"] = double(rebalance_);
      if (want6_) {
         state.counters["v6_load"] = v6Load_.mean();
         state.counters["v6_churn"] = v6Churn_.mean();
      }
   }

   // The same operations on a twin that only acknowledges: the model's time and heap.
   void time(benchmark::State& state) {
      const int64_t heap0 = heapBytes();
      bench::AckedContext a(cfg_);
      ctx_ = a.ctx.get();
      replaying_ = true;
      in4_.clear(), in6_.clear();
      const auto t0 = std::chrono::steady_clock::now();
      size_t i = 0;
      for (; i < loadOps_; ++i)
         apply(ops_[i]);
      const int64_t heapLoaded = heapBytes();
      if (policy_ == 2) {
         ctx_->placementPolicyIs(PlacementPolicy::weighted);
         ctx_->rebalance(~uint64_t(0));
      }
      for (; i < ops_.size(); ++i)
         apply(ops_[i]);
      const auto ns =
          std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0);
      state.counters["ns_op"] = ns.count() / double(ops_.size());
      state.counters["heap_route"] = double(heapLoaded - heap0) / double(loadedRoutes_);
      ctx_ = nullptr;
   }

 private:
   // False when an add was refused.
   bool apply(const Op& op) {
      const RouteType t = op.v6 ? RouteType::v6Half : RouteType::v4;
      const uint32_t before = ctx_->block(t)->bitmap()->count();
      const uint32_t len = op.v6 ? v6_[op.index].len() : v4_[op.index].len();
      if (!replaying_) ops_.push_back(op);
      if (op.add) {
         const uint32_t id = op.v6 ? ctx_->addRoute6(v6_[op.index], false).routeId
                                   : ctx_->addRoute4(v4_[op.index], false).routeId;
         if (id == 0) return false;
         std::vector<uint32_t>& in = op.v6 ? in6_ : in4_;
         (op.v6 ? where6_ : where4_)[op.index] = uint32_t(in.size());
         in.push_back(op.index);
      } else {
         remove(op);
      }
      if (replaying_) return true;
      // The layout with every free entry at the end of the block, for the same operation.
      if (ctx_->block(t)->bitmap()->count() != before) {
         (loading_ ? endLoad_ : endChurn_) += shorterLengths(t, len) + (op.add ? 0 : 1);
      }
      return true;
   }

   void remove(const Op& op) {
      std::vector<uint32_t>& in = op.v6 ? in6_ : in4_;
      std::vector<uint32_t>& where = op.v6 ? where6_ : where4_;
      const uint32_t at = where[op.index];
      in[at] = in.back();
      where[in[at]] = at;
      in.pop_back();
      if (op.v6) {
         ctx_->deleteRoute6(v6_[op.index]);
         return;
      }
      const RouteReturnCode rc = ctx_->deleteRoute4(v4_[op.index], true, ++sequence_);
      if (rc.canMerge) ctx_->mergeRoute4(v4_[op.index], rc.routeId, rc.mergePos, sequence_);
   }

   uint32_t shorterLengths(RouteType t, uint32_t len) const {
      uint32_t n = 0;
      ctx_->block(t)->forEachLengthRange([&](uint32_t k, const IndexRange&) { n += k < len; });
      return n;
   }

   L3TcamManagerContext::Config cfg_;
   int policy_;
   L3TcamManagerContext* ctx_ = nullptr;
   bool replaying_ = false, loading_ = false;
   uint64_t want4_ = 0, want6_ = 0, endLoad_ = 0, endChurn_ = 0, rebalance_ = 0, sequence_ = 0;
   uint64_t refused_ = 0, merges_ = 0;
   size_t loadOps_ = 0, loadedRoutes_ = 0;
   std::vector<Ipv4UcastKey> v4_;
   std::vector<Ipv6UcastKey> v6_;
   // Installed routes (indices into v4_ / v6_), and where each stands in that list.
   std::vector<uint32_t> in4_, in6_, where4_, where6_;
   std::vector<Op> ops_;
   Histogram load_, v6Load_, churn_, v6Churn_;
};

void placement(benchmark::State& state) {
   const int policy = int(state.range(0));
   const uint32_t entries = uint32_t(state.range(1)), fill = uint32_t(state.range(2));
   const bool v6 = state.range(3) != 0;
   const uint64_t seed = uint64_t(state.range(4));
   constexpr uint32_t pairs = 20000;
   for (auto _ : state) {
      Run run(entries, policy);
      run.routes(fill, v6, seed, pairs);
      run.measure(pairs, seed, state);
      run.time(state);
   }
}

void borderMove(benchmark::State& state) {
   auto c = bench::benchConfig();
   c.tcamSize = uint32_t(state.range(2));
   c.supportsDefipPairing = true;
   c.dynamicV4V6Boundary = true;
   c.placementPolicy = state.range(0) ? PlacementPolicy::weighted : PlacementPolicy::classic;
   c.placementWeights = otherMix();
   c.borderMoveInRanges = state.range(1) != 0;
   sim::SyntheticMix mix;
   mix.v4 = c.tcamSize * 6 / 10;
   mix.seed = 1;
   const std::vector<sim::Route> table = sim::syntheticTable(mix);
   for (auto _ : state) {
      bench::AckedContext a(c);
      uint64_t moves = 0;
      Ulo::Subscription s = a.move->changed().subscribe([&](const RoutePosition&) { ++moves; });
      for (const sim::Route& r : table)
         a.ctx->addRoute4(r.v4, false);
      const TcamBlock& v4 = *a.ctx->block(RouteType::v4);
      const uint32_t newBorder = a.ctx->reallocationStep();
      state.counters["in_the_way"] = v4.bitmap()->count(1, newBorder - 1);
      state.counters["v4_entries"] = v4.bitmap()->count();
      uint32_t lengths = 0;
      v4.forEachLengthRange([&](uint32_t, const IndexRange&) { ++lengths; });
      state.counters["lengths"] = lengths;
      moves = 0;
      const auto t0 = std::chrono::steady_clock::now();
      const uint32_t id =
          a.ctx
              ->addRoute6(Ipv6UcastKey(VrfId(0), Ulo::Ip6Prefix::fromString("2001:db8::/48")),
                          false)
              .routeId;
      const auto ms =
          std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0);
      state.counters["moves"] = double(moves);
      state.counters["model_ms"] = ms.count();
      state.counters["border"] = a.ctx->v4V6Border();
      if (id == 0) state.SkipWithError("the IPv6 route was refused");
   }
}

}  // namespace

BENCHMARK(placement)
    ->ArgNames({"policy", "entries", "fill", "ipv6", "seed"})
    ->ArgsProduct({{0, 1, 2}, {16384}, {85}, {0, 1}, {1, 2}})
    ->ArgsProduct({{0, 1, 2}, {262144}, {90, 95}, {0}, {1, 2}})
    ->ArgsProduct({{0, 1}, {262144}, {90}, {1}, {1, 2}})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

BENCHMARK(borderMove)
    ->ArgNames({"weighted", "inRanges", "entries"})
    ->ArgsProduct({{0, 1}, {0, 1}, {4096, 131072}})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
