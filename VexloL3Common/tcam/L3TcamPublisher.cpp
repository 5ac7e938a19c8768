// The move and merge records' texts and the publisher.
#include "VexloL3Common/tcam/L3TcamPublisher.h"

#include <utility>

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

TcamPublisher::TcamPublisher(Ulo::Ptr<TcamStats> stats, Ulo::Ptr<RouteMove> routeMove,
                             Ulo::Ptr<const RouteMove> routeMoveStatus,
                             Ulo::Ptr<RouteMerge> routeMerge,
                             Ulo::Ptr<const RouteMerge> routeMergeStatus, bool notify)
    : stats_(std::move(stats)),
      routeMove_(std::move(routeMove)),
      routeMoveStatus_(std::move(routeMoveStatus)),
      routeMerge_(std::move(routeMerge)),
      routeMergeStatus_(std::move(routeMergeStatus)),
      notify_(notify) {}

void TcamPublisher::move(RouteType counted, uint32_t oldPos, uint32_t newPos, EntryType type,
                         bool notify, const char* ackText) {
   stats_->moveRouteInc(counted, 1);
   if (!notify || !notify_) return;
   RouteMove& move = *routeMove_;
   move.posIs(
       RoutePosition{stats_->moveRoute(counted), oldPos, newPos, counted == RouteType::v4, type});
   VEXLO_ASSERT_MSG(move.pos() == routeMoveStatus_->pos(), ackText, " move pos ", move.pos(),
                    " moveStatus pos ", routeMoveStatus_->pos());
}

void TcamPublisher::merge(uint32_t srcPos, EntryType srcType, uint32_t dstPos, EntryType dstType,
                          bool notify) {
   stats_->mergeRouteInc(RouteType::v4, 1);
   if (!notify || !notify_) return;
   RouteMergeInfo m;
   m.count = stats_->mergeRoute(RouteType::v4);
   m.srcRouteId = srcPos;
   m.srcRouteType = srcType;
   m.dstRouteId = dstPos;
   m.dstRouteType = dstType;
   routeMerge_->mergeIs(m);
   VEXLO_ASSERT_MSG(routeMerge_->merge() == routeMergeStatus_->merge(),
                    "routeMerge()->merge() == routeMergeStatus()->merge()", " merge ",
                    routeMerge_->merge(), " mergeStatus ", routeMergeStatus_->merge());
}

}  // namespace VexloL3Common
