// The HTML report's number formatting and the drawing pieces its figures share.
#include "sim/HtmlPage.h"

#include <algorithm>
#include <cmath>

namespace VexloL3Common::sim::html {

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
// Common drawing pieces

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

}  // namespace VexloL3Common::sim::html
