// Routes as the simulator reads and writes them: one value for the three families, the route-file
// and operation-trace readers, and the text form they share.
//
// Synopsis
//   Route r = parseRoute("vrf 3 10.1.0.0/16");          throws std::invalid_argument
//   std::vector<Route> t = readRouteTable(in, "t.routes");   throws InputError "t.routes:7: ..."
//   std::vector<RouteOp> ops = readTrace(in, "churn.trace");
//   writeRouteTable(out, t, "comment");                 what readRouteTable reads back
//
// Text form (one per line; '#' starts a comment that runs to the end of the line; blank lines and
// surrounding blanks are ignored; words are separated by blanks):
//   [vrf N] PREFIX                 IPv4 or IPv6 unicast: "10.1.0.0/16", "vrf 3 2001:db8::/32"
//   mcast [vrf N] [table T] GROUP[/LEN] [SOURCE[/LEN]]
//                                  IPv4 multicast. The key is the group's bits followed by the
//                                  source's: "mcast 239.0.0.0/8" (length 8, any source),
//                                  "mcast 232.1.1.1 10.0.0.0/8" (length 40), "mcast 232.1.1.1
//                                  10.0.0.1" (length 64). A source needs a /32 group; a missing
//                                  length is /32. The group lies in 224.0.0.0/4.
// N is a VRF number (for multicast the VRF index, below 65536), T a table identifier below 65536.
// Host bits below a prefix length are refused, as is a length past the family's width.
// A trace line is "add ROUTE" or "del ROUTE".
//
// Errors: the readers stop at the first bad line and throw InputError, whose text is
// "NAME:LINE: MESSAGE" (LINE counts from 1); nothing is returned from a file with an error. A
// route table that names one route twice is an error on the second line ("duplicate route, first
// on line K"). A trace may add and delete a route any number of times; whether each operation
// is valid against the table it is applied to is the simulation's business.
//
// Plain values and free functions; nothing is shared between threads.
#pragma once

#include <cstdint>
#include <istream>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "VexloL3Common/types/L3RouteTypes.h"

namespace VexloL3Common::sim {

struct Route {
   enum class Family : uint8_t { v4, v6, mcast };
   Family family = Family::v4;
   // Only the key of `family` is meaningful; the others stay default.
   Ipv4UcastKey v4;
   Ipv6UcastKey v6;
   IpMcastPrefixKey mcast;

   static Route of(const Ipv4UcastKey& k);
   static Route of(const Ipv6UcastKey& k);
   static Route of(const IpMcastPrefixKey& k);
   // The key's prefix length (for multicast the group and source bits together).
   uint32_t len() const;
   auto operator<=>(const Route&) const = default;
   size_t hash() const;
   // The text form above, which parseRoute reads back to an equal route.
   std::string toString() const;
};

struct RouteOp {
   enum class Kind : uint8_t { add, del };
   Kind kind = Kind::add;
   Route route;
   uint32_t line = 0;  // where it came from, for messages; 0 when it came from no file
};

// "NAME:LINE: MESSAGE".
class InputError : public std::runtime_error {
 public:
   InputError(std::string_view name, uint32_t line, std::string_view message);
   uint32_t line() const { return line_; }

 private:
   uint32_t line_;
};

// One route in the text form, with no comment and no surrounding blanks. std::invalid_argument
// with a message for the operator (no location) when it is not one.
Route parseRoute(std::string_view text);
std::vector<Route> readRouteTable(std::istream& in, std::string_view name);
std::vector<RouteOp> readTrace(std::istream& in, std::string_view name);
// One route per line; `comment`, when not empty, goes first, each of its lines behind "# ".
void writeRouteTable(std::ostream& out, const std::vector<Route>& routes,
                     std::string_view comment = {});

}  // namespace VexloL3Common::sim

template <>
struct std::hash<VexloL3Common::sim::Route> {
   size_t operator()(const VexloL3Common::sim::Route& r) const { return r.hash(); }
};
