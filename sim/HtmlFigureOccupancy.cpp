// Figure 3 of the HTML report: occupancy over the run, used entries and routes per region.
#include <algorithm>
#include <cmath>
#include <iterator>

#include "sim/HtmlPage.h"

namespace VexloL3Common::sim::html {
namespace {

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

constexpr int left = 84, right = 210, plotW = svgWidth - left - right;
constexpr int topA = 28, hA = 190, topB = topA + hA + 56, hB = 210, height = topB + hB + 56;

// The scales of the two panels: operations across, used entries (top), routes (bottom).
struct OccupancyAxes {
   Scale sx, sa, sb;
   bool pct = false;        // used entries as a percentage of the table
   double usedScale = 1.0;  // from used entries to the top panel's unit
   bool markers = false;    // few samples: each one marked

   double xOf(uint64_t op) const { return left + double(op) / sx.top * plotW; }
};

OccupancyAxes occupancyAxes(const ReportData& d) {
   const auto& samples = d.occupancy;
   uint64_t maxOp = 0, maxRoutes = 0;
   double maxUsed = 0;
   for (const auto& s : samples) {
      maxOp = std::max(maxOp, s.op);
      maxUsed = std::max(maxUsed, double(s.usedEntries));
      for (size_t i = 0; i < s.routes.size() && i < d.occupancyRegions.size(); ++i)
         maxRoutes = std::max(maxRoutes, s.routes[i]);
   }
   OccupancyAxes a;
   a.pct = d.tableEntries != 0;
   a.usedScale = a.pct ? 100.0 / d.tableEntries : 1.0;
   a.sx = niceScale(double(maxOp), true);
   a.sa = niceScale(maxUsed * a.usedScale, !a.pct);
   a.sb = niceScale(double(maxRoutes), true);
   a.markers = samples.size() <= 60;
   return a;
}

void xAxis(Page& p, const Scale& sx, int y) {
   for (int i = 0; i <= sx.ticks; ++i) {
      double x = left + double(plotW) * i / sx.ticks;
      p.f("<line class=\"axis\" x1=\"{0:.1f}\" y1=\"{1}\" x2=\"{0:.1f}\" y2=\"{2}\"/>"
          "<text x=\"{0:.1f}\" y=\"{3}\" text-anchor=\"middle\">{4}</text>\n",
          x, y, y + 4, y + 17, compact(i * sx.step));
   }
   p.f("<line class=\"axis\" x1=\"{0}\" y1=\"{1}\" x2=\"{2}\" y2=\"{1}\"/>\n", left, y,
       left + plotW);
}

// The top panel: used entries.
void usedEntriesPanel(Page& p, const ReportData& d, const OccupancyAxes& a) {
   const auto& samples = d.occupancy;
   yAxis(p, a.sa, left, left + plotW, topA + hA, topA, a.pct ? "%" : "");
   xAxis(p, a.sx, topA + hA);
   std::vector<Point> pts;
   pts.reserve(samples.size());
   for (const auto& s : samples)
      pts.push_back({a.xOf(s.op), topA + hA - s.usedEntries * a.usedScale / a.sa.top * hA});
   polyline(p, pts, "#0f766e", a.markers);
   p.f("<line class=\"key\" stroke=\"#0f766e\" x1=\"{0}\" y1=\"{1}\" x2=\"{2}\" y2=\"{1}\"/>"
       "<text x=\"{3}\" y=\"{4}\">used entries",
       left + plotW + 16, topA + 6, left + plotW + 36, left + plotW + 42, topA + 10);
   p.raw("</text>\n");
   if (a.pct)
      p.f("<text class=\"sub\" x=\"{}\" y=\"{}\">% of {} entries</text>\n", left + plotW + 42,
          topA + 26, grouped(d.tableEntries));
   axisTitleLeft(p, 18, topA + hA / 2.0, a.pct ? "used entries (%)" : "used entries");
}

// The bottom panel: routes per region, one series each with its key.
void routesPanel(Page& p, const ReportData& d, const OccupancyAxes& a) {
   const auto& samples = d.occupancy;
   if (d.occupancyRegions.empty()) return noData(p, left, topB, plotW, hB, "no regions named");
   yAxis(p, a.sb, left, left + plotW, topB + hB, topB, "");
   xAxis(p, a.sx, topB + hB);
   std::vector<Point> pts;
   for (size_t r = 0; r < d.occupancyRegions.size(); ++r) {
      const char* colour = seriesColours[r % std::size(seriesColours)];
      pts.clear();
      for (const auto& s : samples)
         if (r < s.routes.size())
            pts.push_back({a.xOf(s.op), topB + hB - double(s.routes[r]) / a.sb.top * hB});
      polyline(p, pts, colour, a.markers);
      const int ly = topB + 6 + int(r) * 20;
      bool cut = false;
      std::string_view name = shortened(d.occupancyRegions[r], 26, cut);
      p.f("<g><line class=\"key\" stroke=\"{}\" x1=\"{}\" y1=\"{}\" x2=\"{}\" y2=\"{}\"/>", colour,
          left + plotW + 16, ly, left + plotW + 36, ly);
      p.f("<text x=\"{}\" y=\"{}\">", left + plotW + 42, ly + 4);
      p.text(name);
      if (cut) p.raw("&#8230;");
      p.raw("</text><title>");
      p.text(d.occupancyRegions[r]);
      p.raw("</title></g>\n");
   }
}

}  // namespace

void figureOccupancy(Page& p, const ReportData& d) {
   const auto& samples = d.occupancy;
   p.raw("<figure id=\"occupancy\">\n");
   openSvg(p, height, "occupancy over the run");
   if (samples.empty()) {
      noData(p, left, topA, plotW, topB + hB - topA, "no samples recorded");
   } else {
      const OccupancyAxes a = occupancyAxes(d);
      usedEntriesPanel(p, d, a);
      routesPanel(p, d, a);
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

}  // namespace VexloL3Common::sim::html
