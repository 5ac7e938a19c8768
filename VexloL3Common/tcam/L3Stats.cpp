#include "VexloL3Common/tcam/L3Stats.h"

#include "platform/Assert.h"

namespace VexloL3Common {

std::string RoutePosition::toString() const {
   return fmt::format("count {} old {} new {} v4 {} type {}", count, oldRouteId, newRouteId, v4,
                      type);
}

std::string RouteMergeInfo::toString() const {
   return fmt::format("count {} src {} {} dst {} {}", count, srcRouteId, srcRouteType, dstRouteId,
                      dstRouteType);
}

void throwRouteTypeIndexError(unsigned index, unsigned size) {
   throw std::range_error(
       fmt::format("cannot access index {} of an array with size {}", index, size));
}

void publishMove(RouteMove& move, const RouteMove& status, const RoutePosition& p,
                 const char* text) {
   move.posIs(p);
   VEXLO_ASSERT_MSG(move.pos() == status.pos(), text, " move pos ", move.pos(), " moveStatus pos ",
                    status.pos());
}

}  // namespace VexloL3Common
