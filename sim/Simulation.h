// The simulation driver behind `vexlo-tcam`: a unicast and an optional multicast TCAM context,
// each wired to the emulator, driven through a load, a replayed trace or seeded churn, with the
// statistics an operator asks for.
//
// Synopsis
//   SimulationConfig cfg;  cfg.unicast = ...;  cfg.mcastSize = 4096;
//   Simulation sim(cfg);                            std::range_error if a layout refuses it
//   sim.load(routes);                               adds every route, in order
//   sim.replay(ops, "churn.trace");                 InputError naming the line, nothing applied
//   sim.churn(100000, /*seed*/ 7);                  withdraw / re-announce
//   sim.churnNew(100000, 7, *syntheticAnnounces(7)); withdraw / announce a new prefix
//   sim.finish();                                   timing and memory of the model alone
//   const Statistics& st = sim.statistics();
//   std::vector<CapacityRow> rows = sim.capacity(70, 85);
//
// Two passes. Every operation first runs on the emulated tables: the emulator carries out each
// published move and merge (and with `check` verifies the table after each one), and the moves
// per operation, refusals, occupancy and high watermarks are counted there. The operations are
// recorded, and finish() replays them on twin contexts whose writer only acknowledges, timing
// each phase as one loop and counting the twins' heap: the model's own cost, as the benchmarks
// measure it, without the emulator's. The twins must decide exactly as the emulated contexts did;
// a difference is a broken model and fatal.
//
// Refusals are soft: an add with no room leaves the route out and counts it; a later delete of
// such a route (in a trace) is skipped and counted.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "VexloL3Common/tcam/L3TcamTable.h"
#include "sim/AnnounceSource.h"
#include "sim/EmulatedTable.h"
#include "sim/HtmlReport.h"
#include "sim/Refusal.h"
#include "sim/Route.h"

namespace VexloL3Common::sim {

struct SimulationConfig {
   L3TcamManagerContext::Config unicast;  // the writer handles are the simulation's own
   bool urpf = false;
   uint32_t mcastSize = 0;  // 0: no multicast table (multicast routes are then an input error)
   bool check = false;      // the emulator checks the table after every move and merge
   size_t worst = 5;        // updates kept with the most moves (Statistics::worst)
   // Measure free capacity with probe routes everywhere, also where the counts give it exactly
   // (a check of the computation; slow on a large table).
   bool probeCapacity = false;
   // false: the tables are the model alone, with a writer that only acknowledges; no emulated
   // hardware table to check (checkTables verifies the model only) or to draw (reportData needs
   // it). What `capacity` asks needs no more, and a large table costs a fraction of the time.
   bool emulate = true;
   // Capacity probes switch tracing off while they run, which touches the process-wide trace
   // switches. A caller that runs simulations in parallel threads, with tracing off, says false.
   bool silenceProbes = true;
   // Threads the capacity probes run on (each fills a replica of its own); 0: one per core.
   unsigned probeThreads = 0;
   // Probe replicas are rebuilt from the model's image of the hardware; true replays the run's
   // operations instead (slower, and what the rebuild is checked against).
   bool replicaByReplay = false;
   // false: finish() does not replay the run on twins, and there is no model time or memory.
   bool timeModel = true;
   // Live heap bytes of the process, when the program counts them; null: memory is not reported.
   std::function<int64_t()> heapBytes;
};

// What operators size a table by, in report order: IPv4 routes, IPv6 routes that fit a
// single-size entry (/64 or shorter), longer IPv6 routes (double-size entries on a paired table),
// multicast routes. The model may place an IPv6 route in either size of entry; the region is the
// route's, not the entry's.
enum class Region : uint8_t { v4, v6Single, v6Double, mcast };
inline constexpr unsigned numRegions = 4;
std::string_view regionName(Region r);
Region regionOf(const Route& r);

// Moves per operation, exact: counts()[i] operations took i moves.
class MoveHistogram {
 public:
   void add(uint64_t moves);
   uint64_t operations() const { return operations_; }
   uint64_t total() const { return total_; }
   double mean() const { return operations_ ? double(total_) / double(operations_) : 0.0; }
   // The smallest m such that at least p percent of the operations took m moves or fewer.
   uint64_t percentile(double p) const;
   uint64_t max() const { return counts_.empty() ? 0 : counts_.size() - 1; }
   const std::vector<uint64_t>& counts() const { return counts_; }

 private:
   std::vector<uint64_t> counts_;
   uint64_t operations_ = 0;
   uint64_t total_ = 0;
};

struct Statistics {
   struct Family {
      uint64_t placed = 0, refused = 0, deleted = 0, skipped = 0;
   };
   // One loop of the run on the twin contexts: its operations and the model's time for them.
   struct Phase {
      std::string name;  // "load", "replay", "churn"
      uint64_t operations = 0;
      uint64_t modelNs = 0;
      uint64_t placed = 0, refused = 0, moves = 0;
      MoveHistogram movesPerOperation;
      MoveHistogram movesPerInsert;  // its placed adds
      // Churn: a withdrawal and an announce, whether the table placed it or not.
      uint64_t pairs() const { return placed + refused; }
      double movesPerPair() const { return pairs() ? double(moves) / double(pairs()) : 0.0; }
   };
   // Refused adds of one region by reason (sim/Refusal.h), each with its first route and the
   // figures the model saw then; `border`: why a moving border did not make room, last seen.
   struct Refusals {
      std::array<uint64_t, numRefusalReasons> count{};
      std::array<std::string, numRefusalReasons> example{};
      std::string border;
      uint64_t total() const;
   };
   // One update of the run, for the list of those with the most moves.
   struct Update {
      uint64_t operation = 0;  // 1-based over the whole run
      std::string phase;
      RouteOp::Kind kind = RouteOp::Kind::add;
      std::string route;
      uint64_t moves = 0;
   };
   std::array<Family, 3> family;  // by Route::Family
   MoveHistogram movesPerInsert;  // placed adds
   MoveHistogram movesPerUpdate;  // every add and delete
   uint64_t moves = 0, merges = 0, conversions = 0, reallocations = 0;
   // IPv6 adds refused because the layout has no entry of the size they need (longer than /64
   // without pairing).
   uint64_t v6WithoutEntries = 0;
   std::array<Refusals, numRegions> refusals;
   // The updates with the most moves, most first (ties: the earlier first); at most config.worst.
   std::vector<Update> worst;
   // The placed add with the most moves (the earliest of equals); moves 0: none moved a route.
   Update largestInsert;
   // Churn of new prefixes that ended early: why, with the updates made; empty when it did not.
   std::string churnStopped;
   // Times the churn's list of new prefixes came to its end and started over.
   uint64_t churnRestarts = 0;
   std::vector<Phase> phases;
   // Live heap bytes of the twin contexts after the run; -1 when not counted.
   int64_t modelBytes = -1;
   // Routes per region, now and at their highest.
   std::array<uint64_t, numRegions> routes{};
   std::array<uint64_t, numRegions> highWatermark{};
   uint64_t operations = 0;
   uint64_t emulatedNs = 0;  // wall time of the emulated pass (model, emulator and checks)

   uint64_t placed() const;
   uint64_t refused() const;
   uint64_t installed() const;
};

class Simulation {
 public:
   using Progress = std::function<void(uint64_t done, uint64_t total)>;

   explicit Simulation(const SimulationConfig& cfg);
   ~Simulation();
   Simulation(const Simulation&) = delete;
   Simulation& operator=(const Simulation&) = delete;

   // Adds every route in order. A route whose table does not exist is a std::invalid_argument
   // before anything is applied.
   void load(const std::vector<Route>& routes, const Progress& progress = {});
   // The same, taking the routes over: the first load of a large table keeps one copy of it.
   void load(std::vector<Route>&& routes, const Progress& progress = {});
   // Checks the whole trace first, against the announced routes as the trace changes them
   // (announced: added and not deleted since, whether the table placed it or not): adding a
   // route that is announced, deleting one that is not, or a route whose table does not exist
   // is an InputError naming the line, and nothing is applied.
   void replay(const std::vector<RouteOp>& ops, std::string_view name,
               const Progress& progress = {});
   // `updates` updates of routes that flap: random installed routes are withdrawn until about
   // one in a hundred is down, then announces of a random withdrawn route alternate with
   // withdrawals. std::invalid_argument when no route is installed.
   void churn(uint64_t updates, uint64_t seed, const Progress& progress = {});
   // `updates` updates that alternate a withdrawal of a random installed route (seeded) and an
   // announce of a route of its family from `source` that is not announced. When the source has
   // none, the churn stops there and Statistics::churnStopped says why. std::invalid_argument
   // when no route is installed.
   void churnNew(uint64_t updates, uint64_t seed, AnnounceSource& source,
                 const Progress& progress = {});
   // Replays every recorded operation on the twins, timing each phase. Call once, after the
   // last phase; statistics() has no timing or memory before it.
   // progress: every 65 536 operations replayed, so that it costs the timing next to nothing.
   void finish(const Progress& progress = {});

   const Statistics& statistics() const { return stats_; }
   const SimulationConfig& config() const { return cfg_; }
   EmulatedTable* unicast() { return unicast_.get(); }
   const EmulatedTable* unicast() const { return unicast_.get(); }
   EmulatedTable* multicast() { return mcast_.get(); }
   const EmulatedTable* multicast() const { return mcast_.get(); }

   // One row per region the layout has (see Capacity.cpp for what "free" means).
   // progress reports each probe (sim/Capacity.cpp); computed figures take no time.
   std::vector<ReportData::CapacityRow> capacity(double warnPercent, double criticalPercent,
                                                 const Progress& progress = {}) const;
   // The same rows, for a caller that is done with the tables: one probe per table fills the
   // table itself instead of a copy, which saves a copy's memory and time. Afterwards the tables
   // hold the probe routes; only statistics() still describes the run.
   std::vector<ReportData::CapacityRow> capacitySpendingTables(double warnPercent,
                                                               double criticalPercent,
                                                               const Progress& progress = {});

   // The context's verification (fatal) and the emulators' full check: the violations found.
   std::vector<std::string> checkTables() const;

   // The figures of the HTML report (maps, histogram, occupancy); the caller adds title, facts
   // and capacity.
   ReportData reportData() const;

 private:
   struct Op {
      uint32_t route;  // index into pool_
      RouteOp::Kind kind;
   };
   std::unique_ptr<EmulatedTable> makeTable(const L3TcamManagerContext::Config& c, bool urpf) const;
   // A software-only copy of t, what a capacity probe fills: rebuilt from `image`, the image of
   // t's model, or (replicaByReplay) made by replaying t's operations, the model deciding the
   // same every time.
   std::unique_ptr<EmulatedTable> replica(const EmulatedTable& t,
                                          const std::vector<TcamHardwareEntry>& image) const;
   struct ProbeJob;
   // Both capacity calls; `spend`: the tables may take a probe each.
   std::vector<ReportData::CapacityRow> capacityRows(double warnPercent, double criticalPercent,
                                                     const Progress& progress, bool spend) const;
   // Fills in the free figure of each job's row, the probes side by side on threads.
   void runProbes(std::vector<ReportData::CapacityRow>& rows, std::deque<ProbeJob>& jobs,
                  const Progress& progress) const;
   EmulatedTable* tableOf(Route::Family f) const;
   uint32_t intern(const Route& r);
   // Whether r is announced (added and not deleted since), placed or not.
   bool announced(const Route& r);
   void indexPool();
   void checkFamilies(const std::vector<Route>& routes) const;
   void loadInterned(size_t first, size_t count, const Progress& progress);
   // Applies one operation to the emulated table and records it.
   void apply(uint32_t route, RouteOp::Kind kind);
   void beginPhase(const char* name);
   // Replays every recorded operation on twin contexts, timing each phase and counting their heap.
   void timeOnTwins(const Progress& progress);
   void noteRefusal(const EmulatedTable& t, const Route& r);
   void noteWorst(uint32_t route, RouteOp::Kind kind, uint64_t moves);
   ReportData::Sample currentSample() const;
   void sample();

   SimulationConfig cfg_;
   std::unique_ptr<EmulatedTable> unicast_, mcast_;
   std::vector<Route> pool_;
   // Built on first use (a load of a table needs none: its routes are distinct): pool_[i] for
   // i < indexed_ are in it.
   std::unordered_map<Route, uint32_t> poolIndex_;
   size_t indexed_ = 0;
   std::vector<Op> ops_;
   std::vector<size_t> phaseStart_;  // first op of each phase
   // Installed routes (pool indices) with O(1) removal, for churn.
   std::vector<uint32_t> installed_;
   std::vector<uint32_t> installedAt_;  // by pool index; npos when not installed
   // Per op: 1 when an add placed its route or a delete removed one (a delete of a refused route
   // does nothing, and the twin must not look it up to know).
   std::vector<uint8_t> effective_;
   // By pool index: 1 while the route is announced, placed or not (what the agent believes).
   std::vector<uint8_t> offered_;
   std::vector<ReportData::Sample> samples_;
   uint64_t sampleEvery_ = 1;
   Statistics stats_;
   bool finished_ = false;
};

}  // namespace VexloL3Common::sim
