// Did it fit. A run is inconsistent (exit 1) when the model or the emulated table found a fault;
// otherwise it fails with exit 3 only when --fail-on asks for it: `refused` when any route was
// refused, `warning` when a region is at the warning threshold or worse, `critical` when one is
// critical (refused routes make a region critical).
#include "sim/Quote.h"
#include "tools/Tool.h"

namespace VexloL3Common::tool {

namespace {

int rank(const std::string& severity) {
   return severity == "critical" ? 2 : severity == "warning" ? 1 : 0;
}

}  // namespace

Verdict verdictOf(const Options& o, const std::vector<sim::ReportData::CapacityRow>& capacity,
                  uint64_t refused, std::vector<std::string> inconsistencies) {
   Verdict v;
   v.inconsistencies = std::move(inconsistencies);
   for (const auto& r : capacity) {
      if (rank(r.severity) > rank(v.severity)) v.severity = r.severity;
   }
   // Without a capacity table (show), refused routes still make the run critical.
   if (refused) v.severity = "critical";
   if (o.failOn == "refused" && refused) {
      v.failedOn =
          fmt::format("{} route{} refused (--fail-on refused)", refused, refused == 1 ? "" : "s");
   } else if (!o.failOn.empty() && o.failOn != "refused" && rank(v.severity) >= rank(o.failOn)) {
      v.failedOn = fmt::format("a region is {} (--fail-on {})", v.severity, o.failOn);
   }
   v.exitStatus = !v.inconsistencies.empty() ? exitInconsistent
                  : !v.failedOn.empty()      ? exitNotFitted
                                             : exitFitted;
   return v;
}

std::string inconsistencyLine(const Verdict& v) {
   if (v.inconsistencies.empty()) return "";
   std::string line = "inconsistency: " + sim::printable(v.inconsistencies.front());
   if (v.inconsistencies.size() > 1)
      line += fmt::format(" (and {} more)", v.inconsistencies.size() - 1);
   return line;
}

}  // namespace VexloL3Common::tool
