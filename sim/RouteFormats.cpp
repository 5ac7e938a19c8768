#include "sim/RouteFormats.h"

#include <sstream>
#include <stdexcept>

#include "sim/Quote.h"

namespace VexloL3Common::sim {

std::string_view formatName(RouteFormat f) {
   switch (f) {
      case RouteFormat::routes:
         return "routes";
      case RouteFormat::bgpdump:
         return "bgpdump";
      case RouteFormat::iprouteJson:
         return "iproute-json";
   }
   return "?";
}

RouteFormat routeFormatNamed(std::string_view name) {
   for (RouteFormat f : {RouteFormat::routes, RouteFormat::bgpdump, RouteFormat::iprouteJson}) {
      if (name == formatName(f)) return f;
   }
   throw std::invalid_argument("unknown route format '" + clipped(name) +
                               "' (routes, bgpdump, iproute-json)");
}

void ReadTable::skip(std::string_view kind) {
   for (auto& [k, n] : skipped) {
      if (k == kind) {
         ++n;
         return;
      }
   }
   skipped.emplace_back(std::string(kind), 1);
}

void ReadTable::add(const Route& r) {
   if (seen_.insert(r).second) {
      routes.push_back(r);
   } else {
      ++duplicates;
   }
}

RouteFormat detectRouteFormat(std::string_view text) {
   size_t at = 0;
   while (at < text.size()) {
      const size_t end = std::min(text.find('\n', at), text.size());
      std::string_view line = text.substr(at, end - at);
      at = end + 1;
      const size_t first = line.find_first_not_of(" \t\r");
      if (first == std::string_view::npos) continue;
      line.remove_prefix(first);
      if (line.front() == '[' || line.front() == '{') return RouteFormat::iprouteJson;
      // bgpdump's first field is the record type, in capitals: TABLE_DUMP2, BGP4MP, ...
      const size_t bar = line.find('|');
      if (bar != std::string_view::npos && bar > 0 &&
          line.substr(0, bar).find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ_0123456789") ==
              std::string_view::npos)
         return RouteFormat::bgpdump;
      return RouteFormat::routes;
   }
   return RouteFormat::routes;
}

ReadTable readRouteText(std::string_view text, std::string_view name, RouteFormat f) {
   switch (f) {
      case RouteFormat::bgpdump:
         return readBgpdump(text, name);
      case RouteFormat::iprouteJson:
         return readIprouteJson(text, name);
      case RouteFormat::routes:
         break;
   }
   std::istringstream in{std::string(text)};
   ReadTable t;
   t.routes = readRouteTable(in, name);
   return t;
}

}  // namespace VexloL3Common::sim
