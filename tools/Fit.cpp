// vexlo-tcam fit: the configurations a chip allows, each tried against the table (and churn), and
// those that fit with the headroom asked for, ranked: the smallest table first, then the fewest
// moves per route of the load, then per update of the churn.
//
// A configuration is a size, a mode (1-4), a number of blocks (4, 8 or 16), one or two IPv4 routes
// per entry, no pairing, pairing with a fixed border, or pairing with a moving border, and the
// classic or the weighted placement policy (with --weights' table when given). Those the layout
// refuses are counted and left out. Without --sizes the sizes are the powers of two
// from the smallest that could hold the table up to 4 Mi entries, and the search stops at the
// first size where a configuration fits. A configuration fits when no route was refused and every
// region that holds routes can still take the headroom (--headroom 10%: a tenth of its routes).
//
// Runs are the model alone (no emulated table), in parallel threads: each owns its contexts. Fit
// traces nothing: tracing is switched off before the threads start, so that no thread touches
// the process-wide trace switches.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>

#include "platform/Assert.h"
#include "platform/Trace.h"
#include "tools/Tool.h"

namespace VexloL3Common::tool {

namespace {

struct Result {
   Options config;
   bool fits = false;
   uint64_t refused = 0;
   double headroom = 0;  // the smallest free / used over the regions holding routes, percent
   double movesPerRoute = 0, movesPerUpdate = 0;
   uint64_t maxMoves = 0;
   std::string fault;  // a model assertion, when the run hit one
};

std::string pairingText(const Options& c) {
   return !c.pairing ? "no" : c.dynamicBorder ? "moving border" : "fixed border";
}

std::vector<uint32_t> sizesToTry(const FitOptions& f, const Input& in) {
   if (!f.sizes.empty()) return f.sizes;
   std::vector<uint32_t> sizes;
   for (uint32_t s = 1024; s <= (1u << 22); s *= 2) {
      if (2ull * s >= in.routes.size()) sizes.push_back(s);
   }
   return sizes;
}

std::vector<Options> configurations(const Options& base, uint32_t size,
                                    const LayoutAccepts& accepts, uint64_t& refusedLayouts) {
   std::vector<Options> out;
   for (uint32_t mode = 1; mode <= 4; ++mode) {
      for (uint32_t blocks : {4u, 8u, 16u}) {
         for (bool two : {true, false}) {
            for (int pairing = 0; pairing < 3; ++pairing) {
               Options c = base;
               c.size = size;
               c.mode = mode;
               c.blocks = blocks;
               c.twoV4PerEntry = two;
               c.pairing = pairing > 0;
               c.dynamicBorder = pairing == 2;
               c.pairGap = 0;
               // The policy decides where routes go, not whether the layout exists.
               const bool laidOut = size % blocks == 0 && accepts(c);
               for (const char* placement : {"classic", "weighted"}) {
                  c.placement = placement;
                  if (laidOut) {
                     out.push_back(c);
                  } else {
                     ++refusedLayouts;
                  }
               }
            }
         }
      }
   }
   return out;
}

double movesPer(const sim::Statistics& st, const char* phase) {
   for (const auto& p : st.phases)
      if (p.name == phase) return p.movesPerOperation.mean();
   return 0;
}

Result tryOne(const Options& c, const Input& in, const FitOptions& f) {
   const double headroom = f.headroom;
   Result r;
   r.config = c;
   try {
      sim::SimulationConfig sc = fitConfig(c, in);
      sim::Simulation sim(sc);
      sim.load(in.routes);
      // Every configuration announces the same prefixes, each from a source of its own.
      runChurn(c, sim, f.churnRoutes);
      const std::vector<sim::ReportData::CapacityRow> rows = sim.capacity(c.warnAt, c.criticalAt);
      const sim::Statistics& st = sim.statistics();
      r.refused = st.refused();
      r.headroom = 1e9;
      bool room = true;
      for (const auto& row : rows) {
         if (row.used == 0) continue;
         room = room && double(row.free) >= std::ceil(headroom / 100 * double(row.used));
         r.headroom = std::min(r.headroom, 100.0 * double(row.free) / double(row.used));
      }
      if (r.headroom == 1e9) r.headroom = 0;
      r.fits = r.refused == 0 && room;
      r.movesPerRoute = movesPer(st, "load");
      r.movesPerUpdate = movesPer(st, "churn");
      r.maxMoves = st.movesPerUpdate.max();
   } catch (const Ulo::AssertionFailure& e) {
      r.fault = "model assertion: " + e.text + (e.message.empty() ? "" : ": " + e.message);
   }
   return r;
}

// Runs every configuration on `jobs` threads; progress(done, total) from the calling thread.
std::vector<Result> tryAll(const std::vector<Options>& configs, const Input& in,
                           const FitOptions& f, unsigned jobs,
                           const sim::Simulation::Progress& progress) {
   std::vector<Result> results(configs.size());
   std::atomic<size_t> next{0}, done{0};
   auto worker = [&] {
      for (size_t i = next++; i < configs.size(); i = next++) {
         results[i] = tryOne(configs[i], in, f);
         ++done;
      }
   };
   std::vector<std::thread> threads;
   for (unsigned t = 0; t < std::max(1u, jobs); ++t)
      threads.emplace_back(worker);
   while (done < configs.size()) {
      if (progress) progress(done, configs.size());
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
   }
   for (std::thread& t : threads)
      t.join();
   if (progress) progress(configs.size(), configs.size());
   return results;
}

}  // namespace

FitReport fitTable(const Options& base, const FitOptions& f, const Input& in,
                   const LayoutAccepts& accepts) {
   FitReport rep;
   Ulo::Trace::levelsIs("*", 0);
   ProgressBar bar(base.progress);
   for (uint32_t size : sizesToTry(f, in)) {
      std::vector<Options> configs = configurations(base, size, accepts, rep.refusedLayouts);
      rep.tried += configs.size();
      rep.sizes.push_back(size);
      const unsigned jobs = f.jobs ? f.jobs : std::max(1u, std::thread::hardware_concurrency());
      for (Result& r :
           tryAll(configs, in, f, jobs, bar.phase(fmt::format("fit, {} entries", size)))) {
         if (!r.fault.empty()) rep.faults.push_back(r.fault);
         if (r.fits) {
            rep.fitting.push_back(FitReport::Row{r.config, r.headroom, r.movesPerRoute,
                                                 r.movesPerUpdate, r.maxMoves});
         }
      }
      if (f.sizes.empty() && !rep.fitting.empty()) break;
   }
   bar.done();
   std::stable_sort(rep.fitting.begin(), rep.fitting.end(), [](const auto& a, const auto& b) {
      if (a.config.size != b.config.size) return a.config.size < b.config.size;
      if (a.movesPerRoute != b.movesPerRoute) return a.movesPerRoute < b.movesPerRoute;
      return a.movesPerUpdate < b.movesPerUpdate;
   });
   return rep;
}

std::string fitConfigText(const Options& c) {
   return fmt::format(
       "--size {} --mode {} --blocks {} --{}-v4-per-entry{}{}", c.size, c.mode, c.blocks,
       c.twoV4PerEntry ? "two" : "one",
       !c.pairing        ? ""
       : c.dynamicBorder ? " --pairing --dynamic-border"
                         : " --pairing",
       c.placement == "weighted"
           ? " --placement weighted" + (c.weights.empty() ? "" : " --weights " + c.weights)
           : "");
}

void printFit(const FitReport& rep, const FitOptions& f, const Input& in, const Options& base) {
   std::printf("vexlo-tcam fit: %s, %zu routes%s; headroom %g %%\n", in.description.c_str(),
               in.routeCount,
               base.churn ? fmt::format(", churn {}{}", base.churn,
                                        base.churnKind == "new" ? " of new prefixes" : "")
                                .c_str()
                          : "",
               f.headroom);
   std::string sizes;
   for (uint32_t s : rep.sizes)
      sizes += (sizes.empty() ? "" : ", ") + std::to_string(s);
   std::printf("Tried %llu configurations of %s entries (%llu refused by the layout): %zu fit\n",
               (unsigned long long)rep.tried, sizes.c_str(), (unsigned long long)rep.refusedLayouts,
               rep.fitting.size());
   if (rep.fitting.empty()) return;
   std::printf("  %4s %8s %4s %6s %10s %13s %9s %12s %13s %9s  %s\n", "rank", "size", "mode",
               "blocks", "IPv4/entry", "pairing", "placement", "moves/route", "moves/update",
               "headroom", "options");
   auto row = [](size_t i, const FitReport::Row& r) {
      std::printf("  %4zu %8u %4u %6u %10s %13s %9s %12.2f %13.2f %8.1f%%  %s\n", i + 1,
                  r.config.size, r.config.mode, r.config.blocks,
                  r.config.twoV4PerEntry ? "two" : "one", pairingText(r.config).c_str(),
                  r.config.placement.c_str(), r.movesPerRoute, r.movesPerUpdate, r.headroom,
                  fitConfigText(r.config).c_str());
   };
   for (size_t i = 0; i < rep.fitting.size() && i < f.top; ++i)
      row(i, rep.fitting[i]);
   if (rep.fitting.size() <= f.top) return;
   std::printf("  ... and %zu more (--top)\n", rep.fitting.size() - f.top);
   // Each policy's best stays in sight, ranked among the others, when the top rows lack it.
   for (const char* placement : {"classic", "weighted"}) {
      auto is = [&](const FitReport::Row& r) { return r.config.placement == placement; };
      const auto top = rep.fitting.begin() + ptrdiff_t(f.top);
      if (std::any_of(rep.fitting.begin(), top, is)) continue;
      const auto best = std::find_if(top, rep.fitting.end(), is);
      if (best != rep.fitting.end()) row(size_t(best - rep.fitting.begin()), *best);
   }
}

}  // namespace VexloL3Common::tool
