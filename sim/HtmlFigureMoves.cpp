// Figure 2 of the HTML report: the histogram of moves per update.
#include <algorithm>
#include <cmath>

#include "sim/HtmlPage.h"

namespace VexloL3Common::sim::html {

// ---------------------------------------------------------------------------------------------
// Figure 2: moves per update

void figureMoves(Page& p, const std::vector<uint64_t>& bins, std::string_view id) {
   constexpr int height = 360, left = 84, right = 24, top = 28, bottom = 64;
   constexpr int plotW = svgWidth - left - right, plotH = height - top - bottom;
   const double y0 = top + plotH;
   p.raw("<figure id=\"");
   p.text(id);
   p.raw("\">\n");
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

}  // namespace VexloL3Common::sim::html
