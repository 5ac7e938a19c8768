// vexlo-tcam: the parts of the command-line program and what they share.
//
//   Main.cpp         options, subcommands, the one place that turns errors into exit status 2
//   Inputs.cpp       route tables from a file, stdin, the generator or the bundled default
//   Output.cpp       the text an operator reads, the JSON statistics, output files
//   Progress.cpp     the progress bar on a terminal
//   HeapCounter.cpp  live heap bytes, for the model's memory figure
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/Route.h"
#include "sim/Simulation.h"

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
   // 0: none, unless the input holds multicast routes (then defaultMcastSize).
   uint32_t mcastSize = 0;
   static constexpr uint32_t defaultMcastSize = 4096;

   // ---- input
   std::string routes;  // a route file, "-" for stdin; empty: synthetic or the bundled default
   uint64_t synthetic = 0, syntheticV6 = 0, syntheticMcast = 0;
   uint64_t seed = 1;
   std::string trace;  // replay: the operation trace

   // ---- the run
   uint64_t churn = 0;
   uint64_t churnSeed = 1;
   bool check = false;
   std::string json;    // "-" for stdout
   std::string report;  // HTML file
   std::string traceLevels;
   std::string progress = "auto";  // auto | always | never
   double warnAt = 70, criticalAt = 85;
   std::string output;  // generate: the route file to write, "-" for stdout
};

// A failure the program reports as one line and exit status 2.
struct UsageError : std::runtime_error {
   using std::runtime_error::runtime_error;
};

// ---- Inputs.cpp
// Where the table comes from, for the output ("bundled default table (data/default.routes)").
struct Input {
   std::string description;
   std::vector<sim::Route> routes;
};
Input readInput(const Options& o);
std::vector<sim::RouteOp> readTraceFile(const std::string& path);
// The bundled default table's path, or "" when it cannot be found.
std::string defaultTablePath();

// ---- Output.cpp
// Raises UsageError when the directory of an output file cannot take it, before any work is done.
void checkWritable(const std::string& path);
// Writes the file whole or not at all (a temporary file renamed into place).
void writeFileAtomically(const std::string& path, const std::string& contents);
std::string configLine(const Options& o, const sim::Simulation& sim);
void printHeadline(const Options& o, const sim::Simulation& sim, const Input& in);
void printStatistics(const sim::Simulation& sim);
void printCapacity(const std::vector<sim::ReportData::CapacityRow>& rows);
std::string jsonStatistics(const Options& o, const sim::Simulation& sim, const Input& in,
                           const std::vector<sim::ReportData::CapacityRow>& capacity,
                           size_t violations);
std::vector<std::pair<std::string, std::string>> reportFacts(const sim::Simulation& sim,
                                                             const Input& in);

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
