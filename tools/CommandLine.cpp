// The options of every subcommand, as CLI11 parses them into Options (tools/Tool.h). Kept apart
// from what the subcommands do, one function per group.
#include <CLI/CLI.hpp>

#include "sim/Quote.h"
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

// What churn announces: a withdrawn route again, or a prefix the table has not held.
void addChurnKindOptions(CLI::App& app, Options& o, const char* g) {
   app.add_option("--churn-kind", o.churnKind,
                  "reannounce: announce a withdrawn route again; new: each withdrawal is followed "
                  "by an announce of a prefix not in the table (generated, or --churn-routes)")
       ->check(CLI::IsMember({"reannounce", "new"}))
       ->group(g)
       ->capture_default_str();
   app.add_option("--churn-routes", o.churnRoutes,
                  "with --churn-kind new: the prefixes to announce, in file order, starting over "
                  "at the end ('-': stdin)")
       ->group(g);
}

}  // namespace

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
   app.add_option("--placement", o.placement,
                  "where a new length goes: classic (the gap split evenly) or weighted (in "
                  "proportion to an Internet-like mix of lengths, for fewer moves)")
       ->check(CLI::IsMember({"classic", "weighted"}))
       ->group(g)
       ->capture_default_str();
   app.add_option("--weights", o.weights,
                  "with --placement weighted: per-length weights from FILE ('v4 /24 38' per "
                  "line) instead of the built-in Internet-like mix")
       ->group(g);
   app.add_flag("--border-in-ranges", o.borderInRanges,
                "with --dynamic-border: the border moves each entry in its way at most once")
       ->group(g);
   app.add_option("--mcast-size", o.mcastSize,
                  "entries of the multicast table (default: none, or 4096 when the input has "
                  "multicast routes)")
       ->check(CLI::Range(0u, 1u << 22))
       ->group(g);
}

namespace {

// The forms a route table may come in (sim/RouteFormats.h).
void addFormatOption(CLI::App& app, Options& o, const char* group) {
   app.add_option("--routes-format", o.routesFormat,
                  "form of --routes: routes (our route file), bgpdump (bgpdump -m/-M lines), "
                  "iproute-json (ip -j route show table all); auto: recognised from the text")
       ->check(CLI::IsMember({"auto", "routes", "bgpdump", "iproute-json"}))
       ->group(group)
       ->capture_default_str();
}

}  // namespace

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
   addFormatOption(app, o, g);
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
      addChurnKindOptions(app, o, g);
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

// Options of the verdict: when a run counts as failed, and how much of the worst it shows.
void addVerdictOptions(CLI::App& app, Options& o) {
   const char* g = "Verdict";
   app.add_option("--fail-on", o.failOn,
                  "exit 3 when a route was refused (refused), or a region is at the warning "
                  "(warning) or critical (critical) threshold or worse")
       ->check(CLI::IsMember({"refused", "warning", "critical"}))
       ->group(g);
   app.add_option("--worst", o.worst, "list the N updates with the most moves")
       ->check(CLI::Range(uint64_t(0), uint64_t(1000)))
       ->group(g)
       ->capture_default_str();
}

void addGenerateOptions(CLI::App& gen, Options& o) {
   gen.add_option("--synthetic", o.synthetic, "IPv4 routes")->check(nonNegative);
   gen.add_option("--synthetic-v6", o.syntheticV6, "IPv6 routes")->check(nonNegative);
   gen.add_option("--synthetic-mcast", o.syntheticMcast, "multicast routes")->check(nonNegative);
   gen.add_option("--seed", o.seed, "seed")->check(nonNegative)->capture_default_str();
   gen.add_option("-o,--output", o.output, "file to write ('-' or none: stdout)");
}

// "10%", "10" or "2.5 %": a percentage.
double percentOf(const std::string& text) {
   std::string t = text;
   if (!t.empty() && t.back() == '%') t.pop_back();
   size_t used = 0;
   double v = -1;
   try {
      v = std::stod(t, &used);
   } catch (const std::exception&) {
   }
   if (used != t.size() || !(v >= 0 && v <= 1000))
      throw UsageError("--headroom '" + sim::clipped(text) +
                       "' is not a percentage from 0 to 1000");
   return v;
}

// The options of `fit`: the input, churn, and how to search and show.
void addFitOptions(CLI::App& app, Options& o, FitOptions& f, std::string& headroom) {
   addInputOptions(app, o);
   const char* g = "Fit";
   app.add_option("--churn", o.churn, "after loading, N updates withdrawing and re-announcing")
       ->check(nonNegative)
       ->group(g);
   app.add_option("--churn-seed", o.churnSeed, "seed of the churn")->check(nonNegative)->group(g);
   addChurnKindOptions(app, o, g);
   app.add_option("--weights", o.weights,
                  "per-length weights from FILE for the configurations with weighted placement")
       ->group(g);
   app.add_option("--headroom", headroom,
                  "what each region must still take, in percent of its routes")
       ->group(g)
       ->capture_default_str();
   app.add_option("--sizes", f.sizes,
                  "table sizes to try (default: from the smallest that could "
                  "hold the table up, stopping at the first that fits)")
       ->check(CLI::Range(64u, 1u << 22))
       ->delimiter(',')
       ->group(g);
   app.add_option("--jobs", f.jobs, "threads (0: one per core)")->group(g)->capture_default_str();
   app.add_option("--top", f.top, "rows to print")->group(g)->capture_default_str();
   app.add_option("--json", o.json, "write the result as JSON to FILE ('-': stdout)")->group(g);
   app.add_option("--progress", o.progress, "progress bar on stderr")
       ->check(CLI::IsMember({"auto", "always", "never"}))
       ->group(g)
       ->capture_default_str();
}

}  // namespace VexloL3Common::tool
