// vexlo-tcam compare: two runs' `simulate --json` output side by side, as text and optionally as
// an HTML page, so that a change of configuration (placement, churn kind, layout) shows its cost
// figure by figure. The runs must have loaded the same table; a figure one of them lacks (an
// older output, a run without churn) shows as "-".
#include <nlohmann/json.hpp>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "sim/HtmlReport.h"
#include "sim/Quote.h"
#include "tools/Tool.h"

namespace VexloL3Common::tool {

namespace {

using nlohmann::json;

json readRun(const std::string& path) {
   const std::string shown = sim::clipped(path);
   std::ifstream f(path);
   if (!f) throw UsageError("cannot read '" + shown + "'");
   std::ostringstream text;
   text << f.rdbuf();
   json j = json::parse(text.str(), nullptr, false);
   if (j.is_discarded()) throw UsageError(shown + ": not JSON");
   if (j.is_object() && j.contains("fitting"))
      throw UsageError(shown + ": a fit result, not the output of simulate --json");
   for (const char* key : {"config", "input", "routes", "moves", "timing"}) {
      if (!j.is_object() || !j.contains(key) || !j[key].is_object())
         throw UsageError(
             fmt::format("{}: not the output of simulate --json (no \"{}\")", shown, key));
   }
   return j;
}

// The value at a path of keys, or null when any step is missing (a const json's operator[] must
// not meet a missing key, and a file is not to be trusted to have them).
const json& at(const json& j, std::initializer_list<const char*> path) {
   static const json none;
   const json* v = &j;
   for (const char* key : path) {
      if (!v->is_object() || !v->contains(key)) return none;
      v = &(*v)[key];
   }
   return *v;
}

std::string text(const json& v) {
   if (v.is_null()) return "-";
   if (v.is_string()) return v.get<std::string>();
   if (v.is_number_float()) return fmt::format("{:.2f}", v.get<double>());
   return v.dump();
}

// A phase's moves per operation, from the timing list.
json phaseMean(const json& j, const char* name) {
   for (const json& p : at(j, {"timing", "phases"})) {
      if (p.value("name", "") == name && p.value("operations", 0) > 0)
         return double(p.value("moves", 0)) / double(p.value("operations", 1));
   }
   return nullptr;
}

std::string layoutText(const json& c) {
   std::string s =
       fmt::format("{} entries, mode {}, {} blocks, {} IPv4 per entry", text(at(c, {"size"})),
                   text(at(c, {"mode"})), text(at(c, {"blocks"})),
                   c.value("twoV4PerEntry", true) ? "two" : "one");
   if (c.value("pairing", false))
      s += c.value("dynamicBorder", false) ? ", moving border" : ", pairing";
   return s;
}

std::string churnText(const json& j) {
   const json& c = at(j, {"config", "churn"});
   if (c.is_null()) return "-";
   if (c.value("updates", 0) == 0) return "none";
   std::string s = fmt::format("{} updates, {} (seed {})", text(at(c, {"updates"})),
                               text(at(c, {"kind"})), text(at(c, {"seed"})));
   if (!at(c, {"routes"}).is_null()) s += " from " + text(at(c, {"routes"}));
   return s;
}

// A mean, with two decimals whether the writer gave it as 0 or 0.25.
std::string meanText(const json& v) {
   return v.is_number() ? fmt::format("{:.2f}", v.get<double>()) : text(v);
}

// An update; null in an output that has the key means no update of the kind moved a route.
std::string updateText(const json& u, bool present) {
   if (u.is_null()) return present ? "none moved a route" : "-";
   return fmt::format("{} moves: {} {} ({})", text(at(u, {"moves"})), text(at(u, {"kind"})),
                      text(at(u, {"route"})), text(at(u, {"phase"})));
}

// One row per figure: label, then each run's value.
using Row = std::array<std::string, 3>;

std::vector<Row> rowsOf(const json& a, const json& b) {
   std::vector<Row> rows;
   auto add = [&](const char* label, auto value) { rows.push_back({label, value(a), value(b)}); };
   auto path = [](std::initializer_list<const char*> p) {
      return [p](const json& j) { return text(at(j, p)); };
   };
   auto mean = [](std::initializer_list<const char*> p) {
      return [p](const json& j) { return meanText(at(j, p)); };
   };
   add("layout", [](const json& j) { return layoutText(at(j, {"config"})); });
   add("placement", path({"config", "placement"}));
   add("placement weights", [](const json& j) {
      const json& w = at(j, {"config", "weights"});
      return at(j, {"config", "placement"}) == "weighted" && w.is_null() ? "built-in" : text(w);
   });
   add("churn", churnText);
   add("routes placed", path({"routes", "placed"}));
   add("routes refused", path({"routes", "refused"}));
   add("routes installed", path({"routes", "installed"}));
   add("load: moves per route", [](const json& j) { return text(phaseMean(j, "load")); });
   add("load: moves per route placed", mean({"moves", "loadPerInsert", "mean"}));
   add("load: p99 moves per insert", path({"moves", "loadPerInsert", "p99"}));
   add("churn: moves per update", [](const json& j) { return text(phaseMean(j, "churn")); });
   add("churn: moves per pair", mean({"moves", "churnPerPair", "mean"}));
   add("p99 moves per update", path({"moves", "perUpdate", "p99"}));
   add("largest single insert", [](const json& j) {
      return updateText(at(j, {"moves", "largestInsert"}),
                        at(j, {"moves"}).contains("largestInsert"));
   });
   add("largest single update", [](const json& j) {
      const json& w = at(j, {"worstUpdates"});
      return updateText(w.is_array() && !w.empty() ? w[0] : json(), w.is_array());
   });
   add("moves in all", path({"moves", "total"}));
   add("reallocations", path({"reallocations"}));
   add("severity", path({"severity"}));
   return rows;
}

void printRows(const std::array<std::string, 2>& names, const std::vector<Row>& rows) {
   size_t w0 = 0, w1 = names[0].size();
   for (const Row& r : rows) {
      w0 = std::max(w0, r[0].size());
      w1 = std::max(w1, r[1].size());
   }
   std::printf("  %-*s  %-*s  %s\n", int(w0), "", int(w1), names[0].c_str(), names[1].c_str());
   for (const Row& r : rows)
      std::printf("  %-*s  %-*s  %s\n", int(w0), r[0].c_str(), int(w1), r[1].c_str(), r[2].c_str());
}

}  // namespace

int compareRuns(const std::string& first, const std::string& second, const std::string& report) {
   if (report == "-") throw UsageError("--report needs a file name");
   if (!report.empty()) checkWritable(report);
   const json a = readRun(first), b = readRun(second);
   const std::string tableA = text(at(a, {"input", "description"})),
                     tableB = text(at(b, {"input", "description"}));
   if (tableA != tableB || at(a, {"input", "routes"}) != at(b, {"input", "routes"})) {
      throw UsageError(fmt::format("{} and {} loaded different tables: {} and {}",
                                   sim::clipped(first), sim::clipped(second), sim::clipped(tableA),
                                   sim::clipped(tableB)));
   }
   const std::array<std::string, 2> names{first, second};
   const std::vector<Row> rows = rowsOf(a, b);
   std::printf("vexlo-tcam compare: %s, %s routes\n", tableA.c_str(),
               text(at(a, {"input", "routes"})).c_str());
   printRows(names, rows);
   if (!report.empty()) {
      sim::ComparisonData d;
      d.title = "vexlo-tcam compare: " + tableA;
      d.runs = names;
      d.rows = rows;
      int i = 0;
      for (const json* j : {&a, &b}) {
         const json& counts = at(*j, {"moves", "perUpdate", "counts"});
         d.movesPerUpdate[i++] = sim::movesBars(
             counts.is_array() ? counts.get<std::vector<uint64_t>>() : std::vector<uint64_t>{});
      }
      std::ostringstream page;
      sim::writeHtmlComparison(page, d);
      writeFileAtomically(report, page.str());
   }
   return exitFitted;
}

}  // namespace VexloL3Common::tool
