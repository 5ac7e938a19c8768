// vexlo-tcam: try a TCAM configuration against a route table before a chip ever sees it.
//
//   vexlo-tcam simulate [table options] [input] [--churn N] [--json F] [--report F.html]
//   vexlo-tcam replay TRACE [table options] [input]
//   vexlo-tcam show     [table options] [input]
//   vexlo-tcam capacity [table options] [input] [--warn-at P] [--critical-at P]
//   vexlo-tcam fit      [input] [--churn N [--churn-kind new]] [--headroom 10%] [--sizes S,...]
//                       [--jobs N] [--json F]
//   vexlo-tcam generate --synthetic N [--synthetic-v6 N] [--synthetic-mcast N] [--seed S] [-o F]
//   vexlo-tcam compare  A.json B.json [--report F.html]
//
// Exit status: 0 fitted; 1 an inconsistency (a model assertion, the model's verification or the
// emulated table's check), reported in one line on stderr with the JSON and report still
// written; 2 bad input (usage, files, route text, a configuration the layout refuses) reported
// as one line on stderr, with no output file written; 3 the table did not fit as --fail-on asks.
#include <malloc.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <sstream>

#include "platform/Assert.h"
#include "platform/Trace.h"
#include "sim/Quote.h"
#include "sim/SyntheticTable.h"
#include "tools/Tool.h"

namespace VexloL3Common::tool {
namespace {

enum class Command { simulate, replay, show, capacity };

sim::SimulationConfig simulationConfig(const Options& o, const Input& in,
                                       const std::vector<sim::RouteOp>& trace) {
   sim::SimulationConfig c;
   L3TcamManagerContext::Config& u = c.unicast;
   u.tcamSize = o.size;
   u.tcamMode = o.mode;
   u.numUcastDefipBlocks = uint8_t(o.blocks);
   u.twoV4RoutesPerEntry = o.twoV4PerEntry;
   u.supportsDefipPairing = o.pairing;
   u.dynamicV4V6Boundary = o.dynamicBorder;
   u.pairGap = o.pairGap;
   u.reAddAllowed = o.reAddAllowed;
   u.fallbackVrfId = o.fallbackVrf < 0 ? VrfId::invalidVrfId() : VrfId(uint32_t(o.fallbackVrf));
   u.v4V6InterleavingDisabled = !o.interleave;
   u.placementPolicy =
       o.placement == "weighted" ? PlacementPolicy::weighted : PlacementPolicy::classic;
   if (o.weightTable) u.placementWeights = *o.weightTable;
   u.borderMoveInRanges = o.borderInRanges;
   c.urpf = o.urpf;
   c.check = o.check;
   c.mcastSize = o.mcastSize;
   // Multicast routes anywhere in the input bring a multicast table of the default size.
   const auto isMcast = [](const sim::Route& r) { return r.family == sim::Route::Family::mcast; };
   if (c.mcastSize == 0 && (std::any_of(in.routes.begin(), in.routes.end(), isMcast) ||
                            std::any_of(trace.begin(), trace.end(), [&](const sim::RouteOp& op) {
                               return isMcast(op.route);
                            }))) {
      c.mcastSize = Options::defaultMcastSize;
   }
   c.heapBytes = liveHeapBytes;
   c.worst = size_t(o.worst);
   return c;
}

// `capacity` asks what fits: the model alone answers that, at a fraction of the cost of an
// emulated hardware table, which only --check and the report's map need.
sim::SimulationConfig runConfig(Command cmd, const Options& o, const Input& in,
                                const std::vector<sim::RouteOp>& trace) {
   sim::SimulationConfig c = simulationConfig(o, in, trace);
   c.emulate = cmd != Command::capacity || o.check || !o.report.empty();
   // Nor does it show the model's time: no twin replays the run to measure it.
   c.timeModel = cmd != Command::capacity;
   return c;
}

// Whether the layout takes the table options of o: a software-only context is laid out.
bool layoutAccepts(const Options& o) {
   const sim::SimulationConfig c = simulationConfig(o, Input{}, {});
   Ulo::ScopedThrowingAssertHandler guard;
   try {
      L3TcamManagerContext::Config u = c.unicast;
      u.v4Mcast = false;
      sim::EmulatedTable t(u, c.urpf, false);
      return true;
   } catch (const std::exception&) {
      return false;
   }
}

// The simulation, or a refused layout in the options' terms.
std::unique_ptr<sim::Simulation> makeSimulation(Command cmd, const Options& o, const Input& in,
                                                const std::vector<sim::RouteOp>& trace) {
   try {
      return std::make_unique<sim::Simulation>(runConfig(cmd, o, in, trace));
   } catch (const std::range_error& e) {
      // The engine's words (which check refused it) come last, for whoever knows the layout.
      const std::string why = e.what();
      const std::string prefix = "the layout refuses this configuration: ";
      throw UsageError(fmt::format("the layout refuses --size {} --mode {} --blocks {}{}: {} ({})",
                                   o.size, o.mode, o.blocks,
                                   o.pairGap ? fmt::format(" --pair-gap {}", o.pairGap) : "",
                                   layoutAdvice(o, why, layoutAccepts),
                                   why.rfind(prefix, 0) == 0 ? why.substr(prefix.size()) : why));
   }
}

// Counts past these would only exhaust memory: every operation of a run is recorded.
constexpr uint64_t maxRoutes = 50'000'000;
constexpr uint64_t maxChurn = 200'000'000;

void checkCounts(const Options& o) {
   for (auto [name, value] : {std::pair{"--synthetic", o.synthetic},
                              {"--synthetic-v6", o.syntheticV6},
                              {"--synthetic-mcast", o.syntheticMcast}}) {
      if (value > maxRoutes)
         throw UsageError(fmt::format("{} {} is more than {} routes", name, value, maxRoutes));
   }
   if (o.churn > maxChurn)
      throw UsageError(fmt::format("--churn {} is more than {} updates", o.churn, maxChurn));
}

// Choices the layout would refuse with a fatal check are refused here first, in words.
void checkConfiguration(const Options& o) {
   if (o.urpf && o.mode != 2 && o.mode != 4) throw UsageError("--urpf needs --mode 2 or 4");
   if (o.urpf && o.fallbackVrf >= 0)
      throw UsageError("--urpf and --fallback-vrf exclude each other");
   if (o.fallbackVrf >= 0 && o.mode != 2 && o.mode != 4)
      throw UsageError("--fallback-vrf needs --mode 2 or 4");
   if (o.dynamicBorder && !o.pairing) throw UsageError("--dynamic-border needs --pairing");
   if (o.size % o.blocks != 0)
      throw UsageError("--size " + std::to_string(o.size) + " is not a multiple of --blocks " +
                       std::to_string(o.blocks));
   // Written so that NaN fails them too.
   if (!(o.warnAt >= 0 && o.warnAt <= 100) || !(o.criticalAt >= 0 && o.criticalAt <= 100))
      throw UsageError("--warn-at and --critical-at are percentages from 0 to 100");
   if (!(o.criticalAt >= o.warnAt)) throw UsageError("--critical-at is below --warn-at");
   if (o.mcastSize != 0 && o.mcastSize < 64) throw UsageError("--mcast-size is 0 or at least 64");
}

// What can be refused before any work is done: counts, the configuration, the inputs, the
// directories of the output files.
void checkRun(Command cmd, const Options& o) {
   checkCounts(o);
   checkConfiguration(o);
   if (cmd == Command::replay && o.trace == "-" && o.routes == "-")
      throw UsageError("the table and the trace cannot both be stdin");
   for (const std::string& f : {o.json, o.report}) {
      if (!f.empty() && f != "-") checkWritable(f);
   }
   if (o.report == "-") throw UsageError("--report needs a file name");
}

// Files are written after all the work, so a run that fails on its input leaves none behind.
void writeOutputs(const Options& o, const sim::Simulation& sim, const Input& in,
                  const std::vector<sim::ReportData::CapacityRow>& capacity, const Verdict& v) {
   if (!o.report.empty()) {
      sim::ReportData d = sim.reportData();
      d.title = "vexlo-tcam: " + configLine(o, sim);
      d.facts = reportFacts(sim, in, v);
      d.capacity = capacity;
      std::ostringstream page;
      sim::writeHtmlReport(page, d);
      writeFileAtomically(o.report, page.str());
   }
   if (!o.json.empty()) {
      const std::string text = jsonStatistics(o, sim, in, capacity, v);
      if (o.json == "-") {
         std::fwrite(text.data(), 1, text.size(), stdout);
      } else {
         writeFileAtomically(o.json, text);
      }
   }
}

// The text an operator reads, by subcommand.
void printResults(Command cmd, const Options& o, const sim::Simulation& sim, const Input& in,
                  const std::vector<sim::ReportData::CapacityRow>& capacity, const Verdict& v) {
   const sim::EmulatedTable* u = sim.unicast();
   switch (cmd) {
      case Command::simulate:
      case Command::replay:
         printHeadline(o, sim, in, capacity, v);
         if (u) {
            std::fflush(stdout);
            u->ctx().showSoftwareTcamTableSummary(STDOUT_FILENO);
            u->ctx().showSoftwareTcamTableIndexRange(STDOUT_FILENO);
         }
         std::printf("\n");
         printStatistics(sim);
         printCapacity(capacity);
         break;
      case Command::show:
         if (u) {
            std::fflush(stdout);
            u->ctx().showSoftwareTcamTable(STDOUT_FILENO, true);
         }
         if (const sim::EmulatedTable* m = sim.multicast()) {
            std::printf("Multicast table: %u of %u entries used\n",
                        m->ctx().entries(RouteType::v4Mcast), m->ctx().tcamSize() - 1);
         }
         break;
      case Command::capacity:
         printHeadline(o, sim, in, capacity, v);
         printCapacity(capacity);
         break;
   }
}

std::string assertionText(const Ulo::AssertionFailure& e) {
   return "model assertion: " + e.text + (e.message.empty() ? "" : ": " + e.message);
}

// The phases of the run. A model assertion stops it: what follows would build on a broken model.
// The input's routes are handed over to the simulation.
void runPhases(Command cmd, const Options& o, sim::Simulation& sim, Input& in,
               const std::vector<sim::RouteOp>& trace, const std::vector<sim::Route>& churnRoutes,
               std::vector<std::string>& faults) {
   ProgressBar bar(o.progress);
   try {
      sim.load(std::move(in.routes), bar.phase("load"));
      if (cmd == Command::replay)
         sim.replay(trace, o.trace == "-" ? "<stdin>" : o.trace, bar.phase("replay"));
      if (o.churn) runChurn(o, sim, churnRoutes, bar.phase("churn"));
      sim.finish(bar.phase("model timing"));
      bar.done();
   } catch (const Ulo::AssertionFailure& e) {
      faults.push_back(assertionText(e));
   }
}

int run(Command cmd, const Options& given) {
   checkRun(cmd, given);
   Options o = given;
   o.weightTable = readWeightsOption(o);
   if (!o.traceLevels.empty()) applyTraceLevels(o.traceLevels);

   Input in = readInput(o);
   std::vector<sim::RouteOp> trace;
   if (cmd == Command::replay) {
      trace = readTraceFile(o.trace);
   }
   const std::vector<sim::Route> churnRoutes = readChurnRoutes(o);
   const std::unique_ptr<sim::Simulation> simPtr = makeSimulation(cmd, o, in, trace);
   sim::Simulation& sim = *simPtr;
   // From here on a failed model assertion is a finding of the run (exit 1), never an abort.
   Ulo::ScopedThrowingAssertHandler guard;
   std::vector<std::string> faults;
   runPhases(cmd, o, sim, in, trace, churnRoutes, faults);
   std::vector<sim::ReportData::CapacityRow> capacity;
   if (faults.empty()) {
      for (std::string& v : sim.checkTables())
         faults.push_back(std::move(v));
      // Probing capacity costs a fill of a copy of the table: only where it is shown.
      const bool wantCapacity = cmd != Command::show || !o.json.empty() || !o.report.empty();
      try {
         ProgressBar bar(o.progress);
         // The plain capacity command reads nothing of the tables afterwards: its probes may
         // fill them instead of copies.
         const bool spend =
             cmd == Command::capacity && !o.check && o.json.empty() && o.report.empty();
         if (spend) {
            capacity = sim.capacitySpendingTables(o.warnAt, o.criticalAt, bar.phase("probe"));
         } else if (wantCapacity) {
            capacity = sim.capacity(o.warnAt, o.criticalAt, bar.phase("probe"));
         }
      } catch (const Ulo::AssertionFailure& e) {
         faults.push_back(assertionText(e));
      }
   }
   const Verdict v = verdictOf(o, capacity, sim.statistics().refused(), std::move(faults));
   writeOutputs(o, sim, in, capacity, v);
   try {
      if (o.json != "-") printResults(cmd, o, sim, in, capacity, v);
   } catch (const Ulo::AssertionFailure&) {
      // A broken model may not show itself: the inconsistency below says why.
      if (v.inconsistencies.empty()) throw;
   }
   std::fflush(stdout);
   if (!v.inconsistencies.empty())
      std::fprintf(stderr, "vexlo-tcam: %s\n", inconsistencyLine(v).c_str());
   if (!v.failedOn.empty() && v.inconsistencies.empty())
      std::fprintf(stderr, "vexlo-tcam: did not fit: %s\n", v.failedOn.c_str());
   return v.exitStatus;
}

int fit(const Options& given, FitOptions f, const std::string& headroom) {
   checkCounts(given);
   Options o = given;
   {
      // fit tries both policies itself: the table serves the weighted configurations.
      Options weighted = given;
      weighted.placement = "weighted";
      o.weightTable = readWeightsOption(weighted);
   }
   f.headroom = percentOf(headroom);
   if (!o.json.empty() && o.json != "-") checkWritable(o.json);
   const Input in = readInput(o);
   if (in.routes.empty()) throw UsageError("fit needs routes");
   f.churnRoutes = readChurnRoutes(o);
   Ulo::ScopedThrowingAssertHandler guard;
   const FitReport rep = fitTable(o, f, in, layoutAccepts);
   if (!o.json.empty()) {
      const std::string text = fitJson(rep, f, in, o);
      if (o.json == "-") {
         std::fwrite(text.data(), 1, text.size(), stdout);
      } else {
         writeFileAtomically(o.json, text);
      }
   }
   if (o.json != "-") printFit(rep, f, in, o);
   std::fflush(stdout);
   if (!rep.faults.empty()) {
      std::fprintf(stderr, "vexlo-tcam: inconsistency: %s\n",
                   sim::printable(rep.faults.front()).c_str());
      return exitInconsistent;
   }
   return rep.fitting.empty() ? exitNotFitted : exitFitted;
}

int generate(const Options& o) {
   checkCounts(o);
   if (o.synthetic + o.syntheticV6 + o.syntheticMcast == 0)
      throw UsageError("generate needs --synthetic, --synthetic-v6 or --synthetic-mcast");
   sim::SyntheticMix mix;
   mix.v4 = o.synthetic;
   mix.v6 = o.syntheticV6;
   mix.mcast = o.syntheticMcast;
   mix.seed = o.seed;
   std::ostringstream out;
   sim::writeRouteTable(out, sim::syntheticTable(mix),
                        "vexlo-tcam generate --synthetic " + std::to_string(o.synthetic) +
                            " --synthetic-v6 " + std::to_string(o.syntheticV6) +
                            " --synthetic-mcast " + std::to_string(o.syntheticMcast) + " --seed " +
                            std::to_string(o.seed));
   if (o.output.empty() || o.output == "-") {
      std::fwrite(out.str().data(), 1, out.str().size(), stdout);
   } else {
      checkWritable(o.output);
      writeFileAtomically(o.output, out.str());
   }
   return 0;
}

}  // namespace

sim::SimulationConfig fitConfig(const Options& o, const Input& in) {
   sim::SimulationConfig c = simulationConfig(o, in, {});
   c.emulate = false;
   c.silenceProbes = false;
   c.probeThreads = 1;  // the configurations already run side by side
   c.worst = 0;
   c.heapBytes = {};
   return c;
}

}  // namespace VexloL3Common::tool

int main(int argc, char** argv) {
   using namespace VexloL3Common::tool;
#ifdef M_MMAP_THRESHOLD
   // A large table's arrays and hash tables grow by doubling. Kept in mappings of their own, what
   // a growth frees goes back to the system at once instead of staying in the heap: a million-route
   // table's peak memory is a fifth lower.
   mallopt(M_MMAP_THRESHOLD, 1 << 20);
#endif
   Options o;
   CLI::App app{"vexlo-tcam: try a TCAM configuration against a route table"};
   app.require_subcommand(1);
   CLI::App* simulate =
       app.add_subcommand("simulate", "load a table (and churn), print the summary and statistics");
   CLI::App* replay = app.add_subcommand("replay", "load a table, then apply an operation trace");
   CLI::App* show = app.add_subcommand("show", "load a table and print the software TCAM");
   CLI::App* capacity =
       app.add_subcommand("capacity", "load a table and print capacity per region");
   CLI::App* gen = app.add_subcommand("generate", "write a synthetic route table");
   FitOptions fitOptions;
   std::string headroom = "10%";
   CLI::App* fitCmd = app.add_subcommand(
       "fit", "try the configurations a chip allows and rank those that fit the table");
   addFitOptions(*fitCmd, o, fitOptions, headroom);
   for (CLI::App* sub : {simulate, replay, show, capacity}) {
      addTableOptions(*sub, o);
      addInputOptions(*sub, o);
      addRunOptions(*sub, o, sub == simulate || sub == replay);
      addVerdictOptions(*sub, o);
   }
   replay
       ->add_option("trace", o.trace,
                    "operation trace: 'add ROUTE' or 'del ROUTE' per line ('-': stdin)")
       ->required();
   addGenerateOptions(*gen, o);
   CLI::App* compare =
       app.add_subcommand("compare", "print two runs' simulate --json output side by side");
   std::string compareFiles[2];
   compare->add_option("first", compareFiles[0], "the first run's JSON")->required();
   compare->add_option("second", compareFiles[1], "the second run's JSON")->required();
   compare->add_option("--report", o.report, "write both runs side by side as HTML to FILE");

   try {
      app.parse(argc, argv);
   } catch (const CLI::CallForHelp& e) {
      return app.exit(e);
   } catch (const CLI::CallForAllHelp& e) {
      return app.exit(e);
   } catch (const CLI::ParseError& e) {
      std::fprintf(stderr, "vexlo-tcam: %s (try --help)\n", e.what());
      return 2;
   }
   try {
      if (gen->parsed()) return generate(o);
      if (compare->parsed()) return compareRuns(compareFiles[0], compareFiles[1], o.report);
      if (fitCmd->parsed()) return fit(o, fitOptions, headroom);
      Command cmd = simulate->parsed() ? Command::simulate
                    : replay->parsed() ? Command::replay
                    : show->parsed()   ? Command::show
                                       : Command::capacity;
      return run(cmd, o);
   } catch (const Ulo::AssertionFailure& e) {
      std::fprintf(stderr, "vexlo-tcam: inconsistency: model assertion: %s\n",
                   VexloL3Common::sim::printable(e.what()).c_str());
      return exitInconsistent;
   } catch (const std::exception& e) {
      // Input, configuration and file errors: one line, and no output file was written.
      std::fprintf(stderr, "vexlo-tcam: %s\n", VexloL3Common::sim::printable(e.what()).c_str());
      return exitBadInput;
   }
}
