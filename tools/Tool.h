// vexlo-tcam: the parts of the command-line program and what they share.
//
//   Main.cpp         subcommands, the one place that turns errors into exit status
//   CommandLine.cpp  the options of every subcommand
//   Inputs.cpp       route tables from a file, stdin, the generator or the bundled default
//   Compare.cpp      two runs' JSON side by side, as text and as an HTML page
//   TraceOption.cpp  --trace checked against the handles there are
//   LayoutAdvice.cpp a refused layout in the options' terms, with the nearest accepted value
//   Verdict.cpp      did it fit: severity per region, inconsistencies, the exit status
//   Headline.cpp     the headline that answers "did it fit"
//   Fit.cpp          the configurations that fit a table, ranked
//   Output.cpp       statistics, capacity, the report's facts, output files
//   JsonOutput.cpp   the same figures as JSON, with the verdict
//   Progress.cpp     the progress bar on a terminal
//   HeapCounter.cpp  live heap bytes, for the model's memory figure
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "sim/Route.h"
#include "sim/Simulation.h"

namespace CLI {
class App;
}

namespace VexloL3Common::tool {

// Every option of every subcommand; each subcommand reads the ones it offers.
struct Options {
   // ---- the unicast context
   uint32_t size = 16384;
   uint32_t mode = 2;
   uint32_t blocks = 8;
   bool twoV4PerEntry = true;
   bool pairing = false;
   bool dynamicBorder = false;
   uint32_t pairGap = 0;
   bool urpf = false;
   int64_t fallbackVrf = -1;  // -1: none
   bool interleave = false;
   bool reAddAllowed = false;
   std::string placement = "classic";  // classic or weighted
   std::string weights;  // a weight table file for --placement weighted; empty: the built-in
   // The table read from `weights`; none: the built-in default.
   std::optional<PlacementWeights> weightTable;
   bool borderInRanges = false;
   // 0: none, unless the input holds multicast routes (then defaultMcastSize).
   uint32_t mcastSize = 0;
   static constexpr uint32_t defaultMcastSize = 4096;

   // ---- input
   std::string routes;  // a route file, "-" for stdin; empty: synthetic or the bundled default
   std::string routesFormat = "auto";  // auto | routes | bgpdump | iproute-json
   uint64_t synthetic = 0, syntheticV6 = 0, syntheticMcast = 0;
   uint64_t seed = 1;
   std::string trace;  // replay: the operation trace

   // ---- the run
   uint64_t churn = 0;
   uint64_t churnSeed = 1;
   std::string churnKind = "reannounce";  // reannounce | new
   std::string churnRoutes;               // new: the prefixes announced; empty: the generator
   bool check = false;
   std::string json;    // "-" for stdout
   std::string report;  // HTML file
   std::string traceLevels;
   std::string progress = "auto";  // auto | always | never
   double warnAt = 70, criticalAt = 85;
   std::string output;  // generate: the route file to write, "-" for stdout

   // ---- the verdict
   std::string failOn;  // "", "refused", "warning" or "critical": exit 3 when the run is that bad
   uint64_t worst = 5;  // updates listed with the most moves
};

// Exit status of a run.
enum ExitStatus : int { exitFitted = 0, exitInconsistent = 1, exitBadInput = 2, exitNotFitted = 3 };

// A failure the program reports as one line and exit status 2.
struct UsageError : std::runtime_error {
   using std::runtime_error::runtime_error;
};

// ---- CommandLine.cpp: the options of each group, on a subcommand
void addTableOptions(CLI::App& app, Options& o);
void addInputOptions(CLI::App& app, Options& o);
void addRunOptions(CLI::App& app, Options& o, bool churn);
void addVerdictOptions(CLI::App& app, Options& o);
void addGenerateOptions(CLI::App& gen, Options& o);

// ---- Inputs.cpp
// Where the table comes from, for the output ("bundled default table (data/default.routes)").
struct Input {
   std::string description;
   std::vector<sim::Route> routes;  // handed to the simulation by the subcommands that run one
   size_t routeCount = 0;           // how many routes were read
   std::string format = "routes";   // as read (sim/RouteFormats.h)
   std::vector<std::pair<std::string, uint64_t>> skipped;  // entries that are no route, by kind
   uint64_t duplicates = 0;                                // entries that repeated a route
};
Input readInput(const Options& o);
std::vector<sim::RouteOp> readTraceFile(const std::string& path);
// The prefixes --churn-routes names, in any form the loader accepts; empty without the option.
std::vector<sim::Route> readChurnRoutes(const Options& o);
// Runs the churn the options ask for (none without --churn): withdrawn routes re-announced, or new
// prefixes from `churnRoutes` (readChurnRoutes) or, when it is empty, from the generator.
void runChurn(const Options& o, sim::Simulation& sim, const std::vector<sim::Route>& churnRoutes,
              const sim::Simulation::Progress& progress = {});
// The table --weights names (sim/WeightsFile.h); UsageError for --weights without --placement
// weighted, sim::InputError "FILE:LINE: ..." for a bad line.
std::optional<PlacementWeights> readWeightsOption(const Options& o);
// The bundled default table's path, or "" when it cannot be found.
std::string defaultTablePath();

// ---- TraceOption.cpp
// Applies a --trace configuration; UsageError (listing the known handles) for an unknown handle
// or a malformed level, with nothing applied.
void applyTraceLevels(const std::string& config);

// ---- LayoutAdvice.cpp
// Whether the layout accepts the table options of o.
using LayoutAccepts = std::function<bool(const Options&)>;
// What to change, for a layout refused with `refusal`: "change to --mode 2, or --blocks 16".
std::string layoutAdvice(const Options& o, const std::string& refusal,
                         const LayoutAccepts& accepts);

// ---- Verdict.cpp
struct Verdict {
   std::vector<std::string> inconsistencies;  // model assertions, verification, emulator checks
   std::string severity = "ok";               // the worst of the regions'
   std::string failedOn;                      // why --fail-on failed the run; empty when it did not
   int exitStatus = exitFitted;
};
Verdict verdictOf(const Options& o, const std::vector<sim::ReportData::CapacityRow>& capacity,
                  uint64_t refused, std::vector<std::string> inconsistencies);
// One line per inconsistency is too much for a terminal: the first, and how many more.
std::string inconsistencyLine(const Verdict& v);

// ---- Fit.cpp
struct FitOptions {
   std::vector<uint32_t> sizes;  // empty: from the smallest that could hold the table, upward
   double headroom = 10;         // percent of each region's routes it must still take
   unsigned jobs = 0;            // threads; 0: one per core
   size_t top = 20;              // rows printed
   // With --churn-kind new: the prefixes --churn-routes names (empty: generated ones).
   std::vector<sim::Route> churnRoutes;
};
struct FitReport {
   struct Row {
      Options config;
      double headroom;  // the smallest free / used over the regions holding routes, percent
      double movesPerRoute, movesPerUpdate;
      uint64_t maxMoves;
   };
   uint64_t tried = 0, refusedLayouts = 0;
   std::vector<uint32_t> sizes;  // the sizes tried
   std::vector<Row> fitting;     // ranked
   std::vector<std::string> faults;
};
// fit's options: the input, churn, and how to search and show (CommandLine.cpp).
void addFitOptions(CLI::App& app, Options& o, FitOptions& f, std::string& headroom);
// "10%", "10" or "2.5%": a percentage; UsageError otherwise (CommandLine.cpp).
double percentOf(const std::string& text);
// The simulation of one configuration: the model alone, nothing recorded past the load's needs.
sim::SimulationConfig fitConfig(const Options& o, const Input& in);
FitReport fitTable(const Options& base, const FitOptions& f, const Input& in,
                   const LayoutAccepts& accepts);
std::string fitConfigText(const Options& c);
void printFit(const FitReport& rep, const FitOptions& f, const Input& in, const Options& base);
std::string fitJson(const FitReport& rep, const FitOptions& f, const Input& in,
                    const Options& base);

// ---- Compare.cpp
// Prints two runs' `simulate --json` files side by side, and writes the HTML page to `report`
// when it is not empty; UsageError for a file that is missing, not such output, or of a run on
// another table.
int compareRuns(const std::string& first, const std::string& second, const std::string& report);

// ---- Headline.cpp
void printHeadline(const Options& o, const sim::Simulation& sim, const Input& in,
                   const std::vector<sim::ReportData::CapacityRow>& capacity, const Verdict& v);

// ---- Output.cpp
double nsPerOp(const sim::Statistics::Phase& p);
uint64_t modelNs(const sim::Statistics& st);
// The show summary's figures, computed as the summary computes them.
struct Summary {
   uint32_t mode = 0, used = 0, usable = 0, e4 = 0, halfFull = 0, e6h = 0, e6f = 0;
   uint64_t movedV4 = 0, movedV6Half = 0, movedV6Full = 0;
};
Summary summaryOf(const L3TcamManagerContext& c);
// Raises UsageError when the directory of an output file cannot take it, before any work is done.
void checkWritable(const std::string& path);
// Writes the file whole or not at all (a temporary file renamed into place).
void writeFileAtomically(const std::string& path, const std::string& contents);
std::string configLine(const Options& o, const sim::Simulation& sim);
void printStatistics(const sim::Simulation& sim);
void printCapacity(const std::vector<sim::ReportData::CapacityRow>& rows);
// ---- JsonOutput.cpp
std::string jsonStatistics(const Options& o, const sim::Simulation& sim, const Input& in,
                           const std::vector<sim::ReportData::CapacityRow>& capacity,
                           const Verdict& verdict);
std::vector<std::pair<std::string, std::string>> reportFacts(const sim::Simulation& sim,
                                                             const Input& in, const Verdict& v);

// ---- Progress.cpp
// Draws "[#####     ] 45 % load" on stderr; nothing unless enabled.
class ProgressBar {
 public:
   explicit ProgressBar(const std::string& mode);
   ~ProgressBar();
   sim::Simulation::Progress phase(std::string label);
   void done();

 private:
   bool on_;
   bool drawn_ = false;  // something is on the line that done() must erase
   int lastPermille_ = -1;
};

// ---- HeapCounter.cpp
int64_t liveHeapBytes();

}  // namespace VexloL3Common::tool
