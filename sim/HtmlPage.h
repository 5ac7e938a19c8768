// The pieces the HTML report is built from: the page buffer, number formatting, axes and frames
// shared by the figures, and the figures themselves (HtmlFigure*.cpp). Used by HtmlReport.cpp only.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sim/HtmlReport.h"

namespace VexloL3Common::sim::html {

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

// ---- numbers (HtmlPage.cpp)

std::string grouped(uint64_t v);
// Tick values and labels on crowded axes: four significant digits, then SI suffixes.
std::string compact(double v);
std::string count(uint64_t v);

// An axis from 0 to `top` in `ticks` steps of `step`, with 1-2-2.5-5 steps and about five ticks.
struct Scale {
   double top = 1, step = 1;
   int ticks = 1;
};

Scale niceScale(double maxV, bool integral);

// ---- common drawing pieces (HtmlPage.cpp)

inline constexpr int svgWidth = 1000;

void openSvg(Page& p, int height, std::string_view label);
void noData(Page& p, int x, int y, int w, int h, std::string_view what);
// Horizontal grid lines and labels of a vertical axis running from y0 (value 0) up to y1.
void yAxis(Page& p, const Scale& s, int x0, int x1, double y0, double y1, std::string_view unit);
void axisTitleLeft(Page& p, int x, double yMid, std::string_view title);

// ---- the figures, each a <figure> with an <svg> and a <figcaption>

// Figure 1 (HtmlFigureMap.cpp), and the CSS rules of the cell colours its maps use.
void figureMap(Page& p, const ReportData& d);
void mapCellStyles(Page& p, const std::vector<ReportData::TableMap>& maps);
// Figure 2 (HtmlFigureMoves.cpp).
// id: the figure's HTML id, one per page.
void figureMoves(Page& p, const std::vector<uint64_t>& bins,
                 std::string_view id = "moves-per-update");
// Figure 3 (HtmlFigureOccupancy.cpp).
void figureOccupancy(Page& p, const ReportData& d);

}  // namespace VexloL3Common::sim::html
