// Route tables in the forms operators have them, besides the route file (sim/Route.h):
//
//   bgpdump       the one-line-per-route text `bgpdump -m` (or `-M`) prints from an MRT RIB dump:
//                 TYPE|TIME|B|PEER_IP|PEER_AS|PREFIX|AS_PATH|ORIGIN|NEXT_HOP|LOCAL_PREF|MED|...
//                 RIB entries (B) and announcements (A) give their prefix; withdrawals (W) and
//                 state lines are skipped. The same prefix from several peers is one route.
//   iproute-json  what `ip -j route show table all` and `ip -6 -j route show table all` print,
//                 one JSON array after another. Routes of type unicast (or of no type) are taken;
//                 the others (local, broadcast, multicast, blackhole, unreachable, ...) are
//                 skipped. The main table is VRF 0, a numbered table N is VRF N, and other named
//                 tables get VRFs from 16777000 up in order of appearance. "default" is /0 of the
//                 route's family; a route is IPv6 when its destination, gateway or source has a
//                 ':' or it carries the IPv6-only "pref". The same prefix in one table (several
//                 metrics) is one route.
//
// Synopsis
//   RouteFormat f = detectRouteFormat(text);        from the first line that is not blank
//   ReadTable t = readRouteText(text, "rib.txt", f); throws InputError "rib.txt:LINE: ..."
//   t.routes, t.skipped ({"local", 6}, ...), t.duplicates
//
// Errors quote at most 60 characters of the offending text (sim/Quote.h). For iproute-json the
// LINE of an error is the route's position (1-based) in the input, and a JSON syntax error names
// the byte where the parser stopped.
//
// Plain values and free functions; nothing is shared between threads.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "sim/Route.h"

namespace VexloL3Common::sim {

enum class RouteFormat : uint8_t { routes, bgpdump, iprouteJson };
// "routes", "bgpdump", "iproute-json"
std::string_view formatName(RouteFormat f);
// std::invalid_argument for an unknown name.
RouteFormat routeFormatNamed(std::string_view name);
RouteFormat detectRouteFormat(std::string_view text);

struct ReadTable {
   std::vector<Route> routes;
   std::vector<std::pair<std::string, uint64_t>> skipped;  // by kind, in order of appearance
   uint64_t duplicates = 0;  // entries that repeated a route already read

   void skip(std::string_view kind);
   // Adds r unless it was read before (then counts a duplicate).
   void add(const Route& r);

 private:
   std::unordered_set<Route> seen_;
};

ReadTable readRouteText(std::string_view text, std::string_view name, RouteFormat f);
ReadTable readBgpdump(std::string_view text, std::string_view name);
ReadTable readIprouteJson(std::string_view text, std::string_view name);

}  // namespace VexloL3Common::sim
