#include "sim/HtmlReport.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <string_view>

namespace VexloL3Common::sim {
namespace {

using Cell = ReportData::Cell;

// The page is built in memory and written once: the ostream sees one write, and a page that
// fails half-way never reaches a file.
class Page {
 public:
   void raw(std::string_view s) { buf_.append(s.data(), s.data() + s.size()); }
   template <class... Args>
   void f(fmt::format_string<Args...> format, Args&&... args) {
      fmt::format_to(fmt::appender(buf_), format, std::forward<Args>(args)...);
   }
   // Text from the caller, safe both as element content and inside a quoted attribute.
   void text(std::string_view s) {
      for (char c : s) {
         switch (c) {
            case '&':
               raw("&amp;");
               break;
            case '<':
               raw("&lt;");
               break;
            case '>':
               raw("&gt;");
               break;
            case '"':
               raw("&quot;");
               break;
            case '\'':
               raw("&#39;");
               break;
            default:
               // Control characters other than white space are not allowed in HTML text.
               if (static_cast<unsigned char>(c) >= 0x20 || c == '\t' || c == '\n' || c == '\r')
                  buf_.push_back(c);
         }
      }
   }
   const fmt::memory_buffer& buffer() const { return buf_; }

 private:
   fmt::memory_buffer buf_;
};

// ---------------------------------------------------------------------------------------------
// Numbers

std::string grouped(uint64_t v) {
   std::string digits = fmt::format("{}", v);
   std::string out;
   for (size_t i = 0; i < digits.size(); ++i) {
      if (i != 0 && (digits.size() - i) % 3 == 0) out.push_back(',');
      out.push_back(digits[i]);
   }
   return out;
}

// Tick values and labels on crowded axes: four significant digits, then SI suffixes.
std::string compact(double v) {
   static constexpr const char* suffix[] = {"", "k", "M", "G", "T", "P", "E", "Z"};
   double a = std::fabs(v);
   if (a < 1000) return fmt::format("{:.4g}", v);
   int k = 0;
   while (a >= 1000 && k < 7) {
      a /= 1000;
      v /= 1000;
      ++k;
   }
   return fmt::format("{:.4g}{}", v, suffix[k]);
}

std::string count(uint64_t v) {
   return v < 1000000 ? grouped(v) : compact(double(v));
}

// An axis from 0 to `top` in `ticks` steps of `step`, with 1-2-2.5-5 steps and about five ticks.
struct Scale {
   double top = 1, step = 1;
   int ticks = 1;
};

Scale niceScale(double maxV, bool integral) {
   if (!(maxV > 0) || !std::isfinite(maxV)) maxV = 1;
   double raw = maxV / 5;
   double mag = std::pow(10.0, std::floor(std::log10(raw)));
   double norm = raw / mag;
   double m = norm <= 1 ? 1 : norm <= 2 ? 2 : norm <= 2.5 ? 2.5 : norm <= 5 ? 5 : 10;
   if (integral && m == 2.5 && mag < 1.5) m = 5;  // 2.5 would be a fractional count
   double step = m * mag;
   if (integral && step < 1) step = 1;
   Scale s;
   s.step = step;
   s.ticks = std::max(1, int(std::ceil(maxV / step - 1e-9)));
   s.top = s.ticks * step;
   return s;
}

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
// Common drawing pieces

constexpr int svgWidth = 1000;

void openSvg(Page& p, int height, std::string_view label) {
   p.f("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" "
       "viewBox=\"0 0 {0} {1}\" role=\"img\" aria-label=\"",
       svgWidth, height);
   p.text(label);
   p.raw("\">\n");
}

void noData(Page& p, int x, int y, int w, int h, std::string_view what) {
   p.f("<rect class=\"frame\" x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\"/>\n", x, y, w, h);
   p.f("<text class=\"none\" x=\"{}\" y=\"{}\" text-anchor=\"middle\">", x + w / 2, y + h / 2 + 4);
   p.text(what);
   p.raw("</text>\n");
}

// Horizontal grid lines and labels of a vertical axis running from y0 (value 0) up to y1.
void yAxis(Page& p, const Scale& s, int x0, int x1, double y0, double y1, std::string_view unit) {
   for (int i = 0; i <= s.ticks; ++i) {
      double y = y0 + (y1 - y0) * i / s.ticks;
      if (i != 0)
         p.f("<line class=\"grid\" x1=\"{}\" y1=\"{:.1f}\" x2=\"{}\" y2=\"{:.1f}\"/>", x0, y, x1,
             y);
      p.f("<text x=\"{}\" y=\"{:.1f}\" text-anchor=\"end\">{}{}</text>\n", x0 - 6, y + 4,
          compact(i * s.step), unit);
   }
   p.f("<line class=\"axis\" x1=\"{0}\" y1=\"{1:.1f}\" x2=\"{0}\" y2=\"{2:.1f}\"/>\n", x0, y0, y1);
}

void axisTitleLeft(Page& p, int x, double yMid, std::string_view title) {
   p.f("<text class=\"atl\" transform=\"translate({},{:.1f}) rotate(-90)\" text-anchor=\"middle\">",
       x, yMid);
   p.text(title);
   p.raw("</text>\n");
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

void drawMap(Page& p, const ReportData::TableMap& m, int top) {
   const auto& e = m.entries;
   p.f("<text class=\"ttl\" x=\"{}\" y=\"{}\">", mapLeft, top + 14);
   p.text(m.name.empty() ? std::string_view("table") : std::string_view(m.name));
   p.f(" &#8212; {} entries</text>\n", grouped(e.size()));
   if (e.empty()) {
      p.f("<text class=\"none\" x=\"{}\" y=\"{}\">no entries</text>\n", mapLeft, top + 34);
      return;
   }

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

   const MapGeometry g = geometryOf(e.size());
   const int gridTop = top + mapHeadH;
   const double gridH = g.rows * g.rowH;

   // Column offsets along the top, start entry of rows down the left.
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

// ---------------------------------------------------------------------------------------------
// Figure 2: moves per update

void figureMoves(Page& p, const std::vector<uint64_t>& bins) {
   constexpr int height = 360, left = 84, right = 24, top = 28, bottom = 64;
   constexpr int plotW = svgWidth - left - right, plotH = height - top - bottom;
   const double y0 = top + plotH;
   p.raw("<figure id=\"moves-per-update\">\n");
   openSvg(p, height, "moves per update");

   uint64_t maxCount = 0;
   double total = 0;
   for (uint64_t b : bins) {
      maxCount = std::max(maxCount, b);
      total += double(b);
   }
   if (bins.empty()) {
      noData(p, left, top, plotW, plotH, "no updates recorded");
   } else {
      const Scale s = niceScale(double(maxCount), true);
      yAxis(p, s, left, left + plotW, y0, top, "");
      const double band = double(plotW) / bins.size();
      const double barW = std::max(band * 0.8, std::min(band, 1.0));
      const size_t labelEvery = size_t(std::ceil(30 / band));
      const size_t n = bins.size();
      for (size_t i = 0; i < n; ++i) {
         const double h = double(bins[i]) / s.top * plotH;
         // A non-zero count stays visible next to a bar millions of times taller.
         const double shown = bins[i] != 0 ? std::max(h, 1.5) : 0.0;
         const double x = left + i * band + (band - barW) / 2;
         const bool openEnded = i + 1 == n && n > 1;
         p.f("<rect class=\"bar\" x=\"{:.2f}\" y=\"{:.2f}\" width=\"{:.2f}\" height=\"{:.2f}\">"
             "<title>{}{} move{}: {} update{}</title></rect>",
             x, y0 - shown, barW, shown, i, openEnded ? " or more" : "",
             i == 1 && !openEnded ? "" : "s", grouped(bins[i]), bins[i] == 1 ? "" : "s");
         if (band >= 26 && bins[i] != 0)
            p.f("<text class=\"val\" x=\"{:.1f}\" y=\"{:.1f}\" text-anchor=\"middle\">{}</text>",
                x + barW / 2, y0 - shown - 4, count(bins[i]));
         // The last label always shows; a regular one too close to it is dropped.
         const bool last = i + 1 == n;
         if (last || (i % labelEvery == 0 && n - 1 - i >= labelEvery)) {
            p.f("<text x=\"{:.1f}\" y=\"{:.1f}\" text-anchor=\"middle\">{}{}</text>",
                left + (i + 0.5) * band, y0 + 18, i, i + 1 == n && n > 1 ? "+" : "");
         }
         p.raw("\n");
      }
      p.f("<line class=\"axis\" x1=\"{0}\" y1=\"{1:.1f}\" x2=\"{2}\" y2=\"{1:.1f}\"/>\n", left, y0,
          left + plotW);
      if (maxCount == 0)
         p.f("<text class=\"none\" x=\"{}\" y=\"{}\" text-anchor=\"middle\">every count is "
             "zero</text>\n",
             left + plotW / 2, top + plotH / 2);
   }
   p.f("<text class=\"atl\" x=\"{}\" y=\"{}\" text-anchor=\"middle\">moves per update</text>\n",
       left + plotW / 2, height - 16);
   axisTitleLeft(p, 18, top + plotH / 2.0, "updates");
   p.raw(
       "</svg>\n<figcaption><b>Figure 2.</b> Moves per update: how many updates (y) took 0, 1, "
       "2, &#8230; entry moves (x)");
   if (bins.size() > 1) p.f("; the last bar counts {} moves or more", bins.size() - 1);
   p.f(". {} updates in all.</figcaption>\n</figure>\n",
       total < 1e15 ? grouped(uint64_t(total)) : compact(total));
}

// ---------------------------------------------------------------------------------------------
// Figure 3: occupancy over the run

constexpr const char* seriesColours[] = {"#2563eb", "#16a34a", "#9333ea", "#ea580c",
                                         "#0891b2", "#db2777", "#65a30d", "#475569"};

struct Point {
   double x, y;
};

// A polyline with at most four points per pixel column (first, lowest, highest, last): a run
// of a million samples draws the same envelope as the full series at a fraction of the size.
void polyline(Page& p, const std::vector<Point>& pts, const char* colour, bool markers) {
   if (pts.empty()) return;
   p.f("<polyline class=\"series\" stroke=\"{}\" points=\"", colour);
   for (size_t i = 0; i < pts.size();) {
      const double col = std::floor(pts[i].x);
      size_t j = i, lo = i, hi = i;
      while (j < pts.size() && std::floor(pts[j].x) == col) {
         if (pts[j].y < pts[lo].y) lo = j;
         if (pts[j].y > pts[hi].y) hi = j;
         ++j;
      }
      size_t keep[4] = {i, std::min(lo, hi), std::max(lo, hi), j - 1};
      for (int k = 0; k < 4; ++k)
         if (k == 0 || keep[k] != keep[k - 1])
            p.f("{:.1f},{:.1f} ", pts[keep[k]].x, pts[keep[k]].y);
      i = j;
   }
   p.raw("\"/>\n");
   if (markers)
      for (const auto& pt : pts)
         p.f("<circle cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"2.5\" fill=\"{}\"/>", pt.x, pt.y, colour);
}

// UTF-8 safe shortening of legend names; the full name stays in a tooltip.
std::string_view shortened(std::string_view s, size_t max, bool& cut) {
   cut = s.size() > max;
   if (!cut) return s;
   size_t n = max;
   while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xc0) == 0x80)
      --n;
   return s.substr(0, n);
}

void figureOccupancy(Page& p, const ReportData& d) {
   constexpr int left = 84, right = 210, plotW = svgWidth - left - right;
   constexpr int topA = 28, hA = 190, topB = topA + hA + 56, hB = 210, height = topB + hB + 56;
   const auto& samples = d.occupancy;
   p.raw("<figure id=\"occupancy\">\n");
   openSvg(p, height, "occupancy over the run");
   if (samples.empty()) {
      noData(p, left, topA, plotW, topB + hB - topA, "no samples recorded");
   } else {
      uint64_t maxOp = 0, maxRoutes = 0;
      double maxUsed = 0;
      for (const auto& s : samples) {
         maxOp = std::max(maxOp, s.op);
         maxUsed = std::max(maxUsed, double(s.usedEntries));
         for (size_t i = 0; i < s.routes.size() && i < d.occupancyRegions.size(); ++i)
            maxRoutes = std::max(maxRoutes, s.routes[i]);
      }
      const bool pct = d.tableEntries != 0;
      const double usedScale = pct ? 100.0 / d.tableEntries : 1.0;
      const Scale sx = niceScale(double(maxOp), true);
      const Scale sa = niceScale(maxUsed * usedScale, !pct);
      const Scale sb = niceScale(double(maxRoutes), true);
      auto xOf = [&](uint64_t op) { return left + double(op) / sx.top * plotW; };
      const bool markers = samples.size() <= 60;

      auto xAxis = [&](int y) {
         for (int i = 0; i <= sx.ticks; ++i) {
            double x = left + double(plotW) * i / sx.ticks;
            p.f("<line class=\"axis\" x1=\"{0:.1f}\" y1=\"{1}\" x2=\"{0:.1f}\" y2=\"{2}\"/>"
                "<text x=\"{0:.1f}\" y=\"{3}\" text-anchor=\"middle\">{4}</text>\n",
                x, y, y + 4, y + 17, compact(i * sx.step));
         }
         p.f("<line class=\"axis\" x1=\"{0}\" y1=\"{1}\" x2=\"{2}\" y2=\"{1}\"/>\n", left, y,
             left + plotW);
      };

      // Used entries.
      yAxis(p, sa, left, left + plotW, topA + hA, topA, pct ? "%" : "");
      xAxis(topA + hA);
      std::vector<Point> pts;
      pts.reserve(samples.size());
      for (const auto& s : samples)
         pts.push_back({xOf(s.op), topA + hA - s.usedEntries * usedScale / sa.top * hA});
      polyline(p, pts, "#0f766e", markers);
      p.f("<line class=\"key\" stroke=\"#0f766e\" x1=\"{0}\" y1=\"{1}\" x2=\"{2}\" y2=\"{1}\"/>"
          "<text x=\"{3}\" y=\"{4}\">used entries",
          left + plotW + 16, topA + 6, left + plotW + 36, left + plotW + 42, topA + 10);
      p.raw("</text>\n");
      if (pct)
         p.f("<text class=\"sub\" x=\"{}\" y=\"{}\">% of {} entries</text>\n", left + plotW + 42,
             topA + 26, grouped(d.tableEntries));
      axisTitleLeft(p, 18, topA + hA / 2.0, pct ? "used entries (%)" : "used entries");

      // Routes per region.
      if (d.occupancyRegions.empty()) {
         noData(p, left, topB, plotW, hB, "no regions named");
      } else {
         yAxis(p, sb, left, left + plotW, topB + hB, topB, "");
         xAxis(topB + hB);
         for (size_t r = 0; r < d.occupancyRegions.size(); ++r) {
            const char* colour = seriesColours[r % std::size(seriesColours)];
            pts.clear();
            for (const auto& s : samples)
               if (r < s.routes.size())
                  pts.push_back({xOf(s.op), topB + hB - double(s.routes[r]) / sb.top * hB});
            polyline(p, pts, colour, markers);
            const int ly = topB + 6 + int(r) * 20;
            bool cut = false;
            std::string_view name = shortened(d.occupancyRegions[r], 26, cut);
            p.f("<g><line class=\"key\" stroke=\"{}\" x1=\"{}\" y1=\"{}\" x2=\"{}\" y2=\"{}\"/>",
                colour, left + plotW + 16, ly, left + plotW + 36, ly);
            p.f("<text x=\"{}\" y=\"{}\">", left + plotW + 42, ly + 4);
            p.text(name);
            if (cut) p.raw("&#8230;");
            p.raw("</text><title>");
            p.text(d.occupancyRegions[r]);
            p.raw("</title></g>\n");
         }
      }
      axisTitleLeft(p, 18, topB + hB / 2.0, "routes");
      p.f("<text class=\"atl\" x=\"{}\" y=\"{}\" text-anchor=\"middle\">operation</text>\n",
          left + plotW / 2, height - 12);
   }
   p.raw("</svg>\n<figcaption><b>Figure 3.</b> Occupancy over the run: used entries of the table");
   if (d.tableEntries != 0) p.f(" as a percentage of its {} entries", grouped(d.tableEntries));
   p.f(" (top) and routes per region (bottom) after each sampled operation; {} samples.",
       grouped(samples.size()));
   p.raw("</figcaption>\n</figure>\n");
}

// ---------------------------------------------------------------------------------------------
// Tables and page

void factsTable(Page& p, const ReportData& d) {
   p.raw("<h2>Run</h2>\n");
   if (d.facts.empty()) return p.raw("<p class=\"none\">No statistics recorded.</p>\n");
   p.raw("<table class=\"facts\">\n");
   for (const auto& [label, value] : d.facts) {
      p.raw("<tr><th scope=\"row\">");
      p.text(label);
      p.raw("</th><td>");
      p.text(value);
      p.raw("</td></tr>\n");
   }
   p.raw("</table>\n");
}

void capacityTable(Page& p, const ReportData& d) {
   p.raw("<h2>Capacity</h2>\n");
   if (d.capacity.empty()) return p.raw("<p class=\"none\">No capacity figures recorded.</p>\n");
   p.raw(
       "<table class=\"capacity\">\n<tr><th>Region</th><th class=\"n\">Max</th>"
       "<th class=\"n\">Used</th><th class=\"n\">Free</th><th class=\"n\">High watermark</th>"
       "<th>Used %</th><th>Warning</th></tr>\n");
   for (const auto& c : d.capacity) {
      p.raw(c.warning.empty() ? "<tr><td>" : "<tr class=\"warn\"><td>");
      p.text(c.region);
      p.f("</td><td class=\"n\">{}</td><td class=\"n\">{}</td><td class=\"n\">{}</td>"
          "<td class=\"n\">{}</td><td>",
          grouped(c.max), grouped(c.used), grouped(c.free), grouped(c.highWatermark));
      if (std::isfinite(c.percentUsed))
         p.f("<span class=\"meter\"><span style=\"width:{:.1f}%\"></span></span>{:.1f}%",
             std::clamp(c.percentUsed, 0.0, 100.0), c.percentUsed);
      else
         p.raw("&#8211;");
      p.raw("</td><td class=\"w\">");
      p.text(c.warning);
      p.raw("</td></tr>\n");
   }
   p.raw("</table>\n");
}

void style(Page& p, const ReportData& d) {
   p.raw(R"(<style>
:root{color-scheme:light}
body{margin:0;background:#f4f6f8;color:#1f2933;font:14px/1.45 system-ui,-apple-system,"Segoe UI",sans-serif}
main{max-width:1040px;margin:0 auto;padding:24px 20px 48px}
h1{font-size:22px;margin:0 0 2px}
h2{font-size:16px;margin:28px 0 8px;color:#334155}
p.none{color:#64748b;font-style:italic}
table{border-collapse:collapse;background:#fff;border:1px solid #d6dce4;font-variant-numeric:tabular-nums}
th,td{padding:5px 12px;text-align:left;border-bottom:1px solid #e6eaf0;vertical-align:middle}
tr:last-child>*{border-bottom:0}
table.facts th{background:#f1f4f7;font-weight:600;color:#334155}
table.capacity tr:first-child th{background:#e9edf2}
.n{text-align:right}
tr.warn td{background:#fff3d6}
td.w{color:#9a3412;font-weight:600}
.meter{display:inline-block;width:64px;height:8px;margin-right:8px;background:#e6eaf0;border-radius:4px;overflow:hidden}
.meter>span{display:block;height:100%;background:#3b82f6}
tr.warn .meter>span{background:#ea580c}
figure{margin:28px 0 0;background:#fff;border:1px solid #d6dce4;border-radius:6px;padding:12px 14px 10px}
figure svg{display:block;width:100%;height:auto}
figcaption{font-size:13px;color:#475569;margin-top:8px}
svg text{font:12px system-ui,-apple-system,"Segoe UI",sans-serif;fill:#3b4754}
svg .ttl{font-size:13px;font-weight:600;fill:#1f2933}
svg .sub{fill:#64748b}
svg .atl{font-size:12.5px;font-weight:600;fill:#334155}
svg .none{font-style:italic;fill:#64748b}
svg .val{font-size:11px;fill:#1e3a8a}
svg .blabel{fill:#be123c;font-weight:600}
svg .axis{stroke:#7b8794;stroke-width:1}
svg .grid{stroke:#e8ecf1;stroke-width:1}
svg .frame{fill:none;stroke:#9aa5b1;stroke-width:1}
svg .bar{fill:#3b82f6}
svg .bar:hover{fill:#1d4ed8}
svg .series{fill:none;stroke-width:1.8;stroke-linejoin:round}
svg .key{stroke-width:3}
svg .border{fill:none;stroke:#e11d48;stroke-width:2}
)");
   // One rule per cell colour the maps use.
   bool used[2 + numFamilies * 256] = {};
   for (const auto& m : d.maps)
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
   p.raw("\n</style>\n");
}

// Runs where the page is opened: every figure must have laid out an SVG of non-zero size with
// something drawn in it. A headless browser reads the verdict from <body>.
constexpr std::string_view selfCheck = R"(<script>
(function () {
  var errors = [];
  function check() {
    var figs = document.getElementsByTagName('figure'), good = 0, problems = [];
    if (figs.length === 0) problems.push('no figures');
    for (var i = 0; i < figs.length; ++i) {
      var f = figs[i], name = 'figure ' + (i + 1), svg = f.querySelector('svg');
      if (!svg) { problems.push(name + ': no svg'); continue; }
      var box = svg.getBoundingClientRect();
      if (!(box.width > 0 && box.height > 0)) { problems.push(name + ': svg has no size'); continue; }
      var shapes = svg.querySelectorAll('rect,line,polyline,polygon,path,circle'), drawn = false;
      for (var j = 0; j < shapes.length && !drawn; ++j) {
        var r = shapes[j].getBoundingClientRect(), thin = /line/.test(shapes[j].tagName);
        drawn = thin ? (r.width > 0 || r.height > 0) : (r.width > 0 && r.height > 0);
      }
      if (!drawn) { problems.push(name + ': nothing drawn'); continue; }
      if (!f.querySelector('figcaption')) { problems.push(name + ': no caption'); continue; }
      ++good;
    }
    return { good: good, problems: problems };
  }
  function run() {
    var res;
    try { res = check(); } catch (e) { errors.push(String(e && e.message || e)); res = { good: 0, problems: [] }; }
    var all = errors.concat(res.problems);
    document.body.dataset.figures = String(res.good);
    document.body.dataset.render = all.length ? 'error: ' + all.join('; ') : 'ok';
  }
  window.onerror = function (msg) { errors.push(String(msg)); run(); };
  run();
  window.addEventListener('load', run);
})();
</script>
)";

}  // namespace

void writeHtmlReport(std::ostream& out, const ReportData& data) {
   Page p;
   const std::string_view title =
       data.title.empty() ? std::string_view("TCAM simulation report") : data.title;
   p.raw(
       "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
       "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>");
   p.text(title);
   p.raw("</title>\n");
   style(p, data);
   p.raw("</head>\n<body data-render=\"pending\" data-figures=\"0\">\n<main>\n<h1>");
   p.text(title);
   p.raw("</h1>\n");
   factsTable(p, data);
   capacityTable(p, data);
   p.raw("<h2>Figures</h2>\n");
   figureMap(p, data);
   figureMoves(p, data.movesPerUpdate);
   figureOccupancy(p, data);
   p.raw("</main>\n");
   p.raw(selfCheck);
   p.raw("</body>\n</html>\n");
   out.write(p.buffer().data(), std::streamsize(p.buffer().size()));
}

}  // namespace VexloL3Common::sim
