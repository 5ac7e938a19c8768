// The simulator's HTML report: one self-contained page (inline SVG and CSS, no script or font
// fetched from anywhere) that an operator opens in any browser, offline.
//
// Synopsis
//   ReportData d;  d.title = ...;  d.facts = ...;  d.maps = ...;  d.movesPerUpdate = ...;
//   writeHtmlReport(out, d);
//   writeHtmlComparison(out, c);     two runs' figures side by side
//
// Three figures, in this order, each an <svg> inside a <figure> with a <figcaption>:
//   table map     one cell per TCAM entry in index order, row by row, coloured by the prefix
//                 length it holds (a legend gives the scale for each family); empty entries
//                 pale, reserved entries dark; the IPv4/IPv6 border drawn as a line. Runs of equal
//                 cells are drawn as one rectangle so that a 16 K table stays small.
//   moves per update   histogram: updates (y) that took 0, 1, 2, ... moves (x); the last bar is
//                 "that many or more".
//   occupancy over the run   used entries of the table (percent of its size) and routes per
//                 region against the operation number.
// Above them a table of facts (the run's statistics, as the caller words them) and the capacity
// table. A small inline script checks the page after loading (every figure present and laid out
// with a non-empty size, no script error) and records the outcome on <body> as
// data-render="ok" or data-render="error: ..." and data-figures="<count>", so that a headless
// browser can tell that the page rendered.
//
// Every text taken from the caller is escaped. Writing is linear in the size of the data.
#pragma once

#include <array>
#include <cstdint>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace VexloL3Common::sim {

struct ReportData {
   // What one TCAM entry holds, for the map.
   enum class Cell : uint8_t { empty, v4, v6Single, v6Double, v6DoubleSecond, mcast, reserved };
   struct MapEntry {
      Cell cell = Cell::empty;
      uint8_t len = 0;  // the prefix length held (the longer one of two IPv4 halves)
   };
   struct TableMap {
      std::string name;               // "unicast table", "multicast table"
      std::vector<MapEntry> entries;  // index = TCAM entry; entry 0 is never a route's
      uint32_t v4V6Border = 0;        // first entry above the border; 0: none drawn
   };
   struct CapacityRow {
      std::string region;  // "IPv4", "IPv6 single (<= /64)", ...
      uint64_t max = 0, used = 0, free = 0, highWatermark = 0;
      double percentUsed = 0;
      std::string warning;  // empty, or the warning text
      // Entries of the size the region's routes take: in use, and free in its block (blocks that
      // overlap count the same free entries in each).
      uint64_t usedEntries = 0, freeEntries = 0;
      uint64_t refused = 0;         // adds of the region's routes refused during the run
      std::string severity = "ok";  // "ok", "warning" (at the warning threshold) or "critical"
                                    // (at the critical threshold, or routes were refused)
   };
   // Used entries and routes per region after operation `op` (1-based count of operations).
   struct Sample {
      uint64_t op = 0;
      uint32_t usedEntries = 0;
      std::vector<uint64_t> routes;  // one per name in occupancyRegions
   };

   std::string title;
   std::vector<std::pair<std::string, std::string>> facts;  // label, value
   std::vector<CapacityRow> capacity;
   std::vector<TableMap> maps;
   std::vector<uint64_t> movesPerUpdate;  // [i]: updates that took i moves; last: that or more
   uint32_t tableEntries = 0;             // the size occupancy percentages are taken of
   std::vector<std::string> occupancyRegions;
   std::vector<Sample> occupancy;
};

void writeHtmlReport(std::ostream& out, const ReportData& data);

// The bars of the moves-per-update histogram from exact counts ([i]: updates that took i moves):
// one per count up to 31 moves, and a last one for 32 or more (empty when every count fits).
std::vector<uint64_t> movesBars(const std::vector<uint64_t>& counts);

// Two runs side by side (vexlo-tcam compare): a table of their figures, one column per run, and
// the moves-per-update histogram of each, in the report's style and with its self-check.
struct ComparisonData {
   std::string title;
   std::array<std::string, 2> runs;                      // the column heads
   std::vector<std::array<std::string, 3>> rows;         // label, first run, second run
   std::array<std::vector<uint64_t>, 2> movesPerUpdate;  // bars, as movesBars gives them
};
void writeHtmlComparison(std::ostream& out, const ComparisonData& data);

}  // namespace VexloL3Common::sim
