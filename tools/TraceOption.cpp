// --trace: a configuration that names a handle this program does not have, or a level that is
// not one, is a usage error that lists the handles there are; only a valid one is applied.
#include <algorithm>
#include <stdexcept>
#include <string_view>

#include "platform/Trace.h"
#include "platform/TraceHandles.h"
#include "sim/Quote.h"
#include "tools/Tool.h"

namespace VexloL3Common::tool {

namespace {

std::string_view trimmed(std::string_view s) {
   while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
      s.remove_prefix(1);
   while (!s.empty() && (s.back() == ' ' || s.back() == '\t'))
      s.remove_suffix(1);
   return s;
}

std::string joined(const std::vector<std::string>& names) {
   std::string s;
   for (const std::string& n : names)
      s += (s.empty() ? "" : ", ") + n;
   return s;
}

}  // namespace

void applyTraceLevels(const std::string& config) {
   const std::vector<std::string> known = Ulo::Trace::handleNames();
   std::string_view rest = config;
   while (!rest.empty()) {
      const size_t comma = rest.find(',');
      const std::string_view item = trimmed(rest.substr(0, comma));
      rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
      const std::string_view name = trimmed(item.substr(0, item.find('=')));
      if (item.empty() || name.empty() || name == "*") continue;
      if (std::find(known.begin(), known.end(), name) == known.end()) {
         throw UsageError("--trace: unknown trace handle '" + sim::clipped(name) +
                          "'; known handles: " + joined(known));
      }
   }
   try {
      Ulo::Trace::configure(config);
   } catch (const std::range_error& e) {
      throw UsageError("--trace: " + sim::printable(e.what()) +
                       " (levels: a number 0-9, a range a-b, or *)");
   }
}

}  // namespace VexloL3Common::tool
