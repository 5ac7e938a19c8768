#include "sim/HtmlReport.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <string_view>

#include "sim/HtmlPage.h"

namespace VexloL3Common::sim {
namespace {

using namespace html;

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
   mapCellStyles(p, d.maps);
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

void comparisonTable(Page& p, const ComparisonData& d) {
   p.raw("<h2>Runs</h2>\n<table class=\"facts\">\n<tr><th></th>");
   for (const std::string& run : d.runs) {
      p.raw("<th>");
      p.text(run);
      p.raw("</th>");
   }
   p.raw("</tr>\n");
   for (const auto& row : d.rows) {
      p.raw("<tr><th scope=\"row\">");
      p.text(row[0]);
      for (size_t i = 1; i < row.size(); ++i) {
         p.raw(i == 1 ? "</th><td>" : "</td><td>");
         p.text(row[i]);
      }
      p.raw("</td></tr>\n");
   }
   p.raw("</table>\n");
}

void pageStart(Page& p, std::string_view title, const ReportData& styleOf) {
   p.raw(
       "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
       "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>");
   p.text(title);
   p.raw("</title>\n");
   style(p, styleOf);
   p.raw("</head>\n<body data-render=\"pending\" data-figures=\"0\">\n<main>\n<h1>");
   p.text(title);
   p.raw("</h1>\n");
}

void pageEnd(Page& p, std::ostream& out) {
   p.raw("</main>\n");
   p.raw(selfCheck);
   p.raw("</body>\n</html>\n");
   out.write(p.buffer().data(), std::streamsize(p.buffer().size()));
}

}  // namespace

std::vector<uint64_t> movesBars(const std::vector<uint64_t>& counts) {
   constexpr size_t bars = 33;
   // The last bar always reads "that many or more": when every count fits, it is an empty one.
   std::vector<uint64_t> out(std::min(bars, counts.size() + 1), 0);
   for (size_t m = 0; m < counts.size(); ++m)
      out[std::min(m, bars - 1)] += counts[m];
   return out;
}

void writeHtmlComparison(std::ostream& out, const ComparisonData& data) {
   Page p;
   pageStart(p, data.title.empty() ? std::string_view("TCAM runs compared") : data.title,
             ReportData{});
   comparisonTable(p, data);
   for (size_t i = 0; i < data.runs.size(); ++i) {
      p.raw("<h2>Moves per update: ");
      p.text(data.runs[i]);
      p.raw("</h2>\n");
      figureMoves(p, data.movesPerUpdate[i], fmt::format("moves-per-update-{}", i + 1));
   }
   pageEnd(p, out);
}

void writeHtmlReport(std::ostream& out, const ReportData& data) {
   Page p;
   pageStart(p, data.title.empty() ? std::string_view("TCAM simulation report") : data.title, data);
   factsTable(p, data);
   capacityTable(p, data);
   p.raw("<h2>Figures</h2>\n");
   figureMap(p, data);
   figureMoves(p, data.movesPerUpdate);
   figureOccupancy(p, data);
   pageEnd(p, out);
}

}  // namespace VexloL3Common::sim
