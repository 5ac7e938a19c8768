// Figure 1 of the HTML report: the table map, one cell per TCAM entry coloured by the prefix length
// it holds, with its legend and the CSS rules of the colours.
#include <algorithm>
#include <bit>
#include <cmath>

#include "sim/HtmlPage.h"

namespace VexloL3Common::sim::html {
namespace {

using Cell = ReportData::Cell;

// ---------------------------------------------------------------------------------------------
// Colours of the table map

std::string hsl(double h, double s, double l) {
   s /= 100;
   l /= 100;
   auto channel = [&](double n) {
      double k = std::fmod(n + h / 30, 12);
      double a = s * std::min(l, 1 - l);
      double v = l - a * std::max(-1.0, std::min({k - 3, 9 - k, 1.0}));
      return int(std::lround(v * 255));
   };
   return fmt::format("#{:02x}{:02x}{:02x}", channel(0), channel(8), channel(4));
}

// A sequential scale per family: short prefixes light, long prefixes dark, each family in its
// own hue range so that the families stay apart in a mixed table.
struct Family {
   const char* cls;   // CSS class prefix of its cells
   const char* name;  // legend text
   int maxLen;
   int tickEvery;
   double hue0, hue1, light0, light1, sat;
};
constexpr Family families[] = {
    {"m4", "IPv4", 32, 8, 190, 232, 85, 28, 78},
    {"m6s", "IPv6 single", 128, 16, 80, 155, 84, 24, 62},
    {"m6d", "IPv6 double", 128, 16, 272, 318, 88, 30, 58},
    {"mc", "multicast", 64, 8, 48, 14, 84, 34, 88},
};
constexpr int numFamilies = 4;
constexpr const char* emptyFill = "#eceff3";
constexpr const char* reservedFill = "#262b33";

int familyOf(Cell c) {
   switch (c) {
      case Cell::v4:
         return 0;
      case Cell::v6Single:
         return 1;
      case Cell::v6Double:
      case Cell::v6DoubleSecond:
         return 2;
      case Cell::mcast:
         return 3;
      case Cell::empty:
      case Cell::reserved:
         return -1;
   }
   return -1;
}

int clampLen(int family, uint8_t len) {
   return std::min<int>(len, families[family].maxLen);
}

std::string familyColour(int family, int len) {
   const Family& fam = families[family];
   double t = double(len) / fam.maxLen;
   return hsl(fam.hue0 + (fam.hue1 - fam.hue0) * t, fam.sat,
              fam.light0 + (fam.light1 - fam.light0) * t);
}

// What a map cell looks like: cells with equal keys merge into one rectangle. The second half
// of a double-wide IPv6 route looks like its first half, so a run of doubles stays one run.
// 0: empty, 1: reserved, else (family + 1) << 8 | length.
uint16_t keyOf(const ReportData::MapEntry& e) {
   if (e.cell == Cell::empty) return 0;
   if (e.cell == Cell::reserved) return 1;
   int fam = familyOf(e.cell);
   return uint16_t(((fam + 1) << 8) | clampLen(fam, e.len));
}

void appendKeyClass(Page& p, uint16_t key) {
   if (key == 0) return p.raw("m-e");
   if (key == 1) return p.raw("m-r");
   p.f("{}-{}", families[(key >> 8) - 1].cls, key & 0xff);
}

void appendKeyText(Page& p, uint16_t key) {
   if (key == 0) return p.raw("empty");
   if (key == 1) return p.raw("reserved");
   p.f("{} /{}", families[(key >> 8) - 1].name, key & 0xff);
}
// ---------------------------------------------------------------------------------------------
// Figure 1: table map

constexpr int mapLeft = 72, mapWidth = 832;
// Above this many rectangles in one map, tooltips would make the page too heavy to open.
constexpr size_t maxTitledRects = 4096;

struct MapGeometry {
   uint32_t cols = 16, rows = 0;
   double cellW = 0, rowH = 0;
};

MapGeometry geometryOf(size_t n) {
   MapGeometry g;
   size_t side = size_t(std::ceil(std::sqrt(double(n))));
   g.cols = uint32_t(std::clamp<size_t>(std::bit_ceil(std::max<size_t>(side, 1)), 16, 512));
   g.rows = uint32_t((n + g.cols - 1) / g.cols);
   g.cellW = double(mapWidth) / g.cols;
   g.rowH = std::clamp(g.cellW * 0.6, 2.5, 16.0);
   return g;
}

template <class Fn>
void forEachRun(const std::vector<ReportData::MapEntry>& e, uint32_t cols, Fn&& fn) {
   for (size_t start = 0; start < e.size(); start += cols) {
      size_t end = std::min(e.size(), start + cols);
      for (size_t i = start; i < end;) {
         uint16_t key = keyOf(e[i]);
         size_t j = i + 1;
         while (j < end && keyOf(e[j]) == key)
            ++j;
         fn(start, i, j, key);
         i = j;
      }
   }
}

constexpr int mapHeadH = 58, mapGap = 30, legendRowH = 46;

int mapBlockHeight(const ReportData::TableMap& m) {
   if (m.entries.empty()) return 44 + mapGap;
   const MapGeometry g = geometryOf(m.entries.size());
   return mapHeadH + int(std::ceil(g.rows * g.rowH)) + mapGap;
}

bool titledMap(const ReportData::TableMap& m) {
   size_t runs = 0;
   forEachRun(m.entries, geometryOf(m.entries.size()).cols,
              [&](size_t, size_t, size_t, uint16_t) { ++runs; });
   return runs <= maxTitledRects;
}

// The counts under a map's title: routes per family, reserved and empty entries.
void drawMapCounts(Page& p, const std::vector<ReportData::MapEntry>& e, int top) {
   uint64_t perFamily[numFamilies] = {}, empty = 0, reserved = 0;
   for (const auto& x : e) {
      int fam = familyOf(x.cell);
      if (fam >= 0)
         ++perFamily[fam];
      else if (x.cell == Cell::empty)
         ++empty;
      else
         ++reserved;
   }
   p.f("<text class=\"sub\" x=\"{}\" y=\"{}\">", mapLeft, top + 30);
   for (int f = 0; f < numFamilies; ++f)
      if (perFamily[f] != 0) p.f("{} {} &#183; ", families[f].name, grouped(perFamily[f]));
   p.f("reserved {} &#183; empty {}</text>\n", grouped(reserved), grouped(empty));
}

// Column offsets along the top, start entry of rows down the left.
void drawMapAxes(Page& p, const MapGeometry& g, int gridTop) {
   for (uint32_t c = 0; c <= g.cols; c += g.cols / 4) {
      double x = mapLeft + c * g.cellW;
      p.f("<line class=\"axis\" x1=\"{0:.1f}\" y1=\"{1}\" x2=\"{0:.1f}\" y2=\"{2}\"/>", x,
          gridTop - 4, gridTop);
      p.f("<text x=\"{:.1f}\" y=\"{}\" text-anchor=\"middle\">+{}</text>\n", x, gridTop - 7, c);
   }
   uint32_t every = 1;
   while (every * g.rowH < 16 || g.rows / every > 24)
      every *= 2;
   for (uint32_t r = 0; r < g.rows; r += every) {
      double y = gridTop + r * g.rowH;
      p.f("<line class=\"axis\" x1=\"{0}\" y1=\"{1:.1f}\" x2=\"{2}\" y2=\"{1:.1f}\"/>", mapLeft - 4,
          y, mapLeft);
      p.f("<text x=\"{}\" y=\"{:.1f}\" text-anchor=\"end\">{}</text>\n", mapLeft - 7, y + 4,
          grouped(uint64_t(r) * g.cols));
   }
}

// The cells, runs of equal ones as one rectangle, and the IPv4/IPv6 border over them.
void drawMapCells(Page& p, const ReportData::TableMap& m, const MapGeometry& g, int gridTop) {
   const auto& e = m.entries;
   const bool titled = titledMap(m);

   // Cells are drawn in cell units (x: column, y: row) and scaled once: the coordinates stay
   // exact integers and short, which is most of the page's size for a fragmented table.
   p.f("<g class=\"cells\" shape-rendering=\"crispEdges\" "
       "transform=\"translate({},{}) scale({:.4f},{:.4f})\">\n",
       mapLeft, gridTop, g.cellW, g.rowH);
   // One group per row, so that a rectangle needs no y.
   forEachRun(e, g.cols, [&](size_t rowStart, size_t i, size_t j, uint16_t key) {
      if (i == rowStart) {
         if (i != 0) p.raw("</g>\n");
         p.f("<g transform=\"translate(0,{})\">", rowStart / g.cols);
      }
      p.f("<rect x=\"{}\" width=\"{}\" height=\"1\" class=\"", i - rowStart, j - i);
      appendKeyClass(p, key);
      if (!titled) return p.raw("\"/>");
      p.raw("\"><title>");
      if (j - i == 1)
         p.f("entry {}: ", i);
      else
         p.f("entries {}&#8211;{}: ", i, j - 1);
      appendKeyText(p, key);
      p.raw("</title></rect>");
   });
   p.raw("</g>\n");
   if (m.v4V6Border > 0 && m.v4V6Border <= e.size()) {
      uint32_t r = m.v4V6Border / g.cols, c = m.v4V6Border % g.cols;
      p.raw("<polyline class=\"border\" vector-effect=\"non-scaling-stroke\" points=\"");
      if (c == 0)
         p.f("0,{0} {1},{0}", r, g.cols);
      else
         p.f("0,{0} {1},{0} {1},{2} {3},{2}", r + 1, c, r, g.cols);
      p.f("\"><title>IPv4/IPv6 border at entry {}</title></polyline>\n", m.v4V6Border);
   }
   p.raw("</g>\n");
}

void drawMap(Page& p, const ReportData::TableMap& m, int top) {
   const auto& e = m.entries;
   p.f("<text class=\"ttl\" x=\"{}\" y=\"{}\">", mapLeft, top + 14);
   p.text(m.name.empty() ? std::string_view("table") : std::string_view(m.name));
   p.f(" &#8212; {} entries</text>\n", grouped(e.size()));
   if (e.empty()) {
      p.f("<text class=\"none\" x=\"{}\" y=\"{}\">no entries</text>\n", mapLeft, top + 34);
      return;
   }
   drawMapCounts(p, e, top);

   const MapGeometry g = geometryOf(e.size());
   const int gridTop = top + mapHeadH;
   const double gridH = g.rows * g.rowH;
   drawMapAxes(p, g, gridTop);
   drawMapCells(p, m, g, gridTop);
   p.f("<rect class=\"frame\" x=\"{}\" y=\"{}\" width=\"{}\" height=\"{:.1f}\"/>\n", mapLeft,
       gridTop, mapWidth, gridH);
   if (m.v4V6Border > 0 && m.v4V6Border <= e.size()) {
      double y = gridTop + (m.v4V6Border / g.cols) * g.rowH;
      p.f("<text class=\"blabel\" x=\"{0}\" y=\"{1:.1f}\">border</text>"
          "<text class=\"blabel\" x=\"{0}\" y=\"{2:.1f}\">@ {3}</text>\n",
          mapLeft + mapWidth + 6, y, y + 13, grouped(m.v4V6Border));
   }
}

void drawMapLegend(Page& p, const bool (&present)[numFamilies], int top) {
   const int barX = mapLeft + 190, barW = 400;
   int y = top;
   for (int f = 0; f < numFamilies; ++f) {
      if (!present[f]) continue;
      const Family& fam = families[f];
      p.f("<text x=\"{}\" y=\"{}\">{} prefix length</text>\n", mapLeft, y + 11, fam.name);
      double w = double(barW) / (fam.maxLen + 1);
      for (int len = 0; len <= fam.maxLen; ++len)
         p.f("<rect x=\"{:.2f}\" y=\"{}\" width=\"{:.2f}\" height=\"14\" fill=\"{}\"/>",
             barX + len * w, y, w + 0.3, familyColour(f, len));
      for (int len = 0; len <= fam.maxLen; len += fam.tickEvery) {
         double x = barX + (len + 0.5) * w;
         p.f("<line class=\"axis\" x1=\"{0:.1f}\" y1=\"{1}\" x2=\"{0:.1f}\" y2=\"{2}\"/>", x,
             y + 14, y + 18);
         p.f("<text x=\"{:.1f}\" y=\"{}\" text-anchor=\"middle\">/{}</text>", x, y + 30, len);
      }
      p.raw("\n");
      y += legendRowH;
   }
   int x = mapLeft;
   p.f("<rect x=\"{}\" y=\"{}\" width=\"14\" height=\"14\" fill=\"{}\" stroke=\"#b6bec9\"/>"
       "<text x=\"{}\" y=\"{}\">empty</text>\n",
       x, y, emptyFill, x + 20, y + 11);
   x += 90;
   p.f("<rect x=\"{}\" y=\"{}\" width=\"14\" height=\"14\" fill=\"{}\"/>"
       "<text x=\"{}\" y=\"{}\">reserved</text>\n",
       x, y, reservedFill, x + 20, y + 11);
   x += 110;
   p.f("<line class=\"border\" x1=\"{0}\" y1=\"{1}\" x2=\"{2}\" y2=\"{1}\"/>"
       "<text x=\"{3}\" y=\"{4}\">IPv4/IPv6 border</text>\n",
       x, y + 7, x + 22, x + 28, y + 11);
}

void presentFamilies(const std::vector<ReportData::TableMap>& maps, bool (&present)[numFamilies]) {
   std::fill(std::begin(present), std::end(present), false);
   for (const auto& m : maps)
      for (const auto& e : m.entries) {
         int fam = familyOf(e.cell);
         if (fam >= 0) present[fam] = true;
      }
}

}  // namespace

void figureMap(Page& p, const ReportData& d) {
   p.raw("<figure id=\"table-map\">\n");
   if (d.maps.empty()) {
      openSvg(p, 120, "table map");
      noData(p, mapLeft, 20, mapWidth, 80, "no table map recorded");
      p.raw(
          "</svg>\n<figcaption><b>Figure 1.</b> Table map: no table was recorded.</figcaption>\n"
          "</figure>\n");
      return;
   }
   bool present[numFamilies];
   presentFamilies(d.maps, present);
   int height = 10;
   for (const auto& m : d.maps)
      height += mapBlockHeight(m);
   const int legendTop = height;
   height += int(std::count(std::begin(present), std::end(present), true)) * legendRowH + 24;

   openSvg(p, height, "table map");
   int top = 10;
   for (const auto& m : d.maps) {
      drawMap(p, m, top);
      top += mapBlockHeight(m);
   }
   drawMapLegend(p, present, legendTop);
   p.raw(
       "</svg>\n<figcaption><b>Figure 1.</b> Table map: one cell per TCAM entry in index order, "
       "row by row (the left axis gives the first entry of a row, the top axis the offset "
       "within it). The colour gives the prefix length an entry holds, by family; pale cells "
       "are empty, dark cells reserved, and the red line marks the IPv4/IPv6 border.");
   if (std::all_of(d.maps.begin(), d.maps.end(), titledMap))
      p.raw(" Hover a run of cells for its entries.");
   p.raw("</figcaption>\n</figure>\n");
}

void mapCellStyles(Page& p, const std::vector<ReportData::TableMap>& maps) {
   // One rule per cell colour the maps use.
   bool used[2 + numFamilies * 256] = {};
   for (const auto& m : maps)
      for (const auto& e : m.entries) {
         uint16_t k = keyOf(e);
         used[k < 2 ? k : 2 + ((k >> 8) - 1) * 256 + (k & 0xff)] = true;
      }
   p.f(".m-e{{fill:{}}}.m-r{{fill:{}}}\n", emptyFill, reservedFill);
   for (int f = 0; f < numFamilies; ++f) {
      for (int len = 0; len <= families[f].maxLen; ++len)
         if (used[2 + f * 256 + len])
            p.f(".{}-{}{{fill:{}}}", families[f].cls, len, familyColour(f, len));
   }
}

}  // namespace VexloL3Common::sim::html
