#include "VexloL3Common/state/L3RoutesDir.h"

#include <fmt/ranges.h>

#include "platform/Assert.h"

namespace VexloL3Common {

std::string_view toString(NextHopRouteType t) {
   switch (t) {
      case NextHopRouteType::none:
         return "none";
      case NextHopRouteType::forward:
         return "forward";
      case NextHopRouteType::drop:
         return "drop";
      case NextHopRouteType::receive:
         return "receive";
      case NextHopRouteType::cpu:
         return "cpu";
   }
   return "unknown";
}

size_t NextHopInfo::hash(size_t seed) const {
   const uint64_t small =
       uint64_t(routeType) | uint64_t(ecmp) << 8 | uint64_t(vxlan) << 9 | uint64_t(mpls) << 10;
   return Ulo::hashMix(Ulo::hashMix(Ulo::hashValue(adjId, seed), underlayAdjId.value()), small);
}

std::string NextHopInfo::toString() const {
   return fmt::format("{} adj {} underlay {}{}{}{}", routeType, adjId, underlayAdjId,
                      ecmp ? " ecmp" : "", vxlan ? " vxlan" : "", mpls ? " mpls" : "");
}

Ulo::Ptr<Route> routeFactory() {
   return std::make_shared<Route>();
}
Ulo::Ptr<Pivot> pivotFactory() {
   return std::make_shared<Pivot>();
}

Ulo::Ptr<Routes4Dir> routes4DirFactory(const std::string& name) {
   return std::make_shared<Routes4Dir>(name);
}
Ulo::Ptr<Routes6Dir> routes6DirFactory(const std::string& name) {
   return std::make_shared<Routes6Dir>(name);
}
Ulo::Ptr<Pivots4Dir> pivots4DirFactory(const std::string& name) {
   return std::make_shared<Pivots4Dir>(name);
}
Ulo::Ptr<Pivots6Dir> pivots6DirFactory(const std::string& name) {
   return std::make_shared<Pivots6Dir>(name);
}
Ulo::Ptr<AdjRefCount> adjRefCountFactory(const std::string& name) {
   return std::make_shared<AdjRefCount>(name);
}

Ulo::Ptr<RoutesDirSingleton> routesDirSingletonFactory(const std::string& name) {
   auto s = std::make_shared<RoutesDirSingleton>(name);
   s->routes4Is(routes4DirFactory("routes4"));
   s->routes6Is(routes6DirFactory("routes6"));
   s->adjRefCountIs(adjRefCountFactory("adjRefCount"));
   return s;
}

Ulo::Ptr<PivotsDirSingleton> pivotsDirSingletonFactory(const std::string& name) {
   auto s = std::make_shared<PivotsDirSingleton>(name);
   s->pivots4Is(pivots4DirFactory("pivots4"));
   s->pivots6Is(pivots6DirFactory("pivots6"));
   return s;
}

CliSorter CliSorter::fromString(std::string_view) {
   VEXLO_ASSERT(false, "No String constructor for CliSorter - has collection");
   __builtin_unreachable();
}

size_t CliSorter::hash(size_t seed) const {
   seed = Ulo::hashMix(seed, entryId_.size());
   for (uint32_t id : entryId_)
      seed = Ulo::hashMix(seed, id);
   return seed;
}

std::string CliSorter::toString() const {
   return fmt::format("{{{}}}", fmt::join(entryId_, ", "));
}

}  // namespace VexloL3Common
