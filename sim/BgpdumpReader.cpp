// The `bgpdump -m` / `-M` reader (sim/RouteFormats.h): one record per line, fields split by '|',
// the prefix in the sixth.
#include <stdexcept>

#include "sim/Quote.h"
#include "sim/RouteFormats.h"

namespace VexloL3Common::sim {

namespace {

// The first `n` fields of a line; fewer when the line has fewer.
std::vector<std::string_view> fields(std::string_view line, size_t n) {
   std::vector<std::string_view> out;
   while (out.size() < n) {
      const size_t bar = line.find('|');
      out.push_back(line.substr(0, bar));
      if (bar == std::string_view::npos) break;
      line.remove_prefix(bar + 1);
   }
   return out;
}

void readLine(ReadTable& t, std::string_view line) {
   const std::vector<std::string_view> f = fields(line, 6);
   if (f.size() < 3) {
      throw std::invalid_argument("not a bgpdump record: '" + clipped(line) + "'");
   }
   const std::string_view kind = f[2];
   if (kind == "W") return t.skip("withdrawal");
   if (kind != "B" && kind != "A") return t.skip(clipped(kind) + " record");
   if (f.size() < 6 || f[5].empty())
      throw std::invalid_argument("bgpdump record without a prefix: '" + clipped(line) + "'");
   t.add(parseRoute(f[5]));
}

}  // namespace

ReadTable readBgpdump(std::string_view text, std::string_view name) {
   ReadTable t;
   uint32_t lineNo = 0;
   while (!text.empty()) {
      ++lineNo;
      const size_t end = text.find('\n');
      std::string_view line = text.substr(0, end);
      text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
      while (!line.empty() && (line.back() == '\r' || line.back() == ' '))
         line.remove_suffix(1);
      if (line.empty()) continue;
      try {
         readLine(t, line);
      } catch (const std::invalid_argument& e) {
         throw InputError(name, lineNo, e.what());
      }
   }
   return t;
}

}  // namespace VexloL3Common::sim
