// vexlo-tcam: try a TCAM configuration against a route table before a chip ever sees it.
//
//   vexlo-tcam simulate [table options] [input] [--churn N] [--json F] [--report F.html]
//   vexlo-tcam replay TRACE [table options] [input]
//   vexlo-tcam show     [table options] [input]
//   vexlo-tcam capacity [table options] [input] [--warn-at P] [--critical-at P]
//   vexlo-tcam generate --synthetic N [--synthetic-v6 N] [--synthetic-mcast N] [--seed S] [-o F]
//
// Exit status: 0 done, 1 the emulated table found an inconsistency (a model fault), 2 bad input
// (usage, files, route text, a configuration the layout refuses) reported as one line on stderr,
// with no output file written.
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <sstream>

#include "platform/Trace.h"
#include "sim/SyntheticTable.h"
#include "tools/Tool.h"

namespace VexloL3Common::tool {
namespace {

// Counts and seeds are unsigned; without this "-1" would wrap to the largest value.
const CLI::Validator nonNegative(
    [](std::string& text) {
       return !text.empty() && text.front() == '-' ? std::string("must not be negative")
                                                   : std::string();
    },
    "NONNEGATIVE");

void addTableOptions(CLI::App& app, Options& o) {
   const char* g = "Table";
   app.add_option("--size", o.size, "TCAM entries of the unicast table")
       ->check(CLI::Range(64u, 1u << 22))
       ->group(g)
       ->capture_default_str();
   app.add_option("--mode", o.mode, "table mode: how many blocks the IPv4 partition takes")
       ->check(CLI::Range(1u, 4u))
       ->group(g)
       ->capture_default_str();
   app.add_option("--blocks", o.blocks, "unicast blocks the table is split into")
       ->check(CLI::Range(1u, 255u))
       ->group(g)
       ->capture_default_str();
   app.add_flag("--two-v4-per-entry,!--one-v4-per-entry", o.twoV4PerEntry,
                "two IPv4 routes of one length share an entry (default) or one per entry")
       ->group(g);
   app.add_flag("--pairing", o.pairing, "double-size entries for IPv6 routes longer than /64")
       ->group(g);
   app.add_flag("--dynamic-border", o.dynamicBorder,
                "with --pairing: the IPv4/IPv6 border moves with demand")
       ->group(g);
   app.add_option("--pair-gap", o.pairGap,
                  "distance between the two entries of a double-size route (0: derived)")
       ->check(CLI::Range(0u, 1u << 23))
       ->group(g)
       ->capture_default_str();
   app.add_flag("--urpf", o.urpf, "lay the table out for uRPF lookups")->group(g);
   app.add_option("--fallback-vrf", o.fallbackVrf, "the fallback VRF (default: none)")
       ->check(CLI::Range(int64_t(0), int64_t(VrfId::maxValue - 1)))
       ->group(g);
   app.add_flag("--interleave", o.interleave, "IPv4 and IPv6 blocks interleaved")->group(g);
   app.add_flag("--re-add-allowed", o.reAddAllowed,
                "an add of an installed route reports where it is")
       ->group(g);
   app.add_option("--mcast-size", o.mcastSize,
                  "entries of the multicast table (default: none, or 4096 when the input has "
                  "multicast routes)")
       ->check(CLI::Range(0u, 1u << 22))
       ->group(g);
}

void addInputOptions(CLI::App& app, Options& o) {
   const char* g = "Input (default: the bundled table)";
   auto* routes =
       app.add_option("--routes", o.routes, "route file, one route per line ('-': stdin)")
           ->group(g);
   auto* syn = app.add_option("--synthetic", o.synthetic,
                              "generate an Internet-like table of N IPv4 routes")
                   ->check(nonNegative)
                   ->group(g);
   auto* syn6 = app.add_option("--synthetic-v6", o.syntheticV6, "... and N IPv6 routes")
                    ->check(nonNegative)
                    ->group(g);
   auto* synm = app.add_option("--synthetic-mcast", o.syntheticMcast, "... and N multicast routes")
                    ->check(nonNegative)
                    ->group(g);
   app.add_option("--seed", o.seed, "seed of the generator")
       ->check(nonNegative)
       ->group(g)
       ->capture_default_str();
   routes->excludes(syn)->excludes(syn6)->excludes(synm);
}

void addRunOptions(CLI::App& app, Options& o, bool churn) {
   const char* g = "Run";
   if (churn) {
      app.add_option("--churn", o.churn,
                     "after loading, N updates withdrawing and re-announcing routes")
          ->check(nonNegative)
          ->group(g);
      app.add_option("--churn-seed", o.churnSeed, "seed of the churn")
          ->check(nonNegative)
          ->group(g)
          ->capture_default_str();
   }
   app.add_flag("--check", o.check, "verify the emulated table after every move and merge")
       ->group(g);
   app.add_option("--json", o.json, "write the statistics as JSON to FILE ('-': stdout)")->group(g);
   app.add_option("--report", o.report, "write an HTML report to FILE")->group(g);
   app.add_option("--trace", o.traceLevels,
                  "trace levels, e.g. 'VexloL3CommonTcamTable=1-3' (lines go to stderr)")
       ->group(g);
   app.add_option("--progress", o.progress, "progress bar on stderr")
       ->check(CLI::IsMember({"auto", "always", "never"}))
       ->group(g)
       ->capture_default_str();
   app.add_option("--warn-at", o.warnAt, "capacity warning threshold, percent used")
       ->check(CLI::Range(0.0, 100.0))
       ->group(g)
       ->capture_default_str();
   app.add_option("--critical-at", o.criticalAt, "capacity critical threshold, percent used")
       ->check(CLI::Range(0.0, 100.0))
       ->group(g)
       ->capture_default_str();
}

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
   return c;
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

enum class Command { simulate, replay, show, capacity };

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

// Files are written after all the work, so a run that fails leaves none behind.
void writeOutputs(const Options& o, const sim::Simulation& sim, const Input& in,
                  const std::vector<sim::ReportData::CapacityRow>& capacity, size_t violations) {
   if (!o.report.empty()) {
      sim::ReportData d = sim.reportData();
      d.title = "vexlo-tcam: " + configLine(o, sim);
      d.facts = reportFacts(sim, in);
      d.capacity = capacity;
      std::ostringstream page;
      sim::writeHtmlReport(page, d);
      writeFileAtomically(o.report, page.str());
   }
   if (!o.json.empty()) {
      const std::string text = jsonStatistics(o, sim, in, capacity, violations);
      if (o.json == "-") {
         std::fwrite(text.data(), 1, text.size(), stdout);
      } else {
         writeFileAtomically(o.json, text);
      }
   }
}

// The text an operator reads, by subcommand.
void printResults(Command cmd, const Options& o, const sim::Simulation& sim, const Input& in,
                  const std::vector<sim::ReportData::CapacityRow>& capacity) {
   const sim::EmulatedTable* u = sim.unicast();
   switch (cmd) {
      case Command::simulate:
      case Command::replay:
         printHeadline(o, sim, in);
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
         printHeadline(o, sim, in);
         printCapacity(capacity);
         break;
   }
}

int run(Command cmd, const Options& o) {
   checkRun(cmd, o);
   if (!o.traceLevels.empty()) Ulo::Trace::configure(o.traceLevels);

   Input in = readInput(o);
   std::vector<sim::RouteOp> trace;
   if (cmd == Command::replay) {
      trace = readTraceFile(o.trace);
   }

   sim::Simulation sim(simulationConfig(o, in, trace));
   ProgressBar bar(o.progress);
   sim.load(in.routes, bar.phase("load"));
   if (cmd == Command::replay)
      sim.replay(trace, o.trace == "-" ? "<stdin>" : o.trace, bar.phase("replay"));
   if (o.churn) sim.churn(o.churn, o.churnSeed, bar.phase("churn"));
   bar.done();
   sim.finish();
   const std::vector<std::string> violations = sim.checkTables();
   // Probing capacity costs a fill of a copy of the table: only where it is shown.
   const bool wantCapacity = cmd != Command::show || !o.json.empty() || !o.report.empty();
   const std::vector<sim::ReportData::CapacityRow> capacity =
       wantCapacity ? sim.capacity(o.warnAt, o.criticalAt)
                    : std::vector<sim::ReportData::CapacityRow>{};

   writeOutputs(o, sim, in, capacity, violations.size());
   if (o.json != "-") printResults(cmd, o, sim, in, capacity);
   std::fflush(stdout);
   for (const std::string& v : violations)
      std::fprintf(stderr, "vexlo-tcam: table inconsistent: %s\n", v.c_str());
   return violations.empty() ? 0 : 1;
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
}  // namespace VexloL3Common::tool

int main(int argc, char** argv) {
   using namespace VexloL3Common::tool;
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
   for (CLI::App* sub : {simulate, replay, show, capacity}) {
      addTableOptions(*sub, o);
      addInputOptions(*sub, o);
      addRunOptions(*sub, o, sub == simulate || sub == replay);
   }
   replay
       ->add_option("trace", o.trace,
                    "operation trace: 'add ROUTE' or 'del ROUTE' per line ('-': stdin)")
       ->required();
   gen->add_option("--synthetic", o.synthetic, "IPv4 routes")->check(nonNegative);
   gen->add_option("--synthetic-v6", o.syntheticV6, "IPv6 routes")->check(nonNegative);
   gen->add_option("--synthetic-mcast", o.syntheticMcast, "multicast routes")->check(nonNegative);
   gen->add_option("--seed", o.seed, "seed")->check(nonNegative)->capture_default_str();
   gen->add_option("-o,--output", o.output, "file to write ('-' or none: stdout)");

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
      Command cmd = simulate->parsed() ? Command::simulate
                    : replay->parsed() ? Command::replay
                    : show->parsed()   ? Command::show
                                       : Command::capacity;
      return run(cmd, o);
   } catch (const std::exception& e) {
      // Input, configuration and file errors: one line, and no output file was written.
      std::fprintf(stderr, "vexlo-tcam: %s\n", e.what());
      return 2;
   }
}
