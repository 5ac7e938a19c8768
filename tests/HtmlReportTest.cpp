// HtmlReport: the page's structure (figures in order, captions, nothing fetched from outside),
// the table map's merged rectangles read back entry by entry, the border line, escaping of every
// caller text, the histogram's bars, degenerate inputs, and the page as a headless browser
// renders it (skipped where no browser is installed).

#include "sim/HtmlReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <map>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <sys/wait.h>

namespace VexloL3Common::sim {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using Cell = ReportData::Cell;

std::string render(const ReportData& d) {
   std::ostringstream out;
   writeHtmlReport(out, d);
   return out.str();
}

size_t occurrences(const std::string& s, const std::string& what) {
   size_t n = 0;
   for (size_t at = s.find(what); at != std::string::npos; at = s.find(what, at + what.size()))
      ++n;
   return n;
}

std::string between(const std::string& s, const std::string& from, const std::string& to) {
   size_t a = s.find(from);
   if (a == std::string::npos) return {};
   size_t b = s.find(to, a);
   return s.substr(a, b == std::string::npos ? std::string::npos : b - a);
}

// The map's rectangles as drawn: row, first column, width, class.
struct Run {
   uint32_t row, x, width;
   std::string cls;
};
std::vector<std::vector<Run>> mapRuns(const std::string& page) {
   static const std::regex token(
       R"re(<g transform="translate\(0,(\d+)\)">|<rect x="(\d+)" width="(\d+)" height="1" class="([\w-]+)")re");
   std::vector<std::vector<Run>> maps;
   for (size_t at = page.find("<g class=\"cells\""); at != std::string::npos;
        at = page.find("<g class=\"cells\"", at + 1)) {
      std::string cells = page.substr(at, page.find("<rect class=\"frame\"", at) - at);
      maps.emplace_back();
      uint32_t row = 0;
      for (std::sregex_iterator it(cells.begin(), cells.end(), token), end; it != end; ++it) {
         if ((*it)[1].matched)
            row = std::stoul((*it)[1]);
         else
            maps.back().push_back(
                {row, uint32_t(std::stoul((*it)[2])), uint32_t(std::stoul((*it)[3])), (*it)[4]});
      }
   }
   return maps;
}

// Reads the runs back entry by entry and checks them against the entries: every entry covered
// once in index order, a run never mixes two kinds of cell, neighbours in a row always differ
// (runs are as long as they can be), and one class stands for one kind of cell throughout.
void expectRunsMatch(const std::vector<Run>& runs, const std::vector<ReportData::MapEntry>& e) {
   auto kind = [](const ReportData::MapEntry& m) {
      Cell c = m.cell == Cell::v6DoubleSecond ? Cell::v6Double : m.cell;
      return c == Cell::empty || c == Cell::reserved ? int(c) << 8 : (int(c) << 8) | m.len;
   };
   uint32_t cols = 0;
   for (const Run& r : runs)
      if (r.row == 0) cols += r.width;
   std::map<std::string, int> kindOf;
   size_t next = 0;
   for (size_t i = 0; i < runs.size(); ++i) {
      const Run& r = runs[i];
      ASSERT_EQ(size_t(r.row) * cols + r.x, next) << "run " << i << " leaves a gap or overlaps";
      ASSERT_LE(next + r.width, e.size());
      for (size_t k = next; k < next + r.width; ++k)
         ASSERT_EQ(kind(e[k]), kind(e[next]))
             << "run " << i << " mixes entries " << next << ", " << k;
      ASSERT_EQ(kindOf.emplace(r.cls, kind(e[next])).first->second, kind(e[next]))
          << "class " << r.cls << " names two kinds of cell";
      EXPECT_TRUE(i == 0 || runs[i - 1].row != r.row || runs[i - 1].cls != r.cls)
          << "runs " << i - 1 << " and " << i << " not merged";
      next += r.width;
   }
   EXPECT_EQ(next, e.size());
}

// A table as the model lays it out: reserved entry 0, IPv4 longest first with a few holes, free
// space, the border, IPv6 doubles and singles, free space.
ReportData::TableMap sortedTable(uint32_t size, uint32_t border) {
   ReportData::TableMap m{"unicast table", std::vector<ReportData::MapEntry>(size), border};
   m.entries[0].cell = Cell::reserved;
   for (uint32_t i = 1; i < border * 7 / 8; ++i)
      m.entries[i] = {Cell::v4, uint8_t(32 - (i * 25 / border))};
   for (uint32_t i = 37; i < border / 2; i += 301)
      m.entries[i] = {};
   uint32_t i = border;
   for (; i < border + size / 8; i += 2) {
      m.entries[i] = {Cell::v6Double, uint8_t(128 - (i - border) * 60 / (size / 8))};
      m.entries[i + 1] = {Cell::v6DoubleSecond, m.entries[i].len};
   }
   for (; i < size * 7 / 8; ++i)
      m.entries[i] = {Cell::v6Single, uint8_t(64 - (i - border) * 48 / size)};
   return m;
}

ReportData sample() {
   ReportData d;
   d.title = "run";
   d.facts = {{"routes", "10"}};
   d.capacity = {{"IPv4", 100, 90, 10, 95, 90.0, "critical"}, {"IPv6", 100, 5, 95, 5, 5.0, ""}};
   d.maps = {sortedTable(1024, 512)};
   d.movesPerUpdate = {7, 3, 0, 1};
   d.tableEntries = 1024;
   d.occupancyRegions = {"IPv4", "IPv6"};
   for (uint64_t op = 1; op <= 10; ++op)
      d.occupancy.push_back({op, uint32_t(op * 50), {op * 40, op * 10}});
   return d;
}

TEST(HtmlReport, TablesThenThreeCaptionedFiguresInOrderAndNothingFetched) {
   const std::string page = render(sample());
   size_t last = 0;
   for (const char* part :
        {"<table class=\"facts\"", "<table class=\"capacity\"", "<figure id=\"table-map\"",
         "<figure id=\"moves-per-update\"", "<figure id=\"occupancy\""}) {
      const size_t at = page.find(part);
      ASSERT_NE(at, std::string::npos) << part;
      EXPECT_LT(last, at) << part;
      last = at;
      if (part[1] != 'f') continue;
      std::string fig = between(page, part, "</figure>");
      EXPECT_EQ(occurrences(fig, "<svg"), 1u) << part;
      EXPECT_EQ(occurrences(fig, "</svg>\n<figcaption>"), 1u) << part;
   }
   EXPECT_THAT(page, HasSubstr("<body data-render=\"pending\" data-figures=\"0\">"));
   // Offline: the only URL is the SVG namespace name, which is never fetched.
   EXPECT_EQ(occurrences(page, "http"), occurrences(page, "xmlns=\"http://www.w3.org/2000/svg\""));
   for (const char* fetch : {"src=", "url(", "<link", "@import"})
      EXPECT_THAT(page, Not(HasSubstr(fetch)));
}

// A sorted 16K table is a few hundred runs, few enough to carry a tooltip each (and the border
// line its own); a fragmented one drops the tooltips to stay under a megabyte.
TEST(HtmlReport, SixteenKTablesReadBackExactlyWithTooltipsOnlyWhenSorted) {
   ReportData sorted, fragmented;
   sorted.maps = {sortedTable(16384, 8192), sortedTable(4096, 0)};
   sorted.maps[1].name = "multicast table";
   for (auto& e : sorted.maps[1].entries)
      if (e.cell != Cell::empty && e.cell != Cell::reserved) e.cell = Cell::mcast, e.len /= 2;
   fragmented.maps = {{"unicast table", std::vector<ReportData::MapEntry>(16384), 0}};
   std::mt19937 rng(5);
   for (auto& e : fragmented.maps[0].entries)
      e = {Cell(rng() % 7), uint8_t(rng() % 33)};
   for (const ReportData* d : {&sorted, &fragmented}) {
      const bool isSorted = d == &sorted;
      SCOPED_TRACE(isSorted ? "sorted" : "fragmented");
      const std::string page = render(*d);
      const auto runs = mapRuns(page);
      ASSERT_EQ(runs.size(), d->maps.size());
      for (size_t m = 0; m < runs.size(); ++m)
         expectRunsMatch(runs[m], d->maps[m].entries);
      EXPECT_TRUE(isSorted ? runs[0].size() < 400u : runs[0].size() > 10000u) << runs[0].size();
      EXPECT_LT(page.size(), isSorted ? 200'000u : 1'000'000u);
      EXPECT_EQ(
          occurrences(between(page, "<g class=\"cells\"", "<rect class=\"frame\""), "<title>"),
          isSorted ? runs[0].size() + 1 : 0u);
   }
}

TEST(HtmlReport, BorderLineStepsAroundTheBorderEntryAndIsAbsentWithoutOne) {
   ReportData d;
   // 1000 entries draw 32 to a row: entry 200 is column 8 of row 6.
   d.maps = {sortedTable(1000, 200)};
   EXPECT_THAT(render(d), HasSubstr("points=\"0,7 8,7 8,6 32,6\""));
   d.maps[0].v4V6Border = 224;  // the start of row 7
   EXPECT_THAT(render(d), HasSubstr("points=\"0,7 32,7\""));
   d.maps[0].v4V6Border = 0;
   EXPECT_THAT(render(d), Not(HasSubstr("<polyline class=\"border\"")));
}

TEST(HtmlReport, EveryCallerTextIsEscaped) {
   const std::string evil = "<script>alert(\"x\")</script> & 'q'";
   const std::string escaped =
       "&lt;script&gt;alert(&quot;x&quot;)&lt;/script&gt; &amp; &#39;q&#39;";
   ReportData d = sample();
   d.title = evil;
   d.facts = {{evil, evil}};
   d.capacity[0].region = evil;
   d.capacity[0].warning = evil;
   d.maps[0].name = evil;
   d.occupancyRegions[0] = evil;
   const std::string page = render(d);
   EXPECT_EQ(occurrences(page, "<script"), 1u);
   EXPECT_THAT(page, Not(HasSubstr("alert(\"")));
   // title twice, fact label and value, region, warning, map name, legend tooltip: the legend
   // text itself is shortened.
   EXPECT_EQ(occurrences(page, escaped), 8u);
}

// The bar heights of the histogram, in order.
std::vector<double> barHeights(const std::string& page) {
   static const std::regex bar(R"re(<rect class="bar" [^>]*height="([\d.]+)")re");
   std::vector<double> h;
   for (std::sregex_iterator it(page.begin(), page.end(), bar), end; it != end; ++it)
      h.push_back(std::stod((*it)[1]));
   return h;
}

TEST(HtmlReport, HistogramHasOneBarPerBinScaledToTheTallestWithTheLastOpenEnded) {
   ReportData d;
   d.movesPerUpdate = {1000000, 0, 1, 500000, 7};
   std::string page = render(d);
   auto h = barHeights(page);
   ASSERT_EQ(h.size(), 5u);
   EXPECT_DOUBLE_EQ(h[1], 0);
   EXPECT_GE(h[2], 1.5) << "a count of 1 beside a million must stay visible";
   EXPECT_NEAR(h[3] / h[0], 0.5, 0.01);
   EXPECT_THAT(page, HasSubstr("<title>4 or more moves: 7 updates</title>"));
   EXPECT_THAT(page, HasSubstr("1,500,008 updates in all"));

   d.movesPerUpdate = {0, 0, 0};
   page = render(d);
   EXPECT_EQ(barHeights(page), (std::vector<double>{0, 0, 0}));
   EXPECT_THAT(page, HasSubstr("every count is zero"));

   const uint64_t huge = std::numeric_limits<uint64_t>::max();
   d.movesPerUpdate = {huge, huge / 2};
   page = render(d);
   h = barHeights(page);
   ASSERT_EQ(h.size(), 2u);
   EXPECT_NEAR(h[1] / h[0], 0.5, 0.01);
   EXPECT_THAT(page, Not(HasSubstr("nan")));
   EXPECT_THAT(page, Not(HasSubstr("inf")));
}

TEST(HtmlReport, EmptyDataStillGivesThreeFiguresWithSomethingDrawn) {
   const std::string page = render(ReportData{});
   for (const char* tag : {"<figure", "</figure>", "<svg", "</svg>", "<rect class=\"frame\""})
      EXPECT_EQ(occurrences(page, tag), 3u) << tag;
   for (const char* text : {"<title>TCAM simulation report</title>", "no table map recorded",
                            "no updates recorded", "no samples recorded"})
      EXPECT_THAT(page, HasSubstr(text));

   ReportData d;
   d.maps = {{"unicast table", {}, 0}};
   EXPECT_THAT(render(d), HasSubstr(">no entries</text>"));
}

TEST(HtmlReport, OccupancyMarksFewSamplesAndThinsManyToThePlotWidth) {
   ReportData d;
   d.occupancyRegions = {"IPv4"};
   d.occupancy = {{5, 3, {3}}};  // one sample, table size unknown: counts, not percent
   std::string page = render(d);
   EXPECT_EQ(occurrences(page, "<circle"), 2u);
   EXPECT_THAT(page, HasSubstr(">used entries</text>"));

   // Half full, with a one-sample spike to full every 97 operations: each pixel column of the
   // 720 px plot holds about 278 samples and at least two spikes, never only at its ends.
   d.tableEntries = 1000;
   d.occupancy.clear();
   for (uint64_t op = 1; op <= 200000; ++op)
      d.occupancy.push_back({op, op % 97 == 50 ? 1000u : 500u, {op}});
   page = render(d);
   EXPECT_EQ(occurrences(page, "<circle"), 0u);
   EXPECT_THAT(page, HasSubstr(">used entries (%)</text>"));
   // Plain scanning: std::regex recurses per character and overflows the stack on a long
   // attribute under the sanitizers.
   std::vector<std::string> lines;
   for (size_t at = page.find("<polyline class=\"series\""); at != std::string::npos;
        at = page.find("<polyline class=\"series\"", at + 1)) {
      const size_t from = page.find("points=\"", at) + 8;
      lines.push_back(page.substr(from, page.find('"', from) - from));
   }
   ASSERT_EQ(lines.size(), 2u);
   for (const std::string& pts : lines) {
      EXPECT_LE(occurrences(pts, ","), 4u * 721);
      EXPECT_GT(occurrences(pts, ","), 700u);
   }
   // Every column keeps its spike (100 %: y 28) as well as the level (50 %: y 123).
   EXPECT_GE(occurrences(lines[0], ",28.0 "), 700u);
   EXPECT_GE(occurrences(lines[0], ",123.0 "), 700u);
}

TEST(HtmlReport, CapacityRowsWithAWarningAreHighlightedAndPercentBarsClamped) {
   ReportData d;
   d.capacity = {{"IPv4", 10, 13, 0, 13, 130.0, "over"},
                 {"IPv6", 10, 0, 10, 0, std::numeric_limits<double>::quiet_NaN(), ""}};
   const std::string page = render(d);
   EXPECT_EQ(occurrences(page, "<tr class=\"warn\">"), 1u);
   EXPECT_THAT(page, HasSubstr("<tr class=\"warn\"><td>IPv4<"));
   EXPECT_THAT(page, HasSubstr("width:100.0%\"></span></span>130.0%"));
   EXPECT_THAT(page, HasSubstr("<td>&#8211;</td>"));
}

// Two runs side by side: a histogram each, and no HTML id given twice (a link or a script finds the
// first only).
TEST(HtmlReport, ComparisonGivesEachRunsHistogramAnIdOfItsOwn) {
   ComparisonData d;
   d.runs = {"classic", "weighted"};
   d.rows = {{"moves per update", "1.00", "0.10"}};
   d.movesPerUpdate = {std::vector<uint64_t>{5, 3, 1}, std::vector<uint64_t>{9}};
   std::ostringstream out;
   writeHtmlComparison(out, d);
   const std::string page = out.str();
   EXPECT_EQ(occurrences(page, "<figure id="), 2u);
   std::map<std::string, int> ids;
   const std::regex id("id=\"([^\"]*)\"");
   for (auto it = std::sregex_iterator(page.begin(), page.end(), id); it != std::sregex_iterator();
        ++it)
      ++ids[(*it)[1]];
   for (const auto& [name, n] : ids)
      EXPECT_EQ(n, 1) << name;
}

// The page as a browser draws it (a full report is checked by the command-line tests): the empty
// page renders, and the check fails on a broken figure or a wrong figure count.
TEST(HtmlReport, HeadlessBrowserRendersEveryFigure) {
   const std::string script = std::string(VEXLO_DATA_DIR) + "/../scripts/check-report-render";
   const std::string dir = ::testing::TempDir();
   auto check = [&](const std::string& page, const std::string& name, int figures) {
      std::ofstream(dir + name) << page;
      int rc =
          std::system(("'" + script + "' '" + dir + name + "' " + std::to_string(figures)).c_str());
      return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
   };
   const std::string empty = render(ReportData{});
   const int rc = check(empty, "report-empty.html", 3);
   if (rc == 77) GTEST_SKIP() << "no chromium installed";
   EXPECT_EQ(rc, 0);
   EXPECT_EQ(check(empty, "report-empty.html", 4), 1);
   std::string broken = render(sample());
   const size_t svg = broken.find("<svg", broken.find("<figure id=\"moves-per-update\""));
   broken.replace(svg, broken.find("</svg>", svg) + 6 - svg, "<p>gone</p>");
   EXPECT_EQ(check(broken, "report-broken.html", 2), 1);
}

}  // namespace
}  // namespace VexloL3Common::sim
