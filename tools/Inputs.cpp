// Where a run's routes come from: a route file, stdin, the generator, or the bundled table.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

#include "sim/AnnounceSource.h"
#include "sim/Quote.h"
#include "sim/RouteFormats.h"
#include "sim/SyntheticTable.h"
#include "sim/WeightsFile.h"
#include "tools/Tool.h"

namespace VexloL3Common::tool {

namespace {

// A directory opens as a stream on Linux and fails only at the first read, with no word of why:
// it is refused by name first, as is a file that cannot be read.
std::ifstream openOrFail(const std::string& path) {
   std::error_code ec;
   const std::string shown = sim::clipped(path);
   if (std::filesystem::is_directory(path, ec))
      throw UsageError("'" + shown + "' is a directory, not a file");
   std::ifstream f(path);
   if (!f) {
      const int err = errno;
      if (!std::filesystem::exists(path, ec))
         throw UsageError("cannot open '" + shown + "': no such file");
      throw UsageError("cannot read '" + shown + "': " + std::strerror(err));
   }
   return f;
}

std::string readAll(std::istream& in, const std::string& name) {
   std::ostringstream all;
   all << in.rdbuf();
   if (in.bad()) throw UsageError("cannot read '" + sim::clipped(name) + "'");
   return std::move(all).str();
}

// The table in whichever form it has: named by --routes-format, or recognised from its text.
void readTable(Input& in, const Options& o, std::istream& f, const std::string& name) {
   const std::string text = readAll(f, name);
   const sim::RouteFormat format = o.routesFormat == "auto" ? sim::detectRouteFormat(text)
                                                            : sim::routeFormatNamed(o.routesFormat);
   sim::ReadTable t = sim::readRouteText(text, name, format);
   in.routes = std::move(t.routes);
   in.format = std::string(sim::formatName(format));
   in.skipped = std::move(t.skipped);
   in.duplicates = t.duplicates;
}

}  // namespace

std::string defaultTablePath() {
   // The source tree's copy when run from a build, the installed one otherwise.
   for (const char* p :
        {VEXLO_SOURCE_DATA_DIR "/default.routes", VEXLO_INSTALL_DATA_DIR "/default.routes"}) {
      if (std::ifstream(p)) return p;
   }
   return "";
}

namespace {

Input readAnyInput(const Options& o);

}  // namespace

Input readInput(const Options& o) {
   Input in = readAnyInput(o);
   in.routeCount = in.routes.size();
   return in;
}

namespace {

Input readAnyInput(const Options& o) {
   Input in;
   if (o.synthetic + o.syntheticV6 + o.syntheticMcast > 0) {
      sim::SyntheticMix mix;
      mix.v4 = o.synthetic;
      mix.v6 = o.syntheticV6;
      mix.mcast = o.syntheticMcast;
      mix.seed = o.seed;
      in.routes = sim::syntheticTable(mix);
      in.description = "synthetic table (" + std::to_string(mix.v4) + " IPv4, " +
                       std::to_string(mix.v6) + " IPv6, " + std::to_string(mix.mcast) +
                       " multicast, seed " + std::to_string(mix.seed) + ")";
      return in;
   }
   if (o.routes == "-") {
      readTable(in, o, std::cin, "<stdin>");
      in.description = "routes from stdin";
      return in;
   }
   std::string path = o.routes;
   if (path.empty()) {
      path = defaultTablePath();
      if (path.empty())
         throw UsageError("the bundled default table is not installed; give --routes");
      in.description = "bundled default table (" + path + ")";
   } else {
      in.description = "route file " + path;
   }
   std::ifstream f = openOrFail(path);
   readTable(in, o, f, path);
   return in;
}

}  // namespace

std::vector<sim::RouteOp> readTraceFile(const std::string& path) {
   if (path == "-") return sim::readTrace(std::cin, "<stdin>");
   std::ifstream f = openOrFail(path);
   return sim::readTrace(f, path);
}

std::vector<sim::Route> readChurnRoutes(const Options& o) {
   if (o.churnRoutes.empty()) return {};
   if (o.churnKind != "new") throw UsageError("--churn-routes needs --churn-kind new");
   if (o.churnRoutes == "-" && (o.routes == "-" || o.trace == "-"))
      throw UsageError("--churn-routes cannot be stdin when the table or the trace is");
   const std::string name = o.churnRoutes == "-" ? "<stdin>" : o.churnRoutes;
   std::ifstream file;
   if (o.churnRoutes != "-") file = openOrFail(o.churnRoutes);
   std::istream& f = o.churnRoutes == "-" ? std::cin : file;
   const std::string text = readAll(f, name);
   sim::ReadTable t = sim::readRouteText(text, name, sim::detectRouteFormat(text));
   if (t.routes.empty())
      throw UsageError("--churn-routes " + sim::clipped(name) + " holds no route");
   return std::move(t.routes);
}

void runChurn(const Options& o, sim::Simulation& sim, const std::vector<sim::Route>& churnRoutes,
              const sim::Simulation::Progress& progress) {
   if (!o.churn) return;
   if (o.churnKind != "new") return sim.churn(o.churn, o.churnSeed, progress);
   const std::unique_ptr<sim::AnnounceSource> source =
       churnRoutes.empty() ? sim::syntheticAnnounces(o.churnSeed)
                           : sim::announcesFrom(churnRoutes, "--churn-routes " + o.churnRoutes);
   sim.churnNew(o.churn, o.churnSeed, *source, progress);
}

std::optional<PlacementWeights> readWeightsOption(const Options& o) {
   if (o.weights.empty()) return std::nullopt;
   // Classic placement has no use for weights: a table given with it would silently do nothing.
   if (o.placement != "weighted") throw UsageError("--weights needs --placement weighted");
   std::ifstream f = openOrFail(o.weights);
   return sim::readWeightsText(readAll(f, o.weights), o.weights);
}

}  // namespace VexloL3Common::tool
