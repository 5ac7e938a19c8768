// The headline: did the table fit, per region in routes and in entries, why what was refused was
// refused, and what the moves cost, each figure once and labelled with its base.
#include <cstdio>

#include "tools/Tool.h"

namespace VexloL3Common::tool {

namespace {

using Row = sim::ReportData::CapacityRow;

// What the input held besides routes: " (bgpdump; skipped 6 local, 2 broadcast; 3 duplicates)".
std::string inputNotes(const Input& in) {
   std::string notes;
   if (in.format != "routes") notes += in.format;
   if (!in.skipped.empty()) {
      notes += std::string(notes.empty() ? "" : "; ") + "skipped";
      for (size_t i = 0; i < in.skipped.size(); ++i)
         notes += fmt::format("{} {} {}", i ? "," : "", in.skipped[i].second, in.skipped[i].first);
   }
   if (in.duplicates) {
      notes += fmt::format("{}{} duplicate{} collapsed", notes.empty() ? "" : "; ", in.duplicates,
                           in.duplicates == 1 ? "" : "s");
   }
   return notes.empty() ? "" : " (" + notes + ")";
}

void printResult(const sim::Statistics& st, const Verdict& v) {
   const uint64_t offered = st.placed() + st.refused();
   if (!v.inconsistencies.empty()) {
      std::printf("Result: INCONSISTENT: the model or the emulated table found a fault (stderr)\n");
   } else if (st.refused() == 0) {
      std::printf("Result: fitted: all %llu route adds placed\n", (unsigned long long)offered);
   } else {
      std::printf("Result: DID NOT FIT: %llu of %llu route adds refused\n",
                  (unsigned long long)st.refused(), (unsigned long long)offered);
   }
}

void printRegions(const std::vector<Row>& rows) {
   std::printf("  %-26s %10s %9s %11s %8s %12s %12s  %s\n", "region", "routes", "refused",
               "free routes", "used %", "used entries", "free entries", "severity");
   for (const Row& r : rows) {
      const std::string percent = r.max ? fmt::format("{:.1f}%", r.percentUsed) : "-";
      std::printf("  %-26s %10llu %9llu %11llu %8s %12llu %12llu  %s\n", r.region.c_str(),
                  (unsigned long long)r.used, (unsigned long long)r.refused,
                  (unsigned long long)r.free, percent.c_str(), (unsigned long long)r.usedEntries,
                  (unsigned long long)r.freeEntries, r.severity.c_str());
   }
   std::printf(
       "  routes: installed at the end; free routes: what can still be placed (of the region's "
       "length mix);\n  used %%: routes / (routes + free routes); entries: of the size the "
       "region's routes take\n");
}

void printRefusals(const sim::Statistics& st) {
   for (unsigned i = 0; i < sim::numRegions; ++i) {
      const sim::Statistics::Refusals& rr = st.refusals[i];
      if (rr.total() == 0) continue;
      std::printf("Refused %s: %llu\n", std::string(sim::regionName(sim::Region(i))).c_str(),
                  (unsigned long long)rr.total());
      for (unsigned k = 0; k < sim::numRefusalReasons; ++k) {
         if (rr.count[k] == 0) continue;
         std::printf("  %llu %s (first: %s)\n", (unsigned long long)rr.count[k],
                     std::string(sim::reasonName(sim::RefusalReason(k))).c_str(),
                     rr.example[k].c_str());
      }
      if (!rr.border.empty())
         std::printf("  the IPv4/IPv6 border did not move: %s\n", rr.border.c_str());
   }
}

// Moves per route of the load and per update of every later phase, once each.
void printMoves(const sim::Statistics& st) {
   std::string line;
   for (const auto& p : st.phases) {
      const sim::MoveHistogram& h = p.movesPerOperation;
      line +=
          fmt::format("{}{} {:.2f} per {} (p99 {}, max {})", line.empty() ? "" : "; ", p.name,
                      h.mean(), p.name == "load" ? "route" : "update", h.percentile(99), h.max());
   }
   std::printf("Moves: %s\n", line.empty() ? "none" : line.c_str());
}

std::string updateText(const sim::Statistics::Update& u) {
   return fmt::format("{} moves: {} {} ({}, operation {})", u.moves,
                      u.kind == sim::RouteOp::Kind::add ? "add" : "del", u.route, u.phase,
                      u.operation);
}

// What placing a route costs: per route placed by the load (when it refused some: otherwise that
// is the Moves line's figure per route), per withdrawal and announce of churn, and the largest
// single insert, apart from the largest update (which may be a withdrawal).
void printInserts(const sim::Statistics& st) {
   std::string line;
   for (const auto& p : st.phases) {
      if (p.name == "load" && p.refused) {
         line += fmt::format("{}load {:.2f} moves per route placed", line.empty() ? "" : "; ",
                             p.movesPerInsert.mean());
      } else if (p.name == "churn") {
         line += fmt::format("{}churn {:.2f} per withdraw+announce pair ({} pairs)",
                             line.empty() ? "" : "; ", p.movesPerPair(), p.pairs());
      }
   }
   if (!line.empty()) std::printf("Inserts: %s\n", line.c_str());
   if (st.largestInsert.moves == 0) {
      std::printf("Largest single insert: no insert moved a route\n");
   } else {
      std::printf("Largest single insert: %s\n", updateText(st.largestInsert).c_str());
   }
}

// Where churn of new prefixes took them, and whether it ran to its end.
void printChurnSource(const Options& o, const sim::Statistics& st) {
   std::string from =
       o.churnRoutes.empty()
           ? fmt::format("the generator (churn seed {})", o.churnSeed)
           : fmt::format("{}{}", o.churnRoutes == "-" ? "stdin" : o.churnRoutes,
                         st.churnRestarts
                             ? fmt::format(", started over {} times at its end", st.churnRestarts)
                             : "");
   std::printf("Churn: new prefixes from %s\n", from.c_str());
   if (!st.churnStopped.empty()) std::printf("  churn stopped %s\n", st.churnStopped.c_str());
}

void printWorst(const sim::Statistics& st, uint64_t n) {
   if (st.worst.empty()) {
      std::printf("Largest single update: no update moved a route\n");
      return;
   }
   std::printf("Largest single update: %s\n", updateText(st.worst.front()).c_str());
   if (n <= 1 || st.worst.size() <= 1) return;
   std::printf("Updates with the most moves (--worst %llu):\n", (unsigned long long)n);
   for (const auto& u : st.worst)
      std::printf("  %s\n", updateText(u).c_str());
}

}  // namespace

void printHeadline(const Options& o, const sim::Simulation& sim, const Input& in,
                   const std::vector<Row>& capacity, const Verdict& v) {
   const sim::Statistics& st = sim.statistics();
   std::printf("vexlo-tcam: %s\n", configLine(o, sim).c_str());
   std::printf("Input: %s, %zu routes%s\n", in.description.c_str(), in.routeCount,
               inputNotes(in).c_str());
   printResult(st, v);
   if (!capacity.empty()) printRegions(capacity);
   printRefusals(st);
   if (o.churn && o.churnKind == "new") printChurnSource(o, st);
   printMoves(st);
   printInserts(st);
   printWorst(st, o.worst);
   if (!v.failedOn.empty()) std::printf("Failed: %s\n", v.failedOn.c_str());
   std::printf("\n");
}

}  // namespace VexloL3Common::tool
