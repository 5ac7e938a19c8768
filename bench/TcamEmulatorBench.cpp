// What the emulator's per-move check costs beside the model it checks, on the same operations in
// the same run:
//   Model      the context with a writer that acknowledges at once (how an agent's model runs)
//   Emulated   the emulator carries out every move and merge, checking after each one what it
//              changed (the default of tests, the fuzzer and `vexlo-tcam simulate --check`)
//   Unchecked  the emulator carries out every move and merge and checks nothing
// Each iteration loads a table and then withdraws every other route and announces new prefixes
// in their place, so that deletes, merges and moves of a full table are all timed. Two tables:
// the bundled default (28 000 Internet-like IPv4 routes into 16 384 entries, mode 2, two routes
// per entry, about 85 % full) and a 262 144-entry table of the same kind at about 90 %.
// Counter nsPerOp: time per route operation (add or delete), setup excluded.
//
// Freed memory stays with the process (M_TRIM_THRESHOLD, and no block in a mapping of its own:
// M_MMAP_MAX 0), and every row first loads its table once untimed: each iteration builds its
// tables anew, and memory new to the process is faulted in page by page, at up to 20 us a fault
// on a virtual machine. Without both, a row measured the machine's page faults (half the emulated
// time on the default table), and on the large table, timed once, the first row paid for the
// memory that the later rows reused.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "VexloL3Common/tcam/L3TcamTable.h"
#include "sim/EmulatedTable.h"
#include "sim/SyntheticTable.h"

using namespace VexloL3Common;

namespace {

[[maybe_unused]] const bool freedMemoryKept = [] {
   return mallopt(M_TRIM_THRESHOLD, 1 << 30) == 1 && mallopt(M_MMAP_MAX, 0) == 1;
}();

enum class Writer : int { model, emulated, unchecked };

struct Workload {
   uint32_t size;
   std::vector<sim::Route> load;   // placed first
   std::vector<sim::Route> fresh;  // announced while every other loaded route is withdrawn
};

const Workload& workload(int which) {
   static const Workload small = [] {
      sim::SyntheticMix mix;
      mix.v4 = 28000 + 7000;
      mix.seed = 1;
      std::vector<sim::Route> all = sim::syntheticTable(mix);
      return Workload{16384, {all.begin(), all.begin() + 28000}, {all.begin() + 28000, all.end()}};
   }();
   static const Workload large = [] {
      sim::SyntheticMix mix;
      mix.v4 = 471000 + 100000;
      mix.seed = 2;
      std::vector<sim::Route> all = sim::syntheticTable(mix);
      return Workload{
          262144, {all.begin(), all.begin() + 471000}, {all.begin() + 471000, all.end()}};
   }();
   return which == 0 ? small : large;
}

L3TcamManagerContext::Config configFor(uint32_t size) {
   L3TcamManagerContext::Config c;
   c.tcamSize = size;
   c.tcamMode = 2;
   c.numUcastDefipBlocks = 8;
   c.twoV4RoutesPerEntry = true;
   return c;
}

void BM_LoadAndChurn(benchmark::State& state) {
   const Workload& w = workload(int(state.range(0)));
   const auto writer = Writer(state.range(1));
   uint64_t ops = 0, moves = 0;
   {
      sim::EmulatedTable warm(configFor(w.size), false, writer != Writer::model);
      for (const sim::Route& r : w.load)
         warm.add(r);
   }
   for (auto _ : state) {
      state.PauseTiming();
      auto t =
          std::make_unique<sim::EmulatedTable>(configFor(w.size), false, writer != Writer::model);
      if (writer == Writer::unchecked) t->emu()->checkEveryMoveIs(false);
      std::vector<bool> placed(w.load.size());
      state.ResumeTiming();
      for (size_t i = 0; i < w.load.size(); ++i)
         placed[i] = t->add(w.load[i]);
      ops += w.load.size();
      for (size_t i = 0, j = 0; i < w.load.size(); i += 2) {
         if (placed[i]) t->del(w.load[i]);
         ++ops;
         if (j < w.fresh.size()) {
            t->add(w.fresh[j++]);
            ++ops;
         }
      }
      state.PauseTiming();
      moves += t->moves();
      if (t->emu()) benchmark::DoNotOptimize(t->emu()->errorCount());
      t.reset();
      state.ResumeTiming();
   }
   state.counters["nsPerOp"] =
       benchmark::Counter(double(ops), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
   state.counters["movesPerOp"] = double(moves) / double(ops);
}
BENCHMARK(BM_LoadAndChurn)
    ->ArgNames({"table", "writer"})
    ->ArgsProduct({{0}, {0, 1, 2}})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadAndChurn)
    ->ArgNames({"table", "writer"})
    ->ArgsProduct({{1}, {0, 1, 2}})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
